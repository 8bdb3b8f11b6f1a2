// Telemetry commands: json series, build-info, trace envelope|send.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include <libtrel.h>

#include "telemetry/envelope.h"
#include "tool.h"

namespace {

using trel_tool::kBadInput;

struct JsonDeleter {
    void operator()(json_t *v) const { json_decref(v); }
};
using Json = std::unique_ptr<json_t, JsonDeleter>;

// Parses a JSON object from a file ("-": standard input).  Null, with a
// one-line message naming the file and the place, when it cannot be read or
// is not an object.
Json load_object(const std::string &name) {
    std::string text;
    if (!trel_tool::read_input(name, text)) return nullptr;
    std::string shown = name == "-" ? "<stdin>" : name;
    json_error_t err;
    Json value(json_loadb(text.data(), text.size(), 0, &err));
    if (!value) {
        trel_tool::fail(shown + ": line " + std::to_string(err.line) + ", column " +
                        std::to_string(err.column) + ": " + err.text);
        return nullptr;
    }
    if (!json_is_object(value.get())) {
        trel_tool::fail(shown + ": not a JSON object");
        return nullptr;
    }
    return value;
}

void print_indented(json_t *value) {
    char *text = json_dumps(value, JSON_INDENT(2));
    if (text != nullptr) puts(text);
    free(text);
}

int run_series(const std::string &prefix, long value, const std::string &file,
               std::optional<int64_t> now) {
    Json object;
    struct stat st;
    if (!file.empty() && stat(file.c_str(), &st) == 0) {
        object = load_object(file);
        if (!object) return kBadInput;
    } else {
        object.reset(json_object());
    }
    if (now)
        trel_set_ts(*now);
    else
        trel_grab_ts();
    int rc = trel_json_maybe_append_array(object.get(), prefix.c_str(), value);
    if (rc == 0 && !file.empty() && json_dump_file(object.get(), file.c_str(), JSON_INDENT(2)) != 0)
        return trel_tool::fail("cannot write " + file + ": " + strerror(errno));
    const char *meaning = rc == 0 ? "appended" : rc == -2 ? "too early, nothing changed" : "failed";
    if (trel_tool::options().json) {
        trel_tool::print_json(
            json_pack("{s:i, s:s, s:O}", "result", rc, "meaning", meaning, "object", object.get()));
    } else {
        std::cout << "result: " << rc << " (" << meaning << ")\n";
        print_indented(object.get());
    }
    if (rc == -1 && prefix.size() + strlen("Interval") > 39) return kBadInput;
    return rc == 0 ? 0 : 1;
}

const char *reftype_name(int reftype) {
    return reftype == 1 ? "atag" : reftype == 2 ? "branch" : "other";
}

int run_build_info() {
    char when[32];
    if (get_build_time(when, sizeof when) != 0)
        return trel_tool::fail("no build facts file /usr/lib/build.properties");
    int reftype = get_trel_scm_reftype();
    if (trel_tool::options().json) {
        trel_tool::print_json(json_pack("{s:s, s:i, s:s}", "build_time", when, "scm_reftype",
                                        reftype, "scm_reftype_name", reftype_name(reftype)));
    } else {
        std::cout << "build_time: " << when << "\nscm_reftype: " << reftype << " ("
                  << reftype_name(reftype) << ")\n";
    }
    return 0;
}

const char *trace_result_meaning(int rc) {
    switch (rc) {
        case TREL_TRACE_SENT:
            return "accepted by the trace service (HTTP 202)";
        case TREL_TRACE_FAILED:
            return "failed: transport error or an HTTP status other than 202";
        case TREL_TRACE_BACKING_OFF:
            return "skipped: the back-off period has not passed";
        case TREL_TRACE_GAVE_UP:
            return "skipped: the back-off grew beyond a day, sender gave up";
        case TREL_TRACE_DISABLED:
            return "skipped: analytics switched off";
        default:
            return "traces not an array, or out of memory";
    }
}

struct TraceArgs {
    std::string name_space;
    std::string type;
    std::string payload;  // file, "-" for standard input, empty for {}
};

int run_trace(const TraceArgs &a, bool send) {
    Json payload(a.payload.empty() ? json_object() : load_object(a.payload).release());
    if (!payload) return kBadInput;
    Json trace(trace_object());
    if (!trace || trace_object_set_payload_new(trace.get(), payload.release()) != 0)
        return trel_tool::fail("cannot build the trace");
    if (!a.name_space.empty())
        trace_object_set_namespace_new(trace.get(), json_string(a.name_space.c_str()));
    if (!a.type.empty()) trace_object_set_type_new(trace.get(), json_string(a.type.c_str()));

    if (!send) {
        Json traces(json_pack("[O]", trace.get()));
        json_t *envelope = trel::telemetry::trace_envelope_object(traces.get(), nullptr);
        if (envelope == nullptr) return trel_tool::fail("cannot build the envelope");
        trel_tool::print_json(envelope);
        return 0;
    }
    int rc = send_trace_with_meta(trace.get(), nullptr);
    if (trel_tool::options().json)
        trel_tool::print_json(
            json_pack("{s:i, s:s}", "result", rc, "meaning", trace_result_meaning(rc)));
    else
        std::cout << "result: " << rc << " (" << trace_result_meaning(rc) << ")\n";
    return rc == 0 ? 0 : 1;
}

}  // namespace

void trel_tool::register_telemetry_commands(CLI::App &app) {
    auto *json = app.add_subcommand("json", "JSON helpers");
    json->require_subcommand(1);
    struct SeriesArgs {
        std::string prefix, file;
        long value = 0;
        std::optional<int64_t> now;
    };
    auto s = std::make_shared<SeriesArgs>();
    auto *series = json->add_subcommand(
        "series", "Add one sample to the series PREFIX of a JSON object kept in --file");
    series->add_option("PREFIX", s->prefix, "Key prefix: PREFIXArray, PREFIXTime, PREFIXInterval")
        ->required();
    series->add_option("VALUE", s->value, "The sample")->required();
    series->add_option("--file", s->file, "JSON object file, created when missing");
    series->add_option("--now", s->now, "Time stamp in seconds (default: the monotonic clock)");
    trel_tool::add_command(series,
                           [s] { return run_series(s->prefix, s->value, s->file, s->now); });

    auto *info = app.add_subcommand("build-info", "Build date, time and reference type");
    trel_tool::add_command(info, run_build_info);

    auto *trace = app.add_subcommand("trace", "Trace envelopes");
    trace->require_subcommand(1);
    auto t = std::make_shared<TraceArgs>();
    for (bool send : {false, true}) {
        auto *cmd = trace->add_subcommand(
            send ? "send" : "envelope",
            send ? "Send one trace to the trace service and print the result"
                 : "Print the envelope one trace would be sent in, without sending it");
        cmd->add_option("--namespace", t->name_space, "The trace's namespace");
        cmd->add_option("--type", t->type, "The trace's type");
        cmd->add_option("PAYLOAD", t->payload, "Payload JSON object file, - for standard input");
        trel_tool::add_command(cmd, [t, send] { return run_trace(*t, send); });
    }
}
