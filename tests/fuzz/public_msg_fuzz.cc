// Requests through the request pipe, one after the other, into the server table, and their replies. An input
// is a sequence of steps; the first byte of each says what it is.
#include "control/public_api.h"

#include <cerrno>
#include <vector>

#include "control/public_msg.h"
#include "core/status.h"
#include "net/proxy_socket.h"
#include "platform/qxcom_nmpipe.h"
#include "tests/fuzz/fuzz_tables.h"
#include "tests/fuzz/mapping_command.h"

namespace {

constexpr int most_steps = 16;

// What is no step below is the operation of a request.
enum step : uint8_t {
    whole_message = 0xff, // 240 bytes follow
    other_length = 0xfe,  // a message of another length; 2 bytes, and what it begins with
    sockets_open = 0xfd,  // the upstream sockets of every line
    time_passes = 0xfc,   // 1 byte, seconds
    links_change = 0xfb,  // the link-state file, up to a separator
};

// Behind the operation of a request: a byte of these, a byte for the name, a byte for each server, and what
// the mapping command prints.
enum option : uint8_t {
    first_given = 0x01,
    second_given = 0x02,
    not_v4 = 0x04,
    not_v6 = 0x08,
    reply_pipe = 0x30, // one of reply_pipes
    mapped = 0x40,     // the command's output follows, up to a separator
    shown = 0x80,      // the dump of the tables is made; it costs as much as all the rest
};

constexpr const char *names[] = {"loopback", "wan1", "wan2", "wan3", "lt-vpn1", "pt-vpn2", "", "a;b"};
constexpr const char *reply_pipes[] = {"roomy", "small", DNSPROXY_REQUEST_PIPE, "missing"};

bool is_shown; // the dump of the request in work

// Pipes live as long as the process; an input leaves them empty.
int make_pipe(const char *name, int capacity)
{
    FUZZ_CHECK(qxcom_nmpipe_create(name, capacity, sizeof(dnsproxy_public_msg)) >= 0);
    const int fd = qxcom_nmpipe_open(name, NMPIPE_READWRITE, 0);
    FUZZ_CHECK(fd > 0);
    return fd;
}

dnsproxy_public_msg take_request(fuzz_reader *input, uint8_t op)
{
    fuzz_mapping_outputs({});
    is_shown = false;
    if (op == whole_message)
        return input->take_value<dnsproxy_public_msg>();
    dnsproxy_public_msg msg = {};
    msg.op = op;
    const auto options = input->take_value<uint8_t>();
    strcpy(msg.ifname, names[input->take_value<uint8_t>() % std::size(names)]);
    strcpy(msg.pipeName, reply_pipes[(options & reply_pipe) >> 4]);
    msg.dnsFlag = options & first_given;
    msg.dns2Flag = options & second_given;
    msg.noV4 = (options & not_v4) != 0 ? 1 : 0;
    msg.noV6 = (options & not_v6) != 0 ? 1 : 0;
    msg.dns = input->take_value<uint8_t>();
    msg.dns2 = input->take_value<uint8_t>();
    msg.dns6.sin6_addr.s6_addr[15] = input->take_value<uint8_t>();
    msg.dns6_2.sin6_addr.s6_addr[15] = input->take_value<uint8_t>();
    msg.reserved = options;
    is_shown = (options & shown) != 0;
    if ((options & mapped) != 0)
        fuzz_mapping_outputs(input->take_until(fuzz_separator));
    return msg;
}

// Of what the daemon may change in a request, takes over what it has to.
dnsproxy_public_msg expected_reply(dnsproxy_public_msg msg, const dnsproxy_public_msg &reply)
{
    msg.result = reply.result;
    if (reply.result == 0 && msg.op == DNSPROXY_DNS_SERVER_GET) {
        msg.dnsFlag = msg.dns2Flag = 1;
        msg.dns = reply.dns;
        msg.dns2 = reply.dns2;
        msg.dns6 = reply.dns6;
        msg.dns6_2 = reply.dns6_2;
    }
    if (reply.result == 0 &&
        (msg.op == DNSPROXY_DNS_SERVER_GETADDRS || msg.op == DNSPROXY_DNS_SERVER_GETIFS)) {
        msg.count = reply.count;
        msg.dataLen = reply.dataLen;
    }
    return msg;
}

// `count` entries of `size` bytes that are not zero, then zeros.
void check_list(const dnsproxy_public_msg &reply, const std::vector<uint8_t> &data)
{
    const size_t size =
        reply.op == DNSPROXY_DNS_SERVER_GETIFS ? sizeof(dnsproxy_public_if) : sizeof(uint64_t);
    FUZZ_CHECK(reply.count * size <= data.size());
    const auto has_byte = [&](size_t begin, size_t end) {
        return std::any_of(data.begin() + static_cast<ptrdiff_t>(begin),
                           data.begin() + static_cast<ptrdiff_t>(end),
                           [](uint8_t byte) { return byte != 0; });
    };
    for (size_t i = 0; i < reply.count; i++)
        FUZZ_CHECK(has_byte(i * size, (i + 1) * size));
    FUZZ_CHECK(!has_byte(reply.count * size, data.size()));
}

// The reply to `msg`, as the daemon has left it, and nothing else is in the pipe.
void check_reply(int fd, const dnsproxy_public_msg &msg)
{
    dnsproxy_public_msg reply = {};
    FUZZ_CHECK(qxcom_nmpipe_read(fd, &reply, sizeof reply) == sizeof reply);
    FUZZ_CHECK(memcmp(&reply, &msg, sizeof reply) == 0);
    if (msg.result == 0 && (msg.op == DNSPROXY_DNS_SERVER_GETADDRS || msg.op == DNSPROXY_DNS_SERVER_GETIFS)) {
        std::vector<uint8_t> data(msg.dataLen);
        if (!data.empty())
            FUZZ_CHECK(qxcom_nmpipe_read(fd, data.data(), data.size()) ==
                       static_cast<ptrdiff_t>(data.size()));
        check_list(reply, data);
    }
    FUZZ_CHECK(qxcom_nmpipe_read(fd, &reply, sizeof reply) < 0 && errno == EAGAIN);
}

void drain(int fd)
{
    char bytes[NMPIPE_MESSAGE_MAX];
    while (qxcom_nmpipe_read(fd, bytes, sizeof bytes) > 0)
        ;
}

class pipes {
public:
    // A message of any length, as the event loop takes it.
    bool pass(const void *bytes, size_t length, dnsproxy_public_msg *received)
    {
        FUZZ_CHECK(qxcom_nmpipe_write(request_, bytes, length) == static_cast<ptrdiff_t>(length));
        FUZZ_CHECK(qxcom_nmpipe_read(request_, received, sizeof *received) == static_cast<ptrdiff_t>(length));
        return length == sizeof *received;
    }
    void serve(const dnsproxy_public_msg &request)
    {
        dnsproxy_public_msg msg = {};
        FUZZ_CHECK(pass(&request, sizeof request, &msg));
        const int status = dnsproxy_public_read(&msg);
        FUZZ_CHECK(status == msg.result || status == DNSPROXY_ERESOURCE);
        const dnsproxy_public_msg expected = expected_reply(request, msg);
        FUZZ_CHECK(memcmp(&msg, &expected, sizeof msg) == 0);
        if (strncmp(msg.pipeName, reply_pipes[0], sizeof msg.pipeName) == 0)
            check_reply(roomy_, msg);
        if (strncmp(msg.pipeName, DNSPROXY_REQUEST_PIPE, sizeof msg.pipeName) == 0)
            FUZZ_CHECK(qxcom_nmpipe_read(request_, &msg, sizeof msg) < 0); // no reply is the next request
    }
    // The small pipe is emptied here only, so that replies meet a full one.
    void finish() { drain(small_); }

private:
    int request_ = make_pipe(DNSPROXY_REQUEST_PIPE, DNSPROXY_REQUEST_CAPACITY);
    int roomy_ = make_pipe(reply_pipes[0], 4);
    int small_ = make_pipe(reply_pipes[1], 1);
};

// A descriptor and an armed timer, as a query leaves them behind.
void open_socket(dnsproxy_server_if *sif, int32_t *fd, ipcom_tmo2 *timer, ipcom_tmo2_fn on_idle)
{
    if (*fd > 0)
        return;
    *fd = dup(STDERR_FILENO);
    FUZZ_CHECK(ipcom_tmo2_request(dnsproxy_data.tmo2Head, timer, on_idle, sif, sif->sockTimeout) >= 0);
}

void open_sockets()
{
    for (auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList); sif != nullptr;
         sif = ipcom_next(sif)) {
        open_socket(sif, &sif->serverFd, &sif->serverTmo, dnsproxy_server_socket_timeout);
        open_socket(sif, &sif->serverFd6, &sif->serverTmo6, dnsproxy_server_socket_timeout_v6);
    }
}

