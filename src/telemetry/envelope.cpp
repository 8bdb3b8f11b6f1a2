#include "telemetry/envelope.h"

#include <trel/core.h>
#include <trel/device.h>

#include "core/log.h"
#include "core/raii.h"

namespace trel::telemetry {

namespace {

constexpr char kTrace[] = "trace";
constexpr char kSystemInfo[] = "/proc/trelhal/system.info";
constexpr char kSystemCfg[] = "/tmp/system.cfg";

// Kept: "device.anonid" is read once for the life of the process (empty: not
// yet); a change shows only in a new process.
char g_device_anonid[65];

void set_text(json_t *object, const char *key, const char *text) noexcept {
    json_object_set_new(object, key, json_string(text));
}

// The outer meta: "timestamp", "type", "meta" with the device fields, and
// "source"; the options' values are shared, not copied.
json_t *trace_outer_meta_object(json_t *options) noexcept {
    const trel_board *board = board_identify();
    trel::JsonRef outer(json_object());
    if (!outer) return nullptr;
    json_t *timestamp = json_object_get(options, "timestamp");
    json_object_set_new(outer.get(), "timestamp",
                        timestamp != nullptr ? json_incref(timestamp)
                                             : json_integer(static_cast<json_int_t>(now_ms())));
    json_t *type = json_object_get(options, "type");
    json_object_set_new(outer.get(), "type",
                        type != nullptr ? json_incref(type) : json_string("event"));

    json_t *meta = json_object_get(options, "meta");
    meta = json_is_object(meta) ? json_incref(meta) : json_object();
    if (meta != nullptr) {
        set_text(meta, "model", board != nullptr && board->name != nullptr ? board->name : "");
        const char *version = nullptr;
        int rc = get_version(&version);
        if (rc != 0) TREL_WARN(kTrace, "Couldn't obtain firmware version! error code = %d", rc);
        set_text(meta, "version", version);
        char number[16];
        snprintf(number, sizeof number, "%d", get_boardrevision(kSystemInfo));
        set_text(meta, "board_rev", number);
        snprintf(number, 8, "%d", static_cast<int>(get_manufid()));
        set_text(meta, "manufacturer_id", number);
        char text[65];
        freadvalue(kSystemCfg, "morna.version", text, 64, "unknown");
        set_text(meta, "controller.version", text);
        // Kept: the text "true"/"false" here, a JSON boolean in crash payloads:
        // each service gets the type it expects.
        set_text(meta, "is_default",
                 system_is_xxx("/proc/trelhal/status/IsDefault", 0) ? "true" : "false");
        freadvalue(kSystemInfo, "mfgweek", text, 8, "2005");
        set_text(meta, "mfg_week", text);
        freadvalue(kSystemCfg, "morna.anonymous_controller_id", text, sizeof text, "");
        if (text[0] != '\0') set_text(meta, "anonymous_controller_id", text);
        freadvalue(kSystemCfg, "morna.anonymous_site_id", text, sizeof text, "");
        if (text[0] != '\0') set_text(meta, "anonymous_site_id", text);
        if (g_device_anonid[0] == '\0')
            freadvalue(kSystemInfo, "device.anonid", g_device_anonid, sizeof g_device_anonid,
                       "0000000000000000");
        set_text(meta, "anonymous_device_id", g_device_anonid);
    }
    // Without an inner object the device fields are left out; the envelope
    // still goes.
    json_object_set_new(outer.get(), "meta", meta);

    json_t *source = json_object_get(options, "source");
    json_object_set_new(outer.get(), "source",
                        json_is_object(source) ? json_incref(source) : json_object());
    return outer.release();
}

}  // namespace

json_t *trace_envelope_object(json_t *traces, json_t *options) noexcept {
    trel::JsonRef envelope(json_object());
    if (!envelope) {
        TREL_ERR(kTrace, "Failed to init envelope");
        return nullptr;
    }
    json_t *outer = trace_outer_meta_object(options);
    if (outer == nullptr) {
        TREL_ERR(kTrace, "Failed to create outer meta");
        return nullptr;
    }
    json_object_set_new(envelope.get(), "meta", outer);
    json_object_set(envelope.get(), "traces", traces);
    return envelope.release();
}

}  // namespace trel::telemetry
