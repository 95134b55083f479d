// Walking an interface's addresses against a module that keeps a small ordered table,
// batches of addresses, and the directed-broadcast test.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "ipclient/ipaddr.h"
#include "ipplat/testctl.h"
#include "support/addr_samples.hpp"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"
#include "support/kernel_call.hpp"

namespace ipt {
namespace {

constexpr std::uint32_t kOwnNode = 0xFFFF8000u;
constexpr std::uint32_t kAddressCommand = 0x260001u;
constexpr std::uint32_t kLastBatch = 0x60010023u;
constexpr std::uint32_t kModuleStatus = 0x5A5A0107u;
constexpr std::uint32_t kIfA = 0x00010203u;
constexpr std::uint32_t kIfB = 0x00040506u;
constexpr std::uint32_t kIfEmpty = 0x00070809u;
constexpr std::uint32_t kMethods = IPADDR_METHOD_MANUAL | IPADDR_METHOD_DHCP;

std::uint32_t ip(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
    const std::uint8_t bytes[4] = {a, b, c, d};
    std::uint32_t w;
    std::memcpy(&w, bytes, sizeof w);
    return w;
}

// The address in host byte order, for ordering.
std::uint32_t host_value(std::uint32_t network_word) {
    std::uint8_t b[4];
    std::memcpy(b, &network_word, 4);
    return (std::uint32_t{b[0]} << 24) | (std::uint32_t{b[1]} << 16) | (std::uint32_t{b[2]} << 8) |
           std::uint32_t{b[3]};
}

std::uint32_t be32_at(const Bytes& b, std::size_t at) {
    return (std::uint32_t{b[at]} << 24) | (std::uint32_t{b[at + 1]} << 16) | (std::uint32_t{b[at + 2]} << 8) |
           std::uint32_t{b[at + 3]};
}

Bytes wire_info(const IPAddrInfo& i) {
    Bytes b;
    put_info(b, i);
    return b;
}

IPAddrInfo make_info(std::uint32_t ifindex, std::uint32_t addr, std::uint32_t mask, std::uint32_t method,
                     std::uint32_t n) {
    IPAddrInfo i{};
    i.stEntry.stKey.usVrfIndex = static_cast<std::uint16_t>(0x0100 + n);
    i.stEntry.stKey.usReserved = static_cast<std::uint16_t>(0xA100 + n);
    i.stEntry.stKey.uiIfIndex = ifindex;
    i.stEntry.stKey.uiAddr = addr;
    i.stEntry.stKey.uiMask = mask;
    i.stEntry.stKey.uiMethod = method;
    i.stEntry.uiFlag = 0x0A0B0C00u + n;
    i.stEntry.uiReserved = 0xB1B2B300u + n;
    i.uiInfo1 = 0x11121300u + n;
    i.uiInfo2 = 0x21222300u + n;
    i.uiInfo3 = 0x31323300u + n;
    for (std::uint8_t k = 0; k < 12; ++k) i.aucInfoData[k] = static_cast<std::uint8_t>(0xC0 + k + n);
    return i;
}

// The module's answer to a walk request that has no further entry: a failure status, and
// reply bytes that a library copying on failure would take for an entry.
KernelReply end_of_table(std::uint32_t status) {
    return KernelReply{status, wire_info(make_info(0xDEADBEEFu, ip(1, 2, 3, 4), ip(255, 0, 0, 0), 1, 0xEE)),
                       std::nullopt};
}

// A module with an ordered table of addresses, answering operation 7 (the next address on an
// interface after the key) in interface order (next mode 1) or IP order (next mode 0).
class AddressTable {
public:
    explicit AddressTable(std::uint32_t end_status) : end_status_(end_status) {}

    void add(const IPAddrInfo& info) { rows_.push_back(info); }

