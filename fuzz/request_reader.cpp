// Requests in arbitrary pieces: the hooks see what they see when each message comes whole.

#include "fuzz/fuzz.h"
#include "tests/support/drain.h"
#include "tests/support/feed.h"
#include "tests/support/recording_connection.h"

#include <memory>
#include <string>

namespace {

// The parts that do not depend on where the bytes were cut. Blocks behind a request that is not
// kept bring a call of on_request() each, and what arrives together with a request is its body,
// so the comparison is of one message alone.
std::string seen(const recording_connection& c) {
    std::string text = c.method_seen + "|" + c.url_seen + "|" + c.version_seen + "|" + c.path_seen;
    text += "|" + c.query_seen + "|" + c.cookie_seen + "|" + c.headers_seen + "|";
    text += std::to_string(c.content_length_seen) + (c.keep_alive ? " kept" : " ended");
    text += c.upgraded ? " upgraded" : "";
    return text;
}

std::unique_ptr<recording_connection> fresh() {
    return std::make_unique_for_overwrite<recording_connection>();
}

// What the head is when it is looked for from the start each time.
std::string::size_type end_of_head(const std::string& all) {
    const auto end = all.find("\r\n\r\n");
    return end == 0 ? std::string::npos : end;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silence();
    source in(data, size);
    const unsigned cut = in.byte() + 1;
    const bool sockets_taken = in.below(2) != 0;
    const std::string wire(in.rest());

    const auto end = end_of_head(wire);
    const std::string head = end == std::string::npos ? wire : wire.substr(0, end + 4);

    auto whole = fresh();
    auto pieces = fresh();
    whole->websockets = pieces->websockets = sockets_taken;
    if (!head.empty()) feed(*whole, head);
    feed(*pieces, head, cut);
    require(seen(*whole) == seen(*pieces), "a head in pieces is read as a whole one");
    require(whole->calls == pieces->calls, "the hooks are called alike");
    require((!whole->calls.empty() || whole->written) == (end != std::string::npos),
            "a head ends where a search from the start finds its end");
    require(drain(*whole).bytes() == drain(*pieces).bytes(), "the answers are the same");

    // All the rest as well, for whatever it does.
    auto all = fresh();
    feed(*all, wire, cut);
    drain(*all);
    return 0;
}
