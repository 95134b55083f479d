// ND entry queries: the exact requests to the kernel ND module and their target nodes, the
// host-order conversion of entries and summaries, the owning-node re-read, the
// network-to-physical table view and its walk over the layer-3 interfaces, the per-node
// counters and the private-data readers.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "ipclient/nd.h"
#include "ipplat/platform.h"
#include "ipplat/testctl.h"
#include "nd/if_hooks.hpp"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"
#include "support/neigh_directory.hpp"
#include "support/neigh_kernel_queries.hpp"
#include "support/statuses.hpp"

// ---- Interface selection and iteration hooks (shared with config_test.cpp) -------------------

namespace ipt::nd_if_hooks {
namespace {

struct State {
    std::mutex mu;
    std::vector<Call> calls;
};

State& state() {
    static State s;
    return s;
}

void record(Kind kind, std::uint32_t value) {
    const std::lock_guard lock(state().mu);
    state().calls.push_back(Call{kind, value});
}

template <class F>
F next(const char* name) {
    void* p = dlsym(RTLD_NEXT, name);
    if (p == nullptr) std::abort();
    return reinterpret_cast<F>(p);
}

}  // namespace

void reset() {
    const std::lock_guard lock(state().mu);
    state().calls.clear();
}

std::vector<Call> calls() {
    const std::lock_guard lock(state().mu);
    return state().calls;
}

std::vector<std::uint32_t> values(Kind kind) {
    std::vector<std::uint32_t> out;
    for (const Call& c : calls()) {
        if (c.kind == kind) out.push_back(c.value);
    }
    return out;
}

std::size_t count(Kind kind) { return values(kind).size(); }

}  // namespace ipt::nd_if_hooks

extern "C" {

uint32_t IF_Select_Init(uint32_t mode, IF_SELECT_S* sel) {
    using Fn = uint32_t (*)(uint32_t, IF_SELECT_S*);
    static const Fn real = ipt::nd_if_hooks::next<Fn>("IF_Select_Init");
    ipt::nd_if_hooks::record(ipt::nd_if_hooks::Kind::kInit, mode);
    return real(mode, sel);
}

uint32_t IF_SelectType_Set(uint32_t type, IF_SELECT_S* sel) {
    using Fn = uint32_t (*)(uint32_t, IF_SELECT_S*);
    static const Fn real = ipt::nd_if_hooks::next<Fn>("IF_SelectType_Set");
    ipt::nd_if_hooks::record(ipt::nd_if_hooks::Kind::kSetType, type);
    return real(type, sel);
}

uint32_t IF_SelectCondition_Set(uint32_t condition, IF_SELECT_S* sel) {
    using Fn = uint32_t (*)(uint32_t, IF_SELECT_S*);
    static const Fn real = ipt::nd_if_hooks::next<Fn>("IF_SelectCondition_Set");
    ipt::nd_if_hooks::record(ipt::nd_if_hooks::Kind::kCondition, condition);
    return real(condition, sel);
}

void* IF_IteratorInitialize(void) {
    using Fn = void* (*)();
    static const Fn real = ipt::nd_if_hooks::next<Fn>("IF_IteratorInitialize");
    ipt::nd_if_hooks::record(ipt::nd_if_hooks::Kind::kIterOpen, 0);
    return real();
}

void IF_IteratorFinalize(void* iterator) {
    using Fn = void (*)(void*);
    static const Fn real = ipt::nd_if_hooks::next<Fn>("IF_IteratorFinalize");
    ipt::nd_if_hooks::record(ipt::nd_if_hooks::Kind::kIterClose, 0);
    real(iterator);
}

}  // extern "C"

namespace ipt {
namespace {

using namespace neigh;

using nd_if_hooks::Kind;

constexpr std::uint32_t kOk = 0;
constexpr std::uint32_t kOwnNode = 0xFFFF8000u;
constexpr std::uint32_t kModuleMsg = 0x110001u;
constexpr std::uint32_t kExact = 0x110004u;
constexpr std::uint32_t kNext = 0x110005u;
constexpr std::uint32_t kBatch = 0x110013u;
constexpr std::uint16_t kMaster = 0x0007;
constexpr std::uint16_t kOther = 0x0009;
constexpr std::uint32_t kIf = 0x01020304u;
constexpr std::uint32_t kMember = 0x0A0B0C0Du;

const std::uint8_t kAddr[16] = {0x20, 0x01, 0x0d, 0xb8, 0x00, 0x11, 0x22, 0x33,
                                0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb};
const std::uint8_t kAddr2[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0x02, 0x1b, 0x2c, 0xff, 0xfe, 0x3d, 0x4e, 0x5f};

// An entry as the module holds it, in host order.
struct EntryValues {
    std::uint8_t addr[16];
    std::uint32_t ifindex = kIf;
    std::uint32_t ifindex2 = kMember;
    std::uint32_t word24 = 0x11223344u;
    std::uint16_t half28 = 0x5566;
    std::uint16_t half30 = 0x7788;
    std::uint8_t link[6] = {0x00, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F};
    std::uint8_t state = 2;
    std::uint8_t byte39 = 0x9A;
    std::uint8_t kind = 1;
    std::uint8_t res41[3] = {0xA1, 0xA2, 0xA3};
    std::uint32_t update = 0x12345678u;
    std::uint32_t refresh = 0x87654321u;
    std::uint8_t res52[4] = {0xB1, 0xB2, 0xB3, 0xB4};

