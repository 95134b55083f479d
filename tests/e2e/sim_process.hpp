// A running ipsimd for end-to-end tests: started as a process on a scenario and a state
// directory of the test's own, waited for until it prints its ready line, and stopped at
// the end. Tests then reach it only through the library's public C API, as an
// application would; the process's instance (IPCLIENT_INSTANCE) is set before the first
// library call.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace e2e {

// The instance every simulator of this test process runs for.
const std::string& instance();

class SimProcess {
public:
    SimProcess() = default;
    ~SimProcess();
    SimProcess(const SimProcess&) = delete;
    SimProcess& operator=(const SimProcess&) = delete;

    // Starts ipsimd with the arguments (instance and state are added); true once it is
    // ready. The ready line is kept in ready_line().
    bool start(const std::vector<std::string>& args = {});
    // SIGTERM, and the exit status (-1 when it did not exit within the time).
    int stop(std::chrono::milliseconds within = std::chrono::milliseconds(2000));
    // SIGKILL, and waits for the end.
    void kill9();
    bool running() const noexcept { return pid_ > 0; }
    pid_t pid() const noexcept { return pid_; }
    const std::string& ready_line() const noexcept { return ready_; }
    const std::string& state_dir();
    // Runs the next start on this state directory instead of a temporary one of its own.
    void use_state_dir(std::string dir) { state_ = std::move(dir); }
    // Where the simulator's standard error goes (the default: the state directory).
    void use_log(std::string path) { log_path_ = std::move(path); }
    // What the simulator wrote on standard error so far.
    std::string log() const;
    // Resident memory of the simulator in KiB (VmRSS).
    long rss_kib() const;

private:
    pid_t pid_ = -1;
    std::string ready_;
    std::string state_;
    std::string log_path_;
};

// Starts argv with standard input from /dev/null and out_fd/err_fd (when not -1) as its
// standard output and error; the process inherits the environment (and so the instance).
// The pid, or -1.
pid_t spawn(const std::vector<std::string>& argv, int out_fd, int err_fd);

// The exit status of a child process (128 + the signal for one killed), or -1 when it did not
// end within `limit` (it is then killed with SIGKILL and reaped when kill_late).
int wait_exit(pid_t pid, std::chrono::milliseconds limit, bool kill_late = false);

// The next line from fd (without its newline), buffered in *buf across calls; false at the
// end of the stream or after `limit`.
bool read_line(int fd, std::string* buf, std::string* out, std::chrono::milliseconds limit);

// One request on the control channel of this process's simulator; the answer, or
// {"ok": false, "error": ...} when the channel cannot be reached.
nlohmann::json control(const nlohmann::json& request);

// The path of the ip program (iproute2), "" when it is not installed.
std::string ip_program();

// A temporary file with the given text; removed at exit.
std::string temp_file(const std::string& name, const std::string& text);

// Runs a program with the environment plus `env`, its standard output captured; waits at
// most `limit`. Returns the exit status (or -1) and fills out.
int run(const std::vector<std::string>& argv, std::string* out, std::string* err = nullptr,
        std::chrono::milliseconds limit = std::chrono::milliseconds(10000));

// A child process whose standard output the test reads line by line.
class Child {
public:
    explicit Child(const std::vector<std::string>& argv);
    ~Child();
    // The next line, or false after `limit`.
    bool line(std::string* out, std::chrono::milliseconds limit = std::chrono::milliseconds(5000));
    int wait();

private:
    pid_t pid_ = -1;
    int out_ = -1;
    std::string buf_;
};

}  // namespace e2e
