// WebSocket frames in arbitrary pieces, after a handshake.

#include "fuzz/fuzz.h"
#include "tests/support/drain.h"
#include "tests/support/feed.h"
#include "tests/support/recording_connection.h"

#include <memory>

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
    return conn;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silence();
    source in(data, size);
    const unsigned cut = in.byte() + 1;
    const bool small_limits = in.below(2) != 0;
    // Whether the head of an extended frame is complete is judged by all bytes that wait, those of
    // the frames before it included, so at the very end pieces may wait where a whole is refused.
    // Pings behind it, whose bytes never read as such a head, make both come to the same.
    std::string wire(in.rest());
    for (int i = 0; i < 4; ++i) wire += "\x89\x81\x81\x81\x81\x81\x81";

    auto whole = upgraded(small_limits);
    auto pieces = upgraded(small_limits);
    feed(*whole, wire);
    feed(*pieces, wire, cut);

    require(whole->messages == pieces->messages, "the messages are the same");
    require(whole->keep_alive == pieces->keep_alive, "both end, or neither");
    require(drain(*whole).bytes() == drain(*pieces).bytes(), "the answers are the same");
    if (whole->keep_alive) require(whole->data == pieces->data, "the same bytes wait");

    // And what is sent reads as the frame that was meant.
    auto sender = upgraded(false);
    drain(*sender);
    sender->send_message(wire, 1);
    const std::string frame = drain(*sender).bytes();
    const std::size_t head = wire.size() < 126 ? 2 : wire.size() < 65536 ? 4 : 10;
    require(frame.size() == head + wire.size() && frame.substr(head) == wire,
            "a frame that is sent carries its payload");
    return 0;
}
