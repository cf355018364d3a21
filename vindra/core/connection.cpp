#include "vindra/core/connection.h"

#include "vindra/core/connection_pool.h"

connection::connection() : last_active(std::time(nullptr)) {}

connection::~connection() = default;

connection*& connection::selected() {
    static connection* conn = nullptr;
    return conn;
}

void* connection::operator new(std::size_t size) {
    return connection_pool::allocate(size);
}

void connection::operator delete(void* storage, std::size_t size) {
    connection_pool::release(storage, size);
}
