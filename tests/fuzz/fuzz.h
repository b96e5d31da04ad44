// What every fuzz target uses. Targets run in the sandbox of lab/enter, so the daemon's fixed paths are
// theirs, and what the daemon prints goes nowhere.
#ifndef TESTS_FUZZ_FUZZ_H
#define TESTS_FUZZ_FUZZ_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <span>
#include <unistd.h>

#include "tests/model/sandbox.h"

// A law that must hold; in every build.
#define FUZZ_CHECK(condition)                                                                                \
    do {                                                                                                     \
        if (!(condition)) [[unlikely]] {                                                                     \
            fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition);                   \
            abort();                                                                                         \
        }                                                                                                    \
    } while (0)

inline bool fuzz_prepare()
{
    require_sandbox();
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    FUZZ_CHECK(nowhere >= 0 && dup2(nowhere, STDOUT_FILENO) == STDOUT_FILENO && close(nowhere) == 0);
    return true;
}
[[maybe_unused]] inline const bool fuzz_prepared = fuzz_prepare();

using fuzz_bytes = std::span<const uint8_t>;

// Takes an input apart from its beginning. Behind the end all bytes are 0.
class fuzz_reader {
public:
    fuzz_reader(const uint8_t *data, size_t size) : left_(data, size) {}

    [[nodiscard]] bool is_empty() const { return left_.empty(); }
    // At most so many bytes, fewer at the end.
    fuzz_bytes take(size_t size)
    {
        const fuzz_bytes taken = left_.first(std::min(size, left_.size()));
        left_ = left_.subspan(taken.size());
        return taken;
    }
    // The bytes up to the separator, which is dropped, or the end.
    fuzz_bytes take_until(uint8_t separator)
    {
        const auto end = std::find(left_.begin(), left_.end(), separator);
        const fuzz_bytes taken = take(static_cast<size_t>(end - left_.begin()));
        (void)take(1);
        return taken;
    }
    // An integer or a record, as it stands in memory.
    template <class T> T take_value()
    {
        T value = {};
        const fuzz_bytes taken = take(sizeof value);
        if (!taken.empty())
            memcpy(&value, taken.data(), taken.size());
        return value;
    }

private:
    fuzz_bytes left_;
};

// A file whose content each input replaces.
class fuzz_file {
public:
    explicit fuzz_file(const std::filesystem::path &path)
    {
        std::filesystem::create_directories(path.parent_path());
        fd_ = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        FUZZ_CHECK(fd_ >= 0);
    }
    void set(fuzz_bytes content)
    {
        FUZZ_CHECK(pwrite(fd_, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
        FUZZ_CHECK(ftruncate(fd_, static_cast<off_t>(content.size())) == 0);
    }

private:
    int fd_; // until the process ends
};

#endif
