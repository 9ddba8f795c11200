// The history's file.
#include "store.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cmath>
#include <cstring>
#include <ctime>
#include <sqlite3.h>

namespace zentmon {

namespace {

constexpr int kSchemaVersion = 1;
constexpr int kBlockShift = 12; // 4,096 events a block

constexpr const char* kSchema =
    "BEGIN IMMEDIATE;"
    "CREATE TABLE event(n INTEGER PRIMARY KEY, time INTEGER NOT NULL, event TEXT NOT NULL, agent TEXT NOT NULL,"
    " address TEXT NOT NULL, listener TEXT NOT NULL, \"group\" TEXT NOT NULL);"
    "CREATE TABLE joined(k INTEGER PRIMARY KEY, \"group\" TEXT NOT NULL, agent TEXT NOT NULL,"
    " address TEXT NOT NULL, listener TEXT NOT NULL, since INTEGER NOT NULL, fading INTEGER NOT NULL);"
    "CREATE TABLE boot(first INTEGER PRIMARY KEY, boot TEXT NOT NULL, seq0 INTEGER NOT NULL);"
    "CREATE TABLE block(b INTEGER PRIMARY KEY, first INTEGER NOT NULL, last INTEGER NOT NULL);"
    "CREATE VIEW history AS SELECT (SELECT boot || '-' || (seq0 + event.n - first) FROM boot"
    " WHERE first <= event.n ORDER BY first DESC LIMIT 1) AS id,"
    " strftime('%Y-%m-%dT%H:%M:%fZ', time / 1000.0, 'unixepoch') AS time,"
    " event, agent, address, listener, \"group\" FROM event;"
    "PRAGMA application_id = 2053468788;" // "zent"
    "PRAGMA user_version = 1;"
    "COMMIT";

int64_t monotonic_ms()
{
    struct timespec t = {};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1'000'000;
}

// Unix seconds with a fraction, as milliseconds.
bool read_seconds(std::string_view text, int64_t& ms)
{
    double seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (error != std::errc() || end != text.data() + text.size() || !(std::fabs(seconds) < 1e12)) {
        return false;
    }
    ms = std::llround(seconds * 1000);
    return true;
}

bool read_group(std::string_view text, uint32_t& group)
{
    in_addr address = {};
    if (text.size() > 15 || inet_pton(AF_INET, std::string(text).c_str(), &address) != 1) {
        return false;
    }
    group = ntohl(address.s_addr);
    return group >> 28 == 0xe;
}

bool read_agent(std::string_view text, std::string& agent)
{
    const auto is_fine = [](unsigned char c) { return isalnum(c) != 0 || strchr("._:-", c) != nullptr; };
    if (text.size() > 64 || !std::all_of(text.begin(), text.end(), is_fine)) {
        return false;
    }
    agent = text;
    return true;
}

template <typename Number>
bool read_whole(std::string_view text, Number& number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

bool read_id(std::string_view text, std::string& boot, uint64_t& seq)
{
    const auto is_hex = [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); };
    if (text.size() < 18 || text[16] != '-' || !std::all_of(text.begin(), text.begin() + 16, is_hex) ||
        !read_whole(text.substr(17), seq) || seq > INT64_MAX) {
        return false;
    }
    boot = text.substr(0, 16);
    return true;
}

} // namespace

bool HistoryQuery::set(std::string_view name, std::string_view value)
{
    static constexpr std::string_view kNames[] = {"group", "agent", "from", "to", "limit", "before"};
    if (value.empty()) {
        return std::find(std::begin(kNames), std::end(kNames), name) != std::end(kNames);
    }
    if (name == "group") {
        return read_group(value, group);
    }
    if (name == "agent") {
        return read_agent(value, agent);
    }
    if (name == "from") {
        return read_seconds(value, from_ms);
    }
    if (name == "to") {
        return read_seconds(value, to_ms);
    }
    if (name == "limit") {
        return read_whole(value, limit) && limit >= 1 && limit <= kMaxLimit;
    }
    return name == "before" && read_id(value, before_boot, before_seq);
}

// ---- statements -------------------------------------------------------------------------------

Statement::~Statement()
{
    close();
}

int Statement::prepare(sqlite3* db, const char* sql)
{
    close();
    return sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt_, nullptr);
}

