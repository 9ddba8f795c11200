// The families of /metrics, one function each.
#include "metrics.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "syswrap.h"

namespace zentmon {

namespace {

// Writes samples as the format wants them: label values have backslash, quote and line feed escaped.
class Writer {
  public:
    explicit Writer(std::string& out) : out_(out) {}

    void family(const char* name, const char* type, const char* help)
    {
        name_ = name;
        out_ += "# HELP ";
        out_ += name;
        out_ += ' ';
        out_ += help;
        out_ += "\n# TYPE ";
        out_ += name;
        out_ += ' ';
        out_ += type;
        out_ += '\n';
    }

    void value(uint64_t number) { sample({}, std::to_string(number)); }

    void value(const char* label, const std::string& text, uint64_t number)
    {
        begin();
        add(label, text);
        end(std::to_string(number));
    }

    void value(const char* label, const std::string& text, const char* label2, const std::string& text2,
               uint64_t number)
    {
        begin();
        add(label, text);
        add(label2, text2);
        end(std::to_string(number));
    }

    void time(const char* label, const std::string& text, int64_t ms)
    {
        begin();
        add(label, text);
        std::string number;
        append_time(number, ms);
        end(number);
    }

    void sample(const std::string& labels, const std::string& number)
    {
        out_ += name_;
        out_ += labels;
        out_ += ' ';
        out_ += number;
        out_ += '\n';
    }

  private:
    void begin() { labels_ = "{"; }

    void add(const char* label, const std::string& text)
    {
        labels_ += labels_.size() > 1 ? "," : "";
        labels_ += label;
        labels_ += "=\"";
        for (const char c : text) {
            if (c == '\\' || c == '"') {
                labels_ += '\\';
            }
            labels_ += c == '\n' ? ' ' : c;
        }
        labels_ += '"';
    }

    void end(const std::string& number)
    {
        labels_ += '}';
        sample(labels_, number);
    }

