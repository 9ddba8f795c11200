// --db: what happened, and what is joined, in a file that outlives the daemon. One worker thread writes, once
// a second, and answers questions; between it and the loop stands a bounded queue. A file that cannot be
// written to costs history, never the loop's time: the daemon goes on and tries again.
#ifndef ZENTMON_HISTORY_H
#define ZENTMON_HISTORY_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "counters.h"
#include "event.h"
#include "history_reader.h"
#include "loop.h"
#include "notices.h"
#include "state.h"
#include "store.h"
#include "worker.h"

namespace zentmon {

struct HistoryOptions {
    std::string path;
    int keep_days = 90;
    size_t queue = 1'000'000; // events that wait at most; what is beyond is lost and counted
    int64_t commit_ms = 950;  // from one transaction to the next: with its own time, a second
    int64_t mark_ms = 5000;   // between looks for groups that are stale or linger
};

class History : public Sink, public HistoryReader, public Handler {
  public:
    using Answered = std::function<void(HistoryAnswer)>;

    // Questions that wait at most; what is beyond finds the history away.
    static constexpr size_t kMaxQuestions = 64;

    History(HistoryOptions options, std::shared_ptr<Notices> notices, State& state);
    ~History() override;

    // Opens the file and puts what was joined back into the state. For the start of the program alone, since
    // it waits for the disk. False where the file is away: a line tells why, and it is tried again later.
    bool restore();

    // Starts the worker. 0, or -1 with a line.
    int start();

    void on_event(const Event& event) override;

    bool ask(const Parameters& parameters, Answered done) override;
    void publish_counters(Counters& counters) const;
    void on_readable() override;

    // Writes what waits and closes the file; gives up after limit_ms.
    void stop(int64_t limit_ms = 15'000);

  private:
    struct Shared;
    class Keeper;

    void push(StoreItem::Kind kind, const Event& event);
    void take_late_rows(const std::vector<RestoredRow>& rows);
    void push_row(const GroupRow& row);
    bool has_room_for_rows() const;
    void mark_piece();
    void begin_sync();
    void sync_piece();

    std::shared_ptr<Shared> shared_;
    std::shared_ptr<Notices> notices_;
    State& state_;
    Worker worker_;
    Watch watch_;
    std::map<uint64_t, Answered> questions_;
    uint64_t last_question_ = 0;
    bool overflowed_ = false;

    // what `joined` says of groups that are stale or linger: no event tells of that
    Timer mark_timer_;
    uint32_t mark_at_ = 0; // the records that the next piece looks at

    // `joined` made equal to the state, a piece at a time
    Timer sync_timer_;
    bool sync_wanted_ = false;
    uint32_t sync_at_ = 0;
};

} // namespace zentmon

#endif
