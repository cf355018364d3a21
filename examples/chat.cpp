// A chat: each text that a browser sends goes to all browsers. Shows channels, and how to live with
// frames of at most 125 bytes, which is what the library reads without speak_websocket().

#include "vindra/base/utf8_decode.h"
#include "vindra/core/server.h"
#include "vindra/http/http_connection.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr int longest_text = 125;
constexpr int text_frame = 1;
constexpr const char* room = "everyone";

constexpr const char* page = R"html(<!doctype html>
<html lang="en">
<meta charset="utf-8">
<title>Chat</title>
<ul id="texts"></ul>
<form><input id="text" autofocus autocomplete="off" size="60"> <button>Send</button></form>
<p id="state">connecting</p>
<script>
const element = id => document.getElementById(id);
const socket = new WebSocket("ws://" + location.host + "/");
const say = text => element("state").textContent = text;
socket.onopen = () => say("connected");
socket.onclose = () => say("closed");
socket.onmessage = event => {
    const line = document.createElement("li");
    line.textContent = event.data;
    element("texts").append(line);
};
document.forms[0].onsubmit = event => {
    event.preventDefault();
    const text = element("text").value;
    if (new TextEncoder().encode(text).length > 125) return say("too long: 125 bytes at most");
    socket.send(text);
    element("text").value = "";
    say("connected");
};
</script>
)html";

// A browser closes the connection when it gets text that is not UTF-8, so such text is dropped.
bool is_utf8(const std::string& text) {
    for (std::size_t i = 0; i < text.size();) {
        int length = 0;
        const int code_point = base::utf8_decode(text.c_str() + i, &length);
        if (code_point < 0 || code_point > 0x10FFFF) return false;
        i += static_cast<std::size_t>(length);
    }
    return true;
}

class chat_connection : public http_connection {
public:
    chat_connection() { max_frame_length = max_message_length = longest_text; }

    // The connection leaves its channels when it ends.
    void on_upgrade() override { subscribe(room); }

    void on_message() override {
        if (is_utf8(message)) publish(room, message, text_frame);
    }

    void on_request() override {
        if (path == "/") {
            write("HTTP/1.1 200 OK\r\nContent-Type: text/html; charset=utf-8\r\n", page);
        } else {
            write("HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\n", "Not found\n");
        }
    }
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::puts("usage: chat PORT");
        return 1;
    }
    server<chat_connection> chat(std::atoi(argv[1]), true);
    chat.run();
}
