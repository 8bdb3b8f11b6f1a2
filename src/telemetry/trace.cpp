// Trace objects and their upload: setters that check what they store, and a
// sender that wraps traces in an envelope, PUTs it to the trace service and
// backs off after repeated transport failures.
#include <stdlib.h>
#include <string.h>

#include <trel/core.h>
#include <trel/http.h>
#include <trel/telemetry.h>

#include "core/log.h"
#include "core/raii.h"
#include "telemetry/envelope.h"
#include "telemetry/service.h"
#include "telemetry/service_urls.h"

using trel::telemetry::now_ms;

namespace {

constexpr char kTrace[] = "trace";
constexpr uint64_t kGiveUpMs = 86400000;  // a back-off beyond one day stops the sender
constexpr uint64_t kFirstBackoffMs = 1000;
constexpr int kFailuresBeforeBackoff = 4;  // the fifth failure in a row starts it
constexpr size_t kResponseMax = 1024;

// The sender's state, for the life of the process (one sending thread).
struct SenderState {
    uint64_t backoff;       // ms; 0 = none
    uint64_t last_attempt;  // wall-clock ms of the last completed PUT
    int consecutive_failures;
    // Kept: never cleared: a transport failure is logged once per process.
    int failure_logged;
};
SenderState g_sender;

// Stores value under key when valid(value); otherwise releases it, logs
// refusal and fails.
template <typename Valid>
int set_checked(json_t *trace, const char *key, json_t *value, Valid valid,
                const char *refusal) noexcept {
    if (!valid(value)) {
        json_decref(value);
        TREL_DBG2(kTrace, "%s", refusal);
        return -1;
    }
    return json_object_set_new(trace, key, value);
}

bool is_object_of_strings(const json_t *value) noexcept {
    if (!json_is_object(value)) return false;
    const char *key;
    json_t *member;
    json_object_foreach(const_cast<json_t *>(value), key, member) {
        if (!json_is_string(member)) return false;
    }
    return true;
}

// PUTs the envelope to "<base>/traces" and updates the back-off.
int put_trace(json_t *envelope) noexcept {
    char url[256];
    snprintf(url, sizeof url, "%s/traces",
             trel::telemetry::service_base_url(trel::telemetry::kTraceUrls, "LIBTREL_TRACE_URL"));
    curl_simple_response *response = curl_simple_response_init(kResponseMax);
    if (response == nullptr) {
        TREL_ERR(kTrace, "Failed to allocate curl response");
        return -1;
    }
    CURLcode rc = curl_simple_put_json(url, 0, envelope, response);
    g_sender.last_attempt = now_ms();
    int result = TREL_TRACE_FAILED;
    if (rc == CURLE_OK) {
        // Kept: any answer at all, 202 or not, is a transport success and
        // clears the back-off.
        g_sender.backoff = 0;
        g_sender.consecutive_failures = 0;
        if (response->status == 202)
            result = TREL_TRACE_SENT;
        else
            TREL_DBG2(kTrace, "PUT '%s' failed: [%ld] %s", url, response->status,
                      trel::telemetry::response_text(response));
    } else {
        if (++g_sender.consecutive_failures > kFailuresBeforeBackoff)
            g_sender.backoff = g_sender.backoff == 0 ? kFirstBackoffMs : g_sender.backoff * 2;
        if (!g_sender.failure_logged) {
            TREL_WARN(kTrace, "PUT '%s' failed: [%d] %s", url, static_cast<int>(rc),
                      curl_easy_strerror(rc));
            g_sender.failure_logged = 1;
        }
    }
    curl_simple_response_free(response);
    return result;
}

}  // namespace

TREL_API json_t *trace_object(void) noexcept { return json_object(); }

TREL_API json_t *trace_array(void) noexcept { return json_array(); }

TREL_API int trace_object_set_payload_new(json_t *trace, json_t *value) noexcept {
    trel::JsonRef payload(value);
    if (!json_is_object(value)) return -1;
    trel::MallocPtr<char> text(json_dumps(value, JSON_COMPACT));
    json_t *wrapper =
        text ? json_pack("{s:s, s:s}", "contentType", "application/json", "data", text.get())
             : nullptr;
    if (wrapper == nullptr) {
        TREL_ERR(kTrace, "Failed to create payload object");
        return -1;
    }
    return json_object_set_new(trace, "payload", wrapper);
}

