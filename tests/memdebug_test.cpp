#include "memdebug.h"

#include <qvlib/log.h>
#include <qvlib/memcheck.h>
#include <qvlib/strings.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "captured_fd.h"
#include "failing_heap.h"

using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{

constexpr size_t marker_size = 4;
constexpr uint32_t marker = 0xDEADBEEF;

// What an allocator was asked for and gave.
size_t asked;
void *given;

void *noting_malloc(size_t size)
{
    asked = size;
    return given = malloc(size);
}

void *no_memory(size_t size)
{
    asked = size;
    errno = ENOMEM;
    return nullptr;
}

// What was released.
std::vector<void *> released;

void noting_free(void *block)
{
    released.push_back(block);
    free(block);
}

void *dma_released;
size_t dma_value;

int noting_dma_free(void *block, size_t value)
{
    dma_released = block;
    dma_value = value;
    free(block);
    return 42;
}

std::vector<int> hook_calls;
void (*on_hook)();

void noting_hook(int code)
{
    hook_calls.push_back(code);
    if (on_hook)
        on_hook();
}

// The bytes of one console line.
std::string at_line(int line, const std::string &text)
{
    return "\033[H\033[" + std::to_string(line + 3) + "B\r\033[K" + text + "\033[" +
           std::to_string(48 - (line + 3)) + "B\r";
}

std::string total(int count)
{
    char text[32];
    snprintf(text, sizeof text, "Total Allocations: %.5d", count);
    return at_line(-1, text);
}

int format_list(int (*function)(const char *, va_list), const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    const int result = function(format, ap);
    va_end(ap);
    return result;
}

void reset_notes()
{
    asked = 0;
    given = nullptr;
    released.clear();
    dma_released = nullptr;
    dma_value = 0;
    hook_calls.clear();
    on_hook = nullptr;
}

// Error messages go to standard error, without the system log.
void start_console_log()
{
    captured_stderr unseen;
    qv_log_init("memdebug_test", QV_LOG_ERROR, 0x20, 0, 0);
}

// Each console line of the log without its time.
std::vector<std::string> log_lines(const std::string &text)
{
    std::vector<std::string> lines;
    for (size_t at = 0, end; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2)
        lines.push_back(text.substr(at + 16, end - at - 16));
    return lines;
}

struct row {
    std::string name;
    int count;
    size_t total;
    bool operator==(const row &) const = default;
};

std::ostream &operator<<(std::ostream &out, const row &r)
{
    return out << "{" << r.name << " " << r.count << " " << r.total << "}";
}

// The table from its head.
std::vector<row> table()
{
    std::vector<row> rows;
    const qv::memdebug_session *session = qv::running_session();
    for (qv::func_record *func = session->funcs.next; func != &session->funcs; func = func->next)
        rows.push_back({func->name, func->count, func->total});
    return rows;
}

const qv::alloc_record *record_of(const void *user)
{
    const qv::memdebug_session *session = qv::running_session();
    for (qv::func_record *func = session->funcs.next; func != &session->funcs; func = func->next)
        for (qv::alloc_record *r = func->blocks.next; r != &func->blocks; r = r->next)
            if (r->user == user)
                return r;
    return nullptr;
}

std::vector<const void *> blocks_of(const std::string &name)
{
    std::vector<const void *> blocks;
    const qv::memdebug_session *session = qv::running_session();
    for (qv::func_record *func = session->funcs.next; func != &session->funcs; func = func->next)
        if (func->name == name)
            for (qv::alloc_record *r = func->blocks.next; r != &func->blocks; r = r->next)
                blocks.push_back(r->user);
    return blocks;
}

bool is_marker(const void *bytes)
{
    return memcmp(bytes, &marker, marker_size) == 0;
}

const unsigned char *bytes_of(const void *block)
{
    return static_cast<const unsigned char *>(block);
}

void *block_of(size_t size, const char *func = "f", unsigned int line = 1)
{
    return qv_memcheck_malloc(malloc, size, func, line);
}

void release(void *block)
{
    qv_memcheck_free(qv_free, block, "test:1");
}

// ---- Without a session

class WithoutASession : public testing::Test
{
  protected:
    WithoutASession()
    {
        reset_notes();
    }
};

TEST_F(WithoutASession, MallocForwardsToTheAllocator)
{
    void *block = qv_memcheck_malloc(noting_malloc, 12, "f", 1);
    EXPECT_EQ(asked, 12u);
    EXPECT_EQ(block, given);
    EXPECT_EQ(qv_memcheck_malloc(no_memory, 12, nullptr, 1), nullptr);
    free(block);
}

TEST_F(WithoutASession, FreeForwardsToTheReleaseFunctionAndReturnsZero)
{
    void *block = malloc(12);
    EXPECT_EQ(qv_memcheck_free(noting_free, block, "w"), 0);
    EXPECT_EQ(qv_memcheck_free(noting_free, nullptr, nullptr), 0);
    EXPECT_THAT(released, ElementsAre(block, nullptr));
}

TEST_F(WithoutASession, ReallocResizesAsTheCLibraryDoes)
{
    char *block = static_cast<char *>(malloc(4));
    memcpy(block, "abc", 4);
    block = static_cast<char *>(qv_memcheck_realloc(block, 100000, "f", 1));
    EXPECT_STREQ(block, "abc");
    free(block);
}

TEST_F(WithoutASession, ReallocOfNullAllocatesZeroedMemory)
{
    auto *block = static_cast<unsigned char *>(qv_memcheck_realloc(nullptr, 100, "f", 1));
    EXPECT_TRUE(std::all_of(block, block + 100, [](unsigned char c) { return c == 0; }));
    free(block);
}

TEST_F(WithoutASession, ReallocToNothingReleasesAndReturnsNull)
{
    EXPECT_EQ(qv_memcheck_realloc(malloc(4), 0, "f", 1), nullptr); // leaks show under the sanitizer
}

TEST_F(WithoutASession, AFailedReallocKeepsTheOldBlock)
{
    void *block = malloc(4), *resized = nullptr;
    {
        const failing_heap::after none(0);
        resized = qv_memcheck_realloc(block, 8, "f", 1);
    }
    EXPECT_EQ(resized, nullptr);
    free(block);
}

TEST_F(WithoutASession, DmaCallsForward)
{
    void *block = qv_dmacheck_malloc(noting_malloc, 12, "f");
    EXPECT_EQ(asked, 12u);
    EXPECT_EQ(block, given);
    EXPECT_EQ(qv_dma_free(noting_dma_free, block, 7, "w"), 42);
    EXPECT_EQ(dma_released, block);
    EXPECT_EQ(dma_value, 7u);
}

TEST_F(WithoutASession, ConsoleOutputFails)
{
    EXPECT_EQ(gotoline(1, "x"), -1);
    EXPECT_EQ(gotoline(1, nullptr), -1);
    EXPECT_EQ(format_list(mvprintf, "x"), -1);
    EXPECT_EQ(memdbg_printf("x\n"), -1);
    EXPECT_EQ(format_list(memdbg_vprintf, "x\n"), -1);
    EXPECT_EQ(memdbg_printf("%s", ""), -1);
}

TEST_F(WithoutASession, ClosingOneIsNothing)
{
    qv::close_session();
    EXPECT_EQ(qv::running_session(), nullptr);
}

TEST(ZeroedMalloc, FillsTheBlockWithZeros)
{
    for (size_t size : {size_t{0}, size_t{1}, size_t{4096}, size_t{100000}}) {
        auto *block = static_cast<unsigned char *>(qv_malloc(size));
        ASSERT_NE(block, nullptr);
        EXPECT_TRUE(std::all_of(block, block + size, [](unsigned char c) { return c == 0; }));
        qv_free(block);
    }
}

TEST(ZeroedMalloc, ReturnsNullInSilenceWhenMemoryIsShort)
{
    start_console_log();
    const captured_stderr log;
    void *block = &asked;
    {
        const failing_heap::after none(0);
        block = qv_malloc(12);
    }
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(log.text(), "");
}

// ---- With a session whose console is a file

class WithASession : public testing::Test
{
  protected:
    WithASession()
    {
        reset_notes();
        start_console_log();
        session_ = qv::open_session(nullptr, console_.fd(), noting_hook);
    }
    ~WithASession() override
    {
        qv::close_session();
        qv_log_setlevel(-1);
    }
    // What was put on the console since the last call.
    std::string console() const
    {
        const std::string text = console_.text();
        console_.clear();
        return text;
    }

    qv::memdebug_session *session_;

  private:
    const memory_file console_;
};

using TrackedMalloc = WithASession;
using TrackedRealloc = WithASession;
using TrackedFree = WithASession;
using TrackedDma = WithASession;
using TrackedTable = WithASession;
using TrackedText = WithASession;
using TrackedShortage = WithASession;
using GotoLine = WithASession;
using MvPrintf = WithASession;
using MessageArea = WithASession;

TEST_F(TrackedMalloc, PutsMarkersAroundABlockWhoseSizeIsNoPowerOfTwo)
{
    for (size_t size : std::initializer_list<size_t>{3, 5, 6, 7, 9, 12, 100, 4095, 4097}) {
        void *user = qv_memcheck_malloc(noting_malloc, size, "f", 1);
        EXPECT_EQ(asked, size + 8);
        EXPECT_EQ(user, bytes_of(given) + 4);
        EXPECT_TRUE(is_marker(given));
        EXPECT_TRUE(is_marker(bytes_of(given) + 4 + size));
        release(user);
    }
}

TEST_F(TrackedMalloc, PutsNoMarkersAroundPowersOfTwoAndZero)
{
    for (size_t size : std::initializer_list<size_t>{0, 1, 2, 4, 8, 16, 4096, 1 << 20}) {
        void *user = qv_memcheck_malloc(noting_malloc, size, "f", 1);
        EXPECT_EQ(asked, size);
        EXPECT_EQ(user, given);
        EXPECT_EQ(record_of(user)->flags, qv::flag_malloc);
        release(user);
    }
}

// Only the log's own texts are without: it is no matter of the name.
TEST_F(TrackedMalloc, PutsMarkersAroundABlockOfAFunctionCalledLikeTheLogs)
{
    const std::string name = "qv_verrno";
    void *user = qv_memcheck_malloc(noting_malloc, 12, name.c_str(), 1);
    EXPECT_EQ(user, bytes_of(given) + 4);
    EXPECT_TRUE(is_marker(given));
    release(user);
}

TEST_F(TrackedMalloc, LetsAnOverrunChangeTheTrailingMarker)
{
    auto *user = static_cast<unsigned char *>(block_of(12));
    EXPECT_TRUE(is_marker(user + 12));
    user[12] ^= 0xff;
    EXPECT_FALSE(is_marker(record_of(user)->post_marker));
    release(user);
}

TEST_F(TrackedMalloc, RecordsTheBlock)
{
    void *user = qv_memcheck_malloc(noting_malloc, 12, "maker", 77);
    const qv::alloc_record *record = record_of(user);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->block, given);
    EXPECT_EQ(record->post_marker, bytes_of(given) + 16);
    EXPECT_EQ(record->size, 12u);
    EXPECT_EQ(record->line, 77u);
    EXPECT_EQ(record->flags, 0xa0000000u);
    EXPECT_THAT(table(), ElementsAre(row{"maker", 1, 12}));
    release(user);
}

