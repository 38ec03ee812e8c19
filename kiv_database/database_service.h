#pragma once

/// \file
/// The process-wide "database" thread service, on which database work runs on one worker thread.
///
/// The library keeps one service per process, created by kiv_database_init, with a list of the
/// connection objects that are alive and a registry of the open connections by name.
///
/// **Shutdown.** When the framework joins the service, the library prints
/// "DATABASE SERVICE SHOT DONW REQUEST" and stops the service at once if no connection object
/// is alive, otherwise when the last one has been destroyed (each removal prints
/// "left objects in database reference count: N"). Once stopped it prints
/// "DATABASE THREAD SERVICE STOPPED" and, when the service has finished, "DATABASE SERVICE DONE".
/// A join is the end of a session: kiv_database_init while a join is under way starts nothing,
/// so wait for the service to finish before the next init.
///
/// **The framework's part.** The scheduling functions forward to the framework's thread service
/// with the current service handle, an empty one before init and after the service has
/// finished. What the thread service then does (the stand-in warns), the unit of delays and
/// intervals (milliseconds in the stand-in) and the meaning of run_once's result are the
/// framework's, not this library's.
///
/// **Threads.** Every function here may be called from any thread, also from inside a job or a
/// timer. SQLite must run in its multi-thread or serialized mode: destroy jobs close connections
/// on the worker while callers open others.
///
/// **Jobs and what they hold.** The thread service and the library share the function handed in.
/// Whether it runs, is cleared or is refused (before init, after the service finished), and
/// wherever the framework releases it (on its worker, or inside the call that cleared or refused
/// it), it dies outside the library's lock, so what it holds may call back into the library
/// when it goes (a guard whose destructor calls kiv_sqlite_destroy).
///
/// **Console.** The service's lines go to `std::cout`, which is the library's console: its stream
/// buffer must not call back into the library (some lines are written under the library's lock)
/// and must not throw.
///
/// **Exit.** exit() may be called from any thread (the worker and a job included), with or
/// without a join, on a framework core with a worker thread or with none: the library never waits
/// for the framework. It waits only for its own work that is running on other threads to return,
/// then runs on the exiting thread, in order, the jobs handed to kiv_database_exec that have not
/// started (and the destroy jobs they queue), so that work queued before exit still runs and its
/// commits land, also on a core that runs work only inside run_once. From then on the library's
/// work runs on no other thread; timeouts and intervals not yet due do not run. The library does
/// not stop the service at exit and prints nothing of its own; a finish that the framework brings
/// about at exit without the shutdown handshake prints nothing either. Objects never destroyed
/// are not closed: their connections end with the process (SQLite rolls back an unfinished
/// transaction and recovers a write-ahead log at the next open).
///
/// **State.** The library's process-wide state (the service handle, the live-object list, the
/// registry and their locks) is made at load and never destroyed: a framework may run work late
/// in exit or after an unload, and that work must never meet destroyed state. What it still holds
/// at exit goes with the process.
///
/// **fork().** A child starts as if the library had just been loaded: no service, no objects,
/// no registry entries. The parent's objects are left to the parent: a handle to one that the
/// child still holds is unusable there (SQLite forbids using a connection across a fork). A child
/// forked while another thread is inside SQLite may find SQLite's own locks held: fork before
/// other threads use SQLite, or while they are quiet.
///
/// **Unloading.** The library stays mapped after dlclose (it is linked with `-z nodelete`), so it
/// may be unloaded in any state: the service running, objects still open. Loading it again finds
/// the same state (a running service, a finished one that init starts anew).

#include <boost/shared_ptr.hpp>

#include <functional>
#include <string>

#include "framework/kiv_object.h"
#include "kiv_database/kiv_export.h"

class _kiv_sqlite;
/// Handle of a connection object, declared as in kiv_sqlite.h so that this header stands alone.
using kiv_sqlite_handle = boost::shared_ptr<_kiv_sqlite>;

/// Creates the "database" thread service unless it exists.
///
/// Does nothing while a service exists, including one that is shutting down. After the service
/// has finished it creates a new one, with the earlier join request still standing: the new
/// service stops whenever the list of live objects empties. Installs the library's join and
/// finish handlers on the service. Prints nothing.
/// \par Returns
/// Nothing: whether a service was created is not reported.
/// \par Threads
/// Any thread.
KIV_DATABASE_API void kiv_database_init();

