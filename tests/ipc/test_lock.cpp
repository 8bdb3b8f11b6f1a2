// The report and inform-profile lock files, within one process and against
// another process.
#include <errno.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>

#include "ipc_test.h"

using trel_test::LogCapture;
using trel_test::TempRoot;

namespace {
bool fake_sleep = false;
int sleeps = 0;
}  // namespace

// Replaces the C library's sleep for the library: counts the calls, and
// returns at once while fake_sleep is set.
extern "C" unsigned int sleep(unsigned int seconds) {
    sleeps++;
    if (fake_sleep) return 0;
    timespec ts{(time_t)seconds, 0};
    while (nanosleep(&ts, &ts) == -1 && errno == EINTR) {
    }
    return 0;
}

namespace {

double now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// A child process that takes both locks, reports it on a pipe, and keeps
// them until release() or for hold_seconds.
class Holder {
public:
    explicit Holder(int hold_seconds = -1) {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        EXPECT_EQ(pipe(release_), 0);
        pid_ = fork();
        if (pid_ == 0) {
            close(ready[0]);
            close(release_[1]);
            char ok = report_lock() == 0 && inform_profile_lock() == 0 ? 'y' : 'n';
            if (write(ready[1], &ok, 1) != 1) _exit(2);
            if (hold_seconds >= 0) {
                timespec ts{hold_seconds, 0};
                nanosleep(&ts, nullptr);
            } else {
                char c;
                while (read(release_[0], &c, 1) > 0) {
                }
            }
            _exit(report_unlock() == 0 && inform_profile_unlock() == 0 ? 0 : 1);
        }
        close(ready[1]);
        close(release_[0]);
        char ok = 0;
        EXPECT_EQ(read(ready[0], &ok, 1), 1);
        EXPECT_EQ(ok, 'y');
        close(ready[0]);
    }
    ~Holder() { release(); }
    void release() {
        if (pid_ <= 0) return;
        close(release_[1]);
        int status = 0;
        EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
    int release_[2] = {-1, -1};
};

TEST(Lock, ReportLockInOneProcess) {
    TempRoot root;
    LogCapture log;
    int fds = trel_test::open_fd_count();
    sleeps = 0;

    EXPECT_EQ(report_lock(), -1);
    EXPECT_TRUE(log.contains("[error] statistics.report_lock(): Can't open /var/run/report"))
        << log.text();
    EXPECT_FALSE(root.exists("/var/run/report"));
    EXPECT_EQ(report_locked(), 0);
    EXPECT_EQ(sleeps, 0);

    root.mkdir("/var/run/report");
    log.clear();
    EXPECT_EQ(report_lock(), 0);
    EXPECT_EQ(report_locked(), 1);
    EXPECT_EQ(report_lock(), -1);
    EXPECT_TRUE(log.contains("[error] statistics.report_lock(): Locking /var/run/report twice"))
        << log.text();
    EXPECT_EQ(report_locked(), 1);
    EXPECT_EQ(trel_test::open_fd_count(), fds + 1);
    EXPECT_EQ(report_unlock(), 0);
    EXPECT_EQ(report_locked(), 0);
    EXPECT_EQ(report_unlock(), -1);
    EXPECT_TRUE(log.contains(
        "[error] statistics.report_unlock(): unlocking /var/run/report without locking"))
        << log.text();
    EXPECT_EQ(sleeps, 0);
    EXPECT_EQ(trel_test::open_fd_count(), fds);
}

TEST(Lock, InformProfileLockInOneProcess) {
    TempRoot root;
    LogCapture log;
    int fds = trel_test::open_fd_count();
    const char *file = "/var/run/inform-profile.lock";

    EXPECT_EQ(inform_profile_lock(), -1);
    EXPECT_TRUE(log.contains(
        "[error] statistics.inform_profile_lock(): Can't open /var/run/inform-profile.lock"))
        << log.text();
    EXPECT_EQ(trel_test::open_fd_count(), fds);

    root.mkdir("/var/run");
    mode_t mask = umask(022);
    log.clear();
    EXPECT_EQ(inform_profile_lock(), 0);
    umask(mask);
    struct stat st;
    ASSERT_EQ(stat(root.path(file).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(inform_profile_lock(), -1);
    EXPECT_TRUE(
        log.contains("[error] statistics.inform_profile_lock(): Locking "
                     "/var/run/inform-profile.lock twice"))
        << log.text();
    EXPECT_EQ(trel_test::open_fd_count(), fds + 1);
    EXPECT_EQ(inform_profile_unlock(), 0);
    EXPECT_TRUE(root.exists(file));
    EXPECT_EQ(inform_profile_unlock(), -1);
    EXPECT_TRUE(
        log.contains("[error] statistics.inform_profile_unlock(): unlocking "
                     "/var/run/inform-profile.lock without locking"))
        << log.text();
    EXPECT_EQ(trel_test::open_fd_count(), fds);

    // An existing lock file is reused as it is.
    EXPECT_EQ(inform_profile_lock(), 0);
    EXPECT_EQ(inform_profile_unlock(), 0);
}

TEST(Lock, HeldByAnotherProcessGivesUpAfterElevenAttempts) {
    TempRoot root;
    root.mkdir("/var/run/report");
    int fds = trel_test::open_fd_count();
    {
        Holder holder;
        LogCapture log;
        fake_sleep = true;
        sleeps = 0;
        EXPECT_EQ(report_lock(), -1);
        EXPECT_EQ(sleeps, 11);
        EXPECT_EQ(report_locked(), 0);
        EXPECT_TRUE(log.contains("[error] statistics.report_lock(): couldn't lock /var/run/report"))
            << log.text();
        sleeps = 0;
        EXPECT_EQ(inform_profile_lock(), -1);
        EXPECT_EQ(sleeps, 11);
        EXPECT_TRUE(
            log.contains("[error] statistics.inform_profile_lock(): couldn't lock "
                         "/var/run/inform-profile.lock"))
            << log.text();
        fake_sleep = false;
        EXPECT_EQ(trel_test::open_fd_count(), fds + 2);  // release pipe, saved stderr
        EXPECT_EQ(report_unlock(), -1);
        EXPECT_EQ(inform_profile_unlock(), -1);
    }
    // Released by the other process: taken at the first attempt.
    sleeps = 0;
    EXPECT_EQ(report_lock(), 0);
    EXPECT_EQ(inform_profile_lock(), 0);
    EXPECT_EQ(sleeps, 0);
    EXPECT_EQ(report_unlock(), 0);
    EXPECT_EQ(inform_profile_unlock(), 0);
    EXPECT_EQ(trel_test::open_fd_count(), fds);
}

TEST(Lock, WaitsForAnotherProcessToRelease) {
    TempRoot root;
    root.mkdir("/var/run/report");
    Holder holder(2);
    sleeps = 0;
    double start = now();
    EXPECT_EQ(report_lock(), 0);
    EXPECT_GE(now() - start, 1.0);
    EXPECT_GE(sleeps, 1);
    EXPECT_LE(sleeps, 10);
    EXPECT_EQ(report_unlock(), 0);
}

}  // namespace
