// The TLS front server inside a program that has a loop and commands of its own: reads lines
// from its standard input and serves in between.
//
//   map HOST PORT   forwards requests for HOST to PORT of this machine, from now on
//   quit            ends every connection and the program; so does the end of the input

#include "vindra/core/server.h"
#include "vindra/core/sockets.h"
#include "vindra/proxy/reverse_proxy.h"
#include "vindra/tls/ssl_server.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include <unistd.h>

namespace {

// False when the program is to end.
bool obey(const std::string& line) {
    std::istringstream words(line);
    std::string command, host;
    int port = 0;
    words >> command >> host >> port;
    if (command == "map") reverse_proxy::hosts().set(host, port);
    return command != "quit";
}

// Takes what has been typed. False when the program is to end.
bool take_commands(std::string& typed) {
    char block[4096];
    const auto count = read(STDIN_FILENO, block, sizeof block);
    if (count <= 0) return false;
    typed.append(block, static_cast<std::size_t>(count));
    for (std::size_t end = 0; (end = typed.find('\n')) != std::string::npos;) {
        if (!obey(typed.substr(0, end))) return false;
        typed.erase(0, end + 1);
    }
    return true;
}

void serve(int port, const char* key, const char* certificate) {
    // Connections to backends speak no TLS, so a plain server drives them; it never listens.
    server<reverse_proxy> backends(0, true);
    http_proxy::g_server() = &backends;
    ssl_server<reverse_proxy> front(port, true, key, certificate);
    if (!front.start() || !backends.start()) return;
    sockets::all()->set(STDIN_FILENO);

    std::string typed;
    for (bool going_on = true; going_on;) {
        sockets::select_all();
        front.update();
        backends.update();
        if (sockets::num_ready() == 0) front.on_idle();
        if (sockets::readable()->test(STDIN_FILENO)) going_on = take_commands(typed);
    }

    // Before the destructors: they no longer know how to end a TLS session.
    front.stop();
    backends.stop();
    std::puts("Stopped.");
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::puts("usage: front_tls PORT KEY CERTIFICATE");
        return 1;
    }
    try {
        serve(std::atoi(argv[1]), argv[2], argv[3]);
    } catch (const std::string& what_the_library_lacks) {
        std::puts(what_the_library_lacks.c_str());
        return 1;
    }
}
