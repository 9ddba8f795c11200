// Faults of the calls that open, move and close log files, and a clock that a test moves. To be
// included by the one source file of a test.
#ifndef TESTS_SUPPORT_LOGFAULTS_H
#define TESTS_SUPPORT_LOGFAULTS_H

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "wrap.h"

namespace faults {

inline time_t now = 0;  // what time() says; 0: the real time
inline time_t step = 0; // by which it advances with each call

// errno that the next call fails with; 0: none.
inline int on_stat = 0;
inline int on_fstat = 0;
inline int on_rename = 0;
inline int on_unlink = 0;
inline int on_fclose = 0; // the stream is closed all the same, as libc does
inline int on_pclose = 0;
inline int on_fopen = 0;
inline int on_popen = 0;

inline std::string mode;   // of the last fopen or popen
inline int buffering = -1; // of the last setvbuf

inline bool fails(int& error)
{
    if (error == 0) {
        return false;
    }
    errno = error;
    error = 0;
    return true;
}

} // namespace faults

WRAPPED(time_t, time, (time_t * tm));
WRAPPED(int, stat, (const char* path, struct stat* st));
WRAPPED(int, fstat, (int fd, struct stat* st));
WRAPPED(int, rename, (const char* from, const char* to));
WRAPPED(int, unlink, (const char* path));
WRAPPED(int, fclose, (FILE * fp));
WRAPPED(int, pclose, (FILE * fp));
WRAPPED(FILE*, fopen, (const char* path, const char* mode));
WRAPPED(FILE*, popen, (const char* command, const char* mode));
WRAPPED(int, setvbuf, (FILE * fp, char* buffer, int mode, size_t size));

extern "C" {
time_t __wrap_time(time_t* tm)
{
    if (faults::now == 0) {
        return __real_time(tm);
    }
    faults::now += faults::step;
    if (tm != nullptr) {
        *tm = faults::now;
    }
    return faults::now;
}

int __wrap_stat(const char* path, struct stat* st)
{
    return faults::fails(faults::on_stat) ? -1 : __real_stat(path, st);
}

int __wrap_fstat(int fd, struct stat* st)
{
    return faults::fails(faults::on_fstat) ? -1 : __real_fstat(fd, st);
}

int __wrap_rename(const char* from, const char* to)
{
    return faults::fails(faults::on_rename) ? -1 : __real_rename(from, to);
}

int __wrap_unlink(const char* path)
{
    return faults::fails(faults::on_unlink) ? -1 : __real_unlink(path);
}

int __wrap_fclose(FILE* fp)
{
    if (faults::on_fclose != 0) {
        __real_fclose(fp);
    }
    return faults::fails(faults::on_fclose) ? EOF : __real_fclose(fp);
}

int __wrap_pclose(FILE* fp)
{
    if (faults::on_pclose != 0) {
        __real_pclose(fp);
    }
    return faults::fails(faults::on_pclose) ? -1 : __real_pclose(fp);
}

FILE* __wrap_fopen(const char* path, const char* mode)
{
    faults::mode = mode;
    return faults::fails(faults::on_fopen) ? nullptr : __real_fopen(path, mode);
}

FILE* __wrap_popen(const char* command, const char* mode)
{
    faults::mode = mode;
    return faults::fails(faults::on_popen) ? nullptr : __real_popen(command, mode);
}

int __wrap_setvbuf(FILE* fp, char* buffer, int mode, size_t size)
{
    faults::buffering = mode;
    return __real_setvbuf(fp, buffer, mode, size);
}
}

#endif
