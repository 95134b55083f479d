// IP statistics and forwarding settings given bad arguments.
#include <cstdint>

#include "ipclient/ipstat.h"
#include "ipplat/testctl.h"
#include "support/directory_interface.hpp"
#include "surface/surface.hpp"

namespace {

using ipt::surface::Case;
using ipt::surface::Exempt;

constexpr const char* kNoArgument = "no argument";
constexpr std::uint32_t kIfIndex = 7;

// One running node, the local one, that owns interface 7: a reader that went on would ask it.
void one_node_up() {
    const std::uint16_t nodes[] = {1};
    ipp_dir_set_local_node(1);
    ipp_dir_set_self(1);
    ipp_dir_set_nodes(nodes, 1);
    ipp_dir_set_node_up(1, 1);
    ipt::DirInterface(kIfIndex).node(1).valid().add();
}

const bool registered = ipt::surface::add({
    Case{"IP_GetIPStat", "puiCounters null", [] { return IP_GetIPStat(1, 1, nullptr); }},
    Case{.function = "IP_GetShowIpStat", .argument = "puiCounters null",
         .call = [] {
             one_node_up();
             IP_GetShowIpStat(nullptr);
             return 0u;
         },
         .any_result = true},
    Case{.function = "IP_GetStat", .argument = "puiCounters null",
         .call = [] {
             one_node_up();
             IP_GetStat(nullptr);
             return 0u;
         },
         .any_result = true},
    Case{"IP_GetIPFWIfStat_ByNode", "pulCounters null",
         [] {
             one_node_up();
             std::uint16_t done = 0;
             return IP_GetIPFWIfStat_ByNode(1, kIfIndex, nullptr, &done);
         }},
    Case{"IP_GetIPFWIfStat_ByNode", "pusDone null",
         [] {
             one_node_up();
             std::uint64_t counters[IP_FWIF_COUNTERS] = {};
             return IP_GetIPFWIfStat_ByNode(1, kIfIndex, counters, nullptr);
         }},
    Case{"IP_GetIPFWIfStat", "uiIfIndex 0",
         [] {
             one_node_up();
             std::uint64_t counters[IP_FWIF_COUNTERS] = {};
             return IP_GetIPFWIfStat(0, counters);
         }},
    Case{"IP_GetIPFWIfStat", "pulCounters null",
         [] {
             one_node_up();
             return IP_GetIPFWIfStat(kIfIndex, nullptr);
         }},
    Case{"IP_ClearIPFWIfStat", "uiIfIndex 0",
         [] {
             one_node_up();
             return IP_ClearIPFWIfStat(0);
         }},
    Case{"IP_GetICMPIfStat", "puiCounters null", [] { return IP_GetICMPIfStat(kIfIndex, nullptr); }},
    Case{"IP_GetIPIfMIBStat", "pulCounters null",
         [] {
             one_node_up();
             return IP_GetIPIfMIBStat(1, kIfIndex, nullptr);
         }},
    Case{"IP_GetMibIfStat", "uiIfIndex 0",
         [] {
             one_node_up();
             std::uint64_t counters[IP_MIBIF_COUNTERS] = {};
             return IP_GetMibIfStat(0, counters);
         }},
    Case{"IP_GetMibIfStat", "pulCounters null",
         [] {
             one_node_up();
             return IP_GetMibIfStat(kIfIndex, nullptr);
         }},
    Case{"IP_GetBpaStat", "pulRecords null",
         [] {
             one_node_up();
             return IP_GetBpaStat(kIfIndex, nullptr);
         }},
    // The reply length, 0 on any failure.
    Case{"IP_GetBpaCfg", "puiValue null", [] { return IP_GetBpaCfg(kIfIndex, nullptr); }, 0u},
    Case{"IP_GetEcmp", "puiEcmp null", [] { return IP_GetEcmp(1, 0x40000u, nullptr); }},
    Case{"IP_GetLoadSharingMode", "puiMode null", [] { return IP_GetLoadSharingMode(1, 0x40000u, nullptr); }},
    Case{"IP_GetEcmpMode", "puiMode null", [] { return IP_GetEcmpMode(0x40000u, nullptr); }},
    Case{"IP_GetConf", "puiConf null", [] { return IP_GetConf(16, nullptr); }},
    Case{"IP_GetConf", "uiSize 15, below the four words",
         [] {
             std::uint32_t conf[4] = {};
             return IP_GetConf(15, conf);
         }},
    Case{"IP_GetIfMTU", "puiMtu null", [] { return IP_GetIfMTU(kIfIndex, nullptr); }},
    Case{"IP_GetIPFWConf", "pusConf null", [] { return IP_GetIPFWConf(nullptr); }},

    // The selection goes to the platform, which refuses a null one; the result carries that.
    Case{"IP_StatSetSelectIfType", "pstSelection null", [] { return IP_StatSetSelectIfType(nullptr); }},
    Case{"IP_SetBpaIfType", "pstSelection null", [] { return IP_SetBpaIfType(nullptr); }},
    Case{"IP_loadsharing_path_SelectIfType", "pstSelection null",
         [] { return IP_loadsharing_path_SelectIfType(nullptr); }},
});

const bool exempted = ipt::surface::exempt({
    {"IP_ClearIPFWIfStat_ByNode", "no pointer, descriptor or ranged argument; a node that is not up is skipped"},
    {"IP_SetIPDefaultTTL", "no pointer, descriptor or ranged argument: the TTL is forwarded as it stands"},
    {"IP_GetDefTTL", kNoArgument},
    {"IP_SetDefTTL", kNoArgument},
    {"IP_SetForwarding", kNoArgument},
    {"IP_GetForwarding", kNoArgument},
    {"IP_StatIfIndexValidCheck", "no pointer, descriptor or ranged argument; the result is 1 or 0"},
    {"IP_IsBpaSupportedIf", "no pointer, descriptor or ranged argument; the result is 1 or 0"},
});

}  // namespace
