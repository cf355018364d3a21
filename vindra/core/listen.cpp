#include "vindra/base/print.h"
#include "vindra/core/sockets.h"

#include <string>

#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace sockets {

namespace {

constexpr int backlog = 128;
constexpr socklen_t ipv4_address_length = 16;
static_assert(sizeof(sockaddr_in) == ipv4_address_length);

// The list is never released: it is made once per listening socket.
std::string ipv4_addresses() {
    std::string text;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return text;

    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
        char host[64] = "";
        getnameinfo(entry->ifa_addr, ipv4_address_length, host, sizeof host, nullptr, 0,
                    NI_NUMERICHOST);
        if (!text.empty()) text += "\n";
        text += host;
    }
    return text;
}

int resolve(bool localhost_only, int port, addrinfo*& result) {
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    const std::string service = std::to_string(port);

    if (localhost_only) {
        base::printf("Binding to port %d on localhost only\n", port);
        return getaddrinfo("127.0.0.1", service.c_str(), &hints, &result);
    }
    base::printf("Binding to port %d on all adapters:\n", port);
    base::puts(ipv4_addresses().c_str());
    return getaddrinfo(nullptr, service.c_str(), &hints, &result);
}

void set_options(int fd) {
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    // Accepted sockets inherit it: a small answer never waits for the acknowledgement of the
    // piece before it.
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool bind_to(int fd, const addrinfo& where) {
    const int result = bind(fd, where.ai_addr, where.ai_addrlen);
    if (result != -1) return true;
    // The resolver's text for bind's own result, not that of errno: users know the line so.
    base::printf("bind() failed: %d %s\n", result, gai_strerror(result));
    base::puts("Check that the port isn't already taken.");
    base::puts("This can be done with 'netstat -an' on windows/mac/linux.");
    return false;
}

bool listen_on(int fd) {
    if (::listen(fd, backlog) != -1) return true;
    base::puts("listen() failed");
    return false;
}

} // namespace

bool listen(int& fd, bool localhost_only, int port) {
    addrinfo* where = nullptr;
    const int error = resolve(localhost_only, port, where);
    if (error != 0) {
        base::printf("getaddrinfo() failed: %d %s\n", error, gai_strerror(error));
        return false;
    }

    fd = socket(where->ai_family, where->ai_socktype | SOCK_CLOEXEC, where->ai_protocol);
    if (fd == -1) {
        base::puts("socket() failed");
        freeaddrinfo(where);
        return false;
    }
    set_options(fd);
    const bool bound = bind_to(fd, *where);
    freeaddrinfo(where);
    if (!bound || !listen_on(fd)) {
        sockets::close(fd);
        fd = -1;
        return false;
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    return true;
}

} // namespace sockets
