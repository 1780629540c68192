#include "lib/gkh.h"

#include "lib/check.h"

#include <bit>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

enum ht_ktype { HT_TEXT, HT_NUM };

// A record's head; the key follows it, by the table's type of keys.
struct hrec {
    hrec *next;
    void *data;
};
struct text_hrec {
    hrec head;
    char key[256]; // at most HT_KEY_MAX characters, terminated
};
struct num_hrec {
    hrec head;
    uint64_t key;
};

union hkey {
    const char *text;
    uint64_t num;
};

union hash_fn {
    str_hash text;
    num_hash num; // null = the key is its own hash
};

struct ht_tag {
    ht_ktype ktype;
    hrec **r;       // chain heads, owned
    size_t rlen;    // number of chains, a power of two
    uint64_t hseed; // handed to the hash function
    size_t count;   // records held
    hash_fn icalc;
};

static inline int text_kcmp(const hrec *rec, hkey key) {
    return strcmp(reinterpret_cast<const text_hrec *>(rec)->key, key.text);
}

// Compares by the low 32 bits of the difference: keys a multiple of 2^32 apart count as equal.
static inline int num_kcmp(const hrec *rec, hkey key) {
    return static_cast<int32_t>(
        static_cast<uint32_t>(reinterpret_cast<const num_hrec *>(rec)->key - key.num));
}

static hrec *text_mkhrec(hkey key, void *data) {
    auto *rec = static_cast<text_hrec *>(malloc(sizeof(text_hrec)));
    if (!rec)
        return nullptr;
    const size_t len = strnlen(key.text, HT_KEY_MAX);
    memcpy(rec->key, key.text, len);
    rec->key[len] = '\0';
    rec->head = {nullptr, data};
    return &rec->head;
}

static hrec *num_mkhrec(hkey key, void *data) {
    auto *rec = static_cast<num_hrec *>(malloc(sizeof(num_hrec)));
    if (!rec)
        return nullptr;
    *rec = {{nullptr, data}, key.num};
    return &rec->head;
}

static hkey text_getkey(const hrec *rec) {
    return {.text = reinterpret_cast<const text_hrec *>(rec)->key};
}

static hkey num_getkey(const hrec *rec) {
    return {.num = reinterpret_cast<const num_hrec *>(rec)->key};
}

struct htfunc {
    int (*kcmp)(const hrec *rec, hkey key);
    hrec *(*mkhrec)(hkey key, void *data);
    hkey (*getkey)(const hrec *rec);
};

// By ht_ktype. The public functions name their type as a constant, so these calls are resolved when compiled.
static constexpr htfunc HTFUNC[] = {
    {text_kcmp, text_mkhrec, text_getkey},
    {num_kcmp, num_mkhrec, num_getkey},
};

uint64_t plHash(const char *text, uint64_t seed) {
    uint64_t h = seed;
    for (; *text; ++text)
        h = h * 101 + static_cast<uint64_t>(static_cast<signed char>(*text));
    return h;
}

// Only the nibble below bit 32 is folded back; a carry beyond it stays in the 64-bit value.
uint64_t elfHash(const char *text, uint64_t) {
    uint64_t h = 0;
    for (; *text; ++text) {
        h = (h << 4) + static_cast<unsigned char>(*text);
        const uint64_t g = h & 0xf0000000;
        h ^= g >> 24;
        h &= ~g;
    }
    return h;
}

uint64_t tw_shift(uint64_t key, uint64_t) {
    uint64_t k = ~key + (key << 21);
    k ^= k >> 24;
    k *= 265;
    k ^= k >> 14;
    k *= 21;
    k ^= k >> 28;
    return k * 0x80000001;
}

