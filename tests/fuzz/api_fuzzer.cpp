// libFuzzer target: the input is a sequence of API calls on two in-memory objects (two slots, so
// that namesakes meet in the registry). Any crash, sanitizer report or leak is a finding, and so
// is an object still alive once the input has destroyed it and the worker ran.
// Each call is an opcode byte, kind + 12 * (slot + 2 * variant), and its operands; a text is a
// length byte and the bytes. A short input ends the sequence.
// Single calls on empty, unopened and closed handles are frame_test's; here they meet in sequences.

#include <algorithm>
#include <future>
#include <iostream>

#include <boost/weak_ptr.hpp>

#include "framework/kiv_assertion.h"
#include "kiv_database/database_service.h"
#include "kiv_database/kiv_sqlite.h"

namespace {

int budget, depth;  // bounded work per input for fuzzed SQL; row callbacks running calls, nested
volatile long sink;

struct session {
    const uint8_t* at;
    std::size_t left;
    kiv_sqlite_handle slots[2];
    std::vector<boost::weak_ptr<_kiv_sqlite>> made;

    template <class T>
    T value() {
        T v{};  // past the end, zero bytes
        for (std::size_t i = 0; i < sizeof v && left > 0; ++i, --left) reinterpret_cast<uint8_t*>(&v)[i] = *at++;
        return v;
    }
    // The bytes in place: the input outlives every statement bound to them. Clang evaluates call
    // arguments left to right, so `f(text(n), n)` passes the new size.
    const char* text(std::size_t& size) {
        size = std::min<std::size_t>(left, value<uint8_t>());
        return at += size, left -= size, reinterpret_cast<const char*>(at - size);
    }

    void one_op() {
        const uint8_t op = value<uint8_t>();
        int kind = op % 12, variant = op / 24, size = 0;  // size: a column's bytes
        kiv_sqlite_handle& c = slots[op / 12 % 2];  // an empty slot exercises the empty-handle path
        // Parameter and column indexes come as value<int8_t>() % 8: 0, negatives and past the end too.
        std::size_t n = 0;
        char* message = nullptr;
        unsigned char* blob = nullptr;
        switch (kind) {
            case 0: if (!c) made.push_back(c = kiv_sqlite_new(":memory:", std::string(1, 'a' + variant % 2))); break;
            case 1:  // opening an open object strands its first connection, as documented
                if (!kiv_sqlite_is_opened(c) && (variant & 1 ? kiv_sqlite_try_open(c) : kiv_sqlite_open(c)) == SQLITE_OK) {
                    sqlite3_progress_handler(c->db, 100, [](void*) { return int(--budget < 0); }, nullptr);
                    sqlite3_limit(c->db, SQLITE_LIMIT_ATTACHED, 0);  // no files
                }
                break;
            case 2: variant & 1 ? kiv_sqlite_finalize(c) : kiv_sqlite_close(c); break;
            case 3:
                sink = sink + (variant & 1 ? kiv_sqlite_prepare(c, std::string(text(n), n))
                                           : kiv_sqlite_sql_stmt(c, std::string(text(n), n).c_str(), variant & 2 ? &message : nullptr)),
                    kiv_sqlite_free(c, message);
                break;
            case 4: sink = sink + (variant & 1 ? kiv_sqlite_reset(c) : kiv_sqlite_step(c)); break;
            case 5: {  // mode: bit 0 the overload with a counter, bit 1 stop by throwing, bit 2 re-enter per row, bits 4-7 the last row
                const uint8_t mode = value<uint8_t>();
                const auto callback = [this, mode](kiv_sqlite_handle, unsigned long row) {
                    const int next = left ? *at % 12 : 0;  // not one ending the object's statement: that is misuse
                    if (mode & 4 && depth < 2 && next >= 4 && next != 11) ++depth, one_op(), --depth;
                    return row < unsigned(mode >> 4) || (mode & 2 ? throw row : false);
                };
                try {
                    sink = sink + (mode & 1 ? kiv_sqlite_rows_each(c, n, callback) : kiv_sqlite_rows_each(c, callback)) + n;
                } catch (unsigned long) {
                }
                break;
            }
            case 6: sink = sink + (variant & 1 ? kiv_sqlite_bind_int64(c, value<int8_t>() % 8, value<long long>()) : kiv_sqlite_bind_double(c, value<int8_t>() % 8, value<double>())); break;
            case 7: sink = sink + (variant & 1 ? kiv_sqlite_bind_blob : kiv_sqlite_bind_blob_static)(c, value<int8_t>() % 8, reinterpret_cast<const uint8_t*>(text(n)), n); break;
            case 8: sink = sink + (variant & 1 ? kiv_sqlite_bind_text : kiv_sqlite_bind_text_static)(c, value<int8_t>() % 8, text(n), n); break;
            case 9:  // the row's cell: a malloc'ed copy, the text and the type
                kiv_sqlite_column_blob(c, variant % 8 - 1, blob, size);
                sink = sink + (size > 0 ? blob[size - 1] : 0) + kiv_sqlite_column_text(c, variant % 8 - 1).size() + kiv_sqlite_column_type(c, variant % 8 - 1);
                std::free(blob);
                break;
            case 10:  // the name lookup meets namesakes; the object round trip
                sink = sink + (kiv_database_get_sqlite(std::string(1, 'a' + variant % 3)) == slots[0]) + (kiv_sqlite_from_object(kiv_sqlite_to_object(c)) == c);
                break;
            case 11:  // a second destroy only warns; the name stays readable while the worker closes the object
                for (int times = 0; times <= (variant & 1); ++times) kiv_sqlite_destroy(c, __FILE__, __LINE__);
                sink = sink + kiv_sqlite_get_name(c).size() + kiv_sqlite_is_opened(c), c.reset();
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
    session s{data, size, {}, {}};
    for (int ops = 0; ops < 200 && s.left > 0; ++ops) s.one_op();
    for (kiv_sqlite_handle& c : s.slots) kiv_sqlite_destroy(c, __FILE__, __LINE__), c.reset();  // an empty one only warns
    for (int batch = 0; batch < 2; ++batch) {  // the worker may hold a finished batch's jobs until the next one
        auto done = std::make_shared<std::promise<void>>();  // a worker that never gets here is a hang: -timeout reports it
        kiv_database_exec([done] { done->set_value(); }, __FILE__, __LINE__);
        done->get_future().wait();
    }
    if (kiv_object_reffed_count() != 0 || std::any_of(s.made.begin(), s.made.end(), [](const auto& object) { return !object.expired(); }))
        std::cerr << "an object outlived its destroy, or the framework still holds a reference\n", std::abort();
    return 0;
}
