// System status readers: interface counters and link, service flags, version,
// flag files, identity keys, connectivity state, uptime, clock and the
// management environment.
#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <limits.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <time.h>
#include <unistd.h>

#include <trel/device.h>
#include <trel/telemetry.h>

#include "core/log.h"
#include "core/path_root.h"
#include "core/raii.h"
#include "core/socket.h"
#include "core/text.h"
#include "device/keyed_file.h"

namespace {

constexpr char kSystemInfo[] = "/proc/trelhal/system.info";
constexpr char kSystemCfg[] = "/tmp/system.cfg";
constexpr char kMgmt[] = "/etc/persistent/cfg/mgmt";

bool starts_with(const char *s, const char *prefix) noexcept {
    return strncmp(s, prefix, strlen(prefix)) == 0;
}

// Sets ifr's name; a null name queries the empty one.
void set_ifr_name(struct ifreq &ifr, const char *ifname) noexcept {
    memset(&ifr, 0, sizeof ifr);
    trel::copy_text(ifr.ifr_name, IFNAMSIZ, ifname != nullptr ? ifname : "");
}

// One ETHTOOL_GSET; the command stays zeroed when the query fails.
bool ethtool_gset(int fd, const char *ifname, struct ethtool_cmd &cmd) noexcept {
    struct ifreq ifr;
    set_ifr_name(ifr, ifname);
    memset(&cmd, 0, sizeof cmd);
    cmd.cmd = ETHTOOL_GSET;
    ifr.ifr_data = reinterpret_cast<char *>(&cmd);
    if (ioctl(fd, SIOCETHTOOL, &ifr) == 0) return true;
    memset(&cmd, 0, sizeof cmd);
    return false;
}

uint32_t ioctl_in_addr(int fd, unsigned long request, const char *ifname) noexcept {
    struct ifreq ifr;
    set_ifr_name(ifr, ifname);
    if (ioctl(fd, request, &ifr) != 0) return 0;
    return reinterpret_cast<struct sockaddr_in *>(&ifr.ifr_addr)->sin_addr.s_addr;
}

void dotted(uint32_t addr, char *out, size_t size) noexcept {
    char text[INET_ADDRSTRLEN];
    struct in_addr in = {addr};
    if (inet_ntop(AF_INET, &in, text, sizeof text) == nullptr) text[0] = '\0';
    snprintf(out, size, "%s", text);
}

// Reads the counters of ifname's "/proc/net/dev" line into st.
void parse_counters(char *p, trel_dev_status *st) noexcept {
    uint64_t *const columns[16] = {
        &st->rx_bytes, &st->rx_packets, &st->rx_errors, &st->rx_dropped,
        nullptr,       nullptr,         nullptr,        &st->rx_multicast,
        &st->tx_bytes, &st->tx_packets, &st->tx_errors, &st->tx_dropped,
        nullptr,       nullptr,         nullptr,        nullptr};
    for (uint64_t *column : columns) {
        while (*p == ' ') p++;
        char *end;
        unsigned long long v = strtoull(p, &end, 0);
        if (end == p) break;
        if (column != nullptr) *column = v;
        p = end;
    }
}

// The value of key from the configuration, else from the management
// settings with def.
void read_mgmt_value(const char *key, char *buf, size_t size, const char *def) noexcept {
    freadvalue(kSystemCfg, key, buf, size, "");
    if (buf[0] == '\0') freadvalue(kMgmt, key, buf, size, def);
}

char g_version[64] = "unknown.0";
bool g_version_cached;

// Printable and not blank.
bool keeps(unsigned char c) noexcept { return isprint(c) && !isblank(c); }

char *trim(char *s) noexcept {
    while (*s != '\0' && !keeps(static_cast<unsigned char>(*s))) s++;
    size_t n = strlen(s);
    while (n > 0 && !keeps(static_cast<unsigned char>(s[n - 1]))) s[--n] = '\0';
    return s;
}

}  // namespace

