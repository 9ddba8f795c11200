/*
 * xvdat.h: three containers of fixed-size elements. xvec: a vector that grows in blocks. xvlst: a vector of
 * slots with a map of the taken ones; a slot's number stays valid while others are deleted, and the lowest
 * free slot is taken next. emblst: the same slot list inside one buffer of the caller's, without a pointer in
 * it, so that its bytes may be copied or mapped elsewhere.
 *
 * None of them knows its element: the element size (blksz) and the block in which capacity grows (growblk)
 * are arguments of each call, the same for the life of a container, and a callback gets the base of the
 * storage and an index. A container starts as NULL_xvec or NULL_xvlst, or zeroed; then it grows on demand, or
 * is bound to a buffer or mapped once. Elements are the caller's business.
 *
 * A callback may add to, delete from or reset the container that is being walked. A walk's upper bound is
 * read once, before the first call: what a callback adds above it is not visited in that pass. A walk over a
 * vector or list whose storage a callback has reset ends there.
 *
 * State: xvdat_flags; and, in each thread, a note of the last xvlst_del that lets the next xvlst_add do
 * without a search. A container belongs to one thread for life: a lock does not make a list fit for two
 * threads, whose notes know nothing of each other. Nothing is logged.
 */
#ifndef MORVANE_XVDAT_H
#define MORVANE_XVDAT_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/types.h>

#include "mvtypes.h"

MV_BEGIN_DECLS

/* Bits of a container's flags, and of xvdat_flags. */
enum {
    XV_ABORT_ENOMEM = 1, /* in xvdat_flags alone: a failed reallocation ends the process by abort() */
    XV_FIXED_SIZE = 2,   /* may not grow: bound to the caller's buffer, or mapped */
    XV_MMAP = 4          /* with XV_FIXED_SIZE: the storage is a mapping that the container owns */
};

/* ERR_XV_FIXED: result of asking a fixed container to grow. */
enum { ERR_XV_FIXED = -11 };

/* xvdat_flags: 0 at start, written by the application if at all. */
extern u_int32_t xvdat_flags;

/* wordata: a word that belongs to a list's owner. */
union wordata {
    long num;
    void* ptr;
    char str[8];
};

/* xvec: a vector. It owns data unless XV_FIXED_SIZE is set. */
struct xvec {
    void* data;     /* element storage, or NULL */
    size_t len;     /* elements in use: 0 to len-1 */
    size_t max_len; /* capacity in elements */
    uint32_t flags; /* XV_ bits */
};

/* xvlst: a slot list. It begins with the fields of xvec. It owns data and taken unless it is bound. */
struct xvlst {
    void* data;
    size_t len; /* slots taken, not the span up to last */
    size_t max_len;
    uint32_t flags;
    char* taken;   /* a byte for each of max_len slots: 0 free, 1 taken */
    size_t last;   /* highest slot taken since the last purge; a delete never lowers it */
    ssize_t avail; /* lowest free slot; -1: all of max_len are taken */
    union wordata
        meta; /* the owner's; on a mapped list meta.num is the element size, which unmapping needs */
};

/* emblst: header of a slot list inside a buffer; slots run on from data, and the map stands behind them. */
struct emblst {
    size_t count;     /* slots taken */
    size_t max_count; /* slots that fit */
    size_t last;
    ssize_t avail;
    uint32_t flags;
    off_t taken_offt; /* bytes from the start of the header to the map */

    union {
        long lval;
        char buf[8];
    } data; /* the first slot begins here */
};

/* NULL_xvec, NULL_xvlst: initial values. */
#define NULL_xvec                                                                                            \
    {                                                                                                        \
        NULL, 0, 0, 0                                                                                        \
    }
#define NULL_xvlst                                                                                           \
    {                                                                                                        \
        NULL, 0, 0, 0, NULL, 0, 0,                                                                           \
        {                                                                                                    \
            0                                                                                                \
        }                                                                                                    \
    }

/*
 * xvec_bind: makes buf (borrowed, buflen bytes, all zeroed here) the storage of a vector of fixed size. 0; -1
 * if not one element fits, with data left set.
 */
int xvec_bind(struct xvec* v, void* buf, size_t buflen, size_t blksz);

/*
 * xvec_reserve: makes capacity for new_max elements, in whole growth blocks; new elements are zeroed,
 * capacity never shrinks. 0; ERR_XV_FIXED; -1 if memory ran out or the size cannot be counted, with the
 * vector as it was. A capacity that equals new_max does not suffice: a fixed vector refuses, a growing one
 * reallocates. REQUIRES: v; growblk above 0.
 */
