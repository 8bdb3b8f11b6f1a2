// Crash reports: the analytics switches, the saved payload, captured
// commands, the kernel crash and binary dumps against a loopback server with
// fake commands on PATH.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <mutex>
#include <string>
#include <vector>

#include "http_server.h"
#include "telemetry_test.h"
#include "trel_test.h"

using telemetry_test::dump;
using telemetry_test::EnvVar;
using telemetry_test::Json;
using telemetry_test::json_of;
using trel_test::HttpRequest;
using trel_test::HttpResponse;
using trel_test::HttpServer;
using trel_test::LogCapture;
using trel_test::TempRoot;

namespace {

cfg_entry *cfg_of(const std::string &text) {
    FILE *f = fmemopen((void *)text.data(), text.size(), "r");
    cfg_entry *cfg = parse_stream(f);
    fclose(f);
    return cfg;
}

// An id longer than the 63 characters kept.
const std::string kController(70, 'c');

// A device ready to report, with its identity and a configuration holding
// a key the filter masks.
void write_reporting_device(const TempRoot &root) {
    root.write("/proc/trelhal/system.info",
               "vendorid=0x7a1e\nsystemid=0xee7c\nboardrevision=12\nmanufid=00a1\n"
               "device.anonid=0123456789abcdef\n");
    root.write("/tmp/system.cfg",
               "morna.key=abcdef\nmorna.version=9.1.2\nmorna.anonymous_controller_id=" +
                   kController + "\nmorna.anonymous_site_id=site-1\n");
    root.write("/usr/etc/.version", "6.0.1\n");
    root.write("/usr/etc/.build", "77\n");
    root.write("/proc/trelhal/status/IsDefault", "true\n");
    root.write("/var/run/ntp.ready", "");
    root.write("/var/run/ipready.br0", "192.0.2.20\n");
}

TEST(Crash, AnalyticsSwitches) {
    struct {
        const char *cfg;
        int mode, coredump;
    } const rows[] = {
        {"", 2, 0},
        {"system.analytics.status=disabled\n", 2, 0},
        {"system.analytics.status=enabled\n", 1, 0},
        {"system.analytics.anonymous=true\n", 2, 0},
        {"system.analytics.anonymous=false\n", 1, 0},
        {"system.analytics.anonymous=true\nsystem.analytics.status=enabled\n", 2, 0},
        {"system.analytics.anonymous=off\nsystem.analytics.status=on\n", 1, 0},
        {"system.analytics.anonymous=true\nsystem.analytics.status=disabled\n", 0, 0},
        {"system.analytics.anonymous=false\nsystem.analytics.status=false\n", 0, 0},
        {"system.analytics.coredump=enabled\n", 2, 1},
        {"system.analytics.coredump=maybe\n", 2, 0},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.cfg);
        cfg_entry *cfg = cfg_of(r.cfg);
        EXPECT_EQ(get_analytics_mode(cfg), r.mode);
        EXPECT_EQ(get_analytics_coredump_mode(cfg), r.coredump);
        free_cfg(cfg);
    }
    // Only the first 15 characters count.
    EXPECT_EQ(is_dir_in_persistent("/etc/persistent/isolation_logs/"), 1);
    EXPECT_EQ(is_dir_in_persistent("/etc/persistentX"), 1);
    EXPECT_EQ(is_dir_in_persistent("/etc/persisten"), 0);
    EXPECT_EQ(is_dir_in_persistent(nullptr), 0);
}

