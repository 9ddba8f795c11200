// What a line shows for a text that is not there: a null pointer for %s is undefined.
#ifndef MORVANE_DETAIL_SHOWN_H
#define MORVANE_DETAIL_SHOWN_H

namespace mv {

inline const char* shown(const char* text)
{
    return text != nullptr ? text : "(null)";
}

} // namespace mv

#endif
