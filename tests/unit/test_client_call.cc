// The client call against a scripted daemon. Linked with --wrap for poll, write and getrandom.

#include <dnsproxy/client.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/qxcom_nmpipe.h"
#include "tests/model/sandbox.h"

namespace fs = std::filesystem;
using namespace std::string_literals;

namespace {

[[maybe_unused]] const bool in_sandbox = require_sandbox();

constexpr int full_wait_ms = 10000;

std::atomic<int> patience_ms = full_wait_ms; // real time that a wait of the library may take
std::atomic<int> longest_wait_ms;            // that it asked for
thread_local std::function<void()> before_write;
thread_local std::deque<uint32_t> scripted_numbers;

} // namespace

extern "C" {

int __real_poll(pollfd *fds, nfds_t count, int timeout);
ssize_t __real_write(int fd, const void *buffer, size_t length);
ssize_t __real_getrandom(void *buffer, size_t length, unsigned flags);

int __wrap_poll(pollfd *fds, nfds_t count, int timeout)
{
    longest_wait_ms = std::max(longest_wait_ms.load(), timeout);
    return __real_poll(fds, count, std::min(timeout, patience_ms.load()));
}

ssize_t __wrap_write(int fd, const void *buffer, size_t length)
{
    if (before_write)
        std::exchange(before_write, nullptr)();
    return __real_write(fd, buffer, length);
}

ssize_t __wrap_getrandom(void *buffer, size_t length, unsigned flags)
{
    if (scripted_numbers.empty() || length != sizeof(uint32_t))
        return __real_getrandom(buffer, length, flags);
    memcpy(buffer, &scripted_numbers.front(), length);
    scripted_numbers.pop_front();
    return static_cast<ssize_t>(length);
}

// A length without end is refused, as it is without the sanitizer.
[[gnu::visibility("default")]] const char *__asan_default_options()
{
    return "allocator_may_return_null=1";
}
[[gnu::visibility("default")]] const char *__tsan_default_options()
{
    return "allocator_may_return_null=1";
}

} // extern "C"

namespace {

const fs::path folder = "/var/run/nmpipe";
const std::string request_name = "dnsproxypublicrecvpipe";

using messages = std::vector<std::string>;

std::string bytes(const dnsproxy_public_msg &msg)
{
    return {reinterpret_cast<const char *>(&msg), sizeof msg};
}

// Answers each request with the messages that the script gives for it, until it is destroyed.
class fake_daemon {
public:
    using script = std::function<messages(const dnsproxy_public_msg &)>;

    explicit fake_daemon(script answer) : answer_(std::move(answer))
    {
        EXPECT_GE(qxcom_nmpipe_create(request_name.c_str(), 200, 240), 0);
        fd_ = qxcom_nmpipe_open(request_name.c_str(), NMPIPE_READWRITE, 0);
        EXPECT_GE(fd_, 0);
        thread_ = std::thread([this] { run(); });
    }
    ~fake_daemon()
    {
        const uint64_t one = 1;
        EXPECT_EQ(__real_write(stop_, &one, sizeof one), ssize_t{sizeof one});
        thread_.join();
        close(stop_);
        qxcom_nmpipe_close(fd_);
        qxcom_nmpipe_delete(request_name.c_str());
    }
    fake_daemon(const fake_daemon &) = delete;
    fake_daemon &operator=(const fake_daemon &) = delete;

private:
    void run()
    {
        sigset_t sigpipe;
        sigemptyset(&sigpipe);
        sigaddset(&sigpipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);
        pollfd ready[] = {{fd_, POLLIN, 0}, {stop_, POLLIN, 0}};
        for (;;) {
            __real_poll(ready, 2, -1);
            if (ready[1].revents != 0)
                return;
            dnsproxy_public_msg msg;
            ASSERT_EQ(qxcom_nmpipe_read(fd_, &msg, sizeof msg), ssize_t{sizeof msg});
            const int reply = qxcom_nmpipe_open(msg.pipeName, NMPIPE_WRITE, 0);
            ASSERT_GE(reply, 0) << msg.pipeName;
            // A client that has read enough may be gone before the last message.
            for (const std::string &message : answer_(msg))
                (void)!qxcom_nmpipe_write(reply, message.data(), message.size());
            qxcom_nmpipe_close(reply);
        }
    }

