#pragma once

#include <windows.h>

#include <string>

namespace corvi {

// Task files are copied node by node through the platform's XML reader and writer, with one text replaced:
// the first text node behind a start tag of the named element, comments and further start tags between the
// two notwithstanding, so it may belong to an element inside. An empty element (<a/>) between the two, or
// the end of the named element, ends the search; the next start tag of that name begins it again. An
// element without text stays without.
// The reader is told that the source is UTF-16, whatever that declares; what it makes of another encoding
// is the platform's matter. The copy is UTF-16 with a byte-order mark. A failing step ends the copy with
// one message on standard output that names the step; a source that cannot be read or understood any
// further ends it without one. What was written by then stays.
//
// source, destination: paths. A source that cannot be opened leaves the destination alone, else it is
// overwritten. The result is that of the last step: S_FALSE after a complete copy, the reader's word for
// the end of its input.

/// Copies a task file with the text of "WorkingDirectory" replaced by workingDirectory as given.
HRESULT RewriteTaskFile(const std::wstring& source, const std::wstring& destination,
                        const std::wstring& workingDirectory);

/// Copies a task file with the text of "StartBoundary" replaced by the start of the next day in local
/// standard time, as "2025-3-8T0:0:0": nothing is padded, and there is no time zone. While daylight-
/// saving time is in force the hour is 1. E_UNEXPECTED, without a message, when the text is empty.
HRESULT RewriteTaskStartBoundary(const std::wstring& source, const std::wstring& destination);

}  // namespace corvi
