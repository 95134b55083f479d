// The kernel's address module: its command code, the operations of its requests, and the wire
// forms of its records and request header.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "ipclient/kernel.h"
#include "ipproto/wire.hpp"

namespace ipc::proto::addr {

inline constexpr std::uint32_t kCmd = 0x260001;

// Big-endian fields of each record; everything else travels byte for byte.
inline constexpr std::array<wire::Field, 3> kKeyFields{{{0, 2}, {4, 4}, {16, 4}}};
inline constexpr std::array<wire::Field, 4> kEntryFields{{{0, 2}, {4, 4}, {16, 4}, {20, 4}}};
inline constexpr std::array<wire::Field, 7> kInfoFields{
    {{0, 2}, {4, 4}, {16, 4}, {20, 4}, {28, 4}, {32, 4}, {36, 4}}};

inline constexpr std::size_t kHeaderLen = 8;
inline constexpr std::size_t kKeyLen = sizeof(IPAddrKey);
inline constexpr std::size_t kEntryLen = sizeof(IPAddrEntry);
inline constexpr std::size_t kInfoLen = sizeof(IPAddrInfo);

// Operation codes carried in the first word of every request.
enum class Op : std::uint32_t {
    kAddIP = 0,
    kDelIP = 1,
    kLookupAddr = 2,
    kGetConflictAddr = 3,
    kGetMatchAddr = 4,
    kGetMatchAddrNum = 5,
    kGetMatchBestNet = 6,
    kGetNextAddrOnIf = 7,
    kGetPriorAddrOnIf = 8,
    kGetFwdAddrInVrf = 9,
    kGetNextAddrInVrf = 11,
    kSetCfgMethod = 12,
    kClearCfgMethod = 13,
    kGetIFMethod = 14,
    kGetBatchAddrOnIF = 15,
    kGetNextIf = 16,
    kGetBatchEvNotify = 17,
    kGetRTEvNotifyInfo = 18,
    kGetAddrCountOnIF = 20,
    kSetDbgInfo = 21,
    kGetDbgInfo = 22,
    kIncAddrGlobalEpoch = 23,
    kGetAddrGlobalEpoch = 24,
    kSelectSrcAddr = 25,
    kSetDrvMethod = 26,
    kGetLoopBackInfo = 27,
    kModMainIP = 28,
    kSearchGWAddr = 29,
    kSetNetProtocol = 30,
    kGetNetProtoBit = 31,
    kGetMaxAddrInVrf = 32,
    kAddVFWIP = 33,
    kDelVFWIP = 34,
    kGetMac = 35,
    kSetMacType = 36,
    kGetMatchAddrByIP = 37,
    kGetNextMatchAddrByIP = 38,
    kGetConflictAddr2CfgRecover = 39,
};

// A request of PayloadLen bytes behind the 8-byte header (operation, payload length).
template <std::size_t PayloadLen>
class Request : public wire::Frame<kHeaderLen + PayloadLen> {
public:
    explicit Request(Op op) noexcept {
        this->template be<0>(static_cast<std::uint32_t>(op));
        this->template be<4>(static_cast<std::uint32_t>(PayloadLen));
    }
};

template <class Rec, std::size_t N>
inline void to_host(Rec* rec, const std::array<wire::Field, N>& fields) noexcept {
    wire::swap_fields(std::span<std::uint8_t>(reinterpret_cast<std::uint8_t*>(rec), sizeof(Rec)), fields);
}
inline void to_host(IPAddrEntry* e) noexcept { to_host(e, kEntryFields); }
inline void to_host(IPAddrInfo* i) noexcept { to_host(i, kInfoFields); }

}  // namespace ipc::proto::addr
