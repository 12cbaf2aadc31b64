// Corelink messages as datagrams. The sender cuts the body into slices and sends each behind one header with
// a scatter-gather call. The receiver peeks at each header for the length, makes room, and reads the payload
// into its place; the room doubles, so what was collected is moved a few times in all and not once per
// fragment.
//
// Nothing that a header says is believed about memory: the bytes that count are those that the room was made
// for, and those that did not come are zeroed.

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <utility>

#include <qvlib/socket.h>
#include <qvlib/transport.h>

#include "guard.h"

static_assert(sizeof(corelink_msghdr) == 48);
static_assert(offsetof(corelink_msghdr, param1) == 4);
static_assert(offsetof(corelink_msghdr, name) == 8);
static_assert(offsetof(corelink_msghdr, param2) == 40);
static_assert(offsetof(corelink_msghdr, fragment) == 44);
static_assert(offsetof(corelink_msghdr, fragment_len) == 46);
static_assert(offsetof(corelink_msgbuf, length) == sizeof(void *));

namespace
{

constexpr uint32_t last_fragment = 1;
constexpr unsigned int type_shift = 24;
constexpr uint32_t slice_max = 4096;
constexpr uint32_t message_header_size = sizeof(corelink_msghdr);
constexpr int socket_buffer_size = 4 << 20; // asked for, in bytes; about 990 full fragments

int refuse(int error)
{
    errno = error;
    return -1;
}

// A message under construction: header and payloads in arrival order, `size` bytes in a block of `capacity`.
class message
{
  public:
    message() = default;
    ~message()
    {
        const qv::errno_guard kept;
        free(data_);
    }
    message(const message &) = delete;
    message &operator=(const message &) = delete;

    // Takes a block for the first header, which the caller zeroes and fills.
    bool start()
    {
        data_ = static_cast<unsigned char *>(malloc(message_header_size));
        if (!data_)
            return false;
        size_ = capacity_ = message_header_size;
        return true;
    }

    unsigned char *first_header() const
    {
        return data_;
    }

    // Makes room for `length` more bytes and returns the place for them, or null with errno.
    unsigned char *room_for(uint32_t length)
    {
        if (length > UINT32_MAX - size_) {
            errno = EMSGSIZE;
            return nullptr;
        }
        const uint32_t needed = size_ + length;
        if (needed > capacity_ && !grow(needed))
            return nullptr;
        return data_ + size_;
    }

    void add(uint32_t length)
    {
        size_ += length;
    }

    // Hands the block over with the room that is left in it: cutting it would cost more than a reader that
    // releases it soon gains.
    void finish(corelink_msgbuf *result)
    {
        *result = {std::exchange(data_, nullptr), size_};
    }

  private:
    bool grow(uint32_t needed)
    {
        // A message of one fragment gets a block of its size.
        const uint32_t doubled = capacity_ > UINT32_MAX / 2 ? UINT32_MAX : 2 * capacity_;
        const uint32_t capacity = size_ == message_header_size ? needed : std::max(needed, doubled);
        auto *grown = static_cast<unsigned char *>(realloc(data_, capacity));
        data_ = grown; // after a failure the old block stays allocated, as the header says
        if (!grown)
            return false;
        capacity_ = capacity;
        return true;
    }

    unsigned char *data_ = nullptr;
    uint32_t size_ = 0, capacity_ = 0;
};

// Reads the next datagram: its header, and `length` bytes to `payload`. Zeroes what of them did not come.
bool read_fragment(int fd, corelink_msghdr &header, unsigned char *payload, uint16_t length,
                   sockaddr_in *source)
{
    header = {};
    iovec pieces[] = {{&header, message_header_size}, {payload, length}};
    msghdr datagram = {};
    datagram.msg_name = source;
    datagram.msg_namelen = sizeof *source;
    datagram.msg_iov = pieces;
    datagram.msg_iovlen = std::size(pieces);
    const ssize_t got = recvmsg(fd, &datagram, MSG_WAITALL);
    if (got < 0)
        return false;
    if (got == 0 && datagram.msg_namelen == 0) {
        errno = ESHUTDOWN; // an empty datagram has a sender; the end of a stream has none
        return false;
    }
    const size_t filled =
        got > static_cast<ssize_t>(message_header_size) ? static_cast<size_t>(got) - message_header_size : 0;
    if (filled < length)
        memset(payload + filled, 0, length - filled);
    return true;
}

} // namespace

int corelink_setup_socket(const char *service)
{
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_protocol = IPPROTO_UDP;
    return qvsock_listen(&hints, "127.0.0.1", service, 0, 0, socket_buffer_size);
}

int corelink_sendmsg(int fd, uint16_t port, const corelink_msghdr *header, const void *data, uint32_t length)
{
    if (!header)
        return refuse(EINVAL);
    if (!data && length > 0)
        return refuse(EFAULT);

    corelink_msghdr copy = *header;
    copy.type_flags &= ~last_fragment; // a header that was received carries it
    sockaddr_in destination = {};      // its family stays 0, which counts as IPv4
    destination.sin_port = htons(port);
    destination.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    iovec pieces[] = {{&copy, message_header_size}, {const_cast<void *>(data), 0}};
    msghdr datagram = {};
    datagram.msg_name = &destination;
    datagram.msg_namelen = sizeof destination;
    datagram.msg_iov = pieces;
    datagram.msg_iovlen = std::size(pieces);

    const auto *body = static_cast<const unsigned char *>(data);
    uint32_t offset = 0;
    uint32_t fragment = 0;
    do {
        const uint32_t slice = std::min(length - offset, slice_max);
        if (offset + slice == length)
            copy.type_flags |= last_fragment;
        copy.fragment = static_cast<uint16_t>(fragment++);
        copy.fragment_len = static_cast<uint16_t>(slice);
        if (slice > 0)
            pieces[1] = {const_cast<unsigned char *>(body + offset), slice};
        if (sendmsg(fd, &datagram, MSG_NOSIGNAL) < 0)
            return -1;
        offset += slice;
    } while (offset < length);
    return 0;
}

int corelink_sendmsg_parts(int fd, uint16_t port, unsigned int type, uint32_t param1, const char *name,
                           uint32_t param2, const void *data, uint32_t length)
{
    corelink_msghdr header = {};
    header.type_flags = (type & 0xff) << type_shift;
    header.param1 = param1;
    if (name)
        memcpy(header.name, name, strnlen(name, sizeof header.name));
    header.param2 = param2;
    return corelink_sendmsg(fd, port, &header, data, length);
}

int corelink_receive_msg_block(int fd, sockaddr_in *source, corelink_msgbuf *result)
{
    if (!result)
        return refuse(EINVAL);
    sockaddr_in unwanted;
    sockaddr_in *sender = source ? source : &unwanted;
    *sender = {};

    message collected;
    if (!collected.start())
        return -1;
    corelink_msghdr header;
    unsigned char *peeked = collected.first_header(); // so that the first header heads the message
    do {
        memset(peeked, 0, message_header_size); // a short datagram leaves the rest zero
        if (recv(fd, peeked, message_header_size, MSG_PEEK) < 0)
            return -1;
        memcpy(&header, peeked, message_header_size);
        const uint16_t length = header.fragment_len;
        unsigned char *place = collected.room_for(length);
        if (!place || !read_fragment(fd, header, place, length, sender))
            return -1;
        // Another reader may have taken the datagram that was peeked at: no more than there is room for.
        collected.add(std::min(length, header.fragment_len));
        peeked = reinterpret_cast<unsigned char *>(&header);
    } while (!(header.type_flags & last_fragment));
    collected.finish(result);
    return 0;
}
