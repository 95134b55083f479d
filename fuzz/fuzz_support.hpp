// Shared pieces of the fuzz targets: the fuzzer's bytes cut into datagrams, a socket pair
// that plays the peer, and a kernel backend that answers CIOCTL with bytes the fuzzer chose.
// Every target drives the shipped library through the platform's test control: the code
// under test is the code applications link.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "ipplat/testctl.h"

namespace ipfuzz {

using Bytes = std::vector<std::uint8_t>;

// Reads every byte of what a callback was handed, so that a record delivered past the bytes
// received shows under the sanitizer.
inline void touch(const void* p, std::size_t n) {
    volatile std::uint8_t sum = 0;
    const auto* b = static_cast<const std::uint8_t*>(p);
    for (std::size_t i = 0; i < n; ++i) sum = static_cast<std::uint8_t>(sum + b[i]);
}

// Up to `max` datagrams, each of a length the fuzzer picks (0 to `cap` bytes).
inline std::vector<Bytes> datagrams(FuzzedDataProvider& in, std::size_t max, std::size_t cap) {
    std::vector<Bytes> out;
    while (out.size() < max && in.remaining_bytes() > 0) {
        const std::size_t len = in.ConsumeIntegralInRange<std::size_t>(0, cap);
        out.push_back(in.ConsumeBytes<std::uint8_t>(len));
    }
    return out;
}

// A connected pair of sequenced-packet sockets: `ours` plays the peer, `theirs` goes to the
// library. Closed on destruction (either end may be handed over and marked -1).
struct Pair {
    int ours = -1;
    int theirs = -1;
    explicit Pair(int type = SOCK_SEQPACKET) {
        int fds[2];
        if (::socketpair(AF_UNIX, type, 0, fds) == 0) {
            ours = fds[0];
            theirs = fds[1];
            const int big = 1 << 22;
            (void)::setsockopt(ours, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
            (void)::setsockopt(theirs, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
        }
    }
    ~Pair() {
        if (ours >= 0) ::close(ours);
        if (theirs >= 0) ::close(theirs);
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;
    bool ok() const { return ours >= 0 && theirs >= 0; }
    // Queues the datagrams for the library's end (without blocking; what does not fit is dropped).
    void feed(const std::vector<Bytes>& grams) const {
        for (const Bytes& g : grams) (void)::send(ours, g.data(), g.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    // Ends the peer's side: the library's next receive after the queued datagrams sees 0.
    void hang_up() {
        if (ours >= 0) (void)::shutdown(ours, SHUT_WR);
    }
    // Reads and drops whatever the library sent to the peer.
    void drain() const {
        std::uint8_t buf[65536];
        while (::recv(ours, buf, sizeof buf, MSG_DONTWAIT) > 0) {
        }
    }
};

// Kernel replies scripted by the fuzzer: for each call in turn a status, a claimed returned
// length and reply bytes (cut to the caller's capacity); the last one repeats.
class ScriptedKernel {
public:
    ScriptedKernel(FuzzedDataProvider& in, std::size_t max_replies) {
        const std::size_t n = in.ConsumeIntegralInRange<std::size_t>(1, max_replies);
        for (std::size_t i = 0; i < n; ++i) {
            Reply r;
            r.status = in.ConsumeBool() ? 0u : in.ConsumeIntegral<std::uint32_t>();
            r.claim_written = in.ConsumeBool();
            r.claimed = in.ConsumeIntegral<std::uint32_t>();
            r.bytes = in.ConsumeBytes<std::uint8_t>(in.ConsumeIntegralInRange<std::size_t>(0, 20000));
            replies_.push_back(std::move(r));
        }
        ipp_kernel_set_handler(&ScriptedKernel::handle, this);
    }
    ~ScriptedKernel() { ipp_kernel_set_handler(nullptr, nullptr); }
    ScriptedKernel(const ScriptedKernel&) = delete;
    ScriptedKernel& operator=(const ScriptedKernel&) = delete;
    std::size_t calls() const { return calls_; }

private:
    struct Reply {
        std::uint32_t status = 0;
        bool claim_written = true;  // report the bytes written, else the fuzzer's length
        std::uint32_t claimed = 0;
        Bytes bytes;
    };
    static std::uint32_t handle(void* ctx, const ipp_kcall* call, std::uint8_t* reply, std::uint32_t* returned) {
        auto* self = static_cast<ScriptedKernel*>(ctx);
        const Reply& r = self->replies_[self->calls_ < self->replies_.size() ? self->calls_ : self->replies_.size() - 1];
        ++self->calls_;
        std::uint32_t n = 0;
        if (reply != nullptr) {
            n = static_cast<std::uint32_t>(r.bytes.size() < call->reply_cap ? r.bytes.size() : call->reply_cap);
            if (n != 0) std::memcpy(reply, r.bytes.data(), n);
        }
        *returned = r.claim_written ? n : r.claimed;
        return r.status;
    }
    std::vector<Reply> replies_;
    std::size_t calls_ = 0;
};

// A platform with virtual sleep, a directory with nodes 1 and 2 up (1 the local node and the
// master) and interfaces 1 to 4 of a few kinds, so that calls reach their parsers.
void reset_platform();

// The input as up to 16 datagrams of at most `longest` bytes, queued for the library's end of
// a fresh socket pair (on a platform made anew); then handle(library's descriptor) once per
// datagram and once more, on the socket left empty. What the library sent back is dropped.
template <class Handle>
int datagram_input(const std::uint8_t* data, std::size_t size, std::size_t longest, Handle handle) {
    reset_platform();
    FuzzedDataProvider in(data, size);
    Pair pair;
    if (!pair.ok()) return 0;
    const auto grams = datagrams(in, 16, longest);
    pair.feed(grams);
    for (std::size_t i = 0; i <= grams.size(); ++i) handle(pair.theirs);
    pair.drain();
    return 0;
}

}  // namespace ipfuzz
