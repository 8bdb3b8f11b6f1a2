// JSON helpers: the sampled series, typed readers and adders, files as
// Base64, MAC prefixes and the build facts.
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "telemetry_test.h"
#include "trel_test.h"

using telemetry_test::dump;
using telemetry_test::Json;
using telemetry_test::json_of;

namespace {

std::vector<long> samples(const json_t *object, const std::string &key) {
    std::vector<long> out;
    size_t i;
    json_t *v;
    json_array_foreach(json_object_get(object, key.c_str()), i, v)
        out.push_back((long)json_integer_value(v));
    return out;
}

TEST(Json, SeriesThinsAndRateLimits) {
    // Each row feeds `calls` samples (the i-th holds i, at start + i * step),
    // then one more sample `extra` seconds after the last.
    struct Row {
        const char *what;
        std::string prefix;
        int calls;
        int64_t start, step;
        int rc;         // of every fed call
        size_t size;    // samples afterwards
        long interval;  // the interval key, -1 when absent
        int64_t extra;
        int extra_rc;
    } const rows[] = {
        {"fills up to 360 at the base interval", "rssi", 360, 1000, 10, 0, 360, -1, 9, -2},
        {"the 361st halves to 181 and doubles the interval", "rssi", 361, 1000, 10, 0, 181, 20, 19,
         -2},
        {"a doubled interval has passed", "rssi", 361, 1000, 10, 0, 181, 20, 20, 0},
        {"a time key of 0 disables the rate limit", "t", 3, 0, 0, 0, 3, -1, 0, 0},
        {"39-character keys fit", std::string(31, 'p'), 1, 5, 0, 0, 1, -1, 1, -2},
        {"a 40-character interval key is refused", std::string(32, 'p'), 2, 5, 100, -1, 0, -1, 100,
         -1},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        trel_test::LogCapture log;
        Json o(json_object());
        for (int i = 0; i < r.calls; i++) {
            trel_set_ts(r.start + i * r.step);
            ASSERT_EQ(trel_json_maybe_append_array(o.get(), r.prefix.c_str(), i), r.rc) << i;
        }
        std::vector<long> got = samples(o.get(), r.prefix + "Array");
        EXPECT_EQ(got.size(), r.size);
        EXPECT_EQ(trel_json_read_long(o.get(), (r.prefix + "Interval").c_str(), -1), r.interval);
        if (r.size == 181) {
            // The old even positions 0..358, then the new sample.
            std::vector<long> want;
            for (long v = 0; v <= 358; v += 2) want.push_back(v);
            want.push_back(360);
            EXPECT_EQ(got, want);
        }
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
            "a": [1, "x", 2], "ax": ["x"], "hex": "0x10", "part": "12abc", "oct": "010",
            "neg": " -3", "big": 4294967297, "one": [5]})");
    ASSERT_TRUE(o);
    struct Row {
        const char *key;
        const char *str;  // trel_json_get_str with the default "D"
        int boolean;      // trel_json_get_bool with the default 9
        long number;      // trel_json_read_long / _i64 with the default -5
        int array_rc;     // trel_json_read_array
        std::vector<long> array;
        int from_obj_rc;  // trel_json_integer_value_from_obj, integers allowed
        int from_obj;     // the value stored (-99: untouched)
    } const rows[] = {
        {"s", "text", 9, -5, -1, {}, 0, -99},       {"i", "D", 1, 7, -1, {}, 2, 7},
        {"zero", "D", 0, 0, -1, {}, 2, 0},          {"t", "D", 1, -5, -1, {}, 0, -99},
        {"f", "D", 0, -5, -1, {}, 0, -99},          {"n", "D", 9, -5, -1, {}, 0, -99},
        {"r", "D", 9, -5, -1, {}, 0, -99},          {"a", "D", 9, -5, 0, {1, 2}, 0, -99},
        {"ax", "D", 9, -5, -1, {}, 0, -99},         {"missing", "D", 9, -5, -1, {}, 0, -99},
        {"hex", "0x10", 9, -5, -1, {}, 1, 16},      {"part", "12abc", 9, -5, -1, {}, 1, 12},
        {"oct", "010", 9, -5, -1, {}, 1, 8},        {"neg", " -3", 9, -5, -1, {}, 1, -3},
        {"big", "D", 1, 4294967297L, -1, {}, 2, 1}, {"one", "D", 9, -5, 0, {5}, 0, -99},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.key);
        EXPECT_STREQ(trel_json_get_str(o.get(), r.key, "D"), r.str);
        EXPECT_EQ(trel_json_get_bool(o.get(), r.key, 9), r.boolean);
        EXPECT_EQ(trel_json_read_long(o.get(), r.key, -5), r.number);
        EXPECT_EQ(trel_json_read_i64(o.get(), r.key, -5), r.number);
        long *values = nullptr;
        size_t count = 99;
        EXPECT_EQ(trel_json_read_array(o.get(), r.key, &values, &count), r.array_rc);
        if (r.array_rc == 0) {
            EXPECT_EQ(std::vector<long>(values, values + count), r.array);
        }
        free(values);
        int v = -99;
        EXPECT_EQ(trel_json_integer_value_from_obj(o.get(), "obj", r.key, 1, &v), r.from_obj_rc);
        EXPECT_EQ(v, r.from_obj);
    }
    // Integers only when allowed; a null out pointer is an error.
    int v = -99;
    trel_test::LogCapture log;
    telemetry_test::LogLevel level(8);
    EXPECT_EQ(trel_json_integer_value_from_obj(o.get(), "obj", "i", 0, &v), 0);
    EXPECT_EQ(trel_json_integer_value_from_obj(o.get(), "obj", "hex", 1, nullptr), 0);
    EXPECT_EQ(trel_json_integer_value_from_obj(o.get(), "obj", "r", 1, &v), 0);
    EXPECT_EQ(trel_json_integer_value_from_obj(o.get(), "obj", "part", 1, &v), 1);
    EXPECT_EQ(trel_json_integer_value_from_obj(o.get(), "obj", "s", 1, &v), 0);
    EXPECT_EQ(v, 12);
    EXPECT_TRUE(log.contains("JSON object as integer is not acceptable, obj_name obj, key i"));
    EXPECT_TRUE(
        log.contains("[error] libtrel_util.trel_json_integer_value_from_obj(): NULL "
                     "pointer provided for value, obj_name obj, key hex"));
    EXPECT_TRUE(log.contains("JSON object is of type 4, not a string or integer, obj_name obj"));
    EXPECT_TRUE(log.contains("invalid integer 'text' in object obj, key s"));

    // Adders count from 0 over anything that is not an integer; appends go
    // to an existing array or a new one.
    EXPECT_EQ(trel_json_add_long(o.get(), "i", 3), 0);
    EXPECT_EQ(trel_json_add_i64(o.get(), "s", -2), 0);
    EXPECT_EQ(trel_json_add_long(o.get(), "new", 5), 0);
    EXPECT_EQ(trel_json_append_array(o.get(), "a", 9), 0);
    EXPECT_EQ(trel_json_append_array(o.get(), "fresh", 4), 0);
    EXPECT_EQ(trel_json_add_long(nullptr, "x", 1), -1);
    long *values = nullptr;
    EXPECT_EQ(trel_json_read_array(o.get(), "a", &values, nullptr), -1);
    EXPECT_EQ(trel_json_maybe_append_array(nullptr, "x", 1), -1);
    std::string got;
    for (const char *key : {"i", "s", "new", "a", "fresh"})
        got += std::string(key) + "=" + dump(json_object_get(o.get(), key)) + " ";
    EXPECT_EQ(got, R"(i=10 s=-2 new=5 a=[1,"x",2,9] fresh=[4] )");
}

