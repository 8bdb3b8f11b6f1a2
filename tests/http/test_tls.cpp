// HTTPS: certificate and host-name verification are on, and DNS-over-HTTPS
// resolution goes through the provider table in order.  Loopback TLS servers
// use throw-away certificates made with the openssl command; the cases that
// need a trusted certificate run in a private mount namespace where the
// test certificates are bound over libcurl's CA bundle.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <trel/http.h>

#include "http_server.h"
#include "trel_test.h"

namespace {

using trel_test::HttpRequest;
using trel_test::HttpResponse;
using trel_test::HttpServer;

// An HTTPS server on 127.0.0.1: serves up to max_connections connections one
// at a time (each waited for at most 10 seconds), one request each.
class TlsServer {
public:
    using Handler = std::function<HttpResponse(const HttpRequest &)>;

    TlsServer(const std::string &cert, const std::string &key, Handler handler,
              int max_connections = 1)
        : handler_(std::move(handler)), max_(max_connections) {
        signal(SIGPIPE, SIG_IGN);  // clients that refuse the certificate hang up
        ctx_ = SSL_CTX_new(TLS_server_method());
        if (ctx_ == nullptr ||
            SSL_CTX_use_certificate_file(ctx_, cert.c_str(), SSL_FILETYPE_PEM) != 1 ||
            SSL_CTX_use_PrivateKey_file(ctx_, key.c_str(), SSL_FILETYPE_PEM) != 1) {
            ADD_FAILURE() << "cannot load the test certificate";
            return;
        }
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in sin = {};
        sin.sin_family = AF_INET;
        sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof sin;
        if (bind(fd_, (struct sockaddr *)&sin, sizeof sin) != 0 || listen(fd_, 8) != 0 ||
            getsockname(fd_, (struct sockaddr *)&sin, &len) != 0) {
            ADD_FAILURE() << "cannot listen";
            return;
        }
        port_ = ntohs(sin.sin_port);
        thread_ = std::thread([this] { run(); });
    }
    ~TlsServer() {
        stop_ = true;
        join();
        if (fd_ >= 0) close(fd_);
        SSL_CTX_free(ctx_);
    }
    std::string url(const std::string &path) const {
        return "https://127.0.0.1:" + std::to_string(port_) + path;
    }
    void join() {
        if (thread_.joinable()) thread_.join();
    }
    int accepted() const { return accepted_; }
    int handshakes() const { return handshakes_; }
    std::vector<HttpRequest> requests() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }

private:
    void run() {
        for (int i = 0; i < max_ && !stop_; i++) {
            struct pollfd p = {fd_, POLLIN, 0};
            int waited = 0;
            while (!stop_ && waited < 10000 && poll(&p, 1, 100) == 0) waited += 100;
            if (!(p.revents & POLLIN)) return;
            int c = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (c < 0) return;
            accepted_++;
            serve(c);
            close(c);
        }
    }

    void serve(int c) {
        struct timeval tv = {10, 0};
        setsockopt(c, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        SSL *ssl = SSL_new(ctx_);
        SSL_set_fd(ssl, c);
        if (SSL_accept(ssl) == 1) {
            handshakes_++;
            std::string in;
            char buf[4096];
            size_t head;
            int n;
            while ((head = in.find("\r\n\r\n")) == std::string::npos &&
                   (n = SSL_read(ssl, buf, sizeof buf)) > 0)
                in.append(buf, (size_t)n);
            if (head != std::string::npos) {
                HttpRequest req = trel_test::parse_request_head(in.substr(0, head));
                size_t length = strtoul(req.header("Content-Length").c_str(), nullptr, 10);
                while (in.size() < head + 4 + length && (n = SSL_read(ssl, buf, sizeof buf)) > 0)
                    in.append(buf, (size_t)n);
                req.body = in.substr(head + 4, length);
                std::string out = trel_test::format_response(handler_(req));
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    requests_.push_back(req);
                }
                SSL_write(ssl, out.data(), (int)out.size());
            }
            SSL_shutdown(ssl);
        }
        ERR_clear_error();
        SSL_free(ssl);
    }

    Handler handler_;
    int max_;
    SSL_CTX *ctx_ = nullptr;
    int fd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> accepted_{0};
    std::atomic<int> handshakes_{0};
    mutable std::mutex mutex_;
    std::vector<HttpRequest> requests_;
    std::thread thread_;
};

HttpResponse ok(const HttpRequest &) {
    HttpResponse r;
    r.body = "ok";
    return r;
}

HttpResponse fail500(const HttpRequest &) {
    HttpResponse r;
    r.status = 500;
    r.reason = "Internal Server Error";
    return r;
}

