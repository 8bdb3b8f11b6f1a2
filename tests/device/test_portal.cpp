// Guest portals: whole-token rules and set lookups over a fixture directory.
#include <stdlib.h>
#include <string.h>

#include <string>

#include <trel/net.h>

#include "trel_test.h"

using trel_test::LogCapture;
using trel_test::TempRoot;

namespace {

const std::string kDir = "/var/run/guest/portal/";
const std::string kLong = std::string(40, 'p');  // stored as its first 31 characters
const std::string kCut = kLong.substr(0, 31);
const std::string kToken(200, 't');  // read in 127-character pieces

guest_portal *read_portal(const std::string &name) {
    auto *p = static_cast<guest_portal *>(malloc(sizeof(guest_portal)));
    guest_portal_read(guest_portal_init(p), name.c_str());
    return p;
}

std::string name_of(const guest_portal *p) { return p ? p->name : "null"; }

class Portal : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(trel_test::open_fd_count(), fds_); }
    int fds_ = trel_test::open_fd_count();
    TempRoot root_;
};

}  // namespace

TEST_F(Portal, TokensAndLookups) {
    root_.write(kDir + "alpha/authorized", "aa:bb\ncc:dd \n" + kToken + ",x\n");
    root_.write(kDir + "alpha/devnames", "wlan0,wlan01\n");
    root_.write(kDir + "alpha/vlans", "10\n");
    root_.write(kDir + "beta/authorized", "aa:bb\n");
    root_.write(kDir + "beta/devnames", "wlan2,\nwlan0\n");
    root_.write(kDir + "beta/vlans", "20,10\n");
    root_.write(kDir + kLong + "/devnames", "wlan40\n");

    guest_portal_set set;
    guest_portal_set_init(&set);
    guest_portal *alpha = read_portal("alpha");
    guest_portal_set_add(&set, alpha);
    guest_portal_set_add(&set, read_portal("beta"));  // added later: wins where both match
    guest_portal *shortened = read_portal(kLong);
    guest_portal_set_add(&set, shortened);
    EXPECT_EQ(shortened->authorized, nullptr);  // no such file

    auto dev = [&](const char *d) { return std::to_string(guest_portal_has_device(alpha, d)); };
    auto auth = [&](const std::string &c) {
        return std::to_string(guest_portal_is_auth(alpha, c.c_str()));
    };
    const struct {
        const char *what;
        std::string got, want;
    } rows[] = {
        {"wlan0 beside wlan01", dev("wlan0"), "1"},
        {"wlan01", dev("wlan01"), "1"},
        {"wlan is no token", dev("wlan"), "0"},
        {"lan0 is no token", dev("lan0"), "0"},
        {"empty needle", dev(""), "0"},
        {"first line", auth("aa:bb"), "1"},
        {"a space is no delimiter", auth("cc:dd"), "0"},
        {"with its space", auth("cc:dd "), "1"},
        {"200 characters over two reads", auth(kToken), "1"},
        {"the first read alone", auth(kToken.substr(0, 127)), "0"},
        {"after a comma, at the end", auth("x"), "1"},
        {"vlan 10 in both: the later", name_of(guest_portal_from_vlan(&set, 10)), "beta"},
        {"vlan 1 is not 10", name_of(guest_portal_from_vlan(&set, 1)), "null"},
        {"vlan -1", name_of(guest_portal_from_vlan(&set, -1)), "null"},
        {"wlan0 in both: the later", name_of(guest_portal_from_device(&set, "wlan0")), "beta"},
        {"wlan01", name_of(guest_portal_from_device(&set, "wlan01")), "alpha"},
        {"name prefix", name_of(guest_portal_from_name(&set, "alph")), "null"},
        {"40-character name", name_of(guest_portal_from_name(&set, kLong.c_str())), "null"},
        {"its 31 characters", name_of(guest_portal_from_name(&set, kCut.c_str())), kCut},
        {"its directory's files", name_of(guest_portal_from_device(&set, "wlan40")), kCut},
        {"count", std::to_string(guest_portal_set_count(&set)), "3"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        EXPECT_EQ(r.got, r.want);
    }
    guest_portal_set_clear(&set);
    EXPECT_EQ(guest_portal_set_count(&set), 0u);
    EXPECT_EQ(guest_portal_from_name(&set, "alpha"), nullptr);
}

TEST_F(Portal, ReadingTheDirectory) {
    guest_portal_set set;
    guest_portal_set_init(&set);
    trel_test::LogSettings level(8);  // debug lines too
    {
        LogCapture log;
        guest_portal_set_read(&set);
        EXPECT_EQ(guest_portal_set_count(&set), 0u);
        EXPECT_EQ(guest_portal_from_vlan(&set, 0), nullptr);
        EXPECT_TRUE(
            log.contains("guest_portals.guest_portal_set_read(): Couldn't open guest dir "
                         "/var/run/guest/portal"))
            << log.text();
    }
    root_.write(kDir + "lobby/authorized", "aa\n");
    root_.write(kDir + "lobby/vlans", "7\n");
    root_.write(kDir + "stray", "wlan0\n");  // a plain file: a portal without buffers
    {
        LogCapture log;
        guest_portal_set_read(&set);
        EXPECT_TRUE(
            log.contains("[debug] guest_portals.fill_portal_buffer_file(): Couldn't open "
                         "/var/run/guest/portal/lobby/devnames"))
            << log.text();
    }
    EXPECT_EQ(guest_portal_set_count(&set), 2u);
    guest_portal *stray = guest_portal_from_name(&set, "stray");
    ASSERT_NE(stray, nullptr);
    EXPECT_EQ(stray->authorized, nullptr);
    EXPECT_EQ(stray->devnames, nullptr);
    EXPECT_EQ(name_of(guest_portal_from_vlan(&set, 7)), "lobby");
    guest_portal_set_clear(&set);

    // A portal of the caller's own, cleared by hand.
    guest_portal p;
    guest_portal_read(guest_portal_init(&p), "lobby");
    EXPECT_TRUE(guest_portal_is_auth(&p, "aa"));
    guest_portal_clear(&p);
    EXPECT_EQ(p.authorized, nullptr);
    EXPECT_EQ(p.vlans, nullptr);
    EXPECT_FALSE(guest_portal_is_auth(&p, "aa"));
    EXPECT_EQ(guest_portal_init(nullptr), nullptr);
    EXPECT_EQ(guest_portal_set_count(nullptr), 0u);
}
