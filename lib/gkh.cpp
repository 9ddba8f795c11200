// Hash tables of fixed size with sorted chains, for text and for numbers.
#include "gkh.h"

#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "detail/assertions.h"

static_assert(sizeof(long) == 8 && sizeof(void*) == 8, "keys and handles are 64 bits wide");

namespace {

enum { ekt_STR = 0, ekt_NUM = 1 };

// The generic view of a record; the two layouts below share next and data, which are read and written here
// alone.
struct hrec {
    struct hrec* next;
    void* data;
    void* key;
};

// As long as its text. The hash is that of the text as it is stored, so that a chain is searched without a
// look at any text but the one that is asked for.
struct s_hrec {
    struct hrec* next;
    void* data;
    u_long hash;
    __extension__ char s_key[];
};

struct l_hrec {
    struct hrec* next;
    void* data;
    long int l_key;
};

static_assert(offsetof(l_hrec, l_key) == offsetof(hrec, key));

using kcmp_t = int (*)(const struct hrec*, const void* key);
using mkhrec_t = struct hrec* (*)(const struct ht_tag* tbl, const void* key, u_long hash);
using getkey_t = const void* (*)(const struct hrec*);

struct htfunc {
    kcmp_t kcmp;
    mkhrec_t mkhrec;
    getkey_t getkey;
};

struct ht_tag {
    int ktype;
    struct hrec** r; // heads of the chains
    size_t rlen;     // slots, a power of two
    u_long hseed;
    size_t count;
    khash_t icalc; // NULL: a number is its own hash
};

using ht_t = struct ht_tag;

const void* as_key(long number)
{
    return reinterpret_cast<const void*>(number);
}

long as_number(const void* key)
{
    return reinterpret_cast<long>(key);
}

const struct s_hrec* as_text(const struct hrec* rec)
{
    return reinterpret_cast<const struct s_hrec*>(rec);
}

const char* text_of(const struct hrec* rec)
{
    return as_text(rec)->s_key;
}

long number_of(const struct hrec* rec)
{
    return reinterpret_cast<const struct l_hrec*>(rec)->l_key;
}

int s_cmp(const struct hrec* rec, const void* key)
{
    return strcmp(text_of(rec), static_cast<const char*>(key));
}

// Kept: the wrapping difference of the low halves, though it is no total order for keys more than 2^31 apart.
// Kept: the high halves are not looked at, so that two keys of one slot may be one.
int l_cmp(const struct hrec* rec, const void* key)
{
    return static_cast<int>(static_cast<uint32_t>(number_of(rec)) - static_cast<uint32_t>(as_number(key)));
}

struct hrec* s_mkhrec(const ht_t* tbl, const void* key, u_long hash)
{
    // Kept: a longer key is cut, though the look-up compares it whole; it stays in the slot of the whole key.
    const size_t length = strnlen(static_cast<const char*>(key), HT_MAX_SKEY);
    const size_t stored = length < HT_MAX_SKEY ? length : HT_MAX_SKEY - 1;
    auto* rec = static_cast<struct s_hrec*>(malloc(offsetof(s_hrec, s_key) + stored + 1));
    if (rec == nullptr) {
        return nullptr;
    }
    memcpy(rec->s_key, key, stored);
    rec->s_key[stored] = 0;
    rec->hash = stored == length ? hash : tbl->icalc(rec->s_key, tbl->hseed);
    return reinterpret_cast<struct hrec*>(rec);
}

struct hrec* l_mkhrec(const ht_t* /*tbl*/, const void* key, u_long /*hash*/)
{
    auto* rec = static_cast<struct l_hrec*>(malloc(sizeof(struct l_hrec)));
    if (rec != nullptr) {
        rec->l_key = as_number(key);
    }
    return reinterpret_cast<struct hrec*>(rec);
}

const void* get_skey(const struct hrec* rec)
{
    return text_of(rec);
}

const void* get_lkey(const struct hrec* rec)
{
    return as_key(number_of(rec));
}

// Indexed by the ktype of a table.
constexpr struct htfunc g_htf[2] = {{s_cmp, s_mkhrec, get_skey}, {l_cmp, l_mkhrec, get_lkey}};

// Each step can be undone (odd factors, shifts that are mixed in), so that no two numbers get one hash.
uint64_t mix(uint64_t x)
{
    x = (x << 21) - x - 1;
    x ^= x >> 24;
    x *= 265;
    x ^= x >> 14;
    x *= 21;
    x ^= x >> 28;
    x += x << 31;
    return x;
}

// With a sign on every machine: a plain char has none on some, and a text would hash otherwise there.
uint64_t signed_byte(char c)
{
    return static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(c)));
}

