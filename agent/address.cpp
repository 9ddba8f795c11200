// Addresses as text: what inet_ntoa gives, without its way through printf.
#include <array>
#include <bit>

#include "zent.h"

const char* group_text(int32_t ipv4_addr)
{
    static char text[16];
    const auto octets = std::bit_cast<std::array<uint8_t, 4>>(ipv4_addr);
    char* at = text;
    for (const unsigned octet : octets) {
        if (octet >= 100) {
            *at++ = static_cast<char>('0' + octet / 100);
        }
        if (octet >= 10) {
            *at++ = static_cast<char>('0' + octet / 10 % 10);
        }
        *at++ = static_cast<char>('0' + octet % 10);
        *at++ = '.';
    }
    at[-1] = 0;
    return text;
}
