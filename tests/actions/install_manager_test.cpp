#include <windows.h>

#include <setupapi.h>
#include <shlobj.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/folders.h"
#include "tests/support/handle_count.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/library.h"
#include "tests/support/running_program.h"
#include "tests/support/scratch_key.h"
#include "tests/support/tool_recorder.h"

namespace corvi::test {
namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr GUID kDisplayClass = {0x4d36e968, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};
constexpr wchar_t kClassKey[] = L"SYSTEM\\CurrentControlSet\\Control\\Class\\";
// Numbers that the machine's own adapter does not use.
constexpr wchar_t kFirstDriver[] = L"{4D36E968-E325-11CE-BFC1-08002BE10318}\\0801";
constexpr wchar_t kSecondDriver[] = L"{4d36e968-e325-11ce-bfc1-08002be10318}\\0802";

std::wstring Text(const std::vector<BYTE>& bytes) {
    std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
    std::copy_n(bytes.data(), text.size() * sizeof(wchar_t), reinterpret_cast<BYTE*>(text.data()));
    return text;
}

class ActionTest : public testing::Test {
protected:
    UINT Call(const char* action) { return library_.Call(action, session_.Handle()); }
    std::vector<std::wstring> Log() const { return session_.LogLines(); }

    Library library_;
    InstallerSession session_;
    ImportHooks hooks_{library_.Module()};
};

// A display adapter that is present while this object lives.
class Adapter {
public:
    Adapter(const std::wstring& number, const std::wstring& manufacturer, const std::wstring& driver)
        : devices_(SetupDiCreateDeviceInfoList(&kDisplayClass, nullptr)) {
        device_.cbSize = sizeof(device_);
        const std::wstring name = L"ROOT\\CORVI\\" + number;
        if (SetupDiCreateDeviceInfoW(devices_, name.c_str(), &kDisplayClass, nullptr, nullptr, 0, &device_) ==
                FALSE ||
            !Set(SPDRP_MFG, manufacturer) || !Set(SPDRP_DRIVER, driver) ||
            SetupDiRegisterDeviceInfo(devices_, &device_, 0, nullptr, nullptr, nullptr) == FALSE) {
            throw std::runtime_error("cannot add an adapter: " + std::to_string(GetLastError()));
        }
    }
    ~Adapter() {
        SetupDiRemoveDevice(devices_, &device_);
        SetupDiDestroyDeviceInfoList(devices_);
    }
    Adapter(const Adapter&) = delete;
    Adapter& operator=(const Adapter&) = delete;

private:
    bool Set(DWORD property, const std::wstring& text) {
        return text.empty() || SetupDiSetDeviceRegistryPropertyW(
                                   devices_, &device_, property, reinterpret_cast<const BYTE*>(text.c_str()),
                                   static_cast<DWORD>((text.size() + 1) * 2)) != FALSE;
    }

    HDEVINFO devices_;
    SP_DEVINFO_DATA device_{};
};

class SetDCLogFileRegistryTest : public ActionTest {
protected:
    SetDCLogFileRegistryTest() {
        GetEnvironmentVariableW(L"TMP", temporaryBefore_, MAX_PATH);
        SetEnvironmentVariableW(L"TMP", L"C:\\corvi\\no such\\temp");
        RemoveFolder(L"C:\\corvi\\no such");
    }
    ~SetDCLogFileRegistryTest() override {
        SetEnvironmentVariableW(L"TMP", temporaryBefore_);
        RemoveFolderAtEnd(L"C:\\corvi\\no such");
    }

    void ExpectBothValues(const ScratchKey& driverKey, const std::wstring& logFile = kLogFile) {
        const std::wstring stored = logFile + L'\0';
        DWORD type = REG_NONE;
        EXPECT_EQ(Text(driverKey.Bytes(L"DalDCELogFilePath", &type)), stored);
        EXPECT_EQ(type, DWORD{REG_SZ});
        std::wstring size = L"260";
        size.resize(stored.size());
        EXPECT_EQ(Text(driverKey.Bytes(L"DalDCEFilePathSize", &type)), size);
        EXPECT_EQ(type, DWORD{REG_SZ});
    }
    void ExpectUntouched(const ScratchKey& driverKey) {
        EXPECT_THAT(driverKey.Bytes(L"DalDCELogFilePath"), IsEmpty());
        EXPECT_THAT(driverKey.Bytes(L"DalDCEFilePathSize"), IsEmpty());
    }

