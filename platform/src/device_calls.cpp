// The platform calls that a simulated device answers, each as one call on the device channel.
#include <time.h>

#include <cstdlib>
#include <map>
#include <tuple>
#include <mutex>
#include <cstring>
#include <new>

#include "device.hpp"
#include "ipplat/platform.h"
#include "ipclient/status.h"
#include "ipproto/wire.hpp"
#include "leaf_mutex.hpp"

namespace ipp::dev {
namespace {

using ipc::device::Call;
using ipc::wire::Frame;
using ipc::wire::load_be;

constexpr std::uint32_t kFailure = IPSTATUS_FAILED;

std::span<const std::uint8_t> text(const char* s) noexcept {
    if (s == nullptr) return {};
    return {reinterpret_cast<const std::uint8_t*>(s), std::strlen(s)};
}

// A call with a fixed answer of N bytes; nothing unless all N arrived and the result is 0.
template <std::size_t N, std::size_t F>
std::optional<std::array<std::uint8_t, N>> ask(Call c, const Frame<F>& fields,
                                               std::span<const std::uint8_t> tail = {}) noexcept {
    std::array<std::uint8_t, N> out{};
    const auto a = call(c, fields.span(), tail, out);
    if (!a || a->result != 0 || a->len < N) return std::nullopt;
    return out;
}

// Iterators of database lists live in the client: a position in the list.
struct DbmIterator {
    std::uint32_t position = 0;
};
constexpr std::uintptr_t kHandleTag = 0x1;  // handles are odd, so that null is never one

// Contexts of the walk paths this process began; the cursors live in the simulator.
struct PathContexts {
    LeafMutex mu;
    std::map<std::uint64_t, void*> by_path;
};
PathContexts& path_contexts() {
    static PathContexts p;
    return p;
}

// Directory answers (node locations, interface data) are kept by each thread for a short
// while: a walk that names the same few nodes and interfaces for every record (the FIB dump
// file names both for every route) then asks the simulator once per interval instead of
// several times a record. A change of the directory is seen at most kDirectoryKeepNs later,
// and never across connections (a restarted or another simulator).
constexpr std::int64_t kDirectoryKeepNs = 100'000'000;
constexpr std::size_t kDirectoryEntries = 4096;

// The coarse monotonic clock: a few milliseconds of resolution are plenty here, and it is
// read for every directory call.
std::int64_t coarse_now_ns() noexcept {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    return std::int64_t{ts.tv_sec} * 1'000'000'000 + ts.tv_nsec;
}

struct KeptAnswer {
    std::int64_t at = 0;
    std::uint64_t serial = 0;
    std::optional<Answer> answer;
    std::array<std::uint8_t, 64> bytes{};
};

using DirectoryKey = std::tuple<std::uint32_t, std::uint32_t, std::uint32_t>;

// A thread's kept answers, with the few asked last in front (a walk asks the same handful
// over and over).
struct DirectoryStore {
    std::map<DirectoryKey, KeptAnswer> kept;
    std::array<std::pair<DirectoryKey, const KeptAnswer*>, 8> recent{};
    std::size_t next_recent = 0;
    KeptAnswer passing;
};

bool fresh(const KeptAnswer& k, std::uint64_t serial, std::int64_t now) noexcept {
    return k.serial == serial && now - k.at < kDirectoryKeepNs;
}

// The answer of a directory call from the thread's store, or asked and stored.
const KeptAnswer& kept_answer(DirectoryStore& st, Call c, std::uint32_t a, std::uint32_t b,
                              std::span<const std::uint8_t> fields) {
    const DirectoryKey key{static_cast<std::uint32_t>(c), a, b};
    const std::int64_t now = coarse_now_ns();
    const std::uint64_t serial = current_serial();
    if (serial != 0) {
        for (const auto& [k, kept] : st.recent) {
            if (kept != nullptr && k == key && fresh(*kept, serial, now)) return *kept;
        }
        const auto it = st.kept.find(key);
        if (it != st.kept.end() && fresh(it->second, serial, now)) {
            st.recent[st.next_recent++ % st.recent.size()] = {key, &it->second};
            return it->second;
        }
    }
    if (st.kept.size() >= kDirectoryEntries) {
        st.kept.clear();
        st.recent = {};
    }
    KeptAnswer k;
    k.answer = call(c, fields, {}, k.bytes);
    // Kept only when it came from the connection that was open and current before the call.
    k.serial = connection_serial();
    k.at = now;
    if (serial == 0 || k.serial != serial || !k.answer) {
        st.passing = k;
        return st.passing;
    }
    KeptAnswer& slot = st.kept[key];
    slot = k;
    return slot;
}

const KeptAnswer& directory_answer(Call c, std::uint32_t a, std::uint32_t b,
                                   std::span<const std::uint8_t> fields) noexcept {
    thread_local DirectoryStore store;
    try {
        return kept_answer(store, c, a, b, fields);
    } catch (...) {
        // No room to keep it: asked without the store.
        store.passing = KeptAnswer{};
        store.passing.answer = call(c, fields, {}, store.passing.bytes);
        return store.passing;
    }
}

std::uint64_t anchor_word(void* anchor) noexcept { return reinterpret_cast<std::uintptr_t>(anchor); }

std::uint32_t handle_id(void* h) noexcept { return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(h) >> 1); }

}  // namespace

