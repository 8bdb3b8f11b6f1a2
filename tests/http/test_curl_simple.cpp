// The simple HTTP client against a loopback server.
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <memory>
#include <string>
#include <vector>

#include "http_test.h"
#include "trel_test.h"

namespace {

using trel_test::HttpServer;

TEST(CurlSimple, Tables) {
    EXPECT_EQ(std::string(curl_simple_method_str[0]) + curl_simple_method_str[1] +
                  curl_simple_method_str[2],
              "GETPOSTPUT");
    // Two distinct providers, then the end of the table.
    EXPECT_STRNE(curl_simple_doh_providers[0], curl_simple_doh_providers[1]);
    for (int i = 0; i < 2; i++) EXPECT_EQ(strncmp(curl_simple_doh_providers[i], "https://", 8), 0);
    EXPECT_EQ(curl_simple_doh_providers[2], nullptr);
}

TEST(CurlSimple, GetStatusHeadersAndRedirects) {
    {
        // libcurl may keep process-wide descriptors open after its first use.
        HttpServer warm;
        curl_simple_get(warm.url().c_str(), 0, nullptr, nullptr);
    }
    int fds = trel_test::open_fd_count();
    auto server = std::make_unique<HttpServer>();
    server->add_response({200, "hello"});
    server->add_response({404, "missing"});
    server->add_response({302, "", {{"Location", "/final"}}});
    server->add_response({200, "there"});

    struct curl_slist *headers = curl_slist_append(nullptr, "X-Trel: one");
    Response resp(100);
    EXPECT_EQ(curl_simple_get(server->url("/a?b=1").c_str(), 0, headers, resp.r), CURLE_OK);
    curl_slist_free_all(headers);
    EXPECT_EQ(resp.r->status, 200);
    // Any completed transfer is CURLE_OK; the status tells the rest.
    Response missing(100);
    EXPECT_EQ(curl_simple_get(server->url("/missing").c_str(), 0, nullptr, missing.r), CURLE_OK);
    EXPECT_EQ(missing.r->status, 404);
    EXPECT_EQ(missing.body(), "missing");
    Response moved_resp(100);
    EXPECT_EQ(curl_simple_get(server->url("/start").c_str(), 0, nullptr, moved_resp.r), CURLE_OK);
    EXPECT_EQ(moved_resp.body(), "there");
    // A record is optional.
    EXPECT_EQ(curl_simple_get(server->url("/x").c_str(), 0, nullptr, nullptr), CURLE_OK);

    auto reqs = server->requests();
    ASSERT_EQ(reqs.size(), 5u);
    EXPECT_EQ(reqs[0].line, "GET /a?b=1 HTTP/1.1");
    EXPECT_EQ(reqs[0].header("X-Trel"), "one");
    EXPECT_EQ(reqs[0].header("Content-Length"), "");
    EXPECT_EQ(reqs[1].header("X-Trel"), "");
    EXPECT_EQ(reqs[3].line, "GET /final HTTP/1.1");
    server.reset();
    EXPECT_EQ(trel_test::open_fd_count(), fds);
}

TEST(CurlSimple, Bodies) {
    HttpServer server;
    const char body[] = "k=v&x=\0y";  // an embedded NUL travels too
    struct curl_slist *headers = curl_slist_append(nullptr, "Content-Type: text/plain");
    Response resp(100);
    curl_simple_post(server.url("/p").c_str(), 0, headers, body, sizeof body - 1, resp.r);
    curl_slist_free_all(headers);
    EXPECT_EQ(curl_simple_put(server.url("/u").c_str(), 0, nullptr, "abc", 3, resp.r), CURLE_OK);
    json_t *object = json_pack("{s:i, s:s}", "a", 1, "b", "x y");
    EXPECT_EQ(curl_simple_post_json(server.url("/j").c_str(), 0, object, resp.r), CURLE_OK);
    EXPECT_EQ(object->refcount, 1u);  // the caller keeps its reference
    json_decref(object);
    // Size 0, no body or a null object: nothing is sent.
    EXPECT_EQ(curl_simple_post(server.url("/empty").c_str(), 0, nullptr, "abc", 0, resp.r),
              CURLE_OK);
    EXPECT_EQ(curl_simple_put(server.url("/null").c_str(), 0, nullptr, nullptr, 5, resp.r),
              CURLE_OK);
    EXPECT_EQ(curl_simple_post(server.url("/neg").c_str(), 0, nullptr, "abc", -1, resp.r),
              CURLE_OK);
    EXPECT_EQ(curl_simple_put_json(server.url("/none").c_str(), 0, nullptr, resp.r), CURLE_OK);

    auto reqs = server.requests();
    ASSERT_EQ(reqs.size(), 7u);
    EXPECT_EQ(reqs[0].line, "POST /p HTTP/1.1");
    EXPECT_EQ(reqs[0].body, std::string(body, sizeof body - 1));
    EXPECT_EQ(reqs[0].header("Content-Type"), "text/plain");
    EXPECT_EQ(reqs[1].line, "PUT /u HTTP/1.1");
    EXPECT_EQ(reqs[1].body, "abc");
    EXPECT_EQ(reqs[2].line, "POST /j HTTP/1.1");
    EXPECT_EQ(reqs[2].body, R"({"a":1,"b":"x y"})");
    EXPECT_EQ(reqs[2].header("Content-Type"), "application/json");
    for (int i = 3; i < 7; i++) {
        std::string length = reqs[i].header("Content-Length");
        EXPECT_TRUE(length.empty() || length == "0") << i << length;
    }
    EXPECT_EQ(reqs[6].line, "PUT /none HTTP/1.1");
    EXPECT_EQ(reqs[6].header("Content-Type"), "application/json");

    // Something that does not serialise as a payload.
    trel_test::LogCapture log;
    json_t *number = json_integer(5);
    EXPECT_EQ(curl_simple_post_json(server.url("/n").c_str(), 0, number, resp.r),
              CURLE_OUT_OF_MEMORY);
    json_decref(number);
    EXPECT_TRUE(
        log.contains("[error] curl_simple.curl_simple_json(): Failed to dump json payload object"))
        << log.text();
    EXPECT_EQ(server.requests().size(), 7u);
}

// Only http and https are spoken, redirects stop at ten hops, and a body
// goes along with its method through 301, 302 and 303.
TEST(CurlSimple, RedirectsAndSchemes) {
    using trel_test::HttpRequest;
    using trel_test::HttpResponse;
    HttpServer server([](const HttpRequest &r) -> HttpResponse {
        std::string path = r.line.substr(r.line.find(' ') + 1);
        path.resize(path.find(' '));
        if (path == "/loop") return {302, "", {{"Location", "/loop"}}};
        if (path == "/to-ftp") return {302, "", {{"Location", "ftp://127.0.0.1:1/x"}}};
        if (path.size() == 4 && path[1] == '3') return {atoi(&path[1]), "", {{"Location", "/to"}}};
        return {200, "done"};
    });
    std::string dir = trel_test::make_temp_dir();
    trel_test::write_file(dir + "/secret", "secret\n");
    const std::string body = "payload=1";
    const std::vector<std::string> loop(11, "GET /loop HTTP/1.1");  // the first and ten more
    const struct {
        const char *what;
        int method;  // index into curl_simple_method_str
        std::string url;
        CURLcode rc;
        std::vector<std::string> lines;  // requests the server saw
    } rows[] = {
        {"local file", 0, "file://" + dir + "/secret", CURLE_UNSUPPORTED_PROTOCOL, {}},
        {"redirect to ftp",
         0,
         server.url("/to-ftp"),
         CURLE_UNSUPPORTED_PROTOCOL,
         {"GET /to-ftp HTTP/1.1"}},
        {"redirect loop", 0, server.url("/loop"), CURLE_TOO_MANY_REDIRECTS, loop},
        {"POST 301", 1, server.url("/301"), CURLE_OK, {"POST /301 HTTP/1.1", "POST /to HTTP/1.1"}},
        {"POST 302", 1, server.url("/302"), CURLE_OK, {"POST /302 HTTP/1.1", "POST /to HTTP/1.1"}},
        {"POST 303", 1, server.url("/303"), CURLE_OK, {"POST /303 HTTP/1.1", "POST /to HTTP/1.1"}},
        {"PUT 301", 2, server.url("/301"), CURLE_OK, {"PUT /301 HTTP/1.1", "PUT /to HTTP/1.1"}},
        {"PUT 302", 2, server.url("/302"), CURLE_OK, {"PUT /302 HTTP/1.1", "PUT /to HTTP/1.1"}},
        {"PUT 303", 2, server.url("/303"), CURLE_OK, {"PUT /303 HTTP/1.1", "PUT /to HTTP/1.1"}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        size_t before = server.requests().size();
        Response resp(100);
        const char *url = r.url.c_str();
        CURLcode rc =
            r.method == 0 ? curl_simple_get(url, 0, nullptr, resp.r)
            : r.method == 1
                ? curl_simple_post(url, 0, nullptr, body.data(), (long)body.size(), resp.r)
                : curl_simple_put(url, 0, nullptr, body.data(), (long)body.size(), resp.r);
        EXPECT_EQ(rc, r.rc);
        EXPECT_EQ(resp.body(), rc == CURLE_OK ? "done" : "");
        auto reqs = server.requests();
        std::vector<std::string> lines;
        for (size_t i = before; i < reqs.size(); i++) {
            lines.push_back(reqs[i].line);
            EXPECT_EQ(reqs[i].body, r.method == 0 ? "" : body) << reqs[i].line;
        }
        EXPECT_EQ(lines, r.lines);
    }
    trel_test::remove_tree(dir);
}

TEST(CurlSimple, BodyCap) {
    // The excess is dropped over many write calls; the transfer completes.
    std::string big(1 << 20, 'z');
    big[0] = 'A';
    const struct {
        uint64_t max;
        std::string body;
    } rows[] = {{10, "0123456789abcdefghijklmno"}, {5, "exact"}, {0, "none"}, {1000, big}};
    HttpServer server;
    for (const auto &r : rows) server.add_response({200, r.body});
    for (const auto &r : rows) {
        Response resp(r.max);
        EXPECT_EQ(curl_simple_get(server.url().c_str(), 0, nullptr, resp.r), CURLE_OK);
        EXPECT_EQ(resp.body(), r.body.substr(0, r.max)) << r.max;
        EXPECT_EQ(resp.r->received, r.body.size()) << r.max;
    }
}

TEST(CurlSimple, FailuresAndTimeOut) {
    // A port nobody listens on.
    std::string url = HttpServer().url("/x");
    trel_test::LogCapture log;
    uint32_t saved = libtrel_log_level;
    libtrel_log_level = 7;
    Response resp(10);
    resp.r->status = 99;
    EXPECT_EQ(curl_simple_get(url.c_str(), 0, nullptr, resp.r), CURLE_COULDNT_CONNECT);
    EXPECT_EQ(resp.r->status, 0);
    EXPECT_EQ(log.text(), "");
    libtrel_log_level = 8;
    EXPECT_EQ(curl_simple_put(url.c_str(), 0, nullptr, "a", 1, resp.r), CURLE_COULDNT_CONNECT);
    EXPECT_TRUE(log.contains("[debug] curl_simple.curl_simple(): PUT '" + url + "' failed: [7] "))
        << log.text();
    libtrel_log_level = saved;

    HttpServer server;
    trel_test::HttpResponse silent;
    silent.hang = true;
    server.add_response(silent);
    struct timespec a, b;
    clock_gettime(CLOCK_MONOTONIC, &a);
    EXPECT_EQ(curl_simple_get(server.url("/slow").c_str(), 0, nullptr, resp.r),
              CURLE_OPERATION_TIMEDOUT);
    clock_gettime(CLOCK_MONOTONIC, &b);
    double elapsed = (double)(b.tv_sec - a.tv_sec) + (double)(b.tv_nsec - a.tv_nsec) / 1e9;
    EXPECT_GE(elapsed, 4.5);
    EXPECT_LT(elapsed, 9.0);
    EXPECT_EQ(server.requests().size(), 1u);
}

}  // namespace
