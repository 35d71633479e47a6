// One mail server tells another whom it speaks for.
#include "session/client/xclient.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace std::string_literals;

namespace {

constexpr std::string_view kXforward = "NAME ADDR PORT PROTO HELO IDENT SOURCE";

ClientIdentity Peer() {
    ClientIdentity peer;
    peer.address = *IpAddress::Parse("127.0.0.9");
    peer.port = 9;
    peer.destination = *IpAddress::Parse("127.0.0.8");
    peer.destinationPort = 8;
    peer.name = "peer.example";
    peer.helo = "peer";
    peer.login = "peer-login";
    peer.proto = "ESMTP";
    return peer;
}

std::string Described(const ClientIdentity& of) {
    return of.address.Text() + "|" + std::to_string(of.port) + "|" + of.destination.Text() + "|" +
           std::to_string(of.destinationPort) + "|" + of.name + "|" + of.helo + "|" + of.login +
           "|" + of.proto;
}

TEST(Xclient, ChangesWhatItNames) {
    const struct {
        std::string arguments;
        std::string told;
    } cases[] = {
        {"ADDR=192.0.2.1", "192.0.2.1|9|127.0.0.8|8|peer.example|peer|peer-login|ESMTP"},
        {" NAME=a.example ADDR=192.0.2.1 PORT=40000 PROTO=SMTP HELO=b LOGIN=c "
         "DESTADDR=198.51.100.2 DESTPORT=25\r\n",
         "192.0.2.1|40000|198.51.100.2|25|a.example|b|c|SMTP"},
        {"addr=IPV6:2001:db8::1  destaddr=ipv6:2001:db8::2\tproto=esmtp \n",
         "2001:db8::1|9|2001:db8::2|8|peer.example|peer|peer-login|ESMTP"},
        {"ADDR=2001:db8::1", "2001:db8::1|9|127.0.0.8|8|peer.example|peer|peer-login|ESMTP"},
        {"ADDR=IPV6:::ffff:192.0.2.1",
         "192.0.2.1|9|127.0.0.8|8|peer.example|peer|peer-login|ESMTP"},
        {"ADDR=192.0.2.1 NAME=[UNAVAILABLE] HELO=[unavailable] LOGIN=[TEMPUNAVAIL] "
         "PORT=[UNAVAILABLE] PROTO=[UNAVAILABLE] DESTADDR=[UNAVAILABLE]",
         "192.0.2.1|0|::|0||||"},
        {"ADDR=192.0.2.1 NAME= LOGIN= PORT= DESTPORT=+5BUNAVAILABLE+5D HELO=",
         "192.0.2.1|0|127.0.0.8|0||||ESMTP"},
        {"LOGIN=a+2Bb+3Dc=d@e+2eexample HELO=[192.0.2.7]",
         "127.0.0.9|9|127.0.0.8|8|peer.example|[192.0.2.7]|a+b=c=d@e.example|ESMTP"},
        {"PORT=0 DESTPORT=65535", "127.0.0.9|0|127.0.0.8|65535|peer.example|peer|peer-login|ESMTP"},
        {"HELO=" + std::string(255, 'h'),
         "127.0.0.9|9|127.0.0.8|8|peer.example|" + std::string(255, 'h') + "|peer-login|ESMTP"},
    };
    for (const auto& each : cases) {
        ClientIdentity identity = Peer();
        EXPECT_TRUE(ReadXclient(each.arguments, identity)) << each.arguments;
        EXPECT_EQ(Described(identity), each.told) << each.arguments;
    }
}

TEST(Xclient, WhatCannotBeReadChangesNothing) {
    const std::vector<std::string> cases = {
        "", " \r\n", "ADDR", "=192.0.2.1", "IDENT=1", "SOURCE=REMOTE", "ADDR =192.0.2.1", "NAMES=a",
        // No client without an address.
        "ADDR=", "ADDR=[UNAVAILABLE]", "ADDR=[TEMPUNAVAIL]", "ADDR=0.0.0.0",
        "ADDR=IPV6:::", "ADDR=IPV6:192.0.2.1", "ADDR=IPV6:", "ADDR=IPV4:192.0.2.1",
        "ADDR=[192.0.2.1]", "ADDR=192.0.2.1/24", "ADDR=192.0.2.01", "ADDR=192.0.2",
        "ADDR=host.example", "ADDR=IPV6:fe80::1%eth0", "DESTADDR=x", "PORT=65536", "PORT=-1",
        "PORT=+2B1", "PORT=1x", "PORT=0x19", "DESTPORT=99999999999", "PROTO=LMTP", "PROTO=ESMTPS",
        // Nothing that could leave its place in a command, a header or a log.
        "HELO=a+0D+0AMAIL", "HELO=a+0d", "HELO=a+0A", "HELO=a+00b", "HELO=a+20b", "HELO=a+09b",
        "HELO=a+7F", "HELO=a+80", "NAME=<a>", "NAME=a+3Eb", "NAME=a+3C", "LOGIN=\xC3\xA4",
        "HELO=a\rb", "HELO=a\r\r\n", "HELO=a\nb", "HELO=a\0b"s, "HELO=a\x7F",
        // xtext.
        "HELO=a+", "HELO=a+4", "HELO=a+4G", "HELO=a++41", "HELO=+ 41",
        "HELO=" + std::string(256, 'h'), "LOGIN=" + std::string(100000, 'l')};
    for (const std::string& each : cases) {
        for (const std::string& arguments : {each, "NAME=other.example ADDR=192.0.2.1 " + each}) {
            // Alone it says nothing; behind others it is the end of the line.
            if (arguments != each && each.find_first_not_of(" \r\n") == std::string::npos) continue;
            ClientIdentity identity = Peer();
            EXPECT_FALSE(ReadXclient(arguments, identity)) << testing::PrintToString(arguments);
            EXPECT_EQ(Described(identity), Described(Peer()));
        }
    }
}

TEST(Xclient, CommandsNameWhatIsOffered) {
    ClientIdentity bare;
    bare.address = *IpAddress::Parse("192.0.2.1");
    ClientIdentity v6 = Peer();
    v6.address = *IpAddress::Parse("2001:db8::1");
    v6.login = "a+b=c";
    const struct {
        ClientIdentity identity;
        std::string_view offered;
        std::string xclient;
        std::string xforward;
    } cases[] = {
        {Peer(), kXclientAttributes,
         "XCLIENT PORT=9 PROTO=ESMTP HELO=peer DESTADDR=127.0.0.8 DESTPORT=8 "
         "NAME=peer.example LOGIN=peer-login ADDR=127.0.0.9\r\n",
         "XFORWARD NAME=peer.example ADDR=127.0.0.9 PORT=9 PROTO=ESMTP HELO=peer\r\n"},
        {Peer(), kXforward,
         "XCLIENT PORT=9 PROTO=ESMTP HELO=peer NAME=peer.example ADDR=127.0.0.9\r\n",
         "XFORWARD NAME=peer.example ADDR=127.0.0.9 PORT=9 PROTO=ESMTP HELO=peer "
         "SOURCE=REMOTE\r\n"},
        // Not known is said, lest the server keeps what it knows of us.
        {bare, kXclientAttributes,
         "XCLIENT PORT=[UNAVAILABLE] HELO=[UNAVAILABLE] DESTADDR=[UNAVAILABLE] "
         "DESTPORT=[UNAVAILABLE] NAME=[UNAVAILABLE] LOGIN=[UNAVAILABLE] ADDR=192.0.2.1\r\n",
         "XFORWARD NAME=[UNAVAILABLE] ADDR=192.0.2.1 PORT=[UNAVAILABLE] HELO=[UNAVAILABLE]\r\n"},
        {v6, " addr  Login\tSOMETHING \r\n", "XCLIENT LOGIN=a+2Bb+3Dc ADDR=IPV6:2001:db8::1\r\n",
         "XFORWARD ADDR=IPV6:2001:db8::1\r\n"},
        // The rest alone would be said of our address.
        {Peer(), "NAME PORT PROTO HELO LOGIN SOURCE", "", ""},
        {Peer(), "ADDRESS XADDR", "", ""},
        {Peer(), "", "", ""},
        {ClientIdentity(), kXclientAttributes, "", ""},
    };
    const auto joined = [](const std::vector<std::string>& commands) {
        std::string all;
        for (const std::string& each : commands) all += each;
        return all;
    };
    for (const auto& each : cases) {
        EXPECT_EQ(joined(XclientCommands(each.identity, each.offered)), each.xclient);
        EXPECT_EQ(joined(XforwardCommands(each.identity, each.offered)), each.xforward);
    }
}

// Whatever a session puts into the identity, a command stays one command.
TEST(Xclient, NothingLeavesItsCommand) {
    const std::vector<std::string> hostile = {
        "a\r\nMAIL FROM:<x@y.example>", "a\n", "a b", "a\tADDR=127.0.0.1", "a\0b"s, "<a>",
        "\xC3\xA4", "a\x7F",
        // Too long as it is, or encoded.
        std::string(256, 'h'), std::string(200, '+'), std::string(100000, 'h')};
    for (const std::string& each : hostile) {
        ClientIdentity identity = Peer();
        identity.name = identity.helo = identity.login = each;
        const auto commands = XclientCommands(identity, kXclientAttributes);
        ASSERT_EQ(commands.size(), 1U);
        // 200 plus signs are well, but no command has room for them.
        EXPECT_EQ(commands.front(),
                  "XCLIENT PORT=9 PROTO=ESMTP HELO=[UNAVAILABLE] DESTADDR=127.0.0.8 "
                  "DESTPORT=8 NAME=[UNAVAILABLE] LOGIN=[UNAVAILABLE] ADDR=127.0.0.9\r\n");
    }
    // What hides a line end behind its encoding comes out as it went in.
    ClientIdentity identity = Peer();
    identity.helo = "a+0D+0AMAIL";
    EXPECT_EQ(XforwardCommands(identity, "ADDR HELO"),
              std::vector<std::string>{"XFORWARD ADDR=127.0.0.9 HELO=a+2B0D+2B0AMAIL\r\n"});
}

TEST(Xclient, LongOnesAreSeveralCommandsThatSayTheSame) {
    ClientIdentity identity = Peer();
    identity.name = std::string(255, 'n');
    identity.helo = std::string(100, '+') + std::string(100, 'h');
    identity.login = std::string(255, 'l');
    const auto commands = XclientCommands(identity, kXclientAttributes);
    EXPECT_GT(commands.size(), 1U);
    ClientIdentity told;
    for (const std::string& each : commands) {
        EXPECT_LE(each.size(), 512U);
        // Who has become another may say no more; and a login is forgotten with what follows.
        EXPECT_EQ(each.find(" ADDR=") != std::string::npos, &each == &commands.back());
        EXPECT_EQ(each.find(" LOGIN=") != std::string::npos, &each == &commands.back());
        ASSERT_TRUE(each.starts_with("XCLIENT ") && each.ends_with("\r\n"));
        EXPECT_EQ(each.find_first_of("\r\n"), each.size() - 2);
        EXPECT_TRUE(ReadXclient(std::string_view(each).substr(7), told));
    }
    EXPECT_EQ(Described(told), Described(identity));
}

}  // namespace
