// Requests in arbitrary pieces. After each piece every field, and every call of a hook with what it
// could see, are those of a reader that is written down plainly here: it searches the head from its
// start each time. And one message comes to the same whole and in pieces.
//
// Input: a byte, one less than the length of a piece; a byte of flags, whose lowest bit admits
// WebSockets and which from 240 on is a limit for the length of a request; then what a client
// sends.

#include "vindra/base/base64.h"
#include "vindra/base/sha1.h"
#include "vindra/http/http_connection.h"

#include "fuzz/fuzz.h"
#include "tests/support/drain.h"
#include "tests/support/feed.h"

#include <cstdlib>
#include <memory>
#include <string>

namespace {

// The fields that a request fills, in the words of either reader.
template <typename Reader>
std::string fields_of(const Reader& r) {
    std::string text = r.method;
    for (const std::string& part : {r.url, r.version, r.path, r.query, r.cookie, r.headers})
        text += "|" + part;
    for (const int number : {r.content_length, static_cast<int>(r.headers_done),
                             static_cast<int>(r.keep_alive), static_cast<int>(r.upgraded)})
        text += " " + std::to_string(number);
    return text;
}

// Notes each hook with what it sees. Leaves answers and frames alone.
class recorder : public http_connection {
public:
    void on_headers() override { log += "headers " + fields_of(*this) + "\n"; }
    void on_data(char* bytes, int length) override {
        log += "data " + std::string(bytes, static_cast<std::size_t>(length)) + "\n";
        data.append(bytes, static_cast<std::size_t>(length));
    }
    void on_upgrade() override { log += "upgrade " + fields_of(*this) + "\n"; }
    void on_request() override { log += "request " + data + "\n"; }

    std::string log;
};

// The reader as one would write it without a thought of speed.
struct plain_reader {
    static constexpr int usual_limit = 104857600;

    void on_recv(const std::string& block) {
        if (max_request_length > 0 && received > max_request_length) return;
        received += static_cast<int>(block.size());
        if (headers_done) {
            body_received += static_cast<int>(block.size());
            take_data(block);
        } else {
            headers += block;
            const std::size_t end = headers.find("\r\n\r\n");
            if (end != std::string::npos && end > 0) take_head(end);
        }
        if (!upgraded && headers_done && body_received >= content_length) {
            log += "request " + data + "\n";
            if (keep_alive) reset();
        }
    }

    void take_head(std::size_t end) {
        const std::string rest = headers.substr(end + 4);
        headers.erase(end + 2);
        headers_done = true;
        take_request_line();
        content_length = number(header("content-length"));
        body_received = static_cast<int>(rest.size());
        if (version == "HTTP/1.0" && header("connection") != "Keep-Alive") keep_alive = false;
        cookie = header("cookie");
        path = url;
        if (const std::size_t mark = url.find('?'); mark != std::string::npos && mark >= 1) {
            query = url.substr(mark + 1);
            path = url.substr(0, mark);
        }
        if (websockets && header("upgrade") == "websocket")
            shake_hands();
        else
            log += "headers " + fields_of(*this) + "\n";
        if (!rest.empty()) take_data(rest);
    }

    void take_request_line() {
        const long s1 = place(" ", 0);
        const long s2 = s1 < 0 ? -1 : place(" ", s1 + 1);
        const long e = place("\r\n", s2 + 1);
        if (s1 > 0) method = headers.substr(0, static_cast<std::size_t>(s1));
        if (s2 > 0) url = between(s1 + 1, s2);
        if (e > 0) version = between(s2 + 1, e);
    }

