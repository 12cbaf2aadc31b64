#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>
#include <qvlib/scanner.h>

#include <climits>
#include <cstring>
#include <map>
#include <memory>
#include <pthread.h>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "failing_heap.h"
#include "log_lines.h"
#include "tracked_session.h"

namespace
{

struct stop_head {
    void operator()(clparse_head *head) const
    {
        clparse_stop(head);
    }
};
using head_ptr = std::unique_ptr<clparse_head, stop_head>;

head_ptr read(const std::string &text)
{
    return head_ptr(clparse_start(text.c_str()));
}

std::vector<const clparse_node *> children_of(const clparse_node *container)
{
    std::vector<const clparse_node *> children;
    const clparse_node *sentinel = container->value.children;
    for (const clparse_node *child = sentinel->next; child != sentinel; child = child->next)
        children.push_back(child);
    return children;
}

std::vector<const clparse_node *> members_of(const head_ptr &head)
{
    return children_of(clparse_get_head(head.get()));
}

const clparse_node *only_member(const head_ptr &head)
{
    const auto members = members_of(head);
    EXPECT_EQ(members.size(), 1U);
    return members.empty() ? nullptr : members[0];
}

// A failed parse leaves what it had read allocated: leaks.supp knows this function.
[[gnu::noinline]] void read_rejected_document(const char *text)
{
    EXPECT_EQ(clparse_start(text), nullptr);
}

lines logged_for(const char *text)
{
    log_lines log;
    read_rejected_document(text);
    return log.take();
}

const lines syntax_error_line = {"ERROR: clparse_start: parsing failed: 1\n"};
const lines too_deep_line = {"ERROR: clparse_start: parsing failed: 2\n"};

// ---- Values

TEST(ClparseStart, ReadsANumberMember)
{
    const head_ptr head = read("a=1");
    const clparse_node *a = only_member(head);
    EXPECT_STREQ(a->tag, "a");
    EXPECT_EQ(a->type, CLPARSE_TYPE_NUMBER);
    EXPECT_EQ(a->value.num, 1U);
    EXPECT_EQ(a->parent, clparse_get_head(head.get()));
}

TEST(ClparseStart, ReadsABareIdentifierAsNull)
{
    const head_ptr head = read("a");
    EXPECT_STREQ(only_member(head)->tag, "a");
    EXPECT_EQ(only_member(head)->type, CLPARSE_TYPE_NULL);
}

TEST(ClparseStart, ReadsABareDottedIdentifierAsNullInAStruct)
{
    const head_ptr head = read("a.b");
    const clparse_node *a = only_member(head);
    ASSERT_EQ(a->type, CLPARSE_TYPE_STRUCT);
    ASSERT_EQ(children_of(a).size(), 1U);
    EXPECT_STREQ(children_of(a)[0]->tag, "b");
    EXPECT_EQ(children_of(a)[0]->type, CLPARSE_TYPE_NULL);
    EXPECT_EQ(children_of(a)[0]->parent, a);
}

struct string_row {
    const char *text, *value;
};

TEST(ClparseStart, UndoesTwoEscapesAndKeepsEveryOtherPair)
{
    const string_row rows[] = {
        {"s=\"x\\\"y\"", "x\"y"},
        {"s=\"x\\ny\"", "x\\ny"},
        {"s=\"\\\\\"", "\\"},
        {"s=\"\\\\\\\"\"", "\\\""},
        {"s=\"\\a\\\\b\\c\"", "\\a\\b\\c"},
        {"s=\"\\\\n\"", "\\n"},
        {"s=\"\"", ""},
        {"s=\"a\nb\r\n\"", "a\nb\r\n"},
        {"s=\"\x01\x80\xff\"", "\x01\x80\xff"},
        {"s=\"{a=1}, #\"", "{a=1}, #"},
        {"s=\"\\\x80\"", "\\\x80"},
        {"s=\"\\\r\"", "\\\r"},
    };
    for (const string_row &row : rows) {
        SCOPED_TRACE(row.text);
        const head_ptr head = read(row.text);
        ASSERT_NE(head, nullptr);
        EXPECT_EQ(only_member(head)->type, CLPARSE_TYPE_STRING);
        EXPECT_STREQ(only_member(head)->value.str, row.value);
    }
}

struct number_row {
    const char *text;
    uint64_t value;
};

TEST(ClparseStart, ReadsDecimalAndHexadecimalNumbers)
{
    const number_row rows[] = {
        {"n=0", 0},
        {"n=0x1F", 31},
        {"n=0Xff", 255},
        {"n=007", 7},
        {"n=010", 10},
        {"n=0x0", 0},
        {"n=18446744073709551615", UINT64_MAX},
        {"n=18446744073709551616", UINT64_MAX},
        {"n=0xFFFFFFFFFFFFFFFF", UINT64_MAX},
        {"n=0x10000000000000000", UINT64_MAX},
        {"n=99999999999999999999999999999999", UINT64_MAX},
        {"n=9223372036854775808", UINT64_C(9223372036854775808)},
    };
    for (const number_row &row : rows) {
        SCOPED_TRACE(row.text);
        const head_ptr head = read(row.text);
        ASSERT_NE(head, nullptr);
        EXPECT_EQ(only_member(head)->type, CLPARSE_TYPE_NUMBER);
        EXPECT_EQ(only_member(head)->value.num, row.value);
    }
}

TEST(ClparseStart, ReadsBooleans)
{
    const head_ptr head = read("b=true, c=false");
    ASSERT_EQ(members_of(head).size(), 2U);
    EXPECT_EQ(members_of(head)[0]->type, CLPARSE_TYPE_BOOLEAN);
    EXPECT_EQ(members_of(head)[0]->value.boolean, 1);
    EXPECT_EQ(members_of(head)[1]->type, CLPARSE_TYPE_BOOLEAN);
    EXPECT_EQ(members_of(head)[1]->value.boolean, 0);
}

TEST(ClparseStart, TakesLongerWordsForIdentifiers)
{
    const head_ptr head = read("trueness=1,false_x,_true,true1,TRUE,null");
    std::vector<std::string> tags;
    for (const clparse_node *member : members_of(head))
        tags.emplace_back(member->tag);
    EXPECT_EQ(tags, (std::vector<std::string>{"trueness", "false_x", "_true", "true1", "TRUE", "null"}));
}

TEST(ClparseStart, ReadsUntaggedArrayElementsInOrder)
{
    const head_ptr head = read("l=[1,\"s\",{x=3},[]]");
    const clparse_node *l = only_member(head);
    ASSERT_EQ(l->type, CLPARSE_TYPE_ARRAY);
    const auto elements = children_of(l);
    ASSERT_EQ(elements.size(), 4U);
    const int types[] = {CLPARSE_TYPE_NUMBER, CLPARSE_TYPE_STRING, CLPARSE_TYPE_STRUCT, CLPARSE_TYPE_ARRAY};
    for (size_t i = 0; i < 4; i++) {
        EXPECT_EQ(elements[i]->type, types[i]);
        EXPECT_EQ(elements[i]->tag, nullptr);
        EXPECT_EQ(elements[i]->parent, l);
    }
    EXPECT_STREQ(children_of(elements[2])[0]->tag, "x");
    EXPECT_TRUE(children_of(elements[3]).empty());
}

TEST(ClparseStart, ReadsEmptyContainers)
{
    const head_ptr head = read("s={},l=[]");
    ASSERT_EQ(members_of(head).size(), 2U);
    EXPECT_EQ(members_of(head)[0]->type, CLPARSE_TYPE_STRUCT);
    EXPECT_TRUE(children_of(members_of(head)[0]).empty());
    EXPECT_EQ(members_of(head)[1]->type, CLPARSE_TYPE_ARRAY);
    EXPECT_TRUE(children_of(members_of(head)[1]).empty());
}

TEST(ClparseStart, MakesARootTaggedHead)
{
    const head_ptr head = read("a");
    EXPECT_STREQ(head->root.tag, "head");
    EXPECT_EQ(head->root.type, CLPARSE_TYPE_STRUCT);
    EXPECT_EQ(head->root.parent, nullptr);
    EXPECT_EQ(head->cursor, nullptr);
}

TEST(ClparseStart, LeavesTheTextUnchangedAndDoesNotKeepIt)
{
    char text[] = "a=\"x\\\"y\",b.c";
    const std::string before = text;
    const head_ptr head = read("a");
    const head_ptr kept(clparse_start(text));
    EXPECT_EQ(text, before);
    memset(text, 'Z', sizeof text - 1);
    EXPECT_STREQ(members_of(kept)[0]->value.str, "x\"y");
    EXPECT_STREQ(members_of(kept)[1]->tag, "b");
}

// ---- Dotted members

std::string corelink_of(const head_ptr &head)
{
    char *text = nullptr;
    EXPECT_EQ(clparse_get_corelink(head.get(), &text, 0), 0);
    std::string copy = text ? text : "";
    qv_memcheck_free(qv_free, text, "reader_test");
    return copy;
}

TEST(ClparseStart, MergesDottedPrefixes)
{
    const string_row rows[] = {
        {"a.x=1,b=2,a.y=3", "a={x=1,y=3},b=2"},
        {"a.x = 1, a.y = 2", "a={x=1,y=2}"},
        {"a={x=1},a.y=2", "a={x=1,y=2}"},
        {"a={x=1},a={y=2}", "a={x=1},a={y=2}"},
        {"a={x=1},a={y=2},a.z=3", "a={x=1},a={y=2,z=3}"},
        {"a.b.c=1,a.b.d=2,a.e=3", "a={b={c=1,d=2},e=3}"},
        {"a.b=1,c={a.b=2}", "a={b=1},c={a={b=2}}"},
        {"a.b={c.d=1},a.b.c.e=2", "a={b={c={d=1,e=2}}}"},
        {"a . b\n.\tc = 1", "a={b={c=1}}"},
        {"a.x,a.x,a.x=1", "a={x,x,x=1}"},
        {"l=[{a.b=1},{a.b=2,a.c=3}]", "l=[{a={b=1}},{a={b=2,c=3}}]"},
    };
    for (const string_row &row : rows) {
        SCOPED_TRACE(row.text);
        const head_ptr head = read(row.text);
        ASSERT_NE(head, nullptr);
        EXPECT_EQ(corelink_of(head), row.value);
    }
}

TEST(ClparseStart, AppendsATaggedElementToAnArrayThatAPrefixNames)
{
    const head_ptr head = read("a=[1],a.x=2");
    const auto elements = children_of(only_member(head));
    ASSERT_EQ(elements.size(), 2U);
    EXPECT_EQ(elements[0]->tag, nullptr);
    EXPECT_STREQ(elements[1]->tag, "x");
    EXPECT_EQ(elements[1]->value.num, 2U);
}

TEST(ClparseStart, RefusesAPrefixThatNamesNoContainer)
{
    for (const char *text : {"a=1,a.b=2", "a=\"s\",a.b=2", "a=true,a.b=2", "a,a.b", "s={a,a.b}",
                             "a.b=1,a.b.c=2", "a={},a=1,a.b=2"})
        EXPECT_EQ(logged_for(text), syntax_error_line) << text;
}

TEST(ClparseStart, LooksForPrefixesAmongManyMembers)
{
    std::string text, expected;
    for (int i = 0; i < 100; i++) {
        const std::string name = "m" + std::to_string(i);
        text += name + ".x=1," + name + "={z},";
        expected += name + "={x=1}," + name + "={z,y=2},";
    }
    for (int i = 99; i >= 0; i--)
        text += "m" + std::to_string(i) + ".y=2" + (i ? "," : "");
    expected.pop_back();
    EXPECT_EQ(corelink_of(read(text)), expected);
}

// ---- Rejected texts

TEST(ClparseStart, LogsASyntaxError)
{
    for (const char *text : {"a=1,",
                             "{a=1}",
                             "a=null",
                             "a=-1",
                             "a=1 b=2",
                             " ",
                             "\t\r\n ",
                             "true=1",
                             "t=TRUE",
                             ",a",
                             "a,,b",
                             "a=[1,]",
                             "a=[,1]",
                             "a=[1,,2]",
                             "a={b=1,}",
                             "a={,}",
                             "a=",
                             "=1",
                             "a.",
                             ".a",
                             "a..b",
                             "a.1",
                             "1",
                             "\"s\"",
                             "a=[b]",
                             "a=[b=1]",
                             "a={1}",
                             "a={",
                             "a=[",
                             "a=}",
                             "a=]",
                             "a={]",
                             "a=[}",
                             "a=1;",
                             "a=(1)",
                             "a:1",
                             "a/b",
                             "#a",
                             "a=+1",
                             "a=1.5",
                             "a=\"x",
                             "a=\"x\\\"",
                             "a=\"x\\\n\"",
                             "a=0x",
                             "a=0xg",
                             "a=1b",
                             "a=\x80",
                             "a=\x01",
                             "\xef\xbb\xbf"
                             "a=1",
                             "a=[true.b]",
                             "a.true=1",
                             "a=1.b",
                             "a==1",
                             "a=b",
                             "a=1}",
                             "a=1]",
                             "[1]",
                             "a=[null]"})
        EXPECT_EQ(logged_for(text), syntax_error_line) << text;
}

TEST(ClparseStart, IsSilentForNothing)
{
    EXPECT_EQ(logged_for(nullptr), lines{});
    EXPECT_EQ(logged_for(""), lines{});
}

std::vector<std::string> printed_for(const char *text)
{
    log_lines log;
    const tracked_session session;
    read_rejected_document(text);
    return session.last_lines(3);
}

TEST(ClparseStart, PrintsThePlaceOfAnErrorToTheDebugConsole)
{
    using printed = std::vector<std::string>;
    EXPECT_EQ(printed_for("a=1,"), (printed{"(null): syntax error", "Parent was head", "near: NULL"}));
    EXPECT_EQ(printed_for(" "), (printed{"(null): syntax error", "Parent was head", "near: NULL"}));
    EXPECT_EQ(printed_for("p.q=;"), (printed{"(null): syntax error", "Parent was p", "near: NULL"}));
    EXPECT_EQ(printed_for("p.q.r=;"), (printed{"(null): syntax error", "Parent was q", "near: NULL"}));
    EXPECT_EQ(printed_for("p.q=1,;"), (printed{"(null): syntax error", "Parent was head", "near: NULL"}));
    EXPECT_EQ(printed_for("a={b=;"), (printed{"(null): syntax error", "Parent was NULL", "near: NULL"}));
    EXPECT_EQ(printed_for("a=[1,;"), (printed{"(null): syntax error", "Parent was NULL", "near: NULL"}));
    EXPECT_EQ(printed_for("a=1,a.b=2"), (printed{"(null): syntax error", "Parent was head", "near: NULL"}));
    const std::string deep = "a=" + std::string(11000, '[');
    EXPECT_EQ(printed_for(deep.c_str()),
              (printed{"(null): memory exhausted", "Parent was NULL", "near: NULL"}));
}

TEST(Yyerror, PrintsUserDataAndTags)
{
    const tracked_session session;
    clparse_node cursor = {}, parent = {};
    char cursor_tag[] = "cursor's", parent_tag[] = "parent's", user_data[] = "user's";
    clparse_head head = {};
    head.cursor = &cursor;
    void *scanner = nullptr;
    ASSERT_EQ(yylex_init_extra(user_data, &scanner), 0);
    cursor.tag = cursor_tag;
    yyerror(scanner, &head, "without parent");
    EXPECT_EQ(session.last_lines(2), (std::vector<std::string>{"user's: without parent", "near: cursor's"}));
    cursor.parent = &parent;
    parent.tag = parent_tag;
    yyerror(scanner, &head, "with parent");
    EXPECT_EQ(session.last_lines(3),
              (std::vector<std::string>{"user's: with parent", "Parent was parent's", "near: cursor's"}));
    yylex_destroy(scanner);
}

// ---- Tracked blocks

using counts = std::map<std::string, int>;

TEST(ClparseStart, RecordsItsBlocksUnderTheNamesOfTheirMakers)
{
    const tracked_session session;
    const head_ptr head = read("a=\"text\",b={c.d=[1,2]}");
    // Nodes a, b, c, d and two elements; sentinels of the root, b, c and d.
    EXPECT_EQ(session.counts(), (counts{{"clparse_start", 2}, {"clparse_create_node", 10}, {"yylex", 5}}));
    EXPECT_EQ(session.sizes("clparse_start"), (std::vector<size_t>{sizeof(clparse_head), sizeof "head"}));
    EXPECT_EQ(session.sizes("yylex"), (std::vector<size_t>{2, 5, 2, 2, 2}));
    for (const size_t size : session.sizes("clparse_create_node"))
        EXPECT_EQ(size, sizeof(clparse_node));
    clparse_stop(const_cast<head_ptr &>(head).release());
    EXPECT_EQ(session.counts(), counts{});
    EXPECT_EQ(tracked_session::faults, 0);
}

TEST(ClparseStart, RecordsOnlyTheUnescapedLengthOfAString)
{
    const tracked_session session;
    const head_ptr head = read("a=\"x\\\"\\\\\\n\"");
    EXPECT_EQ(session.sizes("yylex"), (std::vector<size_t>{2, sizeof "x\"\\\\n"}));
}

TEST(ClparseStart, ReleasesTheParsersGrownStacks)
{
    const tracked_session session;
    {
        const head_ptr head = read("a=" + std::string(3000, '[') + std::string(3000, ']'));
        ASSERT_NE(head, nullptr);
        EXPECT_EQ(session.counts().count("yyparse"), 0U);
    }
    EXPECT_EQ(session.counts(), counts{});
    EXPECT_EQ(tracked_session::faults, 0);
}

// What a failed parse keeps, by name: the head record alone goes.
counts kept_by(const char *text)
{
    log_lines log;
    const tracked_session session;
    read_rejected_document(text);
    EXPECT_EQ(tracked_session::faults, 0);
    return session.counts();
}

TEST(ClparseStart, KeepsWhatAFailedParseHadBuilt)
{
    // Root's tag; root's sentinel and cursor.
    EXPECT_EQ(kept_by(" "), (counts{{"clparse_start", 1}, {"clparse_create_node", 2}}));
    // And a node with its tag.
    EXPECT_EQ(kept_by("a=1,"), (counts{{"clparse_start", 1}, {"clparse_create_node", 3}, {"yylex", 1}}));
    // The identifier that was not used yet.
    EXPECT_EQ(kept_by("a=1,b=;"), (counts{{"clparse_start", 1}, {"clparse_create_node", 3}, {"yylex", 2}}));
    // A member is complete with its value, whatever follows.
    EXPECT_EQ(kept_by("a=\"s\";"), (counts{{"clparse_start", 1}, {"clparse_create_node", 3}, {"yylex", 2}}));
    // Old cursor, its sentinel and the new cursor.
    EXPECT_EQ(kept_by("a={"), (counts{{"clparse_start", 1}, {"clparse_create_node", 4}, {"yylex", 1}}));
    EXPECT_EQ(kept_by("a={}}"), (counts{{"clparse_start", 1}, {"clparse_create_node", 4}, {"yylex", 1}}));
    EXPECT_EQ(kept_by("a=[1,2;"), (counts{{"clparse_start", 1}, {"clparse_create_node", 6}, {"yylex", 1}}));
    // Prefix struct and its sentinel.
    EXPECT_EQ(kept_by("p."), (counts{{"clparse_start", 1}, {"clparse_create_node", 4}, {"yylex", 1}}));
    // A prefix that was there releases its identifier.
    EXPECT_EQ(kept_by("p.a,p."), (counts{{"clparse_start", 1}, {"clparse_create_node", 5}, {"yylex", 2}}));
    EXPECT_EQ(kept_by("a,a.b"), (counts{{"clparse_start", 1}, {"clparse_create_node", 3}, {"yylex", 1}}));
}

TEST(ClparseStart, ReleasesTheStackOfAFailedParse)
{
    const std::string deep = "a=" + std::string(500, '[') + ";";
    EXPECT_EQ(kept_by(deep.c_str()),
              (counts{{"clparse_start", 1}, {"clparse_create_node", 2 + 2 * 500}, {"yylex", 1}}));
}

// ---- Failing allocations

TEST(ClparseStart, GivesNullWithoutMessageWhenTheHeadCannotBeAllocated)
{
    log_lines log;
    {
        const failing_heap::after failure(0);
        EXPECT_EQ(clparse_start("a=1"), nullptr);
    }
    EXPECT_EQ(log.take(), lines{});
}

// Reads with the n-th allocation failing. What was read may stay allocated: leaks.supp knows this function.
[[gnu::noinline]] bool read_with_failing_allocation(const std::string &text, int successes, bool all)
{
    clparse_head *head = nullptr;
    bool happened = false;
    {
        const failing_heap::after failure(successes, all);
        head = clparse_start(text.c_str());
        happened = failure.failed();
    }
    if (head) {
        const head_ptr expected = read(text), got(head);
        EXPECT_EQ(corelink_of(got), corelink_of(expected));
    }
    return happened;
}

void expect_survival_of_failing_allocations(const std::string &text)
{
    log_lines log;
    for (const bool all : {false, true})
        for (int successes = 0; read_with_failing_allocation(text, successes, all); successes++)
            ASSERT_LT(successes, 5000);
}

TEST(ClparseStart, SurvivesEveryFailingAllocation)
{
    expect_survival_of_failing_allocations("a=\"s\\\"\",b={c.d=[1,{},true],c.e},b.c.f=1,n");
}

TEST(ClparseStart, SurvivesEveryFailingAllocationOfStacksAndIndexes)
{
    expect_survival_of_failing_allocations("a=" + std::string(70, '[') + std::string(70, ']'));
    std::string text = "a.x";
    for (int i = 0; i < 40; i++)
        text += ",m" + std::to_string(i) + ".x";
    for (int i = 0; i < 40; i++)
        text += ",m" + std::to_string(i) + ".y";
    expect_survival_of_failing_allocations(text);
    text = "first={}";
    for (int i = 0; i < 20; i++)
        text += ",m" + std::to_string(i) + "={}";
    expect_survival_of_failing_allocations(text + ",first.x=1,none.x=2");
}

TEST(ClparseStart, LeavesNothingAllocatedWhenMemoryIsShortBeforeParsing)
{
    for (int successes = 0; successes < 4; successes++) { // head, tag, sentinel, cursor
        SCOPED_TRACE(successes);
        const failing_heap::after failure(successes, true);
        EXPECT_EQ(clparse_start("a=1"), nullptr); // a leak would be seen
    }
}

// ---- Memory that is not the reader's

// A text at the end of pages that can be read, before one that can't.
class guarded_text
{
  public:
    explicit guarded_text(const std::string &text)
        : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE))), room_((text.size() + page_) / page_ * page_),
          memory_(static_cast<char *>(
              mmap(nullptr, room_ + page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)))
    {
        text_ = memory_ + room_ - text.size() - 1;
        memcpy(memory_ + room_ - text.size() - 1, text.c_str(), text.size() + 1);
        mprotect(memory_, room_, PROT_READ);
        mprotect(memory_ + room_, page_, PROT_NONE);
    }
    ~guarded_text()
    {
        munmap(memory_, room_ + page_);
    }
    guarded_text(const guarded_text &) = delete;
    guarded_text &operator=(const guarded_text &) = delete;

    const char *get() const
    {
        return text_;
    }

  private:
    size_t page_, room_;
    char *memory_;
    const char *text_;
};

