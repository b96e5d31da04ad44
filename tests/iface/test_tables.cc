#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "core/status.h"
#include "iface/if_show.h"
#include "iface/upstream_socket.h"
#include "tests/support/daemon_state.h"
#include "tests/support/log_capture.h"

namespace {

class tables : public daemon_state {
protected:
    static std::string lines()
    {
        std::string all;
        for (auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList); sif != nullptr;
             sif = ipcom_next(sif))
            all += (all.empty() ? "" : " ") + std::string(sif->ifname);
        return all;
    }

    static int set_down(const char *ifname, uint64_t down)
    {
        return dnsproxy_server_if_state_up(ifname, &down);
    }
};

TEST_F(tables, a_listen_interface_is_kept_as_its_first_rule_made_it)
{
    ASSERT_EQ(dnsproxy_listen_if_new("br-lan", 5, "wan1", 1), 0);
    ASSERT_EQ(dnsproxy_listen_if_new("br-guest", 0, "wan1", 0), 0);
    EXPECT_EQ(dnsproxy_listen_if_new("br-lan", 0, nullptr, 0), DNSPROXY_EEXISTS);
    EXPECT_EQ(dnsproxy_listen_if2_new("br-x", 1, nullptr), 0);

    const dnsproxy_listen_if *lan = dnsproxy_listen_if_findByname("br-lan");
    ASSERT_NE(lan, nullptr);
    EXPECT_EQ(lan->specify, 5);
    EXPECT_STREQ(lan->out_ifname, "wan1");
    EXPECT_EQ(lan->polling, 1U);
    EXPECT_STREQ(dnsproxy_listen_if_findByname("br-guest")->out_ifname, "") << "not forced: no outgoing name";
    EXPECT_EQ(dnsproxy_listen_if_findByname("br-x")->specify, 0) << "forced by nothing";
    for (const char *name : {"br-la", "br-lan2", "BR-LAN", ""})
        EXPECT_EQ(dnsproxy_listen_if_findByname(name), nullptr) << name;
}

TEST_F(tables, a_listen_interface_can_be_changed_and_removed)
{
    ASSERT_EQ(dnsproxy_listen_if_new("br-lan", 1, "wan1", 0), 0);
    const dnsproxy_listen_if *lan = dnsproxy_listen_if_findByname("br-lan");
    EXPECT_EQ(dnsproxy_listen_if_set("br-lan", 0, nullptr), 0);
    EXPECT_EQ(lan->specify, 0);
    EXPECT_STREQ(lan->out_ifname, "wan1") << "the text stays";
    EXPECT_EQ(dnsproxy_listen_if_set("br-lan", 1, "wan2"), 0);
    EXPECT_STREQ(lan->out_ifname, "wan2");
    EXPECT_EQ(dnsproxy_listen_if_set("none", 1, "wan2"), DNSPROXY_ENOTFOUND);
    EXPECT_EQ(dnsproxy_listen_if_destroy("br-lan"), 0);
    EXPECT_EQ(dnsproxy_listen_if_destroy("br-lan"), DNSPROXY_ENOTFOUND);
    EXPECT_EQ(dnsproxy_data.listenIfList.size, 0);
    EXPECT_EQ(dnsproxy_listen_if_new("br-lan", 0, "", 0), 0) << "the name is free again";
}

TEST_F(tables, names_that_do_not_fit_are_refused_not_cut)
{
    const sockaddr_in6 none = {};
    EXPECT_EQ(dnsproxy_listen_if_new("fifteen-letters", 1, "fifteen-letters", 0), 0);
    EXPECT_EQ(dnsproxy_listen_if_new("sixteen-letters!", 0, "", 0), DNSPROXY_EINVALID);
    EXPECT_EQ(dnsproxy_listen_if_new("br-lan", 1, "sixteen-letters!", 0), DNSPROXY_EINVALID);
    EXPECT_EQ(dnsproxy_listen_if_set("fifteen-letters", 1, "sixteen-letters!"), DNSPROXY_EINVALID);
    EXPECT_EQ(dnsproxy_server_if_new("fifteen-letters", 0, 0, &none, &none, 0, 0), 0);
    EXPECT_EQ(dnsproxy_server_if_new("sixteen-letters!", 0, 0, &none, &none, 0, 0), DNSPROXY_EINVALID);
    EXPECT_EQ(dnsproxy_server_if_get("sixteen-letters!"), nullptr);
    EXPECT_EQ(dnsproxy_data.serverIfList.size, 1);
}

