// Socket helpers. No state: each function resolves, opens and reports for itself. On every failure errno is
// that of the call that failed, since listeners name it in their last message: what logs or closes keeps it.

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <qvlib/log.h>
#include <qvlib/socket.h>

#include "guard.h"
#include "socket.h"

namespace
{

constexpr int backlog = 10;
constexpr size_t service_size = 32;
constexpr size_t path_size = 4095;
constexpr size_t iface_request_size = 32; // struct ifreq of a 32-bit machine; only the name in front is read
constexpr socklen_t tcp_info_size = 104;  // what every kernel since 2.6 fills

static_assert(sizeof(struct tcp_info) >= tcp_info_size);
static_assert(offsetof(struct tcp_info, tcpi_rto) == 8);
static_assert(offsetof(struct tcp_info, tcpi_total_retrans) == 100);

// Holds a resolved address list.
class address_list
{
  public:
    address_list() = default;
    ~address_list()
    {
        if (list_) {
            const qv::errno_guard kept;
            freeaddrinfo(list_);
        }
    }
    address_list(const address_list &) = delete;
    address_list &operator=(const address_list &) = delete;

    int resolve(const char *node, const char *service, const addrinfo &hints)
    {
        return getaddrinfo(node, service, &hints, &list_);
    }
    const addrinfo *get() const
    {
        return list_;
    }
    addrinfo *release()
    {
        return std::exchange(list_, nullptr);
    }

  private:
    addrinfo *list_ = nullptr;
};

addrinfo copy_hints(const addrinfo *hints)
{
    addrinfo copy = {};
    if (hints) {
        copy.ai_flags = hints->ai_flags;
        copy.ai_family = hints->ai_family;
        copy.ai_socktype = hints->ai_socktype;
        copy.ai_protocol = hints->ai_protocol;
    }
    return copy;
}

const char *shown(const char *text)
{
    return text ? text : "(null)";
}

int numeric_host(const sockaddr *address, socklen_t size, char *host, size_t hostlen)
{
    const auto room = static_cast<socklen_t>(std::min<size_t>(hostlen, INT_MAX));
    return getnameinfo(address, size, host, room, nullptr, 0, NI_NUMERICHOST);
}

bool enable(int fd, int option)
{
    const int on = 1;
    return setsockopt(fd, SOL_SOCKET, option, &on, sizeof on) == 0;
}

// Asks for a bound socket's own address as text: a socket whose address can't be told is refused.
bool has_local_name(int fd)
{
    sockaddr_storage local = {};
    socklen_t size = sizeof local;
    auto *address = reinterpret_cast<sockaddr *>(&local);
    if (getsockname(fd, address, &size) != 0)
        return false;

    char host[NI_MAXHOST];
    char service[service_size];
    const int code = getnameinfo(address, size, host, sizeof host, service, sizeof service, NI_NUMERICHOST);
    if (code != 0) {
        const qv::errno_guard kept;
        qv_gaierror(code, "%s: getnameinfo", "__qvsock_listen");
        return false;
    }
    return true;
}

// Tries the candidates of one pass: those of IPv6, or all others.
int listen_on_family(const addrinfo *candidates, bool ipv6, int broadcast, long flags, int bufsize)
{
    for (const addrinfo *ai = candidates; ai; ai = ai->ai_next) {
        if ((ai->ai_family == AF_INET6) != ipv6)
            continue;
        const int fd = __qvsock_listen(ai, broadcast, flags, bufsize);
        if (fd >= 0)
            return fd;
    }
    return -1;
}

// Closes a file that was only read.
class file_guard
{
  public:
    explicit file_guard(FILE *file) : file_(file)
    {
    }
    ~file_guard()
    {
        if (file_) {
            const qv::errno_guard kept;
            fclose(file_);
        }
    }
    file_guard(const file_guard &) = delete;
    file_guard &operator=(const file_guard &) = delete;

    FILE *get() const
    {
        return file_;
    }

  private:
    FILE *file_;
};

// The file that holds an interface's address, or null with errno.
FILE *open_address_file(const char *ifname)
{
    auto *path = static_cast<char *>(calloc(1, path_size));
    if (!path)
        return nullptr;
    snprintf(path, path_size, "/sys/class/net/%s/address", ifname);
    FILE *file = fopen(path, "r");
    const qv::errno_guard kept;
    free(path);
    return file;
}

} // namespace

int addfl(int fd, long flags)
{
    if (flags == 0)
        return 0;
    const int old = fcntl(fd, F_GETFL);
    if (old < 0)
        return -1;
    return fcntl(fd, F_SETFL, old | static_cast<int>(flags)) < 0 ? -1 : 0;
}

