/* QEVR for C and for any host with a C foreign-function interface.
 *
 * A thin layer over the C++ facades of <QEVR/QEVR.h>: records travel as
 * UTF-8 JSON text in the same forms the C++ records read and write (their
 * toJSON/fromJSON), so a binding needs nothing but strings and integers.
 *
 * Ownership
 *   Every `const char*` argument is borrowed for the duration of the call and
 *   must be NUL-terminated UTF-8. Every `char**` out-parameter receives a new
 *   NUL-terminated UTF-8 string that the caller owns and releases with
 *   qevr_string_free(), and nothing else. On failure the out-parameter is set
 *   to NULL, so freeing it unconditionally is always correct. The texts of
 *   qevr_version() and qevr_last_error() belong to the library.
 *
 * Errors
 *   Every call that can fail returns a qevr_status. QEVR_OK means the call
 *   did what it says; any other code means it changed nothing (no
 *   configuration applied, no event recorded, no state transition) and
 *   qevr_last_error() describes why. The library never aborts the process
 *   for bad input: NULL where a value is required, text that is not UTF-8 or
 *   not JSON, a record of the wrong shape, or a call in the wrong lifecycle
 *   state all come back as codes.
 *
 * Threading
 *   Any thread may make any call, concurrently. The last-error text is kept
 *   per thread. The lifecycle calls (qevr_start, qevr_pause, qevr_resume,
 *   qevr_shutdown) run every module's step on the calling thread and return
 *   when it is done. The observer calls run on the calling thread (the
 *   host's UI or game thread, typically) and do their work in memory,
 *   about a microsecond; a host that gets 16 chunks (1,600 events) ahead of
 *   the disk is paused in the call until only 4 are left, and if that takes
 *   over 200 ms the call saves one chunk itself. The memory,
 *   analysis and generate calls block the calling thread on disk reads and
 *   computation (generate also uses the library's task pool); call them off
 *   the UI thread and pass a qevr_cancel_token to abandon them early.
 *
 * JSON forms accepted (see doc/c-api.md for full examples)
 *   configuration  {"appId":"com.example.app","environment":{"production":{}},
 *                   "logLevel":{"info":{}},"isDiagnosticsEnabled":false,...}
 *   privacy        {"allowScreenTracking":true,"allowGestureTracking":true,...}
 *   memory options {"maxDiskUsageMB":25,"maxEventAgeDays":30,
 *                   "maxSessionCount":100,"pruningEnabled":true}
 *   domain         {"game":{}}, {"mobileApp":{}}, {"custom":{"_0":"travel"}}
 *   policy         {"minimumConfidence":0.65,"allowUIRecommendations":true,...,
 *                   "protectedComponentIds":[],"protectedScreenNames":[]}
 *   metadata       {"score":{"type":"int","value":1200},
 *                   "mode":{"type":"string","value":"ranked"}}
 *                  value types: "string", "int", "double", "bool", "date"
 *                  (a date is seconds since 2001-01-01T00:00:00Z)
 *   The four option records (configuration, privacy, memory options, policy)
 *   may leave keys out: a missing key keeps its default, NULL or "{}" is the
 *   default record, and a key the record does not have is refused. A
 *   configuration without "appId" uses "qevr.c-api"; its other defaults
 *   turn background processing and the built-in recommendation engines on
 *   and every AI service off, so {"appId":"com.example.app"} is enough for
 *   recommendations. Results use the same forms; dates in results are
 *   seconds since 2001-01-01T00:00:00Z.
 */
#ifndef QEVR_QEVR_H
#define QEVR_QEVR_H

#include <QEVRPlatform/Export.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum qevr_status {
  QEVR_OK = 0,
  /* A NULL where a value is required, an unknown gesture type, a blank
   * appId: the text names the argument. */
  QEVR_ERROR_INVALID_ARGUMENT = 1,
  /* Text that is not JSON, or JSON that is not the record asked for; the
   * text gives the path of the value at fault. */
  QEVR_ERROR_INVALID_JSON = 2,
  /* An argument string that is not well-formed UTF-8. */
  QEVR_ERROR_INVALID_UTF8 = 3,
  /* A lifecycle call the current state does not allow (pause before start,
   * start while running, ...). */
  QEVR_ERROR_STATE = 4,
  /* A part of the system the call needs is not there (no application-support
   * directory, a module that is not started where one is required). */
  QEVR_ERROR_UNAVAILABLE = 5,
  /* The call's qevr_cancel_token was cancelled. */
  QEVR_ERROR_CANCELLED = 6,
  /* Reading or writing the memory store failed, or a stored file is
   * damaged. */
  QEVR_ERROR_IO = 7,
  QEVR_ERROR_OUT_OF_MEMORY = 8,
  /* Anything else: a fault of the library, never of the arguments. */
  QEVR_ERROR_INTERNAL = 9
} qevr_status;

