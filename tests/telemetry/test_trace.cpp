// Trace objects and the trace sender against a loopback server.  The
// sender's state lives for the process, so each sending case runs in a
// forked child.
#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "http_server.h"
#include "telemetry/service.h"
#include "telemetry_test.h"
#include "trel_test.h"

using telemetry_test::dump;
using telemetry_test::EnvVar;
using telemetry_test::Json;
using telemetry_test::json_of;
using trel_test::HttpServer;
using trel_test::LogCapture;
using trel_test::TempRoot;

namespace {

// The sender's wall clock in milliseconds while not negative, else the real
// one.
std::atomic<int64_t> g_fake_ms{-1};

}  // namespace

// Replaces the C library's clock for the library and this program.
extern "C" int gettimeofday(struct timeval *__restrict tv, void *__restrict) noexcept {
    int64_t fake = g_fake_ms.load();
    if (fake >= 0) {
        tv->tv_sec = fake / 1000;
        tv->tv_usec = fake % 1000 * 1000;
        return 0;
    }
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    tv->tv_sec = ts.tv_sec;
    tv->tv_usec = ts.tv_nsec / 1000;
    return 0;
}

namespace {

int64_t real_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

// The message part of captured log lines, "<prog>[<pid>]: [info ] trace.f(): text".
std::vector<std::string> messages(const LogCapture &log) {
    std::vector<std::string> out;
    for (const std::string &line : log.lines()) {
        size_t at = line.find("(): ");
        if (at != std::string::npos) out.push_back(line.substr(at + 4));
    }
    return out;
}

// Values at and beyond each field's bound: the controller version keeps 63
// characters, the anonymous ids 64, the manufacturing week 7.
const std::string kVersion(70, 'v'), kController(70, 'c'), kSite(64, 's'), kDevice(70, 'd');

void write_device(const TempRoot &root, const std::string &anonid, bool site) {
    root.write("/proc/trelhal/system.info",
               "vendorid=0x7a1e\nsystemid=0xee7c\nboardrevision=12\nmanufid=00a1\n"
               "mfgweek=23310999\ndevice.anonid=" +
                   anonid + "\n");
    root.write("/tmp/system.cfg", "morna.version=" + kVersion +
                                      "\nmorna.anonymous_controller_id=" + kController + "\n" +
                                      (site ? "morna.anonymous_site_id=" + kSite + "\n" : ""));
    root.write("/usr/etc/.version", "6.0.1\n");
    root.write("/usr/etc/.build", "77\n");
    root.write("/proc/trelhal/status/IsDefault", "true\n");
}

// The device fields write_device(root, kDevice, site) gives.
Json device_fields(bool site) {
    Json o(json_pack("{s:s, s:s, s:s, s:s, s:s, s:s, s:s, s:s, s:s}", "model", "Harbor SW-P",
                     "version", "6.0.1.77", "board_rev", "12", "manufacturer_id", "161",
                     "controller.version", kVersion.substr(0, 63).c_str(), "is_default", "true",
                     "mfg_week", "2331099", "anonymous_controller_id",
                     kController.substr(0, 64).c_str(), "anonymous_device_id",
                     kDevice.substr(0, 64).c_str()));
    if (site) json_object_set_new(o.get(), "anonymous_site_id", json_string(kSite.c_str()));
    return o;
}

Json one_trace(const char *type) {
    Json traces(trace_array());
    json_t *t = trace_object();
    trace_object_set_type_new(t, json_string(type));
    trace_array_append_new(traces.get(), t);
    return traces;
}

TEST(Trace, SettersKeepOrRefuse) {
    using Setter = int (*)(json_t *, json_t *);
    struct Row {
        const char *key;
        Setter set;
        const char *good, *stored, *bad, *refusal;
    } const rows[] = {
        {"payload", trace_object_set_payload_new, R"({"a": [1, "b"]})",
         R"({"contentType":"application/json","data":"{\"a\":[1,\"b\"]}"})", "[1]", nullptr},
        {"timestamp", trace_object_set_timestamp_new, "5", "5", "\"5\"",
         "Trace timestamp must be an integer"},
        {"type", trace_object_set_type_new, "\"boot\"", "\"boot\"", "5",
         "Trace type must be a string"},
        {"namespace", trace_object_set_namespace_new, "\"sys\"", "\"sys\"", "[]",
         "Trace namespace must be a string"},
        {"source", trace_object_set_source_new, "{}", "{}", R"({"a": "b", "c": 1})",
         "Trace source must be an object containing only string values"},
        {"meta", trace_object_set_meta_new, R"({"a": "b"})", R"({"a":"b"})", "\"x\"",
         "Trace meta must be an object containing only string values"},
    };
    telemetry_test::LogLevel level(16);
    for (const Row &r : rows) {
        SCOPED_TRACE(r.key);
        LogCapture log;
        Json trace(trace_object());
        json_error_t err;
        // The refused value is released: only the reference kept here stays.
        json_t *bad = json_loads(r.bad, JSON_DECODE_ANY, &err);
        json_incref(bad);
        EXPECT_EQ(r.set(trace.get(), bad), -1);
        EXPECT_EQ(bad->refcount, 1u);
        json_decref(bad);
        EXPECT_EQ(json_object_get(trace.get(), r.key), nullptr);
        EXPECT_EQ(messages(log),
                  r.refusal ? std::vector<std::string>{r.refusal} : std::vector<std::string>{});
        EXPECT_EQ(r.set(trace.get(), nullptr), -1);

        ASSERT_EQ(r.set(trace.get(), json_loads(r.good, JSON_DECODE_ANY, &err)), 0);
        EXPECT_EQ(dump(json_object_get(trace.get(), r.key)), r.stored);
    }
}

TEST(Trace, DecrefAndDump) {
    json_t *v = json_pack("{s:[i]}", "a", 1);
    json_incref(v);
    trace_decref(v);
    EXPECT_EQ(v->refcount, 1u);
    // Static values and NULL are left alone.
    trace_decref(json_true());
    trace_decref(nullptr);
    EXPECT_EQ(json_true()->refcount, (size_t)-1);

    LogCapture log;
    dump_refcount(v);
    EXPECT_EQ(messages(log), (std::vector<std::string>{"refcount=1", "{", "a:", "refcount=1", "[",
                                                       "refcount=1", "]", "}"}));
    EXPECT_TRUE(log.contains("[info ] trace.dump_refcount(): "));
    trace_decref(v);  // the last reference: deleted (the leak checker sees it otherwise)
}

TEST(Trace, SendResultsAndEnvelope) {
    trel_test::run_in_child([] {
        TempRoot root;
        write_device(root, kDevice, true);
        HttpServer server;
        for (int status : {202, 200, 202, 202}) server.add_response({status, "nope"});
        EnvVar base("LIBTREL_TRACE_URL", server.url("/base"));
        telemetry_test::LogLevel level(16);
        LogCapture log;

        // Analytics off: 4, before the arguments are looked at.
        root.write("/var/run/system.analytics.mode", "0\n");
        EXPECT_EQ(send_traces(nullptr, nullptr), TREL_TRACE_DISABLED);
        root.write("/var/run/system.analytics.mode", "1\n");
        EXPECT_EQ(send_traces(nullptr, nullptr), -1);
        EXPECT_TRUE(log.contains("trace.send_traces(): Traces must be an array"));
        Json object(json_object());
        EXPECT_EQ(send_traces(object.get(), nullptr), -1);
        EXPECT_EQ(send_trace_with_meta(nullptr, nullptr), -1);
        EXPECT_TRUE(server.requests().empty());

        // 202: the caller's "meta" object gets the device fields in place.
        Json traces = one_trace("t");
        Json options = json_of(R"({"timestamp": "T", "type": 5, "meta": {"site": "lobby",
                                 "model": "old"}, "source": {"app": "x"}})");
        EXPECT_EQ(send_traces(traces.get(), options.get()), TREL_TRACE_SENT);
        EXPECT_EQ(traces->refcount, 1u);
        EXPECT_EQ(options->refcount, 1u);
        Json device = device_fields(true);
        json_t *filled = json_object_get(options.get(), "meta");
        Json want_meta(json_deep_copy(device.get()));
        json_object_set_new(want_meta.get(), "site", json_string("lobby"));
        EXPECT_TRUE(json_equal(filled, want_meta.get())) << dump(filled);

        auto reqs = server.requests();
        ASSERT_EQ(reqs.size(), 1u);
        EXPECT_EQ(reqs[0].line, "PUT /base/traces HTTP/1.1");
        EXPECT_EQ(reqs[0].header("Content-Type"), "application/json");
        Json sent = json_of(reqs[0].body);
        Json want = json_of(R"({"meta": {"timestamp": "T", "type": 5, "source": {"app": "x"}},
                              "traces": [{"type": "t"}]})");
        json_object_set(json_object_get(want.get(), "meta"), "meta", want_meta.get());
        EXPECT_TRUE(json_equal(sent.get(), want.get())) << reqs[0].body;

