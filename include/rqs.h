/*
 * rqs.h: the event loop of one thread: descriptors that epoll watches (level-triggered), no-poll events,
 * which are called on every cycle, and file watches; and the loop's own notion of now.
 *
 * Life: rqs_init, any registrations, rqs_event_loop (which may be left and entered again), rqs_destroy.
 *
 * A cycle, stage by stage (rqs_ctx tells the stage to a callback):
 *
 *   ELOOP_START   is the loop dormant: no descriptors and no no-poll events? (is_dormant has the last word);
 *                 with quit_on_zero_fds the loop ends here
 *                 update_tmout, wait, time_out; left out while there are no-poll events and no descriptors
 *                 the queue of removals is emptied
 *                 no-poll events, in the order of their slots: read or write
 *                 purge: queued removals take effect
 *   ELOOP_EV      events of the wait, in the order in which the kernel gave them: error, read, write,
 *                 on_file_modified; a failed one does not keep the rest from its turn
 *   ELOOP_POSTEV  post_process
 *                 purge: queued removals take effect
 *                 if a descriptor's callback failed, the loop ends here
 *                 on_idle
 *   ELOOP_ENDPP   post_process
 *
 * g_quit (util.h) ends the loop at the top of a cycle, or at once where it interrupts the wait. A signal that
 * comes between the look at g_quit and the wait interrupts nothing, and the loop then waits on: a program
 * without a limit of the wait uses sigsafe.h, whose handler wakes the loop for certain.
 *
 * Timers: update_tmout says how long the next wait may be, time_out is called when it has ended, and rqs_now
 * tells when that was. tmr.h keeps any number of timers behind these two.
 *
 * What a callback may do: register, change and remove descriptors and file watches, add no-poll events, and
 * queue the removal of no-poll events (rqs_pprm_nopoll). A removal that is queued by a no-poll callback, a
 * descriptor's callback or the first post_process takes effect at the next purge; one that is queued by
 * on_idle, the second post_process, update_tmout, time_out, or before the loop runs, is lost. rqs_rm_nopoll
 * removes at once.
 *
 * Events of one wait are all dispatched, also those of a descriptor that an earlier callback of the same
 * batch has removed and closed. Whoever frees a record that udata points to must therefore put that off until
 * the batch is over: mark it dead, let read, write and error ignore dead records, and free it in
 * post_process.
 *
 * The udata of a polled reader points to a record that begins with a union n32_tag, four bytes that tell the
 * daemon's kinds of records apart; the tag "ino" is the loop's own. The four bytes are read before each call
 * of read. Writers owe no tag.
 *
 * State: one loop a process, in static records. One thread; a signal handler may only set g_quit.
 */
#ifndef MORVANE_RQS_H
#define MORVANE_RQS_H

#include <stdbool.h>
#include <stddef.h>
#include <sys/types.h>
#include <time.h>

#include "mvtypes.h"

MV_BEGIN_DECLS

/* Masks of a reader and of a writer: EPOLLIN and EPOLLOUT. */
enum { RQS_EVENT_READ = 1, RQS_EVENT_WRITE = 4 };

/* Directions, for rqs_mod. */
enum { RQS_READ = 1, RQS_WRITE = 2 };

/* Bits that tell a callback what happened. The first two make fd_err; the rest are flags of on_file_modified.
 */
enum {
    RQS_SOCKERR = 1,       /* EPOLLERR */
    RQS_SOCKHUP = 2,       /* EPOLLHUP or EPOLLRDHUP */
    RQS_RMV = 4,           /* the file is no longer at its path: moved or deleted */
    RQS_FMOVED = 65536,    /* moved */
    RQS_FDELETED = 131072, /* deleted */
    RQS_ATTR = 262144      /* attributes changed: mode, owner, times, links */
};

/* What rqs_fd_count counts. */
enum { GET_TOTALFDS = 0, GET_POLLFDS = 1, GET_NOPOLLFDS = 2 };

/* What rqs_ctx gives. */
enum { GET_LOOP_STAGE = 1 };

/* Stages of a cycle. */
enum { ELOOP_START = 0, ELOOP_EV = 1, ELOOP_POSTEV = 2, ELOOP_ENDPP = 3 };

/*
 * rqs_callbacks: the daemon's functions.
 *
 * read, write and error get (fd, fd_err, udata, NULL). For a no-poll event fd is the descriptor and fd_err is
 * 0. For a polled descriptor fd and udata are two views of one word: where udata was given, fd is the low
 * half of that pointer, and not the descriptor; where it was NULL, the word is the descriptor. Take what is
 * needed from the record that udata points to. A non-zero result of a polled descriptor counts as a failed
 * event; of no-poll events, only the result of the last one in a cycle counts, and ends the loop if it is not
 * zero.
 */
struct rqs_callbacks {
    /* May write the limit of the next wait into *tmout; a negative field is no limit. *tmout keeps its value
     * between calls: what is not written holds on. Called on entry to the loop and before each wait. May be
     * NULL. */
    void (*update_tmout)(struct timespec* tmout);
    /* Called at the end of a cycle without a failed event, whether or not anything happened. Non-zero ends
     * the loop. May be NULL. */
    int (*on_idle)(void);
    /* A descriptor is readable (error and hang-up, if any, come along in fd_err), or a no-poll reader's turn.
     */
    int (*read)(int fd, int fd_err, void* udata, void* aux);
    /* A descriptor is writable and not readable, or a no-poll writer's turn. */
    int (*write)(int fd, int fd_err, void* udata, void* aux);
    /* Error or hang-up of a descriptor that is neither readable nor writable. */
    int (*error)(int fd, int fd_err, void* udata, void* aux);
    /* Called twice a cycle, see the stages. Non-zero ends the loop. May be NULL. */
    int (*post_process)(void);
    /* A watched file changed: (watch, flags, udata, NULL). The result is ignored. May be NULL. */
    int (*on_file_modified)(int wd, int flags, void* udata, void* aux);
    /* Called after each wait that ended or was interrupted, with events or without. The result is ignored.
     * May be NULL. */
    int (*time_out)(void);
    /* With no descriptors and no no-poll events: whether that is dormant. May be NULL. */
    bool (*is_dormant)(void);
};