typedef enum qevr_lifecycle_state {
  QEVR_STATE_NOT_STARTED = 0,
  QEVR_STATE_STARTING = 1,
  QEVR_STATE_RUNNING = 2,
  QEVR_STATE_PAUSED = 3,
  QEVR_STATE_SHUTTING_DOWN = 4,
  QEVR_STATE_SHUTDOWN = 5
} qevr_lifecycle_state;

/* Lets a host abandon a blocking call from another thread. Opaque. */
typedef struct qevr_cancel_token qevr_cancel_token;

/* ---- Strings, errors, version ---- */

/* The library's version, "major.minor.patch". Static; never free it. */
QEVR_API const char* qevr_version(void);

/* The text of the calling thread's last failed call, or "" when its last
 * call succeeded. Valid until the same thread makes its next qevr_* call. */
QEVR_API const char* qevr_last_error(void);

/* A short constant name for a status ("QEVR_ERROR_INVALID_JSON"), or
 * "unknown" for a value that is none. Static; never free it. */
QEVR_API const char* qevr_status_name(qevr_status status);

/* Releases a string the library handed out. NULL is ignored. */
QEVR_API void qevr_string_free(char* text);

/* ---- Cancellation ---- */

/* A new token, not cancelled. Release it with qevr_cancel_token_free once no
 * call is using it. */
QEVR_API qevr_status qevr_cancel_token_new(qevr_cancel_token** out_token);
/* Asks every call given this token to stop; they return
 * QEVR_ERROR_CANCELLED. Permanent. Safe from any thread. */
QEVR_API qevr_status qevr_cancel_token_cancel(qevr_cancel_token* token);
/* NULL is ignored. REQUIRES: no call is still using the token. */
QEVR_API void qevr_cancel_token_free(qevr_cancel_token* token);

/* ---- Diagnostics ----
 *
 * QEVR reports what it does in short fixed lines: a module that starts or
 * is unavailable by configuration, an event the observer refused, a pruning
 * run, a cleared store. No line ever holds data of the host or its user
 * (names, metadata, paths). By default the lines go to the platform's log
 * (syslog on Linux); a host can take them instead. */

/* How serious a line is, from least to most. */
typedef enum qevr_log_level {
  /* The core's trace and debug lines, when the configuration lets them. */
  QEVR_LOG_DEBUG = 0,
  /* What happened: a start, a pruning run, a cleared store. */
  QEVR_LOG_INFO = 1,
  /* A warning: a lifecycle step the system ignored. */
  QEVR_LOG_DEFAULT = 2,
  /* An event the observer refused, a stored file it could not read. */
  QEVR_LOG_ERROR = 3,
  /* A critical line. */
  QEVR_LOG_FAULT = 4
} qevr_log_level;

/* Receives one log line. `subsystem` ("QEVMemory", "QEVRCore", ...) and
 * `category` ("Lifecycle", "Events", ...) say where it comes from; `text`
 * is the line. All three are NUL-terminated UTF-8, borrowed for the call
 * only: copy what you keep. `user_data` is the pointer given with the
 * callback. */
typedef void (*qevr_log_callback)(const char* subsystem, const char* category, qevr_log_level level,
                                  const char* text, void* user_data);

/* Sends every log line to `callback` from now on, with `user_data`; NULL
 * restores the platform's log. Process-wide; the last call wins. Fails only
 * when out of memory, and then leaves the previous callback in place.
 *
 * The callback is called on the thread that logs: the caller's own thread
 * inside a qevr_* call, or one of the library's background threads. It can
 * run on several threads at once, so it must be thread-safe. It is never
 * called while QEVR holds one of its locks, so it may call qevr_* functions
 * without deadlocking, with three cautions: a call that logs calls the
 * callback again on the same thread (do not loop); it delays the thread
 * that logged, which may be the host's UI thread or a background save (keep
 * it short, and do not call qevr_wait_for_background_idle from it: on a
 * background thread it waits for itself until its time-out); and the
 * last error it leaves is replaced by that of the call that logged. It
 * must return normally (no longjmp, no C++ exception).
 *
 * When this returns, the previous callback is no longer running on any
 * thread and will not be called again, so its user_data can be released;
 * this call waits for lines still being delivered to it. Called from inside
 * a callback, it cannot wait for its own caller and does not wait at all:
 * lines then in flight on other threads may still reach the previous
 * callback. */
QEVR_API qevr_status qevr_set_log_callback(qevr_log_callback callback, void* user_data);