std::uint32_t cioctl(std::uint32_t node, std::uint32_t command, std::uint32_t request_len, const void* request,
                     std::uint32_t reply_cap, void* reply, std::uint32_t* returned_len, bool async) noexcept {
    if (returned_len != nullptr) *returned_len = 0;
    Frame<16> f;
    f.be<0>(node);
    f.be<4>(command);
    const std::uint32_t cap = reply == nullptr ? 0 : std::min<std::uint32_t>(reply_cap, ipc::device::kMaxPayload);
    f.be<8>(cap);
    f.be<12>(static_cast<std::uint32_t>(async ? 1 : 0));
    const std::span<const std::uint8_t> body(static_cast<const std::uint8_t*>(request),
                                             request != nullptr ? request_len : 0);
    std::uint8_t returned[4] = {};
    const auto a = call(Call::kCioctl, f.span(), body, returned, {static_cast<std::uint8_t*>(reply), cap});
    if (!a || a->len < sizeof returned) return kFailure;
    // The length reported is never more than the bytes that arrived in the caller's buffer.
    const auto arrived = static_cast<std::uint32_t>(std::min<std::size_t>(a->len - sizeof returned, cap));
    if (returned_len != nullptr) *returned_len = std::min(load_be<std::uint32_t>(returned), arrived);
    return a->result;
}

DeviceInfo device_info() noexcept {
    DeviceInfo d;
    const Frame<0> none;
    if (const auto r = ask<12>(Call::kDevice, none)) {
        d.self = load_be<std::uint16_t>(r->data());
        d.master = load_be<std::uint16_t>(r->data() + 2);
        d.master_ep = load_be<std::uint16_t>(r->data() + 4);
        d.mdc = load_be<std::uint16_t>(r->data() + 6);
        d.mdc_child = load_be<std::uint32_t>(r->data() + 8);
    }
    return d;
}

void node_location(std::uint16_t node, std::uint16_t* chassis, std::uint16_t* slot, std::uint16_t* cpu) noexcept {
    Frame<2> f;
    f.be<0>(node);
    const KeptAnswer& k = directory_answer(Call::kNodeLocation, node, 0, f.span());
    const bool ok = k.answer && k.answer->result == 0 && k.answer->len >= 6;
    *chassis = ok ? load_be<std::uint16_t>(k.bytes.data()) : 0;
    *slot = ok ? load_be<std::uint16_t>(k.bytes.data() + 2) : 0;
    *cpu = ok ? load_be<std::uint16_t>(k.bytes.data() + 4) : 0;
}

std::uint16_t* nodes(bool standby, std::uint32_t* count) noexcept {
    if (count != nullptr) *count = 0;
    Frame<4> f;
    f.be<0>(static_cast<std::uint32_t>(standby ? 1 : 0));
    std::uint8_t buf[8 + 2 * 4096];
    const auto a = call(Call::kNodes, f.span(), {}, buf);
    if (!a || a->result != 0) return nullptr;
    ipc::wire::Reader r(buf, a->len);
    const std::uint32_t present = r.be<std::uint32_t>();
    const std::uint32_t n = r.be<std::uint32_t>();
    if (!r.ok() || present == 0 || n > 4096 || r.remaining() < n * 2u) return nullptr;
    auto* out = static_cast<std::uint16_t*>(std::malloc((n + 1) * sizeof(std::uint16_t)));
    if (out == nullptr) return nullptr;
    for (std::uint32_t i = 0; i < n; ++i) out[i] = r.be<std::uint16_t>();
    if (count != nullptr) *count = n;
    return out;
}

