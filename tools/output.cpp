#include "output.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include "failure.h"

namespace qvl
{

namespace
{

failure errno_failure(const std::string &name)
{
    return plain_failure(name + ": " + strerror(errno));
}

void write_all(int fd, const std::string &text, const std::string &name)
{
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t wrote = write(fd, text.data() + done, text.size() - done);
        if (wrote == -1 && errno != EINTR)
            throw errno_failure(name);
        if (wrote > 0)
            done += static_cast<std::size_t>(wrote);
    }
}

// Puts off the signals that end a program, so that none leaves a file half-way.
class quiet_section
{
  public:
    quiet_section()
    {
        sigset_t ending;
        sigemptyset(&ending);
        for (const int signal : {SIGHUP, SIGINT, SIGTERM})
            sigaddset(&ending, signal);
        sigprocmask(SIG_BLOCK, &ending, &before_);
    }
    quiet_section(const quiet_section &) = delete;
    quiet_section &operator=(const quiet_section &) = delete;
    ~quiet_section()
    {
        sigprocmask(SIG_SETMASK, &before_, nullptr);
    }

  private:
    sigset_t before_;
};

// A file beside the one that it will replace; gone again unless it got there.
class file_aside
{
  public:
    explicit file_aside(const std::string &target)
        : target_(target), path_(directory_of(target) + "/.qvl-XXXXXX"),
          fd_(mkostemp(path_.data(), O_CLOEXEC))
    {
        if (fd_ == -1)
            throw errno_failure(target_);
    }
    file_aside(const file_aside &) = delete;
    file_aside &operator=(const file_aside &) = delete;
    ~file_aside()
    {
        if (fd_ != -1)
            close(fd_);
        if (!path_.empty())
            unlink(path_.c_str());
    }

    int fd() const
    {
        return fd_;
    }

    // The owner stays too where that is allowed. It comes first: a change of owner may clear mode bits.
    void take_permissions(const struct stat *old)
    {
        if (old != nullptr && fchown(fd_, old->st_uid, old->st_gid) != 0 && errno != EPERM)
            throw errno_failure(target_);
        const mode_t mask = umask(0);
        umask(mask);
        if (fchmod(fd_, old != nullptr ? old->st_mode & 07777 : 0666 & ~mask) != 0)
            throw errno_failure(target_);
    }

    void replace_target()
    {
        if (fsync(fd_) != 0)
            throw errno_failure(target_);
        const int closed = close(fd_);
        fd_ = -1;
        if (closed != 0 || rename(path_.c_str(), target_.c_str()) != 0)
            throw errno_failure(target_);
        path_.clear();
        sync_directory();
    }

  private:
    static std::string directory_of(const std::string &path)
    {
        const std::size_t slash = path.rfind('/');
        if (slash == path.npos)
            return ".";
        return slash == 0 ? "" : path.substr(0, slash);
    }

    // The new name reaches the disk with its directory. Some file systems can't sync one; the file is whole
    // there.
    void sync_directory()
    {
        const int fd = open((directory_of(target_) + "/").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd != -1) {
            fsync(fd);
            close(fd);
        }
    }

    std::string target_, path_;
    int fd_;
};

// Through a symbolic link, the file that it names is replaced and not the link.
std::string resolve(const std::string &path)
{
    const std::unique_ptr<char, void (*)(void *)> real(realpath(path.c_str(), nullptr), free);
    return real ? std::string(real.get()) : path;
}

void write_in_place(const std::string &path, const std::string &text)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
    if (fd == -1)
        throw errno_failure(path);
    try {
        write_all(fd, text, path);
    } catch (...) {
        close(fd);
        throw;
    }
    if (close(fd) != 0)
        throw errno_failure(path);
}

} // namespace

void write_output(const std::string &path, const std::string &text)
{
    if (path.empty() || path == "-") {
        write_all(STDOUT_FILENO, text, "standard output");
        return;
    }
    const std::string target = resolve(path);
    struct stat old;
    const bool exists = stat(target.c_str(), &old) == 0;
    if (!exists && errno != ENOENT)
        throw errno_failure(path);
    if (exists && S_ISDIR(old.st_mode)) {
        errno = EISDIR;
        throw errno_failure(path);
    }
    if (exists && !S_ISREG(old.st_mode)) {
        write_in_place(target, text);
        return;
    }
    if (exists && access(target.c_str(), W_OK) != 0)
        throw errno_failure(path);
    const quiet_section section;
    file_aside aside(target);
    aside.take_permissions(exists ? &old : nullptr);
    write_all(aside.fd(), text, path);
    aside.replace_target();
}

} // namespace qvl
