// Counts records that expire without a reply being accepted in between, and reports ten in a row to the
// management service, once until a reply is accepted again. Any thread.
#ifndef CACHE_NOREPLY_H
#define CACHE_NOREPLY_H

// Counts one expiry, answered or not, of either family.
void dnsproxy_noreply_count();

// An accepted reply: starts the count anew and arms the report.
void dnsproxy_noreply_reset();

#endif
