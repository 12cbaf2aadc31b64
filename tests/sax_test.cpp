#include <qvlib/sax.h>

#include "failing_alloc.h"
#include "machine.h"
#include "models/xml_model.h"
#include "xml_stream.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <fstream>
#include <iterator>
#include <optional>
#include <pthread.h>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using xml_model::outcome;
using xml_model::wanted;
using xml_stream::manner;

// Reads a document and releases what the reader left of a tag that was cut short.
outcome read_document(std::string_view document, wanted callbacks = {}, manner how = {})
{
    failing_alloc::live_blocks account;
    outcome got = xml_stream::read(document, callbacks, how);
    got.unfinished_attributes = account.count();
    return got;
}

std::vector<std::string> events(std::string_view document, wanted callbacks = {})
{
    return read_document(document, callbacks).events;
}

std::string repeated(size_t count, char byte = 'x')
{
    return std::string(count, byte);
}

// Documents and their events, which end with the number of bytes that had been read then.
struct row {
    std::string document;
    std::vector<std::string> events;
    int result = 0;
};

void expect_rows(const std::vector<row> &rows, wanted callbacks = {})
{
    for (const row &each : rows) {
        SCOPED_TRACE(testing::PrintToString(each.document));
        const outcome got = read_document(each.document, callbacks);
        EXPECT_EQ(got.events, each.events);
        EXPECT_EQ(got.result, each.result);
    }
}

TEST(SaxParseFile, ReportsTagsAttributesAndTextInTheirOrder)
{
    EXPECT_THAT(events("<a x=\"1\"><b/>hi</a>"),
                ElementsAre("start a x=1 @9", "start b @13", "end b @13", "characters hi @16", "end a @19"));
}

TEST(SaxParseFile, ListsTheNewestAttributeFirst)
{
    EXPECT_THAT(events("<a one=\"1\" two=\"\" x-y=\"<&>\"/>"),
                ElementsAre("start a x-y=<&> two= one=1 @29", "end a @29"));
}

TEST(SaxParseFile, KeepsAttributesOfOneTagFromTheNext)
{
    EXPECT_THAT(events("<a x=\"1\"><b><c y=\"2\"/><d/></b></a>"),
                ElementsAre("start a x=1 @9", "start b @12", "start c y=2 @22", "end c @22", "start d @26",
                            "end d @26", "end b @30", "end a @34"));
}

TEST(SaxParseFile, TakesTheSubsetOfXmlThatTheTableHas)
{
    expect_rows({
        {"", {}},
        {"<  a>", {"start a @5"}},
        {"<aB9>", {"start aB9 @5"}},
        {"<9>", {"start 9 @3"}},
        {"<a   >", {"start a @6"}},
        {"<a />", {"start a @5", "end a @5"}},
        {"<a \t\n x=\"1\"\n\ty=\"2\">", {"start a y=2 x=1 @19"}},
        {"<a x=\"1\"y=\"2\">", {"start a y=2 x=1 @14"}}, // no blank is asked for
        {"<a x=\"1\" x=\"2\">", {"start a x=2 x=1 @15"}},
        {"<a x=\"\n\t'/>&lt;\">", {"start a x=\n\t'/>&lt; @17"}},
        {"</a>", {"end a @4"}},
        {"</>", {"end  @3"}},
        {"< /a>", {"end a @5"}},
        {"<a></b>", {"start a @3", "end b @7"}}, // tags need not match
        {"\n <a>\n</a>\n", {"characters \n  @3", "start a @5", "characters \n @7", "end a @10"}},
        {"<?xml version=\"1.0\"?><a/>", {"start a @25", "end a @25"}},
        {"<!DOCTYPE a><a/>", {"start a @16", "end a @16"}},
        {"<!D><a/>", {"start a @8", "end a @8"}},
        {"<?p a>b?><a/>", {"error Invalid XML Document @9"}, -1}, // ends at the first ">"
        {"<!DOCTYPE a [<!ELEMENT a>]>", {"error Invalid XML Document @27"}, -1},
    });
}

TEST(SaxParseFile, ReportsACommentWithOneDashOfItsEnd)
{
    expect_rows({
        {"<!--ab-->", {"comment ab- @9"}},
        {"<!---->", {"comment - @7"}},
        {"<!--a-b-->", {"comment a-b- @10"}},
        {"<!--->-->", {"comment ->- @9"}},
        {"<!-- <a>&lt; -->", {"comment  <a>&lt; - @16"}},
        {"a<!--b-->c<!--d-->", {"characters a @2", "comment b- @9", "characters c @11", "comment d- @18"}},
    });
}

