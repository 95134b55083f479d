#include "store/records.hpp"

#include <cstring>

#include "ipproto/kmod_addr.hpp"
#include "ipproto/wire.hpp"

namespace sim::records {

using ipc::wire::Reader;
using ipc::wire::Writer;

std::vector<std::uint8_t> addr_key(std::uint32_t ifindex, std::uint32_t addr) {
    std::vector<std::uint8_t> out(8);
    Writer(out).be(ifindex).raw(&addr, 4);
    return out;
}

bool decode_addr_key(std::span<const std::uint8_t> key, std::uint32_t* ifindex, std::uint32_t* addr) {
    if (key.size() != 8) return false;
    Reader r(key.data(), key.size());
    *ifindex = r.be<std::uint32_t>();
    r.raw_into(addr, 4);
    return r.ok();
}

std::vector<std::uint8_t> encode_addr(const IPAddrInfo& info) {
    std::vector<std::uint8_t> out(sizeof(IPAddrInfo));
    std::memcpy(out.data(), &info, sizeof info);
    ipc::wire::swap_fields(std::span<std::uint8_t>(out), ipc::proto::addr::kInfoFields);
    return out;
}

std::optional<IPAddrInfo> decode_addr(std::span<const std::uint8_t> key, std::span<const std::uint8_t> value) {
    std::uint32_t ifindex = 0, addr = 0;
    if (!decode_addr_key(key, &ifindex, &addr) || value.size() != sizeof(IPAddrInfo)) return std::nullopt;
    IPAddrInfo info{};
    std::memcpy(&info, value.data(), sizeof info);
    ipc::proto::addr::to_host(&info);
    if (info.stEntry.stKey.uiIfIndex != ifindex || info.stEntry.stKey.uiAddr != addr) return std::nullopt;
    return info;
}

std::vector<std::uint8_t> settings_key(std::uint32_t ifindex) {
    std::vector<std::uint8_t> out(4);
    Writer(out).be(ifindex);
    return out;
}

std::optional<std::uint32_t> decode_settings_key(std::span<const std::uint8_t> key) {
    if (key.size() != 4) return std::nullopt;
    return ipc::wire::load_be<std::uint32_t>(key.data());
}

std::vector<std::uint8_t> encode_settings(const IfSettings& s) {
    std::vector<std::uint8_t> out(36 + s.contexts.size() * 6);
    Writer w(out);
    w.be(s.cfg_methods).be(s.drv_method).be(s.net_proto).be(s.mac_type).be(s.unnumbered).be(s.nego);
    w.be(s.cellular).be(s.autocfg).be(s.bpa_in).be(s.bpa_out).be(s.port_attack);
    w.be(static_cast<std::uint32_t>(s.contexts.size()));
    for (const auto& [addr, third] : s.contexts) w.raw(&addr, 4).be(third);
    out.resize(w.size());
    return out;
}

std::optional<IfSettings> decode_settings(std::span<const std::uint8_t> value) {
    Reader r(value.data(), value.size());
    IfSettings s;
    s.cfg_methods = r.be<std::uint32_t>();
    s.drv_method = r.be<std::uint32_t>();
    s.net_proto = r.be<std::uint32_t>();
    s.mac_type = r.be<std::uint16_t>();
    s.unnumbered = r.be<std::uint32_t>();
    s.nego = r.be<std::uint16_t>();
    s.cellular = r.be<std::uint8_t>();
    s.autocfg = r.be<std::uint8_t>();
    s.bpa_in = r.be<std::uint16_t>();
    s.bpa_out = r.be<std::uint16_t>();
    s.port_attack = r.be<std::uint32_t>();
    const std::uint32_t n = r.be<std::uint32_t>();
    if (!r.ok() || n != r.remaining() / 6 || r.remaining() % 6 != 0) return std::nullopt;
    for (std::uint32_t i = 0; i < n; ++i) {
        std::uint32_t addr = 0;
        r.raw_into(&addr, 4);
        s.contexts.emplace_back(addr, r.be<std::uint16_t>());
    }
    if (!r.ok()) return std::nullopt;
    return s;
}

}  // namespace sim::records
