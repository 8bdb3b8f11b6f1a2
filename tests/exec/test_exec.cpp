#include <errno.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <set>
#include <sstream>
#include <thread>

#include <trel/exec.h>

#include "trel_test.h"

using trel_test::FakePath;
using trel_test::LogCapture;
using trel_test::TempRoot;

namespace {

const char kWrapper[] = "/usr/etc/syswrapper.sh";

// Sets libtrel_log_level for the life of the object.
struct LogLevel {
    uint32_t saved = libtrel_log_level;
    explicit LogLevel(uint32_t level) { libtrel_log_level = level; }
    ~LogLevel() { libtrel_log_level = saved; }
};

// A script recording its argument count and arguments, one a line.
std::string recorder(const std::string &out) {
    return "#!/bin/sh\nprintf '%s\\n' \"$#\" \"$@\" > '" + out + "'\n";
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> v;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) v.push_back(l);
    return v;
}

// True when this process has no child left to reap.
bool no_children() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

bool wait_for_file(const std::string &path, int seconds) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end) {
        if (access(path.c_str(), F_OK) == 0) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

std::string n_chars(size_t n) { return "head -c " + std::to_string(n) + " /dev/zero | tr '\\0' x"; }

}  // namespace

TEST(ExecRecord, CreateCopyCompareDestroy) {
    EXPECT_EQ(exec_create(nullptr, nullptr), nullptr);
    EXPECT_EQ(exec_create("", "a", nullptr), nullptr);

    exec_record *r = exec_create("/bin/x", "a", "b", nullptr);
    ASSERT_NE(r, nullptr);
    EXPECT_STREQ(r->command, "/bin/x");
    EXPECT_EQ(r->argc, 3);
    EXPECT_EQ(r->argv[0], r->command);
    EXPECT_STREQ(r->argv[1], "a");
    EXPECT_STREQ(r->argv[2], "b");
    EXPECT_EQ(r->argv[3], nullptr);  // ready for execv

    exec_record *c = exec_copy(r);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->argc, 3);
    EXPECT_EQ(c->argv[0], c->command);
    EXPECT_NE(c->argv[1], r->argv[1]);
    EXPECT_STREQ(c->argv[2], "b");
    EXPECT_EQ(exec_copy(nullptr), nullptr);

    EXPECT_EQ(exec_cmp(r, c), 0);
    EXPECT_EQ(exec_cmp(r, r), 0);
    EXPECT_EQ(exec_cmp(r, nullptr), -1);
    EXPECT_EQ(exec_cmp(nullptr, r), -1);
    EXPECT_EQ(exec_cmp(nullptr, nullptr), -1);

    exec_record *fewer = exec_create("/bin/y", "a", nullptr);
    EXPECT_EQ(exec_cmp(r, fewer), -ENOENT);  // argc first, even though commands differ
    exec_record *other = exec_create("/bin/y", "a", "b", nullptr);
    EXPECT_EQ(exec_cmp(r, other), -ESRCH);
    exec_record *second = exec_create("/bin/x", "a", "c", nullptr);
    EXPECT_EQ(exec_cmp(r, second), 2);
    exec_record *first = exec_create("/bin/x", "z", "b", nullptr);
    EXPECT_EQ(exec_cmp(r, first), 1);
    exec_record *none = exec_create("/bin/x", nullptr);
    EXPECT_EQ(none->argc, 1);
    EXPECT_EQ(none->argv[1], nullptr);
    exec_destroy(none);
    exec_destroy(first);
    exec_destroy(second);
    exec_destroy(other);
    exec_destroy(fewer);
    exec_destroy(c);
    exec_destroy(r);
    exec_destroy(nullptr);

    // Long texts: the command keeps 4095 characters, arguments 4096.
    std::string cmd(5000, 'c'), arg(5000, 'a');
    r = exec_create(cmd.c_str(), arg.c_str(), nullptr);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(strlen(r->command), 4095u);
    EXPECT_EQ(strlen(r->argv[1]), 4096u);
    c = exec_copy(r);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(strlen(c->command), 4095u);
    EXPECT_EQ(strlen(c->argv[1]), 4096u);
    EXPECT_EQ(exec_cmp(r, c), 0);
    exec_destroy(c);
    exec_destroy(r);
}

