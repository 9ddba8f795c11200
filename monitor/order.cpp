// Sorted pieces under a directory.
#include "order.h"

#include <algorithm>

namespace zentmon {

bool GroupOrder::before(Key a, Key b) const
{
    const uint32_t group_a = group_of(a);
    const uint32_t group_b = group_of(b);
    return group_a != group_b ? group_a < group_b : ranks_[agent_of(a)] < ranks_[agent_of(b)];
}

// The last piece whose first key is not behind the key; 0 where the key is before all.
size_t GroupOrder::piece_for(Key key) const
{
    const auto at =
        std::upper_bound(firsts_.begin(), firsts_.end(), key, [this](Key a, Key b) { return before(a, b); });
    return at == firsts_.begin() ? 0 : static_cast<size_t>(at - firsts_.begin()) - 1;
}

size_t GroupOrder::lower_bound(const Piece& piece, Key key) const
{
    const auto at =
        std::lower_bound(piece.begin(), piece.end(), key, [this](Key a, Key b) { return before(a, b); });
    return static_cast<size_t>(at - piece.begin());
}

int64_t GroupOrder::find(uint32_t group, uint32_t agent) const
{
    if (pieces_.empty()) {
        return -1;
    }
    const Key wanted = key(group, agent, 0);
    const Piece& piece = pieces_[piece_for(wanted)];
    const size_t at = lower_bound(piece, wanted);
    return at < piece.size() && piece[at] >> 20 == wanted >> 20 ? int64_t{place_of(piece[at])} : -1;
}

void GroupOrder::insert(Key key)
{
    if (pieces_.empty()) {
        pieces_.emplace_back();
        firsts_.push_back(key);
    }
    size_t number = piece_for(key);
    if (pieces_[number].size() >= kPiece) {
        // Keys that come in rising order leave full pieces behind, others halves.
        Piece& full = pieces_[number];
        const bool rising = number + 1 == pieces_.size() && before(full.back(), key);
        const auto cut = full.begin() + static_cast<ptrdiff_t>(rising ? kPiece - 1 : kPiece / 2);
        Piece upper(cut, full.end());
        full.erase(cut, full.end());
        full.shrink_to_fit();
        firsts_.insert(firsts_.begin() + static_cast<ptrdiff_t>(number) + 1, upper.front());
        pieces_.insert(pieces_.begin() + static_cast<ptrdiff_t>(number) + 1, std::move(upper));
        number = piece_for(key);
    }
    Piece& piece = pieces_[number];
    piece.insert(piece.begin() + static_cast<ptrdiff_t>(lower_bound(piece, key)), key);
    firsts_[number] = piece.front();
    ++size_;
}

void GroupOrder::erase(uint32_t group, uint32_t agent)
{
    const Key wanted = key(group, agent, 0);
    const size_t number = piece_for(wanted);
    Piece& piece = pieces_[number];
    piece.erase(piece.begin() + static_cast<ptrdiff_t>(lower_bound(piece, wanted)));
    if (piece.empty()) {
        pieces_.erase(pieces_.begin() + static_cast<ptrdiff_t>(number));
        firsts_.erase(firsts_.begin() + static_cast<ptrdiff_t>(number));
    } else {
        firsts_[number] = piece.front();
    }
    --size_;
}

std::vector<GroupOrder::Key> GroupOrder::take_all()
{
    std::vector<Key> all;
    all.reserve(size_);
    for (const Piece& piece : pieces_) {
        all.insert(all.end(), piece.begin(), piece.end());
    }
    pieces_.clear();
    firsts_.clear();
    size_ = 0;
    return all;
}

void GroupOrder::put_all(std::vector<Key> keys)
{
    std::sort(keys.begin(), keys.end(), [this](Key a, Key b) { return before(a, b); });
    size_ = keys.size();
    for (size_t from = 0; from < keys.size(); from += kPiece) {
        const auto begin = keys.begin() + static_cast<ptrdiff_t>(from);
        const auto end = keys.begin() + static_cast<ptrdiff_t>(std::min(from + kPiece, keys.size()));
        firsts_.push_back(*begin);
        pieces_.emplace_back(begin, end);
    }
}

bool GroupOrder::walk(const std::function<bool(Key)>& behind, size_t budget,
                      const std::function<bool(Key)>& visit) const
{
    const auto first =
        std::partition_point(firsts_.begin(), firsts_.end(), [&](Key k) { return !behind(k); });
    auto number = static_cast<size_t>(first - firsts_.begin());
    size_t at = 0;
    if (number > 0) {
        const Piece& piece = pieces_[--number];
        const auto place =
            std::partition_point(piece.begin(), piece.end(), [&](Key k) { return !behind(k); });
        at = static_cast<size_t>(place - piece.begin());
    }
    for (; number < pieces_.size(); ++number, at = 0) {
        for (const Piece& piece = pieces_[number]; at < piece.size(); ++at) {
            if (budget-- == 0 || !visit(piece[at])) {
                return true;
            }
        }
    }
    return false;
}

} // namespace zentmon
