// Trace objects and the trace sender against a loopback server.  The
// sender's state lives for the process, so each sending case runs in a
// forked child.
#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <string>
#include <vector>

#include "http_server.h"
#include "telemetry/service.h"
#include "telemetry_test.h"

using namespace telemetry_test;
using namespace trel_test;

namespace {

// The wall clock in milliseconds while not negative, else the real one.
std::atomic<int64_t> g_fake_ms{-1};

}  // namespace

// Replaces the C library's clock for the library and this program.
extern "C" int gettimeofday(struct timeval *__restrict tv, void *__restrict) noexcept {
    int64_t ms = g_fake_ms.load();
    if (ms < 0) {
        struct timespec ts;
        clock_gettime(CLOCK_REALTIME, &ts);
        ms = (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
    }
    tv->tv_sec = ms / 1000;
    tv->tv_usec = ms % 1000 * 1000;
    return 0;
}

namespace {

// The message part of captured lines "<prog>[<pid>]: [info ] trace.f(): text".
std::vector<std::string> messages(const LogCapture &log) {
    std::vector<std::string> out;
    for (const std::string &line : log.lines())
        if (line.find("(): ") != std::string::npos)
            out.push_back(line.substr(line.find("(): ") + 4));
    return out;
}

// The device fields write_device(root, kDevice, site) gives.
Json device_fields(bool site) {
    Json o(json_pack("{s:s, s:s, s:s, s:s, s:s, s:s, s:s, s:s, s:s}", "model", "Harbor SW-P",
                     "version", "6.0.1.77", "board_rev", "12", "manufacturer_id", "161",
                     "controller.version", kVersion.substr(0, 63).c_str(), "is_default", "true",
                     "mfg_week", "2331099", "anonymous_controller_id",
                     kController.substr(0, 64).c_str(), "anonymous_device_id",
                     kDevice.substr(0, 64).c_str()));
    if (site) json_object_set_new(o.get(), "anonymous_site_id", json_string("s"));
    return o;
}

TEST(Trace, SettersKeepOrRefuse) {
    struct Row {
        const char *key;
        int (*set)(json_t *, json_t *);
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
    LogSettings level(16);
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
        EXPECT_EQ(messages(log),
                  r.refusal ? std::vector<std::string>{r.refusal} : std::vector<std::string>{});
        ASSERT_EQ(r.set(trace.get(), json_loads(r.good, JSON_DECODE_ANY, &err)), 0);
        EXPECT_EQ(dump(trace.get()), std::string("{\"") + r.key + "\":" + r.stored + "}");
    }
}

TEST(Trace, DecrefAndDump) {
    json_t *v = json_pack("{s:[i]}", "a", 1);
    json_incref(v);
    trace_decref(v);
    trace_decref(json_true());  // static values are left alone
    trace_decref(nullptr);
    EXPECT_EQ(json_true()->refcount, (size_t)-1);
    LogCapture log;
    dump_refcount(v);
    EXPECT_EQ(messages(log), (std::vector<std::string>{"refcount=1", "{", "a:", "refcount=1", "[",
                                                       "refcount=1", "]", "}"}));
    EXPECT_TRUE(log.contains("[info ] trace.dump_refcount(): "));
    trace_decref(v);  // the last reference: deleted, or the leak checker tells
}

TEST(Trace, SendResultsAndEnvelope) {
    run_in_child([] {
        TempRoot root;
        write_device(root, kDevice, true);
        HttpServer server;
        for (int status : {202, 200, 202}) server.add_response({status, "nope"});
        setenv("LIBTREL_TRACE_URL", server.url("/base").c_str(), 1);
        libtrel_log_level = 16;
        LogCapture log;

        // Analytics off: 4, before the arguments are looked at.
        root.write("/var/run/system.analytics.mode", "0\n");
        EXPECT_EQ(send_traces(nullptr, nullptr), TREL_TRACE_DISABLED);
        root.write("/var/run/system.analytics.mode", "1\n");
        EXPECT_EQ(send_traces(nullptr, nullptr), -1);
        EXPECT_TRUE(log.contains("trace.send_traces(): Traces must be an array"));
        EXPECT_TRUE(server.requests().empty());

        // 202; the caller's "meta" object gets the device fields in place.
        Json traces = json_of(R"([{"type": "t"}])");
        Json options = json_of(R"({"timestamp": "T", "type": 5, "meta": {"site": "lobby",
                                   "model": "old"}, "source": {"app": "x"}})");
        EXPECT_EQ(send_traces(traces.get(), options.get()), TREL_TRACE_SENT);
        EXPECT_EQ(traces->refcount + options->refcount, 2u);
        Json want = json_of(R"({"meta": {"timestamp": "T", "type": 5, "source": {"app": "x"}},
                                "traces": [{"type": "t"}]})");
        Json meta = device_fields(true);
        json_object_set_new(meta.get(), "site", json_string("lobby"));
        EXPECT_TRUE(json_equal(json_object_get(options.get(), "meta"), meta.get()));
        json_object_set(json_object_get(want.get(), "meta"), "meta", meta.get());
        auto reqs = server.requests();
        ASSERT_EQ(reqs.size(), 1u);
        EXPECT_EQ(reqs[0].line, "PUT /base/traces HTTP/1.1");
        EXPECT_EQ(reqs[0].header("Content-Type"), "application/json");
        EXPECT_TRUE(json_equal(json_of(reqs[0].body).get(), want.get())) << reqs[0].body;
        EXPECT_FALSE(log.contains("Couldn't obtain firmware version"));

        // Another status fails, logged with the body.  Without options the
        // outer meta has its defaults; the device id stays cached and an
        // empty site id is left out.
        write_device(root, "ffff", false);
        int64_t before = time(nullptr) * 1000LL;
        EXPECT_EQ(send_traces(traces.get(), nullptr), TREL_TRACE_FAILED);
        EXPECT_TRUE(log.contains("trace.put_trace(): PUT '" + server.url("/base") +
                                 "/traces' failed: [200] nope"));
        Json outer(json_incref(json_object_get(json_of(server.requests()[1].body).get(), "meta")));
        json_int_t stamp = json_integer_value(json_object_get(outer.get(), "timestamp"));
        EXPECT_TRUE(stamp >= before && stamp <= time(nullptr) * 1000LL + 1000) << stamp;
        json_object_del(outer.get(), "timestamp");
        want = Json(json_pack("{s:s, s:o, s:{}}", "type", "event", "meta",
                              device_fields(false).release(), "source"));
        EXPECT_TRUE(json_equal(outer.get(), want.get())) << dump(outer.get());

        // One trace of a namespace and type; the time stamp is the envelope's.
        EXPECT_EQ(send_trace_simple("sys", "boot", json_pack("{s:i}", "k", 1)), TREL_TRACE_SENT);
        EXPECT_EQ(dump(json_object_get(json_of(server.requests()[2].body).get(), "traces")),
                  R"([{"payload":{"contentType":"application/json","data":"{\"k\":1}"},)"
                  R"("type":"boot","namespace":"sys"}])");
    });
}

