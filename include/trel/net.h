/* libtrel network helpers: interface ioctls, netmasks, the uplink, gateway and
 * neighbours over rtnetlink, the ARP table, bridge files, and the guest portal
 * state published under /var/run/guest/portal.
 *
 * Every call opens and closes its own socket or file.  Files (/sys/class/net,
 * /proc/net/arp, /var/run) are read under LIBTREL_ROOT when it is set; ioctls
 * and netlink always talk to the running kernel.  IPv4 addresses are
 * uint32_t in network order unless a declaration says host order. */
#ifndef TREL_NET_H
#define TREL_NET_H

#include <stddef.h>
#include <stdint.h>

#include <trel/common.h>
#include <trel/core.h>

TREL_BEGIN_DECLS

/* ---- Interface ioctls --------------------------------------------------- */
/* Interface names are cut to 15 characters in every request. */

/* Sets the IPv4 address of ifname.  0, or -1 ("unable to open sock",
 * "ioctl SIOCSIFADDR failed").  Text that does not parse is sent as 0.0.0.0. */
int set_iface_ip(const char *ifname, const char *ip) TREL_NOEXCEPT;
/* The IPv4 address of ifname into *ip.  0, or -1 (*ip untouched). */
int get_iface_ip(const char *ifname, uint32_t *ip) TREL_NOEXCEPT;
/* The interface index into *index.  0, or -1 for a null or empty name or a
 * failed query. */
int get_iface_index(const char *ifname, uint32_t *index) TREL_NOEXCEPT;
/* 1 when ifname is administratively up, else 0 (also on any failure). */
int iface_is_up(const char *ifname) TREL_NOEXCEPT;

/* The 6-byte hardware address of ifname.  0; -ECHILD when the query fails;
 * -1 when no socket can be made. */
int devhwaddr_get_iface(uint8_t *hwaddr, const char *ifname) TREL_NOEXCEPT;
/* The hardware address of "eth0", else "eth0_real", else "br0": 0 at the
 * first that answers, else 1. */
int devhwaddr_get(uint8_t *hwaddr) TREL_NOEXCEPT;
/* The index of the interface whose hardware address is hwaddr (the last
 * match among the first 10 interfaces with an IPv4 address).  0; -ECHILD
 * when none matches; -EAGAIN when the interfaces cannot be listed; -1 when
 * no socket can be made. */
int devifindex_get_hwaddr(uint32_t *ifindex, const uint8_t *hwaddr) TREL_NOEXCEPT;
/* Writes the vendor's OUI, 0xDE, 0xAD and last into hwaddr[6].  0, or -1
 * for a null hwaddr. */
int devhwaddr_generate(uint8_t *hwaddr, uint8_t last) TREL_NOEXCEPT;

/* ---- Netmasks (host order) ----------------------------------------------- */

/* All ones shifted left by (32 - prefix_len) modulo 32: 0 and 32 both give
 * 0xFFFFFFFF.  Above 32: 0, with an error logged. */
uint32_t ipv4_netmask_from_prefix_len(uint32_t prefix_len) TREL_NOEXCEPT;
/* The number of set bits of mask. */
uint32_t ipv4_prefix_len_from_netmask(uint32_t mask) TREL_NOEXCEPT;
/* The 16-byte IPv6 mask of prefix_len (clamped to 128). */
void ipv6_netmask_from_prefix_len(uint8_t *mask, uint32_t prefix_len) TREL_NOEXCEPT;
/* 1 when the 16-byte addresses a and b agree under the mask of prefix_len
 * (UINT32_MAX and anything above 128 mean 128); 0 otherwise or for a null
 * address. */
int net_equals_v6(const uint8_t *a, const uint8_t *b, uint32_t prefix_len) TREL_NOEXCEPT;
/* 1 when ((ip ^ net) & mask) == 0, else 0. */
int ip_belongs_to_subnet(uint32_t ip, uint32_t net, uint32_t mask) TREL_NOEXCEPT;

/* ---- Uplink ------------------------------------------------------------------ */

/* get_wireless_uplink_state: the first line of /var/run/system.uplink. */
#define TREL_UPLINK_NONE 0
#define TREL_UPLINK_INIT 1
#define TREL_UPLINK_WDS 2
#define TREL_UPLINK_ETH 3
#define TREL_UPLINK_DOWN 4

