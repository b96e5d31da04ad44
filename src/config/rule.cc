#include "config/rule.h"

#include <cstring>
#include <uci.h>

namespace {

constexpr struct {
    const char *option;
    const char *dnsproxy_rule::*value;
} options[] = {
    {"name", &dnsproxy_rule::name},         {"service_if", &dnsproxy_rule::service_if},
    {"out_if", &dnsproxy_rule::out_if},     {"force_if", &dnsproxy_rule::force_if},
    {"out_type", &dnsproxy_rule::out_type},
};

// The type comes first: string and list share their memory.
const char *value_of(const uci_option *option)
{
    if (option->type == UCI_TYPE_STRING)
        return option->v.string;
    const char *last = nullptr;
    uci_element *item = nullptr;
    uci_foreach_element(&option->v.list, item)
    {
        last = item->name;
    }
    return last;
}

bool is(const char *value, const char *text)
{
    return value != nullptr && strcmp(value, text) == 0;
}

} // namespace

bool dnsproxy_rule::is_pppoe() const
{
    return is(name, "dnsproxy_pppoes") && service_if != nullptr;
}

bool dnsproxy_rule::is_forced() const
{
    return is(force_if, "on");
}

bool dnsproxy_rule::is_polling() const
{
    return is(out_type, "polling");
}

dnsproxy_rule dnsproxy_rule_read(uci_section *section)
{
    dnsproxy_rule r = {};
    uci_element *e = nullptr;
    uci_foreach_element(&section->options, e)
    {
        for (const auto &known : options) {
            if (strcmp(e->name, known.option) == 0)
                r.*known.value = value_of(uci_to_option(e));
        }
    }
    return r;
}

bool dnsproxy_rule_knows(const char *option)
{
    for (const auto &known : options) {
        if (strcmp(option, known.option) == 0)
            return true;
    }
    return false;
}
