// Files and standard input as they are, and bytes that come as binary or as hex text.
#ifndef QVL_INPUT_H
#define QVL_INPUT_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace qvl
{

// What messages call the file `path`, "-" for standard input.
std::string input_name(const std::string &path);

// The file `path`, "-" for standard input, piece by piece. Opening and reading throw failure.
class input_file
{
  public:
    explicit input_file(const std::string &path);
    ~input_file();
    input_file(const input_file &) = delete;
    input_file &operator=(const input_file &) = delete;

    // Waits for bytes; returns how many came, 0 at the end.
    std::size_t read(char *to, std::size_t room);

  private:
    std::string name_;
    int fd_;
};

// Reads `path`, "-" for standard input, to its end. Throws failure, also for more than `longest` bytes.
std::string read_input(const std::string &path, std::size_t longest);

// Reads bytes from `path`: binary, or hex text as parse_hex takes it. A text has printable characters only.
std::vector<unsigned char> read_bytes(const std::string &path);

// Reads hex text: digits in pairs, with or without blanks, commas or colons between the bytes, "0x" in front
// of them and comments from "#" on; or the lines that `ethtool -m ... hex on`, `i2cdump`, `xxd` and `hexdump
// -C` print, whose offsets must count up from 0. Throws failure with a position.
std::vector<unsigned char> parse_hex(const std::string &name, std::string_view text);

} // namespace qvl

#endif
