// Process and resource commands: ps (the process table, with descriptors and
// sockets on request), mem (the memory summary) and conntrack (tracked
// connections per host).
#include <stdio.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <trel/proc.h>

#include "tool.h"

namespace {

struct PsOptions {
    bool fds = false;
    std::string comm;
};

int32_t drop_other_names(trel_ps_entry *e, void *arg) {
    return *static_cast<const std::string *>(arg) == e->comm ? 0 : 1;
}

std::string text_of(const json_t *v) {
    if (json_is_string(v)) return json_string_value(v);
    if (json_is_integer(v)) return std::to_string(json_integer_value(v));
    return "-";
}

// One descriptor as "type link" or "socket kind key=value ...".
std::string describe_fd(json_t *fd) {
    std::string out = text_of(json_object_get(fd, "fd_type"));
    if (json_t *link = json_object_get(fd, "link")) out += " " + text_of(link);
    if (json_t *type = json_object_get(fd, "socket_type")) out += " " + text_of(type);
    const char *key;
    json_t *value;
    json_object_foreach(json_object_get(fd, "socket"), key, value) {
        out += std::string(" ") + key + "=" + text_of(value);
    }
    return out;
}

int run_ps(const PsOptions &o) {
    std::string comm = o.comm;
    trel_ps_list *list =
        trel_ps_filter(o.fds ? 1 : 0, comm.empty() ? nullptr : drop_other_names, &comm);
    if (list == nullptr) return trel_tool::fail("cannot read the process table");
    if (trel_tool::options().json) {
        json_t *array = trel_ps_list_to_array(list);
        if (array == nullptr) return trel_tool::fail("out of memory");
        trel_tool::print_json(array);
        return 0;
    }
    std::vector<const trel_ps_entry *> entries;
    trel_list_link *l;
    TREL_LIST_FOR_EACH(l, &list->list) entries.push_back(reinterpret_cast<trel_ps_entry *>(l));
    std::sort(entries.begin(), entries.end(),
              [](const trel_ps_entry *a, const trel_ps_entry *b) { return a->pid < b->pid; });
    printf("%7s %7s S %10s %9s %5s COMM\n", "PID", "PPID", "VSZ", "RSS", "FDS");
    for (const trel_ps_entry *e : entries) {
        printf("%7d %7d %c %10llu %9lld %5d %s\n", e->pid, e->ppid, e->state,
               (unsigned long long)e->vsz, (long long)e->rss, e->fd_count, e->comm);
        if (!o.fds) continue;
        json_t *fds = trel_fds_to_array(e);
        size_t i;
        json_t *fd;
        json_array_foreach(fds, i, fd) printf("%17s%s\n", "", describe_fd(fd).c_str());
        json_decref(fds);
    }
    trel_ps_list_free(list);
    return 0;
}

int run_mem() {
    trel_meminfo mi;
    if (meminfo(&mi) != 0) return trel_tool::fail("cannot read /proc/meminfo");
    json_t *o = trel_meminfo_to_obj(&mi);
    if (o == nullptr) return trel_tool::fail("out of memory");
    if (trel_tool::options().json) {
        json_object_set_new(o, "used_percent", json_real(mi.used_percent));
        trel_tool::print_json(o);
        return 0;
    }
    const char *key;
    json_t *value;
    json_object_foreach(o, key, value) {
        printf("%-15s %10lld kB\n", (std::string(key) + ":").c_str(),
               (long long)json_integer_value(value));
    }
    printf("%-15s %10.1f %%\n", "used:", mi.used_percent);
    json_decref(o);
    return 0;
}

int run_conntrack(unsigned top) {
    trel_conntrack_hosts *hosts = get_top_conntrack_hosts();
    if (hosts == nullptr) return trel_tool::fail("cannot read /proc/net/nf_conntrack");
    json_t *array = trel_tool::options().json ? json_array() : nullptr;
    unsigned shown = 0;
    for (const trel_conntrack_host *h = hosts->hosts; h != nullptr && (top == 0 || shown < top);
         h = static_cast<const trel_conntrack_host *>(h->hh.next), shown++) {
        if (array != nullptr)
            json_array_append_new(
                array, json_pack("{s:s, s:i}", "addr", h->addr, "connections", h->connections));
        else
            printf("%7d %s\n", h->connections, h->addr);
    }
    if (array != nullptr) trel_tool::print_json(array);
    free_conntrack_hosts(hosts);
    return 0;
}

}  // namespace

void trel_tool::register_proc_commands(CLI::App &app) {
    auto ps_options = std::make_shared<PsOptions>();
    auto *ps = app.add_subcommand("ps", "Show the process table");
    ps->add_flag("--fds", ps_options->fds, "List each process's descriptors and sockets");
    ps->add_option("--comm", ps_options->comm, "Only processes with this command name");
    trel_tool::add_command(ps, [ps_options] { return run_ps(*ps_options); });

    auto *mem = app.add_subcommand("mem", "Show the memory counters and the share in use");
    trel_tool::add_command(mem, run_mem);

    auto top = std::make_shared<unsigned>(0);
    auto *conntrack =
        app.add_subcommand("conntrack", "Show hosts by tracked connections, busiest first");
    conntrack->add_option("--top", *top, "Only the first N hosts (0: all)");
    trel_tool::add_command(conntrack, [top] { return run_conntrack(*top); });
}
