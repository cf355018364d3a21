#pragma once

#include "vindra/base/byte_queue.h"
#include "vindra/base/export.h"

class connection;

/// The two byte queues between a client connection and its backend connection, shared by
/// both and counted.
///
/// Each holder keeps a pointer and gives it up with release(); the count also tells the other
/// end that it is alone. A backend connection makes and frees one such object; the one that
/// is embedded in every client connection starts with a share that nobody gives up, and so
/// is never freed here.
struct VINDRA_API proxy_pipe {
    /// An empty pipe with that many shares; one, unless told otherwise.
    proxy_pipe() = default;
    explicit proxy_pipe(int holders) : refs(holders) {}
    proxy_pipe(const proxy_pipe&) = delete;
    proxy_pipe& operator=(const proxy_pipe&) = delete;

    /// Has `reader` woken when bytes come to wait in `queue`, which is the one of this pipe's
    /// that it hands over, and when the other end lets go. Until its own release().
    static void wake_on_arrival(base::byte_queue& queue, connection& reader);

    /// Gives up the share of the end that reads `queue` and sets its pointer to null. The last
    /// holder frees the pipe; the other one is woken, as it may be finished now.
    static void release(proxy_pipe*& pipe, base::byte_queue proxy_pipe::*queue);

    /// What on_send() of either end is: moves up to `capacity` bytes from the front of `queue`,
    /// which is one of this pipe's, into `buffer` and stores their number in `*length`. True
    /// while there is more to come: bytes that wait, or a second holder to bring some.
    bool send_from(base::byte_queue& queue, char* buffer, int capacity, int* length);

    /// Holders: 1 when only the client's end is left, 2 while a backend connection shares it.
    int refs = 1;

    /// Bytes that wait to be written to the backend, and to the client. Neither has a limit:
    /// a fast sender and a slow receiver fill memory.
    base::byte_queue to_backend;
    base::byte_queue to_client;
};
