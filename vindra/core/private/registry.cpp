#include "vindra/core/private/registry.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <utility>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace sockets {

namespace {

// What select(2) counts as readable, writable and exceptional.
constexpr unsigned read_events = EPOLLIN | EPOLLRDNORM | EPOLLRDBAND | EPOLLHUP | EPOLLERR;
constexpr unsigned write_events = EPOLLOUT | EPOLLWRNORM | EPOLLWRBAND | EPOLLERR;
constexpr unsigned urgent_events = EPOLLPRI;
constexpr unsigned end_events = EPOLLRDHUP | EPOLLHUP | EPOLLERR;

static_assert(EPOLLIN == POLLIN && EPOLLOUT == POLLOUT && EPOLLPRI == POLLPRI &&
                  EPOLLHUP == POLLHUP && EPOLLERR == POLLERR,
              "answers of poll() and events of epoll are read by the same masks");

std::uint64_t pack(int fd, std::uint32_t life) {
    return std::uint64_t{life} << 32 | static_cast<std::uint32_t>(fd);
}

} // namespace

registry& registry::instance() {
    static registry& r = *new registry;
    return r;
}

registry::registry() {
    all.registry_ = this;
}

registry::watch& registry::at(int fd) {
    assert(fd >= 0);
    const auto index = static_cast<std::size_t>(fd);
    if (index >= watches_.size()) watches_.resize(std::max(index + 1, 2 * watches_.size()));
    return watches_[index];
}

void registry::on_set(int fd) {
    assert(all.test(fd));
    readable.erase(fd);
    writable.erase(fd);
    errors.erase(fd);

    watch& w = at(fd);
    ++w.life;
    w.watched = false;
    w.may_read = w.may_be_urgent = w.ending = w.full = w.tcp = false;
    if (!w.changed) changed_.push_back(fd);
    w.changed = true;
}

void registry::on_clear(int fd) {
    assert(!all.test(fd));
    watch& w = at(fd);
    w.may_read = w.may_be_urgent = w.full = false;
    if (!w.changed) changed_.push_back(fd);
    w.changed = true;
}

void registry::forget(int fd) {
    ready.erase(fd);
    readable.erase(fd);
    writable.erase(fd);
    errors.erase(fd);
    if (!all.erase(fd)) return;

    assert(!ready.test(fd) && !readable.test(fd) && !writable.test(fd) && !errors.test(fd));
    // The kernel drops a closed descriptor by itself, so there is no change to tell it of.
    watch& w = at(fd);
    w.watched = w.may_read = w.may_be_urgent = w.full = w.tcp = false;
}

// One that only names a place: reading and writing give EBADF, as they do for a number that is
// free.
void registry::prepare_to_keep() {
    if (stand_in_ < 0) stand_in_ = open("/", O_PATH | O_CLOEXEC);
}

// In one call, so that the number is never free: another thread may open a file at any moment.
bool registry::close_but_keep(int fd) {
    prepare_to_keep();
    if (fd < 0 || stand_in_ < 0) return false;
    forget(fd);
    return dup3(stand_in_, fd, O_CLOEXEC) == fd;
}

void registry::drained(int fd) {
    if (all.test(fd)) at(fd).may_read = false;
}

void registry::filled(int fd) {
    if (all.test(fd)) at(fd).full = true;
}

void registry::note_tcp(int fd) {
    assert(all.test(fd));
    at(fd).tcp = true;
}

bool registry::is_tcp(int fd) {
    const bool is_watched = all.test(fd);
    if (is_watched && at(fd).tcp) return true;
    const auto option = [fd](int name) {
        int value = -1;
        socklen_t length = sizeof value;
        return getsockopt(fd, SOL_SOCKET, name, &value, &length) == 0 ? value : -1;
    };
    // Both: the number of a protocol means another one in another family, and raw sockets have
    // TCP's as well.
    const bool tcp = option(SO_TYPE) == SOCK_STREAM && option(SO_PROTOCOL) == IPPROTO_TCP;
    if (is_watched) at(fd).tcp = tcp;
    return tcp;
}

registry::reading::reading(int fd) {
    instance().being_read_ = fd;
    instance().read_out_ = -1;
}

registry::reading::~reading() {
    instance().being_read_ = instance().read_out_ = -1;
}

