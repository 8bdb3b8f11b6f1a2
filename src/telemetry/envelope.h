// The trace envelope: the caller's traces under an outer meta object that
// carries the device's identity.  Also built into the trel tool, which shows
// an envelope without sending it.
#pragma once

#include <stdint.h>
#include <sys/time.h>

#include <jansson.h>

namespace trel::telemetry {

// Wall-clock milliseconds since the epoch.
inline uint64_t now_ms() noexcept {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000 + static_cast<uint64_t>(tv.tv_usec) / 1000;
}

// A new envelope {"meta": outer meta, "traces": traces (shared)}, or null
// (logged) when it cannot be made.  options may be null; its "meta" object
// is filled with the device fields in place.
json_t *trace_envelope_object(json_t *traces, json_t *options) noexcept;

}  // namespace trel::telemetry
