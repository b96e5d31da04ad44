#include "routes.h"

#include <cerrno>
#include <cstring>
#include <ifaddrs.h>
#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr int most_marks = 16;
constexpr int patience_ms = 1000;

// A message under construction.
struct message {
    alignas(nlmsghdr) uint8_t bytes[256];

    nlmsghdr *header() { return reinterpret_cast<nlmsghdr *>(bytes); }

    void append(unsigned short type, const void *data, size_t length)
    {
        auto *attribute = reinterpret_cast<rtattr *>(bytes + NLMSG_ALIGN(header()->nlmsg_len));
        attribute->rta_type = type;
        attribute->rta_len = static_cast<unsigned short>(RTA_LENGTH(length));
        memcpy(RTA_DATA(attribute), data, length);
        header()->nlmsg_len =
            static_cast<uint32_t>(NLMSG_ALIGN(header()->nlmsg_len) + RTA_ALIGN(attribute->rta_len));
    }
};

class kernel {
public:
    kernel() : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {}
    ~kernel()
    {
        if (fd_ >= 0)
            (void)close(fd_);
    }
    kernel(const kernel &) = delete;
    kernel &operator=(const kernel &) = delete;

    bool tell(message *m) { return send(fd_, m->bytes, m->header()->nlmsg_len, 0) >= 0; }

    // The next batch of messages; its length, 0 for none in time.
    size_t hear(void *batch, size_t size)
    {
        pollfd waiting = {.fd = fd_, .events = POLLIN, .revents = 0};
        if (poll(&waiting, 1, patience_ms) != 1)
            return 0;
        const ssize_t got = recv(fd_, batch, size, 0);
        return got > 0 ? static_cast<size_t>(got) : 0;
    }

private:
    int fd_;
};

struct address {
    int family;
    in6_addr bytes; // the first 4 of an IPv4 address
    [[nodiscard]] size_t length() const { return family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr); }
};

// An IPv4 server in the form of an IPv6 address is reached over IPv4.
address address_of(const sockaddr *from)
{
    address a = {.family = from->sa_family, .bytes = {}};
    if (a.family == AF_INET) {
        memcpy(&a.bytes, &reinterpret_cast<const sockaddr_in *>(from)->sin_addr, sizeof(in_addr));
        return a;
    }
    a.bytes = reinterpret_cast<const sockaddr_in6 *>(from)->sin6_addr;
    if (IN6_IS_ADDR_V4MAPPED(&a.bytes)) {
        a.family = AF_INET;
        memmove(&a.bytes, a.bytes.s6_addr + 12, sizeof(in_addr));
    }
    return a;
}

enum class found { yes, no, unknown };

// Whether the kernel has a route through the device; from `source`, if that is given, and under a mark.
found route(unsigned int ifindex, const address &to, const address *source, uint32_t mark)
{
    kernel k;
    message m = {};
    m.header()->nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
    m.header()->nlmsg_type = RTM_GETROUTE;
    m.header()->nlmsg_flags = NLM_F_REQUEST;
    auto *wanted = static_cast<rtmsg *>(NLMSG_DATA(m.header()));
    wanted->rtm_family = static_cast<unsigned char>(to.family);
    wanted->rtm_dst_len = static_cast<unsigned char>(8 * to.length());
    wanted->rtm_src_len = static_cast<unsigned char>(source != nullptr ? 8 * to.length() : 0);
    wanted->rtm_flags = to.family == AF_INET ? RTM_F_FIB_MATCH : 0; // an on-link guess is no match
    m.append(RTA_DST, &to.bytes, to.length());
    if (source != nullptr)
        m.append(RTA_SRC, &source->bytes, source->length());
    m.append(RTA_OIF, &ifindex, sizeof ifindex);
    if (mark != 0)
        m.append(RTA_MARK, &mark, sizeof mark);

    alignas(nlmsghdr) uint8_t batch[4096];
    const size_t length = k.tell(&m) ? k.hear(batch, sizeof batch) : 0;
    const auto *reply = reinterpret_cast<const nlmsghdr *>(batch);
    if (length < sizeof *reply || reply->nlmsg_len > length)
        return found::unknown;
    if (reply->nlmsg_type == NLMSG_ERROR && length >= NLMSG_LENGTH(sizeof(nlmsgerr))) {
        const int error = -static_cast<const nlmsgerr *>(NLMSG_DATA(reply))->error;
        return error == ENETUNREACH || error == EHOSTUNREACH || error == EACCES || error == EINVAL
                   ? found::no
                   : found::unknown;
    }
    if (reply->nlmsg_type != RTM_NEWROUTE || length < NLMSG_LENGTH(sizeof(rtmsg)))
        return found::unknown;
    const int type = static_cast<const rtmsg *>(NLMSG_DATA(reply))->rtm_type;
    return type == RTN_UNREACHABLE || type == RTN_BLACKHOLE || type == RTN_PROHIBIT ? found::no : found::yes;
}

