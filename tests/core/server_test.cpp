#include "vindra/core/server.h"
#include "vindra/core/sockets.h"

#include "tests/support/server_fixture.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

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

TEST_F(server_test, urgent_data_ends_the_connection_with_a_line) {
    start();
    const far_end client = far_end::connect_to(port_.number());
    turn();
    const connection& conn = *in_list().at(0);
    const int number = conn.fd;
    ASSERT_EQ(::send(client.fd(), "!", 1, MSG_OOB), 1);
    captured_output out;
    turn();
    EXPECT_EQ(out.take(), std::to_string(number) + " has errors.\n");
    EXPECT_TRUE(removed(conn));
    EXPECT_TRUE(in_list().empty()) << "its entry is gone too";
    turn();
}

TEST_F(server_test, a_silent_client_times_out_after_more_than_ten_seconds) {
    far_end far;
    scripted_connection& conn = join(far);
    const int number = conn.fd;
    sockets::select_all();
    conn.last_active = std::time(nullptr) - 10;
    captured_output out;
    server_.update();
    const bool early = removed(conn);
    if (!early) conn.last_active = std::time(nullptr) - 11;
    server_.update();
    EXPECT_EQ(out.take(), std::to_string(number) + " has timed out.\n");
    EXPECT_FALSE(early);
    EXPECT_TRUE(removed(conn));
}

TEST_F(server_test, timeout_zero_ends_once_the_clock_has_moved_and_negative_never) {
    far_end far_zero;
    far_end far_never;
    scripted_connection& never = join(far_never);
    scripted_connection& zero = join(far_zero);
    zero.timeout = 0;
    never.timeout = -1;
    never.last_active = 0;
    zero.last_active = std::time(nullptr) + 1; // a clock that has not moved on yet
    const captured_output out;
    turn();
    EXPECT_FALSE(removed(zero));
    zero.last_active = std::time(nullptr) - 1;
    turn();
    EXPECT_TRUE(removed(zero));
    EXPECT_FALSE(removed(never));
}

TEST_F(server_test, a_time_out_comes_before_bytes_that_wait) {
    far_end far;
    scripted_connection& conn = join(far);
    far.send("too late");
    bool was_read = false;
    conn.when_read = [&was_read](scripted_connection&) { was_read = true; };
    conn.last_active -= 20;
    const captured_output out;
    turn();
    EXPECT_TRUE(removed(conn));
    EXPECT_FALSE(was_read);
}

TEST_F(server_test, the_connection_behind_a_removed_one_is_passed_over_in_that_pass) {
    far_end far[3];
    scripted_connection& first = join(far[0]);
    scripted_connection& second = join(far[1]);
    scripted_connection& third = join(far[2]);
    first.last_active -= 20;
    far[1].send("b");
    far[2].send("c");
    const captured_output out;
    turn();
    EXPECT_TRUE(removed(first));
    EXPECT_EQ(second.received, "");
    EXPECT_EQ(second.asked, 1) << "the send pass is another one";
    EXPECT_EQ(third.received, "c");
    turn();
    EXPECT_EQ(second.received, "b") << "its bytes are found again without further news";
}

TEST_F(server_test, a_removal_in_front_of_another_leaves_that_for_the_next_turn) {
    far_end far[3];
    scripted_connection& first = join(far[0]);
    scripted_connection& second = join(far[1]);
    scripted_connection& third = join(far[2]);
    for (far_end& f : far) f.close();
    turn();
    EXPECT_EQ(server_.removed, (std::vector<connection*>{&first, &third}));
    EXPECT_EQ(in_list(), std::vector<connection*>{&second});
    turn();
    EXPECT_TRUE(in_list().empty());
    EXPECT_EQ(server_.connections.tail, server_.connections.head);
}

TEST_F(server_test, a_removal_in_the_send_pass_passes_over_the_next_one_too) {
    far_end far[2];
    scripted_connection& first = join(far[0]);
    scripted_connection& second = join(far[1]);
    first.stay = false;
    turn();
    EXPECT_TRUE(removed(first));
    EXPECT_EQ(second.asked, 0);
    turn();
    EXPECT_EQ(second.asked, 1);
}

TEST_F(server_test, a_connection_added_by_a_hook_is_visited_in_the_same_pass) {
    far_end far;
    far_end added_far;
    scripted_connection& conn = join(far);
    scripted_connection* added = nullptr;
    conn.when_read = [&](scripted_connection&) {
        added = &join(added_far);
        added->last_active -= 20;
    };
    far.send("x");
    const captured_output out;
    turn();
    ASSERT_NE(added, nullptr);
    EXPECT_TRUE(removed(*added)) << "timed out in the very pass that it joined";
}

