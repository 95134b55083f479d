// The print layer: every field is written once, with its JSON key and value and its text,
// and comes out as text (in the manner of ip: one object a line, columns aligned) or as
// JSON (-j: a listing is one array, each record one object; -p indents it).
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace ipctl {

using Json = nlohmann::ordered_json;

class Record {
public:
    // The forms the process prints (the Printer sets them): a record keeps only what is
    // printed, so that a long listing builds no JSON value it prints as text.
    static inline bool keep_json = true;
    static inline bool keep_text = true;

    // Room for the fields of the longest record printed a line (a neighbour, a route).
    Record() { fields_.reserve(16); }

    // A field: its JSON key and value, its text, and the word printed before the text
    // (none for a field that speaks for itself, e.g. an address).
    template <class V>
    Record& add(std::string key, V&& value, std::string text, std::string label = {}) {
        Field& f = fields_.emplace_back();
        f.key = std::move(key);
        if (keep_json) f.value = Json(std::forward<V>(value));
        if (keep_text) {
            f.text = std::move(text);
            f.label = std::move(label);
        }
        return *this;
    }
    // A field of the JSON form only (the text already says it another way).
    template <class V>
    Record& json_only(std::string key, V&& value) {
        Field& f = fields_.emplace_back();
        f.key = std::move(key);
        if (keep_json) f.value = Json(std::forward<V>(value));
        f.in_text = false;
        return *this;
    }
    // A field of the text form only (the JSON form holds it elsewhere, e.g. nested).
    Record& text_only(std::string label, std::string text);

    // How a text is coloured when colour is on (ip's colours for the same things).
    enum class Paint : std::uint8_t { kNone, kIfname, kMac, kInet, kInet6, kUp, kDown };
    // Colours the text of the field added last.
    Record& paint(Paint p) {
        if (!fields_.empty()) fields_.back().paint = p;
        return *this;
    }

    struct Field {
        std::string key;
        Json value;
        std::string text;
        std::string label;
        bool in_text = true;
        bool in_json = true;
        Paint paint = Paint::kNone;
    };
    const std::vector<Field>& fields() const noexcept { return fields_; }
    Json to_json() const;

private:
    std::vector<Field> fields_;
};

class Printer {
public:
    Printer(bool json, bool pretty, std::FILE* out = stdout, bool color = false)
        : json_(json), pretty_(pretty), color_(color && !json), out_(out) {
        Record::keep_json = json;
        Record::keep_text = !json;
    }
    bool json() const noexcept { return json_; }

    // A listing: rows are kept and printed together by flush(), a page of kPage rows at a
    // time for a long one, so that its first lines come while it is read (a text page is
    // aligned on its own rows; JSON stays one array, its elements following page by page).
    static constexpr std::size_t kPage = 1024;
    void row(Record r) {
        rows_.push_back(std::move(r));
        if (rows_.size() >= kPage) page();
    }
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
    // Writes the rows kept as a page of a listing that goes on.
    void page();
    void write_elements();
    void write_text_rows();

    bool json_;
    bool pretty_;
    bool color_;
    std::FILE* out_;
    std::vector<Record> rows_;
    bool array_open_ = false;  // a JSON listing's "[" is out
};

}  // namespace ipctl
