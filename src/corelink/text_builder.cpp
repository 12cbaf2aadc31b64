#include "text_builder.h"

#include <cstdlib>
#include <utility>

#include <qvlib/memcheck.h>

#include "../memdebug.h"
#include "../where.h"

namespace qv
{

bool text_builder::grow(size_t more)
{
    if (more > SIZE_MAX / 4 - room_)
        return resize(SIZE_MAX); // fails as a text of that size would
    size_t room = room_ < 32 ? 64 : room_ * 2;
    if (room < length_ + more)
        room = length_ + more;
    return resize(room);
}

bool text_builder::resize(size_t room)
{
    char *old = std::exchange(text_, nullptr);
    if (room != SIZE_MAX)
        text_ = grow_text(old, room + 1);
    if (text_) {
        room_ = room;
        return true;
    }
    // A session has lost sight of the block; without one it is still ours.
    if (!running_session())
        free(old);
    return false;
}

char *text_builder::finish()
{
    if (!text_)
        return nullptr;
    text_[length_] = '\0';
    if (room_ != exact_ && !resize(exact_))
        return nullptr;
    return std::exchange(text_, nullptr);
}

void text_builder::discard()
{
    if (text_)
        qv_memcheck_free(qv_free, text_, QV_WHERE);
}

} // namespace qv
