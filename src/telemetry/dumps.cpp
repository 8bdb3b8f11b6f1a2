// Kernel crash and binary dump reports: the kernel's oops left by the last
// boot, sent once, and user-space crashes, out-of-memory kills and RAM dumps
// whose binary dump may follow to an upload address the service returns.
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <trel/core.h>
#include <trel/http.h>
#include <trel/telemetry.h>

#include "core/log.h"
#include "core/path_root.h"
#include "core/raii.h"
#include "telemetry/crash_internal.h"
#include "telemetry/service.h"

using namespace trel::telemetry;

namespace {

constexpr char kCrash[] = "crash";
constexpr char kSentMarker[] = "/var/run/last-crashlog.sent";
constexpr size_t kResponseMax = 2048;

// Kept: asked once per process: -1 not asked yet, then 1 (an oops is pending)
// or 0; only oops_clear changes it.
int g_oops = -1;

const char *dump_type_name(int dump_type) noexcept {
    static constexpr const char *kNames[] = {"core-dump", "app-crash", "oom-kill", "ram-dump"};
    return dump_type >= 0 && dump_type <= 3 ? kNames[dump_type] : "unknown";
}

// Text the shell would take literally between double quotes.
bool quotable(const char *text) noexcept { return strpbrk(text, "\"$`\\\n") == nullptr; }

// The crashed process's last lines of the system log.
void add_process_stdout(json_t *payload, const char *text, int pid) noexcept {
    char messages[PATH_MAX];
    if (!quotable(text) || !shell_file_path("/var/log/messages", messages, sizeof messages)) {
        TREL_WARN(kCrash, "Not capturing the log lines of '%s': not usable in a command", text);
        json_object_set_new(payload, "process_stdout", json_string(""));
        return;
    }
    trel::MallocPtr<char> command(malloc_printf(
        "tail -n 100 %s | grep -e \"%s\\[%d\\]\" | syswrapper.sh sensitive-data-filter", messages,
        text, pid));
    if (!command) {
        json_object_set_new(payload, "process_stdout", json_string(""));
        return;
    }
    json_object_capture_popen(payload, "process_stdout", command.get());
}

// PUTs the dump to the address the service gave: 0 on HTTP 200, else -1.
int upload_file(const char *url, const void *data, int size) noexcept {
    curl_simple_response *response = curl_simple_response_init(kResponseMax);
    if (response == nullptr) {
        TREL_ERR(kCrash, "Failed to allocate curl response");
        return -1;
    }
    int result = -1;
    CURLcode rc = curl_simple_put(url, 0, nullptr, data, size, response);
    if (rc != CURLE_OK)
        TREL_WARN(kCrash, "PUT '%s' failed: [%d] %s", url, static_cast<int>(rc),
                  curl_easy_strerror(rc));
    else if (response->status != 200)
        TREL_WARN(kCrash, "PUT '%s' failed: [%ld] %s", url, response->status,
                  response_text(response));
    else
        result = 0;
    curl_simple_response_free(response);
    return result;
}

}  // namespace

TREL_API int has_oops(void) noexcept {
    if (g_oops == -1) g_oops = system("oopsdump -e") == 0 ? 1 : 0;
    return g_oops;
}

TREL_API int oops_clear(void) noexcept {
    // The oops text goes to the library's file: the rooted one under
    // LIBTREL_ROOT.
    char saved[PATH_MAX];
    char command[PATH_MAX + 16];
    if (shell_file_path("/var/run/last-crashlog.txt", saved, sizeof saved)) {
        snprintf(command, sizeof command, "oopsdump > %s", saved);
        int saved_rc = system(command);
        (void)saved_rc;  // only the clearing's status is reported
    }
    int rc = system("oopsdump -c");
    g_oops = 0;
    return rc;
}

