#include "tool/log_reader.h"

#include <algorithm>
#include <cstring>

#include "tool/console.h"
#include "tool/encoding.h"

namespace corvi::tool {
namespace {

constexpr std::size_t kBufferBytes = 1 << 18;
constexpr std::size_t kLongestLine = 32768;
constexpr std::size_t kProbeBytes = 512;

std::wstring FromUtf16(std::string_view bytes, bool bigEndian) {
    std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), bytes.data(), text.size() * sizeof(wchar_t));
    if (bigEndian) {
        for (wchar_t& character : text) {
            character = static_cast<wchar_t>((character >> 8U) | (character << 8U));
        }
    }
    return text;
}

}  // namespace

LogReader::LogReader(const std::wstring& path) : path_(path), buffer_(kBufferBytes) {
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        const bool missing = error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
        throw UsageError(ToUtf8(path) + (missing ? ": no such file"
                                                 : ": cannot be read (error " + std::to_string(error) + ")"));
    }
    file_.reset(file);
    Fill();
    DetectEncoding();
}

bool LogReader::Fill() {
    if (begin_ > 0) {
        std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
    }
    DWORD read = 0;
    if (end_ < buffer_.size() &&
        ReadFile(file_.get(), buffer_.data() + end_, static_cast<DWORD>(buffer_.size() - end_), &read,
                 nullptr) == FALSE) {
        throw UsageError(ToUtf8(path_) + ": cannot be read (error " + std::to_string(GetLastError()) + ")");
    }
    end_ += read;
    return read > 0;
}

void LogReader::DetectEncoding() {
    const std::string_view start(buffer_.data(), std::min(end_, kProbeBytes));
    if (start.starts_with("\xEF\xBB\xBF")) {
        begin_ = 3;
    } else if (start.starts_with("\xFF\xFE")) {
        encoding_ = Encoding::Utf16;
        begin_ = 2;
    } else if (start.starts_with("\xFE\xFF")) {
        encoding_ = Encoding::Utf16BigEndian;
        begin_ = 2;
    } else {
        // Mostly Latin text without a mark: every second byte is zero.
        std::size_t zeros = 0;
        for (std::size_t index = 1; index < start.size(); index += 2) {
            zeros += start[index] == '\0' ? 1 : 0;
        }
        if (start.size() >= 4 && zeros * 4 > start.size()) {
            encoding_ = Encoding::Utf16;
        }
    }
}

std::size_t LogReader::FindLineEnd() const {
    if (encoding_ == Encoding::Bytes) {
        const void* found = std::memchr(buffer_.data() + begin_, '\n', end_ - begin_);
        return found == nullptr ? std::string::npos
                                : static_cast<std::size_t>(static_cast<const char*>(found) - buffer_.data());
    }
    const std::size_t low = encoding_ == Encoding::Utf16 ? 0 : 1;
    for (std::size_t at = begin_; at + 1 < end_; at += 2) {
        if (buffer_[at + low] == '\n' && buffer_[at + 1 - low] == '\0') {
            return at;
        }
    }
    return std::string::npos;
}

void LogReader::AppendRaw(const char* bytes, std::size_t count) {
    const std::size_t room = raw_.size() < kLongestLine ? kLongestLine - raw_.size() : 0;
    raw_.append(bytes, std::min(count, room));
}

bool LogReader::TakeRawLine() {
    raw_.clear();
    const std::size_t unit = encoding_ == Encoding::Bytes ? 1 : 2;
    bool any = false;
    for (;;) {
        const std::size_t end = FindLineEnd();
        if (end != std::string::npos) {
            AppendRaw(buffer_.data() + begin_, end - begin_);
            begin_ = end + unit;
            return true;
        }
        // Whole characters only: half of one may wait for the next piece.
        const std::size_t whole = (end_ - begin_) / unit * unit;
        AppendRaw(buffer_.data() + begin_, whole);
        any = any || whole > 0;
        begin_ += whole;
        if (!Fill()) {
            return any;
        }
    }
}

bool LogReader::Next(std::string_view& line) {
    if (!TakeRawLine()) {
        return false;
    }
    if (encoding_ != Encoding::Bytes) {
        line_ = ToUtf8(FromUtf16(raw_, encoding_ == Encoding::Utf16BigEndian));
    } else {
        line_ = Utf8FromBytes(raw_);
    }
    while (!line_.empty() && (line_.back() == '\r' || line_.back() == '\0')) {
        line_.pop_back();
    }
    line = line_;
    return true;
}

}  // namespace corvi::tool
