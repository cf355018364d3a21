#pragma once

#include "vindra/base/byte_queue.h"
#include "vindra/base/linkedlist.h"

#include <cstdint>
#include <memory>
#include <typeinfo>

class connection;

/// typeid(T). Not defined without RTTI, so that connection.h says what is missing in one line.
template <typename T>
const std::type_info& class_of();

#if defined(__GXX_RTTI)
template <typename T>
const std::type_info& class_of() {
    return typeid(T);
}
#endif

/// What the server that drives a connection keeps of it. For server_base and its roster alone.
///
/// A seat is empty until a roster enrols its connection. A roster believes only what it has
/// written itself: a connection that was moved to another list, or taken out, or whose roster is
/// gone, is unknown to all others.
struct seat {
    /// Tells whether a connection has nothing to hand over.
    using quiet_test = bool (*)(const connection&);

    /// What a class of the library's own tells of its queues, so that a server can move bytes in
    /// whole blocks, past the class's hooks and past buffers. The queues belong to the connection,
    /// and are asked for anew for each read and each output.
    struct queues {
        /// The queue from which on_send() takes; null while on_send() does anything else.
        base::byte_queue* (*source)(connection&);
        /// The queue to which on_recv() appends; null while on_recv() does anything else.
        base::byte_queue* (*target)(connection&);
        /// What on_recv() does besides: `length` bytes have been appended.
        void (*arrived)(connection&, int length);
    };

    /// The seat of a connection.
    static seat& of(connection& conn);
    static const seat& of(const connection& conn);

    /// Finds out, once, whether the class of `conn` has called quiet_when() itself. Its constructor
    /// cannot tell.
    void resolve_promise(const connection& conn);

    /// True if the connection's own class has called quiet_when(); see resolve_promise().
    bool has_promise() const { return promised_by == nullptr && is_quiet != nullptr; }

    /// Bytes at the end of the buffer of `conn` that are known to be untouched.
    int untouched_bytes(const connection& conn);

    /// Puts the bytes of `outgoing` where those of any other connection are, for whoever looks
    /// there.
    void copy_outgoing(connection& conn);

    /// Takes into account what the buffer of `conn` holds at this moment.
    void note_buffer_use(const connection& conn);

    /// Returns the pages of the buffer of `conn` to the kernel.
    void release_buffer(connection& conn);

    /// The enrolment that wrote this; 0 for none. No two enrolments have the same number.
    std::uint64_t enrolment = 0;
    /// Rises along the list.
    std::uint64_t rank = 0;
    /// The list's node before this connection's.
    base::linkedlist<connection*>::node* before = nullptr;

    /// The class that has called quiet_when() last, until resolve_promise(), and the test that it
    /// gave. Derived classes have not made its promise.
    const std::type_info* promised_by = nullptr;
    quiet_test is_quiet = nullptr;
    /// Null for all but a few classes of the library's own, whose tables live as long as the
    /// process. Holds as the promise does.
    const queues* moves = nullptr;
    /// Blocks of that queue that are on their way out, instead of bytes in `send_buffer`: as many
    /// bytes as `send_length`. Null when there are none.
    std::unique_ptr<base::byte_queue> outgoing;

    /// Descriptor at the time of the enrolment; negative for none.
    int fd = -1;
    /// How far `send_buffer` has been filled since its pages were last released, as far as
    /// `send_offset` and `send_length` have shown.
    int buffer_used = 0;
    /// The roster visits the connection in every turn.
    bool awake = false;
    /// How many more small reads may go straight into a queue.
    std::uint8_t direct_reads = 0;
    /// A first pass has visited the connection since it was enrolled.
    bool serviced = false;
};
