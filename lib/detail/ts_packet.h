// What the probes of transport streams share: the head of a packet that may be cut by the end of the buffer.
#ifndef MORVANE_DETAIL_TS_PACKET_H
#define MORVANE_DETAIL_TS_PACKET_H

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

#include "bytes.h"
#include "mpegts.h"

namespace mv {

// The first bytes of a packet, as far as the accessors of mpegts.h reach; zeros follow the end of the buffer.
class PacketHead {
  public:
    explicit PacketHead(Bytes rest)
    {
        if (!rest.empty()) {
            memcpy(bytes_.data(), rest.data(), std::min(rest.size(), bytes_.size()));
        }
    }

    const uint8_t* get() const { return bytes_.data(); }

  private:
    std::array<uint8_t, 12> bytes_{};
};

inline bool ts_has_pcr(const uint8_t* b)
{
    return ts_adaptation(b) >= 2 && ts_adapt_len(b) != 0 && ts_adapt_pcr(b) != 0;
}

} // namespace mv

#endif
