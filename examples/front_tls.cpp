// The TLS front server inside a program with a loop and commands of its own. Reads lines from
// standard input between the turns:
//
//   map HOST PORT   from now on, forwards requests for HOST to PORT of this machine
//   quit            ends all connections and the program, as the end of the input does

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

// Returns false if the program should end.
bool obey(const std::string& line) {
    std::istringstream words(line);
    std::string command, host;
    int port = 0;
    words >> command >> host >> port;
    if (command == "map") reverse_proxy::hosts().set(host, port);
    return command != "quit";
}

// Reads what was typed. Returns false if the program should end.
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
    // Connections to backends use no TLS, so a plain server drives them. It never listens.
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

    // Now, because the destructors can no longer end TLS sessions.
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
