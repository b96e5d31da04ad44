#include "platform/qxcom_nmpipe.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "platform/mutex_guard.h"

namespace {

constexpr char folder[] = "/var/run/nmpipe";
constexpr size_t name_max = 99;

// A pipe that this process made: the descriptor that keeps its messages alive until it is deleted, and holds
// the lock that tells other processes of it.
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
            close(fd_);
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

// Takes the pipe out of those that are held: its descriptor, or -1 when this process does not hold it.
int let_go(const char *name)
{
    const mutex_guard lock(&held_lock);
    for (held_pipe **link = &held; *link != nullptr; link = &(*link)->next) {
        held_pipe *entry = *link;
        if (strcmp(entry->name, name) == 0) {
            *link = entry->next;
            const int fd = entry->fd;
            free(entry);
            return fd;
        }
    }
    return -1;
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

// Whether the open FIFO is still the one of that name.
bool is_named(int fd, int folder_fd, const char *name)
{
    struct stat opened = {};
    struct stat named = {};
    return fstat(fd, &opened) == 0 && fstatat(folder_fd, name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

// The FIFO of that name, locked as its creator's; -1 with EWOULDBLOCK when a live process holds it. The lock
// goes with the last descriptor, so that of a killed process is free.
int lock_fifo(int folder_fd, const char *name)
{
    descriptor fd(open_fifo(folder_fd, name, O_RDWR));
    if (fd.get() < 0 || flock(fd.get(), LOCK_EX | LOCK_NB) != 0)
        return -1;
    // Its creator may have deleted it, and another made it anew, between the opening and the lock.
    if (!is_named(fd.get(), folder_fd, name)) {
        errno = EWOULDBLOCK;
        return -1;
    }
    return fd.release();
}

int take(int folder_fd, const char *name, int capacity)
{
    descriptor fd(lock_fifo(folder_fd, name));
    if (fd.get() < 0)
        return -1;
    // A message takes a slot, which is a page, however short it is. Refused above the limit for unprivileged
    // users; the pipe then keeps its default size.
    fcntl(fd.get(), F_SETPIPE_SZ, capacity * sysconf(_SC_PAGESIZE));
    auto *entry = static_cast<held_pipe *>(calloc(1, sizeof(held_pipe)));
    if (entry == nullptr)
        return -1;
    hold(entry, name, fd.release());
    return 0;
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
    const bool made = mkfifoat(folder_fd.get(), name, 0600) == 0;
    if (!made && (errno != EEXIST || fifo == existing::refused))
        return -1;
    const int status = take(folder_fd.get(), name, capacity);
    if (status < 0 && made) {
        const int error = errno;
        unlinkat(folder_fd.get(), name, 0);
        errno = error;
    }
    return status;
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

int qxcom_nmpipe_open(const char *name, int mode, int)
{
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
        close(fd);
}

void qxcom_nmpipe_delete(const char *name)
{
    if (!is_name(name))
        return;
    // By its path: a process without descriptors must still be able to remove what it made.
    char path[sizeof folder + 1 + name_max];
    snprintf(path, sizeof path, "%s/%s", folder, name);
    const int mine = let_go(name);
    const descriptor fd(mine >= 0 ? mine : lock_fifo(AT_FDCWD, path));
    if (fd.get() >= 0 && is_named(fd.get(), AT_FDCWD, path))
        unlink(path);
}
