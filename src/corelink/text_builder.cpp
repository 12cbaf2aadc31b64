#include "text_builder.h"

#include <cstdlib>
#include <utility>

#include <qvlib/memcheck.h>

#include "../memdebug.h"
#include "../where.h"

namespace qv
{

char *resize_text(char *text, size_t size)
{
    char *resized = grow_text(text, size);
    // A session has lost sight of a block that could not be resized; without one it is still ours.
    if (!resized && !running_session())
        free(text);
    return resized;
}

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
    text_ = resize_text(text_, room == SIZE_MAX ? room : room + 1);
    if (text_)
        room_ = room;
    return text_ != nullptr;
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
