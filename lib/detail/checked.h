// The one pattern of the checked calls: call, failed, report. Each call of syswrap.cpp is this with its own
// three parts.
#ifndef MORVANE_DETAIL_CHECKED_H
#define MORVANE_DETAIL_CHECKED_H

#include "kept_errno.h"

namespace mv {

// Makes the call once. A result that failed() knows goes through report(errno), which may disturb errno: it
// is put back. Returns the call's own result. The three come by value, as lambdas of a few references:
// nothing is allocated, and the compiler makes one function of all. unlikely: the line and its arguments are
// made out of the way of a call that works.
template <class Call, class Failed, class Report>
inline auto checked(Call call, Failed failed, Report report)
{
    const auto result = call();
    if (failed(result)) [[unlikely]] {
        const KeptErrno error;
        report(error);
    }
    return result;
}

} // namespace mv

#endif
