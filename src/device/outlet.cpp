// Outlet and power-supply reports: this build has neither.
#include <trel/device.h>

#include "core/api.h"

TREL_API json_t *trel_outlet_get_outlet_status_json(void) noexcept { return nullptr; }

TREL_API int trel_outlet_status_update_json_payload(json_t *payload) noexcept {
    json_t *status = trel_outlet_get_outlet_status_json();
    if (status == nullptr || payload == nullptr) {
        json_decref(status);
        return 0;
    }
    int rc = json_object_update(payload, status);
    json_decref(status);
    return rc;
}

TREL_API int trel_psu_get_json_psu_table(json_t *table) noexcept {
    (void)table;
    return 0;
}
