#include "vindra/core/sockets.h"
#include "vindra/http/deferred_result.h"
#include "vindra/http/http_connection.h"

#include "tests/support/captured_output.h"
#include "tests/support/drain.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

constexpr int mebibyte = 1048576;

using part = http_connection::response_part;

class counted_result : public deferred_result {
public:
    explicit counted_result(int& alive) : alive_(alive) { ++alive_; }
    ~counted_result() override { --alive_; }

private:
    int& alive_;
};

// Notes what its destructor finds.
class looking_result : public deferred_result {
public:
    struct sight {
        int timeout = 0;
        std::time_t last_active = 0;
        std::string buffer;
        int length = 0;
        int queued = -1;
    };

    looking_result(const http_connection& conn, const int& length, sight& seen)
        : conn_(conn), length_(length), seen_(seen) {}
    ~looking_result() override {
        const auto size = static_cast<std::size_t>(length_);
        seen_ = {conn_.timeout,
                 conn_.last_active,
                 {conn_.send_buffer, size},
                 length_,
                 conn_.parts.count};
    }

private:
    const http_connection& conn_;
    const int& length_;
    sight& seen_;
};

class send_queue : public testing::Test {
protected:
    part& add_text(const std::string& text) {
        part& p = add();
        p.text = text;
        return p;
    }
    part& add_file(const std::string& contents, double budget = -1.0) {
        part& p = add();
        p.file = std::tmpfile();
        p.budget = budget;
        std::fwrite(contents.data(), 1, contents.size(), p.file);
        std::rewind(p.file);
        return p;
    }
    counted_result& add_deferred(int restore_timeout = 10) {
        auto* result = new counted_result(alive_);
        part& p = add();
        p.result = result;
        p.restore_timeout = restore_timeout;
        return *result;
    }
    static void finish(deferred_result& result, const std::string& text) {
        result.output = var(text);
        result.done.store(true, std::memory_order_release);
    }
    // Whether the wait that follows these calls of on_send() sleeps. One that does takes 100 ms,
    // one that only looks is as quick as the machine lets it.
    bool sleeps_after(int calls, int capacity = mebibyte) {
        for (int i = 0; i < calls; ++i) send_once(*conn_, capacity);
        const auto start = std::chrono::steady_clock::now();
        sockets::select_all();
        return std::chrono::steady_clock::now() - start > std::chrono::milliseconds(50);
    }
    void expect_piece(const std::string& bytes, int capacity = mebibyte) {
        const sent_piece piece = send_once(*conn_, capacity);
        EXPECT_EQ(piece.bytes, bytes);
        EXPECT_TRUE(piece.open);
    }

    std::unique_ptr<http_connection> conn_{new http_connection};
    int alive_ = 0;

private:
    part& add() {
        auto* p = new part;
        conn_->parts.add(p);
        return *p;
    }
};

} // namespace

TEST_F(send_queue, waits_with_nothing_queued_until_a_response_of_an_unkept_connection) {
    const struct {
        bool written;
        bool keep_alive;
        bool open;
    } cases[] = {
        {false, true, true}, {false, false, true}, {true, true, true}, {true, false, false}};
    for (const auto& c : cases) {
        conn_->written = c.written;
        conn_->keep_alive = c.keep_alive;
        int length = 12345;
        EXPECT_EQ(conn_->on_send(conn_->send_buffer, mebibyte, &length), c.open);
        EXPECT_EQ(length, 12345) << "untouched where nothing is put";
    }
}

TEST_F(send_queue, hands_over_one_part_a_call_and_stays_open_meanwhile) {
    conn_->written = true;
    conn_->keep_alive = false;
    add_text("one");
    add_text("two");
    expect_piece("one");
    expect_piece("two");
    EXPECT_FALSE(send_once(*conn_).open);
}

TEST_F(send_queue, drops_an_empty_part) {
    add_text("");
    add_text("next");
    expect_piece("");
    expect_piece("next");
}

TEST_F(send_queue, keeps_what_does_not_fit_for_the_next_call) {
    add_text("abcdefgh");
    expect_piece("abc", 3);
    EXPECT_EQ(conn_->parts.count, 1);
    expect_piece("def", 3);
    expect_piece("gh", 3);
    EXPECT_EQ(conn_->parts.count, 0);
}

TEST_F(send_queue, takes_a_text_that_was_shortened_while_it_left_for_ended) {
    part& p = add_text("abcdefgh");
    expect_piece("abc", 3);
    p.text = "ab";
    expect_piece("", 3);
    EXPECT_EQ(conn_->parts.count, 0);
}

TEST_F(send_queue, hands_a_long_text_over_in_linear_time) {
    constexpr int pieces = 32768;
    constexpr int piece_size = 512;
    add_text(std::string(std::size_t{pieces} * piece_size, 'x'));
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < pieces; ++i) {
        int length = 0;
        conn_->on_send(conn_->send_buffer, piece_size, &length);
        ASSERT_EQ(length, piece_size);
    }
    EXPECT_EQ(conn_->parts.count, 0);
    // Were the rest moved each time, that would be 256 GiB.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

