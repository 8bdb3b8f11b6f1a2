// The process table with descriptors and sockets, memory counters and
// conntrack hosts, from fixture trees under LIBTREL_ROOT and the live system.
#include <arpa/inet.h>
#include <ctype.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <trel/proc.h>

#include "trel_test.h"

using trel_test::LogCapture;
using trel_test::LogSettings;
using trel_test::TempRoot;

namespace {

std::string dump(const json_t *v) {
    char *s = json_dumps(v, JSON_COMPACT | JSON_ENCODE_ANY);
    std::string out = s ? s : "null";
    free(s);
    return out;
}

// A stat line whose fields 23 and 24 are vsize and rss.
std::string stat_line(int pid, const std::string &comm, const std::string &state_ppid,
                      const std::string &vsize_rss) {
    return std::to_string(pid) + " (" + comm + ") " + state_ppid +
           " 1 1 0 -1 4194560 100 0 0 0 5 3 0 0 20 0 1 0 1234 " + vsize_rss + " 184467 1 1 0\n";
}

void add_fds(const TempRoot &root, int pid, const std::vector<std::string> &targets) {
    std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    root.mkdir(dir);
    for (size_t i = 0; i < targets.size(); i++)
        ASSERT_EQ(symlink(targets[i].c_str(), root.path(dir + "/" + std::to_string(i)).c_str()), 0);
}

std::string inet(const std::string &local, const std::string &remote, const char *st_inode) {
    return "   0: " + local + " " + remote + " " + st_inode + " 1 0000000000000000 100 0 0 10 0\n";
}

// Odd names, every descriptor kind, every socket state rule, and processes
// that must be skipped: 12 truncated, 13 without ")", 14 no directory, 17
// gone, 0 not a process.
TEST(Proc, FixtureTableWithDescriptors) {
    TempRoot root;
    const std::string head = "  sl  local_address rem_address   st tx_queue ...\n",
                      any = "00000000:0000",
                      mid = " 00000000:00000000 00:00000000 00000000     0        0 ",
                      v6 = std::string(28, '0');
    root.write("/proc/net/tcp",
               head + inet("00000000:1F90", any, ("0A" + mid + "100").c_str()) +
                   inet("0100007F:D431", "0100007F:1F90", ("01" + mid + "101").c_str()) +
                   inet("0100007F:0050", any, ("0D" + mid + "102").c_str()) +
                   "   3: 0100007F:0050 00000000:0000 0A 00000000:00000000\n" +
                   inet(any, any, ("0A" + mid + "0").c_str()));
    root.write("/proc/net/tcp6",
               head + inet(v6 + "0000:0035", v6 + "0000:0000", ("0A" + mid + "103").c_str()));
    root.write("/proc/net/udp", head + inet("00000000:0044", any, ("07" + mid + "200").c_str()) +
                                    inet("00000000:0045", any, ("0A" + mid + "202").c_str()));
    root.write("/proc/net/udp6",
               head + inet(v6 + "0100:14E9", v6 + "0100:0035", ("01" + mid + "201").c_str()));
    root.write("/proc/net/unix",
               "Num       RefCount Protocol Flags    Type St Inode Path\n"
               "0000000000000000: 00000002 00000000 00010000 0001 01 300 /run/ctl.sock\n"
               "0000000000000000: 00000003 00000000 00000000 0002 01 301\n"
               "0000000000000000: 00000002 00000000 00000000 0005 03 302 @abstract\n"
               "0000000000000000: 00000002 00000000 00000000 0009 00 303 /run/odd\n"
               "0000000000000000: 00000002 00000000 00000000 0001 04 304\n"
               "0000000000000000: 00000002 00000000 00000000 0001 07 305 @\n"
               "0000000000000000: 00000002 00000000\n"
               "0000000000000000: 00000002 00000000 00000000 0001 01 0 /zero\n"
               "0000000000000000: 00000002 00000000 00000000 0001 01 300 /dup\n");
    root.write("/proc/10/stat", stat_line(10, "a) (b c", "S 1", "10485760 300"));
    root.write("/proc/10/cmdline", std::string("prog\0--opt\0\xff\x01junk\0", 18));
    std::vector<std::string> links = {
        "/dev/null",    "pipe:[4]",         "anon_inode:[eventfd]",
        "socket:[999]", "net:[4026531992]", "/" + std::string(385, 'x')};
    for (const char *inode : {"100", "101", "102", "103", "200", "201", "202", "300", "301", "302",
                              "303", "304", "305"})
        links.push_back(std::string("socket:[") + inode + "]");
    add_fds(root, 10, links);
    root.write("/proc/11/stat", stat_line(11, "nofds", "Z 10", "0 0"));
    root.write("/proc/12/stat", "12 (short) S 1 1 1\n");
    root.write("/proc/13/stat", "13 (open S 1 1 1 0 -1\n");
    root.write("/proc/14", stat_line(14, "file", "S 0", "0 0"));
    root.write("/proc/15/stat", stat_line(15, "long", "R 1", "4096 1"));
    root.write("/proc/15/cmdline", std::string(1500, 'x'));
    add_fds(root, 15, {});
    root.write("/proc/16/stat", stat_line(16, "erange", "S 1", "0 0"));
    root.write("/proc/16/cmdline", "");  // a kernel thread's: no command line, no error
    add_fds(root, 16, {"socket:[99999999999999999999999]"});
    root.mkdir("/proc/17");
    root.write("/proc/0/stat", stat_line(0, "zero", "S 0", "0 0"));
    LogSettings level(8);
    LogCapture log;
    int fds_before = trel_test::open_fd_count();

    // Only 1 drops; the filter sees the complete entry.
    std::map<int, std::string> seen;
    auto filter = [](trel_ps_entry *e, void *arg) -> int32_t {
        (*static_cast<std::map<int, std::string> *>(arg))[e->pid] =
            std::to_string(e->fd_count) + " " + (e->cmdline ? e->cmdline : "-");
        return e->pid == 16 ? 1 : e->pid == 11 ? 2 : 0;
    };
    trel_ps_list *list = trel_ps_filter(1, filter, &seen);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(seen, (std::map<int, std::string>{{10, "19 prog --opt \xff\x01junk"},
                                                {11, "-1 -"},
                                                {15, "0 " + std::string(1023, 'x')},
                                                {16, "-2 -"}}));
    ASSERT_NE(list->sockets, nullptr);
    EXPECT_EQ(list->sockets->count, 13u);
    ASSERT_EQ(list->count, 3u);

    json_t *array = trel_ps_list_to_array(list);
    std::map<int, json_t *> objects;
    size_t i;
    json_t *o;
    json_array_foreach(array, i, o) objects[json_integer_value(json_object_get(o, "pid"))] = o;
    std::multiset<std::string> fds;  // sorted
    json_array_foreach(json_object_get(objects[10], "fds"), i, o) fds.insert(dump(o));
    std::string joined;
    for (const auto &fd : fds) joined += fd + "\n";
    EXPECT_EQ(joined, R"({"fd_type":"anon","link":"anon_inode:[eventfd]"}
{"fd_type":"file","link":"/dev/null"}
{"fd_type":"pipe","link":"pipe:[4]"}
{"fd_type":"socket","socket_type":"tcp","socket":{"local_port":54321,"remote_port":8080,"state":"ESTABLISHED"}}
{"fd_type":"socket","socket_type":"tcp","socket":{"local_port":80,"remote_port":"*","state":"UNKNOWN"}}
{"fd_type":"socket","socket_type":"tcp","socket":{"local_port":8080,"remote_port":"*","state":"LISTEN"}}
{"fd_type":"socket","socket_type":"tcp6","socket":{"local_port":53,"remote_port":"*","state":"LISTEN"}}
{"fd_type":"socket","socket_type":"udp","socket":{"local_port":68,"remote_port":"*","state":"CLOSE"}}
{"fd_type":"socket","socket_type":"udp","socket":{"local_port":69,"remote_port":"*","state":"UNKNOWN"}}
{"fd_type":"socket","socket_type":"udp6","socket":{"local_port":5353,"remote_port":53,"state":"ESTABLISHED"}}
{"fd_type":"socket","socket_type":"unix","socket":{"refcnt":2,"type":"SEQPACKET","path":"@abstract","state":"CONNECTED"}}
{"fd_type":"socket","socket_type":"unix","socket":{"refcnt":2,"type":"STREAM","path":"/run/ctl.sock","state":"LISTENING"}}
{"fd_type":"socket","socket_type":"unix","socket":{"refcnt":2,"type":"STREAM","path":"@","state":"UNKNOWN"}}
{"fd_type":"socket","socket_type":"unix","socket":{"refcnt":2,"type":"STREAM","state":"DISCONNECTING"}}
{"fd_type":"socket","socket_type":"unix","socket":{"refcnt":2,"type":"UNKNOWN","path":"/run/odd","state":"UNKNOWN"}}
{"fd_type":"socket","socket_type":"unix","socket":{"refcnt":3,"type":"DGRAM","state":"UNCONNECTED"}}
{"fd_type":"socket"}
)");
    json_object_del(objects[10], "fds");
    EXPECT_EQ(dump(objects[10]), "{\"pid\":10,\"ppid\":1,\"vsz\":10240,\"rss\":" +
                                     std::to_string(300 * sysconf(_SC_PAGESIZE) / 1024) +
                                     ",\"stat\":\"S\",\"fd_count\":19,\"comm\":\"a) (b c\"}");
    EXPECT_EQ(dump(objects[11]),
              "{\"pid\":11,\"ppid\":10,\"vsz\":0,\"rss\":0,\"stat\":\"Z\","
              "\"fd_count\":-1,\"comm\":\"nofds\",\"fds\":[]}");
    json_decref(array);
    EXPECT_EQ(trel_test::open_fd_count(), fds_before);
    for (const char *line :
         {"libtrel_proc.add_socket(): Duplicate socket inode 300",
          "libtrel_proc.walk_process_fds(): Unknown FD type 'net:[4026531992]'",
          "libtrel_proc.walk_process_fds(): Failed to open '/proc/11/fd': No such",
          "libtrel_proc.fread_cmdline(): Failed to open '/proc/11/cmdline': No such",
          "libtrel_proc.walk_process_fds(): Failed to read '/proc/16/fd': Numerical",
          "libtrel_proc.resolve_fd_path(): Resolved path truncated '/proc/10/fd/5 ->  /xx"}) {
        SCOPED_TRACE(line);
        EXPECT_TRUE(log.contains(line));
    }
    EXPECT_FALSE(log.contains("/zero"));
    EXPECT_FALSE(log.contains("/proc/16/cmdline"));

    // Without descriptors: counts only, and no socket table is read.
    root.remove("/proc/net");
    log.clear();
    array = trel_ps_array();
    std::set<std::string> counts;  // 16's bad inode is not parsed
    json_array_foreach(array, i, o) {
        counts.insert(dump(json_object_get(o, "fd_count")) + dump(json_object_get(o, "fds")));
    }
    json_decref(array);
    EXPECT_EQ(counts, (std::set<std::string>{"19[]", "-1[]", "0[]", "1[]"}));
    EXPECT_FALSE(log.contains("/proc/net"));

    root.remove("/proc");
    EXPECT_EQ(trel_ps_filter(1, nullptr, nullptr), nullptr);
    EXPECT_TRUE(log.contains("libtrel_proc.trel_ps_filter(): Failed to open '/proc'"));
    EXPECT_EQ(dump(array = trel_ps_list_to_array(nullptr)), "[]");
    json_decref(array);
}

// The test's own sockets found live under its descriptors, and the process
// table agreeing with procps's ps.
namespace {

struct Row {
    int ppid;
    char state;
    std::string comm;
};

// procps's view of the process table.
std::map<int, Row> procps_table() {
    std::map<int, Row> rows;
    FILE *p = popen("ps -eo pid=,ppid=,stat=,comm= 2>/dev/null", "r");
    char line[512], stat[16];
    int pid, ppid, n = 0;
    while (p != nullptr && fgets(line, sizeof line, p) != nullptr) {
        if (sscanf(line, "%d %d %15s %n", &pid, &ppid, stat, &n) != 3) continue;
        std::string comm(line + n, strcspn(line + n, "\n"));
        if (comm.size() > 10 && comm.substr(comm.size() - 10) == " <defunct>")
            comm.resize(comm.size() - 10);
        rows[pid] = {ppid, stat[0], comm};
    }
    if (p != nullptr) pclose(p);
    return rows;
}

// A child named name that runs fn and exits; it is killed with the test.
template <typename Fn>
pid_t fork_named(const char *name, Fn fn) {
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        prctl(PR_SET_NAME, name);
        fn();
        _exit(0);
    }
    return pid;
}

}  // namespace

