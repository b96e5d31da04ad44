extern "C" {
#include <libubox/blobmsg.h>
}

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "blob_buf.h"

namespace {

// Blanks in the text are for the reader.
std::string from_hex(const std::string &text)
{
    std::string bytes;
    int nibbles = 0;
    int value = 0;
    for (const char c : text) {
        if (c == ' ')
            continue;
        value = value * 16 + (c <= '9' ? c - '0' : c - 'a' + 10);
        if (++nibbles % 2 == 0) {
            bytes += static_cast<char>(value);
            value = 0;
        }
    }
    return bytes;
}

std::string to_hex(const std::string &bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i != 0 && i % 4 == 0)
            text += ' ';
        const auto byte = static_cast<uint8_t>(bytes[i]);
        text += {digits[byte >> 4], digits[byte & 15]};
    }
    return text;
}

struct Buffer : blob_buf {
    explicit Buffer(int id = 0) : blob_buf{} { EXPECT_EQ(blob_buf_init(this, id), 0); }
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    ~Buffer() { blob_buf_free(this); }
    std::string bytes() const { return {reinterpret_cast<const char *>(head), blob_raw_len(head)}; }
};

void add_interface(blob_buf *b, const char *name, const char *status)
{
    void *const table = blobmsg_open_nested(b, name, false);
    blobmsg_add_string(b, "dev", name);
    blobmsg_add_string(b, "status", status);
    blob_nest_end(b, table);
}

const struct {
    const char *name;
    int id;
    void (*build)(blob_buf *b);
    const char *hex;
} messages[] = {
    {"empty", 0, [](blob_buf *) {}, "00000004"},
    {"three_strings", 0,
     [](blob_buf *b) {
         blobmsg_add_string(b, "name", "lan");
         blobmsg_add_string(b, "dev", "eth0");
         blobmsg_add_string(b, "status", "on");
     },
     "0000003c 83000010 00046e61 6d650000 6c616e00 83000011 00036465 76000000 65746830 00000000 83000013 "
     "00067374 61747573 00000000 6f6e0000"},
    {"empty_values_and_names", 0,
     [](blob_buf *b) {
         blobmsg_add_string(b, "status", "");
         blobmsg_add_string(b, "a", "b");
         blobmsg_add_string(b, "", "x");
         blobmsg_add_string(b, nullptr, "y");
     },
     "0000003c 83000011 00067374 61747573 00000000 00000000 8300000a 00016100 62000000 8300000a 00000000 "
     "78000000 8300000a 00000000 79000000"},
    {"tables", 0,
     [](blob_buf *b) {
         add_interface(b, "eth0", "on");
         add_interface(b, "ppp-wan1", "off");
     },
     "00000074 82000034 00046574 68300000 83000011 00036465 76000000 65746830 00000000 83000013 00067374 "
     "61747573 00000000 6f6e0000 8200003c 00087070 702d7761 6e310000 83000015 00036465 76000000 7070702d "
     "77616e31 00000000 83000014 00067374 61747573 00000000 6f666600"},
    {"arrays", 0,
     [](blob_buf *b) {
         void *const list = blobmsg_open_nested(b, "l", true);
         blobmsg_add_string(b, "", "x");
         blobmsg_add_u32(b, "", 258);
         blobmsg_add_u8(b, "", 1);
         blob_nest_end(b, list);
         blob_nest_end(b, blobmsg_open_nested(b, "e", false));
         blob_nest_end(b, blobmsg_open_nested(b, nullptr, true));
     },
     "00000040 8100002c 00016c00 8300000a 00000000 78000000 8500000c 00000000 00000102 87000009 00000000 "
     "01000000 82000008 00016500 81000008 00000000"},
    {"every_type", 0,
     [](blob_buf *b) {
         blobmsg_add_u8(b, "i8", 255);
         blobmsg_add_u16(b, "i16", 4660);
         blobmsg_add_u32(b, "i32", 305419896);
         blobmsg_add_u64(b, "i64", 81985529216486895);
         blobmsg_add_field(b, BLOBMSG_TYPE_DOUBLE, "d", "\x3f\xf8\0\0\0\0\0", 8);
         blobmsg_add_field(b, BLOBMSG_TYPE_UNSPEC, "n", nullptr, 0);
         blobmsg_add_field(b, BLOBMSG_TYPE_UNSPEC, "bin", "\1\2\3", 3);
     },
     "00000070 8700000d 00026938 00000000 ff000000 8600000e 00036931 36000000 12340000 85000010 00036933 "
     "32000000 12345678 84000014 00036936 34000000 01234567 89abcdef 88000010 00016400 3ff80000 00000000 "
     "80000008 00016e00 8000000f 00036269 6e000000 01020300"},
    {"signature", 0,
     [](blob_buf *b) {
         void *const update = blobmsg_open_nested(b, "update_if", false);
         for (const char *name : {"name", "dev", "status"})
             blobmsg_add_u32(b, name, BLOBMSG_TYPE_STRING);
         blob_nest_end(b, update);
         blob_nest_end(b, blobmsg_open_nested(b, "get_state", false));
     },
     "00000058 82000044 00097570 64617465 5f696600 85000010 00046e61 6d650000 00000003 85000010 00036465 "
     "76000000 00000003 85000014 00067374 61747573 00000000 00000003 82000010 00096765 745f7374 61746500"},
    {"utf8_and_control", 0, [](blob_buf *b) { blobmsg_add_string(b, "k", "\u00e9\u0001"); },
     "00000010 8300000c 00016b00 c3a90100"},
    {"plain_attributes", 0,
     [](blob_buf *b) {
         EXPECT_EQ(blob_put_u32(b, 3, 0xdeadbeef), 0);
         EXPECT_EQ(blob_put(b, 4, "get_state", 10), 0);
         EXPECT_EQ(blob_put(b, 10, "\1", 1), 0);
         void *const nested = blob_nest(b, blob_kind(7), 0);
         blobmsg_add_string(b, "k", "v");
         blob_nest_end(b, nested);
         EXPECT_EQ(blob_put(b, 7, nullptr, 0), 0);
     },
     "00000038 03000008 deadbeef 0400000e 6765745f 73746174 65000000 0a000005 01000000 07000010 8300000a "
     "00016b00 76000000 07000004"},
    {"other_id", 2, [](blob_buf *b) { blobmsg_add_string(b, "k", "v"); },
     "02000010 8300000a 00016b00 76000000"},
};

