#include "vindra/core/sockets.h"
#include "vindra/tls/ssl_server.h"

#include "tests/support/captured_output.h"
#include "tests/support/far_end.h"
#include "tests/support/held_port.h"
#include "tests/support/scripted_connection.h"
#include "tests/support/temporary_folder.h"
#include "tests/tls/fake_openssl.h"

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using test_server = ssl_server<scripted_connection>;
using testing::ElementsAre;

// A server over a library of the test's own, with a certificate that is only ever a name and a
// time to it.
class ssl_server_test : public testing::Test {
protected:
    ssl_server_test() {
        folder_.write("server.crt", "");
        set_mtime(1000.5);
    }

    std::string crt() const { return folder_.path("server.crt"); }

    void set_mtime(double seconds) const {
        const auto whole = static_cast<time_t>(seconds);
        const auto fraction = static_cast<long>((seconds - static_cast<double>(whole)) * 1e9);
        const timespec times[] = {{whole, fraction}, {whole, fraction}};
        ASSERT_EQ(utimensat(AT_FDCWD, crt().c_str(), times, 0), 0);
    }

    // Lets `seconds` pass since the last look at the certificate.
    static void pass(test_server& server, double seconds) { server.last_check -= seconds; }

    temporary_folder folder_;
    fake_openssl library_;
    held_port port_;
};

TEST_F(ssl_server_test, makes_its_context_before_it_opens_a_socket) {
    const test_server server(port_.number(), true, "the.key", crt());
    EXPECT_THAT(fake_openssl::calls,
                ElementsAre("OpenSSL_version_num", "OPENSSL_init_ssl 0 null", "TLS_server_method",
                            "SSL_CTX_new", "SSL_CTX_use_PrivateKey_file the.key 1",
                            "SSL_CTX_use_certificate_file " + crt() + " 1", "SSL_CTX_ctrl 33 1"));
    EXPECT_EQ(server.fd, -1);
    EXPECT_NE(server.ctx, nullptr);
    EXPECT_TRUE(server.initialised);
    EXPECT_EQ(server.key, "the.key");
    EXPECT_EQ(server.crt, crt());
    EXPECT_EQ(server.port, port_.number());
    EXPECT_TRUE(server.localhost_only);
}

TEST_F(ssl_server_test, without_a_certificate_file_goes_on_and_loads_none) {
    const test_server server(port_.number(), true, "the.key", folder_.path("absent"));
    EXPECT_THAT(fake_openssl::calls,
                ElementsAre("OpenSSL_version_num", "OPENSSL_init_ssl 0 null", "TLS_server_method",
                            "SSL_CTX_new", "SSL_CTX_use_PrivateKey_file the.key 1",
                            "SSL_CTX_ctrl 33 1"));
    EXPECT_EQ(server.crt_mtime, 0.0);
}

TEST_F(ssl_server_test, ends_its_connections_without_its_hooks_when_it_is_destroyed) {
    bool ended = false;
    {
        test_server server(port_.number(), true, "the.key", crt());
        auto* conn = new scripted_connection;
        conn->on_end = [&ended] { ended = true; };
        server.on_accept(conn);
        server.connections.add(conn);
        fake_openssl::calls.clear();
    }
    EXPECT_TRUE(ended);
    EXPECT_THAT(fake_openssl::calls, ElementsAre("SSL_CTX_free"));
    EXPECT_EQ(fake_openssl::open_sessions(), 1U);
}

TEST_F(ssl_server_test, gives_an_accepted_connection_a_session) {
    test_server server(port_.number(), true, "the.key", crt());
    scripted_connection conn;
    fake_openssl::calls.clear();
    EXPECT_TRUE(server.on_accept(&conn)) << "whatever the handshake's first step gives";
    EXPECT_THAT(fake_openssl::calls, ElementsAre("SSL_new", "SSL_set_fd", "SSL_accept"));
    EXPECT_NE(conn.ssl, nullptr);

    fake_openssl::calls.clear();
    server.on_remove(&conn);
    EXPECT_THAT(fake_openssl::calls, ElementsAre("SSL_shutdown", "SSL_free"));
    EXPECT_EQ(fake_openssl::open_sessions(), 0U);
}

