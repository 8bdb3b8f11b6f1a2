// Build data of the device subsystem: the maker's vendor id, the board table,
// model ids of every model list and predicate, OUIs and the firmware
// compatibility tables.  All identifiers here are this build's own; OUIs are
// locally administered (bit 1 of the first octet set).
#pragma once

#include <stdint.h>

#include <trel/device.h>

namespace trel::device {

// The maker's 16-bit vendor id expected in "vendorid=".
inline constexpr uint16_t kMakerVendorId = 0x7A1E;

// ---- Model ids ---------------------------------------------------------------

inline constexpr uint16_t kHarborSwP = 0xEE7C;  // the one row of the board table

template <int N>
struct IdSet {
    uint16_t ids[N];
    constexpr bool contains(uint16_t id) const {
        for (uint16_t v : ids)
            if (v == id) return true;
        return false;
    }
};
template <typename... T>
IdSet(T...) -> IdSet<sizeof...(T)>;

inline constexpr IdSet kGen1{uint16_t{0xA101}, uint16_t{0xA102}, uint16_t{0xA103}};
inline constexpr IdSet kGen2{uint16_t{0xA201}, uint16_t{0xA202}, uint16_t{0xA203},
                             uint16_t{0xA204}};
inline constexpr IdSet kGen3QV{uint16_t{0xA311}, uint16_t{0xA312}};
inline constexpr IdSet kSingle5GhzGen3{uint16_t{0xA301}, uint16_t{0xA302}, uint16_t{0xA303}};
inline constexpr uint16_t kKx = 0xB500;
inline constexpr uint16_t kRouterToMesh = 0xB501;  // always a mesh router
inline constexpr IdSet kDax5{uint16_t{0xC501}, uint16_t{0xC502}, uint16_t{0xC503}};
inline constexpr IdSet kDax6{uint16_t{0xC601}, uint16_t{0xC602}, uint16_t{0xC614},
                             uint16_t{0xC620}, uint16_t{0xC622}, uint16_t{0xC631},
                             uint16_t{0xC635}, uint16_t{0xC640}};
inline constexpr IdSet kDax7{uint16_t{0xC701}, uint16_t{0xC702}, uint16_t{0xC703}};
inline constexpr uint16_t kDax6TbAqr112c = 0xC614;
inline constexpr uint16_t kDax6Enterprise = 0xC620;  // with bit 1 cleared: 0xC620, 0xC622
inline constexpr uint16_t kDax6BirchIw = 0xC631;     // with bit 2 cleared: 0xC631, 0xC635
inline constexpr uint16_t kDaxAcIw = 0xC440;         // with bit 4 cleared: 0xC440, 0xC450
inline constexpr IdSet k6Ghz{uint16_t{0xC640}, uint16_t{0xC702}, uint16_t{0xC703}};
inline constexpr IdSet kWifiOnly{uint16_t{0xD010}, uint16_t{0xD011}, uint16_t{0xD020},
                                 uint16_t{0xD021}, uint16_t{0xD030}};
inline constexpr uint16_t kForceDetectLoop = 0xD010;  // and the next id

inline constexpr IdSet kOldWifi{uint16_t{0xA101}, uint16_t{0xA102}, uint16_t{0xA103},
                                uint16_t{0xA201}, uint16_t{0xA202}};
inline constexpr IdSet kBleFastAdopt{uint16_t{0xC601}, uint16_t{0xC602}, uint16_t{0xC620},
                                     uint16_t{0xC622}, uint16_t{0xC701}};

// ---- Firmware compatibility ----------------------------------------------------

inline constexpr uint32_t kOui1 = 0x02A1B2;
inline constexpr uint32_t kOui2 = 0x0A7E10;
inline constexpr uint32_t kOui3 = 0x2A7E30;  // listed by the 0x020203 row only

struct OuiRow {
    uint32_t version;
    uint32_t ouis[4];  // ends with 0
};
inline constexpr OuiRow kOuiTable[] = {
    {0x010000, {kOui1, 0}},
    {0x010201, {kOui1, kOui2, 0}},
    {0x020203, {kOui1, kOui2, kOui3, 0}},
    {TREL_FW_COMPAT_END, {0}},
};
inline constexpr uint32_t kOuiDefault = 0x020404;
inline constexpr uint32_t kOui3Minimum = 0x020306;

struct RevRow {
    uint32_t version;
    int32_t low;
    int32_t high;
};
struct RevTable {
    uint16_t system_id;
    RevRow rows[3];
};
inline constexpr RevTable kRevTables[] = {
    {0xA201, {{0x03092A, -1, 12}, {0x030900, 13, 255}, {TREL_FW_COMPAT_END, 256, 0x7FFFFFFF}}},
    {0xA202, {{0x03092A, -1, 29}, {0x030900, 30, 255}, {TREL_FW_COMPAT_END, 256, 0x7FFFFFFF}}},
    {0xA101, {{0x020300, -1, 23}, {0x020404, 24, 255}, {TREL_FW_COMPAT_END, 256, 0x7FFFFFFF}}},
};

struct BomRow {
    uint32_t version;
    int32_t bom_high;  // BOM revision >> 8
};
inline constexpr uint16_t kBomModel = kHarborSwP;
inline constexpr BomRow kBomTable[] = {
    {0x052A00, 0x2E8},
    {0x052B25, 0x436},
    {TREL_FW_COMPAT_END, 0},
};

// ---- Board table and name mapping ------------------------------------------------

inline constexpr trel_board kBoardTable[] = {
    {
        .name = "Harbor SW-P",
        .cpuid = 0,
        .cpu_mac = {},
        .num_port_groups = 2,
        .port_groups =
            {
                {8,
                 {{0, 1, "PoE Out 1"},
                  {1, 2, "PoE Out 2"},
                  {2, 3, "PoE Out 3"},
                  {3, 4, "PoE Out 4"},
                  {4, 5, "PoE Out 5"},
                  {5, 6, "PoE Out 6"},
                  {6, 7, "PoE Out 7"},
                  {7, 8, "PoE Out 8"}}},
                {2, {{24, 9, "Main"}, {25, 10, "SFP 2"}}},
            },
        .num_radios = 0,
        .radios = {},
        .system_id = kHarborSwP,
        .poe_budget = 150,
        .poe_reserved = 10,
        .fw_compat = 0x050000,
        .hw_cpuid = 0,
        .boardrevision = -1,
        .country = 0,
        .platform = "HRB-SW-P",
    },
};

struct NameMapRow {
    char name[32];
    uint16_t key_a;  // system id
    uint16_t key_b;  // PCI device id of the first radio
};
inline constexpr NameMapRow kNameMap[] = {
    {"Kestrel 9", 1, 0x3009},
    {"Kestrel 5", 1, 0x3005},
};

// PCI vendor of the radios the "Unknown" record looks for.
inline constexpr uint16_t kRadioPciVendor = 0x168C;

}  // namespace trel::device
