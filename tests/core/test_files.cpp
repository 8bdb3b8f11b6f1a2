#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "trel_test.h"

namespace {

// Every case runs under a temporary root and must close what it opened.
class Files : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(trel_test::open_fd_count(), fds_); }
    trel_test::TempRoot root;
    int fds_ = trel_test::open_fd_count();
    char buf[64];
};

mode_t mode_of(const std::string &real) {
    struct stat st;
    return stat(real.c_str(), &st) == 0 ? st.st_mode : 0;
}

}  // namespace

TEST_F(Files, LineReadersDefaultsAndTheRoot) {
    root.write("/a", "first\rrest\n");
    root.write("/b", "bell\apart\n");
    root.write("/empty", "");
    EXPECT_STREQ(freadline("/a", buf, sizeof buf, "d"), "first");
    EXPECT_STREQ(freadline("/b", buf, sizeof buf, "d"), "bell");
    EXPECT_EQ(fsreadline("/a", buf, 4), 0);  // at most size - 1 bytes
    EXPECT_STREQ(buf, "fir");
    EXPECT_EQ(fsreadline(nullptr, buf, sizeof buf), -EINVAL);
    EXPECT_EQ(fsreadline("/missing", buf, sizeof buf), -ENOENT);
    errno = 0;
    EXPECT_EQ(fsreadline("/empty", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "fir");  // untouched
    EXPECT_STREQ(freadline("/missing", buf, 3, "long default"), "lo");
    EXPECT_STREQ(freadlineat(AT_FDCWD, "/missing", buf, sizeof buf, "d"), "d");
    // A name too long for the system fails without touching anything.
    EXPECT_EQ(fsreadline(("/" + std::string(4090, 'd')).c_str(), buf, sizeof buf), -ENAMETOOLONG);
    EXPECT_STREQ(buf, "d");
    // Relative paths stay relative to the working directory; without a root
    // the real path is used.
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(root.dir().c_str()), 0);
    EXPECT_STREQ(freadline("a", buf, sizeof buf, "d"), "first");
    ASSERT_EQ(chdir(cwd), 0);
    unsetenv("LIBTREL_ROOT");
    EXPECT_STREQ(freadline(root.path("/b").c_str(), buf, sizeof buf, "d"), "bell");

    trel_test::LogCapture cap;
    EXPECT_STREQ(freadline("/missing", buf, sizeof buf, nullptr), "");
    EXPECT_TRUE(cap.contains("libtrel_util.freadline(): NULL pointer for default value"));
}

