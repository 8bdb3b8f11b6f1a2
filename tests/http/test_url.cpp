// URL parsing, copying, resolution and encoding.
#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <optional>
#include <string>

#include <trel/http.h>

#include "trel_test.h"

namespace {

struct UrlPtr {
    url_info *u;
    explicit UrlPtr(url_info *p) : u(p) {}
    ~UrlPtr() { url_destroy(u); }
    url_info *operator->() const { return u; }
    url_info *get() const { return u; }
};

struct Expect {
    const char *scheme;
    const char *userinfo;
    const char *host;
    uint16_t port;
    const char *path;
    int is_https;
    int is_ipv6;
    const char *url;
};

struct Case {
    const char *text;
    std::optional<Expect> want;  // nullopt: refused
};

const Case kCases[] = {
    // No scheme: http.
    {"example.lan", Expect{"http", nullptr, "example.lan", 80, "/", 0, 0, "http://example.lan/"}},
    {"HTTPS://u@h1.lan:8443/a?b",
     Expect{"https", "u", "h1.lan", 8443, "/a?b", 1, 0, "https://u@h1.lan:8443/a?b"}},
    {"HtTp://H.LAN/", Expect{"http", nullptr, "H.LAN", 80, "/", 0, 0, "http://H.LAN/"}},
    {"http://[fe80::1]:8080/x",
     Expect{"http", nullptr, "fe80::1", 8080, "/x", 0, 1, "http://[fe80::1]:8080/x"}},
    {"http://[::1]/", Expect{"http", nullptr, "::1", 80, "/", 0, 1, "http://[::1]/"}},
    // Port text limits: 1..65534, 1 to 5 digits; anything else keeps the
    // default without an error.
    {"http://10.0.0.1:65535/",
     Expect{"http", nullptr, "10.0.0.1", 80, "/", 0, 0, "http://10.0.0.1/"}},
    {"http://10.0.0.1:65534/",
     Expect{"http", nullptr, "10.0.0.1", 65534, "/", 0, 0, "http://10.0.0.1:65534/"}},
    {"http://10.0.0.1:0/", Expect{"http", nullptr, "10.0.0.1", 80, "/", 0, 0, "http://10.0.0.1/"}},
    {"http://10.0.0.1:123456/",
     Expect{"http", nullptr, "10.0.0.1", 80, "/", 0, 0, "http://10.0.0.1/"}},
    {"http://10.0.0.1:08443",
     Expect{"http", nullptr, "10.0.0.1", 8443, "/", 0, 0, "http://10.0.0.1:8443/"}},
    {"http://10.0.0.1:/", Expect{"http", nullptr, "10.0.0.1", 80, "/", 0, 0, "http://10.0.0.1/"}},
    {"https://h.lan:1/", Expect{"https", nullptr, "h.lan", 1, "/", 1, 0, "https://h.lan:1/"}},
    {"https://h.lan:8a/", Expect{"https", nullptr, "h.lan", 443, "/", 1, 0, "https://h.lan/"}},
    {"http://h.lan:80:90/", Expect{"http", nullptr, "h.lan", 80, "/", 0, 0, "http://h.lan/"}},
    {"http://h.lan:-1/", Expect{"http", nullptr, "h.lan", 80, "/", 0, 0, "http://h.lan/"}},
    // The scheme table and the default port left out of the normalised text.
    {"stun://h", Expect{"stun", nullptr, "h", 3478, "/", 0, 0, "stun://h/"}},
    {"stun://h:80", Expect{"stun", nullptr, "h", 80, "/", 0, 0, "stun://h:80/"}},
    {"https://h.lan:443/", Expect{"https", nullptr, "h.lan", 443, "/", 1, 0, "https://h.lan/"}},
    {"https://h.lan:80/", Expect{"https", nullptr, "h.lan", 80, "/", 1, 0, "https://h.lan:80/"}},
    {"ws://h.lan/s", Expect{"ws", nullptr, "h.lan", 80, "/s", 0, 0, "ws://h.lan/s"}},
    {"WSS://h.lan/s", Expect{"wss", nullptr, "h.lan", 443, "/s", 0, 0, "wss://h.lan/s"}},
    {"ftp://h/", std::nullopt},
    {"gopher:x", std::nullopt},
    {"://h.lan/", std::nullopt},
    {"h.lan:8080", std::nullopt},
    {"h.lan/a:b", std::nullopt},
    // Hexadecimal-only names are IPv6 literals; one other letter makes a name.
    {"http://cafe/", Expect{"http", nullptr, "cafe", 80, "/", 0, 1, "http://[cafe]/"}},
    {"http://cafe.lan/", Expect{"http", nullptr, "cafe.lan", 80, "/", 0, 0, "http://cafe.lan/"}},
    {"http://fe80::1/", Expect{"http", nullptr, "fe80::1", 80, "/", 0, 1, "http://[fe80::1]/"}},
    {"http://::ffff:10.0.0.1/",
     Expect{"http", nullptr, "::ffff:10.0.0.1", 80, "/", 0, 1, "http://[::ffff:10.0.0.1]/"}},
    {"http://10.0.0.1:81",
     Expect{"http", nullptr, "10.0.0.1", 81, "/", 0, 0, "http://10.0.0.1:81/"}},
    {"http://[::ffff:10.0.0.1]:81",
     Expect{"http", nullptr, "::ffff:10.0.0.1", 81, "/", 0, 1, "http://[::ffff:10.0.0.1]:81/"}},
    // Path start characters.
    {"http://h.lan?x=1", Expect{"http", nullptr, "h.lan", 80, "?x=1", 0, 0, "http://h.lan?x=1"}},
    {"http://h.lan:81;p", Expect{"http", nullptr, "h.lan", 81, ";p", 0, 0, "http://h.lan:81;p"}},
    {"http://h.lan:82/a/b?c#d",
     Expect{"http", nullptr, "h.lan", 82, "/a/b?c#d", 0, 0, "http://h.lan:82/a/b?c#d"}},
    // User information.
    {"http://u:p@h.lan:81/x",
     Expect{"http", "u:p", "h.lan", 81, "/x", 0, 0, "http://u:p@h.lan:81/x"}},
    {"http://@h.lan/", Expect{"http", nullptr, "h.lan", 80, "/", 0, 0, "http://h.lan/"}},
    {"http://u@[::1]:9/", Expect{"http", "u", "::1", 9, "/", 0, 1, "http://u@[::1]:9/"}},
    {"http://h.lan/a@b", std::nullopt},
    {"http://u@h.lan/a@b", std::nullopt},
    {"http://h.lan?to=a@b", std::nullopt},
    // Missing hosts, brackets that do not pair up, non-ASCII bytes.
    {"http://", std::nullopt},
    {"http:///x", std::nullopt},
    {"http://u@/", std::nullopt},
    {"http://[]:80/", std::nullopt},
    {"http://[::1/", std::nullopt},
    {"http://]::1[/", std::nullopt},
    {"http://::1]/", std::nullopt},
    {"http://h\xc3\xa9.lan/", std::nullopt},
    {"http://h.lan/\xff", std::nullopt},
    {"", std::nullopt},
};

void expect_str(const char *got, const char *want, const std::string &what) {
    if (want == nullptr)
        EXPECT_EQ(got, nullptr) << what;
    else if (got == nullptr)
        ADD_FAILURE() << what << ": NULL, want " << want;
    else
        EXPECT_STREQ(got, want) << what;
}

TEST(Url, ParseTable) {
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.text);
        UrlPtr u(url_parse(c.text));
        if (!c.want) {
            EXPECT_EQ(u.get(), nullptr);
            continue;
        }
        ASSERT_NE(u.get(), nullptr);
        const Expect &w = *c.want;
        expect_str(u->scheme, w.scheme, "scheme");
        expect_str(u->userinfo, w.userinfo, "userinfo");
        expect_str(u->host, w.host, "host");
        expect_str(u->path, w.path, "path");
        expect_str(u->url, w.url, "url");
        expect_str(u->orig, c.text, "orig");
        EXPECT_EQ(u->port, w.port);
        EXPECT_EQ(u->is_https, w.is_https);
        EXPECT_EQ(u->is_ipv6, w.is_ipv6);
        EXPECT_EQ(u->ai.ai_addr, nullptr);
        EXPECT_EQ(u->resolve_state, 0);
    }
    EXPECT_EQ(url_parse(nullptr), nullptr);
}

