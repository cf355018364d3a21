#pragma once

#include "vindra/base/export.h"
#include "vindra/base/var.h"

#include <atomic>

/// An answer that a worker finishes later, perhaps on another thread.
///
/// Queue a head with "Transfer-Encoding: chunked", and behind it a response_part that points at the
/// result. http_connection::on_send() looks at `done` once a turn, and sends `output` as the only
/// chunk.
///
/// The part owns the result and deletes it on the loop's thread. If the client leaves, that happens
/// before the result is done. A worker on another thread must not touch the result after that; the
/// derived class has to see to it, for example by waiting in its destructor.
///
/// A `var` counts its holders without a lock, so `output` must not share anything with values that
/// the worker keeps.
class VINDRA_API deferred_result {
public:
    deferred_result() = default;
    deferred_result(const deferred_result&) = delete;
    deferred_result& operator=(const deferred_result&) = delete;
    virtual ~deferred_result() = 0;

    /// The result is finished. The worker stores true, in release order, when `output` is complete.
    /// The loop reads it in acquire order.
    std::atomic<bool> done = false;

    /// What to send, converted to text. The loop does not touch it before `done`.
    var output;
};

inline deferred_result::~deferred_result() = default;