/* TREL_UPLINK_* of that line; TREL_UPLINK_NONE when missing or unknown. */
int get_wireless_uplink_state(void) TREL_NOEXCEPT;
/* 1 "init", 2 "down", 3 "unknown" when /var/run/system.uplink says so (out
 * untouched); otherwise 0, and out receives the first line of
 * /var/run/system.uplink_ifname or, when that is empty, of
 * /var/run/system.uplink_port.  With no uplink state at all, out receives the
 * first of eth0, bond0 and eth1 that is up, or stays untouched. */
int get_uplink_device(char *out, size_t size) TREL_NOEXCEPT;
/* 1 when ifname begins with "ppp", else 0. */
int is_ppp_dev(const char *ifname) TREL_NOEXCEPT;

/* ---- Gateway and neighbours ----------------------------------------------- */

/* The first IPv4 default route of the main table through "br0" with a
 * gateway: its dotted text into out[size] and the address into *gw; 1.
 * 0 when there is none; -1 when the kernel cannot be asked or answers with
 * an error or a truncated message. */
int get_gateway(char *out, uint32_t *gw, size_t size) TREL_NOEXCEPT;
/* The hardware address text of the gateway (as get_mac_by_ip): 1; 0 when
 * it is not known; -1 as get_gateway. */
int get_gateway_mac(char *mac, size_t size) TREL_NOEXCEPT;
/* The hardware address text of the first complete /proc/net/arp entry for
 * ip (any address when ip is null), cut to min(size, 18) bytes with the
 * terminator: 1.  0 when there is none. */
int get_mac_by_ip(const char *ip, char *mac, size_t size) TREL_NOEXCEPT;
/* Asks the kernel to create an incomplete neighbour entry for the IPv4
 * address ip on ifname.  0 when the request was sent (no answer is read);
 * -1 when ip does not parse or the request cannot be sent. */
int add_ip_neigh_entry(const char *ifname, const char *ip) TREL_NOEXCEPT;
/* The interface of the first default route as "ip route" prints it, or
 * "br0".  A static text of the library, overwritten by the next call. */
const char *get_default_gw_interface(void) TREL_NOEXCEPT;
/* 0 when the interface with this index is up; -1 otherwise (also for the
 * index 0 and on any failure). */
int interface_is_up(int ifindex) TREL_NOEXCEPT;
/* The first IPv4 address of the interface and its netmask, both in host
 * order.  0, or -1 when it has none or the kernel cannot be asked. */
int interface_get_ipaddress(int ifindex, uint32_t *addr, uint32_t *mask) TREL_NOEXCEPT;
/* Whether discovery may run between two interfaces: -ENETDOWN when either is
 * not up; 0 when they are the same; -ENODEV when either has no address;
 * -EADDRNOTAVAIL when ip (host order) or the second interface's address lies
 * in the first one's subnet; else 0. */
int eth_discover_possible(int ifindex1, int ifindex2, uint32_t ip) TREL_NOEXCEPT;

/* ---- Bridges (/sys/class/net) ----------------------------------------------- */

/* The most member ports fdb_foreach considers on one bridge. */
#define MAX_ETH_PORTS 16

/* Looks the MAC text up in the bridge's forwarding table: 1 with the age in
 * seconds and the port number; 0 when absent; -1 when the table cannot be
 * read. */
int get_mac_brinfo(const char *bridge, const char *mac, uint32_t *ageing,
                   uint32_t *port) TREL_NOEXCEPT;
/* The STP state of a member port (0 disabled .. 3 forwarding, 4 blocking),
 * or -1 when it cannot be read. */
int get_br_port_state(const char *bridge, const char *port) TREL_NOEXCEPT;
/* 1 when the port's state is below 1 or unreadable, else 0. */
int is_brif_disabled(const char *bridge, const char *port) TREL_NOEXCEPT;
/* 1 when the port's state is 3 (forwarding), else 0. */
int is_brif_forwarding(const char *bridge, const char *port) TREL_NOEXCEPT;
/* The name of the member with this port number into ifname (16 bytes): 1,
 * or 0 when no member has it. */