TEST(Url, LengthLimit) {
    std::string base = "http://h.lan/";
    std::string ok = base + std::string(1024 - base.size(), 'a');
    ASSERT_EQ(ok.size(), 1024u);
    UrlPtr u(url_parse(ok.c_str()));
    ASSERT_NE(u.get(), nullptr);
    EXPECT_EQ(std::string(u->path).size(), 1024 - base.size() + 1);
    EXPECT_STREQ(u->url, ok.c_str());
    EXPECT_EQ(url_parse((ok + "a").c_str()), nullptr);
}

TEST(Url, SchemeTable) {
    const struct {
        const char *scheme;
        uint16_t port;
    } rows[] = {{"http", 80}, {"https", 443}, {"stun", 3478}, {"ws", 80},
                {"wss", 443}, {"HTTPS", 443}, {"Stun", 3478}};
    for (const auto &r : rows) {
        uint16_t port = 0;
        EXPECT_EQ(url_scheme2port(r.scheme, &port), 0) << r.scheme;
        EXPECT_EQ(port, r.port) << r.scheme;
        EXPECT_EQ(url_scheme2port(r.scheme, nullptr), 0) << r.scheme;
    }
    uint16_t port = 7;
    EXPECT_EQ(url_scheme2port("ftp", &port), -1);
    EXPECT_EQ(url_scheme2port("http2", &port), -1);
    EXPECT_EQ(url_scheme2port("", &port), -1);
    EXPECT_EQ(url_scheme2port(nullptr, &port), -1);
    EXPECT_EQ(port, 7);
}

