#include "msiregistry/product_version.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <vector>

#include "runtime/text.h"

namespace corvi {
namespace {

constexpr wchar_t kWildcard[] = L"*";
constexpr wchar_t kMissingComponent[] = L"0";
constexpr wchar_t kBlanks[] = L" \t\n\v\f\r";
constexpr wchar_t kDigits[] = L"0123456789";

/// More digits than decide which double is the nearest.
constexpr size_t kKeptDigits = 40;
/// An exponent that no count of digits makes up for, and one that the kept digits do not make up for: what
/// is beyond is infinite or 0.
constexpr int kHugeExponent = 100'000'000;
constexpr int kLargestExponent = 9999;

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

/// The exponent that begins at start, 0 when there is none.
int ReadExponent(const std::wstring& text, size_t start) {
    if (start == text.size() || (text[start] != L'e' && text[start] != L'E')) {
        return 0;
    }
    const size_t digits = SkipSign(text, start + 1);
    const size_t end = SkipDigits(text, digits);
    int exponent = 0;
    for (size_t index = digits; index < end; ++index) {
        exponent = std::min(exponent * 10 + (text[index] - L'0'), kHugeExponent);
    }
    return text[digits - 1] == L'-' ? -exponent : exponent;
}

/// The number of the digits from start to end, times ten to the power of exponent. Nothing is allocated:
/// an error here would end the comparison before a newer copy is found.
double ConvertDigits(const std::wstring& text, size_t start, size_t end, int exponent) {
    const size_t first = std::min(text.find_first_not_of(L'0', start), end);
    const size_t keptEnd = std::min(first + kKeptDigits, end);
    wchar_t number[kKeptDigits + std::size(L"0E+9999")] = {};
    size_t length = text.copy(number, keptEnd - first, first);
    // One digit for the rest, so that a number just above the middle between two doubles goes up.
    number[length++] = text.find_first_not_of(L'0', keptEnd) < end ? L'1' : L'0';

    const auto dropped = static_cast<int>(std::min<size_t>(end - keptEnd, kHugeExponent));
    const int power = std::clamp(exponent + dropped - 1, -kLargestExponent, kLargestExponent);
    number[length++] = L'E';
    number[length++] = power < 0 ? L'-' : L'+';
    for (int unit = 1000; unit > 0; unit /= 10) {
        number[length++] = static_cast<wchar_t>(L'0' + std::abs(power) / unit % 10);
    }
    return _wtof(number);
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
    const size_t end = SkipDigits(component, digits);
    const double size = word == L"inf" ? std::numeric_limits<double>::infinity()
                                       : ConvertDigits(component, digits, end, ReadExponent(component, end));
    return component[start] == L'-' ? -size : size;
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
