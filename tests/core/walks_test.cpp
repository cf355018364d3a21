// The server's walk over those that have something to do beside a plain one over every connection,
// written out in walking_world.h. One random script of events goes to two servers at once, and
// every call that they make is compared.

#include "tests/core/walking_world.h"
#include "tests/support/captured_output.h"
#include "tests/support/frames.h"

#include <cstdio>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// A seed of the script, and up to how many connections the server visits all of them.
struct trial {
    unsigned seed;
    int plain_walk_max;
};

class walks_test : public testing::TestWithParam<trial> {
protected:
    // Does the same in both worlds.
    template <typename Deed>
    void both(Deed deed) {
        deed(plain_);
        deed(quick_);
    }

    unsigned pick(unsigned below) { return static_cast<unsigned>(random_() % below); }

    void someone_comes() {
        switch (pick(8)) {
        case 0:
            return both([](world& w) { w.join<answerer>(); });
        case 1:
            return both([](world& w) { w.join<application>(); });
        case 2:
        case 3:
            return both([](world& w) { w.join<member>(); });
        default:
            return both([](world& w) { w.join<relay>(); });
        }
    }

    std::string bytes_of_some_kind() {
        const std::string handshake = "GET /ws HTTP/1.1\r\nUpgrade: websocket\r\n"
                                      "Sec-WebSocket-Version: 13\r\n"
                                      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n";
        const std::vector<std::string> kinds = {
            "GET / HTTP/1.1\r\n\r\n",
            "GET /other HTTP/1.1\r\n\r\n",
            "GET /here HTTP/1.1\r\n\r\n",
            "GET /late HTTP/1.1\r\n\r\n",
            "GET /hurry HTTP/1.1\r\n\r\n",
            "GET / HTTP/1.0\r\n\r\n",
            "POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\n12345",
            handshake,
            short_frame(0x81, "hello"),
            short_frame(0x81, "leave"),
            short_frame(0x88, ""),
            std::string(3000, 'x'),
            std::string(40000, 'y'),
        };
        return kinds[pick(static_cast<unsigned>(kinds.size()))];
    }

    void someone_acts() {
        const std::vector<int> numbers = plain_.living();
        if (numbers.empty()) return;
        const int who = numbers[pick(static_cast<unsigned>(numbers.size()))];
        switch (pick(24)) {
        case 0:
            return both([who](world& w) { w.far.at(who).close(); });
        case 1:
            return both([who](world& w) { w.far.at(who).finish_sending(); });
        case 2:
        case 3:
            return both([who](world& w) {
                if (w.actors.contains(who)) w.actors.at(who)->prompt();
            });
        case 4:
        case 5:
        case 6:
        case 7:
        case 8:
        case 9:
        case 10:
            return both([who](world& w) { w.far.at(who).receive(); });
        default: {
            const std::string bytes = bytes_of_some_kind();
            return both([&](world& w) { w.far.at(who).send_some(bytes); });
        }
        }
    }

    void time_passes() {
        if (pick(20) == 0) ++now;
        if (pick(200) == 0) now += 11;
    }

    void turn_and_compare() {
        sockets::select_all();
        both([](world& w) { w.update(); });
        ASSERT_EQ(plain_.log, quick_.log);
        ASSERT_EQ(plain_.state(), quick_.state());
        calls_ += plain_.log.size();
        const bool many = quick_.the_server.connections.count > GetParam().plain_walk_max;
        if (many != std::exchange(many_, many)) ++crossings_;
        both([](world& w) { w.log.clear(); });
    }

    // Lists that cross the limit, both ways, many times.
    std::size_t connections_max() const {
        const int limit = GetParam().plain_walk_max;
        return limit == 0 ? 60U : static_cast<std::size_t>(limit + limit / 2);
    }

    std::mt19937 random_{GetParam().seed};
    world plain_{"plain"};
    world quick_{"quick", GetParam().plain_walk_max};
    std::size_t calls_ = 0;
    bool many_ = false;
    int crossings_ = 0;
};

// The sanitizers take ten times as long.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int turns = 1000;
#else
constexpr int turns = 3000;
#endif

TEST_P(walks_test, leave_out_no_call_but_those_that_would_do_nothing) {
    captured_output out;
    for (int turn = 0; turn < turns; ++turn) {
        for (unsigned events = pick(5); events > 0; --events) {
            if (plain_.far.size() < connections_max() && pick(3) == 0) someone_comes();
            someone_acts();
        }
        if (pick(200) == 0) both([](world& w) { w.join_late(); });
        time_passes();
        turn_and_compare();
        if (HasFatalFailure()) {
            out.take();
            FAIL() << "in turn " << turn;
        }
    }
    out.take();
    EXPECT_GT(calls_, std::size_t{turns});
    if (GetParam().plain_walk_max == 0) {
        // News of each number in the plain world has everyone looked at once: whose is it?
        EXPECT_LT(quick_.empty_asks, plain_.empty_asks * 2 / 3) << "it asked nearly everyone";
    } else {
        EXPECT_LT(quick_.empty_asks, plain_.empty_asks) << "the limit was never crossed";
        EXPECT_GT(crossings_, turns / 300) << "or hardly ever";
    }
}

constexpr trial trials[] = {{0, 0}, {1, 0}, {2, 0}, {3, 0},  {4, 0},   {5, 0},
                            {6, 8}, {7, 8}, {8, 8}, {9, 32}, {10, 32}, {11, 32}};

INSTANTIATE_TEST_SUITE_P(seeds, walks_test, testing::ValuesIn(trials), [](const auto& test) {
    return "seed_" + std::to_string(test.param.seed) + "_limit_" +
           std::to_string(test.param.plain_walk_max);
});

} // namespace
