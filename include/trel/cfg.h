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
    char *esc; /* esc_value's cache: null until asked, or value itself */
    cfg_entry *next;
};

/* ---- Model, parser and writer -------------------------------------------- */

/* key=value lines; "#" lines, blank lines and lines without "=" are skipped.
 * The value keeps everything after the first "=" except the line's last
 * character.  After a "# misc" line a repeated key updates the first entry.
 * A new list the caller frees with free_cfg; null for a null stream or no
 * entry.  Running out of memory ends the parse with what was read (logged). */
cfg_entry *parse_stream(FILE *stream) TREL_NOEXCEPT;
/* parse_stream of the file at path; null also when it cannot be opened. */
cfg_entry *parse(const char *path) TREL_NOEXCEPT;
/* Frees every entry with its texts; null is allowed. */
void free_cfg(cfg_entry *cfg) TREL_NOEXCEPT;
/* Writes every entry to standard output as key=value lines. */
void print_cfg(cfg_entry *cfg) TREL_NOEXCEPT;
/* Writes "# CFG Start" then key=value lines: 0, or -1 when path cannot be
 * opened.  Write errors are not detected. */
int save_cfg(cfg_entry *cfg, const char *path) TREL_NOEXCEPT;
/* The value with \ before each of ` \ " ' $; cached in the entry, which owns
 * it (the value itself when nothing needs escaping).  Null when out of memory
 * (logged; the next call tries again) or for a null entry. */
const char *esc_value(cfg_entry *entry) TREL_NOEXCEPT;
/* <0, 0 or >0 as strcmp; null sorts first.  Case-insensitive; digit runs
 * compare by value ("radio.2" < "radio.10"). */
int cfg_keycmp(const char *a, const char *b) TREL_NOEXCEPT;

/* ---- Queries -------------------------------------------------------------- */

/* Keys are printf formats; the first entry with an equal key (cfg_keycmp)
 * answers.  Missing keys and values that do not convert give def; so does a
 * range error left in errno before the call.  The numbers ignore trailing
 * text and are cut to their type. */
/* The entry's value (get_esc_value: esc_value), owned by the configuration
 * and valid while it lives; else def. */
const char *get_value(cfg_entry *cfg, const char *def, const char *fmt, ...) TREL_NOEXCEPT
    TREL_PRINTF(3, 4);
const char *get_esc_value(cfg_entry *cfg, const char *def, const char *fmt, ...) TREL_NOEXCEPT
    TREL_PRINTF(3, 4);
/* strtol / strtoul / strtoll in base 0 ("0x" hex, leading "0" octal);
 * get_int32_dec in base 10. */
int32_t get_int32(cfg_entry *cfg, int32_t def, const char *fmt, ...) TREL_NOEXCEPT
    TREL_PRINTF(3, 4);
uint32_t get_uint32(cfg_entry *cfg, uint32_t def, const char *fmt, ...) TREL_NOEXCEPT
    TREL_PRINTF(3, 4);
int32_t get_int32_dec(cfg_entry *cfg, int32_t def, const char *fmt, ...) TREL_NOEXCEPT
    TREL_PRINTF(3, 4);
int64_t get_int64(cfg_entry *cfg, int64_t def, const char *fmt, ...) TREL_NOEXCEPT
    TREL_PRINTF(3, 4);
/* 1 for on/enabled/1/enable/active/true, 0 for off/disabled/0/disable/
 * inactive/false (any case, blanks trimmed), else def. */
int get_bool(cfg_entry *cfg, int def, const char *fmt, ...) TREL_NOEXCEPT TREL_PRINTF(3, 4);

/* ---- Iterator lists, sections and counts ----------------------------------- */

/* New iterator lists, null when nothing matches.  They borrow keys and values
 * from the configuration: free them with free_cfg_it before the
 * configuration.  Out of memory ends a list early (logged). */

/* Entries whose key starts with the formatted text (case-sensitive), or
 * equals it (cfg_keycmp) when exact is non-zero, in configuration order. */
cfg_entry *get_cfg_it(cfg_entry *cfg, int exact, const char *fmt, ...) TREL_NOEXCEPT
    TREL_PRINTF(3, 4);
/* The entries PREFIX<number> (no postfix) or PREFIX<number>POSTFIX (postfix
 * starting with "."; any other postfix: null, logged), whose value equals
 * value when it is non-null, sorted by key (stable). */
cfg_entry *get_cfg_section(cfg_entry *cfg, const char *postfix, const char *value, const char *fmt,
                           ...) TREL_NOEXCEPT TREL_PRINTF(4, 5);
/* Links *other after the end of list and sets *other to null: the head of
 * the joined list (list when other or *other is null). */
cfg_entry *cfg_it_append(cfg_entry *list, cfg_entry **other) TREL_NOEXCEPT;
/* Frees the nodes only, never keys or values; null is allowed. */
void free_cfg_it(cfg_entry *it) TREL_NOEXCEPT;
/* The keys new or changed in b (b's values), then the keys gone from a (a's
 * values); keys whose last component is "comment" are ignored.  Borrows from
 * both. */
cfg_entry *get_cfg_diff_it(cfg_entry *a, cfg_entry *b) TREL_NOEXCEPT;

/* Counts: entries of the list, and entries that get_cfg_it / get_cfg_section
 * would return; get_cfg_section_enabled_count counts the section members
 * whose value is an enabled word (see get_bool). */
uint32_t get_cfg_count(cfg_entry *cfg) TREL_NOEXCEPT;
uint32_t get_cfg_key_count(cfg_entry *cfg, int exact, const char *fmt, ...) TREL_NOEXCEPT
    TREL_PRINTF(3, 4);
uint32_t get_cfg_section_count(cfg_entry *cfg, const char *postfix, const char *value,
                               const char *fmt, ...) TREL_NOEXCEPT TREL_PRINTF(4, 5);
uint32_t get_cfg_section_enabled_count(cfg_entry *cfg, const char *postfix, const char *fmt,
                                       ...) TREL_NOEXCEPT TREL_PRINTF(3, 4);

/* ---- Key helpers ------------------------------------------------------------- */

/* The n-th (from 1) non-zero number that follows a "." in key
 * ("radio.2.vap.3.ssid": 2, then 3); -1 when there is none or key is null. */
int get_cfg_key_idx(const char *key, int n) TREL_NOEXCEPT;
/* The text after the n-th "." of key (key itself for 0), pointing into key;
 * null when key has fewer dots or is null. */
const char *get_key_element(const char *key, unsigned n) TREL_NOEXCEPT;

TREL_END_DECLS

#endif
