#include <uci.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/fsuid.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace std::string_literals;

namespace {

std::string quoted(const char *text)
{
    std::string out = "\"";
    for (; *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        char hex[8];
        switch (byte) {
        case '\\':
        case '"':
            out += {'\\', *text};
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            snprintf(hex, sizeof(hex), "\\x%02x", byte);
            out += byte >= 0x20 && byte <= 0x7e ? std::string(1, *text) : hex;
        }
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
    std::ofstream(path, std::ios::binary) << content;
}

// A directory of its own for the package files, and a context that reads from it.
class uci : public testing::Test {
protected:
    uci()
    {
        std::string name = testing::TempDir() + "/uci.XXXXXX";
        dir = mkdtemp(name.data());
        fs::permissions(dir, fs::perms(0755));
        EXPECT_EQ(uci_set_confdir(ctx.get(), dir.c_str()), UCI_OK);
    }
    ~uci() override { fs::remove_all(dir); }

    std::string error(const char *prefix)
    {
        char *text = nullptr;
        uci_get_errorstr(ctx.get(), &text, prefix);
        const std::string copy = text != nullptr ? text : "no memory";
        free(text);
        return copy;
    }

    // What a load of the content prints; nothing stays loaded.
    std::string outcome(const std::string &content)
    {
        spill(dir / "dns", content);
        uci_package *package = nullptr;
        const int status = uci_load(ctx.get(), "dns", &package);
        if (status != UCI_OK) {
            EXPECT_EQ(package, nullptr);
            return "error "s + std::to_string(status) + " "s + quoted(error("").c_str()) + "\n";
        }
        const std::string walk = printed(package);
        EXPECT_EQ(uci_unload(ctx.get(), package), UCI_OK);
        return walk;
    }

    fs::path dir;
    std::unique_ptr<uci_context, decltype(&uci_free_context)> ctx{uci_alloc_context(), uci_free_context};
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

TEST_F(uci, statements)
{
    static constexpr struct {
        const char *content;
        const char *sections;
    } rows[] = {
        {"config r a;", "section \"r\" \"a\" anonymous=0\n"},
        {"config r 'a';", "section \"r\" \"a\" anonymous=0\n"},
        {"config r a\\", "section \"r\" \"a\" anonymous=0\n"},
        {"config r 'a' ; # option b c\n", "section \"r\" \"a\" anonymous=0\n"},
        {"config r 'a'; config r b\n", "section \"r\" \"a\" anonymous=0\nsection \"r\" \"b\" anonymous=0\n"},
        {"config r a '' config r b\n", "section \"r\" \"a\" anonymous=0\nsection \"r\" \"b\" anonymous=0\n"},
        {"config r a\no b x\\\r\ny\n", "section \"r\" \"a\" anonymous=0\noption \"b\" \"xy\"\n"},
        {"config r a\no b x\\\n#y\\\no c 'z'\\\n",
         "section \"r\" \"a\" anonymous=0\noption \"b\" \"x\"\noption \"c\" \"z\"\n"},
        {"config r a\no b ''x\n", "section \"r\" \"a\" anonymous=0\noption \"b\" \"x\"\n"},
        {"config r a\no b ''; o c d\n", "section \"r\" \"a\" anonymous=0\noption \"c\" \"d\"\n"},
        // A section can be reopened by its generated name, which the file may also have given before.
        {"config r\nconfig r b\nconfig r cfg01b617\no c d\n",
         "section \"r\" \"cfg01b617\" anonymous=1\noption \"c\" \"d\"\nsection \"r\" \"b\" anonymous=0\n"},
        {"config r cfg02b617\nconfig r\nconfig r cfg02b617\no c d\n",
         "section \"r\" \"cfg02b617\" anonymous=0\noption \"c\" \"d\"\nsection \"r\" \"cfg02b617\" "
         "anonymous=1\n"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(outcome(row.content), "package \"dns\"\n"s + row.sections) << row.content;
}

TEST_F(uci, faults_and_their_places)
{
    static constexpr struct {
        const char *content;
        const char *fault;
    } rows[] = {
        {"package", "package without name) at line 0, byte 0"},
        {"\n\n config", "config without name) at line 2, byte 1"},
        {"config r\n\to", "option without name) at line 1, byte 1"},
        {"config r\nlist", "option without name) at line 1, byte 0"},
        {"config\n", "invalid command) at line 1, byte 0"},
        {"configure r\n", "invalid command) at line 1, byte 0"},
        {"conf r\n", "invalid command) at line 1, byte 0"},
        {"Config r\n", "invalid command) at line 1, byte 0"},
        {"'config' r\n", "invalid command) at line 1, byte 0"},
        {"; config r\n", "invalid command) at line 1, byte 0"},
        {"config r 'a';\n", "invalid command) at line 1, byte 13"},
        {"config r 'a' ; ;\n", "invalid command) at line 1, byte 14"},
        {"config r 'a'; x y", "invalid command) at line 0, byte 13"},
        {"config \n", "insufficient arguments) at line 1, byte 8"},
        {"config  # r\n", "insufficient arguments) at line 1, byte 8"},
        {"config ; r\n", "insufficient arguments) at line 1, byte 8"},
        {"config r\noption ''", "insufficient arguments) at line 1, byte 9"},
        {"config r\nlist \t\n", "insufficient arguments) at line 2, byte 7"},
        {"config r\xc3\xa4 a\n", "invalid character in type field) at line 1, byte 11"},
        {"config 'r e' a\n", "invalid character in type field) at line 1, byte 13"},
        {"config r a.b#\n", "invalid character in name field) at line 1, byte 12"},
        {"config r a-b", "invalid character in name field) at line 0, byte 12"},
        {"config r a b c\n", "too many arguments) at line 1, byte 13"},
        {"config r ; option a b\n", "too many arguments) at line 1, byte 18"},
        {"config r\no a ; o b c\n", "too many arguments) at line 2, byte 8"},
        {"config r a\\\nb c\n", "too many arguments) at line 2, byte 15"},
        {"config r a\no b \\\n x", "too many arguments) at line 2, byte 7"},
        {"config r a\no b x\\\r\ny\\\r\n z", "too many arguments) at line 3, byte 12"},
        {"config r 'a\n' \"b\nc\"\n", "invalid character in name field) at line 2, byte 14"},
        {" l a b\n", "option/list command found before the first section) at line 1, byte 1"},
        {"config r a\nconfig s a # b\n",
         "section of different type overwrites prior section with same name) at line 2, byte 11"},
        {"config r a\nconfig s 'a' ; o b c\n",
         "section of different type overwrites prior section with same name) at line 2, byte 14"},
        {"config r 'a", "EOF with unterminated ') at line 0, byte 11"},
        {"config r 'a\n\n", "EOF with unterminated ') at line 2, byte 13"},
        {"config r \"a\\", "EOF with unterminated \") at line 0, byte 12"},
        {"config r \"a\\\nb\n", "EOF with unterminated \") at line 2, byte 14"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(outcome(row.content), "error 5 " + quoted((": Parse error ("s + row.fault).c_str()) + "\n")
            << row.content;
}

TEST_F(uci, refused_names_and_files)
{
    spill(dir / "dns", "");
    spill(dir / ".dns", "");
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
        {"dns\n", UCI_ERR_INVAL},
        {"dns\x7f", UCI_ERR_INVAL},
        {"d\xc3\xa4s", UCI_ERR_INVAL},
        {"missing", UCI_ERR_NOTFOUND},
        {"folder", UCI_ERR_NOTFOUND},
        {"fifo", UCI_ERR_NOTFOUND},
        {"dangling", UCI_ERR_NOTFOUND},
        {"dns/", UCI_ERR_NOTFOUND},
        {".dns", UCI_ERR_NOTFOUND},
        {"../dns", UCI_ERR_NOTFOUND},
    };
    for (const auto &row : rows) {
        uci_package *const untouched = reinterpret_cast<uci_package *>(this);
        uci_package *package = untouched;
        EXPECT_EQ(uci_load(ctx.get(), row.name, &package), row.status) << row.name;
        EXPECT_EQ(package == untouched, row.status != UCI_OK) << row.name;
        EXPECT_EQ(uci_load(nullptr, row.name, nullptr), UCI_ERR_INVAL);
    }
}

TEST_F(uci, unreadable_file)
{
    spill(dir / "dns", "");
    fs::permissions(dir / "dns", fs::perms::none);
    std::thread([this] {
        setfsuid(65534); // of this thread only: root may read everything
        EXPECT_EQ(uci_load(ctx.get(), "dns", nullptr), UCI_ERR_IO);
    }).join();
    EXPECT_EQ(error(""), ": I/O error");
}

TEST_F(uci, package_is_loaded_once_until_unloaded)
{
    spill(dir / "dns", "config r a\n");
    const std::string path = dir / "dns";
    uci_package *package = nullptr;
    ASSERT_EQ(uci_load(ctx.get(), path.c_str(), &package), UCI_OK);
    EXPECT_EQ(uci_load(ctx.get(), "dns", nullptr), UCI_ERR_DUPLICATE);
    EXPECT_EQ(error(nullptr), "Duplicate entry");
    EXPECT_EQ(printed(package), "package \"dns\"\nsection \"r\" \"a\" anonymous=0\n");

    EXPECT_EQ(uci_unload(ctx.get(), nullptr), UCI_ERR_INVAL);
    EXPECT_EQ(uci_unload(ctx.get(), package), UCI_OK);
    spill(dir / "dns", "config r b\n");
    ASSERT_EQ(uci_load(ctx.get(), "dns", &package), UCI_OK);
    EXPECT_EQ(printed(package), "package \"dns\"\nsection \"r\" \"b\" anonymous=0\n");

    fs::create_directory(dir / "sub");
    spill(dir / "sub/dns", "");
    ASSERT_EQ(uci_load(ctx.get(), "sub/dns", &package), UCI_OK);
    EXPECT_STREQ(package->e.name, "sub/dns");
}

TEST_F(uci, error_texts)
{
    static constexpr struct {
        const char *content; // null: no file
        const char *text;
    } rows[] = {
        {nullptr, "Entry not found"},
        {"\nfoo\n", "Parse error (invalid command) at line 2, byte 0"},
        {"", "Success"},
    };
    for (const auto &row : rows) {
        if (row.content != nullptr)
            spill(dir / "dns", row.content);
        (void)uci_load(ctx.get(), "dns", nullptr); // the text tells
        EXPECT_EQ(error(nullptr), row.text);
        EXPECT_EQ(error(""), ": "s + row.text);
        EXPECT_EQ(error("x"), "x: "s + row.text);
    }
    char *text = nullptr;
    uci_get_errorstr(nullptr, &text, nullptr);
    EXPECT_STREQ(text, "Invalid argument");
    free(text);
}

// In a thread with mounts of its own, so that neither /etc nor /var/run of the machine is touched.
TEST_F(uci, search_path)
{
    std::optional<std::string> skipped;
    std::thread([this, &skipped] {
        if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/etc", "tmpfs", 0, nullptr) != 0 ||
            mount("tmpfs", "/var/run", "tmpfs", 0, nullptr) != 0) {
            skipped = "no mounts of its own: "s + strerror(errno);
            return;
        }
        fs::create_directory("/etc/config");
        fs::create_directory("/var/run/uci");
        spill("/etc/config/dns", "config r etc\n");
        spill(dir / "dns", "config r test\n");
        const auto section = [](uci_context *context) -> std::string {
            uci_package *package = nullptr;
            const int status = uci_load(context, "dns", &package);
            if (status != UCI_OK)
                return "error "s + std::to_string(status);
            const std::string name = reinterpret_cast<uci_element *>(package->sections.next)->name;
            EXPECT_EQ(uci_unload(context, package), UCI_OK);
            return name;
        };
        const std::unique_ptr<uci_context, decltype(&uci_free_context)> plain(uci_alloc_context(),
                                                                              uci_free_context);
        EXPECT_EQ(section(plain.get()), "etc");
        EXPECT_EQ(section(ctx.get()), "test");
        spill("/var/run/uci/dns", "config r run\n");
        EXPECT_EQ(section(plain.get()), "run");
        EXPECT_EQ(section(ctx.get()), "run");
        spill("/var/run/uci/dns", "config\n");
        EXPECT_EQ(section(plain.get()), "error 5");
        fs::remove("/var/run/uci/dns");
        fs::create_directory("/var/run/uci/dns");
        EXPECT_EQ(section(plain.get()), "error 3");
    }).join();
    if (skipped)
        GTEST_SKIP() << *skipped;
}

// A writer that holds the exclusive lock finishes first.
TEST_F(uci, load_waits_for_the_lock)
{
    const fs::path path = dir / "dns";
    spill(path, "config r half");
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    struct stat info;
    ASSERT_EQ(fstat(fd, &info), 0);

    uci_package *package = nullptr;
    std::thread reader([&] { EXPECT_EQ(uci_load(ctx.get(), "dns", &package), UCI_OK); });
    const std::string inode = ":"s + std::to_string(info.st_ino) + " ";
    const auto waiting = [&inode] {
        std::ifstream locks("/proc/locks");
        for (std::string line; std::getline(locks, line);)
            if (line.find("->") != line.npos && line.find(inode) != line.npos)
                return true;
        return false;
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!waiting() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_TRUE(waiting());
    spill(path, "config r whole\n");
    close(fd);
    reader.join();
    ASSERT_NE(package, nullptr);
    EXPECT_EQ(printed(package), "package \"dns\"\nsection \"r\" \"whole\" anonymous=0\n");
}

std::string repeated(const std::string &text, size_t times)
{
    std::string out;
    out.reserve(text.size() * times);
    for (; times > 0; --times)
        out += text;
    return out;
}

// Ten million bytes of one shape. What takes quadratic time runs into the time limit of the test.
TEST_F(uci, huge_files)
{
    static constexpr size_t bytes = 10'000'000;
    const std::string xs(bytes, 'x');
    const auto value_of = [this](const std::string &source) {
        const std::string before = "package \"dns\"\nsection \"r\" \"a\" anonymous=0\noption \"b\" \"";
        const std::string walk = outcome("config r a\noption b " + source);
        const bool fits = walk.starts_with(before) && walk.ends_with("\"\n");
        return fits ? walk.substr(before.size(), walk.size() - before.size() - 2) : walk.substr(0, 200);
    };
    static constexpr const char *pieces[] = {"\\x", "x\\\n", "\"x\\\n\"''", "'x'"};
    for (const char *piece : pieces) {
        const size_t times = bytes / strlen(piece);
        EXPECT_TRUE(value_of(repeated(piece, times)) == std::string(times, 'x')) << piece;
    }
    EXPECT_TRUE(value_of(xs) == xs);
    EXPECT_TRUE(value_of("'" + xs + "'\n") == xs);
    EXPECT_TRUE(value_of("\"" + xs + "\"\n") == xs);

    EXPECT_EQ(outcome("#" + xs), "package \"dns\"\n");
    EXPECT_EQ(outcome(std::string(bytes, '\n')), "package \"dns\"\n");
    EXPECT_EQ(outcome(std::string(bytes, '\0')), "package \"dns\"\n");
    EXPECT_EQ(outcome("config r '" + xs),
              "error 5 \": Parse error (EOF with unterminated ') at line 0, byte 10000010\"\n");
    EXPECT_EQ(outcome(xs), "error 5 \": Parse error (invalid command) at line 0, byte 0\"\n");
}

TEST_F(uci, many_records)
{
    static constexpr int count = 200'000;
    std::string sections;
    std::string options = "config r a\n";
    std::string items = options;
    for (int i = 1; i <= count; ++i) {
        const std::string n = std::to_string(i);
        sections += "config r s" + n + "\noption b c\n";
        options += "option o" + n + " v\n";
        items += "list l " + n + "\n";
    }
    const struct {
        std::string content; // twice where a name is to be found again
        const char *end;
    } rows[] = {
        {sections + sections, "\"s200000\" anonymous=0\noption \"b\" \"c\"\n"},
        {options + options, "\noption \"o200000\" \"v\"\n"},
        {items, " \"199999\" \"200000\"\n"},
    };
    for (const auto &row : rows) {
        const std::string walk = outcome(row.content);
        EXPECT_TRUE(walk.ends_with(row.end)) << row.end << walk.substr(0, 200);
        EXPECT_EQ(walk.find(row.end), walk.size() - strlen(row.end)) << row.end;
    }
}

// Any bytes give a walk or a fault with its place, and the context stays good for the next load.
TEST_F(uci, random_bytes)
{
    static constexpr const char *parts[] = {
        "config",  "option", "list", "package", " ",  "\t", "\n",  "\r\n", "\\\n",
        "\\\r\n",  "'",      "\"",   "\\",      "#",  ";",  "a",   "b",    "r",
        "c r a\n", "o a b",  "l b ", "''",      "\f", ".",  "\x80"};
    std::mt19937 random(1);
    const auto below = [&random](size_t n) {
        return std::uniform_int_distribution<size_t>(0, n - 1)(random);
    };
    for (int round = 0; round < 10'000; ++round) {
        std::string content = below(2) == 0 ? "" : "config r a\n";
        for (size_t n = below(24); n > 0; --n)
            content += below(8) == 0 ? std::string(1, static_cast<char>(below(256)))
                                     : parts[below(std::size(parts))];
        const std::string result = outcome(content);
        ASSERT_TRUE(result.starts_with("package \"dns\"\n") ||
                    result.starts_with("error 5 \": Parse error ("))
            << quoted(content.c_str()) << result;
    }
}

} // namespace
