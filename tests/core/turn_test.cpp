// The order of a turn, and what counts as activity in it.

#include "tests/support/server_fixture.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <string>

#include <netinet/tcp.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using turn_test = server_test;

// Long ago, and yet never too long.
constexpr std::time_t old_second = 5;

scripted_connection& ageless(scripted_connection& conn) {
    conn.timeout = -1;
    conn.last_active = old_second;
    return conn;
}

// ---- Activity.

TEST_F(turn_test, a_read_that_gives_nothing_is_no_activity) {
    far_end far;
    auto& conn = ageless(join(far));
    sockets::select_all();
    sockets::readable()->set(conn.fd);
    server_.update();
    EXPECT_EQ(server_.capacities.size(), 1U);
    EXPECT_EQ(conn.last_active, old_second);
}

TEST_F(turn_test, being_asked_for_output_is_no_activity) {
    far_end far;
    auto& conn = ageless(join(far));
    conn.output = "answer";
    turn();
    EXPECT_EQ(conn.send_length, 6);
    EXPECT_EQ(conn.last_active, old_second);
}

TEST_F(turn_test, a_write_is_activity_even_where_nothing_could_be_written) {
    far_end far;
    auto& conn = ageless(join(far));
    const std::string block(65536, 'x');
    while (::send(conn.fd, block.data(), block.size(), 0) > 0) {
    }
    conn.output = "answer";
    turn();
    sockets::select_all();
    ASSERT_FALSE(sockets::writable()->test(conn.fd));
    sockets::writable()->set(conn.fd);
    server_.update();
    EXPECT_EQ(conn.send_length, 6);
    EXPECT_GT(conn.last_active, old_second);
}

// ---- Which case comes first.

TEST_F(turn_test, an_error_comes_before_bytes_that_wait) {
    far_end far;
    auto& conn = join(far);
    bool was_read = false;
    conn.when_read = [&was_read](scripted_connection&) { was_read = true; };
    far.send("x");
    sockets::select_all();
    sockets::errors()->set(conn.fd);
    captured_output out;
    server_.update();
    EXPECT_NE(out.take().find(" has errors."), std::string::npos);
    EXPECT_FALSE(was_read);
}

TEST_F(turn_test, urgent_data_together_with_plain_data_ends_the_connection_unread) {
    start();
    const far_end client = far_end::connect_to(port_.number());
    turn_until([&] { return in_list().size() == 1; });
    auto& conn = static_cast<scripted_connection&>(*in_list()[0]);
    std::string got;
    conn.when_read = [&got](scripted_connection& c) { got = c.received; };
    client.send("plain");
    ASSERT_EQ(::send(client.fd(), "!", 1, MSG_OOB), 1);
    const captured_output out;
    turn();
    EXPECT_TRUE(in_list().empty());
    EXPECT_EQ(got, "");
}

TEST_F(turn_test, a_time_out_comes_before_an_error) {
    far_end far;
    auto& conn = join(far);
    sockets::select_all();
    sockets::errors()->set(conn.fd);
    conn.last_active -= 20;
    const std::string number = std::to_string(conn.fd);
    captured_output out;
    server_.update();
    EXPECT_EQ(out.take(), number + " has timed out.\n");
}

TEST_F(turn_test, a_client_is_accepted_between_the_passes) {
    start();
    far_end far;
    auto& conn = join(far);
    std::size_t accepted_before_read = 99;
    conn.when_read = [&](scripted_connection&) { accepted_before_read = server_.accepted.size(); };
    const far_end client = far_end::connect_to(port_.number());
    client.send("early");
    far.send("x");
    turn();
    EXPECT_EQ(accepted_before_read, 0U) << "after the first pass";
    ASSERT_EQ(in_list().size(), 2U);
    const auto& fresh = static_cast<scripted_connection&>(*in_list()[1]);
    EXPECT_EQ(fresh.asked, 1) << "before the send pass";
    EXPECT_EQ(fresh.received, "");
    turn();
    EXPECT_EQ(fresh.received, "early");
}

// ---- Reading to the end.

