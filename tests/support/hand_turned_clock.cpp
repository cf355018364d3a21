#include "tests/support/hand_turned_clock.h"

#include "tests/support/next_call.h"

#include <algorithm>

#include <poll.h>
#include <sys/epoll.h>

namespace hand_turned {

std::time_t now = 1000000;
int longest_wait = 0;

} // namespace hand_turned

extern "C" std::time_t time(std::time_t* result) noexcept {
    if (result != nullptr) *result = hand_turned::now;
    return hand_turned::now;
}

// All that the script has done is there by now, so no wait needs to last.
extern "C" int epoll_wait(int epfd, epoll_event* events, int most, int timeout) {
    static auto* const call = next_call<decltype(epoll_wait)>("epoll_wait");
    hand_turned::longest_wait = std::max(hand_turned::longest_wait, timeout);
    return call(epfd, events, most, 0);
}

extern "C" int poll(pollfd* fds, nfds_t count, int timeout) {
    static auto* const call = next_call<decltype(poll)>("poll");
    hand_turned::longest_wait = std::max(hand_turned::longest_wait, timeout);
    return call(fds, count, 0);
}
