// Command execution: run a shell command and show its captured output; run
// the system-wrapper script.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <trel/core.h>
#include <trel/exec.h>

#include "tool.h"

namespace {

// A descriptor from 3 to 9 (what any shell can redirect to) not in use.
int free_low_fd() {
    for (int fd = 9; fd >= 3; fd--)
        if (fcntl(fd, F_GETFD) < 0 && errno == EBADF) return fd;
    return -1;
}

// Runs the command through the library and reports its exit status: the
// shell runs it in a subshell, then writes "$?" to a pipe the tool reads.
// -1 when no status arrived (the shell did not get that far).
int captured(const std::string &command, size_t max, char **out) {
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0) return -1;
    int fd = p[1] <= 9 ? p[1] : free_low_fd();
    if (fd < 0) {
        close(p[0]);
        close(p[1]);
        return -1;
    }
    // The shell inherits the write end: no close-on-exec there.
    if (fd == p[1]) {
        fcntl(fd, F_SETFD, 0);
    } else {
        dup2(p[1], fd);
        close(p[1]);
    }
    std::string n = std::to_string(fd);
    *out = popen_alloc_output(("(" + command + "\n) " + n + ">&-; echo $? >&" + n).c_str(), max);
    close(fd);
    char text[16] = {0};
    ssize_t got = read(p[0], text, sizeof text - 1);
    close(p[0]);
    return got > 0 ? atoi(text) : -1;
}

int run_command(const std::vector<std::string> &words, size_t max) {
    std::string command;
    for (const auto &w : words) command += (command.empty() ? "" : " ") + w;
    char *out = nullptr;
    int status = captured(command, max, &out);
    if (out == nullptr) return trel_tool::fail("cannot run: " + command);
    if (trel_tool::options().json) {
        trel_tool::print_json(json_pack("{s:s, s:s}", "command", command.c_str(), "output", out));
    } else {
        fputs(out, stdout);
        fflush(stdout);
    }
    // Output cut at --max may stop the command with SIGPIPE (status 141):
    // that is the cut asked for, not a failure.
    bool cut = max > 0 && strlen(out) == max - 1;
    free(out);
    if (status < 0) return trel_tool::fail("no exit status from: " + command);
    if (status != 0 && !(cut && status == 128 + SIGPIPE))
        return trel_tool::fail("'" + command + "' exited with status " + std::to_string(status));
    return 0;
}

// The script's vector is built from the given words; the library takes at
// most 48 arguments after the verb.
int run_syswrapper(const std::vector<std::string> &words, bool detach) {
    // The library skips the run quietly when neither script is readable;
    // look the same way (under --root too) to report it.
    bool found = false;
    for (const char *script : {"/etc/syswrapper.sh", "/usr/etc/syswrapper.sh"}) {
        FILE *f = fopen_format("r", "%s", script);
        if (f == nullptr) continue;
        fclose(f);
        found = true;
        break;
    }
    if (!found) return trel_tool::fail("no system-wrapper script to run");
    const char *a[49] = {nullptr};
    size_t n = std::min<size_t>(words.size() - 1, 48);
    for (size_t i = 0; i < n; i++) a[i] = words[i + 1].c_str();
    fflush(stdout);
    syswrapper_impl(detach ? 0 : 1, words[0].c_str(), a[0], a[1], a[2], a[3], a[4], a[5], a[6],
                    a[7], a[8], a[9], a[10], a[11], a[12], a[13], a[14], a[15], a[16], a[17], a[18],
                    a[19], a[20], a[21], a[22], a[23], a[24], a[25], a[26], a[27], a[28], a[29],
                    a[30], a[31], a[32], a[33], a[34], a[35], a[36], a[37], a[38], a[39], a[40],
                    a[41], a[42], a[43], a[44], a[45], a[46], a[47], (const char *)nullptr);
    return 0;
}

}  // namespace

void trel_tool::register_exec_commands(CLI::App &app) {
    auto words = std::make_shared<std::vector<std::string>>();
    auto max = std::make_shared<size_t>(1048576);
    auto *run = app.add_subcommand(
        "run", "Run a shell command and print its output (captured, at most --max - 1 bytes)");
    run->add_option("--max", *max, "Capture limit in bytes, the NUL included")
        ->capture_default_str();
    run->add_option("COMMAND", *words, "Shell command (after --)")->required();
    trel_tool::add_command(run, [words, max] { return run_command(*words, *max); });

    auto verb = std::make_shared<std::vector<std::string>>();
    auto detach = std::make_shared<bool>(false);
    auto *sw = app.add_subcommand(
        "syswrapper", "Run the system-wrapper script (found under --root) with VERB [ARG...]");
    sw->add_flag("--detach", *detach, "Do not wait for the script");
    sw->add_option("VERB", *verb, "Verb and arguments")->required();
    trel_tool::add_command(sw, [verb, detach] { return run_syswrapper(*verb, *detach); });
}
