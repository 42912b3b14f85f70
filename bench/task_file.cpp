#include "tasks/task_file.h"

#include <windows.h>

#include <shlwapi.h>
#include <wrl/client.h>
#include <xmllite.h>

#include <string>

#include "bench/rows.h"
#include "runtime/kernel_handle.h"

namespace corvi::bench {
namespace {

using Microsoft::WRL::ComPtr;

constexpr wchar_t kSource[] = L"C:\\corvi\\source.xml";
constexpr wchar_t kRewritten[] = L"C:\\corvi\\rewritten.xml";
constexpr wchar_t kCopied[] = L"C:\\corvi\\copied.xml";
constexpr size_t kFileBytes = size_t{12} * 1024;
constexpr int kTimesPerRound = 100;

// One task file of about 12 KB in UTF-16, without blanks between its elements.
void MakeSource() {
    std::wstring text = L"<?xml version=\"1.0\" encoding=\"UTF-16\"?><Task version=\"1.2\"><Actions>";
    for (int number = 0; text.size() * sizeof(wchar_t) < kFileBytes; ++number) {
        text += L"<Exec><Command>C:\\Program Files\\Suite\\tool" + std::to_wstring(number) +
                L".exe</Command><WorkingDirectory>C:\\Suite</WorkingDirectory></Exec>";
    }
    text += L"</Actions></Task>";
    const FileHandle file(
        CreateFileW(kSource, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    Require(file && WriteFile(file.Get(), text.data(), static_cast<DWORD>(text.size() * sizeof(wchar_t)),
                              &written, nullptr) != FALSE,
            "making a task file");
}

// Wine's reader gives every node of a file between 8 and 16 KB, but then an error instead of the end: what
// counts is that the last node has arrived. Indenting makes the copy longer than the source.
void CheckCopy(const wchar_t* path) {
    WIN32_FILE_ATTRIBUTE_DATA copy = {};
    Require(
        GetFileAttributesExW(path, GetFileExInfoStandard, &copy) != FALSE && copy.nFileSizeLow > kFileBytes,
        "copying a task file");
    DeleteFileW(path);
}

// What cannot be avoided: every node from the platform's reader to its writer, over the shell's own file
// streams.
void CopyBare() {
    ComPtr<IStream> source;
    ComPtr<IStream> destination;
    ComPtr<IXmlReader> reader;
    ComPtr<IXmlReaderInput> input;
    ComPtr<IXmlWriter> writer;
    ComPtr<IXmlWriterOutput> output;
    SHCreateStreamOnFileEx(kSource, STGM_READ | STGM_SHARE_DENY_WRITE, 0, FALSE, nullptr,
                           source.GetAddressOf());
    SHCreateStreamOnFileEx(kCopied, STGM_CREATE | STGM_WRITE, FILE_ATTRIBUTE_NORMAL, TRUE, nullptr,
                           destination.GetAddressOf());
    CreateXmlReader(__uuidof(IXmlReader), reinterpret_cast<void**>(reader.GetAddressOf()), nullptr);
    CreateXmlReaderInputWithEncodingName(source.Get(), nullptr, L"utf-16", FALSE, nullptr,
                                         input.GetAddressOf());
    CreateXmlWriter(__uuidof(IXmlWriter), reinterpret_cast<void**>(writer.GetAddressOf()), nullptr);
    CreateXmlWriterOutputWithEncodingName(destination.Get(), nullptr, L"utf-16", output.GetAddressOf());
    reader->SetInput(input.Get());
    writer->SetOutput(output.Get());
    writer->SetProperty(XmlWriterProperty_Indent, TRUE);
    XmlNodeType type = XmlNodeType_None;
    while (reader->Read(&type) == S_OK) {
        if (type == XmlNodeType_EndElement) {
            writer->WriteFullEndElement();
        } else {
            writer->WriteNodeShallow(reader.Get(), FALSE);
        }
    }
    writer->Flush();
}

}  // namespace

Row RewriteTaskFileRow() {
    return {"RewriteTaskFile, 12 KB",
            {"RewriteTaskFile", MakeSource, [] { RewriteTaskFile(kSource, kRewritten, L"D:\\Suite"); },
             [] { CheckCopy(kRewritten); }},
            {{{"bare copy from reader to writer", MakeSource, CopyBare, [] { CheckCopy(kCopied); }}, 1.1}},
            kTimesPerRound};
}

}  // namespace corvi::bench
