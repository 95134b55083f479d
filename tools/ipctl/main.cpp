// ipctl: looks at and changes a device's IP state through the IP client library.
//
//   ipctl [-i|--instance NAME] [-n|--node N] [-j|--json] [-p|--pretty] OBJECT COMMAND [ARGS]
//
// The front end: global options, then one subcommand per object (device.cpp, addr.cpp,
// neigh.cpp, route.cpp, stats.cpp, monitor.cpp, status.cpp). Exit status: 0 done, 1 the
// library returned a status (printed with its name), 2 a usage error.
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ipclient/kernel.h"
#include "ipctl.hpp"
#include "ipplat/host.h"
#include "ipplat/platform.h"
#include "status_names.hpp"

namespace ipctl {

void usage_error(const CLI::App& verb, std::string_view message) {
    std::fprintf(stderr, "Error: %.*s\nUsage: ipctl [-i NAME] [-n N] [-j] [-p] %s\n", static_cast<int>(message.size()),
                 message.data(), verb.get_footer().c_str());
    throw Exit{kExitUsage};
}

void status_error(std::string_view what, std::uint32_t status) {
    const std::string_view name = status_name(status);
    std::fprintf(stderr, "ipctl: %.*s: %.*s (0x%08" PRIx32 ")\n", static_cast<int>(what.size()), what.data(),
                 static_cast<int>(name.size()), name.data(), status);
    throw Exit{kExitFailed};
}

void failure(std::string_view message) {
    std::fprintf(stderr, "ipctl: %.*s\n", static_cast<int>(message.size()), message.data());
    throw Exit{kExitFailed};
}

std::string instance_name() {
    char name[128] = {};
    ipp_instance_name(name, sizeof name);
    return name;
}

void require_device() {
    std::uint32_t owner = 0;
    const int state = ipp_device_state(&owner);
    const std::string instance = "instance \"" + instance_name() + "\"";
    switch (state) {
        case IPP_DEVICE_ATTACHED: {
            // The address module answers on every device, so its epoch request is the probe.
            std::uint8_t epoch = 0;
            if (IPAddr_Drvk_GetAddrGlobalEpoch(0, 0, &epoch) == 0) return;
            failure("the device of " + instance + " does not answer");
        }
        case IPP_DEVICE_FOREIGN:
            failure("refused by the simulator: it runs as uid " + std::to_string(owner) + " (" + instance + ")");
        case IPP_DEVICE_REFUSED:
            if (owner != ::geteuid()) {
                failure("refused by the simulator: it runs as uid " + std::to_string(owner) + " (" + instance + ")");
            }
            failure("the simulator of " + instance + " refused this process (is IPCLIENT_NODE a node of the device?)");
        case IPP_DEVICE_SILENT: failure("the simulator of " + instance + " does not answer (is it stopped?)");
        case IPP_DEVICE_NO_RESOURCES: failure("cannot reach the simulator of " + instance + ": no descriptor is free");
        default: failure("no simulator answers for " + instance);
    }
}

std::string Words::next() {
    if (done()) usage_error(verb_, "an argument is missing");
    return words_[at_++];
}

void Words::value_of(std::string_view keyword, std::optional<std::string>* into) {
    if (into->has_value()) usage_error(verb_, "\"" + std::string(keyword) + "\" is given twice");
    if (done()) usage_error(verb_, "\"" + std::string(keyword) + "\" needs a value");
    *into = words_[at_++];
}

void Words::expect_end() {
    if (done()) return;
    ++at_;
    unexpected();
}

void Words::unexpected() const { usage_error(verb_, "unexpected argument \"" + words_[at_ - 1] + "\""); }

CLI::App* add_verb(CLI::App* object, const std::string& name, const std::string& help, const std::string& usage,
                   Context& ctx, std::function<void(const CLI::App&, Words)> run) {
    auto words = std::make_shared<std::vector<std::string>>();
    CLI::App* verb = object->add_subcommand(name, help);
    verb->footer(usage);
    verb->add_option("words", *words, "the verb's arguments")->expected(0, -1);
    verb->callback([&ctx, verb, words, run = std::move(run)] {
        ctx.action = [verb, words, run] { run(*verb, Words(*verb, *words)); };
    });
    return verb;
}

CLI::App* add_object(CLI::App& app, const std::string& name, const std::string& help, const std::string& usage) {
    CLI::App* object = app.add_subcommand(name, help);
    object->footer(usage);
    object->require_subcommand(1, 1);
    return object;
}

std::uint32_t interface_index(const CLI::App& verb, const std::string& name) {
    std::uint32_t index = IF_GetIfIndexByFullName(name.c_str());
    if (index == 0 && !name.empty() && name.find_first_not_of("0123456789") == std::string::npos) {
        const unsigned long n = std::strtoul(name.c_str(), nullptr, 10);
        if (n <= UINT32_MAX && IF_IsValidIfIndex(static_cast<std::uint32_t>(n)) != 0)
            index = static_cast<std::uint32_t>(n);
    }
    if (index == 0) {
        // Without a device no interface is known: say that, not that the name is wrong.
        require_device();
        usage_error(verb, "no interface \"" + name + "\"");
    }
    return index;
}

std::string interface_name(std::uint32_t ifindex) {
    char name[IF_NAME_SIZE] = {};
    if (IF_GetDataByIfIndex(ifindex, IF_DATA_NAME, name) != 0) return "if" + std::to_string(ifindex);
    name[IF_NAME_SIZE - 1] = '\0';
    return name;
}

namespace {

// The subcommand of `at` that a word names: its name, or a prefix of one name alone. Null
// when none does; *others lists the names a prefix of several would stand for.
const CLI::App* named(const CLI::App& at, const std::string& word, std::vector<std::string>* others) {
    const CLI::App* found = nullptr;
    for (const CLI::App* sub : at.get_subcommands({})) {
        if (sub->get_name() == word) return sub;
        if (sub->get_name().rfind(word, 0) == 0) {
            others->push_back(sub->get_name());
            found = sub;
        }
    }
    return others->size() == 1 ? found : nullptr;
}

// The numbers of nodes as runs: "1-2, 5".
std::string node_runs(std::vector<std::uint16_t> nodes) {
    std::sort(nodes.begin(), nodes.end());
    std::string out;
    for (std::size_t i = 0; i < nodes.size();) {
        std::size_t j = i;
        while (j + 1 < nodes.size() && nodes[j + 1] == nodes[j] + 1) ++j;
        out += (out.empty() ? "" : ", ") + std::to_string(nodes[i]);
        if (j > i) out += "-" + std::to_string(nodes[j]);
        i = j + 1;
    }
    return out;
}

// Why the device cannot run the tool as this node: it does not have it. The nodes are asked
// as the master, on a thread of its own: the process's own connection, opened later, runs
// as the node asked. Nothing when the node is there or no device answers (the verb then says
// why).
std::optional<std::string> missing_node(std::uint16_t node) {
    std::vector<std::uint16_t> nodes;
    std::thread([&nodes] {
        std::uint32_t count = 0;
        if (std::uint16_t* list = DEV_GetAllNodes(&count)) {
            nodes.assign(list, list + count);
            std::free(list);
        }
    }).join();
    if (nodes.empty() || std::find(nodes.begin(), nodes.end(), node) != nodes.end()) return std::nullopt;
    return "no node " + std::to_string(node) + " (the device has " + (nodes.size() == 1 ? "node " : "nodes ") +
           node_runs(nodes) + ")";
}

// The global options that take a value, as the next word.
bool takes_value(const std::string& word) {
    return word == "-i" || word == "--instance" || word == "-n" || word == "--node";
}

}  // namespace

// The command line as ip reads it: any unique prefix of an object or of a verb stands for it
// (ipctl a, ipctl r g 10.1.1.1), an object given alone shows (ipctl addr), and "help" in the
// place of an object or a verb asks for its help. A prefix of several names is a usage error
// that lists them.
std::vector<std::string> expanded(const CLI::App& app, std::vector<std::string> args) {
    // ip's own spellings of its options: -br and -brief, -c and -color with =WHEN (always
    // when none is given).
    for (std::size_t k = 0; k < args.size() && args[k].size() > 1 && args[k][0] == '-'; k += takes_value(args[k]) ? 2u : 1u) {
        std::string& a = args[k];
        const std::size_t eq = a.find('=');
        const std::string name = a.substr(0, eq);
        const std::string when = eq == std::string::npos ? "always" : a.substr(eq + 1);
        const bool word_follows = eq == std::string::npos && k + 1 < args.size() &&
                                  (args[k + 1] == "always" || args[k + 1] == "auto" || args[k + 1] == "never");
        if (name == "-br" || name == "-brief") {
            a = "--brief";
        } else if (name == "-c" || name == "-color" || name == "--color") {
            // "--color WHEN" as the parser takes it; else =WHEN, always when none is given.
            if (word_follows) {
                a = "--color=" + args[k + 1];
                args.erase(args.begin() + static_cast<std::ptrdiff_t>(k) + 1);
            } else {
                a = "--color=" + when;
            }
        }
    }
    std::size_t i = 0;
    while (i < args.size() && args[i].size() > 1 && args[i][0] == '-') i += takes_value(args[i]) ? 2u : 1u;
    if (i >= args.size()) return args;
    const CLI::App* at = &app;
    for (int level = 0; level < 2; ++level) {
        if (i >= args.size()) {
            // An object without its verb: show, where it has one.
            std::vector<std::string> none;
            if (level == 1 && named(*at, "show", &none) != nullptr) args.emplace_back("show");
            return args;
        }
        if (args[i] == "help") {
            args[i] = "--help";
            return args;
        }
        std::vector<std::string> names;
        const CLI::App* sub = named(*at, args[i], &names);
        if (sub == nullptr && names.size() > 1) {
            std::string list;
            for (const std::string& n : names) list += (list.empty() ? "" : ", ") + n;
            std::fprintf(stderr, "Error: \"%s\" is ambiguous: %s\nUsage: ipctl [-i NAME] [-n N] [-j] [-p] %s\n",
                         args[i].c_str(), list.c_str(), at->get_footer().c_str());
            throw Exit{kExitUsage};
        }
        if (sub == nullptr) return args;  // unknown: the parser names it
        args[i] = sub->get_name();
        if (sub->get_subcommands({}).empty()) return args;  // a verb of its own (status, monitor)
        at = sub;
        ++i;
    }
    return args;
}

}  // namespace ipctl