    /// Keeps the key by which the library works on the first adapter: the machine may have adapters of the
    /// suite of its own.
    void WatchFirstDriverKey() {
        CORVI_HOOK(hooks_, RegOpenKeyExW,
                   [this](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                       const LSTATUS status = RegOpenKeyExW(root, subkey, options, access, key);
                       if (subkey == first_.Path()) {
                           firstDriverKey_ = *key;
                       } else if (*key == firstDriverKey_) {
                           firstDriverKey_ = nullptr;
                       }
                       return status;
                   });
    }

    static inline const std::wstring kLogFile =
        L"C:\\corvi\\no such\\temp\\TAVO\\HX\\Analytics\\qelkmdag_dce.log";
    ScratchKey first_{kClassKey + std::wstring(kFirstDriver)};
    ScratchKey second_{kClassKey + std::wstring(kSecondDriver)};
    HKEY firstDriverKey_ = nullptr;

private:
    wchar_t temporaryBefore_[MAX_PATH] = {};
};

TEST_F(SetDCLogFileRegistryTest, BothDriverKeysOfTwoAdaptersOfTheSuiteReceiveTheTwoValues) {
    const Adapter one(L"0001", L"Tavo Corporation", kFirstDriver);
    const Adapter two(L"0002", L"QEL Technologies Inc.", kSecondDriver);
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    ExpectBothValues(first_);
    ExpectBothValues(second_);
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(SetDCLogFileRegistryTest, AnAdapterOfAnotherVendorIsUntouched) {
    const Adapter other(L"0001", L"Somebody Else", kFirstDriver);
    const Adapter own(L"0002", L"TAVO", kSecondDriver);
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    ExpectUntouched(first_);
    ExpectBothValues(second_);
}

class Manufacturers : public SetDCLogFileRegistryTest, public testing::WithParamInterface<const wchar_t*> {};
class OfTheSuite : public Manufacturers {};
class OfOthers : public Manufacturers {};

TEST_P(OfTheSuite, GetTheValues) {
    const Adapter adapter(L"0001", GetParam(), kFirstDriver);
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    ExpectBothValues(first_);
}
INSTANTIATE_TEST_SUITE_P(Manufacturers, OfTheSuite,
                         testing::Values(L"Tavo Corporation", L"The Tavo Corporation, Ltd.", L"TAVO",
                                         L"TAVO Technologies", L"QEL", L"QELx"));

TEST_P(OfOthers, GetNothing) {
    const Adapter adapter(L"0001", GetParam(), kFirstDriver);
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    ExpectUntouched(first_);
}
INSTANTIATE_TEST_SUITE_P(Manufacturers, OfOthers,
                         testing::Values(L"The TAVO", L"tavo corporation", L"Tavo", L"(QEL)", L"qel", L""));

TEST_F(SetDCLogFileRegistryTest, AVeryLongManufacturerIsReadWhole) {
    const Adapter adapter(L"0001", std::wstring(1000, L'x') + L" Tavo Corporation", kFirstDriver);
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    ExpectBothValues(first_);
}

TEST_F(SetDCLogFileRegistryTest, AnAdapterWithoutDriverKeyNameOrWithAMissingKeyOnlySkipsItsOwnWork) {
    const Adapter unnamed(L"0001", L"TAVO", L"");
    const Adapter missing(L"0002", L"TAVO", L"{4D36E968-E325-11CE-BFC1-08002BE10318}\\0899");
    const Adapter whole(L"0003", L"TAVO", kSecondDriver);
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    ExpectBothValues(second_);
    const ScratchKey noKey(kClassKey + std::wstring(L"{4D36E968-E325-11CE-BFC1-08002BE10318}\\0899"));
    ExpectUntouched(noKey);
}

TEST_F(SetDCLogFileRegistryTest, ADriverKeyThatRefusesFullAccessIsSkipped) {
    const Adapter one(L"0001", L"TAVO", kFirstDriver);
    const Adapter two(L"0002", L"TAVO", kSecondDriver);
    CORVI_HOOK(hooks_, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
                   EXPECT_EQ(access, DWORD{KEY_ALL_ACCESS});
                   return subkey == first_.Path() ? ERROR_ACCESS_DENIED
                                                  : RegOpenKeyExW(root, subkey, options, access, key);
               });
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    ExpectUntouched(first_);
    ExpectBothValues(second_);
}

TEST_F(SetDCLogFileRegistryTest, TheFirstDeviceOfTheListIsSeenToToo) {
    const Adapter adapter(L"0001", L"TAVO", kFirstDriver);
    // The machine's own adapters come first; without them the suite's is device 0.
    CORVI_HOOK(hooks_, SetupDiEnumDeviceInfo,
               [](HDEVINFO devices, DWORD index, PSP_DEVINFO_DATA device) -> BOOL {
                   wchar_t manufacturer[64] = {};
                   DWORD own = 0;
                   while (SetupDiEnumDeviceInfo(devices, own, device) != FALSE &&
                          (SetupDiGetDeviceRegistryPropertyW(devices, device, SPDRP_MFG, nullptr,
                                                             reinterpret_cast<BYTE*>(manufacturer),
                                                             sizeof(manufacturer), nullptr) == FALSE ||
                           std::wstring(manufacturer) != L"TAVO")) {
                       ++own;
                   }
                   return SetupDiEnumDeviceInfo(devices, own + index, device);
               });
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    ExpectBothValues(first_);
}

TEST_F(SetDCLogFileRegistryTest, ATextWithoutTerminatorEndsWithItsRoom) {
    const Adapter adapter(L"0001", L"TAVO", kFirstDriver);
    std::vector<DWORD> rooms;
    CORVI_HOOK(
        hooks_, SetupDiGetDeviceRegistryPropertyW,
        [&](HDEVINFO, PSP_DEVINFO_DATA, DWORD, PDWORD, PBYTE buffer, DWORD size, PDWORD needed) -> BOOL {
            rooms.push_back(size);
            *needed = rooms.size() == 1 ? 1024 : size;
            std::fill_n(reinterpret_cast<wchar_t*>(buffer), size / sizeof(wchar_t), L'x');
            return rooms.size() == 1 ? FALSE : TRUE;
        });
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    // Room for 255 characters, then for one more than was asked for; a terminator of its own behind both.
    ASSERT_GE(rooms.size(), 2U);
    EXPECT_EQ(rooms[0], 510U);
    EXPECT_EQ(rooms[1], 1026U);
}

TEST_F(SetDCLogFileRegistryTest, ADriverKeyOf255CharactersGetsTheValuesOneOf256Nothing) {
    const auto name = [](size_t characters) {
        return std::wstring(characters - std::wcslen(kClassKey), L'k');
    };
    const ScratchKey fits(kClassKey + name(255));
    const ScratchKey tooLong(kClassKey + name(256));
    const Adapter adapter(L"0001", L"TAVO", name(255));
    const Adapter other(L"0002", L"TAVO", name(256));
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    ExpectBothValues(fits);
    ExpectUntouched(tooLong);
}

TEST_F(SetDCLogFileRegistryTest, ADriverKeyNameThatIsEmptyOrDoesNotFitItsBufferNamesNoKey) {
    const ScratchKey cut(std::wstring(kClassKey) + std::wstring(255 - std::wcslen(kClassKey), L'k'));
    const Adapter adapter(L"0001", L"TAVO", std::wstring(256 - std::wcslen(kClassKey), L'k'));
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    ExpectUntouched(cut);

    CORVI_HOOK(hooks_, SetupDiGetDeviceRegistryPropertyW,
               [](HDEVINFO devices, PSP_DEVINFO_DATA device, DWORD property, PDWORD type, PBYTE buffer,
                  DWORD size, PDWORD needed) -> BOOL {
                   if (property == SPDRP_DRIVER) {
                       *needed = 0;
                       return TRUE;
                   }
                   return SetupDiGetDeviceRegistryPropertyW(devices, device, property, type, buffer, size,
                                                            needed);
               });
    std::vector<std::wstring> opened;
    CORVI_HOOK(hooks_, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   opened.emplace_back(path);
                   return RegOpenKeyExW(root, path, options, access, key);
               });
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    EXPECT_THAT(opened, IsEmpty());
}

