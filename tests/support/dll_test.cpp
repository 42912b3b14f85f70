// The built DLL as a file: what it exports, imports and says of itself.

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "actions/version_text.h"

namespace corvi::test {
namespace {

constexpr wchar_t kLibrary[] = L"C:\\corvi\\Corvi_CA.dll";

/// The DLL mapped as the loader lays it out, without running it.
class Image {
public:
    Image() : module_(LoadLibraryExW(kLibrary, nullptr, DONT_RESOLVE_DLL_REFERENCES)) {}
    ~Image() { FreeLibrary(module_); }
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;

    template <typename Type>
    const Type* At(uint64_t offset) const {
        return reinterpret_cast<const Type*>(reinterpret_cast<const std::byte*>(module_) + offset);
    }

    const IMAGE_NT_HEADERS64& Headers() const {
        return *At<IMAGE_NT_HEADERS64>(static_cast<uint64_t>(At<IMAGE_DOS_HEADER>(0)->e_lfanew));
    }

    std::vector<std::string> Exports() const {
        const auto& directory = Headers().OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
        const auto* table = At<IMAGE_EXPORT_DIRECTORY>(directory.VirtualAddress);
        const auto* names = At<DWORD>(table->AddressOfNames);
        std::vector<std::string> exports;
        exports.reserve(table->NumberOfNames);
        for (DWORD index = 0; index < table->NumberOfNames; ++index) {
            exports.emplace_back(At<char>(names[index]));
        }
        EXPECT_EQ(table->NumberOfFunctions, table->NumberOfNames) << "an export without a name";
        return exports;
    }

    std::set<std::string> ImportedDlls() const {
        const auto& directory = Headers().OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
        std::set<std::string> dlls;
        for (const auto* import = At<IMAGE_IMPORT_DESCRIPTOR>(directory.VirtualAddress); import->Name != 0;
             ++import) {
            std::string name = At<char>(import->Name);
            std::transform(name.begin(), name.end(), name.begin(),
                           [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
            dlls.insert(name);
        }
        return dlls;
    }

private:
    HMODULE module_;
};

std::vector<std::string> DefinedExports() {
    std::ifstream definition("C:\\corvi\\Corvi_CA.def");
    std::vector<std::string> names;
    bool listing = false;
    for (std::string line; std::getline(definition, line);) {
        line.erase(0, line.find_first_not_of(" \t"));
        line.erase(line.find_last_not_of(" \t\r") + 1);
        if (listing && !line.empty() && line[0] != ';') {
            names.push_back(line);
        }
        listing = listing || line == "EXPORTS";
    }
    return names;
}

TEST(Dll, ExportsExactlyTheNamesOfItsDefinitionFile) {
    const auto defined = DefinedExports();
    ASSERT_FALSE(defined.empty());
    EXPECT_THAT(Image().Exports(), testing::UnorderedElementsAreArray(defined));
}

TEST(Dll, ImportsFromWindowsSystemDllsOnly) {
    const std::set<std::string> system = {"advapi32.dll", "kernel32.dll", "msi.dll",      "msvcrt.dll",
                                          "ole32.dll",    "oleaut32.dll", "setupapi.dll", "shell32.dll",
                                          "shlwapi.dll",  "user32.dll",   "xmllite.dll"};
    const auto imported = Image().ImportedDlls();
    EXPECT_FALSE(imported.empty());
    EXPECT_THAT(
        imported,
        testing::Each(testing::Truly([&](const std::string& name) { return system.contains(name); })));
}

TEST(Dll, IsA64BitImageWithAddressRandomisationAndNoExecutableData) {
    const Image image;
    const auto& header = image.Headers();
    EXPECT_EQ(header.FileHeader.Machine, IMAGE_FILE_MACHINE_AMD64);
    const WORD flags = header.OptionalHeader.DllCharacteristics;
    EXPECT_TRUE(flags & IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE);
    EXPECT_TRUE(flags & 0x0020) << "high-entropy addresses";
    EXPECT_TRUE(flags & IMAGE_DLLCHARACTERISTICS_NX_COMPAT);
    EXPECT_GT(header.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_BASERELOC].Size, 0U);
}

TEST(Dll, CarriesNoSymbolsOfItsOwn) { EXPECT_EQ(Image().Headers().FileHeader.NumberOfSymbols, 0U); }

TEST(Dll, TellsTheProjectsVersionThroughTheVersionApi) {
    DWORD ignored = 0;
    const DWORD size = GetFileVersionInfoSizeW(kLibrary, &ignored);
    ASSERT_GT(size, 0U);
    std::vector<std::byte> block(size);
    ASSERT_TRUE(GetFileVersionInfoW(kLibrary, 0, size, block.data()));
    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT length = 0;
    ASSERT_TRUE(VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&fixed), &length));
    const std::string version = std::to_string(HIWORD(fixed->dwFileVersionMS)) + "." +
                                std::to_string(LOWORD(fixed->dwFileVersionMS)) + "." +
                                std::to_string(HIWORD(fixed->dwFileVersionLS));
    EXPECT_EQ(version, CORVI_PROJECT_VERSION);
    const auto text = [&](const std::wstring& name) {
        wchar_t* found = nullptr;
        return VerQueryValueW(block.data(), (L"\\StringFileInfo\\040904B0\\" + name).c_str(),
                              reinterpret_cast<void**>(&found), &length)
                   ? std::wstring(found)
                   : L"(none)";
    };
    EXPECT_EQ(text(L"FileVersion"), L"" CORVI_PROJECT_VERSION);
    EXPECT_EQ(text(L"ProductVersion"), L"" CORVI_VERSION_TEXT);
    EXPECT_EQ(text(L"Commit"), L"" CORVI_COMMIT);
    EXPECT_EQ(text(L"CompanyName"), L"The Corvi_CA authors");
    EXPECT_NE(text(L"LegalCopyright").find(L"MIT"), std::wstring::npos);
}

TEST(Dll, LoadsAndUnloadsAgainAndAgain) {
    for (int round = 0; round < 20; ++round) {
        const HMODULE module = LoadLibraryW(kLibrary);
        ASSERT_NE(module, nullptr);
        EXPECT_TRUE(FreeLibrary(module));
    }
}

}  // namespace
}  // namespace corvi::test
