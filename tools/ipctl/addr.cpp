// ipctl addr: the IPv4 addresses of the interfaces.
//
//   ipctl addr show [dev IF]
//   ipctl addr add ADDR/LEN dev IF [secondary]
//   ipctl addr del ADDR/LEN dev IF [secondary]
//   ipctl addr summary
//
// show walks the address module in interface order (IPAddr_GetFirstAddr/GetNextAddr over
// every interface, or one); add and del go to the address configuration service as manual
// addresses (IPCfg_AddManualAddr/DelManualAddr; "secondary" marks a sub address); summary
// prints the device's IP summary text (IPAddr_GetIpSummary) as it stands.
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "inet.hpp"
#include "ipclient/ipaddr.h"
#include "ipclient/ipcfg.h"
#include "ipctl.hpp"

namespace ipctl {

namespace {

// The address module's flag of a sub (secondary) address.
constexpr std::uint32_t kFlagSub = 0x1;

std::string method_name(std::uint32_t method) {
    switch (method) {
        case IPADDR_METHOD_MANUAL: return "manual";
        case IPADDR_METHOD_DHCP: return "dhcp";
        case IPADDR_METHOD_BOOTP: return "bootp";
        case IPADDR_METHOD_MAD: return "mad";
        default: {
            char buf[16];
            std::snprintf(buf, sizeof buf, "0x%x", method);
            return buf;
        }
    }
}

// Why an address cannot be an interface's: a multicast, broadcast, loopback or unspecified
// address, or the network's own broadcast; null for one that can.
const char* not_unicast(std::uint32_t addr, unsigned len) {
    const std::uint8_t first = inet4_byte(addr, 0);
    if (first >= 224 && first <= 239) return "is a multicast address";
    if (first >= 240) return addr == 0xFFFFFFFFu ? "is the broadcast address" : "is a reserved address";
    if (first == 0) return "is not a host address";
    if (first == 127) return "is a loopback address";
    const std::uint32_t host = ~length_mask(len);
    if (len < 31 && (addr & host) == host) return "is the broadcast address of its network";
    return nullptr;
}

// True when the interface holds the address with this mask.
bool holds(std::uint32_t ifindex, std::uint32_t addr, std::uint32_t mask) {
    IPAddrEntry e{};
    for (std::uint32_t rc = IPAddr_GetFirstAddr(ifindex, 0, &e), n = 0; rc == 0 && n < 100'000;
         rc = IPAddr_GetNextAddr(ifindex, 0, &e), ++n) {
        if (e.stKey.uiIfIndex == ifindex && e.stKey.uiAddr == addr && e.stKey.uiMask == mask) return true;
    }
    return false;
}

// One line an interface, as ip -br addr: its name, state and addresses; every interface of
// the directory, those without an address too.
void addr_brief(Context& ctx, std::optional<std::uint32_t> only) {
    std::map<std::uint32_t, std::vector<IPAddrEntry>> by_if;
    IPAddrEntry e{};
    const std::uint32_t ifindex = only ? *only : IPADDR_ANY_IFINDEX;
    std::uint32_t seen = 0;
    for (std::uint32_t rc = IPAddr_GetFirstAddr(ifindex, 0, &e); rc == 0 && ++seen <= 10'000'000;
         rc = IPAddr_GetNextAddr(ifindex, 0, &e)) {
        by_if[e.stKey.uiIfIndex].push_back(e);
    }
    const std::vector<std::uint32_t> all = only ? std::vector<std::uint32_t>{*only} : directory_interfaces();
    for (const std::uint32_t i : all) {
        const std::string name = interface_name(i);
        const bool up = interface_up(i);
        Json info = Json::array();
        std::string text;
        for (const IPAddrEntry& a : by_if[i]) {
            const unsigned len = mask_length(a.stKey.uiMask);
            const std::string local = inet4_text(a.stKey.uiAddr);
            info.push_back(Json{{"local", local}, {"prefixlen", len}});
            text += (text.empty() ? "" : " ") + local + "/" + std::to_string(len);
        }
        Record r;
        r.add("ifname", name, name).paint(Record::Paint::kIfname);
        r.add("operstate", up ? "UP" : "DOWN", up ? "UP" : "DOWN").paint(up ? Record::Paint::kUp : Record::Paint::kDown);
        r.add("addr_info", std::move(info), text).paint(Record::Paint::kInet);
        ctx.out->row(std::move(r));
    }
    ctx.out->flush();
}

void addr_show(Context& ctx, const CLI::App& verb, Words words) {
    std::optional<std::string> dev;
    while (!words.done()) {
        if (words.next() == "dev") words.value_of("dev", &dev);
        else words.unexpected();
    }
    require_device();
    const std::uint32_t ifindex = dev ? interface_index(verb, *dev) : IPADDR_ANY_IFINDEX;
    if (ctx.brief) return addr_brief(ctx, dev ? std::optional<std::uint32_t>(ifindex) : std::nullopt);
    IPAddrEntry e{};
    std::uint32_t seen = 0;
    for (std::uint32_t rc = IPAddr_GetFirstAddr(ifindex, 0, &e); rc == 0; rc = IPAddr_GetNextAddr(ifindex, 0, &e)) {
        ctx.out->row(addr_record(e));
        if (++seen > 10'000'000) break;  // a module that never ends its walk
    }
    ctx.out->flush();
}

void addr_change(const CLI::App& verb, Words words, bool add) {
    const std::string text = words.next();
    const auto prefix = parse_prefix4(text);
    if (!prefix) usage_error(verb, "\"" + text + "\" is not an IPv4 address with a prefix length");
    std::optional<std::string> dev;
    bool secondary = false;
    while (!words.done()) {
        const std::string w = words.next();
        if (w == "dev") {
            words.value_of("dev", &dev);
        } else if (w == "secondary") {
            if (secondary) usage_error(verb, "\"secondary\" is given twice");
            secondary = true;
        } else {
            words.unexpected();
        }
    }
    if (!dev) usage_error(verb, "\"dev IF\" is required");
    if (add) {
        if (const char* why = not_unicast(prefix->addr, prefix->len)) usage_error(verb, "\"" + text + "\" " + why);
    }
    const std::uint32_t ifindex = interface_index(verb, *dev);
    const std::uint32_t mask = length_mask(prefix->len);
    const std::uint32_t fourth = secondary ? kFlagSub : 0;
    if (!add && !holds(ifindex, prefix->addr, mask)) {
        failure("no address " + text + " on " + interface_name(ifindex));
    }
    const std::uint32_t rc = add ? IPCfg_AddManualAddr(ifindex, prefix->addr, mask, fourth)
                                 : IPCfg_DelManualAddr(ifindex, prefix->addr, mask, fourth);
    if (rc != 0) status_error((add ? "adding " : "deleting ") + text + " on " + *dev, rc);
}

void addr_summary(Context& ctx, Words words) {
    words.expect_end();
    require_device();
    char buf[4096] = {};
    const std::uint32_t rc = IPAddr_GetIpSummary(sizeof buf, buf);
    if (rc != 0) status_error("reading the IP summary", rc);
    ctx.out->text("summary", buf);
}

}  // namespace

Record addr_record(const IPAddrEntry& e) {
    const IPAddrKey& k = e.stKey;
    const unsigned len = mask_length(k.uiMask);
    const std::string local = inet4_text(k.uiAddr);
    const bool secondary = (e.uiFlag & kFlagSub) != 0;
    Record r;
    r.add("ifindex", k.uiIfIndex, std::to_string(k.uiIfIndex) + ":")
        .add("ifname", interface_name(k.uiIfIndex), interface_name(k.uiIfIndex))
        .paint(Record::Paint::kIfname)
        .json_only("family", "inet")
        .add("local", local, local + "/" + std::to_string(len), "inet")
        .paint(Record::Paint::kInet)
        .json_only("prefixlen", len)
        .add("vrf", k.usVrfIndex, std::to_string(k.usVrfIndex), "vrf")
        .add("method", method_name(k.uiMethod), method_name(k.uiMethod))
        .add("secondary", secondary, secondary ? "secondary" : "primary");
    return r;
}

void add_addr(CLI::App& app, Context& ctx) {
    CLI::App* object = add_object(app, "addr", "IPv4 addresses", "addr { show | add | del | summary } ...");
    add_verb(object, "show", "the addresses of every interface, or of one", "addr show [dev IF]", ctx,
             [&ctx](const CLI::App& verb, Words w) { addr_show(ctx, verb, std::move(w)); });
    add_verb(object, "add", "adds a manual address", "addr add ADDR/LEN dev IF [secondary]", ctx,
             [](const CLI::App& verb, Words w) { addr_change(verb, std::move(w), true); });
    add_verb(object, "del", "deletes a manual address", "addr del ADDR/LEN dev IF [secondary]", ctx,
             [](const CLI::App& verb, Words w) { addr_change(verb, std::move(w), false); });
    add_verb(object, "summary", "the device's IP summary", "addr summary", ctx,
             [&ctx](const CLI::App&, Words w) { addr_summary(ctx, std::move(w)); });
}

}  // namespace ipctl
