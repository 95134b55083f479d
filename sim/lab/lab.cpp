#include "lab/lab.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "ipproto/control_channel.hpp"
#include "lab/topology.hpp"
#include "scenario/scenario.hpp"
#include "source/nl_socket.hpp"

namespace sim::lab {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

constexpr std::chrono::milliseconds kReadyWithin{15000};
constexpr std::chrono::milliseconds kStopWithin{2000};

struct Failure {
    std::string what;
};

std::string state_root() {
    if (const char* d = std::getenv("IPSIMD_LAB_DIR"); d != nullptr && *d != '\0') return d;
    if (::geteuid() == 0) return "/run/ipsimd-lab";
    if (const char* x = std::getenv("XDG_RUNTIME_DIR"); x != nullptr && *x != '\0') return std::string(x) + "/ipsimd-lab";
    return "/tmp/ipsimd-lab-" + std::to_string(::geteuid());
}

std::string ip_program() {
    for (const char* p : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
        if (::access(p, X_OK) == 0) return p;
    }
    return "ip";
}

// The start time of a process (field 22 of /proc/PID/stat); 0 when it has none, or when it
// ended and waits to be reaped (a zombie whose parent does not reap is as good as gone).
unsigned long long start_time(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    char buf[1024];
    const ssize_t n = ::read(fd, buf, sizeof buf - 1);
    ::close(fd);
    if (n <= 0) return 0;
    buf[n] = '\0';
    // The name (field 2) may hold spaces and parentheses: fields are counted after its last ')'.
    const char* p = std::strrchr(buf, ')');
    if (p == nullptr || p[1] != ' ' || p[2] == 'Z' || p[2] == 'X') return 0;
    ++p;
    for (int field = 2; field < 21 && p != nullptr; ++field) p = std::strchr(p + 1, ' ');
    return p == nullptr ? 0 : std::strtoull(p + 1, nullptr, 10);
}

// A child in a session of its own: standard input from /dev/null, output and error to the
// descriptors given (-1: /dev/null). The pid, or -1.
pid_t start(const std::vector<std::string>& argv, int out_fd, int err_fd) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    ::setsid();
    const int null = ::open("/dev/null", O_RDWR);
    ::dup2(null, 0);
    ::dup2(out_fd >= 0 ? out_fd : null, 1);
    ::dup2(err_fd >= 0 ? err_fd : null, 2);
    if (null > 2) ::close(null);  // the program keeps no descriptor of the lab's
    ::execvp(args[0], args.data());
    ::_exit(127);
}

