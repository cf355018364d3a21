// Several clients of a reverse_proxy and their backends in well-formed conversations. What each end
// has to receive is known to the byte, and so is who has to be turned away, attached and closed.
// Before each deed the relay comes to rest, so that what it knows of its ends is what they did.
//
// Input: a byte whose lowest bit chooses the walk, then at most 60 deeds. A deed is a byte modulo 8
// (0 another client, 1 and 2 a request, 3 and 4 an answer, 5 a backend leaves, 6 a client leaves, 7
// time passes) with its own bytes behind it: who, a host, lengths.

#include "fuzz/relay_world.h"

namespace {

constexpr const char* not_found =
    "HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nContent-Length: 0\r\n\r\n";
constexpr const char* bad_gateway = "HTTP/1.1 502 Bad Gateway\r\nContent-Type: text/plain\r\n"
                                    "Connection: close\r\n\r\nUnable to connect";

// What a client sends before the time-out of those without a backend.
constexpr std::time_t idle_seconds = 10;

// One of the script's ends: what it is to receive, and what it has received.
struct far_side {
    explicit far_side(int socket) : fd(socket) {}

    // True when something has come.
    bool read() {
        if (!open || ended) return false;
        const std::size_t before = got.size();
        got += receive(fd);
        char byte;
        ended = recv(fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
        return got.size() > before || ended;
    }

    // Sends all of `bytes` with turns of the relay between where the socket is full.
    void send(world& w, std::string_view bytes) const {
        for (int turns = 0; !bytes.empty(); ++turns) {
            require(turns < 10000, "the relay takes what is sent");
            bytes.remove_prefix(send_some(fd, bytes).size());
            if (!bytes.empty()) w.turn();
        }
    }

    int fd;
    std::string due;
    std::string got;
    // The script has neither closed nor shut down its end.
    bool open = true;
    // The relay has closed, and is to close, the other one.
    bool ended = false;
    bool to_end = false;
};

struct client_side : far_side {
    using far_side::far_side;
    // Its backend's number, and the name that leads there; -1 while it has had none.
    int backend = -1;
    char host = 0;
    std::time_t last_active = now;
};

class conversation {
public:
    conversation(source& in, world& w) : in_(in), world_(w) { add_client(); }

    void go_on() {
        switch (in_.below(8)) {
        case 0:
            if (clients_.size() < 6) add_client();
            break;
        case 1:
        case 2:
            ask(in_.below(256) % clients_.size());
            break;
        case 3:
        case 4:
            if (!backends_.empty()) answer(in_.below(256) % backends_.size());
            break;
        case 5:
            if (!backends_.empty()) leave(backends_[in_.below(256) % backends_.size()]);
            break;
        case 6:
            leave(clients_[in_.below(256) % clients_.size()]);
            break;
        default:
            now += in_.below(13);
        }
        come_to_rest();
    }

private:
    void add_client() {
        world_.add_client();
        clients_.emplace_back(world_.clients.back());
        come_to_rest();
    }

    // A request, perhaps with a body, in two pieces.
    void ask(std::size_t who) {
        client_side& client = clients_[who];
        if (!client.open || client.to_end) return;
        const unsigned where = in_.below(6);
        const std::string host = where < 3    ? std::string(1, "abc"[where])
                                 : where == 3 ? "echo"
                                 : where == 4 ? "nobody"
                                              : "a";
        no_socket = where == 5;
        const std::string body = pattern(some_length(250));
        const unsigned odd_lines = in_.byte();
        const std::string line = "POST /" + std::to_string(requests_++) + "?q HTTP/1.1\r\n";
        std::string kept = "Host: " + host + "\r\n";
        if (!body.empty()) kept += "Content-Length: " + std::to_string(body.size()) + "\r\n";
        if ((odd_lines & 1) != 0) kept += "X-Forwarded-For: 9.9.9.9\r\n";
        const std::string dropped = (odd_lines & 2) != 0 ? "Connection: close\r\n" : "";
        const std::string request = line + dropped + kept + "\r\n" + body;

        client.last_active = now;
        const bool stays = where < 3 && attached(client) && client.host == "abc"[where];
        expect_request(client, where, line + kept, line + dropped + kept, body);
        const std::size_t cut = in_.number() % request.size();
        client.send(world_, std::string_view(request).substr(0, cut));
        world_.turn();
        // The answer to an earlier request comes in between.
        if (stays) push(static_cast<std::size_t>(client.backend), in_.byte());
        client.send(world_, std::string_view(request).substr(cut));
        come_to_rest();
        no_socket = false;
    }