TEST(ClparseStart, NeitherWritesToItsTextNorReadsBehindIt)
{
    for (const char *text : {"a", "a=1", "a=0x1F", "a=0", "a=true", "a.b", "a={}", "a=[1,2] ", "a=\"s\"",
                             "a=\"long enough for words \\\" of eight bytes\"", "a=12 \n"}) {
        SCOPED_TRACE(text);
        const guarded_text guarded(text);
        EXPECT_NE(head_ptr(clparse_start(guarded.get())), nullptr);
    }
    for (const char *text : {"a=0x", "a=0X", "a=\"", "a=\"\\", "a=\"\\\"", "a=\"eight bytes and more",
                             "a=", "a.", "a,", "a={", "a=-", " ", "a=t", "a=\"\\\n"}) {
        SCOPED_TRACE(text);
        const guarded_text guarded(text);
        EXPECT_EQ(logged_for(guarded.get()), syntax_error_line);
    }
}

// ---- Yyparse on its own

// What was read may stay allocated: leaks.supp knows this function.
[[gnu::noinline]] void parse_rejected_text(void *scanner, clparse_head *head)
{
    EXPECT_EQ(yyparse(scanner, head), 1);
}

TEST(Yyparse, FillsAHeadOfInitHead)
{
    clparse_head *head = nullptr;
    ASSERT_EQ(clparse_init_head(&head), 0);
    const head_ptr owner(head);
    void *scanner = nullptr;
    ASSERT_EQ(yylex_init(&scanner), 0);
    ASSERT_NE(yy_scan_string("a.b=1,c=[]", scanner), nullptr);
    EXPECT_EQ(yyparse(scanner, head), 0);
    EXPECT_EQ(head->cursor, nullptr);
    yypop_buffer_state(scanner);
    ASSERT_NE(yy_scan_string("a.d=2", scanner), nullptr);
    EXPECT_EQ(yyparse(scanner, head), 0);
    yylex_destroy(scanner);
    EXPECT_EQ(corelink_of(owner), "a={b=1,d=2},c=[]");
}

