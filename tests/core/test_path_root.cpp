// LIBTREL_ROOT as a real root: paths that would leave a prefix root land
// inside the tree through every kind of call; inside the tree each wrapper
// does what the plain call does on the real path, through openat2 and through
// the walk that stands in for it; fopen modes keep their meaning.
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

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "core/path_root.h"
#include "trel_test.h"

namespace fs = std::filesystem;
using trel_test::read_file;
using trel_test::TempRoot;
using trel_test::write_file;

namespace {

// Enough "../" to climb from any temporary directory up to "/".
std::string climb() {
    std::string s;
    for (int i = 0; i < 32; i++) s += "../";
    return s;
}

std::string dir_of(const std::string &p) { return p.substr(0, p.rfind('/')); }
std::string base_of(const std::string &p) { return p.substr(p.rfind('/') + 1); }

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
    ASSERT_EQ(syscall(SYS_openat2, AT_FDCWD, ".", nullptr, 0), -1);
    ASSERT_EQ(errno, ENOSYS);
}

// ---- Escapes --------------------------------------------------------------

void link_at(const TempRoot &root, const std::string &logical, const std::string &target) {
    root.mkdir(dir_of(logical));
    ASSERT_EQ(symlink(target.c_str(), root.path(logical).c_str()), 0) << logical;
}

// One way out of a prefix root.  plant() turns the place a call looks at into
// the path to give it, making the links that path needs; a prefix root would
// take that path to out + "/" + the place's last component, a real root to
// the same path inside the tree.
struct Escape {
    const char *what;
    bool link_is_last;  // the place itself is the symlink
    bool new_path;      // a path other than the place (not for calls with a fixed place)
    std::string (*plant)(const TempRoot &root, const std::string &place, const std::string &out);
};

const Escape kEscapes[] = {
    {"'..' past the root", false, true,
     [](const TempRoot &, const std::string &place, const std::string &out) {
         return "/" + climb() + out.substr(1) + "/" + base_of(place);
     }},
    {"absolute symlink to a directory", false, false,
     [](const TempRoot &root, const std::string &place, const std::string &out) {
         link_at(root, dir_of(place), out);
         return place;
     }},
    {"relative symlink to a directory, climbing out", false, false,
     [](const TempRoot &root, const std::string &place, const std::string &out) {
         link_at(root, dir_of(place), climb() + out.substr(1));
         return place;
     }},
    {"absolute symlink to the file", true, false,
     [](const TempRoot &root, const std::string &place, const std::string &out) {
         link_at(root, place, out + "/" + base_of(place));
         return place;
     }},
    {"relative symlink to the file, climbing out", true, false,
     [](const TempRoot &root, const std::string &place, const std::string &out) {
         link_at(root, place, climb() + out.substr(1) + "/" + base_of(place));
         return place;
     }},
};

// One escape against one call: a fresh root, a directory outside it, the file
// the escape would reach there and its twin inside the root.
struct Cell {
    Cell(const Escape &e, const std::string &where) : place(where) {
        outside = out_dir + "/" + base_of(place);
        inside = root.path(outside);
        path = e.plant(root, place, out_dir);
    }
    ~Cell() { trel_test::remove_tree(out_dir); }
    void files() const {
        write_file(inside, "inside");
        write_file(outside, "outside");
    }
    // Scripts that tell which of them ran.
    void scripts() const {
        write_file(inside, "#!/bin/sh\necho inside >> '" + ran + "'\n", 0755);
        write_file(outside, "#!/bin/sh\necho outside >> '" + ran + "'\n", 0755);
    }

    TempRoot root;
    std::string out_dir = trel_test::make_temp_dir();
    std::string place, path, inside, outside;
    std::string ran = out_dir + "/ran";
};

// A library call run on an escaping path.  `refused`: without openat2 the
// escape must be turned down with EACCES and touch nothing.
struct Call {
    const char *what;
    const char *place;
    bool fixed_place;  // looks at its place whatever the path
    bool in_fallback;  // also checked without openat2
    void (*run)(const Cell &c, const Escape &e, bool refused);
};

