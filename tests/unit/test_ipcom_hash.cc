#include "platform/ipcom_hash.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

struct record {
    uint32_t key;
    int serial;
};

int compared; // calls of the compare callback

uint32_t hash_key(const void *key)
{
    return ipcom_hash_update(key, sizeof(uint32_t), 0);
}

uint32_t hash_record(const void *r)
{
    return hash_key(&static_cast<const record *>(r)->key);
}

int matches(const void *r, const void *key)
{
    compared++;
    return static_cast<const record *>(r)->key == *static_cast<const uint32_t *>(key);
}

uint32_t one_hash_for_all(const void *)
{
    return 7;
}

class table {
public:
    explicit table(int buckets, ipcom_hash_obj_fn obj = hash_record, ipcom_hash_key_fn key = hash_key)
        : hash_(ipcom_hash_new_fixed(obj, key, matches, buckets))
    {
    }
    ~table() { ipcom_hash_delete(hash_); }
    table(const table &) = delete;
    table &operator=(const table &) = delete;
    operator ipcom_hash *() { return hash_; }
    record *find(uint32_t key) { return static_cast<record *>(ipcom_hash_get(hash_, &key)); }

private:
    ipcom_hash *hash_;
};

TEST(ipcom_hash, update_chains_and_repeats)
{
    const char bytes[] = "abcdef";
    EXPECT_EQ(ipcom_hash_update(bytes, 6, 1), ipcom_hash_update(bytes, 6, 1));
    EXPECT_NE(ipcom_hash_update(bytes, 6, 1), ipcom_hash_update(bytes, 6, 2));
    EXPECT_NE(ipcom_hash_update(bytes, 5, 1), ipcom_hash_update(bytes, 6, 1));
    // A chain over the same fields in the same order, as the keys of the caches are hashed.
    EXPECT_EQ(ipcom_hash_update(bytes + 2, 4, ipcom_hash_update(bytes, 2, 0)),
              ipcom_hash_update(bytes + 2, 4, ipcom_hash_update(bytes, 2, 0)));
}

// In a process that has hashed nothing yet; ThreadSanitizer watches.
TEST(ipcom_hash_death, threads_that_hash_at_once_agree)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto hash_in_two_threads = [] {
        const table t(4);
        uint32_t results[2] = {};
        std::thread other([&] { results[0] = ipcom_hash_update("same", 4, 0); });
        results[1] = ipcom_hash_update("same", 4, 0);
        other.join();
        _exit(results[0] == results[1] ? 0 : 1);
    };
    EXPECT_EXIT(hash_in_two_threads(), testing::ExitedWithCode(0), "");
}

TEST(ipcom_hash, bad_bucket_counts_are_refused)
{
    EXPECT_EQ(ipcom_hash_new_fixed(hash_record, hash_key, matches, 0), nullptr);
    EXPECT_EQ(ipcom_hash_new_fixed(hash_record, hash_key, matches, -1), nullptr);
}

TEST(ipcom_hash, hardly_a_record_with_another_hash_is_compared)
{
    table t(1); // everything shares the bucket
    std::vector<record> records(100);
    for (uint32_t i = 0; i < records.size(); i++) {
        records[i].key = i;
        ASSERT_EQ(ipcom_hash_add(t, &records[i]), 0);
    }
    compared = 0;
    EXPECT_EQ(t.find(50), &records[50]);
    EXPECT_LE(compared, 3) << "16 bits of the hashes are alike";
}

// A random life against a model, over few buckets (which grow and shrink) and many.
TEST(ipcom_hash, agrees_with_a_model)
{
    for (const int buckets : {1, 3, 512}) {
        table t(buckets);
        std::mt19937 random(1);
        std::vector<std::unique_ptr<record>> live;
        int serial = 0;
        for (int step = 0; step < 30000; step++) {
            const bool growing = step / 3000 % 2 == 0;
            if (live.empty() || random() % 10 < (growing ? 7U : 3U)) {
                live.push_back(
                    std::make_unique<record>(record{static_cast<uint32_t>(random() % 500), serial++}));
                ASSERT_EQ(ipcom_hash_add(t, live.back().get()), 0);
            } else {
                const size_t at = random() % live.size();
                ASSERT_EQ(ipcom_hash_remove(t, live[at].get()), 0);
                ASSERT_EQ(ipcom_hash_remove(t, live[at].get()), -1);
                live.erase(live.begin() + static_cast<ptrdiff_t>(at));
            }
            const auto key = static_cast<uint32_t>(random() % 500);
            const auto newest =
                std::find_if(live.rbegin(), live.rend(), [&](const auto &r) { return r->key == key; });
            ASSERT_EQ(t.find(key), newest == live.rend() ? nullptr : newest->get()) << "step " << step;
        }
    }
}

struct visit {
    ipcom_hash *table;
    std::multiset<int> seen;
    int keep_every; // 0: all are removed and freed
};

int remove_and_free(void *r, void *data)
{
    auto *v = static_cast<visit *>(data);
    auto *visited = static_cast<record *>(r);
    v->seen.insert(visited->serial);
    if (v->keep_every != 0 && visited->serial % v->keep_every == 0)
        return 0;
    EXPECT_EQ(ipcom_hash_remove(v->table, visited), 0);
    delete visited;
    return 0;
}

TEST(ipcom_hash, for_each_survives_removal_and_freeing_of_what_it_visits)
{
    for (const auto obj : {hash_record, one_hash_for_all}) {
        for (const int keep_every : {0, 3}) {
            table t(16, obj, obj == hash_record ? hash_key : one_hash_for_all);
            for (int i = 0; i < 200; i++)
                ASSERT_EQ(ipcom_hash_add(t, new record{static_cast<uint32_t>(i), i}), 0);
            visit v{t, {}, keep_every};
            ipcom_hash_for_each(t, remove_and_free, &v);
            EXPECT_EQ(v.seen.size(), 200U);
            EXPECT_EQ(std::set<int>(v.seen.begin(), v.seen.end()).size(), 200U) << "each once";
            visit rest{t, {}, 0};
            ipcom_hash_for_each(t, remove_and_free, &rest);
            EXPECT_EQ(rest.seen.size(), keep_every == 0 ? 0U : 67U);
        }
    }
}

} // namespace
