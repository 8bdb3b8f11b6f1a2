// What the trace and crash senders share: the service base URL and the text
// of a response body.
#pragma once

#include <trel/http.h>

namespace trel::telemetry {

// The base URL for the environment get_vesk_env_limit_prod selects (1
// staging, 2 development, anything else production) from urls, indexed
// production, staging, development; the environment variable env_var
// (secure_getenv), when set and not empty, replaces it.
const char *service_base_url(const char *const (&urls)[3], const char *env_var) noexcept;

// The response body as a NUL-terminated text ("" when there is none or no
// room for the terminator).  The terminator is appended to the body.
const char *response_text(curl_simple_response *response) noexcept;

}  // namespace trel::telemetry
