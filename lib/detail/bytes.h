// Bounds-checked reads of big-endian fields from received bytes. A byte beyond the end reads as zero.
#ifndef MORVANE_DETAIL_BYTES_H
#define MORVANE_DETAIL_BYTES_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace mv {

using Bytes = std::span<const uint8_t>;

// The one test of a read's bounds: the wider reads go through it byte by byte and never cast a pointer, so
// that no field need be aligned.
inline uint8_t byte_at(Bytes bytes, size_t offset)
{
    return offset < bytes.size() ? bytes[offset] : uint8_t{0};
}

inline uint16_t u16_at(Bytes bytes, size_t offset)
{
    return static_cast<uint16_t>((byte_at(bytes, offset) << 8) | byte_at(bytes, offset + 1));
}

// The shift is made in 32 bits without a sign: a first byte of 128 or more would leave the range of an int.
inline uint32_t u32_at(Bytes bytes, size_t offset)
{
    return (static_cast<uint32_t>(u16_at(bytes, offset)) << 16) | u16_at(bytes, offset + 2);
}

// The bytes from offset on, empty where offset lies beyond the end.
inline Bytes tail(Bytes bytes, size_t offset)
{
    return offset < bytes.size() ? bytes.subspan(offset) : Bytes{};
}

} // namespace mv

#endif
