#include "tests/model/fake_system.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <net/if.h>
#include <pthread.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>

#include "core/dnsproxy_data.h"
#include "core/read_ahead.h"
#include "platform/ipcom_tmo2.h"
#include "platform/nms_event.h"
#include "platform/qxcom_nmpipe.h"

fake_system sys;
const char reply_pipe[] = "reply";
char *broken_law;

void must(bool holds, const char *law)
{
    if (holds)
        return;
    (void)fprintf(stderr, "a law does not hold: %s\n", law);
    if (broken_law != nullptr)
        (void)snprintf(broken_law, 200, "%s", law);
    abort();
}

static std::map<std::string_view, uint64_t> &tally()
{
    static std::map<std::string_view, uint64_t> counts;
    return counts;
}

void met(const char *what)
{
    tally()[what]++;
}

uint64_t times_met(const char *what)
{
    return tally()[what];
}

const device *fake_system::find_device(const std::string &name) const
{
    const auto d = std::find_if(devices.begin(), devices.end(),
                                [&](const device &each) { return each.present && each.name == name; });
    return d == devices.end() ? nullptr : &*d;
}

const device *fake_system::find_device(int index) const
{
    const auto d = std::find_if(devices.begin(), devices.end(),
                                [&](const device &each) { return each.present && each.index == index; });
    return d == devices.end() ? nullptr : &*d;
}

size_t fake_system::waiting() const
{
    size_t count = 0;
    for (const auto &[fd, file] : files)
        count += file.waiting.size() + file.read.size();
    return count;
}

bool fake_system::read_ahead() const
{
    return std::any_of(files.begin(), files.end(),
                       [](const auto &each) { return !each.second.read.empty(); });
}

namespace {

constexpr int first_fd = 512; // above every real one

int fail(int error)
{
    errno = error;
    return -1;
}

// The lowest number that is free, as the kernel does it: numbers of closed files come again at once.
int open_fd(open_file file)
{
    int fd = sys.faults.high_descriptors ? FD_SETSIZE : first_fd;
    while (sys.files.contains(fd))
        fd++;
    sys.files[fd] = std::move(file);
    return fd;
}

bool memory_left()
{
    if (!sys.faults.no_memory && (sys.allocations_left < 0 || sys.allocations_left-- > 0))
        return true;
    sys.allocation_failed = true;
    met(fault_memory);
    errno = ENOMEM;
    return false;
}

void *keep(void *block, size_t size)
{
    if (block != nullptr && sys.wait != nullptr)
        sys.blocks[block] = size;
    return block;
}

template <class T> void put(void *to, const T &value)
{
    memcpy(to, &value, sizeof value);
}

socklen_t put_peer(const peer &from, sockaddr *to)
{
    if (from.v6) {
        sockaddr_in6 a = {};
        a.sin6_family = AF_INET6;
        a.sin6_port = from.port;
        memcpy(&a.sin6_addr, from.address.data(), sizeof a.sin6_addr);
        put(to, a);
        return sizeof a;
    }
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = from.port;
    memcpy(&a.sin_addr, from.address.data(), sizeof a.sin_addr);
    put(to, a);
    return sizeof a;
}

peer get_peer(const sockaddr *from, socklen_t length)
{
    const bool v6 = from->sa_family == AF_INET6;
    must(v6 || from->sa_family == AF_INET, "an address has a family");
    must(length == (v6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in)), "an address has its length");
    peer to = {.v6 = v6};
    const char *bytes = reinterpret_cast<const char *>(from);
    memcpy(&to.port, bytes + offsetof(sockaddr_in, sin_port), sizeof to.port);
    memcpy(to.address.data(),
           bytes + (v6 ? offsetof(sockaddr_in6, sin6_addr) : offsetof(sockaddr_in, sin_addr)),
           v6 ? sizeof(in6_addr) : sizeof(in_addr));
    return to;
}

// The next datagram of a file, cut to the buffer as the kernel does it.
ssize_t take(int fd, datagram *d, void *buffer, size_t size)
{
    const auto file = sys.files.find(fd);
    if (file == sys.files.end())
        return fail(EBADF);
    if (file->second.waiting.empty())
        return fail(EAGAIN);
    *d = std::move(file->second.waiting.front());
    file->second.waiting.pop_front();
    if (d->told == arrival::damaged)
        return fail(EAGAIN);
    const size_t length = std::min(size, d->bytes.size());
    memcpy(buffer, d->bytes.data(), length);
    return static_cast<ssize_t>(length);
}

