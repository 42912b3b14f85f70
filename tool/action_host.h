#pragma once

#include <optional>
#include <string>
#include <vector>

namespace corvi::tool {

// `run` does its work in a second process of this program, the host: an action that crashes or ends its
// process takes the host along and not the report. Both speak through a pipe each way, one JSON object a
// line.
//   to the host:   {"dll", "action", "properties": [[name, value]...]}
//   from the host: {"refused": text}          the call cannot be made
//                  {"package": path, "folder": true or false}   what its session leaves if it is not closed
//                  {"log": text}, {"message": text}
//                  {"started": command line, "process": number}
//                  {"service": name, "deed": "stop" or "start"}
//                  {"returned": number}, {"threw": text, "code": number}, {"crashed": number}

/// What makes this program the host: its first argument. The handles of the two pipes follow.
inline constexpr char kHostArgument[] = "--action-host";

/// Runs the host when the arguments ask for it: its exit code; nothing otherwise.
std::optional<int> RunActionHost(const std::vector<std::string>& arguments);

}  // namespace corvi::tool