TEST(Url, CopyAndReplace) {
    UrlPtr src(url_parse("https://u@h1.lan:8443/a?b"));
    ASSERT_NE(src.get(), nullptr);
    src->resolve_state = 3;
    // Pretend it was resolved: the copy keeps pointing at the source's storage.
    src->ai.ai_family = AF_INET;
    src->ai.ai_addr = reinterpret_cast<struct sockaddr *>(src->addr);
    src->addr[0] = 0x5a;

    url_info *c = url_copy(src.get());
    ASSERT_NE(c, nullptr);
    for (auto [a, b] : {std::pair{c->url, src->url},
                        {c->orig, src->orig},
                        {c->scheme, src->scheme},
                        {c->userinfo, src->userinfo},
                        {c->host, src->host},
                        {c->path, src->path}}) {
        ASSERT_NE(a, nullptr);
        EXPECT_NE(a, b);
        EXPECT_STREQ(a, b);
    }
    EXPECT_EQ(c->port, 8443);
    EXPECT_EQ(c->is_https, 1);
    EXPECT_EQ(c->is_ipv6, 0);
    EXPECT_EQ(c->resolve_state, 3);
    EXPECT_EQ(c->ai.ai_family, AF_INET);
    EXPECT_EQ(c->ai.ai_addr, reinterpret_cast<struct sockaddr *>(src->addr));
    EXPECT_EQ(c->addr[0], 0);

    // Replace destroys the old record and stores the copy.
    UrlPtr other(url_parse("http://[::1]/x"));
    url_info *slot = c;
    url_info *r = url_replace(&slot, other.get());
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(slot, r);
    EXPECT_STREQ(slot->url, "http://[::1]/x");
    EXPECT_EQ(slot->userinfo, nullptr);
    EXPECT_EQ(slot->is_ipv6, 1);
    url_destroy(slot);

    EXPECT_EQ(url_copy(nullptr), nullptr);
    url_info empty;
    memset(&empty, 0, sizeof empty);
    EXPECT_EQ(url_copy(&empty), nullptr);
    slot = url_copy(src.get());
    EXPECT_EQ(url_replace(&slot, nullptr), nullptr);
    EXPECT_EQ(slot, nullptr);
    url_destroy(nullptr);
}

