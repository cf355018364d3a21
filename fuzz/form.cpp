// Forms beside the same rules written down plainly, and beside their own encoding.
//
// Input: the text of a form, all of it: pairs name=value with & between them, %XX for any byte and
// + for a blank.

#include "vindra/base/form.h"

#include "fuzz/fuzz.h"
#include "fuzz/utf8.h"

#include <cctype>
#include <optional>
#include <vector>

namespace {

std::string plain_percent_decode(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const std::string digits = text.substr(i + 1, 2);
        if (text[i] != '%' || digits.size() < 2 || !std::isxdigit(int(std::uint8_t(digits[0]))) ||
            !std::isxdigit(int(std::uint8_t(digits[1])))) {
            out += text[i];
        } else {
            out += static_cast<char>(std::stoi(digits, nullptr, 16));
            i += 2;
        }
    }
    return out;
}

std::string encode(const std::string& text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<std::uint8_t>(c);
        if (c == ' ') {
            out += '+';
        } else if (std::isalnum(int(byte))) {
            out += c;
        } else {
            out += {'%', "0123456789ABCDEF"[byte / 16], "0123456789abcdef"[byte % 16]};
        }
    }
    return out;
}

void is_text(const std::string& text) {
    for (const std::uint32_t c : code_points_of(text))
        require(c <= 0x10FFFF, "names and values are UTF-8");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    require(base::percent_decode(text) == plain_percent_decode(text), "percent-decoding is plain");

    const base::form form(text);
    std::string again;
    for (const auto& [name, value] : form.pairs) {
        is_text(name);
        is_text(value);
        again += "&" + encode(name) + "=" + encode(value);
    }
    require(base::form(again).pairs == form.pairs, "what is encoded again reads the same");

    std::size_t pieces = 0;
    for (source in(data, size); !in.empty();) pieces += in.until('&').empty() ? 0 : 1;
    require(form.pairs.size() == pieces, "as many pairs as pieces that are not empty");
    for (const auto& pair : form.pairs)
        require(form.get(pair.first) == form.get_all(pair.first).front(), "the first one is found");
    return 0;
}
