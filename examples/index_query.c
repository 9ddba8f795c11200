/* index_query: answers from an index that recorder wrote: in which run of datagrams an offset lies, and about
 * when it arrived.
 *
 *   index_query INDEX OFFSET...
 *
 * A line of the index is "OFFSET COUNT LENGTH FIRST LAST". Inside a run the arrivals count as evenly spread.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <morvane/log.h>
#include <morvane/strops.h>
#include <morvane/util.h>
#include <morvane/xvdat.h>

DECLARE_MLL(MLL_COMMON);

volatile sig_atomic_t g_quit, g_hup, g_usr1, g_sigctx, g_goodbye;

struct run {
    long offset;
    unsigned long count;
    unsigned long length;
    double first; /* seconds of the recorder's monotonic clock */
    double last;
};

static struct xvec g_runs = NULL_xvec; /* of struct run */

static struct run* run_at(size_t index)
{
    return (struct run*)g_runs.data + index;
}

static long end_of(const struct run* r)
{
    return r->offset + (long)(r->count * r->length);
}

static int load(const char* path)
{
    char line[256];
    struct run r;
    int number = 0;
    FILE* fp = fopen(path, "r");

    if (fp == NULL) {
        fprintf(stderr, "index_query: %s: %s\n", path, strerror(errno));
        return -1;
    }
    while (fgets(line, sizeof line, fp) != NULL) {
        ++number;
        if (sscanf(line, "%ld %lu %lu %lf %lf", &r.offset, &r.count, &r.length, &r.first, &r.last) != 5) {
            chomp(line);
            fprintf(stderr, "index_query: %s: line %d is none of an index: %s\n", path, number, line);
            fclose(fp);
            return -1;
        }
        const ssize_t index = xvec_add(&g_runs, sizeof r, 1024);
        if (index < 0) {
            fclose(fp);
            return -1;
        }
        *run_at((size_t)index) = r;
    }
    if (ferror(fp)) {
        fprintf(stderr, "index_query: %s: %s\n", path, strerror(errno));
        fclose(fp);
        return -1;
    }
    fclose(fp);
    return 0;
}

/* Runs stand in the order of their offsets: the last one that begins at or before the offset. */
static const struct run* find(long offset)
{
    size_t low = 0;
    size_t high = g_runs.len;
    while (low < high) {
        const size_t middle = (low + high) / 2;
        if (run_at(middle)->offset <= offset) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return low > 0 && offset < end_of(run_at(low - 1)) ? run_at(low - 1) : NULL;
}

static int answer(const char* text)
{
    char* end = NULL;
    const long offset = strtol(text, &end, 10);
    const struct run* r = *text != 0 && *end == 0 ? find(offset) : NULL;
    unsigned long packet;

    if (r == NULL) {
        printf("%s: not in the index\n", text);
        return 1;
    }
    packet = (unsigned long)(offset - r->offset) / r->length;
    printf("%s: datagram %lu of %lu in the run from %ld, arrived at %.3f\n", text, packet + 1, r->count,
           r->offset,
           r->count > 1 ? r->first + (r->last - r->first) * (double)packet / (double)(r->count - 1)
                        : r->first);
    return 0;
}

int main(int argc, char** argv)
{
    int rc = 0;
    int i;

    glog_init("index_query");
    log_default(&g_log, stderr);
    if (argc < 3) {
        fprintf(stderr, "usage: index_query INDEX OFFSET...\n");
        return 2;
    }
    if (load(argv[1]) != 0) {
        fprintf(stderr, "index_query: %s could not be loaded\n", argv[1]);
        return 2;
    }
    for (i = 2; i < argc; ++i) {
        rc |= answer(argv[i]);
    }
    xvec_reset(&g_runs);
    if (fflush(stdout) != 0 || ferror(stdout)) {
        perror("index_query: stdout");
        return 2;
    }
    return rc;
}
