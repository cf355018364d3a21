#pragma once

#include "vindra/base/export.h"
#include "vindra/core/roster.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <typeinfo>

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

    /// Has on_send() called in the send pass under way, or in the next one where that has come
    /// past this connection. Only a connection that rests needs it; see may_rest_as().
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

    /// Bytes on their way out: [send_offset, send_offset + send_length). Written to by on_send()
    /// alone, and by no server, but for a class that has called may_rest_as(). Not cleared by
    /// the constructor, so that a page nobody writes to is never touched.
    char send_buffer[send_buffer_size];

    /// Seconds without activity after which the server ends this connection; it does so once
    /// *more* than that many have passed by the clock. Negative means never.
    int timeout = 10;

protected:
    /// For the constructor of a class whose on_send() calls rest() when it has nothing to give
    /// until new input arrives or wake() is called, writes nothing into the buffer behind
    /// the bytes that it gives, and expects nothing of what stood there before. A busy server then
    /// leaves connections of exactly that class, `own_class` being its typeid, alone meanwhile, and
    /// clears the buffer of one that has sent nothing for a while. Those of classes derived from it
    /// are asked every turn and keep what they wrote, whatever their base says, unless they call
    /// this too.
    void may_rest_as(const std::type_info& own_class) { resting_class_ = &own_class; }

    /// For on_send(), together with an answer of true and no bytes.
    void rest() { rests_ = true; }

private:
    friend class roster;
    friend class server_base;

    void begin_asking_() {
        rests_ = false;
        if (!asked_) find_out_whether_it_may_rest_();
    }
    void find_out_whether_it_may_rest_();
    void prefetch_() const;
    void note_buffer_use_();
    void trim_send_buffer_();

    roster::entry roster_entry_;
    const std::type_info* resting_class_ = nullptr;
    bool asked_ = false;
    /// This object is of the class that called may_rest_as() last. Known once it is asked.
    bool may_rest_ = false;
    /// The last on_send() has called rest().
    bool rests_ = false;
    /// How far `send_buffer` has been filled since its pages were last given back, as far as
    /// `send_offset` and `send_length` have shown.
    int send_buffer_used_ = 0;
};
