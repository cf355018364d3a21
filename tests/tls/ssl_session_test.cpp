#include "vindra/core/sockets.h"
#include "vindra/tls/ssl_server.h"

#include "tests/support/captured_output.h"
#include "tests/support/held_port.h"
#include "tests/support/scripted_connection.h"
#include "tests/tls/clients.h"
#include "tests/tls/test_certificates.h"

#include <ctime>
#include <memory>
#include <random>
#include <string>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>

#if defined(__SANITIZE_ADDRESS__)
// From the sanitizer's runtime; its header does not come with every compiler.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace {

constexpr std::size_t mebibyte = 1048576;

std::string random_bytes(std::size_t count) {
    std::mt19937 source(1);
    std::string bytes(count, '\0');
    for (char& byte : bytes) byte = static_cast<char>(source());
    return bytes;
}

struct over_plain_sockets {
    using server_type = server<scripted_connection>;
    using client_type = plain_client;
    static std::unique_ptr<server_type> make(int port) {
        return std::make_unique<server_type>(port, true);
    }
};

struct over_tls {
    using server_type = ssl_server<scripted_connection>;
    using client_type = tls_client;
    static std::unique_ptr<server_type> make(int port) {
        static const test_certificates certificates;
        return std::make_unique<server_type>(port, true, certificates.key(), certificates.crt());
    }
};

// A started server that is turned by hand, with its clients in the same thread.
template <typename Transport>
class transport : public testing::Test {
protected:
    using client_type = typename Transport::client_type;

    transport() : server_(Transport::make(port_.number())) {
        const captured_output out;
        EXPECT_TRUE(server_->start());
        server_->last_report = std::time(nullptr);
    }

    // While its hooks are in force, so that sessions are released.
    ~transport() override { server_->stop(); }

    void turn() {
        sockets::select_all();
        server_->update();
    }

    template <typename Done>
    void turn_until(Done done, int most_turns = 200) {
        while (!done()) {
            ASSERT_GT(most_turns--, 0) << "condition never held";
            turn();
        }
    }

    int count() const { return server_->connections.count; }

    // The connection that came last.
    scripted_connection& newest() const {
        return *static_cast<scripted_connection*>(server_->connections.tail->value);
    }

    // The connection at the other end of `client`; null before it is accepted.
    scripted_connection* peer_of(client_type& client) const {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        getsockname(client.socket().fd(), reinterpret_cast<sockaddr*>(&address), &length);
        for (auto* node = server_->connections.head->next; node != nullptr; node = node->next)
            if (node->value->port == ntohs(address.sin_port))
                return static_cast<scripted_connection*>(node->value);
        return nullptr;
    }

    scripted_connection& accept_from(client_type& client) {
        turn_until([&] {
            client.pump();
            return peer_of(client) != nullptr;
        });
        return *peer_of(client);
    }

    // After a few turns nothing is reported any more, whatever lies in the sockets.
    void expect_quiet() {
        int quiet_turns = 0;
        turn_until(
            [&] {
                quiet_turns = sockets::num_ready() == 0 ? quiet_turns + 1 : 0;
                return quiet_turns == 4;
            },
            40);
    }

    void expect_time_out(scripted_connection& conn) {
        const int before = count();
        conn.last_active -= conn.timeout + 1;
        captured_output out;
        turn();
        EXPECT_THAT(out.take(), testing::HasSubstr(" has timed out.\n"));
        EXPECT_EQ(count(), before - 1);
    }

    held_port port_;
    std::unique_ptr<typename Transport::server_type> server_;
};

using transports = testing::Types<over_plain_sockets, over_tls>;
TYPED_TEST_SUITE(transport, transports);

TYPED_TEST(transport, hands_over_what_arrives_for_every_piece_size) {
    const std::string text = "a few bytes that come in pieces";
    for (std::size_t piece = 1; piece <= text.size(); piece += 3) {
        SCOPED_TRACE(testing::Message() << "pieces of " << piece);
        typename TypeParam::client_type client(this->port_.number());
        scripted_connection& conn = this->accept_from(client);
        for (std::size_t at = 0; at < text.size(); at += piece) {
            client.send(text.substr(at, piece));
            this->turn_until([&] {
                client.pump();
                return conn.received == text.substr(0, at + piece);
            });
        }
    }
}

TYPED_TEST(transport, sends_what_the_connection_queues) {
    typename TypeParam::client_type client(this->port_.number());
    scripted_connection& conn = this->accept_from(client);
    for (const char* text : {"a", "few", "words"}) {
        client.received.clear();
        conn.output = text;
        this->turn_until([&] {
            client.pump();
            return client.received == text;
        });
    }
}