template <class Info> size_t put_control(msghdr *header, int level, int type, const Info &info)
{
    cmsghdr *c = CMSG_FIRSTHDR(header);
    must(c != nullptr && header->msg_controllen >= CMSG_SPACE(sizeof info), "there is room for the device");
    c->cmsg_level = level;
    c->cmsg_type = type;
    c->cmsg_len = CMSG_LEN(sizeof info);
    put(CMSG_DATA(c), info);
    return CMSG_SPACE(sizeof info);
}

// The kernel's answer on a socket whose device has gone, or is another one of the same name.
bool is_dead(const open_file &file)
{
    return file.ifindex != 0 && sys.find_device(file.ifindex) == nullptr;
}

// The text must stay.
FILE *open_text(std::string &text)
{
    return text.empty() ? fopen("/dev/null", "re") : fmemopen(text.data(), text.size(), "r");
}

} // namespace

std::string device_of(const std::string &logical)
{
    static const std::map<std::string, std::string> devices = {
        {"loopback", "lo"},     {"LAN", "br-lan"},  {"OFFICE", "office"}, {"GUEST", "br-guest"},
        {"PPPOES", "br-pppoe"}, {"FAR", "far"},     {"WAN1", "wan1"},     {"WAN2", "wan2"},
        {"WAN3", "wan3"},       {"VPN", "pt-vpn0"}, {"NAMELESS", ""}};
    const auto known = devices.find(logical);
    return known == devices.end() ? no_device : known->second;
}