TEST_F(ssl_server_test, hands_the_results_of_the_library_on) {
    test_server server(port_.number(), true, "the.key", crt());
    scripted_connection conn;
    server.on_accept(&conn);
    char buffer[8];
    for (const int result : {7, 1, 0, -1, -2}) {
        fake_openssl::read_outcomes = {{result, 0}};
        EXPECT_EQ(server.recv(&conn, buffer, sizeof buffer), result);
        fake_openssl::write_outcomes = {{result, 0}};
        EXPECT_EQ(server.send(&conn, buffer, sizeof buffer), result);
    }
    server.on_remove(&conn);
}

// ---- What the library cannot give, and connections that need nothing of it.

TEST_F(ssl_server_test, without_a_context_calls_nothing_on_it_and_closes_its_clients) {
    fake_openssl::makes_contexts = false;
    {
        const captured_output out;
        test_server server(port_.number(), true, "the.key", crt());
        server.last_report = std::time(nullptr);
        EXPECT_EQ(server.ctx, nullptr);
        ASSERT_TRUE(server.start());
        far_end client = far_end::connect_to(port_.number());
        sockets::select_all();
        server.update();
        client.receive();
        EXPECT_TRUE(client.closed_by_peer());
        EXPECT_EQ(server.connections.count, 0);
        set_mtime(1001);
        pass(server, 61);
        server.on_idle();
    }
    EXPECT_THAT(fake_openssl::calls, ElementsAre("OpenSSL_version_num", "OPENSSL_init_ssl 0 null",
                                                 "TLS_server_method", "SSL_CTX_new"));
}

TEST_F(ssl_server_test, without_a_session_refuses_the_client) {
    test_server server(port_.number(), true, "the.key", crt());
    scripted_connection conn;
    fake_openssl::makes_sessions = false;
    fake_openssl::calls.clear();
    EXPECT_FALSE(server.on_accept(&conn));
    EXPECT_THAT(fake_openssl::calls, ElementsAre("SSL_new"));
    EXPECT_EQ(conn.ssl, nullptr);
}

TEST_F(ssl_server_test, drives_connections_without_a_session_as_a_plain_server) {
    const captured_output out;
    test_server server(0, true, "the.key", crt());
    server.last_report = std::time(nullptr);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    far_end far(ends[1]);
    auto* const conn = new scripted_connection;
    conn->fd = ends[0];
    server.connections.add(conn);
    sockets::all()->set(conn->fd);
    fake_openssl::calls.clear();
    conn->output = "answer";
    far.send("question");
    for (int i = 0; i < 3; ++i) {
        sockets::select_all();
        server.update();
    }
    EXPECT_EQ(conn->received, "question");
    EXPECT_EQ(far.receive(), "answer");
    far.close();
    sockets::select_all();
    server.update();
    EXPECT_EQ(server.connections.count, 0);
    EXPECT_THAT(fake_openssl::calls, testing::IsEmpty());
}

// Asks, at the end of each connection, for a descriptor as an application opening a file does.
class opening_server : public test_server {
public:
    using test_server::ssl_server;

    void on_remove(connection* conn) override {
        number = conn->fd;
        opened = open("/dev/null", O_RDWR | O_CLOEXEC);
        could_write = write(number, "x", 1) == 1;
        could_read = read(number, &could_write, 0) == 0;
        ssl_server::on_remove(conn);
        opened_later = open("/dev/null", O_RDWR | O_CLOEXEC);
        for (const int file : {opened, opened_later}) close(file);
    }

    int number = -1;
    int opened = -1;
    int opened_later = -1;
    bool could_write = true;
    bool could_read = true;
};

TEST_F(ssl_server_test, has_what_it_needs_to_keep_numbers_before_descriptors_are_short) {
    const captured_output out;
    opening_server server(port_.number(), true, "the.key", crt());
    server.last_report = std::time(nullptr);
    ASSERT_TRUE(server.start());
    const auto descriptors = [] {
        std::size_t count = 0;
        for ([[maybe_unused]] const auto& entry :
             std::filesystem::directory_iterator("/proc/self/fd"))
            ++count;
        return count;
    };
    sockets::select_all();
    server.update();
    const std::size_t before = descriptors();
    far_end client = far_end::connect_to(port_.number());
    sockets::select_all();
    server.update();
    ASSERT_EQ(server.connections.count, 1);
    EXPECT_EQ(descriptors(), before + 2) << "both ends of the client's connection";
    server.stop();
    client.close();
    EXPECT_EQ(descriptors(), before - 1) << "without the listener";
}