TREL_API int trace_object_set_timestamp_new(json_t *trace, json_t *value) noexcept {
    return set_checked(
        trace, "timestamp", value, [](const json_t *v) { return json_is_integer(v); },
        "Trace timestamp must be an integer");
}

TREL_API int trace_object_set_type_new(json_t *trace, json_t *value) noexcept {
    return set_checked(
        trace, "type", value, [](const json_t *v) { return json_is_string(v); },
        "Trace type must be a string");
}

TREL_API int trace_object_set_namespace_new(json_t *trace, json_t *value) noexcept {
    return set_checked(
        trace, "namespace", value, [](const json_t *v) { return json_is_string(v); },
        "Trace namespace must be a string");
}

TREL_API int trace_object_set_source_new(json_t *trace, json_t *value) noexcept {
    return set_checked(trace, "source", value, is_object_of_strings,
                       "Trace source must be an object containing only string values");
}

TREL_API int trace_object_set_meta_new(json_t *trace, json_t *value) noexcept {
    return set_checked(trace, "meta", value, is_object_of_strings,
                       "Trace meta must be an object containing only string values");
}

TREL_API int trace_array_append_new(json_t *array, json_t *trace) noexcept {
    return json_array_append_new(array, trace);
}

// jansson's rule: static values (count -1) are never freed; the value is
// deleted when its last reference goes.
TREL_API void trace_decref(json_t *value) noexcept {
    if (value == nullptr || value->refcount == static_cast<size_t>(-1)) return;
    if (__atomic_sub_fetch(&value->refcount, 1, __ATOMIC_RELEASE) == 0) json_delete(value);
}

TREL_API void dump_refcount(json_t *value) noexcept {
    if (value == nullptr) return;
    TREL_INFO(kTrace, "refcount=%zu", static_cast<size_t>(value->refcount));
    if (json_is_object(value)) {
        TREL_INFO(kTrace, "{");
        const char *key;
        json_t *member;
        json_object_foreach(value, key, member) {
            TREL_INFO(kTrace, "%s:", key);
            dump_refcount(member);
        }
        TREL_INFO(kTrace, "}");
    } else if (json_is_array(value)) {
        TREL_INFO(kTrace, "[");
        size_t i;
        json_t *member;
        json_array_foreach(value, i, member) dump_refcount(member);
        TREL_INFO(kTrace, "]");
    }
}

TREL_API int send_traces(json_t *traces, json_t *options) noexcept {
    // Kept: the switch and the back-off are looked at before the arguments, so
    // a switched-off device answers TREL_TRACE_DISABLED even to a bad call.
    if (freadlong("/var/run/system.analytics.mode", 2) == 0) return TREL_TRACE_DISABLED;
    // Kept: one-way: once the back-off passed a day nothing is tried again for
    // the rest of the process.
    if (g_sender.backoff > kGiveUpMs) return TREL_TRACE_GAVE_UP;
    if (now_ms() < g_sender.last_attempt + g_sender.backoff) return TREL_TRACE_BACKING_OFF;
    if (!json_is_array(traces)) {
        TREL_DBG2(kTrace, "Traces must be an array");
        return -1;
    }
    trel::JsonRef envelope(trel::telemetry::trace_envelope_object(traces, options));
    if (!envelope) {
        TREL_ERR(kTrace, "Failed to create envelope");
        return -1;
    }
    return put_trace(envelope.get());
}

TREL_API int send_trace_with_meta(json_t *trace, json_t *options) noexcept {
    trel::JsonRef array(json_array());
    if (!array || json_array_append(array.get(), trace) != 0) return -1;
    return send_traces(array.get(), options);
}

TREL_API int send_trace_simple(const char *name_space, const char *type, json_t *payload) noexcept {
    trel::JsonRef trace(trace_object());
    if (!trace) {
        json_decref(payload);
        return -1;
    }
    // The setters log what they refuse; the trace goes as it is.
    trace_object_set_payload_new(trace.get(), payload);
    trace_object_set_type_new(trace.get(), json_string(type));
    trace_object_set_namespace_new(trace.get(), json_string(name_space));
    return send_trace_with_meta(trace.get(), nullptr);
}
