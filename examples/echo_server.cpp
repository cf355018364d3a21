// The smallest server: http_connection without overrides answers each request with its own head.

#include "vindra/core/server.h"
#include "vindra/http/http_connection.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::puts("usage: echo_server PORT");
        return 1;
    }
    server<http_connection> echo(std::atoi(argv[1]), true);
    echo.run();
}
