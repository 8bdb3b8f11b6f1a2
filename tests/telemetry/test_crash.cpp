// Crash reports: the analytics switches, the saved payload, the kernel crash
// and binary dumps against a loopback server with fake commands on PATH.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <atomic>
#include <string>

#include "http_server.h"
#include "telemetry_test.h"
#include "trel_test.h"

using namespace telemetry_test;
using namespace trel_test;

namespace {

// A device ready to report, with the system wrapper's filters on PATH.
void write_reporting_device(const TempRoot &root, const FakePath &fake) {
    write_device(root);
    root.write("/var/run/ntp.ready", "");
    root.write("/var/run/ipready.br0", "");
    fake.add("syswrapper.sh", kFilterScript);
}

TEST(Crash, AnalyticsSwitchesAndSavedPayload) {
    const std::string a = "system.analytics.anonymous=", st = "\nsystem.analytics.status=";
    const struct {
        std::string cfg;
        int mode, coredump;
    } rows[] = {{"", 2, 0},
                {st + "disabled", 2, 0},
                {st + "enabled", 1, 0},
                {a + "true", 2, 0},
                {a + "false", 1, 0},
                {a + "true" + st + "enabled", 2, 0},
                {a + "off" + st + "on", 1, 0},
                {a + "true" + st + "disabled", 0, 0},
                {a + "false" + st + "false", 0, 0},
                {"system.analytics.coredump=enabled", 2, 1}};
    for (const auto &r : rows) {
        SCOPED_TRACE(r.cfg);
        std::string text = r.cfg + "\n";
        FILE *f = fmemopen(text.data(), text.size(), "r");
        cfg_entry *cfg = parse_stream(f);
        fclose(f);
        EXPECT_EQ(get_analytics_mode(cfg), r.mode);
        EXPECT_EQ(get_analytics_coredump_mode(cfg), r.coredump);
        free_cfg(cfg);
    }
    // Only the first 15 characters count.
    EXPECT_EQ(is_dir_in_persistent("/etc/persistentX") + is_dir_in_persistent("/etc/persisten"), 1);

    // The indented text of {"x": "<n - 13 characters>"} is n bytes long; the
    // largest kept is 102400.
    TempRoot root;
    LogCapture log;
    auto payload_of = [](size_t n) {
        return Json(json_pack("{s:s}", "x", std::string(n - 13, 'a').c_str()));
    };
    save_crash_payload(payload_of(102400).get());  // no /var/run yet
    EXPECT_TRUE(
        log.contains("[error] crash.save_crash_payload(): Failed opening file for saving "
                     "crash report payload\n"));
    root.mkdir("/var/run");
    save_crash_payload(payload_of(102400).get());
    EXPECT_EQ(root.read("/var/run/report_payload.txt"),
              "{\n  \"x\": \"" + std::string(102387, 'a') + "\"\n}\n");
    EXPECT_TRUE(
        log.contains("[info ] crash.save_crash_payload(): Saved crash report payload of "
                     "102400 bytes"));
    save_crash_payload(payload_of(102401).get());
    EXPECT_TRUE(
        log.contains("Skipped saving crash report payload because it was > 102400 "
                     "(102401)"));
    EXPECT_EQ(root.read("/var/run/report_payload.txt").size(), 102401u);
    save_crash_payload_cmd("tar -xOzf x");
    EXPECT_EQ(root.read("/var/run/report_payload_cmd.txt"), "tar -xOzf x\n");
}

TEST(Crash, KernelCrashSentOnce) {
    run_in_child([] {
        TempRoot root;
        FakePath fake;
        write_reporting_device(root, fake);
        root.remove("/var/run/ntp.ready");
        fake.add("oopsdump",
                 "echo \"-$1\" >> \"$LIBTREL_ROOT/oopsdump.calls\"\n"
                 "case \"$1\" in -e|-c) exit 0 ;; esac\n"
                 "echo 'Oops: kernel BUG at x.c:12 hunter2'\n");
        HttpServer server;
        server.add_response({500, "busy"});
        server.add_response({200, "not JSON, not read"});
        // A base that makes "<base>/v1/kernel-crash" 127 characters long.
        std::string base = server.url("/");
        base += std::string(127 - base.size() - strlen("/v1/kernel-crash"), 'p');
        libtrel_log_level = 8;
        LogCapture log;

        EXPECT_EQ(send_kernel_crash(), -ENOENT);
        root.write("/var/run/ntp.ready", "");
        setenv("LIBTREL_CRASH_URL", (base + "p").c_str(), 1);
        EXPECT_EQ(send_kernel_crash(), -ESRCH);
        EXPECT_TRUE(log.contains("[error] crash.send_kernel_crash(): URL truncated"));
        setenv("LIBTREL_CRASH_URL", base.c_str(), 1);
        EXPECT_EQ(send_kernel_crash(), -EIO);
        EXPECT_TRUE(log.contains("[warn ] crash.post_crash(): POST '" + base +
                                 "/v1/kernel-crash' failed: [500] busy"));
        EXPECT_TRUE(log.contains("crash.send_kernel_crash(): Failed to process kernel crash: -1"));
        EXPECT_FALSE(root.exists("/var/run/last-crashlog.sent"));
        EXPECT_TRUE(root.exists("/var/run/report_payload.txt"));  // kept whatever the answer
        EXPECT_FALSE(log.contains("Couldn't obtain firmware version"));

        EXPECT_EQ(send_kernel_crash(), 0);
        struct stat st;
        ASSERT_EQ(stat(root.path("/var/run/last-crashlog.sent").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0644u);
        auto reqs = server.requests();
        ASSERT_EQ(reqs.size(), 2u);
        EXPECT_EQ(reqs[1].line,
                  "POST " + base.substr(base.find('/', 7)) + "/v1/kernel-crash HTTP/1.1");
        Json sent = json_of(reqs[1].body);
        for (const char *key : {"uptime", "boot_time", "system_time"}) {
            json_t *v = json_object_get(sent.get(), key);
            EXPECT_TRUE(key[0] == 's' ? json_is_string(v) : json_is_integer(v)) << key;
            json_object_del(sent.get(), key);
        }
        struct utsname uts;
        uname(&uts);
        const std::string cfg = "morna.key=***\nmorna.version=" + kVersion +
                                "\nmorna.anonymous_controller_id=" + kController +
                                "\nmorna.anonymous_site_id=s\n";
        Json want(json_pack(
            "{s:s, s:s, s:s, s:s, s:s, s:s, s:s, s:s, s:s, s:s, s:b, s:s, s:s, s:s, s:s, s:s}",
            "product_line", "network", "anonymous_controller_id", kController.substr(0, 63).c_str(),
            "anonymous_site_id", "s", "anonymous_device_id", kDevice.substr(0, 64).c_str(),
            "kernel_version", uts.release, "architecture", uts.machine, "bomrev", "12",
            "manufacturer_id", "161", "model", "Harbor SW-P", "version", "6.0.1.77", "is_default",
            1, "controller_version", kVersion.substr(0, 63).c_str(), "crash_log",
            "Oops: kernel BUG at x.c:12 *******\n", "system_cfg", cfg.c_str(), "source", "oopsdump",
            "sender", "firmware"));
        EXPECT_TRUE(json_equal(sent.get(), want.get())) << reqs[1].body;

        // Sent: nothing more while the marker is there.
        EXPECT_EQ(send_kernel_crash(), 0);
        EXPECT_EQ(server.requests().size(), 2u);
        EXPECT_TRUE(log.contains("Kernel crashlog already sent to analytics"));
        // "oopsdump -e" was asked once; clearing keeps the text and forgets.
        EXPECT_EQ(oops_clear(), 0);
        EXPECT_EQ(root.read("/var/run/last-crashlog.txt"), "Oops: kernel BUG at x.c:12 hunter2\n");
        EXPECT_EQ(send_kernel_crash(), -1);
        EXPECT_TRUE(
            log.contains("[error] crash.send_kernel_crash(): Tried processing a crash "
                         "when no crash was found"));
        EXPECT_EQ(root.read("/oopsdump.calls"), "--e\n-\n-\n-\n--c\n");
    });
}

TEST(Crash, BinaryDumps) {
    run_in_child([] {
        TempRoot root;
        FakePath fake;
        write_reporting_device(root, fake);
        root.write("/var/log/messages", "a[42]: no\ncrashd[42]: boom hunter2\ncrashd[43]: no\n");
        fake.add("logread", "printf 'boot\\nCollecting RAMDUMP now\\n'\n");
        // The kind's name and the "upload" flag go with every report; the
        // upload follows when put_status is not 0.
        struct Row {
            const char *what, *coredump, *answer, *type_name;  // answer "UPLOAD": an address
            int type, put_status, rc;
            bool data, upload;
            std::string message;
        };
        std::atomic<const Row *> row{nullptr};  // read by the server's thread
        std::string up;                         // the upload address, on the same server
        HttpServer server([&](const HttpRequest &req) {
            if (req.line.rfind("PUT", 0) == 0)
                return HttpResponse(row.load()->put_status, "no room");
            if (strcmp(row.load()->answer, "UPLOAD") != 0)
                return HttpResponse(200, row.load()->answer);
            return HttpResponse(200, R"({"upload_url": ")" + up + "\"}");
        });
        setenv("LIBTREL_CRASH_URL", server.url("").c_str(), 1);
        up = server.url("/up");
        root.remove("/var/run/ntp.ready");  // not ready: nothing is sent
        EXPECT_EQ(send_crash_binary_data("crashd", 42, 11, 3, 3600, nullptr, 0, 1), -1);
        EXPECT_TRUE(server.requests().empty());
        root.write("/var/run/ntp.ready", "");
        const std::string bytes("core\0dump\xff", 10);
        const Row rows[] = {
            {"ram dump without a buffer", "1", "not JSON, not read", "ram-dump", 3, 0, 0, false,
             false, ""},
            {"upload allowed", "1", "UPLOAD", "app-crash", 1, 200, 0, true, true, ""},
            {"upload forbidden", "0", "{}", "core-dump", 0, 0, 0, true, false,
             "[info ] crash.send_crash_binary_data(): Binary dump upload disabled by system "
             "settings"},
            {"no upload_url", "1", "{}", "oom-kill", 2, 0, 0, true, true,
             "[warn ] crash.send_crash_binary_data(): No upload_url in response"},
            {"kind 4", "1", "", "unknown", 4, 0, 0, false, false, ""},
            {"answer not JSON", "1", "nope", "app-crash", 1, 0, -1, true, true,
             "[warn ] crash.post_crash(): Failed to parse response: "},
            {"upload refused", "1", "UPLOAD", "app-crash", 1, 500, -1, true, true,
             "[warn ] crash.upload_file(): PUT '" + up + "' failed: [500] no room"},
        };
        for (const Row &r : rows) {
            SCOPED_TRACE(r.what);
            row = &r;
            root.write("/var/run/system.analytics.coredump", r.coredump);
            LogCapture log;
            size_t before = server.requests().size();
            EXPECT_EQ(
                send_crash_binary_data("crashd", 42, 11, 3, 3600, r.data ? bytes.data() : nullptr,
                                       (int)bytes.size(), r.type),
                r.rc);
            EXPECT_TRUE(log.contains(r.message)) << log.text();
            auto reqs = server.requests();
            ASSERT_EQ(reqs.size(), before + (r.put_status ? 2 : 1));
            EXPECT_EQ(reqs[before].line, "POST /v1/crash HTTP/1.1");
            if (r.put_status) {
                EXPECT_EQ(reqs[before + 1].line, "PUT /up HTTP/1.1");
                EXPECT_EQ(reqs[before + 1].body, bytes);
            }
            // RAM dumps carry the dump type, the RAM dump's lines and the
            // configuration; the others the process and its lines from the
            // rooted system log, all filtered.
            Json want(r.type == 3
                          ? json_pack("{s:s, s:b, s:s, s:s}", "type", r.type_name, "upload",
                                      r.upload, "dump_type", "crashd", "crash_log",
                                      "boot\nCollecting RAMDUMP now\n")
                          : json_pack("{s:s, s:b, s:s, s:i, s:i, s:i, s:s, s:s}", "type",
                                      r.type_name, "upload", r.upload, "cmd", "crashd", "signal",
                                      11, "number_of_crashes", 3, "process_uptime", 3600,
                                      "process_stdout", "crashd[42]: boom *******\n", "crash_log",
                                      "a[42]: no\ncrashd[42]: boom *******\ncrashd[43]: no\n"));
            Json sent = json_of(reqs[before].body);
            EXPECT_TRUE(json_equal(pick(sent.get(), want.get()).get(), want.get()))
                << reqs[before].body;
            EXPECT_EQ(json_object_get(sent.get(), "system_cfg") != nullptr, r.type == 3);
            EXPECT_EQ(json_object_get(sent.get(), "cmd") != nullptr, r.type != 3);
        }
    });
}

}  // namespace
