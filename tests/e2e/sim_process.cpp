#include "e2e/sim_process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "ipproto/control_channel.hpp"
#include "ipproto/endpoints.hpp"
#include "ipproto/raii.hpp"

extern char** environ;

namespace e2e {
namespace {

std::string make_instance() {
    std::string name = "e2e-" + std::to_string(::getpid());
    ::setenv("IPCLIENT_INSTANCE", name.c_str(), 1);
    return name;
}

// Set during static initialisation, before any library call of the test process.
const std::string g_instance = make_instance();

std::string temp_dir() {
    char tmpl[] = "/tmp/ipsim-e2e-XXXXXX";
    const char* d = ::mkdtemp(tmpl);
    return d != nullptr ? d : "/tmp";
}

}  // namespace

const std::string& instance() { return g_instance; }

int wait_exit(pid_t pid, std::chrono::milliseconds limit, bool kill_late) {
    const auto until = std::chrono::steady_clock::now() + limit;
    for (;;) {
        int status = 0;
        const pid_t r = ::waitpid(pid, &status, WNOHANG);
        if (r == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        if (r < 0) return -1;
        if (std::chrono::steady_clock::now() >= until) {
            if (kill_late) {
                ::kill(pid, SIGKILL);
                ::waitpid(pid, nullptr, 0);
            }
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

pid_t spawn(const std::vector<std::string>& argv, int out_fd, int err_fd) {
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    if (out_fd >= 0) posix_spawn_file_actions_adddup2(&fa, out_fd, 1);
    if (err_fd >= 0) posix_spawn_file_actions_adddup2(&fa, err_fd, 2);
    pid_t pid = -1;
    if (::posix_spawn(&pid, args[0], &fa, nullptr, args.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&fa);
    return pid;
}

bool read_line(int fd, std::string* buf, std::string* out, std::chrono::milliseconds limit) {
    const auto until = std::chrono::steady_clock::now() + limit;
    for (;;) {
        const auto nl = buf->find('\n');
        if (nl != std::string::npos) {
            *out = buf->substr(0, nl);
            buf->erase(0, nl + 1);
            return true;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
        if (left.count() <= 0 || fd < 0) return false;
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
        char chunk[4096];
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n <= 0) return false;
        buf->append(chunk, static_cast<std::size_t>(n));
    }
}

nlohmann::json control(const nlohmann::json& request) {
    const auto x = ipc::control::ask(instance(), request.dump(), 30000);
    if (x.outcome != ipc::control::Exchange::kAnswered) return {{"ok", false}, {"error", x.detail}};
    return nlohmann::json::parse(x.answer, nullptr, false);
}

SimProcess::~SimProcess() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

const std::string& SimProcess::state_dir() {
    if (state_.empty()) state_ = temp_dir();
    return state_;
}

bool SimProcess::start(const std::vector<std::string>& args) {
    std::vector<std::string> argv{IPSIMD_PATH, "--instance", instance(), "--state", state_dir()};
    argv.insert(argv.end(), args.begin(), args.end());
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return false;
    if (log_path_.empty()) log_path_ = state_dir() + "/ipsimd.log";
    const int err = ::open(log_path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    pid_ = spawn(argv, out[1], err);
    ::close(out[1]);
    if (err >= 0) ::close(err);
    std::string buf;
    const bool ok = pid_ > 0 && read_line(out[0], &buf, &ready_, std::chrono::milliseconds(10000));
    ::close(out[0]);
    return ok && ready_.rfind("ready ", 0) == 0;
}

int SimProcess::stop(std::chrono::milliseconds within) {
    if (pid_ <= 0) return -1;
    ::kill(pid_, SIGTERM);
    const int rc = wait_exit(pid_, within);
    if (rc < 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    pid_ = -1;
    return rc;
}

void SimProcess::kill9() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

std::string SimProcess::log() const {
    std::ifstream in(log_path_);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

long SimProcess::rss_kib() const {
    std::ifstream in("/proc/" + std::to_string(pid_) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    return -1;
}

std::string temp_file(const std::string& name, const std::string& text) {
    static const std::string dir = temp_dir();
    const std::string path = dir + "/" + name;
    std::ofstream(path) << text;
    return path;
}

std::string ip_program() {
    for (const char* p : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
        if (::access(p, X_OK) == 0) return p;
    }
    return {};
}

int run(const std::vector<std::string>& argv, std::string* out, std::string* err, std::chrono::milliseconds limit) {
    int o[2], e[2];
    if (::pipe2(o, O_CLOEXEC) != 0) return -1;
    if (::pipe2(e, O_CLOEXEC) != 0) return -1;
    const pid_t pid = spawn(argv, o[1], e[1]);
    ::close(o[1]);
    ::close(e[1]);
    std::string obuf, ebuf;
    const auto until = std::chrono::steady_clock::now() + limit;
    bool o_open = true, e_open = true;
    while ((o_open || e_open) && std::chrono::steady_clock::now() < until) {
        pollfd p[2] = {{o_open ? o[0] : -1, POLLIN, 0}, {e_open ? e[0] : -1, POLLIN, 0}};
        if (::poll(p, 2, 100) <= 0) continue;
        char chunk[4096];
        for (int i = 0; i < 2; ++i) {
            if ((p[i].revents & (POLLIN | POLLHUP)) == 0) continue;
            const ssize_t n = ::read(i == 0 ? o[0] : e[0], chunk, sizeof chunk);
            if (n <= 0) {
                (i == 0 ? o_open : e_open) = false;
            } else {
                (i == 0 ? obuf : ebuf).append(chunk, static_cast<std::size_t>(n));
            }
        }
    }
    ::close(o[0]);
    ::close(e[0]);
    if (out != nullptr) *out = obuf;
    if (err != nullptr) *err = ebuf;
    if (pid <= 0) return -1;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
    const int rc = wait_exit(pid, std::max(left, std::chrono::milliseconds(100)));
    if (rc < 0) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    return rc;
}

Child::Child(const std::vector<std::string>& argv) {
    int o[2];
    if (::pipe2(o, O_CLOEXEC) != 0) return;
    pid_ = spawn(argv, o[1], -1);
    ::close(o[1]);
    out_ = o[0];
}

Child::~Child() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) ::close(out_);
}

bool Child::line(std::string* out, std::chrono::milliseconds limit) { return read_line(out_, &buf_, out, limit); }

int Child::wait() {
    if (pid_ <= 0) return -1;
    const int rc = wait_exit(pid_, std::chrono::milliseconds(5000));
    pid_ = -1;
    return rc;
}

}  // namespace e2e
