// The probes on real streams: what they find is held against what ffprobe says of the same bytes.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <set>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "detail/owned.h"
#include "dstream.h"
#include "fds.h"
#include "fixtures.h"
#include "logcap.h"
#include "mpegts.h"
#include "rtp.h"
#include "streams.h"

using support::Buffer;
using support::ffprobe;
using support::LogCapture;
using support::part;
using support::read_stream;

namespace {

// One kind of stream: where its packets begin and how far they stand apart.
struct Kind {
    const char* codec;
    std::string (*make)(const std::string& codec);
    size_t size;
    size_t head; // bytes before the first packet
};

std::ostream& operator<<(std::ostream& out, const Kind& kind)
{
    return out << kind.codec << " in packets of " << kind.size;
}

struct Clock {
    size_t pos;
    uint64_t value;

    bool operator==(const Clock&) const = default;
};

std::string stream_name(const testing::TestParamInfo<Kind>& param)
{
    return std::string(param.param.codec) + "_" + std::to_string(param.param.size);
}

// What the probe says of each packet of a file on its own.
struct Finds {
    std::vector<size_t> pats;
    std::vector<Clock> clocks;
    std::vector<size_t> frames;
};

Finds find_packet_by_packet(const Buffer& bytes, size_t head, size_t size)
{
    Finds finds;
    for (size_t pos = head; pos + 188 <= bytes.size(); pos += size) {
        const Buffer one = part(bytes, pos, std::min(size, bytes.size() - pos));
        size_t plen = size;
        sseg_ctx sseg = {1, 1, 0, 1};
        EXPECT_EQ(probe_segment(one.data(), one.size(), STY_MPEGTS.num, &plen, nullptr, &sseg),
                  STY_MPEGTS.num);
        if (sseg.pat_idx != 0) {
            finds.pats.push_back(pos);
        }
        if (sseg.pcr_idx != 0) {
            finds.clocks.push_back({pos, sseg.pcr});
        }
        if (sseg.iframe_idx != 0) {
            finds.frames.push_back(pos);
        }
    }
    return finds;
}

// ffprobe gives the place that lies the distance of two packets before the end of a packet's 188 bytes.
std::vector<size_t> key_frames(const std::string& path, size_t size)
{
    std::vector<size_t> result;
    for (const auto& fields : ffprobe(path, {"-select_streams", "v", "-show_entries", "packet=pos,flags"})) {
        if (fields.size() > 1 && fields[1].starts_with("K")) {
            result.push_back(std::stoul(fields[0]) + size - 188);
        }
    }
    return result;
}

class Streams : public testing::TestWithParam<Kind> {
  protected:
    void SetUp() override
    {
        if (const std::string reason = support::streams_missing(); !reason.empty()) {
            GTEST_SKIP() << "skipped: " << reason;
        }
        path_ = GetParam().make(GetParam().codec);
        bytes_ = read_stream(path_);
        size_ = GetParam().size;
        head_ = GetParam().head;
        ASSERT_GT(bytes_.size(), 100 * size_);
    }

    const char* text() const { return reinterpret_cast<const char*>(bytes_.data()) + head_; }

    size_t text_len() const { return (bytes_.size() - head_) / size_ * size_; }

    support::FdGuard guard_;
    std::string path_;
    Buffer bytes_;
    size_t size_ = 0;
    size_t head_ = 0;
};

} // namespace

TEST_P(Streams, size_and_head)
{
    size_t found = 0;
    EXPECT_EQ(ts_find_head(bytes_.data(), bytes_.size(), &found), static_cast<off_t>(head_));
    EXPECT_EQ(found, size_);
    const Buffer whole = part(bytes_, head_, text_len());
    EXPECT_EQ(ts_probe(whole.data(), whole.size(), true), static_cast<ssize_t>(size_));
    size_t plen = 0;
    size_t pcount = 0;
    EXPECT_EQ(probe_segment(whole.data(), whole.size(), 0, &plen, &pcount, nullptr), STY_MPEGTS.num);
    EXPECT_EQ(plen, size_);
    EXPECT_EQ(pcount, whole.size() / size_);
    // The same stream, entered inside a packet.
    for (const size_t skipped : {1, 77, 187}) {
        const Buffer cut = part(bytes_, head_ + skipped, bytes_.size() - head_ - skipped);
        const off_t head = ts_find_head(cut.data(), cut.size(), &found);
        EXPECT_EQ(head, static_cast<off_t>(size_ - skipped));
        EXPECT_EQ(found, size_);
    }
}

TEST_P(Streams, i_frames_are_where_ffprobe_sees_key_frames)
{
    const Finds finds = find_packet_by_packet(bytes_, head_, size_);
    EXPECT_EQ(finds.frames, key_frames(path_, size_));
    EXPECT_EQ(finds.frames.size(), 3U) << "one in ten of 25";
}

