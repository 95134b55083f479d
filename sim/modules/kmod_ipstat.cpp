#include "modules/kmod_ipstat.hpp"

#include <stdexcept>

#include "context.hpp"
#include "control/args.hpp"
#include "core/status.hpp"
#include "ipclient/status.h"
#include "ipproto/kmod_ipstat.hpp"
#include "ipproto/wire.hpp"
#include "modules/module.hpp"

namespace sim {
namespace {

using ipc::wire::Reader;
using ipc::wire::Writer;
using json = nlohmann::json;
using namespace ipstat;
using StatOp = ipc::proto::ipstat::Op;

constexpr std::size_t kFwReplyLen = 112;
constexpr std::size_t kBpaLen = kBpaRecords * kBpaCounters * 8;  // 2560

// Operations whose data is an interface index or a value.
bool takes_data(StatOp op) {
    switch (op) {
        case StatOp::kFwIfStat:
        case StatOp::kIcmpIfStat:
        case StatOp::kIfMtu:
        case StatOp::kSetDefTtl:
        case StatOp::kMibIfStat:
        case StatOp::kClearFwIfStat: return true;
        default: return false;
    }
}

template <class U, std::size_t N>
void put_all(Writer& w, const std::array<U, N>& words) {
    for (const U v : words) w.be(v);
}

std::uint32_t flag(bool on) { return on ? 1u : 0u; }

std::uint16_t fw_conf(const Settings& s) {
    return static_cast<std::uint16_t>((s.forwarding ? 1u : 0u) | (s.directed_broadcast ? 2u : 0u));
}

class BpaDump : public DumpCursor {
public:
    explicit BpaDump(const BpaRecords& records) : records_(records) {}

