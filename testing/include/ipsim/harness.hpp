// A simulated device for the tests of programs written on the IP client library.
//
// ipsim::Device starts ipsimd as a process of its own (on a scenario file, a scenario given
// as YAML text, or a mirrored Linux network namespace), waits for its ready line, and stops
// it when the object goes: SIGTERM, then SIGKILL after two seconds. Everything it makes
// (state directory, log, capture, scenario file) is in one temporary directory of its own,
// removed with it; it kills no process but its own simulator.
//
//   ipsim::Device dev(ipsim::Scenario::yaml("nodes: [{number: 1, role: master}]\n..."));
//   dev.use_here();                        // this process's library calls reach it
//   run_my_agent(dev.environment());       // so do a child's
//   dev.control(R"({"op": "link.set", "interface": 2, "state": "down"})");
//   dev.set_fault(R"({"kernel": "0x380001", "error": "0x40010001"})");
//   std::string lines = dev.capture();     // one JSON line per request and answer
//
// Header only; it needs the C++17 standard library and POSIX, nothing else, and works with
// any test framework (failures are thrown as ipsim::Error). Control operations go through
// `ipsimd --control`, so the answers are the simulator's JSON text as it stands.
//
// Which ipsimd runs: Options::ipsimd when set, else the IPSIMD environment variable, else
// "ipsimd" found on PATH.
#pragma once

#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

extern char** environ;

namespace ipsim {

// What a Device could not do, with the simulator's words where it said some.
class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// What the device is made from.
struct Scenario {
    enum class Kind { kDefault, kFile, kYaml, kNamespace };
    Kind kind = Kind::kDefault;
    std::string text;       // the file's path, the YAML, or the namespace's name
    bool writable = false;  // a namespace: client changes are carried out in it

    // The scenario ipsimd carries with it.
    static Scenario bundled() { return {}; }
    static Scenario file(std::string path) { return {Kind::kFile, std::move(path), false}; }
    static Scenario yaml(std::string text) { return {Kind::kYaml, std::move(text), false}; }
    // A Linux network namespace (/run/netns/NAME; "" the one the test runs in) that the device mirrors.
    static Scenario mirror(std::string netns, bool writable = false) {
        return {Kind::kNamespace, std::move(netns), writable};
    }
};

struct Options {
    std::string ipsimd;                  // the program; "" as the header's comment says
    std::string instance;                // "" a name of its own: "h<pid>-<n>"
    bool capture = true;                 // keep a capture of every request and answer
    std::vector<std::string> args;       // more options for ipsimd
    std::chrono::milliseconds ready_within{10000};
};

class Device {
public:
    explicit Device(Scenario scenario = Scenario::bundled(), Options options = {}) : opts_(std::move(options)) {
        dir_ = make_dir();
        try {
            start(scenario);
        } catch (...) {
            remove_dir();
            throw;
        }
    }
    ~Device() {
        stop();
        remove_dir();
    }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    // The instance the simulator runs for, and the environment a child program needs to
    // reach it (the parent's, with IPCLIENT_INSTANCE set), as "NAME=VALUE" strings.
    const std::string& instance() const noexcept { return instance_; }
    std::vector<std::string> environment() const {
        std::vector<std::string> env;
        for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
            if (std::strncmp(*e, "IPCLIENT_INSTANCE=", 18) != 0) env.emplace_back(*e);
        }
        env.push_back("IPCLIENT_INSTANCE=" + instance_);
        return env;
    }
    // Makes this process's library calls reach the device (set before the first call).
    void use_here() const { ::setenv("IPCLIENT_INSTANCE", instance_.c_str(), 1); }

    // The ready line ("ready instance=NAME nodes=N") and the simulator's process.
    const std::string& ready_line() const noexcept { return ready_; }
    pid_t pid() const noexcept { return pid_; }
    bool running() const noexcept { return pid_ > 0; }

    // One control operation: the request as a JSON object, the simulator's answer as its
    // JSON text. Throws when the answer is not {"ok": true, ...}, with its words.
    std::string control(const std::string& request) const {
        std::string out;
        const int rc = run({program(), "--instance", instance_, "--control", request}, &out);
        while (!out.empty() && out.back() == '\n') out.pop_back();
        if (rc != 0) throw Error("ipsimd control " + request + ": " + (out.empty() ? "no answer" : out));
        return out;
    }
    // The same, with the answer whatever it says (an {"ok": false, ...} answer included).
    std::string control_any(const std::string& request) const {
        std::string out;
        (void)run({program(), "--instance", instance_, "--control", request}, &out);
        while (!out.empty() && out.back() == '\n') out.pop_back();
        return out;
    }

