#pragma once

#include "vindra/base/export.h"
#include "vindra/base/linkedlist.h"
#include "vindra/core/abstract_server.h"
#include "vindra/core/connection.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <typeinfo>

class roster;

/// A listening socket and the connections it drives: all of a server that does not depend on
/// the class of its connections. Derive from server<T>, which adds that.
///
/// One turn, update(), does in this order:
///
///     first pass     each connection: time-out, error, read or write, the first that applies
///     accept         one client
///     send pass      each connection with nothing to write: on_send()
///     status line    every six seconds at most
///
/// A connection that directly follows one removed in a pass is skipped by that pass and
/// visited in the next turn.
///
/// Hooks run inside update() and stop(). They may add connections to the list; those are
/// visited in the same pass if it has not ended. They may take one out with its pop() or remove(),
/// as anyone may between two turns, but never the one that the hook is about; whoever takes it out
/// owns it then. A connection is driven by the server in whose list it stands, by the number in its
/// `fd`, and by nobody while it stands in none.
class VINDRA_API server_base : public abstract_server {
public:
    /// Bytes of the buffer that received blocks are handed over in.
    static constexpr int receive_buffer_size = 1048576;

    /// A stopped server. `port` 0 makes it a disabled one: it never listens, yet drives the
    /// connections that others put into its list.
    server_base(int port, bool localhost_only);

    /// Ends every connection, with the hooks of this class: those of a derived one are gone.
    ~server_base() noexcept(false) override;

    /// Opens the listening socket and has it watched. True for a disabled server; false, with
    /// the reason printed, when it listens already or the socket could not be opened.
    bool start() override;

    /// Closes the listening socket and ends every connection.
    void stop();

    /// Accepts one client that waits. False only when accept() itself failed; a client that
    /// is refused (no connection made, or on_accept() false) is closed without a word.
    bool accept_connection();

    /// Closes the socket of `conn`, calls on_remove() and deletes it. Does not take it out of
    /// the list: do that first.
    ///
    /// Where `ssl` is set, the number of the socket stays taken, by a descriptor that refuses all
    /// reading and writing, until on_remove() has returned: what a TLS library writes to it as
    /// its last word reaches no file that was opened meanwhile.
    void end_connection(connection* conn);

    /// Makes the object for a client just accepted, with `new`; null refuses the client.
    /// `peer_address` is its IPv4 address in network byte order. The server owns the result.
    virtual connection* create_connection(int peer_address) = 0;

    /// Called once for each new client, its socket and addresses filled in, before the
    /// connection enters the list. False refuses it: it is deleted, and on_remove() is not
    /// called. True here.
    virtual bool on_accept(connection* conn);

    /// The last call about `conn`, whose socket is closed already; it is deleted next. Undo
    /// here what on_accept() did. Called too for connections that others put into the list.
    virtual void on_remove(connection* conn);

    /// Moves up to `length` bytes from the socket of `conn` into `buffer`. Returns their number,
    /// 0 when the peer has closed, negative when nothing can be had now or an error stands.
    /// Called until it gives 0 or less. Here recv(), except that within one visit a TCP read that
    /// brought less than `length` is the last: the next call then gives -1 and EAGAIN without
    /// asking the kernel.
    virtual int recv(connection* conn, char* buffer, int length);

    /// Moves up to `length` > 0 bytes from `buffer` to the socket of `conn`. Returns their
    /// number, or 0 or less when nothing can be moved now or an error stands. Here a plain
    /// send(), with the hint that sockets::filled() takes.
    virtual int send(connection* conn, char* buffer, int length);

    /// Listening socket; -1 while there is none.
    int fd = -1;

    /// Every connection this server drives, clients and backends alike, in order of arrival.
    /// The server deletes them. update() uses the list's cursor; outside update() it is stale.
    base::linkedlist<connection*> connections;

    /// Port to listen on; 0 when disabled.
    int port;

    /// True to listen on 127.0.0.1 alone.
    bool localhost_only;

    /// Second of the last status check; 0 at first.
    std::time_t last_report = 0;

    /// Count of the last status line; -1 at first, so that one is printed even for none.
    int last_count = -1;

protected:
    /// update() over a receive buffer of receive_buffer_size bytes.
    void update_with(char* receive_buffer);

    /// Up to this many connections are all visited in every turn. Beyond, quiet ones are visited
    /// once a second. A test sets it to compare the two.
    int plain_walk_max = 32;

    /// For constructors. `own` is a class of the library whose recv() and send() are used as they
    /// are: a server of exactly that class may move large inputs and outputs of the library's
    /// relays without copying them. Returns true.
    bool moves_as(const std::type_info& own) {
        mover_ = &own;
        return true;
    }

private:
    /// What end_connection() does about the number of a connection.
    class closing_;

    /// Calls `visit` for each connection awake.
    template <typename Visit>
    void walk_(Visit visit);
    void wake_for_turn_(std::time_t now);
    /// Those whose bits in the results of the wait a hook has set.
    void wake_marked_();
    void rebuild_behind_visited_();
    void restart_after_failed_wait_();
    /// A connection's part of the first pass.
    void service_(connection& conn, char* receive_buffer, std::time_t now);
    void read_(connection& conn, char* receive_buffer, std::time_t now);
    /// One read, and what the connection makes of it.
    int receive_(connection& conn, char* buffer);
    /// As recv(), to the end of that queue.
    int receive_blocks_(connection& conn, base::byte_queue& target);
    void write_(connection& conn, std::time_t now);
    /// A connection's part of the send pass.
    void ask_(connection& conn, std::time_t now);
    /// The queues that bytes of `conn` may be moved to and from directly; null if there are none.
    const seat::queues* queues_of_(const connection& conn) const;
    /// True if blocks of a queue were taken in place of on_send()'s bytes.
    bool take_blocks_(connection& conn);
    /// As send() for what waits, wherever it is.
    int send_waiting_(connection& conn);
    int send_blocks_(connection& conn, base::byte_queue& blocks);
    void leave_quiet_(connection& conn, std::time_t now);
    void remove_visited_();
    static void release_memory_(std::time_t now);
    /// The line that counts connections.
    void report_(std::time_t now);

    /// Whom a turn visits. With at most `plain_walk_max` connections everyone is awake.
    std::unique_ptr<roster> roster_;
    /// The class that has called moves_as() last.
    const std::type_info* mover_ = nullptr;
    /// The connection in hand; null outside a visit and once it is removed.
    connection* visited_ = nullptr;
    /// registry::marks() as far as they have been acted on.
    std::uint32_t marks_seen_ = 0;
    /// Second of the last turn that visited every connection.
    std::time_t last_full_turn_ = 0;
};
