/* libtrel device identity and status: the board record, system status
 * readers, model predicates and the outlet/power-supply stubs. */
#ifndef TREL_DEVICE_H
#define TREL_DEVICE_H

#include <stddef.h>
#include <stdint.h>

#include <jansson.h>

#include <trel/common.h>
#include <trel/core.h>

TREL_BEGIN_DECLS

/* ---- Board identification ------------------------------------------------ */

#define TREL_BOARD_MAX_PORT_GROUPS 4
#define TREL_BOARD_MAX_PORTS 16
#define TREL_BOARD_MAX_RADIOS 4

/* fw_compat values: 0x00MMmmpp.  A beta unit carries TREL_FW_COMPAT_BETA. */
#define TREL_FW_COMPAT_BETA 0x090909u
#define TREL_FW_COMPAT_END 0xFFFFFFu

/* Architecture codes of arch_name_to_type. */
#define TREL_ARCH_AR2313 0
#define TREL_ARCH_AR2316 1
#define TREL_ARCH_AR7100 2
#define TREL_ARCH_AR7240 3
#define TREL_ARCH_AR933X 4
#define TREL_ARCH_UNKNOWN 43

/* Radio band bits of trel_radio.bands. */
#define TREL_RADIO_BAND_2G 0x01
#define TREL_RADIO_BAND_5G 0x02
#define TREL_RADIO_BAND_6G 0x04

typedef struct trel_board_port {
    uint8_t phy_idx;
    uint8_t port_id;
    const char *label; /* e.g. "Main", "PoE In + Data"; may be null */
} trel_board_port;

typedef struct trel_board_port_group {
    uint8_t num_ports;
    trel_board_port ports[TREL_BOARD_MAX_PORTS];
} trel_board_port_group;

/* One radio: 248 bytes. */
typedef struct trel_radio {
    char name[16];  /* radio device, e.g. "wifi0" */
    char label[32]; /* e.g. "2.4 GHz" */
    uint16_t pci_vendor_id;
    uint16_t pci_device_id;
    uint16_t pci_subsys_vendor_id;
    uint16_t pci_subsys_device_id;
    uint8_t pci_revision;
    uint8_t bands;       /* TREL_RADIO_BAND_* */
    uint8_t chains;      /* spatial streams */
    uint8_t max_txpower; /* dBm */
    uint8_t reserved[188];
} trel_radio;

/* The board record.  Callers receive a pointer and never free it. */
typedef struct trel_board {
    const char *name;
    uint32_t cpuid;
    uint8_t cpu_mac[6];
    uint8_t num_port_groups;
    trel_board_port_group port_groups[TREL_BOARD_MAX_PORT_GROUPS];
    uint8_t num_radios;
    trel_radio radios[TREL_BOARD_MAX_RADIOS];
    uint16_t system_id;
    uint16_t poe_budget;
    uint16_t poe_reserved;
    uint32_t fw_compat;
    uint32_t hw_cpuid; /* second copy of cpuid */
    int32_t boardrevision;
    uint16_t country;
    /* Build data of the model. */
    const char *platform; /* platform code, e.g. "HRB-SW-P" */
} trel_board;

int board_identify_ids(uint16_t *vendor_id, uint16_t *system_id) TREL_NOEXCEPT;
trel_board *get_board(void) TREL_NOEXCEPT;
trel_board *morna_identify(void) TREL_NOEXCEPT;
const trel_board *morna_get_board(uint16_t system_id) TREL_NOEXCEPT;
const char *morna_identify_platform(const char *code) TREL_NOEXCEPT;
const char *board_identify_platform(const char *code) TREL_NOEXCEPT;
trel_board *board_identify(void) TREL_NOEXCEPT;
void update_cached_board(trel_board *board) TREL_NOEXCEPT;
const char *map_board_name(const trel_board *board) TREL_NOEXCEPT;

int board_get_poe_budget(void) TREL_NOEXCEPT;
int board_has_poe(void) TREL_NOEXCEPT;
int board_get_cpu_mac(uint8_t *mac) TREL_NOEXCEPT;
trel_board_port *get_main_phy(void) TREL_NOEXCEPT;
int get_main_phy_port_id(void) TREL_NOEXCEPT;
int get_main_phy_idx(void) TREL_NOEXCEPT;
int get_phy_port_id_by_idx(int idx) TREL_NOEXCEPT;
int get_num_of_eth_ports(void) TREL_NOEXCEPT;

int has_accelerometer(void) TREL_NOEXCEPT;
json_t *prepare_accelerometer_status(void) TREL_NOEXCEPT;

uint32_t morna_get_bomrev(void) TREL_NOEXCEPT;
uint32_t morna_get_hw_board_id(void) TREL_NOEXCEPT;
int morna_board_is_beta_firmware(const trel_board *board) TREL_NOEXCEPT;
/* 1 when "/proc/trelhal/system.info" carries a non-empty "qrid" value (the
 * code printed on the unit's label). */
int morna_board_has_qrcode(void) TREL_NOEXCEPT;
int dax_is_supported_by_old_wifi(const trel_board *board) TREL_NOEXCEPT;
int dax_is_supported_ble_fast_adopt(const trel_board *board) TREL_NOEXCEPT;

int arch_name_to_type(const char *name, size_t length) TREL_NOEXCEPT;
/* 65536 bytes of EEPROM in a new buffer (release with buffer_destroy). */
buffer *trel_read_eeprom(void) TREL_NOEXCEPT;

/* ---- System status ------------------------------------------------------- */

