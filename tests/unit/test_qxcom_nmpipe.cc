#include "platform/qxcom_nmpipe.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <numeric>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

static long page_size; // 0: the machine's

extern "C" long __real_sysconf(int name);
extern "C" long __wrap_sysconf(int name)
{
    return name == _SC_PAGESIZE && page_size != 0 ? page_size : __real_sysconf(name);
}

namespace {

constexpr char path[] = "/var/run/nmpipe/test";

class nmpipe : public testing::Test {
protected:
    void SetUp() override { signal(SIGPIPE, SIG_IGN); }
    void TearDown() override
    {
        for (const int fd : fds_)
            qxcom_nmpipe_close(fd);
        qxcom_nmpipe_delete("test");
        unlink(path);
    }

    void create(int capacity = 20) { ASSERT_GE(qxcom_nmpipe_create("test", capacity, 240), 0); }

    int open_end(int mode)
    {
        const int fd = qxcom_nmpipe_open("test", mode, 0);
        EXPECT_GE(fd, 0) << strerror(errno);
        fds_.push_back(fd);
        return fd;
    }

    std::vector<int> fds_;
};

std::string message(size_t length, char fill = 'm')
{
    return std::string(length, fill);
}

ptrdiff_t put(int fd, const std::string &text)
{
    return qxcom_nmpipe_write(fd, text.data(), text.size());
}

TEST_F(nmpipe, a_message_waits_for_a_reader_that_opens_later)
{
    create();
    const int writer = open_end(NMPIPE_WRITE);
    EXPECT_EQ(put(writer, message(240, 'a')), 240);
    EXPECT_EQ(put(writer, message(100, 'b')), 100);
    qxcom_nmpipe_close(writer);
    fds_.clear();
    const int reader = open_end(NMPIPE_READ);
    std::string got(240, '\0');
    EXPECT_EQ(qxcom_nmpipe_read(reader, got.data(), 240), 240);
    EXPECT_EQ(got, message(240, 'a'));
    EXPECT_EQ(qxcom_nmpipe_read(reader, got.data(), 240), 100) << "boundaries are kept";
}

TEST_F(nmpipe, long_blocks_are_collected_by_one_read)
{
    create();
    const int writer = open_end(NMPIPE_WRITE);
    const int reader = open_end(NMPIPE_READ);
    for (const size_t length : {4096U, 4097U, 8192U, 20000U}) {
        std::string block(length, '\0'), got(length, 'x');
        std::iota(block.begin(), block.end(), '\0');
        ASSERT_EQ(put(writer, block), static_cast<ptrdiff_t>(length));
        EXPECT_EQ(qxcom_nmpipe_read(reader, got.data(), length), static_cast<ptrdiff_t>(length));
        EXPECT_EQ(got, block);
    }
}

TEST_F(nmpipe, a_full_pipe_is_a_short_write_at_once)
{
    create(4);
    const int writer = open_end(NMPIPE_WRITE);
    int whole = 0;
    while (put(writer, message(240)) == 240)
        ASSERT_LT(++whole, 100);
    EXPECT_GE(whole, 4);
    EXPECT_EQ(put(writer, message(240)), -1);
    const int reader = open_end(NMPIPE_READWRITE);
    char got[240];
    EXPECT_EQ(qxcom_nmpipe_read(reader, got, 240), 240);
    EXPECT_EQ(put(writer, message(5000)), 4096) << "room for one message of the two";
}

TEST_F(nmpipe, without_a_pipe_or_a_reader_an_open_for_writing_fails_at_once)
{
    EXPECT_LT(qxcom_nmpipe_open("test", NMPIPE_WRITE, 0), 0);
    create();
    const int orphan = open(path, O_RDONLY | O_NONBLOCK); // keeps the FIFO in place only
    qxcom_nmpipe_delete("test");
    EXPECT_LT(qxcom_nmpipe_open("test", NMPIPE_WRITE, 0), 0);
    close(orphan);
    ASSERT_EQ(mkfifo(path, 0600), 0);
    EXPECT_LT(qxcom_nmpipe_open("test", NMPIPE_WRITE, 0), 0);
    EXPECT_EQ(errno, ENXIO);
}

TEST_F(nmpipe, a_pipe_is_its_creators_until_that_process_ends)
{
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t creator = fork();
    if (creator == 0) {
        const int created = qxcom_nmpipe_create("test", 20, 240);
        const int fd = qxcom_nmpipe_open("test", NMPIPE_WRITE, 0);
        (void)!qxcom_nmpipe_write(fd, "stale", 5);
        (void)!write(ready[1], "x", created < 0 ? 0 : 1);
        close(ready[1]);
        for (;;)
            pause();
    }
    close(ready[1]);
    char got[240];
    ASSERT_EQ(read(ready[0], got, 1), 1);
    close(ready[0]);
    EXPECT_LT(qxcom_nmpipe_create("test", 20, 240), 0);
    EXPECT_EQ(errno, EWOULDBLOCK);
    qxcom_nmpipe_delete("test");
    EXPECT_EQ(put(open_end(NMPIPE_WRITE), message(240)), 240) << "the name is still the creator's pipe";
    qxcom_nmpipe_close(fds_.back());
    fds_.clear();

    kill(creator, SIGKILL);
    ASSERT_EQ(waitpid(creator, nullptr, 0), creator);
    EXPECT_LT(qxcom_nmpipe_create_new("test", 20, 240), 0);
    EXPECT_EQ(errno, EEXIST);
    create();
    EXPECT_EQ(qxcom_nmpipe_read(open_end(NMPIPE_READWRITE), got, 240), -1) << "without its messages";
}

TEST_F(nmpipe, a_creation_that_fails_leaves_no_name)
{
    create(); // makes the folder
    qxcom_nmpipe_delete("test");
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const int next = dup(STDIN_FILENO);
    close(next);
    // Enough descriptors for the folder alone.
    const rlimit one_more = {.rlim_cur = static_cast<rlim_t>(next) + 1, .rlim_max = before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &one_more), 0);
    EXPECT_LT(qxcom_nmpipe_create("test", 20, 240), 0);
    EXPECT_EQ(errno, EMFILE);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_NE(access(path, F_OK), 0);
}

