// Hex text is read line by line. A line is dropped when it is a header, then loses its comment and its
// offset; what follows the bytes of a line that has an offset is the dump's column of characters.
#include "input.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include "failure.h"

namespace qvl
{

namespace
{

constexpr std::size_t longest_bytes = 1 << 20; // far beyond any identification block or sense data
constexpr std::size_t bytes_of_dump_line = 16;

bool is_hex(char c)
{
    return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

unsigned char value_of(char digit)
{
    return static_cast<unsigned char>(digit <= '9' ? digit - '0' : (digit | 0x20) - 'a' + 10);
}

bool is_text(std::string_view content)
{
    return std::all_of(content.begin(), content.end(),
                       [](char c) { return is_blank(c) || c == '\n' || (c > ' ' && c < 0x7f); });
}

// "Offset   Values" and "------   ------" of ethtool, the row of digits of i2cdump, the count of hexdump -C.
bool is_header(std::string_view line)
{
    const std::size_t first = line.find_first_not_of(" \t");
    if (first == line.npos)
        return true;
    const std::string_view rest = line.substr(first);
    return rest.starts_with("Offset") || rest.starts_with("---") || rest.starts_with("0  1  2  3");
}

std::string quoted(std::string_view text)
{
    std::string result(1, '"');
    result += shown(text);
    result += '"';
    return result;
}

class hex_reader
{
  public:
    hex_reader(const std::string &name, std::string_view text) : name_(name), text_(text)
    {
    }

    std::vector<unsigned char> read()
    {
        while (at_ < text_.size()) {
            const std::size_t line_end = std::min(text_.find('\n', at_), text_.size());
            end_ = std::min(text_.find('#', at_), line_end);
            if (!is_header(text_.substr(at_, end_ - at_)))
                read_line();
            at_ = line_end + 1;
        }
        return std::move(bytes_);
    }

  private:
    [[noreturn]] void refuse(std::size_t offset, const std::string &why) const
    {
        throw failure_at(name_, text_, offset, why);
    }

    std::size_t skip_blanks()
    {
        const std::size_t before = at_;
        while (at_ < end_ && is_blank(text_[at_]))
            ++at_;
        return at_ - before;
    }

    void skip_prefix()
    {
        if (end_ - at_ > 2 && text_[at_] == '0' && (text_[at_ + 1] | 0x20) == 'x')
            at_ += 2;
    }

    std::size_t digits_here() const
    {
        std::size_t end = at_;
        while (end < end_ && is_hex(text_[end]))
            ++end;
        return end - at_;
    }

    bool is_blank_from(std::size_t at) const
    {
        return text_.find_first_not_of(" \t\r", at) >= end_;
    }

    // The eight digits of hexdump -C, before two blanks and a byte or, behind its last byte, alone. Eight
    // digits elsewhere are four bytes.
    bool ends_bare_offset(std::size_t after) const
    {
        if (is_blank_from(after))
            return has_offsets_;
        return text_.substr(after, 2) == "  " && after + 4 <= end_ && is_hex(text_[after + 2]) &&
               is_hex(text_[after + 3]) && (after + 4 == end_ || is_blank(text_[after + 4]));
    }

    // "0x0010: ", "10: ", and what ends_bare_offset takes; "00:04" is two bytes. Returns whether there was
    // one.
    bool take_offset()
    {
        const std::size_t start = at_;
        skip_prefix();
        const std::size_t count = digits_here(), after = at_ + count;
        const bool colon =
            after < end_ && text_[after] == ':' && (after + 1 == end_ || is_blank(text_[after + 1]));
        const bool bare = count == 8 && ends_bare_offset(after);
        if (count == 0 || count > 8 || (!colon && !bare)) {
            at_ = start;
            return false;
        }
        const std::size_t offset = std::stoul(std::string(text_.substr(at_, count)), nullptr, 16);
        if (offset != bytes_.size())
            refuse(start, "offset " + std::to_string(offset) + " where byte " +
                              std::to_string(bytes_.size()) + " is expected");
        at_ = after + colon;
        has_offsets_ = true;
        return true;
    }

    void take_digits(std::size_t count)
    {
        if (count % 2 != 0)
            refuse(at_, "an odd number of digits: " + quoted(text_.substr(at_, count)));
        for (std::size_t i = 0; i < count; i += 2)
            bytes_.push_back(
                static_cast<unsigned char>(value_of(text_[at_ + i]) << 4 | value_of(text_[at_ + i + 1])));
        at_ += count;
    }

    void read_line()
    {
        skip_blanks();
        const bool dump = take_offset();
        const std::size_t before = bytes_.size();
        for (bool first = true;; first = false) {
            const std::size_t blanks = skip_blanks();
            const bool full = bytes_.size() - before >= bytes_of_dump_line;
            // Two blanks part the halves of a line of hexdump -C; more, or a full line, the characters.
            if (at_ >= end_ || (dump && (full || text_[at_] == '|' || (!first && blanks > 2))))
                return;
            skip_prefix();
            const std::size_t count = digits_here();
            if (count == 0)
                refuse(at_, text_.substr(at_, 2) == "XX" ? "a byte that could not be read"
                                                         : quoted(text_.substr(at_, 1)) + " is no hex digit");
            take_digits(count);
            if (at_ < end_ && (text_[at_] == ',' || text_[at_] == ':'))
                ++at_;
        }
    }

    const std::string &name_;
    std::string_view text_;
    std::size_t at_ = 0, end_ = 0;
    bool has_offsets_ = false;
    std::vector<unsigned char> bytes_;
};

} // namespace

std::string input_name(const std::string &path)
{
    return path == "-" ? "<stdin>" : path;
}

input_file::input_file(const std::string &path)
    : name_(input_name(path)), fd_(path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC))
{
    if (fd_ == -1)
        throw plain_failure(name_ + ": " + strerror(errno));
}

input_file::~input_file()
{
    if (fd_ != STDIN_FILENO)
        close(fd_);
}

std::size_t input_file::read(char *to, std::size_t room)
{
    for (;;) {
        const ssize_t got = ::read(fd_, to, room);
        if (got != -1)
            return static_cast<std::size_t>(got);
        if (errno != EINTR)
            throw plain_failure(name_ + ": " + strerror(errno));
    }
}

std::string read_input(const std::string &path, std::size_t longest)
{
    input_file file(path);
    std::string text;
    std::vector<char> block(1 << 16);
    while (const std::size_t got = file.read(block.data(), block.size())) {
        text.append(block.data(), got);
        if (text.size() > longest)
            throw plain_failure(input_name(path) + ": larger than " + std::to_string(longest) + " bytes");
    }
    return text;
}

std::vector<unsigned char> parse_hex(const std::string &name, std::string_view text)
{
    return hex_reader(name, text).read();
}

std::vector<unsigned char> read_bytes(const std::string &path)
{
    const std::string content = read_input(path, longest_bytes);
    if (is_text(content))
        return parse_hex(input_name(path), content);
    return {content.begin(), content.end()};
}

} // namespace qvl
