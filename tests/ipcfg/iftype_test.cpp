// Interface type selection tables and the address records of the configuration database.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "ipclient/ipcfg.h"
#include "ipplat/testctl.h"
#include "support/fixture.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

using Bytes = std::vector<std::uint8_t>;


const std::vector<std::uint32_t> kCliTypes = {22, 35, 42,  10,  6,   23,  4,   31, 16,  39,  5,   71,  24, 27, 29,
                                              1,  26, 28,  41,  25,  7,   55,  2,  47,  3,   67,  70,  84, 89, 96,
                                              97, 86, 105, 108, 110, 111, 114, 51, 122, 124, 144, 168, 176};
const std::vector<std::uint32_t> kShowTypes = {22, 35, 42,  10,  6,   23,  4,   31,  16, 39,  5,   71,  24,  27, 29, 1,
                                               26, 28, 41,  25,  7,   55,  2,   47,  3,  67,  70,  84,  89,  96, 97, 11,
                                               40, 86, 105, 108, 110, 111, 114, 120, 51, 122, 124, 144, 168, 176};

// Sets an entry of an exported table for the length of a scope.
class EntryOverride {
public:
    EntryOverride(std::uint32_t* table, std::size_t index, std::uint32_t value) : slot_(table + index), saved_(*slot_) {
        *slot_ = value;
    }
    ~EntryOverride() { *slot_ = saved_; }
    EntryOverride(const EntryOverride&) = delete;
    EntryOverride& operator=(const EntryOverride&) = delete;

private:
    std::uint32_t* slot_;
    std::uint32_t saved_;
};

// The types a selection holds, in increasing order.
std::vector<std::uint32_t> selected(const IF_SELECT_S& sel) {
    std::vector<std::uint32_t> types;
    for (std::uint32_t t = 0; t < 256; ++t) {
        if (IF_SelectType_Check(t, &sel) == 1) types.push_back(t);
    }
    return types;
}

std::vector<std::uint32_t> sorted(std::vector<std::uint32_t> v) {
    std::sort(v.begin(), v.end());
    return v;
}

class IfTypeTest : public PlatformTest {
protected:
    IfTypeTest() { EXPECT_EQ(IF_Select_Init(0, &sel), 0u); }
    IF_SELECT_S sel{};
};

TEST_F(IfTypeTest, ConfigurationListHoldsTheFortyThreeTypesInOrder) {
    std::uint32_t count = 0;
    const std::uint32_t* list = IPCFG_GetIfType(&count);
    ASSERT_EQ(count, 43u);
    EXPECT_EQ(list, g_auiIPAddrCliIfType);
    EXPECT_EQ(std::vector<std::uint32_t>(list, list + count), kCliTypes);
}

TEST_F(IfTypeTest, DisplayListHoldsTheFortySixTypesInOrder) {
    std::uint32_t count = 0;
    const std::uint32_t* list = IPCFG_GetShowIfType(&count);
    ASSERT_EQ(count, 46u);
    EXPECT_EQ(list, g_auiIPAddrShowIfType);
    EXPECT_EQ(std::vector<std::uint32_t>(list, list + count), kShowTypes);
}

TEST_F(IfTypeTest, GettersAcceptANullCount) {
    EXPECT_EQ(IPCFG_GetIfType(nullptr), g_auiIPAddrCliIfType);
    EXPECT_EQ(IPCFG_GetShowIfType(nullptr), g_auiIPAddrShowIfType);
}

TEST_F(IfTypeTest, CountsAreFortyThreeAndFortySixWhateverTheArraysHold) {
    const EntryOverride first(g_auiIPAddrCliIfType, 0, 0);
    const EntryOverride last(g_auiIPAddrCliIfType, 42, 0);
    const EntryOverride show_first(g_auiIPAddrShowIfType, 0, 0);
    const EntryOverride show_last(g_auiIPAddrShowIfType, 45, 0);
    std::uint32_t count = 0;
    EXPECT_EQ(IPCFG_GetIfType(&count), g_auiIPAddrCliIfType);
    EXPECT_EQ(count, 43u);
    count = 0;
    EXPECT_EQ(IPCFG_GetShowIfType(&count), g_auiIPAddrShowIfType);
    EXPECT_EQ(count, 46u);
}

