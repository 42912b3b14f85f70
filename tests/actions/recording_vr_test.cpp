#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <shlwapi.h>

#include <string>
#include <vector>

#include "tests/actions/test_folder.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/library.h"
#include "tests/support/scratch_key.h"
#include "tests/support/tool_recorder.h"

namespace corvi::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr wchar_t kSteamVRKey[] =
    L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Steam App 250820";

/// The VR component in C:\vr\suite\, the settings application's exit tool in C:\vr\hx, SteamVR in
/// C:\vr\steam. What is registered is up to the test.
class RecordingAndVR : public testing::Test {
protected:
    RecordingAndVR() {
        folder_.MakeFile(L"suite\\WVR\\OpenVR\\driver.dll", FILE_ATTRIBUTE_READONLY);
        folder_.MakeFile(L"suite\\WVR\\readme.txt");
        folder_.MakeFile(L"kept\\precious.txt");
        folder_.MakeRecorder(L"hx\\hxcmd.exe");
        qel_.SetText(L"Install\\HXNext", L"Location", L"C:\\vr\\hx");
    }

    void RegisterVR(const std::wstring& directory) const {
        qel_.SetText(L"Install\\WVR64", L"InstallDir", directory);
    }
    void RegisterSteamVR(const std::wstring& directory) const {
        steamVR_.SetText(L"", L"InstallLocation", directory);
    }

    UINT Call(const char* action) const { return library_.Call(action, session_.Handle()); }

    void ExpectVRWhole() const {
        EXPECT_TRUE(folder_.Has(L"suite\\WVR\\OpenVR\\driver.dll"));
        EXPECT_TRUE(folder_.Has(L"suite\\WVR\\readme.txt"));
    }

    std::vector<std::wstring> Programs() const {
        std::vector<std::wstring> programs;
        for (const RecordedRun& run : runs_.Runs()) {
            programs.push_back(run.program);
        }
        return programs;
    }

    TestFolder folder_{L"vr"};
    ScratchKey qel_{L"SOFTWARE\\QEL Technologies"};
    ScratchKey steamVR_{kSteamVRKey};
    ToolRecorder runs_;
    Library library_;
    InstallerSession session_;
};

// ---- DeleteWVRFolder

TEST_F(RecordingAndVR, DeleteWVRFolderTakesTheFolderAndThenItsEmptyParent) {
    RegisterVR(L"C:\\vr\\suite\\");
    EXPECT_EQ(Call("DeleteWVRFolder"), 0U);
    EXPECT_FALSE(folder_.Has(L"suite"));
    EXPECT_THAT(folder_.Names(), ElementsAre(L"hx", L"kept"));
    EXPECT_THAT(session_.Messages(), IsEmpty());
}

TEST_F(RecordingAndVR, DeleteWVRFolderClosesTheSettingsApplicationFirst) {
    RegisterVR(L"C:\\vr\\suite\\");
    bool closedBefore = false;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, PathFileExistsW, [&](LPCWSTR path) -> BOOL {
        EXPECT_STREQ(path, L"C:\\vr\\suite\\WVR");
        closedBefore = Programs() == std::vector<std::wstring>{L"hxcmd.exe"};
        return PathFileExistsW(path);
    });
    EXPECT_EQ(Call("DeleteWVRFolder"), 0U);
    EXPECT_TRUE(closedBefore);
    EXPECT_THAT(runs_.Runs()[0].commandLine, testing::EndsWith(L" exit"));
}

TEST_F(RecordingAndVR, DeleteWVRFolderKeepsAParentThatHoldsSomethingElse) {
    folder_.MakeFile(L"suite\\license.txt");
    RegisterVR(L"C:\\vr\\suite\\");
    EXPECT_EQ(Call("DeleteWVRFolder"), 0U);
    EXPECT_THAT(folder_.Names(L"suite"), ElementsAre(L"license.txt"));
}

TEST_F(RecordingAndVR, DeleteWVRFolderTakesAnEmptyParentWithoutTheFolder) {
    folder_.MakeFolder(L"empty");
    RegisterVR(L"C:\\vr\\empty\\");
    EXPECT_EQ(Call("DeleteWVRFolder"), 0U);
    EXPECT_FALSE(folder_.Has(L"empty"));
    ExpectVRWhole();
}

