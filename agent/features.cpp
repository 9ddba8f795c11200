// What the environment variable ZENT_FEATURES turns on.
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "zent.h"

namespace {

constexpr const char* kVariable = "ZENT_FEATURES";
constexpr const char* kKnown = "exact, immediate, igmpv3 and expire=S with 10 to 86400 seconds";
constexpr unsigned kExpireMin = 10;
constexpr unsigned kExpireMax = 86400;
constexpr std::string_view kExpire = "expire";

bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && is_blank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && is_blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// Sets a flag, and tells what is wrong with that, if anything.
const char* turn_on(bool& flag)
{
    if (flag) {
        return "this word stands twice:";
    }
    flag = true;
    return nullptr;
}

const char* set_expire(std::string_view number, unsigned& expire)
{
    if (expire != 0) {
        return "this word stands twice:";
    }
    unsigned seconds = 0;
    const char* end = number.data() + number.size();
    // No sign, no blank and no prefix: from_chars takes digits alone, and all of the text must be digits.
    const auto [stop, error] = std::from_chars(number.data(), end, seconds);
    if (error != std::errc() || stop != end || seconds < kExpireMin || seconds > kExpireMax) {
        return "the number is missing or bad:";
    }
    expire = seconds;
    return nullptr;
}

// Takes one word; NULL, or what is wrong with it.
const char* take_word(std::string_view word, struct app_features& features)
{
    if (word.empty()) {
        return "this word is empty:";
    }
    if (word == "exact") {
        return turn_on(features.exact);
    }
    if (word == "immediate") {
        return turn_on(features.immediate);
    }
    if (word == "igmpv3") {
        return turn_on(features.igmpv3);
    }
    if (word.starts_with(kExpire) && (word.size() == kExpire.size() || word[kExpire.size()] == '=')) {
        word.remove_prefix(word.size() > kExpire.size() ? kExpire.size() + 1 : kExpire.size());
        return set_expire(word, features.expire);
    }
    return "this word is unknown:";
}

} // namespace

int parse_features(const char* text, struct app_features* features, char* complaint, size_t room)
{
    *features = {};
    std::string_view rest = text != nullptr ? trimmed(text) : std::string_view();
    if (rest.empty()) {
        return 0;
    }
    // Built apart and given at the end: a text with one bad word turns nothing on.
    struct app_features found = {};
    // A comma at the end has an empty word behind it, which is refused like any other.
    for (bool more = true; more;) {
        const size_t comma = rest.find(',');
        more = comma != std::string_view::npos;
        const std::string_view word = trimmed({rest.data(), more ? comma : rest.size()});
        const char* wrong = take_word(word, found);
        if (wrong != nullptr) {
            snprintf(complaint, room, "%s: %s \"%.*s\"; known are %s", kVariable, wrong,
                     static_cast<int>(word.size()), word.data(), kKnown);
            return -1;
        }
        rest.remove_prefix(more ? comma + 1 : rest.size());
    }
    found.any = true;
    *features = found;
    return 0;
}

// To stderr, since this runs before the log is open.
int read_features()
{
    char complaint[256] = "";
    if (parse_features(getenv(kVariable), &g_cfg.features, complaint, sizeof complaint) == 0) {
        return 0;
    }
    fprintf(stderr, "%s: %s\n", g_appname, complaint);
    return -1;
}

const char* features_text(const struct app_features* features)
{
    // Written in the order of the documents, whatever the order of the words was: one state, one text.
    static char text[64];
    char expire[16] = "";
    if (features->expire != 0) {
        snprintf(expire, sizeof expire, ",expire=%u", features->expire);
    }
    snprintf(text, sizeof text, "%s%s%s%s", features->exact ? ",exact" : "",
             features->immediate ? ",immediate" : "", features->igmpv3 ? ",igmpv3" : "", expire);
    return text[0] != 0 ? text + 1 : text;
}
