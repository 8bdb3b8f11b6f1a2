// JSON helpers: the sampled series, typed readers and adders, files as
// Base64, MAC prefixes and the build facts.
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "telemetry_test.h"
#include "trel_test.h"

using namespace telemetry_test;
using namespace trel_test;

namespace {

TEST(Json, SeriesThinsAndRateLimits) {
    // Each row feeds `calls` samples (the i-th holds i, at start + i * step
    // seconds), then one more `extra` seconds after the last.
    struct Row {
        const char *what;
        std::string prefix;
        int calls, start, step, rc;  // rc of every fed call
        size_t size;                 // samples afterwards
        long interval;               // the interval key, -1 when absent
        int extra, extra_rc;
    } const rows[] = {
        {"the 361st halves to 181, doubles the interval", "rssi", 361, 5, 10, 0, 181, 20, 19, -2},
        {"a doubled interval has passed", "rssi", 361, 5, 10, 0, 181, 20, 20, 0},
        {"a time key of 0 disables the rate limit", "t", 3, 0, 0, 0, 3, -1, 0, 0},
        {"39-character keys fit", std::string(31, 'p'), 1, 5, 0, 0, 1, -1, 9, -2},
        {"a 40-character interval key is refused", std::string(32, 'p'), 2, 5, 10, -1, 0, -1, 10,
         -1},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        LogCapture log;
        Json o(json_object());
        for (int i = 0; i < r.calls; i++) {
            trel_set_ts(r.start + i * r.step);
            ASSERT_EQ(trel_json_maybe_append_array(o.get(), r.prefix.c_str(), i), r.rc) << i;
        }
        long *samples = nullptr;
        size_t n = 0;
        trel_json_read_array(o.get(), (r.prefix + "Array").c_str(), &samples, &n);
        EXPECT_EQ(n, r.size);
        // Kept after halving: the old even positions 0..358, then the new one.
        for (size_t i = 0; r.size == 181 && i < n; i++) EXPECT_EQ(samples[i], (long)i * 2);
        free(samples);
        EXPECT_EQ(trel_json_read_long(o.get(), (r.prefix + "Interval").c_str(), -1), r.interval);
        std::string before = dump(o.get());
        trel_set_ts(r.start + (r.calls - 1) * r.step + r.extra);
        EXPECT_EQ(trel_json_maybe_append_array(o.get(), r.prefix.c_str(), 7), r.extra_rc);
        if (r.extra_rc != 0) {
            EXPECT_EQ(dump(o.get()), before);
        }
        EXPECT_EQ(log.contains("key too long: " + r.prefix + "\n"), r.rc == -1);
    }
}

TEST(Json, ReadersAndAddersOnMixedTypes) {
    Json o = json_of(
        R"({"s": "text", "i": 7, "zero": 0, "t": true, "f": false, "n": null, "r": 1.5,
            "a": [1, "x", 2], "ax": ["x"], "one": [5], "hex": "0x10", "part": "12abc",
            "oct": "010", "neg": " -3", "big": 4294967297})");
    struct Row {
        const char *key;
        const char *str;            // trel_json_get_str, default "D"
        int boolean;                // trel_json_get_bool, default 9
        long number;                // trel_json_read_long and _i64, default -5
        std::vector<long> array;    // trel_json_read_array (empty: -1)
        int from_obj_rc, from_obj;  // trel_json_integer_value_from_obj (-99: untouched)
    } const rows[] = {
        {"s", "text", 9, -5, {}, 0, -99},    {"i", "D", 1, 7, {}, 2, 7},
        {"zero", "D", 0, 0, {}, 2, 0},       {"t", "D", 1, -5, {}, 0, -99},
        {"f", "D", 0, -5, {}, 0, -99},       {"n", "D", 9, -5, {}, 0, -99},
        {"r", "D", 9, -5, {}, 0, -99},       {"a", "D", 9, -5, {1, 2}, 0, -99},
        {"ax", "D", 9, -5, {}, 0, -99},      {"one", "D", 9, -5, {5}, 0, -99},
        {"missing", "D", 9, -5, {}, 0, -99}, {"hex", "0x10", 9, -5, {}, 1, 16},
        {"part", "12abc", 9, -5, {}, 1, 12}, {"oct", "010", 9, -5, {}, 1, 8},
        {"neg", " -3", 9, -5, {}, 1, -3},    {"big", "D", 1, 4294967297L, {}, 2, 1},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.key);
        EXPECT_STREQ(trel_json_get_str(o.get(), r.key, "D"), r.str);
        EXPECT_EQ(trel_json_get_bool(o.get(), r.key, 9), r.boolean);
        EXPECT_EQ(trel_json_read_long(o.get(), r.key, -5), r.number);
        EXPECT_EQ(trel_json_read_i64(o.get(), r.key, -5), r.number);
        long *values = nullptr;
        size_t count = 0;
        EXPECT_EQ(trel_json_read_array(o.get(), r.key, &values, &count), r.array.empty() ? -1 : 0);
        EXPECT_EQ(std::vector<long>(values, values + (values ? count : 0)), r.array);
        free(values);
        int v = -99;
        EXPECT_EQ(trel_json_integer_value_from_obj(o.get(), "obj", r.key, 1, &v), r.from_obj_rc);
        EXPECT_EQ(v, r.from_obj);
    }
    // Integers only when allowed; a null out pointer is an error.
    int v = -99;
    LogCapture log;
    EXPECT_EQ(trel_json_integer_value_from_obj(o.get(), "obj", "i", 0, &v), 0);
    EXPECT_EQ(trel_json_integer_value_from_obj(o.get(), "obj", "hex", 1, nullptr), 0);
    EXPECT_EQ(v, -99);
    EXPECT_TRUE(
        log.contains("[error] libtrel_util.trel_json_integer_value_from_obj(): NULL "
                     "pointer provided for value, obj_name obj, key hex"));

    // Adders count from 0 over anything but an integer; appends go to the
    // array there or a new one.
    EXPECT_EQ(trel_json_add_long(o.get(), "i", 3), 0);
    EXPECT_EQ(trel_json_add_i64(o.get(), "s", -2), 0);
    EXPECT_EQ(trel_json_append_array(o.get(), "a", 9), 0);
    EXPECT_EQ(trel_json_append_array(o.get(), "fresh", 4), 0);
    EXPECT_EQ(values(o.get(), {"i", "s", "a", "fresh"}), R"([10,-2,[1,"x",2,9],[4]])");
}

