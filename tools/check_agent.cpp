// Whether an agent runs on the interface already, and how its unit is set up.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <getopt.h>
#include <iterator>
#include <map>
#include <set>
#include <spawn.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "check.h"

namespace zentctl {

namespace {

constexpr const char* kUsualPidFiles[] = {"/run/zent.pid", "/run/zent/zent.pid"};

std::string read_text(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf(); // does not throw where a process ends between the open and the read
    return text.str();
}

std::string link_target(const std::string& path)
{
    char target[256];
    const ssize_t n = readlink(path.c_str(), target, sizeof target);
    return n < 0 ? "" : std::string(target, static_cast<size_t>(n));
}

// Texts with a zero byte behind each, as /proc has arguments and environment.
std::vector<std::string> split_at_zeros(const std::string& text)
{
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string word; std::getline(in, word, '\0');) {
        result.push_back(word);
    }
    return result;
}

std::string variable_of(const std::vector<std::string>& environment, const std::string& name)
{
    for (const std::string& entry : environment) {
        if (entry.starts_with(name + "=")) {
            return entry.substr(name.size() + 1);
        }
    }
    return "";
}

struct AgentProcess {
    int pid = 0;
    bool captures = false; // its packet socket on the interface is open
    AgentSetup setup;
};

// The value of -i among an agent's words.
std::string interface_of(const std::vector<std::string>& words)
{
    for (size_t i = 1; i < words.size(); ++i) {
        if (words[i] == "-i" && i + 1 < words.size()) {
            return words[i + 1];
        }
        if (words[i].starts_with("-i") && words[i].size() > 2) {
            return words[i].substr(2);
        }
    }
    return "";
}

// Inodes of the packet sockets on an interface in this network namespace. Columns: sk RefCnt Type Proto Iface
// R Rmem User Inode.
std::set<std::string> packet_sockets(int index)
{
    std::set<std::string> inodes;
    std::ifstream table("/proc/thread-self/net/packet");
    std::string line;
    std::getline(table, line);
    while (std::getline(table, line)) {
        std::istringstream columns(line);
        const std::vector<std::string> words{std::istream_iterator<std::string>(columns), {}};
        if (words.size() >= 9 && words[4] == std::to_string(index)) {
            inodes.insert("socket:[" + words[8] + "]");
        }
    }
    return inodes;
}

bool holds_one_of(int pid, const std::set<std::string>& sockets)
{
    const std::string place = "/proc/" + std::to_string(pid) + "/fd/";
    DIR* directory = opendir(place.c_str());
    bool found = false;
    while (const dirent* entry = directory != nullptr ? readdir(directory) : nullptr) {
        found = found || sockets.contains(link_target(place + entry->d_name));
    }
    if (directory != nullptr) {
        closedir(directory);
    }
    return found;
}

std::vector<int> all_pids()
{
    std::vector<int> pids;
    DIR* directory = opendir("/proc");
    while (const dirent* entry = directory != nullptr ? readdir(directory) : nullptr) {
        if (const int pid = atoi(entry->d_name); pid > 0) {
            pids.push_back(pid);
        }
    }
    if (directory != nullptr) {
        closedir(directory);
    }
    return pids;
}

std::vector<AgentProcess> running_agents(const std::string& name, const std::set<std::string>& sockets)
{
    std::vector<AgentProcess> agents;
    const std::string own_namespace = link_target("/proc/thread-self/ns/net");
    for (const int pid : all_pids()) {
        const std::string place = "/proc/" + std::to_string(pid);
        if (read_text(place + "/comm") != "zent\n" || link_target(place + "/ns/net") != own_namespace) {
            continue;
        }
        const std::vector<std::string> words = split_at_zeros(read_text(place + "/cmdline"));
        if (interface_of(words) == name) {
            AgentProcess& agent = agents.emplace_back();
            agent.pid = pid;
            agent.captures = holds_one_of(pid, sockets);
            agent.setup = setup_of_words(words);
            agent.setup.features =
                variable_of(split_at_zeros(read_text(place + "/environ")), "ZENT_FEATURES");
            agent.setup.origin = "the agent with pid " + std::to_string(pid);
        }
    }
    return agents;
}

void tell_agents(const std::string& name, const std::vector<AgentProcess>& agents, size_t sockets,
                 Report& report)
{
    for (const AgentProcess& agent : agents) {
        const std::string who = "an agent runs on " + name + ", pid " + std::to_string(agent.pid);
        report.ok("agent-runs", who + (agent.captures ? ", and captures" : ""));
    }
    if (agents.size() > 1) {
        report.warn("two-agents",
                    std::to_string(agents.size()) + " agents run on " + name + ": each line comes so often",
                    "stop all but one");
    }
    if (agents.empty()) {
        report.ok("no-agent",
                  "no agent runs on " + name +
                      (sockets > 0 ? "; other programs capture there: " + std::to_string(sockets) : ""));
    }
}

// The process that holds the write lock; 0: nobody, or the file cannot be opened.
int lock_holder(const std::string& path)
{
    // The path is another process's word: it may name a device, which does something when it is opened.
    struct stat st = {};
    const int place = open(path.c_str(), O_PATH | O_CLOEXEC | O_NOFOLLOW);
    const int fd = place >= 0 && fstat(place, &st) == 0 && S_ISREG(st.st_mode)
                       ? open(("/proc/self/fd/" + std::to_string(place)).c_str(), O_RDONLY | O_CLOEXEC)
                       : -1;
    if (place >= 0) {
        close(place);
    }
    if (fd < 0) {
        return 0;
    }
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    const bool is_held = fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    close(fd);
    return is_held ? lock.l_pid : 0;
}

void check_pidfiles(const std::vector<AgentProcess>& agents, const std::string& of_setup, Report& report)
{
    std::set<std::string> paths(std::begin(kUsualPidFiles), std::end(kUsualPidFiles));
    paths.insert(of_setup);
    for (const AgentProcess& agent : agents) {
        paths.insert(agent.setup.pidfile);
    }
    paths.erase("");
    for (const std::string& path : paths) {
        if (const int pid = lock_holder(path); pid != 0) {
            report.warn("pidfile-locked",
                        path + " is locked by the running daemon " + std::to_string(pid) +
                            ": another one with it ends at once, and removes the file",
                        "a pid file of its own for each instance: -p");
        }
    }
}

// The standard output of a program, nothing if it cannot be run or fails.
std::optional<std::string> output_of(std::vector<std::string> words)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return {};
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    std::string text;
    char block[4096];
    ssize_t n = 0;
    while (error == 0 && (n = read(ends[0], block, sizeof block)) > 0) {
        text.append(block, static_cast<size_t>(n));
    }
    close(ends[0]);
    int status = -1;
    if (error != 0 || waitpid(pid, &status, 0) != pid || status != 0) {
        return {};
    }
    return text;
}

