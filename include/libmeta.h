/*
 * libmeta.h: the library's own identity: its module slots in the table of log levels, and its version tag.
 * A source file that logs names one slot in DECLARE_MLL; files that share a slot share one level.
 */
#ifndef MORVANE_LIBMETA_H
#define MORVANE_LIBMETA_H

#include "mvtypes.h"

MV_BEGIN_DECLS

/* Slots of g_mod_ll (log.h). MLL_TMOUT, MLL_SMBP and MLL_TPUT are reserved: no module of the library uses
 * them. */
enum {
    MLL_COMMON =
        0, /* an application's own files, and log, timeop, netops, wopen, rqs, webops, util, fdrec, uri */
    MLL_TMOUT = 1,
    MLL_SYSWRAP = 2, /* syswrap */
    MLL_BUFD = 3,    /* rtp */
    MLL_FDIO = 4,    /* fdio */
    MLL_SMBP = 5,
    MLL_TPUT = 6,
    MLL_DGRAM = 7 /* dgram, dstream, mpegts */
};

/*
 * lbmvn_info: the library's name, version, checksum and build time, as "libmvn/1.0-2.25 (d15a4342)
 * @1557583422". Made by the first call, kept in a static buffer; "#error#" if it does not fit there.
 */
const char* lbmvn_info(void);

MV_END_DECLS

#endif
