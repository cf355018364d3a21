#include "vindra/proxy/redirector.h"

#include <string>

namespace {

std::string port_suffix(int port) {
    return port == 443 ? "" : ":" + std::to_string(port);
}

} // namespace

redirector::redirector() {
    quiet_when<redirector>([](const redirector& conn) { return conn.is_quiet(); });
}

int& redirector::ssl_port() {
    static int port = 443;
    return port;
}

void redirector::on_request() {
    const std::string authority = get_header("host", headers);
    const std::string host = authority.substr(0, authority.find(':'));
    write("HTTP/1.1 301 Moved Permanently\r\nLocation: https://" + host + port_suffix(ssl_port()) +
              path + "\r\nConnection: close\r\n",
          "");
    // Not before write(), which adds a Content-Length only to the answer of a kept connection.
    keep_alive = false;
}
