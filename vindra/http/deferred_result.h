#pragma once

#include "vindra/base/export.h"
#include "vindra/base/var.h"

#include <atomic>

/// An answer that a worker finishes later, perhaps on another thread.
///
/// Queue a response_part that points at one behind a head whose transfer-encoding is chunked:
/// http_connection::on_send() asks `done` once a turn and sends `output` as the only chunk.
/// The part owns the result and deletes it on the loop's thread, possibly before it is done,
/// because the client has gone: a worker on another thread must not touch it after that, and
/// seeing to it (by waiting in the destructor, say) is the derived class's business.
///
/// A `var` counts its holders without a lock: hand over an `output` that shares nothing with
/// values that the worker keeps.
class VINDRA_API deferred_result {
public:
    deferred_result() = default;
    deferred_result(const deferred_result&) = delete;
    deferred_result& operator=(const deferred_result&) = delete;
    virtual ~deferred_result() = 0;

    /// The result is finished. The worker stores true with release order after `output` is
    /// complete; the loop reads it with acquire order.
    std::atomic<bool> done = false;

    /// What is sent, converted to text. The loop does not look at it before `done`.
    var output;
};

inline deferred_result::~deferred_result() = default;
