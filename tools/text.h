// Foreign text on its way to standard output.
#ifndef TOOLS_TEXT_H
#define TOOLS_TEXT_H

// As it is shown to people: nothing that a terminal would obey. Longer texts are cut.
struct printable {
    char text[256];

    explicit printable(const char *from);
};

// As a JSON string. A text is bytes without a known encoding; each byte beyond ASCII stands as the code point
// of its value.
void put_json(const char *text);

// The same in memory, of a short text: longer ones are cut.
struct json_text {
    char text[128];

    explicit json_text(const char *from);
};

// The same, or null for null and for the empty text.
void put_json_or_null(const char *text);

#endif
