// Large outputs leave a relay as the blocks of its queue, without a copy in the send buffer.
// Whoever could tell the difference is served from the buffer, as all others are.

#include "vindra/core/server.h"
#include "vindra/core/sockets.h"
#include "vindra/proxy/http_proxy.h"
#include "vindra/proxy/proxy_connection.h"

#include "tests/proxy/relay_stage.h"
#include "tests/support/captured_output.h"
#include "tests/support/interposed_calls.h"

#include <algorithm>
#include <cerrno>
#include <random>
#include <string>

#include <gtest/gtest.h>

namespace {

// Changes what its base gives.
class shouting_proxy : public proxy_connection {
public:
    using proxy_connection::proxy_connection;

    bool on_send(char* buffer, int capacity, int* length) override {
        const bool stays = proxy_connection::on_send(buffer, capacity, length);
        std::fill(buffer, buffer + *length, '!');
        return stays;
    }
};

class blocks_out : public testing::Test {
protected:
    blocks_out() { interposed::sendmsg_calls = 0; }
    ~blocks_out() override {
        interposed::send_limit = 0;
        EXPECT_EQ(blocks_in_use(), 0U) << "a block was lost";
    }

    captured_output out_;
};

TEST_F(blocks_out, carry_large_outputs_without_touching_the_send_buffer) {
    stage<server<http_proxy>> s;
    const std::string sent = pattern(3 * mib);
    s.pipe->to_backend += sent;
    EXPECT_TRUE(s.receive_all() == sent);
    EXPECT_GT(interposed::sendmsg_calls, 0);
    EXPECT_EQ(std::count(s.conn->send_buffer, s.conn->send_buffer + mib, '\0'),
              static_cast<std::ptrdiff_t>(mib));
    EXPECT_EQ(seat::of(*s.conn).buffer_used, 0) << "it would be wiped";
}

TEST_F(blocks_out, are_not_handed_over_for_less_than_a_page) {
    stage<server<http_proxy>> s;
    s.pipe->to_backend += std::string(4095, 'x');
    EXPECT_EQ(s.receive_all().size(), 4095U);
    EXPECT_EQ(interposed::sendmsg_calls, 0);
    s.pipe->to_backend += std::string(4096, 'x');
    EXPECT_EQ(s.receive_all().size(), 4096U);
    EXPECT_GT(interposed::sendmsg_calls, 0);
}

TEST_F(blocks_out, are_taken_a_mebibyte_at_a_time) {
    stage<server<http_proxy>> s;
    s.pipe->to_backend += pattern(2 * mib + 5);
    s.turn();
    EXPECT_EQ(s.conn->send_length, 1048576);
    EXPECT_EQ(s.conn->send_offset, 0);
    EXPECT_TRUE(s.conn->more);
    EXPECT_EQ(s.pipe->to_backend.size(), mib + 5);
    s.turn();
    EXPECT_EQ(s.conn->send_length + s.conn->send_offset, 1048576) << "written in part";
    EXPECT_GT(s.conn->send_offset, 0);
    s.receive_all();
}

TEST_F(blocks_out, arrive_whole_wherever_a_write_stops) {
    // In the middle of a block, at ends of blocks, behind the last one, and byte by byte.
    for (const int limit : {1, 777, 60000, 65536, 131072, 1048576}) {
        SCOPED_TRACE(limit);
        interposed::send_limit = limit;
        stage<server<http_proxy>> s;
        const std::string sent = pattern(limit == 1 ? 5000 : 300000);
        s.pipe->to_backend += sent;
        EXPECT_TRUE(s.receive_all() == sent);
    }
}

TEST_F(blocks_out, stay_when_a_write_is_interrupted) {
    stage<server<http_proxy>> s;
    const std::string sent = pattern(100000);
    s.pipe->to_backend += sent;
    s.turn();
    interposed::send_error_once = EINTR;
    s.turn();
    EXPECT_EQ(s.conn->send_length, 100000);
    EXPECT_TRUE(s.receive_all() == sent);
}

TEST_F(blocks_out, are_dropped_with_the_connection_that_holds_them) {
    stage<server<http_proxy>> s;
    s.pipe->to_backend += pattern(mib);
    s.turn();
    s.turn();
    EXPECT_GT(blocks_in_use(), 0U);
    s.far.close();
    for (int i = 0; i < 5 && s.home->connections.count > 0; ++i) s.turn();
    EXPECT_EQ(s.home->connections.count, 0);
    EXPECT_EQ(blocks_in_use(), 0U);
}

TEST_F(blocks_out, are_dropped_with_a_connection_that_times_out) {
    stage<server<http_proxy>> s;
    s.pipe->to_backend += pattern(mib);
    s.turn();
    s.conn->timeout = 0;
    s.conn->last_active -= 5;
    s.turn();
    EXPECT_EQ(s.home->connections.count, 0);
    EXPECT_EQ(blocks_in_use(), 0U);
}

TEST_F(blocks_out, are_the_connections_own_when_the_queue_is_replaced) {
    stage<server<http_proxy>> s;
    const std::string sent = pattern(100000);
    s.pipe->to_backend += sent;
    s.turn();
    s.pipe->to_backend.assign("in its place");
    EXPECT_TRUE(s.receive_all() == sent + "in its place");
}

TEST_F(blocks_out, are_dropped_by_whoever_says_that_nothing_waits) {
    stage<server<http_proxy>> s;
    s.pipe->to_backend += pattern(100000);
    s.turn();
    s.conn->send_length = 0;
    sockets::ready()->clear(s.conn->fd);
    s.pipe->to_backend += "next";
    EXPECT_EQ(s.receive_all(), "next");
}

TEST_F(blocks_out, are_cut_by_whoever_says_that_fewer_bytes_wait) {
    stage<server<http_proxy>> s;
    const std::string sent = pattern(100000);
    s.pipe->to_backend += sent;
    s.turn();
    s.conn->send_length = 500;
    EXPECT_TRUE(s.receive_all() == sent.substr(0, 500));
}

TEST_F(blocks_out, are_not_shown_to_a_send_that_is_overridden) {
    stage<watching_server> s;
    const std::string sent = pattern(3 * mib);
    s.pipe->to_backend += sent;
    s.turn();
    s.turn();
    ASSERT_FALSE(s.home->lengths.empty());
    EXPECT_EQ(s.home->lengths.front(), 1048576);
    EXPECT_TRUE(s.receive_all() == sent);
    EXPECT_FALSE(s.home->outside);
    EXPECT_EQ(interposed::sendmsg_calls, 0);
}

TEST_F(blocks_out, become_bytes_of_the_buffer_on_another_server) {
    stage<server<http_proxy>> s;
    const std::string sent = pattern(mib);
    s.pipe->to_backend += sent;
    s.turn();
    s.turn();
    const int written = s.conn->send_offset;
    EXPECT_GT(written, 0);

    watching_server other(0, false);
    other.last_report = s.home->last_report;
    other.connections.add(s.home->connections.pop());
    std::string got;
    for (int turns = 0; turns < 5000 && got.size() < sent.size(); ++turns) {
        got += s.far.receive();
        sockets::select_all();
        other.update();
    }
    EXPECT_TRUE(got == sent);
    ASSERT_FALSE(other.lengths.empty());
    EXPECT_EQ(other.lengths.front(), 1048576 - written);
    EXPECT_FALSE(other.outside);
}

TEST_F(blocks_out, are_not_taken_from_behind_a_class_that_changes_its_buffer) {
    stage<server<http_proxy>, shouting_proxy> s;
    s.pipe->to_backend += pattern(200000);
    EXPECT_EQ(s.receive_all(), std::string(200000, '!'));
    EXPECT_EQ(interposed::sendmsg_calls, 0);
}

TEST_F(blocks_out, leave_fields_and_bytes_as_a_copy_would_in_any_mix_of_events) {
    for (unsigned seed = 0; seed < 8; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        stage<server<http_proxy>> handed;
        stage<watching_server> copied;
        for (int i = 0; i < 150; ++i) {
            const unsigned event = random() % 4;
            if (event == 0) {
                const std::string bytes = pattern(random() % 400000, seed);
                handed.pipe->to_backend += bytes;
                copied.pipe->to_backend += bytes;
            } else if (event == 1) {
                ASSERT_TRUE(handed.far.receive() == copied.far.receive()) << i;
            }
            sockets::hurry();
            sockets::select_all();
            handed.home->update();
            copied.home->update();
            ASSERT_EQ(handed.conn->send_length, copied.conn->send_length) << i;
            ASSERT_EQ(handed.conn->send_offset, copied.conn->send_offset) << i;
            ASSERT_EQ(handed.conn->more, copied.conn->more) << i;
            ASSERT_EQ(handed.pipe->to_backend.size(), copied.pipe->to_backend.size()) << i;
        }
        ASSERT_TRUE(handed.receive_all() == copied.receive_all());
    }
}

} // namespace