const blobmsg_policy policy[] = {
    {"name", BLOBMSG_TYPE_STRING},
    {"dev", BLOBMSG_TYPE_STRING},
    {"status", BLOBMSG_TYPE_STRING},
};
constexpr int entries = 3;

blob_attr *find(const blobmsg_policy &entry, void *data, size_t size)
{
    blob_attr *attr = nullptr;
    EXPECT_EQ(blobmsg_parse(&entry, 1, &attr, data, static_cast<unsigned int>(size)), 0);
    return attr;
}

std::string found(blob_attr *attr)
{
    return attr != nullptr ? blobmsg_get_string(attr) : "-";
}

} // namespace

TEST(blobmsg, builds_these_bytes)
{
    for (const auto &row : messages) {
        SCOPED_TRACE(row.name);
        Buffer b(row.id);
        row.build(&b);
        EXPECT_EQ(to_hex(b.bytes()), to_hex(from_hex(row.hex)));
    }
}

TEST(blobmsg, buffer_is_used_again)
{
    Buffer b;
    for (const auto &row : messages) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(blob_buf_init(&b, row.id), 0);
        row.build(&b);
        EXPECT_EQ(to_hex(b.bytes()), to_hex(from_hex(row.hex)));
    }
}

TEST(blobmsg, nested_stays_right_while_memory_moves)
{
    Buffer b;
    const std::string big(100'000, 'x');
    void *const outer = blobmsg_open_nested(&b, "outer", false);
    void *const inner = blobmsg_open_nested(&b, "inner", false);
    ASSERT_EQ(blobmsg_add_string(&b, "dev", big.c_str()), 0);
    blob_nest_end(&b, inner);
    ASSERT_EQ(blobmsg_add_string(&b, "name", "behind"), 0);
    blob_nest_end(&b, outer);

    blob_attr *const o = find({"outer", BLOBMSG_TYPE_TABLE}, blob_data(b.head), blob_len(b.head));
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(found(find(policy[0], blobmsg_data(o), blobmsg_len(o))), "behind");
    blob_attr *const i = find({"inner", BLOBMSG_TYPE_TABLE}, blobmsg_data(o), blobmsg_data_len(o));
    ASSERT_NE(i, nullptr);
    EXPECT_EQ(found(find(policy[1], blobmsg_data(i), blobmsg_len(i))), big);
}

TEST(blobmsg, refuses_what_no_length_can_tell)
{
    Buffer b;
    ASSERT_EQ(blobmsg_add_string(&b, "a", "b"), 0);
    const std::string before = b.bytes();
    const std::string big(size_t{15} << 20, 'x');
    EXPECT_EQ(blobmsg_add_field(&b, BLOBMSG_TYPE_UNSPEC, "x", nullptr, UINT32_MAX), -1);
    EXPECT_EQ(blobmsg_add_field(&b, BLOBMSG_TYPE_UNSPEC, "x", nullptr, 1U << 24), -1);
    EXPECT_EQ(blobmsg_add_string(&b, std::string(65536, 'n').c_str(), ""), -1);
    EXPECT_EQ(blobmsg_open_nested(&b, std::string(65536, 'n').c_str(), false), nullptr);
    EXPECT_EQ(b.bytes(), before);
    void *const table = blobmsg_open_nested(&b, "t", false);
    EXPECT_EQ(blobmsg_add_string(&b, "x", big.c_str()), 0);
    EXPECT_EQ(blobmsg_add_string(&b, "y", big.c_str()), -1);
    blob_nest_end(&b, table);
    EXPECT_EQ(b.bytes().size(), before.size() + 8 + 8 + big.size() + 4);
}

TEST(blobmsg, parses_these_bytes)
{
    static const struct {
        const char *hex;
        int result;
        const char *name;
        const char *dev;
    } rows[] = {
        {"83000010 00046e61 6d650000 6c616e00", 0, "lan", "-"},
        {"85000010 00046e61 6d650000 00000001 83000010 00046e61 6d650000 6c616e00", 0, "lan", "-"},
        {"83000010 00046e61 6d650000 6c616e00 83000010 00046e61 6d650000 77616e00", 0, "lan", "-"},
        {"83000011 00036465 76000000 65746830 00000000 83000010 00046e61 6d650000 6c616e61", -1, "-", "eth0"},
        {"8300000c 00046e61 6d650000", -1, "-", "-"},
        {"8300000d 00046e61 6d650000 00000000", 0, "", "-"},
        {"8300000d 00046e61 6d650000 00", 0, "-", "-"},
        {"83000010 00046e61 6d650000 6c616e00 83000040 00036465 76000000", 0, "lan", "-"},
        {"03000008 6c616e00 83000010 00046e61 6d650000 6c616e00", 0, "lan", "-"},
        {"83000010 00036e61 6d650000 6c616e00", -1, "-", "-"},
        {"89000010 00046e61 6d650000 6c616e00", -1, "-", "-"},
        {"82000030 00017400 83000010 00046e61 6d650000 6c616e00 83000011 00036465 76000000 65746830 00000000",
         0, "-", "-"},
        {"83000010 00036465 76000000 61006200", 0, "-", "a"},
        // Cut off, or no attribute at all.
        {"83000010 00046e61 6d650000 6c616e00 830000", 0, "lan", "-"},
        {"83000000 83000010 00046e61 6d650000 6c616e00", 0, "-", "-"},
        {"83000003 83000010 00046e61 6d650000 6c616e00", -1, "-", "-"},
        // The name does not fit: no room for its length, for itself, for its padding.
        {"83000004", -1, "-", "-"},
        {"83000006 00000000", -1, "-", "-"},
        {"83000010 ffff6e61 6d650000 6c616e00", -1, "-", "-"},
        {"8300000b 00046e61 6d650000", -1, "-", "-"},
        // Numbers of the wrong size.
        {"8700000e 00026938 00000000 ff000000", -1, "-", "-"},
        {"8600000d 00026938 00000000 ff000000", -1, "-", "-"},
        {"8500000f 00026938 00000000 ff000000", -1, "-", "-"},
        {"84000010 00026938 00000000 ff000000", -1, "-", "-"},
        {"8800000f 00016400 3ff80000 00000000", -1, "-", "-"},
        {"88000014 00016400 3ff80000 00000000 00000000", 0, "-", "-"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.hex);
        // On the heap and exactly as long, so that the address sanitizer sees every byte too far.
        const std::string bytes = from_hex(row.hex);
        const auto data = std::make_unique<char[]>(bytes.size());
        memcpy(data.get(), bytes.data(), bytes.size());
        blob_attr *tb[entries];
        const int result =
            blobmsg_parse(policy, entries, tb, data.get(), static_cast<unsigned int>(bytes.size()));
        EXPECT_EQ(result, row.result);
        EXPECT_EQ(found(tb[0]), row.name);
        EXPECT_EQ(found(tb[1]), row.dev);
        EXPECT_EQ(tb[2], nullptr);
    }
}

TEST(blobmsg, nothing_to_parse_is_invalid)
{
    char byte = 0;
    blob_attr attr = {};
    blob_attr *tb[entries] = {&attr, &attr, &attr};
    EXPECT_EQ(blobmsg_parse(policy, entries, tb, nullptr, 4), -EINVAL);
    EXPECT_EQ(tb[2], nullptr);
    EXPECT_EQ(blobmsg_parse(policy, entries, tb, &byte, 0), -EINVAL);
}

TEST(blobmsg, policy_entry_may_take_any_type)
{
    Buffer b;
    blobmsg_add_u32(&b, "name", 0x01020304);
    blobmsg_add_string(&b, std::string(256, 'n').c_str(), "long");
    const std::string longest(255, 'n');
    const std::string tooLong(256, 'n');
    blobmsg_add_string(&b, longest.c_str(), "fits");
    const blobmsg_policy any[] = {
        {"name", BLOBMSG_TYPE_UNSPEC},          {"name", BLOBMSG_TYPE_INT32},
        {"name", BLOBMSG_TYPE_STRING},          {longest.c_str(), BLOBMSG_TYPE_STRING},
        {tooLong.c_str(), BLOBMSG_TYPE_STRING},
    };
    blob_attr *tb[5];
    ASSERT_EQ(blobmsg_parse(any, 5, tb, blob_data(b.head), static_cast<unsigned int>(blob_len(b.head))), 0);
    ASSERT_NE(tb[0], nullptr);
    EXPECT_EQ(tb[1], tb[0]);
    EXPECT_EQ(tb[2], nullptr);
    EXPECT_EQ(found(tb[3]), "fits");
    EXPECT_EQ(tb[4], nullptr);
    EXPECT_EQ(blobmsg_type(tb[0]), BLOBMSG_TYPE_INT32);
    EXPECT_STREQ(blobmsg_name(tb[0]), "name");
    EXPECT_EQ(blobmsg_len(tb[0]), 4U);
    EXPECT_EQ(memcmp(blobmsg_data(tb[0]), "\1\2\3\4", 4), 0);
    EXPECT_EQ(blob_id(tb[0]), static_cast<unsigned int>(BLOBMSG_TYPE_INT32));
    EXPECT_EQ(blob_pad_len(tb[3]), blob_padded(blob_raw_len(tb[3])));
    EXPECT_EQ(blobmsg_get_string(nullptr), nullptr);
}

// What a message of ours becomes by a changed byte or a cut: nothing is read outside, and what is found can
// be used.
TEST(blobmsg, survives_damage)
{
    std::mt19937 random(1);
    for (const auto &row : messages) {
        const std::string good = from_hex(row.hex).substr(4);
        for (int round = 0; round < 2000; ++round) {
            std::string bytes = good.substr(0, random() % (good.size() + 1));
            for (unsigned i = 0; i < 2 && !bytes.empty(); ++i)
                bytes[random() % bytes.size()] =
                    static_cast<char>(random() % 4 == 0 ? random() : random() % 16);
            const auto data = std::make_unique<char[]>(bytes.size());
            memcpy(data.get(), bytes.data(), bytes.size());
            blob_attr *tb[entries];
            (void)blobmsg_parse(policy, entries, tb, data.get(), static_cast<unsigned int>(bytes.size()));
            for (blob_attr *attr : tb) {
                if (attr != nullptr) {
                    EXPECT_LT(strlen(blobmsg_get_string(attr)), blobmsg_len(attr));
                }
            }
        }
    }
}
