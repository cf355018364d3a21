#include "vindra/core/roster.h"

#include "vindra/core/connection.h"
#include "vindra/core/registry.h"

#include <algorithm>

void roster::rebuild() {
    clear();
    in_use_ = true;
    removals_ = list_.removals();
    last_ = list_.head;
    while (last_->next != nullptr) enrol(*last_->next->value, last_);
}

void roster::clear() {
    in_use_ = false;
    by_fd_.clear();
    awake_.clear();
    cursor_ = 0;
}

void roster::enrol(connection& conn, list::node* before) {
    last_ = before->next;
    conn.roster_entry_ = {this, before, ++last_place_, conn.fd, true, false};
    awake_.push_back({last_place_, &conn});
    if (conn.fd < 0) return;

    const auto index = static_cast<std::size_t>(conn.fd);
    if (index >= by_fd_.size()) by_fd_.resize(std::max(index + 1, 2 * by_fd_.size()));
    by_fd_[index] = &conn;
}

void roster::wake_ready() {
    sockets::registry::instance().for_each_result([this](int fd) {
        const auto index = static_cast<std::size_t>(fd);
        connection* const conn = index < by_fd_.size() ? by_fd_[index] : nullptr;
        if (conn == nullptr || conn->roster_entry_.awake) return;
        conn->roster_entry_.awake = true;
        awake_.push_back({conn->roster_entry_.place, conn});
    });
}

void roster::wake(connection& conn) {
    entry& e = conn.roster_entry_;
    if (e.home == nullptr || !e.home->in_use() || e.awake) return;
    e.awake = true;
    e.home->insert(conn);
}

// Between passes the cursor stands at 0, so that nobody is behind it.
void roster::insert(connection& conn) {
    const std::uint64_t place = conn.roster_entry_.place;
    const auto at = std::upper_bound(awake_.begin(), awake_.end(), place,
                                     [](std::uint64_t p, const line& l) { return p < l.place; });
    if (static_cast<std::size_t>(at - awake_.begin()) < cursor_) ++cursor_;
    awake_.insert(at, {place, &conn});
}

void roster::begin_pass() {
    std::erase_if(awake_, [](const line& l) { return l.conn == nullptr; });
    const auto by_place = [](const line& a, const line& b) { return a.place < b.place; };
    if (!std::is_sorted(awake_.begin(), awake_.end(), by_place))
        std::sort(awake_.begin(), awake_.end(), by_place);
    cursor_ = 0;
}

connection* roster::next() {
    if (cursor_ == awake_.size()) {
        if (last_->next == nullptr) return nullptr;
        enrol(*last_->next->value, last_);
    }
    return awake_[cursor_++].conn;
}

void roster::rest() {
    line& l = awake_[cursor_ - 1];
    l.conn->roster_entry_.awake = false;
    l.conn = nullptr;
}

void roster::strike() {
    line& l = awake_[cursor_ - 1];
    entry& e = l.conn->roster_entry_;
    list::node* const own = e.before->next;
    if (own == last_) {
        last_ = e.before;
    } else {
        own->next->value->roster_entry_.before = e.before;
    }
    if (e.fd >= 0) by_fd_[static_cast<std::size_t>(e.fd)] = nullptr;
    e.home = nullptr;
    l.conn = nullptr;
    ++removals_;
}
