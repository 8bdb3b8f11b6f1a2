// Crash reporting, common ground: the analytics switches, the readiness gate,
// the crash-report service URL, captured command output, the POST of a
// report and the local copy of the last payload.
#include <string.h>
#include <unistd.h>

#include <trel/cfg.h>
#include <trel/exec.h>
#include <trel/http.h>
#include <trel/telemetry.h>

#include "core/log.h"
#include "core/path_root.h"
#include "core/raii.h"
#include "telemetry/crash_internal.h"
#include "telemetry/service.h"
#include "telemetry/service_urls.h"

namespace {

constexpr char kCrash[] = "crash";
constexpr size_t kSavedPayloadMax = 102400;
constexpr size_t kCaptureMax = 1048576;
constexpr size_t kResponseMax = 2048;

}  // namespace

// Kept: without an "anonymous" key a switched-off status still means
// anonymous reporting (2), not 0.
TREL_API int get_analytics_mode(cfg_entry *cfg) noexcept {
    int anonymous = get_bool(cfg, -1, "system.analytics.anonymous");
    if (anonymous == -1) return get_bool(cfg, 0, "system.analytics.status") ? 1 : 2;
    if (!get_bool(cfg, 1, "system.analytics.status")) return 0;
    return anonymous ? 2 : 1;
}

TREL_API int get_analytics_coredump_mode(cfg_entry *cfg) noexcept {
    return get_bool(cfg, 0, "system.analytics.coredump") != 0;
}

TREL_API int is_dir_in_persistent(const char *path) noexcept {
    // Kept: a prefix test only, so "/etc/persistentX" counts as persistent too.
    return path != nullptr && strncmp(path, "/etc/persistent", 15) == 0;
}

TREL_API void save_crash_payload(json_t *payload) noexcept {
    trel::MallocPtr<char> text(json_dumps(payload, JSON_INDENT(2)));
    if (!text) {
        TREL_ERR(kCrash, "Invalid payload");
        return;
    }
    size_t len = strlen(text.get());
    if (len > kSavedPayloadMax) {
        TREL_INFO(kCrash, "Skipped saving crash report payload because it was > %d (%d)",
                  static_cast<int>(kSavedPayloadMax), static_cast<int>(len));
        return;
    }
    trel::UniqueFile f(trel::path_fopen("/var/run/report_payload.txt", "we"));
    if (!f) {
        TREL_ERR(kCrash, "Failed opening file for saving crash report payload");
        return;
    }
    fprintf(f.get(), "%s\n", text.get());
    TREL_INFO(kCrash, "Saved crash report payload of %d bytes", static_cast<int>(len));
}

TREL_API void save_crash_payload_cmd(const char *text) noexcept {
    trel::UniqueFile f(trel::path_fopen("/var/run/report_payload_cmd.txt", "we"));
    if (!f) {
        TREL_ERR(kCrash, "Failed opening file for saving crash report payload command");
        return;
    }
    fprintf(f.get(), "%s\n", text != nullptr ? text : "");
}

TREL_API int json_object_capture_popen(json_t *object, const char *key,
                                       const char *command) noexcept {
    if (command == nullptr) return 0;
    trel::MallocPtr<char> out(popen_alloc_output(command, kCaptureMax));
    int rc = 0;
    if (!out) {
        TREL_WARN(kCrash, "Failed to capture the output of command %s", command);
        rc = -1;
    }
    if (json_object_set_new(object, key, json_string(out ? out.get() : "")) != 0) rc = -1;
    return rc;
}

namespace trel::telemetry {

int crash_reporting_ready() noexcept {
    return trel::path_access("/var/run/ntp.ready", R_OK) == 0 &&
           trel::path_access("/var/run/ipready.br0", R_OK) == 0 &&
           freadlong("/var/run/system.analytics.mode", 2) != 0;
}

int build_crash_report_url(char (&url)[kCrashUrlSize], const char *kind) noexcept {
    int n = snprintf(url, sizeof url, "%s/v1/%s", service_base_url(kCrashUrls, "LIBTREL_CRASH_URL"),
                     kind);
    if (n < 0) return -1;
    return static_cast<size_t>(n) < sizeof url ? 0 : n;
}

int post_crash(const char *url, json_t *payload, json_t **response_out) noexcept {
    if (response_out != nullptr) *response_out = nullptr;
    curl_simple_response *response = curl_simple_response_init(kResponseMax);
    if (response == nullptr) {
        TREL_ERR(kCrash, "Failed to allocate curl response");
        return -1;
    }
    int result = -1;
    CURLcode rc = curl_simple_post_json(url, 0, payload, response);
    if (rc != CURLE_OK) {
        TREL_WARN(kCrash, "POST '%s' failed: [%d] %s", url, static_cast<int>(rc),
                  curl_easy_strerror(rc));
    } else {
        // Kept: the payload is saved whatever the service answered, so that a
        // refused report can be inspected too.
        save_crash_payload(payload);
        if (response->status != 200) {
            TREL_WARN(kCrash, "POST '%s' failed: [%ld] %s", url, response->status,
                      response_text(response));
        } else if (response_out == nullptr) {
            result = 0;
        } else {
            json_error_t err;
            *response_out = json_loads(response_text(response), 0, &err);
            if (*response_out == nullptr)
                TREL_WARN(kCrash, "Failed to parse response: %s at line %d, column %d", err.text,
                          err.line, err.column);
            else
                result = 0;
        }
    }
    curl_simple_response_free(response);
    return result;
}

}  // namespace trel::telemetry
