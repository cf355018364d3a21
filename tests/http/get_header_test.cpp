#include "vindra/base/find.h"
#include "vindra/http/http_connection.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

struct lookup_case {
    const char* title;
    std::string name;
    std::string block;
    std::string value;
};

const lookup_case lookup_cases[] = {
    {"plain", "host", "GET / HTTP/1.1\r\nhost: a\r\n", "a"},
    {"capitals in the block", "host", "G\r\nHOST: a\r\n", "a"},
    {"capitals in the name", "HOST", "G\r\nHost: a\r\n", "a"},
    {"mixed on both sides", "hOsT", "G\r\nHoSt: A\r\n", "A"},
    {"absent", "host", "G\r\nA: b\r\n", ""},
    {"empty block", "host", "", ""},
    {"not in the first line", "host", "host: a\r\n", ""},
    {"not inside a line", "host", "G\r\nX-Host: a\r\n", ""},
    {"not in a value", "host", "G\r\nA: host: b\r\n", ""},
    {"the first of two", "host", "G\r\nHost: a\r\nHost: b\r\n", "a"},
    {"a longer name is found", "content-length", "G\r\nContent-Length-Foo: 9\r\n", "oo: 9"},
    {"nothing is trimmed", "a", "G\r\na:  b \r\n", " b "},
    {"without the blank", "content-length", "G\r\nContent-Length:12\r\n", "2"},
    {"blank before the colon", "a", "G\r\na : b\r\n", " b"},
    {"empty value", "a", "G\r\na: \r\nb: c\r\n", ""},
    {"no value, no blank", "a", "G\r\na:\r\nb: c\r\n", "\nb: c"},
    {"value without a line end", "a", "G\r\na: bc", "bc"},
    {"start at the end", "a", "G\r\na: ", ""},
    {"start one past the end", "a", "G\r\na:", ""},
    {"start two past the end", "a", "G\r\na", ""},
    {"bare carriage return in a value", "a", "G\r\na: b\rc\r\n", "b\rc"},
    {"bare newline in a value", "a", "G\r\na: b\nc\r\n", "b\nc"},
    {"zero byte in a value", "a", "G\r\na: b\0c\r\n"s, "b\0c"s},
    {"question mark", "h?st", "G\r\nhost: a\r\n", "a"},
    {"star", "h*t", "G\r\nhost: a\r\n", " a"},
    {"empty name", "", "G\r\na: b\r\n", " b"},
};

} // namespace

TEST(get_header, gives_the_stated_value) {
    for (const lookup_case& c : lookup_cases) {
        SCOPED_TRACE(c.title);
        EXPECT_EQ(http_connection::get_header(c.name, c.block), c.value);
    }
}

TEST(get_header, obeys_the_switch_for_letter_case) {
    base::find_case_insensitive() = false;
    EXPECT_EQ(http_connection::get_header("host", "G\r\nHost: a\r\n"), "");
    EXPECT_EQ(http_connection::get_header("Host", "G\r\nHost: a\r\n"), "a");
    base::find_case_insensitive() = true;
    EXPECT_EQ(http_connection::get_header("host", "G\r\nHost: a\r\n"), "a");
}