TEST(Yyparse, GoesOnBehindAQuoteThatOpensNoString)
{
    clparse_head *head = nullptr;
    ASSERT_EQ(clparse_init_head(&head), 0);
    const head_ptr owner(head);
    void *scanner = nullptr;
    ASSERT_EQ(yylex_init(&scanner), 0);
    ASSERT_NE(yy_scan_string("a=\"b=1,c=[2]", scanner), nullptr);
    parse_rejected_text(scanner, head);
    EXPECT_EQ(yyparse(scanner, head), 0);
    yylex_destroy(scanner);
    EXPECT_EQ(corelink_of(owner), "b=1,c=[2]");
}

TEST(Yyparse, ReadsAStream)
{
    clparse_head *head = nullptr;
    ASSERT_EQ(clparse_init_head(&head), 0);
    const head_ptr owner(head);
    std::string text = "a=\"" + std::string(100000, 'x') + "\",b=2\n";
    FILE *stream = fmemopen(text.data(), text.size(), "r");
    void *scanner = nullptr;
    ASSERT_EQ(yylex_init(&scanner), 0);
    yyset_in(stream, scanner);
    EXPECT_EQ(yyparse(scanner, head), 0);
    yylex_destroy(scanner);
    fclose(stream);
    ASSERT_EQ(members_of(owner).size(), 2U);
    EXPECT_EQ(strlen(members_of(owner)[0]->value.str), 100000U);
}

