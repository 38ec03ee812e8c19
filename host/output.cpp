#include "output.h"

#include <langinfo.h>
#include <unistd.h>

#include <sqlite3.h>

#include <cctype>
#include <cwchar>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "literal.h"

namespace kiv_host {

namespace {

// "text" with its double quotes doubled: a CSV field, an SQL name.
void append_double_quoted(std::string& out, const std::string& text) {
    out += '"';
    for (const char ch : text) {
        if (ch == '"') out += '"';
        out += ch;
    }
    out += '"';
}

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
        ascii = ascii && (static_cast<unsigned char>(ch) & 0x80U) == 0;
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

std::string column_blob_literal(const kiv_sqlite_handle& db, int column) {
    unsigned char* data = nullptr;
    int size = 0;
    kiv_sqlite_column_blob(db, column, data, size);
    const std::unique_ptr<unsigned char, decltype(&std::free)> owned(data, &std::free);
    return blob_literal(data, size > 0 ? static_cast<std::size_t>(size) : 0);
}

namespace {

// One-character separators as a character: an append of a string costs a call, per field.
void append_separator(std::string& line, const std::string& separator) {
    if (separator.size() == 1) {
        line += separator[0];
    } else {
        line += separator;
    }
}

// A field of csv mode: quoted, its quotes doubled, when it is empty, holds the separator, a
// blank, a control character, a quote or a byte outside ASCII (as the sqlite3 shell does).
void append_csv_field(std::string& line, const std::string& value, const std::string& separator) {
    const char first = separator.empty() ? '\0' : separator[0];
    bool quote = value.empty();
    for (std::size_t i = 0; i < value.size() && !quote; ++i) {
        const auto c = static_cast<unsigned char>(value[i]);
        quote = c <= 0x20U || c >= 0x7FU || c == '"' || c == '\'' ||
                (value[i] == first && value.compare(i, separator.size(), separator) == 0);
    }
    if (quote) {
        append_double_quoted(line, value);
    } else {
        line += value;
    }
}

void append_json_string(std::string& out, const std::string& value) {
    static const char digits[] = "0123456789abcdef";
    out += '"';
    for (const char ch : value) {
        const auto c = static_cast<unsigned char>(ch);
        const char* const named = c == '\b'   ? "\\b"
                                  : c == '\f' ? "\\f"
                                  : c == '\n' ? "\\n"
                                  : c == '\r' ? "\\r"
                                  : c == '\t' ? "\\t"
                                              : nullptr;
        if (c == '"' || c == '\\') {
            out += '\\';
            out += ch;
        } else if (named != nullptr) {
            out += named;
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

// A C string in double quotes: quotes and backslashes escaped, \t \n \r, and every other byte
// that is not printable ASCII in octal.
void append_c_string(std::string& out, const std::string& value) {
    out += '"';
    for (const char ch : value) {
        const auto c = static_cast<unsigned char>(ch);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += ch;
        } else if (c == '\t' || c == '\n' || c == '\r') {
            out += '\\';
            out += c == '\t' ? 't' : c == '\n' ? 'n' : 'r';
        } else if (c < 0x20U || c >= 0x7FU) {
            out += '\\';
            out += static_cast<char>('0' + (c >> 6));
            out += static_cast<char>('0' + ((c >> 3) & 7U));
            out += static_cast<char>('0' + (c & 7U));
        } else {
            out += ch;
        }
    }
    out += '"';
}

void append_html(std::string& out, const std::string& value) {
    for (const char ch : value) {
        switch (ch) {
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '&':
                out += "&amp;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            default:
                out += ch;
        }
    }
}

void append_plain(std::string& out, const std::string& value) { out += value; }

void append_text_quoted(std::string& out, const std::string& value) { append_text_literal(value, out); }

// A name as SQL: as it is when it is a plain identifier and no keyword, else in double quotes.
void append_identifier(std::string& out, const std::string& name) {
    const auto word = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; };
    const bool plain = !name.empty() && std::isdigit(static_cast<unsigned char>(name[0])) == 0 &&
                       std::all_of(name.begin(), name.end(), word) &&
                       sqlite3_keyword_check(name.data(), static_cast<int>(name.size())) == 0;
    if (plain) {
        out += name;
    } else {
        append_double_quoted(out, name);
    }
}

// The lines around and between the cells of a grid mode.
struct grid_frame {
    const char* left;
    const char* middle;
    const char* right;
    const char* rules[3][4];  // top, under the names, bottom: left, fill, cross, right (or none)
    std::size_t rule_pad;     // a rule spans a column's width and the blanks around its cells
    bool centre_names;
    bool optional_names;  // headers off drops the names
};

constexpr grid_frame column_frame{"", "  ", "", {{}, {"", "-", "  ", ""}, {}}, 0, false, true};
constexpr grid_frame box_frame{"\u2502 ",
                               " \u2502 ",
                               " \u2502",
                               {{"\u250C", "\u2500", "\u252C", "\u2510"},
                                {"\u251C", "\u2500", "\u253C", "\u2524"},
                                {"\u2514", "\u2500", "\u2534", "\u2518"}},
                               2,
                               true,
                               false};
constexpr grid_frame markdown_frame{"| ", " | ", " |", {{}, {"|", "-", "|", "|"}, {}}, 2, true, false};
constexpr grid_frame table_frame{"| ", " | ", " |", {{"+", "-", "+", "+"}, {"+", "-", "+", "+"}, {"+", "-", "+", "+"}},
                                 2,    true,  false};

}  // namespace

// One output mode: how it reads values and what prints its names and rows.
struct mode_entry {
    const char* name;
    print_options::mode how;
    const char* separator;  // set with the mode (nullptr: left as it is)
    const char* row_separator;
    result_printer::style values;
    void (result_printer::*names)();  // before the first row when headers are on, or nullptr
    void (result_printer::*row)();    // each row, or nullptr: rows are held until the end
    const grid_frame* frame;          // the grid modes
};

// Every mode in one place. A friend of result_printer, to name its private printing steps.
struct mode_table {
    using rp = result_printer;
    using st = result_printer::style;
    using m = print_options::mode;
    static constexpr mode_entry entries[] = {
        {"aligned", m::aligned, nullptr, nullptr, st::aligned, nullptr, nullptr, nullptr},
        {"ascii", m::ascii, "\x1F", "\x1E", st::plain, &rp::put_list_names, &rp::put_list_row, nullptr},
        {"box", m::box, nullptr, nullptr, st::grid, nullptr, nullptr, &box_frame},
        {"column", m::column, nullptr, nullptr, st::grid, nullptr, nullptr, &column_frame},
        {"csv", m::csv, ",", "\r\n", st::plain, &rp::put_csv_names, &rp::put_csv_row, nullptr},
        {"html", m::html, nullptr, nullptr, st::plain, &rp::put_html_names, &rp::put_html_row, nullptr},
        {"insert", m::insert, nullptr, nullptr, st::literal, nullptr, &rp::put_insert_row, nullptr},
        {"json", m::json, nullptr, nullptr, st::plain, nullptr, &rp::put_json_row, nullptr},
        {"line", m::line, nullptr, nullptr, st::plain, nullptr, &rp::put_line_row, nullptr},
        {"list", m::list, "|", "\n", st::plain, &rp::put_list_names, &rp::put_list_row, nullptr},
        {"markdown", m::markdown, nullptr, nullptr, st::grid, nullptr, nullptr, &markdown_frame},
        {"quote", m::quote, ",", "\n", st::literal, &rp::put_quote_names, &rp::put_list_row, nullptr},
        {"table", m::table, nullptr, nullptr, st::grid, nullptr, nullptr, &table_frame},
        {"tabs", m::tabs, "\t", "\n", st::plain, &rp::put_list_names, &rp::put_list_row, nullptr},
        {"tcl", m::tcl, " ", "\n", st::plain, &rp::put_tcl_names, &rp::put_tcl_row, nullptr},
    };
    static const mode_entry& of(print_options::mode how) {
        for (const mode_entry& entry : entries)
            if (entry.how == how) return entry;
        return entries[0];
    }
};

bool set_mode(print_options& options, const std::string& name) {
    for (const mode_entry& entry : mode_table::entries) {
        if (name != entry.name) continue;
        options.how = entry.how;
        if (entry.separator != nullptr) options.separator = entry.separator;
        if (entry.row_separator != nullptr) options.row_separator = entry.row_separator;
        return true;
    }
    return false;
}

const char* mode_name(print_options::mode how) { return mode_table::of(how).name; }

std::string mode_names() {
    std::string names;
    for (const mode_entry& entry : mode_table::entries) names += (names.empty() ? "" : ", ") + std::string(entry.name);
    return names;
}

result_printer::result_printer(output& out) : out_(out) {}

result_printer::result_printer(output& out, format how) : out_(out) {
    if (how == format::csv) set_mode(options_, "csv");
}

void result_printer::begin(std::vector<std::string> names) {
    mode_ = &mode_table::of(options_.how);
    const bool aligned = mode_->values == style::aligned;
    if (separate_ && aligned) out_.text() += '\n';
    separate_ = true;
    open_ = true;
    names_ = std::move(names);
    rows_ = 0;
    const std::size_t columns = names_.size();
    values_.assign(columns, std::string());
    kinds_.assign(columns, kind::null);
    value_widths_.assign(columns, 0);
    block_.clear();
    in_block_ = mode_->row == nullptr;
    if (!in_block_) return;
    widths_.assign(columns, 0);
    for (std::size_t c = 0; c < columns; ++c) widths_[c] = escape_for_table(names_[c]);
    if (!options_.headers && aligned) widths_.assign(columns, 0);
    has_number_.assign(columns, false);
    has_text_.assign(columns, false);
    right_.assign(columns, false);
}

void result_printer::read_row(const kiv_sqlite_handle& db, style how) {
    // One type call per cell, then one value call. Numbers are read as numbers and formatted
    // here: SQLite's conversion to text gives the same digits at a far higher cost.
    const int columns = static_cast<int>(names_.size());
    for (int c = 0; c < columns; ++c) {
        std::string& value = values_[static_cast<std::size_t>(c)];
        kind& type = kinds_[static_cast<std::size_t>(c)];
        if (how == style::literal) {  // quote and insert, which need no kinds
            value = sql_literal(db, c);
            continue;
        }
        switch (kiv_sqlite_column_type(db, c)) {
            case SQLITE_NULL:
                type = kind::null;
                if (how == style::aligned && !options_.null_set) {
                    value.assign("NULL");
                } else {
                    value.assign(options_.null_value);
                }
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
            case SQLITE_BLOB:
                value = column_blob_literal(db, c);
                type = kind::text;
                break;
            default:
                value = kiv_sqlite_column_text(db, c);
                type = kind::text;
                break;
        }
    }
}

bool result_printer::add_row(const kiv_sqlite_handle& db) {
    read_row(db, mode_->values);
    ++rows_;
    if (mode_->row != nullptr) {
        if (rows_ == 1 && options_.headers && mode_->names != nullptr) (this->*mode_->names)();
        (this->*mode_->row)();
        out_.line_done();
        if (rows_ == block_rows) out_.flush();  // the first rows out at once, as in a table
    } else if (mode_->frame != nullptr) {
        hold_grid_row();
    } else {
        add_aligned_row();
    }
    return !out_.closed();
}

void result_printer::add_aligned_row() {
    const std::size_t columns = names_.size();
    for (std::size_t c = 0; c < columns; ++c) {
        value_widths_[c] = kinds_[c] == kind::text ? escape_for_table(values_[c]) : values_[c].size();
    }
    if (!in_block_) {
        put_table_line(values_.data(), value_widths_.data());
        return;
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
}

namespace {

// Tabs as blanks to the next multiple of eight columns, as the sqlite3 shell shows them.
void expand_tabs(std::string& text) {
    std::string out;
    std::size_t column = 0;
    for (const char ch : text) {
        if (ch == '\t') {
            out.append(8 - column % 8, ' ');
            column += 8 - column % 8;
        } else {
            out += ch;
            column += (static_cast<unsigned char>(ch) & 0xC0U) != 0x80U ? 1 : 0;
        }
    }
    text.swap(out);
}

}  // namespace

void result_printer::hold_grid_row() {
    for (std::size_t c = 0; c < names_.size(); ++c) {
        if (values_[c].find('\t') != std::string::npos) expand_tabs(values_[c]);
        widths_[c] = std::max(widths_[c], escape_for_table(values_[c]));
        block_.push_back(std::move(values_[c]));
    }
}

bool result_printer::finish() {
    if (!open_) return false;
    open_ = false;
    if (in_block_) {
        if (mode_->frame != nullptr) {
            print_grid();
        } else {
            print_block();
        }
    }
    if (mode_->how == print_options::mode::json && rows_ > 0) out_.text() += "]\n";
    return true;
}

void result_printer::put_row_count() {
    if (mode_ == nullptr || mode_->values != style::aligned) return;
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

void result_printer::print_grid() {
    const std::size_t columns = names_.size();
    if (rows_ > 0) {
        const bool names = options_.headers || !mode_->frame->optional_names;
        put_grid_rule(0);
        if (names) put_grid_line(names_.data(), true);
        if (names) put_grid_rule(1);
        for (std::size_t first = 0; first < block_.size(); first += columns) put_grid_line(&block_[first], false);
        put_grid_rule(2);
    }
    block_.clear();
}

void result_printer::put_grid_rule(int which) {
    const auto& rule = mode_->frame->rules[which];
    if (rule[0] == nullptr) return;
    std::string& line = out_.text();
    line += rule[0];
    for (std::size_t c = 0; c < names_.size(); ++c) {
        if (c > 0) line += rule[2];
        for (std::size_t i = 0; i < widths_[c] + mode_->frame->rule_pad; ++i) line += rule[1];
    }
    line += rule[3];
    line += '\n';
}

void result_printer::put_grid_line(const std::string* cells, bool names) {
    const grid_frame& frame = *mode_->frame;
    std::string& line = out_.text();
    line += frame.left;
    for (std::size_t c = 0; c < names_.size(); ++c) {
        if (c > 0) line += frame.middle;
        const std::size_t pad = widths_[c] - std::min(widths_[c], display_width(cells[c]));
        const std::size_t before = names && frame.centre_names ? pad / 2 : 0;
        line.append(before, ' ');
        line += cells[c];
        line.append(pad - before, ' ');
    }
    line += frame.right;
    line += '\n';
    out_.line_done();
}

void result_printer::put_joined(const std::string* cells, void (*append)(std::string&, const std::string&)) {
    std::string& line = out_.text();
    for (std::size_t c = 0; c < names_.size(); ++c) {
        if (c > 0) append_separator(line, options_.separator);
        append(line, cells[c]);
    }
    append_separator(line, options_.row_separator);
}

void result_printer::put_list_names() { put_joined(names_.data(), append_plain); }

void result_printer::put_list_row() { put_joined(values_.data(), append_plain); }

void result_printer::put_quote_names() { put_joined(names_.data(), append_text_quoted); }

void result_printer::put_tcl_names() { put_joined(names_.data(), append_c_string); }

void result_printer::put_tcl_row() { put_joined(values_.data(), append_c_string); }

void result_printer::put_csv_names() {
    std::string& line = out_.text();
    for (std::size_t c = 0; c < names_.size(); ++c) {
        if (c > 0) append_separator(line, options_.separator);
        append_csv_field(line, names_[c], options_.separator);
    }
    append_separator(line, options_.row_separator);
}

void result_printer::put_csv_row() {
    std::string& line = out_.text();
    const bool comma = options_.separator.size() == 1 && options_.separator[0] == ',';
    for (std::size_t c = 0; c < names_.size(); ++c) {
        if (c > 0) append_separator(line, options_.separator);
        // NULL is never quoted; a number only when it holds the separator (not a comma).
        if (kinds_[c] == kind::null || (kinds_[c] == kind::number && comma)) {
            line += values_[c];
        } else {
            append_csv_field(line, values_[c], options_.separator);
        }
    }
    append_separator(line, options_.row_separator);
}

void result_printer::put_html_names() { put_html_cells(names_, "TH"); }

void result_printer::put_html_row() { put_html_cells(values_, "TD"); }

// One <TR> of cells, each on a line of its own as the sqlite3 shell writes them.
void result_printer::put_html_cells(const std::vector<std::string>& cells, const char* tag) {
    std::string& text = out_.text();
    text += "<TR>";
    for (const auto& cell : cells) {
        text.append("<").append(tag).append(">");
        append_html(text, cell);
        text.append("</").append(tag).append(">\n");
    }
    text += "</TR>\n";
}

void result_printer::put_line_row() {
    std::size_t width = 5;
    for (const auto& name : names_) width = std::max(width, display_width(name));
    std::string& text = out_.text();
    if (rows_ > 1) text += '\n';
    for (std::size_t c = 0; c < names_.size(); ++c) {
        text.append(width - std::min(width, display_width(names_[c])), ' ');
        text += names_[c] + " = " + values_[c] + '\n';
    }
}

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
}

void result_printer::put_insert_row() {
    std::string& text = out_.text();
    text += "INSERT INTO ";
    append_identifier(text, options_.insert_table);
    for (std::size_t c = 0; options_.headers && c < names_.size(); ++c) {
        text += c == 0 ? '(' : ',';
        append_identifier(text, names_[c]);
    }
    text += options_.headers && !names_.empty() ? ") VALUES(" : " VALUES(";
    for (std::size_t c = 0; c < values_.size(); ++c) {
        if (c > 0) text += ',';
        text += values_[c];
    }
    text += ");\n";
}

}  // namespace kiv_host
