// Catches what the library logs while it is alive.
#ifndef QVLIB_TESTS_LOG_CAPTURE_H
#define QVLIB_TESTS_LOG_CAPTURE_H

#include <string>
#include <syslog.h>
#include <vector>

#include <gtest/gtest.h>
#include <qvlib/log.h>

class log_capture
{
  public:
    log_capture()
    {
        testing::internal::CaptureStderr();
        qv_log_init("qvlib-test", QV_LOG_DEBUG, LOG_PERROR, LOG_USER, 0);
        testing::internal::GetCapturedStderr(); // a word about /dev/log where there is none
        testing::internal::CaptureStderr();
    }
    ~log_capture()
    {
        if (active_)
            lines();
        qv_log_exit();
    }
    log_capture(const log_capture &) = delete;
    log_capture &operator=(const log_capture &) = delete;

    // Ends the capture; the messages as "LABEL: text".
    std::vector<std::string> lines()
    {
        constexpr size_t time_length = sizeof "Nov 14 22:51:07 " - 1;
        active_ = false;
        const std::string text = testing::internal::GetCapturedStderr();
        std::vector<std::string> found;
        for (size_t start = 0, end; (end = text.find("\r\n", start)) != std::string::npos; start = end + 2)
            found.push_back(text.substr(start + time_length, end - start - time_length));
        return found;
    }

  private:
    bool active_ = true;
};

#endif
