#include "vindra/core/private/roster.h"

#include "vindra/core/connection.h"
#include "vindra/core/private/registry.h"
#include "vindra/core/seat.h"

#include <algorithm>
#include <cassert>

namespace {

// Never destroyed: servers may end while the process exits.
std::vector<roster*>& rosters() {
    static std::vector<roster*>& all = *new std::vector<roster*>;
    return all;
}

// Who was enrolled last with which number, whatever the roster.
std::vector<connection*>& holders() {
    static std::vector<connection*>& by_number = *new std::vector<connection*>;
    return by_number;
}

// The element for `fd`, which is not negative, in a table that grows as far as it is used.
template <typename T>
T& at(std::vector<T>& table, int fd) {
    const auto index = static_cast<std::size_t>(fd);
    if (index >= table.size()) table.resize(std::max(index + 1, 2 * table.size()));
    return table[index];
}

template <typename T>
T look_at(const std::vector<T>& table, int fd) {
    const auto index = static_cast<std::size_t>(fd);
    return index < table.size() ? table[index] : T{};
}

std::uint64_t enrolments = 0;

} // namespace

roster::roster(list& connections) : list_(connections) {
    rosters().push_back(this);
}

roster::~roster() {
    std::erase(rosters(), this);
}

void roster::rebuild() {
    in_use_ = true;
    removals_ = list_.removals();
    enrolment_ = ++enrolments;
    awake_.clear();
    cursor_ = 0;
    resting_ = 0;
    untidy_ = false;
    last_ = list_.head;
    enrol_new();
    for (const int fd : unknown_) {
        if (find_holder(fd) == nullptr) at(nobodys_, fd) = life_of(fd);
    }
    unknown_.clear();
}

// One more than the registry's, whose first is 0.
std::uint32_t roster::life_of(int fd) {
    return sockets::registry::instance().life(fd) + 1;
}

connection* roster::find_holder(int fd) {
    connection* const conn = look_at(holders(), fd);
    return conn != nullptr && conn->fd == fd ? conn : nullptr;
}

bool roster::is_enrolled(const connection& conn) const {
    return seat::of(conn).enrolment == enrolment_;
}

void roster::enrol_new() {
    while (last_->next != nullptr) enrol(*last_->next->value, last_);
}

void roster::enrol(connection& conn, list::node* before) {
    assert(before->next->value == &conn);
    last_ = before->next;
    seat& s = seat::of(conn);
    s.enrolment = enrolment_;
    s.rank = ++last_rank_;
    s.before = before;
    s.fd = conn.fd;
    s.awake = true;
    s.serviced = false;
    awake_.push_back({s.rank, &conn});
    if (conn.fd >= 0) at(holders(), conn.fd) = &conn;
}

bool roster::wake_ready(int listener) {
    assert(in_use());
    enrol_new();
    sockets::registry::instance().for_each_result([this, listener](int fd) {
        connection* const conn = find_holder(fd);
        if (conn != nullptr) {
            if (is_enrolled(*conn)) rouse(*conn);
        } else if (fd != listener && look_at(nobodys_, fd) != life_of(fd)) {
            unknown_.push_back(fd);
        }
    });
    return unknown_.empty();
}

void roster::wake(connection& conn) {
    for (roster* const r : rosters()) {
        if (r->is_enrolled(conn) && r->in_use()) r->rouse(conn);
    }
}

void roster::rouse(connection& conn) {
    seat& s = seat::of(conn);
    if (s.awake) return;
    s.awake = true;
    assert(resting_ > 0);
    --resting_;
    if (passing_) return insert(conn);
    awake_.push_back({s.rank, &conn});
    untidy_ = true;
}

void roster::forget(const connection& conn) {
    const int fd = seat::of(conn).fd;
    if (fd >= 0 && look_at(holders(), fd) == &conn) at(holders(), fd) = nullptr;
}

// If next() is already beyond its rank, the connection is visited in the next pass.
void roster::insert(connection& conn) {
    const std::uint64_t rank = seat::of(conn).rank;
    const auto where = std::upper_bound(awake_.begin(), awake_.end(), rank,
                                        [](std::uint64_t r, const line& l) { return r < l.rank; });
    if (static_cast<std::size_t>(where - awake_.begin()) < cursor_) ++cursor_;
    awake_.insert(where, {rank, &conn});
}

void roster::begin_pass() {
    assert(in_use());
    // The last pass may have been left by an exception of a hook.
    cursor_ = 0;
    passing_ = true;
    if (!untidy_) return;
    std::erase_if(awake_, [](const line& l) { return l.conn == nullptr; });
    const auto by_rank = [](const line& a, const line& b) { return a.rank < b.rank; };
    if (!std::is_sorted(awake_.begin(), awake_.end(), by_rank))
        std::sort(awake_.begin(), awake_.end(), by_rank);
    untidy_ = false;
    assert(awake_.size() + resting_ <= static_cast<std::size_t>(list_.count));
}

connection* roster::next() {
    assert(passing_ && in_use());
    if (cursor_ == awake_.size()) {
        if (last_->next == nullptr) return nullptr;
        enrol(*last_->next->value, last_);
    }
    return awake_[cursor_++].conn;
}

const connection* roster::upcoming() const {
    return cursor_ < awake_.size() ? awake_[cursor_].conn : nullptr;
}

void roster::resume_behind(const list::node* last) {
    assert(passing_ && in_use() && awake_.size() == static_cast<std::size_t>(list_.count));
    const auto stands_behind = [last](const line& l) { return seat::of(*l.conn).before == last; };
    const auto where = std::find_if(awake_.begin(), awake_.end(), stands_behind);
    cursor_ = static_cast<std::size_t>(where - awake_.begin());
}

void roster::end_pass() {
    passing_ = false;
    cursor_ = 0;
}

void roster::rest() {
    assert(passing_ && cursor_ > 0);
    line& l = awake_[cursor_ - 1];
    assert(seat::of(*l.conn).awake && is_enrolled(*l.conn));
    seat::of(*l.conn).awake = false;
    l.conn = nullptr;
    untidy_ = true;
    ++resting_;
}

void roster::strike() {
    assert(passing_ && cursor_ > 0 && in_use());
    line& l = awake_[cursor_ - 1];
    seat& s = seat::of(*l.conn);
    list::node* const own = s.before->next;
    assert(own->value == l.conn);
    if (own == last_) {
        last_ = s.before;
    } else {
        seat::of(*own->next->value).before = s.before;
    }
    s.enrolment = 0;
    l.conn = nullptr;
    untidy_ = true;
    ++removals_;
}
