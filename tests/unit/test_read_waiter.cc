#include "platform/read_waiter.h"

#include <array>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int at_once = 0;
constexpr int for_ever = -1;

struct pipe_ends {
    pipe_ends()
    {
        int fds[2];
        EXPECT_EQ(pipe(fds), 0);
        read = fds[0];
        write = fds[1];
    }
    void put() const { EXPECT_EQ(::write(write, "x", 1), 1); }

    int read, write;
};

class read_waiter_test : public testing::Test {
protected:
    read_waiter_test() { EXPECT_EQ(read_waiter_open(&waiter_), 0); }
    ~read_waiter_test() override
    {
        read_waiter_close(&waiter_);
        for (const pipe_ends &p : pipes_) {
            close(p.read);
            close(p.write);
        }
    }

    // What is readable of so many descriptors; counted, too.
    std::vector<int> readable(const std::vector<int> &fds, int limit_ms)
    {
        fd_set set;
        FD_ZERO(&set);
        for (const int fd : fds)
            FD_SET(fd, &set);
        const int count = read_waiter_wait(&waiter_, FD_SETSIZE, &set, limit_ms, &alarmed_);
        std::vector<int> found;
        for (int fd = 0; fd < FD_SETSIZE; fd++) {
            if (FD_ISSET(fd, &set))
                found.push_back(fd);
        }
        EXPECT_EQ(count, static_cast<int>(found.size()));
        return found;
    }

    read_waiter waiter_;
    bool alarmed_ = false;
    std::array<pipe_ends, 200> pipes_;
};

using fds = std::vector<int>;

TEST_F(read_waiter_test, reports_all_that_is_readable_of_the_set_and_nothing_else)
{
    fds all;
    for (const pipe_ends &p : pipes_) {
        all.push_back(p.read);
        p.put();
    }
    EXPECT_EQ(readable(all, for_ever), all);
    EXPECT_EQ(readable(all, for_ever), all) << "nothing was read";
    const fds some = {all[3], all[7]};
    EXPECT_EQ(readable(some, for_ever), some);
    EXPECT_EQ(readable({}, at_once), fds{});
    EXPECT_EQ(read_waiter_wait(&waiter_, 0, nullptr, at_once, &alarmed_), 0);
    EXPECT_EQ(readable(all, for_ever), all) << "back in the set";
}

TEST_F(read_waiter_test, another_descriptor_with_the_number_of_a_closed_one_is_watched)
{
    pipe_ends &first = pipes_[0];
    EXPECT_EQ(readable({first.read}, at_once), fds{});
    read_waiter_forget(&waiter_, first.read);
    ASSERT_EQ(dup2(pipes_[1].read, first.read), first.read);
    pipes_[1].put();
    EXPECT_EQ(readable({first.read}, for_ever), fds{first.read});
    read_waiter_forget(&waiter_, pipes_[5].read); // was never watched
}

// A file of the disk cannot be watched, as a socket without memory for it.
TEST_F(read_waiter_test, what_cannot_be_watched_is_tried_again_beside_the_others)
{
    const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(file, 0);
    EXPECT_EQ(readable({file, pipes_[0].read}, for_ever), fds{}) << "it waits with an end";
    pipes_[0].put();
    EXPECT_EQ(readable({file, pipes_[0].read}, for_ever), fds{pipes_[0].read});
    ASSERT_EQ(dup2(pipes_[0].read, file), file);
    EXPECT_EQ(readable({file}, for_ever), fds{file});
    close(file);
}

TEST_F(read_waiter_test, the_alarm_goes_off_once_and_as_it_was_set_last)
{
    constexpr int64_t hour_ns = 3'600'000'000'000;
    read_waiter_set_alarm(&waiter_, hour_ns);
    EXPECT_EQ(readable({}, at_once), fds{});
    EXPECT_FALSE(alarmed_);
    for (const int64_t soon : {int64_t{1}, int64_t{1'000'000}}) {
        read_waiter_set_alarm(&waiter_, soon);
        EXPECT_EQ(readable({}, for_ever), fds{});
        EXPECT_TRUE(alarmed_);
        EXPECT_EQ(readable({}, at_once), fds{});
        EXPECT_FALSE(alarmed_) << "once";
    }
}

} // namespace
