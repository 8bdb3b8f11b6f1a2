// Command execution: run a shell command and show its captured output; run
// the system-wrapper script.
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <trel/exec.h>

#include "tool.h"

namespace {

int run_command(const std::vector<std::string> &words, size_t max) {
    std::string command;
    for (const auto &w : words) command += (command.empty() ? "" : " ") + w;
    char *out = popen_alloc_output(command.c_str(), max);
    if (out == nullptr) return trel_tool::fail("cannot run: " + command);
    if (trel_tool::options().json) {
        trel_tool::print_json(json_pack("{s:s, s:s}", "command", command.c_str(), "output", out));
    } else {
        fputs(out, stdout);
        fflush(stdout);
    }
    free(out);
    return 0;
}

// The script's vector is built from the given words; the library takes at
// most 48 arguments after the verb.
int run_syswrapper(const std::vector<std::string> &words, bool detach) {
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

void setup(CLI::App &app) {
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

}  // namespace

TREL_TOOL_COMMANDS(setup);