TEST(Yyparse, ShowsTheTokenThatIsWrong)
{
    const string_row rows[] = {{"a=1,a.b=2", "."}, {"a=1,b==2", "="}, {"a=1 \"x\" ", "\"x\""},
                               {"a=[1,0x]", "x"},  {"a={", ""},       {"a=\"x", "\""}};
    for (const string_row &row : rows) {
        SCOPED_TRACE(row.text);
        clparse_head *head = nullptr;
        ASSERT_EQ(clparse_init_head(&head), 0);
        std::string base = row.text + std::string(2, '\0');
        void *scanner = nullptr;
        ASSERT_EQ(yylex_init(&scanner), 0);
        ASSERT_NE(yy_scan_buffer(base.data(), base.size(), scanner), nullptr);
        parse_rejected_text(scanner, head);
        EXPECT_STREQ(yyget_text(scanner), row.value);
        EXPECT_EQ(yyget_leng(scanner), static_cast<int>(strlen(row.value)));
        yylex_destroy(scanner);
        clparse_stop(head);
    }
}

TEST(Yyparse, LeavesACallersBufferUnchanged)
{
    std::string base = "a=\"x\\\"y\",b.c=[1,{}]" + std::string(2, '\0');
    const std::string before = base;
    clparse_head *head = nullptr;
    ASSERT_EQ(clparse_init_head(&head), 0);
    const head_ptr owner(head);
    void *scanner = nullptr;
    ASSERT_EQ(yylex_init(&scanner), 0);
    ASSERT_NE(yy_scan_buffer(base.data(), base.size(), scanner), nullptr);
    EXPECT_EQ(yyparse(scanner, head), 0);
    EXPECT_EQ(base, before);
    yylex_destroy(scanner);
}

