// The device channel: the platform calls of client processes, answered from the device's
// state (see ipproto/device.hpp for the messages).
#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "context.hpp"
#include "core/log.hpp"
#include "core/status.hpp"
#include "device/libraries.hpp"
#include "ipclient/status.h"
#include "ipproto/device.hpp"
#include "ipproto/wire.hpp"
#include "modules/module.hpp"

namespace sim {
namespace {

using ipc::device::Call;
using ipc::wire::Reader;
using ipc::wire::Writer;

class DeviceConn : public Conn {
public:
    DeviceConn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid)
        : Conn(loop, fd, where, pid), ctx_(ctx) {
        ++ctx_.device_clients[pid];
        set_faults([this](std::span<const std::uint8_t> msg) { return ctx_.faults.hit(fault_point(msg)); },
                   [](Conn& c, std::span<const std::uint8_t> msg, std::uint32_t status) {
                       static_cast<DeviceConn&>(c).refuse(msg, status);
                   });
    }
    ~DeviceConn() override { leave(); }

protected:
    void message(std::span<const std::uint8_t> msg) override {
        Reader r(msg.data(), msg.size());
        const std::uint32_t call = r.be<std::uint32_t>();
        const CallOps* ops = call < std::size(kCalls) ? &kCalls[call] : nullptr;
        if (ctx_.capture.on()) capture("request", msg, {{"call", ops != nullptr ? ops->name : "unknown"}});
        if (!r.ok()) return reply(kFailure, 0);
        if (node_ == 0 && (ops == nullptr || !ops->before_greeting)) {
            // Every other call comes after the greeting that fixes the node.
            SIM_LOG(kWarn, "device channel: call %u before the greeting from pid %d; closing", call,
                    static_cast<int>(peer_pid()));
            return close();
        }
        Writer w(out().subspan(4));
        const std::uint32_t result = ops != nullptr && ops->serve != nullptr ? (this->*ops->serve)(r, w) : kFailure;
        reply(result, w.ok() ? w.size() : 0);
    }

    void closed() override { leave(); }

private:
    // Each call of the channel, by its number: its name in the capture, whether a client may
    // make it before the greeting that fixes its node, and what answers it.
    struct CallOps {
        const char* name;
        bool before_greeting;
        std::uint32_t (DeviceConn::*serve)(Reader& r, Writer& w);
    };
    // Defined with one row per call, numbers 0 (none) to kFaults: a row more or less fails
    // to compile against this bound.
    static const CallOps kCalls[static_cast<std::size_t>(Call::kFaults) + 1];
    friend std::optional<std::uint32_t> sim::device_call_number(std::string_view name);
    friend const char* sim::device_call_name(std::uint32_t number);

    // Where a request is answered, for the faults set on the device (core/faults.hpp): the
    // call, and for a kernel request or a dump its node, code and module.
    FaultPoint fault_point(std::span<const std::uint8_t> msg) const {
        Reader r(msg.data(), msg.size());
        FaultPoint p;
        p.call = r.be<std::uint32_t>();
        p.node = node_;
        switch (static_cast<Call>(p.call)) {
            case Call::kCioctl:
            case Call::kDumpRequest: {
                const std::uint16_t node = resolve(r.be<std::uint32_t>());
                const std::uint32_t code = r.be<std::uint32_t>();
                if (!r.ok()) break;
                p.node = node;
                p.command = code;
                p.module = static_cast<Call>(p.call) == Call::kCioctl ? kernel_module_of(code) : dump_module_of(code);
                break;
            }
            case Call::kDumpPull: {
                const auto it = dump_ids_.find(static_cast<std::int32_t>(r.be<std::uint32_t>()));
                if (!r.ok() || it == dump_ids_.end()) break;
                p.node = it->second.second;
                p.command = it->second.first;
                p.module = dump_module_of(it->second.first);
                break;
            }
            default: break;
        }
        return p;
    }