// A power of two, so that a mask finds the slot. With capacity records a chain has between 2/3 and 4/3 of one
// on the average. Never 0 for a capacity above 0.
size_t calc_rlen(size_t capacity)
{
    return std::bit_floor(capacity * 3 / 2);
}

// In seconds: nobody may count on the order in which a table of texts is walked, from one run to the next.
u_long calc_hseed()
{
    return static_cast<u_long>(time(nullptr));
}

// Where a key stands, or would stand, in its chain.
struct Place {
    struct hrec** head; // of the slot
    struct hrec* p;     // first record that is not below the key
    struct hrec* pv;    // its predecessor
    bool found;
};

// One of two records by a mask of ones or zeros.
struct hrec* select(uintptr_t mask, struct hrec* ones, struct hrec* zeros)
{
    return reinterpret_cast<struct hrec*>((reinterpret_cast<uintptr_t>(ones) & mask) |
                                          (reinterpret_cast<uintptr_t>(zeros) & ~mask));
}

// Goes on from a place to the first record that is not below the key. The comparison is a template argument,
// so that each kind of key gets a walk of its own without a call per record.
template <kcmp_t kcmp>
[[gnu::always_inline]] inline Place walk(Place place, const void* key)
{
    while (place.p != nullptr) {
        const int order = kcmp(place.p, key);
        if (order >= 0) {
            place.found = order == 0;
            break;
        }
        place.pv = place.p;
        place.p = place.p->next;
    }
    return place;
}

// Most walks end at the first record or at the second, and no processor foresees at which: the first step
// over a number is selected, not branched to.
[[gnu::always_inline]] inline Place first_step(Place place, const void* key)
{
    if (place.p != nullptr) {
        struct hrec* const first = place.p;
        struct hrec* const next = first->next;
        const uintptr_t below = l_cmp(first, key) < 0 ? ~uintptr_t{0} : 0;
        place.pv = select(below, first, nullptr);
        place.p = select(below, next, first);
    }
    return place;
}

// Looks for a text by its hash, and compares texts where that is the same. A key that is not there is known
// by the end of the chain, not by its order: the next record's hash is nearer than the next record's text.
Place find_text(Place place, const char* key, u_long hash)
{
    while (place.p != nullptr) {
        if (as_text(place.p)->hash == hash && strcmp(text_of(place.p), key) == 0) {
            place.found = true;
            break;
        }
        place.pv = place.p;
        place.p = place.p->next;
    }
    return place;
}

// The pointer that leads to the place's record. A place that is older than the last change of its chain ends
// here.
[[gnu::always_inline]] inline struct hrec** link_to(const Place& place)
{
    struct hrec** const link = place.pv != nullptr ? &place.pv->next : place.head;
    assert(*link == place.p);
    return link;
}

// For a text that is not found the place is the chain's end: see text_place.
template <int ktype>
[[gnu::always_inline]] inline Place rfind(const ht_t* tbl, const void* key, u_long hash)
{
    struct hrec** const head = tbl->r + (hash & (tbl->rlen - 1));
    const Place place{head, *head, nullptr, false};
    return ktype == ekt_NUM ? walk<l_cmp>(first_step(place, key), key)
                            : find_text(place, static_cast<const char*>(key), hash);
}

// Where a text that is not there belongs in its sorted chain.
Place text_place(const Place& missed, const void* key)
{
    return walk<s_cmp>({missed.head, *missed.head, nullptr, false}, key);
}

// Apart: most additions of an agent find the key there. link is the one to the record that is to follow.
template <int ktype>
[[gnu::noinline]] int insert(ht_t* tbl, const void* key, u_long hash, void** pdat, struct hrec** link)
{
    struct hrec* rec = g_htf[ktype].mkhrec(tbl, key, hash);
    if (rec == nullptr) {
        return ENOMEM;
    }
    rec->data = pdat != nullptr ? *pdat : nullptr;
    rec->next = *link;
    *link = rec;
    ++tbl->count;
    return 0;
}

