#include "vindra/core/sockets.h"

#include "vindra/base/print.h"
#include "vindra/core/private/registry.h"

#include <cerrno>
#include <csignal>
#include <cstdio>

#include <sys/eventfd.h>
#include <unistd.h>

bool ignore_sigpipe() {
    std::signal(SIGPIPE, SIG_IGN);
    return true;
}

namespace {

[[maybe_unused]] const bool ignore_sigpipe_called = ignore_sigpipe();

} // namespace

namespace sockets {

descriptor_set* all() {
    return &registry::instance().all;
}
void watch_tcp(int fd) {
    all()->set(fd);
    if (fd >= 0) registry::instance().note_tcp(fd);
}
descriptor_set* ready() {
    return &registry::instance().ready;
}
descriptor_set* readable() {
    return &registry::instance().readable;
}
descriptor_set* writable() {
    return &registry::instance().writable;
}
descriptor_set* errors() {
    return &registry::instance().errors;
}
int& num_ready() {
    return registry::instance().num_ready;
}

void drained(int fd) {
    registry::instance().drained(fd);
}
void hurry() {
    registry::instance().hurry();
}
void prepare_to_keep() {
    registry::instance().prepare_to_keep();
}
void filled(int fd) {
    registry::instance().filled(fd);
}

namespace {

// Idle work and time-outs come round this often without traffic.
constexpr int wait_milliseconds = 100;

// The descriptor that bell() gave out; never closed, so that a thread may ring to the very end.
int bell_fd = -1;

// What a thread has done may be for a connection that this turn's walk skips: the next wait returns
// at once, too.
void hear_bell() {
    if (!readable()->test(bell_fd)) return;
    eventfd_t rings = 0;
    eventfd_read(bell_fd, &rings);
    drained(bell_fd);
    hurry();
}

} // namespace

int bell() {
    if (bell_fd < 0) {
        bell_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        all()->set(bell_fd);
    }
    return bell_fd;
}

void select_all() {
    // Lines are written once a turn, and none waits while the process sleeps.
    std::fflush(stdout);

    if (registry::instance().wait(wait_milliseconds)) return hear_bell();
    if (errno == EINTR) return;

    const int error = errno;
    base::printf("select() failed! %d\n", error);
    errno = error;
}

void close(int fd) {
    registry::instance().forget(fd);
    ::close(fd);
}

} // namespace sockets