TEST(SaxParseFile, DecodesTheFirstReferenceOnly)
{
    expect_rows({
        {"&lt;&gt;<a/>", {"characters < @9", "start a @12", "end a @12"}},
        {"a&quot;b<", {"characters a\"b @9"}},
        {"a&amp;b<", {"characters a&b @8"}},
        {"a&apos;b<", {"characters a'b @9"}},
        {"a&lt;b<", {"characters a<b @7"}},
        {"a&gt;b<", {"characters a>b @7"}},
        {"a&eacute;b&lt;c<", {"characters abc @16"}}, // an unknown name is left out, and those after it
        {"a&;b&lt;c<", {"characters ab<c @10"}},      // no name at all is none
        {"&l;&t;<", {"characters < @7"}},             // names add up
        {"&lt;<", {"characters < @5"}},
    });
}

TEST(SaxParseFile, ForgetsReferencesOfAnEarlierDocument)
{
    EXPECT_THAT(events("&lt;<"), ElementsAre("characters < @5"));
    EXPECT_THAT(events("&gt;<"), ElementsAre("characters > @5"));
}

TEST(SaxParseFile, HandsOutLongTextInPieces)
{
    expect_rows({
        {repeated(256), {}},
        {repeated(257), {"characters " + repeated(256) + " @257"}},
        {repeated(256) + "<", {"characters " + repeated(256) + " @257"}},
        {repeated(300) + "<",
         {"characters " + repeated(256) + " @257", "characters " + repeated(44) + " @301"}},
        {repeated(512) + "<",
         {"characters " + repeated(256) + " @257", "characters " + repeated(256) + " @513"}},
        {repeated(256) + "&lt;<", {"characters " + repeated(256) + " @260", "characters < @261"}},
    });
}

TEST(SaxParseFile, HandsOutLongCommentsAsTextButForTheirRest)
{
    expect_rows({
        {"<!--" + repeated(255) + "-->", {"comment " + repeated(255) + "- @262"}},
        {"<!--" + repeated(256) + "-->", {"characters " + repeated(256) + " @261", "comment - @263"}},
        {"<!--" + repeated(300) + "-->",
         {"characters " + repeated(256) + " @261", "comment " + repeated(44) + "- @307"}},
    });
}

TEST(SaxParseFile, DropsWhatTheEndCutsShort)
{
    expect_rows({
        {"short", {}},
        {"<a>text", {"start a @3"}},
        {"<a", {}},
        {"<a x=\"1\" y=\"2", {}},
        {"<a/", {}},
        {"</a", {}},
        {"<!--a--", {}},
        {"<?p ", {}},
        {"&lt", {}},
    });
}

TEST(SaxParseFile, NamesStateByteAndLineOfAByteThatNothingAccepts)
{
    const std::string message = "error Invalid XML Document: Invalid State ";
    expect_rows({
        {"<a_b>", {message + "(2: '_') on line 0. @3"}, -1},
        {"<_>", {message + "(1: '_') on line 0. @2"}, -1},
        {"\n\n<a>\n<", {"characters \n\n @3", "start a @5", "characters \n @7"}},
        {"\n\n<~", {"characters \n\n @3", message + "(1: '~') on line 2. @4"}, -1},
        {"<a\n>", {message + "(2: 0x0a) on line 1. @3"}, -1}, // a newline counts before it is looked at
        {"<a\t>", {message + "(2: 0x09) on line 0. @3"}, -1},
        {"</ a>", {message + "(3: ' ') on line 0. @3"}, -1},
        {"</a >", {message + "(3: ' ') on line 0. @4"}, -1},
        {"<a \r", {message + "(4: 0x0d) on line 0. @4"}, -1},
        {"<a 1", {message + "(4: '1') on line 0. @4"}, -1},
        {"<a x1", {message + "(5: '1') on line 0. @5"}, -1},
        {"<a x =", {message + "(5: ' ') on line 0. @5"}, -1},
        {"<a x= ", {message + "(6: ' ') on line 0. @6"}, -1},
        {"<a x='", {message + "(6: ''') on line 0. @6"}, -1},
        {"<a/ >", {message + "(8: ' ') on line 0. @4"}, -1},
        {"&A", {message + "(9: 'A') on line 0. @2"}, -1},
        {"&#65;", {message + "(9: '#') on line 0. @2"}, -1},
        {"<!x", {message + "(12: 'x') on line 0. @3"}, -1},
        {"<![CDATA[x]]>", {message + "(12: '[') on line 0. @3"}, -1},
        {"<\x7f", {message + "(1: 0x7f) on line 0. @2"}, -1},
        {"<\xe9", {message + "(1: 0xe9) on line 0. @2"}, -1},
        {"<\0"s, {message + "(1: 00) on line 0. @2"}, -1}, // as printf shows a zero
    });
}

