// The interface types counted for statistics, supporting BPA and carrying load-sharing
// paths: what each selector adds, in which order, what it returns, and the interface checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "ipstat/ipstat_support.hpp"
#include "ipstat/select_hooks.hpp"

namespace ipt {
namespace {

namespace hooks = select_hooks;
using hooks::Kind;

const std::vector<std::uint32_t> kStatTypes = {67, 19, 21, 68, 69, 88, 123, 143, 167, 23,
                                               25, 70, 71, 89, 124, 144, 168, 41, 39};
const std::vector<std::uint32_t> kBpaTypes = {39, 22, 35, 105, 27, 7,  2,  1,   6,   10,  42,  29,
                                              31, 23, 5,  41,  25, 26, 28, 47,  55,  67,  70,  86,
                                              71, 89, 97, 11,  40, 122, 124, 144, 168, 176};
const std::vector<std::uint32_t> kLoadSharingTypes = {19,  21,  68,  69,  23,  25,  70,  71,  121,
                                                      122, 123, 124, 143, 167, 144, 168, 175, 176};

std::vector<std::uint32_t> sorted(std::vector<std::uint32_t> v) {
    std::sort(v.begin(), v.end());
    return v;
}

std::vector<std::uint32_t> without(std::vector<std::uint32_t> v, std::uint32_t type) {
    v.erase(std::remove(v.begin(), v.end(), type), v.end());
    return v;
}

bool contains(const std::vector<std::uint32_t>& v, std::uint32_t t) {
    return std::find(v.begin(), v.end(), t) != v.end();
}

class IpStatIfTypesTest : public IpStatTest {
protected:
    IpStatIfTypesTest() { hooks::reset(); }
    ~IpStatIfTypesTest() override { hooks::reset(); }

    // The types a selection holds, in increasing order (read without recording).
    static std::vector<std::uint32_t> selected(const IF_SELECT_S& s) {
        std::vector<std::uint32_t> types;
        for (std::uint32_t t = 0; t < 256; ++t) {
            if ((s.auiTypeBits[t / 32] >> (t % 32) & 1u) != 0) types.push_back(t);
        }
        return types;
    }

    // Every recorded call of a kind used this selection.
    static void expect_all_on(Kind kind, const IF_SELECT_S* s) {
        for (const hooks::Call& c : hooks::calls()) {
            if (c.kind == kind) {
                EXPECT_EQ(c.sel, s);
            }
        }
    }

    static ipp_interface counted_interface(std::uint32_t ifindex, std::uint32_t type) {
        return make_interface(ifindex, 1, type);
    }

