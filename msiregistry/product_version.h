#pragma once

#include <array>
#include <string>

namespace corvi {

/// How much of a version text was given.
enum class VersionKind : int {
    NotParsed = 0,
    TwoComponents = 1,
    ThreeComponents = 2,
    FourComponents = 3,
    Wildcard = 4,  ///< the text "*": not older than anything, and nothing is older
};

/// A version text, cut up: major, minor, build, revision, as they were written.
struct ProductVersion {
    std::array<std::wstring, 4> components = {L"x", L"x", L"x", L"x"};
    VersionKind kind = VersionKind::NotParsed;
};

/// Cuts a version text at every "." (an empty piece is a piece: "1..2" has three, "1." two). Two, three
/// or four pieces make a version, the missing components being "0"; "*" is the wildcard; any other count
/// stays not parsed, its components "x".
ProductVersion ParseProductVersion(const std::wstring& text);

/// True when version a counts as the same as or newer than version b: always when either is the wildcard,
/// else never when either is not parsed. Components are compared one by one as numbers. A number is what
/// stands at the beginning of a component after blanks: a sign, decimal digits and an exponent ("5beta" is 5,
/// "1e3" is 1000, "0x10" is 0), or, by the conversion's usual words and in any case, "inf" and "nan";
/// anything else, digits of other scripts too, is 0. Numbers are doubles: beyond 2^53 neighbours are equal,
/// and what is too large is infinite. The process's locale has no say. A component that is "nan" equals
/// nothing.
bool IsNotOlder(const ProductVersion& a, const ProductVersion& b);

}  // namespace corvi