TEST(SaxParseFile, CountsLinesEverywhere)
{
    // A newline in an instruction, a declaration, a comment, text, a tag, a value.
    const std::string document = "<?\n?><!D\n><!--\n-->\n<a\x20\n x=\"\n\">\n<!\n";
    EXPECT_EQ(events(document).back(), "error Invalid XML Document: Invalid State (12: 0x0a) on line 8. @" +
                                           std::to_string(document.size()));
}

TEST(SaxParseFile, RefusesWhatTheTableCallsAnError)
{
    expect_rows({
        {">", {"error Invalid XML Document @1"}, -1},
        {"a>b", {"error Invalid XML Document @2"}, -1},
        {"<!-a", {"error Invalid XML Document @4"}, -1},
        {"<!-->", {}}, // a comment that begins with ">"
        {"<!--a--b", {"error Invalid XML Document @8"}, -1},
        {"<!--a--->", {"error Invalid XML Document @8"}, -1},
    });
}

TEST(SaxParseFile, RefusesLongNamesAndValues)
{
    const std::string message = "error XML identifier exceeded buffer";
    const std::string most = repeated(256);
    expect_rows({
        {"<" + most + ">", {"start " + most + " @258"}},
        {"<" + most + "x>", {message + " @258"}, -1},
        {"</" + most + ">", {"end " + most + " @259"}},
        {"</" + most + "x>", {message + " @259"}, -1},
        {"<a " + most + "=\"" + most + "\">", {"start a " + most + "=" + most + " @519"}},
        {"<a " + most + "x=", {message + " @260"}, -1},
        {"<a x=\"" + most + "x\"", {message + " @263"}, -1},
        {"&" + most + ";<", {}},
        {"&" + most + "x;<", {message + " @258"}, -1},
    });
}

TEST(SaxParseFile, RefusesManyReferencesInOneDocument)
{
    std::string document = "a";
    for (int i = 0; i < 128; i++)
        document += "&lt;";
    EXPECT_THAT(events(document + "<"), ElementsAre("characters a< @514"));
    EXPECT_EQ(read_document(document + "&lt;").result, -1);
    EXPECT_THAT(events(document + "&lt;"), ElementsAre("error XML identifier exceeded buffer @515"));
}

TEST(SaxParseFile, StopsReadingBehindTheByteThatIsWrong)
{
    const xml_stream::memory_stream bytes("<a></a>><b/>");
    EXPECT_EQ(xml_stream::read(bytes.stream).result, -1);
    EXPECT_EQ(getc(bytes.stream), '<');
    EXPECT_EQ(getc(bytes.stream), 'b');
}

TEST(SaxParseFile, ReadsToTheEndAndLeavesTheStreamOpen)
{
    const xml_stream::memory_stream bytes("<a/>text");
    EXPECT_EQ(xml_stream::read(bytes.stream).result, 0);
    EXPECT_TRUE(feof(bytes.stream));
    rewind(bytes.stream);
    EXPECT_EQ(getc(bytes.stream), '<');
}

TEST(SaxParseFile, BeginsWhereTheStreamStands)
{
    const xml_stream::memory_stream bytes("x<a/><b/>");
    for (int i = 0; i < 5; i++)
        getc(bytes.stream);
    EXPECT_THAT(xml_stream::read(bytes.stream).events, ElementsAre("start b @9", "end b @9"));
}

TEST(SaxParseFile, TakesABytePutBackFirst)
{
    const xml_stream::memory_stream bytes("xa/>");
    getc(bytes.stream);
    ungetc('<', bytes.stream);
    EXPECT_THAT(xml_stream::read(bytes.stream).events, ElementsAre("start a @4", "end a @4"));
}

TEST(SaxParseFile, KeepsBytesZeroInText)
{
    expect_rows({
        {"a\0b<"s, {"characters a\0b @4"s}},
        {"<a x=\"1\0002\">"s, {"start a x=1 @11"}},
        {"<!--a\0b-->"s, {"comment a @10"}},
    });
}

TEST(SaxParseFile, TakesAFailingStreamForItsEnd)
{
    const xml_stream::memory_stream bytes("<a/><b/>", {.fails_at = 6});
    const outcome got = xml_stream::read(bytes.stream);
    EXPECT_EQ(got.result, 0);
    EXPECT_TRUE(ferror(bytes.stream));
    EXPECT_THAT(got.events, ElementsAre("start a @4", "end a @4"));
}

TEST(SaxParseFile, DoesWithoutOptionalCallbacks)
{
    const wanted none = {false, false, false, false};
    expect_rows(
        {
            {"<a x=\"1\"><b/><!--c-->", {}},
            {"<!--" + repeated(300) + "-->", {}},
            {repeated(300), {}},
            {"<_", {"error Invalid XML Document: Invalid State (1: '_') on line 0. @2"}, -1},
        },
        none);
}

