#pragma once

// Result rows as an aligned text table: column names, a rule of dashes, then the rows.
// Numeric columns are right-aligned, others left-aligned; columns are two blanks apart and
// lines carry no trailing blanks.

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

namespace kiv_host {

struct cell {
    enum class kind { null, number, text };
    std::string text;
    kind type = kind::text;
};

class result_table {
public:
    explicit result_table(std::vector<std::string> column_names);

    void add_row(std::vector<cell> row);
    std::size_t row_count() const { return rows_.size(); }
    void print(std::ostream& out) const;

private:
    std::vector<std::string> names_;
    std::vector<std::vector<cell>> rows_;
};

// X'..' with two upper-case hex digits per byte, as SQLite writes blob literals.
std::string blob_literal(const unsigned char* data, std::size_t size);

// Display width of UTF-8 text: one per code point.
std::size_t display_width(const std::string& text);

}  // namespace kiv_host
