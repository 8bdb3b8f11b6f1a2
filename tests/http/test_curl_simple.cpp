// The simple HTTP client against a loopback server.
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <string>

#include <trel/http.h>

#include "http_server.h"
#include "trel_test.h"

namespace {

using trel_test::HttpRequest;
using trel_test::HttpResponse;
using trel_test::HttpServer;

struct Response {
    curl_simple_response *r;
    explicit Response(uint64_t max) : r(curl_simple_response_init(max)) {}
    ~Response() { curl_simple_response_free(r); }
    std::string body() const {
        return std::string((const char *)r->body->data(r->body), r->body->length(r->body));
    }
};

HttpResponse reply(int status, std::string body) {
    HttpResponse r;
    r.status = status;
    r.reason = status == 200 ? "OK" : "Whatever";
    r.body = std::move(body);
    return r;
}

TEST(CurlSimple, Tables) {
    EXPECT_STREQ(curl_simple_method_str[0], "GET");
    EXPECT_STREQ(curl_simple_method_str[1], "POST");
    EXPECT_STREQ(curl_simple_method_str[2], "PUT");
    for (int i = 0; i < 2; i++) {
        std::string p = curl_simple_doh_providers[i];
        EXPECT_EQ(p.rfind("https://", 0), 0u) << p;
        EXPECT_EQ(p.substr(p.size() - 10), "/dns-query") << p;
    }
    EXPECT_STRNE(curl_simple_doh_providers[0], curl_simple_doh_providers[1]);
    EXPECT_EQ(curl_simple_doh_providers[2], nullptr);
}

TEST(CurlSimple, GetStatusHeadersAndBody) {
    {
        // libcurl may keep process-wide descriptors open after its first use.
        HttpServer warm;
        curl_simple_get(warm.url().c_str(), 0, nullptr, nullptr);
    }
    int fds = trel_test::open_fd_count();
    auto server_ptr = std::make_unique<HttpServer>();
    HttpServer &server = *server_ptr;
    server.add_response(reply(200, "hello"));
    server.add_response(reply(404, "missing"));
    server.add_response(reply(204, ""));

    struct curl_slist *headers = curl_slist_append(nullptr, "X-Trel: one");
    {
        Response resp(100);
        EXPECT_EQ(curl_simple_get(server.url("/a?b=1").c_str(), 0, headers, resp.r), CURLE_OK);
        EXPECT_EQ(resp.r->status, 200);
        EXPECT_EQ(resp.body(), "hello");
        EXPECT_EQ(resp.r->received, 5u);
    }
    {
        // Any completed transfer is CURLE_OK; the status tells the rest.
        Response resp(100);
        EXPECT_EQ(curl_simple_get(server.url("/missing").c_str(), 0, nullptr, resp.r), CURLE_OK);
        EXPECT_EQ(resp.r->status, 404);
        EXPECT_EQ(resp.body(), "missing");
    }
    curl_slist_free_all(headers);
    // A record is optional.
    EXPECT_EQ(curl_simple_get(server.url("/x").c_str(), 0, nullptr, nullptr), CURLE_OK);

    auto reqs = server.requests();
    ASSERT_EQ(reqs.size(), 3u);
    EXPECT_EQ(reqs[0].line, "GET /a?b=1 HTTP/1.1");
    EXPECT_EQ(reqs[0].header("X-Trel"), "one");
    EXPECT_EQ(reqs[0].body, "");
    EXPECT_FALSE(reqs[0].has_header("Content-Length"));
    EXPECT_EQ(reqs[1].line, "GET /missing HTTP/1.1");
    EXPECT_FALSE(reqs[1].has_header("X-Trel"));
    server_ptr.reset();
    EXPECT_EQ(trel_test::open_fd_count(), fds);
}

TEST(CurlSimple, PostAndPutBodies) {
    HttpServer server;
    const char body[] = "k=v&x=\0y";  // an embedded NUL travels too
    struct curl_slist *headers = curl_slist_append(nullptr, "Content-Type: text/plain");
    Response resp(100);
    EXPECT_EQ(curl_simple_post(server.url("/p").c_str(), 0, headers, body, sizeof body - 1, resp.r),
              CURLE_OK);
    EXPECT_EQ(curl_simple_put(server.url("/u").c_str(), 0, nullptr, "abc", 3, resp.r), CURLE_OK);
    // Size 0 or no body: nothing is sent.
    EXPECT_EQ(curl_simple_post(server.url("/empty").c_str(), 0, nullptr, "abc", 0, resp.r),
              CURLE_OK);
    EXPECT_EQ(curl_simple_put(server.url("/null").c_str(), 0, nullptr, nullptr, 5, resp.r),
              CURLE_OK);
    EXPECT_EQ(curl_simple_post(server.url("/neg").c_str(), 0, nullptr, "abc", -1, resp.r),
              CURLE_OK);
    curl_slist_free_all(headers);
    EXPECT_EQ(resp.r->status, 200);

    auto reqs = server.requests();
    ASSERT_EQ(reqs.size(), 5u);
    EXPECT_EQ(reqs[0].line, "POST /p HTTP/1.1");
    EXPECT_EQ(reqs[0].body, std::string(body, sizeof body - 1));
    EXPECT_EQ(reqs[0].header("Content-Length"), "8");
    EXPECT_EQ(reqs[0].header("Content-Type"), "text/plain");
    EXPECT_EQ(reqs[1].line, "PUT /u HTTP/1.1");
    EXPECT_EQ(reqs[1].body, "abc");
    const char *empty[] = {"POST /empty HTTP/1.1", "PUT /null HTTP/1.1", "POST /neg HTTP/1.1"};
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(reqs[2 + i].line, empty[i]);
        EXPECT_EQ(reqs[2 + i].body, "");
        std::string length = reqs[2 + i].header("Content-Length");
        EXPECT_TRUE(length.empty() || length == "0") << length;
    }
}

