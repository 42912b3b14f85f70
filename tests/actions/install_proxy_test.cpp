#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <msiquery.h>

#include <array>
#include <cstring>
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

constexpr wchar_t kFirstLine[] = L"SABLE_CA: DelInstallProxyKey  \n";
constexpr wchar_t kDeletedLine[] = L"SABLE_CA: DelInstallProxyKey successfully  \n";

// ---- DelInstallProxyKey

class InstallProxyKey : public testing::Test {
protected:
    ScratchKey settings_{L"SOFTWARE\\Wow6432Node\\QEL"};
    const std::wstring install_ = L"ACE\\Settings\\MOM\\Install";
    Library library_;
    InstallerSession session_;
};

TEST_F(InstallProxyKey, WithTheKeyItGoesAndTheAnswerIsOne) {
    settings_.SetText(install_, L"v", L"1");
    EXPECT_EQ(library_.Call("DelInstallProxyKey", session_.Handle()), 1U);
    EXPECT_FALSE(settings_.Exists(install_));
    EXPECT_TRUE(settings_.Exists(L"ACE\\Settings\\MOM"));
    EXPECT_THAT(session_.LogLines(), ElementsAre(kFirstLine, kDeletedLine));
}

TEST_F(InstallProxyKey, WithoutTheKeyTheAnswerIsZeroAndOnlyTheFirstLineIsLogged) {
    EXPECT_EQ(library_.Call("DelInstallProxyKey", session_.Handle()), 0U);
    EXPECT_THAT(session_.LogLines(), ElementsAre(kFirstLine));
}

TEST_F(InstallProxyKey, AKeyWithSubkeysStays) {
    settings_.Add(install_ + L"\\Sub");
    EXPECT_EQ(library_.Call("DelInstallProxyKey", session_.Handle()), 0U);
    EXPECT_TRUE(settings_.Exists(install_ + L"\\Sub"));
    EXPECT_THAT(session_.LogLines(), ElementsAre(kFirstLine));
}

TEST_F(InstallProxyKey, IsDeletedByItsFullPath) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegDeleteKeyW, [](HKEY root, LPCWSTR key) -> LSTATUS {
        EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
        EXPECT_STREQ(key, L"SOFTWARE\\Wow6432Node\\QEL\\ACE\\Settings\\MOM\\Install");
        return ERROR_ACCESS_DENIED;
    });
    EXPECT_EQ(library_.Call("DelInstallProxyKey", session_.Handle()), 0U);
}

TEST_F(InstallProxyKey, AnyErrorGivesZero) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegDeleteKeyW, [](HKEY, LPCWSTR) -> LSTATUS { throw std::bad_alloc(); });
    EXPECT_EQ(library_.Call("DelInstallProxyKey", session_.Handle()), 0U);
    EXPECT_THAT(session_.LogLines(), ElementsAre(kFirstLine));
}

// ---- LaunchInstallProxyHX

const std::wstring kCoreStatic = L"ACE\\Packages\\Core-Static";
constexpr wchar_t kUnreadable[] = L"SABLE_CA Could not get INSTALLDIR  \n";

std::wstring ClientLine(const std::wstring& client) { return L"SABLE_CA DeleteFolder: " + client + L" \n"; }

/// A client and, in another folder, an install proxy that notes how it was started.
class InstallProxy : public testing::Test {
protected:
    InstallProxy() {
        folder_.MakeFile(L"client\\CLI.exe");
        folder_.MakeRecorder(L"suite\\MOM-InstallProxy-Net4\\MOM.InstallProxy.exe", 7);
    }

    void RegisterLocation(const std::wstring& location) const {
        qel_.SetText(kCoreStatic, L"Location", location);
    }

    UINT Call() const { return library_.Call("LaunchInstallProxyHX", session_.Handle()); }

    /// Refuses every start and keeps the command lines.
    void RefuseStarts(ImportHooks& hooks) {
        CORVI_HOOK(hooks, CreateProcessW,
                   [this](LPCWSTR, LPWSTR commandLine, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL,
                          DWORD, LPVOID, LPCWSTR, LPSTARTUPINFOW, LPPROCESS_INFORMATION) -> BOOL {
                       refused_.push_back(commandLine);
                       SetLastError(ERROR_FILE_NOT_FOUND);
                       return FALSE;
                   });
    }

    TestFolder folder_{L"proxy"};
    ScratchKey qel_{L"SOFTWARE\\QEL"};
    ToolRecorder runs_;
    Library library_;
    InstallerSession session_;
    std::vector<std::wstring> refused_;
};

