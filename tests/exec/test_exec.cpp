#include <errno.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <utility>

#include <trel/exec.h>

#include "trel_test.h"

namespace {

const char kWrapper[] = "/usr/etc/syswrapper.sh";

// A fresh root whose wrapper script records its argument count and arguments
// (one a line), is killed on "die" and otherwise exits with status 3; log level
// 8 (debug tier 1). Every case must leave no descriptor open and no child
// unreaped.
class Exec : public ::testing::Test {
protected:
    Exec() {
        root.mkdir("/tmp");
        root.write(kWrapper,
                   "#!/bin/sh\nprintf '%s\\n' \"$#\" \"$@\" > '" + out +
                       "'\n[ \"$1\" = die ] && kill -9 $$\nexit 3\n",
                   0755);
        fake.add("xs", "head -c \"$1\" /dev/zero | tr '\\0' x");
    }
    void TearDown() override {
        EXPECT_EQ(trel_test::open_fd_count(), fds);
        EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD);  // all reaped
    }
    trel_test::TempRoot root;
    trel_test::LogCapture cap;
    trel_test::LogSettings level{8};
    trel_test::FakePath fake;  // "xs N" prints N times 'x'
    const std::string out = root.path("/tmp/args");
    const int fds = trel_test::open_fd_count();
};

}  // namespace

TEST(ExecRecord, CreateCopyCompareDestroy) {
    EXPECT_EQ(exec_create(nullptr, nullptr), nullptr);
    EXPECT_EQ(exec_create("", "a", nullptr), nullptr);
    exec_record *r = exec_create("/bin/x", "a", "b", nullptr);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->argc, 3);
    EXPECT_EQ(r->argv[0], r->command);
    EXPECT_EQ(r->argv[3], nullptr);  // ready for execv
    EXPECT_EQ(exec_copy(nullptr), nullptr);
    // The copy is deep: a shared argument would be freed twice below.
    const std::pair<exec_record *, int> cmps[] = {
        {exec_create("/bin/y", "a", nullptr), -ENOENT},  // argc before the command
        {exec_create("/bin/y", "a", "b", nullptr), -ESRCH},
        {exec_create("/bin/x", "a", "c", nullptr), 2},
        {exec_create("/bin/x", "z", "b", nullptr), 1},
        {exec_copy(r), 0},
        {r, 0},
        {nullptr, -1}};
    for (auto [other, want] : cmps) {
        SCOPED_TRACE(other ? other->command : "null");
        EXPECT_EQ(exec_cmp(r, other), want);
        if (other != r) exec_destroy(other);  // null included
    }
    exec_destroy(r);

    // Long texts: the command keeps 4095 characters, arguments 4096.
    std::string cmd(5000, 'c'), arg(5000, 'a');
    r = exec_create(cmd.c_str(), arg.c_str(), nullptr);
    for (exec_record *e : {r, exec_copy(r)}) {
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e->argv[0], e->command);
        EXPECT_EQ(strlen(e->command), 4095u);
        EXPECT_EQ(strlen(e->argv[1]), 4096u);
        exec_destroy(e);
    }
}

