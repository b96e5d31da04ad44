// Linked with -Wl,--wrap for calloc and realloc, so that a test decides which allocation fails.
#include <uci.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include "tests/model/sandbox.h"

namespace fs = std::filesystem;
using namespace std::string_literals;

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

[[maybe_unused]] const bool in_sandbox = require_sandbox();
const fs::path dir = "/tmp/config";

std::string quoted(const char *text)
{
    std::string out = "\"";
    for (; *text != '\0'; ++text) {
        static constexpr char escaped[] = "\\\"\n\r\t", letters[] = "\\\"nrt";
        const auto byte = static_cast<unsigned char>(*text);
        char hex[8];
        snprintf(hex, sizeof(hex), "\\x%02x", byte);
        if (const char *const found = strchr(escaped, *text))
            out += {'\\', letters[found - escaped]};
        else
            out += byte >= 0x20 && byte <= 0x7e ? std::string(1, *text) : hex;
    }
    return out + "\"";
}

std::string printed(uci_option *option)
{
    if (option->type == UCI_TYPE_STRING)
        return "option "s + quoted(option->e.name) + " "s + quoted(option->v.string) + "\n";
    std::string out = "list "s + quoted(option->e.name);
    uci_element *item;
    uci_foreach_element(&option->v.list, item) out += " "s + quoted(item->name);
    return out + "\n";
}

std::string printed(uci_package *package)
{
    std::string out = "package "s + quoted(package->e.name) + "\n";
    uci_element *s;
    uci_foreach_element(&package->sections, s)
    {
        uci_section *const section = uci_to_section(s);
        EXPECT_EQ(section->package, package);
        out += "section "s + quoted(section->type) + " "s + quoted(section->e.name) +
               " anonymous=" + (section->anonymous ? "1" : "0") + "\n";
        uci_element *o;
        uci_foreach_element(&section->options, o)
        {
            EXPECT_EQ(uci_to_option(o)->section, section);
            out += printed(uci_to_option(o));
        }
    }
    return out;
}

std::string slurp(const fs::path &path)
{
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}

