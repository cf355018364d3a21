// Channels: one message to many connections.

#include "vindra/base/print.h"
#include "vindra/http/http_connection.h"

#include <algorithm>
#include <cassert>

namespace {

// The map of channels is destroyed already, as the process is ending. Connections may still exist
// then, if their server was made before the map.
bool channels_gone = false;

} // namespace

base::hashmap<base::arraylist<http_connection*>*>& http_connection::channels() {
    static base::hashmap<base::arraylist<http_connection*>*> h(base::orlix_hash);
    // Constructed after the map, so destroyed before it.
    static const struct end_mark {
        ~end_mark() { channels_gone = true; }
    } mark;
    return h;
}

bool http_connection::subscribe(const std::string& channel) {
    // The destructor only cleans up after upgraded connections.
    if (!upgraded) return false;
    if (subscriptions.get(channel) != 0) return true;

    subscriptions.set(channel, 1);
    base::arraylist<http_connection*>* members = channels().get(channel);
    if (!members) {
        members = new base::arraylist<http_connection*>;
        channels().set(channel, members);
    }
    members->add(this);
    return true;
}

// By value: a reference might be to a key of either map, which is freed with its entry.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void http_connection::unsubscribe(std::string channel) {
    if (subscriptions.unset(channel) != 0 && leave_channel_(channel)) {
        delete channels().unset(channel);
    }
}

void http_connection::publish(const std::string& channel, const std::string& payload, int opcode) {
    const base::arraylist<http_connection*>* members = channels().get(channel);
    if (!members) return;
    assert(members->count > 0);
    // send_message() only queues, so the list does not change during the loop.
    for (unsigned i = 0; i < members->count; ++i) members->items[i]->send_message(payload, opcode);
}

// All empty channels are removed in one call. One by one, each removal would take time in
// proportion to the size of the map.
void http_connection::leave_channels_() {
    if (channels_gone) return;
    base::arraylist<const std::string*> empty;
    for (unsigned i = 0; i < subscriptions.count; ++i) {
        if (leave_channel_(*subscriptions.keys[i])) empty.add(subscriptions.keys[i]);
    }
    for (unsigned i = 0; i < empty.count; ++i) delete channels().get(*empty.items[i]);
    channels().unset_all(empty.items, empty.count);
}

// The caller removes an empty channel and its list.
bool http_connection::leave_channel_(const std::string& name) {
    base::arraylist<http_connection*>* members = channels().get(name);
    if (!members) {
        base::printf("Error! Channel not found: %s\n", name.c_str());
        return false;
    }

    http_connection** const end = members->items + members->count;
    http_connection** const place = std::find(members->items, end, this);
    if (place == end) {
        base::printf("Error! Subscription for %d to %s not found!\n", fd, name.c_str());
        return false;
    }
    std::copy(place + 1, end, place);
    assert(members->count > 0);
    --members->count;
    members->items[members->count] = nullptr;
    return members->count == 0;
}
