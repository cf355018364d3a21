#include "vindra/core/free_port.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

// Bound and never listening: with the option that servers set too, both may have the port.
free_port::free_port() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd_, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    if (bind(fd_, any, length) == 0 && getsockname(fd_, any, &length) == 0)
        number_ = ntohs(address.sin_port);
}

free_port::~free_port() {
    if (fd_ >= 0) close(fd_);
}