TEST(Json, FilesAsBase64) {
    // The 300-byte chunks must join into the one-shot encoding, also for a
    // last chunk of 1 byte and beyond 1 MiB.
    for (size_t size : {0, 301, (1 << 20) + 2}) {
        SCOPED_TRACE(size);
        std::string data(size, '\0');
        for (size_t i = 0; i < size; i++) data[i] = (char)(i * 7 + (i >> 9));
        std::string want((size_t)base64_encode_len((int32_t)size), '\0');
        base64rfc_encode(want.data(), (const uint8_t *)data.data(), (int32_t)size);
        want.resize(strlen(want.c_str()));
        FILE *f = tmpfile();
        fwrite(data.data(), 1, size, f);
        char *text = load_file_base64(f);  // from the start, wherever the stream stands
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(text, want);
        free(text);
        Json o(json_object());
        EXPECT_EQ(json_object_load_file_base64(o.get(), "file_data", f), 0);
        EXPECT_EQ(trel_json_get_str(o.get(), "file_data", "-"), want);
        fclose(f);
    }
    Json o(json_object());
    EXPECT_EQ(json_object_load_file_base64(o.get(), "file_data", nullptr), -1);
    EXPECT_EQ(dump(o.get()), R"({"file_data":""})");
}

TEST(Json, OuiAndBuildFacts) {
    for (auto [mac, oui] : {std::pair<const char *, const char *>{"00:1A:2b", "001a2b"},
                            {"0:1:2:3:4:5", "000102"},
                            {"00:1a", nullptr}}) {
        SCOPED_TRACE(mac);
        Json s(mac_str_to_oui_json_string(mac));
        EXPECT_STREQ(json_string_value(s.get()), oui);
    }
    TempRoot root;
    char when[32] = "untouched";
    EXPECT_EQ(get_build_time(when, sizeof when), -1);
    EXPECT_EQ(get_trel_scm_reftype(), 0);
    // Date and time keep 11 characters each.
    root.write("/usr/lib/build.properties",
               "build_date=2026-11-02T14:07:33Z\nscm_reftype = branch\nbuild_time=14:07\n");
    EXPECT_EQ(get_build_time(when, 0), -1);
    EXPECT_EQ(get_build_time(when, sizeof when), 0);
    EXPECT_STREQ(when, "2026-11-02T 14:07");
    EXPECT_EQ(get_trel_scm_reftype(), 2);
}

}  // namespace
