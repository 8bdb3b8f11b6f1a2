// The memory summary: 25 counters of /proc/meminfo and the share in use.
#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/log.h"
#include "core/path_root.h"
#include "core/raii.h"
#include "proc/internal.h"

using trel::proc::kModule;

namespace {

constexpr char kMeminfo[] = "/proc/meminfo";
constexpr size_t kPieceSize = 32;  // longer lines are read in pieces

struct Counter {
    const char *name;
    uint64_t trel_meminfo::*field;
};

// The lines read, in the order of the record's fields.
constexpr Counter kCounters[] = {
    {"MemTotal", &trel_meminfo::mem_total},
    {"MemFree", &trel_meminfo::mem_free},
    {"MemAvailable", &trel_meminfo::mem_available},
    {"Buffers", &trel_meminfo::buffers},
    {"Cached", &trel_meminfo::cached},
    {"Active", &trel_meminfo::active},
    {"Inactive", &trel_meminfo::inactive},
    {"Active(anon)", &trel_meminfo::active_anon},
    {"Inactive(anon)", &trel_meminfo::inactive_anon},
    {"Active(file)", &trel_meminfo::active_file},
    {"Inactive(file)", &trel_meminfo::inactive_file},
    {"Unevictable", &trel_meminfo::unevictable},
    {"Mlocked", &trel_meminfo::mlocked},
    {"Dirty", &trel_meminfo::dirty},
    {"Writeback", &trel_meminfo::writeback},
    {"AnonPages", &trel_meminfo::anon_pages},
    {"Mapped", &trel_meminfo::mapped},
    {"Shmem", &trel_meminfo::shmem},
    {"Slab", &trel_meminfo::slab},
    {"SReclaimable", &trel_meminfo::s_reclaimable},
    {"SUnreclaim", &trel_meminfo::s_unreclaim},
    {"KernelStack", &trel_meminfo::kernel_stack},
    {"PageTables", &trel_meminfo::page_tables},
    {"CommitLimit", &trel_meminfo::commit_limit},
    {"Committed_AS", &trel_meminfo::committed_as},
};
constexpr size_t kCounterCount = sizeof kCounters / sizeof *kCounters;

static_assert(kCounterCount == 25);
static_assert(offsetof(trel_meminfo, committed_as) == 24 * sizeof(uint64_t));
static_assert(offsetof(trel_meminfo, used_percent) == 25 * sizeof(uint64_t));

}  // namespace

TREL_API uint32_t meminfo(trel_meminfo *mi) noexcept {
    if (mi == nullptr) return UINT32_MAX;
    trel::UniqueFile f(trel::path_fopen(kMeminfo, "re"));
    if (!f) {
        TREL_ERR(kModule, "Failed to open '%s': %s", kMeminfo, strerror(errno));
        return UINT32_MAX;
    }
    memset(mi, 0, sizeof *mi);
    char piece[kPieceSize];
    size_t matches = 0;
    while (matches < kCounterCount && fgets(piece, sizeof piece, f.get()) != nullptr) {
        char *colon = strchr(piece, ':');
        if (colon == nullptr) {
            // Kept: the tail of a line longer than 31 characters comes as a piece
            // of its own and is reported like this.
            TREL_ERR(kModule, "No colon found");
            continue;
        }
        *colon = '\0';
        unsigned long value = strtoul(colon + 1, nullptr, 10);
        for (const Counter &c : kCounters) {
            if (strcmp(piece, c.name) == 0) {
                mi->*c.field = value;
                matches++;
                break;
            }
        }
    }
    // Kept: without "MemAvailable" (old kernels) this reads 100%.
    if (mi->mem_total != 0)
        mi->used_percent =
            static_cast<float>(static_cast<double>(mi->mem_total - mi->mem_available) * 100.0 /
                               static_cast<double>(mi->mem_total));
    return 0;
}

TREL_API json_t *trel_meminfo_to_obj(const trel_meminfo *mi) noexcept {
    if (mi == nullptr) return nullptr;
    json_t *o = json_object();
    if (o == nullptr) {
        TREL_ERR(kModule, "Failed to allocate json object");
        return nullptr;
    }
    for (const Counter &c : kCounters)
        json_object_set_new(o, c.name, json_integer(static_cast<json_int_t>(mi->*c.field)));
    return o;
}

TREL_API float get_memused_percent(const struct sysinfo *si) noexcept {
    trel_meminfo mi;
    if (meminfo(&mi) == 0) return mi.used_percent;
    if (si == nullptr || si->totalram == 0) return 0.0f;
    // mem_unit scales both terms and cancels out.
    return static_cast<float>(static_cast<double>(si->totalram - si->freeram) * 100.0 /
                              static_cast<double>(si->totalram));
}
