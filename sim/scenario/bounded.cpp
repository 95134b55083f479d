// Reading a scenario within its limits: the file (a regular file of bounded size, read
// without blocking), the text (UTF-8, its nesting and values in brackets counted before the
// YAML reader sees it), the document (its nesting and values counted exactly on the
// reader's events, before any node is built), and short excerpts of values for errors.
#include "scenario/bounded.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <streambuf>
#include <utility>
#include <vector>

#include "ipproto/raii.hpp"
#include "scenario/limits.hpp"
#include "scenario/scenario.hpp"

namespace sim::scenario {
namespace {

// ---------------------------------------------------------------------------------------
// The file

[[noreturn]] void refuse_file(const std::string& path, const std::string& what) {
    throw Error(path, 0, "<file>", what);
}

std::string errno_text(const char* doing, int err) {
    return std::string(doing) + ": " + std::strerror(err);
}

// What a file that is not a regular file is, for the error that refuses it.
const char* kind_of(mode_t mode) {
    if (S_ISDIR(mode)) return "a directory";
    if (S_ISFIFO(mode)) return "a FIFO";
    if (S_ISCHR(mode)) return "a character device";
    if (S_ISBLK(mode)) return "a block device";
    if (S_ISSOCK(mode)) return "a socket";
    return "of another kind";
}

void check_file(const std::string& path, const struct stat& st) {
    if (!S_ISREG(st.st_mode)) refuse_file(path, std::string("not a regular file (") + kind_of(st.st_mode) + ")");
    if (static_cast<std::uint64_t>(st.st_size) > kFileBytesMax) {
        refuse_file(path, "the file is " + std::to_string(st.st_size) + " bytes; at most " +
                              std::to_string(kFileBytesMax));
    }
}

// ---------------------------------------------------------------------------------------
// The text, before the YAML reader

std::string too_deep() {
    return "lists and mappings nested deeper than " + std::to_string(kDepthMax) + " levels";
}

std::string too_many() {
    return "more than " + std::to_string(kValuesMax) + " values";
}

// Follows the text the way the YAML reader splits it into tokens, far enough to count the
// lists and mappings it opens: one in brackets at each "[" or "{", one at each deeper
// column of the block structure (a "- " entry, a "? " key, or a key followed by ": "), as
// the reader's own stack of columns does, and the one-pair mapping that a "key: value"
// entry of a list in brackets makes. Quoted scalars, comments, block scalars and plain
// scalars (over several lines too) hold no structure and are stepped over. Where the reader
// gives up on a broken text it may reach one level more than counted here. One pass, in
// time linear in the text (a character is looked at a bounded number of times, a level
// opened and closed once); it ends as soon as a count passes its limit.
class TextScan {
public:
    TextScan(std::string_view text, int depth_max, std::size_t values_max)
        : t_(text), depth_max_(depth_max), values_max_(values_max) {}

    TextShape run() {
        if (t_.starts_with("\xEF\xBB\xBF")) i_ = line_begin_ = 3;  // the UTF-8 byte order mark
        while (i_ < t_.size() && !done()) step();
        if (!done()) end_of_text();
        return shape_;
    }

private:
    struct Indent {
        std::size_t column;
        bool list;
        int extra = 0;  // keyless mappings counted in it, below
    };
    // Where a list or mapping in brackets is: at the start of an entry, where a node is
    // due (after "? " or ':'), or after a node.
    enum class At { kEntry, kNode, kAfterNode };
    struct Flow {
        bool list;             // "[" (else "{")
        At at = At::kEntry;
        int pairs = 0;         // one-pair mappings open in the current entry, a level each
        bool keyed = false;    // the innermost mapping of the entry had its ':'
        int entry_max = 0;     // deepest level reached in the current entry
        int max = 0;           // and in the entries before it
    };

    // The reader takes a collection in brackets still open at the end of the text for the
    // key of a mapping (one level more for each, over all inside it), and so the innermost
    // one's last entry too.
    void end_of_text() {
        if (!flows_.empty()) reach(shape_.depth + static_cast<int>(flows_.size()) + 1);
    }