void Statement::close()
{
    sqlite3_finalize(stmt_);
    stmt_ = nullptr;
}

Statement& Statement::bind(int index, int64_t value)
{
    sqlite3_bind_int64(stmt_, index, value);
    return *this;
}

Statement& Statement::bind(int index, std::string_view text)
{
    sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
    return *this;
}

int Statement::step()
{
    const int code = sqlite3_step(stmt_);
    if (code != SQLITE_ROW) {
        sqlite3_reset(stmt_);
    }
    return code;
}

bool Statement::finished(int code)
{
    return code == SQLITE_DONE;
}

void Statement::reset()
{
    sqlite3_reset(stmt_);
}

int64_t Statement::number(int column) const
{
    return sqlite3_column_int64(stmt_, column);
}

std::string_view Statement::text(int column) const
{
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
    return text != nullptr ? std::string_view(text, static_cast<size_t>(sqlite3_column_bytes(stmt_, column)))
                           : std::string_view();
}

// ---- opening ----------------------------------------------------------------------------------

Store::Store() = default;

Store::~Store()
{
    close();
}

bool Store::fail(const char* what)
{
    error_ = what;
    if (db_ != nullptr && sqlite3_errcode(db_) != SQLITE_OK && sqlite3_errcode(db_) != SQLITE_DONE) {
        error_ += ": ";
        error_ += sqlite3_errmsg(db_);
    }
    return false;
}

bool Store::exec(const char* sql)
{
    return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool Store::open(const std::string& path, int64_t busy_ms)
{
    close();
    constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(path.c_str(), &db_, kFlags, nullptr) != SQLITE_OK) {
        fail("cannot be opened");
        close();
        return false;
    }
    sqlite3_busy_timeout(db_, static_cast<int>(busy_ms));
    if (sqlite3_db_readonly(db_, "main") == 1) {
        error_ = "is read-only";
    } else if (check_schema() && prepare_all() && load()) {
        return true;
    }
    close();
    return false;
}

void Store::close()
{
    for (Statement* statement :
         {&insert_event_, &insert_boot_, &put_block_, &put_joined_, &delete_joined_, &old_block_,
          &delete_events_, &delete_block_, &shrink_block_, &find_block_, &read_events_}) {
        statement->close();
    }
    sqlite3_close(db_);
    db_ = nullptr;
    next_n_ = 1;
    boots_.clear();
    has_boot_ = false;
    block_ = -1;
    sources_.clear();
    next_source_ = 0;
    syncing_ = false;
    seen_ = {};
}

// A file is ours by its version and its application, or it is empty and becomes ours.
bool Store::check_schema()
{
    Statement ask;
    if (ask.prepare(db_, "SELECT (SELECT count(*) FROM sqlite_master), (SELECT * FROM pragma_user_version),"
                         " (SELECT * FROM pragma_application_id)") != SQLITE_OK ||
        ask.step() != SQLITE_ROW) {
        return fail("cannot be read");
    }
    const bool is_empty = ask.number(0) == 0;
    const int64_t version = ask.number(1);
    const bool is_ours = ask.number(2) == 2053468788;
    ask.close();
    if (!is_empty && !is_ours) {
        error_ = "is another program's database";
        return false;
    }
    if (version > kSchemaVersion) {
        error_ = "has schema version " + std::to_string(version) + ": this program knows 1";
        return false;
    }
    // In this order, since the mode stays with the file.
    if (!exec("PRAGMA journal_mode = WAL") || !exec("PRAGMA synchronous = NORMAL") ||
        !exec("PRAGMA cache_size = -16384") || !exec("PRAGMA journal_size_limit = 67108864")) {
        return fail("cannot be written to");
    }
    if (is_empty && !exec(kSchema)) {
        return fail("cannot be laid out");
    }
    return true;
}

