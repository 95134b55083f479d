// Wire codec: places big-endian and raw fields at byte offsets and reads them back.
//
// Every multi-byte field that crosses a channel is big-endian; addresses and opaque bytes
// travel as they stand. Requests are built in fixed-size stack frames whose field offsets
// are checked at compile time; bytes received from a peer are read through a View whose
// every access is checked against what was received.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <utility>

namespace ipc::wire {

template <class U>
concept Word = std::same_as<U, std::uint8_t> || std::same_as<U, std::uint16_t> ||
               std::same_as<U, std::uint32_t> || std::same_as<U, std::uint64_t>;

// Host order <-> big-endian (the same operation both ways).
template <Word U>
constexpr U swap_be(U v) noexcept {
    if constexpr (std::endian::native == std::endian::big || sizeof(U) == 1) {
        return v;
    } else if constexpr (sizeof(U) == 2) {
        return __builtin_bswap16(v);
    } else if constexpr (sizeof(U) == 4) {
        return __builtin_bswap32(v);
    } else {
        return __builtin_bswap64(v);
    }
}

template <Word U>
inline void store_be(void* dst, U v) noexcept {
    v = swap_be(v);
    std::memcpy(dst, &v, sizeof v);
}

template <Word U>
inline U load_be(const void* src) noexcept {
    U v;
    std::memcpy(&v, src, sizeof v);
    return swap_be(v);
}

// Converts one word in place between host and big-endian order.
template <Word U>
inline void swap_at(void* p) noexcept {
    U v;
    std::memcpy(&v, p, sizeof v);
    v = swap_be(v);
    std::memcpy(p, &v, sizeof v);
}

// A field of a record as it travels: big-endian words are swapped, raw bytes are not.
struct Field {
    std::uint16_t offset;
    std::uint8_t width;  // 2, 4 or 8 for big-endian words
};

namespace detail {
// One step of a fixed conversion: a field, or two adjacent fields of the same width (2 or 4)
// done as one word twice as wide, byte-reversed and then rotated by one field, which leaves
// each field swapped in its own place.
struct SwapStep {
    std::uint16_t offset = 0;
    std::uint8_t width = 0;
    bool pair = false;
};

template <const auto& Fields>
constexpr std::size_t step_count() noexcept {
    std::size_t n = 0;
    for (std::size_t i = 0; i < std::size(Fields); ++i, ++n) {
        const bool pairs = i + 1 < std::size(Fields) && Fields[i].width <= 4 &&
                           Fields[i + 1].width == Fields[i].width &&
                           Fields[i].offset + Fields[i].width == Fields[i + 1].offset;
        if (pairs) ++i;
    }
    return n;
}

template <const auto& Fields>
constexpr std::array<SwapStep, step_count<Fields>()> swap_steps() noexcept {
    std::array<SwapStep, step_count<Fields>()> steps{};
    std::size_t n = 0;
    for (std::size_t i = 0; i < std::size(Fields); ++i, ++n) {
        const bool pairs = i + 1 < std::size(Fields) && Fields[i].width <= 4 &&
                           Fields[i + 1].width == Fields[i].width &&
                           Fields[i].offset + Fields[i].width == Fields[i + 1].offset;
        steps[n] = SwapStep{Fields[i].offset, Fields[i].width, pairs};
        if (pairs) ++i;
    }
    return steps;
}

template <class U>
inline void swap_pair_at(std::uint8_t* p) noexcept {
    U v;
    std::memcpy(&v, p, sizeof v);
    v = std::rotr(swap_be(v), static_cast<int>(sizeof(U) * 4));
    std::memcpy(p, &v, sizeof v);
}

template <SwapStep Step>
inline void swap_step(std::uint8_t* record) noexcept {
    std::uint8_t* const p = record + Step.offset;
    if constexpr (Step.pair && Step.width == 2) {
        swap_pair_at<std::uint32_t>(p);
    } else if constexpr (Step.pair) {
        static_assert(Step.width == 4, "only 2- and 4-byte fields are paired");
        swap_pair_at<std::uint64_t>(p);
    } else if constexpr (Step.width == 2) {
        swap_at<std::uint16_t>(p);
    } else if constexpr (Step.width == 4) {
        swap_at<std::uint32_t>(p);
    } else {
        static_assert(Step.width == 8, "big-endian fields are 2, 4 or 8 bytes wide");
        swap_at<std::uint64_t>(p);
    }
}

template <const auto& Fields>
inline constexpr auto kSwapSteps = swap_steps<Fields>();
}  // namespace detail

// The same for a table known at compile time over a record of `Size` bytes: straight-line
// code, one swap per field at its fixed offset (two adjacent fields of one width share one),
// with no loop and no width test left at run time. For the event drains, which convert every
// record of every datagram.
template <const auto& Fields, std::size_t Size>
inline void swap_fields(std::uint8_t* record) noexcept {
    static_assert(std::ranges::all_of(Fields, [](const auto& f) { return f.offset + f.width <= Size; }),
                  "every field lies within the record");
    [record]<std::size_t... I>(std::index_sequence<I...>) {
        (detail::swap_step<detail::kSwapSteps<Fields>[I]>(record), ...);
    }(std::make_index_sequence<detail::kSwapSteps<Fields>.size()>{});
}

// Swaps, in place, every big-endian field of one record between wire and host order.
// The operation is its own inverse, so it serves requests and replies alike.
template <std::size_t N>
inline void swap_fields(std::span<std::uint8_t> record, const std::array<Field, N>& fields) noexcept {
    for (const Field& f : fields) {
        if (static_cast<std::size_t>(f.offset) + f.width > record.size()) {
            continue;  // never reached for the fixed tables; keeps the access in bounds
        }
        std::uint8_t* p = record.data() + f.offset;
        switch (f.width) {
            case 2: swap_at<std::uint16_t>(p); break;
            case 4: swap_at<std::uint32_t>(p); break;
            case 8: swap_at<std::uint64_t>(p); break;
            default: break;
        }
    }
}

// A request under construction, N bytes on the stack, zero-filled.
template <std::size_t N>
class Frame {
public:
    static constexpr std::size_t size() noexcept { return N; }
    std::uint8_t* data() noexcept { return bytes_.data(); }
    const std::uint8_t* data() const noexcept { return bytes_.data(); }
    std::span<std::uint8_t, N> span() noexcept { return bytes_; }
    std::span<const std::uint8_t, N> span() const noexcept { return bytes_; }

