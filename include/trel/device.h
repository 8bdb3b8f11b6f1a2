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

/* One Ethernet port of a port group. */
typedef struct trel_board_port {
    uint8_t phy_idx;
    uint8_t port_id;
    const char *label; /* e.g. "Main", "PoE In + Data"; may be null */
} trel_board_port;

/* A group of ports on one switch; num_ports of ports[] are used. */
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

/* The board record.  Callers receive a pointer to the library's record and
 * never free it. */
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

/* "vendorid=" and "systemid=" (hex) of "/proc/trelhal/system.info", the
 * last of each winning; null pointers are allowed.  0 when both were found,
 * -1 when either is missing, -ENOENT when the file cannot be opened. */
int board_identify_ids(uint16_t *vendor_id, uint16_t *system_id) TREL_NOEXCEPT;
/* The maker's board of this system id: its table row copied into one record
 * the library owns and refills from "system.info" on every call.  Null for
 * another vendor, an id not in the table or out of memory. */
trel_board *get_board(void) TREL_NOEXCEPT;
/* get_board's record, asked once and kept (asked again while null). */
trel_board *morna_identify(void) TREL_NOEXCEPT;
/* The board table's read-only row of system_id, or null. */
const trel_board *morna_get_board(uint16_t system_id) TREL_NOEXCEPT;
/* The name of the table row whose platform code is exactly code (a constant
 * text), or null.  The two are the same call. */
const char *morna_identify_platform(const char *code) TREL_NOEXCEPT;
const char *board_identify_platform(const char *code) TREL_NOEXCEPT;
/* The board, identified once and kept for the process: morna_identify's, or
 * the "Unknown" record with the radios found on the PCI bus.  Never null. */
trel_board *board_identify(void) TREL_NOEXCEPT;
/* Makes board what board_identify returns from now on (the caller keeps it
 * alive); null makes the next board_identify identify again. */
void update_cached_board(trel_board *board) TREL_NOEXCEPT;
/* The model name by the first radio for the boards that need it, else
 * board->name; null for a null board. */
const char *map_board_name(const trel_board *board) TREL_NOEXCEPT;

/* The helpers below look at board_identify(). */
/* poe_budget - poe_reserved; 0 without a budget or when negative. */
int board_get_poe_budget(void) TREL_NOEXCEPT;
/* 1 when the PoE budget is non-zero, else 0. */
int board_has_poe(void) TREL_NOEXCEPT;
/* Copies the CPU MAC into mac[6]: 0, or -1 for a null mac. */
int board_get_cpu_mac(uint8_t *mac) TREL_NOEXCEPT;
/* The main port (a group's single port, else the first labelled "Main" or
 * "PoE In + Data"), pointing into the board record; null when none. */
trel_board_port *get_main_phy(void) TREL_NOEXCEPT;
/* The main port's port id / phy index, or -1 when there is none. */
int get_main_phy_port_id(void) TREL_NOEXCEPT;
int get_main_phy_idx(void) TREL_NOEXCEPT;
/* The port id of the first port with phy index idx, or -1. */
int get_phy_port_id_by_idx(int idx) TREL_NOEXCEPT;
/* The number of Ethernet ports over all groups. */
int get_num_of_eth_ports(void) TREL_NOEXCEPT;

/* 1 when the accelerometer's iio directory can be opened, else 0. */
int has_accelerometer(void) TREL_NOEXCEPT;
/* Sets 50 Hz sampling, then a new object {"x", "y", "z"} of raw readings the
 * caller releases; null when out of memory.  An axis that cannot be read
 * repeats the previous axis's number (0 for x). */
json_t *prepare_accelerometer_status(void) TREL_NOEXCEPT;

/* The last "bomrev" (hex) of "/proc/trelhal/board", or 0xFFFFFFFF. */
uint32_t morna_get_bomrev(void) TREL_NOEXCEPT;
/* morna_get_bomrev with its low 8 bits cleared. */
uint32_t morna_get_hw_board_id(void) TREL_NOEXCEPT;
/* 1 when fw_compat is TREL_FW_COMPAT_BETA; 0 otherwise or for null. */
int morna_board_is_beta_firmware(const trel_board *board) TREL_NOEXCEPT;
/* 1 when "/proc/trelhal/system.info" carries a non-empty "qrid" value (the
 * code printed on the unit's label). */
