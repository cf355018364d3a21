#pragma once

#include "vindra/http/worker_result.h"

#include <functional>
#include <string>

/// A result that is a whole answer, head and all. For the library's own use.
class late_answer : public worker_result {
public:
    /// Starts `compute` for the current request of `conn`.
    late_answer(const http_connection& conn, std::function<http_answer()> compute);

    /// The bytes to send once it is done.
    std::string text() const;

private:
    /// Taken from the request, which may be forgotten by then.
    std::string lines_;
    bool head_alone_;
};
