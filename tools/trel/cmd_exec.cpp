// Command execution: run a shell command and show its captured output.
#include <stdio.h>
#include <stdlib.h>

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

void setup(CLI::App &app) {
    auto words = std::make_shared<std::vector<std::string>>();
    auto max = std::make_shared<size_t>(1048576);
    auto *run = app.add_subcommand(
        "run", "Run a shell command and print its output (captured, at most --max - 1 bytes)");
    run->add_option("--max", *max, "Capture limit in bytes, the NUL included")
        ->capture_default_str();
    run->add_option("COMMAND", *words, "Shell command (after --)")->required();
    trel_tool::add_command(run, [words, max] { return run_command(*words, *max); });
}

}  // namespace

TREL_TOOL_COMMANDS(setup);
