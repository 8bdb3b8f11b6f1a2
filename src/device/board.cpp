// Board identification: the board record from the hardware driver's files,
// the "Unknown" record from the PCI bus, PoE and PHY helpers, BOM revision,
// accelerometer and EEPROM.
#include <byteswap.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <trel/device.h>

#include "core/log.h"
#include "core/path_root.h"
#include "core/raii.h"
#include "core/text.h"
#include "device/board_rules.h"
#include "device/keyed_file.h"
#include "device/model_data.h"

using namespace trel::device;

namespace {

constexpr char kModule[] = "libtrel";
constexpr char kSystemInfo[] = "/proc/trelhal/system.info";
constexpr char kHalBoard[] = "/proc/trelhal/board";
constexpr char kAccelDir[] = "/sys/bus/i2c/devices/1-0018/iio:device0/";
constexpr size_t kEepromSize = 65536;

trel_board *g_board_copy;  // get_board's heap record
trel_board *g_morna;       // morna_identify's cache
trel_board *g_cached;      // board_identify's cache

trel_radio g_radio_template;
trel_board g_unknown = {
    .name = "Unknown",
    .cpuid = 0xFFFFFFFFu,
    .cpu_mac = {},
    .num_port_groups = 0,
    .port_groups = {},
    .num_radios = 0,
    .radios = {},
    .system_id = 0,
    .poe_budget = 0,
    .poe_reserved = 0,
    .fw_compat = 0,
    .hw_cpuid = 0xFFFFFFFFu,
    .boardrevision = -1,
    .country = 0,
    .platform = "",
};

struct pci_device {
    uint8_t bus, slot, function;
    uint16_t vendor, device;
    uint32_t irq;
    uint16_t subsys_device, subsys_vendor;
    uint8_t revision;
};

}  // namespace

// Up to max devices of the given PCI vendor; 0xFFFFFFFF when the device list
// cannot be read.
static uint32_t pci_detect(pci_device *out, uint32_t max, uint16_t vendor) noexcept {
    trel::UniqueFile f(trel::path_fopen("/proc/bus/pci/devices", "r"));
    if (!f) return 0xFFFFFFFFu;
    char line[512];
    uint32_t n = 0;
    while (n < max && fgets(line, sizeof line, f.get()) != nullptr) {
        unsigned int bdf, ids, irq;
        if (sscanf(line, "%x %x %x", &bdf, &ids, &irq) != 3) continue;
        if ((ids >> 16) != vendor) continue;
        pci_device &d = out[n++];
        d = pci_device{};
        d.bus = static_cast<uint8_t>(bdf >> 8);
        d.slot = (bdf >> 3) & 31;
        d.function = bdf & 7;
        d.vendor = static_cast<uint16_t>(ids >> 16);
        d.device = static_cast<uint16_t>(ids & 0xFFFF);
        d.irq = irq;
    }
    f.reset();
    for (uint32_t i = 0; i < n; i++) {
        pci_device &d = out[i];
        char path[64];
        snprintf(path, sizeof path, "/proc/bus/pci/%02x/%02x.%d", d.bus, d.slot, d.function);
        trel::UniqueFd fd(trel::path_open(path, O_RDONLY | O_CLOEXEC));
        if (!fd) continue;
        uint16_t v = 0;
        if (pread(fd.get(), &v, 2, 46) == 2) d.subsys_device = bswap_16(v);
        v = 0;
        if (pread(fd.get(), &v, 2, 44) == 2) d.subsys_vendor = bswap_16(v);
        uint8_t rev = 0;
        if (pread(fd.get(), &rev, 1, 8) == 1) d.revision = rev;
    }
    return n;
}

int trel::device::last_keyed_piece(const char *path, const char *prefix, char *out,
                                   size_t size) noexcept {
    trel::UniqueFile f(trel::path_fopen(path, "r"));
    if (!f) return -1;
    char line[255];
    size_t plen = strlen(prefix);
    int found = 0;
    while (fgets(line, sizeof line, f.get()) != nullptr) {
        line[strcspn(line, "\r\n")] = '\0';
        if (strncmp(line, prefix, plen) != 0) continue;
        char *save = nullptr;
        const char *last = "";
        for (char *tok = strtok_r(line, "=", &save); tok != nullptr;
             tok = strtok_r(nullptr, "=", &save))
            last = tok;
        trel::copy_text(out, size, last);
        found = 1;
    }
    return found;
}

