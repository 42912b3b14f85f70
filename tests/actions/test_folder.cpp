#include "tests/actions/test_folder.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "tests/support/folders.h"

namespace corvi::test {
namespace {

namespace fs = std::filesystem;

}  // namespace

TestFolder::TestFolder(const std::wstring& name) : path_(L"C:\\" + name) {
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
void TestFolder::Remove() const { RemoveFolder(path_); }

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
        upwards += L"..\\";
    }
    corvi::test::MakeLink(Path(link), upwards + target);
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
