#include "control/args.hpp"

#include <arpa/inet.h>

#include <cmath>
#include <sstream>
#include <stdexcept>

#include "context.hpp"

namespace sim::arg {
namespace {

// Every interface index a device can have (0 names none).
constexpr std::uint64_t kIfindexLeast = 1;
constexpr std::uint64_t kIfindexMost = 0xFFFFFFFFu;
// Node numbers: 15 bits (the top bit of the 16-bit word means "the master's").
constexpr std::uint64_t kNodeLeast = 1;
constexpr std::uint64_t kNodeMost = 0x7FFF;

[[noreturn]] void refuse(std::string text) { throw std::invalid_argument(std::move(text)); }

// The value of a JSON number without a fraction, whatever its size (nullopt for anything
// else, negative numbers and numbers past 64 bits included).
std::optional<std::uint64_t> as_whole(const json& v) {
    if (v.is_number_unsigned()) return v.get<std::uint64_t>();
    if (v.is_number_integer()) {
        const auto i = v.get<std::int64_t>();
        if (i < 0) return std::nullopt;
        return static_cast<std::uint64_t>(i);
    }
    if (v.is_number_float()) {
        const double d = v.get<double>();
        // 2^64: the first double past the unsigned 64-bit numbers.
        if (!std::isfinite(d) || d < 0 || d != std::floor(d) || d >= 18446744073709551616.0) return std::nullopt;
        return static_cast<std::uint64_t>(d);
    }
    return std::nullopt;
}

std::string range_text(std::uint64_t least, std::uint64_t most) {
    return "from " + std::to_string(least) + " to " + std::to_string(most);
}

// The string of a string value (with no NUL byte in it: no address or name has one), else
// the refusal "NAME must be a string".
const std::string& string_of(const json& v, std::string_view name) {
    if (!v.is_string()) refuse(std::string(name) + " must be a string, got " + shown(v));
    return v.get_ref<const std::string&>();
}

int nibble(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The address of a text, IPv4 first; family 0 when it is neither.
Address parse_address(const std::string& text) {
    Address a;
    if (text.find('\0') != std::string::npos) return a;
    if (::inet_pton(AF_INET, text.c_str(), a.bytes.data()) == 1) {
        a.family = 2;
    } else if (::inet_pton(AF_INET6, text.c_str(), a.bytes.data()) == 1) {
        a.family = 10;
    } else {
        a.bytes = {};
    }
    return a;
}

// "where: " before a text about a key other than the usual one (e.g. "port").
std::string where(std::string_view key, std::string_view usual, std::string_view also = {}) {
    return key == usual || (!also.empty() && key == also) ? std::string() : label(key) + ": ";
}

}  // namespace

std::string excerpt(std::string_view text, std::size_t most) {
    if (text.size() <= most) return std::string(text);
    std::size_t cut = most;
    // Not inside a UTF-8 character: back to the byte that starts it.
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0u) == 0x80u) --cut;
    return std::string(text.substr(0, cut)) + "...";
}

std::string label(std::string_view key) { return "\"" + excerpt(key) + "\""; }

std::string shown(const json& v) {
    if (v.is_string()) return "\"" + excerpt(v.get_ref<const std::string&>()) + "\"";
    if (v.is_array()) return "a list";
    if (v.is_object()) return "an object";
    return excerpt(v.dump());
}

void missing(std::string_view key) { refuse(label(key) + " is missing"); }

const json& need(const json& req, std::string_view key) {
    const json* v = find(req, key);
    if (v == nullptr) missing(key);
    return *v;
}

const json* find(const json& req, std::string_view key) {
    if (!req.is_object()) return nullptr;
    const auto it = req.find(key);
    return it == req.end() ? nullptr : &*it;
}

void only_keys(const json& req, std::initializer_list<std::string_view> known) {
    for (const auto& [key, value] : req.items()) {
        if (key == "op") continue;
        bool found = false;
        for (const std::string_view k : known) found = found || k == key;
        if (!found) refuse("unknown key " + label(key));
    }
}

std::uint64_t whole_value(const json& v, std::string_view name, std::uint64_t least, std::uint64_t most) {
    const auto n = as_whole(v);
    if (!n || *n < least || *n > most) {
        refuse(std::string(name) + " must be a whole number " + range_text(least, most) + ", got " + shown(v));
    }
    return *n;
}

std::optional<std::uint64_t> number_if(const json& req, std::string_view key, std::initializer_list<std::uint64_t> allowed) {
    const json* v = find(req, key);
    if (v == nullptr) return std::nullopt;
    const auto n = as_whole(*v);
    for (const std::uint64_t a : allowed) {
        if (n && *n == a) return a;
    }
    std::string list;
    std::size_t i = 0;
    for (const std::uint64_t a : allowed) {
        list += (i == 0 ? "" : i + 1 == allowed.size() ? " or " : ", ") + std::to_string(a);
        ++i;
    }
    refuse(label(key) + " must be " + list + ", got " + shown(*v));
}

