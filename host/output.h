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
    enum class mode {
        aligned,
        ascii,
        box,
        column,
        csv,
        html,
        insert,
        json,
        line,
        list,
        markdown,
        quote,
        table,
        tabs,
        tcl
    };
    mode how = mode::aligned;
    bool headers = true;
    std::string separator = "|";       // between columns (list, csv, quote, tabs, ascii, tcl)
    std::string row_separator = "\n";  // after each row of those modes
    bool null_set = false;             // null_value was given; else NULL in aligned, empty elsewhere
    std::string null_value;
    std::string insert_table = "table";  // the table named by insert mode's statements
};

// Sets the mode called `name` (as .mode and the options spell it) with the separators it
// starts with; false when there is no such mode.
bool set_mode(print_options& options, const std::string& name);
// The name of a mode.
const char* mode_name(print_options::mode how);
// The names of all modes, comma-separated, for messages and help.
std::string mode_names();

// X'..' with two upper-case hex digits per byte, as SQLite writes blob literals.
std::string blob_literal(const unsigned char* data, std::size_t size);
// The blob in column `column` of the current row of `db`'s statement, as blob_literal writes it.
std::string column_blob_literal(const kiv_sqlite_handle& db, int column);

// Prints the results of a run's statements. The modes, in one table in output.cpp:
//   aligned:  kiv_host's own table: column names, a rule of dashes, the rows, columns two
//             blanks apart, numeric columns right-aligned, a blank line between two results.
//             Widths and alignment come from the first `block_rows` rows; a later, wider value
//             is printed whole and shifts the rest of its line only. NULL prints as NULL.
//   column, box, markdown, table: the sqlite3 shell's grids, sized over the whole result
//             (which is held until its end), names centred in box, markdown and table.
//   list, tabs, ascii, csv, quote, tcl: one line per row, values between separators; csv
//             quotes as the sqlite3 shell does, quote writes SQL literals, tcl C strings.
//   line, json, html, insert: as the sqlite3 shell writes them.
// In the aligned and grid modes control characters in names and text print as \n, \r, \t or
// \xHH and a backslash doubled, so that every row stays on one line. Blobs print as X'hex'.
// Headers off drops the names where the sqlite3 shell drops them (not in box, markdown,
// table, line, json). Only the aligned mode prints anything for a result without rows.
struct mode_entry;

class result_printer {
public:
    enum class format { table, csv };
    // How a mode reads values: escaped onto one line (NULL as NULL, or as NULL's text), as
    // they are, or as SQL literals.
    enum class style { aligned, grid, plain, literal };
    static constexpr std::size_t block_rows = 1000;

    explicit result_printer(output& out);
    // A printer for the library's demo: aligned (table) or csv.
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
    // "(N rows)" after an aligned table that was printed to its end.
    void put_row_count();

private:
    friend struct mode_table;
    enum class kind { null, number, text };
    void read_row(const kiv_sqlite_handle& db, style how);
    void add_aligned_row();
    void hold_grid_row();
    void print_block();
    void print_grid();
    void put_grid_rule(int which);
    void put_grid_line(const std::string* cells, bool names);
    void put_table_line(const std::string* cells, const std::size_t* widths);
    void put_joined(const std::string* cells, void (*append)(std::string&, const std::string&));
    void put_list_names();
    void put_list_row();
    void put_csv_names();
    void put_csv_row();
    void put_quote_names();
    void put_tcl_names();
    void put_tcl_row();
    void put_html_names();
    void put_html_row();
    void put_html_cells(const std::vector<std::string>& cells, const char* tag);
    void put_line_row();
    void put_json_row();
    void put_insert_row();

    output& out_;
    print_options options_;
    const mode_entry* mode_ = nullptr;  // of the current result
    bool separate_ = false;             // a result was printed before: a blank line first
    bool open_ = false;                 // begun and not finished
    bool in_block_ = false;             // rows are still being collected
    std::size_t rows_ = 0;
    std::vector<std::string> names_;
    std::vector<std::string> values_;  // the current row, as printed
    std::vector<kind> kinds_;
    std::vector<std::size_t> value_widths_;
    std::vector<std::string> block_;  // the rows held back, row after row
    std::vector<std::size_t> widths_;
    std::vector<bool> has_number_;
    std::vector<bool> has_text_;
    std::vector<bool> right_;
};

}  // namespace kiv_host
