// ND interface configuration and display: the interface types ND serves, an interface's ND
// configuration and its display text, the global ND parameters and the MAD ND display.
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>

#include "common/mad_list.hpp"
#include "ipclient/nd.h"
#include "ipplat/platform.h"
#include "ipproto/kmod_nd.hpp"
#include "ipproto/wire.hpp"
#include "kernel/channel.hpp"
#include "nd/request.hpp"

namespace {

using ipc::kernel::node_word;
using ipc::nd::Request;

using namespace ipc::proto::nd;  // operations and interface type lists of the module

// Converted fields of the configuration record. The word at 36 is not taken; the half-word
// at 184 and the name are copied as received.
constexpr std::array<ipc::wire::Field, 17> kConfigFields{{{0, 4},
                                                          {4, 4},
                                                          {8, 4},
                                                          {12, 4},
                                                          {16, 4},
                                                          {20, 4},
                                                          {24, 4},
                                                          {28, 4},
                                                          {32, 4},
                                                          {40, 4},
                                                          {44, 4},
                                                          {176, 4},
                                                          {180, 4},
                                                          {186, 2},
                                                          {188, 4},
                                                          {192, 4},
                                                          {196, 4}}};
constexpr std::size_t kSkippedWord = 36;
constexpr std::size_t kNameOffset = 48;
constexpr std::size_t kTailOffset = kNameOffset + ND_IF_CONFIG_NAME_LEN;  // 176

constexpr char kMadList[] = "nd_madCfg";  // the key is its 10 bytes, terminator included
static_assert(sizeof kMadList == 10);

std::uint32_t master_word() noexcept { return node_word(static_cast<std::uint16_t>(DEV_GetSystemMasterEP())); }

template <std::size_t N>
std::uint32_t select_types(IF_SELECT_S* sel, const std::array<std::uint32_t, N>& types) noexcept {
    if (sel == nullptr) return IPSTATUS_FAILED;
    std::uint32_t result = IPSTATUS_OK;
    for (const std::uint32_t t : types) result = IF_SelectType_Set(t, sel);
    return result;
}

// A module message without payload; the reply is read into `reply`, preset by the caller.
std::uint32_t module_get(std::uint32_t op, std::span<std::uint8_t> reply, std::uint32_t* returned) noexcept {
    const Request<ipc::nd::kHeadLen> r(op);
    *returned = 0;
    return CIOCTL(master_word(), ipc::proto::nd::kCmdInfo, static_cast<std::uint32_t>(r.size()), r.data(),
                  static_cast<std::uint32_t>(reply.size()), reply.data(), returned);
}

// A 32-bit parameter: stored on success (and, when `need_reply`, only for a non-empty reply).
std::uint32_t get_word(std::uint32_t op, std::uint32_t* out, bool need_reply, std::uint32_t preset = 0) noexcept {
    if (out == nullptr) return IPSTATUS_FAILED;
    std::array<std::uint8_t, 4> reply{};
    ipc::wire::store_be(reply.data(), preset);
    std::uint32_t returned = 0;
    const std::uint32_t status = module_get(op, reply, &returned);
    if (status == IPSTATUS_OK && (!need_reply || returned != 0)) *out = ipc::wire::load_be<std::uint32_t>(reply.data());
    return status;
}

// A flags byte (0 when the request fails); the request's status in *status.
std::uint8_t get_flags(std::uint32_t op, std::uint32_t* status) noexcept {
    std::array<std::uint8_t, 1> reply{};
    std::uint32_t returned = 0;
    *status = module_get(op, reply, &returned);
    return *status == IPSTATUS_OK ? reply[0] : 0;
}

// A bit of the extension bitmap: set means `when_set`.
std::uint32_t ext3_bit(std::uint16_t* out, std::uint32_t bit, bool enabled_when_set) noexcept {
    if (out == nullptr) return IPSTATUS_FAILED;
    std::uint32_t bitmap = 0;
    const std::uint32_t status = nd_GetExt3Bitmap(&bitmap);
    if (status == IPSTATUS_OK) *out = ((bitmap & bit) != 0) == enabled_when_set ? 1 : 0;
    return status;
}

// Where the display text goes: the caller's buffer, within the display's fixed room.
class Text {
public:
    explicit Text(char* buf) noexcept : buf_(buf) {}
    char* at() noexcept { return buf_ + used_; }
    std::size_t room() const noexcept { return used_ < ND_IF_DISPLAY_ROOM ? ND_IF_DISPLAY_ROOM - used_ : 0; }
    void advance(int written) noexcept { used_ += written > 0 ? static_cast<std::size_t>(written) : 0; }
    std::size_t used() const noexcept { return used_; }

private:
    char* buf_;
    std::size_t used_ = 0;
};

const char* guard_text(std::uint32_t mode) noexcept {
    switch (mode) {
        case ND_DEST_GUARD_ENABLE: return "enable";
        case ND_DEST_GUARD_STRESSED: return "enable stressed";
        default: return "disable";
    }
}


}  // namespace

