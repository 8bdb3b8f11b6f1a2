/* libtrel core runtime: logging, line-oriented files, string helpers and the
 * growable buffer. */
#ifndef TREL_CORE_H
#define TREL_CORE_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include <trel/common.h>

TREL_BEGIN_DECLS

/* jansson's JSON value (its json_t); include <jansson.h> to build or read
 * one. */
struct json_t;

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
 * as "unknown" and sent to syslog as LOG_DEBUG.  No level test of its own
 * (callers test libtrel_log_level first); never fails. */
void libtrel_log(int priority, const char *module, const char *function, const char *format,
                 ...) TREL_NOEXCEPT TREL_PRINTF(4, 5);
/* Logs value indented, one message per line (long lines in pieces), after
 * title when it is non-null; a null value logs "null data".  The caller keeps
 * value. */
void libtrel_log_json(int priority, const char *module, const char *function, struct json_t *value,
                      const char *title) TREL_NOEXCEPT;
/* Logs a header line, then length bytes of data as hex, 16 a message. */
void libtrel_log_hex(int priority, const char *module, const char *function, const void *data,
                     int length, const char *title) TREL_NOEXCEPT;

/* ---- Line-oriented file access ------------------------------------------ */

/* The "line" of a file is its first line, cut at the first newline, carriage
 * return or BEL.  Lines land in the caller's buf[size], cut and terminated. */

/* Opens the formatted path with mode (close-on-exec); the caller fcloses it.
 * Null (errno set) when the path cannot be formatted or opened. */
FILE *fopen_format(const char *mode, const char *fmt, ...) TREL_NOEXCEPT TREL_PRINTF(2, 3);
/* The line of path into buf: 0; -EINVAL for a null path or buf or a size of
 * 0; minus errno when the open or the read fails.  An empty file gives minus
 * errno as it stood (0 when it was 0) and leaves buf untouched. */
int fsreadline(const char *path, char *buf, size_t size) TREL_NOEXCEPT;
/* fsreadline, copying def into buf on failure (a null def: "", logged).
 * Returns buf.  An empty file read with errno 0 is no failure: buf stays as
 * it was. */
char *freadline(const char *path, char *buf, size_t size, const char *def) TREL_NOEXCEPT;
/* Copies the first line holding needle (newline kept) into buf: 0, or -1 when
 * not found, unreadable or an argument is null.  Lines longer than 254
 * characters are read as several lines. */
int fsreadlinebykey(const char *path, const char *needle, char *buf, size_t size) TREL_NOEXCEPT;
/* The value of the first "key value" / "key=value" line, copied into buf;
 * def (or "" for a null def) when absent.  Returns buf.  Lines longer than 254
 * characters are read as several lines, so a key may match inside one. */
char *freadvalue(const char *path, const char *key, char *buf, size_t size,
                 const char *def) TREL_NOEXCEPT;
/* The line as a number, base 10 (freaddouble: strtod), trailing text
 * ignored; def when the file is unreadable or no digit was read. */
unsigned long freadulong(const char *path, unsigned long def) TREL_NOEXCEPT;
long freadlong(const char *path, long def) TREL_NOEXCEPT;
double freaddouble(const char *path, double def) TREL_NOEXCEPT;

/* Creates or truncates path and writes the formatted text (no newline is
 * added): the characters written, or -1 when path cannot be opened. */
int fwriteline(const char *path, const char *fmt, ...) TREL_NOEXCEPT TREL_PRINTF(2, 3);
/* Rewrites path as freadlong(path, 0) + delta and a newline: 0, or -1 when
 * nothing could be written.  Not atomic. */
int faddlong(const char *path, long delta) TREL_NOEXCEPT;
/* Creates path when missing (never truncates) and sets its mode: 0, or -1
 * with errno set (logged). */
int touch_file(const char *path, mode_t mode) TREL_NOEXCEPT;
/* Overwrites the first character of every line of stream (open for reading
 * and writing) that holds one of the "|"-separated patterns with '#'.
 * patterns is split in place.  0; -1 for a null argument or when a line
 * longer than 255 characters was met (that line is left alone). */
