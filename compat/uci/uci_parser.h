// The file syntax: words, statements, and the positions of errors.
#ifndef UCI_PARSER_H
#define UCI_PARSER_H

#include "uci.h"

struct uci_syntax_error {
    const char *reason;
    size_t line; // line feeds read so far
    size_t byte; // in the logical line, from 0
};

// Parses the package's bytes, `size` of them and a NUL, into its sections. UCI_ERR_PARSE fills *error. After
// any failure the package can only be freed.
[[nodiscard]] int uci_parse(uci_package *package, size_t size, uci_syntax_error *error);

#endif
