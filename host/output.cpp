#include "output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace kiv_host {

namespace {

// Large enough that a pipe sees few writes, small enough that the first rows leave at once.
constexpr std::size_t pipe_chunk = 64 * 1024;

// One column per UTF-8 code point: continuation bytes (10xxxxxx) do not start one.
std::size_t display_width(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; }));
}

bool needs_escape(char ch) {
    const auto c = static_cast<unsigned char>(ch);
    return c < 0x20U || c == 0x7FU || c == '\\';
}

// Rewrites `text` so that it fits on one table line and returns its display width. Most values
// need no change; they are only scanned, once.
std::size_t escape_for_table(std::string& text) {
    std::size_t width = 0;
    bool plain = true;
    for (const char ch : text) {
        plain = plain && !needs_escape(ch);
        width += (static_cast<unsigned char>(ch) & 0xC0U) != 0x80U;
    }
    if (plain) return width;
    static const char digits[] = "0123456789ABCDEF";
    std::string escaped;
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (!needs_escape(ch)) {
            escaped += ch;
        } else if (c == '\n' || c == '\r' || c == '\t' || c == '\\') {
            escaped += '\\';
            escaped += c == '\n' ? 'n' : c == '\r' ? 'r' : c == '\t' ? 't' : '\\';
        } else {
            escaped += "\\x";
            escaped += digits[c >> 4];
            escaped += digits[c & 0x0FU];
        }
    }
    text.swap(escaped);
    return display_width(text);
}

// REAL values in SQLite's style ("%!.15g": 15 significant digits, always a digit after the
// point, "1.0", "2.5e-07", "Inf"), correctly rounded. SQLite's own conversion of each value
// to text costs more than the rest of the row together.
void format_real(double value, std::string& out) {
    if (value == 0.0) {
        out.assign("0.0");  // SQLite drops the sign of -0.0
        return;
    }
    if (std::isinf(value)) {
        out.assign(value < 0 ? "-Inf" : "Inf");
        return;
    }
    char digits[40];
    const char* const text = digits;
    const char* const end = std::to_chars(digits, digits + sizeof digits, value, std::chars_format::general, 15).ptr;
    const char* const exponent = std::find(text, end, 'e');
    out.assign(text, exponent);
    if (std::find(text, exponent, '.') == exponent) out += ".0";
    out.append(exponent, end);
}

void append_csv_field(std::string& line, const std::string& value) {
    const auto special = [](char c) { return c == ',' || c == '"' || c == '\r' || c == '\n'; };
    if (std::none_of(value.begin(), value.end(), special)) {
        line += value;
        return;
    }
    line += '"';
    for (const char ch : value) {
        if (ch == '"') line += '"';
        line += ch;
    }
    line += '"';
}

}  // namespace

output::output() : flush_at_(::isatty(STDOUT_FILENO) != 0 ? 0 : pipe_chunk) { buffer_.reserve(pipe_chunk + 1024); }

void output::flush() {
    if (!buffer_.empty() && error_ == 0) {
        errno = 0;
        if (std::fwrite(buffer_.data(), 1, buffer_.size(), stdout) != buffer_.size() || std::fflush(stdout) != 0) {
            error_ = errno != 0 ? errno : EIO;
        }
    }
    buffer_.clear();
}

std::string blob_literal(const unsigned char* data, std::size_t size) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(3 + 2 * size);
    out += "X'";
    for (std::size_t i = 0; i < size; ++i) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 0x0FU];
    }
    out += '\'';
    return out;
}

result_printer::result_printer(output& out, format how) : out_(out), format_(how) {}

void result_printer::begin(std::vector<std::string> names) {
    if (separate_) out_.text() += '\n';
    separate_ = true;
    open_ = true;
    names_ = std::move(names);
    rows_ = 0;
    const std::size_t columns = names_.size();
    values_.assign(columns, std::string());
    kinds_.assign(columns, kind::null);
    value_widths_.assign(columns, 0);
    if (format_ == format::csv) {
        put_csv_line(names_.data(), nullptr);
        return;
    }
    widths_.assign(columns, 0);
    for (std::size_t c = 0; c < columns; ++c) widths_[c] = escape_for_table(names_[c]);
    has_number_.assign(columns, false);
    has_text_.assign(columns, false);
    right_.assign(columns, false);
    block_.clear();
    in_block_ = true;
}