typedef struct trel_dev_status {
    char name[16];
    uint8_t hwaddr[6];
    uint32_t ipaddr;  /* network order */
    uint32_t netmask; /* network order */
    char ipaddr_str[18];
    char netmask_str[18];
    uint32_t present;
    uint32_t flags;
    uint64_t rx_bytes;
    uint64_t rx_packets;
    uint64_t rx_errors;
    uint64_t rx_dropped;
    uint64_t rx_multicast;
    uint64_t tx_bytes;
    uint64_t tx_packets;
    uint64_t tx_errors;
    uint64_t tx_dropped;
    uint32_t speed;
    uint32_t duplex;
    uint32_t alt_speed;
    uint32_t alt_duplex;
} trel_dev_status;

/* Network services the configuration enables (fill_services). */
typedef struct trel_service_status {
    uint32_t dhcpc;
    uint32_t dhcpd;
    uint32_t ppp;
    uint32_t iptables;
    uint32_t ebtables;
} trel_service_status;

typedef struct trel_time_parts {
    char weekday[8];
    char month[8];
    char day[8];
    char hour[8];
    char minute[8];
    char second[8];
    char year[8];
} trel_time_parts;

/* system_dhcp_status */
#define TREL_DHCP_UNKNOWN 0
#define TREL_DHCP_DECONFIG 1
#define TREL_DHCP_LEASEFAIL 2
#define TREL_DHCP_BOUND 3
#define TREL_DHCP_RENEW 4

/* get_vesk_env */
#define TREL_VESK_ENV_PROD 0
#define TREL_VESK_ENV_STAGE 1
#define TREL_VESK_ENV_DEV 2

int fill_dev_status(const char *ifname, trel_dev_status *status) TREL_NOEXCEPT;
int get_ethtool_link_status(const char *ifname) TREL_NOEXCEPT;
void replace_ifname(char *ifname, const char *prefix) TREL_NOEXCEPT;
int fill_services(trel_service_status *status) TREL_NOEXCEPT;
int get_version(const char **version) TREL_NOEXCEPT;

int system_is_xxx(const char *path, int def) TREL_NOEXCEPT;
int system_set_xxx(const char *path, int on) TREL_NOEXCEPT;
int system_set_value(const char *path, const char *value) TREL_NOEXCEPT;

int get_boardrevision(const char *path) TREL_NOEXCEPT;
int get_boardsn(const char *path, char *out, int32_t size) TREL_NOEXCEPT;
const char *get_main_mac_str(void) TREL_NOEXCEPT;
long get_manufid(void) TREL_NOEXCEPT;

int system_internet_status(void) TREL_NOEXCEPT;
int system_dhcp_status(void) TREL_NOEXCEPT;
int system_is_ssh(void) TREL_NOEXCEPT;

uint64_t get_uptime_from_sysinfo(void) TREL_NOEXCEPT;
uint64_t get_uptime_from_file(const char *path) TREL_NOEXCEPT;
uint64_t get_uptime_from_proc(void) TREL_NOEXCEPT;
char *uptime2str(uint64_t seconds, char *out, size_t size) TREL_NOEXCEPT;
int get_system_time(trel_time_parts *parts) TREL_NOEXCEPT;
int get_system_time_str(char *out, size_t size) TREL_NOEXCEPT;

int get_vesk_env(void) TREL_NOEXCEPT;
int get_vesk_env_limit_prod(void) TREL_NOEXCEPT;

/* ---- Model predicates (1 or 0) -------------------------------------------- */

uint32_t is_gen1(void) TREL_NOEXCEPT;
uint32_t is_gen2(void) TREL_NOEXCEPT;
uint32_t is_gen3_QV(void) TREL_NOEXCEPT;
uint32_t is_single_5ghz_gen3(void) TREL_NOEXCEPT;
uint32_t is_gen3(void) TREL_NOEXCEPT;
uint32_t is_kx(void) TREL_NOEXCEPT;
uint32_t is_kx_setup_complete(void) TREL_NOEXCEPT;
uint32_t is_router_to_mesh(void) TREL_NOEXCEPT;
uint32_t is_wul_supported(void) TREL_NOEXCEPT;
uint32_t is_dax5(void) TREL_NOEXCEPT;
uint32_t is_dax6(void) TREL_NOEXCEPT;
uint32_t is_dax7(void) TREL_NOEXCEPT;
uint32_t is_dax6_tb_aqr112c(void) TREL_NOEXCEPT;
uint32_t is_dax6_enterprise(void) TREL_NOEXCEPT;
uint32_t is_dax6_birch_iw(void) TREL_NOEXCEPT;
uint32_t is_daxac_iw(void) TREL_NOEXCEPT;
uint32_t is_6ghz_supported(void) TREL_NOEXCEPT;
uint32_t is_qca_ap(void) TREL_NOEXCEPT;
uint32_t is_wifi_only(void) TREL_NOEXCEPT;
uint32_t is_force_detect_loop(void) TREL_NOEXCEPT;

/* ---- Outlets and power supplies -------------------------------------------- */

/* No outlets in this build: null. */
json_t *trel_outlet_get_outlet_status_json(void) TREL_NOEXCEPT;
/* Merges the outlet status into payload; 0 when there is none. */
int trel_outlet_status_update_json_payload(json_t *payload) TREL_NOEXCEPT;
/* No power supplies in this build: 0. */
int trel_psu_get_json_psu_table(json_t *table) TREL_NOEXCEPT;

TREL_END_DECLS

#endif
