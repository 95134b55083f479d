// The control channel's operations: the fuzzer's bytes as one request to the daemon's
// Control, as a connection to "ipclient/<instance>/control" hands it over. Every answer must
// be one JSON object with "ok"; a refusal's error text is short and in the operation's words,
// never the JSON library's.
#include <cstdlib>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "sim_support.hpp"

namespace {

// Most entries a burst makes here. A burst may make up to 4,000,000, one table change each:
// seconds of work and hundreds of MB per input that reach no code a smaller one does not.
constexpr double kBurstMost = 1000;

bool long_burst(std::string_view request) {
    const auto req = nlohmann::json::parse(request, nullptr, false);
    if (!req.is_object()) return false;
    const auto op = req.find("op");
    const auto count = req.find("count");
    if (op == req.end() || count == req.end() || *op != "neigh.burst" || !count->is_number()) return false;
    const double n = count->get<double>();
    return n > kBurstMost && n <= 4'000'000;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view request(reinterpret_cast<const char*>(data), size);
    if (long_burst(request)) return 0;
    const std::string text = ipfuzz::simfuzz::control(request);
    const auto answer = nlohmann::json::parse(text, nullptr, false);
    if (!answer.is_object() || !answer.contains("ok") || !answer["ok"].is_boolean()) std::abort();
    if (!answer["ok"].get<bool>()) {
        const auto error = answer.find("error");
        if (error == answer.end() || !error->is_string()) std::abort();
        const auto& words = error->get_ref<const std::string&>();
        // At most 512 bytes and "..." (sim/control/control.cpp).
        if (words.size() > 515 || words.rfind("[json.exception", 0) == 0) std::abort();
    }
    return 0;
}