TEST(Syswrapper, RunsTheScriptFoundUnderTheRoot) {
    TempRoot root;
    root.mkdir("/tmp");
    LogLevel level(8);
    LogCapture cap;
    const std::string out = root.path("/tmp/args");

    // Neither location: logged at debug tier 1 only, nothing runs.
    syswrapper_impl(1, "apply", nullptr);
    EXPECT_TRUE(cap.contains("[ERROR] unable to locate syswrapper.sh, 'apply' skipped!"));
    {
        LogLevel quiet(7);
        cap.clear();
        syswrapper_impl(1, "apply", nullptr);
        EXPECT_EQ(cap.text(), "");
    }

    root.write(kWrapper, recorder(out), 0755);
    cap.clear();
    syswrapper_impl(1, "apply", "one", "two words", nullptr);
    EXPECT_EQ(lines_of(root.read("/tmp/args")),
              (std::vector<std::string>{"3", "apply", "one", "two words"}));
    EXPECT_TRUE(cap.contains("[EXEC] /usr/etc/syswrapper.sh apply")) << cap.text();
    EXPECT_FALSE(cap.contains("syswrapper to use"));
    EXPECT_TRUE(no_children());

    // "reload" is run but not logged; tier 2 names the script.
    cap.clear();
    {
        LogLevel verbose(16);
        syswrapper_impl(1, "reload", nullptr);
    }
    EXPECT_EQ(lines_of(root.read("/tmp/args")), (std::vector<std::string>{"1", "reload"}));
    EXPECT_FALSE(cap.contains("[EXEC]")) << cap.text();
    EXPECT_TRUE(cap.contains("syswrapper to use: /usr/etc/syswrapper.sh"));

    // /etc comes before /usr/etc.
    root.write("/etc/syswrapper.sh", "#!/bin/sh\necho etc > '" + out + "'\n", 0755);
    syswrapper(("x"));
    EXPECT_EQ(root.read("/tmp/args"), "etc\n");
}

TEST(Syswrapper, FiftyEntriesAtMostAndTheRunGoesAhead) {
    TempRoot root;
    root.mkdir("/tmp");
    LogLevel level(8);
    LogCapture cap;
    root.write(kWrapper, recorder(root.path("/tmp/args")), 0755);
    const char *a[50];
    std::vector<std::string> names;
    for (int i = 0; i < 50; i++) names.push_back("a" + std::to_string(i + 1));
    for (int i = 0; i < 50; i++) a[i] = names[i].c_str();
    const char *err = "[ERROR] too many arguments for syswrapper, 'v' skipped!";

#define ARGS47                                                                                     \
    a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9], a[10], a[11], a[12], a[13], a[14], \
        a[15], a[16], a[17], a[18], a[19], a[20], a[21], a[22], a[23], a[24], a[25], a[26], a[27], \
        a[28], a[29], a[30], a[31], a[32], a[33], a[34], a[35], a[36], a[37], a[38], a[39], a[40], \
        a[41], a[42], a[43], a[44], a[45], a[46]
    syswrapper_impl(1, "v", ARGS47, nullptr);
    auto got = lines_of(root.read("/tmp/args"));
    ASSERT_EQ(got.size(), 49u);
    EXPECT_EQ(got[0], "48");
    EXPECT_EQ(got[48], "a47");
    EXPECT_FALSE(cap.contains(err));

    // 48 arguments fill the 50 entries: logged although nothing is left out.
    syswrapper_impl(1, "v", ARGS47, a[47], nullptr);
    got = lines_of(root.read("/tmp/args"));
    ASSERT_EQ(got.size(), 50u);
    EXPECT_EQ(got[0], "49");
    EXPECT_EQ(got[49], "a48");
    EXPECT_TRUE(cap.contains(err));

    cap.clear();
    syswrapper_impl(1, "v", ARGS47, a[47], a[48], a[49], nullptr);
    got = lines_of(root.read("/tmp/args"));
    ASSERT_EQ(got.size(), 50u);
    EXPECT_EQ(got[0], "49");
    EXPECT_EQ(got[49], "a48");
    EXPECT_TRUE(cap.contains(err));