// A DNS wire-format answer: every A query gets 127.0.0.1, other types an
// empty answer.
HttpResponse doh_answer(const HttpRequest &req) {
    const std::string &q = req.body;
    size_t pos = 12;
    while (pos < q.size() && q[pos] != 0) pos += (unsigned char)q[pos] + 1;
    pos += 5;  // root label, type, class
    if (q.size() < 12 || pos > q.size()) return fail500(req);
    bool is_a = q[pos - 4] == 0 && q[pos - 3] == 1;
    std::string out = q.substr(0, pos);
    out[2] = (char)0x81;  // response, recursion desired
    out[3] = (char)0x80;  // recursion available, no error
    out[6] = 0;
    out[7] = is_a ? 1 : 0;
    out[8] = out[9] = out[10] = out[11] = 0;
    if (is_a) {
        const unsigned char rr[] = {0xc0, 0x0c, 0, 1, 0, 1, 0, 0, 0, 60, 0, 4, 127, 0, 0, 1};
        out.append((const char *)rr, sizeof rr);
    }
    HttpResponse r;
    r.body = out;
    r.headers.push_back({"Content-Type", "application/dns-message"});
    return r;
}

// Points the provider table at other URLs for the life of the object.
class Providers {
public:
    Providers(const std::string &a, const std::string &b) : a_(a), b_(b) {
        memcpy(saved_, curl_simple_doh_providers, sizeof saved_);
        curl_simple_doh_providers[0] = a_.c_str();
        curl_simple_doh_providers[1] = b_.c_str();
    }
    ~Providers() { memcpy(curl_simple_doh_providers, saved_, sizeof saved_); }

private:
    std::string a_, b_;
    const char *saved_[3];
};

// This machine's name when the system resolver maps it to loopback without
// asking the network (hosts file), else "".
std::string local_name() {
    char name[256] = "";
    if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0' || strchr(name, '.') != nullptr)
        return "";
    struct addrinfo hints = {}, *list = nullptr;
    hints.ai_family = AF_INET;
    if (getaddrinfo(name, nullptr, &hints, &list) != 0) return "";
    bool loopback = true;
    for (auto *e = list; e; e = e->ai_next)
        if ((ntohl(((struct sockaddr_in *)e->ai_addr)->sin_addr.s_addr) >> 24) != 127)
            loopback = false;
    freeaddrinfo(list);
    return loopback ? name : "";
}

class Tls : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (system("command -v openssl >/dev/null 2>&1") != 0) return;
        dir_ = trel_test::make_temp_dir();
        // One certificate for the loopback address, one for another name.
        const char *certs[][2] = {
            {"good", "/CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1"},
            {"other", "/CN=other.test -addext subjectAltName=DNS:other.test"}};
        for (auto &c : certs) {
            std::string cmd = "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj " +
                              std::string(c[1]) + " -keyout " + dir_ + "/" + c[0] + ".key -out " +
                              dir_ + "/" + c[0] + ".pem >/dev/null 2>&1";
            if (system(cmd.c_str()) != 0) return;
        }
        std::string bundle =
            trel_test::read_file(dir_ + "/good.pem") + trel_test::read_file(dir_ + "/other.pem");
        trel_test::write_file(dir_ + "/bundle.pem", bundle);
        ready_ = true;
    }
    static void TearDownTestSuite() {
        if (!dir_.empty()) trel_test::remove_tree(dir_);
    }
    void SetUp() override {
        if (!ready_) GTEST_SKIP() << "cannot make test certificates (openssl command)";
    }
    static std::string cert(const char *name) { return dir_ + "/" + name + ".pem"; }
    static std::string key(const char *name) { return dir_ + "/" + name + ".key"; }

    // Runs fn in a child process whose mount namespace shows the test
    // certificates as libcurl's CA bundle; skips when that is not possible.
    static void with_trusted_certs(const std::function<void()> &fn) {
        const char *ca = ca_bundle();
        struct stat st;
        if (ca == nullptr || stat(ca, &st) != 0) GTEST_SKIP() << "libcurl has no CA bundle file";
        std::string bundle = dir_ + "/bundle.pem";
        auto enter = [&] {
            return unshare(CLONE_NEWNS) == 0 &&
                   mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                   mount(bundle.c_str(), ca, nullptr, MS_BIND, nullptr) == 0;
        };
        pid_t probe = fork();
        ASSERT_GE(probe, 0);
        if (probe == 0) _exit(enter() ? 0 : 1);
        int status = 0;
        waitpid(probe, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
            GTEST_SKIP() << "no private mount namespace";
        trel_test::run_in_child([&] {
            ASSERT_TRUE(enter());
            fn();
        });
    }

    static const char *ca_bundle() {
        const curl_version_info_data *v = curl_version_info(CURLVERSION_NOW);
        return v != nullptr ? v->cainfo : nullptr;
    }

    static std::string dir_;
    static bool ready_;
};

std::string Tls::dir_;
bool Tls::ready_ = false;

struct Response {
    curl_simple_response *r = curl_simple_response_init(4096);
    ~Response() { curl_simple_response_free(r); }
    std::string body() const {
        return std::string((const char *)r->body->data(r->body), r->body->length(r->body));
    }
};

