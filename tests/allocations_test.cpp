// Each allocation that a scenario makes fails once alone, and once together with all that follow it, without
// and with a session of the memory debugger. The scenarios stand in allocations/, by facility.
//
// The number of allocations of each, and the functions that make none, are written down in allocations.txt;
// scripts/failing-allocations renews it. With QVLIB_ALLOCATIONS=FILE in the environment what was seen is
// written to FILE, for that script.

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <execinfo.h>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <map>
#include <pthread.h>
#include <set>
#include <sstream>
#include <unistd.h>

#include "allocations/scenario.h"
#include "failing_heap.h"

using allocations::scenario;
using failing_heap::everywhere;

namespace
{

int reports; // of the memory debugger
bool session_runs;
const char *stay_reason, *report_reason; // null while nothing may stay, or be reported

// ---- What was called

// The most allocations that a call of each function made.
std::map<std::string, long> &called_functions()
{
    static std::map<std::string, long> functions;
    return functions;
}

// ---- Where it allocates

std::set<uintptr_t> &sites()
{
    static std::set<uintptr_t> addresses;
    return addresses;
}

pthread_mutex_t sites_lock = PTHREAD_MUTEX_INITIALIZER;

uintptr_t library_base()
{
    static const uintptr_t base = [] {
        uintptr_t found = 0;
        dl_iterate_phdr(
            [](dl_phdr_info *object, size_t, void *into) {
                if (strstr(object->dlpi_name, "libqvlib"))
                    *static_cast<uintptr_t *>(into) = object->dlpi_addr;
                return 0;
            },
            &found);
        return found;
    }();
    return base;
}

bool notes_sites;

// The library's calls that led to an allocation, as offsets of the return addresses.
void note_site()
{
    void *frames[48];
    const int count = backtrace(frames, 48);
    pthread_mutex_lock(&sites_lock);
    for (int i = 0; i < count; i++) {
        Dl_info info;
        if (dladdr(frames[i], &info) && info.dli_fname && strstr(info.dli_fname, "libqvlib"))
            sites().insert(reinterpret_cast<uintptr_t>(frames[i]) - library_base());
    }
    pthread_mutex_unlock(&sites_lock);
}

// ---- One run

struct failure {
    long nth; // allocation; 0 for none
    bool for_good;
};

struct outcome {
    long calls;  // that could fail
    long direct; // of them, made by the library itself
    unsigned failed;
    size_t left; // blocks that were not released
};

size_t release_what_is_left()
{
    everywhere.accounts = false;
    const size_t left = everywhere.live;
    for (void *&block : everywhere.blocks)
        free(std::exchange(block, nullptr));
    everywhere.live = 0;
    return left;
}

outcome play(const scenario &played, bool with_session, failure injected, bool accounts = true)
{
    const allocations::silenced messages(stderr);
    failing_heap::takes_part = true;
    reports = 0;
    stay_reason = report_reason = nullptr;
    everywhere.made = {failing_heap::all_calls | failing_heap::other_calls, injected.nth - 1,
                       injected.for_good, 0, 0};
    everywhere.direct = 0;
    everywhere.on_call = notes_sites && injected.nth == 0 ? note_site : nullptr;
    session_runs = with_session;
    static const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (with_session) {
        EXPECT_EQ(qv_memcheck_start(nullptr, nowhere, [](int) { reports++; }), 0);
    }
    everywhere.accounts = accounts;
    played.play();
    if (with_session) {
        EXPECT_EQ(qv_memcheck_stop(), 0);
    }
    return {everywhere.made.seen, everywhere.direct, everywhere.made.failed, release_what_is_left()};
}

// ---- The record

struct record {
    std::map<std::string, long> counts; // by name of the play
    std::set<std::string> silent;       // functions that allocate nothing
};

record read_record()
{
    record read;
    std::ifstream file(QVLIB_ALLOCATIONS_RECORD);
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string first;
        long count = 0;
        if (line.empty() || line[0] == '#' || !(words >> first))
            continue;
        if (words >> count)
            read.counts[first] = count;
        else
            read.silent.insert(first);
    }
    return read;
}

bool renews_record()
{
    return getenv("QVLIB_ALLOCATIONS_RENEW") != nullptr;
}

