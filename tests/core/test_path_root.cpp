// LIBTREL_ROOT as a real root: paths that would leave a prefix root land
// inside the tree; inside the tree each wrapper does what the plain call does
// on the real path, through openat2 and through the walk that stands in for
// it; fopen modes keep their meaning.
#include <errno.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/openat2.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <set>
#include <vector>

#include "core/path_root.h"
#include "trel_test.h"

namespace fs = std::filesystem;
using trel_test::read_file;
using trel_test::TempRoot;
using trel_test::write_file;

namespace {

mode_t mode_of(const std::string &p) {
    struct stat st;
    return ::stat(p.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

// Whether the kernel resolves paths with openat2 (Linux 5.6 and later; qemu's
// user-mode emulation 7.2 lacks it).
bool has_openat2() {
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    int fd = (int)syscall(SYS_openat2, AT_FDCWD, "/", &how, sizeof how);
    if (fd >= 0) close(fd);
    return fd >= 0 || errno != ENOSYS;
}

// Makes openat2 fail with ENOSYS in this process, as on kernels before 5.6.
void hide_openat2() {
    if (!has_openat2()) return;  // already missing: no filter to install
    struct sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat2, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    struct sock_fprog prog = {sizeof filter / sizeof filter[0], filter};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &prog), 0) << strerror(errno);
}

// ---- The wrappers against the plain calls ---------------------------------

// A small tree with files, directories, symlinks, a loop, and two links
// that would leave a prefix root: "abs" to "/d", "up" climbing to "/".
void build_tree(const std::string &d) {
    fs::permissions(d, fs::perms(0755));
    write_file(d + "/f", "file");
    write_file(d + "/d/f2", "f2");
    fs::create_directory(d + "/e");
    const char *links[][2] = {{"lf", "f"},      {"ld", "d"},   {"le", "e"}, {"dang", "nowhere"},
                              {"loop", "loop"}, {"abs", "/d"}, {"up", ""}};
    std::string up;  // enough to climb from any temporary directory up to "/"
    for (int i = 0; i < 32; i++) up += "../";
    for (auto &l : links) fs::create_symlink(*l[1] ? l[1] : up, d + "/" + l[0]);
}

// Every entry below d with its type, mode, inode, and link target or content.
std::string snapshot(const std::string &d) {
    std::set<std::string> lines{"/ " + std::to_string(mode_of(d))};
    for (auto &entry : fs::recursive_directory_iterator(d)) {
        struct stat st;
        if (::lstat(entry.path().c_str(), &st) != 0) continue;
        std::string line =
            entry.path().string().substr(d.size()) + " " + std::to_string(st.st_mode);
        if (S_ISLNK(st.st_mode)) line += " -> " + fs::read_symlink(entry.path()).string();
        lines.insert(line + (S_ISREG(st.st_mode) ? " : " + read_file(entry.path()) : ""));
    }
    std::string s;
    for (auto &l : lines) s += l + "\n";
    return s;
}

// What a call did: its result, errno when it failed, what it saw or left.
struct Outcome {
    long rc;
    int err;
    std::string seen;
    bool operator==(const Outcome &) const = default;
};

void PrintTo(const Outcome &o, std::ostream *os) {
    *os << "rc " << o.rc << " (" << strerror(o.err) << ") " << o.seen;
}

// A call, rooted (the wrapper on the logical path p) or plain (the system
// call on the real path p); tree is the real directory of the tree.
struct PlainCall {
    const char *what;
    bool mutates;  // compare the trees afterwards
    bool follows;  // follows a last symlink
    long (*run)(const char *p, bool rooted, const std::string &tree, std::string &seen);
};

// A call that only has a result to show.
#define EITHER(call, ...)                                                               \
    [](const char *p, bool rooted, const std::string &, std::string &) -> long {        \
        return rooted ? trel::path_##call(p, ##__VA_ARGS__) : ::call(p, ##__VA_ARGS__); \
    }

// stat or lstat, showing the type, mode and size of what it found.
#define STAT(call)                                                                         \
    [](const char *p, bool rooted, const std::string &, std::string &seen) -> long {       \
        struct stat st;                                                                    \
        int rc = rooted ? trel::path_##call(p, &st) : ::call(p, &st);                      \
        if (rc == 0) seen = std::to_string(st.st_mode) + " " + std::to_string(st.st_size); \
        return rc;                                                                         \
    }

// fopen, then "x" written and what reads back from the start; the wrapper's
// streams are close-on-exec.
#define FOPEN(mode)                                                                  \
    [](const char *p, bool rooted, const std::string &, std::string &seen) -> long { \
        FILE *f = rooted ? trel::path_fopen(p, mode) : ::fopen(p, mode);             \
        if (f == nullptr) return -1;                                                 \
        EXPECT_TRUE(!rooted || fcntl(fileno(f), F_GETFD) == FD_CLOEXEC);             \
        fputs("x", f);                                                               \
        fflush(f);                                                                   \
        rewind(f);                                                                   \
        char buf[16] = "";                                                           \
        seen = (fgets(buf, sizeof buf, f) ? buf : "nothing") +                       \
               std::to_string(fcntl(fileno(f), F_GETFL) & O_ACCMODE);                \
        fclose(f);                                                                   \
        return 0;                                                                    \
    }

const PlainCall kPlainCalls[] = {
    {"fopen r", false, true, FOPEN("r")},
    {"fopen r+", true, true, FOPEN("r+")},
    {"fopen w+", true, true, FOPEN("w+")},
    {"fopen a+ with 28 more characters", true, true, FOPEN("a+bbbbbbbbbbbbbbbbbbbbbbbbbbbb")},
    {"fopen re", false, true, FOPEN("re")},
    // A "+" past the first seven characters does not count.
    {"fopen rbbbbbb+", false, true, FOPEN("rbbbbbb+")},
    {"fopen rbbbbb+", true, true, FOPEN("rbbbbb+")},
    {"fopen wx", true, false, FOPEN("wx")},
    {"stat", false, true, STAT(stat)},
    {"lstat", false, false, STAT(lstat)},
    {"access", false, true, EITHER(access, R_OK)},
    {"readlink", false, false,
     [](const char *p, bool rooted, const std::string &, std::string &seen) -> long {
         char buf[64];
         ssize_t n = rooted ? trel::path_readlink(p, buf, 64) : ::readlink(p, buf, 64);
         seen.assign(buf, n > 0 ? (size_t)n : 0);
         return n;
     }},
    {"opendir", false, true,
     [](const char *p, bool rooted, const std::string &, std::string &seen) -> long {
         DIR *d = rooted ? trel::path_opendir(p) : ::opendir(p);  // both trees list alike
         while (struct dirent *e = d ? readdir(d) : nullptr) seen += std::string(e->d_name) + " ";
         return d ? closedir(d) : -1;
     }},
    {"open to create", true, true,
     [](const char *p, bool rooted, const std::string &, std::string &) -> long {
         const int flags = O_WRONLY | O_CREAT | O_TRUNC,
                   fd = rooted ? trel::path_open(p, flags, 0640) : ::open(p, flags, 0640);
         return fd < 0 ? fd : close(fd);
     }},
    {"mkdir", true, false, EITHER(mkdir, 0700)},
    {"chmod", true, true, EITHER(chmod, 0600)},
    {"unlink", true, false, EITHER(unlink)},
    {"rmdir", true, false, EITHER(rmdir)},
    {"rename away", true, false,
     [](const char *p, bool rooted, const std::string &tree, std::string &) -> long {
         return (rooted ? trel::path_rename : ::rename)(p,
                                                        ((rooted ? "" : tree) + "/moved").c_str());
     }},
    {"rename onto", true, false,
     [](const char *p, bool rooted, const std::string &tree, std::string &) -> long {
         return (rooted ? trel::path_rename : ::rename)(((rooted ? "" : tree) + "/f").c_str(), p);
     }}};

// Paths that stay inside the tree: trailing slashes, ".", "..", symlinks to
// files and directories, dangling links, a loop, missing parts; last, one
// whose directory part alone is PATH_MAX characters long.
std::vector<std::string> inside_paths() {
    std::vector<std::string> paths = {
        "/f",      "/f/",   "/f/x",   "/d",    "/d/",     "/d/.",     "/d/..",      "/d/f2",
        "//d//f2", "/lf",   "/lf/",   "/ld",   "/ld/",    "/ld/f2",   "/ld/..",     "/le",
        "/e/..",   "/dang", "/dang/", "/loop", "/loop/x", "/missing", "/missing/x", "/d/../lf"};
    std::string p = "/";
    for (int i = 0; i < 2046; i++) p += "a/";
    paths.push_back(p + "aa/x");
    return paths;
}

// Paths that would leave a prefix root and the paths inside the tree they
// must act as; the last ones end in the escaping link.
const struct {
    const char *escape, *inside;
    bool last_link;
} kEscapes[] = {
    {"/../../f", "/f", false},   {"/up/d/f2", "/d/f2", false}, {"/up/../lf", "/lf", false},
    {"/abs/f2", "/d/f2", false}, {"/abs", "/ld", true},        {"/up", "/", true},
};

// The wrappers on a root and the plain calls on a twin tree, rebuilt only
// after a call changed it.  refused: without openat2, where every escape is turned down with EACCES
// and touches nothing.
void expect_plain_behaviour(bool refused) {
    TempRoot root;
    const std::string plain = trel_test::make_temp_dir();
    build_tree(root.dir());
    build_tree(plain);
    const std::string pristine = snapshot(plain);
    auto run = [&](const PlainCall &call, bool rooted, const std::string &path, int stale) {
        const std::string &tree = rooted ? root.dir() : plain;
        rooted ? setenv("LIBTREL_ROOT", tree.c_str(), 1) : unsetenv("LIBTREL_ROOT");
        std::string p = rooted ? path : tree + path;
        Outcome o{};
        errno = stale;  // a success leaves errno as it was
        o.rc = call.run(p.c_str(), rooted, tree, o.seen);
        o.err = errno;
        std::string after = snapshot(tree);
        if (call.mutates) o.seen += after;
        if (after != pristine) {
            for (auto &entry : fs::directory_iterator(tree)) fs::remove_all(entry.path());
            build_tree(tree);
        }
        return o;
    };
    const std::vector<std::string> paths = inside_paths();
    for (size_t c = 0; c < std::size(kPlainCalls); c++) {
        for (size_t i = 0; i < paths.size(); i++) {
            SCOPED_TRACE(std::string(kPlainCalls[c].what) + " " + paths[i].substr(0, 40));
            // Stale values the wrappers look at after their own failures.
            const int stale = (c + i) % 2 ? ENOENT : ENOSYS;
            EXPECT_EQ(run(kPlainCalls[c], true, paths[i], stale),
                      run(kPlainCalls[c], false, paths[i], stale));
        }
    }
    for (const PlainCall &call : kPlainCalls) {
        for (const auto &e : kEscapes) {
            if (e.last_link && !call.follows) continue;
            SCOPED_TRACE(std::string(call.what) + " " + e.escape);
            const Outcome want = refused ? Outcome{-1, EACCES, call.mutates ? pristine : ""}
                                         : run(call, true, e.inside, 0);
            EXPECT_EQ(run(call, true, e.escape, 0), want);
        }
    }
    trel_test::remove_tree(plain);
}

}  // namespace