    EntryValues() { std::memcpy(addr, kAddr, sizeof addr); }
};

// The 56 bytes on the wire.
Bytes wire(const EntryValues& v) {
    Bytes b;
    putraw(b, v.addr, 16);
    put32(b, v.ifindex);
    put32(b, v.ifindex2);
    put32(b, v.word24);
    put16(b, v.half28);
    put16(b, v.half30);
    putraw(b, v.link, 6);
    b.push_back(v.state);
    b.push_back(v.byte39);
    b.push_back(v.kind);
    putraw(b, v.res41, 3);
    put32(b, v.update);
    put32(b, v.refresh);
    putraw(b, v.res52, 4);
    return b;
}

Bytes key(const std::uint8_t* addr, std::uint32_t ifindex, std::uint32_t selector) {
    Bytes b;
    putraw(b, addr, 16);
    put32(b, ifindex);
    put32(b, selector);
    return b;
}

Bytes module_head(std::uint32_t op, std::uint32_t len) {
    Bytes b;
    put32(b, op);
    put32(b, len);
    return b;
}

void expect_entry(const NdEntryInfo& e, const EntryValues& v) {
    EXPECT_EQ(std::memcmp(e.aucAddr, v.addr, 16), 0);
    EXPECT_EQ(e.uiIfIndex, v.ifindex);
    EXPECT_EQ(e.uiIfIndex2, v.ifindex2);
    EXPECT_EQ(e.uiWord24, v.word24);
    EXPECT_EQ(e.usHalf28, v.half28);
    EXPECT_EQ(e.usHalf30, v.half30);
    EXPECT_EQ(std::memcmp(e.aucLinkAddr, v.link, 6), 0);
    EXPECT_EQ(e.ucState, v.state);
    EXPECT_EQ(e.ucByte39, v.byte39);
    EXPECT_EQ(e.ucKind, v.kind);
    EXPECT_EQ(std::memcmp(e.aucRes41, v.res41, 3), 0);
    EXPECT_EQ(e.uiUpdateTime, v.update);
    EXPECT_EQ(e.uiRefreshTime, v.refresh);
    EXPECT_EQ(std::memcmp(e.aucRes52, v.res52, 4), 0);
}

void add_interface(std::uint32_t ifindex, std::uint16_t node, std::uint32_t type) {
    add_to_directory(interface_entry(ifindex, node, type));
}

NdIPv6Addr in6(const std::uint8_t* bytes) {
    NdIPv6Addr a{};
    std::memcpy(&a, bytes, 16);
    return a;
}

class NdQueryTest : public PlatformTest {
protected:
    NdQueryTest() {
        ipp_dir_set_master_ep(kMaster);
        ipp_dir_set_local_node(0x0005);
        add_interface(kIf, kMaster, 22);
        nd_if_hooks::reset();
    }

    static void expect_call(const KernelCall& c, std::uint32_t node, std::uint32_t command, const Bytes& request,
                            std::uint32_t cap) {
        expect_kernel_call(c, node, command, request, cap);
    }