TEST_F(RecordingAndVR, DeleteWVRFolderWithoutTrailingSeparatorNamesASiblingAndTheFolderAbove) {
    folder_.MakeFile(L"alone\\suiteWVR\\a.txt");
    RegisterVR(L"C:\\vr\\alone\\suite");
    EXPECT_EQ(Call("DeleteWVRFolder"), 0U);
    EXPECT_FALSE(folder_.Has(L"alone"));
    ExpectVRWhole();
}

TEST_F(RecordingAndVR, DeleteWVRFolderTakesForwardSlashes) {
    RegisterVR(L"C:/vr/suite/");
    EXPECT_EQ(Call("DeleteWVRFolder"), 0U);
    EXPECT_FALSE(folder_.Has(L"suite"));
}

TEST_F(RecordingAndVR, DeleteWVRFolderLeavesWhatALinkLeadsTo) {
    folder_.MakeLink(L"suite\\WVR\\way out", L"kept");
    RegisterVR(L"C:\\vr\\suite\\");
    EXPECT_EQ(Call("DeleteWVRFolder"), 0U);
    EXPECT_FALSE(folder_.Has(L"suite\\WVR\\readme.txt"));
    EXPECT_THAT(folder_.Names(L"kept"), ElementsAre(L"precious.txt"));
}

TEST_F(RecordingAndVR, DeleteWVRFolderSucceedsWhenSomethingInUseStays) {
    RegisterVR(L"C:\\vr\\suite\\");
    const HeldFile held(folder_.Path(L"suite\\WVR\\readme.txt"));
    EXPECT_EQ(Call("DeleteWVRFolder"), 0U);
    EXPECT_TRUE(folder_.Has(L"suite\\WVR\\readme.txt"));
}

// The folder's name alone would mean one of the current directory.
TEST_F(RecordingAndVR, DeleteWVRFolderWithoutInstallDirLeavesTheCurrentDirectoryAlone) {
    const CurrentDirectory inSuite(folder_.Path(L"suite"));
    EXPECT_EQ(Call("DeleteWVRFolder"), 0U);
    qel_.Add(L"Install\\WVR64");
    EXPECT_EQ(Call("DeleteWVRFolder"), 0U);
    qel_.SetNumber(L"Install\\WVR64", L"InstallDir", 1);
    EXPECT_EQ(Call("DeleteWVRFolder"), 0U);
    RegisterVR(L"");
    EXPECT_EQ(Call("DeleteWVRFolder"), 0U);
    ExpectVRWhole();
    EXPECT_EQ(Programs().size(), 4U) << "the settings application is closed all the same";
}

TEST_F(RecordingAndVR, DeleteWVRFolderOnAFolderThatIsNotThereSucceeds) {
    RegisterVR(L"C:\\vr\\no such folder\\");
    EXPECT_EQ(Call("DeleteWVRFolder"), 0U);
    ExpectVRWhole();
}

TEST_F(RecordingAndVR, DeleteWVRFolderCatchesAFailedRemovalOfTheParent) {
    folder_.MakeFile(L"suite\\license.txt");
    RegisterVR(L"C:\\vr\\suite\\");
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, PathIsDirectoryEmptyW, [](LPCWSTR path) -> BOOL {
        EXPECT_STREQ(path, L"C:\\vr\\suite");
        return TRUE;
    });
    EXPECT_EQ(Call("DeleteWVRFolder"), 0U);
    EXPECT_TRUE(folder_.Has(L"suite\\license.txt"));
    EXPECT_FALSE(folder_.Has(L"suite\\WVR"));
}

TEST_F(RecordingAndVR, DeleteWVRFolderWorksWithoutTheSettingsApplication) {
    DropMachineKey(L"SOFTWARE\\QEL Technologies\\Install\\HXNext");
    RegisterVR(L"C:\\vr\\suite\\");
    EXPECT_EQ(Call("DeleteWVRFolder"), 0U);
    EXPECT_FALSE(folder_.Has(L"suite"));
}

