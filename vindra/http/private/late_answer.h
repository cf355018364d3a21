#pragma once

#include "vindra/http/worker_result.h"

#include <functional>
#include <string>

/// A result that is a whole answer, with its head. For the library only.
class late_answer : public worker_result {
public:
    /// Starts `compute` for the current request of `conn`.
    late_answer(const http_connection& conn, std::function<http_answer()> compute);

    /// Bytes to send. Call it once `done` is set.
    std::string text() const;

private:
    /// Copied from the request, which may be gone when the result is done.
    std::string lines_;
    bool head_alone_;
};