    // Faults: the fields of a fault.set request ({"kernel": ..., "error": ...}, without "op"),
    // the answer's text; all cleared, or those of one scope (fields of fault.clear).
    std::string set_fault(const std::string& fields) const { return control(with_op("fault.set", fields)); }
    std::string clear_faults(const std::string& fields = "{}") const { return control(with_op("fault.clear", fields)); }
    std::string faults() const { return control(R"({"op": "fault.list"})"); }

    // What the simulator captured so far: one JSON line per request and answer ("" when
    // the device was made without a capture).
    std::string capture() const { return opts_.capture ? read_file(dir_ + "/capture.jsonl") : std::string(); }
    // What the simulator wrote on its standard error so far.
    std::string log() const { return read_file(dir_ + "/ipsimd.log"); }
    // The device's own directory: state/, ipsimd.log, capture.jsonl, scenario.yaml.
    const std::string& directory() const noexcept { return dir_; }

    // Stops the simulator (SIGTERM, SIGKILL after `within`): its exit status (128 + the
    // signal for one killed), -1 when it was not running.
    int stop(std::chrono::milliseconds within = std::chrono::milliseconds(2000)) {
        if (pid_ <= 0) return -1;
        ::kill(pid_, SIGTERM);
        int rc = wait_for(pid_, within);
        if (rc < 0) {
            ::kill(pid_, SIGKILL);
            rc = wait_for(pid_, std::chrono::milliseconds(5000));
        }
        pid_ = -1;
        return rc;
    }

    // Runs a program with the device's environment (a program on the library reaches the
    // device), as run() does.
    int run_program(const std::vector<std::string>& argv, std::string* out,
                    std::chrono::milliseconds within = std::chrono::milliseconds(30000)) const {
        return run(argv, out, within, environment());
    }

    // Runs argv (found on PATH when it has no '/') and waits at most `within`: its exit
    // status, -1 when it could not run or did not end in time (it is then killed); its
    // standard output in *out. The environment is the parent's, or `env` when given.
    static int run(const std::vector<std::string>& argv, std::string* out,
                   std::chrono::milliseconds within = std::chrono::milliseconds(30000),
                   const std::vector<std::string>& env = {}) {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) return -1;
        const pid_t pid = spawn(argv, fds[1], -1, env);
        ::close(fds[1]);
        if (pid < 0) {
            ::close(fds[0]);
            return -1;
        }
        const auto end = std::chrono::steady_clock::now() + within;
        char buf[4096];
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            if (left.count() <= 0) break;
            pollfd p{fds[0], POLLIN, 0};
            const int n = ::poll(&p, 1, static_cast<int>(left.count()));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            const ssize_t got = ::read(fds[0], buf, sizeof buf);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) break;
            if (out != nullptr) out->append(buf, static_cast<std::size_t>(got));
        }
        ::close(fds[0]);
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        int rc = wait_for(pid, left.count() > 0 ? left : std::chrono::milliseconds(0));
        if (rc < 0) {
            ::kill(pid, SIGKILL);
            (void)wait_for(pid, std::chrono::milliseconds(5000));
        }
        return rc;
    }