TEST_F(Tls, UntrustedCertificateIsRefused) {
    TlsServer server(cert("good"), key("good"), ok);
    Response resp;
    EXPECT_EQ(curl_simple_get(server.url("/secret").c_str(), 0, nullptr, resp.r),
              CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(resp.r->status, 0);
    EXPECT_EQ(resp.body(), "");
    server.join();
    // The handshake was reached and went no further.
    EXPECT_EQ(server.accepted(), 1);
    EXPECT_EQ(server.handshakes(), 0);
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(Tls, TrustedCertificateAndHostName) {
    with_trusted_certs([] {
        {
            TlsServer server(cert("good"), key("good"), ok);
            Response resp;
            EXPECT_EQ(curl_simple_post(server.url("/in").c_str(), 0, nullptr, "data", 4, resp.r),
                      CURLE_OK);
            EXPECT_EQ(resp.r->status, 200);
            EXPECT_EQ(resp.body(), "ok");
            server.join();
            ASSERT_EQ(server.requests().size(), 1u);
            EXPECT_EQ(server.requests()[0].line, "POST /in HTTP/1.1");
            EXPECT_EQ(server.requests()[0].body, "data");
        }
        {
            // A trusted certificate for another name.
            TlsServer server(cert("other"), key("other"), ok);
            Response resp;
            EXPECT_EQ(curl_simple_get(server.url("/").c_str(), 0, nullptr, resp.r),
                      CURLE_PEER_FAILED_VERIFICATION);
            server.join();
            EXPECT_TRUE(server.requests().empty());
        }
    });
}

TEST_F(Tls, DohProvidersInOrder) {
    with_trusted_certs([] {
        HttpServer web;
        // The first provider fails, the second knows every name.  curl asks
        // for A and AAAA on a connection each.
        TlsServer first(cert("good"), key("good"), fail500, 2);
        TlsServer second(cert("good"), key("good"), doh_answer, 2);
        Providers p(first.url("/dns-query"), second.url("/dns-query"));
        std::string host = "doh-only.test:" + std::to_string(web.port());
        Response resp;
        EXPECT_EQ(curl_simple_get(("http://" + host + "/via-doh").c_str(), CURL_SIMPLE_DOH, nullptr,
                                  resp.r),
                  CURLE_OK);
        EXPECT_EQ(resp.r->status, 200);
        first.join();
        second.join();
        ASSERT_EQ(web.requests().size(), 1u);
        EXPECT_EQ(web.requests()[0].line, "GET /via-doh HTTP/1.1");
        EXPECT_EQ(web.requests()[0].header("Host"), host);
        ASSERT_EQ(first.requests().size(), 2u);
        ASSERT_EQ(second.requests().size(), 2u);
        EXPECT_EQ(first.requests()[0].line, "POST /dns-query HTTP/1.1");
        EXPECT_EQ(first.requests()[0].header("Content-Type"), "application/dns-message");
        EXPECT_NE(second.requests()[0].body.find("doh-only"), std::string::npos);
    });
}

TEST_F(Tls, DohFailureAndSystemFallback) {
    with_trusted_certs([] {
        std::string name = local_name();
        HttpServer web;
        TlsServer first(cert("good"), key("good"), fail500, 6);
        TlsServer second(cert("good"), key("good"), fail500, 6);
        Providers p(first.url("/dns-query"), second.url("/dns-query"));
        // Without a name the system resolves locally, only the DoH failure.
        std::string host =
            (name.empty() ? "doh-only.test" : name) + ":" + std::to_string(web.port());
        std::string url = "http://" + host + "/";
        Response resp;
        EXPECT_EQ(curl_simple_get(url.c_str(), CURL_SIMPLE_DOH, nullptr, resp.r),
                  CURLE_COULDNT_RESOLVE_HOST);
        EXPECT_EQ(resp.r->status, 0);
        EXPECT_EQ(first.accepted(), 2);
        EXPECT_EQ(second.accepted(), 2);
        EXPECT_TRUE(web.requests().empty());
        if (name.empty()) return;

        // Flag 2 alone: the system resolver, no provider asked.
        EXPECT_EQ(curl_simple_get(url.c_str(), CURL_SIMPLE_DOH_FALLBACK, nullptr, resp.r),
                  CURLE_OK);
        EXPECT_EQ(first.accepted(), 2);
        EXPECT_EQ(web.requests().size(), 1u);
        // Both flags: the providers, then the system resolver.
        EXPECT_EQ(curl_simple_get(url.c_str(), CURL_SIMPLE_DOH | CURL_SIMPLE_DOH_FALLBACK, nullptr,
                                  resp.r),
                  CURLE_OK);
        EXPECT_EQ(resp.r->status, 200);
        EXPECT_EQ(first.accepted(), 4);
        EXPECT_EQ(second.accepted(), 4);
        EXPECT_EQ(web.requests().size(), 2u);
    });
}

}  // namespace
