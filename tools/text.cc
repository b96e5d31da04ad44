#include "text.h"

#include <cstdio>

printable::printable(const char *from)
{
    int length = 0;
    for (; *from != '\0' && length < static_cast<int>(sizeof text) - 1; from++)
        text[length++] = *from < ' ' || *from > '~' ? '?' : *from;
    text[length] = '\0';
}

void put_json(const char *text)
{
    putchar('"');
    for (; *text != '\0'; text++) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte == '"' || byte == '\\')
            printf("\\%c", byte);
        else if (byte < ' ' || byte > '~')
            printf("\\u%04x", byte);
        else
            putchar(byte);
    }
    putchar('"');
}

void put_json_or_null(const char *text)
{
    if (text == nullptr || text[0] == '\0')
        fputs("null", stdout);
    else
        put_json(text);
}