TEST_F(TrackedMalloc, KeepsItsOwnCopyOfTheName)
{
    char name[] = "abc";
    void *user = block_of(12, name);
    name[0] = 'x';
    EXPECT_THAT(table(), ElementsAre(row{"abc", 1, 12}));
    release(user);
}

TEST_F(TrackedMalloc, ShowsTheTotalOnTheConsole)
{
    void *first = block_of(12), *second = block_of(8);
    EXPECT_EQ(console(), total(1) + total(2));
    release(first);
    release(second);
    EXPECT_EQ(console(), total(1) + total(0));
}

TEST_F(TrackedMalloc, ZeroFillsThroughQvMalloc)
{
    for (size_t size : std::initializer_list<size_t>{8, 12}) {
        auto *user = static_cast<unsigned char *>(qv_memcheck_malloc(qv_malloc, size, "f", 1));
        EXPECT_TRUE(std::all_of(user, user + size, [](unsigned char c) { return c == 0; }));
        release(user);
    }
}

TEST_F(TrackedMalloc, LogsAnAllocatorThatFails)
{
    const captured_stderr log;
    for (size_t size : std::initializer_list<size_t>{8, 12})
        EXPECT_EQ(qv_memcheck_malloc(no_memory, size, "f", 1), nullptr);
    const std::string line = "ERROR: qv_memcheck_malloc: allocation: Cannot allocate memory (12)";
    EXPECT_THAT(log_lines(log.text()), ElementsAre(line, line));
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_EQ(session_->total_allocations, 0);
    EXPECT_THAT(hook_calls, IsEmpty());
}

TEST_F(TrackedMalloc, RefusesASizeThatLeavesNoRoomForMarkers)
{
    const captured_stderr log;
    for (size_t size : {SIZE_MAX, SIZE_MAX - 7})
        EXPECT_EQ(block_of(size), nullptr);
    EXPECT_THAT(log_lines(log.text()), SizeIs(2));
}

// The block and its record stay allocated on purpose.
__attribute__((noinline)) void *allocate_without_a_name(size_t size)
{
    void *volatile user = qv_memcheck_malloc(noting_malloc, size, nullptr, 1); // no tail call
    return user;
}

TEST_F(TrackedMalloc, ReturnsNullWithoutAFunctionNameThoughTheBlockWasAllocated)
{
    EXPECT_EQ(allocate_without_a_name(12), nullptr);
    EXPECT_EQ(asked, 20u);
    EXPECT_TRUE(is_marker(given));
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_EQ(session_->total_allocations, 1);
    EXPECT_EQ(console(), total(1));
}

// ---- Free

TEST_F(TrackedFree, ReleasesTheUnderlyingBlockAndReturnsTheCharactersPut)
{
    void *user = qv_memcheck_malloc(noting_malloc, 12, "f", 1);
    void *const block = given;
    console();
    EXPECT_EQ(qv_memcheck_free(noting_free, user, "w"), static_cast<int>(total(0).size()));
    EXPECT_THAT(released, ElementsAre(block));
    EXPECT_EQ(console(), total(0));
    EXPECT_THAT(table(), IsEmpty());
}

TEST_F(TrackedFree, ReportsASecondReleaseOnceAndReleasesNothing)
{
    void *user = block_of(12);
    release(user);
    console();
    EXPECT_EQ(qv_memcheck_free(noting_free, user, "../src/a.cpp:7"), 0);
    EXPECT_EQ(console(), at_line(-2, "Could not find the allocation to free (../src/a.cpp:7)"));
    EXPECT_THAT(hook_calls, ElementsAre(-1));
    EXPECT_THAT(released, IsEmpty());
    EXPECT_EQ(session_->total_allocations, 0);
}

