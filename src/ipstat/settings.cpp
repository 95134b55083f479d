// ECMP, load-sharing, configuration, TTL, MTU and forwarding settings.
#include <cstdint>
#include <cstring>

#include "ipclient/ipstat.h"
#include "ipproto/kmod_ipstat.hpp"
#include "ipstat/request.hpp"

namespace {

using namespace ipc::ipstat;
using ipc::kernel::kLocalNodeWord;
using ipc::kernel::node_word;

constexpr std::uint32_t kNotSupported = IPSTATUS_NOT_SUPPORTED;
constexpr std::uint32_t kTtlOnFailure = 255;

// A reply of `words` big-endian words into the caller's buffer; converted when the status
// is 0 and (if exact) the reply has exactly that many bytes.
std::uint32_t read_words(std::uint32_t node, std::uint32_t word, std::uint32_t* out, std::size_t words,
                         bool exact) noexcept {
    if (out == nullptr) return IPSTATUS_FAILED;
    const auto cap = static_cast<std::uint32_t>(words * 4);
    std::uint32_t returned = 0;
    const std::uint32_t status = call(node, word_request(word), cap, out, &returned);
    if (status != IPSTATUS_OK) return status;
    if (!exact || returned == cap) to_host(out, words);
    return IPSTATUS_OK;
}

}  // namespace

extern "C" {

uint32_t IP_GetEcmp(uint16_t usNode, uint32_t uiWord, uint32_t* puiEcmp) {
    return read_words(node_word(usNode), uiWord, puiEcmp, 2, true);
}

uint32_t IP_GetLoadSharingMode(uint16_t usNode, uint32_t uiWord, uint32_t* puiMode) {
    return read_words(node_word(usNode), uiWord, puiMode, 4, false);
}

uint32_t IP_GetEcmpMode(uint32_t uiWord, uint32_t* puiMode) { return read_words(kLocalNodeWord, uiWord, puiMode, 8, true); }

uint32_t IP_GetConf(uint32_t uiSize, uint32_t* puiConf) {
    if (puiConf == nullptr || uiSize < 16) return IPSTATUS_FAILED;
    std::uint8_t reply[16] = {};
    std::uint32_t returned = 0;
    const std::uint32_t status = call(node_word(static_cast<std::uint16_t>(LIP_GetLocalLip())), request(Op::kConf),
                                      sizeof reply, reply, &returned);
    if (status != IPSTATUS_OK) return status;
    std::memcpy(puiConf, reply, std::min<std::size_t>(returned, sizeof reply));
    to_host(puiConf, 4);
    return IPSTATUS_OK;
}

uint32_t IP_SetIPDefaultTTL(uint32_t uiTtl, uint16_t usNode) {
    return call(node_word(usNode), request(Op::kSetDefTtl, uiTtl));
}

uint32_t IP_GetDefTTL(void) {
    std::uint8_t reply[4];
    const auto req = request(Op::kGetDefTtl);
    if (ipc::kernel::read_fixed(kLocalNodeWord, ipc::proto::ipstat::kCmd, req.span(), reply) != IPSTATUS_OK) {
        return kTtlOnFailure;
    }
    return ipc::wire::load_be<std::uint32_t>(reply) & 0xFFu;
}

uint32_t IP_SetDefTTL(void) { return kNotSupported; }

uint32_t IP_SetForwarding(void) { return kNotSupported; }

uint32_t IP_GetForwarding(void) { return g_uiIPForwarding; }

uint32_t IP_GetIfMTU(uint32_t uiIfIndex, uint32_t* puiMtu) {
    if (puiMtu == nullptr) return IPSTATUS_FAILED;
    std::uint8_t reply[4] = {};
    std::uint32_t returned = 0;
    const std::uint32_t status = call(kLocalNodeWord, request(Op::kIfMtu, uiIfIndex), sizeof reply, reply, &returned);
    if (status == IPSTATUS_OK) *puiMtu = ipc::wire::load_be<std::uint32_t>(reply);
    return status;
}

uint32_t IP_GetIPFWConf(uint16_t* pusConf) {
    if (pusConf == nullptr) return IPSTATUS_FAILED;
    *pusConf = 0;
    std::uint8_t reply[2] = {};
    std::uint32_t returned = 0;
    const std::uint32_t status = call(kLocalNodeWord, request(Op::kFwConf), sizeof reply, reply, &returned);
    if (status == IPSTATUS_OK) *pusConf = ipc::wire::load_be<std::uint16_t>(reply);
    return status;
}

}  // extern "C"
