// Answers of the bus, as dnsproxyctl reads them: every value of the text, by each of the questions.
#include "tools/json.h"

#include <cstring>
#include <string>

#include "tests/fuzz/fuzz.h"

namespace {

void ask(json value, int depth) // NOLINT(misc-no-recursion): the reader takes 32 levels
{
    FUZZ_CHECK(depth < 32);
    char text[16];
    FUZZ_CHECK(!value.copy(text, sizeof text) || strlen(text) < sizeof text);
    (void)value.number();
    (void)value.is_true();
    (void)value.member("dev");
    for (json item = value.first(); item; item = item.next())
        ask(item, depth + 1);
    for (json name = value.first_name(); name; name = name.value().next()) {
        FUZZ_CHECK(name.value().at != nullptr);
        ask(name.value(), depth + 1);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    const json all = json_read(text.c_str());
    if (all)
        ask(all, 0);
    return 0;
}
