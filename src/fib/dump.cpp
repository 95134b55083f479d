// The forwarding-table dump: every running node's IPv4 routes, one text line each. One
// chunk and one line are held at a time; the table is never in memory whole.
#include <arpa/inet.h>
#include <dlfcn.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>

#include "common/dump_handle.hpp"
#include "ipclient/fib.h"
#include "ipplat/platform.h"
#include "ipproto/kmod_fib.hpp"
#include "ipproto/raii.hpp"
#include "ipproto/wire.hpp"

namespace {

constexpr std::uint32_t kChunkCap = 8000;
constexpr std::size_t kEntryRead = ipc::proto::fib::kDumpEntryLen;
// Chunks in a row without an entry after which a dump counts as failed.
constexpr std::uint32_t kMaxEmptyPulls = 1024;
constexpr std::size_t kLineMax = 512;
constexpr char kHeader[] = "[FIB Info]\r\n";

// One route's line, the bytes of the format
//   "{%hu, %hu, %hu}, {%s, %s/%u} -> {%s, %s, %s}, "
//   "{%02x-%02x-%02x-%02x-%02x-%02x, %02x-%02x-%02x-%02x-%02x-%02x, %hu/%hu, %s}\r\n"
// printed into kLineMax bytes (at most kLineMax - 1 characters kept), put together piece by
// piece: the general formatter would cost more than everything else a route takes.
class LineText {
public:
    void text(const char* s) noexcept {
        while (*s != '\0' && n_ < kLineMax - 1) buf_[n_++] = *s++;
    }
    void number(std::uint32_t v) noexcept {
        char digits[10];
        std::size_t k = 0;
        do {
            digits[k++] = static_cast<char>('0' + v % 10);
            v /= 10;
        } while (v != 0);
        while (k > 0 && n_ < kLineMax - 1) buf_[n_++] = digits[--k];
    }
    void hex2(std::uint8_t v) noexcept {
        static constexpr char kHex[] = "0123456789abcdef";
        if (n_ < kLineMax - 1) buf_[n_++] = kHex[v / 16];
        if (n_ < kLineMax - 1) buf_[n_++] = kHex[v % 16];
    }
    void mac(const std::uint8_t* m) noexcept {
        for (std::size_t i = 0; i < 6; ++i) {
            if (i != 0) text("-");
            hex2(m[i]);
        }
    }
    const char* data() const noexcept { return buf_; }
    std::size_t size() const noexcept { return n_; }

private:
    char buf_[kLineMax];
    std::size_t n_ = 0;
};

// The decimal text of a value into a small buffer ("%u"), cut to fit and terminated.
void decimal(std::uint32_t v, std::span<char> out) noexcept {
    char digits[10];
    std::size_t k = 0;
    do {
        digits[k++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    std::size_t i = 0;
    while (k > 0 && i + 1 < out.size()) out[i++] = digits[--k];
    if (!out.empty()) out[i] = '\0';
}

namespace entry = ipc::proto::fib::dump_entry;

// Big-endian fields of the dump entry converted before use (the mask when used).
constexpr std::array<ipc::wire::Field, 7> kEntryFields{{{entry::kVrf, 2},
                                                        {entry::kVlan, 2},
                                                        {entry::kPort, 2},
                                                        {entry::kLabel, 4},
                                                        {entry::kViaIf, 4},
                                                        {entry::kTunnel, 4},
                                                        {entry::kIfIndex, 4}}};

using VrfNameFn = std::uint32_t (*)(std::uint16_t vrf, std::uint32_t size, char* name);

// The optional layer-3 VPN library, held while a dump runs.
void* g_l3vpn_handle = nullptr;
VrfNameFn g_l3vpn_name = nullptr;

std::uint32_t prefix_length(std::uint32_t mask) noexcept {
    std::uint32_t n = 0;
    for (; mask != 0; mask <<= 1) ++n;
    return n;
}

void interface_name(std::uint32_t ifindex, char (&out)[32]) noexcept {
    if (IF_GetDataByIfIndex(ifindex, IF_DATA_NAME, out) != 0) {
        (void)scnprintf(out, 25, "N/A");
    } else {
        out[sizeof out - 1] = '\0';
    }
}

template <class U>
U field(const std::uint8_t* rec, std::size_t off) noexcept {
    U v;
    std::memcpy(&v, rec + off, sizeof v);
    return v;
}

// Writes one route's line; false when the line could not be written.
bool write_line(std::uint16_t node, const std::uint8_t* rec, std::FILE* file) noexcept {
    const std::uint16_t vrf = field<std::uint16_t>(rec, entry::kVrf);
    char vpn[32] = {};
    if (vrf == 0) {
        (void)scnprintf(vpn, sizeof vpn, "public");
    } else if (g_l3vpn_name == nullptr || g_l3vpn_name(vrf, sizeof vpn, vpn) != 0) {
        (void)scnprintf(vpn, sizeof vpn, "N/A");
    }
    vpn[sizeof vpn - 1] = '\0';
    char dest[16] = {}, hop[16] = {};
    (void)inet_ntop(2, rec + entry::kDestination, dest, sizeof dest);
    (void)inet_ntop(2, rec + entry::kNextHop, hop, sizeof hop);
    const std::uint32_t mask = ipc::wire::load_be<std::uint32_t>(rec + entry::kMask);
    char out_if[32] = {};
    interface_name(field<std::uint32_t>(rec, entry::kIfIndex), out_if);
    char via[32] = {};
    const auto tunnel = field<std::uint32_t>(rec, entry::kTunnel);
    if (tunnel != entry::kNone) {
        decimal(tunnel, std::span<char>(via, 25));
    } else {
        interface_name(field<std::uint32_t>(rec, entry::kViaIf), via);
    }
    char label[16] = {};
    const auto label_value = field<std::uint32_t>(rec, entry::kLabel);
    if (label_value != entry::kNone) {
        decimal(label_value, label);
    } else {
        (void)scnprintf(label, sizeof label, "Null");
    }
    const auto half = [&](std::size_t off) -> unsigned short {
        const auto v = field<std::uint16_t>(rec, off);
        return v == entry::kNoneHalf ? 0 : v;
    };
    const std::uint8_t* m1 = rec + entry::kMac;
    const std::uint8_t* m2 = rec + entry::kOwnMac;
    LineText line;
    line.text("{");
    line.number(LIP_GetChassID(node));
    line.text(", ");
    line.number(LIP_GetSlotID(node));
    line.text(", ");
    line.number(LIP_GetCpuID(node));
    line.text("}, {");
    line.text(vpn);
    line.text(", ");
    line.text(dest);
    line.text("/");
    line.number(prefix_length(mask));
    line.text("} -> {");
    line.text(hop);
    line.text(", ");
    line.text(via);
    line.text(", ");
    line.text(label);
    line.text("}, {");
    line.mac(m1);
    line.text(", ");
    line.mac(m2);
    line.text(", ");
    line.number(half(entry::kVlan));
    line.text("/");
    line.number(half(entry::kPort));
    line.text(", ");
    line.text(out_if);
    line.text("}\r\n");
    return std::fwrite(line.data(), line.size(), 1, file) == 1;
}

// Writes one node's table; IPSTATUS_OK, IPSTATUS_FAILED or IPSTATUS_DUMP_FAILED.
std::uint32_t fib_DumpNodeTable(std::uint16_t usNode, std::FILE* pFile) noexcept {
    std::uint8_t request[8] = {11};
    const std::int32_t handle = DUMP_Request(usNode, ipc::proto::fib::kDumpRequest, request, sizeof request);
    if (handle < 0) return IPSTATUS_FAILED;
    const ipc::DumpHandle owner(handle);
    std::uint8_t chunk[kChunkCap];
    // A dump service that keeps answering "more data" without an entry would hold the walk
    // for ever: after kMaxEmptyPulls such chunks in a row the pull counts as failed.
    std::uint32_t empty = 0;
    for (;;) {
        std::uint32_t len = 0;
        const std::uint32_t pulled = DUMP_Pull(handle, sizeof chunk, chunk, &len);
        if (pulled != DUMP_MORE_DATA) return pulled == 0 ? IPSTATUS_OK : IPSTATUS_FAILED;
        len = std::min<std::uint32_t>(len, sizeof chunk);
        std::uint32_t size = 0;
        if (len >= 8) std::memcpy(&size, chunk + 4, sizeof size);  // host order
        const std::uint32_t count = size == 0 ? 0 : (len - 8) / size;
        if (count == 0) {
            if (++empty >= kMaxEmptyPulls) return IPSTATUS_FAILED;
            continue;
        }
        empty = 0;
        // Cleared once per chunk: a short entry overwrites only its own length.
        std::uint8_t rec[kEntryRead] = {};
        std::memset(rec + 24, 0xFF, 4);
        const std::size_t copy = std::min<std::size_t>(size, kEntryRead);
        for (std::uint32_t i = 0; i < count; ++i) {
            std::memcpy(rec, chunk + 8 + std::size_t{i} * size, copy);
            ipc::wire::swap_fields(std::span<std::uint8_t>(rec, sizeof rec), kEntryFields);
            if (!write_line(usNode, rec, pFile)) return IPSTATUS_DUMP_FAILED;
        }
    }
}

}  // namespace

extern "C" {

uint32_t FIB_SaveForwardingTable(const char* pcPath) {
    if (pcPath == nullptr) return IPSTATUS_DUMP_FAILED;
    std::FILE* file = std::fopen(pcPath, "wb+");
    if (file == nullptr) return IPSTATUS_DUMP_FAILED;
    g_l3vpn_handle = dlopen("/lib/libl3vpn.so", RTLD_LAZY);
    if (g_l3vpn_handle != nullptr) {
        g_l3vpn_name = reinterpret_cast<VrfNameFn>(dlsym(g_l3vpn_handle, "L3VPN_GetNameByVrfIndex"));
        if (g_l3vpn_name == nullptr) {
            dlclose(g_l3vpn_handle);
            g_l3vpn_handle = nullptr;
        }
    }
    std::uint32_t result = IPSTATUS_OK;
    if (std::fwrite(kHeader, sizeof kHeader - 1, 1, file) != 1) {
        result = IPSTATUS_FAILED;
    } else {
        std::uint32_t count = 0;
        const ipc::CBlock<std::uint16_t> nodes(DEV_GetAllNodes(&count));
        if (!nodes) {
            result = IPSTATUS_FAILED;
        } else {
            for (std::uint32_t i = 0; i < count && result == IPSTATUS_OK; ++i) {
                if ((IF_IsNodeUp(nodes.get()[i]) & 0xFFFFu) == 1) result = fib_DumpNodeTable(nodes.get()[i], file);
            }
        }
    }
    if (g_l3vpn_handle != nullptr) dlclose(g_l3vpn_handle);
    g_l3vpn_handle = nullptr;
    g_l3vpn_name = nullptr;
    const bool closed = std::fclose(file) == 0;
    if (result == IPSTATUS_OK && !closed) result = IPSTATUS_DUMP_FAILED;
    if (result != IPSTATUS_OK) std::remove(pcPath);
    return result;
}

}  // extern "C"