TEST_F(SetDCLogFileRegistryTest, ThePathIsWrittenBeforeItsSize) {
    const Adapter adapter(L"0001", L"TAVO", kFirstDriver);
    WatchFirstDriverKey();
    std::vector<std::wstring> written;
    CORVI_HOOK(
        hooks_, RegSetValueExW,
        [&](HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size) -> LSTATUS {
            if (key == firstDriverKey_) {
                written.emplace_back(name);
            }
            return RegSetValueExW(key, name, reserved, type, data, size);
        });
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    EXPECT_THAT(written, ElementsAre(L"DalDCELogFilePath", L"DalDCEFilePathSize"));
}

TEST_F(SetDCLogFileRegistryTest, TheDriversVersionIsReadAndLeftAsItIs) {
    first_.SetText(L"", L"DriverVersion", L"31.0.1");
    const Adapter adapter(L"0001", L"TAVO", kFirstDriver);
    WatchFirstDriverKey();
    std::vector<std::wstring> queried;
    CORVI_HOOK(
        hooks_, RegQueryValueExW,
        [&](HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD size) -> LSTATUS {
            if (key == firstDriverKey_) {
                queried.emplace_back(name);
            }
            return RegQueryValueExW(key, name, reserved, type, data, size);
        });
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    EXPECT_THAT(queried, ElementsAre(L"DriverVersion"));
    EXPECT_EQ(Text(first_.Bytes(L"DriverVersion")), std::wstring(L"31.0.1") + L'\0');
}

