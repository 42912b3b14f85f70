#include "services/service_registration.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <system_error>
#include <vector>

#include "services/service_control.h"
#include "tests/services/scripted_manager.h"
#include "tests/services/service_handle_count.h"
#include "tests/support/import_hooks.h"
#include "tests/support/scratch_key.h"
#include "tests/support/standard_output.h"
#include "tests/support/test_service.h"

namespace corvi::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Lines = std::vector<std::wstring>;

constexpr wchar_t kName[] = L"CorviTestService";
constexpr wchar_t kUploader[] = L"TUEPLauncher";

// ---- InstallDataUploaderService

constexpr wchar_t kInstallManagerKey[] =
    L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\TAVO Prism Install Manager";
constexpr wchar_t kProfileClientKey[] = L"SOFTWARE\\QEL Technologies\\Install\\PPC";
constexpr wchar_t kFromNothing[] = L"\"\\TUEPDU.exe\"";

/// What the service manager was asked to create.
struct Creation {
    std::wstring name, displayName, commandLine;
    DWORD access = 0, type = 0, startType = 0, errorControl = 0;
    bool restIsNull = false;
};

/// Runs the installation with CreateServiceW recorded and refused.
std::vector<Creation> RecordCreation() {
    std::vector<Creation> creations;
    ImportHooks hooks(GetModuleHandleW(nullptr));
    CORVI_HOOK(hooks, CreateServiceW,
               [&](SC_HANDLE, LPCWSTR name, LPCWSTR displayName, DWORD access, DWORD type, DWORD startType,
                   DWORD errorControl, LPCWSTR commandLine, LPCWSTR group, LPDWORD tag, LPCWSTR dependencies,
                   LPCWSTR account, LPCWSTR password) -> SC_HANDLE {
                   creations.push_back({name, displayName, commandLine, access, type, startType, errorControl,
                                        group == nullptr && tag == nullptr && dependencies == nullptr &&
                                            account == nullptr && password == nullptr});
                   SetLastError(ERROR_SERVICE_EXISTS);
                   return nullptr;
               });
    const HandleCount handles(hooks);
    InstallDataUploaderService();
    return creations;
}

std::wstring RecordCommandLine() {
    const auto creations = RecordCreation();
    return creations.size() == 1 ? creations.front().commandLine : L"not one creation";
}

TEST(InstallDataUploaderService, CreatesTheServiceWithTheGivenSettings) {
    const auto creations = RecordCreation();
    ASSERT_EQ(creations.size(), 1U);
    const Creation& creation = creations.front();
    EXPECT_EQ(creation.name, L"TUEPLauncher");
    EXPECT_EQ(creation.displayName, L"TAVO User Experience Program Data Uploader");
    EXPECT_EQ(creation.access, 0xF01FFU);
    EXPECT_EQ(creation.type, 0x110U);
    EXPECT_EQ(creation.startType, 2U);
    EXPECT_EQ(creation.errorControl, 1U);
    EXPECT_TRUE(creation.restIsNull);
}

TEST(InstallDataUploaderService, AnExistingInstallManagerDirectoryLeadsToTheClientBesideIt) {
    const ScratchKey manager(kInstallManagerKey);
    manager.SetText(L"", L"InstallDir", L"C:\\corvi");
    const ScratchKey client(kProfileClientKey);
    client.SetText(L"", L"InstallDir", L"C:\\windows");
    EXPECT_EQ(RecordCommandLine(), L"\"C:\\corvi\\..\\Performance Profile Client\\TUEPDU.exe\"");
}

TEST(InstallDataUploaderService, ADirectoryThatDoesNotExistLeadsToTheProfileClientsOwn) {
    const ScratchKey manager(kInstallManagerKey);
    manager.SetText(L"", L"InstallDir", L"C:\\corvi\\no such directory");
    const ScratchKey client(kProfileClientKey);
    client.SetText(L"", L"InstallDir", L"C:\\not there either\\");
    EXPECT_EQ(RecordCommandLine(), L"\"C:\\not there either\\\\TUEPDU.exe\"");
}