TREL_API int fill_dev_status(const char *ifname, trel_dev_status *st) noexcept {
    if (st == nullptr) return -EINVAL;
    memset(st, 0, sizeof *st);
    trel::UniqueFile f(trel::path_fopen("/proc/net/dev", "r"));
    if (!f) return -1;
    char line[256];
    if (fgets(line, 255, f.get()) == nullptr || fgets(line, 255, f.get()) == nullptr)
        return -ENOENT;
    while (ifname != nullptr && fgets(line, 255, f.get()) != nullptr) {
        char *name = line;
        while (*name == ' ') name++;
        char *colon = strchr(name, ':');
        if (colon == nullptr) continue;
        *colon = '\0';
        if (strcmp(name, ifname) != 0) continue;
        st->present = 1;
        parse_counters(colon + 1, st);
        break;
    }
    f.reset();

    trel::UniqueFd fd(trel::open_socket(AF_INET, SOCK_DGRAM));
    if (!fd) return -ESRCH;
    struct ifreq ifr;
    set_ifr_name(ifr, ifname);
    if (ioctl(fd.get(), SIOCGIFHWADDR, &ifr) == 0) memcpy(st->hwaddr, ifr.ifr_hwaddr.sa_data, 6);
    st->ipaddr = ioctl_in_addr(fd.get(), SIOCGIFADDR, ifname);
    st->netmask = ioctl_in_addr(fd.get(), SIOCGIFNETMASK, ifname);
    dotted(st->ipaddr, st->ipaddr_str, sizeof st->ipaddr_str);
    dotted(st->netmask, st->netmask_str, sizeof st->netmask_str);
    set_ifr_name(ifr, ifname);
    if (ioctl(fd.get(), SIOCGIFFLAGS, &ifr) == 0)
        st->flags = static_cast<unsigned short>(ifr.ifr_flags);

    // Kept: the link is read twice; the second reading corrects a first one of
    // 10 Mb/s or half duplex, and when it fails speed is 0 and duplex 255
    // whatever the first said.
    struct ethtool_cmd cmd;
    if (ethtool_gset(fd.get(), ifname, cmd)) {
        st->speed = ethtool_cmd_speed(&cmd);
        st->duplex = cmd.duplex;
    } else {
        st->speed = 0;
        st->duplex = 255;
    }
    bool second = ethtool_gset(fd.get(), ifname, cmd);
    st->alt_speed = ethtool_cmd_speed(&cmd);
    st->alt_duplex = cmd.duplex;
    if (st->speed == 10 && st->alt_speed != 10) {
        uint32_t s = st->speed;
        st->speed = st->alt_speed;
        st->alt_speed = s;
    }
    if (st->duplex == 0 && st->alt_duplex != 0) {
        st->duplex = st->alt_duplex;
        st->alt_duplex = 0;
    }
    if (!second) {
        st->speed = 0;
        st->duplex = 255;
    }
    trel::copy_text(st->name, sizeof st->name, ifname != nullptr ? ifname : "");
    return 0;
}

TREL_API int get_ethtool_link_status(const char *ifname) noexcept {
    if (ifname == nullptr) return -1;
    trel::UniqueFd fd(trel::open_socket(AF_INET, SOCK_DGRAM));
    if (!fd) return -1;
    struct ifreq ifr;
    set_ifr_name(ifr, ifname);
    struct ethtool_value value = {};
    value.cmd = ETHTOOL_GLINK;
    ifr.ifr_data = reinterpret_cast<char *>(&value);
    if (ioctl(fd.get(), SIOCETHTOOL, &ifr) != 0) return -1;
    return static_cast<int>(value.data);
}

TREL_API void replace_ifname(char *ifname, const char *prefix) noexcept {
    if (ifname == nullptr || prefix == nullptr || strlen(ifname) >= 17) return;
    // "%[^0-9]%d": a non-empty letter part, then a number.
    size_t letters = strcspn(ifname, "0123456789");
    if (letters == 0 || ifname[letters] == '\0') return;
    char *end;
    errno = 0;
    long number = strtol(ifname + letters, &end, 10);
    if (errno == ERANGE || number > INT_MAX) return;
    if (strlen(prefix) == letters && strncmp(ifname, prefix, letters) == 0) return;
    // Kept: the new prefix is "eth" whatever prefix says; prefix only decides
    // whether to rename.
    snprintf(ifname, IFNAMSIZ, "%s%d", "eth", static_cast<int>(number));
}

