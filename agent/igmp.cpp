// Names of the IGMP message types.
#include "igmp.h"

const char* igmp_type_str(uint16_t type)
{
    switch (type) {
    case IGMP_QRY: return "query";
    case IGMP1_RPT: return "v1-report";
    case IGMP2_RPT: return "v2-report";
    case IGMP2_LEAVE: return "leave";
    default: return "??";
    }
}
