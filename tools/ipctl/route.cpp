// ipctl route: the forwarding tables.
//
//   ipctl route show [-4|-6] [vrf NAME] [PREFIX]
//   ipctl route get ADDR [vrf N]
//   ipctl route save FILE
//
// The IPv4 table of every running node is read as the device writes it out
// (FIB_SaveForwardingTable into a file of the tool's own, removed afterwards), one route a
// line; "vrf NAME" and PREFIX narrow the lines. IPv6 routes are found by prefix
// (FIB6_SearchInfo), so -6 needs a PREFIX. get finds the longest prefix that holds the
// address, searching from the host route down to the default route. save writes the
// device's file itself, with a progress line on a terminal.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "inet.hpp"
#include "ipclient/fib.h"
#include "ipctl.hpp"
#include "progress.hpp"

namespace ipctl {

namespace {

// A route line of the device's file: "{chassis, slot, cpu}, {vpn, dest/len} -> {next hop,
// tunnel, label}, {next-hop MAC, interface MAC, vlan/port, interface}".
struct RouteLine {
    std::vector<std::string> node, where, via, link;
};

std::vector<std::string> split_group(const std::string& line, std::size_t* at) {
    std::vector<std::string> out;
    const std::size_t open = line.find('{', *at);
    const std::size_t close = open == std::string::npos ? open : line.find('}', open);
    if (close == std::string::npos) return out;
    const std::string group = line.substr(open + 1, close - open - 1);
    *at = close + 1;
    std::size_t from = 0;
    for (;;) {
        const std::size_t comma = group.find(", ", from);
        out.push_back(group.substr(from, comma - from));
        if (comma == std::string::npos) break;
        from = comma + 2;
    }
    return out;
}

std::optional<RouteLine> parse_line(std::string line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    std::size_t at = 0;
    RouteLine r{split_group(line, &at), split_group(line, &at), split_group(line, &at), split_group(line, &at)};
    if (r.node.size() != 3 || r.where.size() != 2 || r.via.size() != 3 || r.link.size() != 4) return std::nullopt;
    return r;
}

unsigned to_unsigned(const std::string& s) { return static_cast<unsigned>(std::strtoul(s.c_str(), nullptr, 10)); }

// One path of a route: its gateway and interface, each empty when the route has none.
struct Path {
    std::string gateway;
    std::string dev;
};

const char* route_type_name(unsigned type) {
    switch (type) {
        case 0x100: return "unknown";  // kTypeUnknown: a type the tool cannot ask
        case FIB_ROUTE_BLACKHOLE: return "blackhole";
        case FIB_ROUTE_UNREACHABLE: return "unreachable";
        case FIB_ROUTE_PROHIBIT: return "prohibit";
        default: return "unicast";
    }
}

// What every route prints, from show and get alike: its type (in text only when it is not
// unicast, before the destination in its cell, as ip writes it), destination, family, VRF, and its
// path: gateway and interface, or of a route of several paths the first path's and all of
// them as nexthops.
Record route_record(const std::string& dst, bool v6, unsigned type, const std::string& vrf, const std::vector<Path>& paths) {
    Record r;
    const char* tname = route_type_name(type);
    const bool unicast = type == FIB_ROUTE_UNICAST || type == 0;
    r.json_only("type", tname);
    r.add("dst", dst, unicast ? dst : tname + (" " + dst)).json_only("family", v6 ? "inet6" : "inet").add("vrf", vrf, vrf, "vrf");
    if (!paths.empty()) {
        if (!paths.front().gateway.empty()) r.add("gateway", paths.front().gateway, paths.front().gateway, "via");
        if (!paths.front().dev.empty()) r.add("dev", paths.front().dev, paths.front().dev, "dev");
    }
    if (paths.size() > 1) {
        Json hops = Json::array();
        std::string text;
        for (const Path& p : paths) {
            Json h = Json::object();
            if (!p.gateway.empty()) h["gateway"] = p.gateway;
            if (!p.dev.empty()) h["dev"] = p.dev;
            hops.push_back(std::move(h));
            if (!text.empty()) text += ", ";
            text += p.gateway.empty() ? "dev " + p.dev : p.dev.empty() ? "via " + p.gateway : "via " + p.gateway + " dev " + p.dev;
        }
        r.add("nexthops", std::move(hops), text, "nexthops");
    }
    return r;
}

// A gateway as printed: none for the all-zero address.
std::string gateway_text(const std::string& text) { return text == "0.0.0.0" || text == "::" ? std::string() : text; }
// An interface of the device's file: none where it writes N/A.
std::string dev_text(const std::string& text) { return text == "N/A" ? std::string() : text; }

// A file of the tool's own, removed when done.
class TempFile {
public:
    TempFile() {
        const char* dir = std::getenv("TMPDIR");
        path_ = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/ipctl-fib-XXXXXX";
        const int fd = ::mkstemp(path_.data());
        if (fd < 0) failure("cannot make a file in " + path_.substr(0, path_.rfind('/')));
        ::close(fd);
    }
    ~TempFile() { ::unlink(path_.c_str()); }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    const std::string& path() const noexcept { return path_; }

private:
    std::string path_;
};

// Saves the IPv4 tables into path; with a progress line counting the routes written.
std::uint64_t save_table(const std::string& path, bool progress_line) {
    std::atomic<bool> done{false};
    std::uint32_t rc = 0;
    std::thread worker([&] {
        rc = FIB_SaveForwardingTable(path.c_str());
        done = true;
    });
    std::optional<Progress> progress;
    if (progress_line) progress.emplace("routes", std::nullopt);
    std::uint64_t lines = 0;
    int fd = -1;
    off_t offset = 0;
    char buf[65536];
    auto count_new = [&] {
        if (fd < 0) fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return;
        for (;;) {
            const ssize_t n = ::pread(fd, buf, sizeof buf, offset);
            if (n <= 0) break;
            offset += n;
            for (ssize_t i = 0; i < n; ++i) lines += buf[i] == '\n' ? 1 : 0;
        }
    };
    while (!done) {
        const timespec pause{0, 50'000'000};
        ::nanosleep(&pause, nullptr);
        if (progress) {
            count_new();
            progress->update(lines > 0 ? lines - 1 : 0);
        }
    }
    worker.join();
    if (rc == 0) count_new();
    if (fd >= 0) ::close(fd);
    if (progress) {
        progress->update(lines > 0 ? lines - 1 : 0);
        progress->finish();
    }
    if (rc != 0) status_error("saving the forwarding table to " + path, rc);
    return lines > 0 ? lines - 1 : 0;
}

// Every VPN instance, as a search key names it.
constexpr std::uint32_t kAnyInstance = 0xFFFFFFFFu;

// Exact searches: the entries of one prefix, in one VPN instance or in any.
std::vector<std::uint8_t> search4(std::uint32_t addr, unsigned len, std::uint64_t* count,
                                  std::uint32_t instance = kAnyInstance) {
    FIB4_SEARCH_KEY_S key{};
    key.uiInstance = instance;
    key.usFamily = 2;
    key.uiMask = length_mask(len);
    key.uiDest = addr & key.uiMask;
    std::vector<std::uint8_t> entries(FIB_SEARCH_MAX_ENTRIES * FIB_SEARCH_ENTRY_SIZE);
    *count = FIB_SEARCH_MAX_ENTRIES;
    const std::uint32_t rc = FIB4_SearchInfo(&key, count, entries.data());
    if (rc != 0) *count = 0;
    return entries;
}

std::vector<std::uint8_t> search6(const std::array<std::uint8_t, 16>& addr, unsigned len, std::uint64_t* count,
                                  std::uint32_t instance = kAnyInstance) {
    // The key: instance, family, the destination at 8 and its prefix length at 24.
    std::uint8_t key[FIB6_SEARCH_KEY_SIZE] = {};
    const std::uint16_t family = 10;
    std::memcpy(key, &instance, sizeof instance);
    std::memcpy(key + 4, &family, sizeof family);
    for (unsigned i = 0; i < 16; ++i) {
        const unsigned bits = len > 8 * i ? (len - 8 * i > 8 ? 8 : len - 8 * i) : 0;
        key[8 + i] = static_cast<std::uint8_t>(addr[i] & static_cast<std::uint8_t>(0xFF00u >> bits));
    }
    key[24] = static_cast<std::uint8_t>(len);
    std::vector<std::uint8_t> entries(FIB_SEARCH_MAX_ENTRIES * FIB_SEARCH_ENTRY_SIZE);
    *count = FIB_SEARCH_MAX_ENTRIES;
    const std::uint32_t rc = FIB6_SearchInfo(key, count, entries.data());
    if (rc != 0) *count = 0;
    return entries;
}

// A route entry of a search (128 bytes, host order): 0 VRF, 4 outgoing interface, 8 prefix
// length, 12 family, 16 next hop, 32 destination, 48 node, 52 flags (bit 0 active), 56
// type, 57 the number of paths, 60 the further paths. A VRF other than the public one is
// named by its index (the search tells no name).
Record entry_record(const std::uint8_t* e) {
    const bool v6 = host_at<std::uint16_t>(e + FIB_ENTRY_FAMILY_OFFSET) == 10;
    const auto addr_text = [v6](const std::uint8_t* a) { return v6 ? inet6_text(a) : inet4_text(host_at<std::uint32_t>(a)); };
    const std::string dst = addr_text(e + FIB_ENTRY_DEST_OFFSET) + "/" + std::to_string(e[FIB_ENTRY_PREFIX_LEN_OFFSET]);
    const std::uint32_t ifindex = host_at<std::uint32_t>(e + FIB_ENTRY_IFINDEX_OFFSET);
    const std::uint32_t vrf = host_at<std::uint32_t>(e + FIB_ENTRY_VRF_OFFSET);
    const std::uint32_t node = host_at<std::uint32_t>(e + FIB_ENTRY_NODE_OFFSET);
    const bool active = (host_at<std::uint32_t>(e + FIB_ENTRY_FLAGS_OFFSET) & 1u) != 0;
    const auto dev = [](std::uint32_t index) { return index == 0 ? std::string() : interface_name(index); };
    std::vector<Path> paths{{gateway_text(addr_text(e + FIB_ENTRY_NEXTHOP_OFFSET)), dev(ifindex)}};
    const unsigned hops = e[FIB_ENTRY_HOPS_OFFSET];
    for (unsigned i = 1; i < hops && i <= FIB_ENTRY_MORE_HOPS_MAX; ++i) {
        const std::uint8_t* h = e + FIB_ENTRY_MORE_HOPS_OFFSET + (i - 1) * FIB_ENTRY_HOP_SIZE;
        paths.push_back({gateway_text(addr_text(h + 4)), dev(host_at<std::uint32_t>(h))});
    }
    Record r = route_record(dst, v6, e[FIB_ENTRY_TYPE_OFFSET], vrf == 0 ? "public" : std::to_string(vrf), paths);
    if (hops > FIB_ENTRY_MORE_HOPS_MAX + 1) r.add("paths", hops, std::to_string(hops), "paths");
    r.json_only("ifindex", ifindex)
        .add("node", node, std::to_string(node), "node")
        .add("active", active, active ? "active" : "inactive");
    return r;
}

// The type of a route the device's file shows without a path (a blackhole, unreachable or
// prohibit route has neither gateway nor interface): its search entry says it. A search asks
// the node the tool runs as, by VRF index, while the file names VRFs by name: the type is the
// one the tool's node has for the prefix in the public VRF (index 0), or in the other VRFs
// when all of theirs agree. A route the tool's node does not have (another node's own), or
// one whose VRF cannot be told, is "unknown".
constexpr unsigned kTypeUnknown = 0x100;

unsigned pathless_type(const RouteLine& l) {
    const auto p = parse_prefix4(l.where[1]);
    if (!p) return kTypeUnknown;
    const bool is_public = l.where[0] == "public";
    std::uint64_t count = 0;
    const auto entries = search4(p->addr, p->len, &count, is_public ? 0 : kAnyInstance);
    std::optional<unsigned> found;
    for (std::uint64_t i = 0; i < count && i < FIB_SEARCH_MAX_ENTRIES; ++i) {
        const std::uint8_t* e = entries.data() + i * FIB_SEARCH_ENTRY_SIZE;
        if (host_at<std::uint32_t>(e + FIB_ENTRY_IFINDEX_OFFSET) != 0 ||
            (host_at<std::uint32_t>(e + FIB_ENTRY_VRF_OFFSET) == 0) != is_public) {
            continue;
        }
        const unsigned type = e[FIB_ENTRY_TYPE_OFFSET] == 0 ? FIB_ROUTE_UNICAST : e[FIB_ENTRY_TYPE_OFFSET];
        if (found && *found != type) return kTypeUnknown;
        found = type;
    }
    return found.value_or(kTypeUnknown);
}

// A route of the device's file: its lines (one a path) made one record.
Record file_record(const RouteLine& l, const std::vector<Path>& paths) {
    const bool pathless = paths.size() == 1 && paths.front().gateway.empty() && paths.front().dev.empty();
    const unsigned type = pathless ? pathless_type(l) : FIB_ROUTE_UNICAST;
    Record r = route_record(l.where[1], false, type, l.where[0], paths);
    const std::string& vlan_port = l.link[2];
    const std::size_t slash = vlan_port.find('/');
    r.add("chassis", to_unsigned(l.node[0]), l.node[0] + "/" + l.node[1] + "/" + l.node[2], "node")
        .json_only("slot", to_unsigned(l.node[1]))
        .json_only("cpu", to_unsigned(l.node[2]))
        .add("tunnel", l.via[1], l.via[1], "tunnel")
        .add("label", l.via[2], l.via[2], "label")
        .json_only("gateway_mac", l.link[0])
        .json_only("dev_mac", l.link[1])
        .json_only("vlan", to_unsigned(vlan_port.substr(0, slash)))
        .json_only("port", to_unsigned(slash == std::string::npos ? "" : vlan_port.substr(slash + 1)));
    return r;
}

// Reads the IPv4 tables of every running node and hands each route over with its lines.
// The device writes a route of several paths as a line a path, one after the other.
void read_v4(const std::optional<std::string>& vrf, const std::optional<std::string>& prefix,
             const std::function<void(const RouteLine&, const std::vector<Path>&, const std::string&)>& take) {
    TempFile file;
    save_table(file.path(), false);
    std::ifstream in(file.path(), std::ios::binary);
    std::string line;
    std::getline(in, line);  // "[FIB Info]"
    std::optional<RouteLine> route;
    std::vector<Path> paths;
    std::string lines;
    const auto emit = [&] {
        if (route) take(*route, paths, lines);
        route.reset();
        paths.clear();
        lines.clear();
    };
    while (std::getline(in, line)) {
        const auto l = parse_line(line);
        if (!l) continue;
        if (vrf && l->where[0] != *vrf) continue;
        if (prefix && l->where[1] != *prefix) continue;
        if (!route || route->node != l->node || route->where != l->where) {
            emit();
            route = l;
        }
        paths.push_back({gateway_text(l->via[0]), dev_text(l->link[3])});
        lines += line;
        lines += '\n';
    }
    emit();
}

void show_v4(Context& ctx, const std::optional<std::string>& vrf, const std::optional<std::string>& prefix) {
    read_v4(vrf, prefix, [&ctx](const RouteLine& l, const std::vector<Path>& paths, const std::string&) {
        ctx.out->row(file_record(l, paths));
    });
    ctx.out->flush();
}

void print_entries(Context& ctx, const std::vector<std::uint8_t>& entries, std::uint64_t count) {
    for (std::uint64_t i = 0; i < count && i < FIB_SEARCH_MAX_ENTRIES; ++i)
        ctx.out->row(entry_record(entries.data() + i * FIB_SEARCH_ENTRY_SIZE));
}

void route_show(Context& ctx, const CLI::App& verb, Words words, bool v6) {
    std::optional<std::string> vrf, prefix;
    while (!words.done()) {
        const std::string w = words.next();
        if (w == "vrf") words.value_of("vrf", &vrf);
        else if (!prefix) prefix = w;
        else words.unexpected();
    }
    if (!v6) {
        // Without a device there is no table to read: say that, not that a file failed.
        require_device();
        if (prefix) {
            const auto p = parse_prefix4(*prefix);
            if (!p) usage_error(verb, "\"" + *prefix + "\" is not an IPv4 prefix");
            prefix = inet4_text(p->addr & length_mask(p->len)) + "/" + std::to_string(p->len);
        }
        show_v4(ctx, vrf, prefix);
        return;
    }
    if (!prefix) usage_error(verb, "IPv6 routes are found by prefix: give a PREFIX");
    if (vrf) usage_error(verb, "\"vrf\" narrows IPv4 routes only");
    const std::size_t slash = prefix->find('/');
    const auto a6 = parse_inet6(prefix->substr(0, slash));
    const unsigned len = slash == std::string::npos ? 128u : to_unsigned(prefix->substr(slash + 1));
    if (!a6 || len > 128) usage_error(verb, "\"" + *prefix + "\" is not an IPv6 prefix");
    std::uint64_t count = 0;
    const auto entries = search6(*a6, len, &count);
    print_entries(ctx, entries, count);
    ctx.out->flush();
}

// route get looks in one VRF, as ip route get looks in one table: the public VRF unless
// "vrf N" names another (an index 0-65535, or "public").
void route_get(Context& ctx, const CLI::App& verb, Words words) {
    const std::string target = words.next();
    std::optional<std::string> vrf_word;
    while (!words.done()) {
        if (words.next() == "vrf") words.value_of("vrf", &vrf_word);
        else words.unexpected();
    }
    std::uint32_t vrf = 0;
    if (vrf_word && *vrf_word != "public") {
        const bool digits = !vrf_word->empty() && vrf_word->size() <= 5 &&
                            vrf_word->find_first_not_of("0123456789") == std::string::npos;
        if (!digits || std::stoul(*vrf_word) > 0xFFFFu) {
            usage_error(verb, "\"vrf\" takes a VRF index from 0 to 65535 or public, got \"" + *vrf_word + "\"");
        }
        vrf = static_cast<std::uint32_t>(std::stoul(*vrf_word));
    }
    if (parse_inet4(target) || parse_inet6(target)) require_device();
    std::uint64_t count = 0;
    if (const auto a4 = parse_inet4(target)) {
        for (int len = 32; len >= 0; --len) {
            const auto entries = search4(*a4, static_cast<unsigned>(len), &count, vrf);
            if (count == 0) continue;
            print_entries(ctx, entries, count);
            break;
        }
    } else if (const auto a6 = parse_inet6(target)) {
        for (int len = 128; len >= 0; --len) {
            const auto entries = search6(*a6, static_cast<unsigned>(len), &count, vrf);
            if (count == 0) continue;
            print_entries(ctx, entries, count);
            break;
        }
    } else {
        usage_error(verb, "\"" + target + "\" is not an IPv4 or IPv6 address");
    }
    if (count == 0) failure("no route to " + target + (vrf != 0 ? " in VRF " + std::to_string(vrf) : ""));
    ctx.out->flush();
}

void route_save(Context& ctx, Words words) {
    const std::string path = words.next();
    words.expect_end();
    const std::uint64_t routes = save_table(path, true);
    struct stat st {};
    ::stat(path.c_str(), &st);
    Record r;
    r.add("file", path, path, "file").add("routes", routes, std::to_string(routes), "routes");
    r.add("bytes", static_cast<std::uint64_t>(st.st_size), std::to_string(st.st_size), "bytes");
    ctx.out->object(r);
}

}  // namespace

std::map<std::string, RouteSeen> ipv4_routes() {
    std::map<std::string, RouteSeen> out;
    read_v4(std::nullopt, std::nullopt, [&out](const RouteLine& l, const std::vector<Path>& paths, const std::string& lines) {
        const std::string key = l.node[0] + "/" + l.node[1] + "/" + l.node[2] + " " + l.where[0] + " " + l.where[1];
        out.insert_or_assign(key, RouteSeen{lines, file_record(l, paths)});
    });
    return out;
}

void add_route(CLI::App& app, Context& ctx) {
    CLI::App* object = add_object(app, "route", "the forwarding tables", "route { show | get | save } ...");
    auto v4 = std::make_shared<bool>(false);
    auto v6 = std::make_shared<bool>(false);
    CLI::App* show = add_verb(object, "show", "IPv4 routes of every running node, or IPv6 routes by prefix",
                              "route show [-4|-6] [vrf NAME] [PREFIX]", ctx,
                              [&ctx, v4, v6](const CLI::App& verb, Words w) {
                                  (void)v4;  // kept alive for the -4 flag that writes it
                                  route_show(ctx, verb, std::move(w), *v6);
                              });
    CLI::Option* o4 = show->add_flag("-4", *v4, "IPv4 routes (the default)");
    show->add_flag("-6", *v6, "IPv6 routes")->excludes(o4);
    add_verb(object, "get", "the longest prefix that holds an address", "route get ADDR [vrf N]", ctx,
             [&ctx](const CLI::App& verb, Words w) { route_get(ctx, verb, std::move(w)); });
    add_verb(object, "save", "writes the device's forwarding table file", "route save FILE", ctx,
             [&ctx](const CLI::App&, Words w) { route_save(ctx, std::move(w)); });
}

}  // namespace ipctl
