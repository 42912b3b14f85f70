#include "tool/console.h"

#include <windows.h>

#include <algorithm>

namespace corvi::tool {
namespace {

constexpr std::size_t kBufferBytes = 1 << 16;

/// One of the process's standard handles, as a console or as a stream of bytes.
class Stream {
public:
    explicit Stream(DWORD which) : handle_(GetStdHandle(which)) {
        DWORD mode = 0;
        console_ = GetConsoleMode(handle_, &mode) != FALSE;
    }
    void Write(std::string_view text) {
        pending_ += text;
        if (pending_.size() >= kBufferBytes) {
            Flush();
        }
    }
    void Flush() {
        if (console_) {
            WriteToConsole(ToWide(pending_));
        } else {
            WriteBytes(pending_);
        }
        pending_.clear();
    }

private:
    void WriteToConsole(const std::wstring& text) {
        std::size_t done = 0;
        while (done < text.size()) {
            DWORD written = 0;
            const auto piece = static_cast<DWORD>(std::min<std::size_t>(text.size() - done, 8000));
            if (WriteConsoleW(handle_, &text[done], piece, &written, nullptr) == FALSE || written == 0) {
                return;
            }
            done += written;
        }
    }
    void WriteBytes(std::string_view bytes) {
        while (!bytes.empty()) {
            DWORD written = 0;
            if (WriteFile(handle_, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) ==
                    FALSE ||
                written == 0) {
                return;
            }
            bytes.remove_prefix(written);
        }
    }

    HANDLE handle_;
    bool console_ = false;
    std::string pending_;
};

Stream& Output() {
    static Stream stream(STD_OUTPUT_HANDLE);
    return stream;
}

bool IsContinuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U; }

/// The byte length of the character at the front.
std::size_t CharacterLength(std::string_view text) {
    std::size_t length = 1;
    while (length < text.size() && IsContinuation(text[length])) {
        ++length;
    }
    return length;
}

bool IsWide(wchar_t character) {
    return (character >= 0x1100 && character <= 0x115F) || (character >= 0x2E80 && character <= 0xA4CF) ||
           (character >= 0xAC00 && character <= 0xD7A3) || (character >= 0xF900 && character <= 0xFAFF) ||
           (character >= 0xFE30 && character <= 0xFE6F) || (character >= 0xFF00 && character <= 0xFF60);
}

/// The longest front of the text that fits into that many columns: at least one character.
std::size_t FittingBytes(std::string_view text, std::size_t columns) {
    std::size_t bytes = 0;
    std::size_t taken = 0;
    while (bytes < text.size()) {
        const std::size_t length = CharacterLength(text.substr(bytes));
        taken += Width(text.substr(bytes, length));
        if (taken > columns && bytes > 0) {
            break;
        }
        bytes += length;
    }
    return bytes;
}

/// Takes the next line of at most that many columns from the front of the text.
std::string_view TakeLine(std::string_view& text, std::size_t columns) {
    const std::size_t end = text.find('\n');
    const std::string_view paragraph = text.substr(0, end);
    const std::size_t fitting = FittingBytes(paragraph, columns);
    if (fitting >= paragraph.size()) {
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        return paragraph;
    }
    std::size_t cut = paragraph[fitting] == ' ' ? fitting : paragraph.rfind(' ', fitting);
    if (cut == std::string_view::npos || paragraph.find_first_not_of(' ') >= cut) {
        // A long word: behind the last sign that separates, else where the room ends.
        const std::size_t sign = paragraph.find_last_of(";,\\", fitting - 1);
        cut = sign == std::string_view::npos || sign < fitting / 2 ? fitting : sign + 1;
    }
    const std::string_view line = paragraph.substr(0, cut);
    const std::size_t rest = paragraph.find_first_not_of(' ', cut);
    text.remove_prefix(rest == std::string_view::npos ? paragraph.size() : rest);
    return line;
}

std::string WrapWithin(std::string_view text, std::string_view first, std::string_view next,
                       std::size_t columns) {
    std::string wrapped;
    std::string_view indent = first;
    do {
        const std::size_t taken = Width(indent);
        std::string line(indent);
        line += TakeLine(text, columns > taken + 8 ? columns - taken : 8);
        line.erase(line.find_last_not_of(' ') + 1);
        wrapped += line + "\n";
        indent = next;
    } while (!text.empty());
    return wrapped;
}

std::vector<std::size_t> ColumnWidths(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], Width(row[column]));
        }
    }
    return widths;
}

std::string Padded(std::string_view text, std::size_t width) {
    std::string padded(text);
    padded.append(width > Width(text) ? width - Width(text) : 0, ' ');
    return padded;
}

}  // namespace

std::string ToUtf8(std::wstring_view text) {
    if (text.empty()) {
        return {};
    }
    const auto size = static_cast<int>(text.size());
    const int needed = WideCharToMultiByte(CP_UTF8, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<std::size_t>(needed), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), size, utf8.data(), needed, nullptr, nullptr);
    return utf8;
}

std::wstring ToWide(std::string_view utf8) {
    if (utf8.empty()) {
        return {};
    }
    const auto size = static_cast<int>(utf8.size());
    const int needed = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, nullptr, 0);
    std::wstring text(static_cast<std::size_t>(needed), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, text.data(), needed);
    return text;
}

void Print(std::string_view text) { Output().Write(text); }

void PrintLine(std::string_view text) {
    Output().Write(text);
    Output().Write("\n");
}

void FlushOutput() { Output().Flush(); }

void PrintError(std::string_view text) {
    FlushOutput();
    std::string line = "corvi: " + std::string(text);
    std::replace_if(
        line.begin(), line.end(), [](char character) { return character == '\n' || character == '\r'; }, ' ');
    Stream stream(STD_ERROR_HANDLE);
    stream.Write(line + "\n");
    stream.Flush();
}

std::size_t Width(std::string_view text) {
    std::size_t columns = 0;
    for (const wchar_t character : ToWide(text)) {
        if (character < 0xDC00 || character > 0xDFFF) {
            columns += IsWide(character) ? 2 : 1;
        }
    }
    return columns;
}

std::string Wrap(std::string_view text, std::string_view first, std::string_view next) {
    return WrapWithin(text, first, next, kColumns);
}

void PrintWrapped(std::string_view text, std::string_view first, std::string_view next) {
    Print(Wrap(text, first, next));
}

std::string Table(const std::vector<std::vector<std::string>>& rows) {
    const std::vector<std::size_t> widths = ColumnWidths(rows);
    std::string table;
    for (std::size_t index = 0; index < rows.size(); ++index) {
        std::string first;
        std::string dashes;
        for (std::size_t column = 0; column + 1 < rows[index].size(); ++column) {
            first += Padded(rows[index][column], widths[column]) + "  ";
            dashes += std::string(widths[column], '-') + "  ";
        }
        const std::string next(Width(first), ' ');
        table +=
            WrapWithin(rows[index].empty() ? std::string_view() : rows[index].back(), first, next, kColumns);
        if (index == 0) {
            const std::size_t left = kColumns > dashes.size() ? kColumns - dashes.size() : 1;
            table += dashes + std::string(std::min(widths.back(), left), '-') + "\n";
        }
    }
    return table;
}

}  // namespace corvi::tool
