// Pieces of HTTP heads: where one ends, where a header of it begins, and one under composition.
#ifndef MORVANE_DETAIL_HTTP_HEAD_H
#define MORVANE_DETAIL_HTTP_HEAD_H

#include <bit>
#include <cctype>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <strings.h>

namespace mv {

constexpr size_t kHeaderLineSize = 128; // of a header line under composition
constexpr int kCaseBit = 'a' ^ 'A';

// isspace() and iscntrl() of a character: ASCII is the same in every locale and needs no call. What heads are
// made of is told first.
inline bool is_white(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    if (byte > ' ' && byte < 0x80) {
        return false;
    }
    return byte <= ' ' ? byte == ' ' || (byte >= '\t' && byte <= '\r') : isspace(byte) != 0;
}

inline bool is_control(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x80 ? byte < ' ' || byte == 0x7f : iscntrl(byte) != 0;
}

// How many bytes from the front of a text are printable ASCII or a blank.
inline size_t plain_length(std::string_view text)
{
    static_assert(std::endian::native == std::endian::little, "the lowest bits are the first byte's");
    constexpr uint64_t ones = 0x0101010101010101;
    size_t at = 0;
    for (uint64_t eight = 0; text.size() - at >= sizeof eight; at += sizeof eight) {
        memcpy(&eight, text.data() + at, sizeof eight);
        // A byte below ' ' borrows, 0x7f carries into its own highest bit, one from 0x80 on has that bit.
        // What they do to the bytes above does not matter: the lowest counts.
        const uint64_t other = ((eight - ones * ' ') | eight | (eight + ones)) & (ones << 7);
        if (other != 0) {
            return at + static_cast<size_t>(std::countr_zero(other)) / 8;
        }
    }
    while (at < text.size() && text[at] >= ' ' && text[at] < 0x7f) {
        ++at;
    }
    return at;
}

// How many bytes from the front of a text are no control characters.
inline size_t till_control(std::string_view text)
{
    size_t at = plain_length(text);
    while (at < text.size() && !is_control(text[at])) {
        ++at;
        at += plain_length({text.data() + at, text.size() - at});
    }
    return at;
}

// The length of a head with the marker that ends it (LF LF or CR LF CR LF), 0 if it is not there yet. A CR
// near the end of the data stops the search: what follows it is still to come. Each marker has a line feed,
// so the line feeds are walked.
inline size_t head_eod(const char* buf, size_t buflen)
{
    size_t limit = buflen > 3 ? buflen - 3 : 0;
    while (limit < buflen && buf[limit] != '\r') {
        ++limit;
    }
    const std::string_view searched(buf, limit);
    for (size_t at = searched.find('\n'); at != std::string_view::npos; at = searched.find('\n', at + 1)) {
        if (at + 1 < buflen && buf[at + 1] == '\n') {
            return at + 2;
        }
        if (at > 0 && buf[at - 1] == '\r' && at + 2 < buflen && buf[at + 1] == '\r' && buf[at + 2] == '\n') {
            return at + 3;
        }
    }
    return 0;
}

// Whether a text ends in a title, by any case.
inline bool ends_in_title(std::string_view text, std::string_view title)
{
    if (text.size() < title.size()) {
        return false;
    }
    const char* tail = text.data() + text.size() - title.size();
    // The last letter tells most titles apart before the whole of them is compared.
    const size_t letter = title.size() < 2 ? 0 : title.size() - 2;
    return ((tail[letter] ^ title[letter]) & ~kCaseBit) == 0 &&
           strncasecmp(tail, title.data(), title.size()) == 0;
}

// A title that is looked for, and where its first place in a text ends; NULL: it has none.
struct WantedTitle {
    std::string_view title;
    const char* end = nullptr;
};

// Finds the first place of each title in a text. Kept: no look at line starts. The titles end in their only
// colon, which is far rarer than any letter: the colons are walked, once for all titles, and the titles
// compared in front of each.
template <size_t count>
void find_titles(const char* text, WantedTitle (&wanted)[count])
{
    size_t open = count;
    for (const char* at = strchr(text, ':'); at != nullptr && open > 0; at = strchr(at + 1, ':')) {
        const std::string_view till_colon(text, static_cast<size_t>(at + 1 - text));
        for (WantedTitle& want : wanted) {
            if (want.end == nullptr && ends_in_title(till_colon, want.title)) {
                want.end = at + 1;
                --open;
            }
        }
    }
}

// Where the first place of any title in a text ends.
inline const char* find_title(const char* title, const char* text)
{
    const size_t length = strlen(title);
    if (length == 0 || strchr(title, ':') != title + length - 1) {
        const char* const place = strcasestr(text, title);
        return place != nullptr ? place + length : nullptr;
    }
    WantedTitle wanted[] = {{{title, length}}};
    find_titles(text, wanted);
    return wanted[0].end;
}

// What stands behind a title, up to the end of its line; without data: nothing that is a value.
inline std::string_view value_behind(const char* title_end)
{
    if (title_end == nullptr) {
        return {};
    }
    const char* at = title_end + (*title_end == ':' ? 1 : 0);
    if (!is_white(*at)) {
        return {};
    }
    // Kept: line ends are white space too, so an empty value gives the text of the next line.
    while (is_white(*at)) {
        ++at;
    }
    const size_t length = till_control({at, static_cast<size_t>(strchrnul(at, '\n') - at)});
    return at[length] == '\n' || at[length] == '\r' ? std::string_view(at, length) : std::string_view();
}

// A head under composition: pieces are appended whole or not at all.
class ResponseHead {
  public:
    ResponseHead(char* buf, size_t size) : buf_(buf), size_(size) {}

    size_t length() const { return length_; }

    size_t room() const { return size_ - length_; }

    void append(std::string_view piece)
    {
        memcpy(buf_ + length_, piece.data(), piece.size());
        length_ += piece.size();
    }

    // A header line. False: no room for it. Kept: a line of kHeaderLineSize and more is left out.
    bool line(std::string_view title, std::string_view value)
    {
        const size_t needed = title.size() + value.size() + 2;
        if (needed >= room()) {
            return false;
        }
        if (needed < kHeaderLineSize) {
            append(title);
            append(value);
            append("\r\n");
        }
        return true;
    }

    bool text_line(std::string_view title, const char* value)
    {
        return value == nullptr || *value == '\0' || line(title, value);
    }

  private:
    char* buf_;
    size_t size_;
    size_t length_ = 0;
};

template <class Number>
class Digits {
  public:
    explicit Digits(Number number)
        : length_(static_cast<size_t>(std::to_chars(text_, text_ + sizeof text_, number).ptr - text_))
    {
    }

    std::string_view text() const { return {text_, length_}; }

  private:
    char text_[24];
    size_t length_;
};

} // namespace mv

#endif
