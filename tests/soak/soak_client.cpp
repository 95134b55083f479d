// One client process of the soak (scripts/soak.sh), on the public C API only.
//
//   soak_client run ID SECONDS LOG     a mix of calls until the time is up; every address
//                                      change the device acknowledged is written to LOG
//                                      ("add A", "del-begin A", "del A"); prints a JSON summary
//   soak_client verify LOG...          every address added and not since deleted is there;
//                                      prints the count checked, exits 1 on a missing one
//
// Addresses are 10.200.ID.N/32 on GigabitEthernet1/0/1 (interface 2) of the default scenario.
#include <arpa/inet.h>
#include <dirent.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "ipclient/arp.h"
#include "ipclient/fib.h"
#include "ipclient/ipaddr.h"
#include "ipclient/ipcfg.h"
#include "ipclient/kernel.h"

namespace {

constexpr std::uint32_t kIf = 2;
// Sub addresses: each add keeps the ones before (a primary address would replace them).
constexpr std::uint32_t kSub = 1;
using Clock = std::chrono::steady_clock;

// An IPv4 address in network order, as the library takes it.
std::uint32_t addr_of(unsigned id, unsigned n) {
    const std::uint8_t bytes[4] = {10, 200, static_cast<std::uint8_t>(id), static_cast<std::uint8_t>(n)};
    std::uint32_t a = 0;
    std::memcpy(&a, bytes, sizeof a);
    return a;
}

std::string text(std::uint32_t a) {
    char buf[INET_ADDRSTRLEN] = {};
    (void)inet_ntop(AF_INET, &a, buf, sizeof buf);
    return buf;
}

bool present(std::uint32_t a) {
    IPAddrEntry key{};
    key.stKey.usVrfIndex = 0xFFFF;
    key.stKey.uiIfIndex = 0xFFFFFFFFu;
    key.stKey.uiAddr = a;
    IPAddrInfo info{};
    return IPAddr_Drvk_LookupAddr(0x8000, &key, &info) == 0;
}

std::size_t open_fds() {
    std::size_t n = 0;
    if (DIR* d = ::opendir("/proc/self/fd")) {
        while (const dirent* e = ::readdir(d)) n += e->d_name[0] != '.' ? 1 : 0;
        ::closedir(d);
    }
    return n > 0 ? n - 1 : 0;  // the directory's own descriptor
}

long rss_kib() {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    return 0;
}

std::uint32_t on_event(std::uint32_t, IPAddrEntry*, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) {
    return 0;
}

// The longest time each kind of call took, and how many were made and failed.
struct Stat {
    std::uint64_t calls = 0;
    std::uint64_t failed = 0;
    double max_ms = 0;
};

int run(unsigned id, int seconds, const char* log_path) {
    std::FILE* log = std::fopen(log_path, "a");
    if (log == nullptr) return 2;
    const auto note = [&](const char* what, std::uint32_t a) {
        std::fprintf(log, "%s %s\n", what, text(a).c_str());
        std::fflush(log);
    };
    std::map<std::string, Stat> stats;
    const auto timed = [&](const char* name, auto&& call) {
        const auto t0 = Clock::now();
        const bool ok = call();
        const double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
        Stat& s = stats[name];
        ++s.calls;
        s.failed += ok ? 0 : 1;
        s.max_ms = std::max(s.max_ms, ms);
        return ok;
    };

    std::mt19937 rng(id);
    std::deque<std::uint32_t> held;  // acknowledged and not deleted
    unsigned next = 1;
    const std::string fib_path = std::string(log_path) + ".fib";
    const std::size_t fds_start = open_fds();
    const long rss_start = rss_kib();
    long rss_max = rss_start;
    std::size_t fds_max = fds_start;
    const auto until = Clock::now() + std::chrono::seconds(seconds);
    while (Clock::now() < until) {
        switch (rng() % 8) {
        case 0:
        case 1:
            if (held.size() < 16) {
                const std::uint32_t a = addr_of(id, next);
                next = next % 250 + 1;
                if (timed("addr_add", [&] { return IPCfg_AddManualAddr(kIf, a, 0xFFFFFFFFu, kSub) == 0; })) {
                    note("add", a);
                    held.push_back(a);
                }
            } else {
                const std::uint32_t a = held.front();
                note("del-begin", a);
                held.pop_front();
                if (timed("addr_del", [&] { return IPCfg_DelManualAddr(kIf, a, 0xFFFFFFFFu, kSub) == 0; })) note("del", a);
            }
            break;
        case 2:
            timed("lookup", [&] { return held.empty() || present(held.back()); });
            break;
        case 3:
            timed("walk", [&] {
                IPAddrEntry e{};
                std::uint32_t rc = IPAddr_GetFirstAddr(kIf, 0xFFFFFFFFu, &e);
                for (int i = 0; rc == 0 && i < 64; ++i) rc = IPAddr_GetNextAddr(kIf, 0xFFFFFFFFu, &e);
                return true;
            });
            break;
        case 4:
            timed("events", [&] {
                const std::int32_t fd = IPAddr_RegisterEvent(0, 0, 0, 0, &on_event);
                if (fd < 0) return false;
                (void)IPAddr_RequestBatchEvent(fd);
                for (int i = 0; i < 20; ++i) {
                    pollfd p{fd, POLLIN, 0};
                    if (::poll(&p, 1, 20) <= 0) break;
                    (void)IPAddr_HandleEvent(fd);
                }
                IPAddr_DeregisterEvent(fd);
                return true;
            });
            break;
        case 5:
            timed("neigh", [&] {
                ARP_ENTRY_S e{};
                (void)ARP_GetEntryByIP(addr_of(1, 2), &e);
                return true;
            });
            break;
        case 6:
            timed("fib_save", [&] { return FIB_SaveForwardingTable(fib_path.c_str()) == 0; });
            break;
        default:
            timed("summary", [&] {
                char buf[4096];
                return IPAddr_GetIpSummary(sizeof buf, buf) != 0x40010001u;
            });
            break;
        }
        fds_max = std::max(fds_max, open_fds());
        rss_max = std::max(rss_max, rss_kib());
        ::usleep(2000);
    }
    std::fclose(log);
    (void)std::remove(fib_path.c_str());
    std::printf("{\"client\": %u, \"fds_start\": %zu, \"fds_max\": %zu, \"fds_end\": %zu, \"rss_start_kib\": %ld, "
                "\"rss_max_kib\": %ld, \"rss_end_kib\": %ld, \"calls\": {",
                id, fds_start, fds_max, open_fds(), rss_start, rss_max, rss_kib());
    bool first = true;
    for (const auto& [name, s] : stats) {
        std::printf("%s\"%s\": {\"calls\": %llu, \"failed\": %llu, \"max_ms\": %.1f}", first ? "" : ", ", name.c_str(),
                    static_cast<unsigned long long>(s.calls), static_cast<unsigned long long>(s.failed), s.max_ms);
        first = false;
    }
    std::printf("}}\n");
    return 0;
}

int verify(int argc, char** argv) {
    std::size_t checked = 0;
    std::size_t missing = 0;
    for (int i = 0; i < argc; ++i) {
        std::ifstream in(argv[i]);
        std::set<std::string> must;
        std::string what, a;
        while (in >> what >> a) {
            if (what == "add") must.insert(a);
            if (what == "del-begin") must.erase(a);
        }
        for (const std::string& s : must) {
            in_addr v{};
            if (inet_pton(AF_INET, s.c_str(), &v) != 1) continue;
            ++checked;
            if (!present(v.s_addr)) {
                std::printf("missing %s (%s)\n", s.c_str(), argv[i]);
                ++missing;
            }
        }
    }
    std::printf("verified %zu acknowledged addresses, %zu missing\n", checked, missing);
    return missing == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::strcmp(argv[1], "run") == 0) {
        return run(static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)), std::atoi(argv[3]), argv[4]);
    }
    if (argc >= 2 && std::strcmp(argv[1], "verify") == 0) return verify(argc - 2, argv + 2);
    std::fprintf(stderr, "usage: soak_client run ID SECONDS LOG | soak_client verify LOG...\n");
    return 2;
}
