#include "runtime/registry_walk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <winternl.h>

#include <algorithm>
#include <chrono>

#include "runtime/registry.h"
#include "tests/support/handle_count.h"
#include "tests/support/import_hooks.h"
#include "tests/support/scratch_key.h"

namespace corvi::test {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr wchar_t kScratch[] = L"SOFTWARE\\CorviTests\\Walk";
constexpr wchar_t kScratchFull[] = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\CorviTests\\Walk";

std::wstring Under(const std::wstring& relative) { return kScratchFull + (L'\\' + relative); }

/// What only the native interface can make: names that hold a terminator.
class NativeNames {
public:
    void AddSubkey(HKEY parent, const std::wstring& name) const {
        UNICODE_STRING text = Text(name);
        OBJECT_ATTRIBUTES attributes = {};
        attributes.Length = sizeof(attributes);
        attributes.RootDirectory = parent;
        attributes.ObjectName = &text;
        HANDLE key = nullptr;
        ASSERT_EQ(createKey_(&key, KEY_ALL_ACCESS, &attributes, 0, nullptr, 0, nullptr), 0);
        RegCloseKey(static_cast<HKEY>(key));
    }
    void DeleteSubkey(HKEY parent, const std::wstring& name) const {
        UNICODE_STRING text = Text(name);
        OBJECT_ATTRIBUTES attributes = {};
        attributes.Length = sizeof(attributes);
        attributes.RootDirectory = parent;
        attributes.ObjectName = &text;
        HANDLE key = nullptr;
        ASSERT_EQ(openKey_(&key, KEY_ALL_ACCESS, &attributes), 0);
        deleteKey_(key);
        RegCloseKey(static_cast<HKEY>(key));
    }
    void AddValue(HKEY key, const std::wstring& name) const {
        UNICODE_STRING text = Text(name);
        DWORD data = 1;
        ASSERT_EQ(setValue_(key, &text, 0, REG_DWORD, &data, sizeof(data)), 0);
    }

private:
    static UNICODE_STRING Text(const std::wstring& name) {
        const auto size = static_cast<USHORT>(name.size() * sizeof(wchar_t));
        return {size, size, const_cast<wchar_t*>(name.data())};
    }
    template <typename Function>
    static Function Find(const char* name) {
        return reinterpret_cast<Function>(
            reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), name)));
    }

    using CreateKey = NTSTATUS(NTAPI*)(HANDLE*, ACCESS_MASK, OBJECT_ATTRIBUTES*, ULONG, UNICODE_STRING*,
                                       ULONG, ULONG*);
    using OpenKey = NTSTATUS(NTAPI*)(HANDLE*, ACCESS_MASK, OBJECT_ATTRIBUTES*);
    using DeleteKey = NTSTATUS(NTAPI*)(HANDLE);
    using SetValue = NTSTATUS(NTAPI*)(HANDLE, UNICODE_STRING*, ULONG, ULONG, const void*, ULONG);
    CreateKey createKey_ = Find<CreateKey>("NtCreateKey");
    OpenKey openKey_ = Find<OpenKey>("NtOpenKey");
    DeleteKey deleteKey_ = Find<DeleteKey>("NtDeleteKey");
    SetValue setValue_ = Find<SetValue>("NtSetValueKey");
};

class RegistryWalk : public testing::Test {
protected:
    std::vector<std::wstring> KeyPaths() const {
        std::vector<std::wstring> paths;
        ListKeyPaths(HKEY_LOCAL_MACHINE, open.Get(), kScratch, paths);
        return paths;
    }

    ScratchKey scratch{kScratch};
    RegKey open = RegKey::Open(HKEY_LOCAL_MACHINE, kScratch, KEY_READ);
    ImportHooks hooks{GetModuleHandleW(nullptr)};
};

TEST_F(RegistryWalk, ListsEachKeyWithWhatIsBelowItAndThenTheValues) {
    scratch.SetNumber(L"", L"Top", 1);
    scratch.SetNumber(L"A", L"Inner", 1);
    scratch.Add(L"A\\B\\C");
    scratch.Add(L"D");
    EXPECT_THAT(KeyPaths(), ElementsAre(Under(L"A"), Under(L"A\\B"), Under(L"A\\B\\C"), Under(L"A\\Inner"),
                                        Under(L"D"), Under(L"Top")));
}

