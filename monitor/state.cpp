// The rules of who holds what.
#include "state.h"

#include <algorithm>
#include <deque>

#include "agents.h"
#include "entries.h"
#include "gkh.h"
#include "log.h"
#include "names.h"
#include "order.h"

DECLARE_MLL(MLL_COMMON);

namespace zentmon {

namespace {

constexpr size_t kSweep = 20'000;         // records that one tick looks at
constexpr int64_t kLongestPauseMs = 1000; // between two ticks
constexpr int64_t kWarningPauseMs = 60'000;
constexpr int64_t kMergePauseMs = 1000;
constexpr size_t kHeldLeavesSpare = 4096; // void records among those of the groups that linger

// A LEAVE that is held back. Void where the group was joined again: its entry has another last_ms or state.
struct HeldLeave {
    int64_t due_mono_ms;
    int64_t last_ms;
    uint32_t place;
    uint32_t group;
    uint16_t agent;
};

std::string source_key(const std::string& listener, const std::string& address)
{
    return listener + ' ' + address;
}

} // namespace

const char* group_state_name(GroupState state)
{
    switch (state) {
    case GroupState::joined: return "joined";
    case GroupState::stale: return "stale";
    default: return "linger";
    }
}

class State::Impl {
  public:
    Impl(StateOptions options, Counters& counters)
        : opt_(std::move(options)), counters_(counters), ranks_(GroupOrder::kAgents, 0), order_(ranks_)
    {
        opt_.limits.agents = std::min(opt_.limits.agents, GroupOrder::kAgents);
        opt_.limits.flows = std::clamp<size_t>(opt_.limits.flows, 1, kFlows);
        opt_.limits.groups = std::min(opt_.limits.groups, GroupOrder::kPlaces);
        if (skht_create(&by_source_, GroupOrder::kAgents, nullptr, nullptr, 0) != 0 ||
            skht_create(&by_name_, GroupOrder::kAgents, nullptr, nullptr, 0) != 0) {
            log_panic("%s: no memory for the tables of agents\n", "zentmon");
        }
    }

    ~Impl()
    {
        skht_destroy(by_source_, nullptr);
        skht_destroy(by_name_, nullptr);
    }

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void add_sink(Sink* sink) { sinks_.push_back(sink); }

    // agents
    int known_agent(const std::string& listener, const std::string& address) const;
    int find_agent(const std::string& listener, const std::string& address, const std::string& stored_name,
                   Now now);
    void rename(const std::map<std::string, std::string>& names);
    void each_agent(const std::function<void(const AgentRow&)>& visit) const;

    size_t agent_count() const { return by_rank_.size(); }

    // lines
    void apply(int agent, uint16_t port, LineKind kind, uint32_t group, Now now);
    void end_of_stream(int agent, Now now);
    bool restore(const RestoredRow& row, Now now);
    int restored_flow(Agent& a, bool fading, Now now);

    // time
    int64_t tick(Now now);

    // lists
    bool walk(GroupCursor& at, size_t budget, const std::function<bool(const GroupRow&)>& visit) const;
    bool walk_of(const std::string& agent, GroupCursor& at, size_t budget,
                 const std::function<bool(const GroupRow&)>& visit) const;
    bool walk_fading(uint32_t& at, size_t budget, bool all,
                     const std::function<void(const GroupRow&)>& visit);
    bool may_have_fading() const;
    bool find_group(const std::string& agent, uint32_t group, GroupRow& row) const;

    size_t group_count() const { return shown_; }

    uint64_t last_seq() const { return seq_; }

    uint64_t generation() const { return generation_; }

  private:
    Flow& flow(Agent& a, int number) { return a.flows[static_cast<size_t>(number)]; }

    Agent& agent(int number) { return *agents_[static_cast<size_t>(number)]; }

    // agents
    int add_agent(const std::string& listener, const std::string& address, const std::string& stored,
                  Now now);
    std::string base_name(const std::string& address) const;

    bool is_taken(const std::string& name) const { return skht_get(by_name_, name.c_str(), nullptr) == 0; }

    void set_name(int number, const std::string& name, const AgentName& of);
    void number_ranks();
    int agent_named(const std::string& name) const;
    void drop_agent(int number);
    void count_stale(const Agent& a) const;

    // flows
    int flow_for(Agent& a, uint16_t port, Now now);
    int new_flow(Agent& a, uint16_t port, Now now);
    int place_for_flow(Agent& a, Now now);
    void make_stale(Agent& a, uint64_t mask, uint64_t by, Now now);
    void not_a_restart(Agent& a, int number);
    void speak_again(Agent& a, int number);
    int restart_on_same_port(Agent& a, int number, Now now);
    void move_groups(Agent& a, int from, int to);
    void drop_flow(Agent& a, int number);
    void take_over(Agent& a, int to, const Entry& entry);

