#include "tests/tasks/suite_installation.h"

#include <filesystem>

namespace corvi::test {
namespace {

std::filesystem::path StoredTask(const std::wstring& name) {
    return L"C:\\windows\\system32\\tasks\\" + name;
}

}  // namespace

SuiteInstallation::SuiteInstallation() {
    std::filesystem::create_directories(kInstallDirectory);
    SetLocation(kInstallDirectory);
}

SuiteInstallation::~SuiteInstallation() {
    std::error_code ignored;
    std::filesystem::remove_all(kInstallDirectory, ignored);
}

std::wstring TemporaryDirectory() {
    wchar_t directory[MAX_PATH + 1] = {};
    GetTempPathW(MAX_PATH + 1, directory);
    return directory;
}

bool TaskExists(const std::wstring& name) { return std::filesystem::exists(StoredTask(name)); }

void RemoveTask(const std::wstring& name) { std::filesystem::remove(StoredTask(name)); }

}  // namespace corvi::test
