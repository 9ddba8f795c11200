// IGMP as it stands on the wire (RFC 1112, RFC 2236): the message header and its types.
#ifndef ZENT_IGMP_H
#define ZENT_IGMP_H

#include <cstdint>

enum {
    IGMP_QRY = 17,   // membership query, any version
    IGMP1_RPT = 18,  // version 1 membership report
    IGMP2_RPT = 22,  // version 2 membership report
    IGMP2_LEAVE = 23 // version 2 leave group
};

#define is_report(t) (IGMP1_RPT == (t) || IGMP2_RPT == (t))
#define is_leave(t) (IGMP2_LEAVE == (t))

// The header that follows the IP header; fields in network byte order.
struct igmp_header {
    uint8_t type;
    uint8_t code;
    uint16_t csum;
    int32_t group;
};

static_assert(sizeof(igmp_header) == 8);

// packet.cpp: name of a message type, "??" for those the agent does not know, IGMPv3 reports among them.
const char* igmp_type_str(uint16_t type);

#endif