TEST_F(IfTypeTest, ChangedEntryIsSeenThroughTheGetter) {
    const EntryOverride changed(g_auiIPAddrCliIfType, 5, 200);
    std::uint32_t count = 0;
    EXPECT_EQ(IPCFG_GetIfType(&count)[5], 200u);
}

TEST_F(IfTypeTest, SetIFTypeSelectsExactlyTheConfigurationTypes) {
    EXPECT_EQ(IPCFG_SetIFType(&sel), 0u);
    EXPECT_EQ(selected(sel), sorted(kCliTypes));
}

TEST_F(IfTypeTest, SetShowIFTypeSelectsExactlyTheDisplayTypes) {
    EXPECT_EQ(IPCFG_SetShowIFType(&sel), 0u);
    EXPECT_EQ(selected(sel), sorted(kShowTypes));
}

TEST_F(IfTypeTest, TypesElevenFortyAndOneHundredTwentyAreSelectedForDisplayOnly) {
    IF_SELECT_S show{};
    ASSERT_EQ(IF_Select_Init(0, &show), 0u);
    ASSERT_EQ(IPCFG_SetIFType(&sel), 0u);
    ASSERT_EQ(IPCFG_SetShowIFType(&show), 0u);
    for (const std::uint32_t t : {11u, 40u, 120u}) {
        EXPECT_EQ(IF_SelectType_Check(t, &sel), 0u) << "type " << t;
        EXPECT_EQ(IF_SelectType_Check(t, &show), 1u) << "type " << t;
    }
}

TEST_F(IfTypeTest, SelectionFollowsChangedEntries) {
    const EntryOverride changed(g_auiIPAddrCliIfType, 0, 250);  // replaces 22
    EXPECT_EQ(IPCFG_SetIFType(&sel), 0u);
    EXPECT_EQ(IF_SelectType_Check(250, &sel), 1u);
    EXPECT_EQ(IF_SelectType_Check(22, &sel), 0u);
}

TEST_F(IfTypeTest, OneFailingEntryMakesTheResultNonZeroAndLaterEntriesAreStillAdded) {
    IF_SELECT_S scratch{};
    ASSERT_EQ(IF_Select_Init(0, &scratch), 0u);
    const std::uint32_t failure = IF_SelectType_Set(300, &scratch);
    ASSERT_NE(failure, 0u);
    const EntryOverride bad(g_auiIPAddrCliIfType, 0, 300);  // the first entry, 22, fails now
    EXPECT_EQ(IPCFG_SetIFType(&sel), failure);
    std::vector<std::uint32_t> rest(kCliTypes.begin() + 1, kCliTypes.end());
    EXPECT_EQ(selected(sel), sorted(rest));
}

TEST_F(IfTypeTest, FailingDisplayEntryInTheMiddleStillLetsTheOthersThrough) {
    IF_SELECT_S scratch{};
    ASSERT_EQ(IF_Select_Init(0, &scratch), 0u);
    const std::uint32_t failure = IF_SelectType_Set(1000, &scratch);
    ASSERT_NE(failure, 0u);
    const EntryOverride bad(g_auiIPAddrShowIfType, 32, 1000);  // type 40
    EXPECT_EQ(IPCFG_SetShowIFType(&sel), failure);
    std::vector<std::uint32_t> rest = kShowTypes;
    rest.erase(rest.begin() + 32);
    EXPECT_EQ(selected(sel), sorted(rest));
    EXPECT_EQ(IF_SelectType_Check(176, &sel), 1u);
}

