// Requests of the address configuration client: one record per message.
#include <cstdint>
#include <cstring>

#include "ipclient/ipcfg.h"
#include "ipplat/platform.h"
#include "ipproto/lipc.hpp"
#include "ipproto/wire.hpp"

namespace {

constexpr std::size_t kHeadLen = 16;
constexpr std::uint16_t kOwnNode = ipc::proto::lipc::kOwnNode;

// A request of BodyLen body bytes behind the 16-byte header {kind 0, length after the
// first 8 bytes, message type, body length}. The buffer holds at least a whole reply, so
// that the extended exchange can receive into it.
template <std::size_t BodyLen>
class Request {
public:
    static constexpr std::size_t kTotal = kHeadLen + BodyLen;

    explicit Request(std::uint32_t message_type) noexcept {
        frame_.template be<4>(static_cast<std::uint32_t>(kTotal - 8));
        frame_.template be<8>(message_type);
        frame_.template be<12>(static_cast<std::uint32_t>(BodyLen));
    }
    // A configuration record opens with its operation code and 16 zero bits.
    static Request record(std::uint16_t op) noexcept {
        Request r(IPCFG_MSG_RECORD);
        r.frame_.template be<kHeadLen>(op);
        return r;
    }
    template <std::size_t Off, class U>
    void be(U v) noexcept { frame_.template be<kHeadLen + Off>(v); }
    template <std::size_t Off>
    void raw32(std::uint32_t v) noexcept { frame_.template raw32<kHeadLen + Off>(v); }
    template <std::size_t Off, std::size_t Len>
    void raw(const void* p) noexcept { frame_.template raw<kHeadLen + Off, Len>(p); }

    // True with the service's result when the exchange went through.
    bool exchange(std::uint32_t* result) noexcept {
        return IPCfg_SendAndRevFromPort(frame_.data(), kTotal, result) == IPSTATUS_OK;
    }
    // The service's result, or 0x2316002C when the exchange failed.
    std::uint32_t exchange() noexcept {
        std::uint32_t result = 0;
        return exchange(&result) ? result : IPSTATUS_IPCFG_FAILED;
    }
    std::uint32_t exchange_ext(IPCFG_REPLY_EXT_S* ext) noexcept {
        return IPCfg_SendAndRevFromPortExt(frame_.data(), kTotal, ext) == IPSTATUS_OK ? ext->uiResult
                                                                                       : IPSTATUS_IPCFG_FAILED;
    }

private:
    static constexpr std::size_t kBuffer = kTotal > IPCFG_REPLY_SIZE ? kTotal : IPCFG_REPLY_SIZE;
    ipc::wire::Frame<kBuffer> frame_;
};

std::uint16_t code(bool first, std::uint32_t first_code, std::uint32_t second_code) noexcept {
    return static_cast<std::uint16_t>(first ? first_code : second_code);
}

// Makes sure the DHCP client service runs on the system's master node; never reported.
void ensure_dhcp_client() noexcept {
    const auto master = static_cast<std::uint16_t>(DEV_GetSystemMaster());
    if (master == kOwnNode) return;
    std::uint32_t status = 0;
    if (SERVICE_GetStatus(master, "DHCPC", 0, &status) == 0 && status != SERVICE_STATUS_STOPPED &&
        status != SERVICE_STATUS_ABSENT) {
        return;
    }
    (void)SERVICE_Start(master, "DHCPC", 0, 0);
}

std::uint32_t small_record(std::uint16_t op, std::uint32_t ifindex) noexcept {
    auto req = Request<8>::record(op);
    req.be<4>(ifindex);
    return req.exchange();
}

}  // namespace

