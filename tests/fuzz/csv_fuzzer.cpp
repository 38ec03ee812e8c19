// libFuzzer target: the host's CSV reader. Whatever the input, the records read back the same
// from the same records written with every field quoted; a quote left open is named by a line
// the input has.

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "csv.h"

namespace {

std::vector<std::vector<std::string>> read_all(std::string text, std::size_t& open_quote) {
    std::vector<std::vector<std::string>> records;
    if (text.empty()) return records;  // fmemopen wants a buffer
    std::FILE* const file = fmemopen(&text[0], text.size(), "r");
    kiv_host::csv_reader reader(file);
    std::vector<std::string> fields;
    std::size_t count = 0;
    while (reader.next(fields, count)) records.emplace_back(fields.begin(), fields.begin() + count);
    open_quote = reader.unterminated();
    std::fclose(file);
    return records;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::size_t open_quote = 0;
    const auto records = read_all(input, open_quote);
    if (open_quote > 1 + static_cast<std::size_t>(std::count(input.begin(), input.end(), '\n'))) __builtin_trap();
    std::string written;
    for (const auto& record : records) {
        for (std::size_t i = 0; i < record.size(); ++i) {
            written += i > 0 ? ",\"" : "\"";
            for (const char c : record[i]) written += c == '"' ? std::string("\"\"") : std::string(1, c);
            written += '"';
        }
        written += '\n';
    }
    std::size_t none = 0;
    if (read_all(written, none) != records || none != 0) __builtin_trap();
    return 0;
}
