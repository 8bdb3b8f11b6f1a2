#include "trel_test.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace trel_test {

namespace {

void make_parents(const std::string &path) {
    for (size_t i = 1; i < path.size(); i++) {
        if (path[i] == '/') {
            std::string parent = path.substr(0, i);
            ::mkdir(parent.c_str(), 0755);
        }
    }
}

}  // namespace

std::string make_temp_dir() {
    const char *base = getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/trel-test-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) {
        ADD_FAILURE() << "mkdtemp failed";
        return "/tmp";
    }
    return buf.data();
}

void remove_tree(const std::string &path) {
    nftw(
        path.c_str(),
        [](const char *p, const struct stat *, int, struct FTW *) { return ::remove(p); }, 16,
        FTW_DEPTH | FTW_PHYS);
}

void write_file(const std::string &path, const std::string &content, mode_t mode) {
    make_parents(path);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    ASSERT_TRUE(out.good()) << "cannot write " << path;
    ::chmod(path.c_str(), mode);
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

int open_fd_count() {
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    if (d == nullptr) return -1;
    while (struct dirent *e = readdir(d))
        if (e->d_name[0] != '.') n++;
    closedir(d);
    return n - 1;  // the directory stream itself
}

TempRoot::TempRoot() : dir_(make_temp_dir()) {
    if (const char *old = getenv("LIBTREL_ROOT")) {
        saved_ = old;
        had_saved_ = true;
    }
    setenv("LIBTREL_ROOT", dir_.c_str(), 1);
}

TempRoot::~TempRoot() {
    if (had_saved_)
        setenv("LIBTREL_ROOT", saved_.c_str(), 1);
    else
        unsetenv("LIBTREL_ROOT");
    remove_tree(dir_);
}

std::string TempRoot::path(const std::string &logical) const { return dir_ + logical; }

std::string TempRoot::write(const std::string &logical, const std::string &content,
                            mode_t mode) const {
    std::string p = path(logical);
    write_file(p, content, mode);
    return p;
}

void TempRoot::mkdir(const std::string &logical) const {
    std::string p = path(logical) + "/";
    make_parents(p);
}

void TempRoot::remove(const std::string &logical) const { remove_tree(path(logical)); }

bool TempRoot::exists(const std::string &logical) const {
    struct stat st;
    return ::lstat(path(logical).c_str(), &st) == 0;
}

std::string TempRoot::read(const std::string &logical) const { return read_file(path(logical)); }

LogCapture::LogCapture() {
    std::string dir = make_temp_dir();
    file_ = dir + "/stderr";
    int fd = ::open(file_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    fflush(stderr);
    saved_fd_ = fcntl(2, F_DUPFD_CLOEXEC, 10);
    dup2(fd, 2);
    ::close(fd);
    libtrel_log_use_syslog = 0;
}

LogCapture::~LogCapture() {
    fflush(stderr);
    dup2(saved_fd_, 2);
    ::close(saved_fd_);
    std::string dir = file_.substr(0, file_.rfind('/'));
    remove_tree(dir);
}

std::string LogCapture::text() const {
    fflush(stderr);
    return read_file(file_);
}

std::vector<std::string> LogCapture::lines() const {
    std::vector<std::string> out;
    std::istringstream in(text());
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

bool LogCapture::contains(const std::string &needle) const {
    return text().find(needle) != std::string::npos;
}

void LogCapture::clear() {
    fflush(stderr);
    if (ftruncate(2, 0) != 0) ADD_FAILURE() << "cannot clear the log capture";
    lseek(2, 0, SEEK_SET);
}

FakePath::FakePath() : dir_(make_temp_dir()) {
    const char *old = getenv("PATH");
    saved_ = old ? old : "/usr/bin:/bin";
    setenv("PATH", (dir_ + ":" + saved_).c_str(), 1);
}

FakePath::~FakePath() {
    setenv("PATH", saved_.c_str(), 1);
    remove_tree(dir_);
}

std::string FakePath::add(const std::string &name, const std::string &body) const {
    std::string p = dir_ + "/" + name;
    write_file(p, "#!/bin/sh\n" + body + (body.empty() || body.back() != '\n' ? "\n" : ""), 0755);
    return p;
}

void run_in_child(const std::function<void()> &fn) {
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    ASSERT_GE(pid, 0) << "fork failed";
    if (pid == 0) {
        fn();
        fflush(stdout);
        fflush(stderr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status)) << "child ended by signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the child case failed (see its output above)";
}

bool has_multicast_if() {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return true;  // nothing to tell: let the case run
    in_addr any{};            // INADDR_ANY: back to the default interface
    bool ok =
        setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &any, sizeof any) == 0 || errno != ENOPROTOOPT;
    close(fd);
    return ok;
}

bool has_ethtool_ioctl() {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return true;
    ethtool_value link{};
    link.cmd = ETHTOOL_GLINK;
    ifreq ifr{};
    strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    ifr.ifr_data = reinterpret_cast<char *>(&link);
    bool ok = ioctl(fd, SIOCETHTOOL, &ifr) == 0 || (errno != ENOTTY && errno != ENOSYS);
    close(fd);
    return ok;
}

}  // namespace trel_test
