#include "tests/fuzz/mapping_command.h"

#include <string>
#include <string_view>

static fuzz_reader outputs(nullptr, 0);
static std::string output; // of the command in progress

void fuzz_mapping_outputs(fuzz_bytes bytes)
{
    outputs = fuzz_reader(bytes.data(), bytes.size());
}

// The logical name in a command, which must be the one that the router's functions are for: nothing else of a
// name from outside may reach a shell.
static std::string_view name_in(std::string_view command)
{
    static constexpr std::string_view before = ". /lib/zone/zone_api.sh && usrif=$(zone_iface_to_userif ";
    static constexpr std::string_view behind = ") && zone_get_effect_devices ${usrif}";
    static constexpr std::string_view allowed =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-@:";
    FUZZ_CHECK(command.size() < 128 && command.starts_with(before) && command.ends_with(behind));
    command.remove_prefix(before.size());
    command.remove_suffix(behind.size());
    FUZZ_CHECK(command.find_first_not_of(allowed) == std::string_view::npos);
    return command;
}

extern "C" {
FILE *__wrap_popen(const char *command, const char *mode);
int __wrap_pclose(FILE *file);

FILE *__wrap_popen(const char *command, const char *mode)
{
    FUZZ_CHECK(strcmp(mode, "re") == 0);
    output = std::string(name_in(command)) + '\n';
    if (!outputs.is_empty()) {
        const fuzz_bytes bytes = outputs.take_until(fuzz_separator);
        output.assign(bytes.begin(), bytes.end());
    }
    if (output.starts_with(static_cast<char>(fuzz_no_command)))
        return nullptr;
    FILE *file = fmemopen(output.data(), output.size(), "r");
    FUZZ_CHECK(file != nullptr);
    return file;
}

int __wrap_pclose(FILE *file)
{
    return fclose(file);
}
}
