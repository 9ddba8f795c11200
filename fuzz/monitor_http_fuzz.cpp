// Requests to zentmon: the end of a head is the same whatever its pieces were, and what is answered to a
// request is whole: an error has a text, JSON is JSON, a body ends. The first byte is the size of the pieces.
#include <cstdint>
#include <cstdlib>
#include <string>

#include <nlohmann/json.hpp>

#include "api.h"
#include "filter.h"
#include "http_head.h"

using namespace zentmon;

namespace {

constexpr size_t kPiecesMost = 10'000; // of one body

void require(bool holds)
{
    if (!holds) {
        abort();
    }
}

// A state with a few agents and groups, made once: requests change nothing.
struct World {
    Counters counters;
    State state{StateOptions{}, counters};
    EventRing ring;
    Api api;

    World() : api(sources())
    {
        state.add_sink(&ring);
        const Now at = {1'700'000'000'000, 1000};
        for (uint32_t i = 0; i < 200; ++i) {
            const std::string address = "10.0.0." + std::to_string(i % 5);
            state.apply("lab", address, 7, i % 9 == 0 ? LineKind::leave : LineKind::join, 0xef010000 + i / 3,
                        at);
        }
    }

    ApiSources sources()
    {
        ApiSources sources;
        sources.state = &state;
        sources.ring = &ring;
        sources.counters = &counters;
        sources.version = "1";
        return sources;
    }
};

HeadEnd end_by_pieces(const std::string& data, size_t piece)
{
    HeadEnd end;
    for (size_t at = 0; at < data.size() && end.length == 0 && !end.broken; at += piece) {
        end = find_head_end(std::string_view(data).substr(0, at + piece), at);
    }
    return end;
}

std::string draw(Reply& reply)
{
    std::string text = reply.text;
    if (reply.body == nullptr || reply.stream) {
        if (reply.stream) {
            require(reply.body->next(text) == Body::Step::idle);
        }
        return text;
    }
    Body::Step step = Body::Step::more;
    for (size_t pieces = 0; step == Body::Step::more; ++pieces) {
        require(pieces < kPiecesMost);
        step = reply.body->next(text);
    }
    require(step == Body::Step::last);
    return text;
}

void answer(const Request& request)
{
    static World world;
    require(request.path.starts_with('/'));
    Reply reply = world.api.answer(request, 1);
    const std::string text = draw(reply);
    if (std::string_view(reply.type) == "application/json") {
        const auto json = nlohmann::json::parse(text, nullptr, false);
        require(!json.is_discarded() && json.is_object() && (reply.code == 200 || json.contains("error")));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    const size_t piece = data[0] % 64 + 1U;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    const HeadEnd whole = find_head_end(text, 0);
    const HeadEnd pieces = end_by_pieces(text, piece);
    require(whole.length == pieces.length && whole.broken == pieces.broken);
    const Request request = read_request(std::string_view(text).substr(0, whole.length), {"mon.example.org"});
    if (request.status == 0) {
        require(whole.length > 0);
        answer(request);
    } else {
        require(request.status == 400 || request.status == 405 || request.status == 421);
    }
    (void)Filter(text).matches(0xef010101, {"hall", "10.0.0.1", "lab"});
    return 0;
}
