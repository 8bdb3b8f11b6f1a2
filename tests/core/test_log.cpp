#include <syslog.h>
#include <unistd.h>

#include <string>

#include "trel_test.h"

using trel_test::LogCapture;
using trel_test::TempRoot;

namespace {

std::string prefix(const char *level, const char *module, const char *function) {
    return std::string(program_invocation_short_name) + "[" + std::to_string(getpid()) + "]: [" +
           level + "] " + module + "." + function + "(): ";
}

}  // namespace

TEST(Log, StderrLineHasPaddedLevelColumn) {
    LogCapture cap;
    libtrel_log(3, "cfg", "parse_stream", "%d: malloc(%zu) failed", 12, (size_t)40);
    libtrel_log(4, "buffer", "buffer_reset", "Failed to reallocate buffer");
    libtrel_log(6, "uds", "f", "x");
    libtrel_log(7, "uds", "f", "y");
    auto lines = cap.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], prefix("error", "cfg", "parse_stream") + "12: malloc(40) failed");
    EXPECT_EQ(lines[1], prefix("warn ", "buffer", "buffer_reset") + "Failed to reallocate buffer");
    EXPECT_EQ(lines[2], prefix("info ", "uds", "f") + "x");
    EXPECT_EQ(lines[3], prefix("debug", "uds", "f") + "y");
    // The stream path has no length limit.
    cap.clear();
    std::string big(5000, 'z');
    libtrel_log(3, "m", "f", "%s", big.c_str());
    EXPECT_EQ(cap.text(), prefix("error", "m", "f") + big + "\n");
}

TEST(Log, LevelNamesAreFiveCharacters) {
    const char *want[8] = {"emerg", "alert", "crit ", "error", "warn ", "notic", "info ", "debug"};
    for (int i = 0; i < 8; i++) EXPECT_STREQ(libtrel_log_level_names[i], want[i]);
    EXPECT_EQ(libtrel_log_level, 4u);
    EXPECT_EQ(libtrel_log_use_syslog, 1);
}

TEST(Log, SyslogPathTruncatesAt1023Characters) {
    // LOG_PERROR makes syslog echo what it sends onto standard error.
    trel_test::run_in_child([] {
        TempRoot root;
        root.write("/var/log/messages", "");
        LogCapture cap;
        libtrel_log_use_syslog = 1;
        openlog("trel-test", LOG_PERROR, LOG_USER);
        std::string big(3000, 'q');
        libtrel_log(3, "cfg", "parse", "%s", big.c_str());
        closelog();
        std::string text = cap.text();
        std::string head = std::string(program_invocation_short_name) + "[" +
                           std::to_string(getpid()) + "]: cfg.parse(): ";
        ASSERT_NE(text.find(head), std::string::npos) << text;
        size_t start = text.find(head) + head.size();
        size_t qs = text.find_first_not_of('q', start) - start;
        EXPECT_EQ(qs, 1023u);
        // The bracketed level column belongs to the stream path only.
        EXPECT_EQ(text.find("[error]"), std::string::npos);
    });
}

TEST(Log, WithoutSyslogFileFallsBackToKmsgOrStderr) {
    TempRoot root;  // no /var/log/messages inside
    LogCapture cap;
    libtrel_log_use_syslog = 1;
    libtrel_log(3, "m", "f", "fallback");
    bool kmsg_writable = access("/dev/kmsg", W_OK) == 0;
    EXPECT_EQ(cap.contains("fallback"), !kmsg_writable);
}

TEST(Log, HexDumpLines) {
    LogCapture cap;
    unsigned char data[17];
    for (int i = 0; i < 17; i++) data[i] = (unsigned char)(i * 16 + 1);
    libtrel_log_hex(7, "m", "f", data, 0, "empty");
    auto lines = cap.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("empty - HEX("), std::string::npos);
    EXPECT_NE(lines[0].find(") len 0"), std::string::npos);

    cap.clear();
    libtrel_log_hex(7, "m", "f", data, 17, nullptr);
    lines = cap.lines();
    ASSERT_EQ(lines.size(), 3u);
    std::string p = prefix("debug", "m", "f");
    EXPECT_EQ(lines[0].rfind(p + " - HEX(", 0), 0u) << lines[0];
    EXPECT_EQ(lines[1], p + "00000000: 01 11 21 31 41 51 61 71 81 91 a1 b1 c1 d1 e1 f1");
    EXPECT_EQ(lines[2], p + "00000010: 01");

    cap.clear();
    libtrel_log_hex(7, "m", "f", data, 16, "t");
    EXPECT_EQ(cap.lines().size(), 2u);
}

TEST(Log, JsonDumpNumbersLinesAndSplitsLongOnes) {
    LogCapture cap;
    libtrel_log_json(6, "m", "f", nullptr, "title");
    auto lines = cap.lines();
    ASSERT_EQ(lines.size(), 2u);
    std::string p = prefix("info ", "m", "f");
    EXPECT_EQ(lines[0], p + "JSON -     : title");
    EXPECT_EQ(lines[1], p + "JSON -     : null data");

    // Piece width as the logger computes it.
    std::string prog = program_invocation_short_name;
    int n = (int)(prog + ": " + prog + "[" + std::to_string(getpid()) + "]: m.f(): JSON -     : ")
                .size();
    int width = 960 - n;
    std::string long_text(width + 10, 'x');
    json_t *obj = json_pack("{s:s, s:i}", "a", long_text.c_str(), "b", 1);
    cap.clear();
    libtrel_log_json(6, "m", "f", obj, nullptr);
    json_decref(obj);
    lines = cap.lines();
    // {, "a": ..., continuation, "b": 1, }
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0], p + "JSON -    1: {");
    std::string first = std::string("    \"a\": \"") + long_text + "\",";
    EXPECT_EQ(lines[1], p + "JSON -    2: " + first.substr(0, width));
    EXPECT_EQ(lines[2], p + "JSON -     : " + first.substr(width));
    EXPECT_EQ(lines[3], p + "JSON -    3:     \"b\": 1");
    EXPECT_EQ(lines[4], p + "JSON -    4: }");
}