    // The interface's entries in the order the module walks them.
    std::vector<IPAddrEntry> ordered(std::uint32_t ifindex, std::uint32_t mode) const {
        std::vector<IPAddrInfo> on_if;
        for (const IPAddrInfo& r : rows_) {
            if (r.stEntry.stKey.uiIfIndex == ifindex) on_if.push_back(r);
        }
        if (mode == 0) {
            std::stable_sort(on_if.begin(), on_if.end(), [](const IPAddrInfo& a, const IPAddrInfo& b) {
                return host_value(a.stEntry.stKey.uiAddr) < host_value(b.stEntry.stKey.uiAddr);
            });
        }
        std::vector<IPAddrEntry> out;
        for (const IPAddrInfo& r : on_if) out.push_back(r.stEntry);
        return out;
    }

    KernelReply answer(const KernelCall& c) const {
        const Bytes& r = c.request;
        if (c.command != kAddressCommand || r.size() != 40 || be32_at(r, 0) != 7 || be32_at(r, 4) != 32) {
            return KernelReply{IPSTATUS_FAILED, {}, std::nullopt};
        }
        const std::uint32_t ifindex = be32_at(r, 8);
        const std::uint32_t mode = be32_at(r, 16);
        const bool start = r[20] == 0xFF && r[21] == 0xFF && be32_at(r, 28) == 0 && be32_at(r, 32) == 0;
        std::uint32_t key_addr;
        std::memcpy(&key_addr, &r[28], 4);

        std::vector<IPAddrInfo> on_if;
        for (const IPAddrEntry& e : ordered(ifindex, mode)) on_if.push_back(find(e));
        std::size_t next = 0;
        if (!start) {
            next = on_if.size();
            for (std::size_t i = 0; i < on_if.size(); ++i) {
                if (on_if[i].stEntry.stKey.uiAddr == key_addr) next = i + 1;
            }
        }
        if (next >= on_if.size()) return end_of_table(end_status_);
        return KernelReply{0, wire_info(on_if[next]), std::nullopt};
    }

private:
    IPAddrInfo find(const IPAddrEntry& e) const {
        for (const IPAddrInfo& r : rows_) {
            if (same_bytes(r.stEntry, e)) return r;
        }
        return IPAddrInfo{};
    }

    std::uint32_t end_status_;
    std::vector<IPAddrInfo> rows_;
};

// Two interfaces: A with three addresses whose interface order is not their IP order, B
// with two.
AddressTable sample_table(std::uint32_t end_status) {
    AddressTable t(end_status);
    t.add(make_info(kIfA, ip(10, 1, 0, 1), ip(255, 255, 255, 0), IPADDR_METHOD_MANUAL, 1));
    t.add(make_info(kIfB, ip(172, 16, 1, 1), ip(255, 255, 255, 0), IPADDR_METHOD_MANUAL, 2));
    t.add(make_info(kIfA, ip(192, 168, 5, 9), ip(255, 255, 0, 0), IPADDR_METHOD_DHCP, 3));
    t.add(make_info(kIfA, ip(10, 0, 0, 7), ip(255, 0, 0, 0), IPADDR_METHOD_MANUAL, 4));
    t.add(make_info(kIfB, ip(10, 2, 2, 2), ip(255, 255, 255, 255), IPADDR_METHOD_MANUAL, 5));
    return t;
}

// The request of operation 7 as it must travel.
Bytes next_request(std::uint32_t ifindex, std::uint32_t mask, std::uint32_t mode, const IPAddrKey& key) {
    Bytes b = header(7, 32);
    put32(b, ifindex);
    put32(b, mask);
    put32(b, mode);
    put_key(b, key);
    return b;
}

IPAddrKey walk_start_key() {
    IPAddrKey k{};
    k.usVrfIndex = 0xFFFF;
    return k;
}

IPAddrEntry marked_entry() {
    IPAddrEntry e;
    std::memset(&e, 0xEE, sizeof e);
    return e;
}

class AddrWalkTest : public PlatformTest {
protected:
    void serve(const AddressTable& table) {
        kernel.answer([&table](const KernelCall& c) { return table.answer(c); });
    }

    using Step = uint32_t (*)(uint32_t, uint32_t, IPAddrEntry*);

