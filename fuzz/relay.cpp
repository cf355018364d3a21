// A reverse_proxy and its backends, with the input as both ends of every connection. Everyone
// leaves in the end, and no descriptor is left.
//
// Input: a byte whose lowest bit chooses one pair, or anything goes. Then deeds, a byte each:
// modulo 6 for the pair, modulo 10 else, as two_ends() and anything() list them. What is sent
// stands behind its deed: a length and so many bytes, or for anything() the bytes up to 0xFF.

#include "fuzz/relay_world.h"

namespace {

constexpr const char* head = "POST /x HTTP/1.1\r\nHost: a\r\nContent-Length: 2147483647\r\n\r\n";
constexpr const char* head_at_backend =
    "POST /x HTTP/1.1\r\nHost: a\r\nContent-Length: 2147483647\r\nX-Forwarded-For: 0.0.0.0\r\n\r\n";

int chosen(source& in, const std::vector<int>& ends) {
    return ends.empty()
               ? -1
               : ends[in.below(static_cast<unsigned>(std::min<std::size_t>(ends.size(), 256)))];
}

// Whatever the ends say and do, everyone leaves in the end.
void anything(source& in, world& w) {
    w.add_client();
    while (!in.empty()) {
        switch (in.below(10)) {
        case 0:
            if (w.clients.size() < 40) w.add_client();
            break;
        case 1:
        case 2:
        case 3:
            send_some(chosen(in, w.clients), in.until('\xFF'));
            break;
        case 4:
            send_some(chosen(in, backends), in.until('\xFF'));
            break;
        case 5:
            shutdown(chosen(in, in.below(2) != 0 ? w.clients : backends), SHUT_WR);
            break;
        case 6:
            shutdown(chosen(in, in.below(2) != 0 ? w.clients : backends), SHUT_RDWR);
            break;
        case 7:
            receive(chosen(in, in.below(2) != 0 ? w.clients : backends));
            break;
        case 8:
            now += in.below(13);
            break;
        default:
            w.turn();
        }
    }
}

// One client with one backend: every byte that either sends arrives, in order and once.
void two_ends(source& in, world& w) {
    w.add_client();
    const int client = w.clients[0];
    std::string to_backend = head_at_backend;
    std::string to_client;
    std::string at_backend;
    std::string at_client;
    send_some(client, head);
    for (int i = 0; i < 3; ++i) w.turn();
    require(backends.size() == 1, "there is a backend");

    while (!in.empty()) {
        switch (in.below(6)) {
        case 0:
            to_backend += send_some(client, in.bytes(in.byte()));
            break;
        case 1:
            to_client += send_some(backends[0], in.bytes(in.byte()));
            break;
        case 2: {
            // Up to a megabyte in all each way: more than a server takes at a time is only slower.
            const std::size_t count = to_backend.size() < 1000000 ? in.byte() : 0;
            const std::string many(count * 1000, static_cast<char>(in.byte()));
            to_backend += send_some(client, many);
            to_client += send_some(backends[0], many);
            break;
        }
        case 3:
            at_backend += receive(backends[0]);
            break;
        case 4:
            at_client += receive(client);
            break;
        default:
            w.turn();
        }
    }
    for (int i = 0; i < 10000 &&
                    (at_backend.size() < to_backend.size() || at_client.size() < to_client.size());
         ++i) {
        w.turn();
        at_backend += receive(backends[0]);
        at_client += receive(client);
    }
    require(at_backend == to_backend, "the backend has what the client sent");
    require(at_client == to_client, "the client has what the backend sent");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    source in(data, size);
    play_in_a_world([&in](world& w) {
        if (in.below(2) != 0)
            two_ends(in, w);
        else
            anything(in, w);
    });
    return 0;
}
