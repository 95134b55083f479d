// The one call a test expects the library to have made through the kernel channel.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>

#include "support/fake_kernel.hpp"

namespace ipt {

// What the call must have carried. The flags left unset are not compared: some calls
// leave them to the channel.
struct ExpectedCall {
    std::uint32_t node = 0;
    std::uint32_t command = 0;
    Bytes request;
    std::uint32_t reply_cap = 0;
    std::optional<bool> reply_null;
    std::optional<bool> returned_len_null;
    std::optional<bool> async;
};

// `kernel` saw exactly one call, and it is `want`.
inline void expect_only_call(const FakeKernel& kernel, const ExpectedCall& want) {
    ASSERT_EQ(kernel.count(), 1u);
    const KernelCall got = kernel.last();
    EXPECT_EQ(got.node, want.node);
    EXPECT_EQ(got.command, want.command);
    EXPECT_EQ(got.request, want.request);
    EXPECT_EQ(got.reply_cap, want.reply_cap);
    if (want.reply_null) {
        EXPECT_EQ(got.reply_null, *want.reply_null) << "reply buffer";
    }
    if (want.returned_len_null) {
        EXPECT_EQ(got.returned_len_null, *want.returned_len_null) << "returned length";
    }
    if (want.async) {
        EXPECT_EQ(got.async, *want.async) << "asynchronous";
    }
}

}  // namespace ipt
