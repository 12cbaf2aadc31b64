// Steps of a feed: one of stopping that logging needs apart, and one that is tested by itself.
#pragma once

#include <cstddef>
#include <ctime>

namespace qv
{

// Lets nobody wait for a client any more and sends nothing further; tellog_finish must follow.
void silence_feed(void *handle);

// Writes the time, of a year with four digits, as "Sat Nov 14 22:51:07 2026 " in local time to 26 bytes, of
// which it may use the last. Returns the length, 0 when the C library can't tell the local time.
size_t feed_time(time_t now, char *text);

} // namespace qv
