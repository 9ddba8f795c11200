// The conversions of strops on texts and sizes of any kind, each beside a plain model of it. The first byte
// chooses the operation, the second is a size or a length.
#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <strings.h>
#include <vector>

#include "strops.h"

namespace {

void require(bool holds)
{
    if (!holds) {
        abort();
    }
}

// A block of its exact size; a text ends with a terminator of its own.
template <class T>
std::unique_ptr<T[]> exact(const void* from, size_t size, size_t more = 0)
{
    auto block = std::make_unique<T[]>(size + more);
    if (size > 0) {
        memcpy(block.get(), from, size);
    }
    return block;
}

void numbers(const char* text)
{
    int64_t value = 77;
    ssize_t size = 77;
    const int rc = a2int64(text, &value);
    require(a2int64(text, nullptr) == rc);
    require(a2size(text, &size) == rc && a2size(text, nullptr) == rc && size == value);
    require(rc == 0 || (rc <= -2 && rc >= -5 && value == 77));
}

void line_ends(char* text)
{
    std::string model = text;
    for (int i = 0; i < 2 && !model.empty() && (model.back() == '\n' || model.back() == '\r'); ++i) {
        model.pop_back();
    }
    chomp(text);
    require(model == text);
}

void markers(const char* text, size_t split)
{
    const std::string all = text;
    const std::string marker = all.substr(0, split);
    const std::string s = all.substr(marker.size());
    size_t total = 0;
    for (size_t at = marker.empty() ? std::string::npos : s.find(marker); at != std::string::npos;
         at = s.find(marker, at + marker.size())) {
        size_t value = 0;
        for (size_t i = at + marker.size(); i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
            value = value * 10 + static_cast<size_t>(s[i] - '0');
        }
        total += marker.back() == ':' ? value : 1;
    }
    const auto marker_block = exact<char>(marker.data(), marker.size(), 1);
    const auto s_block = exact<char>(s.data(), s.size(), 1);
    require(marker_count(s_block.get(), marker_block.get()) == total);
}

void decode(const char* text, size_t len)
{
    const auto digit = [](char c) {
        const char* const digits = "0123456789ABCDEF";
        const char* const at = index(digits, toupper(static_cast<unsigned char>(c)));
        return at != nullptr ? static_cast<int>(at - digits) : 0;
    };
    const auto out = std::make_unique<uint8_t[]>(len);
    const size_t n = hex_to_bin(text, out.get(), len);
    size_t written = 0;
    for (const char* at = text; *at != 0 && written < len; ++written) {
        require(out[written] == static_cast<uint8_t>((digit(at[0]) * 16) | digit(at[1])));
        at += at[1] != 0 ? 2 : 1;
    }
    require(n == written);
}

void encode(const uint8_t* bytes, size_t count, size_t slen, const char* delim)
{
    const size_t width = 2 + (delim != nullptr ? strlen(delim) : 0);
    const auto s = std::make_unique<char[]>(slen);
    const auto model = std::make_unique<char[]>(slen);
    memset(s.get(), '#', slen);
    memset(model.get(), '#', slen);
    const size_t n = bin_to_dhex(bytes, count, s.get(), slen, delim);
    size_t written = 0;
    for (size_t at = 0; slen - at > width && written < count; at += width, ++written) {
        snprintf(model.get() + at, slen - at, "%02x%s", bytes[written], delim != nullptr ? delim : "");
    }
    if (slen > 0) {
        model[slen - 1] = 0;
    }
    require(n == written);
    require(slen == 0 || memcmp(s.get(), model.get(), slen) == 0);
    std::vector<uint8_t> back(n);
    if (n > 0 && width == 2) {
        require(hex_to_bin(s.get(), back.data(), n) == n && memcmp(back.data(), bytes, n) == 0);
    }
}

// NOLINTNEXTLINE(cert-dcl50-cpp): who calls such a function is one.
MV_PRINTF(3, 4) int quick(char* buf, size_t len, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int n = quick_vsnprintf(buf, len, fmt, args);
    va_end(args);
    return n;
}

void format(const char* text, size_t len)
{
    const auto s = std::make_unique<char[]>(len);
    const auto model = std::make_unique<char[]>(len);
    const auto number = static_cast<int>(strlen(text)) - 3;
    const int n = quick(s.get(), len, "%s, %d\n", text, number);
    require(n == snprintf(model.get(), len, "%s, %d\n", text, number));
    require(static_cast<size_t>(n) >= len || strcmp(s.get(), model.get()) == 0);
}

void tags(const uint8_t* bytes, size_t size)
{
    uint32_t number = 0;
    memcpy(&number, bytes, size < sizeof number ? size : sizeof number);
    size_t count = number % 999999;
    const size_t max = size > sizeof number ? bytes[sizeof number] : 1000000;
    const size_t expected = count >= max ? 1 : count + 1;
    n64_tag tag;
    mk_trk_tag(&count, &tag, 'T', max);
    require(count == expected && tag.sym8[0] == 'T' && tag.sym8[6] == 0 && tag.sym8[7] == 0);
    require(std::to_string(expected).substr(0, 5) == tag.sym8 + 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const char* const kDelims[] = {nullptr, "", ":", ", ", "%n-"};
    if (size < 2) {
        return 0;
    }
    const size_t length = data[1];
    const auto bytes = exact<uint8_t>(data + 2, size - 2);
    const auto text = exact<char>(data + 2, size - 2, 1);
    switch (data[0]) {
    case 'n': numbers(text.get()); break;
    case 'c': line_ends(text.get()); break;
    case 'm': markers(text.get(), length); break;
    case 'd': decode(text.get(), length); break;
    case 'e': encode(bytes.get(), size - 2, length, nullptr); break;
    case 'f': format(text.get(), length); break;
    case 't': tags(bytes.get(), size - 2); break;
    default: encode(bytes.get(), size - 2, length, kDelims[data[0] % 5]); break;
    }
    return 0;
}