// What was not complete may stay allocated: leaks.supp knows this function.
[[gnu::noinline]] int parse_with_failing_allocation(void *scanner, clparse_head *head, int successes,
                                                    bool all)
{
    const failing_heap::after failure(successes, all);
    return yyparse(scanner, head);
}

TEST(Yyparse, LeavesATreeThatCanBeWorkedWithWhenMemoryRunsOut)
{
    for (const bool all : {false, true}) {
        for (int successes = 0, result = -1; result != 0; successes++) {
            SCOPED_TRACE(successes);
            clparse_head *head = nullptr;
            ASSERT_EQ(clparse_init_head(&head), 0);
            const head_ptr owner(head);
            void *scanner = nullptr;
            ASSERT_EQ(yylex_init(&scanner), 0);
            ASSERT_NE(yy_scan_string("a=1,b.c=[\"x\",{}]", scanner), nullptr);
            result = parse_with_failing_allocation(scanner, head, successes, all);
            yylex_destroy(scanner);
            EXPECT_EQ(head->cursor, nullptr);
            EXPECT_NE(clparse_append_new_number_child(1, "more", &head->root), nullptr);
            const std::string text = corelink_of(owner);
            EXPECT_TRUE(text.size() >= 6 && text.substr(text.size() - 6) == "more=1") << text;
            ASSERT_LT(successes, 100);
        }
    }
}