    void shake_hands() {
        const std::string key = header("sec-websocket-key");
        const bool accepted = number(header("sec-websocket-version")) == 13 && !key.empty();
        if (accepted) {
            sent += "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
                    "Connection: Upgrade\r\nSec-WebSocket-Accept: " +
                    base::base64(base::sha1(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11")) + "\r\n";
        } else {
            sent += "HTTP/1.1 400 Bad Request\r\nSec-WebSocket-Version: 13\r\n";
        }
        sent += keep_alive ? "Content-Length: 0\r\n\r\n" : "\r\n";
        if (!accepted) return;
        upgraded = true;
        max_request_length = 0;
        log += "upgrade " + fields_of(*this) + "\n";
    }

    void take_data(const std::string& block) {
        log += "data " + block + "\n";
        data += block;
    }

    void reset() {
        max_request_length = usual_limit;
        headers_done = false;
        content_length = body_received = received = 0;
        for (std::string* text : {&data, &headers, &cookie, &query, &path, &version, &url, &method})
            text->clear();
    }

    // The first line behind a line end that begins with the name, in letters of either case.
    std::string header(const std::string& name) const {
        for (std::size_t i = 0; i + 2 + name.size() <= headers.size(); ++i) {
            if (headers.compare(i, 2, "\r\n") != 0) continue;
            std::size_t same = 0;
            while (same < name.size() && lower(headers[i + 2 + same]) == name[same]) ++same;
            if (same < name.size()) continue;
            const std::size_t start = i + 2 + name.size() + 2;
            if (start > headers.size()) return "";
            return headers.substr(start, headers.find("\r\n", start) - start);
        }
        return "";
    }
    static char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

    static int number(const std::string& text) {
        return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
    }
    long place(const char* what, long from) const {
        return static_cast<long>(headers.find(what, static_cast<std::size_t>(from)));
    }
    std::string between(long from, long to) const {
        return headers.substr(static_cast<std::size_t>(from), static_cast<std::size_t>(to - from));
    }

    bool headers_done = false;
    bool websockets = true;
    bool keep_alive = true;
    bool upgraded = false;
    int max_request_length = usual_limit;
    int received = 0;
    int body_received = 0;
    int content_length = 0;
    std::string headers;
    std::string data;
    std::string method;
    std::string url;
    std::string version;
    std::string path;
    std::string query;
    std::string cookie;
    std::string log;
    std::string sent;
};

std::unique_ptr<recorder> fresh(bool websockets) {
    auto conn = std::make_unique_for_overwrite<recorder>();
    conn->websockets = websockets;
    return conn;
}

void compare(const recorder& conn, const plain_reader& plain) {
    require(conn.log == plain.log, "the hooks are called as they are to be");
    require(fields_of(conn) == fields_of(plain), "the fields are read as they are to be");
    require(conn.data == plain.data && conn.received == plain.received &&
                conn.body_received == plain.body_received &&
                conn.max_request_length == plain.max_request_length,
            "the bytes are counted and kept");
}

// All there is, in pieces, beside the plain reader.
void follow(const std::string& wire, unsigned cut, bool websockets, int limit) {
    const auto conn = fresh(websockets);
    plain_reader plain;
    plain.websockets = websockets;
    conn->max_request_length = plain.max_request_length = limit;
    for (std::size_t at = 0; at < wire.size(); at += cut) {
        const std::string piece = wire.substr(at, cut);
        feed(*conn, piece);
        plain.on_recv(piece);
        compare(*conn, plain);
        conn->log.clear();
        plain.log.clear();
    }
    require(drain(*conn).bytes() == plain.sent, "handshakes are answered as they are to be");
}

// The calls, those of on_data() as one.
std::string joined(const recorder& conn) {
    std::string text = conn.log;
    for (std::size_t at = 0; (at = text.find("\ndata ", at)) != std::string::npos;)
        text.erase(at, 6);
    return text;
}

// One message: what comes behind it would be a part of it in one case, and another in the other.
void compare_with_whole(const std::string& wire, unsigned cut, bool websockets) {
    const std::size_t end = wire.find("\r\n\r\n");
    if (end == std::string::npos || end == 0) return;
    // A body that holds the words of the log cannot be told from them.
    if (wire.find("\ndata ") != std::string::npos) return;
    plain_reader plain;
    plain.keep_alive = plain.websockets = false;
    plain.on_recv(wire.substr(0, end + 4));
    const auto body = static_cast<std::size_t>(std::max(plain.content_length, 0));
    const std::string message = wire.substr(0, end + 4 + std::min(body, wire.size()));

    const auto whole = fresh(websockets);
    const auto pieces = fresh(websockets);
    feed(*whole, message);
    feed(*pieces, message, cut);
    require(joined(*whole) == joined(*pieces), "a message in pieces is read as a whole one");
    require(fields_of(*whole) == fields_of(*pieces), "the fields are the same");
    require(drain(*whole).bytes() == drain(*pieces).bytes(), "the answers are the same");
}

// The default hooks, for whatever they do.
void answer(const std::string& wire, unsigned cut) {
    const auto conn = std::make_unique_for_overwrite<http_connection>();
    for (std::size_t at = 0; at < wire.size(); at += cut) {
        feed(*conn, wire.substr(at, cut));
        drain(*conn);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silence();
    source in(data, size);
    const unsigned cut = in.byte() + 1;
    const unsigned flags = in.byte();
    const bool websockets = flags % 2 != 0;
    const int limit =
        flags < 240 ? plain_reader::usual_limit : static_cast<int>(flags - 240) * 8 - 8;
    const std::string wire(in.rest());

    follow(wire, cut, websockets, limit);
    compare_with_whole(wire, cut, websockets);
    answer(wire, cut);
    return 0;
}
