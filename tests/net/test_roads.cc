// The request and reply paths over loopback sockets: what each failure says and leaves behind.

#include <algorithm>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "core/status.h"
#include "forward/reply.h"
#include "forward/request.h"
#include "tests/support/daemon_state.h"
#include "tests/support/log_capture.h"

namespace {

struct v4 {
    static constexpr int af = AF_INET;
    static constexpr auto listen_fd = &dnsproxy_data::listenFd;
    static constexpr auto server_fd = &dnsproxy_server_if::serverFd;
    static constexpr auto list = &dnsproxy_data::cacheList;
    static constexpr int pktinfo[] = {IPPROTO_IP, IP_PKTINFO};
    static constexpr auto receive = dnsproxy_listen_socket_recv;
    static constexpr char loopback[] = "127.0.0.1", server[] = "127.0.0.53";
    static constexpr char unreachable[] = "255.255.255.255"; // refused without SO_BROADCAST
    static constexpr char op[] = "dnsproxy_listen_socket_recv";

    static socklen_t address(const char *text, uint16_t port, sockaddr_storage *out)
    {
        auto *a = reinterpret_cast<sockaddr_in *>(out);
        a->sin_family = AF_INET;
        a->sin_port = htons(port);
        return inet_pton(AF_INET, text, &a->sin_addr) == 1 ? sizeof *a : 0;
    }
    static void set_server(dnsproxy_server_if *sif, const char *text)
    {
        sif->dnsServer[0] = *text == '\0' ? 0 : inet_addr(text);
    }
    static void set_host(const char *text)
    {
        ipcom_first<dnsproxy_cache_entry>(dnsproxy_data.cacheList)->from = inet_addr(text);
    }
    static uint64_t flags() { return ipcom_first<dnsproxy_cache_entry>(dnsproxy_data.cacheList)->flags; }
};

struct v6 {
    static constexpr int af = AF_INET6;
    static constexpr auto listen_fd = &dnsproxy_data::listenFd6;
    static constexpr auto server_fd = &dnsproxy_server_if::serverFd6;
    static constexpr auto list = &dnsproxy_data::cacheList6;
    static constexpr int pktinfo[] = {IPPROTO_IPV6, IPV6_RECVPKTINFO};
    static constexpr auto receive = dnsproxy_listen_socket_recv_v6;
    static constexpr char loopback[] = "::1", server[] = "::1";
    static constexpr char unreachable[] = "fe80::1"; // no scope
    static constexpr char op[] = "dnsproxy_listen_socket_recv_v6";

