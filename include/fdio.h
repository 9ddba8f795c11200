/*
 * fdio.h: reads and writes that survive signals, waiting for a descriptor, the two ends of a file transfer,
 * passing a descriptor between processes, and the transfer engine: one step of copying between descriptors,
 * or between a descriptor and memory.
 *
 * A retry ends when the application's g_quit is set; errno is then 0. The flag words of this module take the
 * FDIO_ flags. Failed system calls are logged by the checked calls of syswrap.h: with a flag word of 0 the
 * ordinary errors of a stream (EAGAIN, EPIPE, EINTR, ECONNRESET) are not.
 *
 * One thread. State: the transfer buffer, which all transfers share, and the scratch buffer of test_read_fd.
 */
#ifndef MORVANE_FDIO_H
#define MORVANE_FDIO_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "mvtypes.h"

MV_BEGIN_DECLS

/* Flags: the low 16 bits are the caller's options, the bits above are results of transfer(). */
enum {
    FDIO_VERBOSE = 0x1,      /* report every error, also those of normal life on a stream */
    FDIO_TRF_RWEQ = 0x2,     /* a transfer must write what it read: log a line if it did not */
    FDIO_MSYNC = 0x4,        /* reserved: nothing acts on it */
    FDIO_SENDFILE = 0x100,   /* move the data with sendfile(2) */
    FDIO_SENDTO = 0x200,     /* write with sendto(2) to the address in the transfer spec */
    FDIO_UNLINK_DST = 0x400, /* open_dst_file unlinks the file once it is open */
    FDIO_EOF = 0x10000,      /* result: end of stream */
    FDIO_ERR_READ = 0x20000, /* result: the read side failed, or was at its end */
    FDIO_ERR_WRITE = 0x40000 /* result: the write side failed */
};

/* DEFAULT_TRF_BUFSIZE, MIN_TRF_BUFSIZE: sizes of the transfer buffer. */
enum { DEFAULT_TRF_BUFSIZE = 2097152, MIN_TRF_BUFSIZE = 65536 };

/*
 * nread, nwrite: read or write up to count bytes. Only EINTR makes them call again: the first transfer of at
 * least one byte ends the call, also a short one, and calling again for the rest is the caller's business.
 * Bytes moved; 0 at the end of the file (nread) or where the system wrote nothing; -1 with errno, which is 0
 * after an interruption with g_quit set. Any bit in flags makes every error be logged. A count of 0 makes no
 * system call and gives 0.
 */
ssize_t nread(int fd, char* buf, size_t count, u_int32_t flags);
ssize_t nwrite(int fd, const char* buf, size_t count, u_int32_t flags);

/*
 * npread, nsendfile: the same over pread(2) at offset, and over sendfile(2) from *offset on, which the system
 * advances. Unlike the two above they answer a failure with 0 and errno; of flags FDIO_VERBOSE alone counts.
 * bsd_flags is not used. REQUIRES: offset of nsendfile.
 */
ssize_t npread(int fd, char* buf, size_t count, off_t offset, u_int32_t flags);
ssize_t nsendfile(int out_fd, int in_fd, off_t* offset, size_t count, int bsd_flags, u_int32_t flags);

/* poll_on_socket: one poll(2) of tmout milliseconds (-1: no limit) for the events. The events that came, 0
 * after a time-out (with a warning), -1 with errno on a failure, EINTR included. */
short int poll_on_socket(int sockfd, short int events, int tmout);

/* wait_to_read, wait_to_write: wait up to tmout milliseconds (-1: no limit). 0 ready; 1 not ready, which
 * POLLHUP alone is too; -1 failed or in error. */
short int wait_to_read(int sockfd, int tmout);
short int wait_to_write(int sockfd, int tmout);

/* test_read_fd: whether a descriptor delivers within tmout milliseconds. What is read, up to 512 bytes, is
 * gone. 0 yes; 1 after a time-out, -1 on a failure or at the end of the file, with an error line each. */
int test_read_fd(int fd, int tmout);

/* send_fd: sends nbytes of ptr and a copy of descriptor sendfd over a domain socket. Bytes sent; -1 with
 * errno and a line. */
ssize_t send_fd(int dst_fd, void* ptr, size_t nbytes, int sendfd);

/*
 * recv_fd: receives up to nbytes into ptr and one descriptor, which the caller then owns, from a domain
 * socket. Bytes received, with *recvfd -1 where no descriptor came, or more than one (they are closed;
 * FDIO_VERBOSE logs a line). 0 when the peer has closed, -1 with errno on a failure: *recvfd stays as it was,
 * and a line is logged unless it was EAGAIN without FDIO_VERBOSE.
 */
