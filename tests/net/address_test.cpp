#include "net/address.h"

#include <gtest/gtest.h>

#include <tuple>
#include <utility>

namespace {

TEST(Address, TextsOfBothFamilies) {
    const struct {
        const char* text;
        const char* shown;  // null: it is no address
        bool v4;
    } cases[] = {
        {"192.0.2.1", "192.0.2.1", true},
        {"0.0.0.0", "0.0.0.0", true},
        {"2001:DB8::1", "2001:db8::1", false},
        {"::1", "::1", false},
        {"::ffff:192.0.2.1", "192.0.2.1", true},  // as a listener of both families sees it
        {"", nullptr, false},
        {"192.0.2.256", nullptr, false},
        {"0x7f000001", nullptr, false},
        {" 192.0.2.1", nullptr, false},
        {"[::1]", nullptr, false},
        {"fe80::1%eth0", nullptr, false},
        {"localhost", nullptr, false},
    };
    for (const auto& each : cases) {
        const auto address = IpAddress::Parse(each.text);
        ASSERT_EQ(address.has_value(), each.shown != nullptr) << each.text;
        if (!address) continue;
        EXPECT_EQ(address->Text(), each.shown);
        EXPECT_EQ(address->IsV4(), each.v4) << each.text;
    }
    EXPECT_FALSE(IpAddress::Parse(std::string_view("192.0.2.1\0", 10)).has_value());
    EXPECT_EQ(IpAddress::OfV4(htonl(0xC0000201)), IpAddress::Parse("192.0.2.1"));
    EXPECT_EQ(IpAddress::Parse("192.0.2.1")->V4(), htonl(0xC0000201));
}

TEST(Address, WhatAListenerIsReachedBy) {
    for (const auto& [text, every, loopback] : {std::tuple{"0.0.0.0", true, false},
                                                {"::", true, false},
                                                {"127.8.9.10", false, true},
                                                {"::1", false, true},
                                                {"::ffff:127.0.0.1", false, true},
                                                {"192.0.2.1", false, false}}) {
        EXPECT_EQ(IpAddress::Parse(text)->IsEvery(), every) << text;
        EXPECT_EQ(IpAddress::Parse(text)->IsLoopback(), loopback) << text;
    }
    EXPECT_EQ(ListenAddress(""), IpAddress::OfV4(INADDR_ANY));
    for (const char* none : {"0.0.0.7", "255.255.255.255", "[::1]", "mx.example.org"})
        EXPECT_FALSE(ListenAddress(none).has_value()) << none;
}

TEST(Address, NetworksHoldTheirFamilyAlone) {
    const struct {
        const char* network;
        const char* address;
        bool inside;
    } cases[] = {
        {"192.0.2.0/24", "192.0.2.255", true},
        {"192.0.2.0/24", "192.0.3.0", false},
        {"192.0.2.7/24", "192.0.2.9", true},
        {"192.0.2.128/25", "192.0.2.127", false},
        {"192.0.2.1", "192.0.2.1", true},
        {"0.0.0.0/0", "203.0.113.9", true},
        {"0.0.0.0/0", "2001:db8::1", false},
        {"::/0", "2001:db8::1", true},
        {"::/0", "192.0.2.1", false},
        {"2001:db8::/33", "2001:db8:7fff::1", true},
        {"2001:db8::/33", "2001:db8:8000::1", false},
        {"::ffff:192.0.2.0/24", "192.0.2.5", true},
    };
    for (const auto& each : cases) {
        const auto network = IpNetwork::Parse(each.network);
        ASSERT_TRUE(network.has_value()) << each.network;
        EXPECT_EQ(network->Contains(*IpAddress::Parse(each.address)), each.inside)
            << each.network << ' ' << each.address;
    }
    for (const auto& [text, bits] :
         {std::pair{"192.0.2.0/24", 24}, {"192.0.2.1", 32}, {"0.0.0.0/0", 0}, {"2000::/3", 3}})
        EXPECT_EQ(IpNetwork::Parse(text)->Bits(), bits) << text;
    for (const char* none : {"", "/", "192.0.2.0/", "192.0.2.0/33", "192.0.2.0/-1", "192.0.2.0/8x",
                             "::/129", "/24", "192.0.2.0/ 8", "all"})
        EXPECT_FALSE(IpNetwork::Parse(none).has_value()) << none;
}

}  // namespace