#undef ARGS47
}

TEST(Syswrapper, ExitStatusLogging) {
    TempRoot root;
    root.mkdir("/tmp");
    LogLevel level(8);
    LogCapture cap;
    root.write(kWrapper, "#!/bin/sh\n[ \"$1\" = die ] && kill -9 $$\nexit 3\n", 0755);
    syswrapper_impl(1, "plain", nullptr);
    EXPECT_FALSE(cap.contains("exit abnormally"));  // an ordinary failure is not logged
    syswrapper_impl(1, "die", nullptr);
    // The exit-status byte is printed, which is 0 for a killed process.
    EXPECT_TRUE(cap.contains("[ERROR] exit abnormally. code: 0")) << cap.text();
    EXPECT_TRUE(no_children());
}

TEST(Syswrapper, DetachedReturnsBeforeTheScriptEnds) {
    TempRoot root;
    root.mkdir("/tmp");
    const std::string go = root.path("/tmp/go"), mark = root.path("/tmp/mark");
    root.write(kWrapper,
               "#!/bin/sh\nn=0\nwhile [ ! -e '" + go +
                   "' ] && [ $n -lt 600 ]; do sleep 0.05; n=$((n+1)); done\n" + "echo \"$1\" > '" +
                   mark + "'\n",
               0755);
    syswrapper_detached("bg");
    // The script is still waiting for the go file; the call came back anyway.
    EXPECT_FALSE(root.exists("/tmp/mark"));
    EXPECT_TRUE(no_children());  // the intermediate child was reaped
    root.write("/tmp/go", "");
    ASSERT_TRUE(wait_for_file(mark, 20));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(root.read("/tmp/mark"), "bg\n");
}

TEST(Forkexec, RunsArgvUnderTheRootAndWaits) {
    TempRoot root;
    root.mkdir("/tmp");
    LogLevel level(8);
    LogCapture cap;
    root.write("/bin/prog", recorder(root.path("/tmp/args")), 0755);
    const char *argv[] = {"/bin/prog", "x", "y z", nullptr};
    forkexec((char *const *)argv);
    EXPECT_EQ(lines_of(root.read("/tmp/args")), (std::vector<std::string>{"2", "x", "y z"}));
    EXPECT_TRUE(no_children());

    // A program that cannot run: the child just exits.
    const char *missing[] = {"/bin/absent", nullptr};
    forkexec((char *const *)missing);
    EXPECT_TRUE(no_children());
    EXPECT_FALSE(cap.contains("exit abnormally"));

    root.write("/bin/crash", "#!/bin/sh\nkill -TERM $$\n", 0755);
    const char *crash[] = {"/bin/crash", nullptr};
    forkexec((char *const *)crash);
    EXPECT_TRUE(cap.contains("[ERROR] exit abnormally. code: 0")) << cap.text();
}

// Children see only the descriptors the caller already had; none are left
// open across calls.
TEST(Exec, NoDescriptorLeaks) {
    TempRoot root;
    root.mkdir("/tmp");
    const std::string listing = root.path("/tmp/fds");
    const std::string script = "#!/bin/sh\nls /proc/$$/fd > '" + listing + "'\n";
    root.write(kWrapper, script, 0755);
    root.write("/bin/lsfd", script, 0755);

    // Baseline: the same script started directly.
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        std::string path = root.path("/bin/lsfd");
        execl(path.c_str(), path.c_str(), (char *)nullptr);
        _exit(127);
    }
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
    const std::string baseline = root.read("/tmp/fds");
    ASSERT_NE(baseline, "");

    const int before = trel_test::open_fd_count();
    syswrapper_impl(1, "list", nullptr);
    EXPECT_EQ(root.read("/tmp/fds"), baseline);
    const char *argv[] = {"/bin/lsfd", nullptr};
    forkexec((char *const *)argv);
    EXPECT_EQ(root.read("/tmp/fds"), baseline);

    char buf[64];
    for (int i = 0; i < 20; i++) {
        syswrapper_impl(1, "list", nullptr);
        EXPECT_GE(popen_get_output("echo hi", buf, sizeof buf), 0);
        free(popen_alloc_output(n_chars(5000).c_str(), 100));
        free(popen_alloc_output("true", 4096));
    }
    EXPECT_EQ(trel_test::open_fd_count(), before);
    EXPECT_TRUE(no_children());
}