TEST(Yyparse, RefusesMissingArguments)
{
    clparse_head head = {};
    void *scanner = nullptr;
    ASSERT_EQ(yylex_init(&scanner), 0);
    EXPECT_EQ(yyparse(nullptr, &head), 1);
    EXPECT_EQ(yyparse(scanner, nullptr), 1);
    EXPECT_EQ(yyparse(scanner, &head), 1);
    yylex_destroy(scanner);
}

// ---- Depth and size

// Runs something on a thread with a small stack.
template <class F> void on_small_stack(F work)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 128 * 1024), 0);
    pthread_t thread;
    ASSERT_EQ(pthread_create(
                  &thread, &attributes,
                  [](void *what) -> void * {
                      (*static_cast<F *>(what))();
                      return nullptr;
                  },
                  &work),
              0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

std::string repeated(const std::string &what, int times)
{
    std::string text;
    for (int i = 0; i < times; i++)
        text += what;
    return text;
}

std::string nested_arrays(int depth)
{
    return "a=" + std::string(static_cast<size_t>(depth), '[') + std::string(static_cast<size_t>(depth), ']');
}

std::string nested_structs(int depth)
{
    return "a=" + repeated("{a=", depth - 1) + "{}" + std::string(static_cast<size_t>(depth - 1), '}');
}

std::string dotted_prefixes(int depth)
{
    return repeated("a.", depth) + "a";
}

struct depth_row {
    std::string (*make)(int depth);
    int deepest;
};

const depth_row depth_rows[] = {{nested_arrays, 9995}, {nested_structs, 3332}, {dotted_prefixes, 4998}};

TEST(ClparseStart, ReadsAsDeepAsItsStackOfTenThousandEntries)
{
    for (const depth_row &row : depth_rows) {
        SCOPED_TRACE(row.deepest);
        const head_ptr head = read(row.make(row.deepest));
        EXPECT_NE(head, nullptr);
        EXPECT_EQ(logged_for(row.make(row.deepest + 1).c_str()), too_deep_line);
    }
}

TEST(ClparseStart, TakesAValueOfEachKindAsDeepAsItsStack)
{
    for (const std::string value : {"1", "true", "\"s\"", "t"}) {
        SCOPED_TRACE(value);
        const auto nested = [&value](int depth) {
            const auto count = static_cast<size_t>(depth);
            return value == "t" ? "a=" + repeated("{a=", depth) + "{t" + std::string(count + 1, '}')
                                : "a=" + std::string(count, '[') + value + std::string(count, ']');
        };
        const int deepest = value == "t" ? 3331 : 9994;
        EXPECT_NE(read(nested(deepest)), nullptr);
        for (int more = 1; more <= 3; more++)
            EXPECT_EQ(logged_for(nested(deepest + more).c_str()), too_deep_line) << more;
    }
}

TEST(ClparseStart, PassesOverBlanksOfAnyNumber)
{
    for (size_t count = 0; count < 40; count++) {
        const std::string blanks(count, ' ');
        const head_ptr head = read(blanks + "a" + blanks + "=" + blanks + "1" + blanks + "\t" + blanks);
        EXPECT_EQ(only_member(head)->value.num, 1U) << count;
    }
}

void release(char *text)
{
    EXPECT_NE(text, nullptr);
    qv_memcheck_free(qv_free, text, "reader_test");
}

void use_everywhere(const std::string &text, const std::string &path)
{
    const head_ptr head = read(text);
    ASSERT_NE(head, nullptr);
    clparse_head *copy = nullptr;
    ASSERT_EQ(clparse_init_head(&copy), 0);
    const head_ptr owner(copy);
    EXPECT_EQ(clparse_insert(copy, head.get()), 0);
    EXPECT_EQ(clparse_insert_sort(copy, head.get()), 0);
    EXPECT_EQ(clparse_select(copy, head.get()), 0);
    release(clparse_get_json(copy));
    char *out = nullptr;
    EXPECT_EQ(clparse_get_corelink(copy, &out, 0), 0);
    release(out);
    EXPECT_EQ(clparse_get_corelink(copy, &out, 1), 0);
    release(out);
    EXPECT_EQ(clparse_get_xml(copy, &out, 0, nullptr), 0);
    release(out);
    clparse_node *found = clparse_get_node(copy, path.c_str());
    ASSERT_NE(found, nullptr);
    out = clparse_build_path(found);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out, path);
    release(out);
}

