// The request path of the address module allocates nothing: requests and replies live on
// the stack or in the caller's buffers.
#include <gtest/gtest.h>

#include <cstring>

#include "ipclient/kernel.h"
#include "ipplat/testctl.h"
#include "support/addr_samples.hpp"
#include "support/alloc_counter.hpp"
#include "support/fixture.hpp"

namespace ipt {
namespace {

// Answers at once with a zero-filled reply of the full capacity; allocates nothing.
std::uint32_t answer_at_once(void*, const ipp_kcall* call, std::uint8_t* reply, std::uint32_t* returned) {
    if (reply != nullptr) std::memset(reply, 0, call->reply_cap);
    *returned = call->reply_cap;
    return 0;
}

class ZeroAllocationTest : public PlatformTest {};

TEST_F(ZeroAllocationTest, AddressModuleRequestPathAllocatesNothing) {
#if defined(IPCLIENT_TSAN)
    GTEST_SKIP() << "allocations are not observed under ThreadSanitizer";
#endif
    ASSERT_TRUE(allocations_observable());
    ipp_kernel_set_handler(&answer_at_once, nullptr);
    const IPAddrKey key = sample_key();
    const IPAddrEntry entry = sample_entry();
    const IPAddrInfo info = sample_info();
    IPAddrEntry e{}, many[4]{};
    IPAddrInfo i{};
    std::uint32_t w = 0, count = 4;
    std::uint16_t h = 0;
    std::uint8_t mac[6], epoch = 0, buf[104];
    const ipp_interface itf{0x99, 17, {}, 0, 0, 0, 1, 0, 0, 1, 1};
    ipp_dir_add_interface(&itf);

    std::uint64_t allocations = 0;
    {
        const AllocationScope scope;
        for (int round = 0; round < 100; ++round) {
            IPAddr_Drvk_AddIP(&info);
            IPAddr_Drvk_DelIP(&key);
            IPAddr_Drvk_LookupAddr(1, &entry, &i);
            IPAddr_Drvk_GetConflictAddr(&entry, &e, nullptr);
            count = 4;
            IPAddr_Drvk_GetMatchAddr(1, &entry, &count, many);
            IPAddr_Drvk_GetMatchAddrNum(&entry, &w);
            IPAddr_Drvk_GetMatchBestNet(&entry, &e);
            IPAddr_Drvk_GetNextAddrOnIf(1, 1, 1, &key, &i);
            IPAddr_Drvk_GetPriorAddrOnIf(1, 1, &e);
            IPAddr_Drvk_GetFwdAddrInVrf(1, &e);
            IPAddr_Drvk_GetNextAddrInVrf(1, 1, &e);
            IPAddr_Drvk_SetCfgMethod(1, 1);
            IPAddr_Drvk_ClearCfgMethod(1, 1);
            IPAddr_Drvk_GetIFMethod(1, 1, &w);
            IPAddr_Drvk_GetBatchAddrOnIF(1, 1, &key, sizeof buf, buf, &w);
            IPAddr_Drvk_GetNextIf(1, &w);
            IPAddr_Drvk_GetBatchEvNotify(1, 1, &key, sizeof buf, buf, &w);
            IPAddr_Drvk_GetRTEvNotifyInfo(sizeof buf, buf, &w);
            IPAddr_Drvk_GetAddrCountOnIF(1, 1, 1, 1, &w);
            IPAddr_Drvk_SetDbgInfo(1, 1, 1, 1);
            IPAddr_Drvk_GetDbgInfo(1, 1, &w);
            IPAddr_Drvk_IncAddrGlobalEpoch(1, 1);
            IPAddr_Drvk_GetAddrGlobalEpoch(1, 1, &epoch);
            IPAddr_Drvk_SelectSrcAddr(1, 1, 1, 1, &w);
            IPAddr_Drvk_SetDrvMethod(0x99, 1);
            IPAddr_Drvk_GetLoopBackInfo(0x99, &h);
            IPAddr_Drvk_ModMainIP(&key, &info);
            IPAddr_Drvk_SearchGWAddr(1, 1, 1, &e);
            IPAddr_Drvk_SetNetProtocol(1, 1, 1);
            IPAddr_Drvk_GetNetProtoBit(1, &w);
            IPAddr_Drvk_GetMaxAddrInVrf(1, 1, 1, &e);
            IPAddr_Drvk_AddVFWIP(1, 1, 1);
            IPAddr_Drvk_DelVFWIP(1);
            IPAddr_Drvk_GetMac(1, 1, 1, nullptr, mac, &w);
            IPAddr_Drvk_SetMacType(1, 1);
            IPAddr_Drvk_GetMatchAddrByIP(1, 1, &e);
            IPAddr_Drvk_GetNextMatchAddrByIP(1, &e);
            IPAddr_Drvk_GetConflictAddr2CfgRecover(&entry, &e, nullptr);
        }
        allocations = scope.count();
    }
    EXPECT_EQ(allocations, 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL), 3800u);
}

TEST_F(ZeroAllocationTest, CounterSeesAnAllocation) {
#if defined(IPCLIENT_TSAN)
    GTEST_SKIP() << "allocations are not observed under ThreadSanitizer";
#endif
    std::uint64_t allocations = 0;
    {
        const AllocationScope scope;
        void* volatile p = std::malloc(16);
        std::free(p);
        allocations = scope.count();
    }
    EXPECT_GE(allocations, 1u);
}

}  // namespace
}  // namespace ipt
