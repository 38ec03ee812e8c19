#include "kiv_database/kiv_sqlite.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <type_traits>
#include <utility>

#include "framework/kiv_assertion.h"
#include "kiv_database/database_service.h"

namespace {

// The name under which this unit reports checks and its own console lines.
const char* const source_file = "kiv_database/kiv_sqlite";

const char* const warning_banner = "\x1b[1;35mKIV-SYSTEM**WARNING**\x1b[0;0m: ";
const char* const error_banner = "\x1b[1;31mKIV-SYSTEM**ERROR**\x1b[0;0m: ";

std::string coloured(std::string name) {
    name.insert(0, "\x1b[0;35m");
    name.append("\x1b[0;0m");
    return name;
}

[[gnu::cold, gnu::noinline]] void null_object_warning(const char* function) {
    std::cout << warning_banner << "null object supplied: " << coloured(function) << std::endl;
}

// What an exported function returns for an empty handle.
template <class R>
R empty_result() {
    if constexpr (std::is_same_v<R, bool>) {
        return false;
    } else if constexpr (std::is_arithmetic_v<R>) {
        return static_cast<R>(-1);
    } else {
        return R{};  // null pointer, empty string, empty handle
    }
}

// The frame of every exported connection function: an empty handle gets the warning naming
// `function` and the default of the result type, and nothing else is touched; otherwise the
// work runs on the object. The caller's handle keeps the object alive for the call.
template <class Work>
inline auto frame(const char* function, const boost::shared_ptr<_kiv_sqlite>& handle, Work&& work)
    -> decltype(work(*handle)) {
    using result = decltype(work(*handle));
    _kiv_sqlite* const object = handle.get();
    if (object == nullptr) {
        null_object_warning(function);
        return empty_result<result>();
    }
    return work(*object);
}

boost::shared_ptr<_kiv_sqlite> self_handle(_kiv_sqlite& object) {
    return boost::static_pointer_cast<_kiv_sqlite>(object.shared_from_this());
}

// Runs on the database worker: release the statement and the connection, give the framework
// reference back and leave the live-object list (which may complete a requested shutdown). If
// the close fails (an allocation for its check or the registry), the connection is released
// without them and the object still untracked, so that a shutdown never waits for it; the
// failure then reaches the thread service.
void run_destroy_job(const boost::shared_ptr<_kiv_sqlite>& object) {
    std::exception_ptr failure;
    try {
        if (object->is_opened()) {
            kiv_database_release_statement(*object);  // a lookup may be releasing it right now
            object->close();
        }
    } catch (...) {
        failure = std::current_exception();
        object->release_connection();
    }
    if (object->is_reffed()) kiv_object_unref_real(object);
    kiv_database_unref(boost::static_pointer_cast<_kiv_object>(object->shared_from_this()));
    if (failure) std::rethrow_exception(failure);
}

// The "object-destroyed" mark of the base object, if it holds a bool; written in place, so that
// setting or clearing it allocates nothing.
bool* destroyed_mark(std::map<std::string, boost::any>& properties) {
    const auto entry = properties.find("object-destroyed");
    return entry == properties.end() ? nullptr : boost::any_cast<bool>(&entry->second);
}

// Byte-block binders share the size rule: SQLite takes an int length, so larger sizes are
// refused instead of being truncated into a length that does not match the buffer.
template <class Bind, class Data>
int bind_sized(Bind bind, sqlite3_stmt* stmt, int index, const Data* data, unsigned long size,
               sqlite3_destructor_type ownership) {
    if (stmt == nullptr) return SQLITE_MISUSE;
    if (size > static_cast<unsigned long>(INT_MAX)) return SQLITE_TOOBIG;
    return bind(stmt, index, data, static_cast<int>(size), ownership);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Object model

_kiv_sqlite::_kiv_sqlite(std::string path_, std::string name_) : path(std::move(path_)), name(std::move(name_)) {}

_kiv_sqlite::~_kiv_sqlite() {
    finalize();
    if (!is_opened()) return;
    try {
        check_db(__LINE__);
    } catch (...) {  // the check's texts could not be allocated: the connection goes all the same
    }
    release_connection();
}

boost::shared_ptr<_kiv_object> _kiv_sqlite::shared_object() {
    return boost::static_pointer_cast<_kiv_object>(shared_from_this());
}

std::string _kiv_sqlite::type_tag() { return "[kiv_sqlite]"; }

std::string _kiv_sqlite::get_name() {
    std::lock_guard<std::mutex> guard(mutex);
    return name;
}

bool _kiv_sqlite::is_opened() {
    std::lock_guard<std::mutex> guard(mutex);
    return opened;
}

bool _kiv_sqlite::is_destroyed() {
    std::lock_guard<std::mutex> guard(mutex);
    boost::any mark;
    if (!kiv_property_get(properties, "object-destroyed", mark)) return false;
    const bool* const destroyed = boost::any_cast<bool>(&mark);
    return destroyed != nullptr && *destroyed;
}

void _kiv_sqlite::set_opened(bool value) {
    std::lock_guard<std::mutex> guard(mutex);
    opened = value;
}

void _kiv_sqlite::finalize() {
    if (stmt == nullptr) return;
    sqlite3* const owner = sqlite3_db_handle(stmt);
    sqlite3_finalize(stmt);
    stmt = nullptr;
    // A close made while the statement was held left its connection allocated for it (SQLite
    // refuses to close a connection with a live statement); with the statement gone, it can go.
    if (owner != db) sqlite3_close(owner);
}

// Each check reports the line on which its call stands. Forced inline: they sit on every per-row
// call, where a call frame of our own would show.
[[gnu::always_inline]] inline void _kiv_sqlite::check_db(int line) {
    kiv_assertion_faild(db != nullptr, "db!=nullptr", "database must be opened", source_file, line);
}

[[gnu::always_inline]] inline void _kiv_sqlite::check_no_db(int line) {
    kiv_assertion_faild(db == nullptr, "db==nullptr", "Trying to open already opened database object", source_file,
                        line);
}

[[gnu::always_inline]] inline void _kiv_sqlite::check_no_statement(int line) {
    kiv_assertion_faild(stmt == nullptr, "stmt==nullptr", "database statement must not be opened already", source_file,
                        line);
}

[[gnu::always_inline]] inline void _kiv_sqlite::check_statement(int line) {
    kiv_assertion_faild(stmt != nullptr, "stmt!=nullptr", "database statement must be opened", source_file, line);
}

// ---------------------------------------------------------------------------------------------
// Creation and naming

boost::shared_ptr<_kiv_sqlite> kiv_sqlite_new(std::string path, std::string name) {
    // The handle's constructor deletes the object if its ownership record cannot be allocated.
    boost::shared_ptr<_kiv_sqlite> handle(new _kiv_sqlite(std::move(path), std::move(name)));
    kiv_object_ref(handle);
    try {
        kiv_database_ref(handle);
    } catch (...) {  // no list entry: the framework's reference would keep the object for good
        kiv_object_unref_real(handle);
        throw;
    }
    return handle;
}

std::string kiv_sqlite_get_name(boost::shared_ptr<_kiv_sqlite> handle) {
    return frame(__func__, handle, [](_kiv_sqlite& o) { return o.get_name(); });
}

// ---------------------------------------------------------------------------------------------
// Opening and closing

int _kiv_sqlite::open() {
    check_no_db(__LINE__);
    return open_with(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
}

int _kiv_sqlite::try_open() {
    check_no_db(__LINE__);
    return open_with(SQLITE_OPEN_READWRITE);
}

int _kiv_sqlite::open_with(int flags) {
    const int rc = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
    if (rc != SQLITE_OK) {
        sqlite3_close(db);  // SQLite may hand out a connection even when it fails
        db = nullptr;
        return rc;
    }
    set_opened(true);
    kiv_database_register_sqlite(self_handle(*this));
    return SQLITE_OK;
}

void _kiv_sqlite::close() {
    check_db(__LINE__);
    release_connection();
    kiv_database_unregister_sqlite(self_handle(*this));
}

// No check and no allocation: for the destructor, and for a destroy job whose close failed.
void _kiv_sqlite::release_connection() {
    sqlite3_close(db);  // a null connection is a no-op
    db = nullptr;
    set_opened(false);
}

int kiv_sqlite_open(boost::shared_ptr<_kiv_sqlite> handle) {
    return frame(__func__, handle, [](_kiv_sqlite& o) { return o.open(); });
}

int kiv_sqlite_try_open(boost::shared_ptr<_kiv_sqlite> handle) {
    return frame(__func__, handle, [](_kiv_sqlite& o) { return o.try_open(); });
}

bool kiv_sqlite_close(boost::shared_ptr<_kiv_sqlite> handle) {
    return frame(__func__, handle, [](_kiv_sqlite& o) {
        o.close();
        return true;
    });
}

bool kiv_sqlite_is_opened(boost::shared_ptr<_kiv_sqlite> handle) {
    return frame(__func__, handle, [](_kiv_sqlite& o) { return o.is_opened(); });
}

// ---------------------------------------------------------------------------------------------
// Destruction

void _kiv_sqlite::destroy(std::string file, int line) {
    bool* mark = nullptr;  // set by this call, and cleared again if the job cannot be posted
    {
        const std::lock_guard<std::mutex> guard(mutex);
        boost::any destroyed;
        if (kiv_property_get(properties, "object-destroyed", destroyed)) {
            try {
                if (boost::any_cast<bool>(destroyed)) {
                    std::cout << warning_banner << "CALLING DESTROY MULTIPLE TIMES IS NOT AN OPTION "
                              << coloured(type_tag()) << "-" << file << ":" << line << std::endl;
                    describe();
                    return;
                }
            } catch (const boost::bad_any_cast& e) {
                std::cout << error_banner << "bad cast destroy any: " << source_file << ":" << __LINE__ << " - "
                          << e.what() << std::endl;
                return;
            }
            mark = destroyed_mark(properties);
            if (mark != nullptr) *mark = true;
        }
    }
    // Posted whether or not the object is open, so that every destroyed object leaves the
    // live-object list and a requested shutdown never waits on it.
    try {
        std::function<void()> job = [object = self_handle(*this)] { run_destroy_job(object); };
        kiv_database_exec_destroy_job(std::move(job), source_file, __LINE__);
    } catch (...) {  // no job: the object stays as it was, so that a later destroy works
        if (mark != nullptr) {
            const std::lock_guard<std::mutex> guard(mutex);
            *mark = false;
        }
        throw;
    }
}

bool kiv_sqlite_destroy(boost::shared_ptr<_kiv_sqlite> handle, std::string file, int line) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) {
        o.destroy(file, line);
        return true;
    });
}

