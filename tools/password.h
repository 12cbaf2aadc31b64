// A password from the terminal or from standard input.
#ifndef QVL_PASSWORD_H
#define QVL_PASSWORD_H

#include <string>
#include <string.h>

namespace qvl
{

// A text that is wiped when it goes.
class secret
{
  public:
    secret() = default;
    secret(const secret &) = delete;
    secret &operator=(const secret &) = delete;
    ~secret()
    {
        explicit_bzero(text, sizeof(text));
    }

    static constexpr std::size_t longest = 1023;
    char text[longest + 1] = {};
};

// Reads one line: from a terminal with a prompt and without echo, twice when `repeat` asks for it, else the
// first line of standard input. Throws failure.
void read_password(secret &password, bool repeat);

} // namespace qvl

#endif
