#include "vindra/proxy/proxy_connection.h"

proxy_connection::proxy_connection(int socket, proxy_pipe* shared) : pipe(shared) {
    fd = socket;
    timeout = -1;
    quiet_when<proxy_connection>([](const proxy_connection& c) { return c.end_.is_quiet(); });
    static constexpr seat::queues moves = {
        .source =
            [](connection& conn) { return &static_cast<proxy_connection&>(conn).pipe->to_backend; },
        .target =
            [](connection& conn) { return &static_cast<proxy_connection&>(conn).pipe->to_client; },
        .arrived = [](connection& /*conn*/, int /*length*/) {},
    };
    seat::of(*this).moves = &moves;
}

proxy_connection::~proxy_connection() = default;

void proxy_connection::on_recv(char* data, int length) {
    end_.fill(data, length);
}

bool proxy_connection::on_send(char* buffer, int capacity, int* length) {
    return end_.send(buffer, capacity, length);
}
