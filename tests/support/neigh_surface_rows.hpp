// The owner-table rows both neighbour clients have in the surface table, for one family:
// the OpenFlow batches, the rule smooth messages and roaming detection, each function named
// with the family's prefix ("ARP_", "ND_").
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ipclient/arp.h"

#include "support/neigh_table_families.hpp"
#include "surface/neigh_rows.hpp"
#include "surface/surface.hpp"

namespace ipt::neigh {

using surface::Case;

// The private-data reader's null pointers.
template <auto PData>
std::vector<Case> pdata_rows(const std::string& name) {
    return {Case{name, "pData null",
                 [] {
                     std::uint64_t value = 0;
                     return PData(4, nullptr, 1, &value);
                 }},
            Case{name, "pulValue null", [] {
                     const std::uint8_t data[8] = {0, 1, 0, 4, 1, 2, 3, 4};
                     return PData(sizeof data, data, 1, nullptr);
                 }}};
}

// The VSI predicates never report errors: a missing library table or key reads as 0.
template <auto AcInVsi>
std::vector<Case> ac_in_vsi_rows(const std::string& name) {
    return {Case{name, "pstFunc null",
                 [] {
                     const std::uint8_t key[16] = {};
                     return AcInVsi(nullptr, key, 1);
                 },
                 0u},
            Case{name, "pEvcKey null", [] {
                     const ARP_L2VPN_FUNC_S table{};
                     return AcInVsi(&table, nullptr, 1);
                 }, 0u}};
}
template <auto IfInVsi>
std::vector<Case> if_in_vsi_rows(const std::string& name, const std::string& key_name) {
    return {Case{name, "pstFunc null", [] { return IfInVsi(nullptr, "vsi1", 0); }, 0u},
            Case{name, key_name + " null", [] {
                     const ARP_L2VPN_FUNC_S table{};
                     return IfInVsi(&table, nullptr, 0);
                 }, 0u}};
}

// A VSI suppression entry's refresh: a -1 descriptor, a null entry.
template <auto Refresh, typename Entry>
std::vector<Case> vsi_refresh_rows(const std::string& name) {
    return {Case{name, "iFd -1",
                 [] {
                     const Entry entry{};
                     return Refresh(-1, &entry);
                 }},
            Case{name, "pstEntry null", [] { return Refresh(5, nullptr); }}};
}

template <class F, auto SmoothStart, auto SmoothEnd, std::uint8_t ClassMax>
bool add_table_rows(const std::string& prefix) {
    using namespace ipt::surface;
    constexpr std::size_t kOneEntry = 6 + F::kEntryLen;  // the batch's head and one entry
    constexpr auto kRecord = static_cast<std::uint16_t>(F::kRoamingRecord);
    add(openflow_batch_rows<F::refresh, kOneEntry, F::kEntryMax>(prefix + "RefreshOpenFlowEntry"));
    add(openflow_batch_rows<F::remove, kOneEntry, F::kEntryMax>(prefix + "DeleteOpenFlowEntry"));
    add(rule_smooth_rows<SmoothStart, ClassMax>(prefix + "RuleSmoothStart"));
    add(rule_smooth_rows<SmoothEnd, ClassMax>(prefix + "RuleSmoothEnd"));
    return add(roaming_rows<F::roaming, kRecord>(prefix + "RoamingDetection"));
}

}  // namespace ipt::neigh
