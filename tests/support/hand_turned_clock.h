#pragma once

#include <ctime>

/// A process whose time stands still until the test moves it, and whose waits never last. Link
/// hand_turned_clock.cpp into the test program: its time(), poll() and epoll_wait() stand before
/// the C library's.
namespace hand_turned {

/// What time() returns.
extern std::time_t now;

/// The longest time-out, in milliseconds, that a wait was called with since this was last set to 0.
extern int longest_wait;

} // namespace hand_turned
