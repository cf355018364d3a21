// Blocks of a relay over TLS. Large outputs leave by one call of the library's a block, none of
// them copied.

#include "vindra/core/sockets.h"
#include "vindra/proxy/http_proxy.h"
#include "vindra/proxy/proxy_connection.h"
#include "vindra/tls/ssl_server.h"

#include "tests/support/far_end.h"
#include "tests/tls/fake_openssl.h"

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <sys/socket.h>

namespace {

class ssl_blocks_test : public testing::Test {
protected:
    ssl_blocks_test() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        far_ = far_end(ends[1]);
        conn_ = new proxy_connection(ends[0], pipe_);
        EXPECT_TRUE(home_->on_accept(conn_));
        home_->connections.add(conn_);
        sockets::all()->set(ends[0]);
        home_->last_report = std::time(nullptr) + 3600;
    }
    ~ssl_blocks_test() override {
        far_.close();
        for (int i = 0; i < 5 && home_->connections.count > 0; ++i) turn();
        EXPECT_EQ(home_->connections.count, 0);
        home_.reset();
        if (--pipe_->refs == 0) delete pipe_;
    }

    void turn() const {
        sockets::hurry();
        sockets::select_all();
        home_->update();
    }

    std::string receive_all() {
        std::string got;
        for (int turns = 0; turns < 100 && (conn_->send_length > 0 || !pipe_->to_backend.empty());
             ++turns) {
            turn();
            got += far_.receive();
        }
        return got;
    }

    static std::ptrdiff_t writes() {
        return std::count(fake_openssl::calls.begin(), fake_openssl::calls.end(), "SSL_write");
    }

    fake_openssl library_;
    std::unique_ptr<ssl_server<http_proxy>> home_ =
        std::make_unique<ssl_server<http_proxy>>(0, true, "the.key", "the.crt");
    proxy_pipe* pipe_ = new proxy_pipe;
    proxy_connection* conn_ = nullptr;
    far_end far_;
};

TEST_F(ssl_blocks_test, leave_by_one_call_each) {
    const std::string sent(150000, 'x');
    pipe_->to_backend += sent;
    EXPECT_EQ(receive_all(), sent);
    EXPECT_EQ(writes(), 3);
    EXPECT_EQ(std::count(conn_->send_buffer, conn_->send_buffer + 150000, '\0'), 150000);
}

TEST_F(ssl_blocks_test, are_not_read_into_past_the_library) {
    const auto reads = [] {
        return std::count(fake_openssl::calls.begin(), fake_openssl::calls.end(), "SSL_read");
    };
    turn();
    far_.send(std::string(20000, 'x'));
    turn();
    const auto before = reads();
    far_.send(std::string(20000, 'y'));
    turn();
    EXPECT_EQ(reads(), before + 2);
    EXPECT_EQ(pipe_->to_client.size(), 40000U);
}

TEST_F(ssl_blocks_test, stay_when_the_library_cannot_write_yet) {
    const std::string sent(150000, 'x');
    pipe_->to_backend += sent;
    turn();
    fake_openssl::write_outcomes = {{-1, 0}};
    turn();
    EXPECT_EQ(conn_->send_length, 150000);
    EXPECT_EQ(far_.receive(), "");
    // The library wanted to read first. Its bytes raise an event, behind which it is tried again.
    far_.send("y");
    EXPECT_EQ(receive_all(), sent);
    EXPECT_EQ(pipe_->to_client.size(), 1U);
}

} // namespace
