#include "msiregistry/product_version.h"

#include <cmath>
#include <cwchar>
#include <limits>
#include <vector>

#include "runtime/text.h"

namespace corvi {
namespace {

constexpr wchar_t kWildcard[] = L"*";
constexpr wchar_t kMissingComponent[] = L"0";
constexpr wchar_t kBlanks[] = L" \t\n\v\f\r";
constexpr wchar_t kDigits[] = L"0123456789";

enum Component { kMajor, kMinor, kBuild, kRevision };

std::vector<std::wstring> SplitAtDots(const std::wstring& text) {
    std::vector<std::wstring> pieces;
    size_t start = 0;
    for (size_t dot = text.find(L'.'); dot != std::wstring::npos; dot = text.find(L'.', start)) {
        pieces.push_back(text.substr(start, dot - start));
        start = dot + 1;
    }
    pieces.push_back(text.substr(start));
    return pieces;
}

VersionKind KindOfCount(size_t count) {
    switch (count) {
        case 2:
            return VersionKind::TwoComponents;
        case 3:
            return VersionKind::ThreeComponents;
        case 4:
            return VersionKind::FourComponents;
        default:
            return VersionKind::NotParsed;
    }
}

/// The position after the digits that begin at start.
size_t SkipDigits(const std::wstring& text, size_t start) {
    const size_t end = text.find_first_not_of(kDigits, start);
    return end == std::wstring::npos ? text.size() : end;
}

size_t SkipSign(const std::wstring& text, size_t start) {
    return start < text.size() && (text[start] == L'+' || text[start] == L'-') ? start + 1 : start;
}

/// The position after an exponent that begins at start, or start when there is none.
size_t SkipExponent(const std::wstring& text, size_t start) {
    if (start == text.size() || (text[start] != L'e' && text[start] != L'E')) {
        return start;
    }
    const size_t digits = SkipSign(text, start + 1);
    const size_t end = SkipDigits(text, digits);
    return end == digits ? start : end;
}

double ToNumber(const std::wstring& component) {
    const size_t start = component.find_first_not_of(kBlanks);
    if (start == std::wstring::npos) {
        return 0;
    }
    const size_t digits = SkipSign(component, start);
    const std::wstring word = ToLower(component.substr(digits, 3));
    if (word == L"nan") {
        return std::numeric_limits<double>::quiet_NaN();
    }
    if (word == L"inf") {
        const double infinity = std::numeric_limits<double>::infinity();
        return component[start] == L'-' ? -infinity : infinity;
    }
    const size_t end = SkipDigits(component, digits);
    if (end == digits) {
        return 0;
    }
    // The runtime's conversion asks the locale for the decimal point and takes more than decimal numbers;
    // what is cut out here holds neither.
    return std::wcstod(component.substr(start, SkipExponent(component, end) - start).c_str(), nullptr);
}

using Numbers = std::array<double, 4>;

Numbers ToNumbers(const ProductVersion& version) {
    Numbers numbers = {};
    for (size_t index = 0; index < numbers.size(); ++index) {
        numbers[index] = ToNumber(version.components[index]);
    }
    return numbers;
}

/// The comparison of two parsed versions that are not equal throughout. A minor component that is not a
/// number decides nothing in favour of either version.
bool IsNewer(const Numbers& a, const Numbers& b) {
    if (a[kMajor] != b[kMajor]) {
        return a[kMajor] > b[kMajor];
    }
    if (a[kMinor] > b[kMinor]) {
        return true;
    }
    if (std::isnan(a[kMinor]) || std::isnan(b[kMinor]) || a[kMinor] != b[kMinor]) {
        return false;
    }
    return a[kBuild] > b[kBuild] || (a[kBuild] == b[kBuild] && a[kRevision] > b[kRevision]);
}

}  // namespace

ProductVersion ParseProductVersion(const std::wstring& text) {
    ProductVersion version;
    if (text == kWildcard) {
        version.components.fill(kWildcard);
        version.kind = VersionKind::Wildcard;
        return version;
    }
    const std::vector<std::wstring> pieces = SplitAtDots(text);
    version.kind = KindOfCount(pieces.size());
    if (version.kind == VersionKind::NotParsed) {
        return version;
    }
    version.components.fill(kMissingComponent);
    for (size_t index = 0; index < pieces.size(); ++index) {
        version.components[index] = pieces[index];
    }
    return version;
}

bool IsNotOlder(const ProductVersion& a, const ProductVersion& b) {
    if (a.kind == VersionKind::Wildcard || b.kind == VersionKind::Wildcard) {
        return true;
    }
    if (a.kind == VersionKind::NotParsed || b.kind == VersionKind::NotParsed) {
        return false;
    }
    const Numbers numbersOfA = ToNumbers(a);
    const Numbers numbersOfB = ToNumbers(b);
    return numbersOfA == numbersOfB || IsNewer(numbersOfA, numbersOfB);
}

}  // namespace corvi
