#include "tasks/file_stream.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

#include "tests/support/import_hooks.h"
#include "tests/support/test_thread.h"
#include "tests/tasks/task_files.h"

namespace corvi::test {
namespace {

using Microsoft::WRL::ComPtr;

constexpr wchar_t kFile[] = L"C:\\corvi\\stream.bin";
constexpr wchar_t kMissing[] = L"C:\\corvi\\none\\stream.bin";

// The result that a platform error becomes.
HRESULT ResultOf(DWORD error) { return static_cast<HRESULT>(0x80070000U | error); }

LARGE_INTEGER Distance(LONGLONG value) {
    LARGE_INTEGER distance = {};
    distance.QuadPart = value;
    return distance;
}

class FileStreamTest : public testing::Test {
protected:
    FileStreamTest() { WriteBytes(kFile, "0123456789"); }
    ~FileStreamTest() override { std::filesystem::remove(kFile); }

    ComPtr<IStream> Open(DWORD access = GENERIC_READ, DWORD creation = OPEN_EXISTING) {
        ComPtr<IStream> stream;
        EXPECT_EQ(FileStream::Open(kFile, access, creation, stream), S_OK);
        return stream;
    }
    // A stream around a handle that is not open.
    static ComPtr<IStream> Broken() {
        ComPtr<IStream> stream;
        *stream.ReleaseAndGetAddressOf() = new FileStream(FileHandle());
        return stream;
    }
    // Whether nobody holds the file any more.
    static bool IsClosed() {
        const FileHandle file(CreateFileW(kFile, GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        return static_cast<bool>(file);
    }
};

TEST_F(FileStreamTest, ItsFieldsAreTheFileHandleAndAThirtyTwoBitCount) {
    const auto stream = Open();
    const auto* fields = reinterpret_cast<const std::byte*>(stream.Get());
    HANDLE handle = nullptr;
    uint32_t count = 0;
    std::memcpy(&handle, fields + sizeof(void*), sizeof(handle));
    std::memcpy(&count, fields + 2 * sizeof(void*), sizeof(count));
    EXPECT_EQ(GetFileType(handle), static_cast<DWORD>(FILE_TYPE_DISK));
    EXPECT_EQ(count, 1U);
}

TEST_F(FileStreamTest, IsEveryInterfaceOfAStreamAndCountsAReferenceForEach) {
    const auto stream = Open();
    for (const IID& id : {__uuidof(IUnknown), __uuidof(IStream), __uuidof(ISequentialStream)}) {
        void* object = nullptr;
        EXPECT_EQ(stream->QueryInterface(id, &object), S_OK);
        EXPECT_EQ(object, stream.Get());
        EXPECT_EQ(stream->Release(), 1U);
    }
}

TEST_F(FileStreamTest, AnotherInterfaceGivesNullAndNoReference) {
    const auto stream = Open();
    void* object = &object;
    EXPECT_EQ(stream->QueryInterface(__uuidof(IPersist), &object), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(stream->AddRef(), 2U);
    EXPECT_EQ(stream->Release(), 1U);
}

TEST_F(FileStreamTest, ANullResultPointerIsAnInvalidArgument) {
    EXPECT_EQ(Open()->QueryInterface(__uuidof(IUnknown), nullptr), E_INVALIDARG);
}

TEST_F(FileStreamTest, AddRefAndReleaseGiveTheNewCountAndTheLastReleaseClosesTheFile) {
    auto stream = Open();
    IStream* raw = stream.Get();
    EXPECT_EQ(raw->AddRef(), 2U);
    EXPECT_EQ(raw->AddRef(), 3U);
    EXPECT_EQ(raw->Release(), 2U);
    EXPECT_EQ(raw->Release(), 1U);
    EXPECT_FALSE(IsClosed());
    EXPECT_EQ(stream.Reset(), 0U);
    EXPECT_TRUE(IsClosed());
}

TEST_F(FileStreamTest, AHandleThatIsNotOpenIsNotClosed) {
    ImportHooks hooks(GetModuleHandleW(nullptr));
    int closed = 0;
    CORVI_HOOK(hooks, CloseHandle, [&](HANDLE) -> BOOL {
        ++closed;
        return TRUE;
    });
    EXPECT_EQ(Broken().Reset(), 0U);
    EXPECT_EQ(closed, 0);
}

TEST_F(FileStreamTest, ReferencesAreCountedAtomically) {
    auto stream = Open();
    std::vector<std::unique_ptr<TestThread>> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.push_back(std::make_unique<TestThread>([raw = stream.Get()] {
            for (int round = 0; round < 20000; ++round) {
                raw->AddRef();
                raw->Release();
            }
        }));
    }
    threads.clear();
    EXPECT_EQ(stream->AddRef(), 2U);
    EXPECT_EQ(stream->Release(), 1U);
}

TEST_F(FileStreamTest, ReadsUpToTheEndWithShortReadsThatSucceed) {
    const auto stream = Open();
    char buffer[16] = {};
    ULONG count = 99;
    EXPECT_EQ(stream->Read(buffer, 4, &count), S_OK);
    EXPECT_EQ(std::string(buffer, count), "0123");
    EXPECT_EQ(stream->Read(buffer, 16, &count), S_OK);
    EXPECT_EQ(std::string(buffer, count), "456789");
    EXPECT_EQ(stream->Read(buffer, 16, &count), S_OK);
    EXPECT_EQ(count, 0U);
}

TEST_F(FileStreamTest, TheCountsOfReadAndWriteAreOptional) {
    char buffer[4] = {};
    EXPECT_EQ(Open()->Read(buffer, 4, nullptr), S_OK);
    EXPECT_EQ(std::string(buffer, 4), "0123");
    EXPECT_EQ(Open(GENERIC_WRITE, CREATE_ALWAYS)->Write("ab", 2, nullptr), S_OK);
    EXPECT_EQ(ReadBytes(kFile), "ab");
}

TEST_F(FileStreamTest, WritesBytes) {
    ULONG count = 0;
    EXPECT_EQ(Open(GENERIC_WRITE, CREATE_ALWAYS)->Write("abc", 3, &count), S_OK);
    EXPECT_EQ(count, 3U);
    EXPECT_EQ(ReadBytes(kFile), "abc");
}

TEST_F(FileStreamTest, ErrorsOfThePlatformComeBackAsResults) {
    char buffer[4] = {};
    ULONG count = 7;
    EXPECT_EQ(Open(GENERIC_WRITE)->Read(buffer, 4, &count), ResultOf(ERROR_ACCESS_DENIED));
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(Open(GENERIC_READ)->Write("a", 1, &count), ResultOf(ERROR_ACCESS_DENIED));
    EXPECT_EQ(Broken()->Read(buffer, 4, &count), ResultOf(ERROR_INVALID_HANDLE));
    EXPECT_EQ(Broken()->Seek(Distance(0), STREAM_SEEK_SET, nullptr), ResultOf(ERROR_INVALID_HANDLE));
    STATSTG statistics = {};
    EXPECT_EQ(Broken()->Stat(&statistics, STATFLAG_NONAME), ResultOf(ERROR_INVALID_HANDLE));
}

TEST_F(FileStreamTest, ErrorCodesKeepTheirLowSixteenBitsAndNegativeOnesPassUnchanged) {
    ImportHooks hooks(GetModuleHandleW(nullptr));
    DWORD error = 0;
    CORVI_HOOK(hooks, ReadFile, [&](HANDLE, LPVOID, DWORD, LPDWORD, LPOVERLAPPED) -> BOOL {
        SetLastError(error);
        return FALSE;
    });
    const auto stream = Open();
    error = 0x12345;
    EXPECT_EQ(stream->Read(nullptr, 0, nullptr), static_cast<HRESULT>(0x80072345U));
    error = 0x8000FFFFU;
    EXPECT_EQ(stream->Read(nullptr, 0, nullptr), E_UNEXPECTED);
    error = 0;
    EXPECT_EQ(stream->Read(nullptr, 0, nullptr), S_OK);
}

TEST_F(FileStreamTest, SeeksFromTheStartTheCurrentPositionAndTheEnd) {
    const auto stream = Open();
    ULARGE_INTEGER position = {};
    EXPECT_EQ(stream->Seek(Distance(4), 0, &position), S_OK);
    EXPECT_EQ(position.QuadPart, 4U);
    EXPECT_EQ(stream->Seek(Distance(3), 1, &position), S_OK);
    EXPECT_EQ(position.QuadPart, 7U);
    EXPECT_EQ(stream->Seek(Distance(-1), 2, &position), S_OK);
    EXPECT_EQ(position.QuadPart, 9U);
    EXPECT_EQ(stream->Seek(Distance(0), 0, nullptr), S_OK);
    char first = 0;
    EXPECT_EQ(stream->Read(&first, 1, nullptr), S_OK);
    EXPECT_EQ(first, '0');
}

TEST_F(FileStreamTest, AnUnknownOriginIsAnInvalidFunction) {
    EXPECT_EQ(Open()->Seek(Distance(0), 3, nullptr), STG_E_INVALIDFUNCTION);
}

TEST_F(FileStreamTest, SeekingBeforeTheStartFails) {
    EXPECT_EQ(Open()->Seek(Distance(-1), 0, nullptr), ResultOf(ERROR_NEGATIVE_SEEK));
}

TEST_F(FileStreamTest, StatWritesTheSizeAndNoOtherField) {
    STATSTG statistics;
    std::memset(&statistics, 0xAB, sizeof(statistics));
    STATSTG expected = statistics;
    expected.cbSize.QuadPart = 10;
    EXPECT_EQ(Open()->Stat(&statistics, STATFLAG_DEFAULT), S_OK);
    EXPECT_EQ(std::memcmp(&statistics, &expected, sizeof(statistics)), 0);
}

TEST_F(FileStreamTest, StatIntoNothingIsRefused) {
    EXPECT_EQ(Open()->Stat(nullptr, STATFLAG_NONAME), STG_E_INVALIDPOINTER);
}

TEST_F(FileStreamTest, TheOtherOperationsAreNotImplemented) {
    const auto stream = Open();
    const ULARGE_INTEGER none = {};
    EXPECT_EQ(stream->SetSize(none), E_NOTIMPL);
    EXPECT_EQ(stream->CopyTo(stream.Get(), none, nullptr, nullptr), E_NOTIMPL);
    EXPECT_EQ(stream->Commit(STGC_DEFAULT), E_NOTIMPL);
    EXPECT_EQ(stream->Revert(), E_NOTIMPL);
    EXPECT_EQ(stream->LockRegion(none, none, LOCK_WRITE), E_NOTIMPL);
    EXPECT_EQ(stream->UnlockRegion(none, none, LOCK_WRITE), E_NOTIMPL);
    IStream* clone = nullptr;
    EXPECT_EQ(stream->Clone(&clone), E_NOTIMPL);
}

TEST_F(FileStreamTest, AFileThatCannotBeOpenedGivesThePlatformErrorAndNoStream) {
    ComPtr<IStream> stream;
    EXPECT_EQ(FileStream::Open(kMissing, GENERIC_READ, OPEN_EXISTING, stream),
              ResultOf(ERROR_PATH_NOT_FOUND));
    EXPECT_FALSE(stream);
}

TEST_F(FileStreamTest, AFileThatIsNotOpenedIsAFailureEvenWithoutAnErrorCode) {
    ImportHooks hooks(GetModuleHandleW(nullptr));
    CORVI_HOOK(hooks, CreateFileW, [](LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
        SetLastError(ERROR_SUCCESS);
        return INVALID_HANDLE_VALUE;
    });
    ComPtr<IStream> stream;
    EXPECT_EQ(FileStream::Open(kMissing, GENERIC_READ, OPEN_EXISTING, stream), E_FAIL);
    EXPECT_FALSE(stream);
}

}  // namespace
}  // namespace corvi::test
