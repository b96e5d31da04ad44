#include "json.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int deepest = 32;

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

const char *skip_blanks(const char *at)
{
    return at + strspn(at, " \t\r\n");
}

const char *skip_string(const char *at)
{
    if (*at != '"')
        return nullptr;
    for (at++; *at != '"'; at++) {
        if (static_cast<unsigned char>(*at) < ' ')
            return nullptr;
        if (*at != '\\')
            continue;
        at++;
        if (*at == 'u') {
            for (int i = 1; i <= 4; i++) {
                if (isxdigit(static_cast<unsigned char>(at[i])) == 0)
                    return nullptr;
            }
            at += 4;
        } else if (*at == '\0' || strchr("\"\\/bfnrt", *at) == nullptr) {
            return nullptr;
        }
    }
    return at + 1;
}

const char *skip_digits(const char *at)
{
    if (at == nullptr || !is_digit(*at))
        return nullptr;
    while (is_digit(*at))
        at++;
    return at;
}

const char *skip_number(const char *at)
{
    at = skip_digits(*at == '-' ? at + 1 : at);
    if (at != nullptr && *at == '.')
        at = skip_digits(at + 1);
    if (at != nullptr && (*at == 'e' || *at == 'E'))
        at = skip_digits(at[1] == '+' || at[1] == '-' ? at + 2 : at + 1);
    return at;
}

const char *skip_word(const char *at)
{
    static constexpr const char *words[] = {"true", "false", "null"};
    for (const char *word : words) {
        if (strncmp(at, word, strlen(word)) == 0)
            return at + strlen(word);
    }
    return nullptr;
}

// Behind a value, or nullptr where there is none.
const char *skip_value(const char *at, int depth);

// Behind the name of a member and its colon.
const char *skip_name(const char *at)
{
    at = skip_string(at);
    if (at == nullptr)
        return nullptr;
    at = skip_blanks(at);
    return *at == ':' ? skip_blanks(at + 1) : nullptr;
}

const char *skip_items(const char *at, char close, int depth)
{
    at = skip_blanks(at + 1);
    if (*at == close)
        return at + 1;
    for (;;) {
        if (close == '}')
            at = skip_name(at);
        if (at != nullptr)
            at = skip_value(at, depth);
        if (at == nullptr)
            return nullptr;
        at = skip_blanks(at);
        if (*at == close)
            return at + 1;
        if (*at != ',')
            return nullptr;
        at = skip_blanks(at + 1);
    }
}

const char *skip_value(const char *at, int depth) // NOLINT(misc-no-recursion): 32 levels at most
{
    if (at == nullptr || depth == deepest)
        return nullptr;
    switch (*at) {
    case '{':
        return skip_items(at, '}', depth + 1);
    case '[':
        return skip_items(at, ']', depth + 1);
    case '"':
        return skip_string(at);
    default:
        return *at == '-' || is_digit(*at) ? skip_number(at) : skip_word(at);
    }
}

// What an escape in a valid string stands for; `at`, behind the backslash, is moved to its last character.
char unescape(const char **at)
{
    static constexpr char codes[] = "bfnrt";
    static constexpr char meanings[] = "\b\f\n\r\t";
    if (**at == 'u') {
        char digits[5] = {};
        memcpy(digits, *at + 1, 4);
        *at += 4;
        const long code = strtol(digits, nullptr, 16);
        return code > 0 && code < 0x80 ? static_cast<char>(code) : '?';
    }
    const char *code = strchr(codes, **at);
    return code != nullptr ? meanings[code - codes] : **at;
}

json behind_comma(const char *at)
{
    if (at == nullptr)
        return {nullptr};
    at = skip_blanks(at);
    return {*at == ',' ? skip_blanks(at + 1) : nullptr};
}

json first_of(const char *at, char open, char close)
{
    if (at == nullptr || *at != open)
        return {nullptr};
    at = skip_blanks(at + 1);
    return {*at == close ? nullptr : at};
}

} // namespace

json json_read(const char *text)
{
    text = skip_blanks(text);
    const char *end = skip_value(text, 0);
    return {end != nullptr && *skip_blanks(end) == '\0' ? text : nullptr};
}

json json::first() const
{
    return first_of(at, '[', ']');
}

json json::next() const
{
    return {at != nullptr ? behind_comma(skip_value(at, 0)).at : nullptr};
}

json json::first_name() const
{
    return first_of(at, '{', '}');
}

json json::value() const
{
    return {skip_name(at)};
}

json json::member(const char *name) const
{
    const size_t length = strlen(name);
    for (json each = first_name(); each; each = each.value().next()) {
        if (strncmp(each.at + 1, name, length) == 0 && each.at[length + 1] == '"')
            return each.value();
    }
    return {nullptr};
}

uint64_t json::number() const
{
    uint64_t n = 0;
    const char *digit = at;
    for (; digit != nullptr && is_digit(*digit); digit++) {
        const auto value = static_cast<uint64_t>(*digit - '0');
        if (n > (json_unknown - 1 - value) / 10)
            return json_unknown;
        n = n * 10 + value;
    }
    const bool is_whole = digit != at && (*digit == '\0' || strchr(".eE", *digit) == nullptr);
    return is_whole ? n : json_unknown;
}

bool json::is_true() const
{
    return at != nullptr && *at == 't';
}

bool json::copy(char *text, size_t size) const
{
    size_t length = 0;
    text[0] = '\0';
    if (at == nullptr || *at != '"')
        return false;
    for (const char *c = at + 1; *c != '"'; c++) {
        char byte = *c;
        if (byte == '\\') {
            c++;
            byte = unescape(&c);
        }
        if (length + 1 == size) {
            text[0] = '\0';
            return false;
        }
        text[length++] = byte;
    }
    text[length] = '\0';
    return true;
}

void json_print(const char *text)
{
    while (*text != '\0') {
        const char *end = *text == '"' ? skip_string(text) : text + 1;
        if (strchr(" \t\r\n", *text) == nullptr)
            (void)fwrite(text, 1, static_cast<size_t>(end - text), stdout);
        text = end;
    }
    putchar('\n');
}
