// Containers of fixed-size elements: the vector, the slot list, and the slot list inside one buffer.
#include "xvdat.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

#include "detail/assertions.h"

static_assert(offsetof(xvlst, data) == offsetof(xvec, data) && offsetof(xvlst, len) == offsetof(xvec, len) &&
                  offsetof(xvlst, max_len) == offsetof(xvec, max_len) &&
                  offsetof(xvlst, flags) == offsetof(xvec, flags),
              "a list begins with a vector");
static_assert(sizeof(wordata) == 8 && sizeof(ssize_t) == sizeof(size_t));

u_int32_t xvdat_flags = 0;

namespace {

constexpr size_t kEmbHeader = offsetof(emblst, data);
constexpr size_t kSizeMax = PTRDIFF_MAX; // of one block

// What the last xvlst_del of this thread left behind: it lowered avail of list from next to slot, so every
// slot below next but that one is taken. The xvlst_add that follows may go on at next without a search. taken
// and len tell the record from another list at the same address.
struct Lowered {
    const struct xvlst* list;
    const char* taken;
    size_t len;
    ssize_t slot;
    ssize_t next;
};

// initial-exec: an add or a delete would else call the dynamic linker for the address of its own note. The
// price, a few bytes of the static block of each thread, is there for a library that is loaded later, too.
__attribute__((tls_model("initial-exec"))) thread_local constinit Lowered g_lowered = {};

// Clean-ups of this thread that are running: while one runs, the map shows one slot less than len counts.
__attribute__((tls_model("initial-exec"))) thread_local constinit size_t g_cleanups = 0;

void forget_lowered()
{
    g_lowered.list = nullptr;
}

// One view of both kinds of list for the code that they share.
size_t& used(struct xvlst* l)
{
    return l->len;
}

size_t& used(struct emblst* el)
{
    return el->count;
}

size_t capacity(const struct xvlst* l)
{
    return l->max_len;
}

size_t capacity(const struct emblst* el)
{
    return el->max_count;
}

char* map_of(struct xvlst* l)
{
    return l->taken;
}

// By an offset: a list that was copied or is mapped elsewhere has no pointer to be mended.
char* map_of(struct emblst* el)
{
    return reinterpret_cast<char*>(el) + el->taken_offt;
}

void* base_of(struct xvlst* l)
{
    return l->data;
}

void* base_of(struct emblst* el)
{
    return &el->data;
}

int out_of_memory()
{
    // Kept: the global word alone, not the flags of the container.
    if ((xvdat_flags & XV_ABORT_ENOMEM) != 0) {
        abort();
    }
    errno = ENOMEM;
    return -1;
}

// len + plus, or a number that no capacity reaches.
size_t enlarged(size_t len, size_t plus)
{
    size_t sum = 0;
    return __builtin_add_overflow(len, plus, &sum) ? SIZE_MAX : sum;
}

// Whole growth blocks for new_max elements, and their bytes; false if a block of memory cannot be that big.
// new_max is above 0: for 0 there is nothing to do, and nobody comes here.
bool whole_blocks(size_t new_max, size_t blksz, size_t growblk, size_t* count, size_t* bytes)
{
    return !__builtin_mul_overflow((new_max - 1) / growblk + 1, growblk, count) &&
           !__builtin_mul_overflow(*count, blksz, bytes) && *bytes <= kSizeMax;
}

// Apart, so that an add with room left stays short. A fixed vector is asked for its room here, since
// xvec_expand() refuses it in any case.
[[gnu::noinline]] ssize_t add_slowly(struct xvec* v, size_t blksz, size_t growblk)
{
    if ((v->flags & XV_FIXED_SIZE) != 0 ? v->len >= v->max_len : xvec_expand(v, 1, blksz, growblk) != 0) {
        return -1;
    }
    return static_cast<ssize_t>(v->len++);
}

template <class Call>
int walk_elements(struct xvec* v, size_t* pos, Call call)
{
    const size_t len = v->len;
    int rc = 0;
    // A callback may have given the storage back, or made a smaller one.
    for (size_t i = 0; i < len && v->data != nullptr && i < v->max_len; ++i) {
        rc = call(v->data, i);
        if (rc != 0 && pos != nullptr) {
            *pos = i;
            return rc;
        }
    }
    return rc;
}

// The first slot from i on that is taken, or end.
size_t next_taken(const char* map, size_t i, size_t end)
{
    static_assert(std::endian::native == std::endian::little, "the lowest bits are the first slot's");
    uint64_t eight = 0;
    for (; end - i >= sizeof eight; i += sizeof eight) {
        memcpy(&eight, map + i, sizeof eight);
        if (eight != 0) {
            return i + static_cast<size_t>(std::countr_zero(eight)) / 8;
        }
    }
    while (i < end && map[i] == 0) {
        ++i;
    }
    return i;
}

// Calls for the taken slots up to last as it is now. stop: the first result that is not 0 ends the walk.
template <class List, class Call>
int walk_slots(List* list, bool stop, size_t* pos, Call call)
{
    const size_t last = list->last;
    int rc = 0;
    for (size_t i = 0; i <= last; ++i) {
        // Read afresh: a callback may have moved the storage, given it back, or made a smaller one.
        const char* map = map_of(list);
        if (base_of(list) == nullptr || map == nullptr) {
            break;
        }
        const size_t end = std::min(last + 1, capacity(list));
        i = i < end ? next_taken(map, i, end) : end;
        if (i == end) {
            break;
        }
        rc = call(base_of(list), i);
        if (rc != 0 && stop) {
            if (pos != nullptr) {
                *pos = i;
            }
            return rc;
        }
    }
    return rc;
}

// The lowest free slot above s, which is the lowest that was free and is taken now. Above last everything is
// free: the slot behind it needs no look.
template <class List>
ssize_t search_free(List* list, size_t s)
{
    const char* map = map_of(list);
    const size_t next = s + 1;
    const size_t max = capacity(list);
    if (next >= max) {
        return -1;
    }
    if (s == list->last || map[next] == 0) {
        return static_cast<ssize_t>(next);
    }
    const void* found = memchr(map + next, 0, max - next);
    return found != nullptr ? static_cast<const char*>(found) - map : -1;
}

// Whether the slot that is about to count fills the list: then nothing is free, and no search is needed.
template <class List>
bool fills(List* list)
{
    return g_cleanups == 0 && used(list) + 1 == capacity(list);
}

bool is_lowered(const struct xvlst* l, size_t s)
{
    const Lowered& was = g_lowered;
    return was.list == l && static_cast<size_t>(was.slot) == s && was.len == l->len &&
           was.taken == l->taken && g_cleanups == 0;
}

ssize_t find_avail(struct xvlst* l, size_t s)
{
    if (fills(l)) {
        return -1;
    }
    return is_lowered(l, s) ? g_lowered.next : search_free(l, s);
}

ssize_t find_avail(struct emblst* el, size_t s)
{
    return fills(el) ? -1 : search_free(el, s);
}

// Takes slot avail, which is a free one. In this order: the search goes by last as it will be, and by a count
// that leaves this slot out.
template <class List>
ssize_t take_slot(List* list)
{
    const ssize_t s = list->avail;
    const auto slot = static_cast<size_t>(s);
    map_of(list)[s] = 1;
    list->last = std::max(list->last, slot);
    list->avail = find_avail(list, slot);
    ++used(list);
    return s;
}

template <class List>
bool is_taken(List* list, size_t index)
{
    const char* map = map_of(list);
    return map != nullptr && index < capacity(list) && map[index] != 0;
}

template <class List>
void make_avail(List* list, size_t index)
{
    if (list->avail < 0 || static_cast<size_t>(list->avail) > index) {
        list->avail = static_cast<ssize_t>(index);
    }
}

// The slot's map byte is clear; the clean-up may do with the list what it likes. Apart: most lists have none.
template <class List>
[[gnu::noinline]] void clean_up(List* list, size_t index, void (*cleanup)(void* data, size_t index))
{
    ++g_cleanups;
    cleanup(base_of(list), index);
    --g_cleanups;
    if (used(list) == 0 || index >= capacity(list)) {
        return; // it has emptied the list: the slot counts no longer
    }
    if (!is_taken(list, index)) { // it may have taken the slot for an element of its own
        make_avail(list, index);
    }
    --used(list);
}

template <class List>
int free_slot(List* list, size_t index, void (*cleanup)(void* data, size_t index))
{
    if (index > list->last) {
        return ERANGE;
    }
    if (!is_taken(list, index)) {
        return EALREADY;
    }
    map_of(list)[index] = 0;
    if (cleanup != nullptr) {
        clean_up(list, index, cleanup);
        return 0;
    }
    make_avail(list, index);
    --used(list);
    return 0;
}

// Slots of blksz bytes, each with its byte of the map, that fit in room bytes. The map stands behind the
// slots, since bytes need no alignment.
size_t slots_in(size_t room, size_t blksz)
{
    return blksz == 0 || blksz == SIZE_MAX ? 0 : room / (blksz + 1);
}

// The length is reckoned anew from the element size: another one than was mapped would unmap what is not
// ours.
void unmap(const struct xvlst* l, size_t blksz)
{
    size_t bytes = 0;
    if (__builtin_mul_overflow(blksz + 1, l->max_len, &bytes) || munmap(l->data, bytes) != 0) {
        abort();
    }
}

} // namespace

