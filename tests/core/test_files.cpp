#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "trel_test.h"

using trel_test::LogCapture;
using trel_test::TempRoot;

TEST(Files, FirstLineReadersAndDefaults) {
    TempRoot root;
    root.write("/a", "first\rrest\nsecond\n");
    root.write("/b", "bell\apart\n");
    root.write("/empty", "");
    char buf[64];

    EXPECT_EQ(fsreadline("/a", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "first");
    EXPECT_EQ(fsreadline("/b", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "bell");
    EXPECT_EQ(fsreadline(nullptr, buf, sizeof buf), -EINVAL);
    EXPECT_EQ(fsreadline("/missing", buf, sizeof buf), -ENOENT);
    // At most size - 1 bytes.
    EXPECT_EQ(fsreadline("/a", buf, 4), 0);
    EXPECT_STREQ(buf, "fir");
    // An empty file leaves the buffer untouched.
    strcpy(buf, "keep");
    errno = 0;
    EXPECT_EQ(fsreadline("/empty", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "keep");

    EXPECT_STREQ(freadline("/missing", buf, sizeof buf, "dflt"), "dflt");
    {
        LogCapture cap;
        strcpy(buf, "junk");
        EXPECT_STREQ(freadline("/missing", buf, sizeof buf, nullptr), "");
        EXPECT_TRUE(cap.contains("libtrel_util.freadline(): NULL pointer for default value"))
            << cap.text();
    }
    // The default is cut to the buffer.
    EXPECT_STREQ(freadline("/missing", buf, 3, "long default"), "lo");
}

TEST(Files, ReadersByKeyAndValue) {
    TempRoot root;
    std::string long_line(300, 'x');
    root.write("/cfg", "# comment\n" + long_line + "needle-late\nmtu = 1500\nname=dev one\n" +
                           "lonely\nserialno=0011AABBCCDD\n");
    char buf[64];
    EXPECT_STREQ(freadvalue("/cfg", "mtu", buf, sizeof buf, "d"), "1500");
    EXPECT_STREQ(freadvalue("/cfg", "name", buf, sizeof buf, "d"), "dev");
    EXPECT_STREQ(freadvalue("/cfg", "serialno", buf, sizeof buf, "d"), "0011AABBCCDD");
    EXPECT_STREQ(freadvalue("/cfg", "lonely", buf, sizeof buf, "d"), "d");  // no second token
    EXPECT_STREQ(freadvalue("/cfg", "mt", buf, sizeof buf, "d"), "d");      // exact match only
    EXPECT_STREQ(freadvalue("/missing", "mtu", buf, sizeof buf, "d"), "d");

    EXPECT_EQ(fsreadlinebykey("/cfg", "mtu", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "mtu = 1500\n");
    EXPECT_EQ(fsreadlinebykey("/cfg", "absent", buf, sizeof buf), -1);
    EXPECT_EQ(fsreadlinebykey("/missing", "mtu", buf, sizeof buf), -1);
    EXPECT_EQ(fsreadlinebykey("/cfg", nullptr, buf, sizeof buf), -1);
    // Long lines come in 254-character pieces; the piece holding the needle wins.
    EXPECT_EQ(fsreadlinebykey("/cfg", "needle", buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf), std::string(46, 'x') + "needle-late\n");
}

TEST(Files, NumberReadersUseTheirBases) {
    TempRoot root;
    root.write("/n1", "12abc\n");
    root.write("/hex", "0x1f\n");
    root.write("/neg", "-42\n");
    root.write("/dbl", "2.5e3\n");
    root.write("/junk", "abc\n");
    EXPECT_EQ(freadlong("/n1", -1), 12);
    EXPECT_EQ(freadlong("/missing", 77), 77);
    EXPECT_EQ(freadlong("/junk", 5), 5);
    EXPECT_EQ(freadlong("/hex", 9), 0);
    EXPECT_EQ(freadlong("/neg", 0), -42);
    EXPECT_EQ(freadulong("/n1", 3), 12u);
    EXPECT_EQ(freadulong("/missing", 3), 3u);
    EXPECT_DOUBLE_EQ(freaddouble("/dbl", 0), 2500.0);
    EXPECT_DOUBLE_EQ(freaddouble("/missing", 1.5), 1.5);

    EXPECT_EQ(freadlongat(AT_FDCWD, "/hex", 9), 31);
    EXPECT_EQ(freadi64at(AT_FDCWD, "/hex", 9), 31);
    EXPECT_EQ(freadlongat(AT_FDCWD, "/junk", 9), 9);
    EXPECT_EQ(freadlongat(AT_FDCWD, "/missing", 8), 8);
    root.write("/long", "123456789012345678\n");  // only 15 characters are read
    EXPECT_EQ(freadi64at(AT_FDCWD, "/long", 0), 123456789012345LL);
}

TEST(Files, WritersAndCounters) {
    TempRoot root;
    EXPECT_EQ(fwriteline("/w", "%s-%d", "a", 5), 3);
    EXPECT_EQ(root.read("/w"), "a-5");
    EXPECT_EQ(fwriteline("/no/such/dir/w", "x"), -1);

    EXPECT_EQ(faddlong("/count", 5), 0);
    EXPECT_EQ(faddlong("/count", -7), 0);
    EXPECT_EQ(root.read("/count"), "-2\n");

    EXPECT_EQ(faddlongat(AT_FDCWD, "/c2", 5), 0);
    EXPECT_EQ(root.read("/c2"), "5\n");
    struct stat st;
    ASSERT_EQ(stat(root.path("/c2").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    root.write("/c3", "0x10\n");
    EXPECT_EQ(faddi64at(AT_FDCWD, "/c3", 1), 0);
    EXPECT_EQ(root.read("/c3"), "17\n");
    root.write("/c4", "garbage that is long\n");
    EXPECT_EQ(faddlongat(AT_FDCWD, "/c4", 3), 0);
    EXPECT_EQ(root.read("/c4"), "3\n");
    EXPECT_EQ(faddlongat(AT_FDCWD, "/no/dir/c", 3), -1);

    // Relative to a directory descriptor.
    root.mkdir("/d");
    int dfd = open(root.path("/d").c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(dfd, 0);
    EXPECT_EQ(fwritelongat(dfd, "v", 123), 0);
    EXPECT_EQ(root.read("/d/v"), "123\n");
    EXPECT_EQ(fwritelineat(dfd, "l", "%s\n", "hello"), 6);
    char buf[16];
    EXPECT_STREQ(freadlineat(dfd, "l", buf, sizeof buf, "d"), "hello");
    EXPECT_STREQ(freadlineat(dfd, "missing", buf, sizeof buf, "d"), "d");
    EXPECT_EQ(freadlongat(dfd, "v", 0), 123);
    close(dfd);

    // touch creates without truncating and sets the mode.
    root.write("/t", "keep");
    EXPECT_EQ(touch_file("/t", 0640), 0);
    EXPECT_EQ(root.read("/t"), "keep");
    EXPECT_EQ(touch_file("/t2", 0600), 0);
    ASSERT_EQ(stat(root.path("/t2").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    LogCapture cap;
    EXPECT_EQ(touch_file("/no/dir/t", 0600), -1);
    EXPECT_TRUE(cap.contains("libtrel_status.touch_file(): /no/dir/t - 2/No such file or directory"))
        << cap.text();
}

TEST(Files, CommentOutLinesReplacesTheFirstCharacter) {
    TempRoot root;
    std::string long_line(300, 'y');
    std::string p = root.write("/f", "foo=1\nbaz=2\n#bar=3\nqux bar\n" + long_line + "\nend foo\n");
    FILE *f = fopen(p.c_str(), "r+");
    ASSERT_NE(f, nullptr);
    char patterns[] = "foo|bar";
    EXPECT_EQ(comment_out_lines(f, patterns), -1);  // the long line
    fclose(f);
    EXPECT_EQ(root.read("/f"), "#oo=1\nbaz=2\n#bar=3\n#ux bar\n" + long_line + "\n#nd foo\n");

    char one[] = "baz";
    root.write("/g", "a\nbaz\n");
    f = fopen(root.path("/g").c_str(), "r+");
    EXPECT_EQ(comment_out_lines(f, one), 0);
    fclose(f);
    EXPECT_EQ(root.read("/g"), "a\n#az\n");
}

TEST(Files, ReducePath) {
    char out[4096];
    struct {
        const char *in, *want;
    } cases[] = {
        {"/a//b/./c/../d/", "/a/b/d"}, {"/..", "/"},       {"./", "."},         {".", "."},
        {"a/../b", "b"},               {"a/b/../../c", "c"}, {"/a/..", "/"},    {"//", "/"},
        {"./x/./y", "x/y"},            {"a/./", "a"},        {"/a/b/..", "/a"}, {"a/..", "."},
        {"/./", "/"},                  {"/a/.b/..c", "/a/.b/..c"}, {"././x", "x"},
        {"a/.././b", "b"},
    };
    for (auto &c : cases) {
        ASSERT_NE(qx_reduce_path(c.in, out), nullptr) << c.in;
        EXPECT_STREQ(out, c.want) << c.in;
    }
    // A leading ".." starts from the parent of the working directory.
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    std::string parent(cwd);
    parent = parent.substr(0, parent.rfind('/'));
    for (const char *in : {"../x", "./../x", "..//x/", "a/../../x"}) {
        char *owned = qx_reduce_path(in, nullptr);
        ASSERT_NE(owned, nullptr);
        EXPECT_EQ(std::string(owned), parent + "/x") << in;
        free(owned);
    }

    std::string too_long = "/" + std::string(4095, 'a');
    errno = 0;
    EXPECT_EQ(qx_reduce_path(too_long.c_str(), out), nullptr);
    EXPECT_EQ(errno, ENAMETOOLONG);
    std::string just_fits = "/" + std::string(4094, 'a');
    EXPECT_NE(qx_reduce_path(just_fits.c_str(), out), nullptr);
}

TEST(Files, MkdirPCreatesParentsAndRefusesFiles) {
    TempRoot root;
    EXPECT_EQ(qx_mkdir_p("/x/y/z", 0755), 0);
    EXPECT_EQ(errno, 0);
    struct stat st;
    ASSERT_EQ(stat(root.path("/x/y/z").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    errno = EINVAL;
    EXPECT_EQ(qx_mkdir_p("/x/y/z", 0755), 0);  // already there
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(qx_mkdir_p("/x//y/./w/", 0700), 0);
    ASSERT_EQ(stat(root.path("/x/y/w").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);

    root.write("/tmp/x", "file");
    errno = 0;
    EXPECT_EQ(qx_mkdir_p("/tmp/x/y/z", 0755), -1);
    EXPECT_EQ(errno, ENOTDIR);
    errno = 0;
    EXPECT_EQ(qx_mkdir_p("/tmp/x", 0755), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST(Files, NoDescriptorLeaks) {
    TempRoot root;
    root.write("/v", "1\n");
    int before = trel_test::open_fd_count();
    char buf[32];
    for (int i = 0; i < 50; i++) {
        freadline("/v", buf, sizeof buf, "");
        freadvalue("/v", "1", buf, sizeof buf, "");
        faddlong("/v", 1);
        faddlongat(AT_FDCWD, "/v2", 1);
        freadlongat(AT_FDCWD, "/v2", 0);
        freadlineat(AT_FDCWD, "/v2", buf, sizeof buf, "");
        fwritelongat(AT_FDCWD, "/v3", i);
        touch_file("/v4", 0600);
        qx_mkdir_p("/d/e", 0755);
        FILE *f = fopen_format("r", "/%s", "v");
        ASSERT_NE(f, nullptr);
        fclose(f);
    }
    EXPECT_EQ(trel_test::open_fd_count(), before);
    EXPECT_EQ(freadlong("/v", 0), 51);
}
