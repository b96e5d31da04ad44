// Reads JSON text (RFC 8259) where it lies. A value is the place in the text where it begins; there is
// nothing to free. Of a text that is not valid, or is nested deeper than 32 levels, nothing is read.
#ifndef TOOLS_JSON_H
#define TOOLS_JSON_H

#include <cstddef>
#include <cstdint>

// A number that is not there, or is no whole number from 0 to 2^64 - 2.
constexpr uint64_t json_unknown = UINT64_MAX;

struct json {
    const char *at; // nullptr: there is no such value

    explicit operator bool() const { return at != nullptr; }

    // The member of an object, the first of that name; none where this is no object.
    [[nodiscard]] json member(const char *name) const;

    // The first item of an array, or none; then the item behind one.
    [[nodiscard]] json first() const;
    [[nodiscard]] json next() const;

    // The first member of an object, which is its name, and the value behind a name.
    [[nodiscard]] json first_name() const;
    [[nodiscard]] json value() const;

    [[nodiscard]] uint64_t number() const;
    [[nodiscard]] bool is_true() const;

    // A string as bytes, with a NUL. False, and an empty text, where it is none or does not fit. Characters
    // beyond ASCII that are escaped become "?".
    bool copy(char *text, size_t size) const;
};

// The value that the whole text is.
json json_read(const char *text);

// Prints the text without the blanks between its parts, and a line feed.
void json_print(const char *text);

#endif
