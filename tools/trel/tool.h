// The trel command-line tool: each cmd_<subsystem>.cpp registers its commands
// with TREL_TOOL_COMMANDS(setup), where setup adds CLI11 subcommands to the
// root app and binds a run function to every leaf with add_command().
#pragma once

#include <CLI/CLI.hpp>
#include <jansson.h>

#include <functional>
#include <string>

namespace trel_tool {

// Global options, valid once the command line is parsed.
struct Options {
    bool json = false;  // structured output as JSON
    std::string root;   // LIBTREL_ROOT, empty for the live system
};
const Options &options();

// Binds the function run when the leaf subcommand cmd was given; its result is
// the exit status.
void add_command(CLI::App *cmd, std::function<int()> run);

using Setup = void (*)(CLI::App &app);
struct Registrar {
    explicit Registrar(Setup setup);
};

// Prints a JSON value (indented) on standard output and releases it.
void print_json(json_t *value);
// Reads a whole file, or standard input for "-" or an empty name.  False with
// a message on standard error when it cannot be read.
bool read_input(const std::string &name, std::string &out);
// Prints "trel: message" on standard error and returns 1.
int fail(const std::string &message);

// Adds the hidden options --man-page FILE and --bash-completion FILE, which
// write the man page and the bash completion generated from app's command
// tree (add them once every command is registered).
void add_doc_options(CLI::App &app);

}  // namespace trel_tool

#define TREL_TOOL_CONCAT2(a, b) a##b
#define TREL_TOOL_CONCAT(a, b) TREL_TOOL_CONCAT2(a, b)
#define TREL_TOOL_COMMANDS(setup) \
    static const trel_tool::Registrar TREL_TOOL_CONCAT(trel_tool_registrar_, __LINE__)(setup)
