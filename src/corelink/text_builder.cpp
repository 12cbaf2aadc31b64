#include "text_builder.h"

#include <cstdlib>
#include <iterator>
#include <utility>

#include <qvlib/memcheck.h>

#include "../memdebug.h"
#include "../where.h"
#include "digits.h"

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

bool text_builder::append_long_text(const char *text)
{
    return text ? append(text, strlen(text)) : append("(null)");
}

#if defined(QVLIB_FIRMWARE)
bool text_builder::append_number(uint64_t number)
{
    char digits[20], *const end = std::end(digits), *at = end;
    do {
        *--at = static_cast<char>('0' + take_digits<10>(number));
    } while (number != 0);
    return append(at, static_cast<size_t>(end - at));
}
#else
// Two digits at a time.
bool text_builder::append_number(uint64_t number)
{
    const unsigned int digits = count_digits(number);
    char *to = room_for(digits);
    if (!to)
        return false;
    put_digits(to, number, digits);
    length_ += digits;
    return true;
}
#endif

bool text_builder::grow(size_t more)
{
    if (!text_)
        return false;
    const size_t room = size_ - 1;
    if (more > SIZE_MAX / 4 - room)
        return resize(SIZE_MAX); // fails as a text of that size would
    const size_t doubled = room < 256 ? 512 : room * 2;
    return resize(doubled < length_ + more ? length_ + more : doubled);
}

bool text_builder::resize(size_t room)
{
    text_ = resize_text(text_, room == SIZE_MAX ? room : room + 1);
    size_ = text_ ? room + 1 : 0;
    if (!text_)
        length_ = 0;
    return text_ != nullptr;
}

// The block gets the size that growing by exact sizes would have left.
char *text_builder::finish()
{
    if (!text_)
        return nullptr;
    text_[length_] = '\0';
    const size_t exact = cut_at_ == length_ ? exact_ : length_;
    if (size_ != exact + 1 && !resize(exact))
        return nullptr;
    return std::exchange(text_, nullptr);
}

void text_builder::discard()
{
    if (text_)
        qv_memcheck_free(qv_free, text_, QV_WHERE);
}

} // namespace qv