int morna_board_has_qrcode(void) TREL_NOEXCEPT;
/* 1 when the board's system id is in the feature's model list; 0 otherwise
 * or for null. */
int dax_is_supported_by_old_wifi(const trel_board *board) TREL_NOEXCEPT;
int dax_is_supported_ble_fast_adopt(const trel_board *board) TREL_NOEXCEPT;

/* The TREL_ARCH_* code of a 6-character name (any case); TREL_ARCH_UNKNOWN
 * for another length or name. */
int arch_name_to_type(const char *name, size_t length) TREL_NOEXCEPT;
/* 65536 bytes of EEPROM in a new buffer (release with buffer_destroy); null
 * when the EEPROM cannot be opened or read whole, or out of memory. */
buffer *trel_read_eeprom(void) TREL_NOEXCEPT;

/* ---- System status ------------------------------------------------------- */

/* One interface's state, filled by fill_dev_status. */
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
    uint32_t speed;  /* Mb/s; 0 when the link cannot be read */
    uint32_t duplex; /* ethtool's; 255 when the link cannot be read */
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

/* The fields of the current time's ctime text (the year keeps its
 * newline). */
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

/* Zeroes status, then fills it for ifname (null: no counters, the empty
 * name queried): 0; -1 when "/proc/net/dev" cannot be opened, -ENOENT when
 * it lacks its header lines, -ESRCH when no socket can be made, -EINVAL for
 * a null status.  A query that fails leaves its fields 0. */
int fill_dev_status(const char *ifname, trel_dev_status *status) TREL_NOEXCEPT;
/* ETHTOOL_GLINK: 1 link up, 0 down, -1 on failure or for a null ifname. */
int get_ethtool_link_status(const char *ifname) TREL_NOEXCEPT;
/* Renames "<letters><number>" in place to "eth<number>" when the letters
 * differ from prefix (the new prefix is always "eth").  Nothing for a null
 * argument, a name of 17 characters or more, or one without a number. */
void replace_ifname(char *ifname, const char *prefix) TREL_NOEXCEPT;
/* Sets each flag when both of its keys in "/tmp/system.cfg" are "enabled";
 * clears them all first.  Always 0. */
int fill_services(trel_service_status *status) TREL_NOEXCEPT;
/* Points *version (when non-null) at the library's static "<version>.<build>"
 * text: 0 once "/usr/etc/.version" and "/usr/etc/.build" were read (then kept
 * for the process).  Otherwise the text is "unknown.0", the next call reads
 * again, and the result is -EINVAL for an empty file or minus errno. */
int get_version(const char **version) TREL_NOEXCEPT;

/* Flag files.  system_is_xxx: def for a null or unreadable path; under /proc
 * 1 when the line is "true", else 0; elsewhere 1 (readable is set). */
int system_is_xxx(const char *path, int def) TREL_NOEXCEPT;
/* Writes "true\n" or "false\n"; outside /proc, on 0 removes the file
 * instead (missing already: fine).  0, or -1. */
int system_set_xxx(const char *path, int on) TREL_NOEXCEPT;
/* Writes value and a newline: 0, or -1 (also for a null argument). */
int system_set_value(const char *path, const char *value) TREL_NOEXCEPT;

/* The last "boardrevision=" value of the file (atoi), or -1 when none. */
int get_boardrevision(const char *path) TREL_NOEXCEPT;
/* The last "serialno=" value and a newline into out[size]: 0; -1 when the
 * file cannot be opened, out is null or the text does not fit. */
int get_boardsn(const char *path, char *out, int32_t size) TREL_NOEXCEPT;
/* "eth0.macaddr" of "system.info", else "wifi0.macaddr", else
 * "00:11:22:33:44:55": a static text overwritten by the next call. */
const char *get_main_mac_str(void) TREL_NOEXCEPT;
/* "manufid" of "system.info" in hex; 0 when missing. */
long get_manufid(void) TREL_NOEXCEPT;

/* The digit that "/var/run/system.internet" begins with, or -1. */
int system_internet_status(void) TREL_NOEXCEPT;
/* TREL_DHCP_* from "/var/run/dhcpc.last_state"; unknown when unreadable. */
int system_dhcp_status(void) TREL_NOEXCEPT;
/* 1 when a TCP listener on port 22 shows in /proc/net/tcp, else 0. */
int system_is_ssh(void) TREL_NOEXCEPT;

