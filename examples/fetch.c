/* fetch: gets a URL and writes the body to a file or to stdout.
 *
 *   fetch [-o FILE] [-t TIMEOUT_MS] URL
 *
 * Redirects are followed by the library. The request is HTTP/1.0, so that the body comes as it is, without
 * chunks, and its end is the end of the stream. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <morvane/fdio.h>
#include <morvane/log.h>
#include <morvane/util.h>
#include <morvane/webops.h>
#include <morvane/wopen.h>

DECLARE_MLL(MLL_COMMON);

volatile sig_atomic_t g_quit, g_hup, g_usr1, g_sigctx, g_goodbye;

/* What the read of the head took of the body stands in the record, and comes first. */
static long copy_body(int fd, const struct usock_ctx* uc, FILE* out)
{
    char block[16384];
    long total = (long)uc->buflen;
    ssize_t got;

    if (uc->buflen > 0 && fwrite(uc->buf, 1, uc->buflen, out) != uc->buflen) {
        return -1;
    }
    while ((got = nread(fd, block, sizeof block, FDIO_VERBOSE)) > 0) {
        if (fwrite(block, 1, (size_t)got, out) != (size_t)got) {
            return -1;
        }
        total += got;
    }
    return got < 0 ? -1 : total;
}

static int fetch(const char* url, const char* file, int timeout_ms)
{
    struct usock_ctx uc;
    FILE* out = file != NULL ? fopen(file, "wb") : stdout;
    long total = -1;
    int fd;

    if (out == NULL) {
        fprintf(stderr, "fetch: %s: %s\n", file, strerror(errno));
        return 1;
    }
    memset(&uc, 0, sizeof uc);
    uc.inbound = true;
    uc.timeout_ms = timeout_ms;
    uc.http_flags = RQFLAG_HTTP10_GET;
    fd = usock_open(url, &uc);
    if (fd >= 0) {
        total = copy_body(fd, &uc, out);
    }
    usock_close(fd, &uc);
    if (total >= 0 && fflush(out) != 0) {
        fprintf(stderr, "fetch: %s: %s\n", file != NULL ? file : "stdout", strerror(errno));
        total = -1;
    }
    if (total >= 0) {
        fprintf(stderr, "fetch: %ld bytes\n", total);
    }
    if (file != NULL && fclose(out) != 0) {
        fprintf(stderr, "fetch: %s: %s\n", file, strerror(errno));
        total = -1;
    }
    return total >= 0 ? 0 : 1;
}

int main(int argc, char** argv)
{
    const char* file = NULL;
    int timeout_ms = 10000;
    int option;

    glog_init("fetch");
    log_default(&g_log, stderr);
    log_timefmt(&g_log, f_NO_TIME);
    while ((option = getopt(argc, argv, "o:t:")) != -1) {
        switch (option) {
        case 'o': file = optarg; break;
        case 't': timeout_ms = atoi(optarg); break;
        default: optind = argc; break;
        }
    }
    if (argc - optind != 1) {
        fprintf(stderr, "usage: fetch [-o FILE] [-t TIMEOUT_MS] URL\n");
        return 2;
    }
    usock_set_apptag("fetch/1.0");
    if (ignore_sigpipe() != 0) {
        return 1;
    }
    return fetch(argv[optind], file, timeout_ms);
}
