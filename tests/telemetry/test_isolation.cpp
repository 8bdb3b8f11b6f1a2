// The isolation log store: meta records, reports with their retry limit,
// delivery, bad entries, and walks of several processes.  Archives are made
// with tar at test time; the walker's 1 s waits are counted through sleep.
// Every case runs in a forked child, which may set the environment freely.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "http_server.h"
#include "telemetry_test.h"
#include "trel_test.h"

using namespace telemetry_test;
using namespace trel_test;

namespace {

std::atomic<int> g_sleeps{0};

}  // namespace

// The walker's waits between lock tries: counted, not waited.
extern "C" unsigned int sleep(unsigned int) {
    g_sleeps++;
    return 0;
}

namespace {

const std::string kLogs = "/etc/persistent/isolation_logs/", kMeta = kLogs + "meta/",
                  kSent = "/etc/persistent/isolation_logs_sent/";

// A store ready to report: the system wrapper (recording its verbs) in the
// root, its filters on PATH.
struct Store {
    TempRoot root;
    FakePath fake;
    Store() {
        root.write("/etc/syswrapper.sh", std::string("#!/bin/sh\n") + kFilterScript, 0755);
        fake.add("syswrapper.sh", kFilterScript);
        root.write("/var/run/ntp.ready", "");
        root.write("/var/run/ipready.br0", "");
        root.mkdir(kLogs);
    }
    // A gzipped tar archive holding one text file.
    void archive(const std::string &name, const std::string &text) const {
        std::string dir = make_temp_dir();
        write_file(dir + "/messages", text);
        std::string cmd = "tar -czf '" + root.path(kLogs + name) + "' -C '" + dir + "' messages";
        EXPECT_EQ(system(cmd.c_str()), 0);
        remove_tree(dir);
    }
    // Members of the archive's meta record (or of its payload) as one array.
    std::string meta(const std::string &name, std::initializer_list<const char *> keys,
                     bool payload = false) const {
        Json m = json_of(root.read(kMeta + name));
        return values(payload ? json_object_get(m.get(), "payload") : m.get(), keys);
    }
    long saves() const {
        std::string log = root.read("/syswrapper.log");
        return std::count(log.begin(), log.end(), '\n');
    }
};

// The "crash_log" of each report the server received, sorted.
std::vector<std::string> reported(const HttpServer &server) {
    std::vector<std::string> out;
    for (const auto &req : server.requests())
        out.push_back(trel_json_get_str(json_of(req.body).get(), "crash_log", "-"));
    std::sort(out.begin(), out.end());
    return out;
}

void report_to(const HttpServer &server) { setenv("LIBTREL_CRASH_URL", server.url("").c_str(), 1); }

TEST(Isolation, ReportsOnceGivingUpAfterFiveFailures) {
    run_in_child([] {
        Store s;
        s.archive("a.tar.gz", "a: key hunter2\n");
        s.archive("c.tar.gz", "c\n");
        HttpServer failing([](const HttpRequest &) { return HttpResponse(500); });
        report_to(failing);
        LogCapture log;
        // Without an action every archive still gets its record.
        EXPECT_EQ(check_vwire_disconnect_logs("HRB-X", 0), 0);
        EXPECT_EQ(s.meta("a.tar.gz", {"filename", "sent_to_analytics", "send_attempts"}),
                  R"(["a.tar.gz",false,null])");
        EXPECT_EQ(s.meta("a.tar.gz", {"type", "uplink_model"}, true),
                  R"(["vwire_disconnect","HRB-X"])");
        EXPECT_EQ(s.saves(), 1);
        // Four failed reports are counted without saving flash; the fifth
        // gives both archives up, with one save for the walk.
        for (int walk = 1; walk <= 4; walk++) EXPECT_EQ(check_vwire_disconnect_logs("HRB-X", 1), 0);
        EXPECT_EQ(s.meta("a.tar.gz", {"sent_to_analytics", "send_attempts"}), "[false,4]");
        EXPECT_EQ(s.saves(), 1);
        EXPECT_TRUE(
            log.contains("[error] crash.send_vwire_disconnect_log(): Recording "
                         "vwire_disconnect log a.tar.gz failed\n"));
        EXPECT_EQ(check_vwire_disconnect_logs("HRB-X", 1), 0);
        EXPECT_EQ(s.meta("a.tar.gz", {"sent_to_analytics", "send_attempts"}) +
                      s.meta("c.tar.gz", {"sent_to_analytics", "send_attempts"}),
                  "[true,5][true,5]");
        EXPECT_EQ(s.saves(), 2);
        EXPECT_TRUE(
            log.contains("[info ] crash.send_vwire_disconnect_log(): Failed to record "
                         "vwire_disconnect log a.tar.gz after 5 attempts\n"));
        EXPECT_EQ(check_vwire_disconnect_logs("HRB-X", 1), 0);
        EXPECT_EQ(failing.requests().size(), 10u);

        // An accepted report carries the filtered text; the record keeps none.
        HttpServer ok;
        report_to(ok);
        s.archive("b.tar.gz", "b: key hunter2\n");
        EXPECT_EQ(check_vwire_disconnect_logs(nullptr, 1), 0);
        ASSERT_EQ(ok.requests().size(), 1u);
        EXPECT_EQ(ok.requests()[0].line, "POST /v1/crash HTTP/1.1");
        Json sent = json_of(ok.requests()[0].body);
        EXPECT_EQ(values(sent.get(), {"crash_log", "type", "uplink_model"}),
                  R"(["b: key *******\n","vwire_disconnect","unknown"])");
        EXPECT_EQ(
            s.meta("b.tar.gz", {"sent_to_analytics"}) + s.meta("b.tar.gz", {"crash_log"}, true),
            "[true][null]");
        EXPECT_EQ(s.saves(), 3);
        EXPECT_TRUE(log.contains("Recorded vwire_disconnect log b.tar.gz\n"));
    });
}

TEST(Isolation, DeliveryMarksAndNext) {
    run_in_child([] {
        Store s;
        s.archive("x.tar.gz", "x\n");
        s.archive("y.tar.gz", "y\n");
        LogCapture log;
        EXPECT_EQ(has_crash_logs(), 1);
        EXPECT_EQ(mark_crash_log_finished(nullptr), 0);
        EXPECT_TRUE(
            log.contains("[error] crash.mark_crash_log_sent_to_net(): Missing finish_filename"));
        EXPECT_EQ(mark_crash_log_finished("nosuch.tar.gz"), 0);
        std::vector<std::string> delivered;
        for (int i = 0; i < 2; i++) {
            Json next(get_next_crash_log());
            ASSERT_TRUE(next);
            std::string name = trel_json_get_str(next.get(), "filename", "");
            // The whole archive in Base64.
            FILE *f = fopen(s.root.path(kLogs + name).c_str(), "r");
            ASSERT_NE(f, nullptr);
            char *b64 = load_file_base64(f);
            fclose(f);
            EXPECT_STREQ(trel_json_get_str(next.get(), "file_data", ""), b64);
            free(b64);
            EXPECT_EQ(mark_crash_log_finished(name.c_str()), 1);
            EXPECT_TRUE(s.root.exists(kSent + name));
            EXPECT_EQ(s.meta(name, {"sent_to_net"}), "[true]");
            delivered.push_back(name);
        }
        std::sort(delivered.begin(), delivered.end());
        EXPECT_EQ(delivered, (std::vector<std::string>{"x.tar.gz", "y.tar.gz"}));
        EXPECT_EQ(has_crash_logs(), 0);
        EXPECT_EQ(get_next_crash_log(), nullptr);
        EXPECT_EQ(mark_crash_log_finished("x.tar.gz"), 0);  // finished: never visited again
    });
}

TEST(Isolation, BadEntriesAndMissingStore) {
    run_in_child([] {
        Store s;
        HttpServer server(
            [](const HttpRequest &) { return HttpResponse(200, "not JSON, not read"); });
        report_to(server);
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
        s.archive("x;reboot.tar.gz", "never run\n");
        LogCapture log;
        EXPECT_EQ(check_vwire_disconnect_logs("m", 1), 0);
        // Each report carries its own archive's text; one not gzipped, none;
        // a name the shell would split is never put into a command.
        EXPECT_EQ(reported(server),
                  (std::vector<std::string>{"", "Error generating crash_log payload", "garbled\n",
                                            "good *******\n"}));
        EXPECT_TRUE(
            log.contains("[error] crash.send_vwire_disconnect_log(): Capturing "
                         "vwire_disconnect log x;reboot.tar.gz failed\n"));
        EXPECT_EQ(s.root.read("/var/run/report_payload_cmd.txt"),
                  "tar -xOzf " + kLogs + "x;reboot.tar.gz | syswrapper.sh sensitive-data-filter\n");
        EXPECT_EQ(s.meta("garbled.tar.gz", {"sent_to_analytics"}) +
                      s.meta("plain.tar.gz", {"sent_to_analytics"}),
                  "[true][true]");
        // A record without a payload stays as it is, and an entry whose
        // record cannot be opened is passed over; directories are no archives.
        EXPECT_EQ(s.root.read(kMeta + "nopayload.tar.gz"), nopayload);
        EXPECT_TRUE(
            log.contains("[error] crash.iterate_crash_logs(): Failed to generate "
                         "vwire_disconnect meta: No data available"));
        EXPECT_TRUE(
            log.contains("[warn ] crash.finish_crash_meta(): Couldn't process nopayload.tar.gz: "
                         "No data available"));
        EXPECT_TRUE(log.contains("[error] crash.iterate_crash_logs(): Couldn't open " + kMeta +
                                 "unopenable.tar.gz Is a directory"));
        EXPECT_FALSE(log.contains("dir.tar.gz"));
        // The directories beside the logs cannot be made: an error.
        s.root.remove(kSent);
        s.root.write(kSent.substr(0, kSent.size() - 1), "");
        EXPECT_EQ(check_vwire_disconnect_logs("m", 1), -1);
        EXPECT_TRUE(log.contains("[error] crash.iterate_crash_logs(): couldn't make dir " + kSent));

        // A store that is not there holds nothing, and is not made.
        s.root.remove("/etc/persistent");
        EXPECT_EQ(check_vwire_disconnect_logs("m", 1) + has_crash_logs() +
                      mark_crash_log_finished("good.tar.gz"),
                  0);
        EXPECT_EQ(get_next_crash_log(), nullptr);
        EXPECT_FALSE(s.root.exists("/etc/persistent"));
    });
}

TEST(Isolation, LockedRecordIsSkippedAfterItsRetries) {
    run_in_child([] {
        Store s;
        s.archive("held.tar.gz", "held\n");
        s.archive("free.tar.gz", "free\n");
        ASSERT_EQ(check_vwire_disconnect_logs("m", 0), 0);
        const std::string before = s.root.read(kMeta + "held.tar.gz");
        HttpServer server;
        report_to(server);
        // Another process holds the record's lock until told to let go.
        int ready[2], release[2];
        ASSERT_EQ(pipe(ready) + pipe(release), 0);
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
        LogCapture log;
        g_sleeps = 0;
        EXPECT_EQ(check_vwire_disconnect_logs("m", 1), 0);
        EXPECT_EQ(g_sleeps.load(), 9);  // ten tries, 1 s apart
        EXPECT_TRUE(
            log.contains("[warn ] crash.finish_crash_meta(): Couldn't process held.tar.gz: "
                         "Device or resource busy"));
        EXPECT_EQ(reported(server), std::vector<std::string>{"free\n"});
        EXPECT_EQ(s.root.read(kMeta + "held.tar.gz"), before);

        (void)!write(release[1], "x", 1);
        waitpid(holder, nullptr, 0);
        EXPECT_EQ(check_vwire_disconnect_logs("m", 1), 0);
        EXPECT_EQ(reported(server), (std::vector<std::string>{"free\n", "held\n"}));
    });
}

// Two processes walk the same store at once: every archive is reported
// exactly once and every record is whole afterwards.
TEST(Isolation, ConcurrentWalksReportEachArchiveOnce) {
    run_in_child([] {
        Store s;
        std::vector<std::string> want;
        for (int i = 0; i < 12; i++) {
            want.push_back("archive " + std::to_string(i) + "\n");
            s.archive("log" + std::to_string(i) + ".tar.gz", want.back());
        }
        std::sort(want.begin(), want.end());
        HttpServer server;
        report_to(server);
        int go[2];
        ASSERT_EQ(pipe(go), 0);
        pid_t walkers[2];
        for (pid_t &pid : walkers) {
            if ((pid = fork()) == 0) {
                char c;
                close(go[1]);
                (void)!read(go[0], &c, 1);
                libtrel_log_level = 0;
                _exit(check_vwire_disconnect_logs("m", 1) == 0 ? 0 : 1);
            }
        }
        close(go[0]);
        close(go[1]);  // both start now
        for (pid_t pid : walkers) {
            int status = -1;
            waitpid(pid, &status, 0);
            EXPECT_EQ(status, 0);
        }
        EXPECT_EQ(reported(server), want);
        for (int i = 0; i < 12; i++) {
            SCOPED_TRACE(i);
            EXPECT_EQ(s.meta("log" + std::to_string(i) + ".tar.gz", {"sent_to_analytics"}),
                      "[true]");
        }
    });
}

}  // namespace
