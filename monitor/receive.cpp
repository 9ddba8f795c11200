// The intake.
#include "receive.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log.h"
#include "netops.h"
#include "syswrap.h"

DECLARE_MLL(MLL_COMMON);

namespace zentmon {

namespace {

constexpr size_t kBatch = 64;
constexpr int kBatches = 16;         // in one turn: then the others have theirs
constexpr size_t kAgentsKept = 8192; // in a listener's table of sources
constexpr size_t kShownOfBadLine = 80;
constexpr size_t kStreamRead = 65536;

// The buffers of a batch: one set for all listeners, since each batch is done with before the next one.
struct Batch {
    std::array<std::array<char, kLongestDatagram>, kBatch> data;
    std::array<struct sockaddr_storage, kBatch> from;
    std::array<struct iovec, kBatch> iov;
    std::array<struct mmsghdr, kBatch> messages;

    Batch()
    {
        for (size_t i = 0; i < kBatch; ++i) {
            iov[i] = {data[i].data(), data[i].size()};
            messages[i] = {};
            messages[i].msg_hdr.msg_iov = &iov[i];
            messages[i].msg_hdr.msg_iovlen = 1;
            messages[i].msg_hdr.msg_name = &from[i];
            messages[i].msg_hdr.msg_namelen = sizeof from[i];
        }
    }

    // How many came, 0 for none; -1 with errno.
    int receive(int fd)
    {
        for (struct mmsghdr& message : messages) {
            message.msg_hdr.msg_namelen = sizeof from[0];
        }
        return recvmmsg(fd, messages.data(), kBatch, MSG_DONTWAIT, nullptr);
    }
};

Batch& batch()
{
    static Batch buffers;
    return buffers;
}

uint16_t port_of(const struct sockaddr_storage& ss)
{
    // Both families have the port in the same place.
    struct sockaddr_in in;
    memcpy(&in, &ss, sizeof in);
    return ntohs(in.sin_port);
}

std::string shown(std::string_view text)
{
    std::string out;
    for (const char c : text.substr(0, kShownOfBadLine)) {
        out += c >= ' ' && c < 0x7f ? c : '?';
    }
    return out;
}

// By force where the process may, else as much as the system allows.
void ask_for_buffer(int fd, const char* name, size_t wanted)
{
    const int size = static_cast<int>(std::min<size_t>(wanted, INT32_MAX / 2));
    if (size == 0 || setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) == 0) {
        return;
    }
    set_socket_rcvbuf(fd, static_cast<size_t>(size));
    int got = 0;
    socklen_t length = sizeof got;
    if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &got, &length) == 0 && got / 2 < size) {
        log_info(
            "%s: the receive buffer has %d bytes and not %d: net.core.rmem_max or the unit's ReceiveBuffer= "
            "give more\n",
            name, got / 2, size);
    }
}

} // namespace

// ---- addresses --------------------------------------------------------------------------------

SourceAddress source_address(const struct sockaddr_storage& ss)
{
    SourceAddress source = {};
    if (ss.ss_family == AF_INET) {
        struct sockaddr_in in;
        memcpy(&in, &ss, sizeof in);
        source.bytes[10] = source.bytes[11] = 0xff;
        memcpy(&source.bytes[12], &in.sin_addr, 4);
    } else if (ss.ss_family == AF_INET6) {
        struct sockaddr_in6 in6;
        memcpy(&in6, &ss, sizeof in6);
        memcpy(source.bytes.data(), &in6.sin6_addr, 16);
        source.scope = IN6_IS_ADDR_LINKLOCAL(&in6.sin6_addr) ? in6.sin6_scope_id : 0;
    }
    return source;
}

std::string address_text(const SourceAddress& source)
{
    struct in6_addr in6;
    memcpy(&in6, source.bytes.data(), sizeof in6);
    char text[INET6_ADDRSTRLEN] = "";
    if (IN6_IS_ADDR_V4MAPPED(&in6)) {
        return inet_ntop(AF_INET, &source.bytes[12], text, sizeof text);
    }
    std::string out = inet_ntop(AF_INET6, &in6, text, sizeof text);
    if (source.scope != 0) {
        char name[IF_NAMESIZE] = "";
        out += '%';
        out += if_indextoname(source.scope, name) != nullptr ? name : std::to_string(source.scope);
    }
    return out;
}