std::uint32_t node_up(std::uint32_t node) noexcept {
    Frame<4> f;
    f.be<0>(node);
    const auto r = ask<4>(Call::kNodeUp, f);
    return r ? load_be<std::uint32_t>(r->data()) : 0;
}

std::optional<std::uint32_t> faults() noexcept {
    const Frame<0> none;
    const auto r = ask<4>(Call::kFaults, none);
    if (!r) return std::nullopt;
    return load_be<std::uint32_t>(r->data());
}

std::uint32_t mdc_is_child(std::uint16_t mdc) noexcept {
    Frame<2> f;
    f.be<0>(mdc);
    const auto r = ask<4>(Call::kMdcIsChild, f);
    return r ? load_be<std::uint32_t>(r->data()) : 0;
}

static_assert(IF_DATA_NODE == ipc::device::if_item::kNode && IF_DATA_NAME == ipc::device::if_item::kName &&
              IF_DATA_TYPE == ipc::device::if_item::kType && IF_DATA_FLAGS == ipc::device::if_item::kFlags &&
              IF_DATA_KIND == ipc::device::if_item::kKind && IF_DATA_MAC == ipc::device::if_item::kMac &&
              IF_DATA_VRF == ipc::device::if_item::kVrf && IF_DATA_LINK_STATE == ipc::device::if_item::kLinkState);

std::uint32_t if_data(std::uint32_t ifindex, std::uint32_t item, void* out) noexcept {
    if (out == nullptr) return kFailure;
    Frame<8> f;
    f.be<0>(ifindex);
    f.be<4>(item);
    const KeptAnswer& k = directory_answer(Call::kIfData, ifindex, item, f.span());
    const auto& a = k.answer;
    const std::uint8_t* buf = k.bytes.data();
    if (!a) return kFailure;
    if (a->result != 0) return a->result;
    // The items are host-order values and a zero-terminated name.
    switch (item) {
        case ipc::device::if_item::kNode: {
            if (a->len < 2) return kFailure;
            const std::uint16_t v = load_be<std::uint16_t>(buf);
            std::memcpy(out, &v, sizeof v);
            return 0;
        }
        case ipc::device::if_item::kMac: {
            if (a->len < 6) return kFailure;
            std::memcpy(out, buf, 6);
            return 0;
        }
        case ipc::device::if_item::kVrf: {
            if (a->len < 2) return kFailure;
            const std::uint16_t v = load_be<std::uint16_t>(buf);
            std::memcpy(out, &v, sizeof v);
            return 0;
        }
        case ipc::device::if_item::kName: {
            char name[32] = {};
            std::memcpy(name, buf, std::min<std::size_t>(a->len, sizeof name - 1));
            std::memcpy(out, name, sizeof name);
            return 0;
        }
        default: {
            if (a->len < 4) return kFailure;
            const std::uint32_t v = load_be<std::uint32_t>(buf);
            std::memcpy(out, &v, sizeof v);
            return 0;
        }
    }
}

std::uint32_t if_predicate(std::uint32_t ifindex, ipc::device::IfPredicate which) noexcept {
    Frame<8> f;
    f.be<0>(ifindex);
    f.be<4>(static_cast<std::uint32_t>(which));
    const auto r = ask<4>(Call::kIfPredicate, f);
    return r ? load_be<std::uint32_t>(r->data()) : 0;
}

std::uint32_t if_by_name(const char* name) noexcept {
    if (name == nullptr) return 0;
    const Frame<0> none;
    const auto r = ask<4>(Call::kIfByName, none, text(name).first(std::min<std::size_t>(std::strlen(name), 255)));
    return r ? load_be<std::uint32_t>(r->data()) : 0;
}

