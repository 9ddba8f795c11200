// What one segment of a stream holds: its type, its packets, and the places where a reader may start.
#include "dstream.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "detail/bytes.h"
#include "detail/ts_packet.h"
#include "log.h"
#include "mpegts.h"
#include "rtp.h"

DECLARE_MLL(MLL_DGRAM);

const union n32_tag STY_RAW = {{'R', 'A', 'W', 0}};
const union n32_tag STY_MPEGTS = {{'T', 'S', 0, 0}};
const union n32_tag STY_RTP = {{'R', 'T', 'P', 0}};

namespace {

using mv::Bytes;
using mv::PacketHead;
using mv::ts_has_pcr;

constexpr uint8_t kSequenceHeader = 0xb3; // start codes of ISO/IEC 13818-2, 6.2.1
constexpr uint8_t kPictureHeader = 0;

// Kept: the table is looked for right behind a pointer field of 0, which is not read, and never behind an
// adaptation field.
inline bool ts_has_pat(const uint8_t* b)
{
    return ts_payload_start(b) != 0 && ts_pid(b) == 0 && b[5] == 0 && (b[6] & 0xfc) == 0xb0 &&
           (b[10] & 1) != 0;
}

// Kept: the name says frame, the test says that the packet is marked as an entry point.
bool ts_has_iframe(const uint8_t* b)
{
    return ts_adaptation(b) >= 3 && ts_adapt_len(b) >= 5 && ts_adapt_rand(b) != 0 && ts_adapt_pcr(b) != 0;
}

// Kept: an adaptation field longer than the packet puts the payload into the packets that follow. Empty:
// there is none, or it begins behind the buffer.
Bytes ts_get_payload(const uint8_t* b, Bytes rest)
{
    if (ts_payload(b) == 0) {
        return {};
    }
    return mv::tail(rest, ts_adaptation(b) < 2 ? 4 : ts_adapt_len(b) + 5);
}

bool is_pes_video(Bytes payload)
{
    return payload.size() >= 4 && match_start(payload.data(), PES_STREAM_ID_VIDEO_MPEG);
}

// Offset of the first start code with that id that stands whole in the bytes and begins below eod - 4, or -1.
// eod may lie behind the bytes.
ssize_t pes_find_stream_id(Bytes bytes, size_t eod, uint8_t id)
{
    // The third byte of a start code is 1: only ones that a byte follows are candidates.
    const size_t limit = std::min(std::max<size_t>(eod, 2) - 2, std::max<size_t>(bytes.size(), 1) - 1);
    for (size_t third = 2; third < limit; ++third) {
        const void* one = memchr(bytes.data() + third, 1, limit - third);
        if (one == nullptr) {
            return -1;
        }
        third = static_cast<size_t>(static_cast<const uint8_t*>(one) - bytes.data());
        if (match_start(bytes.data() + (third - 2), id)) {
            return static_cast<ssize_t>(third - 2);
        }
    }
    return -1;
}

// Whether the picture that follows a sequence header within eod bytes is an I picture (ISO/IEC 13818-2,
// picture_coding_type 1). Apart: few packets begin a sequence.
__attribute__((noinline)) bool begins_with_intra(Bytes payload, size_t eod)
{
    const ssize_t sequence = pes_find_stream_id(payload, eod, kSequenceHeader);
    if (sequence < 0) {
        return false;
    }
    const auto skipped = static_cast<size_t>(sequence);
    const Bytes from_sequence = mv::tail(payload, skipped);
    const ssize_t found = pes_find_stream_id(from_sequence, eod - skipped, kPictureHeader);
    if (found < 0) {
        return false;
    }
    const auto picture = static_cast<size_t>(found);
    return picture + 7 < eod - skipped && ((mv::byte_at(from_sequence, picture + 5) >> 3) & 7) == 1;
}

// Whether a packet begins a video packet and is marked as an entry point, or holds the start of an I picture.
inline bool has_iframe(const uint8_t* b, Bytes rest)
{
    if (ts_payload_start(b) == 0) {
        return false;
    }
    const Bytes payload = ts_get_payload(b, rest);
    if (!is_pes_video(payload)) {
        return false;
    }
    const size_t before = rest.size() - payload.size();
    const size_t eod = before < TS_MIN_PKTSIZE ? TS_MIN_PKTSIZE - before : 0;
    return ts_has_iframe(b) || begins_with_intra(payload, eod);
}

// A mask of the four header bytes, for a word loaded as they stand in memory.
constexpr uint32_t header_mask(uint8_t second, uint8_t fourth)
{
    return std::bit_cast<uint32_t>(std::array<uint8_t, 4>{0, second, 0, fourth});
}

enum Request : unsigned { kPat = 1, kPcr = 2, kFrame = 4 };

unsigned requests(const struct sseg_ctx& sseg)
{
    return (sseg.pat_idx != 0 ? kPat : 0U) | (sseg.pcr_idx != 0 ? kPcr : 0U) |
           (sseg.iframe_idx != 0 ? kFrame : 0U);
}

// The bits without which a packet cannot answer any open request: a table and a picture begin at the start of
// a payload, a clock stands in an adaptation field.
uint32_t needed_bits(unsigned open)
{
    return ((open & (kPat | kFrame)) != 0 ? header_mask(0x40, 0) : 0) |
           ((open & kPcr) != 0 ? header_mask(0, 0x20) : 0);
}

uint32_t header_at(Bytes bytes, size_t pos)
{
    uint32_t word = 0;
    memcpy(&word, bytes.data() + pos, sizeof(word));
    return word;
}

// A packet of a walk: where it begins, and its number, counted from 1.
struct Place {
    size_t pos;
    uint32_t number;
};

// The next packet from there on that has one of the bits, or whose header is cut by the end; or the end.
Place next_candidate(Bytes bytes, Place at, size_t size, uint32_t bits)
{
    // Where there are many, four packets a step: their loads do not wait for each other's branch.
    const size_t step = size >= sizeof(uint32_t) && size <= bytes.size() / 16 ? 4 * size : bytes.size();
    while (bytes.size() - at.pos > step) {
        const uint32_t seen = header_at(bytes, at.pos) | header_at(bytes, at.pos + size) |
                              header_at(bytes, at.pos + 2 * size) | header_at(bytes, at.pos + 3 * size);
        if ((seen & bits) != 0) {
            break;
        }
        at = {at.pos + step, at.number + 4};
    }
    while (bytes.size() - at.pos >= sizeof(uint32_t) && (header_at(bytes, at.pos) & bits) == 0) {
        if (bytes.size() - at.pos <= size) {
            return {bytes.size(), at.number};
        }
        at = {at.pos + size, at.number + 1};
    }
    return at;
}

// Puts the packet at the start of rest, whose head is b, to the open requests. Returns those that stay open.
// In place, since a call would cost a datagram's search a tenth of its time.
__attribute__((always_inline)) inline unsigned answer(const uint8_t* b, Bytes rest, uint32_t number,
                                                      unsigned open, struct sseg_ctx* sseg)
{
    if ((open & kPat) != 0 && ts_has_pat(b)) {
        sseg->pat_idx = number;
        open &= ~kPat;
    }
    if ((open & kPcr) != 0 && ts_has_pcr(b)) {
        sseg->pcr_idx = number;
        sseg->pcr = ts_get_pcr(b);
        open &= ~kPcr;
    }
    if ((open & kFrame) != 0 && has_iframe(b, rest)) {
        sseg->iframe_idx = number;
        open &= ~kFrame;
    }
    return open;
}

// The same for a packet whose head the end of the buffer may cut. Apart: it needs room for a copy, and
// happens once a buffer.
__attribute__((noinline)) unsigned answer_at_end(Bytes rest, uint32_t number, unsigned open,
                                                 struct sseg_ctx* sseg)
{
    const PacketHead packet(rest);
    return answer(packet.get(), rest, number, open, sseg);
}

// Looks for what is asked in packets of that size.
void find_marks(Bytes bytes, size_t size, unsigned open, struct sseg_ctx* sseg)
{
    for (Place at = {0, 1}; at.pos < bytes.size(); at = {at.pos + size, at.number + 1}) {
        at = next_candidate(bytes, at, size, needed_bits(open));
        if (at.pos >= bytes.size()) {
            return;
        }
        const Bytes rest = bytes.subspan(at.pos);
        open = rest.size() >= PacketHead::kSize ? answer(rest.data(), rest, at.number, open, sseg)
                                                : answer_at_end(rest, at.number, open, sseg);
        if (open == 0 || rest.size() <= size) {
            return;
        }
    }
}

// Apart and cold: a probe that says nothing, as nearly all do, keeps its registers.
__attribute__((noinline, cold)) void log_marks(const char* caller, Bytes bytes, size_t size,
                                               const struct sseg_ctx& found)
{
    const auto count = static_cast<unsigned long>(bytes.size() / size);
    const auto* buf = static_cast<const void*>(bytes.data());
    const auto len = static_cast<unsigned long>(bytes.size());
    if (found.iframe_idx != 0) {
        log_dbg("%s: i-Frame at pkt[%u]/%lu buf=%p, len=%lu\n", caller, found.iframe_idx - 1, count, buf,
                len);
    }
    if (found.pat_idx != 0) {
        log_dbg("%s: PAT at pkt[%u]/%lu buf=%p, len=%lu\n", caller, found.pat_idx - 1, count, buf, len);
    }
    if (found.pcr_idx != 0) {
        log_dbg("%s: PCR=%lu at pkt[%u]/%lu buf=%p, len=%lu\n", caller, static_cast<unsigned long>(found.pcr),
                found.pcr_idx - 1, count, buf, len);
    }
}

// A type as text for the log: four characters that need not end in a zero.
struct TypeText {
    explicit TypeText(int32_t type) { memcpy(text, &type, sizeof(type)); }

