// Scenario files: the fuzzer's bytes loaded as a scenario's text, through the loader that
// `ipsimd --scenario` uses. Whatever the bytes, the load ends in a scenario or an Error whose
// text quotes no more than an excerpt of any value. It also holds the look at the text that
// bounds the nesting before the YAML reader runs to what the reader itself then does: the
// reader never reaches deeper than that look counted, but for the one level it may add
// where it gives up on a broken text.
#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/yaml.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "scenario/bounded.hpp"
#include "scenario/scenario.hpp"

namespace {

// The deepest level the reader reaches, in its first two documents.
class Depth final : public YAML::EventHandler {
public:
    int max = 0;

    void OnDocumentStart(const YAML::Mark&) override {
        if (++documents_ > 2) throw Enough{};
    }
    void OnDocumentEnd() override {}
    void OnNull(const YAML::Mark&, YAML::anchor_t) override {}
    void OnAlias(const YAML::Mark&, YAML::anchor_t) override {}
    void OnScalar(const YAML::Mark&, const std::string&, YAML::anchor_t, const std::string&) override {}
    void OnSequenceStart(const YAML::Mark&, const std::string&, YAML::anchor_t, YAML::EmitterStyle::value) override {
        open();
    }
    void OnSequenceEnd() override { --depth_; }
    void OnMapStart(const YAML::Mark&, const std::string&, YAML::anchor_t, YAML::EmitterStyle::value) override {
        open();
    }
    void OnMapEnd() override { --depth_; }

    struct Enough {};

private:
    void open() {
        if (++depth_ > max) max = depth_;
        if (depth_ > 200) throw Enough{};
    }

    int documents_ = 0;
    int depth_ = 0;
};

// Whether the text is one the loader hands to the YAML reader at all (see check_shape()).
bool readable(const std::string& text) {
    if (text.starts_with("\xFE\xFF") || text.starts_with("\xFF\xFE")) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\r' ? i + 1 == text.size() || text[i + 1] != '\n'
                      : (c >= 0 && c < ' ' && c != '\t' && c != '\n') || c == 0x7F) {
            return false;
        }
    }
    return true;
}

void hold_the_look_to_the_reader(const std::string& text) {
    if (!readable(text)) return;
    const sim::scenario::TextShape look = sim::scenario::scan_text(text, 1000, ~std::size_t{0});
    Depth reader;
    try {
        std::istringstream in(text);
        YAML::Parser parser(in);
        while (parser.HandleNextDocument(reader)) {
        }
    } catch (const YAML::Exception&) {
        // The levels it reached before it gave up count all the same.
    } catch (const Depth::Enough&) {
    }
    if (reader.max > look.depth + 1) {
        std::fprintf(stderr, "the reader reached level %d; the text was counted %d deep\n", reader.max, look.depth);
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        (void)sim::scenario::load_text(text, "fuzz.yaml");
    } catch (const sim::scenario::Error& e) {
        // The file name, the line, the dotted key with list positions and one excerpt.
        if (std::strlen(e.what()) > 400) {
            std::fprintf(stderr, "an error text of %zu bytes: %.400s\n", std::strlen(e.what()), e.what());
            std::abort();
        }
    }
    hold_the_look_to_the_reader(text);
    return 0;
}
