// Process-wide exclusive flock locks shared with other daemons: the report
// lock on the directory /var/run/report and the inform-profile lock on
// /var/run/inform-profile.lock.  Each is held at most once per process.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <trel/ipc.h>

#include "core/log.h"
#include "core/path_root.h"

namespace {

constexpr char kModule[] = "statistics";
constexpr char kReportDir[] = "/var/run/report";
constexpr char kInformProfileFile[] = "/var/run/inform-profile.lock";
constexpr int kAttempts = 11;  // one second apart

DIR *report_dir = nullptr;
int report_fd = -1;
int inform_profile_fd = -1;

// Tries to take an exclusive lock on fd, sleeping one second after each
// failed attempt.
bool lock_with_retries(int fd) noexcept {
    for (int i = 0; i < kAttempts; i++) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) return true;
        sleep(1);
    }
    return false;
}

}  // namespace

TREL_API int report_lock(void) noexcept {
    if (report_dir != nullptr) {
        TREL_ERR(kModule, "Locking %s twice", kReportDir);
        return -1;
    }
    report_dir = trel::path_opendir(kReportDir);
    if (report_dir == nullptr) {
        TREL_ERR(kModule, "Can't open %s", kReportDir);
        return -1;
    }
    report_fd = dirfd(report_dir);
    if (lock_with_retries(report_fd)) return 0;
    TREL_ERR(kModule, "couldn't lock %s", kReportDir);
    closedir(report_dir);
    report_dir = nullptr;
    report_fd = -1;
    return -1;
}

TREL_API int report_unlock(void) noexcept {
    if (report_dir == nullptr) {
        TREL_ERR(kModule, "unlocking %s without locking", kReportDir);
        return -1;
    }
    flock(report_fd, LOCK_UN);
    closedir(report_dir);
    report_dir = nullptr;
    report_fd = -1;
    return 0;
}

TREL_API int report_locked(void) noexcept { return report_dir != nullptr ? 1 : 0; }

TREL_API int inform_profile_lock(void) noexcept {
    if (inform_profile_fd >= 0) {
        TREL_ERR(kModule, "Locking %s twice", kInformProfileFile);
        return -1;
    }
    // Close-on-exec: a lock descriptor must not outlive this process in a
    // program it starts.
    inform_profile_fd = trel::path_open(kInformProfileFile, O_RDWR | O_CREAT | O_CLOEXEC, 0640);
    if (inform_profile_fd < 0) {
        TREL_ERR(kModule, "Can't open %s", kInformProfileFile);
        return -1;
    }
    if (lock_with_retries(inform_profile_fd)) return 0;
    TREL_ERR(kModule, "couldn't lock %s", kInformProfileFile);
    close(inform_profile_fd);
    inform_profile_fd = -1;
    return -1;
}

TREL_API int inform_profile_unlock(void) noexcept {
    if (inform_profile_fd < 0) {
        TREL_ERR(kModule, "unlocking %s without locking", kInformProfileFile);
        return -1;
    }
    flock(inform_profile_fd, LOCK_UN);
    close(inform_profile_fd);
    inform_profile_fd = -1;
    return 0;
}
