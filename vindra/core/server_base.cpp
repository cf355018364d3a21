#include "vindra/core/server_base.h"

#include "vindra/base/byte_queue.h"
#include "vindra/base/print.h"
#include "vindra/core/private/registry.h"
#include "vindra/core/private/roster.h"
#include "vindra/core/seat.h"
#include "vindra/core/sockets.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <memory>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

server_base::server_base(int listen_port, bool only_localhost)
    : port(listen_port), localhost_only(only_localhost),
      roster_(std::make_unique<roster>(connections)) {}

server_base::~server_base() noexcept(false) {
    stop();
}

bool server_base::start() {
    if (port == 0) return true;
    if (fd != -1) {
        base::puts("server already started");
        return false;
    }
    if (!sockets::listen(fd, localhost_only, port)) return false;
    sockets::all()->set(fd);
    return true;
}

void server_base::stop() {
    if (port != 0) {
        sockets::close(fd);
        fd = -1;
    }
    while (connections.count >= 1) end_connection(connections.pop());
}

// Closes the socket at once. The number of one with a session is handed out again only when this
// ends: the session still knows it, and will write its close alert there.
class server_base::closing_ {
public:
    explicit closing_(const connection& conn) {
        if (conn.ssl != nullptr && sockets::registry::instance().close_but_keep(conn.fd)) {
            kept_ = conn.fd;
        } else {
            sockets::close(conn.fd);
        }
    }
    closing_(const closing_&) = delete;
    closing_& operator=(const closing_&) = delete;
    ~closing_() {
        if (kept_ >= 0) sockets::close(kept_);
    }

private:
    int kept_ = -1;
};

void server_base::end_connection(connection* conn) {
    // Deleted behind the hook, even one that throws.
    const std::unique_ptr<connection> owned(conn);
    const closing_ socket(*conn);
    // NOLINTNEXTLINE(clang-analyzer-optin.cplusplus.VirtualCall): so the destructor's header says.
    on_remove(conn);
}

bool server_base::accept_connection() {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    const int client =
        accept4(fd, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (client < 0) {
        base::puts("accept() failed");
        return false;
    }

    connection* conn = create_connection(static_cast<int>(peer.sin_addr.s_addr));
    if (conn == nullptr) {
        sockets::close(client);
        return true;
    }
    conn->port = ntohs(peer.sin_port);
    conn->fd = client;
    conn->address = peer.sin_addr.s_addr;
    conn->server = this;

    if (on_accept(conn)) {
        connections.add(conn);
        sockets::all()->set(client);
        // As the listener, which may be another's, of any kind.
        sockets::registry& known = sockets::registry::instance();
        if (known.is_tcp(fd)) known.note_tcp(client);
        if (conn->ssl != nullptr) known.prepare_to_keep();
    } else {
        delete conn;
        sockets::close(client);
    }
    return true;
}

bool server_base::on_accept(connection* /*conn*/) {
    return true;
}

void server_base::on_remove(connection* /*conn*/) {}

int server_base::recv(connection* conn, char* buffer, int length) {
    sockets::registry& known = sockets::registry::instance();
    if (known.is_read_out(conn->fd)) {
        errno = EAGAIN;
        return -1;
    }
    const auto count = ::recv(conn->fd, buffer, static_cast<std::size_t>(length), 0);
    known.on_read(conn->fd, count, length);
    return static_cast<int>(count);
}

int server_base::send(connection* conn, char* buffer, int length) {
    const auto count = ::send(conn->fd, buffer, static_cast<std::size_t>(length), 0);
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) sockets::filled(conn->fd);
    return static_cast<int>(count);
}

void server_base::update_with(char* receive_buffer) {
    if (sockets::num_ready() < 0) return restart_after_failed_wait_();

    const std::time_t now = std::time(nullptr);
    wake_for_turn_(now);
    walk_([&](connection& conn) {
        service_(conn, receive_buffer, now);
        wake_marked_();
    });

    if (port != 0 && sockets::readable()->test(fd) && !accept_connection()) {
        stop();
        start();
    }

    walk_([&](connection& conn) { ask_(conn, now); });
    report_(now);
    release_memory_(now);
    connection::selected() = nullptr;
}

