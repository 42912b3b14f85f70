#include "tasks/file_stream.h"

#include <optional>
#include <utility>

namespace corvi {
namespace {

HRESULT LastErrorAsResult() { return HRESULT_FROM_WIN32(GetLastError()); }

std::optional<DWORD> MoveMethod(DWORD origin) {
    switch (origin) {
        case STREAM_SEEK_SET:
            return FILE_BEGIN;
        case STREAM_SEEK_CUR:
            return FILE_CURRENT;
        case STREAM_SEEK_END:
            return FILE_END;
        default:
            return std::nullopt;
    }
}

}  // namespace

HRESULT FileStream::Open(const std::wstring& path, DWORD access, DWORD creation,
                         Microsoft::WRL::ComPtr<IStream>& stream) {
    FileHandle file(CreateFileW(path.c_str(), access, FILE_SHARE_READ, nullptr, creation,
                                FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        // A file that is not open is a failure even when no error code says so.
        const HRESULT result = LastErrorAsResult();
        return FAILED(result) ? result : E_FAIL;
    }
    *stream.ReleaseAndGetAddressOf() = new FileStream(std::move(file));
    return S_OK;
}

FileStream::FileStream(FileHandle file) noexcept : file_(std::move(file)) {}

HRESULT FileStream::QueryInterface(REFIID id, void** object) {
    if (object == nullptr) {
        return E_INVALIDARG;
    }
    if (id != __uuidof(IUnknown) && id != __uuidof(IStream) && id != __uuidof(ISequentialStream)) {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    *object = static_cast<IStream*>(this);
    AddRef();
    return S_OK;
}

ULONG FileStream::AddRef() { return ++references_; }

ULONG FileStream::Release() {
    const ULONG left = --references_;
    if (left == 0) {
        delete this;
    }
    return left;
}

HRESULT FileStream::Read(void* buffer, ULONG size, ULONG* bytesRead) {
    DWORD count = 0;
    const BOOL done = ReadFile(file_.Get(), buffer, size, &count, nullptr);
    const HRESULT result = done != FALSE ? S_OK : LastErrorAsResult();
    if (bytesRead != nullptr) {
        *bytesRead = count;
    }
    return result;
}

HRESULT FileStream::Write(const void* buffer, ULONG size, ULONG* bytesWritten) {
    DWORD count = 0;
    const BOOL done = WriteFile(file_.Get(), buffer, size, &count, nullptr);
    const HRESULT result = done != FALSE ? S_OK : LastErrorAsResult();
    if (bytesWritten != nullptr) {
        *bytesWritten = count;
    }
    return result;
}

HRESULT FileStream::Seek(LARGE_INTEGER distance, DWORD origin, ULARGE_INTEGER* position) {
    const auto method = MoveMethod(origin);
    if (!method) {
        return STG_E_INVALIDFUNCTION;
    }
    LARGE_INTEGER moved = {};
    if (SetFilePointerEx(file_.Get(), distance, &moved, *method) == FALSE) {
        return LastErrorAsResult();
    }
    if (position != nullptr) {
        position->QuadPart = static_cast<ULONGLONG>(moved.QuadPart);
    }
    return S_OK;
}

HRESULT FileStream::Stat(STATSTG* statistics, DWORD /*flags*/) {
    if (statistics == nullptr) {
        return STG_E_INVALIDPOINTER;
    }
    LARGE_INTEGER size = {};
    if (GetFileSizeEx(file_.Get(), &size) == FALSE) {
        return LastErrorAsResult();
    }
    statistics->cbSize.QuadPart = static_cast<ULONGLONG>(size.QuadPart);
    return S_OK;
}

}  // namespace corvi