// Inside the tree the wrappers behave as the plain calls on the real paths,
// down to the error codes, except where the root itself must act as "/";
// every escape lands inside the tree.
TEST(PathRoot, WrappersActLikeThePlainCalls) {
    const int fds = trel_test::open_fd_count();
    expect_plain_behaviour(!has_openat2());
    EXPECT_EQ(trel_test::open_fd_count(), fds);

    TempRoot root;
    struct {
        const char *what;
        int (*call)();
        int err;
    } at_root[] = {
        {"rmdir /", [] { return trel::path_rmdir("/"); }, EBUSY},
        // Without openat2 a ".." above the root is refused.
        {"rmdir /..", [] { return trel::path_rmdir("/.."); }, has_openat2() ? ENOTEMPTY : EACCES},
        {"rename /", [] { return trel::path_rename("/", "/x"); }, EBUSY},
        {"unlink /", [] { return trel::path_unlink("/"); }, EISDIR},
        {"mkdir /", [] { return trel::path_mkdir("/", 0755); }, EEXIST},
        {"fopen q", [] { return trel::path_fopen("/f", "q") ? 0 : -1; }, EINVAL},
        // A root that cannot be opened opens nothing.
        {"open under a missing root",
         [] {
             setenv("LIBTREL_ROOT", "/nonexistent/root", 1);
             return trel::path_open("/f", O_RDONLY);
         },
         ENOENT},
        // Modes with no room left for "e" are refused.
        {"fopen with a 31-character mode",
         [] { return trel::path_fopen("/f", "a+bbbbbbbbbbbbbbbbbbbbbbbbbbbbb") ? 0 : -1; }, EINVAL},
    };
    for (auto &c : at_root) {
        SCOPED_TRACE(c.what);
        errno = 0;
        EXPECT_EQ(c.call(), -1);
        EXPECT_EQ(errno, c.err);
    }

    // A rename between the root and the working directory: each name
    // resolves on its own side.
    root.write("/f", "file");
    unsetenv("LIBTREL_ROOT");
    FILE *f = fopen_format("r", "%s", root.path("/f").c_str());  // the plain call, with "e"
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(fcntl(fileno(f), F_GETFD), FD_CLOEXEC);
    fclose(f);
    setenv("LIBTREL_ROOT", root.dir().c_str(), 1);
    const std::string here = trel_test::make_temp_dir();
    char saved[4096];
    ASSERT_NE(getcwd(saved, sizeof saved), nullptr);
    ASSERT_EQ(chdir(here.c_str()), 0);
    EXPECT_EQ(trel::path_rename("/f", "moved"), 0);
    EXPECT_EQ(read_file(here + "/moved"), "file");
    EXPECT_EQ(trel::path_rename("moved", "/g"), 0);
    EXPECT_EQ(root.read("/g"), "file");
    // readlinkat: relative names from the directory given, absolute ones in the root.
    fs::create_symlink("g", root.path("/lg"));
    int dfd = open(root.dir().c_str(), O_RDONLY | O_DIRECTORY);
    char buf[8] = "";
    EXPECT_EQ(trel::path_readlinkat(dfd, "lg", buf, sizeof buf), 1);
    EXPECT_EQ(trel::path_readlinkat(AT_FDCWD, "/lg", buf + 1, sizeof buf - 1), 1);
    EXPECT_STREQ(buf, "gg");
    close(dfd);
    ASSERT_EQ(chdir(saved), 0);
    trel_test::remove_tree(here);
}

