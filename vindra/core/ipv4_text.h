#pragma once

#include "vindra/base/export.h"

#include <cstdint>
#include <string>

/// Dotted form of an IPv4 address in network byte order, as connection::address holds it:
/// "127.0.0.1" for the first byte 127.
VINDRA_API std::string ipv4_text(std::uint32_t address);
