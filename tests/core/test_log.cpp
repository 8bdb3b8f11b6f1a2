#include <syslog.h>
#include <unistd.h>

#include "trel_test.h"

using trel_test::LogCapture;

namespace {

// The line head; the bracketed level column only when a level is given.
std::string prefix(const char *level, const char *module, const char *function) {
    std::string column = level ? std::string("[") + level + "] " : "";
    return std::string(program_invocation_short_name) + "[" + std::to_string(getpid()) +
           "]: " + column + module + "." + function + "(): ";
}

}  // namespace

TEST(Log, StreamLinesCarryPrefixAndPaddedLevel) {
    EXPECT_EQ(libtrel_log_level, 4u);
    // Priorities outside 0..7 name no level.
    const std::pair<int, const char *> levels[] = {
        {0, "emerg"}, {1, "alert"}, {2, "crit "}, {3, "error"},    {4, "warn "},
        {5, "notic"}, {6, "info "}, {7, "debug"}, {-1, "unknown"}, {8, "unknown"}};
    LogCapture cap;
    for (auto [p, name] : levels) {
        SCOPED_TRACE(p);
        cap.clear();
        libtrel_log(p, "cfg", "parse", "%d: malloc(%zu) failed", p, (size_t)40);
        EXPECT_EQ(cap.text(),
                  prefix(name, "cfg", "parse") + std::to_string(p) + ": malloc(40) failed\n");
    }
    // The stream path has no length limit.
    cap.clear();
    std::string big(5000, 'z');
    libtrel_log(3, "m", "f", "%s", big.c_str());
    EXPECT_EQ(cap.text(), prefix("error", "m", "f") + big + "\n");
}

TEST(Log, SyslogPathTruncatesAt1023Characters) {
    // LOG_PERROR makes syslog echo what it sends onto standard error.
    trel_test::run_in_child([] {
        trel_test::TempRoot root;
        root.write("/var/log/messages", "");
        LogCapture cap;
        libtrel_log_use_syslog = 1;
        openlog("trel-test", LOG_PERROR, LOG_USER);
        libtrel_log(3, "cfg", "parse", "%s", std::string(3000, 'q').c_str());
        closelog();
        std::string text = cap.text();
        std::string line = prefix(nullptr, "cfg", "parse") + std::string(1023, 'q') + "\n";
        EXPECT_NE(text.find(line), std::string::npos) << text;
        // The bracketed level column belongs to the stream path only.
        EXPECT_EQ(text.find("[error]"), std::string::npos);

        // Priorities outside 0..7 reach syslog as LOG_DEBUG, not as a facility.
        cap.clear();
        openlog("trel-test", LOG_PERROR, LOG_USER);
        setlogmask(LOG_MASK(LOG_DEBUG));
        for (int p : {-1, 3, 8, 99}) libtrel_log(p, "m", "f", "p%d", p);
        closelog();
        std::string head = "trel-test: " + prefix(nullptr, "m", "f");
        EXPECT_EQ(cap.text(), head + "p-1\n" + head + "p8\n" + head + "p99\n");
    });
}

TEST(Log, HexDumpLines) {
    LogCapture cap;
    unsigned char data[17];
    for (int i = 0; i < 17; i++) data[i] = (unsigned char)(i * 16 + 1);
    std::string p = prefix("debug", "m", "f");
    libtrel_log_hex(7, "m", "f", data, 0, "empty");  // header only
    libtrel_log_hex(7, "m", "f", data, 16, "t");     // header and one full line
    libtrel_log_hex(7, "m", "f", data, 17, nullptr);
    auto lines = cap.lines();
    ASSERT_EQ(lines.size(), 6u) << cap.text();
    EXPECT_EQ(lines[0].rfind(p + "empty - HEX(", 0), 0u) << lines[0];
    EXPECT_EQ(lines[0].substr(lines[0].size() - 7), ") len 0") << lines[0];
    EXPECT_EQ(lines[3].rfind(p + " - HEX(", 0), 0u) << lines[3];
    EXPECT_EQ(lines[4], p + "00000000: 01 11 21 31 41 51 61 71 81 91 a1 b1 c1 d1 e1 f1");
    EXPECT_EQ(lines[5], p + "00000010: 01");
}

TEST(Log, JsonDumpNumbersLinesAndSplitsLongOnes) {
    LogCapture cap;
    std::string p = prefix("info ", "m", "f");
    libtrel_log_json(6, "m", "f", nullptr, "title");
    EXPECT_EQ(cap.text(), p + "JSON -     : title\n" + p + "JSON -     : null data\n");

    // Pieces fill a 960-byte syslog line after its own header.
    std::string head =
        std::string(program_invocation_short_name) + ": " + prefix(nullptr, "m", "f");
    size_t width = 960 - (head + "JSON -     : ").size();
    std::string long_text(width + 10, 'x');
    json_t *obj = json_pack("{s:s, s:i}", "a", long_text.c_str(), "b", 1);
    cap.clear();
    libtrel_log_json(6, "m", "f", obj, nullptr);
    json_decref(obj);
    auto lines = cap.lines();
    ASSERT_EQ(lines.size(), 5u);
    std::string first = "    \"a\": \"" + long_text + "\",";
    EXPECT_EQ(lines[0], p + "JSON -    1: {");
    EXPECT_EQ(lines[1], p + "JSON -    2: " + first.substr(0, width));
    EXPECT_EQ(lines[2], p + "JSON -     : " + first.substr(width));
    EXPECT_EQ(lines[3], p + "JSON -    3:     \"b\": 1");
    EXPECT_EQ(lines[4], p + "JSON -    4: }");
}
