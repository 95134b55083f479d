// What the store keeps of the address table: every address ("addr", by interface and
// address) and every interface's settings ("ifset", by interface).
#include "modules/kmod_addr.hpp"
#include "store/records.hpp"
#include "store/store.hpp"

namespace sim {

std::optional<std::string> AddrModule::restore(Store& store) {
    std::string bad;
    const bool addrs_ok = store.each("addr", [&](std::span<const std::uint8_t> key,
                                                 const std::vector<std::uint8_t>* value) {
        if (value == nullptr) {
            std::uint32_t ifindex = 0, addr = 0;
            if (!records::decode_addr_key(key, &ifindex, &addr)) return bad = "a bad address key", false;
            table_.remove(ifindex, addr, false);
            return true;
        }
        const auto info = records::decode_addr(key, *value);
        if (!info || device_.interface(info->stEntry.stKey.uiIfIndex) == nullptr) {
            return bad = "an address row that does not fit this scenario", false;
        }
        table_.put(*info, false);
        return true;
    });
    const bool settings_ok = addrs_ok && store.each("ifset", [&](std::span<const std::uint8_t> key,
                                                                 const std::vector<std::uint8_t>* value) {
        const auto ifindex = records::decode_settings_key(key);
        const auto s = value != nullptr ? records::decode_settings(*value) : std::nullopt;
        if (!ifindex || !s || device_.interface(*ifindex) == nullptr) return bad = "a bad settings row", false;
        table_.settings(*ifindex) = *s;
        stored_settings_[*ifindex] = *s;
        return true;
    });
    if (!addrs_ok || !settings_ok) return bad.empty() ? std::string("unreadable") : bad;
    return std::nullopt;
}

void AddrModule::persist(Store& store, const AddrChange& change) {
    const IPAddrKey& k = change.info.stEntry.stKey;
    const auto key = records::addr_key(k.uiIfIndex, k.uiAddr);
    if (change.kind == AddrChange::kDelete) {
        store.remove("addr", key);
    } else {
        store.put("addr", key, records::encode_addr(change.info));
    }
    // Should the request's work be rolled back, the table gets back what it held.
    store.on_rollback([this, ifindex = k.uiIfIndex, addr = k.uiAddr, before = change.before] {
        if (before) {
            table_.put(*before, false);
        } else {
            table_.remove(ifindex, addr, false);
        }
    });
}

void AddrModule::persist_settings(Store& store, std::uint32_t ifindex, const IfSettings& s) {
    store.put("ifset", records::settings_key(ifindex), records::encode_settings(s));
    // Stored: the settings the store now has. Rolled back: the settings as the store has
    // them (none stored: the defaults).
    store.after_commit([this, ifindex, s] { stored_settings_[ifindex] = s; });
    store.on_rollback([this, ifindex] {
        const auto it = stored_settings_.find(ifindex);
        table_.settings(ifindex) = it != stored_settings_.end() ? it->second : IfSettings{};
    });
}

}  // namespace sim