// Without openat2 the walk of our own resolves what stays inside exactly as
// the kernel does and refuses every escape with EACCES, touching nothing.
TEST(PathRoot, WithoutOpenat2EscapesAreRefused) {
    trel_test::run_in_child([] {
        hide_openat2();
        if (::testing::Test::HasFatalFailure()) return;
        expect_plain_behaviour(true);
    });
}

// The real path handed to exec and to shell commands: an existing file, a
// file yet to be made in a resolved directory, and nothing where a dangling
// link or a missing directory stands.
TEST(PathRoot, RealPathsForCommands) {
    TempRoot root;
    root.write("/etc/f", "x");
    root.mkdir("/var/run");
    fs::create_symlink("/etc", root.path("/le"));
    fs::create_symlink("/nowhere/x", root.path("/var/run/dangling"));
    const std::string real = fs::canonical(root.dir()).string();
    const struct {
        const char *logical;
        std::string want;  // "" for no path
    } cases[] = {          // Without openat2 an absolute symlink is refused rather than followed.
                 {"/le/f", has_openat2() ? real + "/etc/f" : ""},
                 {"/le/../var/run/new.txt", has_openat2() ? real + "/var/run/new.txt" : ""},
                 {"/new", real + "/new"},
                 {"/var/run/dangling", ""},
                 {"/missing/new.txt", ""},
                 {"/var/run/..", real + "/var"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.logical);
        trel::RootedPath p(c.logical);
        EXPECT_EQ(p ? std::string(p.c_str()) : "", c.want);
    }
    // A file yet to be made whose real path takes PATH_MAX - 1 characters
    // fits; one character more does not.
    std::string dir;
    while (real.size() + dir.size() + 201 < PATH_MAX - 1 - 256 - 50)
        dir += "/" + std::string(200, 'd');
    for (size_t extra : {0, 1}) {
        SCOPED_TRACE(extra);
        // The real directory takes PATH_MAX - 1 - 256 characters, plus extra.
        const std::string d =
            dir + "/" + std::string(PATH_MAX - 1 - 256 - real.size() - dir.size() - 1 + extra, 'e');
        root.mkdir(d);
        trel::RootedPath p((d + "/" + std::string(255, 'n')).c_str());
        EXPECT_EQ(p ? strlen(p.c_str()) : 0u, extra ? 0u : PATH_MAX - 1u);
    }
}

