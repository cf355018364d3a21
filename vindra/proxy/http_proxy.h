#pragma once

#include "vindra/base/export.h"
#include "vindra/http/http_connection.h"
#include "vindra/proxy/proxy_pipe.h"

#include <memory>
#include <string>
#include <string_view>

class answer_reader;
class server_base;

/// A client connection whose requests are relayed to a backend, and the backend's bytes back,
/// unread and unchanged.
///
/// As it is, a forward proxy: it serves absolute-URI requests (RFC 9112, section 3.2.2) and
/// CONNECT (RFC 9110, section 9.3.6). reverse_proxy overrides on_headers() to choose the
/// backend by host. WebSocket handshakes are forwarded like any request.
///
/// A client connection has at most one backend at a time. While one is attached neither side
/// is timed out, and when it ends the client ends too, once all that it brought is delivered:
/// that is what delimits an answer without a length.
class VINDRA_API http_proxy : public http_connection {
public:
    http_proxy();
    ~http_proxy() override;

    /// Hands over what the backend has sent.
    bool on_send(char* buffer, int capacity, int* length) override;

    /// Chooses the backend by the request's target, connects to it unless it is the one that is
    /// attached, and queues the request in origin form; answers 404 for a destination that
    /// should_block() refuses, and 502 where the address cannot be had. CONNECT turns the
    /// connection into a tunnel. A connect that fails later closes the client unanswered.
    void on_headers() override;

    /// Queues the bytes for the backend as they are: bodies, and all that a tunnel carries.
    void on_data(char* bytes, int length) override;

    /// Nothing: the answer is whatever the backend sends.
    void on_request() override;

    /// Called once a request with the host that it names; true answers 404 instead. False here.
    virtual bool should_block(const std::string& host);

    /// The lines of a header block that go to a backend, each with its line end: all but the
    /// first line and those that begin with the bytes "Proxy" or "Connection". A line of a
    /// single byte is taken together with the line behind it.
    static std::string copy_headers(const std::string& headers);

    /// The server into whose list every backend connection of the process goes. Set it before
    /// any client is accepted, and leave it until that server has ended.
    static server_base*& g_server();

    /// Host of the attached backend as the target named it; empty when there is none.
    std::string backend_host;

    /// Port of the attached backend; 0 when there is none.
    int backend_port = 0;

    /// The queues in use: `initial_pipe` until a backend is attached. Never null.
    proxy_pipe* pipe = &initial_pipe;

    /// Stands for the backend that may still come, whose share keeps a fresh client open.
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

    /// Makes the backend at `to_port` of `host` the one of the current request: keeps the
    /// attached connection if it was made under the same name and port, else replaces it.
    /// False when there is no connection to be had; the 502 answer is queued then, and nothing
    /// is left to do for this request.
    ///
    /// The name is `host`, or `name` where that is given. It is what `backend_host` becomes.
    bool use_backend(const std::string& host, int to_port) {
        return use_backend(host, to_port, host);
    }
    bool use_backend(const std::string& host, int to_port, const std::string& name);

    /// Drops bytes that wait for a backend where there is none to read them: the body of a
    /// request that was answered here, or what a backend that has gone left behind. Call it
    /// first in an on_headers() of your own, or such bodies stay until the client leaves.
    void drop_unread();

    /// Drops the current pipe, whose backend connection then drains and ends, for an empty one.
    void renew_pipe();

    /// Opens a backend connection on the current pipe to the first address of `host` that is
    /// not IPv6, without waiting for it, and disables the client's idle time-out. False, with
    /// the reason printed, when there is no such address or no socket.
    bool connect_backend(const std::string& host, int to_port);

    /// Queues the answer for a destination that there is none of here.
    void answer_not_found();

    /// Replaces what waits for the client by the 502 answer, after which it ends.
    void answer_bad_gateway();

private:
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
