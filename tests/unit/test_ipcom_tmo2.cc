#include "platform/ipcom_tmo2.h"

#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/time.h>
#include <unistd.h>

#include "tests/model/fake_clock.h"

namespace {

// A timer with something to do when it fires. It deletes itself if told to.
struct owner {
    ipcom_tmo2 tmo = {};
    std::function<void()> act = {};
    bool dies = false;
};

int fire(void *arg)
{
    auto *o = static_cast<owner *>(arg);
    const auto act = o->act;
    if (o->dies)
        delete o;
    if (act)
        act();
    return 0;
}

class ipcom_tmo2_test : public testing::Test {
protected:
    ~ipcom_tmo2_test() override { ipcom_tmo2_delete(head_); }

    void arm(owner *o, int64_t ms) { ASSERT_EQ(ipcom_tmo2_request(head_, &o->tmo, fire, o, ms), 0); }

    // One pass that does not wait.
    int pass()
    {
        constexpr timeval at_once = {};
        return ipcom_tmo2_select(head_, 0, nullptr, nullptr, nullptr, &at_once);
    }

    fake_clock clock_;
    ipcom_tmo2_head *head_ = ipcom_tmo2_new();
    std::string fired_;
    owner a_{.act = [this] { fired_ += 'a'; }}, b_{.act = [this] { fired_ += 'b'; }},
        c_{.act = [this] { fired_ += 'c'; }};
};

TEST_F(ipcom_tmo2_test, a_callback_may_free_its_owner_and_cancel_a_neighbour_that_is_due)
{
    auto *mortal = new owner{.dies = true};
    mortal->act = [this] {
        fired_ += 'm';
        ipcom_tmo2_cancel(&b_.tmo);
    };
    arm(mortal, 10);
    arm(&b_, 10);
    arm(&c_, 20);
    fake_clock::advance_ms(20);
    pass();
    EXPECT_EQ(fired_, "mc");
}

TEST_F(ipcom_tmo2_test, what_a_callback_requests_waits_for_the_next_pass)
{
    for (const int64_t length : {int64_t{0}, int64_t{-5}}) {
        fired_.clear();
        a_.act = [this, length] {
            fired_ += 'a';
            arm(&a_, length);
        };
        arm(&a_, length);
        fake_clock::advance_ms(1);
        pass();
        EXPECT_EQ(fired_, "a") << "length " << length;
        fake_clock::advance_ms(1);
        pass();
        EXPECT_EQ(fired_, "aa") << "length " << length;
        ipcom_tmo2_cancel(&a_.tmo);
    }
}

TEST_F(ipcom_tmo2_test, lengths_beyond_any_clock_are_harmless)
{
    arm(&a_, INT64_MAX);
    fake_clock::advance_ms(1'000'000'000);
    pass();
    EXPECT_EQ(fired_, "");
}

TEST_F(ipcom_tmo2_test, a_ready_descriptor_is_reported_beside_due_timers)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    fd_set reads;
    FD_ZERO(&reads);
    FD_SET(fds[0], &reads);
    // Even a callback that keeps asking for the next pass does not hide it.
    a_.act = [this] { arm(&a_, 0); };
    arm(&a_, 0);
    fake_clock::advance_ms(1);
    EXPECT_EQ(ipcom_tmo2_select(head_, fds[0] + 1, &reads, nullptr, nullptr, nullptr), 1);
    EXPECT_TRUE(FD_ISSET(fds[0], &reads));
    close(fds[0]);
    close(fds[1]);
}

int64_t real_clock_ms()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

// With the real clock and nothing else to wake it, select itself waits long enough.
TEST(ipcom_tmo2_real_clock, wakes_for_a_timer_and_returns_zero)
{
    ipcom_tmo2_head *head = ipcom_tmo2_new();
    bool fired = false;
    owner o{.act = [&] { fired = true; }};
    const int64_t begin = real_clock_ms();
    ASSERT_EQ(ipcom_tmo2_request(head, &o.tmo, fire, &o, 20), 0);
    for (int i = 0; i < 3 && !fired; i++)
        EXPECT_EQ(ipcom_tmo2_select(head, 0, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_TRUE(fired);
    EXPECT_GE(real_clock_ms() - begin, 19);
    ipcom_tmo2_delete(head);
}

TEST_F(ipcom_tmo2_test, a_signal_interrupts_the_wait_and_timers_that_are_due_run)
{
    arm(&a_, 10'000);
    a_.act = [this] {
        fired_ += 'a';
        errno = 0;
    };
    struct sigaction handler = {};
    struct sigaction before = {};
    handler.sa_handler = [](int) { fake_clock::advance_ms(10'000); };
    sigaction(SIGALRM, &handler, &before);
    const itimerval soon = {.it_interval = {.tv_sec = 0, .tv_usec = 20000},
                            .it_value = {.tv_sec = 0, .tv_usec = 20000}};
    setitimer(ITIMER_REAL, &soon, nullptr);
    EXPECT_LT(ipcom_tmo2_select(head_, 0, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(fired_, "a");
    constexpr itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &before, nullptr);
}

TEST_F(ipcom_tmo2_test, refuses_to_wait_for_anything_but_reads)
{
    constexpr timeval at_once = {};
    const fd_set none = {};
    EXPECT_EQ(ipcom_tmo2_select(head_, 0, nullptr, &none, nullptr, &at_once), -1);
    EXPECT_EQ(ipcom_tmo2_select(head_, 0, nullptr, nullptr, &none, &at_once), -1);
    EXPECT_EQ(errno, EINVAL);
}

} // namespace