    // Big-endian word at a fixed offset.
    template <std::size_t Off, Word U>
    void be(U v) noexcept {
        static_assert(Off + sizeof(U) <= N, "field outside the frame");
        store_be(bytes_.data() + Off, v);
    }

    // Bytes copied as they stand (addresses, opaque data).
    template <std::size_t Off, std::size_t Len>
    void raw(const void* src) noexcept {
        static_assert(Off + Len <= N, "field outside the frame");
        std::memcpy(bytes_.data() + Off, src, Len);
    }

    // A raw 32-bit value (an IPv4 address kept in network order).
    template <std::size_t Off>
    void raw32(std::uint32_t v) noexcept { raw<Off, 4>(&v); }

    // A host-order record copied in, then its big-endian fields swapped.
    template <std::size_t Off, class Rec, std::size_t F>
    void record(const Rec& rec, const std::array<Field, F>& fields) noexcept {
        static_assert(Off + sizeof(Rec) <= N, "record outside the frame");
        std::memcpy(bytes_.data() + Off, &rec, sizeof(Rec));
        swap_fields(std::span<std::uint8_t>(bytes_.data() + Off, sizeof(Rec)), fields);
    }

private:
    std::array<std::uint8_t, N> bytes_{};
};

// Bytes received from a peer. Reads outside what was received yield nothing.
class View {
public:
    constexpr View() noexcept = default;
    constexpr explicit View(std::span<const std::uint8_t> bytes) noexcept : bytes_(bytes) {}
    View(const void* p, std::size_t n) noexcept
        : bytes_(static_cast<const std::uint8_t*>(p), p != nullptr ? n : 0) {}

    constexpr std::size_t size() const noexcept { return bytes_.size(); }
    constexpr bool has(std::size_t off, std::size_t len) const noexcept {
        return off <= bytes_.size() && len <= bytes_.size() - off;
    }