/* Sends every log line from now on to a queue instead, from which the host
 * takes them with qevr_next_log_line on a thread of its choosing. For hosts
 * whose runtime must not be entered from the library's own threads: a
 * managed runtime attaches each thread that calls into it, and may wait for
 * those threads when the process exits.
 *
 * The queue keeps the newest `capacity` lines (1 to 100000); when it is
 * full, the oldest line is dropped and counted. Replaces the callback, as
 * qevr_set_log_callback does (waiting for lines in flight to it), or an
 * earlier queue, whose lines not yet taken are kept. qevr_set_log_callback,
 * with a callback or NULL, ends the queue: no line enters it any more, the
 * lines in it can still be taken, and then qevr_next_log_line returns
 * QEVR_ERROR_STATE, at once for calls waiting on it. A queue installed after
 * that starts empty.
 * QEVR_ERROR_INVALID_ARGUMENT for a capacity out of range. */
QEVR_API qevr_status qevr_set_log_queue(long long capacity);

/* Takes the oldest line from the queue, waiting up to `timeout_ms` (0: not
 * at all) for one to arrive. `out_json` gets the line, to free with
 * qevr_string_free, or NULL when none came in time:
 *   {"subsystem":"QEVMemory","category":"Pruning","level":"info",
 *    "text":"...","dropped":0}
 * `level` is "debug", "info", "default", "error" or "fault"; `dropped`
 * counts the lines dropped, the queue being full, since the line taken
 * before. QEVR_ERROR_STATE when no queue is installed, or it has ended and
 * is empty. Blocks up to `timeout_ms`. */
QEVR_API qevr_status qevr_next_log_line(long long timeout_ms, char** out_json);

/* ---- Data directory ---- */

/* Moves the application-support directory below which memory keeps its
 * files (<dir>/QEVR/Memory); NULL restores the platform's answer
 * ($XDG_DATA_HOME, else ~/.local/share). Process-wide. The memory and
 * inspection calls use it from their next call; recording uses it from the
 * next qevr_start (saves still on their way finish in the old place). */
QEVR_API qevr_status qevr_set_data_directory(const char* path);

/* Waits until the library's background work (disk saves started by
 * shutdown, pruning, analyses) is done, or `timeout_ms` has passed.
 * `out_idle` gets 1 when it is done, 0 on time-out. For hosts that want
 * what they recorded on disk before they exit or read it back. Blocks. */
QEVR_API qevr_status qevr_wait_for_background_idle(long long timeout_ms, int* out_idle);

/* ---- Lifecycle ---- */

/* Registers the built-in modules (once per process) and starts them with
 * the configuration. QEVR_ERROR_STATE unless the state is not-started or
 * shut down; QEVR_ERROR_INVALID_ARGUMENT for a blank appId. */
QEVR_API qevr_status qevr_start(const char* configuration_json);
/* QEVR_ERROR_STATE unless running. */
QEVR_API qevr_status qevr_pause(void);
/* QEVR_ERROR_STATE unless paused. */
QEVR_API qevr_status qevr_resume(void);
/* Stops the modules in reverse order; the system can start again.
 * QEVR_ERROR_STATE unless running or paused. */
QEVR_API qevr_status qevr_shutdown(void);
/* The current state. Never fails. */
QEVR_API qevr_lifecycle_state qevr_get_lifecycle_state(void);
/* "notStarted", "starting", "running", "paused", "shuttingDown",
 * "shutdown", or "unknown". Static; never free it. */
QEVR_API const char* qevr_lifecycle_state_name(qevr_lifecycle_state state);

/* ---- Observer ----
 *
 * Each call reports one event. `metadata_json` is an object of tagged
 * values or NULL for none. `out_dispatched` may be NULL; otherwise it gets 1
 * when the event was dispatched and 0 when the observer refused it (not
 * running, tracking of that kind switched off, a blank or over-long name),
 * which is not an error. */

QEVR_API qevr_status qevr_observer_privacy_options(char** out_json);
/* Takes effect at the next observer call; survives start and shutdown. */
QEVR_API qevr_status qevr_observer_configure(const char* privacy_options_json);

/* A custom event; `name` is trimmed and holds 1 to 128 characters. */
QEVR_API qevr_status qevr_track(const char* name, const char* metadata_json, int* out_dispatched);
QEVR_API qevr_status qevr_screen_view(const char* screen_name, const char* metadata_json,
                                      int* out_dispatched);
QEVR_API qevr_status qevr_screen_disappear(const char* screen_name, const char* metadata_json,
                                           int* out_dispatched);
/* `from` may be NULL (no previous screen). */
QEVR_API qevr_status qevr_navigation(const char* from, const char* to, const char* metadata_json,
                                     int* out_dispatched);
