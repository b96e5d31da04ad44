// The link states of the outgoing devices, from "/tmp/online/state".
#ifndef CONFIG_ONLINE_STATE_H
#define CONFIG_ONLINE_STATE_H

// Reads lines of the form DEVICE=STATE into the server table: a state that begins with "off" marks the device
// down, any other up. Blanks count; lines without a state and unknown devices are skipped; of two lines for
// a device the later wins. A missing file changes nothing. Always 0.
int dnsproxy_load_server_dev_state();

#endif
