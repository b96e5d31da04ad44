// The daemon's state as start-up builds it, for tests in its own process: empty tables, a clock that the test
// moves. Tests run in a sandbox of their own, so the fixed paths and port 53 are theirs.
#ifndef TESTS_DAEMON_STATE_H
#define TESTS_DAEMON_STATE_H

#include <arpa/inet.h>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

#include "cache/request_cache.h"
#include "core/data_init.h"
#include "core/dnsproxy_data.h"
#include "daemon/start.h"
#include "iface/if_init.h"
#include "iface/listen_if.h"
#include "iface/server_if.h"
#include "tests/model/fake_clock.h"

class daemon_state : public testing::Test {
protected:
    daemon_state()
    {
        dnsproxy_data = {};
        EXPECT_EQ(dnsproxy_data_init(), 0);
        EXPECT_EQ(dnsproxy_cache_init(), 0);
        EXPECT_EQ(dnsproxy_cache_init_v6(), 0);
        EXPECT_EQ(dnsproxy_if_init(), 0);
    }

    // Records run out by their own timers and are freed, then the tables go.
    ~daemon_state() override
    {
        pass_time_ms(dnsproxy_data.dnsproxyCacheTimeout);
        while (auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList))
            EXPECT_EQ(dnsproxy_server_if_destroy(std::string(sif->ifname).c_str()), 0);
        while (auto *lif = ipcom_first<dnsproxy_listen_if>(dnsproxy_data.listenIfList))
            EXPECT_EQ(dnsproxy_listen_if_destroy(std::string(lif->ifname_receive).c_str()), 0);
        dnsproxy_cleanup();
    }

    static void pass_time_ms(int64_t ms)
    {
        constexpr timeval at_once = {};
        fake_clock::advance_ms(ms);
        (void)ipcom_tmo2_select(dnsproxy_data.tmo2Head, 0, nullptr, nullptr, nullptr, &at_once);
    }

    static sockaddr_in6 address6(const char *text)
    {
        sockaddr_in6 address = {};
        EXPECT_EQ(inet_pton(AF_INET6, text, &address.sin6_addr), 1) << text;
        return address;
    }

    // A server interface; "" and "::" are no server.
    static dnsproxy_server_if *add_server_if(const char *ifname, const char *dns, const char *dns2,
                                             const char *dns6 = "::", const char *dns6_2 = "::")
    {
        const sockaddr_in6 first = address6(dns6), second = address6(dns6_2);
        EXPECT_EQ(dnsproxy_server_if_new(ifname, *dns == '\0' ? 0 : inet_addr(dns),
                                         *dns2 == '\0' ? 0 : inet_addr(dns2), &first, &second, 0, 0),
                  0);
        return dnsproxy_server_if_get(ifname);
    }

    static void write_file(const std::string &path, const std::string &text)
    {
        (void)!system(("mkdir -p $(dirname " + path + ")").c_str());
        std::ofstream(path, std::ios::binary) << text;
    }

    fake_clock clock_;
};

#endif