// Fills a copied table row from "system.info".
static void fill_board_from_sysinfo(trel_board *b) noexcept {
    b->cpuid = b->hw_cpuid = 0xFFFFFFFFu;
    b->boardrevision = -1;
    b->country = 0;
    trel::UniqueFile f(trel::path_fopen(kSystemInfo, "r"));
    if (f) {
        char line[256];
        while (fgets(line, sizeof line, f.get()) != nullptr) {
            unsigned int u;
            int i;
            unsigned short h;
            char text[256];
            if (sscanf(line, "cpuid=%x\n", &u) == 1) {
                b->cpuid = b->hw_cpuid = u;
            } else if (sscanf(line, "serialno=%255s\n", text) == 1) {
                unsigned int m[6];
                int got =
                    sscanf(text, "%2x%2x%2x%2x%2x%2x", &m[0], &m[1], &m[2], &m[3], &m[4], &m[5]);
                for (int k = 0; k < got && k < 6; k++) b->cpu_mac[k] = static_cast<uint8_t>(m[k]);
            } else if (sscanf(line, "boardrevision=%d\n", &i) == 1) {
                b->boardrevision = i;
            } else if (sscanf(line, "countrycode=%hu\n", &h) == 1) {
                b->country = h;
            } else if (sscanf(line, "regdmn[0]=%hx\n", &h) == 1) {
                if (h & 0x8000)
                    b->country = h & 0x3FFF;
                else
                    b->country = h == 0x2A ? 840 : 0;
            } else if (sscanf(line, "regdmn[]=%255s\n", text) == 1) {
                if (strstr(text, "002a") != nullptr) b->country = 840;
            }
        }
    }
    apply_fw_compat(b, morna_get_bomrev);
}

static trel_board *build_unknown_board() noexcept {
    {
        trel::UniqueFile cpuinfo(trel::path_fopen("/proc/cpuinfo", "r"));
        (void)cpuinfo_arch_type(cpuinfo.get());  // Kept: unused, the read keeps its place
    }
    trel_board *b = &g_unknown;
    b->num_radios = 0;
    pci_device devs[TREL_BOARD_MAX_RADIOS];
    uint32_t n = pci_detect(devs, TREL_BOARD_MAX_RADIOS, kRadioPciVendor);
    if (n == 0xFFFFFFFFu) n = 0;
    for (uint32_t i = 0; i < n && i < TREL_BOARD_MAX_RADIOS; i++) {
        g_radio_template.pci_vendor_id = devs[i].vendor;
        g_radio_template.pci_device_id = devs[i].device;
        b->radios[b->num_radios++] = g_radio_template;
    }
    TREL_DBG(kModule, "no known board, %u radio(s) on the PCI bus", b->num_radios);
    return b;
}

TREL_API int board_identify_ids(uint16_t *vendor_id, uint16_t *system_id) noexcept {
    trel::UniqueFile f(trel::path_fopen(kSystemInfo, "r"));
    if (!f) return -ENOENT;
    char line[256];
    bool have_vendor = false, have_system = false;
    while (fgets(line, sizeof line, f.get()) != nullptr) {
        unsigned int v;
        if (sscanf(line, "vendorid=%x\n", &v) == 1) {
            if (vendor_id != nullptr) *vendor_id = static_cast<uint16_t>(v);
            have_vendor = true;
        } else if (sscanf(line, "systemid=%x\n", &v) == 1) {
            if (system_id != nullptr) *system_id = static_cast<uint16_t>(v);
            have_system = true;
        }
    }
    return have_vendor && have_system ? 0 : -1;
}

TREL_API const trel_board *morna_get_board(uint16_t system_id) noexcept {
    for (const trel_board &row : kBoardTable)
        if (row.system_id == system_id) return &row;
    return nullptr;
}

