#pragma once

#include <windows.h>

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tool/interception.h"

namespace corvi::test {

/// The name under which the allocator's requests are counted and made to fail.
inline constexpr char kAllocator[] = "malloc";

/// One fault: which call of which function fails, and whether all later calls of it fail too.
struct Fault {
    std::string function;
    size_t nth = 0;  ///< from 0
    bool lasting = false;

    /// "RegOpenKeyExW #3, once".
    std::string Text() const;
};

/// What the library did with the platform in one run.
struct Recording {
    /// Every call of a function that can fail, in order.
    std::vector<std::string> calls;
    /// Every request to change something outside the process, normalised: "delete C:\X", "set KEY|NAME=...".
    std::vector<std::wstring> changes;
    size_t allocations = 0;
    /// True when the fault was met.
    bool faultMet = false;
};

/// What happens in place of the platform's answer at the moment of the fault, beside the failure: how the
/// sweep is shown what it has to find.
using AtFault = std::function<void()>;

/// Stands between a loaded library and the platform: notes what it calls, changes and holds open, and makes
/// one call fail. One may live at a time.
class PlatformWatch {
public:
    explicit PlatformWatch(HMODULE library);
    ~PlatformWatch();
    PlatformWatch(const PlatformWatch&) = delete;
    PlatformWatch& operator=(const PlatformWatch&) = delete;

    /// Starts a run. atFault: called once, when the fault is met.
    void Begin(const std::optional<Fault>& fault, AtFault atFault);
    /// Ends the run. Gives what was recorded; what is open then is in Open().
    Recording End();

    /// What the last run left open: "key HKLM\SOFTWARE\X", "handle CreateFileW". What it closed without
    /// having it open, twice for instance, is told too: "key that is closed without being open".
    std::vector<std::string> Open() const;

    /// A run that makes more calls than this ends the process: it would never end by itself.
    size_t callLimit = 1000000;

    // For the gates below.
    bool Fails(const char* function);
    bool FailsAllocation();
    void NoteChange(std::wstring change);
    void Opened(const char* kind, const void* handle, const std::string& what);
    void Closed(const char* kind, const void* handle);
    bool Running() const { return running_; }
    std::wstring KeyPath(HKEY key) const;
    void KeyOpened(HKEY key, const std::wstring& path);
    void NameHandle(const void* handle, const std::wstring& name) { names_[handle] = name; }
    std::wstring NameOf(const void* handle) const;
    void ObjectMade(IUnknown* object, const char* function);

    static PlatformWatch* current;

private:
    bool Meets(const char* function, size_t index);
    void ReleaseObjects();

    tool::Interception hooks_;
    std::optional<Fault> fault_;
    AtFault atFault_;
    Recording recording_;
    bool running_ = false;
    std::map<std::string, size_t> counts_;
    std::map<std::pair<std::string, const void*>, std::vector<std::string>> open_;
    std::map<const void*, std::wstring> names_;
    std::vector<std::pair<IUnknown*, std::string>> objects_;
    std::vector<std::string> strayCloses_;
};

/// Every import that goes through a gate, whether it can fail or not.
const std::vector<std::string>& WatchedFunctions();

/// Those of them that the sweep lets fail.
const std::vector<std::string>& FallibleFunctions();

/// Imports that the sweep leaves alone, each with the reason.
const std::map<std::string, std::string>& LeftAlone();

}  // namespace corvi::test
