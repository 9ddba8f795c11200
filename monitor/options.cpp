// The words of the settings, each with its reader.
#include "options.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include "log.h"
#include "names.h"
#include "receive.h"

namespace zentmon {

const char* const kVersion = "0.1-6.0";

namespace {

constexpr int64_t kLongestTime = 366LL * 86400;
constexpr size_t kLargestBuffer = size_t{1} << 30;

[[noreturn]] void refuse(const std::string& what)
{
    throw UsageError(what);
}

int64_t number(const std::string& text, int64_t least, int64_t most)
{
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < least || value > most) {
        refuse("\"" + text + "\" is no number from " + std::to_string(least) + " to " + std::to_string(most));
    }
    return value;
}

const std::string& name(const std::string& text)
{
    if (!is_name(text)) {
        refuse("\"" + text + "\" is no name: 1 to 64 letters, digits, and . _ : -");
    }
    return text;
}

const std::string& not_empty(const std::string& text)
{
    if (text.empty()) {
        refuse("a value is missing");
    }
    return text;
}

// A numeric address with a port; false for anything else.
bool resolve(const std::string& host, const std::string& port, Endpoint& at)
{
    struct in_addr plain;
    if (host.find(':') == std::string::npos && inet_pton(AF_INET, host.c_str(), &plain) != 1) {
        return false; // the system would take "10.1" and "0x7f000001" too
    }
    struct addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_DGRAM;
    struct addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) {
        return false;
    }
    memcpy(&at.ss, found->ai_addr, found->ai_addrlen);
    at.len = found->ai_addrlen;
    freeaddrinfo(found);
    return true;
}

bool is_port(const std::string& text)
{
    return !text.empty() && text.size() <= 5 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }) &&
           std::stoi(text) <= 65535;
}

std::string without_brackets(std::string text)
{
    text.erase(std::remove_if(text.begin(), text.end(), [](char c) { return c == '[' || c == ']'; }),
               text.end());
    return text;
}

// ---- one reader a word ------------------------------------------------------------------------

void add_listener(Config& c, const std::string& value)
{
    const size_t equals = value.find('=');
    ListenSpec spec;
    spec.at = parse_endpoint(value.substr(0, equals));
    if (equals != std::string::npos) {
        spec.name = name(value.substr(equals + 1));
    }
    c.listen.push_back(spec);
}

void add_name(Config& c, const std::string& value)
{
    const size_t equals = value.find('=');
    Endpoint at;
    if (equals == std::string::npos || !resolve(without_brackets(value.substr(0, equals)), "0", at)) {
        refuse("\"" + value + "\" is not ADDRESS=TEXT with a numeric address");
    }
    c.names[address_text(source_address(at.ss))] = name(value.substr(equals + 1));
}

void set_http(Config& c, const std::string& value)
{
    c.http_given = true;
    c.http = value == "none" ? Endpoint() : parse_endpoint(value);
}

void add_host(Config& c, const std::string& value)
{
    std::string host = not_empty(value);
    std::transform(host.begin(), host.end(), host.begin(),
                   [](char ch) { return static_cast<char>(ch >= 'A' && ch <= 'Z' ? ch + 32 : ch); });
    c.hosts.push_back(host);
}

void set_mqtt(Config& c, const std::string& value)
{
    const size_t colon = value.rfind(':');
    const std::string host = without_brackets(value.substr(0, colon));
    if (colon == std::string::npos || host.empty() || !is_port(value.substr(colon + 1))) {
        refuse("\"" + value + "\" is not HOST:PORT");
    }
    c.mqtt_host = host;
    c.mqtt_port = static_cast<uint16_t>(number(value.substr(colon + 1), 1, 65535));
}

void set_prefix(Config& c, const std::string& value)
{
    // A wildcard or an empty level in it would make another topic than the one that is meant.
    if (value.empty() || value.find_first_of("+#") != std::string::npos || value.front() == '/' ||
        value.back() == '/' || value.front() == '$') {
        refuse("\"" + value + "\" is no topic: no wildcard, no / at an end, no $ at the beginning");
    }
    c.mqtt_prefix = value;
}

