// Conversions of text, beside plain models of them.
#include "strops.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <strings.h>

#include <gtest/gtest.h>

#include "child.h"

using support::expect_abort;

namespace {

constexpr int64_t kUntouched = 0x5a5a5a5a5a5a5a5a;

struct Number {
    int rc;
    int64_t value;

    bool operator==(const Number&) const = default;
};

void PrintTo(const Number& number, std::ostream* out)
{
    *out << "rc " << number.rc << " value " << number.value;
}

// Both functions, which must agree.
Number number(const std::string& text)
{
    int64_t value = kUntouched;
    ssize_t size = kUntouched;
    const int rc = a2int64(text.c_str(), &value);
    EXPECT_EQ(a2size(text.c_str(), &size), rc) << text;
    EXPECT_EQ(size, value) << text;
    EXPECT_EQ(a2size(text.c_str(), nullptr), rc) << text;
    EXPECT_EQ(a2int64(text.c_str(), nullptr), rc) << text;
    return {rc, value};
}

Number good(int64_t value)
{
    return {0, value};
}

Number bad(int rc)
{
    return {rc, kUntouched};
}

// Characters of one kind in front of a text.
std::string behind(size_t count, char c, const char* text)
{
    std::string result(count, c);
    result.append(text);
    return result;
}

std::string chomped(std::string text)
{
    chomp(text.data());
    return text.c_str();
}

// A text in a heap block of its exact size, so that a sanitizer sees one byte too many.
std::unique_ptr<char[]> exact(const std::string& text)
{
    auto block = std::make_unique<char[]>(text.size() + 1);
    memcpy(block.get(), text.c_str(), text.size() + 1);
    return block;
}

std::vector<uint8_t> to_bin(const std::string& text, size_t len)
{
    std::vector<uint8_t> out(len);
    const size_t n = hex_to_bin(exact(text).get(), out.data(), len);
    EXPECT_LE(n, len);
    out.resize(n);
    return out;
}

// hex_to_bin as it is told: index() of the upper-case character in the digits.
std::vector<uint8_t> to_bin_model(const std::string& text, size_t len)
{
    const auto digit = [](char c) {
        const char* const digits = "0123456789ABCDEF";
        const char* const at = index(digits, toupper(static_cast<unsigned char>(c)));
        return at != nullptr ? static_cast<int>(at - digits) : 0;
    };
    std::vector<uint8_t> out;
    for (size_t i = 0; i < text.size() && out.size() < len; i += 2) {
        out.push_back(static_cast<uint8_t>((digit(text[i]) * 16) | digit(text.c_str()[i + 1])));
    }
    return out;
}

struct Hex {
    size_t count;
    std::string buffer; // all of it, as long as it was given

    bool operator==(const Hex&) const = default;
};

void PrintTo(const Hex& hex, std::ostream* out)
{
    *out << hex.count << " \"" << hex.buffer << "\"";
}

Hex to_hex(const std::vector<uint8_t>& bin, size_t slen, const char* delim)
{
    auto buffer = std::make_unique<char[]>(slen);
    memset(buffer.get(), '#', slen);
    const size_t count = bin_to_dhex(bin.data(), bin.size(), buffer.get(), slen, delim);
    return {count, std::string(buffer.get(), slen)};
}

// bin_to_dhex as it is told: snprintf byte by byte.
Hex to_hex_model(const std::vector<uint8_t>& bin, size_t slen, const char* delim)
{
    std::string buffer(slen, '#');
    const size_t extra = delim != nullptr ? strlen(delim) : 0;
    size_t left = slen;
    size_t count = 0;
    while (left >= 3 + extra && count < bin.size()) {
        const int n =
            snprintf(&buffer[slen - left], left, "%02x%s", bin[count], delim != nullptr ? delim : "");
        if (n != static_cast<int>(2 + extra)) {
            break;
        }
        left -= static_cast<size_t>(n);
        ++count;
    }
    if (slen > 0) {
        buffer[slen - 1] = 0;
    }
    return {count, buffer};
}

size_t count_model(const std::string& s, const std::string& marker)
{
    size_t total = 0;
    for (size_t at = s.find(marker); at != std::string::npos; at = s.find(marker, at + marker.size())) {
        size_t digits = at + marker.size();
        size_t value = 0;
        while (digits < s.size() && isdigit(static_cast<unsigned char>(s[digits])) != 0) {
            value = value * 10 + static_cast<size_t>(s[digits++] - '0');
        }
        total += marker.back() == ':' ? value : 1;
    }
    return total;
}

std::string tag_text(const n64_tag& tag)
{
    return {tag.sym8, sizeof tag.sym8};
}

} // namespace

