// Sends with an end. The waits are cut in slices, so that a stop is noticed while a send waits, and so that a
// client that reads slowly gets what there is room for: poll tells of a socket only when a third of its
// buffer is free, which may take such a client longer than the time that it has.

#include "send_whole.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>
#include <utility>

namespace qv
{
namespace
{

constexpr uint32_t slice_ms = 10;
constexpr uint32_t short_message_ms = 250;
constexpr uint32_t short_total_ms = 500;

std::atomic<unsigned int> in_a_hurry; // how many short_waits live
std::atomic<uint32_t> hurry_end;

uint32_t time_left(uint32_t end, uint32_t now)
{
    const auto left = static_cast<int32_t>(end - now);
    return left > 0 ? static_cast<uint32_t>(left) : 0;
}

// Takes what was sent off the front of the pieces.
void advance(iovec *&pieces, size_t &count, size_t sent)
{
    while (count > 0 && sent >= pieces->iov_len) {
        sent -= pieces->iov_len;
        pieces++;
        count--;
    }
    if (count > 0) {
        pieces->iov_base = static_cast<char *>(pieces->iov_base) + sent;
        pieces->iov_len -= sent;
    }
}

} // namespace

uint32_t clock_ms()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const auto ms = static_cast<uint32_t>(static_cast<uint64_t>(now.tv_sec) * 1000 +
                                          static_cast<uint32_t>(now.tv_nsec) / 1000000);
    return ms ? ms : 1;
}

short_waits::short_waits()
{
    hurry_end = clock_ms() + short_total_ms;
    in_a_hurry++;
}

short_waits::~short_waits()
{
    in_a_hurry--;
}

send_patience::outcome send_patience::wait_slice(int fd)
{
    const uint32_t now = clock_ms();
    if (started_ == 0)
        started_ = now;
    uint32_t left = time_left(started_ + limit_ms_, now);
    if (const uint32_t stop_at = stop_at_)
        left = std::min(left, time_left(stop_at, now));
    if (in_a_hurry != 0)
        left = std::min({left, time_left(started_ + short_message_ms, now), time_left(hurry_end, now)});

    pollfd room = {fd, POLLOUT, 0};
    const int ready = poll(&room, 1, static_cast<int>(std::min(left, slice_ms)));
    if (ready > 0 && (left != 0 || !std::exchange(tried_late_, true)))
        return outcome::ready;
    if (ready < 0 && errno != EINTR)
        return outcome::failed;
    if (left != 0)
        return outcome::not_yet;
    errno = EAGAIN;
    return outcome::failed;
}

bool send_patience::wait_for_room(int fd)
{
    outcome result;
    do
        result = wait_slice(fd);
    while (result == outcome::not_yet);
    return result == outcome::ready;
}

bool send_patience::wait_shortly(int fd)
{
    return wait_slice(fd) != outcome::failed;
}

bool send_whole(int fd, iovec *pieces, size_t count, send_patience &patience)
{
    advance(pieces, count, 0);
    patience.allow_late_attempt();
    while (count > 0) {
        msghdr message = {};
        message.msg_iov = pieces;
        message.msg_iovlen = count;
        const ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            advance(pieces, count, static_cast<size_t>(sent));
            patience.allow_late_attempt();
        } else if (errno == EAGAIN ? !patience.wait_shortly(fd) : errno != EINTR) {
            return false;
        }
    }
    return true;
}

} // namespace qv
