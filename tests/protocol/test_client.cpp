// The one-shot client: settings from the device configuration and the
// mesh-halt datagram as it leaves the bridge.
#include <arpa/inet.h>
#include <string.h>

#include "proto_test.h"

using namespace proto_test;
using trel_test::LogCapture;
using trel_test::TempRoot;

TEST(Client, InitFromSystemConfig) {
    trel_test::run_in_child([] {
        TempRoot root;
        write_system_info(root);
        LogCapture log;
        std::pair<std::string, std::string> cases[] = {
            {"", "trel_protocol_client_init(): Unable to access /tmp/system.cfg: No such file"},
            {settings("", "239.1.2.3"), "trel_protocol_client_init(): no morna.key"},
            {settings(kKeyHex, ""), "trel_protocol_client_init(): no morna.mcip"},
            {settings(std::string(kKeyHex) + "a", "239.1.2.3"), "morna.key invalid len 33"},
        };
        for (const auto &[cfg, message] : cases) {
            if (cfg.empty())
                root.remove("/tmp/system.cfg");
            else
                root.write("/tmp/system.cfg", cfg);
            log.clear();
            EXPECT_EQ(trel_protocol_client_init(), -1);
            EXPECT_TRUE(log.contains(message)) << log.text();
            EXPECT_TRUE(log.contains("client_init(): could not start trel-protocol"));
            EXPECT_EQ(trel_protocol_ctrl.initialized, 0u);
            EXPECT_EQ(trel_protocol_ctrl.sock, -1);
        }
        root.write("/tmp/system.cfg", settings(kKeyHex, "not.an.address"));
        ASSERT_EQ(trel_protocol_client_init(), 0);
        EXPECT_EQ(trel_protocol_ctrl.mcast_ip.s_addr, 0u);
        root.write("/tmp/system.cfg", settings(kKeyHex, "239.1.2.3"));
        log.clear();
        ASSERT_EQ(trel_protocol_client_init(), 0);
        EXPECT_EQ(log.text(), "");  // success is silent
        auto &c = trel_protocol_ctrl;
        EXPECT_EQ(c.initialized + c.encrypt, 2u);
        EXPECT_EQ(c.mcast_ip.s_addr, inet_addr("239.1.2.3"));
        EXPECT_EQ(c.my_ip.s_addr, 0u);
        EXPECT_EQ(memcmp(c.key, kKey, 16), 0);
        EXPECT_EQ(memcmp(c.mac, kMac, 6), 0);
    });
}

// Mesh-halt before init, then without a bridge (socket step fails cleanly),
// then, in a namespace with "br0", on the wire.
static void mesh_halt_case(bool with_bridge) {
    TempRoot root;
    write_system_info(root);
    root.write("/tmp/system.cfg", settings(kKeyHex, "239.1.2.3"));
    LogCapture log;
    trel_protocol_client_event_mesh_halt_send();
    EXPECT_TRUE(
        log.contains("[error] trel_protocol.trel_protocol_client_event_mesh_halt_send(): "
                     "trel-protocol not initilized"));
    ASSERT_EQ(trel_protocol_client_init(), 0);
    int fds = trel_test::open_fd_count();
    if (!with_bridge) {
        trel_protocol_client_event_mesh_halt_send();
        EXPECT_TRUE(
            log.contains("trel_protocol_client_sock_init(): unable to bind socket to device"));
        EXPECT_TRUE(log.contains("trel_protocol.trel_protocol_client_send(): sock init failed"));
        EXPECT_EQ(trel_protocol_ctrl.sock, -1);
        EXPECT_EQ(trel_test::open_fd_count(), fds);
        return;
    }
    for (const char *cmd :
         {"link add br0 type bridge", "link set br0 up", "addr add 10.3.0.1/24 dev br0"})
        ASSERT_TRUE(ip(cmd)) << cmd;
    Capture cap("br0", TREL_PROTOCOL_PORT);
    ASSERT_TRUE(cap.ok());
    trel_protocol_client_event_mesh_halt_send();
    EXPECT_EQ(trel_protocol_ctrl.sock, -1);
    EXPECT_EQ(trel_test::open_fd_count(), fds + 1);  // the capture

    Packet got;
    ASSERT_TRUE(cap.next(got, 5000)) << log.text();
    Packet extra;
    EXPECT_FALSE(cap.next(extra, 0)) << "exactly one datagram";
    Bytes &d = got.payload;
    ASSERT_EQ(d.size(), 56u);
    EXPECT_EQ(got.ttl, 64);
    EXPECT_EQ(got.sport, TREL_PROTOCOL_PORT);
    EXPECT_EQ(got.dst, inet_addr("239.1.2.3"));
    EXPECT_EQ(d[5], TREL_PROTOCOL_FLAG_ENCRYPTED);
    EXPECT_EQ(be16(&d[6]), 16);
    EXPECT_EQ(be16(&d[8]), 6);
    EXPECT_EQ(be16(&d[10]), 3);
    trel_protocol_state c = make_ctrl();
    ASSERT_EQ(dec_payload(56, d.data(), &c), 0);
    EXPECT_EQ(host_hdr(d.data()).length, 14);
    const uint8_t want[16] = {0x02, 0xa1, 0xb2, 0xc3, 0xd4, 0xe5, 0, 0,
                              0x02, 0x58, 0,    0,    0,    4,    2, 2};
    EXPECT_EQ(Bytes(&d[40], &d[56]), Bytes(want, want + 16));
}

TEST(Client, MeshHaltWithoutBridge) {
    trel_test::run_in_child([] {
        enter_netns();  // surely without br0, when possible
        mesh_halt_case(false);
    });
}

TEST(Client, MeshHaltOnTheWire) {
    if (!netns_available()) GTEST_SKIP() << "needs root for a network namespace";
    trel_test::run_in_child([] {
        ASSERT_TRUE(enter_netns());
        mesh_halt_case(true);
    });
}
