#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace corvi::tool {

// What the program says, and how. Texts inside the program are UTF-8; a console gets them as Unicode, a
// file or pipe as UTF-8 with "\n" as line end.

/// Exit codes of the program.
constexpr int kFine = 0;
constexpr int kFindings = 1;  ///< a finding, or an action that failed
constexpr int kWrongUse = 2;  ///< wrong usage, or input that cannot be read

/// Columns that output fits into.
constexpr std::size_t kColumns = 80;

/// Wrong usage or unreadable input: main prints the text as one line on standard error and ends with 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

std::string ToUtf8(std::wstring_view text);
/// Bytes that are no UTF-8 become U+FFFD.
std::wstring ToWide(std::string_view utf8);

/// Writes the text to standard output. What is not yet written is written at the end and by FlushOutput.
void Print(std::string_view text);
/// The text and a line end.
void PrintLine(std::string_view text = {});
void FlushOutput();
/// One line on standard error, with the program's name in front.
void PrintError(std::string_view text);

/// How many columns the text takes, one for each character (two for wide East Asian ones).
std::size_t Width(std::string_view text);

/// The text cut at blanks into lines of at most kColumns columns; a word that is longer is cut within
/// itself. The first line begins with `first`, each further one with `next`. Line ends in the text are
/// kept as such. Ends with a line end.
std::string Wrap(std::string_view text, std::string_view first = {}, std::string_view next = {});
void PrintWrapped(std::string_view text, std::string_view first = {}, std::string_view next = {});

/// Rows as columns two blanks apart, the last column wrapped within kColumns; the first row is the
/// heading and gets a line of dashes below it.
std::string Table(const std::vector<std::vector<std::string>>& rows);

}  // namespace corvi::tool