    // An error fault's answer: the status and nothing else (a kernel request's returned
    // length 0). The request is not carried out.
    void refuse(std::span<const std::uint8_t> msg, std::uint32_t status) {
        Reader r(msg.data(), msg.size());
        const std::uint32_t call = r.be<std::uint32_t>();
        if (ctx_.capture.on()) {
            capture("request", msg, {{"call", call < std::size(kCalls) ? kCalls[call].name : "unknown"}, {"fault", "error"}});
        }
        std::size_t len = 0;
        if (static_cast<Call>(call) == Call::kCioctl) {
            ipc::wire::store_be(out().data() + 4, std::uint32_t{0});
            len = 4;
        }
        reply(status, len);
    }

    void capture(const char* dir, std::span<const std::uint8_t> bytes, nlohmann::json fields) {
        ctx_.capture.record({dir, node_, "device", 0, 0, static_cast<int>(peer_pid())}, bytes, std::move(fields));
    }

    void reply(std::uint32_t result, std::size_t len) {
        ipc::wire::store_be(out().data(), result);
        const std::span<const std::uint8_t> msg(out().data(), 4 + len);
        if (ctx_.capture.on()) capture("answer", msg, {{"result", result}});
        send(msg);
    }

    std::uint16_t resolve(std::uint32_t node_word) const {
        const auto n = static_cast<std::uint16_t>(node_word & 0xFFFF);
        return n == kOwnNode ? node_ : n;
    }

    static std::string text(Reader& r) {
        const auto rest = r.rest();
        std::string s(reinterpret_cast<const char*>(rest.data()), rest.size());
        const auto nul = s.find('\0');
        if (nul != std::string::npos) s.resize(nul);
        return s;
    }


    std::uint32_t hello(Reader& r, Writer& w) {
        const std::uint16_t wanted = r.be<std::uint16_t>();
        if (!r.ok()) return kFailure;
        const std::uint16_t node = wanted == 0 ? ctx_.device.master() : wanted;
        // A board pulled out runs nothing.
        if (ctx_.device.node(node) == nullptr || ctx_.device.pulled(node)) {
            SIM_LOG(kWarn, "pid %d asks for node %u, which the device does not have",
                    static_cast<int>(peer_pid()), static_cast<unsigned>(node));
            return kFailure;
        }
        node_ = node;
        SIM_LOG(kDebug, "pid %d runs on node %u", static_cast<int>(peer_pid()), static_cast<unsigned>(node));
        w.be(node_);
        return 0;
    }

    std::uint32_t device_info(Reader&, Writer& w) {
        w.be(node_).be(ctx_.device.master()).be(ctx_.device.master_ep()).be(ctx_.device.mdc());
        w.be(static_cast<std::uint32_t>(ctx_.device.mdc_child() ? 1 : 0));
        return 0;
    }

    std::uint32_t node_location(Reader& r, Writer& w) {
        const NodeState* n = ctx_.device.node(resolve(r.be<std::uint16_t>()));
        w.be(static_cast<std::uint16_t>(n != nullptr ? n->info.chassis : 0));
        w.be(static_cast<std::uint16_t>(n != nullptr ? n->info.slot : 0));
        w.be(static_cast<std::uint16_t>(n != nullptr ? n->info.cpu : 0));
        return r.ok() ? 0 : kFailure;
    }

    std::uint32_t nodes(Reader& r, Writer& w) {
        const std::uint32_t which = r.be<std::uint32_t>();
        std::vector<std::uint16_t> list;
        if (which == 0) {
            for (const auto& [number, n] : ctx_.device.nodes()) list.push_back(number);
        } else {
            list = ctx_.device.standby_nodes();
        }
        w.be(std::uint32_t{1}).be(static_cast<std::uint32_t>(list.size()));
        for (const std::uint16_t n : list) w.be(n);
        return r.ok() ? 0 : kFailure;
    }

    std::uint32_t node_up(Reader& r, Writer& w) {
        const std::uint16_t n = resolve(r.be<std::uint32_t>());
        w.be(static_cast<std::uint32_t>(ctx_.device.node_up(n) ? 1 : 0));
        return r.ok() ? 0 : kFailure;
    }

