#include "vindra/core/server.h"
#include "vindra/core/sockets.h"

#include "tests/support/server_fixture.h"

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

namespace {

std::size_t open_descriptors() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

TEST_F(server_test, starts_as_a_stopped_one) {
    const observed_server fresh(8080, false);
    EXPECT_EQ(fresh.fd, -1);
    EXPECT_EQ(fresh.connections.count, 0);
    EXPECT_EQ(fresh.port, 8080);
    EXPECT_FALSE(fresh.localhost_only);
    EXPECT_EQ(fresh.last_report, 0);
    EXPECT_EQ(fresh.last_count, -1);
}

TEST_F(server_test, start_twice_is_refused) {
    start();
    EXPECT_TRUE(sockets::all()->test(server_.fd));
    captured_output out;
    EXPECT_FALSE(server_.start());
    EXPECT_EQ(out.take(), "server already started\n");
}

TEST_F(server_test, accepts_one_client_a_turn_with_its_address_and_port) {
    start();
    const far_end first = far_end::connect_to(port_.number());
    const far_end second = far_end::connect_to(port_.number());
    turn();
    ASSERT_EQ(in_list().size(), 1U);
    turn();
    ASSERT_EQ(in_list().size(), 2U);

    const connection& conn = *in_list()[0];
    sockaddr_in own{};
    socklen_t length = sizeof own;
    getsockname(first.fd(), reinterpret_cast<sockaddr*>(&own), &length);
    EXPECT_EQ(conn.address, own.sin_addr.s_addr);
    EXPECT_EQ(conn.port, ntohs(own.sin_port));
    EXPECT_EQ(conn.server, &server_);
    EXPECT_NE(fcntl(conn.fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(conn.fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_TRUE(sockets::all()->test(conn.fd));
    EXPECT_EQ(server_.created_for, std::vector<int>(2, static_cast<int>(own.sin_addr.s_addr)));
    EXPECT_EQ(server_.accepted.size(), 2U);
}

TEST_F(server_test, a_client_without_a_connection_object_is_closed_in_silence) {
    start();
    server_.makes_connections = false;
    far_end client = far_end::connect_to(port_.number());
    captured_output out;
    turn();
    client.receive();
    EXPECT_TRUE(client.closed_by_peer());
    EXPECT_TRUE(in_list().empty());
    EXPECT_TRUE(server_.accepted.empty());
    EXPECT_EQ(out.take(), "");
}

TEST_F(server_test, a_client_that_is_not_admitted_is_deleted_without_on_remove) {
    start();
    server_.admits = false;
    far_end client = far_end::connect_to(port_.number());
    captured_output out;
    turn();
    client.receive();
    EXPECT_TRUE(client.closed_by_peer());
    EXPECT_TRUE(in_list().empty());
    EXPECT_TRUE(server_.removed.empty());
    EXPECT_EQ(out.take(), "");
}

TEST_F(server_test, received_bytes_reach_the_connection_in_the_turn_they_are_found) {
    far_end far;
    scripted_connection& conn = join(far);
    conn.last_active = 5;
    conn.timeout = -1;
    far.send("hello");
    turn();
    EXPECT_EQ(conn.received, "hello");
    EXPECT_EQ(conn.reads, 1);
    EXPECT_GE(conn.last_active, std::time(nullptr) - 1);
    EXPECT_EQ(server_.capacities, std::vector<int>(2, 1048576)) << "once more, to find no more";
}

TEST_F(server_test, one_byte_at_a_time_arrives_whole) {
    far_end far;
    scripted_connection& conn = join(far);
    const std::string text = "a request, byte by byte";
    for (const char byte : text) {
        far.send(std::string(1, byte));
        turn();
    }
    EXPECT_EQ(conn.received, text);
    EXPECT_EQ(conn.reads, static_cast<int>(text.size()));
}

TEST_F(server_test, output_is_asked_for_in_the_send_pass_and_written_in_the_next_turn) {
    far_end far;
    scripted_connection& conn = join(far);
    conn.output = "answer";
    turn();
    EXPECT_EQ(conn.send_length, 6);
    EXPECT_EQ(far.receive(), "");
    turn();
    EXPECT_EQ(far.receive(), "answer");
    EXPECT_EQ(conn.send_length, 0);
    EXPECT_EQ(conn.send_offset, 6);
}

TEST_F(server_test, a_connection_is_asked_for_output_only_while_its_buffer_is_empty) {
    far_end far;
    scripted_connection& conn = join(far);
    interposed::send_limit = 1;
    int full = 1;
    setsockopt(conn.fd, SOL_SOCKET, SO_SNDBUF, &full, sizeof full);
    const std::string large(900000, 'x');
    conn.output = large;
    interposed::send_limit = 0;
    turn();
    const int asked = conn.asked;
    turn();
    ASSERT_GT(conn.send_length, 0) << "the socket took only a part";
    EXPECT_EQ(conn.asked, asked);
    std::string got;
    turn_until([&] {
        got += far.receive();
        return got.size() == large.size();
    });
    EXPECT_EQ(got, large);
}

TEST_F(server_test, short_sends_lose_and_repeat_nothing) {
    far_end far;
    scripted_connection& conn = join(far);
    interposed::send_limit = 3;
    conn.output = "one two three four";
    conn.stay = false;
    turn();
    turn();
    EXPECT_EQ(far.receive(), "one two three four");
    EXPECT_TRUE(removed(conn));
}

TEST_F(server_test, a_connection_that_is_finished_with_no_data_ends_in_the_same_send_pass) {
    far_end far;
    scripted_connection& conn = join(far);
    conn.stay = false;
    turn();
    EXPECT_TRUE(removed(conn));
    far.receive();
    EXPECT_TRUE(far.closed_by_peer());
}

TEST_F(server_test, a_connection_that_is_finished_with_data_ends_after_its_last_byte) {
    far_end far;
    scripted_connection& conn = join(far);
    conn.output = "bye";
    conn.stay = false;
    turn();
    EXPECT_FALSE(removed(conn));
    turn();
    EXPECT_TRUE(removed(conn));
    EXPECT_EQ(far.receive(), "bye");
    EXPECT_TRUE(far.closed_by_peer());
}

TEST_F(server_test, a_connection_both_readable_and_writable_is_only_read_in_that_turn) {
    far_end far;
    scripted_connection& conn = join(far);
    conn.output = "answer";
    turn();
    far.send("question");
    turn();
    EXPECT_EQ(conn.received, "question");
    EXPECT_EQ(conn.send_length, 6) << "not written yet";
    turn();
    EXPECT_EQ(far.receive(), "answer");
}

TEST_F(server_test, both_ends_of_a_relay_ready_in_one_turn_are_both_served) {
    far_end left;
    far_end right;
    scripted_connection& one = join(left);
    scripted_connection& two = join(right);
    one.output = "to the left";
    turn();
    right.send("from the right");
    turn();
    EXPECT_EQ(two.received, "from the right");
    EXPECT_EQ(left.receive(), "to the left");
    EXPECT_EQ(one.send_length, 0);
}

TEST_F(server_test, a_peer_that_closes_is_noticed_without_a_word) {
    far_end far;
    scripted_connection& conn = join(far);
    far.send("last words");
    far.close();
    std::string got;
    conn.when_read = [&got](scripted_connection& c) { got = c.received; };
    captured_output out;
    turn();
    EXPECT_TRUE(removed(conn));
    EXPECT_FALSE(server_.socket_was_open) << "the socket closes before on_remove()";
    EXPECT_EQ(got, "last words");
    EXPECT_EQ(out.take(), "");
}

TEST_F(server_test, a_peer_that_resets_is_noticed_within_two_turns) {
    start();
    far_end client = far_end::connect_to(port_.number());
    turn();
    ASSERT_EQ(in_list().size(), 1U);
    client.reset();
    captured_output out;
    turn();
    turn();
    EXPECT_TRUE(in_list().empty());
    EXPECT_EQ(out.take(), "");
}

TEST_F(server_test, one_system_call_reads_what_a_client_has_sent) {
    start();
    const far_end client = far_end::connect_to(port_.number());
    turn();
    auto& conn = static_cast<scripted_connection&>(*in_list().at(0));
    client.send("once");
    sockets::select_all();
    interposed::recv_calls = 0;
    server_.update();
    EXPECT_EQ(conn.received, "once");
    EXPECT_EQ(interposed::recv_calls, 1);
    EXPECT_EQ(server_.capacities.size(), 2U) << "the hook is still called until it has nothing";
    client.send(" more");
    turn();
    EXPECT_EQ(conn.received, "once more");
}

TEST_F(server_test, what_arrives_behind_a_short_read_is_read_in_the_next_turn) {
    start();
    const far_end client = far_end::connect_to(port_.number());
    turn();
    auto& conn = static_cast<scripted_connection&>(*in_list().at(0));
    conn.when_read = [&](scripted_connection& self) {
        if (self.received == "first") client.send(", second");
    };
    client.send("first");
    turn();
    turn();
    EXPECT_EQ(conn.received, "first, second");
}

TEST_F(server_test, an_end_behind_a_short_read_is_seen_whenever_it_comes) {
    for (const bool together : {true, false}) {
        SCOPED_TRACE(together);
        if (server_.fd == -1) start();
        far_end client = far_end::connect_to(port_.number());
        turn();
        ASSERT_EQ(in_list().size(), 1U);
        auto& conn = static_cast<scripted_connection&>(*in_list().at(0));
        std::string got;
        conn.when_read = [&](scripted_connection& self) {
            got = self.received;
            if (!together) client.close();
        };
        client.send("last words");
        if (together) client.close();
        turn();
        EXPECT_EQ(got, "last words");
        if (!together) turn();
        EXPECT_TRUE(in_list().empty());
    }
}

TEST_F(server_test, a_hook_that_gives_negative_for_its_own_reasons_is_asked_again) {
    far_end far;
    scripted_connection& conn = join(far);
    far.send("kept");
    server_.deaf_once = &conn;
    turn();
    EXPECT_EQ(conn.received, "");
    turn();
    EXPECT_EQ(conn.received, "kept");
}

TEST_F(server_test, a_read_that_is_interrupted_is_made_again) {
    far_end far;
    scripted_connection& conn = join(far);
    far.send("kept");
    sockets::select_all();
    interposed::recv_error_once = EINTR;
    server_.update();
    EXPECT_EQ(conn.received, "");
    turn();
    EXPECT_EQ(conn.received, "kept");
}

TEST_F(server_test, a_write_that_is_interrupted_is_made_again) {
    far_end far;
    join(far).output = "kept";
    turn();
    sockets::select_all();
    interposed::send_error_once = EINTR;
    server_.update();
    EXPECT_EQ(far.receive(), "");
    turn();
    EXPECT_EQ(far.receive(), "kept");
}

TEST_F(server_test, a_disabled_server_drives_what_others_put_into_it) {
    observed_server disabled(0, false);
    captured_output out;
    EXPECT_TRUE(disabled.start());
    EXPECT_EQ(disabled.fd, -1);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    far_end far(ends[1]);
    auto* conn = new scripted_connection;
    conn->fd = ends[0];
    disabled.connections.add(conn);
    sockets::all()->set(conn->fd);
    far.send("x");
    sockets::select_all();
    disabled.update();
    EXPECT_EQ(conn->received, "x");
    disabled.stop();
    EXPECT_EQ(out.take(), "1 connections\n");
}

TEST_F(server_test, a_disabled_server_prints_its_count_once) {
    observed_server disabled(0, false);
    captured_output out;
    for (int i = 0; i < 3; ++i) {
        sockets::select_all();
        disabled.last_report -= 10;
        disabled.update();
    }
    EXPECT_EQ(out.take(), "0 connections\n");
}

TEST_F(server_test, the_count_is_printed_every_six_seconds_and_once_at_zero) {
    far_end far;
    scripted_connection& conn = join(far);
    const auto report = [this](int seconds_ago) {
        server_.last_report = std::time(nullptr) - seconds_ago;
        captured_output out;
        turn();
        return out.take();
    };
    EXPECT_EQ(report(4), "") << "five seconds or less";
    EXPECT_EQ(report(7), "1 connections\n");
    EXPECT_EQ(server_.last_count, 1);
    EXPECT_GE(server_.last_report, std::time(nullptr) - 1);
    EXPECT_EQ(report(7), "1 connections\n");
    conn.stay = false;
    EXPECT_EQ(report(0), "");
    EXPECT_EQ(report(7), "0 connections\n");
    EXPECT_EQ(report(7), "");
}

TEST_F(server_test, the_count_is_due_from_the_sixth_second_on) {
    far_end far;
    join(far);
    // Within one second of the clock, so that the age is what it is meant to be.
    const auto report = [this](int seconds_ago) {
        for (;;) {
            const std::time_t now = std::time(nullptr);
            server_.last_report = now - seconds_ago;
            captured_output out;
            turn();
            std::string text = out.take();
            if (std::time(nullptr) == now) return text;
        }
    };
    EXPECT_EQ(report(5), "");
    EXPECT_EQ(report(6), "1 connections\n");
}

TEST_F(server_test, three_thousand_connections_at_once_are_all_served) {
    const captured_output out;
    turn(); // the registry opens a descriptor that stays when it is first used
    const std::size_t before = open_descriptors();
    ASSERT_TRUE(server_.start());
    std::vector<far_end> clients;
    for (int i = 0; i < 3000; ++i) {
        clients.push_back(far_end::connect_to(port_.number()));
        turn_until([&] { return in_list().size() == clients.size(); });
        in_list().back()->timeout = -1; // a slow machine takes longer than the first ones may wait
    }
    for (const far_end& client : clients) client.send("question");
    turn();
    std::size_t answered = 0;
    for (connection* conn : in_list()) {
        auto& c = static_cast<scripted_connection&>(*conn);
        ASSERT_EQ(c.received, "question");
        c.output = "answer to " + std::to_string(answered++);
        c.stay = false;
    }
    turn_until([&] { return in_list().empty(); }, 10000);
    for (std::size_t i = 0; i < clients.size(); ++i)
        ASSERT_EQ(clients[i].receive(), "answer to " + std::to_string(i));
    clients.clear();
    server_.stop();
    EXPECT_EQ(open_descriptors(), before);
}

} // namespace
