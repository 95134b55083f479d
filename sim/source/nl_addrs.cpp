// IPv4 addresses: RTM_GETADDR dump, RTM_NEWADDR / RTM_DELADDR notifications, and the
// requests of a writable source.
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>

#include "source/netlink.hpp"

namespace sim::nl {
namespace {

struct AddrAttrs {
    const nlattr* tb[IFA_MAX + 1] = {};
};

int addr_attr_cb(const nlattr* attr, void* data) {
    auto& a = *static_cast<AddrAttrs*>(data);
    if (mnl_attr_type_valid(attr, IFA_MAX) < 0) return MNL_CB_OK;
    const std::uint16_t type = mnl_attr_get_type(attr);
    switch (type) {
        case IFA_LOCAL:
        case IFA_ADDRESS:
        case IFA_FLAGS:
            // An IPv4 address is four bytes, as a u32 is.
            if (mnl_attr_validate(attr, MNL_TYPE_U32) >= 0) a.tb[type] = attr;
            break;
        default: break;
    }
    return MNL_CB_OK;
}

int addr_cb(const nlmsghdr* nlh, void* data) {
    if (nlh->nlmsg_type != RTM_NEWADDR && nlh->nlmsg_type != RTM_DELADDR) return MNL_CB_OK;
    if (mnl_nlmsg_get_payload_len(nlh) < sizeof(ifaddrmsg)) return MNL_CB_OK;
    const auto* ifa = static_cast<const ifaddrmsg*>(mnl_nlmsg_get_payload(nlh));
    if (ifa->ifa_family != AF_INET) return MNL_CB_OK;
    AddrAttrs a;
    if (mnl_attr_parse(nlh, sizeof(*ifa), addr_attr_cb, &a) < 0) return MNL_CB_OK;
    // The local address; on a point-to-point link IFA_ADDRESS is the peer's.
    const nlattr* local = a.tb[IFA_LOCAL] != nullptr ? a.tb[IFA_LOCAL] : a.tb[IFA_ADDRESS];
    if (local == nullptr) return MNL_CB_OK;
    Addr out;
    out.ifindex = ifa->ifa_index;
    out.prefix_len = ifa->ifa_prefixlen;
    std::memcpy(&out.addr, mnl_attr_get_payload(local), 4);
    out.flags = a.tb[IFA_FLAGS] != nullptr ? mnl_attr_get_u32(a.tb[IFA_FLAGS]) : ifa->ifa_flags;
    static_cast<Sink*>(data)->addr(out, nlh->nlmsg_type == RTM_DELADDR);
    return MNL_CB_OK;
}

nlmsghdr* addr_request(Socket& s, std::uint16_t type, std::uint16_t flags, const Addr& a) {
    nlmsghdr* nlh = s.start(type, static_cast<std::uint16_t>(flags | NLM_F_ACK));
    auto* ifa = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
    ifa->ifa_family = AF_INET;
    ifa->ifa_prefixlen = a.prefix_len;
    ifa->ifa_scope = RT_SCOPE_UNIVERSE;
    ifa->ifa_index = a.ifindex;
    mnl_attr_put(nlh, IFA_LOCAL, 4, &a.addr);
    mnl_attr_put(nlh, IFA_ADDRESS, 4, &a.addr);
    return nlh;
}

}  // namespace

int dump_addrs(Socket& s, Sink& sink) {
    return repeat_interrupted([&] {
        nlmsghdr* nlh = s.start(RTM_GETADDR, NLM_F_DUMP);
        auto* ifa = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
        ifa->ifa_family = AF_INET;
        return s.run(addr_cb, &sink);
    });
}

int addr_event(const nlmsghdr* nlh, Sink& sink) { return addr_cb(nlh, &sink); }

int add_addr(Socket& s, const Addr& a) {
    addr_request(s, RTM_NEWADDR, NLM_F_CREATE | NLM_F_REPLACE, a);
    return s.request();
}

int del_addr(Socket& s, const Addr& a) {
    addr_request(s, RTM_DELADDR, 0, a);
    return s.request();
}

}  // namespace sim::nl