        // Another status is a failure, logged with the body; without options
        // the outer meta has its defaults.  The device id stays cached, an
        // empty site id is left out.
        write_device(root, "ffffffffffffffff", false);
        device = device_fields(false);
        int64_t before = real_ms();
        EXPECT_EQ(send_traces(traces.get(), nullptr), TREL_TRACE_FAILED);
        int64_t after = real_ms();
        EXPECT_TRUE(log.contains("trace.put_trace(): PUT '" + server.url("/base") +
                                 "/traces' failed: "
                                 "[200] nope"));
        sent = json_of(server.requests()[1].body);
        json_t *outer = json_object_get(sent.get(), "meta");
        json_int_t stamp = json_integer_value(json_object_get(outer, "timestamp"));
        EXPECT_TRUE(stamp >= before && stamp <= after) << stamp;
        EXPECT_EQ(dump(json_object_get(outer, "type")), "\"event\"");
        EXPECT_EQ(dump(json_object_get(outer, "source")), "{}");
        EXPECT_TRUE(json_equal(json_object_get(outer, "meta"), device.get()))
            << dump(json_object_get(outer, "meta"));

        // A "meta" that is not an object is replaced by a new one.
        Json odd = json_of(R"({"meta": "x"})");
        EXPECT_EQ(send_traces(traces.get(), odd.get()), TREL_TRACE_SENT);
        EXPECT_EQ(dump(json_object_get(odd.get(), "meta")), "\"x\"");
        sent = json_of(server.requests()[2].body);
        EXPECT_TRUE(
            json_equal(json_object_get(json_object_get(sent.get(), "meta"), "meta"), device.get()));

