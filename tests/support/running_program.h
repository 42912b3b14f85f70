#pragma once

#include <windows.h>

#include <string>

namespace corvi::test {

/// The program that sleeps, running under a name of the test's choice while this object lives. It is up when
/// the constructor returns: the platform's process lists name it.
class RunningProgram {
public:
    /// imageName: as the process lists shall show it ("TAVOLSServ.exe"). folder: where it is started, which
    /// it leaves at once; null for this program's own. Throws when it is not up in time.
    explicit RunningProgram(const std::wstring& imageName, const wchar_t* folder = nullptr);
    ~RunningProgram();
    RunningProgram(const RunningProgram&) = delete;
    RunningProgram& operator=(const RunningProgram&) = delete;

    /// True when it runs now.
    bool Runs() const;
    /// True when it has ended, or ends within 30 seconds: a process that was told to end needs its time for
    /// it on a loaded machine.
    bool Ends() const;

private:
    PROCESS_INFORMATION process_ = {};
};

/// Ends every process of an image name ("TUEPDU.exe"), whoever started it, and waits up to 30 seconds for
/// each. Stands on the process snapshot and TerminateProcess.
void EndPrograms(const std::wstring& imageName);

}  // namespace corvi::test