TEST_F(IfTypeTest, NullSelectorGivesTheOrOfTheFailures) {
    const std::uint32_t failure = IF_SelectType_Set(22, nullptr);
    ASSERT_NE(failure, 0u);
    EXPECT_EQ(IPCFG_SetIFType(nullptr), failure);
    EXPECT_EQ(IPCFG_SetShowIFType(nullptr), failure);
}

// ---- Address records of the configuration database ---------------------------------------

const char* const kDb = "ipaddrdb";
const char* const kGroup = "ipaddr";

// The 52-byte list key: the key value in host order, then at most 47 characters of the name
// in a zero-padded 48-byte field.
Bytes db_key(std::uint32_t value, const std::string& name) {
    Bytes k(52, 0);
    std::memcpy(k.data(), &value, sizeof value);
    std::memcpy(k.data() + 4, name.data(), std::min<std::size_t>(name.size(), 47));
    return k;
}

struct DbRecord {
    std::uint16_t value;
    std::uint32_t values[4];
};

// The 20-byte database record: the 16-bit value, 2 reserved bytes, four 32-bit values, all
// as the database stores them (host order).
Bytes db_record(const DbRecord& r) {
    Bytes b(20, 0);
    std::memcpy(b.data(), &r.value, 2);
    b[2] = 0xEE;
    b[3] = 0xEF;
    std::memcpy(b.data() + 4, r.values, 16);
    return b;
}

DbRecord sample(std::uint32_t i) {
    return DbRecord{static_cast<std::uint16_t>(0xA100 + i),
                    {0x01020304u + i, 0x05060708u + i, 0x090A0B0Cu + i, 0x0D0E0F10u + i}};
}

void add_records(std::uint32_t key, const std::string& name, std::uint32_t n) {
    const Bytes k = db_key(key, name);
    for (std::uint32_t i = 0; i < n; ++i) {
        const Bytes r = db_record(sample(i));
        ipp_dbm_add_record(kDb, kGroup, k.data(), static_cast<std::uint32_t>(k.size()), r.data(),
                           static_cast<std::uint32_t>(r.size()));
    }
}

IPCFG_DB_ADDR_S blank_entry() {
    IPCFG_DB_ADDR_S e;
    std::memset(&e, 0xA5, sizeof e);
    return e;
}

bool is_blank(const IPCFG_DB_ADDR_S& e) {
    const IPCFG_DB_ADDR_S b = blank_entry();
    return std::memcmp(&e, &b, sizeof e) == 0;
}

class DbAddrTest : public PlatformTest {
protected:
    DbAddrTest() { EXPECT_EQ(DBM_Open(kDb, kGroup, 0, &db), 0u); }
    void TearDown() override {
        EXPECT_EQ(ipp_dbm_open_iterators(), 0u) << "an iterator was left open";
        EXPECT_EQ(DBM_Close(db), 0u);
        EXPECT_EQ(ipp_dbm_open_handles(), 0u);
        PlatformTest::TearDown();
    }

    void expect_entry(const IPCFG_DB_ADDR_S& e, std::uint32_t i) {
        const DbRecord r = sample(i);
        EXPECT_EQ(e.usValue, r.value) << "entry " << i;
        for (int v = 0; v < 4; ++v) EXPECT_EQ(e.auiValue[v], r.values[v]) << "entry " << i << " value " << v;
        for (int b = 0; b < 6; ++b) EXPECT_EQ(e.aucReserved[b], 0xA5) << "entry " << i << " byte " << (b + 2);
    }

    void* db = nullptr;
};