TEST(Crash, SavedPayloadAndCapturedOutput) {
    TempRoot root;
    LogCapture log;
    // The indented text of {"x": "<n characters>"} is n + 13 bytes.
    auto payload_of = [](size_t text_size) {
        return Json(json_pack("{s:s}", "x", std::string(text_size - 13, 'a').c_str()));
    };
    Json limit = payload_of(102400);
    save_crash_payload(limit.get());  // no /var/run yet
    EXPECT_TRUE(
        log.contains("[error] crash.save_crash_payload(): Failed opening file for saving "
                     "crash report payload\n"));
    save_crash_payload_cmd("tar -xOzf x");
    EXPECT_TRUE(log.contains("Failed opening file for saving crash report payload command"));

    root.mkdir("/var/run");
    save_crash_payload(limit.get());
    char *text = json_dumps(limit.get(), JSON_INDENT(2));
    std::string saved = root.read("/var/run/report_payload.txt");
    EXPECT_EQ(saved, std::string(text) + "\n");
    free(text);
    EXPECT_TRUE(
        log.contains("[info ] crash.save_crash_payload(): Saved crash report payload of "
                     "102400 bytes"));
    save_crash_payload(payload_of(102401).get());
    EXPECT_TRUE(
        log.contains("Skipped saving crash report payload because it was > 102400 "
                     "(102401)"));
    EXPECT_EQ(root.read("/var/run/report_payload.txt"), saved);
    save_crash_payload(nullptr);
    EXPECT_TRUE(log.contains("crash.save_crash_payload(): Invalid payload"));
    save_crash_payload_cmd("tar -xOzf x");
    EXPECT_EQ(root.read("/var/run/report_payload_cmd.txt"), "tar -xOzf x\n");

    Json o(json_object());
    EXPECT_EQ(json_object_capture_popen(o.get(), "out", "printf 'a\\nb'; exit 3"), 0);
    EXPECT_EQ(json_object_capture_popen(o.get(), "none", nullptr), 0);
    EXPECT_EQ(dump(o.get()), R"({"out":"a\nb"})");
    // No descriptor left for the pipe: the command cannot start.
    trel_test::run_in_child([] {
        LogCapture log;
        struct rlimit saved, lim = {3, 3};
        getrlimit(RLIMIT_NOFILE, &saved);
        lim.rlim_max = saved.rlim_max;
        Json o(json_pack("{s:s}", "out", "old"));
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lim), 0);
        int rc = json_object_capture_popen(o.get(), "out", "echo hi");
        setrlimit(RLIMIT_NOFILE, &saved);
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(dump(o.get()), R"({"out":""})");
        EXPECT_TRUE(
            log.contains("[warn ] crash.json_object_capture_popen(): Failed to capture "
                         "the output of command echo hi"));
    });
}

