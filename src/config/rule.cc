#include "config/rule.h"

#include <cstring>
#include <uci.h>

namespace {

// The place of an option's value in a rule; nullptr for an option that a rule does not have.
const char **value_in(dnsproxy_rule *r, const char *option)
{
    const struct {
        const char *option;
        const char **value;
    } known[] = {
        {"name", &r->name},         {"service_if", &r->service_if}, {"out_if", &r->out_if},
        {"force_if", &r->force_if}, {"out_type", &r->out_type},
    };
    for (const auto &each : known) {
        if (strcmp(option, each.option) == 0)
            return each.value;
    }
    return nullptr;
}

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
        const char **value = value_in(&r, e->name);
        if (value != nullptr)
            *value = value_of(uci_to_option(e));
    }
    return r;
}

bool dnsproxy_rule_knows(const char *option)
{
    dnsproxy_rule r = {};
    return value_in(&r, option) != nullptr;
}