int xvec_reserve(struct xvec* v, size_t new_max, size_t blksz, size_t growblk);

/* xvec_expand: reserves for plus elements more than len. Results of xvec_reserve; a fixed vector always
 * refuses, even one with room. REQUIRES: v; plus, blksz and growblk above 0. */
int xvec_expand(struct xvec* v, size_t plus, size_t blksz, size_t growblk);

/* xvec_add: takes the next element and returns its index, or -1 if there is no room. The element is not
 * touched: it is zero unless an xvec_reset of a bound vector came between. REQUIRES: as xvec_expand, where
 * the vector may grow. */
ssize_t xvec_add(struct xvec* v, size_t blksz, size_t growblk);

/* xvec_reset: empties a vector (NULL: nothing happens). One that grows gives its storage back, a bound one
 * keeps its buffer, as it is. */
void xvec_reset(struct xvec* v);

/*
 * xvec_each, xvec_each_aux, xvec_find: call f for the elements in order. With pos the walk stops at the first
 * result that is not 0, stores the index and returns that result; without pos all elements are visited,
 * whatever f returns, and the last result is returned: without pos xvec_find too does not stop at a match.
 * 0 for an empty vector, with *pos as it was. REQUIRES: v and f.
 */
int xvec_each(struct xvec* v, int (*f)(void* data, size_t index), size_t* pos);
int xvec_each_aux(struct xvec* v, int (*f)(void* data, size_t index, void* aux), void* aux, size_t* pos);
int xvec_find(struct xvec* v, void* what, int (*f)(void* data, size_t index, void* what), size_t* pos);

/* xvlst_bind: makes buf (borrowed, zeroed here) hold slots and map of a list of fixed size. 0, or -1 if not
 * one slot fits. */
int xvlst_bind(struct xvlst* l, void* buf, size_t buflen, size_t blksz);

/* xvlst_mmap_fixed: maps zeroed storage for count slots; the size is fixed, and the list owns the mapping.
 * meta.num is taken for the element size. 0, or ENOMEM with the list as it was. */
int xvlst_mmap_fixed(struct xvlst* l, size_t count, size_t blksz);

/*
 * xvlst_reserve: makes capacity for new_max slots, in whole growth blocks. 0, also where capacity equals
 * new_max; ERR_XV_FIXED; -1 if memory ran out. If memory ran out for the map alone, the list has lost it: no
 * slot counts as taken, every xvlst_add answers -1 until the list is reset. REQUIRES: l; growblk above 0.
 */
int xvlst_reserve(struct xvlst* l, size_t new_max, size_t blksz, size_t growblk);

/* xvlst_expand: reserves for plus slots more than are taken. Results of xvlst_reserve. REQUIRES: l; plus,
 * blksz and growblk above 0. */
int xvlst_expand(struct xvlst* l, size_t plus, size_t blksz, size_t growblk);

/*
 * xvlst_add: takes the lowest free slot and returns its number. ERR_XV_FIXED if a fixed list is full, -1 if
 * memory ran out. A slot that is used again holds what its last owner left; one never used is zero. REQUIRES:
 * as xvlst_expand; avail inside the list, and free.
 */
ssize_t xvlst_add(struct xvlst* l, size_t blksz, size_t growblk);

/*
 * xvlst_del: frees a slot. cleanup, if given, is called while the map shows the slot free already and len
 * still counts it. 0; ERANGE (34) for a slot above last; EALREADY (114) for a free one. REQUIRES: a list that
 * is not empty.
 */
int xvlst_del(struct xvlst* l, size_t index, void (*cleanup)(void* data, size_t index));

/* xvlst_each, xvlst_each_aux: call f for the taken slots in order; results and pos as for xvec_each. Mind the
 * order of aux and f. REQUIRES: l and f. */
int xvlst_each(struct xvlst* l, int (*f)(void* data, size_t index), size_t* pos);
int xvlst_each_aux(struct xvlst* l, void* aux, int (*f)(void* data, size_t index, void* aux), size_t* pos);

/* Walks without callbacks. xvlst_walk: where one stands; zeroed at the start. */
struct xvlst_walk {
    size_t next;   /* first slot that was not looked at yet */
    uint64_t left; /* of the 64 slots before it, those that are still to come; bit 0 is the first */
};

