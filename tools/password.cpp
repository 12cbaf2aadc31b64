// The terminal's echo is off for the length of one line. A signal that would end or stop the program
// meanwhile is noted, the echo brought back, and the signal raised anew.
#include "password.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <termios.h>
#include <unistd.h>
#include "failure.h"

namespace qvl
{

namespace
{

volatile sig_atomic_t caught;

void note_signal(int signal)
{
    caught = signal;
}

class quiet_terminal
{
  public:
    quiet_terminal()
    {
        tcgetattr(STDIN_FILENO, &before_);
        struct termios quiet = before_;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        quiet.c_lflag |= ECHONL;
        caught = 0;
        struct sigaction note = {};
        note.sa_handler = note_signal; // without SA_RESTART: the read ends
        for (std::size_t i = 0; i < std::size(signals); i++)
            sigaction(signals[i], &note, &actions_[i]);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    }
    ~quiet_terminal()
    {
        tcsetattr(STDIN_FILENO, TCSANOW, &before_);
        for (std::size_t i = 0; i < std::size(signals); i++)
            sigaction(signals[i], &actions_[i], nullptr);
        if (caught != 0)
            raise(caught);
    }
    quiet_terminal(const quiet_terminal &) = delete;
    quiet_terminal &operator=(const quiet_terminal &) = delete;

  private:
    static constexpr int signals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};
    struct termios before_;
    struct sigaction actions_[std::size(signals)];
};

// Reads byte by byte, so that nothing behind the line is taken away.
void read_line(secret &password)
{
    std::size_t length = 0;
    for (;;) {
        char c;
        const ssize_t got = read(STDIN_FILENO, &c, 1);
        if (got == -1 && errno == EINTR && caught == 0)
            continue;
        if (got == -1)
            throw plain_failure(std::string("<stdin>: ") + strerror(errno));
        if (got == 0 && length == 0)
            throw plain_failure("<stdin>: no password");
        if (got == 0 || c == '\n')
            break;
        if (c == '\0')
            throw plain_failure("<stdin>: a password has no NUL byte");
        if (length == secret::longest)
            throw plain_failure("<stdin>: a password has at most " + std::to_string(secret::longest) +
                                " bytes");
        password.text[length++] = c;
    }
    password.text[length] = '\0';
}

void ask(secret &password, const std::string &prompt)
{
    const quiet_terminal quiet;
    if (write(STDERR_FILENO, prompt.data(), prompt.size()) == -1)
        throw plain_failure(std::string("<stderr>: ") + strerror(errno));
    read_line(password);
}

} // namespace

void read_password(secret &password, bool repeat)
{
    if (!isatty(STDIN_FILENO)) {
        read_line(password);
        return;
    }
    ask(password, "Password: ");
    if (!repeat)
        return;
    secret again;
    ask(again, "Once more: ");
    if (strcmp(password.text, again.text) != 0)
        throw plain_failure("the passwords differ");
}

} // namespace qvl