    static socklen_t address(const char *text, uint16_t port, sockaddr_storage *out)
    {
        auto *a = reinterpret_cast<sockaddr_in6 *>(out);
        a->sin6_family = AF_INET6;
        a->sin6_port = htons(port);
        return inet_pton(AF_INET6, text, &a->sin6_addr) == 1 ? sizeof *a : 0;
    }
    static void set_server(dnsproxy_server_if *sif, const char *text)
    {
        sif->dnsServer6[0] = {};
        (void)inet_pton(AF_INET6, *text == '\0' ? "::" : text, &sif->dnsServer6[0].sin6_addr);
    }
    static void set_host(const char *text)
    {
        auto *entry = ipcom_first<dnsproxy_cache_entry_v6>(dnsproxy_data.cacheList6);
        (void)inet_pton(AF_INET6, text, &entry->from6);
    }
    static uint64_t flags() { return ipcom_first<dnsproxy_cache_entry_v6>(dnsproxy_data.cacheList6)->flags; }
};

using bytes = std::vector<uint8_t>;

bytes message(uint16_t id, bool response, size_t length = 12)
{
    bytes m(length, 0);
    if (length > 1) {
        m[0] = static_cast<uint8_t>(id >> 8);
        m[1] = static_cast<uint8_t>(id);
    }
    if (length > 2)
        m[2] = response ? 0x80 : 0x01;
    return m;
}

uint16_t id_of(const bytes &m)
{
    return static_cast<uint16_t>(m.at(0) << 8 | m.at(1));
}

// A host, the daemon's two sockets and an upstream server, all on loopback. The listen socket has a port of
// its own, since the server has port 53; the upstream socket stands open as if it had been tied to "wan1".
template <class F> class roads : public daemon_state {
protected:
    roads()
    {
        signal(SIGPIPE, SIG_IGN);
        dnsproxy_data.ifNameIndex = list_;
        dnsproxy_data.listenFd = dnsproxy_data.listenFd6 = -1;
        dnsproxy_data.*F::listen_fd = open_socket(F::loopback, 0);
        const int on = 1;
        EXPECT_EQ(setsockopt(dnsproxy_data.*F::listen_fd, F::pktinfo[0], F::pktinfo[1], &on, sizeof on), 0);
        host_ = open_socket(F::loopback, 0);
        server_ = open_socket(F::server, 53);
        wan1_ = add_server_if("wan1", "", "");
        F::set_server(wan1_, F::server);
        wan1_->*F::server_fd = open_socket(F::loopback, 0);
    }

    ~roads() override
    {
        for (const int fd : fds_)
            close(fd);
        if (wan1_->*F::server_fd > 0 && std::count(fds_.begin(), fds_.end(), wan1_->*F::server_fd) != 0)
            wan1_->*F::server_fd = -1;
        dnsproxy_data.ifNameIndex = nullptr;
    }

    int open_socket(const char *address, uint16_t port)
    {
        sockaddr_storage a = {};
        const socklen_t length = F::address(address, port, &a);
        const int fd = socket(F::af, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&a), length), 0) << address << " " << strerror(errno);
        fds_.push_back(fd);
        return fd;
    }

    static void send_to_socket(int from, int to, const bytes &m)
    {
        sockaddr_storage a = {};
        socklen_t length = sizeof a;
        ASSERT_EQ(getsockname(to, reinterpret_cast<sockaddr *>(&a), &length), 0);
        ASSERT_EQ(sendto(from, m.data(), m.size(), 0, reinterpret_cast<sockaddr *>(&a), length),
                  static_cast<ssize_t>(m.size()));
    }

    static bytes received(int fd)
    {
        bytes m(65536);
        const ssize_t got = recv(fd, m.data(), m.size(), MSG_DONTWAIT);
        m.resize(got < 0 ? 0 : static_cast<size_t>(got));
        return m;
    }

    int ask(uint16_t id, size_t length = 12)
    {
        send_to_socket(host_, dnsproxy_data.*F::listen_fd, message(id, false, length));
        return F::receive();
    }

    // Lets the daemon read one reply; the log of it.
    std::string answer(const bytes &m, int level = DNSPROXY_LOG_DEBUG)
    {
        send_to_socket(server_, wan1_->*F::server_fd, m);
        return read_replies(level);
    }

    std::string read_replies(int level = DNSPROXY_LOG_DEBUG)
    {
        fd_set ready;
        FD_ZERO(&ready);
        FD_SET(wan1_->*F::server_fd, &ready);
        int count = 1;
        log_capture capture(level);
        const int status = dnsproxy_server_socket_read(&ready, &count);
        std::string text = capture.text();
        EXPECT_EQ(status, 0);
        EXPECT_EQ(count, 0) << "every socket read is counted";
        return text;
    }

    static void serve(bool forced, const char *out_ifname = "wan1")
    {
        ASSERT_EQ(dnsproxy_listen_if_new("lo", forced ? 1 : 0, out_ifname, 0), 0);
    }

    // Lets the records run out as well.
    void stop_serving()
    {
        pass_time_ms(10000);
        wan1_->dnsIndex = 0;
        EXPECT_EQ(dnsproxy_listen_if_destroy("lo"), 0);
    }
    void serve_anew(bool forced)
    {
        EXPECT_EQ(dnsproxy_listen_if_destroy("lo"), 0);
        serve(forced);
    }

    struct if_nameindex list_[2] = {{1, const_cast<char *>("lo")}, {}};
    std::vector<int> fds_;
    int host_ = -1, server_ = -1;
    dnsproxy_server_if *wan1_ = nullptr;
};

using families = testing::Types<v4, v6>;
TYPED_TEST_SUITE(roads, families);