    std::uint32_t pull(std::span<std::uint8_t> out, std::size_t* len) override {
        *len = 0;
        if (done_) return 0;
        if (out.size() < kBpaLen) return kFailure;
        Writer w(out);
        for (const BpaRecord& r : records_) put_all(w, r);
        done_ = true;
        *len = w.size();
        return kDumpMoreData;
    }

private:
    BpaRecords records_;
    bool done_ = false;
};

// ---- Control operations -------------------------------------------------------------------

// Counts of packets and counters: any 64-bit number.
constexpr std::uint64_t kCountMost = ~std::uint64_t{0};

template <class U, std::size_t N>
json named(const std::array<std::string_view, N>& names, const std::array<U, N>& values) {
    json out = json::object();
    for (std::size_t i = 0; i < N; ++i) out[std::string(names[i])] = values[i];
    return out;
}

// {"name": count, ...} as (counter, count) pairs; throws on a name the set does not have.
template <std::size_t N>
std::vector<std::pair<std::size_t, std::uint64_t>> raw_counts(const json& req, const char* set,
                                                              const std::array<std::string_view, N>& names) {
    std::vector<std::pair<std::size_t, std::uint64_t>> out;
    const json* v = arg::find(req, set);
    if (v == nullptr) return out;
    if (!v->is_object()) {
        throw std::invalid_argument(arg::label(set) + " must be an object of counter names and counts, got " +
                                    arg::shown(*v));
    }
    for (const auto& [key, count] : v->items()) {
        const auto at = index_of(names, key);
        if (!at) throw std::invalid_argument(arg::label(set) + " has no counter named " + arg::label(key));
        out.emplace_back(*at, arg::whole_value(count, arg::label(set) + "." + arg::label(key), 0, kCountMost));
    }
    return out;
}

template <class U, std::size_t N>
void add_raw(std::array<U, N>& counters, const std::vector<std::pair<std::size_t, std::uint64_t>>& counts) {
    for (const auto& [at, n] : counts) counters[at] = static_cast<U>(counters[at] + static_cast<U>(n));
}

json settings_json(const Settings& s) {
    return {{"ttl", s.ttl},
            {"forwarding", s.forwarding},
            {"directed_broadcast", s.directed_broadcast},
            {"ecmp_paths", s.ecmp_paths},
            {"ecmp_mode", s.ecmp_mode},
            {"load_sharing", s.load_sharing},
            {"hash_fields", s.hash_fields},
            {"hash_seed", s.hash_seed},
            {"local_first", s.local_first}};
}

// One record of BPA counts given to "ipstat.traffic".
struct BpaCount {
    std::size_t record = 0;
    BpaRecord add{};
    std::optional<std::uint64_t> stamp;
};

}  // namespace

const Settings& IpStatModule::settings(std::uint16_t node) const {
    static const Settings kDefaults{};
    const auto it = settings_.find(node);
    return it != settings_.end() ? it->second : kDefaults;
}

std::uint32_t IpStatModule::mtu(const Context& ctx, std::uint32_t ifindex) const {
    const auto it = mtu_.find(ifindex);
    if (it != mtu_.end()) return it->second;
    const auto* itf = ctx.device.interface(ifindex);
    return itf != nullptr ? itf->mtu : 0;
}

void IpStatModule::mirror_settings(std::uint16_t node, std::optional<unsigned> ttl, std::optional<bool> forwarding) {
    Settings s = settings(node);
    if (ttl) s.ttl = *ttl;
    if (forwarding) s.forwarding = *forwarding;
    settings_[node] = s;
}

void IpStatModule::set_settings(Context& ctx, std::uint16_t node, const Settings& s) {
    const auto it = settings_.find(node);
    const std::optional<Settings> before = it != settings_.end() ? std::optional<Settings>(it->second) : std::nullopt;
    settings_[node] = s;
    // Stored before the change is acknowledged; put back as it was when it cannot be.
    ctx.store.put(kSettingsTable, settings_key(node), encode_settings(s));
    ctx.store.on_rollback([this, node, before] {
        if (before) {
            settings_[node] = *before;
        } else {
            settings_.erase(node);
        }
    });
}

void IpStatModule::set_mtu(Context& ctx, std::uint32_t ifindex, std::uint32_t value) {
    const auto it = mtu_.find(ifindex);
    const std::optional<std::uint32_t> before = it != mtu_.end() ? std::optional<std::uint32_t>(it->second) : std::nullopt;
    mtu_[ifindex] = value;
    ctx.store.put(kMtuTable, mtu_key(ifindex), encode_mtu(value));
    ctx.store.on_rollback([this, ifindex, before] {
        if (before) {
            mtu_[ifindex] = *before;
        } else {
            mtu_.erase(ifindex);
        }
    });
}

BpaRecords IpStatModule::bpa_of(std::uint16_t node, std::uint32_t ifindex) const {
    BpaRecords out{};
    for (const auto& [key, records] : bpa_) {
        if (key.first != node || (ifindex != 0 && key.second != ifindex)) continue;
        for (std::size_t r = 0; r < kBpaRecords; ++r) {
            for (std::size_t c = 0; c + 1 < kBpaCounters; ++c) out[r][c] += records[r][c];
            out[r][kBpaCounters - 1] = std::max(out[r][kBpaCounters - 1], records[r][kBpaCounters - 1]);
        }
    }
    return out;
}

std::optional<std::string> IpStatModule::add_counts(const Context& ctx, std::uint16_t node, std::string_view set,
                                                    std::uint32_t ifindex, NamedCounts counts) {
    if (!ctx.device.node_up(node)) return "node " + std::to_string(node) + " is down";
    if (ifindex != 0 && ctx.device.interface(ifindex) == nullptr) return "no interface " + std::to_string(ifindex);
    if (set != "ip" && ifindex == 0) return "these counters are an interface's";
    std::vector<std::pair<std::size_t, std::uint64_t>> raw;
    for (const auto& [name, n] : counts) {
        const auto at = set == "ip"     ? index_of(kIpNames, name)
                        : set == "mib"  ? index_of(kMibNames, name)
                        : set == "fw"   ? index_of(kFwNames, name)
                        : set == "icmp" ? index_of(kIcmpNames, name)
                                        : std::nullopt;
        if (!at) return std::string(set) + " has no counter named " + std::string(name);
        raw.emplace_back(*at, n);
    }
    IpCounters& ip = ip_[node].total;
    if (ifindex == 0) {
        add_raw(ip, raw);
        return std::nullopt;
    }
    // The interface's counters are made as traffic on it makes them.
    MibCounters& mib = mib_[{node, ifindex}];
    FwCounters& fw = fw_[{node, ifindex}].counters;
    IcmpCounters& icmp = icmp_[ifindex];
    if (set == "ip") add_raw(ip, raw);
    if (set == "mib") add_raw(mib, raw);
    if (set == "fw") add_raw(fw, raw);
    if (set == "icmp") add_raw(icmp, raw);
    return std::nullopt;
}

std::uint32_t IpStatModule::handle(Context& ctx, std::uint16_t node, std::span<const std::uint8_t> request,
                                   std::span<std::uint8_t> reply, std::uint32_t* returned) {
    *returned = 0;
    Reader r(request.data(), request.size());
    const auto op = static_cast<StatOp>(r.be<std::uint16_t>());
    const auto len = r.be<std::uint16_t>();
    if (!r.ok() || len != r.remaining() || (len != 0 && len != 4) || takes_data(op) != (len == 4)) return kFailure;
    const std::uint32_t data = len == 4 ? r.be<std::uint32_t>() : 0;
    // Every operation with data names an interface except the TTL's.
    const bool names_if = len == 4 && op != StatOp::kSetDefTtl;
    if (names_if && ctx.device.interface(data) == nullptr) return kFailure;

    Writer w(reply);
    const Settings& s = settings(node);
    const NodeIf key{node, data};
    switch (op) {
        case StatOp::kShowIpStat: {
            const auto it = ip_.find(node);
            for (std::size_t i = 0; i < kIpCounters; ++i) {
                w.be(it != ip_.end() ? static_cast<std::uint32_t>(it->second.total[i] - it->second.at_reset[i]) : 0u);
            }
            break;
        }
        case StatOp::kIpStat: {
            const auto it = ip_.find(node);
            put_all(w, it != ip_.end() ? it->second.total : IpCounters{});
            break;
        }
        case StatOp::kFwIfStat: {
            const auto it = fw_.find(key);
            const FwState st = it != fw_.end() ? it->second : FwState{};
            put_all(w, st.counters);
            w.be(data).be(static_cast<std::uint32_t>(node)).be(st.cleared_at).zeros(kFwReplyLen - 80);
            break;
        }
        case StatOp::kIcmpIfStat: {
            const auto it = icmp_.find(data);
            put_all(w, it != icmp_.end() ? it->second : IcmpCounters{});
            break;
        }
        case StatOp::kIfMtu: w.be(mtu(ctx, data)); break;
        case StatOp::kSetDefTtl: {
            if (data < 1 || data > 255) return kFailure;
            // A writable mirror's system takes the setting first; what it refuses is refused.
            if (ctx.mirror != nullptr && ctx.mirror->writable()) {
                if (ctx.mirror->set_default_ttl(static_cast<std::uint8_t>(data)) != 0) return kFailure;
                // Should the change not be stored after all, the system's is taken back.
                ctx.store.on_rollback([m = ctx.mirror, old = s.ttl] { (void)m->set_default_ttl(static_cast<std::uint8_t>(old)); });
            }
            Settings changed = s;
            changed.ttl = data;
            set_settings(ctx, node, changed);
            return 0;
        }
        case StatOp::kGetDefTtl: w.be(s.ttl); break;
        case StatOp::kEcmp: w.be(s.ecmp_paths).be(kEcmpBound); break;
        case StatOp::kEcmpMode:
            w.be(s.ecmp_mode).be(s.ecmp_paths).be(kEcmpBound).be(s.load_sharing).be(s.hash_fields).be(s.hash_seed);
            w.be(flag(s.local_first)).zeros(4);
            break;
        case StatOp::kConf: w.be(flag(s.forwarding)).be(s.ttl).be(s.ecmp_paths).be(s.ecmp_mode); break;
        case StatOp::kMibIfStat: {
            const auto it = mib_.find(key);
            put_all(w, it != mib_.end() ? it->second : MibCounters{});
            break;
        }
        case StatOp::kClearFwIfStat: {
            FwState& st = fw_[key];
            st.counters = {};
            st.cleared_at = ctx.uptime();
            return 0;
        }
        case StatOp::kLoadSharing: w.be(s.load_sharing).be(s.hash_fields).be(s.hash_seed).be(flag(s.local_first)); break;
        case StatOp::kFwConf: w.be(fw_conf(s)); break;
        default: return kFailure;
    }
    // A reply that does not fit the caller's room is not given at all.
    if (!w.ok()) return kFailure;
    *returned = static_cast<std::uint32_t>(w.size());
    return 0;
}

std::unique_ptr<DumpCursor> IpStatModule::dump(const Context& ctx, std::uint16_t node,
                                               std::span<const std::uint8_t> request) const {
    Reader r(request.data(), request.size());
    const auto op = r.be<std::uint16_t>();
    const auto len = r.be<std::uint16_t>();
    const auto ifindex = r.be<std::uint32_t>();
    if (!r.ok() || r.remaining() != 0 || static_cast<StatOp>(op) != StatOp::kBpaStat || len != 4) return nullptr;
    if (ifindex != 0 && ctx.device.interface(ifindex) == nullptr) return nullptr;
    return std::make_unique<BpaDump>(bpa_of(node, ifindex));
}

std::optional<std::string> IpStatModule::restore(Context& ctx) {
    std::string bad;
    const bool settings_ok = ctx.store.each(kSettingsTable, [&](std::span<const std::uint8_t> key,
                                                                const std::vector<std::uint8_t>* value) {
        const auto node = decode_settings_key(key);
        const auto s = value != nullptr ? decode_settings(*value) : std::nullopt;
        if (!node || !s || ctx.device.node(*node) == nullptr) return bad = "an IP settings row that does not fit", false;
        settings_[*node] = *s;
        return true;
    });
    const bool mtu_ok = settings_ok && ctx.store.each(kMtuTable, [&](std::span<const std::uint8_t> key,
                                                                      const std::vector<std::uint8_t>* value) {
        const auto ifindex = decode_mtu_key(key);
        const auto m = value != nullptr ? decode_mtu(*value) : std::nullopt;
        if (!ifindex || !m || ctx.device.interface(*ifindex) == nullptr) return bad = "an MTU row that does not fit", false;
        mtu_[*ifindex] = *m;
        return true;
    });
    if (!settings_ok || !mtu_ok) return bad.empty() ? std::string("the IP settings are unreadable") : bad;
    return std::nullopt;
}

void IpStatModule::attach(Context& ctx) {

    // The counters of a node (and of an interface on it) as the control channel shows them.
    auto show = [this, &ctx](std::uint16_t node, std::optional<std::uint32_t> ifindex) {
        const NodeCounters nc = ip_.count(node) != 0 ? ip_.at(node) : NodeCounters{};
        IpCounters shown{};
        for (std::size_t i = 0; i < kIpCounters; ++i) shown[i] = nc.total[i] - nc.at_reset[i];
        json out{{"node", node},
                 {"up", ctx.device.node_up(node)},
                 {"ip", named(kIpNames, nc.total)},
                 {"ip_shown", named(kIpNames, shown)},
                 {"settings", settings_json(settings(node))}};
        if (!ifindex) return out;
        const NodeIf key{node, *ifindex};
        const FwState fw = fw_.count(key) != 0 ? fw_.at(key) : FwState{};
        out["interface"] = *ifindex;
        out["name"] = ctx.device.interface(*ifindex)->name;
        out["mtu"] = mtu(ctx, *ifindex);
        out["fw"] = named(kFwNames, fw.counters);
        out["fw_cleared"] = fw.cleared_at == ~std::uint64_t{0} ? json(nullptr) : json(fw.cleared_at);
        out["mib"] = named(kMibNames, mib_.count(key) != 0 ? mib_.at(key) : MibCounters{});
        out["icmp"] = named(kIcmpNames, icmp_.count(*ifindex) != 0 ? icmp_.at(*ifindex) : IcmpCounters{});
        json bpa = json::array();
        const BpaRecords records = bpa_of(node, *ifindex);
        for (std::size_t r = 0; r < kBpaRecords; ++r) {
            if (records[r] == BpaRecord{}) continue;
            json rec = named(kBpaNames, records[r]);
            rec["index"] = r + 1;
            bpa.push_back(std::move(rec));
        }
        out["bpa"] = std::move(bpa);
        return out;
    };
    // The node a request names: "node" (a node of the device), else the interface's owner,
    // else the master.
    auto node_arg = [&ctx](const json& req, std::optional<std::uint32_t> ifindex) {
        if (const auto node = arg::node_if(ctx, req)) return *node;
        if (ifindex) return ctx.device.interface(*ifindex)->node;
        return ctx.device.master();
    };
    // "node", else every node of the device.
    auto nodes_arg = [&ctx](const json& req) {
        std::vector<std::uint16_t> nodes;
        if (const auto node = arg::node_if(ctx, req)) {
            nodes.push_back(*node);
        } else {
            for (const auto& [number, state] : ctx.device.nodes()) nodes.push_back(number);
        }
        return nodes;
    };

    // Ranges of the operations' values (each also where it is read):
    //   ipstat.traffic: "node" 1-32767 and a node of the device; "interface" an index
    //     (1-4294967295) or name of the device's; the packet counts and the counts of "ip",
    //     "mib", "fw", "icmp" and "bpa" 0-18446744073709551615; "size" 1-65535 bytes;
    //     "icmp_type" a name or 0-255; a "bpa" record's "index" 1-64;
    //   ipstat.show, ipstat.reset: "node", "interface" as above;
    //   ipstat.set: "ttl" 1-255, "ecmp_paths" 1-64, "ecmp_mode" 0-2, "load_sharing" 0-1,
    //     "hash_fields" 0-31, "hash_seed" 0-4294967295, "mtu" 0-65535; "forwarding",
    //     "directed_broadcast", "local_first" true or false.
    ctx.control.on("ipstat.traffic", [this, &ctx, show, node_arg](const json& req) {
        arg::only_keys(req, {"node", "interface", "in", "out", "forwarded", "no_route", "ttl_exceeded", "dropped",
                             "bad_header", "icmp_in", "icmp_out", "icmp_type", "size", "ip", "mib", "fw", "icmp",
                             "bpa"});
        const std::optional<std::uint32_t> ifindex = arg::interface_if(ctx, req);
        const std::uint16_t node = node_arg(req, ifindex);
        if (!ctx.device.node_up(node)) throw std::invalid_argument("node " + std::to_string(node) + " is down");
        // Everything is read first: a refused request changes nothing.
        Traffic t;
        auto packets = [&req](const char* key, std::uint64_t& field) {
            field = arg::whole<std::uint64_t, 0, kCountMost>(req, key, 0);
        };
        packets("in", t.in);
        packets("out", t.out);
        packets("forwarded", t.forwarded);
        packets("no_route", t.no_route);
        packets("ttl_exceeded", t.ttl_exceeded);
        packets("dropped", t.dropped);
        packets("bad_header", t.bad_header);
        packets("icmp_in", t.icmp_in);
        packets("icmp_out", t.icmp_out);
        t.size = arg::whole<std::uint64_t, 1, 65535>(req, "size", t.size);
        if (const json* v = arg::find(req, "icmp_type")) {
            if (v->is_string()) {
                const auto type = icmp_type_named(v->get_ref<const std::string&>());
                if (!type) {
                    throw std::invalid_argument("\"icmp_type\" must be the name of an ICMP type or a number from 0 "
                                                "to 255, got " + arg::shown(*v));
                }
                t.icmp_type = *type;
            } else {
                t.icmp_type = static_cast<std::uint8_t>(arg::whole_value(*v, "\"icmp_type\"", 0, 255));
            }
        }
        using Counts = std::vector<std::pair<std::size_t, std::uint64_t>>;
        const Counts ip_raw = raw_counts(req, "ip", kIpNames);
        const Counts mib_raw = raw_counts(req, "mib", kMibNames);
        const Counts fw_raw = raw_counts(req, "fw", kFwNames);
        const Counts icmp_raw = raw_counts(req, "icmp", kIcmpNames);
        std::vector<BpaCount> bpa;
        if (const json* list = arg::find(req, "bpa")) {
            if (!list->is_array()) {
                throw std::invalid_argument("\"bpa\" must be a list of records, got " + arg::shown(*list));
            }
            for (std::size_t i = 0; i < list->size(); ++i) {
                const json& rec = (*list)[i];
                const std::string at = "\"bpa\"[" + std::to_string(i) + "]";
                if (!rec.is_object()) throw std::invalid_argument(at + " must be an object, got " + arg::shown(rec));
                BpaCount c;
                const json* index = arg::find(rec, "index");
                if (index == nullptr) throw std::invalid_argument(at + ".\"index\" is missing");
                c.record = static_cast<std::size_t>(arg::whole_value(*index, at + ".\"index\"", 1, kBpaRecords)) - 1;
                for (const auto& [key, v] : rec.items()) {
                    if (key == "index") continue;
                    const auto counter = index_of(kBpaNames, key);
                    if (!counter) throw std::invalid_argument(at + " has no counter named " + arg::label(key));
                    const std::uint64_t n = arg::whole_value(v, at + "." + arg::label(key), 0, kCountMost);
                    if (*counter == kBpaCounters - 1) {
                        c.stamp = n;
                    } else {
                        c.add[*counter] = n;
                    }
                }
                bpa.push_back(c);
            }
        }
        const bool per_interface = t.icmp_in != 0 || t.icmp_out != 0 || req.contains("icmp") || req.contains("mib") ||
                                   req.contains("fw") || req.contains("bpa");
        if (per_interface && !ifindex) throw std::invalid_argument("\"interface\": these counters are an interface's");

        Counted c{&ip_[node].total, nullptr, nullptr, nullptr};
        if (ifindex) {
            c.mib = &mib_[{node, *ifindex}];
            c.fw = &fw_[{node, *ifindex}].counters;
            c.icmp = &icmp_[*ifindex];
        }
        count(t, settings(node).forwarding, c);
        add_raw(*c.ip, ip_raw);
        if (ifindex) {
            add_raw(*c.mib, mib_raw);
            add_raw(*c.fw, fw_raw);
            add_raw(*c.icmp, icmp_raw);
            if (!bpa.empty()) {
                BpaRecords& records = bpa_[{node, *ifindex}];
                for (const BpaCount& b : bpa) {
                    BpaRecord& rec = records[b.record];
                    for (std::size_t k = 0; k + 1 < kBpaCounters; ++k) rec[k] += b.add[k];
                    rec[kBpaCounters - 1] = b.stamp ? *b.stamp : ctx.uptime();
                }
            }
        }
        return show(node, ifindex);
    });

    ctx.control.on("ipstat.show", [&ctx, show, node_arg](const json& req) {
        arg::only_keys(req, {"node", "interface"});
        const std::optional<std::uint32_t> ifindex = arg::interface_if(ctx, req);
        return show(node_arg(req, ifindex), ifindex);
    });

    ctx.control.on("ipstat.reset", [this, nodes_arg](const json& req) {
        arg::only_keys(req, {"node"});
        const std::vector<std::uint16_t> nodes = nodes_arg(req);
        for (const std::uint16_t n : nodes) ip_[n].at_reset = ip_[n].total;
        return json{{"nodes", nodes}};
    });

    ctx.control.on("ipstat.set", [this, &ctx, nodes_arg](const json& req) {
        arg::only_keys(req, {"node", "ttl", "forwarding", "directed_broadcast", "ecmp_paths", "ecmp_mode",
                             "load_sharing", "hash_fields", "hash_seed", "local_first", "interface", "mtu"});
        const std::vector<std::uint16_t> nodes = nodes_arg(req);
        // The request's changes, read once; each node's settings with them.
        const auto ttl = arg::whole_if<std::uint32_t, 1, 255>(req, "ttl");
        const auto ecmp_paths = arg::whole_if<std::uint32_t, 1, kEcmpBound>(req, "ecmp_paths");
        const auto ecmp_mode = arg::whole_if<std::uint32_t, 0, kEcmpModeMax>(req, "ecmp_mode");
        const auto load_sharing = arg::whole_if<std::uint32_t, 0, kLoadSharingMax>(req, "load_sharing");
        const auto hash_fields = arg::whole_if<std::uint32_t, 0, kHashFieldsAll>(req, "hash_fields");
        const auto hash_seed = arg::whole_if<std::uint32_t, 0, 0xFFFFFFFF>(req, "hash_seed");
        const auto forwarding = arg::flag_if(req, "forwarding");
        const auto directed_broadcast = arg::flag_if(req, "directed_broadcast");
        const auto local_first = arg::flag_if(req, "local_first");
        auto changed = [&](Settings s) {
            s.ttl = ttl.value_or(s.ttl);
            s.ecmp_paths = ecmp_paths.value_or(s.ecmp_paths);
            s.ecmp_mode = ecmp_mode.value_or(s.ecmp_mode);
            s.load_sharing = load_sharing.value_or(s.load_sharing);
            s.hash_fields = hash_fields.value_or(s.hash_fields);
            s.hash_seed = hash_seed.value_or(s.hash_seed);
            s.forwarding = forwarding.value_or(s.forwarding);
            s.directed_broadcast = directed_broadcast.value_or(s.directed_broadcast);
            s.local_first = local_first.value_or(s.local_first);
            return s;
        };
        if (req.contains("mtu") != req.contains("interface")) {
            throw std::invalid_argument("\"mtu\" and \"interface\" go together");
        }
        const std::optional<std::uint32_t> ifindex = arg::interface_if(ctx, req);
        const std::optional<std::uint32_t> new_mtu = arg::whole_if<std::uint32_t, 0, 0xFFFF>(req, "mtu");
        const bool changes_node = ttl || ecmp_paths || ecmp_mode || load_sharing || hash_fields || hash_seed ||
                                  forwarding || directed_broadcast || local_first;
        json out{{"nodes", json::array()}};
        for (const std::uint16_t n : nodes) {
            const Settings s = changed(settings(n));
            if (changes_node) set_settings(ctx, n, s);
            json one = settings_json(s);
            one["node"] = n;
            out["nodes"].push_back(std::move(one));
        }
        if (ifindex) {
            set_mtu(ctx, *ifindex, *new_mtu);
            out["interface"] = *ifindex;
            out["mtu"] = *new_mtu;
        }
        return out;
    });
}

namespace {
constexpr KernelDump kIpStatDumps[] = {
    {IpStatModule::kBpaDumpRequest,
     [](Context& ctx, std::uint16_t node, std::span<const std::uint8_t> request) { return ctx.ipstat.dump(ctx, node, request); }},
};
}  // namespace

// The module's table: its command, the dump of the BPA statistics, its control operations
// and the settings it keeps.
const KernelModuleOps kIpStatModuleOps{
    .name = "ipstat",
    .serves = [](std::uint32_t command) { return command == IpStatModule::kCommand; },
    .handle = [](Context& ctx, const KernelCall& call) {
        return ctx.ipstat.handle(ctx, call.node, call.request, call.reply, call.returned);
    },
    .dumps = kIpStatDumps,
    .controls = [](Context& ctx) { ctx.ipstat.attach(ctx); },
    .restore = [](Context& ctx) { return ctx.ipstat.restore(ctx); },
};

}  // namespace sim
