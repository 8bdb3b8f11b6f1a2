#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <string.h>

#include <string>
#include <utility>
#include <vector>

#include <trel/device.h>

#include "trel_test.h"

using trel_test::TempRoot;

TEST(Status, InterfaceCountersAndIoctls) {
    TempRoot root;
    trel_dev_status st;
    EXPECT_EQ(fill_dev_status("lo", &st), -1);  // no /proc/net/dev
    const std::string header =
        "Inter-|   Receive    |  Transmit\n face |bytes packets |bytes packets\n";
    root.write("/proc/net/dev", header.substr(0, header.find('\n') + 1));
    EXPECT_EQ(fill_dev_status("lo", &st), -ENOENT);

    // Columns 1-4 and 8-12 of the first "lo" are kept; "lo0" and "xlo" are not "lo".
    const std::string nines = " 9 9 9 9 9 9 9 9 9 9 9 9 9 9 9 9\n";
    root.write("/proc/net/dev",
               header + "   lo0:" + nines + "  xlo:" + nines +
                   "    lo: 1001 1002 1003 1004 5 6 7 1008 2009 2010 2011 0x10 13 14 15 16\n" +
                   "    lo:" + nines);
    int fds = trel_test::open_fd_count();
    ASSERT_EQ(fill_dev_status("lo", &st), 0);
    EXPECT_EQ(trel_test::open_fd_count(), fds);
    // tx dropped is "0x10": base 0.
    EXPECT_EQ((std::vector<uint64_t>{st.rx_bytes, st.rx_packets, st.rx_errors, st.rx_dropped,
                                     st.rx_multicast, st.tx_bytes, st.tx_packets, st.tx_errors,
                                     st.tx_dropped}),
              (std::vector<uint64_t>{1001, 1002, 1003, 1004, 1008, 2009, 2010, 2011, 16}));
    // The real loopback interface, which has no link settings.
    EXPECT_TRUE(st.flags & IFF_LOOPBACK);
    const bool ethtool = trel_test::has_ethtool_ioctl();
    if (st.flags & IFF_UP) {
        EXPECT_EQ(st.ipaddr, htonl(INADDR_LOOPBACK));
        EXPECT_STREQ(st.netmask_str, "255.0.0.0");
        if (ethtool) {
            EXPECT_EQ(get_ethtool_link_status("lo"), 1);
        }
    }
    EXPECT_EQ(st.speed, 0u);
    EXPECT_EQ(st.duplex, 255u);

    ASSERT_EQ(fill_dev_status("nosuch0", &st), 0);
    EXPECT_EQ(st.present, 0u);
    EXPECT_STREQ(st.ipaddr_str, "0.0.0.0");
    EXPECT_EQ(get_ethtool_link_status("nosuch0"), -1);
    if (!ethtool) GTEST_SKIP() << "no SIOCETHTOOL here (qemu-user): lo's link status not checked";
}

TEST(Status, ReplaceIfname) {
    // A 17-character name is left alone.
    struct {
        const char *in, *prefix, *out;
    } const cases[] = {{"lan3", "eth", "eth3"}, {"wan12", "lan", "eth12"},
                       {"lan0", "lan", "lan0"}, {"eth", "lan", "eth"},
                       {"7up", "eth", "7up"},   {"abcdefghijklmnop1", "eth", "abcdefghijklmnop1"}};
    for (const auto &c : cases) {
        char name[32];
        strcpy(name, c.in);
        replace_ifname(name, c.prefix);
        EXPECT_STREQ(name, c.out) << c.in << " " << c.prefix;
    }
}

TEST(Status, VersionIsCachedOnceRead) {
    trel_test::run_in_child([] {
        TempRoot root;
        const char *v = nullptr;
        EXPECT_EQ(get_version(&v), -ENOENT);
        EXPECT_STREQ(v, "unknown.0");
        root.write("/usr/etc/.version", "5.43.7\n");
        root.write("/usr/etc/.build", "\n");
        EXPECT_EQ(get_version(&v), -EINVAL);
        root.write("/usr/etc/.build", "4211\n");
        EXPECT_EQ(get_version(&v), 0);
        root.write("/usr/etc/.version", "6.0.0\n");  // cached: not read again
        EXPECT_EQ(get_version(&v), 0);
        EXPECT_STREQ(v, "5.43.7.4211");
    });
}

