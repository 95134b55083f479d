// ipctl as a user runs it: each test starts ipsimd on the bundled default scenario for the
// test process's own instance, runs the tool as a process and compares what it printed
// (whole lines of text, JSON field by field and against its schema) and its exit status.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "e2e/sim_process.hpp"
#include "ipctl/ipctl_support.hpp"

namespace {

using ipctl_test::ipctl;
using ipctl_test::Json;
using ipctl_test::lines;
using ipctl_test::Result;
using namespace std::chrono_literals;

const std::string kUsage = "Usage: ipctl [-i NAME] [-n N] [-j] [-p] ";

std::string describe(const Result& r) {
    return "exit " + std::to_string(r.code) + "\n--- stdout\n" + r.out + "--- stderr\n" + r.err;
}

// A usage error: exit 2, the error and the usage line of the object or verb (below).
void expect_usage(const std::vector<std::string>& args, const std::string& error, const std::string& usage);

// The output of a command that must succeed.
std::string run_ok(const std::vector<std::string>& args) {
    const Result r = ipctl(args);
    EXPECT_EQ(r.code, 0) << describe(r);
    EXPECT_EQ(r.err, "") << describe(r);
    return r.out;
}

Json run_json(const std::vector<std::string>& args) {
    std::vector<std::string> with_json{"-j"};
    with_json.insert(with_json.end(), args.begin(), args.end());
    const std::string out = run_ok(with_json);
    // One document, on one line.
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
    Json j = Json::parse(out, nullptr, false);
    EXPECT_FALSE(j.is_discarded()) << out;
    return j;
}

void expect_fits(const Json& value, const std::string& schema_name) {
    const Json s = ipctl_test::schema(schema_name);
    ASSERT_TRUE(s.is_object()) << "docs/schema/ipctl/" << schema_name << ".json does not load";
    for (const std::string& e : ipctl_test::schema_errors(value, s)) ADD_FAILURE() << schema_name << ": " << e;
}

// Every key of `expected` with its value and JSON type, and no other key.
void expect_record(const Json& actual, const Json& expected) {
    ASSERT_TRUE(actual.is_object()) << actual.dump();
    for (const auto& [key, value] : expected.items()) {
        ASSERT_TRUE(actual.contains(key)) << "no \"" << key << "\" in " << actual.dump();
        EXPECT_EQ(actual[key].type_name(), std::string(value.type_name())) << key << " in " << actual.dump();
        EXPECT_EQ(actual[key], value) << key << " in " << actual.dump();
    }
    for (const auto& [key, value] : actual.items())
        EXPECT_TRUE(expected.contains(key)) << "unexpected \"" << key << "\": " << value.dump();
}

void expect_records(const Json& actual, const std::vector<Json>& expected) {
    ASSERT_TRUE(actual.is_array()) << actual.dump();
    ASSERT_EQ(actual.size(), expected.size()) << actual.dump();
    for (std::size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE("record " + std::to_string(i));
        expect_record(actual[i], expected[i]);
    }
}

// One name-value line a field, as a single object prints: names padded to the widest.
std::string object_text(const std::vector<std::pair<std::string, std::string>>& fields) {
    std::size_t width = 0;
    for (const auto& f : fields) width = std::max(width, f.first.size());
    std::string out;
    for (const auto& [name, value] : fields) out += name + std::string(width - name.size(), ' ') + "  " + value + "\n";
    return out;
}

std::string text_of(const std::vector<std::string>& golden) {
    std::string out;
    for (const auto& l : golden) out += l + "\n";
    return out;
}

// The value of a key, or null when the object has none.
Json member(const Json& j, const char* key) {
    const auto it = j.find(key);
    return it != j.end() ? *it : Json();
}

Json control_ok(const Json& request) {
    const Json answer = e2e::control(request);
    EXPECT_EQ(member(answer, "ok"), Json(true)) << request.dump() << " -> " << answer.dump();
    return answer;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string temp_dir() {
    char tmpl[] = "/tmp/ipctl-test-XXXXXX";
    const char* d = ::mkdtemp(tmpl);
    return d != nullptr ? d : "/tmp";
}

// The counter sets of the IP module, in the order of its replies.
const std::vector<std::string> kIpNames = {
    "in_received", "in_delivered", "in_bad_protocol", "in_bad_header", "in_bad_checksum", "in_bad_options",
    "in_address_errors", "in_discards", "forwarded", "out_local", "out_dropped", "out_no_route", "ttl_exceeded",
    "frag_in", "frag_out", "frag_dropped", "fragmented", "frag_failed", "reasm_required", "reasm_ok",
    "reasm_timeouts", "reasm_failed", "in_multicast", "out_multicast", "in_broadcast", "out_broadcast"};
const std::vector<std::string> kIcmpNames = {
    "in_msgs", "in_errors", "in_bad_checksum", "in_too_short", "in_unreachable", "in_time_exceeded",
    "in_parameter_problem", "in_source_quench", "in_redirect", "in_echo", "in_echo_reply", "in_timestamp",
    "in_timestamp_reply", "in_mask", "in_mask_reply", "in_info", "in_info_reply", "in_router_advert",
    "in_router_solicit", "in_unknown_type", "in_rate_limited", "out_msgs", "out_errors", "out_unreachable",
    "out_time_exceeded", "out_parameter_problem", "out_source_quench", "out_redirect", "out_echo",
    "out_echo_reply", "out_timestamp", "out_timestamp_reply", "out_mask", "out_mask_reply", "out_info",
    "out_info_reply", "out_router_advert", "out_router_solicit", "out_rate_limited", "in_broadcast",
    "in_multicast", "out_broadcast", "out_multicast"};
const std::vector<std::string> kMibNames = {
    "in_receives", "in_octets", "in_hdr_errors", "in_no_routes", "in_delivers", "in_addr_errors",
    "in_unknown_protos", "in_truncated", "in_forw_datagrams", "reasm_reqds", "reasm_oks", "reasm_fails",
    "in_discards", "out_requests", "out_forw_datagrams", "out_discards", "out_frag_reqds", "out_transmits",
    "out_octets"};
const std::vector<std::string> kFwNames = {"in_packets", "in_octets", "forwarded_packets", "forwarded_octets",
                                           "dropped_packets", "dropped_octets", "no_route", "ttl_exceeded"};

// Each counter a value of its own, wide enough that a word read in the wrong byte order
// or of the wrong width cannot come out right.
std::uint64_t ip_node1(std::size_t i) { return 1000 * (i + 1) + 7; }
std::uint64_t ip_node2(std::size_t i) { return 0x10000 + i; }
std::uint64_t icmp_ge1(std::size_t i) { return 300 * (i + 1) + 1; }
std::uint64_t icmp_ge_node2(std::size_t i) { return 0x20000 + 2 * i; }
std::uint64_t mib_ge1(std::size_t i) { return 0x100000000ull * (i + 1) + i; }
std::uint64_t fw_ge1(std::size_t i) { return 0x300000000ull + 0x1000 * i + 5; }

template <class F>
Json named(const std::vector<std::string>& names, F value) {
    Json j = Json::object();
    for (std::size_t i = 0; i < names.size(); ++i) j[names[i]] = value(i);
    return j;
}

// A test with a fresh simulator of the default scenario.
class IpctlTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(sim.start()) << sim.log(); }
    void TearDown() override {
        if (sim.running()) {
            EXPECT_EQ(sim.stop(), 0) << sim.log();
        }
    }
    e2e::SimProcess sim;
};

// A test that starts without a simulator for its instance.
class IpctlWithoutDevice : public ::testing::Test {
protected:
    void TearDown() override {
        if (sim.running()) {
            EXPECT_EQ(sim.stop(), 0) << sim.log();
        }
    }
    e2e::SimProcess sim;
};

using IpctlDevice = IpctlTest;
using IpctlAddr = IpctlTest;
using IpctlNeigh = IpctlTest;
using IpctlRoute = IpctlTest;
using IpctlStats = IpctlTest;
using IpctlMonitor = IpctlTest;
using IpctlStatus = IpctlTest;
using IpctlOptions = IpctlTest;
using IpctlUsage = IpctlTest;

Json addr(int ifindex, const char* ifname, const char* local, int len, int vrf, bool secondary) {
    return {{"ifindex", ifindex}, {"ifname", ifname}, {"family", "inet"}, {"local", local}, {"prefixlen", len},
            {"vrf", vrf},         {"method", "manual"}, {"secondary", secondary}};
}

// ---- schemas -----------------------------------------------------------------------------

const std::vector<std::string> kSchemas = {"device",     "addr",     "neigh",      "route",   "route_save",
                                           "stats_ip",   "stats_icmp", "stats_if", "ttl",     "ecmp",
                                           "mtu",        "summary",  "status",     "event",   "link",
                                           "addr_brief", "link_brief", "neigh_brief"};

// Every object of a schema lists its properties with a type, names only those as required
// and allows no others.
void expect_closed_objects(const Json& s, const std::string& where) {
    ASSERT_TRUE(s.is_object()) << where;
    ASSERT_TRUE(s.contains("type")) << where << ": no type";
    if (s["type"] == "array") {
        ASSERT_TRUE(s.contains("items")) << where << ": an array without items";
        expect_closed_objects(s["items"], where + "[]");
    }
    if (s["type"] != "object") return;
    ASSERT_TRUE(s.contains("properties") && s["properties"].is_object() && !s["properties"].empty()) << where;
    ASSERT_TRUE(s.contains("required") && s["required"].is_array() && !s["required"].empty()) << where;
    EXPECT_EQ(member(s, "additionalProperties"), Json(false)) << where;
    for (const auto& name : s["required"]) EXPECT_TRUE(s["properties"].contains(name.get<std::string>())) << where << " " << name;
    for (const auto& [key, prop] : s["properties"].items()) expect_closed_objects(prop, where + "." + key);
}

TEST(IpctlSchemas, EverySchemaIsADraft2020ObjectWithClosedProperties) {
    for (const std::string& name : kSchemas) {
        SCOPED_TRACE(name);
        const Json s = ipctl_test::schema(name);
        ASSERT_TRUE(s.is_object()) << "docs/schema/ipctl/" << name << ".json does not load";
        EXPECT_EQ(member(s, "$schema"), Json("https://json-schema.org/draft/2020-12/schema"));
        EXPECT_TRUE(member(s, "description").is_string() && !member(s, "description").empty());
        expect_closed_objects(s, name);
    }
}

TEST(IpctlSchemas, CheckerFindsEveryKindOfMismatch) {
    const Json s = ipctl_test::schema("addr");
    const Json good = Json::array({addr(2, "GigabitEthernet1/0/1", "10.1.1.1", 24, 0, false)});
    EXPECT_TRUE(ipctl_test::schema_errors(good, s).empty());

    Json bad = good;
    bad[0]["ifindex"] = "2";  // a number given as a string
    EXPECT_EQ(ipctl_test::schema_errors(bad, s), std::vector<std::string>{"$[0].ifindex: string where the schema wants \"integer\""});
    bad = good;
    bad[0].erase("local");
    EXPECT_EQ(ipctl_test::schema_errors(bad, s), std::vector<std::string>{"$[0]: required \"local\" is missing"});
    bad = good;
    bad[0]["broadcast"] = "10.1.1.255";
    EXPECT_EQ(ipctl_test::schema_errors(bad, s), std::vector<std::string>{"$[0]: \"broadcast\" is not a property of the schema"});
    bad = good;
    bad[0]["family"] = "inet6";
    EXPECT_EQ(ipctl_test::schema_errors(bad, s), std::vector<std::string>{"$[0].family: \"inet6\" is not one of [\"inet\"]"});
    EXPECT_EQ(ipctl_test::schema_errors(good[0], s), std::vector<std::string>{"$: object where the schema wants \"array\""});
    // A list of types: the node of the IP counters is a number or "all".
    const Json ip = ipctl_test::schema("stats_ip");
    EXPECT_TRUE(ipctl_test::schema_errors(Json(2), ip["properties"]["node"]).empty());
    EXPECT_TRUE(ipctl_test::schema_errors(Json("all"), ip["properties"]["node"]).empty());
    EXPECT_FALSE(ipctl_test::schema_errors(Json(true), ip["properties"]["node"]).empty());
}

// ---- device ------------------------------------------------------------------------------

TEST_F(IpctlDevice, ShowListsTheTwoNodesOfTheChassis) {
    EXPECT_EQ(run_ok({"device", "show"}), text_of({
                                              "node 1  chassis 1  slot 0  cpu 0  master   up",
                                              "node 2  chassis 1  slot 1  cpu 0  standby  up",
                                          }));
    const Json j = run_json({"device", "show"});
    expect_records(j, {
                          {{"node", 1}, {"chassis", 1}, {"slot", 0}, {"cpu", 0}, {"role", "master"}, {"state", "up"}},
                          {{"node", 2}, {"chassis", 1}, {"slot", 1}, {"cpu", 0}, {"role", "standby"}, {"state", "up"}},
                      });
    expect_fits(j, "device");
}

// ---- addr --------------------------------------------------------------------------------

TEST_F(IpctlAddr, ShowListsTheScenarioAddresses) {
    EXPECT_EQ(run_ok({"addr", "show"}), text_of({
                                            "1:  M-GigabitEthernet0/0/0  inet 192.168.0.1/24  vrf 0  manual  primary",
                                            "2:  GigabitEthernet1/0/1    inet 10.1.1.1/24     vrf 0  manual  primary",
                                            "2:  GigabitEthernet1/0/1    inet 10.1.3.1/24     vrf 0  manual  secondary",
                                            "3:  GigabitEthernet1/0/2    inet 10.1.2.1/24     vrf 1  manual  primary",
                                            "4:  GigabitEthernet1/1/1    inet 10.2.1.1/24     vrf 0  manual  primary",
                                            "5:  Vlan-interface1         inet 192.168.1.1/24  vrf 0  manual  primary",
                                            "7:  LoopBack0               inet 1.1.1.1/32      vrf 0  manual  primary",
                                        }));
    const Json j = run_json({"addr", "show"});
    expect_records(j, {
                          addr(1, "M-GigabitEthernet0/0/0", "192.168.0.1", 24, 0, false),
                          addr(2, "GigabitEthernet1/0/1", "10.1.1.1", 24, 0, false),
                          addr(2, "GigabitEthernet1/0/1", "10.1.3.1", 24, 0, true),
                          addr(3, "GigabitEthernet1/0/2", "10.1.2.1", 24, 1, false),
                          addr(4, "GigabitEthernet1/1/1", "10.2.1.1", 24, 0, false),
                          addr(5, "Vlan-interface1", "192.168.1.1", 24, 0, false),
                          addr(7, "LoopBack0", "1.1.1.1", 32, 0, false),
                      });
    expect_fits(j, "addr");
}

