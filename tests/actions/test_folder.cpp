#include "tests/actions/test_folder.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace corvi::test {
namespace {

namespace fs = std::filesystem;

/// Runs a tool of the system that Wine runs on, in the root of drive C:. Such a process cannot be waited
/// for: done is asked until it holds, for at most 10 s.
template <typename Done>
void RunHostTool(const std::wstring& tool, const std::wstring& arguments, Done done) {
    const std::wstring program = L"\\\\?\\unix\\bin\\" + tool;
    std::wstring commandLine = L"\"" + program + L"\" " + arguments;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    if (CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, L"C:\\",
                       &startup, &process) == FALSE) {
        throw std::runtime_error("cannot run a tool of the host: " + std::to_string(GetLastError()));
    }
    // Nothing is closed: for a program of the host Wine makes neither process nor thread, and what it leaves
    // in the structure is whatever its stack held. Closed, it may be somebody else's handle: the registry's.
    for (int attempt = 0; !done(); ++attempt) {
        if (attempt == 2000) {
            throw std::runtime_error("a tool of the host did not do its work");
        }
        Sleep(5);
    }
}

std::wstring ForwardSlashes(std::wstring path) {
    std::replace(path.begin(), path.end(), L'\\', L'/');
    return path;
}

bool IsThere(const std::wstring& path) {
    WIN32_FIND_DATAW data = {};
    const HANDLE find = FindFirstFileW(path.c_str(), &data);
    if (find == INVALID_HANDLE_VALUE) {
        return false;
    }
    FindClose(find);
    return true;
}

}  // namespace

TestFolder::TestFolder(const std::wstring& name) : name_(name), path_(L"C:\\" + name) {
    Remove();
    fs::create_directory(path_);
}

TestFolder::~TestFolder() {
    try {
        Remove();
    } catch (const std::exception&) {
        // The prefix is thrown away at the end.
    }
}

// Not through the standard library: it would go through links.
void TestFolder::Remove() const {
    if (IsThere(path_)) {
        RunHostTool(L"rm", L"-rf \"" + name_ + L"\"", [this] { return !IsThere(path_); });
    }
}

void TestFolder::MakeFolder(const std::wstring& relative) const { fs::create_directories(Path(relative)); }

void TestFolder::MakeFile(const std::wstring& relative, DWORD attributes) const {
    const fs::path file = Path(relative);
    fs::create_directories(file.parent_path());
    std::ofstream(file) << "content";
    SetFileAttributesW(file.c_str(), attributes);
}

void TestFolder::MakeLink(const std::wstring& link, const std::wstring& target) const {
    std::wstring upwards;
    for (auto separators = std::count(link.begin(), link.end(), L'\\'); separators > 0; --separators) {
        upwards += L"../";
    }
    const std::wstring linkPath = ForwardSlashes(name_ + L'\\' + link);
    RunHostTool(L"ln", L"-s \"" + upwards + ForwardSlashes(target) + L"\" \"" + linkPath + L"\"",
                [this, &link] { return Has(link); });
}

void TestFolder::MakeRecorder(const std::wstring& relative, unsigned exitCode) const {
    const fs::path program = Path(relative);
    fs::create_directories(program.parent_path());
    fs::copy_file(L"C:\\corvi\\recorder.exe", program);
    std::ofstream(fs::path(program.wstring() + L".exitcode")) << exitCode;
}

bool TestFolder::Has(const std::wstring& relative) const { return IsThere(Path(relative)); }

std::vector<std::wstring> TestFolder::Names(const std::wstring& relative) const {
    std::vector<std::wstring> names;
    for (const auto& entry : fs::directory_iterator(Path(relative))) {
        names.push_back(entry.path().filename().wstring());
    }
    std::sort(names.begin(), names.end());
    return names;
}

HeldFile::HeldFile(const std::wstring& path)
    : file_(CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr)) {
    if (file_ == INVALID_HANDLE_VALUE) {
        throw std::runtime_error("cannot hold a file: " + std::to_string(GetLastError()));
    }
}

CurrentDirectory::CurrentDirectory(const std::wstring& path) : previous_(fs::current_path().wstring()) {
    fs::current_path(path);
}

void DropMachineKey(const std::wstring& key) { RegDeleteTreeW(HKEY_LOCAL_MACHINE, key.c_str()); }

}  // namespace corvi::test