void set_level(Config& c, const std::string& value)
{
    if (match_log_level(value.c_str(), &c.log_level) != 0) {
        refuse("\"" + value + "\" is no level: crit, err, warn, norm, info or debug");
    }
}

struct Word {
    const char* name;
    const char* value; // how its value is called; NULL: it has none
    const char* help;
    void (*set)(Config&, const std::string& value);
};

using Text = const std::string&;

// In the order of the help text.
constexpr Word kWords[] = {
    {"listen", "ADDRESS:PORT[=NAME]", "take lines there; again for more (127.0.0.1:4554)", add_listener},
    {"stdin", nullptr, "take lines from standard input: agent \"stdin\"",
     [](Config& c, Text) { c.stdin_lines = true; }},
    {"allow", "CIDR", "take lines from there alone; again for more",
     [](Config& c, Text v) { c.allow.push_back(parse_cidr(v)); }},
    {"name", "ADDRESS=TEXT", "call the agent of an address so; again for more", add_name},
    {"receive-buffer", "BYTES", "ask for a receive buffer of that size, 0: the kernel's (67108864)",
     [](Config& c, Text v) { c.receive_buffer = static_cast<size_t>(number(v, 0, kLargestBuffer)); }},
    {"stale", "SECONDS", "take stale groups off after that time, 0: never (260)",
     [](Config& c, Text v) { c.stale_s = number(v, 0, kLongestTime); }},
    {"forget", "SECONDS", "drop an agent that was not heard for that time, 0: never (0)",
     [](Config& c, Text v) { c.forget_s = number(v, 0, kLongestTime); }},
    {"linger", "SECONDS", "hold a LEAVE back for that time (0)",
     [](Config& c, Text v) { c.linger_s = number(v, 0, 3600); }},
    {"http", "ADDRESS:PORT", "serve the page there, \"none\": nowhere (127.0.0.1:8580)", set_http},
    {"host", "NAME", "answer requests for that host name too; again for more", add_host},
    {"db", "PATH", "keep the history in that SQLite file", [](Config& c, Text v) { c.db = not_empty(v); }},
    {"keep", "DAYS", "keep events for that time (90)",
     [](Config& c, Text v) { c.keep_days = static_cast<int>(number(v, 1, 36500)); }},
    {"json", nullptr, "write each event as a line on standard output",
     [](Config& c, Text) { c.json = true; }},
    {"exec", "PATH", "run that program for each event", [](Config& c, Text v) { c.exec = not_empty(v); }},
    {"exec-max", "N", "run at most so many at a time (4)",
     [](Config& c, Text v) { c.exec_max = static_cast<int>(number(v, 1, 256)); }},
    {"forward", "ADDRESS:PORT", "send the union of all agents on as lines",
     [](Config& c, Text v) { c.forward = parse_endpoint(v); }},
    {"mqtt", "HOST:PORT", "publish to that MQTT broker", set_mqtt},
    {"mqtt-prefix", "TOPIC", "first part of each topic (zent)", set_prefix},
    {"mqtt-user", "NAME", "user at the broker", [](Config& c, Text v) { c.mqtt_user = not_empty(v); }},
    {"mqtt-password-file", "PATH", "file with his password",
     [](Config& c, Text v) { c.mqtt_password_file = not_empty(v); }},
    {"mqtt-tls", nullptr, "use TLS, with the system's authorities",
     [](Config& c, Text) { c.mqtt_tls = true; }},
    {"mqtt-ca", "PATH", "use TLS, with the authorities of that PEM file",
     [](Config& c, Text v) {
         c.mqtt_ca = not_empty(v);
         c.mqtt_tls = true;
     }},
    {"mqtt-cert", "PATH", "PEM file of our certificate for the broker",
     [](Config& c, Text v) { c.mqtt_cert = not_empty(v); }},
    {"mqtt-key", "PATH", "PEM file of its key", [](Config& c, Text v) { c.mqtt_key = not_empty(v); }},
    {"instance", "NAME", "what this zentmon is called (the host's name)",
     [](Config& c, Text v) { c.instance = name(v); }},
    {"config", "FILE", "read options from that file, names and --allow again at SIGHUP",
     [](Config& c, Text v) { c.config_file = not_empty(v); }},
    {"log", "PATH", "log to that file (standard error)", [](Config& c, Text v) { c.log = not_empty(v); }},
    {"loglevel", "LEVEL", "crit, err, warn, norm, info or debug (info)", set_level},
};

const Word* find_word(const std::string& text)
{
    for (const Word& word : kWords) {
        if (text == word.name) {
            return &word;
        }
    }
    return nullptr;
}

// ---- the file ---------------------------------------------------------------------------------

std::string trimmed(const std::string& text)
{
    const size_t from = text.find_first_not_of(" \t\r");
    return from == std::string::npos ? "" : text.substr(from, text.find_last_not_of(" \t\r") - from + 1);
}

// "WORD", "WORD VALUE" or "WORD = VALUE", with or without "--" in front.
void read_file_line(Config& config, std::string line)
{
    if (line.rfind("--", 0) == 0) {
        line.erase(0, 2);
    }
    const size_t end = line.find_first_of(" \t=");
    const std::string text = line.substr(0, end);
    std::string value = end == std::string::npos ? "" : trimmed(line.substr(end));
    if (!value.empty() && value[0] == '=') {
        value = trimmed(value.substr(1));
    }
    const Word* word = find_word(text);
    if (word == nullptr || strcmp(word->name, "config") == 0) {
        refuse("\"" + text + "\" is no option here");
    }
    if ((word->value == nullptr) != value.empty()) {
        refuse(text + (value.empty() ? " needs a value" : " has no value"));
    }
    word->set(config, value);
}

void read_file(Config& config, const std::string& path)
{
    std::ifstream file(path);
    if (!file) {
        refuse(path + ": " + strerror(errno));
    }
    std::string line;
    for (int count = 1; std::getline(file, line); ++count) {
        line = trimmed(line);
        if (line.empty() || line[0] == '#') {
            continue;
        }
        try {
            read_file_line(config, line);
        } catch (const UsageError& error) {
            refuse(path + ":" + std::to_string(count) + ": " + error.what());
        }
    }
    if (file.bad()) {
        refuse(path + ": it cannot be read");
    }
}

// ---- the command line -------------------------------------------------------------------------

struct Argument {
    const Word* word;
    std::string value;
};

// "--word", "--word value" or "--word=value".
Argument read_argument(const std::vector<std::string>& arguments, size_t& at)
{
    const std::string& text = arguments[at];
    const size_t equals = text.find('=');
    const bool is_option = text.rfind("--", 0) == 0;
    const Word* word =
        is_option ? find_word(text.substr(2, equals == std::string::npos ? equals : equals - 2)) : nullptr;
    if (word == nullptr) {
        refuse("\"" + text + "\" is no option; --help lists them");
    }
    if (word->value == nullptr) {
        if (equals != std::string::npos) {
            refuse(std::string("--") + word->name + " has no value");
        }
        return {word, ""};
    }
    if (equals != std::string::npos) {
        return {word, text.substr(equals + 1)};
    }
    if (at + 1 == arguments.size()) {
        refuse(std::string("--") + word->name + " needs a value: " + word->value);
    }
    return {word, arguments[++at]};
}

std::string host_name()
{
    char text[HOST_NAME_MAX + 1] = "";
    gethostname(text, sizeof text - 1);
    return as_name(text);
}

[[noreturn]] void refuse_name(const std::string& name, const std::string& one, const std::string& other)
{
    refuse("the name \"" + name + "\" is given to " + one + " and to " + other);
}

void check_names(const Config& config)
{
    std::map<std::string, std::string> seen;
    for (const auto& [address, text] : config.names) {
        const auto [other, fresh] = seen.emplace(text, address);
        if (!fresh) {
            refuse_name(text, other->second, address);
        }
    }
}

