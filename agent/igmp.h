// IGMP as it stands on the wire (RFC 1112, RFC 2236, RFC 3376): message header, records, and their types.
#ifndef ZENT_IGMP_H
#define ZENT_IGMP_H

#include <cstdint>

enum {
    IGMP_QRY = 17,    // membership query, any version
    IGMP1_RPT = 18,   // version 1 membership report
    IGMP2_RPT = 22,   // version 2 membership report
    IGMP2_LEAVE = 23, // version 2 leave group
    IGMP3_RPT = 34    // version 3 membership report
};

// Types of the records of a version 3 report (RFC 3376 section 4.2.12).
enum {
    IGMP3_MODE_IS_INCLUDE = 1,
    IGMP3_MODE_IS_EXCLUDE = 2,
    IGMP3_CHANGE_TO_INCLUDE = 3,
    IGMP3_CHANGE_TO_EXCLUDE = 4,
    IGMP3_ALLOW_NEW_SOURCES = 5,
    IGMP3_BLOCK_OLD_SOURCES = 6
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

// What is read of one record of a version 3 report; its sources and auxiliary data are skipped.
struct igmp3_record {
    uint8_t type;
    unsigned sources; // how many
    int32_t group;    // network byte order
};

// packet.cpp: name of a message type, "??" for those the agent does not know, IGMPv3 reports among them.
const char* igmp_type_str(uint16_t type);

#endif