int xvec_bind(struct xvec* v, void* buf, size_t buflen, size_t blksz)
{
    v->data = buf; // Kept: set even where nothing fits, and flags are added to those that are there
    v->max_len = blksz != 0 ? buflen / blksz : 0;
    if (v->max_len == 0) {
        return -1;
    }
    v->len = 0;
    v->flags |= XV_FIXED_SIZE;
    memset(buf, 0, buflen);
    return 0;
}

int xvec_reserve(struct xvec* v, size_t new_max, size_t blksz, size_t growblk)
{
    assert(v && (growblk > 0));
    // Kept: strict, unlike xvlst_reserve: a capacity of just new_max reallocates, or is refused as fixed.
    if (v->max_len > new_max) {
        return 0;
    }
    if ((v->flags & XV_FIXED_SIZE) != 0) {
        return ERR_XV_FIXED;
    }
    if (new_max == 0) {
        return 0;
    }
    size_t count = 0;
    size_t bytes = 0;
    if (!whole_blocks(new_max, blksz, growblk, &count, &bytes)) {
        return out_of_memory();
    }
    // At least a byte: realloc() of 0 bytes would free the block, and a pointer stands for "has storage".
    void* data = realloc(v->data, std::max(bytes, size_t{1}));
    if (data == nullptr) {
        return out_of_memory();
    }
    // Nothing but the growth: what was there before is the caller's.
    memset(static_cast<char*>(data) + v->max_len * blksz, 0, (count - v->max_len) * blksz);
    v->data = data;
    v->max_len = count;
    return 0;
}

