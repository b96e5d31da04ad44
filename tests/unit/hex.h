// Bytes as text: groups of two hexadecimal digits; blanks are for the reader.
#ifndef TESTS_HEX_H
#define TESTS_HEX_H

#include <cstdint>
#include <string>
#include <string_view>

inline std::string from_hex(std::string_view text)
{
    std::string bytes;
    int digits = 0, value = 0;
    for (const char c : text) {
        if (c == ' ')
            continue;
        value = value % 16 * 16 + (c <= '9' ? c - '0' : c - 'a' + 10);
        if (++digits % 2 == 0)
            bytes += static_cast<char>(value);
    }
    return bytes;
}

inline std::string to_hex(std::string_view bytes)
{
    std::string text;
    for (size_t i = 0; i < bytes.size(); ++i) {
        const auto byte = static_cast<uint8_t>(bytes[i]);
        text += i != 0 && i % 4 == 0 ? " " : "";
        text += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
    }
    return text;
}

#endif