    bool done() const { return shape_.depth > depth_max_ || shape_.values > values_max_; }
    char at(std::size_t k) const { return k < t_.size() ? t_[k] : '\0'; }
    static bool blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }
    // The end of a token's text: a blank, a line break or the end of the text.
    bool ends(std::size_t k) const { return k >= t_.size() || blank(t_[k]) || t_[k] == '\n'; }
    static bool flow_indicator(char c) { return c == ',' || c == '[' || c == ']' || c == '{' || c == '}'; }
    std::size_t column() const { return i_ - line_begin_; }
    long top() const { return indents_.empty() ? -1 : static_cast<long>(indents_.back().column); }
    int depth() const { return static_cast<int>(indents_.size() + flows_.size()) + pairs_ + extras_; }

    void reach(int depth) {
        if (depth > shape_.depth) {
            shape_.depth = depth;
            shape_.depth_line = line_;
        }
        if (!flows_.empty()) flows_.back().entry_max = std::max(flows_.back().entry_max, depth);
    }

    // A block list or mapping opens at `col` when that is deeper than the innermost one (a
    // list may also open at the column of the mapping it is the value of).
    bool push(std::size_t col, bool list) {
        if (!flows_.empty()) return false;
        if (!indents_.empty()) {
            const Indent& last = indents_.back();
            if (last.column > col) return false;
            if (last.column == col && !(list && !last.list)) return false;
        }
        indents_.push_back(Indent{col, list});
        reach(depth());
        return true;
    }

    void pop_indent() {
        extras_ -= indents_.back().extra;
        indents_.pop_back();
    }

    void open_flow(bool list, std::size_t col) {
        if (flows_.empty()) {
            flow_col_ = key_col(col);
            flow_line_ = line_;
        }
        node_starts();
        flows_.push_back(Flow{list});
        ++brackets_;
        count_values();
        reach(depth());
    }

    void close_flow() {
        if (flows_.empty()) return;  // the reader refuses it
        end_entry();
        const int inside = flows_.back().max;
        flows_.pop_back();
        if (!flows_.empty()) {
            flows_.back().entry_max = std::max(flows_.back().entry_max, inside);
            flows_.back().at = At::kAfterNode;
        } else {
            // What it closed may be a key: "[a, b]: c".
            node_col_ = flow_col_;
            node_line_ = flow_line_;
        }
        node_ = true;
    }

    void end_entry() {
        Flow& f = flows_.back();
        pairs_ -= f.pairs;
        f.pairs = 0;
        f.keyed = false;
        f.at = At::kEntry;
        f.max = std::max(f.max, f.entry_max);
        f.entry_max = depth();
    }

    // A ':' in brackets. It parts the key and the value of the entry's innermost mapping
    // (with no key at the start of an entry of a mapping); where a node is due it opens a
    // one-pair mapping of its own ("[: b]", "{a: : b}"); after the key of an entry of a
    // list, a one-pair mapping over that key ("[a: b]").
    void value_in_flow() {
        if (flows_.empty()) return;
        Flow& f = flows_.back();
        const bool parts = f.at == At::kEntry ? !f.list
                                              : f.at == At::kAfterNode && !f.keyed && (!f.list || f.pairs > 0);
        f.keyed = true;
        if (!parts) {
            ++f.pairs;
            ++pairs_;
            if (f.list && f.pairs == 1 && f.at == At::kAfterNode) reach(++f.entry_max);
            reach(depth());
        }
        f.at = At::kNode;
    }

    // A "? " in brackets: at the start of an entry of a list, the key of a one-pair mapping.
    void key_in_flow() {
        if (flows_.empty()) return;
        Flow& f = flows_.back();
        if (f.at != At::kEntry) return;
        if (f.list) {
            ++f.pairs;
            ++pairs_;
            f.keyed = false;
            reach(depth());
        }
        f.at = At::kNode;
    }

    // A node starts (a collection in brackets, a scalar or an alias): in brackets, the
    // entry is after a node once it ends (at once but for a collection).
    void node_starts() {
        expect_node_ = false;
        key_allowed_ = false;
        property_col_ = -1;
        if (!flows_.empty()) flows_.back().at = At::kAfterNode;
    }

    // Where the key a node may be starts: at the anchor or tag before it on its line, if
    // the reader would take a key there.
    std::size_t key_col(std::size_t col) const {
        return property_col_ >= 0 ? static_cast<std::size_t>(property_col_) : col;
    }

