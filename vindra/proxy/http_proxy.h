#pragma once

#include "vindra/base/export.h"
#include "vindra/http/http_connection.h"
#include "vindra/proxy/proxy_pipe.h"

#include <memory>
#include <string>
#include <string_view>

class answer_reader;
class server_base;

/// A client connection that relays its requests to a backend, and the backend's bytes back unread
/// and unchanged.
///
/// By itself it is a forward proxy for absolute URIs (RFC 9112, section 3.2.2) and CONNECT (RFC
/// 9110, section 9.3.6). Override on_headers() to choose the backend otherwise, as reverse_proxy
/// does by host. Call relay_strictly() if on_headers() has to see every request that a backend
/// gets.
///
/// A client has at most one backend at a time. While one is attached, neither side is timed out.
/// When the backend ends, the client ends too as soon as everything is delivered. That delimits an
/// answer without a length.
class VINDRA_API http_proxy : public http_connection {
public:
    http_proxy();
    ~http_proxy() override;

    /// True while on_send() gives nothing until bytes arrive: none from the backend wait, and no
    /// answer is queued. For the quiet_when() of derived classes.
    bool is_quiet() const { return pipe->to_client.empty() && parts.count <= 0; }

    /// Hands over the bytes that the backend has sent.
    bool on_send(char* buffer, int capacity, int* length) override;

    /// Chooses the backend by the request's target, connects to it unless it is attached, and
    /// queues the request in origin form. Answers 404 if should_block() says so, and 502 if there
    /// is no address. CONNECT turns the connection into a tunnel. If the connect fails later, the
    /// client is closed without an answer.
    void on_headers() override;

    /// Queues the bytes of a body or a tunnel for the backend, unchanged.
    void on_data(char* bytes, int length) override;

    /// Does nothing. The answer comes from the backend.
    void on_request() override;

    /// Called once per request with the host of its target. Return true to answer 404 instead. The
    /// default returns false.
    virtual bool should_block(const std::string& host);

    /// Returns the lines of a header block that go to a backend: all but the first line and those
    /// that begin with the bytes "Proxy" or "Connection". A line of a single byte counts as part of
    /// the line behind it.
    static std::string copy_headers(const std::string& headers);

    /// The server that drives every backend connection of the process. Set it before the first
    /// client is accepted. The server must outlive every client.
    static server_base*& g_server();

    /// Host of the attached backend, as the target named it; empty if there is none.
    std::string backend_host;

    /// Port of the attached backend; 0 if there is none.
    int backend_port = 0;

    /// The current pipe, `initial_pipe` until the first backend. Never null.
    proxy_pipe* pipe = &initial_pipe;

    /// The pipe of a fresh client. Its second share stands for a backend that may still come and
    /// keeps the client open.
    proxy_pipe initial_pipe{2};

protected:
    /// Answers the current request and ends the connection behind the answer. No further byte of
    /// this client goes to a backend. Bytes that a backend has already sent are delivered first.
    /// For hooks.
    void refuse(int status, std::string_view content_type = "", std::string_view body = "");

    /// Reads requests as http_connection::read_strictly() does and finds the end of each answer.
    /// Call it in the constructor. Call it again in on_headers() to change `largest_body` from that
    /// request on.
    ///
    /// - A backend gets requests that on_headers() has passed on, with the announced body and no
    ///   byte more. A request that answer() answers here leaves it nothing, and the client stays.
    /// - Pipelined requests wait: on_headers() is called when the answer before is out.
    /// - Chunked bodies, malformed heads and bodies longer than `largest_body` are refused.
    /// - forward_to() answers 400 unless the target begins with "/".
    /// - "Expect: 100-continue" is answered here. These lines go to no backend: Expect, Keep-Alive,
    ///   TE, Upgrade, and all that begin with "Connection" or "Proxy", in any letter case.
    /// - A backend that ends before it has begun to answer is reported by 502.
    /// - "Connection: close" is honoured.
    ///
    /// An answer without a clear end lasts until the backend closes, and the client is closed then.
    void relay_strictly(int largest_body = 104857600);

    /// Passes the current request on to the backend at `to_port` of `host`: calls use_backend() and
    /// queues the head, with its target as it came or with `target`.
    void forward_to(const std::string& host, int to_port) { forward_to(host, to_port, url); }
    void forward_to(const std::string& host, int to_port, const std::string& target);

    /// Adds a line to `headers`, from which the forwarded head is made. Line ends and zero bytes in
    /// `value` become blanks.
    void add_header(std::string_view name, std::string_view value);

    /// Removes every line of that name from `headers`. Letters match in either case, and so do "_"
    /// and "-", which some backends take for the same.
    void drop_header(std::string_view name);

    /// True while the backend connection of the current pipe lives; false on a fresh client.
    bool attached() const { return pipe != &initial_pipe && pipe->refs >= 2; }

    /// Attaches the backend at `to_port` of `host`. Keeps the attached connection if it has the
    /// same name and port, and replaces it otherwise. Returns false if no connection can be made
    /// and 502 is queued, or if relay_strictly() forbids to pass on the request. Do nothing more
    /// for the request then.
    ///
    /// `name` is what `backend_host` becomes; `host` unless given.
    bool use_backend(const std::string& host, int to_port) {
        return use_backend(host, to_port, host);
    }
    bool use_backend(const std::string& host, int to_port, const std::string& name);

    /// Drops bytes that wait for a backend if no backend is attached: the body of a request that
    /// was answered here, or bytes that a former backend did not read. Call it first in your own
    /// on_headers(), or such bytes stay until the client leaves. forward_to() does so itself.
    void drop_unread();

    /// Replaces the current pipe by an empty one. The backend connection of the old one drains and
    /// ends.
    void renew_pipe();

    /// Starts a backend connection on the current pipe to the first address of `host` that is not
    /// IPv6, and disables the client's idle time-out. Does not wait for the connect. Prints why and
    /// returns false if there is no such address or no socket.
    bool connect_backend(const std::string& host, int to_port);

    /// Queues a 404 answer.
    void answer_not_found();

    /// Drops what waits for the client, queues a 502 answer, and ends the client behind it.
    void answer_bad_gateway();

private:
    friend class reverse_proxy;

    /// Lets a server move bodies and answers without copying them.
    void move_blocks_();

    /// False if relay_strictly() forbids to pass on the current request.
    bool begin_relaying_();
    /// True if the attached backend has that name and port and can take another request.
    bool is_usable_(const std::string& name, int at_port) const;
    /// True if the body of the current request goes to the backend.
    bool takes_body_() const;
    /// Queues the head of the current request for the backend.
    void queue_head_(std::string_view target);
    /// The body of on_send() after relay_strictly().
    bool send_strictly_(char* buffer, int capacity, int* length);
    /// Moves what has come of the backend's answer into `buffer`.
    void pass_answer_(char* buffer, int capacity, int* length);
    /// Ends the connection when the answer is out.
    void end_strictly_();

    /// Reads the answer to the current request. Null until relay_strictly().
    std::unique_ptr<answer_reader> answer_reader_;
    int largest_body_ = 0;
    /// True if a backend was chosen for the current request.
    bool is_relayed_ = false;
    /// Detached first, before `initial_pipe` ends.
    proxy_pipe::end end_{proxy_pipe::end::side::client, pipe, *this};
};