TEST_F(tables, creating_a_server_interface_again_replaces_its_ipv6_servers_only)
{
    dnsproxy_server_if *wan1 = add_server_if("wan1", "10.0.1.53", "", "fd00::1", "::");
    const sockaddr_in6 first = address6("fd00::9"), none = {};
    for (const int noV6 : {1, 0}) {
        wan1->serverFd6 = open("/dev/null", O_RDONLY);
        const int fd = wan1->serverFd6;
        ASSERT_EQ(ipcom_tmo2_request(
                      dnsproxy_data.tmo2Head, &wan1->serverTmo6, [](void *) { return 0; }, nullptr, 60000),
                  0);
        EXPECT_EQ(dnsproxy_server_if_new("wan1", 7, 7, &first, &none, 0, noV6), DNSPROXY_EEXISTS);
        EXPECT_EQ(wan1->dnsServer[0], inet_addr("10.0.1.53"));
        EXPECT_EQ(wan1->dnsServer[1], 0U);
        EXPECT_EQ(wan1->dnsServer6[0].sin6_addr.s6_addr[15], noV6 == 1 ? 1 : 9);
        EXPECT_EQ(wan1->serverFd6, noV6 == 1 ? fd : -1) << "towards new servers a new socket";
        EXPECT_EQ(wan1->serverTmo6.queue == nullptr, noV6 != 1) << "no timer without its socket";
        upstream_socket_close(&wan1->serverFd6, &wan1->serverTmo6);
    }
    EXPECT_EQ(dnsproxy_server_if_new("lo", 7, 7, nullptr, nullptr, 0, 1), 0);
    EXPECT_EQ(lines(), "wan1") << "lo is never entered";
}

TEST_F(tables, setting_servers_never_clears_an_ipv4_slot)
{
    dnsproxy_server_if *wan1 = add_server_if("wan1", "10.0.1.53", "10.0.1.54", "fd00::1", "fd00::2");
    const uint64_t zero = 0, other = inet_addr("10.9.9.9");
    const sockaddr_in6 none = {};
    EXPECT_EQ(dnsproxy_server_if_set("wan1", &zero, &other, &none, nullptr, 0, 0), 0);
    EXPECT_EQ(wan1->dnsServer[0], inet_addr("10.0.1.53"));
    EXPECT_EQ(wan1->dnsServer[1], other);
    EXPECT_TRUE(IN6_IS_ADDR_UNSPECIFIED(&wan1->dnsServer6[0].sin6_addr)) << "an IPv6 entry is";
    EXPECT_FALSE(IN6_IS_ADDR_UNSPECIFIED(&wan1->dnsServer6[1].sin6_addr));
    EXPECT_EQ(dnsproxy_server_if_set("wan1", &other, &other, &none, &none, 1, 1), 0);
    EXPECT_EQ(wan1->dnsServer[0], inet_addr("10.0.1.53")) << "flags leave the families alone";
    EXPECT_FALSE(IN6_IS_ADDR_UNSPECIFIED(&wan1->dnsServer6[1].sin6_addr));
    EXPECT_EQ(dnsproxy_server_if_set("wan2", &other, &other, &none, &none, 0, 0), DNSPROXY_ENOTFOUND);
}

