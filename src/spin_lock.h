// Lock words: a word holds the address of a mutex of its own, or null before init, after destroy and after a
// failed init. Errors come back as results, EINVAL for a word without a mutex; errno is not used.
#pragma once

namespace qv
{

// 0, EAGAIN when the mutex cannot be allocated, or the mutex's init error.
int spin_init(void **word, int pshared);
int spin_lock(void **word);
// EBUSY when the lock is held.
int spin_trylock(void **word);
int spin_unlock(void **word);
// The mutex is freed and the word emptied whatever the mutex's destroy result.
int spin_destroy(void **word);

} // namespace qv
