// URLs and international host names beside the same rules written down plainly; Punycode beside the
// walk of RFC 3492 over the whole text for each code point, and beside libidn where it is there and
// the two agree on what there is to encode.
//
// Input: a URL, or a host name, all of it; what lies beyond 2,048 bytes is only encoded, not
// compared. UTF-8, right or wrong.

#include "vindra/base/punycode.h"
#include "vindra/base/split_url.h"

#include "fuzz/fuzz.h"
#include "fuzz/utf8.h"

#include <cstdlib>
#include <cstring>
#include <vector>

#ifdef VINDRA_HAS_LIBIDN
#include <punycode.h>
#endif

namespace {

using points = std::vector<std::uint32_t>;

// Section 6.1.
std::uint32_t adapt(std::uint32_t delta, std::uint32_t count, bool first) {
    delta = first ? delta / 700 : delta / 2;
    delta += delta / count;
    std::uint32_t k = 0;
    for (; delta > 455; k += 36) delta /= 35;
    return k + 36 * delta / (delta + 38);
}

// Section 6.3 without its checks for overflow, on 32 bits that wrap. What is no code point is the
// largest number there is, and comes last.
std::string plain_punycode(const points& text) {
    std::string out;
    for (const std::uint32_t c : text)
        if (c < 0x80) out += static_cast<char>(c);
    const auto basic = static_cast<std::uint32_t>(out.size());
    if (basic == text.size()) return out;
    if (basic > 0) out += '-';

    std::uint32_t n = 0x80;
    std::uint32_t delta = 0;
    std::uint32_t bias = 72;
    for (std::uint32_t done = basic; done < text.size(); ++delta, ++n) {
        std::uint32_t next = no_code_point;
        for (const std::uint32_t c : text)
            if (c >= n && c < next) next = c;
        delta += (next - n) * (done + 1);
        n = next;
        for (const std::uint32_t c : text) {
            if (c < n) ++delta;
            if (c != n) continue;
            std::uint32_t q = delta;
            for (std::uint32_t k = 36;; k += 36) {
                const std::uint32_t t = k <= bias ? 1 : k >= bias + 26 ? 26 : k - bias;
                if (q < t) break;
                out += "abcdefghijklmnopqrstuvwxyz0123456789"[t + (q - t) % (36 - t)];
                q = (q - t) / (36 - t);
            }
            out += "abcdefghijklmnopqrstuvwxyz0123456789"[q];
            bias = adapt(delta, done + 1, done == basic);
            delta = 0;
            ++done;
        }
    }
    return out;
}

#ifdef VINDRA_HAS_LIBIDN
void compare_with_libidn(const points& text, const std::string& encoded) {
    bool ascii = true;
    for (const std::uint32_t c : text) {
        if (c > 0x10FFFF) return;
        ascii &= c < 0x80;
    }
    // RFC 3492 puts a delimiter behind text that is all ASCII, ours does not.
    if (ascii) return;
    std::string expected(encoded.size() + 64, '\0');
    std::size_t length = expected.size();
    if (punycode_encode(text.size(), text.data(), nullptr, &length, expected.data()) !=
        PUNYCODE_SUCCESS)
        return;
    expected.resize(length);
    require(encoded == expected, "Punycode is that of libidn");
}
#endif

std::string plain_host(const std::string& host) {
    std::string ascii;
    std::string label;
    const auto finish_label = [&] {
        label = label.c_str(); // a zero byte cuts it short
        const std::string encoded = plain_punycode(code_points_of(label));
        ascii += encoded == label ? label : "xn--" + encoded;
        label.clear();
    };
    for (const char c : host) {
        if (c != '.') {
            label += c;
            continue;
        }
        finish_label();
        ascii += '.';
    }
    finish_label();
    return ascii;
}

struct plain_url {
    explicit plain_url(const std::string& url) {
        std::string rest = url;
        const std::size_t mark = url.find("://");
        if (mark != std::string::npos && mark >= 1) {
            scheme = url.substr(0, mark);
            rest = url.substr(mark + 3);
        } else if (url.substr(0, 2) == "//") {
            scheme = "https";
            rest = url.substr(2);
        }
        if (const std::size_t slash = rest.find('/'); slash != std::string::npos && slash >= 1) {
            path = rest.substr(slash);
            rest = rest.substr(0, slash);
        }
        port = scheme == "https" ? 443 : scheme == "ftp" ? 21 : 80;
        if (const std::size_t colon = rest.find(':'); colon != std::string::npos && colon >= 1) {
            const std::string digits = rest.substr(colon + 1);
            port = static_cast<int>(std::strtol(digits.c_str(), nullptr, 10));
            rest = rest.substr(0, colon);
        }
        host = plain_host(rest);
    }

    std::string scheme = "http";
    std::string host;
    int port;
    std::string path = "/";
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string all(reinterpret_cast<const char*>(data), size);
    base::punycode(all); // however long it is, this ends in time
    const std::string text = all.substr(0, 2048);

    const split_url url(text);
    const plain_url plain(text);
    require(url.scheme == plain.scheme, "the scheme");
    require(url.host == plain.host, "the host");
    require(url.port == plain.port, "the port");
    require(url.path == plain.path, "the path");
    require(split_url::utf8_to_idn(text) == plain_host(text), "a host's labels");

    const points decoded = code_points_of(text);
    const std::string encoded = base::punycode(text);
    require(encoded == plain_punycode(decoded), "Punycode is that of the plain walk");
#ifdef VINDRA_HAS_LIBIDN
    compare_with_libidn(decoded, encoded);
#endif
    return 0;
}
