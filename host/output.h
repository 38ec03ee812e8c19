#pragma once

// Standard output of the host and the printing of result rows as they are stepped.

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

#include "kiv_database/kiv_sqlite.h"

namespace kiv_host {

// Standard output through one large buffer written with fwrite: text is appended to `text()`
// and written in big pieces (after every line when standard output is a terminal). After a
// failed write the output is closed: later text is dropped and `error()` holds the errno.
// The output may be sent to a file for a while (.output, .once); a failed write there ends
// only that redirection.
class output {
public:
    output();
    ~output();
    output(const output&) = delete;
    output& operator=(const output&) = delete;
    // Sends later text to `file`, which this object closes; nullptr goes back to standard output.
    void redirect(std::FILE* file);
    bool redirected() const { return file_ != stdout; }
    std::string& text() { return buffer_; }
    // Call at the end of a line: writes the buffer once it is large enough.
    void line_done() {
        if (buffer_.size() >= flush_at_) flush();
    }
    void flush();
    bool closed() const { return error_ != 0; }
    int error() const { return error_; }

private:
    std::string buffer_;
    std::size_t flush_at_;
    int error_ = 0;
    std::FILE* file_ = stdout;
};

// Display columns of UTF-8 text on a terminal: wcwidth() of each code point when the locale's
// character set is UTF-8 (wide CJK characters 2, combining marks 0), else one per code point.
std::size_t display_width(const std::string& text);

// How results are printed; changed by options and dot-commands, read at the start of a result.
struct print_options {
    enum class mode { table, csv, list, line, json };
    mode how = mode::table;
    bool headers = true;
    std::string separator = "|";  // between the columns of list mode
    bool null_set = false;        // null_value was given; else NULL in a table, empty elsewhere
    std::string null_value;
};

// X'..' with two upper-case hex digits per byte, as SQLite writes blob literals.
std::string blob_literal(const unsigned char* data, std::size_t size);

// Prints the results of a run's statements, one after another, a blank line between two
// (except in list and json mode).
//   table: column names, a rule of dashes, then the rows, columns two blanks apart, numeric
//          columns right-aligned. Widths and alignment come from the first `block_rows` rows;
//          a later, wider value is printed whole and shifts the rest of its line only. NULL
//          prints as NULL, blobs as X'hex', and control characters in names and text as \n,
//          \r, \t or \xHH, with a backslash doubled, so that every row stays on one line.
//   csv:   RFC 4180 with LF line ends: a header line, then one line per row; fields holding a
//          comma, a double quote, CR or LF are quoted, quotes doubled; NULL is an empty field,
//          blobs are X'hex'.
//   list:  the values as they are, separated by the separator; line: one "name = value" line
//          per column, a blank line between rows; json: an array of one object per row.
// Headers off drops the names (and the rule) of table, csv and list.
// Only the first block of a table is held in memory; every other row goes straight out.
class result_printer {
public:
    enum class format { table, csv };
    static constexpr std::size_t block_rows = 1000;

    explicit result_printer(output& out);
    result_printer(output& out, format how);
    // Options for the results begun from now on.
    print_options& options() { return options_; }
    // A new result with these column names.
    void begin(std::vector<std::string> names);
    // The current row of `db`'s statement; false once the output is closed.
    bool add_row(const kiv_sqlite_handle& db);
    // After the last row, or the last row before an error: prints what is still held. true
    // when a result had begun since the last finish.
    bool finish();
    std::size_t rows() const { return rows_; }
    // The next result is not set off from the one before by a blank line (a new prompt is).
    void start_group() { separate_ = false; }
    // "(N rows)" after a table that was printed to its end.
    void put_row_count();

private:
    enum class kind { null, number, text };
    void read_row(const kiv_sqlite_handle& db);
    void print_block();
    void put_table_line(const std::string* cells, const std::size_t* widths);
    void put_csv_line(const std::string* cells, const kind* kinds);
    void put_list_line(const std::string* cells);
    void put_line_row();
    void put_json_row();

    output& out_;
    print_options options_;
    print_options::mode format_ = print_options::mode::table;
    bool separate_ = false;  // a result was printed before: a blank line first
    bool open_ = false;      // begun and not finished
    bool in_block_ = false;  // table rows are still being collected
    std::size_t rows_ = 0;
    std::vector<std::string> names_;
    std::vector<std::string> values_;  // the current row, as printed
    std::vector<kind> kinds_;
    std::vector<std::size_t> value_widths_;
    std::vector<std::string> block_;  // the first rows of a table, row after row
    std::vector<std::size_t> widths_;
    std::vector<bool> has_number_;
    std::vector<bool> has_text_;
    std::vector<bool> right_;
};

}  // namespace kiv_host
