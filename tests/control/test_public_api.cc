#include "control/public_api.h"

#include <cstring>
#include <string>
#include <vector>

#include "core/platform/qxcom_nmpipe.h"
#include "core/status.h"
#include "tests/support/daemon_state.h"
#include "tests/support/log_capture.h"

namespace {

constexpr uint64_t A = 0x0100'0a0a; // 10.10.0.1
constexpr uint64_t B = 0x0200'0a0a;

dnsproxy_public_msg request(uint32_t op, const char *ifname = "loopback")
{
    dnsproxy_public_msg msg = {};
    msg.op = op;
    strcpy(msg.ifname, ifname);
    return msg;
}

dnsproxy_public_msg with_servers(uint32_t op, const char *ifname, uint32_t flag = 1, uint32_t flag2 = 1)
{
    dnsproxy_public_msg msg = request(op, ifname);
    msg.dnsFlag = flag;
    msg.dns2Flag = flag2;
    msg.dns = A;
    msg.dns2 = B;
    return msg;
}

// A reply pipe that has room for so many messages.
class reply_pipe {
public:
    explicit reply_pipe(int capacity)
    {
        EXPECT_GE(qxcom_nmpipe_create(name, capacity, 240), 0);
        fd_ = qxcom_nmpipe_open(name, NMPIPE_READWRITE, 0);
        EXPECT_GE(fd_, 0);
    }
    ~reply_pipe()
    {
        qxcom_nmpipe_close(fd_);
        qxcom_nmpipe_delete(name);
    }
    reply_pipe(const reply_pipe &) = delete;
    reply_pipe &operator=(const reply_pipe &) = delete;

    // The lengths of the messages in it.
    std::vector<ptrdiff_t> take()
    {
        std::vector<ptrdiff_t> lengths;
        char buffer[NMPIPE_MESSAGE_MAX];
        for (ptrdiff_t got = 0; (got = qxcom_nmpipe_read(fd_, buffer, sizeof buffer)) > 0;)
            lengths.push_back(got);
        return lengths;
    }

    static constexpr char name[] = "dnsp_1";

private:
    int fd_;
};

class public_api : public daemon_state {
protected:
    public_api()
    {
        write_file("/lib/zone/zone_api.sh", "zone_iface_to_userif() { echo $1; }\n"
                                            "zone_get_effect_devices() {\n"
                                            "    case $1 in WAN*) echo wan${1#WAN} ;; esac\n"
                                            "}\n");
        write_file("/tmp/online/state", "wan3=off\n");
        add_server_if("wan1", "10.0.1.53", "");
        add_server_if("wan2", "10.0.2.53", "10.0.2.54");
    }
    ~public_api() override { (void)remove("/tmp/online/state"); }

    static int carry_out(dnsproxy_public_msg *msg)
    {
        const log_capture without_the_dump(DNSPROXY_LOG_EMERGENCY);
        return dnsproxy_public_read(msg);
    }