const Call kCalls[] = {
    {"freadline", "/data/f", false, true,
     [](const Cell &c, const Escape &, bool refused) {
         c.files();
         char buf[32] = "";
         if (refused)
             EXPECT_EQ(fsreadline(c.path.c_str(), buf, sizeof buf), -EACCES);
         else
             EXPECT_STREQ(freadline(c.path.c_str(), buf, sizeof buf, "default"), "inside");
     }},
    {"fwriteline", "/data/f", false, true,
     [](const Cell &c, const Escape &, bool refused) {
         c.files();
         errno = 0;
         EXPECT_EQ(fwriteline(c.path.c_str(), "%s", "written"), refused ? -1 : 7);
         if (refused) {
             EXPECT_EQ(errno, EACCES);
         }
         EXPECT_EQ(read_file(c.inside), refused ? "inside" : "written");
         EXPECT_EQ(read_file(c.outside), "outside");
     }},
    {"touch_file (open, chmod)", "/data/f", false, false,
     [](const Cell &c, const Escape &, bool) {
         c.files();
         EXPECT_EQ(touch_file(c.path.c_str(), 0604), 0);
         EXPECT_EQ(mode_of(c.inside), 0604u);
         EXPECT_EQ(mode_of(c.outside), 0644u);
     }},
    {"qx_mkdir_p (stat)", "/data/f", false, false,
     [](const Cell &c, const Escape &, bool) {
         // A directory inside, a file outside: only the outside one fails.
         write_file(c.outside, "outside");
         fs::create_directories(c.inside);
         EXPECT_EQ(qx_mkdir_p(c.path.c_str(), 0755), 0) << strerror(errno);
     }},
    {"system_is_xxx (access)", "/data/f", false, false,
     [](const Cell &c, const Escape &, bool) {
         write_file(c.outside, "outside");
         EXPECT_EQ(system_is_xxx(c.path.c_str(), 7), 7);  // nothing inside
     }},
    {"system_set_xxx (unlink)", "/data/f", false, false,
     [](const Cell &c, const Escape &e, bool) {
         c.files();
         EXPECT_EQ(system_set_xxx(c.path.c_str(), 0), 0);
         EXPECT_EQ(read_file(c.outside), "outside");
         // A last symlink goes itself, never what it points at.
         if (e.link_is_last) {
             EXPECT_FALSE(c.root.exists(c.place));
         }
         EXPECT_EQ(fs::exists(c.inside), e.link_is_last);
     }},
    {"forkexec", "/bin/prog", false, true,
     [](const Cell &c, const Escape &, bool refused) {
         c.scripts();
         const char *argv[] = {c.path.c_str(), nullptr};
         forkexec((char *const *)argv);
         EXPECT_EQ(read_file(c.ran), refused ? "" : "inside\n");
     }},
    {"syswrapper_impl", "/usr/etc/syswrapper.sh", true, true,
     [](const Cell &c, const Escape &, bool refused) {
         c.scripts();
         syswrapper_impl(1, "x", nullptr);
         EXPECT_EQ(read_file(c.ran), refused ? "" : "inside\n");
     }},
#ifdef TREL_TOOL_PATH
    {"trel --root R read", "/data/f", false, true,
     [](const Cell &c, const Escape &, bool refused) {
         c.files();
         std::string cmd =
             TREL_TOOL_PATH " --root '" + c.root.dir() + "' read '" + c.path + "' 2>&1";
         FILE *p = popen(cmd.c_str(), "r");
         ASSERT_NE(p, nullptr);
         char buf[4096];
         std::string out(buf, fread(buf, 1, sizeof buf, p));
         pclose(p);
         if (refused)
             EXPECT_NE(out.find(c.path + ": Permission denied"), std::string::npos) << out;
         else
             EXPECT_EQ(out, "inside\n");
     }},
#endif
};

void run_escapes(bool refused) {
    trel_test::LogCapture log;  // failures log to standard error, not the kernel log
    for (const Escape &e : kEscapes) {
        for (const Call &call : kCalls) {
            if ((call.fixed_place && e.new_path) || (refused && !call.in_fallback)) continue;
            SCOPED_TRACE(std::string(call.what) + " through " + e.what);
            Cell c(e, call.place);
            call.run(c, e, refused);
        }
    }
}

// ---- The wrappers against the plain calls ---------------------------------

// A small tree with files, directories, symlinks and a loop.
void build_tree(const std::string &d) {
    fs::permissions(d, fs::perms(0755));
    write_file(d + "/f", "file");
    write_file(d + "/d/f2", "f2");
    fs::create_directory(d + "/e");
    for (auto [name, target] :
         {std::pair{"lf", "f"}, {"ld", "d"}, {"le", "e"}, {"dang", "nowhere"}, {"loop", "loop"}})
        fs::create_symlink(target, d + "/" + name);
}

