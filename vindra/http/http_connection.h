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

/// Server side of one client connection that speaks HTTP/1.x (RFC 9112) and, after a
/// handshake, WebSocket frames (RFC 6455).
///
/// Derive from it and override hooks. For each request they are called in this order:
///
/// ```
/// on_headers()  on_data()*  on_request()  reset()  ->  the next request     keep_alive
/// on_headers()  on_data()*  on_request()  ->  ended once the answer is out  not kept, and
///               on_data()   on_request()      for each block until then
/// on_upgrade()  on_data()*                ->  frames: on_message()*         handshake
/// ```
///
/// The hooks as they are here make a plain answerer that echoes each request's head.
///
/// Every hook may queue output (write(), answer(), send_message(), publish(), parts of its own),
/// join and leave channels, and change fields. None may block, close `fd` or delete a
/// connection: to end this one, call end_after_answer().
///
/// Pipelining is not supported: what arrives together with a request counts as its body. Nor
/// is a malformed request ever answered with an error; the hooks see what was understood. A class
/// that faces ordinary clients calls read_strictly(), which changes both. The fields are plain
/// data, which hooks may read and change.
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

        /// Bytes of a text part. Of more than connection::send_buffer_size, each on_send() takes
        /// a buffer full; those taken stand in front until the part is done, so leave `text`
        /// alone once it has begun to leave.
        std::string text;

        /// Owned result that is sent once it is done, in chunked coding; null for other parts.
        deferred_result* result = nullptr;

        /// What `timeout` of the connection becomes when `result` is sent. Ignored once the
        /// connection is upgraded. The library changes it in no part that others made.
        int restore_timeout = 0;

    private:
        friend class http_connection;

        /// Bytes of `text` that have been handed over.
        std::size_t text_taken_ = 0;
    };

    http_connection();

    /// Reads requests; see the order of calls above. Not for overriding.
    ///
    /// Once `received` has passed `max_request_length`, further blocks are dropped with a
    /// warning each; the connection stays until its client gives up or the idle time-out.
    void on_recv(char* bytes, int length) override;

    /// True while on_send() gives nothing until bytes arrive or an answer is queued. For the
    /// quiet_when() of derived classes.
    bool is_quiet() const { return parts.count <= 0 && !written; }

    /// Hands over the first of `parts`, or as much of it as fits: one part a call. With
    /// nothing queued, answers false after the response of a connection that is not kept.
    bool on_send(char* buffer, int capacity, int* length) override;

    /// Drops what is queued and leaves every channel.
    ~http_connection() override;

    /// A head is complete: `headers` and what is parsed from it may be read.
    ///
    /// Called once a request, before its body; not for a WebSocket handshake, unless
    /// speak_websocket() was called. May write() at once. The default prints info() with the agent.
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

    /// Value of the first header line of exactly that name, letters of either case alike, without
    /// blanks around it; nothing when there is no such line.
    std::optional<std::string> header(std::string_view name) const;

    /// Queues a whole answer to the current request: status line with the reason phrase,
    /// Content-Type unless `content_type` is empty, Content-Length, and Connection where the client
    /// has to be told; `extra_headers`; and `body`, unless the method is HEAD.
    ///
    /// 204 and 304 get neither length nor body. A status below 200 is sent at once, without a body,
    /// and does not count as the answer; HTTP/1.0 has none, so nothing is sent there. Otherwise as
    /// write(), a second answer included. `content_type` is written as it is: no line ends.
    void answer(int status, std::string_view content_type, std::string_view body);

    /// Answers with a Location. Bytes that no URL may hold are percent-encoded, line ends among
    /// them. 303 has the client ask with GET whatever the method was, 307 with the same one.
    void redirect(std::string_view location, int status = 303);

    /// Answers 405 with the methods that there are, as Allow lists them: "GET, HEAD, PUT".
    void answer_not_allowed(std::string_view methods);

    /// For on_headers(): sends 100 if the client waits for it before it sends its body.
    /// read_strictly() does this by itself.
    void answer_continue();

    /// For on_headers(): true if the client announces a body of more than `largest_body` bytes.
    /// Then the request is answered with 413, its body is dropped, on_request() is not called, and
    /// the connection ends. read_strictly() does this by itself.
    bool refuse_body_over(int largest_body);

    /// Ends the connection when the answer to the current request is out, whether it is queued
    /// already or not. For hooks.
    void end_after_answer() { keep_alive = false; }

    /// Answers the current request, unless it has its answer, and ends the connection behind that.
    /// No hook is called for the rest of the request or for later ones. What the client still sends
    /// is dropped for a while, or it might never read the answer. For hooks.
    void refuse(int status, std::string_view content_type = "", std::string_view body = "");

    /// Reads requests from now on as a server of HTTP/1.1 is expected to. Call it in the
    /// constructor, and again in on_headers() to allow bodies of another length from that request
    /// on.
    ///
    /// - on_data() gets the announced body and no byte more; on_request() is called once a request.
    /// - Pipelined requests are answered in order: each is read when the one before it has its
    ///   answer, however late that is. About 1 MiB of them may wait; more ends the connection
    ///   behind the answer in progress.
    /// - "Connection: close" is honoured, and keep-alive of HTTP/1.0 in any letter case.
    /// - "Expect: 100-continue" is answered by 100 behind on_headers(), unless that has answered.
    /// - Refused, with a closing answer: 400 for a malformed head, one of HTTP/1.1 without exactly
    ///   one Host, and contradicting lengths; 411 for a chunked body; 413 for a body announced to
    ///   be longer than `largest_body`; 431 for a head of more than 64 KiB; 505 for other versions.
    ///   on_headers() is called for 413 alone of these, on_request() for none. What the client
    ///   still sends is dropped for a while, so that it gets to read the answer.
    ///
    /// `max_request_length` has no say then. A relay calls http_proxy::relay_strictly() instead.
    void read_strictly(int largest_body = 1048576);

    /// Speaks WebSocket as RFC 6455 has it, from the next handshake on. Call it in the constructor,
    /// and override on_upgrade() to accept clients.
    ///
    /// - on_headers() is called for a handshake too, before it is answered: answer() there to
    /// refuse
    ///   it. on_request() is not called for handshakes. A faulty one is answered with 400.
    /// - Frames of every length are read, and send_message() sends messages of every length.
    /// - on_message() gets whole messages of at most `max_message_length` bytes, put together from
    ///   their frames; text is valid UTF-8. `max_frame_length` has no say.
    /// - Pings are answered, between the frames of a message too. Pongs are dropped.
    /// - A close frame is answered with its own code, and the connection ends.
    /// - Refused, with a close frame: 1002 for what breaks the protocol, 1007 for text that is not
    ///   UTF-8, 1009 for a message that is too long. The connection then ends when the client
    ///   does, or is silent for a second. Nothing is printed.
    void speak_websocket();

    /// True if the current request asks for WebSocket, and is answered here.
    bool is_handshake() const;

    /// For on_headers() of a handshake, after speak_websocket(). True if the client offers the
    /// subprotocol `name`, which the answer then names. Ask for the best one first, and no more
    /// once one is chosen.
    bool choose_protocol(std::string_view name);

    /// For on_message(), after speak_websocket(): the opcode of the message, 1 for text and 2 for
    /// binary. 0 when none has begun.
    int message_opcode() const { return message_opcode_; }

    /// Sends a close frame, after speak_websocket(), and ends the connection when the client has
    /// answered it, or is silent for a second. Messages that still arrive are dropped, and so is
    /// what send_message() is called with. `code` is 1000 to 1003, 1007 to 1014, 3000 to 4999, or
    /// 1005 for a frame without one. `reason` is UTF-8; one of more than 123 bytes is left out.
    void send_close(int code = 1000, std::string_view reason = {});

    /// After speak_websocket(), the code of the client's close frame; 1005 if it had none, and 0
    /// while no close frame has come. The destructor may ask.
    int close_code() const { return close_code_; }

    /// One line that sums the request up, for logs: peer, method, target, version and, where
    /// asked for, the agent in brackets. For a peer on 127.0.0.1, taken to be a front end, the
    /// address is the value of X-Forwarded-For where there is one.
    std::string info(bool with_agent) const;

    /// Takes every whole frame off the front of `data` and acts on it. A refusal clears
    /// `keep_alive` and sets `timeout` to 0.
    void read_frames();

    /// Queues `payload` as one frame: opcode 1 for text, 2 for binary, 10 for a pong. Unless
    /// speak_websocket() was called, payloads of 1048576 bytes and more are reported and make a
    /// broken frame.
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