TEST(Proc, LiveProcessSocketsAndProcpsAgree) {
    unsetenv("LIBTREL_ROOT");
    // User-mode emulation (qemu-user) answers for /proc/self/stat itself,
    // with a "0" where the kernel writes the state letter.
    std::string self = trel_test::read_file("/proc/self/stat");
    size_t close_paren = self.rfind(')');
    if (close_paren == std::string::npos || close_paren + 2 >= self.size() ||
        !isalpha((unsigned char)self[close_paren + 2]))
        GTEST_SKIP() << "/proc/self/stat is not the kernel's here (qemu-user): "
                     << self.substr(0, 60);
    int tcp = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in in{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof in;
    ASSERT_EQ(bind(tcp, (sockaddr *)&in, sizeof in), 0);
    ASSERT_EQ(listen(tcp, 1), 0);
    ASSERT_EQ(getsockname(tcp, (sockaddr *)&in, &len), 0);
    std::string dir = trel_test::make_temp_dir(), path = dir + "/live.sock";
    sockaddr_un un{AF_UNIX, {}};
    snprintf(un.sun_path, sizeof un.sun_path, "%s", path.c_str());
    int local = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(local, (sockaddr *)&un, sizeof un), 0);
    ASSERT_EQ(listen(local, 1), 0);

    auto only_me = [](trel_ps_entry *e, void *) -> int32_t { return e->pid == getpid() ? 0 : 1; };
    trel_ps_list *list = trel_ps_filter(1, only_me, nullptr);
    ASSERT_NE(list, nullptr);
    ASSERT_EQ(list->count, 1u);
    auto *me = (const trel_ps_entry *)list->list.next;
    EXPECT_EQ(me->ppid, getppid());
    EXPECT_STREQ(me->comm, "test_proc");
    EXPECT_EQ(me->state, 'R');
    std::vector<std::string> mine;
    trel_list_link *l;
    TREL_LIST_FOR_EACH(l, &me->fds) {
        const trel_socket_inode *s = ((const trel_ps_fd *)l)->target.socket;
        if (((const trel_ps_fd *)l)->type != TREL_FD_SOCKET || s == nullptr) continue;
        if (s->type == TREL_SOCKET_TCP && s->data.inet->local_port == ntohs(in.sin_port))
            mine.push_back("tcp " + std::to_string(s->data.inet->remote_port) + " " +
                           std::to_string(s->data.inet->state));
        if (s->type == TREL_SOCKET_UNIX && s->data.un->path != nullptr && s->data.un->path == path)
            mine.push_back("unix " + std::to_string(s->data.un->type) + " " +
                           std::to_string(s->data.un->state));
    }
    std::sort(mine.begin(), mine.end());
    EXPECT_EQ(mine,
              (std::vector<std::string>{"tcp 0 10", "unix 1 3"}));  // LISTEN; STREAM LISTENING
    trel_ps_list_free(list);
    close(tcp);
    close(local);
    trel_test::remove_tree(dir);

    // Two children whose state cannot change while compared: one stopped,
    // named with a space and parentheses, and one zombie.
    pid_t stopped = fork_named("trel stop (1)", [] { raise(SIGSTOP); });
    pid_t zombie = fork_named("trel-zombie", [] {});
    int status;
    siginfo_t info;
    ASSERT_EQ(waitpid(stopped, &status, WUNTRACED), stopped);
    ASSERT_EQ(waitid(P_PID, zombie, &info, WEXITED | WNOWAIT), 0);
    std::map<int, Row> before = procps_table(), ours, after;
    list = trel_ps();
    TREL_LIST_FOR_EACH(l, &list->list) {
        auto *e = (const trel_ps_entry *)l;
        ours[e->pid] = {e->ppid, e->state, e->comm};
    }
    trel_ps_list_free(list);
    after = procps_table();
    kill(stopped, SIGKILL);
    waitpid(stopped, &status, 0);
    waitpid(zombie, &status, 0);
    if (before.empty()) GTEST_SKIP() << "procps's ps is not available";

    // What procps saw before and after our snapshot is in it, with the same
    // parent and name (unless it exec'd or was reparented meanwhile; kernel
    // workers rename themselves).  Only the children's states are fixed.
    for (const auto &[pid, row] : before) {
        auto later = after.find(pid);
        if (later == after.end()) continue;
        SCOPED_TRACE("pid " + std::to_string(pid) + " " + row.comm);
        ASSERT_EQ(ours.count(pid), 1u);
        if (later->second.ppid == row.ppid) {
            EXPECT_EQ(ours[pid].ppid, row.ppid);
        }
        if (later->second.comm == row.comm && row.ppid != 2) {
            EXPECT_EQ(ours[pid].comm, row.comm);
        }
    }
    EXPECT_EQ(ours[stopped].comm + ours[stopped].state + before[stopped].state, "trel stop (1)TT");
    EXPECT_EQ(ours[zombie].comm + ours[zombie].state + before[zombie].state, "trel-zombieZZ");
    EXPECT_EQ(ours[zombie].ppid, getpid());
}

