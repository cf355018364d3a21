// Connections that an application moves: to another list, out of all of them, to another number.

#include "tests/support/server_fixture.h"

#include <climits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

// Each of two servers with everyone visited in each turn, and with those at rest left out.
struct limits {
    int server;
    int other;
};

class lists_test : public server_test, public testing::WithParamInterface<limits> {
protected:
    lists_test() {
        server_.plain_walk_max = GetParam().server;
        other_->plain_walk_max = GetParam().other;
        other_->last_report = server_.last_report;
    }

    // A turn whose wait finds something, so that it need not visit everyone.
    void busy_turn() {
        clock_.send("x");
        turn_both();
    }

    void turn_both() {
        sockets::select_all();
        server_.update();
        if (other_) other_->update();
    }

    // Joins the server, with company, and comes to rest.
    resting_connection& resting(far_end& far) {
        auto& conn = join<resting_connection>(far);
        conn.timeout = -1;
        for (int i = 0; i < 3; ++i) busy_turn();
        return conn;
    }

    // Takes `conn` out of the list of `from`.
    static void take_out(server_base& from, const connection& conn) {
        auto& list = from.connections;
        for (list.prev = list.head; list.prev->next->value != &conn;) list.prev = list.prev->next;
        list.remove();
    }

    void move_to_other(connection& conn) {
        take_out(server_, conn);
        other_->connections.add(&conn);
    }

    held_port other_port_;
    std::unique_ptr<observed_server> other_ =
        std::make_unique<observed_server>(other_port_.number(), true);
    far_end clock_;
    scripted_connection& company_ = join(clock_);
};

TEST_P(lists_test, a_connection_is_driven_by_the_server_in_whose_list_it_stands) {
    far_end far;
    auto& conn = resting(far);
    far_end stays_far;
    resting(stays_far);
    move_to_other(conn);
    for (int i = 0; i < 3; ++i) {
        server_.capacities.clear();
        far.send("a");
        conn.wake();
        turn_both();
        EXPECT_EQ(conn.received, std::string(static_cast<std::size_t>(i) + 1, 'a'));
        EXPECT_EQ(server_.capacities.size(), 0U) << "the old server's hooks have read it";
        conn.wake();
        busy_turn();
    }
    conn.stay = false;
    conn.wake();
    turn_both();
    EXPECT_EQ(other_->removed, std::vector<connection*>{&conn});
    EXPECT_TRUE(server_.removed.empty());
}

TEST_P(lists_test, a_connection_outlives_the_server_that_it_has_left) {
    far_end far;
    auto& conn = resting(far);
    move_to_other(conn);
    far_end other_clock;
    auto& company = join(other_clock);
    move_to_other(company);
    for (int i = 0; i < 3; ++i) busy_turn();
    take_out(*other_, conn);
    server_.connections.add(&conn);
    for (int i = 0; i < 3; ++i) busy_turn();
    other_.reset();
    conn.wake();
    far.send("a");
    for (int i = 0; i < 3; ++i) busy_turn();
    EXPECT_EQ(conn.received, "a");
}

TEST_P(lists_test, a_connection_in_no_list_is_driven_by_nobody) {
    far_end far;
    auto& conn = resting(far);
    take_out(server_, conn);
    far.send("a");
    conn.output = "b";
    conn.wake();
    for (int i = 0; i < 3; ++i) busy_turn();
    EXPECT_EQ(conn.received, "");
    EXPECT_EQ(far.receive(), "");
    sockets::close(conn.fd);
    delete &conn;
    for (int i = 0; i < 3; ++i) busy_turn();
    EXPECT_EQ(in_list(), std::vector<connection*>{&company_});
}

TEST_P(lists_test, a_connection_that_was_taken_out_may_come_back) {
    far_end far;
    auto& conn = resting(far);
    take_out(server_, conn);
    busy_turn();
    server_.connections.add(&conn);
    far.send("a");
    busy_turn();
    EXPECT_EQ(conn.received, "a");
}

// Four connections, resting and not, of which the second takes out the first of the whole list in
// its hook, in either way that a list has, and leaves or stays.
TEST_P(lists_test, a_hook_may_take_out_others) {
    for (const bool by_cursor : {false, true}) {
        for (const bool leaves : {false, true}) {
            SCOPED_TRACE(testing::Message() << by_cursor << leaves);
            far_end first_far;
            auto& first = resting(first_far);
            take_out(server_, company_);
            server_.connections.add(&company_);
            far_end far[4];
            scripted_connection* conns[4];
            for (int i = 0; i < 4; ++i) {
                conns[i] = i % 2 == 0 ? &resting(far[i]) : &join(far[i]);
                conns[i]->timeout = -1;
            }
            for (int i = 0; i < 3; ++i) busy_turn();
            ASSERT_EQ(in_list().front(), &first);
            conns[1]->when_read = [&](scripted_connection&) {
                if (by_cursor) {
                    take_out(server_, first);
                } else {
                    server_.connections.pop();
                }
                sockets::close(first.fd);
                delete &first;
            };
            for (const int i : {1, 2, 3}) far[i].send("a");
            if (leaves) far[1].close();
            server_.removed.clear();
            turn_both();
            EXPECT_EQ(removed(*conns[1]), leaves);
            EXPECT_EQ(conns[2]->received, leaves ? "" : "a") << "behind one that is removed";
            EXPECT_EQ(conns[3]->received, "a");
            EXPECT_EQ(in_list().size(), leaves ? 4U : 5U);
            far[0].send("a");
            turn_both();
            for (const int i : {0, 2}) EXPECT_EQ(conns[i]->received, "a") << i;
            while (server_.connections.tail->value != &company_) {
                connection* const last = server_.connections.tail->value;
                take_out(server_, *last);
                server_.end_connection(last);
            }
        }
    }
}

