// What the library logs while a test runs, without times.
#ifndef QVLIB_TESTS_LOG_LINES_H
#define QVLIB_TESTS_LOG_LINES_H

#include <string>
#include <syslog.h>
#include <vector>

#include <gtest/gtest.h>
#include <qvlib/log.h>

// Collects the lines that are logged while it lives, as "LEVEL: message".
class log_lines
{
  public:
    log_lines()
    {
        testing::internal::CaptureStderr();
        qv_log_init("test", 7, LOG_PERROR, LOG_USER, 0);
    }
    ~log_lines()
    {
        if (!taken_)
            take();
    }
    log_lines(const log_lines &) = delete;
    log_lines &operator=(const log_lines &) = delete;

    std::vector<std::string> take()
    {
        taken_ = true;
        qv_log_exit();
        const std::string text = testing::internal::GetCapturedStderr();
        std::vector<std::string> lines;
        for (size_t start = 0, end; (end = text.find("\r\n", start)) != std::string::npos; start = end + 2) {
            const std::string line = text.substr(start, end - start);
            const size_t notice = line.rfind("stat(\"/dev/log\")", 0) == 0 ? line.find('\n') + 1 : 0;
            lines.push_back(line.substr(notice + sizeof "Nov 14 22:51:07 " - 1));
        }
        return lines;
    }

  private:
    bool taken_ = false;
};

using lines = std::vector<std::string>;

#endif