TEST_F(RegistryWalk, AnEmptyKeyGivesNothing) { EXPECT_THAT(KeyPaths(), IsEmpty()); }

TEST_F(RegistryWalk, TheUnnamedValueEndsInABackslash) {
    scratch.SetText(L"", L"", L"x");
    EXPECT_THAT(KeyPaths(), ElementsAre(Under(L"")));
}

TEST_F(RegistryWalk, AValueWithTheNameOfASubkeyIsNotListedTwice) {
    scratch.Add(L"Same");
    scratch.SetNumber(L"", L"Same", 1);
    scratch.SetNumber(L"", L"same value", 1);
    EXPECT_THAT(KeyPaths(), ElementsAre(Under(L"Same"), Under(L"same value")));
}

TEST_F(RegistryWalk, AKeyThatTheListHoldsAlreadyIsNotEntered) {
    scratch.Add(L"A\\Hidden");
    scratch.Add(L"B\\Shown");
    std::vector<std::wstring> paths = {Under(L"A"), L"other", L"other"};
    ListKeyPaths(HKEY_LOCAL_MACHINE, open.Get(), kScratch, paths);
    EXPECT_THAT(paths, ElementsAre(Under(L"A"), L"other", L"other", Under(L"B"), Under(L"B\\Shown")));
}

TEST_F(RegistryWalk, TheComparisonWithTheListRegardsCase) {
    scratch.Add(L"A\\Below");
    std::vector<std::wstring> paths = {Under(L"a")};
    ListKeyPaths(HKEY_LOCAL_MACHINE, open.Get(), kScratch, paths);
    EXPECT_THAT(paths, ElementsAre(Under(L"a"), Under(L"A"), Under(L"A\\Below")));
}

TEST_F(RegistryWalk, EachRootHasItsPrefixAndOthersHaveNone) {
    // Nothing is opened below the roots: what counts is the text.
    scratch.SetNumber(L"", L"Value", 1);
    const std::pair<HKEY, std::wstring> roots[] = {
        {HKEY_CLASSES_ROOT, L"HKEY_CLASSES_ROOT\\"},
        {HKEY_CURRENT_USER, L"HKEY_CURRENT_USER\\"},
        {HKEY_LOCAL_MACHINE, L"HKEY_LOCAL_MACHINE\\"},
        {HKEY_USERS, L"HKEY_USERS\\"},
        {HKEY_CURRENT_CONFIG, L"HKEY_CURRENT_CONFIG\\"},
        {open.Get(), L""},
        {nullptr, L""},
    };
    for (const auto& [root, prefix] : roots) {
        std::vector<std::wstring> paths;
        ListKeyPaths(root, open.Get(), L"P", paths);
        EXPECT_THAT(paths, ElementsAre(prefix + L"P\\Value"));
    }
}

TEST_F(RegistryWalk, AnEmptyPathListsTheSubkeysByTheirNames) {
    scratch.Add(L"A\\B");
    std::vector<std::wstring> paths;
    ListKeyPaths(open.Get(), open.Get(), L"", paths);
    EXPECT_THAT(paths, ElementsAre(L"A", L"A\\B"));
}

TEST_F(RegistryWalk, ANullRootWritesATraceLinePerKeyInsteadOfEnteringIt) {
    scratch.Add(L"A\\B");
    scratch.Add(L"C");
    std::vector<std::wstring> paths;
    testing::internal::CaptureStdout();
    ListKeyPaths(nullptr, open.Get(), L"P", paths);
    const std::string output = testing::internal::GetCapturedStdout();
    const std::string line = "QueryKey: %s---------hkey is NULL---------------%s\n";
    EXPECT_EQ(output, line + line);
    EXPECT_THAT(paths, ElementsAre(L"P\\A", L"P\\C"));
}

TEST_F(RegistryWalk, AKeyThatCannotBeOpenedIsListedAndSkipped) {
    scratch.Add(L"A\\Below");
    scratch.Add(L"B\\Below");
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD option, REGSAM access, PHKEY key) -> LSTATUS {
                   return path == kScratch + L"\\A"s
                              ? ERROR_ACCESS_DENIED
                              : CORVI_ORIGINAL(hooks, RegOpenKeyExW)(root, path, option, access, key);
               });
    EXPECT_THAT(KeyPaths(), ElementsAre(Under(L"A"), Under(L"B"), Under(L"B\\Below")));
}

