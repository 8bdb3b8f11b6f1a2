/* libtrel command execution: reusable command records, the system-wrapper
 * script, fork/exec and shell commands with captured output. */
#ifndef TREL_EXEC_H
#define TREL_EXEC_H

#include <stddef.h>
#include <stdint.h>

#include <trel/common.h>

TREL_BEGIN_DECLS

/* A program path and its arguments.  argv[0] points at command; argv[1..argc-1]
 * are owned copies.  exec_create leaves a null pointer in argv[argc] so argv
 * can go to execv; exec_copy makes exactly argc slots and no terminator. */
typedef struct exec_record exec_record;
struct exec_record {
    char command[4096];
    int32_t argc;
    char **argv;
};

/* A new record of command (cut to 4095 characters) and the arguments after
 * it, which end with a null pointer (each cut to 4096).  Release it with
 * exec_destroy.  Null for a null or empty command or when out of memory. */
exec_record *exec_create(const char *command, ...) TREL_NOEXCEPT;
/* Frees the arguments, argv and the record; null is allowed. */
void exec_destroy(exec_record *rec) TREL_NOEXCEPT;
/* A deep copy to release with exec_destroy, for comparing and keeping, not
 * for execv (no terminator); null for a null src or when out of memory. */
exec_record *exec_copy(const exec_record *src) TREL_NOEXCEPT;
/* -1 when either is null, 0 when equal, -ENOENT when argc differs, -ESRCH when
 * the commands differ, else the index of the first differing argument. */
int exec_cmp(const exec_record *a, const exec_record *b) TREL_NOEXCEPT;

/* Runs the system-wrapper script with verb and further texts (null-ended; at
 * most 48 are passed); waits for it when wait_for_exit is non-zero, else
 * detaches it.  The wait is a plain wait(): it reaps whichever child of the
 * caller ends first.  Nothing is reported back: a missing script or a failed
 * fork is logged at debug level. */
void syswrapper_impl(int wait_for_exit, const char *verb, ...) TREL_NOEXCEPT;
/* Waiting and detached forms; the null terminator is added for you. */
#define syswrapper(...) syswrapper_impl(1, __VA_ARGS__, (const char *)0)
#define syswrapper_detached(...) syswrapper_impl(0, __VA_ARGS__, (const char *)0)

/* Runs argv[0] with execv in a child (argv ends with a null pointer) and
 * waits with a plain wait(), which reaps whichever child of the caller ends
 * first.  Nothing for a null argv; nothing is reported back. */
void forkexec(char *const argv[]) TREL_NOEXCEPT;

/* Standard output of a shell command, cut to size - 1 bytes and NUL-ended.
 * Returns the number of bytes stored, -1 when the command cannot start (or
 * when buf is null or size 0: then nothing is run). */
int popen_get_output(const char *command, char *buf, size_t size) TREL_NOEXCEPT;
/* Standard output of a shell command as a heap text of at most max - 1
 * characters (the caller frees it), also when the command fails; null when
 * it cannot start, out of memory, or for a null command or a max of 0. */
char *popen_alloc_output(const char *command, size_t max) TREL_NOEXCEPT;

TREL_END_DECLS

#endif
