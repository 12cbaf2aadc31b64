// Tracked allocation, and the memory debugger itself.

#include "other_ends.h"

#include <cstdarg>
#include <cstring>

using namespace allocations;

namespace
{

int free_dma(void *block, size_t value)
{
    free(block);
    return static_cast<int>(value);
}

void drop(void *block)
{
    if (block)
        CALL(qv_memcheck_free, qv_free, block, "scenario");
    else {
        EXPECT_TRUE(failed());
    }
}

QV_PRINTF(1, 2) int print_with_list(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int result = CALL(mvprintf, fmt, ap);
    va_end(ap);
    return result;
}

QV_PRINTF(1, 2) int message_with_list(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int result = CALL(memdbg_vprintf, fmt, ap);
    va_end(ap);
    return result;
}

} // namespace

SCENARIO(allocate_blocks)
{
    void *plain = CALL(qv_malloc, 12);
    EXPECT_TRUE(plain || failed());
    CALL(qv_free, plain);
    drop(CALL(qv_memcheck_malloc, malloc, 12, "scenario", 1));
    drop(CALL(qv_memcheck_malloc, qv_malloc, 16, "other", 2));
    drop(CALL(qv_memcheck_realloc, nullptr, 100, "scenario", 3));
    void *block = qv_memcheck_malloc(malloc, 5, "scenario", 4);
    EXPECT_EQ(CALL(qv_memcheck_realloc, block, 0, "scenario", 5), nullptr);
}

// More names than a session finds without an index, for which memory may be short.
SCENARIO(allocate_under_many_names)
{
    constexpr size_t count = 70;
    std::vector<std::string> names;
    for (size_t i = 0; i < count; i++)
        names.push_back("scenario" + std::to_string(i));
    std::vector<void *> blocks;
    for (const std::string &name : names)
        blocks.push_back(CALL(qv_memcheck_malloc, malloc, 8, name.c_str(), 1));
    for (size_t i = 0; i < count; i++) {
        EXPECT_TRUE(blocks[i] || failed());
        if (blocks[i])
            CALL(qv_memcheck_free, qv_free, blocks[i], names[i].c_str());
    }
}

// A block that could not be resized is the caller's as before; of one for which memory itself was short a
// session knows nothing any more, and it is lost to the caller.
SCENARIO(resize_blocks)
{
    for (const size_t size : {12u, 16u}) {
        auto *block = static_cast<char *>(qv_memcheck_malloc(malloc, size, "scenario", 1));
        strcpy(block, "content");
        auto *resized = static_cast<char *>(CALL(qv_memcheck_realloc, block, 1000, "other", 2));
        if (!resized) {
            EXPECT_TRUE(failed());
            EXPECT_STREQ(block, "content");
            if (tracked())
                may_stay("a block whose resize failed under a session");
        } else {
            EXPECT_STREQ(resized, "content");
            block = resized;
        }
        CALL(qv_memcheck_free, qv_free, block, "scenario");
    }
}

SCENARIO(allocate_dma_blocks)
{
    void *block = CALL(qv_dmacheck_malloc, malloc, 100, "scenario");
    if (block) {
        EXPECT_EQ(CALL(qv_dma_free, free_dma, block, 7, "scenario"), 7);
    } else {
        EXPECT_TRUE(failed());
    }
}

SCENARIO(print_on_console)
{
    const std::string longer_than_a_line(600, 'x');
    const bool shown = tracked();
    EXPECT_EQ(CALL(gotoline, 3, "%s", "text") > 0, shown);
    EXPECT_TRUE((CALL(gotoline, 3, "%s", longer_than_a_line.c_str()) > 600) == shown || failed());
    for (const int result : {print_with_list("%s", "text"), CALL(memdbg_printf, "%s\n", "text"),
                             message_with_list("%s\n", "text")})
        EXPECT_TRUE((result >= 0) == shown || failed());
}

PLAIN_SCENARIO(run_debugger)
{
    const relay::usr1_handling handled;
    const armed all_threads;
    const unsigned int port = peers::free_port();
    const std::string service = std::to_string(port);
    static std::atomic<int> faults;
    faults = 0;
    if (CALL(qv_memcheck_start, service.c_str(), 0, [](int) { faults++; }) != 0) {
        EXPECT_TRUE(failed());
        CALL(qv_memcheck_stop); // the session is there, unless its own record could not be had
        EXPECT_EQ(CALL(qv_memcheck_stop), -1);
        return;
    }
    void *block = CALL(qv_memcheck_malloc, malloc, 12, "scenario", 1);
    const relay::stream client = connect_to_opening(port);
    if (client.is_open()) {
        comes_about([&] {
            CALL(gotoline, 5, "%s", "shown to the client");
            return has_input(client);
        });
    }
    CALL(memdbg_printf, "%s\n", "message");
    drop(block);
    void *kept = CALL(qv_memcheck_malloc, malloc, 16, "kept", 1); // for the table at the stop
    EXPECT_EQ(CALL(qv_memcheck_stop), 0);
    free(kept); // a power of two, without markers
    EXPECT_EQ(faults, 0);
    EXPECT_EQ(CALL(qv_memory_debug, nullptr), nullptr);
    EXPECT_EQ(CALL(accept_thread, nullptr), nullptr);
}