// ---------------------------------------------------------------------------------------------
// Conversion to and from framework objects

bool kiv_is_sqlite(boost::shared_ptr<_kiv_object> object) {
    return dynamic_cast<_kiv_sqlite*>(object.get()) != nullptr;
}

boost::shared_ptr<_kiv_object> kiv_sqlite_to_object(boost::shared_ptr<_kiv_sqlite> handle) {
    return frame(__func__, handle, [](_kiv_sqlite& o) { return o.shared_object(); });
}

boost::shared_ptr<_kiv_sqlite> kiv_sqlite_from_object(boost::shared_ptr<_kiv_object> object) {
    if (object == nullptr) null_object_warning(__func__);
    if (!kiv_is_sqlite(object)) return {};
    // Built from the object's own ownership record, not from the handle passed in.
    return boost::static_pointer_cast<_kiv_sqlite>(object->shared_from_this());
}

// ---------------------------------------------------------------------------------------------
// Preparing and direct execution

int _kiv_sqlite::sql_stmt(const char* sql, char** errmsg) {
    if (db == nullptr) {
        if (errmsg != nullptr) *errmsg = nullptr;
        return SQLITE_MISUSE;
    }
    return sqlite3_exec(db, sql, nullptr, nullptr, errmsg);
}

int _kiv_sqlite::prepare(std::string sql) {
    check_db(__LINE__);
    check_no_statement(__LINE__);
    // A held statement is never replaced: it would leak.
    if (db == nullptr || stmt != nullptr) return SQLITE_MISUSE;
    return sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr);
}

