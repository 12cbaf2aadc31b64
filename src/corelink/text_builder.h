// A text that grows by appending, with its length and room known.
//
// It takes over a tracked text and grows it by doubling, under the name that every growing text is recorded
// under. Once it could not grow, every append fails. finish() trims the block to the size that exact growth
// would have left.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "../qvstrings.h"

namespace qv
{

// Resizes a growing text to `size` bytes; on failure it is released and the result is null.
char *resize_text(char *text, size_t size);

class text_builder
{
  public:
    // `text` is a tracked block that just holds its text, or null.
    explicit text_builder(char *text)
        : text_(text), length_(text ? strlen(text) : 0), size_(text ? length_ + 1 : 0), exact_(length_),
          cut_at_(length_)
    {
    }
    ~text_builder()
    {
        discard();
    }
    text_builder(const text_builder &) = delete;
    text_builder &operator=(const text_builder &) = delete;

    bool failed() const
    {
        return !text_;
    }

    // Room for `most` more characters, of which advance_to() tells how many were written; null when there is
    // none.
    char *room_for(size_t most)
    {
        return reserve(most) ? text_ + length_ : nullptr;
    }
    void advance_to(const char *end)
    {
        length_ = static_cast<size_t>(end - text_);
    }

    bool append(const char *text, size_t length)
    {
        if (!reserve(length))
            return false;
        memcpy(text_ + length_, text, length);
        length_ += length;
        return true;
    }
    template <size_t N> bool append(const char (&literal)[N])
    {
        return append(literal, N - 1);
    }
    bool append(char c)
    {
        return append(&c, 1);
    }
    bool append_repeated(char c, size_t count)
    {
        if (!reserve(count))
            return false;
        memset(text_ + length_, c, count);
        length_ += count;
        return true;
    }
    // As "%s" prints it.
    bool append_text(const char *text)
    {
        return append_between("", text, "");
    }
    // The same between two others. What is short, as most tags are, is copied while its end is looked for,
    // with one look at the room.
    template <size_t Before, size_t After>
    bool append_between(const char (&before)[Before], const char *text, const char (&after)[After])
    {
        constexpr size_t few = 16;
        char *const to = room_for(few + Before + After);
        if (!to)
            return false;
        memcpy(to, before, Before - 1);
        for (size_t i = 0; text && i < few; i++) {
            if (text[i] == '\0') {
                memcpy(to + Before - 1 + i, after, After - 1);
                length_ += Before - 1 + i + After - 1;
                return true;
            }
            to[Before - 1 + i] = text[i];
        }
        return append(before) && append_long_text(text) && append(after);
    }
    bool append_number(uint64_t number);

    // Takes the last character away, whatever it is.
    void remove_last()
    {
        if (length_ == 0)
            return;
        if (cut_at_ != length_)
            exact_ = length_;
        cut_at_ = --length_;
    }

    // Cuts the text back to an earlier length.
    void truncate(size_t length)
    {
        if (text_)
            length_ = length;
    }
    const char *data() const
    {
        return text_;
    }
    size_t length() const
    {
        return length_;
    }

    // Hands the text over, trimmed; null when it could not grow.
    char *finish();

  private:
    bool reserve(size_t more)
    {
        return more < size_ - length_ || grow(more);
    }
    bool append_long_text(const char *text);
    bool grow(size_t more);
    bool resize(size_t room);
    void discard();

    char *text_;
    size_t length_;
    size_t size_;   // of the block, which has a terminator; 0 when it could not grow
    size_t exact_;  // length after the last append before characters were taken away,
    size_t cut_at_; // and the length since, as long as nothing was appended
};

} // namespace qv
