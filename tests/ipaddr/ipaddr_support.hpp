// Helpers shared by the address library tests.
#pragma once


#include <vector>

#include "ipclient/ipaddr.h"
#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"
#include "support/sock_log.hpp"
#include "support/sock_log.hpp"

namespace ipt {

// Leaves the process-wide state of the address library as a fresh process has it.
class IPAddrTest : public PlatformTest {
protected:
    void TearDown() override {
        IPAddr_Close(-1);
        g_pfIPAddr_EvProc = nullptr;
        g_pfIFCfg_EvProc = nullptr;
        PlatformTest::TearDown();
    }


    static std::vector<Bytes> queued() {
        std::vector<Bytes> out;
        for (const IPAddrCfgRec* r = g_stCfgList.pstHead; r != nullptr; r = r->pstNext) {
            const auto* p = static_cast<const std::uint8_t*>(r->pData);
            out.emplace_back(p, p + r->uiLen);
        }
        return out;
    }
};

inline Bytes msg(std::uint32_t op, const Bytes& payload) {
    Bytes b;
    put32(b, op);
    put32(b, static_cast<std::uint32_t>(payload.size()));
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

inline Bytes words(std::initializer_list<std::uint32_t> ws) {
    Bytes b;
    for (const std::uint32_t w : ws) put32(b, w);
    return b;
}

// The service's final answer carrying a result.
inline Bytes final_answer(std::uint32_t result) { return words({1, 0, result}); }

}  // namespace ipt