    std::uint32_t mdc_is_child(Reader& r, Writer& w) {
        const std::uint16_t mdc = r.be<std::uint16_t>();
        w.be(static_cast<std::uint32_t>(mdc == ctx_.device.mdc() && ctx_.device.mdc_child() ? 1 : 0));
        return r.ok() ? 0 : kFailure;
    }

    std::uint32_t if_predicate(Reader& r, Writer& w) {
        const std::uint32_t ifindex = r.be<std::uint32_t>();
        const std::uint32_t which = r.be<std::uint32_t>();
        const auto* i = ctx_.device.interface(ifindex);
        bool v = false;
        if (i != nullptr) {
            switch (static_cast<ipc::device::IfPredicate>(which)) {
                case ipc::device::IfPredicate::kValid: v = i->valid; break;
                case ipc::device::IfPredicate::kL2: v = i->l2; break;
                case ipc::device::IfPredicate::kTemp: v = i->temp; break;
                case ipc::device::IfPredicate::kVisible: v = i->visible; break;
                case ipc::device::IfPredicate::kConfigured: v = i->configured; break;
                default: return kFailure;
            }
        }
        w.be(static_cast<std::uint32_t>(v ? 1 : 0));
        return r.ok() ? 0 : kFailure;
    }

    std::uint32_t if_by_name(Reader& r, Writer& w) {
        w.be(ctx_.device.find_interface(text(r)));
        return 0;
    }

    std::uint32_t if_next(Reader& r, Writer& w) {
        const std::uint32_t after = r.be<std::uint32_t>();
        std::uint32_t bits[8];
        for (std::uint32_t& b : bits) b = r.be<std::uint32_t>();
        if (!r.ok()) return kFailure;
        w.be(ctx_.device.next_interface(after, bits));
        return 0;
    }

    std::uint32_t service_status(Reader& r, Writer& w) {
        const std::uint16_t node = resolve(r.be<std::uint16_t>());
        const std::string name = text(r);
        if (!r.ok() || ctx_.device.node(node) == nullptr) return kFailure;
        w.be(ctx_.services.status(node, name));
        return 0;
    }

    std::uint32_t service_start(Reader& r, Writer&) {
        const std::uint16_t node = resolve(r.be<std::uint16_t>());
        const std::string name = text(r);
        if (!r.ok()) return kFailure;
        return ctx_.services.start(node, ctx_.device.node_up(node), name);
    }

    std::uint32_t service_batch_start(Reader& r, Writer&) {
        const std::uint32_t count = r.be<std::uint32_t>();
        if (!r.ok() || count > r.remaining() / 2) return kFailure;
        std::vector<std::uint16_t> nodes(count);
        for (std::uint16_t& n : nodes) n = resolve(r.be<std::uint16_t>());
        const std::string name = text(r);
        for (const std::uint16_t n : nodes) (void)ctx_.services.start(n, ctx_.device.node_up(n), name);
        return 0;
    }

    std::uint32_t dump_request(Reader& r, Writer& w) {
        const std::uint16_t node = resolve(r.be<std::uint32_t>());
        const std::uint32_t id = r.be<std::uint32_t>();
        if (!r.ok() || !ctx_.device.node_up(node)) return kFailure;
        auto cursor = open_dump(ctx_, node, id, r.rest());
        if (!cursor) return kFailure;
        const std::int32_t handle = ctx_.dumps.open(this, std::move(cursor));
        dump_ids_[handle] = {id, node};
        w.be(static_cast<std::uint32_t>(handle));
        return 0;
    }

