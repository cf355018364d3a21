#pragma once

#include "vindra/base/arraylist.h"
#include "vindra/base/export.h"
#include "vindra/base/hashmap.h"
#include "vindra/base/linkedlist.h"
#include "vindra/core/connection.h"

#include <cstddef>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

class deferred_result;
struct websocket_frame;

/// Server side of one client connection. It speaks HTTP/1.x (RFC 9112) and, after a handshake,
/// WebSocket (RFC 6455).
///
/// Derive from it and override hooks. For each request they are called in this order:
///
/// ```
/// on_headers()  on_data()*  on_request()  reset()  ->  next request         keep_alive
/// on_headers()  on_data()*  on_request()           ->  end after the answer no keep_alive
///               on_data()   on_request()               again for each further block
/// on_upgrade()  on_data()*                         ->  on_message()*        handshake
/// ```
///
/// After speak_websocket(), on_headers() comes before on_upgrade() too. Without overrides, each
/// request is answered with its own head.
///
/// A hook may queue output (write(), answer(), send_message(), publish(), parts of its own), join
/// and leave channels, and change fields. It must not block, close `fd` or delete a connection. To
/// end this connection, call end_after_answer().
///
/// Servers for ordinary clients should call read_strictly(). Without it, pipelining is not
/// supported: bytes that arrive behind a request count as its body. Nor is a malformed request
/// answered with an error: the hooks see what was understood.
class VINDRA_API http_connection : public connection {
public:
    /// One piece of output in the queue: text, a file, or a result that is not finished yet.
    ///
    /// A file part has `file` set, a deferred part only `result`, a text part neither. Make it
    /// with `new` and append it to `parts`. It then belongs to the connection.
    class response_part {
    public:
        response_part() = default;
        response_part(const response_part&) = delete;
        response_part& operator=(const response_part&) = delete;

        /// Closes `file` and deletes `result`.
        ~response_part();

        /// Stream to send from its current position; null in other parts. Owned.
        std::FILE* file = nullptr;

        /// Bytes still to read from `file`; negative means until its end. A budget smaller than
        /// the space offered is never reduced: it becomes the size of every further piece, until
        /// the file ends.
        double budget = -1.0;

        /// Bytes of a text part. If there are more than connection::send_buffer_size, each
        /// on_send() takes one buffer full. Do not change `text` once the first bytes are taken.
        std::string text;

        /// Result to send in chunked coding once it is done; null in other parts. Owned.
        deferred_result* result = nullptr;

        /// The connection's `timeout` from the moment `result` is sent; ignored after an upgrade.
        /// The library never changes it in a part that the application made.
        int restore_timeout = 0;

    private:
        friend class http_connection;

        /// Bytes of `text` already handed over.
        std::size_t text_taken_ = 0;
    };

    http_connection();

    /// Reads requests and calls the hooks in the order above. Do not override it.
    ///
    /// Once `received` is above `max_request_length`, each further block is dropped with a
    /// warning. The connection stays open until the client closes it or it times out.
    void on_recv(char* bytes, int length) override;

    /// True while on_send() gives nothing until bytes arrive, or an answer or a message is queued.
    /// For the quiet_when() of derived classes. If you append to `parts` outside of this
    /// connection's hooks, call wake().
    bool is_quiet() const { return parts.count <= 0 && (!written || (upgraded && keep_alive)); }

    /// Hands over the first of `parts`, or as much of it as fits: one part a call. With nothing
    /// queued, returns false if the connection is not kept and its response is out.
    bool on_send(char* buffer, int capacity, int* length) override;

    /// Drops queued output and leaves all channels.
    ~http_connection() override;

    /// A head is complete: `headers` and the fields parsed from it are set.
    ///
    /// Called once a request, before its body. Called for a WebSocket handshake only after
    /// speak_websocket(). May answer at once. The default prints info() with the agent.
    virtual void on_headers();

    /// Body bytes have arrived: `length` > 0 of them. `bytes` is valid during the call only.
    ///
    /// Called with everything behind a head, even beyond `content_length`, and with everything
    /// behind a handshake. The default appends to `data`, and calls read_frames() on an upgraded
    /// connection that is kept.
    virtual void on_data(char* bytes, int length);