// ---- numbers -------------------------------------------------------------------------------------

TEST(Strops, numbers_with_and_without_a_unit)
{
    EXPECT_EQ(number("10"), good(10));
    EXPECT_EQ(number("10K"), good(10240));
    EXPECT_EQ(number("10kb"), good(10240));
    EXPECT_EQ(number("10KB"), good(10240));
    EXPECT_EQ(number("1G"), good(1073741824));
    EXPECT_EQ(number("3m"), good(3145728));
    EXPECT_EQ(number("3mB"), good(3145728));
    EXPECT_EQ(number("2gb"), good(2147483648));
    EXPECT_EQ(number("-4k"), good(-4096));
    EXPECT_EQ(number("+4K"), good(4096));
    EXPECT_EQ(number("  7"), good(7));
}

TEST(Strops, a_fraction_of_a_unit_counts_and_the_rest_is_cut_off)
{
    EXPECT_EQ(number("1.5K"), good(1536));
    EXPECT_EQ(number("0.0001K"), good(0));
    EXPECT_EQ(number("-0.9"), good(0));
    EXPECT_EQ(number("9.99"), good(9));
    EXPECT_EQ(number(".5M"), good(524288));
}

TEST(Strops, other_units_are_refused)
{
    for (const char* text : {"10Kib", "10T", "10B", "10 K b", "10K ", "10KK", "K10", "0x10", "inf", "nan"}) {
        EXPECT_EQ(number(text), bad(-5)) << text;
    }
}

TEST(Strops, kept_an_exponent_is_taken_for_a_unit)
{
    EXPECT_EQ(number("1e3"), bad(-5));
    EXPECT_EQ(number("1E3"), bad(-5));
}

TEST(Strops, no_digits_are_zero)
{
    EXPECT_EQ(number(""), good(0));
    EXPECT_EQ(number("   "), good(0));
    EXPECT_EQ(number("-"), good(0));
    EXPECT_EQ(number("K"), good(0));
    EXPECT_EQ(number("??G"), good(0));
}

TEST(Strops, kept_junk_without_letters_is_ignored)
{
    EXPECT_EQ(number("12 4"), good(12));
    EXPECT_EQ(number("12,4"), good(12));
    EXPECT_EQ(number("12 4K"), good(12288));
    EXPECT_EQ(number("12\xe9"), good(12));
    EXPECT_EQ(number("12_4[~"), good(12));
}

TEST(Strops, values_beyond_64_bits_are_refused)
{
    EXPECT_EQ(number("99999999999999999999"), bad(-2));
    EXPECT_EQ(number("-99999999999999999999"), bad(-2));
    EXPECT_EQ(number("9223372036854777856"), bad(-2)); // the next double behind 2^63
    EXPECT_EQ(number("-9223372036854777856"), bad(-2));
    EXPECT_EQ(number("8589934593G"), bad(-2));
    EXPECT_EQ(number("-8589934593G"), bad(-2));
    EXPECT_EQ(number("9223372036854774784"), good(9223372036854774784)); // the last double before it
    EXPECT_EQ(number("-9223372036854775808"), good(INT64_MIN));
    EXPECT_EQ(number("-8589934592G"), good(INT64_MIN));
}

TEST(Strops, kept_two_to_the_63_passes_and_is_stored_as_the_least_number)
{
    EXPECT_EQ(number("9223372036854775808"), good(INT64_MIN));
    EXPECT_EQ(number("9223372036854775807"), good(INT64_MIN));
    EXPECT_EQ(number("8589934592G"), good(INT64_MIN));
}

