#include "vindra/proxy/proxy_connection.h"

proxy_connection::proxy_connection(int socket, proxy_pipe* shared) : pipe(shared) {
    fd = socket;
    timeout = -1;
    ++pipe->refs;
    proxy_pipe::wake_on_arrival(pipe->to_backend, *this);
    may_rest_as(typeid(proxy_connection));
}

proxy_connection::~proxy_connection() {
    proxy_pipe::release(pipe, &proxy_pipe::to_backend);
}

void proxy_connection::on_recv(char* data, int length) {
    pipe->to_client.append(data, static_cast<std::size_t>(length));
}

bool proxy_connection::on_send(char* buffer, int capacity, int* length) {
    const bool stays = pipe->send_from(pipe->to_backend, buffer, capacity, length);
    if (pipe->to_backend.empty()) rest();
    return stays;
}
