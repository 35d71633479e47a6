#include "session/relay_network.h"

#include <gtest/gtest.h>

namespace {

TEST(RelayNetwork, WhoMayRelay) {
    const struct {
        const char *address, *mask, *client;
        bool inside;
    } cases[] = {
        {"192.0.2.0", "255.255.255.0", "192.0.2.9", true},
        {"192.0.2.0", "255.255.255.0", "192.0.3.9", false},
        {"192.0.2.7", "255.255.255.0", "192.0.2.7", false},  // bits behind the mask
        {"192.0.2.7", "255.255.0.255", "192.0.2.7", false},
        {"192.0.0.7", "255.255.0.255", "192.0.9.7", true},  // no prefix, and a mask all the same
        {"192.0.2.7", "", "192.0.2.7", true},
        {"192.0.2.7", "", "192.0.2.8", false},
        {"192.0.2.7", "nonsense", "192.0.2.7", true},
        {"192.0.2.7", "nonsense", "192.0.2.8", false},
        {"nonsense", "", "192.0.2.7", false},
        {"nonsense", "0.0.0.0", "192.0.2.7", false},
        {"", "", "192.0.2.7", false},
        {"", "", "255.255.255.255", true},  // what no client has
        {"0.0.0.0", "0.0.0.0", "192.0.2.7", true},
        {"0.0.0.0", "0.0.0.0", "2001:db8::1", false},
        {"0.0.0.0", "", "::", false},
        {"192.0.2.0/24", "", "192.0.2.9", true},
        {"192.0.2.7/24", "", "192.0.2.9", true},
        {"192.0.2.0/24", "", "192.0.3.9", false},
        {"192.0.2.0/24", "", "::ffff:192.0.2.9", true},
        {"192.0.2.0/24", "255.255.255.0", "192.0.2.9", false},  // says two things
        {"0.0.0.0/abc", "", "192.0.2.7", false},
        {"0.0.0.0/", "", "192.0.2.7", false},
        {"0.0.0.0/", "0.0.0.0", "192.0.2.7", false},
        {"0.0.0.0/33", "", "192.0.2.7", false},
        {"0.0.0.0/-1", "", "192.0.2.7", false},
        {"0.0.0.0/0 ", "", "192.0.2.7", false},
        {"/0", "", "192.0.2.7", false},
        {"/", "0.0.0.0", "192.0.2.7", false},
        {"0.0.0.0/0", "", "2001:db8::1", false},
        {"2001:db8::1", "", "2001:db8::1", true},
        {"2001:db8::1", "", "2001:db8::2", false},
        {"2001:db8::1", "0.0.0.0", "2001:db8::1", false},
        {"::", "0.0.0.0", "192.0.2.7", false},
        {"2001:db8::/32", "", "2001:db8:ffff::1", true},
        {"2001:db8::/32", "", "2001:db9::1", false},
        {"::/0", "", "192.0.2.7", false},
        {"::/129", "", "2001:db8::1", false},
        {":::", "", "2001:db8::1", false},
    };
    for (const auto& each : cases) {
        const RelayNetwork network(each.address, each.mask);
        EXPECT_EQ(network.Contains(IpAddress::Parse(each.client).value()), each.inside)
            << each.address << " " << each.mask << " " << each.client;
    }
}

}  // namespace