TEST_F(InstallProxy, AnInstallDirectoryEndingInABackslashGivesTwoBeforeTheProxyFolder) {
    RegisterLocation(L"C:\\proxy\\client");
    session_.SetActionData(L"C:\\proxy\\suite\\");
    EXPECT_EQ(Call(), 1U);
    ASSERT_EQ(runs_.Runs().size(), 1U) << "the proxy is waited for";
    EXPECT_EQ(runs_.Runs()[0].commandLine,
              L"\"C:\\proxy\\suite\\\\MOM-InstallProxy-Net4\\MOM.InstallProxy.exe\" Install "
              L"C:\\proxy\\client\\CLI.exe");
    EXPECT_THAT(session_.LogLines(), ElementsAre(ClientLine(L"C:\\proxy\\client\\CLI.exe")));
}

TEST_F(InstallProxy, AnInstallDirectoryWithoutSeparatorGivesTwoAsWell) {
    RegisterLocation(L"C:\\proxy\\client\\");
    session_.SetActionData(L"C:\\proxy\\suite");
    EXPECT_EQ(Call(), 1U);
    ASSERT_EQ(runs_.Runs().size(), 1U);
    EXPECT_EQ(runs_.Runs()[0].commandLine,
              L"\"C:\\proxy\\suite\\\\MOM-InstallProxy-Net4\\MOM.InstallProxy.exe\" Install "
              L"C:\\proxy\\client\\CLI.exe");
}

TEST_F(InstallProxy, ForwardSlashesAreSeparatorsToo) {
    RegisterLocation(L"C:/proxy/client/");
    session_.SetActionData(L"C:/proxy/suite/");
    ImportHooks hooks(library_.Module());
    RefuseStarts(hooks);
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(refused_,
                ElementsAre(L"\"C:/proxy/suite/\\MOM-InstallProxy-Net4\\MOM.InstallProxy.exe\" Install "
                            L"C:/proxy/client/CLI.exe"));
    EXPECT_THAT(session_.LogLines(), ElementsAre(ClientLine(L"C:/proxy/client/CLI.exe")));
}

TEST_F(InstallProxy, TheClientItselfNeedNotBeThere) {
    RegisterLocation(L"C:\\proxy\\suite");
    session_.SetActionData(L"C:\\proxy\\suite\\");
    EXPECT_EQ(Call(), 1U);
    ASSERT_EQ(runs_.Runs().size(), 1U);
    EXPECT_THAT(runs_.Runs()[0].commandLine, testing::EndsWith(L" Install C:\\proxy\\suite\\CLI.exe"));
}

TEST_F(InstallProxy, AProxyThatIsNotThereGivesZeroAfterTheLine) {
    RegisterLocation(L"C:\\proxy\\client");
    session_.SetActionData(L"C:\\proxy\\client");
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(runs_.Runs(), IsEmpty());
    EXPECT_THAT(session_.LogLines(), ElementsAre(ClientLine(L"C:\\proxy\\client\\CLI.exe")));
}

TEST_F(InstallProxy, AMissingLocationDirectoryGivesZeroWithoutALine) {
    RegisterLocation(L"C:\\proxy\\no such folder");
    session_.SetActionData(L"C:\\proxy\\suite");
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(runs_.Runs(), IsEmpty());
    EXPECT_THAT(session_.LogLines(), IsEmpty());
}

TEST_F(InstallProxy, WithoutActionDataThePathOfTheProxyNamesANetworkShare) {
    RegisterLocation(L"C:\\proxy\\client");
    ImportHooks hooks(library_.Module());
    RefuseStarts(hooks);
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(refused_, ElementsAre(L"\"\\\\MOM-InstallProxy-Net4\\MOM.InstallProxy.exe\" Install "
                                      L"C:\\proxy\\client\\CLI.exe"));
    EXPECT_THAT(session_.LogLines(), ElementsAre(ClientLine(L"C:\\proxy\\client\\CLI.exe")));
}

TEST_F(InstallProxy, TheKeyOfTheClientIsOpenedForReading) {
    RegisterLocation(L"C:\\proxy\\no such folder");
    std::vector<std::pair<std::wstring, REGSAM>> opened;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegOpenKeyExW, [&](HKEY root, LPCWSTR key, DWORD options, REGSAM access, PHKEY result) {
        EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
        opened.emplace_back(key, access);
        return RegOpenKeyExW(root, key, options, access, result);
    });
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(opened,
                ElementsAre(std::make_pair(L"SOFTWARE\\QEL\\ACE\\Packages\\Core-Static", REGSAM{KEY_READ})));
}

TEST_F(InstallProxy, AMissingKeyGivesZeroWithoutAnError) {
    session_.SetActionData(L"C:\\proxy\\suite");
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(session_.LogLines(), IsEmpty());
}

