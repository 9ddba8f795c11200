// The queue before the history's file, and the worker behind it.
#include "history.h"

#include <algorithm>
#include <atomic>
#include <ctime>
#include <deque>
#include <mutex>
#include <poll.h>
#include <set>
#include <utility>

#include "log.h"

DECLARE_MLL(MLL_COMMON);

namespace zentmon {

namespace {

constexpr size_t kChunk = 4096;          // items of a piece of the queue
constexpr size_t kSyncPiece = 2000;      // groups of a piece of a synchronisation
constexpr size_t kSyncWaiting = 200'000; // that wait at most
constexpr int64_t kSyncPauseMs = 10;     // between two of them
constexpr int64_t kSyncLaterMs = 1000;   // until there is room for one
constexpr size_t kMarkPiece = 5000;      // groups of a piece of a look for those that are stale or linger
constexpr int64_t kFirstRetryMs = 1000;
constexpr int64_t kLongestRetryMs = 30'000;
constexpr int64_t kSliceMs = 50;         // of a question, then the writing has its turn
constexpr int64_t kLongestReadMs = 5000; // of one question: what it has by then is the answer
constexpr int64_t kPrunePauseMs = 60'000;
constexpr int kPruneBlocks = 64;
constexpr int64_t kDayMs = 86'400'000;

int64_t monotonic_ms()
{
    return now().mono_ms;
}

} // namespace

struct History::Shared {
    explicit Shared(HistoryOptions o) : options(std::move(o)) {}

    struct Question {
        uint64_t number;
        HistoryQuery query;
    };

    const HistoryOptions options;
    Store store; // the worker's once it runs
    Bell to_worker;
    Bell to_loop;

    mutable std::mutex mutex;
    StoreItems queue;
    size_t waiting = 0; // events in the queue, and those the worker has in hand
    size_t rows = 0;    // rows of a synchronisation, the same
    uint64_t lost = 0;  // since the start
    bool up = false;
    bool stopping = false;
    std::deque<Question> questions;
    std::vector<std::pair<uint64_t, HistoryAnswer>> answers;
    std::vector<RestoredRow> late_rows;
    bool restored = false;
    bool sync_wanted = false;
};

// The worker's side.
class History::Keeper {
  public:
    Keeper(Shared& shared, Notices& notices) : shared_(shared), notices_(notices) {}

    void run();

  private:
    void wait() const;
    bool open();
    void after_open();
    void down();
    void take_queue();
    void commit();
    void prune();
    void answer_slice();
    bool next_question();
    void answer(HistoryAnswer what);
    void answer_away();
    bool is_stopping() const;
    void end();