extern "C" {

uint32_t ND_SelectL3IfType(IF_SELECT_S* pstSelect) { return select_types(pstSelect, kL3Types); }
uint32_t ND_RA_SelectL3IfType(IF_SELECT_S* pstSelect) { return select_types(pstSelect, kRaTypes); }
uint32_t ND_RA_SelectL3IfTypeIncludeVT(IF_SELECT_S* pstSelect) { return select_types(pstSelect, kRaTypesVT); }
uint32_t ND_RA_SelectL3IfTypeIncludeRETH(IF_SELECT_S* pstSelect) { return select_types(pstSelect, kRaTypesRETH); }
uint32_t ND_SelectL3IfTypeForRtAdvertise(IF_SELECT_S* pstSelect) { return select_types(pstSelect, kAdvertiseTypes); }

uint32_t nd_IsConcernedL3If(uint32_t uiIfIndex) {
    std::uint32_t type = 0;
    if (IF_GetDataByIfIndex(uiIfIndex, IF_DATA_TYPE, &type) != 0) return 0;
    for (const std::uint32_t t : kL3Types) {
        if (t == type) return 1;
    }
    return 0;
}

uint32_t ND_GetIfConfigInfo(uint32_t uiIfIndex, NdIfConfigInfo* pstInfo) {
    if (pstInfo == nullptr) return IPSTATUS_FAILED;
    ipc::wire::Frame<4> r;
    r.be<0>(uiIfIndex);
    std::array<std::uint8_t, ND_IF_CONFIG_LEN> reply{};
    std::uint32_t returned = 0;
    const std::uint32_t status = CIOCTL(master_word(), ipc::proto::nd::kCmdIfConfig, 4, r.data(),
                                        static_cast<std::uint32_t>(reply.size()), reply.data(), &returned);
    if (status != IPSTATUS_OK) return status;
    ipc::wire::swap_fields(reply, kConfigFields);
    auto* out = reinterpret_cast<std::uint8_t*>(pstInfo);
    std::memcpy(out, reply.data(), kSkippedWord);
    std::memcpy(out + kSkippedWord + 4, reply.data() + kSkippedWord + 4, kNameOffset - kSkippedWord - 4);
    std::memcpy(out + kTailOffset, reply.data() + kTailOffset, ND_IF_CONFIG_LEN - kTailOffset);
    // The name within its 128 bytes, always terminated.
    char name[ND_IF_CONFIG_NAME_LEN + 1] = {};
    std::memcpy(name, reply.data() + kNameOffset, ND_IF_CONFIG_NAME_LEN);
    (void)strlcpy(pstInfo->szName, name, sizeof pstInfo->szName);
    return IPSTATUS_OK;
}

uint32_t ND_GetIfDisplayInfo(uint32_t uiIfIndex, uint32_t uiSize, char* pcBuf) {
    if (pcBuf == nullptr) return 0;
    if (IF_IsL2If(uiIfIndex) == 1) return 0;
    Text t(pcBuf);
    NdIfConfigInfo cfg{};
    if (ND_GetIfConfigInfo(uiIfIndex, &cfg) != IPSTATUS_OK) {
        t.advance(scnprintf(t.at(), t.room(), "  ND is not supported"));
        return t.used() <= uiSize ? static_cast<std::uint32_t>(t.used()) : 0;
    }
    if (cfg.uiDadAttempts != 0) {
        t.advance(scnprintf(t.at(), t.room(), "  ND DAD is enabled, number of DAD attempts: %u", cfg.uiDadAttempts));
    } else {
        t.advance(scnprintf(t.at(), t.room(), "  ND DAD is disabled"));
    }
    t.advance(scnprintf(t.at(), t.room(), "\r\n  ND reachable time is %u milliseconds", cfg.uiReachableTime));
    t.advance(scnprintf(t.at(), t.room(), "\r\n  ND retransmit interval is %u milliseconds", cfg.uiRetransInterval));
    const std::uint32_t flags = cfg.uiFlags;
    if ((flags & ND_CFG_FLAG_RA) != 0) {
        const std::uint32_t reachable = (flags & ND_CFG_FLAG_ADV_REACHABLE) != 0 ? cfg.uiReachableTime : 0u;
        const std::uint32_t retrans = (flags & ND_CFG_FLAG_ADV_RETRANS) != 0 ? cfg.uiRetransInterval : 0u;
        const std::uint32_t lifetime =
            (flags & ND_CFG_FLAG_RA_LIFETIME) != 0 ? cfg.uiRaLifetime : 3u * cfg.uiRaInterval;
        t.advance(scnprintf(t.at(), t.room(),
                            "\r\n  ND advertised reachable time is %u milliseconds"
                            "\r\n  ND advertised retransmit interval is %u milliseconds"
                            "\r\n  ND router advertisements are sent every %u seconds"
                            "\r\n  ND router advertisements live for %u seconds",
                            reachable, retrans, cfg.uiRaInterval, lifetime));
    }
    if ((flags & ND_CFG_FLAG_MANAGED) != 0) {
        t.advance(scnprintf(t.at(), t.room(), "\r\n  Hosts use DHCP to obtain routable addresses"));
    } else {
        t.advance(scnprintf(t.at(), t.room(), "\r\n  Hosts use stateless autoconfig for addresses"));
    }
    if ((flags & ND_CFG_FLAG_OTHER) != 0) {
        t.advance(scnprintf(t.at(), t.room(), "\r\n  Hosts use DHCP to obtain other configuration"));
    }
    if ((flags & ND_CFG_FLAG_DEST_GUARD) != 0) {
        t.advance(scnprintf(t.at(), t.room(), "\r\n  Ipv6 destination-guard %s", guard_text(cfg.uiDestGuardMode)));
    }
    return t.used() <= uiSize ? static_cast<std::uint32_t>(t.used()) : 0;
}

uint8_t ND_GetHopLimit(void) {
    std::array<std::uint8_t, 1> reply{{ND_DEFAULT_HOP_LIMIT}};
    std::uint32_t returned = 0;
    if (module_get(kOpHopLimit, reply, &returned) != IPSTATUS_OK) return ND_DEFAULT_HOP_LIMIT;
    return reply[0];
}

uint32_t ND_GetStaleAging(uint32_t* puiValue) {
    return get_word(kOpStaleAging, puiValue, false, ND_DEFAULT_STALE_AGING);
}
uint32_t ND_GetStaleAgingUnit(uint32_t* puiValue) { return get_word(kOpStaleAgingUnit, puiValue, false); }
uint32_t ND_GetSnpDadRetTime(uint32_t* puiValue) { return get_word(kOpSnpDadRetTime, puiValue, false); }
uint32_t ND_GetSnpInvalidTime(uint32_t* puiValue) { return get_word(kOpSnpInvalidTime, puiValue, false); }
uint32_t ND_GetSnpValidTime(uint32_t* puiValue) { return get_word(kOpSnpValidTime, puiValue, false); }
uint32_t ND_GetRate(uint32_t* puiValue) { return get_word(kOpRate, puiValue, true); }

uint32_t ND_GetLinkLocalMinimize(uint16_t* pusValue) {
    if (pusValue == nullptr) return IPSTATUS_FAILED;
    std::uint32_t status = 0;
    if ((get_flags(kOpLinkLocalMinimize, &status) & 0x04u) != 0) *pusValue = 1;
    return status;
}

uint32_t ND_GetIPConflictRecord(uint16_t* pusValue) {
    if (pusValue == nullptr) return IPSTATUS_FAILED;
    std::uint32_t status = 0;
    if ((get_flags(kOpIPConflict, &status) & 0x80u) != 0) *pusValue = 1;
    return status;
}

uint32_t ND_GetOnOffLogAndMoveRecord(uint16_t* pusOnOffLog, uint16_t* pusMoveRecord) {
    if (pusOnOffLog == nullptr || pusMoveRecord == nullptr) return IPSTATUS_FAILED;
    std::uint32_t status = 0;
    const std::uint8_t flags = get_flags(kOpOnOffLogMove, &status);
    if ((flags & 0x01u) != 0) *pusOnOffLog = 1;
    if ((flags & 0x02u) != 0) *pusMoveRecord = 1;
    return status;
}

uint32_t ND_GetRaTunnelBroadCast(uint16_t* pusValue) { return ext3_bit(pusValue, 0x2u, true); }
uint32_t ND_GetResolvingRoute(uint16_t* pusValue) { return ext3_bit(pusValue, 0x8000u, false); }
uint32_t ND_GetTopoChgEnable(uint16_t* pusValue) { return ext3_bit(pusValue, 0x4000u, false); }

void ND_MADDispalyCfg(uint16_t usDetail) {
    static constexpr ipc::mad::Texts kTexts{"MAD ND disabled.\r", "MAD ND enabled.\r", "MAD ND enabled interface:\r"};
    (void)ipc::mad::print(kMadList, sizeof kMadList, kTexts, usDetail);
}

}  // extern "C"