using Properties = std::map<std::string, std::string>;

std::optional<Properties> unit_properties(const std::string& unit)
{
    const char* wanted =
        "LoadState,UnitFileState,ActiveState,ExecMainStatus,Environment,EnvironmentFiles,ExecStart";
    const auto text = output_of({"systemctl", "show", unit, "-p", wanted});
    if (!text) {
        return {};
    }
    Properties properties;
    std::istringstream lines(*text);
    for (std::string line; std::getline(lines, line);) {
        if (const size_t equal = line.find('='); equal != std::string::npos) {
            properties.emplace(line.substr(0, equal), line.substr(equal + 1));
        }
    }
    return properties;
}

// Variables of the unit: its own, and those of its files, which come later and win.
std::map<std::string, std::string> unit_variables(const Properties& unit)
{
    std::map<std::string, std::string> variables;
    const auto take = [&](const std::string& word) {
        if (const size_t equal = word.find('='); equal != std::string::npos) {
            variables[word.substr(0, equal)] = word.substr(equal + 1);
        }
    };
    for (const std::string& word : split_words(unit.contains("Environment") ? unit.at("Environment") : "")) {
        take(word);
    }
    // "/etc/default/zent-eth0 (ignore_errors=yes)"
    std::istringstream lines(
        read_text(unit.contains("EnvironmentFiles")
                      ? unit.at("EnvironmentFiles").substr(0, unit.at("EnvironmentFiles").find(' '))
                      : ""));
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == '#' || line[0] == ';') {
            continue;
        }
        const size_t equal = line.find('=');
        std::string value = equal == std::string::npos ? "" : line.substr(equal + 1);
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
            value.back() == value.front()) {
            value = value.substr(1, value.size() - 2);
        }
        take(line.substr(0, equal) + "=" + value);
    }
    return variables;
}

// The words that the unit starts, with "$NAME" and "${NAME}" replaced as systemd does.
std::vector<std::string> unit_words(const Properties& unit,
                                    const std::map<std::string, std::string>& variables)
{
    // "{ path=/usr/sbin/zent ; argv[]=zent -i eth0 ... ; ignore_errors=no ; ..."
    const std::string start = unit.contains("ExecStart") ? unit.at("ExecStart") : "";
    const size_t from = start.find("argv[]=");
    if (from == std::string::npos) {
        return {};
    }
    std::vector<std::string> words;
    for (const std::string& word : split_words(start.substr(from + 7, start.find(" ; ", from) - from - 7))) {
        if (word.size() < 2 || word[0] != '$') {
            words.push_back(word);
            continue;
        }
        const bool is_braced = word[1] == '{';
        const auto found = variables.find(is_braced ? word.substr(2, word.size() - 3) : word.substr(1));
        const std::string value = found == variables.end() ? "" : found->second;
        const std::vector<std::string> more = is_braced ? std::vector{value} : split_words(value);
        words.insert(words.end(), more.begin(), more.end());
    }
    return words;
}