    std::string& out_;
    std::string labels_;
    const char* name_ = "";
};

struct Sources {
    const State& state;
    const Counters& counters;
    std::string version;
};

void build_info(const Sources& s, Writer& w)
{
    w.family("zentmon_build_info", "gauge", "Always 1; the version is a label.");
    w.value("version", s.version, 1);
}

void datagrams(const Sources& s, Writer& w)
{
    w.family("zentmon_datagrams_total", "counter", "Datagrams received.");
    for (const ListenerCounters& listener : s.counters.listeners) {
        w.value("listener", listener.name, listener.datagrams);
    }
    w.family("zentmon_receive_dropped_total", "counter",
             "Datagrams that the kernel dropped because the receive buffer was full.");
    for (const ListenerCounters& listener : s.counters.listeners) {
        w.value("listener", listener.name, listener.dropped);
    }
}

void lines(const Sources& s, Writer& w)
{
    w.family("zentmon_lines_total", "counter", "Valid lines received.");
    s.state.each_agent([&w](const AgentRow& row) {
        w.value("agent", row.who->agent, "kind", "join", row.joins);
        w.value("agent", row.who->agent, "kind", "leave", row.leaves);
    });
}

void refused(const Sources& s, Writer& w)
{
    w.family("zentmon_bad_lines_total", "counter", "Lines that are none.");
    for (size_t i = 0; i < s.counters.bad_lines.of.size(); ++i) {
        w.value("reason", bad_line_name(static_cast<BadLine>(i)), s.counters.bad_lines.of[i]);
    }
    w.family("zentmon_empty_datagrams_total", "counter", "Datagrams without a byte: they mean nothing.");
    w.value(s.counters.empty_datagrams);
    w.family("zentmon_denied_total", "counter", "Datagrams of sources that --allow does not name.");
    w.value(s.counters.denied);
    w.family("zentmon_limit_dropped_total", "counter", "Lines that a limit refused.");
    for (size_t i = 0; i < s.counters.limit_dropped.of.size(); ++i) {
        w.value("what", limit_name(static_cast<Limit>(i)), s.counters.limit_dropped.of[i]);
    }
}

void agents(const Sources& s, Writer& w)
{
    w.family("zentmon_agents", "gauge", "Agents that are known.");
    w.value(s.state.agent_count());
    w.family("zentmon_agent_flows", "gauge", "Processes of an agent that are taken to be alive.");
    s.state.each_agent([&w](const AgentRow& row) { w.value("agent", row.who->agent, row.flows); });
    w.family("zentmon_agent_last_line_timestamp_seconds", "gauge",
             "When an agent was last heard, Unix time.");
    s.state.each_agent([&w](const AgentRow& row) { w.time("agent", row.who->agent, row.last_ms); });
}

void groups(const Sources& s, Writer& w)
{
    w.family("zentmon_groups", "gauge", "Groups of an agent by their state.");
    s.state.each_agent([&w](const AgentRow& row) {
        const std::string& agent = row.who->agent;
        w.value("agent", agent, "state", "joined", row.groups - row.stale - row.linger);
        w.value("agent", agent, "state", "stale", row.stale);
        w.value("agent", agent, "state", "linger", row.linger);
    });
}

void events(const Sources& s, Writer& w)
{
    w.family("zentmon_events_total", "counter", "Changes: joins, leaves, expiries.");
    for (size_t i = 0; i < s.counters.events.size(); ++i) {
        w.value("event", event_name(static_cast<EventKind>(i)), s.counters.events[i]);
    }
}

void http(const Sources& s, Writer& w)
{
    w.family("zentmon_http_clients", "gauge", "Connected HTTP clients; stream: of /events.");
    w.value("kind", "plain", s.counters.http_plain_clients);
    w.value("kind", "stream", s.counters.http_stream_clients);
    w.family("zentmon_http_requests_total", "counter", "Requests by the status code of their answer.");
    for (size_t i = 0; i < s.counters.http_requests.size(); ++i) {
        if (s.counters.http_requests[i] > 0) {
            w.value("code", std::to_string(i + 100), s.counters.http_requests[i]);
        }
    }
}

void history(const Sources& s, Writer& w)
{
    if (!s.counters.history_configured) {
        return;
    }
    w.family("zentmon_history_up", "gauge", "1 while the database takes events.");
    w.value(s.counters.history_up ? 1 : 0);
    w.family("zentmon_history_queue", "gauge", "Events that wait for the database.");
    w.value(s.counters.history_queue);
    w.family("zentmon_history_lost_total", "counter", "Events that never came to the database.");
    w.value(s.counters.history_lost);
}

void sinks(const Sources& s, Writer& w)
{
    w.family("zentmon_hook_runs_total", "counter", "Runs of the --exec program by how they ended.");
    w.value("result", "ok", s.counters.hook_ok);
    w.value("result", "failed", s.counters.hook_failed);
    w.value("result", "killed", s.counters.hook_killed);
    w.value("result", "not_started", s.counters.hook_not_started);
    if (s.counters.mqtt_configured) {
        w.family("zentmon_mqtt_connected", "gauge", "1 while the MQTT broker is connected.");
        w.value(s.counters.mqtt_connected ? 1 : 0);
    }
    w.family("zentmon_output_dropped_total", "counter", "What a slow reader or a full queue cost.");
    for (size_t i = 0; i < s.counters.output_dropped.of.size(); ++i) {
        w.value("sink", output_name(static_cast<Output>(i)), s.counters.output_dropped.of[i]);
    }
}

// ---- the process --------------------------------------------------------------------------------------

struct ProcessFigures {
    double cpu_seconds = 0;
    uint64_t virtual_bytes = 0;
    uint64_t resident_bytes = 0;
    double start_seconds = 0; // Unix time
    uint64_t threads = 0;
};

std::string read_small_file(const char* path)
{
    char buffer[4096];
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return {};
    }
    const ssize_t got = read(fd, buffer, sizeof buffer);
    Close(fd);
    return got > 0 ? std::string(buffer, static_cast<size_t>(got)) : std::string();
}

// Unix time. From the clocks: the service's view of /proc has no /proc/stat.
double boot_time()
{
    static const double seconds = [] {
        struct timespec wall = {};
        struct timespec since_boot = {};
        clock_gettime(CLOCK_REALTIME, &wall);
        clock_gettime(CLOCK_BOOTTIME, &since_boot);
        return static_cast<double>(wall.tv_sec - since_boot.tv_sec) +
               static_cast<double>(wall.tv_nsec - since_boot.tv_nsec) / 1e9;
    }();
    return seconds;
}

// The fields of proc(5) behind the name, which may hold anything: from the last bracket on.
ProcessFigures process_figures()
{
    ProcessFigures figures;
    const std::string stat = read_small_file("/proc/self/stat");
    const size_t bracket = stat.rfind(')');
    uint64_t utime = 0;
    uint64_t stime = 0;
    uint64_t start = 0;
    uint64_t pages = 0;
    if (bracket == std::string::npos ||
        sscanf(stat.c_str() + bracket + 1,
               " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %" SCNu64 " %" SCNu64 " %*d %*d %*d %*d %" SCNu64
               " %*d %" SCNu64 " %" SCNu64 " %" SCNu64,
               &utime, &stime, &figures.threads, &start, &figures.virtual_bytes, &pages) != 6) {
        return {};
    }
    const auto ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    figures.cpu_seconds = static_cast<double>(utime + stime) / ticks;
    figures.start_seconds = boot_time() + static_cast<double>(start) / ticks;
    figures.resident_bytes = pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    return figures;
}

uint64_t open_descriptors()
{
    uint64_t count = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (const struct dirent* entry = readdir(dir)) {
            count += entry->d_name[0] != '.' ? 1 : 0;
        }
        closedir(dir);
        --count; // the one that looks
    }
    return count;
}

