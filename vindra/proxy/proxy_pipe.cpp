#include "vindra/proxy/proxy_pipe.h"

#include "vindra/core/connection.h"

#include <utility>

void proxy_pipe::wake_on_arrival(base::byte_queue& queue, connection& reader) {
    queue.on_arrival([](void* conn) { static_cast<connection*>(conn)->wake(); }, &reader);
}

void proxy_pipe::release(proxy_pipe*& pipe, base::byte_queue proxy_pipe::*queue) {
    proxy_pipe* const held = std::exchange(pipe, nullptr);
    (held->*queue).on_arrival(nullptr, nullptr);
    if (--held->refs == 0) {
        delete held;
    } else {
        held->to_backend.announce();
        held->to_client.announce();
    }
}

bool proxy_pipe::send_from(base::byte_queue& queue, char* buffer, int capacity, int* length) {
    *length = static_cast<int>(queue.take(buffer, static_cast<std::size_t>(capacity)));
    return !queue.empty() || refs >= 2;
}
