#include "vindra/core/ipv4_text.h"

#include <cstring>

namespace {

// At most three digits, written behind `end` in reading order. Returns where they end.
char* write_number(char* end, unsigned number) {
    if (number >= 100) *end++ = static_cast<char>('0' + number / 100);
    if (number >= 10) *end++ = static_cast<char>('0' + number / 10 % 10);
    *end++ = static_cast<char>('0' + number % 10);
    return end;
}

} // namespace

// By hand: it runs twice a request, and through printf() took a sixtieth of a request's time.
std::string ipv4_text(std::uint32_t address) {
    unsigned char bytes[4];
    std::memcpy(bytes, &address, sizeof bytes);
    char text[sizeof "255.255.255.255"];
    char* end = text;
    for (const unsigned char byte : bytes) {
        end = write_number(end, byte);
        *end++ = '.';
    }
    return {text, end - 1};
}
