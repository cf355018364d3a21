// Servers that run together until they are interrupted.

#include "vindra/core/server.h"
#include "vindra/core/sockets.h"

#include "tests/support/server_fixture.h"

#include <csignal>
#include <string>

#include <gtest/gtest.h>

namespace {

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