protected:
    /// True once a request has been refused, by refuse() or because it was malformed.
    bool refuses() const { return strict_stage_ == stage_::refused; }

private:
    friend class late_answer;

    /// What a request may hold unless a hook says otherwise: 100 MiB.
    static constexpr int default_max_request_length_ = 104857600;

    /// What became of a frame: taken off, waiting for more bytes, or the last one of all.
    enum class frame_outcome_ { taken, incomplete, ended };

    /// The standard's WebSocket: `off` unless speak_websocket() is called; reading; our close frame
    /// is out and the client's awaited; dropping what still comes.
    enum class websocket_stage_ : unsigned char { off, open, closing, deaf };

    /// How far a connection that reads strictly has come: `off` when it does not; within a head or
    /// a body; awaiting the end of an answer. `refused` with either reader: dropping what comes
    /// behind a refusal.
    enum class stage_ : unsigned char { off, head, body, answering, refused };

    static std::string_view find_header_(std::string_view line_start, std::string_view headers);
    static void empty_(std::string& text);

    bool refuses_more_() const;
    int take_head_(const char* bytes, int length);
    void read_head_();
    void parse_request_line_();
    void split_target_();
    void shake_hands_();
    static std::string upgrade_head_(std::string key);
    void upgrade_();
    void finish_request_();

    void take_strictly_(char* bytes, int length);
    int take_requests_(char* bytes, int length);
    int take_strict_head_(char* bytes, int length);
    int take_strict_body_(char* bytes, int length);
    void begin_strict_request_();
    void await_body_();
    void finish_strict_request_();
    void keep_ahead_(const char* bytes, int length);
    void go_on_strictly_();
    bool expects_continue_() const;
    void refuse_(int status, long long linger_bytes);
    bool lingers_() const;

    /// Bytes of an answer: `lines` are more header lines, and `head_alone` leaves the body out.
    static std::string answer_text_(int status, std::string_view content_type,
                                    std::string_view body, std::string_view lines, bool head_alone);
    std::string common_lines_() const;
    bool is_answered_() const;
    void queue_answer_(std::string text);
    void queue_text_(std::string text);
    void drop_first_part_();
    void send_part_(response_part& part, char* buffer, int capacity, int* length);
    void send_file_(response_part& part, char* buffer, int capacity, int* length);
    void send_deferred_(response_part& part, char* buffer, int capacity, int* length);
    void send_text_(response_part& part, char* buffer, int capacity, int* length);
    std::string peer_name_() const;

    frame_outcome_ take_frame_(std::size_t& at);
    frame_outcome_ act_on_frame_(int code, bool final, const std::string& payload);
    frame_outcome_ add_to_message_(const std::string& payload, bool final);
    frame_outcome_ end_frames_();

    void answer_handshake_();
    void read_messages_();
    bool takes_frames_() const;
    int fault_of_(const websocket_frame& frame) const;
    void handle_frame_(const websocket_frame& frame, std::string_view bytes);
    void take_fragment_(const websocket_frame& frame, std::string_view bytes);
    void answer_ping_(const std::string& payload);
    void answer_close_(const std::string& payload);
    void fail_(int code);

    void leave_channels_();
    bool leave_channel_(const std::string& name);

    stage_ strict_stage_ = stage_::off;
    websocket_stage_ websocket_ = websocket_stage_::off;
    /// Opcode of the message whose frames are coming in; 0 between messages.
    unsigned char message_opcode_ = 0;
    int close_code_ = 0;
    int largest_body_ = 0;
    /// Bytes behind a refusal, or behind our close frame, that are still worth waiting for.
    long long linger_bytes_ = 0;
    /// Pipelined bytes, and how many of them have been read.
    std::string ahead_;
    std::size_t ahead_read_ = 0;
};
