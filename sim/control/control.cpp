#include "control/control.hpp"

#include <algorithm>
#include <optional>
#include <stdexcept>

#include "context.hpp"
#include "control/args.hpp"
#include "core/log.hpp"
#include "ipproto/control_channel.hpp"

namespace sim {
namespace {

// The longest error text an answer carries.
constexpr std::size_t kMaxError = 512;

}  // namespace

std::string Control::refusal(std::string_view error) {
    // Refusals quote values as excerpts; no text, whatever made it, comes back long. A
    // request's bytes may come back in an error text: whatever they are, the answer is valid
    // UTF-8.
    const nlohmann::json out{{"ok", false}, {"error", arg::excerpt(error, kMaxError)}};
    return out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string Control::answer(std::string_view request) const {
    Reply r = reply(request);
    if (!r.stream) return std::move(r.text);
    std::string out;
    try {
        while (r.stream(out, std::size_t{1} << 20)) {
        }
    } catch (const std::exception&) {
        // A stream that cannot go on ends its text where it is.
    }
    return out;
}

Control::Reply Control::reply(std::string_view request) const {
    nlohmann::json out;
    // Handlers read their arguments through control/args.hpp and refuse in words. What still
    // escapes as a JSON library error is answered in words too: its own text may quote the
    // request at any length and names the library's types, not the request's keys.
    std::optional<std::string> error;
    try {
        const auto req = nlohmann::json::parse(request);
        if (!req.is_object() || !req.contains("op") || !req["op"].is_string()) {
            throw std::invalid_argument("a request is an object with a string \"op\"");
        }
        const auto& op = req["op"].get_ref<const std::string&>();
        if (const auto s = streams_.find(op); s != streams_.end()) return Reply{{}, s->second(req), true};
        const auto it = handlers_.find(op);
        if (it == handlers_.end()) throw std::invalid_argument("unknown operation " + arg::label(op));
        out = it->second(req);
        if (!out.is_object()) out = nlohmann::json::object();
        out["ok"] = true;
    } catch (const nlohmann::json::parse_error& e) {
        // The parser counts the end of the text as a byte of its own.
        error = "the request is not JSON (at byte " + std::to_string(std::min<std::size_t>(e.byte, request.size())) + ")";
    } catch (const nlohmann::json::type_error&) {
        error = "a value has the wrong type";
    } catch (const nlohmann::json::out_of_range&) {
        error = "a value is missing or out of range";
    } catch (const nlohmann::json::exception&) {
        error = "the request could not be read";
    } catch (const std::exception& e) {
        error = e.what();
    }
    if (error) return Reply{refusal(*error), {}, false};
    return Reply{out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace), {}, true};
}

namespace {

using ipc::control::kMaxPiece;
using ipc::control::kMaxRequest;

std::string too_long(std::size_t length) {
    return "request too long (" + std::to_string(length) + " bytes; at most " + std::to_string(kMaxRequest) + ")";
}

class ControlConn : public Conn {
public:
    ControlConn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid)
        : Conn(loop, fd, where, pid), ctx_(ctx) {}

protected:
    void message(std::span<const std::uint8_t> msg) override {
        // A long answer ends the connection: nothing more is read meanwhile.
        if (long_answer_) return;
        if (msg.size() > kMaxRequest) return start({Control::refusal(too_long(msg.size())), {}, false});
        // What the request changes is stored before the answer leaves; a refused request
        // changes nothing (its work is rolled back).
        Store::Work work(ctx_.store);
        Control::Reply r =
            ctx_.control.reply(std::string_view(reinterpret_cast<const char*>(msg.data()), msg.size()));
        if (r.ok && !work.commit()) {
            r = {Control::refusal("the change could not be stored (the simulator's log says why); nothing was changed"),
                 {}, false};
        }
        start(std::move(r));
    }

    void oversized(std::span<const std::uint8_t>, std::size_t length) override {
        if (!long_answer_) start({Control::refusal(too_long(length)), {}, false});
    }

    void drained() override {
        if (long_answer_) pump();
    }

private:
    // Pieces sent in one round of the loop at most, and the bytes a long answer may have
    // waiting for the peer: a long answer neither holds the loop nor fills memory.
    static constexpr int kPiecesPerRound = 16;
    static constexpr std::size_t kWaitingMost = 8 * kMaxPiece;

    void send_text(std::string_view text) {
        send(std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
    }

    // Reads the stream until a piece's worth is pending or it ends; false when it failed (the
    // answer is then cut: the peer sees the connection end before the last piece).
    bool fill() {
        while (stream_ && pending_.size() - at_ < kMaxPiece) {
            bool more = false;
            try {
                more = stream_(pending_, kMaxPiece);
            } catch (const std::exception& e) {
                SIM_LOG(kError, "control: a listing stopped: %s", e.what());
                stream_ = nullptr;
                return false;
            }
            if (!more) stream_ = nullptr;
        }
        return true;
    }

    void start(Control::Reply r) {
        pending_ = std::move(r.text);
        at_ = 0;
        stream_ = std::move(r.stream);
        if (!fill()) return close();
        if (!stream_ && pending_.size() <= kMaxPiece) {
            send_text(pending_);
            pending_.clear();
            return;
        }
        long_answer_ = true;
        send_text(ipc::control::kContinued);
        pump();
    }

    void pump() {
        std::string piece;
        for (int i = 0; i < kPiecesPerRound && open() && outbox_bytes() < kWaitingMost; ++i) {
            if (!fill()) return close();
            const std::size_t n = std::min(kMaxPiece, pending_.size() - at_);
            const bool last = !stream_ && at_ + n == pending_.size();
            piece.assign(1, last ? ipc::control::kLastPiece : ipc::control::kMorePiece);
            piece.append(pending_, at_, n);
            send_text(piece);
            at_ += n;
            if (last) {
                long_answer_ = false;
                pending_.clear();
                return close_when_sent();
            }
            // What was sent is dropped now and then, not at every piece.
            if (at_ >= 16 * kMaxPiece) {
                pending_.erase(0, at_);
                at_ = 0;
            }
        }
        // More to send: the next round (or the peer's reading) goes on with it.
        if (open()) wait_writable();
    }

    Context& ctx_;
    bool long_answer_ = false;
    std::string pending_;
    std::size_t at_ = 0;
    Control::Stream stream_;
};

}  // namespace

std::unique_ptr<Conn> make_control_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid) {
    return std::make_unique<ControlConn>(ctx, loop, fd, where, pid);
}

}  // namespace sim
