#include "tasks/task_file.h"

#include <wrl/client.h>
#include <xmllite.h>

#include <ctime>
#include <functional>
#include <optional>
#include <string_view>
#include <utility>

#include "runtime/standard_output.h"
#include "runtime/text.h"
#include "tasks/file_stream.h"

namespace corvi {
namespace {

using Microsoft::WRL::ComPtr;

constexpr wchar_t kWorkingDirectoryElement[] = L"WorkingDirectory";
constexpr wchar_t kStartBoundaryElement[] = L"StartBoundary";

constexpr wchar_t kEncoding[] = L"utf-16";
constexpr wchar_t kBaseUri[] = L"c:\\temp";

constexpr wchar_t kOpenSourceFailed[] = L"Error creating file reader";
constexpr wchar_t kOpenDestinationFailed[] = L"Error creating file writer";
constexpr wchar_t kCreateReaderFailed[] = L"Error creating xml reader";
constexpr wchar_t kCreateInputFailed[] = L"Error creating xml reader with encoding code page";
constexpr wchar_t kCreateWriterFailed[] = L"Error creating xml writer";
// Kept: a failure of the writer's output is told in the reader's words.
constexpr const wchar_t* kCreateOutputFailed = kCreateInputFailed;
constexpr wchar_t kSetInputFailed[] = L"Error setting input for reader";
constexpr wchar_t kSetOutputFailed[] = L"Error setting output for writer";
constexpr wchar_t kSetIndentFailed[] = L"Error setting indent property in writer";
constexpr wchar_t kReadNameFailed[] = L"Error reading element name";
constexpr wchar_t kReadValueFailed[] = L"Error reading value";
constexpr wchar_t kWriteStringFailed[] = L"Error writing WriteString";
constexpr wchar_t kWriteEndElementFailed[] = L"Error writing WriteFullEndElement";
constexpr wchar_t kWriteNodeFailed[] = L"Error writing WriteNodeShallow";

// Enough for every message.
constexpr size_t kMessageCapacity = 128;

// Passes a step's result on; a failed step is named on standard output.
HRESULT Checked(HRESULT result, const wchar_t* failure) {
    if (FAILED(result)) {
        WriteStandardOutput(FormatBounded(kMessageCapacity, L"%ls, error is %08.8lx", failure,
                                          static_cast<unsigned long>(result)));
    }
    return result;
}

// Gives the text that stands in for the text node at which the reader is.
using Replacement = std::function<HRESULT(IXmlReader& reader, std::wstring& text)>;

// One copy in progress: the two files, and the XML objects between them.
class TaskFileCopy {
public:
    TaskFileCopy(std::wstring_view element, Replacement replacement)
        : element_(element), replacement_(std::move(replacement)) {}

    HRESULT Run(const std::wstring& source, const std::wstring& destination);

private:
    HRESULT OpenFiles(const std::wstring& source, const std::wstring& destination);
    HRESULT CreateReader();
    HRESULT CreateWriter();
    HRESULT Connect();
    HRESULT CopyNodes();
    HRESULT CopyNode(XmlNodeType type);
    HRESULT CopyStartTag();
    HRESULT CopyText();
    HRESULT CopyEndTag();
    HRESULT CopyUnchanged();
    HRESULT IsAtTarget(bool& isTarget);