TEST(Url, Resolve) {
    UrlPtr u(url_parse("http://127.0.0.1:8080/"));
    ASSERT_NE(u.get(), nullptr);
    u->resolve_state = 9;
    ASSERT_EQ(url_resolve(u.get(), nullptr), 0);
    EXPECT_EQ(u->resolve_state, 0);
    EXPECT_EQ(u->ai.ai_family, AF_INET);
    EXPECT_EQ(u->ai.ai_socktype, SOCK_STREAM);
    EXPECT_EQ(u->ai.ai_next, nullptr);
    EXPECT_EQ(u->ai.ai_addr, reinterpret_cast<struct sockaddr *>(u->addr));
    EXPECT_EQ(u->ai.ai_addrlen, sizeof(struct sockaddr_in));
    const auto *sin = reinterpret_cast<const struct sockaddr_in *>(u->addr);
    EXPECT_EQ(ntohs(sin->sin_port), 8080);
    char text[64] = "x";
    EXPECT_EQ(url_addr_ntop(u.get(), text, sizeof text), 0);
    EXPECT_STREQ(text, "127.0.0.1");
    // Too small a buffer: errno from inet_ntop.
    EXPECT_EQ(url_addr_ntop(u.get(), text, 4), ENOSPC);

    // IPv6 with the caller's hints.
    UrlPtr v6(url_parse("http://[::1]:81/"));
    struct addrinfo hints = {};
    hints.ai_family = AF_INET6;
    hints.ai_flags = AI_NUMERICHOST;
    ASSERT_EQ(url_resolve(v6.get(), &hints), 0);
    EXPECT_EQ(v6->ai.ai_family, AF_INET6);
    EXPECT_EQ(url_addr_ntop(v6.get(), text, sizeof text), 0);
    EXPECT_STREQ(text, "::1");
    EXPECT_EQ(ntohs(reinterpret_cast<const struct sockaddr_in6 *>(v6->addr)->sin6_port), 81);

    // Every entry is walked: the last IPv4/IPv6 one is kept.
    struct addrinfo any = {};
    any.ai_family = AF_UNSPEC;
    any.ai_flags = AI_NUMERICHOST;
    struct addrinfo *list = nullptr;
    ASSERT_EQ(getaddrinfo("127.0.0.1", "8080", &any, &list), 0);
    const struct addrinfo *last = list;
    int n = 1;
    while (last->ai_next != nullptr) last = last->ai_next, n++;
    ASSERT_GT(n, 1) << "needs several entries";
    ASSERT_EQ(url_resolve(u.get(), &any), 0);
    EXPECT_EQ(u->ai.ai_socktype, last->ai_socktype);
    EXPECT_EQ(u->ai.ai_protocol, last->ai_protocol);
    EXPECT_NE(u->ai.ai_socktype, list->ai_socktype);
    freeaddrinfo(list);

    // A getaddrinfo failure is passed back; the old address is cleared.
    UrlPtr name(url_parse("http://h.lan/"));
    name->ai.ai_addr = reinterpret_cast<struct sockaddr *>(name->addr);
    name->ai.ai_family = AF_INET;
    EXPECT_EQ(url_resolve(name.get(), &hints), EAI_NONAME);
    EXPECT_EQ(name->ai.ai_addr, nullptr);
    strcpy(text, "untouched");
    EXPECT_EQ(url_addr_ntop(name.get(), text, sizeof text), 0);
    EXPECT_STREQ(text, "untouched");

    EXPECT_EQ(url_resolve(nullptr, nullptr), -1);
    EXPECT_EQ(url_addr_ntop(nullptr, text, sizeof text), EINVAL);
}

TEST(Url, ResolveLogging) {
    trel_test::LogCapture log;
    uint32_t saved = libtrel_log_level;
    UrlPtr u(url_parse("http://127.0.0.1:8080/"));

    libtrel_log_level = 8;
    ASSERT_EQ(url_resolve(u.get(), nullptr), 0);
    EXPECT_TRUE(log.contains("libtrel.url_resolve(): url: http://127.0.0.1:8080/")) << log.text();
    EXPECT_FALSE(log.contains("Protocol:"));

    // The address listing only at level 16 exactly.
    log.clear();
    libtrel_log_level = 16;
    ASSERT_EQ(url_resolve(u.get(), nullptr), 0);
    const struct protoent *tcp = getprotobynumber(IPPROTO_TCP);
    std::string proto = std::string("libtrel.dump_addrinfo(): Protocol:\t6 (") +
                        (tcp ? tcp->p_name : "Unknown") + ")";
    EXPECT_TRUE(log.contains(proto)) << log.text();
    EXPECT_TRUE(log.contains("Socket Address (len=16):"));
    EXPECT_TRUE(log.contains("  Port:\t\t8080"));
    EXPECT_TRUE(log.contains("  IPv4 Address:\t127.0.0.1"));
    log.clear();
    libtrel_log_level = 17;
    ASSERT_EQ(url_resolve(u.get(), nullptr), 0);
    EXPECT_FALSE(log.contains("Protocol:"));

    log.clear();
    libtrel_log_level = 8;
    UrlPtr name(url_parse("http://h.lan/"));
    struct addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST;
    EXPECT_NE(url_resolve(name.get(), &hints), 0);
    EXPECT_TRUE(log.contains(std::string("failed to resolve URL : ") + gai_strerror(EAI_NONAME)))
        << log.text();

    log.clear();
    libtrel_log_level = 7;
    url_resolve(u.get(), nullptr);
    EXPECT_EQ(log.text(), "");
    libtrel_log_level = saved;
}

TEST(Url, Encode) {
    const struct {
        const char *in, *out;
    } rows[] = {
        {"a b&c", "a+b%26c"},
        {"", ""},
        {"AZaz09-._~", "AZaz09-._~"},
        {"/?=%+\x01\xff", "%2f%3f%3d%25%2b%01%ff"},
    };
    for (const auto &r : rows) {
        char *e = url_encode(r.in);
        ASSERT_NE(e, nullptr);
        EXPECT_STREQ(e, r.out);
        free(e);
    }
    EXPECT_EQ(url_encode(nullptr), nullptr);
}

}  // namespace
