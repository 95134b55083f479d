// A lab's topology file: what it reads, and every problem refused with the file, the line and
// the key where it sits.
#include <gtest/gtest.h>

#include <string>

#include "lab/topology.hpp"
#include "scenario/scenario.hpp"

namespace {

using sim::lab::load_topology_text;

const char* const kLine = R"(lab: line3
devices:
  - name: r1
    interfaces:
      - {name: eth1, addresses: [10.0.12.1/24, "2001:db8:12::1/64"], mtu: 1400}
      - {name: lo, addresses: [1.1.1.1/32]}
      - {name: d0, kind: dummy}
    routes:
      - {to: 10.0.23.0/24, via: 10.0.12.2}
      - {to: 10.9.0.0/16, type: blackhole}
      - {to: default, dev: eth1, metric: 100}
    sysctls: {net.ipv4.ip_forward: 1}
    run: ["sleep 1000"]
  - name: r2
    interfaces:
      - {name: eth1, addresses: [10.0.12.2/24]}
      - {name: eth2, addresses: [10.0.23.2/24]}
  - name: r3
  - {name: s1, source: scenario}
links:
  - {a: "r1:eth1", b: "r2:eth1", delay_ms: 5, loss: 0.5}
  - {a: "r2:eth2", b: "r3:eth1", state: down}
)";

// The message of the error a text raises, "" when it reads.
std::string refusal(const std::string& text) {
    try {
        (void)load_topology_text(text, "lab.yaml");
    } catch (const sim::scenario::Error& e) {
        return e.what();
    }
    return "";
}

TEST(LabTopology, ALineOfThreeDevicesReads) {
    const auto t = load_topology_text(kLine, "/labs/line3.yaml");
    EXPECT_EQ(t.name, "line3");
    ASSERT_EQ(t.devices.size(), 4u);
    const auto& r1 = t.devices[0];
    EXPECT_EQ(r1.name, "r1");
    EXPECT_TRUE(r1.linux_source);
    ASSERT_EQ(r1.interfaces.size(), 3u);
    EXPECT_EQ(r1.interfaces[0].addresses, (std::vector<std::string>{"10.0.12.1/24", "2001:db8:12::1/64"}));
    EXPECT_EQ(r1.interfaces[0].mtu, 1400u);
    EXPECT_EQ(r1.interfaces[1].kind, "loopback");
    EXPECT_EQ(r1.interfaces[2].kind, "dummy");
    ASSERT_EQ(r1.routes.size(), 3u);
    EXPECT_EQ(r1.routes[0].via, "10.0.12.2");
    EXPECT_EQ(r1.routes[1].type, "blackhole");
    EXPECT_EQ(r1.routes[2].metric, 100u);
    EXPECT_EQ(r1.sysctls, (std::vector<std::pair<std::string, std::string>>{{"net.ipv4.ip_forward", "1"}}));
    EXPECT_EQ(r1.run, (std::vector<std::string>{"sleep 1000"}));
    EXPECT_FALSE(t.devices[3].linux_source);
    ASSERT_EQ(t.links.size(), 2u);
    EXPECT_EQ(t.links[0].a.device, "r1");
    EXPECT_EQ(t.links[0].b.interface, "eth1");
    EXPECT_EQ(t.links[0].delay_ms, 5u);
    EXPECT_DOUBLE_EQ(*t.links[0].loss, 0.5);
    EXPECT_TRUE(t.links[0].up);
    EXPECT_FALSE(t.links[1].up);
}

TEST(LabTopology, AnUnknownDeviceInALinkIsRefused) {
    EXPECT_EQ(refusal("lab: x\ndevices:\n  - name: r1\nlinks:\n  - {a: \"r1:eth1\", b: \"r9:eth1\"}\n"),
              "lab.yaml:5: links[0].b: unknown device \"r9\"");
}

