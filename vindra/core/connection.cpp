#include "vindra/core/connection.h"

#include "vindra/core/connection_pool.h"

connection::connection() : last_active(std::time(nullptr)) {}

connection::~connection() = default;

connection*& connection::selected() {
    static connection* conn = nullptr;
    return conn;
}

void connection::wake() {
    roster::wake(*this);
}

bool connection::may_rest_() const {
    return rests_ && resting_class_ != nullptr && typeid(*this) == *resting_class_;
}

void connection::trim_send_buffer_() {
    connection_pool::give_back_pages(send_buffer, static_cast<std::size_t>(send_buffer_used_));
    send_buffer_used_ = 0;
}

void* connection::operator new(std::size_t size) {
    return connection_pool::allocate(size);
}

void connection::operator delete(void* storage, std::size_t size) {
    connection_pool::release(storage, size);
}
