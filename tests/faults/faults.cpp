// Makes one call of a running program fail. Preloaded, it stands before the C library; under the
// name of the TLS library, which the program opens at run time, it stands before that one as well.
//
// Whoever arms a fault shares a file with this library (see `control`), so that one process can
// meet one fault after the other. The failures are honest ones: after a would-block or a short
// count the kernel owes news, a close that reports an error has closed, and a connect that was
// interrupted goes on.

#include "tests/support/next_call.h"
#include "tests/support/shortened_message.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>

#include <dlfcn.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// on_accept4 and so on.
enum call_number : unsigned {
#define CALL(name) on_##name,
#include "tests/faults/calls.inc"
#undef CALL
    calls
};

// What stands in the shared file. The driver sets `use` to 0, then the others, and it last.
struct control {
    // How often each call has been made.
    std::atomic<std::uint64_t> uses[calls];
    // Which use of `call` fails, as `uses` counts; 0 for none.
    std::atomic<std::uint64_t> use;
    std::atomic<std::uint32_t> call;
    // Set to 1 when it has failed.
    std::atomic<std::uint32_t> fired;
    // What it fails with: errno, or the resolver's error; 0 for the end of a stream.
    std::atomic<std::int32_t> error;
    // Most bytes that it takes instead of failing; 0 to fail.
    std::atomic<std::int32_t> most;
};

control* shared_control() {
    const char* const name = std::getenv("VINDRA_FAULTS");
    if (name == nullptr) return nullptr;
    const int fd = open(name, O_RDWR | O_CLOEXEC);
    if (fd < 0) return nullptr;
    void* const memory = mmap(nullptr, sizeof(control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    syscall(SYS_close, fd); // close() is one of the calls below
    return memory == MAP_FAILED ? nullptr : static_cast<control*>(memory);
}

struct fault {
    int error;
    std::size_t most;
};

// Counts a use of the call and says whether it is the one to fail, and how.
bool strikes(call_number call, fault& how) {
    // Null when nobody drives this process.
    static control* const c = shared_control();
    if (c == nullptr) return false;
    const std::uint64_t count = ++c->uses[call];
    if (c->use.load() == 0 || c->call.load() != call || c->use.load() != count) return false;
    how = {c->error.load(), static_cast<std::size_t>(c->most.load())};
    c->fired = 1;
    return true;
}

// For calls that fail with -1 and errno and in no other way.
bool fails(call_number call) {
    fault how{};
    if (!strikes(call, how)) return false;
    errno = how.error;
    return true;
}

// What each descriptor was given to the kernel's watch with.
struct watched {
    int epoll = -1;
    epoll_event event{};
};
constexpr int watched_max = 4096;
watched watches[watched_max];

// Has the next wait tell of a descriptor's state once more.
void owe_news(int fd) {
    static auto* const call = next_call<decltype(epoll_ctl)>("epoll_ctl");
    if (fd < 0 || fd >= watched_max || watches[fd].epoll < 0) return;
    call(watches[fd].epoll, EPOLL_CTL_MOD, fd, &watches[fd].event);
}

// The result of a transfer that fails: -1, or 0 for the end of the stream.
int failure(const fault& how, int fd) {
    if (how.error == EAGAIN) owe_news(fd);
    errno = how.error;
    return how.error == 0 ? 0 : -1;
}

// Runs `transfer(length)`, or what there is of it when the fault strikes.
template <typename Transfer>
ssize_t transferred(call_number number, int fd, std::size_t length, Transfer transfer) {
    fault how{};
    if (!strikes(number, how)) return transfer(length);
    if (how.most == 0) return failure(how, fd);
    const ssize_t moved = transfer(std::min(length, how.most));
    owe_news(fd);
    return moved;
}

// What is read and written otherwise (files, standard output) is left in peace.
bool is_socket(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode);
}

std::size_t length_of(const msghdr& message) {
    std::size_t length = 0;
    for (std::size_t i = 0; i < message.msg_iovlen; ++i) length += message.msg_iov[i].iov_len;
    return length;
}

} // namespace

extern "C" {

int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    static auto* const call = next_call<decltype(accept4)>("accept4");
    return fails(on_accept4) ? -1 : call(fd, address, length, flags);
}