std::uint64_t number(const json& req, std::string_view key, std::initializer_list<std::uint64_t> allowed,
                     std::uint64_t fallback) {
    return number_if(req, key, allowed).value_or(fallback);
}

void wrong_list(std::string_view key, std::size_t n, std::uint64_t least, std::uint64_t most, const json& v) {
    refuse(label(key) + " must be a list of " + std::to_string(n) + " whole numbers " + range_text(least, most) +
           ", got " + (v.is_array() ? "a list of " + std::to_string(v.size()) : shown(v)));
}

std::string text_value(const json& v, std::string_view name) { return string_of(v, name); }

std::string text(const json& req, std::string_view key) { return text_value(need(req, key), label(key)); }

std::optional<std::string> text_if(const json& req, std::string_view key) {
    const json* v = find(req, key);
    if (v == nullptr) return std::nullopt;
    return text_value(*v, label(key));
}

bool flag_value(const json& v, std::string_view name) {
    if (!v.is_boolean()) refuse(std::string(name) + " must be true or false, got " + shown(v));
    return v.get<bool>();
}

std::optional<bool> flag_if(const json& req, std::string_view key) {
    const json* v = find(req, key);
    if (v == nullptr) return std::nullopt;
    return flag_value(*v, label(key));
}

bool flag(const json& req, std::string_view key, bool fallback) { return flag_if(req, key).value_or(fallback); }

void wrong_word(std::string_view name, const std::vector<std::string_view>& words, const json& v) {
    std::string list;
    for (const std::string_view w : words) list += (list.empty() ? "" : ", ") + std::string(w);
    refuse(std::string(name) + " must be one of " + list + ", got " + shown(v));
}

std::vector<std::uint8_t> hex_bytes(const json& req, std::string_view key, std::size_t most) {
    const json* v = find(req, key);
    if (v == nullptr) return {};
    const std::string& s = string_of(*v, label(key));
    auto wrong = [&] {
        refuse(label(key) + " must be an even number of hex digits (at most " + std::to_string(most) +
               " bytes), got " + shown(*v));
    };
    if (s.size() % 2 != 0 || s.size() / 2 > most) wrong();
    std::vector<std::uint8_t> out;
    out.reserve(s.size() / 2);
    for (std::size_t i = 0; i < s.size(); i += 2) {
        const int hi = nibble(s[i]);
        const int lo = nibble(s[i + 1]);
        if (hi < 0 || lo < 0) wrong();
        out.push_back(static_cast<std::uint8_t>(hi * 16 + lo));
    }
    return out;
}

Address address(const json& req, std::string_view key) {
    const json& v = need(req, key);
    const Address a = parse_address(string_of(v, label(key)));
    if (a.family == 0) refuse(label(key) + " must be an IPv4 or IPv6 address, got " + shown(v));
    return a;
}

std::optional<Address> address_if(const json& req, std::string_view key) {
    if (find(req, key) == nullptr) return std::nullopt;
    return address(req, key);
}

Address address6(const json& req, std::string_view key) {
    const json& v = need(req, key);
    const Address a = parse_address(string_of(v, label(key)));
    if (a.family != 10) refuse(label(key) + " must be an IPv6 address, got " + shown(v));
    return a;
}

Prefix prefix(const json& req, std::string_view key) {
    const json& v = need(req, key);
    const std::string& s = string_of(v, label(key));
    auto wrong = [&] {
        refuse(label(key) + " must be an IPv4 or IPv6 address with an optional /length (0 to 32 or 128), got " +
               shown(v));
    };
    const std::size_t slash = s.find('/');
    Prefix p;
    p.address = parse_address(s.substr(0, slash));
    if (p.address.family == 0) wrong();
    const unsigned max = p.address.family == 2 ? 32 : 128;
    unsigned len = max;
    if (slash != std::string::npos) {
        const std::string digits = s.substr(slash + 1);
        if (digits.empty() || digits.size() > 3 || digits.find_first_not_of("0123456789") != std::string::npos) wrong();
        len = static_cast<unsigned>(std::stoul(digits));
        if (len > max) wrong();
    }
    p.length = static_cast<std::uint8_t>(len);
    // The prefix keeps its network bits only.
    for (unsigned i = 0; i < 16; ++i) {
        const unsigned bits = len > 8 * i ? (len - 8 * i > 8 ? 8 : len - 8 * i) : 0;
        p.address.bytes[i] = static_cast<std::uint8_t>(p.address.bytes[i] & static_cast<std::uint8_t>(0xFF00u >> bits));
    }
    return p;
}

