// Rows the ARP and ND tables share: the two clients have the same OpenFlow entry batches,
// rule smooth messages and roaming detection, function by function, with their own lengths.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "surface/surface.hpp"

namespace ipt::surface {

// A void function's row: it has no status to compare, only nothing sent.
template <typename F>
Case voided(std::string function, std::string argument, F f) {
    return Case{.function = std::move(function),
                .argument = std::move(argument),
                .call = [f] {
                    f();
                    return 0u;
                },
                .any_result = true};
}

// A batch replay keyed by a request record on a subscription: a -1 descriptor, a null key.
template <auto Batch, typename Key>
std::vector<Case> keyed_batch_rows(const std::string& name, const std::string& key_name) {
    return {
        Case{name, "iFd -1",
             [] {
                 const Key key{};
                 return Batch(-1, &key);
             }},
        Case{name, key_name + " null", [] { return Batch(5, nullptr); }},
    };
}

// Refresh and delete of OpenFlow entries: a -1 descriptor, a null buffer, a count above the
// largest batch. `Len` is the room of one entry behind the channel header.
template <auto Batch, std::size_t Len, std::uint32_t Max>
std::vector<Case> openflow_batch_rows(const std::string& name) {
    return {
        Case{name, "iFd -1",
             [] {
                 std::uint8_t buf[Len] = {};
                 return Batch(-1, buf, 1);
             }},
        Case{name, "pBuf null", [] { return Batch(5, nullptr, 1); }},
        Case{name, "uiCount above the largest batch",
             [] {
                 std::uint8_t buf[Len] = {};
                 return Batch(5, buf, Max + 1);
             }},
    };
}

// A rule smooth message: a -1 descriptor and class 9.
template <auto Smooth, std::uint8_t ClassMax>
std::vector<Case> rule_smooth_rows(const std::string& name) {
    return {
        Case{name, "iFd -1", [] { return Smooth(-1, 1, 1); }},
        Case{name, "class 9", [] { return Smooth(5, ClassMax + 1, 1); }},
    };
}

// Roaming detection: a -1 descriptor, null records, a zero length, a count that disagrees.
template <auto Roaming, std::uint16_t RecordLen>
std::vector<Case> roaming_rows(const std::string& name) {
    return {
        Case{name, "iFd -1",
             [] {
                 const std::uint8_t records[RecordLen] = {};
                 return Roaming(-1, records, RecordLen, 1);
             }},
        Case{name, "pRecords null", [] { return Roaming(5, nullptr, RecordLen, 1); }},
        Case{name, "usDataLen 0",
             [] {
                 const std::uint8_t records[RecordLen] = {};
                 return Roaming(5, records, 0, 0);
             }},
        Case{name, "usCount disagreeing with the length",
             [] {
                 const std::uint8_t records[RecordLen] = {};
                 return Roaming(5, records, RecordLen, 2);
             }},
    };
}

}  // namespace ipt::surface
