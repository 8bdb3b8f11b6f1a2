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

using trel_test::HttpRequest;
using trel_test::HttpResponse;
using trel_test::HttpServer;

// Methods, bodies and headers as sent; any completed transfer is CURLE_OK,
// the status tells the rest; no descriptor is left open.
TEST(CurlSimple, RequestsAndBodies) {
    {
        // libcurl may keep process-wide descriptors open after its first use.
        HttpServer warm;
        curl_simple_get(warm.url().c_str(), 0, nullptr, nullptr);
    }
    trel_test::LogCapture log;
    int fds = trel_test::open_fd_count();
    auto server = std::make_unique<HttpServer>();
    server->add_response({404, "missing"});
    const char body[] = "k=v&x=\0y";  // an embedded NUL travels too
    struct curl_slist *headers = curl_slist_append(nullptr, "X-Trel: one");
    json_t *object = json_pack("{s:i, s:s}", "a", 1, "b", "x y"), *number = json_integer(5);
    Response resp(100);
    EXPECT_EQ(curl_simple_get(server->url("/a?b=1").c_str(), 0, headers, resp.r), CURLE_OK);
    EXPECT_EQ(resp.r->status, 404);
    EXPECT_EQ(resp.body(), "missing");
    EXPECT_EQ(
        curl_simple_post(server->url("/p").c_str(), 0, headers, body, sizeof body - 1, nullptr),
        CURLE_OK);
    EXPECT_EQ(curl_simple_put(server->url("/u").c_str(), 0, nullptr, "abc", 3, resp.r), CURLE_OK);
    EXPECT_EQ(curl_simple_post_json(server->url("/j").c_str(), 0, object, resp.r), CURLE_OK);
    EXPECT_EQ(object->refcount, 1u);  // the caller keeps its reference
    // Size 0 or below, no body or a null object: nothing is sent.
    EXPECT_EQ(curl_simple_post(server->url("/e").c_str(), 0, nullptr, "abc", 0, resp.r), CURLE_OK);
    EXPECT_EQ(curl_simple_put(server->url("/e").c_str(), 0, nullptr, nullptr, 5, resp.r), CURLE_OK);
    EXPECT_EQ(curl_simple_post(server->url("/e").c_str(), 0, nullptr, "abc", -1, resp.r), CURLE_OK);
    EXPECT_EQ(curl_simple_put_json(server->url("/e").c_str(), 0, nullptr, resp.r), CURLE_OK);
    // Something that does not serialise as a payload.
    EXPECT_EQ(curl_simple_post_json(server->url("/n").c_str(), 0, number, resp.r),
              CURLE_OUT_OF_MEMORY);
    EXPECT_TRUE(
        log.contains("[error] curl_simple.curl_simple_json(): Failed to dump json payload object"));
    curl_slist_free_all(headers), json_decref(object), json_decref(number);

    const struct {
        std::string line, body, x_trel, type;  // type "": not checked
    } want[] = {
        {"GET /a?b=1 HTTP/1.1", "", "one", ""},
        {"POST /p HTTP/1.1", std::string(body, sizeof body - 1), "one", ""},
        {"PUT /u HTTP/1.1", "abc", "", ""},
        {"POST /j HTTP/1.1", R"({"a":1,"b":"x y"})", "", "application/json"},
        {"POST /e HTTP/1.1", "", "", ""},
        {"PUT /e HTTP/1.1", "", "", ""},
        {"POST /e HTTP/1.1", "", "", ""},
        {"PUT /e HTTP/1.1", "", "", "application/json"},
    };
    auto reqs = server->requests();
    ASSERT_EQ(reqs.size(), std::size(want));
    for (size_t i = 0; i < reqs.size(); i++) {
        SCOPED_TRACE(want[i].line);
        EXPECT_EQ(reqs[i].line, want[i].line);
        EXPECT_EQ(reqs[i].body, want[i].body);
        EXPECT_EQ(reqs[i].header("X-Trel"), want[i].x_trel);
        if (!want[i].type.empty()) {
            EXPECT_EQ(reqs[i].header("Content-Type"), want[i].type);
        }
        std::string length = reqs[i].header("Content-Length");
        EXPECT_EQ(length.empty() ? 0 : std::stoul(length), want[i].body.size());
    }
    server.reset();
    EXPECT_EQ(trel_test::open_fd_count(), fds);
}

// Only http and https are spoken, redirects stop at ten hops, and a body
// goes along with its method through 301, 302 and 303.
TEST(CurlSimple, RedirectsAndSchemes) {
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
    const struct {
        int method;  // index into curl_simple_method_str
        std::string url;
        CURLcode rc;
        std::vector<std::string> lines;  // requests the server saw
    } rows[] = {
        {0, "file://" + dir + "/secret", CURLE_UNSUPPORTED_PROTOCOL, {}},
        {0, server.url("/to-ftp"), CURLE_UNSUPPORTED_PROTOCOL, {"GET /to-ftp HTTP/1.1"}},
        {0, server.url("/loop"), CURLE_TOO_MANY_REDIRECTS,
         std::vector<std::string>(11, "GET /loop HTTP/1.1")},
        {1, server.url("/301"), CURLE_OK, {"POST /301 HTTP/1.1", "POST /to HTTP/1.1"}},
        {1, server.url("/302"), CURLE_OK, {"POST /302 HTTP/1.1", "POST /to HTTP/1.1"}},
        {1, server.url("/303"), CURLE_OK, {"POST /303 HTTP/1.1", "POST /to HTTP/1.1"}},
        {2, server.url("/301"), CURLE_OK, {"PUT /301 HTTP/1.1", "PUT /to HTTP/1.1"}},
        {2, server.url("/303"), CURLE_OK, {"PUT /303 HTTP/1.1", "PUT /to HTTP/1.1"}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string(curl_simple_method_str[r.method]) + " " + r.url);
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
        SCOPED_TRACE("at most " + std::to_string(r.max));
        Response resp(r.max);
        EXPECT_EQ(curl_simple_get(server.url().c_str(), 0, nullptr, resp.r), CURLE_OK);
        EXPECT_EQ(resp.body(), r.body.substr(0, r.max));
        EXPECT_EQ(resp.r->received, r.body.size());
    }
}

TEST(CurlSimple, FailuresAndTimeOut) {
    std::string url = HttpServer().url("/x");  // a port nobody listens on
    trel_test::LogSettings level(7);
    trel_test::LogCapture log;
    Response resp(10);
    resp.r->status = 99;
    EXPECT_EQ(curl_simple_get(url.c_str(), 0, nullptr, resp.r), CURLE_COULDNT_CONNECT);
    EXPECT_EQ(resp.r->status, 0);
    EXPECT_EQ(log.text(), "");
    libtrel_log_level = 8;
    EXPECT_EQ(curl_simple_put(url.c_str(), 0, nullptr, "a", 1, resp.r), CURLE_COULDNT_CONNECT);
    EXPECT_TRUE(log.contains("[debug] curl_simple.curl_simple(): PUT '" + url + "' failed: [7] "));

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
}

}  // namespace
