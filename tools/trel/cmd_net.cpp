// Network and guest portal commands: net iface|gateway|arp|uplink|bridge|
// netmask, portal list|auth|device|vlan.  Files come from --root when given;
// interface queries and netlink always ask the running kernel.
#include <arpa/inet.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <trel/net.h>

#include "tool.h"

namespace {

using trel_tool::bad_input;
using trel_tool::kBadInput;
using trel_tool::mac_text;

constexpr size_t kIfNameSize = 16;  // IFNAMSIZ: 15 characters and the terminator

std::string dotted(uint32_t network_order) {
    char buf[INET_ADDRSTRLEN];
    struct in_addr in = {network_order};
    return inet_ntop(AF_INET, &in, buf, sizeof buf) ? buf : "";
}

// A scalar as text: booleans as yes/no, null as "-".
std::string scalar(json_t *v) {
    if (json_is_string(v)) return json_string_value(v);
    if (json_is_boolean(v)) return json_is_true(v) ? "yes" : "no";
    if (json_is_null(v)) return "-";
    return std::to_string(json_integer_value(v));
}

// Text form: "key: value" per member; arrays of objects as indented items.
void print_text(json_t *o, int indent) {
    std::string pad(indent, ' ');
    const char *key;
    json_t *v;
    json_object_foreach(o, key, v) {
        if (json_is_array(v)) {
            std::cout << pad << key << ":";
            size_t i;
            json_t *item;
            json_array_foreach(v, i, item) {
                if (json_is_object(item)) {
                    std::cout << "\n" << pad << "  -";
                    const char *k;
                    json_t *x;
                    json_object_foreach(item, k, x) std::cout << " " << k << "=" << scalar(x);
                } else {
                    std::cout << (i ? ", " : " ") << scalar(item);
                }
            }
            std::cout << "\n";
        } else if (json_is_object(v)) {
            std::cout << pad << key << ":\n";
            print_text(v, indent + 2);
        } else {
            std::cout << pad << key << ": " << scalar(v) << "\n";
        }
    }
}

int emit(json_t *o, int status = 0) {
    if (trel_tool::options().json) {
        trel_tool::print_json(o);
    } else {
        print_text(o, 0);
        json_decref(o);
    }
    return status;
}

// A logical path as the library sees it: under --root when one is given.
std::string rooted(const std::string &logical) { return trel_tool::options().root + logical; }

bool valid_ifname(const std::string &name) {
    return !name.empty() && name.size() < kIfNameSize && name.find('/') == std::string::npos;
}

// ---- net ------------------------------------------------------------------------

int run_iface(const std::string &name) {
    if (name.size() > 15) return bad_input("interface name longer than 15 characters: " + name);
    uint32_t index;
    if (get_iface_index(name.c_str(), &index) != 0) return trel_tool::fail("no interface " + name);
    uint32_t ip;
    uint8_t hw[6];
    json_t *o = json_object();
    json_object_set_new(o, "name", json_string(name.c_str()));
    json_object_set_new(o, "index", json_integer(index));
    json_object_set_new(
        o, "address",
        get_iface_ip(name.c_str(), &ip) == 0 ? json_string(dotted(ip).c_str()) : json_null());
    json_object_set_new(o, "up", json_boolean(iface_is_up(name.c_str())));
    json_object_set_new(o, "hwaddr",
                        devhwaddr_get_iface(hw, name.c_str()) == 0
                            ? json_string(mac_text(hw).c_str())
                            : json_null());
    return emit(o);
}

int run_gateway() {
    char gw[INET_ADDRSTRLEN];
    uint32_t addr;
    int rc = get_gateway(gw, &addr, sizeof gw);
    if (rc < 0) return trel_tool::fail("cannot read the routing table");
    if (rc == 0) return trel_tool::fail("no default route through br0");
    char mac[18];
    json_t *o = json_object();
    json_object_set_new(o, "gateway", json_string(gw));
    json_object_set_new(o, "mac",
                        get_gateway_mac(mac, sizeof mac) == 1 ? json_string(mac) : json_null());
    return emit(o);
}

int run_arp(const std::string &ip) {
    struct in_addr in;
    if (!ip.empty() && inet_pton(AF_INET, ip.c_str(), &in) != 1)
        return bad_input("not an IPv4 address: " + ip);
    char mac[18];
    if (get_mac_by_ip(ip.empty() ? nullptr : ip.c_str(), mac, sizeof mac) != 1)
        return trel_tool::fail("no complete ARP entry" + (ip.empty() ? "" : " for " + ip));
    json_t *o = json_object();
    json_object_set_new(o, "ip", ip.empty() ? json_null() : json_string(ip.c_str()));
    json_object_set_new(o, "mac", json_string(mac));
    return emit(o);
}

int run_uplink() {
    static const char *kStates[] = {"none", "init", "wds", "eth", "down"};
    static const char *kDeviceStates[] = {nullptr, "init", "down", "unknown"};
    json_t *o = json_object();
    int state = get_wireless_uplink_state();
    json_object_set_new(o, "state", json_string(kStates[state]));
    char device[kIfNameSize + 48] = "";
    int rc = get_uplink_device(device, sizeof device);
    if (rc != 0)
        json_object_set_new(o, "device", json_string(kDeviceStates[rc]));
    else
        json_object_set_new(o, "device", device[0] ? json_string(device) : json_null());
    json_object_set_new(o, "default_route_interface", json_string(get_default_gw_interface()));
    return emit(o);
}

const char *port_state_name(int state) {
    static const char *kNames[] = {"disabled", "listening", "learning", "forwarding", "blocking"};
    return state >= 0 && state <= 4 ? kNames[state] : "unknown";
}

int run_bridge(const std::string &bridge, bool fdb, int only_port) {
    if (!valid_ifname(bridge)) return bad_input("not an interface name: " + bridge);
    std::error_code ec;
    std::vector<std::string> members;
    for (const auto &e :
         std::filesystem::directory_iterator(rooted("/sys/class/net/" + bridge + "/brif"), ec))
        members.push_back(e.path().filename());
    if (ec) return trel_tool::fail("no bridge " + bridge);

    // Port numbers by name, asking the library for each number in turn.
    json_t *ports = json_array();
    std::vector<std::pair<int, std::string>> numbered;
    for (int n = 1; n < 1024 && numbered.size() < members.size(); n++) {
        char name[16];
        if (get_ifname_from_br_portno(bridge.c_str(), n, name) == 1) numbered.emplace_back(n, name);
    }
    for (const auto &[n, name] : numbered) {
        if (only_port > 0 && n != only_port) continue;
        int state = get_br_port_state(bridge.c_str(), name.c_str());
        json_array_append_new(ports, json_pack("{s:i, s:s, s:s}", "port", n, "name", name.c_str(),
                                               "state", port_state_name(state)));
    }
    json_t *o = json_object();
    json_object_set_new(o, "bridge", json_string(bridge.c_str()));
    json_object_set_new(o, "ports", ports);
    if (fdb) {
        std::ifstream in(rooted("/sys/class/net/" + bridge + "/brforward"), std::ios::binary);
        if (!in) {
            json_decref(o);
            return trel_tool::fail("cannot read the forwarding table of " + bridge);
        }
        json_t *entries = json_array();
        // The kernel's 16-byte records: MAC, port number, is-local, timer, ...
        unsigned char rec[16];
        while (in.read(reinterpret_cast<char *>(rec), sizeof rec)) {
            if (only_port > 0 && rec[6] != only_port) continue;
            std::string mac = mac_text(rec);
            uint32_t ageing = 0, port = 0;
            if (get_mac_brinfo(bridge.c_str(), mac.c_str(), &ageing, &port) != 1) continue;
            char name[16] = "";
            get_ifname_from_br_portno(bridge.c_str(), static_cast<int>(port), name);
            json_array_append_new(
                entries, json_pack("{s:s, s:i, s:s, s:b, s:i}", "mac", mac.c_str(), "port",
                                   static_cast<int>(port), "name", name, "local", rec[7] != 0,
                                   "age", static_cast<int>(ageing)));
        }
        json_object_set_new(o, "fdb", entries);
    }
    return emit(o);
}

int run_netmask(const std::string &arg) {
    json_t *o = json_object();
    if (arg.find('.') != std::string::npos) {
        struct in_addr mask;
        if (inet_pton(AF_INET, arg.c_str(), &mask) != 1) {
            json_decref(o);
            return bad_input("not a netmask: " + arg);
        }
        json_object_set_new(o, "mask", json_string(arg.c_str()));
        json_object_set_new(o, "prefix",
                            json_integer(ipv4_prefix_len_from_netmask(ntohl(mask.s_addr))));
        return emit(o);
    }
    char *end = nullptr;
    unsigned long prefix = strtoul(arg.c_str(), &end, 10);
    if (arg.empty() || arg[0] == '-' || *end != '\0' || prefix > 128) {
        json_decref(o);
        return bad_input("not a prefix length of 0 to 128: " + arg);
    }
    json_object_set_new(o, "prefix", json_integer(static_cast<json_int_t>(prefix)));
    // Above 32 the library logs why there is no IPv4 mask.
    uint32_t mask = ipv4_netmask_from_prefix_len(static_cast<uint32_t>(prefix));
    json_object_set_new(o, "mask",
                        prefix <= 32 ? json_string(dotted(htonl(mask)).c_str()) : json_null());
    uint8_t v6[16];
    ipv6_netmask_from_prefix_len(v6, static_cast<uint32_t>(prefix));
    char text[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, v6, text, sizeof text);
    json_object_set_new(o, "ipv6_mask", json_string(text));
    return emit(o);
}

// ---- portal ------------------------------------------------------------------------

// A set read from /var/run/guest/portal, cleared when it goes.
struct PortalSet {
    guest_portal_set set;
    PortalSet() {
        guest_portal_set_init(&set);
        guest_portal_set_read(&set);
    }
    ~PortalSet() { guest_portal_set_clear(&set); }
    PortalSet(const PortalSet &) = delete;
    PortalSet &operator=(const PortalSet &) = delete;
};

json_t *tokens(buffer *b) {
    if (b == nullptr) return json_null();
    json_t *a = json_array();
    std::string text(static_cast<const char *>(b->data(b)), b->length(b));
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find_first_of(",\n", start);
        if (end == std::string::npos) end = text.size();
        if (end > start)
            json_array_append_new(a, json_string(text.substr(start, end - start).c_str()));
        start = end + 1;
    }
    return a;
}

