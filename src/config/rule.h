// One rule of the configuration store and the meaning of its options, for the daemon and for tools that must
// read a rule as the daemon does.
#ifndef CONFIG_RULE_H
#define CONFIG_RULE_H

struct uci_section;

// The options of one rule; null where absent. They live in the loaded package.
struct dnsproxy_rule {
    const char *name;
    const char *service_if;
    const char *out_if;
    const char *force_if;
    const char *out_type;

    [[nodiscard]] bool is_pppoe() const;   // names the PPPoE server device and makes no served network
    [[nodiscard]] bool is_forced() const;  // queries leave by out_if and by nothing else
    [[nodiscard]] bool is_polling() const; // queries go to every server of every line at once
};

// The options of a section of type "rule". A list counts as its last item, as an option that is given twice
// counts as its last.
dnsproxy_rule dnsproxy_rule_read(uci_section *section);

// Whether a rule has an option of that name.
bool dnsproxy_rule_knows(const char *option);

#endif
