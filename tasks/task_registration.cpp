#include "tasks/task_registration.h"

#include <windows.h>

#include <oleauto.h>
#include <taskschd.h>
#include <wrl/client.h>

#include <new>

#include "runtime/action_policy.h"
#include "runtime/installer_log.h"
#include "runtime/session.h"
#include "runtime/unique_handle.h"
#include "tasks/task_templates.h"

namespace corvi {
namespace {

using Microsoft::WRL::ComPtr;

constexpr unsigned kRegistered = 0;
constexpr unsigned kNotRegistered = 1;

constexpr wchar_t kRootFolder[] = L"\\";

struct BstrTraits {
    using Handle = BSTR;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle text) noexcept { SysFreeString(text); }
};
using Bstr = UniqueHandle<BstrTraits>;

Bstr MakeBstr(const std::wstring& text) {
    Bstr copy(SysAllocStringLen(text.data(), static_cast<UINT>(text.size())));
    if (!copy) {
        throw std::bad_alloc();
    }
    return copy;
}

// A VARIANT that borrows the text.
VARIANT TextVariant(const Bstr& text) {
    VARIANT variant = {};
    variant.vt = VT_BSTR;
    variant.bstrVal = text.Get();
    return variant;
}

VARIANT EmptyVariant() {
    VARIANT variant = {};
    variant.vt = VT_EMPTY;
    return variant;
}

// Enters the multithreaded apartment and leaves it again, if it was this object that entered.
class ComApartment {
public:
    ComApartment() noexcept : status_(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {}
    ~ComApartment() {
        if (SUCCEEDED(status_)) {
            CoUninitialize();
        }
    }
    ComApartment(const ComApartment&) = delete;
    ComApartment& operator=(const ComApartment&) = delete;

    HRESULT Status() const noexcept { return status_; }

    // A thread that is already in another kind of apartment can use that one.
    bool IsUsable() const noexcept { return SUCCEEDED(status_) || status_ == RPC_E_CHANGED_MODE; }

private:
    HRESULT status_;
};

// Logs the failed step; format takes the HRESULT as "0x%x".
unsigned Failure(const wchar_t* format, HRESULT result) {
    WriteInstallerLog(taskRegistrationSession, format, result);
    return kNotRegistered;
}

HRESULT SaveTask(ITaskFolder& folder, const std::wstring& taskName, const std::wstring& xml,
                 const std::wstring& userName, ComPtr<IRegisteredTask>& task) {
    const Bstr path = MakeBstr(taskName);
    const Bstr text = MakeBstr(xml);
    const Bstr user = MakeBstr(userName);
    const Bstr noDescriptor = MakeBstr(std::wstring());
    return folder.RegisterTask(path.Get(), text.Get(), TASK_CREATE_OR_UPDATE, TextVariant(user),
                               EmptyVariant(), TASK_LOGON_INTERACTIVE_TOKEN, TextVariant(noDescriptor),
                               task.ReleaseAndGetAddressOf());
}

unsigned RegisterInRootFolder(const std::wstring& taskName, const std::wstring& xml,
                              const std::wstring& userName) {
    ComPtr<ITaskService> service;
    HRESULT result =
        CoCreateInstance(__uuidof(TaskScheduler), nullptr, CLSCTX_INPROC_SERVER, __uuidof(ITaskService),
                         reinterpret_cast<void**>(service.ReleaseAndGetAddressOf()));
    if (FAILED(result)) {
        return Failure(L"Failed to create an instance of ITaskService: 0x%x", result);
    }
    result = service->Connect(EmptyVariant(), EmptyVariant(), EmptyVariant(), EmptyVariant());
    if (FAILED(result)) {
        return Failure(L"ITaskService::Connect failed: 0x%x", result);
    }
    ComPtr<ITaskFolder> folder;
    result = service->GetFolder(MakeBstr(kRootFolder).Get(), folder.ReleaseAndGetAddressOf());
    if (FAILED(result)) {
        return Failure(L"Cannot get Root Folder pointer: 0x%x", result);
    }
    // Released, like the others, when the outcome has been logged.
    ComPtr<IRegisteredTask> task;
    result = SaveTask(*folder.Get(), taskName, xml, userName, task);
    if (FAILED(result)) {
        return Failure(L"Error saving the Task : 0x%x", result);
    }
    WriteInstallerLog(taskRegistrationSession, L"Successfully added %s Scheduled Event", taskName.c_str());
    return kRegistered;
}

}  // namespace

unsigned RegisterTaskDefinition(const std::wstring& taskName, const std::wstring& xml,
                                const std::wstring& userName) {
    return BestEffort(
        [&] {
            const ComApartment apartment;
            if (FAILED(apartment.Status())) {
                Failure(L"Failed to call CoInitializeEx 0x%x", apartment.Status());
            }
            return apartment.IsUsable() ? RegisterInRootFolder(taskName, xml, userName) : kNotRegistered;
        },
        kNotRegistered);
}

unsigned BuildDataUploaderLogonTask(const std::wstring& taskName, const std::wstring& command,
                                    const std::wstring& userName) {
    return RegisterTaskDefinition(taskName, DataUploaderLogonTaskXml(taskName, command), userName);
}

}  // namespace corvi