// A registry link that leads back into its own ancestors makes keys without end.
TEST_F(RegistryWalk, EndlessKeysAreEnteredDownTo512Levels) {
    size_t opened = 0;
    CORVI_HOOK(hooks, RegOpenKeyExW, [&](HKEY, LPCWSTR, DWORD, REGSAM access, PHKEY key) -> LSTATUS {
        ++opened;
        return CORVI_ORIGINAL(hooks, RegOpenKeyExW)(HKEY_LOCAL_MACHINE, kScratch, 0, access, key);
    });
    scratch.Add(L"x");
    const std::vector<std::wstring> paths = KeyPaths();
    EXPECT_EQ(opened, 512U);
    ASSERT_EQ(paths.size(), 513U);
    EXPECT_EQ(paths[1], Under(L"x\\x"));
}

TEST_F(RegistryWalk, AnIndexThatFailsIsSkipped) {
    for (const wchar_t* name : {L"A", L"B", L"C"}) {
        scratch.Add(name);
        scratch.SetNumber(L"", L"value "s + name, 1);
    }
    CORVI_HOOK(hooks, RegEnumKeyExW,
               [&](HKEY key, DWORD index, LPWSTR name, LPDWORD length, LPDWORD reserved, LPWSTR type,
                   LPDWORD typeLength, PFILETIME time) -> LSTATUS {
                   EXPECT_EQ(*length, 255U);
                   return index == 1 ? ERROR_ACCESS_DENIED
                                     : CORVI_ORIGINAL(hooks, RegEnumKeyExW)(key, index, name, length,
                                                                            reserved, type, typeLength, time);
               });
    CORVI_HOOK(hooks, RegEnumValueW,
               [&](HKEY key, DWORD index, LPWSTR name, LPDWORD length, LPDWORD reserved, LPDWORD type,
                   LPBYTE data, LPDWORD size) -> LSTATUS {
                   EXPECT_EQ(*length, 16383U);
                   return index == 0 ? ERROR_ACCESS_DENIED
                                     : CORVI_ORIGINAL(hooks, RegEnumValueW)(key, index, name, length,
                                                                            reserved, type, data, size);
               });
    EXPECT_THAT(KeyPaths(), ElementsAre(Under(L"A"), Under(L"C"), Under(L"value B"), Under(L"value C")));
}

TEST_F(RegistryWalk, AKeyDeletedBySomebodyElseDuringTheWalkIsSurvived) {
    scratch.Add(L"A\\B");
    scratch.Add(L"C\\D");
    scratch.SetNumber(L"", L"Value", 1);
    bool deleted = false;
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD option, REGSAM access, PHKEY key) -> LSTATUS {
                   const LSTATUS status =
                       CORVI_ORIGINAL(hooks, RegOpenKeyExW)(root, path, option, access, key);
                   if (!deleted && path == kScratch + L"\\A"s) {
                       deleted = true;
                       RegDeleteTreeW(HKEY_LOCAL_MACHINE, (kScratch + L"\\A"s).c_str());
                       RegDeleteTreeW(HKEY_LOCAL_MACHINE, (kScratch + L"\\C"s).c_str());
                   }
                   return status;
               });
    EXPECT_THAT(KeyPaths(), ElementsAre(Under(L"A"), Under(L"Value")));
    EXPECT_TRUE(deleted);
}

TEST_F(RegistryWalk, ADeletedOpenKeyGivesNothing) {
    scratch.Add(L"Gone");
    const RegKey gone = RegKey::Open(HKEY_LOCAL_MACHINE, kScratch + L"\\Gone"s, KEY_READ);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, (kScratch + L"\\Gone"s).c_str());
    std::vector<std::wstring> paths;
    ListKeyPaths(HKEY_LOCAL_MACHINE, gone.Get(), kScratch, paths);
    ListKeyPaths(HKEY_LOCAL_MACHINE, nullptr, kScratch, paths);
    EXPECT_THAT(paths, IsEmpty());
}

// The limits count the terminator, so the longest names that the registry takes are passed over.
TEST_F(RegistryWalk, ASubkeyNameOf255CharactersIsSkippedAndOneOf254Listed) {
    const std::wstring fits(254, L'f');
    scratch.Add(fits);
    scratch.Add(std::wstring(255, L'l'));
    scratch.Add(L"z");
    EXPECT_THAT(KeyPaths(), ElementsAre(Under(fits), Under(L"z")));
}

