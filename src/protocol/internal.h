// Pieces shared by the service and the client.
#pragma once

#include <trel/cfg.h>
#include <trel/protocol.h>

#include "core/log.h"

// Logs under module "trel_protocol" with an explicit origin, behind the usual
// level test.
#define TREL_PROTO_LOG(threshold, priority, function, ...)                     \
    do {                                                                       \
        if (libtrel_log_level > (threshold))                                   \
            libtrel_log((priority), "trel_protocol", (function), __VA_ARGS__); \
    } while (0)

namespace trel::proto {

constexpr const char kModule[] = "trel_protocol";

// Zeroes the control record and marks it socket-less.
void reset_ctrl() noexcept;
// Loads this device's MAC from the hardware driver's serial number.
void load_mac() noexcept;
// Parses the settings file at path and loads "morna.key" into the record.
// The group text (null when absent) is returned in *mcip and points into
// *cfg, which the caller frees (also on failure).  A missing group fails
// only when mcip_required; otherwise it is reported at info level.  Messages
// carry origin as their function name.
bool load_settings(const char *origin, const char *path, bool mcip_required, cfg_entry **cfg,
                   const char **mcip) noexcept;

}  // namespace trel::proto
