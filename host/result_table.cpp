#include "result_table.h"

#include <algorithm>

namespace kiv_host {

result_table::result_table(std::vector<std::string> column_names) : names_(std::move(column_names)) {}

void result_table::add_row(std::vector<cell> row) {
    row.resize(names_.size());
    rows_.push_back(std::move(row));
}

std::size_t display_width(const std::string& text) {
    // Continuation bytes (10xxxxxx) do not start a code point.
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U;
    }));
}

std::string blob_literal(const unsigned char* data, std::size_t size) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(3 + 2 * size);
    out += "X'";
    for (std::size_t i = 0; i < size; ++i) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 0x0F];
    }
    out += '\'';
    return out;
}

void result_table::print(std::ostream& out) const {
    const std::size_t columns = names_.size();
    std::vector<std::size_t> width(columns);
    std::vector<bool> right(columns);
    for (std::size_t c = 0; c < columns; ++c) {
        width[c] = display_width(names_[c]);
        bool any_number = false;
        bool any_text = false;
        for (const auto& row : rows_) {
            width[c] = std::max(width[c], display_width(row[c].text));
            any_number = any_number || row[c].type == cell::kind::number;
            any_text = any_text || row[c].type == cell::kind::text;
        }
        right[c] = any_number && !any_text;
    }

    std::string line;
    auto put = [&](std::size_t c, const std::string& text) {
        if (c > 0) line += "  ";
        const std::string pad(width[c] - display_width(text), ' ');
        line += right[c] ? pad + text : text + pad;
    };
    auto flush_line = [&] {
        line.erase(line.find_last_not_of(' ') + 1);
        out << line << '\n';
        line.clear();
    };

    for (std::size_t c = 0; c < columns; ++c) put(c, names_[c]);
    flush_line();
    for (std::size_t c = 0; c < columns; ++c) put(c, std::string(width[c], '-'));
    flush_line();
    for (const auto& row : rows_) {
        for (std::size_t c = 0; c < columns; ++c) put(c, row[c].text);
        flush_line();
    }
}

}  // namespace kiv_host
