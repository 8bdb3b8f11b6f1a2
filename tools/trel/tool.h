// The trel command-line tool: each cmd_<subsystem>.cpp has a registration
// function, called by main(), that adds its CLI11 subcommands to the root app
// and binds a run function to every leaf with add_command().
#pragma once

#include <CLI/CLI.hpp>
#include <jansson.h>
#include <stdint.h>

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

// The commands of each cmd_<subsystem>.cpp, registered in this order (the
// order of the help text and of the generated man page and completion).
void register_cfg_commands(CLI::App &app);
void register_core_commands(CLI::App &app);
void register_crash_commands(CLI::App &app);
void register_crypto_commands(CLI::App &app);
void register_device_commands(CLI::App &app);
void register_exec_commands(CLI::App &app);
void register_http_commands(CLI::App &app);
void register_ipc_commands(CLI::App &app);
void register_net_commands(CLI::App &app);
void register_proc_commands(CLI::App &app);
void register_protocol_commands(CLI::App &app);
void register_snapshot_commands(CLI::App &app);
void register_telemetry_commands(CLI::App &app);

// Prints a JSON value (indented) on standard output and releases it.
void print_json(json_t *value);
// Reads a whole file, or standard input for "-" or an empty name.  False with
// a message on standard error when it cannot be read.
bool read_input(const std::string &name, std::string &out);
// Exit statuses: 1 the operation failed, 2 bad usage or bad input.
constexpr int kFailed = 1;
constexpr int kBadInput = 2;
// Prints "trel: message" on standard error and returns kFailed.
int fail(const std::string &message);
// Prints "trel: message" on standard error and returns kBadInput.
int bad_input(const std::string &message);
// A hardware address as "xx:xx:xx:xx:xx:xx".
std::string mac_text(const uint8_t *mac);

// Adds the hidden options --man-page FILE and --bash-completion FILE, which
// write the man page and the bash completion generated from app's command
// tree (add them once every command is registered).
void add_doc_options(CLI::App &app);

}  // namespace trel_tool
