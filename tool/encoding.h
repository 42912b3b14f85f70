#pragma once

#include <string>
#include <string_view>

namespace corvi::tool {

/// Bytes from outside as UTF-8: as they are where they are UTF-8 already, else read in the system's code
/// page.
std::string Utf8FromBytes(std::string_view bytes);

}  // namespace corvi::tool
