// Sequences of operations on an index, beside a list of what was entered. Input: a byte of switches, the
// time-out (2 bytes), the length of the store's pattern (2 bytes), the pattern, then operations of a byte and
// an argument of two. Calls that are meant to end the process (holes, an uncounted second transport segment)
// are left out.
#include "dgram.h"

#include <ctime>
#include <vector>

#include "dstream.h"
#include "rqs.h"
#include "stream_input.h"
#include "wrap.h"

namespace {

// NOLINTNEXTLINE(cert-err58-cpp): a call of the C interface throws nothing.
timespec& now = *const_cast<timespec*>(rqs_now_ref());
bool in_charge = false; // whether the monotonic clock shows now

void pass(long ms)
{
    now.tv_nsec += ms % 1000 * 1'000'000;
    now.tv_sec += ms / 1000 + now.tv_nsec / 1'000'000'000;
    now.tv_nsec %= 1'000'000'000;
}

long ms_between(const timespec& from, const timespec& till)
{
    return (till.tv_sec - from.tv_sec) * 1000 + (till.tv_nsec - from.tv_nsec) / 1'000'000;
}

struct Segment {
    off_t offset;
    size_t len;
    ssize_t dseq;
};

struct Model {
    std::vector<uint8_t> store;
    std::vector<Segment> list;
    off_t end = 0;

    // The bytes of a sequence: where it begins and ends.
    bool bounds(ssize_t dseq, off_t& from, off_t& till) const
    {
        bool any = false;
        for (const Segment& one : list) {
            if (one.dseq == dseq) {
                from = any ? from : one.offset;
                till = one.offset + static_cast<off_t>(one.len);
                any = true;
            }
        }
        return any;
    }

    ssize_t find(ssize_t from, off_t offset) const
    {
        off_t start = 0;
        off_t till = 0;
        for (ssize_t dseq = std::max<ssize_t>(from, 0); bounds(dseq, start, till); ++dseq) {
            if (offset >= start && offset <= till) {
                return dseq;
            }
        }
        return -1;
    }
};

const dgram_seq& seq_of(const dgram_idx* di, ssize_t dseq)
{
    return static_cast<const dgram_seq*>(di->seq.data)[dseq];
}

void add(dgram_idx* di, Model& model, uint16_t argument)
{
    const bool first = model.list.empty();
    const bool raw = first || is_raw(di->stype.num);
    size_t len = 1 + argument % 1500;
    size_t count = 0;
    if (first) { // a count is believed where the segment is found to have packets
        count = len % 188 == 0 ? len / 188 : 0;
    } else if (!raw) { // whole packets of the size that was found
        const size_t pkt_size = seq_of(di, model.list.back().dseq).pkt_size;
        count = 1 + argument % 9;
        len = count * pkt_size;
    }
    if (static_cast<size_t>(model.end) + len > model.store.size()) {
        return;
    }
    const bool expired = !first && ms_between(seq_of(di, model.list.back().dseq).first_io, now) >
                                       di->seq_tmout.tv_sec * 1000 + di->seq_tmout.tv_nsec / 1'000'000;
    const bool opens = first || expired || (raw && model.list.back().len != len);
    const uint8_t* store = model.store.data();
    const ssize_t dseq =
        count == 0 ? dgram_add(di, len, store, model.end) : dgram_add_count(di, len, count, store, model.end);
    fuzz::demand(dseq == (first ? 0 : model.list.back().dseq + (opens ? 1 : 0)));
    model.list.push_back({model.end, len, dseq});
    model.end += static_cast<off_t>(len);
}

void ask(dgram_idx* di, const Model& model, uint8_t code, uint16_t argument)
{
    const auto offset = static_cast<off_t>(argument) % (model.end + 2);
    const ssize_t from = code % 4 - 1;
    const ssize_t dseq = dgram_find_seq(di, from, offset);
    fuzz::demand(dseq == model.find(from, offset));
    if (dseq < 0) {
        return;
    }
    const timespec told = dgram_calc_time(di, dseq, offset);
    fuzz::demand(ms_between(seq_of(di, dseq).first_io, told) >= 0 && told.tv_nsec >= 0 &&
                 told.tv_nsec < 1'000'000'000);
    off_t start = 0;
    off_t till = 0;
    fuzz::demand(model.bounds(dseq, start, till));
    const off_t first = first_dseq_offset(di, dseq);
    const off_t last = last_dseq_offset(di, dseq);
    fuzz::demand(first >= start && first <= last && last < till);
}

// An index that nothing was added to begins and ends at 0.
void check_empty(dgram_idx* di)
{
    fuzz::demand(first_dseq_offset(di, 0) == 0 && last_dseq_offset(di, 0) == 0 &&
                 dgram_find_seq(di, 0, 0) == -1);
}

} // namespace

WRAPPED(int, clock_gettime, (clockid_t id, timespec* tms));

extern "C" {
int __wrap_clock_gettime(clockid_t id, timespec* tms)
{
    if (!in_charge || id != CLOCK_MONOTONIC) {
        return __real_clock_gettime(id, tms);
    }
    *tms = now;
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const auto switches = input.take<uint8_t>();
    const auto tmout = static_cast<u_long>(std::max<uint16_t>(input.take<uint16_t>(), 100));
    size_t pattern_len = input.take<uint16_t>();
    const auto pattern = input.block(pattern_len);
    fuzz::hide_log((switches & 1) != 0);
    now = {1000, 999'000'000};
    in_charge = true;
    Model model;
    model.store.resize(size_t{1} << 16, 0);
    for (size_t i = 0; pattern_len > 0 && i < model.store.size(); ++i) {
        model.store[i] = pattern[i % pattern_len];
    }
    dgram_idx* di = mk_dgram_idx(1 + switches / 64, tmout);
    check_empty(di);
    for (int i = 0; i < 200 && input.left() > 0; ++i) {
        const auto code = input.take<uint8_t>();
        const auto argument = input.take<uint16_t>();
        if (code < 128) {
            add(di, model, argument);
        } else if (code < 192) {
            ask(di, model, code, argument);
        } else if (code < 250) {
            pass(argument);
        } else {
            dgram_reset(di);
            check_empty(di);
            model.list.clear();
            model.end = 0;
        }
    }
    free_dgram_idx(di);
    in_charge = false;
    return 0;
}
}
