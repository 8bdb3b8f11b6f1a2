// The device files: every absolute path the library reads, or looks for, on a
// device, in one table.  "trel snapshot" copies what the table names from a
// device (or from a snapshot, under LIBTREL_ROOT) so that the library reads
// the copy, under LIBTREL_ROOT, as it read the device; a test records the
// paths the library opens while the tool runs and fails on any path the
// table does not cover.  A path the library gains goes here too.
//
// Header only and never included by the library itself: it costs the shared
// object nothing, and it lives beside the code whose paths it lists.
//
// Patterns: absolute paths whose components may hold "*" (any run of
// characters) and "#" (a run of decimal digits), e.g. "/proc/#/stat".
#pragma once

#include <stddef.h>

#include <string_view>

namespace trel::device_files {

enum class Kind {
    // The file the path names, through any symlinks on the way (each one
    // recreated in the copy), read to its end or to the bound.
    File,
    // The entry itself: a symlink recreated with its text and never
    // followed, a directory made (empty: other entries fill it), a file
    // copied.
    Node,
    // A directory and everything beneath it; symlinks inside are recreated,
    // never followed.  The bound applies to each file.
    Tree,
    // The MTD partition "/proc/mtd" names EEPROM (any case), "#" standing for
    // its number, read as the board code reads it: its first 65536 bytes.
    Eeprom,
};

struct Entry {
    std::string_view pattern;
    Kind kind;
    size_t limit;           // bytes kept of each file; a longer one is cut
    bool keep_end = false;  // cut a longer file at its start (a log) instead
};

inline constexpr size_t kKiB = 1024;
inline constexpr size_t kMiB = 1024 * kKiB;
inline constexpr size_t kEepromBytes = 65536;

// clang-format off
inline constexpr Entry kEntries[] = {
    // Hardware-abstraction driver: identity, BOM revision, flag files.
    {"/proc/trelhal/system.info", Kind::File, 64 * kKiB},
    {"/proc/trelhal/board", Kind::File, 64 * kKiB},
    {"/proc/trelhal/status", Kind::Tree, 64 * kKiB},
    // Configuration, management settings, mesh mode, discovery settings.
    {"/tmp/system.cfg", Kind::File, 4 * kMiB},
    {"/etc/persistent/cfg/mgmt", Kind::File, 1 * kMiB},
    {"/etc/meshmode.conf", Kind::File, 64 * kKiB},
    {"/var/run/trel_protocol.info", Kind::File, 64 * kKiB},
    // Firmware version and build facts; the system-wrapper scripts.
    {"/usr/etc/.version", Kind::File, 64 * kKiB},
    {"/usr/etc/.build", Kind::File, 64 * kKiB},
    {"/usr/lib/build.properties", Kind::File, 64 * kKiB},
    {"/etc/syswrapper.sh", Kind::File, 1 * kMiB},
    {"/usr/etc/syswrapper.sh", Kind::File, 1 * kMiB},
    // Run state written by other daemons, and the library's own markers,
    // locks and last report.
    {"/var/run/ipready.br0", Kind::File, 64 * kKiB},
    {"/var/run/ntp.ready", Kind::File, 64 * kKiB},
    {"/var/run/system.analytics.mode", Kind::File, 64 * kKiB},
    {"/var/run/system.analytics.coredump", Kind::File, 64 * kKiB},
    {"/var/run/system.internet", Kind::File, 64 * kKiB},
    {"/var/run/dhcpc.last_state", Kind::File, 64 * kKiB},
    {"/var/run/system.uplink", Kind::File, 64 * kKiB},
    {"/var/run/system.uplink_ifname", Kind::File, 64 * kKiB},
    {"/var/run/system.uplink_port", Kind::File, 64 * kKiB},
    {"/var/run/last-crashlog.sent", Kind::File, 64 * kKiB},
    {"/var/run/last-crashlog.txt", Kind::File, 1 * kMiB},
    {"/var/run/report_payload.txt", Kind::File, 1 * kMiB},
    {"/var/run/report_payload_cmd.txt", Kind::File, 64 * kKiB},
    {"/var/run/report", Kind::Node, 4 * kKiB},
    {"/var/run/inform-profile.lock", Kind::File, 64 * kKiB},
    {"/var/run/guest/portal", Kind::Tree, 1 * kMiB},
    // The system log: where the logger writes, what crash reports quote.
    {"/var/log/messages", Kind::File, 1 * kMiB, true},
    // Persistent store: isolation-log archives, their meta records, markers.
    {"/etc/persistent/isolation_logs", Kind::Tree, 8 * kMiB},
    {"/etc/persistent/isolation_logs_sent", Kind::Tree, 64 * kKiB},
    // Processes: stat line, command line, descriptors (symlinks).
    {"/proc/#/stat", Kind::File, 64 * kKiB},
    {"/proc/#/cmdline", Kind::File, 64 * kKiB},
    {"/proc/#/fd", Kind::Node, 4 * kKiB},
    {"/proc/#/fd/*", Kind::Node, 4 * kKiB},
    // Kernel tables and facts.
    {"/proc/net/tcp", Kind::File, 8 * kMiB},
    {"/proc/net/tcp6", Kind::File, 8 * kMiB},
    {"/proc/net/udp", Kind::File, 8 * kMiB},
    {"/proc/net/udp6", Kind::File, 8 * kMiB},
    {"/proc/net/unix", Kind::File, 8 * kMiB},
    {"/proc/net/dev", Kind::File, 1 * kMiB},
    {"/proc/net/arp", Kind::File, 1 * kMiB},
    {"/proc/net/nf_conntrack", Kind::File, 32 * kMiB},
    {"/proc/meminfo", Kind::File, 64 * kKiB},
    {"/proc/uptime", Kind::File, 64 * kKiB},
    {"/proc/cpuinfo", Kind::File, 1 * kMiB},
    {"/proc/mtd", Kind::File, 64 * kKiB},
    {"/proc/bus/pci/devices", Kind::File, 1 * kMiB},
    {"/proc/bus/pci/*/*", Kind::File, 4 * kKiB},
    {"/dev/mtd#", Kind::Eeprom, kEepromBytes},
    {"/dev/mtd/#", Kind::Eeprom, kEepromBytes},
    // Network interfaces and bridges: the interface list, each bridge's
    // forwarding table and member links, each member's port number and state.
    {"/sys/class/net/*", Kind::Node, 4 * kKiB},
    {"/sys/class/net/*/brforward", Kind::File, 4 * kMiB},
    {"/sys/class/net/*/brif", Kind::Node, 4 * kKiB},
    {"/sys/class/net/*/brif/*", Kind::Node, 4 * kKiB},
    {"/sys/class/net/*/brif/*/port_no", Kind::File, 4 * kKiB},
    {"/sys/class/net/*/brif/*/state", Kind::File, 4 * kKiB},
    // The accelerometer.
    {"/sys/bus/i2c/devices/1-0018/iio:device0", Kind::Node, 4 * kKiB},
    {"/sys/bus/i2c/devices/1-0018/iio:device0/sampling_frequency", Kind::File, 4 * kKiB},
    {"/sys/bus/i2c/devices/1-0018/iio:device0/in_accel_x_raw", Kind::File, 4 * kKiB},
    {"/sys/bus/i2c/devices/1-0018/iio:device0/in_accel_y_raw", Kind::File, 4 * kKiB},
    {"/sys/bus/i2c/devices/1-0018/iio:device0/in_accel_z_raw", Kind::File, 4 * kKiB},
};
// clang-format on

// The next component of a path, taken off the front of rest; empty ones and
// "." are skipped.  Empty at the end.
constexpr std::string_view next_component(std::string_view &rest) noexcept {
    for (;;) {
        while (!rest.empty() && rest.front() == '/') rest.remove_prefix(1);
        size_t end = rest.find('/');
        if (end == std::string_view::npos) end = rest.size();
        std::string_view c = rest.substr(0, end);
        rest.remove_prefix(end);
        if (c != ".") return c;
    }
}

constexpr bool has_wildcard(std::string_view component) noexcept {
    return component.find_first_of("*#") != std::string_view::npos;
}

// Whether a name matches one pattern component.
constexpr bool name_matches(std::string_view pattern, std::string_view name) noexcept {
    if (pattern.empty()) return name.empty();
    if (pattern.front() == '*') {
        for (size_t i = 0; i <= name.size(); i++)
            if (name_matches(pattern.substr(1), name.substr(i))) return true;
        return false;
    }
    if (pattern.front() == '#') {
        for (size_t i = 0; i < name.size() && name[i] >= '0' && name[i] <= '9'; i++)
            if (name_matches(pattern.substr(1), name.substr(i + 1))) return true;
        return false;
    }
    return !name.empty() && pattern.front() == name.front() &&
           name_matches(pattern.substr(1), name.substr(1));
}

enum class Match {
    None,   // path and pattern part somewhere
    Whole,  // path is what the pattern names
    Below,  // path lies beneath what the pattern names
    Above,  // path is a directory on the way to what the pattern names
};

constexpr Match match_path(std::string_view pattern, std::string_view path) noexcept {
    for (;;) {
        std::string_view p = next_component(pattern);
        std::string_view c = next_component(path);
        if (p.empty()) return c.empty() ? Match::Whole : Match::Below;
        if (c.empty()) return Match::Above;
        if (!name_matches(p, c)) return Match::None;
    }
}

// Whether the table covers a logical path the library touched: an entry names
// it, it lies in a tree, or it is a directory the library passes or lists on
// the way to entries (whose listing the copy keeps as far as the entries go).
constexpr bool covers(std::string_view path) noexcept {
    for (const Entry &e : kEntries) {
        Match m = match_path(e.pattern, path);
        if (m == Match::Whole || m == Match::Above || (m == Match::Below && e.kind == Kind::Tree))
            return true;
    }
    return false;
}

}  // namespace trel::device_files
