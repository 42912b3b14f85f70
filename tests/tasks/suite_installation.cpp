#include "tests/tasks/suite_installation.h"

#include <filesystem>

namespace corvi::test {
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

}  // namespace corvi::test