int xvec_expand(struct xvec* v, size_t plus, size_t blksz, size_t growblk)
{
    assert(v && plus && blksz && growblk > 0);
    if ((v->flags & XV_FIXED_SIZE) != 0) {
        return ERR_XV_FIXED;
    }
    return xvec_reserve(v, enlarged(v->len, plus), blksz, growblk);
}

ssize_t xvec_add(struct xvec* v, size_t blksz, size_t growblk)
{
    // Room for more than one in a vector that may grow: xvec_expand would find nothing to do.
    const size_t len = v->len;
    if ((v->flags & XV_FIXED_SIZE) == 0 && len + 1 < v->max_len && blksz != 0 && growblk != 0) {
        v->len = len + 1;
        return static_cast<ssize_t>(len);
    }
    return add_slowly(v, blksz, growblk);
}

void xvec_reset(struct xvec* v)
{
    if (v == nullptr) {
        return;
    }
    if ((v->flags & XV_FIXED_SIZE) == 0) {
        free(v->data);
        v->data = nullptr;
        v->max_len = 0;
    }
    v->len = 0; // Kept: the elements of a bound vector stay as they are
}

int xvec_each(struct xvec* v, int (*f)(void* data, size_t index), size_t* pos)
{
    assert(v && f);
    return walk_elements(v, pos, f);
}

int xvec_each_aux(struct xvec* v, int (*f)(void* data, size_t index, void* aux), void* aux, size_t* pos)
{
    assert(v && f);
    return walk_elements(v, pos, [f, aux](void* data, size_t index) { return f(data, index, aux); });
}

int xvec_find(struct xvec* v, void* what, int (*f)(void* data, size_t index, void* what), size_t* pos)
{
    assert(v && f);
    // Kept: a find without pos calls on after a match, and returns the last result.
    return walk_elements(v, pos, [f, what](void* data, size_t index) { return f(data, index, what); });
}

