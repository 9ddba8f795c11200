// Conversions of text. Hexadecimal text is converted sixteen characters or bytes at a time, in the vectors
// that the compiler makes of the operations for each machine.
#include "strops.h"

#include <array>
#include <bit>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "detail/assertions.h"
#include "detail/quick_format.h"

namespace {

static_assert(sizeof(ssize_t) == sizeof(int64_t));
static_assert(sizeof(union n64_tag) == 8);

enum { kOk = 0, kOutOfRange = -2, kTooLong = -3, kNoNumber = -4, kBadUnit = -5 };

struct Unit {
    const char* name;
    double multiplier;
};

constexpr Unit kUnits[] = {
    {"Kb", 1024},       {"K", 1024},      // 2^10
    {"Mb", 1048576},    {"M", 1048576},   // 2^20
    {"Gb", 1073741824}, {"G", 1073741824} // 2^30
};

constexpr int kTagDigits = 6; // bytes behind the letter of a track tag, with the terminator

constexpr size_t kBlock = 16;
using Block = uint8_t __attribute__((vector_size(kBlock)));
using SignedBlock = int8_t __attribute__((vector_size(kBlock))); // whose comparisons cost least

// ---- numbers -------------------------------------------------------------------------------------

const Unit* find_unit(const char* name)
{
    for (const Unit& unit : kUnits) {
        if (strcasecmp(unit.name, name) == 0) {
            return &unit;
        }
    }
    return nullptr;
}

int parse_double(const char* text, double& value)
{
    errno = 0; // strtod() tells a range that it left by errno alone
    value = strtod(text, nullptr);
    return errno != 0 ? kNoNumber : kOk;
}

// A number with a unit, as a double. Kept: the first letter begins the unit, so that an exponent is an
// unknown one. Kept: what stands between the digits and that letter is ignored, and a text without digits is
// 0.
int a2double(const char* str, double* pval)
{
    assert(str != nullptr);
    double value = 0;
    const char* suffix = str;
    while (*suffix != 0 && isalpha(static_cast<unsigned char>(*suffix)) == 0) {
        ++suffix;
    }
    if (*suffix == 0) {
        if (const int rc = parse_double(str, value); rc != kOk) {
            return rc;
        }
    } else {
        const Unit* const unit = find_unit(suffix);
        if (unit == nullptr) {
            return kBadUnit;
        }
        // A copy that ends where the unit begins: strtod() would take an "e" or "x" of a unit for its own.
        const size_t length = static_cast<size_t>(suffix - str);
        char number[MAX_SZLEN] = {};
        if (length > sizeof number - 1) {
            return kTooLong;
        }
        memcpy(number, str, length);
        if (const int rc = parse_double(number, value); rc != kOk) {
            return rc;
        }
        value *= unit->multiplier;
    }
    if (pval != nullptr) {
        *pval = value;
    }
    return kOk;
}

int to_int64(const char* str, int64_t* pval)
{
    double value = 0;
    if (const int rc = a2double(str, &value); rc != kOk) {
        return rc;
    }
    if (value > LLONGMAX64 || value < LLONGMIN64) {
        return kOutOfRange;
    }
    if (pval != nullptr) {
        // Kept: the upper bound, rounded to 2^63, passes as well; this is what its conversion gave.
        *pval = value == LLONGMAX64 ? INT64_MIN : static_cast<int64_t>(value);
    }
    return kOk;
}

// ---- markers -------------------------------------------------------------------------------------

size_t leading_number(const char* digits)
{
    size_t value = 0;
    for (; *digits >= '0' && *digits <= '9'; ++digits) {
        value = value * 10 + static_cast<size_t>(*digits - '0');
    }
    return value;
}

// ---- hexadecimal text ----------------------------------------------------------------------------

// Values of the digits. Kept: other characters are 0, and the terminator is 16, as it stands behind "F" in
// the text of the digits.
constexpr auto kDigitValues = []() {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::array<uint8_t, 256> values{};
    for (size_t i = 0; i < sizeof kDigits; ++i) {
        const char digit = kDigits[i];
        values[static_cast<unsigned char>(digit)] = static_cast<uint8_t>(i);
        if (digit >= 'A') {
            values[static_cast<unsigned char>(digit - 'A' + 'a')] = static_cast<uint8_t>(i);
        }
    }
    return values;
}();

uint8_t sym2hex(char sym)
{
    return kDigitValues[static_cast<unsigned char>(sym)];
}

char hex_digit(unsigned nibble)
{
    return "0123456789abcdef"[nibble & 15];
}

Block load_block(const void* from)
{
    Block block;
    memcpy(&block, from, kBlock);
    return block;
}

// Digits of sixteen bytes: 32 characters at `to`.
void put_block(const uint8_t* bytes, char* to)
{
    const Block block = load_block(bytes);
    const Block high = block >> 4;
    const Block low = block & 15;
    const auto digits = [](Block nibbles) {
        // A comparison of vectors gives bytes of all ones or of zeros, which serve as masks here.
        const auto letters = std::bit_cast<Block>(std::bit_cast<SignedBlock>(nibbles) > 9);
        return nibbles + '0' + (letters & ('a' - '9' - 1));
    };
    const Block first =
        digits(__builtin_shufflevector(high, low, 0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23));
    const Block second = digits(
        __builtin_shufflevector(high, low, 8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14, 30, 15, 31));
    memcpy(to, &first, kBlock);
    memcpy(to + kBlock, &second, kBlock);
}

// Values of sixteen characters of which none is a terminator.
Block digit_values(const char* text)
{
    const Block block = load_block(text);
    const Block number = block - '0';
    const Block letter = (block | 0x20) - 'a';
    return (number & std::bit_cast<Block>(number <= 9)) | ((letter + 10) & std::bit_cast<Block>(letter <= 5));
}

// Bytes of 32 characters of which none is a terminator.
void take_block(const char* text, uint8_t* to)
{
    const Block a = digit_values(text);
    const Block b = digit_values(text + kBlock);
    const Block high =
        __builtin_shufflevector(a, b, 0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
    const Block low =
        __builtin_shufflevector(a, b, 1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31);
    const Block bytes = (high << 4) | low;
    memcpy(to, &bytes, kBlock);
}

// Plain digits of count bytes at s, without a terminator.
void put_digits(const uint8_t* bin, size_t count, char* s)
{
    size_t i = 0;
    for (; count - i >= kBlock; i += kBlock) {
        put_block(bin + i, s + 2 * i);
    }
    for (; i < count; ++i) {
        s[2 * i] = hex_digit(bin[i] >> 4);
        s[2 * i + 1] = hex_digit(bin[i]);
    }
}

// The text "%02x%s" of each byte and the delimiter.
void put_delimited(const uint8_t* bin, size_t count, const char* delim, size_t delim_length, char* s)
{
    for (size_t i = 0; i < count; ++i) {
        s[0] = hex_digit(bin[i] >> 4);
        s[1] = hex_digit(bin[i]);
        memcpy(s + 2, delim, delim_length);
        s += 2 + delim_length;
    }
}

} // namespace

int a2size(const char* str, ssize_t* pval)
{
    int64_t value = 0;
    const int rc = to_int64(str, &value);
    if (rc == kOk && pval != nullptr) {
        *pval = value;
    }
    return rc;
}

int a2int64(const char* str, int64_t* pval)
{
    return to_int64(str, pval);
}

void chomp(char* s)
{
    size_t length = strlen(s);
    for (int i = 0; i < 2 && length > 0 && (s[length - 1] == '\n' || s[length - 1] == '\r'); ++i) {
        s[--length] = 0;
    }
}

int quick_vsnprintf(char* buf, size_t len, const char* fmt, va_list args)
{
    return mv::quick_format(buf, len, fmt, args);
}

size_t marker_count(const char* s, const char* marker)
{
    const size_t length = strlen(marker);
    if (length == 0) {
        return 0; // it would stand everywhere
    }
    const bool sums = marker[length - 1] == ':';
    size_t total = 0;
    while ((s = strstr(s, marker)) != nullptr) {
        s += length;
        total += sums ? leading_number(s) : 1;
    }
    return total;
}

size_t hex_to_bin(const char* str, uint8_t* out, size_t len)
{
    // Two characters a byte, an even number: of a text of odd length the last step reads the terminator.
    const size_t wanted = len <= SIZE_MAX / 2 ? 2 * len : SIZE_MAX;
    const size_t length = strnlen(str, wanted);
    size_t written = 0;
    size_t at = 0;
    for (; length - at >= 2 * kBlock; at += 2 * kBlock, written += kBlock) {
        take_block(str + at, out + written);
    }
    for (; at < length; at += 2, ++written) {
        out[written] = static_cast<uint8_t>((sym2hex(str[at]) * 16) | sym2hex(str[at + 1]));
    }
    return written;
}

size_t bin_to_dhex(const uint8_t* bin, size_t blen, char* s, size_t slen, const char* delim)
{
    if (slen == 0) {
        return 0;
    }
    const size_t delim_length = delim != nullptr ? strlen(delim) : 0;
    const size_t width = 2 + delim_length;
    const size_t room = (slen - 1) / width;
    const size_t count = blen < room ? blen : room;
    if (delim_length == 0) {
        put_digits(bin, count, s);
    } else {
        put_delimited(bin, count, delim, delim_length, s);
    }
    if (count > 0) {
        s[count * width] = 0;
    }
    s[slen - 1] = 0; // Kept: without room for one byte this is all that is written
    return count;
}

void mk_trk_tag(size_t* count, union n64_tag* tag, char pfx, size_t max)
{
    if (*count >= max) {
        *count = 0;
    }
    ++*count;
    *tag = {};
    tag->sym8[0] = pfx;
    const int n = snprintf(tag->sym8 + 1, kTagDigits, "%lu", static_cast<unsigned long>(*count));
    // Kept: a sixth digit passes here and is cut.
    assert(n >= 1 && n <= kTagDigits);
}
