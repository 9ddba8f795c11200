/* fd_pass: passes an open file from one process to another. The parent opens FILE and hands the descriptor,
 * with a few words about it, over a pair of domain sockets; the child, which never opened it, prints what it
 * holds.
 *
 *   fd_pass FILE */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <morvane/fdio.h>
#include <morvane/log.h>
#include <morvane/syswrap.h>
#include <morvane/util.h>

DECLARE_MLL(MLL_COMMON);

volatile sig_atomic_t g_quit, g_hup, g_usr1, g_sigctx, g_goodbye;

static int give(int channel, const char* path)
{
    char note[256];
    const int fd = open_src_file(path);
    const int length = snprintf(note, sizeof note, "%s, from process %d", path, (int)getpid());
    ssize_t sent = -1;

    if (fd >= 0) {
        sent = send_fd(channel, note, (size_t)length < sizeof note ? (size_t)length + 1 : sizeof note, fd);
        Close(fd); /* the copy that is under way keeps the file open */
    }
    return sent > 0 ? 0 : 1;
}

static int take(int channel)
{
    char note[256] = "";
    char block[4096];
    int fd = -1;
    ssize_t got = recv_fd(channel, note, sizeof note - 1, &fd, FDIO_VERBOSE);

    if (got <= 0 || fd < 0) {
        fprintf(stderr, "fd_pass: no descriptor came\n");
        return 1;
    }
    printf("process %d got %s:\n", (int)getpid(), note);
    while ((got = nread(fd, block, sizeof block, FDIO_VERBOSE)) > 0) {
        fwrite(block, 1, (size_t)got, stdout);
    }
    Close(fd);
    return got == 0 && fflush(stdout) == 0 && !ferror(stdout) ? 0 : 1;
}

int main(int argc, char** argv)
{
    int ends[2];
    int status = 1;
    int rc;
    pid_t child;

    glog_init("fd_pass");
    log_default(&g_log, stderr);
    if (argc != 2) {
        fprintf(stderr, "usage: fd_pass FILE\n");
        return 2;
    }
    if (ignore_sigpipe() != 0) { /* of a child that is gone */
        return 1;
    }
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        perror("fd_pass: socketpair");
        return 1;
    }
    child = Fork();
    if (child == 0) {
        Close(ends[0]);
        return take(ends[1]);
    }
    Close(ends[1]);
    rc = child > 0 ? give(ends[0], argv[1]) : 1;
    Close(ends[0]);
    if (child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status)) {
        rc |= WEXITSTATUS(status);
    }
    return rc;
}