bool Store::prepare_all()
{
    const struct {
        Statement& statement;
        const char* sql;
    } all[] = {
        {insert_event_, "INSERT INTO event VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)"},
        {insert_boot_, "INSERT INTO boot VALUES(?1, ?2, ?3)"},
        {put_block_, "INSERT INTO block VALUES(?1, ?2, ?3) ON CONFLICT(b) DO UPDATE SET"
                     " first = min(first, excluded.first), last = max(last, excluded.last)"},
        {put_joined_, "INSERT OR REPLACE INTO joined VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)"},
        {delete_joined_, "DELETE FROM joined WHERE k = ?1"},
        {old_block_, "SELECT b, last FROM block WHERE first < ?1 ORDER BY b LIMIT 1"},
        {delete_events_, "DELETE FROM event WHERE n >= ?1 AND n < ?2 AND time < ?3"},
        {delete_block_, "DELETE FROM block WHERE b = ?1"},
        {shrink_block_, "UPDATE block SET first = ?2 WHERE b = ?1"},
        {find_block_,
         "SELECT b FROM block WHERE b <= ?1 AND last >= ?2 AND first <= ?3 ORDER BY b DESC LIMIT 1"},
        {read_events_, "SELECT n, time, event, agent, address, listener, \"group\" FROM event"
                       " WHERE n >= ?1 AND n < ?2 AND time >= ?3 AND time <= ?4"
                       " AND (?5 = '' OR agent = ?5) AND (?6 = '' OR \"group\" = ?6) ORDER BY n DESC"},
    };

    for (const auto& entry : all) {
        if (entry.statement.prepare(db_, entry.sql) != SQLITE_OK) {
            return fail("is not as it should be");
        }
    }
    return true;
}

bool Store::load()
{
    Statement ask;
    if (ask.prepare(db_, "SELECT coalesce(max(n), 0) + 1 FROM event") != SQLITE_OK ||
        ask.step() != SQLITE_ROW) {
        return fail("cannot be read");
    }
    next_n_ = ask.number(0);
    if (ask.prepare(db_, "SELECT first, boot, seq0 FROM boot") != SQLITE_OK) {
        return fail("cannot be read");
    }
    int code;
    while ((code = ask.step()) == SQLITE_ROW) {
        boots_[ask.number(0)] = {std::string(ask.text(1)), ask.number(2)};
        next_n_ = std::max(next_n_, ask.number(0) + 1);
    }
    return code == SQLITE_DONE ? load_sources() : fail("cannot be read");
}

// The keys that the rows of `joined` have stay theirs.
bool Store::load_sources()
{
    // One row a source: from its last key on, the next one is another's.
    Statement ask;
    if (ask.prepare(db_, "SELECT k, listener, address FROM joined WHERE k > ?1 ORDER BY k LIMIT 1") !=
        SQLITE_OK) {
        return fail("cannot be read");
    }
    int64_t above = -1;
    int code;
    while ((code = ask.bind(1, above).step()) == SQLITE_ROW) {
        const int64_t number = ask.number(0) >> 32;
        key_text_ = ask.text(1);
        key_text_ += '\n';
        key_text_ += ask.text(2);
        sources_.emplace(key_text_, number);
        above = number << 32 | 0xffffffff;
        next_source_ = number + 1;
        ask.reset();
    }
    return code == SQLITE_DONE || fail("cannot be read");
}