    char text[sizeof(int32_t) + 1] = {};
};

// The lines that show a type stand apart, so that a probe that says nothing needs no room for the text.
__attribute__((noinline, cold)) void say_switch(const char* caller, int32_t from, int32_t to)
{
    log_warn("%s: stream type switch: [%s]->[%s]\n", caller, TypeText(from).text, TypeText(to).text);
}

__attribute__((noinline, cold)) void say_unsupported(const char* caller, int32_t type)
{
    log_warn("%s: no processing for [%s] stream supported\n", caller, TypeText(type).text);
}

__attribute__((noinline, cold)) void say_type(const char* caller, int32_t type, size_t size, size_t buflen)
{
    log_dbg("%s: %s len=%lu, count=%lu\n", caller, TypeText(type).text, static_cast<unsigned long>(size),
            static_cast<unsigned long>(size != 0 ? buflen / size : 1));
}

void store(size_t* where, size_t value)
{
    if (where != nullptr) {
        *where = value;
    }
}

struct Kind {
    int32_t type;
    size_t size; // of a packet
};

// Probes a segment of which type or size is not known. Apart: a stream is probed at its start, and known from
// then on. By value: a size whose address is given away costs each probe a guard on the stack.
__attribute__((noinline)) Kind probe_type(const uint8_t* buf, size_t buflen, size_t* plen, size_t* pcount)
{
    const ssize_t found = ts_probe(buf, buflen, true);
    if (found <= 1) {
        return {STY_RAW.num, buflen};
    }
    const auto size = static_cast<size_t>(found);
    ASSERT(buflen % size == 0);
    if (pcount != nullptr) {
        *pcount = buflen / size;
        ASSERT(*pcount != 0);
    }
    store(plen, size);
    return {STY_MPEGTS.num, size};
}

// Whether inlen bytes are an RTP packet, with zeros behind their end where a header would be longer.
bool is_rtp_segment(const uint8_t* buf, size_t inlen)
{
    if (inlen >= RTP_XTHDRLEN) {
        return is_rtp_pkt(buf);
    }
    uint8_t padded[RTP_XTHDRLEN] = {};
    if (inlen > 0) {
        memcpy(padded, buf, inlen);
    }
    return is_rtp_pkt(padded);
}

void store_type(int32_t* where, const union n32_tag& type)
{
    if (where != nullptr) {
        *where = type.num;
    }
}

} // namespace

