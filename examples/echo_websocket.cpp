// Sends WebSocket messages back. Shows messages of any length, text and binary, subprotocols,
// handshakes that are refused, and close codes.

#include "vindra/core/server.h"
#include "vindra/http/http_connection.h"

#include <cstdio>
#include <cstdlib>

namespace {

class echo_connection : public http_connection {
public:
    echo_connection() {
        read_strictly(0);
        speak_websocket();
        max_message_length = 1048576;
    }

    ~echo_connection() override {
        if (upgraded) std::printf("The client closed with %d\n", close_code());
    }

    // Called for handshakes too, before they are answered.
    void on_headers() override {
        if (is_handshake() && path != "/echo") return answer(404, "text/plain", "no echo here\n");
        if (!choose_protocol("echo.v2")) choose_protocol("echo.v1");
    }

    void on_upgrade() override {}

    void on_message() override {
        if (message == "bye") return send_close(4000, "you said bye");
        send_message(message, message_opcode());
    }

    void on_request() override { answer(426, "text/plain", "WebSocket only\n"); }
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::puts("usage: echo_websocket PORT");
        return 1;
    }
    server<echo_connection> echo(std::atoi(argv[1]), true);
    echo.run();
}
