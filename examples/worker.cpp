// Slow answers that block nobody: each is computed on its own thread, while the loop serves others.

#include "vindra/core/server.h"
#include "vindra/http/http_connection.h"
#include "vindra/http/worker_result.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr int largest_limit = 20000000;
constexpr int most_threads = 256;

// Number of running functions. Never destroyed, as some may still run when main() returns.
std::atomic<int> threads = 0;

bool is_prime(int n) {
    if (n < 4) return n >= 2;
    if (n % 2 == 0) return false;
    for (int divisor = 3; divisor <= n / divisor; divisor += 2) {
        if (n % divisor == 0) return false;
    }
    return true;
}

// Slow on purpose: three million take about a second.
int primes_below(int limit) {
    int count = 0;
    for (int n = 2; n < limit; ++n) count += is_prime(n) ? 1 : 0;
    return count;
}

class calculator : public http_connection {
public:
    void on_request() override {
        if (path == "/") return write(ok, "Try /primes?3000000\n");
        if (path != "/primes") return write("HTTP/1.1 404 Not Found\r\n", "");
        if (threads >= most_threads) return write("HTTP/1.1 503 Service Unavailable\r\n", "");

        // The function may outlive this connection, so it captures copies, and no `this`.
        const int limit = std::min(std::atoi(query.c_str()), largest_limit);
        ++threads;
        const auto count = [limit] {
            const int primes = primes_below(limit);
            --threads;
            return var(std::to_string(primes) + " primes\n");
        };
        if (method == "GET" && answer_later(*this, ok, count)) return;
        --threads;
        // Late answers need the chunked coding of HTTP/1.1. And only GET is served here.
        write("HTTP/1.1 501 Not Implemented\r\n", "");
    }

private:
    static constexpr const char* ok = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n";
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::puts("usage: worker PORT");
        return 1;
    }
    server<calculator> calculators(std::atoi(argv[1]), true);
    calculators.run();
}
