// zentctl query: a querier for segments that have none, or one query and who answers it.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <net/if.h>
#include <set>

#include "command.h"
#include "group.h"
#include "interface.h"
#include "listen.h"
#include "loop.h"
#include "querier.h"
#include "sender.h"

namespace zentctl {

namespace {

using std::chrono::milliseconds;

constexpr long kDefaultInterval = 125; // seconds (RFC 2236, 8.2)
constexpr long kLeastInterval = 11;    // above the response time
constexpr long kMostInterval = 31744;  // what a version 3 querier can say, and enough
constexpr milliseconds kLookAround{3000};
constexpr milliseconds kShortLookAround{
    1500}; // with --once: an agent that just started waits for the answers
constexpr milliseconds kAnswers{6000};
constexpr unsigned kOnceResponse = 50; // tenths of a second
constexpr size_t kMostAnswers = 100000;

struct Answer {
    uint32_t group;
    uint32_t host;
    int version;

    auto operator<=>(const Answer&) const = default;
};

// What stands in both forms of the command.
class QueryCommand {
  public:
    QueryCommand(const Arguments& arguments, Report& report)
        : report_(report),
          name_(arguments.operands[0]),
          is_forced_(arguments.has("--force")),
          index_(static_cast<int>(if_nametoindex(name_.c_str()))),
          own_(address_of_interface()),
          lock_(index_),
          listener_(name_),
          sender_(name_, index_, own_)
    {
        report_.data.set("interface", name_);
        report_.data.set("address", address_text(own_));
    }

    void say(const std::string& text) const
    {
        if (!report_.wants_json) {
            printf("%s\n", text.c_str());
            fflush(stdout);
        }
    }

    void warn_of_snooping() const
    {
        say("Mind: a snooping switch takes the port of a querier for a router's and sends it every group "
            "(RFC 4541, 2.1.1).");
    }

    // Listens before anything is sent. False if a signal came meanwhile.
    bool look_around(milliseconds span)
    {
        uint32_t version3 = 0;
        loop_.watch(listener_.fd(), [&] {
            listener_.drain([&](const Message& message) {
                if (message.kind == Kind::query && message.version == 3 && message.source != own_) {
                    version3 = message.source;
                    loop_.stop();
                }
            });
        });
        if (!is_forced_) {
            loop_.after(span, [this] { loop_.stop(); });
            loop_.run();
        }
        loop_.forget(listener_.fd());
        if (version3 != 0 && !is_forced_) {
            throw CannotLook("version3-querier",
                             address_text(version3) + " is a version 3 querier: a version 2 one would break "
                                                      "source-specific joins",
                             "ZENT_FEATURES=igmpv3 for the agent, or --force");
        }
        return !Loop::is_interrupted();
    }

    void send(const Query& query)
    {
        if (sender_.send(query)) {
            ++(query.group == 0 ? general_ : specific_);
        } else {
            say(std::string("a query could not be sent: ") + strerror(errno));
            ++failed_;
        }
    }

    void run_once();
    void run_on(int64_t interval_ms);

  private:
    uint32_t address_of_interface() const
    {
        if (index_ == 0) {
            throw CannotLook("no-interface", name_ + ": no such interface", "ip link");
        }
        const auto address = ipv4_of(name_);
        if (!address) {
            throw CannotLook("no-ipv4", name_ + " has no IPv4 address, which a query needs as its source",
                             "ip address add ADDRESS/LENGTH dev " + name_);
        }
        return *address;
    }

    void take_answer(const Message& message);
    void print_answers() const;
    void turn(Querier& querier);
    void arm(Querier& querier);

