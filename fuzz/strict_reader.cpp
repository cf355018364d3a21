// Requests read strictly, whole and in pieces, with the answers fetched sooner or later: hooks and
// answers have to be the same. What a reader must never see is checked on the way.
//
// Input: a byte modulo 16, one less than the length of a piece; then what a client sends, at most
// 4,095 bytes. A body may have 64.

#include "vindra/http/http_connection.h"

#include "fuzz/fuzz.h"

#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int largest_body = 64;

class strict_connection : public http_connection {
public:
    strict_connection() { read_strictly(largest_body); }
    void on_headers() override {
        seen += "H" + method + " " + url + " " + version + "\n";
        require(version == "HTTP/1.1" || version == "HTTP/1.0", "the version is known");
        require(!method.empty() && !url.empty(), "there is a method and a target");
        require(url.find_first_of(std::string(" \r\n\0", 4)) == std::string::npos,
                "a target is one word");
        require(!header("transfer-encoding"), "no coded body is read");
        open = true;
    }
    void on_data(char* bytes, int length) override {
        http_connection::on_data(bytes, length);
        require(upgraded || static_cast<int>(data.size()) <= content_length,
                "no byte behind the body is part of it");
        require(upgraded || content_length <= largest_body, "no body is too long");
    }
    void on_upgrade() override { seen += "U"; }
    void on_message() override { seen += "M" + message; }
    void on_request() override {
        require(open, "a request is complete once");
        open = false;
        require(static_cast<int>(data.size()) == content_length, "the whole body is there");
        seen += "R" + data + "\n";
        answer(200, "", data);
    }

    bool open = false;
    std::string seen;
};

struct outcome {
    bool operator==(const outcome&) const = default;
    std::string seen;
    std::string sent;
    bool open;
};

bool fetch(http_connection& conn, std::string& sent) {
    for (;;) {
        int length = 0;
        const bool open = conn.on_send(conn.send_buffer, connection::send_buffer_size, &length);
        if (length == 0) return open;
        sent.append(conn.send_buffer, static_cast<std::size_t>(length));
    }
}

outcome converse(const std::string& wire, std::size_t piece, bool fetch_soon) {
    const std::unique_ptr<strict_connection> conn(new strict_connection);
    std::string sent;
    for (std::size_t at = 0; at < wire.size(); at += piece) {
        // A block of its own size: what is read behind it shows.
        std::vector<char> block(wire.begin() + static_cast<std::ptrdiff_t>(at),
                                wire.begin() +
                                    static_cast<std::ptrdiff_t>(std::min(at + piece, wire.size())));
        conn->on_recv(block.data(), static_cast<int>(block.size()));
        if (fetch_soon) fetch(*conn, sent);
    }
    fetch(*conn, sent);
    conn->last_active -= 10;
    const bool open = fetch(*conn, sent);
    return {conn->seen, sent, open};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silence();
    if (size == 0 || size > 4096) return 0;
    const std::size_t piece = data[0] % 16U + 1;
    const std::string wire(reinterpret_cast<const char*>(data) + 1, size - 1);

    const outcome whole = converse(wire, wire.size() + 1, false);
    require(converse(wire, piece, true) == whole, "pieces read as the whole does");
    require(converse(wire, 1, false) == whole, "single bytes read as the whole does");
    return 0;
}
