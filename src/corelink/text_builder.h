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
        : text_(text), length_(text ? strlen(text) : 0), room_(length_), exact_(length_)
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

    bool append(const char *text, size_t length)
    {
        if (!reserve(length))
            return false;
        memcpy(text_ + length_, text, length);
        advance(length);
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
    // As "%s" prints it.
    bool append_text(const char *text)
    {
        return text ? append(text, strlen(text)) : append("(null)");
    }
    bool append_number(uint64_t number)
    {
        char digits[20];
        char *at = digits + sizeof digits;
        do
            *--at = static_cast<char>('0' + number % 10);
        while (number /= 10);
        return append(at, static_cast<size_t>(digits + sizeof digits - at));
    }

    // Takes the last character away, whatever it is.
    void remove_last()
    {
        if (text_ && length_ > 0)
            length_--;
    }

    // Cuts the text back to an earlier length.
    void truncate(size_t length)
    {
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
        return text_ && (more <= room_ - length_ || grow(more));
    }
    void advance(size_t length)
    {
        length_ += length;
        exact_ = length_;
    }
    bool grow(size_t more);
    bool resize(size_t room);
    void discard();

    char *text_;
    size_t length_;
    size_t room_;  // characters that fit, terminator apart
    size_t exact_; // length after the last append: what growing by exact sizes would have allocated
};

} // namespace qv
