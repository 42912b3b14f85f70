#include "tool/plan_tasks.h"

#include <oleauto.h>
#include <taskschd.h>
#include <wrl/client.h>
#include <xmllite.h>

#include <shlwapi.h>
#include <atomic>
#include <string>

#include "tool/plan_machine.h"

namespace corvi::tool::plan {
namespace {

using Microsoft::WRL::ComPtr;

/// What the scheduler answers to a definition that is no XML.
constexpr HRESULT kMalformed = static_cast<HRESULT>(0x8004131A);
constexpr HRESULT kNotFound = static_cast<HRESULT>(0x80070002);

std::wstring TextOf(BSTR text) {
    return text != nullptr ? std::wstring(text, SysStringLen(text)) : std::wstring();
}

/// The parts of a task's definition that tell what it does.
struct Definition {
    bool isXml = false;
    std::wstring command;
    std::wstring arguments;
    std::wstring trigger;
};

ComPtr<IXmlReader> ReaderOf(const std::wstring& xml) {
    ComPtr<IXmlReader> reader;
    ComPtr<IStream> stream;
    stream.Attach(SHCreateMemStream(reinterpret_cast<const BYTE*>(xml.data()),
                                    static_cast<UINT>(xml.size() * sizeof(wchar_t))));
    ComPtr<IXmlReaderInput> input;
    if (!stream ||
        FAILED(CreateXmlReader(__uuidof(IXmlReader),
                               reinterpret_cast<void**>(reader.ReleaseAndGetAddressOf()), nullptr)) ||
        FAILED(CreateXmlReaderInputWithEncodingName(stream.Get(), nullptr, L"utf-16", FALSE, nullptr,
                                                    input.ReleaseAndGetAddressOf())) ||
        FAILED(reader->SetInput(input.Get()))) {
        return nullptr;
    }
    return reader;
}

void TakeText(Definition& definition, const std::wstring& element, const wchar_t* text) {
    if (element == L"Command") {
        definition.command += text;
    } else if (element == L"Arguments") {
        definition.arguments += text;
    }
}

void TakeElement(Definition& definition, const std::wstring& element) {
    static const std::wstring kTrigger = L"Trigger";
    if (definition.trigger.empty() && element.size() > kTrigger.size() &&
        element.compare(element.size() - kTrigger.size(), kTrigger.size(), kTrigger) == 0) {
        definition.trigger = element.substr(0, element.size() - kTrigger.size());
    }
}

Definition Understand(const std::wstring& xml) {
    Definition definition;
    const ComPtr<IXmlReader> reader = ReaderOf(xml);
    if (!reader) {
        return definition;
    }
    std::wstring element;
    XmlNodeType type = XmlNodeType_None;
    HRESULT read = S_OK;
    while ((read = reader->Read(&type)) == S_OK) {
        const wchar_t* text = nullptr;
        if (type == XmlNodeType_Element && SUCCEEDED(reader->GetLocalName(&text, nullptr))) {
            element = text;
            TakeElement(definition, element);
        } else if (type == XmlNodeType_EndElement) {
            element.clear();
        } else if (type == XmlNodeType_Text && SUCCEEDED(reader->GetValue(&text, nullptr))) {
            TakeText(definition, element, text);
        }
    }
    definition.isXml = read == S_FALSE;
    return definition;
}

std::wstring InWords(const Definition& definition) {
    std::wstring words = L"runs " + definition.command;
    if (!definition.arguments.empty()) {
        words += L" " + definition.arguments;
    }
    return words + (definition.trigger.empty() ? L", on demand" : L", trigger " + definition.trigger);
}

/// What the scheduler's objects have in common: a reference count, one interface and no scripting.
template <typename Interface>
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): only the last Release ends the object
class StandIn : public Interface {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override {
        if (id != __uuidof(IUnknown) && id != __uuidof(IDispatch) && id != __uuidof(Interface)) {
            *object = nullptr;
            return E_NOINTERFACE;
        }
        *object = static_cast<Interface*>(this);
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++references_; }
    ULONG STDMETHODCALLTYPE Release() override {
        const ULONG left = --references_;
        if (left == 0) {
            delete this;
        }
        return left;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                                     UINT*) override {
        return E_NOTIMPL;
    }

protected:
    virtual ~StandIn() = default;

private:
    std::atomic<ULONG> references_{1};
};

class TaskStandIn final : public StandIn<IRegisteredTask> {
public:
    HRESULT STDMETHODCALLTYPE get_Name(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_Path(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_State(TASK_STATE*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_Enabled(VARIANT_BOOL*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE put_Enabled(VARIANT_BOOL) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Run(VARIANT, IRunningTask**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE RunEx(VARIANT, LONG, LONG, BSTR, IRunningTask**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetInstances(LONG, IRunningTaskCollection**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_LastRunTime(DATE*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_LastTaskResult(LONG*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_NumberOfMissedRuns(LONG*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_NextRunTime(DATE*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_Definition(ITaskDefinition**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_Xml(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetSecurityDescriptor(LONG, BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetSecurityDescriptor(BSTR, LONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Stop(LONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetRunTimes(const LPSYSTEMTIME, const LPSYSTEMTIME, DWORD*,
                                          LPSYSTEMTIME*) override {
        return E_NOTIMPL;
    }
};

class FolderStandIn final : public StandIn<ITaskFolder> {
public:
    HRESULT STDMETHODCALLTYPE get_Name(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_Path(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetFolder(BSTR, ITaskFolder**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetFolders(LONG, ITaskFolderCollection**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CreateFolder(BSTR, VARIANT, ITaskFolder**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE DeleteFolder(BSTR, LONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetTask(BSTR, IRegisteredTask**) override { return kNotFound; }
    HRESULT STDMETHODCALLTYPE GetTasks(LONG, IRegisteredTaskCollection**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE DeleteTask(BSTR, LONG) override { return kNotFound; }
    HRESULT STDMETHODCALLTYPE RegisterTask(BSTR name, BSTR xml, LONG, VARIANT user, VARIANT, TASK_LOGON_TYPE,
                                           VARIANT, IRegisteredTask** task) override {
        const std::wstring path = TextOf(name);
        if (path.empty()) {
            return E_ACCESSDENIED;
        }
        if (path.find_first_of(L"?*<>|\"") != std::wstring::npos) {
            return HRESULT_FROM_WIN32(ERROR_INVALID_NAME);
        }
        const Definition definition = Understand(TextOf(xml));
        if (!definition.isXml) {
            return kMalformed;
        }
        Change change{Deed::RegisterTask, path, InWords(definition)};
        change.note = user.vt == VT_BSTR ? TextOf(user.bstrVal) : L"";
        Journal().Add(std::move(change));
        if (task != nullptr) {
            *task = new TaskStandIn;
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE RegisterTaskDefinition(BSTR, ITaskDefinition*, LONG, VARIANT, VARIANT,
                                                     TASK_LOGON_TYPE, VARIANT, IRegisteredTask**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetSecurityDescriptor(LONG, BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetSecurityDescriptor(BSTR, LONG) override { return E_NOTIMPL; }
};

class SchedulerStandIn final : public StandIn<ITaskService> {
public:
    HRESULT STDMETHODCALLTYPE GetFolder(BSTR, ITaskFolder** folder) override {
        if (!connected_) {
            return HRESULT_FROM_WIN32(ERROR_ONLY_IF_CONNECTED);
        }
        *folder = new FolderStandIn;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetRunningTasks(LONG, IRunningTaskCollection**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE NewTask(DWORD, ITaskDefinition**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Connect(VARIANT, VARIANT, VARIANT, VARIANT) override {
        connected_ = true;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_Connected(VARIANT_BOOL* connected) override {
        *connected = connected_ ? VARIANT_TRUE : VARIANT_FALSE;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_TargetServer(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_ConnectedUser(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_ConnectedDomain(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_HighestVersion(DWORD*) override { return E_NOTIMPL; }

private:
    bool connected_ = false;
};

}  // namespace

HRESULT WINAPI CreateComObject(REFCLSID classId, LPUNKNOWN /*outer*/, DWORD /*context*/, REFIID interfaceId,
                               LPVOID* object) {
    if (classId != __uuidof(TaskScheduler)) {
        EndPlan(End::NotTrusted, 0, L"it creates a COM object other than the task scheduler");
    }
    ComPtr<ITaskService> scheduler;
    scheduler.Attach(new SchedulerStandIn);
    return scheduler->QueryInterface(interfaceId, object);
}

}  // namespace corvi::tool::plan
