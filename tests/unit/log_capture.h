// Collects what the daemon's code writes to standard output, with the log at a chosen level.
#ifndef TESTS_LOG_CAPTURE_H
#define TESTS_LOG_CAPTURE_H

#include <gtest/gtest.h>
#include <string>

#include "core/dnsproxy_data.h"
#include "core/log.h"

class log_capture {
public:
    explicit log_capture(int level = DNSPROXY_LOG_TRACE) : before_(dnsproxy_data.logLevel)
    {
        dnsproxy_data.logLevel = level;
        testing::internal::CaptureStdout();
    }
    ~log_capture()
    {
        if (!taken_)
            (void)text();
    }
    log_capture(const log_capture &) = delete;
    log_capture &operator=(const log_capture &) = delete;

    // Ends the capture. Source line numbers read 0, so that tests can quote whole lines.
    std::string text()
    {
        taken_ = true;
        dnsproxy_data.logLevel = before_;
        std::string text = testing::internal::GetCapturedStdout();
        for (size_t at = 0; (at = text.find("][", at)) != std::string::npos; at++) {
            const size_t number = text.find_first_of(":]\n", at + 1);
            const size_t end =
                number == std::string::npos ? number : text.find_first_not_of("0123456789", number + 1);
            if (end != std::string::npos && text[number] == ':' && text[end] == ']')
                text.replace(number + 1, end - number - 1, "0");
        }
        return text;
    }

private:
    int before_;
    bool taken_ = false;
};

#endif
