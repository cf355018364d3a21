// What a server may do with the memory of its connections.

#include "vindra/base/byte_queue.h"

#include "tests/support/server_fixture.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr int filled = 65536;

// Writes its buffer once and sends that from then on.
class billboard : public connection {
public:
    void on_recv(char* /*data*/, int /*length*/) override {}

    bool on_send(char* buffer, int /*capacity*/, int* length) override {
        if (!written_) std::memset(buffer, 'a', filled);
        written_ = true;
        if (wanted) *length = filled;
        wanted = false;
        return true;
    }

    bool wanted = true;

private:
    bool written_ = false;
};

std::size_t resident_pages(const char* begin, std::size_t size) {
    const long page = sysconf(_SC_PAGESIZE);
    const auto length = static_cast<std::size_t>(page);
    std::size_t count = 0;
    const auto address = reinterpret_cast<std::uintptr_t>(begin);
    for (auto at = address / length * length; at < address + size; at += length) {
        unsigned char state = 0;
        EXPECT_EQ(mincore(reinterpret_cast<void*>(at), length, &state), 0);
        count += state & 1U;
    }
    return count;
}

class buffer_test : public server_test {
protected:
    std::string receive(far_end& far) {
        std::string got;
        turn_until([&] {
            got += far.receive();
            return got.size() == filled;
        });
        return got;
    }
};

TEST_F(buffer_test, keeps_what_a_class_has_written_however_long_it_rests) {
    far_end far;
    auto& conn = join<billboard>(far);
    conn.timeout = -1;
    EXPECT_TRUE(receive(far) == std::string(filled, 'a'));
    conn.last_active -= 3600;
    for (int i = 0; i < 3; ++i) turn();
    conn.wanted = true;
    EXPECT_TRUE(receive(far) == std::string(filled, 'a'));
}

TEST_F(buffer_test, of_a_class_that_may_rest_is_released_after_two_idle_seconds) {
    far_end far;
    auto& conn = join<resting_connection>(far);
    conn.output = std::string(filled, 'a');
    receive(far);
    turn();
    EXPECT_GE(resident_pages(conn.send_buffer, connection::send_buffer_size), 16U);
    conn.last_active -= 3;
    turn();
    EXPECT_LE(resident_pages(conn.send_buffer, connection::send_buffer_size), 2U);
}

// Beyond plain fields: whatever stood in the slot, whoever wrote it.
void expect_zero(const connection& conn) {
    const char* const begin = conn.send_buffer;
    EXPECT_EQ(std::count(begin, begin + connection::send_buffer_size, '\0'),
              connection::send_buffer_size);
}

TEST_F(buffer_test, of_a_new_connection_is_zero_whatever_the_last_one_did_with_its_fields) {
    // Written by the server, still waiting, and a nonsense that reaches beyond the buffer.
    for (const int length : {100, 0, 1000000}) {
        SCOPED_TRACE(length);
        far_end far;
        auto& conn = join<resting_connection>(far);
        turn();
        turn();
        std::memset(conn.send_buffer + 500000, 'x', 100);
        conn.send_offset = 500000;
        conn.send_length = 100;
        if (length != 100) {
            turn();
            turn();
            EXPECT_EQ(far.receive(), std::string(100, 'x'));
            conn.send_length = length;
        }
        server_.connections.pop();
        server_.end_connection(&conn);
        auto* const next = new resting_connection;
        EXPECT_EQ(next, &conn) << "the warmest slot comes first";
        expect_zero(*next);
        delete next;
    }
}

TEST_F(buffer_test, of_a_new_connection_is_zero_after_large_and_small_answers) {
    far_end far;
    auto& conn = join<resting_connection>(far);
    conn.output = std::string(filled, 'a');
    receive(far);
    conn.output = "small";
    turn();
    turn();
    EXPECT_EQ(far.receive(), "small");
    server_.connections.pop();
    server_.end_connection(&conn);
    auto* const next = new resting_connection;
    EXPECT_EQ(next, &conn);
    expect_zero(*next);
    delete next;
}

long resident_bytes() {
    long all = 0;
    long resident = 0;
    std::FILE* const file = std::fopen("/proc/self/statm", "r");
    EXPECT_EQ(std::fscanf(file, "%ld %ld", &all, &resident), 2);
    std::fclose(file);
    return resident * sysconf(_SC_PAGESIZE);
}

// The queues of the process fill and drain many times a second.
void fill_and_drain_queue(std::size_t bytes) {
    base::byte_queue queue;
    const std::string block(bytes, 'x');
    queue += block;
}

TEST_F(buffer_test, pages_of_queues_are_given_back_once_a_second_and_not_by_each_server) {
    constexpr std::size_t bytes = std::size_t{64} * 1048576;
    long kept = 0;
    std::time_t now = 0;
    do {
        now = std::time(nullptr);
        observed_server first(0, false);
        observed_server second(0, false);
        first.last_report = second.last_report = now;
        sockets::select_all();
        fill_and_drain_queue(bytes);
        first.update();
        const long before = resident_bytes();
        second.update();
        kept = resident_bytes() - before;
    } while (std::time(nullptr) != now);
    EXPECT_GT(kept, -static_cast<long>(bytes) / 4);
}

} // namespace
