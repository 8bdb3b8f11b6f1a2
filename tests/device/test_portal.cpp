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
const std::string kToken(200, 't');              // read in 127-character pieces

void write_portal(const TempRoot &root, const std::string &name, const char *authorized,
                  const char *devnames, const char *vlans) {
    if (authorized) root.write(kDir + name + "/authorized", authorized);
    if (devnames) root.write(kDir + name + "/devnames", devnames);
    if (vlans) root.write(kDir + name + "/vlans", vlans);
}

guest_portal *read_portal(const char *name) {
    auto *p = static_cast<guest_portal *>(malloc(sizeof(guest_portal)));
    guest_portal_read(guest_portal_init(p), name);
    return p;
}

const char *name_of(const guest_portal *p) { return p ? p->name : "null"; }

class Portal : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(trel_test::open_fd_count(), fds_); }
    int fds_ = trel_test::open_fd_count();
};

}  // namespace

TEST_F(Portal, TokensAndLookups) {
    TempRoot root;
    write_portal(root, "alpha", ("aa:bb\ncc:dd \n" + kToken + ",x\n").c_str(), "wlan0,wlan01\n",
                 "10\n");
    write_portal(root, "beta", "aa:bb\n", "wlan2,\nwlan0\n", "20,10\n");
    write_portal(root, kLong, nullptr, "wlan40\n", nullptr);

    guest_portal_set set;
    guest_portal_set_init(&set);
    guest_portal *alpha = read_portal("alpha");
    guest_portal *beta = read_portal("beta");
    guest_portal_set_add(&set, alpha);
    guest_portal_set_add(&set, beta);  // added later: wins where both match
    guest_portal *shortened = read_portal(kLong.c_str());
    guest_portal_set_add(&set, shortened);
    EXPECT_EQ(shortened->authorized, nullptr);  // no such file

    // Token answers of one portal, then lookups over the set (found portal's name).
    auto dev = [&](const char *d) { return guest_portal_has_device(alpha, d); };
    auto auth = [&](const std::string &c) { return guest_portal_is_auth(alpha, c.c_str()); };
    const struct {
        const char *what;
        int got, want;
    } tokens[] = {
        {"wlan0 beside wlan01", dev("wlan0"), 1},
        {"wlan01", dev("wlan01"), 1},
        {"wlan is no token", dev("wlan"), 0},
        {"lan0 is no token", dev("lan0"), 0},
        {"empty needle", dev(""), 0},
        {"first line", auth("aa:bb"), 1},
        {"a space is no delimiter", auth("cc:dd"), 0},
        {"with its space", auth("cc:dd "), 1},
        {"200 characters over two reads", auth(kToken), 1},
        {"the first read alone", auth(kToken.substr(0, 127)), 0},
        {"after a comma, at the end", auth("x"), 1},
    };
    for (const auto &r : tokens) {
        SCOPED_TRACE(r.what);
        EXPECT_EQ(r.got, r.want);
    }
    const std::string cut = kLong.substr(0, 31);
    const struct {
        const char *what;
        std::string got, want;
    } lookups[] = {
        {"vlan 10 in both: the later", name_of(guest_portal_from_vlan(&set, 10)), "beta"},
        {"vlan 1 is not 10", name_of(guest_portal_from_vlan(&set, 1)), "null"},
        {"vlan -1", name_of(guest_portal_from_vlan(&set, -1)), "null"},
        {"wlan0 in both: the later", name_of(guest_portal_from_device(&set, "wlan0")), "beta"},
        {"wlan01", name_of(guest_portal_from_device(&set, "wlan01")), "alpha"},
        {"name prefix", name_of(guest_portal_from_name(&set, "alph")), "null"},
        {"40-character name", name_of(guest_portal_from_name(&set, kLong.c_str())), "null"},
        {"its 31 characters", name_of(guest_portal_from_name(&set, cut.c_str())), cut},
        {"its directory's files", name_of(guest_portal_from_device(&set, "wlan40")), cut},
    };
    for (const auto &r : lookups) {
        SCOPED_TRACE(r.what);
        EXPECT_EQ(r.got, r.want);
    }
    EXPECT_EQ(guest_portal_set_count(&set), 3u);

    guest_portal_set_clear(&set);
    EXPECT_EQ(guest_portal_set_count(&set), 0u);
    EXPECT_EQ(guest_portal_from_name(&set, "alpha"), nullptr);
}

TEST_F(Portal, ReadingTheDirectory) {
    TempRoot root;
    guest_portal_set set;
    guest_portal_set_init(&set);
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
    write_portal(root, "lobby", "aa\n", nullptr, "7\n");
    root.write(kDir + "stray", "wlan0\n");  // a plain file: a portal without buffers
    {
        struct Level {
            uint32_t saved = libtrel_log_level;
            ~Level() { libtrel_log_level = saved; }
        } level;
        libtrel_log_level = 8;
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
    EXPECT_EQ(name_of(guest_portal_from_vlan(&set, 7)), std::string("lobby"));
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