TEST_F(IpctlAddr, ShowOfOneInterfaceKeepsItsAddresses) {
    EXPECT_EQ(run_ok({"addr", "show", "dev", "GigabitEthernet1/0/1"}),
              text_of({
                  "2:  GigabitEthernet1/0/1  inet 10.1.1.1/24  vrf 0  manual  primary",
                  "2:  GigabitEthernet1/0/1  inet 10.1.3.1/24  vrf 0  manual  secondary",
              }));
    // An interface may also be named by its index.
    const Json j = run_json({"addr", "show", "dev", "3"});
    expect_records(j, {addr(3, "GigabitEthernet1/0/2", "10.1.2.1", 24, 1, false)});
    expect_fits(j, "addr");
    // An interface without addresses: no line, an empty array.
    EXPECT_EQ(run_ok({"addr", "show", "dev", "Vlan-interface10"}), "");
    EXPECT_EQ(run_json({"addr", "show", "dev", "Vlan-interface10"}), Json::array());
}

TEST_F(IpctlAddr, SummaryPrintsTheDeviceText) {
    const std::string text =
        "\r\nVlan1:\r\n"
        "IP Method:                      Manual\r\n"
        "IP address:                     192.168.1.1\r\n"
        "Subnet mask:                    255.255.255.0\r\n"
        "Default gateway:                192.168.0.254\r\n"
        "\r\nMGE0/0/0:\r\n"
        "IP Method:                      Manual\r\n"
        "IP address:                     192.168.0.1\r\n"
        "Subnet mask:                    255.255.255.0\r\n"
        "Default gateway:                192.168.0.254\r\n";
    EXPECT_EQ(run_ok({"addr", "summary"}), text);
    const Json j = run_json({"addr", "summary"});
    expect_record(j, {{"summary", text}});
    expect_fits(j, "summary");
}

TEST_F(IpctlAddr, AddThenDeleteOnAnInterfaceWithoutAddresses) {
    EXPECT_EQ(run_ok({"addr", "add", "10.6.6.1/24", "dev", "Vlan-interface10"}), "");
    EXPECT_EQ(run_ok({"addr", "show", "dev", "Vlan-interface10"}),
              "6:  Vlan-interface10  inet 10.6.6.1/24  vrf 0  manual  primary\n");
    const Json j = run_json({"addr", "show", "dev", "Vlan-interface10"});
    expect_records(j, {addr(6, "Vlan-interface10", "10.6.6.1", 24, 0, false)});
    expect_fits(j, "addr");

    EXPECT_EQ(run_ok({"addr", "del", "10.6.6.1/24", "dev", "Vlan-interface10"}), "");
    EXPECT_EQ(run_ok({"addr", "show", "dev", "Vlan-interface10"}), "");
    EXPECT_EQ(run_json({"addr", "show", "dev", "Vlan-interface10"}), Json::array());
}

TEST_F(IpctlAddr, SecondaryAddressJoinsThePrimary) {
    EXPECT_EQ(run_ok({"addr", "add", "10.9.9.1/28", "dev", "GigabitEthernet1/0/1", "secondary"}), "");
    EXPECT_EQ(run_ok({"addr", "show", "dev", "GigabitEthernet1/0/1"}),
              text_of({
                  "2:  GigabitEthernet1/0/1  inet 10.1.1.1/24  vrf 0  manual  primary",
                  "2:  GigabitEthernet1/0/1  inet 10.1.3.1/24  vrf 0  manual  secondary",
                  "2:  GigabitEthernet1/0/1  inet 10.9.9.1/28  vrf 0  manual  secondary",
              }));
    const Json j = run_json({"addr", "show", "dev", "GigabitEthernet1/0/1"});
    ASSERT_EQ(j.size(), 3u) << j.dump();
    expect_record(j[2], addr(2, "GigabitEthernet1/0/1", "10.9.9.1", 28, 0, true));

    EXPECT_EQ(run_ok({"addr", "del", "10.9.9.1/28", "dev", "GigabitEthernet1/0/1", "secondary"}), "");
    EXPECT_EQ(run_ok({"addr", "show", "dev", "GigabitEthernet1/0/1"}),
              text_of({
                  "2:  GigabitEthernet1/0/1  inet 10.1.1.1/24  vrf 0  manual  primary",
                  "2:  GigabitEthernet1/0/1  inet 10.1.3.1/24  vrf 0  manual  secondary",
              }));
}

TEST_F(IpctlAddr, ConflictingAddIsRefused) {
    // 10.1.1.0/24 is GigabitEthernet1/0/1's, in the same VRF.
    const Result r = ipctl({"addr", "add", "10.1.1.1/24", "dev", "Vlan-interface10"});
    EXPECT_EQ(r.code, 1) << describe(r);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "ipctl: adding 10.1.1.1/24 on Vlan-interface10: IPSTATUS_ADDR_CONFLICT (0x43160041)\n");
    EXPECT_EQ(run_ok({"addr", "show", "dev", "Vlan-interface10"}), "");
}

TEST_F(IpctlAddr, DeletingAnAddressTheInterfaceLacksIsRefused) {
    const Result r = ipctl({"addr", "del", "10.77.1.1/24", "dev", "GigabitEthernet1/0/1"});
    EXPECT_EQ(r.code, 1) << describe(r);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "ipctl: no address 10.77.1.1/24 on GigabitEthernet1/0/1\n");
    // The address with another length is not that address either; given by index, the
    // interface is named.
    const Result other = ipctl({"addr", "del", "10.1.1.1/16", "dev", "2"});
    EXPECT_EQ(other.code, 1) << describe(other);
    EXPECT_EQ(other.err, "ipctl: no address 10.1.1.1/16 on GigabitEthernet1/0/1\n");
    EXPECT_NE(run_ok({"addr", "show", "dev", "2"}).find("10.1.1.1/24"), std::string::npos);
}

// ---- neigh -------------------------------------------------------------------------------

Json neigh(const char* dst, const char* family, int ifindex, const char* dev, const char* mac, const char* state,
           const char* kind, int vlan, int vrf) {
    return {{"dst", dst},     {"family", family}, {"ifindex", ifindex}, {"dev", dev}, {"lladdr", mac},
            {"state", state}, {"kind", kind},     {"vlan", vlan},       {"vrf", vrf}};
}

const std::vector<std::string> kArpLines = {
    "10.1.1.2      dev GigabitEthernet1/0/1  lladdr 00:11:22:33:44:55  reachable  dynamic  vlan 0  vrf 0",
    "10.2.1.2      dev GigabitEthernet1/1/1  lladdr 00:11:22:33:66:02  stale      dynamic  vlan 0  vrf 0",
    "10.2.1.3      dev GigabitEthernet1/1/1  lladdr 00:11:22:33:66:03  stale      dynamic  vlan 0  vrf 0",
    "10.2.1.4      dev GigabitEthernet1/1/1  lladdr 00:11:22:33:66:04  stale      dynamic  vlan 0  vrf 0",
    "192.168.1.10  dev Vlan-interface1       lladdr 00:11:22:33:66:10  reachable  static   vlan 1  vrf 0",
};

TEST_F(IpctlNeigh, ShowListsTheArpTableThenTheNdTable) {
    EXPECT_EQ(run_ok({"neigh", "show"}),
              text_of({
                  "10.1.1.2        dev GigabitEthernet1/0/1  lladdr 00:11:22:33:44:55  reachable  dynamic  vlan 0  vrf 0",
                  "10.2.1.2        dev GigabitEthernet1/1/1  lladdr 00:11:22:33:66:02  stale      dynamic  vlan 0  vrf 0",
                  "10.2.1.3        dev GigabitEthernet1/1/1  lladdr 00:11:22:33:66:03  stale      dynamic  vlan 0  vrf 0",
                  "10.2.1.4        dev GigabitEthernet1/1/1  lladdr 00:11:22:33:66:04  stale      dynamic  vlan 0  vrf 0",
                  "192.168.1.10    dev Vlan-interface1       lladdr 00:11:22:33:66:10  reachable  static   vlan 1  vrf 0",
                  "2001:db8:1::2   dev GigabitEthernet1/0/1  lladdr 00:11:22:33:44:66  reachable  dynamic  vlan 0  vrf 0",
                  "fe80::2         dev GigabitEthernet1/0/1  lladdr 00:11:22:33:44:55  stale      dynamic  vlan 0  vrf 0",
                  "fe80::4         dev GigabitEthernet1/1/1  lladdr 00:11:22:33:44:88  reachable  dynamic  vlan 0  vrf 0",
                  "2001:db8:5::2   dev Vlan-interface1       lladdr 00:11:22:33:55:02  reachable  dynamic  vlan 0  vrf 0",
                  "2001:db8:5::3   dev Vlan-interface1       lladdr 00:11:22:33:55:03  reachable  static   vlan 0  vrf 0",
                  "2001:db8:10::2  dev Vlan-interface10      lladdr 00:11:22:33:55:10  stale      dynamic  vlan 0  vrf 0",
              }));
    EXPECT_EQ(run_ok({"neigh", "show", "-4"}), text_of(kArpLines));

    const Json j = run_json({"neigh", "show"});
    expect_records(j, {
                          neigh("10.1.1.2", "inet", 2, "GigabitEthernet1/0/1", "00:11:22:33:44:55", "reachable", "dynamic", 0, 0),
                          neigh("10.2.1.2", "inet", 4, "GigabitEthernet1/1/1", "00:11:22:33:66:02", "stale", "dynamic", 0, 0),
                          neigh("10.2.1.3", "inet", 4, "GigabitEthernet1/1/1", "00:11:22:33:66:03", "stale", "dynamic", 0, 0),
                          neigh("10.2.1.4", "inet", 4, "GigabitEthernet1/1/1", "00:11:22:33:66:04", "stale", "dynamic", 0, 0),
                          neigh("192.168.1.10", "inet", 5, "Vlan-interface1", "00:11:22:33:66:10", "reachable", "static", 1, 0),
                          neigh("2001:db8:1::2", "inet6", 2, "GigabitEthernet1/0/1", "00:11:22:33:44:66", "reachable", "dynamic", 0, 0),
                          neigh("fe80::2", "inet6", 2, "GigabitEthernet1/0/1", "00:11:22:33:44:55", "stale", "dynamic", 0, 0),
                          neigh("fe80::4", "inet6", 4, "GigabitEthernet1/1/1", "00:11:22:33:44:88", "reachable", "dynamic", 0, 0),
                          neigh("2001:db8:5::2", "inet6", 5, "Vlan-interface1", "00:11:22:33:55:02", "reachable", "dynamic", 0, 0),
                          neigh("2001:db8:5::3", "inet6", 5, "Vlan-interface1", "00:11:22:33:55:03", "reachable", "static", 0, 0),
                          neigh("2001:db8:10::2", "inet6", 6, "Vlan-interface10", "00:11:22:33:55:10", "stale", "dynamic", 0, 0),
                      });
    expect_fits(j, "neigh");
}

TEST_F(IpctlNeigh, ShowOfOneFamilyOnOneInterface) {
    EXPECT_EQ(run_ok({"neigh", "show", "-6", "dev", "Vlan-interface1"}),
              text_of({
                  "2001:db8:5::2  dev Vlan-interface1  lladdr 00:11:22:33:55:02  reachable  dynamic  vlan 0  vrf 0",
                  "2001:db8:5::3  dev Vlan-interface1  lladdr 00:11:22:33:55:03  reachable  static   vlan 0  vrf 0",
              }));
    EXPECT_EQ(run_ok({"neigh", "show", "-4", "dev", "GigabitEthernet1/0/1"}),
              "10.1.1.2  dev GigabitEthernet1/0/1  lladdr 00:11:22:33:44:55  reachable  dynamic  vlan 0  vrf 0\n");
    const Json j = run_json({"neigh", "show", "-4", "dev", "GigabitEthernet1/1/1"});
    expect_records(j, {
                          neigh("10.2.1.2", "inet", 4, "GigabitEthernet1/1/1", "00:11:22:33:66:02", "stale", "dynamic", 0, 0),
                          neigh("10.2.1.3", "inet", 4, "GigabitEthernet1/1/1", "00:11:22:33:66:03", "stale", "dynamic", 0, 0),
                          neigh("10.2.1.4", "inet", 4, "GigabitEthernet1/1/1", "00:11:22:33:66:04", "stale", "dynamic", 0, 0),
                      });
    expect_fits(j, "neigh");
}

TEST_F(IpctlNeigh, EntriesInAVpnAndAVlanShowTheirNumbers) {
    // Wide VLAN ids and a VRF other than 0 on both tables.
    control_ok({{"op", "neigh.add"}, {"interface", "GigabitEthernet1/0/2"}, {"address", "10.1.2.7"},
                {"mac", "02:00:00:00:01:07"}, {"vlan", 300}});
    control_ok({{"op", "neigh.add"}, {"interface", "GigabitEthernet1/0/2"}, {"address", "2001:db8:2::7"},
                {"mac", "02:00:00:00:02:07"}, {"vlan", 1027}, {"state", "stale"}});
    EXPECT_EQ(run_ok({"neigh", "show", "dev", "GigabitEthernet1/0/2"}),
              text_of({
                  "10.1.2.7       dev GigabitEthernet1/0/2  lladdr 02:00:00:00:01:07  reachable  dynamic  vlan 300   vrf 1",
                  "2001:db8:2::7  dev GigabitEthernet1/0/2  lladdr 02:00:00:00:02:07  stale      dynamic  vlan 1027  vrf 1",
              }));
    const Json j = run_json({"neigh", "show", "dev", "GigabitEthernet1/0/2"});
    expect_records(j, {
                          neigh("10.1.2.7", "inet", 3, "GigabitEthernet1/0/2", "02:00:00:00:01:07", "reachable", "dynamic", 300, 1),
                          neigh("2001:db8:2::7", "inet6", 3, "GigabitEthernet1/0/2", "02:00:00:00:02:07", "stale", "dynamic", 1027, 1),
                      });
    expect_fits(j, "neigh");
}