TEST_F(TrackedFree, ReportsNullAndInnerPointersToo)
{
    auto *user = static_cast<char *>(block_of(12));
    console();
    EXPECT_EQ(qv_memcheck_free(noting_free, nullptr, "w"), 0);
    EXPECT_EQ(qv_memcheck_free(noting_free, user + 1, "w"), 0);
    EXPECT_EQ(qv_memcheck_free(noting_free, user - 4, nullptr), 0);
    EXPECT_EQ(console(), at_line(-2, "Could not find the allocation to free (w)") +
                             at_line(-2, "Could not find the allocation to free (w)") +
                             at_line(-2, "Could not find the allocation to free ((null))"));
    EXPECT_THAT(hook_calls, ElementsAre(-1, -1, -1));
    release(user);
}

TEST_F(TrackedFree, ReportsABlockFromBeforeTheSession)
{
    qv::close_session();
    void *user = block_of(12);
    session_ = qv::open_session(nullptr, -1, noting_hook);
    EXPECT_EQ(qv_memcheck_free(noting_free, user, "w"), 0);
    EXPECT_THAT(hook_calls, ElementsAre(-1));
    EXPECT_THAT(released, IsEmpty());
    free(user);
}

TEST_F(TrackedFree, ForwardsOnceTheSessionIsDisabled)
{
    session_->enabled = 0;
    void *user = qv_memcheck_malloc(noting_malloc, 12, "f", 1);
    EXPECT_EQ(asked, 12u);
    EXPECT_EQ(qv_memcheck_free(noting_free, user, "w"), 0);
    EXPECT_EQ(gotoline(0, "x"), -1);
    session_->enabled = 1;
    EXPECT_EQ(console(), "");
    EXPECT_THAT(hook_calls, IsEmpty());
}