TEST(SaxParseFile, DropsWholePiecesOfTextThatNobodyWants)
{
    const std::string message = "error A required callback is missing";
    expect_rows({{repeated(300) + "<", {message + " @301"}, -1}}, {.characters = false});
}

// errno of a failed call.
int error_of(std::string_view document, wanted callbacks)
{
    const xml_stream::memory_stream bytes(document);
    const sax_callbacks functions = xml_stream::callbacks_for(callbacks);
    xml_stream::record kept = {bytes.stream, {}};
    errno = 0;
    const int result = sax_parse_file(bytes.stream, &functions, &kept);
    return result == -1 ? errno : 0;
}

TEST(SaxParseFile, RefusesAnEndTagWithoutACallbackForIt)
{
    expect_rows({{"<a></a>", {"start a @3", "error A required callback is missing @7"}, -1}}, {.end = false});
    EXPECT_EQ(error_of("<a></a>", {.end = false}), EINVAL);
}

TEST(SaxParseFile, RefusesTextBeforeATagWithoutACallbackForIt)
{
    expect_rows(
        {{"a<b>", {"error A required callback is missing @2"}, -1}, {"<a/>b", {"start a @4", "end a @4"}}},
        {.characters = false});
    EXPECT_EQ(error_of("a<b>", {.characters = false}), EINVAL);
}

TEST(SaxParseFile, FailsInSilenceWithoutAnErrorCallback)
{
    const sax_callbacks none = {};
    for (const std::string document : {"<_", ">", "</a>", "a<"}) {
        const xml_stream::memory_stream bytes(document);
        EXPECT_EQ(sax_parse_file(bytes.stream, &none, nullptr), -1) << document;
    }
    const xml_stream::memory_stream bytes("<a/>");
    const failing_alloc::after failure(0);
    EXPECT_EQ(sax_parse_file(bytes.stream, &none, nullptr), -1);
}