TEST(DeepTree, IsReadCopiedWrittenQueriedAndFreedOnASmallStack)
{
    on_small_stack([] {
        use_everywhere(nested_arrays(9994), "a" + repeated(".0", 9993));
        use_everywhere(nested_structs(3331), "a" + repeated(".a", 3330));
        use_everywhere(dotted_prefixes(4998), "a" + repeated(".a", 4998));
    });
}

TEST(DeepTree, OfAMillionLevelsIsWrittenAndFreedOnASmallStack)
{
    on_small_stack([] {
        clparse_head *head = nullptr;
        ASSERT_EQ(clparse_init_head(&head), 0);
        clparse_node *parent = clparse_get_head(head);
        for (int level = 0; level < 1000000; level++) {
            clparse_node *child =
                level % 2 ? clparse_create_array_node("t") : clparse_create_struct_node("t");
            ASSERT_EQ(clparse_append_child(parent, child), 0);
            parent = child;
        }
        release(clparse_get_json(head));
        char *out = nullptr;
        EXPECT_EQ(clparse_get_corelink(head, &out, 0), 0);
        release(out);
        EXPECT_EQ(clparse_get_xml(head, &out, 0, nullptr), 0);
        release(out);
        out = clparse_build_path(parent);
        release(out);
        clparse_stop(head);
    });
}

