#include "msiregistry/client_register.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "tests/msiregistry/registry_tools.h"
#include "tests/support/import_hooks.h"

namespace corvi::test {
namespace {

constexpr wchar_t kRegister[] = L"SOFTWARE\\TUEP";
constexpr wchar_t kDriverService[] = L"System\\CurrentControlSet\\Services\\tavofendr";
constexpr wchar_t kDriverState[] = L"System\\CurrentControlSet\\Services\\tavofendr\\State\\TUEP";

class ClientRegister : public testing::Test {
protected:
    ClientRegister() : hooks_(GetModuleHandleW(nullptr)) { Clean(); }
    void TearDown() override {
        hooks_.RestoreAll();
        Clean();
    }

    static void Clean() {
        DropKey(HKEY_LOCAL_MACHINE, kRegister);
        DropKey(HKEY_LOCAL_MACHINE, kDriverService);
    }

    static std::optional<DWORD> Registered(const wchar_t* name) {
        return ReadNumber(HKEY_LOCAL_MACHINE, kRegister, name);
    }
    static std::optional<DWORD> DriverCopy() {
        return ReadNumber(HKEY_LOCAL_MACHINE, kDriverState, L"LSX_TUEPStatus");
    }

    void FailOpens(LSTATUS status) {
        CORVI_HOOK(hooks_, RegOpenKeyExW,
                   [=](HKEY, LPCWSTR, DWORD, REGSAM, PHKEY) -> LSTATUS { return status; });
    }
    void FailCreations(LSTATUS status) {
        CORVI_HOOK(hooks_, RegCreateKeyExW,
                   [=](HKEY, LPCWSTR, DWORD, LPWSTR, DWORD, REGSAM, const LPSECURITY_ATTRIBUTES, PHKEY,
                       LPDWORD) -> LSTATUS { return status; });
    }
    void FailWrites(LSTATUS status) {
        CORVI_HOOK(hooks_, RegSetValueExW,
                   [=](HKEY, LPCWSTR, DWORD, DWORD, const BYTE*, DWORD) -> LSTATUS { return status; });
    }

    ImportHooks hooks_;
};

TEST_F(ClientRegister, AStatusIsWrittenIntoANewRegister) {
    EXPECT_TRUE(SetClientStatus(L"HX_TUEPStatus", 1));
    EXPECT_EQ(Registered(L"HX_TUEPStatus"), 1U);
}

TEST_F(ClientRegister, AStatusReplacesTheOneBeforeAndLeavesTheOthers) {
    WriteNumber(HKEY_LOCAL_MACHINE, kRegister, L"HX_TUEPStatus", 1);
    WriteNumber(HKEY_LOCAL_MACHINE, kRegister, L"LSX_TUEPStatus", 1);
    EXPECT_TRUE(SetClientStatus(L"HX_TUEPStatus", 2));
    EXPECT_EQ(Registered(L"HX_TUEPStatus"), 2U);
    EXPECT_EQ(Registered(L"LSX_TUEPStatus"), 1U);
}

TEST_F(ClientRegister, TheRegisterIsOpenedWithAllAccessAndElseCreatedToSetValues) {
    REGSAM opened = 0;
    REGSAM created = 0;
    DWORD options = 99;
    CORVI_HOOK(hooks_, RegOpenKeyExW, [&](HKEY root, LPCWSTR path, DWORD, REGSAM access, PHKEY) -> LSTATUS {
        EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
        EXPECT_STREQ(path, kRegister);
        opened = access;
        return ERROR_ACCESS_DENIED;
    });
    CORVI_HOOK(hooks_, RegCreateKeyExW,
               [&](HKEY, LPCWSTR, DWORD, LPWSTR, DWORD givenOptions, REGSAM access,
                   const LPSECURITY_ATTRIBUTES, PHKEY, LPDWORD) -> LSTATUS {
                   created = access;
                   options = givenOptions;
                   return ERROR_ACCESS_DENIED;
               });
    EXPECT_FALSE(SetClientStatus(L"HX_TUEPStatus", 1));
    EXPECT_EQ(opened, REGSAM{KEY_ALL_ACCESS});
    EXPECT_EQ(created, REGSAM{KEY_SET_VALUE});
    EXPECT_EQ(options, DWORD{REG_OPTION_NON_VOLATILE});
}

TEST_F(ClientRegister, ARegisterThatCannotBeOpenedIsCreated) {
    WriteNumber(HKEY_LOCAL_MACHINE, kRegister, L"LSX_TUEPStatus", 1);
    FailOpens(ERROR_ACCESS_DENIED);
    EXPECT_TRUE(SetClientStatus(L"HX_TUEPStatus", 1));
    hooks_.RestoreAll();
    EXPECT_EQ(Registered(L"HX_TUEPStatus"), 1U);
}

TEST_F(ClientRegister, ARefusedWriteStillCountsAsWritten) {
    FailWrites(ERROR_ACCESS_DENIED);
    EXPECT_TRUE(SetClientStatus(L"HX_TUEPStatus", 1));
    hooks_.RestoreAll();
    EXPECT_EQ(Registered(L"HX_TUEPStatus"), std::nullopt);
}

TEST_F(ClientRegister, WithoutTheDriverServiceNothingIsCreated) {
    EXPECT_FALSE(SetDriverTuepStatus(1));
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kDriverService));
}