    Report& report_;
    std::string name_;
    bool is_forced_;
    int index_;
    uint32_t own_;
    QuerierLock lock_;
    Listener listener_;
    Sender sender_;
    Loop loop_;
    std::set<Answer> answers_;
    uint64_t general_ = 0;
    uint64_t specific_ = 0;
    uint64_t failed_ = 0;
    std::set<int64_t> armed_ms_; // when timers run that are set
};

void QueryCommand::take_answer(const Message& message)
{
    for (const Saying& saying : message.sayings) {
        if (saying.kind == Kind::report && answers_.size() < kMostAnswers) {
            answers_.insert({saying.group, message.source, message.version});
        }
    }
}

void QueryCommand::print_answers() const
{
    if (report_.wants_json) {
        return;
    }
    printf("%-15s  %-15s  %s\n", "GROUP", "REPORTED BY", "VERSION");
    for (const Answer& answer : answers_) {
        printf("%-15s  %-15s  %d\n", address_text(answer.group).c_str(), address_text(answer.host).c_str(),
               answer.version);
    }
}

void QueryCommand::run_once()
{
    warn_of_snooping();
    if (!look_around(kShortLookAround)) {
        return;
    }
    loop_.watch(listener_.fd(),
                [this] { listener_.drain([this](const Message& message) { take_answer(message); }); });
    send({0, kOnceResponse});
    if (failed_ > 0) {
        throw CannotLook("send-failed", name_ + ": the query could not be sent");
    }
    loop_.after(kAnswers, [this] { loop_.stop(); });
    loop_.run();
    print_answers();
    std::vector<Data> rows;
    for (const Answer& answer : answers_) {
        Data& row = rows.emplace_back();
        row.set("group", address_text(answer.group));
        row.set("host", address_text(answer.host));
        row.set("version", answer.version);
    }
    report_.data.set("reports", rows);
    if (answers_.empty()) {
        report_.warn("no-answer", "no host reported a group within 6 s",
                     "no host is a member, or a switch keeps reports from this port");
        report_.exit = kFindings;
    } else {
        report_.ok("answers", std::to_string(answers_.size()) + " reports");
    }
    report_.ok("version2-now", "Linux hosts now speak version 2 for about 260 s");
    for (const Finding& finding : report_.findings) {
        say(verdict_line(finding));
    }
}

// One turn of the querier: sends what is due, tells what is new, and comes back when it wants to.
void QueryCommand::turn(Querier& querier)
{
    for (const Query& query : querier.due(Loop::now_ms())) {
        send(query);
    }
    for (const std::string& text : querier.news()) {
        say(text);
    }
    arm(querier);
}

void QueryCommand::arm(Querier& querier)
{
    const int64_t now = Loop::now_ms();
    const int64_t next = std::max(querier.next_ms(), now + 1);
    if (!armed_ms_.empty() && *armed_ms_.begin() <= next) {
        return; // the timer that is set looks again; one more for each leave would be one too many for ever
    }
    armed_ms_.insert(next);
    loop_.after(milliseconds(next - now), [this, &querier, next] {
        armed_ms_.erase(next);
        turn(querier);
    });
}

void QueryCommand::run_on(int64_t interval_ms)
{
    warn_of_snooping();
    if (!look_around(kLookAround)) {
        return;
    }
    Querier querier(own_, interval_ms, Loop::now_ms());
    say("querier on " + name_ + " as " + address_text(own_) + ", every " +
        std::to_string(interval_ms / 1000) + " s");
    loop_.watch(listener_.fd(), [&] {
        listener_.drain([&](const Message& message) { querier.hear(message, Loop::now_ms()); });
        turn(querier);
    });
    turn(querier);
    loop_.run();
    loop_.forget(listener_.fd());
    say("end: " + std::to_string(general_) + " general queries, " + std::to_string(specific_) +
        " for groups");
    report_.data.set("elected", querier.is_elected());
    report_.data.set("general_queries", general_);
    report_.data.set("group_queries", specific_);
    report_.data.set("failed", failed_);
    report_.ok("ended", "ended by a signal");
}

} // namespace

void run_query(const Arguments& arguments, Report& report)
{
    const long interval = arguments.number("--interval", kDefaultInterval, kLeastInterval, kMostInterval);
    if (arguments.has("--once") && arguments.has("--interval")) {
        throw UsageError("--once sends one query: --interval has no meaning");
    }
    QueryCommand query(arguments, report);
    if (arguments.has("--once")) {
        query.run_once();
    } else {
        query.run_on(interval * 1000);
    }
}

} // namespace zentctl
