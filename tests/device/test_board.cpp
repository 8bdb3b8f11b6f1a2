#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include <trel/device.h>

#include "trel_test.h"

using trel_test::run_in_child;
using trel_test::TempRoot;

namespace {

const char kInfo[] = "/proc/trelhal/system.info";

std::string known_info(const std::string &extra = "") {
    return "vendorid=0x7a1e\nsystemid=0xee7c\ncpuid=0x0d03\nserialno=2A7E30C3D4E5\n"
           "boardrevision=7\ncountrycode=276\n" +
           extra;
}

// A board record of the given system id, zeroed elsewhere.
trel_board crafted(uint16_t system_id) {
    trel_board b;
    memset(&b, 0, sizeof b);
    b.name = "crafted";
    b.system_id = system_id;
    b.boardrevision = -1;
    return b;
}

}  // namespace

TEST(Board, KnownBoardFilledFromSystemInfo) {
    run_in_child([] {
        TempRoot root;
        root.write(kInfo, known_info());
        root.write("/proc/trelhal/board", "bomrev=0x43611\n");
        // Radios on the PCI bus do not change a known board.
        root.write("/proc/bus/pci/devices", "0000\t168c0033\t10\n");
        trel_board *b = board_identify();
        ASSERT_NE(b, nullptr);
        EXPECT_STREQ(b->name, "Harbor SW-P");
        EXPECT_STREQ(b->platform, "HRB-SW-P");
        EXPECT_EQ(b->system_id, 0xEE7C);
        EXPECT_EQ(b->cpuid, 0xD03u);
        EXPECT_EQ(b->hw_cpuid, 0xD03u);
        const uint8_t mac[6] = {0x2A, 0x7E, 0x30, 0xC3, 0xD4, 0xE5};
        EXPECT_EQ(memcmp(b->cpu_mac, mac, 6), 0);
        EXPECT_EQ(b->boardrevision, 7);
        EXPECT_EQ(b->country, 276);
        EXPECT_EQ(b->num_radios, 0);
        // BOM 0x436xx raises the model's 0x050000 to 0x052B25.
        EXPECT_EQ(b->fw_compat, 0x052B25u);
        EXPECT_EQ(morna_identify(), b);
        EXPECT_EQ(board_identify(), b);

        uint8_t out[6] = {};
        EXPECT_EQ(board_get_cpu_mac(out), 0);
        EXPECT_EQ(memcmp(out, mac, 6), 0);
        EXPECT_EQ(board_get_cpu_mac(nullptr), -1);
        EXPECT_EQ(board_get_poe_budget(), 140);
        EXPECT_EQ(board_has_poe(), 1);
        EXPECT_EQ(get_num_of_eth_ports(), 10);
        // Eight PoE ports without a main label, then the "Main" SFP port.
        ASSERT_NE(get_main_phy(), nullptr);
        EXPECT_EQ(get_main_phy_port_id(), 9);
        EXPECT_EQ(get_main_phy_idx(), 24);
        EXPECT_EQ(get_phy_port_id_by_idx(3), 4);
        EXPECT_EQ(get_phy_port_id_by_idx(25), 10);
        EXPECT_EQ(get_phy_port_id_by_idx(99), -1);
        EXPECT_STREQ(map_board_name(b), "Harbor SW-P");

        EXPECT_STREQ(morna_identify_platform("HRB-SW-P"), "Harbor SW-P");
        EXPECT_STREQ(board_identify_platform("HRB-SW-P"), "Harbor SW-P");
        EXPECT_EQ(morna_identify_platform("HRB-SW"), nullptr);
        EXPECT_EQ(morna_identify_platform(nullptr), nullptr);
        EXPECT_NE(morna_get_board(0xEE7C), nullptr);
        EXPECT_EQ(morna_get_board(0xEE7D), nullptr);
        EXPECT_EQ(morna_get_board(0xA6C2), nullptr);
        EXPECT_EQ(morna_identify_platform("HRB-AP-7"), nullptr);

        // get_board re-reads into the same record; the cache keeps it.
        root.write(kInfo, known_info("boardrevision=9\n"));
        EXPECT_EQ(get_board(), b);
        EXPECT_EQ(b->boardrevision, 9);
    });
}

