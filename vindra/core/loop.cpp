#include "vindra/core/loop.h"

#include "vindra/base/print.h"
#include "vindra/core/abstract_server.h"
#include "vindra/core/private/registry.h"
#include "vindra/core/sockets.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Beyond, a time could not be counted any more.
constexpr milliseconds longest_wait{std::int64_t{1} << 31};

struct timed_call {
    steady_clock::time_point due;
    // Zero for a call that comes once.
    milliseconds period;
    std::function<void()> function;
};

// What the loop's thread alone touches. Never destroyed, like the registry.
struct timers {
    static timers& instance() {
        static timers& t = *new timers;
        return t;
    }

    loop::call add(milliseconds delay, milliseconds period, std::function<void()> f) {
        delay = std::clamp(delay, milliseconds(0), longest_wait);
        const loop::call name = ++last_name;
        const auto due = steady_clock::now() + delay;
        calls[name] = {due, period, std::move(f)};
        order.emplace(due, name);
        arm();
        return name;
    }

    bool drop(loop::call name) {
        const auto found = calls.find(name);
        if (found == calls.end()) return false;
        order.erase({found->second.due, name});
        calls.erase(found);
        arm();
        return true;
    }

    // Those that are set up meanwhile wait for the next turn, whatever their time.
    void make_due_calls() {
        hear();
        const auto now = steady_clock::now();
        std::vector<loop::call> due;
        for (const auto& [time, name] : order) {
            if (time > now) break;
            due.push_back(name);
        }
        for (const loop::call name : due) make_call(name, now);
        if (!due.empty()) arm();
    }

private:
    void make_call(loop::call name, steady_clock::time_point now) {
        const auto found = calls.find(name);
        if (found == calls.end()) return; // cancelled by one before it
        timed_call& entry = found->second;
        // It may cancel itself, and must not go while it runs.
        std::function<void()> f = std::move(entry.function);
        order.erase({entry.due, name});
        if (entry.period.count() == 0) {
            calls.erase(found);
            return f();
        }
        entry.due += ((now - entry.due) / entry.period + 1) * entry.period;
        order.emplace(entry.due, name);
        f();
        if (const auto left = calls.find(name); left != calls.end())
            left->second.function = std::move(f);
    }

    // The kernel wakes the loop for the earliest call. Without a descriptor to be had, calls come
    // when a wait ends by itself.
    void arm() {
        if (fd < 0) {
            fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
            if (fd < 0) return;
            sockets::all()->set(fd);
        }
        const auto earliest = order.empty() ? steady_clock::time_point() : order.begin()->first;
        if (earliest == armed) return;
        armed = earliest;
        const auto since_boot = armed.time_since_epoch();
        const auto seconds = std::chrono::floor<std::chrono::seconds>(since_boot);
        itimerspec when{};
        when.it_value.tv_sec = seconds.count();
        when.it_value.tv_nsec = std::chrono::nanoseconds(since_boot - seconds).count();
        timerfd_settime(fd, TFD_TIMER_ABSTIME, &when, nullptr);
    }

    void hear() {
        if (fd < 0 || !sockets::readable()->test(fd)) return;
        std::uint64_t expirations = 0;
        if (read(fd, &expirations, sizeof expirations) < 0 || expirations > 0) sockets::drained(fd);
    }

    int fd = -1;
    steady_clock::time_point armed;
    loop::call last_name = 0;
    std::map<loop::call, timed_call> calls;
    std::set<std::pair<steady_clock::time_point, loop::call>> order;
};

// What other threads, and signals, leave for the loop. Threads may do so to the very end of the
// process, so it is never destroyed.
struct inbox {
    static inbox& instance() {
        static inbox& i = *new inbox;
        return i;
    }

    // Made on the loop's thread before it looks here.
    void make_bell() { bell.store(sockets::bell(), std::memory_order_release); }

    void ring() const {
        const int fd = bell.load(std::memory_order_acquire);
        if (fd >= 0) eventfd_write(fd, 1);
    }

    void make_posted_calls() {
        std::vector<std::function<void()>> taken;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            taken.swap(posted);
        }
        for (const auto& f : taken) f();
    }

    std::atomic<int> bell = -1;
    std::atomic<bool> stopped = false;
    std::mutex mutex;
    std::vector<std::function<void()>> posted;
};

static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "a signal's handler uses them");

// The handler's way to it: one that is being made cannot be waited for there.
inbox* signalled = nullptr;

void on_signal(int /*number*/) {
    const int error = errno;
    signalled->stopped = true;
    signalled->ring();
    errno = error;
}

bool start_all(std::initializer_list<abstract_server*> servers) {
    for (abstract_server* s : servers) {
        if (s->start()) continue;
        base::puts("Failed to start server(s).");
        std::fflush(stdout);
        return false;
    }
    return true;
}

} // namespace

namespace loop {

call after(int delay, std::function<void()> f) {
    return timers::instance().add(milliseconds(delay), milliseconds(0), std::move(f));
}

call every(int period, std::function<void()> f) {
    const milliseconds length(std::max(period, 1));
    return timers::instance().add(length, length, std::move(f));
}

bool cancel(call which) {
    return timers::instance().drop(which);
}

void post(std::function<void()> f) {
    inbox& in = inbox::instance();
    {
        const std::lock_guard<std::mutex> lock(in.mutex);
        in.posted.push_back(std::move(f));
    }
    in.ring();
}

void stop() {
    inbox::instance().stopped = true;
    inbox::instance().ring();
}

void stop_on(int signal) {
    signalled = &inbox::instance();
    std::signal(signal, on_signal);
}

void make_calls() {
    inbox::instance().make_bell();
    inbox::instance().make_posted_calls();
    timers::instance().make_due_calls();
}

bool run(std::initializer_list<abstract_server*> servers) {
    inbox& in = inbox::instance();
    stop_on(SIGINT);
    in.make_bell();
    if (!start_all(servers)) return false;

    // What was posted before needs no wait to be seen.
    sockets::hurry();
    while (!in.stopped) {
        sockets::select_all();
        // The servers look at the error of a failed wait.
        const int error = errno;
        make_calls();
        errno = error;
        for (abstract_server* s : servers) s->update();
        if (!sockets::registry::instance().idle()) continue;
        for (abstract_server* s : servers) s->on_idle();
    }
    in.stopped = false;
    base::puts("Shutting down...");
    std::fflush(stdout);
    return true;
}

} // namespace loop
