// A step of stopping a feed that logging needs apart.
#pragma once

namespace qv
{

// Lets nobody wait for a client any more and sends nothing further; tellog_finish must follow.
void silence_feed(void *handle);

} // namespace qv
