// The path root: when LIBTREL_ROOT is set, every absolute path the library
// touches resolves inside that directory as if it were "/": ".." stops at
// it, and every symlink met on the way, absolute ones included, resolves
// inside it too.  /dev/urandom and /dev/kmsg always stay real; relative paths
// are left alone.  Messages keep showing the logical path; only the system
// calls see the resolved one.
//
// Without a root every wrapper is the one plain system call it names, with
// close-on-exec added where it opens something.  Under a root the kernel
// resolves the path (openat2 with RESOLVE_IN_ROOT) from a descriptor of the
// root; a kernel without openat2 gets a walk of its own that refuses, with
// EACCES, whatever would leave the root instead of following it.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>

namespace trel {

// Symlinks followed in one path before ELOOP, as the kernel allows.
inline constexpr int kMaxSymlinks = 40;

// The real path a logical path resolves to, for what cannot act on a
// descriptor: execv, and file names put into shell commands.  Without a root
// (or for a relative path) it is the logical path itself; under a root it is
// the resolved file's real path, or for a file not there yet, its resolved
// directory and its name.  c_str() is null (errno set as stat would) when the
// path does not resolve.
class RootedPath {
public:
    explicit RootedPath(const char *logical) noexcept;
    RootedPath(const RootedPath &) = delete;
    RootedPath &operator=(const RootedPath &) = delete;

    const char *c_str() const noexcept { return resolved_; }
    explicit operator bool() const noexcept { return resolved_ != nullptr; }

private:
    const char *resolved_;
    char buf_[PATH_MAX];
};

// The root directory, or null when none is set.
const char *path_root() noexcept;

// System calls on logical paths; each fails like the call it wraps.  What
// they open is close-on-exec: O_CLOEXEC is added to the flags and "e" to the
// fopen modes.
FILE *path_fopen(const char *path, const char *mode) noexcept;
int path_open(const char *path, int flags, mode_t mode = 0) noexcept;
int path_openat(int dirfd, const char *path, int flags, mode_t mode = 0) noexcept;
int path_stat(const char *path, struct stat *st) noexcept;
int path_lstat(const char *path, struct stat *st) noexcept;
int path_access(const char *path, int mode) noexcept;
int path_mkdir(const char *path, mode_t mode) noexcept;
int path_chmod(const char *path, mode_t mode) noexcept;
int path_unlink(const char *path) noexcept;
int path_rmdir(const char *path) noexcept;
int path_rename(const char *from, const char *to) noexcept;
DIR *path_opendir(const char *path) noexcept;
ssize_t path_readlink(const char *path, char *buf, size_t size) noexcept;
ssize_t path_readlinkat(int dirfd, const char *path, char *buf, size_t size) noexcept;

}  // namespace trel
