#include "cache/request_cache.h"

#include "cache/cache_server.h"
#include "cache/noreply.h"
#include "platform/nms_event.h"
#include "core/status.h"
#include "tests/support/daemon_state.h"
#include "tests/support/log_capture.h"

namespace {

// The two caches behind one face; hosts are told apart by their number.
struct v4 {
    static uint64_t host(int n) { return htonl(0x0a000000U + static_cast<uint32_t>(n)); }
    static int add(int n, uint16_t port, uint16_t id, uint16_t new_id, const char *ifname, int slot)
    {
        return dnsproxy_add_entry(host(n), port, id, new_id, ifname, slot);
    }
    static auto *find(int n, uint16_t port, uint16_t id) { return dnsproxy_entry_find(host(n), port, id); }
    static auto *by_id(uint16_t new_id) { return dnsproxy_entry_findById(new_id); }
    static const ipcom_list &list() { return dnsproxy_data.cacheList; }
    static constexpr auto deinit = dnsproxy_cache_deinit;
    static void clear_slot(dnsproxy_server_if *sif, int slot) { sif->dnsServer[slot] = 0; }
};

struct v6 {
    static sockaddr_in6 host(int n)
    {
        sockaddr_in6 client = {};
        client.sin6_addr.s6_addr[0] = 0xfd;
        client.sin6_addr.s6_addr[15] = static_cast<uint8_t>(n);
        return client;
    }
    static int add(int n, uint16_t port, uint16_t id, uint16_t new_id, const char *ifname, int slot)
    {
        const sockaddr_in6 client = host(n);
        return dnsproxy_add_entry_v6(0, &client, port, id, new_id, ifname, slot);
    }
    static auto *find(int n, uint16_t port, uint16_t id)
    {
        const sockaddr_in6 client = host(n);
        return dnsproxy_entry_find_v6(0, &client, port, id);
    }
    static auto *by_id(uint16_t new_id) { return dnsproxy_entry_findById_v6(new_id); }
    static const ipcom_list &list() { return dnsproxy_data.cacheList6; }
    static constexpr auto deinit = dnsproxy_cache_deinit_v6;
    static void clear_slot(dnsproxy_server_if *sif, int slot) { sif->dnsServer6[slot] = {}; }
};

template <class Family> class request_cache : public daemon_state {
protected:
    dnsproxy_server_if *wan1_ = add_server_if("wan1", "10.0.1.53", "10.0.1.54", "fd00:1::53", "fd00:1::54");

    static void expire() { pass_time_ms(10000); }
};

using families = testing::Types<v4, v6>;
TYPED_TEST_SUITE(request_cache, families);

TYPED_TEST(request_cache, a_record_is_found_by_its_host_and_by_its_identifier)
{
    using F = TypeParam;
    ASSERT_GE(F::add(1, 1000, 7, 100, "wan1", 1), 0);
    auto *entry = F::find(1, 1000, 7);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(F::by_id(100), entry);
    EXPECT_STREQ(entry->ifname, "wan1");
    EXPECT_EQ(entry->dnsIndex, 1);
    EXPECT_EQ(entry->flags, 0U);
    EXPECT_EQ(F::find(2, 1000, 7), nullptr) << "another host";
    EXPECT_EQ(F::find(1, 1001, 7), nullptr) << "another port";
    EXPECT_EQ(F::find(1, 1000, 8), nullptr) << "another identifier";
    ASSERT_GE(F::add(2, 1000, 7, 101, "wan1", 1), 0);
    ASSERT_GE(F::add(1, 1001, 7, 102, "wan1", 1), 0);
    EXPECT_EQ(F::list().size, 3);
    EXPECT_EQ(F::find(1, 1001, 7)->new_id, 102);
}

TYPED_TEST(request_cache, records_and_timers_outlive_the_tables)
{
    using F = TypeParam;
    for (uint16_t id = 0; id < 3; id++)
        ASSERT_GE(F::add(1, 1000, id, id, "wan1", 0), 0);
    F::deinit();
    for (uint16_t id = 0; id < 3; id++) {
        auto *entry = reinterpret_cast<decltype(F::find(1, 1000, 7))>(ipcom_list_first(&F::list()));
        EXPECT_EQ(entry->new_id, id);
        EXPECT_NE(entry->tmo.queue, nullptr);
        ipcom_tmo2_cancel(&entry->tmo);
        ipcom_list_remove(&entry->link);
    }
}

TYPED_TEST(request_cache, records_live_ten_seconds_from_their_creation)
{
    using F = TypeParam;
    ASSERT_GE(F::add(1, 1000, 7, 100, "wan1", 0), 0);
    this->pass_time_ms(5000);
    ASSERT_GE(F::add(2, 1000, 7, 100, "wan1", 0), 0);
    EXPECT_NE(F::find(1, 1000, 7), nullptr) << "finding it does not renew it";
    EXPECT_EQ(F::by_id(100), F::find(2, 1000, 7)) << "of two under one identifier the newest answers";
    this->pass_time_ms(4999);
    EXPECT_NE(F::find(1, 1000, 7), nullptr);
    this->pass_time_ms(1);
    EXPECT_EQ(F::find(1, 1000, 7), nullptr);
    ASSERT_NE(F::by_id(100), nullptr);
    EXPECT_EQ(F::by_id(100), F::find(2, 1000, 7)) << "each expires by itself";
    EXPECT_EQ(F::list().size, 1);
    this->pass_time_ms(5000);
    EXPECT_EQ(F::by_id(100), nullptr);
}

TYPED_TEST(request_cache, expiry_moves_or_pins_the_index_of_the_device)
{
    using F = TypeParam;
    const struct {
        const char *what;
        int empty_slot; // -1: both slots hold servers
        int index, record_index;
        bool answered;
        int after;
    } rows[] = {
        {"unanswered on slot 0 moves to slot 1", -1, 0, 0, false, 1},
        {"unanswered on slot 1 wraps to slot 0", -1, 1, 1, false, 0},
        {"unanswered on a slot that the index has left changes nothing", -1, 1, 0, false, 1},
        {"unanswered past an empty slot comes back", 1, 0, 0, false, 0},
        {"answered pins its slot", -1, 1, 0, true, 0},
        {"answered pins its slot though it is empty by now", 1, 0, 1, true, 1},
    };
    static constexpr uint16_t ids[] = {7, 8, 100}; // many to one server move the index once
    for (const auto &row : rows) {
        dnsproxy_server_if *sif =
            this->add_server_if("wan2", "10.0.2.53", "10.0.2.54", "fd00:2::53", "fd00:2::54");
        if (row.empty_slot >= 0)
            F::clear_slot(sif, row.empty_slot);
        sif->dnsIndex = row.index;
        for (const uint16_t id : ids)
            ASSERT_GE(F::add(1, 1000, id, id, "wan2", row.record_index), 0);
        if (row.answered)
            for (const uint16_t id : ids)
                F::by_id(id)->flags |= DNSPROXY_ENTRY_ANSWERED;
        this->expire();
        EXPECT_EQ(sif->dnsIndex, row.after) << row.what;
        EXPECT_EQ(dnsproxy_server_if_destroy("wan2"), 0);
    }
}

TYPED_TEST(request_cache, a_record_outlives_its_device)
{
    using F = TypeParam;
    ASSERT_GE(F::add(1, 1000, 7, 100, "wan1", 0), 0);
    ASSERT_EQ(dnsproxy_server_if_destroy("wan1"), 0);
    EXPECT_NE(F::by_id(100), nullptr);
    log_capture capture(DNSPROXY_LOG_NOTICE);
    this->expire();
    EXPECT_NE(capture.text().find("entry server if has been delete(ifname:wan1).\n"), std::string::npos);
    EXPECT_EQ(F::by_id(100), nullptr);
}

TYPED_TEST(request_cache, a_cache_server_that_runs_out_of_slots_hands_over_to_the_next_device)
{
    using F = TypeParam;
    this->add_server_if("wan2", "10.0.2.53", "");
    for (const char *next : {"wan2", "wan1"}) {
        const std::string now = std::string(next) == "wan2" ? "wan1" : "wan2";
        dnsproxy_data.cacheServerSet = 1;
        strcpy(dnsproxy_data.cacheServerIfname, now.c_str());
        dnsproxy_server_if_get(now.c_str())->dnsIndex = 1;
        ASSERT_GE(F::add(1, 1000, 7, 100, now.c_str(), 1), 0);
        log_capture capture(DNSPROXY_LOG_DEBUG);
        this->expire();
        EXPECT_STREQ(dnsproxy_data.cacheServerIfname, next);
        EXPECT_NE(
            capture.text().find("dnsproxy cache server if(oldifname:" + now + " newifname:" + next + ")."),
            std::string::npos);
    }
}

// A reply that goes to a loopback host of the other family keeps the two kinds of hosts apart.
TEST(request_cache_v6, an_ipv4_host_on_loopback_is_found_by_its_ipv4_address)
{
    struct state : daemon_state {
        void TestBody() override {}
    } s;
    const sockaddr_in6 none = {};
    const uint64_t loopback = inet_addr("127.0.0.1");
    ASSERT_GE(dnsproxy_add_entry_v6(loopback, &none, 1000, 7, 100, "wan1", 0), 0);
    EXPECT_EQ(dnsproxy_entry_find_v6(0, &none, 1000, 7), nullptr);
    ASSERT_NE(dnsproxy_entry_find_v6(loopback, &none, 1000, 7), nullptr);
    EXPECT_EQ(dnsproxy_entry_find_v6(loopback, &none, 1000, 7)->from, loopback);
    EXPECT_EQ(dnsproxy_entry_find(loopback, 1000, 7), nullptr) << "the caches are apart";
}

using noreply = daemon_state;

int events; // told to the management

TEST_F(noreply, ten_expiries_without_a_reply_are_reported_once_until_a_reply_comes)
{
    static constexpr struct {
        int expiries;
        bool reply_first;
        int count, armed, events;
    } rows[] = {{9, false, 9, 1, 0}, {1, false, 0, 0, 1}, {10, false, 0, 0, 1},
                {9, true, 9, 1, 1},  {0, true, 0, 1, 1},  {10, false, 0, 0, 2}};
    events = 0;
    for (const auto &row : rows) {
        if (row.reply_first)
            dnsproxy_noreply_reset();
        for (int i = 0; i < row.expiries; i++)
            dnsproxy_noreply_count();
        EXPECT_EQ(dnsproxy_data.noReplyCount, row.count) << "row " << &row - rows;
        EXPECT_EQ(dnsproxy_data.noReplyArmed, row.armed) << "row " << &row - rows;
        EXPECT_EQ(events, row.events) << "row " << &row - rows;
    }
}

class cache_server : public daemon_state {
protected:
    // "DEVICE SLOT", or "" for no choice.
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

TEST_F(cache_server, next_goes_round)
{
    EXPECT_EQ(dnsproxy_server_if_getNext("wan1"), nullptr);
    add_server_if("wan1", "", "");
    add_server_if("wan2", "", "");
    EXPECT_STREQ(dnsproxy_server_if_getNext("wan1"), "wan2");
    EXPECT_STREQ(dnsproxy_server_if_getNext("wan2"), "wan1");
    EXPECT_STREQ(dnsproxy_server_if_getNext("unknown"), "wan1");
}

TEST_F(cache_server, a_choice_stays_until_its_slots_are_used_up)
{
    dnsproxy_server_if *wan1 = add_server_if("wan1", "", "");
    EXPECT_EQ(choice(), "");
    EXPECT_EQ(dnsproxy_data.cacheServerSet, 0U);

    dnsproxy_server_if *wan2 = add_server_if("wan2", "10.0.2.53", "10.0.2.54");
    EXPECT_EQ(choice(), "wan2 0");
    EXPECT_STREQ(dnsproxy_data.cacheServerIfname, "wan2");

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

    dnsproxy_server_if_resetCache();
    EXPECT_EQ(dnsproxy_data.cacheServerSet, 0U);
    EXPECT_STREQ(dnsproxy_data.cacheServerIfname, "wan1") << "the name stays";
}

} // namespace

// Stands in for the one that looks for the management's library.
int nms_event_notify(int32_t code, void *, const char *text)
{
    events += code == 10801001 && std::string(text) == "{}" ? 1 : 0;
    return 0;
}
