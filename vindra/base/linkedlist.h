#pragma once

#include <cassert>
#include <cstdint>
#include <type_traits>

namespace base {

/// First-in-first-out list of integers or raw pointers, with one built-in cursor.
///
/// The list owns its nodes and never what their values point at. The cursor lets its owner
/// take elements out during a walk:
///
/// ```
/// head -> [a] -> [b] -> [c]        prev = the node of a: b is being visited
/// head -> [a] -> [c]               after remove(): next = the node of c, prev = null
/// ```
///
/// Only pop() and remove() take elements out. pop() keeps `prev` valid but not `next`: do not
/// pop between a remove() and the step that follows it.
template <typename T>
class linkedlist {
    static_assert(std::is_trivially_copyable_v<T>, "values are handed out by copy");

public:
    /// One element. Owns the node behind it, and with it the rest of the chain.
    struct node {
        /// The last node of a chain, with `v` in it.
        explicit node(T v) : value(v) {}
        node(const node&) = delete;
        node& operator=(const node&) = delete;
        ~node();

        /// The element, and the node behind it; null in the last one.
        T value;
        node* next = nullptr;
    };

    linkedlist() = default;
    linkedlist(const linkedlist&) = delete;
    linkedlist& operator=(const linkedlist&) = delete;
    ~linkedlist();

    /// Appends `item` behind the last element.
    void add(T item);

    /// Takes the first element out and returns its value; zero when the list is empty.
    T pop();

    /// Takes the element at the cursor out, the one behind `prev`; nothing happens where there
    /// is none. Afterwards the cursor is spent and `next` is the node that followed it.
    void remove();

    /// Sentinel that lives as long as the list; the first element stands behind it.
    node* head = new node(T{});

    /// Last node: the sentinel exactly when the list is empty.
    node* tail = head;

    /// Cursor: the node before the element that the owner is visiting; null when spent.
    node* prev = nullptr;

    /// Where a walk goes on after remove(); null when there is no such place.
    node* next = nullptr;

    /// Number of elements.
    int count = 0;

    /// How many elements have been taken out so far; wraps around. Tells whoever keeps an index
    /// beside the list that others have changed it.
    std::uint32_t removals() const { return removals_; }

private:
    T unlink_(node* before);

    std::uint32_t removals_ = 0;
};

// In a loop: a chain of a million nodes must not need a million stack frames.
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

// Takes the node behind `before` out and frees it alone, not the chain that it owns.
template <typename T>
T linkedlist<T>::unlink_(node* before) {
    node* victim = before->next;
    assert(victim != nullptr);
    if (tail == victim) tail = before;
    before->next = victim->next;
    const T value = victim->value;
    victim->next = nullptr;
    delete victim;
    --count;
    ++removals_;
    return value;
}

} // namespace base