    // Values in brackets: each opening bracket is one, and so is each entry a comma ends.
    void count_values() {
        const std::size_t values = std::max(brackets_, commas_);
        if (values > shape_.values) {
            shape_.values = values;
            shape_.values_line = line_;
        }
    }

    void newline() {
        property_col_ = -1;
        if (flows_.empty()) key_allowed_ = true;
        ++line_;
        ++i_;
        line_begin_ = i_;
        fresh_ = true;
        after_blank_ = true;
        if (flows_.empty()) node_ = false;  // a key and its ':' share a line
    }

    void skip_line() {
        while (i_ < t_.size() && t_[i_] != '\n') ++i_;
    }

    void step() {
        const char c = t_[i_];
        if (c == '\n') return newline();
        if (fresh_) {
            if (blank(c)) return void(++i_);
            fresh_ = false;
            if (first_of_line(c)) return;
        }
        if (blank(c)) {
            ++i_;
            after_blank_ = true;
            return;
        }
        const bool after_blank = std::exchange(after_blank_, false);
        if (c == '#' && (!plain_ || after_blank)) {
            plain_ = false;
            return skip_line();
        }
        if (plain_) {
            if (!plain_ends(c)) return void(++i_);
            plain_ = false;
            if (c == ':') {
                key_ends(plain_line_ == line_ ? plain_col_ : column());
                value_in_flow();
                return void(++i_);
            }
        } else if (node_ && c == ':' && (!flows_.empty() || ends(i_ + 1))) {
            // The quoted scalar, alias or collection in brackets before it was a key.
            node_ = false;
            key_ends(node_line_ == line_ ? node_col_ : column());
            value_in_flow();
            return void(++i_);
        }
        node_ = false;
        token(c);
    }

    // A ':' outside brackets opens a mapping at the column of its key, a key on one line;
    // else at its own column.
    void key_ends(std::size_t col) {
        if (!flows_.empty()) return;
        push(col, false);
        expect_node_ = true;
        key_allowed_ = false;
    }

    // The first character of a line outside brackets: a plain scalar may go on from the line
    // before, or block lists and mappings at deeper columns end here.
    bool first_of_line(char c) {
        const std::size_t col = column();
        if (col == 0 && (t_.compare(i_, 3, "---") == 0 || t_.compare(i_, 3, "...") == 0) && ends(i_ + 3)) {
            // A document starts or ends, in brackets too, which the reader then takes as it
            // takes the end of the text.
            restart();
            i_ += 3;
            return true;
        }
        const bool goes_on = plain_ && (!flows_.empty() || static_cast<long>(col) > plain_over_);
        if (col == 0 && c == '%' && !goes_on) {
            restart();  // a directive, which ends the document as above
            skip_line();
            return true;
        }
        if (!flows_.empty() || goes_on) return false;
        plain_ = false;
        const bool entry = c == '-' && ends(i_ + 1);
        while (!indents_.empty() && (indents_.back().column > col ||
                                     (indents_.back().column == col && indents_.back().list && !entry))) {
            pop_indent();
        }
        return false;
    }

    void restart() {
        end_of_text();
        flows_.clear();
        pairs_ = 0;
        indents_.clear();
        extras_ = 0;
        plain_ = false;
        node_ = false;
    }

    // Where a plain scalar ends: before ": " (or ':' then a bracket or comma in brackets),
    // and in brackets before a bracket, a comma or a '?'.
    bool plain_ends(char c) const {
        if (c == ':') return ends(i_ + 1) || (!flows_.empty() && flow_indicator(at(i_ + 1)));
        return !flows_.empty() && (flow_indicator(c) || c == '?');
    }

