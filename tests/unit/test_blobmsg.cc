extern "C" {
#include <libubox/blobmsg.h>
}

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "blob_buf.h"
#include "tests/unit/hex.h"

namespace {

struct Buffer : blob_buf {
    Buffer() : blob_buf{} { EXPECT_EQ(blob_buf_init(this, 0), 0); }
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    ~Buffer() { blob_buf_free(this); }
    std::string bytes() const { return {reinterpret_cast<const char *>(head), blob_raw_len(head)}; }
};

// What the records of the bus do not hold already.
const struct {
    const char *name;
    int id;
    void (*build)(blob_buf *b);
    const char *hex;
} messages[] = {
    {"empty", 0, [](blob_buf *) {}, "00000004"},
    {"empty_values_and_names", 0,
     [](blob_buf *b) {
         blobmsg_add_string(b, "status", "");
         blobmsg_add_string(b, "a", "b");
         blobmsg_add_string(b, "", "x");
         blobmsg_add_string(b, nullptr, "y");
     },
     "0000003c 83000011 00067374 61747573 00000000 00000000 8300000a 00016100 62000000 8300000a 00000000 "
     "78000000 8300000a 00000000 79000000"},
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
    {"other_id", 2, [](blob_buf *b) { blobmsg_add_string(b, "k", "v"); },
     "02000010 8300000a 00016b00 76000000"},
};

const blobmsg_policy policy[] = {
    {"name", BLOBMSG_TYPE_STRING},
    {"dev", BLOBMSG_TYPE_STRING},
    {"status", BLOBMSG_TYPE_STRING},
};

std::string found(blob_attr *attr)
{
    return attr != nullptr ? blobmsg_get_string(attr) : "-";
}

blob_attr *find(const blobmsg_policy &entry, void *data, size_t size)
{
    blob_attr *attr = nullptr;
    EXPECT_EQ(blobmsg_parse(&entry, 1, &attr, data, static_cast<unsigned int>(size)), 0);
    return attr;
}

// What a parse by the policy finds in a copy on the heap that is exactly as long, so that the address
// sanitizer sees every byte too far.
struct Parsed {
    explicit Parsed(const std::string &bytes) : copy(bytes.begin(), bytes.end())
    {
        result =
            blobmsg_parse(policy, std::size(policy), tb, copy.data(), static_cast<unsigned int>(copy.size()));
    }
    std::vector<char> copy;
    blob_attr *tb[std::size(policy)];
    int result;
};

} // namespace

TEST(blobmsg, builds_these_bytes)
{
    Buffer b;
    for (const auto &row : messages) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(blob_buf_init(&b, row.id), 0);
        EXPECT_EQ(static_cast<void *>(b.head), b.buf) << "not behind the message before";
        row.build(&b);
        EXPECT_EQ(to_hex(b.bytes()), row.hex);
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
    const std::string before = b.bytes(), long_name(65536, 'n'), big(size_t{15} << 20, 'x');
    EXPECT_EQ(blobmsg_add_field(&b, BLOBMSG_TYPE_UNSPEC, "x", nullptr, UINT32_MAX), -1);
    EXPECT_EQ(blobmsg_add_field(&b, BLOBMSG_TYPE_UNSPEC, "x", nullptr, 1U << 24), -1);
    EXPECT_EQ(blobmsg_add_string(&b, long_name.c_str(), ""), -1);
    EXPECT_EQ(blobmsg_open_nested(&b, long_name.c_str(), false), nullptr);
    EXPECT_EQ(b.bytes(), before);
    void *const table = blobmsg_open_nested(&b, "t", false);
    EXPECT_EQ(blobmsg_add_string(&b, "x", big.c_str()), 0);
    EXPECT_EQ(blobmsg_add_string(&b, "y", big.c_str()), -1);
    blob_nest_end(&b, table);
    EXPECT_EQ(b.bytes().size(), before.size() + 8 + 8 + big.size() + 4);
}

TEST(blobmsg, failed_results_must_be_tested)
{
    static constexpr struct {
        const char *name;
        bool started; // else its memory could not be had
        void (*go_on)(blob_buf *b);
    } rows[] = {
        {"close what was not opened", true, [](blob_buf *b) { blob_nest_end(b, nullptr); }},
        {"add a string", false, [](blob_buf *b) { blobmsg_add_string(b, "dev", "eth0"); }},
        {"add a number", false, [](blob_buf *b) { blobmsg_add_u32(b, "n", 1); }},
        {"open a table", false, [](blob_buf *b) { (void)blobmsg_open_nested(b, "eth0", false); }},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        blob_buf b = {};
        if (!row.started)
            b.grow = [](blob_buf *, int) { return false; };
        ASSERT_EQ(blob_buf_init(&b, 0), row.started ? 0 : -ENOMEM);
        EXPECT_EXIT(row.go_on(&b), testing::KilledBySignal(SIGABRT), "");
        blob_buf_free(&b);
    }
}

TEST(blobmsg, parses_these_bytes)
{
    std::ifstream file(TEST_DATA_DIR "/blobmsg/parses.txt");
    int rows = 0;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("#"))
            continue;
        SCOPED_TRACE(line);
        const Parsed parsed(from_hex(line.substr(0, line.find('|'))));
        const std::string outcome =
            " " + std::to_string(parsed.result) + " | " + found(parsed.tb[0]) + " | " + found(parsed.tb[1]);
        EXPECT_EQ(line.substr(line.find('|') + 1), outcome);
        EXPECT_EQ(parsed.tb[2], nullptr);
        rows++;
    }
    EXPECT_GT(rows, 20);
}
