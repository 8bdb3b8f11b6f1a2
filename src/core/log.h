// Logging guards used by every module of the library.  Each tier tests
// libtrel_log_level against its threshold before libtrel_log is called, and
// passes the module word and the calling function's name.
#pragma once

#include <trel/core.h>

#include "core/api.h"

#define TREL_LOG_AT(threshold, priority, module, ...)                                              \
    do {                                                                                           \
        if (libtrel_log_level > (threshold)) libtrel_log((priority), (module), __func__, __VA_ARGS__); \
    } while (0)

#define TREL_ERR(module, ...) TREL_LOG_AT(0u, 3, module, __VA_ARGS__)
#define TREL_WARN(module, ...) TREL_LOG_AT(1u, 4, module, __VA_ARGS__)
#define TREL_INFO(module, ...) TREL_LOG_AT(3u, 6, module, __VA_ARGS__)
#define TREL_DBG(module, ...) TREL_LOG_AT(7u, 7, module, __VA_ARGS__)
#define TREL_DBG2(module, ...) TREL_LOG_AT(15u, 7, module, __VA_ARGS__)

// Out-of-memory reports, with this source line.
#define TREL_ERR_MALLOC(module, size) TREL_ERR(module, "%d: malloc(%zu) failed", __LINE__, (size_t)(size))
#define TREL_ERR_CALLOC(module, n, size)                                                           \
    TREL_ERR(module, "%d: calloc(%zu, %zu) failed", __LINE__, (size_t)(n), (size_t)(size))
