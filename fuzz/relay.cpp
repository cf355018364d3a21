// A reverse_proxy and its backends, with the input as both ends of every connection.
//
// Client sockets are socket pairs, and so are those to backends: this file stands in front of the
// calls that would make real ones, of the clock and of the waits.

#include "vindra/core/server.h"
#include "vindra/core/sockets.h"
#include "vindra/proxy/reverse_proxy.h"

#include "fuzz/fuzz.h"

#include <cerrno>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

std::time_t now = 1000000;

// The script's ends of the sockets to backends, in the order in which they were made.
std::vector<int> backends;

template <typename Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// One end; the other goes to `far`.
int pair_end(int& far) {
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0,
            "there are sockets");
    const int small = 4096;
    setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    far = ends[1];
    return ends[0];
}

} // namespace

extern "C" std::time_t time(std::time_t* result) noexcept {
    if (result != nullptr) *result = now;
    return now;
}

extern "C" int epoll_wait(int epfd, epoll_event* events, int most, int /*timeout*/) {
    static auto* const call = real<decltype(epoll_wait)>("epoll_wait");
    return call(epfd, events, most, 0);
}

extern "C" int poll(pollfd* fds, nfds_t count, int /*timeout*/) {
    static auto* const call = real<decltype(poll)>("poll");
    return call(fds, count, 0);
}

extern "C" int socket(int domain, int type, int protocol) noexcept {
    static auto* const call = real<int(int, int, int)>("socket");
    // The resolver's sockets are datagrams, or of another family.
    if (domain != AF_INET || (type & 0xF) != SOCK_STREAM) return call(domain, type, protocol);
    int far = -1;
    const int near = pair_end(far);
    backends.push_back(far);
    return near;
}

extern "C" int connect(int fd, const sockaddr* address, socklen_t length) {
    static auto* const call = real<decltype(connect)>("connect");
    int type = 0;
    socklen_t size = sizeof type;
    getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &type, &size);
    return type == AF_UNIX && address->sa_family == AF_INET ? 0 : call(fd, address, length);
}

namespace {

constexpr const char* head = "POST /x HTTP/1.1\r\nHost: a\r\nContent-Length: 2147483647\r\n\r\n";
constexpr const char* head_at_backend =
    "POST /x HTTP/1.1\r\nHost: a\r\nContent-Length: 2147483647\r\nX-Forwarded-For: 0.0.0.0\r\n\r\n";

class world {
public:
    world() {
        http_proxy::g_server() = server_.get();
        reverse_proxy::hosts().set("a", 1);
        reverse_proxy::hosts().set("b", 2);
        reverse_proxy::hosts().set("echo", -1);
    }

    void add_client() {
        auto* conn = new reverse_proxy;
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
    std::unique_ptr<server<reverse_proxy>> server_ =
        std::make_unique<server<reverse_proxy>>(0, false);
};

std::string receive(int fd) {
    std::string all;
    char block[4096];
    ssize_t count = 0;
    while ((count = recv(fd, block, sizeof block, MSG_DONTWAIT)) > 0)
        all.append(block, static_cast<std::size_t>(count));
    return all;
}

std::string_view send_some(int fd, std::string_view bytes) {
    const ssize_t count = send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    return bytes.substr(0, count < 0 ? 0 : static_cast<std::size_t>(count));
}

std::string open_descriptors() {
    std::string numbers;
    for (int fd = 0; fd < 256; ++fd)
        if (fcntl(fd, F_GETFD) != -1) numbers += std::to_string(fd) + " ";
    return numbers;
}

int chosen(source& in, const std::vector<int>& ends) {
    return ends.empty()
               ? -1
               : ends[in.below(static_cast<unsigned>(std::min<std::size_t>(ends.size(), 256)))];
}

// Whatever the ends say and do, everyone leaves in the end.
void anything(source& in, world& w) {
    w.add_client();
    while (!in.empty()) {
        switch (in.below(10)) {
        case 0:
            if (w.clients.size() < 40) w.add_client();
            break;
        case 1:
        case 2:
        case 3:
            send_some(chosen(in, w.clients), in.until('\xFF'));
            break;
        case 4:
            send_some(chosen(in, backends), in.until('\xFF'));
            break;
        case 5:
            shutdown(chosen(in, in.below(2) != 0 ? w.clients : backends), SHUT_WR);
            break;
        case 6:
            shutdown(chosen(in, in.below(2) != 0 ? w.clients : backends), SHUT_RDWR);
            break;
        case 7:
            receive(chosen(in, in.below(2) != 0 ? w.clients : backends));
            break;
        case 8:
            now += in.below(13);
            break;
        default:
            w.turn();
        }
    }
}

// One client with one backend: every byte that either sends arrives, in order and once.
void two_ends(source& in, world& w) {
    w.add_client();
    const int client = w.clients[0];
    std::string to_backend = head_at_backend;
    std::string to_client;
    std::string at_backend;
    std::string at_client;
    send_some(client, head);
    for (int i = 0; i < 3; ++i) w.turn();
    require(backends.size() == 1, "there is a backend");

    while (!in.empty()) {
        switch (in.below(6)) {
        case 0:
            to_backend += send_some(client, in.bytes(in.byte()));
            break;
        case 1:
            to_client += send_some(backends[0], in.bytes(in.byte()));
            break;
        case 2: {
            const std::string many(in.byte() * 100, static_cast<char>(in.byte()));
            to_backend += send_some(client, many);
            to_client += send_some(backends[0], many);
            break;
        }
        case 3:
            at_backend += receive(backends[0]);
            break;
        case 4:
            at_client += receive(client);
            break;
        default:
            w.turn();
        }
    }
    for (int i = 0;
         i < 1000 && (at_backend.size() < to_backend.size() || at_client.size() < to_client.size());
         ++i) {
        w.turn();
        at_backend += receive(backends[0]);
        at_client += receive(client);
    }
    require(at_backend == to_backend, "the backend has what the client sent");
    require(at_client == to_client, "the client has what the backend sent");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silence();
    static world& w = *new world;
    w.turn();
    // The first relay opens what the process keeps open.
    static const bool warm = [] {
        w.add_client();
        send_some(w.clients[0], head);
        for (int i = 0; i < 3; ++i) w.turn();
        w.end();
        return true;
    }();
    require(warm, "the first relay works");

    const std::string before = open_descriptors();
    source in(data, size);
    if (in.below(2) != 0)
        two_ends(in, w);
    else
        anything(in, w);
    w.end();
    const std::string after = open_descriptors();
    if (after != before)
        std::fprintf(stderr, "before: %s\nafter: %s\n", before.c_str(), after.c_str());
    require(after == before, "no descriptor is left over");
    return 0;
}