TEST_F(RegistryWalk, AValueNameOf16383CharactersIsSkippedAndOneOf16382Listed) {
    const std::wstring fits(16382, L'f');
    scratch.SetNumber(L"", fits, 1);
    scratch.SetNumber(L"", std::wstring(16383, L'l'), 1);
    scratch.SetNumber(L"", L"z", 1);
    EXPECT_THAT(KeyPaths(), ElementsAre(Under(fits), Under(L"z")));
}

TEST_F(RegistryWalk, NamesThatHoldATerminatorAreListedWholeAndNotEntered) {
    scratch.Add(L"A\\Below");
    const RegKey key = RegKey::Open(HKEY_LOCAL_MACHINE, kScratch, KEY_ALL_ACCESS);
    const NativeNames names;
    names.AddSubkey(key.Get(), L"A\0x"s);
    names.AddSubkey(key.Get(), L"\0"s);
    names.AddValue(key.Get(), L"V\0x"s);
    std::vector<std::wstring> paths = KeyPaths();
    std::sort(paths.begin(), paths.end());
    names.DeleteSubkey(key.Get(), L"A\0x"s);
    names.DeleteSubkey(key.Get(), L"\0"s);
    EXPECT_THAT(
        paths, ElementsAre(Under(L"\0"s), Under(L"A"), Under(L"A\0x"s), Under(L"A\\Below"), Under(L"V\0x"s)));
}

TEST_F(RegistryWalk, TheSecondWalkSeparatesKeysAndAllValues) {
    scratch.SetNumber(L"", L"One", 1);
    scratch.SetNumber(L"A", L"Two", 1);
    std::vector<std::wstring> keys;
    std::vector<std::wstring> values;
    ListKeyAndValuePaths(HKEY_LOCAL_MACHINE, open.Get(), kScratch, keys, values, {});
    EXPECT_THAT(keys, ElementsAre(Under(L"A")));
    EXPECT_THAT(values, ElementsAre(Under(L"A\\Two"), Under(L"One")));
}

TEST_F(RegistryWalk, TheSecondWalkListsNamedValuesWithoutRegardToCase) {
    scratch.SetNumber(L"", L"FriendlyName", 1);
    scratch.SetNumber(L"", L"FriendlyNames", 1);
    scratch.SetNumber(L"A", L"friendlyNAME", 1);
    scratch.SetNumber(L"A", L"Path", 1);
    scratch.SetNumber(L"A\\B", L"Other", 1);
    std::vector<std::wstring> keys;
    std::vector<std::wstring> values;
    ListKeyAndValuePaths(HKEY_LOCAL_MACHINE, open.Get(), kScratch, keys, values,
                         {L"FRIENDLYNAME", L"friendlyname", L"path"});
    EXPECT_THAT(keys, ElementsAre(Under(L"A"), Under(L"A\\B")));
    EXPECT_THAT(values, ElementsAre(Under(L"A\\friendlyNAME"), Under(L"A\\Path"), Under(L"FriendlyName")));
}

TEST_F(RegistryWalk, TheSecondWalkListsNothingTwiceOverSeveralCalls) {
    scratch.SetNumber(L"A", L"One", 1);
    std::vector<std::wstring> keys;
    std::vector<std::wstring> values;
    for (int round = 0; round < 2; ++round) {
        ListKeyAndValuePaths(HKEY_LOCAL_MACHINE, open.Get(), kScratch, keys, values, {});
    }
    EXPECT_THAT(keys, ElementsAre(Under(L"A")));
    EXPECT_THAT(values, ElementsAre(Under(L"A\\One")));
}