TREL_API int fill_services(trel_service_status *status) noexcept {
    if (status == nullptr) return 0;
    *status = trel_service_status{};
    struct stat st;
    // Kept: a regular file of mode exactly 0777 is not read (not trusted): all
    // flags stay 0.
    if (trel::path_stat(kSystemCfg, &st) != 0 || st.st_mode == (S_IFREG | 0777)) return 0;
    trel::UniqueFile f(trel::path_fopen(kSystemCfg, "r"));
    if (!f) return 0;
    static constexpr const char *kKeys[10] = {
        "dhcpc.status",    "dhcpc.1.status",    "dhcpd.status",    "dhcpd.1.status",
        "ppp.status",      "ppp.1.status",      "iptables.status", "iptables.50.status",
        "ebtables.status", "ebtables.50.status"};
    bool enabled[10] = {};
    char line[1024];
    while (fgets(line, sizeof line, f.get()) != nullptr) {
        if (line[0] == '\n' || line[0] == '\r' || line[0] == '#') continue;
        char *eq = strchr(line, '=');
        if (eq == nullptr) continue;
        *eq = '\0';
        const char *key = trim(line);
        const char *value = trim(eq + 1);
        for (int i = 0; i < 10; i++)
            if (strcmp(key, kKeys[i]) == 0) enabled[i] = strcmp(value, "enabled") == 0;
    }
    status->dhcpc = enabled[0] && enabled[1];
    status->dhcpd = enabled[2] && enabled[3];
    status->ppp = enabled[4] && enabled[5];
    status->iptables = enabled[6] && enabled[7];
    status->ebtables = enabled[8] && enabled[9];
    return 0;
}

TREL_API int get_version(const char **version) noexcept {
    int rc = 0;
    if (!g_version_cached) {
        char ver[64] = "";
        char build[32] = "";
        errno = 0;
        rc = fsreadline("/usr/etc/.version", ver, sizeof ver);
        if (rc == 0) {
            errno = 0;
            rc = fsreadline("/usr/etc/.build", build, sizeof build);
        }
        if (rc == 0) {
            if (ver[0] != '\0' && build[0] != '\0') {
                char joined[sizeof ver + sizeof build];
                snprintf(joined, sizeof joined, "%s.%s", ver, build);
                trel::copy_text(g_version, sizeof g_version, joined);
                g_version_cached = true;
            } else {
                rc = -EINVAL;
            }
        }
        if (!g_version_cached) strcpy(g_version, "unknown.0");
    }
    if (version != nullptr) *version = g_version;
    return rc;
}

TREL_API int system_is_xxx(const char *path, int def) noexcept {
    if (path == nullptr || trel::path_access(path, R_OK) != 0) return def;
    if (!starts_with(path, "/proc")) return 1;
    char buf[16];
    freadline(path, buf, sizeof buf, def ? "true" : "false");
    return strcmp(buf, "true") == 0;
}

TREL_API int system_set_xxx(const char *path, int on) noexcept {
    if (path == nullptr) return -1;
    if (!starts_with(path, "/proc") && !on)
        return trel::path_unlink(path) == 0 || errno == ENOENT ? 0 : -1;
    return fwriteline(path, "%s", on ? "true\n" : "false\n") < 0 ? -1 : 0;
}

TREL_API int system_set_value(const char *path, const char *value) noexcept {
    if (path == nullptr || value == nullptr) return -1;
    return fwriteline(path, "%s\n", value) < 0 ? -1 : 0;
}

TREL_API int get_boardrevision(const char *path) noexcept {
    char text[255];
    if (trel::device::last_keyed_piece(path, "boardrevision", text, sizeof text) != 1) return -1;
    return atoi(text);
}

TREL_API int get_boardsn(const char *path, char *out, int32_t size) noexcept {
    char text[255] = "";
    if (out == nullptr || size <= 0) return -1;
    if (trel::device::last_keyed_piece(path, "serialno", text, sizeof text) < 0) return -1;
    // Kept: a newline is appended, and it needs room in out too.
    int n = snprintf(out, static_cast<size_t>(size), "%s\n", text);
    return n >= 0 && n < size ? 0 : -1;
}

TREL_API const char *get_main_mac_str(void) noexcept {
    static char mac[18];
    freadvalue(kSystemInfo, "eth0.macaddr", mac, sizeof mac, "");
    if (mac[0] == '\0')
        freadvalue(kSystemInfo, "wifi0.macaddr", mac, sizeof mac, "00:11:22:33:44:55");
    return mac;
}

TREL_API long get_manufid(void) noexcept {
    char buf[5];
    freadvalue(kSystemInfo, "manufid", buf, sizeof buf, "0000");
    return strtol(buf, nullptr, 16);
}

TREL_API int system_internet_status(void) noexcept {
    char buf[16] = "";
    errno = 0;
    if (fsreadline("/var/run/system.internet", buf, sizeof buf) != 0) return -1;
    return isdigit(static_cast<unsigned char>(buf[0])) ? buf[0] - '0' : -1;
}

