/*
 * util.h: a process's own affairs: becoming a daemon, changing user, signal handlers and the flags they set,
 * pid files under a lock, limits, the run-time directory, small path and file helpers.
 *
 * For the one main thread, mostly at start-up; only on_sighup, on_sigusr1 and on_sigquit run in signal
 * context. No state of its own.
 */
#ifndef MORVANE_UTIL_H
#define MORVANE_UTIL_H

#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "log.h"
#include "mvtypes.h"

MV_BEGIN_DECLS

/* g_quit, g_hup, g_usr1, g_goodbye (and g_sigctx of log.h): set by the handlers below. The library's loops
 * end when g_quit is set. The application may define them; where it does not, the library has its own. */
extern volatile sig_atomic_t g_quit;
extern volatile sig_atomic_t g_hup;
extern volatile sig_atomic_t g_usr1;
extern volatile sig_atomic_t g_goodbye;

/* CPFX_HUSH: flag of create_pidfile_extra: no line about success or failure as a whole, a short one about the
 * lock. */
enum { CPFX_HUSH = 1 };

/* MEM_LIMIT: the resource that memory limits set. */
#define MEM_LIMIT RLIMIT_AS

/*
 * daemonize: two forks with a new session between them, "/" as working directory, umask 0, descriptors 0 and
 * 1 closed and not reopened; stderr stays open, and takes over g_log where that went to a descriptor of 2 or
 * below. The parents end by exit(0). 0 in the daemon; -1 on a failure, with a line unless a fork failed.
 */
int daemonize(void);

/* run_as_user: looks the user up (getpwnam) and becomes him; a failed look-up logs a line. run_as_user_id:
 * setgid, then setuid; logs nothing. Supplementary groups stay. 0 or -1. */
int run_as_user(const char* user);
int run_as_user_id(uid_t uid, gid_t gid);

/* goto_runtime_dir: changes to directory saved; where that is NULL, or refused with EPERM and no other error,
 * to the effective user's home. 0, or -1 with a line. */
int goto_runtime_dir(const char* saved);

/* set_nice: adds niceval to the nice value by nice(3) and returns its result, the new nice value. A result
 * other than 0 is logged as an error, although it need not be one, and 0 as success. errno is kept. */
int set_nice(int niceval);

/* pin2cpu: binds the process to one CPU, counted from 0; a number from 1024 on, or below 0, gives an empty
 * set, which the system refuses. Result and errno of sched_setaffinity(2). */
int pin2cpu(int cpunum);

/* handle_quit_signals: installs a handler for SIGTERM, SIGQUIT and SIGINT, with an empty mask and no flags.
 * 0, or -1 with a line at the first that fails. */
int handle_quit_signals(void (*handle_quit)(int));

/* handle_sig: the same for one signal. */
int handle_sig(int signum, void (*handler)(int));

/* ignore_sigpipe: a write to a closed peer gives EPIPE and no signal any more. 0, or -1 with a line. */
int ignore_sigpipe(void);

/* on_sighup, on_sigusr1, on_sigquit: handlers to install: set g_hup, g_usr1 or g_quit and log the signal's
 * number at NORM_level; on_sigquit sets g_goodbye too, for SIGTERM and SIGINT. g_sigctx is set meanwhile,
 * errno is kept. The first two lines lack their end: the next line continues them. */
void on_sighup(int signo);
void on_sigusr1(int signo);
void on_sigquit(int signo);

/* reset_getopt_state: getopt(3) starts anew with the next call. */
void reset_getopt_state(void);

/*
 * create_pidfile_extra: creates fpath (mode 0644) or opens it, takes a write lock on all of it and, only
 * then, replaces its content by pid in decimal, without a line end. The inode number goes to *inode if that
 * is given. On success the descriptor stays open to the end of the process: the lock lives in it. 0; other
 * than 0 with a line on a failure, such as the lock of another instance. flags: CPFX_HUSH. REQUIRES: fpath;
 * pid above 0.
 */