int32_t probe_segment(const uint8_t* buf, size_t buflen, int32_t stype_id, size_t* plen, size_t* pcount,
                      struct sseg_ctx* sseg)
{
    size_t size = plen != nullptr ? *plen : 0;
    log_dbg("%s: START buffer len=%lu, pkt_len=%ld\n", __func__, static_cast<unsigned long>(buflen),
            static_cast<long>(size));
    int32_t type = stype_id;
    // Kept: with both known nothing is probed and nothing written, whatever the bytes are.
    if (stype_id == 0 || size == 0) {
        const Kind kind = probe_type(buf, buflen, plen, pcount);
        type = kind.type;
        size = kind.size;
    }
    if (type == STY_RAW.num) {
        size = buflen;
        store(plen, buflen);
        store(pcount, 1);
    }
    if (stype_id > 0 && stype_id != type && type != STY_MPEGTS.num) {
        say_switch(__func__, stype_id, type);
    }
    if (loglevel_is(DEBUG_level)) {
        say_type(__func__, type, size, buflen);
    }
    const unsigned open = sseg != nullptr ? requests(*sseg) : 0;
    if (open == 0) {
        return type;
    }
    // Results stand where the requests stood: 0 is not found, and a packet counts from 1.
    sseg->pat_idx = sseg->pcr_idx = sseg->iframe_idx = 0;
    if (type != STY_MPEGTS.num) {
        say_unsupported(__func__, type);
        return type;
    }
    find_marks({buf, buflen}, size, open, sseg);
    if (loglevel_is(DEBUG_level)) {
        log_marks(__func__, {buf, buflen}, size, *sseg);
    }
    return type;
}

