#include "vindra/proxy/private/backend_address.h"

#include "tests/support/next_call.h"

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/stat.h>

namespace {

// What the resolver was asked, and when the hosts file was written.
int questions = 0;
struct stat hosts_state {};

// The addresses of the one name that has several.
const char* const many_addresses[] = {"::1", "127.0.0.3", "127.0.0.4"};

} // namespace

extern "C" int getaddrinfo(const char* host, const char* service, const addrinfo* hints,
                           addrinfo** result) {
    static auto* const call = next_call<decltype(getaddrinfo)>("getaddrinfo");
    ++questions;
    if (std::strcmp(host, "many.example") != 0) return call(host, service, hints, result);

    // Each answer is an allocation of its own, so they can be linked.
    addrinfo** end = result;
    for (const char* address : many_addresses) {
        if (const int error = call(address, service, hints, end); error != 0) return error;
        while (*end != nullptr) end = &(*end)->ai_next;
    }
    return 0;
}

extern "C" int stat(const char* path, struct stat* result) noexcept {
    static auto* const call = next_call<int(const char*, struct stat*)>("stat");
    if (std::strcmp(path, "/etc/hosts") != 0) return call(path, result);
    *result = hosts_state;
    return 0;
}

namespace {

using outcome = backend_address::outcome;

class backend_address_test : public testing::Test {
protected:
    // Starts with nothing remembered.
    backend_address_test() { change_hosts(); }

    // The file is looked at once in a tick of the coarse clock.
    static void change_hosts() {
        ++hosts_state.st_mtim.tv_nsec;
        let_it_be_looked_at();
    }

    static void let_it_be_looked_at() {
        std::this_thread::sleep_for(std::chrono::milliseconds(12));
    }

    // How many questions finding `host` cost.
    int cost(const std::string& host, int port, outcome expected = outcome::found) {
        const int before = questions;
        address_ = {};
        EXPECT_EQ(backend_address::find(host, port, address_), expected);
        return questions - before;
    }

    std::string text() const {
        sockaddr_in ip{};
        std::memcpy(&ip, &address_.address, sizeof ip);
        char digits[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &ip.sin_addr, digits, sizeof digits);
        return digits + (":" + std::to_string(ntohs(ip.sin_port)));
    }

    backend_address address_;
};

TEST_F(backend_address_test, is_asked_for_once_and_the_same_from_memory) {
    for (const int questions_expected : {1, 0, 0}) {
        EXPECT_EQ(cost("127.0.0.1", 8080), questions_expected);
        EXPECT_EQ(address_.family, AF_INET);
        EXPECT_EQ(address_.type, SOCK_STREAM);
        EXPECT_EQ(address_.length, sizeof(sockaddr_in));
        EXPECT_EQ(text(), "127.0.0.1:8080");
    }
}

TEST_F(backend_address_test, is_remembered_by_host_and_port) {
    EXPECT_EQ(cost("127.0.0.1", 8080), 1);
    EXPECT_EQ(cost("127.0.0.1", 8081), 1);
    EXPECT_EQ(text(), "127.0.0.1:8081");
    EXPECT_EQ(cost("127.0.0.2", 8080), 1);
    EXPECT_EQ(text(), "127.0.0.2:8080");
    EXPECT_EQ(cost("127.0.0.1", 8080), 0);
    EXPECT_EQ(text(), "127.0.0.1:8080");
}

TEST_F(backend_address_test, is_asked_for_anew_when_the_hosts_file_has_changed) {
    EXPECT_EQ(cost("127.0.0.1", 8080), 1);
    change_hosts();
    EXPECT_EQ(cost("127.0.0.1", 8080), 1);
    EXPECT_EQ(cost("127.0.0.1", 8080), 0);
}

TEST_F(backend_address_test, is_asked_for_anew_when_anything_of_the_hosts_file_has_changed) {
    const std::function<void()> changes[] = {
        [] { ++hosts_state.st_dev; },          [] { ++hosts_state.st_ino; },
        [] { ++hosts_state.st_size; },         [] { ++hosts_state.st_mtim.tv_sec; },
        [] { ++hosts_state.st_mtim.tv_nsec; }, [] { ++hosts_state.st_ctim.tv_sec; },
        [] { ++hosts_state.st_ctim.tv_nsec; },
    };
    for (const auto& change : changes) {
        cost("127.0.0.1", 8080);
        change();
        let_it_be_looked_at();
        EXPECT_EQ(cost("127.0.0.1", 8080), 1);
    }
}

TEST_F(backend_address_test, is_the_first_one_that_is_not_ipv6) {
    EXPECT_EQ(cost("many.example", 8080), 1);
    EXPECT_EQ(text(), "127.0.0.3:8080");
}

TEST_F(backend_address_test, is_asked_for_anew_after_a_second) {
    EXPECT_EQ(cost("127.0.0.1", 8080), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    EXPECT_EQ(cost("127.0.0.1", 8080), 1);
}

TEST_F(backend_address_test, of_a_name_that_fails_is_asked_for_every_time) {
    EXPECT_EQ(cost("127.0.0.1", -5, outcome::unresolved), 1);
    EXPECT_EQ(cost("127.0.0.1", -5, outcome::unresolved), 1);
}

TEST_F(backend_address_test, of_a_name_with_ipv6_addresses_alone_is_asked_for_every_time) {
    EXPECT_EQ(cost("::1", 8080, outcome::unusable), 1);
    EXPECT_EQ(cost("::1", 8080, outcome::unusable), 1);
}

TEST_F(backend_address_test, is_forgotten_before_the_memory_grows_without_end) {
    for (int port = 1; port <= 257; ++port) cost("127.0.0.1", port);
    EXPECT_EQ(cost("127.0.0.1", 257), 0);
    EXPECT_EQ(cost("127.0.0.1", 1), 1);
}

} // namespace
