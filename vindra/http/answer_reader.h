#pragma once

#include "vindra/base/export.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Finds the end of an answer while its bytes pass by (RFC 9112, section 6.3). For relays.
///
/// If the framing is unclear, the answer lasts until its sender closes. That is safe: no later byte
/// is taken for another answer.
class VINDRA_API answer_reader {
public:
    /// Expects the next answer. An answer to HEAD has no body.
    void begin(bool to_head_request);

    /// Looks at the next bytes and returns how many of them belong to the answer.
    std::size_t read(std::string_view bytes);

    /// True once the whole answer has been read, and before the first begin().
    bool is_complete() const { return state_ == state::complete; }

    /// True if the sender is going to close behind the answer.
    bool is_last() const { return is_last_; }

    /// True once part of the answer has been read. Interim answers, such as 100, do not count.
    bool has_begun() const { return state_ != state::head || !text_.empty(); }

private:
    // head -> body                                   -> complete
    // head -> size -> chunk -> chunk_end -> size ...
    //         size -> trailer                        -> complete
    // head, size, chunk_end, trailer -> until_close     where the framing is not clear
    enum class state { head, body, size, chunk, chunk_end, trailer, until_close, complete };

    bool take_line_(std::string_view& bytes);
    void act_on_line_();
    void read_head_(std::string_view head);
    void read_size_(std::string_view line);

    state state_ = state::complete;
    bool to_head_request_ = false;
    bool is_last_ = false;
    /// Bytes still to come of the body or of the chunk.
    std::uint64_t remaining_ = 0;
    /// The head as far as it has come, or the line.
    std::string text_;
};