int comment_out_lines(FILE *stream, char *patterns) TREL_NOEXCEPT;

/* Relative to the directory descriptor dirfd (as openat); files are made
 * with mode 0600 and numbers read in base 0 from their first 15 characters. */
/* Adds delta to the stored number (missing or not a number: 0) and rewrites
 * it with a newline: 0, or -1 when it cannot be opened or truncated. */
int faddlongat(int dirfd, const char *path, long delta) TREL_NOEXCEPT;
int faddi64at(int dirfd, const char *path, int64_t delta) TREL_NOEXCEPT;
/* Creates or truncates path and writes value and a newline: 0, or -1 when
 * it cannot be opened. */
int fwritelongat(int dirfd, const char *path, long value) TREL_NOEXCEPT;
/* Creates or truncates path and writes the formatted text: the characters
 * written, or -1 when it cannot be opened. */
int fwritelineat(int dirfd, const char *path, const char *fmt, ...) TREL_NOEXCEPT TREL_PRINTF(3, 4);
/* The stored number, or def when the file is unreadable or holds none. */
long freadlongat(int dirfd, const char *path, long def) TREL_NOEXCEPT;
int64_t freadi64at(int dirfd, const char *path, int64_t def) TREL_NOEXCEPT;
/* The line into buf, else def (a null def: "", logged).  Returns buf;
 * nothing is done for a null buf or a size of 0. */
char *freadlineat(int dirfd, const char *path, char *buf, size_t size,
                  const char *def) TREL_NOEXCEPT;

/* Normalises path (".", "..", repeated and trailing "/") into out, which
 * holds 4096 bytes; a null out gets a new buffer the caller frees.  Returns
 * the text, or null with errno set: EINVAL (null path), ENAMETOOLONG, ENOMEM,
 * or a getcwd failure for a relative path starting with "..". */
char *qx_reduce_path(const char *path, char *out) TREL_NOEXCEPT;
/* Makes path and its missing parents with mode: 0 (errno 0), also when path
 * is a directory already; -1 with errno ENOTDIR, EINVAL (null path) or that
 * of stat or mkdir. */
int qx_mkdir_p(const char *path, mode_t mode) TREL_NOEXCEPT;

/* ---- String, hex and formatting helpers --------------------------------- */

/* Turns the white space ending s[0..len-1] into NULs (nothing for null s). */
void trim_trailing(char *s, int len) TREL_NOEXCEPT;
/* Copies src less its leading white space into dst[size], cut to fit and
 * terminated; trailing white space stays.  A null src gives ""; a null dst
 * or a size of 0 does nothing. */
void strncpy_trim(char *dst, size_t size, const char *src) TREL_NOEXCEPT;
/* Zeroes out[len], then converts hex pairs into it until one does not
 * convert.  Returns len whenever hex is non-empty (also when fewer bytes
 * converted); 0, out untouched, for a null argument or an empty hex. */
int hex2uchar(const char *hex, unsigned char *out, size_t len) TREL_NOEXCEPT;
/* len bytes as upper-case (lower-case) hex pairs into out[size], zero-filled
 * first: returns len; 0, nothing written, when size <= 2 * len or an argument
 * is null. */
int uchar2hex(const unsigned char *data, size_t len, char *out, size_t size) TREL_NOEXCEPT;
int uchar2lowerhex(const unsigned char *data, size_t len, char *out, size_t size) TREL_NOEXCEPT;
/* Lower-case hex pairs of the first len - 1 bytes (len <= 0: as many as fit)
 * while 3 bytes of out[size] remain: the hex characters written; 0 for a null
 * argument or a size <= 0. */
int bin2hex(const unsigned char *data, int len, char *out, int size) TREL_NOEXCEPT;
/* "xx:xx:xx:xx:xx:xx" into mac: 0, or -1 (mac untouched). */
int strtomac(const char *text, unsigned char mac[6]) TREL_NOEXCEPT;
/* The random helpers reseed the C library's rand() from /dev/urandom on
 * every call; their output is not for keys. */
/* size counts the NUL and must be odd: (size - 1) / 2 random bytes as
 * upper-case hex and a NUL; returns that byte count.  0, nothing written, for
 * a null buf or an even size. */