int run_portal_list() {
    PortalSet ps;
    std::vector<guest_portal *> portals;
    for (guest_portal_link *l = ps.set.head.next; l != &ps.set.head; l = l->next)
        portals.push_back(reinterpret_cast<guest_portal *>(l));
    std::sort(portals.begin(), portals.end(), [](const guest_portal *a, const guest_portal *b) {
        return strcmp(a->name, b->name) < 0;
    });
    json_t *o = json_object();
    for (const guest_portal *p : portals)
        json_object_set_new(o, p->name,
                            json_pack("{s:o, s:o, s:o}", "authorized", tokens(p->authorized),
                                      "devnames", tokens(p->devnames), "vlans", tokens(p->vlans)));
    return emit(o);
}

int run_portal_auth(const std::string &portal, const std::string &client) {
    PortalSet ps;
    const guest_portal *p = guest_portal_from_name(&ps.set, portal.c_str());
    if (p == nullptr) return trel_tool::fail("no portal " + portal);
    bool yes = guest_portal_is_auth(p, client.c_str());
    return emit(json_pack("{s:s, s:s, s:b}", "portal", p->name, "client", client.c_str(),
                          "authorized", yes),
                yes ? 0 : 1);
}

int answer_portal(const guest_portal *p, const std::string &what) {
    if (p == nullptr) return trel_tool::fail("no portal serves " + what);
    return emit(json_pack("{s:s}", "portal", p->name));
}