std::uint32_t if_next(std::uint32_t after, const std::uint32_t (&type_bits)[8]) noexcept {
    Frame<36> f;
    f.be<0>(after);
    ipc::wire::Writer w(std::span<std::uint8_t>(f.data() + 4, 32));
    for (const std::uint32_t bits : type_bits) w.be(bits);
    const auto r = ask<4>(Call::kIfNext, f);
    return r ? load_be<std::uint32_t>(r->data()) : 0;
}

std::uint32_t service_status(std::uint16_t node, const char* name, std::uint32_t* status) noexcept {
    Frame<2> f;
    f.be<0>(node);
    std::uint8_t buf[4] = {};
    const auto a = call(Call::kServiceStatus, f.span(), text(name), buf);
    if (!a) return kFailure;
    if (a->result != 0) return a->result;
    if (status == nullptr || a->len < 4) return kFailure;
    *status = load_be<std::uint32_t>(buf);
    return 0;
}

std::uint32_t service_start(std::uint16_t node, const char* name) noexcept {
    Frame<2> f;
    f.be<0>(node);
    const auto a = call(Call::kServiceStart, f.span(), text(name), {});
    return a ? a->result : kFailure;
}

std::uint32_t service_batch_start(const std::uint16_t* list, std::uint32_t count, const char* name) noexcept {
    if (list == nullptr && count != 0) return kFailure;
    if (count > 4096) return kFailure;
    std::uint8_t buf[4 + 2 * 4096];
    ipc::wire::Writer w(buf);
    w.be(count);
    for (std::uint32_t i = 0; i < count; ++i) w.be(list[i]);
    const auto a = call(Call::kServiceBatchStart, w.bytes(), text(name), {});
    return a ? a->result : kFailure;
}

std::int32_t dump_request(std::uint32_t node, std::uint32_t id, const void* request, std::uint32_t len) noexcept {
    Frame<8> f;
    f.be<0>(node);
    f.be<4>(id);
    const std::span<const std::uint8_t> body(static_cast<const std::uint8_t*>(request), request != nullptr ? len : 0);
    const auto r = ask<4>(Call::kDumpRequest, f, body);
    if (!r) return -1;
    const auto handle = static_cast<std::int32_t>(load_be<std::uint32_t>(r->data()));
    return handle < 0 ? -1 : handle;
}

std::uint32_t dump_pull(std::int32_t handle, std::uint32_t cap, void* buf, std::uint32_t* len) noexcept {
    if (len != nullptr) *len = 0;
    if (buf == nullptr && cap != 0) return kFailure;
    Frame<8> f;
    f.be<0>(static_cast<std::uint32_t>(handle));
    const std::uint32_t room = std::min<std::uint32_t>(cap, ipc::device::kMaxPayload);
    f.be<4>(room);
    const auto a = call(Call::kDumpPull, f.span(), {}, {static_cast<std::uint8_t*>(buf), room});
    if (!a) return kFailure;
    if (len != nullptr) *len = static_cast<std::uint32_t>(std::min<std::size_t>(a->len, room));
    return a->result;
}

void dump_terminate(std::int32_t handle) noexcept {
    Frame<4> f;
    f.be<0>(static_cast<std::uint32_t>(handle));
    (void)call(Call::kDumpTerminate, f.span(), {}, {});
}

std::uint32_t dbm_open(const char* db, const char* group, std::uint32_t mode, void** handle) noexcept {
    if (db == nullptr || group == nullptr || handle == nullptr) return kFailure;
    std::uint8_t buf[4 + 256 + 1 + 256];
    ipc::wire::Writer w(buf);
    w.be(mode).raw(text(db).first(std::min<std::size_t>(std::strlen(db), 256))).be(std::uint8_t{0});
    w.raw(text(group).first(std::min<std::size_t>(std::strlen(group), 256)));
    std::uint8_t out[4] = {};
    const auto a = call(Call::kDbmOpen, w.bytes(), {}, out);
    if (!a) return kFailure;
    if (a->result != 0) return a->result;
    if (a->len < 4) return kFailure;
    *handle = reinterpret_cast<void*>((static_cast<std::uintptr_t>(load_be<std::uint32_t>(out)) << 1) | kHandleTag);
    return 0;
}