TEST_F(ssl_server_test, keeps_the_number_of_a_socket_from_others_until_its_session_is_released) {
    const captured_output out;
    opening_server server(port_.number(), true, "the.key", crt());
    server.last_report = std::time(nullptr);
    ASSERT_TRUE(server.start());
    far_end client = far_end::connect_to(port_.number());
    sockets::select_all();
    server.update();
    ASSERT_EQ(server.connections.count, 1);
    const int number = server.connections.head->next->value->fd;
    client.finish_sending();
    for (int i = 0; i < 3; ++i) {
        sockets::select_all();
        server.update();
    }
    ASSERT_EQ(server.number, number);
    EXPECT_NE(server.opened, number);
    EXPECT_NE(server.opened_later, number);
    EXPECT_FALSE(server.could_write);
    EXPECT_FALSE(server.could_read);
    client.receive();
    EXPECT_TRUE(client.closed_by_peer()) << "the socket itself is closed";
    EXPECT_EQ(fcntl(number, F_GETFD), -1) << "the number is free again";
    EXPECT_FALSE(sockets::all()->test(number));
}

// ---- The certificate's file.

TEST_F(ssl_server_test, loads_the_certificate_at_first_without_a_word) {
    captured_output out;
    const test_server server(port_.number(), true, "the.key", crt());
    EXPECT_EQ(out.take(), "");
    EXPECT_EQ(server.crt_mtime, 1000.5);
    EXPECT_GT(server.last_check, 0.0);
}

TEST_F(ssl_server_test, loads_a_newer_certificate_after_more_than_a_minute) {
    test_server server(port_.number(), true, "the.key", crt());
    set_mtime(1001);
    pass(server, 61);
    fake_openssl::calls.clear();
    captured_output out;
    server.on_idle();
    EXPECT_EQ(out.take(), "Reloading certificate...\n");
    EXPECT_THAT(fake_openssl::calls, ElementsAre("SSL_CTX_use_certificate_file " + crt() + " 1"));
    EXPECT_EQ(server.crt_mtime, 1001.0);
}

TEST_F(ssl_server_test, tells_of_a_reload_however_old_the_certificate_was) {
    test_server server(port_.number(), true, "the.key", crt());
    server.crt_mtime = 0.5;
    pass(server, 61);
    captured_output out;
    server.on_idle();
    EXPECT_EQ(out.take(), "Reloading certificate...\n");
}

TEST_F(ssl_server_test, sees_a_certificate_put_in_place_within_the_same_second) {
    test_server server(port_.number(), true, "the.key", crt());
    set_mtime(1000.75);
    pass(server, 61);
    fake_openssl::calls.clear();
    const captured_output out;
    server.on_idle();
    EXPECT_EQ(fake_openssl::calls.size(), 1U);
    EXPECT_EQ(server.crt_mtime, 1000.75);
}

TEST_F(ssl_server_test, does_not_look_twice_within_a_minute) {
    test_server server(port_.number(), true, "the.key", crt());
    set_mtime(1001);
    fake_openssl::calls.clear();
    for (const double seconds : {0.0, 30.0, 29.0}) {
        pass(server, seconds);
        server.on_idle();
        EXPECT_TRUE(fake_openssl::calls.empty()) << seconds;
    }
}

TEST_F(ssl_server_test, sixty_seconds_are_not_yet_a_minute_gone_by) {
    test_server server(port_.number(), true, "the.key", crt());
    set_mtime(1001);
    fake_openssl::calls.clear();

    // The clock may step on between the two readings; what counts is a look at exactly 60.
    time_t now = 0;
    do {
        now = time(nullptr);
        server.last_check = static_cast<double>(now) - 60;
        fake_openssl::calls.clear();
        server.crt_mtime = 1000.5;
        const captured_output out;
        server.load_certificate_maybe();
    } while (time(nullptr) != now);
    EXPECT_TRUE(fake_openssl::calls.empty());
}

TEST_F(ssl_server_test, a_look_that_finds_nothing_new_counts_as_a_look) {
    test_server server(port_.number(), true, "the.key", crt());
    pass(server, 61);
    server.on_idle();
    set_mtime(1001);
    fake_openssl::calls.clear();
    server.on_idle();
    EXPECT_TRUE(fake_openssl::calls.empty());
}