// The operations on a table with slots, of a key whose hash is known. always_inline, since both ways of
// with_hash use them: shared, they would be the call that it does without.

template <int ktype>
[[gnu::always_inline]] inline int add_hashed(ht_t* tbl, const void* key, u_long hash, void** pdat)
{
    Place place = rfind<ktype>(tbl, key, hash);
    if (place.found) {
        if (pdat != nullptr) {
            *pdat = place.p->data;
        }
        return EBUSY;
    }
    if (ktype == ekt_STR) {
        place = text_place(place, key);
    }
    return insert<ktype>(tbl, key, hash, pdat, link_to(place));
}

template <int ktype>
[[gnu::always_inline]] inline int rm_hashed(ht_t* tbl, const void* key, u_long hash, void** pdat)
{
    const Place place = rfind<ktype>(tbl, key, hash);
    if (!place.found) {
        return ESRCH;
    }
    *link_to(place) = place.p->next;
    if (pdat != nullptr) {
        *pdat = place.p->data;
    }
    --tbl->count;
    free(place.p);
    return 0;
}

template <int ktype>
[[gnu::always_inline]] inline int get_hashed(ht_t* tbl, const void* key, u_long hash, void** pdat)
{
    const Place place = rfind<ktype>(tbl, key, hash);
    if (!place.found) {
        return ESRCH;
    }
    if (pdat != nullptr) {
        *pdat = place.p->data;
    }
    return 0;
}

template <auto operation>
[[gnu::always_inline]] inline int with_called_hash(ht_t* tbl, const void* key, void** pdat)
{
    const u_long hash = tbl->icalc != nullptr ? tbl->icalc(key, tbl->hseed) : reinterpret_cast<u_long>(key);
    return operation(tbl, key, hash, pdat);
}

template <auto operation>
[[gnu::noinline]] int with_called_hash_apart(ht_t* tbl, const void* key, void** pdat)
{
    return with_called_hash<operation>(tbl, key, pdat);
}

// With the integer mix, which is inlined, a look-up costs the mix, a mask and the walk: no call, and so no
// register that is to be saved. Any other hash is called, in a function of its own.
template <auto operation>
[[gnu::always_inline]] inline int with_hash(ht_t* tbl, const void* key, void** pdat)
{
    if (tbl->icalc == tw_shift) {
        return operation(tbl, key, mix(static_cast<uint64_t>(as_number(key))), pdat);
    }
    return with_called_hash_apart<operation>(tbl, key, pdat);
}

template <int ktype>
int add(ht_t* tbl, const void* key, void** pdat)
{
    assert(tbl != nullptr && key != nullptr);
    if (tbl->rlen == 0) {
        return EINVAL;
    }
    return ktype == ekt_NUM ? with_hash<add_hashed<ktype>>(tbl, key, pdat)
                            : with_called_hash<add_hashed<ktype>>(tbl, key, pdat);
}

template <int ktype>
int rm(ht_t* tbl, const void* key, void** pdat)
{
    assert(tbl != nullptr);
    if (tbl->rlen == 0) {
        return EINVAL;
    }
    return ktype == ekt_NUM ? with_hash<rm_hashed<ktype>>(tbl, key, pdat)
                            : with_called_hash<rm_hashed<ktype>>(tbl, key, pdat);
}

template <int ktype>
int get(ht_t* tbl, const void* key, void** pdat)
{
    assert(tbl != nullptr);
    if (tbl->rlen == 0) {
        return EINVAL;
    }
    return ktype == ekt_NUM ? with_hash<get_hashed<ktype>>(tbl, key, pdat)
                            : with_called_hash<get_hashed<ktype>>(tbl, key, pdat);
}

void destroy(ht_t* tbl, gkfree_t free_data)
{
    assert(tbl != nullptr);
    if (tbl->r != nullptr && tbl->rlen <= HT_MAX_CAP) { // Kept: a greater table keeps its records
        for (size_t i = 0; i < tbl->rlen; ++i) {
            for (struct hrec* rec = tbl->r[i]; rec != nullptr;) {
                struct hrec* next = rec->next;
                if (free_data != nullptr) {
                    free_data(rec->data);
                }
                free(rec);
                rec = next;
            }
        }
        free(tbl->r);
    }
    free(tbl);
}

