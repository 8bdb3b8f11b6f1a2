// Board identification: the driver files, the model tables, crafted records
// for the port and model helpers, the accelerometer and the EEPROM.
#include <string.h>
#include <unistd.h>

#include <sstream>
#include <tuple>
#include <string>
#include <utility>

#include <trel/device.h>

#include "device/board_rules.h"
#include "join.h"
#include "trel_test.h"

using trel_test::run_in_child;
using trel_test::TempRoot;

namespace {

const char kInfo[] = "/proc/trelhal/system.info";
const char kIds[] = "vendorid=0x7a1e\nsystemid=0xee7c\n";

int g_bomrev_calls;
uint32_t g_bomrev;
uint32_t fake_bomrev() {
    g_bomrev_calls++;
    return g_bomrev;
}

uint32_t fw_compat(uint16_t system_id, uint32_t oui, int32_t rev, uint32_t start = 0) {
    trel_board b{};
    b.system_id = system_id;
    for (int i = 0; i < 3; i++) b.cpu_mac[i] = oui >> (16 - 8 * i);
    b.boardrevision = rev;
    b.fw_compat = start;
    trel::device::apply_fw_compat(&b, fake_bomrev);
    return b.fw_compat;
}

// Every id-only predicate, in a fixed order.
#define PREDICATE(fn) \
    { #fn, fn }
const struct {
    const char *name;
    uint32_t (*fn)(void);
} kPredicates[] = {
    PREDICATE(is_gen1),           PREDICATE(is_gen2),
    PREDICATE(is_gen3_QV),        PREDICATE(is_single_5ghz_gen3),
    PREDICATE(is_gen3),           PREDICATE(is_kx),
    PREDICATE(is_router_to_mesh), PREDICATE(is_wul_supported),
    PREDICATE(is_dax5),           PREDICATE(is_dax6),
    PREDICATE(is_dax7),           PREDICATE(is_dax6_enterprise),
    PREDICATE(is_dax6_birch_iw),  PREDICATE(is_daxac_iw),
    PREDICATE(is_6ghz_supported), PREDICATE(is_qca_ap),
    PREDICATE(is_wifi_only),      PREDICATE(is_force_detect_loop),
};

// The names of the predicates that answer yes on a board of this id.
std::string answers_for(trel_board *b, uint16_t id) {
    b->system_id = id;
    std::string yes;
    for (const auto &p : kPredicates) {
        uint32_t v = p.fn();
        EXPECT_LE(v, 1u) << p.name;
        if (v) yes += std::string(yes.empty() ? "" : " ") + (p.name + 3);
    }
    return yes;
}

}  // namespace

TEST(Board, KnownBoardFilledFromSystemInfo) {
    run_in_child([] {
        TempRoot root;
        root.write(kInfo, std::string(kIds) +
                              "cpuid=0x0d03\nserialno=2A7E30C3D4E5\nboardrevision=7\n"
                              "countrycode=276\n");
        root.write("/proc/trelhal/board", "bomrev=0x43611\n");
        trel_board *b = board_identify();
        ASSERT_NE(b, nullptr);
        EXPECT_STREQ(b->name, "Harbor SW-P");
        // BOM 0x436xx raises the model's 0x050000 to 0x052B25.
        EXPECT_EQ(JOIN(b->cpuid, b->hw_cpuid, b->boardrevision, b->country, b->fw_compat),
                  JOIN(0xD03, 0xD03, 7, 276, 0x052B25));
        uint8_t out[6] = {};
        EXPECT_EQ(board_get_cpu_mac(out), 0);
        EXPECT_EQ(memcmp(out, "\x2A\x7E\x30\xC3\xD4\xE5", 6), 0);
        EXPECT_EQ(board_get_cpu_mac(nullptr), -1);
        // Eight PoE ports without a main label, then the "Main" SFP port.
        EXPECT_EQ(JOIN(get_main_phy_idx(), get_main_phy_port_id(), get_phy_port_id_by_idx(0),
                       get_phy_port_id_by_idx(25), get_phy_port_id_by_idx(99),
                       get_num_of_eth_ports(), morna_get_hw_board_id()),
                  JOIN(24, 9, 1, 10, -1, 10, 0x43600));
        EXPECT_STREQ(morna_identify_platform("HRB-SW-P"), "Harbor SW-P");
        EXPECT_EQ(board_identify_platform("HRB-SW"), nullptr);

        // get_board re-reads into the same record; the cache keeps it.
        root.write(kInfo, std::string(kIds) + "boardrevision=9\n");
        EXPECT_EQ(get_board(), b);
        EXPECT_EQ(b->boardrevision, 9);
    });
}

TEST(Board, DriverFileRules) {
    TempRoot root;
    uint16_t vendor = 0, system = 0;
    EXPECT_EQ(board_identify_ids(&vendor, &system), -ENOENT);
    EXPECT_EQ(JOIN(morna_board_has_qrcode(), morna_get_bomrev()), JOIN(0, 0xFFFFFFFFu));
    root.write(kInfo, "vendorid=0x1111\nsystemid=0x2222\ngarbage\nvendorid=7a1e\n");
    EXPECT_EQ(board_identify_ids(&vendor, &system), 0);
    EXPECT_EQ(JOIN(vendor, system), JOIN(0x7A1E, 0x2222));  // the last line wins
    root.write(kInfo, "vendorid=0x7a1e\nother=1\n");
    EXPECT_EQ(board_identify_ids(&vendor, &system), -1);

    // Another maker's vendor id, or a system id not in the table.
    root.write(kInfo, "vendorid=0x7a1f\nsystemid=0xee7c\n");
    EXPECT_EQ(get_board(), nullptr);
    root.write(kInfo, "vendorid=0x7a1e\nsystemid=0xee7d\n");
    EXPECT_EQ(get_board(), nullptr);

    const std::pair<const char *, int> countries[] = {
        {"regdmn[0]=802a\n", 42},     {"regdmn[0]=2a\n", 840},
        {"regdmn[0]=c123\n", 0x123},  {"regdmn[0]=0010\n", 0},
        {"regdmn[]=0000002a\n", 840}, {"countrycode=124\nregdmn[0]=0010\n", 0},
    };
    for (const auto &[lines, country] : countries) {
        SCOPED_TRACE(lines);
        root.write(kInfo, kIds + std::string(lines));
        trel_board *b = get_board();
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(JOIN(b->country, b->boardrevision, b->cpuid), JOIN(country, -1, 0xFFFFFFFFu));
    }

    root.write(kInfo, "qrid=HRB7K2Q\n");
    EXPECT_EQ(morna_board_has_qrcode(), 1);
    root.write("/proc/trelhal/board", "board.name=x\r\nbomrev=0x2e813\r\nbomrev.note=a=b=0x11\n");
    EXPECT_EQ(morna_get_bomrev(), 0x11u);  // last line, last piece

    EXPECT_EQ(JOIN(arch_name_to_type("AR933X", 6), arch_name_to_type("Ar7100", 6),
                   arch_name_to_type("ar2313", 6), arch_name_to_type("ar933", 5),
                   arch_name_to_type("ar933xy", 7)),
              "4 2 0 43 43");

    // No outlets or power supplies in this build.
    json_t *o = json_object();
    EXPECT_EQ(JOIN(trel_outlet_get_outlet_status_json() == nullptr,
                   trel_outlet_status_update_json_payload(o), trel_psu_get_json_psu_table(o),
                   json_object_size(o)),
              "1 0 0 0");
    json_decref(o);
}

TEST(Board, UnknownBoardFromPciBus) {
    run_in_child([] {
        TempRoot root;
        root.write(kInfo, "vendorid=0x7a1f\nsystemid=0xee7c\n");
        root.write("/proc/bus/pci/devices",
                   "0000\t168c0033\t10\n0008\t10ec8168\t11\nnot a device line\n"
                   "0100\t168c003c\t12\n0200\t168c0046\t13\n0300\t168c0056\t14\n"
                   "0400\t168c0040\t15\n");
        root.write("/proc/bus/pci/00/00.0", std::string(64, '\0'));
        root.write("/proc/cpuinfo", "processor\t: 0\ncpu model\t: ARMv8\n");  // no system type
        trel_board *b = board_identify();
        ASSERT_NE(b, nullptr);
        EXPECT_STREQ(b->name, "Unknown");
        std::ostringstream ids;  // only the first four radios
        for (int i = 0; i < b->num_radios; i++)
            ids << std::hex << b->radios[i].pci_vendor_id << b->radios[i].pci_device_id << " ";
        EXPECT_EQ(ids.str(), "168c33 168c3c 168c46 168c56 ");
        EXPECT_EQ(sizeof(trel_radio), 248u);
    });
    run_in_child([] {
        TempRoot root;  // no driver files at all
        trel_board *b = board_identify();
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(b->num_radios, 0);
    });
}

TEST(Rules, OuiRevisionAndBomTables) {
    g_bomrev_calls = 0;
    // 0xEE7C reads the BOM; 0xFFFFFFFF (missing) shifts to -1 and meets no row.
    for (auto [bom, start, want] : {std::tuple{0x2E8FFu, 0x050000u, 0x052A00u},
                                    {0x43600u, 0x060000u, 0x060000u},
                                    {0xFFFFFFFFu, 0x050000u, 0x050000u}}) {
        SCOPED_TRACE(JOIN(std::hex, bom));
        g_bomrev = bom;
        EXPECT_EQ(fw_compat(0xEE7C, 0, 0, start), want);
    }
    // 0xA102: old wifi without a revision table, so OUI rows only (0x2A7E30's
    // 0x020203 then meets the third-OUI rule); 0x1234: not old wifi, so only
    // the third OUI counts; 0xA101: OUI row, then revision row.
    struct {
        uint16_t id;
        uint32_t oui;
        int32_t rev;
        uint32_t expect;
    } const cases[] = {
        {0xA102, 0x02A1B2, 0, 0x010000},   {0xA102, 0x0A7E10, 0, 0x010201},
        {0xA102, 0x2A7E30, 0, 0x020306},   {0xA102, 0x123456, 0, 0x020404},
        {0x1234, 0x02A1B2, 0, 0},          {0xA201, 0x123456, -1, 0x03092A},
        {0xA201, 0x123456, 12, 0x03092A},  {0xA201, 0x123456, 13, 0x030900},
        {0xA201, 0x123456, 256, 0xFFFFFF}, {0xA201, 0x123456, -2, 0xFFFFFF},
        {0xA202, 0x123456, 29, 0x03092A},  {0xA202, 0x123456, 30, 0x030900},
        {0xA101, 0x123456, 300, 0xFFFFFF}, {0xA101, 0x02A1B2, 23, 0x020300},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(JOIN(std::hex, c.id, c.oui, std::dec, c.rev));
        EXPECT_EQ(fw_compat(c.id, c.oui, c.rev), c.expect);
    }
    EXPECT_EQ(fw_compat(0x1234, 0x2A7E30, 0, 0x020307), 0x020307u);  // only raises
    EXPECT_EQ(g_bomrev_calls, 3);                                    // other models never read it
}

TEST(Board, CraftedRecordsAndPredicates) {
    run_in_child([] {
        TempRoot root;
        trel_board b{};
        b.name = "crafted";
        b.system_id = 1;
        std::string names = map_board_name(&b);  // no radios
        b.num_radios = 1;
        b.radios[0].pci_device_id = 0x3009;
        names += std::string("|") + map_board_name(&b);
        b.radios[0].pci_device_id = 0x3005;
        names += std::string("|") + map_board_name(&b);
        b.system_id = 2;  // key A differs
        names += std::string("|") + map_board_name(&b);
        EXPECT_EQ(names, "crafted|Kestrel 9|Kestrel 5|crafted");

        // One group of one unlabelled port: that port is the main PHY.
        b.num_port_groups = 1;
        b.port_groups[0].num_ports = 1;
        b.port_groups[0].ports[0] = {5, 6, nullptr};
        update_cached_board(&b);
        EXPECT_EQ(get_main_phy(), &b.port_groups[0].ports[0]);
        // Two ports: no unlabelled answer; the PoE input label answers.
        b.port_groups[0].num_ports = 2;
        b.port_groups[0].ports[1] = {7, 8, "LAN"};
        EXPECT_EQ(get_main_phy_idx(), -1);
        b.port_groups[0].ports[1].label = "PoE In + Data";
        EXPECT_EQ(get_main_phy_idx(), 7);

        std::string poe;
        for (auto [budget, reserved] : {std::pair{0, 0}, {20, 25}, {20, 20}, {20, 5}, {1, 0}}) {
            b.poe_budget = budget;
            b.poe_reserved = reserved;
            poe += JOIN(board_get_poe_budget(), board_has_poe()) + "|";
        }
        EXPECT_EQ(poe, "0 0|0 0|0 0|15 1|1 1|");

        b.fw_compat = 0x090909;
        EXPECT_EQ(morna_board_is_beta_firmware(&b), 1);
        b.fw_compat = 0x09090A;
        EXPECT_EQ(morna_board_is_beta_firmware(&b), 0);
        b.system_id = 0xA102;
        EXPECT_EQ(JOIN(dax_is_supported_by_old_wifi(&b), dax_is_supported_ble_fast_adopt(&b)),
                  "1 0");
        b.system_id = 0xC622;
        EXPECT_EQ(JOIN(dax_is_supported_by_old_wifi(&b), dax_is_supported_ble_fast_adopt(&b)),
                  "0 1");

        // Without /etc/meshmode.conf first.
        const std::pair<uint16_t, const char *> cases[] = {{0xA102, "gen1"},
                                                           {0xA203, "gen2 qca_ap"},
                                                           {0xA312, "gen3_QV gen3 qca_ap"},
                                                           {0xA303, "single_5ghz_gen3 gen3 qca_ap"},
                                                           {0xB500, "kx"},
                                                           {0xB501, "router_to_mesh"},
                                                           {0xC502, "dax5"},
                                                           {0xC622, "dax6 dax6_enterprise qca_ap"},
                                                           {0xC635, "dax6 dax6_birch_iw qca_ap"},
                                                           {0xC450, "daxac_iw"},
                                                           {0xC703, "dax7 6ghz_supported qca_ap"},
                                                           {0xD010, "wifi_only force_detect_loop"},
                                                           {0xD011, "wifi_only force_detect_loop"},
                                                           {0xD012, ""},
                                                           {0xD030, "wifi_only"}};
        for (const auto &[id, yes] : cases) {
            SCOPED_TRACE(JOIN(std::hex, id));
            EXPECT_EQ(answers_for(&b, id), yes);
        }
        root.write("/etc/meshmode.conf", "");
        EXPECT_EQ(answers_for(&b, 0xB500), "kx router_to_mesh");

        b.system_id = 0xC614;
        std::string revs;
        for (int rev = -1; rev <= 30; rev++) {
            b.boardrevision = rev;
            revs += std::to_string(is_dax6_tb_aqr112c());
        }
        EXPECT_EQ(revs, std::string(22, '1') + "01" + std::string(8, '0'));  // -1..20, 22

        std::string setup = std::to_string(is_kx_setup_complete());
        for (const char *v : {"false", "", "0"}) {
            root.write("/etc/persistent/cfg/mgmt", std::string("mgmt.is_setup_completed=") + v);
            setup += std::to_string(is_kx_setup_complete());
        }
        EXPECT_EQ(setup, "0001");
        update_cached_board(nullptr);
    });
}

TEST(Board, AccelerometerAndEeprom) {
    TempRoot root;
    const std::string dir = "/sys/bus/i2c/devices/1-0018/iio:device0/";
    EXPECT_EQ(has_accelerometer(), 0);
    root.mkdir(dir);
    EXPECT_EQ(has_accelerometer(), 1);
    root.write(dir + "in_accel_x_raw", "12\n");
    root.write(dir + "in_accel_y_raw", "junk\n");  // keeps x's value
    root.write(dir + "in_accel_z_raw", "-1024\n");
    json_t *o = prepare_accelerometer_status();
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(JOIN(json_integer_value(json_object_get(o, "x")),
                   json_integer_value(json_object_get(o, "y")),
                   json_integer_value(json_object_get(o, "z"))),
              "12 12 -1024");
    json_decref(o);
    EXPECT_EQ(root.read(dir + "sampling_frequency"), "50");

    std::string image(65536, '\0');
    for (size_t i = 0; i < image.size(); i++) image[i] = static_cast<char>(i * 7 + 3);
    auto check = [&](const char *what) {
        SCOPED_TRACE(what);
        buffer *b = trel_read_eeprom();
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(b->length(b), 65536u);
        EXPECT_EQ(memcmp(b->data(b), image.data(), image.size()), 0);
        buffer_destroy(b);
    };
    int fds = trel_test::open_fd_count();
    const std::string mtd = "dev:    size   erasesize  name\nmtd0: 00040000 00010000 \"u-boot\"\n";
    root.write("/proc/mtd", mtd +
                                "mtd2: 00010000 00010000 \"eeprom\"\n"
                                "mtd3: 00010000 00010000 \"EEPROM\"\n");
    root.write("/dev/mtd2", image);
    check("/dev/mtd2");
    root.remove("/dev/mtd2");
    root.write("/dev/mtd/2", image);
    check("/dev/mtd/2");
    root.write("/dev/mtd/2", image.substr(0, 65535));
    EXPECT_EQ(trel_read_eeprom(), nullptr);  // short read

    // Without "/proc/mtd", or with no such partition: ./EEPROM.
    std::string cwd(4096, '\0');
    ASSERT_NE(getcwd(cwd.data(), cwd.size()), nullptr);
    ASSERT_EQ(chdir(root.dir().c_str()), 0);
    trel_test::write_file(root.dir() + "/EEPROM", image);
    EXPECT_EQ(trel_read_eeprom(), nullptr);  // the partition is named: no fallback
    root.remove("/proc/mtd");
    check("./EEPROM");
    root.write("/proc/mtd", mtd);
    check("./EEPROM after /proc/mtd");
    ASSERT_EQ(chdir(cwd.c_str()), 0);
    EXPECT_EQ(trel_test::open_fd_count(), fds);
}
