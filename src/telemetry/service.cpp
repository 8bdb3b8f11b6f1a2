#include "telemetry/service.h"

#include <stdlib.h>

#include <trel/device.h>

namespace trel::telemetry {

const char *service_base_url(const char *const (&urls)[3], const char *env_var) noexcept {
    int env = get_vesk_env_limit_prod();
    const char *base = urls[env == TREL_VESK_ENV_STAGE ? 1 : env == TREL_VESK_ENV_DEV ? 2 : 0];
    const char *over = secure_getenv(env_var);
    return over != nullptr && over[0] != '\0' ? over : base;
}

const char *response_text(curl_simple_response *response) noexcept {
    if (response == nullptr || response->body == nullptr) return "";
    buffer *body = response->body;
    if (body->append(body, "", 1) != 1) return "";
    return static_cast<const char *>(body->data(body));
}

}  // namespace trel::telemetry