TEST(CurlSimple, JsonBodies) {
    HttpServer server;
    json_t *object = json_pack("{s:i, s:s, s:[i,i]}", "a", 1, "b", "x y", "c", 2, 3);
    Response resp(100);
    EXPECT_EQ(curl_simple_post_json(server.url("/j").c_str(), 0, object, resp.r), CURLE_OK);
    EXPECT_EQ(curl_simple_put_json(server.url("/k").c_str(), 0, object, resp.r), CURLE_OK);
    EXPECT_EQ(curl_simple_put_json(server.url("/none").c_str(), 0, nullptr, resp.r), CURLE_OK);
    // The caller keeps its reference.
    EXPECT_EQ(object->refcount, 1u);
    json_decref(object);

    auto reqs = server.requests();
    ASSERT_EQ(reqs.size(), 3u);
    EXPECT_EQ(reqs[0].line, "POST /j HTTP/1.1");
    EXPECT_EQ(reqs[0].body, R"({"a":1,"b":"x y","c":[2,3]})");
    EXPECT_EQ(reqs[0].header("Content-Type"), "application/json");
    EXPECT_EQ(reqs[1].line, "PUT /k HTTP/1.1");
    EXPECT_EQ(reqs[1].body, reqs[0].body);
    EXPECT_EQ(reqs[2].line, "PUT /none HTTP/1.1");
    EXPECT_EQ(reqs[2].header("Content-Type"), "application/json");
    EXPECT_EQ(reqs[2].body, "");

    // Something that does not serialise as a payload.
    trel_test::LogCapture log;
    json_t *number = json_integer(5);
    EXPECT_EQ(curl_simple_post_json(server.url("/n").c_str(), 0, number, resp.r),
              CURLE_OUT_OF_MEMORY);
    json_decref(number);
    EXPECT_TRUE(
        log.contains("[error] curl_simple.curl_simple_json(): Failed to dump json payload object"))
        << log.text();
    EXPECT_EQ(server.requests().size(), 3u);
}

TEST(CurlSimple, BodyCap) {
    HttpServer server;
    server.add_response(reply(200, "0123456789abcdefghijklmno"));
    std::string big(1 << 20, 'z');
    big[0] = 'A';
    server.add_response(reply(200, big));
    server.add_response(reply(200, "exact"));
    server.add_response(reply(200, "none"));
    {
        Response resp(10);
        EXPECT_EQ(curl_simple_get(server.url().c_str(), 0, nullptr, resp.r), CURLE_OK);
        EXPECT_EQ(resp.body(), "0123456789");
        EXPECT_EQ(resp.r->received, 25u);
    }
    {
        // Many write calls; the excess is dropped, the transfer completes.
        Response resp(1000);
        EXPECT_EQ(curl_simple_get(server.url().c_str(), 0, nullptr, resp.r), CURLE_OK);
        EXPECT_EQ(resp.r->status, 200);
        EXPECT_EQ(resp.body(), big.substr(0, 1000));
        EXPECT_EQ(resp.r->received, big.size());
    }
    {
        Response resp(5);
        EXPECT_EQ(curl_simple_get(server.url().c_str(), 0, nullptr, resp.r), CURLE_OK);
        EXPECT_EQ(resp.body(), "exact");
        EXPECT_EQ(resp.r->received, 5u);
    }
    {
        Response resp(0);
        EXPECT_EQ(curl_simple_get(server.url().c_str(), 0, nullptr, resp.r), CURLE_OK);
        EXPECT_EQ(resp.body(), "");
        EXPECT_EQ(resp.r->received, 4u);
        EXPECT_EQ(resp.r->max_size, 0u);
    }
    curl_simple_response_free(nullptr);
}

TEST(CurlSimple, FollowsRedirects) {
    HttpServer server;
    HttpResponse moved = reply(302, "");
    moved.headers.push_back({"Location", "/final"});
    server.add_response(moved);
    server.add_response(reply(200, "there"));
    Response resp(100);
    EXPECT_EQ(curl_simple_get(server.url("/start").c_str(), 0, nullptr, resp.r), CURLE_OK);
    EXPECT_EQ(resp.r->status, 200);
    EXPECT_EQ(resp.body(), "there");
    auto reqs = server.requests();
    ASSERT_EQ(reqs.size(), 2u);
    EXPECT_EQ(reqs[1].line, "GET /final HTTP/1.1");
}

TEST(CurlSimple, FailuresAndDebugLog) {
    // A port nobody listens on: the listener is closed before the request.
    std::string url;
    {
        HttpServer gone;
        url = gone.url("/x");
    }
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
}

TEST(CurlSimple, TimesOutAfterFiveSeconds) {
    HttpServer server;
    HttpResponse silent;
    silent.hang = true;
    server.add_response(silent);
    Response resp(10);
    struct timespec a, b;
    clock_gettime(CLOCK_MONOTONIC, &a);
    EXPECT_EQ(curl_simple_get(server.url("/slow").c_str(), 0, nullptr, resp.r),
              CURLE_OPERATION_TIMEDOUT);
    clock_gettime(CLOCK_MONOTONIC, &b);
    double elapsed = (double)(b.tv_sec - a.tv_sec) + (double)(b.tv_nsec - a.tv_nsec) / 1e9;
    EXPECT_GE(elapsed, 4.5);
    EXPECT_LT(elapsed, 9.0);
    EXPECT_EQ(resp.r->status, 0);
    EXPECT_EQ(server.requests().size(), 1u);
}

}  // namespace
