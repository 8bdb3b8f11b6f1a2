// The common payload of every crash report.  Also built into the trel tool,
// which shows it without sending anything.
#include <limits.h>
#include <stdint.h>
#include <string.h>
#include <sys/utsname.h>
#include <time.h>

#include <trel/core.h>
#include <trel/device.h>
#include <trel/telemetry.h>

#include "core/log.h"
#include "core/path_root.h"
#include "core/raii.h"
#include "telemetry/crash_internal.h"

namespace trel::telemetry {

namespace {

constexpr char kCrash[] = "crash";
constexpr char kSystemInfo[] = "/proc/trelhal/system.info";
constexpr char kSystemCfg[] = "/tmp/system.cfg";

void set_text(json_t *object, const char *key, const char *text) noexcept {
    json_object_set_new(object, key, json_string(text));
}

// Characters a file name may hold inside a command without quoting.
bool shell_plain(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           strchr("/._-+,:@=", c) != nullptr;
}

}  // namespace

bool shell_file_path(const char *logical, char *out, size_t size) noexcept {
    trel::RootedPath real(logical);
    if (!real || strlen(real.c_str()) >= size) return false;
    for (const char *p = real.c_str(); *p != '\0'; p++)
        if (!shell_plain(*p)) return false;
    strcpy(out, real.c_str());
    return true;
}

json_t *generate_common_payload(const char *crash_log_command, int with_system_cfg) noexcept {
    json_t *payload = json_object();
    if (payload == nullptr) return nullptr;
    set_text(payload, "product_line", "network");
    char text[65];
    freadvalue(kSystemCfg, "morna.anonymous_controller_id", text, 64, "");
    if (text[0] != '\0') set_text(payload, "anonymous_controller_id", text);
    freadvalue(kSystemCfg, "morna.anonymous_site_id", text, 64, "");
    if (text[0] != '\0') set_text(payload, "anonymous_site_id", text);
    freadvalue(kSystemInfo, "device.anonid", text, sizeof text, "");
    if (text[0] != '\0') set_text(payload, "anonymous_device_id", text);
    struct utsname uts;
    if (uname(&uts) == 0) {
        set_text(payload, "kernel_version", uts.release);
        set_text(payload, "architecture", uts.machine);
    }
    char number[16];
    snprintf(number, sizeof number, "%d", get_boardrevision(kSystemInfo));
    set_text(payload, "bomrev", number);
    snprintf(number, sizeof number, "%d", static_cast<int>(get_manufid()));
    set_text(payload, "manufacturer_id", number);
    const trel_board *board = board_identify();
    set_text(payload, "model", board != nullptr && board->name != nullptr ? board->name : "");
    const char *version = nullptr;
    int rc = get_version(&version);
    if (rc != 0) TREL_WARN(kCrash, "Couldn't obtain firmware version! error code = %d", rc);
    set_text(payload, "version", version);
    // Kept: a JSON boolean here, where traces carry the text "true"/"false":
    // each service gets the type it expects.
    json_object_set_new(payload, "is_default",
                        json_boolean(system_is_xxx("/proc/trelhal/status/IsDefault", 0)));
    json_object_set_new(payload, "uptime",
                        json_integer(static_cast<json_int_t>(get_uptime_from_sysinfo())));
    // Kept: cut to a signed 32-bit value.
    auto boot =
        static_cast<int32_t>(static_cast<uint32_t>(time(nullptr) - get_uptime_from_sysinfo()));
    json_object_set_new(payload, "boot_time", json_integer(boot));
    freadvalue(kSystemCfg, "morna.version", text, 64, "unknown");
    set_text(payload, "controller_version", text);
    char now[64];
    if (get_system_time_str(now, sizeof now) == 0) set_text(payload, "system_time", now);
    json_object_capture_popen(payload, "crash_log", crash_log_command);
    if (with_system_cfg) {
        // The configuration file is the library's own: under LIBTREL_ROOT the
        // command reads the rooted one.
        static constexpr char kFilter[] = "syswrapper.sh systemcfg-sensitive-data-filter";
        char cfg[PATH_MAX];
        char command[PATH_MAX + sizeof kFilter + 8];
        if (shell_file_path(kSystemCfg, cfg, sizeof cfg)) {
            snprintf(command, sizeof command, "cat %s | %s", cfg, kFilter);
            json_object_capture_popen(payload, "system_cfg", command);
        } else {
            TREL_WARN(kCrash, "Failed to capture the output of command cat %s | %s", kSystemCfg,
                      kFilter);
            set_text(payload, "system_cfg", "");
        }
    }
    return payload;
}

}  // namespace trel::telemetry
