// A gateway that relays strictly, between one client and its backends. The backends have what
// on_headers() has passed on, and nothing else; the client has one answer a request, in order.
//
// Input: a byte that names a step, then what the step needs: bytes for the client to send, up to
// 0xFF; or the number of a backend that closes. The other steps turn the loop.

#include "vindra/http/answer_reader.h"

#include "fuzz/relay_world.h"

namespace {

struct request {
    bool operator==(const request&) const = default;
    std::string target;
    std::string body;
};

// What the gateway has read: each request, whether it asked for a head alone, and the backend that
// has it, or -1.
struct passed {
    request asked;
    bool to_head;
    int backend;
};
std::vector<passed> read_requests;

class gateway : public http_proxy {
public:
    gateway() { relay_strictly(64); }
    void on_headers() override {
        read_requests.push_back({{url, ""}, method == "HEAD", -1});
        if (path == "/refuse") return refuse(403);
        if (path == "/answer") return answer(404, "", url);
        drop_header("X");
        add_header("X", "y");
        const std::size_t before = pipe->to_backend.size();
        const std::size_t made = backends.size();
        const proxy_pipe* const old = pipe;
        forward_to("127.0.0.1", path.starts_with("/b") ? 2 : 1);
        if (backends.size() > made) current_ = static_cast<int>(backends.size()) - 1;
        if (attached() && (pipe != old || pipe->to_backend.size() > before))
            read_requests.back().backend = current_;
    }
    void on_data(char* bytes, int length) override {
        read_requests.back().asked.body.append(bytes, static_cast<std::size_t>(length));
        http_proxy::on_data(bytes, length);
    }

private:
    int current_ = -1;
};

// The far end of a backend: another reader of the same rules, which answers with the target.
class service : public http_connection {
public:
    service() { read_strictly(64); }
    void on_headers() override {}
    void on_request() override {
        require(header("X") == "y", "a request has the line that was added");
        seen.push_back({url, data});
        answer(200, "", url);
    }
    std::string converse(const std::string& bytes) {
        if (!bytes.empty())
            on_recv(const_cast<char*>(bytes.data()), static_cast<int>(bytes.size()));
        require(!refuses(), "a backend has well-formed requests");
        std::string sent;
        for (int length = 1; length > 0;) {
            length = 0;
            on_send(send_buffer, send_buffer_size, &length);
            sent.append(send_buffer, static_cast<std::size_t>(length));
        }
        return sent;
    }
    std::vector<request> seen;
};

void serve(std::vector<std::unique_ptr<service>>& services) {
    while (services.size() < backends.size()) services.emplace_back(new service);
    for (std::size_t i = 0; i < backends.size(); ++i)
        send_some(backends[i], services[i]->converse(receive(backends[i])));
}

// What a backend has seen is the beginning of what was passed on to it.
void check(const service& s, int number) {
    std::size_t at = 0;
    for (const passed& p : read_requests) {
        if (p.backend != number || at == s.seen.size()) continue;
        require(s.seen[at++] == p.asked, "a backend has what was passed on");
    }
    require(at == s.seen.size(), "a backend has nothing else");
}

void check_answers(std::string_view bytes) {
    answer_reader reader;
    for (const passed& p : read_requests) {
        reader.begin(p.to_head);
        const std::string_view answer = bytes.substr(0, reader.read(bytes));
        if (!reader.is_complete()) return;
        bytes.remove_prefix(answer.size());
        const std::size_t head = answer.rfind("HTTP/1.1 ");
        const bool has_target =
            answer.substr(head + 9, 3) == "200" || answer.substr(head + 9, 3) == "404";
        require(!has_target || p.to_head || answer.ends_with("\r\n\r\n" + p.asked.target),
                "each answer belongs to its request");
    }
}

void play(source& in, world& w) {
    read_requests.clear();
    w.add_client(new gateway);
    std::vector<std::unique_ptr<service>> services;
    std::string at_client;
    while (!in.empty()) {
        switch (in.below(4)) {
        case 0:
        case 1:
            send_some(w.clients[0], in.until('\xFF'));
            break;
        case 2:
            if (!backends.empty())
                shutdown(backends[in.below(static_cast<unsigned>(backends.size()))], SHUT_RDWR);
            break;
        default:
            serve(services);
        }
        w.turn();
        at_client += receive(w.clients[0]);
    }
    for (int i = 0; i < 20; ++i) {
        w.turn();
        serve(services);
        at_client += receive(w.clients[0]);
    }
    for (std::size_t i = 0; i < services.size(); ++i) check(*services[i], static_cast<int>(i));
    check_answers(at_client);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 2048) return 0;
    source in(data, size);
    play_in_a_world([&in](world& w) { play(in, w); });
    return 0;
}
