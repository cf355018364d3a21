// 100 and 413 by calls in on_headers(), with the reader as it is and with the strict one.

#include "tests/support/captured_output.h"
#include "tests/support/drain.h"
#include "tests/support/feed.h"
#include "tests/support/recording_connection.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

class careful_connection : public recording_connection {
public:
    void on_headers() override {
        recording_connection::on_headers();
        if (!refuse_body_over(1000)) answer_continue();
    }
    void on_request() override {
        calls += "request ";
        answer(200, "", std::to_string(data.size()));
    }
};

std::unique_ptr<careful_connection> careful() {
    return std::make_unique_for_overwrite<careful_connection>();
}

std::string head(const std::string& lines, const std::string& version = "HTTP/1.1") {
    return "POST / " + version + "\r\nHost: a\r\n" + lines + "\r\n";
}

const std::string go_on = "HTTP/1.1 100 Continue\r\n\r\n";
const std::string too_large = "HTTP/1.1 413 Content Too Large\r\nContent-Length: 0\r\n"
                              "Connection: close\r\n\r\n";
const std::string expects = "Expect: 100-continue\r\n";

std::string answer_with(const std::string& body) {
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

} // namespace

TEST(announced_body, is_asked_for_where_the_client_waits) {
    const struct {
        std::string request;
        std::string sent;
    } cases[] = {
        {head("Content-Length: 2\r\n" + expects), go_on},
        {head("Content-Length: 2\r\nexpect:100-CONTINUE\r\n"), go_on},
        {head("Content-Length: 2\r\n"), ""},
        {head("Content-Length: 2\r\nExpect: 100\r\n"), ""},
        {head("Content-Length: 2\r\nExpect-X: 100-continue\r\n"), ""},
        {head("Content-Length: 2\r\n" + expects, "HTTP/1.0"), ""},
        {head("Content-Length: 2\r\n" + expects) + "a", ""},
        {head("Content-Length: 0\r\n" + expects), answer_with("0")},
    };
    for (const auto& c : cases) {
        const auto conn = careful();
        feed(*conn, c.request);
        EXPECT_EQ(drain(*conn).bytes(), c.sent) << c.request;
    }
}

TEST(announced_body, is_answered_once_it_has_come) {
    const auto conn = careful();
    feed(*conn, head("Content-Length: 2\r\n" + expects));
    drain(*conn);
    feed(*conn, "ab");
    EXPECT_EQ(drain(*conn).bytes(), answer_with("2"));
    EXPECT_TRUE(conn->keep_alive);
}

TEST(announced_body, is_not_asked_for_behind_an_answer) {
    class refusing_connection : public careful_connection {
        void on_headers() override {
            answer(401, "", "");
            answer_continue();
        }
    };
    const auto conn = std::make_unique_for_overwrite<refusing_connection>();
    captured_output output;
    feed(*conn, head("Content-Length: 2\r\n" + expects));
    EXPECT_EQ(drain(*conn).bytes(), "HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(output.take(), "");
}

TEST(announced_body, is_refused_only_above_the_limit) {
    const struct {
        const char* length;
        bool refused;
    } cases[] = {{"1000", false},      {"1001", true},
                 {"4294967297", true}, {"99999999999999999999", true},
                 {"-1", false},        {"many", false}};
    for (const auto& c : cases) {
        const auto conn = careful();
        feed(*conn, head("Content-Length: "s + c.length + "\r\n"));
        EXPECT_EQ(drain(*conn).bytes() == too_large, c.refused) << c.length;
    }
}

TEST(announced_body, is_dropped_once_it_is_refused) {
    for (const bool strictly : {false, true}) {
        for (const std::size_t piece : {1U, 100U, 5000U}) {
            SCOPED_TRACE(testing::Message() << strictly << ", pieces of " << piece);
            const auto conn = careful();
            if (strictly) conn->read_strictly(5000);
            captured_output output;
            feed(*conn, head("Content-Length: 2000\r\n") + std::string(1999, 'x'), piece);
            drained sent = drain(*conn);
            EXPECT_EQ(sent.bytes(), too_large);
            EXPECT_TRUE(sent.open) << "the client still sends";
            feed(*conn, "x");
            sent = drain(*conn);
            EXPECT_EQ(sent.bytes(), "");
            EXPECT_FALSE(sent.open);
            EXPECT_EQ(conn->calls, "headers ");
            EXPECT_EQ(conn->data, "");
            EXPECT_EQ(output.take(), "");
        }
    }
}

TEST(announced_body, that_is_held_back_is_not_waited_for) {
    for (const bool strictly : {false, true}) {
        const auto conn = careful();
        if (strictly) conn->read_strictly(5000);
        feed(*conn, head("Content-Length: 2000\r\n" + expects));
        const drained sent = drain(*conn);
        EXPECT_EQ(sent.bytes(), too_large);
        EXPECT_FALSE(sent.open);
        EXPECT_EQ(conn->calls, "headers ");

        const auto old = careful();
        if (strictly) old->read_strictly(5000);
        feed(*old, head("Content-Length: 2000\r\n" + expects, "HTTP/1.0"));
        EXPECT_TRUE(drain(*old).open) << "there, nothing is held back";
    }
}

TEST(announced_body, is_no_longer_waited_for_when_the_client_is_silent) {
    const auto conn = careful();
    feed(*conn, head("Content-Length: 2000\r\n"));
    EXPECT_TRUE(drain(*conn).open);
    conn->last_active -= 3;
    EXPECT_FALSE(drain(*conn).open);
}