bool Store::read_joined(const std::function<void(const RestoredRow&)>& visit)
{
    Statement ask;
    if (ask.prepare(db_, "SELECT k, agent, address, listener, since, fading FROM joined ORDER BY k") !=
        SQLITE_OK) {
        return fail("cannot be read");
    }
    RestoredRow row = {};
    int code;
    while ((code = ask.step()) == SQLITE_ROW) {
        row.group = static_cast<uint32_t>(ask.number(0));
        row.agent = ask.text(1);
        row.address = ask.text(2);
        row.listener = ask.text(3);
        row.since_ms = ask.number(4);
        row.fading = ask.number(5) != 0;
        if (row.group >> 28 == 0xe) {
            visit(row);
        }
    }
    return code == SQLITE_DONE || fail("cannot be read");
}

// ---- writing ----------------------------------------------------------------------------------

bool Store::write(const StoreItems& items)
{
    int moved = 0;
    sqlite3_file_control(db_, "main", SQLITE_FCNTL_HAS_MOVED, &moved);
    if (moved != 0) {
        error_ = "was moved or deleted";
        return false;
    }
    if (!exec("BEGIN IMMEDIATE")) {
        return fail("cannot be written to");
    }
    if (write_items(items) && exec("COMMIT")) {
        return true;
    }
    fail("cannot be written to");
    exec("ROLLBACK");
    return false;
}

bool Store::write_items(const StoreItems& items)
{
    changes_.clear();
    sync_from_ = 0;
    sync_ends_ = false;
    for (const auto& chunk : items) {
        for (const StoreItem& item : chunk) {
            if (!write_item(item)) {
                return false;
            }
        }
    }
    return flush_block() && write_changes() && (!sync_ends_ || drop_unseen());
}

bool Store::write_item(const StoreItem& item)
{
    switch (item.kind) {
    case StoreItem::happened: changes_.push_back({key_of(item.event), &item}); return write_event(item.event);
    case StoreItem::row: changes_.push_back({key_of(item.event), &item}); return true;
    case StoreItem::sync_begin:
        syncing_ = true;
        sync_ends_ = false;
        seen_.clear();
        sync_from_ = changes_.size();
        return true;
    default: sync_ends_ = syncing_; return true;
    }
}

bool Store::write_event(const Event& event)
{
    if (!has_boot_ && !note_boot(event.seq)) {
        return false;
    }
    const int64_t n = base_ + static_cast<int64_t>(event.seq);
    const std::string_view name = event_name(event.kind);
    key_text_.clear();
    append_group(key_text_, event.group);
    insert_event_.bind(1, n).bind(2, event.time_ms).bind(3, name).bind(4, event.who->agent);
    insert_event_.bind(5, event.who->address).bind(6, event.who->listener).bind(7, key_text_);
    next_n_ = n + 1;
    return insert_event_.run() && note_block(n, event.time_ms);
}

bool Store::note_boot(uint64_t seq)
{
    has_boot_ = true;
    base_ = next_n_ - static_cast<int64_t>(seq);
    boots_[next_n_] = {boot_id(), static_cast<int64_t>(seq)};
    return insert_boot_.bind(1, next_n_).bind(2, boot_id()).bind(3, static_cast<int64_t>(seq)).run();
}

bool Store::note_block(int64_t n, int64_t time_ms)
{
    if (n >> kBlockShift != block_) {
        if (!flush_block()) {
            return false;
        }
        block_ = n >> kBlockShift;
        block_first_ = block_last_ = time_ms;
    }
    block_first_ = std::min(block_first_, time_ms);
    block_last_ = std::max(block_last_, time_ms);
    return true;
}

bool Store::flush_block()
{
    return block_ < 0 || put_block_.bind(1, block_).bind(2, block_first_).bind(3, block_last_).run();
}

// A group that changes several times in a transaction is written once, and the groups in the order of their
// keys: neighbours in the file are changed together.
bool Store::write_changes()
{
    if (syncing_) {
        for (size_t i = sync_from_; i < changes_.size(); ++i) {
            seen_.push_back(changes_[i].key);
        }
    }
    std::stable_sort(changes_.begin(), changes_.end(),
                     [](const Change& a, const Change& b) { return a.key < b.key; });
    for (size_t i = 0; i < changes_.size(); ++i) {
        const auto& [key, item] = changes_[i];
        if (i + 1 < changes_.size() && changes_[i + 1].key == key) {
            continue;
        }
        const bool is_joined = item->kind == StoreItem::row || item->event.kind == EventKind::join;
        if (!(is_joined ? put_joined(key, item->event) : delete_joined_.bind(1, key).run())) {
            return false;
        }
    }
    return true;
}

