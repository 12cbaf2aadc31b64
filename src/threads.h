// The library's own threads, which run beside the host's.
#pragma once

#include <pthread.h>
#include <span>

namespace qv
{

// How often a thread is signalled before the socket that it waits for is shut down.
constexpr int signals_before_shutdown = 20;

// Whether SIGUSR1, which wakes threads, has no handler.
bool usr1_ends_process();

// Starts a thread that gets none but the wanted signals: the others are for the host's threads, and would end
// what the thread waits for. Nobody joins a detached one. Returns pthread_create's error.
int start_thread(pthread_t *thread, bool detached, void *(*body)(void *), void *argument,
                 std::span<const int> wanted);

void pause_shortly(long microseconds);

} // namespace qv
