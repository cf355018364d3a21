// Looking up a header by its name, and a word in its lists, beside the same rules written down
// plainly.
//
// Input: a name and a word, each ended by a line feed; then the head of a request as a connection
// keeps it: the request line and header lines, each ended by a carriage return and a line feed.

#include "vindra/http/http_connection.h"
#include "vindra/http/private/request_head.h"

#include "fuzz/fuzz.h"

#include <memory>
#include <string>
#include <vector>

namespace {

std::string lower(std::string text) {
    for (char& c : text)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    return text;
}

std::string trim(std::string text) {
    const auto is_blank = [](char c) { return c == ' ' || c == '\t'; };
    while (!text.empty() && is_blank(text.front())) text.erase(0, 1);
    while (!text.empty() && is_blank(text.back())) text.pop_back();
    return text;
}

std::vector<std::string> split(const std::string& text, const std::string& mark) {
    std::vector<std::string> pieces;
    std::size_t from = 0;
    for (std::size_t at = 0; (at = text.find(mark, from)) != std::string::npos;
         from = at + mark.size())
        pieces.push_back(text.substr(from, at - from));
    pieces.push_back(text.substr(from));
    return pieces;
}

// Values of all lines of that name.
std::vector<std::string> plain_values(const std::string& name, const std::string& block) {
    std::vector<std::string> values;
    bool is_first = true;
    for (const std::string& line : split(block, "\r\n")) {
        const std::size_t colon = line.find(':');
        if (!is_first && colon != std::string::npos && lower(line.substr(0, colon)) == lower(name))
            values.push_back(trim(line.substr(colon + 1)));
        is_first = false;
    }
    return values;
}

bool plainly_lists(const std::vector<std::string>& values, const std::string& word) {
    for (const std::string& value : values) {
        std::vector<std::string> words = split(value, ",");
        // Nothing stands behind a comma at the end, nor in an empty value.
        if (words.back().empty()) words.pop_back();
        for (const std::string& listed : words)
            if (lower(trim(listed)) == lower(word)) return true;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::unique_ptr<http_connection> conn(new http_connection);
    source in(data, size);
    const std::string name(in.until('\n'));
    const std::string word(in.until('\n'));
    conn->headers = in.rest();

    const std::vector<std::string> values = plain_values(name, conn->headers);
    const auto found = conn->header(name);
    require(found.has_value() == !values.empty(), "a header is found where there is one");
    require(!found || *found == values.front(), "the first line of a name counts");
    require(request_head::lists(name, word, conn->headers) == plainly_lists(values, word),
            "a word is found in the lists of all lines");
    return 0;
}
