// The paths that are served, and the bodies that are made from the state in pieces.
#include "api.h"

#include <charconv>
#include <cmath>

#include <arpa/inet.h>

#include "filter.h"
#include "page.h"

namespace zentmon {

namespace {

constexpr size_t kPieceBytes = size_t{64} * 1024;
constexpr size_t kWalkBudget = 20'000; // places of the order that one piece looks at
constexpr size_t kLimitMax = 10'000'000;
constexpr size_t kHistoryPending = 8;                // questions to the history at once
constexpr size_t kHistoryUnsent = size_t{128} << 20; // bytes of its answers that clients have not taken yet
constexpr size_t kEventsTold = 100;                  // with the activity

template <typename Number>
void append_number(std::string& out, Number number)
{
    char text[24];
    out.append(text, std::to_chars(text, text + sizeof text, number).ptr);
}

template <typename Number>
void append_field(std::string& out, const char* name, Number number)
{
    out += ",\"";
    out += name;
    out += "\":";
    append_number(out, number);
}

void append_text_field(std::string& out, const char* name, const std::string& text)
{
    out += ",\"";
    out += name;
    out += "\":";
    append_quoted(out, text);
}

void append_time_field(std::string& out, const char* name, int64_t time_ms)
{
    out += ",\"";
    out += name;
    out += "\":";
    append_time(out, time_ms);
}

std::string start_of_answer()
{
    std::string out = "{\"now\":";
    append_time(out, now().wall_ms);
    return out;
}

// ---- /groups.json ---------------------------------------------------------------------------------------

struct GroupsQuery {
    Filter filter;
    std::string agent; // empty: all
    size_t limit = kLimitMax;
    GroupCursor after;
};

bool parse_limit(std::string_view text, size_t& limit)
{
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, limit);
    return parsed.ec == std::errc() && parsed.ptr == end && limit <= kLimitMax;
}

// "GROUP,AGENT"
bool parse_cursor(std::string_view text, GroupCursor& cursor)
{
    const size_t comma = text.find(',');
    struct in_addr in = {};
    if (comma == std::string_view::npos ||
        inet_pton(AF_INET, std::string(text.substr(0, comma)).c_str(), &in) != 1) {
        return false;
    }
    cursor.group = ntohl(in.s_addr);
    cursor.agent = text.substr(comma + 1);
    return !cursor.agent.empty();
}

bool parse_groups_query(const Query& query, GroupsQuery& asked)
{
    if (const auto text = query.get("filter")) {
        asked.filter = Filter(*text);
    }
    asked.agent = query.get("agent").value_or("");
    const std::string_view limit = query.get("limit").value_or("");
    const std::string_view after = query.get("after").value_or("");
    return query.only({"filter", "agent", "limit", "after"}) &&
           (limit.empty() || parse_limit(limit, asked.limit)) &&
           (after.empty() || parse_cursor(after, asked.after));
}

void append_row(std::string& out, const GroupRow& row)
{
    out += "{\"group\":\"";
    append_group(out, row.group);
    out += '"';
    append_text_field(out, "agent", row.who->agent);
    append_text_field(out, "address", row.who->address);
    append_text_field(out, "listener", row.who->listener);
    append_time_field(out, "since", row.since_ms);
    append_time_field(out, "last", row.last_ms);
    append_field(out, "joins", row.joins);
    append_field(out, "leaves", row.leaves);
    out += ",\"state\":\"";
    out += group_state_name(row.state);
    out += "\"}";
}

// Two walks through the order of groups, each in pieces: one counts what the filter lets through, where there
// is one, the other writes. Between two pieces the state goes on.
class GroupsBody : public Body {
  public:
    GroupsBody(const State& state, GroupsQuery query) : state_(state), query_(std::move(query))
    {
        if (query_.filter.empty() && query_.agent.empty()) {
            total_ = state_.group_count();
            counted_ = true;
        }
    }

    Step next(std::string& out) override
    {
        if (!counted_) {
            counted_ = !walk(count_at_, [this](const GroupRow& row) {
                total_ += matches(row) ? 1 : 0;
                return true;
            });
            return Step::more;
        }
        if (!begun_) {
            begin(out);
        }
        const bool more = written_ < query_.limit &&
                          walk(query_.after, [this, &out](const GroupRow& row) { return write(out, row); });
        if (more && written_ < query_.limit) {
            return Step::more;
        }
        out += "]}\n";
        return Step::last;
    }