// Every entry below d with its type, mode, and link target or content.
std::string snapshot(const std::string &d) {
    std::vector<std::string> lines{"/ " + std::to_string(mode_of(d))};
    for (auto &entry : fs::recursive_directory_iterator(d)) {
        struct stat st;
        if (::lstat(entry.path().c_str(), &st) != 0) continue;
        std::string line =
            entry.path().string().substr(d.size()) + " " + std::to_string(st.st_mode & 0170777);
        if (S_ISLNK(st.st_mode)) line += " -> " + fs::read_symlink(entry.path()).string();
        if (S_ISREG(st.st_mode)) line += " : " + read_file(entry.path());
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    std::string s;
    for (auto &l : lines) s += l + "\n";
    return s;
}

// Which entry of the tree d a stat result is, and its mode.
std::string identify(const std::string &d, const struct stat &st) {
    std::string name = "elsewhere";
    struct stat top;
    if (::lstat(d.c_str(), &top) == 0 && top.st_ino == st.st_ino) name = "/";
    for (auto &entry : fs::recursive_directory_iterator(d)) {
        struct stat e;
        if (::lstat(entry.path().c_str(), &e) == 0 && e.st_ino == st.st_ino &&
            e.st_dev == st.st_dev)
            name = entry.path().string().substr(d.size());
    }
    return name + " " + std::to_string(st.st_mode & 0170777);
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
    long (*run)(const char *p, bool rooted, const std::string &tree, std::string &seen);
};

// A call that only has a result to show.
#define EITHER(call, ...)                                                               \
    [](const char *p, bool rooted, const std::string &, std::string &) -> long {        \
        return rooted ? trel::path_##call(p, ##__VA_ARGS__) : ::call(p, ##__VA_ARGS__); \
    }

// stat or lstat, showing which entry of the tree it found.
template <int (*Rooted)(const char *, struct stat *), int (*Plain)(const char *, struct stat *)>
long stat_call(const char *p, bool rooted, const std::string &tree, std::string &seen) {
    struct stat st;
    int rc = rooted ? Rooted(p, &st) : Plain(p, &st);
    int err = errno;
    if (rc == 0) seen = identify(tree, st);
    errno = err;
    return rc;
}

const PlainCall kPlainCalls[] = {
    {"stat", false, stat_call<trel::path_stat, ::stat>},
    {"lstat", false, stat_call<trel::path_lstat, ::lstat>},
    {"access", false, EITHER(access, R_OK)},
    {"readlink", false,
     [](const char *p, bool rooted, const std::string &, std::string &seen) -> long {
         char buf[64];
         ssize_t n =
             rooted ? trel::path_readlink(p, buf, sizeof buf) : ::readlink(p, buf, sizeof buf);
         if (n >= 0) seen.assign(buf, (size_t)n);
         return n;
     }},
    {"open to read", false,
     [](const char *p, bool rooted, const std::string &, std::string &seen) -> long {
         int fd = rooted ? trel::path_open(p, O_RDONLY) : ::open(p, O_RDONLY);
         if (fd < 0) return fd;
         char buf[64];
         ssize_t n = read(fd, buf, sizeof buf);  // a directory fails with EISDIR
         seen = n >= 0 ? std::string(buf, (size_t)n) : "unreadable";
         close(fd);
         return 0;
     }},
    {"opendir", false,
     [](const char *p, bool rooted, const std::string &, std::string &seen) -> long {
         DIR *d = rooted ? trel::path_opendir(p) : ::opendir(p);
         if (d == nullptr) return -1;
         std::vector<std::string> names;
         while (struct dirent *e = readdir(d)) names.push_back(e->d_name);
         closedir(d);
         std::sort(names.begin(), names.end());
         for (auto &n : names) seen += n + " ";
         return 0;
     }},
    {"open to create", true,
     [](const char *p, bool rooted, const std::string &, std::string &) -> long {
         const int flags = O_WRONLY | O_CREAT | O_TRUNC;
         int fd = rooted ? trel::path_open(p, flags, 0640) : ::open(p, flags, 0640);
         if (fd < 0) return fd;
         EXPECT_EQ(write(fd, "new", 3), 3);
         close(fd);
         return 0;
     }},
    {"mkdir", true, EITHER(mkdir, 0700)},
    {"chmod", true, EITHER(chmod, 0600)},
    {"unlink", true, EITHER(unlink)},
    {"rmdir", true, EITHER(rmdir)},
    {"rename away", true,
     [](const char *p, bool rooted, const std::string &tree, std::string &) -> long {
         std::string to = (rooted ? "" : tree) + "/moved";
         return rooted ? trel::path_rename(p, to.c_str()) : ::rename(p, to.c_str());
     }},
    {"rename onto", true,
     [](const char *p, bool rooted, const std::string &tree, std::string &) -> long {
         std::string from = (rooted ? "" : tree) + "/f";
         return rooted ? trel::path_rename(from.c_str(), p) : ::rename(from.c_str(), p);
     }},
};

// Paths that stay inside the tree: trailing slashes, ".", "..", symlinks to
// files and directories, dangling links, a loop, missing parts.
const char *const kInsidePaths[] = {
    "/f",      "/f/",      "/f/x",       "/d",       "/d/",   "/d/.",   "/d/..",
    "/d/f2",   "//d//f2",  "/d/./f2",    "/lf",      "/lf/",  "/ld",    "/ld/",
    "/ld/f2",  "/ld/..",   "/le",        "/e/..",    "/dang", "/dang/", "/loop",
    "/loop/x", "/missing", "/missing/x", "/d/../lf",
};

// A path whose directory part alone is PATH_MAX characters long.
std::string long_path() {
    std::string p = "/";
    for (int i = 0; i < 2046; i++) p += "a/";
    return p + "aa/x";
}

// A tree for the wrappers (the root) and a twin for the plain calls, built
// again only after a call changed it.
class Trees {
public:
    Trees() {
        build_tree(root_.dir());
        build_tree(plain_);
        pristine_ = snapshot(plain_);
    }
    ~Trees() { trel_test::remove_tree(plain_); }

    // stale: errno before the call, which a success leaves as it was.
    Outcome run(const PlainCall &call, bool rooted, const std::string &path, int stale) {
        const std::string &tree = rooted ? root_.dir() : plain_;
        rooted ? setenv("LIBTREL_ROOT", tree.c_str(), 1) : unsetenv("LIBTREL_ROOT");
        std::string p = rooted ? path : tree + path;
        Outcome o{};
        errno = stale;
        o.rc = call.run(p.c_str(), rooted, tree, o.seen);
        o.err = errno;
        std::string after = snapshot(tree);
        if (call.mutates) o.seen += after;
        if (after != pristine_) {
            for (auto &entry : fs::directory_iterator(tree)) fs::remove_all(entry.path());
            build_tree(tree);
        }
        return o;
    }

private:
    TempRoot root_;
    std::string plain_ = trel_test::make_temp_dir();
    std::string pristine_;
};

void expect_plain_behaviour() {
    Trees trees;
    std::vector<std::string> paths(std::begin(kInsidePaths), std::end(kInsidePaths));
    paths.push_back(long_path());
    for (size_t c = 0; c < std::size(kPlainCalls); c++) {
        const PlainCall &call = kPlainCalls[c];
        for (size_t i = 0; i < paths.size(); i++) {
            const std::string &path = paths[i];
            SCOPED_TRACE(std::string(call.what) + " " + path.substr(0, 40));
            // Stale values the wrappers look at after their own failures,
            // alternating over both calls and paths.
            const int stale = (c + i) % 2 ? ENOENT : ENOSYS;
            EXPECT_EQ(trees.run(call, true, path, stale), trees.run(call, false, path, stale));
        }
    }
}

}  // namespace