TREL_API int send_kernel_crash(void) noexcept {
    if (!has_oops()) {
        TREL_ERR(kCrash, "Tried processing a crash when no crash was found");
        return -1;
    }
    if (!crash_reporting_ready()) return -ENOENT;
    if (trel::path_access(kSentMarker, F_OK) == 0) {
        TREL_DBG(kCrash, "Kernel crashlog already sent to analytics");
        return 0;
    }
    TREL_INFO(kCrash, "Processing kernel crash");
    char url[kCrashUrlSize];
    if (build_crash_report_url(url, "kernel-crash") != 0) {
        TREL_ERR(kCrash, "URL truncated");
        return -ESRCH;
    }
    trel::JsonRef payload(
        generate_common_payload("oopsdump | syswrapper.sh sensitive-data-filter", 1));
    if (!payload) {
        TREL_ERR(kCrash, "Failed to generate kernel crash payload");
        return -EINTR;
    }
    json_object_set_new(payload.get(), "source", json_string("oopsdump"));
    json_object_set_new(payload.get(), "sender", json_string("firmware"));
    int rc = post_crash(url, payload.get(), nullptr);
    if (rc != 0) {
        TREL_WARN(kCrash, "Failed to process kernel crash: %d", rc);
        return -EIO;
    }
    touch_file(kSentMarker, 0644);
    return 0;
}

TREL_API int send_crash_binary_data(const char *text, int pid, int signal, int number_of_crashes,
                                    int process_uptime, const void *data, int size,
                                    int dump_type) noexcept {
    const bool upload_allowed = freadlong("/var/run/system.analytics.coredump", 0) == 1;
    const bool has_dump = data != nullptr && size > 0;
    if (!crash_reporting_ready()) return -1;
    char url[kCrashUrlSize];
    if (build_crash_report_url(url, "crash") != 0) {
        TREL_DBG2(kCrash, "URL truncated");
        return -1;
    }
    const bool ram_dump = dump_type == TREL_DUMP_RAM;
    // The system log is the library's file: under LIBTREL_ROOT the rooted one.
    char messages[PATH_MAX];
    trel::MallocPtr<char> tail;
    if (!ram_dump && shell_file_path("/var/log/messages", messages, sizeof messages))
        tail.reset(malloc_printf("tail -n 100 %s | syswrapper.sh sensitive-data-filter", messages));
    trel::JsonRef payload(generate_common_payload(
        ram_dump ? "logread | grep -i \"collecting ramdump\" -B 200 | syswrapper.sh "
                   "sensitive-data-filter"
                 : tail.get(),
        ram_dump));
    if (!payload) {
        TREL_ERR(kCrash, "Failed to generate core dump payload");
        return -1;
    }
    json_t *p = payload.get();
    if (text == nullptr) text = "";
    json_object_set_new(p, "type", json_string(dump_type_name(dump_type)));
    json_object_set_new(p, "upload", json_boolean(has_dump && upload_allowed));
    if (ram_dump) {
        json_object_set_new(p, "dump_type", json_string(text));
    } else {
        json_object_set_new(p, "cmd", json_string(text));
        json_object_set_new(p, "signal", json_integer(signal));
        json_object_set_new(p, "number_of_crashes", json_integer(number_of_crashes));
        json_object_set_new(p, "process_uptime", json_integer(process_uptime));
        add_process_stdout(p, text, pid);
    }

    // Kept: with a dump the answer is asked for even when the upload is not
    // allowed, so an answer that is no JSON fails the call all the same.
    json_t *answer = nullptr;
    int rc = post_crash(url, p, has_dump ? &answer : nullptr);
    payload.reset();
    trel::JsonRef response(answer);
    if (rc != 0) return -1;
    if (!has_dump) return 0;
    if (!upload_allowed) {
        TREL_INFO(kCrash, "Binary dump upload disabled by system settings");
        return 0;
    }
    const char *upload_url = json_string_value(json_object_get(response.get(), "upload_url"));
    if (upload_url == nullptr) {
        TREL_WARN(kCrash, "No upload_url in response");
        return 0;
    }
    return upload_file(upload_url, data, size);
}

TREL_API int send_ram_dump(const char *text, const void *data, int size) noexcept {
    return send_crash_binary_data(text, 0, 0, 0, 0, data, size, TREL_DUMP_RAM);
}