TEST(SaxParseFile, RefusesNullArguments)
{
    const sax_callbacks callbacks = xml_stream::callbacks_for({});
    const xml_stream::memory_stream bytes("<a/>");
    errno = 0;
    EXPECT_EQ(sax_parse_file(nullptr, &callbacks, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(sax_parse_file(bytes.stream, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(getc(bytes.stream), '<');
}

TEST(SaxParseFile, NeverCallsTheReservedCallbacks)
{
    sax_callbacks callbacks = xml_stream::callbacks_for({});
    callbacks.reserved1 = callbacks.reserved2 = [] { ADD_FAILURE(); };
    const xml_stream::memory_stream bytes("<?p?><!D><a x=\"1\">&lt;<!--c--><b/></a><_");
    xml_stream::record kept = {bytes.stream, {}};
    EXPECT_EQ(sax_parse_file(bytes.stream, &callbacks, &kept), -1);
    EXPECT_EQ(kept.outcome.events.size(), 7u);
}

TEST(SaxParseFile, LeavesTheAttributesOfATagThatIsCutShort)
{
    EXPECT_EQ(read_document("<a x=\"1\" y=\"2\" _").unfinished_attributes, 2u);
    EXPECT_EQ(read_document("<a x=\"1\" y=\"2\" z=\"3\"").unfinished_attributes, 3u);
    EXPECT_EQ(read_document("<a x=\"1\"/_").unfinished_attributes, 1u);
    EXPECT_EQ(read_document("<a x=\"1\"/><b y=\"2\"></b><_").unfinished_attributes, 0u);
}

TEST(SaxParseFile, ReportsThatMemoryIsShort)
{
    const std::string document = "<a x=\"1\" y=\"2\"/><b z=\"3\"/>";
    const std::vector<std::vector<std::string>> expected = {
        {"error Cannot allocate memory @0"},
        {"error Cannot allocate memory @8"},
        {"error Cannot allocate memory @14"},
        {"start a y=2 x=1 @16", "end a @16", "error Cannot allocate memory @24"},
    };
    for (size_t i = 0; i < expected.size(); i++) {
        failing_alloc::live_blocks account;
        const xml_stream::memory_stream bytes(document);
        const failing_alloc::after failure(static_cast<int>(i));
        errno = 0;
        const outcome got = xml_stream::read(bytes.stream);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_TRUE(failing_alloc::failed);
        EXPECT_EQ(got.result, -1);
        EXPECT_EQ(got.events, expected[i]);
        EXPECT_EQ(account.count(), i == 2 ? 1u : 0u);
    }
    const failing_alloc::after failure(static_cast<int>(expected.size()));
    EXPECT_EQ(xml_stream::read(document).result, 0);
    EXPECT_FALSE(failing_alloc::failed);
}

TEST(SaxParseFile, HoldsNoMoreThanTheAttributesOfOneTag)
{
    static size_t most;
    static failing_alloc::live_blocks *account;
    failing_alloc::live_blocks blocks;
    account = &blocks;
    most = 0;
    sax_callbacks callbacks = {};
    callbacks.start = [](void *, const sax_attribute *, void *) { most = std::max(most, account->count()); };
    std::string document;
    for (int i = 0; i < 1000; i++)
        document += "<a x=\"1\" y=\"2\"><b/>";
    const xml_stream::memory_stream bytes(document);
    EXPECT_EQ(sax_parse_file(bytes.stream, &callbacks, nullptr), 0);
    EXPECT_EQ(most, 3u); // the context and two attributes
    EXPECT_EQ(blocks.count(), 0u);
}

// Attributes that take 16 MiB with their records, and some bytes that are too few for one more.
std::string attributes_that_just_fit()
{
    const std::string attribute = " x=\"" + repeated(256) + "\"";
    std::string written;
    for (size_t i = 0; i < (size_t{16} << 20) / (sizeof(sax_attribute) + 2 + 257); i++)
        written += attribute;
    return written;
}

TEST(SaxParseFile, RefusesMoreAttributesThanOneTagMayHave)
{
    static size_t starts, attributes;
    static std::string message;
    const std::string most = attributes_that_just_fit();
    const std::string twice = "<a" + most + "/><a" + most + ">",
                      too_many = "<a" + most + " y=\"" + repeated(256) + "\" z=\"\">";
    sax_callbacks callbacks = {};
    callbacks.start = [](void *, const sax_attribute *first, void *) {
        starts++;
        for (; first; first = first->next)
            attributes++;
    };
    callbacks.error = [](const char *told, void *) { message = told; };

    starts = attributes = 0;
    const xml_stream::memory_stream good(twice);
    EXPECT_EQ(sax_parse_file(good.stream, &callbacks, nullptr), 0);
    EXPECT_EQ(starts, 2u);
    EXPECT_EQ(attributes, 2 * (most.size() / 261));

    failing_alloc::live_blocks account;
    const xml_stream::memory_stream bad(too_many);
    errno = 0;
    EXPECT_EQ(sax_parse_file(bad.stream, &callbacks, nullptr), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(message, "Cannot allocate memory");
    EXPECT_EQ(starts, 2u);
    EXPECT_EQ(getc(bad.stream), ' ');
}

TEST(SaxParseFile, HandsCookieAndContextToEveryCallback)
{
    static int cookie, calls;
    static const void *context;
    calls = 0;
    context = nullptr;
    const sax_callbacks callbacks = {
        [](void *given, const sax_attribute *, void *kept) {
            context = given;
            calls += kept == &cookie;
        },
        [](void *given, void *kept) { calls += given == context && kept == &cookie; },
        nullptr,
        nullptr,
        [](const char *, size_t, void *kept) { calls += kept == &cookie; },
        [](const char *, void *kept, void *given) { calls += given == context && kept == &cookie; },
        [](const char *, void *kept) { calls += kept == &cookie; }};
    const xml_stream::memory_stream bytes("<a>text<!--c--></a>>");
    EXPECT_EQ(sax_parse_file(bytes.stream, &callbacks, &cookie), -1);
    EXPECT_EQ(calls, 5);
}

TEST(SaxParseFile, CutsTextWithoutRegardToCharacters)
{
    const std::string half = repeated(255) + "\xc3", rest = "\xb6";
    EXPECT_THAT(events(half + rest + "<"),
                ElementsAre("characters " + half + " @257", "characters " + rest + " @258"));
}

TEST(SaxParseFile, ReadsALineBreakBehindAnElementsNameAsAnError)
{
    EXPECT_EQ(read_document("<a\n x=\"1\">").result, -1);
    EXPECT_EQ(read_document("<a \n x=\"1\">").result, 0);
}

TEST(SaxParseFile, LeavesErrnoAloneOtherwise)
{
    const sax_callbacks none = {};
    const xml_stream::memory_stream good("<a x=\"1\"/>"), bad("<_");
    errno = EDOM;
    EXPECT_EQ(sax_parse_file(good.stream, &none, nullptr), 0);
    EXPECT_EQ(sax_parse_file(bad.stream, &none, nullptr), -1);
    EXPECT_EQ(errno, EDOM);
}

// Callbacks that touch the stream.

TEST(SaxCallback, MayReadFromTheStream)
{
    static FILE *stream;
    static std::string taken;
    const xml_stream::memory_stream bytes("<a>raw > bytes;<b/>");
    stream = bytes.stream;
    taken.clear();
    sax_callbacks callbacks = xml_stream::callbacks_for({});
    callbacks.start = [](void *context, const sax_attribute *, void *cookie) {
        xml_stream::on_start(context, nullptr, cookie);
        if (taken.empty())
            for (int byte; (byte = getc(stream)) != ';';)
                taken += static_cast<char>(byte);
    };
    xml_stream::record kept = {stream, {}};
    EXPECT_EQ(sax_parse_file(stream, &callbacks, &kept), 0);
    EXPECT_EQ(taken, "raw > bytes");
    EXPECT_THAT(kept.outcome.events, ElementsAre("start a @3", "start b @19", "end b @19"));
}

TEST(SaxCallback, MayReadAnElementWithAReaderOfItsOwn)
{
    static FILE *stream;
    static std::vector<std::string> inner;
    const xml_stream::memory_stream bytes("<a><b x=\"1\"/>>text<c/>");
    stream = bytes.stream;
    inner.clear();
    sax_callbacks callbacks = xml_stream::callbacks_for({});
    callbacks.start = [](void *context, const sax_attribute *attributes, void *cookie) {
        if (inner.empty())
            inner = xml_stream::read(stream).events;
        xml_stream::on_start(context, attributes, cookie);
    };
    xml_stream::record kept = {stream, {}};
    EXPECT_EQ(sax_parse_file(stream, &callbacks, &kept), 0);
    EXPECT_THAT(inner, ElementsAre("start b x=1 @13", "end b @13", "error Invalid XML Document @14"));
    EXPECT_THAT(kept.outcome.events,
                ElementsAre("start a @14", "characters text @19", "start c @22", "end c @22"));
}

TEST(SaxCallback, MayMoveTheStream)
{
    static FILE *stream;
    static int visits;
    const xml_stream::memory_stream bytes("<a/><b/>");
    stream = bytes.stream;
    visits = 0;
    sax_callbacks callbacks = {};
    callbacks.start = [](void *, const sax_attribute *, void *) {
        if (++visits == 2)
            rewind(stream);
    };
    EXPECT_EQ(sax_parse_file(stream, &callbacks, nullptr), 0);
    EXPECT_EQ(visits, 4);
}

TEST(SaxCallback, MayChangeTheCallbacks)
{
    static sax_callbacks callbacks;
    static int seen;
    callbacks = {};
    seen = 0;
    callbacks.start = [](void *, const sax_attribute *, void *) {
        callbacks.start = nullptr;
        callbacks.end = [](void *, void *) { seen++; };
    };
    const xml_stream::memory_stream bytes("<a/><b/>");
    EXPECT_EQ(sax_parse_file(bytes.stream, &callbacks, nullptr), 0);
    EXPECT_EQ(seen, 2);
}

TEST(SaxCallback, FindsTheStreamUnlocked)
{
    static FILE *stream;
    static int locked;
    const xml_stream::memory_stream bytes("<a x=\"1\">text<!--c--></a>&lt;<_");
    stream = bytes.stream;
    locked = 0;
    const auto look = [] {
        std::thread([] {
            if (ftrylockfile(stream) == 0)
                funlockfile(stream);
            else
                locked++;
        }).join();
    };
    static void (*const look_now)() = look;
    const sax_callbacks callbacks = {[](void *, const sax_attribute *, void *) { look_now(); },
                                     [](void *, void *) { look_now(); },
                                     nullptr,
                                     nullptr,
                                     [](const char *, size_t, void *) { look_now(); },
                                     [](const char *, void *, void *) { look_now(); },
                                     [](const char *, void *) { look_now(); }};
    EXPECT_EQ(sax_parse_file(stream, &callbacks, nullptr), -1);
    EXPECT_EQ(locked, 0);
    EXPECT_EQ(ftrylockfile(stream), 0);
    funlockfile(stream);
}

// A pipe that stays open, written to from another thread than the one that reads.

class pipe_reader
{
  public:
    pipe_reader()
    {
        EXPECT_EQ(pipe(ends_), 0);
        stream_ = fdopen(ends_[0], "r");
        thread_ = std::thread([this] {
            const sax_callbacks callbacks = {
                [](void *, const sax_attribute *, void *cookie) { count(cookie); },
                [](void *, void *cookie) { count(cookie); },
                nullptr,
                nullptr,
                [](const char *, size_t, void *cookie) { count(cookie); },
                [](const char *, void *cookie, void *) { count(cookie); },
                [](const char *, void *cookie) { count(cookie); }};
            result = sax_parse_file(stream_, &callbacks, this);
        });
    }
    ~pipe_reader()
    {
        finish();
        fclose(stream_);
    }

    void write(std::string_view bytes)
    {
        EXPECT_EQ(::write(ends_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    // Waits for that many callbacks altogether.
    bool sees(int wanted_count)
    {
        for (int i = 0; i < 10000 && seen_ < wanted_count; i++)
            usleep(1000);
        return seen_ == wanted_count;
    }

    void cancel()
    {
        pthread_cancel(thread_.native_handle());
        thread_.join();
    }

    void finish()
    {
        if (ends_[1] != -1)
            close(ends_[1]);
        ends_[1] = -1;
        if (thread_.joinable())
            thread_.join();
    }

    FILE *stream()
    {
        return stream_;
    }

    std::atomic<int> result = 1;

  private:
    static void count(void *cookie)
    {
        static_cast<pipe_reader *>(cookie)->seen_++;
    }

    int ends_[2];
    FILE *stream_;
    std::thread thread_;
    std::atomic<int> seen_ = 0;
};

TEST(SaxPipe, DeliversWhatHasComeBeforeItWaits)
{
    pipe_reader reader;
    int seen = 0;
    for (const auto &[bytes, callbacks] : std::vector<std::pair<std::string, int>>{{"<a>", 1},
                                                                                   {"te", 0},
                                                                                   {"xt<", 1},
                                                                                   {"/a", 0},
                                                                                   {">", 1},
                                                                                   {"<b x=\"1\"/><!--c--", 2},
                                                                                   {">", 1},
                                                                                   {repeated(256), 0},
                                                                                   {"x", 1}}) {
        reader.write(bytes);
        seen += callbacks;
        EXPECT_TRUE(reader.sees(seen)) << bytes;
    }
    reader.finish();
    EXPECT_EQ(reader.result, 0);
    EXPECT_TRUE(reader.sees(seen));
}

TEST(SaxPipe, ReturnsAtAnErrorWithoutWaitingForMore)
{
    pipe_reader reader;
    reader.write("<a><_");
    EXPECT_TRUE(reader.sees(2));
    for (int i = 0; i < 10000 && reader.result == 1; i++)
        usleep(1000);
    reader.finish();
    EXPECT_EQ(reader.result, -1);
}

TEST(SaxPipe, LetsTheStreamGoWhenItsThreadIsCancelled)
{
    if (running_emulated())
        GTEST_SKIP() << "the emulator aborts every program that cancels a thread";
    failing_alloc::live_blocks account; // the context is lost with the thread
    pipe_reader reader;
    reader.write("<a><b");
    EXPECT_TRUE(reader.sees(1));
    usleep(10000);
    reader.cancel();
    EXPECT_EQ(ftrylockfile(reader.stream()), 0);
    funlockfile(reader.stream());
}

TEST(SaxParseFile, ReadsDifferentStreamsInParallel)
{
    std::string document = "<a>";
    for (int i = 0; i < 2000; i++)
        document += "<b n=\"" + std::to_string(i) + "\">text</b>";
    const outcome expected = xml_model::read(document);
    std::vector<std::thread> threads;
    std::atomic<int> right = 0;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&] {
            if (xml_stream::read(document).events == expected.events)
                right++;
        });
    }
    for (std::thread &each : threads)
        each.join();
    EXPECT_EQ(right, 4);
}

// Against the model.

void expect_as_model(std::string_view document, wanted callbacks = {}, manner how = {})
{
    const outcome expected = xml_model::read(document, callbacks),
                  got = read_document(document, callbacks, how);
    EXPECT_EQ(got.events, expected.events) << testing::PrintToString(std::string(document));
    EXPECT_EQ(got.result, expected.result);
    EXPECT_EQ(got.read, expected.read);
    EXPECT_EQ(got.unfinished_attributes, expected.unfinished_attributes);
}

std::string file_content(const char *name)
{
    std::ifstream file(std::string(XML_FILES) + "/" + name, std::ios::binary);
    EXPECT_TRUE(file) << name;
    return {std::istreambuf_iterator<char>(file), {}};
}

constexpr const char *files[] = {"device.xml", "feed.xml", "drawing.svg"};

TEST(SaxModel, AgreesOnEveryByteInEveryState)
{
    // A document that leads to each state, in the states' order.
    const char *leading[] = {"",  "<",  "<a",  "</a", "<a ", "<a x", "<a x=", "<a x=\"", "<a/",
                             "&", "<?", "<!D", "<!",  "<!-", "<!--", "<!---", "<!----"};
    for (size_t state = 0; state < std::size(leading); state++) {
        for (int byte = 0; byte < 256; byte++) {
            // What follows tells the states apart.
            for (const char *tail : {"", "a>", "\"/>x<", "x=\"1\">", "-->", "lt;<", "\x01"})
                expect_as_model(leading[state] + std::string(1, static_cast<char>(byte)) + tail);
        }
    }
}

TEST(SaxModel, AgreesOnFiles)
{
    for (const char *name : files) {
        const std::string document = file_content(name);
        expect_as_model(document);
        EXPECT_EQ(read_document(document).result, 0) << name;
        EXPECT_GT(read_document(document).events.size(), 20u) << name;
    }
}

TEST(SaxModel, AgreesHoweverBytesArrive)
{
    for (const char *name : files) {
        const std::string document = file_content(name);
        for (const size_t piece : {1u, 2u, 7u, 255u, 256u, 257u}) {
            for (const size_t buffer : {0u, 2u, 3u, 64u, 4096u})
                expect_as_model(document, {}, {piece, buffer});
        }
    }
}

TEST(SaxModel, AgreesWhereFilesAreCutShort)
{
    for (const char *name : files) {
        const std::string document = file_content(name);
        for (size_t length = 0; length < document.size(); length += 3)
            expect_as_model(std::string_view(document).substr(0, length));
    }
}

class generator
{
  public:
    explicit generator(unsigned seed) : random_(seed)
    {
    }

    size_t below(size_t limit)
    {
        return random_() % limit;
    }

    // Bytes that mean something to the reader, now and then any.
    std::string bytes(size_t count)
    {
        constexpr std::string_view telling = "<<<>>>//&;!?D--==\"\" \n\tabXZ09ltgquompsx_'\r#[";
        std::string made;
        while (made.size() < count)
            made += below(50) == 0 ? static_cast<char>(below(256)) : telling[below(telling.size())];
        return made;
    }

    // A document with little wrong, with lengths around the buffers' size.
    std::string document(int depth = 0)
    {
        std::string made;
        for (size_t parts = below(6); parts-- > 0;) {
            const size_t kind = below(10);
            if (kind < 4)
                made += element(depth);
            else if (kind < 7)
                made += word(length(), "abc XYZ\n\t09\"'=/-;\xc3\xa9");
            else if (kind == 7)
                made += "<!--" + word(length(), "abc <>&\n") + "-->";
            else if (kind == 8)
                made += below(2) ? "<?p " + word(9, "ab\n") + "?>" : "<!DOCTYPE " + word(9, "ab\n") + ">";
            else
                made += "&" + word(below(9) == 0 ? length() : 1 + below(2), "ltgab0") + ";";
        }
        return made;
    }

    std::string changed(std::string text)
    {
        for (size_t changes = 1 + below(3); changes-- > 0 && !text.empty();) {
            const size_t at = below(text.size());
            switch (below(4)) {
            case 0:
                text[at] = bytes(1)[0];
                break;
            case 1:
                text.erase(at, 1 + below(8));
                break;
            case 2:
                text.insert(at, bytes(1 + below(3)));
                break;
            default:
                text.insert(at, text.substr(below(text.size()), below(300)));
            }
        }
        return text;
    }

    wanted callbacks()
    {
        return below(4) != 0 ? wanted{} : wanted{below(2) != 0, below(4) != 0, below(4) != 0, below(2) != 0};
    }

    manner arrival()
    {
        return {1 + below(300), below(3) == 0 ? below(64) : 4096};
    }

  private:
    size_t length()
    {
        return below(8) == 0 ? 250 + below(14) : below(30) == 0 ? 500 + below(30) : below(12);
    }

    std::string word(size_t size, std::string_view letters)
    {
        std::string made;
        while (made.size() < size)
            made += letters[below(letters.size())];
        return made;
    }

    std::string element(int depth)
    {
        const std::string name = word(1 + (below(20) == 0 ? length() : below(5)), "abcXYZ019");
        std::string made = "<" + name;
        for (size_t attributes = below(4); attributes-- > 0;)
            made += word(1 + below(3), " ") + word(1 + (below(20) == 0 ? length() : below(5)), "abXY") +
                    "=\"" + word(length(), "abc 09<>&'\n") + "\"";
        if (depth > 4 || below(3) == 0)
            return made + "/>";
        return made + ">" + document(depth + 1) + "</" + name + ">";
    }

    std::mt19937 random_;
};

TEST(SaxModel, AgreesOnRandomBytes)
{
    generator random(1);
    for (int i = 0; i < 6000 && !HasFailure(); i++)
        expect_as_model(random.bytes(random.below(60)), random.callbacks(), random.arrival());
}

TEST(SaxModel, AgreesOnRandomDocuments)
{
    generator random(2);
    size_t whole = 0;
    for (int i = 0; i < 3000 && !HasFailure(); i++) {
        const std::string document = random.document();
        expect_as_model(document, random.callbacks(), random.arrival());
        whole += document.size() > 20 && read_document(document).result == 0;
    }
    EXPECT_GT(whole, 500u); // most of them are read to the end
}

TEST(SaxModel, AgreesOnChangedDocuments)
{
    generator random(3);
    for (int i = 0; i < 3000 && !HasFailure(); i++)
        expect_as_model(random.changed(random.document()), random.callbacks(), random.arrival());
}

TEST(SaxModel, AgreesOnChangedFiles)
{
    generator random(4);
    for (size_t i = 0; i < 900 && !HasFailure(); i++)
        expect_as_model(random.changed(file_content(files[i % std::size(files)])), {}, random.arrival());
}

} // namespace
