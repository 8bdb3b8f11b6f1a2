// System status: interface counters, names, flag and key files, uptime and
// the management environment.
#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <string.h>

#include <string>

#include <trel/device.h>

#include "join.h"
#include "trel_test.h"

using trel_test::TempRoot;

namespace {

const char kInfo[] = "/proc/trelhal/system.info";
const char kFlag[] = "/proc/trelhal/flag";
const std::string kServices =
    "# dhcpd.status=enabled\ndhcpc.status=enabled\ndhcpd.status=enabled\n"
    "  dhcpd.1.status =\tenabled \r\nebtables.status=enabled\nebtables.50.status=enabled\n"
    "ebtables.50.status=disabled\nppp.status=enabled\nppp.1.status=enabled\n"
    "iptables.status=enabled\niptables.50.status=disabled\n";
const std::string kTcp =
    "  sl  local_address rem_address   st tx_queue rx_queue\n"
    "   1: 0100007F:0016 0200007F:A1B2 01 00000000:00000000\n";

std::string services() {
    trel_service_status s;
    int rc = fill_services(&s);
    return JOIN(rc, s.dhcpc, s.dhcpd, s.ppp, s.iptables, s.ebtables);
}

std::string serial(int size) {
    char sn[32];
    int rc = get_boardsn(kInfo, sn, size);
    return rc == 0 ? JOIN(rc, sn) : JOIN(rc);  // out is undefined on failure
}

}  // namespace

TEST(Status, InterfaceCounters) {
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
    EXPECT_EQ(JOIN(st.rx_bytes, st.rx_packets, st.rx_errors, st.rx_dropped, st.rx_multicast,
                   st.tx_bytes, st.tx_packets, st.tx_errors, st.tx_dropped),
              "1001 1002 1003 1004 1008 2009 2010 2011 16");
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
    EXPECT_EQ(JOIN(st.speed, st.duplex), "0 255");

    ASSERT_EQ(fill_dev_status("nosuch0", &st), 0);
    EXPECT_EQ(st.present, 0u);
    EXPECT_STREQ(st.ipaddr_str, "0.0.0.0");
    EXPECT_EQ(get_ethtool_link_status("nosuch0"), -1);
    if (!ethtool) GTEST_SKIP() << "no SIOCETHTOOL here (qemu-user): lo's link status not checked";
}

TEST(Status, ReplaceIfname) {
    struct {
        const char *in, *prefix, *out;
    } const cases[] = {{"lan3", "eth", "eth3"},
                       {"wan12", "lan", "eth12"},
                       {"lan0", "lan", "lan0"},
                       {"eth", "lan", "eth"},
                       {"7up", "eth", "7up"},
                       {"abcdefghijklmno1", "eth", "eth1"},
                       {"abcdefghijklmnop1", "eth", "abcdefghijklmnop1"}};  // 17: left alone
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.in) + " with " + c.prefix);
        char name[32];
        strcpy(name, c.in);
        replace_ifname(name, c.prefix);
        EXPECT_STREQ(name, c.out);
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

