// The backend for what a file server does not do: answers in two pieces, and uploads.
//
// usage: backend PORT
//
//   GET  any            100 bytes of body: the head and 50 of them at once, the rest a
//                       millisecond later in a segment of its own
//   POST any            reads the body; answers with its length
//   POST /checked...    the same, and its CRC-32 in hexadecimal
//
// One request at a time on a connection, which is kept.

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using steady = std::chrono::steady_clock;

constexpr auto pause_between_pieces = std::chrono::milliseconds(1);
constexpr std::size_t buffer_size = 1048576;

// One client. `head` grows until its blank line; then `body_left` bytes follow.
struct client {
    int fd = -1;
    std::string head;
    bool head_done = false;
    bool checked = false;
    long long body_length = 0;
    long long body_left = 0;
    std::uint32_t sum = 0;
};

// The second piece of an answer, told by the client's number, which is never used again.
struct second_piece {
    steady::time_point due;
    std::uint64_t number = 0;
};

char buffer[buffer_size];
std::map<std::uint64_t, std::unique_ptr<client>> clients;
std::deque<second_piece> pieces;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

constexpr std::array<std::uint32_t, 256> make_crc_table() {
    std::array<std::uint32_t, 256> table = {};
    for (std::uint32_t i = 0; i < 256; ++i) {
        std::uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) ? 0xEDB88320U : 0U);
        table[i] = value;
    }
    return table;
}

std::uint32_t crc(std::uint32_t sum, const char* bytes, std::size_t length) {
    static constexpr std::array<std::uint32_t, 256> table = make_crc_table();
    sum = ~sum;
    for (std::size_t i = 0; i < length; ++i)
        sum = table[(sum ^ static_cast<unsigned char>(bytes[i])) & 255] ^ (sum >> 8);
    return ~sum;
}

int listen_on(const char* port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) fail("socket");
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(port)));
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail("bind");
    if (::listen(fd, SOMAXCONN) != 0) fail("listen");
    return fd;
}

void watch(int poll, int fd, std::uint64_t number) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = number;
    if (::epoll_ctl(poll, EPOLL_CTL_ADD, fd, &event) != 0) fail("epoll_ctl");
}

// Answers are short and there is one at a time: the kernel takes them whole.
void put(const client& to, std::string_view text) {
    const ssize_t sent = ::send(to.fd, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent >= 0 && static_cast<std::size_t>(sent) != text.size()) fail("send took a part");
}

long long length_in(const std::string& head) {
    for (std::size_t at = head.find("\r\n"); at != std::string::npos; at = head.find("\r\n", at)) {
        at += 2;
        static constexpr std::string_view name = "content-length:";
        if (::strncasecmp(head.c_str() + at, name.data(), name.size()) == 0)
            return std::atoll(head.c_str() + at + name.size());
    }
    return 0;
}

void answer(client& one, std::uint64_t number) {
    if (one.head.compare(0, 4, "GET ") == 0) {
        put(one, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n" + std::string(50, 'x'));
        pieces.push_back({steady::now() + pause_between_pieces, number});
    } else {
        char sum[16] = "";
        if (one.checked) std::snprintf(sum, sizeof sum, " %08x", one.sum);
        const std::string body = std::to_string(one.body_length) + sum + "\n";
        put(one, "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
                     body);
    }
    one.head.clear();
    one.head_done = false;
}

void take_body(client& one, const char* bytes, std::size_t length) {
    if (one.checked) one.sum = crc(one.sum, bytes, length);
    one.body_left -= static_cast<long long>(length);
}

// The head goes on; true once it is complete, with the body's first bytes taken.
bool take_head(client& one, const char* bytes, std::size_t length) {
    one.head.append(bytes, length);
    const std::size_t end = one.head.find("\r\n\r\n");
    if (end == std::string::npos) return false;
    const std::string rest = one.head.substr(end + 4);
    one.head.resize(end + 2);
    one.head_done = true;
    one.checked = one.head.find(" /checked") != std::string::npos;
    one.body_length = one.body_left = length_in(one.head);
    one.sum = 0;
    take_body(one, rest.data(), rest.size());
    return true;
}

// False when the client is gone.
bool serve(client& one, std::uint64_t number) {
    const ssize_t got = ::recv(one.fd, buffer, sizeof buffer, 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return true;
    if (got <= 0) return false;
    if (one.head_done) {
        take_body(one, buffer, static_cast<std::size_t>(got));
    } else if (!take_head(one, buffer, static_cast<std::size_t>(got))) {
        return true;
    }
    if (one.body_left <= 0) answer(one, number);
    return true;
}

void send_due_pieces() {
    const auto now = steady::now();
    while (!pieces.empty() && pieces.front().due <= now) {
        const auto found = clients.find(pieces.front().number);
        if (found != clients.end()) put(*found->second, std::string(49, 'x') + "\n");
        pieces.pop_front();
    }
}

int milliseconds_to_wait() {
    if (pieces.empty()) return -1;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(pieces.front().due - steady::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

} // namespace

int main(int count, char** arguments) {
    if (count != 2) {
        std::fputs("usage: backend PORT\n", stderr);
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    const int poll = ::epoll_create1(EPOLL_CLOEXEC);
    if (poll < 0) fail("epoll_create1");
    const int listener = listen_on(arguments[1]);
    watch(poll, listener, 0);

    std::uint64_t last_number = 0;
    while (true) {
        epoll_event events[256];
        const int found = ::epoll_wait(poll, events, 256, milliseconds_to_wait());
        if (found < 0 && errno != EINTR) fail("epoll_wait");
        for (int i = 0; i < found; ++i) {
            const std::uint64_t number = events[i].data.u64;
            if (number == 0) {
                const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
                if (fd < 0) continue;
                auto added = std::make_unique<client>();
                added->fd = fd;
                clients[++last_number] = std::move(added);
                watch(poll, fd, last_number);
            } else if (const auto at = clients.find(number);
                       at != clients.end() && !serve(*at->second, number)) {
                ::close(at->second->fd);
                clients.erase(at);
            }
        }
        send_due_pieces();
    }
}
