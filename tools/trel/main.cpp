// trel: the library's services from a shell, on the live device or on a
// captured snapshot (--root DIR).
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <iostream>
#include <utility>
#include <vector>

#include <libtrel.h>

#include "tool.h"

namespace trel_tool {

namespace {

Options g_options;

std::vector<std::pair<CLI::App *, std::function<int()>>> &commands() {
    static std::vector<std::pair<CLI::App *, std::function<int()>>> c;
    return c;
}

}  // namespace

const Options &options() { return g_options; }

void add_command(CLI::App *cmd, std::function<int()> run) {
    commands().emplace_back(cmd, std::move(run));
}

void print_json(json_t *value) {
    if (value == nullptr) {
        puts("null");
        return;
    }
    char *text = json_dumps(value, JSON_INDENT(2) | JSON_ENCODE_ANY);
    if (text != nullptr) {
        puts(text);
        free(text);
    }
    json_decref(value);
}

bool read_input(const std::string &name, std::string &out) {
    // read(2) rather than a stream, so that a directory or a read error is a
    // failure with its reason and not an empty input.
    bool std_in = name.empty() || name == "-";
    const std::string shown = std_in ? "standard input" : name;
    int fd = std_in ? 0 : open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        fail("cannot read " + shown + ": " + strerror(errno));
        return false;
    }
    out.clear();
    char chunk[65536];
    ssize_t n;
    int err = 0;
    while ((n = read(fd, chunk, sizeof chunk)) != 0) {
        if (n > 0) {
            out.append(chunk, (size_t)n);
        } else if (errno != EINTR) {
            err = errno;
            break;
        }
    }
    if (!std_in) close(fd);
    if (err != 0) fail("cannot read " + shown + ": " + strerror(err));
    return err == 0;
}

int fail(const std::string &message) {
    std::cerr << "trel: " << message << "\n";
    return kFailed;
}

int bad_input(const std::string &message) {
    fail(message);
    return kBadInput;
}

std::string mac_text(const uint8_t *m) {
    char buf[18];
    snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return buf;
}

}  // namespace trel_tool

int main(int argc, char **argv) {
    using namespace trel_tool;
    CLI::App app{"trel: use libtrel's services from a shell"};
    app.require_subcommand(1);
    app.fallthrough();
    unsigned level = libtrel_log_level;
    bool syslog = false;
    app.add_option("--root", g_options.root,
                   "Resolve absolute paths under DIR (a captured device snapshot)")
        ->check(CLI::ExistingDirectory);
    app.add_flag("--json", g_options.json, "Structured output as JSON");
    app.add_option("--log-level", level, "libtrel_log_level: 0 quiet, 4 default, 8 debug, 16 all")
        ->capture_default_str();
    app.add_flag("--syslog", syslog, "Send library messages to syslog instead of standard error");

    register_cfg_commands(app);
    register_core_commands(app);
    register_crash_commands(app);
    register_crypto_commands(app);
    register_device_commands(app);
    register_exec_commands(app);
    register_http_commands(app);
    register_ipc_commands(app);
    register_net_commands(app);
    register_proc_commands(app);
    register_protocol_commands(app);
    register_snapshot_commands(app);
    register_telemetry_commands(app);
    add_doc_options(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::RuntimeError &e) {
        return e.get_exit_code();  // a hidden option that ended the run itself
    } catch (const CLI::ParseError &e) {
        // --help succeeds; anything else the command line gets wrong is bad usage.
        return app.exit(e) == 0 ? 0 : kBadInput;
    }

    if (!g_options.root.empty()) setenv("LIBTREL_ROOT", g_options.root.c_str(), 1);
    libtrel_log_level = level;
    libtrel_log_use_syslog = syslog ? 1 : 0;

    for (auto &[cmd, run] : commands())
        if (cmd->parsed()) return run();
    std::cerr << app.help();
    return kBadInput;
}
