// Batches of routing messages from a socket pair in the netlink socket's place, into the cached interface
// list. An input is the system's interfaces, then the batches; the kernel's macros say what a batch holds.
#include "net/intf_monitor.h"

#include <linux/rtnetlink.h>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "tests/fuzz/fuzz_tables.h"

namespace {

constexpr int most_batches = 8;
constexpr size_t batch_max = 4096; // of one receive; the rest of a longer one is lost

struct interface {
    unsigned int index;
    std::string name;
};

struct {
    std::vector<interface> interfaces;
    bool is_listed; // otherwise there is no memory for the list
    int lists;      // made and not freed
} kernel;

void take_interfaces(fuzz_reader *input)
{
    kernel.interfaces.clear();
    const auto count = input->take_value<uint8_t>();
    kernel.is_listed = count != 0xff;
    for (int i = 0; i < count % 8; i++) {
        const auto index = input->take_value<uint8_t>();
        const fuzz_bytes name = input->take(input->take_value<uint8_t>() % IF_NAMESIZE);
        kernel.interfaces.push_back({index + 1U, std::string(name.begin(), name.end()).c_str()});
    }
}

bool holds_link_message(std::vector<uint8_t> batch)
{
    auto left = static_cast<unsigned int>(batch.size());
    for (auto *message = reinterpret_cast<nlmsghdr *>(batch.data()); NLMSG_OK(message, left);
         message = NLMSG_NEXT(message, left)) {
        if (message->nlmsg_type == RTM_NEWLINK || message->nlmsg_type == RTM_DELLINK)
            return true;
        if (NLMSG_ALIGN(message->nlmsg_len) > left)
            return false; // the macros would count below zero
    }
    return false;
}

void check_names()
{
    for (int index = -1; index <= 257; index++) {
        const auto known =
            std::find_if(kernel.interfaces.begin(), kernel.interfaces.end(),
                         [&](const interface &i) { return static_cast<int>(i.index) == index; });
        char name[IF_NAMESIZE];
        const bool is_found = dns_if_indextoname(index, name, sizeof name) == 0;
        FUZZ_CHECK(is_found == (dnsproxy_data.ifNameIndex != nullptr && known != kernel.interfaces.end()));
        FUZZ_CHECK(!is_found || known->name == name);
    }
}

} // namespace

extern "C" {
struct if_nameindex *__wrap_if_nameindex();
void __wrap_if_freenameindex(struct if_nameindex *list);

struct if_nameindex *__wrap_if_nameindex()
{
    if (!kernel.is_listed)
        return nullptr;
    auto *list = new struct if_nameindex[kernel.interfaces.size() + 1]();
    for (size_t i = 0; i < kernel.interfaces.size(); i++)
        list[i] = {kernel.interfaces[i].index, strdup(kernel.interfaces[i].name.c_str())};
    kernel.lists++;
    return list;
}

void __wrap_if_freenameindex(struct if_nameindex *list)
{
    for (struct if_nameindex *i = list; i->if_index != 0; i++)
        free(i->if_name);
    delete[] list;
    kernel.lists--;
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static int fds[2];
    [[maybe_unused]] static const int made = socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, fds);
    FUZZ_CHECK(made == 0);
    fuzz_reader input(data, size);
    const fuzz_tables tables;
    dnsproxy_data.intfFd = fds[0];
    for (int i = 0; i < most_batches && !input.is_empty(); i++) {
        take_interfaces(&input);
        const fuzz_bytes sent = input.take(input.take_value<uint16_t>());
        FUZZ_CHECK(send(fds[1], sent.data(), sent.size(), 0) == static_cast<ssize_t>(sent.size()));
        const fuzz_bytes read = sent.first(std::min(sent.size(), batch_max));
        const auto *before = dnsproxy_data.ifNameIndex;
        const int lists = kernel.lists;
        FUZZ_CHECK(dnsproxy_intf_socket_recv() == 0);
        if (holds_link_message({read.begin(), read.end()})) {
            FUZZ_CHECK((dnsproxy_data.ifNameIndex != nullptr) == kernel.is_listed);
            FUZZ_CHECK(kernel.lists == (kernel.is_listed ? 1 : 0));
            check_names();
        } else {
            FUZZ_CHECK(dnsproxy_data.ifNameIndex == before && kernel.lists == lists);
        }
        FUZZ_CHECK(dnsproxy_intf_socket_recv() == 0); // there is nothing to read
    }
    if (dnsproxy_data.ifNameIndex != nullptr)
        if_freenameindex(dnsproxy_data.ifNameIndex);
    FUZZ_CHECK(kernel.lists == 0);
    return 0;
}
