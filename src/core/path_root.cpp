#include "core/path_root.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string_view>

namespace trel {

namespace {

constexpr std::string_view kRealPaths[] = {"/dev/urandom", "/dev/kmsg"};

bool stays_real(std::string_view path) noexcept {
    for (auto p : kRealPaths)
        if (path == p) return true;
    return false;
}

}  // namespace

const char *path_root() noexcept {
    const char *root = secure_getenv("LIBTREL_ROOT");
    if (root == nullptr || root[0] == '\0') return nullptr;
    return root;
}

RootedPath::RootedPath(const char *logical) noexcept : resolved_(logical) {
    buf_[0] = '\0';
    if (logical == nullptr || logical[0] != '/' || stays_real(logical)) return;
    const char *root = path_root();
    if (root == nullptr) return;
    std::string_view r(root);
    while (r.size() > 1 && r.back() == '/') r.remove_suffix(1);
    if (r == "/") r = {};
    size_t n = strlen(logical);
    if (r.size() + n + 1 > sizeof buf_) {
        resolved_ = nullptr;
        errno = ENAMETOOLONG;
        return;
    }
    memcpy(buf_, r.data(), r.size());
    memcpy(buf_ + r.size(), logical, n + 1);
    resolved_ = buf_;
}

// Runs fn on the resolved path, or fails with ENAMETOOLONG.
template <typename R, typename Fn>
static R with_path(const char *path, R fail, Fn fn) noexcept {
    RootedPath p(path);
    if (!p) return fail;
    return fn(p.c_str());
}

FILE *path_fopen(const char *path, const char *mode) noexcept {
    return with_path(path, static_cast<FILE *>(nullptr), [&](const char *p) { return fopen(p, mode); });
}

int path_open(const char *path, int flags, mode_t mode) noexcept {
    return with_path(path, -1, [&](const char *p) { return open(p, flags, mode); });
}

int path_openat(int dirfd, const char *path, int flags, mode_t mode) noexcept {
    return with_path(path, -1, [&](const char *p) { return openat(dirfd, p, flags, mode); });
}

int path_stat(const char *path, struct stat *st) noexcept {
    return with_path(path, -1, [&](const char *p) { return stat(p, st); });
}

int path_lstat(const char *path, struct stat *st) noexcept {
    return with_path(path, -1, [&](const char *p) { return lstat(p, st); });
}

int path_access(const char *path, int mode) noexcept {
    return with_path(path, -1, [&](const char *p) { return access(p, mode); });
}

int path_mkdir(const char *path, mode_t mode) noexcept {
    return with_path(path, -1, [&](const char *p) { return mkdir(p, mode); });
}

int path_chmod(const char *path, mode_t mode) noexcept {
    return with_path(path, -1, [&](const char *p) { return chmod(p, mode); });
}

int path_unlink(const char *path) noexcept {
    return with_path(path, -1, [&](const char *p) { return unlink(p); });
}

int path_rmdir(const char *path) noexcept {
    return with_path(path, -1, [&](const char *p) { return rmdir(p); });
}

int path_rename(const char *from, const char *to) noexcept {
    RootedPath f(from);
    RootedPath t(to);
    if (!f || !t) return -1;
    return rename(f.c_str(), t.c_str());
}

DIR *path_opendir(const char *path) noexcept {
    return with_path(path, static_cast<DIR *>(nullptr), [&](const char *p) { return opendir(p); });
}

ssize_t path_readlink(const char *path, char *buf, size_t size) noexcept {
    return with_path(path, static_cast<ssize_t>(-1),
                     [&](const char *p) { return readlink(p, buf, size); });
}

ssize_t path_readlinkat(int dirfd, const char *path, char *buf, size_t size) noexcept {
    return with_path(path, static_cast<ssize_t>(-1),
                     [&](const char *p) { return readlinkat(dirfd, p, buf, size); });
}

}  // namespace trel