Mac mac_value(const json& v, std::string_view name) {
    const std::string& s = string_of(v, name);
    Mac mac{};
    std::size_t at = 0;
    bool good = true;
    for (std::size_t i = 0; i < mac.size() && good; ++i) {
        if (i > 0) {
            good = at < s.size() && s[at] == ':';
            ++at;
        }
        unsigned value = 0;
        std::size_t digits = 0;
        while (good && at < s.size() && digits < 3 && nibble(s[at]) >= 0) {
            value = value * 16 + static_cast<unsigned>(nibble(s[at]));
            ++at;
            ++digits;
        }
        good = good && digits >= 1 && digits <= 2;
        mac[i] = static_cast<std::uint8_t>(value);
    }
    if (!good || at != s.size()) {
        refuse(std::string(name) + " must be a MAC address aa:bb:cc:dd:ee:ff, got " + shown(v));
    }
    return mac;
}

std::optional<Mac> mac_if(const json& req, std::string_view key) {
    const json* v = find(req, key);
    if (v == nullptr) return std::nullopt;
    return mac_value(*v, label(key));
}

Mac mac(const json& req, std::string_view key, const Mac& fallback) { return mac_if(req, key).value_or(fallback); }

std::uint32_t interface_value(const Context& ctx, const json& v, std::string_view key) {
    if (v.is_string()) {
        const std::string& name = v.get_ref<const std::string&>();
        const std::uint32_t ifindex = name.find('\0') == std::string::npos ? ctx.device.find_interface(name) : 0;
        if (ifindex == 0 || ctx.device.interface(ifindex) == nullptr) {
            refuse(where(key, "interface", "ifindex") + "no interface " + shown(v));
        }
        return ifindex;
    }
    const auto n = as_whole(v);
    if (!n || *n < kIfindexLeast || *n > kIfindexMost) {
        refuse(label(key) + " must be an interface index (" + std::to_string(kIfindexLeast) + " to " +
               std::to_string(kIfindexMost) + ") or name, got " + shown(v));
    }
    const auto ifindex = static_cast<std::uint32_t>(*n);
    if (ctx.device.interface(ifindex) == nullptr) {
        refuse(where(key, "interface", "ifindex") + "no interface " + std::to_string(ifindex));
    }
    return ifindex;
}

std::uint32_t interface(const Context& ctx, const json& req, std::string_view key) {
    return interface_value(ctx, need(req, key), key);
}

std::optional<std::uint32_t> interface_if(const Context& ctx, const json& req, std::string_view key) {
    const json* v = find(req, key);
    if (v == nullptr) return std::nullopt;
    return interface_value(ctx, *v, key);
}

std::uint32_t interface_or_ifindex(const Context& ctx, const json& req) {
    const json* by_interface = find(req, "interface");
    const json* by_ifindex = find(req, "ifindex");
    if (by_interface != nullptr && by_ifindex != nullptr) refuse("give \"interface\" or \"ifindex\", not both");
    if (by_ifindex != nullptr) return interface_value(ctx, *by_ifindex, "ifindex");
    return interface(ctx, req, "interface");
}

std::optional<double> real_if(const json& req, std::string_view key, double least, double most) {
    const json* v = find(req, key);
    if (v == nullptr) return std::nullopt;
    if (!v->is_number() || !(v->get<double>() >= least && v->get<double>() <= most)) {
        std::ostringstream range;
        range << least << " to " << most;
        refuse(label(key) + " must be a number from " + range.str() + ", got " + shown(*v));
    }
    return v->get<double>();
}

std::optional<std::uint32_t> code_if(const json& req, std::string_view key) {
    const json* v = find(req, key);
    if (v == nullptr) return std::nullopt;
    if (v->is_string()) {
        const auto& s = v->get_ref<const std::string&>();
        std::uint32_t code = 0;
        bool ok = s.size() > 2 && s.size() <= 10 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
        for (std::size_t i = 2; ok && i < s.size(); ++i) {
            const int d = nibble(s[i]);
            ok = d >= 0;
            code = code << 4 | static_cast<std::uint32_t>(d < 0 ? 0 : d);
        }
        if (!ok) refuse(label(key) + " must be a whole number or \"0x\" and 1 to 8 hex digits, got " + shown(*v));
        return code;
    }
    return static_cast<std::uint32_t>(whole_value(*v, label(key), 0, 0xFFFFFFFFu));
}

std::uint16_t node_value(const Context& ctx, const json& v, std::string_view key) {
    const auto node = static_cast<std::uint16_t>(whole_value(v, label(key), kNodeLeast, kNodeMost));
    if (ctx.device.node(node) == nullptr) refuse(where(key, "node") + "no node " + std::to_string(node));
    return node;
}

std::uint16_t node(const Context& ctx, const json& req, std::string_view key) {
    return node_value(ctx, need(req, key), key);
}

std::optional<std::uint16_t> node_if(const Context& ctx, const json& req, std::string_view key) {
    const json* v = find(req, key);
    if (v == nullptr) return std::nullopt;
    return node_value(ctx, *v, key);
}

}  // namespace sim::arg