/// Runs `job` once on the database worker.
///
/// Forwards to the framework's kiv_thread_service_exec with the current service (empty before
/// init and after the service has finished: what happens to the job then is the framework's).
/// \param job  the work; shared with the thread service (see the file's notes on what it holds).
///             An exception it throws is the framework's to report.
/// \param file, line  the caller's source position, which the framework uses in its messages.
/// \par Returns
/// Nothing: a job refused for want of a service is the framework's to report
/// (the stand-in warns).
/// \par Threads
/// Any thread, also from a job or a timer.
KIV_DATABASE_API void kiv_database_exec(std::function<void()> job, std::string file, int line);

/// Runs `job` once on the database worker after `delay`.
///
/// Forwards to the framework's kiv_thread_service_set_timeout with the current service (empty
/// before init and after the service has finished: what the framework does then, and its result).
/// The unit of `delay` is the framework's (the stand-in: milliseconds).
/// \return the framework's timer id, unchanged, for kiv_database_clear_timeout.
/// \par Threads
/// Any thread, also from a job or a timer.
KIV_DATABASE_API unsigned long kiv_database_set_timeout(std::function<void()> job, unsigned long delay,
                                                        std::string file, int line);

/// Runs `callback` on the database worker once per `interval`.
///
/// Forwards to the framework's kiv_thread_service_set_interval with the current service (empty
/// before init and after the service has finished: what the framework does then, and its result).
/// What the callback's result means, and the unit of `interval`, are the framework's (the
/// stand-in: false ends the interval; milliseconds).
/// \return the framework's timer id, unchanged, for kiv_database_clear_interval.
/// \par Threads
/// Any thread, also from a job or a timer.
KIV_DATABASE_API unsigned long kiv_database_set_interval(std::function<bool()> callback, unsigned long interval,
                                                         std::string file, int line);

/// Cancels the timeout `timer_id` of the current service.
///
/// Forwards to the framework's kiv_thread_service_clear_timeout. When the cleared job is
/// released is the framework's matter.
/// \par Returns
/// Nothing: whether a timer was cleared is dropped.
/// \par Threads
/// Any thread, also from a job or a timer.
KIV_DATABASE_API void kiv_database_clear_timeout(unsigned long timer_id);

/// Cancels the interval `timer_id` of the current service.
///
/// Forwards to the framework's kiv_thread_service_clear_interval. When the cleared callback is
/// released is the framework's matter.
/// \par Returns
/// Nothing: whether an interval was cleared is dropped.
/// \par Threads
/// Any thread, also from a job or a timer.
KIV_DATABASE_API void kiv_database_clear_interval(unsigned long timer_id);

/// Runs the service's due work on the calling thread.
///
/// Forwards to the framework's kiv_thread_service_run_once (the stand-in runs the due work on
/// the calling thread), without holding the library's lock, so the work it runs may call the
/// library. On a framework core without a worker thread of its own, this is what runs the jobs,
/// timers and handlers: call it from the host's event loop.
/// \return the framework's result, unchanged.
/// \par Threads
/// Any thread.
KIV_DATABASE_API int kiv_database_run_once();

/// The open connection registered under `name`, with its statement finalized.
///
/// An object is registered when it opens under a name that no open object holds, and leaves the
/// registry when it closes. The lookup finalizes the found connection's statement (so it is not
/// the caller's to keep: do not look up a connection whose owner is still using it on another
/// thread).
/// \return a new handle to the object; empty if no open connection has that name, and empty for
/// one already handed to kiv_sqlite_destroy when the framework's base object records that
/// ("object-destroyed"); its destroy job on the worker closes it either way.
/// \par Threads
/// Any thread, also racing other lookups of the same name or the object's destroy job: the
/// statement is released once.
KIV_DATABASE_API kiv_sqlite_handle kiv_database_get_sqlite(std::string name);

/// \cond INTERNAL
// --- Internal to the library ---
// Live-object list: enter once; remove, print the count left, stop when shutdown is pending.
KIV_DATABASE_LOCAL void kiv_database_ref(boost::shared_ptr<_kiv_object> object);
KIV_DATABASE_LOCAL void kiv_database_unref(const boost::shared_ptr<_kiv_object>& object);
// Registry: enter under the name if it is free; remove whatever is under the name.
KIV_DATABASE_LOCAL void kiv_database_register_sqlite(const boost::shared_ptr<_kiv_sqlite>& connection);
KIV_DATABASE_LOCAL void kiv_database_unregister_sqlite(const boost::shared_ptr<_kiv_sqlite>& connection);
// kiv_database_exec for a destroy job, which the exit runs even when it was queued late.
KIV_DATABASE_LOCAL void kiv_database_exec_destroy_job(std::function<void()> job, std::string file, int line);
// Finalizes the connection's statement under the registry's lock (lookups and the destroy job).
KIV_DATABASE_LOCAL void kiv_database_release_statement(_kiv_sqlite& connection);
/// \endcond
