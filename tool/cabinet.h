#pragma once

#include <map>
#include <set>
#include <string>

namespace corvi::tool {

/// The contents of the named files of a cabinet that is held in memory. A file that is not there, or a
/// cabinet that cannot be read, gives no entry.
std::map<std::string, std::string> ExtractFromCabinet(const std::string& cabinet,
                                                      const std::set<std::string>& names);

}  // namespace corvi::tool