extern "C" {
FILE *__real_fopen(const char *path, const char *mode);
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void __real_free(void *block);
int __real_close(int fd);
int __real_ioctl(int fd, unsigned long request, ...);

void *__wrap_malloc(size_t size)
{
    return memory_left() ? keep(__real_malloc(size), size) : nullptr;
}

void *__wrap_calloc(size_t count, size_t size)
{
    return memory_left() ? keep(__real_calloc(count, size), count * size) : nullptr;
}

void __wrap_free(void *block)
{
    if (sys.wait != nullptr)
        sys.blocks.erase(block);
    __real_free(block);
}

int __wrap_epoll_create1(int flags)
{
    must((flags & EPOLL_CLOEXEC) != 0, "children of the daemon cannot wait in its place");
    return open_fd({.kind = open_file::EPOLL});
}

int __wrap_epoll_ctl(int, int op, int fd, epoll_event *event)
{
    must(sys.files.contains(fd), "only open descriptors are watched and forgotten");
    if (sys.files.at(fd).kind == open_file::ALARM)
        return 0;
    if (op == EPOLL_CTL_ADD)
        must(sys.watched.insert(fd).second && event->data.fd == fd, "a descriptor is watched once");
    else
        must(sys.watched.erase(fd) == 1, "what is forgotten was watched");
    return 0;
}

int __wrap_epoll_wait(int, epoll_event *ready, int, int limit_ms)
{
    return sys.wait(ready, limit_ms);
}

int __wrap_timerfd_create(int, int flags)
{
    must((flags & TFD_CLOEXEC) != 0, "children of the daemon get none of its timers");
    return open_fd({.kind = open_file::ALARM});
}

int __wrap_timerfd_settime(int, int, const itimerspec *when, itimerspec *)
{
    sys.alarm_before = sys.alarm_at;
    sys.alarm_at = ipcom_tmo2_clock() + when->it_value.tv_sec * 1'000'000'000 + when->it_value.tv_nsec;
    sys.alarm_was_set = true;
    return 0;
}

int __wrap_socket(int family, int type, int)
{
    must((type & SOCK_CLOEXEC) != 0, "children of the daemon get none of its sockets");
    if (sys.faults.no_descriptors || sys.faults.high_descriptors)
        met(sys.faults.no_descriptors ? fault_socket : fault_number);
    return sys.faults.no_descriptors ? fail(EMFILE) : open_fd({.family = family});
}

int __wrap_bind(int, const sockaddr *, socklen_t)
{
    return 0;
}

int __wrap_setsockopt(int fd, int level, int name, const void *value, socklen_t)
{
    if (level != SOL_SOCKET || name != SO_BINDTODEVICE)
        return 0;
    const device *d = sys.find_device(static_cast<const char *>(value));
    if (d == nullptr)
        return fail(ENODEV);
    sys.files.at(fd).device = d->name;
    sys.files.at(fd).ifindex = d->index;
    return 0;
}

int __wrap_getsockopt(int fd, int, int, void *value, socklen_t *length)
{
    const open_file &file = sys.files.at(fd);
    if (is_dead(file))
        return fail(ENODEV);
    (void)snprintf(static_cast<char *>(value), *length, "%s", file.device.c_str());
    *length = static_cast<socklen_t>(file.device.size() + 1);
    return 0;
}

int __wrap_close(int fd)
{
    if (fd < first_fd)
        return __real_close(fd);
    must(!sys.watched.contains(fd), "what is watched is forgotten before it is closed");
    must(sys.files.erase(fd) == 1, "only open descriptors are closed");
    return 0;
}

ssize_t __wrap_sendto(int fd, const void *bytes, size_t length, int flags, const sockaddr *to,
                      socklen_t to_length)
{
    must((flags & MSG_DONTWAIT) != 0, "no send waits");
    must(sys.files.contains(fd), "what is sent is sent by an open socket");
    const open_file &file = sys.files.at(fd);
    const bool upstream = !file.device.empty();
    const peer destination = get_peer(to, to_length);
    must(destination.v6 == (file.family == AF_INET6), "a socket sends to addresses of its family");
    auto sent = static_cast<ssize_t>(length);
    if (is_dead(file)) {
        met(fault_dead);
        sent = fail(destination.v6 ? ENETUNREACH : ENODEV);
    } else if (upstream ? sys.faults.upstream_unreachable
                        : sys.faults.hosts_unreachable && destination.is_odd()) {
        met(upstream ? fault_upstream : fault_host);
        sent = fail(ENETUNREACH);
    }
    sys.sendings.push_back({.device = file.device,
                            .to = destination,
                            .bytes = {static_cast<const char *>(bytes), length},
                            .sent = sent == static_cast<ssize_t>(length)});
    if (sys.sent != nullptr) {
        const int error = errno;
        sys.sent(sys.sendings.back());
        errno = error;
    }
    return sent;
}

// sendmmsg alone, which stops before the first datagram that cannot leave.
long __wrap_syscall(long number, int fd, mmsghdr *headers, unsigned count, int flags)
{
    must(number == SYS_sendmmsg && count > 0, "no other call is made by its number");
    long sent = 0;
    for (; sent < count; sent++) {
        const msghdr &header = headers[sent].msg_hdr;
        must(header.msg_iovlen == 1 && header.msg_controllen == 0, "a datagram is in one piece");
        if (__wrap_sendto(fd, header.msg_iov->iov_base, header.msg_iov->iov_len, flags,
                          static_cast<const sockaddr *>(header.msg_name), header.msg_namelen) < 0)
            break;
    }
    if (sent > 1)
        met("replies sent together");
    if (sent > 0 && sent < count)
        sys.sendings.pop_back(); // nobody was told of it
    return sent > 0 ? sent : -1;
}

// Of the netlink socket alone.
ssize_t __wrap_recvmsg(int fd, msghdr *header, int flags)
{
    must((flags & MSG_DONTWAIT) != 0, "no receive waits");
    datagram d;
    const ssize_t length = take(fd, &d, header->msg_iov->iov_base, header->msg_iov->iov_len);
    if (length >= 0)
        sys.received(fd, d);
    return length;
}

int __wrap_recvmmsg(int fd, mmsghdr *headers, unsigned count, int flags, timespec *)
{
    must((flags & MSG_DONTWAIT) != 0, "no receive waits");
    const int ends = errno;
    int got = 0;
    for (; got < static_cast<int>(count); got++) {
        datagram d;
        msghdr *header = &headers[got].msg_hdr;
        const ssize_t length = take(fd, &d, header->msg_iov->iov_base, header->msg_iov->iov_len);
        if (length < 0)
            break;
        headers[got].msg_len = static_cast<unsigned>(length);
        must(header->msg_namelen >= (d.from.v6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in)),
             "there is room for the sender");
        header->msg_namelen = put_peer(d.from, static_cast<sockaddr *>(header->msg_name));
        in_pktinfo info = {};
        info.ipi_ifindex = d.ifindex;
        const in6_pktinfo info6 = {.ipi6_addr = {}, .ipi6_ifindex = static_cast<unsigned>(d.ifindex)};
        const int other = d.told == arrival::told_otherwise ? 1 : 0;
        if (d.told == arrival::not_told)
            header->msg_controllen = 0;
        else if (d.from.v6)
            header->msg_controllen = put_control(header, IPPROTO_IPV6, IPV6_PKTINFO + other, info6);
        else
            header->msg_controllen = put_control(header, IPPROTO_IP, IP_PKTINFO + other, info);
        sys.files.at(fd).read.push_back(std::move(d));
    }
    if (got == 0)
        return -1;
    errno = ends;
    return got;
}