    // groups
    int64_t find_entry(int number, uint32_t group) const
    {
        return order_.find(group, static_cast<uint32_t>(number));
    }

    int64_t entry_for(int number, uint32_t group);
    void drop_entry(uint32_t place);
    void hold(Agent& a, Entry& entry, int flow_number);
    void let_go(Agent& a, Entry& entry, uint64_t mask);
    void join(int number, int flow_number, uint32_t group, Now now);
    void leave(int number, int flow_number, uint32_t group, Now now);
    void leave_entry(Agent& a, uint32_t place, Now now);
    void end_entry(Agent& a, uint32_t place, EventKind kind, Now now);
    void show(Agent& a, Entry& entry, EntryState state);
    void emit(EventKind kind, const Agent& a, uint32_t group, Now now);
    bool row_of(uint32_t place, GroupRow& row) const;
    void set_told_fading(Entry& entry, bool is_fading);

    // time
    int64_t end_lingering(Now now, size_t& budget);
    bool is_held_back(const HeldLeave& held) const;
    void drop_void_leaves();
    int64_t expire(Agent& a, Now now, size_t& budget);
    int64_t forget(int number, Now now, size_t& budget);
    uint64_t due_flows(const Agent& a, Now now, int64_t& pause) const;
    bool sweep(Agent& a, size_t& budget, const std::function<void(uint32_t)>& visit);

    void refuse(Limit what, Now now);