    std::uint32_t dump_pull(Reader& r, Writer& w) {
        const auto handle = static_cast<std::int32_t>(r.be<std::uint32_t>());
        const std::uint32_t cap = r.be<std::uint32_t>();
        DumpCursor* cursor = r.ok() ? ctx_.dumps.find(this, handle) : nullptr;
        if (cursor == nullptr) return kFailure;
        const std::span<std::uint8_t> room = out().subspan(4, std::min<std::size_t>(cap, ipc::device::kMaxPayload));
        std::size_t len = 0;
        const std::uint32_t status = cursor->pull(room, &len);
        (void)w.reserve(std::min(len, room.size()));
        return status;
    }

    std::uint32_t dump_terminate(Reader& r, Writer&) {
        const auto handle = static_cast<std::int32_t>(r.be<std::uint32_t>());
        dump_ids_.erase(handle);
        return r.ok() && ctx_.dumps.close(this, handle) ? 0 : kFailure;
    }

    std::uint32_t dbm_open(Reader& r, Writer& w) {
        const std::uint32_t mode = r.be<std::uint32_t>();
        (void)mode;
        const std::string both = [&] {
            const auto rest = r.rest();
            return std::string(reinterpret_cast<const char*>(rest.data()), rest.size());
        }();
        const auto nul = both.find('\0');
        if (!r.ok() || nul == std::string::npos) return kFailure;
        w.be(ctx_.database.open(both.substr(0, nul), both.substr(nul + 1)));
        return 0;
    }

    std::uint32_t dbm_next(Reader& r, Writer& w) {
        const std::uint32_t handle = r.be<std::uint32_t>();
        const std::uint32_t position = r.be<std::uint32_t>();
        const std::uint32_t cap = r.be<std::uint32_t>();
        if (!r.ok()) return kFailure;
        const auto list = ctx_.database.list(handle, r.rest());
        if (!list) {
            w.be(static_cast<std::uint32_t>(-1));
            return 0;
        }
        if (position >= list->size()) {
            w.be(std::uint32_t{0});
            return 0;
        }
        const auto& rec = (*list)[position];
        w.be(std::uint32_t{1}).raw(rec.data(), std::min<std::size_t>(cap, rec.size()));
        return 0;
    }

    std::uint32_t dbm_close(Reader& r, Writer&) {
        return ctx_.database.close(r.be<std::uint32_t>()) ? 0 : kFailure;
    }

    std::uint32_t dbm_len(Reader& r, Writer& w) {
        const std::uint32_t handle = r.be<std::uint32_t>();
        if (!r.ok()) return kFailure;
        const auto list = ctx_.database.list(handle, r.rest());
        w.be(list ? static_cast<std::uint32_t>(list->size()) : static_cast<std::uint32_t>(-1));
        return 0;
    }

    std::uint32_t kevent_subscribe(Reader& r, Writer&) {
        const std::uint32_t event_class = r.be<std::uint32_t>();
        if (!r.ok() || subscribed_) return kFailure;
        subscribed_ = true;
        ctx_.kevent_subscribers.emplace(event_class, this);
        return 0;
    }

    std::uint32_t ping(Reader& r, Writer& w) {
        w.raw(r.rest());
        return 0;
    }

    std::uint32_t anchor_begin(Reader& r, Writer& w) {
        const std::uint64_t anchor = r.be<std::uint64_t>();
        const std::uint32_t key = r.be<std::uint32_t>();
        const std::uint64_t position = r.be<std::uint64_t>();
        if (!r.ok()) return kFailure;
        w.be(ctx_.anchors.begin(peer_pid(), anchor, key, position));
        return 0;
    }

    std::uint32_t anchor_inquire(Reader& r, Writer& w) {
        const std::uint64_t anchor = r.be<std::uint64_t>();
        const std::uint64_t path = r.be<std::uint64_t>();
        const auto position = r.ok() ? ctx_.anchors.inquire(peer_pid(), anchor, path) : std::nullopt;
        if (!position) return kFailure;
        w.be(*position);
        return 0;
    }

    std::uint32_t anchor_set(Reader& r, Writer&) {
        const std::uint64_t anchor = r.be<std::uint64_t>();
        const std::uint64_t path = r.be<std::uint64_t>();
        const std::uint64_t position = r.be<std::uint64_t>();
        return r.ok() && ctx_.anchors.set(peer_pid(), anchor, path, position) ? 0 : kFailure;
    }