std::string decimal(double number)
{
    char text[40];
    snprintf(text, sizeof text, "%.2f", number);
    return text;
}

void process(const Sources&, Writer& w)
{
    const ProcessFigures figures = process_figures();
    struct rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    w.family("process_cpu_seconds_total", "counter", "Processor time, user and system, in seconds.");
    w.sample({}, decimal(figures.cpu_seconds));
    w.family("process_open_fds", "gauge", "Open descriptors.");
    w.value(open_descriptors());
    w.family("process_max_fds", "gauge", "Most descriptors that may be open.");
    w.value(limit.rlim_cur);
    w.family("process_virtual_memory_bytes", "gauge", "Virtual memory.");
    w.value(figures.virtual_bytes);
    w.family("process_resident_memory_bytes", "gauge", "Resident memory.");
    w.value(figures.resident_bytes);
    w.family("process_threads", "gauge", "Threads.");
    w.value(figures.threads);
    w.family("process_start_time_seconds", "gauge", "When the process began, Unix time.");
    w.sample({}, decimal(figures.start_seconds));
}

using FamilyFunction = void (*)(const Sources&, Writer&);
constexpr FamilyFunction kFamilies[] = {build_info, datagrams, lines,   refused, agents, groups,
                                        events,     http,      history, sinks,   process};

class Metrics : public Body {
  public:
    explicit Metrics(Sources sources) : sources_(std::move(sources)) {}

    Step next(std::string& out) override
    {
        Writer writer(out);
        kFamilies[at_](sources_, writer);
        return ++at_ == std::size(kFamilies) ? Step::last : Step::more;
    }

  private:
    Sources sources_;
    size_t at_ = 0;
};

} // namespace

std::unique_ptr<Body> make_metrics(const State& state, const Counters& counters, std::string version)
{
    return std::make_unique<Metrics>(Sources{state, counters, std::move(version)});
}

} // namespace zentmon