    // A token starts at `c`.
    void token(char c) {
        const std::size_t col = column();
        switch (c) {
        case '[':
        case '{':
            open_flow(c == '[', col);
            return void(++i_);
        case ']':
        case '}':
            close_flow();
            return void(++i_);
        case ',':
            if (!flows_.empty()) {
                end_entry();
                ++commas_;
                count_values();
            }
            return void(++i_);
        case '"':
        case '\'':
            node_col_ = key_col(col);
            node_line_ = line_;
            node_starts();
            return quoted(c);
        case '-':
        case '?':
        case ':':
            if (ends(i_ + 1) || (c != '-' && !flows_.empty() && flow_indicator(at(i_ + 1)))) {
                // ':' with no key before it opens a mapping too.
                const bool pushed = push(col, c == '-');
                if (c == ':' && flows_.empty() && !pushed && expect_node_ && !indents_.empty()) {
                    // Where a node is due, as in "a:" then ":" on the next line, it is a
                    // mapping of its own: counted until the block level it is in ends.
                    ++indents_.back().extra;
                    ++extras_;
                    reach(depth());
                }
                expect_node_ = c != '-';
                key_allowed_ = true;
                if (c == ':') value_in_flow();
                if (c == '?') key_in_flow();
                return void(++i_);
            }
            break;
        case '|':
        case '>':
            if (flows_.empty()) {
                // Its lines are indented past the innermost block level, or past an anchor
                // or tag before it on its line (as a plain scalar's, below).
                const long over = std::max(top(), property_col_);
                node_starts();
                return block_scalar(over);
            }
            break;
        case '&':
        case '!':
            // An anchor or a tag, then the node itself.
            if (flows_.empty() && key_allowed_) property_col_ = static_cast<long>(col);
            key_allowed_ = false;
            return c == '&' ? skip_word() : skip_tag();
        case '*':
            node_col_ = key_col(col);
            node_line_ = line_;
            node_starts();
            skip_word();
            node_ = true;
            return;
        default:
            break;
        }
        plain_col_ = key_col(col);
        plain_line_ = line_;
        // It goes on over the lines indented deeper than the innermost block level, or than
        // an anchor or tag before it on its line (the reader counts that as a level while it
        // might be a key).
        plain_over_ = std::max(top(), property_col_);
        node_starts();
        plain_ = true;
        ++i_;
    }

    // An anchor's or an alias's name: up to a blank or a bracket or comma.
    void skip_word() {
        while (!ends(i_) && !flow_indicator(t_[i_])) ++i_;
    }

    // A tag: "!<...>", or "!" and the characters the reader takes in a tag; the next token
    // may follow at once.
    void skip_tag() {
        static constexpr std::string_view kTagMarks = "-!#$&'()*+./:;=?@_~";
        ++i_;
        if (at(i_) == '<') {
            while (!ends(i_) && t_[i_] != '>') ++i_;
            if (at(i_) == '>') ++i_;
            return;
        }
        while (i_ < t_.size()) {
            const char c = t_[i_];
            if (std::isalnum(static_cast<unsigned char>(c)) != 0 || kTagMarks.find(c) != std::string_view::npos) {
                ++i_;
            } else if (c == '%' && std::isxdigit(static_cast<unsigned char>(at(i_ + 1))) != 0 &&
                       std::isxdigit(static_cast<unsigned char>(at(i_ + 2))) != 0) {
                i_ += 3;
            } else {
                return;
            }
        }
    }

    void quoted(char quote) {
        ++i_;
        while (i_ < t_.size()) {
            const char c = t_[i_];
            if (c == '\n') {
                newline();
                fresh_ = false;
                continue;
            }
            if (quote == '"' && c == '\\') {
                ++i_;
                if (at(i_) == '\n') {
                    newline();
                    fresh_ = false;
                } else {
                    ++i_;
                }
                continue;
            }
            ++i_;
            if (c != quote) continue;
            if (quote == '\'' && at(i_) == '\'') {
                ++i_;  // '' stands for one quote
                continue;
            }
            break;
        }
        after_blank_ = false;
        node_ = true;
    }

