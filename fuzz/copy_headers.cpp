// The lines that go to a backend beside a plain reading of the rule.
//
// Input: a request's headers, all of it. The first line is the one that is never copied; a line
// ends with CR LF.

#include "vindra/proxy/http_proxy.h"

#include "fuzz/fuzz.h"

namespace {

std::string copy_plainly(const std::string& headers) {
    std::string kept;
    std::size_t end = headers.find("\r\n");
    if (end == std::string::npos || end == 0) return kept;
    while (true) {
        const std::size_t start = end + 2;
        end = headers.find("\r\n", start + 2);
        if (end == std::string::npos) return kept;
        const std::string line = headers.substr(start, end - start);
        if (line.rfind("Proxy", 0) != 0 && line.rfind("Connection", 0) != 0) kept += line + "\r\n";
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string headers(reinterpret_cast<const char*>(data), size);
    const std::string kept = http_proxy::copy_headers(headers);
    require(kept == copy_plainly(headers), "exactly the other lines are kept");
    require(kept.size() <= headers.size(), "nothing is added");
    return 0;
}