TEST(Board, IdsAndCountryRules) {
    TempRoot root;
    uint16_t vendor = 0, system = 0;
    EXPECT_EQ(board_identify_ids(&vendor, &system), -ENOENT);
    EXPECT_EQ(get_board(), nullptr);

    root.write(kInfo, "vendorid=0x1111\nsystemid=0x2222\ngarbage\nvendorid=7a1e\n");
    EXPECT_EQ(board_identify_ids(&vendor, &system), 0);
    EXPECT_EQ(vendor, 0x7A1E);  // the last line wins
    EXPECT_EQ(system, 0x2222);
    root.write(kInfo, "vendorid=0x7a1e\n");
    EXPECT_EQ(board_identify_ids(&vendor, &system), -1);

    // Another maker's vendor id, or a system id not in the table.
    root.write(kInfo, "vendorid=0x7a1f\nsystemid=0xee7c\n");
    EXPECT_EQ(get_board(), nullptr);
    root.write(kInfo, "vendorid=0x7a1e\nsystemid=0xee7d\n");
    EXPECT_EQ(get_board(), nullptr);

    struct {
        const char *lines;
        int country;
    } const cases[] = {
        {"regdmn[0]=802a\n", 42},
        {"regdmn[0]=2a\n", 840},
        {"regdmn[0]=8123\n", 0x123},
        {"regdmn[0]=0010\n", 0},
        {"regdmn[]=0000002a\n", 840},
        {"regdmn[]=00000010\n", 0},
        {"countrycode=124\n", 124},
        {"countrycode=124\nregdmn[0]=0010\n", 0},
        {"", 0},
    };
    for (const auto &c : cases) {
        root.write(kInfo, "vendorid=0x7a1e\nsystemid=0xee7c\n" + std::string(c.lines));
        trel_board *b = get_board();
        ASSERT_NE(b, nullptr) << c.lines;
        EXPECT_EQ(b->country, c.country) << c.lines;
        EXPECT_EQ(b->boardrevision, -1);
        EXPECT_EQ(b->cpuid, 0xFFFFFFFFu);
    }
}

TEST(Board, UnknownBoardFromPciBus) {
    run_in_child([] {
        TempRoot root;
        root.write(kInfo, "vendorid=0x7a1f\nsystemid=0xee7c\n");
        root.write("/proc/bus/pci/devices",
                   "0000\t168c0033\t10\n"
                   "0008\t10ec8168\t11\n"
                   "not a device line\n"
                   "0100\t168c003c\t12\n"
                   "0200\t168c0046\t13\n"
                   "0300\t168c0056\t14\n"
                   "0400\t168c0040\t15\n");
        std::string config(64, '\0');
        root.write("/proc/bus/pci/00/00.0", config);
        trel_board *b = board_identify();
        ASSERT_NE(b, nullptr);
        EXPECT_STREQ(b->name, "Unknown");
        ASSERT_EQ(b->num_radios, 4);
        const uint16_t devices[4] = {0x0033, 0x003c, 0x0046, 0x0056};
        for (int i = 0; i < 4; i++) {
            EXPECT_EQ(b->radios[i].pci_vendor_id, 0x168C);
            EXPECT_EQ(b->radios[i].pci_device_id, devices[i]);
        }
        EXPECT_EQ(board_get_poe_budget(), 0);
        EXPECT_EQ(get_main_phy(), nullptr);
        EXPECT_EQ(get_main_phy_port_id(), -1);
        EXPECT_EQ(get_num_of_eth_ports(), 0);
        EXPECT_EQ(sizeof(trel_radio), 248u);
    });
    run_in_child([] {
        // The maker's vendor id with a model the board table does not hold.
        TempRoot root;
        root.write(kInfo, "vendorid=0x7a1e\nsystemid=0xa6c2\nserialno=02A1B2C3D4E5\n");
        root.write("/proc/bus/pci/devices", "0000\t168c0a2c\t96\n0100\t168c0a5c\t97\n");
        trel_board *b = board_identify();
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(morna_identify(), nullptr);
        EXPECT_STREQ(b->name, "Unknown");
        ASSERT_EQ(b->num_radios, 2);
        EXPECT_EQ(b->radios[1].pci_device_id, 0x0A5C);
    });
    run_in_child([] {
        TempRoot root;  // no driver files at all
        trel_board *b = board_identify();
        ASSERT_NE(b, nullptr);
        EXPECT_STREQ(b->name, "Unknown");
        EXPECT_EQ(b->num_radios, 0);
    });
}

