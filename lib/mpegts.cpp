// Recognition of transport streams: packet size, first packet, clock references.
#include "mpegts.h"

#include <cerrno>
#include <cstring>

#include "detail/assertions.h"
#include "detail/bytes.h"
#include "detail/ts_packet.h"
#include "log.h"

DECLARE_MLL(MLL_DGRAM);

namespace {

constexpr size_t kPacketSizes[] = {TS_MIN_PKTSIZE, 192, 204, TS_MAX_PKTSIZE};

// Whether each packet that begins in the buffer begins with the sync byte.
bool in_sync(const uint8_t* buf, size_t len, size_t size)
{
    size_t pos = 0;
    // Four packets a step: their loads do not wait for each other's branch.
    while (len - pos > 3 * size) {
        const unsigned other = (buf[pos] ^ MPEG_TS_SYNC) | (buf[pos + size] ^ MPEG_TS_SYNC) |
                               (buf[pos + 2 * size] ^ MPEG_TS_SYNC) | (buf[pos + 3 * size] ^ MPEG_TS_SYNC);
        if (other != 0) {
            return false;
        }
        if (len - pos <= 4 * size) {
            return true;
        }
        pos += 4 * size;
    }
    for (; pos < len; pos += size) {
        if (!ts_has_sync(buf + pos)) {
            return false;
        }
    }
    return true;
}

mv::Bytes as_bytes(const char* buf, size_t len)
{
    return {reinterpret_cast<const uint8_t*>(buf), len};
}

bool read_pcr(mv::Bytes rest, uint64_t* pcr)
{
    const mv::PacketHead packet(rest);
    if (!mv::ts_has_pcr(packet.get())) {
        return false;
    }
    *pcr = ts_get_pcr(packet.get());
    return true;
}

} // namespace

ssize_t ts_probe(const uint8_t* buf, size_t len, bool full_pkts)
{
    if (len == 0 || !ts_has_sync(buf)) {
        return -EINVAL;
    }
    bool accepted = false;
    size_t tried = 0;
    // One after the other in the code, so that the remainder by a size is a multiplication.
#pragma GCC unroll 4
    for (const size_t size : kPacketSizes) {
        if (size > len) {
            return -1;
        }
        if (size == len) {
            return static_cast<ssize_t>(size);
        }
        tried = size;
        accepted = in_sync(buf, len, size) && (!full_pkts || len % size == 0);
        if (accepted) {
            break;
        }
    }
    log_dbg("%s: %s pkt_size[%ld]/%s for buf=%p, len=%ld\n", __func__, accepted ? "in-sync" : "NO-SYNC",
            static_cast<long>(tried), full_pkts ? "F" : "-", static_cast<const void*>(buf),
            static_cast<long>(len));
    return accepted ? static_cast<ssize_t>(tried) : -3;
}

off_t ts_find_head(const uint8_t* buf, size_t len, size_t* pkt_len)
{
    off_t head = -1;
    while (head < TS_MAX_PKTSIZE - 1) {
        const off_t from = head + 1;
        // Kept: the search ends ever earlier, by as many bytes as the head has moved.
        const off_t till = static_cast<off_t>(len) - from;
        const void* sync =
            from < till ? memchr(buf + from, MPEG_TS_SYNC, static_cast<size_t>(till - from)) : nullptr;
        if (sync == nullptr) {
            // A head that is held here was not confirmed, and never would be.
            return -1;
        }
        head = static_cast<const uint8_t*>(sync) - buf;
        const ssize_t size = ts_probe(buf + head, len - static_cast<size_t>(head), false);
        // Kept: without a place for the size no head is good enough.
        if (size > 0 && pkt_len != nullptr) {
            *pkt_len = static_cast<size_t>(size);
            return head;
        }
    }
    // Kept: past the greatest packet size a position is returned though nothing confirmed it.
    return head;
}

uint64_t ts_pcr_delta(uint64_t first, uint64_t last)
{
    const uint64_t wrapped = last + P2_33 - first;
    if (wrapped < MAX_PCR_GAP) {
        return wrapped;
    }
    const uint64_t delta = last - first;
    // Kept: after a clock of 0 every distance is believed, and a wrapped gap of exactly MAX_PCR_GAP is not.
    if (first == 0) {
        return delta;
    }
    if (last < first) {
        log_warn("%s: PCR last=%lu < first=%lu diff=%lu\n", __func__, static_cast<unsigned long>(last),
                 static_cast<unsigned long>(first), static_cast<unsigned long>(delta));
        return 0;
    }
    if (delta > MAX_PCR_GAP) {
        log_warn("%s: PCR gap=%lu exceeds max=%u; last=%lu, first=%lu\n", __func__,
                 static_cast<unsigned long>(delta), static_cast<unsigned>(MAX_PCR_GAP),
                 static_cast<unsigned long>(last), static_cast<unsigned long>(first));
        return 0;
    }
    return delta;
}

int find_last_pcr(const char* buf, size_t len, size_t pkt_len, uint64_t* pcr)
{
    assert(buf && pcr && len >= pkt_len);
    const mv::Bytes bytes = as_bytes(buf, len);
    // Kept: the packet at the very start of the buffer is not looked at.
    for (size_t pos = len - pkt_len; pos > 0; pos -= pkt_len) {
        if (read_pcr(mv::tail(bytes, pos), pcr)) {
            return 0;
        }
        if (pkt_len == 0 || pos < pkt_len) {
            break;
        }
    }
    return -1;
}

int find_first_pcr(const char* buf, size_t len, size_t pkt_len, uint64_t* pcr)
{
    assert(buf && pcr && len >= pkt_len);
    const mv::Bytes bytes = as_bytes(buf, len);
    for (size_t pos = 0; pos < len; pos += pkt_len) {
        if (read_pcr(mv::tail(bytes, pos), pcr)) {
            return 0;
        }
        if (pkt_len == 0) {
            break;
        }
    }
    return -1;
}
