#include "vindra/http/answer_reader.h"

#include "vindra/http/private/request_head.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>
#include <vector>

namespace {

constexpr std::string_view line_end = "\r\n";

// A longer head or line is not kept; the answer then lasts until its sender closes.
constexpr std::size_t longest_text = 65536;

// The number at the start of `text`, with `rest` set to what follows it; nothing where there is
// none, or one too large.
std::optional<std::uint64_t> number(std::string_view text, int base, std::string_view& rest) {
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc()) return std::nullopt;
    rest = text.substr(static_cast<std::size_t>(end - text.data()));
    return value;
}

// A line that begins with a blank goes on from the last one, as readers of today do not expect.
bool has_folded_line(std::string_view head) {
    return head.find("\r\n ") != std::string_view::npos ||
           head.find("\r\n\t") != std::string_view::npos;
}

std::vector<std::string_view> values_of(std::string_view name, std::string_view head) {
    std::vector<std::string_view> values;
    while (const auto value = request_head::find(name, head)) {
        values.push_back(*value);
        if (value->empty()) break;
        head.remove_prefix(static_cast<std::size_t>(value->data() - head.data()));
    }
    return values;
}

// The length that all of `values` name; nothing where there is none, or no number that all agree
// on.
std::optional<std::uint64_t> agreed_length(const std::vector<std::string_view>& values) {
    std::optional<std::uint64_t> length;
    for (const std::string_view value : values) {
        std::string_view rest;
        const auto found = number(value, 10, rest);
        if (!found || !rest.empty() || (length && *length != *found)) return std::nullopt;
        length = found;
    }
    return length;
}

} // namespace

void answer_reader::begin(bool to_head_request) {
    state_ = state::head;
    text_.clear();
    to_head_request_ = to_head_request;
}

std::size_t answer_reader::read(std::string_view bytes) {
    const std::size_t offered = bytes.size();
    while (!bytes.empty() && state_ != state::complete) {
        switch (state_) {
        case state::body:
        case state::chunk: {
            const auto count = std::min<std::uint64_t>(remaining_, bytes.size());
            bytes.remove_prefix(static_cast<std::size_t>(count));
            remaining_ -= count;
            if (remaining_ == 0)
                state_ = state_ == state::body ? state::complete : state::chunk_end;
            break;
        }
        case state::head:
        case state::size:
        case state::chunk_end:
        case state::trailer:
            if (take_line_(bytes)) act_on_line_();
            break;
        case state::until_close:
        case state::complete:
            return offered;
        }
    }
    return offered - bytes.size();
}

// True when a line is complete, with all that stands in front of it in `text_`.
bool answer_reader::take_line_(std::string_view& bytes) {
    const std::size_t end = bytes.find('\n');
    const std::string_view piece = bytes.substr(0, end == std::string_view::npos ? end : end + 1);
    text_ += piece;
    bytes.remove_prefix(piece.size());
    if (text_.size() > longest_text) state_ = state::until_close;
    return end != std::string_view::npos && state_ != state::until_close;
}

void answer_reader::act_on_line_() {
    // Some clients take a bare line feed for a line end and some do not.
    if (!text_.ends_with(line_end)) {
        state_ = state::until_close;
        return;
    }
    if (state_ == state::head && !text_.ends_with("\r\n\r\n")) return;

    const std::string text = std::exchange(text_, {});
    const bool blank = text == line_end;
    if (state_ == state::head) {
        read_head_(text);
    } else if (state_ == state::size) {
        read_size_(text);
    } else if (state_ == state::trailer) {
        if (blank) state_ = state::complete;
    } else {
        state_ = blank ? state::size : state::until_close;
    }
}

void answer_reader::read_head_(std::string_view head) {
    head.remove_suffix(line_end.size());
    std::string_view rest;
    const bool is_http = head.starts_with("HTTP/1.") && head.size() > 12 && head[8] == ' ';
    const auto status = is_http ? number(head.substr(9, 3), 10, rest) : std::nullopt;
    state_ = state::until_close;
    if (!status || !rest.empty() || *status == 101 || has_folded_line(head)) return;

    const auto codings = values_of("transfer-encoding", head);
    const auto lengths = values_of("content-length", head);
    const auto length = agreed_length(lengths);
    const auto options = values_of("connection", head);
    is_last_ = head[7] == '0' || (!options.empty() && options[0] == "close");
    if (*status < 200) {
        state_ = state::head;
    } else if (to_head_request_ || *status == 204 || *status == 304) {
        state_ = state::complete;
    } else if (codings.empty() && length) {
        remaining_ = *length;
        state_ = remaining_ == 0 ? state::complete : state::body;
    } else if (codings.size() == 1 && codings[0] == "chunked" && lengths.empty()) {
        state_ = state::size;
    }
}

// A size may have extensions behind it, which say nothing of the length.
void answer_reader::read_size_(std::string_view line) {
    std::string_view rest;
    const auto size = number(line, 16, rest);
    state_ = state::until_close;
    if (!size || std::string_view("\r; \t").find(rest.front()) == std::string_view::npos) return;
    remaining_ = *size;
    state_ = remaining_ == 0 ? state::trailer : state::chunk;
}
