#include "vindra/core/ipv4_text.h"

#include <cstdio>
#include <cstring>

std::string ipv4_text(std::uint32_t address) {
    unsigned char bytes[4];
    std::memcpy(bytes, &address, sizeof bytes);
    char text[sizeof "255.255.255.255"];
    const int length =
        std::snprintf(text, sizeof text, "%d.%d.%d.%d", bytes[0], bytes[1], bytes[2], bytes[3]);
    return std::string(text, static_cast<std::size_t>(length));
}