extern "C" {

uint32_t ipcfg_SetAddr(uint32_t uiDelete, uint32_t uiIfIndex, uint32_t uiAddr, uint32_t uiMask, uint32_t uiFourth,
                       IPCFG_REPLY_EXT_S* pstExt) {
    auto req = Request<28>::record(code(uiDelete != 0, IPCFG_OP_DEL_MANUAL, IPCFG_OP_ADD_MANUAL));
    req.be<8>(uiIfIndex);
    req.raw32<12>(uiAddr);
    req.raw32<16>(uiMask);
    req.be<20>(uiFourth);
    IPCFG_REPLY_EXT_S ext{};
    const std::uint32_t result = req.exchange_ext(&ext);
    if (pstExt != nullptr) std::memcpy(pstExt, &ext, sizeof ext);
    return result;
}

uint32_t ipcfg_SetBackUpAddr(uint32_t uiDelete, uint32_t uiIfIndex, uint32_t uiAddr, uint32_t uiMask,
                             uint32_t uiFourth, uint32_t uiFifth) {
    auto req = Request<28>::record(code(uiDelete != 0, IPCFG_OP_DEL_BACKUP, IPCFG_OP_ADD_BACKUP));
    req.be<8>(uiIfIndex);
    req.raw32<12>(uiAddr);
    req.raw32<16>(uiMask);
    req.be<20>(uiFourth);
    req.be<24>(uiFifth);
    return req.exchange();
}

uint32_t ipcfg_SetContextAddr(uint32_t uiDelete, uint32_t uiIfIndex, uint32_t uiAddr, uint16_t usThird) {
    auto req = Request<16>::record(code(uiDelete != 0, IPCFG_OP_DEL_CONTEXT, IPCFG_OP_ADD_CONTEXT));
    req.be<4>(uiIfIndex);
    req.raw32<8>(uiAddr);
    req.be<12>(usThird);
    return req.exchange();
}

uint32_t ipcfg_SetCfg(uint32_t uiIfIndex, uint32_t uiMethod, uint32_t uiEnable) {
    auto req = Request<12>::record(code(uiEnable == 1, IPCFG_OP_ACQUIRE_ON, IPCFG_OP_ACQUIRE_OFF));
    req.be<4>(uiIfIndex);
    req.be<8>(uiMethod);
    const std::uint32_t result = req.exchange();
    ensure_dhcp_client();  // whether or not the exchange succeeded
    return result;
}

uint32_t IPCfg_AddManualAddr(uint32_t uiIfIndex, uint32_t uiAddr, uint32_t uiMask, uint32_t uiFourth) {
    return ipcfg_SetAddr(0, uiIfIndex, uiAddr, uiMask, uiFourth, nullptr);
}

uint32_t IPCfg_AddManualAddrExt(uint32_t uiIfIndex, uint32_t uiAddr, uint32_t uiMask, uint32_t uiFourth,
                                IPCFG_REPLY_EXT_S* pstExt) {
    return ipcfg_SetAddr(0, uiIfIndex, uiAddr, uiMask, uiFourth, pstExt);
}

uint32_t IPCfg_DelManualAddr(uint32_t uiIfIndex, uint32_t uiAddr, uint32_t uiMask, uint32_t uiFourth) {
    return ipcfg_SetAddr(1, uiIfIndex, uiAddr, uiMask, uiFourth, nullptr);
}

uint32_t IPCfg_AddBackUpAddr(uint32_t uiIfIndex, uint32_t uiAddr, uint32_t uiMask, uint32_t uiFourth,
                             uint32_t uiFifth) {
    return ipcfg_SetBackUpAddr(0, uiIfIndex, uiAddr, uiMask, uiFourth, uiFifth);
}

uint32_t IPCfg_DelBackUpAddr(uint32_t uiIfIndex, uint32_t uiAddr, uint32_t uiMask, uint32_t uiFourth,
                             uint32_t uiFifth) {
    return ipcfg_SetBackUpAddr(1, uiIfIndex, uiAddr, uiMask, uiFourth, uiFifth);
}

uint32_t IPCfg_AddContextAddr(uint32_t uiIfIndex, uint32_t uiAddr, uint16_t usThird) {
    return ipcfg_SetContextAddr(0, uiIfIndex, uiAddr, usThird);
}

uint32_t IPCfg_DelContextAddr(uint32_t uiIfIndex) { return ipcfg_SetContextAddr(1, uiIfIndex, 0, 0); }

uint32_t IPCfg_SetDhcp(uint32_t uiIfIndex, uint32_t uiEnable) {
    return ipcfg_SetCfg(uiIfIndex, IPCFG_METHOD_DHCP, uiEnable);
}

uint32_t IPCfg_SetBootp(uint32_t uiIfIndex, uint32_t uiEnable) {
    return ipcfg_SetCfg(uiIfIndex, IPCFG_METHOD_BOOTP, uiEnable);
}

uint32_t IPCfg_SetDhcp_Autocfg(uint32_t uiIfIndex, uint32_t uiEnable) {
    return ipcfg_SetCfg(uiIfIndex, IPCFG_METHOD_DHCP_AUTOCFG, uiEnable);
}

uint32_t IPCfg_SetCellular(uint32_t uiIfIndex, uint32_t uiEnable) {
    return small_record(code(uiEnable == 1, IPCFG_OP_CELLULAR_ON, IPCFG_OP_CELLULAR_OFF), uiIfIndex);
}

uint32_t IPCfg_Mor_SetNego(uint32_t uiIfIndex, uint16_t usFlag) {
    return small_record(code(usFlag != 0, IPCFG_OP_NEGOTIATION_ON, IPCFG_OP_NEGOTIATION_OFF), uiIfIndex);
}

uint32_t IPCfg_Mor_SetUnnumber(uint32_t uiIfIndex, uint32_t uiBorrowIfIndex, uint16_t usFlag) {
    auto req = Request<12>::record(code(usFlag != 0, IPCFG_OP_UNNUMBERED_ON, IPCFG_OP_UNNUMBERED_OFF));
    req.be<4>(uiIfIndex);
    req.be<8>(uiBorrowIfIndex);
    return req.exchange();
}

uint32_t IPCfg_Mor_SetDebug(IPCFG_DEBUG_S* pstDebug) {
    if (pstDebug == nullptr) return IPSTATUS_FAILED;
    // Converted in the caller's own record, which stays converted afterwards.
    pstDebug->usField1 = ipc::wire::swap_be(pstDebug->usField1);
    pstDebug->usField2 = ipc::wire::swap_be(pstDebug->usField2);
    pstDebug->uiField3 = ipc::wire::swap_be(pstDebug->uiField3);
    Request<8> req(IPCFG_MSG_DEBUG);
    req.raw<0, 8>(pstDebug);
    return req.exchange();
}

uint32_t IPCfg_Mor_GetUnnumberedIf(uint32_t uiIfIndex, uint32_t* puiBorrowIfIndex) {
    if (puiBorrowIfIndex == nullptr) return IPSTATUS_FAILED;
    Request<4> req(IPCFG_MSG_UNNUMBERED_QUERY);
    req.be<0>(uiIfIndex);
    std::uint32_t borrowed = 0;
    if (!req.exchange(&borrowed) || borrowed == 0) return IPSTATUS_IPCFG_FAILED;
    *puiBorrowIfIndex = borrowed;
    return IPSTATUS_OK;
}

}  // extern "C"
