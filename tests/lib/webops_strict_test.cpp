// The strict reading of a request's head: its request line, its fields, and what is refused.
#include "webops.h"

#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Line {
    int rc;
    std::string method;
    std::string target;
    int minor;
    size_t consumed;
};

Line read_line(const std::string& text)
{
    const char* at = text.data();
    struct web_request_line line = {};
    const int rc = web_read_request_line(&at, text.data() + text.size(), &line);
    return {rc,
            std::string(line.method, line.method_len),
            {line.target, line.target_len},
            line.minor,
            static_cast<size_t>(at - text.data())};
}

struct Field {
    int rc;
    std::string name;
    std::string value;
    size_t consumed;
};

Field read_field(const std::string& text)
{
    const char* at = text.data();
    struct web_field field = {};
    const int rc = web_read_field(&at, text.data() + text.size(), &field);
    return {rc,
            std::string(field.name, field.name_len),
            {field.value, field.value_len},
            static_cast<size_t>(at - text.data())};
}

} // namespace

TEST(StrictRequestLine, gives_method_target_and_version)
{
    const Line line = read_line("GET /a?b=c HTTP/1.1\r\nHost: x\r\n");
    EXPECT_EQ(line.rc, 0);
    EXPECT_EQ(line.method, "GET");
    EXPECT_EQ(line.target, "/a?b=c");
    EXPECT_EQ(line.minor, 1);
    EXPECT_EQ(line.consumed, 21U);
    EXPECT_EQ(read_line("M-SEARCH * HTTP/1.0\r\n").method, "M-SEARCH");
    EXPECT_EQ(read_line("get / HTTP/1.0\r\n").minor, 0);
}

TEST(StrictRequestLine, refuses_what_is_not_to_the_letter)
{
    const std::vector<std::string> bad = {"",
                                          "GET",
                                          "GET ",
                                          "GET / HTTP/1.1",
                                          "GET / HTTP/1.1\n",
                                          "GET / HTTP/1.1\r",
                                          "GET  / HTTP/1.1\r\n",
                                          "GET /  HTTP/1.1\r\n",
                                          " GET / HTTP/1.1\r\n",
                                          "GET / HTTP/2.0\r\n",
                                          "GET / http/1.1\r\n",
                                          "GET / HTTP/1.x\r\n",
                                          "GET / HTTP/1.\r\n",
                                          "GET / HTTP/1.11\r\n",
                                          "GET /\r\n",
                                          "GET\t/ HTTP/1.1\r\n",
                                          "G(T / HTTP/1.1\r\n",
                                          "GET /\x7f HTTP/1.1\r\n",
                                          "GET /\xc3\xa4 HTTP/1.1\r\n",
                                          "\r\n",
                                          "GET / HTTP/1.1 \r\n"};
    for (const std::string& text : bad) {
        const Line line = read_line(text);
        EXPECT_EQ(line.rc, -1) << text;
        EXPECT_EQ(line.consumed, 0U) << text;
    }
    EXPECT_EQ(read_line(std::string("GET /\0 HTTP/1.1\r\n", 17)).rc, -1);
    EXPECT_EQ(read_line(std::string("G\0T / HTTP/1.1\r\n", 16)).rc, -1);
}

TEST(StrictField, gives_the_value_without_the_blanks_around_it)
{
    const Field field = read_field("Host: \t a b \t\r\nnext");
    EXPECT_EQ(field.rc, 0);
    EXPECT_EQ(field.name, "Host");
    EXPECT_EQ(field.value, "a b");
    EXPECT_EQ(field.consumed, 15U);
    EXPECT_EQ(read_field("a:\r\n").value, "");
    EXPECT_EQ(read_field("a:   \r\n").value, "");
    EXPECT_EQ(read_field("a:\xc3\xa4:\tb\r\n").value, "\xc3\xa4:\tb");
}

TEST(StrictField, tells_the_end_of_the_head)
{
    const Field field = read_field("\r\nbody");
    EXPECT_EQ(field.rc, 1);
    EXPECT_EQ(field.consumed, 2U);
}

TEST(StrictField, refuses_what_is_not_to_the_letter)
{
    const std::vector<std::string> bad = {
        "",          "a",          "a:",        "a: b",  "a: b\n",      "a: b\rc\r\n", "a : b\r\n",
        " a: b\r\n", "\ta: b\r\n", ": b\r\n",   "a\r\n", "a: \x01\r\n", "a: \x7f\r\n", "\n",
        "\r",        "a: b\n\r\n", "(a): b\r\n"};
    for (const std::string& text : bad) {
        const Field field = read_field(text);
        EXPECT_EQ(field.rc, -1) << text;
        EXPECT_EQ(field.consumed, 0U) << text;
    }
    EXPECT_EQ(read_field(std::string("a: \0b\r\n", 7)).rc, -1);
}