// Every escape, through every call that takes a path (the wrapper script has
// a fixed one), lands inside the root; the outside file is never touched.
TEST(PathRoot, EscapesLandInsideTheRoot) {
    if (!has_openat2())
        GTEST_SKIP() << "no openat2 here: WithoutOpenat2EscapesAreRefused covers it";
    const int fds = trel_test::open_fd_count();
    run_escapes(false);
    EXPECT_EQ(trel_test::open_fd_count(), fds);
}

// Inside the tree the wrappers behave as the plain calls on the real paths,
// down to the error codes.  The root itself gives the errors "/" gives.
TEST(PathRoot, WrappersActLikeThePlainCalls) {
    const int fds = trel_test::open_fd_count();
    expect_plain_behaviour();
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
    };
    for (auto &c : at_root) {
        SCOPED_TRACE(c.what);
        errno = 0;
        int rc = c.call();
        int err = errno;
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(err, c.err);
    }
}

// A rename between the root and the working directory: each name resolves
// on its own side.
TEST(PathRoot, RenameBetweenTheRootAndTheWorkingDirectory) {
    TempRoot root;
    root.write("/f", "file");
    const std::string here = trel_test::make_temp_dir();
    char saved[4096];
    ASSERT_NE(getcwd(saved, sizeof saved), nullptr);
    ASSERT_EQ(chdir(here.c_str()), 0);
    EXPECT_EQ(trel::path_rename("/f", "moved"), 0);
    EXPECT_EQ(read_file(here + "/moved"), "file");
    EXPECT_EQ(trel::path_rename("moved", "/g"), 0);
    EXPECT_EQ(root.read("/g"), "file");
    ASSERT_EQ(chdir(saved), 0);
    trel_test::remove_tree(here);
}