TEST_P(Streams, tables_name_the_programme_that_ffprobe_sees)
{
    const auto programs = ffprobe(path_, {"-show_entries", "program=program_num,pmt_pid"});
    ASSERT_FALSE(programs.empty());
    const Finds finds = find_packet_by_packet(bytes_, head_, size_);
    ASSERT_FALSE(finds.pats.empty());
    for (const size_t pos : finds.pats) {
        const uint8_t* b = bytes_.data() + pos;
        EXPECT_EQ(std::to_string(b[13] << 8 | b[14]), programs[0][0]);
        EXPECT_EQ(std::to_string((b[15] & 0x1f) << 8 | b[16]), programs[0][1]);
    }
    // None was missed: no other packet on PID 0 begins a section.
    size_t on_pid_0 = 0;
    for (size_t pos = head_; pos + 188 <= bytes_.size(); pos += size_) {
        on_pid_0 += ts_pid(bytes_.data() + pos) == 0 && ts_payload_start(bytes_.data() + pos) != 0 ? 1 : 0;
    }
    EXPECT_EQ(finds.pats.size(), on_pid_0);
}

TEST_P(Streams, clocks_are_on_the_pid_that_ffprobe_names)
{
    const auto programs = ffprobe(path_, {"-show_entries", "program=pcr_pid"});
    ASSERT_FALSE(programs.empty());
    const Finds finds = find_packet_by_packet(bytes_, head_, size_);
    ASSERT_GT(finds.clocks.size(), 5U);
    LogCapture log;
    uint64_t total = 0;
    for (size_t i = 0; i < finds.clocks.size(); ++i) {
        EXPECT_EQ(std::to_string(ts_pid(bytes_.data() + finds.clocks[i].pos)), programs[0][0]);
        total += i > 0 ? ts_pcr_delta(finds.clocks[i - 1].value, finds.clocks[i].value) : 0;
    }
    EXPECT_EQ(log.text(), "") << "no gap";
    EXPECT_EQ(total, finds.clocks.back().value - finds.clocks.front().value);
    EXPECT_GT(pcr2ms(total), 700U);
    EXPECT_LE(pcr2ms(total), 1000U);
}

TEST_P(Streams, decoding_times_are_at_the_clock_or_behind)
{
    // ffprobe's first decoding time of the picture and our first clock are on one scale.
    const auto packets = ffprobe(path_, {"-select_streams", "v", "-show_entries", "packet=dts"});
    ASSERT_FALSE(packets.empty());
    const Finds finds = find_packet_by_packet(bytes_, head_, size_);
    ASSERT_FALSE(finds.clocks.empty());
    const uint64_t first_dts = std::stoull(packets[0][0]);
    EXPECT_GE(first_dts, finds.clocks[0].value);
    EXPECT_LE(first_dts - finds.clocks[0].value, static_cast<uint64_t>(PCR_ONE_SEC));
}

TEST_P(Streams, first_and_last_clock_of_the_file)
{
    const Finds finds = find_packet_by_packet(bytes_, head_, size_);
    uint64_t pcr = 0;
    EXPECT_EQ(find_first_pcr(text(), text_len(), size_, &pcr), 0);
    EXPECT_EQ(pcr, finds.clocks.front().value);
    EXPECT_EQ(find_last_pcr(text(), text_len(), size_, &pcr), 0);
    const size_t last_whole = head_ + text_len() - size_;
    const Clock& last =
        finds.clocks.back().pos <= last_whole ? finds.clocks.back() : *(finds.clocks.end() - 2);
    EXPECT_EQ(pcr, last.value);
}

TEST_P(Streams, segments_of_a_datagram_find_the_first_of_each)
{
    const Finds finds = find_packet_by_packet(bytes_, head_, size_);
    const std::set<size_t> pats(finds.pats.begin(), finds.pats.end());
    const std::set<size_t> frames(finds.frames.begin(), finds.frames.end());
    std::set<size_t> clocks;
    for (const Clock& clock : finds.clocks) {
        clocks.insert(clock.pos);
    }
    const auto number_in = [&](const std::set<size_t>& places, size_t from, size_t count) {
        const auto found = places.lower_bound(from);
        return found != places.end() && *found < from + count * size_
                   ? static_cast<uint32_t>((*found - from) / size_ + 1)
                   : 0U;
    };
    for (size_t pos = head_; pos + 7 * size_ <= bytes_.size(); pos += 7 * size_) {
        const Buffer segment = part(bytes_, pos, 7 * size_);
        size_t plen = 0;
        size_t pcount = 0;
        sseg_ctx sseg = {1, 1, 0, 1};
        ASSERT_EQ(probe_segment(segment.data(), segment.size(), 0, &plen, &pcount, &sseg), STY_MPEGTS.num);
        EXPECT_EQ(plen, size_);
        EXPECT_EQ(pcount, 7U);
        EXPECT_EQ(sseg.pat_idx, number_in(pats, pos, 7)) << pos;
        EXPECT_EQ(sseg.pcr_idx, number_in(clocks, pos, 7)) << pos;
        EXPECT_EQ(sseg.iframe_idx, number_in(frames, pos, 7)) << pos;
    }
}

