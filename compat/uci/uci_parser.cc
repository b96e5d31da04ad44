// A file is parsed in place. A word is never longer than its source with quotes and backslashes, so it is
// written over that source and ended with a NUL. The strings of the package point to these words.
#include "uci_parser.h"

#include <cstring>

#include "uci_package.h"

namespace {

struct parser {
    uci_builder build;
    char *at;       // the next byte
    char *line_end; // end of the line's content: behind its line feed, or before a comment
    char *next;     // the next line
    char *end;      // end of the file; holds a NUL, which is also the empty word
    char *origin; // byte 0 of the logical line, for error positions; moved by what was dropped from the line
    uci_syntax_error *error;
};

bool is_white(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

bool is_visible(char c)
{
    return c > 0x20 && c < 0x7f;
}

bool is_name_byte(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

bool is_package_byte(char c)
{
    return is_name_byte(c) || c == '-';
}

bool consists_of(const char *text, bool (*allowed)(char))
{
    while (*text != '\0' && allowed(*text))
        ++text;
    return *text == '\0';
}

[[nodiscard]] int syntax_failure(parser *p, const char *place, const char *reason)
{
    p->error->reason = reason;
    p->error->byte = static_cast<size_t>(place - p->origin);
    return UCI_ERR_PARSE;
}

// Continues at the start of the next line, and continues the count of bytes; false at the end of the file. A
// NUL drops the rest of its line, because no value can hold one.
bool next_line(parser *p)
{
    p->origin += p->next - p->at;
    p->at = p->line_end = p->next;
    if (p->at == p->end)
        return false;
    auto *feed = static_cast<char *>(memchr(p->at, '\n', static_cast<size_t>(p->end - p->at)));
    if (feed != nullptr)
        ++p->error->line;
    p->next = feed != nullptr ? feed + 1 : p->end;
    auto *nul = static_cast<char *>(memchr(p->at, '\0', static_cast<size_t>(p->next - p->at)));
    p->line_end = nul != nullptr ? nul : p->next;
    return true;
}

// After a backslash: takes the next byte literally, or drops an LF or CR LF and continues with the next line.
// The count of bytes continues from the dropped bytes.
void read_escaped(parser *p, char **out)
{
    const bool crlf = p->line_end - p->at >= 2 && p->at[0] == '\r' && p->at[1] == '\n';
    if (p->at == p->line_end || *p->at == '\n' || crlf)
        next_line(p); // at the end of the file there is nothing to join
    else
        *(*out)++ = *p->at++;
}

[[nodiscard]] int read_quoted(parser *p, char **out)
{
    const char quote = *p->at++;
    for (;;) {
        if (p->at == p->line_end) {
            if (!next_line(p))
                return syntax_failure(p, p->at,
                                      quote == '"' ? "EOF with unterminated \"" : "EOF with unterminated '");
            continue;
        }
        const char c = *p->at++;
        if (c == quote)
            return UCI_OK;
        if (c == '\\' && quote == '"')
            read_escaped(p, out);
        else
            *(*out)++ = c;
    }
}

void skip_white(parser *p)
{
    while (p->at < p->line_end && is_white(*p->at))
        ++p->at;
}

// Reads the next word of the logical line and one white-space byte after it. The word is empty at the end of
// the line, and at a ';', which is then consumed.
[[nodiscard]] int read_word(parser *p, char **word)
{
    skip_white(p);
    *word = p->end;
    if (p->at == p->line_end)
        return UCI_OK;
    if (*p->at == ';') {
        ++p->at;
        return UCI_OK;
    }
    char *out = *word = p->at;
    while (p->at < p->line_end && !is_white(*p->at) && *p->at != ';' && *p->at != '#') {
        if (*p->at == '\'' || *p->at == '"') {
            const int status = read_quoted(p, &out);
            if (status != UCI_OK)
                return status;
        } else if (*p->at == '\\') {
            ++p->at;
            read_escaped(p, &out);
        } else {
            *out++ = *p->at++;
        }
    }
    if (p->at < p->line_end) {
        // A comment ends the line. So does a ';' directly after a word without quotes and backslashes: the
        // NUL must overwrite the ';'.
        if (is_white(*p->at))
            ++p->at;
        else if (*p->at == '#' || p->at == out)
            p->line_end = p->at;
    }
    *out = '\0';
    return UCI_OK;
}

struct field {
    bool (*allowed)(char);
    bool required;
    const char *reason; // for a byte that is not allowed
};

constexpr char bad_name[] = "invalid character in name field";
constexpr field package_name = {is_package_byte, true, bad_name};
constexpr field section_type = {is_visible, true, "invalid character in type field"};
constexpr field section_name = {is_name_byte, false, bad_name};
constexpr field option_name = {is_name_byte, true, bad_name};

[[nodiscard]] int read_field(parser *p, const field &kind, char **word)
{
    const int status = read_word(p, word);
    if (status != UCI_OK)
        return status;
    if (kind.required && **word == '\0')
        return syntax_failure(p, p->at, "insufficient arguments");
    return consists_of(*word, kind.allowed) ? UCI_OK : syntax_failure(p, p->at, kind.reason);
}

[[nodiscard]] int end_statement(parser *p)
{
    char *word;
    const int status = read_word(p, &word);
    if (status != UCI_OK)
        return status;
    return *word == '\0' ? UCI_OK : syntax_failure(p, p->at, "too many arguments");
}

// The package keeps the name that was given to uci_load.
[[nodiscard]] int parse_package(parser *p)
{
    char *name;
    const int status = read_field(p, package_name, &name);
    return status != UCI_OK ? status : end_statement(p);
}

[[nodiscard]] int parse_config(parser *p)
{
    char *type;
    char *name;
    int status = read_field(p, section_type, &type);
    if (status == UCI_OK)
        status = read_field(p, section_name, &name);
    if (status == UCI_OK)
        status = end_statement(p);
    if (status != UCI_OK)
        return status;

    status = uci_build_section(&p->build, type, name);
    if (status == UCI_ERR_DUPLICATE)
        return syntax_failure(p, p->at, "section of different type overwrites prior section with same name");
    return status;
}

template <int (*store)(uci_builder *, char *name, char *value)> [[nodiscard]] int parse_setting(parser *p)
{
    char *name;
    char *value;
    int status = read_field(p, option_name, &name);
    if (status == UCI_OK)
        status = read_word(p, &value);
    if (status == UCI_OK)
        status = end_statement(p);
    return status != UCI_OK ? status : store(&p->build, name, value);
}

struct command {
    const char *word; // its first letter alone is accepted as well
    bool in_section;
    int (*parse)(parser *);
    const char *unfinished; // when nothing follows the word on its line
};

constexpr command commands[] = {
    {"package", false, parse_package, "package without name"},
    {"config", false, parse_config, "config without name"},
    {"option", true, parse_setting<uci_build_option>, "option without name"},
    {"list", true, parse_setting<uci_build_item>, "option without name"},
};

const command *find_command(const char *word, size_t length)
{
    for (const command &c : commands)
        if ((length == 1 || length == strlen(c.word)) && memcmp(word, c.word, length) == 0)
            return &c;
    return nullptr;
}

[[nodiscard]] int parse_statement(parser *p)
{
    const char *start = p->at;
    while (p->at < p->line_end && is_blank(*p->at))
        ++p->at;
    if (p->at < p->line_end && *p->at == '#')
        p->at = p->line_end;
    if (p->at == p->line_end)
        return UCI_OK;

    const char *word = p->at;
    while (p->at < p->line_end && !is_blank(*p->at))
        ++p->at;
    const command *found = find_command(word, static_cast<size_t>(p->at - word));
    if (found == nullptr)
        return syntax_failure(p, start, "invalid command");
    if (found->in_section && p->build.section == nullptr)
        return syntax_failure(p, start, "option/list command found before the first section");
    if (p->at == p->line_end)
        return syntax_failure(p, start, found->unfinished);
    return found->parse(p);
}

} // namespace

int uci_parse(uci_package *package, size_t size, uci_syntax_error *error)
{
    *error = {};
    parser p = {};
    p.build.package = package;
    p.at = p.line_end = p.next = p.origin = package->bytes;
    p.end = package->bytes + size;
    p.error = error;

    int status = UCI_OK;
    while (status == UCI_OK && next_line(&p)) {
        p.origin = p.at;
        skip_white(&p);
        while (status == UCI_OK && p.at < p.line_end)
            status = parse_statement(&p);
    }
    return status;
}