TEST_F(IpctlNeigh, ResolveAScenarioHostMakesItReachable) {
    EXPECT_EQ(run_ok({"neigh", "resolve", "10.1.1.3", "dev", "GigabitEthernet1/0/1"}),
              "10.1.1.3  dev GigabitEthernet1/0/1  lladdr 00:11:22:33:66:03  reachable  dynamic  vlan 0  vrf 0\n");
    Json j = run_json({"neigh", "resolve", "2001:db8:1::3", "dev", "GigabitEthernet1/0/1"});
    expect_records(j, {neigh("2001:db8:1::3", "inet6", 2, "GigabitEthernet1/0/1", "00:11:22:33:44:77", "reachable",
                             "dynamic", 0, 0)});
    expect_fits(j, "neigh");
    // The table now holds the resolved host.
    j = run_json({"neigh", "show", "-4", "dev", "GigabitEthernet1/0/1"});
    expect_records(j, {
                          neigh("10.1.1.2", "inet", 2, "GigabitEthernet1/0/1", "00:11:22:33:44:55", "reachable", "dynamic", 0, 0),
                          neigh("10.1.1.3", "inet", 2, "GigabitEthernet1/0/1", "00:11:22:33:66:03", "reachable", "dynamic", 0, 0),
                      });
}

// Nobody answers for 10.1.1.98 or 10.1.1.99: each entry is incomplete while the device
// asks, then leaves the table; resolve follows it and says it failed. Text and JSON run side
// by side, each on an address of its own (a second request for the same address would ask
// again, and the entry would stay longer).
TEST_F(IpctlNeigh, ResolveOfASilentAddressFails) {
    ipctl_test::Proc text({IPCTL_PATH, "neigh", "resolve", "10.1.1.99", "dev", "GigabitEthernet1/0/1"});
    ipctl_test::Proc json({IPCTL_PATH, "-j", "neigh", "resolve", "10.1.1.98", "dev", "GigabitEthernet1/0/1"});
    ASSERT_TRUE(text.started() && json.started());
    EXPECT_EQ(text.wait(8s), 0);
    EXPECT_EQ(json.wait(8s), 0);
    EXPECT_EQ(text.rest_of_out(), "10.1.1.99  dev GigabitEthernet1/0/1  failed\n");
    const std::string out = json.rest_of_out();
    const Json j = Json::parse(out, nullptr, false);
    expect_records(j, {{{"dst", "10.1.1.98"}, {"dev", "GigabitEthernet1/0/1"}, {"state", "failed"}}});
    expect_fits(j, "neigh");
    // Neither is in the table.
    EXPECT_EQ(run_ok({"neigh", "show", "-4", "dev", "GigabitEthernet1/0/1"}),
              "10.1.1.2  dev GigabitEthernet1/0/1  lladdr 00:11:22:33:44:55  reachable  dynamic  vlan 0  vrf 0\n");
}

TEST_F(IpctlNeigh, ProgressIsDrawnOnATerminalOnly) {
    const Result tty = ipctl_test::ipctl_on_terminal({"neigh", "show"});
    EXPECT_EQ(tty.code, 0) << describe(tty);
    // The ARP walk knows the table's size (a bar), the ND walk only its count.
    EXPECT_NE(tty.err.find("[########################] 5/5 entries"), std::string::npos) << tty.err;
    EXPECT_NE(tty.err.find("\r6 entries  "), std::string::npos) << tty.err;
    EXPECT_EQ(lines(tty.out).size(), 11u) << tty.out;

    const Result pipe = ipctl({"neigh", "show"});
    EXPECT_EQ(pipe.code, 0) << describe(pipe);
    EXPECT_EQ(pipe.err, "");
    EXPECT_EQ(pipe.out, tty.out);
}

// ---- route -------------------------------------------------------------------------------

const std::vector<std::string> kFibFile = {
    "[FIB Info]",
    "{1, 0, 0}, {public, 0.0.0.0/0} -> {192.168.0.254, M-GigabitEthernet0/0/0, Null}, {00-00-00-00-00-00, 00-e0-fc-00-00-01, 0/0, M-GigabitEthernet0/0/0}",
    "{1, 0, 0}, {public, 10.1.1.0/24} -> {0.0.0.0, GigabitEthernet1/0/1, Null}, {00-00-00-00-00-00, 00-e0-fc-00-00-02, 0/0, GigabitEthernet1/0/1}",
    "{1, 0, 0}, {public, 10.8.0.0/16} -> {10.1.1.2, GigabitEthernet1/0/1, Null}, {00-11-22-33-44-55, 00-e0-fc-00-00-02, 0/0, GigabitEthernet1/0/1}",
    "{1, 0, 0}, {vpn-a, 10.1.2.0/24} -> {0.0.0.0, GigabitEthernet1/0/2, Null}, {00-00-00-00-00-00, 00-e0-fc-00-00-03, 0/0, GigabitEthernet1/0/2}",
    "{1, 1, 0}, {public, 0.0.0.0/0} -> {192.168.0.254, M-GigabitEthernet0/0/0, Null}, {00-00-00-00-00-00, 00-e0-fc-00-00-01, 0/0, M-GigabitEthernet0/0/0}",
    "{1, 1, 0}, {public, 10.1.1.0/24} -> {0.0.0.0, GigabitEthernet1/0/1, Null}, {00-00-00-00-00-00, 00-e0-fc-00-00-02, 0/0, GigabitEthernet1/0/1}",
    "{1, 1, 0}, {public, 10.2.1.0/24} -> {0.0.0.0, GigabitEthernet1/1/1, Null}, {00-00-00-00-00-00, 00-e0-fc-00-00-04, 0/0, GigabitEthernet1/1/1}",
    "{1, 1, 0}, {public, 10.8.0.0/16} -> {10.1.1.2, GigabitEthernet1/0/1, Null}, {00-11-22-33-44-55, 00-e0-fc-00-00-02, 0/0, GigabitEthernet1/0/1}",
    "{1, 1, 0}, {vpn-a, 10.1.2.0/24} -> {0.0.0.0, GigabitEthernet1/0/2, Null}, {00-00-00-00-00-00, 00-e0-fc-00-00-03, 0/0, GigabitEthernet1/0/2}",
};

// A route of the forwarding table file as show prints it: the route's own keys (a direct
// route, gw nullptr, has no gateway), then the file's extras.
Json route(const char* dst, const char* vrf, const char* gw, const char* dev, int slot, const char* gw_mac,
           const char* dev_mac) {
    Json r = {{"type", "unicast"}, {"dst", dst}, {"family", "inet"}, {"vrf", vrf}};
    if (gw != nullptr) r["gateway"] = gw;
    r["dev"] = dev;
    const Json extras = {{"chassis", 1},     {"slot", slot},          {"cpu", 0},           {"tunnel", dev},
                         {"label", "Null"}, {"gateway_mac", gw_mac}, {"dev_mac", dev_mac}, {"vlan", 0},
                         {"port", 0}};
    r.update(extras);
    return r;
}

// A column that one route lacks (a direct route has no "via") stays a column: the route
// leaves its cell empty, and the cells after it stay aligned with the other routes'.
TEST_F(IpctlRoute, ShowListsTheRoutesOfBothNodes) {
    const std::vector<std::string> golden = {
        "0.0.0.0/0    vrf public  via 192.168.0.254  dev M-GigabitEthernet0/0/0  node 1/0/0  tunnel M-GigabitEthernet0/0/0  label Null",
        "10.1.1.0/24  vrf public                     dev GigabitEthernet1/0/1    node 1/0/0  tunnel GigabitEthernet1/0/1    label Null",
        "10.8.0.0/16  vrf public  via 10.1.1.2       dev GigabitEthernet1/0/1    node 1/0/0  tunnel GigabitEthernet1/0/1    label Null",
        "10.1.2.0/24  vrf vpn-a                      dev GigabitEthernet1/0/2    node 1/0/0  tunnel GigabitEthernet1/0/2    label Null",
        "0.0.0.0/0    vrf public  via 192.168.0.254  dev M-GigabitEthernet0/0/0  node 1/1/0  tunnel M-GigabitEthernet0/0/0  label Null",
        "10.1.1.0/24  vrf public                     dev GigabitEthernet1/0/1    node 1/1/0  tunnel GigabitEthernet1/0/1    label Null",
        "10.2.1.0/24  vrf public                     dev GigabitEthernet1/1/1    node 1/1/0  tunnel GigabitEthernet1/1/1    label Null",
        "10.8.0.0/16  vrf public  via 10.1.1.2       dev GigabitEthernet1/0/1    node 1/1/0  tunnel GigabitEthernet1/0/1    label Null",
        "10.1.2.0/24  vrf vpn-a                      dev GigabitEthernet1/0/2    node 1/1/0  tunnel GigabitEthernet1/0/2    label Null",
    };
    EXPECT_EQ(run_ok({"route", "show"}), text_of(golden));
    EXPECT_EQ(run_ok({"route", "show", "-4"}), text_of(golden));

    const Json j = run_json({"route", "show", "-4"});
    const char* zero = "00-00-00-00-00-00";
    expect_records(j, {
                          route("0.0.0.0/0", "public", "192.168.0.254", "M-GigabitEthernet0/0/0", 0, zero, "00-e0-fc-00-00-01"),
                          route("10.1.1.0/24", "public", nullptr, "GigabitEthernet1/0/1", 0, zero, "00-e0-fc-00-00-02"),
                          route("10.8.0.0/16", "public", "10.1.1.2", "GigabitEthernet1/0/1", 0, "00-11-22-33-44-55", "00-e0-fc-00-00-02"),
                          route("10.1.2.0/24", "vpn-a", nullptr, "GigabitEthernet1/0/2", 0, zero, "00-e0-fc-00-00-03"),
                          route("0.0.0.0/0", "public", "192.168.0.254", "M-GigabitEthernet0/0/0", 1, zero, "00-e0-fc-00-00-01"),
                          route("10.1.1.0/24", "public", nullptr, "GigabitEthernet1/0/1", 1, zero, "00-e0-fc-00-00-02"),
                          route("10.2.1.0/24", "public", nullptr, "GigabitEthernet1/1/1", 1, zero, "00-e0-fc-00-00-04"),
                          route("10.8.0.0/16", "public", "10.1.1.2", "GigabitEthernet1/0/1", 1, "00-11-22-33-44-55", "00-e0-fc-00-00-02"),
                          route("10.1.2.0/24", "vpn-a", nullptr, "GigabitEthernet1/0/2", 1, zero, "00-e0-fc-00-00-03"),
                      });
    expect_fits(j, "route");
}

TEST_F(IpctlRoute, ShowNarrowsToAVpnOrAPrefix) {
    // No route of vpn-a has a gateway: no "via" column at all.
    EXPECT_EQ(run_ok({"route", "show", "vrf", "vpn-a"}),
              text_of({
                  "10.1.2.0/24  vrf vpn-a  dev GigabitEthernet1/0/2  node 1/0/0  tunnel GigabitEthernet1/0/2  label Null",
                  "10.1.2.0/24  vrf vpn-a  dev GigabitEthernet1/0/2  node 1/1/0  tunnel GigabitEthernet1/0/2  label Null",
              }));
    // Host bits of the prefix given are cleared.
    EXPECT_EQ(run_ok({"route", "show", "10.8.77.1/16"}),
              text_of({
                  "10.8.0.0/16  vrf public  via 10.1.1.2  dev GigabitEthernet1/0/1  node 1/0/0  tunnel GigabitEthernet1/0/1  label Null",
                  "10.8.0.0/16  vrf public  via 10.1.1.2  dev GigabitEthernet1/0/1  node 1/1/0  tunnel GigabitEthernet1/0/1  label Null",
              }));
    const Json j = run_json({"route", "show", "vrf", "public", "10.2.1.0/24"});
    expect_records(j, {route("10.2.1.0/24", "public", nullptr, "GigabitEthernet1/1/1", 1, "00-00-00-00-00-00",
                             "00-e0-fc-00-00-04")});
    expect_fits(j, "route");
    EXPECT_EQ(run_ok({"route", "show", "vrf", "vpn-b"}), "");
}

// A route found by a search as get and show -6 print it: the route's own keys, then the
// search's extras. A VRF other than the public one is its index (the search tells no name).
Json entry(const char* dst, const char* family, const char* vrf, const char* gw, int ifindex, const char* dev, int node,
           const char* type = "unicast") {
    Json r = {{"type", type}, {"dst", dst}, {"family", family}, {"vrf", vrf}};
    if (gw != nullptr) r["gateway"] = gw;
    if (dev != nullptr) r["dev"] = dev;
    const Json extras = {{"ifindex", ifindex}, {"node", node}, {"active", true}};
    r.update(extras);
    return r;
}

TEST_F(IpctlRoute, ShowSixFindsTheEntriesOfAPrefix) {
    EXPECT_EQ(run_ok({"route", "show", "-6", "2001:db8:1::/64"}),
              "2001:db8:1::/64  vrf public  dev GigabitEthernet1/0/1  node 1  active\n");
    const Json j = run_json({"route", "show", "-6", "2001:db8:1::/64"});
    expect_records(j, {entry("2001:db8:1::/64", "inet6", "public", nullptr, 2, "GigabitEthernet1/0/1", 1)});
    expect_fits(j, "route");
    EXPECT_EQ(run_json({"route", "show", "-6", "2001:db8:9::/64"}), Json::array());
}