static int ht_create(ht_tag **ph, ht_ktype ktype, size_t capacity, hash_fn icalc) {
    CHECK(ph && capacity);
    *ph = nullptr;
    if (capacity > HT_MAX_CAPACITY)
        return EOVERFLOW;

    const size_t rlen = std::bit_floor(capacity * 3 / 2);
    auto *tbl = static_cast<ht_tag *>(malloc(sizeof(ht_tag)));
    auto *r = static_cast<hrec **>(calloc(rlen, sizeof(hrec *)));
    if (!tbl || !r) {
        free(tbl);
        free(r);
        return ENOMEM;
    }
    *tbl = {ktype, r, rlen, static_cast<uint64_t>(time(nullptr)), 0, icalc};
    *ph = tbl;
    return 0;
}

static inline uint64_t hash_of(const ht_tag *tbl, ht_ktype ktype, hkey key) {
    if (ktype == HT_TEXT)
        return tbl->icalc.text(key.text, tbl->hseed);
    return tbl->icalc.num ? tbl->icalc.num(key.num, tbl->hseed) : key.num;
}

// The link at which the key's record hangs (rc 0) or belongs (ESRCH); null when there are no buckets
// (EINVAL).
static inline hrec **ht_seek(ht_tag *tbl, ht_ktype ktype, hkey key, int *rc) {
    CHECK(tbl->ktype == ktype);
    *rc = EINVAL;
    if (!tbl->rlen)
        return nullptr;

    hrec **link = &tbl->r[hash_of(tbl, ktype, key) & (tbl->rlen - 1)];
    int c = 1;
    while (*link && (c = HTFUNC[ktype].kcmp(*link, key)) < 0)
        link = &(*link)->next;
    *rc = *link && c == 0 ? 0 : ESRCH;
    return link;
}

static inline int ht_add(ht_tag *tbl, ht_ktype ktype, hkey key, void **data) {
    int rc;
    hrec **link = ht_seek(tbl, ktype, key, &rc);
    if (rc == 0 && data)
        *data = (*link)->data;
    if (rc != ESRCH)
        return rc ? rc : EBUSY;

    hrec *rec = HTFUNC[ktype].mkhrec(key, data ? *data : nullptr);
    if (!rec)
        return ENOMEM;
    rec->next = *link;
    *link = rec;
    ++tbl->count;
    return 0;
}

static inline int ht_get(ht_tag *tbl, ht_ktype ktype, hkey key, void **data) {
    int rc;
    hrec **link = ht_seek(tbl, ktype, key, &rc);
    if (rc == 0 && data)
        *data = (*link)->data;
    return rc;
}

static inline int ht_rm(ht_tag *tbl, ht_ktype ktype, hkey key, void **data) {
    int rc;
    hrec **link = ht_seek(tbl, ktype, key, &rc);
    if (rc)
        return rc;
    hrec *rec = *link;
    *link = rec->next;
    if (data)
        *data = rec->data;
    free(rec);
    --tbl->count;
    return 0;
}

// The next record is read first, so `visit` may remove or free the one it is given.
static size_t ht_each(ht_tag *tbl, void (*visit)(hrec *rec, void *ctx), void *ctx) {
    size_t n = 0;
    for (size_t i = 0; i < tbl->rlen; ++i)
        for (hrec *rec = tbl->r[i], *next; rec; rec = next) {
            next = rec->next;
            visit(rec, ctx);
            ++n;
        }
    return n;
}

static void ht_destroy(ht_tag *tbl, ht_free_fn fn) {
    CHECK(tbl);
    // A bucket count that cannot be marks a damaged table: its chains are better leaked than followed.
    if (tbl->rlen <= HT_MAX_CAPACITY)
        ht_each(
            tbl,
            [](hrec *rec, void *ctx) {
                if (const auto free_data = *static_cast<ht_free_fn *>(ctx))
                    free_data(rec->data);
                free(rec);
            },
            &fn);
    free(tbl->r);
    free(tbl);
}

static void print_head(const ht_tag *tbl) {
    CHECK(tbl);
    fprintf(stderr, "table %p: %s keys, %zu records in %zu buckets\n", static_cast<const void *>(tbl),
            tbl->ktype == HT_TEXT ? "text" : "numeric", tbl->count, tbl->rlen);
}

