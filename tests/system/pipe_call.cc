// The client call as a filter: a message of 240 bytes on standard input becomes, on standard output, the
// call's result (4 bytes), the message as the call left it, and the trailing data.

#include <dnsproxy/client.h>

#include <cstdio>
#include <cstdlib>

int main()
{
    dnsproxy_public_msg msg = {};
    if (fread(&msg, sizeof msg, 1, stdin) != 1)
        return EXIT_FAILURE;
    const uint32_t op = msg.op;
    const int result = dnsproxy_public_dnsServer(&msg);
    fwrite(&result, sizeof result, 1, stdout);
    fwrite(&msg, sizeof msg, 1, stdout);
    if (result >= 0 && (op == DNSPROXY_DNS_SERVER_GETADDRS || op == DNSPROXY_DNS_SERVER_GETIFS)) {
        auto *data = reinterpret_cast<void *>(msg.data);
        if (data != nullptr)
            fwrite(data, 1, msg.dataLen, stdout);
        free(data);
    }
    return fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
