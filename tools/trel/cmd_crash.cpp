// Crash report commands: crash payload|kernel|dump, isolation
// list|check|next|finish.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <libtrel.h>

#include "telemetry/crash_internal.h"
#include "tool.h"

namespace {

namespace fs = std::filesystem;

constexpr char kLogsDir[] = "/etc/persistent/isolation_logs/";
constexpr char kSentDir[] = "/etc/persistent/isolation_logs_sent/";

// Where a logical path of the device is for the tool (beneath --root).
std::string device_path(const std::string &logical) { return trel_tool::options().root + logical; }

int print_result(int rc, const char *meaning) {
    if (trel_tool::options().json)
        trel_tool::print_json(json_pack("{s:i, s:s}", "result", rc, "meaning", meaning));
    else
        std::cout << "result: " << rc << " (" << meaning << ")\n";
    return rc == 0 ? 0 : 1;
}

int run_payload(bool with_cfg, const std::string &log_cmd) {
    json_t *payload = trel::telemetry::generate_common_payload(
        log_cmd.empty() ? nullptr : log_cmd.c_str(), with_cfg ? 1 : 0);
    if (payload == nullptr) return trel_tool::fail("out of memory");
    trel_tool::print_json(payload);
    return 0;
}

int run_kernel() {
    int rc = send_kernel_crash();
    const char *meaning = rc == 0         ? "reported, now or before"
                          : rc == -1      ? "no kernel crash pending"
                          : rc == -ENOENT ? "not ready: time, bridge address or analytics"
                          : rc == -ESRCH  ? "URL too long"
                          : rc == -EINTR  ? "payload could not be built"
                          : rc == -EIO    ? "the service did not accept the report"
                                          : "unknown result";
    return print_result(rc, meaning);
}

struct DumpArgs {
    int type = TREL_DUMP_CORE;
    std::string cmd, file;
    int pid = 0, signal = 0;
};

int run_dump(const DumpArgs &a) {
    std::string data;
    if (!a.file.empty() && !trel_tool::read_input(a.file, data)) return trel_tool::kBadInput;
    if (data.size() > 0x7fffffffu) return trel_tool::bad_input(a.file + ": larger than 2 GiB");
    int rc =
        send_crash_binary_data(a.cmd.c_str(), a.pid, a.signal, 1, 0,
                               a.file.empty() ? nullptr : data.data(), (int)data.size(), a.type);
    return print_result(rc, rc == 0 ? "reported" : "not reported (--log-level 8 shows why)");
}

// A meta record's state in a few words.
json_t *meta_state(const std::string &name) {
    std::ifstream in(device_path(std::string(kLogsDir) + "meta/" + name), std::ios::binary);
    if (!in) return json_string("no meta record");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    json_error_t err;
    json_t *meta = json_loads(text.c_str(), 0, &err);
    if (!json_is_object(meta)) {
        json_decref(meta);
        return json_string("invalid meta record");
    }
    json_t *state = json_object();
    for (const char *key : {"sent_to_analytics", "send_attempts", "sent_to_net"}) {
        json_t *v = json_object_get(meta, key);
        if (v != nullptr) json_object_set(state, key, v);
    }
    json_decref(meta);
    return state;
}

int run_list() {
    std::error_code ec;
    std::vector<std::string> names;
    for (const auto &e : fs::directory_iterator(device_path(kLogsDir), ec))
        if (!e.is_directory()) names.push_back(e.path().filename().string());
    if (ec && ec != std::errc::no_such_file_or_directory)
        return trel_tool::fail(std::string(kLogsDir) + ": " + ec.message());
    std::sort(names.begin(), names.end());
    json_t *list = json_array();
    for (const std::string &name : names) {
        std::error_code size_ec;
        auto size = fs::file_size(device_path(kLogsDir + name), size_ec);
        bool finished = fs::exists(device_path(kSentDir + name));
        json_t *meta = meta_state(name);
        if (trel_tool::options().json) {
            json_array_append_new(list, json_pack("{s:s, s:I, s:b, s:o}", "name", name.c_str(),
                                                  "bytes", (json_int_t)(size_ec ? 0 : size),
                                                  "finished", finished, "meta", meta));
            continue;
        }
        std::cout << name << "  " << (size_ec ? 0 : size) << " bytes"
                  << (finished ? "  finished" : "") << "  ";
        if (json_is_string(meta)) {
            std::cout << json_string_value(meta);
        } else {
            const char *key;
            json_t *v;
            const char *sep = "";
            json_object_foreach(meta, key, v) {
                char *text = json_dumps(v, JSON_ENCODE_ANY);
                std::cout << sep << key << "=" << (text ? text : "?");
                free(text);
                sep = " ";
            }
        }
        std::cout << "\n";
        json_decref(meta);
    }
    if (trel_tool::options().json)
        trel_tool::print_json(list);
    else
        json_decref(list);
    if (names.empty() && !trel_tool::options().json) std::cout << "no archives\n";
    return 0;
}

int run_check(bool send, const std::string &uplink) {
    int rc = check_vwire_disconnect_logs(uplink.empty() ? nullptr : uplink.c_str(), send);
    return print_result(rc,
                        rc == 0 ? "walked the store" : "the store's directories cannot be made");
}

int run_next(const std::string &out) {
    json_t *record = get_next_crash_log();
    if (record == nullptr) return trel_tool::fail("no undelivered archive");
    const char *data = json_string_value(json_object_get(record, "file_data"));
    std::string decoded;
    if (data != nullptr) {
        decoded.resize((size_t)base64_decode_len(data));
        base64_decode((uint8_t *)decoded.data(), data);
        // The decoder's bound may exceed the bytes: count them from the text.
        size_t n = strlen(data), pad = 0;
        while (pad < n && data[n - 1 - pad] == '=') pad++;
        decoded.resize(n / 4 * 3 - pad);
    }
    json_object_del(record, "file_data");
    json_object_set_new(record, "file_data_bytes", json_integer((json_int_t)decoded.size()));
    if (!out.empty()) {
        std::ofstream f(out, std::ios::binary | std::ios::trunc);
        f << decoded;
        if (!f.good()) {
            json_decref(record);
            return trel_tool::fail("cannot write " + out);
        }
    }
    trel_tool::print_json(record);
    return 0;
}

int run_finish(const std::string &name) {
    if (mark_crash_log_finished(name.c_str()) != 1)
        return trel_tool::fail(name + ": no such undelivered archive");
    std::cout << "finished " << name << "\n";
    return 0;
}

}  // namespace