TYPED_TEST(roads, a_query_goes_out_under_an_identifier_of_its_own_and_its_reply_comes_back_once)
{
    for (const bool forced : {false, true}) {
        this->serve(forced);
        dnsproxy_data.nextNewId = 65535;
        for (const uint16_t new_id : std::initializer_list<uint16_t>{65535, 0, 1}) {
            const auto id = static_cast<uint16_t>(new_id + 7);
            EXPECT_GE(this->ask(id), 0);
            EXPECT_EQ(id_of(this->received(this->server_)), new_id);
            this->answer(message(new_id, true));
            const bytes reply = this->received(this->host_);
            ASSERT_EQ(reply.size(), 12U);
            EXPECT_EQ(id_of(reply), id);
            this->answer(message(new_id, true));
            EXPECT_EQ(this->received(this->host_).empty(), !forced)
                << "forced queries' replies are relayed as long as they come";
            EXPECT_GE(this->ask(id), 0);
            EXPECT_EQ(id_of(this->received(this->server_)), new_id) << "a repetition keeps its identifier";
            this->answer(message(new_id, true));
            EXPECT_EQ(this->received(this->host_).size(), 12U) << "and is answered too";
        }
        EXPECT_EQ(dnsproxy_data.specIface, forced ? 1 : 0);
        EXPECT_EQ(this->wan1_->useCount, forced ? 6U : 0U);
        EXPECT_EQ((dnsproxy_data.*TypeParam::list).size, 3);
        this->stop_serving();
    }
}

TYPED_TEST(roads, datagrams_pass_whole_or_cut_and_too_short_ones_not_at_all)
{
    this->serve(false);
    uint16_t new_id = dnsproxy_data.nextNewId;
    for (const size_t length : {0U, 1U, 2U, 11U, 1600U, 1601U, 4000U, 65507U}) {
        EXPECT_GE(this->ask(static_cast<uint16_t>(length), length), 0);
        const bytes sent = this->received(this->server_);
        if (length < 2) {
            EXPECT_TRUE(sent.empty()) << length;
            continue;
        }
        EXPECT_EQ(sent.size(), std::min<size_t>(length, 1600)) << length;
        EXPECT_EQ(id_of(sent), new_id) << length;
        this->answer(message(new_id, true, length));
        const bytes reply = this->received(this->host_);
        EXPECT_EQ(reply.size(), length < 3 ? 0 : std::min<size_t>(length, 1600))
            << "no flags, no response: " << length;
        new_id++;
    }
    for (const size_t length : {0U, 1U})
        EXPECT_EQ(this->answer(message(0, true, length)).find("not our"), std::string::npos) << length;
    EXPECT_GE(this->ask(9), 0) << "and the next one is served";
    EXPECT_EQ(this->received(this->server_).size(), 12U);
}

TYPED_TEST(roads, a_query_that_cannot_be_sent_is_dropped_with_its_reason)
{
    using F = TypeParam;
    const bool six = F::af == AF_INET6;
    const std::string choice = six ? "getServerAddress2_v6" : "getServerAddress2";
    const std::string forced = "][" + std::string(F::op) + ":0]:";
    const std::string free = "][dnsproxy_server_if_" + choice + ":0]:";
    const auto no_server = [](dnsproxy_server_if *sif) { F::set_server(sif, ""); };
    const auto no_socket = [](dnsproxy_server_if *sif) { sif->*F::server_fd = -1; };
    const auto no_way = [](dnsproxy_server_if *sif) { F::set_server(sif, F::unreachable); };
    const struct {
        const char *out_ifname; // "": a free query
        void (*spoil)(dnsproxy_server_if *);
        int status;
        std::string line;
    } rows[] = {
        {"wan9", [](dnsproxy_server_if *) {}, DNSPROXY_ENOOUTGOING,
         "[Trace" + forced + "(-9043)Has specify " + (six ? "IPv 6 " : "") +
             "dns server, but can not get the dns server address(outIfname:wan9).\n"},
        {"wan1", no_server, DNSPROXY_ENOSERVER,
         "[Debug" + forced + "(-9041)Although has specify the " + (six ? "IPv6 " : "") +
             "dns server if, but can not get dns server address.\n"},
        {"wan1", no_socket, DNSPROXY_ERESOURCE,
         "[Debug" + forced + "(-9001)Fail to check " + (six ? "IPv6 " : "") +
             "server socket(ifname:wan1).\n"},
        {"wan1", no_way, 0, "[Error" + forced + "(0)" + (six ? "IPv6 " : "") + "Send packet error.\n"},
        // On loopback a free IPv4 query ends with the offer to the IPv6 servers, of which there are none.
        {"", no_socket, six ? DNSPROXY_ERESOURCE : 0,
         "[Debug" + free + "(-9001)Fail to check server socket(ifname:wan1).\n"},
        {"", no_way, 0, "[Error" + free + "(0)Send " + (six ? "IPv6 " : "") + "packet error.\n"},
    };
    const int open_fd = this->wan1_->*F::server_fd;
    for (const auto &row : rows) {
        this->serve(*row.out_ifname != '\0', row.out_ifname);
        row.spoil(this->wan1_);
        log_capture capture;
        EXPECT_EQ(this->ask(7), row.status) << row.line;
        const std::string text = capture.text();
        EXPECT_NE(text.find(row.line), std::string::npos) << row.line << "in\n" << text;
        EXPECT_EQ((dnsproxy_data.*F::list).size, 0) << row.line;
        EXPECT_TRUE(this->received(this->server_).empty()) << row.line;

        this->wan1_->*F::server_fd = open_fd;
        F::set_server(this->wan1_, F::server);
        this->serve_anew(false);
        EXPECT_GE(this->ask(8), 0) << "the next query after " << row.line;
        EXPECT_EQ(this->received(this->server_).size(), 12U) << row.line;
        this->stop_serving();
    }
}