int xtract_ts_payload(void* buf, size_t inlen, ssize_t* outlen, int32_t* stype, uint32_t hints)
{
    auto* bytes = static_cast<uint8_t*>(buf);
    if (inlen > 0 && ts_has_sync(bytes)) {
        store_type(stype, STY_MPEGTS);
        return 0;
    }
    if ((hints & XF_NO_RTP) != 0 || !is_rtp_segment(bytes, inlen)) {
        store_type(stype, STY_RAW);
        return 0;
    }
    const auto length = static_cast<ssize_t>(inlen);
    const ssize_t header = rtp_header_len(bytes, inlen);
    ASSERT(header == RTP_HDR_SIZE);
    const auto footer = static_cast<ssize_t>(rtp_footer_len(bytes, inlen));
    // Kept: strictly greater, so that a single transport packet is refused; and signed, so that a segment
    // that is too short for one is refused here as well.
    if (footer < 0 || length - header - TS_MIN_PKTSIZE <= footer) {
        log_err("%s: invalid RTP footer length: %ld\n", __func__, static_cast<long>(footer));
        return -1;
    }
    const ssize_t payload = length - header - footer;
    // Stands for the day on which the test above is loosened: behind it there is always enough.
    if (payload < TS_MIN_PKTSIZE) {
        log_err("%s: not enough payload (for TS) inside RTP packet: %ld bytes\n", __func__,
                static_cast<long>(payload));
        return -1;
    }
    ASSERT(payload + header <= length);
    memmove(bytes, bytes + header, static_cast<size_t>(payload));
    store_type(stype, STY_RTP);
    *outlen = payload;
    return 0;
}
