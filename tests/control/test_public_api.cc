// What an operation says and forgets; what it does is seen from outside, through the pipe.
#include "control/public_api.h"

#include <cstring>
#include <string>
#include <vector>

#include "platform/qxcom_nmpipe.h"
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

TEST_F(public_api, says_what_it_does_and_forgets_the_cache_server)
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
        {request(DNSPROXY_DNS_SERVER_DELALL), 0, {"Trace 0 DNSPROXY_DNS_SERVER_DELALL"}},
        {request(0), DNSPROXY_EINVALID, {"Error -9002 Msg op is invalid."}},
        {request(10), DNSPROXY_EINVALID, {"Error -9002 Msg op is invalid."}},
        {request(10, "LAN"), DNSPROXY_EINVALID, {}},
    };
    for (const auto &row : rows) {
        dnsproxy_public_msg msg = row.msg;
        const std::string code = std::to_string(row.status);
        std::vector<std::string> expected = {"Trace 0 ifname:" + std::string(msg.ifname)};
        expected.insert(expected.end(), row.lines.begin(), row.lines.end());
        expected.insert(expected.end(), {"Trace " + code + " THE INFO is:", "Trace " + code + " "});
        int status = 1;
        dnsproxy_data.cacheServerSet = 1;
        EXPECT_EQ(logged(&msg, &status), expected) << "op " << msg.op;
        EXPECT_EQ(status, row.status) << "op " << msg.op;
        EXPECT_EQ(msg.result, row.status) << "op " << msg.op;
        const bool only_reads = msg.op == DNSPROXY_DNS_SERVER_GET || msg.op == DNSPROXY_DNS_SERVER_GETADDRS;
        EXPECT_EQ(dnsproxy_data.cacheServerSet, only_reads || status < 0 ? 1U : 0U)
            << "a change forgets the cache server; op " << msg.op;
    }
}

TEST_F(public_api, reply_that_does_not_fit_is_a_failure_of_the_reply_alone)
{
    static constexpr char name[] = "dnsp_1";
    EXPECT_GE(qxcom_nmpipe_create(name, 1, 240), 0);
    dnsproxy_public_msg msg = request(DNSPROXY_DNS_SERVER_GETIFS);
    strcpy(msg.pipeName, name);
    for (const char *what : {"the list does not fit", "the reply does not fit"}) {
        int status = 0;
        EXPECT_EQ(
            logged(&msg, &status),
            (std::vector<std::string>{"Trace 0 ifname:loopback", "Error -9001 Fail to send msg to somebody.",
                                      "Trace -9001 THE INFO is:", "Trace -9001 "}))
            << what;
        EXPECT_EQ(status, DNSPROXY_ERESOURCE) << what;
        EXPECT_EQ(msg.result, 0) << what;
    }
    qxcom_nmpipe_delete(name);
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