bool Store::put_joined(int64_t key, const Event& event)
{
    key_text_.clear();
    append_group(key_text_, event.group);
    put_joined_.bind(1, key).bind(2, key_text_).bind(3, event.who->agent).bind(4, event.who->address);
    put_joined_.bind(5, event.who->listener).bind(6, event.time_ms);
    return put_joined_.bind(7, event.kind == EventKind::join ? 0 : 1).run();
}

bool Store::drop_unseen()
{
    std::sort(seen_.begin(), seen_.end());
    std::vector<int64_t> unseen;
    Statement ask;
    if (ask.prepare(db_, "SELECT k FROM joined") != SQLITE_OK) {
        return false;
    }
    int code;
    while ((code = ask.step()) == SQLITE_ROW) {
        if (!std::binary_search(seen_.begin(), seen_.end(), ask.number(0))) {
            unseen.push_back(ask.number(0));
        }
    }
    syncing_ = false;
    seen_ = {};
    return code == SQLITE_DONE && std::all_of(unseen.begin(), unseen.end(), [this](int64_t key) {
               return delete_joined_.bind(1, key).run();
           });
}

// A number for listener and address, and the group.
int64_t Store::key_of(const Event& event)
{
    key_text_ = event.who->listener;
    key_text_ += '\n';
    key_text_ += event.who->address;
    const auto [at, is_new] = sources_.try_emplace(key_text_, next_source_);
    next_source_ += is_new ? 1 : 0;
    return at->second << 32 | event.group;
}

// ---- what is too old --------------------------------------------------------------------------

int Store::prune(int64_t before_ms, int blocks)
{
    int done = 0;
    while (done < blocks) {
        const int code = old_block_.bind(1, before_ms).step();
        if (code == SQLITE_DONE) {
            break;
        }
        if (code != SQLITE_ROW) {
            fail("cannot be read");
            return -1;
        }
        const int64_t block = old_block_.number(0);
        const int64_t last = old_block_.number(1);
        old_block_.reset();
        if (!exec("BEGIN IMMEDIATE") || !prune_block(block, last, before_ms) || !exec("COMMIT")) {
            fail("cannot be written to");
            exec("ROLLBACK");
            return -1;
        }
        ++done;
    }
    if (done > 0 && !forget_boots()) {
        fail("cannot be written to");
        return -1;
    }
    return done;
}

bool Store::prune_block(int64_t block, int64_t last_ms, int64_t before_ms)
{
    const int64_t first_n = block << kBlockShift;
    if (!delete_events_.bind(1, first_n).bind(2, first_n + (1 << kBlockShift)).bind(3, before_ms).run()) {
        return false;
    }
    return last_ms < before_ms ? delete_block_.bind(1, block).run()
                               : shrink_block_.bind(1, block).bind(2, before_ms).run();
}

// A life whose events are all gone is no longer known.
bool Store::forget_boots()
{
    Statement ask;
    if (ask.prepare(db_, "SELECT coalesce(min(n), ?1) FROM event") != SQLITE_OK ||
        ask.bind(1, next_n_).step() != SQLITE_ROW) {
        return false;
    }
    const int64_t oldest = ask.number(0);
    ask.close();
    auto last = boots_.upper_bound(oldest);
    if (last != boots_.begin()) {
        --last;
    }
    for (auto it = boots_.begin(); it != last; it = boots_.erase(it)) {
        if (ask.prepare(db_, "DELETE FROM boot WHERE first = ?1") != SQLITE_OK ||
            !ask.bind(1, it->first).run()) {
            return false;
        }
    }
    return true;
}

