#include <qvlib/lock_check.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <qvlib/memcheck.h>

#include "failing_calls.h"
#include "failing_heap.h"
#include "memdebug.h"

extern "C" {

int __real_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes);

int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes)
{
    return failing_calls::fails("pthread_mutex_init") ? errno : __real_pthread_mutex_init(mutex, attributes);
}
}

namespace
{

using lines = std::vector<std::string>;

class LockChecker : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(check_lock_init(), 0);
    }

    void TearDown() override
    {
        check_lock_exit();
    }

    template <typename Work> static lines printed(Work work)
    {
        testing::internal::CaptureStdout();
        work();
        std::istringstream text(testing::internal::GetCapturedStdout());
        lines list;
        for (std::string line; std::getline(text, line);)
            list.push_back(line);
        return list;
    }

    static lines dump()
    {
        return printed(check_lock_dump);
    }
};

TEST_F(LockChecker, CountsTheHoldingsOfASite)
{
    EXPECT_EQ(check_lock_add("a.c", 10, 1, nullptr), 1u);
    EXPECT_EQ(check_lock_add("a.c", 10, 2, nullptr), 2u);
    EXPECT_EQ(check_lock_add("a.c", 11, 3, nullptr), 1u);
    EXPECT_EQ(dump(), (lines{"a.c:11 count=1", "a.c:10 count=2"}));
}

TEST_F(LockChecker, SharesASiteBetweenCallsFromTheSameFileAndLine)
{
    const char one[] = "a.c", other[] = "a.c";
    check_lock_add(one, 10, 1, nullptr);
    EXPECT_EQ(check_lock_add(other, 10, 2, nullptr), 2u);
    EXPECT_EQ(dump().size(), 1u);
}

TEST_F(LockChecker, KeepsACopyOfTheFileName)
{
    char file[] = "a.c";
    check_lock_add(file, 10, 1, nullptr);
    file[0] = 'z';
    EXPECT_EQ(dump(), lines{"a.c:10 count=1"});
}

TEST_F(LockChecker, PrintsTheNewestSiteFirst)
{
    check_lock_add("a.c", 1, 1, nullptr);
    check_lock_add("b.c", 2, 2, nullptr);
    check_lock_add("c.c", 3, 3, nullptr);
    check_lock_add("a.c", 1, 4, nullptr);
    EXPECT_EQ(dump(), (lines{"c.c:3 count=1", "b.c:2 count=1", "a.c:1 count=2"}));
}

TEST_F(LockChecker, DumpsOnceAtTheTenthHoldingOfASite)
{
    check_lock_add("b.c", 5, 100, nullptr);
    size_t last = 1;
    const lines output = printed([&last] {
        for (int id = 1; id <= 10; id++)
            last = check_lock_add("a.c", 10, id, nullptr);
    });
    EXPECT_EQ(output, (lines{"a.c:10 count=10", "b.c:5 count=1"}));
    EXPECT_EQ(last, 0u);
    EXPECT_EQ(check_lock_add("a.c", 10, 11, nullptr), 11u);
}

TEST_F(LockChecker, DumpsAgainAtTheTwentiethHolding)
{
    const lines output = printed([] {
        for (int id = 1; id <= 25; id++)
            check_lock_add("a.c", 10, id, nullptr);
    });
    EXPECT_EQ(output, (lines{"a.c:10 count=10", "a.c:10 count=20"}));
}

TEST_F(LockChecker, ReportsASecondHoldingOfAnId)
{
    check_lock_add("a.c", 10, 7, nullptr);
    size_t count = 0;
    EXPECT_EQ(printed([&count] { count = check_lock_add("a.c", 10, 7, nullptr); }),
              lines{"Multiple references found a.c:10"});
    EXPECT_EQ(count, 2u);
    check_lock_remove(7);
    EXPECT_EQ(dump(), lines{"a.c:10 count=1"});
    EXPECT_EQ(printed([] { check_lock_remove(7); }), lines{"Could not find reference to remove"});
}

TEST_F(LockChecker, RaisesTheSecondSiteForAnIdHeldAtAnother)
{
    check_lock_add("a.c", 10, 7, nullptr);
    EXPECT_EQ(printed([] { check_lock_add("b.c", 20, 7, nullptr); }),
              lines{"Multiple references found b.c:20"});
    check_lock_remove(7);
    EXPECT_EQ(dump(), lines{"b.c:20 count=1"});
}