int _kiv_sqlite::reset() { return stmt == nullptr ? SQLITE_OK : sqlite3_reset(stmt); }

const char* _kiv_sqlite::sql() {
    check_statement(__LINE__);
    return stmt == nullptr ? nullptr : sqlite3_sql(stmt);
}

int kiv_sqlite_sql_stmt(boost::shared_ptr<_kiv_sqlite> handle, const char* sql, char** errmsg) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.sql_stmt(sql, errmsg); });
}

int kiv_sqlite_prepare(boost::shared_ptr<_kiv_sqlite> handle, std::string sql) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.prepare(std::move(sql)); });
}

int kiv_sqlite_reset(boost::shared_ptr<_kiv_sqlite> handle) {
    return frame(__func__, handle, [](_kiv_sqlite& o) { return o.reset(); });
}

bool kiv_sqlite_finalize(boost::shared_ptr<_kiv_sqlite> handle) {
    return frame(__func__, handle, [](_kiv_sqlite& o) {
        o.finalize();
        return true;
    });
}

const char* kiv_sqlite_sql(boost::shared_ptr<_kiv_sqlite> handle) {
    return frame(__func__, handle, [](_kiv_sqlite& o) { return o.sql(); });
}

// ---------------------------------------------------------------------------------------------
// Binding