// ---- questions --------------------------------------------------------------------------------

// n of an event, also of one that is not written yet or not any more; 0 for an unknown life.
int64_t Store::place_of(const std::string& boot, uint64_t seq) const
{
    int64_t place = boot == boot_id() ? INT64_MAX : 0;
    for (auto it = boots_.begin(); it != boots_.end(); ++it) {
        if (it->second.boot != boot || it->second.seq0 > static_cast<int64_t>(seq)) {
            continue;
        }
        const auto next = std::next(it);
        const int64_t end = next != boots_.end() ? next->first : INT64_MAX;
        place = std::min(it->first + static_cast<int64_t>(seq) - it->second.seq0, end);
    }
    return place;
}

bool Store::append_id(std::string& out, int64_t n) const
{
    auto it = boots_.upper_bound(n);
    if (it == boots_.begin()) {
        return false;
    }
    --it;
    out += it->second.boot;
    out += '-';
    out += std::to_string(it->second.seq0 + n - it->first);
    return true;
}

Store::Reading::Reading(Store& store, HistoryQuery query) : store_(store), query_(std::move(query))
{
    if (query_.group != 0) {
        append_group(group_, query_.group);
    }
    body = "{\"events\":[";
}

bool Store::Reading::start()
{
    if (!query_.before_boot.empty()) {
        below_ = store_.place_of(query_.before_boot, query_.before_seq);
    }
    block_ = (below_ - 1) >> kBlockShift;
    started_ = true;
    return below_ > 1;
}

bool Store::Reading::advance(int64_t until_ms)
{
    if (!started_ && !start()) {
        body += "],\"next\":null}";
        return true;
    }
    do {
        if (!next_block()) {
            body += "],\"next\":null}";
            return true;
        }
        if (read_block()) {
            finish();
            return true;
        }
        below_ = block_ << kBlockShift;
        --block_;
    } while (monotonic_ms() < until_ms);
    return false;
}

// False where there is none any more.
bool Store::Reading::next_block()
{
    Statement& find = store_.find_block_;
    const int code = find.bind(1, block_).bind(2, query_.from_ms).bind(3, query_.to_ms).step();
    if (code != SQLITE_ROW) {
        ok = ok && code == SQLITE_DONE;
        return false;
    }
    block_ = find.number(0);
    find.reset();
    return true;
}

// True where the answer is full; below_ is then the last event in it.
bool Store::Reading::read_block()
{
    Statement& read = store_.read_events_;
    const int64_t first_n = block_ << kBlockShift;
    read.bind(1, first_n).bind(2, std::min(below_, first_n + (1 << kBlockShift)));
    read.bind(3, query_.from_ms).bind(4, query_.to_ms).bind(5, query_.agent).bind(6, group_);
    int code;
    while ((code = read.step()) == SQLITE_ROW) {
        if (count_ == query_.limit) {
            read.reset();
            return true;
        }
        add(read.number(0));
    }
    ok = ok && code == SQLITE_DONE;
    return false;
}

void Store::Reading::add(int64_t n)
{
    const Statement& row = store_.read_events_;
    body += count_++ == 0 ? "{\"id\":\"" : ",{\"id\":\"";
    store_.append_id(body, n);
    body += "\",\"time\":";
    append_time(body, row.number(1));
    body += ",\"event\":\"";
    body += row.text(2);
    static constexpr const char* kFields[] = {
        "\",\"agent\":", ",\"address\":", ",\"listener\":", ",\"group\":"};
    for (int field = 0; field < 4; ++field) {
        body += kFields[field];
        append_quoted(body, std::string(row.text(3 + field)));
    }
    body += '}';
    below_ = n;
}

void Store::Reading::finish()
{
    std::string next;
    if (started_ && store_.append_id(next, below_)) {
        body += "],\"next\":\"" + next + "\"}";
    } else {
        body += "],\"next\":null}";
    }
}

} // namespace zentmon
