// Routes: RTM_GETROUTE dumps (IPv4, then IPv6) and RTM_NEWROUTE / RTM_DELROUTE
// notifications. A multipath route is read with every path; its first path is also the
// route's gateway and out interface.
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "source/netlink.hpp"

namespace sim::nl {
namespace {

struct RouteAttrs {
    const nlattr* tb[RTA_MAX + 1] = {};
};

int route_attr_cb(const nlattr* attr, void* data) {
    auto& a = *static_cast<RouteAttrs*>(data);
    if (mnl_attr_type_valid(attr, RTA_MAX) < 0) return MNL_CB_OK;
    const std::uint16_t type = mnl_attr_get_type(attr);
    int ok = 0;
    switch (type) {
        case RTA_TABLE:
        case RTA_PRIORITY:
        case RTA_OIF: ok = mnl_attr_validate(attr, MNL_TYPE_U32); break;
        case RTA_DST:
        case RTA_GATEWAY:
        case RTA_MULTIPATH: ok = mnl_attr_validate(attr, MNL_TYPE_BINARY); break;
        default: return MNL_CB_OK;
    }
    if (ok >= 0) a.tb[type] = attr;
    return MNL_CB_OK;
}

// An address attribute of the route's family, or nothing when its length is not.
std::optional<std::array<std::uint8_t, 16>> address_of(const nlattr* attr, std::size_t len) {
    if (attr == nullptr || mnl_attr_get_payload_len(attr) != len) return std::nullopt;
    std::array<std::uint8_t, 16> out{};
    std::memcpy(out.data(), mnl_attr_get_payload(attr), len);
    return out;
}

int route_cb(const nlmsghdr* nlh, void* data) {
    if (nlh->nlmsg_type != RTM_NEWROUTE && nlh->nlmsg_type != RTM_DELROUTE) return MNL_CB_OK;
    if (mnl_nlmsg_get_payload_len(nlh) < sizeof(rtmsg)) return MNL_CB_OK;
    const auto* rtm = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(nlh));
    if (rtm->rtm_family != AF_INET && rtm->rtm_family != AF_INET6) return MNL_CB_OK;
    const std::size_t alen = rtm->rtm_family == AF_INET ? 4 : 16;
    RouteAttrs a;
    if (mnl_attr_parse(nlh, sizeof(*rtm), route_attr_cb, &a) < 0) return MNL_CB_OK;

    Route r;
    r.replace = (nlh->nlmsg_flags & NLM_F_REPLACE) != 0;
    r.family = rtm->rtm_family;
    r.table = a.tb[RTA_TABLE] != nullptr ? mnl_attr_get_u32(a.tb[RTA_TABLE]) : rtm->rtm_table;
    r.type = rtm->rtm_type;
    r.dst_len = rtm->rtm_dst_len;
    r.flags = rtm->rtm_flags;
    if (a.tb[RTA_DST] != nullptr) {
        const auto dst = address_of(a.tb[RTA_DST], alen);
        if (!dst) return MNL_CB_OK;
        r.dst = *dst;
    }
    r.gateway = address_of(a.tb[RTA_GATEWAY], alen);
    if (a.tb[RTA_OIF] != nullptr) r.oif = mnl_attr_get_u32(a.tb[RTA_OIF]);
    if (a.tb[RTA_PRIORITY] != nullptr) r.priority = mnl_attr_get_u32(a.tb[RTA_PRIORITY]);
    if (a.tb[RTA_MULTIPATH] != nullptr) {
        // Paths one after the other: a struct rtnexthop, then that path's own attributes.
        // A path shorter than its header or longer than what remains ends the list.
        const auto* at = static_cast<const std::uint8_t*>(mnl_attr_get_payload(a.tb[RTA_MULTIPATH]));
        std::size_t room = mnl_attr_get_payload_len(a.tb[RTA_MULTIPATH]);
        constexpr std::size_t kMostPaths = 256;
        while (room >= sizeof(rtnexthop) && r.paths.size() < kMostPaths) {
            rtnexthop nh{};
            std::memcpy(&nh, at, sizeof nh);
            if (nh.rtnh_len < sizeof nh || nh.rtnh_len > room) break;
            Route::Path path;
            path.oif = static_cast<std::uint32_t>(nh.rtnh_ifindex);
            path.flags = nh.rtnh_flags;
            RouteAttrs pa;
            const std::size_t head = (sizeof nh + 3u) & ~std::size_t{3};  // attributes start 4-aligned
            if (nh.rtnh_len > head && mnl_attr_parse_payload(at + head, nh.rtnh_len - head, route_attr_cb, &pa) >= 0) {
                path.gateway = address_of(pa.tb[RTA_GATEWAY], alen);
            }
            r.paths.push_back(path);
            const std::size_t step = std::min<std::size_t>((nh.rtnh_len + 3u) & ~std::size_t{3}, room);
            at += step;
            room -= step;
        }
        if (!r.paths.empty() && r.oif == 0) {
            r.oif = r.paths.front().oif;
            r.gateway = r.paths.front().gateway;
        }
    }
    static_cast<Sink*>(data)->route(r, nlh->nlmsg_type == RTM_DELROUTE);
    return MNL_CB_OK;
}

}  // namespace

int dump_routes(Socket& s, Sink& sink) {
    for (const std::uint8_t family : {std::uint8_t{AF_INET}, std::uint8_t{AF_INET6}}) {
        const int rc = repeat_interrupted([&] {
            nlmsghdr* nlh = s.start(RTM_GETROUTE, NLM_F_DUMP);
            auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
            rtm->rtm_family = family;
            return s.run(route_cb, &sink);
        });
        if (rc != 0) return rc;
    }
    return 0;
}

int route_event(const nlmsghdr* nlh, Sink& sink) { return route_cb(nlh, &sink); }

}  // namespace sim::nl