// Without openat2 the walk of our own resolves what stays inside exactly as
// the kernel does and refuses every escape with EACCES, touching nothing.
TEST(PathRoot, WithoutOpenat2EscapesAreRefused) {
    trel_test::run_in_child([] {
        hide_openat2();
        if (::testing::Test::HasFatalFailure()) return;
        expect_plain_behaviour();
        run_escapes(true);
    });
}

// fopen modes keep their meaning under a root (opened by descriptor) and
// without one, new files get the same mode, and every stream is
// close-on-exec.
TEST(PathRoot, FopenModesUnderARootMatchThePlainCall) {
    const std::string longest = "r" + std::string(29, 'b');  // 30 characters, "e" still fits
    struct {
        std::string mode;
        const char *after;      // the file "old" after writing "x" (null: not opened)
        const char *read_back;  // from the start after that
        int existing_err;       // when it does not open an existing file
        int missing_err;        // when it does not create a missing one
    } cases[] = {
        {"r", "old", "old", 0, ENOENT},
        {"rb", "old", "old", 0, ENOENT},
        {"r+", "xld", "xld", 0, ENOENT},
        {"rb+", "xld", "xld", 0, ENOENT},
        {"w", "x", "", 0, 0},
        {"w+", "x", "x", 0, 0},
        {"wb+", "x", "x", 0, 0},
        {"a", "oldx", "", 0, 0},
        {"a+", "oldx", "oldx", 0, 0},
        {"ab+", "oldx", "oldx", 0, 0},
        {"re", "old", "old", 0, ENOENT},
        {"wx", nullptr, nullptr, EEXIST, 0},
        {"w+x", nullptr, nullptr, EEXIST, 0},
        {"q", nullptr, nullptr, EINVAL, EINVAL},
        {longest, "old", "old", 0, ENOENT},
        {longest + "b", nullptr, nullptr, EINVAL, EINVAL},
    };
    const mode_t mask = umask(0);
    umask(mask);
    TempRoot root;
    const std::string real = root.path("/m");
    for (bool rooted : {true, false}) {
        rooted ? setenv("LIBTREL_ROOT", root.dir().c_str(), 1) : unsetenv("LIBTREL_ROOT");
        const char *path = rooted ? "/m" : real.c_str();
        for (auto &c : cases) {
            SCOPED_TRACE(c.mode + (rooted ? " under a root" : " without a root"));
            write_file(real, "old");
            errno = 0;
            FILE *f = fopen_format(c.mode.c_str(), "%s", path);
            if (c.after == nullptr) {
                EXPECT_EQ(f, nullptr);
                EXPECT_EQ(errno, c.existing_err);
            } else {
                ASSERT_NE(f, nullptr) << strerror(errno);
                EXPECT_EQ(fcntl(fileno(f), F_GETFD), FD_CLOEXEC);
                fputs("x", f);
                fflush(f);
                rewind(f);
                char buf[16] = "";
                if (fgets(buf, sizeof buf, f) == nullptr) buf[0] = '\0';
                fclose(f);
                EXPECT_STREQ(buf, c.read_back);
                EXPECT_EQ(read_file(real), c.after);
            }
            ::unlink(real.c_str());
            errno = 0;
            f = fopen_format(c.mode.c_str(), "%s", path);
            if (c.missing_err == 0) {
                EXPECT_NE(f, nullptr) << strerror(errno);
                EXPECT_EQ(mode_of(real), 0666 & ~mask);
            } else {
                EXPECT_EQ(f, nullptr);
                EXPECT_EQ(errno, c.missing_err);
            }
            if (f != nullptr) fclose(f);
        }
    }
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
    } cases[] = {
        {"/etc/f", real + "/etc/f"},
        {"/le/f", real + "/etc/f"},
        {"/var/run/new.txt", real + "/var/run/new.txt"},
        {"/le/../var/run/new.txt", real + "/var/run/new.txt"},
        {"/new", real + "/new"},
        {"/var/run/dangling", ""},
        {"/missing/new.txt", ""},
        {"/var/run/..", real + "/var"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.logical);
        trel::RootedPath p(c.logical);
        EXPECT_EQ(p ? std::string(p.c_str()) : "", c.want);
    }
}