TYPED_TEST(roads, queries_that_are_not_served_are_dropped_with_their_reason)
{
    using F = TypeParam;
    const std::string six = F::af == AF_INET6 ? "IPv6 " : "", op = std::string("][") + F::op + ":0]:";
    log_capture capture;
    EXPECT_EQ(this->ask(7), DNSPROXY_ENOTSERVED);
    const int real = std::exchange(dnsproxy_data.*F::listen_fd, open("/dev/null", O_RDWR));
    EXPECT_EQ(F::receive(), DNSPROXY_ERESOURCE);
    close(std::exchange(dnsproxy_data.*F::listen_fd, real));
    const std::string text = capture.text();
    for (const std::string &line : {"[Trace" + op + "(-9040)The interface which the " + six +
                                        "dns request packet received didn't open the dns service.\n",
                                    "[Error" + op + "(-9001)Recv a " + six + "dns request error.\n"})
        EXPECT_NE(text.find(line), std::string::npos) << line << "in\n" << text;

    this->serve(false);
    dnsproxy_data.ifNameIndex = nullptr;
    EXPECT_EQ(this->ask(7), F::af == AF_INET6 ? 0 : DNSPROXY_ENOTSERVED)
        << "IPv6 asks the kernel, not the list";
}

TYPED_TEST(roads, bad_replies_are_dropped_and_the_good_one_still_gets_through)
{
    using F = TypeParam;
    const bool six = F::af == AF_INET6;
    this->serve(false);
    ASSERT_GE(this->ask(7), 0);
    const uint16_t new_id = id_of(this->received(this->server_));
    const auto other = static_cast<uint16_t>(new_id + 1000);

    EXPECT_NE(
        this->answer(message(other, true))
            .find("new_id " + std::to_string(other) + " is not our " + (six ? "IPv6 " : "") + "packet.\n"),
        std::string::npos);
    EXPECT_NE(this->answer(message(new_id, false)).find("Recv a bad dns reply packet.\n"), std::string::npos);

    const int real = std::exchange(this->wan1_->*F::server_fd, open("/dev/null", O_RDWR));
    EXPECT_NE(this->read_replies().find(std::string(six ? "recvfrom IPv6 data" : "recvfrom data") +
                                        " error(ifname:wan1).\n"),
              std::string::npos);
    close(std::exchange(this->wan1_->*F::server_fd, real));

    F::set_host(F::unreachable);
    EXPECT_NE(this->answer(message(new_id, true)).find("sendto data error.\n\n"), std::string::npos);
    F::set_host(F::loopback);
    EXPECT_EQ(F::flags(), 0U) << "none of them marks the record";

    dnsproxy_data.noReplyCount = 5;
    this->answer(message(new_id, true));
    EXPECT_EQ(this->received(this->host_).size(), 12U);
    EXPECT_EQ(F::flags(), DNSPROXY_ENTRY_ANSWERED);
    EXPECT_EQ(dnsproxy_data.noReplyCount, 0) << "an accepted reply starts the count anew";
}

} // namespace
