// Helpers for small files holding one value or a few lines.  Each call opens
// and closes the file itself.
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <type_traits>

#include "core/log.h"
#include "core/path_root.h"
#include "core/raii.h"
#include "core/text.h"

using trel::copy_text;

namespace {

constexpr char kUtil[] = "libtrel_util";
// Kept: a BEL ends a line as a newline or a carriage return does; values are
// compared as cut here.
constexpr char kLineCut[] = "\n\r\a";
constexpr int kLineMax = 255;      // fgets buffer of the line scanners
constexpr size_t kNumberMax = 15;  // characters read by the *at number readers
constexpr size_t kPathMax = 4096;

// The default-value fallback shared by the line readers.
void copy_default(char *buf, size_t size, const char *def, const char *function) noexcept {
    if (def == nullptr) {
        if (libtrel_log_level > 0)
            libtrel_log(3, kUtil, function, "NULL pointer for default value");
        def = "";
    }
    copy_text(buf, size, def);
}

FILE *open_at(int dirfd, const char *path, int flags, const char *mode) noexcept {
    int fd = trel::path_openat(dirfd, path, flags | O_CLOEXEC, 0600);
    if (fd < 0) return nullptr;
    FILE *f = fdopen(fd, mode);
    if (f == nullptr) close(fd);
    return f;
}

// Counters wrap like the machine does instead of overflowing.
template <typename T>
T wrapping_add(T a, T b) noexcept {
    using U = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<U>(a) + static_cast<U>(b));
}

// The first number of a file opened relative to dirfd, in base 0.
template <typename T>
bool read_number_at(int fd, T *out) noexcept {
    char buf[kNumberMax + 1];
    ssize_t n = read(fd, buf, kNumberMax);
    if (n <= 0) return false;
    buf[n] = '\0';
    char *end;
    T v;
    // Kept: base 0 here ("0x10" reads 16) but base 10 in the path-based
    // readers ("0x10" reads 0); the callers of each count on their base.
    if constexpr (std::is_same_v<T, long>)
        v = strtol(buf, &end, 0);
    else
        v = strtoll(buf, &end, 0);
    if (end == buf) return false;
    *out = v;
    return true;
}

template <typename T>
T freadnumberat(int dirfd, const char *path, T def) noexcept {
    trel::UniqueFd fd(trel::path_openat(dirfd, path, O_RDONLY | O_CLOEXEC));
    if (!fd) return def;
    T v;
    return read_number_at(fd.get(), &v) ? v : def;
}

template <typename T>
int faddnumberat(int dirfd, const char *path, T delta) noexcept {
    trel::UniqueFd fd(trel::path_openat(dirfd, path, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!fd) return -1;
    T v = 0;
    read_number_at(fd.get(), &v);
    if (ftruncate(fd.get(), 0) != 0) return -1;
    lseek(fd.get(), 0, SEEK_SET);
    dprintf(fd.get(), "%lld\n", wrapping_add<long long>(v, delta));
    return 0;
}

template <typename T, typename Convert>
T freadnumber(const char *path, T def, Convert convert) noexcept {
    char buf[std::is_floating_point_v<T> ? 33 : 16];
    freadline(path, buf, sizeof buf, "null");
    char *end;
    T v = convert(buf, &end);
    return end == buf ? def : v;
}

}  // namespace

TREL_API FILE *fopen_format(const char *mode, const char *fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    trel::MallocPtr<char> path(malloc_vprintf(fmt, ap));
    va_end(ap);
    if (!path) return nullptr;
    return trel::path_fopen(path.get(), mode);
}

TREL_API int fsreadline(const char *path, char *buf, size_t size) noexcept {
    if (path == nullptr || buf == nullptr || size == 0) return -EINVAL;
    trel::UniqueFile f(trel::path_fopen(path, "re"));
    if (!f) return -errno;
    // Kept: an empty file gives minus errno as it stood, so 0 with buf untouched
    // when the caller cleared errno: callers clear it and read that as "".
    if (fgets(buf, (int)(size > INT32_MAX ? INT32_MAX : size), f.get()) == nullptr) return -errno;
    buf[strcspn(buf, kLineCut)] = '\0';
    return 0;
}

TREL_API char *freadline(const char *path, char *buf, size_t size, const char *def) noexcept {
    int rc = fsreadline(path, buf, size);
    if (rc != 0) {
        TREL_DBG2(kUtil, "fsreadline returned error code %d", rc);
        copy_default(buf, size, def, __func__);
    }
    return buf;
}

