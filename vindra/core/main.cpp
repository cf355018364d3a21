// The program: reads the command line, fills the host map and runs the servers.

#include "vindra/core/https.h"
#include "vindra/core/server.h"
#include "vindra/proxy/reverse_proxy.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

const char* const usage =
    "USAGE:\n"
    "\tvindra [port] -ssl [ssl_port] [key] [crt] -map [host_header] [local_port]\n"
    "WHERE:\n"
    "\t-[port] is the http port\n"
    "\t-if -ssl is specified, [ssl_port] is the https port and [key] and [crt]\n"
    "\t are the key and certificate file paths\n"
    "\t -if [port] is non-zero, it will redirect to [ssl_port]\n"
    "\t -if [port] is zero, it will be ignored\n"
    "\t-if -map is specified, incoming requests with [host_header] are forwarded\n"
    "\t to [local_port]\n"
    "\t -if [local_port] is -1, the [host_header] is mapped to an echo handler, which\n"
    "\t  is useful for debugging\n"
    "\t -multiple -map flags can be specified\n";

// What a command line says. The paths are the arguments themselves.
struct settings {
    int port = 0;
    int ssl_port = 0;
    const char* key = nullptr;
    const char* crt = nullptr;
};

// Whatever is no number counts as 0.
int number(const char* text) {
    return static_cast<int>(std::strtol(text, nullptr, 10));
}

// Reads the arguments and fills the host map. What it does not know, an option with too few
// arguments included, it skips; of an option given twice, or a host, the last one counts.
settings read_arguments(int argc, char** argv) {
    settings s;
    s.port = number(argv[1]);
    for (int i = 2; i < argc; ++i) {
        const std::string_view option = argv[i];
        const int rest = argc - i - 1;
        if (option == "-ssl" && rest >= 3) {
            s.ssl_port = number(argv[i + 1]);
            s.key = argv[i + 2];
            s.crt = argv[i + 3];
            i += 3;
        } else if (option == "-map" && rest >= 2) {
            reverse_proxy::hosts().set(argv[i + 1], number(argv[i + 2]));
            i += 2;
        }
    }
    return s;
}

void run_plain(int port) {
    server<reverse_proxy> plain(port, false);
    http_proxy::g_server() = &plain;
    plain.run();
}

} // namespace

// The status is 0 whatever happens.
int main(int argc, char** argv) {
    if (argc < 2) {
        std::puts(usage);
        return 0;
    }
    const settings s = read_arguments(argc, argv);
    if (s.ssl_port != 0) {
        https::run<reverse_proxy>(s.ssl_port, s.key, s.crt, s.port);
    } else {
        run_plain(s.port);
    }
    return 0;
}
