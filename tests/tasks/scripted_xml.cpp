#include "tests/tasks/scripted_xml.h"

#include <wrl/client.h>

namespace corvi::test {
namespace {

using Microsoft::WRL::ComPtr;

template <typename Interface>
class Counted : public Interface {
public:
    explicit Counted(ScriptedXml& xml) : xml_(xml) { ++xml_.references; }
    virtual ~Counted() = default;
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** object) override {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override {
        ++xml_.references;
        return ++count_;
    }
    ULONG STDMETHODCALLTYPE Release() override {
        --xml_.references;
        const ULONG left = --count_;
        if (left == 0) {
            delete this;
        }
        return left;
    }

protected:
    ScriptedXml& xml_;

private:
    ULONG count_ = 1;
};

// A reader's input or a writer's output: it holds the stream.
class Connection final : public Counted<IUnknown> {
public:
    Connection(ScriptedXml& xml, IUnknown* stream) : Counted(xml) {
        stream->QueryInterface(__uuidof(IStream), reinterpret_cast<void**>(stream_.ReleaseAndGetAddressOf()));
    }
    IStream& Stream() const { return *stream_.Get(); }

private:
    ComPtr<IStream> stream_;
};

class Reader final : public Counted<IXmlReader> {
public:
    using Counted::Counted;

