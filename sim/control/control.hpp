// The simulator's control channel: how an operator, a test or a tool changes the simulated
// device while it runs (a neighbour learnt, a burst of changes, an ND error raised) and
// reads state that has no library call of its own.
//
// An AF_UNIX SOCK_SEQPACKET socket "ipclient/<instance>/control" (same uid only, as every
// channel). One request is one message holding one JSON object {"op": NAME, ...}; the
// answer is one JSON object: {"ok": true, ...} with what the operation gives, or
// {"ok": false, "error": TEXT}, in one message, or, when it is longer than one message
// takes, announced and sent in pieces as ipproto/control_channel.hpp describes (the
// connection then ends with the answer). A request is one unit of work of the store: what
// it changes is stored before the answer leaves, or it is refused and undone.
// docs/ipsimd.md lists the operations.
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
    // A long listing given piece by piece, so that no answer of any length is held whole:
    // each call appends the next part of the answer's text to `out` (at least `room` bytes
    // unless it ends) and says whether more follows. The parts put together are the
    // answer's JSON object, "ok" included. The table may change between calls.
    using Stream = std::function<bool(std::string& out, std::size_t room)>;
    // A handler of a listing: it reads (and refuses) the request at once and gives the
    // stream of its answer.
    using StreamHandler = std::function<Stream(const nlohmann::json& request)>;

    // The answer to a request: whole, or a stream; ok false for a refusal.
    struct Reply {
        std::string text;
        Stream stream;
        bool ok = false;
    };

    void on(const std::string& op, Handler h) { handlers_[op] = std::move(h); }
    void on_stream(const std::string& op, StreamHandler h) { streams_[op] = std::move(h); }
    Reply reply(std::string_view request) const;
    // The whole answer to one request message (a stream read to its end).
    std::string answer(std::string_view request) const;
    // The answer of a refusal.
    static std::string refusal(std::string_view error);

private:
    std::map<std::string, Handler, std::less<>> handlers_;
    std::map<std::string, StreamHandler, std::less<>> streams_;
};

}  // namespace sim