void trel_tool::register_crash_commands(CLI::App &app) {
    auto *crash = app.add_subcommand("crash", "Crash reports");
    crash->require_subcommand(1);
    auto with_cfg = std::make_shared<bool>(false);
    auto log_cmd = std::make_shared<std::string>();
    auto *payload = crash->add_subcommand("payload", "Print the common crash-report payload");
    payload->add_flag("--with-cfg", *with_cfg, "Add the filtered system configuration");
    payload->add_option("--log-cmd", *log_cmd, "Shell command whose output is the crash_log");
    trel_tool::add_command(payload,
                           [with_cfg, log_cmd] { return run_payload(*with_cfg, *log_cmd); });
    trel_tool::add_command(
        crash->add_subcommand("kernel", "Report the kernel crash of the last boot, once"),
        run_kernel);
    auto d = std::make_shared<DumpArgs>();
    auto *dump = crash->add_subcommand("dump", "Report a crash or dump, uploading FILE if allowed");
    dump->add_option("--type", d->type, "0 core-dump, 1 app-crash, 2 oom-kill, 3 ram-dump")
        ->required();
    dump->add_option("--cmd", d->cmd, "The process's command (the dump type for 3)")->required();
    dump->add_option("--pid", d->pid, "Process id");
    dump->add_option("--signal", d->signal, "Signal that ended it");
    dump->add_option("FILE", d->file, "The binary dump, - for standard input");
    trel_tool::add_command(dump, [d] { return run_dump(*d); });

    auto *iso = app.add_subcommand("isolation", "The isolation log store");
    iso->require_subcommand(1);
    trel_tool::add_command(iso->add_subcommand("list", "Archives and their meta state"), run_list);
    auto send = std::make_shared<bool>(false);
    auto uplink = std::make_shared<std::string>();
    auto *check = iso->add_subcommand("check", "Walk the store (meta records; --send reports)");
    check->add_flag("--send", *send, "Report archives not yet reported");
    check->add_option("--uplink", *uplink, "Uplink model for new records");
    trel_tool::add_command(check, [send, uplink] { return run_check(*send, *uplink); });
    auto out = std::make_shared<std::string>();
    auto *next = iso->add_subcommand("next", "The next undelivered archive's record");
    next->add_option("--out", *out, "Write the archive (decoded) to this file");
    trel_tool::add_command(next, [out] { return run_next(*out); });
    auto name = std::make_shared<std::string>();
    auto *finish = iso->add_subcommand("finish", "Mark an archive delivered");
    finish->add_option("NAME", *name, "Archive name")->required();
    trel_tool::add_command(finish, [name] { return run_finish(*name); });
}
