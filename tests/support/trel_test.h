// Shared helpers for the library's tests: a temporary LIBTREL_ROOT with file
// writers, log capture on standard error, fake commands on PATH, and running a
// case in a forked child.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include <libtrel.h>

namespace trel_test {

// A fresh directory set as LIBTREL_ROOT for the life of the object; the
// previous value is restored and the tree removed afterwards.
class TempRoot {
public:
    TempRoot();
    ~TempRoot();
    TempRoot(const TempRoot &) = delete;
    TempRoot &operator=(const TempRoot &) = delete;

    // The real path of a logical absolute path, e.g. "/tmp/system.cfg".
    std::string path(const std::string &logical) const;
    const std::string &dir() const { return dir_; }

    // Writes a file (parents created) and returns its real path.
    std::string write(const std::string &logical, const std::string &content,
                      mode_t mode = 0644) const;
    void mkdir(const std::string &logical) const;
    void remove(const std::string &logical) const;
    bool exists(const std::string &logical) const;
    std::string read(const std::string &logical) const;

private:
    std::string dir_;
    std::string saved_;
    bool had_saved_ = false;
};

// Restores the log level and the syslog switch when it goes out of scope,
// also when an assertion ends the test early.  With a level, sets it too.
class LogSettings {
public:
    LogSettings() = default;
    explicit LogSettings(uint32_t level) { libtrel_log_level = level; }
    ~LogSettings() {
        libtrel_log_level = level_;
        libtrel_log_use_syslog = syslog_;
    }
    LogSettings(const LogSettings &) = delete;
    LogSettings &operator=(const LogSettings &) = delete;

private:
    uint32_t level_ = libtrel_log_level;
    int32_t syslog_ = libtrel_log_use_syslog;
};

// Captures everything written to file descriptor 2 while alive, with the
// logger forced onto standard error.  Restores the log settings on exit.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    // What was captured so far.
    std::string text() const;
    // Captured lines (without their newline).
    std::vector<std::string> lines() const;
    // Whether any captured line contains needle.
    bool contains(const std::string &needle) const;
    void clear();

private:
    LogSettings settings_;
    int saved_fd_ = -1;
    std::string file_;
};

// A directory of fake commands put first on PATH while alive.
class FakePath {
public:
    FakePath();
    ~FakePath();
    FakePath(const FakePath &) = delete;
    FakePath &operator=(const FakePath &) = delete;

    // Adds an executable shell script named name with the given body
    // (a "#!/bin/sh" line is prepended).
    std::string add(const std::string &name, const std::string &body) const;
    const std::string &dir() const { return dir_; }

private:
    std::string dir_;
    std::string saved_;
};

// Runs fn in a forked child and expects it to finish without a test failure;
// gives a fresh copy of every process-wide cache of the library.
void run_in_child(const std::function<void()> &fn);

// Writes content to a real file (parents created).
void write_file(const std::string &path, const std::string &content, mode_t mode = 0644);
// Reads a real file; empty when it cannot be read.
std::string read_file(const std::string &path);
// Creates a fresh temporary directory and returns its path.
std::string make_temp_dir();
// Removes a directory tree.
void remove_tree(const std::string &path);
// Number of open file descriptors of this process.
int open_fd_count();

// Interfaces that qemu's user-mode emulation does not translate (seen with
// qemu 7.2): the system call reaches no kernel and fails with ENOPROTOOPT,
// ENOTTY or ENOSYS.  Probed, never guessed; a case that needs a missing one
// skips with a message, and a native run never skips.
bool has_multicast_if();   // setsockopt IP_MULTICAST_IF
bool has_ethtool_ioctl();  // the SIOCETHTOOL ioctl

}  // namespace trel_test
