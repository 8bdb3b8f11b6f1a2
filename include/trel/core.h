/* libtrel core runtime: logging, line-oriented files, string helpers and the
 * growable buffer. */
#ifndef TREL_CORE_H
#define TREL_CORE_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include <jansson.h>

#include <trel/common.h>

TREL_BEGIN_DECLS

/* Build identity: "trel_git_hash=<40 hex digits>" and "trel_git_tag=<tag>". */
extern const char trel_git_hash[];
extern const char trel_git_tag[];

/* ---- Logging ------------------------------------------------------------ */

/* Verbosity: errors are logged above 0, warnings above 1, info above 3,
 * debug above 7 and verbose debug above 15.  Default 4. */
extern uint32_t libtrel_log_level;
/* Non-zero (default): use syslog when /var/log/messages exists, else
 * /dev/kmsg, else standard error.  Zero: always standard error. */
extern int32_t libtrel_log_use_syslog;
/* Five-character names of the priorities 0..7, used on the stream paths. */
extern const char *libtrel_log_level_names[8];

/* Writes one message at a syslog priority 0..7; any other priority is shown
 * as "unknown" and sent to syslog as LOG_DEBUG.  Never fails. */
void libtrel_log(int priority, const char *module, const char *function, const char *format, ...) TREL_NOEXCEPT TREL_PRINTF(4, 5);
void libtrel_log_json(int priority, const char *module, const char *function, json_t *value,
                      const char *title) TREL_NOEXCEPT;
void libtrel_log_hex(int priority, const char *module, const char *function, const void *data,
                     int length, const char *title) TREL_NOEXCEPT;

/* ---- Line-oriented file access ------------------------------------------ */

FILE *fopen_format(const char *mode, const char *fmt, ...) TREL_NOEXCEPT TREL_PRINTF(2, 3);
int fsreadline(const char *path, char *buf, size_t size) TREL_NOEXCEPT;
char *freadline(const char *path, char *buf, size_t size, const char *def) TREL_NOEXCEPT;
/* Copies the first line holding needle (newline kept) into buf: 0, or -1 when
 * not found, unreadable or an argument is null.  Lines longer than 254
 * characters are read as several lines. */
int fsreadlinebykey(const char *path, const char *needle, char *buf, size_t size) TREL_NOEXCEPT;
/* The value of the first "key value" / "key=value" line, copied into buf;
 * def (or "" for a null def) when absent.  Returns buf.  Lines longer than 254
 * characters are read as several lines, so a key may match inside one. */
char *freadvalue(const char *path, const char *key, char *buf, size_t size, const char *def) TREL_NOEXCEPT;
unsigned long freadulong(const char *path, unsigned long def) TREL_NOEXCEPT;
long freadlong(const char *path, long def) TREL_NOEXCEPT;
double freaddouble(const char *path, double def) TREL_NOEXCEPT;

int fwriteline(const char *path, const char *fmt, ...) TREL_NOEXCEPT TREL_PRINTF(2, 3);
int faddlong(const char *path, long delta) TREL_NOEXCEPT;
int touch_file(const char *path, mode_t mode) TREL_NOEXCEPT;
int comment_out_lines(FILE *stream, char *patterns) TREL_NOEXCEPT;

int faddlongat(int dirfd, const char *path, long delta) TREL_NOEXCEPT;
int faddi64at(int dirfd, const char *path, int64_t delta) TREL_NOEXCEPT;
int fwritelongat(int dirfd, const char *path, long value) TREL_NOEXCEPT;
int fwritelineat(int dirfd, const char *path, const char *fmt, ...) TREL_NOEXCEPT TREL_PRINTF(3, 4);
long freadlongat(int dirfd, const char *path, long def) TREL_NOEXCEPT;
int64_t freadi64at(int dirfd, const char *path, int64_t def) TREL_NOEXCEPT;
char *freadlineat(int dirfd, const char *path, char *buf, size_t size, const char *def) TREL_NOEXCEPT;

char *qx_reduce_path(const char *path, char *out) TREL_NOEXCEPT;
int qx_mkdir_p(const char *path, mode_t mode) TREL_NOEXCEPT;

/* ---- String, hex and formatting helpers --------------------------------- */

void trim_trailing(char *s, int len) TREL_NOEXCEPT;
void strncpy_trim(char *dst, size_t size, const char *src) TREL_NOEXCEPT;
int hex2uchar(const char *hex, unsigned char *out, size_t len) TREL_NOEXCEPT;
int uchar2hex(const unsigned char *data, size_t len, char *out, size_t size) TREL_NOEXCEPT;
int uchar2lowerhex(const unsigned char *data, size_t len, char *out, size_t size) TREL_NOEXCEPT;
int bin2hex(const unsigned char *data, int len, char *out, int size) TREL_NOEXCEPT;
int strtomac(const char *text, unsigned char mac[6]) TREL_NOEXCEPT;
int gen_rand_hex(char *buf, size_t size) TREL_NOEXCEPT;
int gen_rand_bytes(unsigned char *buf, size_t len) TREL_NOEXCEPT;
/* Writes len random characters of [0-9A-Za-z] and a NUL: buf must hold len + 1
 * bytes.  Returns buf, or null for a null buf or a len of 0.  Not for keys:
 * the generator is the C library's rand. */
char *gen_rand_string(char *buf, size_t len) TREL_NOEXCEPT;
int trel_snprintf(const char *module, const char *label, char *buf, size_t size, const char *fmt,
                  ...) TREL_NOEXCEPT TREL_PRINTF(5, 6);
char *malloc_vprintf(const char *fmt, va_list ap) TREL_NOEXCEPT TREL_PRINTF(1, 0);
char *malloc_printf(const char *fmt, ...) TREL_NOEXCEPT TREL_PRINTF(1, 2);

/* ---- Growable buffer ----------------------------------------------------- */

/* A byte queue growing in 4096-byte steps.  Operations are called through the
 * handle, e.g. buf->append(buf, data, n); the state is private. */
typedef struct buffer buffer;
struct buffer_state;

struct buffer {
    struct buffer_state *state;
    int (*init)(buffer *buf, size_t capacity);
    uint32_t (*length)(buffer *buf);
    uint32_t (*capacity)(buffer *buf);
    size_t (*append)(buffer *buf, const void *bytes, size_t n);
    int (*printf)(buffer *buf, const char *fmt, ...) TREL_PRINTF(2, 3);
    size_t (*read)(buffer *buf, void *dst, size_t n);
    void *(*data)(buffer *buf);
    buffer *(*clone)(buffer *buf);
    void (*reset)(buffer *buf);
    void (*rewind)(buffer *buf);
    void (*destroy)(buffer *buf);
    ssize_t (*send)(buffer *buf, int fd, int flags);
    void *(*alloc_zero)(buffer *buf, size_t n);
};

buffer *buffer_create2(size_t capacity) TREL_NOEXCEPT;
buffer *buffer_create(void) TREL_NOEXCEPT;
void buffer_destroy(buffer *buf) TREL_NOEXCEPT;
void buffer_pop(buffer *buf, int n) TREL_NOEXCEPT;
void buffer_fill(buffer *buf, int count) TREL_NOEXCEPT;

TREL_END_DECLS

#endif
