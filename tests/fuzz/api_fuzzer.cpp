// libFuzzer target: the input is a sequence of API calls on two in-memory objects (two slots, so
// that namesakes meet in the registry). Any crash, sanitizer report or leak is a finding, and so
// is an object still alive once the input has destroyed it and the worker ran.
// Each call is an opcode byte, code + 22 * (slot + 2 * variant), and its operands; a text is a
// length byte (255: a 16-bit length follows) and the bytes. A short input ends the sequence.

#include <algorithm>
#include <cstring>
#include <deque>
#include <future>
#include <iostream>

#include <boost/weak_ptr.hpp>

#include "framework/kiv_assertion.h"
#include "kiv_database/database_service.h"
#include "kiv_database/kiv_sqlite.h"

namespace {

int budget;  // bounded work per input for fuzzed SQL
volatile long sink;

void wait_for_worker() {  // a worker that never gets here is a hang: libFuzzer's -timeout reports it
    auto done = std::make_shared<std::promise<void>>();
    kiv_database_exec([done] { done->set_value(); }, __FILE__, __LINE__);
    done->get_future().wait();
}

struct session {
    const uint8_t* at;
    std::size_t left;
    kiv_sqlite_handle slots[2];
    std::deque<std::string> kept;
    std::vector<boost::weak_ptr<_kiv_sqlite>> made;

    template <class T>
    T value() {
        T v{};
        const std::size_t n = std::min(left, sizeof v);
        std::memcpy(&v, at, n);
        return at += n, left -= n, v;
    }
    int index() { return value<int8_t>() % 8; }  // 0, negatives and past the end too
    std::string text() {
        std::size_t n = value<uint8_t>();
        n = std::min<std::size_t>(left, n == 255 ? value<uint16_t>() : n);
        return at += n, left -= n, std::string(reinterpret_cast<const char*>(at - n), n);
    }
    const unsigned char* kept_bytes(std::size_t& size) {  // bound without a copy: live until the input ends
        return size = kept.emplace_back(text()).size(), reinterpret_cast<const unsigned char*>(kept.back().data());
    }

