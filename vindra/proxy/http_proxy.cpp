#include "vindra/proxy/http_proxy.h"

#include "vindra/base/print.h"
#include "vindra/base/split_url.h"
#include "vindra/core/server_base.h"
#include "vindra/core/sockets.h"
#include "vindra/http/answer_reader.h"
#include "vindra/proxy/private/backend_address.h"
#include "vindra/proxy/proxy_connection.h"

#include <cerrno>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

// The same time-out as that of a fresh connection.
constexpr int seconds_to_read_refusal = 10;

} // namespace

http_proxy::http_proxy() {
    websockets = false;
    quiet_when<http_proxy>([](const http_proxy& conn) { return conn.is_quiet(); });
    move_blocks_();
}

http_proxy::~http_proxy() = default;

// Only where on_send() would take from the pipe and do nothing else, and on_recv() would fill it
// and do no more than count.
void http_proxy::move_blocks_() {
    static constexpr seat::queues moves = {
        .source = [](connection& conn) -> base::byte_queue* {
            auto& self = static_cast<http_proxy&>(conn);
            const bool only_relays = !self.refuses() && (!self.answer_reader_ || self.upgraded);
            return only_relays ? &self.pipe->to_client : nullptr;
        },
        .target = [](connection& conn) -> base::byte_queue* {
            auto& self = static_cast<http_proxy&>(conn);
            return self.reads_body_() ? &self.pipe->to_backend : nullptr;
        },
        .arrived = [](connection& conn,
                      int length) { static_cast<http_proxy&>(conn).count_body_(length); },
    };
    seat::of(*this).moves = &moves;
}

server_base*& http_proxy::g_server() {
    static server_base* home = nullptr;
    return home;
}

bool http_proxy::should_block(const std::string& /*host*/) {
    return false;
}

void http_proxy::on_headers() {
    drop_unread();
    base::puts(info(true).c_str());
    const split_url target(url);
    if (should_block(target.host)) return answer_not_found();

    if (!use_backend(target.host, target.port)) return;

    if (method == "CONNECT") {
        // Without keep-alive the request never ends, so all that follows is its body. The strict
        // reader passes everything on once the connection is upgraded.
        keep_alive = false;
        upgraded = answer_reader_ != nullptr;
        pipe->to_client += "HTTP/1.1 200 OK\r\n\r\n";
        return;
    }
    queue_head_(target.path);
}

void http_proxy::on_data(char* bytes, int length) {
    if (takes_body_()) end_.fill(bytes, length);
}

void http_proxy::on_request() {}

bool http_proxy::on_send(char* buffer, int capacity, int* length) {
    if (refuses()) return http_connection::on_send(buffer, capacity, length);
    if (answer_reader_ && !upgraded) return send_strictly_(buffer, capacity, length);
    return end_.send(buffer, capacity, length);
}

std::string http_proxy::copy_headers(const std::string& headers) {
    constexpr std::string_view line_end = "\r\n";
    std::string kept;
    std::size_t end = headers.find(line_end);
    if (end == std::string::npos || end == 0) return kept;

    kept.reserve(headers.size());
    for (;;) {
        const std::size_t start = end + line_end.size();
        // The search skips the first two bytes of the line. No header is that short.
        end = headers.find(line_end, start + 2);
        if (end == std::string::npos) return kept;

        const std::string_view line(headers.data() + start, end - start);
        if (line.starts_with("Proxy") || line.starts_with("Connection")) continue;
        kept.append(line).append(line_end);
    }
}

bool http_proxy::use_backend(const std::string& host, int to_port, const std::string& name) {
    if (!begin_relaying_()) return false;
    if (is_usable_(name, to_port)) return true;

    renew_pipe();
    if (!connect_backend(host, to_port)) {
        answer_bad_gateway();
        return false;
    }
    backend_host = name;
    backend_port = to_port;
    return true;
}

void http_proxy::refuse(int status, std::string_view content_type, std::string_view body) {
    // Of a request that a backend has, an answer that has begun goes no further, and one that has
    // not gives way to this one.
    if (is_relayed_ && answer_reader_->has_begun()) written = true;
    if (!pipe->to_client.empty() && !is_relayed_) {
        auto* const earlier = new response_part;
        earlier->text = pipe->to_client;
        parts.add(earlier);
    }
    renew_pipe();
    // connect_backend() has disabled the time-out.
    if (timeout < 0) timeout = seconds_to_read_refusal;
    http_connection::refuse(status, content_type, body);
}

void http_proxy::drop_unread() {
    if (!attached()) pipe->to_backend.clear();
}

// The embedded pipe lives as long as the client and would keep its bytes.
void http_proxy::renew_pipe() {
    if (pipe == &initial_pipe) {
        initial_pipe.to_backend.clear();
        initial_pipe.to_client.clear();
    }
    end_.replace(new proxy_pipe);
}

void http_proxy::answer_not_found() {
    pipe->to_client +=
        "HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nContent-Length: 0\r\n\r\n";
}

void http_proxy::answer_bad_gateway() {
    pipe->to_client.assign("HTTP/1.1 502 Bad Gateway\r\nContent-Type: text/plain\r\n"
                           "Connection: close\r\n\r\nUnable to connect");
    keep_alive = false;
}

namespace {

// Returns a socket that is connecting to `where`, or -1 if there is no socket. A connect that fails
// shows later, as an end of stream.
int begin_connecting(const backend_address& where) {
    const int fd = socket(where.family, where.type | SOCK_NONBLOCK | SOCK_CLOEXEC, where.protocol);
    if (fd == -1) return -1;
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    // If connect() fails at once (no local port is left, for example), the socket stays readable
    // and every read returns an error. shutdown() makes it look like a connect that is refused
    // later.
    const auto* const address = reinterpret_cast<const sockaddr*>(&where.address);
    if (connect(fd, address, where.length) != 0 && errno != EINPROGRESS && errno != EINTR) {
        shutdown(fd, SHUT_RDWR);
    }
    return fd;
}

// Prints why and returns -1 if there is no socket.
int connect_to(const std::string& host, int port) {
    using outcome = backend_address::outcome;
    backend_address where;
    const outcome found = backend_address::find(host, port, where);
    if (found == outcome::unresolved) {
        base::printf("getaddrinfo() failed for host %s:%d!\n", host.c_str(), port);
        return -1;
    }

    const int fd = found == outcome::found ? begin_connecting(where) : -1;
    if (fd == -1) base::printf("No addresses worked for host %s:%d.\n", host.c_str(), port);
    return fd;
}

} // namespace

bool http_proxy::connect_backend(const std::string& host, int to_port) {
    const int socket = connect_to(host, to_port);
    if (socket == -1) return false;

    auto* const conn = new proxy_connection(socket, pipe);
    timeout = -1;
    if (g_server() == nullptr) {
        // Nobody drives the backend connection. Its share of the pipe keeps this client open, so
        // the mistake is seen.
        base::puts("Error! No server assigned for proxy connections.");
        return true;
    }
    g_server()->connections.add(conn);
    sockets::watch_tcp(socket);
    return true;
}
