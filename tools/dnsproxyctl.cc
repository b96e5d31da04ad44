// dnsproxyctl: shows and changes the upstream DNS servers and link states of the running daemon, tells
// whether it serves, what it counts and what is wrong, and watches its lines.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <iterator>

#include "check.h"
#include "command.h"
#include "pipe_commands.h"
#include "state.h"
#include "stats.h"
#include "status.h"
#include "watch.h"

namespace {

constexpr char program[] = "dnsproxyctl";

constexpr char help[] =
    R"(Usage: dnsproxyctl COMMAND [OPTION...]
Shows and changes the upstream DNS servers of the running dnsproxyd, and watches over it.

Commands:
  status                show whether the daemon serves, its lines and their servers
  check                 look for what keeps hosts from getting answers
  stats                 show what the daemon counts, per line and server
  list                  show the devices that have IPv4 servers
  addrs                 show all IPv4 servers
  get IF                show the servers of an interface
  set IF [SERVER...]    change servers of an interface; others are kept
  add IF SERVER...      make an interface
  put IF SERVER...      change the interface if it is there, else make it
  del IF                delete an interface
  delall                delete all interfaces but VPN devices
  up IF                 mark a line up
  down IF               mark a line down
  watch                 test the lines without end, and mark them up and down
  help                  show this

IF is a logical interface name, for up and down also a device. SERVER is an IPv4 or IPv6 address, at most
two of each.

Options:
  -j, --json            answer with a JSON document
  --prometheus          of stats: answer in the exposition format of Prometheus
  --watch [SECONDS]     of stats: show rates, again and again (2)
  --every SECONDS       of watch: time between two rounds (10)
  --down N, --up N      of watch: bad rounds before a line is off, good ones before it is on (3, 2)
  --query NAME          of watch: the name that is asked for, instead of the root's servers
  --exec CMD            of watch: run CMD NAME DEVICE on|off after each change
  -h, --help            show this
  -V, --version         show the version

Exit status: 0 done, 1 refused by the daemon, 2 wrong usage, 3 daemon cannot be reached;
1 also when status finds that the daemon does not serve, or check finds anything.
)";

// Options, as bits of what a command takes.
enum : unsigned {
    JSON = 1,
    PROMETHEUS = 2,
    REPEAT = 4,
    WATCH = 8,
};

int run_help(const invocation &)
{
    fputs(help, stdout);
    return finish_output();
}

constexpr int most_servers = 4;

struct command {
    const char *name;
    int least; // operands
    int most;
    unsigned options;
    int (*run)(const invocation &given);
};

constexpr command commands[] = {
    {"status", 0, 0, JSON, run_status},
    {"check", 0, 0, JSON, run_check},
    {"stats", 0, 1, JSON | PROMETHEUS | REPEAT, run_stats},
    {"list", 0, 0, JSON, run_pipe_command},
    {"addrs", 0, 0, JSON, run_pipe_command},
    {"get", 1, 1, JSON, run_pipe_command},
    {"set", 1, 1 + most_servers, JSON, run_pipe_command},
    {"add", 2, 1 + most_servers, JSON, run_pipe_command},
    {"put", 2, 1 + most_servers, JSON, run_pipe_command},
    {"del", 1, 1, JSON, run_pipe_command},
    {"delall", 0, 0, JSON, run_pipe_command},
    {"up", 1, 1, JSON, run_state},
    {"down", 1, 1, JSON, run_state},
    {"watch", 0, 0, WATCH, run_watch},
    {"help", 0, 0, JSON, run_help},
};

// Values of options without a letter.
enum : int { OPT_PROMETHEUS = 256, OPT_WATCH, OPT_EVERY, OPT_DOWN, OPT_UP, OPT_QUERY, OPT_EXEC };

constexpr option options[] = {
    {"json", no_argument, nullptr, 'j'},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'V'},
    {"prometheus", no_argument, nullptr, OPT_PROMETHEUS},
    {"watch", optional_argument, nullptr, OPT_WATCH},
    {"every", required_argument, nullptr, OPT_EVERY},
    {"down", required_argument, nullptr, OPT_DOWN},
    {"up", required_argument, nullptr, OPT_UP},
    {"query", required_argument, nullptr, OPT_QUERY},
    {"exec", required_argument, nullptr, OPT_EXEC},
    {nullptr, 0, nullptr, 0},
};

// What was read of the command line.
struct command_line {
    invocation given;
    const char *words[1 + most_operands]; // the command and its operands
    int count;
    const char *too_many; // the first word beyond them
    struct {
        unsigned kind;
        const char *word;
    } used[16]; // options, to be held against the command
    int used_count;
};

void append(command_line *line, const char *word)
{
    if (line->count < 1 + most_operands)
        line->words[line->count++] = word;
    else if (line->too_many == nullptr)
        line->too_many = word;
}

void note(command_line *line, unsigned kind, const char *word)
{
    if (line->used_count < static_cast<int>(std::size(line->used)))
        line->used[line->used_count++] = {kind, word};
}

