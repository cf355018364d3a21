#include "vindra/proxy/proxy_pipe.h"

#include <utility>

void proxy_pipe::release(proxy_pipe*& pipe) {
    proxy_pipe* const held = std::exchange(pipe, nullptr);
    if (--held->refs == 0) delete held;
}

bool proxy_pipe::send_from(base::byte_queue& queue, char* buffer, int capacity, int* length) {
    *length = static_cast<int>(queue.take(buffer, static_cast<std::size_t>(capacity)));
    return !queue.empty() || refs >= 2;
}
