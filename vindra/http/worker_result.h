#pragma once

#include "vindra/base/export.h"
#include "vindra/http/deferred_result.h"
#include "vindra/http/http_answer.h"

#include <functional>
#include <memory>
#include <string>

class http_connection;

/// A deferred result that a function computes on its own thread, while the loop serves other
/// connections.
///
/// When the result is ready, the loop wakes at once (sockets::bell()). If the client leaves
/// earlier, the connection deletes the result. The function is neither stopped nor waited for: it
/// runs to its end, and its result is dropped.
///
/// Each result costs a thread: about 20 microseconds, and a few pages while it runs. Their number
/// is not limited. If clients can start many, count them and answer 503.
///
/// A thread that still runs when main() returns ends with the process. The library touches no
/// static object from it. The function must not do so either.
class VINDRA_API worker_result : public deferred_result {
public:
    /// Starts `compute` at once. Called on the loop's thread, like the destructor.
    ///
    /// A `var` counts its holders without a lock. So the function must not hold one (capture text
    /// instead), and the one it returns must not share its body with any other. The function is
    /// destroyed on its thread, before `done` is set. If it throws, or no thread can be started,
    /// `output` is null, which is sent as "null".
    explicit worker_result(std::function<var()> compute);

    ~worker_result() override;

private:
    struct link_;

    static void run_(std::function<var()> compute, const std::shared_ptr<link_>& link, int bell);
    static bool hand_over_(var& computed, link_& link);

    /// Between this object and its thread. Shared, because either may end first.
    std::shared_ptr<link_> thread_;
};

/// Answers the current request of `conn` with what `compute` returns, when it does. Queues `head`
/// (as for http_connection::write(), without length or transfer coding), and the result behind it.
///
/// The connection does not time out before the result leaves. Then `timeout` becomes what it was,
/// unless the connection was upgraded. A deferred part that the application queued earlier still
/// restores the time-out that its maker gave it.
///
/// For HEAD the head is the whole answer, and nothing is computed. A result of more than about 1
/// MiB is dropped with a warning, and an empty body sent.
///
/// Returns false, with nothing queued or computed, if the request has its answer already, or came
/// with HTTP/1.0, which has no chunked coding.
VINDRA_API bool answer_later(http_connection& conn, std::string head, std::function<var()> compute);

/// The same, but `compute` returns the whole answer. The body may have any size, and HTTP/1.0 is
/// served too. If the function throws, returns a status below 200, or cannot get a thread, the
/// answer is 500. For HEAD the function is called, and the body left out.
///
/// Takes `extra_headers` as they are at this call. Returns false if the request has its answer
/// already.
VINDRA_API bool answer_later(http_connection& conn, std::function<http_answer()> compute);
