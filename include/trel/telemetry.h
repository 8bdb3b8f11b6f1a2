/* libtrel telemetry: JSON helpers and sampled series, build facts, trace
 * envelopes sent to the trace service, and crash reports (kernel crashes,
 * binary dumps, isolation logs) sent to the crash-report service. */
#ifndef TREL_TELEMETRY_H
#define TREL_TELEMETRY_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>

#include <jansson.h>

#include <trel/cfg.h>
#include <trel/common.h>

TREL_BEGIN_DECLS

/* ---- JSON helpers ---------------------------------------------------------- */

/* The time stamp of the sampled series; only tv_sec is used.  Written by
 * trel_grab_ts and trel_set_ts, never refreshed on its own.  (Strict ISO C
 * without POSIX sees struct timespec as an incomplete type here.) */
extern struct timespec qx_now;

/* None of these frees the object it is given; the readers return the default
 * on a missing key or a value of another type. */

/* The key's string (owned by the object, do not free) or def. */
const char *trel_json_get_str(const json_t *object, const char *key, const char *def) TREL_NOEXCEPT;
/* 1 for true or a non-zero integer, 0 for false or zero, else def. */
int trel_json_get_bool(const json_t *object, const char *key, int def) TREL_NOEXCEPT;
long trel_json_read_long(const json_t *object, const char *key, long def) TREL_NOEXCEPT;
int64_t trel_json_read_i64(const json_t *object, const char *key, int64_t def) TREL_NOEXCEPT;
/* 0 with *values a new array of the key's integer members (caller frees) and
 * *count their number; -1 (nothing allocated) when there is none. */
int trel_json_read_array(const json_t *object, const char *key, long **values,
                         size_t *count) TREL_NOEXCEPT;
/* Sets key to its integer value (0 when missing or not an integer) plus
 * delta: 0, or -1 when the set fails. */
int trel_json_add_long(json_t *object, const char *key, long delta) TREL_NOEXCEPT;
int trel_json_add_i64(json_t *object, const char *key, int64_t delta) TREL_NOEXCEPT;
/* Appends an integer to the array at key, creating it when the key is
 * missing: 0, or -1 when the new array cannot be made or set.  An existing
 * key answers 0 whatever it holds (the append is not checked). */
int trel_json_append_array(json_t *object, const char *key, long value) TREL_NOEXCEPT;
/* Adds a sample to the series "<prefix>Array" / "<prefix>Time" /
 * "<prefix>Interval" at qx_now: at most one per interval (10 s at first),
 * at most 360 samples, halved and the interval doubled when full.
 * 0 appended, -2 too early (nothing changed), -1 failure or a prefix that
 * makes a key longer than 39 characters. */
int trel_json_maybe_append_array(json_t *object, const char *prefix, long value) TREL_NOEXCEPT;
/* Reads CLOCK_MONOTONIC into qx_now and returns its seconds. */
int64_t trel_grab_ts(void) TREL_NOEXCEPT;
/* Sets the seconds of qx_now (the nanoseconds stay). */
void trel_set_ts(int64_t seconds) TREL_NOEXCEPT;
/* The whole stream (from its start) as standard Base64: a new text the caller
 * frees, an allocated "" for an empty file, NULL on failure or a NULL or
 * unseekable stream. */
char *load_file_base64(FILE *stream) TREL_NOEXCEPT;
/* Sets key to load_file_base64(stream): 0, or -1 (the key then holds "")
 * when the file cannot be encoded or the set fails. */
int json_object_load_file_base64(json_t *object, const char *key, FILE *stream) TREL_NOEXCEPT;
/* A new JSON string of the first three octets of "aa:bb:cc[:dd:ee:ff]" as
 * six lowercase hex digits (caller releases), or NULL. */
json_t *mac_str_to_oui_json_string(const char *mac) TREL_NOEXCEPT;
/* Reads an integer stored as a JSON integer (only when allow_integer is
 * non-zero) or as text ("%i": decimal, 0x hex, 0 octal) into *value: 2 from
 * an integer, 1 from text, 0 otherwise (*value untouched).  obj_name only
 * names the object in messages. */
