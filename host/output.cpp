#include "output.h"

#include <langinfo.h>
#include <unistd.h>

#include <cwchar>

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

bool utf8_locale() {
    static const bool utf8 = std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0;
    return utf8;
}

// The code point starting at text[i] (advancing i); a byte that starts no valid sequence is
// taken as a code point of its own.
wchar_t next_code_point(const std::string& text, std::size_t& i) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned lead = byte(i++);
    const std::size_t more = lead >= 0xF0U ? 3 : lead >= 0xE0U ? 2 : lead >= 0xC0U ? 1 : 0;
    if (more == 0 || i + more > text.size()) return static_cast<wchar_t>(lead);
    unsigned value = lead & (0x3FU >> more);
    for (std::size_t k = 0; k < more; ++k) {
        if ((byte(i + k) & 0xC0U) != 0x80U) return static_cast<wchar_t>(lead);
        value = (value << 6) | (byte(i + k) & 0x3FU);
    }
    i += more;
    return static_cast<wchar_t>(value);
}

bool needs_escape(char ch) {
    const auto c = static_cast<unsigned char>(ch);
    return c < 0x20U || c == 0x7FU || c == '\\';
}

// Rewrites `text` so that it fits on one table line and returns its display width. Most values
// need no change; they are only scanned, once.
std::size_t escape_for_table(std::string& text) {
    bool plain = true;
    bool ascii = true;
    for (const char ch : text) {
        plain = plain && !needs_escape(ch);
        ascii = ascii && static_cast<unsigned char>(ch) < 0x80U;
    }
    if (plain) return ascii ? text.size() : display_width(text);
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

std::size_t display_width(const std::string& text) {
    std::size_t width = 0;
    const bool columns = utf8_locale();
    for (std::size_t i = 0; i < text.size();) {
        const wchar_t code = next_code_point(text, i);
        const int w = columns ? ::wcwidth(code) : 1;
        width += w >= 0 ? static_cast<std::size_t>(w) : 1;
    }
    return width;
}

output::output() : flush_at_(::isatty(STDOUT_FILENO) != 0 ? 0 : pipe_chunk) { buffer_.reserve(pipe_chunk + 1024); }

output::~output() { redirect(nullptr); }

void output::redirect(std::FILE* file) {
    flush();
    if (file_ != stdout) std::fclose(file_);
    file_ = file != nullptr ? file : stdout;
    flush_at_ = ::isatty(::fileno(file_)) != 0 ? 0 : pipe_chunk;
}

void output::flush() {
    if (!buffer_.empty() && error_ == 0) {
        errno = 0;
        if (std::fwrite(buffer_.data(), 1, buffer_.size(), file_) != buffer_.size() || std::fflush(file_) != 0) {
            const int error = errno != 0 ? errno : EIO;
            if (file_ == stdout) {
                error_ = error;
            } else {
                std::fprintf(stderr, "kiv_host: output file: %s\n", std::strerror(error));
                buffer_.clear();
                redirect(nullptr);
            }
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

result_printer::result_printer(output& out) : out_(out) {}

result_printer::result_printer(output& out, format how) : out_(out) {
    if (how == format::csv) options_.how = print_options::mode::csv;
}

void result_printer::begin(std::vector<std::string> names) {
    using mode = print_options::mode;
    format_ = options_.how;
    if (separate_ && format_ != mode::list && format_ != mode::json) out_.text() += '\n';
    separate_ = true;
    open_ = true;
    names_ = std::move(names);
    rows_ = 0;
    const std::size_t columns = names_.size();
    values_.assign(columns, std::string());
    kinds_.assign(columns, kind::null);
    value_widths_.assign(columns, 0);
    if (format_ != mode::table) {
        if (options_.headers && format_ == mode::csv) put_csv_line(names_.data(), nullptr);
        if (options_.headers && format_ == mode::list) put_list_line(names_.data());
        return;
    }
    widths_.assign(columns, 0);
    for (std::size_t c = 0; c < columns; ++c) widths_[c] = escape_for_table(names_[c]);
    if (!options_.headers) widths_.assign(columns, 0);
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
    const bool table = format_ == print_options::mode::table;
    for (int c = 0; c < columns; ++c) {
        std::string& value = values_[static_cast<std::size_t>(c)];
        kind& type = kinds_[static_cast<std::size_t>(c)];
        switch (kiv_sqlite_column_type(db, c)) {
            case SQLITE_NULL:
                type = kind::null;
                value.assign(options_.null_set ? options_.null_value : table ? "NULL" : "");
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
    using mode = print_options::mode;
    read_row(db);
    ++rows_;
    if (format_ != mode::table) {
        if (format_ == mode::csv) put_csv_line(values_.data(), kinds_.data());
        if (format_ == mode::list) put_list_line(values_.data());
        if (format_ == mode::line) put_line_row();
        if (format_ == mode::json) put_json_row();
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
    if (format_ == print_options::mode::json && rows_ > 0) out_.text() += "]\n";
    return true;
}

void result_printer::put_row_count() {
    if (format_ != print_options::mode::table) return;
    out_.text() += '(' + std::to_string(rows_) + (rows_ == 1 ? " row)\n" : " rows)\n");
}

void result_printer::print_block() {
    in_block_ = false;
    const std::size_t columns = names_.size();
    for (std::size_t c = 0; c < columns; ++c) right_[c] = has_number_[c] && !has_text_[c];
    std::vector<std::size_t> widths(columns);
    if (options_.headers) {
        for (std::size_t c = 0; c < columns; ++c) widths[c] = display_width(names_[c]);
        put_table_line(names_.data(), widths.data());
        std::vector<std::string> rule(columns);
        for (std::size_t c = 0; c < columns; ++c) rule[c].assign(widths_[c], '-');
        put_table_line(rule.data(), widths_.data());
    }
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

void result_printer::put_list_line(const std::string* cells) {
    std::string& line = out_.text();
    for (std::size_t c = 0; c < names_.size(); ++c) {
        if (c > 0) line += options_.separator;
        line += cells[c];
    }
    line += '\n';
    out_.line_done();
}

void result_printer::put_line_row() {
    std::size_t width = 0;
    for (const auto& name : names_) width = std::max(width, display_width(name));
    std::string& text = out_.text();
    if (rows_ > 1) text += '\n';
    for (std::size_t c = 0; c < names_.size(); ++c) {
        text.append(width - std::min(width, display_width(names_[c])), ' ');
        text += names_[c] + " = " + values_[c] + '\n';
    }
    out_.line_done();
}

namespace {

void append_json_string(std::string& out, const std::string& value) {
    static const char digits[] = "0123456789abcdef";
    out += '"';
    for (const char ch : value) {
        const auto c = static_cast<unsigned char>(ch);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += ch;
        } else if (c < 0x20U) {
            out += "\\u00";
            out += digits[c >> 4];
            out += digits[c & 0x0FU];
        } else {
            out += ch;
        }
    }
    out += '"';
}

}  // namespace

void result_printer::put_json_row() {
    std::string& text = out_.text();
    text += rows_ == 1 ? "[{" : ",\n{";
    for (std::size_t c = 0; c < names_.size(); ++c) {
        if (c > 0) text += ',';
        append_json_string(text, names_[c]);
        text += ':';
        if (kinds_[c] == kind::text) {
            append_json_string(text, values_[c]);
        } else {
            text += kinds_[c] == kind::null ? "null" : values_[c];
        }
    }
    text += '}';
    out_.line_done();
}

}  // namespace kiv_host