TEST_F(RegistryWalk, TheCostStaysThatOfAListHoweverManyKeysThereAre) {
    // Key names without a registry behind them: what is timed is the walk's own work. A search through
    // the list for every key would cost hundreds of times as much as filling the list.
    constexpr DWORD kKeyCount = 60000;
    const auto name = [](DWORD index) { return L"key " + std::to_wstring(10000000 + index); };
    CORVI_HOOK(hooks, RegQueryInfoKeyW,
               [](HKEY, LPWSTR, LPDWORD, LPDWORD, LPDWORD subkeys, LPDWORD, LPDWORD, LPDWORD values, LPDWORD,
                  LPDWORD, LPDWORD, PFILETIME) -> LSTATUS {
                   *subkeys = kKeyCount;
                   *values = 0;
                   return ERROR_SUCCESS;
               });
    CORVI_HOOK(hooks, RegEnumKeyExW,
               [&name](HKEY, DWORD index, LPWSTR buffer, LPDWORD length, LPDWORD, LPWSTR, LPDWORD,
                       PFILETIME) -> LSTATUS {
                   *length = static_cast<DWORD>(name(index).copy(buffer, *length));
                   return ERROR_SUCCESS;
               });
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [](HKEY, LPCWSTR, DWORD, REGSAM, PHKEY) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    const auto shortestOf = [=](auto&& work) {
        auto best = std::chrono::steady_clock::duration::max();
        for (int round = 0; round < 3; ++round) {
            const auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(work().size(), kKeyCount);
            best = std::min(best, std::chrono::steady_clock::now() - start);
        }
        return best;
    };
    const auto filled = shortestOf([&name] {
        std::vector<std::wstring> paths;
        for (DWORD index = 0; index < kKeyCount; ++index) {
            paths.push_back(Under(name(index)));
        }
        return paths;
    });
    const auto walked = shortestOf([this] { return KeyPaths(); });
    EXPECT_LT(walked, filled * 20);
}

TEST_F(RegistryWalk, NothingLeaksInTwoHundredWalks) {
    scratch.Add(L"A\\B\\C");
    scratch.SetNumber(L"A", L"Value", 1);
    const unsigned long before = OpenHandleCount();
    for (int round = 0; round < 200; ++round) {
        EXPECT_EQ(KeyPaths().size(), 4U);
        std::vector<std::wstring> paths;
        ListKeyPaths(HKEY_LOCAL_MACHINE, nullptr, kScratch, paths);
    }
    EXPECT_EQ(OpenHandleCount(), before);
}

// DeleteKeyTree

constexpr wchar_t kTree[] = L"SOFTWARE\\CorviTests\\Tree";

class KeyTree : public testing::Test {
protected:
    /// Calls DeleteKeyTree with a buffer that is followed by a guard, and looks after both.
    static bool Delete(const std::wstring& path) {
        struct {
            wchar_t path[kKeyTreePathCapacity];
            wchar_t guard[16];
        } buffer = {};
        std::fill(std::begin(buffer.guard), std::end(buffer.guard), L'G');
        path.copy(buffer.path, kKeyTreePathCapacity - 1);
        const bool deleted = DeleteKeyTree(buffer.path);
        EXPECT_EQ(std::wstring(buffer.path), path);
        EXPECT_EQ(std::wstring(buffer.guard, 16), std::wstring(16, L'G'));
        return deleted;
    }

    /// Notes the key paths that were really deleted, in their order.
    void RecordDeletions() {
        CORVI_HOOK(
            hooks, RegDeleteKeyExW, [this](HKEY root, LPCWSTR path, REGSAM view, DWORD reserved) -> LSTATUS {
                EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
                EXPECT_EQ(view, 0x200U);
                EXPECT_EQ(reserved, 0U);
                const LSTATUS status = CORVI_ORIGINAL(hooks, RegDeleteKeyExW)(root, path, view, reserved);
                if (status == ERROR_SUCCESS) {
                    deletions.emplace_back(path);
                }
                return status;
            });
    }

    ScratchKey tree{kTree, KEY_WOW64_32KEY};
    ImportHooks hooks{GetModuleHandleW(nullptr)};
    std::vector<std::wstring> deletions;
};

TEST_F(KeyTree, AKeyThatDoesNotExistIsASuccess) {
    EXPECT_TRUE(Delete(L"SOFTWARE\\CorviTests\\None"));
    EXPECT_TRUE(Delete(L"SOFTWARE\\CorviTests\\None\\Below\\"));
}

TEST_F(KeyTree, AKeyWithoutSubkeysIsDeletedAtOnceWithItsValues) {
    tree.SetNumber(L"", L"Value", 1);
    RecordDeletions();
    EXPECT_TRUE(Delete(kTree));
    EXPECT_THAT(deletions, ElementsAre(kTree));
    EXPECT_FALSE(tree.Exists());
}

