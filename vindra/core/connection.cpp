#include "vindra/core/connection.h"

#include "vindra/core/connection_pool.h"
#include "vindra/core/sockets.h"

#include <algorithm>
#include <cassert>

connection::connection() : last_active(std::time(nullptr)) {}

connection::~connection() {
    roster::forget(*this);
    if (may_rest_) {
        note_buffer_use_();
        connection_pool::note_untouched(this, send_buffer + send_buffer_used_,
                                        send_buffer + send_buffer_size);
    }
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

void connection::find_out_whether_it_may_rest_() {
    asked_ = true;
    may_rest_ = resting_class_ != nullptr && typeid(*this) == *resting_class_;
}

// Anyone may have set the two fields to anything.
void connection::note_buffer_use_() {
    const std::int64_t end = std::int64_t{send_offset} + send_length;
    const auto within = std::clamp<std::int64_t>(end, 0, send_buffer_size);
    send_buffer_used_ = std::max(send_buffer_used_, static_cast<int>(within));
    assert(send_buffer_used_ >= 0 && send_buffer_used_ <= send_buffer_size);
}

void connection::trim_send_buffer_() {
    connection_pool::give_back_pages(send_buffer, send_buffer + send_buffer_used_,
                                     send_buffer + send_buffer_size);
    send_buffer_used_ = 0;
}

void* connection::operator new(std::size_t size) {
    return connection_pool::allocate(size);
}

void connection::operator delete(void* storage, std::size_t size) {
    connection_pool::release(storage, size);
}