private:
    std::string program() const {
        if (!opts_.ipsimd.empty()) return opts_.ipsimd;
        const char* env = std::getenv("IPSIMD");
        return env != nullptr && *env != '\0' ? env : "ipsimd";
    }

    static std::string with_op(const char* op, const std::string& fields) {
        const std::size_t open = fields.find('{');
        if (open == std::string::npos) throw Error(std::string(op) + ": the fields are not a JSON object: " + fields);
        const std::size_t body = fields.find_first_not_of(" \t\r\n", open + 1);
        const bool empty = body != std::string::npos && fields[body] == '}';
        return "{\"op\": \"" + std::string(op) + "\"" + (empty ? "" : ", ") + fields.substr(open + 1);
    }

    void start(const Scenario& scenario) {
        static std::atomic<unsigned> made{0};
        instance_ = opts_.instance.empty() ? "h" + std::to_string(::getpid()) + "-" + std::to_string(++made) : opts_.instance;
        std::vector<std::string> argv{program(), "--instance", instance_, "--state", dir_ + "/state"};
        switch (scenario.kind) {
            case Scenario::Kind::kDefault: break;
            case Scenario::Kind::kFile: argv.insert(argv.end(), {"--scenario", scenario.text}); break;
            case Scenario::Kind::kYaml: {
                const std::string path = dir_ + "/scenario.yaml";
                std::ofstream(path, std::ios::binary) << scenario.text;
                argv.insert(argv.end(), {"--scenario", path});
                break;
            }
            case Scenario::Kind::kNamespace:
                argv.insert(argv.end(), {"--source", "linux"});
                if (!scenario.text.empty()) argv.insert(argv.end(), {"--netns", scenario.text});
                if (scenario.writable) argv.push_back("--writable");
                break;
        }
        if (opts_.capture) argv.insert(argv.end(), {"--capture", dir_ + "/capture.jsonl"});
        argv.insert(argv.end(), opts_.args.begin(), opts_.args.end());
        if (::mkdir((dir_ + "/state").c_str(), 0700) != 0) throw Error("cannot make " + dir_ + "/state: " + std::strerror(errno));
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) throw Error(std::string("pipe: ") + std::strerror(errno));
        const int err = ::open((dir_ + "/ipsimd.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        pid_ = spawn(argv, fds[1], err);
        ::close(fds[1]);
        if (err >= 0) ::close(err);
        const bool ready = pid_ > 0 && read_line(fds[0], &ready_, opts_.ready_within);
        ::close(fds[0]);
        if (!ready || ready_.rfind("ready ", 0) != 0) {
            stop(std::chrono::milliseconds(500));
            std::string why = log();
            if (why.size() > 2000) why = why.substr(why.size() - 2000);
            throw Error("ipsimd did not become ready (" + program() + "): " + (why.empty() ? ready_ : why));
        }
    }

    // A child with standard input from /dev/null, standard output and error as given
    // (-1: the parent's), the parent's environment or `env`; the pid or -1.
    static pid_t spawn(const std::vector<std::string>& argv, int out_fd, int err_fd,
                       const std::vector<std::string>& env = {}) {
        if (argv.empty()) return -1;
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        std::vector<char*> envp;
        for (const std::string& e : env) envp.push_back(const_cast<char*>(e.c_str()));
        envp.push_back(nullptr);
        const pid_t pid = ::fork();
        if (pid != 0) return pid;
        const int in = ::open("/dev/null", O_RDONLY);
        if (in >= 0) ::dup2(in, 0);
        if (in > 0) ::close(in);
        if (out_fd >= 0) ::dup2(out_fd, 1);
        if (err_fd >= 0) ::dup2(err_fd, 2);
        if (env.empty()) ::execvp(args[0], args.data());
        else ::execvpe(args[0], args.data(), envp.data());
        ::_exit(127);
    }

    static int wait_for(pid_t pid, std::chrono::milliseconds within) {
        const auto end = std::chrono::steady_clock::now() + within;
        for (;;) {
            int status = 0;
            const pid_t r = ::waitpid(pid, &status, WNOHANG);
            if (r == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            if (r < 0 && errno != EINTR) return -1;
            if (std::chrono::steady_clock::now() >= end) return -1;
            const timespec pause{0, 5'000'000};
            ::nanosleep(&pause, nullptr);
        }
    }

    // The first line of fd, within the time.
    static bool read_line(int fd, std::string* line, std::chrono::milliseconds within) {
        const auto end = std::chrono::steady_clock::now() + within;
        line->clear();
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            if (left.count() <= 0) return false;
            pollfd p{fd, POLLIN, 0};
            const int n = ::poll(&p, 1, static_cast<int>(left.count()));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            char c = 0;
            const ssize_t got = ::read(fd, &c, 1);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) return false;
            if (c == '\n') return true;
            line->push_back(c);
        }
    }

    static std::string read_file(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        std::ostringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

    static std::string make_dir() {
        const char* tmp = std::getenv("TMPDIR");
        std::string path = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/ipsim-XXXXXX";
        if (::mkdtemp(path.data()) == nullptr) throw Error("cannot make a directory in /tmp: " + std::string(std::strerror(errno)));
        return path;
    }

    void remove_dir() noexcept {
        if (dir_.empty()) return;
        (void)::nftw(
            dir_.c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); }, 16,
            FTW_DEPTH | FTW_PHYS);
        dir_.clear();
    }

    Options opts_;
    std::string dir_;
    std::string instance_;
    std::string ready_;
    pid_t pid_ = -1;
};

}  // namespace ipsim
