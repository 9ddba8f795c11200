// zentctl watch: follows the events of a zentmon, one line each, until Ctrl-C.
#include <algorithm>
#include <cstdio>
#include <deque>
#include <memory>
#include <unistd.h>

#include "command.h"
#include "feed.h"
#include "loop.h"

namespace zentctl {

namespace {

constexpr Milliseconds kRetry{1000};
constexpr int64_t kSilenceMs = 25'000; // pings come each 10 s
constexpr size_t kMostKept = 10'000;   // events that --json shows at the end

class Watch {
  public:
    Watch(std::string url, Report& report)
        : url_(std::move(url)), report_(report), started_ms_(Loop::now_ms())
    {
    }

    void run()
    {
        connect(); // a wrong URL is told at once; what breaks later is tried again
        look_at_silence();
        loop_.run();
        disconnect();
        tell_summary();
    }

  private:
    void say(const std::string& text) const
    {
        if (!report_.wants_json) {
            printf("%s\n", text.c_str());
            fflush(stdout);
        }
    }

    void connect()
    {
        const std::string since = last_id_.empty() ? "" : "?since=" + percent_encoded(last_id_);
        get_ = std::make_unique<HttpGet>(url_, "/events" + since);
        get_->stop_blocking();
        reader_ = {};
        heard_ms_ = Loop::now_ms();
        say(connects_ == 0 ? "watching " + url_ : "connected again");
        ++connects_;
        loop_.watch(get_->fd(), [this] { receive(); });
    }

    void disconnect()
    {
        if (get_) {
            loop_.forget(get_->fd());
            get_.reset();
        }
    }

    void lose(const std::string& reason)
    {
        disconnect();
        say("connection lost: " + reason + "; trying again");
        loop_.after(kRetry, [this] { try_again(); });
    }

    void try_again()
    {
        try {
            connect();
        } catch (const CannotLook&) {
            loop_.after(kRetry, [this] { try_again(); });
        }
    }

    void receive()
    {
        std::string bytes;
        const bool goes_on = get_->read(bytes);
        heard_ms_ = Loop::now_ms();
        for (const Sent& sent : reader_.take(bytes)) {
            take(sent);
        }
        if (!goes_on) {
            lose("the server closed it");
        }
    }

    void take(const Sent& sent)
    {
        last_id_ = sent.id.empty() ? last_id_ : sent.id;
        if (sent.type == "reset") {
            ++resets_;
            say("events were missed: zentctl groups shows what is joined now");
        } else if (const auto event = parse_event(sent.data); event && sent.type.empty()) {
            tell(*event);
        }
    }

    void tell(const EventRow& event)
    {
        ++(event.event == "join" ? joins_ : event.event == "leave" ? leaves_ : expires_);
        std::string line = time_text(event.time) + "  " + event.event;
        line.resize(std::max<size_t>(line.size(), 27), ' ');
        line += "  " + event.group + "  " + event.agent;
        std::ranges::replace_if(
            line, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, '?');
        say(line);
        events_.push_back(event);
        if (events_.size() > kMostKept) {
            events_.pop_front();
        }
    }

    void look_at_silence()
    {
        if (get_ && Loop::now_ms() - heard_ms_ > kSilenceMs) {
            lose("nothing was heard for 25 s");
        }
        loop_.after(kRetry, [this] { look_at_silence(); });
    }

    void tell_summary()
    {
        const int64_t seconds = (Loop::now_ms() - started_ms_) / 1000;
        const std::string text = std::to_string(joins_) + " joins, " + std::to_string(leaves_) + " leaves, " +
                                 std::to_string(expires_) + " expired in " + std::to_string(seconds) +
                                 " s; connected " + std::to_string(connects_) +
                                 (connects_ == 1 ? " time" : " times");
        if (isatty(STDOUT_FILENO) != 0) {
            say(""); // behind the terminal's ^C
        }
        say(text);
        report_.ok("ended", text);
        report_.data.set("url", url_);
        report_.data.set("joins", joins_);
        report_.data.set("leaves", leaves_);
        report_.data.set("expires", expires_);
        report_.data.set("resets", resets_);
        report_.data.set("connects", connects_);
        std::vector<Data> rows;
        for (const EventRow& event : events_) {
            Data& row = rows.emplace_back();
            row.set("id", event.id);
            row.set("time", event.time);
            row.set("event", event.event);
            row.set("agent", event.agent);
            row.set("address", event.address);
            row.set("listener", event.listener);
            row.set("group", event.group);
        }
        report_.data.set("events", rows);
    }

    std::string url_;
    Report& report_;
    int64_t started_ms_;
    Loop loop_;
    std::unique_ptr<HttpGet> get_;
    EventReader reader_;
    int64_t heard_ms_ = 0;
    std::string last_id_;
    uint64_t joins_ = 0;
    uint64_t leaves_ = 0;
    uint64_t expires_ = 0;
    uint64_t resets_ = 0;
    uint64_t connects_ = 0;
    std::deque<EventRow> events_;
};

} // namespace

void run_watch(const Arguments& arguments, Report& report)
{
    Watch(arguments.operands.empty() ? kDefaultUrl : arguments.operands[0], report).run();
}

} // namespace zentctl
