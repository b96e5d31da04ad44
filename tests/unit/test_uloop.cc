// What the daemon's bus thread asks of the event loop: timers, one descriptor, and signals left alone.
extern "C" {
#include <libubox/uloop.h>
}

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int liveness_ms = 10'000;
constexpr int taken[] = {SIGINT, SIGTERM, SIGCHLD};

using Handler = void (*)(int);
using Seen = std::vector<std::string>;

// What the callbacks of a test have seen, in order; the loop ends when it is as much as expected.
Seen seen;
size_t expectedCount;

void note(const std::string &text)
{
    seen.push_back(text);
    if (seen.size() == expectedCount)
        uloop_end();
}

struct Timer : uloop_timeout {
    explicit Timer(const char *label, uloop_timeout_handler callback = note_timer)
        : uloop_timeout{}, name(label)
    {
        cb = callback;
    }
    static void note_timer(uloop_timeout *t)
    {
        EXPECT_FALSE(t->pending);
        note(static_cast<Timer *>(t)->name);
    }
    const char *name;
};

Handler disposition(int number)
{
    struct sigaction action = {};
    EXPECT_EQ(sigaction(number, nullptr, &action), 0);
    return action.sa_handler;
}

class uloop : public testing::Test {
protected:
    uloop()
    {
        for (const int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
            signal(number, SIG_DFL);
        EXPECT_EQ(uloop_init(), 0);
    }
    ~uloop() override
    {
        uloop_done();
        uloop_handle_sigchld = true;
    }

    static int run_until(const Seen &expected)
    {
        Timer guard("nothing ended the loop", [](uloop_timeout *) { uloop_end(); });
        seen.clear();
        expectedCount = expected.size();
        EXPECT_EQ(uloop_timeout_set(&guard, liveness_ms), 0);
        const int result = uloop_run();
        EXPECT_EQ(uloop_timeout_cancel(&guard), 0) << guard.name;
        EXPECT_EQ(seen, expected);
        return result;
    }
};

} // namespace

TEST_F(uloop, timers_run_in_order_of_time)
{
    Timer third("third"), first("first"), second("second"), moved("moved"), cancelled("cancelled");
    uloop_timeout_set(&third, 10);
    uloop_timeout_set(&moved, 1);
    uloop_timeout_set(&cancelled, 2);
    uloop_timeout_set(&first, -1);
    uloop_timeout_set(&second, 5);
    uloop_timeout_set(&moved, 15);
    EXPECT_EQ(uloop_timeout_cancel(&cancelled), 0);
    EXPECT_EQ(uloop_timeout_cancel(&cancelled), -1);
    EXPECT_EQ(run_until({"first", "second", "third", "moved"}), 0);
}

TEST_F(uloop, callback_is_told_what_happened)
{
    static const struct {
        const char *bytes;
        int end; // of the peer; -1: none
        Seen expected;
    } rows[] = {
        {"ab", -1, {"read registered a", "read registered b"}}, // what is left comes up again
        {"", SHUT_WR, {"read eof registered "}},
        {"", SHUT_RDWR, {"read eof error "}},
        {"a", SHUT_RDWR, {"read eof error a"}},
    };
    for (const unsigned flags : {unsigned{ULOOP_READ}, unsigned{ULOOP_READ | ULOOP_BLOCKING}}) {
        for (const auto &row : rows) {
            int ends[2];
            ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
            uloop_fd d = {};
            d.fd = ends[0];
            d.eof = true;
            d.cb = [](uloop_fd *u, unsigned int events) {
                char byte;
                const ssize_t count = recv(u->fd, &byte, 1, MSG_DONTWAIT);
                note(std::string(events == ULOOP_READ ? "read" : "") + (u->eof ? " eof" : "") +
                     (u->error ? " error" : "") + (u->registered ? " registered " : " ") +
                     std::string(count == 1 ? 1 : 0, byte));
            };
            ASSERT_EQ(uloop_fd_add(&d, flags), 0);
            EXPECT_FALSE(d.eof);
            EXPECT_EQ((fcntl(d.fd, F_GETFL) & O_NONBLOCK) == 0, (flags & ULOOP_BLOCKING) != 0);
            EXPECT_EQ(send(ends[1], row.bytes, strlen(row.bytes), 0),
                      static_cast<ssize_t>(strlen(row.bytes)));
            if (row.end >= 0)
                shutdown(ends[1], row.end);
            EXPECT_EQ(run_until(row.expected), 0);
            EXPECT_EQ(uloop_fd_delete(&d), 0);
            EXPECT_FALSE(d.registered);
            close(ends[0]);
            close(ends[1]);
        }
    }
}

TEST_F(uloop, takes_default_signals_over_and_gives_them_back)
{
    signal(SIGTERM, SIG_DFL); // set between two calls
    ASSERT_EQ(uloop_init(), 0);
    for (const int number : taken)
        EXPECT_NE(disposition(number), SIG_DFL) << number;
    uloop_done();
    for (const int number : taken)
        EXPECT_EQ(disposition(number), SIG_DFL) << number;
    EXPECT_EQ(disposition(SIGPIPE), SIG_IGN) << "for good";

    uloop_handle_sigchld = false;
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(disposition(SIGCHLD), SIG_DFL);
    EXPECT_NE(disposition(SIGTERM), SIG_DFL);
}

TEST_F(uloop, leaves_dispositions_that_are_not_the_default)
{
    uloop_done();
    for (const Handler handler : {Handler{[](int) {}}, SIG_IGN}) {
        for (const int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
            signal(number, handler);
        ASSERT_EQ(uloop_init(), 0);
        for (const int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
            EXPECT_EQ(disposition(number), handler) << number;
        uloop_done();
        for (const int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
            EXPECT_EQ(disposition(number), handler) << number;
    }
}

TEST_F(uloop, signal_ends_the_loop_and_is_its_result)
{
    Timer timer("signal", [](uloop_timeout *) { kill(getpid(), SIGTERM); });
    uloop_timeout_set(&timer, 1);
    EXPECT_EQ(run_until({}), SIGTERM);
    Timer end("the next run");
    uloop_timeout_set(&end, 1);
    EXPECT_EQ(run_until({end.name}), 0);
}
