// FIB searches, global data records and route-change sequence numbers: exact requests,
// bounded copies of the entries, field-by-field conversion and pass-through of channel codes.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "ipclient/fib.h"
#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

constexpr std::uint32_t kOwnNode = 0xFFFF8000u;
constexpr std::uint32_t kSearchCap = 16392u;
constexpr std::size_t kEntry = 128;
constexpr std::uint8_t kUntouched = 0xA5;

Bytes host64(std::uint64_t v) {
    Bytes b(8);
    std::memcpy(b.data(), &v, 8);
    return b;
}

// The search request: the 64-bit count in host order, then the key as given.
Bytes count_then_key(std::uint64_t count, const Bytes& key) {
    Bytes b(8 + key.size());
    std::memcpy(b.data(), &count, 8);
    std::copy(key.begin(), key.end(), b.begin() + 8);
    return b;
}

Bytes key_bytes(std::size_t n, std::uint8_t seed) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>(seed + i * 7u);
    return b;
}

// Entry k of a reply: bytes that differ between entries and within one.
Bytes entry_bytes(std::size_t k) {
    Bytes b(kEntry);
    for (std::size_t j = 0; j < kEntry; ++j) b[j] = static_cast<std::uint8_t>(k * 31u + j * 7u + 1u);
    return b;
}

// A search reply: the claimed count in host order, then `held` entries.
Bytes search_reply(std::uint64_t claimed, std::size_t held) {
    Bytes b = host64(claimed);
    for (std::size_t k = 0; k < held; ++k) {
        const Bytes e = entry_bytes(k);
        b.insert(b.end(), e.begin(), e.end());
    }
    return b;
}

class SearchTest : public PlatformTest {
protected:
    // The caller's entry buffer, pre-filled so that untouched bytes can be recognised.
    std::vector<std::uint8_t> buffer(std::size_t entries) { return std::vector<std::uint8_t>(entries * kEntry, kUntouched); }

    // The first `copied` entries hold the reply's entries; everything after is untouched.
    static void expect_entries(const std::vector<std::uint8_t>& buf, std::size_t copied) {
        ASSERT_LE(copied * kEntry, buf.size());
        for (std::size_t k = 0; k < copied; ++k) {
            const Bytes e = entry_bytes(k);
            ASSERT_EQ(0, std::memcmp(buf.data() + k * kEntry, e.data(), kEntry)) << "entry " << k;
        }
        for (std::size_t i = copied * kEntry; i < buf.size(); ++i) {
            ASSERT_EQ(buf[i], kUntouched) << "byte " << i << " written beyond the copied entries";
        }
    }

    void expect_search_call(std::uint32_t command, const Bytes& request) {
        ASSERT_EQ(kernel.count(), 1u);
        const KernelCall c = kernel.last();
        EXPECT_EQ(c.node, kOwnNode);
        EXPECT_EQ(c.command, command);
        EXPECT_EQ(c.request, request);
        EXPECT_EQ(c.reply_cap, kSearchCap);
        EXPECT_FALSE(c.reply_null);
        EXPECT_FALSE(c.returned_len_null);
        EXPECT_FALSE(c.async);
    }

    FakeKernel kernel;
};

TEST_F(SearchTest, Fib4RequestIsHostOrderCountThenTheKeyUnchanged) {
    const Bytes key = key_bytes(FIB4_SEARCH_KEY_SIZE, 0x21);
    kernel.reply(0, search_reply(2, 2));
    std::uint64_t count = 0x0102;  // 258: its host-order bytes differ from its big-endian ones
    auto buf = buffer(0x0102);
    ASSERT_EQ(FIB4_SearchInfo(key.data(), &count, buf.data()), 0u);

    const Bytes request = count_then_key(0x0102, key);
    ASSERT_EQ(request.size(), 44u);
    expect_search_call(0x380003u, request);
    EXPECT_EQ(count, 2u);
    expect_entries(buf, 2);
}

TEST_F(SearchTest, Fib6RequestIsHostOrderCountThenTheKeyUnchanged) {
    const Bytes key = key_bytes(FIB6_SEARCH_KEY_SIZE, 0x43);
    kernel.reply(0, search_reply(1, 1));
    std::uint64_t count = 0x0103;
    auto buf = buffer(0x0103);
    ASSERT_EQ(FIB6_SearchInfo(key.data(), &count, buf.data()), 0u);

    const Bytes request = count_then_key(0x0103, key);
    ASSERT_EQ(request.size(), 52u);
    expect_search_call(0x380004u, request);
    EXPECT_EQ(count, 1u);
    expect_entries(buf, 1);
}