std::int32_t dbm_next(void* handle, const void* key, std::uint32_t key_len, void** iterator, std::uint32_t data_len,
                      void* data) noexcept {
    if (handle == nullptr || iterator == nullptr || (key == nullptr && key_len != 0)) return -1;
    auto* it = static_cast<DbmIterator*>(*iterator);
    if (it == nullptr) {
        it = new (std::nothrow) DbmIterator{};
        if (it == nullptr) return -1;
        *iterator = it;
    }
    Frame<12> f;
    f.be<0>(handle_id(handle));
    f.be<4>(it->position);
    const std::uint32_t cap = data == nullptr ? 0 : std::min<std::uint32_t>(data_len, ipc::device::kMaxPayload);
    f.be<8>(cap);
    std::uint8_t answer[4] = {};
    const auto a = call(Call::kDbmNext, f.span(), {static_cast<const std::uint8_t*>(key), key_len}, answer,
                        {static_cast<std::uint8_t*>(data), cap});
    if (!a || a->result != 0 || a->len < 4) return -1;
    const auto r = static_cast<std::int32_t>(load_be<std::uint32_t>(answer));
    if (r > 0) ++it->position;
    return r;
}

void dbm_free_iterator(void* iterator) noexcept { delete static_cast<DbmIterator*>(iterator); }

std::uint32_t dbm_close(void* handle) noexcept {
    if (handle == nullptr) return kFailure;
    Frame<4> f;
    f.be<0>(handle_id(handle));
    const auto a = call(Call::kDbmClose, f.span(), {}, {});
    return a ? a->result : kFailure;
}

std::int32_t dbm_len(void* handle, const void* key, std::uint32_t key_len) noexcept {
    if (handle == nullptr || (key == nullptr && key_len != 0)) return -1;
    Frame<4> f;
    f.be<0>(handle_id(handle));
    std::uint8_t answer[4] = {};
    const auto a = call(Call::kDbmLen, f.span(), {static_cast<const std::uint8_t*>(key), key_len}, answer);
    if (!a || a->result != 0 || a->len < 4) return -1;
    return static_cast<std::int32_t>(load_be<std::uint32_t>(answer));
}

std::uint64_t anchor_begin(void* anchor, std::uint32_t key, std::uint64_t position, void* context) noexcept {
    Frame<20> f;
    f.be<0>(anchor_word(anchor));
    f.be<8>(key);
    f.be<12>(position);
    const auto r = ask<8>(Call::kAnchorBegin, f);
    const std::uint64_t path = r ? load_be<std::uint64_t>(r->data()) : 0;
    if (path == 0) return 0;
    try {
        const std::lock_guard lock(path_contexts().mu);
        path_contexts().by_path[path] = context;
    } catch (...) {
        return 0;
    }
    return path;
}

std::uint32_t anchor_inquire(void* anchor, std::uint64_t path, std::uint64_t* position, void** context) noexcept {
    Frame<16> f;
    f.be<0>(anchor_word(anchor));
    f.be<8>(path);
    const auto r = ask<8>(Call::kAnchorInquire, f);
    if (!r) return kFailure;
    if (position != nullptr) *position = load_be<std::uint64_t>(r->data());
    if (context != nullptr) {
        const std::lock_guard lock(path_contexts().mu);
        const auto it = path_contexts().by_path.find(path);
        *context = it != path_contexts().by_path.end() ? it->second : nullptr;
    }
    return 0;
}

std::uint32_t anchor_set(void* anchor, std::uint64_t path, std::uint64_t position) noexcept {
    Frame<24> f;
    f.be<0>(anchor_word(anchor));
    f.be<8>(path);
    f.be<16>(position);
    const auto a = call(Call::kAnchorSet, f.span(), {}, {});
    return a ? a->result : kFailure;
}

void anchor_end(void* anchor, std::uint64_t path, void (*release)(void*)) noexcept {
    Frame<16> f;
    f.be<0>(anchor_word(anchor));
    f.be<8>(path);
    const auto a = call(Call::kAnchorEnd, f.span(), {}, {});
    if (!a || a->result != 0) return;  // not a path of this anchor: nothing ends
    void* context = nullptr;
    bool known = false;
    {
        const std::lock_guard lock(path_contexts().mu);
        const auto it = path_contexts().by_path.find(path);
        if (it != path_contexts().by_path.end()) {
            context = it->second;
            known = true;
            path_contexts().by_path.erase(it);
        }
    }
    if (known && release != nullptr) release(context);
}

}  // namespace ipp::dev
