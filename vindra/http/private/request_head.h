#pragma once

#include <optional>
#include <string_view>

/// What a request's head says about the message, by RFC 9112. For http_connection only.
struct request_head {
    /// Reads `block`: the request line and the header lines, each with its line end, without the
    /// blank line.
    explicit request_head(std::string_view block);

    /// Value of the first header line of exactly that name, in any letter case, without blanks
    /// around it.
    static std::optional<std::string_view> find(std::string_view name, std::string_view block);

    /// True if a header line of that name has `word` in its comma-separated list, in any letter
    /// case.
    static bool lists(std::string_view name, std::string_view word, std::string_view block);

    /// Status to refuse the request with, or 0.
    int refusal = 0;

    /// Announced length of the body. Larger numbers become the largest long long.
    long long content_length = 0;

    /// The client wants to use the connection again.
    bool keeps = false;

private:
    void read_request_line(std::string_view line);
    void read_line(std::string_view line);
    void read_field(std::string_view name, std::string_view value);
    void read_length(std::string_view value);
    void refuse(int status);

    bool is_old = false;
    bool says_close = false;
    bool says_keep = false;
    int hosts = 0;
    std::optional<long long> length;
};
