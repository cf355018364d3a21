#include "vindra/core/ipv4_text.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace {

TEST(ipv4_text, writes_the_bytes_in_network_order) {
    for (const char* text : {"127.0.0.1", "0.0.0.0", "255.255.255.255", "192.168.1.20",
                             "9.10.99.100", "101.110.200.249"}) {
        EXPECT_EQ(ipv4_text(inet_addr(text)), text);
    }
}

} // namespace