ssize_t recv(int fd, void* buffer, size_t length, int flags) {
    static auto* const call = next_call<decltype(recv)>("recv");
    return transferred(on_recv, fd, length,
                       [=](std::size_t part) { return call(fd, buffer, part, flags); });
}

ssize_t send(int fd, const void* buffer, size_t length, int flags) {
    static auto* const call = next_call<decltype(send)>("send");
    return transferred(on_send, fd, length,
                       [=](std::size_t part) { return call(fd, buffer, part, flags); });
}

// Counts as a recv(): which of the two the library calls depends on how much came before.
ssize_t recvmsg(int fd, msghdr* message, int flags) {
    static auto* const call = next_call<decltype(recvmsg)>("recvmsg");
    return transferred(on_recv, fd, length_of(*message), [=](std::size_t part) {
        shortened_message shortened(*message, part);
        return call(fd, shortened.get(), flags);
    });
}

// Counts as a send(): which of the two the library calls depends on how much waits.
ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    static auto* const call = next_call<decltype(sendmsg)>("sendmsg");
    return transferred(on_send, fd, length_of(*message), [=](std::size_t part) {
        shortened_message shortened(*message, part);
        return call(fd, shortened.get(), flags);
    });
}

ssize_t read(int fd, void* buffer, size_t length) {
    static auto* const call = next_call<decltype(read)>("read");
    if (!is_socket(fd)) return call(fd, buffer, length);
    return transferred(on_read, fd, length,
                       [=](std::size_t part) { return call(fd, buffer, part); });
}

ssize_t write(int fd, const void* buffer, size_t length) {
    static auto* const call = next_call<decltype(write)>("write");
    if (!is_socket(fd)) return call(fd, buffer, length);
    return transferred(on_write, fd, length,
                       [=](std::size_t part) { return call(fd, buffer, part); });
}

int socket(int family, int type, int protocol) {
    static auto* const call = next_call<decltype(socket)>("socket");
    return fails(on_socket) ? -1 : call(family, type, protocol);
}

int connect(int fd, const sockaddr* address, socklen_t length) {
    static auto* const call = next_call<decltype(connect)>("connect");
    fault how{};
    if (!strikes(on_connect, how)) return call(fd, address, length);
    if (how.error == EINTR) call(fd, address, length);
    errno = how.error;
    return -1;
}

int close(int fd) {
    static auto* const call = next_call<decltype(close)>("close");
    const int result = call(fd);
    if (fd >= 0 && fd < watched_max) watches[fd].epoll = -1;
    return fails(on_close) ? -1 : result;
}

int fcntl(int fd, int command, ...) {
    static auto* const call = next_call<decltype(fcntl)>("fcntl");
    va_list rest;
    va_start(rest, command);
    const long argument = va_arg(rest, long);
    va_end(rest);
    return fails(on_fcntl) ? -1 : call(fd, command, argument);
}

int setsockopt(int fd, int level, int name, const void* value, socklen_t length) {
    static auto* const call = next_call<decltype(setsockopt)>("setsockopt");
    return fails(on_setsockopt) ? -1 : call(fd, level, name, value, length);
}

int bind(int fd, const sockaddr* address, socklen_t length) {
    static auto* const call = next_call<decltype(bind)>("bind");
    return fails(on_bind) ? -1 : call(fd, address, length);
}

int listen(int fd, int backlog) {
    static auto* const call = next_call<decltype(listen)>("listen");
    return fails(on_listen) ? -1 : call(fd, backlog);
}

int epoll_create1(int flags) {
    static auto* const call = next_call<decltype(epoll_create1)>("epoll_create1");
    return fails(on_epoll_create1) ? -1 : call(flags);
}

int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) {
    static auto* const call = next_call<decltype(epoll_ctl)>("epoll_ctl");
    if (operation == EPOLL_CTL_ADD) {
        if (fails(on_epoll_ctl)) return -1;
        if (fd >= 0 && fd < watched_max) watches[fd] = {epoll, *event};
    }
    return call(epoll, operation, fd, event);
}

int epoll_wait(int epoll, epoll_event* events, int most, int timeout) {
    static auto* const call = next_call<decltype(epoll_wait)>("epoll_wait");
    return fails(on_epoll_wait) ? -1 : call(epoll, events, most, timeout);
}

