// pipe_load CLIENTS REQUESTS INTERFACE
//
// So many processes at once, each of which makes so many client calls: GETIFS, GETADDRS, GET (which finds
// nothing when the interface is "loopback") and a bad operation in turn. Each request carries a number of
// its own in a field that the daemon gives back. Prints how many requests got the reply they should have,
// and what was wrong with the first few others.

#include <dnsproxy/client.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr uint32_t operations[] = {DNSPROXY_DNS_SERVER_GETIFS, DNSPROXY_DNS_SERVER_GETADDRS,
                                   DNSPROXY_DNS_SERVER_GET, 10};
constexpr size_t operation_count = sizeof operations / sizeof operations[0];
constexpr uint32_t most_requests = 65536;

// Whether the call gave what this daemon must answer to this client.
bool is_answered(uint32_t op, uint32_t number, const char *interface)
{
    dnsproxy_public_msg msg = {};
    msg.op = op;
    snprintf(msg.ifname, sizeof msg.ifname, "%s", interface);
    msg.reserved = number;
    msg.noV4 = static_cast<int32_t>(number);
    const int result = dnsproxy_public_dnsServer(&msg);

    const bool is_list = op == DNSPROXY_DNS_SERVER_GETIFS || op == DNSPROXY_DNS_SERVER_GETADDRS;
    const size_t entry = op == DNSPROXY_DNS_SERVER_GETIFS ? 32 : 8;
    int expected = 0;
    if (op == DNSPROXY_DNS_SERVER_GET && strcmp(interface, "loopback") == 0)
        expected = DNSPROXY_ENOTFOUND;
    else if (op > DNSPROXY_DNS_SERVER_DELALL)
        expected = DNSPROXY_EINVALID;
    bool good = result == expected && msg.op == op && msg.reserved == number &&
                msg.noV4 == static_cast<int32_t>(number) && strcmp(msg.ifname, interface) == 0;
    if (is_list && result >= 0) {
        good = good && msg.count > 0 && msg.count * entry <= msg.dataLen && msg.data != 0;
        free(reinterpret_cast<void *>(msg.data));
    }
    if (!good)
        fprintf(stderr, "request %u of process %d: op %u, result %d, got op %u number %u\n", number,
                static_cast<int>(getpid()), op, result, msg.op, msg.reserved);
    return good;
}

uint32_t run_client(uint32_t client, uint32_t requests, const char *interface)
{
    uint32_t answered = 0;
    for (uint32_t i = 0; i < requests; i++) {
        if (is_answered(operations[i % operation_count], client * most_requests + i, interface))
            answered++;
    }
    return answered;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4)
        return 2;
    const auto clients = static_cast<uint32_t>(strtoul(argv[1], nullptr, 10));
    const auto requests = static_cast<uint32_t>(strtoul(argv[2], nullptr, 10));
    int results[2];
    if (clients == 0 || clients > 64 || requests >= most_requests || pipe(results) != 0)
        return 2;
    for (uint32_t client = 1; client <= clients; client++) {
        const pid_t child = fork();
        if (child < 0)
            return 2;
        if (child == 0) {
            const uint32_t answered = run_client(client, requests, argv[3]);
            _exit(write(results[1], &answered, sizeof answered) == sizeof answered ? 0 : 1);
        }
    }
    close(results[1]);
    uint64_t total = 0;
    for (uint32_t answered = 0; read(results[0], &answered, sizeof answered) == sizeof answered;)
        total += answered;
    while (wait(nullptr) > 0) {
    }
    printf("%llu\n", static_cast<unsigned long long>(total));
    return total == uint64_t{clients} * requests ? 0 : 1;
}
