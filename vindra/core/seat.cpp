#include "vindra/core/seat.h"

#include "vindra/core/connection.h"
#include "vindra/core/private/connection_pool.h"

#include <algorithm>
#include <cassert>

void seat::resolve_promise(const connection& conn) {
    if (promised_by == nullptr) return;
    if (typeid(conn) != *promised_by) is_quiet = nullptr;
    promised_by = nullptr;
}

int seat::untouched_bytes(const connection& conn) {
    if (!has_promise()) return 0;
    note_buffer_use(conn);
    return connection::send_buffer_size - buffer_used;
}

void seat::copy_outgoing(connection& conn) {
    const int offset = std::clamp(conn.send_offset, 0, connection::send_buffer_size);
    outgoing->take(conn.send_buffer + offset,
                   static_cast<std::size_t>(connection::send_buffer_size - offset));
    outgoing.reset();
    note_buffer_use(conn);
}

// Anyone may have set the two fields to anything.
void seat::note_buffer_use(const connection& conn) {
    if (outgoing) return;
    const std::int64_t end = std::int64_t{conn.send_offset} + conn.send_length;
    const auto within = std::clamp<std::int64_t>(end, 0, connection::send_buffer_size);
    buffer_used = std::max(buffer_used, static_cast<int>(within));
    assert(buffer_used >= 0 && buffer_used <= connection::send_buffer_size);
}

void seat::release_buffer(connection& conn) {
    connection_pool::release_pages(conn.send_buffer, conn.send_buffer + buffer_used,
                                   conn.send_buffer + connection::send_buffer_size);
    buffer_used = 0;
}