    // Walks with first/next until the first non-zero status; returns that status.
    std::uint32_t walk(Step first, Step next, std::uint32_t ifindex, std::vector<IPAddrEntry>* seen,
                       IPAddrEntry* last) {
        IPAddrEntry e = marked_entry();
        std::uint32_t status = first(ifindex, kMethods, &e);
        while (status == 0 && seen->size() < 20) {
            seen->push_back(e);
            status = next(ifindex, kMethods, &e);
        }
        *last = e;
        return status;
    }

    FakeKernel kernel;
};

// ---- Interface walks ----------------------------------------------------------------------

TEST_F(AddrWalkTest, GetFirstAddrSendsStartKeyWithInterfaceOrder) {
    const AddressTable table = sample_table(kLastBatch);
    serve(table);
    IPAddrEntry e = marked_entry();
    ASSERT_EQ(IPAddr_GetFirstAddr(kIfA, 0x00040009u, &e), 0u);
    ASSERT_EQ(kernel.count(), 1u);
    const KernelCall c = kernel.last();
    EXPECT_EQ(c.node, kOwnNode);
    EXPECT_EQ(c.command, kAddressCommand);
    EXPECT_EQ(c.reply_cap, 52u);
    EXPECT_EQ(c.request, next_request(kIfA, 0x00040009u, 1, walk_start_key()));
    // The start key: VPN index 0xFFFF, everything else zero.
    EXPECT_EQ((Bytes{c.request.begin() + 20, c.request.end()}),
              (Bytes{0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(same_bytes(e, table.ordered(kIfA, 1)[0]));
}

TEST_F(AddrWalkTest, GetFirstAddrIPOrderSendsStartKeyWithIPOrder) {
    const AddressTable table = sample_table(kLastBatch);
    serve(table);
    IPAddrEntry e = marked_entry();
    ASSERT_EQ(IPAddr_GetFirstAddrIPOrder(kIfA, 0x00040009u, &e), 0u);
    ASSERT_EQ(kernel.count(), 1u);
    EXPECT_EQ(kernel.last().request, next_request(kIfA, 0x00040009u, 0, walk_start_key()));
    EXPECT_TRUE(same_bytes(e, table.ordered(kIfA, 0)[0]));
}

TEST_F(AddrWalkTest, WalkInInterfaceOrderVisitsEveryAddressOnceThenEndsWithEntryUnchanged) {
    const AddressTable table = sample_table(kLastBatch);
    serve(table);
    std::vector<IPAddrEntry> seen;
    IPAddrEntry last{};
    EXPECT_EQ(walk(IPAddr_GetFirstAddr, IPAddr_GetNextAddr, kIfA, &seen, &last), kLastBatch);
    const std::vector<IPAddrEntry> want = table.ordered(kIfA, 1);
    ASSERT_EQ(want.size(), 3u);
    ASSERT_EQ(seen.size(), want.size());
    for (std::size_t i = 0; i < want.size(); ++i) EXPECT_TRUE(same_bytes(seen[i], want[i])) << i;
    // The failed call left the caller's entry on the last address.
    EXPECT_TRUE(same_bytes(last, want.back()));
    EXPECT_EQ(kernel.count(), want.size() + 1);
}

TEST_F(AddrWalkTest, WalkInIPOrderVisitsEveryAddressInAddressOrder) {
    const AddressTable table = sample_table(IPSTATUS_FAILED);
    serve(table);
    std::vector<IPAddrEntry> seen;
    IPAddrEntry last{};
    EXPECT_EQ(walk(IPAddr_GetFirstAddrIPOrder, IPAddr_GetNextAddrIPOrder, kIfA, &seen, &last), IPSTATUS_FAILED);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].stKey.uiAddr, ip(10, 0, 0, 7));
    EXPECT_EQ(seen[1].stKey.uiAddr, ip(10, 1, 0, 1));
    EXPECT_EQ(seen[2].stKey.uiAddr, ip(192, 168, 5, 9));
    const std::vector<IPAddrEntry> want = table.ordered(kIfA, 0);
    for (std::size_t i = 0; i < want.size(); ++i) EXPECT_TRUE(same_bytes(seen[i], want[i])) << i;
    EXPECT_TRUE(same_bytes(last, want.back()));
    for (const KernelCall& c : kernel.calls()) EXPECT_EQ(be32_at(c.request, 16), 0u);
}

TEST_F(AddrWalkTest, WalkOfSecondInterfaceStaysOnIt) {
    const AddressTable table = sample_table(kLastBatch);
    serve(table);
    std::vector<IPAddrEntry> seen;
    IPAddrEntry last{};
    EXPECT_EQ(walk(IPAddr_GetFirstAddr, IPAddr_GetNextAddr, kIfB, &seen, &last), kLastBatch);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].stKey.uiAddr, ip(172, 16, 1, 1));
    EXPECT_EQ(seen[1].stKey.uiAddr, ip(10, 2, 2, 2));
    for (const IPAddrEntry& e : seen) EXPECT_EQ(e.stKey.uiIfIndex, kIfB);
    for (const KernelCall& c : kernel.calls()) {
        EXPECT_EQ(be32_at(c.request, 8), kIfB);
        EXPECT_EQ(be32_at(c.request, 12), kMethods);
        EXPECT_EQ(be32_at(c.request, 16), 1u);
    }
}

TEST_F(AddrWalkTest, EachNextRequestCarriesTheKeyOfTheEntryBefore) {
    const AddressTable table = sample_table(kLastBatch);
    serve(table);
    std::vector<IPAddrEntry> seen;
    IPAddrEntry last{};
    ASSERT_EQ(walk(IPAddr_GetFirstAddr, IPAddr_GetNextAddr, kIfA, &seen, &last), kLastBatch);
    const std::vector<KernelCall> calls = kernel.calls();
    ASSERT_EQ(calls.size(), seen.size() + 1);
    EXPECT_EQ(calls[0].request, next_request(kIfA, kMethods, 1, walk_start_key()));
    for (std::size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(calls[i + 1].request, next_request(kIfA, kMethods, 1, seen[i].stKey)) << i;
    }
}

TEST_F(AddrWalkTest, GetNextAddrUsesCallersEntryAsKey) {
    kernel.reply(0, wire_info(sample_info()));
    IPAddrEntry e = sample_entry();
    e.uiFlag = 0x99999999u;  // not part of the key
    EXPECT_EQ(IPAddr_GetNextAddr(kIfA, 0x1u, &e), 0u);
    EXPECT_EQ(kernel.last().request, next_request(kIfA, 0x1u, 1, sample_key()));
    EXPECT_TRUE(same_bytes(e, sample_entry()));

    IPAddrEntry f = sample_entry();
    EXPECT_EQ(IPAddr_GetNextAddrIPOrder(kIfB, 0x8u, &f), 0u);
    EXPECT_EQ(kernel.last().request, next_request(kIfB, 0x8u, 0, sample_key()));
    EXPECT_EQ(kernel.count(), 2u);
}

TEST_F(AddrWalkTest, WalkOfInterfaceWithoutAddressesEndsAtOnceWithEntryUnchanged) {
    const AddressTable table = sample_table(kLastBatch);
    serve(table);
    IPAddrEntry e = marked_entry();
    EXPECT_EQ(IPAddr_GetFirstAddr(kIfEmpty, kMethods, &e), kLastBatch);
    EXPECT_TRUE(same_bytes(e, marked_entry()));
    EXPECT_EQ(IPAddr_GetFirstAddrIPOrder(kIfEmpty, kMethods, &e), kLastBatch);
    EXPECT_TRUE(same_bytes(e, marked_entry()));
    EXPECT_EQ(kernel.count(), 2u);
}

TEST_F(AddrWalkTest, WalkNullEntryIsRefusedWithoutRequest) {
    kernel.reply(0, wire_info(sample_info()));
    EXPECT_EQ(IPAddr_GetFirstAddr(kIfA, 1, nullptr), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_GetNextAddr(kIfA, 1, nullptr), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_GetFirstAddrIPOrder(kIfA, 1, nullptr), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_GetNextAddrIPOrder(kIfA, 1, nullptr), IPSTATUS_FAILED);
    EXPECT_EQ(kernel.count(), 0u);
}

// ---- Batches --------------------------------------------------------------------------------

std::vector<IPAddrInfo> batch_infos() {
    return {make_info(kIfA, ip(10, 1, 0, 1), ip(255, 255, 255, 0), 0x00040001u, 0x11),
            make_info(kIfA, ip(10, 0, 0, 7), ip(255, 0, 0, 0), 0x00000004u, 0x22),
            make_info(kIfA, ip(192, 168, 5, 9), ip(255, 255, 0, 0), 0x00000008u, 0x33),
            make_info(kIfA, ip(10, 9, 9, 9), ip(255, 255, 255, 255), 0x00000001u, 0x44)};
}

Bytes wire_batch(const std::vector<IPAddrInfo>& infos, std::size_t n) {
    Bytes b;
    for (std::size_t i = 0; i < n; ++i) put_info(b, infos[i]);
    return b;
}

Bytes batch_request(std::uint32_t ifindex, std::uint32_t word, const IPAddrKey& key) {
    Bytes b = header(15, 28);
    put32(b, ifindex);
    put32(b, word);
    put_key(b, key);
    return b;
}

TEST_F(AddrWalkTest, GetFirstBatchAddrSendsStartKeyAndConvertsEveryEntry) {
    const std::vector<IPAddrInfo> infos = batch_infos();
    kernel.reply(0, wire_batch(infos, 3));
    IPAddrEntry out[5];
    for (IPAddrEntry& e : out) e = marked_entry();
    std::uint32_t n = 99;
    EXPECT_EQ(IPAddr_GetFirstBatchAddr(kIfA, 0x0A0B0C0Du, 4, out, &n), 0u);
    const Bytes want = batch_request(kIfA, 0x0A0B0C0Du, walk_start_key());
    expect_only_call(kernel, {kOwnNode, kAddressCommand, want, 4u * 52u, {}, {}, {}});
    EXPECT_EQ(n, 3u);
    for (std::size_t i = 0; i < 3; ++i) EXPECT_TRUE(same_bytes(out[i], infos[i].stEntry)) << i;
    // Field by field for one of them: the swapped fields read back as the module meant them.
    EXPECT_EQ(out[1].stKey.usVrfIndex, 0x0122u);
    EXPECT_EQ(out[1].stKey.usReserved, 0xA122u);
    EXPECT_EQ(out[1].stKey.uiIfIndex, kIfA);
    EXPECT_EQ(out[1].stKey.uiAddr, ip(10, 0, 0, 7));
    EXPECT_EQ(out[1].stKey.uiMask, ip(255, 0, 0, 0));
    EXPECT_EQ(out[1].stKey.uiMethod, 0x00000004u);
    EXPECT_EQ(out[1].uiFlag, 0x0A0B0C22u);
    EXPECT_EQ(out[1].uiReserved, 0xB1B2B322u);
    EXPECT_TRUE(same_bytes(out[3], marked_entry()));
    EXPECT_TRUE(same_bytes(out[4], marked_entry()));
}

TEST_F(AddrWalkTest, GetNextBatchAddrSendsCallersKey) {
    const std::vector<IPAddrInfo> infos = batch_infos();
    kernel.reply(0, wire_batch(infos, 2));
    const IPAddrKey key = sample_key();
    IPAddrEntry out[2]{};
    std::uint32_t n = 0;
    EXPECT_EQ(IPAddr_GetNextBatchAddr(kIfB, 0x01020304u, &key, 2, out, &n), 0u);
    ASSERT_EQ(kernel.count(), 1u);
    EXPECT_EQ(kernel.last().request, batch_request(kIfB, 0x01020304u, key));
    EXPECT_EQ(kernel.last().reply_cap, 104u);
    EXPECT_EQ(n, 2u);
    EXPECT_TRUE(same_bytes(out[0], infos[0].stEntry));
    EXPECT_TRUE(same_bytes(out[1], infos[1].stEntry));
}

TEST_F(AddrWalkTest, GetNextBatchAddrLastBatchStillFillsEntriesAndCount) {
    const std::vector<IPAddrInfo> infos = batch_infos();
    kernel.reply(kLastBatch, wire_batch(infos, 2));
    const IPAddrKey key = sample_key();
    IPAddrEntry out[4];
    for (IPAddrEntry& e : out) e = marked_entry();
    std::uint32_t n = 99;
    EXPECT_EQ(IPAddr_GetNextBatchAddr(kIfA, 0, &key, 4, out, &n), kLastBatch);
    EXPECT_EQ(n, 2u);
    EXPECT_TRUE(same_bytes(out[0], infos[0].stEntry));
    EXPECT_TRUE(same_bytes(out[1], infos[1].stEntry));
    EXPECT_TRUE(same_bytes(out[2], marked_entry()));
}

TEST_F(AddrWalkTest, GetFirstBatchAddrLastBatchStillFillsEntriesAndCount) {
    const std::vector<IPAddrInfo> infos = batch_infos();
    kernel.reply(kLastBatch, wire_batch(infos, 1));
    IPAddrEntry out[3]{};
    std::uint32_t n = 99;
    EXPECT_EQ(IPAddr_GetFirstBatchAddr(kIfA, 0, 3, out, &n), kLastBatch);
    EXPECT_EQ(n, 1u);
    EXPECT_TRUE(same_bytes(out[0], infos[0].stEntry));
}

TEST_F(AddrWalkTest, BatchOtherStatusLeavesCountAndEntriesAlone) {
    const std::vector<IPAddrInfo> infos = batch_infos();
    kernel.reply(kModuleStatus, wire_batch(infos, 2));
    const IPAddrKey key = sample_key();
    IPAddrEntry out[2];
    for (IPAddrEntry& e : out) e = marked_entry();
    std::uint32_t n = 99;
    EXPECT_EQ(IPAddr_GetNextBatchAddr(kIfA, 0, &key, 2, out, &n), kModuleStatus);
    EXPECT_EQ(n, 99u);
    EXPECT_TRUE(same_bytes(out[0], marked_entry()));
    EXPECT_TRUE(same_bytes(out[1], marked_entry()));
    EXPECT_EQ(IPAddr_GetFirstBatchAddr(kIfA, 0, 2, out, &n), kModuleStatus);
    EXPECT_EQ(n, 99u);
    EXPECT_TRUE(same_bytes(out[0], marked_entry()));
    EXPECT_EQ(kernel.count(), 2u);
}

TEST_F(AddrWalkTest, BatchEmptyReplySetsCountZero) {
    kernel.reply(kLastBatch);
    IPAddrEntry out[2];
    for (IPAddrEntry& e : out) e = marked_entry();
    std::uint32_t n = 99;
    EXPECT_EQ(IPAddr_GetFirstBatchAddr(kIfA, 0, 2, out, &n), kLastBatch);
    EXPECT_EQ(n, 0u);
    EXPECT_TRUE(same_bytes(out[0], marked_entry()));
}

TEST_F(AddrWalkTest, BatchNullPointersAreRefusedWithoutRequest) {
    kernel.reply(0, wire_batch(batch_infos(), 1));
    const IPAddrKey key = sample_key();
    IPAddrEntry out[1]{};
    std::uint32_t n = 99;
    EXPECT_EQ(IPAddr_GetNextBatchAddr(kIfA, 0, nullptr, 1, out, &n), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_GetNextBatchAddr(kIfA, 0, &key, 1, nullptr, &n), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_GetNextBatchAddr(kIfA, 0, &key, 1, out, nullptr), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_GetFirstBatchAddr(kIfA, 0, 1, nullptr, &n), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_GetFirstBatchAddr(kIfA, 0, 1, out, nullptr), IPSTATUS_FAILED);
    EXPECT_EQ(kernel.count(), 0u);
    EXPECT_EQ(n, 99u);
}

TEST_F(AddrWalkTest, BatchReturnedLengthBeyondCapacityReadsOnlyCapacityRecords) {
    const std::vector<IPAddrInfo> infos = batch_infos();
    // The module writes what fits and claims all four records.
    kernel.reply(KernelReply{0, wire_batch(infos, 4), 4u * 52u});
    IPAddrEntry out[4];
    for (IPAddrEntry& e : out) e = marked_entry();
    std::uint32_t n = 99;
    EXPECT_EQ(IPAddr_GetFirstBatchAddr(kIfA, 0, 2, out, &n), 0u);
    EXPECT_EQ(kernel.last().reply_cap, 104u);
    EXPECT_EQ(n, 2u);
    EXPECT_TRUE(same_bytes(out[0], infos[0].stEntry));
    EXPECT_TRUE(same_bytes(out[1], infos[1].stEntry));
    EXPECT_TRUE(same_bytes(out[2], marked_entry()));
    EXPECT_TRUE(same_bytes(out[3], marked_entry()));
}

TEST_F(AddrWalkTest, BatchPartialRecordIsNotCounted) {
    const std::vector<IPAddrInfo> infos = batch_infos();
    kernel.reply(KernelReply{0, wire_batch(infos, 3), 2u * 52u + 51u});
    IPAddrEntry out[3];
    for (IPAddrEntry& e : out) e = marked_entry();
    std::uint32_t n = 99;
    EXPECT_EQ(IPAddr_GetFirstBatchAddr(kIfA, 0, 3, out, &n), 0u);
    EXPECT_EQ(n, 2u);
    EXPECT_TRUE(same_bytes(out[1], infos[1].stEntry));
    EXPECT_TRUE(same_bytes(out[2], marked_entry()));
}

TEST_F(AddrWalkTest, BatchCountWhoseCapacityOverflowsIsRefusedWithoutRequest) {
    kernel.reply(0);
    // 82595525 x 52 = 4294967300, four more than 32 bits hold.
    constexpr std::uint32_t kTooMany = 82595525u;
    IPAddrEntry out[1]{};
    std::uint32_t n = 99;
    EXPECT_EQ(IPAddr_GetFirstBatchAddr(kIfA, 0, kTooMany, out, &n), IPSTATUS_FAILED);
    const IPAddrKey key = sample_key();
    EXPECT_EQ(IPAddr_GetNextBatchAddr(kIfA, 0, &key, 0xFFFFFFFFu, out, &n), IPSTATUS_FAILED);
    EXPECT_EQ(kernel.count(), 0u);
    EXPECT_EQ(n, 99u);
}

// ---- Directed broadcast -----------------------------------------------------------------

// Interface A: a /32, a /31 and a /24, in this interface order. Interface B: only a /31.
// Interface C: only a /32.
constexpr std::uint32_t kIfC = 0x000A0B0Cu;

AddressTable broadcast_table() {
    AddressTable t(kLastBatch);
    t.add(make_info(kIfA, ip(10, 9, 9, 9), ip(255, 255, 255, 255), 1, 1));
    t.add(make_info(kIfA, ip(10, 0, 0, 0), ip(255, 255, 255, 254), 1, 2));
    t.add(make_info(kIfA, ip(192, 168, 1, 10), ip(255, 255, 255, 0), 1, 3));
    t.add(make_info(kIfB, ip(10, 0, 0, 0), ip(255, 255, 255, 254), 1, 4));
    t.add(make_info(kIfC, ip(10, 9, 9, 9), ip(255, 255, 255, 255), 1, 5));
    return t;
}

TEST_F(AddrWalkTest, IsBroadcastZeroAddressNeedsNoRequest) {
    const AddressTable table = broadcast_table();
    serve(table);
    EXPECT_EQ(IPAddr_IsBroadcast(kIfA, 1, 0), 1u);
    EXPECT_EQ(IPAddr_IsBroadcast(kIfEmpty, 0, 0), 1u);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(AddrWalkTest, IsBroadcastAllOnesAddressNeedsNoRequest) {
    const AddressTable table = broadcast_table();
    serve(table);
    EXPECT_EQ(IPAddr_IsBroadcast(kIfA, 1, 0xFFFFFFFFu), 1u);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(AddrWalkTest, IsBroadcastFindsDirectedBroadcastOfASlash24) {
    const AddressTable table = broadcast_table();
    serve(table);
    EXPECT_EQ(IPAddr_IsBroadcast(kIfA, 1, ip(192, 168, 1, 255)), 1u);
    // The /32 and /31 before it were passed over; the walk stopped at the match.
    EXPECT_EQ(kernel.count(), 3u);
}

TEST_F(AddrWalkTest, IsBroadcastHostAddressIsNot) {
    const AddressTable table = broadcast_table();
    serve(table);
    EXPECT_EQ(IPAddr_IsBroadcast(kIfA, 1, ip(192, 168, 1, 10)), 0u);
    EXPECT_EQ(IPAddr_IsBroadcast(kIfA, 1, ip(192, 168, 1, 0)), 0u);
    EXPECT_EQ(IPAddr_IsBroadcast(kIfA, 1, ip(192, 168, 2, 255)), 0u);
    // Each walk read all three addresses and the end.
    EXPECT_EQ(kernel.count(), 12u);
}

TEST_F(AddrWalkTest, IsBroadcastSlash31UpperAddressIsNotBroadcast) {
    const AddressTable table = broadcast_table();
    serve(table);
    EXPECT_EQ(IPAddr_IsBroadcast(kIfB, 1, ip(10, 0, 0, 1)), 0u);
    EXPECT_EQ(kernel.count(), 2u);
}

TEST_F(AddrWalkTest, IsBroadcastSkipsSlash32) {
    const AddressTable table = broadcast_table();
    serve(table);
    EXPECT_EQ(IPAddr_IsBroadcast(kIfC, 1, ip(10, 9, 9, 9)), 0u);
    EXPECT_EQ(kernel.count(), 2u);
}

TEST_F(AddrWalkTest, IsBroadcastFirstRequestCarriesItsStartKey) {
    const AddressTable table = broadcast_table();
    serve(table);
    EXPECT_EQ(IPAddr_IsBroadcast(kIfA, 0x00040009u, ip(192, 168, 1, 255)), 1u);
    const std::vector<KernelCall> calls = kernel.calls();
    ASSERT_FALSE(calls.empty());
    IPAddrKey start{};
    start.usVrfIndex = 0xFFFF;
    start.usReserved = 0xFFFF;
    start.uiIfIndex = kIfA;
    start.uiMethod = 0x00040009u;
    EXPECT_EQ(calls[0].request, next_request(kIfA, 0x00040009u, 1, start));
    EXPECT_EQ((Bytes{calls[0].request.begin() + 20, calls[0].request.begin() + 28}),
              (Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x01, 0x02, 0x03}));
    EXPECT_EQ(calls[0].node, kOwnNode);
    // Then the walk goes on from each entry it was given.
    ASSERT_EQ(calls.size(), 3u);
    const std::vector<IPAddrEntry> order = table.ordered(kIfA, 1);
    EXPECT_EQ(calls[1].request, next_request(kIfA, 0x00040009u, 1, order[0].stKey));
    EXPECT_EQ(calls[2].request, next_request(kIfA, 0x00040009u, 1, order[1].stKey));
}

TEST_F(AddrWalkTest, IsBroadcastEndsWhenModuleRepeatsTheSameEntry) {
    const Bytes same = wire_info(make_info(kIfA, ip(172, 16, 0, 5), ip(255, 255, 255, 0), 1, 7));
    std::size_t served = 0;
    // A module stuck on one entry; it gives up by itself only after many calls.
    kernel.answer([&same, &served](const KernelCall&) {
        ++served;
        if (served > 50) return KernelReply{IPSTATUS_FAILED, {}, std::nullopt};
        return KernelReply{0, same, std::nullopt};
    });
    EXPECT_EQ(IPAddr_IsBroadcast(kIfA, 1, ip(172, 16, 9, 255)), 0u);
    // The second answer repeats the first: the walk ends there.
    EXPECT_EQ(kernel.count(), 2u);
}

TEST_F(AddrWalkTest, IsBroadcastOnInterfaceWithoutAddressesIsNot) {
    const AddressTable table = broadcast_table();
    serve(table);
    EXPECT_EQ(IPAddr_IsBroadcast(kIfEmpty, 1, ip(192, 168, 1, 255)), 0u);
    EXPECT_EQ(kernel.count(), 1u);
}

}  // namespace
}  // namespace ipt