TREL_API trel_board *get_board(void) noexcept {
    uint16_t vendor = 0, system = 0;
    if (board_identify_ids(&vendor, &system) != 0 || vendor != kMakerVendorId) return nullptr;
    const trel_board *row = morna_get_board(system);
    if (row == nullptr) return nullptr;
    if (g_board_copy == nullptr) {
        g_board_copy = static_cast<trel_board *>(malloc(sizeof(trel_board)));
        if (g_board_copy == nullptr) {
            TREL_ERR_MALLOC(kModule, sizeof(trel_board));
            return nullptr;
        }
    }
    memcpy(g_board_copy, row, sizeof(trel_board));
    fill_board_from_sysinfo(g_board_copy);
    return g_board_copy;
}

TREL_API trel_board *morna_identify(void) noexcept {
    if (g_morna == nullptr) g_morna = get_board();
    return g_morna;
}

TREL_API const char *morna_identify_platform(const char *code) noexcept {
    if (code == nullptr) return nullptr;
    for (const trel_board &row : kBoardTable)
        if (row.platform != nullptr && strcmp(row.platform, code) == 0) return row.name;
    return nullptr;
}

TREL_API const char *board_identify_platform(const char *code) noexcept {
    return morna_identify_platform(code);
}

TREL_API trel_board *board_identify(void) noexcept {
    if (g_cached == nullptr) {
        g_cached = morna_identify();
        if (g_cached == nullptr) g_cached = build_unknown_board();
    }
    return g_cached;
}

TREL_API void update_cached_board(trel_board *board) noexcept { g_cached = board; }

TREL_API const char *map_board_name(const trel_board *board) noexcept {
    if (board == nullptr) return nullptr;
    if (board->num_radios > 0) {
        for (const NameMapRow &row : kNameMap)
            if (board->system_id == row.key_a && board->radios[0].pci_device_id == row.key_b)
                return row.name;
    }
    return board->name;
}

TREL_API int board_get_poe_budget(void) noexcept {
    const trel_board *b = board_identify();
    if (b == nullptr || b->poe_budget == 0) return 0;
    int budget = int{b->poe_budget} - int{b->poe_reserved};
    return budget < 0 ? 0 : budget;
}

TREL_API int board_has_poe(void) noexcept { return board_get_poe_budget() != 0; }

TREL_API int board_get_cpu_mac(uint8_t *mac) noexcept {
    const trel_board *b = board_identify();
    if (b == nullptr || mac == nullptr) return -1;
    memcpy(mac, b->cpu_mac, sizeof b->cpu_mac);
    return 0;
}

static bool is_main_label(const char *label) noexcept {
    return label != nullptr && (strcmp(label, "Main") == 0 || strcmp(label, "PoE In + Data") == 0);
}

TREL_API trel_board_port *get_main_phy(void) noexcept {
    trel_board *b = board_identify();
    if (b == nullptr) return nullptr;
    for (int g = 0; g < b->num_port_groups && g < TREL_BOARD_MAX_PORT_GROUPS; g++) {
        trel_board_port_group &group = b->port_groups[g];
        if (group.num_ports == 1) return &group.ports[0];
        for (int p = 0; p < group.num_ports && p < TREL_BOARD_MAX_PORTS; p++)
            if (is_main_label(group.ports[p].label)) return &group.ports[p];
    }
    return nullptr;
}

TREL_API int get_main_phy_port_id(void) noexcept {
    const trel_board_port *p = get_main_phy();
    return p != nullptr ? p->port_id : -1;
}

TREL_API int get_main_phy_idx(void) noexcept {
    const trel_board_port *p = get_main_phy();
    return p != nullptr ? p->phy_idx : -1;
}

TREL_API int get_phy_port_id_by_idx(int idx) noexcept {
    const trel_board *b = board_identify();
    if (b == nullptr) return -1;
    for (int g = 0; g < b->num_port_groups && g < TREL_BOARD_MAX_PORT_GROUPS; g++) {
        const trel_board_port_group &group = b->port_groups[g];
        for (int p = 0; p < group.num_ports && p < TREL_BOARD_MAX_PORTS; p++)
            if (group.ports[p].phy_idx == idx) return group.ports[p].port_id;
    }
    return -1;
}

TREL_API int get_num_of_eth_ports(void) noexcept {
    const trel_board *b = board_identify();
    if (b == nullptr) return 0;
    int n = 0;
    for (int g = 0; g < b->num_port_groups && g < TREL_BOARD_MAX_PORT_GROUPS; g++)
        n += b->port_groups[g].num_ports;
    return n;
}