TEST_F(ssl_server_test, leaves_an_older_an_equal_or_a_missing_certificate_alone) {
    test_server server(port_.number(), true, "the.key", crt());
    fake_openssl::calls.clear();
    captured_output out;

    pass(server, 61);
    server.on_idle();
    set_mtime(999);
    pass(server, 61);
    server.on_idle();
    std::filesystem::remove(crt());
    pass(server, 61);
    server.on_idle();
    folder_.write("server.crt", "longer than before");
    set_mtime(1000.5);
    pass(server, 61);
    server.on_idle();

    EXPECT_TRUE(fake_openssl::calls.empty());
    EXPECT_EQ(out.take(), "");
    EXPECT_EQ(server.crt_mtime, 1000.5);
}

TEST_F(ssl_server_test, loads_a_certificate_that_was_missing_at_the_start_without_a_word) {
    std::filesystem::remove(crt());
    test_server server(port_.number(), true, "the.key", crt());
    folder_.write("server.crt", "");
    set_mtime(1000.5);
    pass(server, 61);
    fake_openssl::calls.clear();
    captured_output out;
    server.on_idle();
    EXPECT_EQ(out.take(), "");
    EXPECT_THAT(fake_openssl::calls, ElementsAre("SSL_CTX_use_certificate_file " + crt() + " 1"));
}

TEST_F(ssl_server_test, looks_at_the_plain_path_and_loads_the_one_it_was_given) {
    std::string odd = folder_.path(".//") + "\\server.crt/";
    const test_server server(port_.number(), true, "the.key", odd);
    EXPECT_EQ(server.crt_mtime, 1000.5);
    EXPECT_THAT(fake_openssl::calls,
                testing::Contains("SSL_CTX_use_certificate_file " + odd + " 1"));
}

// ---- Hints to the registry.

class ssl_server_hints : public ssl_server_test {
protected:
    ssl_server_hints() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        far_ = far_end(ends[1]);
        conn_.fd = ends[0];
        server_->on_accept(&conn_);
        sockets::all()->set(conn_.fd);
        far_.send("x");
        wait();
    }
    ~ssl_server_hints() override {
        sockets::close(conn_.fd);
        server_->on_remove(&conn_);
    }

    // One wait, with the socket marked for writing.
    void wait() {
        sockets::ready()->set(conn_.fd);
        sockets::select_all();
    }

    std::unique_ptr<test_server> server_ =
        std::make_unique<test_server>(port_.number(), true, "the.key", crt());
    scripted_connection conn_;
    far_end far_;
    char buffer_[8] = {};
};

struct hint_case {
    const char* name;
    int result;
    int error;
    bool asked_again;
};

constexpr hint_case hint_cases[] = {
    {"an empty or a full socket", -1, EAGAIN, false},
    {"a session that failed for good", -1, 0, false},
    {"a reset", -1, ECONNRESET, true},
    {"a broken pipe", -1, EPIPE, true},
    {"an interrupted call", -1, EINTR, true},
    {"bytes", 1, 0, true},
    {"bytes, with an old error", 1, EAGAIN, true},
    {"an end of the session", 0, EPIPE, true},
};

// The byte in the socket is never read, so that a wait reports it unless a hint was given.
TEST_F(ssl_server_hints, of_reading_are_given_when_only_the_kernel_can_bring_news) {
    for (const auto& c : hint_cases) {
        SCOPED_TRACE(c.name);
        sockets::all()->set(conn_.fd);
        wait();
        ASSERT_TRUE(sockets::readable()->test(conn_.fd));
        errno = EAGAIN;
        fake_openssl::read_outcomes = {{c.result, c.error}};
        server_->recv(&conn_, buffer_, sizeof buffer_);
        wait();
        EXPECT_EQ(sockets::readable()->test(conn_.fd), c.asked_again);
        EXPECT_TRUE(sockets::writable()->test(conn_.fd)) << "a hint of reading is none of writing";
    }
}

TEST_F(ssl_server_hints, of_writing_are_given_when_only_the_kernel_can_bring_news) {
    for (const auto& c : hint_cases) {
        SCOPED_TRACE(c.name);
        sockets::all()->set(conn_.fd);
        wait();
        ASSERT_TRUE(sockets::writable()->test(conn_.fd));
        errno = EAGAIN;
        fake_openssl::write_outcomes = {{c.result, c.error}};
        server_->send(&conn_, buffer_, sizeof buffer_);
        wait();
        EXPECT_EQ(sockets::writable()->test(conn_.fd), c.asked_again);
        EXPECT_TRUE(sockets::readable()->test(conn_.fd)) << "a hint of writing is none of reading";
    }
}