    IF_SELECT_S sel{};
};

// ---- Statistics types ------------------------------------------------------------------------

TEST_F(IpStatIfTypesTest, TheLibrarysSelectionCallsAreObserved) {
    EXPECT_EQ(IP_StatSetSelectIfType(&sel), 0u);
    EXPECT_FALSE(hooks::calls().empty()) << "the selection calls did not reach the test's definitions";
}

TEST_F(IpStatIfTypesTest, StatSetSelectIfTypeAddsTheNineteenStatisticsTypesInOrder) {
    EXPECT_EQ(IP_StatSetSelectIfType(&sel), 0u);
    EXPECT_EQ(hooks::values(Kind::kSetType), kStatTypes);
    expect_all_on(Kind::kSetType, &sel);
    EXPECT_TRUE(hooks::values(Kind::kInit).empty());
    EXPECT_EQ(selected(sel), sorted(kStatTypes));
}

TEST_F(IpStatIfTypesTest, StatSetSelectIfTypeReturnsTheResultOfTheLastAddition) {
    hooks::fail_type(88, 0x111u);  // in the middle: later successes hide it
    EXPECT_EQ(IP_StatSetSelectIfType(&sel), 0u);
    EXPECT_EQ(selected(sel), sorted(without(kStatTypes, 88)));
    hooks::reset();
    IF_SELECT_S other{};
    hooks::fail_type(39, 0x222u);  // the last one
    EXPECT_EQ(IP_StatSetSelectIfType(&other), 0x222u);
    EXPECT_EQ(hooks::values(Kind::kSetType), kStatTypes);
}

// ---- Load-sharing path types ----------------------------------------------------------------

TEST_F(IpStatIfTypesTest, LoadSharingPathSelectIfTypeAddsTheEighteenTypesInOrder) {
    EXPECT_EQ(IP_loadsharing_path_SelectIfType(&sel), 0u);
    EXPECT_EQ(hooks::values(Kind::kSetType), kLoadSharingTypes);
    expect_all_on(Kind::kSetType, &sel);
    EXPECT_TRUE(hooks::values(Kind::kInit).empty());
    EXPECT_EQ(selected(sel), sorted(kLoadSharingTypes));
}

TEST_F(IpStatIfTypesTest, LoadSharingPathSelectIfTypeReturnsTheResultOfTheLastAddition) {
    hooks::fail_type(121, 0x333u);
    EXPECT_EQ(IP_loadsharing_path_SelectIfType(&sel), 0u);
    EXPECT_EQ(selected(sel), sorted(without(kLoadSharingTypes, 121)));
    hooks::reset();
    IF_SELECT_S other{};
    hooks::fail_type(176, 0x444u);
    EXPECT_EQ(IP_loadsharing_path_SelectIfType(&other), 0x444u);
}

// ---- BPA types -------------------------------------------------------------------------------

TEST_F(IpStatIfTypesTest, SetBpaIfTypeInitialisesModeFiveAndAddsTheBpaTypesInOrder) {
    sel.uiMode = 9;
    sel.uiCondition = 0xFF;
    sel.auiTypeBits[6] = 0xFFFFFFFFu;  // types 192 to 223, none of them BPA types
    EXPECT_EQ(IP_SetBpaIfType(&sel), 0u);
    const auto calls = hooks::calls();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls.front().kind, Kind::kInit);
    EXPECT_EQ(hooks::values(Kind::kInit), (std::vector<std::uint32_t>{5}));
    EXPECT_EQ(hooks::values(Kind::kSetType), kBpaTypes);
    expect_all_on(Kind::kSetType, &sel);
    EXPECT_EQ(sel.uiMode, 5u);
    EXPECT_EQ(sel.uiCondition, 0u);
    EXPECT_EQ(selected(sel), sorted(kBpaTypes));
}

TEST_F(IpStatIfTypesTest, SetBpaIfTypeReturnsTheOrOfAllResultsAndKeepsAddingAfterAFailure) {
    hooks::fail_type(105, 0x100u);
    hooks::fail_type(7, 0x001u);
    EXPECT_EQ(IP_SetBpaIfType(&sel), 0x101u);
    EXPECT_EQ(hooks::values(Kind::kSetType), kBpaTypes);
    EXPECT_EQ(selected(sel), sorted(without(without(kBpaTypes, 105), 7)));
    EXPECT_EQ(IF_SelectType_Check(176, &sel), 1u);
}

TEST_F(IpStatIfTypesTest, SetBpaIfTypeOnANullSelectionReturnsTheFailure) {
    EXPECT_EQ(IP_SetBpaIfType(nullptr), kFailed);
    EXPECT_EQ(hooks::values(Kind::kSetType).size(), kBpaTypes.size());
}

// ---- Interfaces counted for statistics -----------------------------------------------------

TEST_F(IpStatIfTypesTest, StatIfIndexValidCheckCountsEveryStatisticsType) {
    for (const std::uint32_t type : kStatTypes) {
        add_interface(counted_interface(0x100, type));
        EXPECT_EQ(IP_StatIfIndexValidCheck(0x100), 1u) << "type " << type;
    }
}

TEST_F(IpStatIfTypesTest, StatIfIndexValidCheckDoesNotCountOtherTypes) {
    for (const std::uint32_t type : {0u, 1u, 22u, 105u, 120u, 121u, 175u, 176u, 255u}) {
        ASSERT_FALSE(contains(kStatTypes, type));
        add_interface(counted_interface(0x100, type));
        EXPECT_EQ(IP_StatIfIndexValidCheck(0x100), 0u) << "type " << type;
    }
}

TEST_F(IpStatIfTypesTest, StatIfIndexValidCheckBuildsItsSelectionAndChecksTheInterfaceType) {
    add_interface(counted_interface(0x100, 23));
    EXPECT_EQ(IP_StatIfIndexValidCheck(0x100), 1u);
    const auto calls = hooks::calls();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls.front().kind, Kind::kInit);
    EXPECT_EQ(hooks::values(Kind::kInit), (std::vector<std::uint32_t>{5}));
    EXPECT_EQ(hooks::values(Kind::kSetType), kStatTypes);
    EXPECT_EQ(hooks::values(Kind::kCondition), (std::vector<std::uint32_t>{8}));
    EXPECT_EQ(hooks::values(Kind::kCheck), (std::vector<std::uint32_t>{23}));
    EXPECT_EQ(calls.back().kind, Kind::kCheck);
    const IF_SELECT_S* used = calls.front().sel;
    ASSERT_NE(used, nullptr);
    for (const hooks::Call& c : calls) EXPECT_EQ(c.sel, used);
}