TEST_F(send_queue, never_writes_past_the_capacity) {
    add_text(std::string(100, 'x'));
    conn_->send_buffer[10] = '#';
    send_once(*conn_, 10);
    EXPECT_EQ(conn_->send_buffer[10], '#');
}

TEST_F(send_queue, sends_a_file_to_its_end_in_pieces_of_the_capacity) {
    add_file("abcdefghij");
    expect_piece("abcd", 4);
    expect_piece("efgh", 4);
    expect_piece("ij", 4);
    EXPECT_EQ(conn_->parts.count, 0) << "a short piece is the last one";
}

TEST_F(send_queue, notices_the_end_of_a_file_that_fills_its_last_piece_one_call_later) {
    add_file("abcd");
    expect_piece("abcd", 4);
    EXPECT_EQ(conn_->parts.count, 1);
    expect_piece("", 4);
    EXPECT_EQ(conn_->parts.count, 0);
}

TEST_F(send_queue, counts_a_budget_down_while_it_covers_the_capacity) {
    part& p = add_file(std::string(100, 'x'), 8);
    expect_piece("xxxx", 4);
    EXPECT_EQ(p.budget, 4);
    expect_piece("xxxx", 4);
    EXPECT_EQ(p.budget, 0);
    expect_piece("", 4);
    EXPECT_EQ(conn_->parts.count, 0);
}

TEST_F(send_queue, repeats_a_budget_below_the_capacity_until_the_file_ends) {
    part& p = add_file("abcdefgh", 3.9);
    expect_piece("abc");
    EXPECT_EQ(p.budget, 3.9);
    expect_piece("def");
    expect_piece("gh");
    EXPECT_EQ(conn_->parts.count, 0);
}

TEST_F(send_queue, drops_a_file_without_budget) {
    for (const double budget : {0.0, 0.5}) {
        add_file("abc", budget);
        int length = 12345;
        EXPECT_TRUE(conn_->on_send(conn_->send_buffer, mebibyte, &length));
        EXPECT_EQ(length, 0);
        EXPECT_EQ(conn_->parts.count, 0);
    }
}

TEST_F(send_queue, starts_a_file_where_it_stands) {
    std::fseek(add_file("abcdef").file, 2, SEEK_SET);
    expect_piece("cdef");
}

TEST_F(send_queue, closes_a_file_with_its_part) {
    const auto lowest_free_number = [] {
        const int fd = dup(STDERR_FILENO);
        close(fd);
        return fd;
    };
    const int before = lowest_free_number();
    add_file("sent to its end");
    drain(*conn_);
    EXPECT_EQ(lowest_free_number(), before);
    add_file("never sent");
    conn_.reset();
    EXPECT_EQ(lowest_free_number(), before);
}

TEST_F(send_queue, takes_a_read_error_for_the_end_of_the_file) {
    part& p = add_file("");
    std::fclose(p.file);
    p.file = std::fopen("/", "r"); // A directory opens and cannot be read.
    ASSERT_NE(p.file, nullptr);
    expect_piece("");
    EXPECT_EQ(conn_->parts.count, 0);
}

TEST_F(send_queue, holds_everything_behind_a_result_that_is_not_done) {
    deferred_result& result = add_deferred();
    add_text("behind");
    result.output = var("early");
    for (int i = 0; i < 3; ++i) expect_piece("");
    EXPECT_EQ(conn_->timeout, 10);
    finish(result, "late");
    expect_piece("4\r\nlate\r\n0\r\n\r\n");
    expect_piece("behind");
    EXPECT_EQ(alive_, 0);
}

TEST_F(send_queue, leaves_the_length_alone_while_a_result_is_not_done) {
    add_deferred();
    int length = 12345;
    EXPECT_TRUE(conn_->on_send(conn_->send_buffer, mebibyte, &length));
    EXPECT_EQ(length, 12345);
}

TEST_F(send_queue, restores_the_time_out_and_counts_a_result_as_activity) {
    conn_->timeout = -1;
    conn_->last_active = 5;
    deferred_result& result = add_deferred(42);
    send_once(*conn_);
    EXPECT_EQ(conn_->timeout, -1);
    EXPECT_EQ(conn_->last_active, 5);
    finish(result, "x");
    const std::time_t before = std::time(nullptr);
    send_once(*conn_);
    EXPECT_EQ(conn_->timeout, 42);
    EXPECT_GE(conn_->last_active, before);
}

TEST_F(send_queue, destroys_a_result_when_all_else_of_its_step_is_done) {
    int length = 0;
    looking_result::sight seen;
    auto* result = new looking_result(*conn_, length, seen);
    auto* p = new part;
    p->result = result;
    p->restore_timeout = 42;
    conn_->parts.add(p);
    conn_->timeout = -1;
    conn_->last_active = 5;
    finish(*result, "x");
    const std::time_t before = std::time(nullptr);
    conn_->on_send(conn_->send_buffer, mebibyte, &length);
    EXPECT_EQ(seen.timeout, 42);
    EXPECT_GE(seen.last_active, before);
    EXPECT_EQ(seen.buffer, "1\r\nx\r\n0\r\n\r\n");
    EXPECT_EQ(seen.queued, 0);
}