TEST_F(TrackedFree, LeavesErrnoAlone)
{
    void *user = block_of(12);
    errno = EXDEV;
    release(user);
    EXPECT_EQ(errno, EXDEV);
    const captured_stderr log;
    release(user);
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(TrackedFree, LetsTheErrorHookAllocateAndPrint)
{
    on_hook = [] {
        on_hook = nullptr;
        release(block_of(12));
        memdbg_printf("hook\n");
    };
    release(nullptr);
    EXPECT_THAT(hook_calls, ElementsAre(-1));
    EXPECT_STREQ(session_->messages[10], "hook");
}

// ---- Realloc

TEST_F(TrackedRealloc, OfNullCountsOneMoreAllocation)
{
    auto *user = static_cast<unsigned char *>(qv_memcheck_realloc(nullptr, 12, "f", 5));
    EXPECT_EQ(console(), total(1));
    EXPECT_TRUE(std::all_of(user, user + 12, [](unsigned char c) { return c == 0; }));
    EXPECT_EQ(record_of(user)->line, 5u);
    EXPECT_THAT(table(), ElementsAre(row{"f", 1, 12}));
    release(user);
}

TEST_F(TrackedRealloc, ToNothingReleasesTheBlock)
{
    void *user = block_of(12);
    console();
    EXPECT_EQ(qv_memcheck_realloc(user, 0, "f", 5), nullptr);
    EXPECT_EQ(console(), total(0));
}

TEST_F(TrackedRealloc, ToNothingNamesTheFunctionInItsReport)
{
    EXPECT_EQ(qv_memcheck_realloc(&asked, 0, "resizer", 5), nullptr);
    EXPECT_EQ(console(), at_line(-2, "Could not find the allocation to free (resizer)"));
}

TEST_F(TrackedRealloc, KeepsTheMarkersOfAMarkedBlockWhateverTheNewSize)
{
    auto *user = static_cast<unsigned char *>(block_of(12));
    memcpy(user, "abcdefghijkl", 12);
    for (size_t size : std::initializer_list<size_t>{16, 100000, 3, 4096}) {
        user = static_cast<unsigned char *>(qv_memcheck_realloc(user, size, "f", 9));
        const qv::alloc_record *record = record_of(user);
        EXPECT_EQ(record->flags, 0xa0000000u);
        EXPECT_EQ(record->size, size);
        EXPECT_EQ(record->line, 9u);
        EXPECT_EQ(record->block, user - 4);
        EXPECT_EQ(record->post_marker, user + size);
        EXPECT_TRUE(is_marker(user - 4));
        EXPECT_TRUE(is_marker(user + size));
        EXPECT_EQ(memcmp(user, "abc", 3), 0);
    }
    release(user);
}

TEST_F(TrackedRealloc, PutsNoMarkersAroundAnUnmarkedBlock)
{
    auto *user = static_cast<char *>(block_of(4));
    memcpy(user, "abc", 4);
    user = static_cast<char *>(qv_memcheck_realloc(user, 100, "f", 9));
    EXPECT_STREQ(user, "abc");
    EXPECT_EQ(record_of(user)->flags, 0x80000000u);
    EXPECT_EQ(record_of(user)->block, user);
    release(user);
}

TEST_F(TrackedRealloc, MovesTheBlockToTheResizingFunctionAndLeavesTheTotalAlone)
{
    void *first = block_of(12, "maker"), *second = block_of(20, "maker");
    console();
    first = qv_memcheck_realloc(first, 30, "resizer", 1);
    EXPECT_EQ(console(), "");
    EXPECT_EQ(session_->total_allocations, 2);
    EXPECT_THAT(table(), ElementsAre(row{"resizer", 1, 30}, row{"maker", 1, 20}));
    second = qv_memcheck_realloc(second, 40, "resizer", 1);
    EXPECT_THAT(table(), ElementsAre(row{"resizer", 2, 70}));
    EXPECT_THAT(blocks_of("resizer"), ElementsAre(first, second));
    release(first);
    release(second);
}

TEST_F(TrackedRealloc, ReportsAnUnknownBlockAndLeavesItAlone)
{
    char block[12] = "untouched";
    EXPECT_EQ(qv_memcheck_realloc(block, 30, "resizer", 4000000000u), nullptr);
    EXPECT_EQ(console(), at_line(-2, "Could not find the allocation to realloc (resizer:4000000000)"));
    EXPECT_THAT(hook_calls, ElementsAre(-1));
    EXPECT_STREQ(block, "untouched");
}

TEST_F(TrackedRealloc, OfADmaBlockMakesItATrackedOne)
{
    void *user = qv_dmacheck_malloc(malloc, 12, "dma");
    EXPECT_EQ(record_of(user)->flags, qv::flag_dma);
    user = qv_memcheck_realloc(user, 20, "f", 3);
    EXPECT_EQ(record_of(user)->flags, qv::flag_malloc);
    EXPECT_EQ(session_->total_allocations, 0);
    release(user);
    EXPECT_EQ(session_->total_allocations, -1);
}

// Resizes a block in vain; the record of the lost block stays allocated on purpose, the block is the
// caller's.
__attribute__((noinline)) void *resize_in_vain(size_t size, size_t new_size)
{
    void *user = block_of(size, "maker"), *resized = user;
    {
        const failing_heap::after none(0, failing_heap::realloc_calls);
        resized = qv_memcheck_realloc(user, new_size, "resizer", 3);
    }
    EXPECT_EQ(resized, nullptr);
    return user;
}

TEST_F(TrackedRealloc, LogsAFailedResizeAndReportsTheRecordAsNotFound)
{
    const struct {
        size_t size;
        const char *line;
        size_t offset;
    } rows[] = {{12, "ERROR: qv_memcheck_realloc: realloc with marker: Cannot allocate memory (12)", 4},
                {8, "ERROR: qv_memcheck_realloc: realloc without marker: Cannot allocate memory (12)", 0}};
    for (const auto &r : rows) {
        hook_calls.clear();
        console();
        const captured_stderr log;
        auto *user = static_cast<unsigned char *>(resize_in_vain(r.size, 100));
        EXPECT_THAT(log_lines(log.text()), ElementsAre(r.line));
        EXPECT_THAT(console(),
                    EndsWith(at_line(-2, "Could not find the allocation to free (../src/memdebug.c:1126)")));
        EXPECT_THAT(hook_calls, ElementsAre(-1));
        EXPECT_THAT(table(), IsEmpty());
        free(user - r.offset);
    }
    EXPECT_EQ(session_->total_allocations, 2); // a failed resize doesn't count
}

TEST_F(TrackedRealloc, RefusesASizeThatLeavesNoRoomForMarkers)
{
    for (const size_t size : {SIZE_MAX, SIZE_MAX - 3, SIZE_MAX - 7}) {
        const captured_stderr log;
        auto *user = static_cast<unsigned char *>(resize_in_vain(12, size));
        EXPECT_THAT(
            log_lines(log.text()),
            ElementsAre("ERROR: qv_memcheck_realloc: realloc with marker: Cannot allocate memory (12)"));
        free(user - 4);
    }
}

// The block and its record stay allocated on purpose.
__attribute__((noinline)) void *resize_without_a_name()
{
    void *volatile user = qv_memcheck_realloc(block_of(12), 100000, nullptr, 1); // no tail call
    return user;
}

TEST_F(TrackedRealloc, ReturnsNullWithoutAFunctionName)
{
    EXPECT_EQ(resize_without_a_name(), nullptr);
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_THAT(hook_calls, IsEmpty());
}

// ---- DMA

TEST_F(TrackedDma, RecordsTheBlockWithoutMarkersLineOrTotal)
{
    void *user = qv_dmacheck_malloc(noting_malloc, 12, "dma");
    EXPECT_EQ(asked, 12u);
    EXPECT_EQ(user, given);
    EXPECT_EQ(record_of(user)->flags, 0x40000000u);
    EXPECT_EQ(record_of(user)->line, 0u);
    EXPECT_THAT(table(), ElementsAre(row{"dma", 1, 12}));
    EXPECT_EQ(qv_dma_free(noting_dma_free, user, 9, "w"), 42);
    EXPECT_EQ(dma_released, user);
    EXPECT_EQ(dma_value, 9u);
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_EQ(session_->total_allocations, 0);
    EXPECT_EQ(console(), "");
}

TEST_F(TrackedDma, HandsNullToTheReleaseFunctionForAnUnknownBlock)
{
    dma_released = &asked;
    EXPECT_EQ(qv_dma_free(noting_dma_free, &asked, 9, "w:1"), 42);
    EXPECT_EQ(dma_released, nullptr);
    EXPECT_EQ(dma_value, 9u);
    EXPECT_EQ(console(), at_line(-2, "Could not find the allocation to free (w:1)"));
    EXPECT_THAT(hook_calls, ElementsAre(-1));
}

TEST_F(TrackedDma, RecordsAFailedAllocationTooAndFindsTheOldestFirst)
{
    EXPECT_EQ(qv_dmacheck_malloc(no_memory, 12, "a"), nullptr);
    EXPECT_EQ(qv_dmacheck_malloc(no_memory, 20, "a"), nullptr);
    EXPECT_THAT(table(), ElementsAre(row{"a", 2, 32}));
    EXPECT_EQ(qv_memcheck_free(noting_free, nullptr, "w"), 0);
    EXPECT_THAT(table(), ElementsAre(row{"a", 1, 20}));
    EXPECT_EQ(qv_dma_free(noting_dma_free, nullptr, 1, "w"), 42);
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_THAT(hook_calls, IsEmpty());
    EXPECT_THAT(released, IsEmpty());
}

// The record stays allocated on purpose.
__attribute__((noinline)) void *allocate_dma_without_a_name()
{
    void *volatile block = qv_dmacheck_malloc(noting_malloc, 12, nullptr); // no tail call
    return block;
}

TEST_F(TrackedDma, ReturnsTheBlockWithoutAFunctionName)
{
    EXPECT_EQ(allocate_dma_without_a_name(), given);
    EXPECT_THAT(table(), IsEmpty());
    free(given);
}

// ---- The table

TEST_F(TrackedTable, CollectsTheBlocksOfEqualNamesNewestLast)
{
    const std::string name = "f", same = "f";
    void *first = block_of(12, name.c_str()), *second = block_of(8, same.c_str());
    EXPECT_THAT(table(), ElementsAre(row{"f", 2, 20}));
    EXPECT_THAT(blocks_of("f"), ElementsAre(first, second));
    release(first);
    EXPECT_THAT(table(), ElementsAre(row{"f", 1, 8}));
    release(second);
    EXPECT_THAT(table(), IsEmpty());
}

TEST_F(TrackedTable, PutsANewNameInFront)
{
    void *blocks[] = {block_of(1, "a"), block_of(1, "b"), block_of(1, "c")};
    EXPECT_THAT(table(), ElementsAre(row{"c", 1, 1}, row{"b", 1, 1}, row{"a", 1, 1}));
    for (void *block : blocks)
        release(block);
}

TEST_F(TrackedTable, TakesAnEmptyName)
{
    void *block = block_of(1, "");
    EXPECT_THAT(table(), ElementsAre(row{"", 1, 1}));
    release(block);
}

// The table's order by the letter of its rule, on a list of names.
class slow_table
{
  public:
    void add(const std::string &name, size_t size, int block)
    {
        for (entry &e : entries_)
            if (e.r.name == name) {
                e.blocks.push_back({block, size});
                e.r.count++;
                e.r.total += size;
                reorder();
                return;
            }
        entry &added = entries_.emplace_front();
        added.r = row{name, 1, size};
        added.blocks.emplace_back(block, size);
    }
    void remove(int block)
    {
        for (entry &e : entries_)
            for (auto b = e.blocks.begin(); b != e.blocks.end(); ++b)
                if (b->first == block) {
                    e.r.count--;
                    e.r.total -= b->second;
                    e.blocks.erase(b);
                    reorder();
                    return;
                }
    }
    std::vector<row> rows() const
    {
        std::vector<row> result;
        for (const entry &e : entries_)
            result.push_back(e.r);
        return result;
    }
    std::vector<int> blocks(const std::string &name) const
    {
        std::vector<int> result;
        for (const entry &e : entries_)
            if (e.r.name == name)
                for (const auto &b : e.blocks)
                    result.push_back(b.first);
        return result;
    }

  private:
    struct entry {
        row r;
        std::list<std::pair<int, size_t>> blocks;
    };

    void reorder()
    {
        for (auto at = entries_.begin(); at != entries_.end();) {
            const auto before = at == entries_.begin() ? entries_.end() : std::prev(at);
            const int count_before = before == entries_.end() ? 0 : before->r.count;
            if (at->r.count < count_before) {
                if (at->r.count == 0) {
                    entries_.erase(at);
                    return;
                }
                entries_.splice(before, entries_, at);
                at = entries_.begin();
            } else if (at->r.count == 0) {
                at = entries_.erase(at);
            } else {
                ++at;
            }
        }
    }

    std::list<entry> entries_;
};

TEST_F(TrackedTable, IsOrderedByTheLetterOfItsRule)
{
    const memory_file elsewhere;
    const char *names[] = {"a", "b", "c", "d", "e", "f", "g"};
    std::mt19937 random(7);
    for (int round = 0; round < 20; round++) {
        slow_table model;
        std::map<int, void *> live;
        int next_block = 0;
        // Rounds differ in how many blocks live at once.
        const unsigned int crowd = 2 + static_cast<unsigned int>(round) * 3;
        for (int step = 0; step < 300; step++) {
            const char *name = names[random() % std::size(names)];
            const size_t size = 1 + random() % 40;
            const bool grows = live.empty() || (live.size() < crowd && random() % 2 == 0);
            auto chosen = live.begin();
            if (!grows)
                std::advance(chosen, static_cast<long>(random() % live.size()));
            if (grows) {
                const bool dma = random() % 4 == 0;
                live[next_block] = dma ? qv_dmacheck_malloc(malloc, size, name) : block_of(size, name);
                model.add(name, size, next_block++);
            } else if (random() % 3 == 0) {
                chosen->second = qv_memcheck_realloc(chosen->second, size, name, 1);
                model.remove(chosen->first);
                model.add(name, size, chosen->first);
            } else {
                release(chosen->second);
                model.remove(chosen->first);
                live.erase(chosen);
            }
            ASSERT_EQ(table(), model.rows());
            for (const row &r : model.rows()) {
                std::vector<const void *> blocks;
                for (int block : model.blocks(r.name))
                    blocks.push_back(live[block]);
                ASSERT_EQ(blocks_of(r.name), blocks);
            }
        }
        for (const auto &[number, block] : live)
            release(block);
        ASSERT_THAT(table(), IsEmpty());
    }
    EXPECT_THAT(hook_calls, IsEmpty());
}

TEST_F(TrackedTable, FindsOneOfAHundredThousandBlocks)
{
    std::vector<void *> blocks(100000);
    const std::array<const char *, 3> names = {"a", "b", "c"};
    session_->output_fd = -1; // no console: nothing is written
    for (size_t i = 0; i < blocks.size(); i++)
        blocks[i] = block_of(12, names[i % names.size()]);
    EXPECT_EQ(session_->total_allocations, 100000);
    std::shuffle(blocks.begin(), blocks.end(), std::mt19937(3));
    for (void *&block : blocks)
        block = qv_memcheck_realloc(block, 20, "d", 1);
    EXPECT_THAT(table(), ElementsAre(row{"d", 100000, 2000000}));
    std::shuffle(blocks.begin(), blocks.end(), std::mt19937(4));
    for (void *block : blocks)
        release(block);
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_EQ(session_->total_allocations, 0);
    EXPECT_THAT(hook_calls, IsEmpty());
}

TEST_F(TrackedTable, IsDroppedWithTheSessionWhileBlocksLiveOn)
{
    void *marked = qv_memcheck_malloc(noting_malloc, 12, "f", 1);
    void *const block = given;
    void *plain = block_of(8, "g");
    qv::close_session();
    EXPECT_EQ(qv_memcheck_free(noting_free, plain, "w"), 0);
    EXPECT_THAT(released, ElementsAre(plain));
    EXPECT_TRUE(is_marker(static_cast<char *>(marked) - 4));
    free(block);
}

// ---- Text functions and logging under a session

TEST_F(TrackedText, IsRecordedUnderTheCallersName)
{
    char *text = nullptr;
    EXPECT_EQ(__qv_asprintf(&text, "caller", 123, "%s", "ab"), 2);
    EXPECT_THAT(table(), ElementsAre(row{"caller", 1, 3}));
    EXPECT_EQ(record_of(text)->line, 123u);
    release(text);
}

TEST_F(TrackedText, MovesToTheAppendingFunctionWhenItGrows)
{
    char *text = nullptr;
    __qv_asprintf(&text, "caller", 123, "%s", "ab");
    EXPECT_EQ(qv_aasprintf(&text, "%d", 5), 1);
    EXPECT_THAT(table(), ElementsAre(row{"qv_vaasprintf", 1, 4}));
    EXPECT_EQ(record_of(text)->line, 44u);
    release(text);
}

TEST_F(TrackedText, MovesToTheAppendingFunctionWhenItIsEscaped)
{
    char *text = nullptr;
    __qv_asprintf(&text, "caller", 123, "%s", "plain");
    EXPECT_EQ(replace_quotes(&text), 5);
    EXPECT_THAT(table(), ElementsAre(row{"caller", 1, 6}));
    release(text);
    __qv_asprintf(&text, "caller", 123, "%s", "a\"");
    EXPECT_EQ(replace_quotes(&text), 3);
    EXPECT_THAT(table(), ElementsAre(row{"qv_vaasprintf", 1, 4}));
    EXPECT_EQ(replace_xml_entities(&text, 0), 8);
    EXPECT_THAT(table(), ElementsAre(row{"qv_vaasprintf", 1, 9}));
    EXPECT_EQ(record_of(text)->line, 44u);
    release(text);
}

TEST_F(TrackedText, ThatIsUnknownCannotGrow)
{
    char block[] = "static";
    char *text = block;
    EXPECT_EQ(qv_aasprintf(&text, "x"), -1);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(console(), at_line(-2, "Could not find the allocation to realloc (qv_vaasprintf:44)"));
    text = block;
    EXPECT_EQ(replace_xml_entities(&text, 0), 6);
    EXPECT_EQ(text, block);
}

TEST_F(TrackedText, OfADescriptorOrAMessageIsReleasedAgain)
{
    const memory_file file;
    EXPECT_EQ(qv_fdprintf(file.fd(), "abc"), 3);
    EXPECT_EQ(console(), total(1) + total(0));
    EXPECT_EQ(qv_fdprintf(file.fd(), "%s", ""), 0);
    EXPECT_EQ(console(), total(1) + total(0));
    const captured_stderr log;
    qv_errno("text");
    EXPECT_EQ(console(), total(1) + total(0));
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_THAT(hook_calls, IsEmpty());
    EXPECT_EQ(file.text(), "abc");
}

// ---- Memory runs short

TEST_F(TrackedShortage, OfRecordsIsLogged)
{
    const captured_stderr log;
    void *results[2] = {&asked, &asked};
    {
        const failing_heap::after none(0, failing_heap::calloc_calls);
        results[0] = block_of(12, "maker");
    }
    {
        const failing_heap::after none(0, failing_heap::calloc_calls);
        results[1] = qv_dmacheck_malloc(noting_malloc, 20, "dma");
    }
    EXPECT_EQ(results[0], nullptr);
    EXPECT_EQ(results[1], nullptr);
    EXPECT_EQ(asked, 0u);
    EXPECT_THAT(
        log_lines(log.text()),
        ElementsAre("ERROR: qv_memcheck_malloc: malloc failed for maker size 12: Cannot allocate memory (12)",
                    "ERROR: qv_dmacheck_malloc: malloc failed for dma size 20: Cannot allocate memory (12)"));
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_EQ(session_->total_allocations, 0);
}

TEST_F(TrackedShortage, OfANameOrFunctionRecordLeaksNoBlock)
{
    const captured_stderr log;
    for (unsigned kind : {failing_heap::strdup_calls, failing_heap::calloc_calls}) {
        const long successes = kind == failing_heap::calloc_calls; // the block's record comes first
        void *results[2] = {&asked, &asked};
        {
            const failing_heap::after none(successes, kind);
            results[0] = qv_memcheck_malloc(noting_malloc, 12, "maker", 1);
        }
        {
            const failing_heap::after none(successes, kind);
            results[1] = qv_dmacheck_malloc(noting_malloc, 12, "dma");
        }
        EXPECT_EQ(results[0], nullptr);
        EXPECT_EQ(results[1], nullptr);
        EXPECT_EQ(asked, 0u);
        EXPECT_THAT(table(), IsEmpty());
        EXPECT_EQ(session_->total_allocations, 0);
    }
    EXPECT_THAT(log_lines(log.text()), SizeIs(4));
}

TEST_F(TrackedShortage, OfANameLeavesABlockThatWasToBeResizedAsItWas)
{
    const captured_stderr log;
    auto *user = static_cast<char *>(block_of(12, "maker"));
    strcpy(user, "kept");
    for (unsigned kind : {failing_heap::strdup_calls, failing_heap::calloc_calls}) {
        void *resized = user;
        {
            const failing_heap::after none(0, kind);
            resized = qv_memcheck_realloc(user, 100, "resizer", 1);
        }
        EXPECT_EQ(resized, nullptr);
    }
    EXPECT_STREQ(user, "kept");
    EXPECT_THAT(table(), ElementsAre(row{"maker", 1, 12}));
    EXPECT_THAT(hook_calls, IsEmpty());
    release(user);
}

TEST_F(TrackedShortage, OfTheIndexLosesNoBlock)
{
    void *first = nullptr;
    {
        const failing_heap::after none(2, failing_heap::calloc_calls); // both records succeed
        first = block_of(12, "f");
        EXPECT_TRUE(none.failed());
    }
    EXPECT_EQ(session_->bucket_count, 0u);
    first = qv_memcheck_realloc(first, 20, "f", 1);
    ASSERT_NE(first, nullptr);
    void *second = block_of(12, "f");
    release(first);
    release(second);
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_THAT(hook_calls, IsEmpty());
}

TEST_F(TrackedShortage, OfALargerIndexLosesNoBlock)
{
    session_->output_fd = -1;
    std::vector<void *> blocks;
    while (blocks.size() < 1024)
        blocks.push_back(block_of(12, "f"));
    const size_t buckets = session_->bucket_count;
    for (int i = 0; i < 10; i++) {
        const failing_heap::after none(2, failing_heap::calloc_calls);
        blocks.push_back(block_of(12, "f"));
    }
    EXPECT_EQ(session_->bucket_count, buckets);
    for (int i = 0; i < 10; i++)
        blocks.push_back(block_of(12, "f"));
    EXPECT_GT(session_->bucket_count, buckets);
    for (void *block : blocks)
        release(block);
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_THAT(hook_calls, IsEmpty());
}

TEST_F(TrackedShortage, OfTheIndexOfNamesLosesNoFunction)
{
    session_->output_fd = -1;
    const auto name = [](int i) { return "function " + std::to_string(i); };
    std::vector<void *> blocks;
    for (int i = 0; i < 300; i++) {
        // The index is wanted first for the 65th name.
        const failing_heap::after none(i < 100 ? 2 : 1000, failing_heap::calloc_calls);
        blocks.push_back(block_of(12, name(i).c_str()));
        EXPECT_EQ(session_->name_bucket_count != 0, i >= 100);
    }
    for (int i = 0; i < 300; i += 2)
        blocks.push_back(block_of(12, name(i).c_str()));
    std::vector<row> expected;
    for (int i = 299; i > 0; i -= 2)
        expected.push_back({name(i), 1, 12});
    std::vector<row> found = table();
    ASSERT_EQ(found.size(), 300u);
    EXPECT_EQ(std::vector<row>(found.begin(), found.begin() + 150), expected);
    for (const row &twice : std::vector<row>(found.begin() + 150, found.end()))
        EXPECT_EQ(twice, (row{twice.name, 2, 24}));
    for (void *block : blocks)
        release(block);
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_THAT(hook_calls, IsEmpty());
    void *again = block_of(12, name(0).c_str());
    EXPECT_THAT(table(), ElementsAre(row{name(0), 1, 12}));
    release(again);
}

TEST_F(TrackedShortage, ThatLastsEndsInFailureResultsWithoutARecursionOfReports)
{
    const captured_stderr log;
    void *user = block_of(12, "f"), *null_result = &asked, *resized = &asked, *dma = &asked;
    char *text = nullptr;
    int length = 0;
    {
        const failing_heap::after none(0, failing_heap::all_calls, true);
        null_result = block_of(12, "f");
        resized = qv_memcheck_realloc(user, 100, "g", 1);
        dma = qv_dmacheck_malloc(noting_malloc, 12, "f");
        length = __qv_asprintf(&text, "f", 1, "x");
        qv_errno("text");
    }
    EXPECT_EQ(null_result, nullptr);
    EXPECT_EQ(resized, nullptr);
    EXPECT_EQ(dma, nullptr);
    EXPECT_EQ(length, -1);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(log.text(), "");
    release(user);
    EXPECT_THAT(table(), IsEmpty());
}

// Makes, grows, escapes and releases a text while one allocation fails; returns whether one did. What a
// failed resize loses stays allocated on purpose.
__attribute__((noinline)) bool work_with_one_failure(long successes)
{
    const failing_heap::after none(successes);
    char *text = nullptr;
    if (__qv_asprintf(&text, "f", 1, "ab") >= 0 && qv_aasprintf(&text, "\"") >= 0)
        replace_quotes(&text);
    if (text)
        release(text);
    memdbg_printf("a\n");
    return none.failed();
}

TEST_F(TrackedShortage, OfAnyOneAllocationIsSurvived)
{
    const captured_stderr log;
    long successes = 0;
    while (work_with_one_failure(successes)) {
        for (const row &r : table()) // the caller lost them when their resize could not be recorded
            for (const void *block : blocks_of(r.name))
                release(const_cast<void *>(block));
        successes++;
    }
    EXPECT_GT(successes, 10);
    EXPECT_THAT(table(), IsEmpty());
}

TEST_F(TrackedShortage, OfTheSessionItselfStartsNone)
{
    qv::close_session();
    qv::memdebug_session *session = session_;
    {
        const failing_heap::after none(0);
        session = qv::open_session(nullptr, -1, noting_hook);
    }
    EXPECT_EQ(session, nullptr);
    EXPECT_EQ(qv::running_session(), nullptr);
}

// ---- gotoline, mvprintf

TEST_F(GotoLine, PutsTextOnItsRowAndParksTheCursor)
{
    EXPECT_EQ(gotoline(5, "x%d", 12), static_cast<int>(at_line(5, "x12").size()));
    EXPECT_EQ(console(), "\033[H\033[8B\r\033[Kx12\033[40B\r");
}

TEST_F(GotoLine, MovesOnlyWithoutAFormat)
{
    EXPECT_EQ(gotoline(0, nullptr), static_cast<int>(strlen("\033[H\033[3B\033[45B\r")));
    EXPECT_EQ(console(), "\033[H\033[3B\033[45B\r");
}

TEST_F(GotoLine, ErasesARowWithAnEmptyText)
{
    EXPECT_EQ(gotoline(29, "%s", ""), static_cast<int>(at_line(29, "").size()));
    EXPECT_EQ(console(), "\033[H\033[32B\r\033[K\033[16B\r");
}

TEST_F(GotoLine, ReachesTheHeaderRowsAndRowsBelowTheParkingRow)
{
    gotoline(-3, "a");
    EXPECT_EQ(console(), "\033[H\033[0B\r\033[Ka\033[48B\r");
    gotoline(50, "a");
    EXPECT_EQ(console(), "\033[H\033[53B\r\033[Ka\033[-5B\r");
}

TEST_F(GotoLine, RemembersTheLastAndTheHighestLine)
{
    gotoline(7, nullptr);
    EXPECT_EQ(session_->current_line, 7);
    EXPECT_EQ(session_->max_line, 7);
    gotoline(-2, nullptr);
    EXPECT_EQ(session_->current_line, -2);
    EXPECT_EQ(session_->max_line, 7);
}

TEST_F(GotoLine, TakesTheLargestAndSmallestLine)
{
    gotoline(INT_MAX, nullptr);
    EXPECT_EQ(console(), "\033[H\033[2147483650B\033[-2147483602B\r");
    gotoline(INT_MIN, nullptr);
    EXPECT_EQ(console(), "\033[H\033[-2147483645B\033[2147483693B\r");
}

TEST_F(GotoLine, FlushesStandardOutputAfterAText)
{
    const memory_file out;
    fflush(stdout);
    const int kept = dup(STDOUT_FILENO);
    dup2(out.fd(), STDOUT_FILENO);
    printf("buffered");
    gotoline(0, nullptr);
    const std::string moved = out.text();
    gotoline(0, "x");
    const std::string written = out.text();
    fflush(stdout);
    dup2(kept, STDOUT_FILENO);
    close(kept);
    EXPECT_EQ(moved, "");
    EXPECT_EQ(written, "buffered");
}

TEST_F(MvPrintf, WritesTheTextAsItStands)
{
    EXPECT_EQ(format_list(mvprintf, "a%sc\n", "b"), 4);
    EXPECT_EQ(console(), "abc\n");
    EXPECT_EQ(format_list(mvprintf, "%s", ""), 0);
    EXPECT_EQ(console(), "");
}

TEST_F(MvPrintf, FailsWhenTheTextCannotBeFormatted)
{
    EXPECT_EQ(format_list(mvprintf, "%lc", static_cast<wint_t>(0x7fffffff)), -1);
    EXPECT_EQ(format_list(mvprintf, nullptr), -1);
    EXPECT_EQ(console(), "");
}

// ---- Failing output

class FailingOutput : public WithASession
{
  protected:
    // Puts a line on a console that fails, and expects the report alone.
    void expect_report(int fd, const std::string &error)
    {
        session_->output_fd = fd;
        const captured_stderr log;
        EXPECT_EQ(gotoline(3, "text"), static_cast<int>(at_line(3, "text").size()));
        EXPECT_THAT(log_lines(log.text()), ElementsAre("ERROR: mvprintf: stdout failed: " + error));
        EXPECT_EQ(format_list(mvprintf, "abc"), 3);
        void *user = block_of(12);
        user = qv_memcheck_realloc(user, 100, "f", 1);
        EXPECT_GT(qv_memcheck_free(qv_free, user, "w"), 0);
        EXPECT_THAT(log_lines(log.text()), SizeIs(4));
        EXPECT_EQ(memdbg_printf("x\n"), 0);
        EXPECT_THAT(log_lines(log.text()), Each(EndsWith(error)));
        EXPECT_THAT(table(), IsEmpty());
        EXPECT_THAT(hook_calls, IsEmpty());
    }
};

TEST_F(FailingOutput, OfAClosedDescriptorIsLogged)
{
    const int fd = fcntl(STDOUT_FILENO, F_DUPFD, 500); // a number that nothing else takes
    close(fd);
    expect_report(fd, "Bad file descriptor (9)");
}

TEST_F(FailingOutput, OfAFullDeviceIsLogged)
{
    const int fd = open("/dev/full", O_WRONLY);
    expect_report(fd, "No space left on device (28)");
    close(fd);
}

TEST_F(FailingOutput, OfAPipeWithoutAReaderIsLoggedWithoutASignal)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
    expect_report(ends[1], "Broken pipe (32)");
    sigset_t mask, pending;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_FALSE(sigismember(&mask, SIGPIPE));
    sigpending(&pending);
    EXPECT_FALSE(sigismember(&pending, SIGPIPE));
    close(ends[1]);
}

