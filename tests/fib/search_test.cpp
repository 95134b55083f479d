// FIB searches, global data records and route-change sequence numbers: exact requests,
// bounded copies of the entries, field-by-field conversion and pass-through of channel codes.
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "ipclient/fib.h"
#include "ipplat/testctl.h"
#include "support/case_name.hpp"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"
#include "support/kernel_call.hpp"
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

// The global data records' fields in network order, by offset.
struct Layout {
    std::vector<std::size_t> words;  // 32-bit big-endian fields
    std::vector<std::size_t> halves; // 16-bit big-endian fields
};

const Layout kSpec4{{0, 4, 8, 16, 24, 28, 32, 36, 52, 56, 60, 64, 72, 76}, {20, 40, 42}};
const Layout kSpec6{{0, 4, 8, 12, 20, 36, 40}, {16, 24, 26}};

// Every byte differs from its neighbours, so a field converted at the wrong offset or with
// the wrong width shows.
Bytes special_reply(std::size_t n) {
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

// What differs between the IPv4 and the IPv6 calls.
struct Family {
    const char* name;
    std::size_t key_size;
    std::uint32_t search_command;
    std::uint32_t (*search)(const void* key, std::uint64_t* count, void* entries);
    std::uint32_t special_command;
    std::size_t special_size;
    const Layout* layout;
    std::uint32_t (*special)(std::uint8_t* record);  // the record as the caller's struct holds it
    std::uint32_t seq_command;
    std::uint32_t (*seq)();
};

// A global-data call on the caller's record bytes: copied in, fetched, copied back.
template <class Record, std::uint32_t (*Get)(Record*)>
std::uint32_t special_of(std::uint8_t* record) {
    Record data;
    std::memcpy(&data, record, sizeof data);
    const std::uint32_t status = Get(&data);
    std::memcpy(record, &data, sizeof data);
    return status;
}

const Family kFib4{"Fib4", FIB4_SEARCH_KEY_SIZE, 0x380003u, FIB4_SearchInfo, 0x380001u, sizeof(FIB4_SPEC_DATA_S),
                   &kSpec4, special_of<FIB4_SPEC_DATA_S, FIB4_Get_SpecData>, 0x380005u, FIB4_GetRouteChangeSeq};
const Family kFib6{"Fib6", FIB6_SEARCH_KEY_SIZE, 0x380004u, FIB6_SearchInfo, 0x380002u, sizeof(FIB6_SPEC_DATA_S),
                   &kSpec6, special_of<FIB6_SPEC_DATA_S, FIB6_Get_SpecData>, 0x380006u, FIB6_GetRouteChangeSeq};
const Family* const kFamilies[] = {&kFib4, &kFib6};

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
        expect_only_call(kernel, {kOwnNode, command, request, kSearchCap, false, false, false});
    }

    FakeKernel kernel;
};

// What the kernel sends to a search, what the caller asks, and what must come of it.
enum class Sent { kUnchecked, kRequest, kNothing };
struct SearchCase {
    const char* name;
    const Family* family;
    std::uint8_t seed;                         // of the key
    std::uint64_t claimed;                     // the reply's count word
    std::size_t held;                          // the entries the reply holds
    std::optional<std::uint32_t> returned_len; // default: all of the reply
    std::uint64_t count;                       // asked for
    std::size_t room;                          // entries the caller's buffer holds
    std::uint32_t status;
    std::uint64_t want_count;
    std::size_t copied;
    Sent sent;
    std::size_t request_size;                  // 0: not compared
    friend void PrintTo(const SearchCase& row, std::ostream* os) { *os << row.name; }
};

