// ipctl: what every object of the tool shares.
//
// The tool is written on the library's exported C functions (include/ipclient/*.h) and,
// for the names of nodes and interfaces that applications give and read, on the device's
// directory (the platform's node and interface calls). Each object (device, addr, neigh,
// route, stats, monitor, status) lives in its own file and registers its verbs with
// add_<object>(); a verb sets the action that main() runs once the command line is parsed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "ipclient/kernel.h"
#include "print.hpp"

// The ND entry of ipclient/nd.h, as its printer takes it.
struct NdEntryInfo;

namespace ipctl {

// Exit codes: 0 done, 1 the library or the device refused (a status was printed), 2 the
// command line was wrong (a usage line was printed).
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

// Thrown to end the command with an exit code; main() prints nothing more for it.
struct Exit {
    int code;
};

struct Context {
    Printer* out = nullptr;
    std::optional<std::uint16_t> node;  // -n: the node asked (and the node the tool runs as)
    bool brief = false;                  // -br: one line an interface (addr, link) or an entry (neigh)
    bool stats = false;                  // -s: with link, the interfaces' counters
    std::function<void()> action;        // the verb chosen on the command line
};

// "Error: <message>" and the verb's usage line on standard error, then exit 2.
[[noreturn]] void usage_error(const CLI::App& verb, std::string_view message);
// "ipctl: <what failed>: <status name> (0x........)" on standard error, then exit 1.
[[noreturn]] void status_error(std::string_view what, std::uint32_t status);
// "ipctl: <message>" on standard error, then exit 1.
[[noreturn]] void failure(std::string_view message);
// The instance the tool talks to.
std::string instance_name();
// A failure (exit 1) when no device answers for the instance, saying why: no simulator,
// another user's simulator, a simulator that does not answer. Walks and readers whose
// library calls end quietly without a device (an empty table, a default value) call it
// once their arguments are read, so that nothing is mistaken for an empty table.
void require_device();

// The words after a verb, read as ip reads them: keywords followed by their value
// ("dev IF", "vrf NAME") and plain arguments.
class Words {
public:
    Words(const CLI::App& verb, std::vector<std::string> words) : verb_(verb), words_(std::move(words)) {}
    bool done() const noexcept { return at_ >= words_.size(); }
    const std::string& peek() const { return words_[at_]; }
    std::string next();
    // The value after a keyword; a usage error when it is missing or given twice.
    void value_of(std::string_view keyword, std::optional<std::string>* into);
    [[noreturn]] void unexpected() const;
    // A usage error when words are left.
    void expect_end();

private:
    const CLI::App& verb_;
    std::vector<std::string> words_;
    std::size_t at_ = 0;
};

// Adds a verb to an object: its help, its usage (printed with usage errors and in the
// help), and what it runs with the words that follow it.
CLI::App* add_verb(CLI::App* object, const std::string& name, const std::string& help, const std::string& usage,
                   Context& ctx, std::function<void(const CLI::App&, Words)> run);
// An object's subcommand, which takes exactly one verb; usage lists its verbs.
CLI::App* add_object(CLI::App& app, const std::string& name, const std::string& help, const std::string& usage);

// The command line with prefixes of objects and verbs expanded, "show" added to an object
// given alone, "help" made --help (main.cpp).
std::vector<std::string> expanded(const CLI::App& app, std::vector<std::string> args);

// A value stored in host order at byte `off` of a record, at any alignment.
template <class U>
U host_at(const void* p, std::size_t off = 0) {
    U v;
    std::memcpy(&v, static_cast<const std::uint8_t*>(p) + off, sizeof v);
    return v;
}

// Every interface of the device's directory in index order, and whether one is up (its
// node is up; for one that spans nodes, any node is) (link.cpp).
std::vector<std::uint32_t> directory_interfaces();
bool interface_up(std::uint32_t ifindex);
// A route of the IPv4 tables as the device writes it (its lines) and as it prints.
struct RouteSeen {
    std::string lines;
    Record record;
};
// The IPv4 routes of every running node, by "chassis/slot/cpu VRF prefix" (route.cpp).
std::map<std::string, RouteSeen> ipv4_routes();

// Interfaces by full name or index (as the device's directory knows them).
std::uint32_t interface_index(const CLI::App& verb, const std::string& name);
std::string interface_name(std::uint32_t ifindex);

// One printer per record type, for show and for monitor alike.
Record addr_record(const IPAddrEntry& e);
// An ARP entry as its printer takes it, read from whichever of the module's layouts a call
// returns (ipproto/kmod_arp.hpp, ipproto/svc_adj.hpp); mac points into the record it was read
// from.
struct ArpEntry {
    std::uint32_t addr = 0;  // network order
    std::uint32_t ifindex = 0;
    const std::uint8_t* mac = nullptr;
    unsigned state = 0, kind = 0, vlan = 0, vrf = 0;
};
ArpEntry arp_from_batch(const std::uint8_t* record);            // ARP_GetNextInfoBatch: big-endian
ArpEntry arp_from_lookup(const std::uint8_t* entry);            // ARP_GetEntryByIP: host order
ArpEntry arp_from_event(const std::uint8_t* entry, unsigned vrf);  // an event's entry: host order
Record arp_record(const ArpEntry& e);
Record nd_record(const ::NdEntryInfo& e);

void add_device(CLI::App& app, Context& ctx);
void add_addr(CLI::App& app, Context& ctx);
void add_link(CLI::App& app, Context& ctx);
void add_neigh(CLI::App& app, Context& ctx);
void add_route(CLI::App& app, Context& ctx);
void add_stats(CLI::App& app, Context& ctx);
void add_monitor(CLI::App& app, Context& ctx);
void add_status(CLI::App& app, Context& ctx);

}  // namespace ipctl
