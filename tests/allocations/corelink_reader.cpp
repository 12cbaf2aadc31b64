// Reading text, and the scanner's own interface.

#include "scenario.h"

#include <cstring>

using namespace allocations;

namespace
{

// Of all kinds, and prefixes that are continued after many other members, which makes the reader index them.
std::string mixed_text()
{
    std::string text = R"(s="x\"y\\",n=0x1F,b=true,e,list=[1,"two",{x=3},[]],a.b.c=1)";
    for (int i = 0; i < 66; i++)
        text += ",m" + std::to_string(i) + "={}";
    for (int i = 0; i < 12; i++)
        text += ",a.d" + std::to_string(i) + "=" + std::to_string(i);
    return text + ",a.b.z=false";
}

std::string deep_text(int depth)
{
    return "deep=" + std::string(static_cast<size_t>(depth), '[') + "7" +
           std::string(static_cast<size_t>(depth), ']');
}

// Everything that the tree holds, read without failures.
std::string json_of(clparse_head *head)
{
    char *text = clparse_get_json(head);
    const std::string json = text ? text : "";
    if (text)
        qv_memcheck_free(qv_free, text, "scenario");
    return json;
}

// The tree of a text is whole, or there is none. One that there is can be worked with.
void read_and_use(const std::string &text, const std::string &expected)
{
    clparse_head *head = CALL(clparse_start, text.c_str());
    if (!head) {
        EXPECT_TRUE(failed());
        may_stay("a failed parse leaves what it had built, the head record apart");
        return;
    }
    EXPECT_EQ(json_of(head), expected);
    EXPECT_TRUE(clparse_append_new_number_child(9, "more", CALL(clparse_get_head, head)));
    EXPECT_EQ(json_of(head), expected + ",\"more\":9");
    CALL(clparse_stop, head);
}

} // namespace

SCENARIO(read_text)
{
    std::string expected =
        R"("s":"x\"y\","n":31,"b":true,"e":null,"list":[1,"two",{"x":3},[]],"a":{"b":{"c":1,"z":false})";
    for (int i = 0; i < 12; i++)
        expected += ",\"d" + std::to_string(i) + "\":" + std::to_string(i);
    expected += "}";
    for (int i = 0; i < 66; i++)
        expected += ",\"m" + std::to_string(i) + "\":{}";
    read_and_use(mixed_text(), expected);
}

SCENARIO(read_deep_text)
{
    const std::string open(130, '['), close(130, ']');
    read_and_use(deep_text(130), "\"deep\":" + open + "7" + close);
}

// The error is told on the console, and what was built stays.
SCENARIO(read_wrong_text)
{
    may_stay("a failed parse leaves what it had built");
    EXPECT_EQ(CALL(clparse_start, "a={b=1,c=[\"x\",y"), nullptr);
    EXPECT_EQ(CALL(clparse_start, ""), nullptr);
}

namespace
{

// A token's text is the caller's.
void drop_token(int kind, clparse_token &token)
{
    if (kind == CLPARSE_TOKEN_IDENTIFIER || kind == CLPARSE_TOKEN_STRING)
        release(token.str);
    token = {};
}

// Reads all tokens; a text that can't be copied makes an invalid one, and the scan goes on.
int count_tokens(void *scanner)
{
    clparse_token token{};
    int count = 0;
    for (int kind; (kind = CALL(yylex, &token, scanner)) != CLPARSE_TOKEN_END; count++) {
        EXPECT_GT(CALL(yyget_leng, scanner), 0);
        EXPECT_TRUE(CALL(yyget_text, scanner));
        if (kind == CLPARSE_TOKEN_INVALID) {
            EXPECT_TRUE(failed());
        }
        drop_token(kind, token);
    }
    return count;
}

class scanner_of
{
  public:
    scanner_of()
    {
        if (CALL(yylex_init, &scanner_) != 0) {
            EXPECT_TRUE(failed());
            EXPECT_EQ(errno, ENOMEM);
            EXPECT_EQ(scanner_, nullptr);
        }
    }
    ~scanner_of()
    {
        if (scanner_) {
            EXPECT_EQ(CALL(yylex_destroy, scanner_), 0);
        }
    }
    void *get() const
    {
        return scanner_;
    }

  private:
    void *scanner_ = nullptr;
};

// Scans a buffer to its end and deletes it; one that could not be made is stated.
void scan_all(void *scanner, yy_buffer_state *buffer, int tokens)
{
    if (!buffer) {
        EXPECT_TRUE(failed());
        return;
    }
    EXPECT_EQ(count_tokens(scanner), tokens);
    CALL(yy_delete_buffer, buffer, scanner);
}

} // namespace

SCENARIO(scan_texts)
{
    const scanner_of scanner;
    void *const s = scanner.get();
    if (!s)
        return;
    const char text[] = "a=\"s\\\"t\",b=[1,true]";
    scan_all(s, CALL(yy_scan_string, text, s), 11);
    scan_all(s, CALL(yy_scan_bytes, text, 3, s), 3);
    char own[] = "name\0";
    scan_all(s, CALL(yy_scan_buffer, own, sizeof own, s), 1);
    CALL(yyrestart, nullptr, s); // makes a buffer of its own
}

