// Running other programs: command records, the system-wrapper script,
// fork/exec, and shell commands with captured output.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <trel/exec.h>

#include "core/log.h"
#include "core/path_root.h"
#include "core/text.h"

namespace {

constexpr const char *kModule = "libtrel_exec";
constexpr size_t kCommandSize = sizeof(exec_record{}.command);
constexpr size_t kArgMax = 4096;
// Script path, verb and at most 48 arguments.
constexpr int kWrapperEntries = 50;
constexpr const char *kWrapperPaths[] = {"/etc/syswrapper.sh", "/usr/etc/syswrapper.sh"};

void free_record(exec_record *rec, int32_t filled) {
    if (rec == nullptr) return;
    if (rec->argv != nullptr) {
        for (int32_t i = 1; i < filled; i++) free(rec->argv[i]);
        free(rec->argv);
    }
    free(rec);
}

// Kept: plain wait(), not waitpid(), as documented: whichever child ends first.
int wait_any() {
    int status = 0;
    pid_t r;
    do {
        r = wait(&status);
    } while (r < 0 && errno == EINTR);
    return r < 0 ? -1 : status;
}

bool died_abnormally(int status) { return status != -1 && (status & 0x7f) != 0; }

}  // namespace

TREL_API exec_record *exec_create(const char *command, ...) noexcept {
    if (command == nullptr || command[0] == '\0') return nullptr;
    va_list ap;
    va_start(ap, command);
    size_t n = 0;
    while (va_arg(ap, const char *) != nullptr) n++;
    va_end(ap);

    auto *rec = (exec_record *)calloc(1, sizeof(exec_record));
    if (rec == nullptr) {
        TREL_ERR_CALLOC(kModule, 1, sizeof(exec_record));
        return nullptr;
    }
    rec->argv = (char **)calloc(n + 2, sizeof(char *));
    if (rec->argv == nullptr) {
        TREL_ERR_CALLOC(kModule, n + 2, sizeof(char *));
        free(rec);
        return nullptr;
    }
    trel::copy_text(rec->command, kCommandSize, command);
    rec->argc = (int32_t)(n + 1);
    rec->argv[0] = rec->command;
    va_start(ap, command);
    for (size_t i = 1; i <= n; i++) {
        rec->argv[i] = strndup(va_arg(ap, const char *), kArgMax);
        if (rec->argv[i] == nullptr) {
            va_end(ap);
            TREL_ERR_MALLOC(kModule, kArgMax);
            free_record(rec, (int32_t)i);
            return nullptr;
        }
    }
    va_end(ap);
    rec->argv[n + 1] = nullptr;
    return rec;
}

TREL_API void exec_destroy(exec_record *rec) noexcept {
    if (rec != nullptr) free_record(rec, rec->argc);
}

TREL_API exec_record *exec_copy(const exec_record *src) noexcept {
    if (src == nullptr) return nullptr;
    auto *rec = (exec_record *)calloc(1, sizeof(exec_record));
    if (rec == nullptr) {
        TREL_ERR_CALLOC(kModule, 1, sizeof(exec_record));
        return nullptr;
    }
    // Kept: exactly argc slots, no terminator: a copy is not for execv.
    size_t slots = src->argc > 0 ? (size_t)src->argc : 1;
    rec->argv = (char **)calloc(slots, sizeof(char *));
    if (rec->argv == nullptr) {
        TREL_ERR_CALLOC(kModule, slots, sizeof(char *));
        free(rec);
        return nullptr;
    }
    trel::copy_text(rec->command, kCommandSize, src->command);
    rec->argc = src->argc;
    rec->argv[0] = rec->command;
    for (int32_t i = 1; i < src->argc; i++) {
        const char *arg = src->argv != nullptr && src->argv[i] != nullptr ? src->argv[i] : "";
        rec->argv[i] = strndup(arg, kArgMax);
        if (rec->argv[i] == nullptr) {
            TREL_ERR_MALLOC(kModule, kArgMax);
            free_record(rec, i);
            return nullptr;
        }
    }
    return rec;
}

TREL_API int exec_cmp(const exec_record *a, const exec_record *b) noexcept {
    if (a == nullptr || b == nullptr) return -1;
    if (a == b) return 0;
    if (a->argc != b->argc) return -ENOENT;
    if (strncmp(a->command, b->command, kCommandSize) != 0) return -ESRCH;
    for (int32_t i = 1; i < a->argc; i++) {
        const char *x = a->argv[i] != nullptr ? a->argv[i] : "";
        const char *y = b->argv[i] != nullptr ? b->argv[i] : "";
        if (strcmp(x, y) != 0) return i;
    }
    return 0;
}

