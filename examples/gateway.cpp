// A gateway in front of three services: chooses by path, keeps a path to itself, and tells the
// services who asks. Shows strict relaying, header lines dropped and added, a relay's own answers.

#include "vindra/base/form.h"
#include "vindra/core/ipv4_text.h"
#include "vindra/core/server.h"
#include "vindra/proxy/http_proxy.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

int users_port, orders_port, site_port;

class gateway : public http_proxy {
public:
    gateway() { relay_strictly(); }

    void on_headers() override {
        for (const char* line : {"X-Forwarded-For", "X-Real-IP", "Forwarded"}) drop_header(line);
        add_header("X-Forwarded-For", ipv4_text(address));
        std::puts(info(true).c_str());
        // Services read some paths as another one: take only those that everybody reads alike.
        const std::string plain = base::percent_decode(path);
        for (const char* trick : {"//", "/./", "/..", "\\", "%", ";"})
            if (plain.find(trick) != std::string::npos) return answer(400, "", "");
        if (plain.starts_with("/users/admin")) return answer(403, "text/plain", "not from here\n");
        forward_to("127.0.0.1", plain.starts_with("/users")    ? users_port
                                : plain.starts_with("/orders") ? orders_port
                                                               : site_port);
    }
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) return std::puts("usage: gateway PORT USERS_PORT ORDERS_PORT SITE_PORT"), 1;
    users_port = std::atoi(argv[2]), orders_port = std::atoi(argv[3]),
    site_port = std::atoi(argv[4]);
    server<gateway> front(std::atoi(argv[1]), true);
    http_proxy::g_server() = &front;
    front.run();
}
