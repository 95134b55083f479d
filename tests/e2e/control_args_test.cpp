// The control channel's operations refuse a value their field cannot hold, in words that
// name the key and what it takes, and change nothing when they refuse: a number is never
// wrapped into the field, a burst never runs past the last address, a wrong type is not
// answered with the JSON library's text, and a long value comes back as an excerpt only.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "e2e/e2e_support.hpp"
#include "ipproto/endpoints.hpp"
#include "ipproto/raii.hpp"

namespace e2e {
namespace {

using json = nlohmann::json;

class ControlArgs : public SimTest {
protected:
    // The error text of a request that must be refused.
    static std::string refused(const json& req) {
        const json answer = control(req);
        EXPECT_EQ(answer.value("ok", true), false) << req.dump().substr(0, 200) << " -> " << answer.dump();
        const std::string error = answer.value("error", "");
        EXPECT_EQ(error.find("json.exception"), std::string::npos) << error;
        EXPECT_LT(error.size(), 200u) << error.substr(0, 300);
        return error;
    }

    static json ok(const json& req) {
        const json answer = control(req);
        EXPECT_TRUE(answer.value("ok", false)) << req.dump() << " -> " << answer.dump();
        return answer;
    }

    // The neighbour entries of the device without their age, which moves with the clock.
    static json neighbours() {
        json entries = ok({{"op", "neigh.list"}}).at("entries");
        for (json& e : entries) e.erase("age");
        return entries;
    }

    // The FIB's route counts and sequence numbers (a removal of nothing changes nothing).
    static json routes() {
        json state = ok({{"op", "route.del"}, {"prefix", "203.0.113.0/24"}, {"vrf", 4321}});
        state.erase("removed");
        state.erase("ok");
        return state;
    }

    static json neigh_add(const char* address) {
        return {{"op", "neigh.add"}, {"interface", kGe1}, {"address", address}, {"mac", "02:00:00:00:00:77"}};
    }

