// The request and reply paths over loopback sockets: what each failure says and leaves behind.

#include <algorithm>
#include <fcntl.h>
#include <map>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "core/status.h"
#include "net/reply.h"
#include "net/request.h"
#include "tests/support/daemon_state.h"
#include "tests/support/log_capture.h"

namespace
{

struct v4 {
    static constexpr int af = AF_INET;
    static constexpr auto listen_fd = &dnsproxy_data::listenFd;
    static constexpr auto server_fd = &dnsproxy_server_if::serverFd;
    static constexpr auto server_tmo = &dnsproxy_server_if::serverTmo;
    static constexpr auto list = &dnsproxy_data::cacheList;
    static constexpr int pktinfo[] = {IPPROTO_IP, IP_PKTINFO};
    static constexpr auto receive = dnsproxy_listen_socket_recv;
    static constexpr char server[] = "127.0.0.53";
    static constexpr char unreachable[] = "255.255.255.255"; // refused without SO_BROADCAST
    static constexpr char op[] = "dnsproxy_listen_socket_recv";

    static socklen_t address(const char *text, uint16_t port, sockaddr_storage *out)
    {
        auto *a = reinterpret_cast<sockaddr_in *>(out);
        a->sin_family = AF_INET;
        a->sin_port = htons(port);
        return inet_pton(AF_INET, text, &a->sin_addr) == 1 ? sizeof *a : 0;
    }
    static const char *loopback() { return "127.0.0.1"; }
    static void set_server(dnsproxy_server_if *sif, int slot, const char *text)
    {
        sif->dnsServer[slot] = *text == '\0' ? 0 : inet_addr(text);
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
    static constexpr auto server_tmo = &dnsproxy_server_if::serverTmo6;
    static constexpr auto list = &dnsproxy_data::cacheList6;
    static constexpr int pktinfo[] = {IPPROTO_IPV6, IPV6_RECVPKTINFO};
    static constexpr auto receive = dnsproxy_listen_socket_recv_v6;
    static constexpr char server[] = "::1";
    static constexpr char unreachable[] = "fe80::1"; // no scope
    static constexpr char op[] = "dnsproxy_listen_socket_recv_v6";

    static socklen_t address(const char *text, uint16_t port, sockaddr_storage *out)
    {
        auto *a = reinterpret_cast<sockaddr_in6 *>(out);
        a->sin6_family = AF_INET6;
        a->sin6_port = htons(port);
        return inet_pton(AF_INET6, text, &a->sin6_addr) == 1 ? sizeof *a : 0;
    }
    static const char *loopback() { return "::1"; }
    static void set_server(dnsproxy_server_if *sif, int slot, const char *text)
    {
        sif->dnsServer6[slot] = {};
        (void)inet_pton(AF_INET6, *text == '\0' ? "::" : text, &sif->dnsServer6[slot].sin6_addr);
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
template <class F> class roads : public daemon_state
{
protected:
    roads()
    {
        signal(SIGPIPE, SIG_IGN);
        dnsproxy_data.ifNameIndex = list_;
        dnsproxy_data.listenFd = dnsproxy_data.listenFd6 = -1;
        dnsproxy_data.*F::listen_fd = open_socket(F::loopback(), 0);
        const int on = 1;
        EXPECT_EQ(setsockopt(dnsproxy_data.*F::listen_fd, F::pktinfo[0], F::pktinfo[1], &on, sizeof on), 0);
        host_ = open_socket(F::loopback(), 0);
        server_ = open_socket(F::server, 53);
        wan1_ = add_server_if("wan1", "", "");
        F::set_server(wan1_, 0, F::server);
        wan1_->*F::server_fd = open_socket(F::loopback(), 0);
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

    struct if_nameindex list_[2] = {{1, const_cast<char *>("lo")}, {}};
    std::vector<int> fds_;
    int host_ = -1, server_ = -1;
    dnsproxy_server_if *wan1_ = nullptr;
};

using families = testing::Types<v4, v6>;
TYPED_TEST_SUITE(roads, families);

TYPED_TEST(roads, a_query_goes_out_under_a_fresh_identifier_and_its_reply_comes_back_once)
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
        }
        EXPECT_EQ(dnsproxy_data.specIface, forced ? 1 : 0);
        EXPECT_EQ(this->wan1_->useCount, forced ? 3U : 0U);
        EXPECT_EQ((dnsproxy_data.*TypeParam::list).size, 3);
        this->pass_time_ms(10000);
        this->wan1_->dnsIndex = 0;
        EXPECT_EQ(dnsproxy_listen_if_destroy("lo"), 0);
    }
}

TYPED_TEST(roads, a_repeated_query_keeps_its_identifier_and_its_record)
{
    for (const bool forced : {false, true}) {
        this->serve(forced);
        EXPECT_GE(this->ask(7), 0);
        const uint16_t new_id = id_of(this->received(this->server_));
        this->answer(message(new_id, true));
        EXPECT_EQ(this->received(this->host_).size(), 12U);
        EXPECT_GE(this->ask(7), 0);
        EXPECT_EQ(id_of(this->received(this->server_)), new_id);
        EXPECT_EQ((dnsproxy_data.*TypeParam::list).size, 1);
        this->answer(message(new_id, true));
        EXPECT_EQ(this->received(this->host_).size(), 12U) << "the repetition is answered too";
        this->pass_time_ms(10000);
        EXPECT_EQ(dnsproxy_listen_if_destroy("lo"), 0);
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
    const struct {
        const char *what, *level, *text4, *text6;
        int status;
        bool forced;
        const char *out_ifname;
        void (*spoil)(dnsproxy_server_if *);
    } rows[] = {
        {"unknown forced device", "Trace",
         "(-9043)Has specify dns server, but can not get the dns server address(outIfname:wan9).",
         "(-9043)Has specify IPv 6 dns server, but can not get the dns server address(outIfname:wan9).",
         DNSPROXY_ENOOUTGOING, true, "wan9", [](dnsproxy_server_if *) {}},
        {"no server", "Debug",
         "(-9041)Although has specify the dns server if, but can not get dns server address.",
         "(-9041)Although has specify the IPv6 dns server if, but can not get dns server address.",
         DNSPROXY_ENOSERVER, true, "wan1", [](dnsproxy_server_if *sif) { F::set_server(sif, 0, ""); }},
        {"no socket", "Debug", "(-9001)Fail to check server socket(ifname:wan1).",
         "(-9001)Fail to check IPv6 server socket(ifname:wan1).", DNSPROXY_ERESOURCE, true, "wan1",
         [](dnsproxy_server_if *sif) { sif->*F::server_fd = -1; }},
        {"send fails", "Error", "(0)Send packet error.", "(0)IPv6 Send packet error.", 0, true, "wan1",
         [](dnsproxy_server_if *sif) { F::set_server(sif, 0, F::unreachable); }},
        {"no socket, free", "Debug", nullptr, nullptr, DNSPROXY_ERESOURCE, false, "",
         [](dnsproxy_server_if *sif) { sif->*F::server_fd = -1; }},
        {"send fails, free", "Error", nullptr, nullptr, 0, false, "",
         [](dnsproxy_server_if *sif) { F::set_server(sif, 0, F::unreachable); }},
    };
    const std::map<std::string, std::string> free_texts = {
        {"no socket, free", std::string("[Debug][dnsproxy_server_if_getServerAddress2") + (six ? "_v6" : "") +
                                ":0]:(-9001)Fail to check server socket(ifname:wan1).\n"},
        {"send fails, free", std::string("[Error][dnsproxy_server_if_getServerAddress2") +
                                 (six ? "_v6" : "") + ":0]:(0)Send " + (six ? "IPv6 " : "") +
                                 "packet error.\n"},
    };
    const int open_fd = this->wan1_->*F::server_fd;
    for (const auto &row : rows) {
        this->serve(row.forced, row.out_ifname);
        row.spoil(this->wan1_);
        const uint16_t next = dnsproxy_data.nextNewId;
        log_capture capture;
        const int status = this->ask(7);
        const std::string text = capture.text();
        // On loopback a free IPv4 query ends with the offer to the IPv6 servers, of which there are none.
        EXPECT_EQ(status, row.forced || six ? row.status : 0) << row.what;
        const std::string expected = row.forced ? "[" + std::string(row.level) + "][" + F::op +
                                                      ":0]:" + (six ? row.text6 : row.text4) + "\n"
                                                : free_texts.at(row.what);
        EXPECT_NE(text.find(expected), std::string::npos) << row.what << ": " << expected << "in\n" << text;
        EXPECT_EQ((dnsproxy_data.*F::list).size, 0) << row.what;
        EXPECT_TRUE(this->received(this->server_).empty()) << row.what;
        EXPECT_GE(dnsproxy_data.nextNewId, next) << row.what;

        this->wan1_->*F::server_fd = open_fd;
        F::set_server(this->wan1_, 0, F::server);
        EXPECT_EQ(dnsproxy_listen_if_destroy("lo"), 0);
        this->serve(false);
        EXPECT_GE(this->ask(8), 0) << row.what << ": the next query";
        EXPECT_EQ(this->received(this->server_).size(), 12U) << row.what;
        this->pass_time_ms(10000);
        EXPECT_EQ(dnsproxy_listen_if_destroy("lo"), 0);
    }
}

TYPED_TEST(roads, queries_from_devices_without_a_rule_are_dropped)
{
    using F = TypeParam;
    const std::string text = std::string("[Trace][") + F::op + ":0]:(-9040)The interface which the " +
                             (F::af == AF_INET6 ? "IPv6 " : "") +
                             "dns request packet received didn't open the dns service.\n";
    {
        log_capture capture;
        EXPECT_EQ(this->ask(7), DNSPROXY_ENOTSERVED);
        EXPECT_NE(capture.text().find(text), std::string::npos);
    }
    this->serve(false);
    dnsproxy_data.ifNameIndex = nullptr;
    EXPECT_EQ(this->ask(7), F::af == AF_INET6 ? 0 : DNSPROXY_ENOTSERVED)
        << "IPv6 asks the kernel, not the list";
}

TYPED_TEST(roads, an_arrival_that_cannot_be_received_is_reported)
{
    using F = TypeParam;
    const int real = dnsproxy_data.*F::listen_fd;
    dnsproxy_data.*F::listen_fd = open("/dev/null", O_RDWR);
    log_capture capture;
    EXPECT_EQ(F::receive(), DNSPROXY_ERESOURCE);
    EXPECT_EQ(capture.text(), std::string("[Error][") + F::op + ":0]:(-9001)Recv a " +
                                  (F::af == AF_INET6 ? "IPv6 " : "") + "dns request error.\n");
    close(dnsproxy_data.*F::listen_fd);
    dnsproxy_data.*F::listen_fd = real;
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
    EXPECT_EQ(F::flags(), 0U) << "neither marks the record";

    const int open_fd = this->wan1_->*F::server_fd;
    this->wan1_->*F::server_fd = open("/dev/null", O_RDWR);
    EXPECT_NE(this->read_replies().find(std::string(six ? "recvfrom IPv6 data" : "recvfrom data") +
                                        " error(ifname:wan1).\n"),
              std::string::npos);
    close(this->wan1_->*F::server_fd);
    this->wan1_->*F::server_fd = open_fd;

    dnsproxy_data.noReplyCount = 5;
    this->answer(message(new_id, true));
    EXPECT_EQ(this->received(this->host_).size(), 12U);
    EXPECT_EQ(F::flags(), DNSPROXY_ENTRY_ANSWERED);
    EXPECT_EQ(dnsproxy_data.noReplyCount, 0) << "an accepted reply starts the count anew";
}

TYPED_TEST(roads, a_reply_that_cannot_be_relayed_leaves_the_way_open_for_the_next)
{
    using F = TypeParam;
    this->serve(false);
    ASSERT_GE(this->ask(7), 0);
    const uint16_t new_id = id_of(this->received(this->server_));
    F::set_host(F::unreachable);
    EXPECT_NE(this->answer(message(new_id, true)).find("sendto data error.\n\n"), std::string::npos);
    EXPECT_EQ(F::flags(), 0U);
    F::set_host(F::loopback());
    this->answer(message(new_id, true));
    EXPECT_EQ(this->received(this->host_).size(), 12U);
}

} // namespace
