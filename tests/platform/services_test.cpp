// Service manager, dump service, configuration database, kernel events, walk cursors and
// the tag-length-value reader, as tests script them.
#include <gtest/gtest.h>
#include <poll.h>

#include <cstring>

#include "ipplat/testctl.h"
#include "support/fixture.hpp"

namespace ipt {
namespace {

class ServicesTest : public PlatformTest {};

TEST_F(ServicesTest, StatusSequenceIsReportedInTurnAndTheLastRepeats) {
    const std::uint32_t seq[] = {1, 1, 3};
    ipp_service_script(2, "IPStack", seq, 3);
    std::uint32_t status = 0;
    for (const std::uint32_t want : {1u, 1u, 3u, 3u}) {
        ASSERT_EQ(SERVICE_GetStatus(2, "IPStack", 0, &status), 0u);
        EXPECT_EQ(status, want);
    }
    EXPECT_EQ(ipp_service_status_calls(2, "IPStack"), 4u);
    ASSERT_EQ(SERVICE_GetStatus(3, "IPStack", 0, &status), 0u);
    EXPECT_EQ(status, SERVICE_STATUS_STOPPED);
}

TEST_F(ServicesTest, FailingStatusCallWritesNothingAndStartsAreCounted) {
    ipp_service_set_status_result(1, "DHCPC", 0x55);
    std::uint32_t status = 42;
    EXPECT_EQ(SERVICE_GetStatus(1, "DHCPC", 0, &status), 0x55u);
    EXPECT_EQ(status, 42u);
    ipp_service_set_start_result(1, "DHCPC", 0x66);
    EXPECT_EQ(SERVICE_Start(1, "DHCPC", 0, 0), 0x66u);
    EXPECT_EQ(ipp_service_start_calls(1, "DHCPC"), 1u);
    const std::uint16_t nodes[] = {4, 5};
    EXPECT_EQ(SERVICE_BatchStart(nodes, 2, "IPStack", 0, 0), 0u);
    std::uint16_t got[4] = {};
    EXPECT_EQ(ipp_service_last_batch("IPStack", got, 4), 2u);
    EXPECT_EQ(got[1], 5);
}

TEST_F(ServicesTest, DumpDeliversChunksWithMoreDataThenTheFinalStatus) {
    const std::uint8_t a[] = {1, 2, 3}, b[] = {4, 5};
    ipp_dump_add_chunk(3, 0x640001, a, sizeof a);
    ipp_dump_add_chunk(3, 0x640001, b, sizeof b);
    const std::uint8_t req[8] = {11};
    const std::int32_t h = DUMP_Request(0xFFFF0003u, 0x640001, req, sizeof req);
    ASSERT_GE(h, 0);
    std::uint8_t buf[8];
    std::uint32_t len = 0;
    EXPECT_EQ(DUMP_Pull(h, sizeof buf, buf, &len), DUMP_MORE_DATA);
    EXPECT_EQ(len, 3u);
    EXPECT_EQ(DUMP_Pull(h, 1, buf, &len), DUMP_MORE_DATA);
    EXPECT_EQ(len, 1u);  // cut to the capacity
    EXPECT_EQ(DUMP_Pull(h, sizeof buf, buf, &len), 0u);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(ipp_dump_open_handles(), 1u);
    DUMP_Terminate(h);
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
    std::uint32_t node = 0, id = 0;
    std::uint8_t sent[8];
    EXPECT_EQ(ipp_dump_request(0, &node, &id, sent, sizeof sent), 8u);
    EXPECT_EQ(node, 0xFFFF0003u);
    EXPECT_EQ(id, 0x640001u);
    EXPECT_EQ(sent[0], 11);
}

TEST_F(ServicesTest, DumpRequestFailureAndFinalStatus) {
    ipp_dump_fail_request(1, 0x2a0001, -3);
    EXPECT_EQ(DUMP_Request(1, 0x2a0001, nullptr, 0), -3);
    ipp_dump_set_final(2, 0x2a0001, 0x1234);
    const std::int32_t h = DUMP_Request(2, 0x2a0001, nullptr, 0);
    std::uint32_t len = 0;
    EXPECT_EQ(DUMP_Pull(h, 0, nullptr, &len), 0x1234u);
    DUMP_Terminate(h);
}

TEST_F(ServicesTest, DatabaseListsAreWalkedThroughAnIterator) {
    const char key[] = "ARP_MAD_CFG";
    ipp_dbm_add_record("eL2MAD", "L2MAD", key, sizeof key, "GigabitEthernet1/0/1", 21);
    ipp_dbm_add_record("eL2MAD", "L2MAD", key, sizeof key, "GigabitEthernet1/0/2", 21);
    void* db = nullptr;
    ASSERT_EQ(DBM_Open("eL2MAD", "L2MAD", 1, &db), 0u);
    EXPECT_EQ(DBM_Len(db, key, sizeof key), 2);
    void* it = nullptr;
    char rec[48];
    EXPECT_EQ(DBM_GetNextSortList(db, key, sizeof key, &it, 0, 0, sizeof rec, rec), 1);
    EXPECT_STREQ(rec, "GigabitEthernet1/0/1");
    EXPECT_EQ(DBM_GetNextSortList(db, key, sizeof key, &it, 0, 0, sizeof rec, rec), 1);
    EXPECT_STREQ(rec, "GigabitEthernet1/0/2");
    EXPECT_EQ(DBM_GetNextSortList(db, key, sizeof key, &it, 0, 0, sizeof rec, rec), 0);
    EXPECT_EQ(ipp_dbm_open_iterators(), 1u);
    DBM_FreeIterator(it);
    EXPECT_EQ(DBM_Close(db), 0u);
    EXPECT_EQ(ipp_dbm_open_handles(), 0u);
    EXPECT_EQ(ipp_dbm_open_iterators(), 0u);
}

TEST_F(ServicesTest, DatabaseOpenFailure) {
    ipp_dbm_fail_open("eL2MAD", "L2MAD", 0x99);
    void* db = nullptr;
    EXPECT_EQ(DBM_Open("eL2MAD", "L2MAD", 1, &db), 0x99u);
    EXPECT_EQ(ipp_dbm_open_handles(), 0u);
}

TEST_F(ServicesTest, KernelEventsArePollableAndNeverBlock) {
    const std::int32_t fd = KEvent_Subscribe(0x210002);
    ASSERT_GE(fd, 0);
    std::uint8_t buf[512];
    EXPECT_LE(KEvent_Recv(fd, buf, sizeof buf), 0);
    const std::uint8_t ev[] = {0, 0, 0, 2, 0xAA, 0xBB};
    EXPECT_EQ(ipp_kevent_post(0x210002, ev, sizeof ev), 1u);
    EXPECT_EQ(ipp_kevent_post(0x210003, ev, sizeof ev), 0u);
    pollfd p{fd, POLLIN, 0};
    EXPECT_EQ(::poll(&p, 1, 1000), 1);
    EXPECT_EQ(KEvent_Recv(fd, buf, sizeof buf), 6);
    EXPECT_EQ(buf[5], 0xBB);
    EXPECT_EQ(KEvent_Unsubscribe(fd), 0);
    EXPECT_EQ(KEvent_Unsubscribe(fd), -1);
    ipp_kevent_fail_subscribe(-7);
    EXPECT_EQ(KEvent_Subscribe(0x210002), -7);
}

TEST_F(ServicesTest, WalkCursorMovesToSuccessorWhenItsElementIsRemoved) {
    int anchor = 0;
    int ctx = 5;
    const std::uint64_t path = ANCHOR_BeginPath(&anchor, 2, 0, &ctx);
    ASSERT_NE(path, 0u);
    EXPECT_EQ(ANCHOR_Set(&anchor, path, 100), 0u);
    ipp_anchor_remove(&anchor, 2, 100, 200);
    std::uint64_t pos = 0;
    void* got = nullptr;
    EXPECT_EQ(ANCHOR_Inquire(&anchor, path, &pos, &got), 0u);
    EXPECT_EQ(pos, 200u);
    EXPECT_EQ(got, &ctx);
    static int released = 0;
    ANCHOR_EndPath(&anchor, path, [](void* c) { released = *static_cast<int*>(c); });
    EXPECT_EQ(released, 5);
    EXPECT_EQ(ipp_anchor_open_paths(), 0u);
    ipp_anchor_fail_next_begin();
    EXPECT_EQ(ANCHOR_BeginPath(&anchor, 2, 0, &ctx), 0u);
}

TEST_F(ServicesTest, TagLengthValueReaderStaysInsideTheBuffer) {
    const std::uint8_t tlv[] = {0x00, 0x01, 0x00, 0x02, 0xAA, 0xBB, 0x00, 0x05, 0x00, 0x09, 0x01};
    std::uint16_t type = 0, len = 0;
    const void* value = nullptr;
    ASSERT_EQ(STLV_Get(tlv, sizeof tlv, &type, &len, &value), 0u);
    EXPECT_EQ(type, 1u);
    EXPECT_EQ(len, 2u);
    EXPECT_EQ(value, tlv + 4);
    // The second element claims 9 bytes where 1 remains.
    EXPECT_NE(STLV_Get(tlv + 6, sizeof tlv - 6, &type, &len, &value), 0u);
    EXPECT_EQ(value, nullptr);
    EXPECT_NE(STLV_Get(tlv, 3, &type, &len, &value), 0u);
}

TEST_F(ServicesTest, BoundedPrintAndCopy) {
    char buf[8];
    EXPECT_EQ(scnprintf(buf, sizeof buf, "%s", "Vlan-interface1"), 7);
    EXPECT_STREQ(buf, "Vlan-in");
    EXPECT_EQ(scnprintf(buf, 0, "%d", 5), 0);
    EXPECT_EQ(scnprintf(buf, sizeof buf, "%u", 42u), 2);
    EXPECT_EQ(strlcpy(buf, "abcdefghij", sizeof buf), 10u);
    EXPECT_STREQ(buf, "abcdefg");
}

}  // namespace
}  // namespace ipt
