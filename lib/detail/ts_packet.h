// What the probes of transport streams share: the head of a packet that may be cut by the end of the buffer.
#ifndef MORVANE_DETAIL_TS_PACKET_H
#define MORVANE_DETAIL_TS_PACKET_H

#include <algorithm>
#include <array>
#include <cstdint>

#include "bytes.h"
#include "mpegts.h"

namespace mv {

// The first bytes of a packet, as far as the accessors of mpegts.h reach: in place, or, of a packet that the
// end of the buffer cuts before that, in a copy that zeros follow.
class PacketHead {
  public:
    static constexpr size_t kSize = 12;

    explicit PacketHead(Bytes rest) : head_(rest.data())
    {
        if (rest.size() < kSize) {
            copy_.fill(0);
            std::copy(rest.begin(), rest.end(), copy_.begin());
            head_ = copy_.data();
        }
    }

    PacketHead(const PacketHead&) = delete;
    PacketHead& operator=(const PacketHead&) = delete;

    const uint8_t* get() const { return head_; }

  private:
    const uint8_t* head_;
    std::array<uint8_t, kSize> copy_;
};

inline bool ts_has_pcr(const uint8_t* b)
{
    return ts_adaptation(b) >= 2 && ts_adapt_len(b) != 0 && ts_adapt_pcr(b) != 0;
}

} // namespace mv

#endif
