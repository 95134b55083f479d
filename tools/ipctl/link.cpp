// ipctl link: the interfaces of the device's directory, with or without an address.
//
//   ipctl link show [dev IF]
//
// show walks the directory in index order (IF_IteratorInitialize and
// IF_GetFirstIfIndexByIfSelect/GetNextIfIndexByIfSelect with an empty selection: every type)
// and prints each interface's index, name, type (IF_GetDataByIfIndex items 11 and 18), node
// and its location (item 9, LIP_GetChassID/SlotID/CpuID), state (up while its node is up,
// IF_IsNodeUp; an interface that spans nodes is up while any of them is), MTU (IP_GetIfMTU,
// none when the IP module does not answer) and whether it spans nodes (item 23) or is a
// layer-2 interface (IF_IsL2If); where the device tells them, its MAC, VRF and link state
// (items IF_DATA_MAC, IF_DATA_VRF, IF_DATA_LINK_STATE): the state is UP while the link is up
// and its node is. -s adds the interface's counters (IP_GetMibIfStat) as ip -s does.
#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "inet.hpp"
#include "ipclient/ipstat.h"
#include "ipctl.hpp"
#include "ipplat/platform.h"
#include "ipproto/if_types.hpp"
#include "ipproto/kmod_ipstat.hpp"

