// Read first by every file of 'make portability'. Declares what the maker's own headers have and the free
// ones, read there in their place, lack. Never part of a build.
#pragma once

// The compiler has this one built in, the headers define it.
#define _InterlockedCompareExchange128 InterlockedCompareExchange128OfTheHeaders

#include <stddef.h>
#include <time.h>

struct timespec {
    time_t tv_sec;
    long tv_nsec;
};

#include <ctype.h>
#include <locale.h>
#include <math.h>
#include <stdlib.h>

#ifndef MB_CUR_MAX
#define MB_CUR_MAX 1
#endif

extern "C" {
int _islower_l(int, _locale_t);
int _isupper_l(int, _locale_t);
float _strtof_l(const char*, char**, _locale_t);
double _strtod_l(const char*, char**, _locale_t);
}

#undef isnan
#undef isinf
extern "C++" {
template <class Number>
bool isnan(Number number) {
    return __builtin_isnan(number);
}
template <class Number>
bool isinf(Number number) {
    return __builtin_isinf(number);
}
}

#define __CRT_UUID_DECL(...)
#include <windows.h>

extern "C++" {
template <class Interface>
const GUID& IdOf();
}
#define __uuidof(interface) (IdOf<interface>())

#define IsReparseTagNameSurrogate(tag) ((0x20000000U & (tag)) != 0)

struct FILE_FULL_DIR_INFO {
    ULONG NextEntryOffset;
    ULONG FileIndex;
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    LARGE_INTEGER EndOfFile;
    LARGE_INTEGER AllocationSize;
    ULONG FileAttributes;
    ULONG FileNameLength;
    ULONG EaSize;
    WCHAR FileName[1];
};