// Otherwise every second read would only return EAGAIN. A short TCP read means empty, and later
// bytes raise an event. A pending end raises none, so it needs the second read. So does any error
// but EAGAIN: a refused connection gives -1 and then 0.
void registry::on_read(int fd, std::ptrdiff_t count, int room) {
    if (!all.test(fd)) return;
    watch& w = at(fd);
    const bool is_short = count > 0 && count < room;
    const bool would_block = count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    if (is_short && fd == being_read_ && w.tcp && !w.ending) read_out_ = fd;
    if (would_block || fd == read_out_) w.may_read = false;
}

bool registry::wait(int milliseconds) {
    assert(milliseconds >= 0);
    clear_results();
    marked_.swap(ready);
    ready.erase_all();

    const bool hurried = std::exchange(hurried_, false);
    const bool waited = find_ready_within(hurried ? 0 : milliseconds);
    idle_ = waited && !hurried && num_ready == 0;
    if (waited) return true;
    clear_results();
    num_ready = -1;
    // The work that no socket reports is still there.
    hurried_ = hurried;
    return false;
}

void registry::clear_results() {
    readable.erase_all();
    writable.erase_all();
    errors.erase_all();
    num_ready = 0;
    assert(descriptor_set::is_empty(readable, writable, errors));
}

// Events may be about nothing that was asked for: a new socket can be written to, or bytes have
// been read since. The wait goes on then.
bool registry::find_ready_within(int milliseconds) {
    using std::chrono::steady_clock;
    const auto end = steady_clock::now() + std::chrono::milliseconds(milliseconds);
    for (;;) {
        if (!find_ready(milliseconds)) return false;
        if (num_ready != 0 || !answered_) return true;
        const auto left = std::chrono::floor<std::chrono::milliseconds>(end - steady_clock::now());
        if (left.count() <= 0) return true;
        milliseconds = static_cast<int>(left.count());
    }
}

bool registry::find_ready(int milliseconds) {
    answered_ = false;
    if (!apply_changes()) return false;
    gather_queries();
    if (queries_.empty()) return take_events(milliseconds);

    bool has_events = false;
    if (!query(milliseconds, has_events)) return false;
    return !has_events || take_events(0);
}

// Tells the kernel what has come and gone since the last wait. What it refuses stays in
// the list, so that a shortage that passes is overcome at a later wait.
bool registry::apply_changes() {
    if (epoll_ < 0) epoll_ = epoll_create1(EPOLL_CLOEXEC);
    if (epoll_ < 0) return false;

    while (!changed_.empty()) {
        const int fd = changed_.back();
        watch& w = at(fd);
        assert(w.changed);
        if (!tell_kernel(fd, w)) return false;
        w.changed = false;
        changed_.pop_back();
    }
    return true;
}

bool registry::tell_kernel(int fd, watch& w) {
    if (!all.test(fd)) {
        // It may be closed by now, or never have been watched: both are fine.
        if (w.watched) epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
        w.watched = false;
        return true;
    }
    if (w.watched) return true;

    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLPRI | EPOLLRDHUP | EPOLLET;
    event.data.u64 = pack(fd, w.life);
    // A number that was set twice is still watched. Changing it raises its events once more, as
    // adding it does.
    w.watched = epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) == 0 ||
                (errno == EEXIST && epoll_ctl(epoll_, EPOLL_CTL_MOD, fd, &event) == 0);
    if (w.watched) return true;
    if (errno != EPERM) return false;

    // A regular file cannot be watched and raises no events: it is ready whenever queried.
    w.watched = true;
    w.may_read = true;
    list_undrained(fd, w);
    return true;
}

void registry::list_undrained(int fd, watch& w) {
    if (!w.listed) undrained_.push_back(fd);
    w.listed = true;
}

// One query for each descriptor: poll() refuses more of them than a process may have open.
void registry::gather_queries() {
    queries_.clear();

    std::size_t kept = 0;
    for (const int fd : undrained_) {
        watch& w = at(fd);
        assert(w.listed);
        w.listed = all.test(fd) && (w.may_read || w.may_be_urgent);
        if (!w.listed) continue;
        undrained_[kept++] = fd;
        const int events = (w.may_read ? POLLIN : 0) | (w.may_be_urgent ? POLLPRI : 0) |
                           (marked_.test(fd) && !w.full ? POLLOUT : 0);
        queries_.push_back({fd, static_cast<short>(events), 0});
    }
    undrained_.resize(kept);

    const auto query_writable = [this](int fd) {
        if (all.test(fd) && (at(fd).full || at(fd).listed)) return;
        queries_.push_back({fd, POLLOUT, 0});
    };
    descriptor_set::for_each(query_writable, marked_);
}

