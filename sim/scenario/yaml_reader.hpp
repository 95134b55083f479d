// Reading a YAML document of this simulator's own (a scenario, a lab's topology): every value
// carries its dotted key and its line, and every check fails with an Error naming the file,
// the line and the key (scenario/scenario.hpp). The document is held to the limits of
// scenario/limits.hpp before it is built.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ipproto/wire.hpp"
#include "scenario/bounded.hpp"
#include "scenario/limits.hpp"
#include "scenario/scenario.hpp"

namespace sim::scenario::yaml {

inline constexpr std::size_t kNameMax = 31;

// ---------------------------------------------------------------------------------------
// Values and their places in the document

// A YAML node with the dotted key that leads to it and its 1-based line.
struct Value {
    YAML::Node node;
    std::string key;
    int line = 0;
};

inline int line_of(const YAML::Node& n) {
    const YAML::Mark m = n.Mark();
    return m.is_null() ? 0 : m.line + 1;
}

inline std::string join(const std::string& parent, std::string_view name) {
    return parent.empty() ? std::string(name) : parent + "." + std::string(name);
}

inline std::string item_key(const std::string& parent, std::size_t i) {
    return parent + "[" + std::to_string(i) + "]";
}

// A value as error texts quote it: an excerpt (bounded.hpp) in double quotes.
inline std::string in_quotes(std::string_view s) {
    return "\"" + excerpt(s) + "\"";
}

// Throws the error for one value; every check ends here.
class Reporter {
public:
    explicit Reporter(std::string file) : file_(std::move(file)) {}

    [[noreturn]] void fail(const Value& at, const std::string& what) const {
        throw Error(file_, at.line, at.key, what);
    }
    [[noreturn]] void fail(int line, const std::string& key, const std::string& what) const {
        throw Error(file_, line, key, what);
    }

private:
    std::string file_;
};

using Keys = std::span<const std::string_view>;

// A mapping whose keys were checked against the ones it may hold.
class Map {
public:
    Map(const Reporter& r, const Value& v, Keys known) : r_(r), self_(v) {
        if (!v.node.IsMap()) r.fail(v, "expected a mapping");
        for (auto it = v.node.begin(); it != v.node.end(); ++it) add(it->first, it->second, known);
    }

    std::optional<Value> find(std::string_view name) const {
        for (const auto& [k, v] : entries_) {
            if (k == name) return v;
        }
        return std::nullopt;
    }

    Value need(std::string_view name) const {
        if (auto v = find(name)) return *v;
        r_.fail(self_.line, join(self_.key, name), "missing");
    }

private:
    void add(const YAML::Node& k, const YAML::Node& v, Keys known) {
        const int key_line = line_of(k);
        if (!k.IsScalar()) r_.fail(key_line, self_.key.empty() ? "<document>" : self_.key, "expected a key name");
        const std::string& name = k.Scalar();
        const std::string key = join(self_.key, excerpt(name));
        if (std::find(known.begin(), known.end(), name) == known.end()) r_.fail(key_line, key, "unknown key");
        for (const auto& [seen, at] : entries_) {
            if (seen == name) {
                r_.fail(key_line, key, "duplicate key (first at line " + std::to_string(at.line) + ")");
            }
        }
        // An empty value's mark points past its key, so it is reported on the key's line.
        entries_.emplace_back(name, Value{v, key, v.IsNull() ? key_line : line_of(v)});
    }

    const Reporter& r_;
    Value self_;
    std::vector<std::pair<std::string, Value>> entries_;
};

// The items of a list section; an empty section (no value) has none.
inline std::vector<Value> items(const Reporter& r, const std::optional<Value>& section) {
    std::vector<Value> out;
    if (!section || section->node.IsNull()) return out;
    if (!section->node.IsSequence()) r.fail(*section, "expected a list");
    std::size_t i = 0;
    for (const YAML::Node& n : section->node) {
        out.push_back(Value{n, item_key(section->key, i++), n.IsNull() ? section->line : line_of(n)});
    }
    return out;
}

// ---------------------------------------------------------------------------------------
// Scalars

// A plain scalar may be a number; a quoted one or one tagged as a string never is.
inline bool plain(const Value& v) {
    const std::string& tag = v.node.Tag();
    return tag != "!" && tag != "tag:yaml.org,2002:str";
}

inline const std::string& text(const Reporter& r, const Value& v) {
    if (v.node.IsNull()) r.fail(v, "missing value");
    if (!v.node.IsScalar()) r.fail(v, "expected a single value, not a list or mapping");
    return v.node.Scalar();
}

struct Parsed {
    bool negative = false;
    bool overflow = false;
    std::uint64_t magnitude = 0;
};

// A hexadecimal digit's value; 99 for any other character.
inline int digit_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return 99;
}