struct mark {
    uint32_t value;
    uint32_t mask;
};

// The mark under which a rule of routing looks up a table; false: it does nothing of the kind.
bool mark_of_rule(nlmsghdr *rule, mark *m)
{
    const auto head = static_cast<unsigned int>(NLMSG_LENGTH(sizeof(fib_rule_hdr)));
    if (rule->nlmsg_len < head ||
        static_cast<const fib_rule_hdr *>(NLMSG_DATA(rule))->action != FR_ACT_TO_TBL)
        return false;
    *m = {.value = 0, .mask = UINT32_MAX};
    auto *at = reinterpret_cast<rtattr *>(reinterpret_cast<uint8_t *>(rule) + NLMSG_ALIGN(head));
    for (auto size = rule->nlmsg_len - head; RTA_OK(at, size); at = RTA_NEXT(at, size)) {
        if (at->rta_type == FRA_FWMARK && RTA_PAYLOAD(at) >= sizeof m->value)
            memcpy(&m->value, RTA_DATA(at), sizeof m->value);
        if (at->rta_type == FRA_FWMASK && RTA_PAYLOAD(at) >= sizeof m->mask)
            memcpy(&m->mask, RTA_DATA(at), sizeof m->mask);
    }
    return m->value != 0;
}

// Those of all rules.
int marks(int family, mark (&found_marks)[most_marks])
{
    kernel k;
    message m = {};
    m.header()->nlmsg_len = NLMSG_LENGTH(sizeof(fib_rule_hdr));
    m.header()->nlmsg_type = RTM_GETRULE;
    m.header()->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    static_cast<fib_rule_hdr *>(NLMSG_DATA(m.header()))->family = static_cast<uint8_t>(family);
    int count = 0;
    alignas(nlmsghdr) uint8_t batch[16384];
    for (size_t length = k.tell(&m) ? k.hear(batch, sizeof batch) : 0; length > 0;
         length = k.hear(batch, sizeof batch)) {
        auto left = static_cast<unsigned int>(length);
        for (auto *rule = reinterpret_cast<nlmsghdr *>(batch); NLMSG_OK(rule, left);
             rule = NLMSG_NEXT(rule, left)) {
            if (rule->nlmsg_type != RTM_NEWRULE)
                return count;
            if (count < most_marks && mark_of_rule(rule, &found_marks[count]))
                count++;
        }
    }
    return count;
}

// What is sent through a device without link addresses finds its way without a gateway.
bool needs_gateway(const char *device)
{
    ifreq request = {};
    memcpy(request.ifr_name, device, strnlen(device, sizeof request.ifr_name - 1));
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool asked = fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    if (fd >= 0)
        (void)close(fd);
    return asked && (request.ifr_flags & (IFF_POINTOPOINT | IFF_NOARP)) == 0;
}

// Whether queries from an address that the device has would find a route.
bool has_source_specific(const char *device, unsigned int ifindex, const address &to)
{
    ifaddrs *all = nullptr;
    if (getifaddrs(&all) != 0)
        return false;
    bool has = false;
    for (const ifaddrs *each = all; each != nullptr && !has; each = each->ifa_next) {
        if (each->ifa_addr == nullptr || each->ifa_addr->sa_family != AF_INET6 ||
            strcmp(each->ifa_name, device) != 0)
            continue;
        const address source = address_of(each->ifa_addr);
        has = !IN6_IS_ADDR_LINKLOCAL(&source.bytes) && route(ifindex, to, &source, 0) == found::yes;
    }
    freeifaddrs(all);
    return has;
}

} // namespace

route_fault route_fault_of(const char *device, const sockaddr_storage &server, uint32_t *mask)
{
    const unsigned int ifindex = if_nametoindex(device);
    const address to = address_of(reinterpret_cast<const sockaddr *>(&server));
    if (ifindex == 0 || (to.family == AF_INET && !needs_gateway(device)))
        return route_fault::none;
    const found own = route(ifindex, to, nullptr, 0);
    if (own == found::unknown)
        return route_fault::none;
    if (own == found::no)
        return to.family == AF_INET6 && has_source_specific(device, ifindex, to)
                   ? route_fault::source_specific
                   : route_fault::no_gateway;
    mark found_marks[most_marks];
    const int count = marks(to.family, found_marks);
    for (int i = 0; i < count; i++) {
        *mask = found_marks[i].mask;
        if (route(ifindex, to, nullptr, found_marks[i].value) == found::no)
            return route_fault::marked;
    }
    return route_fault::none;
}