bool matches(const Cidr& cidr, const SourceAddress& source)
{
    const auto whole = static_cast<size_t>(cidr.bits / 8);
    if (memcmp(cidr.bytes, source.bytes.data(), whole) != 0) {
        return false;
    }
    const int rest = cidr.bits % 8;
    return rest == 0 || (cidr.bytes[whole] ^ source.bytes[whole]) >> (8 - rest) == 0;
}

void count_bad_line(Counters& counters, BadLine why, const std::string& from, std::string_view text)
{
    ++counters.bad_lines[why];
    log_dbg("bad line (%s) from %s: %s\n", bad_line_name(why), from.c_str(), shown(text).c_str());
}

// ---- sockets ----------------------------------------------------------------------------------

int open_datagram_socket(const Endpoint& at, size_t buffer)
{
    const int fd = Socket(at.ss.ss_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    ask_for_buffer(fd, at.text.c_str(), buffer); // first: lines come as soon as it is bound
    const int on = 1;
    if ((at.ss.ss_family == AF_INET6 && Setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) != 0) ||
        Bind(fd, reinterpret_cast<const struct sockaddr*>(&at.ss), at.len) != 0) {
        const int error = errno;
        Close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

size_t Listener::SourceHash::operator()(const SourceAddress& source) const
{
    uint64_t words[2];
    memcpy(words, source.bytes.data(), sizeof words);
    return (words[0] ^ words[1] ^ source.scope) * 0x9e3779b97f4a7c15u >> 16;
}

Listener::Listener(int fd, std::string name, const std::vector<Cidr>& allow, State& state, Counters& counters)
    : fd_(fd),
      allow_(allow),
      state_(state),
      counters_(counters),
      own_(counters.listeners.emplace_back(ListenerCounters{std::move(name), 0, 0}))
{
}

Listener::~Listener()
{
    watch_.stop();
    close(fd_);
}

int Listener::start()
{
    return watch_.start(fd_, this);
}

bool Listener::allowed(const SourceAddress& source) const
{
    if (allow_.empty()) {
        return true;
    }
    for (const Cidr& cidr : allow_) {
        if (matches(cidr, source)) {
            return true;
        }
    }
    return false;
}

int Listener::agent_of(const SourceAddress& source, Now at)
{
    if (generation_ != state_.generation() || agents_.size() >= kAgentsKept) {
        agents_.clear();
        generation_ = state_.generation();
    }
    const auto known = agents_.find(source);
    if (known != agents_.end()) {
        return known->second;
    }
    const int agent = state_.find_agent(own_.name, address_text(source), at);
    if (agent >= 0) {
        agents_.emplace(source, agent);
    }
    return agent;
}

void Listener::take(const Datagram& datagram, Now at)
{
    ++own_.datagrams;
    const SourceAddress source = source_address(*datagram.from);
    if (!allowed(source)) {
        ++counters_.denied;
        return;
    }
    if (datagram.data.empty()) {
        ++counters_.empty_datagrams;
        return;
    }
    const uint16_t port = port_of(*datagram.from);
    each_line(
        datagram.data, datagram.cut,
        [&](Line line) {
            const int agent = agent_of(source, at);
            if (agent >= 0) {
                state_.apply(agent, port, line.kind, line.group, at);
            }
        },
        [&](BadLine why, std::string_view text) {
            ++counters_.bad_lines[why];
            if (loglevel_is(DEBUG_level)) {
                log_dbg("bad line (%s) from %s: %s\n", bad_line_name(why), address_text(source).c_str(),
                        shown(text).c_str());
            }
        });
}

void Listener::on_readable()
{
    Batch& buffers = batch();
    for (int turn = 0; turn < kBatches; ++turn) {
        const int count = buffers.receive(fd_);
        const Now at = now();
        for (int i = 0; i < count; ++i) {
            const auto n = static_cast<size_t>(i);
            const struct mmsghdr& message = buffers.messages[n];
            take({&buffers.from[n],
                  {buffers.data[n].data(), message.msg_len},
                  (message.msg_hdr.msg_flags & MSG_TRUNC) != 0},
                 at);
        }
        if (count < static_cast<int>(kBatch)) {
            return; // empty, or an error of an earlier answer (ICMP), which this call has cleared
        }
    }
}

void Listener::read_drops()
{
    uint32_t info[SK_MEMINFO_VARS] = {};
    socklen_t length = sizeof info;
    if (getsockopt(fd_, SOL_SOCKET, SO_MEMINFO, info, &length) != 0 ||
        length <= SK_MEMINFO_DROPS * sizeof info[0]) {
        return;
    }
    const uint32_t lost = info[SK_MEMINFO_DROPS] - kernel_drops_;
    kernel_drops_ = info[SK_MEMINFO_DROPS];
    if (lost != 0) {
        own_.dropped += lost;
        log_warn("%s: %u datagrams lost, the receive buffer was full (%llu in all)\n", own_.name.c_str(),
                 lost, static_cast<unsigned long long>(own_.dropped));
    }
}

// ---- standard input ---------------------------------------------------------------------------

StreamIntake::StreamIntake(int fd, State& state, Counters& counters, std::function<void()> on_end)
    : fd_(fd), state_(state), counters_(counters), on_end_(std::move(on_end)), again_([this] {
          on_readable();
      })
{
}

int StreamIntake::start()
{
    struct stat st = {};
    is_file_ = fstat(fd_, &st) == 0 && (S_ISREG(st.st_mode) || S_ISDIR(st.st_mode));
    char null_device[] = "/dev/null";
    struct stat null_st = {};
    is_file_ = is_file_ ||
               (S_ISCHR(st.st_mode) && stat(null_device, &null_st) == 0 && st.st_rdev == null_st.st_rdev);
    if (is_file_) {
        again_.start_ms(0);
        return 0;
    }
    return watch_.start(fd_, this);
}

void StreamIntake::take_line(std::string_view text, BadLine why)
{
    const std::optional<Line> line = why == BadLine::truncated ? std::nullopt : parse_line(text, &why);
    if (!line) {
        count_bad_line(counters_, why, "stdin", text);
        return;
    }
    state_.apply("stdin", "stdin", 0, line->kind, line->group, now());
}

// Takes the whole lines out of what is there.
void StreamIntake::take(size_t fresh)
{
    size_t from = 0;
    size_t search = rest_.size() - fresh;
    for (size_t end = 0; (end = rest_.find('\n', search)) != std::string::npos; search = from) {
        if (skipping_) {
            skipping_ = false;
        } else {
            take_line(std::string_view(rest_).substr(from, end - from), BadLine::empty);
        }
        from = end + 1;
    }
    rest_.erase(0, from);
    if (rest_.size() > kLongestDatagram) {
        if (!skipping_) {
            take_line(rest_, BadLine::truncated);
        }
        skipping_ = true;
        rest_.clear();
    }
}

void StreamIntake::on_readable()
{
    static std::array<char, kStreamRead> buffer;
    const ssize_t got = Read_f(fd_, buffer.data(), buffer.size(), 0);
    if (got > 0) {
        rest_.append(buffer.data(), static_cast<size_t>(got));
        take(static_cast<size_t>(got));
    } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
        end();
        return;
    }
    if (is_file_) {
        again_.start_ms(0);
    }
}

void StreamIntake::end()
{
    watch_.stop();
    if (!rest_.empty() && !skipping_) {
        take_line(rest_, BadLine::empty);
    }
    rest_.clear();
    log_info("stdin: the stream has ended\n");
    state_.end_of_stream("stdin", "stdin", now());
    on_end_();
}

} // namespace zentmon
