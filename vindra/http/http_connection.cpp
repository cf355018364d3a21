// Construction and destruction of a connection, and questions about its current request.

#include "vindra/http/http_connection.h"

#include "vindra/base/find.h"
#include "vindra/core/ipv4_text.h"
#include "vindra/http/deferred_result.h"
#include "vindra/http/private/request_head.h"

#include <cstddef>
#include <cstdio>

#include <netinet/in.h>

namespace {

constexpr std::string_view line_end = "\r\n";

} // namespace

http_connection::http_connection() {
    quiet_when<http_connection>([](const http_connection& conn) { return conn.is_quiet(); });
}

http_connection::~http_connection() {
    while (parts.count > 0) drop_first_part_();
    if (upgraded) leave_channels_();
}

http_connection::response_part::~response_part() {
    if (file) std::fclose(file);
    delete result;
}

std::string http_connection::get_header(const std::string& name, const std::string& block) {
    std::string line_start(line_end);
    line_start += name;
    return std::string(find_header_(line_start, block));
}

// Skips two bytes behind the name, a colon and a blank, whatever they are.
std::string_view http_connection::find_header_(std::string_view line_start,
                                               std::string_view block) {
    const std::ptrdiff_t found = base::find(block, line_start);
    if (found < 0) return {};
    const std::size_t from = static_cast<std::size_t>(found) + line_start.size() + 2;
    if (from > block.size()) return {};
    const std::string_view tail = block.substr(from);
    return tail.substr(0, tail.find(line_end));
}

std::optional<std::string> http_connection::header(std::string_view name) const {
    const auto value = request_head::find(name, headers);
    return value ? std::optional<std::string>(*value) : std::nullopt;
}

std::string http_connection::info(bool with_agent) const {
    std::string line = peer_name_();
    line.reserve(line.size() + method.size() + url.size() + version.size() + 160);
    line += ':';
    line += std::to_string(port);
    for (const std::string* word : {&method, &url, &version}) {
        line += ' ';
        line += *word;
    }
    if (with_agent) {
        line += " [";
        line += find_header_("\r\nuser-agent", headers);
        line += ']';
    }
    return line;
}

std::string http_connection::peer_name_() const {
    if (address == htonl(INADDR_LOOPBACK)) {
        const std::string_view forwarded = find_header_("\r\nx-forwarded-for", headers);
        if (!forwarded.empty()) return std::string(forwarded);
    }
    return ipv4_text(address);
}
