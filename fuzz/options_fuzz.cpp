// The agent's command line, beside a model of it: words separated by zero bytes, behind a byte that says
// whose process it is. The model reads the words the way the manual page and POSIX tell, and knows nothing of
// getopt's state.
#include <arpa/inet.h>
#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <strings.h>
#include <unistd.h>
#include <vector>

#include "log.h"
#include "stream_input.h"
#include "wrap.h"
#include "zent.h"

WRAPPED(void, exit, (int code));
WRAPPED(uid_t, geteuid, ());
WRAPPED(int, ifc_addr_lookup, (int family, const char* name, sockaddr* sa, socklen_t len));

namespace {

using fuzz::demand;

enum Outcome { kGood, kRefused, kEnded }; // 0, -1, exit(1)

bool g_is_root;
bool g_reading = false;
jmp_buf g_ended;

// The interfaces of this machine.
bool is_interface(const std::string& name)
{
    return name == "lo" || name == "eth0" || name == "a-name-of-16-chr" || name == "wlan0.1234567890";
}

struct Model {
    std::string interface, target, list, log, user, pidfile;
    bool has_list = false, has_log = false, to_stdout = false, foreground = false;
    uint32_t lowest = 0, highest = 0;
    int level = 1;

    Outcome bound(const std::string& text, uint32_t& value)
    {
        in_addr addr = {};
        if (inet_aton(text.c_str(), &addr) == 0 || ntohl(addr.s_addr) >> 28 != 0xe) {
            return kRefused;
        }
        value = ntohl(addr.s_addr);
        return kGood;
    }

    // The words of the manual page and the long ones beside them.
    void set_level(const std::string& text)
    {
        static const struct {
            const char* word;
            int level;
        } kWords[] = {{"err", -3},     {"error", -3}, {"crit", -2},  {"critical", -2}, {"warn", -1},
                      {"warning", -1}, {"norm", 0},   {"normal", 0}, {"info", 1},      {"debug", 2},
                      {"dbg", 2},      {"sect", 2},   {"section", 2}};

        for (const auto& entry : kWords) {
            level = strcasecmp(text.c_str(), entry.word) == 0 ? entry.level : level;
        }
    }

    void set_target(const std::string& text)
    {
        to_stdout = to_stdout || text == "-";
        target = text == "-" ? "" : ("udp://" + text).substr(0, 126);
    }

    Outcome take(char option, const std::string& text)
    {
        switch (option) {
        case 'i': interface = text.substr(0, 15); return is_interface(text) ? kGood : kRefused;
        case 'g': return bound(text, lowest);
        case 'G': return bound(text, highest);
        case 'R': set_target(text); break;
        case 'F': has_list = true, list = text; break;
        case 'l': has_log = true, log = text; break;
        case 'L': set_level(text); break;
        case 'u': user = text.substr(0, 31); break;
        default: pidfile = text.substr(0, 127); break;
        }
        return kGood;
    }

    // One word that begins with a dash; more are the words behind it, of which it may take the first.
    Outcome cluster(const std::string& word, std::vector<std::string>& more)
    {
        for (size_t i = 1; i < word.size(); ++i) {
            if (word[i] == 'T') {
                foreground = true;
                continue;
            }
            if (strchr("iRgGFlLup", word[i]) == nullptr || (i + 1 == word.size() && more.empty())) {
                return kEnded; // the usage
            }
            std::string text = word.substr(i + 1);
            if (text.empty()) {
                text = more.front();
                more.erase(more.begin());
            }
            return take(word[i], text);
        }
        return kGood;
    }

    Outcome read(std::vector<std::string> words)
    {
        while (!words.empty()) {
            const std::string word = words.front();
            words.erase(words.begin());
            if (word == "--") {
                break;
            }
            if (word.size() < 2 || word[0] != '-') {
                continue; // no option: passed over
            }
            if (const Outcome outcome = cluster(word, words); outcome != kGood) {
                return outcome;
            }
        }
        foreground = foreground || !g_is_root;
        return interface.empty() || (lowest != 0 && highest != 0 && lowest > highest) ? kEnded : kGood;
    }
};

Outcome read_by_agent(const std::vector<std::string>& words)
{
    std::vector<const char*> argv;
    for (const std::string& word : words) {
        argv.push_back(word.c_str());
    }
    argv.push_back(nullptr);
    optind = 0; // anew
    g_reading = true;
    // volatile: read again after a longjmp
    volatile Outcome outcome = kEnded;
    // NOLINTNEXTLINE(cert-err52-cpp): the frames between have no destructors, and exit() throws nothing.
    if (setjmp(g_ended) == 0) {
        outcome = app_getcfg(static_cast<int>(words.size()), argv.data()) == 0 ? kGood : kRefused;
    }
    g_reading = false;
    return outcome;
}

void compare(const Model& model)
{
    demand(model.interface == g_cfg.mifc && model.target == g_cfg.report_url);
    demand(model.user == g_cfg.rt_user && model.pidfile == g_cfg.pidfile);
    demand((g_cfg.grp_list_file != nullptr) == model.has_list &&
           (!model.has_list || model.list == g_cfg.grp_list_file));
    demand(g_cfg.logfile == std::string(model.has_log ? model.log : "/dev/null"));
    demand(g_cfg.min_group == model.lowest && g_cfg.max_group == model.highest);
    demand(g_cfg.log_level == model.level && g_cfg.non_daemon == model.foreground);
    demand((g_ctx.rep.fp == stdout) == model.to_stdout);
}

} // namespace

extern "C" {
void __wrap_exit(int code)
{
    if (!g_reading) {
        __real_exit(code);
    }
    demand(code == 1);
    longjmp(g_ended, 1); // NOLINT(cert-err52-cpp): as above
}

uid_t __wrap_geteuid()
{
    return g_reading ? (g_is_root ? 0 : 1000) : __real_geteuid();
}

int __wrap_ifc_addr_lookup(int, const char* name, sockaddr* sa, socklen_t len)
{
    demand(len == sizeof(sockaddr_in));
    memset(sa, 0, len);
    return is_interface(name) ? 0 : -1;
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static FILE* const nowhere = fopen("/dev/null", "w");
    if (size == 0 || size > 2000) {
        return 0;
    }
    g_is_root = (data[0] & 1) != 0;
    std::vector<std::string> words = {"zent"};
    for (std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1); !rest.empty();) {
        words.emplace_back(rest.c_str());
        rest.erase(0, words.back().size() + 1);
    }
    g_cfg = {};
    g_ctx = {};
    g_appname = "zent";
    FILE* const real_stderr = stderr;
    stderr = nowhere;
    const Outcome outcome = read_by_agent(words);
    log_mirror(&g_log, nullptr);
    stderr = real_stderr;
    Model model;
    demand(outcome == model.read({words.begin() + 1, words.end()}));
    if (outcome == kGood) {
        compare(model);
    }
    return 0;
}
