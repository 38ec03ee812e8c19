#include "csv.h"

namespace kiv_host {

// After the opening quote; returns the character after the field.
int csv_reader::read_quoted(std::string& field) {
    const std::size_t opened = line_;
    int c = get();
    for (;;) {
        if (c == EOF) {
            open_quote_line_ = opened;
            return c;
        }
        if (c == '"' && (c = get()) != '"') break;
        field += static_cast<char>(c);
        c = get();
    }
    while (c != ',' && c != '\n' && c != EOF) {  // text after the closing quote is kept
        if (c != '\r') field += static_cast<char>(c);
        c = get();
    }
    return c;
}

bool csv_reader::next(std::vector<std::string>& fields, std::size_t& count) {
    record_line_ = line_;
    int c = get();
    if (c == EOF || open_quote_line_ != 0) return false;
    count = 0;
    for (;;) {
        if (count == fields.size()) fields.emplace_back();
        std::string& field = fields[count++];
        field.clear();
        if (c == '"') {
            c = read_quoted(field);
            if (open_quote_line_ != 0) return false;
        } else {
            while (c != ',' && c != '\n' && c != EOF) {
                field += static_cast<char>(c);
                c = get();
            }
            if (c != ',' && !field.empty() && field.back() == '\r') field.pop_back();
        }
        if (c != ',') return true;
        c = get();
    }
}

}  // namespace kiv_host