TEST_F(RecordingAndVR, TheKeysOfTheVRActionsAreOpenedForReading) {
    RegisterVR(L"C:\\vr\\suite\\");
    RegisterSteamVR(L"C:\\vr\\steam");
    std::vector<std::pair<std::wstring, REGSAM>> opened;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegOpenKeyExW, [&](HKEY root, LPCWSTR key, DWORD options, REGSAM access, PHKEY result) {
        EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
        // That of the settings application has tests of its own.
        if (std::wstring(key).find(L"HXNext") == std::wstring::npos) {
            opened.emplace_back(key, access);
        }
        return RegOpenKeyExW(root, key, options, access, result);
    });
    EXPECT_EQ(Call("UnRegisterWVR"), 0U);
    EXPECT_EQ(Call("DeleteWVRFolder"), 0U);
    constexpr wchar_t kVRKey[] = L"SOFTWARE\\QEL Technologies\\Install\\WVR64";
    EXPECT_THAT(opened, ElementsAre(std::make_pair(kVRKey, REGSAM{KEY_READ}),
                                    std::make_pair(kSteamVRKey, REGSAM{KEY_READ}),
                                    std::make_pair(kVRKey, REGSAM{KEY_READ})));
}

// ---- UnRegisterWVR

TEST_F(RecordingAndVR, UnRegisterWVRRunsSteamVRsToolWithTheQuotedDriverFolder) {
    folder_.MakeRecorder(L"steam\\bin\\win64\\vrpathreg.exe", 9);
    RegisterVR(L"C:\\vr\\suite\\");
    RegisterSteamVR(L"C:\\vr\\steam");
    EXPECT_EQ(Call("UnRegisterWVR"), 0U);
    const auto runs = runs_.Runs();
    ASSERT_EQ(runs.size(), 2U) << "the tool is waited for";
    EXPECT_EQ(runs[0].program, L"hxcmd.exe");
    EXPECT_EQ(runs[1].program, L"vrpathreg.exe");
    EXPECT_EQ(runs[1].commandLine,
              L"\"C:\\vr\\steam\\bin\\win64\\vrpathreg.exe\" removedriver \"C:\\vr\\suite\\WVR\\OpenVR\"");
    ExpectVRWhole();
    EXPECT_THAT(session_.Messages(), IsEmpty());
}

TEST_F(RecordingAndVR, UnRegisterWVRDoubledSeparatorsAndMissingOnesAreKept) {
    folder_.MakeRecorder(L"steam\\bin\\win64\\vrpathreg.exe");
    RegisterVR(L"C:\\vr\\suite");
    RegisterSteamVR(L"C:\\vr\\steam\\");
    EXPECT_EQ(Call("UnRegisterWVR"), 0U);
    ASSERT_EQ(runs_.Runs().size(), 2U);
    EXPECT_EQ(runs_.Runs()[1].commandLine,
              L"\"C:\\vr\\steam\\\\bin\\win64\\vrpathreg.exe\" removedriver \"C:\\vr\\suiteWVR\\OpenVR\"");
}

TEST_F(RecordingAndVR, UnRegisterWVRRunsNothingWithoutSteamVR) {
    RegisterVR(L"C:\\vr\\suite\\");
    EXPECT_EQ(Call("UnRegisterWVR"), 0U);
    DropMachineKey(kSteamVRKey);
    EXPECT_EQ(Call("UnRegisterWVR"), 0U);
    EXPECT_THAT(Programs(), ElementsAre(L"hxcmd.exe", L"hxcmd.exe"));
}

TEST_F(RecordingAndVR, UnRegisterWVRRunsNothingWithoutTheTool) {
    folder_.MakeFolder(L"steam\\bin\\win64");
    RegisterVR(L"C:\\vr\\suite\\");
    RegisterSteamVR(L"C:\\vr\\steam");
    EXPECT_EQ(Call("UnRegisterWVR"), 0U);
    EXPECT_THAT(Programs(), ElementsAre(L"hxcmd.exe"));
}

