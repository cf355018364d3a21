// A relay in front of an answerer of its own, both in one process.

#include <vindra/core/server.h>
#include <vindra/proxy/http_proxy.h>

#include <cstdlib>

namespace {

class answerer : public http_connection {
    void on_request() override { write("HTTP/1.1 200 OK\r\n", "relayed " + path + "\n"); }
};

class relay : public http_proxy {};

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 1;
    server<relay> front(std::atoi(argv[1]), true);
    server<answerer> back(std::atoi(argv[2]), true);
    http_proxy::g_server() = &front;
    abstract_server* servers[] = {&front, &back, nullptr};
    abstract_server::run(servers);
    return 0;
}