void result_printer::read_row(const kiv_sqlite_handle& db) {
    // One type call per cell, then one value call. Numbers are read as numbers and formatted
    // here: SQLite's conversion to text gives the same digits at a far higher cost.
    const int columns = static_cast<int>(names_.size());
    for (int c = 0; c < columns; ++c) {
        std::string& value = values_[static_cast<std::size_t>(c)];
        kind& type = kinds_[static_cast<std::size_t>(c)];
        switch (kiv_sqlite_column_type(db, c)) {
            case SQLITE_NULL:
                type = kind::null;
                value.assign(format_ == format::table ? "NULL" : "");
                break;
            case SQLITE_INTEGER: {
                char digits[24];
                const auto end = std::to_chars(digits, digits + sizeof digits, kiv_sqlite_column_int64(db, c)).ptr;
                value.assign(digits, end);
                type = kind::number;
                break;
            }
            case SQLITE_FLOAT:
                format_real(kiv_sqlite_column_double(db, c), value);
                type = kind::number;
                break;
            case SQLITE_BLOB: {
                unsigned char* data = nullptr;
                int size = 0;
                kiv_sqlite_column_blob(db, c, data, size);
                const std::unique_ptr<unsigned char, decltype(&std::free)> owned(data, &std::free);
                value = blob_literal(data, size > 0 ? static_cast<std::size_t>(size) : 0);
                type = kind::text;
                break;
            }
            default:
                value = kiv_sqlite_column_text(db, c);
                type = kind::text;
                break;
        }
    }
}

bool result_printer::add_row(const kiv_sqlite_handle& db) {
    read_row(db);
    ++rows_;
    if (format_ == format::csv) {
        put_csv_line(values_.data(), kinds_.data());
        if (rows_ == block_rows) out_.flush();  // the first rows out at once, as in a table
        return !out_.closed();
    }
    const std::size_t columns = names_.size();
    for (std::size_t c = 0; c < columns; ++c) {
        value_widths_[c] = kinds_[c] == kind::text ? escape_for_table(values_[c]) : values_[c].size();
    }
    if (!in_block_) {
        put_table_line(values_.data(), value_widths_.data());
        return !out_.closed();
    }
    for (std::size_t c = 0; c < columns; ++c) {
        widths_[c] = std::max(widths_[c], value_widths_[c]);
        if (kinds_[c] == kind::number) has_number_[c] = true;
        if (kinds_[c] == kind::text) has_text_[c] = true;
        block_.push_back(std::move(values_[c]));
    }
    if (rows_ == block_rows) {
        print_block();
        out_.flush();  // the first rows out at once, before a slow query fills a chunk
    }
    return !out_.closed();
}

bool result_printer::finish() {
    if (!open_) return false;
    open_ = false;
    if (in_block_) print_block();
    return true;
}

void result_printer::print_block() {
    in_block_ = false;
    const std::size_t columns = names_.size();
    for (std::size_t c = 0; c < columns; ++c) right_[c] = has_number_[c] && !has_text_[c];
    std::vector<std::size_t> widths(columns);
    for (std::size_t c = 0; c < columns; ++c) widths[c] = display_width(names_[c]);
    put_table_line(names_.data(), widths.data());
    std::vector<std::string> rule(columns);
    for (std::size_t c = 0; c < columns; ++c) rule[c].assign(widths_[c], '-');
    put_table_line(rule.data(), widths_.data());
    for (std::size_t first = 0; first < block_.size(); first += columns) {
        for (std::size_t c = 0; c < columns; ++c) widths[c] = display_width(block_[first + c]);
        put_table_line(&block_[first], widths.data());
    }
    block_.clear();
}

void result_printer::put_table_line(const std::string* cells, const std::size_t* widths) {
    // Sized once and filled in place: this runs for every row.
    const std::size_t columns = names_.size();
    std::size_t length = 2 * columns;
    for (std::size_t c = 0; c < columns; ++c) length += std::max(widths_[c], widths[c]) - widths[c] + cells[c].size();
    std::string& line = out_.text();
    const std::size_t start = line.size();
    line.resize(start + length);
    char* at = &line[start];
    for (std::size_t c = 0; c < columns; ++c) {
        const std::size_t pad = std::max(widths_[c], widths[c]) - widths[c];
        const std::size_t before = (c > 0 ? 2 : 0) + (right_[c] ? pad : 0);
        std::memset(at, ' ', before);
        std::memcpy(at + before, cells[c].data(), cells[c].size());
        at += before + cells[c].size();
        if (!right_[c]) at = static_cast<char*>(std::memset(at, ' ', pad)) + pad;
    }
    // No trailing blanks (a line never reaches back into the one before: that ends in '\n').
    line.resize(static_cast<std::size_t>(at - line.data()));
    while (line.size() > start && line.back() == ' ') line.pop_back();
    line += '\n';
    out_.line_done();
}

void result_printer::put_csv_line(const std::string* cells, const kind* kinds) {
    std::string& line = out_.text();
    const std::size_t columns = names_.size();
    for (std::size_t c = 0; c < columns; ++c) {
        if (c > 0) line += ',';
        if (kinds != nullptr && kinds[c] != kind::text) {
            line += cells[c];
        } else {
            append_csv_field(line, cells[c]);
        }
    }
    line += '\n';
    out_.line_done();
}

}  // namespace kiv_host
