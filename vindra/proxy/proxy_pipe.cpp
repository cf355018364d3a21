#include "vindra/proxy/proxy_pipe.h"

#include "vindra/core/connection.h"

#include <cassert>
#include <utility>

void proxy_pipe::wake_on_arrival(base::byte_queue& queue, connection& reader) {
    queue.on_arrival([](void* conn) { static_cast<connection*>(conn)->wake(); }, &reader);
}

void proxy_pipe::release(proxy_pipe*& pipe, base::byte_queue proxy_pipe::*queue) {
    proxy_pipe* const held = std::exchange(pipe, nullptr);
    assert(held != nullptr && held->refs > 0);
    (held->*queue).on_arrival(nullptr, nullptr);
    if (--held->refs == 0) {
        delete held;
    } else {
        held->to_backend.announce();
        held->to_client.announce();
    }
}

bool proxy_pipe::send_from(base::byte_queue& queue, char* buffer, int capacity, int* length) {
    assert(&queue == &to_backend || &queue == &to_client);
    *length = static_cast<int>(queue.take(buffer, static_cast<std::size_t>(capacity)));
    assert(*length >= 0 && *length <= capacity);
    return !queue.empty() || refs >= 2;
}