TEST_F(nmpipe, a_slot_is_a_page)
{
    page_size = 16384;
    create(20);
    page_size = 0;
    EXPECT_GE(fcntl(open_end(NMPIPE_READWRITE), F_GETPIPE_SZ), 20 * 16384);
}

TEST_F(nmpipe, names_stay_in_the_folder_and_files_of_others_are_refused)
{
    const std::string longest(99, 'n');
    const std::string too_long(100, 'n');
    for (const char *name :
         {"", ".", "..", ".hidden", "../test", "a/b", "/test", "a b", "a\nb", "a*", too_long.c_str()}) {
        EXPECT_LT(qxcom_nmpipe_create(name, 20, 240), 0) << name;
        EXPECT_LT(qxcom_nmpipe_open(name, NMPIPE_WRITE, 0), 0) << name;
        qxcom_nmpipe_delete(name);
    }
    EXPECT_LT(qxcom_nmpipe_create(nullptr, 20, 240), 0);
    EXPECT_GE(qxcom_nmpipe_create(longest.c_str(), 20, 240), 0);
    qxcom_nmpipe_delete(longest.c_str());
    for (const auto &[capacity, largest] : {std::pair{0, 240}, {20, 0}})
        EXPECT_LT(qxcom_nmpipe_create("test", capacity, largest), 0) << capacity;
    EXPECT_GE(qxcom_nmpipe_create("test", 1, 1), 0);
    for (const int mode : {-1, 3})
        EXPECT_LT(qxcom_nmpipe_open("test", mode, 0), 0) << mode;
    qxcom_nmpipe_delete("test");

    const int file = open(path, O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(file, 0);
    close(file);
    EXPECT_LT(qxcom_nmpipe_create("test", 20, 240), 0);
    EXPECT_LT(qxcom_nmpipe_open("test", NMPIPE_READWRITE, 0), 0);
    qxcom_nmpipe_delete("test");
    EXPECT_EQ(access(path, F_OK), 0) << "a file that is no pipe stays";
    ASSERT_EQ(unlink(path), 0);

    ASSERT_EQ(mkfifo(path, 0600), 0);
    ASSERT_EQ(chown(path, 12345, 0), 0);
    EXPECT_LT(qxcom_nmpipe_create("test", 20, 240), 0) << "another owner's";
    ASSERT_EQ(unlink(path), 0);
    ASSERT_EQ(symlink("/var/run/nmpipe/elsewhere", path), 0);
    EXPECT_LT(qxcom_nmpipe_create("test", 20, 240), 0) << "a link";
}

TEST_F(nmpipe, files_are_private_and_close_on_exec)
{
    create();
    struct stat st = {};
    ASSERT_EQ(stat("/var/run/nmpipe", &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700U);
    ASSERT_EQ(stat(path, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600U);
    EXPECT_NE(fcntl(open_end(NMPIPE_READ), F_GETFD) & FD_CLOEXEC, 0);
}

} // namespace
