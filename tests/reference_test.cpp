#include <qvlib/reference.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <sys/prctl.h>

#include <gtest/gtest.h>

#include "failing_alloc.h"
#include "failing_calls.h"
#include "spin_lock.h"

using failing_calls::failing;
using failing_calls::fails;

extern "C" {
int __real_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes);
int __real_pthread_mutex_destroy(pthread_mutex_t *mutex);

int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes)
{
    return fails("pthread_mutex_init") ? errno : __real_pthread_mutex_init(mutex, attributes);
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t *mutex)
{
    const int result = __real_pthread_mutex_destroy(mutex);
    return fails("pthread_mutex_destroy") ? errno : result;
}
}

namespace
{

struct callback {
    int calls = 0;
    qv_reference *freed = nullptr; // released by the callback
};

void called(void *arg)
{
    auto *record = static_cast<callback *>(arg);
    record->calls++;
    free(record->freed);
}

std::string thread_name()
{
    char name[16] = "";
    prctl(PR_GET_NAME, name);
    return name;
}

// ---- References

TEST(Reference, CallsBackOnceWhenTheOnlyHolderReleases)
{
    callback record;
    qv_reference ref;
    ASSERT_EQ(qv_reference_prep(&ref, called, &record), 0);
    EXPECT_EQ(qv_reference_acquire(&ref), 0);
    EXPECT_EQ(record.calls, 0);
    errno = EIO;
    EXPECT_EQ(qv_reference_release(&ref), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(record.calls, 1);
    EXPECT_EQ(ref.lock, nullptr);
}

TEST(Reference, StartsWithoutHolders)
{
    callback record;
    qv_reference ref;
    errno = EIO;
    ASSERT_EQ(qv_reference_prep(&ref, called, &record), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(ref.count, 0);
    EXPECT_EQ(ref.release, called);
    EXPECT_EQ(ref.release_arg, &record);
    errno = 0;
    EXPECT_EQ(qv_reference_release(&ref), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(record.calls, 0);

    EXPECT_EQ(qv_reference_acquire(&ref), 0); // the refused release left it usable
    EXPECT_EQ(qv_reference_release(&ref), 0);
}

TEST(Reference, GivesOneWhileHoldersRemain)
{
    callback record;
    qv_reference ref;
    ASSERT_EQ(qv_reference_prep(&ref, called, &record), 0);
    qv_reference_acquire(&ref);
    qv_reference_acquire(&ref);
    EXPECT_EQ(qv_reference_release(&ref), 1);
    EXPECT_EQ(record.calls, 0);
    EXPECT_EQ(qv_reference_release(&ref), 0);
    EXPECT_EQ(record.calls, 1);
}

TEST(Reference, NeedsNoCallback)
{
    qv_reference ref;
    ASSERT_EQ(qv_reference_prep(&ref, nullptr, nullptr), 0);
    qv_reference_acquire(&ref);
    EXPECT_EQ(qv_reference_release(&ref), 0);
}

TEST(Reference, MayBeFreedByItsCallback)
{
    callback record;
    auto *ref = static_cast<qv_reference *>(malloc(sizeof(qv_reference)));
    record.freed = ref;
    ASSERT_EQ(qv_reference_prep(ref, called, &record), 0);
    qv_reference_acquire(ref);
    EXPECT_EQ(qv_reference_release(ref), 0);
    EXPECT_EQ(record.calls, 1);
}

TEST(Reference, IsSpentAfterTheLastReleaseUntilItIsPreparedAnew)
{
    callback record;
    qv_reference ref;
    ASSERT_EQ(qv_reference_prep(&ref, called, &record), 0);
    qv_reference_acquire(&ref);
    qv_reference_release(&ref);
    EXPECT_EQ(qv_reference_acquire(&ref), EINVAL);
    EXPECT_EQ(qv_reference_release(&ref), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(record.calls, 1);

    ASSERT_EQ(qv_reference_prep(&ref, called, &record), 0);
    EXPECT_EQ(qv_reference_acquire(&ref), 0);
    EXPECT_EQ(qv_reference_release(&ref), 0);
    EXPECT_EQ(record.calls, 2);
}

TEST(Reference, RefusesToCountBeyondItsRange)
{
    qv_reference ref;
    ASSERT_EQ(qv_reference_prep(&ref, nullptr, nullptr), 0);
    ref.count = INT32_MAX;
    EXPECT_EQ(qv_reference_acquire(&ref), EOVERFLOW);
    EXPECT_EQ(ref.count, INT32_MAX);
    ref.count = 1;
    EXPECT_EQ(qv_reference_release(&ref), 0);
}

TEST(Reference, RefusesNull)
{
    EXPECT_EQ(qv_reference_prep(nullptr, called, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(qv_reference_acquire(nullptr), EINVAL);
    errno = 0;
    EXPECT_EQ(qv_reference_release(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(Reference, TellsWhyItCannotBePrepared)
{
    qv_reference ref = {};
    {
        const failing_alloc::after none(0);
        EXPECT_EQ(qv_reference_prep(&ref, called, nullptr), -1);
        EXPECT_EQ(errno, EAGAIN);
    }
    const failing init("pthread_mutex_init", ENOMEM);
    errno = 0;
    EXPECT_EQ(qv_reference_prep(&ref, called, nullptr), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(ref.release, nullptr);
}

TEST(Reference, DoesNotCallBackWhenItsLockCannotBeDestroyed)
{
    callback record;
    qv_reference ref;
    ASSERT_EQ(qv_reference_prep(&ref, called, &record), 0);
    qv_reference_acquire(&ref);
    const failing destroy("pthread_mutex_destroy", EBUSY);
    EXPECT_EQ(qv_reference_release(&ref), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(record.calls, 0);
    EXPECT_EQ(ref.lock, nullptr);
}

TEST(Reference, CallsBackOnceWhenManyThreadsLetGo)
{
    constexpr int threads = 8;
    constexpr int rounds = 2000;
    callback record;
    qv_reference ref;
    ASSERT_EQ(qv_reference_prep(&ref, called, &record), 0);
    for (int i = 0; i < threads; i++)
        qv_reference_acquire(&ref);
    std::atomic<int> last = 0;
    std::vector<std::thread> holders;
    for (int i = 0; i < threads; i++)
        holders.emplace_back([&] {
            for (int round = 0; round < rounds; round++) {
                qv_reference_acquire(&ref);
                qv_reference_release(&ref);
            }
            last += qv_reference_release(&ref) == 0;
        });
    for (std::thread &holder : holders)
        holder.join();
    EXPECT_EQ(last, 1);
    EXPECT_EQ(record.calls, 1);
}

// ---- Lock words, under the library's own names and under the names it exports where the C library has none

struct lock_functions {
    int (*init)(void **, int);
    int (*lock)(void **);
    int (*trylock)(void **);
    int (*unlock)(void **);
    int (*destroy)(void **);
};

// The weak definitions, from a module of that source alone.
class weak_functions
{
  public:
    weak_functions() : module_(dlopen(QVLIB_SPIN_MODULE, RTLD_NOW | RTLD_LOCAL))
    {
    }
    ~weak_functions()
    {
        if (module_)
            dlclose(module_);
    }
    weak_functions(const weak_functions &) = delete;
    weak_functions &operator=(const weak_functions &) = delete;

    bool loaded() const
    {
        return module_ != nullptr;
    }
    void *find(const char *name) const
    {
        return dlsym(module_, name);
    }
    lock_functions all() const
    {
        lock_functions found;
        store(found.init, "pthread_spin_init");
        store(found.lock, "pthread_spin_lock");
        store(found.trylock, "pthread_spin_trylock");
        store(found.unlock, "pthread_spin_unlock");
        store(found.destroy, "pthread_spin_destroy");
        return found;
    }

  private:
    template <class F> void store(F &function, const char *name) const
    {
        function = reinterpret_cast<F>(find(name));
    }
    void *module_;
};

class SpinLock : public testing::TestWithParam<bool>
{
  protected:
    void SetUp() override
    {
        ASSERT_TRUE(weak.loaded()) << dlerror();
        spin = GetParam() ? weak.all()
                          : lock_functions{qv::spin_init, qv::spin_lock, qv::spin_trylock, qv::spin_unlock,
                                           qv::spin_destroy};
    }
    weak_functions weak;
    lock_functions spin;
    void *word = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Functions, SpinLock, testing::Values(false, true), [](const auto &which) {
    return std::string(which.param ? "Exported" : "Internal");
});

TEST_P(SpinLock, HoldsAMutexFromInitToDestroy)
{
    ASSERT_EQ(spin.init(&word, 0), 0);
    EXPECT_NE(word, nullptr);
    EXPECT_EQ(spin.lock(&word), 0);
    EXPECT_EQ(spin.unlock(&word), 0);
    EXPECT_EQ(spin.destroy(&word), 0);
    EXPECT_EQ(word, nullptr);
}

TEST_P(SpinLock, IsTriedWithoutWaiting)
{
    ASSERT_EQ(spin.init(&word, 1), 0);
    EXPECT_EQ(spin.trylock(&word), 0);
    int other = 0;
    std::thread([&] { other = spin.trylock(&word); }).join();
    EXPECT_EQ(other, EBUSY);
    EXPECT_EQ(spin.unlock(&word), 0);
    EXPECT_EQ(spin.destroy(&word), 0);
}

TEST_P(SpinLock, KeepsOthersOut)
{
    ASSERT_EQ(spin.init(&word, 0), 0);
    int count = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([&] {
            for (int round = 0; round < 5000; round++) {
                spin.lock(&word);
                count++;
                spin.unlock(&word);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(count, 20000);
    EXPECT_EQ(spin.destroy(&word), 0);
}

TEST_P(SpinLock, RefusesAWordWithoutAMutex)
{
    for (void **empty : {&word, static_cast<void **>(nullptr)}) {
        EXPECT_EQ(spin.lock(empty), EINVAL);
        EXPECT_EQ(spin.trylock(empty), EINVAL);
        EXPECT_EQ(spin.unlock(empty), EINVAL);
        EXPECT_EQ(spin.destroy(empty), EINVAL);
    }
    EXPECT_EQ(spin.init(nullptr, 0), EINVAL);
}

TEST(SpinLockInit, LeavesTheWordEmptyOnFailure)
{
    int other = 0;
    void *word = &other;
    {
        const failing_alloc::after none(0);
        EXPECT_EQ(qv::spin_init(&word, 0), EAGAIN);
        EXPECT_EQ(word, nullptr);
    }
    word = &other;
    const failing init("pthread_mutex_init", EPERM);
    EXPECT_EQ(qv::spin_init(&word, 0), EPERM);
    EXPECT_EQ(word, nullptr);
}

TEST(SpinLockDestroy, EmptiesTheWordWhateverTheMutexSays)
{
    void *word = nullptr;
    ASSERT_EQ(qv::spin_init(&word, 0), 0);
    const failing destroy("pthread_mutex_destroy", EBUSY);
    EXPECT_EQ(qv::spin_destroy(&word), EBUSY);
    EXPECT_EQ(word, nullptr);
}

TEST(SpinLockExports, AreWeak)
{
    const weak_functions weak;
    ASSERT_TRUE(weak.loaded()) << dlerror();
    for (const char *name : {"pthread_spin_init", "pthread_spin_lock", "pthread_spin_trylock",
                             "pthread_spin_unlock", "pthread_spin_destroy"}) {
        SCOPED_TRACE(name);
        void *function = weak.find(name);
        ASSERT_NE(function, nullptr);
        Dl_info info;
        const ElfW(Sym) *symbol = nullptr;
        ASSERT_NE(dladdr1(function, &info, reinterpret_cast<void **>(const_cast<ElfW(Sym) **>(&symbol)),
                          RTLD_DL_SYMENT),
                  0);
        ASSERT_NE(symbol, nullptr);
        EXPECT_STREQ(info.dli_fname, QVLIB_SPIN_MODULE);
        EXPECT_EQ(symbol->st_info >> 4, STB_WEAK);
    }
}

// ---- Thread names

TEST(ThreadName, IsFormatted)
{
    std::thread([] {
        EXPECT_EQ(qvthread_setname("qvl-%s", "memdebug"), 0);
        EXPECT_EQ(thread_name(), "qvl-memdebug");
    }).join();
}

TEST(ThreadName, IsCutToFifteenCharacters)
{
    std::thread([] {
        EXPECT_EQ(qvthread_setname("worker-%d-of-%d", 12345, 67890), 0);
        EXPECT_EQ(thread_name(), "worker-12345-of");
    }).join();
}

TEST(ThreadName, RefusesNull)
{
    std::thread([] {
        const std::string before = thread_name();
        const char *none = nullptr;
        errno = 0;
        EXPECT_EQ(qvthread_setname(none, 0), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(thread_name(), before);
    }).join();
}

} // namespace
