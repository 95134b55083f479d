// A sorted sequence of records kept in chunks of at most kChunk records each.
//
// A table of a million routes in one tree would spend more on its nodes than on its
// routes; in chunks, a record costs its own size and a few percent more. A search is a
// binary search over the chunks' last keys, then one within the chunk. Records that arrive
// in order (a bulk load) fill each chunk to the brim: a full last chunk is followed by a
// new one, and only an insertion inside a full chunk splits it in two.
//
// `KeyOf::key(record)` gives the key records are ordered by (anything with `<=>`); each key
// is held once.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace sim {

template <class T, class KeyOf, std::size_t kChunk = 256>
class SortedChunks {
    static_assert(kChunk >= 4);

public:
    // A record's place: chunk and index within it. The end is {chunks, 0}. A place holds
    // while layout() is unchanged (an assignment keeps places; an insertion or erasure
    // moves them).
    struct Pos {
        std::size_t chunk = 0;
        std::size_t index = 0;
        bool operator==(const Pos&) const = default;
    };

    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    std::uint64_t layout() const noexcept { return layout_; }

    Pos begin() const noexcept { return Pos{}; }
    Pos end() const noexcept { return Pos{chunks_.size(), 0}; }
    bool at_end(Pos p) const noexcept { return p.chunk >= chunks_.size(); }
    // Whether p names a record (of any table state: a place kept from before is checked).
    bool holds(Pos p) const noexcept { return p.chunk < chunks_.size() && p.index < chunks_[p.chunk].size(); }
    const T& at(Pos p) const { return chunks_[p.chunk][p.index]; }
    T& at(Pos p) { return chunks_[p.chunk][p.index]; }
    Pos advance(Pos p) const noexcept {
        if (++p.index >= chunks_[p.chunk].size()) return Pos{p.chunk + 1, 0};
        return p;
    }

    // The first record whose key is not below k.
    template <class K>
    Pos lower_bound(const K& k) const {
        const auto c = std::partition_point(chunks_.begin(), chunks_.end(),
                                            [&](const Chunk& ch) { return KeyOf::key(ch.back()) < k; });
        if (c == chunks_.end()) return end();
        const auto i = std::partition_point(c->begin(), c->end(), [&](const T& v) { return KeyOf::key(v) < k; });
        return Pos{static_cast<std::size_t>(c - chunks_.begin()), static_cast<std::size_t>(i - c->begin())};
    }
    // The first record whose key is above k.
    template <class K>
    Pos upper_bound(const K& k) const {
        const auto c = std::partition_point(chunks_.begin(), chunks_.end(),
                                            [&](const Chunk& ch) { return !(k < KeyOf::key(ch.back())); });
        if (c == chunks_.end()) return end();
        const auto i = std::partition_point(c->begin(), c->end(), [&](const T& v) { return !(k < KeyOf::key(v)); });
        return Pos{static_cast<std::size_t>(c - chunks_.begin()), static_cast<std::size_t>(i - c->begin())};
    }
    // The record of key k, or end().
    template <class K>
    Pos find(const K& k) const {
        const Pos p = lower_bound(k);
        return !at_end(p) && KeyOf::key(at(p)) == k ? p : end();
    }

    // Puts v in its place, or over the record of its key. True when it was new.
    bool insert_or_assign(T v) {
        const auto& k = KeyOf::key(v);
        Pos p = lower_bound(k);
        if (!at_end(p) && KeyOf::key(at(p)) == k) {
            at(p) = std::move(v);
            return false;
        }
        if (at_end(p)) {
            // After every record: at the end of the last chunk, or a new one when it is full.
            if (chunks_.empty() || chunks_.back().size() >= kChunk) chunks_.emplace_back();
            Chunk& last = chunks_.back();
            room_for_one(last);
            last.push_back(std::move(v));
        } else {
            Chunk& ch = chunks_[p.chunk];
            if (ch.size() >= kChunk) {
                // A full chunk: its upper half moves to a new chunk after it.
                const std::size_t half = ch.size() / 2;
                Chunk upper(std::make_move_iterator(ch.begin() + static_cast<std::ptrdiff_t>(half)),
                            std::make_move_iterator(ch.end()));
                ch.erase(ch.begin() + static_cast<std::ptrdiff_t>(half), ch.end());
                chunks_.insert(chunks_.begin() + static_cast<std::ptrdiff_t>(p.chunk) + 1, std::move(upper));
                if (p.index > half) p = Pos{p.chunk + 1, p.index - half};
            }
            Chunk& into = chunks_[p.chunk];
            room_for_one(into);
            into.insert(into.begin() + static_cast<std::ptrdiff_t>(p.index), std::move(v));
        }
        ++size_;
        ++layout_;
        return true;
    }

    void erase(Pos p) {
        Chunk& ch = chunks_[p.chunk];
        ch.erase(ch.begin() + static_cast<std::ptrdiff_t>(p.index));
        if (ch.empty()) {
            chunks_.erase(chunks_.begin() + static_cast<std::ptrdiff_t>(p.chunk));
        } else if (ch.size() * 4 <= ch.capacity() && ch.capacity() > 8) {
            ch.shrink_to_fit();  // a table that shrinks gives its memory back
        }
        --size_;
        ++layout_;
    }

    template <class F>
    void each(F&& f) const {
        for (const Chunk& ch : chunks_) {
            for (const T& v : ch) f(v);
        }
    }

    // Bytes held by the records' chunks (what the table costs beyond its own object).
    std::size_t bytes() const noexcept {
        std::size_t n = chunks_.capacity() * sizeof(Chunk);
        for (const Chunk& ch : chunks_) n += ch.capacity() * sizeof(T);
        return n;
    }
    std::size_t chunks() const noexcept { return chunks_.size(); }

private:
    using Chunk = std::vector<T>;

    // Grows a chunk by doubling, never beyond kChunk records.
    static void room_for_one(Chunk& ch) {
        if (ch.size() < ch.capacity()) return;
        ch.reserve(std::min(kChunk, std::max<std::size_t>(4, ch.capacity() * 2)));
    }

    std::vector<Chunk> chunks_;  // none empty; each in order, and each after the one before
    std::size_t size_ = 0;
    std::uint64_t layout_ = 0;
};

}  // namespace sim