int main(int argc, char** argv) {
    using namespace ipctl;
    CLI::App app{"ipctl: looks at and changes a device's IP state through the IP client library"};
    app.name("ipctl");
    app.footer("OBJECT COMMAND [ARGS]; OBJECT := device | addr | link | neigh | route | stats | monitor | status");
    std::string instance;
    int node = -1;
    bool json = false, pretty = false, brief = false, stats = false;
    std::string color = "never";
    app.add_option("-i,--instance", instance, "the device (simulator instance) to talk to");
    app.add_option("-n,--node", node, "the node to ask and to run as (1..32767)")->check(CLI::Range(1, 32767));
    app.add_flag("-j,--json", json, "JSON output");
    app.add_flag("-p,--pretty", pretty, "indented JSON output");
    app.add_flag("--brief", brief, "one line an interface (addr, link) or an entry (neigh); also -br");
    app.add_flag("-s,--stats", stats, "with link: the interfaces' counters");
    app.add_option("--color", color, "colour the output: always (-c), auto (on a terminal) or never")
        ->check(CLI::IsMember({"always", "auto", "never"}));
    app.set_version_flag("-V,--version", std::string("ipctl ") + IPCTL_VERSION + ", libipclient " + IPCTL_VERSION);
    app.require_subcommand(1, 1);

    Printer printer(false, false);
    Context ctx;
    ctx.out = &printer;
    add_device(app, ctx);
    add_addr(app, ctx);
    add_link(app, ctx);
    add_neigh(app, ctx);
    add_route(app, ctx);
    add_stats(app, ctx);
    add_monitor(app, ctx);
    add_status(app, ctx);

    try {
        std::vector<std::string> args;
        try {
            args = expanded(app, std::vector<std::string>(argv + 1, argv + argc));
        } catch (const Exit& e) {
            return e.code;
        }
        // The parser takes the words last first.
        std::reverse(args.begin(), args.end());
        app.parse(args);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        // The usage line of the deepest object or verb that was recognised.
        const CLI::App* at = &app;
        for (std::vector<CLI::App*> subs = app.get_subcommands(); !subs.empty(); subs = at->get_subcommands())
            at = subs.front();
        // A word where an object or a verb belongs is left over as an extra: name it rather
        // than say that the object or verb is missing.
        std::string message = e.what();
        const std::vector<std::string> extras = at->remaining();
        if (dynamic_cast<const CLI::RequiredError*>(&e) != nullptr && !extras.empty())
            message = std::string(at == &app ? "unknown object" : "unknown command") + " \"" + extras.front() + "\"";
        else if (dynamic_cast<const CLI::RequiredError*>(&e) != nullptr && at->get_subcommands({}).size() > 0)
            message = at == &app ? "an object is missing" : "a command is missing";
        std::fprintf(stderr, "Error: %s\nUsage: ipctl [-i NAME] [-n N] [-j] [-p] %s\n", message.c_str(),
                     at->get_footer().c_str());
        return kExitUsage;
    }
    // The platform reads the instance and the node when the first call reaches the device.
    const char* env = std::getenv("IPCLIENT_INSTANCE");
    if (!instance.empty()) {
        ::setenv("IPCLIENT_INSTANCE", instance.c_str(), 1);
    } else if (env == nullptr || *env == '\0') {
        ::setenv("IPCLIENT_INSTANCE", "default", 1);
    }
    if (node > 0) {
        if (const auto why = missing_node(static_cast<std::uint16_t>(node))) {
            std::fprintf(stderr, "ipctl: %s\n", why->c_str());
            return kExitFailed;
        }
        ::setenv("IPCLIENT_NODE", std::to_string(node).c_str(), 1);
        ctx.node = static_cast<std::uint16_t>(node);
    }
    ctx.brief = brief;
    ctx.stats = stats;
    const bool colour = color == "always" || (color == "auto" && ::isatty(STDOUT_FILENO) == 1);
    printer = Printer(json || pretty, pretty, stdout, colour);
    try {
        if (ctx.action) ctx.action();
        return kExitOk;
    } catch (const Exit& e) {
        return e.code;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "ipctl: %s\n", e.what());
        return kExitFailed;
    }
}