/* rqs_config: what rqs_init is given. */
struct rqs_config {
    struct rqs_callbacks cb;
    unsigned int quit_on_zero_fds : 1; /* a dormant loop ends, with result 0 */
};

/*
 * rqs_init: sets the loop up. cfg is copied. 0; -1 with a line at ERR_level if epoll or inotify refuses
 * (rqs_destroy is due all the same); an errno number if the table of file watches cannot be made: then all
 * but file watches works. Exhausted memory for the lists of no-poll events ends the process. REQUIRES: cfg.
 */
int rqs_init(const struct rqs_config* cfg);

/*
 * rqs_event_loop: runs the loop until g_quit, until a callback ends it, or until it is dormant with
 * quit_on_zero_fds. 0 at a clean end; otherwise the result of the callback that ended it, the errno of a
 * failed wait, or the number of failed events of the last cycle: they cannot be told apart. Before the first
 * descriptor was ever registered there is no room for events, and a wait ends the loop with EINVAL (22).
 * Exhausted memory for events or removals ends the process. REQUIRES: rqs_init, and an epoll descriptor that
 * is not 0.
 */
int rqs_event_loop(void);

/* rqs_destroy: ends all file watches and frees what the loop holds. Descriptors and udata stay the caller's.
 */
void rqs_destroy(void);

/*
 * rqs_add_reader, rqs_add_writer: register a descriptor for one direction, with udata (borrowed until it is
 * removed, and see above for the time after). 0, or -1 with errno and a line at ERR_level; a descriptor that
 * is registered already is refused with EEXIST: use rqs_mod for both directions. REQUIRES: rqs_init.
 */
int rqs_add_reader(int fd, void* udata);
int rqs_add_writer(int fd, void* udata);

/* rqs_mod_reader: makes a registered descriptor a reader. Results as rqs_add_reader. */
int rqs_mod_reader(int fd, void* udata);

/* rqs_mod: sets the directions of a registered descriptor, RQS_READ, RQS_WRITE, both or 0 (hang-ups and
 * errors alone). Results as rqs_add_reader. */
int rqs_mod(int fd, void* udata, int read_write);

/* rqs_rm_fd: removes a descriptor; do so before it is closed. The flags are ignored. 0, also after
 * rqs_destroy; -1 with errno and a line at ERR_level. */
int rqs_rm_fd(int fd, bool is_reader, bool is_writer);

/*
 * rqs_add_nopoll_reader, rqs_add_nopoll_writer: add a no-poll event: read or write is called with fd and
 * udata on every cycle. *pindex, if given, gets its number, and -1 when a queued removal takes effect: it
 * must live that long. 0; -1 with a line at ERR_level if memory ran out, with nothing written.
 */
int rqs_add_nopoll_reader(int fd, ssize_t* pindex, void* udata);
int rqs_add_nopoll_writer(int fd, ssize_t* pindex, void* udata);

/* rqs_rm_nopoll: removes a no-poll event at once; the owner's index variable is left alone. 0. A number that
 * is no event's ends the process. */
int rqs_rm_nopoll(ssize_t index);

/* rqs_pprm_nopoll: queues a no-poll event, one that was added with pindex, for removal at the next purge: the
 * form for callbacks. 0. REQUIRES: index not negative. Exhausted memory ends the process. */
int rqs_pprm_nopoll(ssize_t index);

/* rqs_purge_nopoll_rm: applies the queue; the loop does so itself. 0. A queued number that is no event's (it
 * was queued twice) ends the process. */
int rqs_purge_nopoll_rm(void);

/* rqs_fd_count: the number of registered descriptors (that of the file watches included), of no-poll events,
 * or their sum. REQUIRES: one of the GET_ values; another gets a line at ERR_level first. */
size_t rqs_fd_count(int which);

/* rqs_ctx: for GET_LOOP_STAGE the stage, as a number in a pointer; for another type NULL, with a line at
 * ERR_level. aux is not used. */
void* rqs_ctx(int type, void* aux);

/* rqs_now_ref, rqs_now: the time (CLOCK_MONOTONIC) at which the last wait ended, or at which rqs_init ran;
 * zero before that. rqs_now_ref gives its address, which is the same for good. */
const struct timespec* rqs_now_ref(void);
struct timespec rqs_now(void);

/*
 * rqs_add_file_watch: watches a file; on_file_modified gets udata when it is written, closed after writing,
 * moved or deleted, or when its attributes change. The watch's number, or -1 with a line at ERR_level. One
 * watch at a time: a second one is refused, and adding the watched file again ends the first watch silently.
 */
int rqs_add_file_watch(void* udata, const char* filepath);

/* rqs_rm_file_watch: ends a watch. 0, or -1 with a line at ERR_level; the watch of a deleted file is gone
 * already and cannot be ended. */
int rqs_rm_file_watch(int wd);

MV_END_DECLS

#endif