    std::uint32_t anchor_end(Reader& r, Writer&) {
        const std::uint64_t anchor = r.be<std::uint64_t>();
        const std::uint64_t path = r.be<std::uint64_t>();
        return r.ok() && ctx_.anchors.end(peer_pid(), anchor, path) ? 0 : kFailure;
    }

    std::uint32_t faults(Reader&, Writer& w) {
        std::uint32_t armed = 0;
        for (const Fault& f : ctx_.faults.list()) {
            if (!f.times || *f.times != 0) ++armed;
        }
        w.be(armed);
        return 0;
    }

    std::uint32_t library(Reader& r, Writer& w) {
        const auto file = runtime_library(text(r));
        if (!file) return kFailure;
        w.raw(file->data(), file->size());
        return 0;
    }

    std::uint32_t cioctl(Reader& r, Writer& w) {
        const std::uint32_t node_word = r.be<std::uint32_t>();
        const std::uint32_t command = r.be<std::uint32_t>();
        const std::uint32_t cap = r.be<std::uint32_t>();
        const std::uint32_t async = r.be<std::uint32_t>();
        if (!r.ok() || cap > ipc::device::kMaxPayload) return kFailure;
        const std::uint16_t node = resolve(node_word);
        const auto request = r.rest();
        std::uint8_t* returned_at = w.reserve(4);
        std::uint32_t returned = 0;
        std::uint32_t status = kFailure;
        const std::span<std::uint8_t> reply(returned_at + 4, cap);
        if (ctx_.device.node_up(node)) {
            status = kernel_dispatch(ctx_, node, command, request, reply, &returned);
        }
        if (ctx_.capture.on()) {
            ctx_.capture.record({"request", node, "kernel", 0, command, static_cast<int>(peer_pid())}, request,
                                {{"async", async != 0}, {"reply_cap", cap}});
            ctx_.capture.record({"answer", node, "kernel", 0, command, static_cast<int>(peer_pid())},
                                reply.first(std::min(returned, cap)), {{"status", status}, {"returned", returned}});
        }
        if (async != 0) {
            // The sender learns only that the request left.
            ipc::wire::store_be(returned_at, std::uint32_t{0});
            return 0;
        }
        ipc::wire::store_be(returned_at, returned);
        (void)w.reserve(std::min(returned, cap));
        return status;
    }

    std::uint32_t if_data(Reader& r, Writer& w) {
        const std::uint32_t ifindex = r.be<std::uint32_t>();
        const std::uint32_t item = r.be<std::uint32_t>();
        const auto* i = ctx_.device.interface(ifindex);
        if (!r.ok() || i == nullptr) return kFailure;
        namespace item_of = ipc::device::if_item;
        switch (item) {
            case item_of::kNode: w.be(i->node); return 0;
            case item_of::kName: w.raw(i->name.data(), std::min<std::size_t>(i->name.size(), 31)); return 0;
            case item_of::kType: w.be(i->type); return 0;
            case item_of::kFlags: w.be(i->flags); return 0;
            case item_of::kKind: w.be(i->kind); return 0;
            case item_of::kMac: w.raw(i->mac, sizeof i->mac); return 0;
            case item_of::kVrf: w.be(i->vrf); return 0;
            case item_of::kLinkState:
                w.be(std::uint32_t{i->link_up && ctx_.events.links_down.count(ifindex) == 0 ? 1u : 0u});
                return 0;
            default: return kFailure;
        }
    }

    void leave() {
        drop_subscription();
        ctx_.dumps.close_all(this);
        if (counted_) {
            counted_ = false;
            const auto it = ctx_.device_clients.find(peer_pid());
            if (it != ctx_.device_clients.end() && --it->second == 0) {
                ctx_.device_clients.erase(it);
                ctx_.anchors.drop_process(peer_pid());
            }
        }
    }