// Asks in the same call whether the kernel has events: a turn that only writes then needs no second
// one.
bool registry::query(int milliseconds, bool& has_events) {
    queries_.push_back({epoll_, POLLIN, 0});
    const int count = poll_queries(milliseconds);
    answered_ = count > 0;
    if (count < 0) return false;

    has_events = queries_.back().revents != 0;
    queries_.pop_back();
    for (const pollfd& q : queries_) on_answer(q.fd, q.events, q.revents);
    return true;
}

int registry::poll_queries(int milliseconds) {
    const int count = poll(queries_.data(), queries_.size(), milliseconds);
    return count < 0 && errno == EINVAL ? poll_in_portions(milliseconds) : count;
}

// For a process whose limit of descriptors was lowered below what it has open. No portion sleeps;
// only the last query does, the one whether the kernel has events. It covers all that is watched:
// after a "no" an event will come.
int registry::poll_in_portions(int milliseconds) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const std::size_t most = std::max<std::size_t>(limit.rlim_cur, 1);
    int sum = 0;
    for (std::size_t at = 0; at < queries_.size(); at += most) {
        const std::size_t length = std::min(most, queries_.size() - at);
        const int count = poll(&queries_[at], length, 0);
        if (count < 0) return count;
        sum += count;
    }
    return sum > 0 || milliseconds == 0 ? sum : poll(&queries_.back(), 1, milliseconds);
}

bool registry::take_events(int milliseconds) {
    // Room for every watched descriptor, so that one call brings all there is.
    if (events_.size() < watches_.size() + 1) events_.resize(watches_.size() + 1);

    const int count =
        epoll_wait(epoll_, events_.data(), static_cast<int>(events_.size()), milliseconds);
    if (count > 0) answered_ = true;
    for (int i = 0; i < count; ++i) on_event(events_[static_cast<std::size_t>(i)]);
    return count >= 0;
}

void registry::on_answer(int fd, short asked, short answer) {
    const auto events = static_cast<unsigned>(answer);
    if ((asked & POLLOUT) != 0) on_answer_of_writing(fd, events);
    if ((asked & (POLLIN | POLLPRI)) == 0) return;

    watch& w = at(fd);
    assert(w.listed);
    if (w.may_read) {
        w.may_read = (events & read_events) != 0;
        if (w.may_read) report(readable, fd);
    }
    if (w.may_be_urgent) {
        w.may_be_urgent = (events & urgent_events) != 0;
        if (w.may_be_urgent) report(errors, fd);
    }
}

// A number that is no descriptor, or the reading end of a pipe, answers with something else. It
// would do so again at once, so this wait does not query it twice.
void registry::on_answer_of_writing(int fd, unsigned events) {
    if ((events & write_events) != 0) {
        report(writable, fd);
    } else if (events != 0) {
        marked_.erase(fd);
    }
}

void registry::on_event(const epoll_event& event) {
    const int fd = static_cast<int>(event.data.u64 & 0xFFFFFFFFU);
    watch& w = at(fd);
    // An event of a socket that was closed here but lives on as a copy somewhere else.
    if (!all.test(fd) || event.data.u64 != pack(fd, w.life)) return;

    if ((event.events & end_events) != 0) w.ending = true;
    if ((event.events & read_events) != 0) {
        w.may_read = true;
        report(readable, fd);
    }
    if ((event.events & urgent_events) != 0) {
        w.may_be_urgent = true;
        report(errors, fd);
    }
    if ((event.events & write_events) != 0) {
        w.full = false;
        if (marked_.test(fd)) report(writable, fd);
    }
    if (w.may_read || w.may_be_urgent) list_undrained(fd, w);
}

void registry::report(descriptor_set& result, int fd) {
    if (result.insert(fd)) ++num_ready;
}

} // namespace sockets