INSTANTIATE_TEST_SUITE_P(Made, Streams,
                         testing::Values(Kind{"libx264", support::stream_188, 188, 0},
                                         Kind{"mpeg2video", support::stream_188, 188, 0},
                                         Kind{"libx264", support::stream_192, 192, 4},
                                         Kind{"mpeg2video", support::stream_192, 192, 4},
                                         Kind{"libx264", support::stream_204, 204, 0},
                                         Kind{"mpeg2video", support::stream_204, 204, 0}),
                         stream_name);

namespace {

// A socket on loopback and a port of the kernel's choice.
struct Receiver {
    Receiver() : fd(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
    {
        sockaddr_in sin = {};
        sin.sin_family = AF_INET;
        sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(sin);
        EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&sin), sizeof(sin)), 0);
        EXPECT_EQ(getsockname(fd.get(), reinterpret_cast<sockaddr*>(&sin), &length), 0);
        port = ntohs(sin.sin_port);
        const int room = 4 << 20;
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &room, sizeof(room));
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room));
    }

    // All datagrams that have arrived.
    std::vector<Buffer> drain() const
    {
        std::vector<Buffer> result;
        Buffer datagram(65536);
        for (ssize_t n = 0; (n = recv(fd.get(), datagram.data(), datagram.size(), 0)) >= 0;) {
            result.push_back(part(datagram, 0, static_cast<size_t>(n)));
        }
        return result;
    }

    mv::OwnedFd fd;
    int port = 0;
};

} // namespace

class RtpStream : public support::GuardedTest {};

TEST_F(RtpStream, payload_of_a_real_sender)
{
    if (const std::string reason = support::streams_missing(); !reason.empty()) {
        GTEST_SKIP() << "skipped: " << reason;
    }
    const std::string stream = support::stream_188("libx264");
    const Receiver receiver;
    support::ffmpeg(
        {"-i", stream, "-c", "copy", "-f", "rtp_mpegts", "rtp://127.0.0.1:" + std::to_string(receiver.port)});
    std::vector<Buffer> datagrams = receiver.drain();
    ASSERT_GT(datagrams.size(), 3U);
    Buffer payload;
    unsigned expected = 0;
    for (size_t i = 0; i < datagrams.size(); ++i) {
        Buffer& one = datagrams[i];
        ASSERT_TRUE(is_rtp_pkt(one.data()));
        const unsigned number = rtp_u16(one.data(), 2);
        EXPECT_EQ(number, i > 0 ? expected : number) << "none is missing";
        expected = (number + 1) % 65536;
        EXPECT_EQ(rtp_header_len(one.data(), one.size()), 12);
        EXPECT_EQ(rtp_footer_len(one.data(), one.size()), 0U);
        const size_t len = one.size() - 12;
        EXPECT_EQ(len % 188, 0U);
        ssize_t outlen = 0;
        int32_t type = 0;
        if (len == 188) { // the last one may hold a single packet, which is refused
            EXPECT_EQ(xtract_ts_payload(one.data(), one.size(), &outlen, &type, 0), -1);
            payload.insert(payload.end(), one.begin() + 12, one.end());
            continue;
        }
        ASSERT_EQ(xtract_ts_payload(one.data(), one.size(), &outlen, &type, 0), 0);
        EXPECT_EQ(type, STY_RTP.num);
        EXPECT_EQ(static_cast<size_t>(outlen), len);
        payload.insert(payload.end(), one.begin(), one.begin() + outlen);
    }
    payload.shrink_to_fit();
    EXPECT_EQ(ts_probe(payload.data(), payload.size(), true), 188);
    const std::string name = "rtp-" + std::to_string(getpid()) + ".ts";
    const std::string path = support::write_stream(name, payload);
    EXPECT_EQ(find_packet_by_packet(payload, 0, 188).frames, key_frames(path, 188));
    const auto counted =
        ffprobe(path, {"-count_packets", "-select_streams", "v", "-show_entries", "stream=nb_read_packets"});
    ASSERT_FALSE(counted.empty());
    EXPECT_EQ(counted[0][0], "25");
    std::filesystem::remove(path);
}
