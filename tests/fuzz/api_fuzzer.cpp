// libFuzzer target: the input is a sequence of API calls on two in-memory objects (two slots, so
// that namesakes meet in the registry). Any crash, sanitizer report or leak is a finding, and so
// is an object still alive once the input has destroyed it and the worker ran.
// Each call is an opcode byte, code + 22 * (slot + 2 * variant), and its operands; a text is a
// length byte (255: a 16-bit length follows) and the bytes. A short input ends the sequence.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <future>
#include <iostream>
#include <vector>

#include <boost/weak_ptr.hpp>

#include "framework/kiv_assertion.h"
#include "kiv_database/database_service.h"
#include "kiv_database/kiv_sqlite.h"

namespace {

struct input {
    const std::uint8_t* at;
    std::size_t left;
    template <class T>
    T value() {
        T v{};
        const std::size_t n = std::min(left, sizeof v);
        std::memcpy(&v, at, n);
        at += n, left -= n;
        return v;
    }
    std::uint8_t byte() { return value<std::uint8_t>(); }
    int index() { return static_cast<std::int8_t>(byte()) % 8; }  // 0, negatives and past the end too
    std::string text() {
        std::size_t n = byte();
        n = std::min<std::size_t>(n == 255 ? value<std::uint16_t>() : n, left);
        std::string s(reinterpret_cast<const char*>(at), n);
        at += n, left -= n;
        return s;
    }
};

struct quiet : std::streambuf {  // misuse warns: the console stays quiet
    int_type overflow(int_type c) override { return traits_type::not_eof(c); }
};

int budget;  // bounded work per input for fuzzed SQL
volatile long sink;
struct stop_rows {};

void wait_for_worker() {  // a worker that never gets here is a hang: libFuzzer's -timeout reports it
    auto done = std::make_shared<std::promise<void>>();
    kiv_database_exec([done] { done->set_value(); }, __FILE__, __LINE__);
    done->get_future().wait();
}

struct session {
    input in{};
    int ops = 0, iterating[2] = {0, 0};
    kiv_sqlite_handle slots[2];
    std::deque<std::string> kept;  // bytes bound without a copy live until the input ends
    std::vector<boost::weak_ptr<_kiv_sqlite>> made;

