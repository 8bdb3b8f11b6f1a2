// URL parsing, copying, resolution and encoding.
#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>

#include <trel/http.h>

#include "trel_test.h"

namespace {

struct UrlPtr : std::unique_ptr<url_info, void (*)(url_info *)> {
    explicit UrlPtr(url_info *u) : unique_ptr(u, url_destroy) {}
};

// "scheme userinfo host port path is_https is_ipv6 url", "-" for NULL fields.
std::string describe(const url_info *u) {
    if (u == nullptr) return "NULL";
    auto s = [](const char *p) { return std::string(p != nullptr ? p : "-"); };
    return s(u->scheme) + " " + s(u->userinfo) + " " + s(u->host) + " " + std::to_string(u->port) +
           " " + s(u->path) + " " + std::to_string(u->is_https) + std::to_string(u->is_ipv6) + " " +
           s(u->url);
}

const struct {
    const char *text, *want;
} kCases[] = {
    // No scheme: http; the scheme is case-insensitive.
    {"example.lan", "http - example.lan 80 / 00 http://example.lan/"},
    {"HTTPS://u@h1.lan:8443/a?b", "https u h1.lan 8443 /a?b 10 https://u@h1.lan:8443/a?b"},
    {"http://[fe80::1]:8080/x", "http - fe80::1 8080 /x 01 http://[fe80::1]:8080/x"},
    // Port text: 1..65534 in 1 to 5 digits; anything else keeps the default.
    {"http://10.0.0.1:65535/", "http - 10.0.0.1 80 / 00 http://10.0.0.1/"},
    {"http://10.0.0.1:65534/", "http - 10.0.0.1 65534 / 00 http://10.0.0.1:65534/"},
    {"http://10.0.0.1:0/", "http - 10.0.0.1 80 / 00 http://10.0.0.1/"},
    {"http://10.0.0.1:123456/", "http - 10.0.0.1 80 / 00 http://10.0.0.1/"},
    {"http://10.0.0.1:08443", "http - 10.0.0.1 8443 / 00 http://10.0.0.1:8443/"},
    {"http://10.0.0.1:/", "http - 10.0.0.1 80 / 00 http://10.0.0.1/"},
    {"https://h.lan:1/", "https - h.lan 1 / 10 https://h.lan:1/"},
    {"https://h.lan:8a/", "https - h.lan 443 / 10 https://h.lan/"},
    // The scheme table; the default port is left out of the normalised text.
    {"stun://h", "stun - h 3478 / 00 stun://h/"},
    {"stun://h:80", "stun - h 80 / 00 stun://h:80/"},
    {"https://h.lan:443/", "https - h.lan 443 / 10 https://h.lan/"},
    {"ws://h.lan/s", "ws - h.lan 80 /s 00 ws://h.lan/s"},
    {"WSS://h.lan/s", "wss - h.lan 443 /s 00 wss://h.lan/s"},
    {"ftp://h/", "NULL"},
    {"://h.lan/", "NULL"},
    {"h.lan:8080", "NULL"},
    {"h.lan/a:b", "NULL"},
    // Hexadecimal-only names are IPv6 literals; one other letter makes a name.
    {"http://cafe/", "http - cafe 80 / 01 http://[cafe]/"},
    {"http://cafe.lan/", "http - cafe.lan 80 / 00 http://cafe.lan/"},
    {"http://::ffff:10.0.0.1/", "http - ::ffff:10.0.0.1 80 / 01 http://[::ffff:10.0.0.1]/"},
    // Path start characters.
    {"http://h.lan?x=1", "http - h.lan 80 ?x=1 00 http://h.lan?x=1"},
    {"http://h.lan:81;p", "http - h.lan 81 ;p 00 http://h.lan:81;p"},
    // User information; an at-sign after the authority is refused.
    {"http://u:p@h.lan:81/x", "http u:p h.lan 81 /x 00 http://u:p@h.lan:81/x"},
    {"http://@h.lan/", "http - h.lan 80 / 00 http://h.lan/"},
    {"http://u@[::1]:9/", "http u ::1 9 / 01 http://u@[::1]:9/"},
    {"http://u@h.lan/a@b", "NULL"},
    {"http://h.lan?to=a@b", "NULL"},
    // Missing hosts, unbalanced brackets, non-ASCII bytes.
    {"http://", "NULL"},
    {"http://u@/", "NULL"},
    {"http://[]:80/", "NULL"},
    {"http://[::1/", "NULL"},
    {"http://::1]/", "NULL"},
    {"http://h\xc3\xa9.lan/", "NULL"},
    {"http://h.lan/\xff", "NULL"},
    {"", "NULL"},
    // Texts libcurl would send elsewhere or refuse: control bytes, spaces and
    // DEL anywhere; in the authority a '#', a second '@', a zone or any text
    // after the brackets but a port, an empty host before ':', a character no
    // host name holds.
    {"http://127.0.0.1#@127.0.0.2:8080/", "NULL"},
    {"http://h.lan#f", "NULL"},
    {"http://a b.lan/", "NULL"},
    {"http://h\t.lan/", "NULL"},
    {"http://h.lan\r\n/", "NULL"},
    {"http://h.lan/a\x01", "NULL"},
    {"http://h.lan/a b", "NULL"},
    {"http://h.lan/\x7f", "NULL"},
    {"http://a@b@c/", "NULL"},
    {"http://[::1]x/", "NULL"},
    {"http://[::1]]/", "NULL"},
    {"http://[::1][/", "NULL"},
    {"http://[::1]:80:90/", "NULL"},
    {"http://[::1]5:8080/", "NULL"},
    {"http://[fe80::1%25eth0]/", "NULL"},
    {"http://:80/", "NULL"},
    {"http://u@:80/", "NULL"},
    {"http://h%2elan/", "NULL"},
    {"http://h!.lan/", "NULL"},
    // A host with ':' is an IPv6 literal or nothing.
    {"http://cafe:80/", "NULL"},
    {"http://1:2/", "NULL"},
    {"http://[fe80::1::2]/", "NULL"},
    // Still read as before: '#' and '%' after the authority or in the user
    // information, an empty port after the brackets, "::" leading a literal.
    {"http://u%40x:p@h.lan/a#b%20", "http u%40x:p h.lan 80 /a#b%20 00 http://u%40x:p@h.lan/a#b%20"},
    {"http://[::1]:/", "http - ::1 80 / 01 http://[::1]/"},
    {"http://::/", "http - :: 80 / 01 http://[::]/"},
    {"http://my_host-1.lan~/", "http - my_host-1.lan~ 80 / 00 http://my_host-1.lan~/"},
};

TEST(Url, Parse) {
    for (const auto &c : kCases) {
        SCOPED_TRACE(c.text);
        UrlPtr u(url_parse(c.text));
        EXPECT_EQ(describe(u.get()), c.want);
        if (u.get() != nullptr) {
            EXPECT_STREQ(u->orig, c.text);
        }
    }
    EXPECT_EQ(url_parse(nullptr), nullptr);
    std::string ok = "http://h.lan/" + std::string(1011, 'a');  // at most 1024 characters
    UrlPtr longest(url_parse(ok.c_str()));
    ASSERT_NE(longest.get(), nullptr);
    EXPECT_STREQ(longest->url, ok.c_str());
    EXPECT_EQ(url_parse((ok + "a").c_str()), nullptr);
    uint16_t port = 7;  // the scheme table directly: a miss leaves the port alone
    EXPECT_EQ(url_scheme2port("http2", &port) + url_scheme2port(nullptr, &port), -2);
    EXPECT_EQ(port, 7);
    EXPECT_EQ(url_scheme2port("Stun", &port), 0);
    EXPECT_EQ(port, 3478);
}

TEST(Url, CopyAndReplace) {
    UrlPtr src(url_parse("https://u@h1.lan:8443/a?b"));
    src->resolve_state = 3;
    // Pretend it was resolved: the copy keeps pointing at the source's storage.
    src->ai.ai_addr = reinterpret_cast<struct sockaddr *>(src->addr);
    src->addr[0] = 0x5a;
    url_info *c = url_copy(src.get()), *slot = c;
    ASSERT_NE(c, nullptr);
    EXPECT_NE(c->url, src->url);  // every text is a copy of its own
    EXPECT_STREQ(c->orig, src->orig);
    EXPECT_EQ(describe(c), describe(src.get()));
    EXPECT_EQ(c->resolve_state, 3);
    EXPECT_EQ(c->ai.ai_addr, reinterpret_cast<struct sockaddr *>(src->addr));
    EXPECT_EQ(c->addr[0], 0);
    // Replace destroys the old record and stores the copy.
    UrlPtr other(url_parse("http://[::1]/x"));
    EXPECT_EQ(url_replace(&slot, other.get()), slot);
    EXPECT_EQ(describe(slot), "http - ::1 80 /x 01 http://[::1]/x");
    EXPECT_EQ(url_replace(&slot, nullptr), nullptr);
    EXPECT_EQ(slot, nullptr);
    url_info empty = {};
    EXPECT_EQ(url_copy(&empty), nullptr);
    EXPECT_EQ(url_copy(nullptr), nullptr);
}

TEST(Url, ResolveAndEncode) {
    UrlPtr u(url_parse("http://127.0.0.1:8080/")), v6(url_parse("http://[::1]:81/"));
    u->resolve_state = 9;
    ASSERT_EQ(url_resolve(u.get(), nullptr), 0);
    EXPECT_EQ(u->resolve_state, 0);
    EXPECT_EQ(u->ai.ai_addr, reinterpret_cast<struct sockaddr *>(u->addr));
    EXPECT_EQ(u->ai.ai_addrlen, sizeof(struct sockaddr_in));
    EXPECT_EQ(ntohs(reinterpret_cast<const struct sockaddr_in *>(u->addr)->sin_port), 8080);
    char text[64] = "x";
    EXPECT_EQ(url_addr_ntop(u.get(), text, sizeof text), 0);
    EXPECT_STREQ(text, "127.0.0.1");
    EXPECT_EQ(url_addr_ntop(u.get(), text, 4), ENOSPC);
    struct addrinfo hints = {};  // IPv6 with the caller's hints
    hints.ai_family = AF_INET6;
    hints.ai_flags = AI_NUMERICHOST;
    ASSERT_EQ(url_resolve(v6.get(), &hints), 0);
    EXPECT_EQ(url_addr_ntop(v6.get(), text, sizeof text), 0);
    EXPECT_STREQ(text, "::1");
    EXPECT_EQ(ntohs(reinterpret_cast<const struct sockaddr_in6 *>(v6->addr)->sin6_port), 81);

    // Every entry is walked: the last IPv4/IPv6 one is kept.
    struct addrinfo any = {}, *list = nullptr;
    any.ai_flags = AI_NUMERICHOST;
    ASSERT_EQ(getaddrinfo("127.0.0.1", "8080", &any, &list), 0);
    const struct addrinfo *last = list;
    while (last->ai_next != nullptr) last = last->ai_next;
    ASSERT_NE(last, list) << "needs several entries";
    ASSERT_EQ(url_resolve(u.get(), &any), 0);
    EXPECT_EQ(u->ai.ai_socktype, last->ai_socktype);
    freeaddrinfo(list);
    EXPECT_EQ(url_resolve(nullptr, nullptr), -1);
    EXPECT_EQ(url_addr_ntop(nullptr, text, sizeof text), EINVAL);

    // The url line from level 8, the address listing at 16 only.
    trel_test::LogCapture log;
    const struct protoent *tcp = getprotobynumber(IPPROTO_TCP);
    const std::string listing[] = {std::string("libtrel.dump_addrinfo(): Protocol:\t6 (") +
                                       (tcp ? tcp->p_name : "Unknown") + ")",
                                   "Socket Address (len=16):", "  Port:\t\t8080",
                                   "  IPv4 Address:\t127.0.0.1"};
    for (uint32_t level : {7u, 8u, 16u, 17u}) {
        SCOPED_TRACE("level " + std::to_string(level));
        log.clear();
        libtrel_log_level = level;
        ASSERT_EQ(url_resolve(u.get(), nullptr), 0);
        EXPECT_EQ(log.contains("libtrel.url_resolve(): url: http://127.0.0.1:8080/"), level > 7);
        for (const auto &line : listing) EXPECT_EQ(log.contains(line), level == 16) << line;
    }
    // A getaddrinfo failure is passed back and logged; the old address is cleared.
    UrlPtr name(url_parse("http://h.lan/"));
    name->ai.ai_addr = reinterpret_cast<struct sockaddr *>(name->addr);
    libtrel_log_level = 8;
    EXPECT_EQ(url_resolve(name.get(), &any), EAI_NONAME);
    EXPECT_TRUE(log.contains(std::string("failed to resolve URL : ") + gai_strerror(EAI_NONAME)));
    EXPECT_EQ(name->ai.ai_addr, nullptr);
    EXPECT_EQ(url_addr_ntop(name.get(), text, sizeof text), 0);
    EXPECT_STREQ(text, "::1");  // untouched
    name->ai.ai_addr = reinterpret_cast<struct sockaddr *>(name->addr);
    name->ai.ai_family = AF_UNIX;  // neither IPv4 nor IPv6: nothing to print
    EXPECT_EQ(url_addr_ntop(name.get(), text, sizeof text), 0);
    EXPECT_STREQ(text, "::1");

    for (auto [in, out] : {std::pair{"a b&c", "a+b%26c"},
                           {"AZaz09-._~", "AZaz09-._~"},
                           {"/?=%+\x01\xff", "%2f%3f%3d%25%2b%01%ff"}}) {
        char *e = url_encode(in);
        EXPECT_STREQ(e, out);
        free(e);
    }
    EXPECT_EQ(url_encode(nullptr), nullptr);
}

}  // namespace
