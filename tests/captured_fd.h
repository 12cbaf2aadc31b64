// What a test writes to a descriptor, standard error above all, kept in memory to be looked at.
#ifndef QVLIB_TESTS_CAPTURED_FD_H
#define QVLIB_TESTS_CAPTURED_FD_H

#include <cstddef>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

// A file in memory.
class memory_file
{
  public:
    memory_file() : fd_(memfd_create("captured", MFD_CLOEXEC))
    {
    }
    ~memory_file()
    {
        close(fd_);
    }
    memory_file(const memory_file &) = delete;
    memory_file &operator=(const memory_file &) = delete;

    int fd() const
    {
        return fd_;
    }
    // Everything written so far.
    std::string text() const
    {
        std::string all;
        char buffer[4096];
        for (ssize_t n; (n = pread(fd_, buffer, sizeof buffer, static_cast<off_t>(all.size()))) > 0;)
            all.append(buffer, static_cast<size_t>(n));
        return all;
    }
    void clear() const
    {
        if (ftruncate(fd_, 0) != 0 || lseek(fd_, 0, SEEK_SET) != 0)
            abort();
    }

  private:
    int fd_;
};

// Standard error goes to a file in memory until this ends.
class captured_stderr
{
  public:
    captured_stderr() : kept_(dup(STDERR_FILENO))
    {
        dup2(file_.fd(), STDERR_FILENO);
    }
    ~captured_stderr()
    {
        dup2(kept_, STDERR_FILENO);
        close(kept_);
    }
    captured_stderr(const captured_stderr &) = delete;
    captured_stderr &operator=(const captured_stderr &) = delete;

    std::string text() const
    {
        return file_.text();
    }

  private:
    memory_file file_;
    int kept_;
};

#endif
