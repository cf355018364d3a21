#pragma once

#include <string>

/// A whole answer, as http_connection::answer() takes it.
struct http_answer {
    /// Status code, from 200 on.
    int status = 200;

    /// Content-Type; none if empty. Must not contain line ends.
    std::string content_type = {};

    /// Body of any size.
    std::string body = {};
};