    std::wstring_view element_;
    Replacement replacement_;
    bool insideTarget_ = false;
    ComPtr<IStream> source_;
    ComPtr<IStream> destination_;
    ComPtr<IXmlReader> reader_;
    ComPtr<IXmlReaderInput> input_;
    ComPtr<IXmlWriter> writer_;
    ComPtr<IXmlWriterOutput> output_;
};

HRESULT TaskFileCopy::Run(const std::wstring& source, const std::wstring& destination) {
    HRESULT result = OpenFiles(source, destination);
    if (SUCCEEDED(result)) {
        result = CreateReader();
    }
    if (SUCCEEDED(result)) {
        result = CreateWriter();
    }
    if (SUCCEEDED(result)) {
        result = Connect();
    }
    if (SUCCEEDED(result)) {
        result = CopyNodes();
        // What is still in the writer's buffer has to reach the file before its last reference goes. The
        // result stays that of the copy.
        writer_->Flush();
    }
    return result;
}

HRESULT TaskFileCopy::OpenFiles(const std::wstring& source, const std::wstring& destination) {
    const HRESULT result =
        Checked(FileStream::Open(source, GENERIC_READ, OPEN_EXISTING, source_), kOpenSourceFailed);
    if (FAILED(result)) {
        return result;
    }
    return Checked(FileStream::Open(destination, GENERIC_WRITE, CREATE_ALWAYS, destination_),
                   kOpenDestinationFailed);
}

HRESULT TaskFileCopy::CreateReader() {
    const HRESULT result =
        Checked(CreateXmlReader(__uuidof(IXmlReader),
                                reinterpret_cast<void**>(reader_.ReleaseAndGetAddressOf()), nullptr),
                kCreateReaderFailed);
    if (FAILED(result)) {
        return result;
    }
    reader_->SetProperty(XmlReaderProperty_DtdProcessing, DtdProcessing_Prohibit);
    // No hint: the encoding is taken as it is stated here, whatever the file declares.
    return Checked(CreateXmlReaderInputWithEncodingName(source_.Get(), nullptr, kEncoding, FALSE, kBaseUri,
                                                        input_.ReleaseAndGetAddressOf()),
                   kCreateInputFailed);
}

HRESULT TaskFileCopy::CreateWriter() {
    const HRESULT result =
        Checked(CreateXmlWriter(__uuidof(IXmlWriter),
                                reinterpret_cast<void**>(writer_.ReleaseAndGetAddressOf()), nullptr),
                kCreateWriterFailed);
    if (FAILED(result)) {
        return result;
    }
    return Checked(CreateXmlWriterOutputWithEncodingName(destination_.Get(), nullptr, kEncoding,
                                                         output_.ReleaseAndGetAddressOf()),
                   kCreateOutputFailed);
}

HRESULT TaskFileCopy::Connect() {
    HRESULT result = Checked(reader_->SetInput(input_.Get()), kSetInputFailed);
    if (SUCCEEDED(result)) {
        result = Checked(writer_->SetOutput(output_.Get()), kSetOutputFailed);
    }
    if (SUCCEEDED(result)) {
        result = Checked(writer_->SetProperty(XmlWriterProperty_Indent, TRUE), kSetIndentFailed);
    }
    return result;
}

HRESULT TaskFileCopy::CopyNodes() {
    XmlNodeType type = XmlNodeType_None;
    HRESULT read = S_OK;
    while ((read = reader_->Read(&type)) == S_OK) {
        const HRESULT copied = CopyNode(type);
        if (FAILED(copied)) {
            return copied;
        }
    }
    return read;
}

HRESULT TaskFileCopy::CopyNode(XmlNodeType type) {
    switch (type) {
        case XmlNodeType_Element:
            return CopyStartTag();
        case XmlNodeType_Text:
            return CopyText();
        case XmlNodeType_EndElement:
            return CopyEndTag();
        default:
            return CopyUnchanged();
    }
}

// Another element's start tag leaves the flag as it is: the target's text may stand below it.
HRESULT TaskFileCopy::CopyStartTag() {
    if (reader_->IsEmptyElement() != FALSE) {
        insideTarget_ = false;
        return CopyUnchanged();
    }
    bool isTarget = false;
    const HRESULT result = IsAtTarget(isTarget);
    if (FAILED(result)) {
        return result;
    }
    insideTarget_ = insideTarget_ || isTarget;
    return CopyUnchanged();
}

HRESULT TaskFileCopy::CopyText() {
    if (!insideTarget_) {
        return CopyUnchanged();
    }
    std::wstring text;
    const HRESULT result = replacement_(*reader_.Get(), text);
    if (FAILED(result)) {
        return result;
    }
    insideTarget_ = false;
    return Checked(writer_->WriteString(text.c_str()), kWriteStringFailed);
}

HRESULT TaskFileCopy::CopyEndTag() {
    bool isTarget = false;
    const HRESULT result = IsAtTarget(isTarget);
    if (FAILED(result)) {
        return result;
    }
    insideTarget_ = insideTarget_ && !isTarget;
    return Checked(writer_->WriteFullEndElement(), kWriteEndElementFailed);
}

HRESULT TaskFileCopy::CopyUnchanged() {
    return Checked(writer_->WriteNodeShallow(reader_.Get(), FALSE), kWriteNodeFailed);
}

HRESULT TaskFileCopy::IsAtTarget(bool& isTarget) {
    LPCWSTR name = nullptr;
    const HRESULT result = Checked(reader_->GetQualifiedName(&name, nullptr), kReadNameFailed);
    isTarget = SUCCEEDED(result) && name != nullptr && name == element_;
    return result;
}

// ---- The start of the next day

constexpr time_t kSecondsOfDay = 86400;

std::optional<tm> LocalTime(time_t time) {
    const tm* local = std::localtime(&time);
    return local != nullptr ? std::optional(*local) : std::nullopt;
}

// The next day's midnight in standard time, also while daylight-saving time is in force. Nothing when the
// platform cannot tell: a day that is none must not stand in the task.
std::optional<tm> StartOfNextDay() {
    const auto now = LocalTime(std::time(nullptr));
    if (!now) {
        return std::nullopt;
    }
    tm midnight{};
    midnight.tm_year = now->tm_year;
    midnight.tm_mon = now->tm_mon;
    midnight.tm_mday = now->tm_mday;
    const time_t start = std::mktime(&midnight);
    return start != -1 ? LocalTime(start + kSecondsOfDay) : std::nullopt;
}

// Kept: the numbers have no leading zeros.
std::wstring BoundaryText(const tm& start) {
    const std::wstring date = std::to_wstring(start.tm_year + 1900) + L'-' +
                              std::to_wstring(start.tm_mon + 1) + L'-' + std::to_wstring(start.tm_mday);
    return date + L'T' + std::to_wstring(start.tm_hour) + L':' + std::to_wstring(start.tm_min) + L':' +
           std::to_wstring(start.tm_sec);
}

HRESULT NextDayBoundary(IXmlReader& reader, std::wstring& text) {
    LPCWSTR value = nullptr;
    const HRESULT result = Checked(reader.GetValue(&value, nullptr), kReadValueFailed);
    if (FAILED(result)) {
        return result;
    }
    if (value == nullptr || *value == L'\0') {
        return E_UNEXPECTED;
    }
    const auto start = StartOfNextDay();
    if (!start) {
        return E_UNEXPECTED;
    }
    text = BoundaryText(*start);
    return S_OK;
}

}  // namespace

HRESULT RewriteTaskFile(const std::wstring& source, const std::wstring& destination,
                        const std::wstring& workingDirectory) {
    const Replacement replacement = [&](IXmlReader&, std::wstring& text) {
        text = workingDirectory;
        return S_OK;
    };
    return TaskFileCopy(kWorkingDirectoryElement, replacement).Run(source, destination);
}

HRESULT RewriteTaskStartBoundary(const std::wstring& source, const std::wstring& destination) {
    return TaskFileCopy(kStartBoundaryElement, NextDayBoundary).Run(source, destination);
}

}  // namespace corvi