TREL_API int fsreadlinebykey(const char *path, const char *needle, char *buf,
                             size_t size) noexcept {
    if (path == nullptr || needle == nullptr || buf == nullptr || size == 0) return -1;
    buf[size - 1] = '\0';
    trel::UniqueFile f(trel::path_fopen(path, "re"));
    if (!f) return -1;
    char line[kLineMax];
    while (fgets(line, sizeof line, f.get()) != nullptr) {
        if (strstr(line, needle) != nullptr) {
            strncpy(buf, line, size - 1);
            return 0;
        }
    }
    return -1;
}

TREL_API char *freadvalue(const char *path, const char *key, char *buf, size_t size,
                          const char *def) noexcept {
    if (path != nullptr && key != nullptr) {
        trel::UniqueFile f(trel::path_fopen(path, "re"));
        char line[kLineMax];
        while (f && fgets(line, sizeof line, f.get()) != nullptr) {
            char *save;
            const char *first = strtok_r(line, " \t\r\n=", &save);
            if (first == nullptr || strcmp(first, key) != 0) continue;
            const char *second = strtok_r(nullptr, " \t\r\n=", &save);
            if (second == nullptr) continue;
            copy_text(buf, size, second);
            return buf;
        }
    }
    copy_default(buf, size, def, __func__);
    return buf;
}

TREL_API unsigned long freadulong(const char *path, unsigned long def) noexcept {
    return freadnumber(path, def, [](const char *s, char **end) { return strtoul(s, end, 10); });
}

TREL_API long freadlong(const char *path, long def) noexcept {
    return freadnumber(path, def, [](const char *s, char **end) { return strtol(s, end, 10); });
}

TREL_API double freaddouble(const char *path, double def) noexcept {
    return freadnumber(path, def, [](const char *s, char **end) { return strtod(s, end); });
}

static int vfwriteline(const char *path, const char *fmt, va_list ap) noexcept {
    trel::UniqueFile f(trel::path_fopen(path, "we"));
    if (!f) return -1;
    return vfprintf(f.get(), fmt, ap);
}

TREL_API int fwriteline(const char *path, const char *fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    int n = vfwriteline(path, fmt, ap);
    va_end(ap);
    return n;
}

TREL_API int faddlong(const char *path, long delta) noexcept {
    return fwriteline(path, "%ld\n", wrapping_add(freadlong(path, 0), delta)) < 1 ? -1 : 0;
}

TREL_API int touch_file(const char *path, mode_t mode) noexcept {
    FILE *f = trel::path_fopen(path, "ae");
    int rc = -1;
    if (f != nullptr) {
        fclose(f);
        rc = trel::path_chmod(path, mode);
    }
    if (rc != 0) {
        int err = errno;
        TREL_ERR("libtrel_status", "%s - %i/%s", path, err, strerror(err));
    }
    return rc;
}

TREL_API int comment_out_lines(FILE *stream, char *patterns) noexcept {
    if (stream == nullptr || patterns == nullptr) return -1;
    int result = 0;
    char *save;
    for (char *pattern = strtok_r(patterns, "|", &save); pattern != nullptr;
         pattern = strtok_r(nullptr, "|", &save)) {
        rewind(stream);
        char line[kLineMax + 1];
        while (fgets(line, sizeof line, stream) != nullptr) {
            size_t len = strlen(line);
            if (len == kLineMax && line[len - 1] != '\n') {
                int c;
                while ((c = fgetc(stream)) != EOF && c != '\n') {
                }
                result = -1;
                continue;
            }
            if (strstr(line, pattern) == nullptr) continue;
            fseek(stream, -(long)len, SEEK_CUR);
            // Kept: the first character is replaced, not preceded, so the file
            // keeps its length and is edited in place.
            fputc('#', stream);
            fseek(stream, (long)len - 1, SEEK_CUR);
        }
        fflush(stream);
    }
    return result;
}

TREL_API int faddlongat(int dirfd, const char *path, long delta) noexcept {
    return faddnumberat<long>(dirfd, path, delta);
}

TREL_API int faddi64at(int dirfd, const char *path, int64_t delta) noexcept {
    return faddnumberat<long long>(dirfd, path, delta);
}

TREL_API int fwritelongat(int dirfd, const char *path, long value) noexcept {
    trel::UniqueFile f(open_at(dirfd, path, O_RDWR | O_CREAT | O_TRUNC, "w"));
    if (!f) return -1;
    fprintf(f.get(), "%ld\n", value);
    return 0;
}

TREL_API int fwritelineat(int dirfd, const char *path, const char *fmt, ...) noexcept {
    trel::UniqueFile f(open_at(dirfd, path, O_RDWR | O_CREAT | O_TRUNC, "w"));
    if (!f) return -1;
    va_list ap;
    va_start(ap, fmt);
    int n = vfprintf(f.get(), fmt, ap);
    va_end(ap);
    return n;
}

TREL_API long freadlongat(int dirfd, const char *path, long def) noexcept {
    return freadnumberat<long>(dirfd, path, def);
}