TEST(InstallDataUploaderService, WithoutEitherDirectoryTheLineIsFormattedWithAnEmptyText) {
    EXPECT_EQ(RecordCommandLine(), kFromNothing);
    const ScratchKey manager(kInstallManagerKey);
    manager.SetText(L"", L"InstallDir", L"C:\\corvi\\no such directory");
    EXPECT_EQ(RecordCommandLine(), kFromNothing);
}

TEST(InstallDataUploaderService, NoMoreThan260BytesOfTheDirectoryAreRead) {
    const ScratchKey client(kProfileClientKey);
    const std::wstring longest(130, L'd');
    client.SetValue(L"", L"InstallDir", REG_SZ, longest.c_str(), 129 * sizeof(wchar_t));
    EXPECT_EQ(RecordCommandLine(), L"\"" + longest.substr(1) + L"\\TUEPDU.exe\"");
    client.SetText(L"", L"InstallDir", longest.substr(1));
    EXPECT_EQ(RecordCommandLine(), L"\"" + longest.substr(1) + L"\\TUEPDU.exe\"");
    client.SetText(L"", L"InstallDir", longest);
    EXPECT_EQ(RecordCommandLine(), kFromNothing) << "262 bytes with the terminator";
}

TEST(InstallDataUploaderService, AValueThatFillsAll260BytesIsTerminatedSafely) {
    const ScratchKey client(kProfileClientKey);
    // The platform adds a terminator of its own when the data is followed by one.
    const std::wstring text(131, L'd');
    client.SetValue(L"", L"InstallDir", REG_SZ, text.c_str(), 260);
    EXPECT_EQ(RecordCommandLine(), L"\"" + text.substr(1) + L"\\TUEPDU.exe\"");
}

TEST(InstallDataUploaderService, ReadsTheDirectoryWithReadAccessAnd260Bytes) {
    const ScratchKey manager(kInstallManagerKey);
    const ScratchKey client(kProfileClientKey);
    ImportHooks hooks(GetModuleHandleW(nullptr));
    Lines opened;
    int queries = 0;
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
                   EXPECT_EQ(access, DWORD{KEY_READ});
                   opened.emplace_back(subkey);
                   return CORVI_ORIGINAL(hooks, RegOpenKeyExW)(root, subkey, options, access, key);
               });
    CORVI_HOOK(hooks, RegQueryValueExW,
               [&](HKEY, LPCWSTR name, LPDWORD, LPDWORD, LPBYTE, LPDWORD size) -> LSTATUS {
                   ++queries;
                   EXPECT_STREQ(name, L"InstallDir");
                   EXPECT_EQ(*size, 260U);
                   return ERROR_FILE_NOT_FOUND;
               });
    CORVI_HOOK(hooks, OpenSCManagerW, [](LPCWSTR, LPCWSTR, DWORD) -> SC_HANDLE { return nullptr; });
    StandardOutput output;
    InstallDataUploaderService();
    EXPECT_THAT(opened, ElementsAre(kInstallManagerKey, kProfileClientKey));
    EXPECT_EQ(queries, 2);
}

TEST(InstallDataUploaderService, ADirectoryOfAnotherTypeCountsAsMissing) {
    const ScratchKey client(kProfileClientKey);
    client.SetNumber(L"", L"InstallDir", 0x00420041);
    EXPECT_EQ(RecordCommandLine(), kFromNothing);
}

TEST(InstallDataUploaderService, AnExpandableDirectoryIsTakenAsItIsStored) {
    const std::wstring stored = L"%SystemDrive%\\corvi";
    const ScratchKey manager(kInstallManagerKey);
    manager.SetValue(L"", L"InstallDir", REG_EXPAND_SZ, stored.c_str(),
                     (stored.size() + 1) * sizeof(wchar_t));
    // Unexpanded, it names no directory.
    EXPECT_EQ(RecordCommandLine(), kFromNothing);
    const ScratchKey client(kProfileClientKey);
    client.SetValue(L"", L"InstallDir", REG_EXPAND_SZ, stored.c_str(), (stored.size() + 1) * sizeof(wchar_t));
    EXPECT_EQ(RecordCommandLine(), L"\"" + stored + L"\\TUEPDU.exe\"");
}

