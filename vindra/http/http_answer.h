#pragma once

#include <string>

/// A whole answer: what http_connection::answer() takes.
struct http_answer {
    /// Status code, from 200 on.
    int status = 200;

    /// Content-Type; none when empty. Written as it is: no line ends.
    std::string content_type = {};

    /// Body, of any size.
    std::string body = {};
};