  private:
    bool matches(const GroupRow& row) const
    {
        return query_.filter.empty() || query_.filter.matches(row.group, *row.who);
    }

    bool walk(GroupCursor& at, const std::function<bool(const GroupRow&)>& visit) const
    {
        return query_.agent.empty() ? state_.walk_groups(at, kWalkBudget, visit)
                                    : state_.walk_groups_of(query_.agent, at, kWalkBudget, visit);
    }

    void begin(std::string& out)
    {
        begun_ = true;
        out += start_of_answer();
        append_text_field(out, "last_id", event_id(state_.last_seq()));
        append_field(out, "total", total_);
        out += ",\"groups\":[";
    }

    // False where the piece is full, or the limit reached.
    bool write(std::string& out, const GroupRow& row)
    {
        if (!matches(row)) {
            return true;
        }
        out += written_ > 0 ? ",\n" : "\n";
        append_row(out, row);
        return ++written_ < query_.limit && out.size() < kPieceBytes;
    }

    const State& state_;
    GroupsQuery query_;
    GroupCursor count_at_;
    size_t total_ = 0;
    size_t written_ = 0;
    bool counted_ = false;
    bool begun_ = false;
};

// ---- /agents.json ---------------------------------------------------------------------------------------

void append_agent(std::string& out, const AgentRow& row)
{
    out += "{\"agent\":";
    append_quoted(out, row.who->agent);
    append_text_field(out, "address", row.who->address);
    append_text_field(out, "listener", row.who->listener);
    append_time_field(out, "first", row.first_ms);
    append_time_field(out, "last", row.last_ms);
    append_field(out, "flows", row.flows);
    append_field(out, "groups", row.groups);
    append_field(out, "stale", row.stale);
    append_field(out, "joins", row.joins);
    append_field(out, "leaves", row.leaves);
    append_field(out, "restarts", row.restarts);
    out += '}';
}

class AgentsBody : public Body {
  public:
    explicit AgentsBody(const State& state) : state_(state) {}

    Step next(std::string& out) override
    {
        if (written_ == 0) {
            out += start_of_answer();
            out += ",\"agents\":[";
        }
        bool full = false;
        state_.each_agent([this, &out, &full](const AgentRow& row) {
            full = full || out.size() >= kPieceBytes;
            if (full || (written_ > 0 && row.who->agent <= last_)) {
                return;
            }
            out += written_++ > 0 ? ",\n" : "\n";
            append_agent(out, row);
            last_ = row.who->agent;
        });
        if (full) {
            return Step::more;
        }
        out += "]}\n";
        return Step::last;
    }

  private:
    const State& state_;
    std::string last_; // name of the last one written
    size_t written_ = 0;
};

// ---- the rest -------------------------------------------------------------------------------------------

void append_counts(std::string& out, const char* name, const std::vector<uint32_t>& counts)
{
    out += ",\"";
    out += name;
    out += "\":[";
    for (size_t i = 0; i < counts.size(); ++i) {
        out += i > 0 ? "," : "";
        append_number(out, counts[i]);
    }
    out += ']';
}

Reply not_found()
{
    return error_reply(404, "not found");
}

Reply bad_parameter()
{
    return error_reply(400, "bad parameter");
}

Reply page_reply(const PageFile& file)
{
    Reply reply;
    reply.type = file.type;
    reply.asset = file.content;
    return reply;
}

} // namespace

Api::Api(ApiSources sources) : sources_(std::move(sources)) {}

void Api::bind(HttpServer* server)
{
    server_ = server;
    sources_.ring->on_news([server] { server->flush(); });
}

Reply Api::answer(const Request& request, ClientId client)
{
    if (const PageFile* file = find_page_file(request.path)) {
        return page_reply(*file);
    }
    const std::optional<Query> query = Query::parse(request.query);
    if (!query) {
        return bad_parameter();
    }
    if (request.path == "/groups.json") {
        return groups(*query);
    }
    if (request.path == "/agents.json") {
        return agents();
    }
    if (request.path == "/activity.json") {
        return activity();
    }
    if (request.path == "/history.json") {
        return history(*query, client);
    }
    if (request.path == "/events") {
        return events(request, *query);
    }
    if (request.path == "/metrics") {
        return metrics();
    }
    if (request.path == "/healthz") {
        Reply reply;
        reply.type = "text/plain; charset=utf-8";
        reply.text = "ok\n";
        return reply;
    }
    return not_found();
}

