#include "text.h"

#include <cstdio>
#include <cstring>

printable::printable(const char *from)
{
    int length = 0;
    for (; *from != '\0' && length < static_cast<int>(sizeof text) - 1; from++)
        text[length++] = *from < ' ' || *from > '~' ? '?' : *from;
    text[length] = '\0';
}

// A byte as it stands in a JSON string; its length.
static int escape(char from, char (&to)[8])
{
    const auto byte = static_cast<unsigned char>(from);
    if (byte == '"' || byte == '\\')
        return snprintf(to, sizeof to, "\\%c", byte);
    if (byte < ' ' || byte > '~')
        return snprintf(to, sizeof to, "\\u%04x", byte);
    return snprintf(to, sizeof to, "%c", byte);
}

void put_json(const char *text)
{
    putchar('"');
    for (; *text != '\0'; text++) {
        char escaped[8];
        (void)escape(*text, escaped);
        fputs(escaped, stdout);
    }
    putchar('"');
}

json_text::json_text(const char *from)
{
    size_t length = 0;
    text[length++] = '"';
    for (; *from != '\0'; from++) {
        char escaped[8];
        const auto added = static_cast<size_t>(escape(*from, escaped));
        if (length + added + 2 > sizeof text)
            break;
        memcpy(text + length, escaped, added);
        length += added;
    }
    text[length++] = '"';
    text[length] = '\0';
}

void put_json_or_null(const char *text)
{
    if (text == nullptr || text[0] == '\0')
        fputs("null", stdout);
    else
        put_json(text);
}