    StateOptions opt_;
    Counters& counters_;
    std::vector<Sink*> sinks_;
    std::vector<std::unique_ptr<Agent>> agents_; // by number, with holes
    std::vector<uint16_t> by_rank_;              // numbers in the order of the names
    std::vector<uint16_t> ranks_;                // and the other way round
    skht_t by_source_ = 0;                       // "LISTENER ADDRESS" to number + 1
    skht_t by_name_ = 0;                         // name to number + 1
    Entries entries_;
    GroupOrder order_;
    std::deque<HeldLeave> held_leaves_;
    size_t lingering_ = 0;
    size_t told_fading_ = 0;
    size_t shown_ = 0;
    uint64_t seq_ = 0;
    uint64_t generation_ = 0;
    PerKind<Limit> warned_at_{};
};

// ---- agents -----------------------------------------------------------------------------------

int State::Impl::known_agent(const std::string& listener, const std::string& address) const
{
    void* value = nullptr;
    skht_get(by_source_, source_key(listener, address).c_str(), &value);
    return static_cast<int>(reinterpret_cast<intptr_t>(value)) - 1;
}

int State::Impl::find_agent(const std::string& listener, const std::string& address,
                            const std::string& stored_name, Now now)
{
    const int known = known_agent(listener, address);
    return known >= 0 ? known : add_agent(listener, address, stored_name, now);
}

int State::Impl::add_agent(const std::string& listener, const std::string& address, const std::string& stored,
                           Now now)
{
    if (by_rank_.size() >= opt_.limits.agents) {
        refuse(Limit::agents, now);
        return -1;
    }
    const auto hole = std::find(agents_.begin(), agents_.end(), nullptr);
    const auto number = static_cast<int>(hole - agents_.begin());
    if (hole == agents_.end()) {
        agents_.emplace_back();
    }
    agents_[static_cast<size_t>(number)] = std::make_unique<Agent>();
    void* value = reinterpret_cast<void*>(static_cast<intptr_t>(number) + 1);
    skht_add(by_source_, source_key(listener, address).c_str(), &value);

    const std::string base = base_name(address);
    const bool as_stored = is_name(stored) && stored.rfind(base, 0) == 0 && !is_taken(stored);
    const std::string name =
        as_stored ? stored : free_name(base, listener, [this](const std::string& n) { return is_taken(n); });
    set_name(number, name, {"", address, listener});
    const auto place =
        std::lower_bound(by_rank_.begin(), by_rank_.end(), name,
                         [this](int n, const auto& text) { return agent(n).name->agent < text; });
    by_rank_.insert(place, static_cast<uint16_t>(number));
    number_ranks();
    agent(number).first_ms = now.wall_ms;
    agent(number).heard_mono_ms = now.mono_ms;
    log_info("agent %s: address %s, listener %s\n", name.c_str(), address.c_str(), listener.c_str());
    return number;
}

std::string State::Impl::base_name(const std::string& address) const
{
    const auto named = opt_.names.find(address);
    return named != opt_.names.end() ? named->second : as_name(address);
}

void State::Impl::set_name(int number, const std::string& name, const AgentName& of)
{
    void* value = reinterpret_cast<void*>(static_cast<intptr_t>(number) + 1);
    skht_add(by_name_, name.c_str(), &value);
    agent(number).name = std::make_shared<AgentName>(AgentName{name, of.address, of.listener});
}

void State::Impl::number_ranks()
{
    for (size_t rank = 0; rank < by_rank_.size(); ++rank) {
        ranks_[by_rank_[rank]] = static_cast<uint16_t>(rank);
    }
}

int State::Impl::agent_named(const std::string& name) const
{
    void* value = nullptr;
    return skht_get(by_name_, name.c_str(), &value) == 0
               ? static_cast<int>(reinterpret_cast<intptr_t>(value)) - 1
               : -1;
}

void State::Impl::rename(const std::map<std::string, std::string>& names)
{
    opt_.names = names;
    std::vector<GroupOrder::Key> keys = order_.take_all(); // the order of the names changes below
    for (const uint16_t number : by_rank_) {
        skht_rm(by_name_, agent(number).name->agent.c_str(), nullptr);
    }
    bool changed = false;
    // Names that were given come first, so that no default stands in their way.
    const auto name_all = [&](bool given) {
        for (const uint16_t number : by_rank_) {
            const std::shared_ptr<const AgentName> old = agent(number).name;
            if ((opt_.names.count(old->address) != 0) == given) {
                set_name(number,
                         free_name(base_name(old->address), old->listener,
                                   [this](const std::string& n) { return is_taken(n); }),
                         *old);
                changed = changed || agent(number).name->agent != old->agent;
            }
        }
    };
    name_all(true);
    name_all(false);
    std::sort(by_rank_.begin(), by_rank_.end(),
              [this](int a, int b) { return agent(a).name->agent < agent(b).name->agent; });
    number_ranks();
    order_.put_all(std::move(keys));
    if (changed) {
        ++seq_;
        for (Sink* sink : sinks_) {
            sink->on_rename(seq_);
        }
    }
}

void State::Impl::count_stale(const Agent& a) const
{
    a.recount = false;
    a.stale_groups = 0;
    if (a.stale == 0) {
        return;
    }
    for (uint32_t place = a.first_entry; place != kNoEntry; place = entries_[place].agent_next) {
        const Entry& entry = entries_[place];
        a.stale_groups += entry.state == EntryState::held && (entry.holders & ~a.stale) == 0 ? 1 : 0;
    }
}

void State::Impl::each_agent(const std::function<void(const AgentRow&)>& visit) const
{
    for (const uint16_t number : by_rank_) {
        const Agent& a = *agents_[number];
        if (a.recount) {
            count_stale(a);
        }
        visit({a.name.get(), a.first_ms, a.last_ms, static_cast<uint32_t>(std::popcount(a.used & ~a.stale)),
               a.shown, a.stale_groups, a.lingering, a.joins, a.leaves, a.restarts});
    }
}

void State::Impl::drop_agent(int number)
{
    const std::shared_ptr<const AgentName> name = agent(number).name;
    skht_rm(by_name_, name->agent.c_str(), nullptr);
    skht_rm(by_source_, source_key(name->listener, name->address).c_str(), nullptr);
    by_rank_.erase(std::find(by_rank_.begin(), by_rank_.end(), static_cast<uint16_t>(number)));
    number_ranks();
    ++generation_;
    agents_[static_cast<size_t>(number)] = nullptr;
    log_info("agent %s: forgotten\n", name->agent.c_str());
}

// ---- flows ------------------------------------------------------------------------------------

int State::Impl::flow_for(Agent& a, uint16_t port, Now now)
{
    int number = a.find_flow(port);
    if (number == kNoFlow) {
        number = new_flow(a, port, now);
    } else if (a.is_stale(number)) {
        speak_again(a, number);
    }
    a.last_flow = static_cast<int8_t>(number);
    return number;
}

int State::Impl::new_flow(Agent& a, uint16_t port, Now now)
{
    for (uint64_t left = a.used & ~a.stale; left != 0; left &= left - 1) {
        Flow& f = flow(a, std::countr_zero(left));
        if (f.restored) {
            f.restored = false;
            f.port = port;
            return std::countr_zero(left);
        }
    }
    const int number = place_for_flow(a, now);
    if (number == kNoFlow) {
        return kNoFlow;
    }
    Flow& f = flow(a, number);
    f = {};
    f.port = port;
    f.order = ++a.next_order;
    if (a.used != 0) {
        f.restarted = true;
        ++a.restarts;
        make_stale(a, a.used, f.order, now);
    }
    a.used |= Agent::bit(number);
    return number;
}

// Room for one flow more: a free place, or else that of a life that is over. Two of those become one, which
// is a walk through all groups of the agent and therefore not done for each line.
int State::Impl::place_for_flow(Agent& a, Now now)
{
    const int free = a.free_flow(opt_.limits.flows);
    if (free != kNoFlow) {
        return free;
    }
    uint64_t empty = 0;
    each_bit(a.stale, [&](int n) { empty |= flow(a, n).groups == 0 ? Agent::bit(n) : 0; });
    int victim = a.oldest_of(empty);
    if (victim == kNoFlow && std::popcount(a.stale) >= 2 && now.mono_ms - a.merged_at >= kMergePauseMs) {
        a.merged_at = now.mono_ms;
        victim = a.oldest_of(a.stale);
        move_groups(a, victim, a.oldest_of(a.stale & ~Agent::bit(victim)));
    }
    if (victim == kNoFlow) {
        refuse(Limit::flows, now);
        return kNoFlow;
    }
    drop_flow(a, victim);
    return victim;
}

void State::Impl::make_stale(Agent& a, uint64_t mask, uint64_t by, Now now)
{
    each_bit(mask & ~a.stale, [&](int number) {
        flow(a, number).stale_since = now.mono_ms;
        flow(a, number).made_stale_by = by;
    });
    a.stale |= mask;
    a.recount = true;
}

// What was counted as a restart when the flow appeared was none.
void State::Impl::not_a_restart(Agent& a, int number)
{
    if (flow(a, number).restarted) {
        flow(a, number).restarted = false;
        --a.restarts;
    }
}

// The flow was no earlier life after all: two processes speak at the same time.
void State::Impl::speak_again(Agent& a, int number)
{
    const uint64_t by = flow(a, number).made_stale_by;
    a.stale &= ~Agent::bit(number);
    a.recount = true;
    bool others = by == 0;
    each_bit(a.stale, [&](int n) { others = others || flow(a, n).made_stale_by == by; });
    if (!others) {
        if (const int follower = a.flow_of_order(by); follower != kNoFlow) {
            not_a_restart(a, follower);
        }
    }
    if (!a.warned && by != 0) {
        a.warned = true;
        log_warn(
            "agent %s: two processes report from %s on one listener: give each its own --listen PORT=NAME\n",
            a.name->agent.c_str(), a.name->address.c_str());
    }
}

// A process that joins what it holds has lost its memory. What its earlier life held stays with that life.
int State::Impl::restart_on_same_port(Agent& a, int number, Now now)
{
    ++a.restarts;
    if (flow(a, number).groups <= 1) {
        return number;
    }
    const int next = place_for_flow(a, now);
    if (next == kNoFlow) {
        return number;
    }
    flow(a, next) = {};
    flow(a, next).port = flow(a, number).port;
    flow(a, next).order = ++a.next_order;
    a.used |= Agent::bit(next);
    flow(a, number).ended = true;
    make_stale(a, Agent::bit(number), 0, now);
    a.last_flow = static_cast<int8_t>(next);
    return next;
}

void State::Impl::move_groups(Agent& a, int from, int to)
{
    for (uint32_t place = a.first_entry; place != kNoEntry && flow(a, from).groups != 0;
         place = entries_[place].agent_next) {
        Entry& entry = entries_[place];
        if ((entry.holders & Agent::bit(from)) != 0) {
            hold(a, entry, to);
            let_go(a, entry, Agent::bit(from));
        }
    }
    a.recount = true;
}

void State::Impl::drop_flow(Agent& a, int number)
{
    a.used &= ~Agent::bit(number);
    a.stale &= ~Agent::bit(number);
    a.recount = true;
    if (a.last_flow == number) {
        a.last_flow = kNoFlow;
    }
}

// A LEAVE of what only an earlier flow holds: it is the same process, whose port was changed on the way.
void State::Impl::take_over(Agent& a, int to, const Entry& entry)
{
    uint64_t earlier = 0;
    each_bit(entry.holders & a.stale,
             [&](int n) { earlier |= flow(a, n).order < flow(a, to).order ? Agent::bit(n) : 0; });
    if (earlier == 0) {
        return;
    }
    const int from = a.youngest_of(earlier);
    not_a_restart(a, to);
    move_groups(a, from, to);
    drop_flow(a, from);
}

// ---- groups -----------------------------------------------------------------------------------

// The entry of a group, made if need be; -1 where the limit forbids it.
int64_t State::Impl::entry_for(int number, uint32_t group)
{
    const int64_t known = find_entry(number, group);
    if (known >= 0) {
        return known;
    }
    if (entries_.size() >= opt_.limits.groups) {
        if (entries_.oldest_left() == kNoEntry) {
            return -1;
        }
        drop_entry(entries_.oldest_left());
    }
    const uint32_t place = entries_.add();
    if (place == kNoEntry) {
        return -1;
    }
    Entry& entry = entries_[place];
    entry.group = group;
    entry.agent = static_cast<uint16_t>(number);
    entry.state = EntryState::left;
    entries_.push_left(place);
    entries_.link_agent(place, agent(number).first_entry);
    ++agent(number).entries;
    order_.insert(GroupOrder::key(group, static_cast<uint32_t>(number), place));
    return place;
}

// Only one that was left.
void State::Impl::drop_entry(uint32_t place)
{
    const Entry& entry = entries_[place];
    Agent& a = agent(entry.agent);
    if (a.sweep == place) {
        a.sweep = entry.agent_next;
    }
    order_.erase(entry.group, entry.agent);
    entries_.unlink_left(place);
    entries_.unlink_agent(place, a.first_entry);
    --a.entries;
    entries_.release(place);
}

void State::Impl::hold(Agent& a, Entry& entry, int flow_number)
{
    const uint64_t bit = Agent::bit(flow_number);
    flow(a, flow_number).groups += (entry.holders & bit) == 0 ? 1 : 0;
    entry.holders |= bit;
}

void State::Impl::let_go(Agent& a, Entry& entry, uint64_t mask)
{
    each_bit(entry.holders & mask, [&](int number) { --flow(a, number).groups; });
    entry.holders &= ~mask;
}

// Moves an entry between held, linger and left, and the numbers with it.
void State::Impl::show(Agent& a, Entry& entry, EntryState state)
{
    const bool was = entry.state != EntryState::left;
    const bool is = state != EntryState::left;
    const uint32_t before = entry.state == EntryState::linger ? 1 : 0;
    a.lingering += (state == EntryState::linger ? 1 : 0) - before;
    lingering_ += (state == EntryState::linger ? size_t{1} : 0) - before;
    a.shown += (is ? 1u : 0u) - (was ? 1u : 0u);
    shown_ += (is ? size_t{1} : 0) - (was ? size_t{1} : 0);
    entry.state = state;
}

void State::Impl::emit(EventKind kind, const Agent& a, uint32_t group, Now now)
{
    ++counters_.events[static_cast<size_t>(kind)];
    const Event event{++seq_, now.wall_ms, kind, group, a.name};
    for (Sink* sink : sinks_) {
        sink->on_event(event);
    }
}

void State::Impl::join(int number, int flow_number, uint32_t group, Now now)
{
    const int64_t found = entry_for(number, group);
    if (found < 0) {
        refuse(Limit::groups, now);
        return;
    }
    Agent& a = agent(number);
    const auto place = static_cast<uint32_t>(found);
    Entry& entry = entries_[place];
    if ((entry.holders & Agent::bit(flow_number)) != 0) {
        flow_number = restart_on_same_port(a, flow_number, now);
    }
    hold(a, entry, flow_number);
    entry.restored = false;
    entry.last_ms = now.wall_ms;
    ++entry.joins;
    const bool is_new = entry.state == EntryState::left;
    if (is_new) {
        entries_.unlink_left(place);
        entry.since_ms = now.wall_ms;
    }
    show(a, entry, EntryState::held);
    if (is_new) {
        emit(EventKind::join, a, group, now);
    }
}

void State::Impl::leave(int number, int flow_number, uint32_t group, Now now)
{
    const int64_t found = find_entry(number, group);
    if (found < 0) {
        return;
    }
    Agent& a = agent(number);
    Entry& entry = entries_[static_cast<uint32_t>(found)];
    ++entry.leaves;
    entry.last_ms = entry.state == EntryState::linger ? entry.last_ms : now.wall_ms;
    if (entry.state != EntryState::held) {
        return;
    }
    if ((entry.holders & Agent::bit(flow_number)) == 0) {
        take_over(a, flow_number, entry);
    }
    const bool knew = (entry.holders & Agent::bit(flow_number)) != 0;
    if (knew || entry.restored) {
        // Lives that are over cannot keep what the present one leaves.
        let_go(a, entry, entry.restored ? ~uint64_t{0} : a.stale | Agent::bit(flow_number));
    }
    if (entry.holders == 0) {
        leave_entry(a, static_cast<uint32_t>(found), now);
    }
}

void State::Impl::leave_entry(Agent& a, uint32_t place, Now now)
{
    if (opt_.linger_s == 0) {
        end_entry(a, place, EventKind::leave, now);
        return;
    }
    Entry& entry = entries_[place];
    show(a, entry, EntryState::linger);
    held_leaves_.push_back(
        {now.mono_ms + opt_.linger_s * 1000, entry.last_ms, place, entry.group, entry.agent});
    if (held_leaves_.size() > 2 * lingering_ + kHeldLeavesSpare) {
        drop_void_leaves();
    }
}

void State::Impl::end_entry(Agent& a, uint32_t place, EventKind kind, Now now)
{
    Entry& entry = entries_[place];
    show(a, entry, EntryState::left);
    entry.restored = false;
    set_told_fading(entry, false);
    entries_.push_left(place);
    emit(kind, a, entry.group, now);
}

// ---- lines ------------------------------------------------------------------------------------

void State::Impl::apply(int number, uint16_t port, LineKind kind, uint32_t group, Now now)
{
    Agent& a = agent(number);
    const int flow_number = flow_for(a, port, now);
    if (flow_number == kNoFlow) {
        return;
    }
    a.last_ms = now.wall_ms;
    a.heard_mono_ms = now.mono_ms;
    a.recount = a.recount || a.stale != 0;
    if (kind == LineKind::join) {
        ++a.joins;
        join(number, flow_number, group, now);
    } else {
        ++a.leaves;
        leave(number, flow_number, group, now);
    }
}

void State::Impl::end_of_stream(int number, Now now)
{
    Agent& a = agent(number);
    make_stale(a, a.used, 0, now);
    each_bit(a.used, [&](int n) { flow(a, n).ended = true; });
    a.last_flow = kNoFlow;
}

// The flow of what is restored: whoever speaks first is it. What was fading belongs to a life that is over.
int State::Impl::restored_flow(Agent& a, bool fading, Now now)
{
    int number = kNoFlow;
    each_bit(fading ? a.used & a.stale : a.used & ~a.stale, [&](int n) {
        if (flow(a, n).restored || flow(a, n).ended) {
            number = n;
        }
    });
    if (number == kNoFlow) {
        number = a.free_flow(opt_.limits.flows);
        if (number == kNoFlow) {
            return std::countr_zero(a.used);
        }
        flow(a, number) = {};
        flow(a, number).order = ++a.next_order;
        a.used |= Agent::bit(number);
        (fading ? flow(a, number).ended : flow(a, number).restored) = true;
        if (fading) {
            make_stale(a, Agent::bit(number), 0, now);
        }
    }
    return number;
}

bool State::Impl::restore(const RestoredRow& row, Now now)
{
    const int number = find_agent(row.listener, row.address, row.agent, now);
    const int64_t found = number >= 0 ? entry_for(number, row.group) : -1;
    if (found < 0) {
        if (number >= 0) {
            refuse(Limit::groups, now);
        }
        return false;
    }
    Agent& a = agent(number);
    const auto place = static_cast<uint32_t>(found);
    Entry& entry = entries_[place];
    if (entry.state != EntryState::left) {
        return true; // a line was faster
    }
    const int holder = restored_flow(a, row.fading, now);
    entries_.unlink_left(place);
    entry.since_ms = row.since_ms;
    entry.last_ms = row.since_ms;
    entry.restored = true;
    set_told_fading(entry, row.fading);
    a.first_ms = std::min(a.first_ms, row.since_ms);
    a.last_ms = std::max(a.last_ms, row.since_ms);
    hold(a, entry, holder);
    a.recount = true;
    show(a, entry, EntryState::held);
    return true;
}

// ---- time -------------------------------------------------------------------------------------

int64_t State::Impl::tick(Now now)
{
    size_t budget = kSweep;
    int64_t pause = end_lingering(now, budget);
    for (size_t number = 0; number < agents_.size() && budget > 0; ++number) {
        if (agents_[number] == nullptr) {
            continue;
        }
        pause = std::min(pause, expire(*agents_[number], now, budget));
        if (opt_.forget_s > 0) {
            pause = std::min(pause, forget(static_cast<int>(number), now, budget));
        }
    }
    return budget > 0 ? pause : 0;
}

int64_t State::Impl::end_lingering(Now now, size_t& budget)
{
    for (; !held_leaves_.empty() && budget > 0; --budget) {
        const HeldLeave held = held_leaves_.front();
        if (held.due_mono_ms > now.mono_ms) {
            return std::min(kLongestPauseMs, held.due_mono_ms - now.mono_ms);
        }
        held_leaves_.pop_front();
        if (is_held_back(held)) {
            end_entry(agent(held.agent), held.place, EventKind::leave, now);
        }
    }
    return kLongestPauseMs;
}

// Whether the LEAVE still stands. A place may have been used anew since; one that is free is never lingering.
bool State::Impl::is_held_back(const HeldLeave& held) const
{
    const Entry& entry = entries_[held.place];
    return entry.state == EntryState::linger && entry.agent == held.agent && entry.group == held.group &&
           entry.last_ms == held.last_ms;
}

// Whoever leaves and joins in turns must not fill the memory with records that mean nothing any more. Each
// group that lingers keeps its first one.
void State::Impl::drop_void_leaves()
{
    std::vector<bool> seen(GroupOrder::kPlaces);
    std::erase_if(held_leaves_, [&](const HeldLeave& held) {
        const bool keeps = is_held_back(held) && !seen[held.place];
        seen[held.place] = seen[held.place] || keeps;
        return !keeps;
    });
}

// The stale flows whose time is over; pause is lowered to the time of the next one.
uint64_t State::Impl::due_flows(const Agent& a, Now now, int64_t& pause) const
{
    uint64_t due = 0;
    if (opt_.stale_s == 0) {
        return due;
    }
    each_bit(a.stale, [&](int n) {
        const int64_t left = a.flows[static_cast<size_t>(n)].stale_since + opt_.stale_s * 1000 - now.mono_ms;
        due |= left <= 0 ? Agent::bit(n) : 0;
        pause = left > 0 ? std::min(pause, left) : pause;
    });
    return due;
}

// Goes on through the entries of an agent; true at their end.
bool State::Impl::sweep(Agent& a, size_t& budget, const std::function<void(uint32_t)>& visit)
{
    uint32_t place = a.sweep != kNoEntry ? a.sweep : a.first_entry;
    for (; place != kNoEntry && budget > 0; --budget) {
        const uint32_t next = entries_[place].agent_next;
        visit(place);
        place = next;
    }
    a.sweep = place;
    return place == kNoEntry;
}

int64_t State::Impl::expire(Agent& a, Now now, size_t& budget)
{
    int64_t pause = kLongestPauseMs;
    const uint64_t due = due_flows(a, now, pause);
    if (due == 0) {
        return pause;
    }
    bool empty = true;
    each_bit(due, [&](int n) { empty = empty && flow(a, n).groups == 0; });
    if (!empty) {
        sweep(a, budget, [&](uint32_t place) {
            Entry& entry = entries_[place];
            let_go(a, entry, due);
            if (entry.state == EntryState::held && entry.holders == 0) {
                end_entry(a, place, EventKind::expire, now);
            }
        });
    }
    a.recount = true;
    uint64_t unfinished = 0;
    each_bit(due, [&](int n) {
        if (flow(a, n).groups == 0) {
            drop_flow(a, n);
        } else {
            unfinished |= Agent::bit(n);
        }
    });
    return unfinished == 0 ? pause : 0;
}

int64_t State::Impl::forget(int number, Now now, size_t& budget)
{
    Agent& a = agent(number);
    const int64_t left = a.heard_mono_ms + opt_.forget_s * 1000 - now.mono_ms;
    if (left > 0) {
        return std::min(left, kLongestPauseMs);
    }
    a.sweep = kNoEntry;
    sweep(a, budget, [&](uint32_t place) {
        Entry& entry = entries_[place];
        if (entry.state != EntryState::left) {
            let_go(a, entry, ~uint64_t{0});
            end_entry(a, place, EventKind::expire, now);
        }
        drop_entry(place);
    });
    if (a.first_entry != kNoEntry) {
        return 0;
    }
    drop_agent(number);
    return kLongestPauseMs;
}

void State::Impl::refuse(Limit what, Now now)
{
    ++counters_.limit_dropped[what];
    const auto at = static_cast<uint64_t>(now.mono_ms) + 1;
    if (warned_at_[what] == 0 || at - warned_at_[what] >= static_cast<uint64_t>(kWarningPauseMs)) {
        warned_at_[what] = at;
        log_warn("the limit of %s is reached: lines beyond it are dropped (%llu so far)\n", limit_name(what),
                 static_cast<unsigned long long>(counters_.limit_dropped[what]));
    }
}

// ---- lists ------------------------------------------------------------------------------------

bool State::Impl::row_of(uint32_t place, GroupRow& row) const
{
    const Entry& entry = entries_[place];
    if (entry.state == EntryState::left) {
        return false;
    }
    const Agent& a = *agents_[entry.agent];
    const bool stale = entry.state == EntryState::held && (entry.holders & ~a.stale) == 0;
    const GroupState state = entry.state == EntryState::linger ? GroupState::linger
                             : stale                           ? GroupState::stale
                                                               : GroupState::joined;
    row = {entry.group, a.name.get(), entry.since_ms, entry.last_ms, entry.joins, entry.leaves, state};
    return true;
}

bool State::Impl::walk(GroupCursor& at, size_t budget,
                       const std::function<bool(const GroupRow&)>& visit) const
{
    const GroupCursor from = at;
    GroupOrder::Key last = 0;
    const auto behind = [&](GroupOrder::Key key) {
        const uint32_t group = GroupOrder::group_of(key);
        return group != from.group ? group > from.group
                                   : agents_[GroupOrder::agent_of(key)]->name->agent > from.agent;
    };
    const bool more = order_.walk(behind, budget, [&](GroupOrder::Key key) {
        last = key;
        GroupRow row;
        return !row_of(GroupOrder::place_of(key), row) || visit(row);
    });
    if (last != 0) {
        at = {GroupOrder::group_of(last), agents_[GroupOrder::agent_of(last)]->name->agent};
    }
    return more;
}

bool State::Impl::walk_of(const std::string& name, GroupCursor& at, size_t budget,
                          const std::function<bool(const GroupRow&)>& visit) const
{
    const int number = agent_named(name);
    if (number < 0) {
        return false;
    }
    if (agents_[static_cast<size_t>(number)]->entries > kSweep) {
        return walk(at, budget, [&](const GroupRow& row) { return row.who->agent != name || visit(row); });
    }
    // Of the cursor's own group this agent is still to come where its name is behind the cursor's.
    const uint64_t from = uint64_t{at.group} + (name > at.agent ? 0 : 1);
    std::vector<std::pair<uint32_t, uint32_t>> places; // group and place
    const Agent& a = *agents_[static_cast<size_t>(number)];
    for (uint32_t place = a.first_entry; place != kNoEntry; place = entries_[place].agent_next) {
        const Entry& entry = entries_[place];
        if (entry.state != EntryState::left && entry.group >= from) {
            places.emplace_back(entry.group, place);
        }
    }
    const size_t count = std::min(budget, places.size());
    std::partial_sort(places.begin(), places.begin() + static_cast<ptrdiff_t>(count), places.end());
    for (size_t i = 0; i < count; ++i) {
        at = {places[i].first, name};
        GroupRow row;
        if (row_of(places[i].second, row) && !visit(row)) {
            return true;
        }
    }
    return count < places.size();
}

void State::Impl::set_told_fading(Entry& entry, bool is_fading)
{
    told_fading_ += (is_fading ? size_t{1} : 0) - (entry.told_fading ? size_t{1} : 0);
    entry.told_fading = is_fading;
}

bool State::Impl::walk_fading(uint32_t& at, size_t budget, bool all,
                              const std::function<void(const GroupRow&)>& visit)
{
    for (; at < entries_.end() && budget > 0; ++at, --budget) {
        GroupRow row;
        if (!row_of(at, row)) {
            continue;
        }
        const bool is_fading = row.state != GroupState::joined;
        if (all || is_fading != entries_[at].told_fading) {
            set_told_fading(entries_[at], is_fading);
            visit(row);
        }
    }
    return at < entries_.end();
}

bool State::Impl::may_have_fading() const
{
    return told_fading_ > 0 || lingering_ > 0 ||
           std::any_of(agents_.begin(), agents_.end(),
                       [](const auto& a) { return a != nullptr && a->stale != 0; });
}

bool State::Impl::find_group(const std::string& name, uint32_t group, GroupRow& row) const
{
    const int number = agent_named(name);
    const int64_t place = number >= 0 ? find_entry(number, group) : -1;
    return place >= 0 && row_of(static_cast<uint32_t>(place), row);
}

// ---- the public face --------------------------------------------------------------------------

State::State(StateOptions options, Counters& counters)
    : impl_(std::make_unique<Impl>(std::move(options), counters))
{
}

State::~State() = default;

void State::add_sink(Sink* sink)
{
    impl_->add_sink(sink);
}

void State::apply(const std::string& listener, const std::string& address, uint16_t port, LineKind kind,
                  uint32_t group, Now now)
{
    const int agent = find_agent(listener, address, now);
    if (agent >= 0) {
        impl_->apply(agent, port, kind, group, now);
    }
}

int State::find_agent(const std::string& listener, const std::string& address, Now now)
{
    return impl_->find_agent(listener, address, "", now);
}

void State::apply(int agent, uint16_t port, LineKind kind, uint32_t group, Now now)
{
    impl_->apply(agent, port, kind, group, now);
}

void State::end_of_stream(const std::string& listener, const std::string& address, Now now)
{
    const int agent = impl_->known_agent(listener, address);
    if (agent >= 0) {
        impl_->end_of_stream(agent, now);
    }
}

int64_t State::tick(Now now)
{
    return impl_->tick(now);
}

void State::rename(const std::map<std::string, std::string>& names)
{
    impl_->rename(names);
}

bool State::restore(const RestoredRow& row, Now now)
{
    return impl_->restore(row, now);
}

bool State::walk_groups(GroupCursor& at, size_t budget,
                        const std::function<bool(const GroupRow&)>& visit) const
{
    return impl_->walk(at, budget, visit);
}

bool State::walk_groups_of(const std::string& agent, GroupCursor& at, size_t budget,
                           const std::function<bool(const GroupRow&)>& visit) const
{
    return impl_->walk_of(agent, at, budget, visit);
}

bool State::walk_fading(uint32_t& at, size_t budget, bool all,
                        const std::function<void(const GroupRow&)>& visit)
{
    return impl_->walk_fading(at, budget, all, visit);
}

bool State::may_have_fading() const
{
    return impl_->may_have_fading();
}

bool State::find_group(const std::string& agent, uint32_t group, GroupRow& row) const
{
    return impl_->find_group(agent, group, row);
}

void State::each_agent(const std::function<void(const AgentRow&)>& visit) const
{
    impl_->each_agent(visit);
}

size_t State::agent_count() const
{
    return impl_->agent_count();
}

size_t State::group_count() const
{
    return impl_->group_count();
}

uint64_t State::generation() const
{
    return impl_->generation();
}

uint64_t State::last_seq() const
{
    return impl_->last_seq();
}

} // namespace zentmon
