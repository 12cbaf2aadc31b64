/*
 * How a firmware build for PowerPC calls the C library. A position-independent function that calls through
 * the linkage table first finds the table of addresses, by four instructions and a register that it saves.
 * Here it calls a stub in the library instead, as it calls a function of its own, and the stub finds the
 * table: in the room of two instructions for each function of the C library and nine for all. The loader
 * fills the table when the library is loaded, not at the first call.
 *
 * To be included before all other headers but those of its own. A function that isn't listed is called as
 * ever.
 */
#ifndef QV_C_CALLS_H
#define QV_C_CALLS_H

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <strings.h>
#include <sys/auxv.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

// clang-format off
#define QV_C_FUNCTIONS(each) \
    each(__errno_location) each(accept) each(bind) each(calloc) each(clearerr) each(clock_gettime) each(close) \
    each(closelog) each(connect) each(ctime_r) each(exit) each(explicit_bzero) each(fclose) each(fcntl) \
    each(ferror) each(fflush) each(fileno) each(flockfile) each(fopen) each(fprintf) each(fread) \
    each(free) each(freeaddrinfo) each(funlockfile) each(fwrite) each(gai_strerror) each(getaddrinfo) \
    each(getauxval) each(getc) each(getnameinfo) each(getpeername) each(getsockname) each(getsockopt) \
    each(gettid) each(gmtime_r) each(isatty) each(listen) each(malloc) each(memcmp) each(memmem) \
    each(memmove) each(memset) each(nanosleep) each(openlog) each(perror) each(poll) each(prctl) each(printf) \
    each(pthread_create) each(pthread_detach) each(pthread_join) each(pthread_kill) \
    each(pthread_mutex_destroy) each(pthread_mutex_init) each(pthread_mutex_lock) each(pthread_mutex_trylock) \
    each(pthread_mutex_unlock) each(pthread_self) each(pthread_sigmask) each(pthread_tryjoin_np) each(puts) \
    each(random) each(realloc) each(recv) each(recvmsg) each(send) each(sendmsg) each(setsockopt) \
    each(shutdown) each(sigaction) each(sigaddset) each(sigdelset) each(sigemptyset) each(sigfillset) \
    each(sigismember) each(signal) each(sigpending) each(sigtimedwait) each(snprintf) each(socket) each(stat) \
    each(strcasecmp) each(strcmp) each(strcspn) each(strdup) each(strerror) each(strftime) each(strlen) \
    each(strncmp) each(strnlen) each(strspn) each(strtol) each(strtoul) each(time) each(vasprintf) \
    each(vfprintf) each(vsnprintf) each(vsyslog) each(write)
// clang-format on

#define QV_DECLARE_STUB(name) [[gnu::visibility("hidden")]] decltype(::name) name __asm__("qv_call_" #name);
extern "C" {
QV_C_FUNCTIONS(QV_DECLARE_STUB)
}

// The stubs; r0, r11, r12 and ctr are the callee's.
#define QV_DEFINE_STUB(name) "qv_call_" #name ":\n\tli 12," #name "@got\n\tb qv_call\n"
__asm__("\t.text\n" QV_C_FUNCTIONS(QV_DEFINE_STUB) R"(
qv_call:
	mflr 0
	bcl 20,31,1f
1:	mflr 11
	mtlr 0
	addis 11,11,_GLOBAL_OFFSET_TABLE_-1b@ha
	addi 11,11,_GLOBAL_OFFSET_TABLE_-1b@l
	lwzx 12,11,12
	mtctr 12
	bctr
)");

#endif
