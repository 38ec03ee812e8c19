#pragma once

// The framework's thread service: one worker thread running an event loop of jobs and timers.
//
// Handles: every function takes the service handle by value. An empty handle writes the
// null-object warning naming the function and does nothing else (ids 0, run_once -1,
// wait false); the functions handed over with it stay the caller's.
// Re-entrancy: no job, timer callback or handler runs or is destroyed inside the caller's call,
// except that a stop callback runs (and dies) inside kiv_thread_service_stop when the service
// has already stopped. Cleared timers, replaced handlers and work refused after a stop are
// released on the worker; only once the service has finished, having no worker left, are they
// released before the call returns. Callers may therefore hold their own non-recursive locks
// across these calls while the service is running or stopping.
// Threads: jobs, timers and handlers run on the worker, one at a time; run_once runs them on
// its caller's thread, never while the worker runs one; the join handler runs on the joining
// thread. Each job's function is destroyed as soon as it has returned, before the next job.
// Lifetime: a service lives until it has stopped and finished; the last handle may be dropped
// anywhere, also inside its own finish handler. Once kiv_thread_service_wait (or join_all) has
// returned, the service holds no job, timer or handler any more: the code behind them may be
// unloaded.
// Errors: an exception escaping a job, timer or handler is written as one error line naming
// where it was scheduled; the service carries on.
// Fork: the parent's services keep running in the parent only. A child process runs none of
// their work and does not wait for them at exit; it may create services of its own.

#include <boost/shared_ptr.hpp>

#include <functional>
#include <string>

#include "framework/kiv_framework_export.h"

class _kiv_thread_service;

using kiv_thread_service_handle = boost::shared_ptr<_kiv_thread_service>;
using kiv_thread_service_finish_handler = std::function<void(kiv_thread_service_handle, int)>;
using kiv_thread_service_join_handler = std::function<bool(kiv_thread_service_handle, int)>;
using kiv_thread_service_stop_callback = std::function<void(kiv_thread_service_handle)>;

// Creates a service named `name` and starts its worker (thread name from `name`). Empty handle,
// with an error line, when no thread can be started.
KIV_FRAMEWORK_API kiv_thread_service_handle kiv_thread_service_new(std::string name);

// Called once on the worker after the loop has ended and the stop callbacks have run, with the
// code of the first kiv_thread_service_join made before the stop (0 otherwise). Replaces an earlier handler; once the
// service has stopped, it is dropped uncalled.
KIV_FRAMEWORK_API void kiv_thread_service_on_finished(kiv_thread_service_handle service,
                                                      kiv_thread_service_finish_handler handler);
// Called by kiv_thread_service_join on the joining thread, only while no stop has been
// requested; false (or no handler) makes the join stop the service at once.
KIV_FRAMEWORK_API void kiv_thread_service_set_join_handler(kiv_thread_service_handle service,
                                                           kiv_thread_service_join_handler handler);

// Requests the stop: jobs queued before it still run, pending timers are cancelled, then the
// loop ends. `callback` (may be empty) is called once with the service once it has stopped;
// inside this call when it already has. Work handed over after the stop is refused, with a
// warning line, and released unrun.
KIV_FRAMEWORK_API void kiv_thread_service_stop(kiv_thread_service_handle service,
                                               kiv_thread_service_stop_callback callback);

// Runs `job` once on the worker, in FIFO order. `file` and `line` name the caller for the error
// line written when the job throws; each distinct `file` is kept once for the life of the
// process, so pass a source file name, not text that changes from call to call.
KIV_FRAMEWORK_API void kiv_thread_service_exec(kiv_thread_service_handle service, std::function<void()> job,
                                               std::string file, int line);
// Runs `job` once after `delay_ms` milliseconds (monotonic clock). Equal deadlines run in
// arming order. Returns the timer id: unique in the process and never reused, never 0.
KIV_FRAMEWORK_API unsigned long kiv_thread_service_set_timeout(kiv_thread_service_handle service,
                                                               std::function<void()> job, unsigned long delay_ms,
                                                               std::string file, int line);
// Runs `callback` every `interval_ms` milliseconds until it is cleared or returns false (a
// throwing callback keeps its interval). Same ids as timeouts.
KIV_FRAMEWORK_API unsigned long kiv_thread_service_set_interval(kiv_thread_service_handle service,
                                                                std::function<bool()> callback,
                                                                unsigned long interval_ms, std::string file, int line);
// Cancel a timer of this service; also from inside its own callback. Returns whether the id
// was pending (a running interval counts, a running timeout does not).
KIV_FRAMEWORK_API bool kiv_thread_service_clear_timeout(kiv_thread_service_handle service, unsigned long timer_id);
KIV_FRAMEWORK_API bool kiv_thread_service_clear_interval(kiv_thread_service_handle service, unsigned long timer_id);

// Runs, on the calling thread, the jobs queued and timers due at this moment (not those they
// add), never while the worker runs one. Returns how many ran.
KIV_FRAMEWORK_API int kiv_thread_service_run_once(kiv_thread_service_handle service);

// --- For hosts: asking services to shut down ---

// The join request: records `code` (the first one counts), calls the join handler with the
// service and `code` on this thread, and stops the service at once when there is none or it
// returns false. Does nothing once a stop has been requested. Does not wait.
KIV_FRAMEWORK_API void kiv_thread_service_join(kiv_thread_service_handle service, int code);
// Blocks until the service has finished and released its handlers. true when finished; false
// on timeout (timeout_ms >= 0) or when called from the service's own work (on its worker, or
// inside its run_once), which cannot wait for the service to end.
KIV_FRAMEWORK_API bool kiv_thread_service_wait(kiv_thread_service_handle service, long timeout_ms = -1);
// A live (not yet finished) service of that name, or an empty handle.
KIV_FRAMEWORK_API kiv_thread_service_handle kiv_thread_service_find(std::string name);
// Joins every live service with `code` and waits for each to finish. Call before exit.
KIV_FRAMEWORK_API void kiv_thread_service_join_all(int code);
