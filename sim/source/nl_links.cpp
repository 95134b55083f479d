// Links: RTM_GETLINK dump and RTM_NEWLINK / RTM_DELLINK notifications.
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "source/netlink.hpp"

namespace sim::nl {
namespace {

struct LinkAttrs {
    const nlattr* tb[IFLA_MAX + 1] = {};
};

int link_attr_cb(const nlattr* attr, void* data) {
    auto& a = *static_cast<LinkAttrs*>(data);
    if (mnl_attr_type_valid(attr, IFLA_MAX) < 0) return MNL_CB_OK;
    const std::uint16_t type = mnl_attr_get_type(attr);
    int ok = 0;
    switch (type) {
        case IFLA_IFNAME: ok = mnl_attr_validate(attr, MNL_TYPE_NUL_STRING); break;
        case IFLA_MTU:
        case IFLA_MASTER: ok = mnl_attr_validate(attr, MNL_TYPE_U32); break;
        case IFLA_ADDRESS:
        case IFLA_STATS64: ok = mnl_attr_validate(attr, MNL_TYPE_BINARY); break;
        case IFLA_LINKINFO: ok = mnl_attr_validate(attr, MNL_TYPE_NESTED); break;
        default: return MNL_CB_OK;
    }
    if (ok >= 0) a.tb[type] = attr;
    return MNL_CB_OK;
}

struct InfoAttrs {
    const nlattr* tb[IFLA_INFO_MAX + 1] = {};
};

int linkinfo_attr_cb(const nlattr* attr, void* data) {
    auto& a = *static_cast<InfoAttrs*>(data);
    if (mnl_attr_type_valid(attr, IFLA_INFO_MAX) < 0) return MNL_CB_OK;
    const std::uint16_t type = mnl_attr_get_type(attr);
    int ok = 0;
    switch (type) {
        case IFLA_INFO_KIND:
        case IFLA_INFO_SLAVE_KIND: ok = mnl_attr_validate(attr, MNL_TYPE_STRING); break;
        case IFLA_INFO_DATA: ok = mnl_attr_validate(attr, MNL_TYPE_NESTED); break;
        default: return MNL_CB_OK;
    }
    if (ok >= 0) a.tb[type] = attr;
    return MNL_CB_OK;
}

struct VrfAttrs {
    const nlattr* tb[IFLA_VRF_MAX + 1] = {};
};

int vrf_attr_cb(const nlattr* attr, void* data) {
    auto& a = *static_cast<VrfAttrs*>(data);
    if (mnl_attr_type_valid(attr, IFLA_VRF_MAX) < 0) return MNL_CB_OK;
    const std::uint16_t type = mnl_attr_get_type(attr);
    if (type == IFLA_VRF_TABLE && mnl_attr_validate(attr, MNL_TYPE_U32) >= 0) a.tb[type] = attr;
    return MNL_CB_OK;
}

// A string attribute that need not end in a zero byte.
std::string text_of(const nlattr* attr) {
    const auto* p = static_cast<const char*>(mnl_attr_get_payload(attr));
    const std::size_t n = mnl_attr_get_payload_len(attr);
    return std::string(p, strnlen(p, n));
}

int link_cb(const nlmsghdr* nlh, void* data) {
    if (nlh->nlmsg_type != RTM_NEWLINK && nlh->nlmsg_type != RTM_DELLINK) return MNL_CB_OK;
    if (mnl_nlmsg_get_payload_len(nlh) < sizeof(ifinfomsg)) return MNL_CB_OK;
    const auto* ifm = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(nlh));
    LinkAttrs a;
    if (mnl_attr_parse(nlh, sizeof(*ifm), link_attr_cb, &a) < 0) return MNL_CB_OK;

    Link l;
    l.index = static_cast<std::uint32_t>(ifm->ifi_index);
    l.arphrd = ifm->ifi_type;
    l.flags = ifm->ifi_flags;
    if (a.tb[IFLA_IFNAME] != nullptr) l.name = mnl_attr_get_str(a.tb[IFLA_IFNAME]);
    if (a.tb[IFLA_MTU] != nullptr) l.mtu = mnl_attr_get_u32(a.tb[IFLA_MTU]);
    if (a.tb[IFLA_MASTER] != nullptr) l.master = mnl_attr_get_u32(a.tb[IFLA_MASTER]);
    if (a.tb[IFLA_ADDRESS] != nullptr && mnl_attr_get_payload_len(a.tb[IFLA_ADDRESS]) == 6) {
        std::array<std::uint8_t, 6> mac{};
        std::memcpy(mac.data(), mnl_attr_get_payload(a.tb[IFLA_ADDRESS]), 6);
        l.mac = mac;
    }
    if (a.tb[IFLA_STATS64] != nullptr) {
        // Kernels differ in how many counters the record holds: take what both know.
        rtnl_link_stats64 st{};
        std::memcpy(&st, mnl_attr_get_payload(a.tb[IFLA_STATS64]),
                    std::min<std::size_t>(sizeof st, mnl_attr_get_payload_len(a.tb[IFLA_STATS64])));
        l.stats = st;
    }
    if (a.tb[IFLA_LINKINFO] != nullptr) {
        InfoAttrs info;
        if (mnl_attr_parse_nested(a.tb[IFLA_LINKINFO], linkinfo_attr_cb, &info) >= 0) {
            if (info.tb[IFLA_INFO_KIND] != nullptr) l.kind = text_of(info.tb[IFLA_INFO_KIND]);
            if (info.tb[IFLA_INFO_SLAVE_KIND] != nullptr) l.slave_kind = text_of(info.tb[IFLA_INFO_SLAVE_KIND]);
            VrfAttrs vrf;
            if (l.kind == "vrf" && info.tb[IFLA_INFO_DATA] != nullptr &&
                mnl_attr_parse_nested(info.tb[IFLA_INFO_DATA], vrf_attr_cb, &vrf) >= 0 &&
                vrf.tb[IFLA_VRF_TABLE] != nullptr) {
                l.vrf_table = mnl_attr_get_u32(vrf.tb[IFLA_VRF_TABLE]);
            }
        }
    }
    static_cast<Sink*>(data)->link(l, nlh->nlmsg_type == RTM_DELLINK);
    return MNL_CB_OK;
}

}  // namespace

int dump_links(Socket& s, Sink& sink) {
    return repeat_interrupted([&] {
        nlmsghdr* nlh = s.start(RTM_GETLINK, NLM_F_DUMP);
        auto* ifm = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
        ifm->ifi_family = AF_UNSPEC;
        return s.run(link_cb, &sink);
    });
}

int link_event(const nlmsghdr* nlh, Sink& sink) { return link_cb(nlh, &sink); }

}  // namespace sim::nl
