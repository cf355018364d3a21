// How connections end, one at a time and all at once.

#include "vindra/core/server.h"
#include "vindra/core/sockets.h"

#include "tests/support/server_fixture.h"

#include <cerrno>
#include <ctime>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>

namespace {

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

} // namespace