TEST_F(IpctlRoute, GetFindsTheLongestPrefixThatHoldsTheAddress) {
    EXPECT_EQ(run_ok({"route", "get", "10.8.3.4"}),
              "10.8.0.0/16  vrf public  via 10.1.1.2  dev GigabitEthernet1/0/1  node 1  active\n");
    EXPECT_EQ(run_ok({"route", "get", "10.1.1.77"}), "10.1.1.0/24  vrf public  dev GigabitEthernet1/0/1  node 1  active\n");
    EXPECT_EQ(run_ok({"route", "get", "8.8.8.8"}),
              "0.0.0.0/0  vrf public  via 192.168.0.254  dev M-GigabitEthernet0/0/0  node 1  active\n");
    EXPECT_EQ(run_ok({"route", "get", "2001:db8:1::5"}),
              "2001:db8:1::/64  vrf public  dev GigabitEthernet1/0/1  node 1  active\n");

    Json j = run_json({"route", "get", "8.8.8.8"});
    expect_records(j, {entry("0.0.0.0/0", "inet", "public", "192.168.0.254", 1, "M-GigabitEthernet0/0/0", 1)});
    expect_fits(j, "route");
    j = run_json({"route", "get", "10.1.1.77"});
    expect_records(j, {entry("10.1.1.0/24", "inet", "public", nullptr, 2, "GigabitEthernet1/0/1", 1)});
    expect_fits(j, "route");
    j = run_json({"route", "get", "2001:db8:1::5"});
    expect_records(j, {entry("2001:db8:1::/64", "inet6", "public", nullptr, 2, "GigabitEthernet1/0/1", 1)});
    expect_fits(j, "route");

    // One VRF, the public one unless another is named: 10.1.2.0/24 is vpn-a's (VRF 1).
    EXPECT_EQ(run_ok({"route", "get", "10.1.2.5"}),
              "0.0.0.0/0  vrf public  via 192.168.0.254  dev M-GigabitEthernet0/0/0  node 1  active\n");
    EXPECT_EQ(run_ok({"route", "get", "10.1.2.5", "vrf", "1"}), "10.1.2.0/24  vrf 1  dev GigabitEthernet1/0/2  node 1  active\n");
    j = run_json({"route", "get", "10.1.2.5", "vrf", "1"});
    expect_records(j, {entry("10.1.2.0/24", "inet", "1", nullptr, 3, "GigabitEthernet1/0/2", 1)});
    expect_fits(j, "route");
    EXPECT_EQ(run_ok({"route", "get", "10.1.2.5", "vrf", "public"}), run_ok({"route", "get", "10.1.2.5"}));
    const Result none = ipctl({"route", "get", "8.8.8.8", "vrf", "1"});
    EXPECT_EQ(none.code, 1) << describe(none);
    EXPECT_EQ(none.err, "ipctl: no route to 8.8.8.8 in VRF 1\n");
    expect_usage({"route", "get", "8.8.8.8", "vrf", "blue"},
                 "\"vrf\" takes a VRF index from 0 to 65535 or public, got \"blue\"", "route get ADDR [vrf N]");

    // No IPv6 default route: nothing holds this address.
    const Result r = ipctl({"route", "get", "2001:db8:99::1"});
    EXPECT_EQ(r.code, 1) << describe(r);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "ipctl: no route to 2001:db8:99::1\n");
}

TEST_F(IpctlRoute, SaveWritesTheForwardingTableFile) {
    const std::string dir = temp_dir();
    const std::string path = dir + "/fib.txt";
    const std::string out = run_ok({"route", "save", path});
    const std::string file = read_file(path);
    ASSERT_EQ(file.rfind("[FIB Info]\r\n", 0), 0u) << file;
    std::string golden;
    for (const auto& l : kFibFile) golden += l + "\r\n";
    EXPECT_EQ(file, golden);
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 1306);
    EXPECT_EQ(out, object_text({{"file", path}, {"routes", "9"}, {"bytes", "1306"}}));
    EXPECT_EQ(out, "file    " + path + "\nroutes  9\nbytes   1306\n");

    const std::string again = dir + "/fib2.txt";
    const Json j = run_json({"route", "save", again});
    expect_record(j, {{"file", again}, {"routes", 9}, {"bytes", 1306}});
    expect_fits(j, "route_save");
    EXPECT_EQ(read_file(again), golden);
    ::unlink(path.c_str());
    ::unlink(again.c_str());
    ::rmdir(dir.c_str());
}

TEST_F(IpctlRoute, SaveDrawsProgressOnATerminalOnly) {
    const std::string dir = temp_dir();
    const std::string on_tty = dir + "/tty.txt";
    const Result tty = ipctl_test::ipctl_on_terminal({"route", "save", on_tty});
    EXPECT_EQ(tty.code, 0) << describe(tty);
    // The count of routes written, redrawn in place, and the line ended at the end.
    EXPECT_EQ(tty.err.rfind("\r0 routes  ", 0), 0u) << tty.err;
    EXPECT_NE(tty.err.find("\r9 routes  "), std::string::npos) << tty.err;
    ASSERT_GE(tty.err.size(), 2u);
    EXPECT_EQ(tty.err.substr(tty.err.size() - 2), "\r\n") << tty.err;  // the terminal's line end
    EXPECT_EQ(tty.out, "file    " + on_tty + "\nroutes  9\nbytes   1306\n");

    const std::string on_pipe = dir + "/pipe.txt";
    const Result pipe = ipctl({"route", "save", on_pipe});
    EXPECT_EQ(pipe.code, 0) << describe(pipe);
    EXPECT_EQ(pipe.err, "");
    EXPECT_EQ(pipe.out, "file    " + on_pipe + "\nroutes  9\nbytes   1306\n");
    EXPECT_EQ(read_file(on_tty), read_file(on_pipe));
    EXPECT_EQ(read_file(on_tty).rfind("[FIB Info]\r\n", 0), 0u);
    ::unlink(on_tty.c_str());
    ::unlink(on_pipe.c_str());
    ::rmdir(dir.c_str());
}

TEST_F(IpctlRoute, SaveIntoAMissingDirectoryFails) {
    const Result r = ipctl({"route", "save", "/nonexistent-ipctl-dir/fib.txt"});
    EXPECT_EQ(r.code, 1) << describe(r);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err,
              "ipctl: saving the forwarding table to /nonexistent-ipctl-dir/fib.txt: IPSTATUS_DUMP_FAILED (0x4001000b)\n");
}

// ---- stats -------------------------------------------------------------------------------

TEST_F(IpctlStats, ShowSumsTheIpCountersOfTheRunningNodes) {
    control_ok({{"op", "ipstat.traffic"}, {"node", 1}, {"ip", named(kIpNames, ip_node1)}});
    control_ok({{"op", "ipstat.traffic"}, {"node", 2}, {"ip", named(kIpNames, ip_node2)}});

    std::vector<std::pair<std::string, std::string>> sum{{"node", "all"}};
    Json expected{{"node", "all"}};
    for (std::size_t i = 0; i < kIpNames.size(); ++i) {
        sum.emplace_back(kIpNames[i], std::to_string(ip_node1(i) + ip_node2(i)));
        expected[kIpNames[i]] = ip_node1(i) + ip_node2(i);
    }
    EXPECT_EQ(run_ok({"stats", "show"}), object_text(sum));
    EXPECT_EQ(run_ok({"stats", "show", "ip"}), object_text(sum));
    ASSERT_EQ(lines(object_text(sum))[1], "in_received        66543");  // 1007 + 65536
    Json j = run_json({"stats", "show", "ip"});
    expect_record(j, expected);
    expect_fits(j, "stats_ip");

    // -n: the counters of that node alone.
    std::vector<std::pair<std::string, std::string>> node2{{"node", "2"}};
    expected = {{"node", 2}};
    for (std::size_t i = 0; i < kIpNames.size(); ++i) {
        node2.emplace_back(kIpNames[i], std::to_string(ip_node2(i)));
        expected[kIpNames[i]] = ip_node2(i);
    }
    EXPECT_EQ(run_ok({"-n", "2", "stats", "show"}), object_text(node2));
    j = run_json({"-n", "2", "stats", "show"});
    expect_record(j, expected);
    expect_fits(j, "stats_ip");
}

TEST_F(IpctlStats, IcmpCountersOfAnInterfaceAndOfTheDevice) {
    control_ok({{"op", "ipstat.traffic"}, {"interface", "GigabitEthernet1/0/1"}, {"icmp", named(kIcmpNames, icmp_ge1)}});
    control_ok({{"op", "ipstat.traffic"}, {"interface", "GigabitEthernet1/1/1"},
                {"icmp", named(kIcmpNames, icmp_ge_node2)}});

    std::vector<std::pair<std::string, std::string>> one{{"dev", "GigabitEthernet1/0/1"}};
    std::vector<std::pair<std::string, std::string>> all{{"dev", "all"}};
    Json expected_one{{"ifname", "GigabitEthernet1/0/1"}}, expected_all{{"ifname", "all"}};
    for (std::size_t i = 0; i < kIcmpNames.size(); ++i) {
        one.emplace_back(kIcmpNames[i], std::to_string(icmp_ge1(i)));
        all.emplace_back(kIcmpNames[i], std::to_string(icmp_ge1(i) + icmp_ge_node2(i)));
        expected_one[kIcmpNames[i]] = icmp_ge1(i);
        expected_all[kIcmpNames[i]] = icmp_ge1(i) + icmp_ge_node2(i);
    }
    EXPECT_EQ(run_ok({"stats", "show", "icmp", "dev", "GigabitEthernet1/0/1"}), object_text(one));
    EXPECT_EQ(run_ok({"stats", "show", "icmp"}), object_text(all));
    Json j = run_json({"stats", "show", "icmp", "dev", "GigabitEthernet1/0/1"});
    expect_record(j, expected_one);
    expect_fits(j, "stats_icmp");
    j = run_json({"stats", "show", "icmp"});
    expect_record(j, expected_all);
    expect_fits(j, "stats_icmp");
}

TEST_F(IpctlStats, InterfaceCountersAreSixtyFourBitsWide) {
    control_ok({{"op", "ipstat.traffic"}, {"node", 1}, {"interface", "GigabitEthernet1/0/1"},
                {"mib", named(kMibNames, mib_ge1)}, {"fw", named(kFwNames, fw_ge1)}});

    std::vector<std::pair<std::string, std::string>> text{{"dev", "GigabitEthernet1/0/1"}};
    Json mib = Json::object(), fw = Json::object();
    for (std::size_t i = 0; i < kMibNames.size(); ++i) {
        text.emplace_back("mib." + kMibNames[i], std::to_string(mib_ge1(i)));
        mib[kMibNames[i]] = mib_ge1(i);
    }
    for (std::size_t i = 0; i < kFwNames.size(); ++i) {
        text.emplace_back("forwarding." + kFwNames[i], std::to_string(fw_ge1(i)));
        fw[kFwNames[i]] = fw_ge1(i);
    }
    const std::string out = run_ok({"stats", "show", "if", "GigabitEthernet1/0/1"});
    EXPECT_EQ(out, object_text(text));
    ASSERT_GE(lines(out).size(), 2u);
    EXPECT_EQ(lines(out)[1], "mib.in_receives               4294967296");
    const Json j = run_json({"stats", "show", "if", "GigabitEthernet1/0/1"});
    expect_record(j, {{"ifname", "GigabitEthernet1/0/1"}, {"ifindex", 2}, {"mib", mib}, {"forwarding", fw}});
    expect_fits(j, "stats_if");
}

TEST_F(IpctlStats, TtlEcmpAndMtuOfTheScenario) {
    EXPECT_EQ(run_ok({"stats", "ttl"}), "ttl  255\n");
    EXPECT_EQ(run_ok({"stats", "ecmp"}), text_of({
                                             "node             1",
                                             "max_paths        8",
                                             "supported_paths  64",
                                             "ecmp_mode        classic",
                                             "load_sharing     per-flow",
                                             "hash_fields      31",
                                             "hash_seed        0",
                                             "local_first      on",
                                         }));
    EXPECT_EQ(run_ok({"stats", "mtu", "dev", "GigabitEthernet1/0/1"}), "dev  GigabitEthernet1/0/1\nmtu  1500\n");

    Json j = run_json({"stats", "ttl"});
    expect_record(j, {{"ttl", 255}});
    expect_fits(j, "ttl");
    j = run_json({"stats", "ecmp"});
    expect_record(j, {{"node", 1},
                      {"max_paths", 8},
                      {"supported_paths", 64},
                      {"ecmp_mode", "classic"},
                      {"load_sharing", "per-flow"},
                      {"hash_fields", 31},
                      {"hash_seed", 0},
                      {"local_first", true}});
    expect_fits(j, "ecmp");
    j = run_json({"stats", "mtu", "dev", "GigabitEthernet1/0/1"});
    expect_record(j, {{"ifname", "GigabitEthernet1/0/1"}, {"mtu", 1500}});
    expect_fits(j, "mtu");
}

TEST_F(IpctlStats, SettingsChangedOnTheDeviceShowThrough) {
    control_ok({{"op", "ipstat.set"}, {"ttl", 64}});
    control_ok({{"op", "ipstat.set"}, {"interface", "GigabitEthernet1/1/1"}, {"mtu", 9216}});
    EXPECT_EQ(run_ok({"stats", "ttl"}), "ttl  64\n");
    EXPECT_EQ(run_ok({"stats", "mtu", "dev", "GigabitEthernet1/1/1"}), "dev  GigabitEthernet1/1/1\nmtu  9216\n");
    // An interface given by its index is named as the device names it.
    expect_record(run_json({"stats", "mtu", "dev", "4"}), {{"ifname", "GigabitEthernet1/1/1"}, {"mtu", 9216}});
    expect_record(run_json({"stats", "ttl"}), {{"ttl", 64}});
}

// ---- global options ----------------------------------------------------------------------

TEST_F(IpctlOptions, NodeOptionAsksAnotherNode) {
    control_ok({{"op", "ipstat.set"},
                {"node", 2},
                {"ecmp_paths", 4},
                {"ecmp_mode", 2},
                {"load_sharing", 1},
                {"hash_fields", 5},
                {"hash_seed", 305419896},
                {"local_first", false}});
    const std::vector<std::string> node2 = {
        "node             2",         "max_paths        4",  "supported_paths  64",        "ecmp_mode        weighted",
        "load_sharing     per-packet", "hash_fields      5",  "hash_seed        305419896", "local_first      off",
    };
    EXPECT_EQ(run_ok({"-n", "2", "stats", "ecmp"}), text_of(node2));
    EXPECT_EQ(run_ok({"--node", "2", "stats", "ecmp"}), text_of(node2));
    const Json j = run_json({"-n", "2", "stats", "ecmp"});
    expect_record(j, {{"node", 2},
                      {"max_paths", 4},
                      {"supported_paths", 64},
                      {"ecmp_mode", "weighted"},
                      {"load_sharing", "per-packet"},
                      {"hash_fields", 5},
                      {"hash_seed", 305419896},
                      {"local_first", false}});
    expect_fits(j, "ecmp");
    // Without -n the master answers with its own settings.
    EXPECT_EQ(lines(run_ok({"stats", "ecmp"}))[0], "node             1");
    EXPECT_EQ(run_ok({"-n", "1", "stats", "ecmp"}), run_ok({"stats", "ecmp"}));

    // Searches are answered by the node asked: 10.2.1.0/24 is known to node 2 only.
    EXPECT_EQ(run_ok({"route", "get", "10.2.1.9"}),
              "0.0.0.0/0  vrf public  via 192.168.0.254  dev M-GigabitEthernet0/0/0  node 1  active\n");
    EXPECT_EQ(run_ok({"-n", "2", "route", "get", "10.2.1.9"}),
              "10.2.1.0/24  vrf public  dev GigabitEthernet1/1/1  node 2  active\n");
}

