#pragma once

#include "vindra/base/export.h"

#include <cstdint>
#include <functional>
#include <initializer_list>

class abstract_server;

/// Timers, calls from other threads, and a main loop that can be told to end.
///
/// All but post() and stop() belongs to the loop's thread. Functions are called after a wait,
/// before the servers are updated: they may do what hooks may, and set up or cancel further calls.
/// They must not block or throw.
namespace loop {

/// Names a call that after() or every() has set up. Never 0, and never used again.
using call = std::uint64_t;

/// Calls `f` once, as soon as that many milliseconds have passed.
VINDRA_API call after(int milliseconds, std::function<void()> f);

/// Calls `f` each time that many milliseconds have passed, 1 at least. When the loop comes late,
/// the calls that were missed are left out.
VINDRA_API call every(int milliseconds, std::function<void()> f);

/// Calls that one no more, also from within it. False where there is nothing left to call.
VINDRA_API bool cancel(call which);

/// Has the loop's thread call `f`, in the order of the posts; wakes the loop. From any thread, at
/// any time. What is posted when the loop has ended is kept for the next one, and dropped at the
/// end of the process.
VINDRA_API void post(std::function<void()> f);

/// Has run() return after the turn in progress, or at once where it is called next. From any
/// thread.
VINDRA_API void stop();

/// Has that signal call stop(): `loop::stop_on(SIGTERM)`. Replaces its handler.
VINDRA_API void stop_on(int signal);

/// Starts the servers in that order, then waits and updates them until stop() or SIGINT, with
/// on_idle() as abstract_server::run() calls it. True after "Shutting down...". False, after
/// "Failed to start server(s).", where one could not be started. Connections and those servers that
/// have started are left to their owner, who may call it again.
VINDRA_API bool run(std::initializer_list<abstract_server*> servers);

/// Makes the calls that are due. For a program with a loop of its own, or with that of
/// abstract_server::run(): call it after each wait, on the thread of the loop. run() does so
/// itself.
VINDRA_API void make_calls();

} // namespace loop
