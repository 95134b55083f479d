#include "ipctl/ipctl_support.hpp"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "e2e/sim_process.hpp"
#include "ipproto/raii.hpp"

namespace ipctl_test {

namespace {

std::vector<std::string> with_tool(const std::vector<std::string>& args) {
    std::vector<std::string> argv{IPCTL_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

int status_of(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

// Waits for pid up to `until`; kills it when it is still running then.
int reap(pid_t pid, std::chrono::steady_clock::time_point until) {
    for (;;) {
        int status = 0;
        const pid_t r = ::waitpid(pid, &status, WNOHANG);
        if (r == pid) return status_of(status);
        if (r < 0) return -1;
        if (std::chrono::steady_clock::now() >= until) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

// Reads both descriptors until each has ended (end of file, or EIO on a terminal whose
// last writer closed) or the time is over; a descriptor of -1 has ended already.
void drain(int fd_a, std::string* a, int fd_b, std::string* b, std::chrono::steady_clock::time_point until) {
    bool open_a = fd_a >= 0, open_b = fd_b >= 0;
    while ((open_a || open_b) && std::chrono::steady_clock::now() < until) {
        pollfd p[2] = {{open_a ? fd_a : -1, POLLIN, 0}, {open_b ? fd_b : -1, POLLIN, 0}};
        if (::poll(p, 2, 50) <= 0) continue;
        char chunk[4096];
        for (int i = 0; i < 2; ++i) {
            if ((p[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
            const ssize_t n = ::read(i == 0 ? fd_a : fd_b, chunk, sizeof chunk);
            if (n <= 0) (i == 0 ? open_a : open_b) = false;
            else (i == 0 ? a : b)->append(chunk, static_cast<std::size_t>(n));
        }
    }
}

std::string type_of(const Json& v) {
    if (v.is_number_integer()) return "integer";
    if (v.is_number()) return "number";
    if (v.is_string()) return "string";
    if (v.is_boolean()) return "boolean";
    if (v.is_object()) return "object";
    if (v.is_array()) return "array";
    return "null";
}

bool type_fits(const Json& v, const std::string& type) {
    const std::string actual = type_of(v);
    return actual == type || (type == "number" && actual == "integer");
}

}  // namespace

Result ipctl(const std::vector<std::string>& args, std::chrono::milliseconds limit) {
    Result r;
    r.code = e2e::run(with_tool(args), &r.out, &r.err, limit);
    return r;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        out.push_back(line);
    }
    return out;
}

Proc::Proc(const std::vector<std::string>& argv) {
    int o[2], e[2];
    if (::pipe2(o, O_CLOEXEC) != 0) return;
    if (::pipe2(e, O_CLOEXEC) != 0) {
        ::close(o[0]);
        ::close(o[1]);
        return;
    }
    pid_ = e2e::spawn(argv, o[1], e[1]);
    ::close(o[1]);
    ::close(e[1]);
    out_ = o[0];
    err_ = e[0];
}

Proc::~Proc() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) ::close(out_);
    if (err_ >= 0) ::close(err_);
}

bool Proc::out_line(std::string* line, std::chrono::milliseconds limit) { return e2e::read_line(out_, &out_buf_, line, limit); }

bool Proc::err_line(std::string* line, std::chrono::milliseconds limit) { return e2e::read_line(err_, &err_buf_, line, limit); }

void Proc::signal(int sig) {
    if (pid_ > 0) ::kill(pid_, sig);
}

int Proc::wait(std::chrono::milliseconds limit) {
    if (pid_ <= 0) return -1;
    const int rc = reap(pid_, std::chrono::steady_clock::now() + limit);
    pid_ = -1;
    return rc;
}

std::string Proc::rest_of_out() {
    std::string ignored;
    drain(out_, &out_buf_, -1, &ignored, std::chrono::steady_clock::now() + std::chrono::milliseconds(2000));
    std::string all;
    all.swap(out_buf_);
    return all;
}

Result ipctl_on_terminal(const std::vector<std::string>& args, std::chrono::milliseconds limit) {
    Result r;
    int master = -1, slave = -1;
    if (::openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) return r;
    const ipc::Fd master_fd(master);
    ::fcntl(master, F_SETFD, FD_CLOEXEC);
    ::fcntl(slave, F_SETFD, FD_CLOEXEC);
    int o[2];
    if (::pipe2(o, O_CLOEXEC) != 0) {
        ::close(slave);
        return r;
    }
    const pid_t pid = e2e::spawn(with_tool(args), o[1], slave);
    ::close(o[1]);
    // Only the child holds the terminal now: reading the master ends (EIO) when it exits.
    ::close(slave);
    const auto until = std::chrono::steady_clock::now() + limit;
    drain(o[0], &r.out, master, &r.err, until);
    ::close(o[0]);
    if (pid > 0) r.code = reap(pid, until);
    return r;
}

Json schema(const std::string& name) {
    std::ifstream in(std::string(IPCLIENT_SOURCE_DIR) + "/docs/schema/ipctl/" + name + ".json");
    if (!in) return Json();
    return Json::parse(in, nullptr, false);
}

std::vector<std::string> schema_errors(const Json& value, const Json& s, const std::string& where) {
    std::vector<std::string> errors;
    if (!s.is_object()) {
        errors.push_back(where + ": the schema is not an object");
        return errors;
    }
    if (s.contains("type")) {
        bool fits = false;
        if (s["type"].is_array()) {
            for (const auto& t : s["type"]) fits = fits || type_fits(value, t.get<std::string>());
        } else {
            fits = type_fits(value, s["type"].get<std::string>());
        }
        if (!fits) {
            errors.push_back(where + ": " + type_of(value) + " where the schema wants " + s["type"].dump());
            return errors;
        }
    }
    if (s.contains("enum")) {
        bool listed = false;
        for (const auto& e : s["enum"]) listed = listed || e == value;
        if (!listed) errors.push_back(where + ": " + value.dump() + " is not one of " + s["enum"].dump());
    }
    if (value.is_object()) {
        const Json props = s.value("properties", Json::object());
        for (const auto& name : s.value("required", Json::array())) {
            if (!value.contains(name.get<std::string>())) errors.push_back(where + ": required \"" + name.get<std::string>() + "\" is missing");
        }
        for (const auto& [key, v] : value.items()) {
            if (props.contains(key)) {
                for (auto& e : schema_errors(v, props[key], where + "." + key)) errors.push_back(std::move(e));
            } else if (s.contains("additionalProperties") && s["additionalProperties"] == false) {
                errors.push_back(where + ": \"" + key + "\" is not a property of the schema");
            }
        }
    }
    if (value.is_array() && s.contains("items")) {
        for (std::size_t i = 0; i < value.size(); ++i) {
            for (auto& e : schema_errors(value[i], s["items"], where + "[" + std::to_string(i) + "]")) errors.push_back(std::move(e));
        }
    }
    return errors;
}

}  // namespace ipctl_test
