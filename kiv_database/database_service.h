#pragma once

// The process-wide "database" thread service, the live-object list and the registry of open
// connections by name.
//
// kiv_database_init creates the service once (again after it has finished, with any earlier
// join request still standing: the new service stops whenever the live-object list empties).
// A join is the end of a session: init while a join is under way starts nothing; wait for the
// service to finish before the next init.
// The scheduling functions forward to the framework's thread service with the current service
// handle, an empty one before init and after the service has finished; what the thread service
// then does (our framework warns), the unit of delays and intervals (milliseconds in our
// framework) and the meaning of run_once's result are the framework's.
// Shutdown: when the framework joins the service, it stops at once if no connection object is
// alive, otherwise when the last one has been destroyed.
// Threads: every function here may be called from any thread, also from inside a job or timer.
// Ownership of jobs and callbacks: the thread service and the library share the function handed
// in. Whether it runs, is cleared or is refused (before init, after the service finished), and
// whenever the framework releases it (on its worker, or inside the call that cleared or refused
// it), it dies outside the library's lock, so what it holds may call back into the library
// when it goes (a guard whose destructor calls kiv_sqlite_destroy).
// Unloading: the library stays mapped after dlclose (linked with -z nodelete), so it may be
// unloaded in any state: the service running, objects still open. Loading it again finds the
// same state (a running service, a finished one that init starts anew).
// Exit: with or without a join, a service still running is stopped and its finish awaited
// (not when exit is called from one of its jobs), so destroy jobs already posted complete.
// Objects never destroyed are closed when their last owner lets go (the framework's reference
// is the framework's to release). Exiting from one thread while another still calls the
// library is not supported.
// Fork: a child starts as if the library had just been loaded: no service, no objects, no
// registry entries. The parent's objects are left to the parent: a handle to one that the child
// still holds is unusable there (SQLite forbids using a connection across a fork).

#include <boost/shared_ptr.hpp>

#include <functional>
#include <string>

#include "framework/kiv_object.h"
#include "kiv_database/kiv_export.h"

class _kiv_sqlite;

KIV_DATABASE_API void kiv_database_init();

// Work on the database worker. `file`/`line` name the caller; delays in the framework's unit.
KIV_DATABASE_API void kiv_database_exec(std::function<void()> job, std::string file, int line);
KIV_DATABASE_API unsigned long kiv_database_set_timeout(std::function<void()> job, unsigned long delay,
                                                        std::string file, int line);
KIV_DATABASE_API unsigned long kiv_database_set_interval(std::function<bool()> callback,
                                                         unsigned long interval, std::string file,
                                                         int line);
KIV_DATABASE_API void kiv_database_clear_timeout(unsigned long timer_id);
KIV_DATABASE_API void kiv_database_clear_interval(unsigned long timer_id);
// The thread service's run_once (due work on the calling thread), its result unchanged.
KIV_DATABASE_API int kiv_database_run_once();

// The open connection registered under `name`, its statement finalized; empty if none, and
// empty for one already handed to kiv_sqlite_destroy when the framework's base object records
// that ("object-destroyed"); its job on the worker closes it either way.
// Safe from any thread, also racing other lookups of the same name or the connection's destroy
// job: the statement is released once. The statement is not the caller's to keep: do not look
// up a connection whose owner is still using it on another thread.
KIV_DATABASE_API boost::shared_ptr<_kiv_sqlite> kiv_database_get_sqlite(std::string name);

// --- Internal to the library ---
// Live-object list: enter once; remove, print the count left, stop when shutdown is pending.
KIV_DATABASE_LOCAL void kiv_database_ref(boost::shared_ptr<_kiv_object> object);
KIV_DATABASE_LOCAL void kiv_database_unref(boost::shared_ptr<_kiv_object> object);
// Registry: enter under the name if it is free; remove whatever is under the name.
KIV_DATABASE_LOCAL void kiv_database_register_sqlite(boost::shared_ptr<_kiv_sqlite> connection);
KIV_DATABASE_LOCAL void kiv_database_unregister_sqlite(boost::shared_ptr<_kiv_sqlite> connection);
// Finalizes the connection's statement under the registry's lock (lookups and the destroy job).
KIV_DATABASE_LOCAL void kiv_database_release_statement(_kiv_sqlite& connection);