TEST(LargeDocument, WithManyMembersIsRead)
{
    std::string text = "first";
    for (int i = 0; i < 100000; i++)
        text += ",m" + std::to_string(i) + "=" + std::to_string(i);
    EXPECT_EQ(members_of(read(text)).size(), 100001U);
}

TEST(LargeDocument, WithManyDottedPrefixesIsRead)
{
    std::string text = "first";
    for (int i = 0; i < 100000; i++)
        text += ",m" + std::to_string(i) + ".x";
    for (int i = 0; i < 100000; i++)
        text += ",m" + std::to_string(i) + ".y";
    EXPECT_EQ(members_of(read(text)).size(), 100001U);
}

TEST(LargeDocument, WithAStringOfEscapedQuotesIsRead)
{
    const std::string text = "s=\"" + repeated("\\\"abc", 2000000) + "\"";
    const head_ptr head = read(text);
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(strlen(only_member(head)->value.str), 8000000U);
    EXPECT_EQ(corelink_of(head), text);
}

TEST(ClparseStart, ReadsInSeveralThreadsAtOnce)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([i] {
            const std::string text = "a={b=[" + std::to_string(i) + ",\"x\\\"y\"]},c={d}";
            for (int times = 0; times < 200; times++)
                EXPECT_EQ(corelink_of(read(text)), text);
        });
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace
