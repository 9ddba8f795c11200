// The format of a list of groups, read by the agent's rules: pieces of at most 62 bytes, line ends removed,
// and what inet_aton makes of the rest.
#include "list_file.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <netinet/in.h>
#include <sys/mman.h>
#include <unistd.h>

#include "command.h"
#include "strops.h"
#include "zent.h"

namespace zentctl {

namespace {

constexpr size_t kPieceMax = 62; // what the agent's fgets takes at once
constexpr const char* kBlanks = " \t\v\f\r\n";
constexpr size_t kFileMax = size_t{64} << 20;

class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}

    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    ~Descriptor()
    {
        if (fd_ > STDERR_FILENO) {
            close(fd_);
        }
    }

    int get() const { return fd_; }

  private:
    int fd_;
};

// What the agent sees of a piece: up to a zero byte, without the line's end.
std::string as_agent_sees(std::string_view piece)
{
    std::string text(piece.substr(0, piece.find('\0')));
    chomp(text.data());
    return text.c_str();
}

std::string shown(std::string_view text)
{
    std::string result;
    for (const char c : text.substr(0, kPieceMax)) {
        const auto byte = static_cast<unsigned char>(c);
        result += byte < 0x20 || byte == 0x7f ? '?' : c;
    }
    return '"' + result + '"';
}

// Reading of one list, line by line.
class Reading {
  public:
    explicit Reading(ListReading& result) : result_(result) {}

    void line(std::string_view whole)
    {
        ++number_;
        if (whole.ends_with("\r\n") && crlf_count_++ == 0) {
            first_crlf_ = number_;
        }
        const std::vector<std::string_view> pieces = in_pieces(whole);
        if (pieces.size() > 1) {
            long_line(whole, pieces);
        } else {
            entry(as_agent_sees(whole));
        }
    }

    void end()
    {
        if (crlf_count_ > 0) {
            add(Level::warning, "crlf",
                crlf_count_ == 1 ? "this line ends in CR LF"
                                 : std::to_string(crlf_count_) + " lines end in CR LF",
                0, "the agent takes them; other programs may not: zentctl lint --fix")
                .line = first_crlf_;
        }
    }

  private:
    static std::vector<std::string_view> in_pieces(std::string_view whole)
    {
        std::vector<std::string_view> pieces;
        for (size_t at = 0; at < whole.size(); at += kPieceMax) {
            pieces.push_back(whole.substr(at, kPieceMax));
        }
        return pieces;
    }

    Finding& add(Level level, const char* code, std::string text, size_t column, std::string cure = "")
    {
        result_.findings.push_back({level, code, std::move(text), std::move(cure), number_, column});
        result_.refused = result_.refused || level == Level::error;
        return result_.findings.back();
    }

    void entry(const std::string& text)
    {
        in_addr address = {};
        if (inet_aton(text.c_str(), &address) == 0) {
            not_an_address(text);
            return;
        }
        const uint32_t group = ntohl(address.s_addr);
        if (!is_group(group)) {
            add(Level::error, "not-multicast",
                shown(text) + " is " + address_text(group) + ", no multicast address", 1,
                "groups are 224.0.0.0 to 239.255.255.255");
            return;
        }
        if (take(group)) {
            notation(text, group);
        }
    }

    bool take(uint32_t group)
    {
        const auto [first, is_new] = seen_.emplace(group, number_);
        if (!is_new) {
            add(Level::error, "duplicate",
                address_text(group) + " stands in line " + std::to_string(first->second) + " already", 1,
                "remove one of the two");
            return false;
        }
        result_.entries.push_back({number_, group});
        return true;
    }

    void not_an_address(const std::string& text)
    {
        const size_t first = text.find_first_not_of(kBlanks);
        if (first == std::string::npos) {
            add(Level::error, "empty-line", "the line is empty", 1, "remove it");
        } else if (text[first] == '#' || text[first] == ';' || text.compare(first, 2, "//") == 0) {
            add(Level::error, "comment", "the agent knows no comments: " + shown(text), first + 1,
                "remove it: zentctl lint --fix");
        } else {
            const size_t odd = text.find_first_not_of("0123456789abcdefABCDEFxX.", first);
            const bool starts_well = first == 0 && text[0] >= '0' && text[0] <= '9';
            add(Level::error, "not-an-address",
                shown(text) + (first > 0 ? " begins with a blank" : " is no IPv4 address"),
                starts_well && odd != std::string::npos ? odd + 1 : 1,
                "one address in dotted decimal a line (zentctl expand makes them of prefixes)");
            take_first(std::string_view(text).substr(first));
        }
    }

    // What a good entry has besides four decimal numbers.
    void notation(const std::string& text, uint32_t group)
    {
        const size_t end = text.find_first_of(kBlanks);
        const std::string address = text.substr(0, end);
        if (!parse_address(address)) {
            add(Level::warning, "odd-notation", shown(address) + " means " + address_text(group), 1,
                "write " + address_text(group));
        }
        const size_t more = end == std::string::npos ? end : text.find_first_not_of(kBlanks, end);
        if (more != std::string::npos) {
            add(Level::warning, "ignored-text", "the agent does not read " + shown(text.substr(more)),
                more + 1, "remove it: zentctl lint --fix");
        }
    }

    // Each piece is an entry of its own to the agent. The list is refused unless all of them are good.
    void long_line(std::string_view whole, const std::vector<std::string_view>& pieces)
    {
        const std::string length = std::to_string(as_agent_sees(whole).size());
        std::vector<uint32_t> groups;
        for (const std::string_view piece : pieces) {
            in_addr address = {};
            const std::string text = as_agent_sees(piece);
            const uint32_t group = inet_aton(text.c_str(), &address) != 0 ? ntohl(address.s_addr) : 0;
            if (!is_group(group) || seen_.contains(group) ||
                std::find(groups.begin(), groups.end(), group) != groups.end()) {
                add(Level::error, "long-line",
                    "a line of " + length + " characters: behind the first 62 the agent reads another entry",
                    kPieceMax + 1, "one address a line and nothing else: zentctl lint --fix");
                take_first(pieces.front());
                return;
            }
            groups.push_back(group);
        }
        add(Level::warning, "long-line",
            "a line of " + length + " characters, which the agent reads as " + std::to_string(groups.size()) +
                " entries",
            kPieceMax + 1, "one address a line: zentctl lint --fix");
        for (const uint32_t group : groups) {
            take(group);
        }
    }

    // What --fix keeps of a line that is refused: the address that it begins with.
    void take_first(std::string_view piece)
    {
        in_addr address = {};
        if (inet_aton(as_agent_sees(piece).c_str(), &address) != 0 && is_group(ntohl(address.s_addr)) &&
            seen_.emplace(ntohl(address.s_addr), number_).second) {
            result_.entries.push_back({number_, ntohl(address.s_addr)});
        }
    }

    ListReading& result_;
    std::map<uint32_t, size_t> seen_; // group, line
    size_t number_ = 0;
    size_t crlf_count_ = 0;
    size_t first_crlf_ = 0;
};

} // namespace

std::string read_whole_file(const std::string& path)
{
    const Descriptor file(path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text;
    char block[65536];
    ssize_t n = file.get() < 0 ? -1 : 0;
    while (file.get() >= 0 && (n = read(file.get(), block, sizeof block)) > 0) {
        text.append(block, static_cast<size_t>(n));
        if (text.size() > kFileMax) {
            throw CannotLook("unreadable", path + ": larger than 64 MiB");
        }
    }
    if (n < 0) {
        throw CannotLook("unreadable", path + ": " + strerror(errno));
    }
    return text;
}

ListReading read_list(std::string_view text)
{
    ListReading result;
    Reading reading(result);
    while (!text.empty()) {
        const size_t end = text.find('\n');
        const size_t length = end == std::string_view::npos ? text.size() : end + 1;
        reading.line(text.substr(0, length));
        text.remove_prefix(length);
    }
    reading.end();
    return result;
}

std::string fixed_text(const ListReading& list)
{
    std::string text;
    for (const ListEntry& entry : list.entries) {
        text += address_text(entry.group) + "\n";
    }
    return text;
}

bool load_into_agent(std::string_view text)
{
    // The loader opens a path; a file in memory has one, and holds the very bytes that were judged.
    const Descriptor copy(memfd_create("zentctl-list", MFD_CLOEXEC));
    if (copy.get() < 0 || write(copy.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        throw CannotLook("internal", std::string("a copy of the list in memory: ") + strerror(errno));
    }
    const std::string path = "/proc/self/fd/" + std::to_string(copy.get());
    errno = 0;
    const int rc = load_group_list(path.c_str());
    if (rc != 0 && errno != 0) { // what the loader has against a list sets no errno: a call failed
        throw CannotLook("internal", std::string("the list in the agent's loader: ") + strerror(errno));
    }
    return rc == 0;
}

ListReading judge_list(std::string_view text)
{
    ListReading list = read_list(text);
    set_agent_range({});
    list.taken = load_into_agent(text);
    if (list.taken || load_into_agent(fixed_text(list))) {
        // Which entries have an effect is for the agent's own table to say: it is asked, not modelled.
        for (ListEntry& entry : list.entries) {
            entry.matches = in_scope(static_cast<int32_t>(htonl(entry.group)));
        }
    }
    return list;
}

} // namespace zentctl