// A key that occurs twice ends it with EBUSY, and the table with it.
int fill(ht_t* tbl, const char** klst, size_t len)
{
    int rc = 0;
    for (size_t i = 0; klst != nullptr && i < len && rc == 0; ++i) {
        rc = add<ekt_STR>(tbl, klst[i], nullptr);
    }
    return rc;
}

int hcreate(ht_t** ptbl, int ktype, size_t capacity, khash_t hfunc, const char** klst, size_t len)
{
    *ptbl = nullptr;
    if (capacity > HT_MAX_CAP) {
        return EOVERFLOW;
    }
    auto* tbl = static_cast<ht_t*>(malloc(sizeof(ht_t)));
    if (tbl == nullptr) {
        return ENOMEM;
    }
    *tbl = {ktype, nullptr, calc_rlen(capacity), calc_hseed(), 0, hfunc};
    tbl->r = static_cast<struct hrec**>(calloc(tbl->rlen, sizeof(struct hrec*)));
    const int rc = tbl->r == nullptr ? ENOMEM : fill(tbl, klst, len);
    if (rc != 0) {
        destroy(tbl, nullptr);
        return rc;
    }
    *ptbl = tbl;
    return 0;
}

size_t iterate(const ht_t* tbl, gkiter_t f, void* farg)
{
    assert(tbl != nullptr && f != nullptr);
    const getkey_t getkey = g_htf[tbl->ktype].getkey;
    size_t visited = 0;
    for (size_t i = 0; i < tbl->rlen; ++i) {
        for (struct hrec* rec = tbl->r[i]; rec != nullptr; rec = rec->next) {
            // f must leave the record there: the walk goes on from it.
            f(getkey(rec), rec->data, farg);
            ++visited;
        }
    }
    return visited;
}

size_t count(const ht_t* tbl)
{
    assert(tbl != nullptr);
    return tbl->count;
}

struct SlotStats {
    long length;
    const void* last_key; // address of the key field of the chain's last record
};

SlotStats* hstats = nullptr;

struct ChainTotals {
    long records = 0;
    long used = 0;
    long longest = 0;
};

ChainTotals collect_stats(const ht_t* tbl)
{
    ChainTotals totals;
    for (size_t i = 0; i < tbl->rlen; ++i) {
        for (const struct hrec* rec = tbl->r[i]; rec != nullptr; rec = rec->next) {
            ++hstats[i].length;
            hstats[i].last_key = tbl->ktype == ekt_STR ? text_of(rec) : static_cast<const void*>(&rec->key);
        }
        totals.records += hstats[i].length;
        totals.used += hstats[i].length > 0 ? 1 : 0;
        totals.longest = hstats[i].length > totals.longest ? hstats[i].length : totals.longest;
    }
    return totals;
}

void dump_slots(const ht_t* tbl, FILE* out)
{
    for (size_t i = 0; i < tbl->rlen; ++i) {
        const SlotStats& slot = hstats[i];
        if (slot.length == 0) {
            continue;
        }
        if (tbl->ktype == ekt_STR) {
            fprintf(out, "%ld:(%ld:%s);", static_cast<long>(i), slot.length,
                    static_cast<const char*>(slot.last_key));
        } else {
            // Kept: the address of the key, not the key.
            fprintf(out, "%ld:(%ld:%ld);", static_cast<long>(i), slot.length, as_number(slot.last_key));
        }
    }
    fputs("\n", out);
}

void dump(const ht_t* tbl, FILE* out, int verbose)
{
    assert(tbl != nullptr && out != nullptr);
    // For as long as one print lasts: a table carries nothing that only a print wants.
    hstats = static_cast<SlotStats*>(calloc(tbl->rlen, sizeof(SlotStats)));
    if (hstats == nullptr) {
        fprintf(out, "%s: out of memory\n", __func__);
        return;
    }
    const ChainTotals totals = collect_stats(tbl);
    fprintf(out, "Hash [%p;seed=%ld] contains: \n\t%ld records; slots: %ld/%ld\n",
            static_cast<const void*>(tbl), static_cast<long>(tbl->hseed), totals.records, totals.used,
            static_cast<long>(tbl->rlen));
    fprintf(out, "Max chain length: %ld\n", totals.longest);
    if (verbose != 0) {
        fprintf(out, "\nHash slots (total=%ld):\n", totals.records);
        dump_slots(tbl, out);
    }
    free(hstats);
    hstats = nullptr;
}

