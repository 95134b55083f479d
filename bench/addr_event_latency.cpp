// How long an address change in a device's namespace takes to reach a subscriber of that
// device's address events, for bench/lab_ring.sh.
//
//   IPCLIENT_INSTANCE=DEVICE ipsim_addr_latency NAMESPACE INTERFACE [CHANGES]
//
// Subscribes with IPAddr_RegisterEvent, then adds and deletes 10.250.x.y/32 on INTERFACE in
// NAMESPACE through route netlink (a socket opened inside the namespace), CHANGES times in
// all (default 200), one at a time: the clock starts before the request goes to the kernel
// and stops when IPAddr_HandleEvent delivers its event. Prints one line:
//   changes=N missed=M median_us=... p90_us=... max_us=... kernel_ack_median_us=...
// (missed: changes whose event did not come within 2 s; any makes the exit status 1).
// The kernel's acknowledgement time is the part of it that the kernel itself takes.
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ipclient/ipaddr.h"

namespace {

using Clock = std::chrono::steady_clock;

unsigned g_events = 0;

std::uint32_t on_event(std::uint32_t, IPAddrEntry*, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) {
    ++g_events;
    return 0;
}

// A route netlink socket inside the namespace (the thread goes back to its own after).
mnl_socket* socket_in(const std::string& ns) {
    const int own = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    const int target = open(("/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
    if (own < 0 || target < 0 || setns(target, CLONE_NEWNET) != 0) {
        if (own >= 0) close(own);
        if (target >= 0) close(target);
        return nullptr;
    }
    mnl_socket* nl = mnl_socket_open(NETLINK_ROUTE);
    const bool back = setns(own, CLONE_NEWNET) == 0;
    close(own);
    close(target);
    if (nl == nullptr) return nullptr;
    if (!back || mnl_socket_bind(nl, 0, MNL_SOCKET_AUTOPID) != 0) {
        mnl_socket_close(nl);
        return nullptr;
    }
    return nl;
}

// Adds or deletes an address and waits for the kernel's acknowledgement; false on an error.
bool change(mnl_socket* nl, int ifindex, std::uint32_t addr_network_order, bool add, std::uint32_t seq) {
    alignas(nlmsghdr) char buf[8192];
    nlmsghdr* h = mnl_nlmsg_put_header(buf);
    h->nlmsg_type = add ? RTM_NEWADDR : RTM_DELADDR;
    h->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | (add ? NLM_F_CREATE | NLM_F_EXCL : 0);
    h->nlmsg_seq = seq;
    auto* ifa = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(h, sizeof(ifaddrmsg)));
    ifa->ifa_family = AF_INET;
    ifa->ifa_prefixlen = 32;
    ifa->ifa_index = static_cast<unsigned>(ifindex);
    mnl_attr_put_u32(h, IFA_LOCAL, addr_network_order);
    mnl_attr_put_u32(h, IFA_ADDRESS, addr_network_order);
    if (mnl_socket_sendto(nl, h, h->nlmsg_len) < 0) return false;
    const ssize_t n = mnl_socket_recvfrom(nl, buf, sizeof buf);
    return n > 0 && mnl_cb_run(buf, static_cast<std::size_t>(n), seq, mnl_socket_get_portid(nl), nullptr, nullptr) >= 0;
}

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<std::size_t>(p * static_cast<double>(v.size() - 1) + 0.5))];
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: IPCLIENT_INSTANCE=DEVICE %s NAMESPACE INTERFACE [CHANGES]\n", argv[0]);
        return 2;
    }
    const std::string ns = argv[1];
    const int changes = argc > 3 ? std::atoi(argv[3]) : 200;
    mnl_socket* nl = socket_in(ns);
    if (nl == nullptr) {
        std::fprintf(stderr, "cannot open a route netlink socket in namespace %s\n", ns.c_str());
        return 1;
    }
    // The interface's index, as the namespace numbers it.
    const int own = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    const int target = open(("/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
    int ifindex = 0;
    if (own >= 0 && target >= 0 && setns(target, CLONE_NEWNET) == 0) {
        ifindex = static_cast<int>(if_nametoindex(argv[2]));
        if (setns(own, CLONE_NEWNET) != 0) {
            std::fprintf(stderr, "cannot return to this process's own namespace\n");
            return 1;
        }
    }
    if (own >= 0) close(own);
    if (target >= 0) close(target);
    if (ifindex == 0) {
        std::fprintf(stderr, "no interface %s in namespace %s\n", argv[2], ns.c_str());
        return 1;
    }
    const std::int32_t fd = IPAddr_RegisterEvent(0, 0, 0, 0, on_event);
    if (fd < 0) {
        std::fprintf(stderr, "IPAddr_RegisterEvent failed (is IPCLIENT_INSTANCE the device?)\n");
        return 1;
    }
    std::vector<double> total_us, ack_us;
    int missed = 0;
    for (int i = 0; i < changes; ++i) {
        const bool add = i % 2 == 0;
        const auto n = static_cast<unsigned>(i / 2);
        const unsigned char a[4] = {10, 250, static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n)};
        std::uint32_t addr = 0;
        std::memcpy(&addr, a, 4);
        const unsigned before = g_events;
        const auto t0 = Clock::now();
        if (!change(nl, ifindex, addr, add, static_cast<std::uint32_t>(i + 1))) {
            std::fprintf(stderr, "the kernel refused change %d\n", i);
            return 1;
        }
        const auto acked = Clock::now();
        const auto until = t0 + std::chrono::seconds(2);
        while (g_events == before && Clock::now() < until) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 100) > 0) (void)IPAddr_HandleEvent(fd);
        }
        const auto t1 = Clock::now();
        if (g_events == before) {
            ++missed;
            continue;
        }
        total_us.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
        ack_us.push_back(std::chrono::duration<double, std::micro>(acked - t0).count());
    }
    IPAddr_DeregisterEvent(fd);
    mnl_socket_close(nl);
    std::printf("changes=%zu missed=%d median_us=%.0f p90_us=%.0f max_us=%.0f kernel_ack_median_us=%.0f\n", total_us.size(),
                missed, percentile(total_us, 0.5), percentile(total_us, 0.9), percentile(total_us, 1.0),
                percentile(ack_us, 0.5));
    return missed == 0 ? 0 : 1;
}
