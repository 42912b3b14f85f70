#include "tests/tasks/scripted_scheduler.h"

namespace corvi::test {
namespace {

std::wstring TextOf(BSTR text) {
    return text != nullptr ? std::wstring(text, SysStringLen(text)) : L"(null)";
}

// What every scripted object is: it counts its references and notes its end.
template <typename Interface>
class ScriptedObject : public Interface {
public:
    ScriptedObject(ScriptedScheduler& scheduler, const char* name) : scheduler_(scheduler), name_(name) {
        ++scheduler_.references;
    }
    virtual ~ScriptedObject() = default;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** object) override {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override {
        ++scheduler_.references;
        return ++count_;
    }
    ULONG STDMETHODCALLTYPE Release() override {
        --scheduler_.references;
        const ULONG left = --count_;
        if (left == 0) {
            scheduler_.calls.push_back(std::string("release ") + name_);
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
    ScriptedScheduler& scheduler_;

private:
    const char* name_;
    ULONG count_ = 1;
};

class ScriptedTask final : public ScriptedObject<IRegisteredTask> {
public:
    explicit ScriptedTask(ScriptedScheduler& scheduler) : ScriptedObject(scheduler, "task") {}
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

class ScriptedFolder final : public ScriptedObject<ITaskFolder> {
public:
    explicit ScriptedFolder(ScriptedScheduler& scheduler) : ScriptedObject(scheduler, "folder") {}
    HRESULT STDMETHODCALLTYPE RegisterTask(BSTR path, BSTR xml, LONG flags, VARIANT user, VARIANT password,
                                           TASK_LOGON_TYPE logonType, VARIANT descriptor,
                                           IRegisteredTask** task) override {
        scheduler_.calls.emplace_back("RegisterTask");
        scheduler_.taskPath = TextOf(path);
        scheduler_.xml = TextOf(xml);
        scheduler_.flags = flags;
        scheduler_.userType = user.vt;
        scheduler_.user = user.vt == VT_BSTR ? TextOf(user.bstrVal) : L"";
        scheduler_.passwordType = password.vt;
        scheduler_.logonType = logonType;
        scheduler_.descriptorType = descriptor.vt;
        scheduler_.descriptor = descriptor.vt == VT_BSTR ? TextOf(descriptor.bstrVal) : L"";
        const HRESULT result = scheduler_.ResultOf(SchedulerStep::Register);
        *task = SUCCEEDED(result) ? new ScriptedTask(scheduler_) : nullptr;
        return result;
    }
    HRESULT STDMETHODCALLTYPE get_Name(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_Path(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetFolder(BSTR, ITaskFolder**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetFolders(LONG, ITaskFolderCollection**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CreateFolder(BSTR, VARIANT, ITaskFolder**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE DeleteFolder(BSTR, LONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetTask(BSTR, IRegisteredTask**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetTasks(LONG, IRegisteredTaskCollection**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE DeleteTask(BSTR, LONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE RegisterTaskDefinition(BSTR, ITaskDefinition*, LONG, VARIANT, VARIANT,
                                                     TASK_LOGON_TYPE, VARIANT, IRegisteredTask**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetSecurityDescriptor(LONG, BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetSecurityDescriptor(BSTR, LONG) override { return E_NOTIMPL; }
};

class ScriptedService final : public ScriptedObject<ITaskService> {
public:
    explicit ScriptedService(ScriptedScheduler& scheduler) : ScriptedObject(scheduler, "service") {}
    HRESULT STDMETHODCALLTYPE GetFolder(BSTR path, ITaskFolder** folder) override {
        scheduler_.calls.emplace_back("GetFolder");
        scheduler_.folderPath = TextOf(path);
        const HRESULT result = scheduler_.ResultOf(SchedulerStep::GetFolder);
        *folder = SUCCEEDED(result) ? new ScriptedFolder(scheduler_) : nullptr;
        return result;
    }
    HRESULT STDMETHODCALLTYPE Connect(VARIANT server, VARIANT user, VARIANT domain,
                                      VARIANT password) override {
        scheduler_.calls.emplace_back("Connect");
        scheduler_.connectTypes = {server.vt, user.vt, domain.vt, password.vt};
        return scheduler_.ResultOf(SchedulerStep::Connect);
    }
    HRESULT STDMETHODCALLTYPE GetRunningTasks(LONG, IRunningTaskCollection**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE NewTask(DWORD, ITaskDefinition**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_Connected(VARIANT_BOOL*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_TargetServer(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_ConnectedUser(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_ConnectedDomain(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_HighestVersion(DWORD*) override { return E_NOTIMPL; }
};

}  // namespace

ScriptedScheduler::ScriptedScheduler(HMODULE module) : hooks_(module) {
    CORVI_HOOK(hooks_, CoInitializeEx, [this](LPVOID reserved, DWORD model) -> HRESULT {
        calls.push_back("CoInitializeEx " + std::to_string(model) + (reserved != nullptr ? " reserved" : ""));
        return ResultOf(SchedulerStep::Initialize);
    });
    CORVI_HOOK(hooks_, CoUninitialize, [this] { calls.emplace_back("CoUninitialize"); });
    CORVI_HOOK(
        hooks_, CoCreateInstance,
        [this](REFCLSID classId, LPUNKNOWN outer, DWORD context, REFIID id, LPVOID* object) -> HRESULT {
            const bool asExpected = classId == __uuidof(TaskScheduler) && outer == nullptr &&
                                    context == CLSCTX_INPROC_SERVER && id == __uuidof(ITaskService);
            calls.emplace_back(asExpected ? "CoCreateInstance" : "CoCreateInstance of something else");
            const HRESULT result = ResultOf(SchedulerStep::Create);
            *object = SUCCEEDED(result) ? new ScriptedService(*this) : nullptr;
            return result;
        });
}

void ScriptedScheduler::Answer(SchedulerStep step, HRESULT result) {
    step_ = step;
    result_ = result;
}

}  // namespace corvi::test