/* Whole seconds: sysinfo's uptime (0 on failure); the first number of a file
 * (UINT64_MAX when it does not scan); of /proc/uptime. */
uint64_t get_uptime_from_sysinfo(void) TREL_NOEXCEPT;
uint64_t get_uptime_from_file(const char *path) TREL_NOEXCEPT;
uint64_t get_uptime_from_proc(void) TREL_NOEXCEPT;
/* "1d1h1m1s" into out[size], parts of 0 left out (0 seconds: ""); returns
 * out. */
char *uptime2str(uint64_t seconds, char *out, size_t size) TREL_NOEXCEPT;
/* 0, or -1 for a null parts or when the time cannot be had. */
int get_system_time(trel_time_parts *parts) TREL_NOEXCEPT;
/* Local time as "%Y-%m-%dT%H:%M:%S" into out[size]: 0, or -1 ("" in out)
 * when it cannot be had or does not fit, or for a null out or size 0. */
int get_system_time_str(char *out, size_t size) TREL_NOEXCEPT;

/* "mgmt.vesk.env" of "/tmp/system.cfg", else of "/etc/persistent/cfg/mgmt":
 * TREL_VESK_ENV_DEV for "dev", _STAGE for "stage", _PROD for anything else. */
int get_vesk_env(void) TREL_NOEXCEPT;
/* get_vesk_env, except that production gives development on a build whose
 * "scm_reftype" is not "atag", unless "mgmt.vesk.env.force" begins with "1"
 * or "enable". */
int get_vesk_env_limit_prod(void) TREL_NOEXCEPT;

/* ---- Model predicates (1 or 0) -------------------------------------------- */

/* Each tests board_identify()'s system id against a model list of this
 * build, unless said otherwise. */
uint32_t is_gen1(void) TREL_NOEXCEPT;
uint32_t is_gen2(void) TREL_NOEXCEPT;
uint32_t is_gen3_QV(void) TREL_NOEXCEPT;
uint32_t is_single_5ghz_gen3(void) TREL_NOEXCEPT;
/* is_single_5ghz_gen3 or is_gen3_QV. */
uint32_t is_gen3(void) TREL_NOEXCEPT;
uint32_t is_kx(void) TREL_NOEXCEPT;
/* "mgmt.is_setup_completed" of "/etc/persistent/cfg/mgmt" is anything but
 * "false" (a missing key, or one without a value, reads "false"). */
uint32_t is_kx_setup_complete(void) TREL_NOEXCEPT;
/* The kx model with "/etc/meshmode.conf" present, or the mesh router model. */
uint32_t is_router_to_mesh(void) TREL_NOEXCEPT;
/* Always 0. */
uint32_t is_wul_supported(void) TREL_NOEXCEPT;
uint32_t is_dax5(void) TREL_NOEXCEPT;
uint32_t is_dax6(void) TREL_NOEXCEPT;
uint32_t is_dax7(void) TREL_NOEXCEPT;
/* Its model at a board revision below 21 or exactly 22. */
uint32_t is_dax6_tb_aqr112c(void) TREL_NOEXCEPT;
uint32_t is_dax6_enterprise(void) TREL_NOEXCEPT;
uint32_t is_dax6_birch_iw(void) TREL_NOEXCEPT;
uint32_t is_daxac_iw(void) TREL_NOEXCEPT;
uint32_t is_6ghz_supported(void) TREL_NOEXCEPT;
/* is_gen2, is_gen3, is_dax6 or is_dax7. */
uint32_t is_qca_ap(void) TREL_NOEXCEPT;
uint32_t is_wifi_only(void) TREL_NOEXCEPT;
uint32_t is_force_detect_loop(void) TREL_NOEXCEPT;

/* ---- Outlets and power supplies -------------------------------------------- */

/* No outlets in this build: null (else a new object the caller releases). */
json_t *trel_outlet_get_outlet_status_json(void) TREL_NOEXCEPT;
/* Merges the outlet status into payload (the caller keeps payload):
 * json_object_update's 0 or -1, or 0 when there is none. */
int trel_outlet_status_update_json_payload(json_t *payload) TREL_NOEXCEPT;
/* No power supplies in this build: 0. */
int trel_psu_get_json_psu_table(json_t *table) TREL_NOEXCEPT;

TREL_END_DECLS

#endif