TEST(Strops, a_number_before_a_unit_has_at_most_63_characters)
{
    EXPECT_EQ(number(behind(62, '0', "7K")), good(7168));
    EXPECT_EQ(number(behind(63, '0', "7K")), bad(-3));
    EXPECT_EQ(number(behind(63, '0', "7")), good(7));
    EXPECT_EQ(number(behind(100, '0', "7X")), bad(-5)); // the unit is looked at first
}

TEST(Strops, a_number_that_strtod_refuses_gives_minus_4)
{
    EXPECT_EQ(number(std::string(400, '9')), bad(-4));
    EXPECT_EQ(number("0." + behind(400, '0', "1")), bad(-4));
    EXPECT_EQ(number("-" + std::string(400, '9')), bad(-4));
}

TEST(Strops, an_errno_from_before_does_not_matter)
{
    errno = ERANGE;
    int64_t value = 0;
    EXPECT_EQ(a2int64("5", &value), 0);
    errno = ERANGE;
    EXPECT_EQ(a2int64("5K", &value), 0);
    EXPECT_EQ(value, 5120);
}

TEST(Strops, a_null_text_is_asserted)
{
    for (const bool size : {true, false}) {
        expect_abort("str != nullptr",
                     [=] { return size ? a2size(nullptr, nullptr) : a2int64(nullptr, nullptr); });
    }
}

TEST(Strops, bounds_are_two_to_the_63)
{
    EXPECT_EQ(LLONGMAX64, 0x1p63);
    EXPECT_EQ(LLONGMIN64, -0x1p63);
    EXPECT_EQ(static_cast<int>(MAX_SZLEN), 64);
}

// ---- chomp -----------------------------------------------------------------------------------------

TEST(Strops, chomp_removes_up_to_two_characters_of_a_line_end)
{
    EXPECT_EQ(chomped("text\r\n"), "text");
    EXPECT_EQ(chomped("text\n\r"), "text");
    EXPECT_EQ(chomped("text\n"), "text");
    EXPECT_EQ(chomped("text\r"), "text");
    EXPECT_EQ(chomped("text"), "text");
    EXPECT_EQ(chomped("text\n\n\n"), "text\n");
    EXPECT_EQ(chomped("text\r\r\n"), "text\r");
    EXPECT_EQ(chomped("te\nxt \n"), "te\nxt ");
    EXPECT_EQ(chomped("\r\n"), "");
    EXPECT_EQ(chomped("\n"), "");
}

TEST(Strops, chomp_does_not_look_before_the_start)
{
    const auto block = exact("");
    chomp(block.get());
    EXPECT_EQ(block[0], 0);
    const auto line_end = exact("\n");
    chomp(line_end.get());
    EXPECT_EQ(line_end[0], 0);
}

TEST(Strops, chomp_clears_the_characters_it_removes)
{
    char text[] = "a\r\n";
    chomp(text);
    EXPECT_EQ(std::string(text, sizeof text), std::string("a\0\0\0", 4));
}

// ---- texts by a format ------------------------------------------------------------------------------

// The call beside vsnprintf, at every length of the buffer around the text's own, and with none.
MV_PRINTF(1, 2) void expect_as_vsnprintf(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    for (size_t len = 0; len < 80; ++len) {
        va_list ours_args;
        va_list their_args;
        va_copy(ours_args, args);
        va_copy(their_args, args);
        const auto ours = std::make_unique<char[]>(len); // of the length itself, for the sanitizer
        const auto theirs = std::make_unique<char[]>(len);
        const int rc = quick_vsnprintf(len == 0 ? nullptr : ours.get(), len, fmt, ours_args);
        EXPECT_EQ(rc, vsnprintf(theirs.get(), len, fmt, their_args)) << fmt << " in " << len;
        if (len > 0) {
            EXPECT_STREQ(ours.get(), theirs.get()) << fmt << " in " << len;
        }
        va_end(ours_args);
        va_end(their_args);
    }
    va_end(args);
}

