// The address module's messages: one request per operation on command 0x260001.
#include <cstring>

#include "ipclient/kernel.h"
#include "ipplat/platform.h"
#include "ipproto/kmod_addr.hpp"
#include "kernel/channel.hpp"

namespace {

using namespace ipc::kernel;
using namespace ipc::proto::addr;
using ipc::wire::load_be;

// To node 0xFFFF8000.
template <std::size_t N>
std::uint32_t send(const ipc::wire::Frame<N>& req, std::uint32_t cap = 0, void* reply = nullptr,
                   std::uint32_t* returned = nullptr) noexcept {
    return ipaddr_DrvkCioctl(static_cast<std::uint32_t>(N), req.data(), cap, reply, returned);
}

// To a node of the caller's choosing; the own node goes through the private routine.
template <std::size_t N>
std::uint32_t send_to(std::uint16_t node, const ipc::wire::Frame<N>& req, std::uint32_t cap = 0,
                      void* reply = nullptr, std::uint32_t* returned = nullptr) noexcept {
    if (node == kLocalNode) return send(req, cap, reply, returned);
    return CIOCTL(node_word(node), ipc::proto::addr::kCmd, static_cast<std::uint32_t>(N), req.data(), cap, reply,
                  returned);
}

// A request with one 4-byte big-endian reply, converted in the caller's word.
template <std::size_t N>
std::uint32_t send_for_word(std::uint16_t node, const ipc::wire::Frame<N>& req, std::uint32_t* out) noexcept {
    std::uint32_t returned = 0;
    const std::uint32_t status = send_to(node, req, sizeof *out, out, &returned);
    if (status != IPSTATUS_OK) return status;
    *out = load_be<std::uint32_t>(out);
    return IPSTATUS_OK;
}

// A request whose reply is one entry, converted in the caller's record.
template <std::size_t N>
std::uint32_t send_for_entry(const ipc::wire::Frame<N>& req, IPAddrEntry* out) noexcept {
    std::uint32_t returned = 0;
    const std::uint32_t status = send(req, kEntryLen, out, &returned);
    if (status != IPSTATUS_OK) return status;
    to_host(out);
    return IPSTATUS_OK;
}

// A request whose reply is one info record, converted in the caller's record.
template <std::size_t N>
std::uint32_t send_for_info(std::uint16_t node, const ipc::wire::Frame<N>& req, IPAddrInfo* out) noexcept {
    std::uint32_t returned = 0;
    const std::uint32_t status = send_to(node, req, kInfoLen, out, &returned);
    if (status != IPSTATUS_OK) return status;
    to_host(out);
    return IPSTATUS_OK;
}

// The node that owns an interface, or nothing when the platform cannot tell.
bool interface_node(std::uint32_t ifindex, std::uint16_t* node) noexcept {
    return IF_GetDataByIfIndex(ifindex, IF_DATA_NODE, node) == 0;
}

enum class ConflictReport { kReturnConflict, kFlagOnly };

std::uint32_t conflict_lookup(Op op, const IPAddrEntry* entry, IPAddrEntry* out, IPAddrConflict* conflict,
                              ConflictReport report) noexcept {
    Request<kEntryLen> req(op);
    req.record<8>(*entry, kEntryFields);
    std::uint32_t returned = 0;
    const std::uint32_t status = send(req, kEntryLen, out, &returned);
    if (status != IPSTATUS_OK && status != IPSTATUS_ADDR_CONFLICT) return status;
    to_host(out);
    if (status == IPSTATUS_OK) return IPSTATUS_OK;
    if (conflict != nullptr) {
        conflict->usConflict = 1;
        if (report == ConflictReport::kReturnConflict) conflict->uiIfIndex = out->stKey.uiIfIndex;
    }
    return report == ConflictReport::kReturnConflict ? IPSTATUS_ADDR_CONFLICT : IPSTATUS_OK;
}

}  // namespace

