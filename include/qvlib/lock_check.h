/*
 * Lock checker: finds locks that are taken and never given back.
 *
 * A program calls check_lock_add where it takes a lock and check_lock_remove where it gives it back. The
 * checker counts the outstanding holdings of each call site (a file and a line), reports a second holding of
 * the same id, and prints the counts on standard output at every tenth holding of a site and on request.
 *
 * There is one checker per process. Without one, check_lock_add returns 0 and the others do nothing.
 *
 * Cost: check_lock_add and check_lock_remove find sites and holdings by hashing, O(1) on average; a dump is
 * linear in the number of sites.
 *
 * Errors: errno is not set, nothing is logged.
 * Ownership: the checker keeps copies and releases them itself.
 * Threads: all functions but check_lock_init and check_lock_exit may be called from any thread; those two
 * must not run while another thread is in any of them. Each line of output is written whole. No lock of the
 * caller is needed.
 */
#ifndef QVLIB_LOCK_CHECK_H
#define QVLIB_LOCK_CHECK_H

#include <stddef.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

/*
 * Starts the checker, without sites and holdings. One that runs is stopped first.
 *
 * Returns 0, or the error number of pthread_mutex_init or ENOMEM; no checker runs then.
 */
int check_lock_init(void);

/*
 * Records that a lock was taken.
 *
 * file   source file of the call site; copied
 * line   its line
 * id     identity of the lock or of the holding
 * extra  kept with the site when this call is its first; not used
 *
 * Prints "Multiple references found FILE:LINE" when the id is held already: the site's count stays raised
 * then, but no second holding is recorded, so that one removal does not bring it back.
 *
 * Returns the site's count; 0 on every tenth, after a dump; 0 too for a NULL file and when memory is short,
 * and nothing is counted then.
 */
size_t check_lock_add(const char *file, size_t line, int id, void *extra);

/*
 * Records that a lock was given back: takes 1 off the count of the site where the id was added and forgets
 * the holding, and the site when its count is 0. Prints "Could not find reference to remove" for an unknown
 * id.
 *
 * id  as it was given to check_lock_add
 */
void check_lock_remove(int id);

/* Prints "FILE:LINE count=N" for each site, the newest first. */
void check_lock_dump(void);

/* Stops the checker and forgets all sites and holdings. */
void check_lock_exit(void);

QV_END_DECLS

#endif
