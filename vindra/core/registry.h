#pragma once

#include "vindra/core/descriptor_set.h"

#include <cstddef>
#include <cstdint>
#include <vector>

struct epoll_event;
struct pollfd;

namespace sockets {

/// What stands behind the five sets: edge-triggered epoll that answers like a plain wait.
///
/// The kernel tells of news once. From then on a descriptor is *unsettled*: there may be more
/// to read, so it is asked about with poll() at each wait, until either the answer is no or
/// whoever reads says so first (drained()). A descriptor in `ready` is asked about in the same
/// call, unless its writer has met a full socket (filled()) and no news has come since.
///
///     news from epoll -> unsettled -- poll() says no, or drained() --> settled -> news ...
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

    void drained(int fd);
    void filled(int fd);

    /// Has `fd`, a member of `all`, known as a TCP socket.
    void note_tcp(int fd);

    /// True when `fd` is a TCP socket. Asks the kernel unless that is known of a member of `all`.
    bool is_tcp(int fd);

    /// True when a read from `fd` that brought less than there was room for has left nothing
    /// behind: only TCP says so, and only while no end or error is on its way.
    bool is_emptied_by_short_read(int fd);

    /// Makes the next wait a look.
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
        /// Stands in `unsettled_`.
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
    bool find_ready_within(int milliseconds);
    bool find_ready(int milliseconds);
    bool apply_changes();
    bool tell_kernel(int fd, watch& w);
    void list_unsettled(int fd, watch& w);
    void gather_questions();
    bool ask(int milliseconds, bool& news);
    int put_questions(int milliseconds);
    int put_in_portions(int milliseconds);
    bool take_news(int milliseconds);
    void on_answer(int fd, short asked, short answer);
    void on_answer_of_writing(int fd, unsigned events);
    void on_news(const epoll_event& event);
    void report(descriptor_set& result, int fd);

    /// The kernel had something to say before its time was over, be it nothing that was asked for.
    bool answered_ = false;
    bool hurried_ = false;
    bool idle_ = false;
    int epoll_ = -1;
    /// What stands in for a closed descriptor; -1 before it is needed.
    int stand_in_ = -1;
    std::vector<watch> watches_;
    std::vector<int> changed_;
    std::vector<int> unsettled_;
    std::vector<pollfd> questions_;
    std::vector<epoll_event> news_;

    /// The orders of the wait in progress.
    descriptor_set marked_;
};

} // namespace sockets
