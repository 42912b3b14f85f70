#pragma once

#include <windows.h>

#include <objidl.h>
#include <wrl/client.h>

#include <atomic>
#include <string>

#include "runtime/kernel_handle.h"

namespace corvi {

/// A COM stream over one open file, for the XML reader and writer: reading, writing, seeking and the
/// size. Everything else answers E_NOTIMPL. Lives as long as its references; the last one closes the
/// file. Platform errors come back as HRESULT_FROM_WIN32 codes.
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): only the last Release ends the object
class FileStream final : public IStream {
public:
    /// Opens a file and gives the stream that holds it, with one reference. access, creation: as for
    /// CreateFileW (GENERIC_READ and OPEN_EXISTING, ...); others may read the file meanwhile. Gives the
    /// HRESULT of the platform error when the file cannot be opened. Stands on CreateFileW.
    static HRESULT Open(const std::wstring& path, DWORD access, DWORD creation,
                        Microsoft::WRL::ComPtr<IStream>& stream);

    /// Takes over an open file; the count starts at one, for whoever creates the object.
    explicit FileStream(FileHandle file) noexcept;

    FileStream(const FileStream&) = delete;
    FileStream& operator=(const FileStream&) = delete;

    /// IUnknown, ISequentialStream and IStream. E_INVALIDARG for a null result, E_NOINTERFACE for any
    /// other interface.
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override;
    /// Both give the new count.
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;

    /// S_OK with fewer bytes than asked for, or none, at the end of the file. bytesRead may be null.
    HRESULT STDMETHODCALLTYPE Read(void* buffer, ULONG size, ULONG* bytesRead) override;
    /// bytesWritten may be null.
    HRESULT STDMETHODCALLTYPE Write(const void* buffer, ULONG size, ULONG* bytesWritten) override;
    /// origin: STREAM_SEEK_SET, _CUR or _END, else STG_E_INVALIDFUNCTION. position may be null.
    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER distance, DWORD origin, ULARGE_INTEGER* position) override;
    /// Sets cbSize, and no other field.
    HRESULT STDMETHODCALLTYPE Stat(STATSTG* statistics, DWORD flags) override;

    HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Commit(DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Revert() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Clone(IStream**) override { return E_NOTIMPL; }

private:
    ~FileStream() = default;

    FileHandle file_;
    std::atomic<ULONG> references_{1};
};

}  // namespace corvi
