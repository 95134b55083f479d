// A scripted kernel behind CIOCTL: records every call and answers from a queue of replies
// (the last one repeats), or through a function for tests that compute their answers.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "ipplat/testctl.h"

namespace ipt {

using Bytes = std::vector<std::uint8_t>;

struct KernelCall {
    std::uint32_t node = 0;
    std::uint32_t command = 0;
    Bytes request;
    std::uint32_t reply_cap = 0;
    bool async = false;
    bool reply_null = false;
    bool returned_len_null = false;
};

struct KernelReply {
    std::uint32_t status = 0;
    Bytes bytes;                                 // written to the reply buffer (cut to the capacity)
    std::optional<std::uint32_t> returned_len;   // default: the bytes written
};

class FakeKernel {
public:
    using Answer = std::function<KernelReply(const KernelCall&)>;

    FakeKernel();
    ~FakeKernel();
    FakeKernel(const FakeKernel&) = delete;
    FakeKernel& operator=(const FakeKernel&) = delete;

    // Queues a reply; replies are consumed in order and the last one repeats.
    void reply(KernelReply r);
    void reply(std::uint32_t status, Bytes bytes = {}) { reply(KernelReply{status, std::move(bytes), std::nullopt}); }
    void answer(Answer f);

    std::vector<KernelCall> calls() const;
    KernelCall last() const;
    std::size_t count() const;

private:
    static std::uint32_t handle(void* ctx, const ipp_kcall* call, std::uint8_t* reply, std::uint32_t* returned);

    mutable std::mutex mu_;
    std::vector<KernelCall> calls_;
    std::vector<KernelReply> replies_;
    std::size_t next_ = 0;
    Answer answer_;
};

// Big-endian builders for expected bytes.
void put16(Bytes& b, std::uint16_t v);
void put32(Bytes& b, std::uint32_t v);
void put64(Bytes& b, std::uint64_t v);
void putraw(Bytes& b, const void* p, std::size_t n);

}  // namespace ipt