int get_ifname_from_br_portno(const char *bridge, int port_no, char *ifname) TREL_NOEXCEPT;

/* Called by fdb_foreach with one 24-byte record of the forwarding table and
 * the name of the last member listed on its bridge; both are valid during the
 * call only. */
typedef void (*fdb_foreach_cb)(void *arg, const uint8_t *entry, const char *ifname);
/* Calls cb for each forwarding record of the bridges named bridge or
 * "bridge.N" (all when bridge is null) whose port is one of the first
 * MAX_ETH_PORTS members not named in exclude (a null-ended list, or null).
 * 0, or -1 when /sys/class/net cannot be listed; errors go to standard
 * error. */
int fdb_foreach(const char *bridge, const char *const *exclude, fdb_foreach_cb cb,
                void *arg) TREL_NOEXCEPT;
/* Asks the kernel to delete the forwarding entry of the 6-byte mac on the
 * bridge port ifname.  0 when the request was sent, else the negative errno,
 * with a line on standard error. */
int fdb_delneigh(const uint8_t *mac, const char *ifname) TREL_NOEXCEPT;

/* ---- Guest portals ------------------------------------------------------------ */

/* List links of a portal in a set, and the head of a set. */
typedef struct guest_portal_link {
    struct guest_portal_link *next;
    struct guest_portal_link *prev;
} guest_portal_link;

/* One portal: the caller owns the record; its three buffers (the non-empty
 * lines of the files "authorized", "devnames" and "vlans", or null when a file
 * could not be read) belong to it until guest_portal_clear. */
typedef struct guest_portal {
    guest_portal_link link;
    char name[32];
    buffer *authorized;
    buffer *devnames;
    buffer *vlans;
} guest_portal;

/* A circular list of portals that the set owns (they come from malloc). */
typedef struct guest_portal_set {
    guest_portal_link head;
} guest_portal_set;

/* All functions accept null arguments and then do nothing or answer 0 or
 * null.  Tokens in the files are separated by newlines and commas only. */

/* Zeroes the record; returns it. */
guest_portal *guest_portal_init(guest_portal *portal) TREL_NOEXCEPT;
/* Stores name (cut to 31 characters) and reads the portal's three files. */
void guest_portal_read(guest_portal *portal, const char *name) TREL_NOEXCEPT;
/* Destroys the three buffers; the record itself is not freed.  Not for a
 * portal that is a member of a set. */
void guest_portal_clear(guest_portal *portal) TREL_NOEXCEPT;
/* 1 when client is a whole token of "authorized", else 0. */
int guest_portal_is_auth(const guest_portal *portal, const char *client) TREL_NOEXCEPT;
/* 1 when device is a whole token of "devnames", else 0. */
int guest_portal_has_device(const guest_portal *portal, const char *device) TREL_NOEXCEPT;

/* Makes the set empty (also valid on a zeroed set). */
void guest_portal_set_init(guest_portal_set *set) TREL_NOEXCEPT;
/* Adds one portal per entry of /var/run/guest/portal. */
void guest_portal_set_read(guest_portal_set *set) TREL_NOEXCEPT;
/* Appends a malloc'ed portal; the set takes it over. */
void guest_portal_set_add(guest_portal_set *set, guest_portal *portal) TREL_NOEXCEPT;
/* The number of portals in the set. */
uint64_t guest_portal_set_count(const guest_portal_set *set) TREL_NOEXCEPT;
/* Clears and frees every portal of the set; the set is empty afterwards. */
void guest_portal_set_clear(guest_portal_set *set) TREL_NOEXCEPT;
/* The lookups return a portal of the set (still owned by it), or null; when
 * several match, the one added last wins. */
guest_portal *guest_portal_from_device(const guest_portal_set *set,
                                       const char *device) TREL_NOEXCEPT;
guest_portal *guest_portal_from_name(const guest_portal_set *set, const char *name) TREL_NOEXCEPT;
/* Null at once for a negative vlan. */
guest_portal *guest_portal_from_vlan(const guest_portal_set *set, int32_t vlan) TREL_NOEXCEPT;

TREL_END_DECLS

#endif
