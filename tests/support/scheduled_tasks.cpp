#include "tests/support/scheduled_tasks.h"

#include <windows.h>

#include <taskschd.h>
#include <wrl/client.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>

namespace corvi::test {
namespace {

using Microsoft::WRL::ComPtr;

void Check(HRESULT result, const char* step) {
    if (FAILED(result)) {
        char text[80] = {};
        snprintf(text, sizeof(text), "%s: 0x%lx", step, static_cast<unsigned long>(result));
        throw std::runtime_error(text);
    }
}

/// COM for one call: a thread that is in an apartment already stays there.
class Apartment {
public:
    Apartment() : result_(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {}
    ~Apartment() {
        if (SUCCEEDED(result_)) {
            CoUninitialize();
        }
    }
    Apartment(const Apartment&) = delete;
    Apartment& operator=(const Apartment&) = delete;

private:
    HRESULT result_;
};

class Text {
public:
    explicit Text(const std::wstring& text) : text_(SysAllocString(text.c_str())) {}
    ~Text() { SysFreeString(text_); }
    Text(const Text&) = delete;
    Text& operator=(const Text&) = delete;

    BSTR Get() const { return text_; }

private:
    BSTR text_;
};

/// The scheduler's root folder, and the apartment that it lives in.
class RootFolder {
public:
    RootFolder() {
        Check(CoCreateInstance(__uuidof(TaskScheduler), nullptr, CLSCTX_INPROC_SERVER,
                               IID_PPV_ARGS(service_.GetAddressOf())),
              "cannot make the scheduler's object");
        Check(service_->Connect({}, {}, {}, {}), "cannot connect to the scheduler");
        Check(service_->GetFolder(Text(L"\\").Get(), folder_.GetAddressOf()), "no root folder of tasks");
    }

    ITaskFolder* operator->() const { return folder_.Get(); }

private:
    Apartment apartment_;  // left last
    ComPtr<ITaskService> service_;
    ComPtr<ITaskFolder> folder_;
};

bool IsNotFound(HRESULT result) {
    return result == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) ||
           result == HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND);
}

}  // namespace

bool TaskExists(const std::wstring& name) {
    const RootFolder root;
    ComPtr<IRegisteredTask> task;
    const HRESULT result = root->GetTask(Text(name).Get(), task.GetAddressOf());
    if (IsNotFound(result)) {
        return false;
    }
    Check(result, "cannot ask for a task");
    return true;
}

void PutTask(const std::wstring& name, const std::wstring& definition) {
    const RootFolder root;
    ComPtr<IRegisteredTask> task;
    Check(root->RegisterTask(Text(name).Get(), Text(definition).Get(), TASK_CREATE_OR_UPDATE, {}, {},
                             TASK_LOGON_INTERACTIVE_TOKEN, {}, task.GetAddressOf()),
          "cannot put a task");
}

void RemoveTask(const std::wstring& name) {
    const RootFolder root;
    const HRESULT result = root->DeleteTask(Text(name).Get(), 0);
    if (!IsNotFound(result)) {
        Check(result, "cannot remove a task");
    }
}

void RemoveTaskAtEnd(const std::wstring& name) noexcept {
    try {
        RemoveTask(name);
    } catch (const std::exception& failure) {
        ADD_FAILURE() << failure.what();
    }
}

}  // namespace corvi::test
