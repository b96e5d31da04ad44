#include "core/platform/qxcom_nmpipe.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "core/platform/mutex_guard.h"

namespace {

constexpr char folder[] = "/var/run/nmpipe";
constexpr size_t name_max = 99;

// A pipe that this process made: the descriptor that keeps its messages alive until it is deleted.
struct held_pipe {
    held_pipe *next;
    int fd;
    char name[name_max + 1];
};

held_pipe *held;
pthread_mutex_t held_lock = PTHREAD_MUTEX_INITIALIZER;

class descriptor {
public:
    explicit descriptor(int fd) : fd_(fd) {}
    ~descriptor()
    {
        if (fd_ >= 0) {
            const int error = errno;
            (void)close(fd_);
            errno = error;
        }
    }
    descriptor(const descriptor &) = delete;
    descriptor &operator=(const descriptor &) = delete;
    [[nodiscard]] int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

bool is_name(const char *name)
{
    static constexpr char allowed[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    if (name == nullptr || name[0] == '\0' || name[0] == '.')
        return false;
    const size_t length = strnlen(name, name_max + 1);
    return length <= name_max && strspn(name, allowed) == length;
}

int open_folder()
{
    return open(folder, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

int make_folder()
{
    if (mkdir(folder, 0700) != 0 && errno != EEXIST)
        return -1;
    return open_folder();
}

// The FIFO, opened without waiting for the other side; -1 when it is none of ours.
int open_fifo(int folder_fd, const char *name, int access)
{
    descriptor fd(openat(folder_fd, name, access | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    struct stat st = {};
    if (fd.get() < 0 || fstat(fd.get(), &st) != 0)
        return -1;
    if (!S_ISFIFO(st.st_mode) || st.st_uid != geteuid()) {
        errno = EPERM;
        return -1;
    }
    // Packet mode belongs to the open descriptor of the writer.
    if (access != O_RDONLY && fcntl(fd.get(), F_SETFL, O_NONBLOCK | O_DIRECT) != 0)
        return -1;
    return fd.release();
}

void hold(held_pipe *entry, const char *name, int fd)
{
    entry->fd = fd;
    memcpy(entry->name, name, strlen(name) + 1);
    const mutex_guard lock(&held_lock);
    entry->next = held;
    held = entry;
}

void let_go(const char *name)
{
    const mutex_guard lock(&held_lock);
    for (held_pipe **link = &held; *link != nullptr;) {
        held_pipe *entry = *link;
        if (strcmp(entry->name, name) != 0) {
            link = &entry->next;
            continue;
        }
        *link = entry->next;
        (void)close(entry->fd);
        free(entry);
    }
}

// One message of up to NMPIPE_MESSAGE_MAX bytes; its whole length, of which `length` bytes are stored.
ptrdiff_t read_message(int fd, char *buffer, size_t length)
{
    ssize_t got = 0;
    if (length >= NMPIPE_MESSAGE_MAX) {
        do
            got = read(fd, buffer, NMPIPE_MESSAGE_MAX);
        while (got < 0 && errno == EINTR);
        return got;
    }
    // A read of fewer bytes than the message would drop the rest and hide that there was one.
    char whole[NMPIPE_MESSAGE_MAX];
    do
        got = read(fd, whole, sizeof whole);
    while (got < 0 && errno == EINTR);
    if (got > 0)
        memcpy(buffer, whole, std::min(static_cast<size_t>(got), length));
    return got;
}

enum class existing { taken_over, refused };

int create(const char *name, int capacity, int largest, existing fifo)
{
    if (!is_name(name) || capacity < 1 || largest < 1) {
        errno = EINVAL;
        return -1;
    }
    const descriptor folder_fd(make_folder());
    if (folder_fd.get() < 0)
        return -1;
    if (mkfifoat(folder_fd.get(), name, 0600) != 0 && (errno != EEXIST || fifo == existing::refused))
        return -1;
    descriptor fd(open_fifo(folder_fd.get(), name, O_RDWR));
    if (fd.get() < 0)
        return -1;
    // A message takes a slot of a page however short it is. Refused above the limit for unprivileged users;
    // the pipe then keeps its default size.
    (void)fcntl(fd.get(), F_SETPIPE_SZ, capacity * static_cast<int>(NMPIPE_MESSAGE_MAX));
    auto *entry = static_cast<held_pipe *>(calloc(1, sizeof(held_pipe)));
    if (entry == nullptr)
        return -1;
    hold(entry, name, fd.release());
    return 0;
}

} // namespace

int qxcom_nmpipe_create(const char *name, int capacity, int largest)
{
    return create(name, capacity, largest, existing::taken_over);
}

int qxcom_nmpipe_create_new(const char *name, int capacity, int largest)
{
    return create(name, capacity, largest, existing::refused);
}

int qxcom_nmpipe_open(const char *name, int mode, int flags)
{
    (void)flags;
    if (!is_name(name) || mode < NMPIPE_READ || mode > NMPIPE_READWRITE) {
        errno = EINVAL;
        return -1;
    }
    const descriptor folder_fd(open_folder());
    if (folder_fd.get() < 0)
        return -1;
    static constexpr int access[] = {O_RDONLY, O_WRONLY, O_RDWR};
    descriptor fd(open_fifo(folder_fd.get(), name, access[mode]));
    if (fd.get() < 0)
        return -1;
    if (mode == NMPIPE_READ && fcntl(fd.get(), F_SETFL, 0) != 0)
        return -1;
    return fd.release();
}

ptrdiff_t qxcom_nmpipe_read(int fd, void *buffer, size_t length)
{
    auto *bytes = static_cast<char *>(buffer);
    ptrdiff_t total = 0;
    for (;;) {
        const size_t room = length - static_cast<size_t>(total);
        const ptrdiff_t got = read_message(fd, bytes + total, room);
        if (got <= 0)
            return total > 0 ? total : got;
        total += got;
        // A full-sized message may be followed by the rest of its block; a shorter one ends it.
        if (static_cast<size_t>(got) < NMPIPE_MESSAGE_MAX || static_cast<size_t>(total) >= length)
            return total;
    }
}

ptrdiff_t qxcom_nmpipe_write(int fd, const void *buffer, size_t length)
{
    const auto *bytes = static_cast<const char *>(buffer);
    size_t total = 0;
    while (total < length) {
        const ssize_t put = write(fd, bytes + total, std::min(length - total, NMPIPE_MESSAGE_MAX));
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return total > 0 ? static_cast<ptrdiff_t>(total) : -1;
        total += static_cast<size_t>(put);
    }
    return static_cast<ptrdiff_t>(total);
}

void qxcom_nmpipe_close(int fd)
{
    if (fd >= 0)
        (void)close(fd);
}

void qxcom_nmpipe_delete(const char *name)
{
    if (!is_name(name))
        return;
    const descriptor folder_fd(open_folder());
    if (folder_fd.get() >= 0) {
        struct stat st = {};
        if (fstatat(folder_fd.get(), name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISFIFO(st.st_mode) &&
            st.st_uid == geteuid())
            (void)unlinkat(folder_fd.get(), name, 0);
    }
    let_go(name);
}
