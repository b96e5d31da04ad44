#include "core/log.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <termios.h>
#include <unistd.h>

#include "tests/unit/log_capture.h"

namespace {

TEST(log, writes_lines_up_to_its_level)
{
    static constexpr const char *names[] = {"Emergency", "Alert",       "Critical", "Error", "Warning",
                                            "Notice",    "Information", "Debug",    "Trace"};
    for (int level = DNSPROXY_LOG_EMERGENCY; level <= DNSPROXY_LOG_TRACE; level++) {
        log_capture capture(level);
        for (int line = DNSPROXY_LOG_EMERGENCY; line <= DNSPROXY_LOG_TRACE; line++) {
            if (dnsproxy_log_is_on(static_cast<dnsproxy_log_level>(line)))
                dnsproxy_log_write(static_cast<dnsproxy_log_level>(line), "op", 12, -9001, "text %d", line);
        }
        std::string expected;
        for (int line = DNSPROXY_LOG_EMERGENCY; line <= level; line++)
            expected += "[" + std::string(names[line]) + "][op:0]:(-9001)text " + std::to_string(line) + "\n";
        EXPECT_EQ(capture.text(), expected);
    }
}

TEST(log, a_line_that_is_off_evaluates_nothing)
{
    log_capture capture(DNSPROXY_LOG_DEBUG);
    int evaluated = 0;
    DNSPROXY_LOG(TRACE, "op", 0, "%d", ++evaluated);
    DNSPROXY_LOG(TRACE, "op", ++evaluated, "%s", "");
    EXPECT_EQ(evaluated, 0);
    DNSPROXY_LOG(DEBUG, "op", 0, "%d", ++evaluated);
    EXPECT_EQ(evaluated, 1);
}

TEST(log, long_lines_are_cut_and_still_end)
{
    log_capture capture(DNSPROXY_LOG_TRACE);
    DNSPROXY_LOG(TRACE, std::string(5000, 'o').c_str(), 0, "%s", "");
    DNSPROXY_LOG(TRACE, "op", 0, "%s", std::string(100000, 'x').c_str());
    DNSPROXY_LOG(TRACE, "op", 0, "next");
    const std::string text = capture.text();
    EXPECT_LT(text.size(), 3 * 2048U);
    EXPECT_NE(text.find("\n[Trace][op:0]:(0)next\n"), std::string::npos);
}

bool open_terminal(int fds[2])
{
    termios raw = {};
    fds[0] = posix_openpt(O_RDWR | O_NOCTTY);
    const bool unlocked = fds[0] >= 0 && grantpt(fds[0]) == 0 && unlockpt(fds[0]) == 0;
    fds[1] = unlocked ? open(ptsname(fds[0]), O_RDWR | O_NOCTTY) : -1;
    cfmakeraw(&raw);
    return fds[1] >= 0 && tcsetattr(fds[1], TCSANOW, &raw) == 0;
}

// Standard output replaced by the write end of a pipe or by a terminal.
class output : public testing::TestWithParam<const char *> {
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_TRUE(GetParam() == std::string("pipe") ? pipe(fds_) == 0 : open_terminal(fds_));
        alarm(20); // ends a test that waits
        saved_ = dup(STDOUT_FILENO);
        dup2(fds_[1], STDOUT_FILENO);
        close(fds_[1]);
    }
    void TearDown() override
    {
        alarm(0);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        close(fds_[0]);
    }
    size_t drain() const
    {
        fcntl(fds_[0], F_SETFL, O_NONBLOCK);
        size_t total = 0;
        char buffer[65536];
        for (ssize_t got = 0; (got = read(fds_[0], buffer, sizeof buffer)) > 0;)
            total += static_cast<size_t>(got);
        return total;
    }

    int fds_[2] = {};
    int saved_ = -1;
};

INSTANTIATE_TEST_SUITE_P(to, output, testing::Values("pipe", "terminal"),
                         [](const auto &kind) { return std::string(kind.param); });

TEST_P(output, a_reader_that_stalls_loses_output_and_holds_up_nothing)
{
    const std::string text(1 << 20, 'x');
    dnsproxy_output(text.data(), text.size());
    const size_t got = drain();
    EXPECT_GE(got, 2048U);
    EXPECT_LT(got, text.size());
    dnsproxy_output("after", 5);
    EXPECT_EQ(drain(), 5U) << "and gets what comes when it reads again";
    EXPECT_EQ(fcntl(STDOUT_FILENO, F_GETFL) & O_NONBLOCK, 0) << "the descriptor is other programs' too";
}

TEST_P(output, a_reader_that_has_gone_is_no_signal_and_keeps_errno)
{
    close(fds_[0]);
    errno = ENODEV;
    dnsproxy_output("lost", 4);
    EXPECT_EQ(errno, ENODEV);
}

} // namespace
