#include "tool/installer_session.h"

#include <msiquery.h>
#include <objbase.h>

#include <stdexcept>
#include <utility>
#include <vector>

namespace corvi::tool {
namespace {

/// The smallest package that the installer opens. Its directory is asked for by one action.
constexpr const wchar_t* kStatements[] = {
    L"CREATE TABLE `Property` (`Property` CHAR(72) NOT NULL, `Value` LONGCHAR NOT NULL LOCALIZABLE "
    L"PRIMARY KEY `Property`)",
    L"CREATE TABLE `Directory` (`Directory` CHAR(72) NOT NULL, `Directory_Parent` CHAR(72), "
    L"`DefaultDir` CHAR(255) NOT NULL LOCALIZABLE PRIMARY KEY `Directory`)",
    L"INSERT INTO `Property` (`Property`, `Value`) VALUES ('ProductName', 'Corvi session')",
    L"INSERT INTO `Property` (`Property`, `Value`) VALUES ('ProductVersion', '1.0.0')",
    L"INSERT INTO `Property` (`Property`, `Value`) VALUES ('ProductLanguage', '1033')",
    L"INSERT INTO `Property` (`Property`, `Value`) VALUES ('Manufacturer', 'Corvi')",
    L"INSERT INTO `Directory` (`Directory`, `DefaultDir`) VALUES ('TARGETDIR', 'SourceDir')",
    L"INSERT INTO `Directory` (`Directory`, `Directory_Parent`, `DefaultDir`) "
    L"VALUES ('ProgramFiles64Folder', 'TARGETDIR', '.')",
    L"INSERT INTO `Directory` (`Directory`, `Directory_Parent`, `DefaultDir`) "
    L"VALUES ('IMAGINGFOLDER', 'ProgramFiles64Folder', 'Imaging')",
};

// Numbers of the summary's properties.
constexpr UINT kTemplate = 7;
constexpr UINT kRevision = 9;
constexpr UINT kPageCount = 14;
constexpr UINT kWordCount = 15;
constexpr INT kSchema = 500;
constexpr INT kCompressed = 2;

void Require(UINT result, const char* what) {
    if (result != ERROR_SUCCESS) {
        throw std::runtime_error(std::string("no installer session: ") + what + " (error " +
                                 std::to_string(result) + ")");
    }
}

/// A handle of the installer's, closed at the end of the scope.
class Handle {
public:
    Handle() = default;
    ~Handle() {
        if (handle_ != 0) {
            MsiCloseHandle(handle_);
        }
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    MSIHANDLE Get() const { return handle_; }
    MSIHANDLE* Put() { return &handle_; }

private:
    MSIHANDLE handle_ = 0;
};

std::wstring NewGuid() {
    GUID guid = {};
    wchar_t text[40] = {};
    CoCreateGuid(&guid);
    StringFromGUID2(guid, text, ARRAYSIZE(text));
    return text;
}

void Execute(MSIHANDLE database, const std::wstring& statement) {
    Handle view;
    Require(MsiDatabaseOpenViewW(database, statement.c_str(), view.Put()), "the package cannot be made");
    Require(MsiViewExecute(view.Get(), 0), "the package cannot be written");
}

void WriteSummary(MSIHANDLE database) {
    Handle summary;
    Require(MsiGetSummaryInformationW(database, nullptr, 8, summary.Put()), "the package has no summary");
    MsiSummaryInfoSetPropertyW(summary.Get(), kTemplate, VT_LPSTR, 0, nullptr, L"x64;1033");
    MsiSummaryInfoSetPropertyW(summary.Get(), kRevision, VT_LPSTR, 0, nullptr, NewGuid().c_str());
    MsiSummaryInfoSetPropertyW(summary.Get(), kPageCount, VT_I4, kSchema, nullptr, nullptr);
    MsiSummaryInfoSetPropertyW(summary.Get(), kWordCount, VT_I4, kCompressed, nullptr, nullptr);
    Require(MsiSummaryInfoPersist(summary.Get()), "the package's summary cannot be written");
}

void WritePackage(const std::wstring& path) {
    Handle database;
    Require(MsiOpenDatabaseW(path.c_str(), MSIDBOPEN_CREATE, database.Put()),
            "no package can be made in the folder for temporary files");
    for (const wchar_t* statement : kStatements) {
        Execute(database.Get(), statement);
    }
    Execute(database.Get(),
            L"INSERT INTO `Property` (`Property`, `Value`) VALUES ('ProductCode', '" + NewGuid() + L"')");
    WriteSummary(database.Get());
    Require(MsiDatabaseCommit(database.Get()), "the package cannot be finished");
}

std::wstring NewPackagePath() {
    std::vector<wchar_t> folder(MAX_PATH + 1);
    wchar_t path[MAX_PATH + 1] = {};
    if (GetTempPathW(static_cast<DWORD>(folder.size()), folder.data()) == 0 ||
        GetTempFileNameW(folder.data(), L"cor", 0, path) == 0) {
        throw std::runtime_error("no installer session: there is no folder for temporary files (error " +
                                 std::to_string(GetLastError()) + ")");
    }
    return path;
}

/// The installer's folder for its copies of packages.
std::wstring InstallerFolder() {
    wchar_t windows[MAX_PATH] = {};
    GetSystemWindowsDirectoryW(windows, MAX_PATH);
    return std::wstring(windows) + L"\\Installer";
}

std::string FileBytes(const std::wstring& path) {
    const HANDLE file =
        CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, 0, nullptr);
    LARGE_INTEGER size = {};
    std::string bytes;
    if (file != INVALID_HANDLE_VALUE && GetFileSizeEx(file, &size) != FALSE) {
        bytes.resize(static_cast<std::size_t>(size.QuadPart));
        DWORD read = 0;
        ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr);
        bytes.resize(read);
    }
    if (file != INVALID_HANDLE_VALUE) {
        CloseHandle(file);
    }
    return bytes;
}

std::wstring RecordText(MSIHANDLE session, MSIHANDLE record) {
    wchar_t none[] = L"";
    DWORD length = 0;
    // Formatted as the installer's log shows it: "[NAME]" in the text is that property's value.
    if (MsiFormatRecordW(session, record, none, &length) == ERROR_MORE_DATA) {
        std::wstring text(++length, L'\0');
        if (MsiFormatRecordW(session, record, text.data(), &length) == ERROR_SUCCESS) {
            text.resize(length);
            return text;
        }
    }
    length = 0;
    MsiRecordGetStringW(record, 0, none, &length);
    std::wstring text(++length, L'\0');
    MsiRecordGetStringW(record, 0, text.data(), &length);
    text.resize(length);
    return text;
}

}  // namespace

