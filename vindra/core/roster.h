#pragma once

#include "vindra/base/linkedlist.h"

#include <cstddef>
#include <cstdint>
#include <vector>

class connection;

/// Which connections of one server have something to do, in the order of its list.
///
/// Kept beside the list so that a turn costs what its busy connections cost. A connection is
/// *awake* from the moment it is enrolled; one of a class that may rest does so once it has
/// nothing to hand over, until a result of the wait or wake() says otherwise:
///
///     enrolled -> awake --- rest() ---> at rest
///                   ^--- news, wake() ----'
///
/// A pass visits those awake, and behind them whatever was added to the list since:
///
///     begin_pass();
///     while (connection* conn = next()) { ... rest() or strike() ... }
///     end_pass();
///
/// For server_base alone. It deletes nothing; whoever takes a connection out of the list
/// strikes it here.
class roster {
public:
    /// What a server keeps its connections in.
    using list = base::linkedlist<connection*>;

    /// What a connection carries for the roster that it stands in.
    struct entry {
        /// Null until enrolled.
        roster* home = nullptr;
        /// The list's node before this connection's.
        list::node* before = nullptr;
        /// Rises along the list.
        std::uint64_t place = 0;
        /// Where the table of descriptors names this connection; -1 for nowhere.
        int fd = -1;
        bool awake = false;
        /// A first pass has looked at it since it was enrolled.
        bool serviced = false;
    };

    /// Out of use until rebuild(). `connections` outlives it.
    explicit roster(list& connections) : list_(connections) {}
    roster(const roster&) = delete;
    roster& operator=(const roster&) = delete;

    /// Enrols every connection of the list anew, each awake.
    void rebuild();

    /// Forgets everything: out of use until the next rebuild().
    void clear();

    /// True while nothing but strike() has taken a connection out of the list since rebuild().
    bool in_use() const { return in_use_ && removals_ == list_.removals(); }

    /// Wakes whoever the last wait has news of.
    void wake_ready();

    /// Has `conn` visited, in the pass under way if that has not come past it. Nothing happens
    /// to one that is awake or stands in no roster.
    static void wake(connection& conn);

    /// Puts those awake in order, for next() to begin with the first.
    void begin_pass();

    /// The next connection to visit; null when there is none left.
    connection* next();

    /// The pass is over, whether next() has come to the end or not.
    void end_pass() { cursor_ = 0; }

    /// The connection that next() gave last is not to be visited until it is woken.
    void rest();

    /// The connection that next() gave last is about to be taken out of the list.
    void strike();

private:
    // Beside the connection, so that finding a place touches no connection.
    struct line {
        std::uint64_t place;
        connection* conn;
    };

    void enrol(connection& conn, list::node* before);
    void insert(connection& conn);

    list& list_;
    bool in_use_ = false;
    std::uint32_t removals_ = 0;

    /// Node of the last connection that is enrolled; the sentinel when there is none.
    list::node* last_ = nullptr;
    std::uint64_t last_place_ = 0;

    /// Who has which descriptor.
    std::vector<connection*> by_fd_;

    /// Those awake, by place. Null stands for one that rests or is gone, until the next pass.
    std::vector<line> awake_;
    /// The line after the one that next() gave last.
    std::size_t cursor_ = 0;
};
