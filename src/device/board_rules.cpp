#include "device/board_rules.h"

#include <string.h>

#include "device/model_data.h"

namespace trel::device {

namespace {

bool starts_with(const char *s, const char *prefix) noexcept {
    return s != nullptr && strncmp(s, prefix, strlen(prefix)) == 0;
}

uint32_t oui_version(uint32_t oui) noexcept {
    for (const OuiRow &row : kOuiTable) {
        if (row.version == TREL_FW_COMPAT_END) break;
        for (const uint32_t *o = row.ouis; *o != 0; o++)
            if (*o == oui) return row.version;
    }
    return kOuiDefault;
}

// The first row whose range holds rev.
// Kept: else the terminator's 0xFFFFFF, so that a revision outside every range
// is taken as supported by no firmware released so far.
uint32_t revision_version(const RevTable &table, int32_t rev) noexcept {
    for (const RevRow &row : table.rows)
        if (row.version == TREL_FW_COMPAT_END || (rev >= row.low && rev <= row.high))
            return row.version;
    return TREL_FW_COMPAT_END;
}

void raise(uint32_t &fw, uint32_t version) noexcept {
    if (fw < version) fw = version;
}

}  // namespace

uint32_t mac_oui(const uint8_t mac[6]) noexcept {
    return (uint32_t{mac[0]} << 16) | (uint32_t{mac[1]} << 8) | mac[2];
}

void apply_fw_compat(trel_board *b, uint32_t (*bomrev)()) noexcept {
    uint32_t oui = mac_oui(b->cpu_mac);
    if (kOldWifi.contains(b->system_id)) raise(b->fw_compat, oui_version(oui));
    for (const RevTable &t : kRevTables)
        if (t.system_id == b->system_id) raise(b->fw_compat, revision_version(t, b->boardrevision));
    if (oui == kOui3) raise(b->fw_compat, kOui3Minimum);
    if (b->system_id == kBomModel && bomrev != nullptr) {
        int32_t high = static_cast<int32_t>(bomrev()) >> 8;
        for (const BomRow &row : kBomTable) {
            if (row.version == TREL_FW_COMPAT_END) break;
            if (row.bom_high == high) {
                raise(b->fw_compat, row.version);
                break;
            }
        }
    }
}

int classify_arch(const char *system_type, const char *cpu_model) noexcept {
    if (!starts_with(system_type, "Atheros")) return TREL_ARCH_UNKNOWN;
    if (starts_with(cpu_model, "MIPS 4Kc")) return TREL_ARCH_AR2313;
    if (starts_with(system_type, "Atheros AR5")) return TREL_ARCH_AR2316;
    if (starts_with(system_type, "Atheros AR724")) return TREL_ARCH_AR7240;
    if (starts_with(system_type, "Atheros AR933")) return TREL_ARCH_AR933X;
    if (starts_with(system_type, "Atheros AR7")) return TREL_ARCH_AR7100;
    return TREL_ARCH_UNKNOWN;
}

int cpuinfo_arch_type(FILE *f) noexcept {
    if (f == nullptr) return TREL_ARCH_UNKNOWN;
    char line[256];
    char system_type[256] = "";
    char cpu_model[256] = "";
    bool have_type = false, have_model = false;
    while (fgets(line, sizeof line, f) != nullptr) {
        char *colon = strchr(line, ':');
        if (colon == nullptr) continue;
        // "key<tabs>: value"
        char *end = colon;
        while (end > line && (end[-1] == ' ' || end[-1] == '\t')) end--;
        size_t keylen = static_cast<size_t>(end - line);
        char *value = colon + 1;
        while (*value == ' ' || *value == '\t') value++;
        value[strcspn(value, "\r\n")] = '\0';
        if (keylen == 11 && strncmp(line, "system type", 11) == 0 && !have_type) {
            memcpy(system_type, value, strlen(value) + 1);
            have_type = true;
        } else if (keylen == 9 && strncmp(line, "cpu model", 9) == 0 && !have_model) {
            memcpy(cpu_model, value, strlen(value) + 1);
            have_model = true;
        }
    }
    return classify_arch(have_type ? system_type : nullptr, have_model ? cpu_model : nullptr);
}

}  // namespace trel::device
