// The walk over what one read of an inotify descriptor gives: records of a fixed header and a name of their
// own length, one behind the other.
#ifndef MORVANE_DETAIL_INOTIFY_RECORDS_H
#define MORVANE_DETAIL_INOTIFY_RECORDS_H

#include <cstddef>
#include <cstring>
#include <span>
#include <sys/inotify.h>

namespace mv {

// Size of the record at the start of bytes with its name; 0 if it is not whole, or if the record behind it
// would not be aligned, which no record of the kernel's brings about.
inline size_t inotify_record_size(std::span<const char> bytes)
{
    struct inotify_event head;
    if (bytes.size() < sizeof head) {
        return 0;
    }
    memcpy(&head, bytes.data(), sizeof head);
    const size_t size = sizeof head + size_t{head.len};
    return size <= bytes.size() && size % alignof(struct inotify_event) == 0 ? size : 0;
}

// Bytes of the name that stand before its terminator; a name need not have one.
inline size_t inotify_name_length(const struct inotify_event* e)
{
    return strnlen(e->name, e->len);
}

struct InotifyWalk {
    size_t records = 0;
    size_t bytes = 0; // of whole records
};

// Calls visit for each whole record up to the first that is not. bytes must be aligned for a record.
template <class Visit>
InotifyWalk each_inotify_record(std::span<const char> bytes, Visit visit)
{
    InotifyWalk walk;
    while (walk.bytes < bytes.size()) {
        const std::span<const char> rest = bytes.subspan(walk.bytes);
        const size_t size = inotify_record_size(rest);
        if (size == 0) {
            break;
        }
        visit(reinterpret_cast<const struct inotify_event*>(rest.data()));
        ++walk.records;
        walk.bytes += size;
    }
    return walk;
}

} // namespace mv

#endif
