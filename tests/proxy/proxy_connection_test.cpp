#include "vindra/core/server.h"
#include "vindra/core/sockets.h"
#include "vindra/proxy/proxy_connection.h"

#include "tests/support/far_end.h"

#include <ctime>
#include <string>

#include <gtest/gtest.h>
#include <sys/socket.h>

namespace {

// The shared end of a pipe, for a backend connection on a socket of the test's own.
class nobody : public connection {
public:
    void on_recv(char* /*data*/, int /*length*/) override {}
    bool on_send(char* /*buffer*/, int /*capacity*/, int* /*length*/) override { return true; }
};

TEST(proxy_connection, on_a_message_socket_is_read_until_nothing_is_left) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    const far_end backend(ends[1]);
    server<nobody> home(0, false);
    home.last_report = std::time(nullptr);
    auto* pipe = new proxy_pipe;
    home.connections.add(new proxy_connection(ends[0], pipe));
    sockets::all()->set(ends[0]);
    for (const char* message : {"one", "two", "three"}) backend.send(message);
    sockets::select_all();
    home.update();
    EXPECT_TRUE(pipe->to_client == "onetwothree") << std::string(pipe->to_client);
    --pipe->refs;
}

} // namespace