TEST_F(ClientRegister, TheDriverCopyIsWrittenBelowTheService) {
    MakeKey(HKEY_LOCAL_MACHINE, kDriverService);
    EXPECT_TRUE(SetDriverTuepStatus(1));
    EXPECT_EQ(DriverCopy(), 1U);
    EXPECT_TRUE(SetDriverTuepStatus(2));
    EXPECT_EQ(DriverCopy(), 2U);
}

TEST_F(ClientRegister, TheDriversServiceAndItsSubkeyAreOpenedWithAllAccess) {
    MakeKey(HKEY_LOCAL_MACHINE, kDriverService);
    REGSAM service = 0;
    REGSAM state = 0;
    std::wstring subkey;
    CORVI_HOOK(hooks_, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   service = access;
                   return CORVI_ORIGINAL(hooks_, RegOpenKeyExW)(root, path, options, access, key);
               });
    CORVI_HOOK(hooks_, RegCreateKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD reserved, LPWSTR type, DWORD options, REGSAM access,
                   const LPSECURITY_ATTRIBUTES security, PHKEY key, LPDWORD disposition) -> LSTATUS {
                   subkey = path;
                   state = access;
                   return CORVI_ORIGINAL(hooks_, RegCreateKeyExW)(root, path, reserved, type, options, access,
                                                                  security, key, disposition);
               });
    EXPECT_TRUE(SetDriverTuepStatus(1));
    hooks_.RestoreAll();
    EXPECT_EQ(service, REGSAM{KEY_ALL_ACCESS});
    EXPECT_EQ(state, REGSAM{KEY_ALL_ACCESS});
    EXPECT_EQ(subkey, L"State\\TUEP");
}

TEST_F(ClientRegister, TheDriverCopyFailsWithItsKeyOrItsValue) {
    MakeKey(HKEY_LOCAL_MACHINE, kDriverService);
    FailCreations(ERROR_ACCESS_DENIED);
    EXPECT_FALSE(SetDriverTuepStatus(1));
    hooks_.RestoreAll();
    FailWrites(ERROR_ACCESS_DENIED);
    EXPECT_FALSE(SetDriverTuepStatus(1));
}

TEST_F(ClientRegister, MarkingTheDriversClientWritesBothNumbers) {
    MakeKey(HKEY_LOCAL_MACHINE, kDriverService);
    EXPECT_TRUE(MarkTuepClient(L"LSX", 2));
    EXPECT_EQ(Registered(L"LSX_TUEPStatus"), 2U);
    EXPECT_EQ(DriverCopy(), 2U);
}

TEST_F(ClientRegister, MarkingSucceedsWithoutTheDriverService) {
    EXPECT_TRUE(MarkTuepClient(L"LSX", 1));
    EXPECT_EQ(Registered(L"LSX_TUEPStatus"), 1U);
}

TEST_F(ClientRegister, MarkingAnotherClientLeavesTheDriverCopyAlone) {
    MakeKey(HKEY_LOCAL_MACHINE, kDriverService);
    EXPECT_TRUE(MarkTuepClient(L"HX", 1));
    EXPECT_TRUE(MarkTuepClient(L"lsx", 1));
    EXPECT_TRUE(MarkTuepClient(L"", 1));
    EXPECT_EQ(Registered(L"HX_TUEPStatus"), 1U);
    EXPECT_EQ(Registered(L"_TUEPStatus"), 1U);
    EXPECT_EQ(DriverCopy(), std::nullopt);
}

TEST_F(ClientRegister, WithoutTheRegisterTheDriverCopyIsNotWritten) {
    MakeKey(HKEY_LOCAL_MACHINE, kDriverService);
    CORVI_HOOK(hooks_, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   return std::wstring(path) == kRegister
                              ? ERROR_ACCESS_DENIED
                              : CORVI_ORIGINAL(hooks_, RegOpenKeyExW)(root, path, options, access, key);
               });
    CORVI_HOOK(hooks_, RegCreateKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD reserved, LPWSTR type, DWORD options, REGSAM access,
                   const LPSECURITY_ATTRIBUTES security, PHKEY key, LPDWORD disposition) -> LSTATUS {
                   return std::wstring(path) == kRegister
                              ? ERROR_ACCESS_DENIED
                              : CORVI_ORIGINAL(hooks_, RegCreateKeyExW)(root, path, reserved, type, options,
                                                                        access, security, key, disposition);
               });
    EXPECT_FALSE(MarkTuepClient(L"LSX", 1));
    hooks_.RestoreAll();
    EXPECT_EQ(DriverCopy(), std::nullopt);
}

}  // namespace
}  // namespace corvi::test
