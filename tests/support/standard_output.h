#pragma once

#include <io.h>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

namespace corvi::test {

/// Collects what this process, the loaded library included, writes to standard output.
class StandardOutput {
public:
    StandardOutput() : original_(_dup(1)) {
        std::fflush(stdout);
        FILE* file = _wfopen(kFile, L"w");
        _dup2(_fileno(file), 1);
        std::fclose(file);
    }
    ~StandardOutput() { Restore(); }
    StandardOutput(const StandardOutput&) = delete;
    StandardOutput& operator=(const StandardOutput&) = delete;

    /// Ends the collection and gives what was written and flushed, line ends read
    /// as "\n". What still stands in a buffer is not part of it.
    std::string Text() {
        std::ifstream file("C:\\corvi\\standard_output.txt");
        std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        Restore();
        return text;
    }

private:
    static constexpr wchar_t kFile[] = L"C:\\corvi\\standard_output.txt";

    void Restore() {
        if (original_ >= 0) {
            std::fflush(stdout);
            _dup2(original_, 1);
            _close(original_);
            original_ = -1;
        }
    }

    int original_;
};

}  // namespace corvi::test