int create_pidfile_extra(const char* fpath, pid_t pid, ino_t* inode, uint32_t flags);
#define create_pidfile(fpath, pid) create_pidfile_extra((fpath), (pid), NULL, 0)

/* mk_pidfile_name: composes "dir/app-strid.pid" (numid below 0), "dir/app-stridNUMID.pid", or
 * "dir/app-NUMID.pid" (strid NULL). buf; NULL with a line if dir is not writable or the name does not fit. */
char* mk_pidfile_name(const char* dir, const char* app, const char* strid, long int numid, char* buf,
                      size_t buflen);

/* set_unlimited_core: makes the process dump core without a limit, and dumpable where it was not. The limits
 * as they were go to *old if that is given. 0, or -1 with a line. */
int set_unlimited_core(struct rlimit* old);

/* set_vmem_limit, set_rss_limit: soft limit in bytes on the address space: both set MEM_LIMIT. The hard limit
 * stays. 0, or -1 with a line. */
int set_vmem_limit(unsigned long new_lim);
int set_rss_limit(unsigned long new_lim);

/* set_mem_limits: set_rss_limit of rss if that is not 0; otherwise set_vmem_limit of vmem if that is not 0. 0
 * or -1. */
int set_mem_limits(unsigned long rss, unsigned long vmem);

/* get_base: the text behind the last "/" of path, or the whole path. Points into path. */
const char* get_base(const char* path);

/* replace_dir: the base name of path under new_dir (NULL or empty: the base name alone). buf; NULL with a
 * line if it does not fit. */
char* replace_dir(const char* path, const char* new_dir, char* buf, size_t buflen);

/* get_stat_mode: st_mode of a descriptor. A failure of fstat(2) is logged and ends the process by abort(). */
void get_stat_mode(int fd, mode_t* st_mode);

/* fmode_str: the file type of a mode: "FILE", "SOCK", "DIR", "CHR", "BLK", "FIFO", "LINK", or "{???}".
 * Static. */
const char* fmode_str(mode_t m);

/* fopen_any: opens base in the first of ndirs directories (a NULL entry ends them) where fopen(3) succeeds;
 * path gets the path that opened, or an empty text. NULL with errno on a failure; E2BIG when a path does not
 * fit, and no further directory is tried. */
FILE* fopen_any(const char* base, const char* mode, size_t ndirs, const char** dirs, char* path,
                size_t pathlen);

/* pick_first_file: the first of count paths that exists, or NULL. */
const char* pick_first_file(const char** path, size_t count);

/* redirect_output: opens a path, which must exist, for writing and makes it stdout and stderr. 0; -1 if it
 * cannot be opened, -2 or -3 if the first or second dup2 fails; with errno and a line. */
int redirect_output(const char* dst_path);

/* read_file_buf: reads a whole file of at most buflen bytes by one read(2); no terminator is added. The
 * file's size; -1 on a failure or a short read; -7 if the buffer is too small; with a line each, but for a
 * file whose size cannot be asked. */
ssize_t read_file_buf(const char* fpath, char* buf, size_t buflen);

/* file_to_dest: sends a file of 1 to 1400 bytes as one UDP datagram to addr (host or address) and port
 * (decimal). 0, or -1 on any failure. May block while the name is looked up. */
int file_to_dest(const char* addr, const char* port, const char* fpath);

/* tag_index: position of name in a list ended by NULL, ignoring case; -1 if it is not there. */
off_t tag_index(const char* name, const char** tags);

/* cpy_till: copies s up to the first character of delim, at most buflen - 1 characters, and terminates it;
 * nothing at all for a buflen of 0. Returns buf. */
const char* cpy_till(const char* s, const char* delim, char* buf, size_t buflen);

/* close_pipe: closes both descriptors of a pipe that are 0 or above, and stops at the first failure, whose
 * result it returns, with a line. 0 otherwise. The numbers in pipefd stay. */
int close_pipe(int* pipefd);

MV_END_DECLS

#endif
