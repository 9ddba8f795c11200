// Pieces of HTTP heads: where one ends, where a header of it begins, and one under composition.
#ifndef MORVANE_DETAIL_HTTP_HEAD_H
#define MORVANE_DETAIL_HTTP_HEAD_H

#include <cctype>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <strings.h>

namespace mv {

constexpr size_t kHeaderLineSize = 128; // of a header line under composition
constexpr int kCaseBit = 'a' ^ 'A';

// isspace() and iscntrl() of a character: ASCII is the same in every locale and needs no call.
inline bool is_white(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x80 ? byte == ' ' || (byte >= '\t' && byte <= '\r') : isspace(byte) != 0;
}

inline bool is_control(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x80 ? byte < ' ' || byte == 0x7f : iscntrl(byte) != 0;
}

// The length of a head with the marker that ends it (LF LF or CR LF CR LF), 0 if it is not there yet. A CR
// near the end of the data stops the search: what follows it is still to come.
inline size_t head_eod(const char* buf, size_t buflen)
{
    for (size_t i = 0; i < buflen; ++i) {
        if (buf[i] == '\n') {
            if (i + 1 == buflen) {
                return 0;
            }
            if (buf[i + 1] == '\n') {
                return i + 2;
            }
        } else if (buf[i] == '\r') {
            if (buflen - i <= 3) {
                return 0;
            }
            if (memcmp(buf + i + 1, "\n\r\n", 3) == 0) {
                return i + 4;
            }
        }
    }
    return 0;
}

// The first place of a title in a text, by any case. Kept: no look at line starts. The titles used here end
// in their only colon, which is far rarer than any letter: the colons are walked and the title compared in
// front of each.
inline const char* find_title(const char* title, size_t length, const char* buf)
{
    if (length == 0 || strchr(title, ':') != title + length - 1) {
        return strcasestr(buf, title);
    }
    for (const char* colon = strchr(buf, ':'); colon != nullptr; colon = strchr(colon + 1, ':')) {
        // The last letter tells most titles apart before the whole of them is compared.
        if (static_cast<size_t>(colon - buf) + 1 >= length &&
            (length == 1 || ((colon[-1] ^ title[length - 2]) & ~kCaseBit) == 0) &&
            strncasecmp(colon + 1 - length, title, length) == 0) {
            return colon + 1 - length;
        }
    }
    return nullptr;
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
        const size_t length = title.size() + value.size() + 2;
        if (length >= room()) {
            return false;
        }
        if (length < kHeaderLineSize) {
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
