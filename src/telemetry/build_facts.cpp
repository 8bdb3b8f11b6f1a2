// Build facts of the firmware image, read from "/usr/lib/build.properties".
#include <string.h>
#include <unistd.h>

#include <trel/core.h>
#include <trel/telemetry.h>

#include "core/api.h"
#include "core/path_root.h"

namespace {

constexpr char kBuildFacts[] = "/usr/lib/build.properties";

}  // namespace

TREL_API int get_build_time(char *buf, int size) noexcept {
    if (buf == nullptr || size <= 0) return -1;
    if (trel::path_access(kBuildFacts, F_OK) != 0) return -1;
    char date[12] = {};
    char time[12] = {};
    freadvalue(kBuildFacts, "build_date", date, sizeof date, "");
    freadvalue(kBuildFacts, "build_time", time, sizeof time, "");
    snprintf(buf, static_cast<size_t>(size), "%s %s", date, time);
    return 0;
}

TREL_API int get_trel_scm_reftype(void) noexcept {
    char reftype[16];
    freadvalue(kBuildFacts, "scm_reftype", reftype, sizeof reftype, "unknown");
    if (strcmp(reftype, "atag") == 0) return 1;
    if (strcmp(reftype, "branch") == 0) return 2;
    return 0;
}