    /// A WebSocket handshake was answered with 101. From now on the connection never times out.
    /// The default ends the connection behind that answer. To accept the client, override it and
    /// leave `keep_alive` set.
    virtual void on_upgrade();

    /// `message` holds a whole message, and is emptied after the call. The default sends it back
    /// as a text frame, even if it was binary.
    virtual void on_message();

    /// The head and `content_length` bytes of body have arrived: answer now, or later.
    ///
    /// Called once a request if the connection is kept. Otherwise called again after each further
    /// block, unless read_strictly() was called. The default answers with the head and the length
    /// of the body.
    virtual void on_request();

    /// Value of the first line in `headers` whose name *begins* with `name`, in any letter case;
    /// the empty string if there is none. For exact names, use header().
    ///
    /// Assumes that exactly ": " follows the name, and trims nothing. In `name`, "?" matches any
    /// byte and "*" any run of bytes. The first line never matches, as a name has to follow a line
    /// end.
    static std::string get_header(const std::string& name, const std::string& headers);

    /// Forgets the current request, ready for the next one. Keeps queued output, channels,
    /// `timeout`, `keep_alive`, `websockets` and `upgraded`.
    void reset();

    /// Queues a response. `head` is the status line and the header lines, each with its line
    /// end, without the blank line.
    ///
    /// Adds Content-Length if the connection is kept and `head` has neither that nor
    /// Transfer-Encoding. Adds `extra_headers`. Leaves the body out for HEAD. Refuses a second
    /// response to the same request, with a warning.
    void write(std::string head, const std::string& body);

    /// Value of the first header line of exactly that name, in any letter case, without blanks
    /// around it; nothing if there is no such line.
    std::optional<std::string> header(std::string_view name) const;

    /// Queues a whole answer to the current request: status line with the reason phrase,
    /// Content-Type unless `content_type` is empty, Content-Length, Connection if the client has to
    /// be told, `extra_headers`, and `body` unless the method is HEAD.
    ///
    /// 204 and 304 get neither length nor body. A status below 200 is sent at once, without a body,
    /// and does not count as the answer. HTTP/1.0 has no such status, so nothing is sent to it. A
    /// second answer is refused, as by write(). `content_type` must not contain line ends.
    void answer(int status, std::string_view content_type, std::string_view body);

    /// Answers with a Location. Bytes that a URL cannot contain are percent-encoded, line ends
    /// included. After 303 the client sends GET whatever the method was, after 307 the same method.
    void redirect(std::string_view location, int status = 303);

    /// Answers 405. `methods` are those allowed here, as Allow lists them: "GET, HEAD, PUT".
    void answer_not_allowed(std::string_view methods);

    /// For on_headers(): sends 100 if the client waits for that before it sends its body. After
    /// read_strictly() the library does this.
    void answer_continue();

    /// For on_headers(): refuses a request that announces a body of more than `largest_body` bytes.
    /// Returns true if so: the request is answered with 413, its body dropped, on_request() not
    /// called, and the connection ended. After read_strictly() the library does this.
    bool refuse_body_over(int largest_body);

    /// For hooks: ends the connection when the answer to the current request is out. Call it before
    /// or after queueing that answer.
    void end_after_answer() { keep_alive = false; }

    /// For hooks: answers the current request, unless it has its answer, and ends the connection
    /// behind that. No hook is called for the rest of the request or for later ones. What the
    /// client still sends is dropped for a while, or it might never read the answer.
    void refuse(int status, std::string_view content_type = "", std::string_view body = "");

