// The pool of records and its lists.
#include "entries.h"

#include <algorithm>

namespace zentmon {

namespace {

constexpr size_t kGrowth = 4096; // records at a time: no more than 224 KiB are taken in advance

} // namespace

Entries::~Entries()
{
    xvec_reset(&pool_);
}

uint32_t Entries::add()
{
    uint32_t place = free_;
    if (place != kNoEntry) {
        free_ = (*this)[place].agent_next;
    } else {
        const ssize_t index = xvec_add(&pool_, sizeof(Entry), kGrowth);
        if (index < 0) {
            return kNoEntry;
        }
        place = static_cast<uint32_t>(index);
        end_ = std::max(end_, place + 1);
    }
    (*this)[place] = {};
    ++used_;
    return place;
}

void Entries::release(uint32_t place)
{
    (*this)[place].agent_next = free_;
    free_ = place;
    --used_;
}

void Entries::push_left(uint32_t place)
{
    Entry& entry = (*this)[place];
    entry.left_next = kNoEntry;
    entry.left_prev = left_last_;
    (left_last_ != kNoEntry ? (*this)[left_last_].left_next : left_first_) = place;
    left_last_ = place;
}

void Entries::unlink_left(uint32_t place)
{
    const Entry& entry = (*this)[place];
    (entry.left_prev != kNoEntry ? (*this)[entry.left_prev].left_next : left_first_) = entry.left_next;
    (entry.left_next != kNoEntry ? (*this)[entry.left_next].left_prev : left_last_) = entry.left_prev;
}

void Entries::link_agent(uint32_t place, uint32_t& first)
{
    Entry& entry = (*this)[place];
    entry.agent_prev = kNoEntry;
    entry.agent_next = first;
    if (first != kNoEntry) {
        (*this)[first].agent_prev = place;
    }
    first = place;
}

void Entries::unlink_agent(uint32_t place, uint32_t& first)
{
    const Entry& entry = (*this)[place];
    (entry.agent_prev != kNoEntry ? (*this)[entry.agent_prev].agent_next : first) = entry.agent_next;
    if (entry.agent_next != kNoEntry) {
        (*this)[entry.agent_next].agent_prev = entry.agent_prev;
    }
}

} // namespace zentmon