TEST(InstallDataUploaderService, TheServiceIsThereAfterwardsAndAnExistingOneIsLeftAsItIs) {
    const ScratchKey client(kProfileClientKey);
    client.SetText(L"", L"InstallDir", L"C:\\first");
    InstallDataUploaderService();
    EXPECT_EQ(GetServiceImagePath(kUploader), L"\"C:\\first\\TUEPDU.exe\"");
    client.SetText(L"", L"InstallDir", L"C:\\second");
    InstallDataUploaderService();
    EXPECT_EQ(GetServiceImagePath(kUploader), L"\"C:\\first\\TUEPDU.exe\"");
    DeleteServiceByName(kUploader);
    EXPECT_FALSE(ServiceExists(kUploader));
}

TEST(InstallDataUploaderService, ACreatedServiceIsSetToDelayedStart) {
    ImportHooks hooks(GetModuleHandleW(nullptr));
    std::vector<DWORD> levels;
    CORVI_HOOK(hooks, ChangeServiceConfig2W, [&](SC_HANDLE service, DWORD level, LPVOID info) -> BOOL {
        EXPECT_NE(service, nullptr);
        levels.push_back(level);
        EXPECT_EQ(static_cast<SERVICE_DELAYED_AUTO_START_INFO*>(info)->fDelayedAutostart, TRUE);
        return TRUE;
    });
    InstallDataUploaderService();
    InstallDataUploaderService();
    EXPECT_THAT(levels, ElementsAre(DWORD{SERVICE_CONFIG_DELAYED_AUTO_START_INFO}))
        << "once: the second time the service exists";
    hooks.RestoreAll();
    DeleteServiceByName(kUploader);
}

TEST(InstallDataUploaderService, AManagerThatDoesNotOpenIsReportedOnStandardOutputOnly) {
    ImportHooks hooks(GetModuleHandleW(nullptr));
    Lines debugger;
    CORVI_HOOK(hooks, OutputDebugStringW, [&](LPCWSTR text) { debugger.emplace_back(text); });
    ScriptedManager manager(hooks);
    manager.managerError = ERROR_ACCESS_DENIED;
    StandardOutput output;
    InstallDataUploaderService();
    EXPECT_EQ(output.Text(), "Error: Failed to open SCM.\n");
    EXPECT_THAT(debugger, IsEmpty());
    EXPECT_THAT(manager.calls, ElementsAre("OpenSCManager - F003F"));
}

// ---- GetServiceBinaryPath

/// A service of the real manager, opened to ask for its configuration.
class OpenedService {
public:
    OpenedService()
        : manager_(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)),
          service_(OpenServiceW(manager_.Get(), kName, SERVICE_QUERY_CONFIG)) {}
    const ServiceHandle& Get() const { return service_; }

private:
    ServiceHandle manager_;
    ServiceHandle service_;
};

TEST(GetServiceBinaryPath, GivesThePathAsStoredQuotesAndArgumentsIncluded) {
    const TestService service(kName, L"\"C:\\corvi\\service.exe\" ", L"plain");
    const OpenedService opened;
    EXPECT_EQ(GetServiceBinaryPath(opened.Get()), L"\"C:\\corvi\\service.exe\" plain");
}

TEST(GetServiceBinaryPath, StartsWith64BytesAndGrowsToWhatIsAskedFor) {
    const TestService service(kName, L"plain");
    const OpenedService opened;
    ImportHooks hooks(GetModuleHandleW(nullptr));
    std::vector<DWORD> offered;
    std::vector<DWORD> asked;
    CORVI_HOOK(hooks, QueryServiceConfigW,
               [&](SC_HANDLE target, LPQUERY_SERVICE_CONFIGW config, DWORD size, LPDWORD needed) -> BOOL {
                   offered.push_back(size);
                   const BOOL done = CORVI_ORIGINAL(hooks, QueryServiceConfigW)(target, config, size, needed);
                   asked.push_back(*needed);
                   return done;
               });
    EXPECT_EQ(GetServiceBinaryPath(opened.Get()), L"C:\\corvi\\service.exe plain");
    EXPECT_THAT(offered, ElementsAre(64U, asked.at(0)));
}