/* `title` may be NULL. */
QEVR_API qevr_status qevr_button_tap(const char* component_id, const char* title,
                                     const char* metadata_json, int* out_dispatched);
/* `gesture_type` is one of "tap", "doubleTap", "longPress", "swipe",
 * "pinch", "pan", "rotate", "custom"; `component_id` may be NULL. */
QEVR_API qevr_status qevr_gesture(const char* gesture_type, const char* component_id,
                                  const char* metadata_json, int* out_dispatched);

/* ---- Memory ----
 *
 * These work whether or not the system runs. `cancel` may be NULL. */

QEVR_API qevr_status qevr_memory_options(char** out_json);
/* Takes effect at the next pruning run. */
QEVR_API qevr_status qevr_memory_configure(const char* memory_options_json);
/* {"estimatedDiskUsageBytes":..,"eventChunkCount":..,"sessionGraphCount":..,
 *  "hasUserGraph":..,"oldestEventDate":..,"newestEventDate":..} */
QEVR_API qevr_status qevr_memory_stats(qevr_cancel_token* cancel, char** out_json);
/* Memory across app runs, off by default: with it on, a start carries on
 * from the stored user graph and dates sessions by their events. Read at
 * each start; a change while running takes effect at the next start. */
QEVR_API qevr_status qevr_memory_set_continuity(int enabled);
QEVR_API qevr_status qevr_memory_continuity(int* out_enabled);
/* Erases the store on disk. */
QEVR_API qevr_status qevr_memory_clear(qevr_cancel_token* cancel);
/* The aggregate, redacted snapshot the analyses read. */
QEVR_API qevr_status qevr_memory_snapshot(qevr_cancel_token* cancel, char** out_json);

/* ---- Analyses ----
 *
 * Deterministic rules over a fresh memory snapshot; results are cached for
 * 300 seconds. `domain_json` may be NULL (no domain). `cancel` may be NULL. */

QEVR_API qevr_status qevr_summarize_behavior(qevr_cancel_token* cancel, char** out_json);
QEVR_API qevr_status qevr_analyze_intent(const char* domain_json, qevr_cancel_token* cancel,
                                         char** out_json);
QEVR_API qevr_status qevr_detect_frustration(qevr_cancel_token* cancel, char** out_json);
QEVR_API qevr_status qevr_analyze_skill(const char* domain_json, qevr_cancel_token* cancel,
                                        char** out_json);

/* ---- Recommendations ---- */

/* A JSON array of recommendations, best first, filtered by the policy; an
 * empty array while the system is not running. `domain_json` NULL means no
 * domain; `policy_json` NULL means the default policy for the domain, and
 * keys it leaves out take that policy's values. `cancel` may be NULL. */
QEVR_API qevr_status qevr_generate(const char* domain_json, const char* policy_json,
                                   qevr_cancel_token* cancel, char** out_json);

/* ---- Outcomes ----
 *
 * Outcome learning, off by default: while it is off every generation is
 * exactly as without it. When on, qevr_generate leaves out advice that was
 * dismissed twice in the last 30 days, and advice that was applied unless
 * its effect is "worse". An advice is one line of history across
 * generations: its type, action kind and target, not its id. */
QEVR_API qevr_status qevr_set_outcome_learning(int enabled);
QEVR_API qevr_status qevr_outcome_learning(int* out_enabled);

/* Records what the host did with a recommendation (one element of
 * qevr_generate's array): `outcome` is "shown", "applied" or "dismissed".
 * QEVR_ERROR_STATE while outcome learning is off. Blocks for one small
 * atomic file write. */
QEVR_API qevr_status qevr_record_outcome(const char* recommendation_json, const char* outcome);

/* A JSON array of histories, in the order first recorded:
 *   {"key":"gameplay/adjustDifficulty/decrease","type":"gameplay",
 *    "title":…,"action":{…},"shown":2,"applied":1,"dismissed":0,
 *    "firstRecordedAt":…,"lastRecordedAt":…,"firstAppliedAt":…,
 *    "dismissedAt":[…],
 *    "effect":{"effect":"improved","signal":"failuresAndRetries",
 *              "sessionsBefore":6,"sessionsAfter":5,"before":3.2,"after":0.8},
 *    "isHeldBack":true}
 * "effect" ("improved", "unchanged", "worse" or "tooEarly") is present once
 * applied, for actions that have a figure; it is a change observed in this
 * user's sessions, not a proof that the recommendation caused it. Effects
 * need dated sessions: turn memory continuity on
 * (qevr_memory_set_continuity), or they stay "tooEarly". */
QEVR_API qevr_status qevr_outcomes(char** out_json);

#ifdef __cplusplus
}
#endif

#endif /* QEVR_QEVR_H */