TEST_F(SetDCLogFileRegistryTest, TheLogFolderIsMadeWithAllMissingParentsEvenWithoutAnAdapter) {
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    EXPECT_TRUE(std::filesystem::is_directory(L"C:\\corvi\\no such\\temp\\TAVO\\HX\\Analytics"));
    EXPECT_TRUE(std::filesystem::is_empty(L"C:\\corvi\\no such\\temp\\TAVO\\HX\\Analytics"));
}

TEST_F(SetDCLogFileRegistryTest, AFolderThatCannotBeMadeDoesNotKeepTheValuesBack) {
    const Adapter adapter(L"0001", L"TAVO", kFirstDriver);
    CORVI_HOOK(hooks_, SHCreateDirectoryExW, [](HWND, LPCWSTR folder, const SECURITY_ATTRIBUTES*) -> int {
        EXPECT_STREQ(folder, L"C:\\corvi\\no such\\temp\\TAVO\\HX\\Analytics");
        return ERROR_ACCESS_DENIED;
    });
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    ExpectBothValues(first_);
}

TEST_F(SetDCLogFileRegistryTest, ALongTemporaryFolderIsCutTo1023CharactersOfPath) {
    const Adapter adapter(L"0001", L"TAVO", kFirstDriver);
    const std::wstring temporary = L"C:\\" + std::wstring(996, L'x') + L"\\";
    CORVI_HOOK(hooks_, GetTempPathW, [&](DWORD size, LPWSTR buffer) -> DWORD {
        EXPECT_EQ(size, 1024U);
        std::wmemcpy(buffer, temporary.c_str(), temporary.size() + 1);
        return static_cast<DWORD>(temporary.size());
    });
    CORVI_HOOK(hooks_, SHCreateDirectoryExW,
               [](HWND, LPCWSTR, const SECURITY_ATTRIBUTES*) -> int { return ERROR_SUCCESS; });
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    ExpectBothValues(first_, (temporary + L"TAVO\\HX\\Analytics\\qelkmdag_dce.log").substr(0, 1023));
}

TEST_F(SetDCLogFileRegistryTest, WithoutATemporaryFolderNothingIsMadeOrWritten) {
    const Adapter adapter(L"0001", L"TAVO", kFirstDriver);
    CORVI_HOOK(hooks_, GetTempPathW, [](DWORD, LPWSTR) -> DWORD { return 0; });
    int made = 0;
    CORVI_HOOK(hooks_, SHCreateDirectoryExW, [&](HWND, LPCWSTR, const SECURITY_ATTRIBUTES*) -> int {
        ++made;
        return ERROR_SUCCESS;
    });
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    EXPECT_EQ(made, 0);
    ExpectUntouched(first_);
}

TEST_F(SetDCLogFileRegistryTest, AsksForThePresentDisplayAdaptersAndStopsWithoutTheirList) {
    int asked = 0;
    int enumerated = 0;
    CORVI_HOOK(hooks_, SetupDiGetClassDevsW, [&](const GUID* type, PCWSTR, HWND, DWORD flags) -> HDEVINFO {
        ++asked;
        EXPECT_TRUE(IsEqualGUID(*type, kDisplayClass));
        EXPECT_EQ(flags, 2U);
        return INVALID_HANDLE_VALUE;
    });
    CORVI_HOOK(hooks_, SetupDiEnumDeviceInfo, [&](HDEVINFO, DWORD, PSP_DEVINFO_DATA) -> BOOL {
        ++enumerated;
        return FALSE;
    });
    EXPECT_EQ(Call("SetDCLogFileRegistry"), 0U);
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(enumerated, 0);
}

