#include "tool/plan_process_state.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <string>

#include "tool/console.h"
#include "tool/image.h"
#include "tool/plan_files.h"
#include "tool/plan_machine.h"
#include "tool/plan_services.h"

namespace corvi::tool::plan {
namespace {

/// What the platform's libraries may be asked for by name: functions that tell and change nothing.
constexpr const char* kTellingFunctions[] = {"IsWow64Process", "RtlGetVersion"};
/// What a library of the suite may be asked for.
constexpr char kCameraScan[] = "OptxScanCameras";

ULONGLONG passedMilliseconds = 0;

struct StandInLibrary {
    std::wstring path;
    Image image;
};
std::map<HMODULE, StandInLibrary> libraries;
std::wstring askedLibrary;  ///< whose camera scan was asked for last

int __cdecl NoteCameraScan(BOOL registered) {
    Journal().Add({Deed::CallLibrary, askedLibrary,
                   registered != FALSE ? L"OptxScanCameras(1)" : L"OptxScanCameras(0)"});
    return 0;
}

FARPROC FindInStandIn(const StandInLibrary& library, const std::string& name) {
    const auto& exports = library.image.exports;
    if (std::find(exports.begin(), exports.end(), name) == exports.end()) {
        return Refuse(ERROR_PROC_NOT_FOUND, static_cast<FARPROC>(nullptr));
    }
    if (name != kCameraScan) {
        EndPlan(End::NotTrusted, 0, L"it calls " + ToWide(name) + L" of " + library.path);
    }
    askedLibrary = library.path;
    return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&NoteCameraScan));
}

}  // namespace

void WINAPI PassTime(DWORD milliseconds) {
    // A wait of nothing lets others run: some time passes then as well, or a loop of such waits had no end.
    passedMilliseconds += milliseconds == 0 ? 1 : milliseconds;
    LetServicesSettle();
}

DWORD WINAPI TickCount() { return static_cast<DWORD>(LongTickCount()); }

ULONGLONG WINAPI LongTickCount() { return GetTickCount64() + passedMilliseconds; }

HMODULE WINAPI LoadOneLibrary(LPCWSTR path) {
    const auto refuse = [](DWORD error) { return Refuse(error, static_cast<HMODULE>(nullptr)); };
    const std::wstring text = path != nullptr ? path : L"";
    const std::wstring real = RealPath(text);
    if (real.empty()) {
        return refuse(ERROR_MOD_NOT_FOUND);
    }
    auto image = ReadImage(real);
    if (!image) {
        return refuse(ERROR_BAD_EXE_FORMAT);
    }
    const auto module = static_cast<HMODULE>(static_cast<void*>(NewStandInHandle()));
    libraries[module] = {text, std::move(*image)};
    return module;
}

BOOL WINAPI UnloadLibrary(HMODULE module) { return libraries.erase(module) > 0 ? TRUE : FreeLibrary(module); }

FARPROC WINAPI FindFunction(HMODULE module, LPCSTR name) {
    const std::string text =
        reinterpret_cast<std::uintptr_t>(name) <= 0xFFFF ? "a function by its number" : name;
    if (const auto library = libraries.find(module); library != libraries.end()) {
        return FindInStandIn(library->second, text);
    }
    const bool tells = std::any_of(std::begin(kTellingFunctions), std::end(kTellingFunctions),
                                   [&](const char* function) { return text == function; });
    if (!tells) {
        EndPlan(End::NotTrusted, 0, L"it looks up " + ToWide(text) + L" at run time");
    }
    return GetProcAddress(module, name);
}

LRESULT WINAPI TellWindows(HWND /*window*/, UINT message, WPARAM /*first*/, LPARAM second, UINT /*flags*/,
                           UINT /*milliseconds*/, PDWORD_PTR result) {
    const bool settings = message == WM_SETTINGCHANGE && second != 0;
    Journal().Add({Deed::TellWindows, settings ? L"all windows that the settings changed: " +
                                                     std::wstring(reinterpret_cast<const wchar_t*>(second))
                                               : L"windows by message " + std::to_wstring(message)});
    if (result != nullptr) {
        *result = 0;
    }
    return TRUE;
}

void WINAPI TellShell(LONG event, UINT /*flags*/, LPCVOID /*first*/, LPCVOID /*second*/) {
    constexpr LONG kAssociationsChanged = 0x08000000;
    Journal().Add({Deed::TellWindows, event == kAssociationsChanged
                                          ? std::wstring(L"the shell that file associations changed")
                                          : L"the shell of event " + std::to_wstring(event)});
}

int PutText(const char* text, std::FILE* /*file*/) {
    const int length = MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(std::max(length, 1)), L'\0');
    MultiByteToWideChar(CP_ACP, 0, text, -1, wide.data(), length);
    wide.pop_back();
    StandardOutputText() += wide;
    return 0;
}

int PutWideText(const wchar_t* text, std::FILE* /*file*/) {
    StandardOutputText() += text;
    return 0;
}

}  // namespace corvi::tool::plan