Reply Api::groups(const Query& query) const
{
    GroupsQuery asked;
    if (!parse_groups_query(query, asked)) {
        return bad_parameter();
    }
    Reply reply;
    reply.body = std::make_unique<GroupsBody>(*sources_.state, std::move(asked));
    return reply;
}

Reply Api::agents() const
{
    Reply reply;
    reply.body = std::make_unique<AgentsBody>(*sources_.state);
    return reply;
}

// What the page begins with: the counts of the last minutes, and the last events.
Reply Api::activity() const
{
    const EventRing& ring = *sources_.ring;
    const Activity& activity = ring.activity();
    const int64_t now_ms = now().wall_ms;
    Reply reply;
    std::string& out = reply.text;
    out = "{\"now\":";
    append_time(out, now_ms);
    append_text_field(out, "last_id", event_id(ring.last_seq()));
    append_text_field(out, "version", sources_.version);
    append_field(out, "step", Activity::kStepMs / 1000);
    append_counts(out, "joins", activity.counts(EventKind::join, now_ms));
    append_counts(out, "leaves", activity.counts(EventKind::leave, now_ms));
    append_counts(out, "expires", activity.counts(EventKind::expire, now_ms));
    out += ",\"events\":[";
    for (uint64_t seq = ring.last_seq(); seq >= ring.first_seq() && ring.last_seq() - seq < kEventsTold;
         --seq) {
        out += seq < ring.last_seq() ? ",\n" : "\n";
        append_json(out, ring.at(seq));
    }
    out += "]}\n";
    return reply;
}

Reply Api::events(const Request& request, const Query& query)
{
    const std::string_view since =
        request.last_event_id.empty() ? query.get("since").value_or("") : request.last_event_id;
    Reply reply;
    reply.type = "text/event-stream";
    reply.fields = "X-Accel-Buffering: no\r\n"; // a proxy must not collect events
    reply.stream = true;
    reply.body = make_event_stream(*sources_.ring, since);
    return reply;
}

Reply Api::history(const Query& query, ClientId client)
{
    if (sources_.history == nullptr) {
        return error_reply(404, "no history is kept: zentmon runs without --db");
    }
    if (history_pending_ >= kHistoryPending || *history_unsent_ >= kHistoryUnsent) {
        return error_reply(503, "too many questions to the history at once");
    }

    // The answer may be here before ask() returns: no client waits for it then.
    struct Question {
        bool asking = true;
        std::optional<HistoryAnswer> answer;
    };

    auto question = std::make_shared<Question>();
    ++history_pending_;
    const bool taken = sources_.history->ask(query.pairs(), [this, question, client](HistoryAnswer answer) {
        --history_pending_;
        if (question->asking) {
            question->answer = std::move(answer);
        } else {
            server_->complete(client, history_reply(std::move(answer)));
        }
    });
    question->asking = false;
    if (!taken) {
        --history_pending_;
        return bad_parameter();
    }
    if (question->answer) {
        return history_reply(std::move(*question->answer));
    }
    Reply reply;
    reply.deferred = true;
    return reply;
}

// The whole answer waits in memory for its client, who may be slow: what all of them wait for is bounded.
Reply Api::history_reply(HistoryAnswer answer) const
{
    if (answer.away) {
        return error_reply(503, "the database is away");
    }
    Reply reply;
    reply.text = std::move(answer.json);
    const size_t size = reply.text.size();
    *history_unsent_ += size;
    reply.hold = std::shared_ptr<void>(nullptr, [unsent = history_unsent_, size](void*) { *unsent -= size; });
    return reply;
}

Reply Api::metrics() const
{
    Reply reply;
    reply.type = "text/plain; version=0.0.4; charset=utf-8";
    reply.body = make_metrics(*sources_.state, *sources_.counters, sources_.version);
    return reply;
}

} // namespace zentmon
