// The /proc readers on arbitrary file contents: the input becomes a process's
// stat line and command line, the five socket tables (whose first 16 lines
// are also the process's descriptor links), /proc/meminfo and the conntrack
// table under a private root.  Nothing may crash, leak or read out of
// bounds, and the results must agree with themselves.
#include <ftw.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include <libtrel.h>

namespace {

std::string g_root;

void write(const std::string &logical, const std::string &content) {
    std::ofstream(g_root + logical, std::ios::binary | std::ios::trunc) << content;
}

void make_dir(const std::string &logical) { mkdir((g_root + logical).c_str(), 0755); }

void remove_root() {
    nftw(
        g_root.c_str(),
        [](const char *p, const struct stat *, int, struct FTW *) { return remove(p); }, 16,
        FTW_DEPTH | FTW_PHYS);
}

// Rebuilds /proc/42/fd with one link per line of text (at most 16).
void write_links(const std::string &text) {
    std::string fd = g_root + "/proc/42/fd/";
    for (int i = 0; i < 16; i++) unlink((fd + std::to_string(i)).c_str());
    size_t start = 0;
    for (int i = 0; i < 16 && start < text.size(); i++) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string target = text.substr(start, std::min<size_t>(end - start, 600));
        start = end + 1;
        if (!target.empty() && target.find('\0') == std::string::npos)
            symlink(target.c_str(), (fd + std::to_string(i)).c_str());
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // In memory when possible: every input rewrites a dozen files.
    char shm[] = "/dev/shm/trel-fuzz-proc-XXXXXX";
    char tmp[] = "/tmp/trel-fuzz-proc-XXXXXX";
    char *tmpl = mkdtemp(shm) != nullptr ? shm : tmp;
    if (tmpl == tmp && mkdtemp(tmp) == nullptr) abort();
    g_root = tmpl;
    atexit(remove_root);
    setenv("LIBTREL_ROOT", tmpl, 1);
    for (const char *d : {"/proc", "/proc/net", "/proc/42", "/proc/42/fd"}) make_dir(d);
    libtrel_log_level = 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    write("/proc/42/stat", in.ConsumeRandomLengthString(1200));
    write("/proc/42/cmdline", in.ConsumeRandomLengthString(1200));
    std::string sockets = in.ConsumeRandomLengthString(2048);
    for (const char *table : {"tcp", "tcp6", "udp", "udp6", "unix"})
        write(std::string("/proc/net/") + table, sockets);
    write_links(sockets);
    write("/proc/meminfo", in.ConsumeRandomLengthString(2048));
    std::string conntrack = in.ConsumeRemainingBytesAsString();
    write("/proc/net/nf_conntrack", conntrack);

    trel_ps_list *list = trel_ps_filter(1, nullptr, nullptr);
    if (list == nullptr || list->count > 1) abort();
    if (list->count == 1) {
        auto *e = reinterpret_cast<trel_ps_entry *>(list->list.next);
        if (e->pid != 42 || e->comm == nullptr || e->fd_count < -2 || e->fd_count > 16) abort();
        if (e->cmdline != nullptr && strlen(e->cmdline) > 1023) abort();
    }
    json_t *array = trel_ps_list_to_array(list);
    char *text = json_dumps(array, JSON_COMPACT);
    free(text);
    json_decref(array);

    trel_meminfo mi;
    if (meminfo(&mi) != 0) abort();
    json_decref(trel_meminfo_to_obj(&mi));

    trel_conntrack_hosts *hosts = get_top_conntrack_hosts();
    if (hosts == nullptr) abort();
    uint32_t n = 0;
    int32_t previous = INT32_MAX;
    for (trel_conntrack_host *h = hosts->hosts; h != nullptr;
         h = static_cast<trel_conntrack_host *>(h->hh.next), n++) {
        if (h->connections > previous || h->connections < 1 || h->addr[0] == '\0') abort();
        previous = h->connections;
    }
    if (n != hosts->count || n > conntrack.size() / 5) abort();
    free_conntrack_hosts(hosts);
    return 0;
}
