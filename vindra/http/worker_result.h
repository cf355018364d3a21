#pragma once

#include "vindra/base/export.h"
#include "vindra/http/deferred_result.h"
#include "vindra/http/http_answer.h"

#include <functional>
#include <memory>
#include <string>

class http_connection;

/// A deferred result that a function computes on a thread of its own, while the loop serves
/// other connections.
///
/// The loop is woken as soon as the result is there (sockets::bell()). Deleting the result
/// before, as its connection does when the client leaves, neither waits for the function nor
/// stops it: it runs to its end, and what it gives is dropped.
///
/// Each result costs a thread: some 20 microseconds and a few pages while it runs, and nothing
/// limits their number. Where clients can start many, count them and answer 503.
///
/// A thread that still computes when main() returns ends with the process. The library touches
/// no static object from it; see that the function does not either.
class VINDRA_API worker_result : public deferred_result {
public:
    /// Starts `compute` at once. Called on the loop's thread, like the destructor.
    ///
    /// A `var` counts its holders without a lock, so the function may hold none (the caller's own
    /// copy of it is let go on the loop's thread; give it text) and returns one that shares no
    /// body with what others can reach. The function is destroyed on its thread, before `done`
    /// is set. An exception that it throws, or the lack of a thread to run it on, makes `output`
    /// null, which is sent as "null".
    explicit worker_result(std::function<var()> compute);

    ~worker_result() override;

private:
    struct link_;

    static void run_(std::function<var()> compute, const std::shared_ptr<link_>& link, int bell);
    static bool hand_over_(var& computed, link_& link);

    /// Between this object and its thread. Shared, because either may be the last to need it.
    std::shared_ptr<link_> thread_;
};

/// Answers the current request of `conn` with what `compute` returns, once it does: queues
/// `head` (status line and header lines without length or transfer coding, as for
/// http_connection::write()) and the result behind it. The connection is not timed out before
/// the result leaves; then its `timeout` is again what it was. A deferred part that the
/// application has queued before still restores the time-out that its maker gave it. Once the
/// connection is upgraded, no late answer changes `timeout`.
///
/// For HEAD the head is the whole answer and nothing is computed. More than about 1 MiB of
/// result is dropped with a warning, and an empty body sent: see http_connection::on_send().
///
/// False, with nothing queued or computed, where the request has its answer already, or came
/// with HTTP/1.0, which has no chunks to carry a late result.
VINDRA_API bool answer_later(http_connection& conn, std::string head, std::function<var()> compute);

/// The same with the whole answer in the hands of `compute`: its head leaves with its body, which
/// may be of any size, and HTTP/1.0 is served too. An exception that it throws, a status below 200,
/// and the lack of a thread to run it on give 500. For HEAD the function is called, and its body
/// left out.
///
/// `extra_headers` are those of the moment of this call. False where the request has its answer
/// already.
VINDRA_API bool answer_later(http_connection& conn, std::function<http_answer()> compute);