TEST(Board, CraftedRecords) {
    run_in_child([] {
        trel_board b = crafted(1);
        EXPECT_STREQ(map_board_name(&b), "crafted");  // no radios
        b.num_radios = 1;
        b.radios[0].pci_device_id = 0x3009;
        EXPECT_STREQ(map_board_name(&b), "Kestrel 9");
        b.radios[0].pci_device_id = 0x3005;
        EXPECT_STREQ(map_board_name(&b), "Kestrel 5");
        b.system_id = 2;
        EXPECT_STREQ(map_board_name(&b), "crafted");

        // One group of one unlabelled port: that port is the main PHY.
        trel_board one = crafted(0x1234);
        one.num_port_groups = 1;
        one.port_groups[0].num_ports = 1;
        one.port_groups[0].ports[0] = {5, 6, nullptr};
        update_cached_board(&one);
        EXPECT_EQ(get_main_phy(), &one.port_groups[0].ports[0]);
        EXPECT_EQ(get_main_phy_port_id(), 6);
        // Two unlabelled ports: none; the PoE input label answers.
        one.port_groups[0].num_ports = 2;
        one.port_groups[0].ports[1] = {7, 8, "LAN"};
        EXPECT_EQ(get_main_phy(), nullptr);
        EXPECT_EQ(get_main_phy_idx(), -1);
        one.port_groups[0].ports[1].label = "PoE In + Data";
        EXPECT_EQ(get_main_phy_idx(), 7);

        one.poe_budget = 20;
        one.poe_reserved = 25;
        EXPECT_EQ(board_get_poe_budget(), 0);
        EXPECT_EQ(board_has_poe(), 0);
        one.poe_reserved = 5;
        EXPECT_EQ(board_get_poe_budget(), 15);
        one.poe_budget = 0;
        EXPECT_EQ(board_has_poe(), 0);

        EXPECT_EQ(morna_board_is_beta_firmware(nullptr), 0);
        one.fw_compat = 0x090909;
        EXPECT_EQ(morna_board_is_beta_firmware(&one), 1);
        one.fw_compat = 0x09090A;
        EXPECT_EQ(morna_board_is_beta_firmware(&one), 0);

        trel_board wifi = crafted(0xA102);
        EXPECT_EQ(dax_is_supported_by_old_wifi(&wifi), 1);
        EXPECT_EQ(dax_is_supported_ble_fast_adopt(&wifi), 0);
        wifi.system_id = 0xC622;
        EXPECT_EQ(dax_is_supported_by_old_wifi(&wifi), 0);
        EXPECT_EQ(dax_is_supported_ble_fast_adopt(&wifi), 1);
        EXPECT_EQ(dax_is_supported_by_old_wifi(nullptr), 0);
        EXPECT_EQ(dax_is_supported_ble_fast_adopt(nullptr), 0);
    });
}

TEST(Board, BomRevisionAndQrCode) {
    TempRoot root;
    EXPECT_EQ(morna_get_bomrev(), 0xFFFFFFFFu);
    EXPECT_EQ(morna_get_hw_board_id(), 0xFFFFFF00u);
    root.write("/proc/trelhal/board", "board.name=x\r\nbomrev=0x2e813\r\nbomrev.note=a=b=0x11\n");
    EXPECT_EQ(morna_get_bomrev(), 0x11u);  // last line, last piece
    root.write("/proc/trelhal/board", "bomrev=2e813\r\n");
    EXPECT_EQ(morna_get_bomrev(), 0x2E813u);
    EXPECT_EQ(morna_get_hw_board_id(), 0x2E800u);
    root.write("/proc/trelhal/board", "name=x\n");
    EXPECT_EQ(morna_get_bomrev(), 0xFFFFFFFFu);

    EXPECT_EQ(morna_board_has_qrcode(), 0);
    root.write(kInfo, "qrid=\n");
    EXPECT_EQ(morna_board_has_qrcode(), 0);
    root.write(kInfo, "qrid=HRB7K2Q\n");
    EXPECT_EQ(morna_board_has_qrcode(), 1);
}

TEST(Board, ArchNames) {
    EXPECT_EQ(arch_name_to_type("AR933X", 6), 4);
    EXPECT_EQ(arch_name_to_type("ar933", 5), 43);
    EXPECT_EQ(arch_name_to_type("AR7240", 6), 3);
    EXPECT_EQ(arch_name_to_type("ar7240x", 7), 43);
    EXPECT_EQ(arch_name_to_type("ar9344", 6), 43);
    EXPECT_EQ(arch_name_to_type(nullptr, 6), 43);
}

TEST(Board, Accelerometer) {
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
    EXPECT_EQ(json_integer_value(json_object_get(o, "x")), 12);
    EXPECT_EQ(json_integer_value(json_object_get(o, "y")), 12);
    EXPECT_EQ(json_integer_value(json_object_get(o, "z")), -1024);
    json_decref(o);
    EXPECT_EQ(root.read(dir + "sampling_frequency"), "50");
}

TEST(Board, Eeprom) {
    TempRoot root;
    std::string image(65536, '\0');
    for (size_t i = 0; i < image.size(); i++) image[i] = static_cast<char>(i * 7 + 3);
    auto check = [&](const char *what) {
        buffer *b = trel_read_eeprom();
        ASSERT_NE(b, nullptr) << what;
        EXPECT_EQ(b->length(b), 65536u) << what;
        EXPECT_EQ(memcmp(b->data(b), image.data(), image.size()), 0) << what;
        buffer_destroy(b);
    };
    int fds = trel_test::open_fd_count();
    const char mtd[] =
        "dev:    size   erasesize  name\n"
        "mtd0: 00040000 00010000 \"u-boot\"\n"
        "mtd1: 00010000 00010000 \"u-boot-env\"\n"
        "mtd2: 00010000 00010000 \"eeprom\"\n"
        "mtd3: 00010000 00010000 \"EEPROM\"\n";
    root.write("/proc/mtd", mtd);
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
    root.write("/proc/mtd", "dev:    size   erasesize  name\nmtd0: 00040000 00010000 \"u-boot\"\n");
    check("./EEPROM after /proc/mtd");
    ASSERT_EQ(chdir(cwd.c_str()), 0);
    EXPECT_EQ(trel_test::open_fd_count(), fds);
}