    FakeKernel kernel;
};

// ---- Exact and next entries -----------------------------------------------------------------

TEST_F(NdQueryTest, ExactLookupSendsTheKeyToTheMasterEndpoint) {
    kernel.reply(0, wire(EntryValues{}));
    NdEntryInfo e{};
    EXPECT_EQ(ND_GetEntryInfo(kExact, 2, kIf, kAddr, &e), kOk);
    ASSERT_EQ(kernel.count(), 1u);
    expect_call(kernel.last(), kMaster, kExact, key(kAddr, kIf, 2), 56);
}

TEST_F(NdQueryTest, EntryIsConvertedFieldByFieldToHostOrder) {
    EntryValues v;
    kernel.reply(0, wire(v));
    NdEntryInfo e{};
    ASSERT_EQ(ND_GetEntryInfo(kExact, 0, kIf, kAddr, &e), kOk);
    expect_entry(e, v);
}

TEST_F(NdQueryTest, MasterEndpointAboveThe15BitRangeIsSignExtended) {
    ipp_dir_set_master_ep(0x8001);
    add_interface(kIf, 0x8001, 22);
    kernel.reply(0, wire(EntryValues{}));
    NdEntryInfo e{};
    EXPECT_EQ(ND_GetEntryInfo(kNext, 1, kIf, kAddr, &e), kOk);
    ASSERT_EQ(kernel.count(), 1u);
    expect_call(kernel.last(), 0xFFFF8001u, kNext, key(kAddr, kIf, 1), 56);
}

TEST_F(NdQueryTest, EntryOnAnotherNodeIsReadAgainThereWithTheExactCommand) {
    add_interface(kIf, kOther, 22);
    EntryValues master;
    EntryValues node;
    std::memcpy(node.addr, kAddr, 16);
    node.word24 = 0xCAFEF00Du;
    node.update = 0x0BADBEEFu;
    node.res52[0] = 0x42;
    kernel.reply(0, wire(master));
    kernel.reply(0, wire(node));
    NdEntryInfo e{};
    EXPECT_EQ(ND_GetEntryInfo(kNext, 2, kIf, kAddr2, &e), kOk);
    const auto calls = kernel.calls();
    ASSERT_EQ(calls.size(), 2u);
    expect_call(calls[0], kMaster, kNext, key(kAddr2, kIf, 2), 56);
    // The entry's own address and interface, selector 0.
    expect_call(calls[1], kOther, kExact, key(kAddr, kIf, 0), 56);
    expect_entry(e, node);
}

TEST_F(NdQueryTest, AggregateEntryInALiveStateIsOwnedByItsMember) {
    add_interface(kIf, kMaster, 41);
    add_interface(kMember, kOther, 22);
    EntryValues v;
    v.state = 1;
    kernel.reply(0, wire(v));
    NdEntryInfo e{};
    EXPECT_EQ(ND_GetEntryInfo(kExact, 0, kIf, kAddr, &e), kOk);
    const auto calls = kernel.calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].node, kOther);
    EXPECT_EQ(calls[1].request, key(kAddr, kIf, 0));  // still the entry's own interface
}

TEST_F(NdQueryTest, AggregateEntryInStateZeroOrWithoutMemberStaysWithItsInterface) {
    add_interface(kIf, kMaster, 41);
    add_interface(kMember, kOther, 22);
    EntryValues v;
    v.state = 0;
    kernel.reply(0, wire(v));
    NdEntryInfo e{};
    EXPECT_EQ(ND_GetEntryInfo(kExact, 0, kIf, kAddr, &e), kOk);
    EXPECT_EQ(kernel.count(), 1u);

    v.state = 3;
    v.ifindex2 = 0;
    kernel.reply(0, wire(v));
    EXPECT_EQ(ND_GetEntryInfo(kExact, 0, kIf, kAddr, &e), kOk);
    EXPECT_EQ(kernel.count(), 2u);
}

TEST_F(NdQueryTest, MemberOfAnotherTypeIsNotFollowed) {
    add_interface(kIf, kMaster, 40);
    add_interface(kMember, kOther, 22);
    EntryValues v;
    v.state = 1;
    kernel.reply(0, wire(v));
    NdEntryInfo e{};
    EXPECT_EQ(ND_GetEntryInfo(kExact, 0, kIf, kAddr, &e), kOk);
    EXPECT_EQ(kernel.count(), 1u);
}

TEST_F(NdQueryTest, FailingOrEmptySecondLookupKeepsTheMastersAnswer) {
    add_interface(kIf, kOther, 22);
    EntryValues v;
    kernel.reply(0, wire(v));
    kernel.reply(0x40010007u, wire(EntryValues{}));
    NdEntryInfo e{};
    EXPECT_EQ(ND_GetEntryInfo(kExact, 0, kIf, kAddr, &e), kOk);
    expect_entry(e, v);

    FakeKernel empty;
    empty.reply(0, wire(v));
    empty.reply(KernelReply{0, Bytes{}, 0u});
    NdEntryInfo f{};
    EXPECT_EQ(ND_GetEntryInfo(kExact, 0, kIf, kAddr, &f), kOk);
    EXPECT_EQ(empty.count(), 2u);
    expect_entry(f, v);
}

TEST_F(NdQueryTest, FailedOrEmptyMasterReplyFails) {
    kernel.reply(0x40010007u, wire(EntryValues{}));
    NdEntryInfo e{};
    EXPECT_EQ(ND_GetEntryInfo(kExact, 0, kIf, kAddr, &e), kFailed);
    kernel.reply(KernelReply{0, Bytes{}, 0u});
    EXPECT_EQ(ND_GetEntryInfo(kExact, 0, kIf, kAddr, &e), kFailed);
}