int _kiv_sqlite::bind_int(int index, int value) {
    check_statement(__LINE__);
    return stmt == nullptr ? SQLITE_MISUSE : sqlite3_bind_int(stmt, index, value);
}

int _kiv_sqlite::bind_int64(int index, long long value) {
    check_statement(__LINE__);
    return stmt == nullptr ? SQLITE_MISUSE : sqlite3_bind_int64(stmt, index, value);
}

int _kiv_sqlite::bind_double(int index, double value) {
    check_statement(__LINE__);
    return stmt == nullptr ? SQLITE_MISUSE : sqlite3_bind_double(stmt, index, value);
}

int _kiv_sqlite::bind_blob(int index, const unsigned char* data, unsigned long size) {
    check_statement(__LINE__);
    return bind_sized(sqlite3_bind_blob, stmt, index, data, size, SQLITE_TRANSIENT);
}

int _kiv_sqlite::bind_blob_static(int index, const unsigned char* data, unsigned long size) {
    check_statement(__LINE__);
    return bind_sized(sqlite3_bind_blob, stmt, index, data, size, SQLITE_STATIC);
}

int _kiv_sqlite::bind_text(int index, const char* text, unsigned long size) {
    check_statement(__LINE__);
    return bind_sized(sqlite3_bind_text, stmt, index, text, size, SQLITE_TRANSIENT);
}

int _kiv_sqlite::bind_text_static(int index, const char* text, unsigned long size) {
    check_statement(__LINE__);
    return bind_sized(sqlite3_bind_text, stmt, index, text, size, SQLITE_STATIC);
}

int _kiv_sqlite::bind_parameter_count() {
    check_statement(__LINE__);
    return stmt == nullptr ? 0 : sqlite3_bind_parameter_count(stmt);
}

const char* _kiv_sqlite::bind_parameter_name(int index) {
    check_statement(__LINE__);
    return stmt == nullptr ? nullptr : sqlite3_bind_parameter_name(stmt, index);
}

int _kiv_sqlite::bind_parameter_index(const char* parameter) {
    check_statement(__LINE__);
    return stmt == nullptr ? 0 : sqlite3_bind_parameter_index(stmt, parameter);
}

int _kiv_sqlite::bind_clear() {
    check_statement(__LINE__);
    return stmt == nullptr ? SQLITE_MISUSE : sqlite3_clear_bindings(stmt);
}

int kiv_sqlite_bind_int(boost::shared_ptr<_kiv_sqlite> handle, int index, int value) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.bind_int(index, value); });
}

int kiv_sqlite_bind_int64(boost::shared_ptr<_kiv_sqlite> handle, int index, long long value) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.bind_int64(index, value); });
}

int kiv_sqlite_bind_double(boost::shared_ptr<_kiv_sqlite> handle, int index, double value) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.bind_double(index, value); });
}

int kiv_sqlite_bind_blob(boost::shared_ptr<_kiv_sqlite> handle, int index, const unsigned char* data,
                         unsigned long size) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.bind_blob(index, data, size); });
}

int kiv_sqlite_bind_blob_static(boost::shared_ptr<_kiv_sqlite> handle, int index, const unsigned char* data,
                                unsigned long size) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.bind_blob_static(index, data, size); });
}

int kiv_sqlite_bind_text(boost::shared_ptr<_kiv_sqlite> handle, int index, const char* text, unsigned long size) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.bind_text(index, text, size); });
}

int kiv_sqlite_bind_text_static(boost::shared_ptr<_kiv_sqlite> handle, int index, const char* text,
                                unsigned long size) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.bind_text_static(index, text, size); });
}

int kiv_sqlite_bind_parameter_count(boost::shared_ptr<_kiv_sqlite> handle) {
    return frame(__func__, handle, [](_kiv_sqlite& o) { return o.bind_parameter_count(); });
}

const char* kiv_sqlite_bind_parameter_name(boost::shared_ptr<_kiv_sqlite> handle, int index) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.bind_parameter_name(index); });
}

int kiv_sqlite_bind_parameter_index(boost::shared_ptr<_kiv_sqlite> handle, const char* name) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.bind_parameter_index(name); });
}

int kiv_sqlite_bind_clear(boost::shared_ptr<_kiv_sqlite> handle) {
    return frame(__func__, handle, [](_kiv_sqlite& o) { return o.bind_clear(); });
}