const SearchCase kSearchCases[] = {
    // 258: its host-order bytes differ from its big-endian ones.
    {"Fib4RequestIsHostOrderCountThenTheKeyUnchanged", &kFib4, 0x21, 2, 2, {}, 0x0102, 0x0102, 0, 2, 2,
     Sent::kRequest, 44},
    {"Fib6RequestIsHostOrderCountThenTheKeyUnchanged", &kFib6, 0x43, 1, 1, {}, 0x0103, 0x0103, 0, 1, 1,
     Sent::kRequest, 52},
    {"FewerEntriesReturnedLowerTheCountAndAreCopiedUnchanged", &kFib4, 1, 3, 3, {}, 10, 10, 0, 3, 3, Sent::kUnchecked,
     0},
    {"Fib6FewerEntriesReturnedLowerTheCount", &kFib6, 9, 5, 5, {}, 7, 7, 0, 5, 5, Sent::kUnchecked, 0},
    // Room for more, so that an over-long copy shows.
    {"MoreEntriesReturnedThanAskedCopiesOnlyThoseAsked", &kFib4, 2, 5, 5, {}, 2, 4, 0, 2, 2, Sent::kUnchecked, 0},
    // 16384 bytes copied, the rest untouched.
    {"AskingFor200WhenTheKernelReturns128SetsTheCountTo128AndCopies16384Bytes", &kFib4, 3, 128, 128, {}, 200, 200, 0,
     128, 128, Sent::kUnchecked, 0},
    {"Fib6AskingFor200WhenTheKernelReturns128SetsTheCountTo128", &kFib6, 4, 128, 128, {}, 200, 200, 0, 128, 128,
     Sent::kUnchecked, 0},
    // The reply claims 100 entries but holds 3.
    {"ClaimedCountBeyondTheReplyLengthCopiesOnlyWhatTheReplyHolds", &kFib4, 5, 100, 3, {}, 100, 100, 0, 3, 3,
     Sent::kUnchecked, 0},
    // A full reply whose count word claims 300 entries: at most 128 fit in 16392 bytes.
    {"ClaimedCountBeyond128NeverReadsPastTheReply", &kFib6, 6, 300, 128, {}, 250, 250, 0, 128, 128, Sent::kUnchecked,
     0},
    // Only 4 bytes said to be filled.
    {"ReplyTooShortForItsCountWordCopiesNothing", &kFib4, 7, 4, 4, 4u, 4, 4, 0, 0, 0, Sent::kUnchecked, 0},
    {"Fib4SearchForZeroEntriesIsRefused", &kFib4, 10, 0, 0, {}, 0, 1, kFailed, 0, 0, Sent::kNothing, 0},
    {"Fib6SearchForZeroEntriesIsSent", &kFib6, 11, 0, 0, {}, 0, 1, 0, 0, 0, Sent::kRequest, 0},
};

class SearchCountTest : public SearchTest, public ::testing::WithParamInterface<SearchCase> {};

TEST_P(SearchCountTest, CopiesNoMoreThanTheReplyHoldsAndTheCallerAsked) {
    const SearchCase& c = GetParam();
    const Bytes key = key_bytes(c.family->key_size, c.seed);
    kernel.reply(KernelReply{0, search_reply(c.claimed, c.held), c.returned_len});
    std::uint64_t count = c.count;
    auto buf = buffer(c.room);
    ASSERT_EQ(c.family->search(key.data(), &count, buf.data()), c.status);
    if (c.sent == Sent::kRequest) {
        const Bytes request = count_then_key(c.count, key);
        if (c.request_size != 0) {
            ASSERT_EQ(request.size(), c.request_size);
        }
        expect_search_call(c.family->search_command, request);
    }
    if (c.sent == Sent::kNothing) {
        EXPECT_EQ(kernel.count(), 0u);
    }
    EXPECT_EQ(count, c.want_count);
    expect_entries(buf, c.copied);
}

INSTANTIATE_TEST_SUITE_P(Searches, SearchCountTest, ::testing::ValuesIn(kSearchCases), CaseName());

TEST_F(SearchTest, ChannelCodeIsReturnedAsItStands) {
    kernel.reply(0x2A0B0C0Du, search_reply(2, 2));
    auto buf = buffer(2);
    for (const Family* f : kFamilies) {
        SCOPED_TRACE(f->name);
        const Bytes key = key_bytes(f->key_size, 8);
        std::uint64_t count = 2;
        EXPECT_EQ(f->search(key.data(), &count, buf.data()), 0x2A0B0C0Du);
        EXPECT_EQ(count, 2u);
        expect_entries(buf, 0);
    }
    EXPECT_EQ(kernel.count(), 2u);
}

TEST_F(SearchTest, NullArgumentsAreRefusedBeforeAnyRequest) {
    kernel.reply(0, search_reply(1, 1));
    std::uint64_t count = 1;
    auto buf = buffer(1);
    for (const Family* f : kFamilies) {
        SCOPED_TRACE(f->name);
        const Bytes key = key_bytes(f->key_size, 12);
        EXPECT_EQ(f->search(nullptr, &count, buf.data()), kFailed);
        EXPECT_EQ(f->search(key.data(), nullptr, buf.data()), kFailed);
        EXPECT_EQ(f->search(key.data(), &count, nullptr), kFailed);
    }
    EXPECT_EQ(kernel.count(), 0u);
    EXPECT_EQ(count, 1u);
    expect_entries(buf, 0);
}

// ---- Global data records ---------------------------------------------------------------

class SpecDataTest : public PlatformTest {
protected:
    void expect_special_call(std::uint32_t command, std::uint32_t cap) {
        expect_only_call(kernel, {kOwnNode, command, {}, cap, false, {}, false});
    }

    FakeKernel kernel;
};

// A record's conversion, with spot checks of one word and one half-word independent of
// converted(), and bytes outside every field that must keep the caller's marker.
struct SpecCase {
    const char* name;
    const Family* family;
    std::size_t word_at;
    std::uint32_t word;
    std::size_t half_at;
    std::uint16_t half;
    std::vector<std::size_t> untouched;
    friend void PrintTo(const SpecCase& row, std::ostream* os) { *os << row.name; }
};