// Decimal, 0x hexadecimal or 0o octal, with an optional sign, as YAML writes integers.
inline std::optional<Parsed> parse_integer(std::string_view s) {
    Parsed p;
    if (!s.empty() && (s.front() == '+' || s.front() == '-')) {
        p.negative = s.front() == '-';
        s.remove_prefix(1);
    }
    unsigned base = 10;
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) base = 16;
    if (s.size() > 2 && s[0] == '0' && s[1] == 'o') base = 8;
    if (base != 10) s.remove_prefix(2);
    if (s.empty()) return std::nullopt;
    for (const char c : s) {
        const int d = digit_value(c);
        if (static_cast<unsigned>(d) >= base) return std::nullopt;
        if (p.magnitude > (UINT64_MAX - static_cast<std::uint64_t>(d)) / base) p.overflow = true;
        p.magnitude = p.magnitude * base + static_cast<std::uint64_t>(d);
    }
    return p;
}

inline bool integer_like(const Value& v) {
    return v.node.IsScalar() && plain(v) && parse_integer(v.node.Scalar()).has_value();
}

inline std::uint64_t integer(const Reporter& r, const Value& v, std::uint64_t lo, std::uint64_t hi) {
    const std::string& s = text(r, v);
    const auto p = plain(v) ? parse_integer(s) : std::nullopt;
    if (!p) r.fail(v, "expected an integer, got " + in_quotes(s));
    const bool zero = p->magnitude == 0 && !p->overflow;
    if (p->overflow || (p->negative && !zero) || p->magnitude < lo || p->magnitude > hi) {
        r.fail(v, "must be between " + std::to_string(lo) + " and " + std::to_string(hi) + ", got " + excerpt(s));
    }
    return p->magnitude;
}

template <typename T>
inline T number(const Reporter& r, const Value& v, std::uint64_t lo, std::uint64_t hi) {
    return static_cast<T>(integer(r, v, lo, hi));
}

inline bool boolean(const Reporter& r, const Value& v) {
    static constexpr std::array<std::string_view, 3> kTrue{"true", "True", "TRUE"};
    static constexpr std::array<std::string_view, 3> kFalse{"false", "False", "FALSE"};
    const std::string& s = text(r, v);
    if (plain(v) && std::find(kTrue.begin(), kTrue.end(), s) != kTrue.end()) return true;
    if (plain(v) && std::find(kFalse.begin(), kFalse.end(), s) != kFalse.end()) return false;
    r.fail(v, "expected true or false, got " + in_quotes(s));
}

template <typename T>
using Name = std::pair<std::string_view, T>;
template <typename T, std::size_t N>
using Names = std::array<Name<T>, N>;

template <typename T, std::size_t N>
inline std::string name_list(const Names<T, N>& names) {
    std::string out;
    for (const auto& [name, value] : names) out += (out.empty() ? "" : ", ") + std::string(name);
    return out;
}

template <typename T, std::size_t N>
inline std::optional<T> lookup(const Names<T, N>& names, std::string_view s) {
    for (const auto& [name, value] : names) {
        if (name == s) return value;
    }
    return std::nullopt;
}

template <typename T, std::size_t N>
inline T choice(const Reporter& r, const Value& v, const Names<T, N>& names) {
    const std::string& s = text(r, v);
    if (const auto found = lookup(names, s)) return *found;
    r.fail(v, "expected one of " + name_list(names) + ", got " + in_quotes(s));
}

// A number, or one of the given names for one.
template <typename T, std::size_t N>
inline T number_or_name(const Reporter& r, const Value& v, std::uint64_t hi, const Names<T, N>& names) {
    if (integer_like(v)) return number<T>(r, v, 0, hi);
    const std::string& s = text(r, v);
    if (const auto found = lookup(names, s)) return *found;
    r.fail(v, "expected a number 0.." + std::to_string(hi) + " or one of " + name_list(names) + ", got " + in_quotes(s));
}

// Interface and VRF names: 1 to 31 printable characters, no spaces.
inline std::string object_name(const Reporter& r, const Value& v) {
    const std::string& s = text(r, v);
    if (s.empty() || s.size() > kNameMax) r.fail(v, "must be 1 to 31 characters, got " + in_quotes(s));
    for (const char c : s) {
        if (c <= ' ' || c > '~') r.fail(v, "must be printable characters without spaces, got " + in_quotes(s));
    }
    return s;
}

inline std::string label(const Reporter& r, const Value& v) {
    const std::string& s = text(r, v);
    if (s.empty()) r.fail(v, "must not be empty");
    for (const char c : s) {
        if (c < ' ' || c > '~') r.fail(v, "must be printable characters, got " + in_quotes(s));
    }
    return s;
}