TEST_F(InstallProxy, AMissingEmptyOrWrongTypedValueGivesZeroWithoutAnError) {
    session_.SetActionData(L"C:\\proxy\\suite");
    qel_.Add(kCoreStatic);
    EXPECT_EQ(Call(), 0U);
    qel_.SetNumber(kCoreStatic, L"Location", 1);
    EXPECT_EQ(Call(), 0U);
    RegisterLocation(L"");
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(runs_.Runs(), IsEmpty());
    EXPECT_THAT(session_.LogLines(), IsEmpty());
}

TEST_F(InstallProxy, AnUnreadableInstallDirectoryIsLoggedAndCountsAsEmpty) {
    RegisterLocation(L"C:\\proxy\\client");
    ImportHooks hooks(library_.Module());
    RefuseStarts(hooks);
    CORVI_HOOK(hooks, MsiGetPropertyW, [](MSIHANDLE, LPCWSTR name, LPWSTR, LPDWORD) -> UINT {
        EXPECT_STREQ(name, L"CustomActionData");
        return ERROR_INVALID_HANDLE;
    });
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(session_.LogLines(), ElementsAre(ClientLine(L"C:\\proxy\\client\\CLI.exe"), kUnreadable));
    EXPECT_THAT(refused_, ElementsAre(L"\"\\\\MOM-InstallProxy-Net4\\MOM.InstallProxy.exe\" Install "
                                      L"C:\\proxy\\client\\CLI.exe"));
}

TEST_F(InstallProxy, ATooLongInstallDirectoryIsLoggedAndItsBeginningUsed) {
    RegisterLocation(L"C:\\proxy\\client");
    const std::wstring tooLong(600, L'x');
    session_.SetActionData(tooLong);
    ImportHooks hooks(library_.Module());
    RefuseStarts(hooks);
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(session_.LogLines().back(), kUnreadable);
    EXPECT_THAT(refused_, ElementsAre(L"\"" + tooLong.substr(0, 518)));
}

TEST_F(InstallProxy, AnInstallDirectoryOf519CharactersIsReadOneOf520IsNot) {
    RegisterLocation(L"C:\\proxy\\client");
    ImportHooks hooks(library_.Module());
    RefuseStarts(hooks);
    const std::wstring line = ClientLine(L"C:\\proxy\\client\\CLI.exe");
    session_.SetActionData(std::wstring(519, L'x'));
    Call();
    EXPECT_THAT(session_.LogLines(), ElementsAre(line));
    session_.ClearMessages();
    session_.SetActionData(std::wstring(520, L'x'));
    Call();
    EXPECT_THAT(session_.LogLines(), ElementsAre(line, kUnreadable));
}

TEST_F(InstallProxy, CommandLinesAreCutAfter519Characters) {
    RegisterLocation(L"C:\\proxy\\client");
    ImportHooks hooks(library_.Module());
    RefuseStarts(hooks);
    const std::wstring behind =
        L"\\\\MOM-InstallProxy-Net4\\MOM.InstallProxy.exe\" Install C:\\proxy\\client\\CLI.exe";
    const std::wstring fits(519 - 1 - behind.size(), L'd');
    session_.SetActionData(fits);
    Call();
    session_.SetActionData(fits + L"d");
    Call();
    ASSERT_EQ(refused_.size(), 2U);
    EXPECT_EQ(refused_[0], L"\"" + fits + behind);
    EXPECT_EQ(refused_[1], (L"\"" + fits + L"d" + behind).substr(0, 519));
    EXPECT_EQ(refused_[1].size(), 519U);
}

TEST_F(InstallProxy, TextOfTheDirectoriesIsNoFormat) {
    folder_.MakeFolder(L"%s%n [x]");
    RegisterLocation(L"C:\\proxy\\%s%n [x]");
    session_.SetActionData(L"%s%n;[y]\"");
    ImportHooks hooks(library_.Module());
    RefuseStarts(hooks);
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(refused_,
                ElementsAre(L"\"%s%n;[y]\"\\\\MOM-InstallProxy-Net4\\MOM.InstallProxy.exe\" Install "
                            L"C:\\proxy\\%s%n [x]\\CLI.exe"));
    EXPECT_THAT(session_.LogLines(), ElementsAre(ClientLine(L"C:\\proxy\\%s%n [x]\\CLI.exe")));
}

TEST_F(InstallProxy, AnyErrorGivesZero) {
    RegisterLocation(L"C:\\proxy\\client");
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, MsiGetPropertyW,
               [](MSIHANDLE, LPCWSTR, LPWSTR, LPDWORD) -> UINT { throw std::bad_alloc(); });
    EXPECT_EQ(Call(), 0U);
}

// The version as the platform's own function tells it, scripted.
DWORD scriptedMajorVersion = 0;
LONG WINAPI ScriptedVersion(OSVERSIONINFOW* version) {
    EXPECT_EQ(version->dwOSVersionInfoSize, sizeof(OSVERSIONINFOW));
    version->dwMajorVersion = scriptedMajorVersion;
    return 0;
}