int skht_create(skht_t *ph, size_t capacity, str_hash hash, const char *const *keys, size_t nkeys) {
    CHECK(ph && capacity);
    CHECK(!keys || nkeys);
    int rc = ht_create(ph, HT_TEXT, capacity, {.text = hash ? hash : plHash});
    for (size_t i = 0; !rc && keys && i < nkeys; ++i) {
        rc = skht_add(*ph, keys[i], nullptr);
        if (rc == EBUSY)
            rc = 0;
    }
    if (rc && *ph) {
        skht_destroy(*ph, nullptr);
        *ph = nullptr;
    }
    return rc;
}

int nkht_create(nkht_t *ph, size_t capacity, num_hash hash) {
    return ht_create(ph, HT_NUM, capacity, {.num = hash});
}

int skht_add(skht_t tbl, const char *key, void **data) {
    CHECK(tbl && key);
    return ht_add(tbl, HT_TEXT, {.text = key}, data);
}

int nkht_add(nkht_t tbl, uint64_t key, void **data) {
    CHECK(tbl);
    return ht_add(tbl, HT_NUM, {.num = key}, data);
}

int skht_get(skht_t tbl, const char *key, void **data) {
    CHECK(tbl && key);
    return ht_get(tbl, HT_TEXT, {.text = key}, data);
}

int nkht_get(nkht_t tbl, uint64_t key, void **data) {
    CHECK(tbl);
    return ht_get(tbl, HT_NUM, {.num = key}, data);
}

int skht_rm(skht_t tbl, const char *key, void **data) {
    CHECK(tbl && key);
    return ht_rm(tbl, HT_TEXT, {.text = key}, data);
}

int nkht_rm(nkht_t tbl, uint64_t key, void **data) {
    CHECK(tbl);
    return ht_rm(tbl, HT_NUM, {.num = key}, data);
}

struct text_visit {
    skht_iter_fn fn;
    void *arg;
};
struct num_visit {
    nkht_iter_fn fn;
    void *arg;
};

size_t skht_iter(skht_t tbl, skht_iter_fn fn, void *arg) {
    CHECK(tbl && fn);
    CHECK(tbl->ktype == HT_TEXT);
    text_visit to{fn, arg};
    return ht_each(
        tbl,
        [](hrec *rec, void *ctx) {
            auto *v = static_cast<text_visit *>(ctx);
            v->fn(HTFUNC[HT_TEXT].getkey(rec).text, rec->data, v->arg);
        },
        &to);
}

size_t nkht_iter(nkht_t tbl, nkht_iter_fn fn, void *arg) {
    CHECK(tbl && fn);
    CHECK(tbl->ktype == HT_NUM);
    num_visit to{fn, arg};
    return ht_each(
        tbl,
        [](hrec *rec, void *ctx) {
            auto *v = static_cast<num_visit *>(ctx);
            v->fn(HTFUNC[HT_NUM].getkey(rec).num, rec->data, v->arg);
        },
        &to);
}

void skht_destroy(skht_t tbl, ht_free_fn fn) {
    ht_destroy(tbl, fn);
}

void nkht_destroy(nkht_t tbl, ht_free_fn fn) {
    ht_destroy(tbl, fn);
}

size_t skht_count(const ht_tag *tbl) {
    CHECK(tbl);
    return tbl->count;
}

size_t nkht_count(const ht_tag *tbl) {
    return skht_count(tbl);
}

void skht_print(const ht_tag *tbl) {
    print_head(tbl);
    skht_iter(
        const_cast<ht_tag *>(tbl),
        [](const char *key, void *data, void *) { fprintf(stderr, "  \"%s\": %p\n", key, data); }, nullptr);
}

void nkht_print(const ht_tag *tbl) {
    print_head(tbl);
    nkht_iter(
        const_cast<ht_tag *>(tbl),
        [](uint64_t key, void *data, void *) { fprintf(stderr, "  %" PRIu64 ": %p\n", key, data); }, nullptr);
}
