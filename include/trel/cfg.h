/* libtrel configuration store: the key=value device configuration, its
 * parser and writer, typed queries, iterator lists, sections and diffs. */
#ifndef TREL_CFG_H
#define TREL_CFG_H

#include <stdint.h>
#include <stdio.h>

#include <trel/common.h>

TREL_BEGIN_DECLS

/* One configuration entry.  A configuration is a singly linked list of these
 * in file order (null when empty).  Iterator lists use the same shape but
 * borrow key and value from the configuration they were built from. */
typedef struct cfg_entry cfg_entry;
struct cfg_entry {
    char *key;
    char *value;
    char *esc;
    cfg_entry *next;
};

/* ---- Model, parser and writer -------------------------------------------- */

/* key=value lines; "#" lines, blank lines and lines without "=" are skipped.
 * The value keeps everything after the first "=" except the line's last
 * character.  After a "# misc" line a repeated key updates the first entry. */
cfg_entry *parse_stream(FILE *stream) TREL_NOEXCEPT;
cfg_entry *parse(const char *path) TREL_NOEXCEPT;
void free_cfg(cfg_entry *cfg) TREL_NOEXCEPT;
void print_cfg(cfg_entry *cfg) TREL_NOEXCEPT;
/* Writes "# CFG Start" then key=value lines; -1 when path cannot be opened. */
int save_cfg(cfg_entry *cfg, const char *path) TREL_NOEXCEPT;
/* The value with \ before each of ` \ " ' $; cached in the entry (the value
 * itself when nothing needs escaping).  Null when out of memory. */
const char *esc_value(cfg_entry *entry) TREL_NOEXCEPT;
/* Case-insensitive; digit runs compare by value ("radio.2" < "radio.10"). */
int cfg_keycmp(const char *a, const char *b) TREL_NOEXCEPT;

/* ---- Queries -------------------------------------------------------------- */

/* Keys are printf formats; the first entry with an equal key (cfg_keycmp)
 * answers.  Missing keys and values that do not convert give def; so does a
 * range error left in errno before the call. */
const char *get_value(cfg_entry *cfg, const char *def, const char *fmt, ...) TREL_NOEXCEPT
    TREL_PRINTF(3, 4);
const char *get_esc_value(cfg_entry *cfg, const char *def, const char *fmt, ...) TREL_NOEXCEPT
    TREL_PRINTF(3, 4);
int32_t get_int32(cfg_entry *cfg, int32_t def, const char *fmt, ...) TREL_NOEXCEPT
    TREL_PRINTF(3, 4);
uint32_t get_uint32(cfg_entry *cfg, uint32_t def, const char *fmt, ...) TREL_NOEXCEPT
    TREL_PRINTF(3, 4);
int32_t get_int32_dec(cfg_entry *cfg, int32_t def, const char *fmt, ...) TREL_NOEXCEPT
    TREL_PRINTF(3, 4);
int64_t get_int64(cfg_entry *cfg, int64_t def, const char *fmt, ...) TREL_NOEXCEPT
    TREL_PRINTF(3, 4);
int get_bool(cfg_entry *cfg, int def, const char *fmt, ...) TREL_NOEXCEPT TREL_PRINTF(3, 4);

/* ---- Iterator lists, sections and counts ----------------------------------- */

/* Lists borrow keys and values from the configuration: free them with
 * free_cfg_it before the configuration.  get_cfg_section returns the entries
 * PREFIX<number>[POSTFIX] (postfix starting with "."), sorted by key. */

cfg_entry *get_cfg_it(cfg_entry *cfg, int exact, const char *fmt, ...) TREL_NOEXCEPT
    TREL_PRINTF(3, 4);
cfg_entry *get_cfg_section(cfg_entry *cfg, const char *postfix, const char *value, const char *fmt,
                           ...) TREL_NOEXCEPT TREL_PRINTF(4, 5);
cfg_entry *cfg_it_append(cfg_entry *list, cfg_entry **other) TREL_NOEXCEPT;
void free_cfg_it(cfg_entry *it) TREL_NOEXCEPT;
cfg_entry *get_cfg_diff_it(cfg_entry *a, cfg_entry *b) TREL_NOEXCEPT;

uint32_t get_cfg_count(cfg_entry *cfg) TREL_NOEXCEPT;
uint32_t get_cfg_key_count(cfg_entry *cfg, int exact, const char *fmt, ...) TREL_NOEXCEPT
    TREL_PRINTF(3, 4);
uint32_t get_cfg_section_count(cfg_entry *cfg, const char *postfix, const char *value,
                               const char *fmt, ...) TREL_NOEXCEPT TREL_PRINTF(4, 5);
uint32_t get_cfg_section_enabled_count(cfg_entry *cfg, const char *postfix, const char *fmt,
                                       ...) TREL_NOEXCEPT TREL_PRINTF(3, 4);

/* ---- Key helpers ------------------------------------------------------------- */

int get_cfg_key_idx(const char *key, int n) TREL_NOEXCEPT;
const char *get_key_element(const char *key, unsigned n) TREL_NOEXCEPT;

TREL_END_DECLS

#endif