void spill(const fs::path &path, const std::string &content)
{
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

using context = std::unique_ptr<uci_context, decltype(&uci_free_context)>;

// A folder of its own for the package files, and a context that reads from it.
class uci : public testing::Test {
protected:
    uci()
    {
        fs::create_directories(dir);
        EXPECT_EQ(uci_set_confdir(ctx.get(), dir.c_str()), UCI_OK);
    }
    ~uci() override { fs::remove_all(dir); }

    static std::string error(uci_context *from, const char *prefix)
    {
        char *text = nullptr;
        uci_get_errorstr(from, &text, prefix);
        const std::string copy = text != nullptr ? text : "no memory";
        free(text);
        return copy;
    }

    // What a load prints; nothing stays loaded.
    static std::string walk(uci_context *from, const char *name = "dns")
    {
        uci_package *package = nullptr;
        const int status = uci_load(from, name, &package);
        if (status != UCI_OK) {
            EXPECT_EQ(package, nullptr);
            return "error "s + std::to_string(status) + " "s + quoted(error(from, "").c_str()) + "\n";
        }
        const std::string all = printed(package);
        EXPECT_EQ(uci_unload(from, package), UCI_OK);
        return all;
    }
    std::string outcome(const std::string &content)
    {
        spill(dir / "dns", content);
        return walk(ctx.get());
    }

    context ctx{uci_alloc_context(), uci_free_context};
};

TEST_F(uci, recorded_files)
{
    int files = 0;
    for (const auto &entry : fs::directory_iterator(TEST_DATA_DIR "/uci")) {
        fs::path path = entry.path();
        if (path.extension() != ".conf")
            continue;
        ++files;
        EXPECT_EQ(outcome(slurp(path)), slurp(fs::path(path).replace_extension(".expect"))) << path;
    }
    EXPECT_GT(files, 0) << TEST_DATA_DIR "/uci";
}

TEST_F(uci, refused_names_and_files)
{
    spill(dir / "dns", "");
    spill(dir / ".dns", "");
    spill("/tmp/dns", "");
    fs::create_directory(dir / "folder");
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    fs::create_symlink("nowhere", dir / "dangling");
    fs::create_symlink("dns", dir / "link");
    static constexpr struct {
        const char *name;
        int status;
    } rows[] = {
        {"dns", UCI_OK},
        {"link", UCI_OK},
        {"folder/../dns", UCI_OK},
        {nullptr, UCI_ERR_INVAL},
        {"", UCI_ERR_INVAL},
        {"d ns", UCI_ERR_INVAL},
        {"dns\x7f", UCI_ERR_INVAL},
        {"d\xc3\xa4s", UCI_ERR_INVAL},
        {"missing", UCI_ERR_NOTFOUND},
        {"folder", UCI_ERR_NOTFOUND},
        {"fifo", UCI_ERR_NOTFOUND},
        {"dangling", UCI_ERR_NOTFOUND},
        {".dns", UCI_ERR_NOTFOUND},
        {"../dns", UCI_ERR_NOTFOUND},
    };
    for (const auto &row : rows) {
        uci_package *const untouched = reinterpret_cast<uci_package *>(this);
        uci_package *package = untouched;
        EXPECT_EQ(uci_load(ctx.get(), row.name, &package), row.status) << row.name;
        EXPECT_EQ(package == untouched, row.status != UCI_OK) << row.name;
    }
    EXPECT_EQ(uci_load(nullptr, "dns", nullptr), UCI_ERR_INVAL);
}

TEST_F(uci, package_is_loaded_once_until_unloaded)
{
    spill(dir / "dns", "config r a\n");
    uci_package *package = nullptr;
    ASSERT_EQ(uci_load(ctx.get(), (dir / "dns").c_str(), &package), UCI_OK);
    EXPECT_EQ(uci_load(ctx.get(), "dns", nullptr), UCI_ERR_DUPLICATE);
    EXPECT_EQ(error(ctx.get(), nullptr), "Duplicate entry");
    EXPECT_EQ(printed(package), "package \"dns\"\nsection \"r\" \"a\" anonymous=0\n");
    EXPECT_EQ(uci_unload(ctx.get(), nullptr), UCI_ERR_INVAL);
    EXPECT_EQ(uci_unload(ctx.get(), package), UCI_OK);
    EXPECT_EQ(outcome("config r b\n"), "package \"dns\"\nsection \"r\" \"b\" anonymous=0\n");

    EXPECT_EQ(error(ctx.get(), "x"), "x: Success");
    EXPECT_EQ(error(nullptr, nullptr), "Invalid argument");
}

// What the running system has put aside comes before what is configured.
TEST_F(uci, search_path)
{
    static constexpr char run[] = "/var/run/uci/dns";
    const context plain(uci_alloc_context(), uci_free_context);
    const auto section = [](const char *name) {
        return "package \"dns\"\nsection \"r\" \""s + name + "\" anonymous=0\n";
    };
    spill("/etc/config/dns", "config r etc\n");
    EXPECT_EQ(walk(plain.get()), section("etc"));
    EXPECT_EQ(outcome("config r test\n"), section("test"));
    spill(run, "config r run\n");
    EXPECT_EQ(walk(plain.get()), section("run"));
    EXPECT_EQ(walk(ctx.get()), section("run"));
    spill(run, "config\n");
    EXPECT_TRUE(walk(plain.get()).starts_with("error 5"));
    fs::remove(run);
    fs::create_directory(run);
    EXPECT_TRUE(walk(plain.get()).starts_with("error 3"));
    fs::remove(run);
}

std::string repeated(const std::string &text, size_t times)
{
    std::string out;
    for (; times > 0; --times)
        out += text;
    return out;
}

// Ten million bytes of one shape, and many records. What takes quadratic time runs into the time limit of the
// test.
TEST_F(uci, huge_files)
{
    static constexpr size_t bytes = 10'000'000;
    const std::string before = "package \"dns\"\nsection \"r\" \"a\" anonymous=0\noption \"b\" \"";
    for (const char *piece : {"x", "\\x", "x\\\n", "\"x\\\n\"''", "'x'"}) {
        const size_t times = bytes / strlen(piece);
        const std::string expected = before + std::string(times, 'x') + "\"\n";
        EXPECT_TRUE(outcome("config r a\noption b " + repeated(piece, times)) == expected) << piece;
    }
    for (const char byte : {'#', '\n', '\0'})
        EXPECT_EQ(outcome(std::string(bytes, byte)), "package \"dns\"\n");
    EXPECT_EQ(outcome("config r '" + std::string(bytes, 'x')),
              "error 5 \": Parse error (EOF with unterminated ') at line 0, byte 10000010\"\n");
}

// A file that causes every kind of allocation: the growth of its buffer, named and
// generated sections, options, lists, and an option that becomes a list. Whichever allocation fails, the load
// says so and keeps nothing; the leak checker of the sanitizers is the second judge.
TEST_F(uci, every_allocation_may_fail)
{
    spill(dir / "dns", "#" + std::string(5000, 'x') + "\n" + repeated("config rule\n", 70) +
                           "config rule a\noption b c\nlist b d\nlist l e\noption l f\n");
    const std::string path = dir / "dns";
    int status = UCI_ERR_MEM;
    long failing = 0;
    for (; status == UCI_ERR_MEM && failing < 1000; ++failing) {
        const context fresh(uci_alloc_context(), uci_free_context);
        uci_package *package = nullptr;
        allocationsLeft = failing;
        status = uci_load(fresh.get(), path.c_str(), &package);
        allocationsLeft = -1;
        EXPECT_EQ(package != nullptr, status == UCI_OK);
        EXPECT_EQ(uci_load(fresh.get(), path.c_str(), nullptr),
                  status == UCI_OK ? UCI_ERR_DUPLICATE : UCI_OK);
    }
    EXPECT_EQ(status, UCI_OK);
    EXPECT_GT(failing, 75); // the sections alone are that many

    allocationsLeft = 0;
    EXPECT_EQ(uci_alloc_context(), nullptr);
    allocationsLeft = 0;
    EXPECT_EQ(uci_set_confdir(ctx.get(), "/"), UCI_ERR_MEM);
    EXPECT_EQ(error(ctx.get(), nullptr), "Out of memory");
    allocationsLeft = 0;
    EXPECT_EQ(error(ctx.get(), nullptr), "no memory");
}

} // namespace