TEST(GetServiceBinaryPath, AnErrorCarriesTheCode) {
    const TestService service(kName, L"plain");
    const OpenedService opened;
    ImportHooks hooks(GetModuleHandleW(nullptr));
    CORVI_HOOK(hooks, QueryServiceConfigW, [](SC_HANDLE, LPQUERY_SERVICE_CONFIGW, DWORD, LPDWORD) -> BOOL {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    });
    try {
        GetServiceBinaryPath(opened.Get());
        FAIL() << "nothing was thrown";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), ERROR_ACCESS_DENIED);
        EXPECT_EQ(error.code().category(), std::system_category());
        EXPECT_EQ(std::string(error.what()).rfind("Unable to call QueryServiceConfig", 0), 0U);
    }
}

TEST(GetServiceBinaryPath, ADemandThatNeverGrowsIsAnErrorAndNotAnEndlessLoop) {
    const TestService service(kName, L"plain");
    const OpenedService opened;
    ImportHooks hooks(GetModuleHandleW(nullptr));
    CORVI_HOOK(hooks, QueryServiceConfigW,
               [](SC_HANDLE, LPQUERY_SERVICE_CONFIGW, DWORD, LPDWORD needed) -> BOOL {
                   *needed = 100;
                   SetLastError(ERROR_INSUFFICIENT_BUFFER);
                   return FALSE;
               });
    EXPECT_THROW(GetServiceBinaryPath(opened.Get()), std::system_error);
}

// ---- GetServiceImagePath

constexpr wchar_t kServiceKey[] = L"SYSTEM\\CurrentControlSet\\Services\\CorviPlanted";

TEST(GetServiceImagePath, GivesTheTextAsStored) {
    const ScratchKey key(kServiceKey);
    const std::wstring text = L"%SystemRoot%\\System32\\drivers\\Some Driver.sys -x";
    key.SetText(L"", L"ImagePath", text);
    EXPECT_EQ(GetServiceImagePath(L"CorviPlanted"), text);
    key.SetValue(L"", L"ImagePath", REG_EXPAND_SZ, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
    EXPECT_EQ(GetServiceImagePath(L"CorviPlanted"), text) << "not expanded";
    const std::wstring longText(2000, L'p');
    key.SetText(L"", L"ImagePath", longText);
    EXPECT_EQ(GetServiceImagePath(L"CorviPlanted"), longText);
}

TEST(GetServiceImagePath, AMissingKeyOrValueGivesAnEmptyText) {
    EXPECT_EQ(GetServiceImagePath(L"CorviNoSuchService"), L"");
    EXPECT_EQ(GetServiceImagePath(L""), L"");
    const ScratchKey key(kServiceKey);
    EXPECT_EQ(GetServiceImagePath(L"CorviPlanted"), L"");
}

TEST(GetServiceImagePath, BadDataGivesADefinedText) {
    const ScratchKey key(kServiceKey);
    key.SetNumber(L"", L"ImagePath", 0x00420041);
    EXPECT_EQ(GetServiceImagePath(L"CorviPlanted"), L"");
    key.SetValue(L"", L"ImagePath", REG_SZ, L"", 0);
    EXPECT_EQ(GetServiceImagePath(L"CorviPlanted"), L"");
    key.SetValue(L"", L"ImagePath", REG_SZ, L"abcdef", 6);
    EXPECT_EQ(GetServiceImagePath(L"CorviPlanted"), L"abc") << "no terminator";
    key.SetValue(L"", L"ImagePath", REG_SZ, L"ab\0cd", 12);
    EXPECT_EQ(GetServiceImagePath(L"CorviPlanted"), L"ab");
}

TEST(GetServiceImagePath, AsksForNoMoreThanToQuery) {
    const ScratchKey key(kServiceKey);
    ImportHooks hooks(GetModuleHandleW(nullptr));
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) -> LSTATUS {
                   EXPECT_STREQ(subkey, kServiceKey);
                   EXPECT_EQ(access, DWORD{KEY_QUERY_VALUE});
                   return CORVI_ORIGINAL(hooks, RegOpenKeyExW)(root, subkey, options, access, opened);
               });
    EXPECT_EQ(GetServiceImagePath(L"CorviPlanted"), L"");
}

}  // namespace
}  // namespace corvi::test