std::string joined(const std::vector<std::string>& words)
{
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

void judge_unit(const std::string& name, const Properties& unit, Report& report)
{
    const auto value = [&](const char* property) {
        return unit.contains(property) ? unit.at(property) : std::string();
    };
    const std::string unit_name = "zent@" + name;
    if (value("LoadState") != "loaded") {
        report.warn("no-unit", "the unit zent@.service is not installed",
                    "install the package, or run zent by hand");
        return;
    }
    if (value("UnitFileState").starts_with("enabled")) {
        report.ok("unit-enabled", unit_name + " is enabled and " + value("ActiveState"));
    } else {
        report.warn("unit-disabled", unit_name + " is not enabled: no agent is there after the next boot",
                    "systemctl enable --now " + unit_name);
    }
    if (value("ExecMainStatus") != "0" && value("ExecMainStatus") != "" && value("ActiveState") != "active") {
        const bool is_usage = value("ExecMainStatus") == "1";
        report.error("unit-failed",
                     unit_name + " ended last with exit code " + value("ExecMainStatus") +
                         (is_usage ? ", a wrong option" : ", a set-up that failed"),
                     "journalctl -u " + unit_name + " -n 20");
    }
}

std::optional<AgentSetup> check_unit(const std::string& name, Report& report)
{
    const auto unit = unit_properties("zent@" + name); // nothing where systemd does not run
    if (!unit) {
        return {};
    }
    judge_unit(name, *unit, report);
    const auto variables = unit_variables(*unit);
    const std::vector<std::string> words = unit_words(*unit, variables);
    if (words.empty()) {
        return {};
    }
    AgentSetup setup = setup_of_words(words);
    setup.origin = "zent@" + name;
    if (variables.contains("ZENT_FEATURES")) {
        setup.features = variables.at("ZENT_FEATURES");
    }
    report.data.set("unit_command", joined(words));
    report.data.set("unit_features", setup.features);
    report.ok("unit-command", setup.origin + " starts: " + joined(words) +
                                  (setup.features.empty() ? "" : " with ZENT_FEATURES=" + setup.features));
    return setup;
}

} // namespace

std::vector<std::string> split_words(const std::string& line)
{
    std::vector<std::string> words;
    std::string word;
    bool is_word = false;
    char quote = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '\\' && i + 1 < line.size()) {
            word += line[++i];
            is_word = true;
        } else if (quote != 0) {
            quote = c == quote ? '\0' : quote;
            word += quote != 0 ? std::string(1, c) : "";
        } else if (c == '"' || c == '\'') {
            quote = c;
            is_word = true;
        } else if (c == ' ' || c == '\t') {
            if (is_word) {
                words.push_back(word);
            }
            word.clear();
            is_word = false;
        } else {
            word += c;
            is_word = true;
        }
    }
    if (is_word) {
        words.push_back(word);
    }
    return words;
}

AgentSetup setup_of_words(const std::vector<std::string>& words)
{
    AgentSetup setup;
    std::vector<std::string> copies = words;
    std::vector<char*> argv;
    argv.reserve(copies.size() + 1);
    for (std::string& word : copies) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    optind = 0; // getopt anew
    opterr = 0;
    for (int option = 0;
         (option = getopt(static_cast<int>(words.size()), argv.data(), "?Ti:R:g:G:F:l:L:u:p:")) != -1;) {
        switch (option) {
        case 'R': setup.target = optarg; break;
        case 'F': setup.list = optarg; break;
        case 'g': setup.least = optarg; break;
        case 'G': setup.most = optarg; break;
        case 'p': setup.pidfile = optarg; break;
        default: break;
        }
    }
    setup.is_known = true;
    return setup;
}

void check_agent(const std::string& name, AgentSetup* setup, Report& report)
{
    int index = 0;
    for (const Interface& link : all_interfaces()) {
        index = link.name == name ? link.index : index;
    }
    const std::set<std::string> sockets = packet_sockets(index);
    const std::vector<AgentProcess> agents = running_agents(name, sockets);
    if (index != 0) {
        tell_agents(name, agents, sockets.size(), report);
    }
    const std::optional<AgentSetup> unit = check_unit(name, report);
    if (!agents.empty()) {
        *setup = agents.front().setup;
    } else if (unit) {
        *setup = *unit;
    }
    check_pidfiles(agents, setup->pidfile, report);
}

} // namespace zentctl