TREL_API void syswrapper_impl(int wait_for_exit, const char *verb, ...) noexcept {
    const char *script = nullptr;
    for (const char *candidate : kWrapperPaths) {
        FILE *f = trel::path_fopen(candidate, "re");
        if (f != nullptr) {
            fclose(f);
            script = candidate;
            break;
        }
    }
    // What runs is the script the root holds at that place.
    trel::RootedPath real(script);
    // Kept: the "[ERROR]" lines of the wrapper go out at debug level, so that the
    // default level stays quiet where the script is missing or fails.
    if (!real) {
        TREL_DBG(kModule, "[ERROR] unable to locate syswrapper.sh, '%s' skipped!", verb);
        return;
    }
    TREL_DBG2(kModule, "syswrapper to use: %s", script);

    const char *argv[kWrapperEntries + 1];
    int n = 0;
    argv[n++] = real.c_str();
    if (verb != nullptr) {
        argv[n++] = verb;
        va_list ap;
        va_start(ap, verb);
        const char *arg;
        while ((arg = va_arg(ap, const char *)) != nullptr) {
            argv[n++] = arg;
            if (n == kWrapperEntries) {
                // Kept: the run goes ahead with the 50 entries taken; only the
                // surplus arguments are dropped.
                TREL_DBG(kModule, "[ERROR] too many arguments for syswrapper, '%s' skipped!", verb);
                break;
            }
        }
        va_end(ap);
    }
    argv[n] = nullptr;

    pid_t pid = fork();
    if (pid < 0) {
        perror("Fork Failed!!\n");
        TREL_DBG(kModule, "[ERROR] fork failed");
        return;
    }
    if (pid == 0) {
        if (verb == nullptr || strcmp(verb, "reload") != 0)
            TREL_DBG(kModule, "[EXEC] %s %s", script, verb);
        if (!wait_for_exit) {
            // Detach: the intermediate child exits, the grandchild runs on.
            pid_t grandchild = fork();
            if (grandchild > 0) _exit(0);
            if (grandchild < 0) {
                perror("Fork Failed!!\n");
                TREL_DBG(kModule, "[ERROR] fork failed");
            }
        }
        execv(real.c_str(), (char *const *)argv);
        _exit(0);
    }
    int status = wait_any();
    // Kept: only a death by signal is logged, and with the exit-status byte
    // rather than the signal; an ordinary non-zero exit is not logged.
    if (died_abnormally(status))
        TREL_DBG(kModule, "[ERROR] exit abnormally. code: %d", (status >> 8) & 0xff);
}

TREL_API void forkexec(char *const argv[]) noexcept {
    if (argv == nullptr || argv[0] == nullptr) return;
    trel::RootedPath program(argv[0]);
    pid_t pid = fork();
    if (pid < 0) {
        perror("Fork Failed!!\n");
        TREL_DBG(kModule, "[ERROR] fork failed");
        return;
    }
    if (pid == 0) {
        if (program) execv(program.c_str(), argv);
        _exit(0);
    }
    int status = wait_any();
    // Kept: as in syswrapper_impl, signals only, with the exit-status byte.
    if (died_abnormally(status))
        TREL_DBG(kModule, "[ERROR] exit abnormally. code: %d", (status >> 8) & 0xff);
}

TREL_API int popen_get_output(const char *command, char *buf, size_t size) noexcept {
    // Nothing can be stored without room for the NUL.
    if (command == nullptr || buf == nullptr || size == 0) return -1;
    FILE *fp = popen(command, "re");
    if (fp == nullptr) {
        TREL_ERR(kModule, "get_output: popen[%s] -> NULL", command);
        return -1;
    }
    size_t total = 0;
    // Kept: a full buffer stops the reading and the pipe is closed on the rest;
    // the output is cut to size - 1 bytes without a word.
    while (!feof(fp) && !ferror(fp)) {
        if (total == size) break;
        total += fread(buf + total, 1, size - total, fp);
    }
    int rc = pclose(fp);
    if (rc == -1)
        TREL_WARN(kModule, "error on pclose for[%s] errno[%s]", command, strerror(errno));
    else if (rc != 0)
        TREL_WARN(kModule, "[%s] -> [%d]", command, rc);
    if (total < size) {
        buf[total] = '\0';
        return (int)total;
    }
    buf[size - 1] = '\0';
    return (int)(size - 1);
}

TREL_API char *popen_alloc_output(const char *command, size_t max) noexcept {
    constexpr size_t kChunk = 1024;
    size_t cap = max < kChunk ? max : kChunk;
    // A zero-byte buffer could not even hold the NUL.
    char *buf = cap != 0 ? (char *)malloc(cap) : nullptr;
    if (buf == nullptr) {
        TREL_ERR(kModule, "Failed to allocate buffer");
        return nullptr;
    }
    if (command == nullptr) {
        free(buf);
        return nullptr;
    }
    FILE *fp = popen(command, "re");
    if (fp == nullptr) {
        TREL_ERR(kModule, "open failed on '%s': %s", command, strerror(errno));
        free(buf);
        return nullptr;
    }
    size_t len = 0;
    while (!feof(fp)) {
        if (cap < max && cap - len < kChunk) {
            size_t grown = cap * 2 < max ? cap * 2 : max;
            char *p = (char *)realloc(buf, grown);
            if (p == nullptr) {
                TREL_ERR(kModule, "Failed to reallocate buffer, output truncated");
                break;
            }
            buf = p;
            cap = grown;
        }
        if (len == cap) break;
        size_t want = cap - len < kChunk ? cap - len : kChunk;
        len += fread(buf + len, 1, want, fp);
        if (ferror(fp)) {
            TREL_ERR(kModule, "Failed to read from stream, command='%s'", command);
            break;
        }
    }
    int rc = pclose(fp);
    if (rc == -1)
        TREL_ERR(kModule, "pclose failed on '%s': %s", command, strerror(errno));
    else if (rc != 0)
        TREL_WARN(kModule, "'%s' returned rc=%d", command, rc);
    // Kept: a full buffer loses its last byte to the terminator, so the text is
    // at most max - 1 characters, cut without a word.
    if (len < cap)
        buf[len] = '\0';
    else
        buf[cap - 1] = '\0';
    return buf;
}