TEST(Json, FilesAsBase64) {
    auto pattern = [](size_t n) {
        std::string s(n, '\0');
        for (size_t i = 0; i < n; i++) s[i] = (char)(i * 7 + (i >> 9));
        return s;
    };
    auto encode = [](const std::string &data) {
        std::string out((size_t)base64_encode_len((int32_t)data.size()), '\0');
        base64rfc_encode(out.data(), (const uint8_t *)data.data(), (int32_t)data.size());
        out.resize(strlen(out.c_str()));
        return out;
    };
    // The 300-byte chunks must join into the one-shot encoding, also for a
    // last chunk of 1 byte and beyond 1 MiB.
    for (size_t size : {(size_t)0, (size_t)1, (size_t)300, (size_t)301, (size_t)(1 << 20) + 2}) {
        SCOPED_TRACE(size);
        std::string data = pattern(size);
        FILE *f = tmpfile();
        ASSERT_NE(f, nullptr);
        fwrite(data.data(), 1, data.size(), f);
        char *text = load_file_base64(f);  // reads from the start whatever the position
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(std::string(text), encode(data));
        free(text);
        Json o(json_object());
        EXPECT_EQ(json_object_load_file_base64(o.get(), "file_data", f), 0);
        EXPECT_EQ(trel_json_get_str(o.get(), "file_data", "-"), encode(data));
        fclose(f);
    }
    // A stream that cannot be measured: NULL, and the key holds "".
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    FILE *f = fdopen(p[0], "r");
    EXPECT_EQ(load_file_base64(f), nullptr);
    Json o(json_object());
    EXPECT_EQ(json_object_load_file_base64(o.get(), "file_data", f), -1);
    EXPECT_STREQ(trel_json_get_str(o.get(), "file_data", "-"), "");
    fclose(f);
    close(p[1]);
    EXPECT_EQ(load_file_base64(nullptr), nullptr);
}

TEST(Json, OuiAndBuildFacts) {
    struct {
        const char *mac, *oui;
    } const macs[] = {{"00:1A:2b", "001a2b"},
                      {"0:1:2:3:4:5", "000102"},
                      {"00:1a", nullptr},
                      {"zz:00:11", nullptr}};
    for (const auto &m : macs) {
        SCOPED_TRACE(m.mac);
        Json s(mac_str_to_oui_json_string(m.mac));
        EXPECT_STREQ(json_string_value(s.get()), m.oui);
    }

    struct {
        const char *file;  // build.properties, nullptr: missing
        int rc;
        const char *when;
        int reftype;
    } const facts[] = {
        {nullptr, -1, "untouched", 0},
        {"build_date=2026-11-02\nbuild_time=14:07:33\nscm_reftype=atag\n", 0, "2026-11-02 14:07:33",
         1},
        {"scm_reftype = branch\nbuild_date=2026-11-02T14:07:33Z\n", 0, "2026-11-02T ", 2},
        {"scm_reftype=atags\n", 0, " ", 0},
        {"scm_reftype=Atag\n", 0, " ", 0},
    };
    for (const auto &f : facts) {
        SCOPED_TRACE(f.file ? f.file : "missing");
        trel_test::TempRoot root;
        if (f.file) root.write("/usr/lib/build.properties", f.file);
        char when[32] = "untouched";
        EXPECT_EQ(get_build_time(when, sizeof when), f.rc);
        EXPECT_STREQ(when, f.when);
        EXPECT_EQ(get_trel_scm_reftype(), f.reftype);
        EXPECT_EQ(get_build_time(nullptr, 5), -1);
        EXPECT_EQ(get_build_time(when, 0), -1);
    }
}

}  // namespace
