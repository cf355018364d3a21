#include "vindra/base/split_url.h"

#include "vindra/base/punycode.h"
#include "vindra/base/var.h"

#include <cstdlib>

namespace {

// True if a separator was found and something stands before it.
bool splits(std::size_t separator) {
    return separator != std::string::npos && separator > 0;
}

int default_port(const std::string& scheme) {
    if (scheme == "https") return 443;
    if (scheme == "ftp") return 21;
    return 80;
}

std::string label_to_idn(const std::string& label) {
    const std::string encoded = base::punycode(label);
    return encoded == label ? label : "xn--" + encoded;
}

} // namespace

split_url::split_url(std::string const& url) : scheme("http"), path("/") {
    std::string remainder = url;
    if (const std::size_t colon = url.find("://"); splits(colon)) {
        scheme = url.substr(0, colon);
        remainder.erase(0, colon + 3);
    } else if (url.starts_with("//")) {
        scheme = "https";
        remainder.erase(0, 2);
    }

    if (const std::size_t slash = remainder.find('/'); splits(slash)) {
        path = remainder.substr(slash);
        remainder.erase(slash);
    }

    if (const std::size_t colon = remainder.find(':'); splits(colon)) {
        // strtol() gives 0 without digits and ignores what follows them.
        port = static_cast<int>(std::strtol(remainder.c_str() + colon + 1, nullptr, 10));
        remainder.erase(colon);
    } else {
        port = default_port(scheme);
    }
    host = utf8_to_idn(remainder);
}

std::string split_url::utf8_to_idn(std::string const& host) {
    const var labels = var(host).split(".");
    std::string ascii;
    for (int i = 0; i < labels.size(); ++i) {
        if (i > 0) ascii += '.';
        ascii += label_to_idn(labels.get(i));
    }
    return ascii;
}