TEST_F(Files, KeyAndNumberReaders) {
    root.write("/cfg", std::string(300, 'x') + "needle-late\nmtu = 1500\n");
    EXPECT_STREQ(freadvalue("/cfg", "mtu", buf, sizeof buf, "d"), "1500");
    EXPECT_STREQ(freadvalue("/cfg", "mt", buf, sizeof buf, "d"), "d");  // exact match only
    EXPECT_STREQ(freadvalue("/missing", "mtu", buf, sizeof buf, "d"), "d");
    EXPECT_EQ(fsreadlinebykey("/cfg", "mtu", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "mtu = 1500\n");
    EXPECT_EQ(fsreadlinebykey("/cfg", "absent", buf, sizeof buf), -1);
    EXPECT_EQ(fsreadlinebykey("/cfg", "mtu", buf, 0), -1);
    // Long lines come in 254-character pieces; the piece holding the needle wins.
    EXPECT_EQ(fsreadlinebykey("/cfg", "needle", buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf), std::string(46, 'x') + "needle-late\n");

    root.mkdir("/d");
    int dfd = open(root.path("/d").c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(dfd, 0);
    // Path readers parse base 10, the descriptor-relative ones base 0; both read 15 characters.
    struct {
        const char *text;
        long base10, base0;
    } cases[] = {
        {"7", 7, 7},       {"12abc\n", 12, 12},
        {"0x1f\n", 0, 31}, {"abc\n", -1, -1},
        {nullptr, -1, -1}, {"123456789012345678\n", 123456789012345, 123456789012345},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.text ? c.text : "missing");
        c.text ? (void)root.write("/d/n", c.text) : root.remove("/d/n");
        EXPECT_EQ(freadlong("/d/n", -1), c.base10);
        EXPECT_EQ(freadulong("/d/n", 99), c.base10 < 0 ? 99 : (unsigned long)c.base10);
        EXPECT_EQ(freadlongat(dfd, "n", -1), c.base0);
        EXPECT_EQ(freadi64at(dfd, "n", -1), c.base0);
    }
    close(dfd);
    // Doubles read 32 characters.
    root.write("/dbl", std::string(32, '1') + "5\n");
    EXPECT_DOUBLE_EQ(freaddouble("/dbl", 1.5), strtod(std::string(32, '1').c_str(), nullptr));
    EXPECT_DOUBLE_EQ(freaddouble("/missing", 1.5), 1.5);
}

TEST_F(Files, WritersCountersAndCommentOut) {
    EXPECT_EQ(fwriteline("/w", "%s-%d", "a", 5), 3);
    EXPECT_EQ(root.read("/w"), "a-5");
    EXPECT_EQ(faddlong("/count", 5), 0);
    EXPECT_EQ(faddlong("/count", -7), 0);
    EXPECT_EQ(root.read("/count"), "-2\n");
    EXPECT_EQ(faddlongat(AT_FDCWD, "/c2", 5), 0);
    EXPECT_EQ(root.read("/c2"), "5\n");
    EXPECT_EQ(mode_of(root.path("/c2")), S_IFREG | 0600u);
    root.write("/c3", "0x10 and a long tail\n");
    EXPECT_EQ(faddi64at(AT_FDCWD, "/c3", 1), 0);
    EXPECT_EQ(root.read("/c3"), "17\n");
    EXPECT_EQ(fwritelongat(AT_FDCWD, "/c3", 123), 0);
    EXPECT_EQ(root.read("/c3"), "123\n");
    EXPECT_EQ(fwritelineat(AT_FDCWD, "/no/w", "x"), -1);

    // touch creates without truncating and sets the mode.
    root.write("/t", "keep");
    EXPECT_EQ(touch_file("/t", 0640), 0);
    EXPECT_EQ(root.read("/t"), "keep");
    EXPECT_EQ(mode_of(root.path("/t")), S_IFREG | 0640u);
    trel_test::LogCapture cap;
    EXPECT_EQ(touch_file("/no/t", 0600), -1);
    EXPECT_TRUE(cap.contains("libtrel_status.touch_file(): /no/t - 2/No such file or directory"));

    // comment_out_lines replaces the first character of matching lines.
    std::string long_line(300, 'y');
    root.write("/f", "foo=1\nbaz=2\n#bar=3\n" + long_line + "\nend bar\n");
    FILE *f = fopen_format("r+", "/%c", 'f');
    ASSERT_NE(f, nullptr);
    char patterns[] = "foo|bar";
    EXPECT_EQ(comment_out_lines(nullptr, patterns), -1);
    EXPECT_EQ(comment_out_lines(f, nullptr), -1);
    EXPECT_EQ(comment_out_lines(f, patterns), -1);  // the long line
    fclose(f);
    EXPECT_EQ(root.read("/f"), "#oo=1\nbaz=2\n#bar=3\n" + long_line + "\n#nd bar\n");
}

TEST_F(Files, ReducePathAndMkdirP) {
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    // A leading ".." starts from the parent of the working directory.
    const std::string parent(cwd, strrchr(cwd, '/'));
    const struct {
        const char *in;
        std::string want;
    } cases[] = {
        {"/a//b/./c/../d/", "/a/b/d"},
        {"/..", "/"},
        {"./", "."},
        {"a/b/../../c", "c"},
        {"a/..", "."},
        {"./x/./y", "x/y"},
        {"/a/.b/..c", "/a/.b/..c"},
        {"../x", parent + "/x"},
        {"..//x/", parent + "/x"},
        {"a/../../x", parent + "/x"},
    };
    char out[4096];
    for (auto &c : cases) {
        SCOPED_TRACE(c.in);
        ASSERT_EQ(qx_reduce_path(c.in, out), out);
        EXPECT_EQ(out, c.want);
        char *owned = qx_reduce_path(c.in, nullptr);
        EXPECT_EQ(owned ? owned : "", c.want);
        free(owned);
    }
    errno = 0;
    EXPECT_EQ(qx_reduce_path(("/" + std::string(4095, 'a')).c_str(), out), nullptr);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(qx_reduce_path(("/" + std::string(4094, 'a')).c_str(), out), out);

    // qx_mkdir_p creates missing parents and refuses files on the way.
    EXPECT_EQ(qx_mkdir_p("/x//y/./z/", 0700), 0);
    EXPECT_EQ(mode_of(root.path("/x/y/z")), S_IFDIR | 0700u);
    errno = EINVAL;
    EXPECT_EQ(qx_mkdir_p("/x/y/z", 0755), 0);  // already there
    EXPECT_EQ(errno, 0);
    root.write("/tmp/x", "file");
    for (const char *p : {"/tmp/x/y/z", "/tmp/x"}) {
        SCOPED_TRACE(p);
        errno = 0;
        EXPECT_EQ(qx_mkdir_p(p, 0755), -1);
        EXPECT_EQ(errno, ENOTDIR);
    }
}
