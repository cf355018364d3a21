#pragma once

#include "vindra/base/export.h"

/// What a main loop drives: something that is started once and updated after every wait.
///
/// Destructors may throw (a std::string that says which function of the TLS library is
/// missing), so that the handler around the servers' scope can print it.
class VINDRA_API abstract_server {
public:
    abstract_server() = default;
    abstract_server(const abstract_server&) = delete;
    abstract_server& operator=(const abstract_server&) = delete;
    virtual ~abstract_server() noexcept(false);

    /// Begins to listen. Called once, before the first wait. False when that failed, with the
    /// reason printed.
    virtual bool start() = 0;

    /// One turn: called after every wait.
    virtual void update() = 0;

    /// Called after a wait that lasted its tenth of a second and found nothing ready, by the
    /// loop that drives several servers. Must not block. Does nothing here.
    virtual void on_idle();

    /// Starts this server, then waits and updates until SIGINT; prints "Shutting down..." on
    /// the way out. Returns at once when start() fails. Replaces the handler of SIGINT and
    /// never calls on_idle(). A SIGINT once taken ends every later run of this form as well.
    void run();

    /// Runs the servers of a null-terminated array in that order until SIGINT, as run() does
    /// for one, with on_idle() after each wait that found nothing ready. At the first one that
    /// does not start prints "Failed to start server(s)." and returns; those already started
    /// are left to their owner to end.
    static void run(abstract_server** servers);
};
