// A forward proxy for programs on this machine. Takes absolute URIs and CONNECT, and answers 404
// for the hosts named on its command line.

#include "vindra/core/server.h"
#include "vindra/proxy/http_proxy.h"

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

namespace {

std::set<std::string> blocked;

// Compares host names in any letter case, with or without the final dot.
std::string normal(std::string host) {
    for (char& c : host) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    if (host.ends_with('.')) host.pop_back();
    return host;
}

class forward_proxy : public http_proxy {
public:
    bool should_block(const std::string& host) override { return blocked.contains(normal(host)); }
};

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::puts("usage: forward_proxy PORT [BLOCKED_HOST...]");
        return 1;
    }
    for (int i = 2; i < argc; ++i) blocked.insert(normal(argv[i]));

    server<forward_proxy> proxy(std::atoi(argv[1]), true);
    http_proxy::g_server() = &proxy;
    proxy.run();
}
