#include "tasks/task_file.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <psapi.h>

#include <ctime>
#include <filesystem>
#include <fstream>

#include "tests/support/import_hooks.h"
#include "tests/support/standard_output.h"
#include "tests/tasks/scripted_xml.h"
#include "tests/tasks/task_files.h"

namespace corvi::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using Lines = std::vector<std::wstring>;

constexpr wchar_t kSource[] = L"C:\\corvi\\source.xml";
constexpr wchar_t kDestination[] = L"C:\\corvi\\destination.xml";
constexpr wchar_t kWorkingDirectory[] = L"WorkingDirectory";

HRESULT ResultOf(DWORD error) { return static_cast<HRESULT>(0x80070000U | error); }

class TaskFileTest : public testing::Test {
protected:
    TaskFileTest() { WriteBytes(kSource, "source"); }
    ~TaskFileTest() override {
        std::filesystem::remove(kSource);
        std::filesystem::remove(kDestination);
    }

    // Rewrites and keeps what was printed.
    HRESULT Rewrite(const std::wstring& workingDirectory = L"NEW") {
        StandardOutput output;
        const HRESULT result = RewriteTaskFile(kSource, kDestination, workingDirectory);
        printed_ = output.Text();
        return result;
    }
    HRESULT RewriteStartBoundary() {
        StandardOutput output;
        const HRESULT result = RewriteTaskStartBoundary(kSource, kDestination);
        printed_ = output.Text();
        return result;
    }

    std::string printed_;
};

// ---- On the platform's XML reader and writer

class RealXml : public TaskFileTest {
protected:
    // The copy of a document that is stored as given, with the new working directory.
    std::wstring Copy(const std::string& source) {
        WriteBytes(kSource, source);
        result_ = Rewrite();
        return ReadUtf16(kDestination);
    }

    HRESULT result_ = E_FAIL;
};

constexpr wchar_t kDocument[] =
    L"<Task><Author>somebody</Author><WorkingDirectory>old</WorkingDirectory><Empty/></Task>";

TEST_F(RealXml, TheWorkingDirectoryIsReplacedAndEverythingElseCopied) {
    const std::wstring copy = Copy(Utf16(kDocument));
    EXPECT_EQ(result_, S_FALSE) << "the reader's word for the end of its input";
    EXPECT_EQ(printed_, "");
    EXPECT_THAT(copy, HasSubstr(L"<WorkingDirectory>NEW</WorkingDirectory>"));
    EXPECT_THAT(copy, HasSubstr(L"<Author>somebody</Author>"));
    EXPECT_THAT(copy, HasSubstr(L"<Empty"));
    EXPECT_THAT(copy, Not(HasSubstr(L"old")));
}

TEST_F(RealXml, TheCopyIsUtf16WithByteOrderMark) {
    Copy(Utf16(kDocument));
    EXPECT_EQ(ReadBytes(kDestination).substr(0, 2), "\xFF\xFE");
}

TEST_F(RealXml, AWorkingDirectoryWithoutTextStaysWithout) {
    EXPECT_THAT(Copy(Utf16(L"<Task><WorkingDirectory/></Task>")), Not(HasSubstr(L"NEW")));
    EXPECT_EQ(result_, S_FALSE);
    EXPECT_THAT(Copy(Utf16(L"<Task><WorkingDirectory></WorkingDirectory></Task>")), Not(HasSubstr(L"NEW")));
    EXPECT_EQ(result_, S_FALSE);
}

TEST_F(RealXml, SupplementaryCharactersAreKept) {
    EXPECT_THAT(Copy(Utf16(L"<Task><Author>\xD83D\xDE00 \x65E5</Author></Task>")),
                HasSubstr(L"\xD83D\xDE00 \x65E5"));
}

TEST_F(RealXml, ASourceWithoutByteOrderMarkIsCopiedAsWell) {
    EXPECT_THAT(Copy(Utf16(kDocument, false)), HasSubstr(L"<WorkingDirectory>NEW</WorkingDirectory>"));
    EXPECT_EQ(result_, S_FALSE);
}

