// What named operations do that no path of the daemon asks of them; what it does ask, the model knows.
#include <net/if.h>
#include <string>

#include "cache/cache_server.h"
#include "core/status.h"
#include "iface/if_show.h"
#include "net/intf_monitor.h"
#include "tests/unit/daemon_state.h"
#include "tests/unit/log_capture.h"

namespace {

class tables : public daemon_state {
protected:
    // "DEVICE SLOT" of the cache server, or "" for none.
    static std::string choice()
    {
        dnsproxy_server_if *sif = nullptr;
        uint64_t address = 0;
        int slot = -1;
        const int status =
            dnsproxy_server_if_getServerAddress(dnsproxy_server_addr_check, &sif, &address, &slot);
        EXPECT_EQ(status, sif == nullptr ? DNSPROXY_ENOTFOUND : 0);
        return sif == nullptr ? "" : sif->ifname + (" " + std::to_string(slot));
    }
};

TEST_F(tables, a_listen_interface_can_be_changed_and_removed)
{
    ASSERT_EQ(dnsproxy_listen_if_new("br-lan", 5, "wan1", 0), 0);
    const dnsproxy_listen_if *lan = dnsproxy_listen_if_findByname("br-lan");
    EXPECT_EQ(lan->specify, 5);
    EXPECT_EQ(dnsproxy_listen_if_set("br-lan", 0, nullptr), 0);
    EXPECT_EQ(lan->specify, 0);
    EXPECT_STREQ(lan->out_ifname, "wan1") << "the text stays";
    EXPECT_EQ(dnsproxy_listen_if_set("br-lan", 1, "wan2"), 0);
    EXPECT_STREQ(lan->out_ifname, "wan2");
    EXPECT_EQ(dnsproxy_listen_if_set("none", 1, "wan2"), DNSPROXY_ENOTFOUND);
    EXPECT_EQ(dnsproxy_listen_if_destroy("br-lan"), 0);
    EXPECT_EQ(dnsproxy_listen_if_destroy("br-lan"), DNSPROXY_ENOTFOUND);
    EXPECT_EQ(dnsproxy_listen_if2_new("br-lan", 1, nullptr), 0) << "the name is free again";
    EXPECT_EQ(dnsproxy_listen_if_findByname("br-lan")->specify, 0) << "forced by nothing";
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
    struct if_nameindex list[] = {{7, const_cast<char *>("fifteen-letters")}, {}};
    dnsproxy_data.ifNameIndex = list;
    char name[32] = {};
    EXPECT_EQ(dns_if_indextoname(7, name, IF_NAMESIZE), 0);
    EXPECT_STREQ(name, "fifteen-letters");
    EXPECT_EQ(dns_if_indextoname(7, name, IF_NAMESIZE - 1), -1);
    dnsproxy_data.ifNameIndex = nullptr;
}

TEST_F(tables, arguments_may_be_left_out)
{
    const uint64_t other = 9;
    dnsproxy_server_if *wan1 = add_server_if("wan1", "10.0.1.53", "", "fd00::1", "fd00::2");
    EXPECT_EQ(dnsproxy_server_if_new("wan2", 7, 7, nullptr, nullptr, 0, 1), 0);
    EXPECT_EQ(dnsproxy_server_if_new("wan1", 7, 7, nullptr, nullptr, 0, 0), DNSPROXY_EEXISTS);
    EXPECT_EQ(dnsproxy_server_if_set("wan1", nullptr, &other, nullptr, nullptr, 0, 0), 0);
    EXPECT_EQ(wan1->dnsServer[0], inet_addr("10.0.1.53"));
    EXPECT_EQ(wan1->dnsServer[1], other);
    EXPECT_EQ(wan1->dnsServer6[1].sin6_addr.s6_addr[15], 2);
    EXPECT_EQ(dnsproxy_server_if_del_normal(nullptr), DNSPROXY_EINVALID);
    EXPECT_EQ(dnsproxy_server_if_state_up("wan1", nullptr), 0) << "counts anew alone";
    EXPECT_EQ(dnsproxy_server_if_state_up("wan9", nullptr), DNSPROXY_ENOTFOUND);
}

TEST_F(tables, names_of_vpn_devices_begin_with_lt_or_pt)
{
    for (const char *name : {"wan1", "lt-a", "pt-b", "ltx", "xpt-"})
        add_server_if(name, "10.0.1.53", "");
    const log_capture quiet(0);
    EXPECT_EQ(dnsproxy_server_if_delAll(), 0);
    EXPECT_EQ(dnsproxy_data.serverIfList.size, 2);
    EXPECT_NE(dnsproxy_server_if_get("lt-a"), nullptr);
    EXPECT_NE(dnsproxy_server_if_get("pt-b"), nullptr);
}

TEST_F(tables, a_cache_server_stays_until_its_slots_are_used_up)
{
    dnsproxy_server_if *wan1 = add_server_if("wan1", "", "");
    EXPECT_EQ(choice(), "");
    EXPECT_EQ(dnsproxy_data.cacheServerSet, 0U);
    dnsproxy_server_if *wan2 = add_server_if("wan2", "10.0.2.53", "10.0.2.54");
    EXPECT_EQ(choice(), "wan2 0");
    EXPECT_STREQ(dnsproxy_data.cacheServerIfname, "wan2");
    EXPECT_STREQ(dnsproxy_server_if_getNext("wan1"), "wan2");
    for (const char *last : {"wan2", "unknown"})
        EXPECT_STREQ(dnsproxy_server_if_getNext(last), "wan1");

    wan1->dnsServer[0] = 1;
    wan2->dnsIndex = 1;
    EXPECT_EQ(choice(), "wan2 1") << "not the first device that has a server now";
    wan2->dnsIndex = 2;
    add_server_if("wan3", "", "10.0.3.54");
    EXPECT_EQ(choice(), "wan3 1") << "the next one in order";

    EXPECT_EQ(dnsproxy_server_if_destroy("wan3"), 0);
    log_capture capture(DNSPROXY_LOG_ERROR);
    wan1->dnsIndex = 1;
    EXPECT_EQ(choice(), "wan1 0") << "afresh from the first, below its index";
    EXPECT_EQ(wan1->dnsIndex, 1) << "which does not move";
    EXPECT_NE(capture.text().find("Can not find the cache server if, maybe it has been delete(ifname:wan3)."),
              std::string::npos);
    log_capture dump(0);
    EXPECT_EQ(dnsproxy_if_show(), 0);
    EXPECT_NE(dump.text().find("cache init:1   cache server ifname:wan1\n"), std::string::npos);
    dnsproxy_server_if_resetCache();
    EXPECT_EQ(dnsproxy_data.cacheServerSet, 0U);
}

// What takes the cache server's last slot hands it over to the next device, in both families.
TEST_F(tables, a_record_that_expires_hands_the_cache_server_over)
{
    add_server_if("wan1", "10.0.1.53", "10.0.1.54", "fd00:1::53", "fd00:1::54");
    add_server_if("wan2", "10.0.2.53", "");
    const sockaddr_in6 client = address6("fd00::7");
    for (const bool v6 : {false, true}) {
        dnsproxy_data.cacheServerSet = 1;
        strcpy(dnsproxy_data.cacheServerIfname, "wan1");
        dnsproxy_server_if_get("wan1")->dnsIndex = 1;
        ASSERT_GE(v6 ? dnsproxy_add_entry_v6(0, &client, 1000, 7, 100, "wan1", 1)
                     : dnsproxy_add_entry(7, 1000, 7, 100, "wan1", 1),
                  0);
        log_capture capture(DNSPROXY_LOG_DEBUG);
        pass_time_ms(10000);
        EXPECT_STREQ(dnsproxy_data.cacheServerIfname, "wan2");
        EXPECT_NE(capture.text().find("dnsproxy cache server if(oldifname:wan1 newifname:wan2)."),
                  std::string::npos);
    }
}

TEST_F(tables, records_and_timers_outlive_their_tables)
{
    const sockaddr_in6 client = address6("fd00::7");
    ASSERT_GE(dnsproxy_add_entry(7, 1000, 7, 100, "wan1", 1), 0);
    ASSERT_GE(dnsproxy_add_entry_v6(0, &client, 1000, 7, 101, "wan1", 1), 0);
    auto *entry = ipcom_first<dnsproxy_cache_entry>(dnsproxy_data.cacheList);
    auto *entry6 = ipcom_first<dnsproxy_cache_entry_v6>(dnsproxy_data.cacheList6);
    dnsproxy_cache_deinit();
    dnsproxy_cache_deinit_v6();
    EXPECT_EQ(entry->new_id, 100);
    EXPECT_EQ(entry6->new_id, 101);
    for (ipcom_tmo2 *timer : {&entry->tmo, &entry6->tmo}) {
        EXPECT_TRUE(ipcom_tmo2_is_armed(timer));
        ipcom_tmo2_cancel(timer);
    }
    for (int i = 0; i < 2; i++) {
        ipcom_list_remove(&entry->link);
        EXPECT_EQ(dnsproxy_data.cacheList.size, 0) << "a record in no list is left alone";
    }
    EXPECT_EQ(dnsproxy_cache_init(), 0);
    EXPECT_EQ(dnsproxy_cache_init_v6(), 0);
}

} // namespace
