#pragma once

#include "vindra/base/arraylist.h"
#include "vindra/base/export.h"
#include "vindra/base/hashmap.h"
#include "vindra/base/linkedlist.h"
#include "vindra/core/connection.h"

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

class deferred_result;

/// Server side of one client connection that speaks HTTP/1.x (RFC 9112) and, after a
/// handshake, WebSocket frames (RFC 6455).
///
/// Derive from it and override hooks. For each request they are called in this order:
///
/// ```
/// on_headers()  on_data()*  on_request()  reset()  ->  the next request     keep_alive
/// on_headers()  on_data()*  on_request()  ->  ended once the answer is out  not kept
/// on_upgrade()  on_data()*                ->  frames: on_message()*         handshake
/// ```
///
/// The hooks as they are here make a plain answerer that echoes each request's head.
///
/// Every hook may queue output (write(), send_message(), publish(), parts of its own), join and
/// leave channels, and change fields. None may block, close `fd` or delete a connection: to
/// end this one, clear `keep_alive` and set `timeout` to 0.
///
/// Pipelining is not supported: what arrives together with a request counts as its body. Nor
/// is a malformed request ever answered with an error; the hooks see what was understood. The
/// fields are plain data, which hooks may read and change.
class VINDRA_API http_connection : public connection {
public:
    /// One piece of output in the queue: ready text, a file, or a result still in the making.
    ///
    /// A file part has `file` set, a deferred part only `result`, a text part neither. Made
    /// with `new` and appended to `parts`, it belongs to the connection.
    class response_part {
    public:
        response_part() = default;
        response_part(const response_part&) = delete;
        response_part& operator=(const response_part&) = delete;

        /// Closes `file` and deletes `result`.
        ~response_part();

        /// Owned stream whose bytes are sent, from where it stands; null for other parts.
        std::FILE* file = nullptr;

        /// Bytes still to be read from `file`; negative means until its end. One that is
        /// smaller than the space offered is not used up: it is the size of each piece from
        /// then on, until the file ends.
        double budget = -1.0;

        /// Bytes of a text part, best not more than connection::send_buffer_size: what does
        /// not fit waits here for the next on_send().
        std::string text;

        /// Owned result that is sent once it is done, in chunked coding; null for other parts.
        deferred_result* result = nullptr;

        /// What `timeout` of the connection becomes when `result` is sent.
        int restore_timeout = 0;
    };

    http_connection();

    /// Reads requests; see the order of calls above. Not for overriding.
    ///
    /// Once `received` has passed `max_request_length`, further blocks are dropped with a
    /// warning each; the connection stays until its client gives up or the idle time-out.
    void on_recv(char* bytes, int length) override;

    /// Hands over the first of `parts`, or as much of it as fits: one part a call. With
    /// nothing queued, answers false after the response of a connection that is not kept.
    bool on_send(char* buffer, int capacity, int* length) override;

    /// Drops what is queued and leaves every channel.
    ~http_connection() override;

    /// A head is complete: `headers` and what is parsed from it may be read.
    ///
    /// Called once a request, before its body; not for a WebSocket handshake. May write() at
    /// once. The default prints info() with the agent.
    virtual void on_headers();

    /// Body bytes have arrived: `length` > 0 of them, at `bytes` during the call only.
    ///
    /// Called with all that follows a head, also what exceeds `content_length`, and with all
    /// that follows a handshake. The default appends to `data` and, on an upgraded connection
    /// that is kept, calls read_frames().
    virtual void on_data(char* bytes, int length);

    /// A WebSocket handshake has been answered with 101, after which the connection never
    /// times out. The default turns the client away: the answer is sent, then the connection
    /// ends. Override it, leaving `keep_alive` set, to accept frames.
    virtual void on_upgrade();

    /// A whole message stands in `message`, which is emptied after the call. The default
    /// sends it back as a text frame, whether it was text or binary.
    virtual void on_message();

    /// The head and `content_length` bytes of body have arrived; answer with write().
    ///
    /// Called once a request where the connection is kept, and again after each further block
    /// where it is not. The default answers with the head and the length of the body.
    virtual void on_request();

    /// Value of the first line of the block `headers` whose name begins with `name`, letters
    /// of either case alike; the empty string when there is none.
    ///
    /// The name is taken to be followed by exactly ": " and nothing is trimmed. In `name`, "?"
    /// stands for any byte and "*" for any run of bytes. The first line is never found, since
    /// a name counts only behind a line end.
    static std::string get_header(const std::string& name, const std::string& headers);

    /// Forgets the current request so that the next one can be read. What is queued, the
    /// channels, `timeout`, `keep_alive`, `websockets` and `upgraded` stay.
    void reset();