    // The entry of an address on an interface in neigh.list, or null.
    static json entry(std::uint32_t ifindex, const std::string& address) {
        for (const json& e : neighbours()) {
            if (e.at("interface") == ifindex && e.at("address") == address) return e;
        }
        return nullptr;
    }
};

TEST_F(ControlArgs, InterfaceBeyond32BitsIsRefused) {
    const json before = neighbours();
    json req = neigh_add("10.1.1.77");
    req["interface"] = 4294967298ull;  // 2 past 32 bits: GigabitEthernet1/0/1 when wrapped
    EXPECT_EQ(refused(req), "\"interface\" must be an interface index (1 to 4294967295) or name, got 4294967298");
    EXPECT_EQ(neighbours(), before);
    EXPECT_TRUE(entry(kGe1, "10.1.1.77").is_null());

    req["interface"] = 0;
    EXPECT_EQ(refused(req), "\"interface\" must be an interface index (1 to 4294967295) or name, got 0");
    req["interface"] = 4294967295ull;
    EXPECT_EQ(refused(req), "no interface 4294967295") << "in range, but the device has no such interface";
    req["interface"] = "Foo0";
    EXPECT_EQ(refused(req), "no interface \"Foo0\"");
    req["interface"] = true;
    EXPECT_EQ(refused(req), "\"interface\" must be an interface index (1 to 4294967295) or name, got true");

    // The operations that took "ifindex" first read it the same way.
    EXPECT_EQ(refused({{"op", "nd.sent"}, {"ifindex", 4294967298ull}}),
              "\"ifindex\" must be an interface index (1 to 4294967295) or name, got 4294967298");
    EXPECT_EQ(refused({{"op", "arp.counters"}, {"node", 1}, {"interface", 4294967298ull}, {"packets", {1, 1, 0, 0}}}),
              "\"interface\" must be an interface index (1 to 4294967295) or name, got 4294967298");
    EXPECT_EQ(ok({{"op", "arp.counters"}, {"node", 1}, {"interface", kGe1}}).at("packets"), json({0, 0, 0, 0}));
    EXPECT_EQ(neighbours(), before);
}

TEST_F(ControlArgs, VlanBeyond4095IsRefused) {
    const json before = neighbours();
    json req = neigh_add("10.1.1.77");
    req["vlan"] = 99999999;
    EXPECT_EQ(refused(req), "\"vlan\" must be a whole number from 0 to 4095, got 99999999");
    req["vlan"] = 4096;
    EXPECT_EQ(refused(req), "\"vlan\" must be a whole number from 0 to 4095, got 4096");
    EXPECT_EQ(refused({{"op", "nd.entry"}, {"ifindex", kVlan1}, {"address", "2001:db8::77"}, {"vlan", 99999999}}),
              "\"vlan\" must be a whole number from 0 to 4095, got 99999999");
    EXPECT_EQ(neighbours(), before);
}

TEST_F(ControlArgs, NegativeVlanIsRefused) {
    const json before = neighbours();
    json req = neigh_add("10.1.1.77");
    req["vlan"] = -1;
    EXPECT_EQ(refused(req), "\"vlan\" must be a whole number from 0 to 4095, got -1");
    // Neither a fraction, a boolean nor a number written as a string is a whole number.
    req["vlan"] = 1.5;
    EXPECT_EQ(refused(req), "\"vlan\" must be a whole number from 0 to 4095, got 1.5");
    req["vlan"] = true;
    EXPECT_EQ(refused(req), "\"vlan\" must be a whole number from 0 to 4095, got true");
    req["vlan"] = "12";
    EXPECT_EQ(refused(req), "\"vlan\" must be a whole number from 0 to 4095, got \"12\"");
    req["vlan"] = nullptr;
    EXPECT_EQ(refused(req), "\"vlan\" must be a whole number from 0 to 4095, got null");
    EXPECT_EQ(neighbours(), before);
}

TEST_F(ControlArgs, LinkBeyond16BitsIsRefused) {
    const json before = neighbours();
    json req = neigh_add("10.1.1.77");
    req["link"] = 70000;  // 4464 when wrapped
    EXPECT_EQ(refused(req), "\"link\" must be a whole number from 0 to 65535, got 70000");
    req.erase("link");
    req["vsi"] = 4294967296ull;
    EXPECT_EQ(refused(req), "\"vsi\" must be a whole number from 0 to 4294967295, got 4294967296");
    EXPECT_EQ(neighbours(), before);
}

TEST_F(ControlArgs, CountBeyond32BitsIsRefused) {
    const json before = neighbours();
    json req = {{"op", "neigh.burst"}, {"interface", kGe1}, {"first", "10.9.0.1"}, {"mac", "02:00:00:00:00:01"}};
    req["count"] = 4294967301ull;  // 5 when wrapped
    EXPECT_EQ(refused(req), "\"count\" must be a whole number from 1 to 4000000, got 4294967301");
    req["count"] = 4000001;
    EXPECT_EQ(refused(req), "\"count\" must be a whole number from 1 to 4000000, got 4000001");
    req["count"] = 0;
    EXPECT_EQ(refused(req), "\"count\" must be a whole number from 1 to 4000000, got 0");
    req.erase("count");
    EXPECT_EQ(refused(req), "\"count\" is missing");
    req["count"] = 3;
    req["action"] = "remove";
    EXPECT_EQ(refused(req), "\"action\" must be one of add, del, got \"remove\"");
    EXPECT_EQ(neighbours(), before);
}

TEST_F(ControlArgs, BurstPastTheLastAddressIsRefused) {
    const json before = neighbours();
    json v4 = {{"op", "neigh.burst"}, {"interface", kGe1}, {"first", "255.255.255.250"},
               {"mac", "02:00:00:00:00:01"}, {"count", 10}};
    EXPECT_EQ(refused(v4),
              "\"count\": a burst of 10 from 255.255.255.250 runs past the last IPv4 address, 255.255.255.255");
    v4["action"] = "del";
    EXPECT_EQ(refused(v4),
              "\"count\": a burst of 10 from 255.255.255.250 runs past the last IPv4 address, 255.255.255.255");

    const json v6 = {{"op", "neigh.burst"}, {"interface", kGe1}, {"first", "2001:db8::ffff:fffa"},
                     {"mac", "02:00:00:00:00:01"}, {"count", 7}};
    EXPECT_EQ(refused(v6), "\"count\": a burst of 7 from 2001:db8::ffff:fffa runs past the last IPv6 address it "
                           "counts to, 2001:db8::ffff:ffff");

    // The MAC counts up with the address, in its last 32 bits.
    const json mac = {{"op", "neigh.burst"}, {"interface", kGe1}, {"first", "10.9.0.1"},
                      {"mac", "02:00:ff:ff:ff:fe"}, {"count", 3}};
    EXPECT_EQ(refused(mac), "\"count\": a burst of 3 from MAC 02:00:ff:ff:ff:fe runs past the last MAC it counts "
                            "to, 02:00:ff:ff:ff:ff");
    EXPECT_EQ(neighbours(), before) << "a refused burst changes nothing";

    // Up to the last address exactly is a burst the device takes.
    v4["action"] = "add";
    v4["count"] = 6;
    EXPECT_EQ(ok(v4).at("changed"), 6);
    EXPECT_EQ(entry(kGe1, "255.255.255.255").at("mac"), "02:00:00:00:00:06");
    EXPECT_TRUE(entry(kGe1, "0.0.0.0").is_null()) << "nothing wrapped round";
    json v6_fit = v6;
    v6_fit["count"] = 6;
    EXPECT_EQ(ok(v6_fit).at("changed"), 6);
    EXPECT_FALSE(entry(kGe1, "2001:db8::ffff:ffff").is_null());
    EXPECT_TRUE(entry(kGe1, "2001:db8::").is_null());
}

TEST_F(ControlArgs, WrongTypeIsNamedInWords) {
    const json before = neighbours();
    json req = neigh_add("10.1.1.77");
    req["mac"] = 5;
    const std::string error = refused(req);
    EXPECT_NE(error.find("\"mac\" must be a string"), std::string::npos) << error;
    EXPECT_EQ(error, "\"mac\" must be a string, got 5");

    req = neigh_add("10.1.1.77");
    req["address"] = {10, 1, 1, 77};
    EXPECT_EQ(refused(req), "\"address\" must be a string, got a list");
    req = neigh_add("10.1.1.77");
    req["state"] = 1;
    EXPECT_EQ(refused(req), "\"state\" must be one of reachable, stale, incomplete, delay, probe, got 1");
    req["state"] = "gone";
    EXPECT_EQ(refused(req), "\"state\" must be one of reachable, stale, incomplete, delay, probe, got \"gone\"");
    req = neigh_add("10.1.1.77");
    req.erase("address");
    EXPECT_EQ(refused(req), "\"address\" is missing");

    EXPECT_EQ(refused({{"op", "nd.entry"}, {"ifindex", kVlan1}, {"address", "2001:db8::77"}, {"remove", 1}}),
              "\"remove\" must be true or false, got 1");
    EXPECT_EQ(refused({{"op", "nd.entry"}, {"ifindex", kVlan1}, {"address", "10.1.1.77"}}),
              "\"address\" must be an IPv6 address, got \"10.1.1.77\"");
    EXPECT_EQ(refused({{"op", "route.add"}, {"prefix", {{"a", 1}}}}), "\"prefix\" must be a string, got an object");
    EXPECT_EQ(refused({{"op", "arp.counters"}, {"node", 1}, {"attack", "1,2,3,4"}}),
              "\"attack\" must be a list of 4 whole numbers from 0 to 18446744073709551615, got \"1,2,3,4\"");
    EXPECT_EQ(refused({{"op", "nd.counters"}, {"node", 1}, {"attack", {1, 2, -3, 4}}}),
              "\"attack\"[2] must be a whole number from 0 to 18446744073709551615, got -3");
    EXPECT_EQ(refused({{"op", "vpn.vsi"}, {"name", 7}}), "\"name\" must be a string, got 7");
    EXPECT_EQ(refused({{"op", "ipstat.set"}, {"forwarding", 1}}), "\"forwarding\" must be true or false, got 1");
    EXPECT_EQ(refused({{"op", "adj.tables"}, {"family", "4"}}), "\"family\" must be 4 or 6, got \"4\"");
    EXPECT_EQ(refused({{"op", "neigh.list"}, {"family", 0}}), "\"family\" must be 2 or 10, got 0");
    EXPECT_EQ(neighbours(), before);
}

TEST_F(ControlArgs, NotJsonIsAnsweredInWords) {
    // The test's own socket: e2e::control sends JSON only.
    const ipc::Fd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un sun{};
    const socklen_t n = ipc::names::control(instance(), &sun);
    ASSERT_TRUE(fd.valid());
    ASSERT_EQ(::connect(fd.get(), reinterpret_cast<const sockaddr*>(&sun), n), 0);
    const std::string text = R"({"op": "neigh.add", "interface": 2, "address": "10.1.1.77)";
    ASSERT_EQ(::send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    std::string reply(1 << 16, '\0');
    const ssize_t got = ::recv(fd.get(), reply.data(), reply.size(), 0);
    ASSERT_GT(got, 0);
    reply.resize(static_cast<std::size_t>(got));
    const json answer = json::parse(reply, nullptr, false);
    EXPECT_EQ(answer.value("ok", true), false) << reply;
    EXPECT_EQ(answer.value("error", ""), "the request is not JSON (at byte " + std::to_string(text.size()) + ")");
    EXPECT_TRUE(entry(kGe1, "10.1.1.77").is_null());
}

TEST_F(ControlArgs, LongValueIsQuotedAsAnExcerpt) {
    const json before = neighbours();
    // Nearly as long as a request may be (64 KiB).
    const std::string long_value(60'000, 'a');
    const std::string cut = std::string(64, 'a') + "...";
    json req = neigh_add("10.1.1.77");
    req["mac"] = long_value;
    EXPECT_EQ(refused(req), "\"mac\" must be a MAC address aa:bb:cc:dd:ee:ff, got \"" + cut + "\"");
    req = neigh_add("10.1.1.77");
    req["interface"] = long_value;
    EXPECT_EQ(refused(req), "no interface \"" + cut + "\"");
    req = neigh_add("10.1.1.77");
    req["state"] = long_value;
    EXPECT_EQ(refused(req), "\"state\" must be one of reachable, stale, incomplete, delay, probe, got \"" + cut + "\"");
    EXPECT_EQ(refused({{"op", long_value}}), "unknown operation \"" + cut + "\"");
    EXPECT_EQ(refused({{"op", "ipstat.show"}, {long_value, 1}}), "unknown key \"" + cut + "\"");
    EXPECT_EQ(refused({{"op", "vpn.vsi"}, {"name", long_value}}), "no VSI named " + cut);
    EXPECT_EQ(refused({{"op", "nd.error"}, {"value", long_value}}),
              "\"value\" must be an even number of hex digits (at most 508 bytes), got \"" + cut + "\"");
    // A cut never splits a character: 63 bytes of 'a' and a two-byte character keep 63.
    req = neigh_add("10.1.1.77");
    req["mac"] = std::string(63, 'a') + "\xc3\xa9" + std::string(100, 'b');
    EXPECT_EQ(refused(req), "\"mac\" must be a MAC address aa:bb:cc:dd:ee:ff, got \"" + std::string(63, 'a') + "...\"");

    // 10 MB in one message: past what the channel takes, still a short answer in words. The
    // kernel takes no AF_UNIX message that long (whatever the socket's room): the request is
    // then made as long as the kernel takes it, from 10 MB down.
    const ipc::Fd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    ASSERT_TRUE(fd.valid());
    const int room = 32 << 20;
    if (::setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof room) != 0) {
        (void)::setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    }
    sockaddr_un sun{};
    const socklen_t n = ipc::names::control(instance(), &sun);
    ASSERT_EQ(::connect(fd.get(), reinterpret_cast<const sockaddr*>(&sun), n), 0);
    std::size_t value_len = 10u << 20;
    ssize_t sent = -1;
    std::string text;
    for (;;) {
        json big = neigh_add("10.1.1.77");
        big["mac"] = std::string(value_len, 'a');
        text = big.dump();
        sent = ::send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL);
        if (sent >= 0 || (errno != EMSGSIZE && errno != ENOBUFS) || value_len < (64u << 10)) break;
        value_len -= value_len / 4;
    }
    ASSERT_EQ(sent, static_cast<ssize_t>(text.size())) << "errno " << errno;
    std::string reply(1 << 20, '\0');
    const ssize_t got = ::recv(fd.get(), reply.data(), reply.size(), 0);
    ASSERT_GT(got, 0);
    reply.resize(static_cast<std::size_t>(got));
    EXPECT_LT(reply.size(), 300u) << text.size() << " bytes sent: " << reply.substr(0, 300);
    const json answer = json::parse(reply, nullptr, false);
    EXPECT_EQ(answer.value("ok", true), false) << reply.substr(0, 300);
    EXPECT_LT(answer.value("error", std::string(1000, 'x')).size(), 200u) << reply.substr(0, 300);
    EXPECT_EQ(reply.find(std::string(65, 'a')), std::string::npos) << "no more than an excerpt of the value";
    EXPECT_EQ(neighbours(), before);
}

TEST_F(ControlArgs, InRangeEdgesAreAccepted) {
    ok({{"op", "neigh.add"},
        {"interface", "GigabitEthernet1/0/1"},
        {"address", "10.1.1.78"},
        {"mac", "02:00:00:00:00:78"},
        {"vlan", 4095},
        {"link", 65535},
        {"vsi", 4294967295ull},
        {"state", "probe"},
        {"kind", "static"}});
    const json e = entry(kGe1, "10.1.1.78");
    ASSERT_FALSE(e.is_null());
    EXPECT_EQ(e.at("vlan"), 4095);
    EXPECT_EQ(e.at("link"), 65535);
    EXPECT_EQ(e.at("vsi"), 4294967295ull);
    EXPECT_EQ(e.at("state"), "probe");
    EXPECT_EQ(e.at("kind"), "static");

    // A whole number written with an exponent is a whole number.
    ok({{"op", "neigh.add"}, {"interface", kGe1}, {"address", "10.1.1.79"}, {"vlan", 1e3}});
    EXPECT_EQ(entry(kGe1, "10.1.1.79").at("vlan"), 1000);

    // The ND operations take "interface" (index or name) as well as "ifindex", not both.
    ok({{"op", "nd.entry"}, {"interface", "Vlan-interface1"}, {"address", "2001:db8::78"}, {"vlan", 4095},
        {"mac", "02:00:00:00:00:78"}});
    EXPECT_EQ(entry(kVlan1, "2001:db8::78").at("vlan"), 4095);
    ok({{"op", "nd.sent"}, {"interface", "Vlan-interface1"}});
    EXPECT_EQ(refused({{"op", "nd.sent"}, {"interface", kVlan1}, {"ifindex", kVlan1}}),
              "give \"interface\" or \"ifindex\", not both");
    EXPECT_EQ(ok({{"op", "nd.if_config"}, {"interface", "Vlan-interface1"}, {"ra_lifetime", 65535},
                  {"ra_hop_limit", 255}, {"ra_preference", 3}})
                  .at("ra_lifetime"),
              65535);
    EXPECT_EQ(refused({{"op", "nd.if_config"}, {"ifindex", kVlan1}, {"ra_lifetime", 65536}}),
              "\"ra_lifetime\" must be a whole number from 0 to 65535, got 65536");

    EXPECT_EQ(ok({{"op", "neigh.burst"}, {"interface", "GigabitEthernet1/0/1"}, {"first", "10.9.0.1"}, {"count", 1}})
                  .at("changed"),
              1);
    EXPECT_EQ(ok({{"op", "arp.counters"}, {"node", 1}, {"selector", 255}, {"alarm", 18446744073709551615ull}})
                  .at("alarm"),
              18446744073709551615ull);
    EXPECT_EQ(ok({{"op", "ipstat.set"}, {"node", 1}, {"interface", "GigabitEthernet1/0/1"}, {"mtu", 65535}})
                  .at("mtu"),
              65535);
    EXPECT_EQ(ok({{"op", "vpn.vrf"}, {"index", 0}}).at("name"), "public");
}

// Fields of 16 bits or less were wrapped into their field by every operation, not only the
// neighbour ones; a node must also be one of the device's.
TEST_F(ControlArgs, OtherNumbersPastTheirFieldAreRefused) {
    const json fib = routes();
    EXPECT_EQ(refused({{"op", "route.add"}, {"prefix", "10.77.0.0/16"}, {"vrf", 65536}}),
              "\"vrf\" must be a whole number from 0 to 65535, got 65536");
    EXPECT_EQ(refused({{"op", "route.add"}, {"prefix", "10.77.0.0/16"}, {"node", 65537}}),
              "\"node\" must be a whole number from 0 to 32767, got 65537");
    EXPECT_EQ(refused({{"op", "route.add"}, {"prefix", "10.77.0.0/16"}, {"node", 9}}), "no node 9");
    EXPECT_EQ(refused({{"op", "route.add"}, {"prefix", "10.77.0.0/33"}}),
              "\"prefix\" must be an IPv4 or IPv6 address with an optional /length (0 to 32 or 128), got "
              "\"10.77.0.0/33\"");
    EXPECT_EQ(routes(), fib);

    EXPECT_EQ(refused({{"op", "wlan.list"}, {"node", 65537}}),
              "\"node\" must be a whole number from 1 to 32767, got 65537");
    EXPECT_EQ(refused({{"op", "wlan.clear"}, {"node", 9}}), "no node 9");
    EXPECT_EQ(refused({{"op", "proen.list"}, {"node", 65537}}),
              "\"node\" must be a whole number from 1 to 32767, got 65537");
    EXPECT_EQ(refused({{"op", "vpn.vrf"}, {"index", 65536}}),
              "\"index\" must be a whole number from 0 to 65535, got 65536");
    EXPECT_EQ(refused({{"op", "vpn.circuit"}, {"interface", kGe1}, {"service", 4097}}),
              "\"service\" must be a whole number from 1 to 4096, got 4097");
    EXPECT_EQ(refused({{"op", "nd.error"}, {"type", 70000}}),
              "\"type\" must be a whole number from 0 to 65535, got 70000");
    EXPECT_EQ(refused({{"op", "ipstat.set"}, {"node", 1}, {"interface", kGe1}, {"mtu", 65536}}),
              "\"mtu\" must be a whole number from 0 to 65535, got 65536");
    EXPECT_EQ(ok({{"op", "ipstat.show"}, {"interface", kGe1}}).at("mtu"), 1500) << "the MTU did not change";
    EXPECT_EQ(refused({{"op", "ipstat.traffic"}, {"node", 1}, {"interface", kGe1}, {"in", 1}, {"size", 0}}),
              "\"size\" must be a whole number from 1 to 65535, got 0");
    EXPECT_EQ(ok({{"op", "ipstat.show"}, {"node", 1}}).at("ip").at("in_received"), 0) << "no traffic was counted";
}

// A request refused for its last value leaves the values before it unapplied too.
TEST_F(ControlArgs, ARefusedRequestIsNotHalfDone) {
    const json counters = ok({{"op", "arp.counters"}, {"node", 1}});
    EXPECT_EQ(refused({{"op", "arp.counters"}, {"node", 1}, {"alarm", 5}, {"attack", {1, 2, 3}}}),
              "\"attack\" must be a list of 4 whole numbers from 0 to 18446744073709551615, got a list of 3");
    EXPECT_EQ(refused({{"op", "arp.counters"}, {"node", 1}, {"alarm", 5}, {"interface", kGe1},
                       {"packets", {4294967296ull, 0, 0, 0}}}),
              "\"packets\"[0] must be a whole number from 0 to 4294967295, got 4294967296");
    EXPECT_EQ(ok({{"op", "arp.counters"}, {"node", 1}}), counters);

    const json nd = ok({{"op", "nd.counters"}, {"node", 1}});
    EXPECT_EQ(refused({{"op", "nd.counters"}, {"node", 1}, {"attack", {1, 2, 3, 4}}, {"alarm", -5}}),
              "\"alarm\" must be a whole number from 0 to 18446744073709551615, got -5");
    EXPECT_EQ(ok({{"op", "nd.counters"}, {"node", 1}}), nd);

    const json params = ok({{"op", "nd.params"}});
    EXPECT_EQ(refused({{"op", "nd.params"}, {"hop_limit", 10}, {"stale_aging_unit", 2}}),
              "\"stale_aging_unit\" must be a whole number from 0 to 1, got 2");
    EXPECT_EQ(ok({{"op", "nd.params"}}), params);
}

}  // namespace
}  // namespace e2e