// errno is the wait's, and the servers updated after this one look at it too.
void server_base::restart_after_failed_wait_() {
    const int error = errno;
    if (error != EINTR) {
        stop();
        start();
    }
    errno = error;
}

// With many connections most turns visit only those that have something to do. Once a second
// everyone is visited: time-outs expire, and fields changed from outside are noticed.
void server_base::wake_for_turn_(std::time_t now) {
    const sockets::registry& found = sockets::registry::instance();
    marks_seen_ = found.marks();
    const bool few = connections.count <= plain_walk_max;
    const bool everyone = few ? roster_->has_resting() : now != last_full_turn_ || found.idle();
    if (everyone || !roster_->in_use() || (roster_->has_resting() && !roster_->wake_ready(fd))) {
        roster_->rebuild();
        last_full_turn_ = now;
    }
}

// A hook has set bits in the results of the wait. Whoever they are about is visited in this pass,
// unless it is already beyond that connection.
void server_base::wake_marked_() {
    const std::uint32_t marks = sockets::registry::instance().marks();
    if (marks == marks_seen_ || !roster_->has_resting() || !roster_->in_use()) return;
    marks_seen_ = marks;
    if (!roster_->wake_ready(fd)) rebuild_behind_visited_();
}

// For a pass in which the list has changed, or numbers have. The pass goes on behind the visited
// connection, or behind the skipped one if the visited one was removed.
void server_base::rebuild_behind_visited_() {
    roster_->rebuild();
    roster_->resume_behind(visited_ != nullptr ? seat::of(*visited_).before->next
                                               : connections.next);
}

namespace {

// Connections lie a mebibyte apart, so each is a new page with its first and its last fields.
// Fetching those of the next one ahead saves a tenth of a busy turn.
void prefetch(const connection& conn) {
    __builtin_prefetch(&conn);
    __builtin_prefetch(&conn.timeout);
    __builtin_prefetch(&seat::of(conn));
}

} // namespace

// In the order of the list, whose cursor stands before the connection in hand. A removal clears the
// cursor. The walk resumes behind the next node, whose connection is skipped, and ends where there
// is none.
template <typename Visit>
void server_base::walk_(Visit visit) {
    if (!roster_->in_use()) roster_->rebuild();
    const connection* skipped = nullptr;
    roster_->begin_pass();
    while (connection* conn = roster_->next()) {
        if (const connection* const next = roster_->upcoming()) prefetch(*next);
        if (conn == skipped) continue;
        connections.prev = seat::of(*conn).before;
        connections.next = nullptr;
        connection::selected() = visited_ = conn;
        visit(*conn);
        if (visited_ == nullptr && connections.next == nullptr) break;
        if (!roster_->in_use()) {
            rebuild_behind_visited_();
        } else if (visited_ == nullptr) {
            skipped = connections.next->value;
        }
    }
    roster_->end_pass();
}

void server_base::service_(connection& conn, char* receive_buffer, std::time_t now) {
    const sockets::registry& found = sockets::registry::instance();
    seat::of(conn).serviced = true;
    if (conn.timeout >= 0 && now - conn.last_active > conn.timeout) {
        base::printf("%d has timed out.\n", conn.fd);
        remove_visited_();
    } else if (found.errors.test(conn.fd)) {
        base::printf("%d has errors.\n", conn.fd);
        remove_visited_();
    } else if (found.readable.test(conn.fd)) {
        read_(conn, receive_buffer, now);
    } else if (found.writable.test(conn.fd)) {
        write_(conn, now);
    }
}

void server_base::read_(connection& conn, char* receive_buffer, std::time_t now) {
    int count = 0;
    {
        const sockets::registry::reading reads(conn.fd);
        while ((count = receive_(conn, receive_buffer)) > 0) conn.last_active = now;
    }
    if (count == 0) remove_visited_();
}

