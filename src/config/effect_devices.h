// Maps the logical interface names of the configuration to network devices.
#ifndef CONFIG_EFFECT_DEVICES_H
#define CONFIG_EFFECT_DEVICES_H

// Puts the device of `logical` into `device`, 16 bytes that the caller has filled with zeros: "lo" for
// "loopback", for any other name what the router's zone shell functions print (the first line without its
// last character; an empty line gives an empty name). Waits for the command. 0, or DNSPROXY_EFAIL for a null
// argument, a name that is longer than 34 characters or holds anything but letters, digits and ". _ - @ :",
// a command that prints nothing, and a device name above 15 characters; `device` is then untouched.
[[nodiscard]] int dnsproxy_get_effect_devices(const char *logical, char *device);

#endif