int __qvsock_connect(const addrinfo *hints, const char *node, const char *service, const char *iface,
                     long flags, int bufsize, const char *caller, int quiet)
{
    addrinfo wanted = copy_hints(hints);
    wanted.ai_socktype = SOCK_STREAM;
    address_list peers;
    const int code = peers.resolve(node, service, wanted);
    if (code != 0) {
        const qv::errno_guard kept;
        if (!quiet)
            qv_gaierror(code, "%s: getaddrinfo: %s:%s", shown(caller), shown(node), shown(service));
        return -1;
    }

    const addrinfo *peer = peers.get();
    qv::fd_guard fd(socket(peer->ai_family, peer->ai_socktype, peer->ai_protocol));
    if (fd.get() < 0) {
        const qv::errno_guard kept;
        if (!quiet)
            qv_errno("%s: socket", shown(caller));
        peers.release(); // kept on this path, as the header says
        return -1;
    }
    if (qvsock_set_sockbuffers(fd.get(), bufsize, bufsize) != 0) {
        peers.release(); // both are kept on this path, as the header says
        fd.release();
        return -1;
    }
    if (iface && qvsock_bind_iface(fd.get(), iface) != 0 && !quiet)
        qv_errno("%s: setsockopt: bind to %s", "__qvsock_connect", iface);
    if (addfl(fd.get(), flags) != 0) {
        const qv::errno_guard kept;
        if (!quiet)
            qv_errno("%s: addfl: %#lx", shown(caller), static_cast<unsigned long>(flags));
        peers.release(); // kept on this path, as the header says
        return -1;
    }
    if (connect(fd.get(), peer->ai_addr, peer->ai_addrlen) != 0 &&
        !(errno == EINPROGRESS && (flags & O_NONBLOCK)))
        return -1; // not logged: callers poll for a peer that is not up yet
    return fd.release();
}

int __qvsock_listen(const addrinfo *ai, int broadcast, long flags, int bufsize)
{
    qv::fd_guard fd(socket(ai->ai_family, ai->ai_socktype, ai->ai_protocol));
    if (fd.get() < 0) {
        const qv::errno_guard kept;
        if (errno != EAFNOSUPPORT) // a kernel without IPv6 is nothing to report
            qv_errno("%s: socket", "__qvsock_listen");
        return -1;
    }
    if (qvsock_set_sockbuffers(fd.get(), bufsize, bufsize) != 0) {
        fd.release(); // kept on this path, as the header says
        return -1;
    }
    if (!enable(fd.get(), SO_REUSEADDR))
        qv_errno("%s: setsockopt: reuse", "__qvsock_listen");
    if (ai->ai_socktype == SOCK_DGRAM && broadcast && !enable(fd.get(), SO_BROADCAST)) {
        const qv::errno_guard kept;
        qv_errno("%s: setsockopt SO_BROADCAST", "__qvsock_listen");
        fd.release(); // kept on this path, as the header says
        return -1;
    }
    if (bind(fd.get(), ai->ai_addr, ai->ai_addrlen) != 0)
        return -1;
    if (addfl(fd.get(), flags) != 0) {
        const qv::errno_guard kept;
        qv_errno("%s: addfl: %#lx", "__qvsock_listen", static_cast<unsigned long>(flags));
        return -1;
    }
    if (ai->ai_socktype == SOCK_STREAM && listen(fd.get(), backlog) != 0)
        return -1;
    return has_local_name(fd.get()) ? fd.release() : -1;
}

int qvsock_listen(const addrinfo *hints, const char *node, const char *service, int broadcast, long flags,
                  int bufsize)
{
    addrinfo wanted = copy_hints(hints);
    wanted.ai_flags |= AI_PASSIVE;
    address_list candidates;
    const int code = candidates.resolve(node, service, wanted);
    if (code != 0) {
        const qv::errno_guard kept;
        qv_gaierror(code, "%s: getaddrinfo", "qvsock_listen");
        return -1;
    }

    errno = 0; // so that the message below names a candidate's error, none of the resolver's
    int fd = listen_on_family(candidates.get(), true, broadcast, flags, bufsize);
    if (fd < 0)
        fd = listen_on_family(candidates.get(), false, broadcast, flags, bufsize);
    if (fd < 0) {
        const qv::errno_guard kept;
        __qv_log(QV_LOG_ERROR, "%s: unable to bind to port %s %s", "qvsock_listen", shown(service),
                 errno ? strerror(errno) : "");
    }
    return fd;
}

int qvsock_accept(int fd, char *host, size_t hostlen, const char *caller)
{
    sockaddr_storage peer = {};
    socklen_t size = sizeof peer;
    auto *address = reinterpret_cast<sockaddr *>(&peer);
    qv::fd_guard conn(accept(fd, address, &size));
    if (conn.get() < 0) {
        const qv::errno_guard kept;
        if (errno != EAGAIN) // routine on a non-blocking listener
            qv_errno("%s: accept", shown(caller));
        return -1;
    }
    if (!host)
        return conn.release();
    const int code = numeric_host(address, size, host, hostlen);
    if (code != 0) {
        const qv::errno_guard kept;
        qv_gaierror(code, "%s: getnameinfo", shown(caller));
        return -1;
    }
    return conn.release();
}