TEST_F(SetDCLogFileRegistryTest, LeaksNoHandleOver200Calls) {
    const Adapter adapter(L"0001", L"TAVO", kFirstDriver);
    Call("SetDCLogFileRegistry");
    const auto before = OpenHandleCount();
    for (int call = 0; call < 200; ++call) {
        Call("SetDCLogFileRegistry");
    }
    EXPECT_EQ(OpenHandleCount(), before);
}

// A service that is registered, and removed at the end if it is still there.
class RegisteredService {
public:
    RegisteredService(std::wstring name, const std::wstring& imagePath) : name_(std::move(name)) {
        const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
        const SC_HANDLE service =
            CreateServiceW(manager, name_.c_str(), name_.c_str(), SERVICE_ALL_ACCESS,
                           SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                           imagePath.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
        EXPECT_NE(service, nullptr) << GetLastError();
        CloseServiceHandle(service);
        CloseServiceHandle(manager);
    }
    ~RegisteredService() {
        WithService([](SC_HANDLE service) { DeleteService(service); });
    }
    RegisteredService(const RegisteredService&) = delete;
    RegisteredService& operator=(const RegisteredService&) = delete;

    bool Exists() const {
        bool exists = false;
        WithService([&](SC_HANDLE) { exists = true; });
        return exists;
    }

private:
    void WithService(const std::function<void(SC_HANDLE)>& work) const {
        const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
        const SC_HANDLE service = OpenServiceW(manager, name_.c_str(), SERVICE_ALL_ACCESS);
        if (service != nullptr) {
            work(service);
            CloseServiceHandle(service);
        }
        CloseServiceHandle(manager);
    }

    std::wstring name_;
};

constexpr wchar_t kStalePath[] = L"\\SystemRoot\\System32\\TavoKyrnMasterDriver.sys";

class PreInstallKMSDKTest : public ActionTest {
protected:
    std::vector<std::wstring> LocationLines() const {
        std::vector<std::wstring> lines = Log();
        std::erase_if(lines, [](const std::wstring& line) { return !line.starts_with(L"PreInstallKMSDK"); });
        return lines;
    }
};

TEST_F(PreInstallKMSDKTest, AStaleServiceIsFoundAfterLowerCasingLoggedAsReadAndRemoved) {
    const RegisteredService stale(L"TAVOKyrnMasterDriverV20", kStalePath);
    EXPECT_EQ(Call("PreInstallKMSDK"), 0U);
    EXPECT_FALSE(stale.Exists());
    EXPECT_THAT(LocationLines(), ElementsAre(L"PreInstallKMSDK() Service location - "
                                             L"\\SystemRoot\\System32\\TavoKyrnMasterDriver.sys"));
    // The removal's own lines, if any, come after it.
    EXPECT_THAT(Log(), testing::Not(IsEmpty()));
    EXPECT_TRUE(Log().empty() || Log().front().starts_with(L"PreInstallKMSDK() "));
}

TEST_F(PreInstallKMSDKTest, AServiceWhoseBinaryLiesElsewhereIsKept) {
    const RegisteredService elsewhere(L"TAVOKyrnMasterDriverV20", L"C:\\Drivers\\TavoKyrnMasterDriver.sys");
    const RegisteredService otherFile(L"TAVOKyrnMasterDriverV22",
                                      L"C:\\System32\\TavoKyrnMasterDriverV2.sys");
    EXPECT_EQ(Call("PreInstallKMSDK"), 0U);
    EXPECT_TRUE(elsewhere.Exists());
    EXPECT_TRUE(otherFile.Exists());
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(PreInstallKMSDKTest, TheMarkerIsFoundAnywhereInThePath) {
    const RegisteredService stale(L"TAVOKyrnMasterDriver",
                                  L"\"D:\\x\\SYSTEM32\\TAVOKYRNMASTERDRIVER.SYS\" -k");
    EXPECT_EQ(Call("PreInstallKMSDK"), 0U);
    EXPECT_FALSE(stale.Exists());
}

TEST_F(PreInstallKMSDKTest, ExactlySixServicesAreExaminedInOrder) {
    std::vector<std::wstring> examined;
    CORVI_HOOK(hooks_, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   examined.emplace_back(subkey);
                   return RegOpenKeyExW(root, subkey, options, access, key);
               });
    EXPECT_EQ(Call("PreInstallKMSDK"), 0U);
    const std::wstring name = L"SYSTEM\\CurrentControlSet\\Services\\TAVOKyrnMasterDriver";
    EXPECT_THAT(examined,
                ElementsAre(name, name + L"V18", name + L"V19", name + L"V20", name + L"V22", name + L"V24"));
}

TEST_F(PreInstallKMSDKTest, ServicesOfOtherNamesAreKept) {
    const RegisteredService v21(L"TAVOKyrnMasterDriverV21", kStalePath);
    const RegisteredService v26(L"TAVOKyrnMasterDriverV26", kStalePath);
    EXPECT_EQ(Call("PreInstallKMSDK"), 0U);
    EXPECT_TRUE(v21.Exists());
    EXPECT_TRUE(v26.Exists());
}

TEST_F(PreInstallKMSDKTest, EveryStaleServiceGoes) {
    const RegisteredService plain(L"TAVOKyrnMasterDriver", kStalePath);
    const RegisteredService v18(L"TAVOKyrnMasterDriverV18", kStalePath);
    const RegisteredService v24(L"TAVOKyrnMasterDriverV24", kStalePath);
    EXPECT_EQ(Call("PreInstallKMSDK"), 0U);
    EXPECT_FALSE(plain.Exists());
    EXPECT_FALSE(v18.Exists());
    EXPECT_FALSE(v24.Exists());
    EXPECT_THAT(LocationLines(), SizeIs(3));
}

TEST_F(PreInstallKMSDKTest, AServiceKeyUnknownToTheServiceManagerIsLoggedAndTheNextOnesFollow) {
    ScratchKey orphan(L"SYSTEM\\CurrentControlSet\\Services\\TAVOKyrnMasterDriverV18");
    orphan.SetText(L"", L"ImagePath", kStalePath);
    const RegisteredService stale(L"TAVOKyrnMasterDriverV19", kStalePath);
    EXPECT_EQ(Call("PreInstallKMSDK"), 0U);
    EXPECT_FALSE(stale.Exists());
    EXPECT_THAT(LocationLines(), SizeIs(2));
}

TEST_F(PreInstallKMSDKTest, WithoutAnyOfTheServicesNothingHappens) {
    EXPECT_EQ(Call("PreInstallKMSDK"), 0U);
    EXPECT_THAT(Log(), IsEmpty());
}

constexpr wchar_t kManagerKey[] = L"SOFTWARE\\TAVO\\TAVOInstallManager";
constexpr wchar_t kManagerFolder[] = L"C:\\corvi\\Install Manager";
const std::vector<std::wstring> kManagerTasks{
    L"TAVO Install Manager - Check For Updates", L"TAVO Install Manager Self Update",
    L"TAVO Install Manager - Install Updates", L"TAVO Install Manager - Install Updates - Manual Update"};

class PostUnInstallKITETest : public ActionTest {
protected:
    PostUnInstallKITETest() {
        tools_.StandInForSystemTool(L"TaskKill.exe", 128);
        tools_.StandInForSystemTool(L"schtasks.exe", 1);
        std::filesystem::create_directories(std::wstring(kManagerFolder) + L"\\bin");
        std::ofstream(std::filesystem::path(std::wstring(kManagerFolder) + L"\\bin\\a.dll")) << "x";
    }
    ~PostUnInstallKITETest() override { RemoveFolderAtEnd(kManagerFolder); }