extern "C" {

uint32_t IPAddr_Drvk_AddIP(const IPAddrInfo* pstInfo) {
    Request<kInfoLen> req(Op::kAddIP);
    req.record<8>(*pstInfo, kInfoFields);
    return send(req);
}

uint32_t IPAddr_Drvk_DelIP(const IPAddrKey* pstKey) {
    Request<kKeyLen> req(Op::kDelIP);
    req.record<8>(*pstKey, kKeyFields);
    return send(req);
}

uint32_t IPAddr_Drvk_LookupAddr(uint16_t usNode, const IPAddrEntry* pstEntry, IPAddrInfo* pstInfo) {
    Request<kEntryLen> req(Op::kLookupAddr);
    req.record<8>(*pstEntry, kEntryFields);
    return send_for_info(usNode, req, pstInfo);
}

uint32_t IPAddr_Drvk_GetConflictAddr(const IPAddrEntry* pstEntry, IPAddrEntry* pstOut,
                                     IPAddrConflict* pstConflict) {
    return conflict_lookup(Op::kGetConflictAddr, pstEntry, pstOut, pstConflict, ConflictReport::kReturnConflict);
}

uint32_t IPAddr_Drvk_GetConflictAddr2CfgRecover(const IPAddrEntry* pstEntry, IPAddrEntry* pstOut,
                                                IPAddrConflict* pstConflict) {
    return conflict_lookup(Op::kGetConflictAddr2CfgRecover, pstEntry, pstOut, pstConflict,
                           ConflictReport::kFlagOnly);
}

uint32_t IPAddr_Drvk_GetMatchAddr(uint16_t usNode, const IPAddrEntry* pstMatchKey, uint32_t* puiCount,
                                  IPAddrEntry* pstEntries) {
    const std::uint64_t capacity = std::uint64_t{*puiCount} * kEntryLen;
    if (capacity > UINT32_MAX) return IPSTATUS_FAILED;
    Request<kEntryLen + 4> req(Op::kGetMatchAddr);
    req.record<8>(*pstMatchKey, kEntryFields);
    req.be<8 + kEntryLen>(*puiCount);
    std::uint32_t returned = 0;
    const std::uint32_t status = send_to(usNode, req, static_cast<std::uint32_t>(capacity), pstEntries, &returned);
    if (status != IPSTATUS_OK) return status;
    // The module's length is trusted only within the caller's array.
    if (returned % kEntryLen != 0 || returned > capacity) return IPSTATUS_FAILED;
    const std::uint32_t count = returned / static_cast<std::uint32_t>(kEntryLen);
    *puiCount = count;
    for (std::uint32_t i = 0; i < count; ++i) to_host(&pstEntries[i]);
    return IPSTATUS_OK;
}

uint32_t IPAddr_Drvk_GetMatchAddrNum(const IPAddrEntry* pstMatchKey, uint32_t* puiCount) {
    Request<kEntryLen> req(Op::kGetMatchAddrNum);
    req.record<8>(*pstMatchKey, kEntryFields);
    return send_for_word(kLocalNode, req, puiCount);
}

uint32_t IPAddr_Drvk_GetMatchBestNet(const IPAddrEntry* pstMatchKey, IPAddrEntry* pstOut) {
    Request<kEntryLen> req(Op::kGetMatchBestNet);
    req.record<8>(*pstMatchKey, kEntryFields);
    return send_for_entry(req, pstOut);
}

uint32_t IPAddr_Drvk_GetNextAddrOnIf(uint32_t uiIfIndex, uint32_t uiMethodMask, uint16_t usNextMode,
                                     const IPAddrKey* pstKey, IPAddrInfo* pstInfo) {
    Request<12 + kKeyLen> req(Op::kGetNextAddrOnIf);
    req.be<8>(uiIfIndex);
    req.be<12>(uiMethodMask);
    req.be<16>(std::uint32_t{usNextMode});
    req.record<20>(*pstKey, kKeyFields);
    return send_for_info(kLocalNode, req, pstInfo);
}

uint32_t IPAddr_Drvk_GetPriorAddrOnIf(uint32_t uiIfIndex, uint32_t uiMethodMask, IPAddrEntry* pstOut) {
    Request<8> req(Op::kGetPriorAddrOnIf);
    req.be<8>(uiIfIndex);
    req.be<12>(uiMethodMask);
    return send_for_entry(req, pstOut);
}

uint32_t IPAddr_Drvk_GetFwdAddrInVrf(uint16_t usVrf, IPAddrEntry* pstOut) {
    Request<2> req(Op::kGetFwdAddrInVrf);
    req.be<8>(usVrf);
    return send_for_entry(req, pstOut);
}

uint32_t IPAddr_Drvk_GetNextAddrInVrf(uint16_t usVrf, uint32_t uiWord, IPAddrEntry* pstEntry) {
    Request<6 + kEntryLen> req(Op::kGetNextAddrInVrf);
    req.be<8>(uiWord);
    req.be<12>(usVrf);
    req.record<14>(*pstEntry, kEntryFields);
    return send_for_entry(req, pstEntry);
}

uint32_t IPAddr_Drvk_SetCfgMethod(uint32_t uiWord1, uint32_t uiWord2) {
    Request<8> req(Op::kSetCfgMethod);
    req.be<8>(uiWord1);
    req.be<12>(uiWord2);
    return send(req);
}

uint32_t IPAddr_Drvk_ClearCfgMethod(uint32_t uiWord1, uint32_t uiWord2) {
    Request<8> req(Op::kClearCfgMethod);
    req.be<8>(uiWord1);
    req.be<12>(uiWord2);
    return send(req);
}

uint32_t IPAddr_Drvk_GetIFMethod(uint16_t usNode, uint32_t uiIfIndex, uint32_t* puiMethod) {
    Request<4> req(Op::kGetIFMethod);
    req.be<8>(uiIfIndex);
    return send_for_word(usNode, req, puiMethod);
}

uint32_t IPAddr_Drvk_GetBatchAddrOnIF(uint32_t uiWord1, uint32_t uiWord2, const IPAddrKey* pstKey,
                                      uint32_t uiCapacity, void* pBuffer, uint32_t* puiReturnedLen) {
    Request<8 + kKeyLen> req(Op::kGetBatchAddrOnIF);
    req.be<8>(uiWord1);
    req.be<12>(uiWord2);
    req.record<16>(*pstKey, kKeyFields);
    return send(req, uiCapacity, pBuffer, puiReturnedLen);
}

uint32_t IPAddr_Drvk_GetNextIf(uint32_t uiIfIndex, uint32_t* puiNextIfIndex) {
    Request<4> req(Op::kGetNextIf);
    req.be<8>(uiIfIndex);
    return send_for_word(kLocalNode, req, puiNextIfIndex);
}

uint32_t IPAddr_Drvk_GetBatchEvNotify(uint32_t uiWord1, uint32_t uiWord2, const IPAddrKey* pstKey,
                                      uint32_t uiCapacity, void* pBuffer, uint32_t* puiReturnedLen) {
    Request<8 + kKeyLen> req(Op::kGetBatchEvNotify);
    req.be<8>(uiWord1);
    req.be<12>(uiWord2);
    req.record<16>(*pstKey, kKeyFields);
    return send(req, uiCapacity, pBuffer, puiReturnedLen);
}

uint32_t IPAddr_Drvk_GetRTEvNotifyInfo(uint32_t uiCapacity, void* pBuffer, uint32_t* puiReturnedLen) {
    const Request<0> req(Op::kGetRTEvNotifyInfo);
    return send(req, uiCapacity, pBuffer, puiReturnedLen);
}

uint32_t IPAddr_Drvk_GetAddrCountOnIF(uint16_t usNode, uint32_t uiWord1, uint32_t uiWord2, uint32_t uiWord3,
                                      uint32_t* puiCount) {
    Request<12> req(Op::kGetAddrCountOnIF);
    req.be<8>(uiWord1);
    req.be<12>(uiWord2);
    req.be<16>(uiWord3);
    return send_for_word(usNode, req, puiCount);
}

uint32_t IPAddr_Drvk_SetDbgInfo(uint16_t usNode, uint16_t usHalf1, uint16_t usHalf2, uint32_t uiWord) {
    Request<8> req(Op::kSetDbgInfo);
    req.be<8>(usHalf1);
    req.be<10>(usHalf2);
    req.be<12>(uiWord);
    return send_to(usNode, req);
}

uint32_t IPAddr_Drvk_GetDbgInfo(uint16_t usNode, uint16_t usHalf, uint32_t* puiWord) {
    Request<2> req(Op::kGetDbgInfo);
    req.be<8>(usHalf);
    return send_for_word(usNode, req, puiWord);
}

uint32_t IPAddr_Drvk_IncAddrGlobalEpoch(uint32_t uiWord1, uint32_t uiWord2) {
    Request<8> req(Op::kIncAddrGlobalEpoch);
    req.be<8>(uiWord1);
    req.be<12>(uiWord2);
    return send(req);
}

uint32_t IPAddr_Drvk_GetAddrGlobalEpoch(uint32_t uiWord1, uint32_t uiWord2, uint8_t* pucEpoch) {
    Request<8> req(Op::kGetAddrGlobalEpoch);
    req.be<8>(uiWord1);
    req.be<12>(uiWord2);
    std::uint32_t returned = 0;
    return send(req, 1, pucEpoch, &returned);
}

uint32_t IPAddr_Drvk_SelectSrcAddr(uint32_t uiDestination, uint16_t usVrf, uint32_t uiIfIndex, uint32_t uiAddr,
                                   uint32_t* puiSource) {
    Request<14> req(Op::kSelectSrcAddr);
    req.raw32<8>(uiDestination);
    req.be<12>(usVrf);
    req.be<14>(uiIfIndex);
    req.raw32<18>(uiAddr);
    std::uint32_t returned = 0;
    return send(req, sizeof *puiSource, puiSource, &returned);
}

uint32_t IPAddr_Drvk_SetDrvMethod(uint32_t uiIfIndex, uint32_t uiMethod) {
    std::uint16_t node = kLocalNode;
    (void)interface_node(uiIfIndex, &node);  // on failure the request still goes, to node 0x8000
    Request<8> req(Op::kSetDrvMethod);
    req.be<8>(uiIfIndex);
    req.be<12>(uiMethod);
    return send_to(node, req);
}

uint32_t IPAddr_Drvk_GetLoopBackInfo(uint32_t uiIfIndex, uint16_t* pusInfo) {
    std::uint16_t node = kLocalNode;
    if (!interface_node(uiIfIndex, &node)) return IPSTATUS_FAILED;
    Request<4> req(Op::kGetLoopBackInfo);
    req.be<8>(uiIfIndex);
    std::uint32_t returned = 0;
    const std::uint32_t status = send_to(node, req, sizeof *pusInfo, pusInfo, &returned);
    if (status != IPSTATUS_OK) return status;
    *pusInfo = load_be<std::uint16_t>(pusInfo);
    return IPSTATUS_OK;
}

uint32_t IPAddr_Drvk_ModMainIP(const IPAddrKey* pstKey, const IPAddrInfo* pstInfo) {
    Request<kKeyLen + kInfoLen> req(Op::kModMainIP);
    req.record<8>(*pstKey, kKeyFields);
    req.record<8 + kKeyLen>(*pstInfo, kInfoFields);
    return send(req);
}

uint32_t IPAddr_Drvk_SearchGWAddr(uint32_t uiIfIndex, uint32_t uiGateway, uint16_t usVrf, IPAddrEntry* pstOut) {
    Request<10> req(Op::kSearchGWAddr);
    req.be<8>(uiIfIndex);
    req.raw32<12>(uiGateway);
    req.be<16>(usVrf);
    return send_for_entry(req, pstOut);
}

uint32_t IPAddr_Drvk_SetNetProtocol(uint32_t uiWord1, uint32_t uiWord2, uint32_t uiWord3) {
    Request<12> req(Op::kSetNetProtocol);
    req.be<8>(uiWord1);
    req.be<12>(uiWord2);
    req.be<16>(uiWord3);
    return send(req);
}

uint32_t IPAddr_Drvk_GetNetProtoBit(uint32_t uiWord, uint32_t* puiBits) {
    Request<4> req(Op::kGetNetProtoBit);
    req.be<8>(uiWord);
    return send_for_word(kLocalNode, req, puiBits);
}

uint32_t IPAddr_Drvk_GetMaxAddrInVrf(uint16_t usVrf, uint32_t uiWord1, uint32_t uiWord2, IPAddrEntry* pstOut) {
    Request<10> req(Op::kGetMaxAddrInVrf);
    req.be<8>(usVrf);
    req.be<10>(uiWord1);
    req.be<14>(uiWord2);
    return send_for_entry(req, pstOut);
}

uint32_t IPAddr_Drvk_AddVFWIP(uint32_t uiWord, uint16_t usHalf, uint32_t uiAddr) {
    Request<12> req(Op::kAddVFWIP);
    req.be<8>(uiWord);
    req.raw32<12>(uiAddr);
    req.be<16>(usHalf);
    return send(req);
}

uint32_t IPAddr_Drvk_DelVFWIP(uint32_t uiWord) {
    Request<12> req(Op::kDelVFWIP);
    req.be<8>(uiWord);
    return send(req);
}

uint32_t IPAddr_Drvk_GetMac(uint32_t uiWord, uint16_t usHalf, uint32_t uiValue, const uint8_t* pucAddr,
                            uint8_t* pucMac, uint32_t* puiWord) {
    Request<24> req(Op::kGetMac);
    req.be<8>(uiWord);
    req.be<12>(usHalf);
    req.be<14>(static_cast<std::uint16_t>(pucAddr != nullptr ? 1 : 0));
    req.raw32<16>(uiValue);
    if (pucAddr != nullptr) req.raw<20, 12>(pucAddr);
    std::uint8_t reply[128] = {};
    std::uint32_t returned = 0;
    const std::uint32_t status = send(req, sizeof reply, reply, &returned);
    if (status != IPSTATUS_OK) return status;
    std::memcpy(pucMac, reply, 6);
    *puiWord = load_be<std::uint32_t>(reply + 6);
    return IPSTATUS_OK;
}

uint32_t IPAddr_Drvk_SetMacType(uint32_t uiWord, uint16_t usType) {
    Request<6> req(Op::kSetMacType);
    req.be<8>(uiWord);
    req.be<12>(usType);
    return send(req);
}

uint32_t IPAddr_Drvk_GetMatchAddrByIP(uint32_t uiAddr, uint32_t uiWord, IPAddrEntry* pstOut) {
    Request<8> req(Op::kGetMatchAddrByIP);
    req.be<8>(uiWord);
    req.raw32<12>(uiAddr);
    return send_for_entry(req, pstOut);
}

uint32_t IPAddr_Drvk_GetNextMatchAddrByIP(uint32_t uiWord, IPAddrEntry* pstEntry) {
    Request<4 + kEntryLen> req(Op::kGetNextMatchAddrByIP);
    req.be<8>(uiWord);
    req.record<12>(*pstEntry, kEntryFields);
    return send_for_entry(req, pstEntry);
}

}  // extern "C"
