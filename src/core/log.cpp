// The library's logger: syslog when the device keeps a syslog file, else the
// kernel log device, else standard error.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <jansson.h>

#include "core/log.h"
#include "core/path_root.h"

extern "C" const char *__progname;

uint32_t libtrel_log_level = 4;
int32_t libtrel_log_use_syslog = 1;
// Kept: "crit ", "warn ", "info " carry a trailing blank so that every name is
// five characters and the columns of the stream output line up.
const char *libtrel_log_level_names[8] = {"emerg", "alert", "crit ", "error",
                                          "warn ", "notic", "info ", "debug"};

namespace {

constexpr size_t kSyslogMessageSize = 1024;
constexpr int kJsonLineWidth = 960;

void log_v(int priority, const char *module, const char *function, const char *format,
           va_list ap) noexcept {
    // A priority outside 0..7 is no syslog level: it shows as "unknown" and
    // goes to syslog as LOG_DEBUG, so a stray value neither selects a
    // facility nor raises an alarm.
    const char *level = "unknown";
    if (priority >= LOG_EMERG && priority <= LOG_DEBUG)
        level = libtrel_log_level_names[priority];
    else
        priority = LOG_DEBUG;
    FILE *stream = stderr;
    FILE *kmsg = nullptr;
    if (libtrel_log_use_syslog) {
        struct stat st;
        // Kept: looked for on every message, so that the output follows the
        // device's logging set-up as it changes at run time.
        if (trel::path_stat("/var/log/messages", &st) == 0) {
            char message[kSyslogMessageSize];
            vsnprintf(message, sizeof message, format, ap);
            syslog(priority, "%s[%d]: %s.%s(): %s\n", __progname, (int)getpid(), module, function,
                   message);
            return;
        }
        // Kept: opened and closed for each message, so that no descriptor of
        // ours stays open in the host process between messages.
        kmsg = fopen("/dev/kmsg", "w+e");
        if (kmsg != nullptr) stream = kmsg;
    }
    fprintf(stream, "%s[%d]: [%s] %s.%s(): ", __progname, (int)getpid(), level, module, function);
    vfprintf(stream, format, ap);
    fputc('\n', stream);
    if (kmsg != nullptr) fclose(kmsg);
}

void log_f(int priority, const char *module, const char *function, const char *format, ...) noexcept
    __attribute__((format(printf, 4, 5)));

void log_f(int priority, const char *module, const char *function, const char *format,
           ...) noexcept {
    va_list ap;
    va_start(ap, format);
    log_v(priority, module, function, format, ap);
    va_end(ap);
}

}  // namespace

TREL_API void libtrel_log(int priority, const char *module, const char *function,
                          const char *format, ...) noexcept {
    va_list ap;
    va_start(ap, format);
    log_v(priority, module, function, format, ap);
    va_end(ap);
}

TREL_API void libtrel_log_json(int priority, const char *module, const char *function,
                               json_t *value, const char *title) noexcept {
    int n = snprintf(nullptr, 0, "%s: %s[%d]: %s.%s(): JSON - %4s: ", __progname, __progname,
                     (int)getpid(), module, function, "");
    int width = kJsonLineWidth - n;
    if (width < 1) width = 1;

    if (title != nullptr) log_f(priority, module, function, "JSON - %4s: %s", "", title);

    char *text = value != nullptr ? json_dumps(value, JSON_INDENT(4)) : nullptr;
    if (text == nullptr) {
        log_f(priority, module, function, "JSON - %4s: %s", "", "null data");
        return;
    }

    int line_no = 1;
    for (const char *line = text; *line != '\0';) {
        const char *nl = strchr(line, '\n');
        size_t len = nl != nullptr ? (size_t)(nl - line) : strlen(line);
        size_t off = 0;
        do {
            size_t piece = len - off < (size_t)width ? len - off : (size_t)width;
            if (off == 0)
                log_f(priority, module, function, "JSON - %4d: %.*s", line_no++, (int)piece, line);
            else
                log_f(priority, module, function, "JSON - %4s: %.*s", "", (int)piece, line + off);
            off += piece;
        } while (off < len);
        if (nl == nullptr) break;
        line = nl + 1;
    }
    free(text);
}

TREL_API void libtrel_log_hex(int priority, const char *module, const char *function,
                              const void *data, int length, const char *title) noexcept {
    log_f(priority, module, function, "%s - HEX(%p) len %d", title != nullptr ? title : "", data,
          length);
    const unsigned char *bytes = static_cast<const unsigned char *>(data);
    char line[9 + 16 * 3 + 1];
    int used = 0;
    for (int i = 0; i < length; i++) {
        if (i % 16 == 0) {
            if (i > 0) log_f(priority, module, function, "%s", line);
            used = snprintf(line, sizeof line, "%08x:", (unsigned)i);
        }
        used += snprintf(line + used, sizeof line - used, " %02x", bytes[i]);
    }
    if (length > 0) log_f(priority, module, function, "%s", line);
}