TEST_F(SearchTest, FewerEntriesReturnedLowerTheCountAndAreCopiedUnchanged) {
    const Bytes key = key_bytes(FIB4_SEARCH_KEY_SIZE, 1);
    kernel.reply(0, search_reply(3, 3));
    std::uint64_t count = 10;
    auto buf = buffer(10);
    ASSERT_EQ(FIB4_SearchInfo(key.data(), &count, buf.data()), 0u);
    EXPECT_EQ(count, 3u);
    expect_entries(buf, 3);
}

TEST_F(SearchTest, Fib6FewerEntriesReturnedLowerTheCount) {
    const Bytes key = key_bytes(FIB6_SEARCH_KEY_SIZE, 9);
    kernel.reply(0, search_reply(5, 5));
    std::uint64_t count = 7;
    auto buf = buffer(7);
    ASSERT_EQ(FIB6_SearchInfo(key.data(), &count, buf.data()), 0u);
    EXPECT_EQ(count, 5u);
    expect_entries(buf, 5);
}

TEST_F(SearchTest, MoreEntriesReturnedThanAskedCopiesOnlyThoseAsked) {
    const Bytes key = key_bytes(FIB4_SEARCH_KEY_SIZE, 2);
    kernel.reply(0, search_reply(5, 5));
    std::uint64_t count = 2;
    auto buf = buffer(4);  // room for more, so that an over-long copy shows
    ASSERT_EQ(FIB4_SearchInfo(key.data(), &count, buf.data()), 0u);
    EXPECT_EQ(count, 2u);
    expect_entries(buf, 2);
}

TEST_F(SearchTest, AskingFor200WhenTheKernelReturns128SetsTheCountTo128AndCopies16384Bytes) {
    const Bytes key = key_bytes(FIB4_SEARCH_KEY_SIZE, 3);
    kernel.reply(0, search_reply(128, 128));
    std::uint64_t count = 200;
    auto buf = buffer(200);
    ASSERT_EQ(FIB4_SearchInfo(key.data(), &count, buf.data()), 0u);
    EXPECT_EQ(count, 128u);
    expect_entries(buf, 128);  // 16384 bytes, the rest untouched
}

TEST_F(SearchTest, Fib6AskingFor200WhenTheKernelReturns128SetsTheCountTo128) {
    const Bytes key = key_bytes(FIB6_SEARCH_KEY_SIZE, 4);
    kernel.reply(0, search_reply(128, 128));
    std::uint64_t count = 200;
    auto buf = buffer(200);
    ASSERT_EQ(FIB6_SearchInfo(key.data(), &count, buf.data()), 0u);
    EXPECT_EQ(count, 128u);
    expect_entries(buf, 128);
}

TEST_F(SearchTest, ClaimedCountBeyondTheReplyLengthCopiesOnlyWhatTheReplyHolds) {
    const Bytes key = key_bytes(FIB4_SEARCH_KEY_SIZE, 5);
    // The reply claims 100 entries but holds 3.
    kernel.reply(0, search_reply(100, 3));
    std::uint64_t count = 100;
    auto buf = buffer(100);
    ASSERT_EQ(FIB4_SearchInfo(key.data(), &count, buf.data()), 0u);
    EXPECT_EQ(count, 3u);
    expect_entries(buf, 3);
}

TEST_F(SearchTest, ClaimedCountBeyond128NeverReadsPastTheReply) {
    const Bytes key = key_bytes(FIB6_SEARCH_KEY_SIZE, 6);
    // A full reply whose count word claims 300 entries: at most 128 fit in 16392 bytes.
    kernel.reply(0, search_reply(300, 128));
    std::uint64_t count = 250;
    auto buf = buffer(250);
    ASSERT_EQ(FIB6_SearchInfo(key.data(), &count, buf.data()), 0u);
    EXPECT_EQ(count, 128u);
    expect_entries(buf, 128);
}

TEST_F(SearchTest, ReplyTooShortForItsCountWordCopiesNothing) {
    const Bytes key = key_bytes(FIB4_SEARCH_KEY_SIZE, 7);
    kernel.reply(KernelReply{0, search_reply(4, 4), 4u});  // only 4 bytes said to be filled
    std::uint64_t count = 4;
    auto buf = buffer(4);
    ASSERT_EQ(FIB4_SearchInfo(key.data(), &count, buf.data()), 0u);
    EXPECT_EQ(count, 0u);
    expect_entries(buf, 0);
}