TEST(Status, ConfigFlagKeyAndUptimeFiles) {
    TempRoot root;
    const std::string cfg =
        "# dhcpd.status=enabled\ndhcpc.status=enabled\ndhcpd.status=enabled\n"
        "  dhcpd.1.status =\tenabled \r\nebtables.status=enabled\nebtables.50.status=enabled\n"
        "ebtables.50.status=disabled\n";
    root.write("/tmp/system.cfg", cfg);
    trel_service_status s;
    EXPECT_EQ(fill_services(&s), 0);
    EXPECT_EQ(s.dhcpc, 0u);  // no dhcpc.1.status
    EXPECT_EQ(s.dhcpd, 1u);
    EXPECT_EQ(s.ebtables, 0u);  // the last value counts
    // A world-writable regular file is not read.
    root.write("/tmp/system.cfg", cfg, 0777);
    EXPECT_EQ(fill_services(&s), 0);
    EXPECT_EQ(s.dhcpd, 0u);

    EXPECT_EQ(system_is_xxx("/proc/trelhal/flag", 1), 1);
    root.write("/proc/trelhal/flag", "true\n");
    EXPECT_EQ(system_is_xxx("/proc/trelhal/flag", 0), 1);
    root.write("/proc/trelhal/flag", "false\n");
    EXPECT_EQ(system_is_xxx("/proc/trelhal/flag", 1), 0);
    root.write("/var/run/flag", "false\n");  // existence answers
    EXPECT_EQ(system_is_xxx("/var/run/flag", 0), 1);

    EXPECT_EQ(system_set_xxx("/var/run/flag", 0), 0);
    EXPECT_FALSE(root.exists("/var/run/flag"));
    EXPECT_EQ(system_set_xxx("/var/run/flag", 1), 0);
    EXPECT_EQ(root.read("/var/run/flag"), "true\n");
    EXPECT_EQ(system_set_xxx("/proc/trelhal/flag", 0), 0);
    EXPECT_EQ(root.read("/proc/trelhal/flag"), "false\n");
    EXPECT_EQ(system_set_xxx("/no/such/dir/flag", 1), -1);

    const char info[] = "/proc/trelhal/system.info";
    char sn[32];
    EXPECT_EQ(get_boardsn(info, sn, sizeof sn), -1);
    EXPECT_STREQ(get_main_mac_str(), "00:11:22:33:44:55");

    root.write(info,
               "boardrevision=12\r\nserialno=0A0B0C0D0E0F\nboardrevision=14\n"
               "serialno=02A1B2C3D4E5\r\nwifi0.macaddr=02:A1:B2:C3:D4:E6\nmanufid=00ff\n");
    EXPECT_EQ(get_boardrevision(info), 14);
    // The appended newline needs room too.
    EXPECT_EQ(get_boardsn(info, sn, 13), -1);
    EXPECT_EQ(get_boardsn(info, sn, 14), 0);
    EXPECT_STREQ(sn, "02A1B2C3D4E5\n");
    EXPECT_STREQ(get_main_mac_str(), "02:A1:B2:C3:D4:E6");
    EXPECT_EQ(get_manufid(), 0xFF);
    root.write(info, "eth0.macaddr=02:A1:B2:C3:D4:E5\nwifi0.macaddr=02:A1:B2:C3:D4:E6\n");
    EXPECT_STREQ(get_main_mac_str(), "02:A1:B2:C3:D4:E5");

    EXPECT_EQ(system_internet_status(), -1);
    EXPECT_EQ(system_dhcp_status(), TREL_DHCP_UNKNOWN);
    root.write("/var/run/system.internet", "1\n");
    EXPECT_EQ(system_internet_status(), 1);
    const char *states[] = {"nothing", "deconfig", "leasefail", "bound", "renew"};
    for (int i = 0; i < 5; i++) {
        root.write("/var/run/dhcpc.last_state", std::string(states[i]) + "\n");
        EXPECT_EQ(system_dhcp_status(), i) << states[i];
    }
    const std::string tcp =
        "  sl  local_address rem_address   st tx_queue rx_queue\n"
        "   1: 0100007F:0016 0200007F:A1B2 01 00000000:00000000\n";
    root.write("/proc/net/tcp", tcp);
    EXPECT_EQ(system_is_ssh(), 0);  // port 22 only as an established peer
    root.write("/proc/net/tcp", tcp + "   2: 00000000:0016 00000000:0000 0A 00000000:00000000\n");
    EXPECT_EQ(system_is_ssh(), 1);

    root.write("/var/run/up", "junk\n");
    EXPECT_EQ(get_uptime_from_file("/var/run/up"), UINT64_MAX);

    char out[64];
    const std::pair<uint64_t, const char *> cases[] = {
        {0, ""}, {3600, "1h"}, {86400 * 3 + 120, "3d2m"}};
    for (const auto &[secs, text] : cases)
        EXPECT_STREQ(uptime2str(secs, out, sizeof out), text) << secs;
    EXPECT_STREQ(uptime2str(90061, out, 5), "1d1h");

    trel_time_parts parts;
    ASSERT_EQ(get_system_time(&parts), 0);
    EXPECT_EQ(std::string(parts.year).substr(4), "\n");
    EXPECT_EQ(get_system_time_str(out, 20), 0);
    EXPECT_EQ(get_system_time_str(out, 19), -1);
}

TEST(Status, ManagementEnvironment) {
    const int P = TREL_VESK_ENV_PROD, S = TREL_VESK_ENV_STAGE, D = TREL_VESK_ENV_DEV;
    struct {
        const char *cfg, *mgmt, *reftype;
        int env, limited;
    } const cases[] = {
        {nullptr, nullptr, nullptr, P, D},
        {nullptr, nullptr, "atag", P, P},
        {"mgmt.vesk.env=bogus\n", nullptr, "atag", P, P},
        {"mgmt.vesk.env=dev\n", "mgmt.vesk.env=stage\n", "atag", D, D},
        {"x=1\n", "mgmt.vesk.env=stage\n", "branch", S, S},
        // Forced production for any build.
        {"mgmt.vesk.env.force=1\n", nullptr, "branch", P, P},
        {nullptr, "mgmt.vesk.env.force=enabled\n", "branch", P, P},
        {"mgmt.vesk.env.force=yes\n", nullptr, "atagx", P, D},
    };
    for (const auto &c : cases) {
        TempRoot root;
        if (c.cfg) root.write("/tmp/system.cfg", c.cfg);
        if (c.mgmt) root.write("/etc/persistent/cfg/mgmt", c.mgmt);
        if (c.reftype)
            root.write("/usr/lib/build.properties", std::string("scm_reftype=") + c.reftype + "\n");
        EXPECT_EQ(get_vesk_env(), c.env) << "case " << &c - cases;
        EXPECT_EQ(get_vesk_env_limit_prod(), c.limited) << "case " << &c - cases;
    }
}