    Shared& shared_;
    Notices& notices_;
    StoreItems hand_; // taken, not yet written
    int64_t next_commit_ = 0;
    int64_t next_try_ = 0;
    int64_t retry_ms_ = kFirstRetryMs;
    int64_t next_prune_ = 0;
    std::string told_; // the reason in the last line about an outage
    uint64_t lost_told_ = 0;
    std::unique_ptr<Store::Reading> reading_;
    uint64_t question_ = 0;
    int64_t read_limit_ = 0;
};

void History::Keeper::run()
{
    if (shared_.store.is_open()) {
        after_open();
    } else {
        told_ = shared_.store.error(); // restore() has told it
        next_try_ = monotonic_ms() + retry_ms_;
    }
    while (!is_stopping()) {
        wait();
        const int64_t at = monotonic_ms();
        if (!shared_.store.is_open() && at >= next_try_) {
            open();
        }
        if (shared_.store.is_open() && at >= next_commit_) {
            next_commit_ = at + shared_.options.commit_ms;
            commit();
        }
        if (shared_.store.is_open() && at >= next_prune_) {
            prune();
        }
        answer_slice();
    }
    end();
}

bool History::Keeper::is_stopping() const
{
    const std::lock_guard lock(shared_.mutex);
    return shared_.stopping;
}

void History::Keeper::wait() const
{
    const bool is_open = shared_.store.is_open();
    const int64_t due = is_open ? std::min(next_commit_, next_prune_) : next_try_;
    const int64_t pause = reading_ != nullptr ? 0 : std::max<int64_t>(due - monotonic_ms(), 0);
    struct pollfd bell = {shared_.to_worker.fd(), POLLIN, 0};
    poll(&bell, 1, static_cast<int>(pause));
    shared_.to_worker.quiet();
}

bool History::Keeper::open()
{
    if (!shared_.store.open(shared_.options.path)) {
        down();
        return false;
    }
    std::vector<RestoredRow> rows;
    bool restored;
    {
        const std::lock_guard lock(shared_.mutex);
        restored = shared_.restored;
    }
    if (!restored && !shared_.store.read_joined([&rows](const RestoredRow& row) { rows.push_back(row); })) {
        down();
        return false;
    }
    {
        const std::lock_guard lock(shared_.mutex);
        shared_.restored = true;
        shared_.late_rows = std::move(rows);
        shared_.sync_wanted = true; // nobody knows what became of the file
    }
    shared_.to_loop.ring();
    after_open();
    return true;
}

void History::Keeper::after_open()
{
    uint64_t lost;
    {
        const std::lock_guard lock(shared_.mutex);
        shared_.up = true;
        lost = shared_.lost;
    }
    retry_ms_ = kFirstRetryMs;
    next_commit_ = next_prune_ = monotonic_ms();
    if (!told_.empty()) {
        notices_.post(NORM_level, "history: %s: works again, %llu events were lost meanwhile",
                      shared_.options.path.c_str(), static_cast<unsigned long long>(lost - lost_told_));
    }
    lost_told_ = lost;
    told_.clear();
}

// One line for an outage, and one more where its reason changes.
void History::Keeper::down()
{
    if (shared_.store.error() != told_) {
        told_ = shared_.store.error();
        notices_.post(ERR_level, "history: %s: %s: going on without history, trying again",
                      shared_.options.path.c_str(), told_.c_str());
    }
    shared_.store.close();
    {
        const std::lock_guard lock(shared_.mutex);
        shared_.up = false;
    }
    next_try_ = monotonic_ms() + retry_ms_;
    retry_ms_ = std::min(retry_ms_ * 2, kLongestRetryMs);
    if (reading_ != nullptr) {
        reading_ = nullptr;
        answer({true, {}});
    }
}

void History::Keeper::take_queue()
{
    const std::lock_guard lock(shared_.mutex);
    if (hand_.empty()) {
        hand_.swap(shared_.queue);
    } else {
        std::move(shared_.queue.begin(), shared_.queue.end(), std::back_inserter(hand_));
        shared_.queue.clear();
    }
}

void History::Keeper::commit()
{
    take_queue();
    if (hand_.empty()) {
        return;
    }
    if (!shared_.store.write(hand_)) {
        down();
        return;
    }
    size_t events = 0;
    size_t rows = 0;
    for (const auto& chunk : hand_) {
        for (const StoreItem& item : chunk) {
            ++(item.kind == StoreItem::happened ? events : rows);
        }
    }
    hand_.clear();
    const std::lock_guard lock(shared_.mutex);
    shared_.waiting -= events;
    shared_.rows -= rows;
}

void History::Keeper::prune()
{
    const int64_t before = now().wall_ms - shared_.options.keep_days * kDayMs;
    const int done = shared_.store.prune(before, kPruneBlocks);
    if (done < 0) {
        down();
        return;
    }
    next_prune_ = monotonic_ms() + (done == kPruneBlocks ? kSliceMs : kPrunePauseMs);
}

// ---- questions --------------------------------------------------------------------------------

void History::Keeper::answer_slice()
{
    if (!shared_.store.is_open()) {
        answer_away();
        return;
    }
    if (reading_ == nullptr && !next_question()) {
        return;
    }
    const int64_t at = monotonic_ms();
    bool done = reading_->advance(at + kSliceMs);
    if (reading_->ok && !done && monotonic_ms() >= read_limit_) {
        reading_->finish();
        done = true;
    }
    if (!reading_->ok) {
        notices_.post(ERR_level, "history: %s: a question could not be answered",
                      shared_.options.path.c_str());
        reading_ = nullptr;
        answer({true, {}});
    } else if (done) {
        std::string body = std::move(reading_->body);
        reading_ = nullptr;
        answer({false, std::move(body)});
    }
}

// Takes up the next one.
bool History::Keeper::next_question()
{
    const std::lock_guard lock(shared_.mutex);
    if (shared_.questions.empty()) {
        return false;
    }
    question_ = shared_.questions.front().number;
    read_limit_ = monotonic_ms() + kLongestReadMs;
    reading_ = std::make_unique<Store::Reading>(shared_.store, std::move(shared_.questions.front().query));
    shared_.questions.pop_front();
    return true;
}

void History::Keeper::answer(HistoryAnswer what)
{
    bool more;
    {
        const std::lock_guard lock(shared_.mutex);
        shared_.answers.emplace_back(question_, std::move(what));
        more = !shared_.questions.empty();
    }
    shared_.to_loop.ring();
    if (more) {
        shared_.to_worker.ring();
    }
}

void History::Keeper::answer_away()
{
    const std::lock_guard lock(shared_.mutex);
    for (const Shared::Question& question : shared_.questions) {
        shared_.answers.emplace_back(question.number, HistoryAnswer{true, {}});
    }
    if (!shared_.questions.empty()) {
        shared_.to_loop.ring();
    }
    shared_.questions.clear();
}

// One last attempt, also where the file was away.
void History::Keeper::end()
{
    take_queue();
    if (!hand_.empty() && (shared_.store.is_open() || shared_.store.open(shared_.options.path))) {
        commit();
    }
    size_t left;
    {
        const std::lock_guard lock(shared_.mutex);
        left = shared_.waiting;
        shared_.up = false;
    }
    if (left > 0) {
        notices_.post(WARN_level, "history: %s: %zu events were not written", shared_.options.path.c_str(),
                      left);
    }
    shared_.store.close();
}

// ---- the loop's side --------------------------------------------------------------------------

History::History(HistoryOptions options, std::shared_ptr<Notices> notices, State& state)
    : shared_(std::make_shared<Shared>(std::move(options))),
      notices_(std::move(notices)),
      state_(state),
      mark_timer_([this] { mark_piece(); }),
      sync_timer_([this] { sync_piece(); })
{
}

History::~History()
{
    stop();
}

bool History::restore()
{
    const Now at = now();
    size_t rows = 0;
    Store& store = shared_->store;
    if (!store.open(shared_->options.path) || !store.read_joined([this, &at, &rows](const RestoredRow& row) {
            rows += state_.restore(row, at) ? 1 : 0;
        })) {
        log_err("history: %s: %s: going on without history, trying again\n", shared_->options.path.c_str(),
                store.error().c_str());
        store.close();
        return false;
    }
    shared_->restored = true;
    if (rows > 0) {
        log_info("history: %s: %zu joined groups restored\n", shared_->options.path.c_str(), rows);
    }
    return true;
}

int History::start()
{
    if (watch_.start(shared_->to_loop.fd(), this) != 0) {
        return -1;
    }
    mark_timer_.start_ms(shared_->options.mark_ms);
    return worker_.start("zentmon-history",
                         [shared = shared_, notices = notices_] { Keeper(*shared, *notices).run(); });
}

void History::on_event(const Event& event)
{
    push(StoreItem::happened, event);
}

void History::push(StoreItem::Kind kind, const Event& event)
{
    const std::lock_guard lock(shared_->mutex);
    if (kind == StoreItem::happened && shared_->waiting >= shared_->options.queue) {
        if (!overflowed_) {
            log_warn("history: %s: %zu events wait: more are lost\n", shared_->options.path.c_str(),
                     shared_->waiting);
        }
        overflowed_ = true;
        ++shared_->lost;
        sync_wanted_ = true; // `joined` misses what is lost
        if (!sync_timer_.runs()) {
            sync_timer_.start_ms(kSyncLaterMs);
        }
        return;
    }
    ++(kind == StoreItem::happened ? shared_->waiting : shared_->rows);
    if (shared_->queue.empty() || shared_->queue.back().size() == kChunk) {
        shared_->queue.emplace_back().reserve(kChunk);
    }
    shared_->queue.back().push_back({kind, event});
}

bool History::ask(const Parameters& parameters, Answered done)
{
    HistoryQuery query;
    for (const auto& [name, value] : parameters) {
        if (!query.set(name, value)) {
            return false;
        }
    }
    if (questions_.size() >= kMaxQuestions) {
        done({true, {}});
        return true;
    }
    questions_[++last_question_] = std::move(done);
    {
        const std::lock_guard lock(shared_->mutex);
        shared_->questions.push_back({last_question_, std::move(query)});
    }
    shared_->to_worker.ring();
    return true;
}

void History::publish_counters(Counters& counters) const
{
    const std::lock_guard lock(shared_->mutex);
    counters.history_configured = true;
    counters.history_up = shared_->up;
    counters.history_queue = shared_->waiting;
    counters.history_lost = shared_->lost;
}

void History::on_readable()
{
    shared_->to_loop.quiet();
    std::vector<std::pair<uint64_t, HistoryAnswer>> answers;
    std::vector<RestoredRow> rows;
    bool sync = false;
    {
        const std::lock_guard lock(shared_->mutex);
        answers.swap(shared_->answers);
        rows.swap(shared_->late_rows);
        std::swap(sync, shared_->sync_wanted);
    }
    take_late_rows(rows);
    if (sync) {
        begin_sync();
    }
    for (auto& [number, answer] : answers) {
        const auto found = questions_.find(number);
        if (found != questions_.end()) {
            const Answered answered = std::move(found->second);
            questions_.erase(found);
            answered(std::move(answer));
        }
    }
}

// The file came late: an agent that has spoken since the start is known better than the file knows it.
void History::take_late_rows(const std::vector<RestoredRow>& rows)
{
    if (rows.empty()) {
        return;
    }
    std::set<std::pair<std::string, std::string>> spoken;
    state_.each_agent(
        [&spoken](const AgentRow& row) { spoken.emplace(row.who->listener, row.who->address); });
    const Now at = now();
    size_t restored = 0;
    for (const RestoredRow& row : rows) {
        if (spoken.count({row.listener, row.address}) == 0) {
            restored += state_.restore(row, at) ? 1 : 0;
        }
    }
    log_info("history: %s: %zu joined groups restored late\n", shared_->options.path.c_str(), restored);
}

void History::push_row(const GroupRow& row)
{
    const EventKind kind = row.state == GroupState::joined ? EventKind::join : EventKind::expire;
    push(StoreItem::row, {0, row.since_ms, kind, row.group, std::make_shared<AgentName>(*row.who)});
}

bool History::has_room_for_rows() const
{
    const std::lock_guard lock(shared_->mutex);
    return shared_->rows < kSyncWaiting;
}

// A group that is stale or lingers must not come back as a joined one: nobody may ever say that it is left.
// Where the file is away or slow, what it knows stays known until it has caught up.
void History::mark_piece()
{
    bool more = false;
    if (has_room_for_rows() && state_.may_have_fading()) {
        more =
            state_.walk_fading(mark_at_, kMarkPiece, false, [this](const GroupRow& row) { push_row(row); });
    }
    mark_at_ = more ? mark_at_ : 0;
    mark_timer_.start_ms(more ? kSyncPauseMs : shared_->options.mark_ms);
}

void History::begin_sync()
{
    sync_wanted_ = true;
    sync_timer_.start_ms(0);
}

void History::sync_piece()
{
    bool room;
    {
        const std::lock_guard lock(shared_->mutex);
        room = shared_->up && shared_->waiting < shared_->options.queue / 2 && shared_->rows < kSyncWaiting;
    }
    if (!room) {
        sync_timer_.start_ms(kSyncLaterMs);
        return;
    }
    if (sync_wanted_) {
        sync_wanted_ = false;
        overflowed_ = false;
        sync_at_ = 0;
        push(StoreItem::sync_begin, {});
    }
    const bool more =
        state_.walk_fading(sync_at_, kSyncPiece, true, [this](const GroupRow& row) { push_row(row); });
    if (more) {
        sync_timer_.start_ms(kSyncPauseMs);
    } else {
        push(StoreItem::sync_end, {});
    }
}

void History::stop(int64_t limit_ms)
{
    watch_.stop();
    if (mark_timer_.runs()) {
        mark_timer_.stop();
        uint32_t at = 0;
        if (has_room_for_rows()) {
            state_.walk_fading(at, SIZE_MAX, false, [this](const GroupRow& row) { push_row(row); });
        }
    }
    sync_timer_.stop();
    {
        const std::lock_guard lock(shared_->mutex);
        shared_->stopping = true;
    }
    shared_->to_worker.ring();
    if (!worker_.join_within(limit_ms)) {
        log_warn("history: %s: does not end in %lld ms: left as it is\n", shared_->options.path.c_str(),
                 static_cast<long long>(limit_ms));
    }
}

} // namespace zentmon