TEST_F(DbAddrTest, GetAddrNumCountsTheRecordsOfTheKey) {
    add_records(0x01020304, "GigabitEthernet1/0/1", 3);
    add_records(0x01020304, "GigabitEthernet1/0/2", 1);
    add_records(7, "GigabitEthernet1/0/1", 2);
    EXPECT_EQ(IPCfg_Mor_GetAddrNum(db, 0x01020304, "GigabitEthernet1/0/1"), 3u);
    EXPECT_EQ(IPCfg_Mor_GetAddrNum(db, 0x01020304, "GigabitEthernet1/0/2"), 1u);
    EXPECT_EQ(IPCfg_Mor_GetAddrNum(db, 7, "GigabitEthernet1/0/1"), 2u);
    EXPECT_EQ(IPCfg_Mor_GetAddrNum(db, 0x04030201, "GigabitEthernet1/0/1"), 0u);
}

TEST_F(DbAddrTest, GetAddrNumIsZeroOnDatabaseErrorOrNullName) {
    add_records(1, "Vlan-interface1", 2);
    int not_a_handle = 0;
    EXPECT_EQ(IPCfg_Mor_GetAddrNum(&not_a_handle, 1, "Vlan-interface1"), 0u);
    EXPECT_EQ(IPCfg_Mor_GetAddrNum(db, 1, nullptr), 0u);
}

TEST_F(DbAddrTest, GetAddrWithCountTwoAndFiveRecordsCopiesTwoEntries) {
    add_records(0x01020304, "Vlan-interface10", 5);
    std::vector<IPCFG_DB_ADDR_S> entries(5, blank_entry());
    std::uint64_t count = 2;
    EXPECT_EQ(IPCfg_Mor_GetAddr(db, 0x01020304, "Vlan-interface10", &count, entries.data()), 0u);
    EXPECT_EQ(count, 2u);
    expect_entry(entries[0], 0);
    expect_entry(entries[1], 1);
    EXPECT_TRUE(is_blank(entries[2]));
}

TEST_F(DbAddrTest, GetAddrWithoutRecordsFailsAndLeavesTheCountUnchanged) {
    add_records(2, "Vlan-interface10", 3);  // another key
    IPCFG_DB_ADDR_S entry = blank_entry();
    std::uint64_t count = 3;
    EXPECT_EQ(IPCfg_Mor_GetAddr(db, 1, "Vlan-interface10", &count, &entry), kFailed);
    EXPECT_EQ(count, 3u);
    EXPECT_TRUE(is_blank(entry));
}

TEST_F(DbAddrTest, GetAddrWithCountZeroCopiesEveryRecord) {
    add_records(9, "Tunnel0", 5);
    std::vector<IPCFG_DB_ADDR_S> entries(6, blank_entry());
    std::uint64_t count = 0;
    EXPECT_EQ(IPCfg_Mor_GetAddr(db, 9, "Tunnel0", &count, entries.data()), 0u);
    EXPECT_EQ(count, 5u);
    for (std::uint32_t i = 0; i < 5; ++i) expect_entry(entries[i], i);
    EXPECT_TRUE(is_blank(entries[5]));
}

TEST_F(DbAddrTest, GetAddrWithCountAboveTheRecordsCopiesWhatThereIs) {
    add_records(9, "Tunnel0", 3);
    std::vector<IPCFG_DB_ADDR_S> entries(10, blank_entry());
    std::uint64_t count = 10;
    EXPECT_EQ(IPCfg_Mor_GetAddr(db, 9, "Tunnel0", &count, entries.data()), 0u);
    EXPECT_EQ(count, 3u);
    for (std::uint32_t i = 0; i < 3; ++i) expect_entry(entries[i], i);
    EXPECT_TRUE(is_blank(entries[3]));
}

