#include "vindra/core/connection.h"

#include "vindra/core/private/connection_pool.h"
#include "vindra/core/private/roster.h"
#include "vindra/core/sockets.h"

connection::connection() : last_active(std::time(nullptr)) {}

connection::~connection() {
    roster::forget(*this);
    char* const end = send_buffer + send_buffer_size;
    connection_pool::note_untouched(end - seat_.untouched_bytes(*this), end);
}

connection*& connection::selected() {
    static connection* conn = nullptr;
    return conn;
}

void connection::wake() {
    roster::wake(*this);
    // Its server may have had its send pass of this turn: of two servers, the second one's clients
    // bring work for backend connections of the first.
    sockets::hurry();
}

void* connection::operator new(std::size_t size) {
    return connection_pool::allocate(size);
}

void connection::operator delete(void* storage, std::size_t size) {
    connection_pool::deallocate(storage, size);
}