TEST(Crash, KernelCrashSentOnce) {
    trel_test::run_in_child([] {
        TempRoot root;
        write_reporting_device(root);
        root.remove("/var/run/ntp.ready");
        trel_test::FakePath fake;
        fake.add("syswrapper.sh", telemetry_test::kFilterScript);
        fake.add("oopsdump",
                 "echo \"-$1\" >> \"$LIBTREL_ROOT/oopsdump.calls\"\n"
                 "case \"$1\" in -e|-c) exit 0 ;; esac\n"
                 "echo 'Oops: kernel BUG at x.c:12 hunter2'\n");
        HttpServer server;
        server.add_response({500, "busy"});
        server.add_response({200, "not json, not read"});
        // Bases that make "<base>/v1/kernel-crash" 127 and 128 characters long.
        std::string base = server.url("/");
        base += std::string(127 - base.size() - strlen("/v1/kernel-crash"), 'p');
        telemetry_test::LogLevel level(8);
        LogCapture log;
        auto oops_calls = [&] { return root.read("/oopsdump.calls"); };

        EXPECT_EQ(send_kernel_crash(), -ENOENT);
        root.write("/var/run/ntp.ready", "");
        {
            EnvVar url("LIBTREL_CRASH_URL", base + "p");
            EXPECT_EQ(send_kernel_crash(), -ESRCH);
            EXPECT_TRUE(log.contains("[error] crash.send_kernel_crash(): URL truncated"));
        }
        EnvVar url("LIBTREL_CRASH_URL", base);
        EXPECT_EQ(send_kernel_crash(), -EIO);
        EXPECT_TRUE(log.contains("crash.post_crash(): POST '" + base +
                                 "/v1/kernel-crash' failed: [500] busy"));
        EXPECT_TRUE(log.contains("crash.send_kernel_crash(): Failed to process kernel crash: -1"));
        EXPECT_FALSE(root.exists("/var/run/last-crashlog.sent"));
        EXPECT_TRUE(root.exists("/var/run/report_payload.txt"));  // kept whatever the answer

        EXPECT_EQ(send_kernel_crash(), 0);
        struct stat st;
        ASSERT_EQ(stat(root.path("/var/run/last-crashlog.sent").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0644u);
        auto reqs = server.requests();
        ASSERT_EQ(reqs.size(), 2u);
        EXPECT_EQ(reqs[1].line,
                  "POST " + base.substr(base.find('/', 7)) + "/v1/kernel-crash HTTP/1.1");
        Json sent = json_of(reqs[1].body);
        struct utsname uts;
        uname(&uts);
        Json want(json_pack(
            "{s:s, s:s, s:s, s:s, s:s, s:s, s:s, s:s, s:s, s:s, s:b, s:s, s:s, s:s, s:s, s:s}",
            "product_line", "network", "anonymous_controller_id", kController.substr(0, 63).c_str(),
            "anonymous_site_id", "site-1", "anonymous_device_id", "0123456789abcdef",
            "kernel_version", uts.release, "architecture", uts.machine, "bomrev", "12",
            "manufacturer_id", "161", "model", "Harbor SW-P", "version", "6.0.1.77", "is_default",
            1, "controller_version", "9.1.2", "crash_log", "Oops: kernel BUG at x.c:12 *******\n",
            "system_cfg",
            ("morna.key=***\nmorna.version=9.1.2\nmorna.anonymous_controller_id=" + kController +
             "\nmorna.anonymous_site_id=site-1\n")
                .c_str(),
            "source", "oopsdump", "sender", "firmware"));
        for (const char *key : {"uptime", "boot_time", "system_time"}) {
            SCOPED_TRACE(key);
            json_t *v = json_object_get(sent.get(), key);
            EXPECT_TRUE(key[0] == 's' ? json_is_string(v) : json_is_integer(v)) << dump(v);
            json_object_del(sent.get(), key);
        }
        EXPECT_TRUE(json_equal(sent.get(), want.get())) << reqs[1].body;

        // Sent: nothing more while the marker is there.
        EXPECT_EQ(send_kernel_crash(), 0);
        EXPECT_EQ(server.requests().size(), 2u);
        EXPECT_TRUE(
            log.contains("crash.send_kernel_crash(): Kernel crashlog already sent to "
                         "analytics"));
        // "oopsdump -e" was asked once; clearing keeps the text and forgets.
        EXPECT_EQ(oops_calls(), "--e\n-\n-\n");
        EXPECT_EQ(oops_clear(), 0);
        EXPECT_EQ(root.read("/var/run/last-crashlog.txt"), "Oops: kernel BUG at x.c:12 hunter2\n");
        EXPECT_EQ(has_oops(), 0);
        EXPECT_EQ(send_kernel_crash(), -1);
        EXPECT_TRUE(
            log.contains("[error] crash.send_kernel_crash(): Tried processing a crash "
                         "when no crash was found"));
        EXPECT_EQ(oops_calls(), "--e\n-\n-\n-\n--c\n");
    });
}

TEST(Crash, BinaryDumps) {
    trel_test::run_in_child([] {
        TempRoot root;
        write_reporting_device(root);
        root.write("/var/log/messages",
                   "Nov 2 10:00 other[42]: no\nNov 2 10:01 crashd[42]: boom hunter2\n"
                   "Nov 2 10:01 crashd[43]: not this one\n");
        trel_test::FakePath fake;
        fake.add("syswrapper.sh", telemetry_test::kFilterScript);
        fake.add("logread", "printf 'boot\\nCollecting RAMDUMP now\\n'\n");
        struct Row {
            const char *what;
            int type;
            bool data;
            const char *coredump;  // "/var/run/system.analytics.coredump"
            HttpResponse answer;   // to the report
            int put_status;        // to the upload, 0: none expected
            int rc;
            const char *type_name;
            bool upload;
            std::string message;
        };
        HttpServer *server_ptr = nullptr;
        const Row *row = nullptr;
        std::mutex mutex;
        HttpServer server([&](const HttpRequest &req) {
            std::lock_guard<std::mutex> lock(mutex);
            if (req.line.rfind("PUT", 0) == 0) return HttpResponse(row->put_status, "no room");
            HttpResponse a = row->answer;
            if (a.body == "UPLOAD")
                a.body = dump(json_pack("{s:s}", "upload_url", server_ptr->url("/up").c_str()));
            return a;
        });
        server_ptr = &server;
        EnvVar url("LIBTREL_CRASH_URL", server.url(""));
        const std::string dump_bytes("core\0dump\xff", 10);
        const Row rows[] = {
            {"ram dump without a buffer",
             3,
             false,
             "1",
             {200, "not json"},
             0,
             0,
             "ram-dump",
             false,
             ""},
            {"upload allowed", 1, true, "1", {200, "UPLOAD"}, 200, 0, "app-crash", true, ""},
            {"upload forbidden",
             0,
             true,
             "0",
             {200, "{}"},
             0,
             0,
             "core-dump",
             false,
             "[info ] crash.send_crash_binary_data(): Binary dump upload disabled by system "
             "settings"},
            {"no upload_url",
             2,
             true,
             "1",
             {200, "{}"},
             0,
             0,
             "oom-kill",
             true,
             "[warn ] crash.send_crash_binary_data(): No upload_url in response"},
            {"kind 7", 7, false, "1", {200, ""}, 0, 0, "unknown", false, ""},
            {"answer not JSON",
             1,
             true,
             "1",
             {200, "nope"},
             0,
             -1,
             "app-crash",
             true,
             "crash.post_crash(): Failed to parse response: "},
            {"upload refused",
             1,
             true,
             "1",
             {200, "UPLOAD"},
             500,
             -1,
             "app-crash",
             true,
             "crash.upload_file(): PUT '" + server.url("/up") + "' failed: [500] no room"},
            {"service error",
             1,
             true,
             "1",
             {500, "busy"},
             0,
             -1,
             "app-crash",
             true,
             "failed: [500] busy"},
        };
        for (const Row &r : rows) {
            SCOPED_TRACE(r.what);
            {
                std::lock_guard<std::mutex> lock(mutex);
                row = &r;
            }
            root.write("/var/run/system.analytics.coredump", r.coredump);
            LogCapture log;
            size_t before = server.requests().size();
            int rc = send_crash_binary_data("crashd", 42, 11, 3, 3600,
                                            r.data ? dump_bytes.data() : nullptr,
                                            (int)dump_bytes.size(), r.type);
            EXPECT_EQ(rc, r.rc);
            EXPECT_TRUE(log.contains(r.message)) << log.text();
            auto reqs = server.requests();
            ASSERT_EQ(reqs.size(), before + (r.put_status ? 2 : 1));
            EXPECT_EQ(reqs[before].line, "POST /v1/crash HTTP/1.1");
            if (r.put_status) {
                EXPECT_EQ(reqs[before + 1].line, "PUT /up HTTP/1.1");
                EXPECT_EQ(reqs[before + 1].body, dump_bytes);
            }
            Json sent = json_of(reqs[before].body);
            EXPECT_STREQ(trel_json_get_str(sent.get(), "type", "-"), r.type_name);
            EXPECT_EQ(trel_json_get_bool(sent.get(), "upload", -1), r.upload);
            if (r.type == 3) {
                EXPECT_STREQ(trel_json_get_str(sent.get(), "dump_type", "-"), "crashd");
                EXPECT_EQ(json_object_get(sent.get(), "cmd"), nullptr);
                EXPECT_STREQ(trel_json_get_str(sent.get(), "crash_log", "-"),
                             "boot\nCollecting RAMDUMP now\n");
                EXPECT_NE(json_object_get(sent.get(), "system_cfg"), nullptr);
            } else {
                // The process's own lines and the whole log, both filtered,
                // from the rooted system log.
                Json want(json_pack("{s:s, s:i, s:i, s:i, s:s, s:s}", "cmd", "crashd", "signal", 11,
                                    "number_of_crashes", 3, "process_uptime", 3600,
                                    "process_stdout", "Nov 2 10:01 crashd[42]: boom *******\n",
                                    "crash_log",
                                    "Nov 2 10:00 other[42]: no\nNov 2 10:01 crashd[42]: boom "
                                    "*******\nNov 2 10:01 crashd[43]: not this one\n"));
                EXPECT_TRUE(
                    json_equal(telemetry_test::pick(sent.get(), want.get()).get(), want.get()))
                    << reqs[before].body;
                EXPECT_EQ(json_object_get(sent.get(), "system_cfg"), nullptr);
            }
        }
        // Not ready: nothing is sent.
        root.write("/var/run/system.analytics.mode", "0\n");
        size_t before = server.requests().size();
        EXPECT_EQ(send_ram_dump("x", nullptr, 0), -1);
        EXPECT_EQ(server.requests().size(), before);
    });
}

}  // namespace