namespace ipctl {

namespace {

struct IteratorDeleter {
    void operator()(void* it) const noexcept { IF_IteratorFinalize(it); }
};

std::string type_name(std::uint32_t code) {
    const std::string_view name = ipc::if_types::name_of(code);
    return name.empty() ? "type-" + std::to_string(code) : std::string(name);
}

// True when any node of the device is up (an interface that spans nodes lives on all).
bool any_node_up() {
    std::uint32_t count = 0;
    std::uint16_t* nodes = DEV_GetAllNodes(&count);
    bool up = false;
    for (std::uint32_t i = 0; nodes != nullptr && i < count && !up; ++i) up = (IF_IsNodeUp(nodes[i]) & 0xFFFFu) == 1;
    std::free(nodes);
    return up;
}

bool spans_nodes(std::uint32_t ifindex) {
    std::uint32_t flags = 0;
    return IF_GetDataByIfIndex(ifindex, IF_DATA_FLAGS, &flags) == 0 && (flags & IF_FLAG_SPANS_NODES) != 0;
}

// The flags as ip writes them: the state, then what sets the interface apart.
std::string flags_text(bool up, bool spans, bool l2) {
    std::string out = up ? "<UP" : "<DOWN";
    if (spans) out += ",SPANS-NODES";
    if (l2) out += ",L2";
    return out + ">";
}

// The link's state: its own (a device that tells it) while its node is up.
bool link_up(std::uint32_t ifindex) {
    std::uint32_t state = 1;
    if (IF_GetDataByIfIndex(ifindex, IF_DATA_LINK_STATE, &state) != 0) state = 1;
    return state == 1 && interface_up(ifindex);
}

Record link_brief(std::uint32_t ifindex) {
    const std::string name = interface_name(ifindex);
    const bool up = link_up(ifindex);
    const bool spans = spans_nodes(ifindex);
    const bool l2 = IF_IsL2If(ifindex) == 1;
    Json flags = Json::array();
    if (spans) flags.push_back("SPANS-NODES");
    if (l2) flags.push_back("L2");
    Record r;
    r.add("ifname", name, name).paint(Record::Paint::kIfname);
    r.add("operstate", up ? "UP" : "DOWN", up ? "UP" : "DOWN").paint(up ? Record::Paint::kUp : Record::Paint::kDown);
    r.add("flags", std::move(flags), flags_text(up, spans, l2));
    return r;
}

// The interface's counters (IP_GetMibIfStat) as ip -s writes a link's: received and sent
// packets, bytes and drops.
void add_stats(Record& r, std::uint32_t ifindex) {
    namespace ipstat = ipc::proto::ipstat;
    std::uint64_t mib[IP_MIBIF_COUNTERS] = {};
    if (IP_GetMibIfStat(ifindex, mib) != 0) return;
    const auto at = [&mib](std::string_view name) {
        const auto it = std::find(ipstat::kMibNames.begin(), ipstat::kMibNames.end(), name);
        return it == ipstat::kMibNames.end() ? std::uint64_t{0} : mib[it - ipstat::kMibNames.begin()];
    };
    const std::uint64_t rx_packets = at("in_receives"), rx_bytes = at("in_octets"), rx_dropped = at("in_discards");
    const std::uint64_t tx_packets = at("out_transmits"), tx_bytes = at("out_octets"), tx_dropped = at("out_discards");
    Json stats = {{"rx", {{"bytes", rx_bytes}, {"packets", rx_packets}, {"dropped", rx_dropped}}},
                  {"tx", {{"bytes", tx_bytes}, {"packets", tx_packets}, {"dropped", tx_dropped}}}};
    const std::string text = "RX " + std::to_string(rx_packets) + " packets " + std::to_string(rx_bytes) + " bytes " +
                             std::to_string(rx_dropped) + " dropped  TX " + std::to_string(tx_packets) + " packets " +
                             std::to_string(tx_bytes) + " bytes " + std::to_string(tx_dropped) + " dropped";
    r.add("stats64", std::move(stats), text);
}

Record link_record(std::uint32_t ifindex, bool stats) {
    const std::string name = interface_name(ifindex);
    std::uint32_t type = 0;
    std::uint16_t node = 0;
    (void)IF_GetDataByIfIndex(ifindex, IF_DATA_TYPE, &type);
    (void)IF_GetDataByIfIndex(ifindex, IF_DATA_NODE, &node);
    const bool spans = spans_nodes(ifindex);
    const bool up = link_up(ifindex);
    const bool l2 = IF_IsL2If(ifindex) == 1;
    std::uint8_t mac[6] = {};
    const bool has_mac = IF_GetDataByIfIndex(ifindex, IF_DATA_MAC, mac) == 0;
    std::uint16_t vrf = 0;
    const bool has_vrf = IF_GetDataByIfIndex(ifindex, IF_DATA_VRF, &vrf) == 0;
    const unsigned chassis = LIP_GetChassID(node), slot = LIP_GetSlotID(node), cpu = LIP_GetCpuID(node);
    std::uint32_t mtu = 0;
    const bool has_mtu = IP_GetIfMTU(ifindex, &mtu) == 0;
    const std::string state = up ? "UP" : "DOWN";
    Record r;
    r.add("ifindex", ifindex, std::to_string(ifindex) + ":")
        .add("ifname", name, name)
        .paint(Record::Paint::kIfname)
        .text_only("", flags_text(up, spans, l2))
        .json_only("operstate", state)
        .json_only("spans_nodes", spans)
        .json_only("l2", l2);
    if (has_mtu) {
        r.add("mtu", mtu, std::to_string(mtu), "mtu");
    } else {
        r.add("mtu", nullptr, "-", "mtu");
    }
    if (has_mac) r.add("address", mac_text(mac), mac_text(mac), "link/ether").paint(Record::Paint::kMac);
    if (has_vrf) r.add("vrf", vrf, std::to_string(vrf), "vrf");
    r.add("link_type", type_name(type), type_name(type), "type")
        .json_only("type_code", type)
        .add("node", node,
             std::to_string(node) + " (" + std::to_string(chassis) + "/" + std::to_string(slot) + "/" +
                 std::to_string(cpu) + ")",
             "node")
        .json_only("chassis", chassis)
        .json_only("slot", slot)
        .json_only("cpu", cpu);
    if (stats) add_stats(r, ifindex);
    return r;
}

void link_show(Context& ctx, const CLI::App& verb, Words words) {
    std::optional<std::string> dev;
    while (!words.done()) {
        if (words.next() == "dev") words.value_of("dev", &dev);
        else words.unexpected();
    }
    require_device();
    const auto one = [&ctx](std::uint32_t ifindex) { return ctx.brief ? link_brief(ifindex) : link_record(ifindex, ctx.stats); };
    if (dev) {
        ctx.out->row(one(interface_index(verb, *dev)));
    } else {
        for (const std::uint32_t ifindex : directory_interfaces()) ctx.out->row(one(ifindex));
    }
    ctx.out->flush();
}

}  // namespace

std::vector<std::uint32_t> directory_interfaces() {
    std::vector<std::uint32_t> out;
    IF_SELECT_S every{};
    if (IF_Select_Init(0, &every) != 0) failure("cannot select the device's interfaces");
    const std::unique_ptr<void, IteratorDeleter> it(IF_IteratorInitialize());
    if (!it) failure("cannot walk the device's interfaces");
    for (std::uint32_t ifindex = IF_GetFirstIfIndexByIfSelect(it.get(), &every); ifindex != 0 && out.size() < 10'000'000;
         ifindex = IF_GetNextIfIndexByIfSelect(it.get(), &every)) {
        out.push_back(ifindex);
    }
    return out;
}

bool interface_up(std::uint32_t ifindex) {
    std::uint16_t node = 0;
    if (spans_nodes(ifindex)) return any_node_up();
    return IF_GetDataByIfIndex(ifindex, IF_DATA_NODE, &node) == 0 && (IF_IsNodeUp(node) & 0xFFFFu) == 1;
}

void add_link(CLI::App& app, Context& ctx) {
    CLI::App* object = add_object(app, "link", "the device's interfaces", "link show [dev IF]");
    add_verb(object, "show", "every interface of the directory, or one (-br: name, state, flags)", "link show [dev IF]", ctx,
             [&ctx](const CLI::App& verb, Words w) { link_show(ctx, verb, std::move(w)); });
}

}  // namespace ipctl
