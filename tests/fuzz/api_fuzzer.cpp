// libFuzzer target: the input is decoded into a sequence of API calls on in-memory databases
// (open, prepare with fuzzed SQL, binds of every kind, steps, row iteration, column reads,
// reset, finalize, close, lookup, destroy). Any crash, sanitizer report or leak is a finding,
// and so is an object that is still alive once the input has destroyed it and the worker ran.
//
// Input format: a stream of operations, each an opcode byte followed by its operands (see
// `session::one_op`); a short input simply ends the sequence. Texts are a length byte and the
// bytes. The opcode byte is `code + 22 * (slot + 2 * variant)`: two object slots, so that
// objects sharing a name meet in the registry, and a variant for calls that have one.

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <future>
#include <iostream>
#include <streambuf>
#include <string>
#include <vector>

#include <boost/weak_ptr.hpp>

#include "framework/kiv_assertion.h"
#include "framework/kiv_object.h"
#include "kiv_database/database_service.h"
#include "kiv_database/kiv_sqlite.h"

namespace {

constexpr int op_count = 22;
constexpr int max_ops = 200;   // per input, row callbacks included
constexpr int max_depth = 2;   // row callbacks running calls that iterate again

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
    ran.wait();  // a worker that never gets here is a hang: libFuzzer's -timeout reports it
}

[[noreturn]] void finding(const char* what) {
    std::cerr << "kiv_api_fuzzer: " << what << std::endl;
    std::abort();
}

volatile long sink = 0;  // keeps results from being optimised away

std::size_t length(const char* text) { return text ? std::strlen(text) : 0; }

struct row_callback_stop {};  // thrown by a row callback; rows_each lets it through

class session {
public:
    session(const std::uint8_t* data, std::size_t size) : in_(data, size) {}

    void run() {
        while (ops_ < max_ops && !in_.empty()) one_op(0);
        for (kiv_sqlite_handle& c : slots_) {
            if (c) kiv_sqlite_destroy(c, __FILE__, __LINE__);
            c.reset();
        }
        wait_for_worker();  // nothing of this input outlives it
        // The worker releases a batch of jobs only after the whole batch ran, so the destroy
        // jobs may still hold their objects when the first wait returns; a second one does not.
        wait_for_worker();
        // The worker's destroy jobs have run and no handle of ours is left: any object still
        // alive is held by the library (registry, live-object list, framework reference).
        for (const boost::weak_ptr<_kiv_sqlite>& made : made_)
            if (!made.expired()) finding("an object outlived its destroy");
        if (kiv_object_reffed_count() != 0) finding("the framework still holds a reference");
    }

private:
    void one_op(int depth) {
        ++ops_;
        const std::uint8_t op = in_.byte();
        const int code = op % op_count;
        const int slot = (op / op_count) & 1;
        const int variant = op / (2 * op_count);
        kiv_sqlite_handle& c = slots_[slot];
        // Calls on an empty slot go through as well: they exercise the empty-handle path.
        switch (code) {
            case 0:
                if (!c) {
                    c = kiv_sqlite_new(":memory:", std::string(1, static_cast<char>('a' + in_.byte() % 2)));
                    made_.push_back(c);
                }
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
                sink = sink + kiv_sqlite_prepare(c, in_.text());
                break;
            case 5: {
                char* message = nullptr;
                const std::string sql = in_.text();
                sink = sink + kiv_sqlite_sql_stmt(c, sql.c_str(), (variant & 1) ? &message : nullptr);
                kiv_sqlite_free(c, message);
                break;
            }
            case 6:
                sink = sink + kiv_sqlite_reset(c);
                break;
            case 7:
                kiv_sqlite_finalize(c);
                break;
            case 8:
                sink = sink + kiv_sqlite_step(c);
                break;
            case 9:
                rows_each(c, slot, depth);
                break;
            case 10: {
                const int index = in_.index();
                sink = sink + kiv_sqlite_bind_int(c, index, in_.value<int>());
                break;
            }
            case 11: {
                const int index = in_.index();
                sink = sink + kiv_sqlite_bind_int64(c, index, in_.value<long long>());
                break;
            }
            case 12: {
                const int index = in_.index();
                sink = sink + kiv_sqlite_bind_double(c, index, in_.value<double>());
                break;
            }
            case 13:
            case 14:
            case 15:
            case 16: {
                const int index = in_.index();
                // Bytes bound without a copy must stay valid until the input ends.
                const std::string& bytes = kept_.emplace_back(in_.text());
                const auto* blob = reinterpret_cast<const unsigned char*>(bytes.data());
                if (code == 13) sink = sink + kiv_sqlite_bind_blob(c, index, blob, bytes.size());
                if (code == 14) sink = sink + kiv_sqlite_bind_blob_static(c, index, blob, bytes.size());
                if (code == 15) sink = sink + kiv_sqlite_bind_text(c, index, bytes.data(), bytes.size());
                if (code == 16) sink = sink + kiv_sqlite_bind_text_static(c, index, bytes.data(), bytes.size());
                break;
            }
            case 17: {
                sink = sink + kiv_sqlite_bind_parameter_count(c);
                sink = sink + length(kiv_sqlite_bind_parameter_name(c, in_.index()));
                sink = sink + kiv_sqlite_bind_parameter_index(c, in_.text().c_str());
                if (variant & 1) sink = sink + kiv_sqlite_bind_clear(c);
                break;
            }
            case 18:
                read_columns(c);
                break;
            case 19: {
                sink = sink + kiv_sqlite_data_count(c) + kiv_sqlite_column_count(c);
                sink = sink + kiv_sqlite_last_insert_rowid(c) + kiv_sqlite_affected_rows_count(c);
                sink = sink + kiv_sqlite_last_error_code(c);
                sink = sink + length(kiv_sqlite_last_error_message(c));
                sink = sink + length(kiv_sqlite_errstr(c, in_.value<int>()));
                sink = sink + length(kiv_sqlite_sql(c));
                break;
            }
            case 20: {
                const char name[2] = {static_cast<char>('a' + variant % 3), '\0'};
                const kiv_sqlite_handle found = kiv_database_get_sqlite(name);
                sink = sink + (found == slots_[0]) + 2 * (found == slots_[1]);
                const boost::shared_ptr<_kiv_object> object = kiv_sqlite_to_object(c);
                sink = sink + kiv_is_sqlite(object) + (kiv_sqlite_from_object(object) == c);
                sink = sink + static_cast<long>(kiv_sqlite_get_name(c).size());
                break;
            }
            case 21:
                // A row callback destroying the object it iterates would leave rows_each using
                // an object the worker is closing: the caller's misuse, not a finding.
                if (iterating_[slot] > 0) break;
                kiv_sqlite_destroy(c, __FILE__, __LINE__);
                if (variant & 1) kiv_sqlite_destroy(c, __FILE__, __LINE__);  // only warns
                // Name and state stay readable from here while the worker closes the object.
                sink = sink + static_cast<long>(kiv_sqlite_get_name(c).size()) + kiv_sqlite_is_opened(c);
                c.reset();  // the worker owns it now
                break;
        }
    }