TEST_F(IpctlOptions, PrettyOptionIndentsTheJson) {
    EXPECT_EQ(run_ok({"-p", "stats", "ttl"}), "{\n  \"ttl\": 255\n}\n");
    EXPECT_EQ(run_ok({"--pretty", "addr", "show", "dev", "LoopBack0"}),
              "[\n"
              "  {\n"
              "    \"ifindex\": 7,\n"
              "    \"ifname\": \"LoopBack0\",\n"
              "    \"family\": \"inet\",\n"
              "    \"local\": \"1.1.1.1\",\n"
              "    \"prefixlen\": 32,\n"
              "    \"vrf\": 0,\n"
              "    \"method\": \"manual\",\n"
              "    \"secondary\": false\n"
              "  }\n"
              "]\n");
    // The same document as -j, only indented.
    EXPECT_EQ(Json::parse(run_ok({"-p", "device", "show"})), run_json({"device", "show"}));
    EXPECT_EQ(run_ok({"--json", "stats", "ttl"}), "{\"ttl\":255}\n");
}

TEST_F(IpctlOptions, InstanceOptionSelectsAnotherSimulator) {
    const std::string other = "ipctl-other-" + std::to_string(::getpid());
    const std::string state = temp_dir();
    ipctl_test::Proc second({IPSIMD_PATH, "--instance", other, "--state", state});
    ASSERT_TRUE(second.started());
    std::string ready;
    ASSERT_TRUE(second.out_line(&ready, 10s));
    ASSERT_EQ(ready, "ready instance=" + other + " nodes=2");

    // A change through -i reaches the other device only.
    EXPECT_EQ(run_ok({"-i", other, "addr", "add", "10.6.6.1/24", "dev", "Vlan-interface10"}), "");
    EXPECT_EQ(run_ok({"--instance", other, "addr", "show", "dev", "Vlan-interface10"}),
              "6:  Vlan-interface10  inet 10.6.6.1/24  vrf 0  manual  primary\n");
    EXPECT_EQ(run_ok({"addr", "show", "dev", "Vlan-interface10"}), "");
    EXPECT_EQ(run_ok({"-i", other, "status"}), "instance " + other + "  answering  nodes 2  master 1\n");
    EXPECT_EQ(run_ok({"status"}), "instance " + e2e::instance() + "  answering  nodes 2  master 1\n");

    second.signal(SIGTERM);
    EXPECT_EQ(second.wait(5s), 0);
    const Result gone = ipctl({"-i", other, "status"});
    EXPECT_EQ(gone.code, 1) << describe(gone);
    EXPECT_EQ(gone.out, "instance " + other + "  not answering\n");
}

// ---- status ------------------------------------------------------------------------------

TEST_F(IpctlStatus, AnsweringDeviceExitsZero) {
    EXPECT_EQ(run_ok({"status"}), "instance " + e2e::instance() + "  answering  nodes 2  master 1\n");
    const Json j = run_json({"status"});
    expect_records(j, {{{"instance", e2e::instance()}, {"answering", true}, {"nodes", 2}, {"master", 1}}});
    expect_fits(j, "status");
    // An instance nobody runs.
    const Result r = ipctl({"-i", "nobody-" + std::to_string(::getpid()), "-j", "status"});
    EXPECT_EQ(r.code, 1) << describe(r);
    const Json none = Json::parse(r.out, nullptr, false);
    expect_records(none, {{{"instance", "nobody-" + std::to_string(::getpid())}, {"answering", false}}});
    expect_fits(none, "status");
}

TEST_F(IpctlWithoutDevice, StatusWithoutASimulatorExitsOne) {
    const Result r = ipctl({"status"});
    EXPECT_EQ(r.code, 1) << describe(r);
    EXPECT_EQ(r.out, "instance " + e2e::instance() + "  not answering\n");
    EXPECT_EQ(r.err, "");
}

TEST_F(IpctlWithoutDevice, DeviceShowWithoutASimulatorFails) {
    const Result r = ipctl({"device", "show"});
    EXPECT_EQ(r.code, 1) << describe(r);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("ipctl: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find("simulator"), std::string::npos) << r.err;
}

TEST_F(IpctlWithoutDevice, ReadersWithoutASimulatorFailRatherThanShowNothing) {
    const std::string message = "ipctl: no simulator answers for instance \"" + e2e::instance() + "\"\n";
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"addr", "show"}, {"-j", "neigh", "show"}, {"stats", "ttl"}, {"stats", "show"}}) {
        const Result r = ipctl(args);
        EXPECT_EQ(r.code, 1) << args[0] << " " << args[1] << "\n" << describe(r);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, message);
    }
}

TEST_F(IpctlWithoutDevice, InterfaceNameWithoutASimulatorNamesTheMissingSimulator) {
    const Result r = ipctl({"addr", "add", "10.9.9.9/24", "dev", "LoopBack0"});
    EXPECT_EQ(r.code, 1) << describe(r);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "ipctl: no simulator answers for instance \"" + e2e::instance() + "\"\n");
}

TEST_F(IpctlWithoutDevice, StoppedSimulatorIsNamedAsNotAnswering) {
    ASSERT_TRUE(sim.start()) << sim.log();
    ASSERT_EQ(::kill(sim.pid(), SIGSTOP), 0);
    Result r;
    r.code = e2e::run({"/usr/bin/env", "IPCLIENT_DEVICE_TIMEOUT_MS=300", IPCTL_PATH, "addr", "show"}, &r.out, &r.err);
    ::kill(sim.pid(), SIGCONT);
    EXPECT_EQ(r.code, 1) << describe(r);
    EXPECT_EQ(r.err, "ipctl: the simulator of instance \"" + e2e::instance() + "\" does not answer (is it stopped?)\n");
}

TEST_F(IpctlWithoutDevice, MonitorWithoutASimulatorFails) {
    const Result r = ipctl({"monitor", "addr"});
    EXPECT_EQ(r.code, 1) << describe(r);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "ipctl: subscribing to address events: the address service does not answer\n");
}

TEST_F(IpctlWithoutDevice, StatusWaitsForASimulatorStartedLater) {
    ipctl_test::Proc waiting({IPCTL_PATH, "status", "--wait", "5"});
    ASSERT_TRUE(waiting.started());
    ASSERT_TRUE(sim.start()) << sim.log();
    EXPECT_EQ(waiting.wait(8s), 0);
    EXPECT_EQ(waiting.rest_of_out(), "instance " + e2e::instance() + "  answering  nodes 2  master 1\n");
}

// ---- monitor -----------------------------------------------------------------------------

const std::regex kStamp(R"(\[\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z\] )");
const std::regex kTime(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z)");

// The monitor's line without its stamp, which must be there.
std::string unstamped(const std::string& line) {
    std::smatch m;
    if (!std::regex_search(line, m, kStamp) || m.position(0) != 0) {
        ADD_FAILURE() << "no stamp: " << line;
        return line;
    }
    return line.substr(static_cast<std::size_t>(m.length(0)));
}

// Waits for the monitor's "monitoring ..." line.
void expect_subscribed(ipctl_test::Proc& monitor, const std::string& what) {
    std::string line;
    ASSERT_TRUE(monitor.err_line(&line, 5s)) << "no \"monitoring\" line";
    ASSERT_EQ(line, "monitoring " + what);
}

// The event record of a JSON line, its stamp checked and removed.
Json event_of(const std::string& line) {
    Json j = Json::parse(line, nullptr, false);
    EXPECT_TRUE(j.is_object()) << line;
    if (!j.is_object()) return j;
    expect_fits(j, "event");
    EXPECT_TRUE(j["time"].is_string() && std::regex_match(j["time"].get<std::string>(), kTime)) << line;
    j.erase("time");
    return j;
}

TEST_F(IpctlMonitor, AddressEventOfAnotherProcess) {
    ipctl_test::Proc monitor({IPCTL_PATH, "monitor", "addr", "--count", "1"});
    expect_subscribed(monitor, "addr");
    EXPECT_EQ(run_ok({"addr", "add", "10.6.6.1/24", "dev", "Vlan-interface10"}), "");
    std::string line;
    ASSERT_TRUE(monitor.out_line(&line, 5s));
    EXPECT_EQ(unstamped(line), "addr add 6: Vlan-interface10 inet 10.6.6.1/24 vrf 0 manual primary");
    EXPECT_EQ(monitor.wait(5s), 0);
}

TEST_F(IpctlMonitor, AddressEventsInJson) {
    ipctl_test::Proc monitor({IPCTL_PATH, "-j", "monitor", "addr", "--count", "2"});
    expect_subscribed(monitor, "addr");
    EXPECT_EQ(run_ok({"addr", "add", "10.6.6.1/24", "dev", "Vlan-interface10"}), "");
    EXPECT_EQ(run_ok({"addr", "del", "10.6.6.1/24", "dev", "Vlan-interface10"}), "");
    std::string line;
    ASSERT_TRUE(monitor.out_line(&line, 5s));
    Json base = addr(6, "Vlan-interface10", "10.6.6.1", 24, 0, false);
    base["object"] = "addr";
    base["event"] = "add";
    base["type"] = 1;
    expect_record(event_of(line), base);
    ASSERT_TRUE(monitor.out_line(&line, 5s));
    base["event"] = "delete";
    base["type"] = 2;
    expect_record(event_of(line), base);
    EXPECT_EQ(monitor.wait(5s), 0);
}

TEST_F(IpctlMonitor, ArpEventOfAResolve) {
    ipctl_test::Proc text({IPCTL_PATH, "monitor", "arp", "--count", "1"});
    expect_subscribed(text, "arp");
    ipctl_test::Proc json({IPCTL_PATH, "--json", "monitor", "arp", "--count", "1"});
    expect_subscribed(json, "arp");
    EXPECT_EQ(run_ok({"neigh", "resolve", "10.1.1.3", "dev", "GigabitEthernet1/0/1"}),
              "10.1.1.3  dev GigabitEthernet1/0/1  lladdr 00:11:22:33:66:03  reachable  dynamic  vlan 0  vrf 0\n");
    std::string line;
    ASSERT_TRUE(text.out_line(&line, 5s));
    EXPECT_EQ(unstamped(line),
              "arp add 10.1.1.3 dev GigabitEthernet1/0/1 lladdr 00:11:22:33:66:03 reachable dynamic vlan 0 vrf 0");
    ASSERT_TRUE(json.out_line(&line, 5s));
    Json expected = neigh("10.1.1.3", "inet", 2, "GigabitEthernet1/0/1", "00:11:22:33:66:03", "reachable", "dynamic", 0, 0);
    expected["object"] = "arp";
    expected["event"] = "add";
    expected["type"] = 0;
    expect_record(event_of(line), expected);
    EXPECT_EQ(text.wait(5s), 0);
    EXPECT_EQ(json.wait(5s), 0);
}

TEST_F(IpctlMonitor, AllSourcesCarryTheControlChannelsNeighbours) {
    ipctl_test::Proc text({IPCTL_PATH, "monitor", "all"});
    expect_subscribed(text, "addr arp nd wlan link route");
    ipctl_test::Proc json({IPCTL_PATH, "-j", "monitor"});
    expect_subscribed(json, "addr arp nd wlan link route");
    control_ok({{"op", "neigh.add"}, {"interface", "GigabitEthernet1/0/2"}, {"address", "10.1.2.9"},
                {"mac", "02:00:00:00:00:09"}, {"vlan", 300}});
    control_ok({{"op", "neigh.add"}, {"interface", "GigabitEthernet1/0/2"}, {"address", "2001:db8:2::9"},
                {"mac", "02:00:00:00:00:0a"}, {"vlan", 1027}, {"state", "stale"}});

    std::string line;
    ASSERT_TRUE(text.out_line(&line, 5s));
    EXPECT_EQ(unstamped(line),
              "arp add 10.1.2.9 dev GigabitEthernet1/0/2 lladdr 02:00:00:00:00:09 reachable dynamic vlan 300 vrf 1");
    ASSERT_TRUE(text.out_line(&line, 5s));
    EXPECT_EQ(unstamped(line),
              "nd add 2001:db8:2::9 dev GigabitEthernet1/0/2 lladdr 02:00:00:00:00:0a stale dynamic vlan 1027 vrf 1");

    ASSERT_TRUE(json.out_line(&line, 5s));
    Json expected = neigh("10.1.2.9", "inet", 3, "GigabitEthernet1/0/2", "02:00:00:00:00:09", "reachable", "dynamic", 300, 1);
    expected["object"] = "arp";
    expected["event"] = "add";
    expected["type"] = 0;
    expect_record(event_of(line), expected);
    ASSERT_TRUE(json.out_line(&line, 5s));
    expected = neigh("2001:db8:2::9", "inet6", 3, "GigabitEthernet1/0/2", "02:00:00:00:00:0a", "stale", "dynamic", 1027, 1);
    expected["object"] = "nd";
    expected["event"] = "add";
    expected["type"] = 0;
    expect_record(event_of(line), expected);

    // Interrupted, the monitor ends cleanly.
    text.signal(SIGINT);
    json.signal(SIGTERM);
    EXPECT_EQ(text.wait(5s), 0);
    EXPECT_EQ(json.wait(5s), 0);
}

// ---- usage errors ------------------------------------------------------------------------

void expect_usage(const std::vector<std::string>& args, const std::string& error, const std::string& usage) {
    const Result r = ipctl(args);
    EXPECT_EQ(r.code, 2) << describe(r);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "Error: " + error + "\n" + kUsage + usage + "\n");
}

const std::string kTopUsage =
    "OBJECT COMMAND [ARGS]; OBJECT := device | addr | link | neigh | route | stats | monitor | status";

TEST_F(IpctlUsage, UnknownObject) {
    expect_usage({"lnk", "show"}, "unknown object \"lnk\"", kTopUsage);
    expect_usage({"-j", "foo"}, "unknown object \"foo\"", kTopUsage);
    expect_usage({}, "an object is missing", kTopUsage);
}

