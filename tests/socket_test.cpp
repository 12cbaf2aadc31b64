#include <qvlib/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "failing_alloc.h"
#include "failing_calls.h"
#include "log_lines.h"
#include "machine.h"
#include "socket.h"

using failing_calls::descriptors;
using failing_calls::failing;
using failing_calls::fails;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

// What the wrapped calls saw since the test began.
struct calls_seen {
    std::set<addrinfo *> lists; // given out and not released
    addrinfo *canned = nullptr; // given out instead of what the resolver says
    addrinfo wanted = {};       // hints of the last resolution
    int gai_code = 0;           // the resolver's result instead
    int name_code = 0;          // getnameinfo's result instead
    std::vector<int> families;  // of socket()
    std::vector<int> sockets;   // of socket()
    std::vector<int> options;   // of setsockopt()
    std::vector<int> backlogs;  // of listen()
    std::vector<char> iface;    // the request of SO_BINDTODEVICE
    socklen_t info_size = 0;    // of TCP_INFO
} seen;

} // namespace

extern "C" {
int __real_getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **list);
void __real_freeaddrinfo(addrinfo *list);
int __real_getnameinfo(const sockaddr *address, socklen_t size, char *host, socklen_t hostlen, char *service,
                       socklen_t servicelen, int flags);
int __real_socket(int domain, int type, int protocol);
int __real_setsockopt(int fd, int level, int option, const void *value, socklen_t size);
int __real_getsockopt(int fd, int level, int option, void *value, socklen_t *size);
int __real_fcntl(int fd, int command, ...);
int __real_bind(int fd, const sockaddr *address, socklen_t size);
int __real_listen(int fd, int backlog);
int __real_accept(int fd, sockaddr *address, socklen_t *size);
int __real_connect(int fd, const sockaddr *address, socklen_t size);
int __real_getsockname(int fd, sockaddr *address, socklen_t *size);

int __wrap_getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **list)
{
    seen.wanted = *hints;
    if (seen.gai_code)
        return seen.gai_code;
    if (seen.canned) {
        *list = seen.canned;
        seen.lists.insert(*list);
        return 0;
    }
    const int code = __real_getaddrinfo(node, service, hints, list);
    if (code == 0) {
        seen.lists.insert(*list);
        errno = ENOENT; // of a file that it looked for; callers must not report it
    }
    return code;
}

void __wrap_freeaddrinfo(addrinfo *list)
{
    EXPECT_EQ(seen.lists.erase(list), 1u);
    if (list != seen.canned)
        __real_freeaddrinfo(list);
    errno = EBADMSG; // callers must not see it
}

int __wrap_getnameinfo(const sockaddr *address, socklen_t size, char *host, socklen_t hostlen, char *service,
                       socklen_t servicelen, int flags)
{
    EXPECT_EQ(flags, NI_NUMERICHOST);
    EXPECT_EQ(servicelen, service ? 32u : 0u);
    const int before = errno;
    if (fails("getnameinfo")) {
        if (seen.name_code != EAI_SYSTEM)
            errno = before; // the resolver's own failures have no error number
        return seen.name_code;
    }
    return __real_getnameinfo(address, size, host, hostlen, service, servicelen, flags);
}

int __wrap_socket(int domain, int type, int protocol)
{
    seen.families.push_back(domain);
    const int fd = fails("socket", domain) ? -1 : __real_socket(domain, type, protocol);
    seen.sockets.push_back(fd);
    return fd;
}

int __wrap_setsockopt(int fd, int level, int option, const void *value, socklen_t size)
{
    seen.options.push_back(option);
    if (option == SO_BINDTODEVICE) {
        const auto *bytes = static_cast<const char *>(value);
        seen.iface.assign(bytes, bytes + size);
    }
    return fails("setsockopt", option) ? -1 : __real_setsockopt(fd, level, option, value, size);
}

int __wrap_getsockopt(int fd, int level, int option, void *value, socklen_t *size)
{
    if (option == TCP_INFO)
        seen.info_size = *size;
    return fails("getsockopt") ? -1 : __real_getsockopt(fd, level, option, value, size);
}

int __wrap_fcntl(int fd, int command, ...)
{
    va_list ap;
    va_start(ap, command);
    const long argument = va_arg(ap, long);
    va_end(ap);
    return fails("fcntl", command) ? -1 : __real_fcntl(fd, command, argument);
}

int __wrap_bind(int fd, const sockaddr *address, socklen_t size)
{
    return fails("bind") ? -1 : __real_bind(fd, address, size);
}

int __wrap_listen(int fd, int backlog)
{
    seen.backlogs.push_back(backlog);
    return fails("listen") ? -1 : __real_listen(fd, backlog);
}

int __wrap_accept(int fd, sockaddr *address, socklen_t *size)
{
    return fails("accept") ? -1 : __real_accept(fd, address, size);
}

int __wrap_connect(int fd, const sockaddr *address, socklen_t size)
{
    return fails("connect") ? -1 : __real_connect(fd, address, size);
}

int __wrap_getsockname(int fd, sockaddr *address, socklen_t *size)
{
    return fails("getsockname") ? -1 : __real_getsockname(fd, address, size);
}
}

namespace
{

addrinfo stream_hints(int family = AF_INET)
{
    addrinfo hints = {};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    return hints;
}

const addrinfo ipv4 = stream_hints();
const addrinfo any_family = stream_hints(AF_UNSPEC);
const addrinfo datagram = [] {
    addrinfo hints = stream_hints();
    hints.ai_socktype = SOCK_DGRAM;
    return hints;
}();

uint16_t port_of(int fd)
{
    sockaddr_storage address = {};
    socklen_t size = sizeof address;
    __real_getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
    return ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 *>(&address)->sin6_port
                                               : reinterpret_cast<sockaddr_in *>(&address)->sin_port);
}