// Without room in the stack a buffer is not pushed, and stays the caller's.
SCENARIO(scan_stack_of_buffers)
{
    const scanner_of scanner;
    void *const s = scanner.get();
    if (!s)
        return;
    int pushed = 0;
    for (int i = 0; i < 10; i++) {
        yy_buffer_state *buffer = CALL(yy_create_buffer, nullptr, 16, s);
        if (!buffer) {
            EXPECT_TRUE(failed());
            continue;
        }
        if (pushed > 0)
            CALL(yyset_lineno, 1000, s);
        CALL(yypush_buffer_state, buffer, s);
        if (CALL(yyget_lineno, s) == 1) {
            pushed++;
            continue;
        }
        EXPECT_TRUE(failed());
        CALL(yy_delete_buffer, buffer, s);
    }
    EXPECT_TRUE(pushed == 10 || failed());
    for (int i = 0; i < pushed; i++)
        CALL(yypop_buffer_state, s);
    scan_all(s, CALL(yy_scan_string, "still=1", s), 3);
}

SCENARIO(scan_stream)
{
    const scanner_of scanner;
    void *const s = scanner.get();
    if (!s)
        return;
    std::string text = "first,\"" + std::string(100, 'x') + "\",last";
    FILE *stream = fmemopen(text.data(), text.size(), "r");
    char stream_buffer[512];
    setvbuf(stream, stream_buffer, _IOFBF, sizeof stream_buffer);
    CALL(yyset_in, stream, s);
    if (yy_buffer_state *buffer = CALL(yy_create_buffer, stream, 16, s)) {
        CALL(yy_switch_to_buffer, buffer, s);
        if (CALL(yyget_lineno, s) == 0) {
            EXPECT_TRUE(failed());
            CALL(yy_delete_buffer, buffer, s);
            buffer = nullptr;
        }
        const int count = count_tokens(s);
        EXPECT_TRUE(count == 5 || failed());
        CALL(yy_flush_buffer, buffer, s);
    } else {
        EXPECT_TRUE(failed());
    }
    rewind(stream);
    CALL(yyrestart, stream, s);
    const int count = count_tokens(s);
    EXPECT_TRUE(count == 5 || failed());
    fclose(stream);
}

SCENARIO(scanner_fields)
{
    int data = 0;
    void *s = nullptr;
    if (CALL(yylex_init_extra, &data, &s) != 0) {
        EXPECT_TRUE(failed());
        return;
    }
    EXPECT_EQ(CALL(yyget_extra, s), &data);
    CALL(yyset_extra, nullptr, s);
    CALL(yyset_in, stdin, s);
    EXPECT_EQ(CALL(yyget_in, s), stdin);
    CALL(yyset_out, stderr, s);
    EXPECT_EQ(CALL(yyget_out, s), stderr);
    CALL(yyset_debug, 1, s);
    EXPECT_EQ(CALL(yyget_debug, s), 1);
    clparse_token value{};
    CALL(yyset_lval, &value, s);
    EXPECT_EQ(CALL(yyget_lval, s), &value);
    if (CALL(yy_scan_string, "a", s)) {
        CALL(yyset_lineno, 3, s);
        CALL(yyset_column, 4, s);
        EXPECT_EQ(CALL(yyget_lineno, s), 3);
        EXPECT_EQ(CALL(yyget_column, s), 4);
    }
    EXPECT_EQ(CALL(yylex_destroy, s), 0);

    void *block = CALL(yyalloc, 10, nullptr);
    void *larger = CALL(yyrealloc, block, 20, nullptr);
    CALL(yyfree, larger ? larger : block, nullptr);
    EXPECT_TRUE(larger || failed());
}

// What was built before an error stays in the head, whose cursor is the parser's own here.
SCENARIO(parse_into_head)
{
    clparse_head *head = nullptr;
    if (CALL(clparse_init_head, &head) != 0) {
        EXPECT_TRUE(failed());
        EXPECT_EQ(head, nullptr);
        return;
    }
    {
        const scanner_of scanner;
        void *const s = scanner.get();
        if (yy_buffer_state *buffer = s ? CALL(yy_scan_string, "a=1,b={c=[\"x\"]}", s) : nullptr) {
            const int result = CALL(yyparse, s, head);
            if (result == 0) {
                EXPECT_EQ(json_of(head), R"("a":1,"b":{"c":["x"]})");
            } else {
                EXPECT_TRUE(failed());
                may_stay("nodes that were not complete when the parse failed");
            }
            CALL(yy_delete_buffer, buffer, s);
        }
        if (s)
            CALL(yyerror, s, head, "said by the scenario");
    }
    EXPECT_EQ(head->cursor, nullptr);
    EXPECT_TRUE(clparse_append_new_number_child(9, "more", &head->root));
    CALL(clparse_stop, head);
}