    /// Queues a response: `head` is the status line and the header lines, each with its line
    /// end and without the blank line.
    ///
    /// Adds a Content-Length where the connection is kept and `head` names neither a length
    /// nor a transfer coding, adds `extra_headers`, and leaves the body out for HEAD. A second
    /// response to one request is refused with a warning.
    void write(std::string head, const std::string& body);

    /// One line that sums the request up, for logs: peer, method, target, version and, where
    /// asked for, the agent in brackets. For a peer on 127.0.0.1, taken to be a front end, the
    /// address is the value of X-Forwarded-For where there is one.
    std::string info(bool with_agent) const;

    /// Takes every whole frame off the front of `data` and acts on it. A refusal clears
    /// `keep_alive` and sets `timeout` to 0.
    void read_frames();

    /// Queues `payload` as one frame: opcode 1 for text, 2 for binary, 10 for a pong. Payloads
    /// of 1048576 bytes and more are reported and make a broken frame.
    void send_message(const std::string& payload, int opcode);

    /// Joins a channel, which exists from its first member to the leaving of its last one.
    /// Refused (false) before the upgrade; joining twice counts once.
    bool subscribe(const std::string& channel);

    /// Leaves a channel; nothing happens where this connection is no member.
    void unsubscribe(std::string channel);

    /// Sends a frame to every member of a channel, in the order in which they joined. Calls no
    /// hook, so it may be called from any. Nothing happens where there is no such channel.
    static void publish(const std::string& channel, const std::string& payload, int opcode);

    /// Every channel of the process: its name and its members, which it does not own. A key
    /// exists only while its list is not empty.
    static base::hashmap<base::arraylist<http_connection*>*>& channels();

    /// The head of the current request is complete.
    bool headers_done = false;

    /// While the head is incomplete, every byte received; then the request line and the header
    /// lines as they came, each with its line end, without the blank line.
    std::string headers;

    /// A response to the current request has been queued by write().
    bool written = false;

    /// Output in the order in which it leaves; the parts belong to this connection.
    base::linkedlist<response_part*> parts;

    /// Bytes of one request, head and body together, after which blocks are dropped; 0 or less
    /// means any number.
    int max_request_length = default_max_request_length_;

    /// Bytes received for the current request, and those of them behind the blank line. Both
    /// wrap around where a request outgrows an int.
    int received = 0;
    int body_received = 0;

    /// Value of the content-length header; 0 when absent or not a number.
    int content_length = 0;

    /// Body as the default on_data() collects it; after the upgrade, bytes of frames that are
    /// not complete yet.
    std::string data;

    /// The connection is used for another request after this one.
    bool keep_alive = true;

    /// The three parts of the request line.
    std::string method;
    std::string url;
    std::string version;

    /// `url` before and after its first "?"; one in the very first place does not count.
    std::string path;
    std::string query;

    /// Value of the cookie header.
    std::string cookie;

    /// Header lines, each with its line end, that write() adds to the response.
    std::string extra_headers;

    /// WebSocket handshakes are answered here; false lets such a request through as any other.
    bool websockets = true;

    /// The connection speaks frames, for good.
    bool upgraded = false;

    /// Payload gathered so far of the current message.
    std::string message;

    /// Longest message and longest frame payload taken from a client, in bytes.
    int max_message_length = 10485760;
    int max_frame_length = 1048576;

    /// Names of the channels that this connection is in; the values say nothing.
    base::hashmap<int> subscriptions;

private:
    /// What a request may hold unless a hook says otherwise: 100 MiB.
    static constexpr int default_max_request_length_ = 104857600;

    /// What became of a frame: taken off, waiting for more bytes, or the last one of all.
    enum class frame_outcome_ { taken, incomplete, ended };

    static std::string_view find_header_(std::string_view line_start, std::string_view headers);
    static void empty_(std::string& text);

    bool refuses_more_() const;
    int take_head_(const char* bytes, int length);
    void read_head_();
    void parse_request_line_();
    void split_target_();
    bool asks_for_upgrade_() const;
    void shake_hands_();
    void finish_request_();

    void queue_text_(std::string text);
    void drop_first_part_();
    void send_file_(response_part& part, char* buffer, int capacity, int* length);
    void finish_deferred_(response_part& part);
    void send_text_(response_part& part, char* buffer, int capacity, int* length);
    std::string peer_name_() const;

    frame_outcome_ take_frame_(std::size_t& at);
    frame_outcome_ act_on_frame_(int code, bool final, const std::string& payload);
    frame_outcome_ add_to_message_(const std::string& payload, bool final);
    frame_outcome_ end_frames_();
    void leave_channels_();
    void leave_channel_(const std::string& name);
};