int xvlst_bind(struct xvlst* l, void* buf, size_t buflen, size_t blksz)
{
    const size_t count = slots_in(buflen, blksz);
    if (count == 0) {
        return -1;
    }
    forget_lowered();
    l->data = buf;
    l->len = 0;
    l->avail = 0;
    l->last = 0;
    l->max_len = count;
    l->flags |= XV_FIXED_SIZE;
    l->taken = static_cast<char*>(buf) + count * blksz;
    memset(buf, 0, count * (blksz + 1));
    return 0;
}

int xvlst_mmap_fixed(struct xvlst* l, size_t count, size_t blksz)
{
    size_t bytes = 0;
    if (__builtin_add_overflow(blksz, 1, &bytes) || __builtin_mul_overflow(bytes, count, &bytes)) {
        return ENOMEM;
    }
    void* data =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (data == MAP_FAILED) {
        return ENOMEM;
    }
    forget_lowered();
    l->data = data;
    l->len = 0;
    l->avail = 0;
    l->last = 0;
    l->max_len = count;
    l->flags |= XV_FIXED_SIZE | XV_MMAP;
    l->taken = static_cast<char*>(data) + count * blksz;
    // Written, not only mapped: pages that the system cannot give are missed here and not in the middle of
    // work.
    memset(data, 0, bytes);
    l->meta.num = static_cast<long>(blksz);
    return 0;
}

int xvlst_reserve(struct xvlst* l, size_t new_max, size_t blksz, size_t growblk)
{
    assert(l);
    if (l->max_len >= new_max) {
        return 0;
    }
    if ((l->flags & XV_FIXED_SIZE) != 0) {
        return ERR_XV_FIXED;
    }
    if (l->max_len != 0 && l->taken == nullptr) {
        return -1; // the map is lost: which slots are taken cannot be told any more
    }
    // The elements grow as a vector's do; the map follows, and the list is whole only with both.
    struct xvec v = {l->data, l->len, l->max_len, l->flags};
    const int rc = xvec_reserve(&v, new_max, blksz, growblk);
    if (rc != 0) {
        return rc;
    }
    forget_lowered(); // the note speaks of a map that may move
    const size_t old_max = l->max_len;
    l->data = v.data;
    l->max_len = v.max_len;
    auto* taken = static_cast<char*>(realloc(l->taken, l->max_len));
    if (taken == nullptr) {
        // Kept: capacity has risen and the map is gone, so the list answers no until it is reset.
        free(l->taken);
        l->taken = nullptr;
        return out_of_memory();
    }
    l->taken = taken;
    memset(l->taken + old_max, 0, l->max_len - old_max);
    if (l->avail < 0) {
        l->avail = static_cast<ssize_t>(old_max);
    }
    return 0;
}

int xvlst_expand(struct xvlst* l, size_t plus, size_t blksz, size_t growblk)
{
    assert(l && plus && blksz && growblk);
    return xvlst_reserve(l, enlarged(l->len, plus), blksz, growblk);
}

ssize_t xvlst_add(struct xvlst* l, size_t blksz, size_t growblk)
{
    assert(l);
    if (l->len >= l->max_len || blksz == 0 || growblk == 0) {
        const int rc = xvlst_expand(l, 1, blksz, growblk);
        if (rc != 0) {
            return rc;
        }
    }
    if (l->avail < 0 || l->taken == nullptr) {
        return -1;
    }
    assert((0 == l->max_len) || (l->avail < (ssize_t)l->max_len));
    assert(0 == l->taken[l->avail]);
    return take_slot(l);
}

int xvlst_del(struct xvlst* l, size_t index, void (*cleanup)(void* data, size_t index))
{
    assert(l);
    assert(l->len);
    forget_lowered();
    const ssize_t avail = l->avail;
    const int rc = free_slot(l, index, cleanup);
    // Of a list that was full nothing need be known: the add fills it again.
    const bool lowered = rc == 0 && avail >= 0 && l->avail == static_cast<ssize_t>(index);
    if (lowered && cleanup == nullptr && g_cleanups == 0) {
        g_lowered = {l, l->taken, l->len, l->avail, avail};
    }
    return rc;
}

int xvlst_each(struct xvlst* l, int (*f)(void* data, size_t index), size_t* pos)
{
    assert(l && f);
    return walk_slots(l, pos != nullptr, pos, f);
}

