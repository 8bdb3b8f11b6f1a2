// trel: the library's services from a shell, on the live device or on a
// captured snapshot (--root DIR).
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <utility>
#include <vector>

#include <libtrel.h>

#include "tool.h"

namespace trel_tool {

namespace {

Options g_options;

std::vector<Setup> &setups() {
    static std::vector<Setup> s;
    return s;
}

std::vector<std::pair<CLI::App *, std::function<int()>>> &commands() {
    static std::vector<std::pair<CLI::App *, std::function<int()>>> c;
    return c;
}

}  // namespace

const Options &options() { return g_options; }

void add_command(CLI::App *cmd, std::function<int()> run) {
    commands().emplace_back(cmd, std::move(run));
}

Registrar::Registrar(Setup setup) { setups().push_back(setup); }

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
    std::ostringstream s;
    if (name.empty() || name == "-") {
        s << std::cin.rdbuf();
    } else {
        std::ifstream in(name, std::ios::binary);
        if (!in) {
            fail("cannot read " + name);
            return false;
        }
        s << in.rdbuf();
    }
    out = s.str();
    return true;
}

int fail(const std::string &message) {
    std::cerr << "trel: " << message << "\n";
    return 1;
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

    for (Setup setup : setups()) setup(app);
    add_doc_options(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::RuntimeError &e) {
        return e.get_exit_code();  // a hidden option that ended the run itself
    } catch (const CLI::ParseError &e) {
        // --help exits 0; every parse error is bad usage.
        return app.exit(e) == 0 ? 0 : 2;
    }

    if (!g_options.root.empty()) setenv("LIBTREL_ROOT", g_options.root.c_str(), 1);
    libtrel_log_level = level;
    libtrel_log_use_syslog = syslog ? 1 : 0;

    for (auto &[cmd, run] : commands())
        if (cmd->parsed()) return run();
    std::cerr << app.help();
    return 2;
}