TEST_P(lists_test, connections_that_exchange_their_numbers_have_news_of_those_they_have_now) {
    far_end far_one;
    far_end far_two;
    auto& one = resting(far_one);
    auto& two = resting(far_two);
    std::swap(one.fd, two.fd);
    far_one.send("a");
    turn_both();
    EXPECT_EQ(two.received, "a");
    EXPECT_EQ(one.received, "");
    far_two.send("b");
    turn_both();
    EXPECT_EQ(one.received, "b");
    two.output = "c";
    two.wake();
    turn_both();
    turn_both();
    EXPECT_EQ(far_one.receive(), "c");
}

TEST_P(lists_test, a_connection_with_a_new_number_has_news_of_that) {
    far_end far;
    auto& conn = resting(far);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    const int old = std::exchange(conn.fd, ends[0]);
    sockets::all()->set(conn.fd);
    const far_end next(ends[1]);
    next.send("a");
    far.send("to nobody");
    turn_both();
    EXPECT_EQ(conn.received, "a");
    turn_both();
    sockets::close(old);
}

TEST_P(lists_test, bits_that_a_hook_marks_are_acted_on_in_that_pass) {
    far_end far[4];
    auto& marker = join(far[0]);
    resting_connection* conns[4] = {};
    for (int i = 1; i < 4; ++i) conns[i] = &resting(far[i]);
    for (int i = 0; i < 3; ++i) busy_turn();
    marker.timeout = -1;
    const int erring = conns[3]->fd;
    marker.when_read = [&](scripted_connection&) {
        far[1].send("a"); // behind the wait's back
        sockets::readable()->set(conns[1]->fd);
        conns[2]->last_active = 5;
        sockets::writable()->set(conns[2]->fd);
        sockets::errors()->set(erring);
    };
    far[0].send("x");
    captured_output out;
    turn_both();
    EXPECT_EQ(out.take(), std::to_string(erring) + " has errors.\n");
    EXPECT_EQ(conns[1]->received, "a");
    EXPECT_GT(conns[2]->last_active, 5);
    EXPECT_TRUE(removed(*conns[3]));
}

TEST_P(lists_test, a_mark_on_one_whose_visit_is_over_is_for_nobody) {
    far_end far[2];
    auto& conn = resting(far[0]);
    auto& marker = join(far[1]);
    for (int i = 0; i < 3; ++i) busy_turn();
    marker.when_read = [&](scripted_connection&) { sockets::errors()->set(conn.fd); };
    far[1].send("x");
    captured_output out;
    turn_both();
    busy_turn();
    EXPECT_EQ(out.take(), "");
    EXPECT_FALSE(removed(conn));
}

TEST_P(lists_test, urgent_data_finds_one_that_rests) {
    start();
    const far_end client = far_end::connect_to(port_.number());
    turn_until([&] { return in_list().size() == 2; });
    auto* const accepted = in_list()[1];
    take_out(server_, *accepted);
    auto* const conn = new resting_connection;
    conn->fd = std::exchange(accepted->fd, -1);
    delete accepted;
    server_.connections.add(conn);
    for (int i = 0; i < 3; ++i) busy_turn();
    const captured_output out;
    ASSERT_EQ(::send(client.fd(), "!", 1, MSG_OOB), 1);
    turn_until([&] { return removed(*conn); }, 3);
}

TEST_P(lists_test, readiness_of_what_is_no_connection_s_does_not_hold_anybody_up) {
    far_end far;
    auto& conn = resting(far);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    sockets::all()->set(ends[0]);
    const far_end strange(ends[1]);
    strange.send("for the application itself");
    turn_both();
    const int asked = conn.asked;
    for (int i = 0; i < 5; ++i) turn_both();
    // Not exactly none: the second may change meanwhile.
    if (GetParam().server == 0) {
        EXPECT_LE(conn.asked, asked + 2) << "everyone is looked at for it";
    }
    conn.fd = std::exchange(ends[0], conn.fd);
    sockets::all()->set(conn.fd);
    turn_both();
    EXPECT_EQ(conn.received, "for the application itself");
    sockets::close(ends[0]);
}

INSTANTIATE_TEST_SUITE_P(walks, lists_test,
                         testing::Values(limits{INT_MAX, INT_MAX}, limits{0, 0}, limits{0, INT_MAX},
                                         limits{INT_MAX, 0}),
                         [](const auto& test) {
                             return std::string(test.param.server == 0 ? "rest" : "plain") +
                                    (test.param.other == 0 ? "_rest" : "_plain");
                         });

} // namespace
