#pragma once

#include <windows.h>

#include <set>
#include <string>
#include <vector>

namespace corvi::test {

/// True when the reference lists the result for the action.
bool IsListedResult(const std::string& action, UINT result);

/// True when the reference lists a line of that shape for the action. faulty: the function that fails.
bool IsListedLine(const std::string& action, const std::wstring& line, const std::string& faulty);

/// True when the action is one of the few that let such an error out. type: as the compiler names it.
bool MayLetErrorOut(const std::string& action, const std::string& type);

/// True when a change that the good run has not made stands in for one that it has made. touched: all
/// changes of the good run.
bool IsAllowedInstead(const std::string& action, const std::wstring& change,
                      const std::set<std::wstring>& touched);

/// Every row of the tables of exceptions, for the record: "UnInstallPPC: ...".
std::vector<std::string> AllExceptions();

}  // namespace corvi::test