static inline uint64_t xvlst_taken64_(const struct xvlst* l, size_t base)
{
    /* A bit for each of the 64 slots from base on, 1 if it is taken; base is below max_len. */
    const size_t count = l->max_len - base < 64 ? l->max_len - base : 64;
    uint64_t bits = 0;
    size_t i = 0;
    for (; i + 8 <= count; i += 8) {
        uint64_t eight = 0;
        memcpy(&eight, l->taken + base + i, sizeof eight);
        /* Eight bytes of 0 or 1, the first one lowest: the product has them side by side in its highest byte.
         */
        bits |= ((eight * UINT64_C(0x0102040810204080)) >> 56) << i;
    }
    for (; i < count; ++i) {
        bits |= (uint64_t)(l->taken[base + i] != 0) << i;
    }
    return bits;
}

/*
 * xvlst_next: the next taken slot of a walk in order, -1 behind the last one:
 *
 *     struct xvlst_walk walk = {0, 0};
 *     for (ssize_t i = xvlst_next(l, &walk); i >= 0; i = xvlst_next(l, &walk)) {
 *
 * It looks at 64 slots at a time: the body may free the slot that it is given, and take others; of the 64,
 * one that is freed before its turn is given all the same, and one that is taken meanwhile may be left out.
 * REQUIRES: l and walk; a list that is not reset, and not purged, before the walk has ended.
 */
static inline ssize_t xvlst_next(const struct xvlst* l, struct xvlst_walk* walk)
{
    while (walk->left == 0) {
        if (walk->next > l->last || walk->next >= l->max_len || l->taken == NULL) {
            return -1;
        }
        walk->left = xvlst_taken64_(l, walk->next);
        walk->next += 64;
    }
    const size_t slot = walk->next - 64 + (size_t)__builtin_ctzll(walk->left);
    walk->left &= walk->left - 1;
    return (ssize_t)slot;
}

/* xvlst_rmif: frees each slot for which is_match returns non-zero. The number freed; -1 if a slot could not
 * be freed (is_match has freed it), its index then stored in *pos if pos is given. REQUIRES: l and is_match.
 */
int xvlst_rmif(struct xvlst* l, void* udata, int (*is_match)(void* data, size_t index, void* udata),
               size_t* pos);

/* xvlst_find: stops at the first result that is not 0 and returns it, its index in *pos if pos is given; 0 if
 * there is none. REQUIRES: l and f. */
int xvlst_find(struct xvlst* l, void* what, int (*f)(void* data, size_t index, void* what), size_t* pos);

/* xvlst_purge_all: frees all slots, with cleanup, if given, called for each; capacity stays. A list with len
 * 0 is left as it is. REQUIRES: l; its map, where cleanup is given. */
void xvlst_purge_all(struct xvlst* l, void (*cleanup)(void* data, size_t index));

/* xvlst_reset: gives storage back (a bound list has none of its own) and zeroes the record (NULL: nothing
 * happens). A mapping that cannot be unmapped ends the process. REQUIRES: meta.num as mapped. */
void xvlst_reset(struct xvlst* l);

/* emblst_create: lays a list into buf (borrowed; slots and map are zeroed here) and returns it, NULL if not
 * one slot fits. REQUIRES: buf aligned as long. */
struct emblst* emblst_create(void* buf, size_t len, size_t blksz);

/* emblst_add: takes the lowest free slot and returns its number, -1 if the list is full. REQUIRES: avail
 * inside the list, and free. */
ssize_t emblst_add(struct emblst* el);

/* emblst_copy: copies the whole list, taken_offt + max_count bytes, and returns dst; the copy is a list. NULL
 * with errno EINVAL if dstlen is smaller. */
void* emblst_copy(const struct emblst* se, void* dst, size_t dstlen);

/* emblst_del: as xvlst_del. Callbacks of an emblst get the address of its field data. REQUIRES: a list that
 * is not empty. */
int emblst_del(struct emblst* el, size_t index, void (*cleanup)(void* data, size_t index));

/* emblst_each, emblst_each_aux: as xvlst_each. REQUIRES: el and f. */
int emblst_each(struct emblst* el, int (*f)(void* data, size_t index), size_t* pos);
int emblst_each_aux(struct emblst* el, void* aux, int (*f)(void* data, size_t index, void* aux), size_t* pos);

MV_END_DECLS

#endif
