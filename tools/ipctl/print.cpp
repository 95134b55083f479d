#include "print.hpp"

#include <algorithm>

namespace ipctl {

Record& Record::text_only(std::string label, std::string text) {
    fields_.push_back({label, nullptr, std::move(text), label, true, false});
    return *this;
}

Json Record::to_json() const {
    Json j = Json::object();
    for (const Field& f : fields_)
        if (f.in_json) j[f.key] = f.value;
    return j;
}

namespace {

// The escape sequences of ip's colours.
const char* colour_of(Record::Paint p) {
    switch (p) {
        case Record::Paint::kIfname: return "\033[36m";
        case Record::Paint::kMac: return "\033[33m";
        case Record::Paint::kInet: return "\033[35m";
        case Record::Paint::kInet6: return "\033[34m";
        case Record::Paint::kUp: return "\033[32m";
        case Record::Paint::kDown: return "\033[31m";
        case Record::Paint::kNone: break;
    }
    return nullptr;
}

constexpr const char* kColourEnd = "\033[0m";

std::string cell(const Record::Field& f) { return f.label.empty() ? f.text : f.label + " " + f.text; }

}  // namespace

void Printer::write(const Json& j) {
    const std::string s = pretty_ ? j.dump(2, ' ', false, Json::error_handler_t::replace)
                                  : j.dump(-1, ' ', false, Json::error_handler_t::replace);
    std::fprintf(out_, "%s\n", s.c_str());
}

void Printer::write_elements() {
    for (const Record& r : rows_) {
        std::fputs(array_open_ ? (pretty_ ? ",\n" : ",") : (pretty_ ? "[\n" : "["), out_);
        array_open_ = true;
        if (!pretty_) {
            std::fputs(r.to_json().dump(-1, ' ', false, Json::error_handler_t::replace).c_str(), out_);
            continue;
        }
        // Indented one level more, as the element of an array.
        const std::string s = r.to_json().dump(2, ' ', false, Json::error_handler_t::replace);
        std::string indented = "  ";
        for (const char c : s) {
            indented += c;
            if (c == '\n') indented += "  ";
        }
        std::fputs(indented.c_str(), out_);
    }
}

void Printer::page() {
    if (json_) {
        write_elements();
    } else {
        write_text_rows();
    }
    rows_.clear();
    std::fflush(out_);
}

void Printer::flush() {
    if (json_ && array_open_) {
        write_elements();
        std::fputs(pretty_ ? "\n]\n" : "]\n", out_);
        array_open_ = false;
    } else if (json_) {
        Json all = Json::array();
        for (const Record& r : rows_) all.push_back(r.to_json());
        write(all);
    } else {
        write_text_rows();
    }
    rows_.clear();
    std::fflush(out_);
}

void Printer::write_text_rows() {
    // Columns are the fields by key, in the order rows give them: a field a row lacks (a
    // route without a gateway) leaves its column empty, and the fields after it stay in their
    // own columns. A column is as wide as its widest cell; a row ends with its last cell.
    const auto cell_size = [](const Record::Field& f) {
        return f.label.empty() ? f.text.size() : f.label.size() + 1 + f.text.size();
    };
    // A text-only field of no key is told apart by its place among those of its row.
    const auto column_of = [](const Record::Field& f, std::size_t nameless) {
        return f.key.empty() ? "\x01" + std::to_string(nameless) : f.key;
    };
    std::vector<std::string> columns;
    std::vector<std::size_t> width;
    for (const Record& r : rows_) {
        std::size_t at = 0, nameless = 0;
        for (const Record::Field& f : r.fields()) {
            if (!f.in_text) continue;
            const std::string id = column_of(f, f.key.empty() ? nameless++ : 0);
            auto it = std::find(columns.begin(), columns.end(), id);
            if (it == columns.end()) {
                it = columns.insert(columns.begin() + static_cast<std::ptrdiff_t>(at), id);
                width.insert(width.begin() + static_cast<std::ptrdiff_t>(at), 0);
            }
            const auto i = static_cast<std::size_t>(it - columns.begin());
            width[i] = std::max(width[i], cell_size(f));
            at = i + 1;
        }
    }
    std::string s;
    std::vector<const Record::Field*> cells;
    for (const Record& r : rows_) {
        cells.assign(columns.size(), nullptr);
        std::size_t nameless = 0;
        for (const Record::Field& f : r.fields()) {
            if (!f.in_text) continue;
            const std::string id = column_of(f, f.key.empty() ? nameless++ : 0);
            const auto it = std::find(columns.begin(), columns.end(), id);
            if (it != columns.end()) cells[static_cast<std::size_t>(it - columns.begin())] = &f;
        }
        s.clear();
        std::size_t pad = 0;
        bool started = false;
        for (std::size_t i = 0; i < columns.size(); ++i) {
            const Record::Field* f = cells[i];
            if (f == nullptr) {
                if (started) pad += width[i] + 2;
                continue;
            }
            s.append(pad, ' ');
            if (!f->label.empty()) s.append(f->label).append(1, ' ');
            // Colour does not count in a column's width: only the text is coloured.
            const char* colour = color_ ? colour_of(f->paint) : nullptr;
            if (colour != nullptr) s.append(colour);
            s.append(f->text);
            if (colour != nullptr) s.append(kColourEnd);
            pad = width[i] - cell_size(*f) + 2;
            started = true;
        }
        // A line ends with its last text, not with the room of an empty last cell.
        while (!s.empty() && s.back() == ' ') s.pop_back();
        s += '\n';
        std::fwrite(s.data(), 1, s.size(), out_);
    }
}

void Printer::object(const Record& r) {
    if (json_) {
        write(r.to_json());
    } else {
        std::size_t width = 0;
        for (const Record::Field& f : r.fields())
            if (f.in_text) width = std::max(width, (f.label.empty() ? f.key : f.label).size());
        for (const Record::Field& f : r.fields()) {
            if (!f.in_text) continue;
            const std::string& name = f.label.empty() ? f.key : f.label;
            std::fprintf(out_, "%s%*s  %s\n", name.c_str(), static_cast<int>(width - name.size()), "", f.text.c_str());
        }
    }
    std::fflush(out_);
}

void Printer::event(std::string_view time, std::string_view tag, const Record& r) {
    if (json_) {
        Json j = Json::object();
        j["time"] = std::string(time);
        j["object"] = std::string(tag);
        for (const Record::Field& f : r.fields())
            if (f.in_json) j[f.key] = f.value;
        std::fprintf(out_, "%s\n", j.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
    } else {
        std::string s = "[" + std::string(time) + "] " + std::string(tag);
        for (const Record::Field& f : r.fields())
            if (f.in_text) s += " " + cell(f);
        std::fprintf(out_, "%s\n", s.c_str());
    }
    std::fflush(out_);
}

void Printer::text(std::string_view key, std::string_view text) {
    if (json_) {
        Json j = Json::object();
        j[std::string(key)] = std::string(text);
        write(j);
    } else {
        std::fwrite(text.data(), 1, text.size(), out_);
        if (!text.empty() && text.back() != '\n') std::fputc('\n', out_);
    }
    std::fflush(out_);
}

}  // namespace ipctl