ht_t* table(skht_t h)
{
    return reinterpret_cast<ht_t*>(h);
}

ht_t* table(nkht_t h)
{
    return reinterpret_cast<ht_t*>(h);
}

} // namespace

int skht_create(skht_t* ph, size_t capacity, khash_t hfunc, const char** klst, size_t len)
{
    assert(ph != nullptr && capacity != 0);
    assert(klst == nullptr || len != 0);
    ht_t* tbl = nullptr;
    const int rc = hcreate(&tbl, ekt_STR, capacity, hfunc != nullptr ? hfunc : plHash, klst, len);
    *ph = reinterpret_cast<skht_t>(tbl);
    return rc;
}

int nkht_create(nkht_t* ph, size_t capacity, khash_t hfunc)
{
    assert(ph != nullptr && capacity != 0);
    ht_t* tbl = nullptr;
    const int rc = hcreate(&tbl, ekt_NUM, capacity, hfunc, nullptr, 0);
    *ph = reinterpret_cast<nkht_t>(tbl);
    return rc;
}

void skht_destroy(skht_t h, gkfree_t free_data)
{
    destroy(table(h), free_data);
}

void nkht_destroy(nkht_t h, gkfree_t free_data)
{
    destroy(table(h), free_data);
}

int skht_add(skht_t h, const char* skey, void** pdat)
{
    return add<ekt_STR>(table(h), skey, pdat);
}

int nkht_add(nkht_t h, long int nkey, void** pdat)
{
    return add<ekt_NUM>(table(h), as_key(nkey), pdat);
}

int skht_rm(skht_t h, const char* skey, void** pdat)
{
    return rm<ekt_STR>(table(h), skey, pdat);
}

int nkht_rm(nkht_t h, long int nkey, void** pdat)
{
    return rm<ekt_NUM>(table(h), as_key(nkey), pdat);
}

int skht_get(skht_t h, const char* skey, void** pdat)
{
    return get<ekt_STR>(table(h), skey, pdat);
}

int nkht_get(nkht_t h, long int nkey, void** pdat)
{
    return get<ekt_NUM>(table(h), as_key(nkey), pdat);
}

size_t skht_iter(skht_t h, gkiter_t f, void* farg)
{
    return iterate(table(h), f, farg);
}

size_t nkht_iter(nkht_t h, gkiter_t f, void* farg)
{
    return iterate(table(h), f, farg);
}

void skht_print(skht_t h, FILE* out, int verbose)
{
    dump(table(h), out, verbose);
}

void nkht_print(nkht_t h, FILE* out, int verbose)
{
    dump(table(h), out, verbose);
}

size_t skht_count(skht_t h)
{
    return count(table(h));
}

size_t nkht_count(nkht_t h)
{
    return count(table(h));
}

u_long plHash(const void* key, u_long seed)
{
    constexpr uint64_t k1 = 101;
    constexpr uint64_t k2 = k1 * k1;
    constexpr uint64_t k3 = k2 * k1;
    constexpr uint64_t k4 = k3 * k1;
    const char* s = static_cast<const char*>(key);
    uint64_t h = seed;
    // Four bytes a step: the same sum modulo 2^64, with one multiplication of h instead of four in a row.
    while (s[0] != 0 && s[1] != 0 && s[2] != 0 && s[3] != 0) {
        h = h * k4 + signed_byte(s[0]) * k3 + signed_byte(s[1]) * k2 + signed_byte(s[2]) * k1 +
            signed_byte(s[3]);
        s += 4;
    }
    for (; *s != 0; ++s) {
        h = h * k1 + signed_byte(*s);
    }
    return h;
}

u_long elfHash(const void* key, u_long seed)
{
    (void)seed;
    uint64_t h = 0;
    for (const char* s = static_cast<const char*>(key); *s != 0; ++s) {
        h = (h << 4) + signed_byte(*s);
        const uint64_t g = h & 0xf0000000;
        if (g != 0) {
            h ^= g >> 24;
        }
        h &= ~g;
    }
    return h;
}

u_long tw_shift(const void* key, u_long seed)
{
    (void)seed;
    return mix(static_cast<uint64_t>(as_number(key)));
}