TEST_F(server_test, a_number_used_again_within_a_pass_inherits_no_readiness) {
    far_end old_far;
    far_end asking_far;
    far_end fresh_far;
    join(old_far).output = "something, so that the old number is writable";
    far_end between;
    join(between); // passed over after the removal
    scripted_connection& asking = join(asking_far);
    turn();

    scripted_connection* fresh = nullptr;
    asking.when_read = [&](scripted_connection&) {
        fresh = &join(fresh_far);
        fresh->output = "request";
    };
    const int old_number = in_list().at(0)->fd;
    const captured_output out;
    in_list().at(0)->last_active -= 20;
    asking_far.send("go");
    turn();
    ASSERT_NE(fresh, nullptr);
    ASSERT_EQ(fresh->fd, old_number) << "the kernel hands out the lowest number";
    ASSERT_EQ(in_list().back(), fresh) << "taken for a finished connection";
    turn();
    turn();
    EXPECT_EQ(fresh_far.receive(), "request");
}

TEST_F(server_test, selected_names_the_connection_in_hand_and_nobody_outside) {
    far_end far;
    scripted_connection& conn = join(far);
    connection* seen = nullptr;
    conn.when_read = [&seen](scripted_connection&) { seen = connection::selected(); };
    far.send("x");
    turn();
    EXPECT_EQ(seen, &conn);
    EXPECT_EQ(connection::selected(), nullptr);
}

TEST_F(server_test, stop_ends_every_connection_after_its_hook) {
    start();
    far_end far[2];
    scripted_connection& first = join(far[0]);
    scripted_connection& second = join(far[1]);
    const int listener = server_.fd;
    server_.stop();
    EXPECT_EQ(server_.removed, (std::vector<connection*>{&first, &second}));
    EXPECT_TRUE(in_list().empty());
    EXPECT_EQ(server_.fd, -1);
    EXPECT_FALSE(sockets::all()->test(listener));
    EXPECT_EQ(fcntl(listener, F_GETFD), -1);
    for (far_end& f : far) {
        f.receive();
        EXPECT_TRUE(f.closed_by_peer());
    }
}

TEST_F(server_test, stop_of_a_server_that_never_started_ends_its_connections) {
    far_end far;
    const scripted_connection& conn = join(far);
    server_.stop();
    EXPECT_TRUE(removed(conn));
}

TEST_F(server_test, a_failed_wait_restarts_the_server) {
    start();
    far_end far;
    const scripted_connection& conn = join(far);
    captured_output out;
    interposed::wait_error = ENOMEM;
    sockets::select_all();
    interposed::wait_error = 0;
    EXPECT_EQ(errno, ENOMEM);
    server_.update();
    EXPECT_EQ(errno, ENOMEM) << "the next server has to see it too";
    EXPECT_EQ(out.take(), "select() failed! " + std::to_string(ENOMEM) + "\nBinding to port " +
                              std::to_string(port_.number()) + " on localhost only\n");
    EXPECT_TRUE(removed(conn));
    EXPECT_NE(server_.fd, -1);
    const far_end client = far_end::connect_to(port_.number());
    turn_until([&] { return in_list().size() == 1; });
}

TEST_F(server_test, an_interrupted_wait_changes_nothing) {
    start();
    far_end far;
    scripted_connection& conn = join(far);
    conn.stay = false;
    conn.last_active -= 20;
    captured_output out;
    interposed::wait_error = EINTR;
    turn();
    EXPECT_EQ(out.take(), "");
    EXPECT_EQ(conn.asked, 0);
    EXPECT_FALSE(removed(conn));
}

TEST_F(server_test, a_failed_accept_ends_every_connection_and_listens_anew) {
    start();
    far_end far;
    const scripted_connection& conn = join(far);
    const far_end client = far_end::connect_to(port_.number());
    captured_output out;
    interposed::accept_error = EMFILE;
    turn();
    interposed::accept_error = 0;
    EXPECT_EQ(out.take(), "accept() failed\nBinding to port " + std::to_string(port_.number()) +
                              " on localhost only\n");
    EXPECT_TRUE(removed(conn));
    const far_end next = far_end::connect_to(port_.number());
    turn_until([&] { return in_list().size() == 1; });
}

