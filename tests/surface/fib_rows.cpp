// FIB access given bad arguments.
#include <cstdint>
#include <vector>

#include "ipclient/fib.h"
#include "ipplat/testctl.h"
#include "surface/surface.hpp"

namespace {

using ipt::surface::Case;
using ipt::surface::Exempt;

// One running node, so that a counter reader that went on would ask it.
void one_node_up() {
    const std::uint16_t nodes[] = {1};
    ipp_dir_set_local_node(1);
    ipp_dir_set_nodes(nodes, 1);
    ipp_dir_set_node_up(1, 1);
}

FIB4_SEARCH_KEY_S default_route_key() {
    FIB4_SEARCH_KEY_S key{};
    key.uiInstance = 0xFFFFFFFFu;
    key.usFamily = 2;
    return key;
}

std::vector<std::uint8_t> entries(std::size_t count) {
    return std::vector<std::uint8_t>(count * FIB_SEARCH_ENTRY_SIZE);
}

const bool registered = ipt::surface::add({
    Case{"FIB4_SearchInfo", "pKey null",
         [] {
             std::uint64_t count = 4;
             auto buf = entries(4);
             return FIB4_SearchInfo(nullptr, &count, buf.data());
         }},
    Case{"FIB4_SearchInfo", "pulCount null",
         [] {
             const FIB4_SEARCH_KEY_S key = default_route_key();
             auto buf = entries(4);
             return FIB4_SearchInfo(&key, nullptr, buf.data());
         }},
    Case{"FIB4_SearchInfo", "pEntries null",
         [] {
             const FIB4_SEARCH_KEY_S key = default_route_key();
             std::uint64_t count = 4;
             return FIB4_SearchInfo(&key, &count, nullptr);
         }},
    // The IPv4 form refuses a count of 0; the IPv6 form sends it, so it has no such row.
    Case{"FIB4_SearchInfo", "*pulCount 0",
         [] {
             const FIB4_SEARCH_KEY_S key = default_route_key();
             std::uint64_t count = 0;
             auto buf = entries(1);
             return FIB4_SearchInfo(&key, &count, buf.data());
         }},
    Case{"FIB6_SearchInfo", "pKey null",
         [] {
             std::uint64_t count = 4;
             auto buf = entries(4);
             return FIB6_SearchInfo(nullptr, &count, buf.data());
         }},
    Case{"FIB6_SearchInfo", "pulCount null",
         [] {
             const std::uint8_t key[FIB6_SEARCH_KEY_SIZE] = {};
             auto buf = entries(4);
             return FIB6_SearchInfo(key, nullptr, buf.data());
         }},
    Case{"FIB6_SearchInfo", "pEntries null",
         [] {
             const std::uint8_t key[FIB6_SEARCH_KEY_SIZE] = {};
             std::uint64_t count = 4;
             return FIB6_SearchInfo(key, &count, nullptr);
         }},
    Case{"FIB4_Get_SpecData", "pstData null", [] { return FIB4_Get_SpecData(nullptr); }},
    Case{"FIB6_Get_SpecData", "pstData null", [] { return FIB6_Get_SpecData(nullptr); }},
    Case{.function = "FIB_GetConCheckStat", .argument = "pulTotal null",
         .call = [] {
             one_node_up();
             FIB_GetConCheckStat(1, nullptr);
             return 0u;
         },
         .any_result = true},
    Case{.function = "FIB_GetAlarmThresholdStat", .argument = "pulTotal null",
         .call = [] {
             one_node_up();
             FIB_GetAlarmThresholdStat(1, nullptr);
             return 0u;
         },
         .any_result = true},
    // A null path is a file that cannot be opened, which the dump reports as 0x4001000B.
    Case{"FIB_SaveForwardingTable", "pcPath null",
         [] {
             one_node_up();
             return FIB_SaveForwardingTable(nullptr);
         },
         0x4001000Bu},
});

const bool exempted = ipt::surface::exempt({
    {"FIB4_GetRouteChangeSeq", "no argument"},
    {"FIB6_GetRouteChangeSeq", "no argument"},
});

}  // namespace