TYPED_TEST(transport, moves_megabytes_both_ways_at_once) {
    const std::string bytes = random_bytes(6 * mebibyte + 12345);
    typename TypeParam::client_type client(this->port_.number());
    scripted_connection& conn = this->accept_from(client);
    conn.output = bytes;
    client.send(bytes);
    this->turn_until([&] {
        client.pump();
        return conn.received.size() >= bytes.size() && client.received.size() >= bytes.size();
    });
    EXPECT_TRUE(conn.received == bytes);
    EXPECT_TRUE(client.received == bytes);
}

TYPED_TEST(transport, waits_without_turning_for_a_client_that_does_not_read) {
    const std::string bytes = random_bytes(8 * mebibyte);
    typename TypeParam::client_type client(this->port_.number());
    scripted_connection& conn = this->accept_from(client);
    client.send("x");
    this->turn_until([&] {
        client.pump();
        return conn.received == "x";
    });
    conn.output = bytes;
    this->expect_quiet();
    EXPECT_GT(conn.send_length, 0);
    this->turn_until([&] {
        client.pump();
        return client.received.size() >= bytes.size();
    });
    EXPECT_TRUE(client.received == bytes);
}

TYPED_TEST(transport, reads_on_while_its_own_bytes_wait) {
    const std::string bytes = random_bytes(8 * mebibyte);
    typename TypeParam::client_type client(this->port_.number());
    scripted_connection& conn = this->accept_from(client);
    client.send("x");
    this->turn_until([&] {
        client.pump();
        return conn.received == "x";
    });
    conn.output = bytes;
    this->expect_quiet();
    client.send("y");
    this->turn_until([&] {
        client.pump();
        return conn.received == "xy" && client.received.size() >= bytes.size();
    });
    EXPECT_TRUE(client.received == bytes);
}

TYPED_TEST(transport, ends_with_its_client_without_a_word) {
    typename TypeParam::client_type client(this->port_.number());
    scripted_connection& conn = this->accept_from(client);
    client.send("last words");
    this->turn_until([&] {
        client.pump();
        return conn.received == "last words";
    });
    captured_output out;
    client.leave();
    this->turn_until([&] { return this->count() == 0; });
    EXPECT_EQ(out.take(), "");
}

TYPED_TEST(transport, ends_a_connection_that_was_reset) {
    typename TypeParam::client_type client(this->port_.number());
    scripted_connection& conn = this->accept_from(client);
    client.send("x");
    this->turn_until([&] {
        client.pump();
        return conn.received == "x";
    });
    client.socket().reset();
    this->turn_until([&] { return this->count() == 0; });
}

TYPED_TEST(transport, ends_a_connection_that_has_finished_when_its_bytes_are_out) {
    const std::string bytes = random_bytes(3 * mebibyte);
    typename TypeParam::client_type client(this->port_.number());
    scripted_connection& conn = this->accept_from(client);
    conn.output = bytes;
    conn.stay = false;
    this->turn_until([&] {
        client.pump();
        return client.ended();
    });
    EXPECT_TRUE(client.received == bytes);
    EXPECT_EQ(this->count(), 0);
}

// The connection behind one that is removed is passed over by that pass.
TYPED_TEST(transport, loses_nothing_of_a_connection_that_was_passed_over) {
    typename TypeParam::client_type first(this->port_.number());
    scripted_connection& leaving = this->accept_from(first);
    typename TypeParam::client_type second(this->port_.number());
    scripted_connection& staying = this->accept_from(second);
    second.send("a");
    this->turn_until([&] {
        first.pump();
        second.pump();
        return staying.received == "a";
    });
    second.send("b");
    second.pump();
    leaving.last_active -= leaving.timeout + 1;
    const captured_output out;
    this->turn();
    EXPECT_EQ(staying.received, "a");
    this->turn();
    EXPECT_EQ(staying.received, "ab");
}

TYPED_TEST(transport, times_out_a_client_that_says_nothing) {
    typename TypeParam::client_type client(this->port_.number());
    scripted_connection& conn = this->accept_from(client);
    this->expect_time_out(conn);
}

// ---- What only TLS has.

using ssl_session = transport<over_tls>;

TEST_F(ssl_session, speaks_both_versions) {
    for (const auto version : {tls_version::tls_1_2, tls_version::tls_1_3}) {
        tls_client client(port_.number(), version);
        scripted_connection& conn = accept_from(client);
        client.send("question");
        conn.output = "answer";
        turn_until([&] {
            client.pump();
            return conn.received == "question" && client.received == "answer";
        });
    }
}