TEST_F(ssl_server_hints, are_given_for_a_write_that_gives_0_and_not_for_a_read) {
    fake_openssl::read_outcomes = {{0, 0}};
    server_->recv(&conn_, buffer_, sizeof buffer_);
    fake_openssl::write_outcomes = {{0, 0}};
    server_->send(&conn_, buffer_, sizeof buffer_);
    wait();
    EXPECT_TRUE(sockets::readable()->test(conn_.fd));
    EXPECT_FALSE(sockets::writable()->test(conn_.fd));
}

TEST_F(ssl_server_hints, of_a_session_that_failed_for_good_do_not_depend_on_an_old_error) {
    errno = ECONNRESET;
    fake_openssl::read_outcomes = {{-1, 0}};
    server_->recv(&conn_, buffer_, sizeof buffer_);
    errno = ECONNRESET;
    fake_openssl::write_outcomes = {{-1, 0}};
    server_->send(&conn_, buffer_, sizeof buffer_);
    wait();
    EXPECT_FALSE(sockets::readable()->test(conn_.fd));
    EXPECT_FALSE(sockets::writable()->test(conn_.fd));
}

TEST_F(ssl_server_hints, of_writing_end_when_bytes_arrive_for_a_write_that_waits_for_them) {
    fake_openssl::write_outcomes = {{-1, EAGAIN}};
    server_->send(&conn_, buffer_, sizeof buffer_);
    wait();
    ASSERT_FALSE(sockets::writable()->test(conn_.fd));
    far_.send("y");
    wait();
    EXPECT_TRUE(sockets::writable()->test(conn_.fd));
}

// ---- Functions that the library lacks.

class missing_function : public ssl_server_test, public testing::WithParamInterface<std::string> {
protected:
    // A whole life: one client is served and leaves, another is there at the end.
    void live() {
        const captured_output out;
        test_server server(port_.number(), true, "the.key", crt());
        ASSERT_TRUE(server.start());
        far_end first = far_end::connect_to(port_.number());
        first.send("hi");
        turn_until(server, [&] { return server.connections.count == 1; });
        auto* conn = static_cast<scripted_connection*>(server.connections.head->next->value);
        turn_until(server, [&] { return conn->received == "hi"; });
        conn->output = "ho";
        turn_until(server, [&] { return first.receive() == "ho"; });
        first.close();
        turn_until(server, [&] { return server.connections.count == 0; });
    }

    template <typename Done>
    static void turn_until(test_server& server, Done done) {
        for (int turns = 0; !done(); ++turns) {
            ASSERT_LT(turns, 200) << "condition never held";
            sockets::select_all();
            server.update();
        }
    }
};

TEST_F(missing_function, none_is_a_life_without_a_throw) {
    EXPECT_NO_THROW(live());
    for (const std::string& name : fake_openssl::names())
        EXPECT_THAT(fake_openssl::calls, testing::Contains(testing::StartsWith(name)))
            << "or its absence would prove nothing";
}

TEST_P(missing_function, throws_the_text_to_whoever_runs_the_server) {
    fake_openssl::take_away(GetParam());
    try {
        live();
        FAIL() << "nothing was thrown";
    } catch (const std::string& text) {
        EXPECT_EQ(text, openssl::_import.error);
    }
}

TEST_P(missing_function, does_not_end_the_process_when_the_way_out_lacks_one_too) {
    fake_openssl::take_away(GetParam());
    fake_openssl::take_away("SSL_CTX_free");
    EXPECT_THROW(live(), std::string);
}

INSTANTIATE_TEST_SUITE_P(every, missing_function, testing::ValuesIn(fake_openssl::names()),
                         [](const auto& name) { return name.param; });

TEST_F(ssl_server_test, passes_over_a_missing_SSL_CTX_free_only_on_another_throws_way) {
    fake_openssl::take_away("SSL_CTX_free");
    EXPECT_THROW(test_server(port_.number(), true, "the.key", crt()), std::string);
    try {
        const test_server server(port_.number(), true, "the.key", crt());
        throw 1;
    } catch (int number) {
        EXPECT_EQ(number, 1);
    }
}

} // namespace