dns_datagram *__real__Z15read_ahead_takei(int fd);
dns_datagram *__wrap__Z15read_ahead_takei(int fd)
{
    dns_datagram *taken = __real__Z15read_ahead_takei(fd);
    if (taken == nullptr)
        return taken;
    open_file &file = sys.files.at(fd);
    must(!file.read.empty(), "what was read from a socket goes with it");
    if (++file.served > 1)
        met("read ahead");
    must(file.served <= (sys.faults.slow ? 1 : 16),
         "the kernel is asked every 16 passes and every millisecond");
    const datagram d = std::move(file.read.front());
    file.read.pop_front();
    sys.received(fd, d);
    return taken;
}

int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list args;
    va_start(args, request);
    void *argument = va_arg(args, void *);
    va_end(args);
    if (fd < first_fd)
        return __real_ioctl(fd, request, argument);
    auto *named = static_cast<ifreq *>(argument);
    const device *d = sys.find_device(named->ifr_ifindex);
    if (request != SIOCGIFNAME || d == nullptr)
        return fail(ENODEV);
    (void)snprintf(named->ifr_name, sizeof named->ifr_name, "%s", d->name.c_str());
    return 0;
}

struct if_nameindex *__wrap_if_nameindex()
{
    const size_t names = (sys.devices.size() + 1) * sizeof(struct if_nameindex);
    auto *list =
        static_cast<struct if_nameindex *>(__wrap_calloc(1, names + sys.devices.size() * IF_NAMESIZE));
    if (list == nullptr)
        return nullptr;
    char *text = reinterpret_cast<char *>(list) + names;
    struct if_nameindex *entry = list;
    for (const device &d : sys.devices) {
        if (!d.present)
            continue;
        *entry++ = {.if_index = static_cast<unsigned>(d.index), .if_name = text};
        (void)snprintf(text, IF_NAMESIZE, "%s", d.name.c_str());
        text += IF_NAMESIZE;
    }
    return list;
}

void __wrap_if_freenameindex(struct if_nameindex *list)
{
    __wrap_free(list);
}

FILE *__wrap_popen(const char *command, const char *)
{
    std::string name = strstr(command, "zone_iface_to_userif ") + strlen("zone_iface_to_userif ");
    name = device_of(name.substr(0, name.find(')')));
    sys.output = name == no_device ? "" : name + "\n";
    return open_text(sys.output);
}

int __wrap_pclose(FILE *stream)
{
    return fclose(stream);
}

FILE *__wrap_fopen(const char *path, const char *mode)
{
    const std::string name = path;
    std::string *text = name == "/tmp/online/state"       ? &sys.online_state
                        : name == "/tmp/resolv.conf.auto" ? &sys.resolv
                                                          : nullptr;
    if (text == nullptr || sys.wait == nullptr)
        return __real_fopen(path, mode);
    errno = ENOENT;
    return text->empty() ? nullptr : open_text(*text);
}

FILE *__real_open_memstream(char **text, size_t *length);
FILE *__wrap_open_memstream(char **text, size_t *length)
{
    return sys.dumps || sys.wait == nullptr ? __real_open_memstream(text, length) : nullptr;
}

// The bus has a thread and tests of its own.
int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *how, void *(*run)(void *), void *arg)
{
    return sys.wait == nullptr ? __real_pthread_create(thread, how, run, arg) : EAGAIN;
}

// The secret of the hash tables is always the same, so that a run can be repeated.
ssize_t __wrap_getrandom(void *buffer, size_t length, unsigned)
{
    memset(buffer, 0x5a, length);
    return static_cast<ssize_t>(length);
}
} // extern "C"

int qxcom_nmpipe_create(const char *, int, int)
{
    sys.pipes++;
    return 0;
}

int qxcom_nmpipe_open(const char *name, int mode, int)
{
    if (mode == NMPIPE_READWRITE)
        return open_fd({.kind = open_file::REQUEST_PIPE});
    return strcmp(name, reply_pipe) == 0 ? open_fd({.kind = open_file::REPLY_PIPE}) : fail(ENOENT);
}

ptrdiff_t qxcom_nmpipe_read(int fd, void *buffer, size_t length)
{
    datagram d;
    const ssize_t got = take(fd, &d, buffer, length);
    if (got >= 0)
        sys.received(fd, d);
    return got < 0 ? got : static_cast<ptrdiff_t>(d.bytes.size());
}

ptrdiff_t qxcom_nmpipe_write(int, const void *buffer, size_t length)
{
    if (sys.faults.full_pipe)
        return -1;
    sys.pipe_replies.emplace_back(static_cast<const char *>(buffer), length);
    return static_cast<ptrdiff_t>(length);
}

void qxcom_nmpipe_close(int fd)
{
    if (fd >= 0)
        (void)__wrap_close(fd);
}

void qxcom_nmpipe_delete(const char *)
{
    sys.pipes--;
}

int nms_event_notify(int32_t, void *, const char *)
{
    sys.reports++;
    return 0;
}