// EXIT_DONE, or the end of the program.
int take_option(command_line *line, int c)
{
    invocation *given = &line->given;
    switch (c) {
    case 'j':
        given->form = format::json;
        note(line, JSON, "--json");
        return EXIT_DONE;
    case OPT_PROMETHEUS:
        given->form = format::prometheus;
        note(line, PROMETHEUS, "--prometheus");
        return EXIT_DONE;
    case OPT_WATCH:
        given->repeats = true;
        note(line, REPEAT, "--watch");
        if (optarg != nullptr && !read_interval(optarg, &given->interval_s))
            return usage_error("--watch: %s is no number of seconds", optarg);
        return EXIT_DONE;
    case OPT_EVERY:
        note(line, WATCH, "--every");
        if (!read_number(optarg, 1, 86400, &given->every_s))
            return usage_error("--every: %s is no number of seconds", optarg);
        return EXIT_DONE;
    case OPT_DOWN:
    case OPT_UP: {
        const char *word = c == OPT_DOWN ? "--down" : "--up";
        note(line, WATCH, word);
        if (!read_number(optarg, 1, 1000, c == OPT_DOWN ? &given->down_after : &given->up_after))
            return usage_error("%s: %s is no number of rounds", word, optarg);
        return EXIT_DONE;
    }
    case OPT_QUERY:
        given->query = optarg;
        note(line, WATCH, "--query");
        return EXIT_DONE;
    case OPT_EXEC:
        given->exec = optarg;
        note(line, WATCH, "--exec");
        return EXIT_DONE;
    default:
        return EXIT_USAGE;
    }
}

// The word at which the options could not go on.
const char *wrong_option(char *const *argv)
{
    static char letter[] = "-?";
    const char *word = argv[optind - 1];
    if (optopt == 0 || optopt >= 256 || strncmp(word, "--", 2) == 0)
        return word;
    letter[1] = static_cast<char>(optopt);
    return letter;
}

int finish_command(command_line *line)
{
    if (line->count == 0)
        return usage_error("a command is missing, see '%s --help'", program);
    invocation *given = &line->given;
    given->command = line->words[0];
    const char *name = given->command;
    const command *c = std::find_if(std::begin(commands), std::end(commands),
                                    [name](const command &each) { return strcmp(each.name, name) == 0; });
    if (c == std::end(commands))
        return usage_error("no such command: %s", name);
    for (int i = 0; i < line->used_count; i++) {
        if ((line->used[i].kind & c->options) == 0)
            return usage_error("%s takes no option %s", name, line->used[i].word);
    }
    given->count = line->count - 1;
    if (given->count < c->least)
        return usage_error("%s: %s is missing", name, given->count == 0 ? "the interface" : "a server");
    const char *too_many = given->count > c->most ? line->words[1 + c->most] : line->too_many;
    if (too_many != nullptr)
        return usage_error("%s: one word too many: %s", name, too_many);
    std::copy_n(line->words + 1, given->count, given->operands);
    return c->run(*given);
}

} // namespace

int usage_error(const char *text, ...)
{
    va_list values;
    va_start(values, text);
    fprintf(stderr, "%s: ", program);
    vfprintf(stderr, text, values);
    fputc('\n', stderr);
    va_end(values);
    return EXIT_USAGE;
}

int failure(exit_status status, const char *text, ...)
{
    va_list values;
    va_start(values, text);
    (void)fflush(stdout);
    fprintf(stderr, "%s: ", program);
    vfprintf(stderr, text, values);
    fputc('\n', stderr);
    va_end(values);
    return status;
}

int finish_output()
{
    if (fflush(stdout) == 0 && ferror(stdout) == 0)
        return EXIT_DONE;
    return failure(EXIT_REFUSED, "standard output: %s", strerror(errno));
}

bool read_number(const char *text, int least, int most, int *number)
{
    char *end = nullptr;
    const long value = strtol(text, &end, 10);
    *number = static_cast<int>(std::clamp<long>(value, least, most));
    return end != text && *end == '\0' && *number == value;
}

bool read_interval(const char *text, double *seconds)
{
    char *end = nullptr;
    *seconds = strtod(text, &end);
    return end != text && *end == '\0' && *seconds >= 0.1 && *seconds <= 86400;
}

int main(int argc, char **argv)
{
    command_line line = {};
    line.given.form = format::columns;
    line.given.interval_s = 2;
    line.given.every_s = 10;
    line.given.down_after = 3;
    line.given.up_after = 2;
    line.given.query = ".";
    opterr = 0;
    // With the "-" operands come as option 1, among the options and in their order, whichever C library
    // this is.
    for (int c = 0; (c = getopt_long(argc, argv, "-:jhV", options, nullptr)) != -1;) {
        if (c == 1) {
            append(&line, optarg);
        } else if (c == 'h') {
            return run_help(line.given);
        } else if (c == 'V') {
            printf("%s %s\n", program, DNSPROXYCTL_VERSION);
            return finish_output();
        } else if (c == ':') {
            return usage_error("%s: its value is missing", argv[optind - 1]);
        } else if (c == '?') {
            return usage_error("no such option: %s", wrong_option(argv));
        } else {
            const int status = take_option(&line, c);
            if (status != EXIT_DONE)
                return status;
        }
    }
    for (; optind < argc; optind++) // after "--"
        append(&line, argv[optind]);
    return finish_command(&line);
}