TEST_F(Exec, SyswrapperAndForkexecArgumentsLoggingAndStatus) {
    syswrapper_impl(1, "apply", "one", "two words", nullptr);
    EXPECT_EQ(root.read("/tmp/args"), "3\napply\none\ntwo words\n");
    EXPECT_TRUE(cap.contains("[EXEC] /usr/etc/syswrapper.sh apply")) << cap.text();
    EXPECT_FALSE(cap.contains("exit abnormally"));  // exit 3 is not logged
    const char *argv[] = {kWrapper, "x", "y z", nullptr};
    forkexec((char *const *)argv);
    EXPECT_EQ(root.read("/tmp/args"), "2\nx\ny z\n");
    const char *alone[] = {kWrapper, nullptr};  // no arguments: still run
    forkexec((char *const *)alone);
    EXPECT_EQ(root.read("/tmp/args"), "0\n");
    const char *missing[] = {"/bin/absent", nullptr};
    forkexec((char *const *)missing);  // the child just exits
    EXPECT_FALSE(cap.contains("exit abnormally")) << cap.text();
    // The exit-status byte is printed, which is 0 for a killed process.
    for (bool wrapper : {true, false}) {
        cap.clear();
        argv[1] = "die";
        wrapper ? syswrapper_impl(1, "die", nullptr) : forkexec((char *const *)argv);
        EXPECT_TRUE(cap.contains("[ERROR] exit abnormally. code: 0")) << cap.text();
    }

    // 48 arguments fill the 50 entries: logged although nothing is left out,
    // and the run goes ahead with the surplus dropped.
    for (int n : {47, 48, 50}) {
        SCOPED_TRACE(n);
        std::string names[50], want = std::to_string(std::min(n, 48) + 1) + "\nv\n";
        const char *a[50] = {};
        for (int i = 0; i < n; i++) a[i] = (names[i] = "a" + std::to_string(i + 1)).c_str();
        for (int i = 0; i < std::min(n, 48); i++) want += names[i] + "\n";
        [&]<size_t... I>(std::index_sequence<I...>) { syswrapper_impl(1, "v", a[I]..., nullptr); }
        (std::make_index_sequence<50>{});
        EXPECT_EQ(root.read("/tmp/args"), want);
        EXPECT_EQ(cap.contains("[ERROR] too many arguments for syswrapper, 'v' skipped!"), n >= 48);
    }

    // "reload" is run but not logged; tier 2 names the script.
    cap.clear();
    libtrel_log_level = 16;
    syswrapper_impl(1, "reload", nullptr);
    EXPECT_EQ(root.read("/tmp/args"), "1\nreload\n");
    EXPECT_FALSE(cap.contains("[EXEC]")) << cap.text();
    EXPECT_TRUE(cap.contains("syswrapper to use: /usr/etc/syswrapper.sh"));

    // Detached: the call comes back while the script still waits for the go file.
    const std::string wait = "for i in $(seq 600); do [ -e go ] && break; sleep 0.05; done; ";
    root.write(kWrapper, "#!/bin/sh\ncd '" + root.path("/tmp") + "'\n" + wait + "echo $1 >bg\n",
               0755);
    syswrapper_detached("bg");
    EXPECT_FALSE(root.exists("/tmp/bg"));
    root.write("/tmp/go", "");
    for (int i = 0; i < 1000 && root.read("/tmp/bg") != "bg\n"; i++) usleep(20000);
    EXPECT_EQ(root.read("/tmp/bg"), "bg\n");

    // /etc comes before /usr/etc; in neither, a debug tier 1 message and nothing runs.
    root.write("/etc/syswrapper.sh", "#!/bin/sh\necho etc > '" + out + "'\n", 0755);
    syswrapper(("x"));
    EXPECT_EQ(root.read("/tmp/args"), "etc\n");
    root.remove("/etc/syswrapper.sh");
    root.remove(kWrapper);
    syswrapper_impl(1, "apply", nullptr);
    EXPECT_TRUE(
        cap.contains("[debug] libtrel_exec.syswrapper_impl(): "
                     "[ERROR] unable to locate syswrapper.sh, 'apply' skipped!"));
}

