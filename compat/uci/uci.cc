// The calls: contexts, the search for a package's file, and its reading.
#include "uci.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "uci_package.h"
#include "uci_parser.h"

static constexpr char default_confdir[] = "/etc/config";
static constexpr char runtime_confdir[] = "/var/run/uci";

struct uci_context {
    uci_list packages;
    char *confdir; // null: the default
    int status;    // of the last call
    uci_syntax_error error;
};

// The printed text in memory of its own; null when there is none.
[[gnu::format(printf, 1, 2)]] static char *print_new(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, format, args);
    char *text = nullptr;
    if (length >= 0) {
        const size_t size = static_cast<size_t>(length) + 1;
        text = static_cast<char *>(calloc(size, 1));
        if (text != nullptr)
            (void)vsnprintf(text, size, format, again); // its length is known
    }
    va_end(again);
    va_end(args);
    return text;
}

[[nodiscard]] static int open_locked(const char *path, int *fd)
{
    struct stat info;
    if (stat(path, &info) != 0 || !S_ISREG(info.st_mode))
        return UCI_ERR_NOTFOUND;
    *fd = open(path, O_RDONLY | O_CLOEXEC);
    if (*fd < 0)
        return UCI_ERR_IO;
    while (flock(*fd, LOCK_SH) != 0) {
        if (errno != EINTR) {
            (void)close(*fd); // nothing was written
            return UCI_ERR_IO;
        }
    }
    return UCI_OK;
}

// Reads to the end and puts a NUL behind, which size leaves out; *bytes is the caller's to free in any case.
[[nodiscard]] static int read_all(int fd, char **bytes, size_t *size)
{
    size_t capacity = 0;
    *size = 0;
    for (;;) {
        if (capacity - *size < 2) {
            const size_t larger = capacity != 0 ? capacity * 2 : 4096;
            void *const grown = larger > capacity ? realloc(*bytes, larger) : nullptr;
            if (grown == nullptr)
                return UCI_ERR_MEM;
            *bytes = static_cast<char *>(grown);
            capacity = larger;
        }
        const ssize_t count = read(fd, *bytes + *size, capacity - *size - 1);
        if (count == 0) {
            (*bytes)[*size] = '\0';
            return UCI_OK;
        }
        if (count > 0)
            *size += static_cast<size_t>(count);
        else if (errno != EINTR)
            return UCI_ERR_IO;
    }
}

[[nodiscard]] static int fill_package(uci_package *package, const char *path, uci_syntax_error *error)
{
    int fd;
    int status = open_locked(path, &fd);
    if (status != UCI_OK)
        return status;
    size_t size;
    status = read_all(fd, &package->bytes, &size);
    (void)close(fd); // nothing was written
    return status != UCI_OK ? status : uci_parse(package, size, error);
}

// Not empty, and of visible ASCII throughout.
static bool is_visible(const char *name)
{
    const char *c = name;
    while (*c > 0x20 && *c < 0x7f)
        ++c;
    return c != name && *c == '\0';
}

static bool is_path(const char *name)
{
    return name[0] == '/' || strncmp(name, "./", 2) == 0;
}

// The path of the package's file, to be freed; null when there is no memory.
static char *find_path(const uci_context *ctx, const char *name)
{
    if (is_path(name))
        return print_new("%s", name);
    char *const path = print_new("%s/%s", runtime_confdir, name);
    struct stat info;
    if (path == nullptr || stat(path, &info) == 0)
        return path;
    free(path);
    return print_new("%s/%s", ctx->confdir != nullptr ? ctx->confdir : default_confdir, name);
}

[[nodiscard]] static int load(uci_context *ctx, const char *name, uci_package **package)
{
    if (name == nullptr || !is_visible(name))
        return UCI_ERR_INVAL;
    if (name[0] == '.' && !is_path(name))
        return UCI_ERR_NOTFOUND;
    const char *const packageName = is_path(name) ? strrchr(name, '/') + 1 : name;
    uci_element *e;
    uci_foreach_element(&ctx->packages, e)
    {
        if (strcmp(e->name, packageName) == 0)
            return UCI_ERR_DUPLICATE;
    }

    uci_package *const loaded = uci_package_new(packageName);
    if (loaded == nullptr)
        return UCI_ERR_MEM;
    char *const path = find_path(ctx, name);
    const int status = path != nullptr ? fill_package(loaded, path, &ctx->error) : UCI_ERR_MEM;
    free(path);
    if (status != UCI_OK) {
        uci_package_free(loaded);
        return status;
    }
    uci_list_append(&ctx->packages, &loaded->e.list);
    if (package != nullptr)
        *package = loaded;
    return UCI_OK;
}

[[nodiscard]] static int unload(uci_package *package)
{
    if (package == nullptr)
        return UCI_ERR_INVAL;
    uci_list_remove(&package->e.list);
    uci_package_free(package);
    return UCI_OK;
}

[[nodiscard]] static int set_confdir(uci_context *ctx, const char *dir)
{
    if (dir == nullptr)
        return UCI_ERR_INVAL;
    char *const copy = print_new("%s", dir);
    if (copy == nullptr)
        return UCI_ERR_MEM;
    free(ctx->confdir);
    ctx->confdir = copy;
    return UCI_OK;
}

static const char *status_text(int status)
{
    static constexpr const char *texts[] = {
        "Success",   "Out of memory", "Invalid argument", "Entry not found",
        "I/O error", "Parse error",   "Duplicate entry",  "Unknown error",
    };
    static_assert(sizeof(texts) / sizeof(texts[0]) == UCI_ERR_UNKNOWN + 1);
    return texts[status];
}

uci_context *uci_alloc_context()
{
    auto *const ctx = static_cast<uci_context *>(calloc(1, sizeof(uci_context)));
    if (ctx != nullptr)
        uci_list_init(&ctx->packages);
    return ctx;
}

void uci_free_context(uci_context *ctx)
{
    if (ctx == nullptr)
        return;
    while (uci_element *const e = uci_list_take(&ctx->packages))
        uci_package_free(reinterpret_cast<uci_package *>(e));
    free(ctx->confdir);
    free(ctx);
}

int uci_set_confdir(uci_context *ctx, const char *dir)
{
    if (ctx == nullptr)
        return UCI_ERR_INVAL;
    return ctx->status = set_confdir(ctx, dir);
}

int uci_load(uci_context *ctx, const char *name, uci_package **package)
{
    if (ctx == nullptr)
        return UCI_ERR_INVAL;
    return ctx->status = load(ctx, name, package);
}

int uci_unload(uci_context *ctx, uci_package *p)
{
    if (ctx == nullptr)
        return UCI_ERR_INVAL;
    return ctx->status = unload(p);
}

void uci_get_errorstr(uci_context *ctx, char **dest, const char *prefix)
{
    const char *const before = prefix != nullptr ? prefix : "";
    const char *const colon = prefix != nullptr ? ": " : "";
    const int status = ctx != nullptr ? ctx->status : UCI_ERR_INVAL;
    if (status == UCI_ERR_PARSE)
        *dest = print_new("%s%s%s (%s) at line %zu, byte %zu", before, colon, status_text(status),
                          ctx->error.reason, ctx->error.line, ctx->error.byte);
    else
        *dest = print_new("%s%s%s", before, colon, status_text(status));
}