TREL_API int system_dhcp_status(void) noexcept {
    static constexpr const char *kStates[] = {"deconfig", "leasefail", "bound", "renew"};
    char buf[32] = "";
    errno = 0;
    if (fsreadline("/var/run/dhcpc.last_state", buf, sizeof buf) != 0) return TREL_DHCP_UNKNOWN;
    for (int i = 0; i < 4; i++)
        if (strcmp(buf, kStates[i]) == 0) return i + 1;
    return TREL_DHCP_UNKNOWN;
}

TREL_API int system_is_ssh(void) noexcept {
    trel::UniqueFile f(trel::path_fopen("/proc/net/tcp", "r"));
    if (!f) return 0;
    char line[1024];
    while (fgets(line, sizeof line, f.get()) != nullptr)
        if (strstr(line, ":0016 00000000:0000 0A") != nullptr) return 1;
    return 0;
}

TREL_API uint64_t get_uptime_from_sysinfo(void) noexcept {
    struct sysinfo info;
    if (sysinfo(&info) != 0) return 0;
    return static_cast<uint64_t>(info.uptime);
}

TREL_API uint64_t get_uptime_from_file(const char *path) noexcept {
    char buf[32] = "";
    fsreadline(path, buf, sizeof buf);
    long seconds;
    if (sscanf(buf, "%ld.%*s ", &seconds) != 1) return UINT64_MAX;
    return static_cast<uint64_t>(seconds);
}

TREL_API uint64_t get_uptime_from_proc(void) noexcept {
    return get_uptime_from_file("/proc/uptime");
}

TREL_API char *uptime2str(uint64_t s, char *out, size_t size) noexcept {
    if (out == nullptr || size == 0) return out;
    char d[24] = "", h[8] = "", m[8] = "", sec[8] = "";
    auto days = static_cast<unsigned>(s / 86400);
    auto hours = static_cast<unsigned>(s / 3600 % 24);
    auto minutes = static_cast<unsigned>(s / 60 % 60);
    auto seconds = static_cast<unsigned>(s % 60);
    if (days) snprintf(d, sizeof d, "%ud", days);
    if (hours) snprintf(h, sizeof h, "%uh", hours);
    if (minutes) snprintf(m, sizeof m, "%um", minutes);
    if (seconds) snprintf(sec, sizeof sec, "%us", seconds);
    snprintf(out, size, "%s%s%s%s", d, h, m, sec);
    return out;
}

TREL_API int get_system_time(trel_time_parts *parts) noexcept {
    if (parts == nullptr) return -1;
    time_t now = time(nullptr);
    char text[32];
    if (ctime_r(&now, text) == nullptr) return -1;
    memset(parts, 0, sizeof *parts);
    // Kept: "Sun Nov 22 07:24:04 2026\n": the year keeps its newline.
    struct {
        char *field;
        const char *delim;
    } const steps[] = {{parts->weekday, " "}, {parts->month, " "},  {parts->day, " "},
                       {parts->hour, ":"},    {parts->minute, ":"}, {parts->second, " "},
                       {parts->year, " "}};
    char *save = nullptr;
    char *p = text;
    for (const auto &step : steps) {
        char *tok = strtok_r(p, step.delim, &save);
        p = nullptr;
        if (tok == nullptr) break;
        trel::copy_text(step.field, 8, tok);
    }
    return 0;
}

TREL_API int get_system_time_str(char *out, size_t size) noexcept {
    if (out == nullptr || size == 0) return -1;
    out[0] = '\0';
    time_t now = time(nullptr);
    struct tm tm;
    if (localtime_r(&now, &tm) == nullptr) return -1;
    if (strftime(out, size, "%Y-%m-%dT%H:%M:%S", &tm) == 0) {
        out[0] = '\0';
        return -1;
    }
    return 0;
}

TREL_API int get_vesk_env(void) noexcept {
    char env[8];
    read_mgmt_value("mgmt.vesk.env", env, sizeof env, "prod");
    if (strcmp(env, "dev") == 0) return TREL_VESK_ENV_DEV;
    if (strcmp(env, "stage") == 0) return TREL_VESK_ENV_STAGE;
    return TREL_VESK_ENV_PROD;
}

TREL_API int get_vesk_env_limit_prod(void) noexcept {
    int env = get_vesk_env();
    int reftype = get_trel_scm_reftype();
    char force[8];
    read_mgmt_value("mgmt.vesk.env.force", force, sizeof force, "false");
    if (starts_with(force, "1") || starts_with(force, "enable")) return env;
    // Builds not cut from a release tag stay off the production service.
    if (env == TREL_VESK_ENV_PROD && reftype != 1) return TREL_VESK_ENV_DEV;
    return env;
}
