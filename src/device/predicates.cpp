// Model predicates over the identified board's system id.
#include <string.h>

#include <trel/device.h>

#include "core/api.h"
#include "core/path_root.h"
#include "device/model_data.h"

using namespace trel::device;

namespace {

uint16_t sysid() noexcept { return board_identify()->system_id; }

}  // namespace

TREL_API uint32_t is_gen1(void) noexcept { return kGen1.contains(sysid()); }
TREL_API uint32_t is_gen2(void) noexcept { return kGen2.contains(sysid()); }
TREL_API uint32_t is_gen3_QV(void) noexcept { return kGen3QV.contains(sysid()); }
TREL_API uint32_t is_single_5ghz_gen3(void) noexcept { return kSingle5GhzGen3.contains(sysid()); }
TREL_API uint32_t is_gen3(void) noexcept { return is_single_5ghz_gen3() || is_gen3_QV(); }
TREL_API uint32_t is_kx(void) noexcept { return sysid() == kKx; }

TREL_API uint32_t is_kx_setup_complete(void) noexcept {
    char buf[8];
    freadvalue("/etc/persistent/cfg/mgmt", "mgmt.is_setup_completed", buf, sizeof buf, "false");
    return strcmp(buf, "false") != 0;
}

TREL_API uint32_t is_router_to_mesh(void) noexcept {
    uint16_t id = sysid();
    if (id == kKx) {
        struct stat st;
        return trel::path_stat("/etc/meshmode.conf", &st) == 0;
    }
    return id == kRouterToMesh;
}

TREL_API uint32_t is_wul_supported(void) noexcept { return 0; }
TREL_API uint32_t is_dax5(void) noexcept { return kDax5.contains(sysid()); }
TREL_API uint32_t is_dax6(void) noexcept { return kDax6.contains(sysid()); }
TREL_API uint32_t is_dax7(void) noexcept { return kDax7.contains(sysid()); }

TREL_API uint32_t is_dax6_tb_aqr112c(void) noexcept {
    const trel_board *b = board_identify();
    // Kept: revision 21 and those above 22 answer 0: they have another PHY.
    return b->system_id == kDax6TbAqr112c && (b->boardrevision < 21 || b->boardrevision == 22);
}

TREL_API uint32_t is_dax6_enterprise(void) noexcept { return (sysid() & ~0x2u) == kDax6Enterprise; }
TREL_API uint32_t is_dax6_birch_iw(void) noexcept { return (sysid() & ~0x4u) == kDax6BirchIw; }
TREL_API uint32_t is_daxac_iw(void) noexcept { return (sysid() & ~0x10u) == kDaxAcIw; }
TREL_API uint32_t is_6ghz_supported(void) noexcept { return k6Ghz.contains(sysid()); }

TREL_API uint32_t is_qca_ap(void) noexcept {
    return is_gen2() || is_gen3() || is_dax6() || is_dax7();
}

TREL_API uint32_t is_wifi_only(void) noexcept { return kWifiOnly.contains(sysid()); }

TREL_API uint32_t is_force_detect_loop(void) noexcept {
    uint16_t id = sysid();
    return id == kForceDetectLoop || id == kForceDetectLoop + 1;
}
