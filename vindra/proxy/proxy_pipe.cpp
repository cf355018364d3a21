#include "vindra/proxy/proxy_pipe.h"

#include "vindra/core/connection.h"

#include <cassert>
#include <cstddef>
#include <utility>

proxy_pipe::end::end(side which, proxy_pipe*& pipe, connection& holder)
    : pipe_(pipe), holder_(holder), side_(which) {
    attach_();
}

proxy_pipe::end::~end() {
    detach_();
}

void proxy_pipe::end::replace(proxy_pipe* next) {
    detach_();
    pipe_ = next;
    attach_();
}

void proxy_pipe::end::fill(const char* bytes, int length) {
    target_().append(bytes, static_cast<std::size_t>(length));
}

bool proxy_pipe::end::send(char* buffer, int capacity, int* length) {
    *length = static_cast<int>(source_().take(buffer, static_cast<std::size_t>(capacity)));
    assert(*length >= 0 && *length <= capacity);
    return !source_().empty() || pipe_->refs >= 2;
}

base::byte_queue& proxy_pipe::end::source_() const {
    return side_ == side::client ? pipe_->to_client : pipe_->to_backend;
}

base::byte_queue& proxy_pipe::end::target_() const {
    return side_ == side::client ? pipe_->to_backend : pipe_->to_client;
}

void proxy_pipe::end::attach_() {
    if (side_ == side::backend) ++pipe_->refs;
    source_().set_listener([](void* conn) { static_cast<connection*>(conn)->wake(); }, &holder_);
}

// Wakes the other end, which may be finished now.
void proxy_pipe::end::detach_() {
    assert(pipe_->refs > 0);
    base::byte_queue& others = target_();
    source_().set_listener(nullptr, nullptr);
    proxy_pipe* const left = std::exchange(pipe_, nullptr);
    if (--left->refs == 0) {
        delete left;
    } else {
        others.announce();
    }
}
