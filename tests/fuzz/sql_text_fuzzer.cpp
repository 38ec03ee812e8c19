// libFuzzer target: the host's statement splitter. The first byte sets how many lines make each
// piece the rest arrives in, as lines arrive in a session. Fed in pieces or whole, the text must split
// into the same statements; each but a trailing rest is complete SQL ending in a semicolon.

#include <sqlite3.h>

#include <algorithm>
#include <string>
#include <vector>

#include "sql_text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::size_t lines = 1 + data[0] % 4;
    // The host refuses input with NUL bytes before it reaches the splitter.
    std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());
    const std::vector<std::string> whole = kiv_host::split_statements(text);

    kiv_host::statement_splitter splitter;
    std::vector<std::string> pieces;
    std::string statement;
    for (std::size_t at = 0, end = 0; at < text.size(); at = end) {
        for (std::size_t k = 0; k < lines && end < text.size(); ++k)
            end = std::min(text.find('\n', end), text.size() - 1) + 1;
        splitter.add(text.data() + at, end - at);
        while (splitter.next(statement)) {
            if (statement.back() != ';' || sqlite3_complete(statement.c_str()) == 0 ||
                kiv_host::is_blank_sql(statement))
                __builtin_trap();
            pieces.push_back(statement);
        }
    }
    if (!splitter.blank()) pieces.push_back(splitter.take_rest());
    if (pieces != whole) __builtin_trap();
    return 0;
}
