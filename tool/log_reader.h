#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace corvi::tool {

/// Reads a log line by line, in constant memory: UTF-16 (with a mark, or told by its zero bytes), UTF-8
/// with or without a mark; a line that is no UTF-8 is read in the system's code page.
class LogReader {
public:
    /// path: absolute or relative to the current directory. Throws UsageError when it cannot be read.
    explicit LogReader(const std::wstring& path);

    /// The next line as UTF-8 without its line end, in a buffer that the next call uses again. False at
    /// the end. A line is cut behind 32,768 bytes.
    bool Next(std::string_view& line);

private:
    enum class Encoding { Bytes, Utf16, Utf16BigEndian };

    bool Fill();
    void DetectEncoding();
    /// Moves the bytes of the next line to raw_; false at the end.
    bool TakeRawLine();
    void AppendRaw(const char* bytes, std::size_t count);
    /// The position behind the next line end at or after start, or npos; its own length in endLength.
    std::size_t FindLineEnd() const;

    struct CloseFile {
        using pointer = HANDLE;
        void operator()(HANDLE file) const noexcept { CloseHandle(file); }
    };
    std::unique_ptr<HANDLE, CloseFile> file_;
    std::wstring path_;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    Encoding encoding_ = Encoding::Bytes;
    std::string raw_;
    std::string line_;
};

}  // namespace corvi::tool
