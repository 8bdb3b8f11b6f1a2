// HTTPS verification against loopback TLS servers with throw-away
// certificates, and the DNS-over-HTTPS provider loop.  The trusted cases run
// in a private mount namespace where the test certificates are bound over
// libcurl's CA bundle and a test hosts file over /etc/hosts.
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <memory>

#include "http_test.h"
#include "trel_test.h"

namespace {

using trel_test::HttpRequest;
using trel_test::HttpResponse;
using trel_test::HttpServer;

std::string g_dir;  // certificate, key and hosts file

HttpResponse fail(const HttpRequest &) { return {500}; }

struct TlsStream : trel_test::HttpStream {
    SSL *ssl;
    explicit TlsStream(SSL *s) : ssl(s) {}
    ~TlsStream() override {
        SSL_shutdown(ssl);
        SSL_free(ssl);
    }
    ssize_t read(void *buf, size_t size) override { return SSL_read(ssl, buf, (int)size); }
    ssize_t write(const void *buf, size_t size) override { return SSL_write(ssl, buf, (int)size); }
    bool buffered() override { return SSL_pending(ssl) > 0; }
};

// An HTTPS server on 127.0.0.1 with the test certificate; a refused
// handshake drops the connection.
struct TlsServer : HttpServer {
    explicit TlsServer(Handler handler = nullptr)
        : HttpServer(std::move(handler), [ctx = context()](int fd) {
              struct timeval tv = {10, 0};  // a silent client cannot stall the handshake
              setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
              SSL *ssl = SSL_new(ctx.get());
              SSL_set_fd(ssl, fd);
              if (SSL_accept(ssl) == 1) return std::unique_ptr<TlsStream>(new TlsStream(ssl));
              ERR_clear_error();
              SSL_free(ssl);
              return std::unique_ptr<TlsStream>();
          }) {}
    static std::shared_ptr<SSL_CTX> context() {
        signal(SIGPIPE, SIG_IGN);  // clients that refuse the certificate hang up
        std::shared_ptr<SSL_CTX> ctx(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
        EXPECT_EQ(SSL_CTX_use_certificate_file(ctx.get(), (g_dir + "good.pem").c_str(), 1), 1);
        EXPECT_EQ(SSL_CTX_use_PrivateKey_file(ctx.get(), (g_dir + "good.key").c_str(), 1), 1);
        return ctx;
    }
    std::string https(const std::string &path = "/") const { return url(path, "https"); }
};

// A DNS wire-format answer: 127.0.0.1 for every A query, nothing for others.
HttpResponse doh_answer(const HttpRequest &req) {
    const std::string &q = req.body;
    size_t pos = 12;
    while (pos < q.size() && q[pos] != 0) pos += (unsigned char)q[pos] + 1;
    pos += 5;  // root label, type, class
    if (pos > q.size()) return fail(req);
    bool is_a = q[pos - 4] == 0 && q[pos - 3] == 1;
    std::string out = q.substr(0, pos);
    out.replace(2, 10, std::string("\x81\x80\0\1\0\0\0\0\0\0", 10));  // a response
    out[7] = is_a ? 1 : 0;                                            // answer count
    if (is_a) out += std::string("\xc0\x0c\0\1\0\1\0\0\0\x3c\0\4\x7f\0\0\1", 16);
    return {200, out, {{"Content-Type", "application/dns-message"}}};
}

// Runs fn in a child inside a private mount namespace where the test
// certificate is bound over libcurl's CA bundle, or skips.
void in_namespace(const std::function<void()> &fn) {
    const char *ca = curl_version_info(CURLVERSION_NOW)->cainfo;
    if (ca == nullptr || access(ca, R_OK) != 0) GTEST_SKIP() << "libcurl has no CA bundle";
    auto enter = [ca] {
        return unshare(CLONE_NEWNS) == 0 &&
               mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               mount((g_dir + "good.pem").c_str(), ca, nullptr, MS_BIND, nullptr) == 0 &&
               mount((g_dir + "hosts").c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) == 0;
    };
    pid_t probe = fork();
    if (probe == 0) _exit(enter() ? 0 : 1);
    int status = -1;
    waitpid(probe, &status, 0);
    if (status != 0) GTEST_SKIP() << "no private mount namespace";
    trel_test::run_in_child([&] {
        ASSERT_TRUE(enter());
        fn();
    });
}

// Certificates are verified, host names too; DoH providers are asked in
// order, the system resolver only with the fallback flag.
TEST(Tls, VerificationAndDohProviders) {
    g_dir = trel_test::make_temp_dir() + "/";
    std::string cmd =
        "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 "
        "-addext subjectAltName=IP:127.0.0.1 -keyout " +
        g_dir + "good.key -out " + g_dir + "good.pem >/dev/null 2>&1";
    if (system(cmd.c_str()) != 0) GTEST_SKIP() << "cannot make test certificates (openssl command)";
    trel_test::write_file(g_dir + "hosts", "127.0.0.1 doh-only.test\n");
    {
        TlsServer untrusted;  // the handshake is refused and nothing is sent
        Response resp;
        EXPECT_EQ(curl_simple_get(untrusted.https().c_str(), 0, nullptr, resp.r),
                  CURLE_PEER_FAILED_VERIFICATION);
        untrusted.stop();
        EXPECT_EQ(untrusted.connections(), 1);
        EXPECT_TRUE(untrusted.requests().empty());
    }
    in_namespace([] {
        std::atomic<bool> answer{true};
        HttpServer web;
        TlsServer first(fail);
        TlsServer second([&](const HttpRequest &q) { return answer ? doh_answer(q) : fail(q); });
        std::string a = first.https("/dns-query"), b = second.https("/dns-query");
        std::string host = "doh-only.test:" + std::to_string(web.port()),
                    url = "http://" + host + "/";
        std::string other = "https://localhost:" + std::to_string(second.port()) + "/";
        curl_simple_doh_providers[0] = a.c_str();
        curl_simple_doh_providers[1] = b.c_str();
        Response resp;
        EXPECT_EQ(curl_simple_post(second.https("/in").c_str(), 0, nullptr, "data", 4, resp.r),
                  CURLE_OK);
        EXPECT_EQ(second.requests().at(0).body, "data");
        // A trusted certificate for another name.
        EXPECT_EQ(curl_simple_get(other.c_str(), 0, nullptr, resp.r),
                  CURLE_PEER_FAILED_VERIFICATION);
        EXPECT_EQ(second.requests().size(), 1u);
        // The first provider fails, the second answers; A and AAAA are asked
        // on a connection each.
        EXPECT_EQ(curl_simple_get(url.c_str(), CURL_SIMPLE_DOH, nullptr, resp.r), CURLE_OK);
        EXPECT_EQ(resp.r->status, 200);
        EXPECT_EQ(first.requests().size(), 2u);
        EXPECT_EQ(second.requests().size(), 3u);
        ASSERT_EQ(web.requests().size(), 1u);
        EXPECT_EQ(web.requests()[0].header("Host"), host);
        // Every provider fails: no system resolver without the fallback flag;
        // the fallback flag alone asks no provider; with both flags the
        // providers come first.
        answer = false;
        const struct {
            uint32_t flags;
            CURLcode rc;
            size_t first, second, web;  // requests seen so far
        } rows[] = {{CURL_SIMPLE_DOH, CURLE_COULDNT_RESOLVE_HOST, 4, 5, 1},
                    {CURL_SIMPLE_DOH_FALLBACK, CURLE_OK, 4, 5, 2},
                    {CURL_SIMPLE_DOH | CURL_SIMPLE_DOH_FALLBACK, CURLE_OK, 6, 7, 3}};
        for (const auto &r : rows) {
            SCOPED_TRACE("flags " + std::to_string(r.flags));
            EXPECT_EQ(curl_simple_get(url.c_str(), r.flags, nullptr, resp.r), r.rc);
            EXPECT_EQ(first.requests().size(), r.first);
            EXPECT_EQ(second.requests().size(), r.second);
            EXPECT_EQ(web.requests().size(), r.web);
        }
    });
    trel_test::remove_tree(g_dir);
}

}  // namespace
