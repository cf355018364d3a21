#pragma once

#include "vindra/base/linkedlist.h"

#include <cstddef>
#include <cstdint>
#include <vector>

class connection;

/// Which connections of one server a turn visits, in the order of the server's list.
///
/// Kept beside the list so that a turn costs what its busy connections cost. A connection is
/// *awake* from the moment it is enrolled. Its server may put it to rest, until a result of the
/// wait or wake() says otherwise:
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
/// What it knows of one connection stands in that connection's seat, which it believes only if it
/// carries the number of its own last enrolment.
///
/// For server_base alone. It deletes nothing. Whoever takes a connection out of the list
/// strikes it here, or the roster is out of use until it is rebuilt.
class roster {
public:
    /// What a server keeps its connections in.
    using list = base::linkedlist<connection*>;

    /// Out of use until rebuild(). `connections` outlives it.
    explicit roster(list& connections);
    roster(const roster&) = delete;
    roster& operator=(const roster&) = delete;
    ~roster();

    /// Enrols every connection of the list anew, each awake.
    void rebuild();

    /// True while nothing but strike() has taken a connection out of the list since rebuild().
    bool in_use() const { return in_use_ && removals_ == list_.removals(); }

    /// True while somebody rests.
    bool has_resting() const { return resting_ > 0; }

    /// Wakes everyone whom a result of the wait is about, in a pass too. Returns false when nobody
    /// here is known to have the number of some result: a connection may have been given it.
    /// Rebuild then; if nobody has it, it is not asked for again.
    ///
    /// `listener` is a number that is known to be no connection's.
    bool wake_ready(int listener);

    /// Has `conn` visited, in the current pass if that has not come past it. Does nothing for one
    /// that is awake or stands in no roster.
    static void wake(connection& conn);

    /// Forgets `conn`, which is about to end.
    static void forget(const connection& conn);

    /// Sorts those awake, for next() to begin with the first.
    void begin_pass();

    /// The next connection to visit; null when there is none left.
    connection* next();

    /// The connection that follows at present, for the processor to fetch ahead; may be null.
    const connection* upcoming() const;

    /// Makes next() go on with the node behind `last`, in a pass in which rebuild() was called.
    void resume_behind(const list::node* last);

    /// The pass is over, whether next() has come to the end or not.
    void end_pass();

    /// The connection that next() gave last is not to be visited until it is woken.
    void rest();

    /// The connection that next() gave last is about to be taken out of the list.
    void strike();

private:
    // Beside the connection, so that sorting and searching touch no connection.
    struct line {
        std::uint64_t rank;
        connection* conn;
    };

    /// Everyone who was added to the list since.
    void enrol_new();
    void enrol(connection& conn, list::node* before);
    /// By the last rebuild() or since.
    bool is_enrolled(const connection& conn) const;
    void rouse(connection& conn);
    /// Among those awake, in a pass.
    void insert(connection& conn);
    /// Who was enrolled last, in any roster, with the number `fd`, and still has it.
    static connection* find_holder(int fd);
    /// Tells which descriptor `fd` stands for now; never 0.
    static std::uint32_t life_of(int fd);

    list& list_;
    bool in_use_ = false;
    std::uint32_t removals_ = 0;
    /// Stands in the seats of those who were enrolled since the last rebuild().
    std::uint64_t enrolment_ = 0;

    /// Node of the last connection that is enrolled; the sentinel when there is none.
    list::node* last_ = nullptr;
    std::uint64_t last_rank_ = 0;

    /// Those awake, by rank. Null stands for one that rests or is gone, until the next pass.
    std::vector<line> awake_;
    /// Nulls may stand in `awake_`, or somebody out of order.
    bool untidy_ = false;
    /// Between begin_pass() and end_pass().
    bool passing_ = false;
    /// The line after the one that next() gave last.
    std::size_t cursor_ = 0;
    std::size_t resting_ = 0;

    /// The life in which nobody here was found to have a number, by that number; 0 for none.
    std::vector<std::uint32_t> nobodys_;
    /// Numbers that the last wake_ready() found nobody for.
    std::vector<int> unknown_;
};
