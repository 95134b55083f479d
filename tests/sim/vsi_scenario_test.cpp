// The scenario's layer-2 VPN section: the bundled VSI, the defaults of a VSI and its
// circuits, and refused VSIs with the line and key of their first problem.
#include <gtest/gtest.h>

#include <string>

#include "scenario/scenario.hpp"

namespace sim::scenario {
namespace {

Error refusal(const std::string& text) {
    try {
        load_text(text, "vsi.yaml");
    } catch (const Error& e) {
        return e;
    }
    ADD_FAILURE() << "accepted:\n" << text;
    return Error("", -1, "", "");
}

// Lines 1 to 5: a node and two ports.
const std::string kDevice = "nodes:\n"
                            "  - {number: 1, role: master}\n"
                            "interfaces:\n"
                            "  - {index: 1, name: GigabitEthernet1/0/1, node: 1, type: ethernet}\n"
                            "  - {index: 2, name: GigabitEthernet1/0/2, node: 1, type: ethernet}\n";

TEST(ScenarioVsis, DefaultScenarioHasOneVsiWithItsInterfaceAndCircuit) {
    const Scenario s = load_default();
    ASSERT_EQ(s.vsis.size(), 1u);
    const Vsi& v = s.vsis[0];
    EXPECT_EQ(v.name, "vsi-a");
    EXPECT_EQ(v.index, 1u);
    ASSERT_TRUE(v.interface_number.has_value());
    EXPECT_EQ(*v.interface_number, 1u);
    ASSERT_TRUE(v.vxlan.has_value());
    EXPECT_EQ(*v.vxlan, 5001u);
    ASSERT_EQ(v.circuits.size(), 1u);
    EXPECT_EQ(v.circuits[0].ifindex, 2u) << "GigabitEthernet1/0/1";
    EXPECT_EQ(v.circuits[0].service, 10u);
    EXPECT_EQ(v.circuits[0].link, 1u);
    bool found = false;
    for (const Interface& i : s.interfaces) {
        if (i.name == "Vsi-interface1") {
            found = true;
            EXPECT_EQ(i.type, 122u);
        }
    }
    EXPECT_TRUE(found);
}

TEST(ScenarioVsis, OmittedKeysMeanNone) {
    const Scenario s = load_text(kDevice +
                                     "vsis:\n"
                                     "  - {name: bare, index: 0xFFFFFFFE}\n"
                                     "  - name: ac\n"
                                     "    index: 0\n"
                                     "    circuits:\n"
                                     "      - {interface: GigabitEthernet1/0/2, service: 4096}\n",
                                 "vsi.yaml");
    ASSERT_EQ(s.vsis.size(), 2u);
    EXPECT_EQ(s.vsis[0].index, 0xFFFFFFFEu);
    EXPECT_FALSE(s.vsis[0].interface_number.has_value());
    EXPECT_FALSE(s.vsis[0].vxlan.has_value());
    EXPECT_TRUE(s.vsis[0].circuits.empty());
    ASSERT_EQ(s.vsis[1].circuits.size(), 1u);
    EXPECT_EQ(s.vsis[1].circuits[0].ifindex, 2u);
    EXPECT_EQ(s.vsis[1].circuits[0].service, 4096u);
    EXPECT_EQ(s.vsis[1].circuits[0].link, 0xFFFFu);
}

TEST(ScenarioVsis, DuplicateIndexIsRefused) {
    const Error e = refusal(kDevice +
                            "vsis:\n"
                            "  - {name: a, index: 4}\n"
                            "  - {name: b, index: 4}\n");
    EXPECT_EQ(e.line(), 8);
    EXPECT_EQ(e.key(), "vsis[1].index");
    EXPECT_EQ(std::string(e.what()), "vsi.yaml:8: vsis[1].index: duplicate VSI index 4 (first at line 7)");
}

TEST(ScenarioVsis, DuplicateNameVsiInterfaceAndVxlanAreRefused) {
    EXPECT_EQ(refusal(kDevice + "vsis:\n  - {name: a, index: 1}\n  - {name: a, index: 2}\n").key(), "vsis[1].name");
    const Error shared_if = refusal(kDevice + "vsis:\n  - {name: a, index: 1, vsi_interface: 3}\n"
                                              "  - {name: b, index: 2, vsi_interface: 3}\n");
    EXPECT_EQ(shared_if.key(), "vsis[1].vsi_interface");
    EXPECT_EQ(shared_if.line(), 8);
    const Error shared_vxlan = refusal(kDevice + "vsis:\n  - {name: a, index: 1, vxlan: 9}\n"
                                                 "  - {name: b, index: 2, vxlan: 9}\n");
    EXPECT_EQ(shared_vxlan.key(), "vsis[1].vxlan");
}

TEST(ScenarioVsis, OutOfRangeValuesAreRefused) {
    EXPECT_EQ(refusal(kDevice + "vsis:\n  - {name: a, index: 0xFFFFFFFF}\n").key(), "vsis[0].index");
    EXPECT_EQ(refusal(kDevice + "vsis:\n  - {name: a, index: 1, vxlan: 0x1000000}\n").key(), "vsis[0].vxlan");
    EXPECT_EQ(refusal(kDevice + "vsis:\n  - {name: a, index: 1, vsi_interface: 0x80000000}\n").key(),
              "vsis[0].vsi_interface");
    const Error link = refusal(kDevice +
                               "vsis:\n"
                               "  - name: a\n"
                               "    index: 1\n"
                               "    circuits:\n"
                               "      - {interface: 1, service: 1, link: 65535}\n");
    EXPECT_EQ(link.key(), "vsis[0].circuits[0].link");
    EXPECT_EQ(link.line(), 10);
    EXPECT_EQ(refusal(kDevice + "vsis:\n  - {name: a, index: 1, circuits: [{interface: 1, service: 0}]}\n").key(),
              "vsis[0].circuits[0].service");
}

TEST(ScenarioVsis, CircuitOnAnUnknownInterfaceOrInTwoVsisIsRefused) {
    const Error unknown = refusal(kDevice + "vsis:\n  - {name: a, index: 1, circuits: [{interface: 9, service: 1}]}\n");
    EXPECT_EQ(unknown.key(), "vsis[0].circuits[0].interface");
    EXPECT_EQ(std::string(unknown.what()), "vsi.yaml:7: vsis[0].circuits[0].interface: no interface 9");
    const Error twice = refusal(kDevice +
                                "vsis:\n"
                                "  - {name: a, index: 1, circuits: [{interface: 1, service: 5}]}\n"
                                "  - {name: b, index: 2, circuits: [{interface: GigabitEthernet1/0/1, service: 5}]}\n");
    EXPECT_EQ(twice.key(), "vsis[1].circuits[0].service");
    EXPECT_EQ(twice.line(), 8);
}

TEST(ScenarioVsis, UnknownKeysAreRefused) {
    EXPECT_EQ(refusal(kDevice + "vsis:\n  - {name: a, index: 1, interface: 1}\n").key(), "vsis[0].interface");
    EXPECT_EQ(refusal(kDevice + "vsis:\n  - {name: a, index: 1, circuits: [{interface: 1, service: 1, vlan: 2}]}\n")
                  .key(),
              "vsis[0].circuits[0].vlan");
    EXPECT_EQ(refusal(kDevice + "vsis:\n  - {index: 1}\n").key(), "vsis[0].name");
}

}  // namespace
}  // namespace sim::scenario