TREL_API int has_accelerometer(void) noexcept {
    trel::UniqueDir d(trel::path_opendir(kAccelDir));
    return d ? 1 : 0;
}

TREL_API json_t *prepare_accelerometer_status(void) noexcept {
    char path[128];
    snprintf(path, sizeof path, "%ssampling_frequency", kAccelDir);
    fwriteline(path, "50");
    trel::JsonRef obj(json_object());
    if (!obj) return nullptr;
    int value = 0;  // Kept: not reset; a failed axis repeats the previous one
    static constexpr const char *kAxes[] = {"x", "y", "z"};
    for (const char *axis : kAxes) {
        char buf[8];
        snprintf(path, sizeof path, "%sin_accel_%s_raw", kAccelDir, axis);
        freadline(path, buf, sizeof buf, "");
        sscanf(buf, "%d", &value);
        if (json_object_set_new(obj.get(), axis, json_integer(value)) != 0) return nullptr;
    }
    return obj.release();
}

TREL_API uint32_t morna_get_bomrev(void) noexcept {
    char text[255];
    if (last_keyed_piece(kHalBoard, "bomrev", text, sizeof text) != 1) return 0xFFFFFFFFu;
    return static_cast<uint32_t>(strtoul(text, nullptr, 16));
}

TREL_API uint32_t morna_get_hw_board_id(void) noexcept { return morna_get_bomrev() & ~0xFFu; }

TREL_API int morna_board_is_beta_firmware(const trel_board *board) noexcept {
    return board != nullptr && board->fw_compat == TREL_FW_COMPAT_BETA;
}

TREL_API int morna_board_has_qrcode(void) noexcept {
    char qrid[64];
    freadvalue(kSystemInfo, "qrid", qrid, sizeof qrid, "");
    return qrid[0] != '\0';
}

TREL_API int dax_is_supported_by_old_wifi(const trel_board *board) noexcept {
    return board != nullptr && kOldWifi.contains(board->system_id);
}

TREL_API int dax_is_supported_ble_fast_adopt(const trel_board *board) noexcept {
    return board != nullptr && kBleFastAdopt.contains(board->system_id);
}

TREL_API int arch_name_to_type(const char *name, size_t length) noexcept {
    static constexpr const char *kNames[] = {"ar2313", "ar2316", "ar7100", "ar7240", "ar933x"};
    if (name == nullptr || length != 6) return TREL_ARCH_UNKNOWN;
    for (int i = 0; i < 5; i++)
        if (strncasecmp(name, kNames[i], 6) == 0) return i;
    return TREL_ARCH_UNKNOWN;
}

TREL_API buffer *trel_read_eeprom(void) noexcept {
    trel::MallocPtr<unsigned char> staging(
        static_cast<unsigned char *>(calloc(1, kEepromSize + 1)));
    if (!staging) {
        TREL_ERR_CALLOC(kModule, 1, kEepromSize + 1);
        return nullptr;
    }
    trel::UniqueFd fd;
    bool found = false;
    if (trel::UniqueFile mtd{trel::path_fopen("/proc/mtd", "r")}) {
        char line[4096];
        char name[4096];
        while (fgets(line, sizeof line, mtd.get()) != nullptr) {
            int index;
            if (sscanf(line, "mtd%d: %*s %*s \"%[^\"]\"", &index, name) != 2) continue;
            if (strcasecmp(name, "EEPROM") != 0) continue;
            found = true;
            char dev[32];
            snprintf(dev, sizeof dev, "/dev/mtd%d", index);
            fd.reset(trel::path_open(dev, O_RDONLY | O_CLOEXEC));
            if (!fd) {
                snprintf(dev, sizeof dev, "/dev/mtd/%d", index);
                fd.reset(trel::path_open(dev, O_RDONLY | O_CLOEXEC));
            }
            break;
        }
    }
    if (!found) fd.reset(trel::path_open("EEPROM", O_RDONLY | O_CLOEXEC));
    if (!fd) return nullptr;
    if (read(fd.get(), staging.get(), kEepromSize) != static_cast<ssize_t>(kEepromSize))
        return nullptr;
    buffer *buf = buffer_create();
    if (buf == nullptr) return nullptr;
    if (buf->append(buf, staging.get(), kEepromSize) != kEepromSize) {
        buffer_destroy(buf);
        return nullptr;
    }
    return buf;
}