    // Mode byte: bit 0 picks the overload with a counter, bits 1-2 the number of calls each
    // row callback runs, bit 3 makes the stop a thrown exception, bits 4-7 the row index to
    // stop at (15: never).
    void rows_each(const kiv_sqlite_handle& c, int slot, int depth) {
        const std::uint8_t mode = in_.byte();
        const int calls = depth < max_depth ? (mode >> 1) & 3 : 0;
        const unsigned long stop_at = mode >> 4;
        auto callback = [this, calls, stop_at, mode, depth](kiv_sqlite_handle row, unsigned long index) {
            sink = sink + (row != nullptr);
            for (int i = 0; i < calls && ops_ < max_ops && !in_.empty(); ++i) one_op(depth + 1);
            if (stop_at == 15 || index < stop_at) return true;
            if (mode & 8) throw row_callback_stop{};
            return false;
        };
        ++iterating_[slot];
        try {
            unsigned long counter = 0;
            if (mode & 1) {
                sink = sink + kiv_sqlite_rows_each(c, counter, callback);
            } else {
                sink = sink + kiv_sqlite_rows_each(c, callback);
            }
            sink = sink + static_cast<long>(counter);
        } catch (const row_callback_stop&) {
        }
        --iterating_[slot];
    }

    void read_columns(const kiv_sqlite_handle& c) {
        const int column = in_.index();
        unsigned char* data = nullptr;
        int size = 0;
        kiv_sqlite_column_blob(c, column, data, size);
        if (size > 0) sink = sink + data[size - 1];
        std::free(data);
        sink = sink + static_cast<long>(kiv_sqlite_column_text(c, column).size());
        sink = sink + kiv_sqlite_column_int(c, column) + kiv_sqlite_column_int64(c, column);
        sink = sink + static_cast<long>(kiv_sqlite_column_double(c, column) == 0.0);
        sink = sink + kiv_sqlite_column_type(c, column);
        sink = sink + length(kiv_sqlite_column_decltype(c, column)) + length(kiv_sqlite_column_name(c, column));
        sink = sink + kiv_sqlite_is_column_null(c, column) + kiv_sqlite_is_column_text(c, column) +
               kiv_sqlite_is_column_blob(c, column) + kiv_sqlite_is_column_int(c, column) +
               kiv_sqlite_is_column_double(c, column);
    }

    input in_;
    int ops_ = 0;
    kiv_sqlite_handle slots_[2];
    int iterating_[2] = {0, 0};
    std::deque<std::string> kept_;
    std::vector<boost::weak_ptr<_kiv_sqlite>> made_;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static null_buffer quiet;
    std::cout.rdbuf(&quiet);
    // Failed checks are expected here (calls out of order); they only count. The worker's
    // destroy jobs check too, hence the atomic.
    static std::atomic<unsigned long> failed_checks{0};
    kiv_assertion_set_handler([](bool cond, const std::string&, const std::string&, const std::string&, int) {
        if (!cond) failed_checks.fetch_add(1, std::memory_order_relaxed);
    });
    sqlite3_hard_heap_limit64(256 << 20);
    kiv_database_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    budget = 20000;
    session(data, size).run();
    return 0;
}