// What can only be judged when all is read.
void complete(Config& config)
{
    if (!config.http_given) {
        config.http = parse_endpoint("127.0.0.1:8580");
    }
    if (config.instance.empty()) {
        config.instance = host_name();
    }
    for (const ListenSpec& spec : config.listen) {
        const auto same = [&](const ListenSpec& other) { return other.name == spec.name; };
        if (!spec.name.empty() && std::count_if(config.listen.begin(), config.listen.end(), same) > 1) {
            refuse("two listeners are called \"" + spec.name + "\"");
        }
    }
    check_names(config);
    if ((config.mqtt_cert.empty()) != (config.mqtt_key.empty())) {
        refuse("--mqtt-cert and --mqtt-key belong together");
    }
    if (!config.mqtt_password_file.empty() && config.mqtt_user.empty()) {
        refuse("--mqtt-password-file is of no use without --mqtt-user");
    }
    if (config.log_level > DEBUG_level) {
        config.log_level = DEBUG_level;
    }
}

} // namespace

Endpoint parse_endpoint(const std::string& text)
{
    Endpoint at;
    at.text = text;
    const size_t colon = text.rfind(':');
    const std::string port = colon == std::string::npos ? text : text.substr(colon + 1);
    std::string host = colon == std::string::npos ? "127.0.0.1" : text.substr(0, colon);
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (bracketed) {
        host = host.substr(1, host.size() - 2);
    }
    const bool well_formed =
        is_port(port) && !host.empty() && bracketed == (host.find(':') != std::string::npos);
    if (!well_formed || !resolve(host, port, at)) {
        refuse("\"" + text + "\" is not ADDRESS:PORT with a numeric address (IPv6 in brackets)");
    }
    return at;
}

Cidr parse_cidr(const std::string& text)
{
    const size_t slash = text.find('/');
    Endpoint at;
    if (!resolve(without_brackets(text.substr(0, slash)), "0", at)) {
        refuse("\"" + text + "\" is not ADDRESS/BITS with a numeric address");
    }
    const SourceAddress source = source_address(at.ss);
    const int longest = at.ss.ss_family == AF_INET ? 32 : 128;
    Cidr cidr = {};
    memcpy(cidr.bytes, source.bytes.data(), sizeof cidr.bytes);
    const int64_t bits = slash == std::string::npos ? longest : number(text.substr(slash + 1), 0, longest);
    cidr.bits = static_cast<int>(bits) + 128 - longest;
    return cidr;
}

std::string endpoint_text(const struct sockaddr_storage& ss)
{
    struct sockaddr_in in;
    memcpy(&in, &ss, sizeof in); // the port stands in the same place in both families
    const std::string host = address_text(source_address(ss));
    const std::string port = std::to_string(ntohs(in.sin_port));
    return ss.ss_family == AF_INET6 ? "[" + host + "]:" + port : host + ":" + port;
}

Command read_options(const std::vector<std::string>& arguments)
{
    Command command;
    std::vector<Argument> read;
    for (size_t at = 0; at < arguments.size(); ++at) {
        if (arguments[at] == "--help" || arguments[at] == "-?" || arguments[at] == "-h") {
            command.kind = Command::help;
            return command;
        }
        if (arguments[at] == "--version") {
            command.kind = Command::version;
            return command;
        }
        read.push_back(read_argument(arguments, at));
    }
    for (const Argument& argument : read) {
        if (strcmp(argument.word->name, "config") == 0) {
            argument.word->set(command.config, argument.value);
        }
    }
    if (!command.config.config_file.empty()) {
        read_file(command.config, command.config.config_file);
    }
    for (const Argument& argument : read) {
        try {
            argument.word->set(command.config, argument.value);
        } catch (const UsageError& error) {
            refuse(std::string("--") + argument.word->name + ": " + error.what());
        }
    }
    complete(command.config);
    return command;
}

std::string help_text()
{
    std::string out =
        "Usage: zentmon [OPTION]...\n"
        "Receives the lines of zent agents; shows, stores and hands on what is joined where.\n\n"
        "Options (and their defaults):\n";
    for (const Word& word : kWords) {
        std::string left = std::string("  --") + word.name;
        if (word.value != nullptr) {
            left += std::string(" ") + word.value;
        }
        left.resize(std::max<size_t>(left.size() + 1, 32), ' ');
        out += left + word.help + "\n";
    }
    out += "  --help                        show this text\n"
           "  --version                     show the version\n\n"
           "Exit codes: 0, 64 usage or settings, 69 no address to listen on, 71 system, 77 no right.\n";
    return out;
}

} // namespace zentmon
