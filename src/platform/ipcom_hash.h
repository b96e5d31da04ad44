// Hash table of pointers to the callers' records. The table neither copies nor frees records; a record may
// be in several tables at once. Equal keys are accepted: a look-up finds the record added last.
//
// The number of buckets never changes. A bucket is a small growable ring of records, each with 16 bits of its
// hash, that is scanned newest first; these bits are compared before any record is touched, so that a table
// far above its number of buckets still costs little more than the cache misses of one bucket. Not locked.
#ifndef PLATFORM_IPCOM_HASH_H
#define PLATFORM_IPCOM_HASH_H

#include <cstdint>

struct ipcom_hash;

using ipcom_hash_obj_fn = uint32_t (*)(const void *record); // hash of a stored record
using ipcom_hash_key_fn = uint32_t (*)(const void *key);    // hash of a search key
using ipcom_hash_cmp_fn = int (*)(const void *record,
                                  const void *key);           // nonzero: equal, and so are the hashes
using ipcom_hash_each_fn = int (*)(void *record, void *data); // result not looked at

// A table with a number of buckets fit for a few hundred records; nullptr without memory. The first table of
// the process must be made before other threads hash.
ipcom_hash *ipcom_hash_new(ipcom_hash_obj_fn obj, ipcom_hash_key_fn key, ipcom_hash_cmp_fn cmp);

// A table with exactly `buckets` buckets; nullptr without memory or for a count below 1.
ipcom_hash *ipcom_hash_new_fixed(ipcom_hash_obj_fn obj, ipcom_hash_key_fn key, ipcom_hash_cmp_fn cmp,
                                 int32_t buckets);

// Hash of `length` bytes mixed into `initial`, to be chained over the fields of a key. Any thread. It is
// keyed with a secret that the process draws with its first table, so that nobody outside can aim many keys
// at one bucket; the same bytes give the same value from then on, for the life of the process only.
//
// A field of two bytes (a port or an identifier) is added to the mixed value of the fields before it, not
// mixed itself. Consecutive identifiers then fall into neighbouring buckets, and queries that come and go in
// order touch memory in order: that halves the cost of the tables under load. The first bucket stays secret.
[[gnu::nonnull]] uint32_t ipcom_hash_update(const void *bytes, uint32_t length, uint32_t initial);

// 0, or -1 when there was no memory to grow a bucket; then the table is as before.
[[nodiscard]] int ipcom_hash_add(ipcom_hash *table, void *record);

// The newest record that the compare callback accepts for `key`, or nullptr.
void *ipcom_hash_get(ipcom_hash *table, const void *key);

// Takes out exactly this record (by address); 0, or -1 when it is not in the table. The fields that the
// object hash reads must be as they were when it was added.
int ipcom_hash_remove(ipcom_hash *table, void *record);

// Calls `each` once for every record. The callback may remove the record that it was given and free it; it
// must not add to or remove anything else from this table.
void ipcom_hash_for_each(ipcom_hash *table, ipcom_hash_each_fn each, void *data);

// Frees the table, not the records.
void ipcom_hash_delete(ipcom_hash *table);

#endif
