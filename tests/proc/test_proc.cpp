#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <trel/proc.h>

#include "trel_test.h"

using trel_test::LogCapture;
using trel_test::TempRoot;

namespace {

struct LogLevel {
    uint32_t saved = libtrel_log_level;
    explicit LogLevel(uint32_t level) { libtrel_log_level = level; }
    ~LogLevel() { libtrel_log_level = saved; }
};

std::string dump(const json_t *v) {
    char *s = json_dumps(v, JSON_COMPACT | JSON_ENCODE_ANY);
    std::string out = s ? s : "null";
    free(s);
    return out;
}

// A stat line whose fields 23 and 24 are vsize and rss.
std::string stat_line(int pid, const std::string &comm, char state, int ppid, unsigned long vsize,
                      long rss) {
    std::ostringstream s;
    s << pid << " (" << comm << ") " << state << " " << ppid
      << " 1 1 0 -1 4194560 100 0 0 0 5 3 0 0 20 0 1 0 1234 " << vsize << " " << rss
      << " 18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 17 0 0 0\n";
    return s.str();
}

void add_fds(const TempRoot &root, int pid, const std::vector<std::string> &targets) {
    root.mkdir("/proc/" + std::to_string(pid) + "/fd");
    for (size_t i = 0; i < targets.size(); i++) {
        std::string link = root.path("/proc/" + std::to_string(pid) + "/fd/" + std::to_string(i));
        ASSERT_EQ(symlink(targets[i].c_str(), link.c_str()), 0) << link;
    }
}

const char kTcpHeader[] =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
    "inode\n";
const char kTail[] = " 1 0000000000000000 100 0 0 10 0\n";

std::string inet_line(const std::string &local, const std::string &remote, const char *st,
                      const char *inode) {
    return "   0: " + local + " " + remote + " " + st +
           " 00000000:00000000 00:00000000 00000000     0        0 " + inode + kTail;
}

// The sample process table: odd names, every descriptor kind, every socket
// state rule, and the processes that must be skipped.
void write_fixture(const TempRoot &root) {
    const std::string zero = "00000000:0000";
    root.write("/proc/net/tcp", kTcpHeader + inet_line("00000000:1F90", zero, "0A", "100") +
                                    inet_line("0100007F:D431", "0100007F:1F90", "01", "101") +
                                    inet_line("0100007F:0050", zero, "0D", "102") +
                                    "   3: 0100007F:0050 00000000:0000 0A 00000000:00000000\n" +
                                    inet_line("00000000:0016", zero, "0A", "0"));
    root.write("/proc/net/tcp6",
               kTcpHeader + inet_line(std::string(32, '0') + ":0035",
                                      std::string(32, '0') + ":0000", "0A", "103"));
    root.write("/proc/net/udp", kTcpHeader + inet_line("00000000:0044", zero, "07", "200") +
                                    inet_line("00000000:0045", zero, "0A", "202"));
    root.write("/proc/net/udp6",
               kTcpHeader + inet_line(std::string(28, '0') + "0100:14E9",
                                      std::string(28, '0') + "0100:0035", "01", "201"));
    root.write("/proc/net/unix",
               "Num       RefCount Protocol Flags    Type St Inode Path\n"
               "0000000000000000: 00000002 00000000 00010000 0001 01 300 /run/ctl.sock\n"
               "0000000000000000: 00000003 00000000 00000000 0002 01 301\n"
               "0000000000000000: 00000002 00000000 00000000 0005 03 302 @abstract\n"
               "0000000000000000: 00000002 00000000 00000000 0009 00 303 /run/odd\n"
               "0000000000000000: 00000002 00000000 00000000 0001 04 304\n"
               "0000000000000000: 00000002 00000000 00000000 0001 07 305\n"
               "0000000000000000: 00000002 00000000\n"
               "0000000000000000: 00000002 00000000 00000000 0001 01 0 /zero\n"
               "0000000000000000: 00000002 00000000 00000000 0001 01 300 /dup\n");

    root.write("/proc/10/stat", stat_line(10, "a) (b c", 'S', 1, 10485760, 300));
    root.write("/proc/10/cmdline", std::string("prog\0--opt\0\xff\x01junk\0", 18));
    add_fds(root, 10,
            {"/dev/null", "pipe:[4]", "anon_inode:[eventfd]", "socket:[100]", "socket:[101]",
             "socket:[102]", "socket:[103]", "socket:[200]", "socket:[201]", "socket:[202]",
             "socket:[300]", "socket:[301]", "socket:[302]", "socket:[303]", "socket:[304]",
             "socket:[305]", "socket:[999]", "net:[4026531992]", "/" + std::string(385, 'x')});
    root.write("/proc/11/stat", stat_line(11, "nofds", 'Z', 10, 0, 0));  // no fd directory
    root.write("/proc/12/stat", "12 (short) S 1 1 1\n");
    root.write("/proc/13/stat", "13 (open S 1 1 1 0 -1\n");
    root.write("/proc/15/stat", stat_line(15, "long", 'R', 1, 4096, 1));
    root.write("/proc/15/cmdline", std::string(1500, 'x'));
    add_fds(root, 15, {});
    root.write("/proc/16/stat", stat_line(16, "erange", 'S', 1, 0, 0));
    add_fds(root, 16, {"socket:[99999999999999999999999]"});
    root.mkdir("/proc/17");  // gone before its stat was read
    root.write("/proc/0/stat", stat_line(0, "zero", 'S', 0, 0, 0));
    root.write("/proc/14", stat_line(14, "file", 'S', 0, 0, 0));
}

std::vector<std::string> sorted_fds(const json_t *fds) {
    std::vector<std::string> out;
    size_t i;
    json_t *fd;
    json_array_foreach(fds, i, fd) out.push_back(dump(fd));
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace

TEST(Proc, FixtureTableWithDescriptors) {
    TempRoot root;
    write_fixture(root);
    LogLevel level(8);
    LogCapture log;
    int fds_before = trel_test::open_fd_count();

    std::map<int, int32_t> seen;  // pid -> fd_count when the filter ran
    auto filter = [](trel_ps_entry *e, void *arg) -> int32_t {
        (*static_cast<std::map<int, int32_t> *>(arg))[e->pid] = e->fd_count;
        return e->pid == 15 ? 1 : e->pid == 11 ? 2 : 0;
    };
    trel_ps_list *list = trel_ps_filter(1, filter, &seen);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(seen, (std::map<int, int32_t>{{10, 19}, {11, -1}, {15, 0}, {16, -2}}));
    ASSERT_NE(list->sockets, nullptr);
    EXPECT_EQ(list->sockets->count, 13u);
    EXPECT_EQ(list->count, 3u);
    std::map<int, const trel_ps_entry *> by_pid;
    trel_list_link *l;
    TREL_LIST_FOR_EACH(l, &list->list) {
        auto *e = reinterpret_cast<const trel_ps_entry *>(l);
        by_pid[e->pid] = e;
    }
    ASSERT_EQ(by_pid.size(), 3u);
    EXPECT_STREQ(by_pid[10]->cmdline, "prog --opt \xff\x01junk");
    EXPECT_EQ(by_pid[11]->cmdline, nullptr);

    const long kib_per_page = sysconf(_SC_PAGESIZE) / 1024;
    json_t *array = trel_ps_list_to_array(list);
    ASSERT_NE(array, nullptr);
    std::map<int, json_t *> objects;
    size_t i;
    json_t *o;
    json_array_foreach(array, i, o) objects[json_integer_value(json_object_get(o, "pid"))] = o;
    ASSERT_EQ(objects.size(), 3u);

    json_t *fds = json_incref(json_object_get(objects[10], "fds"));
    json_object_set_new(objects[10], "fds", json_array());
    EXPECT_EQ(dump(objects[10]),
              "{\"pid\":10,\"ppid\":1,\"vsz\":10240,\"rss\":" + std::to_string(300 * kib_per_page) +
                  ",\"stat\":\"S\",\"fd_count\":19,\"comm\":\"a) (b c\","
                  "\"fds\":[]}");
    EXPECT_EQ(dump(objects[11]),
              "{\"pid\":11,\"ppid\":10,\"vsz\":0,\"rss\":0,\"stat\":\"Z\",\"fd_count\":-1,"
              "\"comm\":\"nofds\",\"fds\":[]}");
    EXPECT_EQ(json_integer_value(json_object_get(objects[16], "fd_count")), -2);
    auto tcp = [](const char *type, const char *local, const char *remote, const char *state) {
        return std::string("{\"fd_type\":\"socket\",\"socket_type\":\"") + type +
               "\",\"socket\":{\"local_port\":" + local + ",\"remote_port\":" + remote +
               ",\"state\":\"" + state + "\"}}";
    };
    auto unix_socket = [](const char *details) {
        return std::string("{\"fd_type\":\"socket\",\"socket_type\":\"unix\",\"socket\":{") +
               details + "}}";
    };
    std::vector<std::string> expected = {
        "{\"fd_type\":\"file\",\"link\":\"/dev/null\"}",
        "{\"fd_type\":\"pipe\",\"link\":\"pipe:[4]\"}",
        "{\"fd_type\":\"anon\",\"link\":\"anon_inode:[eventfd]\"}",
        tcp("tcp", "8080", "\"*\"", "LISTEN"),
        tcp("tcp", "54321", "8080", "ESTABLISHED"),
        tcp("tcp", "80", "\"*\"", "UNKNOWN"),
        tcp("tcp6", "53", "\"*\"", "LISTEN"),
        tcp("udp", "68", "\"*\"", "CLOSE"),
        tcp("udp6", "5353", "53", "ESTABLISHED"),
        tcp("udp", "69", "\"*\"", "UNKNOWN"),
        unix_socket("\"refcnt\":2,\"type\":\"STREAM\",\"path\":\"/run/ctl.sock\","
                    "\"state\":\"LISTENING\""),
        unix_socket("\"refcnt\":3,\"type\":\"DGRAM\",\"state\":\"UNCONNECTED\""),
        unix_socket("\"refcnt\":2,\"type\":\"SEQPACKET\",\"path\":\"@abstract\","
                    "\"state\":\"CONNECTED\""),
        unix_socket("\"refcnt\":2,\"type\":\"UNKNOWN\",\"path\":\"/run/odd\",\"state\":"
                    "\"UNKNOWN\""),
        unix_socket("\"refcnt\":2,\"type\":\"STREAM\",\"state\":\"DISCONNECTING\""),
        unix_socket("\"refcnt\":2,\"type\":\"STREAM\",\"state\":\"UNKNOWN\""),
        "{\"fd_type\":\"socket\"}",
    };
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(sorted_fds(fds), expected);
    json_decref(fds);
    json_decref(array);
    EXPECT_EQ(trel_test::open_fd_count(), fds_before);

    for (const char *line :
         {"libtrel_proc.add_socket(): Duplicate socket inode 300",
          "libtrel_proc.walk_process_fds(): Unknown FD type 'net:[4026531992]'",
          "libtrel_proc.walk_process_fds(): Failed to open '/proc/11/fd': No such file",
          "libtrel_proc.fread_cmdline(): Failed to open '/proc/11/cmdline': No such file",
          "libtrel_proc.walk_process_fds(): Failed to read '/proc/16/fd': Numerical result",
          "libtrel_proc.resolve_fd_path(): Resolved path truncated '/proc/10/fd/18 ->  /xxx"}) {
        SCOPED_TRACE(line);
        EXPECT_TRUE(log.contains(line));
    }
    EXPECT_FALSE(log.contains("/zero")) << log.text();
}

TEST(Proc, TableWithoutDescriptorsNeverReadsSockets) {
    TempRoot root;
    write_fixture(root);
    root.remove("/proc/net");
    LogCapture log;
    json_t *array = trel_ps_array();
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(json_array_size(array), 4u);  // 10, 11, 15, 16
    size_t i;
    json_t *o;
    json_array_foreach(array, i, o) {
        SCOPED_TRACE(dump(o));
        EXPECT_EQ(json_array_size(json_object_get(o, "fds")), 0u);
        int pid = (int)json_integer_value(json_object_get(o, "pid"));
        int count = (int)json_integer_value(json_object_get(o, "fd_count"));
        EXPECT_EQ(count, pid == 10 ? 19 : pid == 11 ? -1 : pid == 16 ? 1 : 0);
    }
    json_decref(array);
    EXPECT_FALSE(log.contains("/proc/net")) << log.text();

    // A /proc that cannot be opened gives no table; an empty one an empty table.
    root.remove("/proc");
    EXPECT_EQ(trel_ps_filter(1, nullptr, nullptr), nullptr);
    EXPECT_TRUE(log.contains("libtrel_proc.trel_ps_filter(): Failed to open '/proc'"));
    array = trel_ps_list_to_array(nullptr);
    EXPECT_EQ(dump(array), "[]");
    json_decref(array);
}

namespace {

struct PsRow {
    int ppid;
    char state;
    std::string comm;
};

// procps's view of the process table.
std::map<int, PsRow> procps_table() {
    std::map<int, PsRow> rows;
    FILE *p = popen("ps -eo pid=,ppid=,stat=,comm= 2>/dev/null", "r");
    if (p == nullptr) return rows;
    char line[512];
    while (fgets(line, sizeof line, p) != nullptr) {
        int pid, ppid, n = 0;
        char stat[16];
        if (sscanf(line, "%d %d %15s %n", &pid, &ppid, stat, &n) != 3) continue;
        std::string comm = line + n;
        comm.erase(comm.find_last_not_of("\n") + 1);
        if (comm.size() > 10 && comm.compare(comm.size() - 10, 10, " <defunct>") == 0)
            comm.resize(comm.size() - 10);
        rows[pid] = {ppid, stat[0], comm};
    }
    pclose(p);
    return rows;
}

// A child named name that runs fn and exits.
template <typename Fn>
pid_t fork_named(const char *name, Fn fn) {
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_NAME, name);
        fn();
        _exit(0);
    }
    return pid;
}

std::map<int, PsRow> trel_table() {
    std::map<int, PsRow> rows;
    trel_ps_list *list = trel_ps();
    if (list == nullptr) return rows;
    trel_list_link *l;
    TREL_LIST_FOR_EACH(l, &list->list) {
        auto *e = reinterpret_cast<const trel_ps_entry *>(l);
        rows[e->pid] = {e->ppid, e->state, e->comm};
    }
    trel_ps_list_free(list);
    return rows;
}

}  // namespace

