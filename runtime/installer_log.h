#pragma once

#include <windows.h>

#include <msi.h>

namespace corvi {

/// Writes one line to the installer log: an information message whose field 0 is the formatted text.
/// format: the syntax of wvsprintfW ("%s" and "%ls" take a wide string, "%hs" a narrow one, "%d" an
/// int). The text is cut after 519 characters; nothing is added to it, not even a line end. When the
/// formatting fails the line reads "CA buffer overflow\n". Never fails visibly.
/// The installer takes field 0 as a template: "[NAME]" in the text is replaced by that property.
/// Stands on MsiCreateRecord, MsiRecordSetStringW, MsiProcessMessage.
void WriteInstallerLog(MSIHANDLE session, const wchar_t* format, ...);

/// Sends text, unformatted and of any length, as a message of the given type: field 0 of a record with
/// fieldCount further fields. The result of the message is ignored.
void SendInstallerMessage(MSIHANDLE session, INSTALLMESSAGE type, UINT fieldCount, const wchar_t* text);

}  // namespace corvi
