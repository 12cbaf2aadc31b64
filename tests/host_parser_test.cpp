// A program with a parser of its own, linked with the shared library and exporting its names: neither parser
// may take over the other's functions.

#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>

#include <gtest/gtest.h>

#include "host_parser.h"

namespace
{

TEST(HostParser, ReadsWithItsOwnScanner)
{
    EXPECT_EQ(yyparse(), 321);
    EXPECT_EQ(yylex_init(nullptr), 5);
}

TEST(HostParser, IsNotCalledByTheLibrary)
{
    host_calls = 0;
    clparse_head *head = clparse_start("a.b=[1,\"x\"]");
    ASSERT_NE(head, nullptr);
    char *out = nullptr;
    EXPECT_EQ(clparse_get_corelink(head, &out, 0), 0);
    EXPECT_STREQ(out, "a={b=[1,\"x\"]}");
    qv_memcheck_free(qv_free, out, "host_parser_test");
    clparse_stop(head);
    EXPECT_EQ(host_calls, 0);
}

// A failed parse leaves what it had read allocated: leaks.supp knows this function.
[[gnu::noinline]] void read_rejected_document(const char *text)
{
    EXPECT_EQ(clparse_start(text), nullptr);
}

TEST(HostParser, DoesNotHearOfTheLibrarysErrors)
{
    host_calls = 0;
    read_rejected_document("a=1,");
    EXPECT_EQ(host_calls, 0);
}

TEST(HostParser, KeepsWorkingBesideTheLibrarys)
{
    for (int times = 0; times < 3; times++) {
        clparse_head *head = clparse_start("a=1");
        EXPECT_NE(head, nullptr);
        EXPECT_EQ(yyparse(), 321);
        clparse_stop(head);
    }
}

} // namespace
