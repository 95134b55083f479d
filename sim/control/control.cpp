#include "control/control.hpp"

#include <stdexcept>

#include "context.hpp"
#include "core/log.hpp"

namespace sim {

std::string Control::answer(std::string_view request) const {
    nlohmann::json out;
    try {
        const auto req = nlohmann::json::parse(request);
        if (!req.is_object() || !req.contains("op") || !req["op"].is_string()) {
            throw std::invalid_argument("a request is an object with a string \"op\"");
        }
        const auto& op = req["op"].get_ref<const std::string&>();
        const auto it = handlers_.find(op);
        if (it == handlers_.end()) throw std::invalid_argument("unknown operation " + op);
        out = it->second(req);
        if (!out.is_object()) out = nlohmann::json::object();
        out["ok"] = true;
    } catch (const std::exception& e) {
        out = {{"ok", false}, {"error", e.what()}};
    }
    // A request's bytes may come back in an error text: whatever they are, the answer is
    // valid UTF-8.
    return out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

namespace {

class ControlConn : public Conn {
public:
    ControlConn(const Control& control, Loop& loop, int fd, const Endpoint& where, pid_t pid)
        : Conn(loop, fd, where, pid), control_(control) {}

protected:
    void message(std::span<const std::uint8_t> msg) override {
        const std::string text = control_.answer(
            std::string_view(reinterpret_cast<const char*>(msg.data()), msg.size()));
        send(std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
    }

private:
    const Control& control_;
};

}  // namespace

std::unique_ptr<Conn> make_control_conn(const Control& control, Loop& loop, int fd, const Endpoint& where, pid_t pid) {
    return std::make_unique<ControlConn>(control, loop, fd, where, pid);
}

}  // namespace sim
