#pragma once

#include <windows.h>

#include <xmllite.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/import_hooks.h"

namespace corvi::test {

struct XmlNode {
    XmlNodeType type;
    std::wstring text;  ///< the name of an element or end tag, else the value
    bool isEmptyElement = false;
};

XmlNode StartTag(const std::wstring& name);
XmlNode EmptyElement(const std::wstring& name);
XmlNode EndTag(const std::wstring& name);
XmlNode Text(const std::wstring& value);
XmlNode Node(XmlNodeType type, const std::wstring& value);

/// An XML reader and writer that do what they are told instead of the platform's, for the code of one
/// module. The reader gives the nodes one by one; the writer keeps what it is asked to write, and writes
/// it to its stream only when it is flushed.
class ScriptedXml {
public:
    explicit ScriptedXml(HMODULE module);
    ScriptedXml(const ScriptedXml&) = delete;
    ScriptedXml& operator=(const ScriptedXml&) = delete;

    /// The source document; the reader answers endOfInput after its last node.
    std::vector<XmlNode> nodes;
    HRESULT endOfInput = S_FALSE;
    /// Takes the place of nodes for documents that are made while they are read.
    std::function<std::optional<XmlNode>(IStream& source)> nextNode;

    /// Results of steps by their names ("CreateXmlReader", "SetInput", "WriteString", ...).
    std::map<std::string, HRESULT> failures;
    /// Called before each step with its name.
    std::function<void(const std::string& step)> onStep;

    /// The value that GetValue gives, for a reader whose value is not the node's.
    std::function<const wchar_t*(const XmlNode&)> valueOf;

    /// Every step in order, with the arguments of those that have any: "CreateXmlReaderInput utf-16 0
    /// c:\temp", "SetProperty reader 4 0".
    std::vector<std::wstring> steps;
    /// What was written: "<name>", "<name/>", "</name>", a text, "[type value]" for other nodes.
    std::vector<std::wstring> written;
    /// Off: what is written goes to the stream at once, and nothing is kept.
    bool keepsWritten = true;
    /// Balance of the references of all objects handed out.
    long references = 0;

    HRESULT Step(const std::string& name, const std::wstring& arguments = L"");

private:
    ImportHooks hooks_;
};

}  // namespace corvi::test