TEST(Proc, Meminfo) {
    const char *const names[] = {
        "MemTotal",       "MemFree",     "MemAvailable", "Buffers",        "Cached",
        "Active",         "Inactive",    "Active(anon)", "Inactive(anon)", "Active(file)",
        "Inactive(file)", "Unevictable", "Mlocked",      "Dirty",          "Writeback",
        "AnonPages",      "Mapped",      "Shmem",        "Slab",           "SReclaimable",
        "SUnreclaim",     "KernelStack", "PageTables",   "CommitLimit",    "Committed_AS"};
    // Counter i holds i + 1 (MemTotal 4000).  "Buffers" is the second 31-byte
    // piece of its line; a counter after the 25th match is not read.
    std::string full = "HugePages_Total:       0\nActive(foo): 9 kB\n";
    std::vector<uint64_t> values;
    for (size_t i = 0; i < 25; i++) {
        values.push_back(i == 0 ? 4000 : i + 1);
        full += (i == 3 ? std::string(31, 'X') : "") + names[i] + ":   " +
                std::to_string(values[i]) + " kB\n";
    }
    struct {
        std::string file;
        std::vector<uint64_t> fields;
        float used;
    } const cases[] = {
        {full + "MemTotal: 1 kB\n", values, (float)(3997 * 100.0 / 4000)},
        {"MemTotal: 800 kB\n", {800}, 100.0f},  // no MemAvailable
        {"MemFree: 5 kB\n", {0, 5}, 0.0f},      // no MemTotal
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.file.substr(0, 40));
        TempRoot root;
        root.write("/proc/meminfo", c.file);
        LogCapture log;
        trel_meminfo mi;
        memset(&mi, 0xA5, sizeof mi);
        ASSERT_EQ(meminfo(&mi), 0u);
        std::vector<uint64_t> got(25), want = c.fields;
        memcpy(got.data(), &mi, 25 * sizeof(uint64_t));  // the fields in line order
        want.resize(25, 0);
        EXPECT_EQ(got, want);
        EXPECT_EQ(mi.used_percent, c.used);
        EXPECT_EQ(get_memused_percent(nullptr), c.used);
        json_t *o = trel_meminfo_to_obj(&mi);
        std::string json = "{";
        for (size_t k = 0; k < 25; k++)
            json += (k ? ",\"" : "\"") + std::string(names[k]) + "\":" + std::to_string(want[k]);
        EXPECT_EQ(dump(o), json + "}");
        json_decref(o);
        EXPECT_EQ(log.contains("libtrel_proc.meminfo(): No colon found"), c.fields.size() == 25);
    }

    TempRoot root;
    LogCapture log;
    trel_meminfo mi;
    EXPECT_EQ(meminfo(&mi), 0xFFFFFFFFu);
    EXPECT_TRUE(log.contains("libtrel_proc.meminfo(): Failed to open '/proc/meminfo': No such"));
    struct sysinfo si {};
    si.totalram = 200;
    si.freeram = 50;
    si.mem_unit = 4096;
    EXPECT_EQ(get_memused_percent(&si), 75.0f);
}