ssize_t recv_fd(int src_fd, void* ptr, size_t nbytes, int* recvfd, uint32_t fdio_flags);

/* open_src_file: opens a file for reading. The descriptor; -1 with errno and a line. */
int open_src_file(const char* fpath);

/* open_dst_file: creates a file (mode 0644) that must not exist and opens it for writing; FDIO_UNLINK_DST
 * unlinks it at once, so that it lives as long as the descriptor. The descriptor; -1 with errno and a line.
 * After a failed unlink the descriptor stays open. */
int open_dst_file(const char* fpath, uint32_t flags);

/* check_can_sendfile: whether sendfile serves between the two ends, by their modes (st_mode) and the
 * destination's SOCK_ type. 0, and FDIO_SENDFILE is set in *flags; 1 the source is no regular file; 2 the
 * destination is no socket; 3 it is no stream socket. */
int check_can_sendfile(mode_t src_mode, mode_t dst_mode, int dst_socktype, u_int32_t* flags);

/*
 * transfer_spec: both ends of a transfer and what lasts between its steps. Made by new_transfer_spec, freed
 * by its owner with free(3). It owns nothing.
 */
struct transfer_spec {
    int in_fd;             /* source */
    int out_fd;            /* destination */
    off_t* offset;         /* position in the source or the block; NULL: the source is read as a stream */
    uint32_t* flags;       /* the caller's flag word; transfer() writes its result bits there */
    void* aux;             /* struct sockaddr of FDIO_SENDTO */
    ssize_t aux_len;       /* its length */
    void* mmem;            /* block of memory that stands for one end, or NULL */
    size_t mmlen;          /* its size */
    unsigned mmem_out : 1; /* 1: the block is the source, out_fd the destination; 0: in_fd the source, the
                              block the destination */
    /* Processing step between read and write, or NULL: gets an address, the count read, and where to put the
     * count that goes on. 0, or an errno number that ends the step. With a block the address is the block at
     * the position; without one it is no address of data at all. */
    int (*inproc)(void*, ssize_t, ssize_t*);
};

/* fdio_init: makes the transfer buffer: -1 for the default size, a positive number for that size (see
 * set_trf_bufsize); any other value does nothing and gives 0. Comes before a transfer between descriptors. */
int fdio_init(ssize_t bufsize);

/* fdio_destroy: frees the transfer buffer. REQUIRES: a buffer that exists has a size. */
void fdio_destroy(void);

/* get_trf_bufsize: size of the transfer buffer, 0 for none. */
size_t get_trf_bufsize(void);

/* set_trf_bufsize: resizes the transfer buffer. 0, also for the size that it has (with a warning); -1 with a
 * line below MIN_TRF_BUFSIZE, or when memory is short: then the buffer is lost, and only its size stays. */
int set_trf_bufsize(size_t newsize);

/* new_transfer_spec: allocates a spec with the six values given and zeros. Never NULL: without memory the
 * process ends. REQUIRES: flags. */
struct transfer_spec* new_transfer_spec(int in_fd, int out_fd, off_t* offset, uint32_t* flags, void* aux,
                                        ssize_t aux_len);

/*
 * transfer: one step, at most one read and one write, of up to count bytes (0: as many as the buffer holds,
 * but none with FDIO_SENDFILE). The bytes moved go to *tbytes, unless tbytes is NULL. Four ways, the first
 * that applies: between descriptor and block (mmem); by sendfile (FDIO_SENDFILE); through the buffer to an
 * address (FDIO_SENDTO); through the buffer.
 *
 * 0, with FDIO_EOF in *flags at the end of the stream; by sendfile any failure counts as that. -1 on a
 * failure, with FDIO_ERR_READ or FDIO_ERR_WRITE and errno; ordinary errors of a stream are not logged unless
 * FDIO_VERBOSE is set, and then EAGAIN, and EPIPE on a write, are logged but count as success.
 *
 * A short write is no failure: the position has moved by what was written, and without an offset the rest is
 * gone. In the block a failed step moves the position back by one; a position outside the block gives a
 * warning and 0 bytes. REQUIRES: the buffer, unless mmem is set; offset with mmem, inproc or FDIO_SENDFILE; a
 * total from inproc that the buffer can hold. A step in memory does not use the buffer, but moves no more
 * than its size: without one a block that is filled sees the end of the stream, and one that is written out
 * ends in an assertion.
 */
int transfer(struct transfer_spec* tsp, size_t count, ssize_t* tbytes);

/* use_sendfile: 1 if FDIO_SENDFILE is set in fdio_flags, else 0. bsd_flags is not used. */
int use_sendfile(u_int32_t fdio_flags, int* bsd_flags);

MV_END_DECLS

#endif
