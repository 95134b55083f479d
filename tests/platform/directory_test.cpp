// The node and interface directory as tests script it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "ipplat/testctl.h"
#include "support/directory_interface.hpp"
#include "support/fixture.hpp"

namespace ipt {
namespace {

class DirectoryTest : public PlatformTest {};

TEST_F(DirectoryTest, NoNodeListByDefault) {
    std::uint32_t count = 7;
    EXPECT_EQ(DEV_GetAllNodes(&count), nullptr);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(DEV_GetAllStandbyNodes(&count), nullptr);
}

TEST_F(DirectoryTest, NodeListIsAFreshHeapCopy) {
    const std::uint16_t nodes[] = {3, 1, 2};
    ipp_dir_set_nodes(nodes, 3);
    std::uint32_t count = 0;
    std::uint16_t* a = DEV_GetAllNodes(&count);
    ASSERT_NE(a, nullptr);
    ASSERT_EQ(count, 3u);
    EXPECT_EQ(a[0], 3);
    EXPECT_EQ(a[2], 2);
    a[0] = 99;  // the caller may write it
    std::uint16_t* b = DEV_GetAllNodes(&count);
    EXPECT_EQ(b[0], 3);
    std::free(a);
    std::free(b);
}

TEST_F(DirectoryTest, EmptyListIsNotAbsentList) {
    ipp_dir_set_nodes(nullptr, 0);
    std::uint32_t count = 5;
    std::uint16_t* a = DEV_GetAllNodes(&count);
    EXPECT_NE(a, nullptr);
    EXPECT_EQ(count, 0u);
    std::free(a);
}

TEST_F(DirectoryTest, NodeRolesUpStateAndLocation) {
    ipp_dir_set_local_node(4);
    ipp_dir_set_self(5);
    ipp_dir_set_master(6);
    ipp_dir_set_master_ep(7);
    ipp_dir_set_node_up(4, 1);
    ipp_dir_set_node_location(4, 1, 2, 3);
    EXPECT_EQ(LIP_GetLocalLip(), 4u);
    EXPECT_EQ(DEV_GetSelf(), 5u);
    EXPECT_EQ(DEV_GetSystemMaster(), 6u);
    EXPECT_EQ(DEV_GetSystemMasterEP(), 7u);
    EXPECT_EQ(IF_IsNodeUp(4), 1u);
    EXPECT_EQ(IF_IsNodeUp(0xFFFF0004u), 1u);  // node words use their low 16 bits
    EXPECT_EQ(IF_IsNodeUp(8), 0u);
    EXPECT_EQ(LIP_GetChassID(4), 1);
    EXPECT_EQ(LIP_GetSlotID(4), 2);
    EXPECT_EQ(LIP_GetCpuID(4), 3);
}

TEST_F(DirectoryTest, MultiTenantContext) {
    ipp_dir_set_mdc(3, 1);
    EXPECT_EQ(MDC_GetCurrentMDC(), 3);
    EXPECT_EQ(MDC_IsChildMDC(3), 1u);
    EXPECT_EQ(MDC_IsChildMDC(1), 0u);
}

ipp_interface make(std::uint32_t ifindex, std::uint32_t type, const char* name) {
    return DirInterface(ifindex).node(9).name(name).type(type).flags(IF_FLAG_SPANS_NODES).kind(4).valid().visible()
        .get();
}

TEST_F(DirectoryTest, InterfaceDataItemsAndPredicates) {
    const ipp_interface itf = make(10, 41, "Route-Aggregation1");
    ipp_dir_add_interface(&itf);
    std::uint16_t node = 0;
    char name[IF_NAME_SIZE];
    std::uint32_t type = 0, flags = 0, kind = 0;
    EXPECT_EQ(IF_GetDataByIfIndex(10, IF_DATA_NODE, &node), 0u);
    EXPECT_EQ(IF_GetDataByIfIndex(10, IF_DATA_NAME, name), 0u);
    EXPECT_EQ(IF_GetDataByIfIndex(10, IF_DATA_TYPE, &type), 0u);
    EXPECT_EQ(IF_GetDataByIfIndex(10, IF_DATA_FLAGS, &flags), 0u);
    EXPECT_EQ(IF_GetDataByIfIndex(10, IF_DATA_KIND, &kind), 0u);
    EXPECT_EQ(node, 9);
    EXPECT_STREQ(name, "Route-Aggregation1");
    EXPECT_EQ(type, 41u);
    EXPECT_EQ(flags, IF_FLAG_SPANS_NODES);
    EXPECT_EQ(kind, 4u);
    EXPECT_EQ(IF_IsValidIfIndex(10), 1u);
    EXPECT_EQ(IF_IsVisible(10), 1u);
    EXPECT_EQ(IF_IsL2If(10), 0u);
    EXPECT_EQ(IF_IsTempIf(10), 0u);
    EXPECT_EQ(IF_IsConfigure(10), 0u);
    EXPECT_EQ(IF_IsValidIfIndex(11), 0u);
    EXPECT_EQ(IF_GetIfIndexByFullName("Route-Aggregation1"), 10u);
    EXPECT_EQ(IF_GetIfIndexByFullName("Vlan-interface1"), 0u);
}

TEST_F(DirectoryTest, FailingItemWritesNothing) {
    const ipp_interface itf = make(10, 41, "x");
    ipp_dir_add_interface(&itf);
    ipp_dir_fail_item(10, IF_DATA_NODE, 0x1234);
    std::uint16_t node = 0x8000;
    EXPECT_EQ(IF_GetDataByIfIndex(10, IF_DATA_NODE, &node), 0x1234u);
    EXPECT_EQ(node, 0x8000);
    std::uint32_t type = 0;
    EXPECT_EQ(IF_GetDataByIfIndex(10, IF_DATA_TYPE, &type), 0u);
    EXPECT_EQ(IF_GetDataByIfIndex(77, IF_DATA_TYPE, &type), 0x40010001u);
}

TEST_F(DirectoryTest, SelectionIteratesMatchingTypesInIndexOrder) {
    for (const auto& itf : {make(30, 15, "a"), make(10, 41, "b"), make(20, 15, "c"), make(40, 7, "d")}) {
        ipp_dir_add_interface(&itf);
    }
    IF_SELECT_S sel;
    ASSERT_EQ(IF_Select_Init(5, &sel), 0u);
    EXPECT_EQ(IF_SelectType_Set(15, &sel), 0u);
    EXPECT_EQ(IF_SelectType_Set(7, &sel), 0u);
    EXPECT_NE(IF_SelectType_Set(256, &sel), 0u);
    EXPECT_EQ(IF_SelectCondition_Set(8, &sel), 0u);
    EXPECT_EQ(IF_SelectType_Check(15, &sel), 1u);
    EXPECT_EQ(IF_SelectType_Check(41, &sel), 0u);
    void* it = IF_IteratorInitialize();
    ASSERT_NE(it, nullptr);
    EXPECT_EQ(IF_GetFirstIfIndexByIfSelect(it, &sel), 20u);
    EXPECT_EQ(IF_GetNextIfIndexByIfSelect(it, &sel), 30u);
    EXPECT_EQ(IF_GetNextIfIndexByIfSelect(it, &sel), 40u);
    EXPECT_EQ(IF_GetNextIfIndexByIfSelect(it, &sel), 0u);
    EXPECT_EQ(IF_GetNextIfIndexByIfSelect(it, &sel), 0u);
    IF_IteratorFinalize(it);
}

}  // namespace
}  // namespace ipt
