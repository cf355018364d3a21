// URLs and international host names, Punycode beside libidn.

#include "vindra/base/punycode.h"
#include "vindra/base/split_url.h"
#include "vindra/base/utf8_decode.h"

#include "fuzz/fuzz.h"

#include <cstring>
#include <vector>

#ifdef VINDRA_HAS_LIBIDN
#include <punycode.h>
#endif

namespace {

#ifdef VINDRA_HAS_LIBIDN
// Compares where the two agree on what there is to encode: valid text that is not all ASCII.
void compare_with_libidn(const std::string& label, const std::string& encoded) {
    std::vector<punycode_uint> points;
    bool plain = true;
    for (const char* p = label.c_str(); *p != '\0';) {
        int length = 0;
        const int point = base::utf8_decode(p, &length);
        if (point < 0 || point > 0x10FFFF) return;
        plain &= point < 0x80;
        points.push_back(static_cast<punycode_uint>(point));
        p += length;
    }
    if (plain) return;

    std::string expected(encoded.size() + 64, '\0');
    std::size_t length = expected.size();
    if (punycode_encode(points.size(), points.data(), nullptr, &length, expected.data()) !=
        PUNYCODE_SUCCESS)
        return;
    expected.resize(length);
    // Without ASCII in it, RFC 3492 writes no delimiter, and neither does the library.
    require(encoded == expected, "Punycode is that of libidn");
}
#endif

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), std::min<std::size_t>(size, 4096));
    const split_url url(text);
    require(url.path.starts_with("/"), "a path begins with a slash");
    require(text.find("://") != std::string::npos || url.scheme == "http" || url.scheme == "https",
            "without a scheme there are two that it can be");
    require(split_url::utf8_to_idn(url.host).size() >= url.host.size() ||
                url.host.find('\0') != std::string::npos,
            "a host that is converted stays as it is or grows");

    const std::string label(text.c_str());
    const std::string encoded = base::punycode(label);
    const bool ascii = std::all_of(label.begin(), label.end(),
                                   [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    require(!ascii || encoded == label, "ASCII stays as it is");
    require(std::all_of(encoded.begin(), encoded.end(),
                        [](char c) { return static_cast<unsigned char>(c) < 0x80; }),
            "Punycode is ASCII");
#ifdef VINDRA_HAS_LIBIDN
    compare_with_libidn(label, encoded);
#endif
    return 0;
}
