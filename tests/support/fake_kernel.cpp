#include "support/fake_kernel.hpp"

#include <algorithm>
#include <cstring>

namespace ipt {

FakeKernel::FakeKernel() { ipp_kernel_set_handler(&FakeKernel::handle, this); }

FakeKernel::~FakeKernel() { ipp_kernel_set_handler(nullptr, nullptr); }

void FakeKernel::reply(KernelReply r) {
    const std::lock_guard lock(mu_);
    replies_.push_back(std::move(r));
}

void FakeKernel::answer(Answer f) {
    const std::lock_guard lock(mu_);
    answer_ = std::move(f);
}

std::vector<KernelCall> FakeKernel::calls() const {
    const std::lock_guard lock(mu_);
    return calls_;
}

KernelCall FakeKernel::last() const {
    const std::lock_guard lock(mu_);
    return calls_.empty() ? KernelCall{} : calls_.back();
}

std::size_t FakeKernel::count() const {
    const std::lock_guard lock(mu_);
    return calls_.size();
}

std::uint32_t FakeKernel::handle(void* ctx, const ipp_kcall* call, std::uint8_t* reply, std::uint32_t* returned) {
    auto* self = static_cast<FakeKernel*>(ctx);
    KernelCall c;
    c.node = call->node;
    c.command = call->command;
    if (call->request != nullptr) c.request.assign(call->request, call->request + call->request_len);
    c.reply_null = call->reply_null != 0;
    c.returned_len_null = call->returned_len_null != 0;
    c.reply_cap = call->reply_cap;
    c.async = call->is_async != 0;

    KernelReply r;
    Answer answer;
    {
        const std::lock_guard lock(self->mu_);
        self->calls_.push_back(c);
        answer = self->answer_;
        if (!answer && !self->replies_.empty()) {
            r = self->replies_[std::min(self->next_, self->replies_.size() - 1)];
            if (self->next_ < self->replies_.size()) ++self->next_;
        }
    }
    if (answer) r = answer(c);
    const std::size_t n = std::min<std::size_t>(r.bytes.size(), call->reply_cap);
    if (reply != nullptr && n != 0) std::memcpy(reply, r.bytes.data(), n);
    *returned = r.returned_len.value_or(static_cast<std::uint32_t>(n));
    return r.status;
}

void put16(Bytes& b, std::uint16_t v) {
    b.push_back(static_cast<std::uint8_t>(v >> 8));
    b.push_back(static_cast<std::uint8_t>(v));
}
void put32(Bytes& b, std::uint32_t v) {
    put16(b, static_cast<std::uint16_t>(v >> 16));
    put16(b, static_cast<std::uint16_t>(v));
}
void put64(Bytes& b, std::uint64_t v) {
    put32(b, static_cast<std::uint32_t>(v >> 32));
    put32(b, static_cast<std::uint32_t>(v));
}
void putraw(Bytes& b, const void* p, std::size_t n) {
    const auto* c = static_cast<const std::uint8_t*>(p);
    b.insert(b.end(), c, c + n);
}

}  // namespace ipt