InstallerSession::InstallerSession(Receiver receiver) : receiver_(std::move(receiver)) {
    const std::wstring folder = InstallerFolder();
    if (GetFileAttributesW(folder.c_str()) == INVALID_FILE_ATTRIBUTES) {
        installerFolder_ = folder;
    }
    try {
        Open();
    } catch (...) {
        Close();
        throw;
    }
}

void InstallerSession::Open() {
    package_ = NewPackagePath();
    WritePackage(package_);
    MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
    Require(MsiOpenPackageExW(package_.c_str(), MSIOPENPACKAGEFLAGS_IGNOREMACHINESTATE, &session_),
            "the installer refuses to open one");
    INSTALLUI_HANDLER_RECORD previous = nullptr;
    MsiSetExternalUIRecord(
        &InstallerSession::Receive,
        INSTALLLOGMODE_INFO | INSTALLLOGMODE_USER | INSTALLLOGMODE_WARNING | INSTALLLOGMODE_ERROR, this,
        &previous);
}

bool InstallerSession::SetProperty(const std::wstring& name, const std::wstring& value) const {
    return MsiSetPropertyW(session_, name.c_str(), value.c_str()) == ERROR_SUCCESS;
}

void InstallerSession::Close() {
    INSTALLUI_HANDLER_RECORD previous = nullptr;
    MsiSetExternalUIRecord(nullptr, 0, nullptr, &previous);
    if (session_ != 0) {
        MsiCloseHandle(std::exchange(session_, 0));
    }
    if (!package_.empty()) {
        DeleteFileW(std::exchange(package_, {}).c_str());
    }
    if (!installerFolder_.empty()) {
        // Goes only when it is empty.
        RemoveDirectoryW(std::exchange(installerFolder_, {}).c_str());
    }
}

int CALLBACK InstallerSession::Receive(LPVOID context, UINT messageType, MSIHANDLE record) {
    const auto* session = static_cast<const InstallerSession*>(context);
    if (record != 0) {
        session->receiver_(messageType & 0xFF000000U, RecordText(session->session_, record));
    }
    return IDOK;
}

void RemoveLeftPackage(const std::wstring& package, bool madeInstallerFolder) {
    const std::string bytes = FileBytes(package);
    const std::wstring folder = InstallerFolder();
    WIN32_FIND_DATAW data = {};
    const HANDLE find =
        bytes.empty() ? INVALID_HANDLE_VALUE : FindFirstFileW((folder + L"\\*.msi").c_str(), &data);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring copy = folder + L'\\' + data.cFileName;
            if (data.nFileSizeLow == bytes.size() && FileBytes(copy) == bytes) {
                DeleteFileW(copy.c_str());
            }
        } while (FindNextFileW(find, &data) != FALSE);
        FindClose(find);
    }
    DeleteFileW(package.c_str());
    if (madeInstallerFolder) {
        RemoveDirectoryW(folder.c_str());
    }
}

bool IsElevated() {
    HANDLE token = nullptr;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token) == FALSE) {
        return false;
    }
    TOKEN_ELEVATION elevation = {};
    DWORD size = sizeof(elevation);
    const BOOL known = GetTokenInformation(token, TokenElevation, &elevation, size, &size);
    CloseHandle(token);
    return known != FALSE && elevation.TokenIsElevated != 0;
}

}  // namespace corvi::tool
