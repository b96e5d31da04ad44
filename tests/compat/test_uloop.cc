extern "C" {
#include <libubox/uloop.h>
}

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int liveness_ms = 10'000;

using Handler = void (*)(int);

Handler disposition(int number)
{
    struct sigaction action = {};
    EXPECT_EQ(sigaction(number, nullptr, &action), 0);
    return action.sa_handler;
}

void own_handler(int) {}

// What the callbacks of a test have seen, in order.
std::vector<std::string> seen;

struct Timer : uloop_timeout {
    Timer(const char *label, uloop_timeout_handler callback) : uloop_timeout{}, name(label) { cb = callback; }
    const char *name;
};

void note_timer(uloop_timeout *t)
{
    EXPECT_FALSE(t->pending);
    seen.emplace_back(static_cast<Timer *>(t)->name);
}

void end_by_timer(uloop_timeout *)
{
    uloop_end();
}

void fail_by_timer(uloop_timeout *)
{
    ADD_FAILURE() << "nothing ended the loop";
    uloop_end();
}

struct Descriptor : uloop_fd {
    explicit Descriptor(int number = -1) : uloop_fd{} { fd = number; }
};

// All that a callback is told, as text; the bytes of one read with it.
void note_descriptor(uloop_fd *u, unsigned int events)
{
    char bytes[16];
    const ssize_t count = (events & ULOOP_READ) != 0 ? recv(u->fd, bytes, sizeof(bytes), MSG_DONTWAIT) : -1;
    seen.push_back(std::string((events & ULOOP_READ) != 0 ? "read" : "") +
                   ((events & ULOOP_WRITE) != 0 ? "write" : "") + (u->eof ? " eof" : "") +
                   (u->error ? " error" : "") + (u->registered ? " registered" : "") + " " +
                   std::to_string(u->flags) + " [" +
                   std::string(bytes, count > 0 ? static_cast<size_t>(count) : 0) + "]");
    uloop_end();
}

using Seen = std::vector<std::string>;