int run_portal_device(const std::string &device) {
    PortalSet ps;
    return answer_portal(guest_portal_from_device(&ps.set, device.c_str()), device);
}

int run_portal_vlan(const std::string &text) {
    char *end = nullptr;
    long vlan = strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || vlan < 0 || vlan > INT32_MAX)
        return bad_input("not a VLAN number: " + text);
    PortalSet ps;
    return answer_portal(guest_portal_from_vlan(&ps.set, static_cast<int32_t>(vlan)),
                         "VLAN " + text);
}

}  // namespace

void trel_tool::register_net_commands(CLI::App &app) {
    auto *net = app.add_subcommand("net", "Network interfaces, gateway, ARP, uplink and bridges");
    net->require_subcommand(1);

    auto name = std::make_shared<std::string>();
    auto *iface = net->add_subcommand("iface", "Address, index, state and hardware address");
    iface->add_option("NAME", *name, "Interface")->required();
    trel_tool::add_command(iface, [name] { return run_iface(*name); });

    auto *gateway = net->add_subcommand("gateway", "The default gateway through br0 and its MAC");
    trel_tool::add_command(gateway, run_gateway);

    auto ip = std::make_shared<std::string>();
    auto *arp = net->add_subcommand("arp", "MAC of IP (or of the first entry) in /proc/net/arp");
    arp->add_option("IP", *ip, "IPv4 address");
    trel_tool::add_command(arp, [ip] { return run_arp(*ip); });

    auto *uplink = net->add_subcommand("uplink", "Uplink state, device and default route");
    trel_tool::add_command(uplink, run_uplink);

    auto bridge = std::make_shared<std::string>();
    auto fdb = std::make_shared<bool>(false);
    auto port = std::make_shared<int>(0);
    auto *br = net->add_subcommand("bridge", "Member ports with their state, and the FDB");
    br->add_option("BRIDGE", *bridge, "Bridge")->required();
    br->add_flag("--fdb", *fdb, "Also list the forwarding entries with their age");
    br->add_option("--port", *port, "Only this port number")->check(CLI::PositiveNumber);
    trel_tool::add_command(br, [bridge, fdb, port] { return run_bridge(*bridge, *fdb, *port); });

    auto mask = std::make_shared<std::string>();
    auto *netmask = net->add_subcommand("netmask", "Netmask of a prefix length, or the reverse");
    netmask->add_option("PREFIX|MASK", *mask, "Prefix length or dotted netmask")->required();
    trel_tool::add_command(netmask, [mask] { return run_netmask(*mask); });

    auto *portal = app.add_subcommand("portal", "Guest portals under /var/run/guest/portal");
    portal->require_subcommand(1);
    trel_tool::add_command(portal->add_subcommand("list", "Every portal with its tokens"),
                           run_portal_list);

    auto pname = std::make_shared<std::string>();
    auto client = std::make_shared<std::string>();
    auto *auth = portal->add_subcommand("auth", "Whether CLIENT is authorized on PORTAL");
    auth->add_option("PORTAL", *pname, "Portal name")->required();
    auth->add_option("CLIENT", *client, "Client token")->required();
    trel_tool::add_command(auth, [pname, client] { return run_portal_auth(*pname, *client); });

    auto dev = std::make_shared<std::string>();
    auto *device = portal->add_subcommand("device", "The portal that serves a network device");
    device->add_option("DEV", *dev, "Device name")->required();
    trel_tool::add_command(device, [dev] { return run_portal_device(*dev); });

    auto vlan = std::make_shared<std::string>();
    auto *v = portal->add_subcommand("vlan", "The portal that serves a VLAN");
    v->add_option("N", *vlan, "VLAN number")->required();
    trel_tool::add_command(v, [vlan] { return run_portal_vlan(*vlan); });
}