    void drop_subscription() {
        if (!subscribed_) return;
        for (auto it = ctx_.kevent_subscribers.begin(); it != ctx_.kevent_subscribers.end();) {
            it = it->second == this ? ctx_.kevent_subscribers.erase(it) : std::next(it);
        }
        subscribed_ = false;
    }

    // The answer under construction: the loop's room for the largest one (status word and
    // payload), shared by every connection; not cleared, every answer is written before it
    // is sent.
    std::span<std::uint8_t> out() noexcept { return loop().answer(); }
    static_assert(Loop::kMaxMessage >= 4 + ipc::device::kMaxPayload, "the loop's answer room holds the largest answer");

    Context& ctx_;
    std::uint16_t node_ = 0;
    // The open dumps' request ids and nodes, by handle (for the faults of a dump's pulls).
    std::map<std::int32_t, std::pair<std::uint32_t, std::uint16_t>> dump_ids_;
    bool subscribed_ = false;
    bool counted_ = true;
};

const DeviceConn::CallOps DeviceConn::kCalls[] = {
    {"", false, nullptr},
    {"hello", true, &DeviceConn::hello},
    {"cioctl", false, &DeviceConn::cioctl},
    {"device", false, &DeviceConn::device_info},
    {"node-location", false, &DeviceConn::node_location},
    {"nodes", false, &DeviceConn::nodes},
    {"node-up", false, &DeviceConn::node_up},
    {"if-data", false, &DeviceConn::if_data},
    {"if-predicate", false, &DeviceConn::if_predicate},
    {"if-by-name", false, &DeviceConn::if_by_name},
    {"if-next", false, &DeviceConn::if_next},
    {"mdc-is-child", false, &DeviceConn::mdc_is_child},
    {"service-status", false, &DeviceConn::service_status},
    {"service-start", false, &DeviceConn::service_start},
    {"service-batch-start", false, &DeviceConn::service_batch_start},
    {"dump-request", false, &DeviceConn::dump_request},
    {"dump-pull", false, &DeviceConn::dump_pull},
    {"dump-terminate", false, &DeviceConn::dump_terminate},
    {"dbm-open", false, &DeviceConn::dbm_open},
    {"dbm-next", false, &DeviceConn::dbm_next},
    {"dbm-close", false, &DeviceConn::dbm_close},
    {"dbm-len", false, &DeviceConn::dbm_len},
    {"kevent-subscribe", true, &DeviceConn::kevent_subscribe},
    {"ping", true, &DeviceConn::ping},
    {"anchor-begin", false, &DeviceConn::anchor_begin},
    {"anchor-inquire", false, &DeviceConn::anchor_inquire},
    {"anchor-set", false, &DeviceConn::anchor_set},
    {"anchor-end", false, &DeviceConn::anchor_end},
    {"library", false, &DeviceConn::library},
    {"faults", false, &DeviceConn::faults},
};

}  // namespace

std::optional<std::uint32_t> device_call_number(std::string_view name) {
    for (std::uint32_t i = 1; i < std::size(DeviceConn::kCalls); ++i) {
        if (name == DeviceConn::kCalls[i].name) return i;
    }
    return std::nullopt;
}

const char* device_call_name(std::uint32_t number) {
    return number > 0 && number < std::size(DeviceConn::kCalls) ? DeviceConn::kCalls[number].name : nullptr;
}

std::unique_ptr<Conn> make_device_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid) {
    return std::make_unique<DeviceConn>(ctx, loop, fd, where, pid);
}

std::size_t post_kernel_event(Context& ctx, std::uint32_t event_class, std::span<const std::uint8_t> bytes) {
    std::size_t reached = 0;
    const auto range = ctx.kevent_subscribers.equal_range(event_class);
    std::vector<Conn*> subs;
    for (auto it = range.first; it != range.second; ++it) subs.push_back(it->second);
    for (Conn* c : subs) {
        if (c->send(bytes)) ++reached;
    }
    return reached;
}

}  // namespace sim
