#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace corvi::tool {

/// What a 64-bit library file says about itself, read from its bytes: nothing of it is loaded or run.
struct Image {
    std::vector<std::string> imports;  ///< functions, "#7" for one by number; delay-loaded ones included
    std::vector<std::string> exports;  ///< names, as they stand
};

/// Nothing when the file cannot be read or is no 64-bit Windows library. path: absolute.
std::optional<Image> ReadImage(const std::wstring& path);

}  // namespace corvi::tool