        // One trace of a namespace and type; no time stamp of its own.
        EXPECT_EQ(send_trace_simple("sys", "boot", json_pack("{s:i}", "k", 1)), TREL_TRACE_SENT);
        sent = json_of(server.requests()[3].body);
        EXPECT_EQ(dump(json_object_get(sent.get(), "traces")),
                  R"([{"payload":{"contentType":"application/json","data":"{\"k\":1}"},)"
                  R"("type":"boot","namespace":"sys"}])");
    });
}

TEST(Trace, BackoffGrowsThenGivesUp) {
    trel_test::run_in_child([] {
        TempRoot root;
        EnvVar base("LIBTREL_TRACE_URL",
                    "http://127.0.0.1:" + std::to_string(telemetry_test::closed_port()));
        LogCapture log;
        Json traces = one_trace("t");
        int64_t now = 5000000;
        g_fake_ms = now;
        // Four failures in a row leave no back-off; the fifth starts it at 1 s.
        for (int i = 1; i <= 5; i++) EXPECT_EQ(send_traces(traces.get(), nullptr), 1) << i;
        EXPECT_EQ(send_traces(traces.get(), nullptr), TREL_TRACE_BACKING_OFF);
        g_fake_ms = now + 999;
        EXPECT_EQ(send_traces(traces.get(), nullptr), TREL_TRACE_BACKING_OFF);
        g_fake_ms = now + 1000;
        EXPECT_EQ(send_traces(traces.get(), nullptr), TREL_TRACE_FAILED);
        // Doubling from there: the 22nd failure passes a day and the sender
        // stops for good.
        for (int i = 7; i <= 22; i++) {
            g_fake_ms = g_fake_ms + (1ll << 31);
            EXPECT_EQ(send_traces(traces.get(), nullptr), TREL_TRACE_FAILED) << i;
        }
        g_fake_ms = g_fake_ms + (1ll << 40);
        EXPECT_EQ(send_traces(traces.get(), nullptr), TREL_TRACE_GAVE_UP);
        // The transport failure is logged once.
        int logged = 0;
        for (const std::string &m : messages(log))
            if (m.rfind("PUT 'http://127.0.0.1:", 0) == 0) logged++;
        EXPECT_EQ(logged, 1);
        EXPECT_TRUE(log.contains("/traces' failed: [7] Couldn't connect to server"));
    });
}

