// The bounds a scenario is read within (docs/scenario.md, "Limits"). Each is checked before
// what it guards is spent: the file's size before it is read, the nesting and the number of
// values before the document is built, the neighbour entries before the device is.
#pragma once

#include <cstddef>
#include <cstdint>

namespace sim::scenario {

// Largest scenario file or text, in bytes. A generated file of one neighbour per line
// (about 60 bytes each) holds some 280,000 of them; a run (`count`) needs no line per entry.
inline constexpr std::size_t kFileBytesMax = std::size_t{16} << 20;

// Deepest nesting of lists and mappings; the top-level mapping is level 1. The deepest real
// scenario nests 5 levels (vsis, a VSI, its circuits, a circuit). The YAML reader recurses
// once per level.
inline constexpr int kDepthMax = 64;

// Most YAML values (scalars, lists, mappings, aliases) in a file. The YAML reader holds some
// 570 bytes per value while the document is checked: at most about 1.2 GB for a file within
// these limits.
inline constexpr std::size_t kValuesMax = 2'000'000;

// Most neighbour entries the file's neighbour items make together, each item `count` of
// them (1 by default). The simulator holds about 190 bytes per entry: some 375 MB here.
inline constexpr std::uint64_t kNeighbourEntriesMax = 2'000'000;

// Longest excerpt of a value that an error text quotes, in characters.
inline constexpr std::size_t kExcerptMax = 64;

}  // namespace sim::scenario
