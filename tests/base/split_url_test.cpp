#include "vindra/base/split_url.h"

#include <gtest/gtest.h>

namespace {

struct url_case {
    const char* url;
    const char* scheme;
    const char* host;
    int port;
    const char* path;
};

constexpr url_case url_cases[] = {
    // url                             scheme   host           port  path
    {"http://a.example/b", "http", "a.example", 80, "/b"},
    {"http://a.example", "http", "a.example", 80, "/"},
    {"http://a.example/", "http", "a.example", 80, "/"},
    {"http://a:8080/b/c?d=/e", "http", "a", 8080, "/b/c?d=/e"},
    {"https://a", "https", "a", 443, "/"},
    {"https://a:8443", "https", "a", 8443, "/"},
    {"ftp://a/f", "ftp", "a", 21, "/f"},

    // the target of CONNECT
    {"a.example:443", "http", "a.example", 443, "/"},
    {"a.example", "http", "a.example", 80, "/"},

    // schemes are kept and compared as written
    {"HTTPS://a", "HTTPS", "a", 80, "/"},
    {"FTP://a", "FTP", "a", 80, "/"},
    {"ws://a", "ws", "a", 80, "/"},
    {"x y://a", "x y", "a", 80, "/"},

    {"//a/b", "https", "a", 443, "/b"},
    {"//a:80", "https", "a", 80, "/"},
    {"//", "https", "", 443, "/"},
    {"//a/x://y", "//a/x", "y", 80, "/"},

    // origin form: a slash with nothing before it cuts nothing off
    {"/a/b", "http", "/a/b", 80, "/"},
    {"/index.html", "http", "/index.html", 80, "/"},
    {"/a:1/b", "http", "/a", 1, "/"},
    {"http:///b", "http", "/b", 80, "/"},
    {"", "http", "", 80, "/"},
    {"/", "http", "/", 80, "/"},
    {"*", "http", "*", 80, "/"},

    // "://" with nothing before it is no scheme
    {"://a", "http", ":", 80, "//a"},
    {"://a://b", "http", ":", 80, "//a://b"},
    {"a:/b", "http", "a", 0, "/b"},
    {"a:/b://c", "a:/b", "c", 80, "/"},

    // ports as strtol reads them
    {"a:", "http", "a", 0, "/"},
    {"a:x", "http", "a", 0, "/"},
    {"a:80x", "http", "a", 80, "/"},
    {"https://a:/b", "https", "a", 0, "/b"},
    {"a: 81", "http", "a", 81, "/"},
    {"a:-1", "http", "a", -1, "/"},
    {"a:010", "http", "a", 10, "/"},
    {"a:0x10", "http", "a", 0, "/"},
    {"a:80:90", "http", "a", 80, "/"},
    {"a:4294967376", "http", "a", 80, "/"},
    {":80", "http", ":80", 80, "/"},

    // no user names, brackets, fragments or percent-escapes
    {"http://u:p@a/", "http", "u", 0, "/"},
    {"http://u@a/", "http", "u@a", 80, "/"},
    {"http://[::1]:80/", "http", "[", 0, "/"},
    {"http://a#f/g", "http", "a#f", 80, "/g"},
    {"http://a?q=/r", "http", "a?q=", 80, "/r"},
    {"http://a%20b/", "http", "a%20b", 80, "/"},

    {"http://b\xc3\xbc"
     "cher.example:81/\xc3\xbc",
     "http", "xn--bcher-kva.example", 81, "/\xc3\xbc"},
};

TEST(split_url, cuts_into_scheme_host_port_and_path) {
    for (const auto& c : url_cases) {
        const split_url url(c.url);
        EXPECT_EQ(url.scheme, c.scheme) << c.url;
        EXPECT_EQ(url.host, c.host) << c.url;
        EXPECT_EQ(url.port, c.port) << c.url;
        EXPECT_EQ(url.path, c.path) << c.url;
    }
}

struct host_case {
    const char* host;
    const char* ascii;
};

constexpr host_case host_cases[] = {
    {"", ""},
    {".", "."},
    {"a.example", "a.example"},
    {"A.Example", "A.Example"},
    {".a..b.", ".a..b."},
    {"b\xc3\xbc"
     "cher",
     "xn--bcher-kva"},
    {"www.b\xc3\xbc"
     "cher.example",
     "www.xn--bcher-kva.example"},
    {"B\xc3\x9c"
     "CHER",
     "xn--BCHER-2pa"},
    {"\xc3\xbc.\xc3\xbc", "xn--tda.xn--tda"},
    {"xn--bcher-kva", "xn--bcher-kva"},
    // the full stops of other scripts separate nothing
    {"a\xe3\x80\x82"
     "b",
     "xn--ab-r13a"},
};

TEST(split_url, utf8_to_idn_encodes_only_the_labels_that_are_not_ascii) {
    for (const auto& c : host_cases) EXPECT_EQ(split_url::utf8_to_idn(c.host), c.ascii);
}

TEST(split_url, utf8_to_idn_cuts_a_label_short_at_a_zero_byte) {
    EXPECT_EQ(split_url::utf8_to_idn(std::string("a\0b.c", 5)), "a.c");
}

TEST(split_url, utf8_to_idn_does_not_limit_the_length_of_a_label) {
    const std::string label(100, 'a');
    EXPECT_EQ(split_url::utf8_to_idn(label), label);
}

} // namespace