TEST(Strops, quick_vsnprintf_gives_text_and_result_of_vsnprintf)
{
    expect_as_vsnprintf("plain\n");
    expect_as_vsnprintf("JOIN UDP://%s\n", "239.1.2.3");
    expect_as_vsnprintf("%s: %d bytes output: %s", "relay_msg", -21, "");
    expect_as_vsnprintf("%d %d %u %u", INT_MIN, INT_MAX, 0U, UINT_MAX);
    expect_as_vsnprintf("%ld %ld %lu", LONG_MIN, LONG_MAX, ULONG_MAX);
}

TEST(Strops, quick_vsnprintf_takes_what_it_does_not_know_to_vsnprintf)
{
    expect_as_vsnprintf("%s, then %5d|%-4s|%.2s|%x|%c|%%|%p", "first", 7, "ab", "abcdef", 255U, 'c', nullptr);
    expect_as_vsnprintf("%ls and %s", L"wide", "narrow");
    expect_as_vsnprintf("%d %lld %zu %s", 1, 2LL, size_t{3}, "behind");
}

TEST(Strops, quick_vsnprintf_writes_a_null_string_as_vsnprintf_does)
{
    const char* volatile none = nullptr;
    expect_as_vsnprintf("<%s>", static_cast<const char*>(none));
}

int result_in(size_t room, int (*print)(char*, size_t, const char*, va_list), char* buf, ...)
{
    va_list args;
    va_start(args, buf);
    const int rc = print(buf, room, "%s\n", args);
    va_end(args);
    return rc;
}

TEST(Strops, quick_vsnprintf_takes_a_room_above_any_result_as_vsnprintf_does)
{
    char ours[16] = "";
    char theirs[16] = "";
    const size_t room = size_t{INT_MAX} + 1;
    EXPECT_EQ(result_in(room, quick_vsnprintf, ours, "text"), result_in(room, vsnprintf, theirs, "text"));
    EXPECT_STREQ(ours, theirs);
}

// ---- markers -----------------------------------------------------------------------------------------

TEST(Strops, marker_count_counts_occurrences)
{
    EXPECT_EQ(marker_count("ab ab xab", "ab"), 3U);
    EXPECT_EQ(marker_count("aaaa", "aa"), 2U);
    EXPECT_EQ(marker_count("ab", "abc"), 0U);
    EXPECT_EQ(marker_count("a5 a6", "a"), 2U);
}

TEST(Strops, marker_count_sums_the_numbers_behind_a_colon)
{
    EXPECT_EQ(marker_count("a:3 a:4", "a:"), 7U);
    EXPECT_EQ(marker_count("a: 3 a:x a:", "a:"), 0U);
    EXPECT_EQ(marker_count("a:-3 a:+4", "a:"), 0U);
    EXPECT_EQ(marker_count("a:012", "a:"), 12U);
    EXPECT_EQ(marker_count("::5", ":"), 5U);
}

TEST(Strops, marker_count_goes_on_behind_the_marker_and_not_behind_the_number)
{
    EXPECT_EQ(marker_count("1:1:1:", "1:"), 2U);
}

TEST(Strops, marker_count_of_an_empty_text_or_marker_is_0)
{
    EXPECT_EQ(marker_count("", "a"), 0U);
    EXPECT_EQ(marker_count("", "a:"), 0U);
    EXPECT_EQ(marker_count("text", ""), 0U);
    EXPECT_EQ(marker_count("", ""), 0U);
}

TEST(Strops, marker_count_wraps_without_harm)
{
    EXPECT_EQ(marker_count("a:18446744073709551615 a:2", "a:"), 1U);
    EXPECT_EQ(marker_count("a:18446744073709551616", "a:"), 0U);
}

// ---- hexadecimal text ----------------------------------------------------------------------------

TEST(Strops, hex_to_bin_reads_pairs_in_any_case)
{
    using Bytes = std::vector<uint8_t>;
    EXPECT_EQ(to_bin("00fFaB9", 3), (Bytes{0x00, 0xff, 0xab}));
    EXPECT_EQ(to_bin("0123456789abcdefABCDEF", 11),
              (Bytes{0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef, 0xab, 0xcd, 0xef}));
    EXPECT_EQ(to_bin("", 3), Bytes{});
    EXPECT_EQ(to_bin("12", 0), Bytes{});
}