// ---- What a run of this program saw

class findings : public testing::Environment
{
  public:
    static void add(const std::string &line)
    {
        lines() += line + "\n";
    }
    static void add_stay(const char *why)
    {
        stays().insert(why);
    }
    void SetUp() override
    {
        if (!getenv("QVLIB_ALLOCATIONS"))
            return;
        void *frame;
        backtrace(&frame, 1); // it allocates at its first call
        notes_sites = true;
    }
    void TearDown() override
    {
        const char *path = getenv("QVLIB_ALLOCATIONS");
        if (!path)
            return;
        std::ofstream file(path);
        file << lines();
        for (const auto &[function, most] : called_functions())
            file << (most == 0 ? "silent " : "allocating ") << function << "\n";
        for (const std::string &why : stays())
            file << "stays " << why << "\n";
        for (const uintptr_t site : sites())
            file << "site " << std::hex << site << "\n";
    }

  private:
    static std::set<std::string> &stays()
    {
        static std::set<std::string> reasons;
        return reasons;
    }
    static std::string &lines()
    {
        static std::string text;
        return text;
    }
};

const testing::Environment *const environment = testing::AddGlobalTestEnvironment(new findings);

// ---- Plays: a scenario without or with a session

struct one_play {
    scenario played;
    bool with_session;

    std::string name() const
    {
        return std::string(played.name) + (with_session ? "_tracked" : "_plain");
    }
};

void PrintTo(const one_play &play, std::ostream *out)
{
    *out << play.name();
}

std::vector<one_play> all_plays()
{
    std::vector<one_play> plays;
    for (const scenario &each : allocations::all_scenarios()) {
        plays.push_back({each, false});
        if (each.played == allocations::modes::both)
            plays.push_back({each, true});
    }
    return plays;
}

// A report that follows a resize in vain is stated.
void expect_what_is_stated(const outcome &run)
{
    EXPECT_TRUE(run.left == 0 || stay_reason) << run.left << " blocks stay allocated";
    EXPECT_TRUE(reports == 0 || report_reason || (run.failed & failing_heap::realloc_calls))
        << reports << " reports of the memory debugger";
    if (run.left > 0 && stay_reason)
        findings::add_stay(stay_reason);
}

class EveryAllocation : public testing::TestWithParam<one_play>
{
};

TEST_P(EveryAllocation, FailsOnceAloneAndOnceForGood)
{
    const auto &[played, with_session] = GetParam();
    constexpr long most = 20000;
    constexpr long step = QVLIB_TEST_PERCENT < 25 ? 100 / QVLIB_TEST_PERCENT : 1; // slow builds play some
    play(played, with_session, {0, false}, false);  // what the C library keeps for later is allocated here
    const outcome clean = play(played, with_session, {0, false});
    expect_what_is_stated(clean);
    long injected = 0;
    for (const bool for_good : {false, true}) {
        for (long nth = 1; nth < most && !HasFailure(); nth += step, injected++) {
            SCOPED_TRACE(testing::Message()
                         << "allocation " << nth << (for_good ? " and all that follow" : "") << " of "
                         << clean.calls);
            const outcome run = play(played, with_session, {nth, for_good});
            if (!run.failed)
                break;
            expect_what_is_stated(run);
        }
    }
    findings::add("play " + GetParam().name() + " " + std::to_string(clean.direct) + " " +
                  std::to_string(clean.calls) + " " + std::to_string(injected));

    if (renews_record())
        return;
    const record recorded = read_record();
    const auto count = recorded.counts.find(GetParam().name());
    ASSERT_TRUE(count != recorded.counts.end())
        << "not in allocations.txt: scripts/failing-allocations --renew";
    EXPECT_LE(clean.direct * 10, count->second * 11)
        << "allocations, more than a tenth above " << count->second
        << "; scripts/failing-allocations --renew if it is meant to be so";
}

INSTANTIATE_TEST_SUITE_P(Of, EveryAllocation, testing::ValuesIn(all_plays()),
                         [](const auto &play_info) { return play_info.param.name(); });