TEST_F(NdQueryTest, NullPointersAndOtherCommandsFailWithoutRequest) {
    kernel.reply(0, wire(EntryValues{}));
    NdEntryInfo e{};
    EXPECT_EQ(ND_GetEntryInfo(kExact, 0, kIf, nullptr, &e), kFailed);
    EXPECT_EQ(ND_GetEntryInfo(kExact, 0, kIf, kAddr, nullptr), kFailed);
    EXPECT_EQ(ND_GetEntryInfo(0x110003u, 0, kIf, kAddr, &e), kFailed);
    EXPECT_EQ(ND_GetNextEntryInfo(0, nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(NdQueryTest, NextEntryInfoAsksAfterTheRecordsKeyAndOverwritesIt) {
    EntryValues next;
    std::memcpy(next.addr, kAddr2, 16);
    kernel.reply(0, wire(next));
    NdEntryInfo e{};
    std::memcpy(e.aucAddr, kAddr, 16);
    e.uiIfIndex = kIf;
    e.uiRefreshTime = 0xFFFFFFFFu;
    EXPECT_EQ(ND_GetNextEntryInfo(1, &e), kOk);
    ASSERT_EQ(kernel.count(), 1u);
    expect_call(kernel.last(), kMaster, kNext, key(kAddr, kIf, 1), 56);
    expect_entry(e, next);
}

// ---- Batches and summaries ------------------------------------------------------------------

TEST_F(NdQueryTest, NextInfoBatchSendsAddressAndBigEndianIndexToTheOwnNode) {
    kernel.reply(0, Bytes{1, 2, 3, 4, 5, 6, 7});
    std::uint8_t buf[64] = {};
    std::uint32_t returned = 0;
    EXPECT_EQ(ND_GetNextInfoBatch(kAddr, 0x00C0FFEEu, 48, buf, &returned), kOk);
    ASSERT_EQ(kernel.count(), 1u);
    Bytes want;
    putraw(want, kAddr, 16);
    put32(want, 0x00C0FFEEu);
    expect_call(kernel.last(), kOwnNode, kBatch, want, 48);
    EXPECT_EQ(returned, 7u);
    const std::uint8_t raw[7] = {1, 2, 3, 4, 5, 6, 7};
    EXPECT_EQ(std::memcmp(buf, raw, 7), 0);  // left in the module's form
}

TEST_F(NdQueryTest, NextInfoBatchPassesTheStatusAndRejectsNullPointers) {
    kernel.reply(0x40010009u, Bytes{});
    std::uint8_t buf[8];
    std::uint32_t returned = 0;
    EXPECT_EQ(ND_GetNextInfoBatch(kAddr, 1, 8, buf, &returned), 0x40010009u);
    EXPECT_EQ(ND_GetNextInfoBatch(nullptr, 1, 8, buf, &returned), kFailed);
    EXPECT_EQ(ND_GetNextInfoBatch(kAddr, 1, 8, nullptr, &returned), kFailed);
    EXPECT_EQ(ND_GetNextInfoBatch(kAddr, 1, 8, buf, nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 1u);
}

Bytes info_wire() {
    Bytes b;
    put32(b, 0x01020304u);
    put16(b, 0x0506);
    put16(b, 0x0708);
    putraw(b, "\x11\x22\x33\x44\x55\x66\x77\x88", 8);
    put32(b, 0x191A1B1Cu);
    put32(b, 0x21222324u);
    put32(b, 0x31323334u);
    put16(b, 0x4142);
    b.push_back(0x51);
    b.push_back(0x52);
    return b;
}

void expect_info(const NdInfo& i) {
    EXPECT_EQ(i.uiWord0, 0x01020304u);
    EXPECT_EQ(i.usHalf4, 0x0506);
    EXPECT_EQ(i.usHalf6, 0x0708);
    EXPECT_EQ(std::memcmp(i.aucData8, "\x11\x22\x33\x44\x55\x66\x77\x88", 8), 0);
    EXPECT_EQ(i.uiWord16, 0x191A1B1Cu);
    EXPECT_EQ(i.uiWord20, 0x21222324u);
    EXPECT_EQ(i.uiWord24, 0x31323334u);
    EXPECT_EQ(i.usHalf28, 0x4142);
    EXPECT_EQ(i.aucData30[0], 0x51);
    EXPECT_EQ(i.aucData30[1], 0x52);
}

TEST_F(NdQueryTest, GetInfoSendsOperationZeroToTheInterfacesNodeAndConverts) {
    add_interface(kIf, kOther, 22);
    kernel.reply(0, info_wire());
    NdInfo info{};
    EXPECT_EQ(ND_GetInfo(kIf, in6(kAddr), &info), kOk);
    ASSERT_EQ(kernel.count(), 1u);
    Bytes want = module_head(0, 28);
    putraw(want, kAddr, 16);
    put32(want, kIf);
    expect_call(kernel.last(), kOther, kModuleMsg, want, 32);
    expect_info(info);
}

TEST_F(NdQueryTest, GetInfoConvertsTheReplyWhateverTheStatus) {
    kernel.reply(0x40010007u, info_wire());
    NdInfo info{};
    EXPECT_EQ(ND_GetInfo(kIf, in6(kAddr), &info), 0x40010007u);
    expect_info(info);
}

TEST_F(NdQueryTest, GetInfoReturnsTheNodeLookupFailureWithoutRequest) {
    ipp_dir_fail_item(kIf, IF_DATA_NODE, 0x40010007u);
    kernel.reply(0, info_wire());
    NdInfo info{};
    EXPECT_EQ(ND_GetInfo(kIf, in6(kAddr), &info), 0x40010007u);
    EXPECT_EQ(ND_GetInfo(kIf, in6(kAddr), nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(NdQueryTest, GetInfoByIPSendsOperation38WithInterfaceZeroToTheOwnNode) {
    kernel.reply(0, info_wire());
    NdInfo info{};
    EXPECT_EQ(ND_GetInfoByIP(kAddr2, &info), kOk);
    ASSERT_EQ(kernel.count(), 1u);
    Bytes want = module_head(38, 28);
    putraw(want, kAddr2, 16);
    put32(want, 0);
    expect_call(kernel.last(), kOwnNode, kModuleMsg, want, 32);
    expect_info(info);
    EXPECT_EQ(ND_GetInfoByIP(kAddr2, nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 1u);
}

// ---- Refresh time ---------------------------------------------------------------------------

TEST_F(NdQueryTest, RefreshTimeIsTheExactEntrysRefreshWordInHostOrder) {
    EntryValues v;
    v.refresh = 0x00012C40u;
    kernel.reply(0, wire(v));
    std::uint32_t t = 0;
    EXPECT_EQ(ND_GetRefreshTime(kIf, in6(kAddr), &t), kOk);
    EXPECT_EQ(t, 0x00012C40u);
    expect_call(kernel.last(), kMaster, kExact, key(kAddr, kIf, 0), 56);
}

TEST_F(NdQueryTest, RefreshTimeZeroFailsAndStoresZero) {
    EntryValues v;
    v.refresh = 0;
    kernel.reply(0, wire(v));
    std::uint32_t t = 0xDEADBEEFu;
    EXPECT_EQ(ND_GetRefreshTime(kIf, in6(kAddr), &t), kFailed);
    EXPECT_EQ(t, 0u);
}

TEST_F(NdQueryTest, RefreshTimeOfAnUnreadableEntryFailsAndStoresZero) {
    kernel.reply(0x40010007u, Bytes{});
    std::uint32_t t = 0xDEADBEEFu;
    EXPECT_EQ(ND_GetRefreshTime(kIf, in6(kAddr), &t), kFailed);
    EXPECT_EQ(t, 0u);
    EXPECT_EQ(ND_GetRefreshTime(kIf, in6(kAddr), nullptr), kFailed);
}

// ---- Network-to-physical table --------------------------------------------------------------

class NdTableTest : public NdQueryTest {
protected:
    NdNetToPhysicalRow row_of(const EntryValues& v) {
        kernel.reply(0, wire(v));
        NdNetToPhysicalRow row{};
        EXPECT_EQ(ND_GetNetToPhysicalTable(kIf, kAddr, &row), kOk);
        return row;
    }
};

TEST_F(NdTableTest, EntryWithState5GivesRowState6AndState0Gives7) {
    EntryValues v;
    v.state = 5;
    EXPECT_EQ(row_of(v).uiState, 6u);
    v.state = 0;
    EXPECT_EQ(row_of(v).uiState, 7u);
}

TEST_F(NdTableTest, StatesOneToFourKeepTheirValues) {
    EntryValues v;
    for (std::uint8_t s = 1; s <= 4; ++s) {
        v.state = s;
        EXPECT_EQ(row_of(v).uiState, s);
    }
    v.state = 0xFF;
    EXPECT_EQ(row_of(v).uiState, 6u);
}

TEST_F(NdTableTest, KindsOneThreeSevenGiveType3SixGives2ZeroTwoFourGive0) {
    EntryValues v;
    for (const int k : {1, 3, 7}) {
        v.kind = static_cast<std::uint8_t>(k);
        EXPECT_EQ(row_of(v).uiType, 3u) << k;
    }
    v.kind = 6;
    EXPECT_EQ(row_of(v).uiType, 2u);
    for (const int k : {0, 2, 4}) {
        v.kind = static_cast<std::uint8_t>(k);
        EXPECT_EQ(row_of(v).uiType, 0u) << k;
    }
}

TEST_F(NdTableTest, RowIsTakenFieldByFieldFromTheExactEntry) {
    EntryValues v;
    std::memcpy(v.addr, kAddr2, 16);
    v.ifindex = 0x00A1B2C3u;
    v.state = 3;
    v.kind = 6;
    v.byte39 = 0x7E;
    v.update = 0x01F2E3D4u;
    kernel.reply(0, wire(v));
    NdNetToPhysicalRow row;
    std::memset(&row, 0xEE, sizeof row);
    EXPECT_EQ(ND_GetNetToPhysicalTable(kIf, kAddr, &row), kOk);
    ASSERT_EQ(kernel.count(), 1u);
    expect_call(kernel.last(), kMaster, kExact, key(kAddr, kIf, 0), 56);
    EXPECT_EQ(row.uiIfIndex, 0x00A1B2C3u);
    EXPECT_EQ(std::memcmp(row.aucAddr, kAddr2, 16), 0);
    EXPECT_EQ(std::memcmp(row.aucLinkAddr, v.link, 6), 0);
    EXPECT_EQ(row.ucByte, 0x7E);
    EXPECT_EQ(row.uiType, 2u);
    EXPECT_EQ(row.uiState, 3u);
    EXPECT_EQ(row.uiLastUpdated, 0x01F2E3D4u);
}

TEST_F(NdTableTest, ExactRowNeedsAnNdLayer3InterfaceAndARow) {
    add_interface(0x40, kMaster, 40);
    kernel.reply(0, wire(EntryValues{}));
    NdNetToPhysicalRow row{};
    EXPECT_EQ(ND_GetNetToPhysicalTable(0x40, kAddr, &row), kFailed);
    EXPECT_EQ(ND_GetNetToPhysicalTable(0x41, kAddr, &row), kFailed);  // unknown interface
    EXPECT_EQ(ND_GetNetToPhysicalTable(kIf, kAddr, nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(NdTableTest, ExactRowFailureLeavesTheRow) {
    kernel.reply(0x40010007u, Bytes{});
    NdNetToPhysicalRow row;
    std::memset(&row, 0xEE, sizeof row);
    EXPECT_EQ(ND_GetNetToPhysicalTable(kIf, kAddr, &row), kFailed);
    EXPECT_EQ(row.uiState, 0xEEEEEEEEu);
}

TEST_F(NdTableTest, FirstWithSelector3FailsWithoutOpeningAnIterator) {
    kernel.reply(0, wire(EntryValues{}));
    NdNetToPhysicalRow row{};
    EXPECT_EQ(ND_GetFirstNetToPhysicalTable(3, &row), kFailed);
    EXPECT_EQ(ND_GetFirstNetToPhysicalTable(0, nullptr), kFailed);
    EXPECT_EQ(nd_if_hooks::count(Kind::kIterOpen), 0u);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(NdTableTest, FirstWalksOnlyTheLayer3InterfacesUntilAnEntryIsFound) {
    add_interface(0x10, kMaster, 40);   // not an ND type
    add_interface(0x20, kMaster, 10);   // ND type, no entry
    add_interface(0x30, kMaster, 176);  // ND type, has one
    add_interface(0x50, kMaster, 22);   // not reached
    EntryValues v;
    v.ifindex = 0x30;
    v.state = 1;
    v.kind = 7;
    add_interface(kIf, kMaster, 2);  // the fixture's interface leaves the selection
    kernel.answer([&v](const KernelCall& c) {
        const std::uint32_t ifindex = (std::uint32_t{c.request[16]} << 24) | (std::uint32_t{c.request[17]} << 16) |
                                      (std::uint32_t{c.request[18]} << 8) | c.request[19];
        if (ifindex == 0x30) return KernelReply{0, wire(v), std::nullopt};
        return KernelReply{0x40010007u, Bytes{}, std::nullopt};
    });
    NdNetToPhysicalRow row{};
    EXPECT_EQ(ND_GetFirstNetToPhysicalTable(2, &row), kOk);
    const std::uint8_t zero[16] = {};
    const auto calls = kernel.calls();
    ASSERT_EQ(calls.size(), 2u);
    expect_call(calls[0], kMaster, kNext, key(zero, 0x20, 2), 56);
    expect_call(calls[1], kMaster, kNext, key(zero, 0x30, 2), 56);
    EXPECT_EQ(row.uiIfIndex, 0x30u);
    EXPECT_EQ(row.uiState, 1u);
    EXPECT_EQ(row.uiType, 3u);
    // Selection: mode 5, the ND layer-3 types, condition 8; the iterator is closed.
    EXPECT_EQ(nd_if_hooks::values(Kind::kInit), std::vector<std::uint32_t>{5});
    EXPECT_EQ(nd_if_hooks::count(Kind::kSetType), 29u);
    EXPECT_EQ(nd_if_hooks::values(Kind::kCondition), std::vector<std::uint32_t>{8});
    EXPECT_EQ(nd_if_hooks::count(Kind::kIterOpen), 1u);
    EXPECT_EQ(nd_if_hooks::count(Kind::kIterClose), 1u);
}

TEST_F(NdTableTest, FirstWithoutAnyEntryReturnsTheLastLookupsFailureAndClosesTheIterator) {
    add_interface(0x20, kMaster, 10);
    kernel.reply(0x40010007u, Bytes{});
    NdNetToPhysicalRow row;
    std::memset(&row, 0xEE, sizeof row);
    EXPECT_EQ(ND_GetFirstNetToPhysicalTable(0, &row), kFailed);
    EXPECT_EQ(kernel.count(), 2u);  // the fixture's interface and 0x20
    EXPECT_EQ(row.uiIfIndex, 0xEEEEEEEEu);
    EXPECT_EQ(nd_if_hooks::count(Kind::kIterClose), 1u);
}

TEST_F(NdTableTest, FirstWithoutLayer3InterfaceFailsWithoutRequest) {
    add_interface(kIf, kMaster, 40);
    kernel.reply(0, wire(EntryValues{}));
    NdNetToPhysicalRow row{};
    EXPECT_EQ(ND_GetFirstNetToPhysicalTable(1, &row), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
    EXPECT_EQ(nd_if_hooks::count(Kind::kIterOpen), 1u);
    EXPECT_EQ(nd_if_hooks::count(Kind::kIterClose), 1u);
}

TEST_F(NdTableTest, NextAsksAfterTheRowsAddressOnTheRowsInterface) {
    EntryValues v;
    std::memcpy(v.addr, kAddr2, 16);
    v.update = 0x0000FFFEu;
    kernel.reply(0, wire(v));
    NdNetToPhysicalRow row{};
    row.uiIfIndex = kIf;
    std::memcpy(row.aucAddr, kAddr, 16);
    EXPECT_EQ(ND_GetNextNetToPhysicalTable(1, &row), kOk);
    ASSERT_EQ(kernel.count(), 1u);
    expect_call(kernel.last(), kMaster, kNext, key(kAddr, kIf, 1), 56);
    EXPECT_EQ(std::memcmp(row.aucAddr, kAddr2, 16), 0);
    EXPECT_EQ(row.uiLastUpdated, 0x0000FFFEu);
    EXPECT_EQ(nd_if_hooks::count(Kind::kIterOpen), 0u);  // no move to another interface
}

TEST_F(NdTableTest, NextRejectsNullRowSelectorAbove2AndOtherInterfaces) {
    add_interface(0x40, kMaster, 40);
    kernel.reply(0, wire(EntryValues{}));
    NdNetToPhysicalRow row{};
    row.uiIfIndex = kIf;
    EXPECT_EQ(ND_GetNextNetToPhysicalTable(3, &row), kFailed);
    EXPECT_EQ(ND_GetNextNetToPhysicalTable(0, nullptr), kFailed);
    row.uiIfIndex = 0x40;
    EXPECT_EQ(ND_GetNextNetToPhysicalTable(0, &row), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(NdTableTest, NextAtTheEndFailsAndKeepsTheRow) {
    kernel.reply(KernelReply{0, Bytes{}, 0u});
    NdNetToPhysicalRow row{};
    row.uiIfIndex = kIf;
    std::memcpy(row.aucAddr, kAddr, 16);
    EXPECT_EQ(ND_GetNextNetToPhysicalTable(0, &row), kFailed);
    EXPECT_EQ(row.uiIfIndex, kIf);
    EXPECT_EQ(std::memcmp(row.aucAddr, kAddr, 16), 0);
}

// ---- Counters over nodes --------------------------------------------------------------------

class NdQueryCountersTest : public NdQueryTest {};

TEST_F(NdQueryCountersTest, AttackStatAsksEveryListedNodeAndAddsItsFourCounters) {
    Bytes want = module_head(46, 12);
    want.insert(want.end(), {0xA7, 0, 0, 0});
    attack_stat_adds_every_nodes_counters<ND_GetNdAttackStat>(0x8003, 0xFFFF8003u, kModuleMsg, want);
}

TEST_F(NdQueryCountersTest, AttackStatClearsTheReplyBeforeEveryNode) {
    attack_stat_clears_the_reply_for_every_node<ND_GetNdAttackStat>();
}

TEST_F(NdQueryCountersTest, AttackStatWithoutNodeListOrCountersAsksNothing) {
    attack_stat_asks_nothing_without_nodes_or_counters<ND_GetNdAttackStat>();
}

TEST_F(NdQueryCountersTest, AlarmThresholdAddsOnlyUpNodesWithExactlyEightBytes) {
    Bytes want = module_head(45, 12);
    want.insert(want.end(), {0x5C, 0, 0, 0});
    alarm_threshold_adds_only_up_nodes<ND_GetAlarmThresholdStat>(kModuleMsg, want);
    FakeKernel after;
    ND_GetAlarmThresholdStat(1, nullptr);
    EXPECT_EQ(after.count(), 0u) << "no counter: nothing asked";
}

// ---- Extension bitmap -----------------------------------------------------------------------

TEST_F(NdQueryTest, Ext3BitmapAsksTheMasterEndpointAndStoresTheBigEndianWord) {
    kernel.reply(0, Bytes{0x12, 0x34, 0x56, 0x78});
    std::uint32_t bm = 0;
    EXPECT_EQ(nd_GetExt3Bitmap(&bm), kOk);
    EXPECT_EQ(bm, 0x12345678u);
    ASSERT_EQ(kernel.count(), 1u);
    expect_call(kernel.last(), kMaster, kModuleMsg, Bytes{0, 0, 0, 0x27, 0, 0, 0, 8}, 4);
}

TEST_F(NdQueryTest, Ext3BitmapFailureOrEmptyReplyLeavesTheResult) {
    kernel.reply(0x40010007u, Bytes{1, 2, 3, 4});
    std::uint32_t bm = 0xAAAA5555u;
    EXPECT_EQ(nd_GetExt3Bitmap(&bm), 0x40010007u);
    EXPECT_EQ(bm, 0xAAAA5555u);
    kernel.reply(KernelReply{0, Bytes{}, 0u});
    EXPECT_EQ(nd_GetExt3Bitmap(&bm), kOk);
    EXPECT_EQ(bm, 0xAAAA5555u);
    EXPECT_EQ(nd_GetExt3Bitmap(nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 2u);
}

// ---- Private-data readers -------------------------------------------------------------------

class NdQueryTlvTest : public PlatformTest {
protected:
    static void element(Bytes& b, std::uint16_t tag, const Bytes& value) { tlv_element(b, tag, value); }
    static std::uint32_t pdata(const Bytes& b, std::uint16_t type, std::uint64_t* v) {
        return ND_GetPDataFromIPCIM(static_cast<std::uint32_t>(b.size()), b.data(), type, v);
    }
};

TEST_F(NdQueryTlvTest, FourByteValue00000005ReadsAs0x0000000500000000) {
    Bytes data;
    element(data, 7, Bytes{0x00, 0x00, 0x00, 0x05});
    std::uint64_t v = 1;
    EXPECT_EQ(pdata(data, 7, &v), kOk);
    EXPECT_EQ(v, 0x0000000500000000ull);
}

TEST_F(NdQueryTlvTest, TimeStampWithLengthTwoFillsTheLowAddressedHalf) {
    time_stamp_of_two_bytes<ND_GetTimeStampFromPData>();
}

TEST_F(NdQueryTlvTest, TimeStampTakesTheFirstFourBytesAsTheyLie) {
    const std::uint8_t data[6] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06};
    std::uint32_t t = 0;
    EXPECT_EQ(ND_GetTimeStampFromPData(6, data, &t), kOk);
    EXPECT_EQ(t, 0x04030201u);  // little-endian host: not swapped
    EXPECT_EQ(ND_GetTimeStampFromPData(6, nullptr, &t), kOk);
    EXPECT_EQ(ND_GetTimeStampFromPData(6, data, nullptr), kOk);
}

TEST_F(NdQueryTlvTest, ValueLongerThanEightBytesGivesItsFirstEight) {
    pdata_longer_value_gives_first_eight<ND_GetPDataFromIPCIM>(10);
}

TEST_F(NdQueryTlvTest, WalkSkipsOtherTypesToTheWantedOne) {
    Bytes data;
    element(data, 1, Bytes{0xFF, 0xFF});
    element(data, 2, Bytes{});
    element(data, 3, Bytes{0x0A, 0x0B, 0x0C});
    std::uint64_t v = 0;
    EXPECT_EQ(pdata(data, 3, &v), kOk);
    EXPECT_EQ(v, 0x0A0B0C0000000000ull);
}

TEST_F(NdQueryTlvTest, MissingTypeTruncatedElementOrNullPointersFail) {
    Bytes data;
    element(data, 1, Bytes{0x01});
    std::uint64_t v = 0x55;
    EXPECT_EQ(pdata(data, 9, &v), kFailed);
    Bytes cut;
    put16(cut, 9);
    put16(cut, 8);
    cut.push_back(1);  // claims 8 value bytes, has 1
    EXPECT_EQ(pdata(cut, 9, &v), kFailed);
    EXPECT_EQ(v, 0x55u);
    EXPECT_EQ(ND_GetPDataFromIPCIM(4, nullptr, 1, &v), kFailed);
    EXPECT_EQ(pdata(data, 1, nullptr), kFailed);
}

}  // namespace
}  // namespace ipt