    static std::vector<std::wstring> TaskLines(int exitCode) {
        std::vector<std::wstring> lines;
        for (const std::wstring& task : kManagerTasks) {
            lines.push_back(L"PostUnInstallKITE: Exit code for " + task + L" Scheduled task deletion: " +
                            std::to_wstring(exitCode) + L" \n");
        }
        return lines;
    }

    static bool FolderExists() { return std::filesystem::exists(kManagerFolder); }

    ToolRecorder tools_;
    ScratchKey key_{kManagerKey};
};

TEST_F(PostUnInstallKITETest, RemovesFolderAndKeyTreeAndLogsTheExitCodeOfEachTask) {
    key_.SetText(L"", L"InstallLocation", std::wstring(kManagerFolder) + L"\\");
    key_.SetText(L"Sub\\Deeper", L"x", L"y");
    EXPECT_EQ(Call("PostUnInstallKITE"), 0U);
    EXPECT_FALSE(FolderExists());
    EXPECT_FALSE(key_.Exists());
    EXPECT_EQ(Log(), TaskLines(1));
}

TEST_F(PostUnInstallKITETest, EndsTheProcessesFirstAndThenDeletesTheFourTasksInOrder) {
    EXPECT_EQ(Call("PostUnInstallKITE"), 0U);
    const auto runs = tools_.Runs();
    ASSERT_THAT(runs, SizeIs(5));
    EXPECT_THAT(runs[0].commandLine, testing::EndsWith(L"\\TaskKill.exe\" /IM TAVOInstallManager.exe /F"));
    for (size_t index = 0; index < kManagerTasks.size(); ++index) {
        EXPECT_THAT(runs[index + 1].commandLine,
                    testing::EndsWith(L" /delete /TN \"" + kManagerTasks[index] + L"\" /F"));
    }
}

TEST_F(PostUnInstallKITETest, TheFolderStaysUntilTheTasksAreDeletedAndTheKeyUntilTheFolderIs) {
    key_.SetText(L"", L"InstallLocation", kManagerFolder);
    std::vector<std::string> steps;
    CORVI_HOOK(hooks_, ShellExecuteExW, [&](SHELLEXECUTEINFOW*) -> BOOL {
        steps.emplace_back(FolderExists() ? "a task, with the folder" : "a task");
        return FALSE;
    });
    CORVI_HOOK(hooks_, RegDeleteTreeW, [&](HKEY root, LPCWSTR key) -> LSTATUS {
        steps.emplace_back(FolderExists() ? "the key, with the folder" : "the key");
        return RegDeleteTreeW(root, key);
    });
    EXPECT_EQ(Call("PostUnInstallKITE"), 0U);
    ASSERT_THAT(steps, SizeIs(5));
    EXPECT_EQ(steps.back(), "the key");
    steps.pop_back();
    EXPECT_THAT(steps, Each(std::string("a task, with the folder")));
}

TEST_F(PostUnInstallKITETest, TheManagersKeyIsOpenedForReadingOnly) {
    std::vector<std::pair<std::wstring, REGSAM>> opened;
    CORVI_HOOK(hooks_, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   opened.emplace_back(path, access);
                   return RegOpenKeyExW(root, path, options, access, key);
               });
    EXPECT_EQ(Call("PostUnInstallKITE"), 0U);
    EXPECT_THAT(opened, ElementsAre(std::pair<std::wstring, REGSAM>(kManagerKey, KEY_READ)));
}