TEST(Proc, ConntrackHosts) {
    TempRoot root;
    LogCapture log;
    EXPECT_EQ(get_top_conntrack_hosts(), nullptr);
    EXPECT_TRUE(log.contains(
        "libtrel_proc.get_top_conntrack_hosts(): Failed to open '/proc/net/nf_conntrack'"));
    // Only the first tuple counts, its keys in either order; equal counts keep
    // first-seen order; other families, values without a space after them and
    // empty values count nothing.  The long line's second 319-byte piece is a
    // line.
    root.write("/proc/net/nf_conntrack",
               "ipv4     2 tcp      6 431999 ESTABLISHED src=10.0.0.2 dst=10.0.0.1 sport=1 "
               "dport=2 src=10.0.0.1 dst=10.0.0.2 sport=2 dport=1 [ASSURED] mark=0 use=2\n"
               "ipv6     10 udp      17 20 src=fe80::1 dst=ff02::fb sport=5353 dport=5353 "
               "[UNREPLIED] src=ff02::fb dst=fe80::1 sport=5353 dport=5353 mark=0 use=2\n"
               "arp      2 src=10.9.9.9 dst=10.9.9.8 x\n ipv4 src=10.9.9.7 dst=10.9.9.6 x\n"
               "ipv4     2 icmp     1 29 dst=192.168.1.5 src=192.168.1.5 type=8 code=0\n"
               "ipv4     2 udp      17 29 src=10.0.0.3 dst=10.0.0.4\n"
               "ipv4     2 udp      17 29 dst=10.0.0.1 src= sport=1\n"
               "ipv4" +
                   std::string(315, '.') + "ipv4 src=10.7.7.7 dst=10.7.7.8 x\n");
    trel_conntrack_hosts *hosts = get_top_conntrack_hosts();
    ASSERT_NE(hosts, nullptr);
    std::string got;
    uint32_t n = 0;
    for (auto *h = hosts->hosts; h != nullptr; h = (trel_conntrack_host *)h->hh.next, n++)
        got += std::string(h->addr) + ":" + std::to_string(h->connections) + " ";
    EXPECT_EQ(got,
              "10.0.0.1:2 192.168.1.5:2 10.0.0.2:1 fe80::1:1 ff02::fb:1 10.0.0.3:1 10.7.7.7:1 "
              "10.7.7.8:1 ");
    EXPECT_EQ(hosts->count, n);
    free_conntrack_hosts(hosts);
}

}  // namespace