class SystemInformation : public InstallProxy {
protected:
    /// Calls the action with RtlGetVersion scripted (null: not found) and gives the functions asked.
    std::vector<std::string> AskedWith(LONG(WINAPI* version)(OSVERSIONINFOW*)) {
        std::vector<std::string> asked;
        ImportHooks hooks(library_.Module());
        CORVI_HOOK(hooks, GetModuleHandleW, [&](LPCWSTR name) -> HMODULE {
            asked.push_back(name != nullptr && std::wstring(name) == L"ntdll" ? "ntdll" : "another module");
            return GetModuleHandleW(name);
        });
        CORVI_HOOK(hooks, GetProcAddress, [&](HMODULE module, LPCSTR name) -> FARPROC {
            EXPECT_EQ(module, GetModuleHandleW(L"ntdll"));
            asked.emplace_back(name);
            return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(version));
        });
        CORVI_HOOK(hooks, GetSystemInfo, [&](LPSYSTEM_INFO) { asked.emplace_back("GetSystemInfo"); });
        CORVI_HOOK(hooks, GetNativeSystemInfo,
                   [&](LPSYSTEM_INFO) { asked.emplace_back("GetNativeSystemInfo"); });
        EXPECT_EQ(Call(), 0U);
        return asked;
    }
};

TEST_F(SystemInformation, OfWindows10IsTheNativeOne) {
    scriptedMajorVersion = 10;
    EXPECT_THAT(AskedWith(&ScriptedVersion), ElementsAre("ntdll", "RtlGetVersion", "GetNativeSystemInfo"));
}

TEST_F(SystemInformation, OfAnyOtherVersionIsThePlainOne) {
    for (const DWORD major : {6U, 9U, 11U}) {
        scriptedMajorVersion = major;
        EXPECT_THAT(AskedWith(&ScriptedVersion), ElementsAre("ntdll", "RtlGetVersion", "GetSystemInfo"));
    }
}

TEST_F(SystemInformation, IsNotAskedForWithoutTheVersionFunction) {
    EXPECT_THAT(AskedWith(nullptr), ElementsAre("ntdll", "RtlGetVersion"));
}

TEST_F(SystemInformation, DoesNotDecideAnything) {
    RegisterLocation(L"C:\\proxy\\client");
    session_.SetActionData(L"C:\\proxy\\suite");
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, GetProcAddress, [](HMODULE, LPCSTR) -> FARPROC { return nullptr; });
    EXPECT_EQ(Call(), 1U);
}

BOOL WINAPI AlwaysEmulated(HANDLE, PBOOL emulated) {
    *emulated = TRUE;
    return TRUE;
}

/// Makes the platform's IsWow64Process answer "emulated" in this process while it lives: the library has
/// looked the function up when it was loaded, so its own first bytes are replaced by a jump.
class EmulatedProcess {
public:
    EmulatedProcess()
        : code_(reinterpret_cast<BYTE*>(
              reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32"), "IsWow64Process")))) {
        std::memcpy(original_.data(), code_, original_.size());
        std::array<BYTE, 12> jump = {0x48, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xE0};
        const auto target = reinterpret_cast<UINT_PTR>(&AlwaysEmulated);
        std::memcpy(&jump[2], &target, sizeof(target));
        Write(jump);
    }
    ~EmulatedProcess() { Write(original_); }
    EmulatedProcess(const EmulatedProcess&) = delete;
    EmulatedProcess& operator=(const EmulatedProcess&) = delete;

private:
    void Write(const std::array<BYTE, 12>& bytes) const {
        DWORD protection = 0;
        VirtualProtect(code_, bytes.size(), PAGE_EXECUTE_READWRITE, &protection);
        std::memcpy(code_, bytes.data(), bytes.size());
        VirtualProtect(code_, bytes.size(), protection, &protection);
        FlushInstructionCache(GetCurrentProcess(), code_, bytes.size());
    }

    BYTE* code_;
    std::array<BYTE, 12> original_ = {};
};

TEST_F(InstallProxy, AnEmulatedProcessReadsTheLocationBelowTheOtherNode) {
    const ScratchKey emulated(L"SOFTWARE\\Wow6432Node\\QEL");
    RegisterLocation(L"C:\\proxy\\client");
    emulated.SetText(kCoreStatic, L"Location", L"C:\\proxy\\suite");
    session_.SetActionData(L"C:\\proxy\\suite");
    ImportHooks hooks(library_.Module());
    RefuseStarts(hooks);
    {
        const EmulatedProcess emulation;
        Call();
    }
    Call();
    EXPECT_THAT(session_.LogLines(), ElementsAre(ClientLine(L"C:\\proxy\\suite\\CLI.exe"),
                                                 ClientLine(L"C:\\proxy\\client\\CLI.exe")));
}

}  // namespace
}  // namespace corvi::test
