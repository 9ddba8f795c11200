/*
 * gkh.h: hash tables of fixed size with sorted chains: string keys (skht_) and numeric keys (nkht_).
 *
 * A table has its slots for life: capacity is a hint, it takes any number of records and never grows its
 * slots. It owns its records and its copies of string keys. The values belong to the caller and need not be
 * pointers. Results are errno numbers: 0, 3 (ESRCH: no such key), 12 (ENOMEM), 16 (EBUSY: key is there), 22
 * (EINVAL: table without slots), 75 (EOVERFLOW: capacity). Nothing is logged. Handles must be live ones:
 * REQUIRES of every call.
 *
 * Numeric keys are compared in their low 32 bits, by a wrapping difference that is no total order: among keys
 * that lie more than 2^31 apart a chain may hide a key that it holds. docs/kept-quirks.md has the figures.
 *
 * State: nkht_print and skht_print share a static pointer, so two of them must not overlap.
 */
#ifndef MORVANE_GKH_H
#define MORVANE_GKH_H

#include <stddef.h>
#include <stdio.h>
#include <sys/types.h>

#include "mvtypes.h"

MV_BEGIN_DECLS

/* HT_MAX_SKEY: bytes of a string key with its terminator; a longer key is cut. HT_MAX_CAP: greatest capacity.
 */
enum { HT_MAX_SKEY = 255, HT_MAX_CAP = 5000000 };

/* skht_t, nkht_t: handles of tables with string and numeric keys; 0 is no table. */
typedef unsigned long skht_t;
typedef long nkht_t;

/* khash_t: a hash function. key is the text, or the number cast to a pointer. */
typedef unsigned long (*khash_t)(const void* key, unsigned long seed);

/* gkfree_t: called by destroy with each record's value, NULL values included. */
typedef void (*gkfree_t)(void* data);

/* gkiter_t: called by iter with key (text, or number cast to a pointer), value and farg. It must not remove
 * that record. */
typedef void (*gkiter_t)(const void* key, void* data, void* farg);

/*
 * skht_create, nkht_create: make a table for about capacity records; the slots are the largest power of two
 * not above 1.5 times that. *ph is the handle, 0 on failure. A NULL hfunc means plHash for text, and the
 * number itself for numbers. klst preloads len keys with NULL values; one that occurs twice gives 16. 0, 12,
 * 16 or 75. REQUIRES: ph; capacity above 0; len above 0 where klst is given.
 */
int skht_create(skht_t* ph, size_t capacity, khash_t hfunc, const char** klst, size_t len);
int nkht_create(nkht_t* ph, size_t capacity, khash_t hfunc);

/* skht_destroy, nkht_destroy: free the table and its records; free_data, if given, gets each value. */
void skht_destroy(skht_t h, gkfree_t free_data);
void nkht_destroy(nkht_t h, gkfree_t free_data);

/*
 * skht_add, nkht_add: add a record with value *pdat (NULL if pdat is NULL). 0; 16 if the key is there, and
 * *pdat is then the value it has; 12; 22. A string key is copied, at most 254 bytes of it. REQUIRES: a key
 * that is not NULL or 0.
 */
int skht_add(skht_t h, const char* skey, void** pdat);
int nkht_add(nkht_t h, long int nkey, void** pdat);

/* skht_rm, nkht_rm: remove a record; its value goes to *pdat if pdat is given. 0, 3 or 22. */
int skht_rm(skht_t h, const char* skey, void** pdat);
int nkht_rm(nkht_t h, long int nkey, void** pdat);

/* skht_get, nkht_get: look a key up; its value goes to *pdat if pdat is given. 0, 3 or 22. */
int skht_get(skht_t h, const char* skey, void** pdat);
int nkht_get(nkht_t h, long int nkey, void** pdat);

/* skht_iter, nkht_iter: call f for each record, in the order of slots and chains. Returns how many. */
size_t skht_iter(skht_t h, gkiter_t f, void* farg);
size_t nkht_iter(nkht_t h, gkiter_t f, void* farg);

/* skht_print, nkht_print: statistics of slots and chains as text; verbose adds a list of slots. REQUIRES:
 * out. */
void skht_print(skht_t h, FILE* out, int verbose);
void nkht_print(nkht_t h, FILE* out, int verbose);

/* skht_count, nkht_count: number of records. */
size_t skht_count(skht_t h);
size_t nkht_count(nkht_t h);

/* plHash, elfHash: hashes of a text, by signed characters; elfHash takes no seed. */
unsigned long plHash(const void* key, unsigned long seed);
unsigned long elfHash(const void* key, unsigned long seed);

/* tw_shift: Thomas Wang's 64-bit integer mix, for numeric tables; it takes no seed. */
unsigned long tw_shift(const void* key, unsigned long seed);

MV_END_DECLS

#endif
