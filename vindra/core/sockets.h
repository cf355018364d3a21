#pragma once

#include "vindra/base/export.h"
#include "vindra/core/descriptor_set.h"

/// Writes to a peer that is gone fail with EPIPE instead of ending the process. Called once,
/// before main() runs. Returns true.
VINDRA_API bool ignore_sigpipe();

/// Every socket of the process, and the one wait on all of them.
///
/// The sets live from their first use to the end of the process. One thread uses them; others
/// can wake it through bell().
namespace sockets {

/// Every descriptor that the process watches. Set a socket when it is open, and leave it to
/// close() to take it out.
VINDRA_API descriptor_set* all();

/// Sets `fd`, a TCP socket, in all(). Of such a socket a read that brings less than it has room
/// for leaves nothing behind, which saves the read that would only find that out. Must not be used
/// for a socket of another kind, where it may leave bytes or messages unread.
VINDRA_API void watch_tcp(int fd);

/// Orders for the coming wait alone: descriptors that want to write, in all() or not. Empty
/// after every wait, so whoever still has something to write marks itself again.
VINDRA_API descriptor_set* ready();

/// Result of the last wait: members of all() with bytes, an end of stream, a hang-up or an
/// error to be read.
VINDRA_API descriptor_set* readable();

/// Result of the last wait: members of ready() that take bytes, or whose error shows so.
VINDRA_API descriptor_set* writable();

/// Result of the last wait: members of all() with urgent data.
VINDRA_API descriptor_set* errors();

/// Bits that the last wait set in its three results together; 0 when it timed out, negative
/// when it failed, and then errno is the wait's own until every server has been updated.
VINDRA_API int& num_ready();

/// Waits until something is ready, 100 ms at most, after writing out what stands in the
/// buffer of standard output.
///
/// A wait cut short by a signal says nothing. Any other failure prints
/// "select() failed! %d\n" with errno.
VINDRA_API void select_all();

/// The next wait only looks and does not sleep: something has been left for the next turn of
/// which no socket has news.
VINDRA_API void hurry();

/// Closes `fd` and takes its number out of all five sets.
///
/// The one way to close a descriptor that stands in a set: the kernel hands the same number
/// out again at once, and its new owner must not inherit what was found out about the old.
/// -1 is harmless. Closing it in another way leaves its number in the sets: the caller's mistake.
VINDRA_API void close(int fd);

/// Opens, once, the descriptor that stands in for closed sockets whose number has to stay taken;
/// see server_base::end_connection(). For the constructor of a server whose hooks set `ssl`: later
/// there may be no descriptor left.
VINDRA_API void prepare_to_keep();

/// A descriptor to wake the wait by: an eventfd in all(), made at the first call and kept to the
/// end of the process. -1 where there is none to be had.
///
/// Other threads get its number from the loop's and write `bell_ring` to it once what they have
/// done can be seen, in one call (eventfd_write()). The wait in progress, or the next one, then
/// ends at once, and so does the one behind it: a walk over the connections may pass one over
/// and looks at it in the next turn. select_all() empties it: read it nowhere else.
VINDRA_API int bell();

/// What is written to bell(). Smaller values ring once only.
constexpr unsigned bell_ring = 2;

/// A hint: a read from `fd` has just met EAGAIN, so there is nothing more until the kernel has
/// news of it. Saves asking again at the next wait. Never give it after another error: the
/// end of a refused connection shows only in a second read, of which there is no news.
VINDRA_API void drained(int fd);

/// The same for writing: a write to `fd` has just met EAGAIN.
VINDRA_API void filled(int fd);

/// Opens a non-blocking IPv4 socket that listens on `port` of all adapters, or of 127.0.0.1
/// alone, and stores it in `fd`; the caller sets it in all() and closes it with close().
///
/// Prints where it binds to and, on failure, why; then `fd` is -1 (or untouched, when the
/// address could not be resolved) and the result false. Several processes of one user may
/// listen on one port: the kernel spreads the clients among them.
VINDRA_API bool listen(int& fd, bool localhost_only, int port);

} // namespace sockets