    // What the operation itself logs, a line each: "LEVEL STATUS TEXT".
    static std::vector<std::string> logged(dnsproxy_public_msg *msg, int *status)
    {
        log_capture log;
        *status = dnsproxy_public_read(msg);
        static const std::string name = "][dnsproxy_public_read:0]:(";
        const std::string text = log.text();
        std::vector<std::string> lines;
        for (size_t at = 0; (at = text.find(name, at)) != std::string::npos; at++) {
            const size_t level = text.rfind('[', at) + 1;
            const size_t value = at + name.size();
            const size_t message = text.find(')', value);
            lines.push_back(text.substr(level, at - level) + ' ' + text.substr(value, message - value) + ' ' +
                            text.substr(message + 1, text.find('\n', message) - message - 1));
        }
        return lines;
    }
};

TEST_F(public_api, says_what_it_does)
{
    const struct {
        dnsproxy_public_msg msg;
        int status;
        std::vector<std::string> lines; // between the first and the last two
    } rows[] = {
        {request(DNSPROXY_DNS_SERVER_GET, "WAN1"), 0, {}},
        {request(DNSPROXY_DNS_SERVER_GET, "WAN3"),
         DNSPROXY_ENOTFOUND,
         {"Notice -9005 Can not find the server if(ifname:wan3)."}},
        {with_servers(DNSPROXY_DNS_SERVER_SET, "WAN1"), 0, {}},
        {with_servers(DNSPROXY_DNS_SERVER_SET, "WAN3"),
         DNSPROXY_ENOTFOUND,
         {"Error -9005 Fail to modify a dns server(ifname:wan3)."}},
        {with_servers(DNSPROXY_DNS_SERVER_ADD, "WAN3", 1, 0),
         DNSPROXY_EINVALID,
         {"Trace 0 DNSPROXY_DNS_SERVER_ADD", "Error -9002 Dns flag is invalid."}},
        {with_servers(DNSPROXY_DNS_SERVER_ADD, "WAN1"),
         DNSPROXY_EEXISTS,
         {"Trace 0 DNSPROXY_DNS_SERVER_ADD", "Error -9004 Fail to create a new dns server."}},
        {with_servers(DNSPROXY_DNS_SERVER_ADD, "WAN3"), 0, {"Trace 0 DNSPROXY_DNS_SERVER_ADD"}},
        {request(DNSPROXY_DNS_SERVER_DEL, "WAN3"), 0, {"Trace 0 DNSPROXY_DNS_SERVER_DEL"}},
        {request(DNSPROXY_DNS_SERVER_DEL, "WAN3"),
         DNSPROXY_ENOTFOUND,
         {"Trace 0 DNSPROXY_DNS_SERVER_DEL", "Notice -9005 Fail to delete a dns server(ifname:wan3)."}},
        {request(DNSPROXY_DNS_SERVER_GETALL),
         DNSPROXY_EINVALID,
         {"Notice -9002 Currently:GETALL Msg op is invalid."}},
        {with_servers(DNSPROXY_DNS_SERVER_ADDORSET, "WAN3", 0, 1),
         DNSPROXY_EINVALID,
         {"Trace 0 DNSPROXY_DNS_SERVER_ADDORSET", "Error -9002 Dns flag is invalid."}},
        {with_servers(DNSPROXY_DNS_SERVER_ADDORSET, "WAN3"),
         0,
         {"Trace 0 DNSPROXY_DNS_SERVER_ADDORSET", "Trace 0 dns:1000a0a,dns2:2000a0a"}},
        {with_servers(DNSPROXY_DNS_SERVER_ADDORSET, "WAN3", 0, 0),
         0,
         {"Trace 0 DNSPROXY_DNS_SERVER_ADDORSET", "Trace 0 dns:1000a0a,dns2:2000a0a"}},
        {request(DNSPROXY_DNS_SERVER_GETADDRS), 0, {}},
        {request(DNSPROXY_DNS_SERVER_GETIFS), 0, {}},
        {request(DNSPROXY_DNS_SERVER_DELALL), 0, {"Trace 0 DNSPROXY_DNS_SERVER_DELALL"}},
        {request(0), DNSPROXY_EINVALID, {"Error -9002 Msg op is invalid."}},
        {request(10), DNSPROXY_EINVALID, {"Error -9002 Msg op is invalid."}},
        {request(UINT32_MAX), DNSPROXY_EINVALID, {"Error -9002 Msg op is invalid."}},
        {request(10, "LAN"), DNSPROXY_EINVALID, {}},
    };
    for (const auto &row : rows) {
        dnsproxy_public_msg msg = row.msg;
        const std::string code = std::to_string(row.status);
        std::vector<std::string> expected = {"Trace 0 ifname:" + std::string(msg.ifname)};
        expected.insert(expected.end(), row.lines.begin(), row.lines.end());
        expected.insert(expected.end(), {"Trace " + code + " THE INFO is:", "Trace " + code + " "});
        int status = 1;
        EXPECT_EQ(logged(&msg, &status), expected) << "op " << msg.op;
        EXPECT_EQ(status, row.status) << "op " << msg.op;
        EXPECT_EQ(msg.result, row.status) << "op " << msg.op;
    }
}

TEST_F(public_api, reply_that_does_not_fit_is_a_failure_of_the_reply_alone)
{
    reply_pipe pipe(1);
    int status = 0;
    dnsproxy_public_msg msg = request(DNSPROXY_DNS_SERVER_GETIFS);
    strcpy(msg.pipeName, reply_pipe::name);
    const std::vector<std::string> expected = {"Trace 0 ifname:loopback",
                                               "Error -9001 Fail to send msg to somebody.",
                                               "Trace -9001 THE INFO is:", "Trace -9001 "};
    EXPECT_EQ(logged(&msg, &status), expected) << "the list does not fit";
    EXPECT_EQ(status, DNSPROXY_ERESOURCE);
    EXPECT_EQ(msg.result, 0);
    EXPECT_EQ(logged(&msg, &status), expected) << "the reply does not fit";
    EXPECT_EQ(status, DNSPROXY_ERESOURCE);
    EXPECT_EQ(pipe.take(), std::vector<ptrdiff_t>{240});

    msg.op = DNSPROXY_DNS_SERVER_GETALL;
    EXPECT_EQ(carry_out(&msg), DNSPROXY_EINVALID);
    EXPECT_EQ(carry_out(&msg), DNSPROXY_ERESOURCE);
}

TEST_F(public_api, nobody_to_reply_to_is_no_failure)
{
    for (const char *name : {"", "nobody", "dnsproxypublicrecvpipe", "../x"}) {
        dnsproxy_public_msg msg = request(DNSPROXY_DNS_SERVER_GETIFS);
        strcpy(msg.pipeName, name);
        int status = 1;
        EXPECT_EQ(logged(&msg, &status).size(), 3U) << name;
        EXPECT_EQ(status, 0) << name;
    }
}

TEST_F(public_api, list_follows_the_reply)
{
    reply_pipe pipe(8);
    const struct {
        uint32_t op;
        uint64_t count;
        std::vector<ptrdiff_t> messages;
    } rows[] = {
        {DNSPROXY_DNS_SERVER_GETADDRS, 3, {240, 32}}, {DNSPROXY_DNS_SERVER_GETIFS, 2, {240, 64}},
        {DNSPROXY_DNS_SERVER_DELALL, 9, {240}},       {DNSPROXY_DNS_SERVER_GETADDRS, 0, {240}},
        {DNSPROXY_DNS_SERVER_GETIFS, 0, {240}},
    };
    for (const auto &row : rows) {
        dnsproxy_public_msg msg = request(row.op);
        msg.count = 9;
        strcpy(msg.pipeName, reply_pipe::name);
        EXPECT_EQ(carry_out(&msg), 0);
        EXPECT_EQ(msg.count, row.count) << "op " << row.op;
        EXPECT_EQ(pipe.take(), row.messages) << "op " << row.op;
    }
}

TEST_F(public_api, change_forgets_the_cache_server)
{
    const struct {
        dnsproxy_public_msg msg;
        bool forgets;
    } rows[] = {
        {request(DNSPROXY_DNS_SERVER_GET, "WAN1"), false},
        {request(DNSPROXY_DNS_SERVER_GETADDRS), false},
        {request(DNSPROXY_DNS_SERVER_GETIFS), false},
        {with_servers(DNSPROXY_DNS_SERVER_SET, "WAN1"), true},
        {with_servers(DNSPROXY_DNS_SERVER_SET, "WAN3"), false},
        {with_servers(DNSPROXY_DNS_SERVER_ADD, "WAN1"), false},
        {with_servers(DNSPROXY_DNS_SERVER_ADD, "WAN3"), true},
        {with_servers(DNSPROXY_DNS_SERVER_ADDORSET, "WAN3"), true},
        {with_servers(DNSPROXY_DNS_SERVER_ADDORSET, "WAN4"), true},
        {request(DNSPROXY_DNS_SERVER_DEL, "WAN5"), false},
        {request(DNSPROXY_DNS_SERVER_DEL, "WAN4"), true},
        {request(DNSPROXY_DNS_SERVER_DELALL), true},
    };
    for (const auto &row : rows) {
        dnsproxy_data.cacheServerSet = 1;
        strcpy(dnsproxy_data.cacheServerIfname, "wan1");
        dnsproxy_public_msg msg = row.msg;
        const int status = carry_out(&msg);
        EXPECT_EQ(dnsproxy_data.cacheServerSet == 0, row.forgets) << "op " << msg.op << ", status " << status;
    }
}

TEST_F(public_api, new_interface_gets_its_link_state)
{
    dnsproxy_public_msg msg = with_servers(DNSPROXY_DNS_SERVER_ADD, "WAN3");
    EXPECT_EQ(carry_out(&msg), 0);
    EXPECT_NE(dnsproxy_server_if_get("wan3")->is_down, 0U);
    msg = with_servers(DNSPROXY_DNS_SERVER_ADDORSET, "WAN4");
    EXPECT_EQ(carry_out(&msg), 0);
    EXPECT_EQ(dnsproxy_server_if_get("wan4")->is_down, 0U);
}

TEST_F(public_api, strings_may_lack_their_nul)
{
    dnsproxy_public_msg msg = request(DNSPROXY_DNS_SERVER_GET);
    memset(msg.ifname, 'x', sizeof msg.ifname);
    memset(msg.pipeName, 'y', sizeof msg.pipeName);
    memset(&msg.dnsFlag, 'z', sizeof msg.dnsFlag);
    int status = 0;
    EXPECT_EQ(logged(&msg, &status).front(), "Trace 0 ifname:" + std::string(sizeof msg.ifname, 'x'));
    EXPECT_EQ(status, DNSPROXY_EINVALID);
}

} // namespace