    void one_op() {
        const uint8_t op = value<uint8_t>();
        const int code = op % 22, variant = op / 44;
        kiv_sqlite_handle& c = slots[op / 22 % 2];  // an empty slot exercises the empty-handle path
        std::size_t size = 0;
        char* message = nullptr;
        switch (code) {
            case 0: if (!c) made.push_back(c = kiv_sqlite_new(":memory:", std::string(1, 'a' + value<uint8_t>() % 2))); break;
            case 1:
            case 2:  // opening an open object strands its first connection, as documented
                if (!kiv_sqlite_is_opened(c) && (code == 1 ? kiv_sqlite_open(c) : kiv_sqlite_try_open(c)) == SQLITE_OK) {
                    sqlite3_progress_handler(c->db, 100, [](void*) { return int(--budget < 0); }, nullptr);
                    sqlite3_limit(c->db, SQLITE_LIMIT_LENGTH, 1 << 20);
                    sqlite3_limit(c->db, SQLITE_LIMIT_ATTACHED, 0);  // no files
                }
                break;
            case 3: kiv_sqlite_close(c); break;
            case 4: sink = sink + kiv_sqlite_prepare(c, text()); break;
            case 5: sink = sink + kiv_sqlite_sql_stmt(c, text().c_str(), variant & 1 ? &message : nullptr), kiv_sqlite_free(c, message); break;
            case 6: sink = sink + kiv_sqlite_reset(c); break;
            case 7: kiv_sqlite_finalize(c); break;
            case 8: sink = sink + kiv_sqlite_step(c); break;
            case 9: {  // mode: bit 0 the overload with a counter, bit 3 stop by exception, bits 4-7 the row to stop at
                const uint8_t mode = value<uint8_t>();
                unsigned long counter = 0;
                const auto callback = [mode](kiv_sqlite_handle, unsigned long row) { return row < (mode >> 4) || (mode & 8 ? throw mode : false); };
                try {
                    sink = sink + (mode & 1 ? kiv_sqlite_rows_each(c, counter, callback) : kiv_sqlite_rows_each(c, callback)) + counter;
                } catch (uint8_t) {
                }
                break;
            }
            case 10: sink = sink + kiv_sqlite_bind_int(c, index(), value<int>()); break;
            case 11: sink = sink + kiv_sqlite_bind_int64(c, index(), value<long long>()); break;
            case 12: sink = sink + kiv_sqlite_bind_double(c, index(), value<double>()); break;
            case 13: sink = sink + kiv_sqlite_bind_blob(c, index(), kept_bytes(size), size); break;
            case 14: sink = sink + kiv_sqlite_bind_blob_static(c, index(), kept_bytes(size), size); break;
            case 15: sink = sink + kiv_sqlite_bind_text(c, index(), reinterpret_cast<const char*>(kept_bytes(size)), size); break;
            case 16: sink = sink + kiv_sqlite_bind_text_static(c, index(), reinterpret_cast<const char*>(kept_bytes(size)), size); break;
            case 17:
                sink = sink + kiv_sqlite_bind_parameter_count(c) + (kiv_sqlite_bind_parameter_name(c, index()) != nullptr) +
                       kiv_sqlite_bind_parameter_index(c, text().c_str()) + (variant & 1 ? kiv_sqlite_bind_clear(c) : 0);
                break;
            case 18: {
                const int column = index();
                unsigned char* blob = nullptr;
                int bytes = 0;
                kiv_sqlite_column_blob(c, column, blob, bytes);
                sink = sink + (bytes > 0 ? blob[bytes - 1] : 0) + kiv_sqlite_column_text(c, column).size() + kiv_sqlite_column_int64(c, column) +
                       (kiv_sqlite_column_double(c, column) == 0) + kiv_sqlite_column_type(c, column) + kiv_sqlite_is_column_blob(c, column) +
                       (kiv_sqlite_column_decltype(c, column) != nullptr) + (kiv_sqlite_column_name(c, column) != nullptr);
                std::free(blob);
                break;
            }
            case 19:
                sink = sink + kiv_sqlite_data_count(c) + kiv_sqlite_column_count(c) + kiv_sqlite_last_insert_rowid(c) +
                       kiv_sqlite_affected_rows_count(c) + kiv_sqlite_last_error_code(c) + (kiv_sqlite_last_error_message(c) != nullptr) +
                       (kiv_sqlite_errstr(c, value<int>()) != nullptr) + (kiv_sqlite_sql(c) != nullptr);
                break;
            case 20:
                sink = sink + (kiv_database_get_sqlite(std::string(1, 'a' + variant % 3)) == slots[0]) +
                       (kiv_sqlite_from_object(kiv_sqlite_to_object(c)) == c) + kiv_sqlite_get_name(c).size();
                break;
            case 21:
                kiv_sqlite_destroy(c, __FILE__, __LINE__);
                if (variant & 1) kiv_sqlite_destroy(c, __FILE__, __LINE__);  // only warns
                sink = sink + kiv_sqlite_get_name(c).size() + kiv_sqlite_is_opened(c);  // readable while the worker closes it
                c.reset();
                break;
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::cout.setstate(std::ios::badbit);  // misuse warns: the console stays quiet
    kiv_assertion_set_handler([](bool, const std::string&, const std::string&, const std::string&, int) {});
    sqlite3_hard_heap_limit64(256 << 20);
    kiv_database_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    budget = 20000;
    session s{data, size, {}, {}, {}};
    for (int ops = 0; ops < 200 && s.left > 0; ++ops) s.one_op();
    for (kiv_sqlite_handle& c : s.slots)
        if (c) kiv_sqlite_destroy(c, __FILE__, __LINE__);
    s.slots[0].reset(), s.slots[1].reset();
    wait_for_worker();
    wait_for_worker();  // the worker may hold a finished batch's jobs until the next one
    for (const boost::weak_ptr<_kiv_sqlite>& object : s.made)
        if (!object.expired()) std::cerr << "an object outlived its destroy\n", std::abort();
    if (kiv_object_reffed_count() != 0) std::cerr << "the framework still holds a reference\n", std::abort();
    return 0;
}
