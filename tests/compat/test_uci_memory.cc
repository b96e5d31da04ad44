// Linked with -Wl,--wrap for calloc and realloc, so that a test decides which allocation fails.
#include <uci.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

static long allocationsLeft = -1; // until the one that fails; negative: none fails

static bool allocation_fails()
{
    return allocationsLeft >= 0 && allocationsLeft-- == 0;
}

extern "C" {
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *old, size_t size);

void *__wrap_calloc(size_t count, size_t size)
{
    return allocation_fails() ? nullptr : __real_calloc(count, size);
}

void *__wrap_realloc(void *old, size_t size)
{
    return allocation_fails() ? nullptr : __real_realloc(old, size);
}
}

namespace {

// A file that takes every road to an allocation: the growth of its buffer and of the name index, named and
// generated sections, options, lists, and an option that becomes a list.
std::string content()
{
    std::string out = "#" + std::string(5000, 'x') + "\n";
    for (int i = 0; i < 70; ++i)
        out += "config rule\n";
    return out + "config rule a\noption b c\nlist b d\nlist l e\noption l f\n";
}

// Whichever allocation fails, the load says so and keeps nothing; the leak checker of the sanitizers is the
// second judge.
TEST(uci_memory, every_allocation_may_fail)
{
    std::string path = testing::TempDir() + "/uci.XXXXXX";
    const int fd = mkstemp(path.data());
    ASSERT_GE(fd, 0);
    const std::string text = content();
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);

    int status = UCI_ERR_MEM;
    long failing = 0;
    for (; status == UCI_ERR_MEM && failing < 1000; ++failing) {
        uci_context *const ctx = uci_alloc_context();
        ASSERT_NE(ctx, nullptr);
        uci_package *package = nullptr;
        allocationsLeft = failing;
        status = uci_load(ctx, path.c_str(), &package);
        allocationsLeft = -1;
        EXPECT_EQ(package != nullptr, status == UCI_OK);
        if (status == UCI_ERR_MEM) {
            EXPECT_EQ(uci_load(ctx, path.c_str(), nullptr), UCI_OK) << failing;
        }
        uci_free_context(ctx);
    }
    EXPECT_EQ(status, UCI_OK);
    EXPECT_GT(failing, 75); // the sections alone are that many
    unlink(path.c_str());
}

TEST(uci_memory, calls_without_memory)
{
    allocationsLeft = 0;
    EXPECT_EQ(uci_alloc_context(), nullptr);

    uci_context *const ctx = uci_alloc_context();
    ASSERT_NE(ctx, nullptr);
    allocationsLeft = 0;
    EXPECT_EQ(uci_set_confdir(ctx, "/"), UCI_ERR_MEM);
    char *text = nullptr;
    uci_get_errorstr(ctx, &text, nullptr);
    EXPECT_STREQ(text, "Out of memory");
    free(text);

    char any = 'x';
    text = &any;
    allocationsLeft = 0;
    uci_get_errorstr(ctx, &text, nullptr);
    allocationsLeft = -1;
    EXPECT_EQ(text, nullptr);
    uci_free_context(ctx);
}

} // namespace
