#include "threads.h"

#include <csignal>
#include <ctime>

bool qv::usr1_ends_process()
{
    struct sigaction action;
    return sigaction(SIGUSR1, nullptr, &action) != 0 ||
           (!(action.sa_flags & SA_SIGINFO) && action.sa_handler == SIG_DFL);
}

int qv::start_thread(pthread_t *thread, bool detached, void *(*body)(void *), void *argument,
                     std::span<const int> wanted)
{
    sigset_t blocked, mask;
    sigfillset(&blocked);
    for (const int number : wanted)
        sigdelset(&blocked, number);

    pthread_sigmask(SIG_SETMASK, &blocked, &mask);
    const int error = pthread_create(thread, nullptr, body, argument);
    if (error == 0 && detached)
        pthread_detach(*thread);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    return error;
}

void qv::pause_shortly(long microseconds)
{
    const timespec moment = {0, microseconds * 1000};
    nanosleep(&moment, nullptr);
}