// ---------------------------------------------------------------------------------------------
// Stepping and row iteration

int _kiv_sqlite::step() {
    check_db(__LINE__);
    check_statement(__LINE__);
    return stmt == nullptr ? SQLITE_MISUSE : sqlite3_step(stmt);
}

int _kiv_sqlite::data_count() {
    check_statement(__LINE__);
    return stmt == nullptr ? 0 : sqlite3_data_count(stmt);
}

int _kiv_sqlite::column_count() {
    check_statement(__LINE__);
    return stmt == nullptr ? 0 : sqlite3_column_count(stmt);
}

long long _kiv_sqlite::last_insert_rowid() {
    check_db(__LINE__);
    return db == nullptr ? 0 : sqlite3_last_insert_rowid(db);
}

int _kiv_sqlite::affected_rows_count() {
    check_db(__LINE__);
    return db == nullptr ? 0 : sqlite3_changes(db);
}

int _kiv_sqlite::rows_each(kiv_sqlite_row_callback callback) {
    unsigned long counter = 0;
    return rows_each(counter, std::move(callback));
}

// Goes on from wherever the statement stands; only an error exit resets it.
int _kiv_sqlite::rows_each(unsigned long& counter, kiv_sqlite_row_callback callback) {
    check_db(__LINE__);
    check_statement(__LINE__);
    counter = 0;
    for (int rc = step();; rc = step()) {
        if (rc != SQLITE_ROW && rc != SQLITE_DONE) return reset();
        if (rc == SQLITE_DONE) return rc;
        const unsigned long index = counter;
        counter = index + 1;
        // An empty callback throws std::bad_function_call here, with the row counted.
        if (!callback(self_handle(*this), index)) return rc;
    }
}

int kiv_sqlite_step(boost::shared_ptr<_kiv_sqlite> handle) {
    return frame(__func__, handle, [](_kiv_sqlite& o) { return o.step(); });
}

int kiv_sqlite_data_count(boost::shared_ptr<_kiv_sqlite> handle) {
    return frame(__func__, handle, [](_kiv_sqlite& o) { return o.data_count(); });
}

int kiv_sqlite_column_count(boost::shared_ptr<_kiv_sqlite> handle) {
    return frame(__func__, handle, [](_kiv_sqlite& o) { return o.column_count(); });
}

long long kiv_sqlite_last_insert_rowid(boost::shared_ptr<_kiv_sqlite> handle) {
    return frame(__func__, handle, [](_kiv_sqlite& o) { return o.last_insert_rowid(); });
}

int kiv_sqlite_affected_rows_count(boost::shared_ptr<_kiv_sqlite> handle) {
    return frame(__func__, handle, [](_kiv_sqlite& o) { return o.affected_rows_count(); });
}

int kiv_sqlite_rows_each(boost::shared_ptr<_kiv_sqlite> handle, kiv_sqlite_row_callback callback) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.rows_each(std::move(callback)); });
}

int kiv_sqlite_rows_each(boost::shared_ptr<_kiv_sqlite> handle, unsigned long& counter,
                         kiv_sqlite_row_callback callback) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.rows_each(counter, std::move(callback)); });
}

// ---------------------------------------------------------------------------------------------
// Column access

void _kiv_sqlite::column_blob(int column, unsigned char*& data, int& size) {
    check_statement(__LINE__);
    data = nullptr;
    size = 0;
    if (stmt == nullptr) return;
    // The byte count first: asking for it after the pointer could convert the value again.
    const int bytes = sqlite3_column_bytes(stmt, column);
    auto* const copy = static_cast<unsigned char*>(std::malloc(static_cast<std::size_t>(bytes)));
    if (copy == nullptr && bytes > 0) return;
    const void* const source = sqlite3_column_blob(stmt, column);
    if (bytes > 0) {
        if (source == nullptr) {  // SQLite ran out of memory converting the value
            std::free(copy);
            return;
        }
        std::memcpy(copy, source, static_cast<std::size_t>(bytes));
    }
    data = copy;
    size = bytes;
}

std::string _kiv_sqlite::column_text(int column) {
    check_statement(__LINE__);
    if (stmt == nullptr) return {};
    const unsigned char* const text = sqlite3_column_text(stmt, column);
    return text == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(text));
}

int _kiv_sqlite::column_int(int column) {
    check_statement(__LINE__);
    return stmt == nullptr ? 0 : sqlite3_column_int(stmt, column);
}