TEST_F(ssl_session, completes_a_handshake_that_comes_byte_by_byte) {
    // Someone between the two who passes one byte of the client's at a time.
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    const far_end inner(ends[0]);
    far_end outer(ends[1]);
    tls_client client(port_.number());
    openssl::SSL_set_fd(client.session(), inner.fd());

    client.send("question");
    std::string up;
    const auto pass_one_byte_on = [&] {
        client.pump();
        up += outer.receive();
        if (!up.empty()) {
            client.socket().send(up.substr(0, 1));
            up.erase(0, 1);
        }
        outer.send_some(client.socket().receive());
        return count() == 1 && newest().received == "question";
    };
    turn_until(pass_one_byte_on, 2000);
}

// on_send() gives bytes before the client has said hello, so that the write has to wait for
// reads.
TEST_F(ssl_session, greets_before_the_client_has_spoken) {
    tls_client client(port_.number());
    turn_until([&] { return count() == 1; });
    scripted_connection& conn = newest();
    conn.output = "welcome";
    expect_quiet();
    EXPECT_EQ(conn.send_length, 7);
    turn_until([&] {
        client.pump();
        return client.received == "welcome";
    });
}

TEST_F(ssl_session, answers_a_change_of_keys_while_its_own_bytes_wait) {
    using key_update = int (*)(ssl_st*, int);
    const auto update =
        reinterpret_cast<key_update>(dlsym(openssl::_import.handle, "SSL_key_update"));
    ASSERT_NE(update, nullptr);
    constexpr int requested = 1;

    const std::string bytes = random_bytes(8 * mebibyte);
    tls_client client(port_.number());
    scripted_connection& conn = accept_from(client);
    client.send("x");
    turn_until([&] {
        client.pump();
        return conn.received == "x";
    });
    conn.output = bytes;
    expect_quiet();
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(update(client.session(), requested), 1);
        client.send("y");
        client.pump();
        turn();
    }
    turn_until([&] {
        client.pump();
        return conn.received == "xyyy" && client.received.size() >= bytes.size();
    });
    EXPECT_TRUE(client.received == bytes);
}

TEST_F(ssl_session, waits_quietly_for_the_rest_of_a_handshake_until_the_time_out) {
    tls_client client(port_.number());
    scripted_connection& conn = accept_from(client);
    expect_quiet();
    expect_time_out(conn);
    turn_until([&] {
        client.pump();
        return client.ended();
    });
}

TEST_F(ssl_session, waits_quietly_after_plain_text_until_the_time_out) {
    far_end client = far_end::connect_to(port_.number());
    client.send("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n");
    turn_until([&] { return count() == 1; });
    scripted_connection& conn = newest();
    expect_quiet();
    client.send("and more of it");
    expect_quiet();
    EXPECT_EQ(conn.received, "");
    expect_time_out(conn);
}

TEST_F(ssl_session, waits_quietly_after_a_client_that_left_in_mid_handshake) {
    far_end client = far_end::connect_to(port_.number());
    turn_until([&] { return count() == 1; });
    scripted_connection& conn = newest();
    client.close();
    expect_quiet();
    expect_time_out(conn);
}

// A record that fails its check ends a session for good, while the socket stays as it was.
TEST_F(ssl_session, waits_quietly_after_a_broken_record_until_the_time_out) {
    for (const bool bytes_wait : {false, true}) {
        SCOPED_TRACE(bytes_wait);
        tls_client client(port_.number());
        scripted_connection& conn = accept_from(client);
        client.send("x");
        turn_until([&] {
            client.pump();
            return conn.received == "x";
        });
        if (bytes_wait) conn.output = random_bytes(8 * mebibyte);
        expect_quiet();
        client.socket().send("\x17\x03\x03" + std::string("\0\x20", 2) + std::string(64, 'x'));
        expect_quiet();
        EXPECT_EQ(conn.received, "x");
        expect_time_out(conn);
    }
}

TEST_F(ssl_session, releases_sessions_without_waiting_for_the_peer) {
    tls_client client(port_.number());
    accept_from(client);
    const time_t before = std::time(nullptr);
    server_->stop();
    EXPECT_EQ(count(), 0);
    EXPECT_LE(std::time(nullptr) - before, 1);
}

// ---- Renewal.

