// The link-state file into the server table.
#include "config/online_state.h"

#include "iface/if_show.h"
#include "tests/fuzz/fuzz_tables.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static fuzz_file file("/tmp/online/state");
    file.set({data, size});
    const fuzz_tables tables;
    for (const char *ifname : {"wan1", "eth0.2", "fifteen-letters"})
        fuzz_tables::add_line(ifname);
    FUZZ_CHECK(dnsproxy_load_server_dev_state() == 0);
    FUZZ_CHECK(dnsproxy_data.serverIfList.size == 3);
    fuzz_tables::check_link_states();
    (void)dnsproxy_if_show();
    return 0;
}