    void expect_request(client_side& client, unsigned where, const std::string& forwarded,
                        const std::string& head, const std::string& body) {
        const std::string at_backend = forwarded + "X-Forwarded-For: 0.0.0.0\r\n\r\n" + body;
        if (where == 3 || where == 4) {
            client.due += where == 4 ? not_found : echo(head);
            // A body goes where the requests before went.
            if (attached(client)) backends_[backend_of(client)].due += body;
            return;
        }
        const char host = "abcdea"[where];
        if (attached(client) && client.host == host) {
            backends_[backend_of(client)].due += at_backend;
            return;
        }
        if (attached(client)) backends_[backend_of(client)].to_end = true;
        if (no_socket) {
            client.backend = -1;
            client.due += bad_gateway;
            client.to_end = true;
            return;
        }
        client.backend = static_cast<int>(backends_.size());
        client.host = host;
        backends_.emplace_back(-1);
        backends_.back().due = at_backend;
    }

    static std::string echo(const std::string& head) {
        const std::string body = head + "\r\nYour IPv4 address is: 0.0.0.0";
        return "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " +
               std::to_string(body.size()) + "\r\n\r\n" + body;
    }

    // An answer in one burst, of which the client reads little while it comes; then the backend may
    // leave at once.
    void answer(std::size_t which) {
        far_side& backend = backends_[which];
        if (!backend.open || backend.to_end) return;
        push(which, some_length(250));
        for (unsigned turns = in_.below(4); turns > 0; --turns) world_.turn();
        if (in_.below(4) == 0) leave(backend);
    }

    void push(std::size_t which, std::size_t length) {
        const std::string bytes = pattern(length);
        for (client_side& client : clients_) {
            if (client.backend != static_cast<int>(which) || !client.open) continue;
            client.due += bytes;
            client.last_active = now;
        }
        backends_[which].send(world_, bytes);
    }

    // Closes the end, or says that it sends no more: one is as good as the other.
    void leave(far_side& side) {
        if (!side.open || side.to_end) return;
        const bool is_client = &side >= static_cast<far_side*>(clients_.data()) &&
                               &side < static_cast<far_side*>(clients_.data() + clients_.size());
        if (is_client) {
            const auto& client = static_cast<client_side&>(side);
            if (attached(client)) backends_[backend_of(client)].to_end = true;
        } else {
            for (client_side& client : clients_)
                if (attached(client) && &backends_[backend_of(client)] == &side)
                    client.to_end = true;
        }
        shutdown(side.fd, in_.below(2) != 0 ? SHUT_WR : SHUT_RDWR);
        side.open = false;
    }

    bool attached(const client_side& client) const {
        if (client.backend < 0) return false;
        const far_side& backend = backends_[backend_of(client)];
        return backend.open && !backend.to_end;
    }
    static std::size_t backend_of(const client_side& client) {
        return static_cast<std::size_t>(client.backend);
    }

    // Turns and reads until nothing happens any more, then looks at every end.
    void come_to_rest() {
        int quiet = 0;
        for (int turns = 0; quiet < 3; ++turns) {
            require(turns < 5000, "the relay comes to rest");
            world_.turn();
            bool news = sockets::num_ready() != 0;
            take_new_backends();
            for (client_side& client : clients_) news |= client.read();
            for (far_side& backend : backends_) news |= backend.read();
            quiet = news ? 0 : quiet + 1;
        }
        for (client_side& client : clients_) {
            if (client.backend < 0 && now - client.last_active > idle_seconds) client.to_end = true;
            expect(client);
        }
        for (const far_side& backend : backends_) expect(backend);
        require(backends.size() == backends_.size(), "there are as many backends as are needed");
    }

    void take_new_backends() {
        for (std::size_t i = 0; i < backends.size() && i < backends_.size(); ++i)
            backends_[i].fd = backends[i];
    }

    static void expect(const far_side& side) {
        if (!side.open) return;
        require(side.got == side.due, "an end has received what was meant for it, and no more");
        require(side.ended == side.to_end,
                "an end is closed when its time has come, and not before");
    }

    // Up to 255, or that many times `factor`; now and then twenty times more, for answers that
    // exceed what is sent at a time.
    std::size_t some_length(std::size_t factor) {
        const std::size_t count = in_.byte();
        const unsigned how = in_.byte();
        return how >= 240 ? count * factor * 20 : how % 2 != 0 ? count * factor : count;
    }

    // Bytes that tell their place.
    std::string pattern(std::size_t length) {
        std::string bytes(length, ' ');
        for (char& byte : bytes) byte = static_cast<char>(next_++ % 251);
        return bytes;
    }

    source& in_;
    world& world_;
    std::vector<client_side> clients_;
    std::vector<far_side> backends_;
    unsigned requests_ = 0;
    unsigned next_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    source in(data, size);
    play_in_a_world([&in](world& w) {
        // The walk over everyone, or the one over those that have something to do.
        w.visit_all_up_to(in.below(2) != 0 ? 0 : 32);
        conversation c(in, w);
        for (int deeds = 0; !in.empty() && deeds < 60; ++deeds) c.go_on();
    });
    return 0;
}
