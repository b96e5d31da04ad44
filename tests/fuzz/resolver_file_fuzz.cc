// The resolver file into the server table. The input is the file and, behind a separator, what the mapping
// commands print.
#include "config/resolver_file.h"

#include "iface/if_show.h"
#include "tests/fuzz/fuzz_tables.h"
#include "tests/fuzz/mapping_command.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static fuzz_file file("/tmp/resolv.conf.auto");
    fuzz_reader input(data, size);
    file.set(input.take_until(fuzz_separator));
    fuzz_mapping_outputs(input.take(size));
    const fuzz_tables tables;
    const int status = dnsproxy_load_servers();
    FUZZ_CHECK(status <= 0);
    for (const auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList); sif != nullptr;
         sif = ipcom_next(sif)) {
        for (const uint64_t slot : sif->dnsServer)
            FUZZ_CHECK(slot < UINT32_MAX); // one address, never the broadcast one
    }
    (void)dnsproxy_if_show();
    return 0;
}