TEST_F(LockChecker, DoesNotDumpAtATenthThatRepeatsAnId)
{
    for (int id = 1; id < 10; id++)
        check_lock_add("a.c", 10, id, nullptr);
    size_t count = 0;
    EXPECT_EQ(printed([&count] { count = check_lock_add("a.c", 10, 1, nullptr); }),
              lines{"Multiple references found a.c:10"});
    EXPECT_EQ(count, 10u);
}

TEST_F(LockChecker, ForgetsASiteWithItsLastHolding)
{
    check_lock_add("a.c", 10, 1, nullptr);
    check_lock_add("a.c", 10, -2, nullptr);
    check_lock_remove(1);
    EXPECT_EQ(dump(), lines{"a.c:10 count=1"});
    check_lock_remove(-2);
    EXPECT_EQ(dump(), lines{});
    EXPECT_EQ(check_lock_add("a.c", 10, 1, nullptr), 1u);
}

TEST_F(LockChecker, ReportsAnUnknownIdAndChangesNothing)
{
    check_lock_add("a.c", 10, 1, nullptr);
    EXPECT_EQ(printed([] { check_lock_remove(2); }), lines{"Could not find reference to remove"});
    EXPECT_EQ(dump(), lines{"a.c:10 count=1"});
}

TEST_F(LockChecker, BeginsAnewWhenStartedAgain)
{
    check_lock_add("a.c", 10, 1, nullptr);
    EXPECT_EQ(check_lock_init(), 0);
    EXPECT_EQ(dump(), lines{});
    EXPECT_EQ(check_lock_add("a.c", 10, 1, nullptr), 1u);
}

TEST_F(LockChecker, ReleasesSitesThatHaveNoHoldingAtItsEnd)
{
    printed([] {
        check_lock_add("a.c", 10, 1, nullptr);
        check_lock_add("a.c", 10, 1, nullptr);
    });
    check_lock_remove(1);
    check_lock_exit(); // the leak check does the rest
}

TEST_F(LockChecker, DoesNothingWhenItDoesNotRun)
{
    check_lock_exit();
    EXPECT_EQ(check_lock_add("a.c", 10, 1, nullptr), 0u);
    EXPECT_EQ(printed([] {
                  check_lock_remove(1);
                  check_lock_dump();
                  check_lock_exit();
              }),
              lines{});
}

TEST_F(LockChecker, RefusesANullFile)
{
    EXPECT_EQ(check_lock_add(nullptr, 10, 1, nullptr), 0u);
    EXPECT_EQ(dump(), lines{});
}

TEST_F(LockChecker, CountsNothingWhenMemoryIsShort)
{
    int failures = 0;
    for (;; failures++) {
        size_t count;
        {
            failing_heap::after some(failures);
            count = check_lock_add("a.c", 10, 1, nullptr);
        }
        if (count == 1)
            break;
        ASSERT_EQ(count, 0u);
        ASSERT_EQ(dump(), lines{}) << failures;
    }
    EXPECT_GE(failures, 4); // site, file name, bucket arrays and holding at least
}

TEST_F(LockChecker, CountsOnWithLongerChainsWhenATableCannotGrow)
{
    for (int id = 0; id < 64; id++)
        check_lock_add("a.c", static_cast<size_t>(id), id, nullptr);
    {
        failing_heap::after text(1); // then the array of sites: a.c:64 is the 65th site
        check_lock_add("a.c", 64, 64, nullptr);
    }
    const lines output = dump();
    EXPECT_GE(output.size(), 64u);
    for (int id = 0; id < 64; id++)
        check_lock_remove(id);
    EXPECT_LE(dump().size(), 1u);
}

int session_errors;

TEST_F(LockChecker, ReleasesItsTextTrackedUnderAMemoryDebugger)
{
    session_errors = 0;
    qv::memdebug_session *session = qv::open_session("", -1, [](int) { session_errors++; });
    ASSERT_NE(session, nullptr);
    const int before = session->total_allocations;
    check_lock_add("a.c", 10, 1, nullptr);
    EXPECT_EQ(session->total_allocations, before);
    EXPECT_EQ(session_errors, 0);
    qv::close_session();
}