TEST(LabTopology, AnInterfaceInTwoLinksIsRefused) {
    EXPECT_EQ(refusal("lab: x\ndevices:\n  - name: r1\n  - name: r2\n  - name: r3\nlinks:\n"
                      "  - {a: \"r1:eth1\", b: \"r2:eth1\"}\n  - {a: \"r3:eth1\", b: \"r1:eth1\"}\n"),
              "lab.yaml:8: links[1].b: interface r1:eth1 is already in the link at line 7");
}

TEST(LabTopology, ADuplicateDeviceNameIsRefused) {
    EXPECT_EQ(refusal("lab: x\ndevices:\n  - name: r1\n  - name: r1\n"),
              "lab.yaml:4: devices[1].name: duplicate device \"r1\" (first at line 3)");
}

TEST(LabTopology, ABadAddressIsRefused) {
    EXPECT_EQ(refusal("lab: x\ndevices:\n  - name: r1\n    interfaces:\n      - {name: d0, kind: dummy, addresses: [10.0.0.300/24]}\n"),
              "lab.yaml:5: devices[0].interfaces[0].addresses[0]: bad address \"10.0.0.300/24\" (expected an IPv4 address "
              "with a prefix length 0..32, such as 10.0.12.1/24)");
}

TEST(LabTopology, AnInterfaceNoLinkEndsAtIsRefused) {
    EXPECT_EQ(refusal("lab: x\ndevices:\n  - name: r1\n    interfaces:\n      - {name: eth1}\n"),
              "lab.yaml:5: devices[0].interfaces[0]: no link ends at r1:eth1 (give it kind dummy, or a link)");
}

TEST(LabTopology, UnknownKeysAndBadNamesAreRefused) {
    EXPECT_EQ(refusal("lab: x\ndevices:\n  - {name: r1, colour: red}\n"), "lab.yaml:3: devices[0].colour: unknown key");
    EXPECT_EQ(refusal("lab: a-lab-name-too-long\ndevices:\n  - name: r1\n"),
              "lab.yaml:1: lab: bad lab name \"a-lab-name-too-long\" (1 to 12 letters, digits, '-' or '_', starting with a "
              "letter or a digit)");
    EXPECT_EQ(refusal("lab: x\ndevices:\n  - name: r1\nlinks:\n  - {a: r1, b: \"r1:e\"}\n"),
              "lab.yaml:5: links[0].a: bad link end \"r1\" (expected DEVICE:INTERFACE, such as r1:eth1)");
    EXPECT_EQ(refusal("lab: x\ndevices: []\n"), "lab.yaml:2: devices: a lab has at least one device");
}

TEST(LabTopology, AScenarioDeviceTakesNoLink) {
    EXPECT_EQ(refusal("lab: x\ndevices:\n  - name: r1\n  - {name: s1, source: scenario}\nlinks:\n  - {a: \"r1:e1\", b: \"s1:e1\"}\n"),
              "lab.yaml:6: links[0].b: a scenario device takes no link: \"s1\"");
}

TEST(LabTopology, RoutesAreChecked) {
    EXPECT_EQ(refusal("lab: x\ndevices:\n  - name: r1\n    routes:\n      - {to: 10.0.0.0/8}\n"),
              "lab.yaml:5: devices[0].routes[0]: a route needs via or dev");
    EXPECT_EQ(refusal("lab: x\ndevices:\n  - name: r1\n    routes:\n      - {to: 10.0.0.0/8, type: blackhole, via: 1.2.3.4}\n"),
              "lab.yaml:5: devices[0].routes[0]: a blackhole route has no via and no dev");
}

TEST(LabTopology, AScenarioPathIsTheTopologysNeighbour) {
    const auto t = load_topology_text("lab: x\ndevices:\n  - {name: s1, source: scenario, scenario: s1.yaml}\n", "/labs/x.yaml");
    EXPECT_EQ(t.devices[0].scenario, "/labs/s1.yaml");
}

}  // namespace
