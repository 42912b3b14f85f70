#pragma once

#include <string>
#include <vector>

namespace corvi::test {

/// One run of a recorded tool, as the process itself saw it.
struct RecordedRun {
    std::wstring program;           ///< the file name of the program ("schtasks.exe")
    std::wstring commandLine;       ///< GetCommandLineW
    std::wstring currentDirectory;  ///< GetCurrentDirectoryW
};

/// Puts a recording program in the place of system tools, in this throwaway prefix only, and takes the
/// originals back when it goes out of scope. The recording program notes how it was started and ends
/// with the given exit code.
class ToolRecorder {
public:
    ToolRecorder();
    ~ToolRecorder();
    ToolRecorder(const ToolRecorder&) = delete;
    ToolRecorder& operator=(const ToolRecorder&) = delete;

    /// Stands in for the program at an absolute path, existing or not; missing folders are made.
    void StandInFor(const std::wstring& path, unsigned exitCode = 0);

    /// Stands in for a tool of the system directory ("schtasks.exe").
    void StandInForSystemTool(const std::wstring& fileName, unsigned exitCode = 0);

    /// The runs so far, in the order in which they were started.
    std::vector<RecordedRun> Runs() const;

    /// Waits until there are that many runs (at most 10 s) and gives them.
    std::vector<RecordedRun> WaitForRuns(size_t count) const;

    void ClearRuns();

private:
    struct Replaced {
        std::wstring path;
        bool hadOriginal;
    };
    std::vector<Replaced> replaced_;
};

}  // namespace corvi::test