TEST_F(FailingOutput, OfAPipeKeepsASignalThatWasPendingBefore)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    sigset_t broken_pipe, mask, pending;
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &broken_pipe, &mask);
    raise(SIGPIPE);
    expect_report(ends[1], "Broken pipe (32)");
    sigpending(&pending);
    EXPECT_TRUE(sigismember(&pending, SIGPIPE));
    int taken = 0;
    sigwait(&broken_pipe, &taken);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    close(ends[1]);
}

TEST_F(FailingOutput, OfASocketWithoutAPeerIsLoggedWithoutASignal)
{
    int sockets[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
    close(sockets[1]);
    ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
    expect_report(sockets[0], "Broken pipe (32)");
    close(sockets[0]);
}

TEST_F(FailingOutput, DoesNotSilenceReportsForGood)
{
    session_->output_fd = open("/dev/full", O_WRONLY);
    const captured_stderr log;
    gotoline(0, "a");
    gotoline(0, "b");
    EXPECT_THAT(log_lines(log.text()), SizeIs(2));
    close(session_->output_fd);
}

TEST_F(FailingOutput, LeavesFaultReportsToTheHook)
{
    session_->output_fd = open("/dev/full", O_WRONLY);
    const captured_stderr log;
    release(&asked);
    EXPECT_THAT(hook_calls, ElementsAre(-1));
    EXPECT_THAT(log_lines(log.text()),
                ElementsAre("ERROR: mvprintf: stdout failed: No space left on device (28)"));
    close(session_->output_fd);
}

// ---- Clients

class ConsoleClients : public WithASession
{
  protected:
    ConsoleClients()
    {
        session_->output_fd = 0;
    }
    // A client in front of the list, which is closed and freed with the session.
    int connect_client()
    {
        int sockets[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
        auto *client = static_cast<qv::console_client *>(calloc(1, sizeof(qv::console_client)));
        client->socket = sockets[0];
        client->next = session_->clients.next;
        client->prev = &session_->clients;
        client->next->prev = session_->clients.next = client;
        return sockets[1];
    }
    static std::string received(int peer)
    {
        char text[65536];
        const ssize_t length = recv(peer, text, sizeof text, MSG_DONTWAIT);
        return std::string(text, length > 0 ? static_cast<size_t>(length) : 0);
    }
    size_t clients() const
    {
        size_t count = 0;
        for (qv::console_client *c = session_->clients.next; c != &session_->clients; c = c->next)
            count++;
        return count;
    }
};

TEST_F(ConsoleClients, AllReceiveTheConsole)
{
    const int first = connect_client(), second = connect_client();
    EXPECT_EQ(gotoline(2, "x"), static_cast<int>(at_line(2, "x").size()));
    EXPECT_EQ(received(first), at_line(2, "x"));
    EXPECT_EQ(received(second), at_line(2, "x"));
    close(first);
    close(second);
}

TEST_F(ConsoleClients, ReceiveNothingWhileADescriptorIsGiven)
{
    const int peer = connect_client();
    const memory_file file;
    session_->output_fd = file.fd();
    gotoline(2, "x");
    EXPECT_EQ(received(peer), "");
    EXPECT_EQ(file.text(), at_line(2, "x"));
    session_->output_fd = -1;
    gotoline(2, "y");
    EXPECT_EQ(received(peer), at_line(2, "y"));
    close(peer);
}

TEST_F(ConsoleClients, AreDroppedAndReportedWhenTheyHaveGone)
{
    const int staying = connect_client(), gone = connect_client();
    const int socket = session_->clients.next->socket;
    close(gone);
    ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
    EXPECT_EQ(gotoline(2, "x"), static_cast<int>(at_line(2, "x").size()));
    EXPECT_EQ(clients(), 1u);
    EXPECT_EQ(fcntl(socket, F_GETFD), -1);
    EXPECT_EQ(received(staying),
              at_line(2, "x") + at_line(-2, "Could not find the allocation to free (../src/memdebug:186)"));
    EXPECT_THAT(hook_calls, ElementsAre(-1));
    close(staying);
}

TEST_F(ConsoleClients, MayGoAllAtOnce)
{
    for (int i = 0; i < 5; i++)
        close(connect_client());
    EXPECT_EQ(format_list(mvprintf, "abc"), 3);
    EXPECT_EQ(clients(), 0u);
    EXPECT_THAT(hook_calls, SizeIs(5));
}

TEST_F(ConsoleClients, MayGoWhileTheHookPrintsMessages)
{
    close(connect_client());
    on_hook = [] { memdbg_printf("hook\n"); };
    EXPECT_EQ(memdbg_printf("text\n"), 0);
    EXPECT_THAT(hook_calls, ElementsAre(-1));
    EXPECT_STREQ(session_->messages[9], "text");
    EXPECT_STREQ(session_->messages[10], "hook");
}

// ---- memdbg_printf, memdbg_vprintf

std::vector<std::string> area(const qv::memdebug_session *session)
{
    return {std::begin(session->messages), std::end(session->messages)};
}

// The last lines of the area.
std::vector<std::string> tail(const qv::memdebug_session *session, size_t count)
{
    const auto lines = area(session);
    return {lines.end() - static_cast<long>(count), lines.end()};
}

TEST_F(MessageArea, RedrawsItsElevenLinesAfterEveryText)
{
    EXPECT_EQ(memdbg_printf("x%d\n", 1), 0);
    std::string expected;
    for (int line = 34; line < 44; line++)
        expected += at_line(line, "");
    EXPECT_EQ(console(), expected + at_line(44, "x1"));
}

TEST_F(MessageArea, AppendsToAnOpenLine)
{
    EXPECT_EQ(memdbg_printf("abc"), 0);
    EXPECT_EQ(session_->line_complete, 0);
    EXPECT_EQ(memdbg_printf("def\n"), 0);
    EXPECT_EQ(session_->line_complete, 1);
    EXPECT_THAT(tail(session_, 2), ElementsAre("", "abcdef"));
    EXPECT_THAT(console(), EndsWith(at_line(44, "abcdef")));
}

TEST_F(MessageArea, ScrollsByTheLinesOfTheFormat)
{
    EXPECT_EQ(memdbg_printf("first\n"), 0);
    EXPECT_EQ(memdbg_printf("a\nb\n"), 0);
    EXPECT_THAT(tail(session_, 4), ElementsAre("", "first", "a", "b"));
    EXPECT_THAT(console(), EndsWith(at_line(43, "a") + at_line(44, "b")));
}

TEST_F(MessageArea, ScrollsTheOpenLineAway)
{
    memdbg_printf("open");
    memdbg_printf(" closed\nnext\n");
    EXPECT_THAT(tail(session_, 3), ElementsAre("", "open closed", "next"));
}

TEST_F(MessageArea, LeavesALineOpenAfterANewlineInside)
{
    memdbg_printf("a\nb");
    EXPECT_THAT(tail(session_, 2), ElementsAre("a", "b"));
    memdbg_printf("c\n");
    EXPECT_THAT(tail(session_, 2), ElementsAre("a", "bc"));
}

TEST_F(MessageArea, LooksAtTheFormatForTheLineEndNotAtTheText)
{
    memdbg_printf("%s", "a\n");
    EXPECT_EQ(session_->line_complete, 0);
    memdbg_printf("b\n");
    EXPECT_THAT(tail(session_, 2), ElementsAre("", "ab"));
}

TEST_F(MessageArea, DropsEmptyPieces)
{
    memdbg_printf("a\n\n\nb\n");
    EXPECT_THAT(tail(session_, 5), ElementsAre("", "a", "b", "", ""));
}

TEST_F(MessageArea, TakesATextWithoutAPieceWhole)
{
    memdbg_printf("a\n");
    memdbg_printf("\n");
    EXPECT_THAT(tail(session_, 2), ElementsAre("a", "\n"));
    EXPECT_EQ(session_->line_complete, 1);
    memdbg_printf("%s", "");
    EXPECT_THAT(tail(session_, 3), ElementsAre("a", "\n", ""));
    EXPECT_EQ(session_->line_complete, 0);
}

TEST_F(MessageArea, KeepsTheLastElevenLines)
{
    for (int i = 0; i < 20; i++)
        memdbg_printf("%d\n", i);
    EXPECT_THAT(area(session_), ElementsAre("9", "10", "11", "12", "13", "14", "15", "16", "17", "18", "19"));
}

TEST_F(MessageArea, KeepsTheLastLinesOfALongText)
{
    memdbg_printf("1\n2\n3\n4\n5\n6\n7\n8\n9\n10\n11\n12\n13\n");
    EXPECT_THAT(area(session_), ElementsAre("3", "4", "5", "6", "7", "8", "9", "10", "11", "12", "13"));
}

TEST_F(MessageArea, StaysWithinItsLinesWhenArgumentsBringNewlines)
{
    memdbg_printf("%s\n", "1\n2\n3\n4\n5\n6\n7\n8\n9\n10\n11\n12\n13");
    EXPECT_EQ(area(session_).back(), "13");
    memdbg_printf("x\n");
    EXPECT_THAT(tail(session_, 2), ElementsAre("13", "x"));
}

TEST_F(MessageArea, CutsALineAtItsWidth)
{
    const std::string text(1000, 'x');
    memdbg_printf("%s\n", text.c_str());
    EXPECT_EQ(area(session_).back(), text.substr(0, 255));
}

TEST_F(MessageArea, DropsAPieceThatNoLongerFitsAnOpenLine)
{
    memdbg_printf("%s", std::string(200, 'x').c_str());
    memdbg_printf("%s", std::string(56, 'y').c_str());
    EXPECT_EQ(area(session_).back(), std::string(200, 'x'));
    memdbg_printf("%s\n", std::string(55, 'z').c_str());
    EXPECT_EQ(area(session_).back(), std::string(200, 'x') + std::string(55, 'z'));
}

TEST_F(MessageArea, FailsWhenTheTextCannotBeFormatted)
{
    EXPECT_EQ(memdbg_printf("%lc\n", static_cast<wint_t>(0x7fffffff)), -1);
    const char *none = nullptr;
    EXPECT_EQ(memdbg_printf(none, 0), -1);
    EXPECT_EQ(format_list(memdbg_vprintf, nullptr), -1);
    EXPECT_EQ(console(), "");
    EXPECT_EQ(memdbg_printf("x\n"), 0); // the lock is free
}

// ---- Threads

TEST_F(WithASession, ThreadsAllocateResizeReleaseLogAndPrint)
{
    const captured_stderr log;
    std::vector<std::thread> threads;
    const std::array<const char *, 3> names = {"a", "b", "c"};
    for (unsigned int t = 0; t < 8; t++)
        threads.emplace_back([t, &names] {
            std::mt19937 random(t);
            std::vector<void *> mine;
            for (int i = 0; i < 150; i++) {
                mine.push_back(block_of(1 + random() % 50, names[random() % 3]));
                void *&one = mine[random() % mine.size()];
                one = qv_memcheck_realloc(one, 1 + random() % 50, names[random() % 3], t);
                if (random() % 2) {
                    release(mine.back());
                    mine.pop_back();
                }
                if (i % 10 == 0)
                    qv_errno("thread %u", t);
                if (i % 10 == 5)
                    memdbg_printf("thread %u\n", t);
            }
            for (void *block : mine)
                release(block);
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_EQ(session_->total_allocations, 0);
    EXPECT_THAT(hook_calls, IsEmpty());
    EXPECT_THAT(log_lines(log.text()), SizeIs(8 * 15));
}

TEST_F(FailingOutput, OfManyThreadsNeitherHangsNorLosesABlock)
{
    session_->output_fd = open("/dev/full", O_WRONLY);
    const captured_stderr log;
    std::vector<std::thread> threads;
    for (unsigned int t = 0; t < 8; t++)
        threads.emplace_back([t] {
            for (int i = 0; i < 30; i++) {
                release(qv_memcheck_realloc(block_of(12, "f"), 100, "g", t));
                memdbg_printf("%u\n", t);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_EQ(session_->total_allocations, 0);
    EXPECT_THAT(log.text(), HasSubstr("mvprintf: stdout failed: No space left on device (28)\r\n"));
    close(session_->output_fd);
}

} // namespace
