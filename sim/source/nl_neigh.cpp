// Neighbours: RTM_GETNEIGH dumps (ARP, then ND), RTM_NEWNEIGH / RTM_DELNEIGH
// notifications, and the resolution request of a writable source.
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>

#include "source/netlink.hpp"

namespace sim::nl {
namespace {

struct NeighAttrs {
    const nlattr* tb[NDA_MAX + 1] = {};
};

int neigh_attr_cb(const nlattr* attr, void* data) {
    auto& a = *static_cast<NeighAttrs*>(data);
    if (mnl_attr_type_valid(attr, NDA_MAX) < 0) return MNL_CB_OK;
    const std::uint16_t type = mnl_attr_get_type(attr);
    if ((type == NDA_DST || type == NDA_LLADDR) && mnl_attr_validate(attr, MNL_TYPE_BINARY) >= 0) a.tb[type] = attr;
    return MNL_CB_OK;
}

int neigh_cb(const nlmsghdr* nlh, void* data) {
    if (nlh->nlmsg_type != RTM_NEWNEIGH && nlh->nlmsg_type != RTM_DELNEIGH) return MNL_CB_OK;
    if (mnl_nlmsg_get_payload_len(nlh) < sizeof(ndmsg)) return MNL_CB_OK;
    const auto* ndm = static_cast<const ndmsg*>(mnl_nlmsg_get_payload(nlh));
    if (ndm->ndm_family != AF_INET && ndm->ndm_family != AF_INET6) return MNL_CB_OK;
    const std::size_t alen = ndm->ndm_family == AF_INET ? 4 : 16;
    NeighAttrs a;
    if (mnl_attr_parse(nlh, sizeof(*ndm), neigh_attr_cb, &a) < 0) return MNL_CB_OK;
    if (a.tb[NDA_DST] == nullptr || mnl_attr_get_payload_len(a.tb[NDA_DST]) != alen) return MNL_CB_OK;
    Neigh n;
    n.family = ndm->ndm_family;
    n.ifindex = static_cast<std::uint32_t>(ndm->ndm_ifindex);
    n.state = ndm->ndm_state;
    n.flags = ndm->ndm_flags;
    std::memcpy(n.addr.data(), mnl_attr_get_payload(a.tb[NDA_DST]), alen);
    if (a.tb[NDA_LLADDR] != nullptr && mnl_attr_get_payload_len(a.tb[NDA_LLADDR]) == 6) {
        std::array<std::uint8_t, 6> mac{};
        std::memcpy(mac.data(), mnl_attr_get_payload(a.tb[NDA_LLADDR]), 6);
        n.mac = mac;
    }
    static_cast<Sink*>(data)->neigh(n, nlh->nlmsg_type == RTM_DELNEIGH);
    return MNL_CB_OK;
}

}  // namespace

int dump_neighs(Socket& s, Sink& sink) {
    for (const std::uint8_t family : {std::uint8_t{AF_INET}, std::uint8_t{AF_INET6}}) {
        const int rc = repeat_interrupted([&] {
            nlmsghdr* nlh = s.start(RTM_GETNEIGH, NLM_F_DUMP);
            auto* ndm = static_cast<ndmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ndmsg)));
            ndm->ndm_family = family;
            return s.run(neigh_cb, &sink);
        });
        if (rc != 0) return rc;
    }
    return 0;
}

int neigh_event(const nlmsghdr* nlh, Sink& sink) { return neigh_cb(nlh, &sink); }

int use_neigh(Socket& s, const Neigh& n) {
    // NTF_USE makes the kernel act as if traffic were waiting for the neighbour: it creates
    // the entry when there is none and sends the ARP request or the solicitation.
    nlmsghdr* nlh = s.start(RTM_NEWNEIGH, NLM_F_CREATE | NLM_F_ACK);
    auto* ndm = static_cast<ndmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ndmsg)));
    ndm->ndm_family = n.family;
    ndm->ndm_ifindex = static_cast<int>(n.ifindex);
    ndm->ndm_state = NUD_NONE;
    ndm->ndm_flags = NTF_USE;
    mnl_attr_put(nlh, NDA_DST, n.family == AF_INET ? 4 : 16, n.addr.data());
    return s.request();
}

}  // namespace sim::nl
