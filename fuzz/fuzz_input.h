// What the fuzz targets share: an input taken apart piece by piece, and the end of a run that has found
// something.
#ifndef QVLIB_FUZZ_INPUT_H
#define QVLIB_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace fuzz
{

inline void require(bool right, const char *what)
{
    if (!right) {
        fprintf(stderr, "finding: %s\n", what);
        abort();
    }
}

// An input from its front to its end. Behind the end all is zero and empty.
class input
{
  public:
    input(const uint8_t *data, size_t size) : at_(data), end_(data + size)
    {
    }

    bool is_empty() const
    {
        return at_ == end_;
    }
    uint8_t byte()
    {
        return is_empty() ? uint8_t{0} : *at_++;
    }
    unsigned below(unsigned count)
    {
        return byte() % count;
    }
    uint64_t number(unsigned bytes)
    {
        uint64_t value = 0;
        while (bytes-- > 0)
            value = value << 8 | byte();
        return value;
    }
    size_t size(unsigned bytes)
    {
        return static_cast<size_t>(number(bytes));
    }
    std::string text(size_t length)
    {
        const auto left = static_cast<size_t>(end_ - at_);
        const std::string taken(reinterpret_cast<const char *>(at_), length < left ? length : left);
        at_ += taken.size();
        return taken;
    }
    std::string rest()
    {
        return text(static_cast<size_t>(end_ - at_));
    }
    // Up to the mark, which is passed over, or to the end.
    std::string text_up_to(char mark)
    {
        const std::string_view left(reinterpret_cast<const char *>(at_), static_cast<size_t>(end_ - at_));
        const size_t length = left.find(mark);
        std::string taken = text(length == left.npos ? left.size() : length);
        byte();
        return taken;
    }

  private:
    const uint8_t *at_, *end_;
};

} // namespace fuzz

#endif