    // A block scalar ("|" or ">"): its header line, then its lines. As the reader does, they
    // are indented at least the number its header may give past `parent`, else as deep as
    // the first line that is not empty, which is deeper than `parent` (and than column 0)
    // and than the empty lines before it; blank lines go with it.
    void block_scalar(long parent) {
        long indent = -1;  // of its lines once known
        long need = std::max(parent + 1, 1L);
        for (std::size_t k = i_ + 1; k < t_.size() && k < i_ + 3; ++k) {
            if (t_[k] >= '1' && t_[k] <= '9') indent = (t_[k] - '0') + std::max(parent, 0L);
            if (t_[k] != '+' && t_[k] != '-' && (t_[k] < '1' || t_[k] > '9')) break;
        }
        skip_line();
        while (i_ < t_.size()) {
            // t_[i_] ends a line; look at the next one.
            const std::size_t begin = i_ + 1;
            std::size_t k = begin;
            while (k < t_.size() && t_[k] == ' ') ++k;
            const bool empty =
                k >= t_.size() || t_[k] == '\n' || (t_[k] == '\r' && (k + 1 >= t_.size() || t_[k + 1] == '\n'));
            const auto col = static_cast<long>(k - begin);
            if (empty) {
                if (indent < 0) need = std::max(need, col);
            } else {
                if (indent < 0) indent = col >= need ? col : need;
                if (col < indent) return newline();  // the line is the structure's again
            }
            newline();
            skip_line();
        }
    }

    std::string_view t_;
    int depth_max_;
    std::size_t values_max_;
    TextShape shape_;
    std::size_t i_ = 0;
    int line_ = 1;
    std::size_t line_begin_ = 0;
    bool fresh_ = true;            // only indentation so far on this line
    bool after_blank_ = true;      // the character before was a blank or a line break
    std::vector<Indent> indents_;  // the open block lists and mappings
    std::vector<Flow> flows_;      // the open lists and mappings in brackets
    int pairs_ = 0;                // their open one-pair mappings
    int extras_ = 0;               // keyless mappings counted in the block levels
    bool expect_node_ = false;     // a ':' or "? " outside brackets, and no node after it yet
    std::size_t flow_col_ = 0;     // where the outermost of them opened
    int flow_line_ = 0;
    std::size_t brackets_ = 0;
    std::size_t commas_ = 0;
    bool plain_ = false;  // in a plain scalar
    std::size_t plain_col_ = 0;
    int plain_line_ = 0;
    long plain_over_ = -1;     // the column its next lines must be indented past
    long property_col_ = -1;   // of an anchor or tag where the reader would take a key
    bool key_allowed_ = true;  // outside brackets, the reader would take a key here
    bool node_ = false;  // a quoted scalar, an alias or a collection in brackets just ended
    std::size_t node_col_ = 0;
    int node_line_ = 0;
};

// ---------------------------------------------------------------------------------------
// The document's shape

// The text as the YAML reader's input, without a copy.
class TextBuf : public std::streambuf {
public:
    explicit TextBuf(const std::string& text) {
        char* begin = const_cast<char*>(text.data());  // only ever read
        setg(begin, begin, begin + text.size());
    }
};

// Counts values and open lists and mappings as the reader reports them; refuses the first
// that passes a limit, which ends the reading there.
class Shape final : public YAML::EventHandler {
public:
    explicit Shape(const std::string& name) : name_(name) {}

    void OnDocumentStart(const YAML::Mark&) override { ++documents_; }
    void OnDocumentEnd() override {}
    void OnNull(const YAML::Mark& mark, YAML::anchor_t) override { value(mark); }
    void OnAlias(const YAML::Mark& mark, YAML::anchor_t) override { value(mark); }
    void OnScalar(const YAML::Mark& mark, const std::string&, YAML::anchor_t, const std::string&) override {
        value(mark);
    }
    void OnSequenceStart(const YAML::Mark& mark, const std::string&, YAML::anchor_t,
                         YAML::EmitterStyle::value) override {
        open(mark);
    }
    void OnSequenceEnd() override { --depth_; }
    void OnMapStart(const YAML::Mark& mark, const std::string&, YAML::anchor_t, YAML::EmitterStyle::value) override {
        open(mark);
    }
    void OnMapEnd() override { --depth_; }

private:
    static int line(const YAML::Mark& mark) { return mark.is_null() ? 1 : mark.line + 1; }

    void value(const YAML::Mark& mark) {
        // A scenario is one document; the reader may find ever more of them in some broken
        // texts (a ',' first), so the reading ends at the second one's first value.
        if (documents_ > 1) throw Error(name_, line(mark), "<document>", "more than one document");
        if (++values_ > kValuesMax) {
            throw Error(name_, line(mark), "<document>", too_many());
        }
    }

    void open(const YAML::Mark& mark) {
        value(mark);
        if (++depth_ > kDepthMax) {
            throw Error(name_, line(mark), "<document>", too_deep());
        }
    }

