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

/// Sets `fd`, a TCP socket, in all(). A short TCP read means the socket is empty, so the read that
/// would return EAGAIN is skipped. Never use it for another kind of socket: bytes or messages may
/// be left unread there.
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

/// Makes the next wait return at once: there is work that no socket will report.
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
/// end of the process. -1 if none can be had.
///
/// Get the number on the loop's thread. When the result is visible, another thread calls
/// eventfd_write(bell, 1). The current wait, or the next one, ends at once, and so does the one
/// after it: a walk may skip a connection and visit it in the next turn only. select_all() reads
/// it; read it nowhere else.
VINDRA_API int bell();

/// A hint: a read from `fd` has just met EAGAIN, so there is nothing more until the kernel reports
/// an event. Saves the next wait a query. Never give it after another error: the end of a refused
/// connection shows only in a second read, and raises no event.
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
