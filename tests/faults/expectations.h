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

// The exceptions: each gives the row of its table that allows something, as AllExceptions names it; empty
// when none does. faulty: the function that fails.

/// An error that leaves the action. type: as the compiler names it.
std::string MayLetErrorOut(const std::string& action, const std::string& type);

/// A change that the good run has not made, in the place of one that it has made or because the reference
/// says so. touched: all changes of the good run.
std::string MayStandIn(const std::string& action, const std::wstring& change,
                       const std::set<std::wstring>& touched, const std::string& faulty);

/// A change within something that goes as a whole: a registry tree that the good run deletes, or wholeFolder
/// (empty: none), the folder that the action is to delete.
std::string MayGoWithTheWhole(const std::wstring& change, const std::set<std::wstring>& touched,
                              const std::wstring& wholeFolder);

/// Something that is left open ("item list SHGetFolderLocation") or closed twice.
std::string MayStayOpen(const std::string& action, const std::string& resource, const std::string& faulty);

/// Every row of the tables of exceptions.
std::vector<std::string> AllExceptions();

}  // namespace corvi::test
