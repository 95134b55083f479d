// The print layer: every field is written once, with its JSON key and value and its text,
// and comes out as text (in the manner of ip: one object a line, columns aligned) or as
// JSON (-j: a listing is one array, each record one object; -p indents it).
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace ipctl {

using Json = nlohmann::ordered_json;

class Record {
public:
    // A field: its JSON key and value, its text, and the word printed before the text
    // (none for a field that speaks for itself, e.g. an address).
    Record& add(std::string key, Json value, std::string text, std::string label = {});
    // A field of the JSON form only (the text already says it another way).
    Record& json_only(std::string key, Json value);
    // A field of the text form only (the JSON form holds it elsewhere, e.g. nested).
    Record& text_only(std::string label, std::string text);

    struct Field {
        std::string key;
        Json value;
        std::string text;
        std::string label;
        bool in_text = true;
        bool in_json = true;
    };
    const std::vector<Field>& fields() const noexcept { return fields_; }
    Json to_json() const;

private:
    std::vector<Field> fields_;
};

class Printer {
public:
    Printer(bool json, bool pretty, std::FILE* out = stdout) : json_(json), pretty_(pretty), out_(out) {}
    bool json() const noexcept { return json_; }

    // A listing: rows are kept and printed together by flush().
    void row(Record r) { rows_.push_back(std::move(r)); }
    void flush();
    // One object: text prints "label value" a line, keys aligned; JSON one object.
    void object(const Record& r);
    // One event as it comes (monitor): text "[time] tag fields", JSON one object a line
    // with "time" and "object" first. Written and flushed at once.
    void event(std::string_view time, std::string_view tag, const Record& r);
    // A text of the device's own (e.g. the IP summary): as it stands, or {"key": text}.
    void text(std::string_view key, std::string_view text);

private:
    void write(const Json& j);

    bool json_;
    bool pretty_;
    std::FILE* out_;
    std::vector<Record> rows_;
};

}  // namespace ipctl