void take_other_length(fuzz_reader *input, pipes *p)
{
    uint8_t bytes[NMPIPE_MESSAGE_MAX] = {};
    const size_t length = 1 + input->take_value<uint16_t>() % sizeof bytes;
    const fuzz_bytes begin = input->take(std::min<size_t>(length, 16));
    std::copy(begin.begin(), begin.end(), bytes);
    dnsproxy_public_msg received;
    (void)p->pass(bytes, length, &received);
}

} // namespace

extern "C" {
FILE *__real_open_memstream(char **text, size_t *length);
FILE *__wrap_open_memstream(char **text, size_t *length);

FILE *__wrap_open_memstream(char **text, size_t *length)
{
    return is_shown ? __real_open_memstream(text, length) : nullptr;
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static pipes all_pipes;
    static fuzz_file states("/tmp/online/state");
    states.set({});
    fuzz_reader input(data, size);
    const fuzz_tables tables;
    for (int i = 0; i < most_steps && !input.is_empty(); i++) {
        const auto step = input.take_value<uint8_t>();
        switch (step) {
        case other_length:
            take_other_length(&input, &all_pipes);
            break;
        case sockets_open:
            open_sockets();
            break;
        case time_passes:
            fuzz_tables::pass_time_ms(input.take_value<uint8_t>() * 1000);
            break;
        case links_change:
            states.set(input.take_until(fuzz_separator));
            break;
        default:
            all_pipes.serve(take_request(&input, step));
        }
        fuzz_tables::check();
    }
    all_pipes.finish();
    return 0;
}
