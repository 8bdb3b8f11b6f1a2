// The report and inform-profile locks, in one process and against another.
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

// Stands in for the C library's sleep: counts the calls and, while
// fake_sleep is set, returns at once.
extern "C" unsigned int sleep(unsigned int seconds) {
    sleeps++;
    timespec ts{fake_sleep ? 0 : (time_t)seconds, 0};
    while (nanosleep(&ts, &ts) == -1 && errno == EINTR) {
    }
    return 0;
}

namespace {

struct Lock {
    int (*lock)();
    int (*unlock)();
    const char *path, *name;
};
const Lock kLocks[] = {
    {report_lock, report_unlock, "/var/run/report", "report"},
    {inform_profile_lock, inform_profile_unlock, "/var/run/inform-profile.lock", "inform_profile"},
};

TEST(Lock, InOneProcess) {
    TempRoot root;
    LogCapture log;
    int fds = trel_test::open_fd_count();
    sleeps = 0;
    for (const Lock &l : kLocks) {
        std::string fn = std::string("[error] statistics.") + l.name;
        EXPECT_EQ(l.lock(), -1);
        EXPECT_TRUE(log.contains(fn + "_lock(): Can't open " + l.path)) << log.text();
        EXPECT_FALSE(root.exists(l.path));
        EXPECT_EQ(l.unlock(), -1);
        EXPECT_TRUE(log.contains(fn + "_unlock(): unlocking " + l.path + " without locking"));
    }
    EXPECT_EQ(report_locked(), 0);

    root.mkdir("/var/run/report");
    mode_t mask = umask(022);
    for (const Lock &l : kLocks) {
        EXPECT_EQ(l.lock(), 0);
        EXPECT_EQ(l.lock(), -1);
        EXPECT_TRUE(log.contains(std::string("statistics.") + l.name + "_lock(): Locking " +
                                 l.path + " twice"));
    }
    umask(mask);
    EXPECT_EQ(report_locked(), 1);
    EXPECT_EQ(trel_test::open_fd_count(), fds + 2);
    struct stat st;
    ASSERT_EQ(stat(root.path(kLocks[1].path).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    for (const Lock &l : kLocks) EXPECT_EQ(l.unlock(), 0);
    EXPECT_EQ(report_locked(), 0);
    EXPECT_TRUE(root.exists(kLocks[1].path));
    EXPECT_EQ(sleeps, 0);
    EXPECT_EQ(trel_test::open_fd_count(), fds);
}

// A child process holding both locks until release() or for hold seconds.
class Holder {
public:
    explicit Holder(int hold = -1) {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        EXPECT_EQ(pipe(release_), 0);
        if ((pid_ = fork()) == 0) {
            char ok = report_lock() == 0 && inform_profile_lock() == 0 ? 'y' : 'n', c;
            if (write(ready[1], &ok, 1) != 1) _exit(2);
            close(release_[1]);
            timespec ts{hold, 0};
            if (hold >= 0) nanosleep(&ts, nullptr);
            while (hold < 0 && read(release_[0], &c, 1) > 0) {
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
    ~Holder() {
        close(release_[1]);
        int status = 0;
        EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }

private:
    pid_t pid_ = -1;
    int release_[2] = {-1, -1};
};

TEST(Lock, HeldByAnotherProcessGivesUpAfterElevenAttempts) {
    TempRoot root;
    root.mkdir("/var/run/report");
    {
        Holder holder;
        LogCapture log;
        int fds = trel_test::open_fd_count();
        fake_sleep = true;
        for (const Lock &l : kLocks) {
            sleeps = 0;
            EXPECT_EQ(l.lock(), -1);
            EXPECT_EQ(sleeps, 11);
            EXPECT_TRUE(log.contains(std::string("[error] statistics.") + l.name +
                                     "_lock(): couldn't lock " + l.path))
                << log.text();
            EXPECT_EQ(l.unlock(), -1);
        }
        fake_sleep = false;
        EXPECT_EQ(report_locked(), 0);
        EXPECT_EQ(trel_test::open_fd_count(), fds);
    }
    // Released by the other process: taken at the first attempt.
    sleeps = 0;
    for (const Lock &l : kLocks) EXPECT_EQ(l.lock(), 0);
    for (const Lock &l : kLocks) EXPECT_EQ(l.unlock(), 0);
    EXPECT_EQ(sleeps, 0);
}

TEST(Lock, WaitsWhileAnotherProcessHoldsItForTwoSeconds) {
    TempRoot root;
    root.mkdir("/var/run/report");
    Holder holder(2);
    sleeps = 0;
    timespec a, b;
    clock_gettime(CLOCK_MONOTONIC, &a);
    EXPECT_EQ(report_lock(), 0);
    clock_gettime(CLOCK_MONOTONIC, &b);
    EXPECT_GE(b.tv_sec - a.tv_sec + (b.tv_nsec - a.tv_nsec) / 1e9, 1.0);
    EXPECT_GE(sleeps, 1);
    EXPECT_LE(sleeps, 10);
    EXPECT_EQ(report_unlock(), 0);
}

}  // namespace
