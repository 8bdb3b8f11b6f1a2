// Snapshot command: copies every file the library reads on a device (the
// table of core/device_files.h) into a directory or a gzipped tar, so that
// "trel --root" and LIBTREL_ROOT replay the device at a desk.
//
// The source is read through the library's own path layer: under --root (or
// LIBTREL_ROOT) it is that snapshot, resolved as the library resolves it.
// The destination is a real directory, written below a descriptor of it with
// O_NOFOLLOW at every step, so nothing is ever written through a symlink.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "core/device_files.h"
#include "core/path_root.h"
#include "core/raii.h"
#include "tool.h"

namespace {

namespace df = trel::device_files;
using trel::UniqueFd;

constexpr int kMaxDepth = 16;  // directory levels copied below the top of a tree
constexpr size_t kChunk = 65536;
constexpr int kNotWritten = -1;  // a resolve error already counted as a failed write

struct Counts {
    unsigned long files = 0, links = 0, dirs = 0;
    unsigned long long bytes = 0;
    unsigned long absent = 0;   // looked for and not there
    unsigned long cut = 0;      // longer than their bound
    unsigned long skipped = 0;  // unreadable, or of a kind not copied
    unsigned long failed = 0;   // could not be written
};

// Where a source entry is and where its copy goes, as absolute logical paths
// ("" is the root).  They differ only below /proc/self, which the copy keeps
// as a directory of its own rather than a link to the snapshot's own pid.
struct Place {
    std::string src, dst;
};

const char *shown(const std::string &path) { return path.empty() ? "/" : path.c_str(); }

std::string parent_of(const std::string &path) { return path.substr(0, path.rfind('/')); }

std::vector<std::string> components(std::string_view path) {
    std::vector<std::string> out;
    for (std::string_view c; !(c = df::next_component(path)).empty();) out.emplace_back(c);
    return out;
}

bool read_link(const std::string &path, std::string &text) {
    char buf[PATH_MAX];
    ssize_t n = trel::path_readlink(shown(path), buf, sizeof buf);
    if (n < 0) return false;
    if ((size_t)n == sizeof buf) {
        errno = ENAMETOOLONG;
        return false;
    }
    text.assign(buf, (size_t)n);
    return true;
}

// The names in a directory stream other than "." and "..", that keep() lets
// through, sorted.
template <typename Keep>
std::vector<std::string> sorted_names(DIR *d, Keep keep) {
    std::vector<std::string> names;
    while (struct dirent *ent = readdir(d)) {
        std::string_view name = ent->d_name;
        if (name != "." && name != ".." && keep(name)) names.emplace_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool write_all(int fd, const std::string &data) {
    for (size_t done = 0; done < data.size();) {
        ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        done += (size_t)n;
    }
    return true;
}

// Reads at most limit + 1 bytes, so that a longer file shows.  With keep_end,
// a regular file longer than limit is read from its end instead: at most its
// last limit bytes, from the first whole line among them.  False with errno
// when the read fails.
bool read_bounded(int fd, const struct stat &st, size_t limit, bool keep_end, std::string &out) {
    out.clear();
    size_t want = limit + 1;
    const bool tail = keep_end && S_ISREG(st.st_mode) && (size_t)st.st_size > limit;
    // From one byte earlier, to see whether the kept part starts a line.
    if (tail && lseek(fd, st.st_size - (off_t)limit - 1, SEEK_SET) < 0) return false;
    char buf[kChunk];
    while (out.size() < want) {
        ssize_t n = read(fd, buf, std::min(sizeof buf, want - out.size()));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) break;
        out.append(buf, (size_t)n);
    }
    if (tail) {
        size_t nl = out.find('\n');
        out.erase(0, nl == std::string::npos ? 1 : nl + 1);
    }
    return true;
}

class Snapshot {
public:
    Snapshot(int dst, const struct stat &dst_st)
        : dst_(dst), dst_st_(dst_st), live_(trel::path_root() == nullptr) {}

    void take() {
        for (const df::Entry &e : df::kEntries) {
            entry_ = &e;
            if (e.kind == df::Kind::Eeprom)
                copy_eeprom(e);
            else
                expand(e, components(e.pattern), 0, "");
        }
        flush_notes();
    }

    const Counts &counts() const { return n_; }

private:
    // Resolves a logical path as the kernel does (under the root, if any):
    // ".." stops at the root, absolute link texts start again from it.  Each
    // symlink on the way is recreated in the copy when record is set, and the
    // last component is only looked at when follow_last is.  0 or an errno.
    int resolve(const std::string &logical, bool follow_last, bool record, Place &at) {
        std::vector<std::string> todo = components(logical);
        std::reverse(todo.begin(), todo.end());
        at = Place{};
        int links = 0;
        while (!todo.empty()) {
            std::string c = std::move(todo.back());
            todo.pop_back();
            if (c == "..") {
                at = Place{parent_of(at.src), parent_of(at.dst)};
                continue;
            }
            Place next{at.src + "/" + c, at.dst + "/" + c};
            if (todo.empty() && !follow_last) {
                at = std::move(next);
                return 0;
            }
            struct stat st;
            if (trel::path_lstat(next.src.c_str(), &st) != 0) return errno;
            if (!S_ISLNK(st.st_mode)) {
                if (!todo.empty() && !S_ISDIR(st.st_mode)) return ENOTDIR;
                at = std::move(next);
                continue;
            }
            std::string text;
            if (++links > trel::kMaxSymlinks) return ELOOP;
            if (!read_link(next.src, text)) return errno;
            if (next.src == "/proc/self" || next.src == "/proc/thread-self") {
                // The copy keeps a directory here: the source's link names
                // the pid of this very process.
                Place target;
                int err = resolve(text[0] == '/' ? text : at.src + "/" + text, true, false, target);
                if (err != 0) return err;
                at = Place{std::move(target.src), std::move(next.dst)};
                continue;
            }
            if (record && !put_link(next.dst, text, next.src)) return kNotWritten;
            if (text[0] == '/') at = Place{};
            std::vector<std::string> more = components(text);
            todo.insert(todo.end(), more.rbegin(), more.rend());
        }
        return 0;
    }

    bool own_process(const std::string &dir, const std::string &name) const {
        return live_ && dir == "/proc" && name == std::to_string(getpid());
    }

    // Walks a pattern: literal components are taken as they stand, wildcard
    // ones by listing the directory reached so far.
    void expand(const df::Entry &e, const std::vector<std::string> &pattern, size_t i,
                const std::string &prefix) {
        if (i == pattern.size()) return copy(e, prefix);
        const std::string &c = pattern[i];
        if (!df::has_wildcard(c)) return expand(e, pattern, i + 1, prefix + "/" + c);
        Place dir;
        int err = resolve(prefix, true, false, dir);
        if (err != 0) return missing(prefix, err);
        trel::UniqueDir d(trel::path_opendir(shown(dir.src)));
        if (!d) return missing(prefix, errno);
        std::vector<std::string> names =
            sorted_names(d.get(), [&](std::string_view name) { return df::name_matches(c, name); });
        d.reset();
        for (const std::string &name : names)
            if (!own_process(prefix, name)) expand(e, pattern, i + 1, prefix + "/" + name);
    }

    void copy(const df::Entry &e, const std::string &logical) {
        Place at;
        int err = resolve(logical, e.kind != df::Kind::Node, true, at);
        if (err != 0) return missing(logical, err);
        if (e.kind == df::Kind::File) return copy_data(e, logical, at);
        struct stat st;
        if (trel::path_lstat(shown(at.src), &st) != 0) return missing(logical, errno);
        if (e.kind == df::Kind::Tree && !S_ISDIR(st.st_mode))
            return skip(logical, "not a directory");
        copy_entry(e, logical, at, st, 0);
    }

    // One entry as it stands; a directory's contents too in a tree.
    void copy_entry(const df::Entry &e, const std::string &logical, const Place &at,
                    const struct stat &st, int depth) {
        if (S_ISLNK(st.st_mode)) {
            std::string text;
            if (!read_link(at.src, text)) return missing(logical, errno);
            put_link(at.dst, text, logical);
        } else if (S_ISREG(st.st_mode)) {
            copy_data(e, logical, at);
        } else if (!S_ISDIR(st.st_mode)) {
            skip(logical, "not a regular file");
        } else if (st.st_dev == dst_st_.st_dev && st.st_ino == dst_st_.st_ino) {
            skip(logical, "the snapshot's own directory");
        } else {
            trel::UniqueDir d(trel::path_opendir(shown(at.src)));
            if (!d) return missing(logical, errno);
            if (!put_dir(at.dst, logical) || e.kind != df::Kind::Tree) return;
            if (depth == kMaxDepth) return skip(logical, "too deep, contents left out");
            std::vector<std::string> names =
                sorted_names(d.get(), [](std::string_view) { return true; });
            d.reset();
            for (const std::string &name : names) {
                Place child{at.src + "/" + name, at.dst + "/" + name};
                struct stat cst;
                if (trel::path_lstat(child.src.c_str(), &cst) != 0) {
                    missing(logical + "/" + name, errno);
                    continue;
                }
                copy_entry(e, logical + "/" + name, child, cst, depth + 1);
            }
        }
    }

    // The EEPROM partition, found as the board code finds it.
    void copy_eeprom(const df::Entry &e) {
        int index = -1;
        if (trel::UniqueFile mtd{trel::path_fopen("/proc/mtd", "r")}) {
            char line[4096];
            char name[4096];
            while (index < 0 && fgets(line, sizeof line, mtd.get()) != nullptr) {
                int i;
                if (sscanf(line, "mtd%d: %*s %*s \"%4095[^\"]\"", &i, name) == 2 &&
                    strcasecmp(name, "EEPROM") == 0)
                    index = i;
            }
        }
        if (index < 0) return;
        std::string logical(e.pattern);
        logical.replace(logical.find('#'), 1, std::to_string(index));
        Place at;
        int err = resolve(logical, true, true, at);
        if (err != 0) return missing(logical, err);
        copy_data(e, logical, at);
    }

    // A regular file (or, for the EEPROM, a character device), bounded.
    void copy_data(const df::Entry &e, const std::string &logical, const Place &at) {
        const bool device_ok = e.kind == df::Kind::Eeprom;
        auto copyable = [&](const struct stat &st) {
            return S_ISREG(st.st_mode) || (device_ok && S_ISCHR(st.st_mode));
        };
        // Looked at before it is opened: opening some special files acts.
        struct stat st;
        if (trel::path_lstat(shown(at.src), &st) != 0) return missing(logical, errno);
        if (!copyable(st)) return skip(logical, "not a regular file");
        UniqueFd fd(trel::path_open(shown(at.src), O_RDONLY | O_NOFOLLOW | O_NONBLOCK));
        if (!fd || fstat(fd.get(), &st) != 0) return missing(logical, errno);
        if (!copyable(st)) return skip(logical, "not a regular file");
        std::string data;
        if (!read_bounded(fd.get(), st, e.limit, e.keep_end, data)) return missing(logical, errno);
        if (data.size() > e.limit || (e.keep_end && (size_t)st.st_size > e.limit)) {
            data.resize(std::min(data.size(), e.limit));
            // The partition is longer than the board code reads: no news.
            if (!device_ok) {
                n_.cut++;
                note(logical, std::string("longer than ") + std::to_string(e.limit) +
                                  (e.keep_end ? " bytes, kept its end" : " bytes, cut"));
            }
        }
        put_file(at.dst, data, (st.st_mode & 0777) | S_IRUSR | S_IWUSR, logical);
    }

    // One line a note; more of the same note for one table entry (a
    // process's unreadable descriptors) are counted, and told once.
    void note(const std::string &logical, const std::string &what) {
        if (entry_ == last_entry_ && what == last_what_) {
            repeats_++;
            return;
        }
        flush_notes();
        std::cerr << "snapshot: " << shown(logical) << ": " << what << "\n";
        last_entry_ = entry_;
        last_what_ = what;
    }

    void flush_notes() {
        if (repeats_ != 0)
            std::cerr << "snapshot: " << last_entry_->pattern << ": " << repeats_
                      << " more likewise\n";
        repeats_ = 0;
        last_entry_ = nullptr;
    }

    void skip(const std::string &logical, const std::string &why) {
        n_.skipped++;
        note(logical, why + ", skipped");
    }

    // Gone is silent; anything else (no permission, a read error) is told.
    void missing(const std::string &logical, int err) {
        if (err == kNotWritten) return;
        if (err == ENOENT || err == ENOTDIR || err == ESRCH)
            n_.absent++;
        else
            skip(logical, strerror(err));
    }

    void failed(const std::string &logical, const std::string &dst, int err) {
        n_.failed++;
        note(logical, std::string("cannot write ") + shown(dst) + ": " + strerror(err));
    }

    // A directory of the copy, made where missing; never through a symlink.
    UniqueFd dst_dir(const std::string &path) {
        UniqueFd dir(fcntl(dst_, F_DUPFD_CLOEXEC, 0));
        for (const std::string &c : components(path)) {
            if (!dir) break;
            const int flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
            int fd = openat(dir.get(), c.c_str(), flags);
            if (fd < 0 && errno == ENOENT && mkdirat(dir.get(), c.c_str(), 0755) == 0) {
                n_.dirs++;
                fd = openat(dir.get(), c.c_str(), flags);
            }
            dir.reset(fd);
        }
        return dir;
    }

    bool put_dir(const std::string &dst, const std::string &logical) {
        if (dst_dir(dst)) return true;
        failed(logical, dst, errno);
        return false;
    }

    // A symlink with the source's text; one already there with that text is
    // the same link reached again.
    bool put_link(const std::string &dst, const std::string &text, const std::string &logical) {
        UniqueFd dir = dst_dir(parent_of(dst));
        std::string name = dst.substr(dst.rfind('/') + 1);
        if (dir && symlinkat(text.c_str(), dir.get(), name.c_str()) == 0) {
            n_.links++;
            return true;
        }
        int err = errno;
        if (dir && err == EEXIST) {
            char buf[PATH_MAX];
            ssize_t n = readlinkat(dir.get(), name.c_str(), buf, sizeof buf);
            if (n >= 0 && std::string_view(buf, (size_t)n) == text) return true;
        }
        failed(logical, dst, err);
        return false;
    }

    // A file reached twice (through two links) is copied once.
    void put_file(const std::string &dst, const std::string &data, mode_t mode,
                  const std::string &logical) {
        UniqueFd dir = dst_dir(parent_of(dst));
        std::string name = dst.substr(dst.rfind('/') + 1);
        UniqueFd out;
        if (dir)
            out.reset(openat(dir.get(), name.c_str(),
                             O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
        if (!out && errno == EEXIST) return;
        if (!out || !write_all(out.get(), data)) return failed(logical, dst, errno);
        n_.files++;
        n_.bytes += data.size();
    }

    int dst_;
    struct stat dst_st_;
    bool live_;  // the running system, not a snapshot: leave this process out
    Counts n_;
    const df::Entry *entry_ = nullptr;  // the entry being copied
    const df::Entry *last_entry_ = nullptr;
    std::string last_what_;
    unsigned long repeats_ = 0;
};

const char *kind_name(df::Kind k) {
    switch (k) {
        case df::Kind::File:
            return "file";
        case df::Kind::Node:
            return "entry";
        case df::Kind::Tree:
            return "tree";
        case df::Kind::Eeprom:
            return "eeprom";
    }
    return "?";
}

int run_list() {
    json_t *list = trel_tool::options().json ? json_array() : nullptr;
    for (const df::Entry &e : df::kEntries) {
        std::string pattern(e.pattern);
        if (list != nullptr) {
            json_array_append_new(list, json_pack("{s:s, s:s, s:I, s:b}", "path", pattern.c_str(),
                                                  "kind", kind_name(e.kind), "limit",
                                                  (json_int_t)e.limit, "keep_end", e.keep_end));
        } else {
            printf("%-58s %-6s %9zu%s\n", pattern.c_str(), kind_name(e.kind), e.limit,
                   e.keep_end ? " end" : "");
        }
    }
    if (list != nullptr) trel_tool::print_json(list);
    return 0;
}

// Opens DIR, made new or found empty: 0, else the exit status after the
// message (2 for a destination refused, 1 when it cannot be made).
int open_destination(const std::string &path, UniqueFd &out) {
    bool made = mkdir(path.c_str(), 0755) == 0;
    if (!made && errno != EEXIST)
        return trel_tool::fail("cannot make " + path + ": " + strerror(errno));
    out.reset(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!out && errno == ENOTDIR) {
        return trel_tool::bad_input(path + ": exists and is not a directory");
    }
    if (!out) return trel_tool::fail(path + ": " + strerror(errno));
    if (made) return 0;
    trel::UniqueDir d(fdopendir(fcntl(out.get(), F_DUPFD_CLOEXEC, 0)));
    if (!d) return trel_tool::fail(path + ": " + strerror(errno));
    while (struct dirent *e = readdir(d.get())) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) {
            return trel_tool::bad_input(path + ": not empty");
        }
    }
    return 0;
}

int unlink_entry(const char *path, const struct stat *, int, struct FTW *) { return remove(path); }

// A temporary directory for the copy that goes into a tar, removed with it.
struct TempDir {
    bool make() {
        const char *tmp = getenv("TMPDIR");
        std::string tmpl =
            std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/trel-snapshot.XXXXXX";
        if (mkdtemp(tmpl.data()) == nullptr) return false;
        path = tmpl;
        return true;
    }
    ~TempDir() {
        if (!path.empty()) nftw(path.c_str(), unlink_entry, 16, FTW_DEPTH | FTW_PHYS);
    }
    std::string path;
};

// "tar -czf - -C dir ." into fd; true when tar succeeded.
bool run_tar(const std::string &dir, int fd) {
    fflush(stdout);
    pid_t pid = fork();
    if (pid < 0) return false;
    if (pid == 0) {
        if (dup2(fd, 1) < 0) _exit(127);
        execlp("tar", "tar", "-czf", "-", "-C", dir.c_str(), ".", (char *)nullptr);
        _exit(127);
    }
    int status;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void print_counts(const Counts &n, const std::string &where, std::ostream &out) {
    if (trel_tool::options().json && &out == &std::cout) {
        trel_tool::print_json(json_pack(
            "{s:s, s:I, s:I, s:I, s:I, s:I, s:I, s:I, s:I}", "destination", where.c_str(), "files",
            (json_int_t)n.files, "bytes", (json_int_t)n.bytes, "symlinks", (json_int_t)n.links,
            "directories", (json_int_t)n.dirs, "absent", (json_int_t)n.absent, "cut",
            (json_int_t)n.cut, "skipped", (json_int_t)n.skipped, "failed", (json_int_t)n.failed));
        return;
    }
    out << where << ": " << n.files << " files (" << n.bytes << " bytes), " << n.links
        << " symlinks, " << n.dirs << " directories; " << n.absent << " absent, " << n.cut
        << " cut, " << n.skipped << " skipped\n";
}

int run_snapshot(const std::string &dir, const std::string &tar, bool list) {
    if (list) return run_list();
    if (dir.empty() == tar.empty()) {
        std::cerr << "trel snapshot: give DIR or --tar FILE\n";
        return trel_tool::kBadInput;
    }
    UniqueFd dst;
    UniqueFd tar_out;
    TempDir temp;
    std::string where = dir;
    if (!tar.empty()) {
        where = tar;
        if (tar == "-") {
            tar_out.reset(fcntl(1, F_DUPFD_CLOEXEC, 0));
        } else {
            tar_out.reset(open(tar.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
            if (!tar_out && errno == EEXIST) {
                return trel_tool::bad_input(tar + ": exists");
            }
        }
        if (!tar_out) return trel_tool::fail("cannot write " + tar + ": " + strerror(errno));
        if (!temp.make()) {
            int err = errno;
            if (tar != "-") unlink(tar.c_str());
            return trel_tool::fail(std::string("cannot make a temporary directory: ") +
                                   strerror(err));
        }
    }
    if (int rc = open_destination(tar.empty() ? dir : temp.path, dst); rc != 0) return rc;
    struct stat st;
    if (fstat(dst.get(), &st) != 0) return trel_tool::fail(dir + ": " + strerror(errno));
    Snapshot snap(dst.get(), st);
    snap.take();
    const Counts &n = snap.counts();
    if (!tar.empty() && n.failed == 0 && !run_tar(temp.path, tar_out.get())) {
        if (tar != "-") unlink(tar.c_str());
        return trel_tool::fail("tar failed writing " + tar);
    }
    // The tar may be standard output: then the counts go to standard error.
    print_counts(n, where, tar == "-" ? std::cerr : std::cout);
    if (n.failed != 0) {
        if (!tar.empty() && tar != "-") unlink(tar.c_str());
        return trel_tool::fail(std::to_string(n.failed) + " entries could not be written");
    }
    return 0;
}

}  // namespace

void trel_tool::register_snapshot_commands(CLI::App &app) {
    struct Args {
        std::string dir, tar;
        bool list = false;
    };
    auto a = std::make_shared<Args>();
    auto *cmd = app.add_subcommand(
        "snapshot", "Copy every file the library reads into DIR, for trel --root at a desk");
    auto *dir = cmd->add_option("DIR", a->dir, "New or empty directory to copy into");
    cmd->add_option("--tar", a->tar, "Write a gzipped tar to FILE (new; '-': standard output)")
        ->excludes(dir);
    cmd->add_flag("--list", a->list, "Print the paths and patterns copied, with their bounds");
    trel_tool::add_command(cmd, [a] { return run_snapshot(a->dir, a->tar, a->list); });
}