TREL_API int64_t freadi64at(int dirfd, const char *path, int64_t def) noexcept {
    return freadnumberat<long long>(dirfd, path, def);
}

TREL_API char *freadlineat(int dirfd, const char *path, char *buf, size_t size,
                           const char *def) noexcept {
    if (buf == nullptr || size == 0) return buf;
    trel::UniqueFile f(open_at(dirfd, path, O_RDONLY, "r"));
    if (f && fgets(buf, (int)(size > INT32_MAX ? INT32_MAX : size), f.get()) != nullptr) {
        buf[strcspn(buf, kLineCut)] = '\0';
        return buf;
    }
    copy_default(buf, size, def, __func__);
    return buf;
}

TREL_API char *qx_reduce_path(const char *path, char *out) noexcept {
    if (path == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    trel::MallocPtr<char> owned;
    if (out == nullptr) {
        owned.reset(static_cast<char *>(malloc(kPathMax)));
        if (!owned) {
            errno = ENOMEM;
            return nullptr;
        }
        out = owned.get();
    }

    size_t o = 0;
    const char *p = path;
    bool relative = path[0] != '/';
    auto drop_last_component = [&]() {
        while (o > 0 && out[o - 1] != '/') o--;
        bool found = o > 0;
        if (found) o--;
        return found;
    };
    auto at_component_end = [](char c) { return c == '/' || c == '\0'; };

    while (true) {
        // While a relative path has produced nothing: "./" and a lone "." are
        // skipped, ".." continues from the parent of the working directory.
        if (relative && o == 0) {
            if (p[0] == '.' && p[1] == '/') {
                p += 2;
                while (*p == '/') p++;
                continue;
            }
            if (p[0] == '.' && p[1] == '\0') {
                p++;
                continue;
            }
            if (p[0] == '.' && p[1] == '.' && at_component_end(p[2])) {
                if (getcwd(out, kPathMax) == nullptr) {
                    TREL_ERR(kUtil, "Couldn't getcwd for path %s, %s", path, strerror(errno));
                    return nullptr;
                }
                o = strlen(out);
                drop_last_component();
                relative = false;
                p += 2;
                continue;
            }
        }
        if (*p == '\0') break;
        if (p[0] == '/' && p[1] == '.' && p[2] == '.' && at_component_end(p[3])) {
            p += 3;
            if (!drop_last_component() && relative && *p == '/') p++;
            continue;
        }
        if (p[0] == '/' && p[1] == '.' && at_component_end(p[2])) {
            p += 2;
            continue;
        }
        if (p[0] == '/' && at_component_end(p[1])) {
            p++;
            continue;
        }
        if (o >= kPathMax - 1) {
            errno = ENAMETOOLONG;
            return nullptr;
        }
        out[o++] = *p++;
    }
    if (o == 0) out[o++] = relative ? '.' : '/';
    out[o] = '\0';

    if (owned) {
        char *shrunk = static_cast<char *>(realloc(owned.get(), o + 1));
        if (shrunk != nullptr) {
            owned.release();
            return shrunk;
        }
        return owned.release();
    }
    return out;
}

TREL_API int qx_mkdir_p(const char *path, mode_t mode) noexcept {
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    struct stat st;
    if (trel::path_stat(path, &st) == 0) {
        if (S_ISDIR(st.st_mode)) {
            errno = 0;
            return 0;
        }
        errno = ENOTDIR;
        return -1;
    }
    char buf[kPathMax];
    if (qx_reduce_path(path, buf) == nullptr) return -1;

    // Walk back to the deepest ancestor that exists.
    size_t len = strlen(buf);
    size_t start = 0;  // offset where the first missing component begins
    for (size_t cut = len; cut > 0;) {
        while (cut > 0 && buf[cut - 1] != '/') cut--;
        if (cut <= 1) break;  // reached "/" or the start of a relative path
        buf[cut - 1] = '\0';
        int rc = trel::path_stat(buf, &st);
        int err = errno;
        buf[cut - 1] = '/';
        if (rc == 0) {
            if (!S_ISDIR(st.st_mode)) {
                errno = ENOTDIR;
                return -1;
            }
            start = cut;
            break;
        }
        if (err != ENOENT) {
            errno = err;
            return -1;
        }
        cut--;
    }

    // Create each missing component in order.
    for (size_t i = start + 1; i <= len; i++) {
        if (buf[i] != '/' && buf[i] != '\0') continue;
        char saved = buf[i];
        buf[i] = '\0';
        int rc = trel::path_mkdir(buf, mode);
        int err = errno;
        buf[i] = saved;
        if (rc != 0 && !(err == EEXIST && trel::path_stat(buf, &st) == 0 && S_ISDIR(st.st_mode))) {
            errno = err;
            return -1;
        }
    }
    errno = 0;
    return 0;
}
