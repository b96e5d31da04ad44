// Contexts, the search for a package's file, and reading the file.
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

struct uci_context {
    uci_list packages;
    char *confdir; // null: the default
    int status;    // of the last call
    uci_syntax_error error;
};

namespace {

constexpr char default_confdir[] = "/etc/config";
constexpr char runtime_confdir[] = "/var/run/uci";

// The formatted text in new memory; null without memory.
[[gnu::format(printf, 1, 2)]] char *print_new(const char *format, ...)
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
            vsnprintf(text, size, format, again);
    }
    va_end(again);
    va_end(args);
    return text;
}

[[nodiscard]] int open_locked(const char *path, int *fd)
{
    struct stat info;
    if (stat(path, &info) != 0 || !S_ISREG(info.st_mode))
        return UCI_ERR_NOTFOUND;
    *fd = open(path, O_RDONLY | O_CLOEXEC);
    if (*fd < 0)
        return UCI_ERR_IO;
    while (flock(*fd, LOCK_SH) != 0) {
        if (errno != EINTR) {
            close(*fd);
            return UCI_ERR_IO;
        }
    }
    return UCI_OK;
}

// Reads to the end and appends a NUL, which is not part of *size. The caller frees *bytes, also after a
// failure.
[[nodiscard]] int read_all(int fd, char **bytes, size_t *size)
{
    size_t capacity = 0;
    *size = 0;
    for (;;) {
        if (capacity - *size < 2) {
            const size_t larger = capacity != 0 ? capacity * 2 : 4096;
            void *grown = larger > capacity ? realloc(*bytes, larger) : nullptr;
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

[[nodiscard]] int fill_package(uci_package *package, const char *path, uci_syntax_error *error)
{
    int fd;
    int status = open_locked(path, &fd);
    if (status != UCI_OK)
        return status;
    size_t size;
    status = read_all(fd, &package->bytes, &size);
    close(fd);
    return status != UCI_OK ? status : uci_parse(package, size, error);
}

// Not empty, and visible ASCII only.
bool is_visible(const char *name)
{
    const char *c = name;
    while (*c > 0x20 && *c < 0x7f)
        ++c;
    return c != name && *c == '\0';
}

bool is_path(const char *name)
{
    return name[0] == '/' || strncmp(name, "./", 2) == 0;
}

// The path of the package's file, which the caller frees; null without memory.
char *find_path(const uci_context *ctx, const char *name)
{
    if (is_path(name))
        return print_new("%s", name);
    char *path = print_new("%s/%s", runtime_confdir, name);
    struct stat info;
    if (path == nullptr || stat(path, &info) == 0)
        return path;
    free(path);
    return print_new("%s/%s", ctx->confdir != nullptr ? ctx->confdir : default_confdir, name);
}

[[nodiscard]] int load(uci_context *ctx, const char *name, uci_package **package)
{
    if (name == nullptr || !is_visible(name))
        return UCI_ERR_INVAL;
    if (name[0] == '.' && !is_path(name))
        return UCI_ERR_NOTFOUND;
    const char *loaded_name = is_path(name) ? strrchr(name, '/') + 1 : name;
    uci_element *e;
    uci_foreach_element(&ctx->packages, e)
    {
        if (strcmp(e->name, loaded_name) == 0)
            return UCI_ERR_DUPLICATE;
    }

    uci_package *loaded = uci_package_new(loaded_name);
    if (loaded == nullptr)
        return UCI_ERR_MEM;
    char *path = find_path(ctx, name);
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

[[nodiscard]] int unload(uci_package *package)
{
    if (package == nullptr)
        return UCI_ERR_INVAL;
    uci_list_remove(&package->e.list);
    uci_package_free(package);
    return UCI_OK;
}

[[nodiscard]] int set_confdir(uci_context *ctx, const char *dir)
{
    if (dir == nullptr)
        return UCI_ERR_INVAL;
    char *copy = print_new("%s", dir);
    if (copy == nullptr)
        return UCI_ERR_MEM;
    free(ctx->confdir);
    ctx->confdir = copy;
    return UCI_OK;
}

const char *status_text(int status)
{
    static constexpr const char *texts[] = {
        "Success",   "Out of memory", "Invalid argument", "Entry not found",
        "I/O error", "Parse error",   "Duplicate entry",  "Unknown error",
    };
    static_assert(sizeof texts / sizeof texts[0] == UCI_ERR_UNKNOWN + 1);
    return texts[status];
}

} // namespace

uci_context *uci_alloc_context()
{
    auto *ctx = static_cast<uci_context *>(calloc(1, sizeof(uci_context)));
    if (ctx != nullptr)
        uci_list_init(&ctx->packages);
    return ctx;
}

void uci_free_context(uci_context *ctx)
{
    if (ctx == nullptr)
        return;
    while (uci_element *e = uci_list_take(&ctx->packages))
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
    const char *before = prefix != nullptr ? prefix : "";
    const char *colon = prefix != nullptr ? ": " : "";
    const int status = ctx != nullptr ? ctx->status : UCI_ERR_INVAL;
    if (status == UCI_ERR_PARSE)
        *dest = print_new("%s%s%s (%s) at line %zu, byte %zu", before, colon, status_text(status),
                          ctx->error.reason, ctx->error.line, ctx->error.byte);
    else
        *dest = print_new("%s%s%s", before, colon, status_text(status));
}