// Behind a large read, the next ones go straight to where on_recv() would copy them, until a few
// were small. For a small one, making room there costs more than the copy; but the last read of a
// large answer is often small, and the first one of the next answer is not.
int server_base::receive_(connection& conn, char* buffer) {
    constexpr int much = 16384;
    constexpr std::uint8_t few = 4;
    seat& s = seat::of(conn);
    // A session cannot write into more than one piece.
    const bool direct = s.direct_reads > 0 && conn.ssl == nullptr;
    const seat::queues* const queues = direct ? queues_of_(conn) : nullptr;
    base::byte_queue* const target = queues != nullptr ? queues->target(conn) : nullptr;
    const int count = target != nullptr ? receive_blocks_(conn, *target)
                                        : recv(&conn, buffer, receive_buffer_size);
    if (count <= 0) return count;

    if (count >= much) {
        s.direct_reads = few;
    } else if (s.direct_reads > 0) {
        --s.direct_reads;
    }
    if (target != nullptr) {
        queues->arrived(conn, count);
    } else {
        conn.on_recv(buffer, count);
    }
    return count;
}

void server_base::write_(connection& conn, std::time_t now) {
    seat::of(conn).note_buffer_use(conn);
    while (conn.send_length > 0) {
        const int count = send_waiting_(conn);
        if (count <= 0) break;
        conn.send_length -= count;
        conn.send_offset += count;
    }
    if (conn.send_length == 0) seat::of(conn).outgoing.reset();
    conn.last_active = now;
    if (!conn.more && conn.send_length == 0) remove_visited_();
}

void server_base::ask_(connection& conn, std::time_t now) {
    if (conn.send_length == 0) {
        seat::of(conn).resolve_promise(conn);
        if (!take_blocks_(conn))
            conn.more =
                conn.on_send(conn.send_buffer, connection::send_buffer_size, &conn.send_length);
        if (conn.send_length > 0) conn.send_offset = 0;
    }
    if (conn.send_length != 0) {
        seat::of(conn).note_buffer_use(conn);
        sockets::ready()->set(conn.fd);
    } else if (!conn.more) {
        remove_visited_();
    } else {
        leave_quiet_(conn, now);
    }
}

// A connection that no first pass has visited, because it is new or was skipped, may be due to time
// out and is visited once more. A buffer that has grown is released only after a while: at full
// speed, fetching its pages anew would cost more than the copies.
void server_base::leave_quiet_(connection& conn, std::time_t now) {
    constexpr int kept_bytes_max = 4096;
    constexpr std::time_t kept_seconds = 2;
    seat& s = seat::of(conn);
    if (!s.has_promise()) return;
    if (s.buffer_used > kept_bytes_max && now - conn.last_active >= kept_seconds)
        s.release_buffer(conn);

    if (s.serviced && connections.count > plain_walk_max && s.is_quiet(conn)) roster_->rest();
}

void server_base::remove_visited_() {
    // A hook may have moved the cursor, and taken out others.
    if (!roster_->in_use()) rebuild_behind_visited_();
    assert(visited_ != nullptr);
    connection* const conn = std::exchange(visited_, nullptr);
    connections.prev = seat::of(*conn).before;
    roster_->strike();
    // The one behind it is skipped, and may have something to send.
    sockets::hurry();
    connections.remove();
    end_connection(conn);
}

// Once a second for the process. Called for each server, it would drop what the servers before it
// have needed in the same turn.
void server_base::release_memory_(std::time_t now) {
    static std::time_t last = 0;
    if (now != last) base::byte_queue::release_pages();
    last = now;
}

void server_base::report_(std::time_t now) {
    if (now - last_report <= 5) return;
    if (connections.count != 0 || last_count != 0)
        base::printf("%d connections\n", connections.count);
    last_count = connections.count;
    last_report = now;
}