TEST(Proc, LiveProcessSocketsAndProcpsAgree) {
    if (getenv("LIBTREL_ROOT") != nullptr) unsetenv("LIBTREL_ROOT");
    int tcp = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof in;
    ASSERT_EQ(bind(tcp, (sockaddr *)&in, sizeof in), 0);
    ASSERT_EQ(listen(tcp, 1), 0);
    ASSERT_EQ(getsockname(tcp, (sockaddr *)&in, &len), 0);
    std::string dir = trel_test::make_temp_dir();
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    std::string path = dir + "/live.sock";
    snprintf(un.sun_path, sizeof un.sun_path, "%s", path.c_str());
    int local = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(local, (sockaddr *)&un, sizeof un), 0);
    ASSERT_EQ(listen(local, 1), 0);

    auto only_me = [](trel_ps_entry *e, void *) -> int32_t { return e->pid == getpid() ? 0 : 1; };
    trel_ps_list *list = trel_ps_filter(1, only_me, nullptr);
    ASSERT_NE(list, nullptr);
    ASSERT_EQ(list->count, 1u);
    auto *me = reinterpret_cast<const trel_ps_entry *>(list->list.next);
    EXPECT_EQ(me->ppid, getppid());
    EXPECT_STREQ(me->comm, "test_proc");
    EXPECT_EQ(me->state, 'R');
    EXPECT_GE(me->fd_count, 5);  // 0-2, the two sockets
    const trel_inet_socket *found_tcp = nullptr;
    const trel_unix_socket *found_unix = nullptr;
    trel_list_link *l;
    TREL_LIST_FOR_EACH(l, &me->fds) {
        auto *fd = reinterpret_cast<const trel_ps_fd *>(l);
        if (fd->type != TREL_FD_SOCKET || fd->target.socket == nullptr) continue;
        const trel_socket_inode *s = fd->target.socket;
        if (s->type == TREL_SOCKET_TCP && s->data.inet->local_port == ntohs(in.sin_port))
            found_tcp = s->data.inet;
        if (s->type == TREL_SOCKET_UNIX && s->data.un->path != nullptr && s->data.un->path == path)
            found_unix = s->data.un;
    }
    ASSERT_NE(found_tcp, nullptr);
    EXPECT_EQ(found_tcp->remote_port, 0u);
    EXPECT_EQ(found_tcp->state, 10u);  // LISTEN
    ASSERT_NE(found_unix, nullptr);
    EXPECT_EQ(found_unix->state, 3u);  // LISTENING
    EXPECT_EQ(found_unix->type, 1u);   // STREAM
    trel_ps_list_free(list);
    close(tcp);
    close(local);
    trel_test::remove_tree(dir);

    // Two children whose state cannot change while they are compared: one
    // stopped, named with a space and parentheses, and one zombie.
    pid_t stopped = fork_named("trel stop (1)", [] { raise(SIGSTOP); });
    pid_t zombie = fork_named("trel-zombie", [] {});
    int status;
    ASSERT_EQ(waitpid(stopped, &status, WUNTRACED), stopped);
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, zombie, &info, WEXITED | WNOWAIT), 0);

    // Processes procps saw before and after one snapshot of ours are in it,
    // with the same parent and name.  Only the two children's states are
    // compared: any other process may run or sleep at each moment.
    std::map<int, PsRow> before = procps_table();
    std::map<int, PsRow> ours = trel_table();
    std::map<int, PsRow> after = procps_table();
    kill(stopped, SIGKILL);
    waitpid(stopped, &status, 0);
    waitpid(zombie, &status, 0);
    if (before.empty()) GTEST_SKIP() << "procps's ps is not available";
    int compared = 0;
    for (const auto &[pid, row] : before) {
        auto later = after.find(pid);
        if (later == after.end()) continue;
        SCOPED_TRACE("pid " + std::to_string(pid) + " " + row.comm);
        auto it = ours.find(pid);
        ASSERT_NE(it, ours.end());
        // A process may exec or lose its parent meanwhile; kernel workers
        // rename themselves after their current work queue.
        if (later->second.ppid == row.ppid) {
            EXPECT_EQ(it->second.ppid, row.ppid);
        }
        if (later->second.comm == row.comm && row.ppid != 2) {
            EXPECT_EQ(it->second.comm, row.comm);
        }
        compared++;
    }
    EXPECT_GE(compared, 3);
    for (auto [pid, state, comm] :
         {std::tuple{stopped, 'T', "trel stop (1)"}, std::tuple{zombie, 'Z', "trel-zombie"}}) {
        SCOPED_TRACE(comm);
        ASSERT_EQ(ours.count(pid), 1u);
        EXPECT_EQ(ours[pid].comm, comm);
        EXPECT_EQ(ours[pid].ppid, getpid());
        EXPECT_EQ(ours[pid].state, state);
        EXPECT_EQ(before[pid].state, state);
    }
}

