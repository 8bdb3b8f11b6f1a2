// Helpers shared by the telemetry tests.
#pragma once

#include <stdlib.h>

#include <initializer_list>
#include <memory>
#include <string>

#include <jansson.h>
#include <libtrel.h>

#include "trel_test.h"

namespace telemetry_test {

struct JsonDeleter {
    void operator()(json_t *v) const { json_decref(v); }
};
// One owned reference.
using Json = std::unique_ptr<json_t, JsonDeleter>;

inline Json json_of(const std::string &text) {
    json_error_t err;
    return Json(json_loads(text.c_str(), 0, &err));
}

inline std::string dump(const json_t *v) {
    char *text = json_dumps(v, JSON_COMPACT | JSON_ENCODE_ANY);
    std::string out = text ? text : "<null>";
    free(text);
    return out;
}

// The members of got that want names (those got has), as a new object.
inline Json pick(const json_t *got, const json_t *want) {
    Json out(json_object());
    const char *key;
    json_t *v;
    json_object_foreach(const_cast<json_t *>(want), key, v) {
        if (json_t *g = json_object_get(got, key)) json_object_set(out.get(), key, g);
    }
    return out;
}

// The members keys of o as one compact array (null for a missing one).
inline std::string values(const json_t *o, std::initializer_list<const char *> keys) {
    Json a(json_array());
    for (const char *key : keys) {
        json_t *v = json_object_get(o, key);
        json_array_append(a.get(), v != nullptr ? v : json_null());
    }
    return dump(a.get());
}

// A device whose texts go beyond the room kept for them (63 or 64
// characters, the manufacturing week 7), with a key the configuration
// filter masks.
inline const std::string kVersion(70, 'v'), kController(70, 'c'), kDevice(70, 'd');
inline void write_device(const trel_test::TempRoot &root, const std::string &anonid = kDevice,
                         bool site = true) {
    root.write("/proc/trelhal/system.info",
               "vendorid=0x7a1e\nsystemid=0xee7c\nboardrevision=12\nmanufid=00a1\n"
               "mfgweek=23310999\ndevice.anonid=" +
                   anonid + "\n");
    root.write("/tmp/system.cfg", "morna.key=abcdef\nmorna.version=" + kVersion +
                                      "\nmorna.anonymous_controller_id=" + kController + "\n" +
                                      (site ? "morna.anonymous_site_id=s\n" : ""));
    root.write("/usr/etc/.version", "6.0.1\n");
    root.write("/usr/etc/.build", "77\n");
    root.write("/proc/trelhal/status/IsDefault", "true\n");
}

// The system wrapper's two filters, as a fake "syswrapper.sh" on PATH: the
// log filter masks "hunter2", the configuration filter every value of a key
// ending in "key".
inline const char kFilterScript[] =
    "case \"$1\" in\n"
    "sensitive-data-filter) sed 's/hunter2/*******/g' ;;\n"
    "systemcfg-sensitive-data-filter) sed 's/^\\([^=]*key=\\).*/\\1***/' ;;\n"
    "*) echo \"$@\" >> \"$LIBTREL_ROOT/syswrapper.log\" ;;\n"
    "esac\n";

}  // namespace telemetry_test