TEST_F(LockChecker, CannotStartWithoutMemory)
{
    failing_heap::after none(0);
    EXPECT_EQ(check_lock_init(), ENOMEM);
    EXPECT_EQ(check_lock_add("a.c", 10, 1, nullptr), 0u);
}

TEST_F(LockChecker, CannotStartWithoutAMutex)
{
    {
        const failing_calls::failing init("pthread_mutex_init", EAGAIN);
        EXPECT_EQ(check_lock_init(), EAGAIN);
    }
    EXPECT_EQ(check_lock_add("a.c", 10, 1, nullptr), 0u);
}

TEST_F(LockChecker, BehavesAsAPlainModelOverRandomCalls)
{
    std::mt19937 random(25);
    struct site {
        size_t line, count;
    };
    std::vector<site> sites; // newest first
    std::map<int, size_t> holdings;
    for (int step = 0; step < 20000; step++) {
        const int id = static_cast<int>(random() % 600) - 300;
        const size_t line = random() % 200;
        if (random() % 2 == 0) {
            auto at = std::find_if(sites.begin(), sites.end(), [&](const site &s) { return s.line == line; });
            if (at == sites.end())
                at = sites.insert(sites.begin(), {line, 0});
            const size_t count = ++at->count;
            lines expected;
            size_t result = count;
            const std::string place = "file.c:" + std::to_string(line);
            if (!holdings.emplace(id, line).second) {
                expected.push_back("Multiple references found " + place);
            } else if (count % 10 == 0) {
                result = 0;
                for (const site &each : sites)
                    expected.push_back("file.c:" + std::to_string(each.line) +
                                       " count=" + std::to_string(each.count));
            }
            size_t got = 0;
            ASSERT_EQ(printed([&] { got = check_lock_add("file.c", line, id, nullptr); }), expected);
            ASSERT_EQ(got, result);
        } else if (auto held = holdings.find(id); held != holdings.end()) {
            auto at = std::find_if(sites.begin(), sites.end(),
                                   [&](const site &s) { return s.line == held->second; });
            if (--at->count == 0)
                sites.erase(at);
            holdings.erase(held);
            check_lock_remove(id);
        } else {
            ASSERT_EQ(printed([&] { check_lock_remove(id); }), lines{"Could not find reference to remove"});
        }
        if (step % 100 == 0) {
            lines expected;
            for (const site &each : sites)
                expected.push_back("file.c:" + std::to_string(each.line) +
                                   " count=" + std::to_string(each.count));
            ASSERT_EQ(dump(), expected);
        }
    }
}

TEST_F(LockChecker, KeepsCountsExactAndLinesWholeUnderSixteenThreads)
{
    constexpr int threads = 16, rounds = 400;
    std::vector<size_t> counts;
    const lines output = printed([] {
        std::vector<std::thread> running;
        for (int t = 0; t < threads; t++)
            running.emplace_back([t] {
                const std::string file = "thread" + std::to_string(t % 4) + ".c";
                for (int i = 0; i < rounds; i++) {
                    const int id = t * rounds + i;
                    check_lock_add(file.c_str(), 1, id, nullptr);
                    check_lock_add("shared.c", 2, id + threads * rounds, nullptr);
                    if (i % 2 == 0)
                        check_lock_remove(id);
                    if (i % 100 == 0)
                        check_lock_dump();
                }
            });
        for (std::thread &each : running)
            each.join();
    });
    for (const std::string &line : output) {
        const size_t colon = line.find(':'), equals = line.find(" count=");
        ASSERT_TRUE(colon != std::string::npos && equals != std::string::npos) << line;
        const std::string file = line.substr(0, colon);
        ASSERT_TRUE(file == "shared.c" || (file.size() == 9 && file.starts_with("thread"))) << line;
        ASSERT_EQ(line.substr(equals + 7).find_first_not_of("0123456789"), std::string::npos) << line;
    }
    lines last = dump();
    std::sort(last.begin(), last.end());
    EXPECT_EQ(last, (lines{"shared.c:2 count=6400", "thread0.c:1 count=800", "thread1.c:1 count=800",
                           "thread2.c:1 count=800", "thread3.c:1 count=800"}));
}

} // namespace
