#include "net/intf_monitor.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/log_capture.h"

namespace {

// A netlink message with its header only, or with a length of its own.
std::string message(uint16_t type, uint32_t length = sizeof(nlmsghdr))
{
    nlmsghdr header = {};
    header.nlmsg_len = length;
    header.nlmsg_type = type;
    std::string bytes(reinterpret_cast<const char *>(&header), sizeof header);
    if (length > sizeof header && length < 1000)
        bytes.resize((length + 3) / 4 * 4);
    return bytes;
}

class intf_monitor : public testing::Test {
protected:
    void SetUp() override
    {
        dnsproxy_data = {};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, fds_), 0);
        dnsproxy_data.intfFd = fds_[0];
    }
    void TearDown() override
    {
        if (dnsproxy_data.ifNameIndex != nullptr)
            if_freenameindex(dnsproxy_data.ifNameIndex);
        close(fds_[0]);
        close(fds_[1]);
    }

    int fds_[2] = {};
};

TEST_F(intf_monitor, a_batch_with_a_link_message_rebuilds_the_list)
{
    const uint32_t whole = sizeof(nlmsghdr);
    const struct {
        const char *what;
        std::string batch;
        bool rebuilt;
        int unknown;
    } rows[] = {
        {"new link", message(RTM_NEWLINK), true, 0},
        {"deleted link", message(RTM_DELLINK), true, 0},
        {"link behind others", message(RTM_NEWADDR) + message(RTM_NEWROUTE, 21) + message(RTM_NEWLINK), true,
         2},
        {"nothing behind the first link is looked at", message(RTM_NEWLINK) + message(RTM_NEWADDR), true, 0},
        {"no link", message(RTM_NEWADDR) + message(RTM_DELROUTE), false, 2},
        {"length below a header", message(RTM_NEWLINK, whole - 1), false, 0},
        {"length beyond the batch", message(RTM_NEWLINK, 4000), false, 0},
        {"length of all ones", message(RTM_NEWADDR) + message(RTM_NEWLINK, UINT32_MAX), false, 1},
        {"less than a header", message(RTM_NEWLINK).substr(0, whole - 1), false, 0},
        {"nothing", "", false, 0},
    };
    for (const auto &row : rows) {
        ASSERT_EQ(send(fds_[1], row.batch.data(), row.batch.size(), 0),
                  static_cast<ssize_t>(row.batch.size()));
        dnsproxy_data.ifNameIndex = nullptr;
        log_capture capture(DNSPROXY_LOG_NOTICE);
        EXPECT_EQ(dnsproxy_intf_socket_recv(), 0);
        const std::string text = capture.text();
        EXPECT_EQ(dnsproxy_data.ifNameIndex != nullptr, row.rebuilt) << row.what;
        EXPECT_EQ(text.find("*****Interfece 1 : lo\n") != std::string::npos, row.rebuilt) << row.what;
        int unknown = 0;
        for (size_t at = 0; (at = text.find("*****unknown nlh->nlmsg_type = ", at)) != std::string::npos;
             at++)
            unknown++;
        EXPECT_EQ(unknown, row.unknown) << row.what;
        if (dnsproxy_data.ifNameIndex != nullptr)
            if_freenameindex(dnsproxy_data.ifNameIndex);
    }
    dnsproxy_data.ifNameIndex = nullptr;
    EXPECT_EQ(dnsproxy_intf_socket_recv(), 0) << "a failed receive";
    EXPECT_EQ(dnsproxy_data.ifNameIndex, nullptr);
}

TEST_F(intf_monitor, names_come_from_the_list_into_a_buffer_that_is_large_enough)
{
    char name[32] = {};
    EXPECT_EQ(dns_if_indextoname(1, name, sizeof name), -1) << "no list";
    struct if_nameindex list[] = {
        {7, const_cast<char *>("fifteen-letters")}, {9, const_cast<char *>("lo")}, {}};
    dnsproxy_data.ifNameIndex = list;
    EXPECT_EQ(dns_if_indextoname(7, name, 16), 0);
    EXPECT_STREQ(name, "fifteen-letters");
    EXPECT_EQ(dns_if_indextoname(9, name, 16), 0);
    EXPECT_STREQ(name, "lo");
    for (const int index : {0, -1, 8})
        EXPECT_EQ(dns_if_indextoname(index, name, 16), -1) << index;
    log_capture capture(DNSPROXY_LOG_ERROR);
    EXPECT_EQ(dns_if_indextoname(7, name, 15), -1);
    EXPECT_NE(capture.text().find("*****wrong buffer size:15 (at least:16)!!!\r\n"), std::string::npos);
    dnsproxy_data.ifNameIndex = nullptr;
}

} // namespace