TEST(Strops, kept_hex_to_bin_counts_other_characters_as_0)
{
    using Bytes = std::vector<uint8_t>;
    EXPECT_EQ(to_bin("x1g2 f\xff\xff", 4), (Bytes{0x01, 0x02, 0x0f, 0x00}));
}

TEST(Strops, kept_hex_to_bin_of_an_odd_length_reads_the_terminator_as_16)
{
    using Bytes = std::vector<uint8_t>;
    EXPECT_EQ(to_bin("a", 4), (Bytes{0xb0}));
    EXPECT_EQ(to_bin("123", 4), (Bytes{0x12, 0x30}));
    EXPECT_EQ(to_bin("122", 4), (Bytes{0x12, 0x30}));
    EXPECT_EQ(to_bin("122", 1), (Bytes{0x12}));
}

TEST(Strops, hex_to_bin_agrees_with_its_model_at_every_length)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const std::string digits = "0123456789abcdefABCDEF";
    for (size_t length = 0; length < 150; ++length) {
        for (const bool any : {false, true}) {
            std::string text;
            while (text.size() < length) {
                text += any ? static_cast<char>(1 + random() % 255) : digits[random() % digits.size()];
            }
            for (const size_t len : {size_t{0}, size_t{1}, length / 2 - (length > 1 ? 1 : 0), length / 2,
                                     length / 2 + 1, length + 3}) {
                ASSERT_EQ(to_bin(text, len), to_bin_model(text, len)) << text << " into " << len;
            }
        }
    }
}

TEST(Strops, hex_to_bin_reads_every_character_as_its_model_does)
{
    for (int c = 1; c < 256; ++c) {
        const std::string text(66, static_cast<char>(c));
        ASSERT_EQ(to_bin(text, 40), to_bin_model(text, 40)) << c;
    }
}

TEST(Strops, bin_to_hex_needs_room_for_its_text_and_a_terminator)
{
    const std::vector<uint8_t> bin{0x01, 0xab, 0xff};
    char buffer[8];
    EXPECT_EQ(bin_to_hex(bin.data(), bin.size(), buffer, 7), 3U);
    EXPECT_STREQ(buffer, "01abff");
    EXPECT_EQ(bin_to_hex(bin.data(), bin.size(), buffer, 6), 2U);
    EXPECT_STREQ(buffer, "01ab");
    EXPECT_EQ(bin_to_hex(bin.data(), bin.size(), buffer, 3), 1U);
    EXPECT_STREQ(buffer, "01");
}

TEST(Strops, the_delimiter_follows_every_byte)
{
    const std::vector<uint8_t> bin{0x01, 0xab};
    EXPECT_EQ(to_hex(bin, 7, ":"), (Hex{2, std::string("01:ab:\0", 7)}));
    EXPECT_EQ(to_hex(bin, 6, ":"), (Hex{1, std::string("01:\0#\0", 6)}));
    EXPECT_EQ(to_hex(bin, 9, ", "), (Hex{2, std::string("01, ab, \0", 9)}));
    EXPECT_EQ(to_hex(bin, 9, "%s"), (Hex{2, std::string("01%sab%s\0", 9)}));
    EXPECT_EQ(to_hex(bin, 5, ""), (Hex{2, std::string("01ab\0", 5)}));
}

TEST(Strops, kept_without_room_for_one_byte_only_the_last_byte_is_cleared)
{
    const std::vector<uint8_t> bin{0x01, 0xab};
    EXPECT_EQ(to_hex(bin, 2, nullptr), (Hex{0, std::string("#\0", 2)}));
    EXPECT_EQ(to_hex(bin, 3, ":"), (Hex{0, std::string("##\0", 3)}));
    EXPECT_EQ(to_hex(bin, 1, nullptr), (Hex{0, std::string("\0", 1)}));
    EXPECT_EQ(to_hex({}, 4, nullptr), (Hex{0, std::string("###\0", 4)}));
    EXPECT_EQ(to_hex(bin, 0, nullptr), (Hex{0, ""}));
    EXPECT_EQ(bin_to_dhex(bin.data(), bin.size(), nullptr, 0, ":"), 0U);
}

