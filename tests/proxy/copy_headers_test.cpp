#include "vindra/proxy/http_proxy.h"

#include <string>

#include <gtest/gtest.h>

namespace {

struct filter_case {
    const char* name;
    const char* block;
    const char* kept;
};

constexpr filter_case filter_cases[] = {
    {"nothing at all", "", ""},
    {"no line end", "GET / HTTP/1.1", ""},
    {"request line alone", "GET / HTTP/1.1\r\n", ""},
    {"line end first", "\r\nHost: a\r\nX: b\r\n", ""},
    {"kept in order", "GET / HTTP/1.1\r\nHost: a\r\nCookie: b\r\nAccept: */*\r\n",
     "Host: a\r\nCookie: b\r\nAccept: */*\r\n"},
    {"connection goes", "GET / HTTP/1.1\r\nConnection: keep-alive\r\nHost: a\r\n", "Host: a\r\n"},
    {"proxy connection goes", "GET / HTTP/1.1\r\nProxy-Connection: keep-alive\r\nHost: a\r\n",
     "Host: a\r\n"},
    {"proxy authorization goes", "GET / HTTP/1.1\r\nProxy-Authorization: x\r\n", ""},
    {"any name with that beginning goes", "GET / HTTP/1.1\r\nConnectionless: 1\r\nProxyed: 2\r\n",
     ""},
    {"lower case stays", "GET / HTTP/1.1\r\nconnection: keep-alive\r\nproxy-x: 1\r\n",
     "connection: keep-alive\r\nproxy-x: 1\r\n"},
    {"keep-alive stays", "GET / HTTP/1.1\r\nKeep-Alive: 5\r\n", "Keep-Alive: 5\r\n"},
    {"hop-by-hop others stay",
     "GET / HTTP/1.1\r\nUpgrade: websocket\r\nTransfer-Encoding: chunked\r\nTE: gzip\r\n",
     "Upgrade: websocket\r\nTransfer-Encoding: chunked\r\nTE: gzip\r\n"},
    {"forwarded-for stays", "GET / HTTP/1.1\r\nX-Forwarded-For: 1.2.3.4\r\n",
     "X-Forwarded-For: 1.2.3.4\r\n"},
    {"folded and odd bytes stay", "GET / HTTP/1.1\r\nA: b\n c\rd\r\n", "A: b\n c\rd\r\n"},
    {"a line of one byte joins the next", "GET / HTTP/1.1\r\nX\r\nConnection: a\r\nHost: b\r\n",
     "X\r\nConnection: a\r\nHost: b\r\n"},
    {"a line of one byte at the end goes", "GET / HTTP/1.1\r\nHost: b\r\nX\r\n", "Host: b\r\n"},
    {"a line of two bytes is one", "GET / HTTP/1.1\r\nXY\r\nConnection: a\r\n", "XY\r\n"},
    {"an unfinished last line goes", "GET / HTTP/1.1\r\nHost: b\r\nCut", "Host: b\r\n"},
};

TEST(copy_headers, keeps_what_a_backend_may_see) {
    for (const filter_case& c : filter_cases) {
        EXPECT_EQ(http_proxy::copy_headers(c.block), c.kept) << c.name;
    }
}

TEST(copy_headers, keeps_zero_bytes) {
    const std::string block("GET / HTTP/1.1\r\nA: b\0c\r\n", 24);
    EXPECT_EQ(http_proxy::copy_headers(block), std::string("A: b\0c\r\n", 8));
}

} // namespace
