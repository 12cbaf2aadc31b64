// References and thread names. A reference's count is changed under its lock only; whoever takes it to 0 is
// the last holder and destroys the lock alone.
//
// The lock words are mutexes behind a pointer on every platform, which keeps qv_reference the same
// everywhere.

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <pthread.h>
#include <sys/prctl.h>

#include <qvlib/reference.h>

#include "spin_lock.h"

static_assert(offsetof(qv_reference, count) == 0);
static_assert(offsetof(qv_reference, lock) == sizeof(void *));
static_assert(offsetof(qv_reference, release) == 2 * sizeof(void *));
static_assert(offsetof(qv_reference, release_arg) == 3 * sizeof(void *));
static_assert(sizeof(qv_reference) == 4 * sizeof(void *));

namespace
{

constexpr size_t thread_name_size = 17; // the kernel keeps 15 characters of the 16

pthread_mutex_t *mutex_of(void **word)
{
    return word ? static_cast<pthread_mutex_t *>(*word) : nullptr;
}

} // namespace

int qv::spin_init(void **word, int)
{
    if (!word)
        return EINVAL;
    *word = nullptr;
    auto *mutex = static_cast<pthread_mutex_t *>(calloc(1, sizeof(pthread_mutex_t)));
    if (!mutex)
        return EAGAIN;
    const int error = pthread_mutex_init(mutex, nullptr);
    if (error) {
        free(mutex);
        return error;
    }
    *word = mutex;
    return 0;
}

int qv::spin_lock(void **word)
{
    pthread_mutex_t *mutex = mutex_of(word);
    return mutex ? pthread_mutex_lock(mutex) : EINVAL;
}

int qv::spin_trylock(void **word)
{
    pthread_mutex_t *mutex = mutex_of(word);
    return mutex ? pthread_mutex_trylock(mutex) : EINVAL;
}

int qv::spin_unlock(void **word)
{
    pthread_mutex_t *mutex = mutex_of(word);
    return mutex ? pthread_mutex_unlock(mutex) : EINVAL;
}

int qv::spin_destroy(void **word)
{
    pthread_mutex_t *mutex = mutex_of(word);
    if (!mutex)
        return EINVAL;
    const int error = pthread_mutex_destroy(mutex);
    free(mutex);
    *word = nullptr;
    return error;
}

#if QVLIB_DEFINES_PTHREAD_SPIN
// The C library has none of these. They carry names of their own here, because a header may still declare the
// system's with another type of lock.
#define QV_WEAK_AS(name) __asm__(name) __attribute__((weak, visibility("default")))

extern "C" {
int weak_spin_init(void **word, int pshared) QV_WEAK_AS("pthread_spin_init");
int weak_spin_lock(void **word) QV_WEAK_AS("pthread_spin_lock");
int weak_spin_trylock(void **word) QV_WEAK_AS("pthread_spin_trylock");
int weak_spin_unlock(void **word) QV_WEAK_AS("pthread_spin_unlock");
int weak_spin_destroy(void **word) QV_WEAK_AS("pthread_spin_destroy");
}

int weak_spin_init(void **word, int pshared)
{
    return qv::spin_init(word, pshared);
}

int weak_spin_lock(void **word)
{
    return qv::spin_lock(word);
}

int weak_spin_trylock(void **word)
{
    return qv::spin_trylock(word);
}

int weak_spin_unlock(void **word)
{
    return qv::spin_unlock(word);
}

int weak_spin_destroy(void **word)
{
    return qv::spin_destroy(word);
}
#endif

int qv_reference_prep(qv_reference *ref, void (*release)(void *), void *release_arg)
{
    errno = ref ? qv::spin_init(&ref->lock, 0) : EINVAL;
    if (errno != 0)
        return -1;
    ref->count = 0;
    ref->release = release;
    ref->release_arg = release_arg;
    return 0;
}

int qv_reference_acquire(qv_reference *ref)
{
    if (!ref)
        return EINVAL;
    const int error = qv::spin_lock(&ref->lock);
    if (error)
        return error;
    const bool full = ref->count == INT32_MAX;
    if (!full)
        ref->count++;
    const int unlocked = qv::spin_unlock(&ref->lock);
    return full ? EOVERFLOW : unlocked;
}

int qv_reference_release(qv_reference *ref)
{
    if (!ref) {
        errno = EINVAL;
        return -1;
    }
    if (qv::spin_lock(&ref->lock) != 0) {
        errno = EPERM; // never prepared, or the last reference went: nobody holds one
        return -1;
    }
    if (ref->count < 1) {
        errno = EPERM;
        qv::spin_unlock(&ref->lock);
        return -1;
    }
    const int32_t left = --ref->count;
    qv::spin_unlock(&ref->lock);
    if (left > 0)
        return 1;

    errno = qv::spin_destroy(&ref->lock);
    if (errno)
        return -1;
    if (ref->release)
        ref->release(ref->release_arg); // which may free the reference
    return 0;
}

int qvthread_setname(const char *fmt, ...)
{
    if (!fmt) {
        errno = EINVAL;
        return -1;
    }
    char name[thread_name_size] = "";
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(name, sizeof name, fmt, ap);
    va_end(ap);
    return prctl(PR_SET_NAME, name);
}