TEST_F(SearchTest, ChannelCodeIsReturnedAsItStands) {
    const Bytes key4 = key_bytes(FIB4_SEARCH_KEY_SIZE, 8);
    const Bytes key6 = key_bytes(FIB6_SEARCH_KEY_SIZE, 8);
    kernel.reply(0x2A0B0C0Du, search_reply(2, 2));
    std::uint64_t count = 2;
    auto buf = buffer(2);
    EXPECT_EQ(FIB4_SearchInfo(key4.data(), &count, buf.data()), 0x2A0B0C0Du);
    EXPECT_EQ(count, 2u);
    expect_entries(buf, 0);
    count = 2;
    EXPECT_EQ(FIB6_SearchInfo(key6.data(), &count, buf.data()), 0x2A0B0C0Du);
    EXPECT_EQ(count, 2u);
    expect_entries(buf, 0);
    EXPECT_EQ(kernel.count(), 2u);
}

TEST_F(SearchTest, Fib4SearchForZeroEntriesIsRefused) {
    const Bytes key = key_bytes(FIB4_SEARCH_KEY_SIZE, 10);
    kernel.reply(0, search_reply(0, 0));
    std::uint64_t count = 0;
    auto buf = buffer(1);
    EXPECT_EQ(FIB4_SearchInfo(key.data(), &count, buf.data()), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
    EXPECT_EQ(count, 0u);
    expect_entries(buf, 0);
}

TEST_F(SearchTest, Fib6SearchForZeroEntriesIsSent) {
    const Bytes key = key_bytes(FIB6_SEARCH_KEY_SIZE, 11);
    kernel.reply(0, search_reply(0, 0));
    std::uint64_t count = 0;
    auto buf = buffer(1);
    EXPECT_EQ(FIB6_SearchInfo(key.data(), &count, buf.data()), 0u);
    const Bytes request = count_then_key(0, key);
    expect_search_call(0x380004u, request);
    EXPECT_EQ(count, 0u);
    expect_entries(buf, 0);
}

TEST_F(SearchTest, NullArgumentsAreRefusedBeforeAnyRequest) {
    const Bytes key4 = key_bytes(FIB4_SEARCH_KEY_SIZE, 12);
    const Bytes key6 = key_bytes(FIB6_SEARCH_KEY_SIZE, 12);
    kernel.reply(0, search_reply(1, 1));
    std::uint64_t count = 1;
    auto buf = buffer(1);
    EXPECT_EQ(FIB4_SearchInfo(nullptr, &count, buf.data()), kFailed);
    EXPECT_EQ(FIB4_SearchInfo(key4.data(), nullptr, buf.data()), kFailed);
    EXPECT_EQ(FIB4_SearchInfo(key4.data(), &count, nullptr), kFailed);
    EXPECT_EQ(FIB6_SearchInfo(nullptr, &count, buf.data()), kFailed);
    EXPECT_EQ(FIB6_SearchInfo(key6.data(), nullptr, buf.data()), kFailed);
    EXPECT_EQ(FIB6_SearchInfo(key6.data(), &count, nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
    EXPECT_EQ(count, 1u);
    expect_entries(buf, 0);
}

// ---- Global data records ---------------------------------------------------------------

struct Layout {
    std::vector<std::size_t> words;  // 32-bit big-endian fields
    std::vector<std::size_t> halves; // 16-bit big-endian fields
};

const Layout kSpec4{{0, 4, 8, 16, 24, 28, 32, 36, 52, 56, 60, 64, 72, 76}, {20, 40, 42}};
const Layout kSpec6{{0, 4, 8, 12, 20, 36, 40}, {16, 24, 26}};

// Every byte differs from its neighbours, so a field converted at the wrong offset or with
// the wrong width shows.
Bytes spec_reply(std::size_t n) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>(0x10 + i * 3u);
    return b;
}

// The caller's record after a conversion of `wire`: listed fields in host order, every other
// byte as the caller left it.
std::vector<std::uint8_t> converted(const Bytes& wire, const Layout& layout) {
    std::vector<std::uint8_t> out(wire.size(), kUntouched);
    for (const std::size_t off : layout.words) {
        const std::uint32_t v = (std::uint32_t{wire[off]} << 24) | (std::uint32_t{wire[off + 1]} << 16) |
                                (std::uint32_t{wire[off + 2]} << 8) | std::uint32_t{wire[off + 3]};
        std::memcpy(out.data() + off, &v, 4);
    }
    for (const std::size_t off : layout.halves) {
        const auto v = static_cast<std::uint16_t>((wire[off] << 8) | wire[off + 1]);
        std::memcpy(out.data() + off, &v, 2);
    }
    return out;
}

class SpecDataTest : public PlatformTest {
protected:
    void expect_spec_call(std::uint32_t command, std::uint32_t cap) {
        ASSERT_EQ(kernel.count(), 1u);
        const KernelCall c = kernel.last();
        EXPECT_EQ(c.node, kOwnNode);
        EXPECT_EQ(c.command, command);
        EXPECT_TRUE(c.request.empty());
        EXPECT_EQ(c.reply_cap, cap);
        EXPECT_FALSE(c.reply_null);
        EXPECT_FALSE(c.async);
    }

    FakeKernel kernel;
};

TEST_F(SpecDataTest, Fib4FieldsAreConvertedAtTheirOffsetsAndTheRestIsLeftAlone) {
    const Bytes wire = spec_reply(80);
    kernel.reply(0, wire);
    FIB4_SPEC_DATA_S data;
    std::memset(&data, kUntouched, sizeof data);
    ASSERT_EQ(FIB4_Get_SpecData(&data), 0u);
    expect_spec_call(0x380001u, 80);
    const auto want = converted(wire, kSpec4);
    for (std::size_t i = 0; i < 80; ++i) EXPECT_EQ(data.aucData[i], want[i]) << "offset " << i;
    // Spot checks of the conversion itself, independent of the helper.
    std::uint32_t w0 = 0;
    std::memcpy(&w0, data.aucData, 4);
    EXPECT_EQ(w0, 0x10131619u);
    std::uint16_t h20 = 0;
    std::memcpy(&h20, data.aucData + 20, 2);
    EXPECT_EQ(h20, 0x4C4Fu);
    for (const std::size_t off : {12u, 13u, 14u, 15u, 22u, 23u, 44u, 47u, 48u, 51u, 68u, 71u}) {
        EXPECT_EQ(data.aucData[off], kUntouched) << "offset " << off << " must not be copied";
    }
}

TEST_F(SpecDataTest, Fib6FieldsAreConvertedAtTheirOffsetsAndTheRestIsLeftAlone) {
    const Bytes wire = spec_reply(44);
    kernel.reply(0, wire);
    FIB6_SPEC_DATA_S data;
    std::memset(&data, kUntouched, sizeof data);
    ASSERT_EQ(FIB6_Get_SpecData(&data), 0u);
    expect_spec_call(0x380002u, 44);
    const auto want = converted(wire, kSpec6);
    for (std::size_t i = 0; i < 44; ++i) EXPECT_EQ(data.aucData[i], want[i]) << "offset " << i;
    std::uint32_t w40 = 0;
    std::memcpy(&w40, data.aucData + 40, 4);
    EXPECT_EQ(w40, 0x888B8E91u);
    std::uint16_t h26 = 0;
    std::memcpy(&h26, data.aucData + 26, 2);
    EXPECT_EQ(h26, 0x5E61u);
    for (const std::size_t off : {18u, 19u, 28u, 31u, 32u, 35u}) {
        EXPECT_EQ(data.aucData[off], kUntouched) << "offset " << off << " must not be copied";
    }
}

TEST_F(SpecDataTest, ReplyBufferStartsZeroed) {
    // The kernel claims a full reply without writing it: the fields read as zero.
    kernel.reply(KernelReply{0, {}, 80u});
    FIB4_SPEC_DATA_S data;
    std::memset(&data, kUntouched, sizeof data);
    ASSERT_EQ(FIB4_Get_SpecData(&data), 0u);
    const auto want = converted(Bytes(80, 0), kSpec4);
    for (std::size_t i = 0; i < 80; ++i) EXPECT_EQ(data.aucData[i], want[i]) << "offset " << i;
}

TEST_F(SpecDataTest, WrongLengthReturnsTheChannelsZeroWithTheRecordUntouched) {
    for (const std::uint32_t len : {0u, 4u, 79u, 81u}) {
        SCOPED_TRACE(len);
        FakeKernel k;
        k.reply(KernelReply{0, spec_reply(80), len});
        FIB4_SPEC_DATA_S data;
        std::memset(&data, kUntouched, sizeof data);
        EXPECT_EQ(FIB4_Get_SpecData(&data), 0u);
        for (std::size_t i = 0; i < 80; ++i) ASSERT_EQ(data.aucData[i], kUntouched) << "offset " << i;
        EXPECT_EQ(k.count(), 1u);
    }
    for (const std::uint32_t len : {0u, 43u, 45u, 80u}) {
        SCOPED_TRACE(len);
        FakeKernel k;
        k.reply(KernelReply{0, spec_reply(44), len});
        FIB6_SPEC_DATA_S data;
        std::memset(&data, kUntouched, sizeof data);
        EXPECT_EQ(FIB6_Get_SpecData(&data), 0u);
        for (std::size_t i = 0; i < 44; ++i) ASSERT_EQ(data.aucData[i], kUntouched) << "offset " << i;
        EXPECT_EQ(k.count(), 1u);
    }
}

TEST_F(SpecDataTest, ChannelCodeIsReturnedWithTheRecordUntouched) {
    kernel.reply(0x0BADC0DEu, spec_reply(80));
    FIB4_SPEC_DATA_S d4;
    std::memset(&d4, kUntouched, sizeof d4);
    EXPECT_EQ(FIB4_Get_SpecData(&d4), 0x0BADC0DEu);
    for (std::size_t i = 0; i < 80; ++i) ASSERT_EQ(d4.aucData[i], kUntouched) << "offset " << i;
    FIB6_SPEC_DATA_S d6;
    std::memset(&d6, kUntouched, sizeof d6);
    EXPECT_EQ(FIB6_Get_SpecData(&d6), 0x0BADC0DEu);
    for (std::size_t i = 0; i < 44; ++i) ASSERT_EQ(d6.aucData[i], kUntouched) << "offset " << i;
}

TEST_F(SpecDataTest, NullRecordIsRefusedBeforeAnyRequest) {
    kernel.reply(0, spec_reply(80));
    EXPECT_EQ(FIB4_Get_SpecData(nullptr), kFailed);
    EXPECT_EQ(FIB6_Get_SpecData(nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

// ---- Route-change sequence -----------------------------------------------------------------

class RouteChangeSeqTest : public PlatformTest {
protected:
    FakeKernel kernel;
};

TEST_F(RouteChangeSeqTest, Fib4SequenceIsReturnedAsReceived) {
    kernel.reply(0, Bytes{0x11, 0x22, 0x33, 0x44});
    std::uint32_t raw = 0;
    const std::uint8_t bytes[4] = {0x11, 0x22, 0x33, 0x44};
    std::memcpy(&raw, bytes, 4);  // the bytes as they stand, no byte-order conversion
    EXPECT_EQ(FIB4_GetRouteChangeSeq(), raw);
    ASSERT_EQ(kernel.count(), 1u);
    const KernelCall c = kernel.last();
    EXPECT_EQ(c.node, kOwnNode);
    EXPECT_EQ(c.command, 0x380005u);
    EXPECT_TRUE(c.request.empty());
    EXPECT_EQ(c.reply_cap, 4u);
    EXPECT_FALSE(c.reply_null);
}

TEST_F(RouteChangeSeqTest, Fib6SequenceIsReturnedAsReceived) {
    kernel.reply(0, Bytes{0xA1, 0x02, 0x03, 0x7F});
    std::uint32_t raw = 0;
    const std::uint8_t bytes[4] = {0xA1, 0x02, 0x03, 0x7F};
    std::memcpy(&raw, bytes, 4);
    EXPECT_EQ(FIB6_GetRouteChangeSeq(), raw);
    ASSERT_EQ(kernel.count(), 1u);
    const KernelCall c = kernel.last();
    EXPECT_EQ(c.node, kOwnNode);
    EXPECT_EQ(c.command, 0x380006u);
    EXPECT_TRUE(c.request.empty());
    EXPECT_EQ(c.reply_cap, 4u);
}

TEST_F(RouteChangeSeqTest, FailedRequestReturnsZero) {
    kernel.reply(kFailed);
    EXPECT_EQ(FIB4_GetRouteChangeSeq(), 0u);
    EXPECT_EQ(FIB6_GetRouteChangeSeq(), 0u);
    EXPECT_EQ(kernel.count(), 2u);
}

class NoKernelModuleTest : public PlatformTest {};

TEST_F(NoKernelModuleTest, RouteChangeSequenceIsZeroWhenEveryCallFails) {
    // The platform's default channel fails every call.
    EXPECT_EQ(FIB4_GetRouteChangeSeq(), 0u);
    EXPECT_EQ(FIB6_GetRouteChangeSeq(), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL), 2u);
}

}  // namespace
}  // namespace ipt
