// The two neighbour families of owner tables, ARP (IPv4) and ND (IPv6), described for the
// tests that run once per family: their connections, OpenFlow batches and roaming detection,
// and the numbers they carry on the wire.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ipclient/arp.h"
#include "ipclient/nd.h"
#include "support/neigh_records.hpp"

namespace ipt::neigh {

// A family's numbers: its adjacency port, an OpenFlow entry's length and the most entries a
// batch carries, the message types of refresh, delete and roaming detection, and a roaming
// record's length.
template <std::uint16_t Port, std::size_t EntryLen, std::uint32_t EntryMax, std::uint8_t RefreshType,
          std::uint8_t DeleteType, std::uint8_t RoamingType, std::size_t RoamingRecord>
struct TableNumbers {
    static constexpr std::uint16_t kPort = Port;
    static constexpr std::size_t kEntryLen = EntryLen, kRoamingRecord = RoamingRecord;
    static constexpr std::uint32_t kEntryMax = EntryMax;
    static constexpr std::uint8_t kRefreshType = RefreshType, kDeleteType = DeleteType, kRoamingType = RoamingType;
};

// A family's calls on its table connections.
template <auto Connect, auto Disconnect, auto Refresh, auto Remove, auto RuleConnect, auto RuleDisconnect,
          auto Roaming>
struct TableCalls {
    static constexpr auto connect = Connect;
    static constexpr auto disconnect = Disconnect, rule_disconnect = RuleDisconnect;  // the same type
    static constexpr auto refresh = Refresh, remove = Remove;                        // the same type
    static constexpr auto rule_connect = RuleConnect;
    static constexpr auto roaming = Roaming;
};

struct ArpTables : TableNumbers<11537, ARP_OPENFLOW_ENTRY_LEN, ARP_OPENFLOW_ENTRY_MAX, 42, 43, 100, 8>,
                   TableCalls<&ARP_OpenFlowConnect, &ARP_OpenFlowDisconnect, &ARP_RefreshOpenFlowEntry,
                              &ARP_DeleteOpenFlowEntry, &ARP_RuleConnect, &ARP_RuleDisconnect,
                              &ARP_RoamingDetection> {
    static constexpr const char* kName = "Arp";
    static constexpr int kReplyFlags = 0;  // the status reply is read blocking
    // The entry's big-endian fields; the address at 4, the bytes at 12 and 34 travel as given.
    static constexpr Field kEntryFields[] = {{0, 4},  {8, 4},  {18, 2}, {20, 4}, {24, 4},
                                             {28, 2}, {30, 2}, {32, 2}, {36, 4}};
};

struct NdTables : TableNumbers<11554, ND_OPENFLOW_ENTRY_LEN, ND_OPENFLOW_ENTRY_MAX, 27, 28, 80, 20>,
                  TableCalls<&ND_OpenFlowConnect, &ND_OpenFlowDisconnect, &ND_RefreshOpenFlowEntry,
                             &ND_DeleteOpenFlowEntry, &ND_RuleConnect, &ND_RuleDisconnect, &ND_RoamingDetection> {
    static constexpr const char* kName = "Nd";
    static constexpr int kReplyFlags = 256;  // the status reply is read with the table flags
    // The entry's big-endian words; the address at 4 and the bytes at 24 travel as given.
    static constexpr Field kEntryFields[] = {{0, 4}, {20, 4}, {30, 2}, {32, 4}, {36, 4}, {40, 2}, {42, 2}, {44, 4}};
};

}  // namespace ipt::neigh
