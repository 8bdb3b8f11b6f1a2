#include "core/path_root.h"

#include <errno.h>
#include <linux/openat2.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string_view>
#include <utility>

#include "core/raii.h"

namespace trel {

namespace {

constexpr std::string_view kRealPaths[] = {"/dev/urandom", "/dev/kmsg"};
constexpr int kRaceRetries = 8;  // openat2 asks for a retry when a rename raced a ".."
constexpr size_t kModeMax = 32;  // an fopen mode with "e" added

bool stays_real(std::string_view path) noexcept {
    for (auto p : kRealPaths)
        if (path == p) return true;
    return false;
}

int fail(int err) noexcept {
    errno = err;
    return -1;
}

// The root a logical path resolves under, or null when the plain call applies.
const char *root_for(const char *path) noexcept {
    if (path == nullptr || path[0] != '/' || stays_real(path)) return nullptr;
    return path_root();
}

// A logical path as seen from the root: no leading slash, "." for the root.
const char *from_root(const char *path) noexcept {
    while (*path == '/') path++;
    return *path != '\0' ? path : ".";
}

// The name through which the calls that take no descriptor reach one.
struct FdName {
    explicit FdName(int fd) noexcept { snprintf(text, sizeof text, "/proc/self/fd/%d", fd); }
    char text[32];
};

// Without openat2: walks path from the root one component at a time, reads
// each symlink and splices its target into what is left, and refuses with
// EACCES what would leave the root (".." above it, an absolute symlink)
// instead of following it.  The end of the walk is opened as open(2) would.
int open_beneath(int rootfd, const char *path, int flags, mode_t mode) noexcept {
    char left[PATH_MAX];  // what is still to walk
    size_t n = strlen(path);
    if (n >= sizeof left) return fail(ENAMETOOLONG);
    memcpy(left, path, n + 1);
    UniqueFd dir(fcntl(rootfd, F_DUPFD_CLOEXEC, 0));
    if (!dir) return -1;
    // open follows a last symlink unless told not to or creating exclusively.
    const bool follow_last =
        (flags & O_NOFOLLOW) == 0 && (flags & (O_CREAT | O_EXCL)) != (O_CREAT | O_EXCL);
    int depth = 0;  // directories below the root
    int links = 0;
    char *p = left;
    for (;;) {
        while (*p == '/') p++;
        if (*p == '\0') return openat(dir.get(), ".", flags | O_CLOEXEC, mode);
        char *end = p + strcspn(p, "/");
        char *next = end;
        while (*next == '/') next++;
        const bool last = *next == '\0';
        const bool slash = next != end;  // a trailing slash wants a directory, followed
        std::string_view name(p, (size_t)(end - p));
        if (name.size() > NAME_MAX) return fail(ENAMETOOLONG);
        char comp[NAME_MAX + 1];
        memcpy(comp, name.data(), name.size());
        comp[name.size()] = '\0';
        if (name == "." || name == "..") {
            if (name == "..") {
                if (depth == 0) return fail(EACCES);
                UniqueFd up(openat(dir.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
                if (!up) return -1;
                dir = std::move(up);
                depth--;
            }
            p = next;
            continue;
        }
        if (last && !slash && !follow_last) return openat(dir.get(), comp, flags | O_CLOEXEC, mode);
        char target[PATH_MAX];
        ssize_t len = readlinkat(dir.get(), comp, target, sizeof target);
        if (len >= 0) {
            if ((size_t)len == sizeof target) return fail(ENAMETOOLONG);
            if (++links > kMaxSymlinks) return fail(ELOOP);
            if (target[0] == '/') return fail(EACCES);
            size_t rest = strlen(end);  // from the slash after the link on
            if ((size_t)len + rest >= sizeof left) return fail(ENAMETOOLONG);
            memmove(left + len, end, rest + 1);
            memcpy(left, target, (size_t)len);
            p = left;
            continue;
        }
        // Not a symlink (EINVAL), or missing, which only the last may be.
        if (last) return openat(dir.get(), p, flags | O_CLOEXEC | (slash ? 0 : O_NOFOLLOW), mode);
        if (errno != EINVAL) return -1;
        UniqueFd sub(openat(dir.get(), comp, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!sub) return -1;
        dir = std::move(sub);
        depth++;
        p = next;
    }
}

// open(2) of a path seen from the root, resolved inside it.
int open_in_root(int rootfd, const char *path, int flags, mode_t mode) noexcept {
    const int saved = errno;  // a success leaves errno as the plain call would
    struct open_how how = {};
    how.flags = static_cast<uint64_t>(static_cast<unsigned>(flags | O_CLOEXEC));
    // openat2 refuses a mode it would not use.
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) how.mode = mode & 07777;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    int fd;
    for (int i = 0;; i++) {
        fd = (int)syscall(SYS_openat2, rootfd, path, &how, sizeof how);
        if (fd >= 0 || errno != EAGAIN || i == kRaceRetries) break;
    }
    if (fd < 0 && errno == ENOSYS) fd = open_beneath(rootfd, path, flags, mode);
    if (fd >= 0) errno = saved;
    return fd;
}

// open(2) of a logical path under root.
int open_rooted(const char *root, const char *path, int flags, mode_t mode = 0) noexcept {
    UniqueFd rootfd(open(root, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!rootfd) return -1;
    return open_in_root(rootfd.get(), from_root(path), flags, mode);
}

// The plain call when path does not resolve under a root, else the rooted one.
template <typename Plain, typename Rooted>
auto with_path(const char *path, Plain plain, Rooted rooted) noexcept {
    const char *root = root_for(path);
    return root == nullptr ? plain() : rooted(root);
}

// Runs fn on a descriptor, opened with flags, of what a logical path names.
template <typename Fn>
auto on_file(const char *root, const char *path, int flags, Fn fn) noexcept {
    UniqueFd fd(open_rooted(root, path, flags));
    return fd ? fn(fd.get()) : decltype(fn(0))(-1);
}

// Where the calls that act on a name (mkdir, unlink, rmdir, rename) act: the
// directory holding the last component, resolved inside the root, and that
// component as written, trailing slashes included, so that the kernel never
// follows it.  A last component of ".", ".." or nothing (the root itself)
// names a directory, which is resolved whole and acted on as ".".  Paths
// outside any root act relative to the working directory, as given.
class NameAt {
public:
    NameAt(const char *root, const char *path) noexcept : name_(path) {
        if (root == nullptr) return;
        const char *rel = path;  // absolute: the parent keeps its leading slash
        size_t end = strlen(rel);
        while (end > 0 && rel[end - 1] == '/') end--;
        size_t start = end;
        while (start > 0 && rel[start - 1] != '/') start--;
        last_ = std::string_view(rel + start, end - start);
        if (last_.empty() || last_ == "." || last_ == "..") {
            owned_.reset(open_rooted(root, path, O_PATH | O_DIRECTORY));
            name_ = ".";
        } else {
            char parent[PATH_MAX];
            if (start >= sizeof parent) {
                errno = ENAMETOOLONG;
            } else {
                memcpy(parent, rel, start);
                parent[start] = '\0';
                owned_.reset(open_rooted(root, parent, O_PATH | O_DIRECTORY));
            }
            name_ = rel + start;
        }
        dir_ = owned_.get();
    }

    explicit operator bool() const noexcept { return dir_ != -1; }
    int dir() const noexcept { return dir_; }
    const char *name() const noexcept { return name_; }
    // The last component as written; empty for the root.
    std::string_view last() const noexcept { return last_; }

private:
    UniqueFd owned_;
    int dir_ = AT_FDCWD;
    const char *name_;
    std::string_view last_;
};

// The open flags of an fopen mode, read as the C library reads it: "r", "w"
// or "a", then up to six more characters of which "+" and "x" count.
bool fopen_flags(const char *mode, int *flags) noexcept {
    int access = O_WRONLY;
    int extra = 0;
    switch (mode[0]) {
        case 'r':
            access = O_RDONLY;
            break;
        case 'w':
            extra = O_CREAT | O_TRUNC;
            break;
        case 'a':
            extra = O_CREAT | O_APPEND;
            break;
        default:
            errno = EINVAL;
            return false;
    }
    for (int i = 1; i < 7 && mode[i] != '\0'; i++) {
        if (mode[i] == '+') access = O_RDWR;
        if (mode[i] == 'x') extra |= O_EXCL;
    }
    *flags = access | extra;
    return true;
}

// mode with "e" (close-on-exec) put after its first letter unless it holds
// one already; out has room for any mode path_fopen takes.
const char *with_cloexec(const char *mode, char (&out)[kModeMax]) noexcept {
    if (mode[0] == '\0' || strchr(mode, 'e') != nullptr) return mode;
    out[0] = mode[0];
    out[1] = 'e';
    memcpy(out + 2, mode + 1, strlen(mode));
    return out;
}

}  // namespace

const char *path_root() noexcept {
    const char *root = secure_getenv("LIBTREL_ROOT");
    if (root == nullptr || root[0] == '\0') return nullptr;
    return root;
}

RootedPath::RootedPath(const char *logical) noexcept : resolved_(logical) {
    buf_[0] = '\0';
    const char *root = root_for(logical);
    if (root == nullptr) return;
    resolved_ = nullptr;
    UniqueFd fd(open_rooted(root, logical, O_PATH));
    // A file yet to be made: its directory resolved inside the root and the
    // name as written, when nothing at all stands there (not even a dangling
    // symlink, which could point out of the root).
    const bool missing = !fd && errno == ENOENT;
    NameAt at(missing ? root : nullptr, logical);
    int dir = fd.get();
    const char *name = nullptr;
    if (missing) {
        struct stat st;
        if (!at || at.last().empty() || at.last() == "." || at.last() == ".." ||
            strchr(at.name(), '/') != nullptr)
            return;
        if (fstatat(at.dir(), at.name(), &st, AT_SYMLINK_NOFOLLOW) == 0 || errno != ENOENT) {
            errno = ENOENT;
            return;
        }
        dir = at.dir();
        name = at.name();
    }
    if (dir < 0) return;
    ssize_t n = readlink(FdName(dir).text, buf_, sizeof buf_);
    if (n < 0) return;
    if (name != nullptr) {
        size_t len = strlen(name);
        if ((size_t)n + 1 + len >= sizeof buf_) {
            errno = ENAMETOOLONG;
            return;
        }
        if (n > 1)
            buf_[n++] = '/';
        else
            n = 1;  // the root directory is "/"
        memcpy(buf_ + n, name, len);
        n += (ssize_t)len;
    }
    if ((size_t)n >= sizeof buf_) {
        errno = ENAMETOOLONG;
        return;
    }
    buf_[n] = '\0';
    resolved_ = buf_;
}

FILE *path_fopen(const char *path, const char *mode) noexcept {
    // Modes too long to take an "e" are refused alike with and without a root.
    if (strlen(mode) + 2 > kModeMax) {
        errno = EINVAL;
        return nullptr;
    }
    const char *root = root_for(path);
    if (root == nullptr) {
        char buf[kModeMax];
        return fopen(path, with_cloexec(mode, buf));
    }
    int flags;
    if (!fopen_flags(mode, &flags)) return nullptr;
    UniqueFd fd(open_rooted(root, path, flags, 0666));
    if (!fd) return nullptr;
    // The stream's mode comes from the flags the whole mode gave: fdopen reads
    // fewer of its characters than fopen does.
    const int access = flags & O_ACCMODE;
    const bool append = (flags & O_APPEND) != 0;
    const char *stream_mode = access == O_RDONLY   ? "r"
                              : access == O_WRONLY ? (append ? "a" : "w")
                                                   : (append ? "a+" : "r+");
    FILE *f = fdopen(fd.get(), stream_mode);
    if (f != nullptr) fd.release();
    return f;
}

int path_open(const char *path, int flags, mode_t mode) noexcept {
    return with_path(
        path, [&] { return open(path, flags | O_CLOEXEC, mode); },
        [&](const char *root) { return open_rooted(root, path, flags, mode); });
}

int path_openat(int dirfd, const char *path, int flags, mode_t mode) noexcept {
    return with_path(
        path, [&] { return openat(dirfd, path, flags | O_CLOEXEC, mode); },
        [&](const char *root) { return open_rooted(root, path, flags, mode); });
}

int path_stat(const char *path, struct stat *st) noexcept {
    return with_path(
        path, [&] { return stat(path, st); },
        [&](const char *root) {
            return on_file(root, path, O_PATH, [&](int fd) { return fstat(fd, st); });
        });
}

int path_lstat(const char *path, struct stat *st) noexcept {
    // O_PATH with O_NOFOLLOW opens a last symlink itself (a trailing slash
    // still follows it, as for lstat).
    return with_path(
        path, [&] { return lstat(path, st); },
        [&](const char *root) {
            return on_file(root, path, O_PATH | O_NOFOLLOW,
                           [&](int fd) { return fstatat(fd, "", st, AT_EMPTY_PATH); });
        });
}

int path_access(const char *path, int mode) noexcept {
    return with_path(
        path, [&] { return access(path, mode); },
        [&](const char *root) {
            return on_file(root, path, O_PATH,
                           [&](int fd) { return access(FdName(fd).text, mode); });
        });
}

int path_chmod(const char *path, mode_t mode) noexcept {
    return with_path(
        path, [&] { return chmod(path, mode); },
        [&](const char *root) {
            return on_file(root, path, O_PATH,
                           [&](int fd) { return chmod(FdName(fd).text, mode); });
        });
}

ssize_t path_readlink(const char *path, char *buf, size_t size) noexcept {
    return with_path(
        path, [&] { return readlink(path, buf, size); },
        [&](const char *root) {
            return on_file(root, path, O_PATH | O_NOFOLLOW, [&](int fd) -> ssize_t {
                ssize_t n = readlinkat(fd, "", buf, size);
                // The descriptor exists: it is just not a symlink.
                if (n < 0 && errno == ENOENT) return fail(EINVAL);
                return n;
            });
        });
}

DIR *path_opendir(const char *path) noexcept {
    const char *root = root_for(path);
    if (root == nullptr) return opendir(path);  // close-on-exec already
    UniqueFd fd(open_rooted(root, path, O_RDONLY | O_DIRECTORY));
    if (!fd) return nullptr;
    DIR *d = fdopendir(fd.get());
    if (d != nullptr) fd.release();
    return d;
}

int path_mkdir(const char *path, mode_t mode) noexcept {
    return with_path(
        path, [&] { return mkdir(path, mode); },
        [&](const char *root) {
            NameAt at(root, path);
            return at ? mkdirat(at.dir(), at.name(), mode) : -1;
        });
}

int path_unlink(const char *path) noexcept {
    return with_path(
        path, [&] { return unlink(path); },
        [&](const char *root) {
            NameAt at(root, path);
            return at ? unlinkat(at.dir(), at.name(), 0) : -1;
        });
}

int path_rmdir(const char *path) noexcept {
    return with_path(
        path, [&] { return rmdir(path); },
        [&](const char *root) {
            NameAt at(root, path);
            if (!at) return -1;
            // Acted on as ".", these two would fail with EINVAL; rmdir
            // gives the root EBUSY and ".." ENOTEMPTY.
            if (at.last().empty()) return fail(EBUSY);
            if (at.last() == "..") return fail(ENOTEMPTY);
            return unlinkat(at.dir(), at.name(), AT_REMOVEDIR);
        });
}

int path_rename(const char *from, const char *to) noexcept {
    const char *from_root_dir = root_for(from);
    const char *to_root_dir = root_for(to);
    if (from_root_dir == nullptr && to_root_dir == nullptr) return rename(from, to);
    // The source first, so that its error is the one reported.
    NameAt a(from_root_dir, from);
    if (!a) return -1;
    NameAt b(to_root_dir, to);
    if (!b) return -1;
    return renameat(a.dir(), a.name(), b.dir(), b.name());
}

ssize_t path_readlinkat(int dirfd, const char *path, char *buf, size_t size) noexcept {
    // A relative name stays relative to dirfd, which was itself opened inside
    // the root; an absolute one resolves like path_readlink.
    if (root_for(path) != nullptr) return path_readlink(path, buf, size);
    return readlinkat(dirfd, path, buf, size);
}

}  // namespace trel