class uloop : public testing::Test {
protected:
    uloop()
    {
        seen.clear();
        for (const int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
            saved.push_back(signal(number, SIG_DFL));
        EXPECT_EQ(uloop_init(), 0);
    }
    ~uloop() override
    {
        uloop_done();
        uloop_handle_sigchld = true;
        size_t i = 0;
        for (const int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
            signal(number, saved[i++]);
    }

    // Runs until a callback ends the loop.
    static int run()
    {
        Timer guard("guard", fail_by_timer);
        EXPECT_EQ(uloop_timeout_set(&guard, liveness_ms), 0);
        const int result = uloop_run();
        (void)uloop_timeout_cancel(&guard); // no longer pending if it has failed the test
        return result;
    }

    // A connected pair; [0] is the loop's.
    std::array<int, 2> pair()
    {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        return ends;
    }

private:
    std::vector<Handler> saved;
};

} // namespace

TEST_F(uloop, timers_run_in_order_of_time)
{
    Timer third("third", note_timer);
    Timer first("first", note_timer);
    Timer second("second", note_timer);
    Timer moved("moved", note_timer);
    Timer cancelled("cancelled", note_timer);
    Timer silent("silent", nullptr);
    Timer end("end", end_by_timer);
    uloop_timeout_set(&end, 20);
    uloop_timeout_set(&third, 10);
    uloop_timeout_set(&moved, 1);
    uloop_timeout_set(&cancelled, 2);
    uloop_timeout_set(&first, 0);
    uloop_timeout_set(&silent, -1);
    uloop_timeout_set(&second, 5);
    uloop_timeout_set(&moved, 15);
    EXPECT_EQ(uloop_timeout_cancel(&cancelled), 0);
    EXPECT_EQ(uloop_timeout_cancel(&cancelled), -1);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(seen, Seen({"first", "second", "third", "moved"}));
}

// One that is due again at once lets the others, and the descriptors, have their turn.
TEST_F(uloop, timer_that_sets_itself_starves_nobody)
{
    static int runs;
    runs = 0;
    const auto again = [](uloop_timeout *t) {
        ++runs;
        uloop_timeout_set(t, -1000);
    };
    Timer busy("busy", again);
    uloop_timeout_set(&busy, 0);
    const auto ends = pair();
    Descriptor d(ends[0]);
    d.cb = note_descriptor;
    ASSERT_EQ(uloop_fd_add(&d, ULOOP_READ), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(seen, Seen({"read registered 1 [x]"}));
    EXPECT_LE(runs, 1);
    EXPECT_EQ(uloop_timeout_cancel(&busy), 0);
    EXPECT_EQ(uloop_fd_delete(&d), 0);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(uloop, timer_may_free_itself)
{
    const auto drop = [](uloop_timeout *t) {
        delete static_cast<Timer *>(t);
        uloop_end();
    };
    uloop_timeout_set(new Timer("freed", drop), 0);
    EXPECT_EQ(run(), 0);
}

TEST_F(uloop, end_before_the_run_has_no_effect)
{
    uloop_end();
    EXPECT_TRUE(uloop_cancelled);
    Timer timer("ran", note_timer);
    Timer end("end", end_by_timer);
    uloop_timeout_set(&timer, 0);
    uloop_timeout_set(&end, 1);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(seen, Seen({"ran"}));
}

TEST_F(uloop, done_cancels_timers_and_leaves_descriptors)
{
    const auto ends = pair();
    Descriptor d(ends[0]);
    Timer timer("timer", note_timer);
    ASSERT_EQ(uloop_fd_add(&d, ULOOP_READ), 0);
    uloop_timeout_set(&timer, 0);
    EXPECT_EQ(uloop_init(), 0);
    uloop_done();
    EXPECT_FALSE(timer.pending);
    EXPECT_TRUE(d.registered);
    uloop_done();

    Descriptor other(ends[0]);
    EXPECT_EQ(uloop_fd_add(&other, ULOOP_READ), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(uloop_run(), 0);
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(uloop_fd_add(&d, ULOOP_READ), -1);
    EXPECT_EQ(uloop_fd_add(&other, ULOOP_READ), 0);
    EXPECT_EQ(uloop_fd_delete(&other), 0);
    EXPECT_EQ(uloop_fd_delete(&other), 0);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(uloop, callback_is_told_what_happened)
{
    static const struct {
        const char *name;
        unsigned int flags;
        void (*act)(int peer);
        Seen expected;
    } rows[] = {
        {"data",
         ULOOP_READ | ULOOP_BLOCKING,
         [](int peer) { EXPECT_EQ(write(peer, "ab", 2), 2); },
         {"read registered 9 [ab]"}},
        {"room", ULOOP_WRITE, [](int) {}, {"write registered 2 []"}},
        {"half_close", ULOOP_READ, [](int peer) { shutdown(peer, SHUT_WR); }, {"read eof registered 1 []"}},
        {"close", ULOOP_READ, [](int peer) { shutdown(peer, SHUT_RDWR); }, {"read eof error 0 []"}},
        {"data_and_close",
         ULOOP_READ,
         [](int peer) {
             EXPECT_EQ(write(peer, "ab", 2), 2);
             shutdown(peer, SHUT_RDWR);
         },
         {"read eof error 0 [ab]"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        seen.clear();
        const auto ends = pair();
        Descriptor d(ends[0]);
        d.eof = true;
        d.cb = note_descriptor;
        ASSERT_EQ(uloop_fd_add(&d, row.flags), 0);
        EXPECT_FALSE(d.eof);
        EXPECT_EQ((fcntl(d.fd, F_GETFL) & O_NONBLOCK) == 0, (row.flags & ULOOP_BLOCKING) != 0);
        row.act(ends[1]);
        EXPECT_EQ(run(), 0);
        EXPECT_EQ(seen, row.expected);
        EXPECT_EQ(uloop_fd_delete(&d), 0);
        close(ends[0]);
        close(ends[1]);
    }
}

TEST_F(uloop, unread_data_comes_up_again_unless_edge_triggered)
{
    static int calls;
    for (const bool edge : {false, true}) {
        calls = 0;
        const auto ends = pair();
        Descriptor d(ends[0]);
        d.cb = [](uloop_fd *, unsigned int) { ++calls; };
        ASSERT_EQ(uloop_fd_add(&d, ULOOP_READ | (edge ? ULOOP_EDGE_TRIGGER : 0U)), 0);
        ASSERT_EQ(write(ends[1], "x", 1), 1);
        Timer end("end", end_by_timer);
        uloop_timeout_set(&end, 30);
        EXPECT_EQ(run(), 0);
        EXPECT_EQ(calls == 1, edge) << calls;
        EXPECT_EQ(uloop_fd_add(&d, ULOOP_BLOCKING), 0);
        EXPECT_FALSE(d.registered);
        close(ends[0]);
        close(ends[1]);
    }
}

TEST_F(uloop, takes_signals_over_and_gives_them_back)
{
    for (const int number : {SIGINT, SIGTERM, SIGCHLD})
        EXPECT_NE(disposition(number), SIG_DFL) << number;
    EXPECT_EQ(disposition(SIGPIPE), SIG_IGN);
    uloop_done();
    for (const int number : {SIGINT, SIGTERM, SIGCHLD})
        EXPECT_EQ(disposition(number), SIG_DFL) << number;
    EXPECT_EQ(disposition(SIGPIPE), SIG_IGN);

    uloop_handle_sigchld = false;
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(disposition(SIGCHLD), SIG_DFL);
    EXPECT_NE(disposition(SIGTERM), SIG_DFL);
}

TEST_F(uloop, takes_over_a_default_that_was_set_between_two_inits)
{
    signal(SIGTERM, SIG_DFL);
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_NE(disposition(SIGTERM), SIG_DFL);
}

TEST_F(uloop, leaves_dispositions_that_are_not_the_default)
{
    uloop_done();
    for (const Handler handler : {own_handler, SIG_IGN}) {
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
    for (const int number : {SIGINT, SIGTERM}) {
        static int which;
        which = number;
        const auto send = [](uloop_timeout *) { kill(getpid(), which); };
        Timer timer("signal", send);
        uloop_timeout_set(&timer, 1);
        EXPECT_EQ(run(), number);
        EXPECT_TRUE(uloop_cancelled);
    }
    Timer end("end", end_by_timer);
    uloop_timeout_set(&end, 1);
    EXPECT_EQ(run(), 0);
}

TEST_F(uloop, reaps_every_child_unless_told_not_to)
{
    for (const bool reaps : {true, false}) {
        uloop_done();
        uloop_handle_sigchld = reaps;
        ASSERT_EQ(uloop_init(), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0)
            _exit(0);
        // Comes up until the child is gone, or at least a zombie.
        const auto look = [](uloop_timeout *t) {
            siginfo_t info = {};
            const int result = waitid(P_ALL, 0, &info, WEXITED | WNOWAIT | WNOHANG);
            if (result == 0 && (uloop_handle_sigchld || info.si_pid == 0))
                uloop_timeout_set(t, 1);
            else
                uloop_end();
        };
        Timer timer("look", look);
        uloop_timeout_set(&timer, 1);
        EXPECT_EQ(run(), 0);
        const pid_t waited = waitpid(child, nullptr, WNOHANG);
        EXPECT_EQ(waited, reaps ? -1 : child);
    }
}
