/*
 * References and thread names.
 *
 * A qv_reference counts the holders of a shared object and runs a release callback when the last one lets go.
 * It starts at 0: the first holder acquires too. After the last release the reference is spent and must be
 * prepared anew before it is used again.
 *
 * The lock word is this library's own on every platform, a pointer to a separately allocated mutex that
 * sleeps instead of spinning, so the record's layout does not depend on the platform's spin locks. Where the
 * C library has no pthread_spin_* functions, this library also exports them, weak, over the same lock word;
 * elsewhere it defines none.
 *
 * ref  the record, prepared by qv_reference_prep
 *
 * Errors: an error number is returned or stands in errno as each function says. Nothing is logged.
 * Ownership: the record is the caller's, who keeps it while references are held.
 * Threads: acquire and release may be called from any thread while a reference is held or being acquired by
 * its owner; prep needs exclusive use.
 */
#ifndef QVLIB_REFERENCE_H
#define QVLIB_REFERENCE_H

#include <stdint.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

/* A reference: the count, its lock and what ends it. */
typedef struct {
    int32_t count;           /* references held; changed under the lock only */
    void *lock;              /* lock word; NULL once the last reference went */
    void (*release)(void *); /* called after the last reference went; may be NULL */
    void *release_arg;       /* handed to release */
} qv_reference;

/*
 * Prepares a reference with the count 0.
 *
 * ref          the record; what it held before is overwritten, not released
 * release      called once with release_arg when the last reference is released; NULL for none
 * release_arg  kept as it is
 *
 * Returns 0 with errno 0, or -1 with errno EAGAIN when the lock cannot be allocated, the mutex's init error,
 * or EINVAL for a NULL ref. On failure the count and the callback are left as they were.
 * Ownership: the lock is released with the last reference; a prepared reference that nobody acquires keeps
 * it.
 */
int qv_reference_prep(qv_reference *ref, void (*release)(void *), void *release_arg);

/*
 * Adds one reference.
 *
 * Returns 0, or an error number, the count unchanged: EINVAL for NULL and for a reference that is not
 * prepared, EOVERFLOW at 2147483647 references. errno is left alone.
 */
int qv_reference_acquire(qv_reference *ref);

/*
 * Gives one reference back.
 *
 * Returns 1 while references remain, 0 after the last one: its lock has then been destroyed, errno is 0, and
 * the release callback, if there is one, has run. -1 with errno EPERM when no reference is held, EINVAL for
 * NULL, or the error of destroying the lock; in that last case the callback does not run.
 * Threads: the callback runs in the releasing thread, without the lock, and may release the record itself.
 */
int qv_reference_release(qv_reference *ref);

/*
 * Names the calling thread for the system's thread listings.
 *
 * fmt  printf format of the name; the system keeps the first 15 characters
 * ...  what the format asks for
 *
 * Returns the result of prctl(PR_SET_NAME), which is 0; -1 with errno EINVAL for a NULL fmt.
 * Ownership: the name is copied.
 * Threads: any; each names itself.
 */
int qvthread_setname(const char *fmt, ...) QV_PRINTF(1, 2);

QV_END_DECLS

#endif
