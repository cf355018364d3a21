#include "vindra/proxy/private/backend_address.h"

#include <array>
#include <cstring>
#include <ctime>
#include <unordered_map>

#include <netdb.h>
#include <sys/stat.h>

namespace {

// A limit, because the names come from clients in a forward proxy.
constexpr std::size_t names_max = 256;

// An address may change. One look-up a second costs next to nothing.
constexpr long milliseconds_kept = 1000;

constexpr const char* hosts_file = "/etc/hosts";

// Identifies the state of a file; all zero if there is no file.
using file_state = std::array<long, 7>;

file_state state_of(const char* path) {
    struct stat s {};
    if (stat(path, &s) != 0) return {};
    return {static_cast<long>(s.st_dev),
            static_cast<long>(s.st_ino),
            static_cast<long>(s.st_size),
            s.st_mtim.tv_sec,
            s.st_mtim.tv_nsec,
            s.st_ctim.tv_sec,
            s.st_ctim.tv_nsec};
}

long milliseconds_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

struct memory {
    struct entry {
        backend_address address;
        long found_at;
    };

    // Looks once per clock tick (a few ms), which is often enough.
    void look_at_hosts(long now) {
        if (now == looked_at) return;
        looked_at = now;
        if (const file_state state = state_of(hosts_file); state != hosts) {
            hosts = state;
            entries.clear();
        }
    }

    file_state hosts{};
    long looked_at = -1;
    std::unordered_map<std::string, entry> entries;
};

memory& remembered() {
    // Never destroyed, because servers may still connect while the process exits.
    static memory& m = *new memory;
    return m;
}

const addrinfo* first_not_ipv6(const addrinfo* list) {
    while (list != nullptr && list->ai_family == AF_INET6) list = list->ai_next;
    return list;
}

backend_address::outcome resolve(const std::string& host, const std::string& service,
                                 backend_address& result) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (getaddrinfo(host.c_str(), service.c_str(), &hints, &list) != 0)
        return backend_address::outcome::unresolved;

    const addrinfo* const where = first_not_ipv6(list);
    if (where != nullptr) {
        result.family = where->ai_family;
        result.type = where->ai_socktype;
        result.protocol = where->ai_protocol;
        result.length = where->ai_addrlen;
        std::memcpy(&result.address, where->ai_addr, where->ai_addrlen);
    }
    freeaddrinfo(list);
    return where == nullptr ? backend_address::outcome::unusable : backend_address::outcome::found;
}

} // namespace

backend_address::outcome backend_address::find(const std::string& host, int port,
                                               backend_address& result) {
    memory& m = remembered();
    const long now = milliseconds_now();
    m.look_at_hosts(now);

    const std::string service = std::to_string(port);
    // The resolver reads the name up to its first zero byte, so a zero byte can end it here.
    const std::string key = host.c_str() + std::string(1, '\0') + service;
    if (const auto known = m.entries.find(key);
        known != m.entries.end() && now - known->second.found_at < milliseconds_kept) {
        result = known->second.address;
        return outcome::found;
    }

    const outcome what = resolve(host, service, result);
    if (what == outcome::found) {
        if (m.entries.size() >= names_max) m.entries.clear();
        m.entries[key] = {result, now};
    }
    return what;
}