int poll(pollfd* fds, nfds_t count, int timeout) {
    static auto* const call = next_call<decltype(poll)>("poll");
    return fails(on_poll) ? -1 : call(fds, count, timeout);
}

int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
    static auto* const call = next_call<decltype(getaddrinfo)>("getaddrinfo");
    fault how{};
    return strikes(on_getaddrinfo, how) ? how.error : call(node, service, hints, result);
}

int getifaddrs(ifaddrs** list) {
    static auto* const call = next_call<decltype(getifaddrs)>("getifaddrs");
    return fails(on_getifaddrs) ? -1 : call(list);
}

int getnameinfo(const sockaddr* address, socklen_t length, char* host, socklen_t host_length,
                char* service, socklen_t service_length, int flags) {
    static auto* const call = next_call<decltype(getnameinfo)>("getnameinfo");
    fault how{};
    return strikes(on_getnameinfo, how)
               ? how.error
               : call(address, length, host, host_length, service, service_length, flags);
}

int stat(const char* path, struct stat* status) {
    static auto* const call = next_call<int(const char*, struct stat*)>("stat");
    return fails(on_stat) ? -1 : call(path, status);
}

int madvise(void* begin, size_t length, int advice) {
    static auto* const call = next_call<decltype(madvise)>("madvise");
    return fails(on_madvise) ? -1 : call(begin, length, advice);
}

} // extern "C"

// The TLS library. Its functions take and give what fits into a register, so one shape does for
// all of them on the machines that are supported.

namespace {

using tls_call = long(long, long, long, long);

tls_call* tls_function(const char* name) {
    static void* const library = dlopen(std::getenv("VINDRA_FAULTS_TLS"), RTLD_NOW | RTLD_LOCAL);
    void* const function = library == nullptr ? nullptr : dlsym(library, name);
    if (function == nullptr) std::abort();
    return reinterpret_cast<tls_call*>(function);
}

int descriptor_of(long session) {
    static auto* const call = tls_function("SSL_get_fd");
    return static_cast<int>(call(session, 0, 0, 0));
}

long moved(call_number number, tls_call* call, long session, long buffer, long length) {
    fault how{};
    if (!strikes(number, how)) return call(session, buffer, length, 0);
    if (how.most > 0)
        return call(session, buffer, std::min(length, static_cast<long>(how.most)), 0);
    // With 0 the session has failed for good: nothing is asked of the socket, and errno stays.
    return how.error == 0 ? -1 : failure(how, descriptor_of(session));
}

} // namespace

#define PASS_ON(name)                                                                              \
    extern "C" long name(long a, long b, long c, long d) {                                         \
        static tls_call* const call = tls_function(#name);                                         \
        return call(a, b, c, d);                                                                   \
    }

#define FAIL_BEFORE(name, result)                                                                  \
    extern "C" long name(long a, long b, long c, long d) {                                         \
        static tls_call* const call = tls_function(#name);                                         \
        return fails(on_##name) ? (result) : call(a, b, c, d);                                     \
    }

// What these do is done, whatever they report.
#define FAIL_BEHIND(name, result)                                                                  \
    extern "C" long name(long a, long b, long c, long d) {                                         \
        static tls_call* const call = tls_function(#name);                                         \
        const long done = call(a, b, c, d);                                                        \
        return fails(on_##name) ? (result) : done;                                                 \
    }

PASS_ON(OpenSSL_version_num)
PASS_ON(OPENSSL_init_ssl)
PASS_ON(TLS_server_method)
PASS_ON(SSL_CTX_new)
PASS_ON(SSL_CTX_free)
PASS_ON(SSL_CTX_ctrl)
PASS_ON(SSL_new)
PASS_ON(SSL_free)
PASS_ON(SSL_set_fd)
FAIL_BEFORE(SSL_CTX_use_PrivateKey_file, 0)
FAIL_BEFORE(SSL_CTX_use_certificate_file, 0)
FAIL_BEHIND(SSL_accept, -1)
FAIL_BEHIND(SSL_shutdown, -1)

extern "C" long SSL_read(long session, long buffer, long length) {
    static tls_call* const call = tls_function("SSL_read");
    return moved(on_SSL_read, call, session, buffer, length);
}

extern "C" long SSL_write(long session, long buffer, long length) {
    static tls_call* const call = tls_function("SSL_write");
    return moved(on_SSL_write, call, session, buffer, length);
}
