// The isolation log store: meta records, reports with their retry limit,
// delivery, bad entries, and walks of several processes.  Archives are made
// with tar at test time; the walker's 1 s waits are counted through sleep.
#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <initializer_list>
#include <string>
#include <vector>

#include "http_server.h"
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

std::atomic<int> g_sleeps{0};

}  // namespace

// The walker's waits between lock tries: counted, not waited.
extern "C" unsigned int sleep(unsigned int) {
    g_sleeps++;
    return 0;
}

namespace {

const std::string kLogs = "/etc/persistent/isolation_logs/";
const std::string kMeta = kLogs + "meta/";
const std::string kSent = "/etc/persistent/isolation_logs_sent/";

// A store ready to report: the system wrapper (which records its verbs) in
// the root and its filters on PATH.
struct Store {
    TempRoot root;
    trel_test::FakePath fake;
    Store() {
        root.write("/etc/syswrapper.sh", std::string("#!/bin/sh\n") + telemetry_test::kFilterScript,
                   0755);
        fake.add("syswrapper.sh", telemetry_test::kFilterScript);
        root.write("/var/run/ntp.ready", "");
        root.write("/var/run/ipready.br0", "");
        root.mkdir(kLogs);
    }
    // A gzipped tar archive holding one text file.
    void archive(const std::string &name, const std::string &text) const {
        std::string dir = trel_test::make_temp_dir();
        trel_test::write_file(dir + "/messages", text);
        std::string cmd = "tar -czf '" + root.path(kLogs + name) + "' -C '" + dir + "' messages";
        ASSERT_EQ(system(cmd.c_str()), 0);
        trel_test::remove_tree(dir);
    }
    Json meta(const std::string &name) const { return json_of(root.read(kMeta + name)); }
    int saves() const {
        std::string log = root.read("/syswrapper.log");
        return (int)std::count(log.begin(), log.end(), '\n');
    }
};

// The value of key in the meta record, compact.
std::string field(const Json &meta, const char *key) {
    return dump(json_object_get(meta.get(), key));
}

// The values of keys in o as one compact array (null for a missing key).
std::string values(const json_t *o, std::initializer_list<const char *> keys) {
    Json a(json_array());
    for (const char *key : keys) {
        json_t *v = json_object_get(o, key);
        json_array_append(a.get(), v != nullptr ? v : json_null());
    }
    return dump(a.get());
}

TEST(Isolation, ReportsOnceGivingUpAfterFiveFailures) {
    trel_test::run_in_child([] {
        Store s;
        s.archive("a.tar.gz", "a: key hunter2\n");
        s.archive("c.tar.gz", "c\n");
        HttpServer server(
            [](const trel_test::HttpRequest &) { return trel_test::HttpResponse(500); });
        EnvVar url("LIBTREL_CRASH_URL", server.url(""));
        LogCapture log;

        // Without an action every archive still gets its record.
        EXPECT_EQ(check_vwire_disconnect_logs("HRB-X", 0), 0);
        Json a = s.meta("a.tar.gz");
        EXPECT_EQ(field(a, "filename"), "\"a.tar.gz\"");
        EXPECT_EQ(field(a, "sent_to_analytics"), "false");
        EXPECT_EQ(values(json_object_get(a.get(), "payload"), {"type", "uplink_model"}),
                  R"(["vwire_disconnect","HRB-X"])");
        EXPECT_EQ(s.saves(), 1);
        EXPECT_TRUE(server.requests().empty());

        // Four failed reports are counted without saving flash.
        for (int walk = 1; walk <= 4; walk++) EXPECT_EQ(check_vwire_disconnect_logs("HRB-X", 1), 0);
        a = s.meta("a.tar.gz");
        EXPECT_EQ(field(a, "send_attempts"), "4");
        EXPECT_EQ(field(a, "sent_to_analytics"), "false");
        EXPECT_EQ(s.saves(), 1);
        EXPECT_TRUE(
            log.contains("[error] crash.send_vwire_disconnect_log(): Recording "
                         "vwire_disconnect log a.tar.gz failed\n"));
        // The fifth gives both up: one save for the walk.
        EXPECT_EQ(check_vwire_disconnect_logs("HRB-X", 1), 0);
        for (const char *name : {"a.tar.gz", "c.tar.gz"}) {
            SCOPED_TRACE(name);
            Json m = s.meta(name);
            EXPECT_EQ(field(m, "send_attempts"), "5");
            EXPECT_EQ(field(m, "sent_to_analytics"), "true");
        }
        EXPECT_EQ(s.saves(), 2);
        EXPECT_TRUE(
            log.contains("[info ] crash.send_vwire_disconnect_log(): Failed to record "
                         "vwire_disconnect log a.tar.gz after 5 attempts\n"));
        EXPECT_EQ(server.requests().size(), 10u);
        EXPECT_EQ(check_vwire_disconnect_logs("HRB-X", 1), 0);
        EXPECT_EQ(server.requests().size(), 10u);

        // A report that is accepted: the filtered archive text goes, the
        // record keeps no copy of it.
        HttpServer ok;
        EnvVar ok_url("LIBTREL_CRASH_URL", ok.url(""));
        s.archive("b.tar.gz", "b: key hunter2\n");
        EXPECT_EQ(check_vwire_disconnect_logs(nullptr, 1), 0);
        auto reqs = ok.requests();
        ASSERT_EQ(reqs.size(), 1u);
        EXPECT_EQ(reqs[0].line, "POST /v1/crash HTTP/1.1");
        Json sent = json_of(reqs[0].body);
        EXPECT_EQ(values(sent.get(), {"crash_log", "type", "uplink_model"}),
                  R"(["b: key *******\n","vwire_disconnect","unknown"])");
        Json b = s.meta("b.tar.gz");
        EXPECT_EQ(field(b, "sent_to_analytics"), "true");
        EXPECT_EQ(json_object_get(json_object_get(b.get(), "payload"), "crash_log"), nullptr);
        EXPECT_EQ(s.saves(), 3);
        EXPECT_TRUE(log.contains("Recorded vwire_disconnect log b.tar.gz\n"));
    });
}

TEST(Isolation, DeliveryMarksAndNext) {
    trel_test::run_in_child([] {
        Store s;
        s.archive("x.tar.gz", "x\n");
        s.archive("y.tar.gz", "y\n");
        LogCapture log;
        EXPECT_EQ(has_crash_logs(), 1);

        EXPECT_EQ(mark_crash_log_finished(nullptr), 0);
        EXPECT_TRUE(
            log.contains("[error] crash.mark_crash_log_sent_to_net(): Missing "
                         "finish_filename"));
        EXPECT_TRUE(log.contains("[warn ] crash.finish_crash_meta(): Couldn't process "));
        EXPECT_EQ(mark_crash_log_finished("nosuch.tar.gz"), 0);

        std::vector<std::string> delivered;
        for (int i = 0; i < 2; i++) {
            Json next(get_next_crash_log());
            ASSERT_TRUE(next);
            std::string name = trel_json_get_str(next.get(), "filename", "");
            ASSERT_TRUE(name == "x.tar.gz" || name == "y.tar.gz") << name;
            // The whole archive in Base64.
            std::string bytes = trel_test::read_file(s.root.path(kLogs + name));
            std::string b64((size_t)base64_encode_len((int32_t)bytes.size()), '\0');
            base64rfc_encode(b64.data(), (const uint8_t *)bytes.data(), (int32_t)bytes.size());
            b64.resize(strlen(b64.c_str()));
            EXPECT_EQ(trel_json_get_str(next.get(), "file_data", ""), b64);
            EXPECT_EQ(mark_crash_log_finished(name.c_str()), 1);
            EXPECT_TRUE(s.root.exists(kSent + name));
            EXPECT_EQ(field(s.meta(name), "sent_to_net"), "true");
            delivered.push_back(name);
        }
        EXPECT_NE(delivered[0], delivered[1]);
        EXPECT_EQ(has_crash_logs(), 0);
        EXPECT_EQ(get_next_crash_log(), nullptr);
        EXPECT_EQ(mark_crash_log_finished("x.tar.gz"), 0);  // finished: never visited again
    });
}

TEST(Isolation, BadEntriesAndMissingStore) {
    trel_test::run_in_child([] {
        Store s;
        HttpServer server([](const trel_test::HttpRequest &) {
            return trel_test::HttpResponse(200, "not JSON: not read");
        });
        EnvVar url("LIBTREL_CRASH_URL", server.url(""));
        s.archive("good.tar.gz", "good hunter2\n");
        s.archive("garbled.tar.gz", "garbled\n");
        s.root.write(kMeta + "garbled.tar.gz", "{\"filename\": ");
        s.archive("nopayload.tar.gz", "nopayload\n");
        const std::string nopayload = R"({"filename": "nopayload.tar.gz"})";
        s.root.write(kMeta + "nopayload.tar.gz", nopayload);
        s.archive("unopenable.tar.gz", "unopenable\n");
        s.root.mkdir(kMeta + "unopenable.tar.gz");
        s.root.write(kLogs + "plain.tar.gz", "not gzip\n");
        s.root.mkdir(kLogs + "dir.tar.gz");
        LogCapture log;

        EXPECT_EQ(check_vwire_disconnect_logs("m", 1), 0);
        // Each report carries its own archive's filtered text; one that is
        // not gzip gives none.
        std::vector<std::string> logs;
        for (const auto &req : server.requests())
            logs.push_back(trel_json_get_str(json_of(req.body).get(), "crash_log", "-"));
        std::sort(logs.begin(), logs.end());
        EXPECT_EQ(logs, (std::vector<std::string>{"", "garbled\n", "good *******\n"}));
        for (const char *name : {"good.tar.gz", "garbled.tar.gz", "plain.tar.gz"}) {
            SCOPED_TRACE(name);
            EXPECT_EQ(field(s.meta(name), "sent_to_analytics"), "true");
        }
        // A record without a payload is left as it is, and so is an entry
        // whose record cannot be opened; directories are no archives.
        EXPECT_EQ(s.root.read(kMeta + "nopayload.tar.gz"), nopayload);
        EXPECT_TRUE(
            log.contains("[error] crash.iterate_crash_logs(): Failed to generate "
                         "vwire_disconnect meta: No data available"));
        EXPECT_TRUE(log.contains("Couldn't process nopayload.tar.gz: No data available"));
        EXPECT_TRUE(log.contains("[error] crash.iterate_crash_logs(): Couldn't open " + kMeta +
                                 "unopenable.tar.gz Is a directory"));
        EXPECT_TRUE(log.contains("Couldn't process unopenable.tar.gz: Is a directory"));
        EXPECT_FALSE(s.root.exists(kMeta + "dir.tar.gz"));
        EXPECT_FALSE(log.contains("dir.tar.gz"));

        // A store that is not there holds nothing, and is not made.
        s.root.remove("/etc/persistent");
        EXPECT_EQ(check_vwire_disconnect_logs("m", 1), 0);
        EXPECT_EQ(has_crash_logs(), 0);
        EXPECT_EQ(get_next_crash_log(), nullptr);
        EXPECT_EQ(mark_crash_log_finished("good.tar.gz"), 0);
        EXPECT_FALSE(s.root.exists("/etc/persistent"));
    });
}

TEST(Isolation, LockedRecordIsSkippedAfterItsRetries) {
    trel_test::run_in_child([] {
        Store s;
        s.archive("held.tar.gz", "held\n");
        s.archive("free.tar.gz", "free\n");
        ASSERT_EQ(check_vwire_disconnect_logs("m", 0), 0);
        HttpServer server;
        EnvVar url("LIBTREL_CRASH_URL", server.url(""));
        // Another process holds the record's lock.
        int ready[2], release[2];
        ASSERT_EQ(pipe(ready), 0);
        ASSERT_EQ(pipe(release), 0);
        pid_t holder = fork();
        if (holder == 0) {
            int fd = open(s.root.path(kMeta + "held.tar.gz").c_str(), O_RDONLY);
            char c = flock(fd, LOCK_EX) == 0 ? 'y' : 'n';
            (void)!write(ready[1], &c, 1);
            (void)!read(release[0], &c, 1);
            _exit(0);
        }
        char c = 0;
        ASSERT_EQ(read(ready[0], &c, 1), 1);
        ASSERT_EQ(c, 'y');
        const std::string before = s.root.read(kMeta + "held.tar.gz");

        LogCapture log;
        g_sleeps = 0;
        EXPECT_EQ(check_vwire_disconnect_logs("m", 1), 0);
        EXPECT_EQ(g_sleeps.load(), 9);  // ten tries, 1 s apart
        EXPECT_TRUE(
            log.contains("[warn ] crash.finish_crash_meta(): Couldn't process "
                         "held.tar.gz: Device or resource busy"));
        EXPECT_EQ(server.requests().size(), 1u);
        EXPECT_EQ(s.root.read(kMeta + "held.tar.gz"), before);

        (void)!write(release[1], "x", 1);
        waitpid(holder, nullptr, 0);
        g_sleeps = 0;
        EXPECT_EQ(check_vwire_disconnect_logs("m", 1), 0);
        EXPECT_EQ(g_sleeps.load(), 0);
        EXPECT_EQ(server.requests().size(), 2u);
        for (int fd : {ready[0], ready[1], release[0], release[1]}) close(fd);
    });
}

// Read-only flash: records that cannot be made or saved are logged and the
// old ones stay whole.
TEST(Isolation, ReadOnlyStoreLosesNothing) {
    if (geteuid() == 0) GTEST_SKIP() << "root writes into read-only directories";
    trel_test::run_in_child([] {
        Store s;
        s.archive("old.tar.gz", "old\n");
        ASSERT_EQ(check_vwire_disconnect_logs("m", 0), 0);
        const std::string before = s.root.read(kMeta + "old.tar.gz");
        s.archive("new.tar.gz", "new\n");
        chmod(s.root.path(kMeta).c_str(), 0555);
        HttpServer server;
        EnvVar url("LIBTREL_CRASH_URL", server.url(""));
        LogCapture log;
        EXPECT_EQ(check_vwire_disconnect_logs("m", 1), 0);
        chmod(s.root.path(kMeta).c_str(), 0755);
        EXPECT_TRUE(log.contains("Couldn't open " + kMeta + "new.tar.gz Permission denied"));
        EXPECT_TRUE(
            log.contains("[error] crash.finish_crash_meta(): Cannot save vwire_disconnect " +
                         kMeta + "old.tar.gz meta file"));
        EXPECT_EQ(s.root.read(kMeta + "old.tar.gz"), before);
        EXPECT_EQ(server.requests().size(), 1u);
    });
}

// Two processes walk the same store at once: every archive is reported
// exactly once and every record is whole afterwards.
TEST(Isolation, ConcurrentWalksReportEachArchiveOnce) {
    Store s;
    const int kArchives = 12;
    for (int i = 0; i < kArchives; i++)
        s.archive("log" + std::to_string(i) + ".tar.gz", "archive " + std::to_string(i) + "\n");
    HttpServer server;
    EnvVar url("LIBTREL_CRASH_URL", server.url(""));
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    std::vector<pid_t> walkers;
    for (int w = 0; w < 2; w++) {
        pid_t pid = fork();
        if (pid == 0) {
            close(go[1]);
            char c;
            (void)!read(go[0], &c, 1);
            libtrel_log_level = 0;
            _exit(check_vwire_disconnect_logs("m", 1) == 0 ? 0 : 1);
        }
        walkers.push_back(pid);
    }
    close(go[0]);
    close(go[1]);  // both start now
    for (pid_t pid : walkers) {
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    std::vector<std::string> reported;
    for (const auto &req : server.requests())
        reported.push_back(trel_json_get_str(json_of(req.body).get(), "crash_log", "-"));
    std::sort(reported.begin(), reported.end());
    std::vector<std::string> want;
    for (int i = 0; i < kArchives; i++) want.push_back("archive " + std::to_string(i) + "\n");
    std::sort(want.begin(), want.end());
    EXPECT_EQ(reported, want);
    for (int i = 0; i < kArchives; i++) {
        Json m = s.meta("log" + std::to_string(i) + ".tar.gz");
        EXPECT_TRUE(m) << i;
        EXPECT_EQ(field(m, "sent_to_analytics"), "true") << i;
    }
}

}  // namespace