// Runs a command to its end; throws with its error output when it fails.
void must(const std::vector<std::string>& argv) {
    char path[] = "/tmp/ipsimd-lab-err-XXXXXX";
    const int err = ::mkstemp(path);
    ::unlink(path);
    const pid_t pid = start(argv, -1, err);
    int status = 0;
    while (pid > 0 && ::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    std::string text;
    if (err >= 0) {
        char buf[2048];
        const ssize_t n = ::pread(err, buf, sizeof buf - 1, 0);
        if (n > 0) text.assign(buf, static_cast<std::size_t>(n));
        ::close(err);
    }
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    if (pid < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::string cmd;
        for (const std::string& a : argv) cmd += (cmd.empty() ? "" : " ") + a;
        throw Failure{cmd + ": " + (text.empty() ? "failed" : text)};
    }
}

// What a command writes on its standard output ("" when it cannot run).
std::string output(const std::vector<std::string>& argv) {
    char path[] = "/tmp/ipsimd-lab-out-XXXXXX";
    const int out = ::mkstemp(path);
    if (out < 0) return {};
    ::unlink(path);
    const pid_t pid = start(argv, out, -1);
    int status = 0;
    while (pid > 0 && ::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    std::string text;
    char buf[4096];
    for (off_t at = 0;;) {
        const ssize_t n = ::pread(out, buf, sizeof buf, at);
        if (n <= 0) break;
        text.append(buf, static_cast<std::size_t>(n));
        at += n;
    }
    ::close(out);
    return text;
}

// True when nothing answers for the instance.
bool instance_free(const std::string& instance) {
    return ipc::control::ask(instance, R"({"op":"fault.list"})", 300).outcome == ipc::control::Exchange::kNoSimulator;
}

bool answers(const std::string& instance) {
    return ipc::control::ask(instance, R"({"op":"fault.list"})", 500).outcome == ipc::control::Exchange::kAnswered;
}

// The lab's state file: what it made, written before it is made.
class State {
public:
    explicit State(std::string name) : dir_(state_root() + "/" + name), path_(dir_ + "/state.json") {}

    bool exists() const { return fs::exists(path_); }
    const std::string& dir() const noexcept { return dir_; }
    json& data() noexcept { return j_; }

    void load() {
        std::ifstream in(path_);
        j_ = json::parse(in, nullptr, false);
        if (j_.is_discarded() || !j_.is_object()) throw Failure{path_ + ": not a lab's state"};
    }
    void create(const Topology& t) {
        fs::create_directories(dir_);
        ::chmod(dir_.c_str(), 0700);
        j_ = json{{"lab", t.name}, {"file", fs::absolute(t.file).string()}, {"namespaces", json::array()},
                  {"processes", json::array()}, {"devices", json::array()}, {"links", json::array()}, {"complete", false}};
        save();
    }
    // Written whole to a new file, then put in place: a reader sees the old or the new.
    void save() {
        const std::string tmp = path_ + ".new";
        {
            std::ofstream out(tmp, std::ios::trunc);
            out << j_.dump(2) << "\n";
            out.flush();
            if (!out) throw Failure{"cannot write " + tmp};
        }
        const int fd = ::open(tmp.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            (void)::fsync(fd);
            ::close(fd);
        }
        if (::rename(tmp.c_str(), path_.c_str()) != 0) throw Failure{"cannot write " + path_ + ": " + std::strerror(errno)};
    }
    void remove() { fs::remove_all(dir_); }

private:
    std::string dir_;
    std::string path_;
    json j_;
};

std::string ns_of(const std::string& lab, const std::string& device) { return lab + "-" + device; }

// A process the lab started: alive while its pid has the start time it had.
bool alive(const json& p) {
    const auto pid = p.value("pid", 0);
    const auto start = p.find("start");
    const unsigned long long when =
        start != p.end() && start->is_number_unsigned() ? start->get_ref<const json::number_unsigned_t&>() : 0;
    return pid > 0 && ::kill(pid, 0) == 0 && start_time(pid) == when;
}

void stop_process(const json& p) {
    if (!alive(p)) return;
    const pid_t pid = p.value("pid", 0);
    ::kill(-pid, SIGTERM);  // its session's group: a command's children too
    ::kill(pid, SIGTERM);
    const auto end = std::chrono::steady_clock::now() + kStopWithin;
    while (alive(p) && std::chrono::steady_clock::now() < end) {
        (void)::waitpid(pid, nullptr, WNOHANG);
        const timespec pause{0, 10'000'000};
        ::nanosleep(&pause, nullptr);
    }
    if (alive(p)) {
        ::kill(-pid, SIGKILL);
        ::kill(pid, SIGKILL);
    }
    (void)::waitpid(pid, nullptr, WNOHANG);
}

// Takes down what the state says the lab made; true when all of it went.
bool take_down(State& st, std::string* problems) {
    json& j = st.data();
    bool ok = true;
    for (const json& p : j["processes"]) stop_process(p);
    for (const json& ns : j["namespaces"]) {
        const std::string name = ns.get<std::string>();
        if (!fs::exists("/run/netns/" + name)) continue;
        try {
            must({ip_program(), "netns", "del", name});
        } catch (const Failure& f) {
            ok = false;
            *problems += f.what + "\n";
        }
    }
    if (ok) st.remove();
    return ok;
}

// The lab's name: the topology file's, or the argument itself when it is not a file.
std::string lab_name(const std::string& file_or_name) {
    if (fs::is_regular_file(file_or_name)) return load_topology(file_or_name).name;
    return file_or_name;
}

std::string interface_ns(const Topology& t, const std::string& device) { return ns_of(t.name, device); }

// A command run on a device: in its namespace (a Linux device's), with the environment that
// makes the library talk to the device's simulator: IPCLIENT_INSTANCE, and IPCLIENT_NETNS,
// the network namespace the simulator listens in (its channels' socket names are of that
// namespace, not of the device's).
std::vector<std::string> device_command(const std::string& lab, const std::string& device, bool linux_source,
                                        pid_t simulator, const std::vector<std::string>& command) {
    std::vector<std::string> argv;
    if (linux_source) argv = {ip_program(), "netns", "exec", ns_of(lab, device)};
    argv.insert(argv.end(), {"env", "IPCLIENT_INSTANCE=" + device});
    if (linux_source && simulator > 0) argv.push_back("IPCLIENT_NETNS=/proc/" + std::to_string(simulator) + "/ns/net");
    argv.insert(argv.end(), command.begin(), command.end());
    return argv;
}

class Up {
public:
    Up(const Topology& t, State& st, std::string self) : t_(t), st_(st), self_(std::move(self)) {}

    void run() {
        for (const Device& d : t_.devices) {
            if (!instance_free(d.name)) throw Failure{"a simulator already answers for instance \"" + d.name + "\""};
            if (d.linux_source && fs::exists("/run/netns/" + ns_of(t_.name, d.name))) {
                throw Failure{"namespace " + ns_of(t_.name, d.name) + " exists already"};
            }
        }
        for (const Device& d : t_.devices) {
            if (d.linux_source) make_namespace(d);
            st_.data()["devices"].push_back(
                {{"name", d.name}, {"source", d.linux_source ? "linux" : "scenario"},
                 {"namespace", d.linux_source ? ns_of(t_.name, d.name) : ""}, {"instance", d.name}});
        }
        st_.save();
        for (const Link& l : t_.links) make_link(l);
        for (const Device& d : t_.devices) {
            if (d.linux_source) configure(d);
        }
        // A link's carrier comes a moment after both ends are up: the devices start once every
        // link that is up carries, so that each simulator first sees its links as they stay.
        for (const Link& l : t_.links) {
            if (!l.up) continue;
            for (const End& e : {l.a, l.b}) wait_carrier(e);
        }
        for (const Device& d : t_.devices) start_simulator(d);
        for (const Device& d : t_.devices) {
            for (std::size_t i = 0; i < d.run.size(); ++i) start_command(d, i);
        }
        st_.data()["complete"] = true;
        st_.save();
    }

private:
    std::vector<std::string> in_ns(const std::string& device, std::vector<std::string> args) const {
        std::vector<std::string> argv{ip_program(), "-n", interface_ns(t_, device)};
        argv.insert(argv.end(), args.begin(), args.end());
        return argv;
    }

    void make_namespace(const Device& d) {
        const std::string ns = ns_of(t_.name, d.name);
        st_.data()["namespaces"].push_back(ns);  // recorded first: down removes it whatever happens next
        st_.save();
        must({ip_program(), "netns", "add", ns});
        must(in_ns(d.name, {"link", "set", "lo", "up"}));
    }

    void make_link(const Link& l) {
        must(in_ns(l.a.device, {"link", "add", l.a.interface, "type", "veth", "peer", "name", l.b.interface, "netns",
                                interface_ns(t_, l.b.device)}));
        for (const End& e : {l.a, l.b}) {
            if (l.delay_ms || l.loss) {
                std::vector<std::string> args{"qdisc", "add", "dev", e.interface, "root", "netem"};
                if (l.delay_ms) args.insert(args.end(), {"delay", std::to_string(*l.delay_ms) + "ms"});
                if (l.loss) args.insert(args.end(), {"loss", std::to_string(*l.loss) + "%"});
                std::vector<std::string> argv{"tc", "-n", interface_ns(t_, e.device)};
                argv.insert(argv.end(), args.begin(), args.end());
                must(argv);
            }
        }
        json link{{"a", l.a.device + ":" + l.a.interface}, {"b", l.b.device + ":" + l.b.interface}, {"up", l.up}};
        if (l.delay_ms) link["delay_ms"] = *l.delay_ms;
        if (l.loss) link["loss"] = *l.loss;
        st_.data()["links"].push_back(link);
        st_.save();
    }

    void configure(const Device& d) {
        std::size_t dummies = 0;
        for (const Interface& i : d.interfaces) {
            if (i.kind == "dummy") {
                try {
                    must(in_ns(d.name, {"link", "add", i.name, "type", "dummy"}));
                } catch (const Failure&) {
                    // A kernel without dummy devices: a veth whose peer stays beside it.
                    must(in_ns(d.name, {"link", "add", i.name, "type", "veth", "peer", "name",
                                        "labdummy" + std::to_string(dummies++)}));
                }
            }
            if (i.mtu) must(in_ns(d.name, {"link", "set", i.name, "mtu", std::to_string(*i.mtu)}));
            for (const std::string& a : i.addresses) {
                std::vector<std::string> args{"addr", "add", a, "dev", i.name};
                if (a.find(':') != std::string::npos) args.push_back("nodad");
                must(in_ns(d.name, args));
            }
        }
        // Links up as the file says; the other interfaces up.
        for (const Link& l : t_.links) {
            for (const End& e : {l.a, l.b}) {
                if (e.device == d.name) must(in_ns(d.name, {"link", "set", e.interface, l.up ? "up" : "down"}));
            }
        }
        for (const Interface& i : d.interfaces) {
            if (i.kind == "dummy") must(in_ns(d.name, {"link", "set", i.name, "up"}));
        }
        for (const auto& [key, value] : d.sysctls) set_sysctl(d, key, value);
        for (const Route& r : d.routes) {
            const bool v6 = r.to.find(':') != std::string::npos || (r.via && r.via->find(':') != std::string::npos);
            std::vector<std::string> args{v6 ? "-6" : "-4", "route", "add"};
            if (r.type != "unicast") args.push_back(r.type);
            args.push_back(r.to);
            if (r.via) args.insert(args.end(), {"via", *r.via});
            if (r.dev) args.insert(args.end(), {"dev", *r.dev});
            if (r.metric) args.insert(args.end(), {"metric", std::to_string(*r.metric)});
            if (r.table) args.insert(args.end(), {"table", std::to_string(*r.table)});
            must(in_ns(d.name, args));
        }
    }

    void wait_carrier(const End& e) {
        const auto end = std::chrono::steady_clock::now() + kReadyWithin;
        while (output(in_ns(e.device, {"-o", "link", "show", "dev", e.interface})).find(" state UP ") == std::string::npos) {
            if (std::chrono::steady_clock::now() >= end) throw Failure{e.device + ":" + e.interface + " has no carrier"};
            const timespec pause{0, 20'000'000};
            ::nanosleep(&pause, nullptr);
        }
    }

    // net.ipv4.ip_forward -> /proc/sys/net/ipv4/ip_forward, written inside the namespace.
    void set_sysctl(const Device& d, const std::string& key, const std::string& value) {
        std::string path = "/proc/sys/" + key;
        for (std::size_t i = std::string("/proc/sys/").size(); i < path.size(); ++i) {
            if (path[i] == '.') path[i] = '/';
        }
        const nl::NetnsScope inside(ns_of(t_.name, d.name));
        if (!inside.error().empty()) throw Failure{inside.error()};
        std::ofstream out(path);
        out << value << "\n";
        out.flush();
        if (!out) throw Failure{d.name + ": cannot set " + key + " (" + path + ")"};
    }

    void record(const std::string& device, const std::string& what, pid_t pid) {
        const json::number_unsigned_t when = start_time(pid);
        st_.data()["processes"].push_back({{"device", device}, {"what", what}, {"pid", pid}, {"start", when}});
        st_.save();
    }

    void start_simulator(const Device& d) {
        const std::string dir = st_.dir() + "/" + d.name;
        fs::create_directories(dir + "/state");
        std::vector<std::string> argv{self_, "--instance", d.name, "--state", dir + "/state"};
        if (d.linux_source) {
            argv.insert(argv.end(), {"--source", "linux", "--netns", ns_of(t_.name, d.name)});
            if (d.writable) argv.push_back("--writable");
        } else if (!d.scenario.empty()) {
            argv.insert(argv.end(), {"--scenario", d.scenario});
        }
        const int log = ::open((dir + "/ipsimd.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        const pid_t pid = start(argv, log, log);
        if (log >= 0) ::close(log);
        if (pid < 0) throw Failure{d.name + ": cannot start " + self_};
        record(d.name, "ipsimd", pid);
        sim_pids_[d.name] = pid;
        // Ready once its control channel answers.
        const auto end = std::chrono::steady_clock::now() + kReadyWithin;
        while (!answers(d.name)) {
            int status = 0;
            if (::waitpid(pid, &status, WNOHANG) == pid || std::chrono::steady_clock::now() >= end) {
                throw Failure{d.name + ": the simulator did not become ready; see " + dir + "/ipsimd.log"};
            }
            const timespec pause{0, 20'000'000};
            ::nanosleep(&pause, nullptr);
        }
    }

    void start_command(const Device& d, std::size_t n) {
        const std::string path = st_.dir() + "/" + d.name + "/run-" + std::to_string(n + 1) + ".log";
        const int log = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        const pid_t pid = start(device_command(t_.name, d.name, d.linux_source, sim_pids_[d.name], {"sh", "-c", d.run[n]}), log, log);
        if (log >= 0) ::close(log);
        if (pid < 0) throw Failure{d.name + ": cannot run " + d.run[n]};
        record(d.name, "run " + std::to_string(n + 1) + ": " + d.run[n], pid);
    }

    const Topology& t_;
    State& st_;
    std::string self_;
    std::map<std::string, pid_t> sim_pids_;  // each device's simulator
};

json describe(State& st) {
    json& j = st.data();
    json out{{"lab", j["lab"]}, {"file", j["file"]}, {"complete", j["complete"]}, {"devices", json::array()},
             {"links", j["links"]}, {"processes", json::array()}};
    for (const json& d : j["devices"]) {
        json dev = d;
        dev["running"] = false;
        for (const json& p : j["processes"]) {
            if (p["device"] == d["name"] && p["what"] == "ipsimd") {
                dev["pid"] = p["pid"];
                dev["running"] = alive(p);
            }
        }
        out["devices"].push_back(dev);
    }
    for (const json& p : j["processes"]) {
        json q = p;
        q.erase("start");
        q["running"] = alive(p);
        out["processes"].push_back(q);
    }
    return out;
}

void print_text(const json& d) {
    std::printf("lab %s (%s)%s\n", d["lab"].get<std::string>().c_str(), d["file"].get<std::string>().c_str(),
                d["complete"].get<bool>() ? "" : ": incomplete (up failed or is running)");
    std::printf("devices:\n");
    for (const json& dev : d["devices"]) {
        std::printf("  %-15s %-8s %-28s %s\n", dev["name"].get<std::string>().c_str(),
                    dev["source"].get<std::string>().c_str(),
                    dev["namespace"].get<std::string>().empty() ? "-" : dev["namespace"].get<std::string>().c_str(),
                    dev["running"].get<bool>() ? ("running, pid " + std::to_string(dev.value("pid", 0))).c_str() : "stopped");
    }
    std::printf("links:\n");
    for (const json& l : d["links"]) {
        std::string extra;
        if (l.contains("delay_ms")) extra += " delay " + std::to_string(l["delay_ms"].get<unsigned>()) + " ms";
        if (l.contains("loss")) {
            char buf[32];
            std::snprintf(buf, sizeof buf, " loss %g%%", l["loss"].get<double>());
            extra += buf;
        }
        std::printf("  %s <-> %s %s%s\n", l["a"].get<std::string>().c_str(), l["b"].get<std::string>().c_str(),
                    l["up"].get<bool>() ? "up" : "down", extra.c_str());
    }
    std::printf("processes:\n");
    for (const json& p : d["processes"]) {
        std::printf("  %-15s pid %-8d %-8s %s\n", p["device"].get<std::string>().c_str(), p["pid"].get<int>(),
                    p["running"].get<bool>() ? "running" : "gone", p["what"].get<std::string>().c_str());
    }
}

int cmd_up(const std::string& file, bool as_json, const std::string& self) {
    Topology t;
    try {
        t = load_topology(file);
    } catch (const scenario::Error& e) {
        std::fprintf(stderr, "ipsimd lab: %s\n", e.what());
        return 2;
    }
    State st(t.name);
    if (st.exists()) {
        std::fprintf(stderr, "ipsimd lab: lab %s is up already (%s/state.json); take it down first\n", t.name.c_str(),
                     st.dir().c_str());
        return 1;
    }
    st.create(t);
    try {
        Up(t, st, self).run();
    } catch (const Failure& f) {
        std::fprintf(stderr, "ipsimd lab: %s\n", f.what.c_str());
        std::string problems;
        if (!take_down(st, &problems)) std::fprintf(stderr, "ipsimd lab: taking the lab down again: %s", problems.c_str());
        return 1;
    }
    const json d = describe(st);
    if (as_json) std::printf("%s\n", d.dump().c_str());
    else print_text(d);
    return 0;
}

int cmd_down(const std::string& which) {
    State st(lab_name(which));
    if (!st.exists()) {
        std::fprintf(stderr, "ipsimd lab: no lab %s is up (%s)\n", lab_name(which).c_str(), st.dir().c_str());
        return 1;
    }
    st.load();
    std::string problems;
    if (!take_down(st, &problems)) {
        std::fprintf(stderr, "ipsimd lab: %s", problems.c_str());
        return 1;
    }
    return 0;
}

int cmd_show(const std::string& which, bool as_json) {
    State st(lab_name(which));
    if (!st.exists()) {
        std::fprintf(stderr, "ipsimd lab: no lab %s is up (%s)\n", lab_name(which).c_str(), st.dir().c_str());
        return 1;
    }
    st.load();
    const json d = describe(st);
    if (as_json) std::printf("%s\n", d.dump().c_str());
    else print_text(d);
    return 0;
}

int cmd_link(const std::string& which, const std::string& end, const std::string& state) {
    State st(lab_name(which));
    if (!st.exists()) {
        std::fprintf(stderr, "ipsimd lab: no lab %s is up\n", lab_name(which).c_str());
        return 1;
    }
    st.load();
    json& j = st.data();
    for (json& l : j["links"]) {
        if (l["a"] != end && l["b"] != end) continue;
        const bool up = state == "up";
        for (const char* side : {"a", "b"}) {
            const std::string e = l[side].get<std::string>();
            const std::size_t colon = e.find(':');
            must({ip_program(), "-n", ns_of(j["lab"].get<std::string>(), e.substr(0, colon)), "link", "set",
                  e.substr(colon + 1), up ? "up" : "down"});
        }
        l["up"] = up;
        st.save();
        return 0;
    }
    std::fprintf(stderr, "ipsimd lab: no link of lab %s ends at %s\n", j["lab"].get<std::string>().c_str(), end.c_str());
    return 1;
}

// Runs a command on a device of a lab that is up, as its `run` commands run; the command's
// exit status, 127 when it cannot be started.
int cmd_exec(const std::string& which, const std::string& device, const std::vector<std::string>& command) {
    State st(lab_name(which));
    if (!st.exists()) {
        std::fprintf(stderr, "ipsimd lab: no lab %s is up\n", lab_name(which).c_str());
        return 1;
    }
    st.load();
    const json d = describe(st);
    for (const json& dev : d["devices"]) {
        if (dev["name"] != device) continue;
        if (!dev["running"].get<bool>()) {
            std::fprintf(stderr, "ipsimd lab: the simulator of device %s is not running\n", device.c_str());
            return 1;
        }
        const std::vector<std::string> argv =
            device_command(d["lab"].get<std::string>(), device, dev["source"] == "linux", dev.value("pid", pid_t{0}), command);
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        std::fflush(stdout);
        ::execvp(args[0], args.data());
        std::fprintf(stderr, "ipsimd lab: cannot run %s: %s\n", args[0], std::strerror(errno));
        return 127;
    }
    std::fprintf(stderr, "ipsimd lab: lab %s has no device %s\n", d["lab"].get<std::string>().c_str(), device.c_str());
    return 1;
}

}  // namespace

int lab_main(const std::vector<std::string>& args, const std::string& self) {
    CLI::App app{"ipsimd lab: a lab of simulated devices on this host (docs/lab.md)"};
    app.name("ipsimd lab");
    app.require_subcommand(1, 1);
    std::string file, which, end, state;
    bool as_json = false;
    CLI::App* up = app.add_subcommand("up", "makes the lab of a topology file and starts its devices");
    up->add_option("FILE", file, "the topology file")->required();
    up->add_flag("-j,--json", as_json, "JSON output");
    CLI::App* down = app.add_subcommand("down", "removes every namespace, link and process the lab made");
    down->add_option("LAB", which, "the topology file or the lab's name")->required();
    CLI::App* show = app.add_subcommand("show", "the lab's devices, links and processes");
    show->add_option("LAB", which, "the topology file or the lab's name")->required();
    show->add_flag("-j,--json", as_json, "JSON output");
    CLI::App* link = app.add_subcommand("link", "takes a link down or up");
    link->add_option("LAB", which, "the topology file or the lab's name")->required();
    link->add_option("END", end, "one end of the link, DEVICE:INTERFACE")->required();
    link->add_option("STATE", state, "up or down")->required()->check(CLI::IsMember({"up", "down"}));
    std::string device;
    std::vector<std::string> command;
    CLI::App* exec = app.add_subcommand("exec", "runs a command on a device, as its run commands run");
    exec->add_option("LAB", which, "the topology file or the lab's name")->required();
    exec->add_option("DEVICE", device, "the device")->required();
    exec->add_option("COMMAND", command, "the command and its arguments (after --)")->required();
    std::vector<std::string> argv(args.rbegin(), args.rend());
    try {
        app.parse(argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : 2;
    }
    try {
        if (up->parsed()) return cmd_up(file, as_json, self);
        if (down->parsed()) return cmd_down(which);
        if (show->parsed()) return cmd_show(which, as_json);
        if (exec->parsed()) return cmd_exec(which, device, command);
        return cmd_link(which, end, state);
    } catch (const Failure& f) {
        std::fprintf(stderr, "ipsimd lab: %s\n", f.what.c_str());
    } catch (const scenario::Error& e) {
        std::fprintf(stderr, "ipsimd lab: %s\n", e.what());
        return 2;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "ipsimd lab: %s\n", e.what());
    }
    return 1;
}

}  // namespace sim::lab