std::string service_of(int fd)
{
    return std::to_string(port_of(fd));
}

int option_of(int fd, int option)
{
    int value = -1;
    socklen_t size = sizeof value;
    __real_getsockopt(fd, SOL_SOCKET, option, &value, &size);
    return value;
}

bool is_open(int fd)
{
    return fd >= 0 && __real_fcntl(fd, F_GETFD, 0L) >= 0;
}

bool has_ipv6()
{
    const int fd = __real_socket(AF_INET6, SOCK_STREAM, 0);
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    const bool bound =
        fd >= 0 && __real_bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    if (fd >= 0)
        close(fd);
    return bound;
}

// A candidate address for a canned answer of the resolver.
struct candidate {
    candidate(int family, uint16_t port, int type = SOCK_STREAM)
    {
        if (family == AF_INET6) {
            v6.sin6_family = AF_INET6;
            v6.sin6_port = htons(port);
            v6.sin6_addr = in6addr_loopback;
            info.ai_addrlen = sizeof v6;
        } else {
            v4.sin_family = AF_INET;
            v4.sin_port = htons(port);
            v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            info.ai_addrlen = sizeof v4;
        }
        info.ai_family = family;
        info.ai_socktype = type;
    }
    addrinfo info = {};
    sockaddr_in v4 = {};
    sockaddr_in6 v6 = {};
};

// Makes the resolver answer with these.
void answer_with(std::vector<candidate> &list)
{
    for (size_t i = 0; i < list.size(); i++) {
        addrinfo &info = list[i].info;
        info.ai_addr = info.ai_family == AF_INET6 ? reinterpret_cast<sockaddr *>(&list[i].v6)
                                                  : reinterpret_cast<sockaddr *>(&list[i].v4);
        info.ai_next = i + 1 < list.size() ? &list[i + 1].info : nullptr;
    }
    seen.canned = &list[0].info;
}

// Counts descriptors and resolved lists: none may be left, but those that a test expects.
class SocketTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        seen = {};
        before_ = descriptors();
    }
    void TearDown() override
    {
        for (const int fd : mine_)
            close(fd);
        EXPECT_EQ(descriptors(), before_);
        EXPECT_EQ(seen.lists.size(), lists_kept_);
        for (addrinfo *list : seen.lists)
            if (list != seen.canned)
                __real_freeaddrinfo(list);
    }

    // Closed when the test ends.
    int keep(int fd)
    {
        if (fd >= 0)
            mine_.push_back(fd);
        return fd;
    }
    int listener(const addrinfo &hints = ipv4)
    {
        const int fd = keep(qvsock_listen(&hints, "127.0.0.1", "0", 0, 0, 0));
        EXPECT_GE(fd, 0);
        return fd;
    }
    // A port that nobody listens on.
    std::string dead_service()
    {
        const int fd = qvsock_listen(&ipv4, "127.0.0.1", "0", 0, 0, 0);
        const std::string service = service_of(fd);
        close(fd);
        return service;
    }
    void expect_lists_kept(size_t count)
    {
        lists_kept_ = count;
    }
    // The library left its last socket open: it is, and this closes it.
    void expect_socket_kept()
    {
        ASSERT_TRUE(is_open(seen.sockets.back()));
        keep(seen.sockets.back());
    }

  private:
    int before_ = 0;
    size_t lists_kept_ = 0;
    std::vector<int> mine_;
};

// ---- Connecting

class QvsockConnect : public SocketTest
{
  protected:
    int connect_to(const std::string &service, long flags = 0, int bufsize = 0, const char *iface = nullptr,
                   int quiet = 0)
    {
        return __qvsock_connect(&ipv4, "127.0.0.1", service.c_str(), iface, flags, bufsize, "RGUI: Connect",
                                quiet);
    }
};

TEST_F(QvsockConnect, ConnectsAndCarriesBytes)
{
    const int server = listener();
    const int client = keep(connect_to(service_of(server)));
    ASSERT_GE(client, 0);
    const int conn = keep(qvsock_accept(server, nullptr, 0, "test"));
    ASSERT_GE(conn, 0);
    ASSERT_EQ(write(client, "corelink", 8), 8);
    char text[9] = "";
    ASSERT_EQ(recv(conn, text, 8, MSG_WAITALL), 8);
    EXPECT_STREQ(text, "corelink");
}

TEST_F(QvsockConnect, TakesHintsAsAStreamAndLeavesThemUnchanged)
{
    const int server = listener();
    addrinfo hints = datagram;
    hints.ai_addrlen = 99; // of no meaning
    const addrinfo before = hints;
    const int client =
        keep(__qvsock_connect(&hints, "127.0.0.1", service_of(server).c_str(), nullptr, 0, 0, "test", 0));
    EXPECT_GE(client, 0);
    EXPECT_EQ(option_of(client, SO_TYPE), SOCK_STREAM);
    EXPECT_EQ(memcmp(&hints, &before, sizeof hints), 0);
    EXPECT_EQ(seen.wanted.ai_addrlen, 0u);
}