TEST_F(KeyTree, ATreeOfThreeLevelsGoesDeepestFirst) {
    tree.Add(L"A\\B\\C");
    tree.SetNumber(L"A\\B", L"Value", 1);
    RecordDeletions();
    EXPECT_TRUE(Delete(kTree));
    EXPECT_THAT(deletions, ElementsAre(kTree + L"\\A\\B\\C"s, kTree + L"\\A\\B"s, kTree + L"\\A"s, kTree));
}

TEST_F(KeyTree, AKeyIsClosedBeforeItIsDeleted) {
    tree.Add(L"A");
    std::vector<std::wstring> steps;
    CORVI_HOOK(hooks, RegCloseKey, [&](HKEY key) -> LSTATUS {
        steps.emplace_back(L"close");
        return CORVI_ORIGINAL(hooks, RegCloseKey)(key);
    });
    CORVI_HOOK(hooks, RegDeleteKeyExW, [&](HKEY root, LPCWSTR path, REGSAM view, DWORD reserved) -> LSTATUS {
        steps.emplace_back(path);
        return CORVI_ORIGINAL(hooks, RegDeleteKeyExW)(root, path, view, reserved);
    });
    EXPECT_TRUE(Delete(kTree));
    EXPECT_THAT(steps, ElementsAre(kTree, kTree + L"\\A"s, L"close", kTree));
}

TEST_F(KeyTree, ManySubkeysGoInTheOrderOfTheirFirstIndex) {
    for (const wchar_t* name : {L"A", L"B\\X", L"C"}) {
        tree.Add(name);
    }
    RecordDeletions();
    EXPECT_TRUE(Delete(kTree));
    EXPECT_THAT(deletions,
                ElementsAre(kTree + L"\\A"s, kTree + L"\\B\\X"s, kTree + L"\\B"s, kTree + L"\\C"s, kTree));
}

TEST_F(KeyTree, ATrailingBackslashIsTaken) {
    tree.Add(L"A\\B");
    EXPECT_TRUE(Delete(kTree + L"\\"s));
    EXPECT_FALSE(tree.Exists());
}

TEST_F(KeyTree, OnlyThe32BitViewIsTouched) {
    const ScratchKey native(kTree);
    native.Add(L"A");
    tree.Add(L"A");
    EXPECT_TRUE(Delete(kTree));
    EXPECT_FALSE(tree.Exists());
    EXPECT_TRUE(native.Exists(L"A"));
}

TEST_F(KeyTree, ARefusedFirstOpenEndsInFailureEvenWhenTheSecondSucceeds) {
    tree.Add(L"A");
    std::vector<REGSAM> masks;
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD option, REGSAM access, PHKEY key) -> LSTATUS {
                   masks.push_back(access);
                   return masks.size() == 1
                              ? ERROR_ACCESS_DENIED
                              : CORVI_ORIGINAL(hooks, RegOpenKeyExW)(root, path, option, access, key);
               });
    EXPECT_FALSE(Delete(kTree));
    EXPECT_THAT(masks, ElementsAre(0xF023FU, 0xF023FU));
    hooks.RestoreAll();
    EXPECT_TRUE(tree.Exists(L"A"));
}

TEST_F(KeyTree, ARefusedFirstOpenIsASuccessWhenTheSecondFindsNothing) {
    tree.Add(L"A");
    int opens = 0;
    CORVI_HOOK(hooks, RegOpenKeyExW, [&](HKEY, LPCWSTR, DWORD, REGSAM, PHKEY) -> LSTATUS {
        return ++opens == 1 ? ERROR_ACCESS_DENIED : ERROR_FILE_NOT_FOUND;
    });
    EXPECT_TRUE(Delete(kTree));
    EXPECT_EQ(opens, 2);
}

TEST_F(KeyTree, AnOpenRefusedTwiceOrFailedOtherwiseIsAFailure) {
    tree.Add(L"A");
    int opens = 0;
    LSTATUS result = ERROR_ACCESS_DENIED;
    CORVI_HOOK(hooks, RegOpenKeyExW, [&](HKEY, LPCWSTR, DWORD, REGSAM, PHKEY) -> LSTATUS {
        ++opens;
        return result;
    });
    EXPECT_FALSE(Delete(kTree));
    EXPECT_EQ(opens, 2);
    result = ERROR_INVALID_HANDLE;
    EXPECT_FALSE(Delete(kTree));
    EXPECT_EQ(opens, 3);
}

