#include "vindra/proxy/reverse_proxy.h"

#include "vindra/base/num.h"
#include "vindra/base/print.h"
#include "vindra/core/ipv4_text.h"

reverse_proxy::reverse_proxy() {
    quiet_when<reverse_proxy>([](const reverse_proxy& conn) { return conn.is_quiet(); });
    move_blocks_();
}

base::hashmap<int>& reverse_proxy::hosts() {
    static base::hashmap<int> h;
    return h;
}

void reverse_proxy::on_headers() {
    drop_unread();
    const std::string host = get_header("host", headers);
    const int mapped_port = hosts().get(host);
    std::string line = "[";
    line += host;
    line += "] ";
    line += info(true);
    base::puts(line.c_str());

    switch (mapped_port) {
    case echo_port:
        answer_with_echo_();
        break;
    case 0:
        answer_not_found();
        break;
    default:
        forward_to_(mapped_port);
    }
}

void reverse_proxy::answer_with_echo_() {
    const std::string body = headers + "\r\nYour IPv4 address is: " + ipv4_text(address);
    pipe->to_client += "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " +
                       base::num(static_cast<double>(body.size())) + "\r\n\r\n" + body;
}

void reverse_proxy::forward_to_(int mapped_port) {
    // Every backend is on this machine, so the port alone identifies it. `backend_host` stays as it
    // is.
    if (!use_backend("localhost", mapped_port, backend_host)) return;

    // The address comes in a line of its own behind all others. So a backend can tell it from a
    // line that the client sent.
    base::byte_queue& request = pipe->to_backend;
    for (const std::string* word : {&method, &url}) {
        request += *word;
        request += " ";
    }
    request += version;
    request += "\r\n";
    request += copy_headers(headers);
    request += "X-Forwarded-For: ";
    request += ipv4_text(address);
    request += "\r\n\r\n";
}