int trel_json_integer_value_from_obj(const json_t *object, const char *obj_name, const char *key,
                                     int allow_integer, int *value) TREL_NOEXCEPT;

/* ---- Build facts ("/usr/lib/build.properties") --------------------------- */

/* Writes "<build_date> <build_time>" (each at most 11 characters) into buf,
 * cut to size: 0, or -1 when the file is missing or buf unusable. */
int get_build_time(char *buf, int size) TREL_NOEXCEPT;
/* "scm_reftype": 1 "atag", 2 "branch", 0 anything else or missing. */
int get_trel_scm_reftype(void) TREL_NOEXCEPT;

/* ---- Trace envelopes and upload ---------------------------------------------- */

/* Results of send_traces. */
#define TREL_TRACE_SENT 0        /* the service answered HTTP 202 */
#define TREL_TRACE_FAILED 1      /* transport failure or another HTTP status */
#define TREL_TRACE_BACKING_OFF 2 /* skipped: the back-off has not passed */
#define TREL_TRACE_GAVE_UP 3     /* skipped: back-off beyond a day, for good */
#define TREL_TRACE_DISABLED 4    /* skipped: analytics switched off */

/* A new empty trace object / array of traces (NULL when out of memory);
 * release with trace_decref. */
json_t *trace_object(void) TREL_NOEXCEPT;
json_t *trace_array(void) TREL_NOEXCEPT;
/* The setters take over the reference to value, also when they refuse it:
 * 0, or -1 when value has the wrong type (see each) or the set fails. */
/* value: an object, stored as {"contentType": "application/json", "data":
 * its compact text}. */
int trace_object_set_payload_new(json_t *trace, json_t *value) TREL_NOEXCEPT;
/* value: an integer. */
int trace_object_set_timestamp_new(json_t *trace, json_t *value) TREL_NOEXCEPT;
/* value: a string. */
int trace_object_set_type_new(json_t *trace, json_t *value) TREL_NOEXCEPT;
int trace_object_set_namespace_new(json_t *trace, json_t *value) TREL_NOEXCEPT;
/* value: an object whose members are all strings (an empty one passes). */
int trace_object_set_source_new(json_t *trace, json_t *value) TREL_NOEXCEPT;
int trace_object_set_meta_new(json_t *trace, json_t *value) TREL_NOEXCEPT;
/* Appends trace, taking over its reference: 0 or -1. */
int trace_array_append_new(json_t *array, json_t *trace) TREL_NOEXCEPT;
/* Releases one reference (atomically, release order); NULL is allowed. */
void trace_decref(json_t *value) TREL_NOEXCEPT;
/* Logs the reference counts of value and everything in it (info level). */
void dump_refcount(json_t *value) TREL_NOEXCEPT;

/* Sends the array of traces in one envelope carrying the device's identity
 * to the trace service: a TREL_TRACE_* result, or -1 when traces is not an
 * array or memory ran out.  The switch and the back-off are looked at before
 * the arguments.  options (may be NULL) may give the envelope's "timestamp",
 * "type", "meta" (an object: filled in place with the device fields) and
 * "source".  Neither argument is released. */
int send_traces(json_t *traces, json_t *options) TREL_NOEXCEPT;
/* send_traces of one trace (-1 also when its array cannot be made); the
 * caller keeps its reference. */
int send_trace_with_meta(json_t *trace, json_t *options) TREL_NOEXCEPT;
/* Sends one trace of the given namespace and type carrying payload (an
 * object; its reference is taken over, also on failure): send_traces'
 * result, or -1 when the trace cannot be made. */
int send_trace_simple(const char *name_space, const char *type, json_t *payload) TREL_NOEXCEPT;

/* ---- Crash reports ------------------------------------------------------------ */

/* Analytics mode from "system.analytics.anonymous" and ".status": 0 off, 1
 * full, 2 anonymous (also when neither key is set). */
