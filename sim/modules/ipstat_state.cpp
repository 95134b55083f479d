#include "modules/ipstat_state.hpp"

#include "ipproto/wire.hpp"

namespace sim::ipstat {

namespace {

using ipc::wire::Reader;
using ipc::wire::Writer;

// IP counters.
enum : std::size_t {
    kInReceived = 0, kInDelivered = 1, kInBadHeader = 3, kInAddressErrors = 6, kInDiscards = 7,
    kForwarded = 8, kOutLocal = 9, kOutNoRoute = 11, kTtlExceeded = 12,
};
// MIB counters.
enum : std::size_t {
    kMibInReceives = 0, kMibInOctets = 1, kMibInHdrErrors = 2, kMibInNoRoutes = 3, kMibInDelivers = 4,
    kMibInAddrErrors = 5, kMibInForwDatagrams = 8, kMibInDiscards = 12, kMibOutRequests = 13,
    kMibOutTransmits = 17, kMibOutOctets = 18,
};
// Forwarding counters.
enum : std::size_t {
    kFwInPackets = 0, kFwInOctets = 1, kFwForwardedPackets = 2, kFwForwardedOctets = 3, kFwDroppedPackets = 4,
    kFwDroppedOctets = 5, kFwNoRoute = 6, kFwTtlExceeded = 7,
};
// ICMP counters: messages in and out, and the first of each run of 15 counters by type.
constexpr std::size_t kIcmpInMsgs = 0, kIcmpInByType = 4, kIcmpInUnknown = 19, kIcmpOutMsgs = 21,
                      kIcmpOutByType = 23;
// The message types of the counters by type, in their order.
constexpr std::array<std::uint8_t, 15> kIcmpTypes = {3, 11, 12, 4, 5, 8, 0, 13, 14, 17, 18, 15, 16, 9, 10};

constexpr std::uint16_t kFlagForwarding = 1, kFlagDirectedBroadcast = 2, kFlagLocalFirst = 4;
constexpr std::size_t kSettingsLen = 28;

std::optional<std::size_t> icmp_slot(std::uint8_t type) {
    for (std::size_t i = 0; i < kIcmpTypes.size(); ++i) {
        if (kIcmpTypes[i] == type) return i;
    }
    return std::nullopt;
}

template <class U>
void add(U& counter, std::uint64_t n) {
    counter = static_cast<U>(counter + static_cast<U>(n));  // kernel counters wrap
}

}  // namespace

std::optional<std::uint8_t> icmp_type_named(std::string_view name) {
    for (std::size_t i = 0; i < kIcmpTypes.size(); ++i) {
        if (kIcmpNames[kIcmpInByType + i].substr(3) == name) return kIcmpTypes[i];
    }
    return std::nullopt;
}

std::vector<std::uint8_t> settings_key(std::uint16_t node) {
    std::vector<std::uint8_t> out(2);
    Writer(out).be(node);
    return out;
}

std::optional<std::uint16_t> decode_settings_key(std::span<const std::uint8_t> key) {
    if (key.size() != 2) return std::nullopt;
    return ipc::wire::load_be<std::uint16_t>(key.data());
}

std::vector<std::uint8_t> encode_settings(const Settings& s) {
    std::vector<std::uint8_t> out(kSettingsLen);
    const auto flags = static_cast<std::uint16_t>((s.forwarding ? kFlagForwarding : 0) |
                                                  (s.directed_broadcast ? kFlagDirectedBroadcast : 0) |
                                                  (s.local_first ? kFlagLocalFirst : 0));
    Writer(out).be(s.ttl).be(flags).zeros(2).be(s.ecmp_paths).be(s.ecmp_mode).be(s.load_sharing).be(s.hash_fields).be(
        s.hash_seed);
    return out;
}

std::optional<Settings> decode_settings(std::span<const std::uint8_t> value) {
    if (value.size() != kSettingsLen) return std::nullopt;
    Reader r(value.data(), value.size());
    Settings s;
    s.ttl = r.be<std::uint32_t>();
    const auto flags = r.be<std::uint16_t>();
    (void)r.be<std::uint16_t>();
    s.ecmp_paths = r.be<std::uint32_t>();
    s.ecmp_mode = r.be<std::uint32_t>();
    s.load_sharing = r.be<std::uint32_t>();
    s.hash_fields = r.be<std::uint32_t>();
    s.hash_seed = r.be<std::uint32_t>();
    s.forwarding = (flags & kFlagForwarding) != 0;
    s.directed_broadcast = (flags & kFlagDirectedBroadcast) != 0;
    s.local_first = (flags & kFlagLocalFirst) != 0;
    const bool in_range = r.ok() && s.ttl >= 1 && s.ttl <= 255 && s.ecmp_paths >= 1 && s.ecmp_paths <= kEcmpBound &&
                          s.ecmp_mode <= kEcmpModeMax && s.load_sharing <= kLoadSharingMax &&
                          s.hash_fields <= kHashFieldsAll &&
                          (flags & ~(kFlagForwarding | kFlagDirectedBroadcast | kFlagLocalFirst)) == 0;
    if (!in_range) return std::nullopt;
    return s;
}

std::vector<std::uint8_t> mtu_key(std::uint32_t ifindex) {
    std::vector<std::uint8_t> out(4);
    Writer(out).be(ifindex);
    return out;
}

std::optional<std::uint32_t> decode_mtu_key(std::span<const std::uint8_t> key) {
    if (key.size() != 4) return std::nullopt;
    return ipc::wire::load_be<std::uint32_t>(key.data());
}

std::vector<std::uint8_t> encode_mtu(std::uint32_t mtu) {
    std::vector<std::uint8_t> out(4);
    Writer(out).be(mtu);
    return out;
}

std::optional<std::uint32_t> decode_mtu(std::span<const std::uint8_t> value) {
    if (value.size() != 4) return std::nullopt;
    const auto mtu = ipc::wire::load_be<std::uint32_t>(value.data());
    if (mtu > 0xFFFF) return std::nullopt;
    return mtu;
}

void count(const Traffic& t, bool forwarding, const Counted& c) {
    IpCounters& ip = *c.ip;
    const auto octets = [&t](std::uint64_t packets) { return packets * t.size; };
    // Every packet received reaches the IP layer of the node and of the interface.
    const std::uint64_t received = t.in + t.forwarded + t.no_route + t.ttl_exceeded + t.dropped + t.bad_header + t.icmp_in;
    add(ip[kInReceived], received);
    add(ip[kInDelivered], t.in + t.icmp_in);
    add(ip[kOutLocal], t.out + t.icmp_out);
    add(ip[forwarding ? kForwarded : kInAddressErrors], t.forwarded);
    add(ip[kOutNoRoute], t.no_route);
    add(ip[kTtlExceeded], t.ttl_exceeded);
    add(ip[kInDiscards], t.dropped);
    add(ip[kInBadHeader], t.bad_header);
    if (c.mib != nullptr) {
        MibCounters& m = *c.mib;
        add(m[kMibInReceives], received);
        add(m[kMibInOctets], octets(received));
        add(m[kMibInDelivers], t.in + t.icmp_in);
        add(m[forwarding ? kMibInForwDatagrams : kMibInAddrErrors], t.forwarded);
        add(m[kMibInNoRoutes], t.no_route);
        add(m[kMibInHdrErrors], t.ttl_exceeded + t.bad_header);
        add(m[kMibInDiscards], t.dropped);
        add(m[kMibOutRequests], t.out + t.icmp_out);
        add(m[kMibOutTransmits], t.out + t.icmp_out);
        add(m[kMibOutOctets], octets(t.out + t.icmp_out));
    }
    if (c.fw != nullptr) {
        FwCounters& f = *c.fw;
        const std::uint64_t to_forward = t.forwarded + t.no_route + t.ttl_exceeded;
        add(f[kFwInPackets], to_forward);
        add(f[kFwInOctets], octets(to_forward));
        add(f[forwarding ? kFwForwardedPackets : kFwDroppedPackets], t.forwarded);
        add(f[forwarding ? kFwForwardedOctets : kFwDroppedOctets], octets(t.forwarded));
        add(f[kFwNoRoute], t.no_route);
        add(f[kFwTtlExceeded], t.ttl_exceeded);
    }
    if (c.icmp != nullptr) {
        IcmpCounters& i = *c.icmp;
        const auto slot = icmp_slot(t.icmp_type);
        add(i[kIcmpInMsgs], t.icmp_in);
        add(i[slot ? kIcmpInByType + *slot : kIcmpInUnknown], t.icmp_in);
        add(i[kIcmpOutMsgs], t.icmp_out);
        if (slot) add(i[kIcmpOutByType + *slot], t.icmp_out);
    }
}

}  // namespace sim::ipstat
