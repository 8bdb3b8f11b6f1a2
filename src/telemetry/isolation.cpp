// The isolation log store: compressed log archives other programs leave in
// persistent storage when the device loses its uplink, a JSON meta record
// beside each, a report of each archive to the crash-report service, and
// delivery over the caller's own channel.  Everything runs through one
// walker that takes a per-archive action.
//
// Several processes may walk the store at once.  The logs directory is
// locked (flock) while a meta file is opened and locked, and each meta file
// stays locked while its archive is processed; both locks are tried 10
// times, 1 s apart.  A record is replaced by renaming a complete new file
// over it, so that a crash mid-write leaves the old record or the new one,
// never a torn one.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <trel/core.h>
#include <trel/exec.h>
#include <trel/telemetry.h>

#include "core/log.h"
#include "core/path_root.h"
#include "core/raii.h"
#include "telemetry/crash_internal.h"

using namespace trel::telemetry;

namespace {

constexpr char kCrash[] = "crash";
constexpr int kLockTries = 10;

// Walk flags.
constexpr unsigned kPersistentChanged = 1u << 0;  // ask for "save-config" after the walk
constexpr unsigned kMetaChanged = 1u << 1;        // save the record; a persistent change
constexpr unsigned kMetaCounted = 1u << 2;        // save the record only
constexpr unsigned kStop = 1u << 3;               // end the walk after this archive

struct WalkContext;
using Action = void (*)(WalkContext &ctx);
using ExtraPayload = int (*)(WalkContext &ctx, json_t *payload);

int add_uplink_model(WalkContext &ctx, json_t *payload) noexcept;

// One walk, on the caller's stack.
struct WalkContext {
    const char *kind = "vwire_disconnect";
    const char *logs_dir = "/etc/persistent/isolation_logs/";
    const char *sent_dir = "/etc/persistent/isolation_logs_sent/";
    const char *meta_dir = "/etc/persistent/isolation_logs/meta/";
    ExtraPayload extra_payload = add_uplink_model;
    Action action = nullptr;
    const char *finish_filename = nullptr;
    const char *user_data = nullptr;  // the uplink model
    unsigned flags = 0;
    int error = 0;  // errno-style code of the current archive
    const char *filename = nullptr;
    FILE *meta_file = nullptr;  // open and locked
    json_t *meta = nullptr;
    json_t *payload = nullptr;  // the record's "payload"
    json_t *result = nullptr;   // get_next_crash_log's answer
};

// "<dir><name>" into out; false when it does not fit.
bool join(char (&out)[PATH_MAX], const char *dir, const char *name) noexcept {
    int n = snprintf(out, sizeof out, "%s%s", dir, name);
    return n >= 0 && static_cast<size_t>(n) < sizeof out;
}

bool is_true(const json_t *record, const char *key) noexcept {
    return json_is_true(json_object_get(record, key));
}

int add_uplink_model(WalkContext &ctx, json_t *payload) noexcept {
    const char *model = ctx.user_data != nullptr ? ctx.user_data : "unknown";
    return json_object_set_new(payload, "uplink_model", json_string(model)) == 0 ? 0 : ENOMEM;
}

// Whether the open file f still is the file at path (a record replaced
// since it was opened is not the record any more).
bool still_at(FILE *f, const char *path) noexcept {
    struct stat open_st, path_st;
    return fstat(fileno(f), &open_st) == 0 && trel::path_stat(path, &path_st) == 0 &&
           open_st.st_dev == path_st.st_dev && open_st.st_ino == path_st.st_ino;
}

// Opens and locks the meta file under the directory lock: 0, EBUSY after
// the last try, or the open's errno.
int open_locked_meta(WalkContext &ctx, int dir_fd, const char *meta_path) noexcept {
    for (int attempt = 0; attempt < kLockTries; attempt++) {
        if (attempt > 0) sleep(1);
        if (flock(dir_fd, LOCK_EX | LOCK_NB) != 0) continue;
        FILE *f = trel::path_fopen(meta_path, "a+e");
        if (f == nullptr) {
            int err = errno;
            flock(dir_fd, LOCK_UN);
            return err;
        }
        bool locked = flock(fileno(f), LOCK_EX | LOCK_NB) == 0 && still_at(f, meta_path);
        flock(dir_fd, LOCK_UN);
        if (locked) {
            ctx.meta_file = f;
            return 0;
        }
        fclose(f);
    }
    return EBUSY;
}

// Writes the record to a temporary file beside it and renames that over it.
bool save_meta(const WalkContext &ctx, const char *meta_path) noexcept {
    char tmp[PATH_MAX];
    int n = snprintf(tmp, sizeof tmp, "%s.%s.tmp", ctx.meta_dir, ctx.filename);
    if (n < 0 || static_cast<size_t>(n) >= sizeof tmp || ctx.meta == nullptr) return false;
    int fd = trel::path_open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    FILE *f = fdopen(fd, "w");
    if (f == nullptr) {
        close(fd);
        trel::path_unlink(tmp);
        return false;
    }
    bool ok = json_dumpf(ctx.meta, f, 0) == 0 && fflush(f) == 0 && fsync(fd) == 0;
    ok = fclose(f) == 0 && ok;
    ok = ok && trel::path_rename(tmp, meta_path) == 0;
    if (!ok) trel::path_unlink(tmp);
    return ok;
}

// The record of an archive met for the first time.
void new_meta(WalkContext &ctx) noexcept {
    json_t *payload = generate_common_payload(nullptr, 0);
    if (payload != nullptr) json_object_set_new(payload, "type", json_string(ctx.kind));
    ctx.meta = payload == nullptr ? nullptr
                                  : json_pack("{s:s, s:b, s:o}", "filename", ctx.filename,
                                              "sent_to_analytics", 0, "payload", payload);
    if (ctx.meta == nullptr) {
        ctx.error = ENOMEM;
        return;
    }
    ctx.payload = payload;
    ctx.flags |= kMetaChanged;
    int rc = ctx.extra_payload != nullptr ? ctx.extra_payload(ctx, payload) : 0;
    if (rc != 0) {
        TREL_ERR(kCrash, "Failed to add extra payload");
        ctx.error = rc;
    }
}

// Ends the visit of one archive: the marker of a delivered archive, and the
// record saved when it changed.
void finish_crash_meta(WalkContext &ctx, const char *meta_path) noexcept {
    if (ctx.error != 0)
        TREL_WARN(kCrash, "Couldn't process %s: %s", ctx.filename, strerror(ctx.error));
    char marker[PATH_MAX];
    if (is_true(ctx.meta, "sent_to_net") && join(marker, ctx.sent_dir, ctx.filename)) {
        trel::UniqueFile f(trel::path_fopen(marker, "we"));
        if (f && is_dir_in_persistent(ctx.sent_dir)) ctx.flags |= kPersistentChanged;
    }
    if ((ctx.flags & (kMetaChanged | kMetaCounted)) != 0 && ctx.meta_file != nullptr) {
        ctx.flags &= ~kMetaChanged;
        if (!save_meta(ctx, meta_path))
            TREL_ERR(kCrash, "Cannot save %s %s%s meta file", ctx.kind, ctx.meta_dir, ctx.filename);
        else if ((ctx.flags & kMetaCounted) == 0 && is_dir_in_persistent(ctx.meta_dir))
            ctx.flags |= kPersistentChanged;
        ctx.flags &= ~kMetaCounted;
    }
}

// Visits every archive not yet finished: 0, or -1 when the directories
// beside the logs cannot be made.  A missing logs directory is an empty store.
int iterate_crash_logs(WalkContext &ctx) noexcept {
    ctx.flags &= ~(kPersistentChanged | kStop);
    trel::UniqueDir dir(trel::path_opendir(ctx.logs_dir));
    if (!dir) return 0;
    for (const char *made : {ctx.sent_dir, ctx.meta_dir}) {
        if (qx_mkdir_p(made, 0755) != 0) {
            TREL_ERR(kCrash, "couldn't make dir %s: %s", made, strerror(errno));
            return -1;
        }
    }
    while (struct dirent *entry = readdir(dir.get())) {
        const char *name = entry->d_name;
        char archive[PATH_MAX], marker[PATH_MAX], meta_path[PATH_MAX];
        struct stat st;
        if (!join(archive, ctx.logs_dir, name) || trel::path_stat(archive, &st) != 0 ||
            S_ISDIR(st.st_mode))
            continue;
        if (join(marker, ctx.sent_dir, name) && trel::path_access(marker, F_OK) == 0) continue;

        ctx.error = 0;
        ctx.flags &= ~kMetaChanged;
        ctx.filename = name;
        if (!join(meta_path, ctx.meta_dir, name)) {
            ctx.error = ENAMETOOLONG;
        } else {
            ctx.error = open_locked_meta(ctx, dirfd(dir.get()), meta_path);
            if (ctx.error != 0 && ctx.error != EBUSY)
                TREL_ERR(kCrash, "Couldn't open %s%s %s", ctx.meta_dir, name, strerror(ctx.error));
        }
        if (ctx.meta_file != nullptr) {
            rewind(ctx.meta_file);
            json_error_t err;
            ctx.meta = json_loadf(ctx.meta_file, 0, &err);
            if (json_is_object(ctx.meta)) {
                ctx.payload = json_object_get(ctx.meta, "payload");
                if (!json_is_object(ctx.payload)) ctx.error = ENODATA;
            } else {
                // Empty or unreadable: the archive is new to the store.
                json_decref(ctx.meta);
                new_meta(ctx);
            }
            if (ctx.error != 0)
                TREL_ERR(kCrash, "Failed to generate %s meta: %s", ctx.kind, strerror(ctx.error));
        }
        if (ctx.error == 0 && ctx.action != nullptr) ctx.action(ctx);
        finish_crash_meta(ctx, meta_path);

        json_decref(ctx.meta);
        ctx.meta = nullptr;
        ctx.payload = nullptr;
        if (ctx.meta_file != nullptr) {
            flock(fileno(ctx.meta_file), LOCK_UN);
            fclose(ctx.meta_file);
            ctx.meta_file = nullptr;
        }
        if (ctx.flags & kStop) break;
    }
    dir.reset();
    // Flash is saved once per walk, and only for final states.
    if (ctx.flags & kPersistentChanged) syswrapper_impl(1, "save-config", (const char *)nullptr);
    return 0;
}

// Reports the archive to the crash-report service once; after 5 failed
// attempts it is given up.
void send_vwire_disconnect_log(WalkContext &ctx) noexcept {
    if (is_true(ctx.meta, "sent_to_analytics")) return;
    char url[kCrashUrlSize];
    if (build_crash_report_url(url, "crash") != 0) {
        TREL_DBG2(kCrash, "URL truncated");
        // Kept: a URL too long is reported as ENOMEM (12), as log readers know it.
        ctx.error = ENOMEM;
        return;
    }
    TREL_INFO(kCrash, "Processing %s log %s", ctx.kind, ctx.filename);

    // The archive is the library's file: under LIBTREL_ROOT the rooted one.
    // A name the shell would read as more than a file name is not run.
    char archive[PATH_MAX], real[PATH_MAX];
    join(archive, ctx.logs_dir, ctx.filename);
    bool runnable = shell_file_path(archive, real, sizeof real);
    trel::MallocPtr<char> command(malloc_printf(
        "tar -xOzf %s | syswrapper.sh sensitive-data-filter", runnable ? real : archive));
    int captured = runnable && command
                       ? json_object_capture_popen(ctx.payload, "crash_log", command.get())
                       : -1;
    if (captured != 0) {
        TREL_ERR(kCrash, "Capturing %s log %s failed\n", ctx.kind, ctx.filename);
        save_crash_payload_cmd(command.get());
        if (json_object_set_new(ctx.payload, "crash_log",
                                json_string("Error generating crash_log payload")) != 0) {
            TREL_ERR(kCrash, "Payload %s is invalid\n", ctx.filename);
            return;
        }
    }
    int posted = post_crash(url, ctx.payload, nullptr);
    // The log text is never kept in the record.
    json_object_del(ctx.payload, "crash_log");

    if (posted == 0) {
        json_object_set_new(ctx.meta, "sent_to_analytics", json_true());
        TREL_INFO(kCrash, "Recorded %s log %s\n", ctx.kind, ctx.filename);
        ctx.flags |= kMetaChanged;
        return;
    }
    trel_json_add_long(ctx.meta, "send_attempts", 1);
    if (trel_json_read_long(ctx.meta, "send_attempts", 0) > 4) {
        // Kept: after 5 failures the archive counts as reported and is not
        // tried again.
        json_object_set_new(ctx.meta, "sent_to_analytics", json_true());
        TREL_INFO(kCrash, "Failed to record %s log %s after %d attempts\n", ctx.kind, ctx.filename,
                  5);
        ctx.flags |= kMetaChanged;
    } else {
        TREL_ERR(kCrash, "Recording %s log %s failed\n", ctx.kind, ctx.filename);
        // Kept: a retry count alone does not make flash be saved.
        ctx.flags |= kMetaCounted;
    }
}

void find_undelivered_crash_log(WalkContext &ctx) noexcept {
    if (!is_true(ctx.meta, "sent_to_net")) ctx.flags |= kStop;
}

void gather_first_vwire_disconnect_log(WalkContext &ctx) noexcept {
    if (is_true(ctx.meta, "sent_to_net")) return;
    ctx.flags |= kStop;
    trel::JsonRef copy(json_deep_copy(ctx.meta));
    if (!copy) {
        ctx.error = ENOMEM;
        return;
    }
    char archive[PATH_MAX];
    trel::UniqueFile f(join(archive, ctx.logs_dir, ctx.filename) ? trel::path_fopen(archive, "re")
                                                                 : nullptr);
    if (!f) {
        ctx.error = errno;
        TREL_WARN(kCrash, "Unable to open %s%s", ctx.logs_dir, ctx.filename);
        return;
    }
    json_object_load_file_base64(copy.get(), "file_data", f.get());
    ctx.result = copy.release();
}

void mark_crash_log_sent_to_net(WalkContext &ctx) noexcept {
    if (ctx.finish_filename == nullptr) {
        TREL_ERR(kCrash, "Missing finish_filename");
        ctx.error = EINVAL;
        ctx.flags |= kStop;
        return;
    }
    if (strcmp(ctx.filename, ctx.finish_filename) != 0) return;
    if (!is_true(ctx.meta, "sent_to_net")) {
        json_object_set_new(ctx.meta, "sent_to_net", json_true());
        ctx.flags |= kMetaChanged;
    }
    ctx.flags |= kStop;
}

}  // namespace

TREL_API int check_vwire_disconnect_logs(const char *uplink_model, int send) noexcept {
    WalkContext ctx;
    ctx.user_data = uplink_model;
    if (send) ctx.action = send_vwire_disconnect_log;
    return iterate_crash_logs(ctx);
}

TREL_API int has_crash_logs(void) noexcept {
    WalkContext ctx;
    ctx.action = find_undelivered_crash_log;
    return iterate_crash_logs(ctx) == 0 && (ctx.flags & kStop) != 0;
}

TREL_API json_t *get_next_crash_log(void) noexcept {
    WalkContext ctx;
    ctx.action = gather_first_vwire_disconnect_log;
    iterate_crash_logs(ctx);
    return ctx.result;
}

TREL_API int mark_crash_log_finished(const char *filename) noexcept {
    WalkContext ctx;
    ctx.action = mark_crash_log_sent_to_net;
    ctx.finish_filename = filename;
    return iterate_crash_logs(ctx) == 0 && ctx.error == 0 && (ctx.flags & kStop) != 0;
}