int get_analytics_mode(cfg_entry *cfg) TREL_NOEXCEPT;
/* 1 when "system.analytics.coredump" is enabled, else 0. */
int get_analytics_coredump_mode(cfg_entry *cfg) TREL_NOEXCEPT;
/* 1 when path begins with "/etc/persistent" (a prefix test only), else 0. */
int is_dir_in_persistent(const char *path) TREL_NOEXCEPT;
/* Keeps payload, indented, in "/var/run/report_payload.txt" unless its text
 * is longer than 102400 bytes.  The caller keeps payload; failures are
 * logged. */
void save_crash_payload(json_t *payload) TREL_NOEXCEPT;
/* Writes text and a newline to "/var/run/report_payload_cmd.txt" (truncated
 * first); an open failure is logged. */
void save_crash_payload_cmd(const char *text) TREL_NOEXCEPT;
/* Sets key to the standard output (at most 1 MiB) of the shell command: 0,
 * or -1 when it cannot be run (key then "") or the set fails.  A NULL
 * command sets nothing and gives 0. */
int json_object_capture_popen(json_t *object, const char *key, const char *command) TREL_NOEXCEPT;

/* 1 when "oopsdump -e" says the last boot left a kernel oops, else 0; asked
 * once per process. */
int has_oops(void) TREL_NOEXCEPT;
/* Saves the oops to "/var/run/last-crashlog.txt", clears it ("oopsdump -c",
 * whose status is returned) and forgets the cached answer (0 from now on). */
int oops_clear(void) TREL_NOEXCEPT;
/* Reports the pending oops once: 0 sent now or before, -1 no oops pending,
 * -ENOENT not ready to report (time, address or analytics), -ESRCH URL too
 * long, -EINTR payload not built, -EIO the POST failed (a transport error
 * or a status other than 200).  The oops is not cleared. */
int send_kernel_crash(void) TREL_NOEXCEPT;

/* Kinds of dumps (dump_type). */
#define TREL_DUMP_CORE 0      /* "core-dump" */
#define TREL_DUMP_APP_CRASH 1 /* "app-crash" */
#define TREL_DUMP_OOM_KILL 2  /* "oom-kill" */
#define TREL_DUMP_RAM 3       /* "ram-dump"; any other value: "unknown" */

/* Reports a crash of process pid (command text, signal, ...); the size bytes
 * at data (may be NULL) are uploaded afterwards to the address the service
 * returns when "/var/run/system.analytics.coredump" holds 1.  0 when the
 * report was accepted (and the upload, if made, succeeded), else -1.  For
 * TREL_DUMP_RAM text is the dump's type and the process fields are left
 * out.  The caller keeps data. */
int send_crash_binary_data(const char *text, int pid, int signal, int number_of_crashes,
                           int process_uptime, const void *data, int size,
                           int dump_type) TREL_NOEXCEPT;
/* send_crash_binary_data(text, 0, 0, 0, 0, data, size, TREL_DUMP_RAM). */
int send_ram_dump(const char *text, const void *data, int size) TREL_NOEXCEPT;

/* The isolation log store ("/etc/persistent/isolation_logs/", with "meta/"
 * and "/etc/persistent/isolation_logs_sent/").  A missing store holds no
 * archives. */
/* Walks the store, giving every archive a meta record; with send non-zero
 * reports each archive not yet reported (uplink_model may be NULL:
 * "unknown").  0, or -1 when the store's directories cannot be made. */
int check_vwire_disconnect_logs(const char *uplink_model, int send) TREL_NOEXCEPT;
/* 1 when an archive is not yet delivered ("sent_to_net"), else 0. */
int has_crash_logs(void) TREL_NOEXCEPT;
/* The first undelivered archive's meta record plus "file_data" (the archive
 * in Base64), a new object the caller releases; NULL when there is none. */
json_t *get_next_crash_log(void) TREL_NOEXCEPT;
/* Marks the archive delivered: 1 when it was found (and marked, or already
 * was), else 0.  It is not visited again. */
int mark_crash_log_finished(const char *filename) TREL_NOEXCEPT;

TREL_END_DECLS

#endif
