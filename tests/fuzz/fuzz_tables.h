// The interface tables and the timers, empty at the start of an input; what holds of them at its end.
#ifndef TESTS_FUZZ_FUZZ_TABLES_H
#define TESTS_FUZZ_FUZZ_TABLES_H

#include <string>

#include "core/data_init.h"
#include "core/dnsproxy_data.h"
#include "iface/if_init.h"
#include "iface/listen_if.h"
#include "iface/server_if.h"
#include "tests/fuzz/fuzz.h"
#include "tests/model/fake_clock.h"

class fuzz_tables {
public:
    fuzz_tables()
    {
        dnsproxy_data = {};
        FUZZ_CHECK(dnsproxy_data_init() == 0 && dnsproxy_if_init() == 0);
    }
    ~fuzz_tables()
    {
        check();
        while (auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList))
            FUZZ_CHECK(dnsproxy_server_if_destroy(std::string(sif->ifname).c_str()) == 0);
        while (auto *lif = ipcom_first<dnsproxy_listen_if>(dnsproxy_data.listenIfList))
            FUZZ_CHECK(dnsproxy_listen_if_destroy(std::string(lif->ifname_receive).c_str()) == 0);
        // No timer of a record that has gone is left to run.
        pass_time_ms(24 * 60 * 60 * 1000);
        dnsproxy_if_deinit();
        dnsproxy_data_deinit();
        FUZZ_CHECK(lowest_free_fd() == first_free_fd_);
    }
    fuzz_tables(const fuzz_tables &) = delete;
    fuzz_tables &operator=(const fuzz_tables &) = delete;

    static void pass_time_ms(int64_t ms)
    {
        constexpr timeval at_once = {};
        fake_clock::advance_ms(ms);
        (void)ipcom_tmo2_select(dnsproxy_data.tmo2Head, 0, nullptr, nullptr, nullptr, &at_once);
    }

    static void add_line(const char *ifname)
    {
        constexpr sockaddr_in6 none = {};
        FUZZ_CHECK(dnsproxy_server_if_new(ifname, 0x3501000a, 0, &none, &none, 0, 0) == 0);
    }

    // Every record is the one that its name finds, and the lists have as many as they say.
    static void check()
    {
        int lines = 0;
        for (auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList); sif != nullptr;
             sif = ipcom_next(sif), lines++) {
            FUZZ_CHECK(memchr(sif->ifname, '\0', sizeof sif->ifname) != nullptr);
            FUZZ_CHECK(strcmp(sif->ifname, "lo") != 0);
            FUZZ_CHECK(dnsproxy_server_if_get(sif->ifname) == sif);
        }
        FUZZ_CHECK(lines == dnsproxy_data.serverIfList.size);
        int networks = 0;
        for (auto *lif = ipcom_first<dnsproxy_listen_if>(dnsproxy_data.listenIfList); lif != nullptr;
             lif = ipcom_next(lif), networks++) {
            FUZZ_CHECK(strnlen(lif->ifname_receive, IF_NAMESIZE) < IF_NAMESIZE);
            FUZZ_CHECK(strnlen(lif->out_ifname, IF_NAMESIZE) < IF_NAMESIZE);
            FUZZ_CHECK(dnsproxy_listen_if_findByname(lif->ifname_receive) == lif);
            FUZZ_CHECK(ipcom_hash_get(dnsproxy_data.listenIfHash, lif->ifname_receive) == lif);
        }
        FUZZ_CHECK(networks == dnsproxy_data.listenIfList.size);
        FUZZ_CHECK(memchr(dnsproxy_data.pppoesIfname, '\0', IF_NAMESIZE) != nullptr);
    }

    // Where every line was entered before the first change of a link state.
    static void check_link_states()
    {
        bool all_down = true;
        for (const auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList); sif != nullptr;
             sif = ipcom_next(sif)) {
            FUZZ_CHECK(sif->is_down <= 1);
            all_down = all_down && sif->is_down == 1;
        }
        FUZZ_CHECK(server_if_all_down() == all_down);
    }

private:
    static int lowest_free_fd()
    {
        const int fd = dup(STDERR_FILENO);
        FUZZ_CHECK(fd >= 0 && close(fd) == 0);
        return fd;
    }

    int first_free_fd_ = lowest_free_fd();
    fake_clock clock_;
};

#endif
