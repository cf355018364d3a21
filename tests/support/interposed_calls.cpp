#include "tests/support/interposed_calls.h"

#include "tests/support/next_call.h"
#include "tests/support/shortened_message.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <utility>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace interposed {

int wait_error = 0;
int news_error = 0;
int accept_error = 0;
int recv_error_once = 0;
int recv_calls = 0;
int recvmsg_calls = 0;
int recvmsg_limit = 0;
int poll_calls = 0;
int sendmsg_calls = 0;
int send_limit = 0;
int send_error_once = 0;

} // namespace interposed

namespace {

bool fails_with(int error) {
    if (error == 0) return false;
    errno = error;
    return true;
}

} // namespace

extern "C" int epoll_wait(int epfd, epoll_event* events, int most, int timeout) {
    static auto* const call = next_call<decltype(epoll_wait)>("epoll_wait");
    if (fails_with(interposed::wait_error) || fails_with(interposed::news_error)) return -1;
    return call(epfd, events, most, timeout);
}

extern "C" int poll(pollfd* fds, nfds_t count, int timeout) {
    static auto* const call = next_call<decltype(poll)>("poll");
    ++interposed::poll_calls;
    if (fails_with(interposed::wait_error)) return -1;
    return call(fds, count, timeout);
}

extern "C" int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    static auto* const call = next_call<decltype(accept4)>("accept4");
    if (fails_with(interposed::accept_error)) return -1;
    return call(fd, address, length, flags);
}

extern "C" ssize_t recv(int fd, void* buffer, size_t length, int flags) {
    static auto* const call = next_call<decltype(recv)>("recv");
    ++interposed::recv_calls;
    if (fails_with(std::exchange(interposed::recv_error_once, 0))) return -1;
    return call(fd, buffer, length, flags);
}

extern "C" ssize_t recvmsg(int fd, msghdr* message, int flags) {
    static auto* const call = next_call<decltype(recvmsg)>("recvmsg");
    ++interposed::recvmsg_calls;
    if (fails_with(std::exchange(interposed::recv_error_once, 0))) return -1;
    shortened_message shortened(*message, static_cast<std::size_t>(interposed::recvmsg_limit));
    return call(fd, interposed::recvmsg_limit > 0 ? shortened.get() : message, flags);
}

extern "C" ssize_t send(int fd, const void* buffer, size_t length, int flags) {
    static auto* const call = next_call<decltype(send)>("send");
    if (fails_with(std::exchange(interposed::send_error_once, 0))) return -1;
    if (interposed::send_limit > 0) {
        length = std::min(length, static_cast<size_t>(interposed::send_limit));
    }
    return call(fd, buffer, length, flags);
}

extern "C" ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    static auto* const call = next_call<decltype(sendmsg)>("sendmsg");
    ++interposed::sendmsg_calls;
    if (fails_with(std::exchange(interposed::send_error_once, 0))) return -1;
    shortened_message shortened(*message, static_cast<std::size_t>(interposed::send_limit));
    return call(fd, interposed::send_limit > 0 ? shortened.get() : message, flags);
}
