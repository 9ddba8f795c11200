// The history's file: SQLite with a write-ahead log. Table `event` has a row for each event, table `joined`
// one for each joined group; both change in the same transaction.
//
// event.n counts the events of all lives of the daemon. Which n a life's sequence numbers have stands in
// `boot`: n = first + (seq - seq0) from the row's first on, up to that of the next row. `block` has the
// earliest and the latest time of each 4,096 values of n, so that a question about a time, or an answer in
// pieces, reads only what it needs and `event` needs no index: an index costs each event more than all the
// rest.
//
// No thread of its own; one object belongs to one thread at a time.
#ifndef ZENTMON_STORE_H
#define ZENTMON_STORE_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "event.h"
#include "state.h"

struct sqlite3;
struct sqlite3_stmt;

namespace zentmon {

// What /history.json is asked.
struct HistoryQuery {
    uint32_t group = 0; // host byte order; 0: all
    std::string agent;  // empty: all
    int64_t from_ms = INT64_MIN;
    int64_t to_ms = INT64_MAX; // both are inside
    size_t limit = 1000;
    std::string before_boot; // only what is older than this event; empty: from the newest on
    uint64_t before_seq = 0;

    static constexpr size_t kMaxLimit = 100'000;

    // Takes one parameter: group, agent, from, to, limit or before. False where name or value is none; an
    // empty value is the default.
    bool set(std::string_view name, std::string_view value);
};

// What goes to the file, in the order in which it happened.
struct StoreItem {
    enum Kind : uint8_t {
        happened,   // an event
        row,        // a joined group as the state has it: since is event.time_ms, fading one that is no join
        sync_begin, // from here on each joined group comes as a row, or as an event
        sync_end    // that was all of them: `joined` holds no others
    };

    Kind kind;
    Event event;
};

using StoreItems = std::vector<std::vector<StoreItem>>;

// A prepared statement.
class Statement {
  public:
    Statement() = default;
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    int prepare(sqlite3* db, const char* sql); // an SQLite code
    void close();
    Statement& bind(int index, int64_t value);
    Statement& bind(int index, std::string_view text); // borrowed until the next run
    int step();                                        // an SQLite code; resets at an end and a failure

    bool run() { return finished(step()); } // a statement without rows

    void reset();
    int64_t number(int column) const;
    std::string_view text(int column) const;

  private:
    static bool finished(int code);
    sqlite3_stmt* stmt_ = nullptr;
};

class Store {
  public:
    Store();
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    // Opens the file, makes it where there is none, and checks that it is ours. False with error().
    bool open(const std::string& path, int64_t busy_ms = 1000);
    void close();

    bool is_open() const { return db_ != nullptr; }

    // Why the last call failed, in one line.
    const std::string& error() const { return error_; }

    // Calls visit for each row of `joined`. False with error().
    bool read_joined(const std::function<void(const RestoredRow&)>& visit);

    // Writes the items of a queue in one transaction. All of them, or false with error() and nothing written:
    // the store must then be opened anew.
    bool write(const StoreItems& items);

    // Deletes events before a time, of at most `blocks` blocks. How many it worked on, or -1 with error().
    int prune(int64_t before_ms, int blocks);

    // An answer under way: advance() reads until a time (CLOCK_MONOTONIC, milliseconds), and says whether it
    // is done. `ok` is false where the file failed.
    class Reading {
      public:
        Reading(Store& store, HistoryQuery query);
        bool advance(int64_t until_ms);

        // Ends the answer here: it says where to go on.
        void finish();

        bool ok = true;
        std::string body; // JSON; complete when done

      private:
        bool start();
        bool next_block();
        bool read_block();
        void add(int64_t n);

        Store& store_;
        HistoryQuery query_;
        std::string group_;
        bool started_ = false;
        int64_t below_ = INT64_MAX; // only smaller n
        int64_t block_ = 0;         // where it reads
        size_t count_ = 0;
    };

  private:
    struct Boot {
        std::string boot;
        int64_t seq0;
    };

    struct Change {
        int64_t key;
        const StoreItem* item;
    };

    bool fail(const char* what);
    bool exec(const char* sql);
    bool check_schema();
    bool prepare_all();
    bool load();
    bool load_sources();
    bool write_items(const StoreItems& items);
    bool write_item(const StoreItem& item);
    bool write_event(const Event& event);
    bool note_boot(uint64_t seq);
    bool note_block(int64_t n, int64_t time_ms);
    bool flush_block();
    bool write_changes();
    bool put_joined(int64_t key, const Event& event);
    bool drop_unseen();
    int64_t key_of(const Event& event);
    int64_t place_of(const std::string& boot, uint64_t seq) const;
    bool append_id(std::string& out, int64_t n) const;
    bool prune_block(int64_t block, int64_t last_ms, int64_t before_ms);
    bool forget_boots();

    sqlite3* db_ = nullptr;
    std::string error_;
    Statement insert_event_, insert_boot_, put_block_, put_joined_, delete_joined_;
    Statement old_block_, delete_events_, delete_block_, shrink_block_, find_block_, read_events_;

    int64_t next_n_ = 1;
    std::map<int64_t, Boot> boots_; // by first
    bool has_boot_ = false;         // the row of this life is written
    int64_t base_ = 0;              // n of an event of this life, less its sequence number
    int64_t block_ = -1;            // the one that is being filled
    int64_t block_first_ = 0, block_last_ = 0;
    std::unordered_map<std::string, int64_t> sources_; // listener and address: number in the keys of `joined`
    int64_t next_source_ = 0;
    std::vector<Change> changes_; // kept for its memory
    bool syncing_ = false;
    bool sync_ends_ = false;    // with these items
    size_t sync_from_ = 0;      // changes before this one are older than its beginning
    std::vector<int64_t> seen_; // keys, while it synchronises
    std::string key_text_;
};

} // namespace zentmon

#endif