long long _kiv_sqlite::column_int64(int column) {
    check_statement(__LINE__);
    return stmt == nullptr ? 0 : sqlite3_column_int64(stmt, column);
}

double _kiv_sqlite::column_double(int column) {
    check_statement(__LINE__);
    return stmt == nullptr ? 0.0 : sqlite3_column_double(stmt, column);
}

int _kiv_sqlite::column_type(int column) {
    check_statement(__LINE__);
    return stmt == nullptr ? 0 : sqlite3_column_type(stmt, column);
}

const char* _kiv_sqlite::column_decltype(int column) {
    check_statement(__LINE__);
    return stmt == nullptr ? nullptr : sqlite3_column_decltype(stmt, column);
}

const char* _kiv_sqlite::column_name(int column) {
    check_statement(__LINE__);
    return stmt == nullptr ? nullptr : sqlite3_column_name(stmt, column);
}

bool kiv_sqlite_column_blob(boost::shared_ptr<_kiv_sqlite> handle, int column, unsigned char*& data, int& size) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) {
        o.column_blob(column, data, size);
        return true;
    });
}

std::string kiv_sqlite_column_text(boost::shared_ptr<_kiv_sqlite> handle, int column) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.column_text(column); });
}

int kiv_sqlite_column_int(boost::shared_ptr<_kiv_sqlite> handle, int column) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.column_int(column); });
}

long long kiv_sqlite_column_int64(boost::shared_ptr<_kiv_sqlite> handle, int column) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.column_int64(column); });
}

double kiv_sqlite_column_double(boost::shared_ptr<_kiv_sqlite> handle, int column) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.column_double(column); });
}

int kiv_sqlite_column_type(boost::shared_ptr<_kiv_sqlite> handle, int column) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.column_type(column); });
}

const char* kiv_sqlite_column_decltype(boost::shared_ptr<_kiv_sqlite> handle, int column) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.column_decltype(column); });
}

const char* kiv_sqlite_column_name(boost::shared_ptr<_kiv_sqlite> handle, int column) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.column_name(column); });
}

bool kiv_sqlite_is_column_null(boost::shared_ptr<_kiv_sqlite> handle, int column) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.column_type(column) == SQLITE_NULL; });
}

bool kiv_sqlite_is_column_text(boost::shared_ptr<_kiv_sqlite> handle, int column) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.column_type(column) == SQLITE_TEXT; });
}

bool kiv_sqlite_is_column_blob(boost::shared_ptr<_kiv_sqlite> handle, int column) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.column_type(column) == SQLITE_BLOB; });
}

bool kiv_sqlite_is_column_int(boost::shared_ptr<_kiv_sqlite> handle, int column) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.column_type(column) == SQLITE_INTEGER; });
}

bool kiv_sqlite_is_column_double(boost::shared_ptr<_kiv_sqlite> handle, int column) {
    return frame(__func__, handle, [&](_kiv_sqlite& o) { return o.column_type(column) == SQLITE_FLOAT; });
}

// ---------------------------------------------------------------------------------------------
// Errors and SQLite memory

int _kiv_sqlite::last_error_code() {
    check_db(__LINE__);
    return db == nullptr ? SQLITE_MISUSE : sqlite3_errcode(db);
}

const char* _kiv_sqlite::last_error_message() {
    check_db(__LINE__);
    return db == nullptr ? sqlite3_errstr(SQLITE_MISUSE) : sqlite3_errmsg(db);
}

int kiv_sqlite_last_error_code(boost::shared_ptr<_kiv_sqlite> handle) {
    return frame(__func__, handle, [](_kiv_sqlite& o) { return o.last_error_code(); });
}

const char* kiv_sqlite_last_error_message(boost::shared_ptr<_kiv_sqlite> handle) {
    return frame(__func__, handle, [](_kiv_sqlite& o) { return o.last_error_message(); });
}

const char* kiv_sqlite_errstr(boost::shared_ptr<_kiv_sqlite> handle, int code) {
    return frame(__func__, handle, [code](_kiv_sqlite&) -> const char* {
        if (code == KIV_SQLITE_MISSING_BIND_PARAMETERS) return "Prepared statement missing bind parameters";
        return sqlite3_errstr(code);
    });
}

bool kiv_sqlite_free(boost::shared_ptr<_kiv_sqlite> handle, char*& memory) {
    return frame(__func__, handle, [&](_kiv_sqlite&) {
        sqlite3_free(memory);
        memory = nullptr;
        return true;
    });
}