TEST_F(DbAddrTest, EntryTakesTheValuesAsStoredAndLeavesBytesTwoToSevenUntouched) {
    const DbRecord r{0xB1C2, {0x01020304u, 0xA0B0C0D0u, 0x11223344u, 0xFFEEDDCCu}};
    const Bytes k = db_key(5, "Eth0");
    const Bytes rec = db_record(r);
    ipp_dbm_add_record(kDb, kGroup, k.data(), 52, rec.data(), 20);
    IPCFG_DB_ADDR_S e = blank_entry();
    std::uint64_t count = 1;
    ASSERT_EQ(IPCfg_Mor_GetAddr(db, 5, "Eth0", &count, &e), 0u);
    EXPECT_EQ(count, 1u);
    // Byte for byte: record bytes 0-1 at 0, record bytes 4-19 at 8-23.
    std::uint8_t raw[24];
    std::memcpy(raw, &e, sizeof raw);
    EXPECT_EQ(Bytes(raw, raw + 2), Bytes(rec.begin(), rec.begin() + 2));
    EXPECT_EQ(Bytes(raw + 2, raw + 8), Bytes(6, 0xA5));
    EXPECT_EQ(Bytes(raw + 8, raw + 24), Bytes(rec.begin() + 4, rec.end()));
    EXPECT_EQ(e.usValue, 0xB1C2u);
    EXPECT_EQ(e.auiValue[0], 0x01020304u);
    EXPECT_EQ(e.auiValue[3], 0xFFEEDDCCu);
}

TEST_F(DbAddrTest, NameOfSixtyCharactersIsKeyedByItsFirstFortySevenCharacters) {
    std::string long_name;
    for (int i = 0; i < 60; ++i) long_name.push_back(static_cast<char>('A' + i % 26));
    add_records(3, long_name.substr(0, 47), 4);
    EXPECT_EQ(IPCfg_Mor_GetAddrNum(db, 3, long_name.c_str()), 4u);
    std::vector<IPCFG_DB_ADDR_S> entries(4, blank_entry());
    std::uint64_t count = 0;
    EXPECT_EQ(IPCfg_Mor_GetAddr(db, 3, long_name.c_str(), &count, entries.data()), 0u);
    EXPECT_EQ(count, 4u);
    expect_entry(entries[3], 3);
    // A key with 48 characters of the name is not the one looked up.
    Bytes k48(52, 0);
    const std::uint32_t key = 3;
    std::memcpy(k48.data(), &key, 4);
    std::memcpy(k48.data() + 4, long_name.data(), 48);
    const Bytes rec = db_record(sample(9));
    ipp_dbm_add_record(kDb, kGroup, k48.data(), 52, rec.data(), 20);
    EXPECT_EQ(IPCfg_Mor_GetAddrNum(db, 3, long_name.c_str()), 4u);
}

TEST_F(DbAddrTest, GetAddrFreesItsIteratorOnEveryPath) {
    add_records(1, "Eth1", 5);
    std::vector<IPCFG_DB_ADDR_S> entries(5, blank_entry());
    std::uint64_t count = 1;
    EXPECT_EQ(IPCfg_Mor_GetAddr(db, 1, "Eth1", &count, entries.data()), 0u);
    EXPECT_EQ(ipp_dbm_open_iterators(), 0u);
    count = 0;
    EXPECT_EQ(IPCfg_Mor_GetAddr(db, 1, "Eth1", &count, entries.data()), 0u);
    EXPECT_EQ(ipp_dbm_open_iterators(), 0u);
    count = 2;
    EXPECT_EQ(IPCfg_Mor_GetAddr(db, 1, "Eth2", &count, entries.data()), kFailed);
    EXPECT_EQ(ipp_dbm_open_iterators(), 0u);
}

TEST_F(DbAddrTest, GetAddrOnADatabaseErrorCopiesNothing) {
    add_records(1, "Eth1", 2);
    int not_a_handle = 0;
    IPCFG_DB_ADDR_S entry = blank_entry();
    std::uint64_t count = 2;
    EXPECT_EQ(IPCfg_Mor_GetAddr(&not_a_handle, 1, "Eth1", &count, &entry), kFailed);
    EXPECT_EQ(count, 2u);
    EXPECT_TRUE(is_blank(entry));
}

}  // namespace
}  // namespace ipt