TEST_F(turn_test, messages_on_an_adopted_listener_are_all_read_in_one_turn) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX; // and a name of the kernel's choice
    server_.fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(server_.fd, reinterpret_cast<sockaddr*>(&address), sizeof address.sun_family),
              0);
    ASSERT_EQ(listen(server_.fd, 1), 0);
    sockets::all()->set(server_.fd);
    socklen_t length = sizeof address;
    getsockname(server_.fd, reinterpret_cast<sockaddr*>(&address), &length);
    far_end client(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    ASSERT_EQ(connect(client.fd(), reinterpret_cast<sockaddr*>(&address), length), 0);
    turn_until([&] { return in_list().size() == 1; });

    for (const char* message : {"one", "two", "three"}) client.send(message);
    turn();
    const auto& conn = static_cast<scripted_connection&>(*in_list()[0]);
    EXPECT_EQ(conn.received, "onetwothree");
    EXPECT_EQ(conn.reads, 3);
}

TEST_F(turn_test, a_read_outside_an_update_is_made_though_the_last_one_was_short) {
    start();
    const far_end client = far_end::connect_to(port_.number());
    turn_until([&] { return in_list().size() == 1; });
    connection* const conn = in_list()[0];
    char buffer[100];
    for (int i = 0; i < 3; ++i) {
        client.send("once");
        EXPECT_EQ(server_.recv(conn, buffer, sizeof buffer), 4);
    }
}

// ---- The listening socket and its clients.

TEST_F(turn_test, stop_of_a_disabled_server_leaves_its_descriptor_alone) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    observed_server disabled(0, false);
    disabled.fd = ends[0];
    disabled.stop();
    EXPECT_EQ(disabled.fd, ends[0]);
    EXPECT_NE(fcntl(ends[0], F_GETFD), -1);
    for (const int fd : ends) ::close(fd);
}

TEST_F(turn_test, a_client_that_is_not_admitted_is_deleted_before_its_socket_closes) {
    struct refusing : observed_server {
        using observed_server::observed_server;
        bool on_accept(connection* conn) override {
            const int number = conn->fd;
            static_cast<scripted_connection*>(conn)->on_end = [this, number] {
                was_open = fcntl(number, F_GETFD) != -1;
            };
            return false;
        }
        bool was_open = false;
    };
    refusing server(port_.number(), true);
    server.last_report = std::time(nullptr);
    const captured_output out;
    ASSERT_TRUE(server.start());
    const far_end client = far_end::connect_to(port_.number());
    sockets::select_all();
    server.update();
    EXPECT_TRUE(server.was_open);
}

TEST_F(turn_test, the_listener_shares_its_address_and_keeps_128_clients_waiting) {
    start();
    const auto option = [this](int name) {
        int value = 0;
        socklen_t length = sizeof value;
        EXPECT_EQ(getsockopt(server_.fd, SOL_SOCKET, name, &value, &length), 0);
        return value;
    };
    EXPECT_EQ(option(SO_REUSEADDR), 1);
    EXPECT_EQ(option(SO_REUSEPORT), 1);
    tcp_info info{};
    socklen_t length = sizeof info;
    ASSERT_EQ(getsockopt(server_.fd, IPPROTO_TCP, TCP_INFO, &info, &length), 0);
    EXPECT_EQ(info.tcpi_sacked, 128U) << "of a listener, the length of its queue";
}

TEST_F(turn_test, a_number_set_anew_has_no_errors) {
    far_end far;
    auto& conn = join(far);
    sockets::select_all();
    sockets::errors()->set(conn.fd);
    sockets::all()->set(conn.fd);
    captured_output out;
    server_.update();
    EXPECT_EQ(out.take(), "");
    EXPECT_EQ(in_list().size(), 1U);
}

// ---- Lines.

TEST_F(turn_test, a_status_check_that_prints_nothing_counts_as_a_check) {
    observed_server disabled(0, false);
    disabled.last_count = 0;
    captured_output out;
    sockets::select_all();
    disabled.update();
    EXPECT_EQ(out.take(), "");
    EXPECT_GE(disabled.last_report, std::time(nullptr) - 1);
}

TEST_F(turn_test, the_last_line_is_written_before_the_servers_end) {
    struct ending : abstract_server {
        bool start() override { return true; }
        void update() override { std::raise(SIGINT); }
    };
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
    std::fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    ending server;
    abstract_server* servers[] = {&server, nullptr};
    abstract_server::run(servers);
    std::string text(64, '\0');
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(::read(ends[0], text.data(), 64), 0)));
    std::fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    for (const int fd : {saved, ends[0], ends[1]}) ::close(fd);
    std::signal(SIGINT, SIG_DFL);
    EXPECT_EQ(text, "Shutting down...\n");
}

} // namespace