    /// Reads requests as an HTTP/1.1 server should. Call it in the constructor. Call it again in
    /// on_headers() to change `largest_body`, from that request on.
    ///
    /// - on_data() gets the announced body and nothing more. on_request() is called once a request.
    /// - Pipelined requests are answered in order. Each is read when the previous one has its
    ///   answer. About 1 MiB of them may wait; more ends the connection behind the current answer.
    /// - "Connection: close" is honoured, and keep-alive of HTTP/1.0 in any letter case.
    /// - "Expect: 100-continue" gets 100 after on_headers(), unless that has answered.
    /// - Refused, and the connection ended: 400 for a malformed head, for HTTP/1.1 without exactly
    ///   one Host, and for contradicting lengths; 411 for a chunked body; 413 for an announced body
    ///   longer than `largest_body`; 431 for a head of more than 64 KiB; 505 for other versions. Of
    ///   these, only 413 comes after on_headers(). on_request() is called for none. What the client
    ///   still sends is dropped for a while, or it might never read the answer.
    ///
    /// `max_request_length` is ignored then. A relay calls http_proxy::relay_strictly() instead.
    void read_strictly(int largest_body = 1048576);

    /// Speaks WebSocket as RFC 6455 defines it. Call it in the constructor, and override
    /// on_upgrade() to accept clients.
    ///
    /// - on_headers() is called for a handshake too. To refuse the handshake, answer there.
    ///   on_request() is not called for it. A faulty handshake gets 400.
    /// - Frames of any length are read, and send_message() sends messages of any length.
    /// - on_message() gets whole messages of at most `max_message_length` bytes, assembled from
    ///   their frames. Text is valid UTF-8. `max_frame_length` is ignored.
    /// - Pings are answered, between the frames of a message too. Pongs are dropped.
    /// - A close frame is answered with the same code, and the connection ends.
    /// - Refused, with a close frame: 1002 for a broken protocol, 1007 for text that is not UTF-8,
    ///   1009 for a message that is too long. The connection then ends when the client closes it
    ///   or has been silent for a second. Nothing is printed.
    void speak_websocket();

    /// True if the current request is a WebSocket handshake that this class answers.
    bool is_handshake() const;

    /// For on_headers() of a handshake, after speak_websocket(): chooses the subprotocol `name` if
    /// the client offers it, and returns whether it does. The answer then names it. Try the best
    /// one first, and stop after the first true.
    bool choose_protocol(std::string_view name);

    /// For on_message(), after speak_websocket(): 1 if the message is text, 2 if it is binary.
    /// Between messages 0.
    int message_opcode() const { return message_opcode_; }

    /// After speak_websocket(): sends a close frame. The connection ends when the client has
    /// answered it or has been silent for a second. Messages that arrive or are sent meanwhile are
    /// dropped. `code` is 1000 to 1003, 1007 to 1014, 3000 to 4999, or 1005 for a frame without a
    /// code. `reason` is UTF-8, and is left out if it has more than 123 bytes.
    void send_close(int code = 1000, std::string_view reason = {});

    /// After speak_websocket(): the code in the client's close frame, 1005 if the frame had none,
    /// 0 if no close frame has come. May be asked in the destructor.
    int close_code() const { return close_code_; }

    /// One line about the request, for logs: peer, method, target, version and, if asked for, the
    /// agent in brackets. A peer on 127.0.0.1 counts as a front end: its X-Forwarded-For, if any,
    /// takes the place of the address.
    std::string info(bool with_agent) const;

    /// Removes each whole frame from the front of `data` and acts on it. A refused frame clears
    /// `keep_alive` and sets `timeout` to 0.
    void read_frames();

    /// Queues `payload` as one frame: opcode 1 for text, 2 for binary, 9 for a ping. Without
    /// speak_websocket(), a payload of 1048576 bytes or more is reported and sent as a broken
    /// frame.
    void send_message(const std::string& payload, int opcode);

    /// Joins a channel, creating it if needed. Returns false before the upgrade. Joining twice
    /// counts once.
    bool subscribe(const std::string& channel);

    /// Leaves a channel. Does nothing if this connection is not a member. A channel without members
    /// is removed.
    void unsubscribe(std::string channel);

    /// Queues a frame for every member of a channel, in the order in which they joined. Calls no
    /// hook, so every hook may call it. Does nothing if there is no such channel.
    static void publish(const std::string& channel, const std::string& payload, int opcode);

    /// All channels of the process: names and lists of members. A list does not own its members,
    /// and exists only while it has some.
    static base::hashmap<base::arraylist<http_connection*>*>& channels();

