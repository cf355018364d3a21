// Moving bytes between sockets and queues in whole blocks, past hooks and buffers. Nobody can tell:
// it is done only if class and server are exactly the library's own.

#include "vindra/base/byte_queue.h"
#include "vindra/core/private/registry.h"
#include "vindra/core/seat.h"
#include "vindra/core/server_base.h"
#include "vindra/core/sockets.h"

#include <cerrno>
#include <memory>

#include <sys/socket.h>
#include <sys/uio.h>

namespace {

// For a mebibyte, where each block holds a few kibibytes less than 64, behind a part of one.
constexpr int pieces_max = connection::send_buffer_size / 65536 + 4;
static_assert(server_base::receive_buffer_size <= connection::send_buffer_size);

} // namespace

const seat::queues* server_base::queues_of_(const connection& conn) const {
    if (mover_ == nullptr || typeid(*this) != *mover_) return nullptr;
    const seat& s = seat::of(conn);
    return s.has_promise() ? s.moves : nullptr;
}

// As recv() in all but the place.
int server_base::receive_blocks_(connection& conn, base::byte_queue& target) {
    sockets::registry& known = sockets::registry::instance();
    if (known.is_read_out(conn.fd)) {
        errno = EAGAIN;
        return -1;
    }
    iovec pieces[pieces_max];
    const int described = target.reserve(pieces, pieces_max, receive_buffer_size);
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = static_cast<std::size_t>(described);
    const auto count = ::recvmsg(conn.fd, &message, 0);
    known.on_read(conn.fd, count, receive_buffer_size);
    target.commit(pieces, described, count > 0 ? static_cast<std::size_t>(count) : 0);
    return static_cast<int>(count);
}

// Blocks that are on their way out belong to the connection, as bytes in its buffer do: a queue
// that is replaced meanwhile loses the same. Below a few pages copying is cheaper.
bool server_base::take_blocks_(connection& conn) {
    constexpr std::size_t handed_over_min = 4096;
    seat& s = seat::of(conn);
    s.outgoing.reset();
    const seat::queues* const queues = queues_of_(conn);
    base::byte_queue* const source = queues != nullptr ? queues->source(conn) : nullptr;
    if (source == nullptr || source->size() < handed_over_min) return false;

    s.outgoing = std::make_unique<base::byte_queue>();
    s.outgoing->splice(*source, connection::send_buffer_size);
    int none = 0;
    conn.more = conn.on_send(conn.send_buffer, 0, &none);
    conn.send_length = static_cast<int>(s.outgoing->size());
    return true;
}

int server_base::send_waiting_(connection& conn) {
    seat& s = seat::of(conn);
    if (!s.outgoing) return send(&conn, conn.send_buffer + conn.send_offset, conn.send_length);

    // Somebody has set the field, or the connection has come from another server.
    const bool as_taken = s.outgoing->size() == static_cast<std::size_t>(conn.send_length);
    if (as_taken && queues_of_(conn) != nullptr) return send_blocks_(conn, *s.outgoing);
    s.copy_outgoing(conn);
    return send(&conn, conn.send_buffer + conn.send_offset, conn.send_length);
}

// With a session, block by block through the hook.
int server_base::send_blocks_(connection& conn, base::byte_queue& blocks) {
    iovec pieces[pieces_max];
    int count = 0;
    if (conn.ssl != nullptr) {
        blocks.gather(pieces, 1);
        count = send(&conn, static_cast<char*>(pieces[0].iov_base),
                     static_cast<int>(pieces[0].iov_len));
    } else {
        msghdr message{};
        message.msg_iov = pieces;
        message.msg_iovlen = static_cast<std::size_t>(blocks.gather(pieces, pieces_max));
        count = static_cast<int>(::sendmsg(conn.fd, &message, 0));
        if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) sockets::filled(conn.fd);
    }
    if (count > 0) blocks.drop(static_cast<std::size_t>(count));
    return count;
}