// The tool's path behind an empty location would be one of the current drive.
TEST_F(RecordingAndVR, UnRegisterWVRWithoutSteamVRRunsNoToolOfTheCurrentDrive) {
    const TestFolder planted(L"bin");
    planted.MakeRecorder(L"win64\\vrpathreg.exe");
    const CurrentDirectory inRoot(L"C:\\");
    RegisterVR(L"C:\\vr\\suite\\");
    EXPECT_EQ(Call("UnRegisterWVR"), 0U);
    EXPECT_THAT(Programs(), ElementsAre(L"hxcmd.exe"));
}

TEST_F(RecordingAndVR, UnRegisterWVRRunsNothingWithoutTheInstallDir) {
    folder_.MakeRecorder(L"steam\\bin\\win64\\vrpathreg.exe");
    RegisterSteamVR(L"C:\\vr\\steam");
    EXPECT_EQ(Call("UnRegisterWVR"), 0U);
    EXPECT_THAT(Programs(), ElementsAre(L"hxcmd.exe"));
}

TEST_F(RecordingAndVR, UnRegisterWVRIgnoresAToolThatCannotBeStarted) {
    folder_.MakeFile(L"steam\\bin\\win64\\vrpathreg.exe");
    RegisterVR(L"C:\\vr\\suite\\");
    RegisterSteamVR(L"C:\\vr\\steam");
    EXPECT_EQ(Call("UnRegisterWVR"), 0U);
}

TEST_F(RecordingAndVR, ErrorsOfTheVRActionsAreCaught) {
    RegisterVR(L"C:\\vr\\suite\\");
    RegisterSteamVR(L"C:\\vr\\steam");
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, PathFileExistsW, [](LPCWSTR) -> BOOL { throw std::bad_alloc(); });
    EXPECT_EQ(Call("DeleteWVRFolder"), 0U);
    EXPECT_EQ(Call("UnRegisterWVR"), 0U);
    ExpectVRWhole();
}

// ---- TrackDVRAnalytics

class RecordingAnalytics : public testing::Test {
protected:
    RecordingAnalytics() { DropMachineKey(tracking_.Path()); }

    void Enable(DWORD value) const { qel_.SetNumber(L"Install", L"TAVODVR_Enabled", value); }

    UINT Call() const { return library_.Call("TrackDVRAnalytics", session_.Handle()); }

    ScratchKey qel_{L"SOFTWARE\\QEL Technologies"};
    ScratchKey tracking_{L"SOFTWARE\\TAVODVR"};
    Library library_;
    InstallerSession session_;
};

TEST_F(RecordingAnalytics, IsTrackedTheFirstTimeAndNotTheSecond) {
    Enable(1);
    EXPECT_EQ(Call(), 1U);
    DWORD type = REG_NONE;
    EXPECT_EQ(tracking_.Bytes(L"TAVODVR_Tracked", &type), (std::vector<BYTE>{1, 0, 0, 0}));
    EXPECT_EQ(type, static_cast<DWORD>(REG_DWORD));
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(session_.Messages(), IsEmpty());
}

TEST_F(RecordingAnalytics, IsNotTrackedUnlessTheValueIsExactlyOne) {
    for (const DWORD value : {0U, 2U, 0xFFFFFFFFU, 0x101U}) {
        Enable(value);
        EXPECT_EQ(Call(), 0U) << value;
    }
    EXPECT_FALSE(tracking_.Exists());
}

TEST_F(RecordingAnalytics, IsNotTrackedWithoutTheKeyOrTheValue) {
    EXPECT_EQ(Call(), 0U);
    qel_.Add(L"Install");
    EXPECT_EQ(Call(), 0U);
    EXPECT_FALSE(tracking_.Exists());
}

TEST_F(RecordingAnalytics, IsNotTrackedForAValueThatIsNoFourByteOne) {
    const ULONGLONG wide = 1;
    qel_.SetValue(L"Install", L"TAVODVR_Enabled", REG_QWORD, &wide, sizeof(wide));
    EXPECT_EQ(Call(), 0U);
    qel_.SetValue(L"Install", L"TAVODVR_Enabled", REG_BINARY, &wide, 1);
    EXPECT_EQ(Call(), 0U) << "the bytes that are not stored count as -1";
    qel_.SetText(L"Install", L"TAVODVR_Enabled", L"1");
    EXPECT_EQ(Call(), 0U);
    EXPECT_FALSE(tracking_.Exists());
}

