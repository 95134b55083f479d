// Reading a scenario within its limits (limits.hpp): the file, the document's shape before
// it is built, and the excerpts of values that error texts quote.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace YAML {
class Exception;
}

namespace sim::scenario {

// The text of a scenario file; throws Error (key "<file>", line 0) when the file cannot be
// opened or read, is not a regular file, or is larger than kFileBytesMax. Never blocks on a
// FIFO or a device, and never reads more than kFileBytesMax + 1 bytes.
std::string read_file(const std::string& path);

// What a first look at a text counts before the YAML reader reads it: the deepest nesting
// of lists and mappings (block and in brackets) and the values in brackets (at least the
// opening brackets, or the entries commas end), each with its line. It follows the text as
// the reader splits it (quoted, plain and block scalars and comments hold no structure);
// check_shape() then counts exactly on the reader's events, so a text this look misreads
// is still refused there.
struct TextShape {
    int depth = 0;
    int depth_line = 0;
    std::size_t values = 0;
    int values_line = 0;
};
// Stops once a count passes its limit.
TextShape scan_text(std::string_view text, int depth_max, std::size_t values_max);

// Looks at the text with scan_text(), then walks the document's events, without building it, and throws Error (key "<document>") on
// the first list or mapping nested deeper than kDepthMax or the first value past
// kValuesMax, on the line where it sits; YAML errors are thrown as yaml_error() words them.
// The YAML reader recurses once per level, so it never goes deeper than kDepthMax + 1 here.
void check_shape(const std::string& text, const std::string& name);

// A YAML reader's error as an Error of `name` (key "<document>").
[[noreturn]] void yaml_error(const YAML::Exception& e, const std::string& name);

// At most kExcerptMax characters of a value for an error text, then "..." when it is
// longer; a byte that is not printable ASCII is written \xNN.
std::string excerpt(std::string_view value);

}  // namespace sim::scenario
