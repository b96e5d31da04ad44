// The rule file, through the configuration store's stand-in, into the listen table. The input is the file
// and, behind a separator, what the mapping commands print.
#include "config/rules.h"

#include "core/status.h"
#include "iface/if_show.h"
#include "tests/fuzz/fuzz_tables.h"
#include "tests/fuzz/mapping_command.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static fuzz_file file("/var/run/uci/dns"); // goes before that of /etc, and lies in memory
    fuzz_reader input(data, size);
    file.set(input.take_until(fuzz_separator));
    fuzz_mapping_outputs(input.take(size));
    const fuzz_tables tables;
    const int status = dnsproxy_config_init();
    FUZZ_CHECK(status == 0 || status == DNSPROXY_EFAIL);
    FUZZ_CHECK(status == 0 || dnsproxy_data.listenIfList.size == 0); // a faulty file gives no rule at all
    FUZZ_CHECK(dnsproxy_data.serverIfList.size == 0);
    (void)dnsproxy_if_show();
    return 0;
}