TEST(Trace, BackoffGrowsThenGivesUp) {
    run_in_child([] {
        TempRoot root;
        HttpServer server;
        server.add_response({200});
        server.add_response({202});
        const std::string closed = HttpServer().url("");  // refused at once once it is gone
        LogCapture log;
        Json traces = json_of(R"([{"type": "t"}])");
        auto send_at = [&](int64_t ms) {
            g_fake_ms = ms;
            return send_traces(traces.get(), nullptr);
        };
        // Four failures in a row leave no back-off; the fifth starts it at 1 s.
        auto fail_five_times = [&](int64_t ms) {
            setenv("LIBTREL_TRACE_URL", closed.c_str(), 1);
            for (int i = 1; i <= 5; i++) EXPECT_EQ(send_at(ms), TREL_TRACE_FAILED) << i;
            EXPECT_EQ(send_at(ms + 999), TREL_TRACE_BACKING_OFF);
        };
        // Any answer, even a refusal, clears it and the count.
        fail_five_times(5000000);
        setenv("LIBTREL_TRACE_URL", server.url("").c_str(), 1);
        EXPECT_EQ(send_at(5001000), TREL_TRACE_FAILED);  // the 200
        EXPECT_EQ(send_at(5001000), TREL_TRACE_SENT);
        fail_five_times(5001000);
        EXPECT_EQ(send_at(5002000), TREL_TRACE_FAILED);
        // Doubling from there: the 22nd failure passes a day, and then the
        // sender stops for good.
        int64_t now = 5002000;
        for (int i = 7; i <= 22; i++) EXPECT_EQ(send_at(now += 1ll << 31), TREL_TRACE_FAILED) << i;
        EXPECT_EQ(send_at(now + (1ll << 40)), TREL_TRACE_GAVE_UP);
        // The transport failure is logged once.
        std::vector<std::string> logged;
        for (const std::string &m : messages(log))
            if (m.rfind("PUT", 0) == 0) logged.push_back(m);
        EXPECT_EQ(logged, std::vector<std::string>{"PUT '" + closed +
                                                   "/traces' failed: [7] Couldn't connect to "
                                                   "server"});
    });
}

// The base URL follows the management environment unless the variable
// replaces it; a tagged build's "prod" stays production.
TEST(Trace, ServiceUrlFollowsEnvironment) {
    static const char *const urls[3] = {"P", "S", "D"};
    TempRoot root;
    const struct {
        const char *env, *reftype, *over, *want;
    } rows[] = {{"prod", "branch", "", "D"},
                {"stage", "branch", "", "S"},
                {"dev", "atag", "", "D"},
                {"prod", "atag", "", "P"},
                {"prod", "atag", "http://x", "http://x"}};
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string(r.env) + " " + r.reftype + " " + r.over);
        root.write("/tmp/system.cfg", std::string("mgmt.vesk.env=") + r.env + "\n");
        root.write("/usr/lib/build.properties", std::string("scm_reftype=") + r.reftype + "\n");
        run_in_child([&] {
            setenv("LIBTREL_TEST_URL", r.over, 1);
            EXPECT_STREQ(trel::telemetry::service_base_url(urls, "LIBTREL_TEST_URL"), r.want);
        });
    }
}

}  // namespace