char *qvsock_getpeername(int fd, char *host, size_t hostlen)
{
    sockaddr_storage peer = {};
    socklen_t size = sizeof peer;
    auto *address = reinterpret_cast<sockaddr *>(&peer);
    if (getpeername(fd, address, &size) != 0) {
        const qv::errno_guard kept;
        qv_errno("%s", "qvsock_getpeername");
        return nullptr;
    }
    const int code = numeric_host(address, size, host, hostlen);
    if (code != 0) {
        const qv::errno_guard kept;
        qv_gaierror(code, "%s", "qvsock_getpeername");
        return nullptr;
    }
    return host;
}

int qvsock_bind_iface(int fd, const char *ifname)
{
    if (!ifname) {
        errno = EINVAL;
        return -1;
    }
    char request[iface_request_size] = "";
    snprintf(request, IFNAMSIZ, "%s", ifname);
    return setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, request, sizeof request) == 0 ? 0 : -1;
}

int qvsock_set_sockbuffers(int fd, int rcvbuf, int sndbuf)
{
    if (sndbuf && setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf) != 0)
        return -1;
    if (rcvbuf && setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf) != 0)
        return -1;
    return 0;
}

int read_tcp_info(int fd, struct tcp_info *info)
{
    socklen_t size = tcp_info_size;
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, info, &size) != 0) {
        const qv::errno_guard kept;
        qv_errno("%s: getsockopt", "read_tcp_info");
        return -1;
    }
    return 0;
}

namespace
{

// Each ends with its terminator, the last with two.
constexpr char tcp_labels[] =
    "RTO\0ATO\0Snd MSS\0Rcv MSS\0Un-ACK'ed\0SACK'ed\0Lost\0Retrans\0Fackets\0Last Data Sent\0Last ACK Sent\0"
    "Last Data Recv\0Last ACK Recv\0PMTU\0Rcv SSThresh\0RTT\0RTT Var\0Snd SSThresh\0Snd CWND\0Adv MSS\0"
    "Reordering\0Rcv RTT\0Rcv Space\0Total Retrans\0";
static_assert(offsetof(tcp_info, tcpi_total_retrans) == offsetof(tcp_info, tcpi_rto) + 23 * sizeof(uint32_t));

} // namespace

void display_tcp_info(int level, const struct tcp_info *info)
{
    if (level == QV_LOG_HEX_SILENT || !info)
        return;
    __qv_log(level, "==== Dumping Full TCP Information ====");
    __qv_log(level, "State          %#.2x", info->tcpi_state);
    __qv_log(level, "CA State       %#.2x", info->tcpi_ca_state);
    __qv_log(level, "Retransmits    %#.2x", info->tcpi_retransmits);
    __qv_log(level, "Probes         %#.2x", info->tcpi_probes);
    __qv_log(level, "Backoff        %#.2x", info->tcpi_backoff);
    __qv_log(level, "Options        %#.2x", info->tcpi_options);
    // By the header's names: which nibble of their byte they are is the machine's byte order.
    __qv_log(level, "Snd WScale     %#.1x", static_cast<unsigned int>(info->tcpi_snd_wscale));
    __qv_log(level, "Rcv WScale     %#.1x", static_cast<unsigned int>(info->tcpi_rcv_wscale));

    // The words from the first timeout on stand in the order of the labels.
    const auto *word = reinterpret_cast<const char *>(info) + offsetof(tcp_info, tcpi_rto);
    for (const char *label = tcp_labels; *label != '\0';
         label += strlen(label) + 1, word += sizeof(uint32_t)) {
        uint32_t value;
        memcpy(&value, word, sizeof value);
        __qv_log(level, "%-15s%#.8x", label, value);
    }
    __qv_log(level, "==== End of Full TCP Information ====");
}

int qv_getmac(const char *ifname, uint8_t mac[6])
{
    if (!ifname || !mac) {
        errno = EINVAL;
        return -1;
    }
    const file_guard file(open_address_file(ifname));
    if (!file.get())
        return -1;
    // NOLINTNEXTLINE(cert-err34-c): two digits fit a byte
    if (fscanf(file.get(), "%2hhx:%2hhx:%2hhx:%2hhx:%2hhx:%2hhx", &mac[0], &mac[1], &mac[2], &mac[3], &mac[4],
               &mac[5]) == 6)
        return 0;
    if (!ferror(file.get()))
        errno = EINVAL;
    return -1;
}

uint64_t qv_getmac64(const char *ifname)
{
    uint8_t mac[6];
    if (qv_getmac(ifname, mac) != 0)
        return 0;
    uint64_t number = 0;
    for (const uint8_t byte : mac)
        number = number << 8 | byte;
    return number;
}