TEST_F(PostUnInstallKITETest, EachDeletionIsOneInterpreterThatIsWaitedForWithoutLimit) {
    std::vector<std::wstring> parameters;
    std::vector<DWORD> waits;
    CORVI_HOOK(hooks_, ShellExecuteExW, [&](SHELLEXECUTEINFOW* info) -> BOOL {
        EXPECT_STREQ(info->lpFile, L"cmd.exe");
        parameters.emplace_back(info->lpParameters);
        info->hProcess = nullptr;
        return TRUE;
    });
    CORVI_HOOK(hooks_, CreateProcessW,
               [](LPCWSTR, LPWSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID, LPCWSTR,
                  LPSTARTUPINFOW, LPPROCESS_INFORMATION) -> BOOL { return FALSE; });
    CORVI_HOOK(hooks_, WaitForSingleObject, [&](HANDLE, DWORD milliseconds) -> DWORD {
        waits.push_back(milliseconds);
        return WAIT_OBJECT_0;
    });
    EXPECT_EQ(Call("PostUnInstallKITE"), 0U);
    const std::wstring start = L"/C %SYSTEMROOT%\\System32\\schtasks /delete /TN \"TAVO Install Manager";
    EXPECT_THAT(parameters, ElementsAre(start + L" - Check For Updates\" /F", start + L" Self Update\" /F",
                                        start + L" - Install Updates\" /F",
                                        start + L" - Install Updates - Manual Update\" /F"));
    EXPECT_THAT(waits, AllOf(SizeIs(4), Each(INFINITE)));
}

TEST_F(PostUnInstallKITETest, ATaskToolThatCannotBeStartedIsLoggedWithThePlatformErrorAndStopsNothing) {
    key_.SetText(L"", L"InstallLocation", kManagerFolder);
    CORVI_HOOK(hooks_, ShellExecuteExW, [](SHELLEXECUTEINFOW*) -> BOOL {
        SetLastError(ERROR_CANCELLED);
        return FALSE;
    });
    EXPECT_EQ(Call("PostUnInstallKITE"), 0U);
    EXPECT_EQ(Log(), TaskLines(1223));
    EXPECT_FALSE(FolderExists());
    EXPECT_FALSE(key_.Exists());
}

