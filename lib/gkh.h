// A chained hash table with text keys (skht_) or numeric keys (nkht_). Chains are kept sorted by key.
//
// A text key is stored inline, cut to 254 characters; a longer key is therefore never found by its full
// text, and adding it again adds a second record. The table owns its records, never the data they point at.
// Results are 0 or a positive error number: EBUSY (key present), ESRCH (absent), ENOMEM, EOVERFLOW (capacity
// too large), EINVAL (no buckets). Contradictory arguments are assertion failures. Nothing is logged.
#pragma once

#include <cstddef>
#include <cstdint>

struct ht_tag; // fields are told in gkh.cc
using skht_t = ht_tag *;
using nkht_t = ht_tag *;

inline constexpr size_t HT_MAX_CAPACITY = 5'000'000;
inline constexpr size_t HT_KEY_MAX = 254;

using str_hash = uint64_t (*)(const char *text, uint64_t seed);
using num_hash = uint64_t (*)(uint64_t key, uint64_t seed);

uint64_t plHash(const char *text, uint64_t seed);
uint64_t elfHash(const char *text, uint64_t seed); // the seed is not used
uint64_t tw_shift(uint64_t key, uint64_t seed);    // the seed is not used

using ht_free_fn = void (*)(void *data);
using skht_iter_fn = void (*)(const char *key, void *data, void *arg);
using nkht_iter_fn = void (*)(uint64_t key, void *data, void *arg);

// The bucket count is the largest power of two not above capacity * 3 / 2. A null hash function means
// plHash; `keys` are added with null data.
int skht_create(skht_t *table, size_t capacity, str_hash hash, const char *const *keys, size_t nkeys);
// A null hash function makes the key its own hash.
int nkht_create(nkht_t *table, size_t capacity, num_hash hash);

// Adds `key` with the data pointed to by `data` (null = no data). An existing key gives EBUSY and stores
// the existing data there.
int skht_add(skht_t table, const char *key, void **data);
int nkht_add(nkht_t table, uint64_t key, void **data);
// Stores the key's data through `data` (may be null).
int skht_get(skht_t table, const char *key, void **data);
int nkht_get(nkht_t table, uint64_t key, void **data);
// Unlinks and frees the record, handing its data back through `data` (may be null).
int skht_rm(skht_t table, const char *key, void **data);
int nkht_rm(nkht_t table, uint64_t key, void **data);

// Calls `fn` for every record, bucket by bucket; returns the records visited.
size_t skht_iter(skht_t table, skht_iter_fn fn, void *arg);
size_t nkht_iter(nkht_t table, nkht_iter_fn fn, void *arg);

// Calls `fn` (if given) on every record's data, then frees records, buckets and table.
void skht_destroy(skht_t table, ht_free_fn fn);
void nkht_destroy(nkht_t table, ht_free_fn fn);

size_t skht_count(const ht_tag *table);
size_t nkht_count(const ht_tag *table);

// Diagnostic dumps to standard error.
void skht_print(const ht_tag *table);
void nkht_print(const ht_tag *table);
