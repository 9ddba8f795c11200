// Timers: a four-way heap of times, each with its caller's record.
#include "tmr.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "clk.h"
#include "detail/assertions.h"
#include "rqs.h"
#include "timeop.h"
#include "xvdat.h"

namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kMillisecond = 1'000'000;
constexpr int64_t kNever = INT64_MAX;

// Four children a node: half the levels of a binary heap, and the children share a cache line or two.
constexpr size_t kFanout = 4;
constexpr size_t kHeapBlock = 1024;

// The time stands beside the pointer, so that a comparison touches no record. The record is the caller's and
// stays where it is while its timer runs: the heap points to it.
struct entry {
    int64_t due;    // nanoseconds of the loop's clock
    uint64_t order; // counts the starts: timers of one time run in this order
    struct tmr* timer;
};

struct xvec g_heap = NULL_xvec; // of entry
uint64_t g_started;             // starts so far

entry* heap()
{
    return static_cast<entry*>(g_heap.data);
}

bool is_earlier(const entry& a, const entry& b)
{
    return a.due != b.due ? a.due < b.due : a.order < b.order;
}

// Each entry knows its place in the heap, counted from 1, so that a timer is cancelled without a search; 0 is
// a timer that does not run.
void put(size_t index, const entry& e)
{
    heap()[index] = e;
    e.timer->place = index + 1;
}

// Puts e at index or nearer to the root; the entry that stood at index is overwritten.
void sift_up(size_t index, const entry e)
{
    while (index > 0) {
        const size_t parent = (index - 1) / kFanout;
        if (!is_earlier(e, heap()[parent])) {
            break;
        }
        put(index, heap()[parent]);
        index = parent;
    }
    put(index, e);
}

size_t earliest_child(size_t first)
{
    const size_t end = std::min(first + kFanout, g_heap.len);
    size_t best = first;
    for (size_t child = first + 1; child < end; ++child) {
        if (is_earlier(heap()[child], heap()[best])) {
            best = child;
        }
    }
    return best;
}

// Puts e at index or further from the root; the entry that stood at index is overwritten.
void sift_down(size_t index, const entry e)
{
    for (size_t first = 0; (first = index * kFanout + 1) < g_heap.len;) {
        const size_t child = earliest_child(first);
        if (!is_earlier(heap()[child], e)) {
            break;
        }
        put(index, heap()[child]);
        index = child;
    }
    put(index, e);
}

// An entry that comes from elsewhere in the heap may belong above index as well as below it.
void replace(size_t index, const entry e)
{
    if (index > 0 && is_earlier(e, heap()[(index - 1) / kFanout])) {
        sift_up(index, e);
    } else {
        sift_down(index, e);
    }
}

void remove_at(size_t index)
{
    heap()[index].timer->place = 0;
    const entry last = heap()[--g_heap.len];
    if (index < g_heap.len) {
        replace(index, last);
    }
}

bool is_span(const struct timespec& t)
{
    return t.tv_sec >= 0 && t.tv_nsec >= 0 && t.tv_nsec < kSecond;
}

// a + b where neither is negative; what cannot be counted is "never".
int64_t saturated_sum(int64_t a, int64_t b)
{
    int64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? kNever : sum;
}

int64_t nanoseconds(const struct timespec& t)
{
    int64_t seconds = 0;
    return __builtin_mul_overflow(int64_t{t.tv_sec}, kSecond, &seconds) ? kNever
                                                                        : saturated_sum(seconds, t.tv_nsec);
}

struct timespec as_timespec(int64_t ns)
{
    return {ns / kSecond, ns % kSecond};
}

int64_t loop_time()
{
    return nanoseconds(*rqs_now_ref());
}

// The next turn behind now in the phase of due: turns that were missed are left out.
int64_t next_turn(int64_t due, int64_t every, int64_t now)
{
    const int64_t missed = (now - due) / every;
    return saturated_sum(due + missed * every, every);
}

// Takes the due entry at the root off, or moves it to its next turn, before its callback may look at it. A
// callback may cancel, change or start any timer, its own included.
void settle_root(int64_t now)
{
    entry e = heap()[0];
    if (e.timer->every == 0) {
        remove_at(0);
        return;
    }
    e.due = next_turn(e.due, e.timer->every, now);
    e.order = g_started++;
    sift_down(0, e);
}

} // namespace

int tmr_add(struct tmr* t, const struct timespec* after, const struct timespec* every, tmr_fn fn, void* udata)
{
    assert(t != nullptr && after != nullptr && fn != nullptr);
    if (t->place != 0) {
        return EBUSY;
    }
    if (!is_span(*after) || (every != nullptr && !is_span(*every))) {
        return EINVAL;
    }
    const ssize_t index = xvec_add(&g_heap, sizeof(entry), kHeapBlock);
    if (index < 0) {
        return ENOMEM;
    }
    // From here on nothing fails: the record is written only when it has a place.
    t->every = every != nullptr ? nanoseconds(*every) : 0;
    t->fn = fn;
    t->udata = udata;
    sift_up(static_cast<size_t>(index), {saturated_sum(loop_time(), nanoseconds(*after)), g_started++, t});
    return 0;
}

int tmr_change(struct tmr* t, const struct timespec* after)
{
    assert(t != nullptr && after != nullptr);
    if (t->place == 0) {
        return ESRCH;
    }
    if (!is_span(*after)) {
        return EINVAL;
    }
    replace(t->place - 1, {saturated_sum(loop_time(), nanoseconds(*after)), g_started++, t});
    return 0;
}

int tmr_cancel(struct tmr* t)
{
    assert(t != nullptr);
    if (t->place == 0) {
        return ESRCH;
    }
    remove_at(t->place - 1);
    return 0;
}

bool tmr_pending(const struct tmr* t)
{
    return t->place != 0;
}

int tmr_left(const struct tmr* t, struct timespec* left)
{
    assert(t != nullptr && left != nullptr);
    if (t->place == 0) {
        return ESRCH;
    }
    *left = as_timespec(std::max<int64_t>(heap()[t->place - 1].due - loop_time(), 0));
    return 0;
}

size_t tmr_count(void)
{
    return g_heap.len;
}

void tmr_update_tmout(struct timespec* tmout)
{
    if (g_heap.len == 0) {
        *tmout = {-1, 0};
        return;
    }
    struct timespec now;
    // The real clock, not the loop's: the callbacks of this cycle have taken time since that was set.
    set_clk_now(&now, FAST_MONOTONIC_CLOCK);
    const int64_t left = std::max<int64_t>(heap()[0].due - nanoseconds(now), 0);
    // The wait counts milliseconds in an int: longer ones are taken in pieces of a day.
    constexpr int64_t longest = 86400 * kSecond;
    const int64_t rounded = (std::min(left, longest) + kMillisecond - 1) / kMillisecond * kMillisecond;
    *tmout = as_timespec(rounded);
}

int tmr_time_out(void)
{
    const int64_t now = loop_time();
    const uint64_t limit = g_started; // what is started from here on waits for the next round
    int ran = 0;
    while (g_heap.len > 0 && heap()[0].due <= now && heap()[0].order < limit) {
        // Nothing else is used from here on: the callback may move the heap, and free the record itself.
        struct tmr* t = heap()[0].timer;
        settle_root(now);
        t->fn(t, t->udata);
        ++ran;
    }
    return ran;
}

void tmr_reset(void)
{
    for (size_t i = 0; i < g_heap.len; ++i) {
        heap()[i].timer->place = 0;
    }
    xvec_reset(&g_heap);
}
