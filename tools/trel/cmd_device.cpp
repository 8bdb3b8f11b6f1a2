// Device commands: board, status.
#include <stdio.h>
#include <string.h>

#include <iostream>
#include <memory>
#include <string>

#include <libtrel.h>
#include <trel/device.h>

#include "tool.h"

namespace {

std::string hex(unsigned value, int width) {
    char buf[16];
    snprintf(buf, sizeof buf, "0x%0*x", width, value);
    return buf;
}

using trel_tool::mac_text;

std::string version_text(uint32_t v) {
    char buf[16];
    snprintf(buf, sizeof buf, "%u.%u.%u", (v >> 16) & 0xFF, (v >> 8) & 0xFF, v & 0xFF);
    return buf;
}

// Human-readable form of a JSON value: one "key: value" line per member,
// nested values indented below their key.
void print_text(const json_t *v, int indent) {
    std::string pad(indent, ' ');
    auto scalar = [](const json_t *s) -> std::string {
        if (json_is_string(s)) return json_string_value(s);
        if (json_is_integer(s)) return std::to_string(json_integer_value(s));
        if (json_is_true(s)) return "yes";
        if (json_is_false(s)) return "no";
        if (json_is_null(s)) return "-";
        char *d = json_dumps(s, JSON_COMPACT | JSON_ENCODE_ANY);
        std::string out = d ? d : "";
        free(d);
        return out;
    };
    auto compound = [](const json_t *s) {
        return (json_is_object(s) && json_object_size(s) > 0) ||
               (json_is_array(s) && json_array_size(s) > 0);
    };
    if (json_is_object(v)) {
        const char *key;
        json_t *member;
        json_object_foreach(const_cast<json_t *>(v), key, member) {
            if (compound(member)) {
                std::cout << pad << key << ":\n";
                print_text(member, indent + 2);
            } else {
                std::cout << pad << key << ": " << scalar(member) << "\n";
            }
        }
    } else if (json_is_array(v)) {
        size_t i;
        json_t *item;
        json_array_foreach(v, i, item) {
            if (compound(item)) {
                std::cout << pad << "- " << i << "\n";
                print_text(item, indent + 2);
            } else {
                std::cout << pad << "- " << scalar(item) << "\n";
            }
        }
    } else {
        std::cout << pad << scalar(v) << "\n";
    }
}

int emit(json_t *value) {
    if (value == nullptr) return trel_tool::fail("out of memory");
    if (trel_tool::options().json) {
        trel_tool::print_json(value);
    } else {
        print_text(value, 0);
        json_decref(value);
    }
    return 0;
}

json_t *predicates_json() {
    static const struct {
        const char *name;
        uint32_t (*fn)(void);
    } kPredicates[] = {
        {"is_gen1", is_gen1},
        {"is_gen2", is_gen2},
        {"is_gen3_QV", is_gen3_QV},
        {"is_single_5ghz_gen3", is_single_5ghz_gen3},
        {"is_gen3", is_gen3},
        {"is_kx", is_kx},
        {"is_kx_setup_complete", is_kx_setup_complete},
        {"is_router_to_mesh", is_router_to_mesh},
        {"is_wul_supported", is_wul_supported},
        {"is_dax5", is_dax5},
        {"is_dax6", is_dax6},
        {"is_dax7", is_dax7},
        {"is_dax6_tb_aqr112c", is_dax6_tb_aqr112c},
        {"is_dax6_enterprise", is_dax6_enterprise},
        {"is_dax6_birch_iw", is_dax6_birch_iw},
        {"is_daxac_iw", is_daxac_iw},
        {"is_6ghz_supported", is_6ghz_supported},
        {"is_qca_ap", is_qca_ap},
        {"is_wifi_only", is_wifi_only},
        {"is_force_detect_loop", is_force_detect_loop},
    };
    json_t *o = json_object();
    for (const auto &p : kPredicates) json_object_set_new(o, p.name, json_boolean(p.fn()));
    const trel_board *b = board_identify();
    json_object_set_new(o, "dax_is_supported_by_old_wifi",
                        json_boolean(dax_is_supported_by_old_wifi(b)));
    json_object_set_new(o, "dax_is_supported_ble_fast_adopt",
                        json_boolean(dax_is_supported_ble_fast_adopt(b)));
    json_object_set_new(o, "morna_board_is_beta_firmware",
                        json_boolean(morna_board_is_beta_firmware(b)));
    json_object_set_new(o, "morna_board_has_qrcode", json_boolean(morna_board_has_qrcode()));
    return o;
}

int run_board() {
    const trel_board *b = board_identify();
    if (b == nullptr) return trel_tool::fail("no board");
    uint16_t vendor = 0, system = 0;
    int ids = board_identify_ids(&vendor, &system);

    json_t *o = json_object();
    json_object_set_new(o, "name", json_string(map_board_name(b)));
    json_object_set_new(o, "platform", json_string(b->platform ? b->platform : ""));
    json_object_set_new(o, "known", json_boolean(morna_identify() != nullptr));
    json_object_set_new(o, "vendor_id",
                        ids == 0 ? json_string(hex(vendor, 4).c_str()) : json_null());
    json_object_set_new(o, "system_id", json_string(hex(b->system_id, 4).c_str()));
    json_object_set_new(o, "cpuid", json_string(hex(b->cpuid, 4).c_str()));
    json_object_set_new(o, "boardrevision", json_integer(b->boardrevision));
    uint32_t bomrev = morna_get_bomrev();
    json_object_set_new(o, "bomrev",
                        bomrev == 0xFFFFFFFFu ? json_null() : json_string(hex(bomrev, 5).c_str()));
    json_object_set_new(
        o, "hw_board_id",
        bomrev == 0xFFFFFFFFu ? json_null() : json_string(hex(morna_get_hw_board_id(), 5).c_str()));
    json_object_set_new(o, "country", json_integer(b->country));
    json_object_set_new(o, "cpu_mac", json_string(mac_text(b->cpu_mac).c_str()));
    json_object_set_new(o, "main_mac", json_string(get_main_mac_str()));

    json_t *groups = json_array();
    for (int g = 0; g < b->num_port_groups && g < TREL_BOARD_MAX_PORT_GROUPS; g++) {
        json_t *ports = json_array();
        const trel_board_port_group &group = b->port_groups[g];
        for (int p = 0; p < group.num_ports && p < TREL_BOARD_MAX_PORTS; p++) {
            const trel_board_port &port = group.ports[p];
            json_array_append_new(
                ports, json_pack("{s:i, s:i, s:s}", "port_id", port.port_id, "phy", port.phy_idx,
                                 "label", port.label ? port.label : ""));
        }
        json_array_append_new(groups, ports);
    }
    json_object_set_new(o, "port_groups", groups);
    json_object_set_new(o, "eth_ports", json_integer(get_num_of_eth_ports()));
    int main_port = get_main_phy_port_id();
    json_object_set_new(o, "main_port", main_port >= 0 ? json_integer(main_port) : json_null());

    json_t *radios = json_array();
    for (int r = 0; r < b->num_radios && r < TREL_BOARD_MAX_RADIOS; r++) {
        const trel_radio &radio = b->radios[r];
        json_array_append_new(
            radios, json_pack("{s:s, s:s}", "pci_vendor", hex(radio.pci_vendor_id, 4).c_str(),
                              "pci_device", hex(radio.pci_device_id, 4).c_str()));
    }
    json_object_set_new(o, "radios", radios);
    json_object_set_new(o, "fw_compat", json_string(version_text(b->fw_compat).c_str()));
    json_object_set_new(o, "poe_budget", json_integer(board_get_poe_budget()));
    json_object_set_new(o, "accelerometer",
                        has_accelerometer() ? prepare_accelerometer_status() : json_null());
    buffer *eeprom = trel_read_eeprom();
    json_object_set_new(o, "eeprom_bytes",
                        eeprom != nullptr ? json_integer(eeprom->length(eeprom)) : json_null());
    if (eeprom != nullptr) buffer_destroy(eeprom);
    json_object_set_new(o, "predicates", predicates_json());
    return emit(o);
}

const char *env_name(int env) {
    switch (env) {
        case TREL_VESK_ENV_DEV:
            return "dev";
        case TREL_VESK_ENV_STAGE:
            return "stage";
        default:
            return "prod";
    }
}

// The counters come from /proc/net/dev, under --root from the snapshot; the
// address, netmask, MAC, flags and link come from the live kernel's
// interface of that name, so a snapshot's report leaves them out.
json_t *interface_json(const std::string &ifname) {
    trel_dev_status st;
    int rc = fill_dev_status(ifname.c_str(), &st);
    if (rc != 0) return json_pack("{s:s, s:i}", "name", ifname.c_str(), "error", rc);
    const bool live = trel_tool::options().root.empty();
    json_t *o = json_pack("{s:s, s:b}", "name", st.name, "present", st.present);
    if (live)
        json_object_update_new(
            o, json_pack("{s:s, s:s, s:s, s:b, s:b}", "hwaddr", mac_text(st.hwaddr).c_str(),
                         "ipaddr", st.ipaddr_str, "netmask", st.netmask_str, "up",
                         (st.flags & 1) != 0, "running", (st.flags & 0x40) != 0));
    json_object_set_new(
        o, "rx",
        json_pack("{s:I, s:I, s:I, s:I, s:I}", "bytes", (json_int_t)st.rx_bytes, "packets",
                  (json_int_t)st.rx_packets, "errors", (json_int_t)st.rx_errors, "dropped",
                  (json_int_t)st.rx_dropped, "multicast", (json_int_t)st.rx_multicast));
    json_object_set_new(o, "tx",
                        json_pack("{s:I, s:I, s:I, s:I}", "bytes", (json_int_t)st.tx_bytes,
                                  "packets", (json_int_t)st.tx_packets, "errors",
                                  (json_int_t)st.tx_errors, "dropped", (json_int_t)st.tx_dropped));
    if (!live) return o;
    // Mb/s; 0 (no reading) and all ones (no link settings) show as unknown.
    json_object_set_new(
        o, "speed", st.speed == 0 || st.speed == UINT32_MAX ? json_null() : json_integer(st.speed));
    json_object_set_new(o, "duplex",
                        st.duplex == 0   ? json_string("half")
                        : st.duplex == 1 ? json_string("full")
                                         : json_null());
    int link = get_ethtool_link_status(ifname.c_str());
    json_object_set_new(o, "link", link < 0 ? json_null() : json_boolean(link));
    return o;
}

int run_status(const std::string &ifname) {
    static const char kInfo[] = "/proc/trelhal/system.info";
    json_t *o = json_object();
    const char *version = nullptr;
    get_version(&version);
    json_object_set_new(o, "version", json_string(version));
    char sn[64];
    if (get_boardsn(kInfo, sn, sizeof sn) == 0) {
        sn[strcspn(sn, "\n")] = '\0';
        json_object_set_new(o, "serialno", json_string(sn));
    } else {
        json_object_set_new(o, "serialno", json_null());
    }
    json_object_set_new(o, "boardrevision", json_integer(get_boardrevision(kInfo)));
    json_object_set_new(o, "mac", json_string(get_main_mac_str()));
    json_object_set_new(o, "manufid", json_string(hex((unsigned)get_manufid(), 4).c_str()));
    uint64_t up = get_uptime_from_proc();
    char uptime[64];
    json_object_set_new(
        o, "uptime",
        up == UINT64_MAX ? json_null() : json_string(uptime2str(up, uptime, sizeof uptime)));
    char now[32];
    json_object_set_new(o, "time",
                        get_system_time_str(now, sizeof now) == 0 ? json_string(now) : json_null());
    json_object_set_new(o, "environment", json_string(env_name(get_vesk_env())));
    json_object_set_new(o, "service_environment", json_string(env_name(get_vesk_env_limit_prod())));
    int internet = system_internet_status();
    json_object_set_new(o, "internet", internet < 0 ? json_null() : json_integer(internet));
    static const char *kDhcp[] = {"unknown", "deconfig", "leasefail", "bound", "renew"};
    json_object_set_new(o, "dhcpc", json_string(kDhcp[system_dhcp_status()]));
    json_object_set_new(o, "ssh", json_boolean(system_is_ssh()));
    trel_service_status s;
    fill_services(&s);
    json_object_set_new(o, "services",
                        json_pack("{s:b, s:b, s:b, s:b, s:b}", "dhcpc", s.dhcpc, "dhcpd", s.dhcpd,
                                  "ppp", s.ppp, "iptables", s.iptables, "ebtables", s.ebtables));
    if (!ifname.empty()) json_object_set_new(o, "interface", interface_json(ifname));
    return emit(o);
}

}  // namespace

void trel_tool::register_device_commands(CLI::App &app) {
    auto *board = app.add_subcommand("board", "Show the identified board and its model predicates");
    trel_tool::add_command(board, run_board);

    auto ifname = std::make_shared<std::string>();
    auto *status =
        app.add_subcommand("status", "Show the system status, and IFNAME's counters and link");
    status->add_option("IFNAME", *ifname, "Network interface");
    trel_tool::add_command(status, [ifname] { return run_status(*ifname); });
}
