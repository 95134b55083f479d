#include "print.hpp"

#include <algorithm>

namespace ipctl {

Record& Record::add(std::string key, Json value, std::string text, std::string label) {
    fields_.push_back({std::move(key), std::move(value), std::move(text), std::move(label), true, true});
    return *this;
}

Record& Record::json_only(std::string key, Json value) {
    fields_.push_back({std::move(key), std::move(value), {}, {}, false, true});
    return *this;
}

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

std::string cell(const Record::Field& f) { return f.label.empty() ? f.text : f.label + " " + f.text; }

}  // namespace

void Printer::write(const Json& j) {
    const std::string s = pretty_ ? j.dump(2) : j.dump();
    std::fprintf(out_, "%s\n", s.c_str());
}

void Printer::flush() {
    if (json_) {
        Json all = Json::array();
        for (const Record& r : rows_) all.push_back(r.to_json());
        write(all);
    } else {
        // Column n is as wide as its widest cell; the last column of a row is not padded.
        std::vector<std::size_t> width;
        std::vector<std::vector<std::string>> cells;
        for (const Record& r : rows_) {
            std::vector<std::string> line;
            for (const Record::Field& f : r.fields())
                if (f.in_text) line.push_back(cell(f));
            if (width.size() < line.size()) width.resize(line.size(), 0);
            for (std::size_t i = 0; i < line.size(); ++i) width[i] = std::max(width[i], line[i].size());
            cells.push_back(std::move(line));
        }
        for (const auto& line : cells) {
            std::string s;
            for (std::size_t i = 0; i < line.size(); ++i) {
                s += line[i];
                if (i + 1 < line.size()) s.append(width[i] - line[i].size() + 2, ' ');
            }
            std::fprintf(out_, "%s\n", s.c_str());
        }
    }
    rows_.clear();
    std::fflush(out_);
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
        std::fprintf(out_, "%s\n", j.dump().c_str());
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
