// The firmware-compatibility and CPU rules, linked in from their source file.
#include <stdio.h>
#include <string.h>

#include <trel/device.h>

#include "device/board_rules.h"
#include "trel_test.h"

using trel::device::apply_fw_compat;

namespace {

int g_bomrev_calls;
uint32_t g_bomrev;
uint32_t fake_bomrev() {
    g_bomrev_calls++;
    return g_bomrev;
}

uint32_t fw_compat(uint16_t system_id, uint32_t oui, int32_t rev, uint32_t start = 0) {
    trel_board b;
    memset(&b, 0, sizeof b);
    b.system_id = system_id;
    b.cpu_mac[0] = oui >> 16;
    b.cpu_mac[1] = (oui >> 8) & 0xFF;
    b.cpu_mac[2] = oui & 0xFF;
    b.boardrevision = rev;
    b.fw_compat = start;
    apply_fw_compat(&b, fake_bomrev);
    return b.fw_compat;
}

}  // namespace

TEST(Rules, OuiTable) {
    // 0xA102: old wifi, no revision table.
    EXPECT_EQ(fw_compat(0xA102, 0x02A1B2, 0), 0x010000u);
    EXPECT_EQ(fw_compat(0xA102, 0x0A7E10, 0), 0x010201u);
    EXPECT_EQ(fw_compat(0xA102, 0x2A7E30, 0), 0x020306u);  // 0x020203, then the OUI rule
    EXPECT_EQ(fw_compat(0xA102, 0x123456, 0), 0x020404u);
    EXPECT_EQ(fw_compat(0xA102, 0x02A1B2, 0, 0x030000), 0x030000u);  // only raises
    // Not an old-wifi model: only the third OUI counts.
    EXPECT_EQ(fw_compat(0x1234, 0x02A1B2, 0), 0u);
    EXPECT_EQ(fw_compat(0x1234, 0x2A7E30, 0, 0x020000), 0x020306u);
    EXPECT_EQ(fw_compat(0x1234, 0x2A7E30, 0, 0x020307), 0x020307u);
}

TEST(Rules, RevisionTables) {
    struct {
        uint16_t id;
        int32_t rev;
        uint32_t expect;
    } const cases[] = {
        {0xA201, -1, 0x03092A},
        {0xA201, 12, 0x03092A},
        {0xA201, 13, 0x030900},
        {0xA201, 255, 0x030900},
        {0xA201, 256, 0xFFFFFF},
        {0xA201, -2, 0xFFFFFF},
        {0xA202, 29, 0x03092A},
        {0xA202, 30, 0x030900},
        {0xA202, 0x7FFFFFFF, 0xFFFFFF},
        // 0xA101 is also an old-wifi model: an unlisted OUI gives 0x020404 first.
        {0xA101, 23, 0x020404},
        {0xA101, 24, 0x020404},
        {0xA101, 300, 0xFFFFFF},
    };
    for (const auto &c : cases)
        EXPECT_EQ(fw_compat(c.id, 0x123456, c.rev), c.expect)
            << std::hex << c.id << " rev " << std::dec << c.rev;
    EXPECT_EQ(fw_compat(0xA101, 0x02A1B2, 5), 0x020300u);
}

TEST(Rules, BomTable) {
    g_bomrev_calls = 0;
    g_bomrev = 0x2E8FF;
    EXPECT_EQ(fw_compat(0xEE7C, 0, 0, 0x050000), 0x052A00u);
    g_bomrev = 0x43600;
    EXPECT_EQ(fw_compat(0xEE7C, 0, 0, 0x050000), 0x052B25u);
    EXPECT_EQ(fw_compat(0xEE7C, 0, 0, 0x060000), 0x060000u);
    g_bomrev = 0x43700;
    EXPECT_EQ(fw_compat(0xEE7C, 0, 0, 0x050000), 0x050000u);
    g_bomrev = 0xFFFFFFFF;  // missing: shifts to -1, no row
    EXPECT_EQ(fw_compat(0xEE7C, 0, 0, 0x050000), 0x050000u);
    EXPECT_EQ(g_bomrev_calls, 5);
    g_bomrev = 0x2E800;
    EXPECT_EQ(fw_compat(0xA201, 0x123456, 0), 0x03092Au);
    EXPECT_EQ(g_bomrev_calls, 5);  // other models never read it
}

TEST(Rules, CpuInfo) {
    using trel::device::classify_arch;
    EXPECT_EQ(classify_arch("Atheros AR2313", "MIPS 4Kc V0.9"), 0);
    EXPECT_EQ(classify_arch("Atheros AR5312", "MIPS 4KEc"), 1);
    EXPECT_EQ(classify_arch("Atheros AR7241 rev 1", "MIPS 24Kc"), 3);
    EXPECT_EQ(classify_arch("Atheros AR9330 rev 1", "MIPS 24Kc"), 4);
    EXPECT_EQ(classify_arch("Atheros AR7161 rev 2", "MIPS 24Kc"), 2);
    EXPECT_EQ(classify_arch("Atheros AR9344", "MIPS 74Kc"), 43);
    EXPECT_EQ(classify_arch("Qualcomm Atheros QCA9558", "MIPS 74Kc"), 43);
    EXPECT_EQ(classify_arch(nullptr, "MIPS 4Kc"), 43);

    FILE *f = tmpfile();
    ASSERT_NE(f, nullptr);
    fputs(
        "system type\t\t: Atheros AR9330 rev 1\nmachine\t\t\t: x\ncpu model\t\t: MIPS 24Kc V7.4\n",
        f);
    rewind(f);
    EXPECT_EQ(trel::device::cpuinfo_arch_type(f), 4);
    fclose(f);
    f = tmpfile();
    ASSERT_NE(f, nullptr);
    fputs("processor\t: 0\nBogoMIPS\t: 48.00\nCPU part\t: 0xd03\n", f);
    rewind(f);
    EXPECT_EQ(trel::device::cpuinfo_arch_type(f), 43);
    fclose(f);
    EXPECT_EQ(trel::device::cpuinfo_arch_type(nullptr), 43);
}