    /// The head of the current request is complete.
    bool headers_done = false;

    /// Until the head is complete, every byte received. Then the request line and the header lines
    /// as they came, each with its line end, without the blank line.
    std::string headers;

    /// A response to the current request has been queued.
    bool written = false;

    /// Output in the order in which it leaves. Owns its parts.
    base::linkedlist<response_part*> parts;

    /// Bytes of one request, head and body together, after which blocks are dropped. 0 or less
    /// means no limit.
    int max_request_length = default_max_request_length_;

    /// Bytes received for the current request, and how many of them came behind the blank line.
    /// Both wrap around if they outgrow an int.
    int received = 0;
    int body_received = 0;

    /// Value of the content-length header; 0 if it is absent or not a number.
    int content_length = 0;

    /// Body, as the default on_data() collects it. After the upgrade, bytes of frames that are
    /// still incomplete.
    std::string data;

    /// The connection stays open for another request.
    bool keep_alive = true;

    /// The three parts of the request line.
    std::string method;
    std::string url;
    std::string version;

    /// `url` before and after its first "?". A "?" as the first byte does not count.
    std::string path;
    std::string query;

    /// Value of the cookie header.
    std::string cookie;

    /// Header lines, each with its line end, that are added to the response.
    std::string extra_headers;

    /// WebSocket handshakes are answered here. If false, they are requests like any other.
    bool websockets = true;

    /// The handshake is done: the connection speaks WebSocket until it ends.
    bool upgraded = false;

    /// Payload of the current message, as far as it has come.
    std::string message;

    /// Longest message and longest frame payload taken from a client, in bytes.
    int max_message_length = 10485760;
    int max_frame_length = 1048576;

    /// Names of the channels that this connection is in. The values mean nothing.
    base::hashmap<int> subscriptions;

protected:
    /// True once a request has been refused, by refuse() or because it was malformed.
    bool refuses() const { return strict_stage_ == stage_::refused; }

private:
    friend class late_answer;
    friend class http_proxy;

    /// Default of `max_request_length`: 100 MiB.
    static constexpr int default_max_request_length_ = 104857600;

    /// Result of looking at a frame: handled, incomplete, or nothing is read after it.
    enum class frame_outcome_ { taken, incomplete, ended };

    /// WebSocket by the standard. `off`: speak_websocket() was not called. `open`: reading frames.
    /// `closing`: our close frame is queued, the client's is awaited. `deaf`: everything that
    /// arrives is dropped.
    enum class websocket_stage_ : unsigned char { off, open, closing, deaf };

    /// State of the strict reader. `off`: read_strictly() was not called. `head`, `body`: reading
    /// that. `answering`: waiting until the answer is out. `refused`, with either reader:
    /// everything that arrives is dropped.
    enum class stage_ : unsigned char { off, head, body, answering, refused };

    /// get_header() without copies: `line_start` is a line end and the name.
    static std::string_view find_header_(std::string_view line_start, std::string_view headers);

    /// Empties a string and frees its storage if that is large.
    static void empty_(std::string& text);

    /// True, with a warning, if the request has passed `max_request_length`.
    bool refuses_more_() const;
    /// The same without the warning.
    bool is_too_long_() const { return max_request_length > 0 && received > max_request_length; }
    /// True if the next block is only counted and given to on_data().
    bool reads_body_() const;
    /// on_recv() without the call of on_data(), for a block of which that is true.
    void count_body_(int length);
    /// Moves bytes of the head from the block to `headers` and returns how many. Sets
    /// `headers_done` when the head is complete.
    int take_head_(const char* bytes, int length);
    /// Sets the fields that come from the head.
    void read_head_();
    void parse_request_line_();
    /// Splits `url` into `path` and `query`.
    void split_target_();
    /// Answers a handshake, with 101 or a refusal.
    void shake_hands_();
    /// Status line and header lines of the 101 for a client with that key.
    static std::string upgrade_head_(std::string key);
    /// Makes this a WebSocket connection, and tells on_upgrade().
    void upgrade_();
    /// Calls on_request() if the request is complete.
    void finish_request_();

