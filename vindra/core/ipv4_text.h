#pragma once

#include <cstdint>
#include <string>

/// Dotted form of an IPv4 address in network byte order, as connection::address holds it:
/// "127.0.0.1" for the first byte 127.
std::string ipv4_text(std::uint32_t address);
