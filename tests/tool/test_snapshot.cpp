// trel snapshot: the copy replays the sample device, the table covers every
// path the library opens, and the copy rules (bounds, symlinks, the EEPROM,
// destinations, descriptors).
#include <errno.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "core/device_files.h"
#include "trel_test.h"

namespace {

namespace fs = std::filesystem;
using trel_test::read_file;
using trel_test::write_file;

struct Result {
    pid_t pid = -1;
    int status = -1;
    std::string out, err;
};

// Runs argv (argv[0] looked up on PATH) with extra environment settings and,
// when nofile is non-zero, that limit on open descriptors.
Result run(const std::vector<std::string> &argv, const std::vector<std::string> &env = {},
           rlim_t nofile = 0) {
    std::string dir = trel_test::make_temp_dir();
    std::string out = dir + "/out", err = dir + "/err";
    pid_t pid = fork();
    if (pid == 0) {
        int in = open("/dev/null", O_RDONLY);
        int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (in < 0 || o < 0 || e < 0 || dup2(in, 0) < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0)
            _exit(126);
        for (const std::string &kv : env) putenv(strdup(kv.c_str()));
        struct rlimit rl = {nofile, nofile};
        if (nofile != 0 && setrlimit(RLIMIT_NOFILE, &rl) != 0) _exit(126);
        std::vector<char *> args;
        for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    Result r;
    r.pid = pid;
    int status;
    if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status))
        r.status = WEXITSTATUS(status);
    r.out = read_file(out);
    r.err = read_file(err);
    trel_test::remove_tree(dir);
    return r;
}

std::vector<std::string> tool(const std::string &root, std::vector<std::string> args) {
    args.insert(args.begin(), {TREL_TOOL_PATH, "--root", root});
    return args;
}

std::string examples() {
    const char *dir = getenv("TREL_EXAMPLES_DIR");
    return dir != nullptr ? dir : "";
}

// A private copy of the sample device: some commands write to their root.
std::string copy_of_sample(const std::string &dir) {
    std::string root = dir + "/device";
    fs::copy(examples() + "/device", root,
             fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    return root;
}

// Every entry below dir: its kind, a symlink's text, a file's mode and bytes.
std::map<std::string, std::string> tree(const std::string &dir) {
    std::map<std::string, std::string> t;
    for (const auto &e : fs::recursive_directory_iterator(dir)) {
        std::string rel = e.path().string().substr(dir.size());
        auto st = e.symlink_status();
        if (fs::is_symlink(st))
            t[rel] = "link " + fs::read_symlink(e.path()).string();
        else if (fs::is_directory(st))
            t[rel] = "dir";
        else
            t[rel] = "file " + std::to_string((int)st.permissions()) + " " + read_file(e.path());
    }
    return t;
}

// Hides what comes from the clock or the live kernel: times, uptime from
// sysinfo, the default route's interface (from "ip route").
std::string normalise(const std::string &text) {
    static const std::regex live(
        R"re(^(\s*"?(?:time|uptime|boot_time|system_time|timestamp|default_route_interface)"?: ).*$)re");
    std::istringstream in(text);
    std::string line, out;
    while (std::getline(in, line)) out += std::regex_replace(line, live, "$1<live>") + "\n";
    return out;
}

std::string replace_all(std::string s, const std::string &from, const std::string &to) {
    for (size_t at = 0; (at = s.find(from, at)) != std::string::npos; at += to.size())
        s.replace(at, from.size(), to);
    return s;
}

// Read-only commands, each run on a root; oopsdump and the system wrapper's
// filters come from the sample's own usr/bin and usr/etc on PATH.
std::vector<std::vector<std::string>> read_only_commands(const std::string &payload) {
    return {
        {"board"},
        {"--json", "board"},
        {"status", "eth0"},
        {"read", "/proc/trelhal/system.info", "serialno"},
        {"cfg", "print"},
        {"cfg", "section", "radio.", "--postfix", ".mode"},
        {"build-info"},
        {"ps", "--fds"},
        {"--json", "ps", "--fds"},
        {"mem"},
        {"conntrack"},
        {"net", "bridge", "br0", "--fdb"},
        {"net", "arp", "192.0.2.30"},
        {"net", "uplink"},
        {"portal", "list"},
        {"portal", "vlan", "20"},
        {"isolation", "list"},
        {"trace", "envelope", "--namespace", "system", "--type", "boot", payload},
        {"crash", "payload", "--with-cfg", "--log-cmd",
         "oopsdump | syswrapper.sh sensitive-data-filter"},
        {"syswrapper", "reload"},
    };
}

std::string sample_path(const std::string &root) {
    return "PATH=" + root + "/usr/bin:" + root + "/usr/etc:" + getenv("PATH");
}

class Snapshot : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(examples().empty()) << "TREL_EXAMPLES_DIR is not set";
        dir_ = trel_test::make_temp_dir();
    }
    void TearDown() override { trel_test::remove_tree(dir_); }
    std::string dir_;
};