TEST_F(IpctlUsage, MissingOrUnknownVerb) {
    expect_usage({"route", "list"}, "unknown command \"list\"", "route { show | get | save } ...");
    expect_usage({"addr", "-x"}, "unknown command \"-x\"", "addr { show | add | del | summary } ...");
}

// As ip reads its command line: an object alone shows, any unique prefix of an object or a
// verb stands for it, a prefix of several names is refused with them.
TEST_F(IpctlUsage, AnObjectAloneShows) {
    EXPECT_EQ(run_ok({"addr"}), run_ok({"addr", "show"}));
    EXPECT_EQ(run_ok({"neigh"}), run_ok({"neigh", "show"}));
    EXPECT_EQ(run_ok({"-j", "route"}), run_ok({"-j", "route", "show"}));
    EXPECT_EQ(run_ok({"device"}), run_ok({"device", "show"}));
}

TEST_F(IpctlUsage, UniquePrefixesOfObjectsAndVerbs) {
    const std::string addresses = run_ok({"addr", "show"});
    ASSERT_NE(addresses, "");
    EXPECT_EQ(run_ok({"a"}), addresses);
    EXPECT_EQ(run_ok({"ad", "sh"}), addresses);
    EXPECT_EQ(run_ok({"addr", "su"}), run_ok({"addr", "summary"}));
    EXPECT_EQ(run_ok({"stats"}), run_ok({"stats", "show"}));
    EXPECT_EQ(run_ok({"n"}), run_ok({"neigh", "show"}));
    EXPECT_EQ(run_ok({"r", "g", "10.1.1.1"}), run_ok({"route", "get", "10.1.1.1"}));
    EXPECT_EQ(run_ok({"-j", "d", "sh"}), run_ok({"-j", "device", "show"}));
    EXPECT_EQ(run_ok({"-i", e2e::instance(), "statu"}), run_ok({"status"}));
}

TEST_F(IpctlUsage, APrefixOfSeveralNamesIsAmbiguous) {
    expect_usage({"s"}, "\"s\" is ambiguous: stats, status", kTopUsage);
    expect_usage({"st"}, "\"st\" is ambiguous: stats, status", kTopUsage);
    expect_usage({"addr", "s"}, "\"s\" is ambiguous: show, summary", "addr { show | add | del | summary } ...");
    expect_usage({"-j", "a", "s", "dev", "2"}, "\"s\" is ambiguous: show, summary", "addr { show | add | del | summary } ...");
}

TEST_F(IpctlUsage, BadAddress) {
    expect_usage({"addr", "add", "10.9.9.1/33", "dev", "GigabitEthernet1/0/1"},
                 "\"10.9.9.1/33\" is not an IPv4 address with a prefix length", "addr add ADDR/LEN dev IF [secondary]");
    expect_usage({"addr", "del", "10.9.9/24", "dev", "GigabitEthernet1/0/1"},
                 "\"10.9.9/24\" is not an IPv4 address with a prefix length", "addr del ADDR/LEN dev IF [secondary]");
    expect_usage({"route", "get", "10.1.1.300"}, "\"10.1.1.300\" is not an IPv4 or IPv6 address", "route get ADDR [vrf N]");
    expect_usage({"neigh", "resolve", "fe80::zz", "dev", "GigabitEthernet1/0/1"},
                 "\"fe80::zz\" is not an IPv4 or IPv6 address", "neigh resolve ADDR dev IF");
}

TEST_F(IpctlUsage, UnknownInterface) {
    expect_usage({"addr", "add", "10.9.9.1/24", "dev", "Nope0"}, "no interface \"Nope0\"",
                 "addr add ADDR/LEN dev IF [secondary]");
    expect_usage({"neigh", "show", "dev", "99"}, "no interface \"99\"", "neigh show [-4|-6] [dev IF]");
    expect_usage({"stats", "show", "if", "GigabitEthernet9/9/9"}, "no interface \"GigabitEthernet9/9/9\"",
                 "stats show [ip | icmp [dev IF] | if IF]");
}

TEST_F(IpctlUsage, FourAndSixTogether) {
    expect_usage({"neigh", "show", "-4", "-6"}, "-4 excludes -6", "neigh show [-4|-6] [dev IF]");
    const Result r = ipctl({"route", "show", "-6", "-4", "2001:db8:1::/64"});
    EXPECT_EQ(r.code, 2) << describe(r);
    EXPECT_EQ(lines(r.err).back(), kUsage + "route show [-4|-6] [vrf NAME] [PREFIX]");
}

TEST_F(IpctlUsage, UnexpectedExtraWord) {
    expect_usage({"addr", "show", "dev", "GigabitEthernet1/0/1", "extra"}, "unexpected argument \"extra\"",
                 "addr show [dev IF]");
    expect_usage({"stats", "ttl", "now"}, "unexpected argument \"now\"", "stats ttl");
    expect_usage({"device", "show", "all"}, "unexpected argument \"all\"", "device show");
    expect_usage({"monitor", "routes"}, "unexpected argument \"routes\"", "monitor [addr|arp|nd|wlan|link|route|all]... [--count N]");
}

TEST_F(IpctlUsage, MissingValues) {
    expect_usage({"addr", "show", "dev"}, "\"dev\" needs a value", "addr show [dev IF]");
    expect_usage({"addr", "add", "10.9.9.1/24"}, "\"dev IF\" is required", "addr add ADDR/LEN dev IF [secondary]");
    expect_usage({"route", "show", "-6"}, "IPv6 routes are found by prefix: give a PREFIX",
                 "route show [-4|-6] [vrf NAME] [PREFIX]");
    expect_usage({"-n", "0", "status"}, "--node: Value 0 not in range 1 to 32767", "status [--wait SECONDS]");
}

}  // namespace

// ---- as an ip user types it ---------------------------------------------------------------

namespace {

TEST_F(IpctlUsage, HelpAndVersion) {
    const Result help = ipctl({"help"});
    EXPECT_EQ(help.code, 0) << describe(help);
    EXPECT_NE(help.out.find("OBJECT COMMAND [ARGS]"), std::string::npos) << help.out;
    const Result addr_help = ipctl({"addr", "help"});
    EXPECT_EQ(addr_help.code, 0) << describe(addr_help);
    EXPECT_NE(addr_help.out.find("addr { show | add | del | summary } ..."), std::string::npos) << addr_help.out;
    EXPECT_EQ(ipctl({"a", "help"}).out, addr_help.out);
    const Result v = ipctl({"-V"});
    EXPECT_EQ(v.code, 0) << describe(v);
    EXPECT_EQ(v.out, "ipctl 0.1.0, libipclient 0.1.0\n");
    EXPECT_EQ(ipctl({"--version"}).out, v.out);
}

TEST_F(IpctlUsage, SecondaryGivenTwiceIsRefused) {
    expect_usage({"addr", "add", "10.9.9.1/24", "dev", "GigabitEthernet1/0/1", "secondary", "secondary"},
                 "\"secondary\" is given twice", "addr add ADDR/LEN dev IF [secondary]");
}

TEST_F(IpctlUsage, AnAddressNoInterfaceCanHaveIsRefused) {
    const std::string usage = "addr add ADDR/LEN dev IF [secondary]";
    expect_usage({"addr", "add", "224.0.0.1/24", "dev", "GigabitEthernet1/0/1"}, "\"224.0.0.1/24\" is a multicast address",
                 usage);
    expect_usage({"addr", "add", "10.9.9.255/24", "dev", "GigabitEthernet1/0/1"},
                 "\"10.9.9.255/24\" is the broadcast address of its network", usage);
    expect_usage({"addr", "add", "255.255.255.255/32", "dev", "GigabitEthernet1/0/1"},
                 "\"255.255.255.255/32\" is the broadcast address", usage);
    expect_usage({"addr", "add", "127.0.0.9/8", "dev", "GigabitEthernet1/0/1"}, "\"127.0.0.9/8\" is a loopback address",
                 usage);
    expect_usage({"addr", "add", "0.0.0.9/8", "dev", "GigabitEthernet1/0/1"}, "\"0.0.0.9/8\" is not a host address", usage);
    // A /31 has no broadcast address; a /32 is a host.
    EXPECT_EQ(run_ok({"addr", "add", "10.9.9.255/31", "dev", "GigabitEthernet1/0/2"}), "");
    EXPECT_EQ(run_ok({"addr", "add", "10.9.8.255/32", "dev", "LoopBack0", "secondary"}), "");
}

TEST_F(IpctlUsage, MonitorCountIsOneOrMore) {
    for (const char* count : {"-1", "0", "1x", "99999999999999999999"}) {
        const Result r = ipctl({"monitor", "--count", count}, std::chrono::milliseconds(3000));
        EXPECT_EQ(r.code, 2) << count << "\n" << describe(r);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "Error: --count: Value " + std::string(count) + " is not a whole number from 1\n" + kUsage +
                             "monitor [addr|arp|nd|wlan|link|route|all]... [--count N]\n");
    }
}

TEST_F(IpctlOptions, NodeTheDeviceLacksIsNamedWithTheNodesItHas) {
    const Result r = ipctl({"-n", "3", "addr", "show"});
    EXPECT_EQ(r.code, 1) << describe(r);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "ipctl: no node 3 (the device has nodes 1-2)\n");
    EXPECT_EQ(ipctl({"-n", "3", "status"}).err, r.err);
}

TEST_F(IpctlWithoutDevice, RouteShowWithoutASimulatorNamesTheMissingSimulator) {
    const Result r = ipctl({"route", "show"});
    EXPECT_EQ(r.code, 1) << describe(r);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "ipctl: no simulator answers for instance \"" + e2e::instance() + "\"\n");
}

}  // namespace

// ---- long listings --------------------------------------------------------------------------

namespace {

// A table longer than a page comes a page of 1024 entries at a time: every entry once, in
// table order, each page's text aligned on its own rows, and the JSON one array whatever
// the pages (compact or indented alike).
TEST_F(IpctlNeigh, ALongListingComesInPagesAndStaysOneJsonArray) {
    control_ok({{"op", "neigh.burst"},
                {"interface", "GigabitEthernet1/0/2"},
                {"first", "10.1.2.100"},
                {"mac", "02:00:00:00:10:00"},
                {"count", 3000}});
    const std::vector<std::string> text = lines(run_ok({"neigh", "show", "-4"}));
    ASSERT_EQ(text.size(), 3005u) << "the scenario's 5 entries and the burst's 3000";
    EXPECT_EQ(text[0].rfind("10.1.1.2 ", 0), 0u) << text[0];
    std::size_t burst = 0;
    for (const std::string& l : text) {
        if (l.find(" dev GigabitEthernet1/0/2 ") != std::string::npos) ++burst;
    }
    EXPECT_EQ(burst, 3000u);
    // Pages align on their own rows: the first page holds 10.1.1.2 and 1023 of the burst.
    EXPECT_EQ(text[1].find(" dev "), std::string("10.1.2.100  ").size() - 1) << text[1];

    const Json compact = run_json({"neigh", "show", "-4"});
    ASSERT_TRUE(compact.is_array());
    ASSERT_EQ(compact.size(), 3005u);
    EXPECT_EQ(compact[1]["dst"], "10.1.2.100");
    EXPECT_EQ(compact[3000]["dst"], "10.1.14.27") << "10.1.2.100 and 2999 more";
    EXPECT_EQ(compact[3004]["dst"], "192.168.1.10");
    expect_fits(compact, "neigh");
    const std::string pretty = run_ok({"-p", "neigh", "show", "-4"});
    EXPECT_TRUE(Json::parse(pretty) == compact) << "the same listing, indented";
    EXPECT_TRUE(nlohmann::ordered_json::parse(pretty).dump(2) + "\n" == pretty) << "indented as one array is";
}

}  // namespace

// ---- link ------------------------------------------------------------------------------------

namespace {

using IpctlLink = IpctlTest;

const std::vector<std::string> kLinkLines = {
    "1:  M-GigabitEthernet0/0/0  <UP>              mtu 1500  link/ether 00:e0:fc:00:00:01  vrf 0  type ethernet        node 1 (1/0/0)",
    "2:  GigabitEthernet1/0/1    <UP>              mtu 1500  link/ether 00:e0:fc:00:00:02  vrf 0  type ethernet        node 1 (1/0/0)",
    "3:  GigabitEthernet1/0/2    <UP>              mtu 1500  link/ether 00:e0:fc:00:00:03  vrf 1  type ethernet        node 1 (1/0/0)",
    "4:  GigabitEthernet1/1/1    <UP>              mtu 1500  link/ether 00:e0:fc:00:00:04  vrf 0  type ethernet        node 2 (1/1/0)",
    "5:  Vlan-interface1         <UP,SPANS-NODES>  mtu 1500  link/ether 00:e0:fc:00:00:05  vrf 0  type vlan-interface  node 1 (1/0/0)",
    "6:  Vlan-interface10        <UP>              mtu 1500  link/ether 00:e0:fc:00:00:06  vrf 0  type vlan-interface  node 1 (1/0/0)",
    "7:  LoopBack0               <UP>              mtu 1500  link/ether 00:e0:fc:00:00:07  vrf 0  type loopback        node 1 (1/0/0)",
    "8:  Vsi-interface1          <UP>              mtu 1500  link/ether 00:e0:fc:00:00:08  vrf 0  type vsi-interface   node 1 (1/0/0)",
};

// Every interface of the directory, those without an address too (GigabitEthernet1/0/2,
// Vsi-interface1), as ip link lists them.
TEST_F(IpctlLink, ShowListsEveryInterfaceOfTheDirectory) {
    EXPECT_EQ(run_ok({"link", "show"}), text_of(kLinkLines));
    EXPECT_EQ(run_ok({"l"}), text_of(kLinkLines)) << "a prefix, and show by default";
    const Json j = run_json({"link", "show"});
    ASSERT_EQ(j.size(), 8u);
    expect_fits(j, "link");
    expect_record(j[4], {{"ifindex", 5},
                         {"ifname", "Vlan-interface1"},
                         {"operstate", "UP"},
                         {"spans_nodes", true},
                         {"l2", false},
                         {"mtu", 1500},
                         {"address", "00:e0:fc:00:00:05"},
                         {"vrf", 0},
                         {"link_type", "vlan-interface"},
                         {"type_code", 35},
                         {"node", 1},
                         {"chassis", 1},
                         {"slot", 0},
                         {"cpu", 0}});
    // One interface alone: its columns as wide as its own cells.
    const std::string one =
        "3:  GigabitEthernet1/0/2  <UP>  mtu 1500  link/ether 00:e0:fc:00:00:03  vrf 1  type ethernet  node 1 (1/0/0)\n";
    EXPECT_EQ(run_ok({"link", "show", "dev", "GigabitEthernet1/0/2"}), one);
    EXPECT_EQ(run_ok({"link", "show", "dev", "3"}), one);
}

// What the device changes shows: an MTU set on the device, a board pulled out (its
// interface leaves the directory) and put back.
TEST_F(IpctlLink, ShowFollowsTheDevice) {
    control_ok({{"op", "ipstat.set"}, {"interface", "GigabitEthernet1/0/2"}, {"mtu", 9000}});
    EXPECT_EQ(run_ok({"link", "show", "dev", "GigabitEthernet1/0/2"}),
              "3:  GigabitEthernet1/0/2  <UP>  mtu 9000  link/ether 00:e0:fc:00:00:03  vrf 1  type ethernet  node 1 (1/0/0)\n");
    control_ok({{"op", "node.set"}, {"node", 2}, {"state", "down"}});
    const std::vector<std::string> out = lines(run_ok({"link", "show"}));
    EXPECT_EQ(out.size(), 7u);
    for (const std::string& l : out) EXPECT_EQ(l.find("GigabitEthernet1/1/1"), std::string::npos) << l;
    expect_usage({"link", "show", "dev", "GigabitEthernet1/1/1"}, "no interface \"GigabitEthernet1/1/1\"",
                 "link show [dev IF]");
    control_ok({{"op", "node.set"}, {"node", 2}, {"state", "up"}});
    EXPECT_EQ(lines(run_ok({"link", "show"})).size(), 8u);
}

TEST_F(IpctlWithoutDevice, LinkShowWithoutASimulatorNamesTheMissingSimulator) {
    const Result r = ipctl({"link", "show"});
    EXPECT_EQ(r.code, 1) << describe(r);
    EXPECT_EQ(r.err, "ipctl: no simulator answers for instance \"" + e2e::instance() + "\"\n");
}

}  // namespace