TEST_F(KeyTree, ASubkeyThatResistsKeepsTheRest) {
    for (const wchar_t* name : {L"A", L"B", L"C"}) {
        tree.Add(name);
    }
    CORVI_HOOK(hooks, RegDeleteKeyExW, [&](HKEY root, LPCWSTR path, REGSAM view, DWORD reserved) -> LSTATUS {
        return path == kTree + L"\\B"s ? ERROR_ACCESS_DENIED
                                       : CORVI_ORIGINAL(hooks, RegDeleteKeyExW)(root, path, view, reserved);
    });
    EXPECT_FALSE(Delete(kTree));
    hooks.RestoreAll();
    EXPECT_FALSE(tree.Exists(L"A"));
    EXPECT_TRUE(tree.Exists(L"B"));
    EXPECT_TRUE(tree.Exists(L"C"));
}

TEST_F(KeyTree, APathThatOutgrowsTheBufferStopsWithoutOverrun) {
    const std::wstring name(200, L'n');
    tree.Add(name + L'\\' + name + L'\\' + name);
    EXPECT_FALSE(Delete(kTree));
    EXPECT_TRUE(tree.Exists(name + L'\\' + name + L'\\' + name));
}

TEST_F(KeyTree, APathOf519CharactersGoesOneOf520Stays) {
    const std::wstring above = std::wstring(200, L'a') + L'\\' + std::wstring(200, L'b') + L'\\';
    const std::wstring last(kKeyTreePathCapacity - 1 - (kTree + L"\\"s + above).size(), L'c');
    tree.Add(above + last);
    EXPECT_TRUE(Delete(kTree));
    EXPECT_FALSE(tree.Exists());
    tree.Add(above + last + L"c");
    EXPECT_FALSE(Delete(kTree));
    EXPECT_TRUE(tree.Exists(above + last + L"c"));
}

TEST_F(KeyTree, ABufferThatIsFullToTheLastCharacterIsNotOverrun) {
    std::wstring path = kTree;
    path += L'\\' + std::wstring(200, L'a') + L'\\' + std::wstring(100, L'a');
    path += L'\\' + std::wstring(kKeyTreePathCapacity - 2 - path.size(), L'b');
    ASSERT_EQ(path.size(), kKeyTreePathCapacity - 1);
    tree.Add(path.substr(wcslen(kTree) + 1) + L"\\X");
    EXPECT_FALSE(Delete(path));
}

TEST_F(KeyTree, AnEmptyPathDeletesNothing) { EXPECT_FALSE(Delete(L"")); }

TEST_F(KeyTree, ANameThatHoldsATerminatorStopsTheDeletionWithoutAHang) {
    const RegKey key = RegKey::Open(HKEY_LOCAL_MACHINE, kTree, KEY_ALL_ACCESS | KEY_WOW64_32KEY);
    const NativeNames names;
    names.AddSubkey(key.Get(), L"A\0x"s);
    EXPECT_FALSE(Delete(kTree));
    names.DeleteSubkey(key.Get(), L"A\0x"s);
}

TEST_F(KeyTree, ASubkeyThatStaysAfterItsDeletionIsNotDeletedForEver) {
    tree.Add(L"A");
    CORVI_HOOK(hooks, RegDeleteKeyExW, [](HKEY, LPCWSTR path, REGSAM, DWORD) -> LSTATUS {
        return path == kTree + L"\\A"s ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
    });
    EXPECT_FALSE(Delete(kTree));
}

TEST_F(KeyTree, NothingLeaksInTwoHundredDeletions) {
    const unsigned long before = OpenHandleCount();
    for (int round = 0; round < 200; ++round) {
        tree.Add(L"A\\B");
        EXPECT_TRUE(Delete(kTree));
        EXPECT_TRUE(Delete(kTree));
        tree.Add(L"A");
        CORVI_HOOK(hooks, RegOpenKeyExW,
                   [&, opens = 0](HKEY root, LPCWSTR path, DWORD option, REGSAM access,
                                  PHKEY key) mutable -> LSTATUS {
                       return opens++ == 0
                                  ? ERROR_ACCESS_DENIED
                                  : CORVI_ORIGINAL(hooks, RegOpenKeyExW)(root, path, option, access, key);
                   });
        EXPECT_FALSE(Delete(kTree));
        hooks.RestoreAll();
    }
    EXPECT_EQ(OpenHandleCount(), before);
}

}  // namespace
}  // namespace corvi::test