TEST_F(Snapshot, ToolSeesTheCopyAsItSeesTheDevice) {
    std::string device = copy_of_sample(dir_);
    std::string copy = dir_ + "/copy";
    Result snap = run(tool(device, {"snapshot", copy}));
    ASSERT_EQ(snap.status, 0) << snap.err;
    EXPECT_EQ(snap.err, "");
    std::string payload = dir_ + "/payload.json";
    write_file(payload, "{\"event\":\"boot\",\"uptime\":12}\n");
    for (const auto &args : read_only_commands(payload)) {
        std::string what;
        for (const std::string &a : args) what += " " + a;
        SCOPED_TRACE("trel" + what);
        Result a = run(tool(device, args), {sample_path(device)});
        Result b = run(tool(copy, args), {sample_path(device)});
        ASSERT_EQ(a.status, 0) << a.err;
        EXPECT_NE(a.out, "");
        EXPECT_EQ(b.status, a.status);
        EXPECT_EQ(normalise(b.out), normalise(a.out));
        EXPECT_EQ(replace_all(b.err, copy, "ROOT"), replace_all(a.err, device, "ROOT"));
    }
}

// The tar extracts to the tree the directory form holds, and a snapshot of
// that tree is the tree again.
TEST_F(Snapshot, TarAndSnapshotOfSnapshotGiveTheSameTree) {
    std::string device = copy_of_sample(dir_), copy = dir_ + "/copy";
    ASSERT_EQ(run(tool(device, {"snapshot", copy})).status, 0);
    auto want = tree(copy);
    EXPECT_GT(want.size(), 50u);
    Result r = run(tool(device, {"snapshot", "--tar", dir_ + "/copy.tgz"}));
    ASSERT_EQ(r.status, 0) << r.err;
    fs::create_directory(dir_ + "/x");
    ASSERT_EQ(run({"tar", "-xzf", dir_ + "/copy.tgz", "-C", dir_ + "/x"}).status, 0);
    EXPECT_EQ(tree(dir_ + "/x"), want);
    ASSERT_EQ(run(tool(copy, {"snapshot", dir_ + "/again"})).status, 0);
    EXPECT_EQ(tree(dir_ + "/again"), want);
}

bool strace_works() {
    Result r = run({"strace", "-qq", "-e", "trace=none", "true"});
    return r.status == 0;
}

