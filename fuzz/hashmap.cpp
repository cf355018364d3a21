// The map beside std::map and a list of keys, under a hash that collides often and the real one.

#include "vindra/base/hashmap.h"

#include "fuzz/fuzz.h"

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
    for (unsigned i = 0; i < map.capacity; ++i) occupied += map.slots[i].key != nullptr;
    require(occupied == map.count, "a slot for each key");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    source in(data, size);
    base::hashmap<int> map(in.below(2) != 0 ? colliding : base::orlix_hash);
    model expected;
    while (!in.empty()) {
        const unsigned what = in.below(8);
        const std::string key(in.bytes(in.below(3)));
        const auto known = expected.values.find(key);
        if (what < 4) {
            const int value = static_cast<int>(in.byte()) + 1;
            map.set(key, value);
            if (known == expected.values.end()) expected.order.push_back(key);
            expected.values[key] = value;
        } else if (what < 6) {
            require(map.unset(key) == (known == expected.values.end() ? 0 : known->second),
                    "unset gives the value back");
            if (known != expected.values.end()) {
                expected.values.erase(known);
                std::erase(expected.order, key);
            }
        } else if (what < 7) {
            require(map.get(key) == (known == expected.values.end() ? 0 : known->second),
                    "get gives the value, or zero");
        } else {
            map.reserve(in.byte());
        }
    }
    compare(map, expected);
    return 0;
}