int gen_rand_hex(char *buf, size_t size) TREL_NOEXCEPT;
/* Fills buf[len] with random bytes: len, or 0 for a null buf or a len of 0. */
int gen_rand_bytes(unsigned char *buf, size_t len) TREL_NOEXCEPT;
/* Writes len random characters of [0-9A-Za-z] and a NUL: buf must hold len + 1
 * bytes.  Returns buf, or null for a null buf or a len of 0. */
char *gen_rand_string(char *buf, size_t len) TREL_NOEXCEPT;
/* vsnprintf into buf[size].  With a label: the length stored, size - 1 when
 * the text was cut (label then logged under module).  Without: vsnprintf's
 * result, which may exceed size - 1.  0 for a size of 0 or a format error
 * (both logged). */
int trel_snprintf(const char *module, const char *label, char *buf, size_t size, const char *fmt,
                  ...) TREL_NOEXCEPT TREL_PRINTF(5, 6);
/* The formatted text in new memory of exactly its length + 1 (the caller
 * frees it); null when out of memory or on a format error.  ap is used up. */
char *malloc_vprintf(const char *fmt, va_list ap) TREL_NOEXCEPT TREL_PRINTF(1, 0);
char *malloc_printf(const char *fmt, ...) TREL_NOEXCEPT TREL_PRINTF(1, 2);

/* ---- Growable buffer ----------------------------------------------------- */

/* A byte queue growing in 4096-byte steps.  Operations are called through the
 * handle, e.g. buf->append(buf, data, n); the state is private. */
typedef struct buffer buffer;
struct buffer_state;

struct buffer {
    struct buffer_state *state;
    /* Sets up the state (buffer_create does this): 0, or -1. */
    int (*init)(buffer *buf, size_t capacity);
    /* Unread bytes; storage size. */
    uint32_t (*length)(buffer *buf);
    uint32_t (*capacity)(buffer *buf);
    /* Copies n bytes to the write end: n, or 0 for null bytes, n 0 or out of
     * memory (the buffer unchanged). */
    size_t (*append)(buffer *buf, const void *bytes, size_t n);
    /* Formats to the write end (a NUL stays just past it): the text length,
     * or 0 when out of memory. */
    int (*printf)(buffer *buf, const char *fmt, ...) TREL_PRINTF(2, 3);
    /* Takes up to n unread bytes into dst (a null dst skips them): the
     * count. */
    size_t (*read)(buffer *buf, void *dst, size_t n);
    /* The first unread byte; valid until the buffer next changes. */
    void *(*data)(buffer *buf);
    /* A new buffer holding the first length bytes of storage counted from its
     * start, not from the read position; null when out of memory. */
    buffer *(*clone)(buffer *buf);
    /* Empties the buffer, shrinks it to its first capacity and zeroes it. */
    void (*reset)(buffer *buf);
    /* Makes everything written unread again. */
    void (*rewind)(buffer *buf);
    /* Frees the buffer and its handle. */
    void (*destroy)(buffer *buf);
    /* send(2) of the unread bytes, consuming what went: its result, or -1
     * for a negative fd. */
    ssize_t (*send)(buffer *buf, int fd, int flags);
    /* n zeroed bytes claimed at the write end, or null when out of memory. */
    void *(*alloc_zero)(buffer *buf, size_t n);
};

/* A new empty buffer (release with buffer_destroy); null above 4 MiB
 * (4194304 bytes) or when out of memory.  buffer_create: 4096 bytes. */
buffer *buffer_create2(size_t capacity) TREL_NOEXCEPT;
buffer *buffer_create(void) TREL_NOEXCEPT;
/* Frees buf; null is allowed. */
void buffer_destroy(buffer *buf) TREL_NOEXCEPT;
/* Drops the last n bytes written, stopping at empty; nothing for a null buf
 * or n <= 0. */
void buffer_pop(buffer *buf, int n) TREL_NOEXCEPT;
/* Diagnostic filler: count blocks of numbered digit lines.  Nothing for
 * null. */
void buffer_fill(buffer *buf, int count) TREL_NOEXCEPT;

TREL_END_DECLS

#endif
