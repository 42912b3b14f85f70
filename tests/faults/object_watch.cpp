#include "tests/faults/object_watch.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "tests/faults/platform_watch.h"
#include "tests/support/import_hooks.h"

namespace corvi::test {
namespace {

// ---- One gate for each method

/// True while a method of the platform runs: what it calls is its own business.
bool insidePlatform = false;

class Inside {
public:
    Inside() { insidePlatform = true; }
    ~Inside() { insidePlatform = false; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
};

/// Where a method stands in its object's table. A pointer to a virtual method is its offset in the table
/// plus one, with every compiler that builds these tests.
template <typename Method>
size_t SlotOf(Method method) {
    size_t offset = 0;
    std::memcpy(&offset, &method, sizeof(offset));
    return (offset - 1) / sizeof(void*);
}

/// What stands in the table of an object in the place of one method.
template <FunctionName Name, auto Method>
struct Gate;

template <FunctionName Name, typename Object, typename... Arguments, HRESULT (Object::*Method)(Arguments...)>
struct Gate<Name, Method> {
    static inline HRESULT(WINAPI* platform)(Object*, Arguments...) = nullptr;
    static inline HRESULT failure = E_FAIL;
    static inline std::function<std::wstring(Arguments...)> change;
    static inline std::function<void(Arguments...)> made;

    static size_t Slot() { return SlotOf(Method); }

    static HRESULT WINAPI Entry(Object* object, Arguments... arguments) {
        PlatformWatch* const watch = PlatformWatch::current;
        if (watch == nullptr || !watch->Running() || insidePlatform) {
            return platform(object, arguments...);
        }
        if (change) {
            watch->NoteChange(change(arguments...));
        }
        if (watch->Fails(Name.text)) {
            return failure;
        }
        const Inside inside;
        const HRESULT result = platform(object, arguments...);
        if (SUCCEEDED(result) && made) {
            made(arguments...);
        }
        return result;
    }
};

struct Replaced {
    void** slot;
    void* method;
};

std::vector<Replaced>& AllReplaced() {
    static std::vector<Replaced> replaced;
    return replaced;
}

void Write(void** slot, void* method) {
    DWORD protection = 0;
    VirtualProtect(slot, sizeof(*slot), PAGE_READWRITE, &protection);
    *slot = method;
    VirtualProtect(slot, sizeof(*slot), protection, &protection);
}

/// Puts a gate into an object's table. failure: the method's natural one.
template <typename G, typename Object>
void Watch(Object& object, HRESULT failure) {
    void** const slot = *reinterpret_cast<void***>(&object) + G::Slot();
    void* const entry = reinterpret_cast<void*>(&G::Entry);
    if (*slot == entry) {
        return;
    }
    G::failure = failure;
    G::platform = reinterpret_cast<decltype(G::platform)>(*slot);
    AllReplaced().push_back({slot, *slot});
    Write(slot, entry);
}

// ---- The methods that the library calls

constexpr HRESULT kNoService = HRESULT_FROM_WIN32(RPC_S_SERVER_UNAVAILABLE);
constexpr HRESULT kDenied = E_ACCESSDENIED;
constexpr HRESULT kNotRead = HRESULT_FROM_WIN32(ERROR_READ_FAULT);
constexpr HRESULT kDiskFull = HRESULT_FROM_WIN32(ERROR_DISK_FULL);

std::wstring Text(LPCWSTR text) { return text != nullptr ? text : L""; }

using RegisterTask = Gate<"ITaskFolder::RegisterTask", &ITaskFolder::RegisterTask>;
using GetFolder = Gate<"ITaskService::GetFolder", &ITaskService::GetFolder>;
using WriteText = Gate<"IXmlWriter::WriteString", &IXmlWriter::WriteString>;

void WatchFolder(ITaskFolder& folder) {
    RegisterTask::change = [](BSTR path, BSTR xml, LONG flags, VARIANT user, VARIANT, TASK_LOGON_TYPE logon,
                              VARIANT, IRegisteredTask**) {
        return L"register task " + Text(path) + L" for " + (user.vt == VT_BSTR ? Text(user.bstrVal) : L"") +
               L" flags " + std::to_wstring(flags) + L" logon " + std::to_wstring(logon) + L": " + Text(xml);
    };
    RegisterTask::made = [](BSTR, BSTR, LONG, VARIANT, VARIANT, TASK_LOGON_TYPE, VARIANT,
                            IRegisteredTask** task) {
        PlatformWatch::current->ObjectMade(*task, "ITaskFolder::RegisterTask");
    };
    Watch<RegisterTask>(folder, kDenied);
}

/// A moment of this century is the next day's, whichever that is: "2026-3-8T0:0:0".
std::wstring WithoutToday(const std::wstring& text) {
    const bool isMoment = text.rfind(L"20", 0) == 0 && text.find(L'T') != std::wstring::npos &&
                          std::count(text.begin(), text.end(), L'-') == 2;
    return isMoment ? L"(the next day)" : text;
}

}  // namespace

void WatchMethods(ITaskService& service) {
    GetFolder::made = [](BSTR, ITaskFolder** folder) {
        PlatformWatch::current->ObjectMade(*folder, "ITaskService::GetFolder");
        if (ITaskFolder* const made = *folder) {
            WatchFolder(*made);
        }
    };
    Watch<Gate<"ITaskService::Connect", &ITaskService::Connect>>(service, kNoService);
    Watch<GetFolder>(service, kDenied);
}

void WatchMethods(IXmlReader& reader) {
    Watch<Gate<"IXmlReader::SetInput", &IXmlReader::SetInput>>(reader, E_OUTOFMEMORY);
    Watch<Gate<"IXmlReader::SetProperty", &IXmlReader::SetProperty>>(reader, E_INVALIDARG);
    Watch<Gate<"IXmlReader::Read", &IXmlReader::Read>>(reader, kNotRead);
    Watch<Gate<"IXmlReader::GetQualifiedName", &IXmlReader::GetQualifiedName>>(reader, E_OUTOFMEMORY);
    Watch<Gate<"IXmlReader::GetValue", &IXmlReader::GetValue>>(reader, E_OUTOFMEMORY);
}

void WatchMethods(IXmlWriter& writer) {
    WriteText::change = [](LPCWSTR text) { return L"write the text " + WithoutToday(Text(text)); };
    Watch<Gate<"IXmlWriter::SetOutput", &IXmlWriter::SetOutput>>(writer, E_OUTOFMEMORY);
    Watch<Gate<"IXmlWriter::SetProperty", &IXmlWriter::SetProperty>>(writer, E_INVALIDARG);
    Watch<Gate<"IXmlWriter::WriteNodeShallow", &IXmlWriter::WriteNodeShallow>>(writer, kDiskFull);
    Watch<WriteText>(writer, kDiskFull);
    Watch<Gate<"IXmlWriter::WriteFullEndElement", &IXmlWriter::WriteFullEndElement>>(writer, kDiskFull);
    Watch<Gate<"IXmlWriter::Flush", &IXmlWriter::Flush>>(writer, kDiskFull);
}

void ForgetMethods() {
    for (const Replaced& replaced : AllReplaced()) {
        Write(replaced.slot, replaced.method);
    }
    AllReplaced().clear();
}

}  // namespace corvi::test