// ---- brief and colour -------------------------------------------------------------------------

namespace {

using IpctlBrief = IpctlTest;

TEST_F(IpctlBrief, AddrIsOneLineAnInterfaceOfTheDirectory) {
    const std::vector<std::string> want = {
        "M-GigabitEthernet0/0/0  UP  192.168.0.1/24",
        "GigabitEthernet1/0/1    UP  10.1.1.1/24 10.1.3.1/24",
        "GigabitEthernet1/0/2    UP  10.1.2.1/24",
        "GigabitEthernet1/1/1    UP  10.2.1.1/24",
        "Vlan-interface1         UP  192.168.1.1/24",
        "Vlan-interface10        UP",
        "LoopBack0               UP  1.1.1.1/32",
        "Vsi-interface1          UP",
    };
    EXPECT_EQ(run_ok({"-br", "addr"}), text_of(want));
    EXPECT_EQ(run_ok({"-brief", "a", "show"}), text_of(want));
    EXPECT_EQ(run_ok({"--brief", "addr", "show", "dev", "2"}), "GigabitEthernet1/0/1  UP  10.1.1.1/24 10.1.3.1/24\n");
    const Json j = run_json({"-br", "addr"});
    expect_fits(j, "addr_brief");
    ASSERT_EQ(j.size(), 8u);
    EXPECT_EQ(j[1], Json::parse(R"({"ifname":"GigabitEthernet1/0/1","operstate":"UP","addr_info":[
        {"local":"10.1.1.1","prefixlen":24},{"local":"10.1.3.1","prefixlen":24}]})"));
    EXPECT_EQ(j[5]["addr_info"], Json::array());
    // A board pulled out: its interface is gone; one that spans nodes stays up.
    control_ok({{"op", "node.set"}, {"node", 2}, {"state", "down"}});
    const std::string out = run_ok({"-br", "addr"});
    EXPECT_EQ(out.find("GigabitEthernet1/1/1"), std::string::npos) << out;
    EXPECT_NE(out.find("Vlan-interface1         UP  192.168.1.1/24\n"), std::string::npos) << out;
}

TEST_F(IpctlBrief, LinkAndNeigh) {
    const std::vector<std::string> link = lines(run_ok({"-br", "link"}));
    ASSERT_EQ(link.size(), 8u);
    EXPECT_EQ(link[4], "Vlan-interface1         UP  <UP,SPANS-NODES>");
    const Json lj = run_json({"-br", "link", "show"});
    expect_fits(lj, "link_brief");
    EXPECT_EQ(lj[4], Json::parse(R"({"ifname":"Vlan-interface1","operstate":"UP","flags":["SPANS-NODES"]})"));
    const std::vector<std::string> neigh = lines(run_ok({"-br", "neigh", "show", "-4"}));
    ASSERT_EQ(neigh.size(), 5u);
    EXPECT_EQ(neigh[0], "10.1.1.2      GigabitEthernet1/0/1  00:11:22:33:44:55  reachable");
    const Json nj = run_json({"-br", "neigh", "show"});
    expect_fits(nj, "neigh_brief");
    EXPECT_EQ(nj[0], Json::parse(R"({"dst":"10.1.1.2","dev":"GigabitEthernet1/0/1","lladdr":"00:11:22:33:44:55","state":"reachable"})"));
}

// Colour as ip gives it: names cyan, IPv4 addresses magenta, IPv6 blue, link-layer addresses
// yellow, UP green; always with -c (or -color, --color=always), never through a pipe with
// --color=auto, never in JSON; the columns stay aligned on the text.
TEST_F(IpctlBrief, ColourIsAsIpGivesIt) {
    const std::string plain = run_ok({"neigh", "show"});
    const std::string coloured = run_ok({"-c", "neigh", "show"});
    EXPECT_EQ(std::regex_replace(coloured, std::regex("\033\\[[0-9]*m"), ""), plain) << "the same text, aligned alike";
    const std::vector<std::string> rows = lines(coloured);
    EXPECT_EQ(rows[0].rfind("\033[35m10.1.1.2\033[0m", 0), 0u) << rows[0];
    EXPECT_NE(rows[0].find("dev \033[36mGigabitEthernet1/0/1\033[0m"), std::string::npos) << rows[0];
    EXPECT_NE(rows[0].find("lladdr \033[33m00:11:22:33:44:55\033[0m"), std::string::npos) << rows[0];
    EXPECT_EQ(rows[5].rfind("\033[34m2001:db8:1::2\033[0m", 0), 0u) << rows[5];
    EXPECT_NE(run_ok({"-br", "--color=always", "link"}).find("\033[32mUP\033[0m"), std::string::npos);
    EXPECT_EQ(run_ok({"-color=always", "neigh"}), coloured);
    EXPECT_EQ(run_ok({"--color=auto", "neigh"}), plain) << "a pipe is no terminal";
    EXPECT_EQ(run_ok({"-c=never", "neigh"}), plain);
    EXPECT_EQ(run_ok({"--color", "never", "neigh"}), plain) << "the value as a word of its own";
    EXPECT_EQ(run_ok({"--color", "always", "neigh"}), coloured);
    EXPECT_EQ(run_ok({"-c", "-j", "neigh"}), run_ok({"-j", "neigh"})) << "JSON is never coloured";
    expect_usage({"--color=pink", "neigh"}, "--color: pink not in {always,auto,never}", "neigh show [-4|-6] [dev IF]");
}

}  // namespace

// ---- route types, link state and counters, link and route events ---------------------------

namespace {

// A device of the test's own: two nodes, three ports with MACs of their own (the second in
// vpn-c, VRF 3, the third on node 2) and the routes given (lines of the routes list).
std::string own_scenario(const std::string& routes) {
    std::string s =
        "device: {master: 1}\n"
        "nodes:\n"
        "  - {number: 1, chassis: 1, slot: 0, cpu: 0, role: master, state: up}\n"
        "  - {number: 2, chassis: 1, slot: 1, cpu: 0, role: standby, state: up}\n"
        "vrfs:\n"
        "  - {index: 3, name: vpn-c}\n"
        "interfaces:\n"
        "  - {index: 1, name: GigabitEthernet1/0/1, node: 1, type: ethernet, mac: \"02:00:5e:00:01:01\"}\n"
        "  - {index: 2, name: GigabitEthernet1/0/2, node: 1, type: ethernet, mac: \"02:00:5e:00:01:02\", vrf: vpn-c}\n"
        "  - {index: 3, name: GigabitEthernet1/1/1, node: 2, type: ethernet, mac: \"02:00:5e:00:02:01\"}\n";
    if (!routes.empty()) s += "routes:\n" + routes;  // line 11 is "routes:", the first route line 12
    return s;
}

// Routes that drop what they match, each of another type, one of them in vpn-c and one IPv6.
const std::string kTypedRoutes =
    "  - {vrf: 0, prefix: 10.66.0.0/16, type: blackhole}\n"
    "  - {vrf: 0, prefix: 10.67.0.0/16, type: unreachable}\n"
    "  - {vrf: 3, prefix: 10.68.0.0/16, type: prohibit}\n"
    "  - {vrf: 0, prefix: \"2001:db8:66::/48\", type: blackhole}\n";

// A test with a simulator of its own scenario.
class IpctlOwnDevice : public IpctlWithoutDevice {
protected:
    void start(const std::string& file, const std::string& routes) {
        const std::string path = e2e::temp_file(file, own_scenario(routes));
        ASSERT_TRUE(sim.start({"--scenario", path})) << sim.log();
    }
};

// A route of the file without a path, as show prints it: its type, no gateway, no
// interface (the file's interface N/A is none; its tunnel field stays as the file writes it).
Json pathless_route(const char* type, const char* dst, const char* vrf, int slot) {
    return {{"type", type},      {"dst", dst},   {"family", "inet"},
            {"vrf", vrf},        {"chassis", 1}, {"slot", slot},
            {"cpu", 0},          {"tunnel", "N/A"}, {"label", "Null"},
            {"gateway_mac", "00-00-00-00-00-00"}, {"dev_mac", "00-00-00-00-00-00"}, {"vlan", 0},
            {"port", 0}};
}

TEST_F(IpctlOwnDevice, ScenarioRouteTypesShowInRouteShow) {
    ASSERT_NO_FATAL_FAILURE(start("typed-show.yaml", kTypedRoutes));
    EXPECT_EQ(run_ok({"route", "show"}), text_of({
                                             "blackhole 10.66.0.0/16    vrf public  node 1/0/0  tunnel N/A  label Null",
                                             "unreachable 10.67.0.0/16  vrf public  node 1/0/0  tunnel N/A  label Null",
                                             "prohibit 10.68.0.0/16     vrf vpn-c   node 1/0/0  tunnel N/A  label Null",
                                             "blackhole 10.66.0.0/16    vrf public  node 1/1/0  tunnel N/A  label Null",
                                             "unreachable 10.67.0.0/16  vrf public  node 1/1/0  tunnel N/A  label Null",
                                             "prohibit 10.68.0.0/16     vrf vpn-c   node 1/1/0  tunnel N/A  label Null",
                                         }));
    const Json j = run_json({"route", "show"});
    expect_records(j, {
                          pathless_route("blackhole", "10.66.0.0/16", "public", 0),
                          pathless_route("unreachable", "10.67.0.0/16", "public", 0),
                          pathless_route("prohibit", "10.68.0.0/16", "vpn-c", 0),
                          pathless_route("blackhole", "10.66.0.0/16", "public", 1),
                          pathless_route("unreachable", "10.67.0.0/16", "public", 1),
                          pathless_route("prohibit", "10.68.0.0/16", "vpn-c", 1),
                      });
    expect_fits(j, "route");
}

TEST_F(IpctlOwnDevice, ScenarioRouteTypesShowInRouteGet) {
    ASSERT_NO_FATAL_FAILURE(start("typed-get.yaml", kTypedRoutes));
    EXPECT_EQ(run_ok({"route", "get", "10.66.1.1"}), "blackhole 10.66.0.0/16  vrf public  node 1  active\n");
    EXPECT_EQ(run_ok({"route", "get", "10.67.1.1"}), "unreachable 10.67.0.0/16  vrf public  node 1  active\n");
    EXPECT_EQ(run_ok({"route", "get", "10.68.1.1", "vrf", "3"}), "prohibit 10.68.0.0/16  vrf 3  node 1  active\n");
    EXPECT_EQ(run_ok({"route", "get", "2001:db8:66::1"}), "blackhole 2001:db8:66::/48  vrf public  node 1  active\n");
    EXPECT_EQ(run_ok({"route", "show", "-6", "2001:db8:66::/48"}),
              "blackhole 2001:db8:66::/48  vrf public  node 1  active\n");

    Json j = run_json({"route", "get", "10.66.1.1"});
    expect_records(j, {entry("10.66.0.0/16", "inet", "public", nullptr, 0, nullptr, 1, "blackhole")});
    expect_fits(j, "route");
    j = run_json({"route", "get", "10.67.1.1"});
    expect_records(j, {entry("10.67.0.0/16", "inet", "public", nullptr, 0, nullptr, 1, "unreachable")});
    j = run_json({"route", "get", "10.68.1.1", "vrf", "3"});
    expect_records(j, {entry("10.68.0.0/16", "inet", "3", nullptr, 0, nullptr, 1, "prohibit")});
    expect_fits(j, "route");
    j = run_json({"route", "get", "2001:db8:66::1"});
    expect_records(j, {entry("2001:db8:66::/48", "inet6", "public", nullptr, 0, nullptr, 1, "blackhole")});
    expect_fits(j, "route");
}

// The same prefix in two VRFs, of two types: each route shows its own VRF's type. A route of
// another node than the one the tool runs as shows as "unknown" (the file tells no type, and
// a search asks only the tool's node), and is known when the tool runs on its node (-n).
TEST_F(IpctlOwnDevice, RouteShowGivesEachRouteTheTypeOfItsOwnVrfAndUnknownOfAnotherNode) {
    ASSERT_NO_FATAL_FAILURE(start("typed-vrf-node.yaml",
                                  "  - {vrf: 0, prefix: 10.66.0.0/16, type: blackhole, node: 1}\n"
                                  "  - {vrf: 3, prefix: 10.66.0.0/16, type: prohibit, node: 1}\n"
                                  "  - {vrf: 0, prefix: 10.69.0.0/16, type: unreachable, node: 2}\n"));
    EXPECT_EQ(run_ok({"route", "show"}), text_of({
                                             "blackhole 10.66.0.0/16  vrf public  node 1/0/0  tunnel N/A  label Null",
                                             "prohibit 10.66.0.0/16   vrf vpn-c   node 1/0/0  tunnel N/A  label Null",
                                             "unknown 10.69.0.0/16    vrf public  node 1/1/0  tunnel N/A  label Null",
                                         }));
    expect_records(run_json({"route", "show"}), {
                                                    pathless_route("blackhole", "10.66.0.0/16", "public", 0),
                                                    pathless_route("prohibit", "10.66.0.0/16", "vpn-c", 0),
                                                    pathless_route("unknown", "10.69.0.0/16", "public", 1),
                                                });
    expect_records(run_json({"-n", "2", "route", "show", "10.69.0.0/16"}),
                   {pathless_route("unreachable", "10.69.0.0/16", "public", 1)});
}

// A blackhole route forwards nothing: a next hop on it is refused where it is written.
TEST(IpctlScenario, RouteWithANextHopCannotBeABlackhole) {
    const std::string route = "  - {vrf: 0, prefix: 10.1.0.0/16, next_hop: 10.2.2.2";
    const std::string path = e2e::temp_file("blackhole-via.yaml", own_scenario(route + ", type: blackhole}\n"));
    std::string out, err;
    EXPECT_EQ(e2e::run({IPSIMD_PATH, "--scenario", path, "--check"}, &out, &err), 2) << out << err;
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "ipsimd: scenario refused: " + path +
                       ":12: routes[0].type: a blackhole route has no next hop and no interface\n");
    // The same route as a unicast one is taken.
    const std::string unicast = e2e::temp_file("unicast-via.yaml", own_scenario(route + "}\n"));
    out.clear();
    err.clear();
    EXPECT_EQ(e2e::run({IPSIMD_PATH, "--scenario", unicast, "--check"}, &out, &err), 0) << out << err;
    EXPECT_EQ(out, "scenario " + unicast + ": 2 nodes, 3 interfaces, 0 addresses\n");
}

