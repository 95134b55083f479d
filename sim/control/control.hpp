// The simulator's control channel: how an operator, a test or a tool changes the simulated
// device while it runs (a neighbour learnt, a burst of changes, an ND error raised) and
// reads state that has no library call of its own.
//
// An AF_UNIX SOCK_SEQPACKET socket "ipclient/<instance>/control" (same uid only, as every
// channel). One request is one message holding one JSON object {"op": NAME, ...}; the
// answer is one message holding one JSON object: {"ok": true, ...} with what the operation
// gives, or {"ok": false, "error": TEXT}. docs/ipsimd.md lists the operations.
#pragma once

#include <functional>
#include <map>
#include <string>

#include <nlohmann/json.hpp>

namespace sim {

class Control {
public:
    // A handler gets the request and gives the answer's fields; it throws
    // std::invalid_argument (or a JSON error) for a request it refuses.
    using Handler = std::function<nlohmann::json(const nlohmann::json& request)>;

    void on(const std::string& op, Handler h) { handlers_[op] = std::move(h); }
    // The answer to one request message.
    std::string answer(std::string_view request) const;

private:
    std::map<std::string, Handler, std::less<>> handlers_;
};

}  // namespace sim