    // The strict reader. Functions that return a number return how many bytes they used.

    /// on_recv() of the strict reader.
    void take_strictly_(char* bytes, int length);
    /// Reads requests until one of them has to wait for its answer.
    int take_requests_(char* bytes, int length);
    int take_strict_head_(char* bytes, int length);
    int take_strict_body_(char* bytes, int length);
    /// The head is complete: checks it, calls on_headers(), or refuses.
    void begin_strict_request_();
    /// Sends 100 if the client waits for it. Finishes a request without a body.
    void await_body_();
    /// The body is complete: calls on_request().
    void finish_strict_request_();
    /// Stores pipelined bytes until the current request has its answer.
    void keep_ahead_(const char* bytes, int length);
    /// Reads the stored requests once the answer is out.
    void go_on_strictly_();
    /// True if the client holds its body back until it gets 100.
    bool expects_continue_() const;
    /// Answers with `status`, unless there is an answer, and drops up to `linger_bytes` that
    /// follow.
    void refuse_(int status, long long linger_bytes);
    /// True while a client that was refused may still need time to read why.
    bool lingers_() const;

    /// Text of an answer. `lines` are further header lines; `head_alone` leaves the body out.
    static std::string answer_text_(int status, std::string_view content_type,
                                    std::string_view body, std::string_view lines, bool head_alone);
    /// Connection, if needed, and `extra_headers`.
    std::string common_lines_() const;
    /// True, with a warning, if the request has its answer.
    bool is_answered_() const;
    /// Queues an answer in parts of at most one send buffer, and sets `written`.
    void queue_answer_(std::string text);
    /// Queues one text part.
    void queue_text_(std::string text);
    void drop_first_part_();

    // Each does one on_send() for the first part, and drops a part that is done.

    void send_part_(response_part& part, char* buffer, int capacity, int* length);
    void send_file_(response_part& part, char* buffer, int capacity, int* length);
    void send_deferred_(response_part& part, char* buffer, int capacity, int* length);
    void send_text_(response_part& part, char* buffer, int capacity, int* length);

    /// Address of the peer, or what a front end on this machine says it is.
    std::string peer_name_() const;

    // Frames without speak_websocket().

    /// Handles the frame at `at`, and moves `at` behind it.
    frame_outcome_ take_frame_(std::size_t& at);
    frame_outcome_ act_on_frame_(int code, bool final, const std::string& payload);
    frame_outcome_ add_to_message_(const std::string& payload, bool final);
    /// Ends the connection when its queue is empty.
    frame_outcome_ end_frames_();

    // Frames after speak_websocket().

    /// shake_hands_() by the standard.
    void answer_handshake_();
    /// read_frames() by the standard.
    void read_messages_();
    /// True unless everything that arrives is dropped.
    bool takes_frames_() const;
    /// Code to close with because of this frame, or 0.
    int fault_of_(const websocket_frame& frame) const;
    /// Handles a whole frame, at the front of `bytes`.
    void handle_frame_(const websocket_frame& frame, std::string_view bytes);
    /// Adds a frame to `message`, and calls on_message() behind the last one.
    void take_fragment_(const websocket_frame& frame, std::string_view bytes);
    void answer_ping_(const std::string& payload);
    void answer_close_(const std::string& payload);
    /// Sends a close frame and drops what follows.
    void fail_(int code);

    /// For the destructor.
    void leave_channels_();
    /// Takes this connection out of a channel. Returns true if the channel is empty then.
    bool leave_channel_(const std::string& name);

    stage_ strict_stage_ = stage_::off;
    websocket_stage_ websocket_ = websocket_stage_::off;
    /// Opcode of the message that is arriving; 0 between messages.
    unsigned char message_opcode_ = 0;
    int close_code_ = 0;
    int largest_body_ = 0;
    /// Bytes that may still be dropped behind a refusal, or behind our close frame, before the
    /// connection ends.
    long long linger_bytes_ = 0;
    /// Stored pipelined bytes, and how many of them have been read.
    std::string ahead_;
    std::size_t ahead_read_ = 0;
};