// Through the library's own readers, writers and the wrapper script: an
// escape by "..", by an absolute symlink and by a relative symlink lands
// inside the root (with openat2), or is refused (without); the twin file
// outside the root is never read, written or run.
TEST(PathRoot, LibraryCallsStayInsideTheRoot) {
    TempRoot root;
    const std::string out = trel_test::make_temp_dir();  // an absolute real path
    const std::string mark = out + "/ran";
    const std::string up = "../../../../../../../../../..";
    const struct {
        const char *what;
        std::string data, usr;  // where the file is reached; where /usr points
    } escapes[] = {
        {"dot-dot", "/" + up + out + "/f", "/" + up + out + "/usr"},
        {"absolute symlink", "/abs/f", out + "/usr"},
        {"relative symlink", "/rel/f", up + out + "/usr"},
    };
    ASSERT_EQ(symlink(out.c_str(), root.path("/abs").c_str()), 0);
    ASSERT_EQ(symlink((up + out).c_str(), root.path("/rel").c_str()), 0);
    const bool inside = has_openat2();
    for (const auto &e : escapes) {
        SCOPED_TRACE(e.what);
        write_file(out + "/f", "outside\n");
        root.write(out + "/f", "inside\n");
        const std::string script = "/usr/etc/syswrapper.sh";
        for (const char *side : {"outside", "inside"}) {
            std::string text = std::string("#!/bin/sh\necho ") + side + " >> " + mark + "\n";
            std::string real = side[0] == 'o' ? out + script : root.path(out + script);
            std::filesystem::create_directories(real.substr(0, real.rfind('/')));
            write_file(real, text);
            chmod(real.c_str(), 0755);
        }
        std::filesystem::remove(root.path("/usr"));
        ASSERT_EQ(symlink(e.usr.c_str(), root.path("/usr").c_str()), 0);
        unlink(mark.c_str());

        char buf[32] = "";
        EXPECT_STREQ(freadline(e.data.c_str(), buf, sizeof buf, "refused"),
                     inside ? "inside" : "refused");
        EXPECT_EQ(fwriteline(e.data.c_str(), "%s", "written"), inside ? 7 : -1);
        syswrapper_impl(1, "x", nullptr);
        EXPECT_EQ(read_file(out + "/f"), "outside\n");
        EXPECT_EQ(root.read(out + "/f"), inside ? "written" : "inside\n");
        EXPECT_EQ(read_file(mark), inside ? "inside\n" : "");
    }
    trel_test::remove_tree(out);
}