TEST_F(server_test, out_of_descriptors_for_real_restarts_and_serves_again) {
    start();
    const far_end client = far_end::connect_to(port_.number());
    // A rehearsal: the undefined-behaviour sanitizer needs descriptors of its own when it meets
    // a class for the first time.
    interposed::accept_error = EMFILE;
    turn();
    interposed::accept_error = 0;
    const far_end other = far_end::connect_to(port_.number());
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    sockets::select_all();
    captured_output out;
    rlimit none = limit;
    none.rlim_cur = static_cast<rlim_t>(server_.fd);
    setrlimit(RLIMIT_NOFILE, &none);
    server_.update();
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(out.take().rfind("accept() failed\n", 0), 0U);
    server_.stop();
    start();
    const far_end next = far_end::connect_to(port_.number());
    turn_until([&] { return in_list().size() == 1; });
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

TEST_F(server_test, the_destructor_stops_with_the_plain_hooks) {
    static int removed_by_derived = 0;
    struct derived : server<scripted_connection> {
        using server::server;
        void on_remove(connection* /*conn*/) override { ++removed_by_derived; }
    };
    bool ended = false;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    const far_end far(ends[1]);
    {
        derived short_lived(0, false);
        auto* conn = new scripted_connection;
        conn->fd = ends[0];
        conn->on_end = [&ended] { ended = true; };
        short_lived.connections.add(conn);
    }
    EXPECT_TRUE(ended);
    EXPECT_EQ(removed_by_derived, 0);
}

TEST_F(server_test, a_hook_that_throws_on_the_way_out_leaves_no_connection_behind) {
    struct throwing : server<scripted_connection> {
        using server::server;
        void on_remove(connection* /*conn*/) override { throw std::string("missing"); }
    };
    bool ended = false;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    far_end far(ends[1]);
    throwing short_lived(0, false);
    auto* conn = new scripted_connection;
    conn->fd = ends[0];
    conn->on_end = [&ended] { ended = true; };
    short_lived.connections.add(conn);
    EXPECT_THROW(short_lived.stop(), std::string);
    EXPECT_TRUE(ended);
    far.receive();
    EXPECT_TRUE(far.closed_by_peer());
    EXPECT_EQ(short_lived.connections.count, 0);
}

TEST(abstract_server, several_run_in_order_until_interrupted_and_idle_when_nothing_was_ready) {
    static std::string calls;
    calls.clear();
    struct listed : abstract_server {
        explicit listed(char n) : name(n) {}
        bool start() override {
            calls += std::string("start ") + name + ",";
            return true;
        }
        void update() override { calls += std::string("update ") + name + ","; }
        void on_idle() override {
            calls += std::string("idle ") + name + ",";
            if (name == 'b') std::raise(SIGINT);
        }
        char name;
    };
    listed a('a');
    listed b('b');
    abstract_server* servers[] = {&a, &b, nullptr};
    captured_output out;
    sockets::select_all(); // takes up what an earlier test has left for the next wait
    abstract_server::run(servers);
    EXPECT_EQ(calls, "start a,start b,update a,update b,idle a,idle b,");
    EXPECT_EQ(out.take(), "Shutting down...\n");
    std::signal(SIGINT, SIG_DFL);
}

TEST(abstract_server, one_that_does_not_start_keeps_those_behind_it_from_starting) {
    static int started = 0;
    started = 0;
    struct failing : abstract_server {
        bool start() override {
            ++started;
            return false;
        }
        void update() override {}
    };
    failing a;
    failing b;
    abstract_server* servers[] = {&a, &b, nullptr};
    captured_output out;
    abstract_server::run(servers);
    EXPECT_EQ(started, 1);
    EXPECT_EQ(out.take(), "Failed to start server(s).\n");
    std::signal(SIGINT, SIG_DFL);
}

TEST(abstract_server, a_single_one_that_does_not_start_says_nothing_more) {
    struct failing : abstract_server {
        bool start() override { return false; }
        void update() override {}
    };
    failing a;
    captured_output out;
    a.run();
    EXPECT_EQ(out.take(), "");
    std::signal(SIGINT, SIG_DFL);
}

TEST(abstract_server, a_single_one_runs_until_interrupted_and_never_idles) {
    struct counting : abstract_server {
        bool start() override { return true; }
        void update() override {
            if (++updates == 2) std::raise(SIGINT);
        }
        void on_idle() override { idled = true; }
        int updates = 0;
        bool idled = false;
    };
    counting a;
    captured_output out;
    a.run();
    EXPECT_EQ(a.updates, 2);
    EXPECT_FALSE(a.idled);
    EXPECT_EQ(out.take(), "Shutting down...\n");
    std::signal(SIGINT, SIG_DFL);
}

} // namespace