// Names between "global:" and "local:" of the version script, without its comments.
std::set<std::string> exported_functions()
{
    std::set<std::string> names;
    std::ifstream file(QVLIB_EXPORTS);
    bool global = false;
    for (std::string line; std::getline(file, line);) {
        line.resize(std::min(line.find('#'), line.size()));
        if (line.find("local:") != std::string::npos)
            global = false;
        for (size_t at = 0; global && at < line.size();) {
            const size_t end = std::min(line.find(';', at), line.size());
            std::string name = line.substr(at, end - at);
            name.erase(std::remove_if(name.begin(), name.end(), isspace), name.end());
            if (!name.empty())
                names.insert(name);
            at = end + 1;
        }
        if (line.find("global:") != std::string::npos)
            global = true;
    }
    names.erase("standards_list"); // data
    return names;
}

// What stands in one of two sets alone.
std::vector<std::string> differences(const std::set<std::string> &a, const std::set<std::string> &b)
{
    std::vector<std::string> names;
    std::set_symmetric_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(names));
    return names;
}

TEST(EveryExportedFunction, IsPlayedAndThoseSaidToAllocateNothingDoNot)
{
    for (const one_play &each : all_plays())
        play(each.played, each.with_session, {0, false}, false);
    std::set<std::string> played, silent;
    for (const auto &[function, most] : called_functions()) {
        played.insert(function);
        if (most == 0)
            silent.insert(function);
    }
    EXPECT_EQ(differences(played, exported_functions()), std::vector<std::string>());
    if (renews_record())
        return;
    EXPECT_EQ(differences(silent, read_record().silent), std::vector<std::string>())
        << "scripts/failing-allocations --renew if it is meant to be so";
}

} // namespace

// ---- What scenarios use

namespace allocations
{

armed::armed()
{
    __atomic_add_fetch(&everywhere.armed, 1, __ATOMIC_RELAXED);
}

armed::~armed()
{
    __atomic_sub_fetch(&everywhere.armed, 1, __ATOMIC_RELAXED);
}

unarmed::unarmed()
{
    failing_heap::paused++;
}

unarmed::~unarmed()
{
    failing_heap::paused--;
}

called::called(const char *function) : function_(function)
{
    failing_heap::counted_here = 0;
}

called::~called()
{
    const int error = errno;
    const unarmed own;
    long &most = called_functions()[function_];
    most = std::max(most, failing_heap::counted_here);
    errno = error;
}

bool failed()
{
    return everywhere.made.failed != 0;
}

bool tracked()
{
    return session_runs;
}

void may_stay(const char *why)
{
    stay_reason = why;
}

void may_report(const char *why)
{
    report_reason = why;
}

void release(char *text)
{
    if (text)
        CALL(qv_memcheck_free, qv_free, text, "scenario");
}

void expect_text(const char *text, const std::string &expected)
{
    if (text) {
        EXPECT_EQ(text, expected);
    } else {
        EXPECT_TRUE(failed());
    }
}

std::vector<scenario> &all_scenarios()
{
    static std::vector<scenario> scenarios;
    return scenarios;
}

} // namespace allocations

namespace
{

struct thread_start {
    void *(*body)(void *);
    void *argument;
};

// What a sanitizer allocates around the thread's body is its own.
void *take_part(void *start)
{
    const thread_start made = *static_cast<thread_start *>(start);
    delete static_cast<thread_start *>(start);
    failing_heap::takes_part = true;
    void *result = made.body(made.argument);
    failing_heap::takes_part = false;
    return result;
}

} // namespace

// A thread needs memory too. What starting it allocates is its own.
extern "C" __attribute__((noinline)) int pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                                                        void *(*body)(void *), void *argument) noexcept
{
    static int (*next)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
    failing_heap::next_of("pthread_create", next);
    if (!failing_heap::takes_part)
        return next(thread, attributes, body, argument);
    if (failing_heap::judge(failing_heap::other_calls, __builtin_return_address(0)).fails)
        return EAGAIN;
    const failing_heap::uncounted own;
    auto *start = new thread_start{body, argument};
    const int error = next(thread, attributes, take_part, start);
    if (error != 0)
        delete start;
    return error;
}

// The host's system log stays as it is.
extern "C" void vsyslog(int, const char *, va_list)
{
}
