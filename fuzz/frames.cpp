// WebSocket frames in arbitrary pieces, after a handshake, beside a reader that is written down
// plainly here.
//
// Input: a byte, one less than the length of a piece; a byte whose lowest bit asks for small
// limits; then frames as a client sends them. The first byte modulo 5 also chooses how long a
// message is sent back.

#include "fuzz/fuzz.h"
#include "tests/support/drain.h"
#include "tests/support/feed.h"
#include "tests/support/recording_connection.h"

#include <memory>
#include <vector>

namespace {

constexpr const char* handshake = "GET / HTTP/1.1\r\nUpgrade: websocket\r\n"
                                  "Sec-WebSocket-Version: 13\r\n"
                                  "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n";

std::unique_ptr<recording_connection> upgraded(bool small_limits) {
    auto conn = std::make_unique_for_overwrite<recording_connection>();
    if (small_limits) {
        conn->max_frame_length = 200;
        conn->max_message_length = 300;
    }
    feed(*conn, handshake);
    drain(*conn);
    return conn;
}

// What a server sends (RFC 6455, section 5.2).
std::string sent_frame(unsigned code, const std::string& payload) {
    std::string frame(1, static_cast<char>(0x80U | code));
    const std::size_t n = payload.size();
    const int bytes = n < 126 ? 0 : n < 65536 ? 2 : 8;
    frame += static_cast<char>(bytes == 0 ? n : bytes == 2 ? 126 : 127);
    for (int i = bytes - 1; i >= 0; --i) frame += static_cast<char>(n >> (8 * i) & 255U);
    return frame + payload;
}

// The reader as one would write it without a thought of speed: a byte that is not there yet stops
// it wherever that is.
class plain_reader {
public:
    explicit plain_reader(bool small_limits)
        : frame_max_(small_limits ? 200 : 1048576), message_max_(small_limits ? 300 : 10485760) {}

    void on_data(const std::string& block) {
        data += block;
        if (!open) return;
        std::size_t done = 0;
        while (open && data.size() - done > 5 && take_frame(done)) {
        }
        if (open) data.erase(0, done);
    }

    bool open = true;
    std::string data;
    std::string message;
    std::vector<std::string> messages;
    std::string sent;

private:
    // False where it has to wait, or has ended.
    bool take_frame(std::size_t& pos) {
        if ((at(pos + 1) & 128U) == 0) return end();
        const unsigned seven = at(pos + 1) & 127U;
        if (seven == 126 && data.size() < 8) return false;
        if (seven == 127 && (data.size() < 14 || pos + 16 > data.size())) return false;
        const std::size_t key = pos + (seven < 126 ? 2 : seven == 126 ? 4 : 16);
        const std::size_t start = pos + (seven < 126 ? 6 : seven == 126 ? 8 : 14);
        std::uint64_t length = seven;
        if (seven == 126) length = at(pos + 2) + 256U * at(pos + 3);
        if (seven == 127) {
            length = 0;
            for (std::size_t i = 0; i < 8; ++i) length |= std::uint64_t{at(pos + 8 + i)} << (8 * i);
        }
        if (length > frame_max_) return end();

        std::string payload;
        for (std::size_t i = 0; i < length; ++i) {
            if (start + i >= data.size() || key + i % 4 >= data.size()) return false;
            payload += static_cast<char>(at(start + i) ^ at(key + i % 4));
        }
        if (start > data.size()) return false;
        const unsigned first = at(pos);
        pos = start + length;
        return act(first & 15U, (first & 128U) != 0, payload);
    }

    bool act(unsigned code, bool last, const std::string& payload) {
        if (code == 8) return end();
        if (code == 9) sent += sent_frame(10, payload);
        if (code > 2) return true;
        message += payload;
        if (message.size() > message_max_) return end();
        if (!last) return true;
        messages.push_back(message);
        sent += sent_frame(1, message);
        message.clear();
        return true;
    }

    bool end() {
        open = false;
        return false;
    }

    unsigned at(std::size_t i) const { return static_cast<unsigned char>(data.at(i)); }

    std::uint64_t frame_max_;
    std::size_t message_max_;
};

void compare(recording_connection& conn, const plain_reader& plain) {
    require(conn.messages == plain.messages, "the messages are those that were sent");
    require(conn.message == plain.message, "of an unfinished one the same is kept");
    require(conn.data == plain.data, "the same bytes wait");
    require(conn.keep_alive == plain.open, "the connection ends when it has to");
    require(conn.keep_alive || conn.timeout == 0, "and then at once");
}

// In pieces beside the plain reader, after each of them.
std::unique_ptr<recording_connection> follow(const std::string& wire, unsigned cut,
                                             bool small_limits) {
    auto conn = upgraded(small_limits);
    plain_reader plain(small_limits);
    std::string sent;
    for (std::size_t at = 0; at < wire.size(); at += cut) {
        const std::string piece = wire.substr(at, cut);
        feed(*conn, piece);
        plain.on_data(piece);
        compare(*conn, plain);
    }
    sent = drain(*conn).bytes();
    require(sent == plain.sent, "the answers are those that are due");
    return conn;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silence();
    source in(data, size);
    const unsigned cut = in.byte() + 1;
    const bool small_limits = in.below(2) != 0;
    std::string wire(in.rest());
    follow(wire, cut, small_limits);

    // Whether the head of an extended frame is complete is judged by all bytes that wait, those of
    // the frames before it included, so at the very end pieces may wait where a whole is refused.
    // Pings behind it, whose bytes never read as such a head, make both come to the same.
    for (int i = 0; i < 4; ++i) wire += "\x89\x81\x81\x81\x81\x81\x81";
    const auto pieces = follow(wire, cut, small_limits);
    const auto whole = follow(wire, static_cast<unsigned>(wire.size()), small_limits);
    require(whole->messages == pieces->messages, "the messages are the same");
    require(whole->keep_alive == pieces->keep_alive, "both end, or neither");
    if (whole->keep_alive) require(whole->data == pieces->data, "the same bytes wait");

    // And what is sent reads as the frame that was meant, also where the form of its length
    // changes.
    const std::size_t lengths[] = {wire.size(), 125, 126, 65535, 65536};
    wire.resize(lengths[cut % 5], 'x');
    const auto sender = upgraded(false);
    sender->send_message(wire, 2);
    require(drain(*sender).bytes() == sent_frame(2, wire), "a frame that is sent reads as meant");
    return 0;
}