TEST_F(PostUnInstallKITETest, AKillToolThatCannotBeStartedStopsNothing) {
    key_.SetText(L"", L"InstallLocation", kManagerFolder);
    CORVI_HOOK(hooks_, CreateProcessW,
               [](LPCWSTR, LPWSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID, LPCWSTR,
                  LPSTARTUPINFOW, LPPROCESS_INFORMATION) -> BOOL { return FALSE; });
    EXPECT_EQ(Call("PostUnInstallKITE"), 0U);
    EXPECT_EQ(Log(), TaskLines(1));
    EXPECT_FALSE(key_.Exists());
}

TEST_F(PostUnInstallKITETest, WithoutInstallLocationTheKeyTreeIsDeletedAllTheSame) {
    key_.SetText(L"Sub", L"x", L"y");
    EXPECT_EQ(Call("PostUnInstallKITE"), 0U);
    EXPECT_FALSE(key_.Exists());
    EXPECT_TRUE(FolderExists());
}

TEST_F(PostUnInstallKITETest, AnInstallLocationOfAnotherTypeIsNotReadAndTheKeyTreeIsDeleted) {
    key_.SetNumber(L"", L"InstallLocation", 5);
    EXPECT_EQ(Call("PostUnInstallKITE"), 0U);
    EXPECT_FALSE(key_.Exists());
    EXPECT_TRUE(FolderExists());
}

TEST_F(PostUnInstallKITETest, AKeyThatCannotBeOpenedIsDeletedAllTheSame) {
    key_.SetText(L"", L"InstallLocation", kManagerFolder);
    std::vector<std::wstring> deleted;
    CORVI_HOOK(hooks_, RegOpenKeyExW,
               [](HKEY, LPCWSTR, DWORD, REGSAM, PHKEY) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    CORVI_HOOK(hooks_, RegDeleteTreeW, [&](HKEY root, LPCWSTR subkey) -> LSTATUS {
        EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
        deleted.emplace_back(subkey);
        return RegDeleteTreeW(root, subkey);
    });
    EXPECT_EQ(Call("PostUnInstallKITE"), 0U);
    EXPECT_THAT(deleted, ElementsAre(kManagerKey));
    EXPECT_FALSE(key_.Exists());
    EXPECT_TRUE(FolderExists());
}

TEST_F(PostUnInstallKITETest, WithoutTheKeyOnlyProcessAndTasksAreSeenTo) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kManagerKey);
    EXPECT_EQ(Call("PostUnInstallKITE"), 0U);
    EXPECT_EQ(Log(), TaskLines(1));
    EXPECT_TRUE(FolderExists());
}

TEST_F(PostUnInstallKITETest, AnEmptyOrMissingFolderDeletesNothingElse) {
    for (const wchar_t* location : {L"", L"C:\\corvi\\no such folder\\"}) {
        key_.SetText(L"", L"InstallLocation", location);
        EXPECT_EQ(Call("PostUnInstallKITE"), 0U);
        EXPECT_FALSE(key_.Exists());
        EXPECT_TRUE(FolderExists());
        EXPECT_TRUE(std::filesystem::exists(L"C:\\corvi\\Corvi_CA.dll"));
    }
}

TEST_F(PostUnInstallKITETest, AnExitCodeThatIsNegativeAsASignedNumberIsLoggedSo) {
    CORVI_HOOK(hooks_, ShellExecuteExW, [](SHELLEXECUTEINFOW* info) -> BOOL {
        info->hProcess = GetCurrentProcess();
        return TRUE;
    });
    CORVI_HOOK(hooks_, WaitForSingleObject, [](HANDLE, DWORD) -> DWORD { return WAIT_OBJECT_0; });
    CORVI_HOOK(hooks_, GetExitCodeProcess, [](HANDLE, LPDWORD exitCode) -> BOOL {
        *exitCode = 0xC0000005;
        return TRUE;
    });
    EXPECT_EQ(Call("PostUnInstallKITE"), 0U);
    EXPECT_EQ(Log(), TaskLines(-1073741819));
}

using PostUnInstallKITEWithARunningManager = ActionTest;

TEST_F(PostUnInstallKITEWithARunningManager, EndsItThoughItHasNoWindowToBeClosed) {
    ToolRecorder tools;
    tools.StandInForSystemTool(L"schtasks.exe", 1);
    const ScratchKey key(kManagerKey);
    const RunningProgram manager(L"TAVOInstallManager.exe");
    EXPECT_EQ(Call("PostUnInstallKITE"), 0U);
    EXPECT_TRUE(manager.Ends());
}

}  // namespace
}  // namespace corvi::test
