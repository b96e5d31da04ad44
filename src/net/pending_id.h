// Marks the new identifiers that still wait for their first reply. The map is indexed by a hash: identifiers
// share bits, and the closest such pair is 287 apart, so it is exact only while fewer queries wait.
// Identifiers are in host order. Main thread only.
#ifndef NET_PENDING_ID_H
#define NET_PENDING_ID_H

#include <cstdint>

// djb2 over the identifier's two bytes, low byte first; always positive.
int dnsproxy_id_hash(uint16_t id);

void dnsproxy_pending_id_set(uint16_t id);
int dnsproxy_pending_id_test(uint16_t id); // nonzero: set
void dnsproxy_pending_id_clear(uint16_t id);

// Whether two identifiers share a mark.
bool pending_id_shares_mark(uint16_t id, uint16_t other);

#endif