TEST_F(QvsockConnect, ReturnsWhileANonblockingConnectionIsInProgress)
{
    const int server = listener();
    const std::string service = service_of(server);
    const int client = keep(connect_to(service, O_NONBLOCK));
    ASSERT_GE(client, 0);
    EXPECT_TRUE(fcntl(client, F_GETFL) & O_NONBLOCK);
    pollfd writable = {client, POLLOUT, 0};
    EXPECT_EQ(poll(&writable, 1, 10000), 1);
    EXPECT_EQ(option_of(client, SO_ERROR), 0);

    const failing progress("connect", EINPROGRESS);
    const int pending = keep(connect_to(service, O_NONBLOCK));
    EXPECT_GE(pending, 0);
}

TEST_F(QvsockConnect, TreatsInProgressAsAFailureOfABlockingSocket)
{
    const std::string service = service_of(listener());
    const failing progress("connect", EINPROGRESS);
    EXPECT_EQ(connect_to(service), -1);
    EXPECT_EQ(errno, EINPROGRESS);
}

TEST_F(QvsockConnect, IsSilentWhenRefused)
{
    const std::string service = dead_service();
    log_lines log;
    EXPECT_EQ(connect_to(service), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(QvsockConnect, TriesOnlyTheFirstAddress)
{
    const int server = listener();
    std::vector<candidate> list = {{AF_INET, static_cast<uint16_t>(std::stoi(dead_service()))},
                                   {AF_INET, port_of(server)}};
    answer_with(list);
    seen.sockets.clear();
    EXPECT_EQ(connect_to("ignored"), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(seen.sockets.size(), 1u);
}

TEST_F(QvsockConnect, SetsBothBuffers)
{
    const int client = keep(connect_to(service_of(listener()), 0, 16384));
    EXPECT_EQ(option_of(client, SO_RCVBUF), 2 * 16384);
    EXPECT_EQ(option_of(client, SO_SNDBUF), 2 * 16384);
}

TEST_F(QvsockConnect, SetsTheBuffersBeforeTheInterface)
{
    const std::string service = service_of(listener());
    seen.options.clear();
    EXPECT_GE(keep(connect_to(service, 0, 16384, "lo")), 0);
    EXPECT_THAT(seen.options, ElementsAre(SO_SNDBUF, SO_RCVBUF, SO_BINDTODEVICE));
}

TEST_F(QvsockConnect, BindsToAnInterface)
{
    log_lines log;
    const int client = keep(connect_to(service_of(listener()), 0, 0, "lo"));
    EXPECT_GE(client, 0);
    EXPECT_THAT(log.take(), IsEmpty());
    char name[16] = "";
    socklen_t size = sizeof name;
    const int result = __real_getsockopt(client, SOL_SOCKET, SO_BINDTODEVICE, name, &size);
    if (result == -1 && running_emulated())
        GTEST_SKIP() << "the emulator does not tell which interface a socket is bound to";
    EXPECT_EQ(result, 0);
    EXPECT_STREQ(name, "lo");
}

TEST_F(QvsockConnect, GoesAheadUnboundWhenTheInterfaceIsMissing)
{
    const std::string service = service_of(listener());
    log_lines log;
    EXPECT_GE(keep(connect_to(service, 0, 0, "nosuchif0")), 0);
    const failing bind("setsockopt", EPERM, SO_BINDTODEVICE);
    EXPECT_GE(keep(connect_to(service, 0, 0, "lo")), 0);
    EXPECT_THAT(log.take(),
                ElementsAre("ERROR: __qvsock_connect: setsockopt: bind to nosuchif0: No such device (19)",
                            "ERROR: __qvsock_connect: setsockopt: bind to lo: Operation not permitted (1)"));
}

TEST_F(QvsockConnect, LogsANameThatDoesNotResolve)
{
    log_lines log;
    seen.gai_code = EAI_NONAME;
    EXPECT_EQ(__qvsock_connect(&ipv4, "left-unit", "gui", nullptr, 0, 0, "RGUI: Connect", 0), -1);
    EXPECT_EQ(__qvsock_connect(nullptr, nullptr, nullptr, nullptr, 0, 0, nullptr, 0), -1);
    seen.gai_code = EAI_SYSTEM;
    errno = EMFILE;
    EXPECT_EQ(__qvsock_connect(&ipv4, "left-unit", "gui", nullptr, 0, 0, "RGUI: Connect", 0), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_THAT(
        log.take(),
        ElementsAre("ERROR: RGUI: Connect: getaddrinfo: left-unit:gui: Name or service not known (-2)",
                    "ERROR: (null): getaddrinfo: (null):(null): Name or service not known (-2)",
                    "ERROR: RGUI: Connect: getaddrinfo: left-unit:gui: Too many open files (24)"));
}

TEST_F(QvsockConnect, KeepsTheAddressesWhenTheSocketFails)
{
    const std::string service = service_of(listener());
    log_lines log;
    const failing socket("socket", EMFILE);
    EXPECT_EQ(connect_to(service), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_THAT(log.take(), ElementsAre("ERROR: RGUI: Connect: socket: Too many open files (24)"));
    expect_lists_kept(1);
}

TEST_F(QvsockConnect, KeepsAddressesAndSocketInSilenceWhenTheBuffersFail)
{
    const std::string service = service_of(listener());
    log_lines log;
    const failing buffers("setsockopt", ENOBUFS, SO_RCVBUF);
    EXPECT_EQ(connect_to(service, 0, 16384), -1);
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_THAT(log.take(), IsEmpty());
    expect_lists_kept(1);
    expect_socket_kept();
}

TEST_F(QvsockConnect, KeepsTheAddressesWhenTheFlagsFail)
{
    const std::string service = service_of(listener());
    log_lines log;
    for (const int command : {F_GETFL, F_SETFL}) {
        const failing flags("fcntl", EINVAL, command);
        EXPECT_EQ(connect_to(service, O_NONBLOCK), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_FALSE(is_open(seen.sockets.back()));
    }
    EXPECT_THAT(log.take(), ElementsAre("ERROR: RGUI: Connect: addfl: 0x800: Invalid argument (22)",
                                        "ERROR: RGUI: Connect: addfl: 0x800: Invalid argument (22)"));
    expect_lists_kept(2);
}

TEST_F(QvsockConnect, LogsNothingWhenQuiet)
{
    const std::string service = service_of(listener());
    log_lines log;
    EXPECT_GE(keep(connect_to(service, 0, 0, "nosuchif0", 1)), 0);
    {
        const failing flags("fcntl", EINVAL, F_SETFL);
        EXPECT_EQ(connect_to(service, O_NONBLOCK, 0, nullptr, 1), -1);
    }
    {
        const failing socket("socket", EMFILE);
        EXPECT_EQ(connect_to(service, 0, 0, nullptr, 1), -1);
    }
    seen.gai_code = EAI_AGAIN;
    EXPECT_EQ(connect_to(service, 0, 0, nullptr, 1), -1);
    EXPECT_THAT(log.take(), IsEmpty());
    expect_lists_kept(2);
}

TEST_F(QvsockConnect, NamesTheCallingFunctionByItself)
{
    log_lines log;
    seen.gai_code = EAI_FAMILY;
    EXPECT_EQ(qvsock_connect(&ipv4, "a", "b", nullptr, 0, 0, 0), -1);
    EXPECT_THAT(log.take(), ElementsAre("ERROR: TestBody: getaddrinfo: a:b: ai_family not supported (-6)"));
}

TEST_F(QvsockConnect, TakesNoHintsAsAny)
{
    const int server = listener();
    EXPECT_GE(
        keep(__qvsock_connect(nullptr, "127.0.0.1", service_of(server).c_str(), nullptr, 0, 0, "test", 0)),
        0);
}

// ---- Listening

using QvsockListen = SocketTest;

TEST_F(QvsockListen, ServesBothFamiliesThroughOneSocket)
{
    const int server = keep(qvsock_listen(&any_family, nullptr, "0", 0, 0, 0));
    ASSERT_GE(server, 0);
    const bool dual = has_ipv6();
    EXPECT_EQ(option_of(server, SO_DOMAIN), dual ? AF_INET6 : AF_INET);
    const std::string service = service_of(server);

    ASSERT_GE(keep(__qvsock_connect(&ipv4, "127.0.0.1", service.c_str(), nullptr, 0, 0, "test", 0)), 0);
    char host[64];
    ASSERT_GE(keep(qvsock_accept(server, host, sizeof host, "test")), 0);
    EXPECT_STREQ(host, dual ? "::ffff:127.0.0.1" : "127.0.0.1");
    if (dual) {
        ASSERT_GE(keep(__qvsock_connect(&any_family, "::1", service.c_str(), nullptr, 0, 0, "test", 0)), 0);
        ASSERT_GE(keep(qvsock_accept(server, host, sizeof host, "test")), 0);
        EXPECT_STREQ(host, "::1");
    }
}

TEST_F(QvsockListen, TriesAllIpv6AddressesBeforeAnyOther)
{
    std::vector<candidate> list = {{AF_INET, 0}, {AF_INET6, 0}, {AF_INET, 0}, {AF_INET6, 0}};
    answer_with(list);
    const failing bind("bind", EADDRNOTAVAIL);
    log_lines log;
    EXPECT_EQ(qvsock_listen(&any_family, nullptr, "8008", 0, 0, 0), -1);
    EXPECT_THAT(seen.families, ElementsAre(AF_INET6, AF_INET6, AF_INET, AF_INET));
    EXPECT_THAT(
        log.take(),
        ElementsAre("ERROR: qvsock_listen: unable to bind to port 8008 Cannot assign requested address"));
}

TEST_F(QvsockListen, ReturnsTheFirstThatBinds)
{
    std::vector<candidate> list = {{AF_INET, 0}, {AF_INET, 0}, {AF_INET, 0}};
    answer_with(list);
    const failing second("bind", EADDRINUSE, failing_calls::any, 1);
    log_lines log;
    const int fd = keep(qvsock_listen(&any_family, nullptr, "0", 0, 0, 0));
    EXPECT_GE(fd, 0);
    EXPECT_EQ(seen.sockets, std::vector<int>{fd});
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(QvsockListen, ReportsAServiceInUseOnce)
{
    const std::string service = service_of(listener());
    log_lines log;
    EXPECT_EQ(qvsock_listen(&ipv4, "127.0.0.1", service.c_str(), 0, 0, 0), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    {
        const failing bind("bind", EADDRINUSE);
        EXPECT_EQ(qvsock_listen(&any_family, nullptr, "8008", 0, 0, 0), -1);
    }
    EXPECT_THAT(
        log.take(),
        ElementsAre("ERROR: qvsock_listen: unable to bind to port " + service + " Address already in use",
                    "ERROR: qvsock_listen: unable to bind to port 8008 Address already in use"));
}

TEST_F(QvsockListen, ListensOnAStreamWithABacklogOfTen)
{
    const int fd = keep(qvsock_listen(&ipv4, "127.0.0.1", "0", 1, 0, 0));
    EXPECT_THAT(seen.backlogs, ElementsAre(10));
    EXPECT_EQ(option_of(fd, SO_ACCEPTCONN), 1);
    EXPECT_EQ(option_of(fd, SO_REUSEADDR), 1);
    EXPECT_EQ(option_of(fd, SO_BROADCAST), 0);
    EXPECT_THAT(seen.options, ElementsAre(SO_REUSEADDR));
}

TEST_F(QvsockListen, SetsBroadcastOnADatagramSocketAndDoesNotListen)
{
    const int fd = keep(qvsock_listen(&datagram, "127.0.0.1", "0", 1, 0, 0));
    EXPECT_EQ(option_of(fd, SO_BROADCAST), 1);
    EXPECT_THAT(seen.backlogs, IsEmpty());
    const int plain = keep(qvsock_listen(&datagram, "127.0.0.1", "0", 0, 0, 0));
    EXPECT_EQ(option_of(plain, SO_BROADCAST), 0);
}

TEST_F(QvsockListen, SetsTheBuffersThenReuseThenBroadcast)
{
    EXPECT_GE(keep(qvsock_listen(&datagram, "127.0.0.1", "0", 1, 0, 16384)), 0);
    EXPECT_THAT(seen.options, ElementsAre(SO_SNDBUF, SO_RCVBUF, SO_REUSEADDR, SO_BROADCAST));
}

TEST_F(QvsockListen, SetsFlagsAndBuffersAndLeavesHintsUnchanged)
{
    addrinfo hints = ipv4;
    hints.ai_flags = AI_NUMERICSERV;
    const int fd = keep(qvsock_listen(&hints, nullptr, "0", 0, O_NONBLOCK, 16384));
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(option_of(fd, SO_RCVBUF), 2 * 16384);
    EXPECT_EQ(option_of(fd, SO_SNDBUF), 2 * 16384);
    EXPECT_EQ(hints.ai_flags, AI_NUMERICSERV);
    EXPECT_EQ(seen.wanted.ai_flags, AI_NUMERICSERV | AI_PASSIVE);
}

TEST_F(QvsockListen, LogsAServiceThatDoesNotResolve)
{
    log_lines log;
    EXPECT_EQ(qvsock_listen(&ipv4, nullptr, nullptr, 0, 0, 0), -1);
    seen.gai_code = EAI_SERVICE;
    EXPECT_EQ(qvsock_listen(nullptr, nullptr, "no-such-service", 0, 0, 0), -1);
    EXPECT_THAT(
        log.take(),
        ElementsAre("ERROR: qvsock_listen: getaddrinfo: Name or service not known (-2)",
                    "ERROR: qvsock_listen: getaddrinfo: Servname not supported for ai_socktype (-8)"));
}

TEST_F(QvsockListen, IsSilentAboutAKernelWithoutIpv6)
{
    std::vector<candidate> list = {{AF_INET6, 0}, {AF_INET, 0}};
    answer_with(list);
    log_lines log;
    const failing socket("socket", EAFNOSUPPORT, AF_INET6);
    const int fd = keep(qvsock_listen(&any_family, nullptr, "0", 0, 0, 0));
    EXPECT_EQ(option_of(fd, SO_DOMAIN), AF_INET);
    EXPECT_THAT(log.take(), IsEmpty());
}

struct listen_failure {
    const char *call;
    int detail, error;
    std::vector<std::string> logged; // before the last message
};

TEST_F(QvsockListen, ReportsEachFailingStepAndClosesTheSocket)
{
    const listen_failure failures[] = {
        {"socket", failing_calls::any, EMFILE, {"ERROR: __qvsock_listen: socket: Too many open files (24)"}},
        {"bind", failing_calls::any, EACCES, {}},
        {"fcntl", F_GETFL, EINVAL, {"ERROR: __qvsock_listen: addfl: 0x800: Invalid argument (22)"}},
        {"fcntl", F_SETFL, EINVAL, {"ERROR: __qvsock_listen: addfl: 0x800: Invalid argument (22)"}},
        {"listen", failing_calls::any, EOPNOTSUPP, {}},
        {"getsockname", failing_calls::any, ENOBUFS, {}},
    };
    for (const listen_failure &failure : failures) {
        SCOPED_TRACE(failure.call);
        const int before = descriptors();
        log_lines log;
        const failing call(failure.call, failure.error, failure.detail);
        EXPECT_EQ(qvsock_listen(&ipv4, "127.0.0.1", "0", 0, O_NONBLOCK, 0), -1);
        EXPECT_EQ(errno, failure.error);
        std::vector<std::string> expected = failure.logged;
        expected.push_back("ERROR: qvsock_listen: unable to bind to port 0 " +
                           std::string(strerror(failure.error)));
        EXPECT_EQ(log.take(), expected);
        EXPECT_EQ(descriptors(), before);
    }
}

TEST_F(QvsockListen, ClosesASocketWhoseAddressCannotBeTold)
{
    log_lines log;
    seen.name_code = EAI_FAIL;
    {
        const failing name("getnameinfo", 0);
        EXPECT_EQ(qvsock_listen(&ipv4, "127.0.0.1", "0", 0, 0, 0), -1);
    }
    seen.name_code = EAI_SYSTEM;
    const failing name("getnameinfo", ENOMEM);
    EXPECT_EQ(qvsock_listen(&ipv4, "127.0.0.1", "0", 0, 0, 0), -1);
    EXPECT_THAT(
        log.take(),
        ElementsAre("ERROR: __qvsock_listen: getnameinfo: Non-recoverable failure in name resolution (-4)",
                    "ERROR: qvsock_listen: unable to bind to port 0 ", // no error number is known
                    "ERROR: __qvsock_listen: getnameinfo: Cannot allocate memory (12)",
                    "ERROR: qvsock_listen: unable to bind to port 0 Cannot allocate memory"));
}

TEST_F(QvsockListen, KeepsTheSocketInSilenceWhenTheBuffersFail)
{
    for (const int option : {SO_SNDBUF, SO_RCVBUF}) {
        log_lines log;
        const failing buffers("setsockopt", ENOBUFS, option);
        EXPECT_EQ(qvsock_listen(&ipv4, "127.0.0.1", "0", 0, 0, 16384), -1);
        EXPECT_THAT(log.take(),
                    ElementsAre("ERROR: qvsock_listen: unable to bind to port 0 No buffer space available"));
        expect_socket_kept();
    }
}

TEST_F(QvsockListen, KeepsTheSocketWhenBroadcastFails)
{
    log_lines log;
    const failing broadcast("setsockopt", EACCES, SO_BROADCAST);
    EXPECT_EQ(qvsock_listen(&datagram, "127.0.0.1", "0", 1, 0, 0), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_THAT(log.take(),
                ElementsAre("ERROR: __qvsock_listen: setsockopt SO_BROADCAST: Permission denied (13)",
                            "ERROR: qvsock_listen: unable to bind to port 0 Permission denied"));
    expect_socket_kept();
}

TEST_F(QvsockListen, GoesOnWhenReuseFails)
{
    log_lines log;
    const failing reuse("setsockopt", ENOMEM, SO_REUSEADDR);
    EXPECT_GE(keep(qvsock_listen(&ipv4, "127.0.0.1", "0", 0, 0, 0)), 0);
    EXPECT_THAT(log.take(),
                ElementsAre("ERROR: __qvsock_listen: setsockopt: reuse: Cannot allocate memory (12)"));
}

TEST_F(QvsockListen, OpensOneCandidateForItself)
{
    std::vector<candidate> list = {{AF_INET, 0}};
    answer_with(list);
    const int fd = keep(__qvsock_listen(&list[0].info, 0, 0, 0));
    ASSERT_GE(fd, 0);
    EXPECT_NE(port_of(fd), 0);
}

// ---- Accepting

using QvsockAccept = SocketTest;

TEST_F(QvsockAccept, GivesThePeersNumericAddress)
{
    const int server = listener();
    const int client =
        keep(__qvsock_connect(&ipv4, "127.0.0.1", service_of(server).c_str(), nullptr, 0, 0, "test", 0));
    char host[INET6_ADDRSTRLEN];
    const int conn = keep(qvsock_accept(server, host, sizeof host, "test"));
    ASSERT_GE(conn, 0);
    EXPECT_STREQ(host, "127.0.0.1");

    char peer[INET6_ADDRSTRLEN];
    EXPECT_EQ(qvsock_getpeername(client, peer, sizeof peer), peer);
    EXPECT_STREQ(peer, "127.0.0.1");
}

TEST_F(QvsockAccept, IsSilentWhenNobodyWaits)
{
    const int server = keep(qvsock_listen(&ipv4, "127.0.0.1", "0", 0, O_NONBLOCK, 0));
    log_lines log;
    char host[64];
    EXPECT_EQ(qvsock_accept(server, host, sizeof host, "test"), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(QvsockAccept, LogsOtherFailures)
{
    log_lines log;
    EXPECT_EQ(qvsock_accept(-1, nullptr, 0, "telnet"), -1);
    EXPECT_EQ(errno, EBADF);
    const failing accept("accept", ECONNABORTED);
    EXPECT_EQ(qvsock_accept(0, nullptr, 0, "telnet"), -1);
    EXPECT_THAT(log.take(), ElementsAre("ERROR: telnet: accept: Bad file descriptor (9)",
                                        "ERROR: telnet: accept: Software caused connection abort (103)"));
}

TEST_F(QvsockAccept, ClosesAConnectionWhoseAddressDoesNotFit)
{
    const int server = listener();
    keep(__qvsock_connect(&ipv4, "127.0.0.1", service_of(server).c_str(), nullptr, 0, 0, "test", 0));
    const int before = descriptors();
    log_lines log;
    char host[4];
    EXPECT_EQ(qvsock_accept(server, host, sizeof host, "telnet"), -1);
    EXPECT_THAT(log.take(), ElementsAre("ERROR: telnet: getnameinfo: " +
                                        std::string(gai_strerror(EAI_OVERFLOW)) + " (-12)"));
    EXPECT_EQ(descriptors(), before);
}

using QvsockGetpeername = SocketTest;

TEST_F(QvsockGetpeername, LogsASocketWithoutPeer)
{
    log_lines log;
    char host[64];
    EXPECT_EQ(qvsock_getpeername(listener(), host, sizeof host), nullptr);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_THAT(log.take(),
                ElementsAre("ERROR: qvsock_getpeername: Transport endpoint is not connected (107)"));
}

TEST_F(QvsockGetpeername, LogsABufferThatIsTooSmall)
{
    const int client =
        keep(__qvsock_connect(&ipv4, "127.0.0.1", service_of(listener()).c_str(), nullptr, 0, 0, "test", 0));
    log_lines log;
    char host[4];
    EXPECT_EQ(qvsock_getpeername(client, host, sizeof host), nullptr);
    EXPECT_EQ(qvsock_getpeername(client, nullptr, 0), nullptr);
    EXPECT_THAT(log.take(), ElementsAre("ERROR: qvsock_getpeername: " +
                                        std::string(gai_strerror(EAI_OVERFLOW)) + " (-12)"));
}

// ---- Options

using QvsockBindIface = SocketTest;

TEST_F(QvsockBindIface, CutsALongNameToFifteenCharacters)
{
    log_lines log;
    const int fd = keep(__real_socket(AF_INET, SOCK_DGRAM, 0));
    EXPECT_EQ(qvsock_bind_iface(fd, "abcdefghijklmnopqrst"), -1);
    EXPECT_EQ(errno, ENODEV);
    std::vector<char> request(32);
    memcpy(request.data(), "abcdefghijklmno", 15);
    EXPECT_EQ(seen.iface, request);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(QvsockBindIface, BindsAndRefusesNull)
{
    const int fd = keep(__real_socket(AF_INET, SOCK_DGRAM, 0));
    EXPECT_EQ(qvsock_bind_iface(fd, "lo"), 0);
    EXPECT_EQ(qvsock_bind_iface(fd, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

using QvsockSetSockbuffers = SocketTest;

TEST_F(QvsockSetSockbuffers, LeavesBothAloneForZero)
{
    EXPECT_EQ(qvsock_set_sockbuffers(-1, 0, 0), 0);
    EXPECT_THAT(seen.options, IsEmpty());
}

TEST_F(QvsockSetSockbuffers, SetsTheSendBufferThenTheReceiveBuffer)
{
    const int fd = keep(__real_socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(qvsock_set_sockbuffers(fd, 8192, 16384), 0);
    EXPECT_THAT(seen.options, ElementsAre(SO_SNDBUF, SO_RCVBUF));
    EXPECT_EQ(option_of(fd, SO_RCVBUF), 2 * 8192);
    EXPECT_EQ(option_of(fd, SO_SNDBUF), 2 * 16384);
    EXPECT_EQ(qvsock_set_sockbuffers(fd, 4096, 0), 0);
    EXPECT_EQ(option_of(fd, SO_SNDBUF), 2 * 16384);
}

TEST_F(QvsockSetSockbuffers, StopsInSilenceAtAFailure)
{
    log_lines log;
    const int fd = keep(__real_socket(AF_INET, SOCK_STREAM, 0));
    {
        const failing sending("setsockopt", EPERM, SO_SNDBUF);
        EXPECT_EQ(qvsock_set_sockbuffers(fd, 8192, 8192), -1);
        EXPECT_THAT(seen.options, ElementsAre(SO_SNDBUF));
    }
    const failing receiving("setsockopt", EPERM, SO_RCVBUF);
    EXPECT_EQ(qvsock_set_sockbuffers(fd, 8192, 8192), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_THAT(log.take(), IsEmpty());
}

using Addfl = SocketTest;

TEST_F(Addfl, AddsToTheFlagsThatAreSet)
{
    const int fd = keep(__real_socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(addfl(fd, O_NONBLOCK), 0);
    EXPECT_EQ(addfl(fd, O_ASYNC), 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & (O_NONBLOCK | O_ASYNC), O_NONBLOCK | O_ASYNC);
    EXPECT_EQ(addfl(-1, 0), 0);
    EXPECT_EQ(addfl(-1, O_NONBLOCK), -1);
    EXPECT_EQ(errno, EBADF);
}

// ---- TCP statistics

using TcpInfo = SocketTest;

TEST_F(TcpInfo, IsReadFromAConnection)
{
    const int client =
        keep(__qvsock_connect(&ipv4, "127.0.0.1", service_of(listener()).c_str(), nullptr, 0, 0, "test", 0));
    struct tcp_info info = {};
    EXPECT_EQ(read_tcp_info(client, &info), 0);
    EXPECT_EQ(seen.info_size, 104u);
    if (running_emulated())
        GTEST_SKIP() << "the emulator gives the first four bytes of TCP_INFO alone";
    EXPECT_EQ(info.tcpi_state, TCP_ESTABLISHED);
    EXPECT_GT(info.tcpi_snd_mss, 0u);
}

TEST_F(TcpInfo, LogsASocketThatHasNone)
{
    struct tcp_info info = {};
    log_lines log;
    EXPECT_EQ(read_tcp_info(-1, &info), -1);
    EXPECT_EQ(errno, EBADF);
    const failing option("getsockopt", ENOPROTOOPT);
    EXPECT_EQ(read_tcp_info(0, &info), -1);
    EXPECT_EQ(errno, ENOPROTOOPT);
    EXPECT_THAT(log.take(), ElementsAre("ERROR: read_tcp_info: getsockopt: Bad file descriptor (9)",
                                        "ERROR: read_tcp_info: getsockopt: Protocol not available (92)"));
}

TEST_F(TcpInfo, IsLoggedFieldByField)
{
    struct tcp_info info = {};
    info.tcpi_state = 1;
    info.tcpi_retransmits = 0x12;
    info.tcpi_probes = 3;
    info.tcpi_backoff = 4;
    info.tcpi_options = 0xff;
    info.tcpi_snd_wscale = 7;
    info.tcpi_rcv_wscale = 0;
    uint32_t words[24];
    for (uint32_t i = 0; i < 24; i++)
        words[i] = 0xa0000000u + i;
    words[7] = 0;
    words[8] = 0x1f;
    static_assert(offsetof(struct tcp_info, tcpi_rto) + sizeof words == 104);
    memcpy(&info.tcpi_rto, words, sizeof words);

    log_lines log;
    display_tcp_info(QV_LOG_INFO, &info);
    EXPECT_THAT(
        log.take(),
        ElementsAre("INFOR: ==== Dumping Full TCP Information ====", "INFOR: State          0x01",
                    "INFOR: CA State       00", "INFOR: Retransmits    0x12", "INFOR: Probes         0x03",
                    "INFOR: Backoff        0x04", "INFOR: Options        0xff", "INFOR: Snd WScale     0x7",
                    "INFOR: Rcv WScale     0", "INFOR: RTO            0xa0000000",
                    "INFOR: ATO            0xa0000001", "INFOR: Snd MSS        0xa0000002",
                    "INFOR: Rcv MSS        0xa0000003", "INFOR: Un-ACK'ed      0xa0000004",
                    "INFOR: SACK'ed        0xa0000005", "INFOR: Lost           0xa0000006",
                    "INFOR: Retrans        00000000", "INFOR: Fackets        0x0000001f",
                    "INFOR: Last Data Sent 0xa0000009", "INFOR: Last ACK Sent  0xa000000a",
                    "INFOR: Last Data Recv 0xa000000b", "INFOR: Last ACK Recv  0xa000000c",
                    "INFOR: PMTU           0xa000000d", "INFOR: Rcv SSThresh   0xa000000e",
                    "INFOR: RTT            0xa000000f", "INFOR: RTT Var        0xa0000010",
                    "INFOR: Snd SSThresh   0xa0000011", "INFOR: Snd CWND       0xa0000012",
                    "INFOR: Adv MSS        0xa0000013", "INFOR: Reordering     0xa0000014",
                    "INFOR: Rcv RTT        0xa0000015", "INFOR: Rcv Space      0xa0000016",
                    "INFOR: Total Retrans  0xa0000017", "INFOR: ==== End of Full TCP Information ===="));
}

TEST_F(TcpInfo, IsNotLoggedAtTheSilentLevel)
{
    const struct tcp_info info = {};
    log_lines log;
    qv_log_setlevel(100);
    display_tcp_info(QV_LOG_HEX_SILENT, &info);
    display_tcp_info(QV_LOG_ERROR, nullptr);
    EXPECT_THAT(log.take(), IsEmpty());
}

// ---- MAC addresses

class QvGetmac : public SocketTest
{
  protected:
    void SetUp() override
    {
        SocketTest::SetUp();
        char name[] = "/tmp/qvlib-mac-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        directory_ = name;
    }
    void TearDown() override
    {
        unlink((directory_ + "/address").c_str());
        rmdir(directory_.c_str());
        SocketTest::TearDown();
    }
    // The name of an "interface" whose address file holds this.
    std::string interface_with(const std::string &text)
    {
        std::ofstream(directory_ + "/address") << text;
        return "../../.." + directory_;
    }

  private:
    std::string directory_;
};

TEST_F(QvGetmac, ReadsSixBytes)
{
    const std::string name = interface_with("00:1b:21:0a:0b:0c\n");
    uint8_t mac[6] = {};
    EXPECT_EQ(qv_getmac(name.c_str(), mac), 0);
    EXPECT_THAT(mac, ElementsAre(0x00, 0x1b, 0x21, 0x0a, 0x0b, 0x0c));
    EXPECT_EQ(qv_getmac64(name.c_str()), UINT64_C(0x001b210a0b0c));
}

TEST_F(QvGetmac, ReadsAllBitsOfTheNumber)
{
    EXPECT_EQ(qv_getmac64(interface_with("FE:dc:ba:98:76:54").c_str()), UINT64_C(0xfedcba987654));
}

TEST_F(QvGetmac, KnowsTheLoopbackInterface)
{
    uint8_t mac[6] = {1, 1, 1, 1, 1, 1};
    EXPECT_EQ(qv_getmac("lo", mac), 0);
    EXPECT_THAT(mac, ElementsAre(0, 0, 0, 0, 0, 0));
    EXPECT_EQ(qv_getmac64("lo"), 0u);
}

TEST_F(QvGetmac, FailsForAMissingInterface)
{
    uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(qv_getmac("nosuchif0", mac), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(qv_getmac(std::string(5000, 'x').c_str(), mac), -1);
    EXPECT_THAT(mac, ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_EQ(qv_getmac64("nosuchif0"), 0u);
}

TEST_F(QvGetmac, FailsForAFileWithoutSixBytes)
{
    const struct {
        const char *text;
        int bytes;
    } files[] = {
        {"", 0},  {"\n", 0},   {"00:1b:21:0a:0b", 5}, {"00:1b:21:0a:0b:", 5}, {"00-1b-21-0a-0b-0c", 1},
        {"g", 0}, {"hello", 0}};
    for (const auto &[text, bytes] : files) {
        SCOPED_TRACE(text);
        const std::string name = interface_with(text);
        uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
        EXPECT_EQ(qv_getmac(name.c_str(), mac), -1);
        EXPECT_EQ(errno, EINVAL);
        const uint8_t read[] = {0x00, 0x1b, 0x21, 0x0a, 0x0b};
        for (int i = 0; i < 6; i++)
            EXPECT_EQ(mac[i], i < bytes ? read[i] : i + 1);
        EXPECT_EQ(qv_getmac64(name.c_str()), 0u);
    }
}

TEST_F(QvGetmac, FailsWithoutMemory)
{
    uint8_t mac[6];
    const failing_alloc::after none(0);
    EXPECT_EQ(qv_getmac("lo", mac), -1);
    EXPECT_EQ(errno, ENOMEM);
}

TEST_F(QvGetmac, RefusesNull)
{
    uint8_t mac[6];
    EXPECT_EQ(qv_getmac(nullptr, mac), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(qv_getmac("lo", nullptr), -1);
    EXPECT_EQ(qv_getmac64(nullptr), 0u);
}

} // namespace