TEST_F(Exec, PopenBoundsGrowthAndMessages) {
    char buf[16];
    EXPECT_EQ(popen_get_output("xs 3", buf, sizeof buf), 3);
    EXPECT_EQ(cap.text(), "");  // a zero status is not logged
    // Output sizes around the limits, from 1 up to the 1 MiB used by the crash
    // reports; megabytes into a small buffer are cut and the pipe closed early.
    const size_t cases[][2] = {
        {5, 1},       {5, 5},       {5, 6},       {1023, 1024},    {1024, 1024},
        {1025, 1024}, {3000, 5000}, {2048, 2048}, {5000000, 4096}, {1 << 21, 1 << 20}};
    for (const auto &[n, limit] : cases) {
        SCOPED_TRACE(std::to_string(n) + " under " + std::to_string(limit));
        const std::string want(std::min(n, limit - 1), 'x');
        const std::string cmd = "xs " + std::to_string(n);
        std::vector<char> big(limit + 1, 'z');
        EXPECT_EQ(popen_get_output(cmd.c_str(), big.data(), limit), (int)want.size());
        EXPECT_EQ(big.data(), want);
        EXPECT_EQ(big[limit], 'z');  // nothing written past the buffer
        char *s = popen_alloc_output(cmd.c_str(), limit);
        EXPECT_STREQ(s, want.c_str());
        // Grown 1024 -> 2048 -> 4096, never straight to the limit.
        EXPECT_LT(malloc_usable_size(s), n == 3000 ? 5000u : SIZE_MAX);
        free(s);
    }
    EXPECT_EQ(popen_get_output("xs 3", nullptr, 10), -1);
    EXPECT_EQ(popen_get_output("xs 3", buf, 0), -1);
    // A failing command's output is kept; the raw status is logged.
    EXPECT_EQ(popen_get_output("echo partial; exit 3", buf, sizeof buf), 8);
    EXPECT_STREQ(buf, "partial\n");
    EXPECT_TRUE(cap.contains("[echo partial; exit 3] -> [768]")) << cap.text();
    char *s = popen_alloc_output("echo out; exit 3", 4096);
    EXPECT_STREQ(s, "out\n");
    EXPECT_TRUE(cap.contains("'echo out; exit 3' returned rc=768")) << cap.text();
    free(s);
    EXPECT_EQ(popen_alloc_output("echo x", 0), nullptr);
    EXPECT_TRUE(cap.contains("Failed to allocate buffer"));
}

// Nothing the library holds open reaches a child: children list the same
// descriptors (the standard ones and the lister's own) before and after the
// library opened its sockets, lock files, directory stream and streams.
TEST_F(Exec, ChildrenInheritNoLibraryDescriptor) {
    root.write(kWrapper, "#!/bin/sh\nls /proc/self/fd > '" + out + "'\n", 0755);
    auto children_see = [&] {
        char buf[256] = "";
        EXPECT_GT(popen_get_output("ls /proc/self/fd", buf, sizeof buf), 0);
        syswrapper_impl(1, "list", nullptr);
        std::string seen = std::string(buf) + "through the wrapper:\n" + root.read("/tmp/args");
        const char *argv[] = {kWrapper, nullptr};
        forkexec((char *const *)argv);
        return seen + "through forkexec:\n" + root.read("/tmp/args");
    };
    const std::string before = children_see();

    uds_sock server;
    ASSERT_GE(uds_sock_open_server(root.path("/tmp/server.sock").c_str(), &server), 0);
    root.mkdir("/var/run/report");
    ASSERT_EQ(report_lock(), 0);  // a directory stream
    ASSERT_EQ(inform_profile_lock(), 0);
    root.write("/var/run/trel_protocol.info",
               "morna.key=" + std::string(32, 'a') + "\nmorna.mcip=239.254.1.1\n");
    const bool service = trel_protocol_init(1) == 0;
    EXPECT_TRUE(service) << "UDP port 48000 taken by another run? " << cap.text();
    FILE *rooted = fopen_format("r", "%s", "/tmp/args");  // through the root
    FILE *real = fopen_format("r", "/dev/urandom");       // a plain fopen
    EXPECT_TRUE(rooted && real);
    EXPECT_EQ(trel_test::open_fd_count(), fds + 5 + service);  // all held
    EXPECT_EQ(children_see(), before);

    if (real != nullptr) fclose(real);
    if (rooted != nullptr) fclose(rooted);
    trel_protocol_deinit();
    inform_profile_unlock();
    report_unlock();
    uds_sock_close(&server);
}