TEST(PopenGetOutput, BoundsAndMessages) {
    FakePath fake;
    fake.add("hello", "printf hello");
    LogCapture cap;
    char buf[4096];

    memset(buf, 'z', sizeof buf);
    EXPECT_EQ(popen_get_output("hello", buf, 4), 3);
    EXPECT_STREQ(buf, "hel");
    memset(buf, 'z', sizeof buf);
    EXPECT_EQ(popen_get_output("hello", buf, 6), 5);  // fits with its NUL
    EXPECT_STREQ(buf, "hello");
    EXPECT_EQ(buf[6], 'z');
    EXPECT_EQ(popen_get_output("hello", buf, 5), 4);
    EXPECT_STREQ(buf, "hell");
    EXPECT_EQ(popen_get_output("hello", buf, 1), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(popen_get_output("hello", nullptr, 10), -1);
    EXPECT_EQ(popen_get_output("hello", buf, 0), -1);

    // Megabytes into a small buffer: cut, closed early, no hang.
    EXPECT_EQ(popen_get_output("yes | head -c 5000000", buf, sizeof buf), 4095);
    EXPECT_EQ(strlen(buf), 4095u);
    EXPECT_EQ(strncmp(buf, "y\ny\n", 4), 0);

    // A failing command's output is kept; the raw status is logged.
    cap.clear();
    EXPECT_EQ(popen_get_output("echo partial; exit 3", buf, sizeof buf), 8);
    EXPECT_STREQ(buf, "partial\n");
    EXPECT_TRUE(cap.contains("[echo partial; exit 3] -> [768]")) << cap.text();
    cap.clear();
    EXPECT_EQ(popen_get_output("no-such-command-here", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_TRUE(cap.contains("[no-such-command-here] -> [32512]")) << cap.text();
    cap.clear();
    EXPECT_EQ(popen_get_output("true", buf, sizeof buf), 0);
    EXPECT_EQ(cap.text(), "");
}

TEST(PopenAllocOutput, BoundsGrowthAndMessages) {
    LogCapture cap;
    char *s = popen_alloc_output(n_chars(300).c_str(), 100);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(strlen(s), 99u);
    free(s);

    // 3000 bytes under a 5000 limit: 1024 -> 2048 -> 4096, never straight to max.
    s = popen_alloc_output(n_chars(3000).c_str(), 5000);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(strlen(s), 3000u);
    EXPECT_GE(malloc_usable_size(s), 4096u);
    EXPECT_LT(malloc_usable_size(s), 5000u);
    free(s);

    // Exact fits around the limit.
    for (size_t n : {1023, 1024, 1025, 2047, 2048}) {
        SCOPED_TRACE(n);
        s = popen_alloc_output(n_chars(n).c_str(), 1024);
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(strlen(s), std::min<size_t>(n, 1023));
        free(s);
        s = popen_alloc_output(n_chars(n).c_str(), 2048);
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(strlen(s), std::min<size_t>(n, 2047));
        free(s);
    }
    s = popen_alloc_output("printf abc", 1);
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s, "");
    free(s);

    // Megabytes under the 1 MiB limit used by the crash reports.
    s = popen_alloc_output("yes | head -c 3000000", 1048576);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(strlen(s), 1048575u);
    free(s);

    cap.clear();
    s = popen_alloc_output("echo out; exit 3", 4096);
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s, "out\n");
    EXPECT_TRUE(cap.contains("'echo out; exit 3' returned rc=768")) << cap.text();
    free(s);

    cap.clear();
    EXPECT_EQ(popen_alloc_output("echo x", 0), nullptr);
    EXPECT_TRUE(cap.contains("Failed to allocate buffer"));
}