    template <Word U>
    std::optional<U> be(std::size_t off) const noexcept {
        if (!has(off, sizeof(U))) return std::nullopt;
        return load_be<U>(bytes_.data() + off);
    }

    // The bytes [off, off + len), or nothing when they were not all received.
    std::optional<View> sub(std::size_t off, std::size_t len) const noexcept {
        if (!has(off, len)) return std::nullopt;
        return View(bytes_.subspan(off, len));
    }

    std::span<const std::uint8_t> bytes() const noexcept { return bytes_; }

private:
    std::span<const std::uint8_t> bytes_{};
};

// A message of variable length written front to back into a caller's buffer. A field that
// does not fit marks the writer as overflowed and is not written; nothing is allocated.
class Writer {
public:
    explicit Writer(std::span<std::uint8_t> out) noexcept : out_(out) {}

    template <Word U>
    Writer& be(U v) noexcept {
        if (std::uint8_t* p = take(sizeof(U))) store_be(p, v);
        return *this;
    }
    Writer& raw(const void* src, std::size_t len) noexcept {
        if (len == 0) return *this;
        if (std::uint8_t* p = take(len)) std::memcpy(p, src, len);
        return *this;
    }
    Writer& raw(std::span<const std::uint8_t> bytes) noexcept { return raw(bytes.data(), bytes.size()); }
    Writer& zeros(std::size_t len) noexcept {
        if (std::uint8_t* p = take(len)) std::memset(p, 0, len);
        return *this;
    }
    // Room for len bytes that the caller fills; null when they do not fit.
    std::uint8_t* reserve(std::size_t len) noexcept { return take(len); }
    // Overwrites a big-endian word already written (a length known only at the end).
    template <Word U>
    void patch_be(std::size_t off, U v) noexcept {
        if (off <= used_ && sizeof(U) <= used_ - off) store_be(out_.data() + off, v);
    }

    std::size_t size() const noexcept { return used_; }
    std::size_t room() const noexcept { return out_.size() - used_; }
    bool ok() const noexcept { return !overflow_; }
    std::span<const std::uint8_t> bytes() const noexcept { return out_.first(used_); }

private:
    std::uint8_t* take(std::size_t len) noexcept {
        if (overflow_ || len > out_.size() - used_) {
            overflow_ = true;
            return nullptr;
        }
        std::uint8_t* p = out_.data() + used_;
        used_ += len;
        return p;
    }

    std::span<std::uint8_t> out_;
    std::size_t used_ = 0;
    bool overflow_ = false;
};

// Reads the fields of received bytes front to back. A field that was not all received
// marks the reader as short and yields zero (or an empty span).
class Reader {
public:
    explicit Reader(View v) noexcept : v_(v) {}
    Reader(const void* p, std::size_t n) noexcept : v_(p, n) {}

    template <Word U>
    U be() noexcept {
        const auto r = v_.be<U>(pos_);
        if (!r) {
            short_ = true;
            return 0;
        }
        pos_ += sizeof(U);
        return *r;
    }
    std::span<const std::uint8_t> raw(std::size_t len) noexcept {
        if (!v_.has(pos_, len)) {
            short_ = true;
            return {};
        }
        const auto s = v_.bytes().subspan(pos_, len);
        pos_ += len;
        return s;
    }
    // Copies len bytes as they stand into dst; zero-fills dst when they were not received.
    void raw_into(void* dst, std::size_t len) noexcept {
        const auto s = raw(len);
        if (s.size() == len && len != 0) {
            std::memcpy(dst, s.data(), len);
        } else if (len != 0) {
            std::memset(dst, 0, len);
        }
    }
    // Everything not yet read.
    std::span<const std::uint8_t> rest() noexcept {
        const auto s = v_.bytes().subspan(std::min(pos_, v_.size()));
        pos_ = v_.size();
        return s;
    }
    std::size_t remaining() const noexcept { return v_.size() - std::min(pos_, v_.size()); }
    std::size_t offset() const noexcept { return pos_; }
    bool ok() const noexcept { return !short_; }

private:
    View v_;
    std::size_t pos_ = 0;
    bool short_ = false;
};

}  // namespace ipc::wire
