#pragma once

#include "vindra/base/byte_queue.h"
#include "vindra/base/export.h"

class connection;

/// The two byte queues between a client connection and its backend connection, shared by
/// both and counted.
///
/// Each connection has a pointer to the pipe and an `end` that holds a share of it. The last end
/// frees the pipe. A client connection makes one for each backend, and embeds a first one, which
/// starts with a share that nobody gives up and is therefore never freed here.
struct VINDRA_API proxy_pipe {
    /// What a connection holds a pipe by.
    class end;

    /// An empty pipe with that many shares: the client's own unless told otherwise.
    proxy_pipe() = default;
    explicit proxy_pipe(int holders) : refs(holders) {}
    proxy_pipe(const proxy_pipe&) = delete;
    proxy_pipe& operator=(const proxy_pipe&) = delete;

    /// Holders: 1 when only the client's end is left, 2 while a backend connection shares it.
    int refs = 1;

    /// Bytes that wait to be written to the backend, and to the client. Neither has a limit:
    /// a fast sender and a slow receiver fill memory.
    base::byte_queue to_backend;
    base::byte_queue to_client;
};

/// One connection's end of a pipe: attached when it is made, detached when it is destroyed.
///
/// The connection is woken when bytes arrive in the queue that it hands over, and when the other
/// end is detached.
class VINDRA_API proxy_pipe::end {
public:
    /// The client's end hands over `to_client` and fills `to_backend`; the backend's does the
    /// opposite.
    enum class side { client, backend };

    /// `pipe` is the field in which `holder` keeps its pointer to the pipe; it must not be null.
    /// The client's end takes the share that a pipe is made with, the backend's adds one.
    end(side which, proxy_pipe*& pipe, connection& holder);
    end(const end&) = delete;
    end& operator=(const end&) = delete;
    ~end();

    /// Detaches from the pipe and attaches to `next`, as the constructor does.
    void replace(proxy_pipe* next);

    /// Appends `length` bytes to the queue that this end fills.
    void fill(const char* bytes, int length);

    /// The body of either end's on_send(): moves up to `capacity` bytes into `buffer` and stores
    /// their number in `*length`. True while there may be more: bytes wait, or there is another end
    /// to bring some.
    bool send(char* buffer, int capacity, int* length);

    /// True when nothing waits to be handed over.
    bool is_quiet() const { return source_().empty(); }

private:
    base::byte_queue& source_() const;
    base::byte_queue& target_() const;
    void attach_();
    void detach_();

    proxy_pipe*& pipe_;
    connection& holder_;
    side side_;
};
