#pragma once

#include "vindra/base/export.h"
#include "vindra/core/seat.h"

#include <cstddef>
#include <cstdint>
#include <ctime>

#if !defined(__GXX_RTTI)
#error "vindra tells classes of connections apart at run time: compile without -fno-rtti"
#endif

class abstract_server;

/// One socket, and everything that lives exactly as long as it.
///
/// Owned by the server in whose list it stands; that server alone reads, writes, times out
/// and deletes it. A connection never touches its socket: it is handed what arrived and is
/// asked for what is to leave. Hooks run on the loop's thread and never nest.
///
/// Make connections with `new`: their storage comes from a pool, is a little over 1 MiB and
/// is all zero before the constructor runs, so a field without an initialiser reads zero.
class VINDRA_API connection {
public:
    /// Bytes of `send_buffer`: the most that one on_send() can hand over.
    static constexpr int send_buffer_size = 1048576;

    connection();
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    /// Bytes have arrived: `length` > 0 of them.
    ///
    /// Called by the server, any number of times a turn. `data` is a buffer that every
    /// connection shares, valid during the call only: copy what you keep. May queue output
    /// for on_send(), change `timeout` and add connections to a server; must not block, close
    /// `fd`, or delete a connection.
    virtual void on_recv(char* data, int length) = 0;

    /// The send buffer is empty: what is to be sent next?
    ///
    /// Called by the server once a turn while nothing is waiting to be written. Put up to
    /// `capacity` bytes into `buffer` (this connection's own `send_buffer`) and store their
    /// number in `*length`, which is 0 on entry; leave it so when there is nothing now. Return
    /// true to stay open, false to be ended as soon as those bytes are written, or at once if
    /// there are none. Must not block or delete a connection.
    virtual bool on_send(char* buffer, int capacity, int* length) = 0;

    /// Runs after the socket is closed and the server's on_remove() has returned.
    virtual ~connection();

    /// Makes the server call on_send() in the current send pass, or in the next one if this pass is
    /// already beyond this connection. Only a quiet connection needs it; see quiet_when().
    void wake();

    /// The connection that a server is handling at this moment; null outside an update.
    static connection*& selected();

    /// Zeroed storage from the pool of connection slots, and its return.
    static void* operator new(std::size_t size);
    static void operator delete(void* storage, std::size_t size);

    /// Socket descriptor; -1 until one is attached. The server closes it.
    int fd = -1;

    /// Peer's IPv4 address in network byte order; 0 for an outgoing connection.
    std::uint32_t address = 0;

    /// Peer's port in host byte order; 0 for an outgoing connection.
    int port = 0;

    /// Second of the last activity, as time() counts them. Set back by tests to show a
    /// time-out without waiting for one.
    std::time_t last_active;

    /// Server that accepted this connection, which outlives it; null for an outgoing one.
    abstract_server* server = nullptr;

    /// Session handle of the transport, owned by the server's hooks; null on a plain socket.
    void* ssl = nullptr;

    /// Bytes of `send_buffer` still to be written, and where the first of them stands.
    int send_length = 0;
    int send_offset = 0;

    /// The last answer of on_send(): false once this connection ends when its buffer drains.
    bool more = false;

    /// Bytes on their way out: [send_offset, send_offset + send_length). Only on_send() writes
    /// here. A server clears it only for a class that has called quiet_when(). The constructor
    /// leaves it alone, so a page that nobody writes to is never touched.
    char send_buffer[send_buffer_size];

    /// Seconds without activity after which the server ends this connection; it does so once
    /// *more* than that many have passed by the clock. Negative means never.
    int timeout = 10;

protected:
    /// Call this in the constructor of a class, `Own`, that keeps two promises: on_send() gives
    /// nothing while `is_quiet(conn)` is true, until bytes arrive or wake() is called; and it never
    /// writes past the bytes it reports, nor expects to find there what it wrote before.
    ///
    /// A server with many connections then stops calling on_send() of a quiet one, and clears its
    /// buffer once it has sent nothing for a while. `is_quiet` is a lambda without captures that
    /// takes a `const Own&`. A derived class is asked every turn unless it makes the call itself.
    template <typename Own, typename Test>
    void quiet_when(Test /*is_quiet*/) {
        seat_.promised_by = &class_of<Own>();
        seat_.moves = nullptr;
        seat_.is_quiet = [](const connection& conn) {
            return Test{}(static_cast<const Own&>(conn));
        };
    }

private:
    friend struct seat;

    seat seat_;
};

inline seat& seat::of(connection& conn) {
    return conn.seat_;
}

inline const seat& seat::of(const connection& conn) {
    return conn.seat_;
}
