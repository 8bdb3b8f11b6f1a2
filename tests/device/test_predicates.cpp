#include <string.h>

#include <string>

#include <trel/device.h>

#include "trel_test.h"

using trel_test::run_in_child;
using trel_test::TempRoot;

namespace {

// Every id-only predicate, in a fixed order.
struct Predicate {
    const char *name;
    uint32_t (*fn)(void);
};
const Predicate kPredicates[] = {
    {"gen1", is_gen1},
    {"gen2", is_gen2},
    {"gen3_QV", is_gen3_QV},
    {"single_5ghz_gen3", is_single_5ghz_gen3},
    {"gen3", is_gen3},
    {"kx", is_kx},
    {"router_to_mesh", is_router_to_mesh},
    {"wul", is_wul_supported},
    {"dax5", is_dax5},
    {"dax6", is_dax6},
    {"dax7", is_dax7},
    {"dax6_enterprise", is_dax6_enterprise},
    {"dax6_birch_iw", is_dax6_birch_iw},
    {"daxac_iw", is_daxac_iw},
    {"6ghz", is_6ghz_supported},
    {"qca_ap", is_qca_ap},
    {"wifi_only", is_wifi_only},
    {"force_detect_loop", is_force_detect_loop},
};

std::string answers_for(uint16_t id) {
    trel_board b;
    memset(&b, 0, sizeof b);
    b.name = "crafted";
    b.system_id = id;
    update_cached_board(&b);
    std::string yes;
    for (const Predicate &p : kPredicates) {
        uint32_t v = p.fn();
        EXPECT_LE(v, 1u) << p.name;
        if (v) yes += std::string(yes.empty() ? "" : " ") + p.name;
    }
    update_cached_board(nullptr);
    return yes;
}

}  // namespace

TEST(Predicates, OneBoardOfEachFamily) {
    run_in_child([] {
        TempRoot root;
        struct {
            uint16_t id;
            const char *yes;
        } const cases[] = {
            {0xEE7C, ""},
            {0xA102, "gen1"},
            {0xA203, "gen2 qca_ap"},
            {0xA312, "gen3_QV gen3 qca_ap"},
            {0xA303, "single_5ghz_gen3 gen3 qca_ap"},
            {0xB500, "kx"},  // no /etc/meshmode.conf
            {0xB501, "router_to_mesh"},
            {0xC502, "dax5"},
            {0xC601, "dax6 qca_ap"},
            {0xC622, "dax6 dax6_enterprise qca_ap"},
            {0xC620, "dax6 dax6_enterprise qca_ap"},
            {0xC635, "dax6 dax6_birch_iw qca_ap"},
            {0xC640, "dax6 6ghz qca_ap"},
            {0xC450, "daxac_iw"},
            {0xC440, "daxac_iw"},
            {0xC703, "dax7 6ghz qca_ap"},
            {0xD010, "wifi_only force_detect_loop"},
            {0xD011, "wifi_only force_detect_loop"},
            {0xD012, ""},
            {0xD030, "wifi_only"},
        };
        for (const auto &c : cases) EXPECT_EQ(answers_for(c.id), c.yes) << std::hex << c.id;

        root.write("/etc/meshmode.conf", "");
        EXPECT_EQ(answers_for(0xB500), "kx router_to_mesh");
        EXPECT_EQ(answers_for(0xB501), "router_to_mesh");
    });
}

TEST(Predicates, RevisionAndSetupRules) {
    run_in_child([] {
        TempRoot root;
        trel_board b;
        memset(&b, 0, sizeof b);
        b.system_id = 0xC614;
        update_cached_board(&b);
        for (int rev = -1; rev <= 30; rev++) {
            b.boardrevision = rev;
            EXPECT_EQ(is_dax6_tb_aqr112c(), rev < 21 || rev == 22 ? 1u : 0u) << rev;
        }
        b.system_id = 0xC615;
        b.boardrevision = 5;
        EXPECT_EQ(is_dax6_tb_aqr112c(), 0u);

        EXPECT_EQ(is_kx_setup_complete(), 0u);
        root.write("/etc/persistent/cfg/mgmt", "mgmt.is_default=false\n");
        EXPECT_EQ(is_kx_setup_complete(), 0u);
        root.write("/etc/persistent/cfg/mgmt", "mgmt.is_setup_completed=false\n");
        EXPECT_EQ(is_kx_setup_complete(), 0u);
        root.write("/etc/persistent/cfg/mgmt", "mgmt.is_setup_completed=true\n");
        EXPECT_EQ(is_kx_setup_complete(), 1u);
        root.write("/etc/persistent/cfg/mgmt", "mgmt.is_setup_completed=0\n");
        EXPECT_EQ(is_kx_setup_complete(), 1u);
        update_cached_board(nullptr);
    });
}