TEST_F(tables, deleting_all_spares_vpn_devices_and_closes_the_sockets)
{
    for (const char *name : {"wan1", "lt-a", "wan2", "pt-b", "ltx", "xpt-"})
        add_server_if(name, "10.0.1.53", "");
    dnsproxy_server_if *wan1 = dnsproxy_server_if_get("wan1");
    wan1->serverFd = open("/dev/null", O_RDONLY);
    const int fd = wan1->serverFd;
    int fired = 0;
    ASSERT_EQ(ipcom_tmo2_request(
                  dnsproxy_data.tmo2Head, &wan1->serverTmo,
                  [](void *arg) { return ++*static_cast<int *>(arg); }, &fired, 60000),
              0);
    log_capture quiet(0);
    EXPECT_EQ(dnsproxy_server_if_delAll(), 0);
    EXPECT_EQ(quiet.text().find("***Show listen interface(size:0)***\n"), 0U)
        << "with a dump of what was there";
    EXPECT_EQ(lines(), "lt-a pt-b");
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "closed";
    pass_time_ms(60000);
    EXPECT_EQ(fired, 0);
    EXPECT_EQ(dnsproxy_server_if_del_normal(nullptr), DNSPROXY_EINVALID);
}

TEST_F(tables, link_states_decide_whether_all_lines_are_down)
{
    add_server_if("wan1", "", "");
    add_server_if("wan2", "", "");
    EXPECT_EQ(set_down("wan1", 1), 0);
    EXPECT_EQ(dnsproxy_data.allServerIfDown, 0);
    EXPECT_EQ(set_down("wan2", 2), 0);
    EXPECT_EQ(dnsproxy_data.allServerIfDown, 1);
    EXPECT_EQ(set_down("wan9", 0), DNSPROXY_ENOTFOUND);
    EXPECT_EQ(dnsproxy_data.allServerIfDown, 1) << "an unknown device changes nothing";
    add_server_if("wan3", "", "");
    EXPECT_EQ(dnsproxy_data.allServerIfDown, 1) << "until the next change of a link state";
    EXPECT_EQ(dnsproxy_server_if_state_up("wan1", nullptr), 0);
    EXPECT_EQ(dnsproxy_data.allServerIfDown, 0);
}

TEST_F(tables, failures_say_what_failed)
{
    add_server_if("wan1", "", "");
    EXPECT_EQ(dnsproxy_listen_if_new("br-lan", 0, "", 0), 0);
    const uint64_t down = 1;
    const sockaddr_in6 none = {};
    const struct {
        const char *line;
        int status;
        int (*act)(const uint64_t *, const sockaddr_in6 *);
    } rows[] = {
        {"[Error][dnsproxy_server_if_new:0]:(-9004)The server if has already exist(ifname:wan1).",
         DNSPROXY_EEXISTS,
         [](const uint64_t *, const sockaddr_in6 *s) {
             return dnsproxy_server_if_new("wan1", 0, 0, s, s, 0, 0);
         }},
        {"[Trace][dnsproxy_server_if_new:0]:(0)Skip loopback interface for dns server!", 0,
         [](const uint64_t *, const sockaddr_in6 *s) {
             return dnsproxy_server_if_new("lo", 0, 0, s, s, 0, 0);
         }},
        {"[Error][dnsproxy_server_if_set:0]:(-9005)Can not find the server if(ifname:x).", DNSPROXY_ENOTFOUND,
         [](const uint64_t *d, const sockaddr_in6 *s) {
             return dnsproxy_server_if_set("x", d, d, s, s, 0, 0);
         }},
        {"[Notice][dnsproxy_server_if_destroy:0]:(-9005)Fail to find the server if(ifname:x).",
         DNSPROXY_ENOTFOUND,
         [](const uint64_t *, const sockaddr_in6 *) { return dnsproxy_server_if_destroy("x"); }},
        {"[Notice][dnsproxy_server_if_del_normal:0]:(-9002)Invalid parms", DNSPROXY_EINVALID,
         [](const uint64_t *, const sockaddr_in6 *) { return dnsproxy_server_if_del_normal(nullptr); }},
        {"[Debug][dnsproxy_server_if_state_up:0]:(-9005)Can not find the server if(ifname:x).",
         DNSPROXY_ENOTFOUND,
         [](const uint64_t *d, const sockaddr_in6 *) { return dnsproxy_server_if_state_up("x", d); }},
        {"[Error][dnsproxy_check_dnsserver_v6:0]:(0)IPv6 DNS server is empty!\n", 0,
         [](const uint64_t *, const sockaddr_in6 *) { return dnsproxy_check_dnsserver_v6("::"); }},
        {"[Error][dnsproxy_listen_if_new:0]:(-9004)The interface is already in our listen if list.",
         DNSPROXY_EEXISTS,
         [](const uint64_t *, const sockaddr_in6 *) { return dnsproxy_listen_if_new("br-lan", 0, "", 0); }},
        {"[Error][dnsproxy_listen_if_set:0]:(-9005)Can not find if(x).", DNSPROXY_ENOTFOUND,
         [](const uint64_t *, const sockaddr_in6 *) { return dnsproxy_listen_if_set("x", 0, ""); }},
        {"[Error][dnsproxy_listen_if_destroy:0]:(-9005)Can not find the if(ifname:x).", DNSPROXY_ENOTFOUND,
         [](const uint64_t *, const sockaddr_in6 *) { return dnsproxy_listen_if_destroy("x"); }},
    };
    for (const auto &row : rows) {
        log_capture capture;
        EXPECT_EQ(row.act(&down, &none), row.status) << row.line;
        const std::string text = capture.text();
        EXPECT_NE(text.find(std::string(row.line) + "\n"), std::string::npos) << row.line << "\nin\n" << text;
    }
}

