#include "vindra/http/worker_result.h"

#include "vindra/base/print.h"
#include "vindra/core/sockets.h"
#include "vindra/http/http_connection.h"
#include "vindra/http/private/late_answer.h"

#include <atomic>
#include <cassert>
#include <mutex>
#include <system_error>
#include <thread>
#include <typeinfo>
#include <utility>

#include <sys/eventfd.h>

struct worker_result::link_ {
    /// Locked by either side for a few instructions, never while the function runs.
    std::mutex mutex;

    /// Null once the result is gone.
    worker_result* result;
};

worker_result::worker_result(std::function<var()> compute) : thread_(std::make_shared<link_>()) {
    thread_->result = this;
    try {
        std::thread(run_, std::move(compute), thread_, sockets::bell()).detach();
    } catch (const std::system_error&) {
        base::puts("Warning! No thread to compute a result on.");
        done.store(true, std::memory_order_release);
    }
}

worker_result::~worker_result() {
    const std::lock_guard<std::mutex> lock(thread_->mutex);
    thread_->result = nullptr;
}

// Body of the thread. Destroys the function before the result is handed over, because the two may
// share something.
void worker_result::run_(std::function<var()> compute, const std::shared_ptr<link_>& link,
                         int bell) {
    var computed;
    try {
        computed = compute();
    } catch (...) {
        // Nobody here to tell. The answer stays null.
    }
    compute = nullptr;
    if (hand_over_(computed, *link)) eventfd_write(bell, 1);
}

// Returns false if the result is gone. Leaves `computed` null, as two handles of one body must not
// be released on two threads.
bool worker_result::hand_over_(var& computed, link_& link) {
    const std::lock_guard<std::mutex> lock(link.mutex);
    if (link.result == nullptr) return false;
    assert(!link.result->done.load(std::memory_order_relaxed));
    link.result->output = computed;
    computed.unref();
    link.result->done.store(true, std::memory_order_release);
    return true;
}

namespace {

// Its type tells parts made here from those of an application.
class late_body final : public worker_result {
public:
    using worker_result::worker_result;
};

bool is_made_here(const deferred_result& result) {
    return typeid(result) == typeid(late_body) || typeid(result) == typeid(late_answer);
}

// The time-out that the connection would have once all queued parts have left. Earlier parts made
// here no longer restore it, since another late answer follows. Parts of other makers stay as they
// are.
int take_restore_timeout(http_connection& conn) {
    int timeout = std::exchange(conn.timeout, -1);
    for (auto* node = conn.parts.head->next; node != nullptr; node = node->next) {
        http_connection::response_part* const part = node->value;
        if (part == nullptr || part->result == nullptr) continue;
        timeout = part->restore_timeout;
        if (is_made_here(*part->result)) part->restore_timeout = -1;
    }
    return timeout;
}

} // namespace

bool answer_later(http_connection& conn, std::string head, std::function<var()> compute) {
    if (conn.written || conn.version == "HTTP/1.0") return false;

    head += "Transfer-Encoding: chunked\r\n";
    conn.write(std::move(head), "");
    if (conn.method == "HEAD") return true;

    auto* const part = new http_connection::response_part;
    part->restore_timeout = take_restore_timeout(conn);
    part->result = new late_body(std::move(compute));
    conn.parts.add(part);
    return true;
}

namespace {

// If there is no answer, the output is null.
std::function<var()> packed(std::function<http_answer()> compute) {
    return [compute = std::move(compute)] {
        const http_answer answer = compute();
        var fields = var::array();
        fields.push(answer.status);
        fields.push(answer.content_type);
        fields.push(answer.body);
        return fields;
    };
}

} // namespace

late_answer::late_answer(const http_connection& conn, std::function<http_answer()> compute)
    : worker_result(packed(std::move(compute))), lines_(conn.common_lines_()),
      head_alone_(conn.method == "HEAD") {}

std::string late_answer::text() const {
    const int status = static_cast<int>(output.get(0).as_number());
    if (status < 200) return http_connection::answer_text_(500, "", "", lines_, head_alone_);
    return http_connection::answer_text_(status, output.get(1).as_string(),
                                         output.get(2).as_string(), lines_, head_alone_);
}

bool answer_later(http_connection& conn, std::function<http_answer()> compute) {
    if (conn.written) return false;

    auto* const part = new http_connection::response_part;
    part->restore_timeout = take_restore_timeout(conn);
    part->result = new late_answer(conn, std::move(compute));
    conn.parts.add(part);
    conn.written = true;
    conn.wake();
    return true;
}