int xvlst_each_aux(struct xvlst* l, void* aux, int (*f)(void* data, size_t index, void* aux), size_t* pos)
{
    assert(l && f);
    return walk_slots(l, pos != nullptr, pos,
                      [f, aux](void* data, size_t index) { return f(data, index, aux); });
}

int xvlst_rmif(struct xvlst* l, void* udata, int (*is_match)(void* data, size_t index, void* udata),
               size_t* pos)
{
    assert(l && is_match);
    int removed = 0;
    const int rc = walk_slots(l, true, pos, [&](void* data, size_t index) {
        if (is_match(data, index, udata) == 0) {
            return 0;
        }
        if (xvlst_del(l, index, nullptr) != 0) {
            return -1;
        }
        ++removed;
        return 0;
    });
    return rc != 0 ? rc : removed;
}

int xvlst_find(struct xvlst* l, void* what, int (*f)(void* data, size_t index, void* what), size_t* pos)
{
    assert(l && f);
    return walk_slots(l, true, pos, [f, what](void* data, size_t index) { return f(data, index, what); });
}

void xvlst_purge_all(struct xvlst* l, void (*cleanup)(void* data, size_t index))
{
    assert(l);
    if (l->len == 0) {
        return; // Kept: last stays where it was, and walks go up to it
    }
    if (cleanup != nullptr) {
        assert(l->taken);
        walk_slots(l, false, nullptr, [cleanup](void* data, size_t index) {
            cleanup(data, index);
            return 0;
        });
    }
    forget_lowered();
    l->last = 0;
    l->len = 0;
    l->avail = l->max_len != 0 ? 0 : -1;
    if (l->taken != nullptr) {
        memset(l->taken, 0, l->max_len);
    }
}

void xvlst_reset(struct xvlst* l)
{
    if (l == nullptr) {
        return;
    }
    forget_lowered();
    if ((l->flags & XV_MMAP) != 0) {
        const auto blksz = static_cast<size_t>(l->meta.num);
        assert(blksz);
        unmap(l, blksz);
    } else if ((l->flags & XV_FIXED_SIZE) == 0) {
        free(l->data);
        free(l->taken);
    }
    *l = {};
}

struct emblst* emblst_create(void* buf, size_t len, size_t blksz)
{
    assert(0 == ((u_long)buf % sizeof(long)));
    const ssize_t room = static_cast<ssize_t>(len) - static_cast<ssize_t>(kEmbHeader);
    if (room <= 0) {
        return nullptr;
    }
    const size_t count = slots_in(static_cast<size_t>(room), blksz);
    if (count == 0) {
        return nullptr;
    }
    const auto taken_offt = static_cast<off_t>(kEmbHeader + count * blksz);
    assert((taken_offt + (size_t)count) <= len);
    auto* el = static_cast<struct emblst*>(buf);
    el->count = 0;
    el->avail = 0;
    el->last = 0;
    el->max_count = count;
    el->flags |= XV_FIXED_SIZE; // Kept: added to what the buffer holds
    el->taken_offt = taken_offt;
    memset(static_cast<char*>(buf) + kEmbHeader, 0, count * (blksz + 1));
    return el;
}

ssize_t emblst_add(struct emblst* el)
{
    if (el->avail < 0 || el->max_count == 0) {
        return -1;
    }
    const char* taken = map_of(el);
    assert((0 == el->max_count) || (el->avail < (ssize_t)el->max_count));
    assert(0 == taken[el->avail]);
    return take_slot(el);
}

void* emblst_copy(const struct emblst* se, void* dst, size_t dstlen)
{
    const size_t bytes = static_cast<size_t>(se->taken_offt) + se->max_count;
    if (dstlen < bytes) {
        errno = EINVAL;
        return nullptr;
    }
    // The two buffers may overlap.
    return memmove(dst, se, bytes);
}

int emblst_del(struct emblst* el, size_t index, void (*cleanup)(void* data, size_t index))
{
    assert(el->count);
    return free_slot(el, index, cleanup);
}

int emblst_each(struct emblst* el, int (*f)(void* data, size_t index), size_t* pos)
{
    assert(el && f);
    return walk_slots(el, pos != nullptr, pos, f);
}

int emblst_each_aux(struct emblst* el, void* aux, int (*f)(void* data, size_t index, void* aux), size_t* pos)
{
    assert(el && f);
    return walk_slots(el, pos != nullptr, pos,
                      [f, aux](void* data, size_t index) { return f(data, index, aux); });
}