// ---------------------------------------------------------------------------------------
// Addresses

inline std::optional<std::array<std::uint8_t, 6>> parse_mac(std::string_view s) {
    std::array<std::uint8_t, 6> mac{};
    if (s.size() != 17) return std::nullopt;
    for (std::size_t i = 0; i < mac.size(); ++i) {
        const std::size_t at = i * 3;
        if (i > 0 && s[at - 1] != ':') return std::nullopt;
        const int hi = digit_value(s[at]);
        const int lo = digit_value(s[at + 1]);
        if (hi > 15 || lo > 15) return std::nullopt;
        mac[i] = static_cast<std::uint8_t>(hi * 16 + lo);
    }
    return mac;
}

inline void read_mac(const Reporter& r, const Value& v, std::uint8_t (&out)[6]) {
    const std::string& s = text(r, v);
    const auto mac = parse_mac(s);
    if (!mac) r.fail(v, "bad MAC address " + in_quotes(s) + " (expected six hex pairs such as 00:e0:fc:00:00:01)");
    std::copy(mac->begin(), mac->end(), out);
}

struct Ip {
    int family = AF_INET;
    std::array<std::uint8_t, 16> bytes{};
};

inline std::optional<Ip> parse_ip(const std::string& s) {
    Ip ip;
    ip.family = s.find(':') != std::string::npos ? AF_INET6 : AF_INET;
    if (inet_pton(ip.family, s.c_str(), ip.bytes.data()) != 1) return std::nullopt;
    return ip;
}

inline unsigned max_prefix(int family) {
    return family == AF_INET6 ? 128 : 32;
}

struct Prefix {
    Ip ip;
    unsigned len = 0;
};

inline std::optional<unsigned> parse_length(std::string_view s, unsigned max) {
    if (s.empty() || s.size() > 3) return std::nullopt;
    unsigned len = 0;
    for (const char c : s) {
        if (c < '0' || c > '9') return std::nullopt;
        len = len * 10 + static_cast<unsigned>(c - '0');
    }
    if (len > max) return std::nullopt;
    return len;
}

inline std::optional<Prefix> parse_prefix(const std::string& s) {
    const auto slash = s.find('/');
    if (slash == std::string::npos) return std::nullopt;
    const auto ip = parse_ip(s.substr(0, slash));
    if (!ip) return std::nullopt;
    const auto len = parse_length(std::string_view(s).substr(slash + 1), max_prefix(ip->family));
    if (!len) return std::nullopt;
    return Prefix{*ip, *len};
}

inline bool host_bits_clear(const Prefix& p) {
    const int size = p.ip.family == AF_INET6 ? 16 : 4;
    for (int i = 0; i < size; ++i) {
        const int kept = std::clamp(static_cast<int>(p.len) - i * 8, 0, 8);
        const unsigned host_bits = 0xFFu >> kept;
        if ((p.ip.bytes[static_cast<std::size_t>(i)] & host_bits) != 0) return false;
    }
    return true;
}

inline std::string prefix_hint(int family) {
    return family == AF_INET6 ? "an IPv6 address with a prefix length 0..128"
                              : "an IPv4 address with a prefix length 0..32";
}

// The mask of a prefix length, in network order.
inline std::uint32_t mask_of(unsigned len) {
    std::uint32_t mask = 0;
    ipc::wire::store_be(&mask, len == 0 ? 0u : ~0u << (32 - len));
    return mask;
}

inline std::uint32_t ipv4_word(const Ip& ip) {
    std::uint32_t word = 0;
    std::memcpy(&word, ip.bytes.data(), sizeof word);
    return word;
}


// ---------------------------------------------------------------------------------------
// Documents

inline YAML::Node parse_document(const std::string& text, const std::string& name, const Reporter& r) {
    // Its size, nesting and number of values are checked before the document is built.
    if (text.size() > kFileBytesMax) {
        r.fail(1, "<document>", "the text is " + std::to_string(text.size()) + " bytes; at most " +
                                    std::to_string(kFileBytesMax));
    }
    check_shape(text, name);
    std::vector<YAML::Node> docs;
    try {
        docs = YAML::LoadAll(text);
    } catch (const YAML::Exception& e) {
        yaml_error(e, name);
    }
    if (docs.empty()) r.fail(1, "<document>", "empty document");
    if (docs.size() > 1) r.fail(line_of(docs[1]), "<document>", "more than one document");
    if (!docs.front().IsMap()) r.fail(line_of(docs.front()), "<document>", "expected a mapping of sections");
    return docs.front();
}

}  // namespace sim::scenario::yaml