TEST_F(RecordingAnalytics, AnExistingTrackingKeyIsLeftAsItIs) {
    Enable(1);
    tracking_.SetNumber(L"", L"TAVODVR_Tracked", 7);
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(tracking_.Bytes(L"TAVODVR_Tracked"), (std::vector<BYTE>{7, 0, 0, 0}));
}

TEST_F(RecordingAnalytics, ATrackingKeyThatCannotBeCreatedGivesZero) {
    Enable(1);
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegCreateKeyExW,
               [](HKEY, LPCWSTR key, DWORD, LPWSTR, DWORD, REGSAM access, LPSECURITY_ATTRIBUTES, PHKEY,
                  LPDWORD) -> LSTATUS {
                   EXPECT_STREQ(key, L"SOFTWARE\\TAVODVR");
                   EXPECT_EQ(access, static_cast<REGSAM>(KEY_ALL_ACCESS));
                   return ERROR_ACCESS_DENIED;
               });
    EXPECT_EQ(Call(), 0U);
    EXPECT_FALSE(tracking_.Exists());
}

TEST_F(RecordingAnalytics, ATrackingKeyThatCannotBeLookedAtIsLeftAsItIs) {
    Enable(1);
    tracking_.SetNumber(L"", L"TAVODVR_Tracked", 7);
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR key, DWORD options, REGSAM access, PHKEY opened) -> LSTATUS {
                   return key == tracking_.Path() ? ERROR_ACCESS_DENIED
                                                  : RegOpenKeyExW(root, key, options, access, opened);
               });
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(tracking_.Bytes(L"TAVODVR_Tracked"), (std::vector<BYTE>{7, 0, 0, 0}));
}

TEST_F(RecordingAnalytics, TheInstallKeyIsOpenedWithFullAccessAndTheTrackingKeyForReading) {
    Enable(1);
    std::vector<std::pair<std::wstring, REGSAM>> opened;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegOpenKeyExW, [&](HKEY root, LPCWSTR key, DWORD options, REGSAM access, PHKEY result) {
        opened.emplace_back(key, access);
        return RegOpenKeyExW(root, key, options, access, result);
    });
    EXPECT_EQ(Call(), 1U);
    EXPECT_THAT(opened,
                ElementsAre(std::make_pair(L"SOFTWARE\\QEL Technologies\\Install", REGSAM{KEY_ALL_ACCESS}),
                            std::make_pair(L"SOFTWARE\\TAVODVR", REGSAM{KEY_READ})));
}

TEST_F(RecordingAnalytics, TheInstallKeyIsClosedTwiceWhenTheValueIsNotOneAndOnceOtherwise) {
    std::vector<HKEY> opened;
    std::vector<HKEY> closed;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegOpenKeyExW, [&](HKEY root, LPCWSTR key, DWORD options, REGSAM access, PHKEY result) {
        const LSTATUS status = RegOpenKeyExW(root, key, options, access, result);
        if (status == ERROR_SUCCESS) {
            opened.push_back(*result);
        }
        return status;
    });
    CORVI_HOOK(hooks, RegCloseKey, [&](HKEY key) {
        closed.push_back(key);
        return RegCloseKey(key);
    });
    Enable(0);
    EXPECT_EQ(Call(), 0U);
    ASSERT_EQ(opened.size(), 1U);
    EXPECT_THAT(closed, ElementsAre(opened[0], opened[0]));

    opened.clear();
    closed.clear();
    qel_.SetText(L"Install", L"TAVODVR_Enabled", L"longer than four bytes");
    EXPECT_EQ(Call(), 0U);
    ASSERT_EQ(opened.size(), 1U);
    EXPECT_THAT(closed, ElementsAre(opened[0]));

    opened.clear();
    closed.clear();
    Enable(1);
    EXPECT_EQ(Call(), 1U);
    ASSERT_EQ(opened.size(), 1U);
    EXPECT_EQ(std::count(closed.begin(), closed.end(), opened[0]), 1);
    EXPECT_EQ(closed.size(), 2U) << "the install key and the tracking key";
}

}  // namespace
}  // namespace corvi::test