    script answer_;
    int fd_;
    int stop_ = eventfd(0, EFD_CLOEXEC);
    std::thread thread_;
};

std::vector<std::string> pipes()
{
    std::vector<std::string> names;
    std::error_code missing;
    for (const auto &entry : fs::directory_iterator(folder, missing))
        names.push_back(entry.path().filename());
    return names;
}

size_t open_descriptors()
{
    return static_cast<size_t>(
        std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

// A request with something in every byte.
dnsproxy_public_msg filled(uint32_t op)
{
    dnsproxy_public_msg msg;
    memset(&msg, 0x5a, sizeof msg);
    msg.op = op;
    return msg;
}

// Makes the call, which must fail and leave of the message all but the name of the reply pipe.
void expect_failure(uint32_t op, int status)
{
    dnsproxy_public_msg msg = filled(op), expected = msg;
    EXPECT_EQ(dnsproxy_public_dnsServer(&msg), status);
    if (strncmp(msg.pipeName, "dnsp_", 5) == 0)
        memcpy(expected.pipeName, msg.pipeName, strlen(msg.pipeName) + 1);
    EXPECT_EQ(bytes(msg), bytes(expected));
}

messages done(dnsproxy_public_msg msg)
{
    msg.result = 0;
    return {bytes(msg)};
}

class client_call : public testing::Test {
protected:
    void SetUp() override
    {
        fs::remove_all(folder);
        patience_ms = full_wait_ms;
        longest_wait_ms = 0;
        descriptors_ = open_descriptors();
    }
    void TearDown() override
    {
        EXPECT_EQ(open_descriptors(), descriptors_);
        EXPECT_LE(longest_wait_ms, full_wait_ms);
        for (const std::string &name : pipes())
            EXPECT_FALSE(name.starts_with("dnsp_")) << name;
    }

private:
    size_t descriptors_ = 0;
};

TEST_F(client_call, without_daemon_fails_at_once)
{
    for (const bool killed : {false, true}) { // whose pipe is left behind
        if (killed) {
            ASSERT_TRUE(fs::create_directory(folder));
            ASSERT_EQ(mkfifo((folder / request_name).c_str(), 0600), 0);
        }
        int fd = 77;
        expect_failure(DNSPROXY_DNS_SERVER_GETIFS, DNSPROXY_ERESOURCE);
        EXPECT_EQ(dnsproxy_public_pipeOpen(&fd), DNSPROXY_ERESOURCE);
        EXPECT_EQ(fd, -1);
    }
    EXPECT_EQ(longest_wait_ms, 0);
    EXPECT_EQ(dnsproxy_public_dnsServer(nullptr), DNSPROXY_EINVALID);
    EXPECT_EQ(dnsproxy_public_pipeOpen(nullptr), DNSPROXY_EINVALID);
    EXPECT_EQ(dnsproxy_public_getDnsServerAll(), 0);
}

TEST_F(client_call, list_of_any_length_arrives_whole)
{
    for (const uint32_t op : {DNSPROXY_DNS_SERVER_GETADDRS, DNSPROXY_DNS_SERVER_GETIFS}) {
        for (const size_t length : {0U, 1U, 4095U, 4096U, 4097U, 40000U}) {
            std::string list(length, '\0');
            for (size_t i = 0; i < length; i++)
                list[i] = static_cast<char>(i * 7 / 5);
            const fake_daemon daemon([&](dnsproxy_public_msg msg) {
                msg.count = 5;
                msg.dataLen = length;
                msg.data = 0xdead;
                return messages{done(msg)[0], list};
            });
            dnsproxy_public_msg msg = filled(op);
            ASSERT_EQ(dnsproxy_public_dnsServer(&msg), 0) << length;
            EXPECT_EQ(msg.dataLen, length);
            EXPECT_EQ(msg.count, 5U);
            auto *data = reinterpret_cast<char *>(msg.data);
            ASSERT_EQ(data == nullptr, length == 0);
            EXPECT_EQ(std::string(data, length), list) << length;
            free(data);
        }
    }
}

TEST_F(client_call, bad_reply_leaves_the_message_as_it_was)
{
    static const struct {
        const char *what;
        uint64_t length;  // that the reply tells
        messages replies; // "" stands for the reply itself
        int result = DNSPROXY_ERESOURCE, told = 0;
    } rows[] = {
        {"nothing", 0, {}},
        {"short", 0, {std::string(239, 0)}},
        {"one byte too long", 0, {std::string(241, 0)}},
        {"longest message", 0, {std::string(4096, 0)}},
        {"refusal with a list", 16, {"", std::string(16, 'x')}, DNSPROXY_EINVALID, DNSPROXY_EINVALID},
        {"no list", 32, {""}},
        {"short list", 32, {"", std::string(31, 'x')}},
        {"long list", 32, {"", std::string(33, 'x')}},
        {"list without its second part", 5000, {"", std::string(4096, 'x')}},
        {"list in other parts", 5000, {"", std::string(2500, 'x'), std::string(2500, 'x')}},
        {"list without end", uint64_t{1} << 62, {""}, DNSPROXY_ENOMEMORY},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const fake_daemon daemon([&](dnsproxy_public_msg msg) {
            msg.result = row.told;
            msg.dns = 11;
            msg.dataLen = row.length;
            messages replies = row.replies;
            std::replace(replies.begin(), replies.end(), ""s, bytes(msg));
            return replies;
        });
        patience_ms = 50;
        expect_failure(DNSPROXY_DNS_SERVER_GETIFS, row.result);
        EXPECT_EQ(pipes(), std::vector{request_name});
    }
}

std::atomic<int> sigpipes;

bool is_sigpipe_pending()
{
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

// The daemon ends between the opening of its pipe and the request.
void call_while_daemon_ends()
{
    EXPECT_GE(qxcom_nmpipe_create(request_name.c_str(), 200, 240), 0);
    before_write = [] { qxcom_nmpipe_delete(request_name.c_str()); };
    expect_failure(DNSPROXY_DNS_SERVER_GET, DNSPROXY_ERESOURCE);
}

TEST_F(client_call, sigpipe_does_not_reach_the_caller)
{
    const auto before = signal(SIGPIPE, [](int) { sigpipes++; });
    sigset_t mask;
    call_while_daemon_ends();
    EXPECT_EQ(sigpipes, 0);
    EXPECT_FALSE(is_sigpipe_pending());
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGPIPE), 0);

    // One that was waiting for the caller still is, and goes to the caller.
    sigaddset(&mask, SIGPIPE);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    raise(SIGPIPE);
    call_while_daemon_ends();
    EXPECT_EQ(sigpipes, 0);
    EXPECT_TRUE(is_sigpipe_pending());
    sigdelset(&mask, SIGPIPE);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    EXPECT_EQ(sigpipes, 1);
    signal(SIGPIPE, before);
}

TEST_F(client_call, draws_another_name_when_one_is_taken)
{
    const fake_daemon daemon(done);
    const fs::path taken = folder / "dnsp_4294967295";
    ASSERT_EQ(mkfifo(taken.c_str(), 0600), 0);

    scripted_numbers = {0xffffffff, 0xffffffff, 0};
    dnsproxy_public_msg msg = filled(DNSPROXY_DNS_SERVER_GET);
    srandom(1);
    const long first = random();
    srandom(1);
    EXPECT_EQ(dnsproxy_public_dnsServer(&msg), 0);
    EXPECT_STREQ(msg.pipeName, "dnsp_0");
    EXPECT_EQ(random(), first) << "the caller's own random sequence goes on";

    scripted_numbers.assign(1000, 0xffffffff);
    EXPECT_EQ(dnsproxy_public_dnsServer(&msg), DNSPROXY_ERESOURCE);
    EXPECT_FALSE(scripted_numbers.empty()) << "the search for a name has no end";
    scripted_numbers.clear();
    EXPECT_TRUE(fs::remove(taken)) << "another client's pipe was removed";
}

} // namespace