TEST_F(RealXml, AUtf16SourceThatDeclaresAnotherEncodingIsCopied) {
    const std::wstring declaration = L"<?xml version=\"1.0\" encoding=\"utf-8\"?>";
    EXPECT_THAT(Copy(Utf16(declaration + kDocument)), HasSubstr(L"NEW</WorkingDirectory>"));
    EXPECT_EQ(result_, S_FALSE);
}

// What the reader makes of a source in another encoding than the one it is told is the platform's matter.
TEST_F(RealXml, ASourceThatIsNotUtf16GivesNeitherACrashNorAMessage) {
    const std::string document =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?><Task><WorkingDirectory>old</WorkingDirectory></Task>";
    for (const char* mark : {"", "\xEF\xBB\xBF"}) {
        Copy(mark + document);
        EXPECT_EQ(printed_, "");
        EXPECT_TRUE(std::filesystem::exists(kDestination));
    }
}

TEST_F(RealXml, ADocumentTypeDeclarationIsRefused) {
    const std::wstring copy = Copy(Utf16(L"<!DOCTYPE Task><Task></Task>"));
    EXPECT_TRUE(FAILED(result_));
    EXPECT_EQ(printed_, "") << "a failing Read ends the copy without a message";
    EXPECT_THAT(copy, Not(HasSubstr(L"<Task")));
}

TEST_F(RealXml, AnEmptySourceGivesAnEmptyCopyAndTheReadersResult) {
    Copy("");
    EXPECT_NE(result_, S_OK);
    EXPECT_EQ(printed_, "");
    EXPECT_TRUE(std::filesystem::exists(kDestination));
}

TEST_F(RealXml, ASourceCutInTheMiddleOfACharacterEndsTheCopyWhereItIs) {
    std::string bytes = Utf16(kDocument);
    bytes.resize(bytes.size() - 21);
    const std::wstring copy = Copy(bytes);
    EXPECT_NE(result_, S_OK);
    EXPECT_THAT(copy, HasSubstr(L"<Author>somebody</Author>"));
}

