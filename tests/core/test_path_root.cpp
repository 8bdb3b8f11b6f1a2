#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "trel_test.h"

using trel_test::TempRoot;

TEST(PathRoot, AbsolutePathsResolveUnderTheRoot) {
    TempRoot root;
    root.write("/etc/hostname", "snapshot\n");
    char buf[64];
    EXPECT_EQ(fsreadline("/etc/hostname", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "snapshot");

    // A trailing slash on the root changes nothing.
    std::string with_slash = root.dir() + "/";
    setenv("LIBTREL_ROOT", with_slash.c_str(), 1);
    EXPECT_EQ(fsreadline("/etc/hostname", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "snapshot");
    setenv("LIBTREL_ROOT", root.dir().c_str(), 1);

    // Relative paths stay relative to the working directory.
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(root.path("/etc").c_str()), 0);
    EXPECT_EQ(fsreadline("hostname", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "snapshot");
    ASSERT_EQ(chdir(cwd), 0);

    // Writers create under the root too.
    root.mkdir("/var/run");
    EXPECT_EQ(fwriteline("/var/run/state", "on"), 2);
    EXPECT_EQ(root.read("/var/run/state"), "on");
}

TEST(PathRoot, TooLongResolvedPathFailsCleanly) {
    TempRoot root;
    std::string deep = "/" + std::string(4090, 'd');
    char buf[16] = "unchanged";
    EXPECT_EQ(fsreadline(deep.c_str(), buf, sizeof buf), -ENAMETOOLONG);
    EXPECT_STREQ(buf, "unchanged");
}

TEST(PathRoot, UnsetRootUsesRealPaths) {
    unsetenv("LIBTREL_ROOT");
    std::string dir = trel_test::make_temp_dir();
    trel_test::write_file(dir + "/f", "real\n");
    char buf[16];
    EXPECT_EQ(fsreadline((dir + "/f").c_str(), buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "real");
    trel_test::remove_tree(dir);
}