    void one_op(int depth) {
        ++ops;
        const std::uint8_t op = in.byte();
        const int code = op % 22, slot = op / 22 % 2, variant = op / 44;
        kiv_sqlite_handle& c = slots[slot];  // an empty slot exercises the empty-handle path
        switch (code) {
            case 0: if (!c) made.push_back(c = kiv_sqlite_new(":memory:", std::string(1, 'a' + in.byte() % 2))); break;
            case 1:
            case 2:  // opening an open object strands its first connection, as documented
                if (!kiv_sqlite_is_opened(c) && (code == 1 ? kiv_sqlite_open(c) : kiv_sqlite_try_open(c)) == SQLITE_OK) {
                    sqlite3_progress_handler(c->db, 100, [](void*) { return int(--budget < 0); }, nullptr);
                    sqlite3_limit(c->db, SQLITE_LIMIT_LENGTH, 1 << 20);
                    sqlite3_limit(c->db, SQLITE_LIMIT_ATTACHED, 0);  // no files
                }
                break;
            case 3: kiv_sqlite_close(c); break;
            case 4: sink = sink + kiv_sqlite_prepare(c, in.text()); break;
            case 5: {
                char* message = nullptr;
                sink = sink + kiv_sqlite_sql_stmt(c, in.text().c_str(), variant & 1 ? &message : nullptr);
                kiv_sqlite_free(c, message);
                break;
            }
            case 6: sink = sink + kiv_sqlite_reset(c); break;
            case 7: kiv_sqlite_finalize(c); break;
            case 8: sink = sink + kiv_sqlite_step(c); break;
            case 9: rows_each(c, slot, depth); break;
            case 10: sink = sink + kiv_sqlite_bind_int(c, in.index(), in.value<int>()); break;
            case 11: sink = sink + kiv_sqlite_bind_int64(c, in.index(), in.value<long long>()); break;
            case 12: sink = sink + kiv_sqlite_bind_double(c, in.index(), in.value<double>()); break;
            case 13: case 14: case 15: case 16: {
                const int index = in.index();
                const std::string& bytes = kept.emplace_back(in.text());
                const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
                if (code == 13) sink = sink + kiv_sqlite_bind_blob(c, index, data, bytes.size());
                if (code == 14) sink = sink + kiv_sqlite_bind_blob_static(c, index, data, bytes.size());
                if (code == 15) sink = sink + kiv_sqlite_bind_text(c, index, bytes.data(), bytes.size());
                if (code == 16) sink = sink + kiv_sqlite_bind_text_static(c, index, bytes.data(), bytes.size());
                break;
            }
            case 17:
                sink = sink + kiv_sqlite_bind_parameter_count(c) + (kiv_sqlite_bind_parameter_name(c, in.index()) != nullptr) +
                       kiv_sqlite_bind_parameter_index(c, in.text().c_str()) + (variant & 1 ? kiv_sqlite_bind_clear(c) : 0);
                break;
            case 18: {
                const int column = in.index();
                unsigned char* blob = nullptr;
                int size = 0;
                kiv_sqlite_column_blob(c, column, blob, size);
                sink = sink + (size > 0 ? blob[size - 1] : 0) + kiv_sqlite_column_text(c, column).size() +
                       kiv_sqlite_column_int64(c, column) + (kiv_sqlite_column_double(c, column) == 0) + kiv_sqlite_column_type(c, column) +
                       (kiv_sqlite_column_decltype(c, column) != nullptr) + (kiv_sqlite_column_name(c, column) != nullptr);
                std::free(blob);
                break;
            }
            case 19:
                sink = sink + kiv_sqlite_data_count(c) + kiv_sqlite_column_count(c) + kiv_sqlite_last_insert_rowid(c) +
                       kiv_sqlite_affected_rows_count(c) + kiv_sqlite_last_error_code(c) + (kiv_sqlite_last_error_message(c) != nullptr) +
                       (kiv_sqlite_errstr(c, in.value<int>()) != nullptr) + (kiv_sqlite_sql(c) != nullptr);
                break;
            case 20: {
                const kiv_sqlite_handle found = kiv_database_get_sqlite(std::string(1, 'a' + variant % 3));
                sink = sink + (found == slots[0]) + (kiv_sqlite_from_object(kiv_sqlite_to_object(c)) == c) + kiv_sqlite_get_name(c).size();
                break;
            }
            case 21:  // a row callback destroying its own object is the caller's misuse
                if (iterating[slot] > 0) break;
                kiv_sqlite_destroy(c, __FILE__, __LINE__);
                if (variant & 1) kiv_sqlite_destroy(c, __FILE__, __LINE__);  // only warns
                sink = sink + kiv_sqlite_get_name(c).size() + kiv_sqlite_is_opened(c);
                c.reset();
                break;
        }
    }

    // Mode byte: bit 0 the overload with a counter, bits 1-2 the calls per row (nested up to two
    // levels), bit 3 stop by exception, bits 4-7 the row to stop at (15: never).
    void rows_each(const kiv_sqlite_handle& c, int slot, int depth) {
        const std::uint8_t mode = in.byte();
        const int calls = depth < 2 ? (mode >> 1) & 3 : 0;
        const auto callback = [&](kiv_sqlite_handle, unsigned long index) {
            for (int i = 0; i < calls && ops < 200 && in.left > 0; ++i) one_op(depth + 1);
            if ((mode >> 4) == 15 || index < (mode >> 4)) return true;
            if (mode & 8) throw stop_rows{};
            return false;
        };
        unsigned long counter = 0;
        ++iterating[slot];
        try {
            sink = sink + (mode & 1 ? kiv_sqlite_rows_each(c, counter, callback) : kiv_sqlite_rows_each(c, callback)) + counter;
        } catch (const stop_rows&) {
        }
        --iterating[slot];
    }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static quiet nothing;
    std::cout.rdbuf(&nothing);
    kiv_assertion_set_handler([](bool, const std::string&, const std::string&, const std::string&, int) {});
    sqlite3_hard_heap_limit64(256 << 20);
    kiv_database_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    budget = 20000;
    session s;
    s.in = {data, size};
    while (s.ops < 200 && s.in.left > 0) s.one_op(0);
    for (kiv_sqlite_handle& c : s.slots)
        if (c) kiv_sqlite_destroy(c, __FILE__, __LINE__), c.reset();
    wait_for_worker();
    wait_for_worker();  // the worker may hold a finished batch's jobs until the next one
    for (const boost::weak_ptr<_kiv_sqlite>& made : s.made)
        if (!made.expired()) std::cerr << "an object outlived its destroy\n", std::abort();
    if (kiv_object_reffed_count() != 0) std::cerr << "the framework still holds a reference\n", std::abort();
    return 0;
}
