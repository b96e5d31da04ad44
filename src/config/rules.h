// The rules of the configuration store: package "dns", sections of type "rule".
#ifndef CONFIG_RULES_H
#define CONFIG_RULES_H

// Makes one listen interface per rule; the rule "dnsproxy_pppoes" sets pppoesIfname instead. Read once, at
// start-up. 0 when the package was read, whatever happened to single rules, or DNSPROXY_EFAIL.
[[nodiscard]] int dnsproxy_config_init();

#endif
