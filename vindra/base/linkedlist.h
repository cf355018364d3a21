#pragma once

#include <cassert>
#include <cstdint>
#include <type_traits>

namespace base {

/// First-in-first-out list of integers or raw pointers, with one built-in cursor.
///
/// The list owns its nodes, never what their values point at. The cursor allows removals during a
/// walk:
///
/// ```
/// head -> [a] -> [b] -> [c]        prev = the node of a: b is being visited
/// head -> [a] -> [c]               after remove(): next = the node of c, prev = null
/// ```
///
/// Only pop() and remove() remove elements. pop() keeps `prev` valid but not `next`: do not call
/// it between remove() and the next step of the walk.
template <typename T>
class linkedlist {
    static_assert(std::is_trivially_copyable_v<T>, "values are handed out by copy");

public:
    /// One element. Owns the node behind it, and with it the rest of the chain.
    struct node {
        /// The last node of a chain, with the value `v`.
        explicit node(T v) : value(v) {}
        node(const node&) = delete;
        node& operator=(const node&) = delete;
        ~node();

        /// The element, and the next node; null in the last one.
        T value;
        node* next = nullptr;
    };

    linkedlist() = default;
    linkedlist(const linkedlist&) = delete;
    linkedlist& operator=(const linkedlist&) = delete;
    ~linkedlist();

    /// Appends `item` behind the last element.
    void add(T item);

    /// Removes the first element and returns its value; zero if the list is empty.
    T pop();

    /// Removes the element at the cursor, the one behind `prev`; does nothing if there is none.
    /// Then `prev` is null and `next` is the node that followed the removed one.
    void remove();

    /// Sentinel before the first element; lives as long as the list.
    node* head = new node(T{});

    /// Last node; the sentinel if the list is empty.
    node* tail = head;

    /// Cursor: the node before the element that the owner is visiting; null after remove().
    node* prev = nullptr;

    /// Where the walk continues after remove(); null if there is no such node.
    node* next = nullptr;

    /// Number of elements.
    int count = 0;

    /// How many elements have been removed so far; wraps around. Shows the owner of an index beside
    /// the list that others have changed the list.
    std::uint32_t removals() const { return removals_; }

private:
    // Removes the node behind `before` and returns its value.
    T unlink_(node* before);

    std::uint32_t removals_ = 0;
};

// A loop, because recursion would need a stack frame for each node of the chain.
template <typename T>
linkedlist<T>::node::~node() {
    while (next) {
        node* doomed = next;
        next = doomed->next;
        doomed->next = nullptr;
        delete doomed;
    }
}

template <typename T>
linkedlist<T>::~linkedlist() {
    delete head;
}

template <typename T>
void linkedlist<T>::add(T item) {
    tail->next = new node(item);
    tail = tail->next;
    ++count;
}

template <typename T>
T linkedlist<T>::pop() {
    node* first = head->next;
    if (!first) return T{};
    if (prev == first) prev = head;
    return unlink_(head);
}

template <typename T>
void linkedlist<T>::remove() {
    if (!prev || !prev->next) return;
    unlink_(prev);
    next = prev->next;
    prev = nullptr;
}

template <typename T>
T linkedlist<T>::unlink_(node* before) {
    node* victim = before->next;
    assert(victim != nullptr);
    if (tail == victim) tail = before;
    before->next = victim->next;
    const T value = victim->value;
    victim->next = nullptr; // else it would take the rest of the chain with it
    delete victim;
    --count;
    ++removals_;
    return value;
}

} // namespace base