// The logical paths the library resolved under the root: every openat2 with
// RESOLVE_IN_ROOT, and the names read relative to a directory opened so (the
// process table reads descriptor links with readlinkat).
std::set<std::string> opened_paths(const std::string &log) {
    static const std::regex open_call(
        R"re(^openat2\(\d+, "((?:[^"\\]|\\.)*)".*RESOLVE_IN_ROOT.*\) = (-?\d+))re");
    static const std::regex at_call(R"re(^readlinkat\((\d+), "((?:[^"\\]|\\.)*)")re");
    static const std::regex close_call(R"re(^close\((\d+)\))re");
    std::set<std::string> paths;
    std::map<std::string, std::string> dirs;  // descriptor -> logical path
    std::istringstream in(read_file(log));
    std::string line;
    std::smatch m;
    while (std::getline(in, line)) {
        if (std::regex_search(line, m, open_call)) {
            paths.insert("/" + m[1].str());
            if (m[2].str()[0] != '-') dirs[m[2].str()] = "/" + m[1].str();
        } else if (std::regex_search(line, m, at_call) && dirs.count(m[1].str())) {
            paths.insert(dirs[m[1].str()] + "/" + m[2].str());
        } else if (std::regex_search(line, m, close_call)) {
            dirs.erase(m[1].str());
        }
    }
    return paths;
}

TEST_F(Snapshot, TableCoversEveryPathTheCommandsOpen) {
    if (!strace_works()) GTEST_SKIP() << "strace is missing or may not trace here";
    // Without openat2 the library walks a path one component at a time, and
    // the trace shows no whole path to match against the table.
    struct open_how how = {};
    how.flags = O_PATH | O_CLOEXEC;
    int probe = (int)syscall(SYS_openat2, AT_FDCWD, "/", &how, sizeof how);
    if (probe < 0 && errno == ENOSYS)
        GTEST_SKIP() << "no openat2 here (e.g. qemu-user): opens are not whole paths";
    if (probe >= 0) close(probe);
    std::string device = copy_of_sample(dir_);
    std::string payload = dir_ + "/payload.json";
    write_file(payload, "{\"event\":\"boot\"}\n");
    auto commands = read_only_commands(payload);
    // Commands that write to the root or try the network (refused at once).
    commands.insert(commands.end(), {
                                        {"isolation", "check"},
                                        {"isolation", "next"},
                                        {"crash", "kernel"},
                                        {"crash", "dump", "--type", "1", "--cmd", "mgmtd"},
                                        {"trace", "send", payload},
                                        {"net", "bridge", "br0", "--port", "1"},
                                        {"portal", "device", "wlan0"},
                                    });
    std::set<std::string> all, uncovered;
    for (const auto &args : commands) {
        std::string log = dir_ + "/strace.log";
        // The library resolves every path in the tool's own process.
        std::vector<std::string> argv = {
            "strace", "-qq", "-s", "4096", "-e", "trace=openat2,readlinkat,close", "-o", log, "--"};
        for (const std::string &a : tool(device, args)) argv.push_back(a);
        Result r = run(argv, {sample_path(device), "LIBTREL_TRACE_URL=http://127.0.0.1:1",
                              "LIBTREL_CRASH_URL=http://127.0.0.1:1"});
        std::string what;
        for (const std::string &a : args) what += " " + a;
        SCOPED_TRACE("trel" + what);
        EXPECT_NE(r.status, 127) << r.err;
        for (const std::string &p : opened_paths(log)) {
            all.insert(p);
            if (!trel::device_files::covers(p)) uncovered.insert(p + "  (trel" + what + ")");
        }
    }
    // The trace did see the library at work.
    for (const char *p : {"/proc/trelhal/system.info", "/proc/1/fd/3", "/dev/mtd5",
                          "/sys/class/net/br0/brif/eth0/port_no", "/var/run/guest/portal"})
        EXPECT_TRUE(all.count(p)) << p;
    std::string list;
    for (const std::string &p : uncovered) list += "\n  " + p;
    EXPECT_TRUE(uncovered.empty()) << "paths the library opened that the table misses:" << list;
}

// One root holding every case at once, one snapshot of it, then one check a
// case.
TEST_F(Snapshot, CopyRules) {
    std::string root = dir_ + "/root", copy = dir_ + "/copy";
    auto put = [&](const std::string &logical, const std::string &content, mode_t mode = 0644) {
        write_file(root + logical, content, mode);
    };
    auto link = [&](const std::string &logical, const std::string &text) {
        fs::create_directories(fs::path(root + logical).parent_path());
        fs::create_symlink(text, root + logical);
    };
    const size_t cfg_limit = 4 << 20, log_limit = 1 << 20;
    put("/tmp/system.cfg", std::string(cfg_limit, 'c') + "beyond\n");
    std::string log;
    for (int i = 0; log.size() <= log_limit + 100; i++) log += "line " + std::to_string(i) + "\n";
    put("/var/log/messages", log);
    put("/etc/secret", "not for the snapshot\n");
    put("/proc/7/stat", "7 (x) S 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 1 100 10\n");
    put("/proc/abc/stat", "not a process\n");
    link("/proc/7/fd/3", "/etc/secret");
    link("/proc/7/fd/4", "socket:[99]");
    link("/var/run/guest/portal/outside", "../../../../srv");
    put("/srv/data", "beside the tree\n");
    // A sysfs-like chain: the interface list holds links into devices/.
    link("/sys/class/net/br0", "../../devices/virtual/net/br0");
    put("/sys/devices/virtual/net/br0/brforward", std::string(16, '\x01'));
    link("/sys/devices/virtual/net/br0/brif/eth0", "../../../../platform/eth0/brport");
    put("/sys/devices/platform/eth0/brport/port_no", "0x1\n");
    // ".." above the root stays at the root; the decoy beside it is never read.
    link("/etc/persistent/cfg/mgmt", "../../../../../mgmt.real");
    put("/mgmt.real", "inside\n");
    write_file(dir_ + "/mgmt.real", "outside\n");
    put("/proc/mtd",
        "dev:    size   erasesize  name\nmtd0: 00010000 00001000 \"eeprom\"\n"
        "mtd2: 00010000 00001000 \"EEPROM\"\n");
    put("/dev/mtd0", std::string(70000, 'e'));
    put("/dev/mtd/0", "fallback");
    put("/dev/mtd2", "second");
    put("/sys/bus/i2c/devices/1-0018/iio:device0/name", "lis3dh-accel\n");
    put("/usr/etc/syswrapper.sh", "#!/bin/sh\n", 0755);
    ASSERT_EQ(mkfifo((root + "/var/run/system.uplink").c_str(), 0644), 0);
    // /proc/self names the pid of whoever reads it: the copy keeps a directory.
    link("/proc/net", "self/net");
    link("/proc/self", "7");
    put("/proc/7/net/tcp", "  sl  local_address\n");

    Result r = run(tool(root, {"snapshot", copy}));
    ASSERT_EQ(r.status, 0) << r.err;
    auto at = [&](const std::string &logical) { return copy + logical; };
    auto text = [&](const std::string &logical) {
        std::error_code ec;
        return fs::read_symlink(at(logical), ec).string();
    };
    auto exists = [&](const std::string &logical) {
        std::error_code ec;
        return fs::exists(fs::symlink_status(at(logical), ec));
    };
    struct Case {
        const char *what;
        std::function<void()> check;
    };
    const Case cases[] = {
        {"a file over its bound is cut to it, and told",
         [&] {
             EXPECT_EQ(read_file(at("/tmp/system.cfg")), std::string(cfg_limit, 'c'));
             EXPECT_NE(r.err.find("/tmp/system.cfg: longer than 4194304 bytes, cut"),
                       std::string::npos);
         }},
        {"a log over its bound keeps its end, from a whole line",
         [&] {
             std::string kept = read_file(at("/var/log/messages"));
             EXPECT_LE(kept.size(), log_limit);
             EXPECT_GT(kept.size(), log_limit - 20);
             EXPECT_EQ(log.compare(log.size() - kept.size(), kept.size(), kept), 0);
             EXPECT_EQ(log[log.size() - kept.size() - 1], '\n');
         }},
        {"descriptor links keep their text and are not followed",
         [&] {
             EXPECT_EQ(text("/proc/7/fd/3"), "/etc/secret");
             EXPECT_EQ(text("/proc/7/fd/4"), "socket:[99]");
             EXPECT_FALSE(exists("/etc/secret"));
         }},
        {"only numeric /proc entries are processes",
         [&] {
             EXPECT_TRUE(exists("/proc/7/stat"));
             EXPECT_FALSE(exists("/proc/abc"));
         }},
        {"a link inside a tree is recreated, not followed",
         [&] {
             EXPECT_EQ(text("/var/run/guest/portal/outside"), "../../../../srv");
             EXPECT_FALSE(exists("/srv"));
         }},
        {"links on the way to a file are recreated, the file lands behind them",
         [&] {
             EXPECT_EQ(text("/sys/class/net/br0"), "../../devices/virtual/net/br0");
             EXPECT_EQ(text("/sys/devices/virtual/net/br0/brif/eth0"),
                       "../../../../platform/eth0/brport");
             EXPECT_EQ(read_file(at("/sys/devices/virtual/net/br0/brforward")),
                       std::string(16, '\x01'));
             EXPECT_EQ(read_file(at("/sys/devices/platform/eth0/brport/port_no")), "0x1\n");
         }},
        {"'..' stops at the root",
         [&] {
             EXPECT_EQ(text("/etc/persistent/cfg/mgmt"), "../../../../../mgmt.real");
             EXPECT_EQ(read_file(at("/mgmt.real")), "inside\n");
         }},
        {"the EEPROM partition as the board code reads it, nothing else of /dev",
         [&] {
             EXPECT_EQ(read_file(at("/dev/mtd0")), std::string(65536, 'e'));
             EXPECT_EQ(read_file(at("/dev/mtd/0")), "fallback");
             EXPECT_FALSE(exists("/dev/mtd2"));
         }},
        {"a directory entry is made, what the table does not name is left out",
         [&] {
             EXPECT_TRUE(fs::is_directory(at("/sys/bus/i2c/devices/1-0018/iio:device0")));
             EXPECT_FALSE(exists("/sys/bus/i2c/devices/1-0018/iio:device0/name"));
         }},
        {"modes are kept",
         [&] {
             EXPECT_EQ(
                 fs::status(at("/usr/etc/syswrapper.sh")).permissions() & fs::perms::owner_exec,
                 fs::perms::owner_exec);
         }},
        {"a special file is skipped unopened, and told",
         [&] {
             EXPECT_FALSE(exists("/var/run/system.uplink"));
             EXPECT_NE(r.err.find("/var/run/system.uplink: not a regular file, skipped"),
                       std::string::npos);
         }},
        {"/proc/self is a directory in the copy",
         [&] {
             EXPECT_EQ(text("/proc/net"), "self/net");
             EXPECT_EQ(read_file(at("/proc/self/net/tcp")), "  sl  local_address\n");
             EXPECT_FALSE(exists("/proc/7/net"));
         }},
        {"the counts: two cut, one skipped, absent paths silent",
         [&] {
             EXPECT_NE(r.out.find(" 2 cut, 1 skipped\n"), std::string::npos) << r.out;
             EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 3) << r.err;
         }},
        {"the bridge reads the same through the copy",
         [&] {
             Result a = run(tool(root, {"net", "bridge", "br0"}));
             Result b = run(tool(copy, {"net", "bridge", "br0"}));
             EXPECT_EQ(a.status, 0);
             EXPECT_EQ(b.out, a.out);
         }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        c.check();
    }
}

TEST_F(Snapshot, Destinations) {
    std::string root = copy_of_sample(dir_);
    write_file(dir_ + "/full/keep", "mine\n");
    fs::create_directory(dir_ + "/empty");
    write_file(dir_ + "/file", "a file\n");
    struct Case {
        const char *what;
        std::vector<std::string> args;
        int status;
        std::string message;
    };
    const Case cases[] = {
        {"a new directory is made", {"snapshot", dir_ + "/new"}, 0, ""},
        {"an empty directory is filled", {"snapshot", dir_ + "/empty"}, 0, ""},
        {"a directory with something in it is refused",
         {"snapshot", dir_ + "/full"},
         2,
         "trel: " + dir_ + "/full: not empty\n"},
        {"a file is refused",
         {"snapshot", dir_ + "/file"},
         2,
         "trel: " + dir_ + "/file: exists and is not a directory\n"},
        {"a directory whose parent is missing fails",
         {"snapshot", dir_ + "/no/such"},
         1,
         "trel: cannot make " + dir_ + "/no/such: No such file or directory\n"},
        {"an existing tar file is refused",
         {"snapshot", "--tar", dir_ + "/file"},
         2,
         "trel: " + dir_ + "/file: exists\n"},
        {"no destination", {"snapshot"}, 2, "trel snapshot: give DIR or --tar FILE\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Result r = run(tool(root, c.args));
        EXPECT_EQ(r.status, c.status);
        if (c.status == 0) {
            EXPECT_TRUE(fs::exists(c.args[1] + "/proc/trelhal/system.info"));
        } else {
            EXPECT_EQ(r.err, c.message);
            EXPECT_EQ(r.out, "");
        }
    }
    EXPECT_EQ(read_file(dir_ + "/full/keep"), "mine\n");
    EXPECT_EQ(fs::directory_iterator(dir_ + "/full")->path().filename(), "keep");
    EXPECT_EQ(read_file(dir_ + "/file"), "a file\n");
}

// The running system: this test's process is in the copy, the snapshot's own
// is not, and /proc/self is a directory (its link would name the snapshot).
TEST_F(Snapshot, LiveSystemLeavesItselfOut) {
    std::string copy = dir_ + "/live";
    Result r = run({TREL_TOOL_PATH, "snapshot", copy}, {"LIBTREL_ROOT="});
    ASSERT_EQ(r.status, 0) << r.err;
    std::string mine = copy + "/proc/" + std::to_string(getpid());
    EXPECT_TRUE(fs::exists(mine + "/stat"));
    EXPECT_NE(read_file(mine + "/cmdline").find("test_snapshot"), std::string::npos);
    EXPECT_FALSE(fs::exists(copy + "/proc/" + std::to_string(r.pid)));
    EXPECT_FALSE(fs::exists(copy + "/proc/self/stat"));
    if (fs::is_symlink("/proc/net")) {
        EXPECT_TRUE(fs::is_symlink(copy + "/proc/net"));
        EXPECT_TRUE(fs::is_directory(fs::symlink_status(copy + "/proc/self")));
        EXPECT_TRUE(fs::exists(copy + "/proc/self/net/dev"));
    }
}

// Hundreds of files under a descriptor limit of 24: one leaked descriptor a
// file would exhaust it.
TEST_F(Snapshot, DescriptorsAreClosed) {
    std::string root = dir_ + "/root";
    for (int i = 0; i < 300; i++)
        write_file(root + "/var/run/guest/portal/p" + std::to_string(i) + "/vlans", "1\n");
    Result r = run(tool(root, {"snapshot", dir_ + "/copy"}), {}, 24);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find(": 300 files"), std::string::npos) << r.out;
    EXPECT_EQ(read_file(dir_ + "/copy/var/run/guest/portal/p299/vlans"), "1\n");
}

}  // namespace