    HRESULT STDMETHODCALLTYPE SetInput(IUnknown* input) override {
        input_ = static_cast<Connection*>(input);
        return xml_.Step("SetInput");
    }
    HRESULT STDMETHODCALLTYPE SetProperty(UINT property, LONG_PTR value) override {
        return xml_.Step("SetReaderProperty", std::to_wstring(property) + L' ' + std::to_wstring(value));
    }
    HRESULT STDMETHODCALLTYPE Read(XmlNodeType* type) override {
        current_ = Next();
        if (!current_) {
            return xml_.endOfInput;
        }
        *type = current_->type;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetQualifiedName(LPCWSTR* name, UINT* length) override {
        return Give("GetQualifiedName", current_->text.c_str(), name, length);
    }
    HRESULT STDMETHODCALLTYPE GetValue(LPCWSTR* value, UINT* length) override {
        return Give("GetValue", xml_.valueOf ? xml_.valueOf(*current_) : current_->text.c_str(), value,
                    length);
    }
    BOOL STDMETHODCALLTYPE IsEmptyElement() override { return current_->isEmptyElement ? TRUE : FALSE; }

    const XmlNode& Current() const { return *current_; }

    HRESULT STDMETHODCALLTYPE GetProperty(UINT, LONG_PTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetNodeType(XmlNodeType*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE MoveToFirstAttribute() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE MoveToNextAttribute() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE MoveToAttributeByName(LPCWSTR, LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE MoveToElement() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetNamespaceUri(LPCWSTR*, UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetLocalName(LPCWSTR*, UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetPrefix(LPCWSTR*, UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE ReadValueChunk(WCHAR*, UINT, UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetBaseUri(LPCWSTR*, UINT*) override { return E_NOTIMPL; }
    BOOL STDMETHODCALLTYPE IsDefault() override { return FALSE; }
    HRESULT STDMETHODCALLTYPE GetLineNumber(UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetLinePosition(UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetAttributeCount(UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetDepth(UINT*) override { return E_NOTIMPL; }
    BOOL STDMETHODCALLTYPE IsEOF() override { return FALSE; }

private:
    std::optional<XmlNode> Next() {
        if (xml_.nextNode) {
            return xml_.nextNode(input_->Stream());
        }
        return position_ < xml_.nodes.size() ? std::optional(xml_.nodes[position_++]) : std::nullopt;
    }

    HRESULT Give(const char* step, const wchar_t* text, LPCWSTR* target, UINT* length) {
        const HRESULT result = xml_.Step(step);
        *target = SUCCEEDED(result) ? text : nullptr;
        if (length != nullptr) {
            *length = *target != nullptr ? static_cast<UINT>(wcslen(*target)) : 0;
        }
        return result;
    }

    ComPtr<Connection> input_;
    std::optional<XmlNode> current_;
    size_t position_ = 0;
};

std::wstring Written(const XmlNode& node) {
    switch (node.type) {
        case XmlNodeType_Element:
            return L'<' + node.text + (node.isEmptyElement ? L"/>" : L">");
        case XmlNodeType_Text:
            return node.text;
        default:
            return L'[' + std::to_wstring(static_cast<int>(node.type)) + L' ' + node.text + L']';
    }
}

class Writer final : public Counted<IXmlWriter> {
public:
    using Counted::Counted;

    HRESULT STDMETHODCALLTYPE SetOutput(IUnknown* output) override {
        output_ = static_cast<Connection*>(output);
        return xml_.Step("SetOutput");
    }
    HRESULT STDMETHODCALLTYPE SetProperty(UINT property, LONG_PTR value) override {
        return xml_.Step("SetWriterProperty", std::to_wstring(property) + L' ' + std::to_wstring(value));
    }
    HRESULT STDMETHODCALLTYPE WriteNodeShallow(IXmlReader* reader, BOOL defaultAttributes) override {
        const std::wstring text = Written(static_cast<Reader*>(reader)->Current());
        return Write("WriteNodeShallow", defaultAttributes != FALSE ? L"with default attributes" : text);
    }
    HRESULT STDMETHODCALLTYPE WriteString(LPCWSTR text) override { return Write("WriteString", text); }
    HRESULT STDMETHODCALLTYPE WriteFullEndElement() override { return Write("WriteFullEndElement", L"</>"); }
    HRESULT STDMETHODCALLTYPE Flush() override {
        const HRESULT result = xml_.Step("Flush");
        Send();
        return result;
    }

    HRESULT STDMETHODCALLTYPE GetProperty(UINT, LONG_PTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteAttributes(IXmlReader*, BOOL) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteAttributeString(LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE WriteCData(LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteCharEntity(WCHAR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteChars(const WCHAR*, UINT) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteComment(LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteDocType(LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteElementString(LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE WriteEndDocument() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteEndElement() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteEntityRef(LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteName(LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteNmToken(LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteNode(IXmlReader*, BOOL) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteProcessingInstruction(LPCWSTR, LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteQualifiedName(LPCWSTR, LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteRaw(LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteRawChars(const WCHAR*, UINT) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteStartDocument(XmlStandalone) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteStartElement(LPCWSTR, LPCWSTR, LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteSurrogateCharEntity(WCHAR, WCHAR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE WriteWhitespace(LPCWSTR) override { return E_NOTIMPL; }

private:
    HRESULT Write(const char* step, const std::wstring& text) {
        const HRESULT result = xml_.Step(step);
        if (FAILED(result)) {
            return result;
        }
        buffer_ += text;
        if (xml_.keepsWritten) {
            xml_.written.push_back(text);
        } else {
            Send();
        }
        return S_OK;
    }

    void Send() {
        ULONG count = 0;
        output_->Stream().Write(buffer_.data(), static_cast<ULONG>(buffer_.size() * sizeof(wchar_t)), &count);
        buffer_.clear();
    }

    ComPtr<Connection> output_;
    std::wstring buffer_;
};

}  // namespace

XmlNode StartTag(const std::wstring& name) { return {XmlNodeType_Element, name}; }
XmlNode EmptyElement(const std::wstring& name) { return {XmlNodeType_Element, name, true}; }
XmlNode EndTag(const std::wstring& name) { return {XmlNodeType_EndElement, name}; }
XmlNode Text(const std::wstring& value) { return {XmlNodeType_Text, value}; }
XmlNode Node(XmlNodeType type, const std::wstring& value) { return {type, value}; }

HRESULT ScriptedXml::Step(const std::string& name, const std::wstring& arguments) {
    if (onStep) {
        onStep(name);
    }
    if (keepsWritten) {
        const std::wstring wideName(name.begin(), name.end());
        steps.push_back(arguments.empty() ? wideName : wideName + L' ' + arguments);
    }
    const auto failure = failures.find(name);
    return failure == failures.end() ? S_OK : failure->second;
}

ScriptedXml::ScriptedXml(HMODULE module) : hooks_(module) {
    CORVI_HOOK(hooks_, CreateXmlReader, [this](REFIID id, void** object, IMalloc* allocator) -> HRESULT {
        const bool asExpected = id == __uuidof(IXmlReader) && allocator == nullptr;
        const HRESULT result = Step("CreateXmlReader", asExpected ? L"" : L"of something else");
        *object = SUCCEEDED(result) ? new Reader(*this) : nullptr;
        return result;
    });
    CORVI_HOOK(hooks_, CreateXmlReaderInputWithEncodingName,
               [this](IUnknown* stream, IMalloc* allocator, LPCWSTR encoding, BOOL hint, LPCWSTR baseUri,
                      IXmlReaderInput** input) -> HRESULT {
                   const HRESULT result =
                       Step("CreateXmlReaderInputWithEncodingName",
                            std::wstring(encoding) + L' ' + std::to_wstring(hint) + L' ' + baseUri +
                                (allocator == nullptr ? L"" : L" with an allocator"));
                   *input = SUCCEEDED(result) ? new Connection(*this, stream) : nullptr;
                   return result;
               });
    CORVI_HOOK(hooks_, CreateXmlWriter, [this](REFIID id, void** object, IMalloc* allocator) -> HRESULT {
        const bool asExpected = id == __uuidof(IXmlWriter) && allocator == nullptr;
        const HRESULT result = Step("CreateXmlWriter", asExpected ? L"" : L"of something else");
        *object = SUCCEEDED(result) ? new Writer(*this) : nullptr;
        return result;
    });
    CORVI_HOOK(
        hooks_, CreateXmlWriterOutputWithEncodingName,
        [this](IUnknown* stream, IMalloc* allocator, LPCWSTR encoding, IXmlWriterOutput** output) -> HRESULT {
            const HRESULT result =
                Step("CreateXmlWriterOutputWithEncodingName",
                     std::wstring(encoding) + (allocator == nullptr ? L"" : L" with an allocator"));
            *output = SUCCEEDED(result) ? new Connection(*this, stream) : nullptr;
            return result;
        });
}

}  // namespace corvi::test