class certificate_renewal : public testing::Test {
protected:
    certificate_renewal() {
        const captured_output out;
        EXPECT_TRUE(server_->start());
        server_->last_report = std::time(nullptr);
    }
    ~certificate_renewal() override { server_->stop(); }

    void look() {
        server_->last_check -= 61;
        server_->on_idle();
    }

    template <typename Done>
    void turn_until(Done done) {
        for (int turns = 0; !done(); ++turns) {
            ASSERT_LT(turns, 500) << "condition never held";
            sockets::select_all();
            server_->update();
        }
    }

    void shake_hands(tls_client& client) {
        turn_until([&] {
            client.pump();
            return client.is_connected() || client.ended();
        });
    }

    test_certificates certificates_;
    held_port port_;
    std::unique_ptr<ssl_server<scripted_connection>> server_ =
        std::make_unique<ssl_server<scripted_connection>>(port_.number(), true, certificates_.key(),
                                                          certificates_.crt());
};

TEST_F(certificate_renewal, shows_the_new_certificate_to_new_clients_only) {
    const std::string old_pem = certificates_.pem();
    tls_client old_client(port_.number());
    shake_hands(old_client);
    EXPECT_EQ(old_client.certificate(), old_pem);

    certificates_.renew(2);
    ASSERT_NE(certificates_.pem(), old_pem);
    tls_client before_the_look(port_.number());
    shake_hands(before_the_look);
    EXPECT_EQ(before_the_look.certificate(), old_pem);

    captured_output out;
    look();
    EXPECT_EQ(out.take(), "Reloading certificate...\n");
    tls_client new_client(port_.number());
    shake_hands(new_client);
    EXPECT_EQ(new_client.certificate(), certificates_.pem());

    old_client.send("still here");
    turn_until([&] {
        old_client.pump();
        const auto* first =
            static_cast<scripted_connection*>(server_->connections.head->next->value);
        return first->received == "still here";
    });
}

// What the documentation warns of: the library drops the key that does not match.
TEST_F(certificate_renewal, with_another_key_stops_every_new_handshake) {
    certificates_.renew_with_another_key(2);
    const captured_output out;
    look();
    tls_client client(port_.number());
    shake_hands(client);
    EXPECT_FALSE(client.is_connected());
    EXPECT_TRUE(client.ended());
}

// ---- Memory that the library keeps.

std::size_t bytes_in_use() {
#if defined(__SANITIZE_ADDRESS__)
    return __sanitizer_get_current_allocated_bytes();
#else
    return mallinfo2().uordblks;
#endif
}

class library_memory : public ssl_session {
protected:
    void end_all() {
        while (count() > 0) server_->end_connection(server_->connections.pop());
    }

    // A client that speaks no TLS, and one that leaves in mid-handshake.
    void fail_twice() {
        far_end talker = far_end::connect_to(port_.number());
        talker.send("GET / HTTP/1.1\r\n\r\n");
        turn_until([&] { return count() == 1; });
        turn();
        far_end leaver = far_end::connect_to(port_.number());
        leaver.close();
        turn_until([&] { return count() == 2; });
        turn();
        end_all();
    }
};

// Each failure leaves errors behind that nobody asks for: a million of them must cost no more
// than the first few.
TEST_F(library_memory, does_not_grow_with_failed_handshakes) {
    for (int i = 0; i < 100; ++i) fail_twice();
    const std::size_t before = bytes_in_use();
    for (int i = 0; i < 1000; ++i) fail_twice();
    EXPECT_LE(bytes_in_use(), before + 1024);
}

TEST_F(library_memory, keeps_past_sessions_up_to_a_limit) {
    constexpr int ctrl_cached_sessions = 20;
    constexpr int ctrl_set_cache_size = 42;
    constexpr int ctrl_get_cache_size = 43;
    EXPECT_EQ(openssl::SSL_CTX_ctrl(server_->ctx, ctrl_get_cache_size, 0, nullptr), 20480);
    constexpr long limit = 16;
    openssl::SSL_CTX_ctrl(server_->ctx, ctrl_set_cache_size, limit, nullptr);
    for (int i = 0; i < 2 * limit; ++i) {
        tls_client client(port_.number(), tls_version::tls_1_2);
        client.refuse_tickets();
        turn_until([&] {
            client.pump();
            return client.is_connected();
        });
        client.leave();
        turn_until([&] { return count() == 0; });
    }
    const long kept = openssl::SSL_CTX_ctrl(server_->ctx, ctrl_cached_sessions, 0, nullptr);
    EXPECT_GT(kept, 0);
    EXPECT_LE(kept, limit);
}

} // namespace
