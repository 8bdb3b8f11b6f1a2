// What the crash senders share (kernel crash and binary dumps, isolation
// logs): readiness, the service URL, the common payload and the POST.
#pragma once

#include <stddef.h>

#include <jansson.h>

namespace trel::telemetry {

// Room for a crash-report URL, terminator included.
constexpr size_t kCrashUrlSize = 128;

// 1 when time is synchronised ("/var/run/ntp.ready"), the bridge has its
// address ("/var/run/ipready.br0") and analytics is not switched off.
int crash_reporting_ready() noexcept;

// "<base>/v1/<kind>" into url: 0, or the length it would have needed when
// that is 128 characters or more (callers log "URL truncated").
int build_crash_report_url(char (&url)[kCrashUrlSize], const char *kind) noexcept;

// The payload every crash report carries (device identity, firmware,
// uptime, clock), plus the captured output of crash_log_command (may be
// null) and, when with_system_cfg is non-zero, the filtered configuration.
// Null only when the object cannot be made.
json_t *generate_common_payload(const char *crash_log_command, int with_system_cfg) noexcept;

// POSTs payload to url and keeps a copy of it ("/var/run/report_payload.txt")
// whatever the status.  0 on HTTP 200, else -1.  With response_out, the
// answer must be JSON: *response_out gets it (the caller releases it).
int post_crash(const char *url, json_t *payload, json_t **response_out) noexcept;

// A file of the library named inside a shell command: the path where the
// file really is (beneath LIBTREL_ROOT when set), copied into out.  False
// when it does not fit or holds a character the shell would read as more
// than a file name.
bool shell_file_path(const char *logical, char *out, size_t size) noexcept;

}  // namespace trel::telemetry
