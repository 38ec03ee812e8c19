#pragma once

// Reading CSV records (RFC 4180) from a file, for .import.

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace kiv_host {

// Reads RFC 4180 records: fields separated by commas, records by LF or CRLF; a field in double
// quotes may hold commas, quotes (doubled) and line ends.
class csv_reader {
public:
    explicit csv_reader(std::FILE* file) : file_(file) {}
    // The next record into the first `count` entries of `fields`; false at the end of the file
    // and after a record that the file ends inside the quotes of (see unterminated()).
    bool next(std::vector<std::string>& fields, std::size_t& count);
    // The line on which the last record began.
    std::size_t line() const { return record_line_; }
    // The line of the opening quote of a field that the file ended inside; 0 when none did.
    std::size_t unterminated() const { return open_quote_line_; }

private:
    int get() {
        const int c = getc_unlocked(file_);
        if (c == '\n') ++line_;
        return c;
    }
    int read_quoted(std::string& field);

    std::FILE* const file_;
    std::size_t line_ = 1;
    std::size_t record_line_ = 1;
    std::size_t open_quote_line_ = 0;
};

}  // namespace kiv_host