TEST(Trace, AnyAnswerClearsBackoff) {
    trel_test::run_in_child([] {
        TempRoot root;
        HttpServer server;
        server.add_response({200});
        server.add_response({202});
        const std::string closed =
            "http://127.0.0.1:" + std::to_string(telemetry_test::closed_port());
        Json traces = one_trace("t");
        auto fail_times = [&](int n) {
            EnvVar base("LIBTREL_TRACE_URL", closed);
            for (int i = 1; i <= n; i++) EXPECT_EQ(send_traces(traces.get(), nullptr), 1) << i;
        };
        g_fake_ms = 7000000;
        fail_times(5);
        EXPECT_EQ(send_traces(traces.get(), nullptr), TREL_TRACE_BACKING_OFF);
        g_fake_ms = 7001000;
        {
            EnvVar base("LIBTREL_TRACE_URL", server.url(""));
            EXPECT_EQ(send_traces(traces.get(), nullptr), TREL_TRACE_FAILED);  // the 200
            EXPECT_EQ(send_traces(traces.get(), nullptr), TREL_TRACE_SENT);    // no back-off
        }
        EXPECT_EQ(server.requests().size(), 2u);
        // The failure count starts again from 0.
        fail_times(5);
        EXPECT_EQ(send_traces(traces.get(), nullptr), TREL_TRACE_BACKING_OFF);
    });
}

// The base URL follows the management environment unless the variable
// replaces it.
TEST(Trace, ServiceUrlFollowsEnvironment) {
    static const char *const urls[3] = {"P", "S", "D"};
    struct {
        const char *env, *reftype, *over, *want;
    } const rows[] = {
        {"prod", "atag", nullptr, "P"},
        {"stage", "branch", nullptr, "S"},
        {"dev", "atag", nullptr, "D"},
        {"prod", "branch", nullptr, "D"},
        {"stage", "atag", "http://x", "http://x"},
        {"prod", "atag", "", "P"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string(r.env) + " " + r.reftype);
        TempRoot root;
        root.write("/tmp/system.cfg", std::string("mgmt.vesk.env=") + r.env + "\n");
        root.write("/usr/lib/build.properties", std::string("scm_reftype=") + r.reftype + "\n");
        std::unique_ptr<EnvVar> over;
        if (r.over) over.reset(new EnvVar("LIBTREL_TEST_URL", r.over));
        EXPECT_STREQ(trel::telemetry::service_base_url(urls, "LIBTREL_TEST_URL"), r.want);
    }
}

}  // namespace