TEST_F(IpctlOwnDevice, LinkShowHasTheMacAndVrfOfTheScenarioInterfaces) {
    ASSERT_NO_FATAL_FAILURE(start("links.yaml", ""));
    const Json j = run_json({"link", "show"});
    const auto port = [](int ifindex, const char* name, const char* mac, int vrf, int node, int slot) {
        return Json{{"ifindex", ifindex}, {"ifname", name},   {"operstate", "UP"},       {"spans_nodes", false},
                    {"l2", false},        {"mtu", 1500},      {"address", mac},          {"vrf", vrf},
                    {"link_type", "ethernet"}, {"type_code", 6}, {"node", node},     {"chassis", 1},
                    {"slot", slot},       {"cpu", 0}};
    };
    expect_records(j, {
                          port(1, "GigabitEthernet1/0/1", "02:00:5e:00:01:01", 0, 1, 0),
                          port(2, "GigabitEthernet1/0/2", "02:00:5e:00:01:02", 3, 1, 0),
                          port(3, "GigabitEthernet1/1/1", "02:00:5e:00:02:01", 0, 2, 1),
                      });
    expect_fits(j, "link");
    EXPECT_EQ(run_ok({"link", "show"}),
              text_of({
                  "1:  GigabitEthernet1/0/1  <UP>  mtu 1500  link/ether 02:00:5e:00:01:01  vrf 0  type ethernet  node 1 (1/0/0)",
                  "2:  GigabitEthernet1/0/2  <UP>  mtu 1500  link/ether 02:00:5e:00:01:02  vrf 3  type ethernet  node 1 (1/0/0)",
                  "3:  GigabitEthernet1/1/1  <UP>  mtu 1500  link/ether 02:00:5e:00:02:01  vrf 0  type ethernet  node 2 (1/1/0)",
              }));
}

const std::vector<std::string> kBriefLinksUp = {
    "M-GigabitEthernet0/0/0  UP  <UP>",
    "GigabitEthernet1/0/1    UP  <UP>",
    "GigabitEthernet1/0/2    UP  <UP>",
    "GigabitEthernet1/1/1    UP  <UP>",
    "Vlan-interface1         UP  <UP,SPANS-NODES>",
    "Vlan-interface10        UP  <UP>",
    "LoopBack0               UP  <UP>",
    "Vsi-interface1          UP  <UP>",
};

TEST_F(IpctlLink, LinkSetDownShowsDownAndUpAgainShowsUp) {
    control_ok({{"op", "link.set"}, {"interface", "GigabitEthernet1/0/1"}, {"state", "down"}});
    EXPECT_EQ(run_ok({"link", "show", "dev", "GigabitEthernet1/0/1"}),
              "2:  GigabitEthernet1/0/1  <DOWN>  mtu 1500  link/ether 00:e0:fc:00:00:02  vrf 0  type ethernet  node 1 (1/0/0)\n");
    Json j = run_json({"link", "show", "dev", "2"});
    ASSERT_EQ(j.size(), 1u) << j.dump();
    EXPECT_EQ(j[0]["operstate"], "DOWN");
    expect_fits(j, "link");
    EXPECT_EQ(run_ok({"-br", "link"}), text_of({
                                           "M-GigabitEthernet0/0/0  UP    <UP>",
                                           "GigabitEthernet1/0/1    DOWN  <DOWN>",
                                           "GigabitEthernet1/0/2    UP    <UP>",
                                           "GigabitEthernet1/1/1    UP    <UP>",
                                           "Vlan-interface1         UP    <UP,SPANS-NODES>",
                                           "Vlan-interface10        UP    <UP>",
                                           "LoopBack0               UP    <UP>",
                                           "Vsi-interface1          UP    <UP>",
                                       }));
    j = run_json({"-br", "link", "show", "dev", "2"});
    EXPECT_EQ(j, Json::parse(R"([{"ifname":"GigabitEthernet1/0/1","operstate":"DOWN","flags":[]}])"));
    expect_fits(j, "link_brief");

    control_ok({{"op", "link.set"}, {"interface", "GigabitEthernet1/0/1"}, {"state", "up"}});
    EXPECT_EQ(run_ok({"link", "show", "dev", "GigabitEthernet1/0/1"}),
              "2:  GigabitEthernet1/0/1  <UP>  mtu 1500  link/ether 00:e0:fc:00:00:02  vrf 0  type ethernet  node 1 (1/0/0)\n");
    EXPECT_EQ(run_json({"link", "show", "dev", "2"})[0]["operstate"], "UP");
    EXPECT_EQ(run_ok({"-br", "link"}), text_of(kBriefLinksUp));
}

// -s: the interface's MIB counters as the simulator reports them (ipstat.show), each a
// 64-bit value of its own so that no counter can stand for another.
TEST_F(IpctlLink, StatsOptionAddsTheInterfaceCounters) {
    control_ok({{"op", "ipstat.traffic"}, {"node", 1}, {"interface", "GigabitEthernet1/0/1"},
                {"mib", named(kMibNames, mib_ge1)}});
    const Json mib = control_ok({{"op", "ipstat.show"}, {"interface", "GigabitEthernet1/0/1"}})["mib"];
    const auto counter = [&mib](const char* name) {
        const auto at = std::find(kMibNames.begin(), kMibNames.end(), name) - kMibNames.begin();
        EXPECT_EQ(member(mib, name), Json(mib_ge1(static_cast<std::size_t>(at)))) << name;
        return mib_ge1(static_cast<std::size_t>(at));
    };
    const std::uint64_t rx_bytes = counter("in_octets"), rx_packets = counter("in_receives"),
                        rx_dropped = counter("in_discards");
    const std::uint64_t tx_bytes = counter("out_octets"), tx_packets = counter("out_transmits"),
                        tx_dropped = counter("out_discards");

    const Json j = run_json({"-s", "link", "show", "dev", "GigabitEthernet1/0/1"});
    ASSERT_EQ(j.size(), 1u) << j.dump();
    expect_record(j[0], {{"ifindex", 2},
                         {"ifname", "GigabitEthernet1/0/1"},
                         {"operstate", "UP"},
                         {"spans_nodes", false},
                         {"l2", false},
                         {"mtu", 1500},
                         {"address", "00:e0:fc:00:00:02"},
                         {"vrf", 0},
                         {"link_type", "ethernet"},
                         {"type_code", 6},
                         {"node", 1},
                         {"chassis", 1},
                         {"slot", 0},
                         {"cpu", 0},
                         {"stats64",
                          {{"rx", {{"bytes", rx_bytes}, {"packets", rx_packets}, {"dropped", rx_dropped}}},
                           {"tx", {{"bytes", tx_bytes}, {"packets", tx_packets}, {"dropped", tx_dropped}}}}}});
    expect_fits(j, "link");
    const std::string text = "2:  GigabitEthernet1/0/1  <UP>  mtu 1500  link/ether 00:e0:fc:00:00:02  vrf 0  type ethernet  "
                             "node 1 (1/0/0)  RX " + std::to_string(rx_packets) + " packets " + std::to_string(rx_bytes) +
                             " bytes " + std::to_string(rx_dropped) + " dropped  TX " + std::to_string(tx_packets) +
                             " packets " + std::to_string(tx_bytes) + " bytes " + std::to_string(tx_dropped) + " dropped\n";
    EXPECT_EQ(run_ok({"-s", "link", "show", "dev", "GigabitEthernet1/0/1"}), text);
    EXPECT_EQ(run_ok({"--stats", "link", "show", "dev", "2"}), text);
    ASSERT_EQ(text.substr(text.find("RX ")), "RX 4294967296 packets 8589934593 bytes 55834574860 dropped  "
                                             "TX 77309411345 packets 81604378642 bytes 68719476751 dropped\n");
}

TEST_F(IpctlMonitor, LinkDownIsAChangeOfItsOperstate) {
    ipctl_test::Proc text({IPCTL_PATH, "monitor", "link", "--count", "1"});
    expect_subscribed(text, "link");
    ipctl_test::Proc json({IPCTL_PATH, "-j", "monitor", "link", "--count", "1"});
    expect_subscribed(json, "link");
    control_ok({{"op", "link.set"}, {"interface", "GigabitEthernet1/0/1"}, {"state", "down"}});
    std::string line;
    ASSERT_TRUE(text.out_line(&line, 5s));
    EXPECT_EQ(unstamped(line), "link change dev GigabitEthernet1/0/1 state DOWN vrf 0");
    ASSERT_TRUE(json.out_line(&line, 5s));
    expect_record(event_of(line), {{"object", "link"},
                                   {"event", "change"},
                                   {"type", 6},
                                   {"dev", "GigabitEthernet1/0/1"},
                                   {"ifindex", 2},
                                   {"operstate", "DOWN"},
                                   {"vrf", 0}});
    EXPECT_EQ(text.wait(5s), 0);
    EXPECT_EQ(json.wait(5s), 0);
}

const Json kRouteAdd = {{"op", "route.add"},          {"prefix", "10.9.0.0/16"},     {"next_hop", "10.1.1.2"},
                        {"interface", "GigabitEthernet1/0/1"}, {"mac", "00:11:22:33:44:55"}, {"node", 1}};
const Json kRouteDel = {{"op", "route.del"}, {"prefix", "10.9.0.0/16"}, {"node", 1}};

// Each event is waited for before the next change: the monitor compares readings of the
// table, and a route added and deleted between two readings is no change.
TEST_F(IpctlMonitor, RouteAddedThenDeletedIsAnAddThenADelete) {
    ipctl_test::Proc monitor({IPCTL_PATH, "monitor", "route", "--count", "2"});
    expect_subscribed(monitor, "route");
    control_ok(kRouteAdd);
    std::string line;
    ASSERT_TRUE(monitor.out_line(&line, 5s));
    EXPECT_EQ(unstamped(line), "route add 10.9.0.0/16 vrf public via 10.1.1.2 dev GigabitEthernet1/0/1 node 1/0/0 "
                               "tunnel GigabitEthernet1/0/1 label Null");
    control_ok(kRouteDel);
    ASSERT_TRUE(monitor.out_line(&line, 5s));
    EXPECT_EQ(unstamped(line), "route delete 10.9.0.0/16 vrf public via 10.1.1.2 dev GigabitEthernet1/0/1 node 1/0/0 "
                               "tunnel GigabitEthernet1/0/1 label Null");
    EXPECT_EQ(monitor.wait(5s), 0);
}

// A route event carries the route as route show gives it, its "type" the route's type.
TEST_F(IpctlMonitor, RouteEventsInJsonFitTheSchema) {
    ipctl_test::Proc monitor({IPCTL_PATH, "-j", "monitor", "route", "--count", "2"});
    expect_subscribed(monitor, "route");
    control_ok(kRouteAdd);
    std::string line;
    ASSERT_TRUE(monitor.out_line(&line, 5s));
    Json expected = route("10.9.0.0/16", "public", "10.1.1.2", "GigabitEthernet1/0/1", 0, "00-11-22-33-44-55",
                          "00-e0-fc-00-00-02");
    expected["object"] = "route";
    expected["event"] = "add";
    expect_record(event_of(line), expected);  // event_of checks it against event.json
    control_ok(kRouteDel);
    ASSERT_TRUE(monitor.out_line(&line, 5s));
    expected["event"] = "delete";
    expect_record(event_of(line), expected);
    EXPECT_EQ(monitor.wait(5s), 0);
}

// IPv6 routes are found by prefix only: a change of the IPv6 tables is one event with the
// tables' change number, the one the simulator answers the change with.
TEST_F(IpctlMonitor, Ipv6TableChangeIsOneEventWithTheChangeNumber) {
    ipctl_test::Proc monitor({IPCTL_PATH, "-j", "monitor", "route", "--count", "1"});
    expect_subscribed(monitor, "route");
    const Json answer = control_ok({{"op", "route.add"}, {"prefix", "2001:db8:9::/48"}, {"interface", "GigabitEthernet1/0/1"}});
    ASSERT_TRUE(answer.contains("seq6")) << answer.dump();
    std::string line;
    ASSERT_TRUE(monitor.out_line(&line, 5s));
    expect_record(event_of(line), {{"object", "route"}, {"event", "change"}, {"family", "inet6"}, {"seq", answer["seq6"]}});
    EXPECT_EQ(monitor.wait(5s), 0);
}

}  // namespace