TEST_F(send_queue, sends_a_result_in_pieces_where_the_capacity_is_small) {
    finish(add_deferred(), "text");
    expect_piece("4\r\nte", 5);
    EXPECT_EQ(alive_, 0);
    expect_piece("xt\r\n0", 5);
    expect_piece("\r\n\r\n", 5);
    EXPECT_EQ(conn_->parts.count, 0);
}

TEST_F(send_queue, writes_the_size_of_a_chunk_in_capital_hexadecimal) {
    finish(add_deferred(), std::string(0xABC, 'x'));
    expect_piece("ABC\r\n" + std::string(0xABC, 'x') + "\r\n0\r\n\r\n");
}

TEST_F(send_queue, sends_an_empty_result_as_two_last_chunks) {
    finish(add_deferred(), "");
    expect_piece("0\r\n\r\n0\r\n\r\n");
}

TEST_F(send_queue, sends_values_that_are_not_text_as_their_text) {
    deferred_result& result = add_deferred();
    result.done = true;
    expect_piece("4\r\nnull\r\n0\r\n\r\n");
}

TEST_F(send_queue, replaces_a_result_that_exceeds_the_buffer) {
    // "FFFF4" and four line ends with a zero: 14 bytes around the content.
    const std::string largest(static_cast<std::size_t>(mebibyte - 14), 'x');
    finish(add_deferred(), largest);
    EXPECT_EQ(send_once(*conn_).bytes.size(), static_cast<std::size_t>(mebibyte));

    captured_output output;
    conn_->timeout = -1;
    finish(add_deferred(7), largest + "x");
    expect_piece("0\r\n\r\n");
    EXPECT_EQ(conn_->timeout, 7);
    EXPECT_EQ(output.take(), "Warning! Thread response (1048577) exceeds buffer size (1048576).\n");
    EXPECT_EQ(alive_, 0);
}

TEST_F(send_queue, sends_a_result_that_another_thread_finishes) {
    deferred_result& result = add_deferred();
    std::thread worker([&result] { finish(result, "from afar"); });
    std::string bytes;
    while (bytes.empty()) bytes = send_once(*conn_).bytes;
    worker.join();
    EXPECT_EQ(bytes, "9\r\nfrom afar\r\n0\r\n\r\n");
}

TEST_F(send_queue, goes_with_its_connection) {
    add_text("text");
    add_file("file");
    add_deferred();
    conn_->parts.add(nullptr);
    add_deferred();
    EXPECT_EQ(alive_, 2);
    conn_.reset();
    EXPECT_EQ(alive_, 0);
}

TEST_F(send_queue, prefers_the_file_of_a_part_that_has_everything) {
    part& p = add_file("file");
    p.text = "text";
    p.result = new counted_result(alive_);
    expect_piece("file");
    EXPECT_EQ(alive_, 0);
}

TEST_F(send_queue, lets_the_next_wait_only_look_when_a_part_ends_without_bytes) {
    const struct {
        const char* name;
        std::function<void()> queue;
        int calls;
    } cases[] = {
        {"empty text", [this] { add_text(""); }, 1},
        {"empty file", [this] { add_file(""); }, 1},
        {"file that fills its last piece", [this] { add_file("abcdefgh"); }, 3},
        {"file without budget", [this] { add_file("abcd", 0); }, 1},
        {"budget that is used up", [this] { add_file("abcdefgh", 4); }, 2},
    };
    for (const auto& c : cases) {
        for (const bool more : {true, false}) {
            SCOPED_TRACE(testing::Message() << c.name << (more ? ", with more behind" : ""));
            // A machine that does something else for 50 ms makes any wait look like one that
            // sleeps.
            int tries = 0;
            bool slept = true;
            while (slept && ++tries <= 5) {
                conn_ = std::make_unique<http_connection>();
                c.queue();
                if (more) add_text("behind");
                slept = sleeps_after(c.calls, 4);
                ASSERT_EQ(conn_->parts.count, more ? 1 : 0);
            }
            EXPECT_FALSE(slept);
        }
    }
}

TEST_F(send_queue, lets_the_next_wait_sleep_while_there_is_nothing_to_hand_over) {
    sockets::select_all(); // ends the hurry of an earlier test
    EXPECT_TRUE(sleeps_after(1)) << "with nothing queued";
    add_text("text");
    EXPECT_TRUE(sleeps_after(1)) << "behind a part that gave bytes";
    add_deferred();
    EXPECT_TRUE(sleeps_after(1)) << "while a result is not done";
    add_text("text");
    EXPECT_TRUE(sleeps_after(1, 0)) << "with no room";
}
