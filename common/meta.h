// Build identity of a program of the family: banner, tag, build block. Texts are made once, kept in static
// buffers and shared; one that does not fit reads "#error#".
#ifndef COMMON_META_H
#define COMMON_META_H

#include <cstdio>

// Checksum of the build, eight hexadecimal digits.
extern const char* const g_APP_CKSUM;

// The banner: name, description, version, system, checksum (NULL: g_APP_CKSUM) and build time. The first
// caller's texts stay.
const char* get_app_info(const char* appname, const char* cksum);

// The short tag "name/version (type)". The first caller's name stays.
const char* get_app_tag(const char* appname);

// The block of the library's version and the compiler's options.
void dump_build_info(FILE* fp);

// The platform of the build, and release and machine of the running system; NULL if those cannot be had.
const char* get_sysinfo();

#endif
