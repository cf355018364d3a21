#pragma once

#include "vindra/core/descriptor_set.h"

#include <cstddef>
#include <cstdint>
#include <vector>

struct epoll_event;
struct pollfd;

namespace sockets {

/// Edge-triggered epoll that behaves like select(2).
///
/// The kernel reports an event once. From then on there may be more to read, so each wait queries
/// the descriptor with poll(), until it is *drained*: poll() said no, or a reader said so first. A
/// descriptor in `ready` is queried in the same call, unless it is *full*: its writer has met
/// EAGAIN, and no event has come since.
///
///     event -> may be read -- poll() says no, or drained() --> drained -> event ...
///
/// So nothing is missed that others leave behind, nothing is reported that is no longer
/// there, and a connection with nothing to do costs nothing.
///
/// For the library's own use; applications use the functions of sockets.h.
class registry {
public:
    /// The one registry. Never destroyed: static objects may close sockets on the way out.
    static registry& instance();

    registry(const registry&) = delete;
    registry& operator=(const registry&) = delete;

    /// One wait of at most `milliseconds`. False when it failed: the results are empty then,
    /// `num_ready` is -1 and errno tells why.
    bool wait(int milliseconds);

    /// Takes `fd` out of every set, knowing that its owner closes it now.
    void forget(int fd);

    /// Closes what `fd` stands for, as sockets::close() does, and keeps the number taken: by a
    /// descriptor that refuses all reading and writing, until sockets::close(). False, with nothing
    /// done, where there is none to be had.
    bool close_but_keep(int fd);

    /// Opens what close_but_keep() needs, so that it can be had when descriptors are short.
    void prepare_to_keep();

    /// There is nothing more to read from `fd` until the kernel reports an event.
    void drained(int fd);

    /// There is no room to write to `fd` until the kernel reports an event.
    void filled(int fd);

    /// Makes `fd`, a member of `all`, known as a TCP socket.
    void note_tcp(int fd);

    /// True when `fd` is a TCP socket. Asks the kernel unless that is known of a member of `all`.
    bool is_tcp(int fd);

    /// One visit's reads from a descriptor. While this lives, a TCP read that brings less than it
    /// has room for counts as the last: the next one would only meet EAGAIN.
    class reading {
    public:
        explicit reading(int fd);
        reading(const reading&) = delete;
        reading& operator=(const reading&) = delete;
        ~reading();
    };

    /// True when the next read from `fd` in this visit need not be made.
    bool is_read_out(int fd) const { return fd >= 0 && fd == read_out_; }

    /// A read from `fd`, with room for `room` bytes, has just returned `count`; errno is its own.
    void on_read(int fd, std::ptrdiff_t count, int room);

    /// Makes the next wait return at once.
    void hurry() { hurried_ = true; }

    /// The last wait has lasted to its end and found nothing.
    bool idle() const { return idle_; }

    /// How often `fd` has been set in `all`: another number, another life of the descriptor.
    std::uint32_t life(int fd) { return at(fd).life; }

    /// Bits that others than the wait have set in its results so far; wraps around.
    std::uint32_t marks() const { return readable.marks_ + writable.marks_ + errors.marks_; }

    /// Calls `visit(fd)` for every descriptor with a result of the last wait.
    template <typename Visit>
    void for_each_result(Visit visit) const {
        descriptor_set::for_each(visit, readable, writable, errors);
    }

    /// `all` has gained or lost a number. The kernel is told at the next wait.
    void on_set(int fd);
    void on_clear(int fd);

    descriptor_set all;
    descriptor_set ready;
    descriptor_set readable;
    descriptor_set writable;
    descriptor_set errors;
    int num_ready = 0;

private:
    /// What is known of one number.
    struct watch {
        /// Counts the lives of the number, so that an event of an earlier one is known as such.
        std::uint32_t life = 0;
        /// The kernel watches this life.
        bool watched = false;
        /// Stands in `changed_`.
        bool changed = false;
        /// Stands in `undrained_`.
        bool listed = false;
        /// There may be something to read, or urgent data.
        bool may_read = false;
        bool may_be_urgent = false;
        /// The peer has finished, or an error stands.
        bool ending = false;
        /// The last write met a full socket.
        bool full = false;
        /// Known to be a TCP socket.
        bool tcp = false;
    };

    registry();

    watch& at(int fd);
    void clear_results();
    /// Until there is a result or the time is over.
    bool find_ready_within(int milliseconds);
    bool find_ready(int milliseconds);
    bool apply_changes();
    bool tell_kernel(int fd, watch& w);
    void list_undrained(int fd, watch& w);
    void gather_queries();
    bool query(int milliseconds, bool& has_events);
    int poll_queries(int milliseconds);
    int poll_in_portions(int milliseconds);
    bool take_events(int milliseconds);
    void on_answer(int fd, short asked, short answer);
    void on_answer_of_writing(int fd, unsigned events);
    void on_event(const epoll_event& event);
    void report(descriptor_set& result, int fd);

    /// The kernel returned early, even if only with events nobody asked for.
    bool answered_ = false;
    bool hurried_ = false;
    bool idle_ = false;
    /// The descriptor of the `reading` that lives, and the same once a read has emptied it; else
    /// -1.
    int being_read_ = -1;
    int read_out_ = -1;
    int epoll_ = -1;
    /// What stands in for a closed descriptor; -1 before it is needed.
    int stand_in_ = -1;
    std::vector<watch> watches_;
    std::vector<int> changed_;
    std::vector<int> undrained_;
    std::vector<pollfd> queries_;
    std::vector<epoll_event> events_;

    /// The orders of the wait in progress.
    descriptor_set marked_;
};

} // namespace sockets
