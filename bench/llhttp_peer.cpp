// A request's head read by llhttp.
#include <llhttp.h>

#include "http_taken.h"

namespace {

struct Reading {
    Taken* taken;
    const char* field = nullptr;
    size_t field_len = 0;
    bool whole = false;
};

Reading* reading(llhttp_t* parser)
{
    return static_cast<Reading*>(parser->data);
}

llhttp_settings_t make_settings()
{
    llhttp_settings_t settings;
    llhttp_settings_init(&settings);
    settings.on_url = [](llhttp_t* p, const char* at, size_t length) {
        reading(p)->taken->target(at, length);
        return 0;
    };
    settings.on_header_field = [](llhttp_t* p, const char* at, size_t length) {
        reading(p)->field = at;
        reading(p)->field_len = length;
        return 0;
    };
    settings.on_header_value = [](llhttp_t* p, const char* at, size_t length) {
        reading(p)->taken->field(reading(p)->field, reading(p)->field_len, at, length);
        return 0;
    };
    settings.on_headers_complete = [](llhttp_t* p) {
        reading(p)->whole = true;
        return 0;
    };
    return settings;
}

} // namespace

bool take_by_llhttp(const char* text, size_t length, Taken& taken)
{
    static const llhttp_settings_t settings = make_settings();
    Reading now = {&taken};
    llhttp_t parser;
    llhttp_init(&parser, HTTP_REQUEST, &settings);
    parser.data = &now;
    return llhttp_execute(&parser, text, length) == HPE_OK && now.whole;
}