TEST(Proc, Meminfo) {
    static const char *const names[] = {
        "MemTotal",       "MemFree",     "MemAvailable", "Buffers",        "Cached",
        "Active",         "Inactive",    "Active(anon)", "Inactive(anon)", "Active(file)",
        "Inactive(file)", "Unevictable", "Mlocked",      "Dirty",          "Writeback",
        "AnonPages",      "Mapped",      "Shmem",        "Slab",           "SReclaimable",
        "SUnreclaim",     "KernelStack", "PageTables",   "CommitLimit",    "Committed_AS"};
    auto fields = [](const trel_meminfo &m) {
        return std::vector<uint64_t>{
            m.mem_total,     m.mem_free,     m.mem_available, m.buffers,       m.cached,
            m.active,        m.inactive,     m.active_anon,   m.inactive_anon, m.active_file,
            m.inactive_file, m.unevictable,  m.mlocked,       m.dirty,         m.writeback,
            m.anon_pages,    m.mapped,       m.shmem,         m.slab,          m.s_reclaimable,
            m.s_unreclaim,   m.kernel_stack, m.page_tables,   m.commit_limit,  m.committed_as};
    };
    // Counter i holds i + 1, MemTotal 4000.  "Buffers" is the second 31-byte
    // piece of a long line; a counter after the 25th match is not read.
    std::string full = "HugePages_Total:       0\nActive(foo): 9 kB\n";
    std::vector<uint64_t> values;
    for (size_t i = 0; i < 25; i++) {
        uint64_t v = i == 0 ? 4000 : i + 1;
        values.push_back(v);
        if (i == 3)
            full += std::string(31, 'X') + "Buffers: " + std::to_string(v) + " kB\n";
        else
            full += std::string(names[i]) + ":   " + std::to_string(v) + " kB\n";
    }
    full += "MemTotal: 1 kB\n";
    std::string no_available = "MemTotal: 800 kB\nMemAvailable kB\n";
    struct {
        const char *name;
        std::string file;
        std::vector<uint64_t> fields;
        float used;
    } const cases[] = {
        {"all counters", full, values, (float)(3997 * 100.0 / 4000)},
        {"no MemAvailable", no_available, {800}, 100.0f},
        {"no MemTotal", "MemFree: 5 kB\n", {0, 5}, 0.0f},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        TempRoot root;
        root.write("/proc/meminfo", c.file);
        LogCapture log;
        trel_meminfo mi;
        memset(&mi, 0xA5, sizeof mi);
        ASSERT_EQ(meminfo(&mi), 0u);
        std::vector<uint64_t> want = c.fields;
        want.resize(25, 0);
        EXPECT_EQ(fields(mi), want);
        EXPECT_EQ(mi.used_percent, c.used);
        EXPECT_EQ(get_memused_percent(nullptr), c.used);
        if (c.fields.size() == 25) {
            EXPECT_TRUE(log.contains("libtrel_proc.meminfo(): No colon found"));
            std::string json = "{";
            for (size_t i = 0; i < 25; i++)
                json +=
                    std::string(i ? "," : "") + "\"" + names[i] + "\":" + std::to_string(values[i]);
            json_t *o = trel_meminfo_to_obj(&mi);
            EXPECT_EQ(dump(o), json + "}");
            json_decref(o);
        }
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

    root.write("/proc/net/nf_conntrack", "");
    trel_conntrack_hosts *hosts = get_top_conntrack_hosts();
    ASSERT_NE(hosts, nullptr);
    EXPECT_EQ(hosts->count, 0u);
    EXPECT_EQ(hosts->hosts, nullptr);
    free_conntrack_hosts(hosts);

    // The next line's second 319-byte piece is a line of its own.
    std::string long_line = "ipv4" + std::string(315, '.') + "ipv4 src=10.7.7.7 dst=10.7.7.8 x\n";
    root.write("/proc/net/nf_conntrack",
               "ipv4     2 tcp      6 431999 ESTABLISHED src=10.0.0.2 dst=10.0.0.1 sport=1 "
               "dport=2 src=10.0.0.1 dst=10.0.0.2 sport=2 dport=1 [ASSURED] mark=0 use=2\n"
               "ipv6     10 udp      17 20 src=fe80::1 dst=ff02::fb sport=5353 dport=5353 "
               "[UNREPLIED] src=ff02::fb dst=fe80::1 sport=5353 dport=5353 mark=0 use=2\n"
               "arp      2 src=10.9.9.9 dst=10.9.9.8 x\n"
               " ipv4 src=10.9.9.7 dst=10.9.9.6 x\n"
               "ipv4     2 icmp     1 29 src=192.168.1.5 dst=192.168.1.5 type=8 code=0\n"
               "ipv4     2 udp      17 29 src=10.0.0.3 dst=10.0.0.4\n"
               "ipv4     2 udp      17 29 src= dst=10.0.0.1 sport=1\n" +
                   long_line);
    hosts = get_top_conntrack_hosts();
    ASSERT_NE(hosts, nullptr);
    std::vector<std::pair<std::string, int>> got;
    for (trel_conntrack_host *h = hosts->hosts; h != nullptr;
         h = static_cast<trel_conntrack_host *>(h->hh.next))
        got.emplace_back(h->addr, h->connections);
    EXPECT_EQ(got, (std::vector<std::pair<std::string, int>>{{"10.0.0.1", 2},
                                                             {"192.168.1.5", 2},
                                                             {"10.0.0.2", 1},
                                                             {"fe80::1", 1},
                                                             {"ff02::fb", 1},
                                                             {"10.0.0.3", 1},
                                                             {"10.7.7.7", 1},
                                                             {"10.7.7.8", 1}}));
    EXPECT_EQ(hosts->count, 8u);
    trel_conntrack_host *found;
    HASH_FIND_STR(hosts->hosts, "10.0.0.3", found);
    EXPECT_NE(found, nullptr);
    free_conntrack_hosts(hosts);
    free_conntrack_hosts(nullptr);
}