TEST_F(RealXml, TheFilesAreClosedAfterwards) {
    Copy(Utf16(kDocument));
    for (const wchar_t* path : {kSource, kDestination}) {
        const HANDLE file = CreateFileW(path, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        EXPECT_NE(file, INVALID_HANDLE_VALUE);
        CloseHandle(file);
    }
}

TEST_F(RealXml, AnOlderCopyIsOverwritten) {
    WriteBytes(kDestination, std::string(10000, 'x'));
    EXPECT_LT(Copy(Utf16(kDocument)).size(), 1000U);
}

// ---- Opening the files

TEST_F(TaskFileTest, ASourceThatCannotBeOpenedIsReportedAndReturned) {
    std::filesystem::remove(kSource);
    EXPECT_EQ(Rewrite(), ResultOf(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(printed_, "Error creating file reader, error is 80070002");
    EXPECT_FALSE(std::filesystem::exists(kDestination));
}

TEST_F(TaskFileTest, ADestinationThatCannotBeOpenedIsReportedAndReturned) {
    StandardOutput output;
    const HRESULT result = RewriteTaskFile(kSource, L"C:\\corvi\\none\\copy.xml", L"NEW");
    EXPECT_EQ(output.Text(), "Error creating file writer, error is 80070003");
    EXPECT_EQ(result, ResultOf(ERROR_PATH_NOT_FOUND));
}

TEST_F(TaskFileTest, TheFilesAreOpenedSharedForReading) {
    ImportHooks hooks(GetModuleHandleW(nullptr));
    std::vector<std::vector<DWORD>> opened;
    CORVI_HOOK(hooks, CreateFileW,
               [&](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD creation,
                   DWORD attributes, HANDLE templateFile) -> HANDLE {
                   const std::wstring name = path;
                   if (name == kSource || name == kDestination) {
                       opened.push_back({access, share, creation, attributes});
                   }
                   return CORVI_ORIGINAL(hooks, CreateFileW)(path, access, share, security, creation,
                                                             attributes, templateFile);
               });
    RewriteTaskFile(kSource, kDestination, L"NEW");
    EXPECT_THAT(
        opened,
        ElementsAre(ElementsAre(GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL),
                    ElementsAre(GENERIC_WRITE, FILE_SHARE_READ, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL)));
}

// ---- On a scripted reader and writer

class ScriptedCopy : public TaskFileTest {
protected:
    ~ScriptedCopy() override { EXPECT_EQ(xml_.references, 0) << "every object is released"; }

    Lines CopyOf(std::vector<XmlNode> nodes) {
        xml_.nodes = std::move(nodes);
        EXPECT_EQ(Rewrite(), S_FALSE);
        EXPECT_EQ(printed_, "");
        return xml_.written;
    }

    ScriptedXml xml_{GetModuleHandleW(nullptr)};
};

TEST_F(ScriptedCopy, TheReaderAndTheWriterAreMadeInOrderWithTheirFixedArguments) {
    CopyOf({});
    EXPECT_EQ(xml_.steps, (Lines{L"CreateXmlReader", L"SetReaderProperty 4 0",
                                 L"CreateXmlReaderInputWithEncodingName utf-16 0 c:\\temp",
                                 L"CreateXmlWriter", L"CreateXmlWriterOutputWithEncodingName utf-16",
                                 L"SetInput", L"SetOutput", L"SetWriterProperty 1 1", L"Flush"}));
}

// The flag "hint" is off: the encoding is forced, whatever the source declares. Readers differ in what they
// make of it, so what the reader is told is looked at.
TEST_F(ScriptedCopy, TheEncodingUtf16IsForcedOnTheReaderWithoutAHint) {
    CopyOf({Node(XmlNodeType_XmlDeclaration, L"encoding=\"utf-8\"")});
    EXPECT_THAT(xml_.steps, testing::Contains(L"CreateXmlReaderInputWithEncodingName utf-16 0 c:\\temp"));
}

TEST_F(ScriptedCopy, AFailureToProhibitDocumentTypesIsNotChecked) {
    xml_.failures["SetReaderProperty"] = E_FAIL;
    EXPECT_EQ(CopyOf({StartTag(L"A")}), (Lines{L"<A>"}));
}

struct FailingStep {
    const char* name;
    const char* printed;
};

class ScriptedCopyFailure : public ScriptedCopy, public testing::WithParamInterface<FailingStep> {};

TEST_P(ScriptedCopyFailure, EndsTheCopyWithItsMessageAndItsResult) {
    xml_.nodes = {StartTag(kWorkingDirectory), Text(L"old"), EndTag(kWorkingDirectory)};
    xml_.failures[GetParam().name] = static_cast<HRESULT>(0x800700B7U);
    EXPECT_EQ(Rewrite(), static_cast<HRESULT>(0x800700B7U));
    EXPECT_EQ(printed_, std::string(GetParam().printed) + ", error is 800700b7");
    EXPECT_TRUE(std::filesystem::exists(kDestination));
}

INSTANTIATE_TEST_SUITE_P(
    Steps, ScriptedCopyFailure,
    testing::Values(FailingStep{"CreateXmlReader", "Error creating xml reader"},
                    FailingStep{"CreateXmlReaderInputWithEncodingName",
                                "Error creating xml reader with encoding code page"},
                    FailingStep{"CreateXmlWriter", "Error creating xml writer"},
                    // The reader's words, on purpose.
                    FailingStep{"CreateXmlWriterOutputWithEncodingName",
                                "Error creating xml reader with encoding code page"},
                    FailingStep{"SetInput", "Error setting input for reader"},
                    FailingStep{"SetOutput", "Error setting output for writer"},
                    FailingStep{"SetWriterProperty", "Error setting indent property in writer"},
                    FailingStep{"GetQualifiedName", "Error reading element name"},
                    FailingStep{"WriteNodeShallow", "Error writing WriteNodeShallow"},
                    FailingStep{"WriteString", "Error writing WriteString"},
                    FailingStep{"WriteFullEndElement", "Error writing WriteFullEndElement"}),
    [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_F(ScriptedCopy, AnEndTagWhoseNameCannotBeReadEndsTheCopy) {
    xml_.nodes = {StartTag(L"A"), Text(L"a"), EndTag(L"A")};
    xml_.onStep = [&](const std::string& step) {
        if (step == "WriteNodeShallow" && xml_.written.size() == 1) {
            xml_.failures["GetQualifiedName"] = E_FAIL;
        }
    };
    EXPECT_EQ(Rewrite(), E_FAIL);
    EXPECT_EQ(printed_, "Error reading element name, error is 80004005");
    EXPECT_EQ(xml_.written, (Lines{L"<A>", L"a"}));
}

TEST_F(ScriptedCopy, TheTextOfTheTargetIsReplacedByTheTextAsGiven) {
    xml_.nodes = {StartTag(L"Task"), StartTag(kWorkingDirectory), Text(L"old"), EndTag(kWorkingDirectory),
                  EndTag(L"Task")};
    EXPECT_EQ(Rewrite(L"C:\\a & b\\%s\\"), S_FALSE);
    EXPECT_EQ(xml_.written, (Lines{L"<Task>", L"<WorkingDirectory>", L"C:\\a & b\\%s\\", L"</>", L"</>"}));
}

TEST_F(ScriptedCopy, OnlyTheWholeNameInItsOwnCaseIsTheTarget) {
    EXPECT_EQ(CopyOf({StartTag(L"workingdirectory"), Text(L"a"), EndTag(L"workingdirectory"),
                      StartTag(L"WorkingDirectory2"), Text(L"b"), EndTag(L"WorkingDirectory2"),
                      StartTag(L"x:WorkingDirectory"), Text(L"c"), EndTag(L"x:WorkingDirectory")}),
              (Lines{L"<workingdirectory>", L"a", L"</>", L"<WorkingDirectory2>", L"b", L"</>",
                     L"<x:WorkingDirectory>", L"c", L"</>"}));
}

TEST_F(ScriptedCopy, OnlyTheFirstTextNodeAfterTheStartTagIsReplaced) {
    EXPECT_EQ(CopyOf({StartTag(kWorkingDirectory), Text(L"one"), Text(L"two"), EndTag(kWorkingDirectory)}),
              (Lines{L"<WorkingDirectory>", L"NEW", L"two", L"</>"}));
}

TEST_F(ScriptedCopy, ACommentBeforeTheTextDoesNotClearTheFlag) {
    EXPECT_EQ(CopyOf({StartTag(kWorkingDirectory), Node(XmlNodeType_Comment, L"c"), Text(L"old")}),
              (Lines{L"<WorkingDirectory>", L"[8 c]", L"NEW"}));
}

TEST_F(ScriptedCopy, ANestedElementBeforeTheTextDoesNotClearTheFlag) {
    EXPECT_EQ(CopyOf({StartTag(kWorkingDirectory), StartTag(L"A"), EndTag(L"A"), Text(L"old"),
                      EndTag(kWorkingDirectory)}),
              (Lines{L"<WorkingDirectory>", L"<A>", L"</>", L"NEW", L"</>"}));
}

TEST_F(ScriptedCopy, TheFirstTextInsideANestedElementReceivesTheReplacement) {
    EXPECT_EQ(CopyOf({StartTag(kWorkingDirectory), StartTag(L"A"), Text(L"inner"), EndTag(L"A"),
                      Text(L"outer"), EndTag(kWorkingDirectory)}),
              (Lines{L"<WorkingDirectory>", L"<A>", L"NEW", L"</>", L"outer", L"</>"}));
}

TEST_F(ScriptedCopy, ATargetWrittenAsAnEmptyElementStaysEmpty) {
    EXPECT_EQ(CopyOf({EmptyElement(kWorkingDirectory), Text(L"after")}),
              (Lines{L"<WorkingDirectory/>", L"after"}));
}

TEST_F(ScriptedCopy, AnyEmptyElementClearsTheFlag) {
    EXPECT_EQ(CopyOf({StartTag(kWorkingDirectory), EmptyElement(L"A"), Text(L"old")}),
              (Lines{L"<WorkingDirectory>", L"<A/>", L"old"}));
}

TEST_F(ScriptedCopy, ATargetWithAnImmediateEndTagReceivesNoText) {
    EXPECT_EQ(CopyOf({StartTag(kWorkingDirectory), EndTag(kWorkingDirectory), Text(L"after")}),
              (Lines{L"<WorkingDirectory>", L"</>", L"after"}));
}

TEST_F(ScriptedCopy, ASecondTargetIsReplacedAsWell) {
    EXPECT_EQ(CopyOf({StartTag(kWorkingDirectory), Text(L"a"), EndTag(kWorkingDirectory),
                      StartTag(kWorkingDirectory), Text(L"b"), EndTag(kWorkingDirectory)}),
              (Lines{L"<WorkingDirectory>", L"NEW", L"</>", L"<WorkingDirectory>", L"NEW", L"</>"}));
}

TEST_F(ScriptedCopy, OtherNodesAreCopiedAndASectionOfCharactersIsNoText) {
    EXPECT_EQ(CopyOf({Node(XmlNodeType_XmlDeclaration, L"d"), Node(XmlNodeType_Whitespace, L" "),
                      Node(XmlNodeType_ProcessingInstruction, L"p"), StartTag(kWorkingDirectory),
                      Node(XmlNodeType_CDATA, L"c"), Text(L"old")}),
              (Lines{L"[17 d]", L"[13  ]", L"[7 p]", L"<WorkingDirectory>", L"[4 c]", L"NEW"}));
}

TEST_F(ScriptedCopy, AFailingReadEndsTheCopyWithoutAMessage) {
    xml_.nodes = {StartTag(L"A"), Text(L"a")};
    xml_.endOfInput = static_cast<HRESULT>(0xC00CEE01U);
    EXPECT_EQ(Rewrite(), static_cast<HRESULT>(0xC00CEE01U));
    EXPECT_EQ(printed_, "");
    EXPECT_EQ(ReadUtf16(kDestination), L"<A>a") << "what was written until then stays";
}

TEST_F(ScriptedCopy, TheOutputReachesTheFileBeforeTheLastReferenceGoes) {
    CopyOf({StartTag(L"A"), Text(L"a"), EndTag(L"A")});
    EXPECT_EQ(ReadUtf16(kDestination), L"<A>a</>");
}

TEST_F(ScriptedCopy, AFailingFlushLeavesTheResultOfTheCopy) {
    xml_.failures["Flush"] = E_FAIL;
    EXPECT_EQ(CopyOf({StartTag(L"A")}), (Lines{L"<A>"}));
}

TEST_F(ScriptedCopy, AFailingStepLeavesTheDestinationAsFarAsItWasWritten) {
    xml_.nodes = {StartTag(L"A"), Text(L"a"), EndTag(L"A")};
    xml_.failures["WriteFullEndElement"] = E_FAIL;
    EXPECT_EQ(Rewrite(), E_FAIL);
    EXPECT_EQ(ReadUtf16(kDestination), L"<A>a");
}

size_t MemoryInUse() {
    PROCESS_MEMORY_COUNTERS counters = {};
    GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof(counters));
    return counters.PagefileUsage;
}

TEST_F(ScriptedCopy, ATaskFileOfTenMegabytesPassesThroughInFlatMemory) {
    constexpr size_t kSize = 10U << 20;
    WriteBytes(kSource, std::string(kSize, 'x'));
    xml_.keepsWritten = false;
    size_t atStart = 0;
    size_t atEnd = 0;
    xml_.nextNode = [&](IStream& source) -> std::optional<XmlNode> {
        std::wstring piece(2048, L'\0');
        ULONG count = 0;
        EXPECT_EQ(source.Read(piece.data(), 4096, &count), S_OK);
        piece.resize(count / sizeof(wchar_t));
        atEnd = MemoryInUse();
        atStart = atStart == 0 ? atEnd : atStart;
        return count == 0 ? std::nullopt : std::optional(Text(piece));
    };
    EXPECT_EQ(Rewrite(), S_FALSE);
    EXPECT_EQ(std::filesystem::file_size(kDestination), kSize);
    EXPECT_GT(atStart, 0U);
    EXPECT_LT(atEnd, atStart + (1U << 20));
}

// ---- The start boundary

class StartBoundary : public ScriptedCopy {
protected:
    ~StartBoundary() override { SetZone("UTC0"); }

    static void SetZone(const char* zone) {
        _putenv((std::string("TZ=") + zone).c_str());
        _tzset();
    }

    // Noon of a day in local time.
    static time_t Noon(int year, int month, int day) {
        tm local = {};
        local.tm_year = year - 1900;
        local.tm_mon = month - 1;
        local.tm_mday = day;
        local.tm_hour = 12;
        local.tm_isdst = -1;
        return mktime(&local);
    }

    std::wstring BoundaryAt(time_t now) {
        ImportHooks hooks(GetModuleHandleW(nullptr));
        CORVI_HOOK(hooks, _time64, [&](__time64_t*) -> __time64_t { return now; });
        xml_.written.clear();
        xml_.nodes = {StartTag(L"StartBoundary"), Text(L"2020-01-01T00:00:00"), EndTag(L"StartBoundary")};
        EXPECT_EQ(RewriteStartBoundary(), S_FALSE);
        return xml_.written.size() == 3 ? xml_.written[1] : L"";
    }
    std::wstring BoundaryOn(int year, int month, int day) { return BoundaryAt(Noon(year, month, day)); }
};

TEST_F(StartBoundary, IsTheNextDayAtMidnightWithoutPadding) {
    SetZone("UTC0");
    EXPECT_EQ(BoundaryOn(2025, 3, 7), L"2025-3-8T0:0:0");
    EXPECT_EQ(BoundaryOn(2025, 11, 11), L"2025-11-12T0:0:0");
}

TEST_F(StartBoundary, OnTheLastDayOfAMonthItNamesTheFirstOfTheNext) {
    SetZone("UTC0");
    EXPECT_EQ(BoundaryOn(2025, 1, 31), L"2025-2-1T0:0:0");
    EXPECT_EQ(BoundaryOn(2025, 4, 30), L"2025-5-1T0:0:0");
}

TEST_F(StartBoundary, OnTheLastDayOfAYearItNamesTheFirstOfTheNext) {
    SetZone("UTC0");
    EXPECT_EQ(BoundaryOn(2025, 12, 31), L"2026-1-1T0:0:0");
}

TEST_F(StartBoundary, KnowsLeapDays) {
    SetZone("UTC0");
    EXPECT_EQ(BoundaryOn(2028, 2, 28), L"2028-2-29T0:0:0");
    EXPECT_EQ(BoundaryOn(2028, 2, 29), L"2028-3-1T0:0:0");
    EXPECT_EQ(BoundaryOn(2027, 2, 28), L"2027-3-1T0:0:0");
}

TEST_F(StartBoundary, IsReckonedInLocalTime) {
    SetZone("UTC0");
    const time_t lateEvening = Noon(2025, 1, 15) + 11 * 3600;
    EXPECT_EQ(BoundaryAt(lateEvening), L"2025-1-16T0:0:0");
    SetZone("JST-9");
    EXPECT_EQ(BoundaryAt(lateEvening), L"2025-1-17T0:0:0");
    SetZone("PST8");
    EXPECT_EQ(BoundaryAt(lateEvening), L"2025-1-16T0:0:0");
}

TEST_F(StartBoundary, OutsideDaylightSavingTimeTheHourIsZero) {
    SetZone("CET-1CEST");
    EXPECT_EQ(BoundaryOn(2025, 1, 15), L"2025-1-16T0:0:0");
    SetZone("EST5EDT");
    EXPECT_EQ(BoundaryOn(2025, 12, 31), L"2026-1-1T0:0:0");
}

TEST_F(StartBoundary, WhileDaylightSavingTimeIsInForceTheHourIsOne) {
    SetZone("CET-1CEST");
    EXPECT_EQ(BoundaryOn(2025, 7, 15), L"2025-7-16T1:0:0");
    SetZone("EST5EDT");
    EXPECT_EQ(BoundaryOn(2025, 7, 31), L"2025-8-1T1:0:0");
}

// The days of the switch are those of the runtime's own rules: the hour is one from the first midnight on
// that daylight-saving time covers, and zero again from the first one that it does not.
TEST_F(StartBoundary, TheHourFollowsTheSwitchOfTheDayThatItNames) {
    SetZone("CET-1CEST");
    int switches = 0;
    bool summerBefore = false;
    for (int day = 1; day <= 365; ++day) {
        const time_t noon = Noon(2025, 1, 1) + day * time_t{86400};
        const tm today = *localtime(&noon);
        // Standard midnight of the day after, one hour east of Greenwich.
        const time_t start = (noon + 3600) / 86400 * 86400 + 86400 - 3600;
        const tm next = *localtime(&start);
        const bool summer = next.tm_isdst > 0;
        if (summer != summerBefore || today.tm_isdst != next.tm_isdst) {
            ++switches;
            const std::wstring expected = std::to_wstring(next.tm_year + 1900) + L'-' +
                                          std::to_wstring(next.tm_mon + 1) + L'-' +
                                          std::to_wstring(next.tm_mday) + (summer ? L"T1:0:0" : L"T0:0:0");
            EXPECT_EQ(BoundaryAt(noon), expected);
        }
        summerBefore = summer;
    }
    EXPECT_GE(switches, 2);
    EXPECT_LE(switches, 6);
}

// The copy ends where the moment should stand: a day that is none never takes its place.
class UnknownTomorrow : public StartBoundary {
protected:
    void ExpectNoMoment() {
        xml_.nodes = {StartTag(L"Task"), StartTag(L"StartBoundary"), Text(L"2020-01-01T00:00:00"),
                      EndTag(L"StartBoundary")};
        EXPECT_EQ(RewriteStartBoundary(), E_UNEXPECTED);
        EXPECT_EQ(printed_, "");
        EXPECT_EQ(ReadUtf16(kDestination), L"<Task><StartBoundary>");
    }

    ImportHooks hooks_{GetModuleHandleW(nullptr)};
};

TEST_F(UnknownTomorrow, BecauseTodayIsUnknownEndsTheCopy) {
    CORVI_HOOK(hooks_, _localtime64, [](const __time64_t*) -> tm* { return nullptr; });
    ExpectNoMoment();
}

TEST_F(UnknownTomorrow, BecauseMidnightCannotBeReckonedEndsTheCopy) {
    CORVI_HOOK(hooks_, _mktime64, [](tm*) -> __time64_t { return -1; });
    ExpectNoMoment();
}

TEST_F(UnknownTomorrow, BecauseTheNextDayIsUnknownEndsTheCopy) {
    int asked = 0;
    tm today = {};
    CORVI_HOOK(hooks_, _localtime64, [&](const __time64_t*) -> tm* {
        today.tm_year = 125;
        today.tm_mday = 7;
        return ++asked == 1 ? &today : nullptr;
    });
    ExpectNoMoment();
    EXPECT_EQ(asked, 2);
}

TEST_F(StartBoundary, AnEmptyTextIsUnexpectedAndReportedByNoMessage) {
    xml_.nodes = {StartTag(L"Task"), StartTag(L"StartBoundary"), Text(L""), EndTag(L"StartBoundary")};
    EXPECT_EQ(RewriteStartBoundary(), E_UNEXPECTED);
    EXPECT_EQ(printed_, "");
    EXPECT_EQ(ReadUtf16(kDestination), L"<Task><StartBoundary>") << "the copy is left incomplete";
}

TEST_F(StartBoundary, AMissingTextIsUnexpectedAsWell) {
    xml_.nodes = {StartTag(L"StartBoundary"), Text(L"x")};
    xml_.valueOf = [](const XmlNode&) -> const wchar_t* { return nullptr; };
    EXPECT_EQ(RewriteStartBoundary(), E_UNEXPECTED);
    EXPECT_EQ(printed_, "");
}

TEST_F(StartBoundary, ATextThatCannotBeReadIsReported) {
    xml_.nodes = {StartTag(L"StartBoundary"), Text(L"x")};
    xml_.failures["GetValue"] = E_OUTOFMEMORY;
    EXPECT_EQ(RewriteStartBoundary(), E_OUTOFMEMORY);
    EXPECT_EQ(printed_, "Error reading value, error is 8007000e");
}

TEST_F(StartBoundary, TheOriginalTextIsNotUsedOtherwise) {
    xml_.nodes = {StartTag(L"StartBoundary"), Text(L"no date at all")};
    EXPECT_EQ(RewriteStartBoundary(), S_FALSE);
    EXPECT_EQ(xml_.written[1].find(L"no date"), std::wstring::npos);
}

TEST_F(StartBoundary, TheWorkingDirectoryStaysAsItIs) {
    xml_.nodes = {StartTag(kWorkingDirectory), Text(L"C:\\x"), EndTag(kWorkingDirectory)};
    EXPECT_EQ(RewriteStartBoundary(), S_FALSE);
    EXPECT_EQ(xml_.written, (Lines{L"<WorkingDirectory>", L"C:\\x", L"</>"}));
}

}  // namespace
}  // namespace corvi::test
