// Heads of responses, fed in pieces over a pair of sockets. The first byte is the buffer's size (times 16),
// the second the size of the pieces; what follows is what the peer sends.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>

#include "log.h"
#include "stream_input.h"
#include "webops.h"

namespace {

void require(bool holds)
{
    if (!holds) {
        abort();
    }
}

void headers(const char* head)
{
    for (const char* title : {"Location:", "content-type", ":", "a", ""}) {
        size_t length = 77;
        const char* value = find_http_header(title, head, &length);
        require(value != nullptr || length == 0);
        require(find_http_header(title, head, nullptr) == value);
        extract_num_hdr(title, head, 0);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::hide_log(size > 0 && data[0] % 2 != 0);
    int fds[2];
    if (size < 2 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds) != 0) {
        return 0;
    }
    const size_t buflen = data[0] * size_t{16} + 1;
    const size_t piece = data[1] + size_t{1};
    auto buf = std::make_unique<char[]>(buflen);
    struct http_resp_ctx ctx = NULL_http_ctx;
    int rc = EAGAIN;
    for (size_t at = 2; at < size && rc == EAGAIN; at += piece) {
        const size_t length = std::min(piece, size - at);
        require(write(fds[1], data + at, length) == static_cast<ssize_t>(length));
        rc = recv_http_response(fds[0], buf.get(), buflen, &ctx);
    }
    close(fds[1]);
    if (rc == EAGAIN) {
        rc = recv_http_response(fds[0], buf.get(), buflen, &ctx);
        require(rc == -1);
    }
    require(ctx.tail <= ctx.total && ctx.total < static_cast<ssize_t>(buflen));
    if (rc == 0) {
        require(ctx.tail > 0);
        headers(buf.get());
    }
    reset_resp_ctx(&ctx);
    close(fds[0]);
    return 0;
}
