// Readers of the arguments of control operations. Every operation reads every argument of a
// request through them. Each checks the value's type and range and throws
// std::invalid_argument with a text that names the key and what it takes, e.g.
//   "vlan" must be a whole number from 0 to 4095, got 99999999
//   "mac" must be a string, got 5
//   no interface "Foo0"
// which the channel answers as {"ok": false, "error": TEXT}. Nothing is wrapped or cut to fit
// a field: a value the field cannot hold is refused.
//
// A value quoted in a text is cut to an excerpt (kExcerpt bytes, then "..."); a list or an
// object is named, not shown.
//
// A whole number is a JSON number without a fraction (1e3 is one); a number in a string, a
// boolean or null is not. Its range is the caller's, written at the call, e.g.
//   n.vlan = arg::whole<std::uint16_t, 0, 4095>(req, "vlan", 0);
// The readers come in three forms: required (a missing key is refused: "\"count\" is
// missing"), with a default for a missing key, and `_if` (std::nullopt for a missing key).
// A key given as null is a value of the wrong type, not a missing one.
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace sim {

struct Context;

namespace arg {

using nlohmann::json;

// The longest piece of a value an error text quotes.
inline constexpr std::size_t kExcerpt = 64;

// At most `most` bytes of the text (cut between UTF-8 characters), "..." after a cut.
std::string excerpt(std::string_view text, std::size_t most = kExcerpt);
// A key as error texts name it: in double quotes, cut to an excerpt.
std::string label(std::string_view key);
// A value as error texts show it: a number or a word as it is, a string in double quotes
// and cut to an excerpt, "a list" or "an object".
std::string shown(const json& v);

// Throws the refusal of a missing key: "\"KEY\" is missing".
[[noreturn]] void missing(std::string_view key);
// The value of a key that must be there.
const json& need(const json& req, std::string_view key);
// The value of a key, or nullptr when the request does not have it.
const json* find(const json& req, std::string_view key);

// Refuses every key of the request but "op" and the ones named: "unknown key \"x\"".
void only_keys(const json& req, std::initializer_list<std::string_view> known);

// ---- Whole numbers -------------------------------------------------------------------------

// A whole number from least to most; `name` is how the text names the value: label(key), or
// e.g. "\"attack\"[2]" for an element of a list.
std::uint64_t whole_value(const json& v, std::string_view name, std::uint64_t least, std::uint64_t most);

template <class T, std::uint64_t Least, std::uint64_t Most>
constexpr void check_range() {
    static_assert(std::is_unsigned_v<T>, "whole numbers are read into unsigned fields");
    static_assert(Least <= Most, "an empty range");
    static_assert(Most <= std::numeric_limits<T>::max(), "the range does not fit the field");
}

template <class T, std::uint64_t Least, std::uint64_t Most>
T whole(const json& req, std::string_view key) {
    check_range<T, Least, Most>();
    return static_cast<T>(whole_value(need(req, key), label(key), Least, Most));
}

template <class T, std::uint64_t Least, std::uint64_t Most>
std::optional<T> whole_if(const json& req, std::string_view key) {
    check_range<T, Least, Most>();
    const json* v = find(req, key);
    if (v == nullptr) return std::nullopt;
    return static_cast<T>(whole_value(*v, label(key), Least, Most));
}

template <class T, std::uint64_t Least, std::uint64_t Most>
T whole(const json& req, std::string_view key, T fallback) {
    const auto v = whole_if<T, Least, Most>(req, key);
    return v ? *v : fallback;
}

// A number (a fraction allowed) from least to most: "\"probability\" must be a number from 0
// to 1, got 2".
std::optional<double> real_if(const json& req, std::string_view key, double least, double most);

// A 32-bit code as the device writes it: a whole number, or a string of "0x" and up to 8 hex
// digits ("0x380001"), for the command codes and statuses that are always written in hex.
std::optional<std::uint32_t> code_if(const json& req, std::string_view key);

// One of the numbers listed: "\"family\" must be 4 or 6, got 5".
std::optional<std::uint64_t> number_if(const json& req, std::string_view key, std::initializer_list<std::uint64_t> allowed);
std::uint64_t number(const json& req, std::string_view key, std::initializer_list<std::uint64_t> allowed,
                     std::uint64_t fallback);

// Throws the refusal of a value that is not a list of n whole numbers from least to most.
[[noreturn]] void wrong_list(std::string_view key, std::size_t n, std::uint64_t least, std::uint64_t most,
                             const json& v);

// A list of exactly N whole numbers, each from Least to Most.
template <class T, std::uint64_t Least, std::uint64_t Most, std::size_t N>
std::array<T, N> wholes(const json& v, std::string_view key) {
    check_range<T, Least, Most>();
    if (!v.is_array() || v.size() != N) wrong_list(key, N, Least, Most, v);
    std::array<T, N> out{};
    for (std::size_t i = 0; i < N; ++i) {
        out[i] = static_cast<T>(whole_value(v[i], label(key) + "[" + std::to_string(i) + "]", Least, Most));
    }
    return out;
}

template <class T, std::uint64_t Least, std::uint64_t Most, std::size_t N>
std::optional<std::array<T, N>> wholes_if(const json& req, std::string_view key) {
    const json* v = find(req, key);
    if (v == nullptr) return std::nullopt;
    return wholes<T, Least, Most, N>(*v, key);
}

// ---- Strings, booleans, words ----------------------------------------------------------------

// A string (of any length: texts quote an excerpt of it).
std::string text_value(const json& v, std::string_view name);
std::string text(const json& req, std::string_view key);
std::optional<std::string> text_if(const json& req, std::string_view key);

// true or false (a number is not a boolean).
bool flag_value(const json& v, std::string_view name);
std::optional<bool> flag_if(const json& req, std::string_view key);
bool flag(const json& req, std::string_view key, bool fallback);

// One of the words listed: "\"state\" must be one of reachable, stale, ..., got \"x\"". The
// type of the values is named where no default gives it: word_if<NeighState>(req, "state", {...}).
template <class T>
using Words = std::initializer_list<std::pair<std::string_view, T>>;

[[noreturn]] void wrong_word(std::string_view name, const std::vector<std::string_view>& words, const json& v);

template <class T>
T word_value(const json& v, std::string_view name, Words<T> words) {
    if (v.is_string()) {
        const auto& s = v.get_ref<const std::string&>();
        for (const auto& [w, value] : words) {
            if (s == w) return value;
        }
    }
    std::vector<std::string_view> names;
    for (const auto& [w, value] : words) names.push_back(w);
    wrong_word(name, names, v);
}

template <class T>
std::optional<T> word_if(const json& req, std::string_view key, Words<T> words) {
    const json* v = find(req, key);
    if (v == nullptr) return std::nullopt;
    return word_value(*v, label(key), words);
}

template <class T>
T word(const json& req, std::string_view key, Words<T> words) {
    return word_value(need(req, key), label(key), words);
}

template <class T>
T word(const json& req, std::string_view key, Words<T> words, T fallback) {
    const auto v = word_if(req, key, words);
    return v ? *v : fallback;
}

// Bytes written as an even number of hex digits, at most `most` bytes.
std::vector<std::uint8_t> hex_bytes(const json& req, std::string_view key, std::size_t most);

// ---- Addresses -------------------------------------------------------------------------------

// An IPv4 or IPv6 address: family 2 (the address in the first 4 bytes) or 10.
struct Address {
    std::uint8_t family = 0;
    std::array<std::uint8_t, 16> bytes{};
};

// IPv4 or IPv6 text.
Address address(const json& req, std::string_view key);
std::optional<Address> address_if(const json& req, std::string_view key);
// IPv6 text only.
Address address6(const json& req, std::string_view key);

// "address/length" (IPv4 or IPv6; without "/length" the whole address), with the bits
// past the length cleared.
struct Prefix {
    Address address;
    std::uint8_t length = 0;
};
Prefix prefix(const json& req, std::string_view key);

// "aa:bb:cc:dd:ee:ff": six groups of one or two hex digits, nothing after them.
using Mac = std::array<std::uint8_t, 6>;
Mac mac_value(const json& v, std::string_view name);
std::optional<Mac> mac_if(const json& req, std::string_view key);
Mac mac(const json& req, std::string_view key, const Mac& fallback);

// ---- The device's interfaces and nodes --------------------------------------------------------

// An interface by index (1 to 4294967295) or by name; it must exist.
std::uint32_t interface_value(const Context& ctx, const json& v, std::string_view key);
std::uint32_t interface(const Context& ctx, const json& req, std::string_view key = "interface");
std::optional<std::uint32_t> interface_if(const Context& ctx, const json& req, std::string_view key = "interface");
// "interface", or "ifindex" for the operations that took that key first (not both).
std::uint32_t interface_or_ifindex(const Context& ctx, const json& req);

// A node number (1 to 32767); the node must exist.
std::uint16_t node_value(const Context& ctx, const json& v, std::string_view key);
std::uint16_t node(const Context& ctx, const json& req, std::string_view key = "node");
std::optional<std::uint16_t> node_if(const Context& ctx, const json& req, std::string_view key = "node");

}  // namespace arg
}  // namespace sim
