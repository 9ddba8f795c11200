// Transport packets made by hand, for tests that need one field at one place.
#ifndef TESTS_SUPPORT_TS_PACKETS_H
#define TESTS_SUPPORT_TS_PACKETS_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "text.h"

namespace support {

using Buffer = std::vector<uint8_t>; // its heap block is as long as it is: one byte more is a finding

// A packet of 188 bytes that begins with the bytes given; 0xff follows.
inline Buffer packet(std::initializer_list<uint8_t> head)
{
    Buffer result(188, 0xff);
    std::copy(head.begin(), head.end(), result.begin());
    return result;
}

// Payload alone, on PID 0x100, nothing that a probe looks for.
inline Buffer plain_packet()
{
    return packet({0x47, 0x01, 0x00, 0x10});
}

// A programme association table: one programme, number 1, map on PID 0x1000.
inline Buffer pat_packet()
{
    return packet({0x47, 0x40, 0x00, 0x10, 0x00, 0x00, 0xb0, 0x0d, 0x00, 0x01, 0xc1,
                   0x00, 0x00, 0x00, 0x01, 0xf0, 0x00, 0x2a, 0xb1, 0x04, 0xb2});
}

// An adaptation field alone, with a clock value.
inline Buffer pcr_packet(uint64_t base, unsigned extension = 0)
{
    return packet({0x47, 0x01, 0x00, 0x20, 183, 0x10, static_cast<uint8_t>(base >> 25),
                   static_cast<uint8_t>(base >> 17), static_cast<uint8_t>(base >> 9),
                   static_cast<uint8_t>(base >> 1), static_cast<uint8_t>(base << 7 | 0x7e | extension >> 8),
                   static_cast<uint8_t>(extension)});
}

// A packet marked as an entry point: random access and clock, and the start of a video packet.
inline Buffer entry_packet(uint64_t base)
{
    Buffer result = pcr_packet(base);
    const uint8_t head[] = {0x47, 0x41, 0x00, 0x30, 7, 0x50};
    const uint8_t video[] = {0x00, 0x00, 0x01, 0xe0, 0x00, 0x00, 0x80};
    std::copy(std::begin(head), std::end(head), result.begin());
    std::copy(std::begin(video), std::end(video), result.begin() + 12);
    return result;
}

// An MPEG-2 picture of that coding type behind a sequence header, without an adaptation field.
inline Buffer mpeg2_packet(unsigned type)
{
    return packet({0x47, 0x41, 0x00, 0x10, 0x00, 0x00,
                   0x01, 0xe0, 0x00, 0x00, 0x80, 0x00,
                   0x00, // PES
                   0x00, 0x00, 0x01, 0xb3, 0x0a, 0x00,
                   0x78, 0x13, // sequence
                   0x00, 0x00, 0x01, 0x00, 0x00, static_cast<uint8_t>(type << 3),
                   0x00, 0x00}); // picture
}

// Packets one behind the other, size bytes apart, 0xee between them.
inline Buffer join(std::initializer_list<Buffer> packets, size_t size = 188)
{
    Buffer result;
    for (const Buffer& one : packets) {
        result.insert(result.end(), one.begin(), one.end());
        result.resize(result.size() + size - one.size(), 0xee);
    }
    result.shrink_to_fit();
    return result;
}

inline Buffer repeat(const Buffer& one, size_t count, size_t size = 188)
{
    Buffer result;
    for (size_t i = 0; i < count; ++i) {
        const Buffer next = join({one}, size);
        result.insert(result.end(), next.begin(), next.end());
    }
    result.shrink_to_fit();
    return result;
}

inline Buffer part(const Buffer& bytes, size_t from, size_t count)
{
    return {bytes.begin() + static_cast<ptrdiff_t>(from),
            bytes.begin() + static_cast<ptrdiff_t>(from + count)};
}

} // namespace support

#endif
