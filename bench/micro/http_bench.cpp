// What a request passes through, by itself: no socket, no server.

#include "vindra/http/http_connection.h"
#include "vindra/proxy/http_proxy.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

namespace {

// A browser's request: 14 header lines, Host first and the longest one near the end.
const std::string head =
    "GET /articles/2024/a-page-with-a-name?from=index&page=2 HTTP/1.1\r\n"
    "Host: service.example.org\r\n"
    "Connection: keep-alive\r\n"
    "Cache-Control: max-age=0\r\n"
    "sec-ch-ua-mobile: ?0\r\n"
    "sec-ch-ua-platform: \"Linux\"\r\n"
    "Upgrade-Insecure-Requests: 1\r\n"
    "User-Agent: Mozilla/5.0 (X11; Linux x86_64; rv:128.0) Gecko/20100101 Firefox/128.0\r\n"
    "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,image/webp,*/*;q=0.8\r\n"
    "Sec-Fetch-Site: same-origin\r\n"
    "Sec-Fetch-Mode: navigate\r\n"
    "Accept-Encoding: gzip, deflate, br\r\n"
    "Accept-Language: en-US,en;q=0.5\r\n"
    "Cookie: session=0123456789abcdef0123456789abcdef; theme=dark; consent=all\r\n"
    "If-None-Match: \"5f3c-61a2b3c4d5e6f\"\r\n"
    "\r\n";

// The request line and the header lines, as a connection keeps them.
const std::string header_block = head.substr(0, head.size() - 2);

// Reads and forgets; the queue of a frame that is sent is emptied by send_all().
class quiet_connection : public http_connection {
public:
    void on_headers() override {}
    void on_request() override {}
    void on_upgrade() override {}
    void on_message() override { benchmark::DoNotOptimize(message); }

    void send_all() {
        for (int length = 1; length > 0;) {
            length = 0;
            on_send(send_buffer, send_buffer_size, &length);
            benchmark::ClobberMemory();
        }
    }
};

std::unique_ptr<quiet_connection> new_connection() {
    return std::unique_ptr<quiet_connection>(new quiet_connection);
}

std::unique_ptr<quiet_connection> upgraded_connection() {
    auto conn = new_connection();
    std::string handshake = "GET / HTTP/1.1\r\nUpgrade: websocket\r\nSec-WebSocket-Key: k\r\n"
                            "Sec-WebSocket-Version: 13\r\n\r\n";
    conn->on_recv(handshake.data(), static_cast<int>(handshake.size()));
    conn->send_all();
    return conn;
}

// A head in blocks of so many bytes: the search and all that is read of it.
void request(benchmark::State& state, std::size_t piece) {
    const auto conn = new_connection();
    std::string wire = head;
    while (state.KeepRunning()) {
        for (std::size_t at = 0; at < wire.size(); at += piece)
            conn->on_recv(wire.data() + at, static_cast<int>(std::min(piece, wire.size() - at)));
        conn->reset();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(wire.size()));
}

void get_header(benchmark::State& state, const std::string& name) {
    while (state.KeepRunning())
        benchmark::DoNotOptimize(http_connection::get_header(name, header_block));
}

void copy_headers(benchmark::State& state) {
    while (state.KeepRunning()) benchmark::DoNotOptimize(http_proxy::copy_headers(header_block));
}

// The line that the program prints for each request, into a stream that goes nowhere.
void log_line(benchmark::State& state) {
    const auto conn = new_connection();
    std::string wire = head;
    conn->on_recv(wire.data(), static_cast<int>(wire.size()) - 2);
    conn->method = "GET";
    conn->url = "/articles/2024/a-page-with-a-name?from=index&page=2";
    conn->version = "HTTP/1.1";
    std::FILE* const nowhere = std::fopen("/dev/null", "w");
    while (state.KeepRunning()) {
        std::fputs(("[service.example.org] " + conn->info(true)).c_str(), nowhere);
        std::fputc('\n', nowhere);
    }
    std::fclose(nowhere);
}

std::string client_frame(std::size_t length) {
    const std::string key = "\x11\x22\x33\x44";
    std::string frame = "\x81";
    if (length < 126) {
        frame += static_cast<char>(128 + length);
    } else {
        // Read with the low byte first.
        frame += static_cast<char>(128 + 126);
        frame += static_cast<char>(length & 255);
        frame += static_cast<char>(length >> 8);
    }
    frame += key;
    for (std::size_t i = 0; i < length; ++i) frame += static_cast<char>('x' ^ key[i % key.size()]);
    return frame;
}

void read_frame(benchmark::State& state) {
    const auto conn = upgraded_connection();
    std::string wire = client_frame(static_cast<std::size_t>(state.range(0)));
    while (state.KeepRunning()) conn->on_recv(wire.data(), static_cast<int>(wire.size()));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

void write_frame(benchmark::State& state) {
    const auto conn = upgraded_connection();
    const std::string payload(static_cast<std::size_t>(state.range(0)), 'x');
    while (state.KeepRunning()) {
        conn->send_message(payload, 1);
        conn->send_all();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

BENCHMARK_CAPTURE(request, whole, head.size())->Name("a request's head, in one block");
BENCHMARK_CAPTURE(request, pieces, 64)->Name("a request's head, in blocks of 64");
BENCHMARK_CAPTURE(request, bytes, 1)->Name("a request's head, byte by byte");
BENCHMARK_CAPTURE(get_header, first, "host")->Name("get_header: the first line");
BENCHMARK_CAPTURE(get_header, last, "if-none-match")->Name("get_header: the last line");
BENCHMARK_CAPTURE(get_header, absent, "x-forwarded-for")->Name("get_header: no line");
BENCHMARK(copy_headers)->Name("copy_headers");
BENCHMARK(log_line)->Name("log_line");
BENCHMARK(read_frame)->Name("read a frame")->Arg(100)->Arg(65535);
BENCHMARK(write_frame)->Name("write a frame")->Arg(100)->Arg(65535);

} // namespace
