#pragma once

#include <windows.h>

#include <string>

namespace corvi {

// Task files are copied node by node through the platform's XML reader and writer, with the text of one
// element replaced. The element's first text node after its start tag is the one that is replaced, even
// if a comment or another element's start tag stands before it; an element without text stays without.
// The copy is UTF-16; the source is read as UTF-16, whatever it declares. A step that fails ends the
// copy, with one message on standard output that names the step; what was written by then stays.
//
// source, destination: paths, the destination is overwritten. The result is the HRESULT of the last
// step: S_FALSE after a complete copy, the reader's word for the end of its input.

/// Copies a task file with the text of "WorkingDirectory" replaced by workingDirectory as given.
HRESULT RewriteTaskFile(const std::wstring& source, const std::wstring& destination,
                        const std::wstring& workingDirectory);

/// Copies a task file with the text of "StartBoundary" replaced by the start of the next day in local
/// standard time, as "2025-3-8T0:0:0": nothing is padded, and there is no time zone. While daylight-
/// saving time is in force the hour is 1. E_UNEXPECTED, without a message, when the text is empty.
HRESULT RewriteTaskStartBoundary(const std::wstring& source, const std::wstring& destination);

}  // namespace corvi
