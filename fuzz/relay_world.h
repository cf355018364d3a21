#pragma once

// What relay.cpp and conversation.cpp share: a server whose connections are socket pairs with the
// script at their far ends, the clock turned by hand. This stands before the calls that would make
// real sockets, so include it in one source of a program only.

#include "vindra/core/server.h"
#include "vindra/core/sockets.h"
#include "vindra/proxy/reverse_proxy.h"

#include "fuzz/fuzz.h"
#include "tests/support/hand_turned_clock.h"
#include "tests/support/next_call.h"

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

using hand_turned::now;

/// The script's ends of the sockets to backends, in the order in which they were made.
inline std::vector<int> backends;

/// The next socket to a backend cannot be had.
inline bool no_socket = false;

/// One end; the other goes to `far`.
inline int pair_end(int& far) {
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0,
            "there are sockets");
    const int small = 4096;
    setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    far = ends[1];
    return ends[0];
}

extern "C" int socket(int domain, int type, int protocol) noexcept {
    static auto* const call = next_call<int(int, int, int)>("socket");
    // The resolver's sockets are datagrams, or of another family.
    if (domain != AF_INET || (type & 0xF) != SOCK_STREAM) return call(domain, type, protocol);
    if (no_socket) {
        errno = EMFILE;
        return -1;
    }
    int far = -1;
    const int near = pair_end(far);
    backends.push_back(far);
    return near;
}

extern "C" int connect(int fd, const sockaddr* address, socklen_t length) {
    static auto* const call = next_call<decltype(connect)>("connect");
    int type = 0;
    socklen_t size = sizeof type;
    getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &type, &size);
    return type == AF_UNIX && address->sa_family == AF_INET ? 0 : call(fd, address, length);
}

/// Can be told how many connections it visits in every turn. Hands blocks over, as its base does.
class walking_server : public server<reverse_proxy> {
public:
    walking_server() : server(0, false) { moves_as(typeid(walking_server)); }
    void visit_all_up_to(int most) { plain_walk_max = most; }
};

class world {
public:
    world() {
        http_proxy::g_server() = server_.get();
        reverse_proxy::hosts().set("a", 1);
        reverse_proxy::hosts().set("b", 2);
        reverse_proxy::hosts().set("c", 3);
        reverse_proxy::hosts().set("echo", -1);
    }

    void add_client() { add_client(new reverse_proxy); }
    void add_client(http_proxy* conn) {
        int far = -1;
        conn->fd = pair_end(far);
        clients.push_back(far);
        server_->connections.add(conn);
        sockets::all()->set(conn->fd);
    }

    void turn() {
        sockets::select_all();
        server_->update();
    }

    void visit_all_up_to(int most) { server_->visit_all_up_to(most); }

    int connections() const { return server_->connections.count; }

    // Closes every far end and lets the clock run.
    void end() {
        for (int i = 0; i < 100 && !(clients.empty() && backends.empty() && connections() == 0);
             ++i) {
            // Also the backends that a request read only now has brought.
            for (std::vector<int>* ends : {&clients, &backends}) {
                for (const int fd : *ends) ::close(fd);
                ends->clear();
            }
            now += 20;
            turn();
        }
        require(connections() == 0, "everyone has left");
    }

    std::vector<int> clients;

private:
    std::unique_ptr<walking_server> server_ = std::make_unique<walking_server>();
};

inline std::string receive(int fd) {
    std::string all;
    char block[4096];
    ssize_t count = 0;
    while ((count = recv(fd, block, sizeof block, MSG_DONTWAIT)) > 0)
        all.append(block, static_cast<std::size_t>(count));
    return all;
}

inline std::string_view send_some(int fd, std::string_view bytes) {
    const ssize_t count = send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    return bytes.substr(0, count < 0 ? 0 : static_cast<std::size_t>(count));
}

inline std::string open_descriptors() {
    std::string numbers;
    for (int fd = 0; fd < 256; ++fd)
        if (fcntl(fd, F_GETFD) != -1) numbers += std::to_string(fd) + " ";
    return numbers;
}

/// Has `play` act on a world, then ends it: everyone leaves, and no descriptor is left over.
template <typename Play>
void play_in_a_world(Play play) {
    silence();
    static world& w = *new world;
    w.turn();
    // The first relay opens what the process keeps open.
    static const bool warm = [] {
        w.add_client();
        send_some(w.clients[0], "GET / HTTP/1.1\r\nHost: a\r\n\r\n");
        for (int i = 0; i < 3; ++i) w.turn();
        w.end();
        return true;
    }();
    require(warm, "the first relay works");

    const std::string before = open_descriptors();
    play(w);
    w.end();
    const std::string after = open_descriptors();
    if (after != before)
        std::fprintf(stderr, "before: %s\nafter: %s\n", before.c_str(), after.c_str());
    require(after == before, "no descriptor is left over");
}
