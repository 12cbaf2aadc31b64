// The terminal's echo is off for the length of one line. A signal that would end the program meanwhile is
// noted, the echo brought back, and the signal raised anew. Signals are let through only in the wait for the
// line, which they end even when they came before it.
#include "password.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
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
        if (tcgetattr(STDIN_FILENO, &modes_) != 0)
            throw plain_failure(std::string("<stdin>: ") + strerror(errno));
        sigset_t held;
        sigemptyset(&held);
        sigaddset(&held, SIGTSTP); // the terminal would stay quiet while the program is stopped
        for (const int signal : ending)
            sigaddset(&held, signal);
        sigprocmask(SIG_BLOCK, &held, &mask_);
        struct sigaction note = {};
        note.sa_handler = note_signal;
        for (std::size_t i = 0; i < std::size(ending); i++)
            sigaction(ending[i], &note, &actions_[i]);
        caught = 0;

        struct termios quiet = modes_;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        quiet.c_lflag |= ECHONL;
        if (tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) != 0) {
            const int cause = errno;
            give_signals_back();
            throw plain_failure(std::string("<stdin>: the echo can't be turned off: ") + strerror(cause));
        }
    }
    ~quiet_terminal()
    {
        tcsetattr(STDIN_FILENO, TCSANOW, &modes_);
        give_signals_back();
    }
    quiet_terminal(const quiet_terminal &) = delete;
    quiet_terminal &operator=(const quiet_terminal &) = delete;

    void wait_for_line() const
    {
        sigset_t waiting = mask_;
        sigaddset(&waiting, SIGTSTP);
        struct pollfd terminal = {STDIN_FILENO, POLLIN, 0};
        while (ppoll(&terminal, 1, nullptr, &waiting) == -1) {
            if (errno != EINTR || caught != 0)
                throw plain_failure(std::string("<stdin>: ") + strerror(errno));
        }
    }

  private:
    static constexpr int ending[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

    void give_signals_back() const
    {
        for (std::size_t i = 0; i < std::size(ending); i++)
            sigaction(ending[i], &actions_[i], nullptr);
        if (caught != 0)
            raise(caught);
        sigprocmask(SIG_SETMASK, &mask_, nullptr);
    }

    sigset_t mask_;
    struct termios modes_;
    struct sigaction actions_[std::size(ending)];
};

// Reads byte by byte, so that nothing behind the line is taken away.
void read_line(secret &password)
{
    std::size_t length = 0;
    for (;;) {
        char c;
        const ssize_t got = read(STDIN_FILENO, &c, 1);
        if (got == -1 && errno == EINTR)
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
    quiet.wait_for_line();
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
