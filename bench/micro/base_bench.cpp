// The parts below HTTP by themselves, beside what the standard library has for the same work.

#include "vindra/base/base64.h"
#include "vindra/base/byte_queue.h"
#include "vindra/base/hashmap.h"
#include "vindra/base/sha1.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

std::string bytes_of(std::size_t length) {
    std::string bytes(length, '\0');
    unsigned value = 1;
    for (char& byte : bytes) {
        value = value * 1664525U + 1013904223U;
        byte = static_cast<char>(value >> 24);
    }
    return bytes;
}

std::size_t argument(const benchmark::State& state) {
    return static_cast<std::size_t>(state.range(0));
}

void count_bytes(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

// Queues of one kind with the two verbs of byte_queue.
struct string_queue {
    std::string bytes;

    void append(const char* from, std::size_t length) { bytes.append(from, length); }
    std::size_t take(char* out, std::size_t capacity) {
        const std::size_t length = bytes.copy(out, capacity);
        bytes.erase(0, length);
        return length;
    }
};

struct deque_queue {
    std::deque<char> bytes;

    void append(const char* from, std::size_t length) {
        bytes.insert(bytes.end(), from, from + length);
    }
    std::size_t take(char* out, std::size_t capacity) {
        const auto length = static_cast<std::ptrdiff_t>(std::min(capacity, bytes.size()));
        std::copy_n(bytes.begin(), length, out);
        bytes.erase(bytes.begin(), bytes.begin() + length);
        return static_cast<std::size_t>(length);
    }
};

// One block in, the same block out: a relay whose two ends are equally fast.
template <typename Queue>
void append_take(benchmark::State& state) {
    const std::string block = bytes_of(argument(state));
    const auto out = std::make_unique<char[]>(block.size());
    Queue queue;
    while (state.KeepRunning()) {
        queue.append(block.data(), block.size());
        benchmark::DoNotOptimize(queue.take(out.get(), block.size()));
        benchmark::ClobberMemory();
    }
    count_bytes(state);
}

// So many bytes in, in blocks of 64 KiB, and out again: a slow reader's backlog.
template <typename Queue>
void fill_drain(benchmark::State& state) {
    const std::string block = bytes_of(std::size_t{64} * 1024);
    const auto out = std::make_unique<char[]>(block.size());
    const std::size_t blocks = argument(state) / block.size();
    while (state.KeepRunning()) {
        Queue queue;
        for (std::size_t i = 0; i < blocks; ++i) queue.append(block.data(), block.size());
        while (queue.take(out.get(), block.size()) != 0) benchmark::ClobberMemory();
    }
    count_bytes(state);
}

std::vector<std::string> hosts(std::size_t count) {
    std::vector<std::string> names;
    for (std::size_t i = 0; i < count; ++i)
        names.push_back("service-" + std::to_string(i) + ".example.org");
    return names;
}

void hashmap_get(benchmark::State& state) {
    const std::vector<std::string> names = hosts(argument(state));
    base::hashmap<int> map;
    for (const std::string& name : names) map.set(name, 8080);
    std::size_t next = 0;
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(map.get(names[next]));
        if (++next == names.size()) next = 0;
    }
}

void unordered_map_find(benchmark::State& state) {
    const std::vector<std::string> names = hosts(argument(state));
    std::unordered_map<std::string, int> map;
    for (const std::string& name : names) map.emplace(name, 8080);
    std::size_t next = 0;
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(map.find(names[next])->second);
        if (++next == names.size()) next = 0;
    }
}

void base64(benchmark::State& state) {
    const std::string bytes = bytes_of(argument(state));
    while (state.KeepRunning()) benchmark::DoNotOptimize(base::base64(bytes));
    count_bytes(state);
}

void sha1(benchmark::State& state) {
    const std::string bytes = bytes_of(argument(state));
    while (state.KeepRunning()) benchmark::DoNotOptimize(base::sha1(bytes));
    count_bytes(state);
}

constexpr std::int64_t mebibyte = 1048576;

BENCHMARK(append_take<base::byte_queue>)
    ->Name("byte_queue: in and out")
    ->Arg(100)
    ->Arg(4096)
    ->Arg(65536)
    ->Arg(mebibyte);
BENCHMARK(append_take<string_queue>)
    ->Name("std::string: in and out")
    ->Arg(100)
    ->Arg(4096)
    ->Arg(65536)
    ->Arg(mebibyte);
BENCHMARK(append_take<deque_queue>)
    ->Name("std::deque: in and out")
    ->Arg(100)
    ->Arg(4096)
    ->Arg(65536)
    ->Arg(mebibyte);
BENCHMARK(fill_drain<base::byte_queue>)
    ->Name("byte_queue: a backlog")
    ->Arg(mebibyte)
    ->Arg(16 * mebibyte);
BENCHMARK(fill_drain<string_queue>)
    ->Name("std::string: a backlog")
    ->Arg(mebibyte)
    ->Arg(16 * mebibyte);
BENCHMARK(fill_drain<deque_queue>)
    ->Name("std::deque: a backlog")
    ->Arg(mebibyte)
    ->Arg(16 * mebibyte);
BENCHMARK(hashmap_get)->Name("hashmap::get")->Arg(1)->Arg(10)->Arg(1000);
BENCHMARK(unordered_map_find)->Name("std::unordered_map::find")->Arg(1)->Arg(10)->Arg(1000);
BENCHMARK(base64)->Name("base64")->Arg(20)->Arg(65536);
BENCHMARK(sha1)->Name("sha1")->Arg(60)->Arg(65536);

} // namespace