const SpecCase kSpecCases[] = {
    {"Fib4FieldsAreConvertedAtTheirOffsetsAndTheRestIsLeftAlone", &kFib4, 0, 0x10131619u, 20, 0x4C4Fu,
     {12, 13, 14, 15, 22, 23, 44, 47, 48, 51, 68, 71}},
    {"Fib6FieldsAreConvertedAtTheirOffsetsAndTheRestIsLeftAlone", &kFib6, 40, 0x888B8E91u, 26, 0x5E61u,
     {18, 19, 28, 31, 32, 35}},
};

class SpecFieldsTest : public SpecDataTest, public ::testing::WithParamInterface<SpecCase> {};

TEST_P(SpecFieldsTest, ConvertsTheListedFieldsOnly) {
    const SpecCase& c = GetParam();
    const Family& f = *c.family;
    const Bytes wire = special_reply(f.special_size);
    kernel.reply(0, wire);
    std::vector<std::uint8_t> data(f.special_size, kUntouched);
    ASSERT_EQ(f.special(data.data()), 0u);
    expect_special_call(f.special_command, static_cast<std::uint32_t>(f.special_size));
    const auto want = converted(wire, *f.layout);
    for (std::size_t i = 0; i < f.special_size; ++i) EXPECT_EQ(data[i], want[i]) << "offset " << i;
    std::uint32_t word = 0;
    std::memcpy(&word, data.data() + c.word_at, 4);
    EXPECT_EQ(word, c.word);
    std::uint16_t half = 0;
    std::memcpy(&half, data.data() + c.half_at, 2);
    EXPECT_EQ(half, c.half);
    for (const std::size_t off : c.untouched) {
        EXPECT_EQ(data[off], kUntouched) << "offset " << off << " must not be copied";
    }
}

INSTANTIATE_TEST_SUITE_P(Records, SpecFieldsTest, ::testing::ValuesIn(kSpecCases), CaseName());

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
    const struct {
        const Family* family;
        std::vector<std::uint32_t> lengths;
    } cases[] = {{&kFib4, {0u, 4u, 79u, 81u}}, {&kFib6, {0u, 43u, 45u, 80u}}};
    for (const auto& c : cases) {
        for (const std::uint32_t len : c.lengths) {
            SCOPED_TRACE(std::string(c.family->name) + " length " + std::to_string(len));
            FakeKernel k;
            k.reply(KernelReply{0, special_reply(c.family->special_size), len});
            std::vector<std::uint8_t> data(c.family->special_size, kUntouched);
            EXPECT_EQ(c.family->special(data.data()), 0u);
            for (std::size_t i = 0; i < data.size(); ++i) ASSERT_EQ(data[i], kUntouched) << "offset " << i;
            EXPECT_EQ(k.count(), 1u);
        }
    }
}

TEST_F(SpecDataTest, ChannelCodeIsReturnedWithTheRecordUntouched) {
    kernel.reply(0x0BADC0DEu, special_reply(80));
    for (const Family* f : kFamilies) {
        SCOPED_TRACE(f->name);
        std::vector<std::uint8_t> data(f->special_size, kUntouched);
        EXPECT_EQ(f->special(data.data()), 0x0BADC0DEu);
        for (std::size_t i = 0; i < data.size(); ++i) ASSERT_EQ(data[i], kUntouched) << "offset " << i;
    }
}

TEST_F(SpecDataTest, NullRecordIsRefusedBeforeAnyRequest) {
    kernel.reply(0, special_reply(80));
    EXPECT_EQ(FIB4_Get_SpecData(nullptr), kFailed);
    EXPECT_EQ(FIB6_Get_SpecData(nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

// ---- Route-change sequence -----------------------------------------------------------------

class RouteChangeSeqTest : public PlatformTest {
protected:
    FakeKernel kernel;
};

struct SeqCase {
    const char* name;
    const Family* family;
    std::uint8_t bytes[4];
    friend void PrintTo(const SeqCase& row, std::ostream* os) { *os << row.name; }
};

const SeqCase kSeqCases[] = {
    {"Fib4SequenceIsReturnedAsReceived", &kFib4, {0x11, 0x22, 0x33, 0x44}},
    {"Fib6SequenceIsReturnedAsReceived", &kFib6, {0xA1, 0x02, 0x03, 0x7F}},
};

class RouteChangeSeqReadTest : public RouteChangeSeqTest, public ::testing::WithParamInterface<SeqCase> {};

TEST_P(RouteChangeSeqReadTest, ReturnsTheBytesAsTheyStand) {
    const SeqCase& c = GetParam();
    kernel.reply(0, Bytes(c.bytes, c.bytes + 4));
    std::uint32_t raw = 0;
    std::memcpy(&raw, c.bytes, 4);  // no byte-order conversion
    EXPECT_EQ(c.family->seq(), raw);
    expect_only_call(kernel, {kOwnNode, c.family->seq_command, {}, 4u, false, {}, {}});
}

INSTANTIATE_TEST_SUITE_P(Sequences, RouteChangeSeqReadTest, ::testing::ValuesIn(kSeqCases), CaseName());

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
