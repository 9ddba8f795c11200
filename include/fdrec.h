/*
 * fdrec.h: records of open descriptors: one descriptor with all that hangs on it, released by one call.
 *
 * A record owns its descriptor, tag, socket specification, multicast interface, mapped area and datagram
 * index: whoever sets one of these hands it over. The links prev and next belong to the list that the record
 * is in. open_uri_src() and open_uri_dst() of webops.h open a URL into a new record. State: none. Everything
 * is logged in the slot MLL_COMMON.
 */
#ifndef MORVANE_FDREC_H
#define MORVANE_FDREC_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#include "mvtypes.h"

MV_BEGIN_DECLS

struct dgram_idx;
struct ifc_info;
struct socket_spec;

/* FDR_PATH_MAX: bytes of a record's path. */
enum { FDR_PATH_MAX = 384 };

/* fdrec: an open descriptor. The fields marked "user" are for the record's holder: no call here reads them.
 */
struct fdrec {
    char type[4];       /* user: tag of the kind of record */
    struct fdrec* prev; /* user: links of a list */
    struct fdrec* next;
    char* dbg_tag;               /* owned: name in the log; NULL until it is asked for */
    int fd;                      /* owned: the descriptor; -1: none */
    mode_t mode;                 /* type and permissions of the descriptor, as st_mode */
    char path[FDR_PATH_MAX];     /* path of the file or of the URL; beginning with "/shm.", the name of a
                                    shared memory object that goes with the record */
    off_t offset;                /* user: position in the stream, in bytes */
    struct timespec first_io_tm; /* user: times of the first and the latest I/O */
    struct timespec last_io_tm;
    int wd;                    /* user: inotify watch; -1: none */
    ssize_t nlocks;            /* user: how many hold the record */
    unsigned long seqnum;      /* user: sequence number */
    struct socket_spec* sspec; /* owned: of a socket (netops.h), malloc memory; NULL for a file */
    struct ifc_info* mifc;     /* owned: of a multicast socket (netops.h), malloc memory */
    void* mmbuf;               /* owned: mapped area; NULL or MAP_FAILED: none */
    size_t mmbuf_size;         /* its bytes */
    struct dgram_idx* dgram;   /* owned: index of the stream (dgram.h) */
    union n64_tag trk_tag;     /* user: tracking tag */
};

/* alloc_fdrec: a new record, all zero but for fd and wd, which are -1; the caller releases it with
 * free_fdrec(). NULL without memory (logged). */
struct fdrec* alloc_fdrec(void);

/* init_fdrec: sets fd and wd to -1 and nothing else. */
void init_fdrec(struct fdrec* r);

/*
 * free_fdrec: unmaps, closes, unlinks a shared memory name, and releases everything owned and the record.
 * What fails on the way is logged and passed over. Multicast groups are left with the close; a watch stays.
 * REQUIRES: r.
 */
void free_fdrec(struct fdrec* r);

/* get_fdrec_tag: the record's name for the log, made from its address, kind and descriptor when it is first
 * asked for, and kept from then on. Owned by the record. Never NULL: without memory the process ends by
 * abort(). */
const char* get_fdrec_tag(struct fdrec* r);

/* set_fdrec_tag: names the record by a copy of tag; NULL takes its name away. 0, or -1 without memory
 * (logged), and the record then has none. */
int set_fdrec_tag(struct fdrec* r, const char* tag);

MV_END_DECLS

#endif