TEST(Status, FlagAndKeyFiles) {
    TempRoot root;
    // Nothing there.
    EXPECT_EQ(JOIN(serial(32), get_main_mac_str(), get_boardrevision(kInfo), get_manufid(),
                   system_internet_status(), system_dhcp_status(), system_is_ssh(),
                   system_is_xxx(kFlag, 1), system_is_xxx(kFlag, 0)),
              "-1 00:11:22:33:44:55 -1 0 -1 0 0 1 0");
    // Both keys, the last value; a world-writable file is not read.
    root.write("/tmp/system.cfg", kServices);
    EXPECT_EQ(services(), "0 0 1 1 0 0");
    root.write("/tmp/system.cfg", kServices, 0777);
    EXPECT_EQ(services(), "0 0 0 0 0 0");

    // Under /proc the line answers; elsewhere the file's existence.
    root.write(kFlag, "true\n");
    root.write("/var/run/flag", "false\n");
    EXPECT_EQ(JOIN(system_is_xxx(kFlag, 0), system_is_xxx("/var/run/flag", 0)), "1 1");
    EXPECT_EQ(JOIN(system_set_xxx(kFlag, 0), system_is_xxx(kFlag, 1), root.read(kFlag)),
              "0 0 false\n");
    EXPECT_EQ(JOIN(system_set_xxx("/var/run/flag", 0), root.exists("/var/run/flag"),
                   system_set_xxx("/var/run/flag", 0), system_set_xxx("/var/run/flag", 1),
                   root.read("/var/run/flag")),
              "0 0 0 0 true\n");
    EXPECT_EQ(JOIN(system_set_xxx("/no/such/dir/flag", 1), system_set_value("/v", "7"),
                   system_set_value("/v", nullptr), root.read("/v")),
              "-1 0 -1 7\n");

    // The last of each key; the serial number's newline needs room too.
    root.write(kInfo,
               "boardrevision=12\r\nserialno=0A0B0C0D0E0F\nboardrevision=14\n"
               "serialno=02A1B2C3D4E5\r\nwifi0.macaddr=02:A1:B2:C3:D4:E6\nmanufid=00ff\n");
    EXPECT_EQ(
        JOIN(get_boardrevision(kInfo), serial(13), serial(14), get_main_mac_str(), get_manufid()),
        "14 -1 0 02A1B2C3D4E5\n 02:A1:B2:C3:D4:E6 255");
    root.write(kInfo, "eth0.macaddr=02:A1:B2:C3:D4:E5\nwifi0.macaddr=02:A1:B2:C3:D4:E6\n");
    EXPECT_STREQ(get_main_mac_str(), "02:A1:B2:C3:D4:E5");

    root.write("/var/run/system.internet", "1\n");
    std::string dhcp = JOIN(system_internet_status());
    for (const char *s : {"nothing", "deconfig", "leasefail", "bound", "renew"}) {
        root.write("/var/run/dhcpc.last_state", std::string(s) + "\n");
        dhcp += JOIN(system_dhcp_status());
    }
    EXPECT_EQ(dhcp, "101234");
    root.write("/proc/net/tcp", kTcp);
    EXPECT_EQ(system_is_ssh(), 0);  // port 22 only as a peer
    root.write("/proc/net/tcp", kTcp + "   2: 00000000:0016 00000000:0000 0A 00000000:00000000\n");
    EXPECT_EQ(system_is_ssh(), 1);
    root.write("/a", "junk\n");
    root.write("/b", "3605.17 12.00\n");
    EXPECT_EQ(JOIN(get_uptime_from_file("/a"), get_uptime_from_file("/b")), JOIN(UINT64_MAX, 3605));
}

TEST(Status, UptimeAndTimeTexts) {
    char out[64];
    const std::pair<uint64_t, const char *> cases[] = {
        {0, ""}, {59, "59s"}, {3600, "1h"}, {86400 * 3 + 120, "3d2m"}, {90061, "1d1h1m1s"}};
    for (const auto &[secs, text] : cases) {
        SCOPED_TRACE(secs);
        EXPECT_STREQ(uptime2str(secs, out, sizeof out), text);
    }
    EXPECT_STREQ(uptime2str(90061, out, 5), "1d1h");

    trel_time_parts parts;
    ASSERT_EQ(get_system_time(&parts), 0);
    EXPECT_EQ(std::string(parts.year).substr(4), "\n");
    EXPECT_EQ(get_system_time_str(out, 20), 0);
    EXPECT_EQ(strlen(out), 19u);
    EXPECT_EQ(get_system_time_str(out, 19), -1);
    EXPECT_STREQ(out, "");
}

TEST(Status, ManagementEnvironment) {
    const int P = TREL_VESK_ENV_PROD, S = TREL_VESK_ENV_STAGE, D = TREL_VESK_ENV_DEV;
    struct {
        const char *what, *cfg, *mgmt, *reftype;
        int env, limited;
    } const cases[] = {
        {"nothing: a development build", nullptr, nullptr, nullptr, P, D},
        {"a tagged build", nullptr, nullptr, "atag", P, P},
        {"an unknown name", "mgmt.vesk.env=bogus\n", nullptr, "atag", P, P},
        {"system.cfg first", "mgmt.vesk.env=dev\n", "mgmt.vesk.env=stage\n", "atag", D, D},
        {"then mgmt", "x=1\n", "mgmt.vesk.env=stage\n", "branch", S, S},
        {"forced with 1", "mgmt.vesk.env.force=1\n", nullptr, "branch", P, P},
        {"forced in mgmt", nullptr, "mgmt.vesk.env.force=enabled\n", "branch", P, P},
        {"yes does not force; atagx is no tag", "mgmt.vesk.env.force=yes\n", nullptr, "atagx", P,
         D},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        TempRoot root;
        if (c.cfg) root.write("/tmp/system.cfg", c.cfg);
        if (c.mgmt) root.write("/etc/persistent/cfg/mgmt", c.mgmt);
        if (c.reftype)
            root.write("/usr/lib/build.properties", std::string("scm_reftype=") + c.reftype + "\n");
        EXPECT_EQ(get_vesk_env(), c.env);
        EXPECT_EQ(get_vesk_env_limit_prod(), c.limited);
    }
}