TEST_F(tables, a_duplicate_is_compared_aloud)
{
    EXPECT_EQ(dnsproxy_listen_if_new("br-lan", 0, "", 0), 0);
    log_capture capture(0);
    EXPECT_EQ(dnsproxy_listen_if_new("br-lan", 0, "", 0), DNSPROXY_EEXISTS);
    const std::string text = capture.text();
    int line = 0;
    EXPECT_EQ(sscanf(text.c_str(), "dnsproxy_listen_if_hash_cmp,%d\n", &line), 1) << text;
    EXPECT_GT(line, 0);
}

TEST_F(tables, the_dump_shows_everything_in_order)
{
    EXPECT_EQ(dnsproxy_listen_if_new("br-lan", 0, "", 1), 0);
    EXPECT_EQ(dnsproxy_listen_if_new("br-guest", 1, "wan2", 0), 0);
    dnsproxy_server_if *wan2 = add_server_if("wan2", "10.0.2.53", "", "::", "fd00::54");
    wan2->dnsIndex = 1;
    wan2->useCount = (1ULL << 32) + 3;
    wan2->is_down = 1;
    dnsproxy_data.cacheServerSet = 1;
    memcpy(dnsproxy_data.cacheServerIfname, "wan2", 5);
    log_capture capture(0);
    EXPECT_EQ(dnsproxy_if_show(), 0);
    EXPECT_EQ(capture.text(), "***Show listen interface(size:2)***\n"
                              "ifname:br-lan.\n"
                              "Specify out interface = 0     \n"
                              "\n\n"
                              "ifname:br-guest.\n"
                              "Specify out interface = 1     out interface name:wan2.\n"
                              "\n\n"
                              "***Show server interface(size:1)***\n"
                              "ifname:wan2 ifindex:0.\n"
                              "The 0 server address:3502000a.\n"
                              "The 1 server address:0.\n"
                              "The 0 IPv6 server address:::\n"
                              "The 1 IPv6 server address:fd00::54\n"
                              "The next dns server index:1\n"
                              "The serverFd = -1.\n"
                              "The useCount:3\n"
                              "The is_down:1\n"
                              "\n\n"
                              "***Show server cache interface***\n"
                              "cache init:1   cache server ifname:wan2\n"
                              "\n\n"
                              "End\n\n");
}

} // namespace
