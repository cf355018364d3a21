// A page with figures of this machine that changes by itself. Shows timers, posts from a thread,
// channels, an orderly end at SIGTERM, and JSON by var.

#include "vindra/base/var.h"
#include "vindra/core/loop.h"
#include "vindra/core/server.h"
#include "vindra/http/http_connection.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include <unistd.h>

namespace {

constexpr const char* page = R"html(<!doctype html>
<meta charset="utf-8"><title>Dashboard</title>
<table id="figures"></table>
<script>
new WebSocket("ws://" + location.host + "/").onmessage = event => {
    const table = document.getElementById("figures");
    table.replaceChildren();
    for (const [name, value] of Object.entries(JSON.parse(event.data)))
        table.insertRow().append(name + ": " + value);
};
</script>
)html";

var figures = var::object();

void show(const std::string& name, const var& value) {
    figures.set(name, value);
    http_connection::publish("viewers", figures.to_json(), 1);
}

void measure() {
    double load = 0;
    getloadavg(&load, 1);
    show("load", load);
}

// What is typed becomes a figure too. read() blocks, so a thread calls it.
void read_notes() {
    char text[200];
    for (ssize_t n = 0; (n = read(STDIN_FILENO, text, sizeof text)) > 0;)
        loop::post([note = std::string(text, static_cast<std::size_t>(n))] { show("note", note); });
}

class viewer : public http_connection {
public:
    viewer() { read_strictly(0); }
    void on_upgrade() override {
        subscribe("viewers");
        send_message(figures.to_json(), 1);
    }
    void on_request() override {
        if (path != "/") return answer(404, "text/plain", "not found\n");
        answer(200, "text/html; charset=utf-8", page);
    }
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) return std::puts("usage: dashboard PORT"), 1;
    server<viewer> dashboard(std::atoi(argv[1]), true);
    loop::every(500, measure);
    loop::stop_on(SIGTERM);
    std::thread(read_notes).detach();
    return loop::run({&dashboard}) ? 0 : 1;
}
