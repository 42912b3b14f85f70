#include "runtime/installer_log.h"

#include <msiquery.h>

#include <cstdarg>

namespace corvi {
namespace {

// The line's length, terminator included.
constexpr size_t kLineCapacity = 520;
// wvsprintfW writes at most 1,024 characters whatever the target holds: it gets room for all of them,
// and the line is cut afterwards.
constexpr size_t kFormatterCapacity = 1025;

}  // namespace

void SendInstallerMessage(MSIHANDLE session, INSTALLMESSAGE type, UINT fieldCount, const wchar_t* text) {
    const MSIHANDLE record = MsiCreateRecord(fieldCount);
    MsiRecordSetStringW(record, 0, text);
    MsiProcessMessage(session, type, record);
    if (record != 0) {
        MsiCloseHandle(record);
    }
}

void WriteInstallerLog(MSIHANDLE session, const wchar_t* format, ...) {
    wchar_t line[kFormatterCapacity] = {};
    va_list arguments;
    va_start(arguments, format);
    const int length = wvsprintfW(line, format, arguments);
    va_end(arguments);
    line[kLineCapacity - 1] = L'\0';
    SendInstallerMessage(session, INSTALLMESSAGE_INFO, 0, length < 0 ? L"CA buffer overflow\n" : line);
}

}  // namespace corvi