    const std::string& name_;
    int documents_ = 0;
    std::size_t values_ = 0;
    int depth_ = 0;
};

}  // namespace

std::string read_file(const std::string& path) {
    // What the path names is looked at before it is opened (opening a device may act), and
    // again once it is open, in case the path changed in between.
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) refuse_file(path, errno_text("cannot open", errno));
    check_file(path, st);
    const ipc::Fd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd.valid()) refuse_file(path, errno_text("cannot open", errno));
    if (::fstat(fd.get(), &st) != 0) refuse_file(path, errno_text("cannot read", errno));
    check_file(path, st);
    // One byte more than the limit at most: a file that grows while it is read is refused.
    std::string text;
    text.reserve(static_cast<std::size_t>(st.st_size));
    std::array<char, 65536> buf{};
    for (;;) {
        const std::size_t want = std::min(buf.size(), kFileBytesMax + 1 - text.size());
        const ssize_t n = ::read(fd.get(), buf.data(), want);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) refuse_file(path, errno_text("cannot read", errno));
        if (n == 0) break;
        text.append(buf.data(), static_cast<std::size_t>(n));
        if (text.size() > kFileBytesMax) {
            refuse_file(path, "the file grew past " + std::to_string(kFileBytesMax) + " bytes while it was read");
        }
    }
    return text;
}

TextShape scan_text(std::string_view text, int depth_max, std::size_t values_max) {
    return TextScan(text, depth_max, values_max).run();
}

void check_shape(const std::string& text, const std::string& name) {
    // UTF-8 text only, without control characters but tab and line ends (a carriage return
    // only before a line feed). The reader takes text that starts with a NUL byte or the
    // byte order mark of UTF-16 or UTF-32 for one of those, takes some control characters
    // for the end of the text and a lone carriage return for a character of a value: the
    // look at the text below could not follow.
    if (text.starts_with("\xFE\xFF") || text.starts_with("\xFF\xFE")) {
        throw Error(name, 1, "<document>", "UTF-16 or UTF-32 text; a scenario is UTF-8 text");
    }
    const auto control = std::find_if(text.begin(), text.end(), [&](const char& c) {
        if (c == '\r') return &c + 1 == text.data() + text.size() || (&c)[1] != '\n';
        return (c >= 0 && c < ' ' && c != '\t' && c != '\n') || c == 0x7F;
    });
    if (control != text.end()) {
        const auto line = 1 + std::count(text.begin(), control, '\n');
        throw Error(name, static_cast<int>(line), "<document>",
                    "a control character (" + excerpt(std::string_view(&*control, 1)) + "); a scenario is text");
    }
    // Then the text, which the YAML reader would read ahead in full before the first event
    // of a collection in brackets; then the reader's own events, which are exact.
    const TextShape seen = scan_text(text, kDepthMax, kValuesMax);
    if (seen.depth > kDepthMax) throw Error(name, seen.depth_line, "<document>", too_deep());
    if (seen.values > kValuesMax) throw Error(name, seen.values_line, "<document>", too_many());
    TextBuf buf(text);
    std::istream in(&buf);
    Shape shape(name);
    try {
        YAML::Parser parser(in);
        while (parser.HandleNextDocument(shape)) {
        }
    } catch (const YAML::Exception& e) {
        yaml_error(e, name);
    }
}

void yaml_error(const YAML::Exception& e, const std::string& name) {
    // The reader's own guard against deep recursion says "bad file"; it is passed only by
    // text that check_shape() did not see first.
    const bool too_deep = e.msg == YAML::ErrorMsg::BAD_FILE;
    throw Error(name, e.mark.is_null() ? 1 : e.mark.line + 1, "<document>",
                too_deep ? "nested too deep for the YAML reader" : excerpt(e.msg));
}

std::string excerpt(std::string_view value) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    for (const char ch : value) {
        const auto c = static_cast<unsigned char>(ch);
        const bool printable = c >= 0x20 && c < 0x7F;
        if (out.size() + (printable ? 1 : 4) > kExcerptMax) return out + "...";
        if (printable) {
            out += ch;
        } else {
            out += "\\x";
            out += kHex[c >> 4];
            out += kHex[c & 0xF];
        }
    }
    return out;
}

}  // namespace sim::scenario