TEST_F(IpStatIfTypesTest, StatIfIndexValidCheckRequiresValidNotTemporaryVisibleAndConfigured) {
    struct Case {
        const char* what;
        std::uint8_t valid, temp, visible, configured;
        std::uint32_t want;
    };
    const Case cases[] = {
        {"all set", 1, 0, 1, 1, 1},
        {"not valid", 0, 0, 1, 1, 0},
        {"temporary", 1, 1, 1, 1, 0},
        {"not visible", 1, 0, 0, 1, 0},
        {"not configured", 1, 0, 1, 0, 0},
        {"none", 0, 1, 0, 0, 0},
    };
    for (const Case& k : cases) {
        hooks::reset();
        ipp_interface itf = counted_interface(0x200, 71);
        itf.valid = k.valid;
        itf.temp = k.temp;
        itf.visible = k.visible;
        itf.configured = k.configured;
        add_interface(itf);
        EXPECT_EQ(IP_StatIfIndexValidCheck(0x200), k.want) << k.what;
        if (k.want == 0) {
            EXPECT_TRUE(hooks::calls().empty()) << k.what << ": no selection is built";
        }
    }
}

TEST_F(IpStatIfTypesTest, StatIfIndexValidCheckOfAnUnknownInterfaceIsZero) {
    EXPECT_EQ(IP_StatIfIndexValidCheck(0x12345), 0u);
    EXPECT_EQ(IP_StatIfIndexValidCheck(0), 0u);
}

TEST_F(IpStatIfTypesTest, StatIfIndexValidCheckIsZeroWhenTheConditionCannotBeSet) {
    add_interface(counted_interface(0x100, 23));
    hooks::fail_condition(1);
    EXPECT_EQ(IP_StatIfIndexValidCheck(0x100), 0u);
    EXPECT_TRUE(hooks::values(Kind::kCheck).empty());
}

TEST_F(IpStatIfTypesTest, StatIfIndexValidCheckIsZeroWhenTheTypeCannotBeRead) {
    add_interface(counted_interface(0x100, 23));
    ipp_dir_fail_item(0x100, IF_DATA_TYPE, 0x40010001u);
    EXPECT_EQ(IP_StatIfIndexValidCheck(0x100), 0u);
}

// ---- Interfaces supporting BPA ----------------------------------------------------------------

TEST_F(IpStatIfTypesTest, IsBpaSupportedIfAcceptsEveryBpaTypeWithoutAskingVisibilityOrConfiguration) {
    for (const std::uint32_t type : kBpaTypes) {
        ipp_interface itf = make_interface(0x300, 1, type);
        itf.visible = 0;
        itf.configured = 0;
        add_interface(itf);
        EXPECT_EQ(IP_IsBpaSupportedIf(0x300), 1u) << "type " << type;
    }
}

TEST_F(IpStatIfTypesTest, IsBpaSupportedIfRejectsOtherTypes) {
    for (const std::uint32_t type : {0u, 3u, 19u, 21u, 68u, 88u, 120u, 121u, 175u, 255u}) {
        ASSERT_FALSE(contains(kBpaTypes, type));
        add_interface(make_interface(0x300, 1, type));
        EXPECT_EQ(IP_IsBpaSupportedIf(0x300), 0u) << "type " << type;
    }
}

TEST_F(IpStatIfTypesTest, IsBpaSupportedIfRequiresAValidInterfaceThatIsNotTemporary) {
    ipp_interface itf = make_interface(0x300, 1, 22);
    itf.valid = 0;
    add_interface(itf);
    EXPECT_EQ(IP_IsBpaSupportedIf(0x300), 0u);
    itf.valid = 1;
    itf.temp = 1;
    add_interface(itf);
    EXPECT_EQ(IP_IsBpaSupportedIf(0x300), 0u);
    itf.temp = 0;
    add_interface(itf);
    EXPECT_EQ(IP_IsBpaSupportedIf(0x300), 1u);
    EXPECT_EQ(IP_IsBpaSupportedIf(0x301), 0u);  // unknown
}

TEST_F(IpStatIfTypesTest, IsBpaSupportedIfIsZeroWhenTheTypeCannotBeRead) {
    add_interface(make_interface(0x300, 1, 22));
    ipp_dir_fail_item(0x300, IF_DATA_TYPE, 0x40010001u);
    EXPECT_EQ(IP_IsBpaSupportedIf(0x300), 0u);
}

}  // namespace
}  // namespace ipt
