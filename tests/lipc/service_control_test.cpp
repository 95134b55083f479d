// Starting and checking the IP daemon's service across the device's nodes.
#include <gtest/gtest.h>

#include <cstring>

#include "ipclient/lipc.h"
#include "ipplat/testctl.h"
#include "support/fixture.hpp"

namespace ipt {
namespace {

constexpr const char* kName = "IPStack";

class ServiceControlTest : public PlatformTest {
protected:
    static void status(std::uint16_t node, std::initializer_list<std::uint32_t> seq) {
        const std::vector<std::uint32_t> v(seq);
        ipp_service_script(node, kName, v.data(), static_cast<std::uint32_t>(v.size()));
    }
};

TEST_F(ServiceControlTest, ServiceNameIsTheExportedPointer) {
    EXPECT_STREQ(IP_GetServiceName(), "IPStack");
    EXPECT_EQ(IP_GetServiceName(), g_pcIPStakcName);
}

TEST_F(ServiceControlTest, RepointedServiceNameIsTheOneManaged) {
    char other[] = "OtherStack";
    char* const saved = g_pcIPStakcName;
    g_pcIPStakcName = other;
    EXPECT_EQ(IP_StartDaemon(5), 0u);
    g_pcIPStakcName = saved;
    EXPECT_EQ(ipp_service_start_calls(5, "OtherStack"), 1u);
    EXPECT_EQ(ipp_service_start_calls(5, kName), 0u);
}

TEST_F(ServiceControlTest, OwnNodeAliasAnswersZeroWithoutAnyPlatformCall) {
    EXPECT_EQ(IP_IsDaemonExist(0x8000), 0u);
    EXPECT_EQ(IP_StartDaemon(0x8000), 0u);
    EXPECT_EQ(ipp_service_status_calls(0x8000, kName), 0u);
    EXPECT_EQ(ipp_service_start_calls(0x8000, kName), 0u);
}

TEST_F(ServiceControlTest, StatusFourIsNotRunningButStopsStartDaemon) {
    status(3, {4});
    EXPECT_EQ(IP_IsDaemonExist(3), 0u);
    EXPECT_EQ(IP_StartDaemon(3), 0u);
    EXPECT_EQ(ipp_service_start_calls(3, kName), 0u);
}

TEST_F(ServiceControlTest, StartDaemonStartsAStoppedServiceAndPassesItsCode) {
    status(3, {0});
    ipp_service_set_start_result(3, kName, 0x1234);
    EXPECT_EQ(IP_StartDaemon(3), 0x1234u);
    EXPECT_EQ(ipp_service_start_calls(3, kName), 1u);
}

TEST_F(ServiceControlTest, StartDaemonIgnoresAFailedStatusCall) {
    ipp_service_set_status_result(3, kName, 0x77);
    EXPECT_EQ(IP_StartDaemon(3), 0u);
    EXPECT_EQ(ipp_service_start_calls(3, kName), 1u);
}

TEST_F(ServiceControlTest, IsDaemonExistReadsStatuses) {
    status(3, {2});
    EXPECT_EQ(IP_IsDaemonExist(3), 1u);
    status(4, {0});
    EXPECT_EQ(IP_IsDaemonExist(4), 0u);
    ipp_service_set_status_result(5, kName, 1);
    EXPECT_EQ(IP_IsDaemonExist(5), 0u);
}

TEST_F(ServiceControlTest, ProbeWaitsOneSecondPerPollWhileStarting) {
    status(3, {1, 1, 1, 7});
    EXPECT_EQ(IP_IsDaemonExist(3), 1u);
    EXPECT_EQ(ipp_service_status_calls(3, kName), 4u);
    EXPECT_EQ(ipp_sleep_total_seconds(), 3u);
}

TEST_F(ServiceControlTest, DaemonCheckWithStatusStayingStartingReturnsOnlyWhenItChanges) {
    ipp_dir_set_local_node(2);
    std::vector<std::uint32_t> seq(500, 1);
    seq.push_back(9);
    ipp_service_script(2, kName, seq.data(), static_cast<std::uint32_t>(seq.size()));
    EXPECT_EQ(IP_DaemonCheck(1), 0u);
    EXPECT_EQ(ipp_sleep_total_seconds(), 500u);
    EXPECT_EQ(ipp_service_status_calls(2, kName), 501u);
}

TEST_F(ServiceControlTest, DaemonCheckOnlyFailsWhenNotRunning) {
    ipp_dir_set_local_node(2);
    status(2, {4});
    EXPECT_EQ(IP_DaemonCheck(1), IPSTATUS_FAILED);
    EXPECT_EQ(ipp_service_start_calls(2, kName), 0u);
}

TEST_F(ServiceControlTest, ServiceStartWithLocalRunningStartsNothingAnywhere) {
    ipp_dir_set_local_node(1);
    const std::uint16_t nodes[] = {1, 2, 3};
    ipp_dir_set_nodes(nodes, 3);
    status(1, {2});
    EXPECT_EQ(IP_ServiceStart(), 0u);
    for (const std::uint16_t n : nodes) EXPECT_EQ(ipp_service_start_calls(n, kName), 0u) << n;
    EXPECT_EQ(ipp_service_last_batch(kName, nullptr, 0), 0u);
    EXPECT_EQ(ipp_service_status_calls(2, kName), 0u);
}

TEST_F(ServiceControlTest, BatchStartReceivesExactlyTheNodesThatLackTheService) {
    ipp_dir_set_local_node(1);
    const std::uint16_t nodes[] = {1, 2, 3};  // local, A, B
    ipp_dir_set_nodes(nodes, 3);
    status(1, {0, 2});  // stopped, then running once started
    status(2, {2});     // A runs
    status(3, {0});     // B does not
    EXPECT_EQ(IP_ServiceStart(), 0u);
    EXPECT_EQ(ipp_service_start_calls(1, kName), 1u);
    std::uint16_t batch[4] = {};
    EXPECT_EQ(ipp_service_last_batch(kName, batch, 4), 1u);
    EXPECT_EQ(batch[0], 3u);
}

TEST_F(ServiceControlTest, BatchStartKeepsTheOrderOfTheNodeList) {
    ipp_dir_set_local_node(5);
    const std::uint16_t nodes[] = {9, 5, 4, 7, 8};
    ipp_dir_set_nodes(nodes, 5);
    status(5, {0, 2});
    status(7, {2});
    EXPECT_EQ(IP_ServiceStart(), 0u);
    std::uint16_t batch[8] = {};
    ASSERT_EQ(ipp_service_last_batch(kName, batch, 8), 3u);
    EXPECT_EQ(batch[0], 9u);
    EXPECT_EQ(batch[1], 4u);
    EXPECT_EQ(batch[2], 8u);
    // Each started node is probed once more after the batch start.
    EXPECT_EQ(ipp_service_status_calls(9, kName), 2u);
    EXPECT_EQ(ipp_service_status_calls(7, kName), 1u);
}

TEST_F(ServiceControlTest, FailedLocalStartFailsTheSequence) {
    ipp_dir_set_local_node(1);
    const std::uint16_t nodes[] = {1, 2};
    ipp_dir_set_nodes(nodes, 2);
    ipp_service_set_start_result(1, kName, 0x55);
    EXPECT_EQ(IP_ServiceStart(), IPSTATUS_FAILED);
    EXPECT_EQ(IP_DaemonCheck(0), IPSTATUS_FAILED);
    EXPECT_EQ(ipp_service_last_batch(kName, nullptr, 0), 0u);
    EXPECT_EQ(ipp_service_status_calls(2, kName), 0u);
}

TEST_F(ServiceControlTest, StartSequenceWithoutNodeListSucceeds) {
    ipp_dir_set_local_node(1);
    status(1, {0});
    EXPECT_EQ(IP_ServiceStart(), 0u);
    EXPECT_EQ(IP_DaemonCheck(0), 0u);
    EXPECT_EQ(ipp_service_start_calls(1, kName), 2u);
}

TEST_F(ServiceControlTest, StartSequenceWithOwnNodeAliasAsLocalDoesNothing) {
    ipp_dir_set_local_node(0x8000);
    EXPECT_EQ(IP_ServiceStart(), 0u);
    EXPECT_EQ(ipp_service_status_calls(0x8000, kName), 0u);
    EXPECT_EQ(ipp_service_start_calls(0x8000, kName), 0u);
}

}  // namespace
}  // namespace ipt
