// The search with wildcards beside one that follows every possibility, and header look-ups.
//
// Input: a byte (modulo 4 it is 0: letter case counts), the place to start at, a pattern of at most
// 24 bytes up to a newline, and the text: the rest of the first 600 bytes.

#include "vindra/base/find.h"

#include "vindra/http/http_connection.h"

#include "fuzz/fuzz.h"

#include <vector>

namespace {

bool same(char a, char b) {
    const auto fold = [](char c) {
        return c >= 'A' && c <= 'Z' && base::find_case_insensitive() ? static_cast<char>(c + 32)
                                                                     : c;
    };
    return fold(a) == fold(b);
}

// Does the pattern match some run of bytes that begins at `from`? Keeps the set of places in the
// pattern that can be reached.
bool matches_at(std::string_view text, std::string_view pattern, std::size_t from) {
    std::vector<bool> reached(pattern.size() + 1);
    const auto close = [&] {
        for (std::size_t i = 0; i < pattern.size(); ++i)
            if (reached[i] && pattern[i] == '*') reached[i + 1] = true;
    };
    reached[0] = true;
    close();
    for (std::size_t at = from; !reached[pattern.size()] && at < text.size(); ++at) {
        std::vector<bool> next(pattern.size() + 1);
        for (std::size_t i = 0; i < pattern.size(); ++i) {
            if (!reached[i]) continue;
            if (pattern[i] == '*')
                next[i] = true;
            else if (pattern[i] == '?' || same(pattern[i], text[at]))
                next[i + 1] = true;
        }
        reached = next;
        close();
    }
    return reached[pattern.size()];
}

std::ptrdiff_t find_plainly(std::string_view text, std::string_view pattern, std::size_t from) {
    for (std::size_t at = from; at <= text.size(); ++at)
        if (matches_at(text, pattern, at)) return static_cast<std::ptrdiff_t>(at);
    return -1;
}

// The value as the algorithm's own words have it.
std::string header_plainly(const std::string& name, const std::string& block) {
    const std::string pattern = "\r\n" + name;
    const std::ptrdiff_t found = find_plainly(block, pattern, 0);
    if (found < 0) return "";
    const std::size_t start = static_cast<std::size_t>(found) + pattern.size() + 2;
    if (start > block.size()) return "";
    return block.substr(start, block.find("\r\n", start) - start);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    source in(data, std::min<std::size_t>(size, 600));
    base::find_case_insensitive() = in.below(4) != 0;
    const std::size_t from = in.byte();
    const std::string pattern(in.until('\n').substr(0, 24));
    const std::string text(in.rest());

    require(base::find(text, pattern, from) == find_plainly(text, pattern, from),
            "the first match is found, and no other");
    require(http_connection::get_header(pattern, text) == header_plainly(pattern, text),
            "a header has the value that a plain search gives");
    base::find_case_insensitive() = true;
    return 0;
}