TEST(Strops, bin_to_dhex_agrees_with_its_model_at_every_length)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (size_t length = 0; length < 70; ++length) {
        std::vector<uint8_t> bin(length);
        for (uint8_t& byte : bin) {
            byte = static_cast<uint8_t>(random());
        }
        for (const char* delim : {static_cast<const char*>(nullptr), "", ":", ", ", "%%d"}) {
            const size_t width = 2 + (delim != nullptr ? strlen(delim) : 0);
            for (size_t slen = 0; slen < length * width + 5; slen += 1 + random() % 3) {
                ASSERT_EQ(to_hex(bin, slen, delim), to_hex_model(bin, slen, delim)) << length << " " << slen;
            }
            ASSERT_EQ(to_hex(bin, length * width + 1, delim), to_hex_model(bin, length * width + 1, delim));
        }
    }
}

TEST(Strops, all_bytes_come_back_from_their_text)
{
    std::vector<uint8_t> bin(256);
    for (size_t i = 0; i < bin.size(); ++i) {
        bin[i] = static_cast<uint8_t>(i);
    }
    const Hex hex = to_hex(bin, 513, nullptr);
    EXPECT_EQ(hex.count, 256U);
    EXPECT_EQ(to_bin(hex.buffer.c_str(), 300), bin);
}

TEST(Strops, marker_count_agrees_with_its_model)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto draw = [&](size_t length) {
        std::string text;
        while (text.size() < length) {
            text += "a:1 "[random() % 4];
        }
        return text;
    };
    for (int i = 0; i < 5000; ++i) {
        const std::string s = draw(random() % 20);
        const std::string marker = draw(1 + random() % 3);
        ASSERT_EQ(marker_count(s.c_str(), marker.c_str()), count_model(s, marker)) << s << " | " << marker;
    }
}

// ---- tags of tracks ------------------------------------------------------------------------------

TEST(Strops, track_tags_run_from_1_to_max_and_wrap)
{
    size_t count = 0;
    n64_tag tag;
    std::string seen;
    for (int i = 0; i < 5; ++i) {
        tag.num64 = UINT64_MAX;
        mk_trk_tag(&count, &tag, 'V', 3);
        seen += std::string(tag.sym8) + " ";
    }
    EXPECT_EQ(seen, "V1 V2 V3 V1 V2 ");
    EXPECT_EQ(tag_text(tag), std::string("V2\0\0\0\0\0\0", 8));
}

TEST(Strops, a_count_beyond_max_starts_again)
{
    size_t count = 99;
    n64_tag tag;
    mk_trk_tag(&count, &tag, 'A', 3);
    EXPECT_STREQ(tag.sym8, "A1");
    EXPECT_EQ(count, 1U);
    mk_trk_tag(&count, &tag, 'A', 0);
    EXPECT_STREQ(tag.sym8, "A1");
}

TEST(Strops, kept_a_sixth_digit_of_a_track_tag_is_cut)
{
    n64_tag tag;
    size_t count = 99998;
    mk_trk_tag(&count, &tag, 'T', SIZE_MAX);
    EXPECT_EQ(tag_text(tag), std::string("T99999\0\0", 8));
    mk_trk_tag(&count, &tag, 'T', SIZE_MAX);
    EXPECT_EQ(count, 100000U);
    EXPECT_EQ(tag_text(tag), std::string("T10000\0\0", 8));
    count = 999998;
    mk_trk_tag(&count, &tag, 'T', SIZE_MAX);
    EXPECT_EQ(tag_text(tag), std::string("T99999\0\0", 8));
}

TEST(Strops, a_seventh_digit_of_a_track_tag_is_asserted)
{
    expect_abort("n >= 1 && n <=", [] {
        size_t count = 999999;
        n64_tag tag;
        mk_trk_tag(&count, &tag, 'T', SIZE_MAX);
    });
}
