// A bare relay: what carrying bytes between two sockets costs when nothing looks at them.
//
// usage: floor LISTEN_PORT BACKEND_PORT
//
// One wait, one backend connection for each client connection, no parsing, no log. It is the
// measure beside which the servers that do look stand, not a server to be used: it believes
// that the backend is there and ends when a system call says otherwise.

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// One socket. `waiting` is what its peer has sent and the kernel would not take yet; while there
// is some, the peer is not read.
struct end {
    int fd = -1;
    end* peer = nullptr;
    std::string waiting;
    bool gone = false;
};

// Holds what a bulk transfer brings at a time and still fits the processor's second cache.
constexpr std::size_t buffer_size = 262144;

char buffer[buffer_size];
std::vector<end*> gone;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

sockaddr_in local(const char* port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(port)));
    return address;
}

int new_socket() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) fail("socket");
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    // A listener hands this one to what it accepts.
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

// The starter holds the port by a socket that shares it and never listens.
int listen_on(const sockaddr_in& address) {
    const int fd = new_socket();
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail("bind");
    if (::listen(fd, SOMAXCONN) != 0) fail("listen");
    return fd;
}

void watch(int poll, int operation, end& one, std::uint32_t events) {
    epoll_event event = {};
    event.events = events;
    event.data.ptr = &one;
    if (::epoll_ctl(poll, operation, one.fd, &event) != 0) fail("epoll_ctl");
}

void accept_client(int poll, int listener, const sockaddr_in& backend) {
    const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) fail("accept");
    // On the loopback device a connect that waits does not wait.
    const int server = new_socket();
    if (::connect(server, reinterpret_cast<const sockaddr*>(&backend), sizeof backend) != 0)
        fail("connect");

    end* const near = new end;
    end* const far = new end;
    near->fd = client;
    near->peer = far;
    far->fd = server;
    far->peer = near;
    watch(poll, EPOLL_CTL_ADD, *near, EPOLLIN);
    watch(poll, EPOLL_CTL_ADD, *far, EPOLLIN);
}

// Later events of the same wait may still name either end: the objects go when it is over.
void drop(end& one) {
    for (end* const each : {&one, one.peer}) {
        each->gone = true;
        ::close(each->fd);
        gone.push_back(each);
    }
}

bool would_block() {
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

// Carries what `from` has received; what its peer does not take waits there. So an end of stream
// is only seen when nothing waits.
void carry(int poll, end& from) {
    const ssize_t got = ::recv(from.fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (got < 0 && would_block()) return;
    if (got <= 0) return drop(from);
    const ssize_t sent =
        ::send(from.peer->fd, buffer, static_cast<std::size_t>(got), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent == got) return;
    if (sent < 0 && !would_block()) return drop(from);
    const std::size_t taken = sent < 0 ? 0 : static_cast<std::size_t>(sent);
    from.peer->waiting.assign(buffer + taken, static_cast<std::size_t>(got) - taken);
    watch(poll, EPOLL_CTL_MOD, from, 0);
    watch(poll, EPOLL_CTL_MOD, *from.peer, EPOLLIN | EPOLLOUT);
}

void send_waiting(int poll, end& to) {
    const ssize_t sent =
        ::send(to.fd, to.waiting.data(), to.waiting.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && would_block()) return;
    if (sent < 0) return drop(to);
    to.waiting.erase(0, static_cast<std::size_t>(sent));
    if (!to.waiting.empty()) return;
    watch(poll, EPOLL_CTL_MOD, to, EPOLLIN);
    watch(poll, EPOLL_CTL_MOD, *to.peer, EPOLLIN);
}

void serve(end& one, int poll, std::uint32_t events) {
    if (one.gone) return;
    if ((events & EPOLLOUT) && !one.waiting.empty()) send_waiting(poll, one);
    if (one.gone) return;
    // An end whose peer is full is not read; a reset is reported all the same.
    if (events & EPOLLIN) {
        if (one.peer->waiting.empty()) carry(poll, one);
    } else if (events & (EPOLLHUP | EPOLLERR)) {
        drop(one);
    }
}

} // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::fputs("usage: floor LISTEN_PORT BACKEND_PORT\n", stderr);
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    const sockaddr_in backend = local(arguments[2]);
    const int poll = ::epoll_create1(EPOLL_CLOEXEC);
    if (poll < 0) fail("epoll_create1");
    end listener;
    listener.fd = listen_on(local(arguments[1]));
    watch(poll, EPOLL_CTL_ADD, listener, EPOLLIN);

    while (true) {
        epoll_event events[512];
        const int found = ::epoll_wait(poll, events, 512, -1);
        if (found < 0 && errno != EINTR) fail("epoll_wait");
        for (int i = 0; i < found; ++i) {
            end& one = *static_cast<end*>(events[i].data.ptr);
            if (&one == &listener) {
                accept_client(poll, listener.fd, backend);
            } else {
                serve(one, poll, events[i].events);
            }
        }
        for (end* const each : gone) delete each;
        gone.clear();
    }
}
