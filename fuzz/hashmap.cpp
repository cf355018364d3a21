// The map beside std::map and a list of keys after every call.
//
// Input: a byte whose lowest bit asks for a hash that collides often, then at most 300 calls: a
// byte modulo 8 (0 to 3 set, 4 and 5 unset, 6 get, 7 reserve), the length of a key modulo 3, the
// key, and for set and reserve a number.

#include "vindra/base/hashmap.h"

#include "fuzz/fuzz.h"

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace {

std::uint32_t colliding(const char* bytes, unsigned length) {
    return length == 0 ? 3 : static_cast<unsigned char>(bytes[0]) % 4;
}

struct model {
    std::map<std::string, int> values;
    std::vector<std::string> order;
};

void compare(const base::hashmap<int>& map, const model& expected) {
    require(map.count == expected.order.size(), "as many keys");
    for (unsigned i = 0; i < map.count; ++i) {
        require(*map.keys[i] == expected.order[i], "the keys in order of insertion");
        require(map.get(*map.keys[i]) == expected.values.at(*map.keys[i]), "the value of each");
    }
    if (map.capacity > 0) require(map.keys[map.count] == nullptr, "a null behind the last key");
    unsigned occupied = 0;
    for (unsigned i = 0; i < map.capacity; ++i) {
        const auto& slot = map.slots[i];
        if (slot.key == nullptr) continue;
        ++occupied;
        require(std::find(map.keys, map.keys + map.count, slot.key) != map.keys + map.count,
                "a slot has the very key of the list");
        require(slot.hash == map.hash(slot.key->data(), static_cast<unsigned>(slot.key->size())),
                "and its hash");
    }
    require(occupied == map.count, "a slot for each key");
}

const std::string& own_key(const base::hashmap<int>& map, const std::string& key) {
    for (unsigned i = 0; i < map.count; ++i)
        if (*map.keys[i] == key) return *map.keys[i];
    return key;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    source in(data, size);
    base::hashmap<int> map(in.below(2) != 0 ? colliding : base::orlix_hash);
    model expected;
    for (int calls = 0; !in.empty() && calls < 300; ++calls) {
        const unsigned what = in.below(8);
        const std::string key(in.bytes(in.below(3)));
        const auto known = expected.values.find(key);
        if (what < 4) {
            const int value = static_cast<int>(in.byte()) + 1;
            map.set(key, value);
            if (known == expected.values.end()) expected.order.push_back(key);
            expected.values[key] = value;
        } else if (what < 6) {
            // Now and then by the map's own string, which dies in the call.
            const bool by_own = what == 5 && known != expected.values.end();
            require(map.unset(by_own ? own_key(map, key) : key) ==
                        (known == expected.values.end() ? 0 : known->second),
                    "unset gives the value back");
            if (known != expected.values.end()) {
                expected.values.erase(known);
                std::erase(expected.order, key);
            }
        } else if (what < 7) {
            require(map.get(key) == (known == expected.values.end() ? 0 : known->second),
                    "get gives the value, or zero");
        } else {
            const unsigned room = in.byte();
            const unsigned before = map.capacity;
            map.reserve(room);
            require(map.capacity == std::max(before, room), "reserve makes exactly that room");
        }
        compare(map, expected);
    }
    return 0;
}
