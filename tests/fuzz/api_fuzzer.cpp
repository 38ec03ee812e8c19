// libFuzzer target: the input is decoded into a sequence of API calls on an in-memory database
// (open, prepare with fuzzed SQL, binds of every kind, steps, row iteration, column reads,
// reset, finalize, close, destroy). Any crash, sanitizer report or leak is a finding.
//
// Input format: a stream of operations, each an opcode byte followed by its operands (see
// `run_one`); a short input simply ends the sequence. Texts are a length byte and the bytes.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <future>
#include <iostream>
#include <streambuf>
#include <string>

#include "framework/kiv_assertion.h"
#include "kiv_database/database_service.h"
#include "kiv_database/kiv_sqlite.h"

namespace {

class input {
public:
    input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    bool empty() const { return size_ == 0; }
    std::uint8_t byte() {
        if (size_ == 0) return 0;
        --size_;
        return *data_++;
    }
    template <class T>
    T value() {
        T v{};
        const std::size_t n = size_ < sizeof v ? size_ : sizeof v;
        std::memcpy(&v, data_, n);
        data_ += n;
        size_ -= n;
        return v;
    }
    // Small indexes mostly, with 0, negatives and past-the-end among them.
    int index() { return static_cast<int>(static_cast<std::int8_t>(byte())) % 8; }
    std::string text() {
        std::size_t n = byte();
        if (n == 255) n = value<std::uint16_t>();  // now and then a long one
        if (n > size_) n = size_;
        std::string s(reinterpret_cast<const char*>(data_), n);
        data_ += n;
        size_ -= n;
        return s;
    }

private:
    const std::uint8_t* data_;
    std::size_t size_;
};

// Misuse prints warnings: fuzzing keeps the console quiet.
class null_buffer : public std::streambuf {
protected:
    int_type overflow(int_type c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

// Fuzzed SQL gets a bounded amount of work per input and cannot reach files.
int budget = 0;
int on_progress(void*) { return --budget < 0; }
int authorize(void*, int action, const char*, const char*, const char*, const char*) {
    return action == SQLITE_ATTACH || action == SQLITE_DETACH ? SQLITE_DENY : SQLITE_OK;
}

void confine(sqlite3* db) {
    if (db == nullptr) return;
    sqlite3_progress_handler(db, 100, on_progress, nullptr);
    sqlite3_set_authorizer(db, authorize, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_limit(db, SQLITE_LIMIT_LENGTH, 1 << 20);
    sqlite3_limit(db, SQLITE_LIMIT_SQL_LENGTH, 1 << 16);
    sqlite3_limit(db, SQLITE_LIMIT_COLUMN, 64);
    sqlite3_limit(db, SQLITE_LIMIT_EXPR_DEPTH, 64);
    sqlite3_limit(db, SQLITE_LIMIT_COMPOUND_SELECT, 8);
    sqlite3_limit(db, SQLITE_LIMIT_VDBE_OP, 20000);
    sqlite3_limit(db, SQLITE_LIMIT_ATTACHED, 0);
    sqlite3_limit(db, SQLITE_LIMIT_LIKE_PATTERN_LENGTH, 64);
    sqlite3_limit(db, SQLITE_LIMIT_VARIABLE_NUMBER, 64);
    sqlite3_limit(db, SQLITE_LIMIT_TRIGGER_DEPTH, 4);
}

void wait_for_worker() {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> ran = done->get_future();
    kiv_database_exec([done] { done->set_value(); }, __FILE__, __LINE__);
    ran.wait();
}

volatile long sink = 0;  // keeps column reads from being optimised away

void read_columns(const kiv_sqlite_handle& c, input& in) {
    const int column = in.index();
    unsigned char* data = nullptr;
    int size = 0;
    kiv_sqlite_column_blob(c, column, data, size);
    if (size > 0) sink = sink + data[size - 1];
    std::free(data);
    sink = sink + static_cast<long>(kiv_sqlite_column_text(c, column).size());
    sink = sink + kiv_sqlite_column_int(c, column) + kiv_sqlite_column_int64(c, column);
    sink = sink + static_cast<long>(kiv_sqlite_column_double(c, column) == 0.0);
    sink = sink + kiv_sqlite_column_type(c, column);
    const char* decl = kiv_sqlite_column_decltype(c, column);
    const char* name = kiv_sqlite_column_name(c, column);
    sink = sink + (decl ? std::strlen(decl) : 0) + (name ? std::strlen(name) : 0);
    sink = sink + kiv_sqlite_is_column_null(c, column) + kiv_sqlite_is_column_text(c, column) +
           kiv_sqlite_is_column_blob(c, column) + kiv_sqlite_is_column_int(c, column) +
           kiv_sqlite_is_column_double(c, column);
}

void run_one(const std::uint8_t* data, std::size_t size) {
    input in(data, size);
    std::deque<std::string> kept;  // bytes bound without a copy stay valid to the end
    kiv_sqlite_handle c;
    budget = 20000;
    for (int op = 0; op < 200 && !in.empty(); ++op) {
        const std::uint8_t code = in.byte() % 22;
        if (!c && code != 0) continue;
        switch (code) {
            case 0:
                if (!c) c = kiv_sqlite_new(":memory:", (in.byte() & 1) ? "a" : "b");
                break;
            case 1:
            case 2:
                // Opening an open object replaces its connection and strands the first one,
                // as documented: not a finding.
                if (kiv_sqlite_is_opened(c)) break;
                if ((code == 1 ? kiv_sqlite_open(c) : kiv_sqlite_try_open(c)) == SQLITE_OK) confine(c->db);
                break;
            case 3:
                kiv_sqlite_close(c);
                break;
            case 4:
                kiv_sqlite_prepare(c, in.text());
                break;
            case 5: {
                char* message = nullptr;
                const std::string sql = in.text();
                kiv_sqlite_sql_stmt(c, sql.c_str(), (in.byte() & 1) ? &message : nullptr);
                kiv_sqlite_free(c, message);
                break;
            }
            case 6:
                kiv_sqlite_reset(c);
                break;
            case 7:
                kiv_sqlite_finalize(c);
                break;
            case 8:
                kiv_sqlite_step(c);
                break;
            case 9: {
                const std::uint8_t mode = in.byte();
                unsigned long counter = 0;
                kiv_sqlite_rows_each(c, counter, [&](kiv_sqlite_handle row, unsigned long index) {
                    if (mode & 1) read_columns(row, in);
                    if ((mode & 2) && index == 1) kiv_sqlite_finalize(row);
                    return index < static_cast<unsigned long>(mode >> 2);
                });
                break;
            }
            case 10: {
                const int index = in.index();
                kiv_sqlite_bind_int(c, index, in.value<int>());
                break;
            }
            case 11: {
                const int index = in.index();
                kiv_sqlite_bind_int64(c, index, in.value<long long>());
                break;
            }
            case 12: {
                const int index = in.index();
                kiv_sqlite_bind_double(c, index, in.value<double>());
                break;
            }
            case 13:
            case 14:
            case 15:
            case 16: {
                const int index = in.index();
                const std::string& bytes = kept.emplace_back(in.text());
                const auto* blob = reinterpret_cast<const unsigned char*>(bytes.data());
                if (code == 13) kiv_sqlite_bind_blob(c, index, blob, bytes.size());
                if (code == 14) kiv_sqlite_bind_blob_static(c, index, blob, bytes.size());
                if (code == 15) kiv_sqlite_bind_text(c, index, bytes.data(), bytes.size());
                if (code == 16) kiv_sqlite_bind_text_static(c, index, bytes.data(), bytes.size());
                break;
            }
            case 17: {
                sink = sink + kiv_sqlite_bind_parameter_count(c);
                const char* name = kiv_sqlite_bind_parameter_name(c, in.index());
                sink = sink + (name ? std::strlen(name) : 0);
                sink = sink + kiv_sqlite_bind_parameter_index(c, in.text().c_str());
                if (in.byte() & 1) kiv_sqlite_bind_clear(c);
                break;
            }
            case 18:
                read_columns(c, in);
                break;
            case 19: {
                sink = sink + kiv_sqlite_data_count(c) + kiv_sqlite_column_count(c);
                sink = sink + kiv_sqlite_last_insert_rowid(c) + kiv_sqlite_affected_rows_count(c);
                sink = sink + kiv_sqlite_last_error_code(c);
                sink = sink + std::strlen(kiv_sqlite_last_error_message(c));
                const char* text = kiv_sqlite_errstr(c, in.value<int>());
                sink = sink + (text ? std::strlen(text) : 0);
                const char* sql = kiv_sqlite_sql(c);
                sink = sink + (sql ? std::strlen(sql) : 0);
                break;
            }
            case 20: {
                const kiv_sqlite_handle found = kiv_database_get_sqlite((in.byte() & 1) ? "a" : "b");
                sink = sink + (found == c);
                sink = sink + (kiv_sqlite_from_object(kiv_sqlite_to_object(c)) == c);
                break;
            }
            case 21:
                kiv_sqlite_destroy(c, __FILE__, __LINE__);
                c.reset();  // the worker owns it now
                break;
        }
    }
    if (c) kiv_sqlite_destroy(c, __FILE__, __LINE__);
    c.reset();
    wait_for_worker();  // nothing of this input outlives it
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static null_buffer quiet;
    std::cout.rdbuf(&quiet);
    kiv_assertion_set_handler([](bool, const std::string&, const std::string&, const std::string&, int) {});
    sqlite3_hard_heap_limit64(256 << 20);
    kiv_database_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    run_one(data, size);
    return 0;
}
