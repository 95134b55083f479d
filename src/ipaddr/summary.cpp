// The IP summary of the management interfaces: method, address, mask and default gateway.
#include <arpa/inet.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ipclient/fib.h"
#include "ipclient/ipaddr.h"
#include "ipplat/platform.h"
#include "ipproto/raii.hpp"

namespace {

constexpr std::uint32_t kManualOrDhcp = IPADDR_METHOD_MANUAL | IPADDR_METHOD_DHCP;
constexpr std::size_t kFibBuffer = FIB_SEARCH_MAX_ENTRIES * FIB_SEARCH_ENTRY_SIZE;  // 16384

// Room left in buf[0, size) behind `used` characters.
std::size_t room_after(std::size_t size, std::size_t used) noexcept { return used < size ? size - used : 0; }

// Bounded prints behind `used` characters; the characters written.
#define IPADDR_PUT(buf, size, used, ...) \
    static_cast<std::size_t>(scnprintf((buf) + (used), room_after((size), (used)), __VA_ARGS__))

// One interface's block at pcBuf; the number of characters written. The block is given the
// whole buffer size, as the summary has always done, and is held within the space that
// actually remains behind pcBuf (`room`), so that it can never run past the caller's buffer.
std::uint32_t ipaddr_GetIfIpSummary(std::uint32_t uiIfIndex, std::uint32_t uiSize, char* pcBuf,
                                    std::size_t room) noexcept {
    const std::size_t limit = std::min<std::size_t>(uiSize, room);
    IPAddrEntry entry{};
    const bool found = IPAddr_GetFirstAddr(uiIfIndex, kManualOrDhcp, &entry) == IPSTATUS_OK;
    std::size_t n = 0;
    if (uiSize != 0 && limit != 0) {
        const char* method = nullptr;
        if (found && entry.stKey.uiMethod == IPADDR_METHOD_DHCP) method = "DHCP";
        if (found && entry.stKey.uiMethod == IPADDR_METHOD_MANUAL) method = "Manual";
        if (method != nullptr) {
            n += IPADDR_PUT(pcBuf, limit, n, "\r\nIP Method:                      %s", method);
        } else {
            n += IPADDR_PUT(pcBuf, limit, n, "\r\nIP Method:");
        }
    }
    char addr[16] = {};
    char mask[46] = {};  // also the gateway's text, IPv6 included
    if (found) {
        (void)inet_ntop(2, &entry.stKey.uiAddr, addr, 16);
        (void)inet_ntop(2, &entry.stKey.uiMask, mask, 16);
    }
    n += IPADDR_PUT(pcBuf, limit, n, "\r\nIP address:                     %s", addr);
    n += IPADDR_PUT(pcBuf, limit, n, "\r\nSubnet mask:                    %s", mask);

    const ipc::CBlock<std::uint8_t> routes(static_cast<std::uint8_t*>(std::malloc(kFibBuffer)));
    if (!routes) return static_cast<std::uint32_t>(n) + IPSTATUS_FAILED;  // the sum, as designed
    FIB4_SEARCH_KEY_S key{};
    key.uiInstance = 0xFFFFFFFFu;
    key.usFamily = 2;
    std::uint64_t count = FIB_SEARCH_MAX_ENTRIES;
    if (FIB4_SearchInfo(&key, &count, routes.get()) == IPSTATUS_OK) {
        for (std::uint64_t i = 0; i < count; ++i) {
            const std::uint8_t* route = routes.get() + i * FIB_SEARCH_ENTRY_SIZE;
            std::uint32_t flags = 0;
            std::memcpy(&flags, route + FIB_ENTRY_FLAGS_OFFSET, sizeof flags);
            if ((flags & 1u) == 0) continue;
            std::uint16_t family = 0;
            std::memcpy(&family, route + FIB_ENTRY_FAMILY_OFFSET, sizeof family);
            if (family == 10) {
                (void)inet_ntop(10, route + FIB_ENTRY_NEXTHOP_OFFSET, mask, 46);
            } else if (family == 2) {
                (void)inet_ntop(2, route + FIB_ENTRY_NEXTHOP_OFFSET, mask, 16);
            }
            break;
        }
    }
    // Without a flagged route the buffer still holds the mask, which is printed as the gateway.
    n += IPADDR_PUT(pcBuf, limit, n, "\r\nDefault gateway:                %s\r\n", mask);
    return static_cast<std::uint32_t>(n);
}

}  // namespace

extern "C" {

uint32_t IPAddr_GetIpSummary(uint32_t uiSize, char* pcBuf) {
    if (uiSize == 0 || pcBuf == nullptr) return IPSTATUS_FAILED;
    pcBuf[0] = '\0';
    char name[48];
    std::size_t used = 0;
    (void)scnprintf(name, sizeof name, "Vlan-interface%d", 1);
    const std::uint32_t vlan = IF_GetIfIndexByFullName(name);
    if (vlan != 0) {
        used = IPADDR_PUT(pcBuf, uiSize, 0, "\r\nVlan1:");
        used += ipaddr_GetIfIpSummary(vlan, uiSize, pcBuf + used, uiSize - used);
        used = std::min<std::size_t>(used, uiSize - 1);  // a block's count may carry a failure code
    }
    (void)scnprintf(name, sizeof name, "M-GigabitEthernet0/0/0");
    const std::uint32_t mge = IF_GetIfIndexByFullName(name);
    if (mge == 0) return IPSTATUS_OK;
    used += IPADDR_PUT(pcBuf, uiSize, used, "\r\nMGE0/0/0:");
    if (used < uiSize) (void)ipaddr_GetIfIpSummary(mge, uiSize, pcBuf + used, uiSize - used);
    return IPSTATUS_OK;
}

}  // extern "C"
