#include "vindra/core/abstract_server.h"

#include "vindra/base/print.h"
#include "vindra/core/private/registry.h"
#include "vindra/core/sockets.h"

#include <csignal>
#include <cstdio>

abstract_server::~abstract_server() noexcept(false) = default;

void abstract_server::on_idle() {}

namespace {

// The one line that is written before the servers are taken down, which may take its time.
void announce_end() {
    base::puts("Shutting down...");
    std::fflush(stdout);
}

} // namespace

void abstract_server::run() {
    static volatile std::sig_atomic_t stopped = 0;
    struct local {
        static void on_signal(int) { stopped = 1; }
    };
    std::signal(SIGINT, local::on_signal);

    if (!start()) return;
    while (stopped == 0) {
        sockets::select_all();
        update();
    }
    announce_end();
}

void abstract_server::run(abstract_server** servers) {
    static volatile std::sig_atomic_t stopped = 0;
    struct local {
        static void on_signal(int) { stopped = 1; }
    };
    std::signal(SIGINT, local::on_signal);

    for (abstract_server** s = servers; *s != nullptr; ++s) {
        if ((*s)->start()) continue;
        base::puts("Failed to start server(s).");
        std::fflush(stdout);
        return;
    }
    while (stopped == 0) {
        sockets::select_all();
        for (abstract_server** s = servers; *s != nullptr; ++s) (*s)->update();
        if (!sockets::registry::instance().idle()) continue;
        for (abstract_server** s = servers; *s != nullptr; ++s) (*s)->on_idle();
    }
    announce_end();
}
