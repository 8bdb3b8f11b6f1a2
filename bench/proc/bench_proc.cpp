// The process table over the live /proc against procps's libproc2 reading
// the same fields.  libproc2 reads pid, ppid, state, vsize, rss, comm and
// cmdline; it has no descriptor reader, so its runs add the rest the plain
// way: the count of each process's fd directory (fd_count, which our table
// always has) and, with descriptors, readlinkat of every link and one read
// of each of the five socket tables.  Before the runs a few hundred idle
// children are started so that the table is not trivially small.
//
// get_top_conntrack_hosts on a generated 65,536-line table against a bare
// fgets pass over the same file, and meminfo against a bare read of
// /proc/meminfo.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <libproc2/pids.h>

#include <string>
#include <vector>

#include <libtrel.h>

namespace {

constexpr int kIdleChildren = 300;
constexpr int kConntrackLines = 65536;

std::vector<pid_t> g_children;

void start_children() {
    for (int i = 0; i < kIdleChildren; i++) {
        pid_t pid = fork();
        if (pid == 0) {
            for (;;) pause();
        }
        if (pid > 0) g_children.push_back(pid);
    }
}

void stop_children() {
    for (pid_t pid : g_children) kill(pid, SIGKILL);
    for (pid_t pid : g_children) waitpid(pid, nullptr, 0);
}

void BM_TrelSnapshot(benchmark::State &state) {
    uint32_t with_fds = (uint32_t)state.range(0);
    size_t processes = 0;
    for (auto _ : state) {
        trel_ps_list *list = trel_ps_filter(with_fds, nullptr, nullptr);
        if (list == nullptr) {
            state.SkipWithError("no /proc");
            return;
        }
        processes = list->count;
        trel_ps_list_free(list);
    }
    state.counters["processes"] = (double)processes;
}
BENCHMARK(BM_TrelSnapshot)->ArgName("fds")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// Counts one process's descriptors and, with links, reads each link.
size_t walk_fds(int pid, bool links) {
    char dir[64];
    snprintf(dir, sizeof dir, "/proc/%d/fd", pid);
    DIR *d = opendir(dir);
    if (d == nullptr) return 0;
    size_t n = 0;
    while (struct dirent *e = readdir(d)) {
        n++;
        if (!links || e->d_type != DT_LNK) continue;
        char link[512];
        n += readlinkat(dirfd(d), e->d_name, link, sizeof link) > 0;
    }
    closedir(d);
    return n;
}

// One plain read of each socket table.
size_t read_socket_tables() {
    static char buf[65536];
    size_t total = 0;
    for (const char *table :
         {"/proc/net/unix", "/proc/net/tcp", "/proc/net/tcp6", "/proc/net/udp", "/proc/net/udp6"}) {
        int fd = open(table, O_RDONLY | O_CLOEXEC);
        if (fd < 0) continue;
        ssize_t n;
        while ((n = read(fd, buf, sizeof buf)) > 0) total += (size_t)n;
        close(fd);
    }
    return total;
}

void BM_Libproc2Snapshot(benchmark::State &state) {
    bool with_fds = state.range(0) != 0;
    enum pids_item items[] = {PIDS_ID_PID, PIDS_ID_PPID, PIDS_STATE,  PIDS_VSIZE_BYTES,
                              PIDS_RSS,    PIDS_CMD,     PIDS_CMDLINE};
    struct pids_info *info = nullptr;
    if (procps_pids_new(&info, items, sizeof items / sizeof *items) < 0) {
        state.SkipWithError("procps_pids_new failed");
        return;
    }
    size_t processes = 0, links = 0;
    for (auto _ : state) {
        if (with_fds) links += read_socket_tables();
        struct pids_fetch *f = procps_pids_reap(info, PIDS_FETCH_TASKS_ONLY);
        if (f == nullptr) {
            state.SkipWithError("procps_pids_reap failed");
            break;
        }
        processes = (size_t)f->counts->total;
        for (int i = 0; i < f->counts->total; i++) {
            int pid = PIDS_VAL(0, s_int, f->stacks[i], info);
            benchmark::DoNotOptimize(PIDS_VAL(5, str, f->stacks[i], info));
            links += walk_fds(pid, with_fds);
        }
    }
    benchmark::DoNotOptimize(links);
    state.counters["processes"] = (double)processes;
    procps_pids_unref(&info);
}
BENCHMARK(BM_Libproc2Snapshot)->ArgName("fds")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// A temporary root with a generated conntrack table: 1024 clients talking to
// 64 servers, both tuples on every line as the kernel writes them.
struct ConntrackRoot {
    std::string dir;
    std::string file;
    ConntrackRoot() {
        char tmpl[] = "/tmp/trel-bench-XXXXXX";
        dir = mkdtemp(tmpl);
        setenv("LIBTREL_ROOT", dir.c_str(), 1);
        mkdir((dir + "/proc").c_str(), 0755);
        mkdir((dir + "/proc/net").c_str(), 0755);
        file = dir + "/proc/net/nf_conntrack";
        FILE *f = fopen(file.c_str(), "w");
        for (int i = 0; i < kConntrackLines; i++) {
            int c = i % 1024, s = (i * 7) % 64, sport = 30000 + i % 30000;
            fprintf(f,
                    "ipv4     2 tcp      6 431999 ESTABLISHED src=10.%d.%d.%d dst=198.51.100.%d "
                    "sport=%d dport=443 src=198.51.100.%d dst=10.%d.%d.%d sport=443 dport=%d "
                    "[ASSURED] mark=0 zone=0 use=2\n",
                    c / 256, c % 256, 1 + c % 200, s, sport, s, c / 256, c % 256, 1 + c % 200,
                    sport);
        }
        fclose(f);
    }
    ~ConntrackRoot() {
        unlink(file.c_str());
        rmdir((dir + "/proc/net").c_str());
        rmdir((dir + "/proc").c_str());
        rmdir(dir.c_str());
        unsetenv("LIBTREL_ROOT");
    }
};

void BM_GetTopConntrackHosts(benchmark::State &state) {
    ConntrackRoot root;
    uint32_t hosts = 0;
    for (auto _ : state) {
        trel_conntrack_hosts *h = get_top_conntrack_hosts();
        if (h == nullptr) {
            state.SkipWithError("no table");
            break;
        }
        hosts = h->count;
        free_conntrack_hosts(h);
    }
    state.counters["hosts"] = hosts;
    state.SetItemsProcessed(state.iterations() * kConntrackLines);
}
BENCHMARK(BM_GetTopConntrackHosts)->Unit(benchmark::kMillisecond);

void BM_BareConntrackLines(benchmark::State &state) {
    ConntrackRoot root;
    for (auto _ : state) {
        FILE *f = fopen(root.file.c_str(), "re");
        char line[320];
        size_t n = 0;
        while (fgets(line, sizeof line, f) != nullptr) n++;
        fclose(f);
        benchmark::DoNotOptimize(n);
    }
    state.SetItemsProcessed(state.iterations() * kConntrackLines);
}
BENCHMARK(BM_BareConntrackLines)->Unit(benchmark::kMillisecond);

void BM_Meminfo(benchmark::State &state) {
    trel_meminfo mi;
    for (auto _ : state) {
        if (meminfo(&mi) != 0) state.SkipWithError("no /proc/meminfo");
        benchmark::DoNotOptimize(mi.used_percent);
    }
}
BENCHMARK(BM_Meminfo)->Unit(benchmark::kMicrosecond);

void BM_BareMeminfoRead(benchmark::State &state) {
    char buf[8192];
    for (auto _ : state) {
        int fd = open("/proc/meminfo", O_RDONLY | O_CLOEXEC);
        ssize_t n = read(fd, buf, sizeof buf);
        close(fd);
        benchmark::DoNotOptimize(n);
    }
}
BENCHMARK(BM_BareMeminfoRead)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char **argv) {
    unsetenv("LIBTREL_ROOT");
    libtrel_log_level = 0;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    start_children();
    benchmark::RunSpecifiedBenchmarks();
    stop_children();
    benchmark::Shutdown();
    return 0;
}
