#pragma once

#include <string>

namespace corvi::tool {

/// What a file is as a compound file, the container of an installer package.
enum class Container {
    Whole,
    Damaged,  ///< its chains of sectors leave the file or run in a circle: whoever follows them never ends
    None,     ///< something else
};

/// Follows every chain of sectors in the file at that path. What the streams hold is not looked at.
Container LookAtContainer(const std::wstring& path);

}  // namespace corvi::tool
